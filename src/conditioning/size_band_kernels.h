// Kernel bodies of the bands by size, of Gaussian low-passes and of round templates.
#pragma once

#include "compute/process2d_raw_kernels.h"
#include "transforms/cosine_image.h"

/// What exceeds the mean of the open surroundings, on open pixels; 0 on others.
KERNEL void cuda_open_high_pass(unsigned long i, float* out, const float* image, const float* local,
                                const float* weight, const float* open, bool all_open) {
  const float mean = all_open ? local[i] : local[i] / weight[i];
  out[i] = keep_or_zero(open[i] != 0.0f, image[i] - mean);
}

KERNEL void cuda_clip_inplace(unsigned long i, float* d, float low, float high) {
  const float v = d[i];
  const float up = v > low ? v : low;
  d[i] = up < high ? up : high;
}

/// Value (x, y) of a half transform of NY rows of hnx values times the weights of its column and row.
KERNEL void cuda_c2d_weigh(int x, int y, const float2* in, float2* out, const float* weights_x, const float* weights_y,
                           int hnx, int NY) {
  const int v = y <= NY / 2 ? y : NY - y;
  const size_t i = pixel_at(x, y, hnx);
  const float weight = weights_x[x] * weights_y[v];
  out[i].x = in[i].x * weight;
  out[i].y = in[i].y * weight;
}

/// The same of cosine coefficients: value x of row line % rows of stripe line / rows, of stripes of ny rows.
KERNEL void cuda_cosine_weigh(int x, int line, const float* in, float* out, const float* weights_x,
                              const float* weights_y, int ny, int rows) {
  const int stripe = line / rows;
  const int y = line % rows;
  const size_t i = pixel_at(x, stripe * ny + y, kCosineStripe);
  out[i] = in[i] * (weights_x[stripe * kCosineStripe + x] * weights_y[y]);
}

/// Pixel (x, y) of a round template about (cx, cy): its profile, n values with per_pixel of them to a pixel, linearly
/// between them, 0 from the last one on.
KERNEL void cuda_2d_radial_image(int x, int y, float* out, int nx, float cx, float cy, const float* profile, int n,
                                 float per_pixel) {
  const float dx = static_cast<float>(x) - cx;
  const float dy = static_cast<float>(y) - cy;
  const float r = sqrtf(dx * dx + dy * dy) * per_pixel;
  const bool inside = r < static_cast<float>(n - 1);
  const float at = inside ? r : 0.0f;
  const int i = static_cast<int>(at);
  const float between = at - static_cast<float>(i);
  out[pixel_at(x, y, nx)] = keep_or_zero(inside, profile[i] + between * (profile[i + 1] - profile[i]));
}
