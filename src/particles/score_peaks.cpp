#include "particles/score_peaks.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "particles/point_grid.h"
#include "platform/host_memory.h"
#include "platform/loops.h"

namespace {

bool is_higher(const ScorePeak& a, const ScorePeak& b) {
  return a.score != b.score ? a.score > b.score : a.pixel < b.pixel;
}

// Marks the local maxima of a row, or the local minima: pixels above the neighbours before them and not below those after
// them, so that of a plateau the first one counts.
template <bool Minima>
KERNEL_LOOP void mark_maxima(const float* row, const float* open, int x0, int x1, size_t nx, unsigned char* marks) {
  const float* up = row - nx;
  const float* down = row + nx;
  constexpr float kSign = Minima ? -1.0f : 1.0f;
#pragma omp simd
  for (int x = x0; x < x1; x++) {
    const float v = kSign * row[x];
    const int above = static_cast<int>(v > kSign * up[x - 1]) & static_cast<int>(v > kSign * up[x]) &
                      static_cast<int>(v > kSign * up[x + 1]) & static_cast<int>(v > kSign * row[x - 1]);
    const int not_below = static_cast<int>(v >= kSign * row[x + 1]) & static_cast<int>(v >= kSign * down[x - 1]) &
                          static_cast<int>(v >= kSign * down[x]) & static_cast<int>(v >= kSign * down[x + 1]);
    marks[x] = static_cast<unsigned char>(above & not_below & static_cast<int>(open[x] != 0.0f));
  }
}

// The local maxima of sign * map in row y, which has room for them. Returns how many. marks: nx of scratch.
int maxima_of_row(const float* map, float sign, float scale, const PeakArea& area, int y, unsigned char* marks,
                  ScorePeak* found) {
  const auto nx = static_cast<size_t>(area.nx);
  const size_t first = static_cast<size_t>(y) * nx;
  const auto mark = sign < 0 ? mark_maxima<true> : mark_maxima<false>;
  mark(map + first, area.open + first, area.x0, area.x1, nx, marks);
  int count = 0;
  for (int x = area.x0; x < area.x1; x++)
    if (marks[x]) found[count++] = {scale * sign * map[first + static_cast<size_t>(x)], static_cast<int>(first) + x};
  return count;
}

// All local maxima, row by row.
PeakList local_maxima(const float* map, float sign, float scale, const PeakArea& area) {
  const int rows = area.x1 > area.x0 ? std::max(area.y1 - area.y0, 0) : 0;
  // No two neighbours in a row are both maxima.
  const size_t room = rows > 0 ? static_cast<size_t>(area.x1 - area.x0) / 2 + 1 : 0;
  auto* counts = host_new<int>(static_cast<size_t>(rows));
  auto* marks = host_new<unsigned char>(static_cast<size_t>(rows) * static_cast<size_t>(area.nx));
  PeakList list{host_new<ScorePeak>(static_cast<size_t>(rows) * room), 0};
#pragma omp parallel for schedule(static)
  for (int row = 0; row < rows; row++)
    counts[row] = maxima_of_row(map, sign, scale, area, area.y0 + row,
                                marks + static_cast<size_t>(row) * static_cast<size_t>(area.nx),
                                list.peaks + static_cast<size_t>(row) * room);
  for (int row = 0; row < rows; row++) {
    std::copy_n(list.peaks + static_cast<size_t>(row) * room, counts[row], list.peaks + list.n);
    list.n += counts[row];
  }
  free(marks);
  free(counts);
  return list;
}

}  // namespace

PeakList find_peaks(const float* map, float sign, float scale, const PeakArea& area) {
  PeakList list = local_maxima(map, sign, scale, area);
  std::sort(list.peaks, list.peaks + list.n, is_higher);
  PointGrid grid = point_grid_new(area.nx, area.y1 + 1, area.least_distance, list.n);
  int taken = 0;
  for (int i = 0; i < list.n; i++) {
    const ScorePeak peak = list.peaks[i];
    const int x = peak.pixel % area.nx;
    const int y = peak.pixel / area.nx;
    if (is_point_near(grid, x, y)) continue;
    point_grid_add(&grid, x, y);
    list.peaks[taken++] = peak;
  }
  list.n = taken;
  point_grid_free(&grid);
  return list;
}

void peak_list_free(PeakList* list) {
  free(list->peaks);
  *list = PeakList{};
}

int peaks_from(const PeakList& list, float score) {
  int n = 0;
  while (n < list.n && list.peaks[n].score >= score) n++;
  return n;
}
