// What a run has done so far, in numbers, and what it says of micrographs without picks.
#pragma once

struct Kestrix_Para;

struct RunTally {
  int picked;   // micrographs
  int skipped;  // finished by an earlier run
  int noted;    // micrographs of which something was said on standard error
  long picks;   // in all lists
};

/// Counts a picked micrograph by its lists, and says on standard error why one without picks has none, as far as that is
/// known and not said already.
/// candidates, picks   names of the two box lists
/// notes_before        safety_notes_said() before the micrograph
void tally_micrograph(RunTally* tally, const char* mic, const char* candidates, const char* picks, long notes_before,
                      const Kestrix_Para* para);

/// Puts the numbers on standard error, where that is a terminal.
void put_tally(const RunTally* tally);
