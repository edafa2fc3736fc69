#include "platform/host_cosine.h"

#include <fftw3.h>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "platform/lane_cosine.h"

namespace {

// One dimension of an image by FFTW, a few rows or columns in each call, which the cores share. Planned for one core, so
// that the bits don't depend on their number.
struct LinePlans {
  fftwf_plan several, one;  // kTogether lines, a single line
  size_t line_step;         // between the first values of neighbouring lines
  int lines;
};

constexpr int kTogether = 8;

}  // namespace

struct CosinePlans {
  int nx, ny;
  LaneCosine* lanes;                               // where the sides suit it; else null, and what follows is set
  LinePlans forward[2], inverse[2], correlate[2];  // along x, along y
  float* whole;                                    // (nx + 1) * (ny + 1): the correlation at whole positions
};

namespace {

fftwf_plan plan_lines(int n, int lines, int value_step, int line_step, fftwf_r2r_kind kind) {
  alignas(64) static float place[16];  // an estimate looks at nothing there
  return fftwf_plan_many_r2r(1, &n, lines, place, nullptr, value_step, line_step, place, nullptr, value_step, line_step,
                             &kind, FFTW_ESTIMATE | FFTW_UNALIGNED);
}

// Plans for both dimensions of images of nx by ny; false if FFTW can't.
bool plan_dimensions(LinePlans* plans, int nx, int ny, fftwf_r2r_kind kind) {
  plans[0] = {plan_lines(nx, kTogether, 1, nx, kind), plan_lines(nx, 1, 1, nx, kind), static_cast<size_t>(nx), ny};
  plans[1] = {plan_lines(ny, kTogether, nx, 1, kind), plan_lines(ny, 1, nx, 1, kind), 1, nx};
  return plans[0].several && plans[0].one && plans[1].several && plans[1].one;
}

void free_dimensions(LinePlans* plans) {
  for (int i = 0; i < 2; i++)
    for (fftwf_plan plan : {plans[i].several, plans[i].one})
      if (plan) fftwf_destroy_plan(plan);
}

void transform_lines(const LinePlans& plans, float* image) {
#pragma omp parallel for schedule(dynamic)
  for (int line = 0; line < plans.lines; line += kTogether) {
    const bool full = line + kTogether <= plans.lines;
    for (int i = line; i < (full ? line + 1 : plans.lines); i++) {
      float* first = image + static_cast<size_t>(i) * plans.line_step;
      fftwf_execute_r2r(full ? plans.several : plans.one, first, first);
    }
  }
}

void transform_image(const LinePlans* plans, float* image) {
  transform_lines(plans[0], image);
  transform_lines(plans[1], image);
}

bool plan_fftw(CosinePlans* plans) {
  const int nx = plans->nx;
  const int ny = plans->ny;
  plans->whole = fftwf_alloc_real((static_cast<size_t>(nx) + 1) * (static_cast<size_t>(ny) + 1));
  fftwf_plan_with_nthreads(1);
  return plans->whole && plan_dimensions(plans->forward, nx, ny, FFTW_REDFT10) &&
         plan_dimensions(plans->inverse, nx, ny, FFTW_REDFT01) &&
         plan_dimensions(plans->correlate, nx + 1, ny + 1, FFTW_REDFT00);
}

}  // namespace

CosinePlans* cosine_plans_new(int nx, int ny) {
  auto* plans = static_cast<CosinePlans*>(calloc(1, sizeof(CosinePlans)));
  if (!plans) return nullptr;
  plans->nx = nx;
  plans->ny = ny;
  if (lane_cosine_handles(nx) && lane_cosine_handles(ny)) {
    plans->lanes = lane_cosine_new(nx, ny);
    return plans;
  }
  if (plan_fftw(plans)) return plans;
  cosine_plans_free(plans);
  return nullptr;
}

void cosine_plans_free(CosinePlans* plans) {
  if (!plans) return;
  lane_cosine_free(plans->lanes);
  for (LinePlans* dimensions : {plans->forward, plans->inverse, plans->correlate}) free_dimensions(dimensions);
  fftwf_free(plans->whole);
  free(plans);
}

void cosine_forward(const CosinePlans* plans, float* image) {
  if (plans->lanes) return lane_cosine_forward(plans->lanes, image);
  transform_image(plans->forward, image);
}

void cosine_inverse(const CosinePlans* plans, float* image) {
  if (plans->lanes) return lane_cosine_inverse(plans->lanes, image);
  transform_image(plans->inverse, image);
}

void cosine_correlate(const CosinePlans* plans, float* image) {
  if (plans->lanes) return lane_cosine_correlate(plans->lanes, image);
  const auto nx = static_cast<size_t>(plans->nx);
  const auto ny = static_cast<size_t>(plans->ny);
  std::fill_n(plans->whole, (nx + 1) * (ny + 1), 0.0f);  // the last row and column have no coefficients
  for (size_t y = 0; y < ny; y++) memcpy(plans->whole + y * (nx + 1), image + y * nx, nx * sizeof(float));
  transform_image(plans->correlate, plans->whole);
  for (size_t y = 0; y < ny; y++)
    for (size_t x = 0; x < nx; x++) image[y * nx + x] = plans->whole[(ny - y) * (nx + 1) + nx - x];
}
