#include "matching/host_scan/candidates.h"

#include <omp.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "platform/host_memory.h"
#include "platform/loops.h"
#include "transforms/lane_fft.h"

namespace {

constexpr size_t kFirstRoom = 4096;

// A Lane from anywhere in memory.
__attribute__((always_inline)) inline Lane load(const float* from) {
  Lane lane;
  memcpy(&lane, from, sizeof lane);
  return lane;
}

// The sum over `height` rows of the products of pixels, the template's rows being `width` floats with zeros at the end.
KERNEL_LOOP float correlate(const float* mic, size_t mic_width, const float* T, size_t width, int height) {
  Lane sum{}, other_sum{}, third_sum{}, fourth_sum{};
  for (int y = 0; y < height; y++, mic += mic_width, T += width) {
    size_t x = 0;
    for (; x + 4 * kLanes <= width; x += 4 * kLanes) {
      sum += load(mic + x) * load(T + x);
      other_sum += load(mic + x + kLanes) * load(T + x + kLanes);
      third_sum += load(mic + x + 2 * kLanes) * load(T + x + 2 * kLanes);
      fourth_sum += load(mic + x + 3 * kLanes) * load(T + x + 3 * kLanes);
    }
    for (; x < width; x += kLanes) sum += load(mic + x) * load(T + x);
  }
  sum = (sum + other_sum) + (third_sum + fourth_sum);
  return ((sum[0] + sum[1]) + (sum[2] + sum[3])) + ((sum[4] + sum[5]) + (sum[6] + sum[7]));
}

// The correlation of a box whose score belongs to the pixel.
float correlation_of(const WrappedImage& mic, const TurnedBoxes& boxes, unsigned pixel, int angle) {
  const auto nx = static_cast<unsigned>(mic.nx);
  const int place_x = place_of_score(mic.nx, mic.T_nx);
  const int place_y = place_of_score(mic.ny, mic.T_ny);
  const auto x = static_cast<size_t>((static_cast<int>(pixel % nx) - place_x + mic.nx) % mic.nx);
  const auto y = static_cast<size_t>((static_cast<int>(pixel / nx) - place_y + mic.ny) % mic.ny);
  return correlate(mic.pixels + y * mic.width + x, mic.width, box_at(boxes, angle), boxes.width, mic.T_ny);
}

// The candidates that reach the limits, those of the same cell together; where each cell's begin in `begins`
// (n_cells + 1).
void sort_by_cells(const CandidateList* lists, int n_lists, const float* limits, size_t n_cells, Candidate* sorted,
                   size_t* begins) {
  const auto for_each = [&](auto f) {
    for (const CandidateList* list = lists; list < lists + n_lists; list++)
      for (const Candidate* c = list->items; c < list->items + list->count; c++)
        if (c->value >= limits[c->cell]) f(*c);
  };
  std::fill_n(begins, n_cells + 1, size_t{0});
  for_each([&](const Candidate& c) { begins[c.cell]++; });
  // Filled from the ends, so that the ends become the begins.
  for (size_t cell = 1; cell <= n_cells; cell++) begins[cell] += begins[cell - 1];
  for_each([&](const Candidate& c) { sorted[--begins[c.cell]] = c; });
}

// Whether a comes before b as the peak of a cell.
bool is_before(const CellPeak& a, const CellPeak& b) {
  if (b.angle < 0) return true;
  if (a.value > b.value || a.value < b.value) return a.value > b.value;
  return a.pixel != b.pixel ? a.pixel < b.pixel : a.angle < b.angle;
}

// Of candidates with equal values any order will do, as long as it is one.
bool is_less_promising(const Candidate& a, const Candidate& b) {
  if (a.value < b.value || b.value < a.value) return a.value < b.value;
  return a.pixel != b.pixel ? a.pixel > b.pixel : a.angle > b.angle;
}

// Sums up the candidates of a cell, first to end - 1, that may be better than its peak.
void update_peak(const WrappedImage& mic, const TurnedBoxes& boxes, int first_angle, Candidate* first, Candidate* end,
                 float error, CellPeak* known) {
  // Behind the most promising one few others are left in question.
  if (first != end) std::swap(*first, *std::max_element(first, end, is_less_promising));
  for (const Candidate* c = first; c != end; c++) {
    if (known->angle >= 0 && c->value + error < known->value) continue;
    const CellPeak peak{correlation_of(mic, boxes, c->pixel, c->angle), c->pixel, first_angle + c->angle};
    if (is_before(peak, *known)) *known = peak;
  }
}

}  // namespace

