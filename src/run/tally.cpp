#include "run/tally.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "platform/failure.h"
#include "run/parameters.h"
#include "str_utils.h"
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

void count_lists(PickFindings* findings, const char* candidates, const char* picks) {
  findings->candidates = access(candidates, R_OK) == 0 ? count_lines(candidates) : 0;
  FILE* list = fopen(picks, "r");
  if (!list) return;
  double sum = 0;
  char line[kTextBytes];
  // The score is the fifth number of a line in either list; a STAR list's head has none.
  for (float score; fgets(line, sizeof line, list);) {
    if (sscanf(line, "%*d %*d %*f %*f %f", &score) != 1) continue;
    findings->best_score = findings->listed == 0 ? score : std::max(findings->best_score, score);
    findings->listed++;
    sum += static_cast<double>(score);
  }
  fclose(list);
  if (findings->listed > 0) findings->mean_score = static_cast<float>(sum / findings->listed);
}

void tally_micrograph(RunTally* tally, const char* mic, const PickFindings* findings, long notes_before,
                      const Kestrix_Para* para) {
  const int n_picks = findings->listed;
  if (n_picks == 0 && safety_notes_said() == notes_before) note_no_picks(mic, findings->candidates, para);
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
