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
