#include "conditioning/outliers.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "platform/failure.h"
#include "platform/host_memory.h"

namespace {

constexpr int kRowsLookedAt = 64;
constexpr int kBlankRun = 16;
constexpr float kFarOff = 1000;
constexpr double kMuchBlank = 0.02;

struct RobustValues {
  float median, deviation;
};

// Takes the values apart. n > 0.
RobustValues robust_values(float* values, size_t n) {
  float* middle = values + n / 2;
  std::nth_element(values, middle, values + n);
  const float median = *middle;
  for (size_t i = 0; i < n; i++) values[i] = std::fabs(values[i] - median);
  std::nth_element(values, middle, values + n);
  return {median, 1.4826f * *middle};
}

int rows_looked_at(int ny) { return std::min(ny, kRowsLookedAt); }

// Row number k of those looked at, spread evenly.
int row_looked_at(int k, int ny) { return static_cast<int>(static_cast<long>(k) * ny / rows_looked_at(ny)); }

RobustValues robust_values_of_image(const float* image, int nx, int ny, size_t stride) {
  const auto width = static_cast<size_t>(nx);
  const int rows = rows_looked_at(ny);
  auto* values = host_new<float>(width * static_cast<size_t>(rows));
  for (int k = 0; k < rows; k++)
    std::copy_n(image + static_cast<size_t>(row_looked_at(k, ny)) * stride, nx,
                values + static_cast<size_t>(k) * width);
  const RobustValues robust = robust_values(values, width * static_cast<size_t>(rows));
  free(values);
  return robust;
}

float largest_distance(const float* row, int nx, float from) {
  float largest = 0;
#pragma omp simd reduction(max : largest)
  for (int x = 0; x < nx; x++) largest = std::max(largest, std::fabs(row[x] - from));
  return largest;
}

// Pixels of a row that stand in runs of kBlankRun or more equal ones.
long blank_pixels(const float* row, int nx) {
  long blank = 0;
  for (int begin = 0, end; begin < nx; begin = end) {
    end = begin + 1;
    while (end < nx && !(row[end] < row[begin]) && !(row[end] > row[begin])) end++;
    if (end - begin >= kBlankRun) blank += end - begin;
  }
  return blank;
}

}  // namespace

ValueLimits clip_limits(const ImageFile& image, float deviations) {
  const MRC_HEAD* head = &image.head();
  const auto width = static_cast<size_t>(head->nx);
  const int rows = rows_looked_at(head->ny);
  auto* values = host_new<float>(width * static_cast<size_t>(rows));
  for (int k = 0; k < rows; k++)
    image.read_rows(0, row_looked_at(k, head->ny), 1, values + static_cast<size_t>(k) * width);
  const RobustValues robust = robust_values(values, width * static_cast<size_t>(rows));
  free(values);
  if (!(robust.deviation > 0)) return kNoLimits;
  return {robust.median - deviations * robust.deviation, robust.median + deviations * robust.deviation};
}

void clip_values(float* values, size_t n, ValueLimits limits) {
#pragma omp simd
  for (size_t i = 0; i < n; i++) values[i] = std::min(std::max(values[i], limits.low), limits.high);
}

void note_outliers(const float* image, int nx, int ny, size_t stride, const char* name) {
  const RobustValues robust = robust_values_of_image(image, nx, ny, stride);
  float largest = 0;
  long blank = 0;
#pragma omp parallel for schedule(static) reduction(max : largest) reduction(+ : blank)
  for (int y = 0; y < ny; y++) {
    const float* row = image + static_cast<size_t>(y) * stride;
    largest = std::max(largest, largest_distance(row, nx, robust.median));
    blank += blank_pixels(row, nx);
  }
  if (!std::isfinite(largest)) return;  // said elsewhere
  if (robust.deviation > 0 && largest > kFarOff * robust.deviation)
    safety_note(name,
                "holds pixels of up to %.2g deviations, which spoil its normalisation; --clip_outliers 6 limits them.",
                static_cast<double>(largest / robust.deviation));
  const double share = static_cast<double>(blank) / (static_cast<double>(nx) * ny);
  if (share > kMuchBlank && share < 1)
    safety_note(name, "%.0f per cent of it is blank, which spoils its normalisation; mask or cut it off.", 100 * share);
}
