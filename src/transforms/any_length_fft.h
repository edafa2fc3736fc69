// Fourier transforms of eight arrays side by side, of any length: directly where lane_fft.h can, else as a convolution
// with a chirp by transforms of a length that it can (Bluestein, IEEE Trans. AU 18 (1970) 451).
#pragma once

#include "transforms/lane_fft.h"

/// How arrays of n values are transformed.
struct AnyLengthPlan {
  int n;
  LanePlan plan;   // of n values, or of the convolution's
  float* chirp;    // n pairs: exp(-i pi k^2 / n); null where no convolution is needed
  float* inverse;  // plan.n pairs: the transform of the conjugate chirp, over plan.n; null likewise
};

/// A plan for arrays of n values, n at least 1. Released with any_length_plan_free. A lack of memory ends the run.
AnyLengthPlan any_length_plan_new(int n);
void any_length_plan_free(AnyLengthPlan* plan);

/// Unnormalised forward transform (exponent -2 pi i) of eight arrays.
/// in        n values, overwritten
/// out       n values
/// scratch   in and out have room for plan.n values each, scratch for twice as many; they don't overlap
void any_length_fft(const AnyLengthPlan* plan, LaneValue* in, LaneValue* out, LaneValue* scratch);
