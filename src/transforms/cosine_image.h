// Cosine transforms of images on the host: an image mirrored to twice its sides is even, so that its Fourier transform
// is a cosine transform of the image itself, a quarter of the values and all of them real. All cores work on one image;
// the bits of a result don't depend on their number.
#pragma once

#include <cstddef>

struct CosinePlans;

/// Plans the transforms of images of nx by ny floats; released with cosine_plans_free. A lack of memory ends the run.
CosinePlans* cosine_plans_new(int nx, int ny);
void cosine_plans_free(CosinePlans* plans);

/// Coefficients lie in stripes of this many columns, ny rows high, one stripe behind the other: the transforms of a
/// stripe's columns go side by side. What a last stripe has too many is 0.
constexpr int kCosineStripe = 16;

inline int cosine_stripes(int nx) { return (nx + kCosineStripe - 1) / kCosineStripe; }

/// Floats that hold the coefficients of an image, at an address as cudaMalloc gives it.
inline size_t cosine_coefficients(int nx, int ny) {
  return static_cast<size_t>(cosine_stripes(nx)) * static_cast<size_t>(ny) * kCosineStripe;
}

/// C(k) = 4 sum f(x) cos(pi (x + 1/2) k / n), in both dimensions. Times exp(i pi k / (2n)) it is the Fourier transform
/// of the mirrored image. image: nx*ny floats, row-major.
void cosine_forward(const CosinePlans* plans, const float* image, float* coefficients);

/// The inverse of cosine_forward times the number of pixels of the mirrored image. Columns and rows from `kept` on count
/// as 0 and are never looked at.
void cosine_inverse(const CosinePlans* plans, const float* coefficients, int kept, float* image);

/// From the coefficients of two images, multiplied with each other and without that phase, to their correlation at whole
/// positions, times the number of pixels of the mirrored image. Pixel (x, y) receives position (nx - x, ny - y).
void cosine_correlate(const CosinePlans* plans, const float* coefficients, const float* others, float* image);

/// The same of the squares of an image's pixels, from the image itself, and further to the deviation from the means:
/// out = sqrt(correlation - means^2).
void cosine_deviation(const CosinePlans* plans, const float* image, const float* others, const float* means,
                      float* out);
