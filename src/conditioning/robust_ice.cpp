#include "conditioning/robust_ice.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "compute/robust_statistics.h"
#include "platform/host_memory.h"

namespace {

// A disc of this share of the diameter fits into areas of high deviation that are ice; one strong particle makes a
// smaller spot.
constexpr float kOpeningRadius = 0.6f;

// A deviation this many times the usual one is not ice yet.
constexpr float kMostDeviation = 2.1f;

// The usual averages scatter by this many robust deviations at most.
constexpr float kMostSigmas = 5.0f;

// Where the deviation is less than this share of what it reaches elsewhere, the detector was dead or the beam blocked.
constexpr float kDead = 0.05f;

constexpr float kLeastOpen = 0.05f;

size_t pixels_of(const RobustIceSettings& s) { return static_cast<size_t>(s.nx) * static_cast<size_t>(s.ny); }

// 1 on pixels whose statistics count: of the micrograph itself, with some variation.
float* live_pixels_new(const RobustIceSettings& s, const float* deviation) {
  const float least = kDead * quantile(deviation, nullptr, s.nx, s.ny, 0.95);
  auto* live = host_new<float>(pixels_of(s));
#pragma omp parallel for schedule(static)
  for (int y = 0; y < s.ny; y++) {
    for (int x = 0; x < s.nx; x++) {
      const size_t i = static_cast<size_t>(y) * s.nx + x;
      live[i] = x < s.true_nx && y < s.true_ny && deviation[i] > least ? 1.0f : 0.0f;
    }
  }
  return live;
}

// What a disc of the radius reaches inside the set.
void open_by_disc(unsigned char* set, int nx, int ny, float radius) {
  const size_t n = static_cast<size_t>(nx) * static_cast<size_t>(ny);
  auto* other = host_new<unsigned char>(n);
  for (size_t i = 0; i < n; i++) set[i] = set[i] == 0;
  dilate_by_disc(set, nx, ny, radius, other);
  for (size_t i = 0; i < n; i++) other[i] = other[i] == 0;
  dilate_by_disc(other, nx, ny, radius, set);
  free(other);
}

// Spreads bad pixels over the connected pieces of `rim` that they touch.
void spread_over_rims(const unsigned char* rim, int nx, int ny, unsigned char* bad) {
  const size_t n = static_cast<size_t>(nx) * static_cast<size_t>(ny);
  auto* waiting = host_new<int>(n);
  size_t count = 0;
  for (size_t i = 0; i < n; i++)
    if (bad[i]) waiting[count++] = static_cast<int>(i);
  while (count > 0) {
    const int i = waiting[--count];
    const int x = i % nx;
    const int y = i / nx;
    for (int ny_ = std::max(y - 1, 0); ny_ <= std::min(y + 1, ny - 1); ny_++) {
      for (int nx_ = std::max(x - 1, 0); nx_ <= std::min(x + 1, nx - 1); nx_++) {
        const int j = ny_ * nx + nx_;
        if (bad[j] || !rim[j]) continue;
        bad[j] = 1;
        waiting[count++] = j;
      }
    }
  }
  free(waiting);
}

void mark_bad(const RobustIceSettings& s, const RobustIceLimits& limits, const float* average, const float* deviation,
              const float* live, unsigned char* bad) {
  const size_t n = pixels_of(s);
  for (size_t i = 0; i < n; i++) bad[i] = deviation[i] > limits.deviation;
  open_by_disc(bad, s.nx, s.ny, kOpeningRadius * s.particle);
  auto* rim = host_new<unsigned char>(n);
  for (int y = 0; y < s.ny; y++) {
    for (int x = 0; x < s.nx; x++) {
      const size_t i = static_cast<size_t>(y) * s.nx + x;
      const float off = std::fabs(average[i] - limits.average);
      const bool dead = x < s.true_nx && y < s.true_ny && live[i] == 0.0f;
      bad[i] = bad[i] || off > limits.reach || dead;
      rim[i] = off > limits.reach / 2;
    }
  }
  spread_over_rims(rim, s.nx, s.ny, bad);
  free(rim);
}

// Leaves open what is not closed. Returns its share of the micrograph.
float open_rest(const RobustIceSettings& s, const unsigned char* closed, float* open) {
  size_t count = 0;
  for (int y = 0; y < s.ny; y++) {
    for (int x = 0; x < s.nx; x++) {
      const size_t i = static_cast<size_t>(y) * s.nx + x;
      open[i] = closed[i] ? 0.0f : 1.0f;
      if (x < s.true_nx && y < s.true_ny) count += closed[i] == 0;
    }
  }
  return static_cast<float>(count) / (static_cast<float>(s.true_nx) * static_cast<float>(s.true_ny));
}

}  // namespace

RobustIceLimits find_robust_ice(const RobustIceSettings& s, const float* average, const float* deviation,
                                unsigned char* bad, float* open) {
  const size_t n = pixels_of(s);
  float* live = live_pixels_new(s, deviation);
  const RobustScale averages = robust_scale(average, live, s.nx, s.ny);
  const float usual_deviation = quantile(deviation, live, s.nx, s.ny, 0.5);
  RobustIceLimits limits{};
  limits.average = averages.median;
  limits.reach = std::max(kMostSigmas * averages.deviation, usual_deviation);
  limits.deviation = kMostDeviation * usual_deviation;
  mark_bad(s, limits, average, deviation, live, bad);
  auto* closed = host_new<unsigned char>(n);
  dilate_by_disc(bad, s.nx, s.ny, s.reach, closed);
  limits.open = open_rest(s, closed, open);
  if (limits.open < kLeastOpen) std::fill_n(open, n, 1.0f);
  free(closed);
  free(live);
  return limits;
}

void dilate_by_disc(const unsigned char* in, int nx, int ny, float radius, unsigned char* out) {
  const int reach = static_cast<int>(radius);
  const auto width = static_cast<size_t>(nx);
  // Of each pixel, how far the next pixel of the set is in its column, capped beyond the reach.
  auto* rows = host_new<int>(width * static_cast<size_t>(ny));
  for (int y = 0; y < ny; y++)
    for (size_t x = 0; x < width; x++) {
      const size_t i = static_cast<size_t>(y) * width + x;
      rows[i] = in[i] ? 0 : std::min(y > 0 ? rows[i - width] + 1 : reach + 1, reach + 1);
    }
  for (int y = ny - 2; y >= 0; y--)
    for (size_t x = 0; x < width; x++) {
      const size_t i = static_cast<size_t>(y) * width + x;
      rows[i] = std::min(rows[i], rows[i + width] + 1);
    }
  auto* half = host_new<int>(static_cast<size_t>(reach) + 2);
  for (int dy = 0; dy <= reach; dy++)
    half[dy] =
        static_cast<int>(std::sqrt(std::max(0.0f, radius * radius - static_cast<float>(dy) * static_cast<float>(dy))));
#pragma omp parallel for schedule(static)
  for (int y = 0; y < ny; y++) {
    const int* row = rows + static_cast<size_t>(y) * width;
    unsigned char* to = out + static_cast<size_t>(y) * width;
    memset(to, 0, width);
    for (int x = 0; x < nx; x++) {
      if (row[x] > reach) continue;
      const int first = std::max(x - half[row[x]], 0);
      const int last = std::min(x + half[row[x]] + 1, nx);
      memset(to + first, 1, static_cast<size_t>(last - first));
    }
  }
  free(half);
  free(rows);
}
