#include "matching/host_scan/peak_search.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "matching/host_scan/candidates.h"
#include "matching/host_scan/error_bounds.h"
#include "matching/host_scan/examine.h"
#include "matching/host_scan/interpolation.h"
#include "matching/host_scan/sample_grid.h"
#include "platform/host_memory.h"
#include "platform/loops.h"

namespace {

// A bound of scores, as the mean of all cells, from which on maps are faster. Usual ones are below 0.01.
constexpr float kVagueScore = 0.03f;

// Candidates that all threads together keep, and each at least, before they are decided between.
constexpr size_t kMostCandidates = size_t{512} << 10;
constexpr size_t kMostCandidatesOfThread = size_t{16} << 10;

// What one thread has to itself: its products and samples of a pair, and what it has found so far.
struct SearchThread {
  LaneValue* products;   // of a pair and of its half turns
  LaneValue* samples;    // strips of samples of two angles, kReach more on all sides
  LaneValue* between;    // a strip interpolated in y
  float* cell_limits;    // for each cell the least interpolated correlation that may be its peak
  const Region* region;  // that is searched
  Lane* limits;          // the same for the region's samples (sample_grid.h)
  CandidateList candidates;
  size_t n_taken;  // samples whose pixels were taken among them
};

}  // namespace

struct PeakSearch {
  CellGrid cells;
  SampleAxis x[2], y[2];  // of each part
  ErrorBounds bounds;
  SampleWeights edge_weights;  // of the edge parts, each of whose pixels is a sample
  float* errors;  // for each cell how far an interpolated correlation with the template can be from the truth
  WrappedImage mic;
  int n_threads;
  SearchThread* threads;
  float* cell_limits;  // the largest that the threads have told of
  Candidate* found;    // room for found_room
  size_t found_room;
  size_t most_candidates;  // that a thread keeps
  CellPeak* peaks;         // of each cell
  int first_angle;         // of the boxes at hand
  bool on_trial;
  size_t n_tried;  // samples that were taken in the trial
};

