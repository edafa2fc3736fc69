// From the turned templates of a pair to the inverses of their products with the micrograph's spectrum.
#include <algorithm>
#include <cstring>

#include "matching/host_scan/kept_turns.h"
#include "matching/host_scan/regions.h"
#include "matching/host_scan/template_turns.h"
#include "platform/loops.h"

namespace {

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

// The transform in y of kept block i of a pair's templates: what is kept of it, or made in scratch.out.
TurnedColumn turned_column(const HostScan* scan, const Region& region, size_t pair, size_t i,
                           const ThreadScratch& scratch) {
  if (scan->kept_spectra) return kept_column(scan, region, pair, i);
  const LanePlan* plan = &down(scan, region).plan;
  const KeptFrequencies& rows = scan->kept_rows[region.down];
  const size_t blocks = kept_count(scan->kept_blocks[region.across]);
  const LaneValue* turned = scan->turned[region.across] + (pair * blocks + i) * scan->T_rows;
  lane_fft_of_few(plan, turned, static_cast<size_t>(scan->T_ny), rows.low, rows.high, scratch.out, scratch.passes);
  return {scratch.out, scratch.out + plan->n - rows.high};
}

}  // namespace

void transform_template_rows(const HostScan* scan, const TurnPair& turns, size_t pair, size_t y0) {
  const ThreadScratch scratch = scratch_of_thread(scan);
  const auto T_nx = static_cast<size_t>(scan->T_nx);
  const float* first = box_at(scan->boxes, turns.first.angle);
  const float* second = box_at(scan->boxes, turns.second.angle);
  memset(scratch.in, 0, T_nx * sizeof(LaneValue));
  for (int lane = 0; lane < kLanes && static_cast<int>(y0) + lane < scan->T_ny; lane++) {
    const size_t row = (y0 + static_cast<size_t>(lane)) * scan->boxes.width;
    for (size_t x = 0; x < T_nx; x++) scratch.in[x].re[lane] = first[row + x];
    for (size_t x = 0; x < T_nx && turns.has_second; x++) scratch.in[x].im[lane] = -second[row + x];
  }
  for (int i = 0; i < scan->x.n_parts; i++) {
    const AxisPart& part = scan->x.parts[i];
    const KeptFrequencies& kept = scan->kept_blocks[i];
    const auto width = static_cast<size_t>(part.plan.n);
    lane_fft_of_few(&part.plan, scratch.in, T_nx, low_values(kept, width, kLanes), high_values(kept, width, kLanes),
                    scratch.out, scratch.passes);
    LaneValue* turned = scan->turned[i] + pair * kept_count(kept) * scan->T_rows;
    scatter_rows(scratch.out, turned, kept, width_in_blocks(part), scan->T_rows, y0);
  }
}

void correlate_columns(const HostScan* scan, const Region& region, size_t pair, size_t i, LaneValue* product,
                       LaneValue* half_turn_product) {
  const ThreadScratch scratch = scratch_of_thread(scan);
  const LanePlan* samples = &down(scan, region).samples;
  const KeptFrequencies& rows = scan->kept_rows[region.down];
  const auto n = static_cast<size_t>(samples->n);
  const size_t high = static_cast<size_t>(down(scan, region).plan.n) - rows.high;
  const size_t column = kept_place(scan->kept_blocks[region.across], i, region.blocks) * region.rows;
  const TurnedColumn turned = turned_column(scan, region, pair, i, scratch);
  LaneValue* in_high = scratch.in + (n - rows.high);
  if (product) {
    const LaneValue* mic = region.mic + column;
    correlate_column(mic, turned.low, scratch.in, rows.low);
    correlate_column(mic + high, turned.high, in_high, rows.high);
    lane_fft_of_outer(samples, scratch.in, rows.low, rows.high, product, scratch.passes);
  }
  if (half_turn_product) {
    const LaneValue* mic = region.mic_half_turn + column;
    multiply_column(mic, turned.low, scratch.in, rows.low);
    multiply_column(mic + high, turned.high, in_high, rows.high);
    lane_fft_of_outer(samples, scratch.in, rows.low, rows.high, half_turn_product, scratch.passes);
  }
}

void gather_rows(const AxisPart& part, const KeptFrequencies& kept, const LaneValue* products, size_t rows, size_t y,
                 size_t apart, LaneValue* row) {
  // What of the last block lies behind a spectrum's end falls into the row's margin.
  constexpr size_t kAhead = 4;  // blocks lie too far apart for the processor to see the next one coming
  const size_t count = kept_count(kept);
  const auto dropped = static_cast<size_t>(part.plan.n - part.samples.n);
  for (size_t i = 0; i < count; i++) {
    const LaneValue* from = products + i * rows + y;
    if (i + kAhead < count)
      for (size_t k = 0; k < kLanes; k++) __builtin_prefetch(from + kAhead * rows + k * apart);
    LaneValue* to = row + kept_place(kept, i, width_in_blocks(part)) * kLanes - (i < kept.low ? 0 : dropped);
    lane_transpose(&from->re, 2 * apart, &to->re, 2);
    lane_transpose(&from->im, 2 * apart, &to->im, 2);
  }
}

void divide_rows(const HostScan* scan, const Region& region, const LaneValue* products, size_t rows, size_t y,
                 LaneValue* row, LaneValue* parts) {
  const AxisPart& part = across(scan, region);
  const KeptFrequencies& kept = scan->kept_blocks[region.across];
  const auto width = static_cast<size_t>(part.plan.n);
  gather_rows(part, kept, products, rows, y, 1, row);
  lane_fft_divide_outer(&part.samples, row, low_values(kept, width, kLanes), high_values(kept, width, kLanes), parts);
}
