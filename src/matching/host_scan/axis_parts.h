// How one axis of a scan is divided: which correlations a transform gives, and from which pixels.
//
// The sum over a template wraps around the image's edges, and at the edges the image jumps: the spectrum of a band-passed
// image is as wide as any. A template that doesn't reach over an edge doesn't see the jump. So an axis may be split: the
// inner part has the correlations that don't wrap, from the image continued beyond its edges by its mirror images, which
// are blended into each other smoothly, so that the spectrum stays as narrow as the band; the edge part has those that
// wrap, from the pixels on both sides of the edge.
#pragma once

#include "matching/host_scan/interpolation.h"
#include "transforms/lane_fft.h"

/// A pixel to transform: at_a times pixel a plus at_b times pixel b of the image.
struct MirrorTap {
  int a, b;
  float at_a, at_b;
};

/// Correlations first to first + count - 1 of an axis, by transforms of plan.n values; the first is value `before` of the
/// result. A search (peak_search.h) takes only every step-th value back, by transforms of samples.n = plan.n / step values.
struct AxisPart {
  int first, count;
  int before;
  LanePlan plan;
  int step;
  LanePlan samples;
  MirrorTap* taps;  // plan.n, the pixel that the first correlation begins at being value `before`
  double width;     // of the spectrum of a band-passed image, expected: part of plan.n
};

/// One or two parts that together have each correlation of the axis once.
struct AxisParts {
  int n_parts;
  AxisPart parts[2];
};

/// An axis of n pixels and templates of t in one part. A side that doesn't transform well is continued periodically by
/// the template's size to one that does. Released with axis_parts_free. A lack of memory ends the run.
AxisParts axis_parts_whole(int n, int t);

/// The same split into the inner and the edge part; t above 1. band: the highest frequency of the image, in cycles per
/// pixel; the step of the inner part is the largest that its samples allow.
AxisParts axis_parts_split(int n, int t, double band);

void axis_parts_free(AxisParts* axis);

/// The work for each angle of maps over these axes in one part each, for choosing.
double score_maps_cost(const AxisParts& x, const AxisParts& y);

/// The same of a search of n_angles angles over divided axes, in cells of the side `cell`, with n_templates templates of
/// T_pixels for each micrograph.
double peak_search_cost(const AxisParts& x, const AxisParts& y, int n_angles, int cell, double T_pixels,
                        int n_templates);

/// Of that, in the same unit: the transforms and samples of each angle, what is done once for each micrograph, taking the
/// pixels around a sample among the candidates, and summing up a correlation.
double sampling_cost(const AxisParts& x, const AxisParts& y);
double search_micrograph_cost(const AxisParts& x, const AxisParts& y);
double candidate_cost();
double sum_cost(double T_pixels);
