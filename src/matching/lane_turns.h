// The angles of a scan in the groups in which they are transformed together.
#pragma once

/// A turn of the template, and the turn that it also gives when its pixels are taken backwards: that by a further 180
/// degrees. Angles in degrees.
struct Turn {
  float psi, half_turn_psi;
};

/// Two turns that share a complex transform, or one. has_half_turns: of both turns, or of neither.
struct TurnPair {
  Turn first, second;
  bool has_second, has_half_turns;
};

/// Groups n_angles ascending angles psi of the template T (T_nx*T_ny floats) into pairs, at most n_angles of them, each
/// angle once: first those with half turns, in ascending order, then those without. Half turns are used only where the
/// template turned by both angles has the same pixels up to rounding, which rounding at the box's edge can prevent.
/// Returns the number of pairs.
int pair_turns(const float* T, int T_nx, int T_ny, const float* psi, int n_angles, TurnPair* pairs);

/// Row y of the template turned by psi degrees: T_nx floats.
void turn_row(const float* T, float* row, int y, int T_nx, int T_ny, float psi);
