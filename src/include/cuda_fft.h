// The 2D Fourier transforms of single images on the device.
#pragma once

#include "platform/device.h"

/// Unnormalised forward transform of nx by ny floats to rows of nx / 2 + 1 values. Both on the device. A failure to
/// plan, run or destroy ends the run with the device's error line.
void hcuda_2d_fft_r2c(float* in, float2* out, int nx, int ny);

/// Unnormalised inverse: forward then inverse multiplies the image by nx * ny. May overwrite in. Fails likewise.
void hcuda_2d_fft_c2r(float2* in, float* out, int nx, int ny);
