#include "platform/host_cosine.h"

#include <fftw3.h>
#include <omp.h>

#include <cstdlib>
#include <initializer_list>

struct CosinePlans {
  fftwf_plan forward, inverse, correlate;
};

CosinePlans* cosine_plans_new(int nx, int ny, float* coefficients, float* product, float* correlation) {
  static const bool threads_ready = fftwf_init_threads() != 0;
  auto* plans = static_cast<CosinePlans*>(calloc(1, sizeof(CosinePlans)));
  if (!plans || !threads_ready) return nullptr;
  fftwf_plan_with_nthreads(omp_get_max_threads());
  plans->forward =
      fftwf_plan_r2r_2d(ny, nx, coefficients, coefficients, FFTW_REDFT10, FFTW_REDFT10, FFTW_ESTIMATE);
  plans->inverse =
      fftwf_plan_r2r_2d(ny, nx, coefficients, coefficients, FFTW_REDFT01, FFTW_REDFT01, FFTW_ESTIMATE);
  plans->correlate =
      fftwf_plan_r2r_2d(ny + 1, nx + 1, product, correlation, FFTW_REDFT00, FFTW_REDFT00, FFTW_ESTIMATE);
  if (plans->forward && plans->inverse && plans->correlate) return plans;
  cosine_plans_free(plans);
  return nullptr;
}

void cosine_plans_free(CosinePlans* plans) {
  if (!plans) return;
  for (fftwf_plan plan : {plans->forward, plans->inverse, plans->correlate})
    if (plan) fftwf_destroy_plan(plan);
  free(plans);
}

void cosine_forward(const CosinePlans* plans) { fftwf_execute(plans->forward); }
void cosine_inverse(const CosinePlans* plans) { fftwf_execute(plans->inverse); }
void cosine_correlate(const CosinePlans* plans) { fftwf_execute(plans->correlate); }
