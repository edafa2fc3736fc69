// Kernel bodies of the conditioning, one pixel or one cell each.
#pragma once

#include "compute/process2d_raw_kernels.h"

/// Pixel (x, y) of the quadrant of a re-centred 2*nx by 2*ny correlation that holds the image, divided by sum.
KERNEL void cuda_2d_recentred_mean(int x, int y, float* out, const float* correlation, int nx, int ny, float sum) {
  out[pixel_at(x, y, nx)] = correlation[pixel_at(x + nx, y + ny, 2 * nx)] / sum;
}

/// From the mean of squares to the standard deviation.
KERNEL void cuda_2d_deviation(int x, int y, float* squares, const float* mean, int nx) {
  const size_t i = pixel_at(x, y, nx);
  squares[i] = sqrtf(squares[i] - mean[i] * mean[i]);
}

/// The limits of the local maps beyond which a pixel is suspect.
struct MapLimits {
  float lave_min, lave_max, lsigma_cutoff;
};

/// Whether any of n pixels side by side is beyond a limit.
KERNEL bool row_is_suspect(const float* lave, const float* lsigma, int n, MapLimits limits) {
  int suspect = 0;
  for (int x = 0; x < n; x++)
    suspect |= static_cast<int>(lsigma[x] > limits.lsigma_cutoff) | static_cast<int>(lave[x] < limits.lave_min) |
               static_cast<int>(lave[x] > limits.lave_max);
  return suspect != 0;
}

/// Goes through the pixels of one cell in row-major order; see hcuda_find_sigma_grids.
KERNEL void cuda_find_sigma_grids(int gx, int gy, const float* lave, const float* lsigma, unsigned* d_grid,
                                  float* grid_lave, float* grid_lsigma, int Nx, int Ny, int grid_nx, int box,
                                  MapLimits limits) {
  const int x0 = gx * box;
  const int y0 = gy * box;
  const int x1 = box < Nx - x0 ? x0 + box : Nx;
  const int y1 = box < Ny - y0 ? y0 + box : Ny;
  float sigma = lsigma[pixel_at(x0, y0, Nx)];
  float average = lave[pixel_at(x0, y0, Nx)];
  size_t recorded = 0;
  for (int y = y0; y < y1; y++) {
    // Few rows hold a pixel beyond a limit; the others are passed over eight pixels at a time.
    if (!row_is_suspect(lave + pixel_at(x0, y, Nx), lsigma + pixel_at(x0, y, Nx), x1 - x0, limits)) continue;
    for (int x = x0; x < x1; x++) {
      const size_t i = pixel_at(x, y, Nx);
      const float b = lsigma[i];
      const float a = lave[i];
      const bool record = (sigma < b && b > limits.lsigma_cutoff) || (average > a && a < limits.lave_min) ||
                          (average < a && a > limits.lave_max);
      if (record) {
        sigma = b;
        average = a;
        recorded = i;
      }
    }
  }
  const size_t cell = pixel_at(gx, gy, grid_nx);
  grid_lsigma[cell] = sigma;
  grid_lave[cell] = average;
  d_grid[cell] = static_cast<unsigned>(recorded);
}

KERNEL void cuda_2d_generate_mask_by_coords(int gx, int gy, float* mask, int Nx, int Ny, int grid_nx, int box,
                                            const unsigned* d_grid, float value) {
  const int x0 = gx * box;
  const int y0 = gy * box;
  const int x1 = box < Nx - x0 ? x0 + box : Nx;
  const int y1 = box < Ny - y0 ? y0 + box : Ny;
  const float filled = d_grid[pixel_at(gx, gy, grid_nx)] != 0 ? value : 1.0f - value;
  for (int y = y0; y < y1; y++)
    for (int x = x0; x < x1; x++) mask[pixel_at(x, y, Nx)] = filled;
}
