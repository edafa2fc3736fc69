#include "process2d_raw.h"

#include <cmath>
#include <utility>

#include "cuda_fft.h"
#include "test_numeric.h"

namespace {

struct Size {
  int nx, ny;
};

size_t pixels_of(Size size) { return static_cast<size_t>(size.nx) * size.ny; }

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

}  // namespace

using ElementWise = DeviceTest;
using Rotate2d = DeviceTest;
using Scale2d = DeviceTest;
using Placement = DeviceTest;
using Spectra = DeviceTest;
using Transforms = DeviceTest;

TEST_F(ElementWise, OperationsRoundOnceAndReachEveryPixel) {
  const Size size{33, 35};  // one past a block of 32 in x, three in y
  const size_t n = pixels_of(size);
  const std::vector<float> a = random_values(n, 1), b = random_values(n, 2);
  std::vector<float> square(n), root(n), quotient(n), difference(n);
  size_t by_inverse = 0;
  for (size_t i = 0; i < n; i++) {
    square[i] = a[i] * a[i];
    root[i] = static_cast<float>(std::sqrt(static_cast<double>(a[i])));
    quotient[i] = a[i] / 3.1f;
    difference[i] = a[i] - b[i];
    by_inverse += a[i] * (1 / 3.1f) != quotient[i];
  }
  EXPECT_GT(by_inverse, n / 10) << "the divisor doesn't tell a division from a product";
  const auto out = unwritten(n), first = to_device(a), second = to_device(b);
  hcuda_2d_sqr(out.get(), first.get(), size.nx, size.ny);
  EXPECT_TRUE(same_bits(to_host(out, n), square));
  const auto changed = [&](auto operation) {
    const auto d = to_device(a);
    operation(d.get());
    return to_host(d, n);
  };
  EXPECT_TRUE(same_bits(changed([&](float* d) { hcuda_2d_sqr_inplace(d, size.nx, size.ny); }), square));
  EXPECT_TRUE(same_bits(changed([&](float* d) { hcuda_2d_sqrt_inplace(d, size.nx, size.ny); }), root));
  EXPECT_TRUE(same_bits(changed([&](float* d) { hcuda_2d_divide_inplace(d, size.nx, size.ny, 3.1f); }), quotient));
  EXPECT_TRUE(
      same_bits(changed([&](float* d) { hcuda_x2d_sub_inplace(d, second.get(), size.nx, size.ny); }), difference));
  EXPECT_TRUE(
      same_bits(changed([&](float* d) { hcuda_2d_memset(d, -2.5f, size.nx, size.ny); }), std::vector<float>(n, -2.5f)));
  EXPECT_TRUE(same_bits(changed([&](float* d) { hcuda_2d_empty(d, size.nx, size.ny); }), std::vector<float>(n, 0.0f)));
}

TEST_F(ElementWise, DivisionByZeroFollowsIeeeArithmetic) {
  const auto d = to_device(std::vector<float>{1.0f, -2.0f, 0.0f});
  hcuda_2d_divide_inplace(d.get(), 3, 1, 0.0f);
  EXPECT_TRUE(same_bits(to_host(d, 3), {kInfinity, -kInfinity, kNaN}));
}

// --- Rotation and scaling ---

TEST_F(Rotate2d, ByZeroReproducesEveryPixelExactlyAndReadsNoOther) {
  for (const Size size : {Size{1, 1}, Size{8, 8}, Size{9, 9}, Size{40, 33}, Size{7, 64}}) {
    std::vector<float> image = random_values(pixels_of(size), 1);
    // A pixel that leaked into a neighbour, with whatever small weight, would turn it into NaN.
    for (size_t i = 0; i < image.size(); i += 5) image[i] = kNaN;
    EXPECT_TRUE(same_bits(turned(image, size, 0), image)) << size.nx << " x " << size.ny;
  }
}

