// Maps of the largest correlation of every pixel, from transforms of the whole image.
#include <omp.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "compute/process2d_raw_kernels.h"
#include "matching/host_scan/regions.h"
#include "matching/host_scan/score_maps.h"
#include "platform/host_memory.h"
#include "platform/loops.h"

struct ScoreMaps {
  size_t product_rows;  // of a product's block: the side in y, up to a multiple of eight
  LaneValue* products;  // for each pair of turns 2 * blocks * product_rows: columns done
  LaneValue* best;      // strips * nx: as re the largest correlation so far, as im its angle
  bool wants_least;
  Lane* least;  // strips * nx: the lowest correlation so far; null until it is wanted
};

namespace {

// The angles of a pair of turns in degrees.
struct PairAngles {
  float first, second, first_half_turn, second_half_turn;
  bool has_second;
};

PairAngles angles_of(const TurnPair& turns, const float* psi) {
  return {psi[turns.first.angle], psi[turns.second.angle], psi[turns.first.half_turn], psi[turns.second.half_turn],
          turns.has_second};
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
                              size_t step, PairAngles psi) {
  auto ties = Lane{} != Lane{};
  for (size_t x = 0; x < n; x++) {
    LaneValue best = maps[x * step];
    ties |= take_best(&best, values[x].im, psi.first);
    if (psi.has_second) ties |= take_best(&best, values[x].re, psi.second);
    if constexpr (HasHalfTurns) {
      take_best(&best, half_turns[x].im, psi.first_half_turn);
      if (psi.has_second) take_best(&best, -half_turns[x].re, psi.second_half_turn);
    }
    maps[x * step] = best;
  }
  bool any = false;
  for (int lane = 0; lane < kLanes; lane++) any |= ties[lane] != 0;
  return any;
}

// Takes the lowest of the same correlations.
template <bool HasHalfTurns>
KERNEL_LOOP void take_least(const LaneValue* values, const LaneValue* half_turns, Lane* least, size_t n, size_t step,
                            bool has_second) {
  for (size_t x = 0; x < n; x++) {
    Lane low = least[x * step];
    low = values[x].im < low ? values[x].im : low;
    if (has_second) low = values[x].re < low ? values[x].re : low;
    if constexpr (HasHalfTurns) {
      low = half_turns[x].im < low ? half_turns[x].im : low;
      if (has_second) low = -half_turns[x].re < low ? -half_turns[x].re : low;
    }
    least[x * step] = low;
  }
}

// Gives pixels where angles tie the smallest one.
void settle_ties(const LaneValue* values, LaneValue* maps, size_t n, size_t step, const PairAngles& psi) {
  for (size_t x = 0; x < n; x++) {
    LaneValue& best = maps[x * step];
    for (int lane = 0; lane < kLanes; lane++) {
      if (best.re[lane] == values[x].im[lane]) best.im[lane] = std::min(best.im[lane], psi.first);
      if (psi.has_second && best.re[lane] == values[x].re[lane]) best.im[lane] = std::min(best.im[lane], psi.second);
    }
  }
}

// The one region of such a scan, its strips of eight rows and their pixels.
const Region& region_of(const HostScan* scan) { return scan->regions[0]; }
size_t strips_of(const HostScan* scan) { return up_to_lanes(static_cast<size_t>(scan->ny)) / kLanes; }
size_t width_of(const HostScan* scan) { return static_cast<size_t>(scan->nx); }

// The columns done of a pair, and those of its half turns.
LaneValue* products_of(const HostScan* scan, size_t pair, bool half_turns) {
  return scan->maps->products + (2 * pair + half_turns) * region_of(scan).blocks * scan->maps->product_rows;
}

// Eight rows of the products of a pair: the inverse in x, taken into the maps while it is in the nearest cache.
void fold_rows(const HostScan* scan, const TurnPair& turns, const float* psi, size_t pair, size_t strip) {
  const ThreadScratch scratch = scratch_of_thread(scan);
  const Region& region = region_of(scan);
  const LanePlan* plan = &across(scan, region).samples;
  const auto step = static_cast<size_t>(lane_plan_parts(plan));
  const size_t rows = scan->maps->product_rows;
  const size_t y = strip * kLanes;
  const PairAngles angles = angles_of(turns, psi);
  LaneValue* parts = scratch.passes;
  LaneValue* half_turn_parts = parts + plan->n;
  LaneValue* passes = half_turn_parts + plan->n;
  divide_rows(scan, region, products_of(scan, pair, false), rows, y, scratch.in, parts);
  if (turns.has_half_turns)
    divide_rows(scan, region, products_of(scan, pair, true), rows, y, scratch.in, half_turn_parts);
  for (size_t first = 0; first < std::min(step, width_of(scan)); first++) {
    const size_t n = (width_of(scan) - first + step - 1) / step;
    LaneValue* best = scan->maps->best + strip * width_of(scan) + first;
    lane_fft_part(plan, parts, static_cast<int>(first), scratch.out, 1, passes);
    if (turns.has_half_turns)
      lane_fft_part(plan, half_turn_parts, static_cast<int>(first), scratch.other_out, 1, passes);
    const auto update = turns.has_half_turns ? update_strip<true> : update_strip<false>;
    if (update(scratch.out, scratch.other_out, best, n, step, angles)) settle_ties(scratch.out, best, n, step, angles);
    if (!scan->maps->wants_least) continue;
    const auto take = turns.has_half_turns ? take_least<true> : take_least<false>;
    take(scratch.out, scratch.other_out, scan->maps->least + strip * width_of(scan) + first, n, step,
         angles.has_second);
  }
}

// The whole spectrum of rows that become the real part from the lower half `row`, and of others that become the
// imaginary part from `other`, re and im exchanged in all three. n values, written over `row`.
KERNEL_LOOP void join_spectra(LaneValue* row, const LaneValue* other, size_t n) {
  for (size_t k = 0; k <= n / 2; k++) {
    const LaneValue a = row[k];
    const LaneValue b = other[k];
    if (k > 0) row[n - k] = {b.im - a.re, a.im + b.re};
    row[k] = {a.re + b.im, a.im - b.re};
  }
}

KERNEL_LOOP void take_only_angle(const Lane* values, LaneValue* best, size_t n, float psi) {
  for (size_t x = 0; x < n; x++) take_best(&best[x], values[2 * x], psi);
}

KERNEL_LOOP void take_only_least(const Lane* values, Lane* least, size_t n) {
  for (size_t x = 0; x < n; x++) least[x] = values[2 * x] < least[x] ? values[2 * x] : least[x];
}

// The one angle's correlations of a strip, every other Lane of values, to the maps.
void take_strip_of_only_angle(const HostScan* scan, const Lane* values, size_t strip, float psi) {
  const size_t first = strip * width_of(scan);
  take_only_angle(values, scan->maps->best + first, width_of(scan), psi);
  if (scan->maps->wants_least) take_only_least(values, scan->maps->least + first, width_of(scan));
}

// The inverse in x of two strips of the one angle's products, taken into the maps.
void fold_row_pairs(const HostScan* scan, float psi, size_t strip, size_t other) {
  const ThreadScratch scratch = scratch_of_thread(scan);
  const AxisPart& part = across(scan, region_of(scan));
  const KeptFrequencies& kept = scan->kept_blocks[0];
  const size_t rows = scan->maps->product_rows;
  const LaneValue* products = products_of(scan, 0, false);
  gather_rows(part, kept, products, rows, strip * kLanes, 1, scratch.in);
  if (other < strips_of(scan)) {
    gather_rows(part, kept, products, rows, other * kLanes, 1, scratch.other_out);
  } else {
    std::fill_n(scratch.other_out, kept_count(kept) * kLanes, LaneValue{});
  }
  join_spectra(scratch.in, scratch.other_out, static_cast<size_t>(part.samples.n));
  lane_fft(&part.samples, scratch.in, scratch.out, scratch.passes);
  take_strip_of_only_angle(scan, &scratch.out->im, strip, psi);
  if (other < strips_of(scan)) take_strip_of_only_angle(scan, &scratch.out->re, other, psi);
}

// Correlates `count` pairs of turns of the template with the micrograph and takes the results into the maps.
void scan_pairs(const HostScan* scan, const TurnPair* turns, const float* psi, size_t count) {
  const Region& region = region_of(scan);
  const size_t T_strips = scan->T_rows / kLanes;
  const size_t rows = scan->maps->product_rows;
#pragma omp parallel num_threads(scan->threads)
  {
#pragma omp for schedule(dynamic)
    for (size_t i = 0; i < count * T_strips; i++)
      transform_template_rows(scan, turns[i / T_strips], i / T_strips, i % T_strips * kLanes);
#pragma omp for schedule(dynamic)
    for (size_t i = 0; i < kept_count(scan->kept_blocks[0]); i++)
      for (size_t pair = 0; pair < count; pair++)
        correlate_columns(scan, region, pair, i, products_of(scan, pair, false) + i * rows,
                          turns[pair].has_half_turns ? products_of(scan, pair, true) + i * rows : nullptr);
    if (scan->n_angles == 1) {
      const size_t half = (strips_of(scan) + 1) / 2;
#pragma omp for schedule(dynamic)
      for (size_t strip = 0; strip < half; strip++)
        fold_row_pairs(scan, psi[turns[0].first.angle], strip, strip + half);
    } else {
#pragma omp for schedule(dynamic)
      for (size_t strip = 0; strip < strips_of(scan); strip++)
        for (size_t pair = 0; pair < count; pair++) fold_rows(scan, turns[pair], psi, pair, strip);
    }
  }
}

// A strip of a map, every step-th Lane of values, over the divisor, to the rows `to` of an image, the place of the score
// added in x.
void write_strip(const HostScan* scan, const Lane* values, int step, float divisor, float* const* to, int rows) {
  const int nx = scan->nx;
  const int place = place_of_score(nx, scan->T_nx);
  for (int x = 0; x < nx; x += kLanes) {
    const int n = std::min(kLanes, nx - x);
    Lane in[kLanes]{};
    Lane out[kLanes];
    for (int i = 0; i < n; i++) in[i] = values[step * (x + i)] / divisor;
    lane_transpose(in, 1, out, 1);
    const int at = (x + place) % nx;
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

}  // namespace

size_t score_maps_bytes_of_pair(const HostScan* scan) {
  const size_t blocks = region_of(scan).blocks;
  return (blocks * scan->T_rows + 2 * blocks * region_of(scan).rows) * sizeof(LaneValue);
}

ScoreMaps* score_maps_new(const HostScan* scan) {
  auto* maps = host_new<ScoreMaps>(1);
  *maps = ScoreMaps{};
  maps->product_rows = region_of(scan).rows;
  maps->products = lane_values_new(static_cast<size_t>(scan->pairs) * 2 * region_of(scan).blocks * maps->product_rows);
  maps->best = lane_values_new(strips_of(scan) * width_of(scan));
  return maps;
}

void score_maps_free(ScoreMaps* maps) {
  if (!maps) return;
  free(maps->products);
  free(maps->best);
  free(maps->least);
  free(maps);
}

void score_maps_begin(const HostScan* scan, bool with_least) {
  const size_t lanes = strips_of(scan) * width_of(scan);
  ScoreMaps* maps = scan->maps;
  maps->wants_least = with_least;
  if (with_least && !maps->least) maps->least = &lane_values_new((lanes + 1) / 2)->re;
  if (with_least) std::fill_n(maps->least, lanes, Lane{} + std::numeric_limits<float>::infinity());
  std::fill_n(scan->maps->best, strips_of(scan) * width_of(scan),
              LaneValue{Lane{} - std::numeric_limits<float>::infinity(), Lane{}});
}

void score_maps_take(const HostScan* scan, const TurnPair* turns, size_t n_pairs, const float* psi) {
  const auto batch = static_cast<size_t>(scan->pairs);
  for (size_t i = 0; i < n_pairs; i += batch) scan_pairs(scan, turns + i, psi, std::min(batch, n_pairs - i));
}

void score_maps_write(const HostScan* scan, float divisor, float* ccmax, float* map_psi, float* ccmin) {
  const int place = place_of_score(scan->ny, scan->T_ny);
#pragma omp parallel for schedule(static) num_threads(scan->threads)
  for (size_t strip = 0; strip < strips_of(scan); strip++) {
    const int first = static_cast<int>(strip) * kLanes;
    const int rows = std::min(kLanes, scan->ny - first);
    float* to_ccmax[kLanes];
    float* to_psi[kLanes];
    float* to_ccmin[kLanes];
    for (int y = 0; y < rows; y++) {
      const size_t row = pixel_at(0, (first + y + place) % scan->ny, scan->nx);
      to_ccmax[y] = ccmax + row;
      if (map_psi) to_psi[y] = map_psi + row;
      if (ccmin) to_ccmin[y] = ccmin + row;
    }
    const LaneValue* best = scan->maps->best + strip * width_of(scan);
    write_strip(scan, &best->re, 2, divisor, to_ccmax, rows);
    if (map_psi) write_strip(scan, &best->im, 2, 1, to_psi, rows);
    if (ccmin) write_strip(scan, scan->maps->least + strip * width_of(scan), 1, divisor, to_ccmin, rows);
  }
}
