// The rotational scan: one template against the micrograph over all in-plane angles.
#include "quorlin56.h"

#include <omp.h>

#include "matching/host_scan/scan.h"
#include "platform/failure.h"
#include "platform/host_memory.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "cuda_general.h"
#include "matching/scan_kernels.h"
#include "math_utils.h"
#include "platform/launch.h"
#include "process2d_raw.h"

namespace {

constexpr char unit[] = "quorlin56";

// Most device memory that the angles of one pass may take, in bytes.
constexpr size_t kBytesOfPass = size_t{1} << 30;

// What the angles of a pass leave free of a device that is short of memory, in bytes: kernels come to the device when they
// are first launched, and sums take scratch.
constexpr size_t kBytesLeftFree = size_t{32} << 20;

size_t image_pixels(const ScanWorkspace& ws) { return static_cast<size_t>(ws.nx) * ws.ny; }
size_t spectrum_values(const ScanWorkspace& ws) { return static_cast<size_t>(ws.nx / 2 + 1) * ws.ny; }

// On the host one angle for each core, and a few at least, so that the maps are updated once for several angles.
int wanted_batch() { return kOnGpu ? 16 : std::max(4, omp_get_max_threads()); }

int batch_size(const ScanWorkspace& ws, int n_angles) {
  const size_t bytes = 2 * image_pixels(ws) * sizeof(float) + spectrum_values(ws) * sizeof(float2);
  const size_t fitting = std::max<size_t>(1, kBytesOfPass / bytes);
  const int wanted = std::min({wanted_batch(), n_angles, kMaxScanBatch});
  const int most = static_cast<int>(std::min<size_t>(static_cast<size_t>(std::max(wanted, 1)), fitting));
  // As many passes as that takes, all of about the same size: a batched plan always transforms its whole batch.
  const int passes = (std::max(n_angles, 1) + most - 1) / most;
  return (std::max(n_angles, 1) + passes - 1) / passes;
}

// The next smaller number of angles that makes passes of about the same size.
int smaller_batch(int batch, int n_angles) {
  int passes = (n_angles + batch - 1) / batch;
  while ((n_angles + passes - 1) / passes >= batch) passes++;
  return (n_angles + passes - 1) / passes;
}

// cudaMalloc that answers whether the device had room; any other failure ends the run.
template <class T>
bool take_if_it_fits(T** p, size_t count) {
  const cudaError_t status = cudaMalloc(p, count * sizeof(T));
  if (status != cudaErrorMemoryAllocation) CHECK_DEVICE(status);
  if (status == cudaSuccess) return true;
  cudaGetLastError();  // has been taken: the next launch is not to hear of it
  *p = nullptr;
  return false;
}

// The same for a plan, which takes work areas of its own.
bool plan_if_it_fits(cufftHandle* plan, int nx, int ny, cufftType type, int batch) {
  int n[2] = {ny, nx};
  const int image = nx * ny;
  const int spectrum = (nx / 2 + 1) * ny;
  const bool forward = type == CUFFT_R2C;
  const cufftResult result = cufftPlanMany(plan, 2, n, nullptr, 1, forward ? image : spectrum, nullptr, 1,
                                           forward ? spectrum : image, type, batch);
  if (result != CUFFT_ALLOC_FAILED) CHECK_CUFFT(result);
  if (result == CUFFT_SUCCESS) return true;
  cudaGetLastError();
  return false;
}

void free_pass(ScanWorkspace* ws) {
  for (float** buffer : {&ws->padded, &ws->correlation}) {
    cudaFree(*buffer);
    *buffer = nullptr;
  }
  cudaFree(ws->spectra);
  ws->spectra = nullptr;
}

// Buffers and plans for passes of ws->batch angles. False, with nothing taken, where the device has no room for them.
bool take_pass(ScanWorkspace* ws) {
  const auto batch = static_cast<size_t>(ws->batch);
  unsigned char* left_free = nullptr;
  if (batch > 1 && !take_if_it_fits(&left_free, kBytesLeftFree)) return false;
  bool fits = take_if_it_fits(&ws->padded, batch * image_pixels(*ws)) &&
              take_if_it_fits(&ws->correlation, batch * image_pixels(*ws)) &&
              take_if_it_fits(&ws->spectra, batch * spectrum_values(*ws)) &&
              plan_if_it_fits(&ws->forward_plan, ws->nx, ws->ny, CUFFT_R2C, ws->batch);
  if (fits && !plan_if_it_fits(&ws->inverse_plan, ws->nx, ws->ny, CUFFT_C2R, ws->batch)) {
    cufftDestroy(ws->forward_plan);
    fits = false;
  }
  if (!fits) free_pass(ws);
  cudaFree(left_free);
  return fits;
}

// As many angles in one pass as are worth while and the device has room for.
void take_largest_pass(ScanWorkspace* ws, int n_angles) {
  const int wanted = ws->batch = batch_size(*ws, n_angles);
  while (!take_pass(ws)) {
    if (ws->batch == 1)
      KESTRIX_FATAL("the device has not enough memory to scan images of %d x %d pixels; give a higher --speed", ws->nx,
                    ws->ny);
    ws->batch = smaller_batch(ws->batch, n_angles);
  }
  if (ws->batch < wanted)
    safety_note(nullptr, "the device is short of memory; angles scanned at a time: %d instead of %d.", ws->batch,
                wanted);
}

// The next angles of the scan, starting at `angle`; moves `angle` on. Returns how many.
int take_angles(float& angle, float stop, float step, int most, ScanAngles& angles) {
  int count = 0;
  while (count < most && stop > angle) {
    angles.psi[count++] = angle;
    angle += step;
  }
  return count;
}

// Leaves in ws->correlation the correlation of the micrograph with the template turned by each of the angles.
void correlate_angles(ScanWorkspace* ws, const float* T, const ScanAngles& angles, int count) {
  const int hnx = ws->nx / 2 + 1;
  const float norm = static_cast<float>(ws->ny) * static_cast<float>(ws->nx);
  CHECK_DEVICE(launch_2d<cuda_turn_into_center>(ws->T_nx, ws->T_ny * count, ws->padded, T, ws->nx, ws->ny, ws->T_nx,
                                                ws->T_ny, turns_of(angles, count)));
  CHECK_CUFFT(cufftExecR2C(ws->forward_plan, ws->padded, ws->spectra));
  CHECK_DEVICE(launch_2d<cuda_correlate_spectra>(hnx, ws->ny * count, static_cast<const float2*>(ws->mic_spectrum),
                                                 ws->spectra, hnx, ws->ny, norm));
  CHECK_CUFFT(cufftExecC2R(ws->inverse_plan, ws->spectra, ws->correlation));
}

// The divisor that turns a correlation into a score: the template's norm times the norm that a disc of the radius
// has at the micrograph's mean square over its usable area.
float score_divisor(const ScanWorkspace& ws, const float* mic, const float* mask, const float* T, float radius) {
  const double r = radius;
  const auto area = static_cast<float>(r * (M_PI * r));
  const float energy = hcuda_fast_sumsqr_withmask(mic, mask, image_pixels(ws));
  const float template_energy = hcuda_fast_sumsqr(T, static_cast<unsigned long>(ws.T_nx) * ws.T_ny);
  const float weight = hcuda_fast_sum(mask, image_pixels(ws));
  return sqrtf(((template_energy * energy) * area) / weight);
}

// Prints a dot for each of `count` angles.
void put_dots(int count) {
  for (int k = 0; k < count; k++) putchar('.');
}

// The scan by batched transforms of the device.
void scan_by_device_transforms(ScanWorkspace* ws, float* ccmax, float* psi, const float* T, float divisor, float start,
                               float stop, float step) {
  const int nx = ws->nx;
  const int ny = ws->ny;
  hcuda_2d_memset(ccmax, -std::numeric_limits<float>::infinity(), nx, ny);
  if (psi) hcuda_2d_empty(psi, nx, ny);
  float* ccmin = psi ? ws->ccmin : nullptr;
  if (ccmin) hcuda_2d_memset(ccmin, std::numeric_limits<float>::infinity(), nx, ny);
  ScanAngles angles{};
  while (const int count = take_angles(start, stop, step, ws->batch, angles)) {
    put_dots(count);
    correlate_angles(ws, T, angles, count);
    if (ccmin) {
      hcuda_update_ccmax_ccmin_psi_2d(ccmax, ccmin, ws->correlation, psi, angles, count, nx, ny);
    } else if (psi) {
      hcuda_update_ccmax_psi_2d(ccmax, ws->correlation, psi, angles, count, nx, ny);
    } else {
      hcuda_update_ccmax_2d(ccmax, ws->correlation, count, nx, ny);
    }
  }
  putchar('\n');
  hcuda_2d_swap_ccf_inplace(ccmax, static_cast<unsigned>(nx), static_cast<unsigned>(ny));
  if (psi) hcuda_2d_swap_ccf_inplace(psi, static_cast<unsigned>(nx), static_cast<unsigned>(ny));
  hcuda_2d_divide_inplace(ccmax, nx, ny, divisor);
  if (!ccmin) return;
  hcuda_2d_swap_ccf_inplace(ccmin, static_cast<unsigned>(nx), static_cast<unsigned>(ny));
  hcuda_2d_divide_inplace(ccmin, nx, ny, divisor);
}

// The angles of a scan, n_angles of them, for free. Prints what a scan prints.
float* angles_new(float start, float stop, float step, int n_angles) {
  auto* angles = host_new<float>(static_cast<size_t>(n_angles) + 1);
  ScanAngles taken{};
  for (int i = 0, count; (count = take_angles(start, stop, step, kMaxScanBatch, taken)) > 0; i += count)
    std::copy_n(taken.psi, count, angles + i);
  put_dots(n_angles);
  putchar('\n');
  return angles;
}

}  // namespace

