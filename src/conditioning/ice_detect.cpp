// Ice and contamination: cells, or pixels, whose local statistics pass a limit, and the lists of what was rejected.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>

#include "conditioning/conditioning.h"
#include "conditioning/conditioning_kernels.h"
#include "conditioning/robust_ice.h"
#include "cuda_general.h"
#include "mrcfile.h"
#include "platform/failure.h"
#include "platform/host_memory.h"
#include "platform/launch.h"
#include "platform/outputs.h"
#include "str_utils.h"

namespace {

constexpr char unit[] = "quorlin56";

size_t cells_of(const IceWorkspace* ws) { return static_cast<size_t>(ws->grid_nx) * ws->grid_ny; }

template <class T>
T* host_cells(const IceWorkspace* ws) {
  T* cells = nullptr;
  CHECK_DEVICE(cudaMallocHost(&cells, cells_of(ws) * sizeof(T)));
  return cells;
}

void write_rejected_lists(const IceWorkspace* ws, int Nx, int Ny, int2 origin, int grid_size, const char* mic_name,
                          int shrink) {
  char name[kTextBytes];
  set_outname_by_suffix(name, mic_name, "_rejected.box");
  output_ice_coord(name, ws->host_grid, ws->host_grid_lave, ws->host_grid_lsigma, Nx, Ny, origin, grid_size, shrink, 2);
  set_outname_by_suffix(name, mic_name, "_rejected.star");
  output_ice_coord(name, ws->host_grid, ws->host_grid_lave, ws->host_grid_lsigma, Nx, Ny, origin, grid_size, shrink, 1);
}

void write_map(const float* map, int Nx, int Ny, const char* mic_name, const char* suffix) {
  char name[kTextBytes];
  set_outname_by_suffix(name, mic_name, suffix);
  mrcf_write_xyz_ddata(name, map, Nx, Ny, 1);
}

void allocate_pixels(IceWorkspace* ws, size_t pixels) {
  ws->host_lave = host_new<float>(pixels);
  ws->host_lsigma = host_new<float>(pixels);
  ws->host_open = host_new<float>(pixels);
  ws->bad = host_new<unsigned char>(pixels);
}

// Of the bad pixels of a cell the one whose local average is farthest from the usual one, 0 for a cell without any.
void record_worst_pixel(const IceWorkspace* ws, int Nx, int Ny, int grid_size, float usual, int gx, int gy) {
  const size_t cell = static_cast<size_t>(gy) * ws->grid_nx + gx;
  ws->host_grid[cell] = 0;
  float worst = -1;
  for (int y = gy * grid_size; y < std::min((gy + 1) * grid_size, Ny); y++) {
    for (int x = gx * grid_size; x < std::min((gx + 1) * grid_size, Nx); x++) {
      const size_t i = static_cast<size_t>(y) * Nx + x;
      const float off = std::fabs(ws->host_lave[i] - usual);
      if (!ws->bad[i] || off <= worst) continue;
      worst = off;
      ws->host_grid[cell] = static_cast<unsigned>(i);
      ws->host_grid_lave[cell] = ws->host_lave[i];
      ws->host_grid_lsigma[cell] = ws->host_lsigma[i];
    }
  }
}

// The pixels' own limits: fills the host's maps and grids.
void close_pixels(IceWorkspace* ws, int Nx, int Ny, int grid_size) {
  const IceSettings& s = ws->settings;
  const size_t bytes = static_cast<size_t>(Nx) * Ny * sizeof(float);
  CHECK_DEVICE(cudaMemcpy(ws->host_lave, ws->lave_map, bytes, cudaMemcpyDeviceToHost));
  CHECK_DEVICE(cudaMemcpy(ws->host_lsigma, ws->lsigma_map, bytes, cudaMemcpyDeviceToHost));
  const RobustIceLimits limits = find_robust_ice({Nx, Ny, s.true_nx, s.true_ny, s.particle, s.reach}, ws->host_lave,
                                                 ws->host_lsigma, ws->bad, ws->host_open);
  for (int gy = 0; gy < ws->grid_ny; gy++)
    for (int gx = 0; gx < ws->grid_nx; gx++) record_worst_pixel(ws, Nx, Ny, grid_size, limits.average, gx, gy);
}

// The cells' given limits: marks cells of d_grid and copies what was found to the host.
void close_cells_by_limits(IceWorkspace* ws, int Nx, int Ny, unsigned* d_grid, int grid_size) {
  const IceSettings& s = ws->settings;
  hcuda_find_sigma_grids(ws->lave_map, ws->lsigma_map, d_grid, ws->grid_lave, ws->grid_lsigma, Nx, Ny, grid_size,
                         s.lave_min, s.lave_max, s.lsigma_cutoff);
  CHECK_DEVICE(cudaMemcpy(ws->host_grid, d_grid, cells_of(ws) * sizeof(unsigned), cudaMemcpyDeviceToHost));
  CHECK_DEVICE(cudaMemcpy(ws->host_grid_lave, ws->grid_lave, cells_of(ws) * sizeof(float), cudaMemcpyDeviceToHost));
  CHECK_DEVICE(cudaMemcpy(ws->host_grid_lsigma, ws->grid_lsigma, cells_of(ws) * sizeof(float), cudaMemcpyDeviceToHost));
}

}  // namespace

