// Local average and sigma of the mirror-padded image over a soft-edged disc.
#include "conditioning/conditioning.h"
#include "conditioning/conditioning_kernels.h"
#include "cuda_general.h"
#include "math_utils.h"
#include "platform/launch.h"
#include "process2d_raw.h"

#include "transforms/cosine_image.h"

namespace {

constexpr char unit[] = "process2d_raw";

float number_of_padded_pixels(const MirrorPad* pad) {
  return static_cast<float>(4 * static_cast<unsigned long>(pad->nx) * static_cast<unsigned long>(pad->ny));
}

// Leaves the mean under the window of the mirrored image of the given spectrum, which may be pad->product.
void mean_by_spectrum(MirrorPad* pad, const DiscWindow* window, const float2* spectrum, float* out) {
  hcuda_c2d_multconj_norm(spectrum, window->spectrum, pad->product, static_cast<unsigned>(pad->nx + 1),
                          static_cast<unsigned>(2 * pad->ny), number_of_padded_pixels(pad));
  CHECK_CUFFT(cufftExecC2R(pad->inverse, pad->product, pad->padded));
  // Re-centring, division and cut in one pass over the image instead of three over four times its pixels.
  CHECK_DEVICE(launch_2d<cuda_2d_recentred_mean>(pad->nx, pad->ny, out, static_cast<const float*>(pad->padded), pad->nx,
                                                 pad->ny, window->sum));
}

// The disc is even about the middle of the padded image: the mirror image of its first quadrant.
DiscWindow cosine_window(MirrorPad* pad, float cx, float cy, float R, float soft) {
  const size_t pixels = static_cast<size_t>(pad->nx) * pad->ny;
  const size_t values = cosine_coefficients(pad->nx, pad->ny);
  DiscWindow window{};
  window.coefficients = device_new<float>(values);
  float* quadrant = pad->coefficients;
  hcuda_2d_generate_rmask_soft(quadrant, pad->nx, pad->ny, cx, cy, R, soft);
  window.sum = 4 * hcuda_fast_sum(quadrant, pixels);
  cosine_forward(pad->cosines, quadrant, window.coefficients);
  hcuda_multi_add_inplace(window.coefficients, values, 1 / (number_of_padded_pixels(pad) * window.sum), 0.0f);
  return window;
}

}  // namespace

DiscWindow disc_window_new(MirrorPad* pad, float R, float soft) {
  const int NX = 2 * pad->nx;
  const int NY = 2 * pad->ny;
  const float cx = (static_cast<float>(NX) - 1.0f) / 2.0f;
  const float cy = (static_cast<float>(NY) - 1.0f) / 2.0f;
  if (pad->cosines) return cosine_window(pad, cx, cy, R, soft);
  DiscWindow window{};
  window.spectrum = device_new<float2>((static_cast<size_t>(pad->nx) + 1) * NY);
  hcuda_2d_generate_rmask_soft(pad->padded, NX, NY, cx, cy, R, soft);
  window.sum = hcuda_fast_sum(pad->padded, static_cast<unsigned long>(NX) * NY);
  CHECK_CUFFT(cufftExecR2C(pad->forward, pad->padded, window.spectrum));
  return window;
}

void disc_window_free(DiscWindow* window) {
  cudaFree(window->spectrum);
  cudaFree(window->coefficients);
  *window = DiscWindow{};
}

void hcuda_2d_bg_mpad(MirrorPad* pad, const DiscWindow* window, float* out) {
  // The phases of image and disc cancel in the product, which leaves a transform at the whole positions.
  if (pad->cosines) return cosine_correlate(pad->cosines, pad->coefficients, window->coefficients, out);
  mean_by_spectrum(pad, window, pad->spectrum, out);
}

void hcuda_2d_local_ave_softR_mpad(MirrorPad* pad, const DiscWindow* window, float* out) {
  hcuda_2d_bg_mpad(pad, window, out);
}

void hcuda_2d_local_sigma_softR_mpad(MirrorPad* pad, const DiscWindow* window, const float* in, float* out,
                                     float* scratch) {
  hcuda_2d_bg_mpad(pad, window, scratch);
  if (pad->cosines) return cosine_deviation(pad->cosines, in, window->coefficients, scratch, out);
  hcuda_2d_sqr(out, in, pad->nx, pad->ny);
  hcuda_2d_mirror_pad(pad->padded, out, pad->nx, pad->ny);
  CHECK_CUFFT(cufftExecR2C(pad->forward, pad->padded, pad->product));
  mean_by_spectrum(pad, window, pad->product, out);
  CHECK_DEVICE(launch_2d<cuda_2d_deviation>(pad->nx, pad->ny, out, static_cast<const float*>(scratch), pad->nx));
}