namespace {

SampleGrid grid_of(const PeakSearch* search, const Region& region) {
  const SampleAxis& y = search->y[region.down];
  return {&search->x[region.across], &y, sample_strips(y)};
}

const SampleWeights& weights_across(const PeakSearch* search, const Region& region) {
  return region.across == 0 ? search->bounds.x : search->edge_weights;
}
const SampleWeights& weights_down(const PeakSearch* search, const Region& region) {
  return region.down == 0 ? search->bounds.y : search->edge_weights;
}

// Rows of a block of products: the strips' rows, and no fewer than a transform gives.
size_t product_rows(const HostScan* scan, const Region& region) {
  const size_t of_strips = sample_strips(scan->search->y[region.down]) * kLanes;
  return std::max(of_strips, static_cast<size_t>(down(scan, region).samples.n));
}

// Values of a strip of samples, kReach before those of the grid and as many behind.
size_t strip_width(const HostScan* scan, const Region& region) {
  return static_cast<size_t>(across(scan, region).samples.n);
}

// --- One pair of turns in one region ---

// A pair of turns: the place of its spectra, and those of its angles among the boxes.
struct SearchedPair {
  size_t spectra;
  int angles[2][2];  // of the turns and of their half turns: first and second
};

// A strip's place among the samples of a thread.
LaneValue* strip_at(const SearchThread* thread, size_t strip, size_t width) {
  return thread->samples + (strip + kReach) * width;
}

// The inverse in x of the rows of a strip.
void transform_strip(const HostScan* scan, const Region& region, const LaneValue* products, size_t strip,
                     size_t n_strips, bool negate_re, LaneValue* to) {
  const ThreadScratch scratch = scratch_of_thread(scan);
  const AxisPart& part = across(scan, region);
  const KeptFrequencies& kept = scan->kept_blocks[region.across];
  const auto n = static_cast<size_t>(part.samples.n);
  const auto width = static_cast<size_t>(part.plan.n);
  gather_rows(part, kept, products, product_rows(scan, region), strip, n_strips, scratch.in);
  lane_fft_of_outer(&part.samples, scratch.in, low_values(kept, width, kLanes), high_values(kept, width, kLanes), to,
                    scratch.passes);
  if (negate_re)
    for (size_t x = 0; x < n; x++) to[x].re = -to[x].re;
}

// Each lane's values to the next lane, or to the one before it.
KERNEL_LOOP void move_lanes_up(const LaneValue* from, size_t n, LaneValue* to) {
  for (size_t x = 0; x < n; x++)
    to[x] = {__builtin_shufflevector(Lane{}, from[x].re, 0, 8, 9, 10, 11, 12, 13, 14),
             __builtin_shufflevector(Lane{}, from[x].im, 0, 8, 9, 10, 11, 12, 13, 14)};
}
KERNEL_LOOP void move_lanes_down(const LaneValue* from, size_t n, LaneValue* to) {
  for (size_t x = 0; x < n; x++)
    to[x] = {__builtin_shufflevector(from[x].re, Lane{}, 1, 2, 3, 4, 5, 6, 7, 8),
             __builtin_shufflevector(from[x].im, Lane{}, 1, 2, 3, 4, 5, 6, 7, 8)};
}

// Strips before the first and behind the last: the neighbouring lanes of those at the other end.
void continue_strips(const SearchThread* thread, size_t n_strips, size_t width) {
  for (size_t i = 1; i <= kReach; i++) {
    move_lanes_up(strip_at(thread, n_strips - i, width), width, thread->samples + (kReach - i) * width);
    move_lanes_down(strip_at(thread, i - 1, width), width, strip_at(thread, n_strips + i - 1, width));
  }
}

// What a strip's samples are examined with.
struct Examined {
  const HostScan* scan;
  const Region* region;
  SearchThread* thread;
  SampleGrid grid;
  SampleRows rows;
  size_t strip;
  const int* angles;  // of the correlations in im and in re
};

// Raises what a cell's peak must reach; the samples around it follow.
void raise_limit(const Examined& at, int cell, float limit) {
  const int grid_nx = at.scan->search->cells.nx;
  float* cell_limits = at.thread->cell_limits;
  if (!(cell_limits[cell] < limit)) return;
  cell_limits[cell] = limit;
  update_limits(at.grid, cell_limits, grid_nx, cell % grid_nx, cell / grid_nx, at.thread->limits);
}

// Decides between a thread's candidates, of which there are too many to keep.
void settle_thread(const Examined& at) {
  PeakSearch* search = at.scan->search;
  SearchThread* thread = at.thread;
  candidates_drop(&thread->candidates, thread->cell_limits);
  if (thread->candidates.count < search->most_candidates / 2) return;
#pragma omp critical(peak_search_peaks)
  {
    update_peaks_alone(search->mic, at.scan->boxes, search->first_angle, &thread->candidates, search->errors,
                       search->peaks);
    for (size_t c = 0; c < cells_of(search->cells); c++)
      if (search->peaks[c].angle >= 0) raise_limit(at, static_cast<int>(c), search->peaks[c].value - search->errors[c]);
  }
  thread->candidates.count = 0;
}

// Takes the pixels around one sample among the candidates; lane: of the 2 * kLanes correlations.
void take_candidates(const Examined& at, size_t x, int lane) {
  const PeakSearch* search = at.scan->search;
  const SampleAxis& x_axis = *at.grid.x;
  const SampleAxis& y_axis = *at.grid.y;
  const SampleWeights& weights = weights_across(search, *at.region);
  const size_t y = static_cast<size_t>(lane % kLanes) * at.grid.n_strips + at.strip - kReach;
  Candidate around[kMostStep * kMostStep];
  int count = 0;
  for (int j = 0; j < y_axis.step; j++) {
    const int pixel_y = y_axis.pixels[y * static_cast<size_t>(y_axis.step) + static_cast<size_t>(j)];
    for (int i = 0; i < x_axis.step && pixel_y >= 0; i++) {
      const int pixel_x = x_axis.pixels[x * static_cast<size_t>(x_axis.step) + static_cast<size_t>(i)];
      if (pixel_x < 0) continue;
      const int cell = pixel_y / search->cells.side * search->cells.nx + pixel_x / search->cells.side;
      const float value = interpolated(at.rows, j, x, weights, i, lane);
      const auto pixel =
          static_cast<unsigned>(pixel_y) * static_cast<unsigned>(at.scan->nx) + static_cast<unsigned>(pixel_x);
      around[count++] = {pixel, cell, at.angles[lane < kLanes], value};
      raise_limit(at, cell, value - 2 * search->errors[cell]);
    }
  }
  for (int i = 0; i < count; i++)
    if (around[i].value >= at.thread->cell_limits[around[i].cell])
      candidates_add(&at.thread->candidates, around[i], at.thread->cell_limits);
  at.thread->n_taken++;
  if (!search->on_trial && at.thread->candidates.count >= search->most_candidates) settle_thread(at);
}

// Takes the pixels around those samples of a value that are above their limits.
void take_above(const Examined& at, size_t x, const LaneValue& above) {
  const Lane largest = above.re > above.im ? above.re : above.im;
  for (int lane = 0; lane < kLanes; lane++) {
    if (!(largest[lane] > 0)) continue;
    if (above.re[lane] > 0) take_candidates(at, x, lane);
    if (above.im[lane] > 0) take_candidates(at, x, kLanes + lane);
  }
}

// Looks through the samples of a strip.
void examine_strip(const Examined& at) {
  const SampleAxis& x_axis = *at.grid.x;
  const SampleWeights& weights = weights_across(at.scan->search, *at.region);
  const Lane* limits = at.thread->limits + at.strip * static_cast<size_t>(x_axis.n_runs);
  const float added_in_re = at.angles[1] < 0 ? std::numeric_limits<float>::infinity() : 0;
  const auto n = static_cast<size_t>(x_axis.n_samples);
  for (size_t x = 0; x < n; x += kExamined) {
    const size_t count = std::min(kExamined, n - x);
    LaneValue above[kExamined];
    if (!find_above(at.rows, x, count, weights, {limits, x_axis.run_of_sample + x, added_in_re}, above)) continue;
    for (size_t i = 0; i < count; i++) take_above(at, x + i, above[i]);
  }
}

// Counts what was taken in a trial. Returns whether it is more than that may cost.
bool is_beyond_trial(const HostScan* scan, SearchThread* thread) {
  if (!scan->search->on_trial || !scan->budget.is_limited) return false;
  size_t n_tried;
#pragma omp atomic capture
  n_tried = scan->search->n_tried += thread->n_taken;
  thread->n_taken = 0;
  return n_tried > scan->budget.trial_candidates;
}

// Raises the cells' limits by the samples themselves, which costs little beside taking the pixels around each one that is
// above a low limit. Samples whose pixels lie in several cells are left out.
void raise_limits_by_samples(const HostScan* scan, const SampleGrid& grid, size_t width, bool has_second,
                             SearchThread* thread) {
  const PeakSearch* search = scan->search;
  const SampleAxis& x_axis = *grid.x;
  const SampleAxis& y_axis = *grid.y;
  const auto is_inside = [](const SampleAxis& axis, int sample) {
    return axis.pixels[sample * axis.step - lowest_offset(axis.step)] >= 0;
  };
  for (size_t row = kReach; row < static_cast<size_t>(y_axis.n_samples) + kReach; row++) {
    const int y = static_cast<int>(row) - kReach;
    const SampleRun& y_run = y_axis.runs[y_axis.run_of_sample[y]];
    if (y_run.first_cell != y_run.last_cell || !is_inside(y_axis, y)) continue;
    const LaneValue* samples = strip_at(thread, row % grid.n_strips, width) + kReach;
    const size_t lane = row / grid.n_strips;
    for (const SampleRun* run = x_axis.runs; run < x_axis.runs + x_axis.n_runs; run++) {
      if (run->first_cell != run->last_cell || !is_inside(x_axis, run->begin) || !is_inside(x_axis, run->end - 1))
        continue;
      float best = -std::numeric_limits<float>::infinity();
      for (int x = run->begin; x < run->end; x++) {
        best = std::max(best, samples[x].im[lane]);
        if (has_second) best = std::max(best, samples[x].re[lane]);
      }
      const int cell = y_run.first_cell * search->cells.nx + run->first_cell;
      thread->cell_limits[cell] = std::max(thread->cell_limits[cell], best - 2 * search->errors[cell]);
    }
  }
  set_limits(grid, thread->cell_limits, search->cells.nx, thread->limits);
}

// The samples of two angles from their products, and the candidates among them.
void examine_products(const HostScan* scan, const Region& region, SearchThread* thread, const LaneValue* products,
                      const int* angles, bool are_half_turns) {
  const PeakSearch* search = scan->search;
  const SampleGrid grid = grid_of(search, region);
  const size_t width = strip_width(scan, region);
  for (size_t strip = 0; strip < grid.n_strips; strip++)
    transform_strip(scan, region, products, strip, grid.n_strips, are_half_turns, strip_at(thread, strip, width));
  continue_strips(thread, grid.n_strips, width);
  if (search->on_trial) raise_limits_by_samples(scan, grid, width, angles[1] >= 0, thread);
  for (size_t strip = 0; strip < grid.n_strips; strip++) {
    const size_t used = static_cast<size_t>(grid.x->n_samples) + 2 * kReach;
    const SampleRows rows =
        interpolate_in_y(strip_at(thread, strip, width), width, used, weights_down(search, region), thread->between);
    examine_strip({scan, &region, thread, grid, rows, strip, angles});
    if (is_beyond_trial(scan, thread)) return;
  }
}

// Tells the other threads what the cells' peaks must reach, and hears of it. Returns whether there was anything to hear.
bool exchange_limits(PeakSearch* search, SearchThread* thread) {
  bool any = false;
#pragma omp critical(peak_search_limits)
  for (size_t c = 0; c < cells_of(search->cells); c++) {
    if (thread->cell_limits[c] < search->cell_limits[c]) {
      thread->cell_limits[c] = search->cell_limits[c];
      any = true;
    } else {
      search->cell_limits[c] = thread->cell_limits[c];
    }
  }
  return any;
}

// Searches a region for the turns of a pair, for their half turns, or for both.
void search_region(const HostScan* scan, const Region& region, const SearchedPair& pair, bool turns, bool half_turns,
                   SearchThread* thread) {
  if ((!scan->search->on_trial && exchange_limits(scan->search, thread)) || thread->region != &region) {
    thread->region = &region;
    set_limits(grid_of(scan->search, region), thread->cell_limits, scan->search->cells.nx, thread->limits);
  }
  const size_t blocks = kept_count(scan->kept_blocks[region.across]);
  const size_t rows = product_rows(scan, region);
  LaneValue* half_turn_products = thread->products + blocks * rows;
  for (size_t i = 0; i < blocks; i++)
    correlate_columns(scan, region, pair.spectra, i, turns ? thread->products + i * rows : nullptr,
                      half_turns ? half_turn_products + i * rows : nullptr);
  if (turns) examine_products(scan, region, thread, thread->products, pair.angles[0], false);
  if (half_turns) examine_products(scan, region, thread, half_turn_products, pair.angles[1], true);
}

// --- One template ---

SearchedPair searched_pair(const HostScan* scan, const TurnPair& turns, size_t in_batch) {
  const Turn& first = turns.first;
  const Turn second = turns.has_second ? turns.second : Turn{-1, -1};
  const size_t spectra = scan->kept_spectra ? static_cast<size_t>(turns.place) : in_batch;
  return {spectra, {{first.angle, second.angle}, {first.half_turn, second.half_turn}}};
}

// What a thread's candidates must reach from now on.
void set_thread_limits(SearchThread* thread, const float* cell_limits, size_t n_cells) {
  std::copy_n(cell_limits, n_cells, thread->cell_limits);
  thread->region = nullptr;
}

// What a peak must reach: `least` and what is known already, less what an interpolated value may be short of it.
void set_known_limits(const HostScan* scan, float least) {
  PeakSearch* search = scan->search;
  for (size_t c = 0; c < cells_of(search->cells); c++) {
    const CellPeak& peak = search->peaks[c];
    search->cell_limits[c] = (peak.angle < 0 ? least : std::max(least, peak.value)) - search->errors[c];
  }
  for (int t = 0; t < search->n_threads; t++)
    set_thread_limits(search->threads + t, search->cell_limits, cells_of(search->cells));
}

// A step through 0 .. n - 1 that comes by all of them and soon near each: neighbouring angles have like peaks, and those
// that are found early spare the others.
size_t spreading_step(size_t n) {
  const auto has_common_factor = [](size_t a, size_t b) {
    while (b) {
      const size_t rest = a % b;
      a = b;
      b = rest;
    }
    return a > 1;
  };
  size_t step = std::max<size_t>(n * 5 / 8, 1);
  while (step > 1 && has_common_factor(n, step)) step--;
  return step;
}

// Puts the pairs into an order in which those that are near each other are far apart.
void spread_turns(TurnPair* turns, size_t n) {
  auto* in_order = host_new<TurnPair>(n);
  std::copy_n(turns, n, in_order);
  const size_t step = spreading_step(n);
  // Turns by right angles, of which the first is one, are like no others.
  for (size_t i = 0; i < n; i++) turns[i] = in_order[(i + 1) * step % n];
  free(in_order);
}

// Strips of eight rows of a pair's boxes that aren't transformed yet.
size_t strips_to_transform(const HostScan* scan) { return scan->kept_spectra ? 0 : scan->T_rows / kLanes; }

// Takes the candidates of `count` pairs of turns into the threads' lists.
void search_pairs(const HostScan* scan, const TurnPair* turns, size_t count) {
  PeakSearch* search = scan->search;
  const size_t T_strips = strips_to_transform(scan);
  // Many cores are busy longer with smaller tasks, though these transform the templates' columns twice.
  const size_t tasks_of_pair = count < 3 * static_cast<size_t>(search->n_threads) ? 2 : 1;
#pragma omp parallel num_threads(search->n_threads)
  {
    SearchThread* thread = search->threads + omp_get_thread_num();
#pragma omp for schedule(dynamic)
    for (size_t i = 0; i < count * T_strips; i++)
      transform_template_rows(scan, turns[i / T_strips], i / T_strips, i % T_strips * kLanes);
#pragma omp for schedule(dynamic)
    for (size_t i = 0; i < count * tasks_of_pair * static_cast<size_t>(scan->n_regions); i++) {
      const size_t task = i / tasks_of_pair;
      const size_t pair = task % count;
      const bool has_turns = i % tasks_of_pair == 0;
      const bool has_half_turns = turns[pair].has_half_turns && i % tasks_of_pair == tasks_of_pair - 1;
      if (has_turns || has_half_turns)
        search_region(scan, scan->regions[task / count], searched_pair(scan, turns[pair], pair), has_turns,
                      has_half_turns, thread);
    }
    exchange_limits(search, thread);
  }
}

// The same of one pair, for the trial: each region and kind of turns begins with the same limits, so that what it takes
// doesn't depend on the threads. Returns whether it is less than the trial may cost.
bool search_trial_pair(const HostScan* scan, const TurnPair& turns) {
  PeakSearch* search = scan->search;
  search->on_trial = true;
  search->n_tried = 0;
  const size_t T_strips = strips_to_transform(scan);
#pragma omp parallel num_threads(search->n_threads)
  {
    SearchThread* thread = search->threads + omp_get_thread_num();
    thread->n_taken = 0;
#pragma omp for schedule(dynamic)
    for (size_t i = 0; i < T_strips; i++) transform_template_rows(scan, turns, 0, i * kLanes);
#pragma omp for schedule(dynamic)
    for (int i = 0; i < 2 * scan->n_regions; i++) {
      const bool half_turns = i % 2 == 1;
      if ((half_turns && !turns.has_half_turns) || is_beyond_trial(scan, thread)) continue;
      set_thread_limits(thread, search->cell_limits, cells_of(search->cells));
      search_region(scan, scan->regions[i / 2], searched_pair(scan, turns, 0), !half_turns, half_turns, thread);
    }
  }
  search->on_trial = false;
  return !scan->budget.is_limited || search->n_tried <= scan->budget.trial_candidates;
}

// Part of the template's turns that a pair is.
double part_of_turns(const HostScan* scan, const TurnPair& turns) {
  return (turns.has_second ? 2.0 : 1.0) * (turns.has_half_turns ? 2.0 : 1.0) / scan->n_angles;
}

// The largest of the errors that a correlation with one of the boxes can have in each cell.
void set_errors(const HostScan* scan) {
  const float norm = std::sqrt(scan->boxes.energy);
  for (size_t c = 0; c < cells_of(scan->search->cells); c++)
    scan->search->errors[c] = norm * scan->search->bounds.error_norms[c];
}

// Where all threads' candidates come together, with room for them.
Candidate* room_for_candidates(PeakSearch* search, const CandidateList* lists, int n_lists) {
  size_t count = 0;
  for (int l = 0; l < n_lists; l++) count += lists[l].count;
  if (count > search->found_room) {
    free(search->found);
    search->found = host_new<Candidate>(count);
    search->found_room = count;
  }
  return search->found;
}

// The threads' lists, for free.
CandidateList* lists_new(const PeakSearch* search) {
  auto* lists = host_new<CandidateList>(static_cast<size_t>(search->n_threads));
  for (int t = 0; t < search->n_threads; t++) lists[t] = search->threads[t].candidates;
  return lists;
}

// Decides between the candidates of all threads.
void settle_search(const HostScan* scan) {
  PeakSearch* search = scan->search;
  CandidateList* lists = lists_new(search);
  Candidate* found = room_for_candidates(search, lists, search->n_threads);
  update_peaks(search->mic, scan->boxes, search->first_angle, lists, search->n_threads, search->cell_limits,
               search->errors, cells_of(search->cells), found, search->peaks);
  free(lists);
  for (int t = 0; t < search->n_threads; t++) search->threads[t].candidates.count = 0;
}

// Drops the candidates that can't be a peak beside the most promising one of their cell. Returns how many are left.
size_t keep_promising_candidates(const HostScan* scan, float least) {
  PeakSearch* search = scan->search;
  CandidateList* lists = lists_new(search);
  take_best_candidates(search->mic, scan->boxes, search->first_angle, lists, search->n_threads, cells_of(search->cells),
                       search->peaks);
  free(lists);
  set_known_limits(scan, least);
  size_t left = 0;
  for (int t = 0; t < search->n_threads; t++) {
    candidates_drop(&search->threads[t].candidates, search->cell_limits);
    left += search->threads[t].candidates.count;
  }
  return left;
}

// The first pixel of a cell is never its peak.
bool is_first_of_cell(const HostScan* scan, unsigned pixel) {
  const auto nx = static_cast<unsigned>(scan->nx);
  const auto cell = static_cast<unsigned>(scan->search->cells.side);
  return pixel % nx % cell == 0 && pixel / nx % cell == 0;
}

SearchThread search_thread_new(const HostScan* scan) {
  const PeakSearch* search = scan->search;
  SearchThread thread{};
  size_t products = 0, samples = 0, width = 0, limits = 0;
  for (int r = 0; r < scan->n_regions; r++) {
    const Region& region = scan->regions[r];
    const SampleGrid grid = grid_of(search, region);
    width = std::max(width, strip_width(scan, region));
    products = std::max(products, 2 * most_kept_blocks(across(scan, region)) * product_rows(scan, region));
    samples = std::max(samples, (grid.n_strips + 2 * kReach) * strip_width(scan, region));
    limits = std::max(limits, grid.n_strips * static_cast<size_t>(grid.x->n_runs));
  }
  thread.limits = reinterpret_cast<Lane*>(lane_values_new((limits + 1) / 2));
  thread.products = lane_values_new(products);
  thread.samples = lane_values_new(samples);
  thread.between = lane_values_new((kMostStep - 1) * width);
  thread.cell_limits = host_new<float>(cells_of(search->cells));
  return thread;
}

void search_thread_free(SearchThread* thread) {
  for (LaneValue* values : {thread->products, thread->samples, thread->between}) free(values);
  free(thread->limits);
  free(thread->cell_limits);
  free(thread->candidates.items);
}

}  // namespace

