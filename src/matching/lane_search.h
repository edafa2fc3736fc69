// The search of a divided scan for the peaks of cells, without maps of every pixel. The correlations of a band-passed
// micrograph are smooth: only every few pixels a sample of them is taken back from their spectrum, as many as hold it.
// What lies between is interpolated, with a bound on the error that holds for every template and place
// (lane_samples.h); what can't be a cell's peak by that is passed over, and between the few places and angles that are
// left the correlation itself decides, summed up pixel by pixel (lane_candidates.h).
#pragma once

#include "matching/lane_regions.h"

/// Gives the scan what it needs to search cells of `cell` by `cell` pixels: scan->search, released with lane_search_free.
/// A lack of memory ends the run.
void lane_search_new(LaneScan* scan, int cell);
void lane_search_free(LaneSearch* search);

/// Prepares for searches in the micrograph (nx*ny floats) whose spectra the scan holds.
void lane_search_prepare(const LaneScan* scan, const float* mic);

/// Whether a search would let too many candidates through to be of use: in a micrograph with a few pixels that outshine
/// all others by orders of magnitude, or with frequencies that it isn't supposed to have, the errors of interpolation can be
/// more than scores differ by. energy: a template's sum of squares; divisor: what makes its correlations scores.
bool lane_search_is_vague(const LaneScan* scan, float energy, float divisor);

/// The micrograph that was prepared for: row y, nx floats.
const float* lane_search_row(const LaneScan* scan, int y);

/// Side of the cells.
int lane_search_cell(const LaneScan* scan);

/// Forgets the peaks of the last template.
void lane_search_begin(const LaneScan* scan);

/// Brings the cells' peaks up to date with the scan's boxes, in n_pairs pairs of turns; first_angle: the place of the first
/// box's angle among the template's. Correlations below `least` need not be found.
void lane_search_take(const LaneScan* scan, const TurnPair* turns, size_t n_pairs, int first_angle, float least);

/// Writes the peaks as lane_scan_search does; psi: all of the template's angles in degrees.
void lane_search_write(const LaneScan* scan, const float* psi, float divisor, unsigned* found, float* cc,
                       float* cell_psi);
