// The butterflies of the transforms of eight arrays side by side (lane_fft.h), over any kind of value (wide_lanes.h).
#pragma once

#include <cstddef>

#include "transforms/wide_lanes.h"

/// The factors of a butterfly's values but the first: cosine and sine of each.
struct Factors {
  const float* next;
};
template <class Value>
INTO_LOOP Value turned(Value a, Factors factors, int k) {
  return turned_by(a, factors.next[2 * k - 2], factors.next[2 * k - 1]);
}

/// The factors of a last pass, which are all 1.
struct NoFactors {};
template <class Value>
INTO_LOOP Value turned(Value a, NoFactors, int) {
  return a;
}

/// A butterfly takes the Radix values x[k * in_step] to y[k * out_step], each but the first multiplied by its factor.
template <class Value, class F>
INTO_LOOP void butterfly_2(const Value* x, size_t in_step, Value* y, size_t out_step, F factors) {
  const Value x0 = x[0];
  const Value x1 = x[in_step];
  y[0] = x0 + x1;
  y[out_step] = turned(x0 - x1, factors, 1);
}

template <class Value, class F>
INTO_LOOP void butterfly_3(const Value* x, size_t in_step, Value* y, size_t out_step, F factors) {
  constexpr float kSin60 = 0.866025403784438647f;
  const Value x0 = x[0];
  const Value sum = x[in_step] + x[2 * in_step];
  const Value side = times_minus_i((x[in_step] - x[2 * in_step]) * kSin60);
  const Value middle = x0 - sum * 0.5f;
  y[0] = x0 + sum;
  y[out_step] = turned(middle + side, factors, 1);
  y[2 * out_step] = turned(middle - side, factors, 2);
}

/// What is left of a butterfly of radix 4 after its sums and differences of x[k] and x[k + 2].
template <class Value, class F>
INTO_LOOP void finish_radix_4(Value even_sum, Value even_difference, Value odd_sum, Value odd_difference, Value* y,
                              size_t out_step, F factors) {
  const Value side = times_minus_i(odd_difference);
  y[0] = even_sum + odd_sum;
  y[out_step] = turned(even_difference + side, factors, 1);
  y[2 * out_step] = turned(even_sum - odd_sum, factors, 2);
  y[3 * out_step] = turned(even_difference - side, factors, 3);
}

template <class Value, class F>
INTO_LOOP void butterfly_4(const Value* x, size_t in_step, Value* y, size_t out_step, F factors) {
  const Value x0 = x[0];
  const Value x1 = x[in_step];
  const Value x2 = x[2 * in_step];
  const Value x3 = x[3 * in_step];
  finish_radix_4(x0 + x2, x0 - x2, x1 + x3, x1 - x3, y, out_step, factors);
}

template <class Value, class F>
INTO_LOOP void butterfly_5(const Value* x, size_t in_step, Value* y, size_t out_step, F factors) {
  constexpr float kCos72 = 0.309016994374947424f;
  constexpr float kCos144 = -0.809016994374947424f;
  constexpr float kSin72 = 0.951056516295153572f;
  constexpr float kSin144 = 0.587785252292473129f;
  const Value x0 = x[0];
  const Value outer_sum = x[in_step] + x[4 * in_step];
  const Value inner_sum = x[2 * in_step] + x[3 * in_step];
  const Value outer_difference = x[in_step] - x[4 * in_step];
  const Value inner_difference = x[2 * in_step] - x[3 * in_step];
  const Value near = x0 + outer_sum * kCos72 + inner_sum * kCos144;
  const Value far = x0 + outer_sum * kCos144 + inner_sum * kCos72;
  const Value near_side = times_minus_i(outer_difference * kSin72 + inner_difference * kSin144);
  const Value far_side = times_minus_i(outer_difference * kSin144 - inner_difference * kSin72);
  y[0] = x0 + outer_sum + inner_sum;
  y[out_step] = turned(near + near_side, factors, 1);
  y[2 * out_step] = turned(far + far_side, factors, 2);
  y[3 * out_step] = turned(far - far_side, factors, 3);
  y[4 * out_step] = turned(near - near_side, factors, 4);
}

