#include "matching/host_scan/kept_turns.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "platform/host_memory.h"

namespace {

// Bytes that may be kept: eight templates of 61 pixels at 72 angles in an image of 1024 squared. Where less than half of a
// run's templates fit, what is saved isn't worth the memory.
constexpr size_t kBytesKept = size_t{280} << 20;
constexpr size_t kLeastPartKept = 2;

// Turns of a pair with half turns.
constexpr size_t kAnglesOfPair = 4;

// Templates that the books have room for.
constexpr size_t kMostTemplates = 1024;

/// A template that has been searched for, and its spectra if they are kept: those of each pair one after the other.
struct KeptTemplate {
  float* pixels;
  TurnPair* pairs;
  int n_pairs;
  int searches;  // that have paid
  LaneValue* spectra;
};

bool is_same_turn(const Turn& a, const Turn& b) { return a.angle == b.angle && a.half_turn == b.half_turn; }

bool is_same_pair(const TurnPair& a, const TurnPair& b) {
  return is_same_turn(a.first, b.first) && a.has_second == b.has_second && a.has_half_turns == b.has_half_turns &&
         (!a.has_second || is_same_turn(a.second, b.second));
}

}  // namespace

struct KeptTurns {
  KeptFrequencies blocks[2], rows[2];  // the most that a micrograph may need of each part of x and y
  size_t region_at[4];                 // of a pair's values, where each region's begin
  size_t pair_values;
  size_t most_bytes;        // of all spectra
  size_t bytes;             // of those of the templates here, made or not
  KeptTemplate* templates;  // room for kMostTemplates
  size_t n_templates;
};

namespace {

size_t column_values(const KeptTurns* kept, const Region& region) { return kept_count(kept->rows[region.down]); }

// The template among those that have been searched for, null if it isn't.
KeptTemplate* find_template(const HostScan* scan, const float* T) {
  const size_t bytes = static_cast<size_t>(scan->T_nx) * static_cast<size_t>(scan->T_ny) * sizeof(float);
  KeptTemplate* templates = scan->kept->templates;
  KeptTemplate* end = templates + scan->kept->n_templates;
  KeptTemplate* found =
      std::find_if(templates, end, [&](const KeptTemplate& one) { return memcmp(one.pixels, T, bytes) == 0; });
  return found == end ? nullptr : found;
}

// Takes a template into the books if its spectra would fit.
void add_template(const HostScan* scan, const float* T, const TurnPair* pairs, size_t n_pairs) {
  KeptTurns* kept = scan->kept;
  const size_t bytes = n_pairs * kept->pair_values * sizeof(LaneValue);
  if (kept->n_templates == kMostTemplates || kept->bytes + bytes > kept->most_bytes) return;
  const size_t pixels = static_cast<size_t>(scan->T_nx) * static_cast<size_t>(scan->T_ny);
  KeptTemplate* one = kept->templates + kept->n_templates++;
  *one = {host_new<float>(pixels), host_new<TurnPair>(n_pairs), static_cast<int>(n_pairs), 0, nullptr};
  std::copy_n(T, pixels, one->pixels);
  std::copy_n(pairs, n_pairs, one->pairs);
  kept->bytes += bytes;
}

void template_free(KeptTemplate* one) {
  free(one->pixels);
  free(one->pairs);
  free(one->spectra);
}

// Takes a template without spectra out of the books.
void drop_template(KeptTurns* kept, KeptTemplate* one) {
  kept->bytes -= static_cast<size_t>(one->n_pairs) * kept->pair_values * sizeof(LaneValue);
  template_free(one);
  *one = kept->templates[--kept->n_templates];
}

bool has_pairs(const KeptTemplate& one, const TurnPair* pairs, int n_pairs) {
  return one.n_pairs == n_pairs && std::equal(pairs, pairs + n_pairs, one.pairs, is_same_pair);
}

// The spectra of `count` pairs whose rows are transformed.
void make_columns(const HostScan* scan, size_t count, LaneValue* spectra) {
  const KeptTurns* kept = scan->kept;
  for (int r = 0; r < scan->n_regions; r++) {
    const Region& region = scan->regions[r];
    const LanePlan* plan = &down(scan, region).plan;
    const KeptFrequencies& rows = kept->rows[region.down];
    const size_t blocks = kept_count(kept->blocks[region.across]);
#pragma omp for schedule(dynamic) nowait
    for (size_t task = 0; task < count * blocks; task++) {
      const ThreadScratch scratch = scratch_of_thread(scan);
      const LaneValue* turned = scan->turned[region.across] + task * scan->T_rows;
      lane_fft_of_few(plan, turned, static_cast<size_t>(scan->T_ny), rows.low, rows.high, scratch.out, scratch.passes);
      LaneValue* to = spectra + task / blocks * kept->pair_values + kept->region_at[r] +
                      task % blocks * column_values(kept, region);
      std::copy_n(scratch.out, rows.low, to);
      std::copy_n(scratch.out + plan->n - rows.high, rows.high, to + rows.low);
    }
  }
}

// The spectra of all pairs, with all the frequencies that any micrograph may need.
void make_spectra(HostScan* scan, const TurnPair* pairs, size_t n_pairs, LaneValue* spectra) {
  const KeptTurns* kept = scan->kept;
  const KeptFrequencies of_micrograph[] = {scan->kept_blocks[0], scan->kept_blocks[1]};
  std::copy_n(kept->blocks, 2, scan->kept_blocks);
  const size_t T_strips = scan->T_rows / kLanes;
  const auto batch = static_cast<size_t>(scan->pairs);
  for (size_t first = 0; first < n_pairs; first += batch) {
    const size_t count = std::min(batch, n_pairs - first);
#pragma omp parallel num_threads(scan->threads)
    {
#pragma omp for schedule(dynamic)
      for (size_t i = 0; i < count * T_strips; i++)
        transform_template_rows(scan, pairs[first + i / T_strips], i / T_strips, i % T_strips * kLanes);
      make_columns(scan, count, spectra + first * kept->pair_values);
    }
  }
  std::copy_n(of_micrograph, 2, scan->kept_blocks);
}

}  // namespace

