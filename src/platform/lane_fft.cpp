#include "platform/lane_fft.h"

#include <sys/mman.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "host_memory.h"
#include "platform/launch.h"

// Inlined whatever its size, so that it is compiled for the instruction set of the loop around it.
#define INTO_LOOP __attribute__((always_inline)) inline

namespace {

INTO_LOOP LaneValue operator+(LaneValue a, LaneValue b) { return {a.re + b.re, a.im + b.im}; }
INTO_LOOP LaneValue operator-(LaneValue a, LaneValue b) { return {a.re - b.re, a.im - b.im}; }
INTO_LOOP LaneValue negative(LaneValue a) { return {-a.re, -a.im}; }
INTO_LOOP LaneValue scaled(LaneValue a, float s) { return {a.re * s, a.im * s}; }
INTO_LOOP LaneValue times_minus_i(LaneValue a) { return {a.im, -a.re}; }
INTO_LOOP LaneValue turned(LaneValue a, const float* factor) {
  return {a.re * factor[0] - a.im * factor[1], a.re * factor[1] + a.im * factor[0]};
}

// A butterfly takes the Radix values x[k * in_step] to y[k * out_step], each but the first multiplied by its factor.
template <int Radix>
INTO_LOOP void butterfly(const LaneValue* x, size_t in_step, LaneValue* y, size_t out_step, const float* factor);

template <>
INTO_LOOP void butterfly<2>(const LaneValue* x, size_t in_step, LaneValue* y, size_t out_step, const float* factor) {
  const LaneValue x0 = x[0];
  const LaneValue x1 = x[in_step];
  y[0] = x0 + x1;
  y[out_step] = turned(x0 - x1, factor);
}

template <>
INTO_LOOP void butterfly<3>(const LaneValue* x, size_t in_step, LaneValue* y, size_t out_step, const float* factor) {
  constexpr float kSin60 = 0.866025403784438647f;
  const LaneValue x0 = x[0];
  const LaneValue sum = x[in_step] + x[2 * in_step];
  const LaneValue side = times_minus_i(scaled(x[in_step] - x[2 * in_step], kSin60));
  const LaneValue middle = x0 - scaled(sum, 0.5f);
  y[0] = x0 + sum;
  y[out_step] = turned(middle + side, factor);
  y[2 * out_step] = turned(middle - side, factor + 2);
}

// What is left of a butterfly of radix 4 after its sums and differences of x[k] and x[k + 2].
INTO_LOOP void finish_radix_4(LaneValue even_sum, LaneValue even_difference, LaneValue odd_sum, LaneValue odd_difference,
                              LaneValue* y, size_t out_step, const float* factor) {
  const LaneValue side = times_minus_i(odd_difference);
  y[0] = even_sum + odd_sum;
  y[out_step] = turned(even_difference + side, factor);
  y[2 * out_step] = turned(even_sum - odd_sum, factor + 2);
  y[3 * out_step] = turned(even_difference - side, factor + 4);
}

template <>
INTO_LOOP void butterfly<4>(const LaneValue* x, size_t in_step, LaneValue* y, size_t out_step, const float* factor) {
  const LaneValue x0 = x[0];
  const LaneValue x1 = x[in_step];
  const LaneValue x2 = x[2 * in_step];
  const LaneValue x3 = x[3 * in_step];
  finish_radix_4(x0 + x2, x0 - x2, x1 + x3, x1 - x3, y, out_step, factor);
}

template <>
INTO_LOOP void butterfly<5>(const LaneValue* x, size_t in_step, LaneValue* y, size_t out_step, const float* factor) {
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
  y[out_step] = turned(near + near_side, factor);
  y[2 * out_step] = turned(far + far_side, factor + 2);
  y[3 * out_step] = turned(far - far_side, factor + 4);
  y[4 * out_step] = turned(near - near_side, factor + 6);
}

// What is left of a butterfly of radix 8 after its sums a and differences b of x[k] and x[k + 4].
INTO_LOOP void finish_radix_8(LaneValue a0, LaneValue a1, LaneValue a2, LaneValue a3, LaneValue b0, LaneValue b1,
                              LaneValue b2, LaneValue b3, LaneValue* y, size_t out_step, const float* factor) {
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
  y[out_step] = turned(odd_sum + odd_other, factor);
  y[2 * out_step] = turned(even_difference + even_other_difference, factor + 2);
  y[3 * out_step] = turned(odd_difference + odd_other_difference, factor + 4);
  y[4 * out_step] = turned(even_sum - even_other, factor + 6);
  y[5 * out_step] = turned(odd_sum - odd_other, factor + 8);
  y[6 * out_step] = turned(even_difference - even_other_difference, factor + 10);
  y[7 * out_step] = turned(odd_difference - odd_other_difference, factor + 12);
}

template <>
INTO_LOOP void butterfly<8>(const LaneValue* x, size_t in_step, LaneValue* y, size_t out_step, const float* factor) {
  LaneValue a[4];
  LaneValue b[4];
  for (size_t k = 0; k < 4; k++) {
    const LaneValue lower = x[k * in_step];
    const LaneValue upper = x[(k + 4) * in_step];
    a[k] = lower + upper;
    b[k] = lower - upper;
  }
  finish_radix_8(a[0], a[1], a[2], a[3], b[0], b[1], b[2], b[3], y, out_step, factor);
}

// The butterfly of which only the first and the last quarter of the values are not 0.
template <int Radix>
INTO_LOOP void outer_butterfly(const LaneValue* x, size_t in_step, LaneValue* y, const float* factor);

template <>
INTO_LOOP void outer_butterfly<4>(const LaneValue* x, size_t in_step, LaneValue* y, const float* factor) {
  const LaneValue x0 = x[0];
  const LaneValue x3 = x[3 * in_step];
  finish_radix_4(x0, x0, x3, negative(x3), y, 1, factor);
}

template <>
INTO_LOOP void outer_butterfly<8>(const LaneValue* x, size_t in_step, LaneValue* y, const float* factor) {
  const LaneValue x0 = x[0];
  const LaneValue x1 = x[in_step];
  const LaneValue x6 = x[6 * in_step];
  const LaneValue x7 = x[7 * in_step];
  finish_radix_8(x0, x1, x6, x7, x0, x1, negative(x6), negative(x7), y, 1, factor);
}

// One pass over arrays of n values of which `stride` interleaved transforms of length n / stride are left.
template <int Radix>
KERNEL_LOOP void pass(const LaneValue* x, LaneValue* y, size_t n, size_t stride, const float* factors) {
  const size_t butterflies = n / stride / Radix;
  const size_t in_step = n / Radix;
  for (size_t p = 0; p < butterflies; p++, factors += 2 * (Radix - 1))
    for (size_t q = 0; q < stride; q++)
      butterfly<Radix>(x + p * stride + q, in_step, y + p * stride * Radix + q, stride, factors);
}

void run_pass(int radix, const LaneValue* x, LaneValue* y, size_t n, size_t stride, const float* factors) {
  switch (radix) {
    case 2:
      return pass<2>(x, y, n, stride, factors);
    case 3:
      return pass<3>(x, y, n, stride, factors);
    case 4:
      return pass<4>(x, y, n, stride, factors);
    case 5:
      return pass<5>(x, y, n, stride, factors);
    default:
      return pass<8>(x, y, n, stride, factors);
  }
}

// The first pass where only the first and the last quarter of the values are not 0.
template <int Radix>
KERNEL_LOOP void outer_pass(const LaneValue* x, LaneValue* y, size_t n, const float* factors) {
  for (size_t p = 0; p < n / Radix; p++, factors += 2 * (Radix - 1))
    outer_butterfly<Radix>(x + p, n / Radix, y + p * Radix, factors);
}

// The first pass where no butterfly has more than its first value: each becomes `radix` values that differ by their
// factors only.
KERNEL_LOOP void spread(size_t radix, const LaneValue* x, size_t n_in, LaneValue* y, size_t n, const float* factors) {
  for (size_t p = 0; p < n_in; p++) {
    const LaneValue value = x[p];
    y[p * radix] = value;
    for (size_t k = 1; k < radix; k++, factors += 2) y[p * radix + k] = turned(value, factors);
  }
  memset(y + n_in * radix, 0, (n - n_in * radix) * sizeof(LaneValue));
}

// The passes alternate between out and scratch so that the last one writes out: where the first one writes.
LaneValue* first_target(const LanePlan* plan, LaneValue* out, LaneValue* scratch) {
  return plan->n_passes % 2 == 1 ? out : scratch;
}

// All passes but the first, from `from` to `other` and back.
void run_later_passes(const LanePlan* plan, LaneValue* from, LaneValue* other) {
  size_t stride = 1;
  for (int i = 1; i < plan->n_passes; i++) {
    stride *= static_cast<size_t>(plan->radix[i - 1]);
    run_pass(plan->radix[i], from, other, static_cast<size_t>(plan->n), stride, plan->factors[i]);
    std::swap(from, other);
  }
}

// Splits n into radices, long ones first; a lone factor of 2 beside an 8 becomes two 4s. Returns how many.
int split_into_radices(int n, int* radix) {
  int count = 0;
  int twos = 0;
  for (; n % 2 == 0; n /= 2) twos++;
  if (twos % 3 == 1 && twos > 3) {
    radix[count++] = 4;
    radix[count++] = 4;
    twos -= 4;
  }
  for (; twos >= 3; twos -= 3) radix[count++] = 8;
  if (twos > 0) radix[count++] = twos == 2 ? 4 : 2;
  for (; n % 5 == 0; n /= 5) radix[count++] = 5;
  for (; n % 3 == 0; n /= 3) radix[count++] = 3;
  return count;
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
  plan.n_passes = split_into_radices(n, plan.radix);
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
  // Measured work of a pass for one value, relative to one of radix 4.
  int radix[kMaxLanePasses];
  const int passes = split_into_radices(n, radix);
  double cost = 0;
  for (int i = 0; i < passes; i++) cost += radix[i] == 8 ? 1.3 : radix[i] == 5 ? 1.4 : 1.0;
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

void lane_fft(const LanePlan* plan, const LaneValue* in, LaneValue* out, LaneValue* scratch) {
  if (plan->n_passes == 0) {
    out[0] = in[0];
    return;
  }
  LaneValue* to = first_target(plan, out, scratch);
  run_pass(plan->radix[0], in, to, static_cast<size_t>(plan->n), 1, plan->factors[0]);
  run_later_passes(plan, to, to == out ? scratch : out);
}

void lane_fft_of_few(const LanePlan* plan, const LaneValue* in, size_t n_in, LaneValue* out, LaneValue* scratch) {
  const auto n = static_cast<size_t>(plan->n);
  const auto radix = static_cast<size_t>(std::max(plan->radix[0], 1));
  if (plan->n_passes == 0 || n_in > n / radix) {
    // Too many for the short cut. The first pass never writes where its input can lie.
    LaneValue* padded = first_target(plan, out, scratch) == out ? scratch : out;
    memcpy(padded, in, n_in * sizeof(LaneValue));
    memset(padded + n_in, 0, (n - n_in) * sizeof(LaneValue));
    if (plan->n_passes == 0) {
      out[0] = padded[0];
      return;
    }
    run_pass(plan->radix[0], padded, first_target(plan, out, scratch), n, 1, plan->factors[0]);
  } else {
    spread(radix, in, n_in, first_target(plan, out, scratch), n, plan->factors[0]);
  }
  LaneValue* first = first_target(plan, out, scratch);
  run_later_passes(plan, first, first == out ? scratch : out);
}

void lane_fft_of_outer(const LanePlan* plan, LaneValue* in, size_t low, size_t high, LaneValue* out,
                       LaneValue* scratch) {
  const auto n = static_cast<size_t>(plan->n);
  const int radix = plan->radix[0];
  const bool narrow = (radix == 4 || radix == 8) && std::max(low, high) <= n / 4;
  const size_t low_end = narrow ? n / 4 : n - high;
  const size_t high_begin = narrow ? n - n / 4 : low_end;
  memset(in + low, 0, (low_end - low) * sizeof(LaneValue));
  memset(in + high_begin, 0, (n - high - high_begin) * sizeof(LaneValue));
  if (!narrow) return lane_fft(plan, in, out, scratch);
  LaneValue* first = first_target(plan, out, scratch);
  if (radix == 4) {
    outer_pass<4>(in, first, n, plan->factors[0]);
  } else {
    outer_pass<8>(in, first, n, plan->factors[0]);
  }
  run_later_passes(plan, first, first == out ? scratch : out);
}

KERNEL_LOOP void lane_transpose(const Lane* from, size_t from_stride, Lane* to, size_t to_stride) {
  Lane pairs[8];
  Lane quads[8];
  for (size_t i = 0; i < 4; i++) {
    const Lane a = from[2 * i * from_stride];
    const Lane b = from[(2 * i + 1) * from_stride];
    pairs[2 * i] = __builtin_shufflevector(a, b, 0, 8, 1, 9, 4, 12, 5, 13);
    pairs[2 * i + 1] = __builtin_shufflevector(a, b, 2, 10, 3, 11, 6, 14, 7, 15);
  }
  for (size_t i = 0; i < 8; i += 4) {
    for (size_t k = 0; k < 2; k++) {
      const Lane a = pairs[i + k];
      const Lane b = pairs[i + 2 + k];
      quads[i + 2 * k] = __builtin_shufflevector(a, b, 0, 1, 8, 9, 4, 5, 12, 13);
      quads[i + 2 * k + 1] = __builtin_shufflevector(a, b, 2, 3, 10, 11, 6, 7, 14, 15);
    }
  }
  for (size_t k = 0; k < 4; k++) {
    to[k * to_stride] = __builtin_shufflevector(quads[k], quads[4 + k], 0, 1, 2, 3, 8, 9, 10, 11);
    to[(4 + k) * to_stride] = __builtin_shufflevector(quads[k], quads[4 + k], 4, 5, 6, 7, 12, 13, 14, 15);
  }
}
