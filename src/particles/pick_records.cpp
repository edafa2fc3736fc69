#include "particles/pick_records.h"

#include "str_utils.h"

int set_name_shrinked_box(char* out, const char* mic, int /*shrink*/) {
  return set_outname_by_suffix(out, mic, "_nonunique.box");
}

int output_quorlin_coord_one_temp(FILE* file, const unsigned* grid_index, const float* grid_cc, const float* grid_psi,
                                  int template_index, int n_cells, int nx, int ny, int box) {
  const long half = box / 2;
  const auto width = static_cast<unsigned>(nx);
  for (int i = 0; i < n_cells; i++) {
    if (grid_index[i] == 0) continue;
    const long x = grid_index[i] % width;
    const long y = grid_index[i] / width;
    const bool inside = half < x && x < nx - half && half < y && y < ny - half;
    if (!inside) continue;
    fprintf(file, "%-8d%-8d%-8d%-8d%-8.6f\t%-8d\t%-8.3f\n", static_cast<int>(x - half), static_cast<int>(y - half), box,
            box, grid_cc[i], template_index, grid_psi[i]);
  }
  return 0;
}
