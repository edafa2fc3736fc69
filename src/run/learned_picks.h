// What the micrographs of a session share: particle size, template and cutoff, learned from some of them together. How a
// micrograph is picked by it, and what decides for each whether it holds particles at all.
#pragma once

#include "particles/score_cutoff.h"
#include "run/size_scan.h"

struct Run;

/// Lengths in Å, scores in robust deviations. All zero: nothing has been learned.
struct LearnedPicks {
  float diameter, apix;  // --diameter and --apixM of the run that learned
  bool bright;           // particles are brighter than what surrounds them
  float share;           // size of the particles in diameters
  bool mean;             // the template is the mean of particles; else the ball
  float band_size;       // size of the band
  RoundTemplate found;   // the template, its step in Å
  CutoffRule rule;       // by which the cutoff was found; kNoParticles: each micrograph goes by itself
  float cutoff, least;   // as in ScoreCutoff
  double decoys;         // expected to reach the cutoff, per micrograph
  int micrographs;       // looked at
  int peaks;             // of theirs that reach the cutoff
};

void learned_picks_free(LearnedPicks* learned);

/// Whether the run's micrographs are picked by what was learned.
bool shares_learned(const Run* run);

/// Peaks and decoys of the micrograph at hand by run->learned, dark particles in d_mic; all else as scan_sizes has it.
SizeScanResult match_learned(Run* run);

/// Whether a micrograph shows so many peaks above the session's cutoff that it tells size, template and cutoff better by
/// itself. matched: of match_learned.
bool has_enough_alone(const Run* run, const SizeScanResult& matched);

/// The session's cutoff for a micrograph whose peaks and decoys compete within `apart` pixels: none where as many peaks
/// may be chance.
ScoreCutoff session_cutoff(const Run* run, const PeakList& peaks, const PeakList& decoys, float apart);
