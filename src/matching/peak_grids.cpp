// Peaks of a correlation map: at most one per cell, filtered by score, excluded points and neighbours.
#include <cmath>
#include <cstdlib>
#include <limits>

#include "cuda_general.h"
#include "matching/peak_kernels.h"
#include "platform/launch.h"
#include "quorlin56.h"

namespace {

constexpr char unit[] = "quorlin56";

}  // namespace

int grid_cell_size(float min_dist, float pixel_size) {
  const float side = (min_dist * 1.41421354f) / (2 * pixel_size);
  if (!(side >= 1.0f)) return 0;
  constexpr int kLargest = std::numeric_limits<int>::max();
  return side < static_cast<float>(kLargest) ? static_cast<int>(side) : kLargest;
}

PeakWorkspace peak_workspace_new(int grid_nx, int grid_ny) {
  const auto cells = static_cast<unsigned long>(grid_nx) * static_cast<unsigned long>(grid_ny);
  PeakWorkspace ws{};
  ws.grid_nx = grid_nx;
  ws.grid_ny = grid_ny;
  ws.found = device_new<unsigned>(cells);
  ws.kept = device_new<unsigned>(cells);
  ws.cc = device_new<float>(cells);
  ws.psi = device_new<float>(cells);
  ws.excluded = device_new<unsigned>(cells);
  CHECK_DEVICE(cudaMallocHost(&ws.host_excluded, cells * sizeof(unsigned)));
  return ws;
}

void peak_workspace_free(PeakWorkspace* ws) {
  cudaFree(ws->found);
  cudaFree(ws->kept);
  cudaFree(ws->cc);
  cudaFree(ws->psi);
  cudaFree(ws->excluded);
  cudaFreeHost(ws->host_excluded);
  *ws = PeakWorkspace{};
}

unsigned gather_excluded_points(PeakWorkspace* ws, const unsigned* d_grid) {
  const size_t cells = static_cast<size_t>(ws->grid_nx) * ws->grid_ny;
  CHECK_DEVICE(cudaMemcpy(ws->host_excluded, d_grid, cells * sizeof(unsigned), cudaMemcpyDeviceToHost));
  ws->n_excluded = 0;
  unsigned open_cells = 0;
  for (size_t i = 0; i < cells; i++) {
    const unsigned point = ws->host_excluded[i];
    if (point != 0 || open_cells++ == 0) ws->host_excluded[ws->n_excluded++] = point;
  }
  CHECK_DEVICE(cudaMemcpy(ws->excluded, ws->host_excluded, ws->n_excluded * sizeof(unsigned), cudaMemcpyHostToDevice));
  return open_cells;
}

void filter_peaks(PeakWorkspace* ws, unsigned* grid_index, float* grid_cc, float* grid_psi, float cc_cutoff, int nx,
                  int grid_size, const unsigned* excluded, unsigned n_excluded) {
  const size_t cells = static_cast<size_t>(ws->grid_nx) * ws->grid_ny;
  CHECK_DEVICE(launch_cells<cuda_filter_ccmax_psi_grids_exclusive>(
      ws->grid_nx, ws->grid_ny, static_cast<const unsigned*>(ws->found), ws->kept, static_cast<const float*>(ws->cc),
      cc_cutoff, nx, ws->grid_nx, ws->grid_ny, grid_size, excluded, n_excluded));
  CHECK_DEVICE(cudaMemcpy(grid_index, ws->kept, cells * sizeof(unsigned), cudaMemcpyDeviceToHost));
  CHECK_DEVICE(cudaMemcpy(grid_cc, ws->cc, cells * sizeof(float), cudaMemcpyDeviceToHost));
  CHECK_DEVICE(cudaMemcpy(grid_psi, ws->psi, cells * sizeof(float), cudaMemcpyDeviceToHost));
}

void gpu_find_filter_ccmax_psi_grids_exclusive(PeakWorkspace* ws, const float* ccmax, const float* psi,
                                               unsigned* grid_index, float* grid_cc, float* grid_psi, float cc_cutoff,
                                               int nx, int ny, int grid_size, const unsigned* excluded,
                                               unsigned n_excluded) {
  CHECK_DEVICE(launch_cells<cuda_find_ccmax_psi_grids>(ws->grid_nx, ws->grid_ny, ccmax, psi, ws->found, ws->cc, ws->psi,
                                                       nx, ny, ws->grid_nx, grid_size));
  filter_peaks(ws, grid_index, grid_cc, grid_psi, cc_cutoff, nx, grid_size, excluded, n_excluded);
}
