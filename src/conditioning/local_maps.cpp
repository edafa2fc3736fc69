// Local average and sigma of the mirror-padded image over a soft-edged disc.
#include "conditioning.h"
#include "conditioning/conditioning_kernels.h"
#include "cuda_general.h"
#include "math_utils.h"
#include "platform/launch.h"
#include "process2d_raw.h"

namespace {
constexpr char unit[] = "process2d_raw";
}

DiscWindow disc_window_new(MirrorPad* pad, float R, float soft) {
  const int NX = 2 * pad->nx;
  const int NY = 2 * pad->ny;
  DiscWindow window{};
  window.spectrum = device_new<float2>((static_cast<size_t>(pad->nx) + 1) * NY);
  const float cx = (static_cast<float>(NX) - 1.0f) / 2.0f;
  const float cy = (static_cast<float>(NY) - 1.0f) / 2.0f;
  hcuda_2d_generate_rmask_soft(pad->padded, NX, NY, cx, cy, R, soft);
  window.sum = hcuda_fast_sum(pad->padded, static_cast<unsigned long>(NX) * NY);
  CHECK_CUFFT(cufftExecR2C(pad->forward, pad->padded, window.spectrum));
  return window;
}

void disc_window_free(DiscWindow* window) {
  cudaFree(window->spectrum);
  *window = DiscWindow{};
}

void hcuda_2d_bg_mpad(MirrorPad* pad, const DiscWindow* window, float* out) {
  const int NX = 2 * pad->nx;
  const int NY = 2 * pad->ny;
  const float total = static_cast<float>(static_cast<unsigned long>(NX) * NY);
  hcuda_c2d_multconj_norm(pad->spectrum, window->spectrum, pad->product, static_cast<unsigned>(NX / 2 + 1),
                          static_cast<unsigned>(NY), total);
  CHECK_CUFFT(cufftExecC2R(pad->inverse, pad->product, pad->padded));
  // Re-centring, division and cut in one pass over the image instead of three over four times its pixels.
  CHECK_DEVICE(launch_2d<cuda_2d_recentred_mean>(pad->nx, pad->ny, out, static_cast<const float*>(pad->padded), pad->nx,
                                                 pad->ny, window->sum));
}

void hcuda_2d_local_ave_softR_mpad(MirrorPad* pad, const DiscWindow* window, float* out) {
  hcuda_2d_bg_mpad(pad, window, out);
}

void hcuda_2d_local_sigma_softR_mpad(MirrorPad* pad, const DiscWindow* window, const float* in, float* out,
                                     float* scratch) {
  hcuda_2d_bg_mpad(pad, window, scratch);
  hcuda_2d_sqr_inplace(scratch, pad->nx, pad->ny);
  hcuda_2d_sqr(out, in, pad->nx, pad->ny);
  hcuda_2d_mpad_transform(pad, out);
  hcuda_2d_bg_mpad(pad, window, out);
  hcuda_x2d_sub_inplace(out, scratch, pad->nx, pad->ny);
  hcuda_2d_sqrt_inplace(out, pad->nx, pad->ny);
}
