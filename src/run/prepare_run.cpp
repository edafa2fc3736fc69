// From the command line to a run that is ready for its micrographs.
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <memory>

#include "cuda_general.h"
#include "formats/image_diagnosis.h"
#include "platform/failure.h"
#include "run/auto_picks.h"
#include "run/micrograph_image.h"
#include "run/picking.h"
#include "run/reports.h"
#include "run/setting_notes.h"

namespace {

constexpr char unit[] = "kestrix56";

// Finds the first readable entry, opens it and makes it list entry 0. Ends the run if there is none.
std::unique_ptr<ImageFile> check_access_openf_1st(Kestrix_Para* para) {
  char** files = para->files;
  const int n = para->n_files;
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
    std::unique_ptr<ImageFile> image = open_micrograph(para, files[i], __func__);
    para->first_file = files[0] = files[i];
    return image;
  }
  KESTRIX_FATAL("no readable micrograph in the list");
}

// Refuses a header that promises a huge image which the file doesn't hold a row of, before anything is allocated for it.
void check_held_size(const char* name, const ImageFile& image) {
  const MRC_HEAD* head = &image.head();
  constexpr long kHuge = 1L << 26;
  const long samples = static_cast<long>(head->nx) * head->ny;
  const long held = samples - static_cast<long>(image.missing_samples(0));
  if (samples > kHuge && held < head->nx)
    KESTRIX_FATAL("the header of %s promises %d x %d pixels, of which the file holds %ld: is it a whole MRC file", name,
                  head->nx, head->ny, held);
}

// Where the header tells another pixel size than the user.
void note_other_pixel_size(const Run* run) {
  const float in_header = pixel_size_of(run->first_head);
  const float given = run->para.apixM;
  if (in_header > 0 && in_header != 1.0f && std::fabs(in_header - given) > 0.01f * given)
    safety_note(run->para.first_file, "its header says %g A a pixel, and --apixM %g is used.",
                static_cast<double>(in_header), static_cast<double>(given));
}

void read_first_header(Run* run) {
  const std::unique_ptr<ImageFile> image = check_access_openf_1st(&run->para);
  run->first_head = image->head();
  if (mrc_section_size_valid(&run->first_head) && image->unreadable().empty()) {
    check_held_size(run->para.first_file, *image);
  } else if (!run->para.any_format) {
    note_odd_image(run->para.first_file);
  }
  if (run->para.any_format) note_other_pixel_size(run);
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
