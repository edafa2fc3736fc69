// The spectra of turned templates along the columns, kept from micrograph to micrograph: they are the same for each one, and
// reading them back takes less time than transforming the turned boxes again.
#pragma once

#include "matching/host_scan/regions.h"

/// Micrographs in which a search of a template has paid before its spectra are kept: fresh memory costs as much as keeping
/// them saves with some fifteen micrographs, so that short runs do without.
constexpr int kSearchesUntilKept = 10;

/// Gives a scan that searches its books of what is kept, of as many of a micrograph's n_templates as fit into 280 MiB, if that
/// is half of them: scan->kept, released with kept_turns_free. A lack of memory for the books ends the run; where there is
/// none for spectra, none are kept.
void kept_turns_new(HostScan* scan, int n_templates);
void kept_turns_free(HostScan* scan);

/// Sets scan->kept_spectra for the search of template T (T_nx*T_ny floats), whose turns the boxes hold, all of them, in these
/// pairs: to those of T, which are made now if searches of T have paid often enough; to null where they aren't kept.
void kept_turns_take(HostScan* scan, const float* T, const TurnPair* pairs, int n_pairs);

/// Notes that a search of T has paid.
void kept_turns_note_paid(const HostScan* scan, const float* T);

/// Forgets all templates and gives their memory back.
void kept_turns_drop(HostScan* scan);

/// Where the spectrum of block i, of those of the micrograph that are kept, lies for a pair of scan->kept_spectra: rows from
/// 0 on, and from the first of the high ones on.
struct TurnedColumn {
  const LaneValue *low, *high;
};
TurnedColumn kept_column(const HostScan* scan, const Region& region, size_t pair, size_t i);
