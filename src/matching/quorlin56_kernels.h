// Kernel bodies of the matching, one pixel or one cell each.
#pragma once

#include "compute/process2d_raw_kernels.h"
#include "quorlin56.h"

/// Cosine and sine of up to kMaxScanBatch angles, handed to a kernel by value.
struct ScanTurns {
  float cosine[kMaxScanBatch];
  float sine[kMaxScanBatch];
};

/// Cosine and sine of an angle in degrees, as every way of the scan takes them.
void turn_of(float psi, float* cosine, float* sine);

/// The turns of the first count angles.
ScanTurns turns_of(const ScanAngles& angles, int count);

/// Box pixel (x, y) of template turn k: the template turned, in the middle of the k-th of the padded images. The
/// turns stand one below the other: y runs over T_ny rows of each.
KERNEL void cuda_turn_into_center(int x, int y, float* padded, const float* T, int nx, int ny, int T_nx, int T_ny,
                                  ScanTurns turns) {
  const int k = y / T_ny;
  const int box_y = y - k * T_ny;
  float* image = padded + static_cast<size_t>(k) * nx * ny;
  image[pixel_at(x + (nx - T_nx) / 2, box_y + (ny - T_ny) / 2, nx)] =
      rotated_pixel(x, box_y, T, T_nx, T_ny, turns.cosine[k], turns.sine[k]);
}

/// Value (x, y) of spectrum k, the spectra one below the other: the micrograph's times its conjugate, scaled.
KERNEL void cuda_correlate_spectra(int x, int y, const float2* mic_spectrum, float2* spectra, int hnx, int ny,
                                   float norm) {
  const size_t offset = pixel_at(0, y - y % ny, hnx);
  cuda_c2d_multconj_norm(x, y % ny, mic_spectrum, spectra + offset, spectra + offset, hnx, norm);
}

// The maps are __restrict__, so that a GPU keeps a pixel's best in registers while the images go by.
KERNEL void cuda_update_ccmax_psi_2d(int x, int y, int k, float* __restrict__ ccmax, const float* __restrict__ cc,
                                     float* __restrict__ psi, ScanAngles angles, int nx, int ny) {
  const size_t i = pixel_at(x, y, nx);
  const float value = cc[static_cast<size_t>(k) * nx * ny + i];
  const float best = ccmax[i];
  const float angle = psi[i];
  const bool better = best < value;
  ccmax[i] = better ? value : best;
  psi[i] = better ? angles.psi[k] : angle;
}

KERNEL void cuda_update_ccmax_2d(int x, int y, int k, float* __restrict__ ccmax, const float* __restrict__ cc, int nx,
                                 int ny) {
  const size_t i = pixel_at(x, y, nx);
  const float value = cc[static_cast<size_t>(k) * nx * ny + i];
  const float best = ccmax[i];
  ccmax[i] = best < value ? value : best;
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
