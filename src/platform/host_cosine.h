// Cosine transforms on the host, by FFTW: an image mirrored to twice its sides is even, so that its Fourier transform is
// a cosine transform of the image itself, a quarter of the values and all of them real. Planned by estimate, as
// host_fft.cpp tells.
#pragma once

struct CosinePlans;

/// Plans for images of nx by ny floats in `coefficients` and of nx + 1 by ny + 1 in `product` and `correlation`, on all
/// cores. The buffers (aligned as cudaMalloc aligns) are the caller's and must outlive the plans, which
/// cosine_plans_free releases. Returns null if FFTW can't plan.
CosinePlans* cosine_plans_new(int nx, int ny, float* coefficients, float* product, float* correlation);
void cosine_plans_free(CosinePlans* plans);

/// In place on `coefficients`: C(k) = 4 sum f(x) cos(pi (x + 1/2) k / n), in both dimensions. Times exp(i pi k / (2n))
/// it is the Fourier transform of the mirrored image.
void cosine_forward(const CosinePlans* plans);

/// In place on `coefficients`: the inverse of cosine_forward times the number of pixels of the mirrored image.
void cosine_inverse(const CosinePlans* plans);

/// From `product`, whose last row and column are 0, to `correlation`: the inverse for coefficients without the phase,
/// at the whole positions 0 .. n instead of the half ones.
void cosine_correlate(const CosinePlans* plans);
