// Kernel bodies on flat device arrays. A body named *_value gives one element's value and serves the kernel that
// stores it as well as the sum that only adds it up.
#pragma once

#include <cmath>

#include "platform/device.h"

KERNEL float element_value(unsigned long i, const float* d) { return d[i]; }
KERNEL float cuda_sqr_value(unsigned long i, const float* d) { return d[i] * d[i]; }
KERNEL float cuda_submean_sqr_value(unsigned long i, const float* d, float mean) {
  return (d[i] - mean) * (d[i] - mean);
}
KERNEL float cuda_x1d_multi_value(unsigned long i, const float* a, const float* b) { return a[i] * b[i]; }
KERNEL float cuda_sqr_withmask_value(unsigned long i, const float* d, const float* mask) {
  return (d[i] * d[i]) * mask[i];
}
KERNEL float cuda_data_submean_sqr_withmask_value(unsigned long i, const float* d, const float* mask, float mean) {
  return mask[i] * ((d[i] - mean) * (d[i] - mean));
}

KERNEL void cuda_x1d_multi(unsigned long i, float* out, const float* a, const float* b) {
  out[i] = cuda_x1d_multi_value(i, a, b);
}
KERNEL void cuda_sqr_withmask(unsigned long i, float* out, const float* d, const float* mask) {
  out[i] = cuda_sqr_withmask_value(i, d, mask);
}
KERNEL void cuda_data_submean_sqr_withmask(unsigned long i, float* out, const float* d, const float* mask, float mean) {
  out[i] = cuda_data_submean_sqr_withmask_value(i, d, mask, mean);
}
KERNEL void cuda_sub_inplace(unsigned long i, float* d, float v) { d[i] -= v; }
KERNEL void cuda_multi_inplace(unsigned long i, float* d, float v) { d[i] *= v; }
KERNEL void cuda_multi_add_inplace(unsigned long i, float* d, float m, float a) { d[i] = fmaf(d[i], m, a); }
KERNEL void cuda_submean_multi_add_inplace(unsigned long i, float* d, float mean, float m, float a) {
  d[i] = fmaf(d[i] - mean, m, a);
}