void peak_search_new(HostScan* scan, int cell) {
  auto* search = host_new<PeakSearch>(1);
  *search = PeakSearch{};
  scan->search = search;
  const int side = std::min(cell, std::max(scan->nx, scan->ny));
  search->cells = {side, (scan->nx - 1) / side + 1, (scan->ny - 1) / side + 1};
  for (int i = 0; i < 2; i++) {
    search->x[i] = sample_axis_new(scan->x.parts[i], scan->nx, place_of_score(scan->nx, scan->T_nx), side);
    search->y[i] = sample_axis_new(scan->y.parts[i], scan->ny, place_of_score(scan->ny, scan->T_ny), side);
  }
  search->edge_weights.step = 1;
  search->edge_weights.of_offset[0][kReach] = 1;
  search->bounds = error_bounds_new(scan, search->cells);
  search->errors = host_new<float>(cells_of(search->cells));
  search->cell_limits = host_new<float>(cells_of(search->cells));
  search->peaks = host_new<CellPeak>(cells_of(search->cells));
  search->mic = wrapped_image_new(scan->nx, scan->ny, scan->T_nx, scan->T_ny);
  search->n_threads = std::min(scan->threads, scan->n_angles);
  search->threads = host_new<SearchThread>(static_cast<size_t>(search->n_threads));
  for (int t = 0; t < search->n_threads; t++) search->threads[t] = search_thread_new(scan);
  search->most_candidates = std::max(kMostCandidates / static_cast<size_t>(search->n_threads), kMostCandidatesOfThread);
}