void kept_turns_new(HostScan* scan, int n_templates) {
  auto* kept = host_new<KeptTurns>(1);
  *kept = KeptTurns{};
  for (int i = 0; i < 2; i++) {
    kept->blocks[i] = most_kept(scan->x.parts[i], kLanes);
    kept->rows[i] = most_kept(scan->y.parts[i], 1);
  }
  for (int r = 0; r < scan->n_regions; r++) {
    kept->region_at[r] = kept->pair_values;
    kept->pair_values += kept_count(kept->blocks[scan->regions[r].across]) * column_values(kept, scan->regions[r]);
  }
  const size_t pairs = (static_cast<size_t>(scan->n_angles) + kAnglesOfPair - 1) / kAnglesOfPair;
  const size_t template_bytes = pairs * kept->pair_values * sizeof(LaneValue);
  const size_t fitting = template_bytes > 0 ? kBytesKept / template_bytes : 0;
  kept->most_bytes = fitting * kLeastPartKept >= static_cast<size_t>(n_templates) ? kBytesKept : 0;
  kept->templates = host_new<KeptTemplate>(kMostTemplates);
  scan->kept = kept;
}

void kept_turns_drop(HostScan* scan) {
  KeptTurns* kept = scan->kept;
  for (size_t t = 0; t < kept->n_templates; t++) template_free(kept->templates + t);
  kept->n_templates = kept->bytes = 0;
  scan->kept_spectra = nullptr;
}

void kept_turns_free(HostScan* scan) {
  if (!scan->kept) return;
  kept_turns_drop(scan);
  free(scan->kept->templates);
  free(scan->kept);
  scan->kept = nullptr;
}

void kept_turns_take(HostScan* scan, const float* T, const TurnPair* pairs, int n_pairs) {
  scan->kept_spectra = nullptr;
  KeptTemplate* found = find_template(scan, T);
  const bool fits = found && has_pairs(*found, pairs, n_pairs);
  if (found && !fits && !found->spectra) {
    drop_template(scan->kept, found);
    found = nullptr;
  }
  if (!found) add_template(scan, T, pairs, static_cast<size_t>(n_pairs));
  if (!fits) return;
  if (!found->spectra && found->searches >= kSearchesUntilKept) {
    found->spectra = lane_values_if_any(static_cast<size_t>(n_pairs) * scan->kept->pair_values);
    if (found->spectra) make_spectra(scan, pairs, static_cast<size_t>(n_pairs), found->spectra);
  }
  scan->kept_spectra = found->spectra;
}

void kept_turns_note_paid(const HostScan* scan, const float* T) {
  KeptTemplate* found = find_template(scan, T);
  if (found) found->searches++;
}

TurnedColumn kept_column(const HostScan* scan, const Region& region, size_t pair, size_t i) {
  const KeptTurns* kept = scan->kept;
  const KeptFrequencies& blocks = kept->blocks[region.across];
  const KeptFrequencies& rows = kept->rows[region.down];
  const size_t place = kept_place(scan->kept_blocks[region.across], i, region.blocks);
  const size_t block = place < blocks.low ? place : place - (region.blocks - kept_count(blocks));
  const LaneValue* column = scan->kept_spectra + pair * kept->pair_values + kept->region_at[&region - scan->regions] +
                            block * kept_count(rows);
  return {column, column + kept_count(rows) - scan->kept_rows[region.down].high};
}
