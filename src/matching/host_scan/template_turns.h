// The turned boxes of a template, and the groups in which a scan transforms them together.
#pragma once

/// Where on a side of n pixels the score of a template of t pixels stands, behind the template's first pixel as it lies
/// in a correlation whose origin is not re-centred.
inline int place_of_score(int n, int t) { return n / 2 - (n - t) / 2; }

#include <cstddef>

/// A template turned by each of `count` angles: T_ny rows of `width` floats each, of which the first T_nx are pixels and
/// the rest, up to whole Lanes, zeros. energy: the largest sum of squares of any.
struct TurnedBoxes {
  int T_nx, T_ny;
  int room, count;
  size_t width;
  float* pixels;
  float energy;
};

/// Room for the boxes of templates of T_nx by T_ny pixels at n_angles angles, or at as many as fit into 32 MiB; released
/// with turned_boxes_free. A lack of memory ends the run.
TurnedBoxes turned_boxes_new(int T_nx, int T_ny, int n_angles);
void turned_boxes_free(TurnedBoxes* boxes);

/// Turns T (T_nx*T_ny floats) by `count` angles psi, in degrees, at most as many as there is room for.
void turn_boxes(TurnedBoxes* boxes, const float* T, const float* psi, int count);

/// The box of the angle at this place.
inline const float* box_at(const TurnedBoxes& boxes, int angle) {
  return boxes.pixels + static_cast<size_t>(angle) * static_cast<size_t>(boxes.T_ny) * boxes.width;
}

/// A turn of the template, and the turn that it also gives when its pixels are taken backwards: that by a further 180
/// degrees. Places of their angles among the scan's.
struct Turn {
  int angle, half_turn;
};

/// Two turns that share a complex transform, or one. has_half_turns: of both turns, or of neither. place: among all pairs.
struct TurnPair {
  Turn first, second;
  bool has_second, has_half_turns;
  int place;
};

/// Groups the angles psi of the boxes, ascending, into pairs, at most as many as there are angles, each angle once:
/// first those with half turns, in ascending order, then those without. Half turns are used only where the norm of the
/// difference of both boxes, one of them taken backwards, is at most most_difference: rounding changes pixels a little, and
/// at the box's edge it can leave out whole rows. Returns the number of pairs.
int pair_turns(const TurnedBoxes& boxes, const float* psi, float most_difference, TurnPair* pairs);
