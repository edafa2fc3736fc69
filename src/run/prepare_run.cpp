// From the command line to a run that is ready for its micrographs.
#include <unistd.h>

#include <cstdio>

#include "cuda_general.h"
#include "formats/mrc_diagnosis.h"
#include "platform/failure.h"
#include "run/auto_picks.h"
#include "run/picking.h"
#include "run/reports.h"
#include "run/setting_notes.h"

namespace {

constexpr char unit[] = "kestrix56";

// Finds the first readable entry, opens it and makes it list entry 0. Ends the run if there is none.
void check_access_openf_1st(char** files, int n, char*& first_file, FILE*& f) {
  for (int i = 0; i < n; i++) {
    const char* problem = access(files[i], F_OK) != 0 ? "does NOT exsit" : "are NOT readable";
    if (access(files[i], R_OK) != 0 || !check_file_regular(files[i])) {
      printf(
          "\x1b[41m\x1b[1m\x1b[5mWarning in function %s(), file %s on line %d: the micrograph %s %s! Automatically "
          "ignored!\x1b[m\n\n",
          __func__, unit, __LINE__, files[i], problem);
      continue;
    }
    printf("Opening %s for initial test and preperation .......\n", files[i]);
    f = KESTRIX_OPEN_READ(files[i]);
    first_file = files[0] = files[i];
    return;
  }
  KESTRIX_FATAL("no readable micrograph in the list");
}

// Refuses a header that promises a huge image which the file doesn't hold a row of, before anything is allocated for it.
void check_held_size(const char* name, FILE* f, const MRC_HEAD* head) {
  if (!mrc_section_size_valid(head) || !mrc_mode_readable(head->mode)) return note_odd_image(name, f, head);
  constexpr long kHuge = 1L << 26;
  const long samples = static_cast<long>(head->nx) * head->ny;
  const long held = samples - static_cast<long>(mrc_missing_samples(f, head, 0));
  if (samples > kHuge && held < head->nx)
    KESTRIX_FATAL("the header of %s promises %d x %d pixels, of which the file holds %ld: is it a whole MRC file", name,
                  head->nx, head->ny, held);
}

void read_first_header(Run* run) {
  FILE* f = nullptr;
  check_access_openf_1st(run->para.files, run->para.n_files, run->para.first_file, f);
  mrc_read_head(f, &run->first_head);
  check_held_size(run->para.first_file, f, &run->first_head);
  fclose(f);
}

}  // namespace

void read_command_line(int argc, char** argv, Run* run) {
  kestrix_init_parameters(argc, &run->para);
  kestrix_get_parameters(argc, argv, &run->para);
}

void report_command_line(int argc, char** argv, const Run* run) {
  kestrix_fput_parameters(argc, argv, &run->para, stdout);
  kestrix_check_parameters(&run->para);
}

void prepare_run(Run* run) {
  Kestrix_Para* para = &run->para;
  CHECK_DEVICE(cudaSetDevice(para->gid));
  read_first_header(run);
  limit_auto_shrink(para, run->first_head.nx, run->first_head.ny);
  set_run_sizes(run);
  // The disc is the same at every angle: one is enough.
  if (para->auto_template) para->ang_step = 360.0f;
  acquire_templates(run);
  note_settings(run);
  allocate_run(run);
  prepare_templates(run);
}
