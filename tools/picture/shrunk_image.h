// A micrograph made small enough to look at, and its grey levels.
#pragma once

#include <cstdint>
#include <vector>

#include "common/micrograph_file.h"

/// Averages of blocks of bin by bin pixels, row-major; what doesn't fill a block at the far ends is left out.
struct ShrunkImage {
  int nx = 0, ny = 0, bin = 1;
  std::vector<float> values;
};

/// The least bin at which no side is longer than `most`.
int bin_for_side(const MicrographFile& file, int most);

/// Reads and averages; values that aren't finite count as the mean of their block's finite ones, or 0.
ShrunkImage read_shrunk_image(const MicrographFile& file, int bin);

/// The values below which the shares of the image lie that are asked for, each from 0 to 1; from a regular sample.
std::vector<float> image_quantiles(const ShrunkImage& image, const std::vector<double>& shares);

/// Levels 0 to 255 from `low` to `high`, clipped; 128 everywhere where these don't differ.
std::vector<uint8_t> grey_levels(const ShrunkImage& image, float low, float high);
