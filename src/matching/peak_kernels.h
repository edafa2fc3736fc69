// Kernel bodies of the peaks, one cell each.
#pragma once

#include "compute/process2d_raw_kernels.h"

/// Whether any of n values side by side is above the given one.
KERNEL bool row_is_above(const float* values, int n, float best) {
  int above = 0;
  for (int x = 0; x < n; x++) above |= static_cast<int>(best < values[x]);
  return above != 0;
}

/// The peak of one cell: its largest value, the first in row-major order among equals. A cell whose first pixel is
/// the largest has no peak (index 0).
KERNEL void cuda_find_ccmax_psi_grids(int gx, int gy, const float* ccmax, const float* psi, unsigned* grid_index,
                                      float* grid_cc, float* grid_psi, int nx, int ny, int grid_nx, int grid_size) {
  const int x0 = gx * grid_size;
  const int y0 = gy * grid_size;
  const int x1 = grid_size < nx - x0 ? x0 + grid_size : nx;
  const int y1 = grid_size < ny - y0 ? y0 + grid_size : ny;
  float best = ccmax[pixel_at(x0, y0, nx)];
  size_t best_pixel = 0;
  for (int y = y0; y < y1; y++) {
    if (!row_is_above(ccmax + pixel_at(x0, y, nx), x1 - x0, best)) continue;
    for (int x = x0; x < x1; x++) {
      const float value = ccmax[pixel_at(x, y, nx)];
      if (best < value) {
        best = value;
        best_pixel = pixel_at(x, y, nx);
      }
    }
  }
  const size_t cell = pixel_at(gx, gy, grid_nx);
  grid_cc[cell] = best;
  grid_index[cell] = static_cast<unsigned>(best_pixel);
  grid_psi[cell] = best_pixel ? psi[best_pixel] : 0.0f;
}

/// Whether two pixels of an image of width nx are closer than the square root of limit.
KERNEL bool pixels_are_near(unsigned a, unsigned b, int nx, long long limit) {
  const auto width = static_cast<unsigned>(nx);
  const long long dx = static_cast<long long>(a % width) - static_cast<long long>(b % width);
  const long long dy = static_cast<long long>(a / width) - static_cast<long long>(b / width);
  return dx * dx + dy * dy < limit;
}

/// Whether a better peak of a neighbouring cell is near the peak of the cell (gx, gy). At the grid's edge a
/// neighbour that does not exist is replaced by one inside, which changes nothing.
KERNEL bool neighbour_beats(int gx, int gy, const unsigned* found, const float* grid_cc, int nx, int grid_nx,
                            int grid_ny, long long limit) {
  const size_t cell = pixel_at(gx, gy, grid_nx);
  for (int qy = gy > 0 ? gy - 1 : 0; qy <= gy + 1 && qy < grid_ny; qy++) {
    for (int qx = gx > 0 ? gx - 1 : 0; qx <= gx + 1 && qx < grid_nx; qx++) {
      const size_t other = pixel_at(qx, qy, grid_nx);
      if (grid_cc[cell] < grid_cc[other] && pixels_are_near(found[cell], found[other], nx, limit)) return true;
    }
  }
  return false;
}

/// Decides on the peak of one cell by what was found in all cells, kept or not.
KERNEL void cuda_filter_ccmax_psi_grids_exclusive(int gx, int gy, const unsigned* found, unsigned* kept,
                                                  const float* grid_cc, float cc_cutoff, int nx, int grid_nx,
                                                  int grid_ny, int grid_size, const unsigned* excluded,
                                                  unsigned n_excluded) {
  const size_t cell = pixel_at(gx, gy, grid_nx);
  const long long limit = 2LL * grid_size * grid_size;
  kept[cell] = 0;
  if (found[cell] == 0 || grid_cc[cell] < cc_cutoff) return;
  for (unsigned e = 0; e < n_excluded; e++)
    if (pixels_are_near(found[cell], excluded[e], nx, limit)) return;
  if (neighbour_beats(gx, gy, found, grid_cc, nx, grid_nx, grid_ny, limit)) return;
  kept[cell] = found[cell];
}
