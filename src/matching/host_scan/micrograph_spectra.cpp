// The micrograph's side of the host's own scan: its spectra, and which of their frequencies count.
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <numeric>

#include "compute/process2d_raw_kernels.h"
#include "matching/host_scan/regions.h"
#include "platform/host_memory.h"
#include "platform/loops.h"

namespace {

// Part of a micrograph's energy that the frequencies left out may hold. A search allows for what they would add.
constexpr double kNegligibleEnergy = 1e-10;

// Part of its energy that the rounding of single precision transforms is taken to change, with a wide margin.
constexpr double kRoundingEnergy = 1e-12;

// Eight rows of a region's pixels, none behind its last one; part: &LaneValue::re or &LaneValue::im.
void load_micrograph_rows(const HostScan* scan, const Region& region, const float* mic, size_t y0,
                          Lane LaneValue::*part, LaneValue* row) {
  const AxisPart& x_part = across(scan, region);
  const AxisPart& y_part = down(scan, region);
  for (int lane = 0; lane < kLanes && static_cast<int>(y0) + lane < y_part.plan.n; lane++) {
    const MirrorTap at_y = y_part.taps[y0 + static_cast<size_t>(lane)];
    const float* a = mic + pixel_at(0, at_y.a, scan->nx);
    const float* b = mic + pixel_at(0, at_y.b, scan->nx);
    for (int i = 0; i < x_part.plan.n; i++) {
      const MirrorTap at_x = x_part.taps[i];
      (row[i].*part)[lane] = at_y.at_a * (at_x.at_a * a[at_x.a] + at_x.at_b * a[at_x.b]) +
                             at_y.at_b * (at_x.at_a * b[at_x.a] + at_x.at_b * b[at_x.b]);
    }
  }
}

// Splits the transform of rows in re and others in im, n values each, into the lower halves of both spectra.
KERNEL_LOOP void split_spectra(const LaneValue* both, size_t n, LaneValue* in_re, LaneValue* in_im) {
  for (size_t k = 0; k <= n / 2; k++) {
    const LaneValue at = both[k];
    const LaneValue opposite = both[k == 0 ? 0 : n - k];
    in_re[k] = {(at.re + opposite.re) * 0.5f, (at.im - opposite.im) * 0.5f};
    in_im[k] = {(at.im + opposite.im) * 0.5f, (opposite.re - at.re) * 0.5f};
  }
}

KERNEL_LOOP void scale_column(const LaneValue* column, size_t n, float scale, LaneValue* mic) {
  for (size_t y = 0; y < n; y++) mic[y] = {column[y].re * scale, column[y].im * scale};
}

// A block of the micrograph's spectrum for the templates turned on by 180 degrees.
KERNEL_LOOP void turn_column(const LaneValue* mic, size_t n, const LaneValue* x_phase, const float* y_phases,
                             LaneValue* mic_half_turn) {
  for (size_t y = 0; y < n; y++) {
    const Lane cosine = x_phase->re * y_phases[2 * y] - x_phase->im * y_phases[2 * y + 1];
    const Lane sine = x_phase->re * y_phases[2 * y + 1] + x_phase->im * y_phases[2 * y];
    mic_half_turn[y] = {mic[y].re * cosine - mic[y].im * sine, mic[y].re * sine + mic[y].im * cosine};
  }
}

// exp(2 pi i k (t - 1) / n): cosine and sine for each k below n.
float* phases_new(int n, int t) {
  auto* phases = host_new<float>(2 * static_cast<size_t>(n));
  for (int k = 0; k < n; k++) {
    const double angle = 2 * M_PI * (static_cast<double>(static_cast<long long>(k) * (t - 1) % n) / n);
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

// Two strips of eight rows, for spectra of which only half is wanted: one as the real and one as the imaginary part.
void transform_row_pairs(const HostScan* scan, const Region& region, const float* mic, size_t strip, size_t other) {
  const ThreadScratch scratch = scratch_of_thread(scan);
  const LanePlan* plan = &across(scan, region).plan;
  const size_t blocks = half_spectrum_blocks(across(scan, region));
  memset(scratch.in, 0, region.blocks * kLanes * sizeof(LaneValue));
  load_micrograph_rows(scan, region, mic, strip * kLanes, &LaneValue::re, scratch.in);
  load_micrograph_rows(scan, region, mic, other * kLanes, &LaneValue::im, scratch.in);
  lane_fft(plan, scratch.in, scratch.out, scratch.passes);
  split_spectra(scratch.out, static_cast<size_t>(plan->n), scratch.in, scratch.other_out);
  scatter_rows(scratch.in, region.mic, {blocks, 0}, blocks, region.rows, strip * kLanes);
  if (other * kLanes < region.rows)
    scatter_rows(scratch.other_out, region.mic, {blocks, 0}, blocks, region.rows, other * kLanes);
}

void transform_region(HostScan* scan, const Region& region, const float* mic) {
  const LanePlan& x_plan = across(scan, region).plan;
  const LanePlan& y_plan = down(scan, region).plan;
  const auto height = static_cast<size_t>(y_plan.n);
  const size_t blocks = scan->n_angles == 1 ? half_spectrum_blocks(across(scan, region)) : region.blocks;
  const float scale = 1 / (static_cast<float>(x_plan.n) * static_cast<float>(height));
  float* x_phases = phases_new(x_plan.n, scan->T_nx);
  float* y_phases = phases_new(y_plan.n, scan->T_ny);
#pragma omp parallel num_threads(scan->threads)
  {
    const ThreadScratch scratch = scratch_of_thread(scan);
    if (scan->n_angles == 1) {
      const size_t strips = region.rows / kLanes;
      const size_t half = (strips + 1) / 2;
#pragma omp for schedule(dynamic)
      for (size_t strip = 0; strip < half; strip++) transform_row_pairs(scan, region, mic, strip, strip + half);
    } else {
#pragma omp for schedule(dynamic)
      for (size_t y = 0; y < region.rows; y += kLanes) {
        memset(scratch.in, 0, region.blocks * kLanes * sizeof(LaneValue));
        load_micrograph_rows(scan, region, mic, y, &LaneValue::re, scratch.in);
        lane_fft(&x_plan, scratch.in, scratch.out, scratch.passes);
        // What is left of other rows behind the last frequency would count among the energies.
        std::fill(scratch.out + x_plan.n, scratch.out + region.blocks * kLanes, LaneValue{});
        scatter_rows(scratch.out, region.mic, {region.blocks, 0}, region.blocks, region.rows, y);
      }
    }
#pragma omp for schedule(dynamic)
    for (size_t b = 0; b < blocks; b++) {
      LaneValue* column = region.mic + b * region.rows;
      lane_fft(&y_plan, column, scratch.out, scratch.passes);
      scale_column(scratch.out, height, scale, column);
      if (!region.mic_half_turn) continue;
      const LaneValue x_phase = phases_of_block(x_phases, b, x_plan.n);
      turn_column(column, height, &x_phase, y_phases, region.mic_half_turn + b * region.rows);
    }
  }
  free(x_phases);
  free(y_phases);
}

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

void measure_energies(const HostScan* scan, const Region& region) {
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

// Those up to the highest that the samples of a part can hold, at most to `highest`.
KeptFrequencies kept_of_part(const AxisPart& part, size_t highest, size_t unit) {
  const auto n = static_cast<size_t>(part.plan.n);
  const auto fitting = static_cast<size_t>(part.samples.n);
  KeptFrequencies kept = kept_up_to(highest, n, unit);
  while (low_values(kept, n, unit) + high_values(kept, n, unit) > fitting) kept = kept_up_to(--highest, n, unit);
  return kept;
}

// Energy of the frequencies that aren't kept.
double left_out(const double* energy, size_t n, const KeptFrequencies& kept, size_t unit) {
  double sum = 0;
  for (size_t k = low_values(kept, n, unit); k < n - high_values(kept, n, unit); k++) sum += energy[k];
  return sum;
}

// The norm of what the region's pixels lose with the frequencies left out, and of what rounding may change.
double lost_norm(const HostScan* scan, const Region& region) {
  const auto width = static_cast<size_t>(across(scan, region).plan.n);
  const auto height = static_cast<size_t>(down(scan, region).plan.n);
  const double total = std::accumulate(region.y_energy, region.y_energy + height, 0.0);
  const double lost = left_out(region.x_energy, width, scan->kept_blocks[region.across], kLanes) +
                      left_out(region.y_energy, height, scan->kept_rows[region.down], 1);
  return std::sqrt((lost + kRoundingEnergy * total) * static_cast<double>(width * height));
}

void choose_kept_frequencies(HostScan* scan) {
  size_t highest_x[2] = {}, highest_y[2] = {};
  for (int r = 0; r < scan->n_regions; r++) {
    Region& region = scan->regions[r];
    const auto width = static_cast<size_t>(across(scan, region).plan.n);
    const auto height = static_cast<size_t>(down(scan, region).plan.n);
    measure_energies(scan, region);
    size_t& in_x = highest_x[region.across];
    size_t& in_y = highest_y[region.down];
    in_x = std::max(in_x, highest_kept(region.x_energy, width));
    in_y = std::max(in_y, highest_kept(region.y_energy, height));
  }
  for (int i = 0; i < scan->x.n_parts; i++) scan->kept_blocks[i] = kept_of_part(scan->x.parts[i], highest_x[i], kLanes);
  for (int j = 0; j < scan->y.n_parts; j++) scan->kept_rows[j] = kept_of_part(scan->y.parts[j], highest_y[j], 1);
  for (int r = 0; r < scan->n_regions; r++) scan->regions[r].lost = lost_norm(scan, scan->regions[r]);
}

}  // namespace

void scatter_rows(const LaneValue* row, LaneValue* blocks, const KeptFrequencies& kept, size_t n_blocks, size_t rows,
                  size_t y) {
  for (size_t i = 0; i < kept_count(kept); i++) {
    LaneValue* to = blocks + i * rows + y;
    const LaneValue* from = row + kept_place(kept, i, n_blocks) * kLanes;
    lane_transpose(&from->re, 2, &to->re, 2);
    lane_transpose(&from->im, 2, &to->im, 2);
  }
}

KeptFrequencies most_kept(const AxisPart& part, size_t unit) {
  return kept_of_part(part, static_cast<size_t>(part.plan.n) / 2, unit);
}

void transform_regions(HostScan* scan, const float* mic) {
  for (int r = 0; r < scan->n_regions; r++) transform_region(scan, scan->regions[r], mic);
  if (scan->n_regions > 1) choose_kept_frequencies(scan);
}
