// Mathematics on flat float arrays: on the host (hm_*, sums in double) and on the device (hcuda_*, sums in float).
// Element counts are unsigned long; arrays belong to the caller.
#pragma once

/// Sum of the n elements, each widened to double and added in order.
double hm_sum(const float* d, unsigned long n);

/// Mean of the n elements: the division in double, the result rounded to float.
float hm_meanf(const float* d, unsigned long n);

/// d[i] *= v.
void hm_multi_inplace(float* d, unsigned long n, float v);

/// d[i] *= -1.
void hm_invert_inplace(float* d, unsigned long n);

/// Subtracts the mean, rounded to float first, from every element.
void hm_submean_inplace(float* d, unsigned long n);

/// d[i] *= b[i].
void hm_x1d_multi_inplace(float* d, const float* b, unsigned long n);

/// Sum of a[i] * b[i]: products in float, added in double.
double hm_dot(const float* a, const float* b, unsigned long n);

/// d[i] *= mask[i].
void hm_apply_mask_inplace(float* d, const float* mask, unsigned long n);

/// Sum of d[i] * mask[i], as hm_dot.
double hm_sum_withmask(const float* d, const float* mask, unsigned long n);

/// hm_sum of a mask that something will be divided by. A sum of exactly 0 ends the run with "Zero sum of mask!";
/// below 1e-06 a warning is printed.
double hm_sum_check0(const float* mask, unsigned long n);

/// Brings the weighted mean to 0 and the weighted standard deviation to 1, weights from mask; every element is
/// shifted and scaled, also those of weight 0. Fails as hm_sum_check0.
void hm_normz_withmask_inplace(float* d, const float* mask, unsigned long n);

/// hm_normz_withmask_inplace, then hm_apply_mask_inplace.
void hm_normz_withmask_applymask_inplace(float* d, const float* mask, unsigned long n);

/// Largest and smallest element and the mean (summed in double) of n > 0 elements. Returns 0.
int max_min_mean_value(const float* d, unsigned long n, float& max, float& min, float& mean);

// --- On the device: d, a, b, out, mask are device arrays; sums are float, over blocks of 1024 in one fixed pairing
// --- tree, so that their bits are the same on every run, device and number of cores. All end the run on a device
// --- error. No divisor is tested: a flat array or an empty mask gives infinities or NaN.

/// out[i] = a[i] * b[i].
void hcuda_x1d_multi(float* out, const float* a, const float* b, unsigned long n);

/// d[i] -= v.
void hcuda_sub_inplace(float* d, unsigned long n, float v);

/// d[i] = d[i] * m + a, as one fused multiply-add.
void hcuda_multi_add_inplace(float* d, unsigned long n, float m, float a);

/// d[i] *= -1.
void hcuda_invert_inplace(float* d, unsigned long n);

/// out[i] = (d[i] * d[i]) * mask[i].
void hcuda_sqr_withmask(float* out, const float* d, const float* mask, unsigned long n);

/// out[i] = mask[i] * ((d[i] - mean) * (d[i] - mean)).
void hcuda_data_submean_sqr_withmask(float* out, const float* d, const float* mask, unsigned long n, float mean);

/// Sum of the n elements.
float hcuda_fast_sum(const float* d, unsigned long n);

/// The same sum with its passes in d itself: afterwards the first ceil(n / 1024) elements hold what the passes left.
float hcuda_fast_sum_inplace(float* d, unsigned long n);

/// hcuda_fast_sum / n.
float hcuda_fast_mean(const float* d, unsigned long n);

/// Sum of d[i]^2.
float hcuda_fast_sumsqr(const float* d, unsigned long n);

/// Sum of d[i] * mask[i].
float hcuda_fast_sum_withmask(const float* d, const float* mask, unsigned long n);

/// Mean under the weights of mask.
float hcuda_mean_withmask(const float* d, const float* mask, unsigned long n);

/// Sum of (d[i] * d[i]) * mask[i].
float hcuda_fast_sumsqr_withmask(const float* d, const float* mask, unsigned long n);

/// Sum of mask[i] * (d[i] - mean)^2, the mean being hcuda_mean_withmask.
float hcuda_fast_submean_sumsqr_withmask(const float* d, const float* mask, unsigned long n);

/// Standard deviation under the weights of mask.
float hcuda_stdv_withmask(const float* d, const float* mask, unsigned long n);

/// Shifts and scales the n elements to standard deviation sigma (divisor n) and the given mean.
void hcuda_normz_inplace(float* d, unsigned long n, float sigma, float mean);

/// The same with the statistics taken under the weights of mask; every element is shifted and scaled, also those of
/// weight 0.
void hcuda_norm_withmask_inplace(float* d, const float* mask, unsigned long n, float sigma, float mean);

/// Frees the scratch memory that the sums keep between calls. For the end of a run.
void hcuda_release_sum_scratch();
