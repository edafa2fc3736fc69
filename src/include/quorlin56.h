// Matching: correlation of one template over all in-plane angles, and the peaks of its map. All on the device.
#pragma once

#include "platform/device.h"

// --- The rotational scan ---

/// Most angles that one pass of the scan takes together.
constexpr int kMaxScanBatch = 64;

/// The ways to go through a scan: batched transforms of the device, or the host's own (scan.h), which searches for
/// peaks where that is faster, or, for tests, wherever it can. All give the same maps and peaks up to rounding.
enum ScanWay { kDeviceTransforms, kHostScan, kHostSearch };

/// The fastest way of the device. The host's own ways are for the host device alone: they follow its pointers.
inline ScanWay fastest_scan_way() { return device_transforms_wanted() ? kDeviceTransforms : kHostScan; }

struct HostScan;

/// What the scans of a run share: plans and buffers for nx by ny images and T_nx by T_ny templates, taking `batch`
/// angles at a time. Spectra have rows of nx / 2 + 1 values.
struct ScanWorkspace {
  int nx, ny;                // working image
  int T_nx, T_ny;            // template box, no larger than the working image
  int batch;                 // angles in one pass
  HostScan* host_scan;       // the host's own way; where it is used, batch is 0 and what follows is empty
  float* padded;             // device, batch images: the turned templates in the middle, zero around
  float* correlation;        // device, batch images
  float2* mic_spectrum;      // device, one spectrum
  float2* spectra;           // device, batch spectra
  cufftHandle mic_plan;      // forward, one image
  cufftHandle forward_plan;  // forward, a batch
  cufftHandle inverse_plan;  // inverse, a batch
  float* ccmin;              // device, nx*ny, not owned; null unless the lowest scores are wanted beside the best
};

/// Highest frequency that an image can have, in cycles per pixel.
constexpr float kFullBand = 0.5f;

/// Plans the transforms and allocates the buffers of scans that take at most n_angles angles. band: the highest
/// frequency of the micrographs to come, in cycles per pixel, as far as it is known; it decides on the fastest way, not
/// on the result. cell: side of the grid's cells where their peaks are all that is wanted, 0 where maps are. n_templates:
/// how many are expected for each micrograph; it decides on the way as well. The caller releases them with
/// scan_workspace_free. A device that is short of memory takes fewer angles at a time, of which standard error tells. Ends the run on a device error, and where not even one angle fits.
ScanWorkspace scan_workspace_new(int nx, int ny, int T_nx, int T_ny, int n_angles, float band = kFullBand, int cell = 0,
                                 ScanWay way = fastest_scan_way(), int n_templates = 1);
void scan_workspace_free(ScanWorkspace* ws);

/// Whether the scan finds peaks without maps: then scan_search_by_one_template is to be called, else
/// quorlin_ccmax_psi_by_one_template.
bool scan_searches(const ScanWorkspace* ws);

/// Number of angles of a scan: start, start + step, ... up to but not including stop, added in float.
int count_scan_angles(float start, float stop, float step);

/// Transforms the micrograph for the scans that follow, into ws->mic_spectrum. mic: device, nx*ny floats, unchanged.
void quorlin_transform_micrograph(ScanWorkspace* ws, const float* mic);

/// Correlates one template with the micrograph of the last quorlin_transform_micrograph over all in-plane angles.
/// mic, mask   device, nx*ny floats: the normalised working image and 1 on usable, 0 on excluded pixels
/// ccmax       device, nx*ny: the largest correlation of each pixel over the angles, divided by
///             sqrt(sum T^2 * area of the disc of radius `radius` * sum(mask * mic^2) / sum(mask))
/// psi         device, nx*ny: the angle in degrees that gave it, the earliest of those that tie; not written if
///             keep_psi is 0 or psi is null
/// T           device, T_nx*T_ny floats
/// radius      working pixels;    start, stop, step   degrees
/// Where ws->ccmin is set, it receives the lowest of the same correlations, divided likewise.
/// The score at pixel p is that of template pixel (T_nx / 2, T_ny / 2), for an odd size the one after it, lying over
/// p; the sum wraps around the image's edges. Prints a dot for each angle, then a newline. Returns 0.
int quorlin_ccmax_psi_by_one_template(ScanWorkspace* ws, const float* mic, const float* mask, float* ccmax, float* psi,
                                      int keep_psi, const float* T, float radius, float start, float stop, float step);

/// Up to kMaxScanBatch angles in degrees, handed to a kernel by value.
struct ScanAngles {
  float psi[kMaxScanBatch];
};

