// The final selection of the unit boxfile: from the candidates of all templates to the written list of picks.

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>

#include "boxfile.h"
#include "compute/text_numbers.h"
#include "particles/pick_records.h"
#include "platform/failure.h"
#include "platform/host_memory.h"
#include "platform/outputs.h"
#include "str_utils.h"
#include "txt_file.h"

namespace {

constexpr char unit[] = "boxfile";

// What the selection goes by; positions and distances in shrunk pixels, boxes in raw pixels.
struct Selection {
  int shrink_nx, shrink_ny;
  int cell;          // side of a cell
  double min_dist2;  // square of the least distance
  float cc_cutoff;
  float shrink;  // raw pixels per shrunk pixel
  int box_w, box_h;
  int2 origin;
};

// The best candidate of one cell.
struct Pick {
  uint32_t pixel;      // y*shrink_nx + x; 0: no candidate, or a removed one
  int template_index;  // -1: none
  float score;         // stays when the candidate is removed
  float psi;
};

struct PickGrid {
  long gx, gy;
  Pick* cells;  // gx*gy, row-major
};

struct ExcludedBoxes {
  PTCL_BOX* boxes;
  int n;
};

long cells_along(int side, int cell) { return std::max(0L, (static_cast<long>(side) + cell - 1) / cell); }

PickGrid new_grid(const Selection& s) {
  PickGrid grid{cells_along(s.shrink_nx, s.cell), cells_along(s.shrink_ny, s.cell), nullptr};
  if (grid.gx * grid.gy > INT_MAX)
    KESTRIX_FATAL("an image of %d x %d has too many cells of %d pixels", s.shrink_nx, s.shrink_ny, s.cell);
  grid.cells = host_new<Pick>(static_cast<size_t>(grid.gx * grid.gy));
  std::fill_n(grid.cells, grid.gx * grid.gy, Pick{0, -1, 0.0f, 0.0f});
  return grid;
}

int pixel_x(const Selection& s, uint32_t pixel) { return static_cast<int>(pixel % static_cast<uint32_t>(s.shrink_nx)); }

uint32_t pixel_y(const Selection& s, uint32_t pixel) { return pixel / static_cast<uint32_t>(s.shrink_nx); }

// --- Best candidate per cell ---

void offer_candidate(const Selection& s, PickGrid& grid, const CandidatePick& candidate) {
  const long x = candidate.x;
  const long y = candidate.y;
  if (x < 0 || y < 0 || x / s.cell >= grid.gx || y / s.cell >= grid.gy) return;
  Pick& best = grid.cells[y / s.cell * grid.gx + x / s.cell];
  if (!(best.score < candidate.score)) return;
  // A centre past the image's right edge, in the last column of cells, wraps into the next row.
  best.pixel = static_cast<uint32_t>(y * s.shrink_nx + x);
  best.template_index = candidate.template_index;
  best.score = candidate.score;
  best.psi = candidate.psi;
}

void read_candidates(const Selection& s, PickGrid& grid, FILE* file) {
  CandidatePick candidate;
  while (read_next_candidate(file, &candidate)) offer_candidate(s, grid, candidate);
}

// --- Neighbours and score ---

// In double, so that no coordinates read from a file overflow; exact for all that a micrograph can hold.
double squared_length(double dx, double dy) { return dx * dx + dy * dy; }

bool is_beaten(const Selection& s, const Pick& pick, const Pick& neighbour) {
  const double dx = static_cast<double>(pixel_x(s, pick.pixel)) - pixel_x(s, neighbour.pixel);
  const double dy = static_cast<double>(pixel_y(s, pick.pixel)) - pixel_y(s, neighbour.pixel);
  return squared_length(dx, dy) < s.min_dist2 && pick.score <= neighbour.score;
}

// A cell at the grid's edge is its own neighbour where it lacks one, and so beats itself: no pick survives
// there.
bool is_beaten_nearby(const Selection& s, const PickGrid& grid, long column, long row) {
  const Pick* cell = &grid.cells[row * grid.gx + column];
  const long up = row < grid.gy - 1 ? grid.gx : 0;
  const long down = row > 0 ? -grid.gx : 0;
  const long right = column < grid.gx - 1 ? 1 : 0;
  const long left = column > 0 ? -1 : 0;
  const long steps[] = {up, down, right, left, up + right, up + left, down + right, down + left};
  for (const long step : steps)
    if (is_beaten(s, *cell, cell[step])) return true;
  return false;
}

// In place and in order: a removed pick no longer beats the ones after it, one that is yet to be removed
// does.
void remove_beaten_and_weak(const Selection& s, PickGrid& grid) {
  for (long row = 0; row < grid.gy; row++) {
    for (long column = 0; column < grid.gx; column++) {
      Pick& pick = grid.cells[row * grid.gx + column];
      if (is_beaten_nearby(s, grid, column, row) || pick.score < s.cc_cutoff) pick.pixel = 0;
    }
  }
}

void remove_weak(const Selection& s, PickGrid& grid) {
  for (long i = 0; i < grid.gx * grid.gy; i++)
    if (grid.cells[i].score < s.cc_cutoff) grid.cells[i].pixel = 0;
}

// --- Excluded boxes ---

ExcludedBoxes read_excluded(const PickGrid& grid, const char* name) {
  ExcludedBoxes excluded{nullptr, 0};
  if (!check_box_file(name)) return excluded;
  const auto capacity = static_cast<int>(grid.gx * grid.gy);
  excluded.boxes = host_new<PTCL_BOX>(static_cast<size_t>(capacity));
  excluded.n = read_all_ptcl_boxes(excluded.boxes, capacity, name);
  return excluded;
}

bool is_near(const Selection& s, double x, double y, const PTCL_BOX& box) {
  const int half_w = box.w / 2;
  const int half_h = box.h / 2;
  const double dx = (s.origin.x + x) - (static_cast<double>(box.x) + half_w);
  const double dy = (s.origin.y + y) - (static_cast<double>(box.y) + half_h);
  return static_cast<float>(squared_length(dx, dy)) < static_cast<float>(s.min_dist2) * s.shrink * s.shrink;
}

void remove_excluded(const Selection& s, PickGrid& grid, const ExcludedBoxes& excluded) {
  for (long i = 0; i < grid.gx * grid.gy; i++) {
    Pick& pick = grid.cells[i];
    if (pick.pixel == 0) continue;
    const int x = saturating_int(static_cast<float>(pixel_x(s, pick.pixel)) * s.shrink);
    const int y = saturating_int(static_cast<float>(pixel_y(s, pick.pixel)) * s.shrink);
    const auto near = [&](const PTCL_BOX& box) { return is_near(s, x, y, box); };
    if (std::any_of(excluded.boxes, excluded.boxes + excluded.n, near)) pick.pixel = 0;
  }
}

// --- Output ---

int written_coordinate(float v, int origin) { return saturating_int(static_cast<double>(saturating_int(v)) + origin); }

// Writes the pick if its box lies within the image.
void write_pick(const Selection& s, FILE* file, const Pick& pick, int kind) {
  const float x = static_cast<float>(pixel_x(s, pick.pixel)) * s.shrink;
  const float y = static_cast<float>(pixel_y(s, pick.pixel)) * s.shrink;
  const int half_w = s.box_w / 2;
  const int half_h = s.box_h / 2;
  const auto left = static_cast<float>(half_w);
  const auto bottom = static_cast<float>(half_h);
  const bool inside = left < x && x < static_cast<float>(s.shrink_nx) * s.shrink - left && bottom < y &&
                      y < static_cast<float>(s.shrink_ny) * s.shrink - bottom;
  if (!inside) return;
  if (kind == 2) {
    fprintf(file, "%-8d%-8d%-8d%-8d%-8.6f\t%-8d%-8.6f\n", written_coordinate(x - left, s.origin.x),
            written_coordinate(y - bottom, s.origin.y), s.box_w, s.box_h, pick.score, pick.template_index, pick.psi);
  } else if (kind == 1) {
    fprintf(file, "%-8d%-8d%-8.6f\t%-8d%-8.6f\n", written_coordinate(x, s.origin.x), written_coordinate(y, s.origin.y),
            pick.psi, pick.template_index, pick.score);
  }
}

void write_picks(const Selection& s, FILE* file, const PickGrid& grid, int kind) {
  if (kind == 1) output_starbox_head(file);
  for (long i = 0; i < grid.gx * grid.gy; i++) {
    const Pick& pick = grid.cells[i];
    if (pick.template_index != -1 && pick.pixel != 0) write_pick(s, file, pick, kind);
  }
}

// Both forms of the selection: of any candidates, or of such as are far enough apart already.
int select_candidates(int shrink_nx, int shrink_ny, float min_dist, float cc_cutoff, float shrink, int box_w, int box_h,
                      int2 origin, const char* candidates, const char* excluded, const char* out, int kind,
                      bool distinct) {
  const int cell = box_filter_cell_size(min_dist);
  if (cell < 1)
    fatal_error("box_filter", unit, __LINE__, "the least distance of two picks, %g shrunk pixels, is too small",
                static_cast<double>(min_dist));
  const double min_dist2 = 2.0 * cell * cell;
  const Selection s{shrink_nx, shrink_ny, cell, min_dist2, cc_cutoff, shrink, box_w, box_h, origin};
  FILE* candidate_file = open_to_read(candidates, "box_filter", unit, __LINE__);
  FILE* file = output_open(out, "box_filter", unit, __LINE__);

  PickGrid grid = new_grid(s);
  read_candidates(s, grid, candidate_file);
  if (distinct) {
    remove_weak(s, grid);
  } else {
    remove_beaten_and_weak(s, grid);
  }
  const ExcludedBoxes excluded_boxes = read_excluded(grid, excluded);
  remove_excluded(s, grid, excluded_boxes);
  write_picks(s, file, grid, kind);

  KESTRIX_OUTPUT_CLOSE(file);
  fclose(candidate_file);
  free(excluded_boxes.boxes);
  free(grid.cells);
  return 0;
}

}  // namespace

