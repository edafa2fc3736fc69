// Matching picks to true particles, and the figures that follow.
#pragma once

#include <vector>

#include "common/truth_file.h"
#include "score/picks.h"

/// How a list of picks agrees with the truth. Particles on ice or carbon are nobody's aim: they don't count
/// as missed, and picks of them count as wrong.
struct Score {
  long particles;  // true particles off ice and carbon
  long flagged;    // true particles on ice or carbon
  long picks;
  long matched;          // picks matched to particles off ice and carbon
  long matched_flagged;  // picks matched to particles on ice or carbon
  long in_areas;         // picks within the outlines of ice and carbon, -1 where no outlines are known
  double precision;      // matched / picks, 0 without picks
  double recall;         // matched / particles, 0 without particles
  double f1;             // harmonic mean of precision and recall
  double dx, dy;         // mean of pick - particle over the matched, pixels; NaN without any
  double distance;       // mean distance of the matched, pixels; NaN without any
};

/// For each pick the number of its particle, or -1. One to one: of all pairs within the tolerance (pixels)
/// the closest is matched first, then the closest of the rest; among equal ones the first pick of the list.
/// Where particles lie further apart than twice the tolerance no other matching finds more pairs.
std::vector<long> match_picks(const std::vector<TrueParticle>& truth, const std::vector<Pick>& picks, double tolerance);

/// The figures of a matching. areas may be null.
Score score_matching(const std::vector<TrueParticle>& truth, const std::vector<Pick>& picks,
                     const std::vector<long>& matching, const std::vector<Area>* areas);
