// Pixels that would spoil a micrograph's normalisation: far outliers and blank areas. Deviations here are robust ones,
// 1.4826 times the median distance from the median.
#pragma once

#include <cstddef>

#include "formats/image_file.h"

/// The values between which raw pixels are kept; low > high: no limits.
struct ValueLimits {
  float low, high;
};

constexpr ValueLimits kNoLimits{1, 0};

/// Limits of section 0 at so many robust deviations from its median, both taken from up to 64 of its rows. Of a section
/// without deviation, none. Takes memory for those rows; a lack of it ends the run.
ValueLimits clip_limits(const ImageFile& image, float deviations);

/// Limits n values in place.
void clip_values(float* values, size_t n, ValueLimits limits);

/// Says on standard error where a pixel of the image is more than 1000 robust deviations off, and where more than 2 per
/// cent of it is blank: stands in rows of 16 or more equal pixels.
/// image   nx by ny floats, rows `stride` apart
void note_outliers(const float* image, int nx, int ny, size_t stride, const char* name);
