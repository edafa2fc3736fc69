// What a search may conclude from every few samples of a map: the values between them by interpolation, and how far
// from the truth these can be.
//
// The map is the correlation of a template with the micrograph, so the error of a map that is interpolated is the
// correlation of the template with the error of a micrograph that is interpolated by the same weights. By the inequality
// of Cauchy and Schwarz it is nowhere larger than the template's norm times that error's norm under the template.
#pragma once

/// Samples on either side that a value is interpolated from, and all of them.
constexpr int kReach = 4;
constexpr int kTaps = 2 * kReach + 1;

/// Largest distance between samples in pixels.
constexpr int kMostStep = 4;

/// For each pixel lowest_offset(step) + i around a sample, the weights of the samples kReach before it to kReach behind.
struct SampleWeights {
  int step;
  float of_offset[kMostStep][kTaps];
};

/// Of the pixels nearest to a sample, the place of the first one, relative to it.
constexpr int lowest_offset(int step) { return -((step - 1) / 2); }

/// The weights of least mean square error for images whose spectrum along the axis has the energies `energy` (n of them;
/// a frequency and its negative count as their mean).
SampleWeights sample_weights(const double* energy, int n, int step);

/// An image and what surrounds it, halo pixels wide on all sides: (nx + 2 halo) * (ny + 2 halo) floats.
struct SurroundedImage {
  int nx, ny, halo;
  const float* pixels;
};

constexpr int kErrorBlock = 8;
constexpr int block_count(int n) { return (n + kErrorBlock - 1) / kErrorBlock; }

/// The squares of the largest errors that interpolation by x in rows and y in columns makes at each pixel, whatever its
/// offset from a sample, summed over blocks of kErrorBlock by kErrorBlock pixels, those at the ends narrower.
/// The halo is at least kReach times the larger step and kMostStep more.
/// sums   block_count(ny) rows of block_count(nx), written
void sum_squared_errors(const SurroundedImage& image, const SampleWeights& x, const SampleWeights& y, double* sums);

/// The same sums of the squares of an image's own nx*ny pixels.
void sum_squares(const float* image, int nx, int ny, double* sums);

/// Such sums of an image of nx by ny pixels.
struct BlockSums {
  int nx, ny;
  const double* sums;
};

/// The windows of width by height pixels that belong to the pixels of a grid's cells: that of pixel (0, 0) begins at
/// (x0, y0), that of the next pixel at the next one. An image continues at its edges by its other end.
struct CellWindows {
  int cell, grid_nx, grid_ny;
  int x0, y0, width, height;
};

/// For each cell the largest sum over the blocks that a window of it touches, never less than the sum over the window
/// itself. largest: grid_ny rows of grid_nx, written.
void find_largest_sums(const BlockSums& sums, const CellWindows& windows, double* largest);

/// A norm that no window of width by height pixels of an image of nx by ny exceeds, wherever it lies.
float largest_window_norm(const float* image, int nx, int ny, int width, int height);
