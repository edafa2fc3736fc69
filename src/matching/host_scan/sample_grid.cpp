#include "matching/host_scan/sample_grid.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

#include "matching/host_scan/interpolation.h"
#include "platform/host_memory.h"

namespace {

// The cells of the pixels around a sample.
IndexRange cells_of_sample(const SampleAxis& axis, int sample, int cell) {
  IndexRange cells{std::numeric_limits<int>::max(), -1};
  for (int i = 0; i < axis.step; i++) {
    const int pixel = axis.pixels[sample * axis.step + i];
    if (pixel < 0) continue;
    cells = {std::min(cells.begin, pixel / cell), std::max(cells.end, pixel / cell)};
  }
  return cells;
}

void find_runs(SampleAxis* axis, int cell) {
  for (int sample = 0; sample < axis->n_samples; sample++) {
    const IndexRange cells = cells_of_sample(*axis, sample, cell);
    SampleRun* last = axis->runs + axis->n_runs - 1;
    if (axis->n_runs > 0 && last->first_cell == cells.begin && last->last_cell == cells.end) {
      last->end++;
    } else {
      axis->runs[axis->n_runs++] = {sample, sample + 1, cells.begin, cells.end};
    }
    axis->run_of_sample[sample] = axis->n_runs - 1;
  }
}

void find_runs_near_cells(SampleAxis* axis, int n_cells) {
  std::fill_n(axis->near_cell, n_cells, IndexRange{0, 0});
  for (int run = 0; run < axis->n_runs; run++) {
    for (int c = axis->runs[run].first_cell; c <= axis->runs[run].last_cell; c++) {
      IndexRange& near = axis->near_cell[c];
      near = near.end == 0 ? IndexRange{run, run + 1} : IndexRange{near.begin, run + 1};
    }
  }
}

void set_limit(const SampleGrid& grid, const float* cell_limits, int grid_nx, int x_run, int y_run, Lane* limits) {
  const SampleRun& x = grid.x->runs[x_run];
  const SampleRun& y = grid.y->runs[y_run];
  float limit = std::numeric_limits<float>::infinity();
  for (int cell_y = y.first_cell; cell_y <= y.last_cell; cell_y++)
    for (int cell_x = x.first_cell; cell_x <= x.last_cell; cell_x++)
      limit = std::min(
          limit, cell_limits[static_cast<size_t>(cell_y) * static_cast<size_t>(grid_nx) + static_cast<size_t>(cell_x)]);
  for (int sample = y.begin; sample < y.end; sample++) {
    const auto row = static_cast<size_t>(sample) + kReach;
    limits[row % grid.n_strips * static_cast<size_t>(grid.x->n_runs) + static_cast<size_t>(x_run)]
          [row / grid.n_strips] = limit;
  }
}

}  // namespace

SampleAxis sample_axis_new(const AxisPart& part, int n, int place, int cell) {
  SampleAxis axis{};
  const int lowest = lowest_offset(part.step);
  const int n_cells = (n - 1) / cell + 1;
  axis.step = part.step;
  axis.n_samples = (part.count - 1 - lowest) / part.step + 1;
  axis.pixels = host_new<int>(static_cast<size_t>(axis.n_samples) * static_cast<size_t>(part.step));
  axis.runs = host_new<SampleRun>(static_cast<size_t>(axis.n_samples));
  axis.run_of_sample = host_new<int>(static_cast<size_t>(axis.n_samples));
  axis.near_cell = host_new<IndexRange>(static_cast<size_t>(n_cells));
  for (int i = 0; i < axis.n_samples * axis.step; i++) {
    const int correlation = i + lowest;
    const bool inside = correlation >= 0 && correlation < part.count;
    axis.pixels[i] = inside ? (part.first + correlation + place) % n : -1;
  }
  find_runs(&axis, cell);
  find_runs_near_cells(&axis, n_cells);
  return axis;
}

void sample_axis_free(SampleAxis* axis) {
  free(axis->pixels);
  free(axis->runs);
  free(axis->run_of_sample);
  free(axis->near_cell);
  *axis = SampleAxis{};
}

size_t sample_strips(const SampleAxis& y) {
  return ((static_cast<size_t>(y.n_samples) + 2 * kReach + kLanes - 1) / kLanes) | 1;
}

void set_limits(const SampleGrid& grid, const float* cell_limits, int grid_nx, Lane* limits) {
  std::fill_n(limits, grid.n_strips * static_cast<size_t>(grid.x->n_runs),
              Lane{} + std::numeric_limits<float>::infinity());
  for (int y_run = 0; y_run < grid.y->n_runs; y_run++)
    for (int x_run = 0; x_run < grid.x->n_runs; x_run++) set_limit(grid, cell_limits, grid_nx, x_run, y_run, limits);
}

void update_limits(const SampleGrid& grid, const float* cell_limits, int grid_nx, int cell_x, int cell_y,
                   Lane* limits) {
  const IndexRange across = grid.x->near_cell[cell_x];
  const IndexRange down = grid.y->near_cell[cell_y];
  for (int y_run = down.begin; y_run < down.end; y_run++)
    for (int x_run = across.begin; x_run < across.end; x_run++)
      set_limit(grid, cell_limits, grid_nx, x_run, y_run, limits);
}
