#include "transforms/lane_fft.h"

#include <sys/mman.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <utility>

#include "platform/host_memory.h"
#include "platform/loops.h"
#include "transforms/lane_butterflies.h"

namespace {

// The first pass divides a transform of n values into Radix transforms of n / Radix, one behind the other. Outer: only the
// first and the last quarter of the values are not 0.
template <int Radix, bool Outer = false>
struct FirstPass {
  template <class Value>
  INTO_LOOP static void of(const LaneValue* in, LaneValue* out, size_t n, const float* factors) {
    const Value* x = values_of<Value>(in);
    Value* parts = values_of<Value>(out);
    const size_t part = n / Radix;
    for (size_t p = 0; p < part; p++, factors += 2 * (Radix - 1)) {
      if constexpr (Outer) {
        outer_butterfly<Radix>(x + p, part, parts + p, part, Factors{factors});
      } else {
        butterfly<Radix>(x + p, part, parts + p, part, Factors{factors});
      }
    }
  }
};

// The first pass where no butterfly has more than its first value: each becomes `radix` values that differ by their
// factors only.
struct Spread {
  template <class Value>
  INTO_LOOP static void of(const LaneValue* in, LaneValue* out, size_t radix, size_t n_in, size_t n,
                           const float* factors) {
    const Value* x = values_of<Value>(in);
    Value* parts = values_of<Value>(out);
    const size_t part = n / radix;
    for (size_t p = 0; p < n_in; p++, factors += 2 * (radix - 1)) {
      const Value value = x[p];
      parts[p] = value;
      for (size_t k = 1; k < radix; k++) parts[k * part + p] = turned(value, Factors{factors}, static_cast<int>(k));
    }
    for (size_t k = 0; k < radix; k++) memset(out + k * part + n_in, 0, (part - n_in) * sizeof(LaneValue));
  }
};

// A pass in the middle of a transform of n values, of which `stride` interleaved ones of n / stride are left.
template <int Radix>
struct MiddlePass {
  template <class Value>
  INTO_LOOP static void of(const LaneValue* in, LaneValue* out, size_t n, size_t stride, const float* factors) {
    const Value* x = values_of<Value>(in);
    Value* y = values_of<Value>(out);
    const size_t butterflies = n / stride / Radix;
    const size_t in_step = n / Radix;
    for (size_t p = 0; p < butterflies; p++, factors += 2 * (Radix - 1))
      for (size_t q = 0; q < stride; q++)
        butterfly<Radix>(x + p * stride + q, in_step, y + p * stride * Radix + q, stride, Factors{factors});
  }
};

// The last pass of a transform of n values, written out_step apart.
template <int Radix>
struct LastPass {
  template <class Value>
  INTO_LOOP static void of(const LaneValue* in, LaneValue* out, size_t n, size_t out_step) {
    const Value* x = values_of<Value>(in);
    Value* y = values_of<Value>(out);
    const size_t step = n / Radix;
    for (size_t q = 0; q < step; q++) butterfly<Radix>(x + q, step, y + q * out_step, step * out_step, NoFactors{});
  }
};

// The same of which only the first `low` values and the last `high` are wanted, neither more than a Radix-th of them.
template <int Radix>
struct OuterLastPass {
  template <class Value>
  INTO_LOOP static void of(const LaneValue* in, LaneValue* out, size_t n, size_t out_step, size_t low, size_t high) {
    const Value* x = values_of<Value>(in);
    Value* y = values_of<Value>(out);
    const size_t step = n / Radix;
    Value all[Radix];
    for (size_t q = 0; q < low; q++) {
      butterfly<Radix>(x + q, step, all, 1, NoFactors{});
      y[q * out_step] = all[0];
    }
    for (size_t q = step - high; q < step; q++) {
      butterfly<Radix>(x + q, step, all, 1, NoFactors{});
      y[(q + (Radix - 1) * step) * out_step] = all[Radix - 1];
    }
  }
};

// Calls f<Radix>() for the radix.
template <class F>
void for_radix(int radix, F f) {
  switch (radix) {
    case 2:
      return f(std::integral_constant<int, 2>());
    case 3:
      return f(std::integral_constant<int, 3>());
    case 4:
      return f(std::integral_constant<int, 4>());
    case 5:
      return f(std::integral_constant<int, 5>());
    case 6:
      return f(std::integral_constant<int, 6>());
    default:
      return f(std::integral_constant<int, 8>());
  }
}

// Takes a part through all its passes but the last, for which it calls last<Radix>(values, how many). A part of one value
// is done.
template <class Last>
void finish_part(const LanePlan* plan, LaneValue* parts, int part, LaneValue* out, LaneValue* scratch, Last last) {
  const size_t n = static_cast<size_t>(plan->n) / static_cast<size_t>(lane_plan_parts(plan));
  LaneValue* from = parts + static_cast<size_t>(part) * n;
  if (plan->n_passes < 2) {
    out[0] = from[0];
    return;
  }
  LaneValue* to = scratch;
  size_t stride = 1;
  for (int i = 1; i < plan->n_passes - 1; i++) {
    for_radix(plan->radix[i],
              [&](auto radix) { run_over_lanes<MiddlePass<radix()>>(from, to, n, stride, plan->factors[i]); });
    stride *= static_cast<size_t>(plan->radix[i]);
    std::swap(from, to);
  }
  for_radix(plan->radix[plan->n_passes - 1], [&](auto radix) { last(radix, from, n); });
}

// The values of a part that its passes take to out + part, out + part + radix, ...
void finish_parts(const LanePlan* plan, LaneValue* parts, LaneValue* out) {
  for (int part = 0; part < lane_plan_parts(plan); part++)
    lane_fft_part(plan, parts, part, out + part, static_cast<size_t>(lane_plan_parts(plan)), parts + plan->n);
}

// The same for those of the first `low` and the last `high` values of the transform.
void finish_outer_parts(const LanePlan* plan, LaneValue* parts, size_t low, size_t high, LaneValue* out) {
  const auto step = static_cast<size_t>(lane_plan_parts(plan));
  const auto n = static_cast<size_t>(plan->n);
  for (size_t part = 0; part < step; part++) {
    const size_t low_of_part = low > part ? (low - part + step - 1) / step : 0;
    const size_t high_of_part = n / step - (n - high + step - 1 - part) / step;
    finish_part(plan, parts, static_cast<int>(part), out + part, parts + n,
                [&](auto radix, LaneValue* from, size_t of_part) {
                  if (std::max(low_of_part, high_of_part) * radix() <= of_part) {
                    run_over_lanes<OuterLastPass<radix()>>(from, out + part, of_part, step, low_of_part, high_of_part);
                  } else {
                    run_over_lanes<LastPass<radix()>>(from, out + part, of_part, step);
                  }
                });
  }
}

// Measured work of a pass for each value, relative to one of radix 4.
double pass_cost(int radix) { return radix == 2 ? 0.8 : radix < 5 ? 1.0 : radix < 8 ? 1.4 : 1.3; }

// Splits n into the radices of least work, the largest first, none above `largest`. Returns how many, or -1 if n has
// other factors; their cost in *cost.
int split_into_radices(int n, int largest, int* radix, double* cost) {
  *cost = 0;
  if (n == 1) return 0;
  int best = -1;
  for (const int first : {8, 6, 5, 4, 3, 2}) {
    int rest[kMaxLanePasses];
    double rest_cost;
    if (first > largest || n % first != 0) continue;
    const int count = split_into_radices(n / first, first, rest, &rest_cost);
    if (count < 0 || (best > 0 && rest_cost + pass_cost(first) >= *cost)) continue;
    best = count + 1;
    *cost = rest_cost + pass_cost(first);
    radix[0] = first;
    std::copy_n(rest, count, radix + 1);
  }
  return best;
}

// Fills the factors of one pass whose transforms have the length n; returns where the next pass's begin.
float* fill_factors(float* factors, int n, int radix) {
  const double step = -2 * M_PI / n;
  for (int p = 0; p < n / radix; p++) {
    for (int k = 1; k < radix; k++) {
      *factors++ = static_cast<float>(std::cos(step * p * k));
      *factors++ = static_cast<float>(std::sin(step * p * k));
    }
  }
  return factors;
}

}  // namespace

