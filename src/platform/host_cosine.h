// Cosine transforms of images on the host: an image mirrored to twice its sides is even, so that its Fourier transform
// is a cosine transform of the image itself, a quarter of the values and all of them real. Sides that are multiples of
// eight without prime factors above 5 go by lane_fft.h, others by FFTW, planned by estimate (host_fft.cpp tells why).
#pragma once

struct CosinePlans;

/// Plans the transforms of images of nx by ny floats on all cores; released with cosine_plans_free. Returns null if
/// FFTW can't plan or memory is short.
CosinePlans* cosine_plans_new(int nx, int ny);
void cosine_plans_free(CosinePlans* plans);

/// In place: C(k) = 4 sum f(x) cos(pi (x + 1/2) k / n), in both dimensions. Times exp(i pi k / (2n)) it is the Fourier
/// transform of the mirrored image. image: nx*ny floats, aligned as cudaMalloc aligns.
void cosine_forward(const CosinePlans* plans, float* image);

/// In place: the inverse of cosine_forward times the number of pixels of the mirrored image.
void cosine_inverse(const CosinePlans* plans, float* image);

/// In place: from the coefficients of a correlation, without that phase, to the correlation at whole positions, times
/// the number of pixels of the mirrored image. Pixel (x, y) receives position (nx - x, ny - y).
void cosine_correlate(const CosinePlans* plans, float* image);
