// Kernel bodies of the rotational scan, one pixel each.
#pragma once

#include "compute/process2d_raw_kernels.h"
#include "quorlin56.h"

/// Cosine and sine of up to kMaxScanBatch angles, handed to a kernel by value.
struct ScanTurns {
  float cosine[kMaxScanBatch];
  float sine[kMaxScanBatch];
};

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

KERNEL void cuda_update_ccmax_ccmin_psi_2d(int x, int y, int k, float* __restrict__ ccmax, float* __restrict__ ccmin,
                                           const float* __restrict__ cc, float* __restrict__ psi, ScanAngles angles,
                                           int nx, int ny) {
  const size_t i = pixel_at(x, y, nx);
  const float value = cc[static_cast<size_t>(k) * nx * ny + i];
  const float best = ccmax[i];
  const float least = ccmin[i];
  const float angle = psi[i];
  const bool better = best < value;
  ccmax[i] = better ? value : best;
  psi[i] = better ? angles.psi[k] : angle;
  ccmin[i] = value < least ? value : least;
}

/// Takes the maps of template t into the best of all: its score, angle and template, and the lowest score.
KERNEL void cuda_take_template(unsigned long i, float* best, float* best_psi, float* best_T, float* least,
                               const float* ccmax, const float* psi, const float* ccmin, float t) {
  const float value = ccmax[i];
  const float low = ccmin[i];
  const bool better = best[i] < value;
  best_psi[i] = better ? psi[i] : best_psi[i];
  best_T[i] = better ? t : best_T[i];
  best[i] = better ? value : best[i];
  least[i] = low < least[i] ? low : least[i];
}

KERNEL void cuda_update_ccmax_2d(int x, int y, int k, float* __restrict__ ccmax, const float* __restrict__ cc, int nx,
                                 int ny) {
  const size_t i = pixel_at(x, y, nx);
  const float value = cc[static_cast<size_t>(k) * nx * ny + i];
  const float best = ccmax[i];
  ccmax[i] = best < value ? value : best;
}
