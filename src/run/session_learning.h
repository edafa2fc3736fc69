// What micrographs that are looked at together teach: each is looked at three times, for the size, for the mean of the
// particles, and for the peaks of that mean.
#pragma once

#include "particles/score_pool.h"
#include "run/learned_picks.h"

enum LearningLook { kLookForSize, kLookForMean, kLookForPeaks, kLooks };

/// What was seen so far. All zero at first.
struct SessionLearning {
  int look;                 // a LearningLook
  ScorePool balls[kSizes];  // of the first look
  int best;                 // of the balls
  float mean_from;          // least score of a peak that is averaged
  RadialSums sums;          // of the second look, over all micrographs
  RoundTemplate mean;       // of them, its step in working pixels
  ScorePool of_mean;        // of the third look
};

/// Takes the micrograph at hand (d_mic normalised, the open area known) into run->learning.
void take_into_learning(Run* run);

/// Ends a look at all micrographs and makes ready for the next.
void end_look(Run* run);

/// What the three looks have taught. The caller frees it with learned_picks_free.
LearnedPicks end_learning(Run* run);

void session_learning_free(SessionLearning* learning);
