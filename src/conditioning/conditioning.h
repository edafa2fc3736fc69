// Conditioning of the working image on the device: band-pass filters and local maps of the mirror-padded image, ice
// detection, excluded areas and the mask.
#pragma once

#include "boxfile.h"
#include "conditioning/outliers.h"
#include "formats/image_file.h"
#include "platform/device.h"

// --- From the file to the working image, on the host ---

/// Reads section 0 of a micrograph and averages blocks of shrink by shrink pixels on the way, so that the micrograph
/// itself is never held: what cpu_2d_meanshrink_extended_even_square does with it but for the filling up, which
/// cpu_2d_extend_even does. Samples that the file doesn't hold count as 0.
/// image     sizes of a micrograph, samples that can be read
/// limits    raw pixels are limited to these first
/// out       square of floats
void read_shrunk_micrograph(const ImageFile& image, int shrink, const ValueLimits& limits, float* out);

// --- What the filters and local maps of a run share ---

/// The ways to transform the mirrored image: as it is, twice the sides long (any device), or by cosine transforms of
/// the image itself (host). Both give the same up to rounding.
enum PadWay { kPaddedTransforms, kHostCosines };

/// The faster way of the device. Cosine transforms are for the host device alone: they follow its pointers.
inline PadWay fastest_pad_way() { return device_transforms_wanted() ? kPaddedTransforms : kHostCosines; }

struct CosinePlans;

/// Plans and buffers for images of nx by ny pixels mirrored to twice their sides (NX = 2*nx, NY = 2*ny).
struct MirrorPad {
  int nx, ny;
  // Padded transforms:
  float* padded;     // device, NX*NY floats
  float2* spectrum;  // device, NY rows of NX/2 + 1 values: the transform of an image
  float2* product;   // device, the same shape: spectrum times a window's
  cufftHandle forward, inverse;
  // Cosine transforms; the members above are empty then:
  CosinePlans* cosines;
  float* coefficients;  // the transform of an image
};

/// Plans and allocates; released with mirror_pad_free. Ends the run on a device error.
MirrorPad mirror_pad_new(int nx, int ny, PadWay way = fastest_pad_way());
void mirror_pad_free(MirrorPad* pad);

// --- Band-pass filters. Images of N by N floats on the device; the output is the filtered image times (2N)^2. ---

/// Passes what lies between the two resolutions (Å, in either order; apix: Å per pixel), with a hard low-frequency
/// edge and a Gaussian roll-off of `soft` Fourier pixels of the padded image beyond the high-frequency limit.
void hcuda_2d_bandpass_softR_mpad(MirrorPad* pad, const float* in, float* out, float apix, float res1, float res2,
                                  float soft);
void hcuda_2d_bandpass_softR_mpad_inplace(MirrorPad* pad, float* d, float apix, float res1, float res2, float soft);

/// Passes what lies between the two resolutions, weighted by two wide Gaussians.
void hcuda_2d_bandpass_guas_mpad(MirrorPad* pad, const float* in, float* out, float apix, float res1, float res2);
void hcuda_2d_bandpass_guas_mpad_inplace(MirrorPad* pad, float* d, float apix, float res1, float res2);

/// The same of the image whose transform is in pad (hcuda_2d_mpad_transform), and which is lost: the way back may
/// overwrite it.
void hcuda_2d_bandpass_guas_transformed(MirrorPad* pad, float* out, float apix, float res1, float res2);

// --- Transforms that are kept ---

/// The transform of a mirrored image, in the form that pad's way has.
struct MirrorTransform {
  float2* spectrum;     // device, as MirrorPad's
  float* coefficients;  // or this one
};

/// Room for a transform of pad's way; released with mirror_transform_free.
MirrorTransform mirror_transform_new(const MirrorPad* pad);
void mirror_transform_free(MirrorTransform* transform);

/// The transform in pad itself, which belongs to pad.
MirrorTransform mirror_transform_of(const MirrorPad* pad);

/// Mirrors the image `in` (nx*ny, device) and leaves its transform there.
void mirror_transform_take(MirrorPad* pad, const float* in, MirrorTransform* transform);

/// out (nx*ny, device) = the image of the transform, which may be pad's and stays otherwise, low-passed by
/// exp(-(sharpness * f)^2 / 2), f in cycles per pixel. pad's own transform is lost.
void hcuda_2d_gaussian_mpad(MirrorPad* pad, const MirrorTransform* transform, float sharpness, float* out);

// --- Local maps over a soft-edged disc, which reaches into the mirror image at the edges. The disc is centred half a
// --- pixel before each pixel in both axes. ---

/// A disc of the given radius and soft edge (pixels), ready for the maps: its transform and its sum.
struct DiscWindow {
  float2* spectrum;     // device, NY rows of NX/2 + 1 values; null where cosines are used
  float* coefficients;  // where cosines are used: over the sum and the pixels of the mirrored image
  float sum;
};

/// Prepares a disc for images of pad's size; the window lives until disc_window_free.
DiscWindow disc_window_new(MirrorPad* pad, float R, float soft);
void disc_window_free(DiscWindow* window);

/// Mirrors the image `in` (nx*ny, device) and leaves its transform in pad.
void hcuda_2d_mpad_transform(MirrorPad* pad, const float* in);

