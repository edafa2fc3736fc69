#include "templates/round_template.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "platform/host_memory.h"

namespace {

constexpr float kStep = 0.25f;
constexpr float kExtent = 1.3f;      // radius of the disc that a template fills, in sizes
constexpr double kEdge = 0.75;       // where the soft edge has fallen to one half, in sizes
constexpr double kEdgeWidth = 0.05;  // of the soft edge, in sizes

// Means are taken by this many shares of the peaks, whatever the number of threads, and added up in order.
constexpr int kShares = 16;

RoundTemplate template_new(float size) {
  const int n = static_cast<int>(kExtent * size / kStep) + 2;
  return {host_new<float>(static_cast<size_t>(n)), n, kStep};
}

// Mean 0 and deviation 1 over the disc; all 0 where there is no deviation. The last value ends the disc.
void normalise_over_disc(RoundTemplate* t) {
  double weight = 0;
  double sum = 0;
  for (int i = 0; i + 1 < t->n; i++) {
    weight += i;
    sum += i * static_cast<double>(t->values[i]);
  }
  const double mean = sum / weight;
  double squares = 0;
  for (int i = 0; i + 1 < t->n; i++) squares += i * std::pow(static_cast<double>(t->values[i]) - mean, 2);
  const double deviation = std::sqrt(squares / weight);
  for (int i = 0; i < t->n; i++)
    t->values[i] = deviation > 0 ? static_cast<float>((static_cast<double>(t->values[i]) - mean) / deviation) : 0.0f;
}

// Sums and weights of the pixels around one peak by whole radii, linearly shared between the two nearest.
void add_surroundings(const float* image, int nx, int ny, int pixel, int reach, double* sums, double* weights) {
  const int px = pixel % nx;
  const int py = pixel / nx;
  for (int y = std::max(py - reach, 0); y < std::min(py + reach, ny); y++) {
    for (int x = std::max(px - reach, 0); x < std::min(px + reach, nx); x++) {
      const double r = std::sqrt((x - px + 0.5) * (x - px + 0.5) + (y - py + 0.5) * (y - py + 0.5));
      const int ring = static_cast<int>(r);
      if (ring + 1 > reach) continue;
      const double between = r - ring;
      const auto value = static_cast<double>(image[static_cast<size_t>(y) * nx + x]);
      sums[ring] += (1 - between) * value;
      sums[ring + 1] += between * value;
      weights[ring] += 1 - between;
      weights[ring + 1] += between;
    }
  }
}

// Mean over the disc's area from the soft edge's end outwards.
double value_outside(const double* mean, int reach, double size) {
  double sum = 0;
  double weight = 0;
  for (int r = static_cast<int>(kEdge * size); r <= reach; r++) {
    sum += r * mean[r];
    weight += r;
  }
  return weight > 0 ? sum / weight : 0;
}

}  // namespace

void round_template_free(RoundTemplate* t) {
  free(t->values);
  *t = RoundTemplate{};
}

RoundTemplate ball_template(float size) {
  RoundTemplate t = template_new(size);
  for (int i = 0; i < t.n; i++) {
    const float r = 2.0f * kStep * static_cast<float>(i) / size;
    t.values[i] = -std::sqrt(std::max(0.0f, 1.0f - r * r));
  }
  normalise_over_disc(&t);
  return t;
}

RadialSums radial_sums_new(float size) {
  const int reach = static_cast<int>(kExtent * size) + 2;
  const auto rings = static_cast<size_t>(reach) + 1;
  RadialSums sums{host_new<double>(rings), host_new<double>(rings), reach};
  std::fill_n(sums.sums, rings, 0.0);
  std::fill_n(sums.weights, rings, 0.0);
  return sums;
}

void radial_sums_free(RadialSums* sums) {
  free(sums->sums);
  free(sums->weights);
  *sums = RadialSums{};
}

void add_to_radial_sums(RadialSums* to, const float* image, int nx, int ny, const PeakList& peaks, int count) {
  const auto rings = static_cast<size_t>(to->reach) + 1;
  auto* sums = host_new<double>(2 * kShares * rings);
  std::fill_n(sums, 2 * kShares * rings, 0.0);
#pragma omp parallel for schedule(dynamic)
  for (int share = 0; share < kShares; share++) {
    double* own = sums + 2 * static_cast<size_t>(share) * rings;
    for (int i = share; i < count; i += kShares)
      add_surroundings(image, nx, ny, peaks.peaks[i].pixel, to->reach, own, own + rings);
  }
  for (size_t r = 0; r < rings; r++) {
    for (size_t share = 0; share < kShares; share++) {
      to->sums[r] += sums[2 * share * rings + r];
      to->weights[r] += sums[(2 * share + 1) * rings + r];
    }
  }
  free(sums);
}

RoundTemplate mean_of_sums(const RadialSums& sums, float size) {
  RoundTemplate t = template_new(size);
  auto* mean = host_new<double>(static_cast<size_t>(sums.reach) + 1);
  for (int r = 0; r <= sums.reach; r++) mean[r] = sums.weights[r] > 0 ? sums.sums[r] / sums.weights[r] : 0;
  const double outside = value_outside(mean, sums.reach, static_cast<double>(size));
  for (int i = 0; i < t.n; i++) {
    const double r = static_cast<double>(kStep) * i;
    const int ring = std::min(static_cast<int>(r), sums.reach - 1);
    const double value = mean[ring] + (r - ring) * (mean[ring + 1] - mean[ring]);
    const double edge =
        1 / (1 + std::exp((r - kEdge * static_cast<double>(size)) / (kEdgeWidth * static_cast<double>(size))));
    t.values[i] = static_cast<float>((value - outside) * edge);
  }
  free(mean);
  normalise_over_disc(&t);
  return t;
}

RoundTemplate mean_template(const float* image, int nx, int ny, const PeakList& peaks, int count, float size) {
  RadialSums sums = radial_sums_new(size);
  add_to_radial_sums(&sums, image, nx, ny, peaks, std::min(count, peaks.n));
  const RoundTemplate mean = mean_of_sums(sums, size);
  radial_sums_free(&sums);
  return mean;
}

int round_template_side(const RoundTemplate& t) {
  return 2 * static_cast<int>(std::ceil(static_cast<float>(t.n - 1) * t.step));
}

void draw_round_template(const RoundTemplate& t, int side, float* image) {
  const double centre = (side - 1) / 2.0;
  for (int y = 0; y < side; y++) {
    for (int x = 0; x < side; x++) {
      const double at = std::hypot(x - centre, y - centre) / static_cast<double>(t.step);
      const int i = static_cast<int>(at);
      image[static_cast<size_t>(y) * side + x] =
          i + 1 < t.n ? t.values[i] + static_cast<float>(at - i) * (t.values[i + 1] - t.values[i]) : 0.0f;
    }
  }
}
