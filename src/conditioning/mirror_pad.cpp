// Band-pass filters of the mirror-padded image.
#include "conditioning.h"
#include "cuda_general.h"
#include "img_filter.h"
#include "process2d_raw.h"

namespace {

constexpr char unit[] = "img_filter";

int padded_side(const MirrorPad* pad) { return 2 * pad->nx; }

void transform_back(MirrorPad* pad, float* out) {
  CHECK_CUFFT(cufftExecC2R(pad->inverse, pad->spectrum, pad->padded));
  hcuda_2d_mirror_pad_inv(out, pad->padded, pad->nx, pad->ny);
}

}  // namespace

MirrorPad mirror_pad_new(int nx, int ny) {
  MirrorPad pad{};
  pad.nx = nx;
  pad.ny = ny;
  const size_t values = (static_cast<size_t>(nx) + 1) * (2 * static_cast<size_t>(ny));
  pad.padded = device_new<float>(4 * static_cast<size_t>(nx) * ny);
  pad.spectrum = device_new<float2>(values);
  pad.product = device_new<float2>(values);
  CHECK_CUFFT(cufftPlan2d(&pad.forward, 2 * ny, 2 * nx, CUFFT_R2C));
  CHECK_CUFFT(cufftPlan2d(&pad.inverse, 2 * ny, 2 * nx, CUFFT_C2R));
  return pad;
}

void mirror_pad_free(MirrorPad* pad) {
  cudaFree(pad->padded);
  cudaFree(pad->spectrum);
  cudaFree(pad->product);
  cufftDestroy(pad->forward);
  cufftDestroy(pad->inverse);
  *pad = MirrorPad{};
}

void hcuda_2d_mpad_transform(MirrorPad* pad, const float* in) {
  hcuda_2d_mirror_pad(pad->padded, in, pad->nx, pad->ny);
  CHECK_CUFFT(cufftExecR2C(pad->forward, pad->padded, pad->spectrum));
}

void hcuda_2d_bandpass_softR_mpad(MirrorPad* pad, const float* in, float* out, float apix, float res1, float res2,
                                  float soft) {
  hcuda_2d_mpad_transform(pad, in);
  hcuda_c2d_bandpass_softR(pad->spectrum, padded_side(pad), apix, res1, res2, soft);
  transform_back(pad, out);
}

void hcuda_2d_bandpass_softR_mpad_inplace(MirrorPad* pad, float* d, float apix, float res1, float res2, float soft) {
  hcuda_2d_bandpass_softR_mpad(pad, d, d, apix, res1, res2, soft);
}

void hcuda_2d_bandpass_guas_mpad(MirrorPad* pad, const float* in, float* out, float apix, float res1, float res2) {
  hcuda_2d_mpad_transform(pad, in);
  hcuda_c2d_bandpass_guas(pad->spectrum, padded_side(pad), apix, res1, res2);
  transform_back(pad, out);
}

void hcuda_2d_bandpass_guas_mpad_inplace(MirrorPad* pad, float* d, float apix, float res1, float res2) {
  hcuda_2d_bandpass_guas_mpad(pad, d, d, apix, res1, res2);
}
