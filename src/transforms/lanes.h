// Lanes: eight arrays side by side, so that a step of the same arithmetic for each of them is one on whole vectors.
#pragma once

#include <cstddef>

constexpr int kLanes = 8;

/// One float of each of the eight arrays.
typedef float Lane __attribute__((vector_size(kLanes * sizeof(float))));

/// One complex value of each of the eight arrays.
struct LaneValue {
  Lane re, im;
};

/// n values, cleared, on a cache line's boundary, for free. A lack of memory ends the run.
LaneValue* lane_values_new(size_t n);

/// The same, null where there is not enough memory.
LaneValue* lane_values_if_any(size_t n);

/// Turns eight rows of eight floats into eight columns: to[j][i] = from[i][j].
/// from, to   row j at from + j * from_stride, to + j * to_stride; different places; strides in Lanes
void lane_transpose(const Lane* from, size_t from_stride, Lane* to, size_t to_stride);
