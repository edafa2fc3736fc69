#include "matching/lane_scan.h"

#include <omp.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "host_memory.h"
#include "matching/lane_regions.h"
#include "matching/lane_turns.h"
#include "matching/quorlin56_kernels.h"
#include "platform/launch.h"

namespace {

// Bytes that the spectra of a batch of turns may take: more than fits in a last-level cache only costs.
constexpr size_t kBatchBytes = size_t{24} << 20;
constexpr int kMostPairs = 8;

// Fewer angles don't pay for the transforms of a divided micrograph.
constexpr int kFewAngles = 8;

// Values of the spectra of one pair of turns.
size_t spectra_of_pair(const LaneScan* scan) {
  size_t values = 0;
  for (int i = 0; i < scan->x.n_parts; i++) values += kept_count(scan->kept_blocks[i]) * scan->T_rows;
  for (int r = 0; r < scan->n_regions; r++)
    values += 2 * kept_count(scan->kept_blocks[scan->regions[r].across]) * scan->regions[r].product_rows;
  return values;
}

// Gives the spectra their places for as many pairs of turns as there is room for.
void place_spectra(LaneScan* scan) {
  scan->pairs = static_cast<int>(
      std::clamp<size_t>(scan->spectra_values / std::max<size_t>(spectra_of_pair(scan), 1), 1, kMostPairs));
  const auto pairs = static_cast<size_t>(scan->pairs);
  LaneValue* next = scan->spectra;
  for (int i = 0; i < scan->x.n_parts; i++) {
    scan->turned[i] = next;
    next += pairs * kept_count(scan->kept_blocks[i]) * scan->T_rows;
  }
  for (int r = 0; r < scan->n_regions; r++) {
    scan->regions[r].products = next;
    next += pairs * 2 * kept_count(scan->kept_blocks[scan->regions[r].across]) * scan->regions[r].product_rows;
  }
}

void gather_rows(const LaneValue* blocks, LaneValue* row, const KeptFrequencies& kept, size_t n_blocks, size_t rows,
                 size_t y) {
  constexpr size_t kAhead = 4;  // blocks lie too far apart for the processor to see the next one coming
  const size_t count = kept_count(kept);
  for (size_t i = 0; i < count; i++) {
    const LaneValue* from = blocks + i * rows + y;
    if (i + kAhead < count)
      for (size_t k = 0; k < kLanes; k++) __builtin_prefetch(from + kAhead * rows + k);
    LaneValue* to = row + kept_place(kept, i, n_blocks) * kLanes;
    lane_transpose(&from->re, 2, &to->re, 2);
    lane_transpose(&from->im, 2, &to->im, 2);
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

// product = exchange of re and im of mic * turned.
KERNEL_LOOP void multiply_column(const LaneValue* mic, const LaneValue* turned, LaneValue* product, size_t n) {
  for (size_t y = 0; y < n; y++) {
    const LaneValue a = mic[y];
    const LaneValue b = turned[y];
    product[y].im = a.re * b.re - a.im * b.im;
    product[y].re = a.im * b.re + a.re * b.im;
  }
}

// Takes `value` at the angle psi into a pixel's best so far; of those that tie the one in the map stays. Returns
// which tie.
__attribute__((always_inline)) inline auto take_best(LaneValue* best, Lane value, float psi) {
  const auto better = best->re < value;
  const auto ties = best->re == value;
  best->re = better ? value : best->re;
  best->im = better ? Lane{} + psi : best->im;
  return ties;
}

// Takes the correlations of a pair of turns, and of their half turns, into every step-th pixel of a strip of the maps.
// Returns whether any turn ties with what was there. Half turns come in ascending order, and behind no turn that is
// larger, so that they lose where they tie; turns may come behind half turns that are larger.
template <bool HasHalfTurns>
KERNEL_LOOP bool update_strip(const LaneValue* values, const LaneValue* half_turns, LaneValue* maps, size_t n,
                              size_t step, TurnPair turns) {
  auto ties = Lane{} != Lane{};
  for (size_t x = 0; x < n; x++) {
    LaneValue best = maps[x * step];
    ties |= take_best(&best, values[x].im, turns.first.psi);
    if (turns.has_second) ties |= take_best(&best, values[x].re, turns.second.psi);
    if constexpr (HasHalfTurns) {
      take_best(&best, half_turns[x].im, turns.first.half_turn_psi);
      if (turns.has_second) take_best(&best, -half_turns[x].re, turns.second.half_turn_psi);
    }
    maps[x * step] = best;
  }
  bool any = false;
  for (int lane = 0; lane < kLanes; lane++) any |= ties[lane] != 0;
  return any;
}

// Gives pixels where angles tie the smallest one.
void settle_ties(const LaneValue* values, LaneValue* maps, size_t n, size_t step, const TurnPair& turns) {
  for (size_t x = 0; x < n; x++) {
    LaneValue& best = maps[x * step];
    for (int lane = 0; lane < kLanes; lane++) {
      if (best.re[lane] == values[x].im[lane]) best.im[lane] = std::min(best.im[lane], turns.first.psi);
      if (turns.has_second && best.re[lane] == values[x].re[lane])
        best.im[lane] = std::min(best.im[lane], turns.second.psi);
    }
  }
}

// Eight rows of a pair's two templates, turned and transformed: rows y0 to y0 + 7 of the pair's `turned`.
void transform_template_rows(const LaneScan* scan, const float* T, const TurnPair& turns, size_t pair, size_t y0) {
  const ThreadScratch scratch = scratch_of_thread(scan);
  const auto T_nx = static_cast<size_t>(scan->T_nx);
  auto* pixels = reinterpret_cast<float*>(scratch.passes);
  memset(scratch.in, 0, T_nx * sizeof(LaneValue));
  for (int lane = 0; lane < kLanes && static_cast<int>(y0) + lane < scan->T_ny; lane++) {
    turn_row(T, pixels, static_cast<int>(y0) + lane, scan->T_nx, scan->T_ny, turns.first.psi);
    for (size_t x = 0; x < T_nx; x++) scratch.in[x].re[lane] = pixels[x];
    if (!turns.has_second) continue;
    turn_row(T, pixels, static_cast<int>(y0) + lane, scan->T_nx, scan->T_ny, turns.second.psi);
    for (size_t x = 0; x < T_nx; x++) scratch.in[x].im[lane] = -pixels[x];
  }
  for (int i = 0; i < scan->x.n_parts; i++) {
    const LanePart& part = scan->x.parts[i];
    const KeptFrequencies& kept = scan->kept_blocks[i];
    lane_fft_of_few(&part.plan, scratch.in, T_nx, scratch.out, scratch.passes);
    LaneValue* turned = scan->turned[i] + pair * kept_count(kept) * scan->T_rows;
    scatter_rows(scratch.out, turned, kept, width_in_blocks(part), scan->T_rows, y0);
  }
}

// Eight columns of a pair: the templates' transform, the products with the micrograph's and their inverses in y.
void correlate_columns(const LaneScan* scan, const Region& region, const TurnPair& turns, size_t pair, size_t i) {
  const ThreadScratch scratch = scratch_of_thread(scan);
  const LanePlan* plan = &down(scan, region).plan;
  const KeptFrequencies& blocks = scan->kept_blocks[region.across];
  const KeptFrequencies& rows = scan->kept_rows[region.down];
  const size_t high = static_cast<size_t>(plan->n) - rows.high;
  const LaneValue* turned = scan->turned[region.across] + (pair * kept_count(blocks) + i) * scan->T_rows;
  const size_t column = kept_place(blocks, i, region.blocks) * region.rows;
  LaneValue* product = region.products + (2 * pair * kept_count(blocks) + i) * region.product_rows;
  const size_t bytes = region.product_rows * sizeof(LaneValue);
  lane_fft_of_few(plan, turned, static_cast<size_t>(scan->T_ny), scratch.out, scratch.passes);
  const LaneValue* mic = region.mic + column;
  correlate_column(mic, scratch.out, scratch.in, rows.low);
  correlate_column(mic + high, scratch.out + high, scratch.in + high, rows.high);
  lane_fft_of_outer(plan, scratch.in, rows.low, rows.high, scratch.other_out, scratch.passes);
  memcpy(product, scratch.other_out, bytes);
  if (!turns.has_half_turns) return;
  mic = region.mic_half_turn + column;
  multiply_column(mic, scratch.out, scratch.in, rows.low);
  multiply_column(mic + high, scratch.out + high, scratch.in + high, rows.high);
  lane_fft_of_outer(plan, scratch.in, rows.low, rows.high, scratch.other_out, scratch.passes);
  memcpy(product + kept_count(blocks) * region.product_rows, scratch.other_out, bytes);
}

// Begins the inverse in x of eight rows of a product.
void divide_rows(const LaneScan* scan, const Region& region, const LaneValue* product, size_t strip, LaneValue* row,
                 LaneValue* parts) {
  const LanePart& part = across(scan, region);
  const KeptFrequencies& kept = scan->kept_blocks[region.across];
  const auto width = static_cast<size_t>(part.plan.n);
  const size_t low = std::min(kept.low * kLanes, width);
  const size_t high = kept.high == 0 ? 0 : width - (region.blocks - kept.high) * kLanes;
  gather_rows(product, row, kept, region.blocks, region.product_rows, strip * kLanes);
  lane_fft_divide_outer(&part.plan, row, low, high, parts);
}

// Eight rows of the products of a pair: the inverse in x, taken into the maps while it is in the nearest cache.
void fold_rows(const LaneScan* scan, const Region& region, const TurnPair& turns, size_t pair, size_t strip) {
  const ThreadScratch scratch = scratch_of_thread(scan);
  const LanePart& part = across(scan, region);
  const auto count = static_cast<size_t>(part.count);
  const auto step = static_cast<size_t>(lane_plan_parts(&part.plan));
  const size_t values = kept_count(scan->kept_blocks[region.across]) * region.product_rows;
  const LaneValue* product = region.products + 2 * pair * values;
  LaneValue* parts = scratch.passes;
  LaneValue* half_turn_parts = parts + part.plan.n;
  LaneValue* passes = half_turn_parts + part.plan.n;
  divide_rows(scan, region, product, strip, scratch.in, parts);
  if (turns.has_half_turns) divide_rows(scan, region, product + values, strip, scratch.in, half_turn_parts);
  for (size_t first = 0; first < std::min(step, count); first++) {
    const size_t n = (count - first + step - 1) / step;
    LaneValue* maps = region.maps + strip * count + first;
    lane_fft_part(&part.plan, parts, static_cast<int>(first), scratch.out, 1, passes);
    if (turns.has_half_turns)
      lane_fft_part(&part.plan, half_turn_parts, static_cast<int>(first), scratch.other_out, 1, passes);
    const auto update = turns.has_half_turns ? update_strip<true> : update_strip<false>;
    if (update(scratch.out, scratch.other_out, maps, n, step, turns)) settle_ties(scratch.out, maps, n, step, turns);
  }
}

// Correlates `count` pairs of turns of the template with the micrograph and takes the results into the maps.
void scan_pairs(const LaneScan* scan, const float* T, const TurnPair* turns, size_t count) {
  const size_t T_strips = scan->T_rows / kLanes;
#pragma omp parallel num_threads(scan->threads)
  {
#pragma omp for schedule(dynamic)
    for (size_t i = 0; i < count * T_strips; i++)
      transform_template_rows(scan, T, turns[i / T_strips], i / T_strips, i % T_strips * kLanes);
    for (int r = 0; r < scan->n_regions; r++) {
      const Region& region = scan->regions[r];
#pragma omp for schedule(dynamic) nowait
      for (size_t i = 0; i < kept_count(scan->kept_blocks[region.across]); i++)
        for (size_t pair = 0; pair < count; pair++) correlate_columns(scan, region, turns[pair], pair, i);
    }
#pragma omp barrier
    for (int r = 0; r < scan->n_regions; r++) {
      const Region& region = scan->regions[r];
#pragma omp for schedule(dynamic) nowait
      for (size_t strip = 0; strip < strips_of(scan, region); strip++)
        for (size_t pair = 0; pair < count; pair++) fold_rows(scan, region, turns[pair], pair, strip);
    }
  }
}

void empty_maps(const LaneScan* scan) {
  for (int r = 0; r < scan->n_regions; r++) {
    const Region& region = scan->regions[r];
    const size_t n = strips_of(scan, region) * static_cast<size_t>(across(scan, region).count);
    std::fill_n(region.maps, n, LaneValue{Lane{} - std::numeric_limits<float>::infinity(), Lane{}});
  }
}

// A strip of one of a region's two maps, over the divisor, to the rows `to` of an image, the place of the score added
// in x.
void write_strip(const LaneScan* scan, const LanePart& part, const Lane* values, float divisor, float* const* to,
                 int rows) {
  const int nx = scan->nx;
  const int place = nx / 2 - (nx - scan->T_nx) / 2;
  for (int x = 0; x < part.count; x += kLanes) {
    const int n = std::min(kLanes, part.count - x);
    Lane in[kLanes]{};
    Lane out[kLanes];
    for (int i = 0; i < n; i++) in[i] = values[2 * (x + i)] / divisor;
    lane_transpose(in, 1, out, 1);
    const int at = (part.first + x + place) % nx;
    const int before_edge = std::min(n, nx - at);
    for (int y = 0; y < rows; y++) {
      if (before_edge == kLanes) {
        memcpy(to[y] + at, &out[y], sizeof out[y]);
        continue;
      }
      const auto* from = reinterpret_cast<const float*>(&out[y]);
      std::copy_n(from, before_edge, to[y] + at);
      std::copy_n(from + before_edge, n - before_edge, to[y]);
    }
  }
}

// A strip of a region's maps, the place of the score added.
void write_region_strip(const LaneScan* scan, const Region& region, size_t strip, float divisor, float* ccmax,
                        float* map_psi) {
  const LanePart& x_part = across(scan, region);
  const LanePart& y_part = down(scan, region);
  const int place = scan->ny / 2 - (scan->ny - scan->T_ny) / 2;
  const int first = static_cast<int>(strip) * kLanes;
  const int rows = std::min(kLanes, y_part.count - first);
  float* to_ccmax[kLanes];
  float* to_psi[kLanes];
  for (int y = 0; y < rows; y++) {
    const size_t row = pixel_at(0, (y_part.first + first + y + place) % scan->ny, scan->nx);
    to_ccmax[y] = ccmax + row;
    if (map_psi) to_psi[y] = map_psi + row;
  }
  const LaneValue* maps = region.maps + strip * static_cast<size_t>(x_part.count);
  write_strip(scan, x_part, &maps->re, divisor, to_ccmax, rows);
  if (map_psi) write_strip(scan, x_part, &maps->im, 1, to_psi, rows);
}

void write_maps(const LaneScan* scan, float divisor, float* ccmax, float* map_psi) {
#pragma omp parallel num_threads(scan->threads)
  for (int r = 0; r < scan->n_regions; r++) {
    const Region& region = scan->regions[r];
#pragma omp for schedule(static) nowait
    for (size_t strip = 0; strip < strips_of(scan, region); strip++)
      write_region_strip(scan, region, strip, divisor, ccmax, map_psi);
  }
}

void divide_axes(LaneScan* scan, double band) {
  scan->x = lane_axis_whole(scan->nx, scan->T_nx);
  scan->y = lane_axis_whole(scan->ny, scan->T_ny);
  if (scan->n_angles < kFewAngles || band >= 0.5 || std::min(scan->T_nx, scan->T_ny) < 2) return;
  LaneAxis split_x = lane_axis_split(scan->nx, scan->T_nx, band);
  LaneAxis split_y = lane_axis_split(scan->ny, scan->T_ny, band);
  if (lane_axes_cost(split_x, split_y) < lane_axes_cost(scan->x, scan->y)) {
    std::swap(scan->x, split_x);
    std::swap(scan->y, split_y);
  }
  lane_axis_free(&split_x);
  lane_axis_free(&split_y);
}

void set_up_region(const LaneScan* scan, Region* region) {
  region->blocks = width_in_blocks(across(scan, *region));
  region->rows = up_to_lanes(static_cast<size_t>(down(scan, *region).plan.n));
  region->product_rows = strips_of(scan, *region) * kLanes;
  region->mic = lane_values_new(region->blocks * region->rows);
  if (scan->n_angles > 1) region->mic_half_turn = lane_values_new(region->blocks * region->rows);
  region->maps = lane_values_new(strips_of(scan, *region) * static_cast<size_t>(across(scan, *region).count));
  region->x_energy = host_new<double>(region->blocks * kLanes);
  region->y_energy = host_new<double>(region->rows);
}

void set_up_regions(LaneScan* scan) {
  for (int j = 0; j < scan->y.n_parts; j++) {
    for (int i = 0; i < scan->x.n_parts; i++) {
      Region* region = &scan->regions[scan->n_regions++];
      region->across = i;
      region->down = j;
      set_up_region(scan, region);
      scan->scratch_values = std::max({scan->scratch_values, region->blocks * kLanes, region->rows});
      scan->kept_blocks[i] = {region->blocks, 0};
      scan->kept_rows[j] = {region->rows, 0};
    }
  }
}

}  // namespace

LaneScan* lane_scan_new(int nx, int ny, int T_nx, int T_ny, int n_angles, double band) {
  auto* scan = host_new<LaneScan>(1);
  *scan = LaneScan{};
  scan->nx = nx;
  scan->ny = ny;
  scan->T_nx = T_nx;
  scan->T_ny = T_ny;
  scan->T_rows = up_to_lanes(static_cast<size_t>(T_ny));
  scan->n_angles = n_angles;
  divide_axes(scan, band);
  set_up_regions(scan);
  // Room for a pair of turns whose frequencies are all kept, at least.
  scan->spectra_values = std::max(spectra_of_pair(scan), kBatchBytes / sizeof(LaneValue));
  scan->spectra = lane_values_new(scan->spectra_values);
  scan->threads = omp_get_max_threads();
  scan->scratch = lane_values_new(static_cast<size_t>(scan->threads) * 6 * scan->scratch_values);
  return scan;
}

void lane_scan_free(LaneScan* scan) {
  if (!scan) return;
  lane_axis_free(&scan->x);
  lane_axis_free(&scan->y);
  for (Region& region : scan->regions) {
    for (LaneValue* values : {region.mic, region.mic_half_turn, region.maps}) free(values);
    for (double* energies : {region.x_energy, region.y_energy}) free(energies);
  }
  free(scan->spectra);
  free(scan->scratch);
  free(scan);
}

void lane_scan_transform_micrograph(LaneScan* scan, const float* mic) {
  transform_regions(scan, mic);
  place_spectra(scan);
}

void lane_scan_template(LaneScan* scan, const float* T, const float* psi, int n_angles, float divisor, float* ccmax,
                        float* map_psi) {
  TurnPair* turns = host_new<TurnPair>(static_cast<size_t>(n_angles) + 1);
  const auto n_pairs = static_cast<size_t>(pair_turns(T, scan->T_nx, scan->T_ny, psi, n_angles, turns));
  const auto batch = static_cast<size_t>(scan->pairs);
  empty_maps(scan);
  for (size_t i = 0; i < n_pairs; i += batch) scan_pairs(scan, T, turns + i, std::min(batch, n_pairs - i));
  write_maps(scan, divisor, ccmax, map_psi);
  free(turns);
}
