#include "transforms/cosine_image.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "platform/host_memory.h"
#include "platform/loops.h"
#include "transforms/cosine_1d.h"
#include "transforms/lane_transpose.h"
#include "transforms/wide_lanes.h"

struct CosinePlans {
  CosineSide x, y;
  int threads;
  size_t room;         // values of each of a thread's buffers
  LaneValue* scratch;  // kBuffers for each thread
  LaneValue* between;  // the image between its two dimensions on the way forward: stripes of sixteen rows
  LaneValue* behind;   // on the way back: stripes of sixteen columns
};

namespace {

constexpr int kBuffers = 5;
constexpr size_t kStripe = kCosineStripe;
static_assert(kStripe == 2 * kLanes && kStripe * sizeof(float) == sizeof(LaneValue),
              "a stripe is as wide as the lanes");

CosineScratch scratch_of_thread(const CosinePlans* plans) {
  const size_t room = plans->room;
  LaneValue* a = plans->scratch + static_cast<size_t>(omp_get_thread_num()) * kBuffers * room;
  return {a, a + room, a + 2 * room, a + 3 * room, a + 4 * room};
}

// --- Between rows and lanes, eight by eight values at a time ---

// A block of at most eight by eight pixels of an image whose rows are nx pixels apart; what it lacks of eight is 0.
INTO_LOOP void load_block(const float* pixels, size_t nx, size_t rows, size_t columns, Lane* block) {
  if (rows == kLanes && columns == kLanes) {
#pragma GCC unroll 8
    for (size_t i = 0; i < kLanes; i++) memcpy(&block[i], pixels + i * nx, sizeof(Lane));
  } else {
    memset(block, 0, kLanes * sizeof(Lane));
    for (size_t i = 0; i < rows; i++) memcpy(&block[i], pixels + i * nx, columns * sizeof(float));
  }
}

INTO_LOOP void store_block(const Lane* block, size_t rows, size_t columns, float* pixels, size_t nx) {
  if (rows == kLanes && columns == kLanes) {
#pragma GCC unroll 8
    for (size_t i = 0; i < kLanes; i++) memcpy(pixels + i * nx, &block[i], sizeof(Lane));
  } else {
    for (size_t i = 0; i < rows; i++) memcpy(pixels + i * nx, &block[i], columns * sizeof(float));
  }
}

// One part of at most eight values; what they lack of eight is 0.
INTO_LOOP void take_parts(const LaneValue* values, bool imaginary, size_t count, Lane* block) {
  const Lane* part = imaginary ? &values->im : &values->re;
  if (count >= kLanes) {
#pragma GCC unroll 8
    for (size_t i = 0; i < kLanes; i++) block[i] = part[2 * i];
  } else {
    memset(block, 0, kLanes * sizeof(Lane));
    for (size_t i = 0; i < count; i++) block[i] = part[2 * i];
  }
}

// Eight real and eight imaginary parts to the first `count` of eight places.
INTO_LOOP void place_parts(const Lane* re, const Lane* im, const int* place, size_t count, LaneValue* lanes) {
  if (count >= kLanes) {
#pragma GCC unroll 8
    for (size_t i = 0; i < kLanes; i++) lanes[place[i]] = {re[i], im[i]};
  } else {
    for (size_t i = 0; i < count; i++) lanes[place[i]] = {re[i], im[i]};
  }
}

struct Halves {
  size_t upper, lower;  // rows of the first and the second eight of a stripe
};

Halves rows_of_stripe(size_t first, size_t ny) {
  const size_t rows = std::min(kStripe, ny - first);
  const size_t upper = std::min<size_t>(rows, kLanes);
  return {upper, rows - upper};
}

INTO_LOOP void square(Lane* block) {
#pragma GCC unroll 8
  for (size_t i = 0; i < kLanes; i++) block[i] *= block[i];
}

// A stripe of rows to lanes: pixel x to lanes[place[x]].
KERNEL_LOOP void load_rows(const float* image, size_t nx, Halves rows, bool squared, const int* place,
                           LaneValue* lanes) {
  for (size_t x = 0; x < nx; x += kLanes) {
    const size_t columns = std::min<size_t>(kLanes, nx - x);
    Lane upper[8];
    Lane lower[8];
    load_block(image + x, nx, rows.upper, columns, upper);
    load_block(image + kLanes * nx + x, nx, rows.lower, columns, lower);
    lane_transpose_block(upper);
    lane_transpose_block(lower);
    if (squared) {
      square(upper);
      square(lower);
    }
    place_parts(upper, lower, place + x, columns, lanes);
  }
}

KERNEL_LOOP void store_rows(const LaneValue* lanes, size_t nx, Halves rows, float* image) {
  // Whole cache lines of eight rows, then of the other eight: the rows share their places in the cache.
  for (size_t first = 0; first < nx; first += kStripe) {
    for (const bool imaginary : {false, true}) {
      for (size_t x = first; x < std::min(nx, first + kStripe); x += kLanes) {
        const size_t columns = std::min<size_t>(kLanes, nx - x);
        Lane block[8];
        take_parts(lanes + x, imaginary, columns, block);
        lane_transpose_block(block);
        if (imaginary) {
          store_block(block, rows.lower, columns, image + kLanes * nx + x, nx);
        } else {
          store_block(block, rows.upper, columns, image + x, nx);
        }
      }
    }
  }
}

// From stripes of one dimension, each `length` values long, to a stripe of the other: values first .. first + 15 of all
// stripes become `count` values of sixteen lanes, value i at lanes[place[i]].
KERNEL_LOOP void cross_stripes(const LaneValue* stripes, size_t length, size_t first, size_t count, const int* place,
                               LaneValue* lanes) {
  const size_t there = std::min(kStripe, length - first);
  for (size_t i = 0; i < count; i += kLanes) {
    const LaneValue* from = stripes + i / kStripe * length + first;
    const bool imaginary = i % kStripe != 0;
    Lane re[8];
    Lane im[8];
    take_parts(from, imaginary, there, re);
    take_parts(from + kLanes, imaginary, there > kLanes ? there - kLanes : 0, im);
    lane_transpose_block(re);
    lane_transpose_block(im);
    place_parts(re, im, place + i, count - i, lanes);
  }
}

KERNEL_LOOP void multiply(const LaneValue* a, const LaneValue* b, LaneValue* out, size_t n) {
  for (size_t i = 0; i < n; i++) {
    out[i].re = a[i].re * b[i].re;
    out[i].im = a[i].im * b[i].im;
  }
}

// --- Two dimensions ---

const LaneValue* as_lanes(const float* coefficients) { return reinterpret_cast<const LaneValue*>(coefficients); }

// The stages of a transform, each shared by the threads of a parallel region: rows or columns, a stripe at a time.

// From an image's rows to plans->between.
void rows_forward(const CosinePlans* plans, const CosineScratch& s, const float* image, bool squared) {
  const auto nx = static_cast<size_t>(plans->x.n);
  const auto ny = static_cast<size_t>(plans->y.n);
#pragma omp for schedule(dynamic)
  for (size_t y = 0; y < ny; y += kStripe) {
    load_rows(image + y * nx, nx, rows_of_stripe(y, ny), squared, plans->x.whole.fold, s.a);
    cosine_forward_1d(&plans->x, s, plans->between + y / kStripe * nx);
  }
}

// The columns of a stripe from plans->between to their coefficients.
void columns_forward(const CosinePlans* plans, const CosineScratch& s, size_t x, LaneValue* coefficients) {
  const auto ny = static_cast<size_t>(plans->y.n);
  cross_stripes(plans->between, static_cast<size_t>(plans->x.n), x, ny, plans->y.whole.fold, s.a);
  cosine_forward_1d(&plans->y, s, coefficients);
}

typedef void Transform1d(const CosineSide* side, CosineScratch s, LaneValue* out);

// From plans->behind, of whose columns only the first hold anything, to a stripe of an image's rows.
template <Transform1d Transform>
void rows_back(const CosinePlans* plans, const CosineScratch& s, size_t columns, size_t y, float* image) {
  const auto nx = static_cast<size_t>(plans->x.n);
  const auto ny = static_cast<size_t>(plans->y.n);
  cross_stripes(plans->behind, ny, y, columns, plans->x.natural, s.a);
  memset(s.a + columns, 0, (nx - columns) * sizeof(LaneValue));
  Transform(&plans->x, s, s.e);
  store_rows(s.e, nx, rows_of_stripe(y, ny), image + y * nx);
}

KERNEL_LOOP void deviations(const float* means, float* squares, size_t n) {
  for (size_t i = 0; i < n; i++) squares[i] = sqrtf(squares[i] - means[i] * means[i]);
}

}  // namespace

