// What a run takes of a GPU's memory.
#include "cuda_general.h"
#include "platform/failure.h"
#include "run/run_state.h"

namespace {

constexpr char unit[] = "kestrix56";

// The sums of the run with the most values leave that much scratch.
size_t sum_scratch_bytes(size_t values) {
  const size_t blocks = (values + 1023) / 1024;
  return (blocks + (blocks + 1023) / 1024) * sizeof(float);
}

size_t mebibytes(size_t bytes) { return (bytes + (1 << 20) - 1) >> 20; }

}  // namespace

size_t device_bytes(const Run* run, int angles) {
  const Kestrix_Para& para = run->para;
  const RunSizes& s = run->sizes;
  const size_t image = work_pixels(run) * sizeof(float);
  const size_t spectrum = (static_cast<size_t>(s.work_nx) / 2 + 1) * s.work_ny * sizeof(float2);
  const size_t padded_spectrum = (static_cast<size_t>(s.work_nx) + 1) * 2 * s.work_ny * sizeof(float2);
  const size_t cells = grid_cells(run) * sizeof(unsigned);
  const bool pads = para.detect_ice || para.do_bandpass || para.do_pre_filter;
  size_t bytes = static_cast<size_t>(s.T_num) * template_pixels(run) * sizeof(float);
  bytes += 4 * image + 6 * cells;                                             // the maps, the grid, the peaks
  if (pads) bytes += 4 * image + 2 * padded_spectrum;                         // the mirrored image
  if (para.detect_ice) bytes += 3 * image + 2 * padded_spectrum + 2 * cells;  // local maps and their windows
  bytes += spectrum + static_cast<size_t>(angles) * (2 * image + spectrum);   // the scan
  return bytes + sum_scratch_bytes((para.detect_ice ? 4 : 1) * work_pixels(run));
}

void check_device_memory(const Run* run) {
  const size_t needed = device_bytes(run, 1);
  void* asked = nullptr;
  const cudaError_t status = cudaMalloc(&asked, needed);
  if (status != cudaErrorMemoryAllocation) {
    CHECK_DEVICE(status);
    CHECK_DEVICE(cudaFree(asked));
    return;
  }
  cudaDeviceProp properties;
  CHECK_DEVICE(cudaGetDeviceProperties(&properties, run->para.gid));
  const RunSizes& s = run->sizes;
  KESTRIX_FATAL(
      "the run needs %zu MiB of device memory for images of %d x %d pixels even if it scans angle by angle, and device "
      "%d of %zu MiB has not as much free; give a higher --speed, or another device by --gid",
      mebibytes(needed), s.work_nx, s.work_ny, run->para.gid, properties.totalGlobalMem >> 20);
}
