#include "conditioning/size_band.h"

#include <cmath>
#include <cstdlib>

#include "compute/robust_statistics.h"
#include "conditioning/size_band_kernels.h"
#include "cuda_general.h"
#include "math_utils.h"
#include "platform/host_memory.h"
#include "platform/launch.h"
#include "process2d_raw.h"

namespace {

constexpr char unit[] = "size_band";

// The Gaussians' deviations in real space, in particle sizes, times 2 pi: of the background that is taken out and of
// what is blurred.
constexpr float kBackground = 1.2f;
constexpr float kBlur = 1.0f / 12.0f;

// Values beyond this many robust deviations are clipped.
constexpr float kClip = 3.0f;

size_t pixels_of(const SizeBand* band) { return static_cast<size_t>(band->nx) * static_cast<size_t>(band->ny); }

}  // namespace

SizeBand size_band_new(MirrorPad* pad) {
  SizeBand band{};
  band.nx = pad->nx;
  band.ny = pad->ny;
  band.of_image = mirror_transform_new(pad);
  band.of_open = mirror_transform_new(pad);
  band.local = device_new<float>(pixels_of(&band));
  band.weight = device_new<float>(pixels_of(&band));
  hcuda_2d_memset(band.weight, 1.0f, band.nx, band.ny);
  band.host = host_new<float>(pixels_of(&band));
  band.host_open = host_new<float>(pixels_of(&band));
  return band;
}

void size_band_free(SizeBand* band) {
  mirror_transform_free(&band->of_image);
  mirror_transform_free(&band->of_open);
  cudaFree(band->local);
  cudaFree(band->weight);
  free(band->host);
  free(band->host_open);
  *band = SizeBand{};
}

void size_band_take(SizeBand* band, MirrorPad* pad, const float* image, const float* open, bool all_open) {
  band->image = image;
  band->open = open;
  band->all_open = all_open;
  CHECK_DEVICE(cudaMemcpy(band->host_open, open, pixels_of(band) * sizeof(float), cudaMemcpyDeviceToHost));
  hcuda_x1d_multi(band->local, image, open, pixels_of(band));
  mirror_transform_take(pad, band->local, &band->of_image);
  if (!all_open) mirror_transform_take(pad, open, &band->of_open);
}

bool size_band_make(SizeBand* band, MirrorPad* pad, float size, float* out) {
  const size_t n = pixels_of(band);
  hcuda_2d_gaussian_mpad(pad, &band->of_image, kBackground * size, band->local);
  if (!band->all_open) hcuda_2d_gaussian_mpad(pad, &band->of_open, kBackground * size, band->weight);
  CHECK_DEVICE(launch_1d<cuda_open_high_pass>(n, out, band->image, static_cast<const float*>(band->local),
                                              static_cast<const float*>(band->weight), band->open, band->all_open));
  MirrorTransform here = mirror_transform_of(pad);
  mirror_transform_take(pad, out, &here);
  hcuda_2d_gaussian_mpad(pad, &here, kBlur * size, out);
  CHECK_DEVICE(cudaMemcpy(band->host, out, n * sizeof(float), cudaMemcpyDeviceToHost));
  const RobustScale scale = robust_scale(band->host, band->host_open, band->nx, band->ny);
  if (!(scale.deviation > 0) || !std::isfinite(scale.deviation)) return false;
  CHECK_DEVICE(launch_1d<cuda_clip_inplace>(n, out, scale.median - kClip * scale.deviation,
                                            scale.median + kClip * scale.deviation));
  hcuda_norm_withmask_inplace(out, band->open, n, 1.0f, 0.0f);
  return true;
}

void correlate_with_window(MirrorPad* pad, const DiscWindow* window, const float* in, float* out) {
  hcuda_2d_mpad_transform(pad, in);
  hcuda_2d_bg_mpad(pad, window, out);
}
