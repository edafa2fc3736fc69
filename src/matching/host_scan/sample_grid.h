// The samples of a search over the cells of the grid: which pixels lie around a sample, and what a sample must reach to
// matter in the cells of these pixels.
#pragma once

#include <cstddef>

#include "matching/host_scan/axis_parts.h"
#include "transforms/lane_fft.h"

/// Samples begin to end - 1, whose pixels lie in the cells first_cell to last_cell of their axis.
struct SampleRun {
  int begin, end;
  int first_cell, last_cell;
};

/// Items begin to end - 1.
struct IndexRange {
  int begin, end;
};

/// The samples of one part of an axis.
struct SampleAxis {
  int n_samples;    // whose pixels include some of the part
  int step;         // pixels around a sample
  int* pixels;      // n_samples * step: the image's pixels around each one, ascending; -1 outside the part
  SampleRun* runs;  // of samples with the same cells
  int n_runs;
  int* run_of_sample;     // n_samples
  IndexRange* near_cell;  // for each cell the runs that may have it
};

/// The samples of a part of an axis of n pixels under cells of the side `cell`. place: what is added to the number of
/// a correlation for the pixel of its score. Released with sample_axis_free. A lack of memory ends the run.
SampleAxis sample_axis_new(const AxisPart& part, int n, int place, int cell);
void sample_axis_free(SampleAxis* axis);

/// The samples of a part of x and one of y, as they lie in memory: sample y of x's runs is lane (y + kReach) / n_strips
/// of strip (y + kReach) % n_strips, so that what is above and below lies in the neighbouring strips, in the same lane.
struct SampleGrid {
  const SampleAxis* x;
  const SampleAxis* y;
  size_t n_strips;
};

/// Strips that a part of y takes. Odd, so that the rows of a strip don't meet in the cache.
size_t sample_strips(const SampleAxis& y);

/// Sets limits (n_strips * x->n_runs Lanes: for each run of a strip what its samples must reach) from those of the
/// grid's cells, in rows of grid_nx; samples that aren't there get no limit that can be reached.
void set_limits(const SampleGrid& grid, const float* cell_limits, int grid_nx, Lane* limits);

/// The same around one cell whose limit has changed.
void update_limits(const SampleGrid& grid, const float* cell_limits, int grid_nx, int cell_x, int cell_y, Lane* limits);
