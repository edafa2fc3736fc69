#include "transforms/cosine_1d.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "platform/host_memory.h"
#include "platform/loops.h"
#include "transforms/wide_lanes.h"

// The forward and inverse transform of n real values take one complex transform of n (Makhoul, IEEE Trans. ASSP 28
// (1980) 27). The correlation at whole positions is such an inverse transform of n/2 values at the odd positions and, at
// the even ones, a correlation of half the length; what can't be halved any more is the transform of an even array.

namespace {

// Arrays of no more values are not worth halving.
constexpr int kLeastToHalve = 16;

CosineLength length_new(int n) {
  const auto values = static_cast<size_t>(n);
  CosineLength length{n, any_length_plan_new(n), host_new<float>(2 * values), host_new<int>(values)};
  for (int k = 0; k < n; k++) {
    const double angle = M_PI * k / (2.0 * n);
    length.turn[2 * k] = static_cast<float>(std::cos(angle));
    length.turn[2 * k + 1] = static_cast<float>(std::sin(angle));
    length.fold[k] = k % 2 == 0 ? k / 2 : n - 1 - k / 2;
  }
  return length;
}

void length_free(CosineLength* length) {
  any_length_plan_free(&length->plan);
  free(length->turn);
  free(length->fold);
}

KERNEL_LOOP void separate(const LaneValue* V, LaneValue* out, const float* turn, size_t n) {
  for (size_t k = 0; k < n; k++) {
    const LaneValue v = V[k];
    const LaneValue w = V[k == 0 ? 0 : n - k];
    const float c = turn[2 * k];
    const float s = turn[2 * k + 1];
    out[k].re = (v.re + w.re) * c + (v.im - w.im) * s;
    out[k].im = (v.im + w.im) * c + (w.re - v.re) * s;
  }
}

// Value k of what the inverse transform wants, from the coefficients k and n - k; real and imaginary part exchanged.
INTO_LOOP LaneValue joined(LaneValue y, LaneValue z, const float* turn) {
  const float c = turn[0];
  const float s = turn[1];
  return {(y.re + z.im) * s + (y.im - z.re) * c, (y.re + z.im) * c + (z.re - y.im) * s};
}

KERNEL_LOOP void join(const LaneValue* Y, LaneValue* V, const float* turn, size_t n) {
  V[0] = joined(Y[0], LaneValue{}, turn);
  for (size_t k = 1; k < n; k++) V[k] = joined(Y[k], Y[n - k], turn + 2 * k);
}

// Of the 2n + 1 values at a: sums of the ones at k and 2n - k stay there, differences are joined to n values.
KERNEL_LOOP void halve_and_join(LaneValue* a, LaneValue* V, const float* turn, size_t n) {
  const LaneValue first = a[0];
  const LaneValue last = a[2 * n];
  a[0] = first + last;
  a[n] = a[n] + a[n];
  V[0] = joined(first - last, LaneValue{}, turn);
  for (size_t k = 1; 2 * k <= n; k++) {
    const LaneValue low = a[k];
    const LaneValue high = a[2 * n - k];
    const LaneValue below = a[n - k];
    const LaneValue above = a[n + k];
    a[k] = low + high;
    a[n - k] = below + above;
    V[k] = joined(low - high, below - above, turn + 2 * k);
    V[n - k] = joined(below - above, low - high, turn + 2 * (n - k));
  }
}

// from[fold[j]] to to[j * step], for a negative step backwards; the parts exchanged back.
KERNEL_LOOP void unfold(const LaneValue* from, const int* fold, size_t n, LaneValue* to, long step) {
  for (size_t j = 0; j < n; j++) {
    const LaneValue v = from[fold[j]];
    LaneValue& value = to[static_cast<long>(j) * step];
    value.re = v.im;
    value.im = v.re;
  }
}

// The inverse transform of the joined values at c to out, out + step, ...
void inverse_of_c(const CosineLength& length, const CosineScratch& s, LaneValue* out, long step) {
  any_length_fft(&length.plan, s.c, s.b, s.d);
  unfold(s.b, length.fold, static_cast<size_t>(length.n), out, step);
}

}  // namespace

CosineSide cosine_side_new(int n) {
  CosineSide side{};
  side.n = n;
  side.whole = length_new(n);
  int left = n;
  for (; left % 2 == 0 && left > kLeastToHalve; left /= 2) side.halves[side.n_halvings++] = length_new(left / 2);
  side.even = any_length_plan_new(2 * left);
  side.natural = host_new<int>(static_cast<size_t>(n));
  for (int i = 0; i < n; i++) side.natural[i] = i;
  return side;
}

void cosine_side_free(CosineSide* side) {
  length_free(&side->whole);
  for (int i = 0; i < side->n_halvings; i++) length_free(&side->halves[i]);
  any_length_plan_free(&side->even);
  free(side->natural);
}

size_t cosine_room(const CosineSide* side) {
  // The scratch of a transform is twice as long as its values.
  int room = std::max({side->n + 1, side->whole.plan.plan.n, side->even.plan.n});
  for (int i = 0; i < side->n_halvings; i++) room = std::max(room, side->halves[i].plan.plan.n);
  return 2 * static_cast<size_t>(room);
}

void cosine_forward_1d(const CosineSide* side, CosineScratch s, LaneValue* out) {
  any_length_fft(&side->whole.plan, s.a, s.b, s.c);
  separate(s.b, out, side->whole.turn, static_cast<size_t>(side->n));
}

void cosine_inverse_1d(const CosineSide* side, CosineScratch s, LaneValue* out) {
  join(s.a, s.c, side->whole.turn, static_cast<size_t>(side->n));
  inverse_of_c(side->whole, s, out, 1);
}

void cosine_correlate_1d(const CosineSide* side, CosineScratch s, LaneValue* out) {
  LaneValue* end = out + side->n;  // pixel x holds position n - x
  auto n = static_cast<size_t>(side->n);
  long step = 1;
  s.a[n] = LaneValue{};
  for (int i = 0; i < side->n_halvings; i++, step *= 2) {
    n /= 2;
    halve_and_join(s.a, s.c, side->halves[i].turn, n);
    inverse_of_c(side->halves[i], s, end - step, -2 * step);
  }
  s.b[0] = s.a[0];
  s.b[n] = s.a[n];
  for (size_t k = 1; k < n; k++) s.b[k] = s.b[2 * n - k] = s.a[k];
  any_length_fft(&side->even, s.b, s.c, s.d);
  for (size_t x = 1; x <= n; x++) *(end - step * static_cast<long>(x)) = s.c[x];
}
