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

std::string shown(Size size) { return std::to_string(size.nx) + " x " + std::to_string(size.ny); }

/// The image whose pixel (x, y) is value(x, y).
template <class Value>
auto image_of(Size size, Value value) {
  std::vector<decltype(value(0, 0))> image;
  for (int y = 0; y < size.ny; y++)
    for (int x = 0; x < size.nx; x++) image.push_back(value(x, y));
  return image;
}

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

std::vector<float> parts_of(const DeviceArray<float2>& spectrum, size_t values) {
  return to_host(reinterpret_cast<const float*>(spectrum.get()), 2 * values);
}

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
  const auto parts = parts_of(spectra, count * half_values(size));
  for (size_t k = 0; k < count; k += step)
    EXPECT_EQ(CUFFT_SUCCESS,
              cufftExecC2R(inverse, spectra.get() + k * half_values(size), back.get() + k * pixels_of(size)));
  EXPECT_TRUE(same_bits(to_host(in, images.size()), images)) << "the forward transform changed its input";
  cufftDestroy(forward);
  cufftDestroy(inverse);
  return {parts, to_host(back, images.size())};
}

}  // namespace

using ElementWise = DeviceTest;
using Resampling = DeviceTest;
using Placement = DeviceTest;
using Transforms = DeviceTest;

TEST_F(ElementWise, OperationsRoundOnceAndReachEveryPixel) {
  const int nx = 33, ny = 35;  // one past a block of 32 in x, three in y
  const size_t n = pixels_of({nx, ny});
  const std::vector<float> a = random_values(n, 1), b = random_values(n, 2);
  const auto first = to_device(a), second = to_device(b);
  const auto expect = [&](auto operation, auto value) {
    const auto d = to_device(a);
    operation(d.get());
    std::vector<float> want;
    for (size_t i = 0; i < n; i++) want.push_back(value(a[i], b[i]));
    EXPECT_TRUE(same_bits(to_host(d, n), want));
  };
  expect([&](float* d) { hcuda_2d_sqr(d, first.get(), nx, ny); }, [](float v, float) { return v * v; });
  expect([&](float* d) { hcuda_2d_sqr_inplace(d, nx, ny); }, [](float v, float) { return v * v; });
  expect([&](float* d) { hcuda_2d_sqrt_inplace(d, nx, ny); },
         [](float v, float) { return static_cast<float>(std::sqrt(static_cast<double>(v))); });
  expect([&](float* d) { hcuda_2d_divide_inplace(d, nx, ny, 3.1f); }, [](float v, float) { return v / 3.1f; });
  expect([&](float* d) { hcuda_x2d_sub_inplace(d, second.get(), nx, ny); }, [](float v, float w) { return v - w; });
  expect([&](float* d) { hcuda_2d_memset(d, -2.5f, nx, ny); }, [](float, float) { return -2.5f; });
  expect([&](float* d) { hcuda_2d_empty(d, nx, ny); }, [](float, float) { return 0.0f; });
}

// --- Rotation and scaling ---

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

// --- Placement ---

TEST_F(Placement, SmallImagesStandInTheMiddleTruncatedAndLeaveTheRest) {
  for (const Size large : {Size{40, 36}, Size{41, 37}}) {
    for (const Size small : {Size{40, 36}, Size{8, 7}, Size{9, 10}, Size{1, 1}}) {
      const std::vector<float> image = random_values(pixels_of(small), 1);
      const auto from = to_device(image), to = to_device(std::vector<float>(pixels_of(large), 9.0f));
      hcuda_x2d_cp_small_to_large_center(to.get(), from.get(), large.nx, large.ny, small.nx, small.ny);
      const std::vector<float> want = image_of(large, [&](int x, int y) {
        const int i = x - (large.nx - small.nx) / 2, j = y - (large.ny - small.ny) / 2;
        return i < 0 || j < 0 || i >= small.nx || j >= small.ny ? 9.0f : image[static_cast<size_t>(j * small.nx + i)];
      });
      EXPECT_TRUE(same_bits(to_host(to, want.size()), want)) << shown(small) << " in " << shown(large);
    }
  }
}

