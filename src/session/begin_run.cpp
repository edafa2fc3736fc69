#include "session/begin_run.h"

#include "run/stage_timer.h"
#include "session/micrograph_list.h"

void begin_run(int argc, char** argv, Run* run) {
  read_command_line(argc, argv, run);
  run->para.n_files = leave_out_own_images(run->para.files, run->para.n_files);
  report_command_line(argc, argv, run);
  check_output_names(run->para.files, run->para.n_files);
  prepare_run(run);
  time_pop("PREPARATION");
}
