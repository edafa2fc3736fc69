// Kernel bodies on 2D images and spectra, one pixel or value each.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/device.h"

KERNEL size_t pixel_at(int x, int y, int nx) { return static_cast<size_t>(y) * nx + x; }

KERNEL void cuda_2d_memset(int x, int y, int nx, float* d, float v) { d[pixel_at(x, y, nx)] = v; }
KERNEL void cuda_2d_sqr(int x, int y, int nx, float* out, const float* in) {
  const size_t i = pixel_at(x, y, nx);
  out[i] = in[i] * in[i];
}
KERNEL void cuda_2d_sqr_inplace(int x, int y, int nx, float* d) { cuda_2d_sqr(x, y, nx, d, d); }
KERNEL void cuda_2d_sqrt_inplace(int x, int y, int nx, float* d) {
  const size_t i = pixel_at(x, y, nx);
  d[i] = sqrtf(d[i]);
}
KERNEL void cuda_2d_divide_inplace(int x, int y, int nx, float* d, float v) { d[pixel_at(x, y, nx)] /= v; }
KERNEL void cuda_x2d_sub_inplace(int x, int y, int nx, float* a, const float* b) {
  const size_t i = pixel_at(x, y, nx);
  a[i] -= b[i];
}

KERNEL void cuda_x2d_cp_small_to_large_center(int x, int y, float* large, const float* small, int NX, int NY, int nx,
                                              int ny) {
  large[pixel_at(x + (NX - nx) / 2, y + (NY - ny) / 2, NX)] = small[pixel_at(x, y, nx)];
}

/// v where keep, else exactly 0, whatever v is; written without a branch, so that loops over it vectorise.
KERNEL float keep_or_zero(bool keep, float v) {
  uint32_t bits = 0;
  memcpy(&bits, &v, sizeof bits);
  bits &= 0u - static_cast<uint32_t>(keep);
  memcpy(&v, &bits, sizeof v);
  return v;
}

/// Value of an nx by ny image at the position (sx, sy), bilinear; 0 outside [0, nx - 1] by [0, ny - 1]. A position on
/// the last row or column reads no pixel beyond it.
KERNEL float sample_bilinear(const float* in, int nx, int ny, float sx, float sy) {
  const float last_x = static_cast<float>(nx - 1);
  const float last_y = static_cast<float>(ny - 1);
  const bool inside = (sx >= 0.0f) & (sx <= last_x) & (sy >= 0.0f) & (sy <= last_y);
  sx = sx > 0.0f ? sx : 0.0f;
  sy = sy > 0.0f ? sy : 0.0f;
  sx = sx < last_x ? sx : last_x;
  sy = sy < last_y ? sy : last_y;
  const int ix = static_cast<int>(sx);
  const int iy = static_cast<int>(sy);
  const float fx = sx - static_cast<float>(ix);
  const float fy = sy - static_cast<float>(iy);
  // 32-bit indices: an image has fewer than 2^31 pixels, and vectors of 64-bit products are slow.
  const int corner = iy * nx + ix;
  const int right = fx > 0.0f ? 1 : 0;
  const int below = fy > 0.0f ? nx : 0;
  const float s00 = in[corner];
  const float s10 = in[corner + right];
  const float s01 = in[corner + below];
  const float s11 = in[corner + right + below];
  const float value = s00 + fx * (s10 - s00) + fy * (s01 - s00) + fx * fy * ((s00 + s11) - s10 - s01);
  return keep_or_zero(inside, value);
}

/// Pixel (x, y) of an image turned by the angle of the given cosine and sine.
KERNEL float rotated_pixel(int x, int y, const float* in, int nx, int ny, float cosine, float sine) {
  const float cx = static_cast<float>(nx - 1) * 0.5f;
  const float cy = static_cast<float>(ny - 1) * 0.5f;
  const float dx = static_cast<float>(x) - cx;
  const float dy = static_cast<float>(y) - cy;
  return sample_bilinear(in, nx, ny, cx + (dx * cosine + dy * sine), cy + (dy * cosine - dx * sine));
}

