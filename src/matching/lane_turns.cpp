#include "matching/lane_turns.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "host_memory.h"
#include "matching/quorlin56_kernels.h"
#include "platform/launch.h"

namespace {

// What the rounding of source positions may change of a pixel, as part of the largest one: some units in the last place
// of a position within the box.
constexpr float kTurnRounding = 1e-5f;

// How far in degrees the angles of a scan, which are added up in float, may be from half a turn.
constexpr float kAngleRounding = 1e-3f;

KERNEL_LOOP void turn_pixels(const float* T, float* out, int y, int T_nx, int T_ny, float cosine, float sine) {
#pragma omp simd
  for (int x = 0; x < T_nx; x++) out[x] = rotated_pixel(x, y, T, T_nx, T_ny, cosine, sine);
}

float largest_pixel(const float* T, int n) {
  float largest = 0;
  for (int i = 0; i < n; i++) largest = std::max(largest, std::abs(T[i]));
  return largest;
}

// Whether the template turned by `psi` and taken backwards is the one turned by `other`.
bool is_half_turn(const float* T, int T_nx, int T_ny, float psi, float other, float tolerance, float* rows) {
  float* forwards = rows;
  float* backwards = rows + T_nx;
  for (int y = 0; y < T_ny; y++) {
    turn_row(T, forwards, y, T_nx, T_ny, psi);
    turn_row(T, backwards, T_ny - 1 - y, T_nx, T_ny, other);
    for (int x = 0; x < T_nx; x++)
      if (!(std::abs(forwards[x] - backwards[T_nx - 1 - x]) <= tolerance)) return false;
  }
  return true;
}

// Which angle is half a turn after each one, if any has pixels that show it: its place, else 0.
void find_half_turns(const float* T, int T_nx, int T_ny, const float* psi, int n_angles, int* half_turns) {
  const float tolerance = kTurnRounding * largest_pixel(T, T_nx * T_ny);
#pragma omp parallel
  {
    auto* rows = host_new<float>(2 * static_cast<size_t>(T_nx));
#pragma omp for schedule(dynamic)
    for (int i = 0; i < n_angles; i++) {
      const float wanted = psi[i] + 180;
      const float* found = std::lower_bound(psi, psi + n_angles, wanted - kAngleRounding);
      const bool near = found != psi + n_angles && *found <= wanted + kAngleRounding;
      half_turns[i] =
          near && is_half_turn(T, T_nx, T_ny, psi[i], *found, tolerance, rows) ? static_cast<int>(found - psi) : 0;
    }
    free(rows);
  }
}

// Appends the turn to the pairs, to the last one if that lacks a second of its kind. Returns the number of pairs.
int append_turn(Turn turn, bool has_half_turn, TurnPair* pairs, int n_pairs) {
  if (n_pairs > 0 && !pairs[n_pairs - 1].has_second && pairs[n_pairs - 1].has_half_turns == has_half_turn) {
    pairs[n_pairs - 1].second = turn;
    pairs[n_pairs - 1].has_second = true;
    return n_pairs;
  }
  pairs[n_pairs] = {turn, {}, false, has_half_turn};
  return n_pairs + 1;
}

}  // namespace

int pair_turns(const float* T, int T_nx, int T_ny, const float* psi, int n_angles, TurnPair* pairs) {
  // Which angles are done: those that are themselves half a turn after another. An angle can't be both, or the scan would
  // take more than a full turn; then the later one is done on its own.
  auto* half_turns = host_new<int>(static_cast<size_t>(n_angles) + 1);
  auto* done = host_new<char>(static_cast<size_t>(n_angles) + 1);
  find_half_turns(T, T_nx, T_ny, psi, n_angles, half_turns);
  std::fill_n(done, n_angles, 0);
  for (int i = 0; i < n_angles; i++) {
    if (done[i]) half_turns[i] = 0;
    if (half_turns[i]) done[half_turns[i]] = 1;
  }
  int n_pairs = 0;
  for (const bool with_half_turns : {true, false})
    for (int i = 0; i < n_angles; i++)
      if (!done[i] && (half_turns[i] > 0) == with_half_turns)
        n_pairs = append_turn({psi[i], half_turns[i] ? psi[half_turns[i]] : 0}, with_half_turns, pairs, n_pairs);
  free(half_turns);
  free(done);
  return n_pairs;
}

void turn_row(const float* T, float* row, int y, int T_nx, int T_ny, float psi) {
  float cosine, sine;
  turn_of(psi, &cosine, &sine);
  turn_pixels(T, row, y, T_nx, T_ny, cosine, sine);
}
