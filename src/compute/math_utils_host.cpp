#include <cmath>

#include "math_utils.h"
#include "platform/failure.h"

namespace {
constexpr char unit[] = "math_utils";
}

double hm_sum(const float* d, unsigned long n) {
  double sum = 0;
  for (unsigned long i = 0; i < n; i++) sum += d[i];
  return sum;
}

float hm_meanf(const float* d, unsigned long n) { return static_cast<float>(hm_sum(d, n) / static_cast<double>(n)); }

void hm_multi_inplace(float* d, unsigned long n, float v) {
  for (unsigned long i = 0; i < n; i++) d[i] *= v;
}

void hm_invert_inplace(float* d, unsigned long n) { hm_multi_inplace(d, n, -1.0f); }

void hm_submean_inplace(float* d, unsigned long n) {
  const float mean = hm_meanf(d, n);
  for (unsigned long i = 0; i < n; i++) d[i] -= mean;
}

void hm_x1d_multi_inplace(float* d, const float* b, unsigned long n) {
  for (unsigned long i = 0; i < n; i++) d[i] *= b[i];
}

double hm_dot(const float* a, const float* b, unsigned long n) {
  double sum = 0;
  for (unsigned long i = 0; i < n; i++) {
    const float product = a[i] * b[i];
    sum += product;
  }
  return sum;
}

void hm_apply_mask_inplace(float* d, const float* mask, unsigned long n) { hm_x1d_multi_inplace(d, mask, n); }

double hm_sum_withmask(const float* d, const float* mask, unsigned long n) { return hm_dot(d, mask, n); }

double hm_sum_check0(const float* mask, unsigned long n) {
  const double sum = hm_sum(mask, n);
  if (sum == 0) KESTRIX_FATAL("Zero sum of mask!");
  if (sum < 1e-06) KESTRIX_WARNING("Too small sum of mask!");
  return sum;
}

void hm_normz_withmask_inplace(float* d, const float* mask, unsigned long n) {
  const double weight = hm_sum_check0(mask, n);
  const double mean = hm_sum_withmask(d, mask, n) / weight;
  double sum = 0;
  for (unsigned long i = 0; i < n; i++) sum += mask[i] * ((d[i] - mean) * (d[i] - mean));
  const double sd = std::sqrt(sum / weight);
  for (unsigned long i = 0; i < n; i++) d[i] = static_cast<float>((d[i] - mean) / sd);
}

void hm_normz_withmask_applymask_inplace(float* d, const float* mask, unsigned long n) {
  hm_normz_withmask_inplace(d, mask, n);
  hm_apply_mask_inplace(d, mask, n);
}

int max_min_mean_value(const float* d, unsigned long n, float& max, float& min, float& mean) {
  max = min = d[0];
  double sum = 0;
  for (unsigned long i = 0; i < n; i++) {
    if (d[i] > max) {
      max = d[i];
    } else if (d[i] < min) {
      min = d[i];
    }
    sum += d[i];
  }
  mean = static_cast<float>(sum / static_cast<double>(n));
  return 0;
}
