#include "matching/host_scan/interpolation.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>

#include "platform/host_memory.h"
#include "platform/loops.h"

namespace {

// Added to the equations' diagonal, as part of it, so that they can always be solved.
constexpr double kRidge = 1e-11;

// Solves the symmetric positive definite equations a * x = b in place: b becomes x (Cholesky).
void solve(double (*a)[kTaps], double* b) {
  for (int j = 0; j < kTaps; j++) {
    for (int i = j; i < kTaps; i++) {
      for (int k = 0; k < j; k++) a[i][j] -= a[i][k] * a[j][k];
      a[i][j] = i == j ? std::sqrt(a[i][j]) : a[i][j] / a[j][j];
    }
  }
  for (int i = 0; i < kTaps; i++) {
    for (int k = 0; k < i; k++) b[i] -= a[i][k] * b[k];
    b[i] /= a[i][i];
  }
  for (int i = kTaps - 1; i >= 0; i--) {
    for (int k = i + 1; k < kTaps; k++) b[i] -= a[k][i] * b[k];
    b[i] /= a[i][i];
  }
}

// The mean of products of values `distance` pixels apart, for each distance below `count`, by the energies of the
// frequencies.
void find_covariances(const double* energy, int n, int count, double* covariances) {
  auto* cosines = host_new<double>(static_cast<size_t>(n));
  for (int k = 0; k < n; k++) cosines[k] = std::cos(2 * M_PI * k / n);
  for (int distance = 0; distance < count; distance++) {
    double sum = 0;
    for (int k = 0, turn = 0; k < n; k++, turn = (turn + distance) % n) sum += energy[k] * cosines[turn];
    covariances[distance] = sum;
  }
  free(cosines);
}

// The weighted sum of kTaps rows (or shifted rows) of n values that lie `apart` values from each other.
KERNEL_LOOP void weigh(const float* first, ptrdiff_t apart, const float* weights, int n, float* out) {
  float w[kTaps];
  for (int j = 0; j < kTaps; j++) w[j] = weights[j];
#pragma omp simd
  for (int x = 0; x < n; x++) {
    float sum = 0;
#pragma GCC unroll 9
    for (int j = 0; j < kTaps; j++) sum += w[j] * first[x + j * apart];
    out[x] = sum;
  }
}

// Raises worst to the squares of what n values are off.
KERNEL_LOOP void raise_errors(const float* values, const float* truth, int n, float* worst) {
#pragma omp simd
  for (int x = 0; x < n; x++) {
    const float error = values[x] - truth[x];
    worst[x] = worst[x] < error * error ? error * error : worst[x];
  }
}

// The squares of the largest errors of one row of the image.
void find_row_errors(const SurroundedImage& image, const SampleWeights& x, const SampleWeights& y, int row,
                     float* columns, float* values, float* worst) {
  const ptrdiff_t width = image.nx + 2 * image.halo;
  const float* truth = image.pixels + (row + image.halo) * width + image.halo;
  std::fill_n(worst, image.nx, 0.0f);
  // A pixel at offset d is predicted from the samples around the pixel d before it.
  for (int dy = 0; dy < y.step; dy++) {
    const ptrdiff_t first_row = row + image.halo - (dy + lowest_offset(y.step)) - kReach * y.step;
    weigh(image.pixels + first_row * width, y.step * width, y.of_offset[dy], static_cast<int>(width), columns);
    for (int dx = 0; dx < x.step; dx++) {
      const ptrdiff_t first = image.halo - (dx + lowest_offset(x.step)) - kReach * x.step;
      weigh(columns + first, x.step, x.of_offset[dx], image.nx, values);
      raise_errors(values, truth, image.nx, worst);
    }
  }
}

// The first pixel behind `at` that lies in another block, in an image of n pixels that repeats.
int next_block(int at, int n) {
  const int in_image = at % n;
  return at + std::min(kErrorBlock - in_image % kErrorBlock, n - in_image);
}

// Pixel `at` of an image of n pixels that repeats, from 0 on.
int from_zero(int at, int n) { return (at % n + n) % n; }

// The sums in y of the blocks that rows y0 to y1 touch.
void add_rows(const BlockSums& sums, int y0, int y1, double* columns) {
  const int across = block_count(sums.nx);
  std::fill_n(columns, across, 0.0);
  for (int y = y0; y <= y1; y = next_block(y, sums.ny)) {
    const double* row = sums.sums + static_cast<ptrdiff_t>(y % sums.ny / kErrorBlock) * across;
    for (int b = 0; b < across; b++) columns[b] += row[b];
  }
}

// The largest sum of values of the blocks that `length` pixels touch whose first lies in pixels x0 to x0 + width - 1 of
// n; the first is not below 0.
double largest_run_sum(const double* values, int n, int x0, int width, int length) {
  double largest = 0;
  for (int x = x0; x < x0 + width; x = next_block(x, n)) {
    const int last = std::min(next_block(x, n), x0 + width) + length - 2;
    double sum = 0;
    for (int i = x; i <= last; i = next_block(i, n)) sum += values[i % n / kErrorBlock];
    largest = std::max(largest, sum);
  }
  return largest;
}

}  // namespace