/// Two butterflies of radix 3, of the even and of the odd values, put together by prime factors: 6 = 2 * 3 needs no
/// factors between the two.
template <class Value, class F>
INTO_LOOP void butterfly_6(const Value* x, size_t in_step, Value* y, size_t out_step, F factors) {
  constexpr float kSin60 = 0.866025403784438647f;
  const Value x0 = x[0];
  const Value x3 = x[3 * in_step];
  const Value even_sum = x[2 * in_step] + x[4 * in_step];
  const Value even_side = times_minus_i((x[2 * in_step] - x[4 * in_step]) * kSin60);
  const Value odd_sum = x[in_step] + x[5 * in_step];
  const Value odd_side = times_minus_i((x[5 * in_step] - x[in_step]) * kSin60);
  const Value even_middle = x0 - even_sum * 0.5f;
  const Value odd_middle = x3 - odd_sum * 0.5f;
  const Value even[3] = {x0 + even_sum, even_middle + even_side, even_middle - even_side};
  const Value odd[3] = {x3 + odd_sum, odd_middle + odd_side, odd_middle - odd_side};
  y[0] = even[0] + odd[0];
  y[out_step] = turned(even[1] - odd[1], factors, 1);
  y[2 * out_step] = turned(even[2] + odd[2], factors, 2);
  y[3 * out_step] = turned(even[0] - odd[0], factors, 3);
  y[4 * out_step] = turned(even[1] + odd[1], factors, 4);
  y[5 * out_step] = turned(even[2] - odd[2], factors, 5);
}

/// What is left of a butterfly of radix 8 after its sums a and differences b of x[k] and x[k + 4].
template <class Value, class F>
INTO_LOOP void finish_radix_8(Value a0, Value a1, Value a2, Value a3, Value b0, Value b1, Value b2, Value b3, Value* y,
                              size_t out_step, F factors) {
  constexpr float kSqrtHalf = 0.707106781186547524f;
  const Value b1_turned = (b1 + times_minus_i(b1)) * kSqrtHalf;
  const Value b2_turned = times_minus_i(b2);
  const Value b3_turned = (times_minus_i(b3) - b3) * kSqrtHalf;
  const Value even_sum = a0 + a2;
  const Value even_difference = a0 - a2;
  const Value even_other = a1 + a3;
  const Value even_other_difference = times_minus_i(a1 - a3);
  const Value odd_sum = b0 + b2_turned;
  const Value odd_difference = b0 - b2_turned;
  const Value odd_other = b1_turned + b3_turned;
  const Value odd_other_difference = times_minus_i(b1_turned - b3_turned);
  y[0] = even_sum + even_other;
  y[out_step] = turned(odd_sum + odd_other, factors, 1);
  y[2 * out_step] = turned(even_difference + even_other_difference, factors, 2);
  y[3 * out_step] = turned(odd_difference + odd_other_difference, factors, 3);
  y[4 * out_step] = turned(even_sum - even_other, factors, 4);
  y[5 * out_step] = turned(odd_sum - odd_other, factors, 5);
  y[6 * out_step] = turned(even_difference - even_other_difference, factors, 6);
  y[7 * out_step] = turned(odd_difference - odd_other_difference, factors, 7);
}

template <class Value, class F>
INTO_LOOP void butterfly_8(const Value* x, size_t in_step, Value* y, size_t out_step, F factors) {
  Value a[4];
  Value b[4];
  for (size_t k = 0; k < 4; k++) {
    const Value lower = x[k * in_step];
    const Value upper = x[(k + 4) * in_step];
    a[k] = lower + upper;
    b[k] = lower - upper;
  }
  finish_radix_8(a[0], a[1], a[2], a[3], b[0], b[1], b[2], b[3], y, out_step, factors);
}

template <int Radix, class Value, class F>
INTO_LOOP void butterfly(const Value* x, size_t in_step, Value* y, size_t out_step, F factors) {
  if constexpr (Radix == 2) butterfly_2(x, in_step, y, out_step, factors);
  if constexpr (Radix == 3) butterfly_3(x, in_step, y, out_step, factors);
  if constexpr (Radix == 4) butterfly_4(x, in_step, y, out_step, factors);
  if constexpr (Radix == 5) butterfly_5(x, in_step, y, out_step, factors);
  if constexpr (Radix == 6) butterfly_6(x, in_step, y, out_step, factors);
  if constexpr (Radix == 8) butterfly_8(x, in_step, y, out_step, factors);
}

/// The butterfly of radix 4 or 8 of which only the first and the last quarter of the values are not 0.
template <int Radix, class Value>
INTO_LOOP void outer_butterfly(const Value* x, size_t in_step, Value* y, size_t out_step, Factors factors) {
  const Value first = x[0];
  const Value last = x[(Radix - 1) * in_step];
  if constexpr (Radix == 4) {
    finish_radix_4(first, first, last, -last, y, out_step, factors);
  } else {
    const Value second = x[in_step];
    const Value last_but_one = x[(Radix - 2) * in_step];
    finish_radix_8(first, second, last_but_one, last, first, second, -last_but_one, -last, y, out_step, factors);
  }
}
