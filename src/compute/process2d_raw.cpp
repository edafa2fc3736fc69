#include "process2d_raw.h"

#include "compute/process2d_raw_kernels.h"
#include "cuda_general.h"
#include "platform/launch.h"

namespace {

constexpr char unit[] = "process2d_raw";

// The float nearest to pi / 180.

}  // namespace

void hcuda_2d_empty(float* d, int nx, int ny) { CHECK_DEVICE(launch_2d<cuda_2d_memset>(nx, ny, nx, d, 0.0f)); }

void hcuda_2d_memset(float* d, float v, int nx, int ny) { CHECK_DEVICE(launch_2d<cuda_2d_memset>(nx, ny, nx, d, v)); }

void hcuda_2d_sqr(float* out, const float* in, int nx, int ny) {
  CHECK_DEVICE(launch_2d<cuda_2d_sqr>(nx, ny, nx, out, in));
}

void hcuda_2d_sqr_inplace(float* d, int nx, int ny) { CHECK_DEVICE(launch_2d<cuda_2d_sqr_inplace>(nx, ny, nx, d)); }

void hcuda_2d_sqrt_inplace(float* d, int nx, int ny) { CHECK_DEVICE(launch_2d<cuda_2d_sqrt_inplace>(nx, ny, nx, d)); }

void hcuda_2d_divide_inplace(float* d, int nx, int ny, float v) {
  CHECK_DEVICE(launch_2d<cuda_2d_divide_inplace>(nx, ny, nx, d, v));
}

void hcuda_x2d_sub_inplace(float* a, const float* b, int nx, int ny) {
  CHECK_DEVICE(launch_2d<cuda_x2d_sub_inplace>(nx, ny, nx, a, b));
}

void hcuda_x2d_cp_small_to_large_center(float* large, const float* small, int NX, int NY, int nx, int ny) {
  CHECK_DEVICE(launch_2d<cuda_x2d_cp_small_to_large_center>(nx, ny, large, small, NX, NY, nx, ny));
}

void turn_of(float psi, float* cosine, float* sine) {
  // The float nearest to pi / 180.
  constexpr float kRadiansPerDegree = 0.017453292f;
  const float t = psi * kRadiansPerDegree;
  *cosine = cosf(t);
  *sine = sinf(t);
}

void hcuda_2d_rotate(const float* in, float* out, int nx, int ny, float angle) {
  float cosine;
  float sine;
  turn_of(angle, &cosine, &sine);
  CHECK_DEVICE(launch_2d<cuda_2d_rotate>(nx, ny, in, out, nx, ny, cosine, sine));
}

void hcuda_2d_scale(float* out, const float* in, int nx, int ny, float scale) {
  const int onx = static_cast<int>(static_cast<float>(nx) * scale);
  const int ony = static_cast<int>(static_cast<float>(ny) * scale);
  CHECK_DEVICE(launch_2d<cuda_2d_scale>(onx, ony, out, in, nx, ny, onx, ony, 1 / scale));
}

void hcuda_2d_swap_ccf_inplace(float* d, unsigned nx, unsigned ny) {
  const int width = static_cast<int>(nx);
  const int height = static_cast<int>(ny);
  CHECK_DEVICE(launch_2d<cuda_2d_swap_ccf_inplace>(width, height / 2, d, width, height));
}

void hcuda_2d_mirror_pad(float* out, const float* in, int nx, int ny) {
  CHECK_DEVICE(launch_2d<cuda_2d_mirror_pad>(nx, ny, out, in, nx, ny));
}

void hcuda_2d_mirror_pad_inv(float* out, const float* in, int nx, int ny) {
  CHECK_DEVICE(launch_2d<cuda_2d_mirror_pad_inv>(nx, ny, out, in, nx));
}

void hcuda_2d_generate_rmask_soft(float* mask, int nx, int ny, float cx, float cy, float R, float soft) {
  CHECK_DEVICE(launch_2d<cuda_2d_generate_rmask_soft>(nx, ny, mask, nx, cx, cy, R, soft));
}

void hcuda_c2d_multconj_norm(const float2* A, const float2* B, float2* C, unsigned hnx, unsigned ny, float norm) {
  const int width = static_cast<int>(hnx);
  CHECK_DEVICE(launch_2d<cuda_c2d_multconj_norm>(width, static_cast<int>(ny), A, B, C, width, norm));
}

void hcuda_c2d_multconj_norm_inplace(float2* A, const float2* B, unsigned hnx, unsigned ny, float norm) {
  hcuda_c2d_multconj_norm(A, B, A, hnx, ny, norm);
}
