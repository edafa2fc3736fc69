#include "particles/pick_records.h"

#include "compute/text_numbers.h"
#include "str_utils.h"
#include "txt_file.h"

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

bool read_next_candidate(FILE* file, CandidatePick* candidate) {
  constexpr int kColumns = 7;
  char line[kTextBytes];
  char* columns[kColumns];
  while (read_next_line(line, file)) {
    if (strnsplit_inplace(line, " \t\n", columns, kColumns) < kColumns) continue;
    candidate->x = text_to_int(columns[0]) + text_to_int(columns[2]) / 2L;
    candidate->y = text_to_int(columns[1]) + text_to_int(columns[3]) / 2L;
    candidate->score = static_cast<float>(text_to_real(columns[4]));
    candidate->template_index = text_to_int(columns[5]);
    candidate->psi = static_cast<float>(text_to_real(columns[6]));
    return true;
  }
  return false;
}
