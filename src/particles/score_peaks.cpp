#include "particles/score_peaks.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "particles/point_grid.h"
#include "platform/host_memory.h"

namespace {

bool is_higher(const ScorePeak& a, const ScorePeak& b) {
  return a.score != b.score ? a.score > b.score : a.pixel < b.pixel;
}

// Whether pixel i is a local maximum: above the neighbours before it and not below those after it, so that of a plateau
// the first pixel counts.
bool is_local_maximum(const float* map, float sign, size_t i, size_t nx) {
  const float v = sign * map[i];
  return v > sign * map[i - nx - 1] && v > sign * map[i - nx] && v > sign * map[i - nx + 1] && v > sign * map[i - 1] &&
         v >= sign * map[i + 1] && v >= sign * map[i + nx - 1] && v >= sign * map[i + nx] &&
         v >= sign * map[i + nx + 1];
}

// The local maxima of one row to `found`, which may be null. Returns how many.
int maxima_of_row(const float* map, float sign, float scale, const PeakArea& area, int y, ScorePeak* found) {
  const auto nx = static_cast<size_t>(area.nx);
  int count = 0;
  for (int x = area.x0; x < area.x1; x++) {
    const size_t i = static_cast<size_t>(y) * nx + static_cast<size_t>(x);
    if (area.open[i] == 0.0f || !is_local_maximum(map, sign, i, nx)) continue;
    if (found) found[count] = {scale * sign * map[i], static_cast<int>(i)};
    count++;
  }
  return count;
}

// All local maxima, row by row.
PeakList local_maxima(const float* map, float sign, float scale, const PeakArea& area) {
  const int rows = std::max(area.y1 - area.y0, 0);
  auto* first = host_new<int>(static_cast<size_t>(rows) + 1);
  first[0] = 0;
#pragma omp parallel for schedule(static)
  for (int row = 0; row < rows; row++)
    first[row + 1] = maxima_of_row(map, sign, scale, area, area.y0 + row, nullptr);
  for (int row = 0; row < rows; row++) first[row + 1] += first[row];
  PeakList list{host_new<ScorePeak>(static_cast<size_t>(first[rows])), first[rows]};
#pragma omp parallel for schedule(static)
  for (int row = 0; row < rows; row++)
    maxima_of_row(map, sign, scale, area, area.y0 + row, list.peaks + first[row]);
  free(first);
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
