// cuFFT's 2D single-precision transforms on the host, by FFTW. Plans are estimated, never measured, and for one core:
// such a plan is the same on every run and any number of cores, and so are its results, to the bit. A batch gives its
// images to the cores.
#include <fftw3.h>

#include <algorithm>
#include <cmath>
#include <mutex>
#include <vector>

#include "platform/host_cuda.h"

namespace {

struct HostPlan {
  cufftType type;
  int nx, ny, batch;
  fftwf_plan one_image;  // on the calling core
};

std::mutex plans_mutex;  // FFTW's planner and the table below are not thread-safe
std::vector<HostPlan> plans;
long fft_calls = 0;

bool fft_fails() {
  const long fail_at = host_device_faults().fail_fft_at;
  return ++fft_calls >= fail_at && fail_at > 0;
}

size_t image_floats(const HostPlan& p) { return static_cast<size_t>(p.nx) * p.ny; }
size_t spectrum_values(const HostPlan& p) { return static_cast<size_t>(p.nx / 2 + 1) * p.ny; }

// Estimating looks at the alignment of the two buffers only, never at their contents: any two places that are
// aligned as cudaMalloc aligns will do.
fftwf_plan plan_one_image(cufftType type, int nx, int ny) {
  alignas(64) static float image[16];
  alignas(64) static fftwf_complex spectrum[8];
  fftwf_plan_with_nthreads(1);
  return type == CUFFT_R2C ? fftwf_plan_dft_r2c_2d(ny, nx, image, spectrum, FFTW_ESTIMATE)
                           : fftwf_plan_dft_c2r_2d(ny, nx, spectrum, image, FFTW_ESTIMATE);
}

bool is_aligned(const void* pointer) {
  return fftwf_alignment_of(static_cast<float*>(const_cast<void*>(pointer))) == 0;
}

bool is_live(cufftHandle plan, cufftType type) {
  return plan >= 0 && static_cast<size_t>(plan) < plans.size() && plans[plan].one_image && plans[plan].type == type;
}

void transform_image(const HostPlan& p, size_t index, float* image, float2* spectrum) {
  float* pixels = image + index * image_floats(p);
  auto* values = reinterpret_cast<fftwf_complex*>(spectrum + index * spectrum_values(p));
  if (p.type == CUFFT_R2C) {
    fftwf_execute_dft_r2c(p.one_image, pixels, values);
  } else {
    fftwf_execute_dft_c2r(p.one_image, values, pixels);
    // What FFTW leaves there is not what another device would leave: nobody is to make use of it.
    if (host_device_faults().device_transforms)
      std::fill_n(spectrum + index * spectrum_values(p), spectrum_values(p), float2{NAN, NAN});
  }
}

cufftResult transform_batch(cufftHandle handle, cufftType type, float* image, float2* spectrum) {
  if (!is_live(handle, type)) return CUFFT_INVALID_PLAN;
  if (fft_fails()) return CUFFT_EXEC_FAILED;
  const HostPlan& p = plans[handle];
  const bool aligned = is_aligned(image) && is_aligned(spectrum) &&
                       (p.batch == 1 || (image_floats(p) % 4 == 0 && spectrum_values(p) % 2 == 0));
  if (!aligned) return CUFFT_UNALIGNED_DATA;
#pragma omp parallel for schedule(dynamic) if (p.batch > 1)
  for (int i = 0; i < p.batch; i++) transform_image(p, static_cast<size_t>(i), image, spectrum);
  return CUFFT_SUCCESS;
}

}  // namespace

// NOLINTNEXTLINE(readability-non-const-parameter): cuFFT's own signature
cufftResult cufftPlanMany(cufftHandle* plan, int rank, int* n, int* inembed, int, int, int* onembed, int, int,
                          cufftType type, int batch) {
  const std::lock_guard<std::mutex> lock(plans_mutex);
  if (fft_fails()) return CUFFT_ALLOC_FAILED;
  if (type != CUFFT_R2C && type != CUFFT_C2R) return CUFFT_INVALID_TYPE;
  if (rank != 2 || inembed || onembed) return CUFFT_INVALID_VALUE;
  if (n[0] < 1 || n[1] < 1 || batch < 1) return CUFFT_INVALID_SIZE;
  static const bool threads_ready = fftwf_init_threads() != 0;
  if (!threads_ready) return CUFFT_SETUP_FAILED;
  HostPlan made{type, n[1], n[0], batch, nullptr};
  made.one_image = plan_one_image(type, made.nx, made.ny);
  if (!made.one_image) return CUFFT_INTERNAL_ERROR;
  for (size_t i = 0; i < plans.size(); i++) {
    if (plans[i].one_image) continue;
    plans[i] = made;
    *plan = static_cast<cufftHandle>(i);
    return CUFFT_SUCCESS;
  }
  plans.push_back(made);
  *plan = static_cast<cufftHandle>(plans.size() - 1);
  return CUFFT_SUCCESS;
}

cufftResult cufftPlan2d(cufftHandle* plan, int ny, int nx, cufftType type) {
  int n[2] = {ny, nx};
  return cufftPlanMany(plan, 2, n, nullptr, 1, 0, nullptr, 1, 0, type, 1);
}

cufftResult cufftExecR2C(cufftHandle plan, float* in, float2* out) { return transform_batch(plan, CUFFT_R2C, in, out); }

cufftResult cufftExecC2R(cufftHandle plan, float2* in, float* out) { return transform_batch(plan, CUFFT_C2R, out, in); }

cufftResult cufftDestroy(cufftHandle plan) {
  const std::lock_guard<std::mutex> lock(plans_mutex);
  if (plan < 0 || static_cast<size_t>(plan) >= plans.size() || !plans[plan].one_image) return CUFFT_INVALID_PLAN;
  fftwf_destroy_plan(plans[plan].one_image);
  plans[plan].one_image = nullptr;
  return CUFFT_SUCCESS;
}
