// Round templates, as values along the radius: a ball, and the mean of what the micrograph itself shows.
#pragma once

#include "particles/score_peaks.h"

/// Values at the radii 0, step, 2 step ... (pixels) of a template that is 0 beyond the last.
struct RoundTemplate {
  float* values;
  int n;
  float step;
};

void round_template_free(RoundTemplate* t);

/// A dark ball of the diameter `size` in pixels, -sqrt(1 - (2r / size)^2), in a disc of 1.3 sizes' radius, of mean 0 and
/// deviation 1 there. The caller frees it.
RoundTemplate ball_template(float size);

/// The radial mean of the image (host, nx*ny) about the first `count` peaks, whose true places lie half a pixel before
/// their pixels; less its value outside, with a soft edge at 0.75 `size`, in a disc of 1.3 sizes' radius, of mean 0 and
/// deviation 1 there. Values are the same on any number of threads. The caller frees it; values are all 0 where the mean
/// has no variation.
RoundTemplate mean_template(const float* image, int nx, int ny, const PeakList& peaks, int count, float size);

/// Sums of many images' pixels around peaks, by whole radii.
struct RadialSums {
  double* sums;
  double* weights;
  int reach;  // the largest radius, pixels
};

/// For a mean_template of `size`. Freed with radial_sums_free.
RadialSums radial_sums_new(float size);
void radial_sums_free(RadialSums* sums);

/// Adds what the image (host, nx*ny) shows around its first `count` peaks; the same on any number of threads.
void add_to_radial_sums(RadialSums* sums, const float* image, int nx, int ny, const PeakList& peaks, int count);

/// The mean_template of all that was added.
RoundTemplate mean_of_sums(const RadialSums& sums, float size);

/// The template as an image of side*side pixels, centred at ((side - 1) / 2, (side - 1) / 2).
void draw_round_template(const RoundTemplate& t, int side, float* image);

/// Side in pixels of an even square that holds the template.
int round_template_side(const RoundTemplate& t);
