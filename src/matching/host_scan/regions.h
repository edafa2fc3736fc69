// What the stages of the host's own scan share: the regions of a micrograph and the buffers of a run.
//
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
// each axis (axis_parts.h); each part of x with each of y makes a region with transforms of its own. Of a region's
// spectrum only the frequencies are carried through the scan that hold all but a trillionth of the micrograph's energy.
#pragma once

#include <omp.h>

#include <cstddef>

#include "matching/host_scan/axis_parts.h"
#include "matching/host_scan/search_budget.h"
#include "matching/host_scan/template_turns.h"
#include "transforms/lane_fft.h"

/// Frequencies at 0 and above, and below 0, which are the last ones of a spectrum: in values or blocks of values.
struct KeptFrequencies {
  size_t low, high;
};

/// Correlations of one part of x and one of y.
struct Region {
  int across, down;          // which parts
  size_t blocks;             // of eight columns
  size_t rows;               // of a block: the side in y, up to a multiple of eight
  LaneValue* mic;            // blocks * rows: the micrograph's spectrum over the number of its values
  LaneValue* mic_half_turn;  // the same for templates turned on by 180 degrees; null for scans of one angle
  double* x_energy;          // blocks * kLanes: of each frequency of x, of a divided micrograph
  double* y_energy;          // rows
  double lost;               // norm of what a divided micrograph's pixels lose with the frequencies left out
};

struct ScoreMaps;
struct PeakSearch;
struct KeptTurns;

/// A run's scans; scan.h is what the rest of the program sees of it.
struct HostScan {
  int nx, ny, T_nx, T_ny, n_angles;
  AxisParts x, y;
  Region regions[4];
  int n_regions;
  KeptFrequencies kept_blocks[2];  // of each part of x, in blocks
  KeptFrequencies kept_rows[2];    // of each part of y
  size_t T_rows;                   // of a template's block: T_ny, up to a multiple of eight
  TurnedBoxes boxes;               // of the template at hand
  float largest_norm;              // of what of the micrograph lies under a template, wherever that is
  int pairs;                       // pairs of turns in a batch
  LaneValue* turned[2];            // for each part of x and pair of turns kept blocks * T_rows: rows transformed
  ScoreMaps* maps;                 // of a scan that makes maps
  PeakSearch* search;              // of one that searches cells
  KeptTurns* kept;                 // what such a scan keeps from micrograph to micrograph
  const LaneValue* kept_spectra;   // of the template at hand, or null
  SearchBudget budget;             // of its searches
  HostScan* whole;                 // maps for the micrograph at hand, where a search was given up; else null
  int threads;
  size_t scratch_values;  // of one thread's scratch
  LaneValue* scratch;     // threads * 6 * scratch_values
};

/// n rounded up to a multiple of eight.
inline size_t up_to_lanes(size_t n) { return (n + kLanes - 1) / kLanes * kLanes; }

/// A region's parts of x and y.
inline const AxisPart& across(const HostScan* scan, const Region& region) { return scan->x.parts[region.across]; }
inline const AxisPart& down(const HostScan* scan, const Region& region) { return scan->y.parts[region.down]; }

/// Blocks of eight columns of a part's spectra.
inline size_t width_in_blocks(const AxisPart& part) { return up_to_lanes(static_cast<size_t>(part.plan.n)) / kLanes; }

/// Those of the frequencies from 0 on that the others follow from where the pixels are real: all that a scan of one angle
/// needs, whose transforms have nothing in their imaginary part.
inline size_t half_spectrum_blocks(const AxisPart& part) { return static_cast<size_t>(part.plan.n) / 2 / kLanes + 1; }

/// Most of them that a part can keep: as many as its samples hold.
inline size_t most_kept_blocks(const AxisPart& part) {
  const size_t fitting = up_to_lanes(static_cast<size_t>(part.samples.n)) / kLanes + 2;
  return fitting < width_in_blocks(part) ? fitting : width_in_blocks(part);
}

inline size_t kept_count(const KeptFrequencies& kept) { return kept.low + kept.high; }

/// Of n values in units of `unit`, how many at the beginning and at the end are kept.
inline size_t low_values(const KeptFrequencies& kept, size_t n, size_t unit) {
  return kept.low * unit < n ? kept.low * unit : n;
}
inline size_t high_values(const KeptFrequencies& kept, size_t n, size_t unit) {
  return kept.high == 0 ? 0 : n - ((n + unit - 1) / unit - kept.high) * unit;
}

/// Which of n is the i-th that is kept.
inline size_t kept_place(const KeptFrequencies& kept, size_t i, size_t n) {
  return i < kept.low ? i : n - kept.high + i - kept.low;
}

/// A thread's own buffers of scratch_values each, passes three times as long.
struct ThreadScratch {
  LaneValue *in, *out, *other_out, *passes;
};

inline ThreadScratch scratch_of_thread(const HostScan* scan) {
  const size_t n = scan->scratch_values;
  LaneValue* first = scan->scratch + static_cast<size_t>(omp_get_thread_num()) * 6 * n;
  return {first, first + n, first + 2 * n, first + 3 * n};
}

/// Rows done (eight of them as the lanes of `row`) to kept blocks of columns, of n_blocks, that lie one after the other:
/// rows y to y + 7 of each of the blocks.
void scatter_rows(const LaneValue* row, LaneValue* blocks, const KeptFrequencies& kept, size_t n_blocks, size_t rows,
                  size_t y);

/// The most frequencies of a part that a micrograph can need, in values (unit 1) or in blocks (kLanes).
KeptFrequencies most_kept(const AxisPart& part, size_t unit);

/// Transforms the micrograph (nx*ny floats) into every region's spectra and chooses the frequencies to keep.
void transform_regions(HostScan* scan, const float* mic);

// --- products.cpp: the products of spectra, and their inverses along the columns ---

/// Transforms eight rows of a pair's two boxes: rows y0 to y0 + 7 of the pair's `turned`.
void transform_template_rows(const HostScan* scan, const TurnPair& turns, size_t pair, size_t y0);

/// Kept block i of a pair and a region: the templates' transform in y, its products with the micrograph's and their
/// inverses in y, re and im exchanged, to product and, for the half turns, to half_turn_product: as many values as the
/// part of y has samples. Either may be null. pair: the place in the batch or, where the template's spectra are kept, among
/// all its pairs.
void correlate_columns(const HostScan* scan, const Region& region, size_t pair, size_t i, LaneValue* product,
                       LaneValue* half_turn_product);

/// Rows y, y + apart, ... of each kept block of the products of a pair become a row of as many values as the part of x has
/// samples, frequencies at its beginning and its end.
void gather_rows(const AxisPart& part, const KeptFrequencies& kept, const LaneValue* products, size_t rows, size_t y,
                 size_t apart, LaneValue* row);

/// Begins the inverse in x of rows y to y + 7 of each block of the products of a pair: to `row` (as many values as the part
/// of x has samples) and on to lane_fft_divide_outer's parts.
void divide_rows(const HostScan* scan, const Region& region, const LaneValue* products, size_t rows, size_t y,
                 LaneValue* row, LaneValue* parts);
