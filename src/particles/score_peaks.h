// The peaks of a map of scores and those of its negative, of which the latter tell how high chance alone reaches. On the
// host.
#pragma once

#include <cstddef>

/// A peak of a map.
struct ScorePeak {
  float score;
  int pixel;  // y * nx + x
};

/// Peaks from the highest to the lowest; of equal ones the first in row order first.
struct PeakList {
  ScorePeak* peaks;
  int n;
};

/// Where peaks count.
struct PeakArea {
  int nx;                // pixels of a row of the maps
  int x0, y0, x1, y1;    // from (x0, y0) to before (x1, y1)
  const float* open;     // as the map; 0: closed
  float least_distance;  // of two peaks, pixels
};

/// The local maxima of sign * map (nx pixels a row) that are open, taken from the highest down unless one nearer than
/// the least distance has been taken. Values that aren't numbers are no peaks. The list's scores are those of sign * map
/// times scale. The caller frees it with peak_list_free. A lack of memory ends the run.
PeakList find_peaks(const float* map, float sign, float scale, const PeakArea& area);

void peak_list_free(PeakList* list);

/// How many peaks of the list reach the score.
int peaks_from(const PeakList& list, float score);
