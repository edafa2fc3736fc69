#include "run/tally.h"

#include <unistd.h>

#include <cstdio>

#include "platform/failure.h"
#include "run/parameters.h"
#include "txt_file.h"

namespace {

void note_no_picks(const char* mic, int n_candidates, const Kestrix_Para* para) {
  if (n_candidates == 0) {
    safety_note(
        mic,
        "no picks: no score reaches --cc_cutoff %g away from what is closed and, by half a box of %d pixels, from "
        "the edges.",
        static_cast<double>(para->cc_cutoff), para->boxsize);
  } else {
    safety_note(mic, "no picks: all %d candidates stand in the outermost cells or near excluded places.", n_candidates);
  }
}

}  // namespace

void tally_micrograph(RunTally* tally, const char* mic, const char* candidates, const char* picks, long notes_before,
                      const Kestrix_Para* para) {
  const int n_picks = count_lines(picks);
  if (n_picks == 0 && safety_notes_said() == notes_before) note_no_picks(mic, count_lines(candidates), para);
  tally->picked++;
  tally->picks += n_picks;
  if (safety_notes_said() > notes_before) tally->noted++;
}

void put_tally(const RunTally* tally) {
  if (!isatty(STDERR_FILENO)) return;
  safety_note(nullptr, "%d micrographs picked, %d skipped as finished, %d with notes; %ld picks, %.1f per micrograph.",
              tally->picked, tally->skipped, tally->noted, tally->picks,
              tally->picked > 0 ? static_cast<double>(tally->picks) / tally->picked : 0.0);
}
