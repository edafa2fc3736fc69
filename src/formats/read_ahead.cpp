#include "formats/read_ahead.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <system_error>

namespace {

// What the kernel takes of one request is limited by the device, to some MiB at most.
constexpr off_t kRequest = off_t{1} << 20;

void ask_for(const std::string& name) {
  // A pipe or a device must not be waited for.
  const int file = open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (file < 0) return;
  struct stat facts {};
  if (fstat(file, &facts) == 0 && S_ISREG(facts.st_mode))
    for (off_t at = 0; at < facts.st_size; at += kRequest) posix_fadvise(file, at, kRequest, POSIX_FADV_WILLNEED);
  close(file);
}

}  // namespace

void ReadAhead::begin(const std::string& name) {
  wait();
  // Signals are for the thread that works.
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    thread_ = std::thread(ask_for, name);
  } catch (const std::system_error&) {
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void ReadAhead::wait() {
  if (thread_.joinable()) thread_.join();
}