bool lane_plan_handles(int n) {
  if (n < 1) return false;
  for (int prime : {2, 3, 5})
    while (n % prime == 0) n /= prime;
  return n == 1;
}

LanePlan lane_plan_new(int n) {
  LanePlan plan{};
  plan.n = n;
  double cost;
  plan.n_passes = split_into_radices(n, n, plan.radix, &cost);
  // A transform of few low frequencies has a short cut for a first pass of radix 8 or 4.
  int* quarters = std::find(plan.radix, plan.radix + plan.n_passes, 4);
  if (plan.n_passes > 0 && plan.radix[0] != 8 && quarters != plan.radix + plan.n_passes)
    std::rotate(plan.radix, quarters, quarters + 1);
  plan.factor_block = host_new<float>(2 * static_cast<size_t>(n) * static_cast<size_t>(std::max(plan.n_passes, 1)));
  float* next = plan.factor_block;
  int left = n;
  for (int i = 0; i < plan.n_passes; i++) {
    plan.factors[i] = next;
    next = fill_factors(next, left, plan.radix[i]);
    left /= plan.radix[i];
  }
  return plan;
}

void lane_plan_free(LanePlan* plan) {
  free(plan->factor_block);
  *plan = LanePlan{};
}

double lane_plan_cost(int n) {
  int radix[kMaxLanePasses];
  double cost;
  split_into_radices(n, n, radix, &cost);
  return cost;
}