int box_filter_cell_size(float min_dist) { return saturating_int(1.41421354f * min_dist / 2.0f); }

int box_filter(int shrink_nx, int shrink_ny, float min_dist, float cc_cutoff, float shrink, int box_w, int box_h,
               int2 origin, const char* candidates, const char* excluded, const char* out, int kind) {
  return select_candidates(shrink_nx, shrink_ny, min_dist, cc_cutoff, shrink, box_w, box_h, origin, candidates,
                           excluded, out, kind, false);
}

int box_filter_distinct(int shrink_nx, int shrink_ny, float min_dist, float cc_cutoff, float shrink, int box_w,
                        int box_h, int2 origin, const char* candidates, const char* excluded, const char* out,
                        int kind) {
  return select_candidates(shrink_nx, shrink_ny, min_dist, cc_cutoff, shrink, box_w, box_h, origin, candidates,
                           excluded, out, kind, true);
}

int output_starbox_head(FILE* file) {
  output_starbox_head_XYonly(file);
  fprintf(file, "_rlnAnglePsi #3\n_rlnClassNumber #4\n_rlnAutopickFigureOfMerit #5\n");
  return 0;
}

int output_starbox_head_XYonly(FILE* file) {
  rewind(file);
  fprintf(file, "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n");
  return 0;
}
