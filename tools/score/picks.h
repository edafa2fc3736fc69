// Reading lists of picks.
#pragma once

#include <vector>

/// Centre of a pick in pixels.
struct Pick {
  double x, y;
};

/// Reads the picks of a file: name.box holds "x y w h ..." with the corner x, y (the centre is x + w/2, y +
/// h/2, the halves whole numbers as Kestrix takes them), name.star the centres as _rlnCoordinateX and
/// _rlnCoordinateY. Refuses another suffix, a file that can't be read and a line that makes no sense.
std::vector<Pick> read_picks(const char* name);
