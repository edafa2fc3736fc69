// Cosine transforms of images by lane_fft.h, all cores on one image; host_cosine.h says what they compute.
#pragma once

struct LaneCosine;

/// Whether images of this side can be transformed: a multiple of eight without prime factors above 5.
bool lane_cosine_handles(int n);

/// Plans for images of nx by ny floats, row-major, aligned to 32 bytes; released with lane_cosine_free. A lack of
/// memory ends the run.
LaneCosine* lane_cosine_new(int nx, int ny);
void lane_cosine_free(LaneCosine* cosine);

/// See cosine_forward, cosine_inverse and cosine_correlate.
void lane_cosine_forward(const LaneCosine* cosine, float* image);
void lane_cosine_inverse(const LaneCosine* cosine, float* image);
void lane_cosine_correlate(const LaneCosine* cosine, float* image);
