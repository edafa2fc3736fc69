// A cutoff from the scores of a micrograph alone: its peaks, and as decoys the peaks of the map with the sign changed,
// which noise makes as many and as high, and particles of the expected contrast don't.
#pragma once

#include "particles/score_peaks.h"

/// By which rule a cutoff was found.
enum CutoffRule {
  kNoParticles,   // peaks don't stand out against decoys: nothing is picked
  kValley,        // where the scores of particles and those of noise divide, or above for few decoys' sake
  kBestBalance,   // where the expected balance of precision and recall is best
  kGivenCutoff,   // the user's
  kMostSigmas,    // where peaks of many micrographs stand out most against decoys
  kSessionCutoff  // shared by the session's micrographs
};

struct ScoreCutoff {
  CutoffRule rule;
  float cutoff;  // infinite where there are no particles
  float least;   // below it peaks are no more than decoys; at most the cutoff
};

/// The cutoff of peaks and decoys of an image of nx pixels a row. Of a peak and a decoy nearer than `distance` the lower
/// one is left out of the counts.
ScoreCutoff find_cutoff(const PeakList& peaks, const PeakList& decoys, int nx, float distance);

/// Which of a list's peaks, in their order, are left when those nearer than `distance` to a higher one of the others are
/// taken out. The caller frees the list.
PeakList without_beaten(const PeakList& list, const PeakList& others, int nx, float distance);

/// The score between the two highest modes of the peaks' scores where their density is least, or where there is only
/// one mode Otsu's threshold. 0 for fewer than two peaks.
float score_valley(const PeakList& peaks);

/// How much the best peaks exceed the best decoys: the largest sum, over the best n of either, of peaks less decoys.
double excess_of_peaks(const PeakList& peaks, const PeakList& decoys);

/// The name of a rule in messages.
const char* cutoff_rule_name(CutoffRule rule);
