// The program kestrix: the run, from the command line to the last micrograph.
#include <cstdio>

#include "run/picking.h"
#include "run/reports.h"
#include "run/stage_timer.h"
#include "session/micrograph_list.h"
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
  Run run{};
  read_command_line(argc, argv, &run);
  run.para.n_files = leave_out_own_images(run.para.files, run.para.n_files);
  report_command_line(argc, argv, &run);
  check_output_names(run.para.files, run.para.n_files);
  prepare_run(&run);
  time_pop("PREPARATION");

  for (int i = 0; i < run.para.n_files; i++) pick_micrograph(&run, run.para.files[i]);

  put_tally(&run.tally);
  const int n_files = run.para.n_files;
  free_run(&run);
  put_rule('#', 129, stdout);
  printf("All %d files finished successfully:\n", n_files);
  time_pop("TOTAL");
  put_rule('#', 129, stdout);
  printf("\n");
  kestrix_put_one_random_tip();
  return 0;
}