void peak_search_free(PeakSearch* search) {
  if (!search) return;
  for (int i = 0; i < 2; i++) {
    sample_axis_free(&search->x[i]);
    sample_axis_free(&search->y[i]);
  }
  for (int t = 0; t < search->n_threads; t++) search_thread_free(search->threads + t);
  free(search->threads);
  error_bounds_free(&search->bounds);
  wrapped_image_free(&search->mic);
  for (float* values : {search->errors, search->cell_limits}) free(values);
  free(search->found);
  free(search->peaks);
  free(search);
}

void peak_search_prepare(const HostScan* scan, const float* mic) {
  find_error_bounds(&scan->search->bounds, scan, scan->search->cells, mic);
  wrapped_image_set(&scan->search->mic, mic);
}

bool peak_search_is_vague(const HostScan* scan, float energy, float divisor) {
  return scan->search->bounds.mean_norm * std::sqrt(energy) > kVagueScore * divisor;
}

const float* peak_search_row(const HostScan* scan, int y) {
  return scan->search->mic.pixels + static_cast<size_t>(y) * scan->search->mic.width;
}

int peak_search_cell(const HostScan* scan) { return scan->search->cells.side; }

void peak_search_begin(const HostScan* scan) {
  PeakSearch* search = scan->search;
  std::fill_n(search->peaks, cells_of(search->cells), CellPeak{0, 0, -1});
  for (int t = 0; t < search->n_threads; t++) search->threads[t].candidates.count = 0;
}

