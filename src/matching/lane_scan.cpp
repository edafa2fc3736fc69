#include "matching/lane_scan.h"

#include <omp.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "host_memory.h"
#include "matching/quorlin56_kernels.h"
#include "platform/lane_fft.h"
#include "platform/launch.h"

// Two real images make one complex one: with the templates T1 - i T2 and the micrograph's spectrum A,
//   A * conj(FFT(T1 - i T2)) = FFT(c1) + i FFT(c2),
// so that one inverse transform gives the correlations c1 and c2 of two angles as its real and imaginary part.
//
// Spectra lie in blocks of eight columns: value (x, y) is lane x % 8 of the LaneValue at x / 8 * rows + y. Maps lie in
// strips of eight rows: pixel (x, y) is lane y % 8 of the value at y / 8 * nx + x. A column's transform so runs over
// memory in order with eight columns as its lanes, a row's with eight rows, and between them stand transpositions of
// eight by eight values.
//
// The templates lie at the image's origin, so that correlation k belongs to template pixel 0 lying over pixel k; the
// place of the score, half a template on, is brought in when the maps are written. A side that doesn't transform well
// is continued periodically by the template's size to one that does: correlations at k below the true side then never
// wrap around.
struct LaneScan {
  int nx, ny, T_nx, T_ny;
  int pairs;                // pairs of angles in a batch
  LanePlan x_plan, y_plan;  // transforms of the padded sides
  size_t blocks;            // of eight columns of the padded width
  size_t rows;              // of a block: the padded height, up to a multiple of eight
  size_t T_rows;            // of a template: T_ny, up to a multiple of eight
  LaneValue* mic;           // blocks * rows: the micrograph's spectrum over the number of its values
  LaneValue* turned;        // pairs * blocks * T_rows: the templates' rows transformed
  LaneValue* products;      // pairs * blocks * rows: columns done, real and imaginary part exchanged
  LaneValue* maps;          // strips * nx: as re the largest correlation so far, as im its angle
  float* turned_pixels;     // 2 * pairs templates of T_rows rows of T_nx
  int threads;
  size_t scratch_values;  // of one thread's scratch
  LaneValue* scratch;     // threads * 3 * scratch_values
};