CosinePlans* cosine_plans_new(int nx, int ny) {
  // Past a multiple of the page, so that the buffers' values don't share places of the cache.
  constexpr size_t kApart = 5;
  auto* plans = host_new<CosinePlans>(1);
  plans->x = cosine_side_new(nx);
  plans->y = cosine_side_new(ny);
  plans->threads = omp_get_max_threads();
  plans->room = std::max(cosine_room(&plans->x), cosine_room(&plans->y)) + kApart;
  plans->scratch = lane_values_new(static_cast<size_t>(plans->threads) * kBuffers * plans->room);
  plans->between = lane_values_new(cosine_coefficients(ny, nx) / kStripe);
  plans->behind = lane_values_new(cosine_coefficients(nx, ny) / kStripe);
  return plans;
}

void cosine_plans_free(CosinePlans* plans) {
  if (!plans) return;
  cosine_side_free(&plans->x);
  cosine_side_free(&plans->y);
  free(plans->scratch);
  free(plans->between);
  free(plans->behind);
  free(plans);
}

void cosine_forward(const CosinePlans* plans, const float* image, float* coefficients) {
  const auto nx = static_cast<size_t>(plans->x.n);
  const auto ny = static_cast<size_t>(plans->y.n);
#pragma omp parallel num_threads(plans->threads)
  {
    const CosineScratch s = scratch_of_thread(plans);
    rows_forward(plans, s, image, false);
#pragma omp for schedule(dynamic)
    for (size_t x = 0; x < nx; x += kStripe)
      columns_forward(plans, s, x, reinterpret_cast<LaneValue*>(coefficients) + x / kStripe * ny);
  }
}

