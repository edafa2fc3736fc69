// Cosine transforms of sixteen arrays of real values side by side: eight as the real and eight as the imaginary parts
// of the lanes of one complex transform (any_length_fft.h), so that any length will do.
#pragma once

#include "transforms/any_length_fft.h"

constexpr int kMaxHalvings = 32;

/// What the transforms of n values go by.
struct CosineLength {
  int n;
  AnyLengthPlan plan;  // of n values
  float* turn;         // n pairs: cosine and sine of pi k / (2n)
  int* fold;           // n places: even values in order, then odd ones backwards
};

/// What one dimension of an image goes by.
struct CosineSide {
  int n;
  CosineLength whole;
  int n_halvings;
  CosineLength halves[kMaxHalvings];  // of n/2, n/4, ... values
  AnyLengthPlan even;                 // of twice the values that the last halving leaves
  int* natural;                       // n places: 0, 1, 2, ...
};

/// A thread's room: cosine_room values each.
struct CosineScratch {
  LaneValue *a, *b, *c, *d, *e;
};

CosineSide cosine_side_new(int n);
void cosine_side_free(CosineSide* side);
size_t cosine_room(const CosineSide* side);

/// out[k] = 2 sum f(x) cos(pi (x + 1/2) k / n). In s.a: f(x) at whole.fold[x]. out: n values, none of s but s.e.
void cosine_forward_1d(const CosineSide* side, CosineScratch s, LaneValue* out);

/// out[x] = C(0) + 2 sum over k > 0 of C(k) cos(pi (x + 1/2) k / n). In s.a: C(k) at k.
void cosine_inverse_1d(const CosineSide* side, CosineScratch s, LaneValue* out);

/// out[x] = C(0) + 2 sum over k > 0 of C(k) cos(pi (n - x) k / n). In s.a: C(k) at k.
void cosine_correlate_1d(const CosineSide* side, CosineScratch s, LaneValue* out);
