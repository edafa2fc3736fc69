// Areas that the user excludes, and the mask that the marked cells make.
#include <algorithm>
#include <cstdio>

#include "conditioning/conditioning.h"
#include "conditioning/conditioning_kernels.h"
#include "cuda_general.h"
#include "platform/failure.h"
#include "platform/launch.h"

namespace {

constexpr char unit[] = "quorlin56";

struct RawCentre {
  long x, y;
};

RawCentre raw_centre(const PTCL_BOX& box) {
  return {static_cast<long>(box.x) + box.w / 2, static_cast<long>(box.y) + box.h / 2};
}

bool is_inside(RawCentre raw, int Nx, int Ny, int shrink) {
  return raw.x >= 0 && raw.y >= 0 && raw.x / shrink < Nx && raw.y / shrink < Ny;
}

}  // namespace

void add_excluded_coords_to_ice(unsigned* d_grid, int Nx, int Ny, int box, const PTCL_BOX* boxes, int n, int shrink) {
  const long grid_nx = (Nx - 1) / box + 1;
  for (int i = 0; i < n; i++) {
    const RawCentre raw = raw_centre(boxes[i]);
    if (!is_inside(raw, Nx, Ny, shrink)) continue;
    const long cx = raw.x / shrink;
    const long cy = raw.y / shrink;
    const auto point = static_cast<unsigned>(cy * Nx + cx);
    CHECK_DEVICE(static_cast<cudaError_t>(memcpy_H2D(d_grid + (cy / box) * grid_nx + cx / box, &point, sizeof point)));
  }
}

void note_excluded_outside(const PTCL_BOX* boxes, int n, int Nx, int Ny, int shrink, const char* source) {
  const auto outside =
      std::count_if(boxes, boxes + n, [=](const PTCL_BOX& one) { return !is_inside(raw_centre(one), Nx, Ny, shrink); });
  if (outside == 0) return;
  safety_note(source,
              "%ld of %d excluded coordinates lie outside the image; is the list in raw pixels of this micrograph?",
              static_cast<long>(outside), n);
}

void add_excluded_boxf_to_ice(unsigned* d_grid, int Nx, int Ny, int box, const char* file, int shrink,
                              PTCL_BOX* boxes) {
  if (!check_box_file(file)) return;
  const int cells = ((Nx - 1) / box + 1) * ((Ny - 1) / box + 1);
  const int n = read_all_ptcl_boxes(boxes, cells, file);
  printf("%8d particles in file %s excluded from auto-picking \n", n, file);
  note_excluded_outside(boxes, n, Nx, Ny, shrink, file);
  add_excluded_coords_to_ice(d_grid, Nx, Ny, box, boxes, n, shrink);
}

void hcuda_2d_generate_mask_by_coords(float* mask, int Nx, int Ny, int box, const unsigned* d_grid, int value) {
  const int grid_nx = (Nx - 1) / box + 1;
  const int grid_ny = (Ny - 1) / box + 1;
  CHECK_DEVICE(launch_cells<cuda_2d_generate_mask_by_coords>(grid_nx, grid_ny, mask, Nx, Ny, grid_nx, box, d_grid,
                                                             static_cast<float>(value)));
}
