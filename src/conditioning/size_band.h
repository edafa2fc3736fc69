// The band of a micrograph that suits particles of a size: a high-pass that closed areas can't leak through, a weak
// low-pass, and a robust normalisation. And the correlation of such an image with a round template.
#pragma once

#include "conditioning/conditioning.h"

/// Transforms of the working image and of what is open in it, from which bands are made.
struct SizeBand {
  int nx, ny;
  const float* image;  // device, nx*ny: the working image, not owned
  const float* open;   // device, nx*ny: 1 or 0, not owned
  bool all_open;
  MirrorTransform of_image;  // of image * open
  MirrorTransform of_open;
  float* local;      // device, nx*ny
  float* weight;     // device, nx*ny
  float* host;       // host, nx*ny
  float* host_open;  // host copy of open
};

/// Allocates for images of pad's size; released with size_band_free. Ends the run on a device error.
SizeBand size_band_new(MirrorPad* pad);
void size_band_free(SizeBand* band);

/// Takes an image (device, mean and deviation whatever they are) and its open area, which must stay until the last
/// size_band_make. open_share: 1 where everything is open.
void size_band_take(SizeBand* band, MirrorPad* pad, const float* image, const float* open, bool all_open);

/// out (device, nx*ny, may be the image itself) = the band for particles of `size` pixels, mean 0 and deviation 1 over the open area, values
/// beyond three robust deviations clipped, 0 or nearly so where closed. Returns false, with nothing of use in out,
/// where the open area has no variation.
bool size_band_make(SizeBand* band, MirrorPad* pad, float size, float* out);

// --- Correlation with a round template ---

/// A round template given by its values along the radius, which are `step` pixels apart and 0 beyond the last; the
/// correlation's unit is whatever they have.
DiscWindow radial_window_new(MirrorPad* pad, const float* profile, int n, float step);

/// out (device, nx*ny) = the correlation of the image `in` with a window of radial_window_new, which like all windows is
/// centred half a pixel before each pixel. in: device, nx*ny; pad's transform becomes that of in.
void correlate_with_window(MirrorPad* pad, const DiscWindow* window, const float* in, float* out);
