#include "session/signals.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <initializer_list>

#include "platform/outputs.h"

namespace {

// The thread that writes outputs must not run on while they are removed: it does so itself.
void end_by_signal(int signal) {
  const pid_t process = getpid();
  if (static_cast<pid_t>(syscall(SYS_gettid)) != process) {
    syscall(SYS_tgkill, process, process, signal);
    return;
  }
  outputs_discard();
  _exit(128 + signal);
}

}  // namespace

void end_cleanly_on_signals() {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action {};
    if (sigaction(signal, nullptr, &action) != 0 || action.sa_handler == SIG_IGN) continue;
    action = {};
    action.sa_handler = end_by_signal;
    sigaction(signal, &action, nullptr);
  }
}