TEST_F(Rotate2d, QuarterAndHalfTurnsPermuteThePixels) {
  for (const int side : {6, 7, 32, 101}) {
    const std::vector<float> image = random_values(static_cast<size_t>(side) * side, 2);
    const auto quarter = turned(image, {side, side}, 90), half = turned(image, {side, side}, 180);
    for (int y = 0; y < side; y++) {
      for (int x = 0; x < side; x++) {
        const size_t i = static_cast<size_t>(y) * side + x;
        // What stood on the +x side of the centre comes to the +y side.
        const float before_quarter = image[static_cast<size_t>(side - 1 - x) * side + y];
        const float before_half = image[image.size() - 1 - i];
        // The float cosine of 90 degrees is -4e-8: sources are off by that times the side, and a rim pixel's may be out.
        const bool rim = x == 0 || y == 0 || x == side - 1 || y == side - 1;
        if (!rim || quarter[i] != 0) {
          ASSERT_NEAR(before_quarter, quarter[i], 1e-4) << x << " " << y;
        }
        if (!rim || half[i] != 0) {
          ASSERT_NEAR(before_half, half[i], 1e-4) << x << " " << y;
        }
      }
    }
  }
}

TEST_F(Rotate2d, AgreesWithADoublePrecisionSamplerAtAnyAngle) {
  const std::vector<float> angles = random_values(8, 3, -400, 400);
  for (const Size size : {Size{24, 24}, Size{25, 25}, Size{48, 31}, Size{13, 50}, Size{192, 192}}) {
    const std::vector<float> image = random_values(pixels_of(size), 4);
    for (const float angle : angles) {
      SCOPED_TRACE(testing::Message() << size.nx << " x " << size.ny << " by " << angle);
      expect_sampled(turned(image, size, angle), size, image, size,
                     [&](int x, int y) { return source_of_turn(x, y, size.nx, size.ny, static_cast<double>(angle)); });
    }
  }
}

TEST_F(Rotate2d, PixelsFromOutsideAreZeroWhateverTheImageHolds) {
  const Size size{40, 40};
  const std::vector<float> image(pixels_of(size), kNaN);
  const std::vector<float> got = turned(image, size, 45);
  for (const size_t corner : {size_t{0}, size_t{39}, pixels_of(size) - 40, pixels_of(size) - 1})
    EXPECT_EQ(0.0f, got[corner]);
  EXPECT_TRUE(std::isnan(got[20 * 40 + 20]));
}

TEST_F(Scale2d, ByOneReproducesEveryPixelExactlyAndReadsNoOther) {
  const Size size{19, 22};
  std::vector<float> image = random_values(pixels_of(size), 1);
  for (size_t i = 0; i < image.size(); i += 5) image[i] = kNaN;
  EXPECT_TRUE(same_bits(scaled(image, size, 1, size), image));
}

