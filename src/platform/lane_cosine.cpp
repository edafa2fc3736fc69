#include "platform/lane_cosine.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "host_memory.h"
#include "platform/lane_fft.h"
#include "platform/launch.h"

// Sixteen rows or columns are transformed together: eight as the real and eight as the imaginary parts of the lanes.
// The forward and inverse transform of n real values take one complex transform of n (Makhoul, IEEE Trans. ASSP 28
// (1980) 27); the correlation takes one of 2n, whose input is even, so that real and imaginary part stay apart.

namespace {

/// One dimension's plans.
struct CosineSide {
  int n;
  LanePlan plan;         // length n
  LanePlan double_plan;  // length 2n
  float* turn;           // n pairs: cosine and sine of pi k / (2n)
};

struct Scratch {
  LaneValue *a, *b, *c;  // 2n values each
};

}  // namespace

struct LaneCosine {
  CosineSide x, y;
  int threads;
  size_t scratch_values;  // of each of a thread's three buffers
  LaneValue* scratch;
};

namespace {

CosineSide side_new(int n) {
  CosineSide side{n, lane_plan_new(n), lane_plan_new(2 * n), host_new<float>(2 * static_cast<size_t>(n))};
  for (int k = 0; k < n; k++) {
    const double angle = 3.141592653589793 * k / (2.0 * n);
    side.turn[2 * k] = static_cast<float>(std::cos(angle));
    side.turn[2 * k + 1] = static_cast<float>(std::sin(angle));
  }
  return side;
}

void side_free(CosineSide* side) {
  lane_plan_free(&side->plan);
  lane_plan_free(&side->double_plan);
  free(side->turn);
}

Scratch scratch_of_thread(const LaneCosine* cosine) {
  const size_t values = cosine->scratch_values;
  LaneValue* first = cosine->scratch + static_cast<size_t>(omp_get_thread_num()) * 3 * values;
  return {first, first + values, first + 2 * values};
}

// --- One dimension: n values in s.a to n values in s.a ---

// Even values in order, then odd ones backwards.
void fold(const LaneValue* from, LaneValue* to, size_t n) {
  for (size_t j = 0; 2 * j < n; j++) {
    to[j] = from[2 * j];
    to[n - 1 - j] = from[2 * j + 1];
  }
}

void unfold(const LaneValue* from, LaneValue* to, size_t n) {
  for (size_t j = 0; 2 * j < n; j++) {
    to[2 * j] = from[j];
    to[2 * j + 1] = from[n - 1 - j];
  }
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

// Real and imaginary part exchanged, as the inverse transform wants them.
KERNEL_LOOP void join(const LaneValue* Y, LaneValue* V, const float* turn, size_t n) {
  for (size_t k = 0; k < n; k++) {
    const LaneValue y = Y[k];
    const LaneValue z = k == 0 ? LaneValue{} : Y[n - k];
    const float c = turn[2 * k];
    const float s = turn[2 * k + 1];
    V[k].im = (y.re + z.im) * c + (z.re - y.im) * s;
    V[k].re = (y.re + z.im) * s + (y.im - z.re) * c;
  }
}

KERNEL_LOOP void exchange(LaneValue* values, size_t n) {
  for (size_t k = 0; k < n; k++) {
    const LaneValue v = values[k];
    values[k].re = v.im;
    values[k].im = v.re;
  }
}

void forward_1d(const CosineSide& side, Scratch s) {
  const auto n = static_cast<size_t>(side.n);
  fold(s.a, s.b, n);
  lane_fft(&side.plan, s.b, s.c, s.a);
  separate(s.c, s.a, side.turn, n);
}

void inverse_1d(const CosineSide& side, Scratch s) {
  const auto n = static_cast<size_t>(side.n);
  join(s.a, s.b, side.turn, n);
  lane_fft(&side.plan, s.b, s.c, s.a);
  exchange(s.c, n);
  unfold(s.c, s.a, n);
}

void correlate_1d(const CosineSide& side, Scratch s) {
  const auto n = static_cast<size_t>(side.n);
  s.b[0] = s.a[0];
  s.b[n] = LaneValue{};
  for (size_t k = 1; k < n; k++) s.b[k] = s.b[2 * n - k] = s.a[k];
  lane_fft(&side.double_plan, s.b, s.c, s.a);
  for (size_t x = 0; x < n; x++) s.a[x] = s.c[n - x];
}

// --- Two dimensions ---

typedef void Transform1d(const CosineSide& side, Scratch s);

// Eight rows, or the eight below them where there are any, between the image and one part of the lanes.
KERNEL_LOOP void load_rows(const float* image, size_t nx, LaneValue* lanes, bool imaginary) {
  for (size_t x = 0; x < nx; x += kLanes)
    lane_transpose(reinterpret_cast<const Lane*>(image + x), nx / kLanes, imaginary ? &lanes[x].im : &lanes[x].re, 2);
}

KERNEL_LOOP void store_rows(const LaneValue* lanes, size_t nx, float* image, bool imaginary) {
  for (size_t x = 0; x < nx; x += kLanes)
    lane_transpose(imaginary ? &lanes[x].im : &lanes[x].re, 2, reinterpret_cast<Lane*>(image + x), nx / kLanes);
}

void clear_imaginary(LaneValue* lanes, size_t n) {
  for (size_t i = 0; i < n; i++) lanes[i].im = Lane{};
}

template <Transform1d Transform>
void transform_rows(const LaneCosine* cosine, float* image) {
  const auto nx = static_cast<size_t>(cosine->x.n);
  const auto ny = static_cast<size_t>(cosine->y.n);
#pragma omp parallel for schedule(dynamic) num_threads(cosine->threads)
  for (size_t y = 0; y < ny; y += 2 * kLanes) {
    const Scratch s = scratch_of_thread(cosine);
    const bool second = y + kLanes < ny;
    float* rows = image + y * nx;
    load_rows(rows, nx, s.a, false);
    if (second) {
      load_rows(rows + kLanes * nx, nx, s.a, true);
    } else {
      clear_imaginary(s.a, nx);
    }
    Transform(cosine->x, s);
    store_rows(s.a, nx, rows, false);
    if (second) store_rows(s.a, nx, rows + kLanes * nx, true);
  }
}

template <Transform1d Transform>
void transform_columns(const LaneCosine* cosine, float* image) {
  const auto nx = static_cast<size_t>(cosine->x.n);
  const auto ny = static_cast<size_t>(cosine->y.n);
#pragma omp parallel for schedule(dynamic) num_threads(cosine->threads)
  for (size_t x = 0; x < nx; x += 2 * kLanes) {
    const Scratch s = scratch_of_thread(cosine);
    const bool second = x + kLanes < nx;
    auto* column = reinterpret_cast<Lane*>(image + x);
    const size_t step = nx / kLanes;
    for (size_t y = 0; y < ny; y++) {
      s.a[y].re = column[y * step];
      s.a[y].im = second ? column[y * step + 1] : Lane{};
    }
    Transform(cosine->y, s);
    for (size_t y = 0; y < ny; y++) {
      column[y * step] = s.a[y].re;
      if (second) column[y * step + 1] = s.a[y].im;
    }
  }
}

}  // namespace

bool lane_cosine_handles(int n) { return n % kLanes == 0 && lane_plan_handles(n); }

LaneCosine* lane_cosine_new(int nx, int ny) {
  auto* cosine = host_new<LaneCosine>(1);
  cosine->x = side_new(nx);
  cosine->y = side_new(ny);
  cosine->threads = omp_get_max_threads();
  cosine->scratch_values = 4 * static_cast<size_t>(std::max(nx, ny));
  cosine->scratch = lane_values_new(static_cast<size_t>(cosine->threads) * 3 * cosine->scratch_values);
  return cosine;
}

void lane_cosine_free(LaneCosine* cosine) {
  if (!cosine) return;
  side_free(&cosine->x);
  side_free(&cosine->y);
  free(cosine->scratch);
  free(cosine);
}

void lane_cosine_forward(const LaneCosine* cosine, float* image) {
  transform_rows<forward_1d>(cosine, image);
  transform_columns<forward_1d>(cosine, image);
}

void lane_cosine_inverse(const LaneCosine* cosine, float* image) {
  transform_columns<inverse_1d>(cosine, image);
  transform_rows<inverse_1d>(cosine, image);
}

void lane_cosine_correlate(const LaneCosine* cosine, float* image) {
  transform_columns<correlate_1d>(cosine, image);
  transform_rows<correlate_1d>(cosine, image);
}
