// Which picks of a micrograph a selection keeps. The page of kestrix_report decides by the same rules in its own
// language (report/page/selection.js); tests/selection_examples.json holds both to one another.
#pragma once

#include <limits>
#include <vector>

constexpr float kNoLimit = std::numeric_limits<float>::quiet_NaN();

/// Limits that hold for every micrograph. A limit that is no number is none; a pick whose value is no number passes no
/// limit that is set.
struct SelectionRules {
  float min_score = kNoLimit, max_score = kNoLimit;
  float min_average = kNoLimit, max_average = kNoLimit;  // local average at the pick
  float min_sigma = kNoLimit, max_sigma = kNoLimit;      // local sigma at the pick
  double thin = 0;                                       // least distance of two picks, pixels; 0: none
  long most = -1;                                        // picks of one micrograph; -1: any number
};

/// What the rules look at. Single precision, so that a program and a page hold the same numbers.
struct PickFacts {
  float x, y;     // centre, pixels of the micrograph
  float score;    // no number where the list has none
  float average;  // of the map of local averages, no number where there is none
  float sigma;    // the same of local deviations
};

struct Point {
  double x, y;
};

/// A disc of which every pick is dropped.
struct Brush {
  double x, y, radius;
};

/// What was done by hand in one micrograph, in its pixels.
struct MicrographEdits {
  bool left_out = false;
  std::vector<Point> dropped;  // centres of picks
  std::vector<Brush> brushed;  // a pick on the rim is dropped too
  std::vector<Point> added;    // kept whatever the rules say, unless the micrograph is left out
};

/// For each pick whether it is kept:
/// 1. Of a micrograph left out, none is.
/// 2. A pick goes that is dropped by hand or by a brush, or passes a limit.
/// 3. Of those that stay, from the best score down, a pick goes that is nearer than `thin` to one that is kept. Of equal
///    scores the first in the list comes first; picks without a score come last.
/// 4. The best `most` are kept, in the same order.
std::vector<bool> keep_picks(const std::vector<PickFacts>& picks, const SelectionRules& rules,
                             const MicrographEdits& edits);
