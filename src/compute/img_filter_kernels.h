// Kernel bodies that weight one value of a half transform.
#pragma once

#include "compute/process2d_raw_kernels.h"
#include "transforms/cosine_image.h"

/// Radii in Fourier pixels between which a filter passes.
struct BandLimits {
  float low, high;
};

/// Radius in Fourier pixels of value (x, y) of a half transform with P rows.
KERNEL float frequency_radius(int x, int y, int P) {
  const int v = y < P / 2 ? y : y - P;
  return sqrtf(static_cast<float>(x * x + v * v));
}

KERNEL float softR_weight(float r, BandLimits limits, float soft) {
  if (r < limits.low || r > limits.high + soft) return 0.0f;
  return r > limits.high ? hd_guasf(r - limits.high, soft / 3) : 1.0f;
}

KERNEL float guas_weight(float r, BandLimits limits, int P) {
  if (r < limits.low || r > limits.high) return 0.0f;
  const int beyond_nyquist = P / 2 + 1;
  const auto H = static_cast<float>(beyond_nyquist);
  return hd_guasf(r, limits.high / 3) * hd_guasf(H - r, (H - limits.low) / 3);
}

/// The product, where a weight of 0 gives exactly 0.
KERNEL float weighted(float value, float weight) { return weight == 0.0f ? 0.0f : value * weight; }

KERNEL void weigh_value(float2& value, float weight) {
  value.x = weighted(value.x, weight);
  value.y = weighted(value.y, weight);
}

KERNEL void cuda_c2d_bandpass_softR(int x, int y, float2* data, int P, BandLimits limits, float soft) {
  weigh_value(data[pixel_at(x, y, P / 2 + 1)], softR_weight(frequency_radius(x, y, P), limits, soft));
}

KERNEL void cuda_c2d_bandpass_guas(int x, int y, float2* data, int P, BandLimits limits) {
  weigh_value(data[pixel_at(x, y, P / 2 + 1)], guas_weight(frequency_radius(x, y, P), limits, P));
}

/// The same on the cosine coefficients of the image itself: value x of row line % rows of stripe line / rows.
KERNEL void cuda_cosine_bandpass_softR(int x, int line, float* data, int P, int rows, BandLimits limits, float soft) {
  const int stripe = line / rows;
  const int y = line % rows;
  const size_t i = pixel_at(x, stripe * (P / 2) + y, kCosineStripe);
  data[i] = weighted(data[i], softR_weight(frequency_radius(stripe * kCosineStripe + x, y, P), limits, soft));
}

KERNEL void cuda_cosine_bandpass_guas(int x, int line, float* data, int P, int rows, BandLimits limits) {
  const int stripe = line / rows;
  const int y = line % rows;
  const size_t i = pixel_at(x, stripe * (P / 2) + y, kCosineStripe);
  data[i] = weighted(data[i], guas_weight(frequency_radius(stripe * kCosineStripe + x, y, P), limits, P));
}
