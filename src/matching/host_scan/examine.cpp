// Compiled with fused multiply-adds: what comes out is only held against limits that allow for far more than rounding.
#include "matching/host_scan/examine.h"

#include <limits>
#include <type_traits>

#include "transforms/wide_lanes.h"

namespace {

// Adds to sums what is interpolated for each offset but 0 from kTaps samples that lie `apart` values from each other.
template <int Step, class Value>
INTO_LOOP void weigh_samples(const Value* samples, size_t apart, const SampleWeights& weights, Value* sums) {
#pragma GCC unroll 9
  for (int j = 0; j < kTaps; j++) {
    const Value value = samples[static_cast<size_t>(j) * apart];
#pragma GCC unroll 4
    for (int i = 0; i < Step; i++)
      if (i + lowest_offset(Step) != 0) sums[i] = sums[i] + value * weights.of_offset[i][j];
  }
}

// Interpolates n values in y for every offset but 0 from strips that lie `apart` values from each other, the first of
// them at `first`; the results follow each other `apart` values from each other, too.
template <int Step>
struct InterpolateRows {
  template <class Value>
  INTO_LOOP static void of(const LaneValue* first, size_t apart, size_t n, const SampleWeights* weights,
                           LaneValue* out) {
    const Value* values = values_of<Value>(first);
    for (size_t x = 0; x < n; x++) {
      Value sums[Step]{};
      weigh_samples<Step>(values + x, apart, *weights, sums);
      Value* to = values_of<Value>(out) + x;
#pragma GCC unroll 4
      for (int i = 0; i < Step; i++) {
        if (i + lowest_offset(Step) == 0) continue;
        *to = sums[i];
        to += apart;
      }
    }
  }
};

// Finds for each of `count` samples by how much the largest of the correlations around it is above its limit, and whether
// any is.
template <int Step>
struct RiseAbove {
  template <class Value>
  INTO_LOOP static void of(const LaneValue* const* rows, int n_rows, size_t count, const SampleWeights* weights,
                           const SampleLimits* limits, LaneValue* above, bool* found) {
    const Lane lowest = Lane{} - std::numeric_limits<float>::infinity();
    const Lane in_re = Lane{} + limits->added_in_re;
    Value any = joined<Value>(lowest, lowest);
    for (size_t x = 0; x < count; x++) {
      const Lane limit = limits->of_runs[limits->runs[x]];
      Value best = joined<Value>(lowest, lowest);
      for (int r = 0; r < n_rows; r++) {
        const Value* row = values_of<Value>(rows[r]) + x;
        Value sums[Step]{};
        weigh_samples<Step>(row, 1, *weights, sums);
#pragma GCC unroll 4
        for (int i = 0; i < Step; i++) best = larger(i + lowest_offset(Step) == 0 ? row[kReach] : sums[i], best);
      }
      best = best - joined<Value>(limit + in_re, limit);
      values_of<Value>(above)[x] = best;
      any = larger(best, any);
    }
    *found = has_positive(any);
  }
};

// Calls f<Step>() for the step.
template <class F>
void for_step(int step, F f) {
  switch (step) {
    case 1:
      return f(std::integral_constant<int, 1>());
    case 2:
      return f(std::integral_constant<int, 2>());
    case 3:
      return f(std::integral_constant<int, 3>());
    default:
      return f(std::integral_constant<int, 4>());
  }
}

}  // namespace

SampleRows interpolate_in_y(const LaneValue* strip, size_t apart, size_t n, const SampleWeights& y, LaneValue* room) {
  SampleRows rows{};
  for_step(y.step,
           [&](auto step) { run_over_lanes<InterpolateRows<step()>>(strip - kReach * apart, apart, n, &y, room); });
  rows.n_rows = y.step;
  for (int i = 0; i < y.step; i++) {
    const bool in_middle = i + lowest_offset(y.step) == 0;
    rows.rows[i] = in_middle ? strip : room;
    if (!in_middle) room += apart;
  }
  return rows;
}

bool find_above(const SampleRows& rows, size_t x, size_t count, const SampleWeights& weights,
                const SampleLimits& limits, LaneValue* above) {
  const LaneValue* from[kMostStep];
  for (int r = 0; r < rows.n_rows; r++) from[r] = rows.rows[r] + x;
  bool found = false;
  for_step(weights.step, [&](auto step) {
    run_over_lanes<RiseAbove<step()>>(static_cast<const LaneValue* const*>(from), rows.n_rows, count, &weights, &limits,
                                      above, &found);
  });
  return found;
}

float interpolated(const SampleRows& rows, int row, size_t x, const SampleWeights& weights, int offset, int lane) {
  const LaneValue* values = rows.rows[row] + x;
  const bool in_re = lane < kLanes;
  const auto at = [&](int i) { return in_re ? values[i].re[lane] : values[i].im[lane - kLanes]; };
  if (offset + lowest_offset(weights.step) == 0) return at(kReach);
  float sum = 0;
  for (int j = 0; j < kTaps; j++) sum += weights.of_offset[offset][j] * at(j);
  return sum;
}
