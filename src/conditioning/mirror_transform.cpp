// Transforms of mirrored images that are kept, and what is made of them: Gaussian low-passes and round templates.
#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "conditioning/conditioning.h"
#include "conditioning/size_band.h"
#include "conditioning/size_band_kernels.h"
#include "cuda_general.h"
#include "math_utils.h"
#include "platform/host_memory.h"
#include "platform/launch.h"
#include "process2d_raw.h"

namespace {

constexpr char unit[] = "mirror_transform";

// Frequencies whose weight is below exp(-kNothing^2 / 2) don't count.
constexpr float kNothing = 6.0f;

size_t spectrum_values(const MirrorPad* pad) {
  return (static_cast<size_t>(pad->nx) + 1) * (2 * static_cast<size_t>(pad->ny));
}

// How many frequencies k / (2n) below n have a weight.
int kept_of(int n, float sharpness) {
  const float limit = kNothing / sharpness * 2.0f * static_cast<float>(n);
  return limit < static_cast<float>(n) ? static_cast<int>(limit) + 1 : n;
}

// exp(-(sharpness k / 2n)^2 / 2) times factor for k = 0 .. room - 1, on the device; 0 from kept on.
float* gaussian_weights_new(int n, int room, int kept, float sharpness, float factor) {
  auto* host = host_new<float>(static_cast<size_t>(room));
  for (int k = 0; k < room; k++) {
    const double z = static_cast<double>(sharpness) * k / (2.0 * n);
    host[k] = k < kept ? static_cast<float>(static_cast<double>(factor) * std::exp(-0.5 * z * z)) : 0.0f;
  }
  auto* device = device_new<float>(static_cast<size_t>(room));
  CHECK_DEVICE(cudaMemcpy(device, host, static_cast<size_t>(room) * sizeof(float), cudaMemcpyHostToDevice));
  free(host);
  return device;
}

void filter_cosines(MirrorPad* pad, const float* in, int kept, const float* weights_x, const float* weights_y,
                    float* out) {
  const int rows = std::min(kept, pad->ny);
  CHECK_DEVICE(launch_2d<cuda_cosine_weigh>(kCosineStripe, cosine_stripes(std::min(kept, pad->nx)) * rows, in,
                                            pad->coefficients, weights_x, weights_y, pad->ny, rows));
  cosine_inverse(pad->cosines, pad->coefficients, kept, out);
}

void filter_spectrum(MirrorPad* pad, const float2* in, const float* weights_x, const float* weights_y, float* out) {
  const int hnx = pad->nx + 1;
  const int NY = 2 * pad->ny;
  CHECK_DEVICE(launch_2d<cuda_c2d_weigh>(hnx, NY, in, pad->product, weights_x, weights_y, hnx, NY));
  CHECK_CUFFT(cufftExecC2R(pad->inverse, pad->product, pad->padded));
  hcuda_2d_mirror_pad_inv(out, pad->padded, pad->nx, pad->ny);
}

}  // namespace

MirrorTransform mirror_transform_new(const MirrorPad* pad) {
  MirrorTransform transform{};
  if (pad->cosines) {
    transform.coefficients = device_new<float>(cosine_coefficients(pad->nx, pad->ny));
  } else {
    transform.spectrum = device_new<float2>(spectrum_values(pad));
  }
  return transform;
}

void mirror_transform_free(MirrorTransform* transform) {
  cudaFree(transform->coefficients);
  cudaFree(transform->spectrum);
  *transform = MirrorTransform{};
}

MirrorTransform mirror_transform_of(const MirrorPad* pad) { return {pad->spectrum, pad->coefficients}; }

void mirror_transform_take(MirrorPad* pad, const float* in, MirrorTransform* transform) {
  if (pad->cosines) return cosine_forward(pad->cosines, in, transform->coefficients);
  hcuda_2d_mirror_pad(pad->padded, in, pad->nx, pad->ny);
  CHECK_CUFFT(cufftExecR2C(pad->forward, pad->padded, transform->spectrum));
}

void hcuda_2d_gaussian_mpad(MirrorPad* pad, const MirrorTransform* transform, float sharpness, float* out) {
  const float norm = 1.0f / (4.0f * static_cast<float>(pad->nx) * static_cast<float>(pad->ny));
  const int kept = std::max(kept_of(pad->nx, sharpness), kept_of(pad->ny, sharpness));
  const int room = std::max(pad->nx, pad->ny) + 2 * kCosineStripe;
  float* weights_x = gaussian_weights_new(pad->nx, room, room, sharpness, norm);
  float* weights_y = gaussian_weights_new(pad->ny, room, room, sharpness, 1.0f);
  if (pad->cosines) {
    filter_cosines(pad, transform->coefficients, kept, weights_x, weights_y, out);
  } else {
    filter_spectrum(pad, transform->spectrum, weights_x, weights_y, out);
  }
  cudaFree(weights_x);
  cudaFree(weights_y);
}

DiscWindow radial_window_new(MirrorPad* pad, const float* profile, int n, float step) {
  const float cx = static_cast<float>(pad->nx) - 0.5f;
  const float cy = static_cast<float>(pad->ny) - 0.5f;
  auto* d_profile = device_new<float>(static_cast<size_t>(n));
  CHECK_DEVICE(cudaMemcpy(d_profile, profile, static_cast<size_t>(n) * sizeof(float), cudaMemcpyHostToDevice));
  DiscWindow window{};
  window.sum = 1;
  // Where cosines are used the first quadrant tells: the rest is its mirror image.
  const int nx = pad->cosines ? pad->nx : 2 * pad->nx;
  const int ny = pad->cosines ? pad->ny : 2 * pad->ny;
  float* image = pad->cosines ? pad->coefficients : pad->padded;
  CHECK_DEVICE(
      launch_2d<cuda_2d_radial_image>(nx, ny, image, nx, cx, cy, static_cast<const float*>(d_profile), n, 1.0f / step));
  if (pad->cosines) {
    const size_t values = cosine_coefficients(pad->nx, pad->ny);
    window.coefficients = device_new<float>(values);
    cosine_forward(pad->cosines, image, window.coefficients);
    const float norm = 1.0f / (4.0f * static_cast<float>(pad->nx) * static_cast<float>(pad->ny));
    hcuda_multi_add_inplace(window.coefficients, values, norm, 0.0f);
  } else {
    window.spectrum = device_new<float2>(spectrum_values(pad));
    CHECK_CUFFT(cufftExecR2C(pad->forward, pad->padded, window.spectrum));
  }
  cudaFree(d_profile);
  return window;
}
