#include "process2d_raw.h"

#include <cmath>

#include "cuda_fft.h"
#include "test_numeric.h"

namespace {

struct Size {
  int nx, ny;
};

size_t pixels_of(Size size) { return static_cast<size_t>(size.nx) * size.ny; }

std::string shown(Size size) { return std::to_string(size.nx) + " x " + std::to_string(size.ny); }

std::vector<float> turned(const std::vector<float>& image, Size size, float angle) {
  const auto in = to_device(image), out = unwritten(image.size());
  hcuda_2d_rotate(in.get(), out.get(), size.nx, size.ny, angle);
  return to_host(out, image.size());
}

std::vector<float> scaled(const std::vector<float>& image, Size size, float scale, Size out_size) {
  const auto in = to_device(image), out = unwritten(pixels_of(out_size));
  hcuda_2d_scale(out.get(), in.get(), size.nx, size.ny, scale);
  return to_host(out, pixels_of(out_size));
}

/// Compares pixel (x, y) of a resampled image with the image's value at its source. Float positions are off by some
/// 1e-5 of a pixel: the value by that times a slope of up to 4, and a source as near as that to the rim may
/// fall on either side of it.
template <class Source>
void expect_sampled(const std::vector<float>& got, Size size, const std::vector<float>& image, Size from,
                    Source source) {
  constexpr double kOff = 5e-5;
  size_t outside = 0, undecided = 0;
  for (int y = 0; y < size.ny; y++) {
    for (int x = 0; x < size.nx; x++) {
      const Place at = source(x, y);
      const float value = got[static_cast<size_t>(y) * size.nx + x];
      const double inside = std::min(std::min(at.x, from.nx - 1 - at.x), std::min(at.y, from.ny - 1 - at.y));
      if (inside > kOff) {
        ASSERT_NEAR(bilinear(image, from.nx, from.ny, at.x, at.y), value, 4 * kOff) << x << " " << y;
      } else if (inside < -kOff) {
        ASSERT_EQ(0.0f, value) << x << " " << y;
        outside++;
      } else {
        undecided++;
      }
    }
  }
  EXPECT_LT(undecided, got.size() / 20 + 5) << "too little was compared";
  EXPECT_LT(outside, got.size());
}

/// The parts of the half spectrum of an image, by definition.
std::vector<double> half_spectrum(const std::vector<float>& image, Size size) {
  const auto sums = fourier_sums({image.begin(), image.end()}, size.nx, size.ny, -1);
  std::vector<double> parts;
  for (int y = 0; y < size.ny; y++) {
    for (int x = 0; x <= size.nx / 2; x++) {
      parts.push_back(sums[static_cast<size_t>(y) * size.nx + x].real());
      parts.push_back(sums[static_cast<size_t>(y) * size.nx + x].imag());
    }
  }
  return parts;
}

size_t half_values(Size size) { return static_cast<size_t>(size.nx / 2 + 1) * size.ny; }

}  // namespace

using Resampling = DeviceTest;
using Transforms = DeviceTest;

TEST_F(Resampling, ByNothingReproducesEveryPixelExactlyAndReadsNoOther) {
  for (const Size size : {Size{1, 1}, Size{8, 8}, Size{9, 9}, Size{40, 33}, Size{7, 64}}) {
    std::vector<float> image = random_values(pixels_of(size), 1);
    // A pixel that leaked into a neighbour, with whatever small weight, would turn it into NaN.
    for (size_t i = 0; i < image.size(); i += 5) image[i] = kNaN;
    EXPECT_TRUE(same_bits(turned(image, size, 0), image)) << shown(size);
    EXPECT_TRUE(same_bits(scaled(image, size, 1, size), image)) << shown(size);
  }
  const std::vector<float> corner = turned(std::vector<float>(1600, kNaN), {40, 40}, 45);
  EXPECT_EQ(0.0f, corner[39]) << "a pixel from outside";
}

TEST_F(Resampling, TurnedAgreesWithADoublePrecisionSampler) {
  for (const Size size : {Size{24, 24}, Size{25, 25}, Size{48, 31}, Size{13, 50}, Size{192, 192}}) {
    const std::vector<float> image = random_values(pixels_of(size), 4);
    for (const float angle : random_values(8, 3, -400, 400)) {
      SCOPED_TRACE(shown(size) + " by " + std::to_string(angle));
      expect_sampled(turned(image, size, angle), size, image, size,
                     [&](int x, int y) { return source_of_turn(x, y, size.nx, size.ny, static_cast<double>(angle)); });
    }
  }
}

TEST_F(Resampling, ScaledAgreesWithADoublePrecisionSamplerAboutTheCentre) {
  for (const float scale : {0.37f, 0.9f, 1.25f, 2.0f, 3.37f}) {
    for (const Size size : {Size{10, 10}, Size{11, 11}, Size{40, 27}, Size{101, 64}}) {
      SCOPED_TRACE(shown(size) + " by " + std::to_string(scale));
      const Size to{static_cast<int>(static_cast<float>(size.nx) * scale),
                    static_cast<int>(static_cast<float>(size.ny) * scale)};
      const std::vector<float> image = random_values(pixels_of(size), 5);
      expect_sampled(scaled(image, size, scale, to), to, image, size, [&](int x, int y) {
        return Place{(size.nx - 1) / 2.0 + (x - (to.nx - 1) / 2.0) / scale,
                     (size.ny - 1) / 2.0 + (y - (to.ny - 1) / 2.0) / scale};
      });
    }
  }
}

// A float transform of n pixels of about 1 has values of about sqrt(n), off by some roundings of 6e-8 of that.

TEST_F(Transforms, AgreeWithTheDefinitionAndAreUnnormalised) {
  for (const Size size : {Size{2, 2}, Size{2, 9}, Size{9, 2}, Size{3, 5}, Size{16, 8}, Size{15, 10}, Size{22, 14},
                          Size{7, 7}, Size{26, 34}}) {
    const size_t n = pixels_of(size);
    const double rounding = 2e-6 * std::sqrt(static_cast<double>(n));
    const std::vector<float> image = random_values(n, 6);
    std::vector<double> times_n = widened(image);
    for (double& v : times_n) v *= static_cast<double>(n);
    const auto in = to_device(image), back = unwritten(n);
    const auto spectrum = to_device(std::vector<float2>(half_values(size)));
    hcuda_2d_fft_r2c(in.get(), spectrum.get(), size.nx, size.ny);
    const auto parts = to_host(reinterpret_cast<const float*>(spectrum.get()), 2 * half_values(size));
    EXPECT_TRUE(all_near(parts, half_spectrum(image, size), rounding)) << shown(size);
    hcuda_2d_fft_c2r(spectrum.get(), back.get(), size.nx, size.ny);
    EXPECT_TRUE(all_near(to_host(back, n), times_n, rounding * std::sqrt(static_cast<double>(n)))) << shown(size);
  }
}
