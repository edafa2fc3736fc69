// The program kestrix: the run, from the command line to the last micrograph.
#include "run/parameters.h"
#include "run/stage_timer.h"
#include "session/command_line.h"
#include "session/devices.h"
#include "session/front_end.h"
#include "session/session.h"
#include "session/signals.h"

int main(int argc, char** argv) {
  time_push();
  time_push();
  if (asks_for_words(argc, argv)) {
    put_words(argc, argv, "kestrix");
    return 0;
  }
  end_cleanly_on_signals();
  CommandLine line(argc, argv);
  const int device = kestrix_find_value(argc, argv, "gid");
  const bool on_several = device > 0 && names_devices(argv[device]);
  const SessionEnd end = on_several ? SessionEnd{pick_on_devices(line.argc(), line.argv(), device), 0}
                                    : pick_session(line.argc(), line.argv());
  if (end.finished < 0) return end.status;
  put_end(end.finished);
  return end.status;
}
