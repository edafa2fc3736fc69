#include "img_filter.h"

#include <algorithm>

#include "compute/img_filter_kernels.h"
#include "cuda_general.h"
#include "platform/launch.h"

namespace {

constexpr char unit[] = "img_filter";

BandLimits band_limits(int P, float apix, float res1, float res2) {
  const float length = static_cast<float>(P) * apix;
  return {length / std::max(res1, res2), length / std::min(res1, res2)};
}

// Columns, and rows, of the coefficients that have values within the radius.
int kept_within(float radius, int P) {
  const int side = P / 2;
  if (radius < 0) return 0;
  return radius < static_cast<float>(side) ? std::min(static_cast<int>(radius) + 1, side) : side;
}

}  // namespace

void hcuda_c2d_bandpass_softR(float2* data, int P, float apix, float res1, float res2, float soft) {
  const BandLimits limits = band_limits(P, apix, res1, res2);
  CHECK_DEVICE(launch_2d<cuda_c2d_bandpass_softR>(P / 2 + 1, P, data, P, limits, soft));
}

void hcuda_c2d_bandpass_guas(float2* data, int P, float apix, float res1, float res2) {
  const BandLimits limits = band_limits(P, apix, res1, res2);
  CHECK_DEVICE(launch_2d<cuda_c2d_bandpass_guas>(P / 2 + 1, P, data, P, limits));
}

int hcuda_cosine_bandpass_softR(float* data, int P, float apix, float res1, float res2, float soft) {
  const BandLimits limits = band_limits(P, apix, res1, res2);
  const int kept = kept_within(limits.high + soft, P);
  const int lines = cosine_stripes(kept) * kept;
  CHECK_DEVICE(launch_2d<cuda_cosine_bandpass_softR>(kCosineStripe, lines, data, P, kept, limits, soft));
  return kept;
}

int hcuda_cosine_bandpass_guas(float* data, int P, float apix, float res1, float res2) {
  const BandLimits limits = band_limits(P, apix, res1, res2);
  const int kept = kept_within(limits.high, P);
  const int lines = cosine_stripes(kept) * kept;
  CHECK_DEVICE(launch_2d<cuda_cosine_bandpass_guas>(kCosineStripe, lines, data, P, kept, limits));
  return kept;
}
