// The search of a divided scan for the peaks of cells, without maps of every pixel. The correlations of a band-passed
// micrograph are smooth: only every few pixels a sample of them is taken back from their spectrum, as many as hold it.
// What lies between is interpolated, with a bound on the error that holds for every template and place
// (interpolation.h); what can't be a cell's peak by that is passed over, and between the few places and angles that are
// left the correlation itself decides, summed up pixel by pixel (candidates.h).
#pragma once

#include "matching/host_scan/regions.h"

/// Gives the scan what it needs to search cells of `cell` by `cell` pixels: scan->search, released with peak_search_free.
/// A lack of memory ends the run.
void peak_search_new(HostScan* scan, int cell);
void peak_search_free(PeakSearch* search);

/// Prepares for searches in the micrograph (nx*ny floats) whose spectra the scan holds.
void peak_search_prepare(const HostScan* scan, const float* mic);

/// Whether a search would let too many candidates through to be of use: in a micrograph with a few pixels that outshine
/// all others by orders of magnitude, or with frequencies that it isn't supposed to have, the errors of interpolation can be
/// more than scores differ by. energy: a template's sum of squares; divisor: what makes its correlations scores.
bool peak_search_is_vague(const HostScan* scan, float energy, float divisor);

/// The micrograph that was prepared for: row y, nx floats.
const float* peak_search_row(const HostScan* scan, int y);

/// Gives back the memory of the candidates.
void peak_search_drop_candidates(const HostScan* scan);

/// Side of the cells.
int peak_search_cell(const HostScan* scan);

/// Forgets the peaks of the last template.
void peak_search_begin(const HostScan* scan);

/// Brings the cells' peaks up to date with the scan's boxes, in n_pairs pairs of turns; first_angle: the place of the first
/// box's angle among the template's. Correlations below `least` need not be found. Changes the order of the pairs. Returns
/// false, with the peaks unfit for use, if the rest of the template's search would cost more than maps.
bool peak_search_take(const HostScan* scan, TurnPair* turns, size_t n_pairs, int first_angle, float least);

/// Writes the peaks as host_scan_search does; psi: all of the template's angles in degrees.
void peak_search_write(const HostScan* scan, const float* psi, float divisor, unsigned* found, float* cc,
                       float* cell_psi);