TEST_F(Scale2d, AgreesWithADoublePrecisionSamplerAboutTheCentre) {
  for (const float scale : {0.37f, 0.9f, 1.25f, 2.0f, 3.37f}) {
    for (const Size size : {Size{10, 10}, Size{11, 11}, Size{40, 27}, Size{101, 64}}) {
      SCOPED_TRACE(testing::Message() << size.nx << " x " << size.ny << " by " << scale);
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

// --- Placement ---

TEST_F(Placement, SmallImagesStandInTheMiddleTruncatedAndLeaveTheRest) {
  for (const Size large : {Size{40, 36}, Size{41, 37}}) {
    for (const Size small : {Size{40, 36}, Size{8, 7}, Size{9, 10}, Size{1, 1}}) {
      const std::vector<float> image = random_values(pixels_of(small), 1);
      std::vector<float> want(pixels_of(large), 9.0f);
      const auto from = to_device(image), to = to_device(want);
      for (int y = 0; y < small.ny; y++)
        for (int x = 0; x < small.nx; x++)
          want[static_cast<size_t>(y + (large.ny - small.ny) / 2) * large.nx + x + (large.nx - small.nx) / 2] =
              image[static_cast<size_t>(y) * small.nx + x];
      hcuda_x2d_cp_small_to_large_center(to.get(), from.get(), large.nx, large.ny, small.nx, small.ny);
      EXPECT_TRUE(same_bits(to_host(to, want.size()), want)) << small.nx << " x " << small.ny;
    }
  }
}

TEST_F(Placement, SwapMovesTheOriginToTheMiddleAndBack) {
  for (const Size size : {Size{2, 2}, Size{34, 70}, Size{250, 240}}) {
    const std::vector<float> image = random_values(pixels_of(size), 2);
    std::vector<float> want(image.size());
    for (int y = 0; y < size.ny; y++)
      for (int x = 0; x < size.nx; x++)
        want[static_cast<size_t>((y + size.ny / 2) % size.ny) * size.nx + (x + size.nx / 2) % size.nx] =
            image[static_cast<size_t>(y) * size.nx + x];
    const auto d = to_device(image);
    hcuda_2d_swap_ccf_inplace(d.get(), static_cast<unsigned>(size.nx), static_cast<unsigned>(size.ny));
    EXPECT_TRUE(same_bits(to_host(d, image.size()), want)) << size.nx << " x " << size.ny;
    hcuda_2d_swap_ccf_inplace(d.get(), static_cast<unsigned>(size.nx), static_cast<unsigned>(size.ny));
    EXPECT_TRUE(same_bits(to_host(d, image.size()), image));
  }
}

TEST_F(Placement, MirrorPaddingRepeatsTheEdgeAndIsUndoneByTheCut) {
  const Size size{37, 34};
  const std::vector<float> image = random_values(pixels_of(size), 3);
  std::vector<float> want(4 * image.size());
  for (int y = 0; y < 2 * size.ny; y++)
    for (int x = 0; x < 2 * size.nx; x++)
      want[static_cast<size_t>(y) * 2 * size.nx + x] =
          image[static_cast<size_t>(mirrored(y, size.ny)) * size.nx + mirrored(x, size.nx)];
  const auto small = to_device(image), padded = unwritten(want.size()), cut = unwritten(image.size());
  hcuda_2d_mirror_pad(padded.get(), small.get(), size.nx, size.ny);
  EXPECT_TRUE(same_bits(to_host(padded, want.size()), want));
  hcuda_2d_mirror_pad_inv(cut.get(), padded.get(), size.nx, size.ny);
  EXPECT_TRUE(same_bits(to_host(cut, image.size()), image));
}

TEST_F(Placement, SoftDiscOfTheDeviceFallsFromTheGaussiansPeakNotFromOne) {
  const Size size{50, 45};
  const double cx = 24.5, cy = 22.25, R = 7.3, soft = 5;
  std::vector<double> want;
  for (int y = 0; y < size.ny; y++) {
    for (int x = 0; x < size.nx; x++) {
      const double r = std::hypot(x - cx, y - cy), past = (r - R) / (soft / 3);
      want.push_back(r <= R ? 1 : r <= R + soft ? 0.39894228 * std::exp(-past * past / 2) : 0);
    }
  }
  const auto mask = unwritten(want.size());
  hcuda_2d_generate_rmask_soft(mask.get(), size.nx, size.ny, 24.5f, 22.25f, 7.3f, 5.0f);
  EXPECT_TRUE(all_near(to_host(mask, want.size()), want, 2e-6));  // float radii and exponentials
}

// --- Spectra and transforms ---

TEST_F(Spectra, ConjugateProductIsAlikeInPlaceAndOutOfPlace) {
  const int hnx = 37, ny = 35;
  const size_t n = static_cast<size_t>(hnx) * ny;
  const std::vector<float> parts = random_values(4 * n, 1);
  std::vector<float2> a(n), b(n);
  std::vector<float> want(2 * n);
  for (size_t i = 0; i < n; i++) {
    a[i] = {parts[4 * i], parts[4 * i + 1]};
    b[i] = {parts[4 * i + 2], parts[4 * i + 3]};
    const float real = a[i].x * b[i].x + a[i].y * b[i].y, imaginary = a[i].y * b[i].x - a[i].x * b[i].y;
    want[2 * i] = real / 2590.0f;
    want[2 * i + 1] = imaginary / 2590.0f;
  }
  const auto floats = [n](const DeviceArray<float2>& d) {
    return to_host(reinterpret_cast<const float*>(d.get()), 2 * n);
  };
  auto A = to_device(a), B = to_device(b), C = to_device(a);
  hcuda_c2d_multconj_norm(A.get(), B.get(), C.get(), hnx, ny, 2590.0f);
  EXPECT_TRUE(same_bits(floats(C), want));
  hcuda_c2d_multconj_norm(A.get(), B.get(), B.get(), hnx, ny, 2590.0f);
  EXPECT_TRUE(same_bits(floats(B), want)) << "over the second factor";
  B = to_device(b);
  hcuda_c2d_multconj_norm_inplace(A.get(), B.get(), hnx, ny, 2590.0f);
  EXPECT_TRUE(same_bits(floats(A), want)) << "over the first factor";
}

namespace {

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

/// Runs a batch of transforms there and back, `batch` images at once. Returns the spectra's parts, then the images.
std::pair<std::vector<float>, std::vector<float>> transformed_in_batches(const std::vector<float>& images, Size size,
                                                                         int batch) {
  int n[2] = {size.ny, size.nx};
  const int image = size.nx * size.ny, spectrum = (size.nx / 2 + 1) * size.ny;
  const size_t count = images.size() / pixels_of(size);
  const auto in = to_device(images), back = unwritten(images.size());
  const auto spectra = to_device(std::vector<float2>(count * half_values(size)));
  cufftHandle forward = 0, inverse = 0;
  EXPECT_EQ(CUFFT_SUCCESS, cufftPlanMany(&forward, 2, n, nullptr, 1, image, nullptr, 1, spectrum, CUFFT_R2C, batch));
  EXPECT_EQ(CUFFT_SUCCESS, cufftPlanMany(&inverse, 2, n, nullptr, 1, spectrum, nullptr, 1, image, CUFFT_C2R, batch));
  const auto step = static_cast<size_t>(batch);
  for (size_t k = 0; k < count; k += step)
    EXPECT_EQ(CUFFT_SUCCESS,
              cufftExecR2C(forward, in.get() + k * pixels_of(size), spectra.get() + k * half_values(size)));
  const auto parts = to_host(reinterpret_cast<const float*>(spectra.get()), 2 * count * half_values(size));
  for (size_t k = 0; k < count; k += step)
    EXPECT_EQ(CUFFT_SUCCESS,
              cufftExecC2R(inverse, spectra.get() + k * half_values(size), back.get() + k * pixels_of(size)));
  EXPECT_TRUE(same_bits(to_host(in, images.size()), images)) << "the forward transform changed its input";
  cufftDestroy(forward);
  cufftDestroy(inverse);
  return {parts, to_host(back, images.size())};
}

}  // namespace

// A float transform of n pixels of about 1 has values of about sqrt(n), off by some roundings of 6e-8 of that.

TEST_F(Transforms, AgreeWithTheDefinitionAndAreUnnormalised) {
  for (const Size size : {Size{2, 2}, Size{2, 9}, Size{9, 2}, Size{3, 5}, Size{16, 8}, Size{15, 10}, Size{22, 14},
                          Size{7, 7}, Size{26, 34}}) {
    SCOPED_TRACE(testing::Message() << size.nx << " x " << size.ny);
    const size_t n = pixels_of(size);
    const double rounding = 2e-6 * std::sqrt(static_cast<double>(n));
    const std::vector<float> image = random_values(n, 6);
    std::vector<double> times_n = widened(image);
    for (double& v : times_n) v *= static_cast<double>(n);
    const auto in = to_device(image), back = unwritten(n);
    const auto spectrum = to_device(std::vector<float2>(half_values(size)));
    hcuda_2d_fft_r2c(in.get(), spectrum.get(), size.nx, size.ny);
    const auto parts = to_host(reinterpret_cast<const float*>(spectrum.get()), 2 * half_values(size));
    EXPECT_TRUE(all_near(parts, half_spectrum(image, size), rounding));
    hcuda_2d_fft_c2r(spectrum.get(), back.get(), size.nx, size.ny);
    EXPECT_TRUE(all_near(to_host(back, n), times_n, rounding * std::sqrt(static_cast<double>(n))));
  }
}

TEST_F(Transforms, InBatchesEqualThoseOfSingleImages) {
#ifdef KESTRIX_CUDA
  constexpr double kRounding = 1e-6;  // cuFFT may choose another order for a batch
#else
  constexpr double kRounding = 0;  // plans are estimated, so that results don't depend on cores or batches
#endif
  for (const Size size : {Size{16, 8}, Size{30, 20}, Size{50, 34}, Size{240, 250}}) {
    const auto n = static_cast<double>(pixels_of(size));
    const std::vector<float> images = random_values(6 * pixels_of(size), 7);
    const auto single = transformed_in_batches(images, size, 1);
    for (const int batch : {2, 3, 6}) {
      for (const int cores : {1, 2, 4}) {
        SCOPED_TRACE(testing::Message() << size.nx << " x " << size.ny << ", " << batch << " on " << cores << " cores");
        const Cores limit(cores);
        const auto many = transformed_in_batches(images, size, batch);
        EXPECT_TRUE(all_near(many.first, single.first, kRounding * std::sqrt(n)));
        EXPECT_TRUE(all_near(many.second, single.second, kRounding * n));
      }
    }
  }
}
