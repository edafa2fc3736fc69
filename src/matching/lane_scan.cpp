#include "matching/lane_scan.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "host_memory.h"
#include "matching/lane_axis.h"
#include "matching/lane_turns.h"
#include "matching/quorlin56_kernels.h"
#include "platform/lane_fft.h"
#include "platform/launch.h"

// Two real images make one complex one: with the templates T1 - i T2 and the micrograph's spectrum A,
//   A * conj(FFT(T1 - i T2)) = FFT(c1) + i FFT(c2),
// so that one inverse transform gives the correlations c1 and c2 of two angles as its real and imaginary part. A box
// turned by a further 180 degrees is the box reversed, so that with G = FFT(T1 - i T2) and T of t pixels
//   A * exp(2 pi i k (t - 1) / n) * G = FFT(c1') - i FFT(c2')
// for the templates T1' and T2' turned on: one transform of templates serves four angles.
//
// Spectra lie in blocks of eight columns: value (x, y) is lane x % 8 of the LaneValue at x / 8 * rows + y. Maps lie in
// strips of eight rows: pixel (x, y) is lane y % 8 of the value at y / 8 * count + x. A column's transform so runs over
// memory in order with eight columns as its lanes, a row's with eight rows, and between them stand transpositions of
// eight by eight values.
//
// The templates lie at the origin, so that correlation k belongs to template pixel 0 lying over pixel k; the place of
// the score, half a template on, is brought in when the maps are written. The correlations are divided into parts along
// each axis (lane_axis.h); each part of x with each of y makes a region with transforms of its own. Of a region's
// spectrum only the frequencies are carried through the scan that hold all but a trillionth of the micrograph's energy.

namespace {

// Frequencies at 0 and above, and below 0, which are the last ones of a spectrum: in values or blocks of values.
struct KeptFrequencies {
  size_t low, high;
};

// Correlations of one part of x and one of y.
struct Region {
  int across, down;          // which parts
  size_t blocks;             // of eight columns
  size_t rows;               // of a block: the side in y, up to a multiple of eight
  LaneValue* mic;            // blocks * rows: the micrograph's spectrum over the number of its values
  LaneValue* mic_half_turn;  // the same for templates turned on by 180 degrees
  LaneValue* products;       // for each pair of turns 2 * kept blocks * rows: columns done, re and im exchanged
  LaneValue* maps;           // strips * count in x: as re the largest correlation so far, as im its angle
  double* x_energy;          // blocks * kLanes: of each frequency of x
  double* y_energy;          // rows
};

// Bytes that the spectra of a batch of turns may take: more than fits in a last-level cache only costs.
constexpr size_t kBatchBytes = size_t{24} << 20;
constexpr int kMostPairs = 8;

// Part of a micrograph's energy that the frequencies left out may hold. The scores that they would add are below the
// rounding of single precision transforms.
constexpr double kNegligibleEnergy = 1e-12;

// Fewer angles don't pay for the transforms of a divided micrograph.
constexpr int kFewAngles = 8;

}  // namespace

struct LaneScan {
  int nx, ny, T_nx, T_ny;
  LaneAxis x, y;
  Region regions[4];
  int n_regions;
  KeptFrequencies kept_blocks[2];  // of each part of x, in blocks
  KeptFrequencies kept_rows[2];    // of each part of y
  size_t T_rows;                   // of a template's block: T_ny, up to a multiple of eight
  LaneValue* turned[2];            // for each part of x and pair of turns kept blocks * T_rows: rows transformed
  int pairs;                       // pairs of turns in a batch
  LaneValue* spectra;              // turned and products lie in here
  size_t spectra_values;
  int threads;
  size_t scratch_values;  // of one thread's scratch
  LaneValue* scratch;     // threads * 4 * scratch_values
};

