// The mirrored image's transforms and its band-pass filters.
#include "conditioning/conditioning.h"
#include "cuda_general.h"
#include "img_filter.h"
#include "platform/failure.h"
#include "process2d_raw.h"

#include "transforms/cosine_image.h"

namespace {

constexpr char unit[] = "img_filter";

int padded_side(const MirrorPad* pad) { return 2 * pad->nx; }

void plan_cosines(MirrorPad* pad) {
  pad->coefficients = device_new<float>(cosine_coefficients(pad->nx, pad->ny));
  pad->cosines = cosine_plans_new(pad->nx, pad->ny);
}

void transform_back(MirrorPad* pad, float* out) {
  CHECK_CUFFT(cufftExecC2R(pad->inverse, pad->spectrum, pad->padded));
  hcuda_2d_mirror_pad_inv(out, pad->padded, pad->nx, pad->ny);
}

}  // namespace

MirrorPad mirror_pad_new(int nx, int ny, PadWay way) {
  MirrorPad pad{};
  pad.nx = nx;
  pad.ny = ny;
  if (way == kHostCosines) {
    plan_cosines(&pad);
    return pad;
  }
  const size_t values = (static_cast<size_t>(nx) + 1) * (2 * static_cast<size_t>(ny));
  pad.padded = device_new<float>(4 * static_cast<size_t>(nx) * ny);
  pad.spectrum = device_new<float2>(values);
  pad.product = device_new<float2>(values);
  CHECK_CUFFT(cufftPlan2d(&pad.forward, 2 * ny, 2 * nx, CUFFT_R2C));
  CHECK_CUFFT(cufftPlan2d(&pad.inverse, 2 * ny, 2 * nx, CUFFT_C2R));
  return pad;
}

void mirror_pad_free(MirrorPad* pad) {
  cosine_plans_free(pad->cosines);
  if (pad->padded) {
    cufftDestroy(pad->forward);
    cufftDestroy(pad->inverse);
  }
  cudaFree(pad->padded);
  cudaFree(pad->spectrum);
  cudaFree(pad->product);
  cudaFree(pad->coefficients);
  *pad = MirrorPad{};
}

void hcuda_2d_mpad_transform(MirrorPad* pad, const float* in) {
  if (pad->cosines) return cosine_forward(pad->cosines, in, pad->coefficients);
  hcuda_2d_mirror_pad(pad->padded, in, pad->nx, pad->ny);
  CHECK_CUFFT(cufftExecR2C(pad->forward, pad->padded, pad->spectrum));
}

void hcuda_2d_bandpass_softR_mpad(MirrorPad* pad, const float* in, float* out, float apix, float res1, float res2,
                                  float soft) {
  hcuda_2d_mpad_transform(pad, in);
  if (pad->cosines) {
    const int kept = hcuda_cosine_bandpass_softR(pad->coefficients, padded_side(pad), apix, res1, res2, soft);
    return cosine_inverse(pad->cosines, pad->coefficients, kept, out);
  }
  hcuda_c2d_bandpass_softR(pad->spectrum, padded_side(pad), apix, res1, res2, soft);
  transform_back(pad, out);
}

void hcuda_2d_bandpass_softR_mpad_inplace(MirrorPad* pad, float* d, float apix, float res1, float res2, float soft) {
  hcuda_2d_bandpass_softR_mpad(pad, d, d, apix, res1, res2, soft);
}

void hcuda_2d_bandpass_guas_mpad(MirrorPad* pad, const float* in, float* out, float apix, float res1, float res2) {
  hcuda_2d_mpad_transform(pad, in);
  hcuda_2d_bandpass_guas_transformed(pad, out, apix, res1, res2);
}

void hcuda_2d_bandpass_guas_transformed(MirrorPad* pad, float* out, float apix, float res1, float res2) {
  if (pad->cosines) {
    const int kept = hcuda_cosine_bandpass_guas(pad->coefficients, padded_side(pad), apix, res1, res2);
    return cosine_inverse(pad->cosines, pad->coefficients, kept, out);
  }
  hcuda_c2d_bandpass_guas(pad->spectrum, padded_side(pad), apix, res1, res2);
  transform_back(pad, out);
}

void hcuda_2d_bandpass_guas_mpad_inplace(MirrorPad* pad, float* d, float apix, float res1, float res2) {
  hcuda_2d_bandpass_guas_mpad(pad, d, d, apix, res1, res2);
}
