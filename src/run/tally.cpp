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

// More than any exposure of single particles shows.
constexpr int kManyPicks = 3000;
constexpr float kMostlyClosed = 0.5f;

void note_odd_picks(const char* mic, const PickFindings* findings, const Kestrix_Para* para) {
  if (findings->listed > kManyPicks)
    safety_note(mic, "%d picks: is --diameter %g right, and is --cc_cutoff %g too low? --auto 1 finds a cutoff.",
                findings->listed, static_cast<double>(para->diameter), static_cast<double>(para->cc_cutoff));
  if (findings->closed > kMostlyClosed && !para->auto_picks && !para->robust_ice && findings->listed > 0)
    safety_note(
        mic,
        "%.0f%% of its cells are closed as ice or contamination; if it is clean, widen --lave_min, --lave_max and "
        "--lsigma_cutoff or give --robust_ice 1.",
        100 * static_cast<double>(findings->closed));
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
  note_odd_picks(mic, findings, para);
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
