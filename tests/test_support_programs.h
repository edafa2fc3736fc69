// Running the built programs from tests.
#pragma once

#include <sys/wait.h>

#include <cstdlib>
#include <string>

#include "test_support.h"

struct ProgramRun {
  int status;  // of its exit, -1 where a signal ended it
  std::string output, errors;
};

/// Runs a shell command in an existing folder, where output and errors are kept meanwhile.
inline ProgramRun run_program(const std::string& folder, const std::string& command) {
  const std::string output = folder + "/stdout.txt", errors = folder + "/stderr.txt";
  const std::string line = "cd '" + folder + "' && " + command + " >'" + output + "' 2>'" + errors + "'";
  const int status = system(line.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file(output), read_file(errors)};
}