int lane_plan_parts(const LanePlan* plan) { return plan->n_passes == 0 ? 1 : plan->radix[0]; }

void lane_fft_part(const LanePlan* plan, LaneValue* parts, int part, LaneValue* out, size_t out_step,
                   LaneValue* scratch) {
  finish_part(plan, parts, part, out, scratch, [&](auto radix, LaneValue* from, size_t n) {
    run_over_lanes<LastPass<radix()>>(from, out, n, out_step);
  });
}

void lane_fft(const LanePlan* plan, const LaneValue* in, LaneValue* out, LaneValue* scratch) {
  if (plan->n_passes == 0) {
    out[0] = in[0];
    return;
  }
  const auto n = static_cast<size_t>(plan->n);
  for_radix(plan->radix[0], [&](auto radix) { run_over_lanes<FirstPass<radix()>>(in, scratch, n, plan->factors[0]); });
  finish_parts(plan, scratch, out);
}

void lane_fft_of_few(const LanePlan* plan, const LaneValue* in, size_t n_in, size_t low, size_t high, LaneValue* out,
                     LaneValue* scratch) {
  const auto n = static_cast<size_t>(plan->n);
  const auto radix = static_cast<size_t>(lane_plan_parts(plan));
  if (n_in <= n / radix && plan->n_passes > 0) {
    run_over_lanes<Spread>(in, scratch, radix, n_in, n, plan->factors[0]);
    return finish_outer_parts(plan, scratch, low, high, out);
  }
  LaneValue* padded = scratch + n;
  memcpy(padded, in, n_in * sizeof(LaneValue));
  memset(padded + n_in, 0, (n - n_in) * sizeof(LaneValue));
  lane_fft(plan, padded, out, scratch);
}

void lane_fft_divide_outer(const LanePlan* plan, LaneValue* in, size_t low, size_t high, LaneValue* parts) {
  const auto n = static_cast<size_t>(plan->n);
  const int radix = lane_plan_parts(plan);
  const bool narrow = (radix == 4 || radix == 8) && n % 4 == 0 && std::max(low, high) <= n / 4;
  const size_t low_end = narrow ? n / 4 : n - high;
  const size_t high_begin = narrow ? n - n / 4 : low_end;
  memset(in + low, 0, (low_end - low) * sizeof(LaneValue));
  memset(in + high_begin, 0, (n - high - high_begin) * sizeof(LaneValue));
  if (narrow && radix == 4) return run_over_lanes<FirstPass<4, true>>(in, parts, n, plan->factors[0]);
  if (narrow) return run_over_lanes<FirstPass<8, true>>(in, parts, n, plan->factors[0]);
  if (radix == 1) {
    parts[0] = in[0];
    return;
  }
  for_radix(radix, [&](auto constant) { run_over_lanes<FirstPass<constant()>>(in, parts, n, plan->factors[0]); });
}

void lane_fft_of_outer(const LanePlan* plan, LaneValue* in, size_t low, size_t high, LaneValue* out,
                       LaneValue* scratch) {
  lane_fft_divide_outer(plan, in, low, high, scratch);
  finish_parts(plan, scratch, out);
}