ScanTurns turns_of(const ScanAngles& angles, int count) {
  ScanTurns turns{};
  for (int k = 0; k < count; k++) turn_of(angles.psi[k], &turns.cosine[k], &turns.sine[k]);
  return turns;
}

int count_scan_angles(float start, float stop, float step) {
  // Counted by adding up as the scan adds up, so that rounding ends both at the same angle.
  ScanAngles angles{};
  int count = 0;
  while (const int taken = take_angles(start, stop, step, kMaxScanBatch, angles)) count += taken;
  return count;
}

ScanWorkspace scan_workspace_new(int nx, int ny, int T_nx, int T_ny, int n_angles, float band, int cell, ScanWay way,
                                 int n_templates) {
  ScanWorkspace ws{};
  ws.nx = nx;
  ws.ny = ny;
  ws.T_nx = T_nx;
  ws.T_ny = T_ny;
  if (way != kDeviceTransforms) {
    ws.host_scan =
        host_scan_new(nx, ny, T_nx, T_ny, n_angles, static_cast<double>(band), cell, way == kHostSearch, n_templates);
    return ws;
  }
  ws.mic_spectrum = device_new<float2>(spectrum_values(ws));
  CHECK_CUFFT(cufftPlan2d(&ws.mic_plan, ny, nx, CUFFT_R2C));
  take_largest_pass(&ws, n_angles);
  // The box in the middle is rewritten for every angle; what lies around it stays zero for the run.
  hcuda_empty(ws.padded, static_cast<size_t>(ws.batch) * image_pixels(ws) * sizeof(float));
  return ws;
}