namespace {

size_t up_to_lanes(size_t n) { return (n + kLanes - 1) / kLanes * kLanes; }

const LanePart& across(const LaneScan* scan, const Region& region) { return scan->x.parts[region.across]; }
const LanePart& down(const LaneScan* scan, const Region& region) { return scan->y.parts[region.down]; }

size_t strips_of(const LaneScan* scan, const Region& region) {
  return up_to_lanes(static_cast<size_t>(down(scan, region).count)) / kLanes;
}

size_t width_in_blocks(const LanePart& part) { return up_to_lanes(static_cast<size_t>(part.plan.n)) / kLanes; }

size_t kept_count(const KeptFrequencies& kept) { return kept.low + kept.high; }

// Which of n is the i-th that is kept.
size_t kept_place(const KeptFrequencies& kept, size_t i, size_t n) { return i < kept.low ? i : n - kept.high + i - kept.low; }

struct ThreadScratch {
  LaneValue *in, *out, *other_out, *passes;
};

ThreadScratch scratch_of_thread(const LaneScan* scan) {
  const size_t n = scan->scratch_values;
  LaneValue* first = scan->scratch + static_cast<size_t>(omp_get_thread_num()) * 4 * n;
  return {first, first + n, first + 2 * n, first + 3 * n};
}

// --- The micrograph ---

// Eight rows of a region's pixels.
void load_micrograph_rows(const LaneScan* scan, const Region& region, const float* mic, size_t y0, LaneValue* row) {
  const LanePart& x_part = across(scan, region);
  const LanePart& y_part = down(scan, region);
  memset(row, 0, region.blocks * kLanes * sizeof(LaneValue));
  for (int lane = 0; lane < kLanes && static_cast<int>(y0) + lane < y_part.plan.n; lane++) {
    const LaneTap at_y = y_part.taps[y0 + static_cast<size_t>(lane)];
    const float* a = mic + pixel_at(0, at_y.a, scan->nx);
    const float* b = mic + pixel_at(0, at_y.b, scan->nx);
    for (int i = 0; i < x_part.plan.n; i++) {
      const LaneTap at_x = x_part.taps[i];
      row[i].re[lane] = at_y.at_a * (at_x.at_a * a[at_x.a] + at_x.at_b * a[at_x.b]) +
                        at_y.at_b * (at_x.at_a * b[at_x.a] + at_x.at_b * b[at_x.b]);
    }
  }
}

// Rows done (eight of them as the lanes of `row`) to kept blocks of columns that lie one after the other: rows y to
// y + 7 of each of the blocks.
void scatter_rows(const LaneValue* row, LaneValue* blocks, const KeptFrequencies& kept, size_t n_blocks, size_t rows,
                  size_t y) {
  for (size_t i = 0; i < kept_count(kept); i++) {
    LaneValue* to = blocks + i * rows + y;
    const LaneValue* from = row + kept_place(kept, i, n_blocks) * kLanes;
    lane_transpose(&from->re, 2, &to->re, 2);
    lane_transpose(&from->im, 2, &to->im, 2);
  }
}

// A block of the micrograph's spectrum, done and scaled, and the same for the templates turned on by 180 degrees.
KERNEL_LOOP void keep_column(const LaneValue* column, size_t n, float scale, const LaneValue* x_phase,
                             const float* y_phases, LaneValue* mic, LaneValue* mic_half_turn) {
  for (size_t y = 0; y < n; y++) {
    const Lane re = column[y].re * scale;
    const Lane im = column[y].im * scale;
    const Lane cosine = x_phase->re * y_phases[2 * y] - x_phase->im * y_phases[2 * y + 1];
    const Lane sine = x_phase->re * y_phases[2 * y + 1] + x_phase->im * y_phases[2 * y];
    mic[y] = {re, im};
    mic_half_turn[y] = {re * cosine - im * sine, re * sine + im * cosine};
  }
}

// exp(2 pi i k (t - 1) / n): cosine and sine for each k below n.
float* phases_new(int n, int t) {
  auto* phases = host_new<float>(2 * static_cast<size_t>(n));
  for (int k = 0; k < n; k++) {
    const double angle = 2 * 3.141592653589793 * (static_cast<double>(static_cast<long long>(k) * (t - 1) % n) / n);
    phases[2 * k] = static_cast<float>(std::cos(angle));
    phases[2 * k + 1] = static_cast<float>(std::sin(angle));
  }
  return phases;
}

LaneValue phases_of_block(const float* phases, size_t block, int n) {
  LaneValue of_block{};
  for (int lane = 0; lane < kLanes; lane++) {
    const size_t k = std::min(block * kLanes + static_cast<size_t>(lane), static_cast<size_t>(n) - 1);
    of_block.re[lane] = phases[2 * k];
    of_block.im[lane] = phases[2 * k + 1];
  }
  return of_block;
}

void transform_region(LaneScan* scan, const Region& region, const float* mic) {
  const LanePlan& x_plan = across(scan, region).plan;
  const LanePlan& y_plan = down(scan, region).plan;
  const auto height = static_cast<size_t>(y_plan.n);
  const float scale = 1 / (static_cast<float>(x_plan.n) * static_cast<float>(height));
  float* x_phases = phases_new(x_plan.n, scan->T_nx);
  float* y_phases = phases_new(y_plan.n, scan->T_ny);
#pragma omp parallel num_threads(scan->threads)
  {
    const ThreadScratch scratch = scratch_of_thread(scan);
#pragma omp for schedule(dynamic)
    for (size_t y = 0; y < region.rows; y += kLanes) {
      load_micrograph_rows(scan, region, mic, y, scratch.in);
      lane_fft(&x_plan, scratch.in, scratch.out, scratch.passes);
      scatter_rows(scratch.out, region.mic, {region.blocks, 0}, region.blocks, region.rows, y);
    }
#pragma omp for schedule(dynamic)
    for (size_t b = 0; b < region.blocks; b++) {
      LaneValue* column = region.mic + b * region.rows;
      lane_fft(&y_plan, column, scratch.out, scratch.passes);
      const LaneValue x_phase = phases_of_block(x_phases, b, x_plan.n);
      keep_column(scratch.out, height, scale, &x_phase, y_phases, column, region.mic_half_turn + b * region.rows);
    }
  }
  free(x_phases);
  free(y_phases);
}

// --- Which frequencies to keep ---

KERNEL_LOOP void add_column_energies(const LaneValue* column, size_t n, double* x_energy, double* y_energy) {
  Lane sums{};
  for (size_t y = 0; y < n; y++) {
    const Lane energy = column[y].re * column[y].re + column[y].im * column[y].im;
    sums += energy;
    float of_row = 0;
    for (int lane = 0; lane < kLanes; lane++) of_row += energy[lane];
    y_energy[y] += static_cast<double>(of_row);
  }
  for (int lane = 0; lane < kLanes; lane++) x_energy[lane] = static_cast<double>(sums[lane]);
}

void measure_energies(const LaneScan* scan, const Region& region) {
  std::fill_n(region.y_energy, region.rows, 0.0);
  for (size_t b = 0; b < region.blocks; b++)
    add_column_energies(region.mic + b * region.rows, static_cast<size_t>(down(scan, region).plan.n),
                        region.x_energy + b * kLanes, region.y_energy);
}

// The highest frequency of n that the rest of the energy doesn't allow to leave out.
size_t highest_kept(const double* energy, size_t n) {
  double total = 0;
  for (size_t k = 0; k < n; k++) total += energy[k];
  size_t highest = n / 2;
  double beyond = 0;
  while (highest > 0) {
    beyond += energy[highest] + (n - highest != highest ? energy[n - highest] : 0);
    if (!(beyond <= kNegligibleEnergy * total)) break;
    highest--;
  }
  return highest;
}

KeptFrequencies kept_up_to(size_t highest, size_t n, size_t unit) {
  const size_t units = (n + unit - 1) / unit;
  const KeptFrequencies kept{highest / unit + 1, highest == 0 ? 0 : units - (n - highest) / unit};
  return kept_count(kept) < units ? kept : KeptFrequencies{units, 0};
}

void choose_kept_frequencies(LaneScan* scan) {
  size_t highest_x[2] = {}, highest_y[2] = {};
  for (int r = 0; r < scan->n_regions; r++) {
    const Region& region = scan->regions[r];
    const auto width = static_cast<size_t>(across(scan, region).plan.n);
    const auto height = static_cast<size_t>(down(scan, region).plan.n);
    const bool whole = scan->n_regions == 1;
    if (!whole) measure_energies(scan, region);
    size_t& in_x = highest_x[region.across];
    size_t& in_y = highest_y[region.down];
    in_x = std::max(in_x, whole ? width / 2 : highest_kept(region.x_energy, width));
    in_y = std::max(in_y, whole ? height / 2 : highest_kept(region.y_energy, height));
  }
  for (int i = 0; i < scan->x.n_parts; i++)
    scan->kept_blocks[i] = kept_up_to(highest_x[i], static_cast<size_t>(scan->x.parts[i].plan.n), kLanes);
  for (int j = 0; j < scan->y.n_parts; j++)
    scan->kept_rows[j] = kept_up_to(highest_y[j], static_cast<size_t>(scan->y.parts[j].plan.n), 1);
}

// Values of the spectra of one pair of turns.
size_t spectra_of_pair(const LaneScan* scan) {
  size_t values = 0;
  for (int i = 0; i < scan->x.n_parts; i++) values += kept_count(scan->kept_blocks[i]) * scan->T_rows;
  for (int r = 0; r < scan->n_regions; r++)
    values += 2 * kept_count(scan->kept_blocks[scan->regions[r].across]) * scan->regions[r].rows;
  return values;
}

// Gives the spectra their places for as many pairs of turns as there is room for.
void place_spectra(LaneScan* scan) {
  scan->pairs = static_cast<int>(std::clamp<size_t>(scan->spectra_values / spectra_of_pair(scan), 1, kMostPairs));
  const auto pairs = static_cast<size_t>(scan->pairs);
  LaneValue* next = scan->spectra;
  for (int i = 0; i < scan->x.n_parts; i++) {
    scan->turned[i] = next;
    next += pairs * kept_count(scan->kept_blocks[i]) * scan->T_rows;
  }
  for (int r = 0; r < scan->n_regions; r++) {
    scan->regions[r].products = next;
    next += pairs * 2 * kept_count(scan->kept_blocks[scan->regions[r].across]) * scan->regions[r].rows;
  }
}

// --- The scan of one template ---

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

// Takes `value` at the angle psi into a pixel's best so far: of those that tie the earliest stays.
__attribute__((always_inline)) inline void take_best(LaneValue* best, Lane value, float psi) {
  const auto better = (best->re < value) | ((best->re == value) & (psi < best->im));
  best->re = better ? value : best->re;
  best->im = better ? Lane{} + psi : best->im;
}

// Takes the correlations of one angle, or of two, in a strip into the maps. The second one's are times second_sign.
KERNEL_LOOP void update_strip(const LaneValue* row, LaneValue* maps, int nx, float first_psi, bool second,
                              float second_psi, float second_sign) {
  for (int x = 0; x < nx; x++) {
    LaneValue best = maps[x];
    take_best(&best, row[x].im, first_psi);
    if (second) take_best(&best, row[x].re * second_sign, second_psi);
    maps[x] = best;
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
  LaneValue* product = region.products + (2 * pair * kept_count(blocks) + i) * region.rows;
  lane_fft_of_few(plan, turned, static_cast<size_t>(scan->T_ny), scratch.out, scratch.passes);
  const LaneValue* mic = region.mic + column;
  correlate_column(mic, scratch.out, scratch.in, rows.low);
  correlate_column(mic + high, scratch.out + high, scratch.in + high, rows.high);
  lane_fft_of_outer(plan, scratch.in, rows.low, rows.high, product, scratch.passes);
  if (!turns.has_half_turns) return;
  mic = region.mic_half_turn + column;
  multiply_column(mic, scratch.out, scratch.in, rows.low);
  multiply_column(mic + high, scratch.out + high, scratch.in + high, rows.high);
  lane_fft_of_outer(plan, scratch.in, rows.low, rows.high, product + kept_count(blocks) * region.rows, scratch.passes);
}

// Eight rows of the products of a pair: the inverse in x, taken into the maps.
void fold_product(const LaneScan* scan, const Region& region, const LaneValue* product, size_t strip, float first_psi,
                  bool second, float second_psi, float second_sign) {
  const ThreadScratch scratch = scratch_of_thread(scan);
  const LanePart& part = across(scan, region);
  const KeptFrequencies& kept = scan->kept_blocks[region.across];
  const auto width = static_cast<size_t>(part.plan.n);
  gather_rows(product, scratch.in, kept, region.blocks, region.rows, strip * kLanes);
  const size_t low = std::min(kept.low * kLanes, width);
  const size_t high = kept.high == 0 ? 0 : width - (region.blocks - kept.high) * kLanes;
  lane_fft_of_outer(&part.plan, scratch.in, low, high, scratch.out, scratch.passes);
  update_strip(scratch.out, region.maps + strip * static_cast<size_t>(part.count), part.count, first_psi, second,
               second_psi, second_sign);
}

void fold_rows(const LaneScan* scan, const Region& region, const TurnPair& turns, size_t pair, size_t strip) {
  const size_t values = kept_count(scan->kept_blocks[region.across]) * region.rows;
  const LaneValue* product = region.products + 2 * pair * values;
  fold_product(scan, region, product, strip, turns.first.psi, turns.has_second, turns.second.psi, 1);
  if (turns.has_half_turns)
    fold_product(scan, region, product + values, strip, turns.first.half_turn_psi, turns.has_second,
                 turns.second.half_turn_psi, -1);
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
    std::fill_n(region.maps, strips_of(scan, region) * static_cast<size_t>(across(scan, region).count),
                LaneValue{Lane{} - std::numeric_limits<float>::infinity(), Lane{}});
  }
}

// The correlations of a region's row y to a row of the maps, the place of the score added in x.
void write_region_row(const LaneScan* scan, const Region& region, int y, float divisor, float* ccmax, float* map_psi) {
  const LanePart& part = across(scan, region);
  const int place = scan->nx / 2 - (scan->nx - scan->T_nx) / 2;
  const LaneValue* from = region.maps + static_cast<size_t>(y / kLanes) * static_cast<size_t>(part.count);
  const int lane = y % kLanes;
  int to = (part.first + place) % scan->nx;
  for (int x = 0; x < part.count; x++) {
    ccmax[to] = from[x].re[lane] / divisor;
    if (map_psi) map_psi[to] = from[x].im[lane];
    if (++to == scan->nx) to = 0;
  }
}

void write_maps(const LaneScan* scan, float divisor, float* ccmax, float* map_psi) {
  const int place = scan->ny / 2 - (scan->ny - scan->T_ny) / 2;
#pragma omp parallel num_threads(scan->threads)
  for (int r = 0; r < scan->n_regions; r++) {
    const Region& region = scan->regions[r];
    const LanePart& part = down(scan, region);
#pragma omp for schedule(static) nowait
    for (int y = 0; y < part.count; y++) {
      const size_t row = pixel_at(0, (part.first + y + place) % scan->ny, scan->nx);
      write_region_row(scan, region, y, divisor, ccmax + row, map_psi ? map_psi + row : nullptr);
    }
  }
}

// --- Set-up ---

void divide_axes(LaneScan* scan, int n_angles, double band) {
  scan->x = lane_axis_whole(scan->nx, scan->T_nx);
  scan->y = lane_axis_whole(scan->ny, scan->T_ny);
  if (n_angles < kFewAngles || band >= 0.5 || std::min(scan->T_nx, scan->T_ny) < 2) return;
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
  region->mic = lane_values_new(region->blocks * region->rows);
  region->mic_half_turn = lane_values_new(region->blocks * region->rows);
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
  divide_axes(scan, n_angles, band);
  set_up_regions(scan);
  // Room for a pair of turns whose frequencies are all kept, at least.
  scan->spectra_values = std::max(spectra_of_pair(scan), kBatchBytes / sizeof(LaneValue));
  scan->spectra = lane_values_new(scan->spectra_values);
  scan->threads = omp_get_max_threads();
  scan->scratch = lane_values_new(static_cast<size_t>(scan->threads) * 4 * scan->scratch_values);
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
  for (int r = 0; r < scan->n_regions; r++) transform_region(scan, scan->regions[r], mic);
  choose_kept_frequencies(scan);
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
