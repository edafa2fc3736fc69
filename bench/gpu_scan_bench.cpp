// gpu_scan_bench: the rotational scan on a GPU, timed by device events (warmed up, median), and the bytes that it moves a
// second against the card's own copies. For each size and number of templates: one micrograph at 72 angles a template.
//
// Bytes are the least that the stages of an angle can move when each reads its input and writes its output once: the
// two transforms, the product of spectra, the update of the maps. A 2D transform takes at least two such passes, and
// what stays in the second-level cache never reaches memory, so that the share may lie on either side of 1.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "cuda_general.h"
#include "quorlin56.h"

namespace {

constexpr char unit[] = "gpu_scan_bench";
constexpr int kWarmUps = 2;
constexpr int kRepeats = 11;

struct Stopwatch {
  cudaEvent_t begun, ended;
};

// Median milliseconds of a piece of work on the default stream.
template <class Work>
double median_ms(const Stopwatch& watch, Work work) {
  for (int i = 0; i < kWarmUps; i++) work();
  std::vector<float> times(kRepeats);
  for (float& time : times) {
    CHECK_DEVICE(cudaEventRecord(watch.begun, nullptr));
    work();
    CHECK_DEVICE(cudaEventRecord(watch.ended, nullptr));
    CHECK_DEVICE(cudaEventSynchronize(watch.ended));
    CHECK_DEVICE(cudaEventElapsedTime(&time, watch.begun, watch.ended));
  }
  std::sort(times.begin(), times.end());
  return static_cast<double>(times[kRepeats / 2]);
}

// Bytes a second that a device-to-device copy reads and writes.
double copy_bandwidth(const Stopwatch& watch) {
  constexpr size_t kBytes = size_t{1} << 29;
  auto* from = device_new<char>(kBytes);
  auto* to = device_new<char>(kBytes);
  hcuda_empty(from, kBytes);
  const double ms = median_ms(watch, [&] { CHECK_DEVICE(cudaMemcpy(to, from, kBytes, cudaMemcpyDeviceToDevice)); });
  cudaFree(from);
  cudaFree(to);
  return 2.0 * static_cast<double>(kBytes) / (ms / 1000);
}

float* device_pattern(size_t n, unsigned seed) {
  std::vector<float> values(n);
  unsigned state = seed;
  for (float& v : values) {
    state = state * 1664525u + 1013904223u;
    v = static_cast<float>(state >> 8) / static_cast<float>(1 << 24);
  }
  auto* d = device_new<float>(n);
  CHECK_DEVICE(cudaMemcpy(d, values.data(), n * sizeof(float), cudaMemcpyHostToDevice));
  return d;
}

double bytes_of_scan(const ScanWorkspace& ws, int angles) {
  const double image = 4.0 * ws.nx * ws.ny;
  const double spectrum = 8.0 * (ws.nx / 2 + 1) * ws.ny;
  const double batches = (angles + ws.batch - 1) / ws.batch;
  return angles * (3 * image + 5 * spectrum) + batches * 4 * image;
}

void time_scan(FILE* out, const Stopwatch& watch, int n, int templates, double copies) {
  const int box = n / 6 / 2 * 2;
  const size_t pixels = static_cast<size_t>(n) * n;
  const size_t box_pixels = static_cast<size_t>(box) * box;
  const int angles = count_scan_angles(0.0f, 359.0f, 5.0f);
  float* mic = device_pattern(pixels, 1);
  float* T = device_pattern(static_cast<size_t>(templates) * box_pixels, 2);
  float* mask = device_pattern(pixels, 3);
  auto* ccmax = device_new<float>(pixels);
  auto* psi = device_new<float>(pixels);
  ScanWorkspace ws = scan_workspace_new(n, n, box, box, angles);
  const double ms = median_ms(watch, [&] {
    quorlin_transform_micrograph(&ws, mic);
    for (int t = 0; t < templates; t++)
      quorlin_ccmax_psi_by_one_template(&ws, mic, mask, ccmax, psi, 1, T + static_cast<size_t>(t) * box_pixels,
                                        static_cast<float>(n) / 21, 0.0f, 359.0f, 5.0f);
  });
  const double rate = templates * bytes_of_scan(ws, angles) / (ms / 1000);
  fprintf(out, "%5d x %-5d %9d %7d %12.3f %14.3f %10.1f %8.2f\n", n, n, templates, ws.batch, ms,
          1000 * ms / (templates * angles), rate / 1e9, rate / copies);
  fflush(out);
  scan_workspace_free(&ws);
  for (float* d : {mic, T, mask, ccmax, psi}) cudaFree(d);
}

}  // namespace

int main() {
  int device = 0;
  if (check_and_set_gid(device) != 0) return 1;
  CHECK_DEVICE(cudaSetDevice(device));
  cudaDeviceProp properties;
  CHECK_DEVICE(cudaGetDeviceProperties(&properties, device));
  // The scan prints its dots on standard output.
  FILE* out = fdopen(dup(STDOUT_FILENO), "w");
  if (!out || !freopen("/dev/null", "w", stdout)) return 1;
  Stopwatch watch{};
  CHECK_DEVICE(cudaEventCreate(&watch.begun));
  CHECK_DEVICE(cudaEventCreate(&watch.ended));
  const double copies = copy_bandwidth(watch);
  fprintf(out, "%s: device-to-device copies move %.1f GB/s, read and written\n", properties.name, copies / 1e9);
  fprintf(out, "     image    templates   batch    ms/image   us/correlation      GB/s  of copy\n");
  for (const int n : {512, 1024, 1440, 2048})
    for (const int templates : {1, 8}) time_scan(out, watch, n, templates, copies);
  cudaEventDestroy(watch.begun);
  cudaEventDestroy(watch.ended);
  fclose(out);
  return 0;
}