namespace {

// Bytes of spectra that a batch may take: beyond a few tens of MiB larger batches only cost memory.
constexpr size_t kBatchBytes = size_t{64} << 20;
constexpr int kMostPairs = 8;

size_t up_to_lanes(int n) { return (static_cast<size_t>(n) + kLanes - 1) / kLanes * kLanes; }

// The side to transform for images of side n and templates of side t.
int padded_side(int n, int t) {
  if (lane_plan_handles(n)) return n;
  int best = 0;
  double best_cost = std::numeric_limits<double>::infinity();
  for (int side = n + t - 1; side < 2 * (n + t); side++) {
    const double cost = lane_plan_handles(side) ? side * lane_plan_cost(side) : best_cost;
    if (cost < best_cost) {
      best = side;
      best_cost = cost;
    }
  }
  return best;
}

struct ThreadScratch {
  LaneValue *in, *out, *passes;
};

ThreadScratch scratch_of_thread(const LaneScan* scan) {
  LaneValue* first = scan->scratch + static_cast<size_t>(omp_get_thread_num()) * 3 * scan->scratch_values;
  return {first, first + scan->scratch_values, first + 2 * scan->scratch_values};
}

// Rows done (eight of them as the lanes of `row`) to blocks of columns: rows y to y + 7 of each of the blocks.
void scatter_rows(const LaneValue* row, LaneValue* blocks, size_t n_blocks, size_t rows, size_t y) {
  for (size_t b = 0; b < n_blocks; b++) {
    LaneValue* to = blocks + b * rows + y;
    const LaneValue* from = row + b * kLanes;
    lane_transpose(&from->re, 2, &to->re, 2);
    lane_transpose(&from->im, 2, &to->im, 2);
  }
}

void gather_rows(const LaneValue* blocks, LaneValue* row, size_t n_blocks, size_t rows, size_t y) {
  constexpr size_t kAhead = 4;  // blocks lie too far apart for the processor to see the next one coming
  for (size_t b = 0; b < n_blocks; b++) {
    const LaneValue* from = blocks + b * rows + y;
    if (b + kAhead < n_blocks)
      for (size_t i = 0; i < kLanes; i++) __builtin_prefetch(from + kAhead * rows + i);
    LaneValue* to = row + b * kLanes;
    lane_transpose(&from->re, 2, &to->re, 2);
    lane_transpose(&from->im, 2, &to->im, 2);
  }
}

// Eight rows of the micrograph, continued periodically where it is padded.
void load_micrograph_rows(const LaneScan* scan, const float* mic, size_t y0, LaneValue* row) {
  memset(row, 0, scan->blocks * kLanes * sizeof(LaneValue));
  const int width = std::min(scan->x_plan.n, scan->nx + scan->T_nx - 1);
  const int height = std::min(scan->y_plan.n, scan->ny + scan->T_ny - 1);
  for (int lane = 0; lane < kLanes; lane++) {
    const int y = static_cast<int>(y0) + lane;
    if (y >= height) return;
    const float* from = mic + static_cast<size_t>(y % scan->ny) * scan->nx;
    for (int x = 0; x < width; x++) row[x].re[lane] = from[x < scan->nx ? x : x % scan->nx];
  }
}

KERNEL_LOOP void scale_values(LaneValue* values, size_t n, float factor) {
  for (size_t i = 0; i < n; i++) {
    values[i].re *= factor;
    values[i].im *= factor;
  }
}

// product = exchange of re and im of mic * conj(turned).
KERNEL_LOOP void correlate_column(const LaneValue* mic, const LaneValue* turned, LaneValue* product, size_t n) {
  for (size_t y = 0; y < n; y++) {
    const LaneValue a = mic[y];
    const LaneValue b = turned[y];
    product[y].im = a.re * b.re + a.im * b.im;
    product[y].re = a.im * b.re - a.re * b.im;
  }
}

// Takes the correlations of one angle, or of two, in a strip into the maps.
KERNEL_LOOP void update_strip(const LaneValue* row, LaneValue* maps, int nx, float first_psi, float second_psi,
                              bool second) {
  for (int x = 0; x < nx; x++) {
    const Lane first = row[x].im;
    const LaneValue best = maps[x];
    Lane value = best.re < first ? first : best.re;
    Lane psi = best.re < first ? Lane{} + first_psi : best.im;
    if (second) {
      const Lane other = row[x].re;
      psi = value < other ? Lane{} + second_psi : psi;
      value = value < other ? other : value;
    }
    maps[x].re = value;
    maps[x].im = psi;
  }
}

KERNEL_LOOP void turn_row(const float* T, float* out, int y, int T_nx, int T_ny, float cosine, float sine) {
#pragma omp simd
  for (int x = 0; x < T_nx; x++) out[x] = rotated_pixel(x, y, T, T_nx, T_ny, cosine, sine);
}

// Eight rows of a pair's two templates, turned and transformed: rows y0 to y0 + 7 of the pair's `turned`.
void transform_template_rows(LaneScan* scan, const float* T, const ScanTurns& turns, int count, int pair, size_t y0) {
  const ThreadScratch scratch = scratch_of_thread(scan);
  const auto T_nx = static_cast<size_t>(scan->T_nx);
  memset(scratch.in, 0, T_nx * sizeof(LaneValue));
  for (int half = 0; half < 2 && 2 * pair + half < count; half++) {
    const int k = 2 * pair + half;
    for (int lane = 0; lane < kLanes && static_cast<int>(y0) + lane < scan->T_ny; lane++) {
      float* pixels = scan->turned_pixels + (static_cast<size_t>(k) * scan->T_rows + y0 + lane) * T_nx;
      turn_row(T, pixels, static_cast<int>(y0) + lane, scan->T_nx, scan->T_ny, turns.cosine[k], turns.sine[k]);
      for (size_t x = 0; x < T_nx; x++) {
        if (half == 0) {
          scratch.in[x].re[lane] = pixels[x];
        } else {
          scratch.in[x].im[lane] = -pixels[x];
        }
      }
    }
  }
  lane_fft_of_few(&scan->x_plan, scratch.in, T_nx, scratch.out, scratch.passes);
  LaneValue* turned = scan->turned + static_cast<size_t>(pair) * scan->blocks * scan->T_rows;
  scatter_rows(scratch.out, turned, scan->blocks, scan->T_rows, y0);
}

// Eight columns of a pair: the templates' transform, the product with the micrograph's and its inverse in y.
void correlate_columns(LaneScan* scan, int pair, size_t block) {
  const ThreadScratch scratch = scratch_of_thread(scan);
  const auto height = static_cast<size_t>(scan->y_plan.n);
  const LaneValue* turned = scan->turned + (static_cast<size_t>(pair) * scan->blocks + block) * scan->T_rows;
  LaneValue* product = scan->products + (static_cast<size_t>(pair) * scan->blocks + block) * scan->rows;
  lane_fft_of_few(&scan->y_plan, turned, static_cast<size_t>(scan->T_ny), scratch.out, scratch.passes);
  correlate_column(scan->mic + block * scan->rows, scratch.out, scratch.in, height);
  lane_fft(&scan->y_plan, scratch.in, product, scratch.passes);
}

// Eight rows of all pairs: the inverse in x, taken into the maps pair by pair.
void fold_rows(LaneScan* scan, const ScanAngles& angles, int count, size_t strip) {
  const ThreadScratch scratch = scratch_of_thread(scan);
  const size_t offset = strip * static_cast<size_t>(scan->nx);
  for (int k = 0; k < count; k += 2) {
    const LaneValue* product = scan->products + static_cast<size_t>(k / 2) * scan->blocks * scan->rows;
    gather_rows(product, scratch.in, scan->blocks, scan->rows, strip * kLanes);
    lane_fft(&scan->x_plan, scratch.in, scratch.out, scratch.passes);
    const bool second = k + 1 < count;
    update_strip(scratch.out, scan->maps + offset, scan->nx, angles.psi[k], second ? angles.psi[k + 1] : 0.0f, second);
  }
}

int strips_of(const LaneScan* scan) { return static_cast<int>(up_to_lanes(scan->ny) / kLanes); }

}  // namespace

