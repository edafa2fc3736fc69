// The program kestrix: the run, from the command line to the last micrograph.
#include <cstdio>

#include "run/parameters.h"
#include "run/reports.h"
#include "run/stage_timer.h"
#include "session/begin_run.h"
#include "session/devices.h"
#include "str_utils.h"

namespace {

// Picks all micrographs of the command line in this process. Returns their number.
int pick_on_one_device(int argc, char** argv) {
  Run run{};
  begin_run(argc, argv, &run);
  const int n_files = run.para.n_files;
  for (int i = 0; i < n_files; i++) pick_micrograph(&run, run.para.files[i]);
  put_tally(&run.tally);
  free_run(&run);
  return n_files;
}

}  // namespace

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
  const int device = kestrix_find_device_argument(argc, argv);
  const bool on_several = device > 0 && names_devices(argv[device]);
  const int n_files = on_several ? pick_on_devices(argc, argv, device) : pick_on_one_device(argc, argv);
  put_rule('#', 129, stdout);
  printf("All %d files finished successfully:\n", n_files);
  time_pop("TOTAL");
  put_rule('#', 129, stdout);
  printf("\n");
  kestrix_put_one_random_tip();
  return 0;
}
