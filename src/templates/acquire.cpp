// Template acquisition: from the MRC stack or as a generated disc, to the working pixel size.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "compute/text_numbers.h"
#include "cuda_general.h"
#include "mrcfile.h"
#include "platform/failure.h"
#include "platform/host_memory.h"
#include "process2d_raw.h"
#include "str_utils.h"
#include "templates/templates.h"

namespace {

constexpr char unit[] = "quorlin56";

// Refuses a stack that the file can't hold before anything is allocated for it.
void check_stack(FILE* file, const MRC_HEAD* head, const char* name) {
  if (!mrc_head_sizes_valid(head))
    KESTRIX_FATAL("the templates of %s have the size %d x %d x %d, which can't be: is it an MRC stack", name, head->nx,
                  head->ny, head->nz);
  if (!mrc_mode_readable(head->mode))
    KESTRIX_FATAL("the templates of %s are of MRC mode %d (%s); modes 0, 1, 2 and 6 can be read", name, head->mode,
                  mrc_get_head_mode(head));
  if (mrc_missing_samples(file, head, head->nz - 1) > 0)
    KESTRIX_FATAL("the template stack %s ends before its last image; its header says %d x %d x %d", name, head->nx,
                  head->ny, head->nz);
}

void check_working_size(int nx, int ny, int work_side, const char* what) {
  if (nx < 1 || ny < 1)
    KESTRIX_FATAL(
        "%s come out smaller than 1 pixel (%d x %d) at the working pixel size; give a lower --speed and check "
        "--apixT, --apixM and --diameter",
        what, nx, ny);
  if (nx > work_side || ny > work_side)
    KESTRIX_FATAL(
        "%s come out as %d x %d pixels, larger than the working image of %d x %d; check --apixT, --apixM and "
        "--diameter",
        what, nx, ny, work_side, work_side);
}

// The scaled stack in a new block; frees the given one.
float* scale_stack(float* stack, int nx, int ny, int nz, int snx, int sny, float scale) {
  auto* scaled = host_new<float>(static_cast<size_t>(nz) * snx * sny);
  gpu_2ds_scale(scaled, stack, nx, ny, nz, scale);
  free(stack);
  return scaled;
}

// The block-averaged stack in a new block; frees the given one.
float* shrink_stack(float* stack, int nx, int ny, int nz, int shrink) {
  auto* shrunk = host_new<float>(static_cast<size_t>(nz) * (nx / shrink) * (ny / shrink));
  cpu_2ds_meanshrink(shrunk, stack, nx, ny, nz, shrink);
  free(stack);
  return shrunk;
}

}  // namespace

bool is_auto_template(const char* T) { return strcasecmp(T, "NULL") == 0 || strcasecmp(T, "NONE") == 0; }

float* get_or_create_template_data(int& nx, int& ny, int& nz, const char* T, float radius, float apixT, float apixM,
                                   int shrink, float center1_ratio, int work_side, const ImageOptions& options) {
  if (is_auto_template(T)) {
    const long side = 4L * saturating_int(radius);
    check_working_size(saturating_int(side), saturating_int(side), work_side, "the automatic template would");
    return create_template_data(nx, ny, nz, radius, center1_ratio);
  }
  if (access(T, R_OK) != 0) safety_note(T, "given by --T, can't be read; check its name and your rights.");
  float* stack = options.any_format ? get_template_images(nx, ny, nz, T, options) : get_template_data(nx, ny, nz, T);
  const float scale = apixT / apixM;
  const int snx = saturating_int(static_cast<float>(nx) * scale);
  const int sny = saturating_int(static_cast<float>(ny) * scale);
  check_working_size(snx / shrink, sny / shrink, work_side, T);
  if (scale != 1.0f) stack = scale_stack(stack, nx, ny, nz, snx, sny, scale);
  if (shrink != 1) stack = shrink_stack(stack, snx, sny, nz, shrink);
  nx = snx / shrink;
  ny = sny / shrink;
  return stack;
}

float* get_template_data(int& nx, int& ny, int& nz, const char* name) {
  FILE* file = KESTRIX_OPEN_READ(name);
  MRC_HEAD head;
  mrc_read_head(file, &head);
  check_stack(file, &head, name);
  note_extended_header(name, &head);
  nx = head.nx;
  ny = head.ny;
  nz = head.nz;
  const size_t pixels = static_cast<size_t>(nx) * ny;
  auto* stack = host_new<float>(static_cast<size_t>(nz) * pixels);
  for (int z = 0; z < nz; z++) mrc_read_slice(file, &head, z, 'z', stack + static_cast<size_t>(z) * pixels);
  fclose(file);
  return stack;
}

float* get_template_images(int& nx, int& ny, int& nz, const char* name, const ImageOptions& options) {
  std::string problem;
  const std::unique_ptr<ImageFile> image = open_image(name, options, &problem);
  if (!image) KESTRIX_FATAL("the template stack %s %s", name, problem.c_str());
  if (!image->unreadable().empty()) KESTRIX_FATAL("the template stack %s %s", name, image->unreadable().c_str());
  nx = image->head().nx;
  ny = image->head().ny;
  nz = image->head().nz;
  for (int z = nz - 1; z >= 0; z--)  // the last first, which tells of the others
    if (image->missing_samples(z) > 0)
      KESTRIX_FATAL("the template stack %s ends before its image %d of %d%s%s", name, z + 1, nz,
                    image->damage().empty() ? "" : ": it ", image->damage().c_str());
  const size_t pixels = static_cast<size_t>(nx) * ny;
  auto* stack = host_new<float>(static_cast<size_t>(nz) * pixels);
  for (int z = 0; z < nz; z++) image->read_rows(z, 0, ny, stack + static_cast<size_t>(z) * pixels);
  return stack;
}

float* create_template_data(int& nx, int& ny, int& nz, float radius, float center1_ratio) {
  nx = ny = 4 * static_cast<int>(radius);
  nz = 1;
  auto* disc = host_new<float>(static_cast<size_t>(nx) * ny);
  const float centre = static_cast<float>(nx - 1) / 2;
  cpu_2d_generate_rmask_soft(disc, nx, ny, centre, centre, radius * center1_ratio, (1 - center1_ratio) * radius);
  return disc;
}

void gpu_2ds_scale(float* out, const float* in, int nx, int ny, int nz, float scale) {
  const size_t in_pixels = static_cast<size_t>(nx) * ny;
  const size_t out_pixels = static_cast<size_t>(static_cast<int>(static_cast<float>(nx) * scale)) *
                            static_cast<size_t>(static_cast<int>(static_cast<float>(ny) * scale));
  auto* d_in = device_new<float>(in_pixels);
  auto* d_out = device_new<float>(out_pixels);
  for (int z = 0; z < nz; z++) {
    const auto slice = static_cast<size_t>(z);
    CHECK_DEVICE(cudaMemcpy(d_in, in + slice * in_pixels, in_pixels * sizeof(float), cudaMemcpyHostToDevice));
    hcuda_2d_scale(d_out, d_in, nx, ny, scale);
    CHECK_DEVICE(cudaMemcpy(out + slice * out_pixels, d_out, out_pixels * sizeof(float), cudaMemcpyDeviceToHost));
  }
  cudaFree(d_in);
  cudaFree(d_out);
}