LaneScan* lane_scan_new(int nx, int ny, int T_nx, int T_ny) {
  auto* scan = host_new<LaneScan>(1);
  *scan = LaneScan{};
  scan->nx = nx;
  scan->ny = ny;
  scan->T_nx = T_nx;
  scan->T_ny = T_ny;
  scan->x_plan = lane_plan_new(padded_side(nx, T_nx));
  scan->y_plan = lane_plan_new(padded_side(ny, T_ny));
  scan->blocks = up_to_lanes(scan->x_plan.n) / kLanes;
  scan->rows = up_to_lanes(scan->y_plan.n);
  scan->T_rows = up_to_lanes(T_ny);
  const size_t spectrum = scan->blocks * scan->rows;
  scan->pairs = static_cast<int>(std::clamp<size_t>(kBatchBytes / (spectrum * sizeof(LaneValue)), 1, kMostPairs));
  const auto pairs = static_cast<size_t>(scan->pairs);
  scan->mic = lane_values_new(spectrum);
  scan->turned = lane_values_new(pairs * scan->blocks * scan->T_rows);
  scan->products = lane_values_new(pairs * spectrum);
  scan->maps = lane_values_new(static_cast<size_t>(strips_of(scan)) * nx);
  scan->turned_pixels = host_new<float>(2 * pairs * scan->T_rows * static_cast<size_t>(T_nx));
  scan->threads = omp_get_max_threads();
  scan->scratch_values = std::max(scan->blocks * kLanes, scan->rows);
  scan->scratch = lane_values_new(static_cast<size_t>(scan->threads) * 3 * scan->scratch_values);
  return scan;
}

