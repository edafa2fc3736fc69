#include "cuda_fft.h"

#include "cuda_general.h"

namespace {
constexpr char unit[] = "cuda_fft";
}

void hcuda_2d_fft_r2c(float* in, float2* out, int nx, int ny) {
  cufftHandle plan;
  CHECK_CUFFT(cufftPlan2d(&plan, ny, nx, CUFFT_R2C));
  CHECK_CUFFT(cufftExecR2C(plan, in, out));
  CHECK_CUFFT(cufftDestroy(plan));
}

void hcuda_2d_fft_c2r(float2* in, float* out, int nx, int ny) {
  cufftHandle plan;
  CHECK_CUFFT(cufftPlan2d(&plan, ny, nx, CUFFT_C2R));
  CHECK_CUFFT(cufftExecC2R(plan, in, out));
  CHECK_CUFFT(cufftDestroy(plan));
}
