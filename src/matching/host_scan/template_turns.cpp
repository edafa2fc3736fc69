#include "matching/host_scan/template_turns.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "matching/scan_kernels.h"
#include "platform/host_memory.h"
#include "platform/loops.h"
#include "process2d_raw.h"
#include "transforms/lane_fft.h"

namespace {

// Bytes that turned boxes may take, and one box more.
constexpr size_t kBoxBytes = size_t{32} << 20;

// How far in degrees the angles of a scan, which are added up in float, may be from half a turn.
constexpr float kAngleRounding = 1e-3f;

KERNEL_LOOP void turn_pixels(const float* T, float* out, int y, int T_nx, int T_ny, float cosine, float sine) {
#pragma omp simd
  for (int x = 0; x < T_nx; x++) out[x] = rotated_pixel(x, y, T, T_nx, T_ny, cosine, sine);
}

KERNEL_LOOP float row_energy(const float* row, int n) {
  float sum = 0;
  for (int x = 0; x < n; x++) sum += row[x] * row[x];
  return sum;
}

// The sum of the squares of what n pixels differ from others taken backwards.
KERNEL_LOOP float row_difference(const float* forwards, const float* backwards, int n) {
  float sum = 0;
  for (int x = 0; x < n; x++) {
    const float difference = forwards[x] - backwards[n - 1 - x];
    sum += difference * difference;
  }
  return sum;
}

// Whether a box taken backwards is the other.
bool is_half_turn(const TurnedBoxes& boxes, int angle, int other, float most_difference) {
  double squares = 0;
  for (int y = 0; y < boxes.T_ny; y++)
    squares += static_cast<double>(
        row_difference(box_at(boxes, angle) + static_cast<size_t>(y) * boxes.width,
                       box_at(boxes, other) + static_cast<size_t>(boxes.T_ny - 1 - y) * boxes.width, boxes.T_nx));
  return std::sqrt(squares) <= static_cast<double>(most_difference);
}

// Which angle is half a turn after each one, if any has pixels that show it: its place, else 0.
void find_half_turns(const TurnedBoxes& boxes, const float* psi, float most_difference, int* half_turns) {
#pragma omp parallel for schedule(static)
  for (int i = 0; i < boxes.count; i++) {
    const float wanted = psi[i] + 180;
    const float* found = std::lower_bound(psi, psi + boxes.count, wanted - kAngleRounding);
    const bool near = found != psi + boxes.count && *found <= wanted + kAngleRounding;
    const int other = static_cast<int>(found - psi);
    half_turns[i] = near && is_half_turn(boxes, i, other, most_difference) ? other : 0;
  }
}

// Appends the turn to the pairs, to the last one if that lacks a second of its kind. Returns the number of pairs.
int append_turn(Turn turn, bool has_half_turn, TurnPair* pairs, int n_pairs) {
  if (n_pairs > 0 && !pairs[n_pairs - 1].has_second && pairs[n_pairs - 1].has_half_turns == has_half_turn) {
    pairs[n_pairs - 1].second = turn;
    pairs[n_pairs - 1].has_second = true;
    return n_pairs;
  }
  pairs[n_pairs] = {turn, {}, false, has_half_turn, n_pairs};
  return n_pairs + 1;
}

}  // namespace

TurnedBoxes turned_boxes_new(int T_nx, int T_ny, int n_angles) {
  TurnedBoxes boxes{};
  boxes.T_nx = T_nx;
  boxes.T_ny = T_ny;
  boxes.width = (static_cast<size_t>(T_nx) + kLanes - 1) / kLanes * kLanes;
  const size_t box = static_cast<size_t>(T_ny) * boxes.width;
  boxes.room = std::min(std::max(n_angles, 1), static_cast<int>(kBoxBytes / sizeof(float) / box) + 1);
  const size_t n = static_cast<size_t>(boxes.room) * box;
  boxes.pixels = host_new<float>(n);
  std::fill_n(boxes.pixels, n, 0.0f);
  return boxes;
}

void turned_boxes_free(TurnedBoxes* boxes) {
  free(boxes->pixels);
  *boxes = TurnedBoxes{};
}

void turn_boxes(TurnedBoxes* boxes, const float* T, const float* psi, int count) {
  boxes->count = count;
  float largest = 0;
#pragma omp parallel for schedule(static) reduction(max : largest)
  for (int i = 0; i < count; i++) {
    float cosine, sine;
    float energy = 0;
    turn_of(psi[i], &cosine, &sine);
    for (int y = 0; y < boxes->T_ny; y++) {
      float* row = boxes->pixels +
                   (static_cast<size_t>(i) * static_cast<size_t>(boxes->T_ny) + static_cast<size_t>(y)) * boxes->width;
      turn_pixels(T, row, y, boxes->T_nx, boxes->T_ny, cosine, sine);
      energy += row_energy(row, boxes->T_nx);
    }
    largest = std::max(largest, energy);
  }
  boxes->energy = largest;
}

int pair_turns(const TurnedBoxes& boxes, const float* psi, float most_difference, TurnPair* pairs) {
  // Which angles are done: those that are themselves half a turn after another. An angle can't be both, or the scan would
  // take more than a full turn; then the later one is done on its own.
  const int n_angles = boxes.count;
  auto* half_turns = host_new<int>(static_cast<size_t>(n_angles) + 1);
  auto* done = host_new<char>(static_cast<size_t>(n_angles) + 1);
  find_half_turns(boxes, psi, most_difference, half_turns);
  std::fill_n(done, n_angles, 0);
  for (int i = 0; i < n_angles; i++) {
    if (done[i]) half_turns[i] = 0;
    if (half_turns[i]) done[half_turns[i]] = 1;
  }
  int n_pairs = 0;
  for (const bool with_half_turns : {true, false})
    for (int i = 0; i < n_angles; i++)
      if (!done[i] && (half_turns[i] > 0) == with_half_turns)
        n_pairs = append_turn({i, half_turns[i]}, with_half_turns, pairs, n_pairs);
  free(half_turns);
  free(done);
  return n_pairs;
}
