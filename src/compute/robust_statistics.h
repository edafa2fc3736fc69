// Statistics that a few outliers don't move: median and median absolute deviation, exact, by counting, so that they are
// the same on any number of threads. On the host.
#pragma once

#include <cstddef>

/// Median, and the standard deviation that a normal distribution of the same median absolute deviation has.
struct RobustScale {
  float median;
  float deviation;  // 1.4826 times the median absolute deviation
  size_t count;     // of the values taken
};

/// Of the n values d[i] whose mask[i] is not 0, of all where mask is null; what isn't a number is left out. Of an even
/// count the lower of the two in the middle is the median. Everything is 0 where there are no values.
RobustScale robust_scale(const float* d, const float* mask, size_t n);

/// The value below which `share` (0 to 1) of the n values lie, those that aren't numbers left out; 0 where there are
/// none.
float quantile(const float* d, const float* mask, size_t n, double share);
