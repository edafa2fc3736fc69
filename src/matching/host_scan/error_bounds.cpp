#include "matching/host_scan/error_bounds.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "platform/host_memory.h"

namespace {

// Row y (also before the first and behind the last) of the image continued as the inner parts continue it.
void surround_row(const HostScan* scan, const float* mic, int halo, int y, float* row) {
  const AxisPart& x_part = scan->x.parts[0];
  const AxisPart& y_part = scan->y.parts[0];
  const MirrorTap at_y = y_part.taps[(y + y_part.before + y_part.plan.n) % y_part.plan.n];
  const float* a = mic + static_cast<size_t>(at_y.a) * static_cast<size_t>(scan->nx);
  const float* b = mic + static_cast<size_t>(at_y.b) * static_cast<size_t>(scan->nx);
  float* inside = row + halo;
  for (int x = 0; x < scan->nx; x++) inside[x] = at_y.at_a * a[x] + at_y.at_b * b[x];
  for (int x = -halo; x < scan->nx + halo; x = x == -1 ? scan->nx : x + 1) {
    const MirrorTap at_x = x_part.taps[(x + x_part.before + x_part.plan.n) % x_part.plan.n];
    inside[x] = at_x.at_a * inside[at_x.a] + at_x.at_b * inside[at_x.b];
  }
}

// The weights of the inner parts for this micrograph: by the energies of the frequencies that are kept.
SampleWeights weights_of(const AxisPart& part, const double* energy, const KeptFrequencies& kept, size_t unit) {
  const auto n = static_cast<size_t>(part.plan.n);
  auto* kept_energy = host_new<double>(n);
  std::copy_n(energy, n, kept_energy);
  std::fill(kept_energy + low_values(kept, n, unit), kept_energy + n - high_values(kept, n, unit), 0.0);
  const SampleWeights weights = sample_weights(kept_energy, part.plan.n, part.step);
  free(kept_energy);
  return weights;
}

// What a value may be changed by the weights at most, as a factor.
double gain_of(const SampleWeights& weights) {
  double gain = 1;
  for (int i = 0; i < weights.step; i++) {
    double sum = 0;
    for (const float w : weights.of_offset[i]) sum += std::abs(static_cast<double>(w));
    gain = std::max(gain, sum);
  }
  return gain;
}

}  // namespace

ErrorBounds error_bounds_new(const HostScan* scan, const CellGrid& cells) {
  ErrorBounds bounds{};
  bounds.error_norms = host_new<float>(cells_of(cells));
  bounds.halo = kReach * std::max(scan->x.parts[0].step, scan->y.parts[0].step) + kMostStep;
  const auto both_sides = 2 * static_cast<size_t>(bounds.halo);
  bounds.surrounded =
      host_new<float>((static_cast<size_t>(scan->nx) + both_sides) * (static_cast<size_t>(scan->ny) + both_sides));
  bounds.squared_errors =
      host_new<double>(static_cast<size_t>(block_count(scan->nx)) * static_cast<size_t>(block_count(scan->ny)));
  return bounds;
}

void error_bounds_free(ErrorBounds* bounds) {
  free(bounds->error_norms);
  free(bounds->surrounded);
  free(bounds->squared_errors);
  *bounds = ErrorBounds{};
}

void find_error_bounds(ErrorBounds* bounds, const HostScan* scan, const CellGrid& cells, const float* mic) {
  const Region& inner = scan->regions[0];
  const int width = scan->nx + 2 * bounds->halo;
  bounds->x = weights_of(scan->x.parts[0], inner.x_energy, scan->kept_blocks[0], kLanes);
  bounds->y = weights_of(scan->y.parts[0], inner.y_energy, scan->kept_rows[0], 1);
#pragma omp parallel for schedule(static)
  for (int y = 0; y < scan->ny + 2 * bounds->halo; y++)
    surround_row(scan, mic, bounds->halo, y - bounds->halo,
                 bounds->surrounded + static_cast<size_t>(y) * static_cast<size_t>(width));
  sum_squared_errors({scan->nx, scan->ny, bounds->halo, bounds->surrounded}, bounds->x, bounds->y,
                     bounds->squared_errors);
  auto* squares = host_new<double>(cells_of(cells));
  find_largest_sums({scan->nx, scan->ny, bounds->squared_errors},
                    {cells.side, cells.nx, cells.ny, -place_of_score(scan->nx, scan->T_nx),
                     -place_of_score(scan->ny, scan->T_ny), scan->T_nx, scan->T_ny},
                    squares);
  // What was left out of the spectra is missing from the samples, and from what is interpolated from them.
  double lost = 0;
  for (int r = 0; r < scan->n_regions; r++) lost = std::max(lost, scan->regions[r].lost);
  lost *= 1 + gain_of(bounds->x) * gain_of(bounds->y);
  double sum = 0;
  for (size_t c = 0; c < cells_of(cells); c++) {
    const double norm = std::sqrt(squares[c]) + lost;
    bounds->error_norms[c] = static_cast<float>(norm);
    sum += norm;
  }
  bounds->mean_norm = static_cast<float>(sum / static_cast<double>(cells_of(cells)));
  free(squares);
}
