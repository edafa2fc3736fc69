// Ice, contamination and carbon pixel by pixel, from limits that the micrograph itself sets: what its local averages and
// deviations usually are, robustly. On the host, from maps that the device has made.
#pragma once

/// What the search goes by. Lengths in pixels of the maps.
struct RobustIceSettings {
  int nx, ny;            // maps
  int true_nx, true_ny;  // the micrograph in them; what lies beyond is its mirror image and sets no limit
  float particle;        // diameter
  float reach;           // how far from a bad pixel nothing counts
};

/// The limits found, in the maps' units.
struct RobustIceLimits {
  float average;    // usual local average
  float reach;      // largest distance from it
  float deviation;  // largest local deviation
  float open;       // share of the micrograph that is open, before the rule for what is nearly all closed
};

/// Marks in bad (nx*ny, 1 or 0) what is ice, contamination or carbon, and in open (nx*ny, 1 or 0) what is farther than
/// the reach from all that. Where less than a twentieth is open, all is.
/// average, deviation   local maps, nx*ny; a deviation that is not a number counts as 0
RobustIceLimits find_robust_ice(const RobustIceSettings& settings, const float* average, const float* deviation,
                                unsigned char* bad, float* open);

/// Sets out to 1 where a pixel of in (nx*ny, 0 or not) lies within the radius, else to 0; not in place.
void dilate_by_disc(const unsigned char* in, int nx, int ny, float radius, unsigned char* out);