void cosine_inverse(const CosinePlans* plans, const float* coefficients, int kept, float* image) {
  const auto columns = static_cast<size_t>(std::min(kept, plans->x.n));
  const auto rows = static_cast<size_t>(std::min(kept, plans->y.n));
  const auto ny = static_cast<size_t>(plans->y.n);
#pragma omp parallel num_threads(plans->threads)
  {
    const CosineScratch s = scratch_of_thread(plans);
#pragma omp for schedule(dynamic)
    for (size_t x = 0; x < columns; x += kStripe) {
      const size_t stripe = x / kStripe * ny;
      memcpy(s.a, as_lanes(coefficients) + stripe, rows * sizeof(LaneValue));
      memset(s.a + rows, 0, (ny - rows) * sizeof(LaneValue));
      cosine_inverse_1d(&plans->y, s, plans->behind + stripe);
    }
#pragma omp for schedule(dynamic)
    for (size_t y = 0; y < ny; y += kStripe) rows_back<cosine_inverse_1d>(plans, s, columns, y, image);
  }
}

void cosine_correlate(const CosinePlans* plans, const float* coefficients, const float* others, float* image) {
  const auto nx = static_cast<size_t>(plans->x.n);
  const auto ny = static_cast<size_t>(plans->y.n);
#pragma omp parallel num_threads(plans->threads)
  {
    const CosineScratch s = scratch_of_thread(plans);
#pragma omp for schedule(dynamic)
    for (size_t x = 0; x < nx; x += kStripe) {
      const size_t stripe = x / kStripe * ny;
      multiply(as_lanes(coefficients) + stripe, as_lanes(others) + stripe, s.a, ny);
      cosine_correlate_1d(&plans->y, s, plans->behind + stripe);
    }
#pragma omp for schedule(dynamic)
    for (size_t y = 0; y < ny; y += kStripe) rows_back<cosine_correlate_1d>(plans, s, nx, y, image);
  }
}

void cosine_deviation(const CosinePlans* plans, const float* image, const float* others, const float* means,
                      float* out) {
  const auto nx = static_cast<size_t>(plans->x.n);
  const auto ny = static_cast<size_t>(plans->y.n);
#pragma omp parallel num_threads(plans->threads)
  {
    const CosineScratch s = scratch_of_thread(plans);
    rows_forward(plans, s, image, true);
#pragma omp for schedule(dynamic)
    for (size_t x = 0; x < nx; x += kStripe) {
      const size_t stripe = x / kStripe * ny;
      columns_forward(plans, s, x, s.e);
      multiply(s.e, as_lanes(others) + stripe, s.a, ny);
      cosine_correlate_1d(&plans->y, s, plans->behind + stripe);
    }
#pragma omp for schedule(dynamic)
    for (size_t y = 0; y < ny; y += kStripe) {
      rows_back<cosine_correlate_1d>(plans, s, nx, y, out);
      deviations(means + y * nx, out + y * nx, std::min(kStripe, ny - y) * nx);
    }
  }
}
