// What a run has done so far, in numbers, and what it says of micrographs without picks.
#pragma once

#include "run/findings.h"

struct Kestrix_Para;

struct RunTally {
  int picked;   // micrographs
  int skipped;  // finished by an earlier run
  int noted;    // micrographs of which something was said on standard error
  long picks;   // in all lists
};

/// Sets what the lists hold: candidates, picks and their scores. Names of the box lists; picks may be the STAR list. A list
/// that isn't there counts as empty.
void count_lists(PickFindings* findings, const char* candidates, const char* picks);

/// Counts a picked micrograph by its lists, and says on standard error why one without picks has none, as far as that is
/// known and not said already.
/// notes_before        safety_notes_said() before the micrograph
void tally_micrograph(RunTally* tally, const char* mic, const PickFindings* findings, long notes_before,
                      const Kestrix_Para* para);

/// Puts the numbers on standard error, where that is a terminal.
void put_tally(const RunTally* tally);
