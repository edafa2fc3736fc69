#include "platform/lane_fft.h"

#include <sys/mman.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <utility>

#include "host_memory.h"
#include "platform/lane_transpose.h"
#include "platform/launch.h"

// Inlined whatever its size, so that it is compiled for the instruction set of the loop around it.
#define INTO_LOOP __attribute__((always_inline)) inline

namespace {

INTO_LOOP LaneValue operator+(LaneValue a, LaneValue b) { return {a.re + b.re, a.im + b.im}; }
INTO_LOOP LaneValue operator-(LaneValue a, LaneValue b) { return {a.re - b.re, a.im - b.im}; }
INTO_LOOP LaneValue negative(LaneValue a) { return {-a.re, -a.im}; }
INTO_LOOP LaneValue scaled(LaneValue a, float s) { return {a.re * s, a.im * s}; }
INTO_LOOP LaneValue times_minus_i(LaneValue a) { return {a.im, -a.re}; }

// The factors of a butterfly's values but the first: cosine and sine of each.
struct Factors {
  const float* next;
};
INTO_LOOP LaneValue turned(LaneValue a, Factors factors, int k) {
  const float cosine = factors.next[2 * k - 2];
  const float sine = factors.next[2 * k - 1];
  return {a.re * cosine - a.im * sine, a.re * sine + a.im * cosine};
}

// The factors of a last pass, which are all 1.
struct NoFactors {};
INTO_LOOP LaneValue turned(LaneValue a, NoFactors, int) { return a; }

// A butterfly takes the Radix values x[k * in_step] to y[k * out_step], each but the first multiplied by its factor.
template <class F>
INTO_LOOP void butterfly_2(const LaneValue* x, size_t in_step, LaneValue* y, size_t out_step, F factors) {
  const LaneValue x0 = x[0];
  const LaneValue x1 = x[in_step];
  y[0] = x0 + x1;
  y[out_step] = turned(x0 - x1, factors, 1);
}

template <class F>
INTO_LOOP void butterfly_3(const LaneValue* x, size_t in_step, LaneValue* y, size_t out_step, F factors) {
  constexpr float kSin60 = 0.866025403784438647f;
  const LaneValue x0 = x[0];
  const LaneValue sum = x[in_step] + x[2 * in_step];
  const LaneValue side = times_minus_i(scaled(x[in_step] - x[2 * in_step], kSin60));
  const LaneValue middle = x0 - scaled(sum, 0.5f);
  y[0] = x0 + sum;
  y[out_step] = turned(middle + side, factors, 1);
  y[2 * out_step] = turned(middle - side, factors, 2);
}

// What is left of a butterfly of radix 4 after its sums and differences of x[k] and x[k + 2].
template <class F>
INTO_LOOP void finish_radix_4(LaneValue even_sum, LaneValue even_difference, LaneValue odd_sum,
                              LaneValue odd_difference, LaneValue* y, size_t out_step, F factors) {
  const LaneValue side = times_minus_i(odd_difference);
  y[0] = even_sum + odd_sum;
  y[out_step] = turned(even_difference + side, factors, 1);
  y[2 * out_step] = turned(even_sum - odd_sum, factors, 2);
  y[3 * out_step] = turned(even_difference - side, factors, 3);
}

template <class F>
INTO_LOOP void butterfly_4(const LaneValue* x, size_t in_step, LaneValue* y, size_t out_step, F factors) {
  const LaneValue x0 = x[0];
  const LaneValue x1 = x[in_step];
  const LaneValue x2 = x[2 * in_step];
  const LaneValue x3 = x[3 * in_step];
  finish_radix_4(x0 + x2, x0 - x2, x1 + x3, x1 - x3, y, out_step, factors);
}

template <class F>
INTO_LOOP void butterfly_5(const LaneValue* x, size_t in_step, LaneValue* y, size_t out_step, F factors) {
  constexpr float kCos72 = 0.309016994374947424f;
  constexpr float kCos144 = -0.809016994374947424f;
  constexpr float kSin72 = 0.951056516295153572f;
  constexpr float kSin144 = 0.587785252292473129f;
  const LaneValue x0 = x[0];
  const LaneValue outer_sum = x[in_step] + x[4 * in_step];
  const LaneValue inner_sum = x[2 * in_step] + x[3 * in_step];
  const LaneValue outer_difference = x[in_step] - x[4 * in_step];
  const LaneValue inner_difference = x[2 * in_step] - x[3 * in_step];
  const LaneValue near = x0 + scaled(outer_sum, kCos72) + scaled(inner_sum, kCos144);
  const LaneValue far = x0 + scaled(outer_sum, kCos144) + scaled(inner_sum, kCos72);
  const LaneValue near_side = times_minus_i(scaled(outer_difference, kSin72) + scaled(inner_difference, kSin144));
  const LaneValue far_side = times_minus_i(scaled(outer_difference, kSin144) - scaled(inner_difference, kSin72));
  y[0] = x0 + outer_sum + inner_sum;
  y[out_step] = turned(near + near_side, factors, 1);
  y[2 * out_step] = turned(far + far_side, factors, 2);
  y[3 * out_step] = turned(far - far_side, factors, 3);
  y[4 * out_step] = turned(near - near_side, factors, 4);
}

// Two butterflies of radix 3, of the even and of the odd values, put together by prime factors: 6 = 2 * 3 needs no
// factors between the two.
template <class F>
INTO_LOOP void butterfly_6(const LaneValue* x, size_t in_step, LaneValue* y, size_t out_step, F factors) {
  constexpr float kSin60 = 0.866025403784438647f;
  const LaneValue x0 = x[0];
  const LaneValue x3 = x[3 * in_step];
  const LaneValue even_sum = x[2 * in_step] + x[4 * in_step];
  const LaneValue even_side = times_minus_i(scaled(x[2 * in_step] - x[4 * in_step], kSin60));
  const LaneValue odd_sum = x[in_step] + x[5 * in_step];
  const LaneValue odd_side = times_minus_i(scaled(x[5 * in_step] - x[in_step], kSin60));
  const LaneValue even_middle = x0 - scaled(even_sum, 0.5f);
  const LaneValue odd_middle = x3 - scaled(odd_sum, 0.5f);
  const LaneValue even[3] = {x0 + even_sum, even_middle + even_side, even_middle - even_side};
  const LaneValue odd[3] = {x3 + odd_sum, odd_middle + odd_side, odd_middle - odd_side};
  y[0] = even[0] + odd[0];
  y[out_step] = turned(even[1] - odd[1], factors, 1);
  y[2 * out_step] = turned(even[2] + odd[2], factors, 2);
  y[3 * out_step] = turned(even[0] - odd[0], factors, 3);
  y[4 * out_step] = turned(even[1] + odd[1], factors, 4);
  y[5 * out_step] = turned(even[2] - odd[2], factors, 5);
}

// What is left of a butterfly of radix 8 after its sums a and differences b of x[k] and x[k + 4].
template <class F>
INTO_LOOP void finish_radix_8(LaneValue a0, LaneValue a1, LaneValue a2, LaneValue a3, LaneValue b0, LaneValue b1,
                              LaneValue b2, LaneValue b3, LaneValue* y, size_t out_step, F factors) {
  constexpr float kSqrtHalf = 0.707106781186547524f;
  const LaneValue b1_turned = scaled({b1.re + b1.im, b1.im - b1.re}, kSqrtHalf);
  const LaneValue b2_turned = times_minus_i(b2);
  const LaneValue b3_turned = scaled({b3.im - b3.re, -(b3.re + b3.im)}, kSqrtHalf);
  const LaneValue even_sum = a0 + a2;
  const LaneValue even_difference = a0 - a2;
  const LaneValue even_other = a1 + a3;
  const LaneValue even_other_difference = times_minus_i(a1 - a3);
  const LaneValue odd_sum = b0 + b2_turned;
  const LaneValue odd_difference = b0 - b2_turned;
  const LaneValue odd_other = b1_turned + b3_turned;
  const LaneValue odd_other_difference = times_minus_i(b1_turned - b3_turned);
  y[0] = even_sum + even_other;
  y[out_step] = turned(odd_sum + odd_other, factors, 1);
  y[2 * out_step] = turned(even_difference + even_other_difference, factors, 2);
  y[3 * out_step] = turned(odd_difference + odd_other_difference, factors, 3);
  y[4 * out_step] = turned(even_sum - even_other, factors, 4);
  y[5 * out_step] = turned(odd_sum - odd_other, factors, 5);
  y[6 * out_step] = turned(even_difference - even_other_difference, factors, 6);
  y[7 * out_step] = turned(odd_difference - odd_other_difference, factors, 7);
}

template <class F>
INTO_LOOP void butterfly_8(const LaneValue* x, size_t in_step, LaneValue* y, size_t out_step, F factors) {
  LaneValue a[4];
  LaneValue b[4];
  for (size_t k = 0; k < 4; k++) {
    const LaneValue lower = x[k * in_step];
    const LaneValue upper = x[(k + 4) * in_step];
    a[k] = lower + upper;
    b[k] = lower - upper;
  }
  finish_radix_8(a[0], a[1], a[2], a[3], b[0], b[1], b[2], b[3], y, out_step, factors);
}

template <int Radix, class F>
INTO_LOOP void butterfly(const LaneValue* x, size_t in_step, LaneValue* y, size_t out_step, F factors) {
  if constexpr (Radix == 2) butterfly_2(x, in_step, y, out_step, factors);
  if constexpr (Radix == 3) butterfly_3(x, in_step, y, out_step, factors);
  if constexpr (Radix == 4) butterfly_4(x, in_step, y, out_step, factors);
  if constexpr (Radix == 5) butterfly_5(x, in_step, y, out_step, factors);
  if constexpr (Radix == 6) butterfly_6(x, in_step, y, out_step, factors);
  if constexpr (Radix == 8) butterfly_8(x, in_step, y, out_step, factors);
}

// The butterfly of radix 4 or 8 of which only the first and the last quarter of the values are not 0.
template <int Radix>
INTO_LOOP void outer_butterfly(const LaneValue* x, size_t in_step, LaneValue* y, size_t out_step, Factors factors) {
  const LaneValue first = x[0];
  const LaneValue last = x[(Radix - 1) * in_step];
  if constexpr (Radix == 4) {
    finish_radix_4(first, first, last, negative(last), y, out_step, factors);
  } else {
    const LaneValue second = x[in_step];
    const LaneValue last_but_one = x[(Radix - 2) * in_step];
    finish_radix_8(first, second, last_but_one, last, first, second, negative(last_but_one), negative(last), y,
                   out_step, factors);
  }
}

// The first pass divides a transform of n values into Radix transforms of n / Radix, one behind the other.
template <int Radix>
KERNEL_LOOP void first_pass(const LaneValue* x, LaneValue* parts, size_t n, const float* factors) {
  const size_t part = n / Radix;
  for (size_t p = 0; p < part; p++, factors += 2 * (Radix - 1))
    butterfly<Radix>(x + p, part, parts + p, part, Factors{factors});
}

// The first pass where only the first and the last quarter of the values are not 0.
template <int Radix>
KERNEL_LOOP void outer_first_pass(const LaneValue* x, LaneValue* parts, size_t n, const float* factors) {
  const size_t part = n / Radix;
  for (size_t p = 0; p < part; p++, factors += 2 * (Radix - 1))
    outer_butterfly<Radix>(x + p, part, parts + p, part, Factors{factors});
}

// The first pass where no butterfly has more than its first value: each becomes `radix` values that differ by their
// factors only.
KERNEL_LOOP void spread(size_t radix, const LaneValue* x, size_t n_in, LaneValue* parts, size_t n,
                        const float* factors) {
  const size_t part = n / radix;
  for (size_t p = 0; p < n_in; p++, factors += 2 * (radix - 1)) {
    const LaneValue value = x[p];
    parts[p] = value;
    for (size_t k = 1; k < radix; k++) parts[k * part + p] = turned(value, Factors{factors}, static_cast<int>(k));
  }
  for (size_t k = 0; k < radix; k++) memset(parts + k * part + n_in, 0, (part - n_in) * sizeof(LaneValue));
}

// A pass in the middle of a transform of n values, of which `stride` interleaved ones of n / stride are left.
template <int Radix>
KERNEL_LOOP void middle_pass(const LaneValue* x, LaneValue* y, size_t n, size_t stride, const float* factors) {
  const size_t butterflies = n / stride / Radix;
  const size_t in_step = n / Radix;
  for (size_t p = 0; p < butterflies; p++, factors += 2 * (Radix - 1))
    for (size_t q = 0; q < stride; q++)
      butterfly<Radix>(x + p * stride + q, in_step, y + p * stride * Radix + q, stride, Factors{factors});
}

// The last pass of a transform of n values, written out_step apart.
template <int Radix>
KERNEL_LOOP void last_pass(const LaneValue* x, LaneValue* y, size_t n, size_t out_step) {
  const size_t step = n / Radix;
  for (size_t q = 0; q < step; q++) butterfly<Radix>(x + q, step, y + q * out_step, step * out_step, NoFactors{});
}

// The same of which only the first `low` values and the last `high` are wanted, neither more than a Radix-th of them.
template <int Radix>
KERNEL_LOOP void outer_last_pass(const LaneValue* x, LaneValue* y, size_t n, size_t out_step, size_t low, size_t high) {
  const size_t step = n / Radix;
  LaneValue all[Radix];
  for (size_t q = 0; q < low; q++) {
    butterfly<Radix>(x + q, step, all, 1, NoFactors{});
    y[q * out_step] = all[0];
  }
  for (size_t q = step - high; q < step; q++) {
    butterfly<Radix>(x + q, step, all, 1, NoFactors{});
    y[(q + (Radix - 1) * step) * out_step] = all[Radix - 1];
  }
}

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
    for_radix(plan->radix[i], [&](auto radix) { middle_pass<radix()>(from, to, n, stride, plan->factors[i]); });
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
                    outer_last_pass<radix()>(from, out + part, of_part, step, low_of_part, high_of_part);
                  } else {
                    last_pass<radix()>(from, out + part, of_part, step);
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
  const double step = -2 * 3.141592653589793 / n;
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

LaneValue* lane_values_new(size_t n) {
  constexpr size_t kCacheLine = 64;
  constexpr size_t kHugePage = size_t{2} << 20;
  static_assert(sizeof(LaneValue) % kCacheLine == 0, "a value fills whole cache lines");
  const size_t needed = std::max<size_t>(n, 1) * sizeof(LaneValue);
  const size_t unit = needed < kHugePage ? kCacheLine : kHugePage;
  const size_t bytes = (needed + unit - 1) / unit * unit;
  void* memory = aligned_alloc(unit, bytes);
  if (!memory) host_malloc(SIZE_MAX, 1);  // reports the failure and ends the run
  // Rows are gathered from places far apart: with small pages each would cost a walk through the page table.
  if (unit == kHugePage) madvise(memory, bytes, MADV_HUGEPAGE);
  memset(memory, 0, bytes);
  return static_cast<LaneValue*>(memory);
}

int lane_plan_parts(const LanePlan* plan) { return plan->n_passes == 0 ? 1 : plan->radix[0]; }

void lane_fft_part(const LanePlan* plan, LaneValue* parts, int part, LaneValue* out, size_t out_step,
                   LaneValue* scratch) {
  finish_part(plan, parts, part, out, scratch,
              [&](auto radix, LaneValue* from, size_t n) { last_pass<radix()>(from, out, n, out_step); });
}

void lane_fft(const LanePlan* plan, const LaneValue* in, LaneValue* out, LaneValue* scratch) {
  if (plan->n_passes == 0) {
    out[0] = in[0];
    return;
  }
  const auto n = static_cast<size_t>(plan->n);
  for_radix(plan->radix[0], [&](auto radix) { first_pass<radix()>(in, scratch, n, plan->factors[0]); });
  finish_parts(plan, scratch, out);
}

void lane_fft_of_few(const LanePlan* plan, const LaneValue* in, size_t n_in, size_t low, size_t high, LaneValue* out,
                     LaneValue* scratch) {
  const auto n = static_cast<size_t>(plan->n);
  const auto radix = static_cast<size_t>(lane_plan_parts(plan));
  if (n_in <= n / radix && plan->n_passes > 0) {
    spread(radix, in, n_in, scratch, n, plan->factors[0]);
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
  if (narrow && radix == 4) return outer_first_pass<4>(in, parts, n, plan->factors[0]);
  if (narrow) return outer_first_pass<8>(in, parts, n, plan->factors[0]);
  if (radix == 1) {
    parts[0] = in[0];
    return;
  }
  for_radix(radix, [&](auto constant) { first_pass<constant()>(in, parts, n, plan->factors[0]); });
}

void lane_fft_of_outer(const LanePlan* plan, LaneValue* in, size_t low, size_t high, LaneValue* out,
                       LaneValue* scratch) {
  lane_fft_divide_outer(plan, in, low, high, scratch);
  finish_parts(plan, scratch, out);
}

KERNEL_LOOP void lane_transpose(const Lane* from, size_t from_stride, Lane* to, size_t to_stride) {
  Lane block[kLanes];
#pragma GCC unroll 8
  for (size_t i = 0; i < kLanes; i++) block[i] = from[i * from_stride];
  lane_transpose_block(block);
#pragma GCC unroll 8
  for (size_t i = 0; i < kLanes; i++) to[i * to_stride] = block[i];
}
