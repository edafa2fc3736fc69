// What a call prints on standard output and how it ends, for checks of whole texts.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

/// How a call ended and all that it printed on standard output.
struct Ending {
  int status;  // exit status; 0 for a call that returned, -1 for one that was killed
  bool returned;
  std::string output;
};

/// Everything in an open file from its start; closes it.
inline std::string text_of(FILE* file) {
  std::string text;
  rewind(file);
  for (int c = fgetc(file); c != EOF; c = fgetc(file)) text += static_cast<char>(c);
  fclose(file);
  return text;
}

/// What call, which must return, prints on standard output.
inline std::string stdout_of(const std::function<void()>& call) {
  fflush(stdout);
  FILE* file = tmpfile();
  const int kept = dup(STDOUT_FILENO);
  dup2(fileno(file), STDOUT_FILENO);
  call();
  fflush(stdout);
  dup2(kept, STDOUT_FILENO);
  close(kept);
  return text_of(file);
}

/// Runs call in a process of its own, since it may end the process.
inline Ending ending_of(const std::function<void()>& call) {
  constexpr int kReturned = 99;  // a status that the program never has
  fflush(nullptr);
  FILE* file = tmpfile();
  const pid_t child = fork();
  if (child == 0) {
    dup2(fileno(file), STDOUT_FILENO);
    call();
    fflush(stdout);
    _exit(kReturned);
  }
  int wait_status = 0;
  waitpid(child, &wait_status, 0);
  const int status = WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : -1;
  const bool returned = status == kReturned;
  return {returned ? 0 : status, returned, text_of(file)};
}