void scan_workspace_free(ScanWorkspace* ws) {
  host_scan_free(ws->host_scan);
  if (ws->mic_spectrum) {
    free_pass(ws);
    cudaFree(ws->mic_spectrum);
    cufftDestroy(ws->mic_plan);
    cufftDestroy(ws->forward_plan);
    cufftDestroy(ws->inverse_plan);
  }
  *ws = ScanWorkspace{};
}

bool scan_searches(const ScanWorkspace* ws) { return ws->host_scan && host_scan_searches(ws->host_scan); }

void quorlin_transform_micrograph(ScanWorkspace* ws, const float* mic) {
  if (ws->host_scan) return host_scan_transform_micrograph(ws->host_scan, mic);
  // A real-to-complex transform out of place leaves its input as it was.
  CHECK_CUFFT(cufftExecR2C(ws->mic_plan, const_cast<float*>(mic), ws->mic_spectrum));
}

int quorlin_ccmax_psi_by_one_template(ScanWorkspace* ws, const float* mic, const float* mask, float* ccmax, float* psi,
                                      int keep_psi, const float* T, float radius, float start, float stop, float step) {
  float* kept_psi = keep_psi ? psi : nullptr;
  const float divisor = score_divisor(*ws, mic, mask, T, radius);
  if (ws->host_scan) {
    const int n_angles = count_scan_angles(start, stop, step);
    float* angles = angles_new(start, stop, step, n_angles);
    host_scan_template(ws->host_scan, T, angles, n_angles, divisor, ccmax, kept_psi, ws->ccmin);
    free(angles);
    return 0;
  }
  scan_by_device_transforms(ws, ccmax, kept_psi, T, divisor, start, stop, step);
  return 0;
}

int scan_search_by_one_template(ScanWorkspace* ws, PeakWorkspace* peaks, const float* mic, const float* mask,
                                const float* T, float radius, float start, float stop, float step, float cc_cutoff) {
  const float divisor = score_divisor(*ws, mic, mask, T, radius);
  const int n_angles = count_scan_angles(start, stop, step);
  float* angles = angles_new(start, stop, step, n_angles);
  host_scan_search(ws->host_scan, T, angles, n_angles, divisor, cc_cutoff, peaks->found, peaks->cc, peaks->psi);
  free(angles);
  return 0;
}

void hcuda_update_ccmax_psi_2d(float* ccmax, const float* cc, float* psi, const ScanAngles& angles, int count, int nx,
                               int ny) {
  CHECK_DEVICE(launch_2d_times<cuda_update_ccmax_psi_2d>(nx, ny, count, ccmax, cc, psi, angles, nx, ny));
}

void hcuda_update_ccmax_ccmin_psi_2d(float* ccmax, float* ccmin, const float* cc, float* psi, const ScanAngles& angles,
                                     int count, int nx, int ny) {
  CHECK_DEVICE(launch_2d_times<cuda_update_ccmax_ccmin_psi_2d>(nx, ny, count, ccmax, ccmin, cc, psi, angles, nx, ny));
}

void hcuda_take_template(const TemplateMaps& all, const float* ccmax, const float* psi, const float* ccmin, int t,
                         unsigned long n) {
  CHECK_DEVICE(launch_1d<cuda_take_template>(n, all.best, all.best_psi, all.best_T, all.least, ccmax, psi, ccmin,
                                             static_cast<float>(t)));
}

void hcuda_update_ccmax_2d(float* ccmax, const float* cc, int count, int nx, int ny) {
  CHECK_DEVICE(launch_2d_times<cuda_update_ccmax_2d>(nx, ny, count, ccmax, cc, nx, ny));
}
