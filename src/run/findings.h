// What the road of one micrograph found out by itself, for messages and summaries.
#pragma once

#include "particles/score_cutoff.h"

/// What was matched.
enum TemplateUsed { kGivenTemplates, kDisc, kBall, kLearned, kSessionMean };

/// Facts of one micrograph.
struct PickFindings {
  TemplateUsed matched;
  float size;         // of the particles, Å; 0: not looked for
  bool size_at_end;   // the smallest or the largest size tried fitted best
  CutoffRule rule;    // kGivenCutoff where no cutoff was looked for
  float cutoff;       // least score of a pick
  float least;        // score of the lowest candidates that are listed, where a cutoff was looked for
  float score_unit;   // score of a list over the map's value
  float min_dist_px;  // least distance of two picks, working pixels
  bool distinct;      // candidates keep that distance already
  float closed;       // share of the micrograph closed to picking, 0 to 1
  bool by_session;    // size, template and cutoff are those that the session shares
  int picks;          // peaks that reached the cutoff, before borders and excluded places
  // What the lists hold:
  int cells_closed;  // cells of the grid that are closed to picking
  int candidates;    // in the list of candidates
  int listed;        // in the final list
  float mean_score;  // of the final list; 0 where it is empty
  float best_score;
};

/// The words for what was matched.
const char* template_used_name(TemplateUsed used);