bool peak_search_take(const HostScan* scan, TurnPair* turns, size_t n_pairs, int first_angle, float least) {
  PeakSearch* search = scan->search;
  const auto batch = static_cast<size_t>(scan->pairs);
  search->first_angle = first_angle;
  spread_turns(turns, n_pairs);
  set_errors(scan);
  set_known_limits(scan, least);
  const size_t tried = first_angle == 0 && n_pairs > 0 ? 1 : 0;
  if (tried) {
    if (!search_trial_pair(scan, turns[0])) return false;
    const size_t left = keep_promising_candidates(scan, least);
    if (scan->budget.is_limited && !rest_pays(scan->budget, part_of_turns(scan, turns[0]), left)) return false;
  }
  for (size_t i = tried; i < n_pairs; i += batch) search_pairs(scan, turns + i, std::min(batch, n_pairs - i));
  settle_search(scan);
  return true;
}

void peak_search_drop_candidates(const HostScan* scan) {
  PeakSearch* search = scan->search;
  for (int t = 0; t < search->n_threads; t++) {
    free(search->threads[t].candidates.items);
    search->threads[t].candidates = CandidateList{};
  }
  free(search->found);
  search->found = nullptr;
  search->found_room = 0;
}

void peak_search_write(const HostScan* scan, const float* psi, float divisor, unsigned* found, float* cc,
                       float* cell_psi) {
  for (size_t c = 0; c < cells_of(scan->search->cells); c++) {
    const CellPeak& peak = scan->search->peaks[c];
    const bool any = peak.angle >= 0;
    cc[c] = any ? peak.value / divisor : -std::numeric_limits<float>::infinity();
    found[c] = any && !is_first_of_cell(scan, peak.pixel) ? peak.pixel : 0;
    cell_psi[c] = found[c] ? psi[peak.angle] : 0;
  }
}
