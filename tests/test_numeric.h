// Helpers of the numeric tests: arrays on the device, random images, comparisons that say where two arrays differ, and
// plain computations in double precision to compare with.
#pragma once

#include <gtest/gtest.h>
#include <omp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include "platform/device.h"

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

// --- The device ---

/// The number of devices. Asked for in a child, and once: children of a process that has asked CUDA can't use it.
inline int number_of_devices() {
  static const int devices = [] {
    const pid_t child = fork();
    int count = 0;
    if (child == 0) _exit(cudaGetDeviceCount(&count) == cudaSuccess ? count : 0);
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 0;
  }();
  return devices;
}

/// Skips the test that calls it, visibly, on a machine without a device.
#define REQUIRE_DEVICE()                                                 \
  do {                                                                   \
    if (number_of_devices() < 1) GTEST_SKIP() << "no device is present"; \
  } while (0)

/// Tests that need a device.
struct DeviceTest : ::testing::Test {
  void SetUp() override { REQUIRE_DEVICE(); }
};

struct DeviceFree {
  void operator()(void* pointer) const { cudaFree(pointer); }
};

/// An array in device memory, freed at the end of its scope; get() gives the device pointer.
template <class T>
using DeviceArray = std::unique_ptr<T[], DeviceFree>;

template <class T>
DeviceArray<T> to_device(const std::vector<T>& host) {
  T* pointer = nullptr;
  EXPECT_EQ(cudaSuccess, cudaMalloc(reinterpret_cast<void**>(&pointer), host.size() * sizeof(T)));
  EXPECT_EQ(cudaSuccess, cudaMemcpy(pointer, host.data(), host.size() * sizeof(T), cudaMemcpyHostToDevice));
  return DeviceArray<T>(pointer);
}

template <class T>
std::vector<T> to_host(const T* device, size_t count) {
  std::vector<T> host(count);
  EXPECT_EQ(cudaSuccess, cudaMemcpy(host.data(), device, count * sizeof(T), cudaMemcpyDeviceToHost));
  return host;
}

template <class T>
std::vector<T> to_host(const DeviceArray<T>& device, size_t count) {
  return to_host(static_cast<const T*>(device.get()), count);
}

/// An output of NaN, so that a place that is never written shows.
inline DeviceArray<float> unwritten(size_t count) { return to_device(std::vector<float>(count, kNaN)); }

/// Sets the number of cores that the host device uses, and gives them all back at the end of the scope.
struct Cores {
  explicit Cores(int count) : before(omp_get_max_threads()) { omp_set_num_threads(count); }
  ~Cores() { omp_set_num_threads(before); }
  Cores(const Cores&) = delete;
  Cores& operator=(const Cores&) = delete;
  int before;
};

// --- Data ---

/// Values spread evenly over [low, high), the same on every run.
inline std::vector<float> random_values(size_t count, unsigned seed, float low = -1, float high = 1) {
  std::mt19937 generator(seed);
  std::vector<float> values(count);
  for (float& v : values) v = low + (high - low) * (static_cast<float>(generator() >> 8) / 16777216.0f);
  return values;
}

/// Where pixel (x, y) of an image of width nx lies.
constexpr size_t pixel_index(long x, long y, long nx) { return static_cast<size_t>(y * nx + x); }

template <class T>
std::vector<double> widened(const std::vector<T>& values) {
  return {values.begin(), values.end()};
}

// --- Comparisons ---

/// Whether two arrays agree within the tolerance at every place. NaN agrees with NaN only, an infinity with itself.
template <class T, class U>
::testing::AssertionResult all_near(const std::vector<T>& got, const std::vector<U>& want, double tolerance) {
  if (got.size() != want.size())
    return ::testing::AssertionFailure() << got.size() << " values instead of " << want.size();
  size_t wrong = 0, first = 0;
  for (size_t i = got.size(); i-- > 0;) {
    const auto g = static_cast<double>(got[i]), w = static_cast<double>(want[i]);
    if (g == w || (std::isnan(g) && std::isnan(w)) || std::abs(g - w) <= tolerance) continue;
    wrong++;
    first = i;
  }
  if (wrong == 0) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << wrong << " of " << got.size() << " values differ by more than " << tolerance
                                       << "; element " << first << " is " << got[first] << " instead of "
                                       << want[first];
}

/// Whether two arrays hold the same values, zeros of the same sign included, but for the payloads of NaN.
inline ::testing::AssertionResult same_bits(const std::vector<float>& got, const std::vector<float>& want) {
  for (size_t i = 0; i < std::min(got.size(), want.size()); i++)
    if (std::signbit(got[i]) != std::signbit(want[i]) && !std::isnan(got[i]))
      return ::testing::AssertionFailure() << "element " << i << " is " << got[i] << " instead of " << want[i];
  return all_near(got, want, 0);
}

