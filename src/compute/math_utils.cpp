#include "math_utils.h"

#include <cmath>

#include "compute/math_utils_kernels.h"
#include "cuda_general.h"
#include "platform/block_sum.h"

namespace {

constexpr char unit[] = "math_utils";

// The passes of a sum alternate between two places of this scratch, which grows to the largest sum of the run.
float* sum_scratch = nullptr;
unsigned long sum_scratch_floats = 0;

unsigned long blocks_of(unsigned long n) { return (n + kSumBlock - 1) / kSumBlock; }

float* scratch_for(unsigned long n) {
  const unsigned long floats = blocks_of(n) + blocks_of(blocks_of(n));
  if (floats > sum_scratch_floats) {
    hcuda_release_sum_scratch();
    sum_scratch = device_new<float>(floats);
    sum_scratch_floats = floats;
  }
  return sum_scratch;
}

// Adds the m block sums at `sums` up to one value; `other` is room for blocks_of(m) floats.
float sum_of_block_sums(float* sums, float* other, unsigned long m) {
  while (m > 1) {
    CHECK_DEVICE(launch_block_sums<element_value>(other, m, static_cast<const float*>(sums)));
    m = blocks_of(m);
    float* swapped = sums;
    sums = other;
    other = swapped;
  }
  float sum = 0;
  CHECK_DEVICE(cudaMemcpy(&sum, sums, sizeof sum, cudaMemcpyDeviceToHost));
  return sum;
}

// Sum over i < n of Load(i, args...), without storing the values that it adds.
template <auto Load, class... Args>
float sum_of_values(unsigned long n, Args... args) {
  if (n == 0) return 0;
  float* sums = scratch_for(n);
  CHECK_DEVICE(launch_block_sums<Load>(sums, n, args...));
  return sum_of_block_sums(sums, sums + blocks_of(n), blocks_of(n));
}

float stdv_about(const float* d, const float* mask, unsigned long n, float mean, float weight) {
  return sqrtf(sum_of_values<cuda_data_submean_sqr_withmask_value>(n, d, mask, mean) / weight);
}

}  // namespace

void hcuda_x1d_multi(float* out, const float* a, const float* b, unsigned long n) {
  CHECK_DEVICE(launch_1d<cuda_x1d_multi>(n, out, a, b));
}

void hcuda_sub_inplace(float* d, unsigned long n, float v) { CHECK_DEVICE(launch_1d<cuda_sub_inplace>(n, d, v)); }

void hcuda_multi_add_inplace(float* d, unsigned long n, float m, float a) {
  CHECK_DEVICE(launch_1d<cuda_multi_add_inplace>(n, d, m, a));
}

void hcuda_invert_inplace(float* d, unsigned long n) { CHECK_DEVICE(launch_1d<cuda_multi_inplace>(n, d, -1.0f)); }

void hcuda_sqr_withmask(float* out, const float* d, const float* mask, unsigned long n) {
  CHECK_DEVICE(launch_1d<cuda_sqr_withmask>(n, out, d, mask));
}

void hcuda_data_submean_sqr_withmask(float* out, const float* d, const float* mask, unsigned long n, float mean) {
  CHECK_DEVICE(launch_1d<cuda_data_submean_sqr_withmask>(n, out, d, mask, mean));
}

float hcuda_fast_sum(const float* d, unsigned long n) { return sum_of_values<element_value>(n, d); }

float hcuda_fast_sum_inplace(float* d, unsigned long n) {
  if (n == 0) return 0;
  float* sums = scratch_for(n);
  CHECK_DEVICE(launch_block_sums<element_value>(sums, n, static_cast<const float*>(d)));
  return sum_of_block_sums(sums, d, blocks_of(n));
}

float hcuda_fast_mean(const float* d, unsigned long n) { return hcuda_fast_sum(d, n) / static_cast<float>(n); }

float hcuda_fast_sumsqr(const float* d, unsigned long n) { return sum_of_values<cuda_sqr_value>(n, d); }

float hcuda_fast_sum_withmask(const float* d, const float* mask, unsigned long n) {
  return sum_of_values<cuda_x1d_multi_value>(n, d, mask);
}

float hcuda_mean_withmask(const float* d, const float* mask, unsigned long n) {
  return hcuda_fast_sum_withmask(d, mask, n) / hcuda_fast_sum(mask, n);
}

float hcuda_fast_sumsqr_withmask(const float* d, const float* mask, unsigned long n) {
  return sum_of_values<cuda_sqr_withmask_value>(n, d, mask);
}

float hcuda_fast_submean_sumsqr_withmask(const float* d, const float* mask, unsigned long n) {
  const float mean = hcuda_mean_withmask(d, mask, n);
  return sum_of_values<cuda_data_submean_sqr_withmask_value>(n, d, mask, mean);
}

float hcuda_stdv_withmask(const float* d, const float* mask, unsigned long n) {
  const float weight = hcuda_fast_sum(mask, n);
  return stdv_about(d, mask, n, hcuda_fast_sum_withmask(d, mask, n) / weight, weight);
}

void hcuda_normz_inplace(float* d, unsigned long n, float sigma, float mean) {
  const float old_mean = hcuda_fast_mean(d, n);
  const float sd = sqrtf(sum_of_values<cuda_submean_sqr_value>(n, d, old_mean) / static_cast<float>(n));
  CHECK_DEVICE(launch_1d<cuda_submean_multi_add_inplace>(n, d, old_mean, sigma / sd, mean));
}

void hcuda_norm_withmask_inplace(float* d, const float* mask, unsigned long n, float sigma, float mean) {
  const float weight = hcuda_fast_sum(mask, n);
  const float weighted_mean = hcuda_fast_sum_withmask(d, mask, n) / weight;
  const float sd = stdv_about(d, mask, n, weighted_mean, weight);
  CHECK_DEVICE(launch_1d<cuda_submean_multi_add_inplace>(n, d, weighted_mean, sigma / sd, mean));
}

void hcuda_release_sum_scratch() {
  cudaFree(sum_scratch);
  sum_scratch = nullptr;
  sum_scratch_floats = 0;
}
