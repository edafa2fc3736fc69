// Searches and marks in the cells of a grid.
#include <string>

#include "conditioning.h"
#include "device_record.h"
#include "quorlin56.h"

namespace {

struct Grid {
  int nx, ny, cell;
};

int cells_along(int n, int cell) { return (n - 1) / cell + 1; }

std::string tail(const Grid& g) {
  return "/" + std::to_string(g.nx) + "x" + std::to_string(g.ny) + "." + std::to_string(g.cell);
}

void record_ice_cells(DeviceRecord& record, const Grid& g) {
  const int grid_nx = cells_along(g.nx, g.cell);
  const int grid_ny = cells_along(g.ny, g.cell);
  const size_t pixels = static_cast<size_t>(g.nx) * g.ny;
  const size_t cells = static_cast<size_t>(grid_nx) * grid_ny;
  const OnDevice<float> average(noise(pixels, 91));
  const OnDevice<float> sigma(noise(pixels, 92));
  const OnDevice<unsigned> marks(cells);
  const OnDevice<float> cell_average(cells);
  const OnDevice<float> cell_sigma(cells);
  hcuda_find_sigma_grids(average.data, sigma.data, marks.data, cell_average.data, cell_sigma.data, g.nx, g.ny, g.cell,
                         -0.97f, 0.98f, 0.99f);
  record_array(record, "find_sigma_grids.marks" + tail(g), marks, grid_nx, grid_ny, kSameBits);
  record_array(record, "find_sigma_grids.average" + tail(g), cell_average, grid_nx, grid_ny, kSameBits);
  record_array(record, "find_sigma_grids.sigma" + tail(g), cell_sigma, grid_nx, grid_ny, kSameBits);

  const PTCL_BOX boxes[] = {{0, 0, 4, 4, 0, 0, 0}, {20, 9, 10, 10, 0, 0, 0}, {21, 9, 10, 10, 0, 0, 0}};
  add_excluded_coords_to_ice(marks.data, g.nx, g.ny, g.cell, boxes, 3, 1);
  record_array(record, "add_excluded_coords_to_ice" + tail(g), marks, grid_nx, grid_ny, kSameBits);

  const OnDevice<float> mask(pixels);
  for (const int value : {0, 1}) {
    hcuda_2d_generate_mask_by_coords(mask.data, g.nx, g.ny, g.cell, marks.data, value);
    record_array(record, "2d_generate_mask_by_coords." + std::to_string(value) + tail(g), mask, g.nx, g.ny, kSameBits);
  }
}

// Peaks of a map in which many pixels are equal, with excluded points.
void record_peaks(DeviceRecord& record, const Grid& g) {
  const int grid_nx = cells_along(g.nx, g.cell);
  const int grid_ny = cells_along(g.ny, g.cell);
  const size_t pixels = static_cast<size_t>(g.nx) * g.ny;
  const size_t cells = static_cast<size_t>(grid_nx) * grid_ny;
  std::vector<float> coarse = noise(pixels, 93);
  for (float& v : coarse) v = static_cast<float>(static_cast<int>(v * 50)) / 50;
  std::vector<unsigned> points(cells);
  for (size_t i = 0; i < cells; i += 7) points[i] = static_cast<unsigned>((i * 577) % pixels);
  const OnDevice<float> ccmax(coarse);
  const OnDevice<float> psi(noise(pixels, 94));
  const OnDevice<unsigned> excluded(points);
  std::vector<unsigned> index(cells);
  std::vector<float> cc(cells);
  std::vector<float> angle(cells);
  PeakWorkspace ws = peak_workspace_new(grid_nx, grid_ny);
  gpu_find_filter_ccmax_psi_grids_exclusive(&ws, ccmax.data, psi.data, index.data(), cc.data(), angle.data(), 0.9f,
                                            g.nx, g.ny, g.cell, excluded.data, static_cast<unsigned>(cells));
  peak_workspace_free(&ws);
  record_values(record, "peaks.index" + tail(g), index.data(), grid_nx, grid_ny, kSameBits);
  record_values(record, "peaks.cc" + tail(g), cc.data(), grid_nx, grid_ny, kSameBits);
  record_values(record, "peaks.psi" + tail(g), angle.data(), grid_nx, grid_ny, kSameBits);
}

}  // namespace

void record_cell_cases(DeviceRecord& record) {
  for (const Grid& g : {Grid{64, 64, 8}, Grid{100, 60, 7}, Grid{250, 250, 3}, Grid{40, 40, 64}}) {
    record_ice_cells(record, g);
    record_peaks(record, g);
  }
}