// --- Plain computations in double precision ---

/// Bilinear value of an image at the position (sx, sy), in the textbook form; 0 outside the image.
inline double bilinear(const std::vector<float>& image, int nx, int ny, double sx, double sy) {
  if (sx < 0 || sx > nx - 1 || sy < 0 || sy > ny - 1) return 0;
  double sum = 0;
  for (int y = static_cast<int>(sy); y < std::min(static_cast<int>(sy) + 2, ny); y++)
    for (int x = static_cast<int>(sx); x < std::min(static_cast<int>(sx) + 2, nx); x++)
      sum += (1 - std::abs(sx - x)) * (1 - std::abs(sy - y)) * image[pixel_index(x, y, nx)];
  return sum;
}

struct Place {
  double x, y;
};

/// Where pixel (x, y) of an image turned about its centre by `degrees`, from +x towards +y, comes from.
inline Place source_of_turn(int x, int y, int nx, int ny, double degrees) {
  const double t = degrees * std::acos(-1.0) / 180, cx = (nx - 1) / 2.0, cy = (ny - 1) / 2.0;
  const double dx = x - cx, dy = y - cy;
  return {cx + std::cos(t) * dx + std::sin(t) * dy, cy - std::sin(t) * dx + std::cos(t) * dy};
}

/// Position in an image of n pixels of the place i, which may lie outside, when the image is mirrored at its edges.
inline int mirrored(int i, int n) {
  const int j = ((i % (2 * n)) + 2 * n) % (2 * n);
  return j < n ? j : 2 * n - 1 - j;
}

/// Value of a disc of 1 up to the radius R with a Gaussian fall to three deviations at R + soft, at the distance r from
/// its centre; outside of it 0. top: of the Gaussian.
inline double soft_disc(double r, double R, double soft, double top = 1) {
  const double past = (r - R) / (soft / 3);
  return r <= R ? 1 : r <= R + soft ? top * std::exp(-past * past / 2) : 0;
}

constexpr double kNormalDensity = 0.39894228;  // at 0

/// Mean of the image, mirrored without end, under the soft window centred half a pixel before each pixel in both axes.
/// The window is cut to one period of the mirrored image.
inline std::vector<double> windowed_mean(const std::vector<double>& image, int nx, int ny, double R, double soft) {
  double total = 0;
  std::vector<double> means(image.size());
  for (int j = -ny; j < ny; j++) {
    for (int i = -nx; i < nx; i++) {
      const double weight = soft_disc(std::hypot(i + 0.5, j + 0.5), R, soft, kNormalDensity);
      total += weight;
      for (int y = 0; weight > 0 && y < ny; y++)
        for (int x = 0; x < nx; x++)
          means[pixel_index(x, y, nx)] += weight * image[pixel_index(mirrored(x + i, nx), mirrored(y + j, ny), nx)];
    }
  }
  for (double& mean : means) mean /= total;
  return means;
}

/// Standard deviation under the same window.
inline std::vector<double> windowed_sigma(const std::vector<double>& image, int nx, int ny, double R, double soft) {
  const std::vector<double> mean = windowed_mean(image, nx, ny, R, soft);
  std::vector<double> sigma = image;
  for (double& v : sigma) v *= v;
  sigma = windowed_mean(sigma, nx, ny, R, soft);
  for (size_t i = 0; i < sigma.size(); i++) sigma[i] = std::sqrt(sigma[i] - mean[i] * mean[i]);
  return sigma;
}

using Complex = std::complex<double>;

/// The unnormalised Fourier sums of all rows, by definition; those of row y are column y. sign: -1 forward, 1 inverse.
inline std::vector<Complex> sums_of_rows(const std::vector<Complex>& image, int nx, int ny, int sign) {
  std::vector<Complex> sums(image.size());
  for (int y = 0; y < ny; y++)
    for (int u = 0; u < nx; u++)
      for (int x = 0; x < nx; x++)
        sums[pixel_index(y, u, ny)] += image[pixel_index(x, y, nx)] *
                                       std::polar(1.0, sign * 2 * std::acos(-1.0) * (static_cast<double>(u) * x / nx));
  return sums;
}

inline std::vector<Complex> fourier_sums(const std::vector<Complex>& image, int nx, int ny, int sign) {
  return sums_of_rows(sums_of_rows(image, nx, ny, sign), ny, nx, sign);
}