SampleWeights sample_weights(const double* energy, int n, int step) {
  SampleWeights weights{};
  weights.step = step;
  double covariances[kTaps * kMostStep];
  find_covariances(energy, n, kTaps * step, covariances);
  for (int i = 0; i < step; i++) {
    const int offset = i + lowest_offset(step);
    double a[kTaps][kTaps];
    double b[kTaps];
    for (int j = 0; j < kTaps; j++) {
      b[j] = covariances[std::abs((j - kReach) * step - offset)];
      for (int k = 0; k < kTaps; k++) a[j][k] = covariances[std::abs(j - k) * step];
      a[j][j] *= 1 + kRidge;
    }
    solve(a, b);
    for (int j = 0; j < kTaps; j++)
      weights.of_offset[i][j] = offset == 0 ? static_cast<float>(j == kReach) : static_cast<float>(b[j]);
  }
  return weights;
}

void sum_squared_errors(const SurroundedImage& image, const SampleWeights& x, const SampleWeights& y, double* sums) {
  const int across = block_count(image.nx);
#pragma omp parallel
  {
    auto* columns = host_new<float>(static_cast<size_t>(image.nx) + 2 * static_cast<size_t>(image.halo));
    auto* values = host_new<float>(static_cast<size_t>(image.nx));
    auto* worst = host_new<float>(static_cast<size_t>(image.nx));
#pragma omp for schedule(static)
    for (int block = 0; block < block_count(image.ny); block++) {
      double* to = sums + static_cast<ptrdiff_t>(block) * across;
      std::fill_n(to, across, 0.0);
      for (int row = block * kErrorBlock; row < std::min((block + 1) * kErrorBlock, image.ny); row++) {
        find_row_errors(image, x, y, row, columns, values, worst);
        for (int i = 0; i < image.nx; i++) to[i / kErrorBlock] += static_cast<double>(worst[i]);
      }
    }
    free(columns);
    free(values);
    free(worst);
  }
}

void sum_squares(const float* image, int nx, int ny, double* sums) {
  const int across = block_count(nx);
#pragma omp parallel for schedule(static)
  for (int block = 0; block < block_count(ny); block++) {
    double* to = sums + static_cast<ptrdiff_t>(block) * across;
    std::fill_n(to, across, 0.0);
    for (int row = block * kErrorBlock; row < std::min((block + 1) * kErrorBlock, ny); row++) {
      const float* pixels = image + static_cast<ptrdiff_t>(row) * nx;
      for (int i = 0; i < nx; i++) to[i / kErrorBlock] += static_cast<double>(pixels[i] * pixels[i]);
    }
  }
}

float largest_window_norm(const float* image, int nx, int ny, int width, int height) {
  // Cells of a few blocks, for the cores to share.
  const CellWindows windows{
      8 * kErrorBlock, (nx - 1) / (8 * kErrorBlock) + 1, (ny - 1) / (8 * kErrorBlock) + 1, 0, 0, width, height};
  const auto cells = static_cast<size_t>(windows.grid_nx) * static_cast<size_t>(windows.grid_ny);
  auto* sums = host_new<double>(static_cast<size_t>(block_count(nx)) * static_cast<size_t>(block_count(ny)));
  auto* largest = host_new<double>(cells);
  sum_squares(image, nx, ny, sums);
  find_largest_sums({nx, ny, sums}, windows, largest);
  const double most = *std::max_element(largest, largest + cells);
  free(sums);
  free(largest);
  return static_cast<float>(std::sqrt(most));
}

void find_largest_sums(const BlockSums& sums, const CellWindows& windows, double* largest) {
  const int across = block_count(sums.nx);
#pragma omp parallel
  {
    auto* columns = host_new<double>(static_cast<size_t>(across));
#pragma omp for schedule(static)
    for (int cell_y = 0; cell_y < windows.grid_ny; cell_y++) {
      double* of_row = largest + static_cast<ptrdiff_t>(cell_y) * windows.grid_nx;
      std::fill_n(of_row, windows.grid_nx, 0.0);
      const int begin = from_zero(windows.y0 + cell_y * windows.cell, sums.ny);
      // All windows whose first row lies in the same blocks and the same cell.
      for (int y = begin; y < begin + windows.cell; y = next_block(y, sums.ny)) {
        const int last = std::min(next_block(y, sums.ny), begin + windows.cell) + windows.height - 2;
        add_rows(sums, y, last, columns);
        for (int cell_x = 0; cell_x < windows.grid_nx; cell_x++) {
          const int x = from_zero(windows.x0 + cell_x * windows.cell, sums.nx);
          of_row[cell_x] = std::max(of_row[cell_x], largest_run_sum(columns, sums.nx, x, windows.cell, windows.width));
        }
      }
    }
    free(columns);
  }
}
