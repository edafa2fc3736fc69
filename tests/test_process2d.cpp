#include "process2d_raw.h"

#include <algorithm>

#include "cuda_fft.h"
#include "test_numeric.h"

namespace {

struct Size {
  int nx, ny;
};

std::vector<float> turned(const std::vector<float>& image, Size size, float angle) {
  const auto in = to_device(image), out = unwritten(image.size());
  hcuda_2d_rotate(in.get(), out.get(), size.nx, size.ny, angle);
  return to_host(out, image.size());
}

}  // namespace

using Resampling = DeviceTest;
using Transforms = DeviceTest;

TEST_F(Resampling, ByNothingReproducesEveryPixelExactlyAndReadsNoOther) {
  for (const Size size : {Size{1, 1}, Size{8, 8}, Size{40, 33}}) {
    std::vector<float> image = random_values(static_cast<size_t>(size.nx) * size.ny, 1);
    // A pixel that leaked into a neighbour, with whatever small weight, would turn it into NaN.
    for (size_t i = 0; i < image.size(); i += 5) image[i] = kNaN;
    EXPECT_TRUE(same_bits(turned(image, size, 0), image)) << size.nx << " x " << size.ny;
    const auto in = to_device(image), out = unwritten(image.size());
    hcuda_2d_scale(out.get(), in.get(), size.nx, size.ny, 1);
    EXPECT_TRUE(same_bits(to_host(out, image.size()), image)) << size.nx << " x " << size.ny;
  }
}

TEST_F(Resampling, TurnsFromXTowardsYByAnyAngleAndIsZeroOutsideWhateverTheImageHolds) {
  for (const Size size : {Size{24, 24}, Size{48, 31}, Size{13, 50}}) {
    const std::vector<float> image = random_values(static_cast<size_t>(size.nx) * size.ny, 4);
    for (const float angle : random_values(8, 3, -400, 400)) {
      const std::vector<float> got = turned(image, size, angle);
      for (int y = 0; y < size.ny; y++)
        for (int x = 0; x < size.nx; x++) {
          // Float positions are off by some 1e-5 of a pixel; a source that near to the rim may fall on either side.
          const Place at = source_of_turn(x, y, size.nx, size.ny, static_cast<double>(angle));
          const double want = bilinear(image, size.nx, size.ny, at.x, at.y);
          const double inside = std::min({at.x, size.nx - 1 - at.x, at.y, size.ny - 1 - at.y});
          if (std::abs(inside) < 5e-5) continue;
          ASSERT_NEAR(want, got[static_cast<size_t>(y) * size.nx + x], 2e-4) << angle;
        }
    }
  }
  EXPECT_EQ(0.0f, turned(std::vector<float>(1600, kNaN), {40, 40}, 45)[39]);
}

TEST_F(Transforms, AgreeWithTheDefinitionAndAreUnnormalised) {
  for (const Size size : {Size{2, 9}, Size{9, 2}, Size{3, 5}, Size{16, 8}, Size{15, 10}, Size{22, 14}, Size{7, 7}}) {
    const auto n = static_cast<size_t>(size.nx) * size.ny, row = static_cast<size_t>(size.nx) / 2 + 1;
    const std::vector<float> image = random_values(n, 6);
    const std::vector<Complex> sums = fourier_sums({image.begin(), image.end()}, size.nx, size.ny, -1);
    std::vector<double> want, times_n = widened(image);
    for (size_t y = 0; y < static_cast<size_t>(size.ny); y++)
      for (size_t x = 0; x < row; x++) {
        want.push_back(sums[y * size.nx + x].real());
        want.push_back(sums[y * size.nx + x].imag());
      }
    for (double& v : times_n) v *= static_cast<double>(n);
    const auto in = to_device(image), back = unwritten(n);
    const auto spectrum = to_device(std::vector<float2>(want.size() / 2));
    hcuda_2d_fft_r2c(in.get(), spectrum.get(), size.nx, size.ny);
    // Values of about sqrt(n), off by some roundings of 6e-8 of that.
    const double rounding = 2e-6 * std::sqrt(static_cast<double>(n));
    EXPECT_TRUE(all_near(to_host(reinterpret_cast<const float*>(spectrum.get()), want.size()), want, rounding));
    hcuda_2d_fft_c2r(spectrum.get(), back.get(), size.nx, size.ny);
    EXPECT_TRUE(all_near(to_host(back, n), times_n, rounding * std::sqrt(static_cast<double>(n))));
  }
}

TEST_F(Resampling, SmallImagesStandInTheMiddleOfLargeOnesTruncated) {
  for (const Size large : {Size{40, 36}, Size{41, 37}}) {
    for (const Size small : {Size{40, 36}, Size{8, 7}, Size{9, 10}}) {
      const std::vector<float> image = random_values(static_cast<size_t>(small.nx) * small.ny, 1);
      std::vector<float> want(static_cast<size_t>(large.nx) * large.ny, 9.0f);
      const auto from = to_device(image), to = to_device(want);
      hcuda_x2d_cp_small_to_large_center(to.get(), from.get(), large.nx, large.ny, small.nx, small.ny);
      const int x0 = (large.nx - small.nx) / 2, y0 = (large.ny - small.ny) / 2;
      for (int y = 0; y < small.ny; y++)
        std::copy_n(image.begin() + y * small.nx, small.nx, want.begin() + (y0 + y) * large.nx + x0);
      EXPECT_TRUE(same_bits(to_host(to, want.size()), want)) << small.nx << " in " << large.nx;
    }
  }
}
