// Kernel bodies that weight one value of a half transform.
#pragma once

#include "compute/process2d_raw_kernels.h"

/// Radii in Fourier pixels between which a filter passes.
struct BandLimits {
  float low, high;
};

/// Radius in Fourier pixels of value (x, y) of a half transform with P rows.
KERNEL float frequency_radius(int x, int y, int P) {
  const int v = y < P / 2 ? y : y - P;
  return sqrtf(static_cast<float>(x * x + v * v));
}

KERNEL void scale_value(float2& value, float weight) {
  value.x *= weight;
  value.y *= weight;
}

KERNEL void cuda_c2d_bandpass_softR(int x, int y, float2* data, int P, BandLimits limits, float soft) {
  const float r = frequency_radius(x, y, P);
  float2& value = data[pixel_at(x, y, P / 2 + 1)];
  if (r < limits.low || r > limits.high + soft) {
    value.x = 0.0f;
    value.y = 0.0f;
  } else if (r > limits.high) {
    scale_value(value, hd_guasf(r - limits.high, soft / 3));
  }
}

KERNEL void cuda_c2d_bandpass_guas(int x, int y, float2* data, int P, BandLimits limits) {
  const float r = frequency_radius(x, y, P);
  float2& value = data[pixel_at(x, y, P / 2 + 1)];
  if (r < limits.low || r > limits.high) {
    value.x = 0.0f;
    value.y = 0.0f;
  } else {
    const auto H = static_cast<float>(P / 2 + 1);
    scale_value(value, hd_guasf(r, limits.high / 3) * hd_guasf(H - r, (H - limits.low) / 3));
  }
}