/// For each pixel and each of the count images of cc in turn: where ccmax < cc, ccmax takes it and psi its angle.
/// cc   device, count images of nx*ny floats, one behind the other
void hcuda_update_ccmax_psi_2d(float* ccmax, const float* cc, float* psi, const ScanAngles& angles, int count, int nx,
                               int ny);

/// The same without angles.
void hcuda_update_ccmax_2d(float* ccmax, const float* cc, int count, int nx, int ny);

/// As the first, and where cc < ccmin, ccmin takes it.
void hcuda_update_ccmax_ccmin_psi_2d(float* ccmax, float* ccmin, const float* cc, float* psi, const ScanAngles& angles,
                                     int count, int nx, int ny);

/// The best of all templates, pixel by pixel: device, as the maps of one.
struct TemplateMaps {
  float* best;      // score
  float* best_psi;  // its angle
  float* best_T;    // its template
  float* least;     // the lowest score
};

/// Takes the maps of template t, n pixels, into those of all: where its score is above the best one.
void hcuda_take_template(const TemplateMaps& all, const float* ccmax, const float* psi, const float* ccmin, int t,
                         unsigned long n);

// --- Peaks, at most one per cell of the grid ---

/// Side of a grid cell in shrunk pixels, whose diagonal is min_dist (Å): the run's one cell size. pixel_size is that
/// of a shrunk pixel in Å. 0 for a value that gives no cell, the largest int for one that is too large.
int grid_cell_size(float min_dist, float pixel_size);

/// Device arrays of one entry per cell, made once for the run, and room for the excluded points.
struct PeakWorkspace {
  int grid_nx, grid_ny;
  unsigned* found;  // pixel of each cell's peak, 0: none
  unsigned* kept;   // the same after the filter
  float* cc;        // score of the peak
  float* psi;       // angle of the peak in degrees
  // The excluded points of the micrograph at hand, each once:
  unsigned* excluded;       // device
  unsigned* host_excluded;  // host: the same, and room for the cells that they come from
  unsigned n_excluded;
};

/// Allocates for grid_nx by grid_ny cells and as many excluded points; released with peak_workspace_free.
PeakWorkspace peak_workspace_new(int grid_nx, int grid_ny);
void peak_workspace_free(PeakWorkspace* ws);

/// Gathers a micrograph's excluded points for all its templates: leaves the entries of d_grid (device, one per cell) in
/// ws->excluded, each once. Most are the zeros of its unmarked cells, which all stand for the same point. Returns the
/// number of unmarked cells. Ends the run on a device error.
unsigned gather_excluded_points(PeakWorkspace* ws, const unsigned* d_grid);

/// Correlates one template with the micrograph of the last quorlin_transform_micrograph over all in-plane angles, as
/// quorlin_ccmax_psi_by_one_template does, and leaves the peak of each cell in peaks->found, cc and psi: what the maps
/// would have, up to rounding; cells without a score of at least cc_cutoff may have none. Prints the same. Returns 0.
int scan_search_by_one_template(ScanWorkspace* ws, PeakWorkspace* peaks, const float* mic, const float* mask,
                                const float* T, float radius, float start, float stop, float step, float cc_cutoff);

/// Removes of the peaks in ws->found, cc and psi what gpu_find_filter_ccmax_psi_grids_exclusive would, with the same
/// arguments.
void filter_peaks(PeakWorkspace* ws, unsigned* grid_index, float* grid_cc, float* grid_psi, float cc_cutoff, int nx,
                  int grid_size, const unsigned* excluded, unsigned n_excluded);

/// Finds each cell's peak and removes those below cc_cutoff, those near an excluded point and those near a better
/// peak of a neighbouring cell; near is closer than the diagonal of a cell.
/// ccmax, psi                       device, nx*ny floats
/// grid_index, grid_cc, grid_psi    host, one entry per cell: the pixel y*nx + x of the peak, 0 for none; its score;
///                                  its angle, meaningful where there is a peak
/// excluded                         device, n_excluded pixel indices y*nx + x; 0 stands for the pixel (0, 0)
/// A peak that is removed still removes others. Ends the run on a device error.
void gpu_find_filter_ccmax_psi_grids_exclusive(PeakWorkspace* ws, const float* ccmax, const float* psi,
                                               unsigned* grid_index, float* grid_cc, float* grid_psi, float cc_cutoff,
                                               int nx, int ny, int grid_size, const unsigned* excluded,
                                               unsigned n_excluded);