/// out (nx*ny, device) = the mean under the window of the image whose transform is in pad, where it stays.
void hcuda_2d_bg_mpad(MirrorPad* pad, const DiscWindow* window, float* out);

/// The local average, by another name.
void hcuda_2d_local_ave_softR_mpad(MirrorPad* pad, const DiscWindow* window, float* out);

/// out = sqrt(E[x^2] - E[x]^2) under the window for the image `in`, whose transform is in pad, where it stays.
/// scratch: nx*ny floats on the device. NaN where rounding takes the difference below 0.
void hcuda_2d_local_sigma_softR_mpad(MirrorPad* pad, const DiscWindow* window, const float* in, float* out,
                                     float* scratch);

// --- Ice and contamination ---

/// What ice detection goes by, and what it writes.
struct IceSettings {
  float lave_min, lave_max;  // limits of the local average
  float lsigma_cutoff;       // upper limit of the local deviation
  float lave_radius;         // radius of the window of the local average, pixels of the working image
  float lsigma_radius;       // of the local deviation, likewise
  float edge_width;          // soft edge of both windows, likewise
  int shrink;                // raw pixels along a pixel of the working image
  bool write_rejected;       // write _rejected.box and _rejected.star
  bool write_lave;           // write _bg.mrc
  bool write_lsigma;         // write _lsigma.mrc
  bool robust = false;       // close pixels by limits that the micrograph sets (robust_ice.h), not cells by those above
  float particle = 0;        // for that: diameter, pixels of the working image
  float reach = 0;           // for that: how far from a bad pixel nothing counts, likewise
  int true_nx = 0, true_ny = 0;  // for that: the micrograph in the working image
};

/// What ice detection needs for a run of nx by ny images with grid_nx by grid_ny cells.
struct IceWorkspace {
  int grid_nx, grid_ny;
  float* lsigma_map;    // device, nx*ny
  float* lave_map;      // device, nx*ny
  float* scratch;       // device, nx*ny
  float* grid_lave;     // device, one per cell
  float* grid_lsigma;   // device, one per cell
  unsigned* host_grid;  // host copies, one per cell
  float* host_grid_lave;
  float* host_grid_lsigma;
  DiscWindow lsigma_window, lave_window;
  IceSettings settings;
  // Of the pixels' own limits, host, nx*ny; null for cells:
  float* host_lave;
  float* host_lsigma;
  float* host_open;    // 1 or 0
  unsigned char* bad;  // 1 or 0
};

/// Allocates and prepares the two windows; released with ice_workspace_free.
IceWorkspace ice_workspace_new(MirrorPad* pad, int grid_nx, int grid_ny, const IceSettings& settings);
void ice_workspace_free(IceWorkspace* ws);

/// Marks the cells of d_grid (device, one pixel index per cell, 0: clean) that hold ice or contamination, and writes
/// the rejected places beside the micrograph, and the two maps if asked for. Leaves the transform of d in pad. With the
/// pixels' own limits d_grid stays as it is, ws->host_open tells where the image is open, and one bad pixel of each cell
/// is listed.
/// d         device, Nx*Ny: the working image, mean 0 and standard deviation 1
/// origin    added to the coordinates written
/// A list or map that cannot be written ends the run with a fatal error.
void hcuda_2d_ice_detect(MirrorPad* pad, IceWorkspace* ws, const float* d, int Nx, int Ny, int2 origin,
                         unsigned* d_grid, int grid_size, const char* mic_name);

/// For each cell of side `box`, starting from its first pixel: records in d_grid the last pixel that beat the running
/// values while beyond a limit, and its local average and sigma in grid_lave and grid_lsigma. All on the device.
void hcuda_find_sigma_grids(const float* lave, const float* lsigma, unsigned* d_grid, float* grid_lave,
                            float* grid_lsigma, int Nx, int Ny, int box, float lave_min, float lave_max,
                            float lsigma_cutoff);

/// Writes the marked cells at least half a cell away from the edges: format 1 STAR, format 2 box lines with the two
/// statistics, in raw pixels. Host arrays of one entry per cell.
void output_ice_coord(const char* file, const unsigned* grid, const float* grid_lave, const float* grid_lsigma, int Nx,
                      int Ny, int2 origin, int box, int shrink, int format);

// --- Excluded areas ---

/// Marks in d_grid (device) the cells that hold the centres of n boxes (raw pixels); a later point of a cell replaces
/// an earlier one. Centres outside the image are skipped.
void add_excluded_coords_to_ice(unsigned* d_grid, int Nx, int Ny, int box, const PTCL_BOX* boxes, int n, int shrink);

/// Says on standard error how many centres of n boxes (raw pixels), read from `source`, lie outside the image, if any.
void note_excluded_outside(const PTCL_BOX* boxes, int n, int Nx, int Ny, int shrink, const char* source);

/// add_excluded_coords_to_ice and note_excluded_outside with the coordinates of a file. One that check_box_file finds
/// wanting adds nothing.
/// boxes   room for one record per cell
void add_excluded_boxf_to_ice(unsigned* d_grid, int Nx, int Ny, int box, const char* file, int shrink, PTCL_BOX* boxes);

/// mask (device, Nx*Ny) = `value` on the pixels of marked cells, 1 - value on those of clean ones.
void hcuda_2d_generate_mask_by_coords(float* mask, int Nx, int Ny, int box, const unsigned* d_grid, int value);
