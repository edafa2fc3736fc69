// Looking through the samples of two angles at once for the places where the map between them may be a cell's peak.
#pragma once

#include <cstddef>

#include "matching/host_scan/interpolation.h"
#include "transforms/lane_fft.h"

/// The samples of a strip and, for the pixels above and below them, what is interpolated in y.
struct SampleRows {
  const LaneValue* rows[kMostStep];  // in order of the offsets of y; each from kReach values before the first sample
  int n_rows;
};

/// Samples that are looked at together.
constexpr size_t kExamined = 8;

/// Interpolates n values in y: for each offset of y but 0 one row, from the strips strip - kReach to strip + kReach, which
/// lie `apart` values from each other; strip is the first value of the one in the middle.
/// room   (kMostStep - 1) * apart values, which the rows point to and that outlive them
SampleRows interpolate_in_y(const LaneValue* strip, size_t apart, size_t n, const SampleWeights& y, LaneValue* room);

/// What samples must reach: sample i that of run runs[i]; in re so much more (infinity where re holds nothing).
struct SampleLimits {
  const Lane* of_runs;
  const int* runs;
  float added_in_re;
};

/// For each of `count` samples, at most kExamined, by how much the largest of the correlations around it, interpolated,
/// is above its limit. rows: of the strip, of which the samples begin at x (x + kReach in memory). Returns whether any
/// is above. Values that aren't numbers are not.
bool find_above(const SampleRows& rows, size_t x, size_t count, const SampleWeights& weights,
                const SampleLimits& limits, LaneValue* above);

/// One of these correlations: of row `row`, offset `offset` of x, in one of the 2 * kLanes floats of a value.
float interpolated(const SampleRows& rows, int row, size_t x, const SampleWeights& weights, int offset, int lane);