void lane_scan_free(LaneScan* scan) {
  if (!scan) return;
  lane_plan_free(&scan->x_plan);
  lane_plan_free(&scan->y_plan);
  for (LaneValue* values : {scan->mic, scan->turned, scan->products, scan->maps, scan->scratch}) free(values);
  free(scan->turned_pixels);
  free(scan);
}

int lane_scan_batch(const LaneScan* scan) { return 2 * scan->pairs; }

void lane_scan_transform_micrograph(LaneScan* scan, const float* mic) {
  const float norm = static_cast<float>(scan->x_plan.n) * static_cast<float>(scan->y_plan.n);
  const auto height = static_cast<size_t>(scan->y_plan.n);
#pragma omp parallel num_threads(scan->threads)
  {
    const ThreadScratch scratch = scratch_of_thread(scan);
#pragma omp for schedule(dynamic)
    for (size_t y = 0; y < scan->rows; y += kLanes) {
      load_micrograph_rows(scan, mic, y, scratch.in);
      lane_fft(&scan->x_plan, scratch.in, scratch.out, scratch.passes);
      scatter_rows(scratch.out, scan->mic, scan->blocks, scan->rows, y);
    }
#pragma omp for schedule(dynamic)
    for (size_t b = 0; b < scan->blocks; b++) {
      LaneValue* column = scan->mic + b * scan->rows;
      lane_fft(&scan->y_plan, column, scratch.out, scratch.passes);
      scale_values(scratch.out, height, 1 / norm);
      memcpy(column, scratch.out, height * sizeof(LaneValue));
    }
  }
}

void lane_scan_begin(LaneScan* scan) {
  const size_t n = static_cast<size_t>(strips_of(scan)) * static_cast<size_t>(scan->nx);
  std::fill_n(scan->maps, n, LaneValue{Lane{} - std::numeric_limits<float>::infinity(), Lane{}});
}

void lane_scan_add(LaneScan* scan, const float* T, const ScanAngles& angles, int count) {
  const ScanTurns turns = turns_of(angles, count);
  const int pairs = (count + 1) / 2;
  const auto T_strips = static_cast<int>(scan->T_rows / kLanes);
  const auto blocks = static_cast<int>(scan->blocks);
#pragma omp parallel num_threads(scan->threads)
  {
#pragma omp for schedule(dynamic)
    for (int i = 0; i < pairs * T_strips; i++)
      transform_template_rows(scan, T, turns, count, i / T_strips, static_cast<size_t>(i % T_strips) * kLanes);
#pragma omp for schedule(dynamic)
    for (int b = 0; b < blocks; b++)
      for (int pair = 0; pair < pairs; pair++) correlate_columns(scan, pair, static_cast<size_t>(b));
#pragma omp for schedule(dynamic)
    for (int strip = 0; strip < strips_of(scan); strip++) fold_rows(scan, angles, count, static_cast<size_t>(strip));
  }
}

void lane_scan_finish(const LaneScan* scan, float divisor, float* ccmax, float* psi) {
  const int nx = scan->nx;
  const int ny = scan->ny;
  // Pixel p holds the correlation at p less the place of the score in the template.
  const int place_x = nx / 2 - (nx - scan->T_nx) / 2;
  const int place_y = ny / 2 - (ny - scan->T_ny) / 2;
#pragma omp parallel for schedule(static) num_threads(scan->threads)
  for (int y = 0; y < ny; y++) {
    const int from_y = (y - place_y + ny) % ny;
    const size_t strip = static_cast<size_t>(from_y / kLanes) * nx;
    const int lane = from_y % kLanes;
    for (int x = 0; x < nx; x++) {
      const size_t from = strip + static_cast<size_t>((x - place_x + nx) % nx);
      const size_t i = pixel_at(x, y, nx);
      ccmax[i] = scan->maps[from].re[lane] / divisor;
      if (psi) psi[i] = scan->maps[from].im[lane];
    }
  }
}
