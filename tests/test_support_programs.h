// Running the built programs from tests.
#pragma once

#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

/// The whole content of a file; empty if there is none.
inline std::string file_bytes(const std::string& name) {
  std::ifstream file(name, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

struct ProgramRun {
  int status;  // of its exit, -1 where a signal ended it
  std::string output, errors;
};

/// Runs a shell command in an existing folder, where output and errors are kept meanwhile.
inline ProgramRun run_program(const std::string& folder, const std::string& command) {
  const std::string output = folder + "/stdout.txt", errors = folder + "/stderr.txt";
  const int status =
      system(("cd '" + folder + "' && " + command + " >'" + output + "' 2>'" + errors + "'").c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, file_bytes(output), file_bytes(errors)};
}
