#include "run/micrograph_image.h"

#include "formats/image_diagnosis.h"
#include "platform/failure.h"

namespace {

constexpr char unit[] = "kestrix56";

}  // namespace

ImageOptions image_options(const Kestrix_Para* para) { return {para->any_format, para->signed_bytes}; }

std::unique_ptr<ImageFile> open_micrograph(const Kestrix_Para* para, const char* mic, const char* function) {
  if (!para->any_format) return open_plain_mrc(open_to_read(mic, function, unit, __LINE__));
  std::string problem;
  std::unique_ptr<ImageFile> image = open_image(mic, image_options(para), &problem);
  if (!image) fatal_error(function, unit, __LINE__, "%s %s", mic, problem.c_str());
  return image;
}

bool are_alike(const Kestrix_Para* para, const MRC_HEAD& a, const MRC_HEAD& b) {
  MRC_HEAD read = b;
  if (para->any_format) read.mode = a.mode;  // samples come as floats, whatever they are
  return mrc_head_is_like(&a, &read);
}

bool fits_run(const Run* run, const MRC_HEAD& head) { return are_alike(&run->para, run->first_head, head); }

float pixel_size_of_list(const Kestrix_Para* para, const char** name) {
  for (int i = 0; i < para->n_files; i++) {
    const ImageFacts facts = look_at_image(para->files[i], image_options(para), false);
    if (!facts.problem.empty()) continue;
    *name = para->files[i];
    return facts.apix == 1.0f ? 0 : facts.apix;  // 1 is what programs write that don't know it
  }
  return 0;
}
