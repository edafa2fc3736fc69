// Compiled with fused multiply-adds: what comes out is only held against limits that allow for far more than rounding.
#include "matching/lane_examine.h"

#include <limits>
#include <type_traits>

#include "platform/launch.h"

namespace {

// A LaneValue as one vector, that a processor with AVX-512 takes at once.
typedef float Both __attribute__((vector_size(2 * kLanes * sizeof(float)), aligned(alignof(LaneValue))));

#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && __GNUC__ >= 12 && !defined(__SANITIZE_ADDRESS__)
#define WIDE_KERNEL_LOOP __attribute__((target_clones("default", "arch=x86-64-v3", "arch=x86-64-v4")))
#else
#define WIDE_KERNEL_LOOP
#endif

const Both* both(const LaneValue* values) { return reinterpret_cast<const Both*>(values); }

// Interpolates n values in y for every offset but 0 from strips that lie `apart` values from each other, the first of
// them at `first`; the results follow each other `apart` values from each other, too.
template <int Step>
WIDE_KERNEL_LOOP void interpolate_rows(const Both* first, size_t apart, size_t n, const SampleWeights* weights,
                                       Both* out) {
  for (size_t x = 0; x < n; x++) {
    Both sums[Step]{};
#pragma GCC unroll 9
    for (int j = 0; j < kTaps; j++) {
      const Both value = first[x + static_cast<size_t>(j) * apart];
#pragma GCC unroll 4
      for (int i = 0; i < Step; i++)
        if (i + lowest_offset(Step) != 0) sums[i] += weights->of_offset[i][j] * value;
    }
    Both* to = out + x;
#pragma GCC unroll 4
    for (int i = 0; i < Step; i++) {
      if (i + lowest_offset(Step) == 0) continue;
      *to = sums[i];
      to += apart;
    }
  }
}

template <int Step>
WIDE_KERNEL_LOOP bool rise_above(const Both* const* rows, int n_rows, size_t count, const SampleWeights* weights,
                                 const SampleLimits* limits, Both* above) {
  const Lane in_re = Lane{} + limits->added_in_re;
  Both any = Both{} - 1;
  for (size_t x = 0; x < count; x++) {
    const Lane limit = limits->of_runs[limits->runs[x]];
    Both best = Both{} - std::numeric_limits<float>::infinity();
    for (int r = 0; r < n_rows; r++) {
      const Both* row = rows[r] + x;
#pragma GCC unroll 4
      for (int offset = 0; offset < Step; offset++) {
        Both sum{};
        if (offset + lowest_offset(Step) == 0) {
          sum = row[kReach];
        } else {
#pragma GCC unroll 9
          for (int j = 0; j < kTaps; j++) sum += weights->of_offset[offset][j] * row[j];
        }
        best = sum > best ? sum : best;
      }
    }
    best -= __builtin_shufflevector(limit + in_re, limit, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    above[x] = best;
    any = best > any ? best : any;
  }
  bool found = false;
  for (int lane = 0; lane < 2 * kLanes; lane++) found |= any[lane] > 0;
  return found;
}

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
  for_step(y.step, [&](auto step) {
    interpolate_rows<step()>(both(strip) - kReach * apart, apart, n, &y, reinterpret_cast<Both*>(room));
  });
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
  const Both* from[kMostStep];
  for (int r = 0; r < rows.n_rows; r++) from[r] = both(rows.rows[r] + x);
  bool any = false;
  for_step(weights.step, [&](auto step) {
    any = rise_above<step()>(from, rows.n_rows, count, &weights, &limits, reinterpret_cast<Both*>(above));
  });
  return any;
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
