// Picks chosen anew from a micrograph's candidates, as kestrix itself chooses them.
#pragma once

#include <string>

#include "common/broken_lines.h"
#include "common/micrograph_names.h"

/// What a run's selection goes by, with the names and units of its options.
struct ReselectSettings {
  double apixM = 0;      // pixel size of the micrographs, Å; 0: not given
  double diameter = 0;   // of the particle, Å; 0: not given
  double min_dist = 0;   // least distance of two picks, Å; 0: from the diameter
  double cc_cutoff = 0;  // least score; 0: that of the run
  long speed = 2;        // 0 to 4
  long boxsize = 0;      // side of the boxes, pixels; 0: as in the micrograph's list, or from the diameter
  const char* excluded_suffix = nullptr;  // of the lists of places to leave out; null: none
};

/// Refuses settings from which no selection can be made.
void check_reselect(const ReselectSettings& settings);

/// Writes the box list `out` from the candidates of a micrograph, whose list of picks at `place` may tell the box size.
/// Returns false, and has noted why, where the micrograph or its candidates can't be read.
bool reselect(const ReselectSettings& settings, const std::string& micrograph, const ListPlace& place,
              const std::string& out, BrokenLines* broken);
