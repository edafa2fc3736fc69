// Statistics that a few outliers don't move: median and median absolute deviation, by counting, so that they are the
// same on any number of threads. On the host.
#pragma once

#include <cstddef>

/// Statistics of an image are taken of every kSampledRows-th row, beginning with the first: as neighbouring rows are much
/// alike, that tells as much as all and takes a quarter of the time.
constexpr int kSampledRows = 4;

/// Median, and the standard deviation that a normal distribution of the same median absolute deviation has.
struct RobustScale {
  float median;
  float deviation;  // 1.4826 times the median absolute deviation
  size_t count;     // of the values taken
};

/// Of the values d[i] of an image of nx by ny whose mask[i] is not 0, of all where mask is null; what isn't a number is
/// left out. Of an even count the lower of the two in the middle is the median. Everything is 0 where there are no
/// values.
RobustScale robust_scale(const float* d, const float* mask, int nx, int ny);

/// The value below which `share` (0 to 1) of the same values lie; 0 where there are none.
float quantile(const float* d, const float* mask, int nx, int ny, double share);