IceWorkspace ice_workspace_new(MirrorPad* pad, int grid_nx, int grid_ny, const IceSettings& settings) {
  IceWorkspace ws{};
  ws.settings = settings;
  ws.grid_nx = grid_nx;
  ws.grid_ny = grid_ny;
  const size_t pixels = static_cast<size_t>(pad->nx) * pad->ny;
  CHECK_DEVICE(cudaMalloc(&ws.lsigma_map, pixels * sizeof(float)));
  CHECK_DEVICE(cudaMalloc(&ws.lave_map, pixels * sizeof(float)));
  CHECK_DEVICE(cudaMalloc(&ws.scratch, pixels * sizeof(float)));
  CHECK_DEVICE(cudaMalloc(&ws.grid_lave, cells_of(&ws) * sizeof(float)));
  CHECK_DEVICE(cudaMalloc(&ws.grid_lsigma, cells_of(&ws) * sizeof(float)));
  ws.host_grid = host_cells<unsigned>(&ws);
  ws.host_grid_lave = host_cells<float>(&ws);
  ws.host_grid_lsigma = host_cells<float>(&ws);
  ws.lsigma_window = disc_window_new(pad, settings.lsigma_radius, settings.edge_width);
  ws.lave_window = disc_window_new(pad, settings.lave_radius, settings.edge_width);
  if (settings.robust) allocate_pixels(&ws, pixels);
  return ws;
}

void ice_workspace_free(IceWorkspace* ws) {
  for (float* buffer : {ws->lsigma_map, ws->lave_map, ws->scratch, ws->grid_lave, ws->grid_lsigma}) cudaFree(buffer);
  cudaFreeHost(ws->host_grid);
  cudaFreeHost(ws->host_grid_lave);
  cudaFreeHost(ws->host_grid_lsigma);
  for (float* map : {ws->host_lave, ws->host_lsigma, ws->host_open}) free(map);
  free(ws->bad);
  disc_window_free(&ws->lsigma_window);
  disc_window_free(&ws->lave_window);
  *ws = IceWorkspace{};
}

void hcuda_2d_ice_detect(MirrorPad* pad, IceWorkspace* ws, const float* d, int Nx, int Ny, int2 origin,
                         unsigned* d_grid, int grid_size, const char* mic_name) {
  const IceSettings& settings = ws->settings;
  hcuda_2d_mpad_transform(pad, d);
  hcuda_2d_local_ave_softR_mpad(pad, &ws->lave_window, ws->lave_map);
  hcuda_2d_local_sigma_softR_mpad(pad, &ws->lsigma_window, d, ws->lsigma_map, ws->scratch);
  if (settings.robust) {
    close_pixels(ws, Nx, Ny, grid_size);
  } else {
    close_cells_by_limits(ws, Nx, Ny, d_grid, grid_size);
  }
  if (settings.write_rejected) write_rejected_lists(ws, Nx, Ny, origin, grid_size, mic_name, settings.shrink);
  if (settings.write_lave) write_map(ws->lave_map, Nx, Ny, mic_name, "_bg.mrc");
  if (settings.write_lsigma) write_map(ws->lsigma_map, Nx, Ny, mic_name, "_lsigma.mrc");
}

void hcuda_find_sigma_grids(const float* lave, const float* lsigma, unsigned* d_grid, float* grid_lave,
                            float* grid_lsigma, int Nx, int Ny, int box, float lave_min, float lave_max,
                            float lsigma_cutoff) {
  const int grid_nx = (Nx - 1) / box + 1;
  const int grid_ny = (Ny - 1) / box + 1;
  const MapLimits limits{lave_min, lave_max, lsigma_cutoff};
  CHECK_DEVICE(launch_cells<cuda_find_sigma_grids>(grid_nx, grid_ny, lave, lsigma, d_grid, grid_lave, grid_lsigma, Nx,
                                                   Ny, grid_nx, box, limits));
}

void output_ice_coord(const char* file, const unsigned* grid, const float* grid_lave, const float* grid_lsigma, int Nx,
                      int Ny, int2 origin, int box, int shrink, int format) {
  FILE* out = KESTRIX_OUTPUT_OPEN(file);
  if (format == 1) output_starbox_head_XYonly(out);
  const int grid_nx = (Nx - 1) / box + 1;
  const int grid_ny = (Ny - 1) / box + 1;
  const int half = box / 2;
  for (size_t i = 0; i < static_cast<size_t>(grid_nx) * grid_ny; i++) {
    const int x = static_cast<int>(grid[i] % static_cast<unsigned>(Nx));
    const int y = static_cast<int>(grid[i] / static_cast<unsigned>(Nx));
    const bool listed = grid[i] != 0 && half < x && x < Nx - half && half < y && y < Ny - half;
    if (!listed) continue;
    if (format == 1) {
      fprintf(out, "%-8d%-8d\n", x * shrink + origin.x, y * shrink + origin.y);
    } else {
      fprintf(out, "%-8d%-8d%-8d%-8d\t%-8.6f\t%-8.6f\n", (x - half) * shrink + origin.x, (y - half) * shrink + origin.y,
              box * shrink, box * shrink, grid_lave[i], grid_lsigma[i]);
    }
  }
  KESTRIX_OUTPUT_CLOSE(out);
}
