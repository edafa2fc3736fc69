// The program kestrix: the run, from the command line to the last micrograph.
#include <cstdio>

#include "run/parameters.h"
#include "run/reports.h"
#include "run/stage_timer.h"
#include "run/version.h"
#include "session/command_line.h"
#include "session/devices.h"
#include "session/session.h"
#include "session/signals.h"
#include "str_utils.h"

int main(int argc, char** argv) {
  time_push();
  time_push();
  if (argc < 2) {
    kestrix_help(argv[0]);
    return 0;
  }
  if (is_keywd_help(argv[1])) {
    kestrix_help_full(argv[0]);
    return 0;
  }
  if (keywd_cmp(argv[1], "help_more")) {
    kestrix_help_more();
    return 0;
  }
  if (asks_for_version(argv[1])) {
    put_version("kestrix");
    return 0;
  }
  if (keywd_cmp(argv[1], "list_options")) {
    put_option_table();
    return 0;
  }
  end_cleanly_on_signals();
  CommandLine line(argc, argv);
  const int device = kestrix_find_value(argc, argv, "gid");
  const bool on_several = device > 0 && names_devices(argv[device]);
  const SessionEnd end = on_several ? SessionEnd{pick_on_devices(line.argc(), line.argv(), device), 0}
                                    : pick_session(line.argc(), line.argv());
  if (end.finished < 0) return end.status;
  put_rule('#', 129, stdout);
  printf("All %d files finished successfully:\n", end.finished);
  time_pop("TOTAL");
  put_rule('#', 129, stdout);
  printf("\n");
  kestrix_put_one_random_tip();
  return end.status;
}
