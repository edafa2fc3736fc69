// Peaks and decoys of several micrographs together, whose scores compare as they are in robust deviations, and the cutoff
// that all of them call for.
#pragma once

#include "particles/score_cutoff.h"

/// Lists from the highest score to the lowest, whose pixels mean nothing.
struct ScorePool {
  PeakList peaks;                    // all
  PeakList left_peaks, left_decoys;  // those that no higher one of the other kind stood beside
  int micrographs;
};

/// Adds those of one micrograph: an image of nx pixels a row, in which peaks and decoys compete within `distance`. pool: all
/// zero at first; freed with score_pool_free.
void add_to_pool(ScorePool* pool, const PeakList& peaks, const PeakList& decoys, int nx, float distance);
void score_pool_free(ScorePool* pool);

/// By how many deviations of a count peaks exceed decoys at the cutoff where they do so most: the largest
/// (N - M) / sqrt(N + M) of N peaks and M decoys.
double pool_sigmas(const ScorePool& pool);

/// The cutoff where that is so, or higher for few decoys' sake, or in the valley of the scores where peaks stand out there
/// nearly as much; none where they don't stand out anywhere.
ScoreCutoff pool_cutoff(const ScorePool& pool);