void candidates_drop(CandidateList* list, const float* limits) {
  const Candidate* end = std::remove_if(list->items, list->items + list->count,
                                        [&](const Candidate& c) { return c.value < limits[c.cell]; });
  list->count = static_cast<size_t>(end - list->items);
}

void candidates_add(CandidateList* list, const Candidate& candidate, const float* limits) {
  if (list->count == list->room) {
    candidates_drop(list, limits);
    if (list->count > list->room / 2 || list->room == 0) {
      list->room = std::max(2 * list->room, kFirstRoom);
      auto* items = host_new<Candidate>(list->room);
      std::copy_n(list->items, list->count, items);
      free(list->items);
      list->items = items;
    }
  }
  list->items[list->count++] = candidate;
}

WrappedImage wrapped_image_new(int nx, int ny, int T_nx, int T_ny) {
  WrappedImage image{nx, ny, T_nx, T_ny, 0, nullptr};
  image.width = static_cast<size_t>(nx) + static_cast<size_t>(T_nx) + kLanes;
  image.pixels = host_new<float>(image.width * (static_cast<size_t>(ny) + static_cast<size_t>(T_ny)));
  return image;
}

void wrapped_image_free(WrappedImage* image) {
  free(image->pixels);
  *image = WrappedImage{};
}

void wrapped_image_set(WrappedImage* image, const float* mic) {
  const auto nx = static_cast<size_t>(image->nx);
#pragma omp parallel for schedule(static)
  for (int y = 0; y < image->ny + image->T_ny; y++) {
    const float* row = mic + static_cast<size_t>(y % image->ny) * nx;
    float* to = image->pixels + static_cast<size_t>(y) * image->width;
    memcpy(to, row, nx * sizeof(float));
    for (size_t x = nx; x < image->width; x++) to[x] = row[x % nx];
  }
}

void update_peaks(const WrappedImage& mic, const TurnedBoxes& boxes, int first_angle, const CandidateList* lists,
                  int n_lists, const float* limits, const float* errors, size_t n_cells, Candidate* sorted,
                  CellPeak* peaks) {
  auto* begins = host_new<size_t>(n_cells + 1);
  sort_by_cells(lists, n_lists, limits, n_cells, sorted, begins);
#pragma omp parallel for schedule(dynamic, 16)
  for (size_t cell = 0; cell < n_cells; cell++)
    update_peak(mic, boxes, first_angle, sorted + begins[cell], sorted + begins[cell + 1], errors[cell], peaks + cell);
  free(begins);
}

void update_peaks_alone(const WrappedImage& mic, const TurnedBoxes& boxes, int first_angle, CandidateList* list,
                        const float* errors, CellPeak* peaks) {
  std::sort(list->items, list->items + list->count,
            [](const Candidate& a, const Candidate& b) { return a.cell < b.cell; });
  for (size_t begin = 0, end; begin < list->count; begin = end) {
    const int cell = list->items[begin].cell;
    for (end = begin; end < list->count && list->items[end].cell == cell;) end++;
    update_peak(mic, boxes, first_angle, list->items + begin, list->items + end, errors[cell], peaks + cell);
  }
}

void take_best_candidates(const WrappedImage& mic, const TurnedBoxes& boxes, int first_angle,
                          const CandidateList* lists, int n_lists, size_t n_cells, CellPeak* peaks) {
  auto* best = host_new<Candidate>(n_cells);
  std::fill_n(best, n_cells, Candidate{0, -1, 0, 0});
  for (const CandidateList* list = lists; list < lists + n_lists; list++)
    for (const Candidate* c = list->items; c < list->items + list->count; c++)
      if (best[c->cell].cell < 0 || is_less_promising(best[c->cell], *c)) best[c->cell] = *c;
#pragma omp parallel for schedule(dynamic, 16)
  for (size_t cell = 0; cell < n_cells; cell++)
    if (best[cell].cell >= 0)
      update_peak(mic, boxes, first_angle, best + cell, best + cell + 1, std::numeric_limits<float>::infinity(),
                  peaks + cell);
  free(best);
}