TEST_F(Placement, SwapMovesTheMiddleToTheOrigin) {
  for (const Size size : {Size{2, 2}, Size{34, 70}, Size{250, 240}}) {
    const std::vector<float> image = random_values(pixels_of(size), 2);
    const auto d = to_device(image);
    hcuda_2d_swap_ccf_inplace(d.get(), static_cast<unsigned>(size.nx), static_cast<unsigned>(size.ny));
    const std::vector<float> want = image_of(size, [&](int x, int y) {
      return image[static_cast<size_t>((y + size.ny / 2) % size.ny * size.nx + (x + size.nx / 2) % size.nx)];
    });
    EXPECT_TRUE(same_bits(to_host(d, image.size()), want)) << shown(size);
  }
}

TEST_F(Placement, MirrorPaddingRepeatsTheEdgeAndIsUndoneByTheCut) {
  const int nx = 37, ny = 34;
  const std::vector<float> image = random_values(pixels_of({nx, ny}), 3);
  const std::vector<float> want = image_of({2 * nx, 2 * ny}, [&](int x, int y) {
    return image[static_cast<size_t>(mirrored(y, ny)) * nx + mirrored(x, nx)];
  });
  const auto small = to_device(image), padded = unwritten(want.size()), cut = unwritten(image.size());
  hcuda_2d_mirror_pad(padded.get(), small.get(), nx, ny);
  EXPECT_TRUE(same_bits(to_host(padded, want.size()), want));
  hcuda_2d_mirror_pad_inv(cut.get(), padded.get(), nx, ny);
  EXPECT_TRUE(same_bits(to_host(cut, image.size()), image));
}

TEST_F(Placement, SoftDiscOfTheDeviceFallsFromTheGaussiansPeakNotFromOne) {
  const std::vector<double> want =
      image_of({50, 45}, [](int x, int y) { return window_weight(std::hypot(x - 24.5, y - 22.25), 7.3, 5); });
  const auto mask = unwritten(want.size());
  hcuda_2d_generate_rmask_soft(mask.get(), 50, 45, 24.5f, 22.25f, 7.3f, 5.0f);
  EXPECT_TRUE(all_near(to_host(mask, want.size()), want, 2e-6));  // float radii and exponentials
}

// --- Spectra and transforms ---

TEST_F(Transforms, ConjugateProductIsAlikeInPlaceAndOutOfPlace) {
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
  auto A = to_device(a), B = to_device(b), C = to_device(a);
  hcuda_c2d_multconj_norm(A.get(), B.get(), C.get(), hnx, ny, 2590.0f);
  EXPECT_TRUE(same_bits(parts_of(C, n), want));
  hcuda_c2d_multconj_norm_inplace(A.get(), B.get(), hnx, ny, 2590.0f);
  EXPECT_TRUE(same_bits(parts_of(A, n), want)) << "over the first factor";
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
    EXPECT_TRUE(all_near(parts_of(spectrum, half_values(size)), half_spectrum(image, size), rounding)) << shown(size);
    hcuda_2d_fft_c2r(spectrum.get(), back.get(), size.nx, size.ny);
    EXPECT_TRUE(all_near(to_host(back, n), times_n, rounding * std::sqrt(static_cast<double>(n)))) << shown(size);
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
        const Cores limit(cores);
        const auto many = transformed_in_batches(images, size, batch);
        EXPECT_TRUE(all_near(many.first, single.first, kRounding * std::sqrt(n))) << shown(size) << ", " << cores;
        EXPECT_TRUE(all_near(many.second, single.second, kRounding * n)) << shown(size) << ", " << batch;
      }
    }
  }
}