KERNEL void cuda_2d_rotate(int x, int y, const float* in, float* out, int nx, int ny, float cosine, float sine) {
  out[pixel_at(x, y, nx)] = rotated_pixel(x, y, in, nx, ny, cosine, sine);
}

KERNEL void cuda_2d_scale(int x, int y, float* out, const float* in, int nx, int ny, int onx, int ony, float inverse) {
  const float ocx = static_cast<float>(onx - 1) * 0.5f;
  const float ocy = static_cast<float>(ony - 1) * 0.5f;
  const float sx = static_cast<float>(nx - 1) * 0.5f + inverse * (static_cast<float>(x) - ocx);
  const float sy = static_cast<float>(ny - 1) * 0.5f + inverse * (static_cast<float>(y) - ocy);
  out[pixel_at(x, y, onx)] = sample_bilinear(in, nx, ny, sx, sy);
}

/// Runs over the upper half: y below ny / 2.
KERNEL void cuda_2d_swap_ccf_inplace(int x, int y, float* d, int nx, int ny) {
  const int partner_x = x < nx - nx / 2 ? x + nx / 2 : x + nx / 2 - nx;
  const size_t i = pixel_at(x, y, nx);
  const size_t j = pixel_at(partner_x, y + ny / 2, nx);
  const float kept = d[i];
  d[i] = d[j];
  d[j] = kept;
}

KERNEL void cuda_2d_mirror_pad(int x, int y, float* out, const float* in, int nx, int ny) {
  const float value = in[pixel_at(x, y, nx)];
  const int mirror_x = 2 * nx - 1 - x;
  const int mirror_y = 2 * ny - 1 - y;
  out[pixel_at(x, y, 2 * nx)] = value;
  out[pixel_at(x, mirror_y, 2 * nx)] = value;
  out[pixel_at(mirror_x, y, 2 * nx)] = value;
  out[pixel_at(mirror_x, mirror_y, 2 * nx)] = value;
}

KERNEL void cuda_2d_mirror_pad_inv(int x, int y, float* out, const float* in, int nx) {
  out[pixel_at(x, y, nx)] = in[pixel_at(x, y, 2 * nx)];
}

/// The Gaussian of the filters and windows: peak 0.39894228, not 1.
KERNEL float hd_guasf(float x, float sigma) { return 0.39894228f * expf(-x * x / (2 * sigma * sigma)); }

KERNEL void cuda_2d_generate_rmask_soft(int x, int y, float* mask, int nx, float cx, float cy, float R, float soft) {
  const float dx = static_cast<float>(x) - cx;
  const float dy = static_cast<float>(y) - cy;
  const float r2 = dx * dx + dy * dy;
  float value = 0.0f;
  if (r2 <= R * R) {
    value = 1.0f;
  } else if (r2 <= (R + soft) * (R + soft)) {
    value = hd_guasf(sqrtf(r2) - R, soft / 3);
  }
  mask[pixel_at(x, y, nx)] = value;
}

/// -v by its sign bit. Where a loop stores a sum and a difference of products side by side, g++ 12 fuses them into
/// multiply-adds (vfmaddsub) in spite of -ffp-contract=off; two sums it leaves as they are.
KERNEL float sign_flipped(float v) {
  uint32_t bits = 0;
  memcpy(&bits, &v, sizeof bits);
  bits ^= 0x80000000u;
  memcpy(&v, &bits, sizeof v);
  return v;
}

KERNEL void cuda_c2d_multconj_norm(int x, int y, const float2* A, const float2* B, float2* C, int hnx, float norm) {
  const size_t i = pixel_at(x, y, hnx);
  const float a = A[i].x;
  const float b = A[i].y;
  const float c = B[i].x;
  const float d = B[i].y;
  C[i].x = (a * c + b * d) / norm;
  C[i].y = (b * c + a * sign_flipped(d)) / norm;
}
