// The template that a micrograph asks for: of balls of several sizes the one whose peaks stand out most against decoys,
// and the mean of what they show, if that stands out more.
#pragma once

#include "conditioning/size_band.h"
#include "particles/score_peaks.h"
#include "templates/round_template.h"

/// Sizes that are tried, in expected diameters.
constexpr int kSizes = 4;
constexpr float kSizeShares[kSizes] = {0.64f, 0.8f, 1.0f, 1.25f};

/// A mean is taken of this many peaks at least, and in the band of a size this much larger than the ball's.
constexpr int kFewestAveraged = 10;
constexpr float kMeanSize = 1.25f;

/// What the scan goes by. Lengths in working pixels.
struct SizeScanSettings {
  float diameter;        // expected
  float least_distance;  // of two peaks; 0: 0.8 times the size tried
  int true_nx, true_ny;  // the micrograph in the working image
  bool only_ball;        // try neither other sizes nor the mean
};

/// Buffers and the balls' windows of a run's scans of nx by ny images.
struct SizeScan {
  int nx, ny;
  SizeScanSettings settings;
  SizeBand band;
  DiscWindow balls[kSizes];
  float* d_band;     // device, nx*ny: the band of the last size
  float* d_scores;   // device, nx*ny
  float* host;       // host, nx*ny
  float* host_open;  // host, nx*ny
};

/// What was found. Scores are in robust deviations of their map over the open area.
struct SizeScanResult {
  bool usable;             // whether the open area has any variation; if not, all else is empty
  float share;             // the size in expected diameters
  bool learned;            // whether the mean won; else it is the ball
  double excess;           // of peaks over decoys, by which the template won
  RoundTemplate found;     // the template
  float score_unit;        // score over the value of the template's correlation with its band
  float band_size;         // size of the band that it is matched in, pixels
  PeakList peaks, decoys;  // of its map
};

/// Peaks and decoys of one template, and by how much the former exceed the latter.
struct SizeTrial {
  bool usable;  // whether the band has any variation; if not, all else is empty
  PeakList peaks, decoys;
  double excess;     // in shares of the expected diameter
  float score_unit;  // score over the correlation's value
};

/// Allocates and prepares for images of pad's size; released with size_scan_free. Ends the run on a device error.
SizeScan size_scan_new(MirrorPad* pad, const SizeScanSettings& settings);
void size_scan_free(SizeScan* scan);

/// Scans the image (device, nx*ny) over sizes where open (device, nx*ny, 1 or 0) lets it. d_scores holds the winning map
/// afterwards, each pixel for the place half a pixel before it, not yet in robust deviations. The caller frees the result
/// with size_scan_result_free.
SizeScanResult scan_sizes(SizeScan* scan, MirrorPad* pad, const float* image, const float* open, bool all_open);

void size_scan_result_free(SizeScanResult* result);

/// Takes the image (device, nx*ny) that the trials below are of, and its open area as scan_sizes does. Both must stay.
void begin_trials(SizeScan* scan, MirrorPad* pad, const float* image, const float* open, bool all_open);

/// Tries the ball of kSizeShares[i]. The caller frees the result with size_trial_free.
SizeTrial try_ball(SizeScan* scan, MirrorPad* pad, int i);

/// Tries a round template, steps in pixels, for particles of `size` pixels in the band of band_size. Result as above.
SizeTrial try_round_template(SizeScan* scan, MirrorPad* pad, const RoundTemplate& t, float size, float band_size);

void size_trial_free(SizeTrial* trial);

/// Brings the band for `size` pixels to scan->host. Returns false where it has no variation.
bool band_to_host(SizeScan* scan, MirrorPad* pad, float size);

/// Where peaks of particles of the settings count in images nx wide: half a diameter and more from the borders. open:
/// host, as the map.
PeakArea peak_area(const SizeScanSettings& settings, int nx, const float* open, float least_distance);

/// The least distance of two peaks of particles of `size` pixels.
float peak_distance(const SizeScanSettings& settings, float size);
