// Loops over LaneValues, written once for any kind of value and compiled for vectors of the width that the processor has:
// over LaneValue itself, two vectors of eight floats, for any processor and again for those with AVX2 (KERNEL_LOOP), and
// over WideValue, one vector of sixteen, for those with AVX-512: compilers take vectors wider than the processor's to
// pieces, by way of memory, and lose half of the speed by it. A loop is a structure with the function
//     template <class Value> INTO_LOOP static void of(const LaneValue* from, LaneValue* to, ...)
// that goes through values_of<Value>(from); run_over_lanes<Loop>(from, to, ...) runs it. What the operations below give
// has the same bits for both kinds, unless a source is compiled with fused multiply-adds.
#pragma once

#include <type_traits>

#include "platform/loops.h"
#include "transforms/lanes.h"

/// Inlined whatever its size, so that it is compiled for the instruction set of the loop around it.
#define INTO_LOOP __attribute__((always_inline)) inline

/// A LaneValue as one vector: re in its lower half, im in its upper one. May stand for LaneValues in memory.
typedef float WideVector __attribute__((vector_size(2 * kLanes * sizeof(float)), aligned(alignof(LaneValue))));
struct __attribute__((may_alias)) WideValue {
  WideVector both;
};
static_assert(sizeof(WideValue) == sizeof(LaneValue), "values lie in the same places");

/// Values in memory as those of another kind.
template <class Value>
INTO_LOOP const Value* values_of(const LaneValue* values) {
  return reinterpret_cast<const Value*>(values);
}
template <class Value>
INTO_LOOP Value* values_of(LaneValue* values) {
  return reinterpret_cast<Value*>(values);
}

INTO_LOOP LaneValue operator+(LaneValue a, LaneValue b) { return {a.re + b.re, a.im + b.im}; }
INTO_LOOP LaneValue operator-(LaneValue a, LaneValue b) { return {a.re - b.re, a.im - b.im}; }
INTO_LOOP LaneValue operator-(LaneValue a) { return {-a.re, -a.im}; }
INTO_LOOP LaneValue operator*(LaneValue a, float s) { return {a.re * s, a.im * s}; }
INTO_LOOP WideValue operator+(WideValue a, WideValue b) { return {a.both + b.both}; }
INTO_LOOP WideValue operator-(WideValue a, WideValue b) { return {a.both - b.both}; }
INTO_LOOP WideValue operator-(WideValue a) { return {-a.both}; }
INTO_LOOP WideValue operator*(WideValue a, float s) { return {a.both * s}; }

/// Times -i.
INTO_LOOP LaneValue times_minus_i(LaneValue a) { return {a.im, -a.re}; }
INTO_LOOP WideValue times_minus_i(WideValue a) {
  return {__builtin_shufflevector(a.both, -a.both, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23)};
}

/// Times cosine + i sine.
INTO_LOOP LaneValue turned_by(LaneValue a, float cosine, float sine) {
  return {a.re * cosine - a.im * sine, a.re * sine + a.im * cosine};
}
INTO_LOOP WideValue turned_by(WideValue a, float cosine, float sine) {
  const WideVector signs = {-1, -1, -1, -1, -1, -1, -1, -1, 1, 1, 1, 1, 1, 1, 1, 1};
  const WideVector exchanged =
      __builtin_shufflevector(a.both, a.both, 8, 9, 10, 11, 12, 13, 14, 15, 0, 1, 2, 3, 4, 5, 6, 7);
  return {a.both * cosine + exchanged * (signs * sine)};
}

/// The larger of each two floats, the second where they can't be compared.
INTO_LOOP LaneValue larger(LaneValue a, LaneValue b) { return {a.re > b.re ? a.re : b.re, a.im > b.im ? a.im : b.im}; }
INTO_LOOP WideValue larger(WideValue a, WideValue b) { return {a.both > b.both ? a.both : b.both}; }

/// The value with these halves.
template <class Value>
INTO_LOOP Value joined(Lane re, Lane im) {
  if constexpr (std::is_same_v<Value, LaneValue>) {
    return {re, im};
  } else {
    return {__builtin_shufflevector(re, im, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15)};
  }
}

/// Whether any float is above 0.
INTO_LOOP bool has_positive(LaneValue a) {
  bool any = false;
  for (int lane = 0; lane < kLanes; lane++) any |= a.re[lane] > 0 || a.im[lane] > 0;
  return any;
}
INTO_LOOP bool has_positive(WideValue a) {
  bool any = false;
  for (int lane = 0; lane < 2 * kLanes; lane++) any |= a.both[lane] > 0;
  return any;
}

#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && __GNUC__ >= 12
#define WIDE_KERNEL_LOOP __attribute__((target("arch=x86-64-v4")))
#else
#define WIDE_KERNEL_LOOP
#endif

/// Whether loops can run over WideValues: whether they were compiled for AVX-512 and the processor has it.
bool wide_lanes_possible();

/// Whether they do: wherever they can, unless set_wide_lanes says otherwise, for tests and measurements.
bool wide_lanes();
void set_wide_lanes(bool wide);

/// The widest instructions that loops are run with on this processor.
const char* instruction_set();

namespace lane_detail {

template <class Loop, class... Args>
KERNEL_LOOP void run(Args... args) {
  Loop::template of<LaneValue>(args...);
}

template <class Loop, class... Args>
WIDE_KERNEL_LOOP void run_wide(Args... args) {
  Loop::template of<WideValue>(args...);
}

}  // namespace lane_detail

/// Runs the loop over the values that suit the processor.
template <class Loop, class... Args>
void run_over_lanes(Args... args) {
  if (wide_lanes()) {
    lane_detail::run_wide<Loop>(args...);
  } else {
    lane_detail::run<Loop>(args...);
  }
}
