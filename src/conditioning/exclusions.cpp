// Areas that the user excludes, and the mask that the marked cells make.
#include <cstdio>

#include "conditioning.h"
#include "conditioning/conditioning_kernels.h"
#include "cuda_general.h"
#include "failure.h"
#include "platform/launch.h"
#include "str_utils.h"
#include "txt_file.h"

namespace {
constexpr char unit[] = "quorlin56";
}

void add_excluded_coords_to_ice(unsigned* d_grid, int Nx, int Ny, int box, const PTCL_BOX* boxes, int n, int shrink,
                                const char* source) {
  const long grid_nx = (Nx - 1) / box + 1;
  int outside = 0;
  for (int i = 0; i < n; i++) {
    const long raw_x = static_cast<long>(boxes[i].x) + boxes[i].w / 2;
    const long raw_y = static_cast<long>(boxes[i].y) + boxes[i].h / 2;
    const long cx = raw_x / shrink;
    const long cy = raw_y / shrink;
    if (raw_x < 0 || raw_y < 0 || cx >= Nx || cy >= Ny) {
      outside++;
      continue;
    }
    const auto point = static_cast<unsigned>(cy * Nx + cx);
    CHECK_DEVICE(static_cast<cudaError_t>(memcpy_H2D(d_grid + (cy / box) * grid_nx + cx / box, &point, sizeof point)));
  }
  if (outside > 0) safety_note(source, "%d of %d excluded coordinates lie outside the image; skipped.", outside, n);
}

void add_excluded_boxf_to_ice(unsigned* d_grid, int Nx, int Ny, int box, const char* file, int shrink,
                              PTCL_BOX* boxes) {
  if (is_str_null(file) || check_file_access(file, "FR") != 0) return;
  const int cells = ((Nx - 1) / box + 1) * ((Ny - 1) / box + 1);
  const int n = read_all_ptcl_boxes(boxes, cells, file);
  printf("%8d particles in file %s excluded from auto-picking \n", n, file);
  add_excluded_coords_to_ice(d_grid, Nx, Ny, box, boxes, n, shrink, file);
}

void hcuda_2d_generate_mask_by_coords(float* mask, int Nx, int Ny, int box, const unsigned* d_grid, int value) {
  const int grid_nx = (Nx - 1) / box + 1;
  const int grid_ny = (Ny - 1) / box + 1;
  CHECK_DEVICE(launch_cells<cuda_2d_generate_mask_by_coords>(grid_nx, grid_ny, mask, Nx, Ny, grid_nx, box, d_grid,
                                                             static_cast<float>(value)));
}
