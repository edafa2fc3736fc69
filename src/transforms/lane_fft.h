// Fourier transforms of eight arrays side by side, on the host: lane l of every value belongs to array l, so that each
// step of a transform is the same arithmetic on whole vectors, whatever the length. Planned by the length alone: the
// bits of a result depend neither on the run nor on the number of cores. Mixed-radix Stockham passes (see
// Van Loan, Computational Frameworks for the Fast Fourier Transform, 1992, section 1.7), in single precision with
// factors computed in double.
#pragma once

#include <cstddef>
#include <limits>

#include "transforms/lanes.h"

/// Most passes that a length can take.
constexpr int kMaxLanePasses = 32;

/// How the arrays of one length are transformed.
struct LanePlan {
  int n;
  int n_passes;
  int radix[kMaxLanePasses];
  const float* factors[kMaxLanePasses];  // of each pass: cosine and sine, (radix - 1) pairs a butterfly
  float* factor_block;                   // holds them all
};

/// Whether n has no prime factor but 2, 3 and 5.
bool lane_plan_handles(int n);

/// A plan for arrays of n values; lane_plan_handles(n). Released with lane_plan_free.
LanePlan lane_plan_new(int n);
void lane_plan_free(LanePlan* plan);

/// The work of a transform for each value of an array of n, in passes of radix 4: for choosing between lengths.
double lane_plan_cost(int n);

/// The length of least cost(n) among those from `least` to `most` that lane_plan_handles, the shortest of equals; where
/// none is, the next one behind.
template <class Cost>
int cheapest_length(int least, int most, Cost cost) {
  int best = 0;
  double best_cost = std::numeric_limits<double>::infinity();
  for (int n = least; n <= most || best == 0; n++) {
    if (!lane_plan_handles(n) || cost(n) >= best_cost) continue;
    best = n;
    best_cost = cost(n);
  }
  return best;
}

/// The cost of a whole transform of n values, in the same unit.
inline double cost_of_length(int n) { return n * lane_plan_cost(n); }

/// Unnormalised forward transform (exponent -2 pi i) of eight arrays.
/// in        n values, left as they are
/// out       n values
/// scratch   2 * n values; in, out and scratch don't overlap
/// Exchanging re and im before and after gives the inverse.
void lane_fft(const LanePlan* plan, const LaneValue* in, LaneValue* out, LaneValue* scratch);

/// lane_fft of arrays of which only the first n_in values are not 0; in holds just these. Of the transform the first `low`
/// and the last `high` values are wanted; what lies between may be left as it was. low + high <= n.
void lane_fft_of_few(const LanePlan* plan, const LaneValue* in, size_t n_in, size_t low, size_t high, LaneValue* out,
                     LaneValue* scratch);

/// lane_fft of arrays of which only the first `low` and the last `high` values are not 0; low + high <= n. in holds these
/// at their places among n values; what lies between is overwritten.
void lane_fft_of_outer(const LanePlan* plan, LaneValue* in, size_t low, size_t high, LaneValue* out,
                       LaneValue* scratch);

/// The same in steps, for callers that use up the values as they come, while they are still in the nearest cache: first
/// the division into lane_plan_parts(plan) parts (n values in all)...
void lane_fft_divide_outer(const LanePlan* plan, LaneValue* in, size_t low, size_t high, LaneValue* parts);

/// ...then each part, which uses up its place in `parts`: values part, part + lane_plan_parts(plan), ... of the
/// transform, n / lane_plan_parts(plan) in all, written out_step apart. scratch: as many values; nothing overlaps.
void lane_fft_part(const LanePlan* plan, LaneValue* parts, int part, LaneValue* out, size_t out_step,
                   LaneValue* scratch);

/// The radix of the first pass; 1 for a single value.
int lane_plan_parts(const LanePlan* plan);
