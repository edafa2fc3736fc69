#include "platform/host_cosine.h"

#include <fftw3.h>
#include <omp.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "platform/lane_cosine.h"

struct CosinePlans {
  int nx, ny;
  LaneCosine* lanes;  // where the sides suit it; else null, and FFTW's plans with their buffers are set
  fftwf_plan forward, inverse, correlate;
  float* image;        // nx*ny
  float* product;      // (nx + 1) * (ny + 1), the last row and column 0
  float* correlation;  // (nx + 1) * (ny + 1)
};

namespace {

bool plan_fftw(CosinePlans* plans) {
  static const bool threads_ready = fftwf_init_threads() != 0;
  const int nx = plans->nx;
  const int ny = plans->ny;
  const size_t whole_positions = (static_cast<size_t>(nx) + 1) * (static_cast<size_t>(ny) + 1);
  plans->image = fftwf_alloc_real(static_cast<size_t>(nx) * ny);
  plans->product = fftwf_alloc_real(whole_positions);
  plans->correlation = fftwf_alloc_real(whole_positions);
  if (!threads_ready || !plans->image || !plans->product || !plans->correlation) return false;
  std::fill_n(plans->product, whole_positions, 0.0f);
  fftwf_plan_with_nthreads(omp_get_max_threads());
  plans->forward = fftwf_plan_r2r_2d(ny, nx, plans->image, plans->image, FFTW_REDFT10, FFTW_REDFT10, FFTW_ESTIMATE);
  plans->inverse = fftwf_plan_r2r_2d(ny, nx, plans->image, plans->image, FFTW_REDFT01, FFTW_REDFT01, FFTW_ESTIMATE);
  plans->correlate =
      fftwf_plan_r2r_2d(ny + 1, nx + 1, plans->product, plans->correlation, FFTW_REDFT00, FFTW_REDFT00, FFTW_ESTIMATE);
  return plans->forward && plans->inverse && plans->correlate;
}

void transform_in_place(const CosinePlans* plans, fftwf_plan plan, float* image) {
  const size_t bytes = static_cast<size_t>(plans->nx) * plans->ny * sizeof(float);
  memcpy(plans->image, image, bytes);
  fftwf_execute(plan);
  memcpy(image, plans->image, bytes);
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
  for (fftwf_plan plan : {plans->forward, plans->inverse, plans->correlate})
    if (plan) fftwf_destroy_plan(plan);
  for (float* buffer : {plans->image, plans->product, plans->correlation}) fftwf_free(buffer);
  free(plans);
}

void cosine_forward(const CosinePlans* plans, float* image) {
  if (plans->lanes) return lane_cosine_forward(plans->lanes, image);
  transform_in_place(plans, plans->forward, image);
}

void cosine_inverse(const CosinePlans* plans, float* image) {
  if (plans->lanes) return lane_cosine_inverse(plans->lanes, image);
  transform_in_place(plans, plans->inverse, image);
}

void cosine_correlate(const CosinePlans* plans, float* image) {
  if (plans->lanes) return lane_cosine_correlate(plans->lanes, image);
  const auto nx = static_cast<size_t>(plans->nx);
  const auto ny = static_cast<size_t>(plans->ny);
  for (size_t y = 0; y < ny; y++) memcpy(plans->product + y * (nx + 1), image + y * nx, nx * sizeof(float));
  fftwf_execute(plans->correlate);
  for (size_t y = 0; y < ny; y++)
    for (size_t x = 0; x < nx; x++) image[y * nx + x] = plans->correlation[(ny - y) * (nx + 1) + nx - x];
}
