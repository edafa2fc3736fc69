// Fourier weights of the band-pass filters, applied on the device to the half transform of a mirror-padded image.
#pragma once

#include "platform/device.h"

/// Multiplies the half transform of a P by P image (P rows of P/2 + 1 values) by 0 below the low-frequency limit, 1 up
/// to the high-frequency limit, then hd_guasf(r - limit, soft / 3) over `soft` Fourier pixels, then 0.
/// apix         Å per pixel of the image;   res1, res2   Å, in either order: a resolution d lies at the radius
///              P * apix / d
/// Ends the run on a device error.
void hcuda_c2d_bandpass_softR(float2* data, int P, float apix, float res1, float res2, float soft);

/// The same with the weight hd_guasf(r, Rhi / 3) * hd_guasf(H - r, (H - Rlo) / 3) between the two limits and 0
/// outside them, H = P/2 + 1.
void hcuda_c2d_bandpass_guas(float2* data, int P, float apix, float res1, float res2);

/// The two filters on the cosine coefficients (transforms/cosine_image.h) of an image of P/2 by P/2, which make up the
/// transform of the mirrored image. Return how many columns, and rows, there are up to the last that passes
/// anything; what lies behind is to count as 0.
int hcuda_cosine_bandpass_softR(float* data, int P, float apix, float res1, float res2, float soft);
int hcuda_cosine_bandpass_guas(float* data, int P, float apix, float res1, float res2);
