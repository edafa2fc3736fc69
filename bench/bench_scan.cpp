// The scan of one template over 72 angles against the bare transforms that it consists of: one forward and one inverse
// FFTW transform of the working size for each angle, on the same number of threads.
#include <fftw3.h>
#include <omp.h>

#include <cstdio>

#include "bench/paired.h"
#include "conditioning/conditioning.h"
#include "cuda_general.h"
#include "img_filter.h"
#include "quorlin56.h"
#include "transforms/wide_lanes.h"

namespace {

constexpr int kAngles = 72;

// 72 forward and 72 inverse transforms, each core running its own where that is how they are shared out best.
struct BareTransforms {
  int side;
  float* image;
  fftwf_complex* spectrum;
  fftwf_plan forward, inverse;
};

BareTransforms bare_transforms_new(int side) {
  BareTransforms bare{};
  bare.side = side;
  const auto threads = static_cast<size_t>(omp_get_max_threads());
  const size_t pixels = static_cast<size_t>(side) * side;
  const size_t values = static_cast<size_t>(side / 2 + 1) * side;
  bare.image = fftwf_alloc_real(threads * pixels);
  bare.spectrum = fftwf_alloc_complex(threads * values);
  std::fill_n(bare.image, threads * pixels, 1.0f);
  fftwf_plan_with_nthreads(1);
  bare.forward = fftwf_plan_dft_r2c_2d(side, side, bare.image, bare.spectrum, FFTW_ESTIMATE);
  bare.inverse = fftwf_plan_dft_c2r_2d(side, side, bare.spectrum, bare.image, FFTW_ESTIMATE);
  return bare;
}

void bare_transforms_run(const BareTransforms& bare) {
  const size_t pixels = static_cast<size_t>(bare.side) * bare.side;
  const size_t values = static_cast<size_t>(bare.side / 2 + 1) * bare.side;
#pragma omp parallel for schedule(static)
  for (int i = 0; i < kAngles; i++) {
    const auto thread = static_cast<size_t>(omp_get_thread_num());
    fftwf_execute_dft_r2c(bare.forward, bare.image + thread * pixels, bare.spectrum + thread * values);
    fftwf_execute_dft_c2r(bare.inverse, bare.spectrum + thread * values, bare.image + thread * pixels);
  }
}

void bare_transforms_free(BareTransforms* bare) {
  fftwf_destroy_plan(bare->forward);
  fftwf_destroy_plan(bare->inverse);
  fftwf_free(bare->image);
  fftwf_free(bare->spectrum);
}

// Side of the grid's cells for particles of 260 Å at 5.36 Å.
constexpr int kCell = 27;

// The scan prints its dots; they would bury the table.
void silence_stdout(bool silent) {
  static FILE* null = fopen("/dev/null", "w");
  static FILE* shown = stdout;
  fflush(stdout);
  stdout = silent ? null : shown;
}

// Filters the image as a run does for micrographs of 5.36 Å pixels; returns its highest frequency.
float band_pass(float* mic, int side) {
  MirrorPad pad = mirror_pad_new(side, side);
  hcuda_2d_bandpass_guas_mpad_inplace(&pad, mic, 5.36f, 40.0f, 1000.0f);
  mirror_pad_free(&pad);
  return 5.36f / 40.0f;
}

// Arguments: the working side; whether the micrograph is band-passed as by default and searched in the default's cells,
// or noise of all frequencies, of which maps are made; whether with AVX-512 where the processor has it, or as one without.
void scan_72_angles(benchmark::State& state) {
  const int side = static_cast<int>(state.range(0));
  const int T_side = side / 16;
  const auto pixels = static_cast<unsigned long>(side) * static_cast<unsigned long>(side);
  auto* mic = device_new<float>(pixels);
  auto* mask = device_new<float>(pixels);
  auto* ccmax = device_new<float>(pixels);
  auto* psi = device_new<float>(pixels);
  auto* T = device_new<float>(static_cast<unsigned long>(T_side) * T_side);
  for (unsigned long i = 0; i < pixels; i++) mic[i] = static_cast<float>((i * 2654435761UL) % 1000) / 500 - 1;
  std::fill_n(mask, pixels, 1.0f);
  for (int i = 0; i < T_side * T_side; i++)
    T[i] = i % T_side % (T_side - 1) && i / T_side % (T_side - 1) ? static_cast<float>(i % 17) - 8 : 0;
  const float band = state.range(1) ? band_pass(mic, side) : kFullBand;
  const int cell = state.range(1) ? kCell : 0;
  ScanWorkspace scan = scan_workspace_new(side, side, T_side, T_side, kAngles, band, cell, kHostScan, 8);
  PeakWorkspace peaks = peak_workspace_new((side - 1) / kCell + 1, (side - 1) / kCell + 1);
  BareTransforms bare = bare_transforms_new(side);
  set_wide_lanes(state.range(2) != 0);

  const auto ours = [&] {
    silence_stdout(true);
    quorlin_transform_micrograph(&scan, mic);
    const auto radius = static_cast<float>(T_side) / 2;
    if (scan_searches(&scan)) {
      scan_search_by_one_template(&scan, &peaks, mic, mask, T, radius, 0.0f, 359.0f, 5.0f, 0.15f);
    } else {
      quorlin_ccmax_psi_by_one_template(&scan, mic, mask, ccmax, psi, 1, T, radius, 0.0f, 359.0f, 5.0f);
    }
    silence_stdout(false);
  };
  run_paired(state, 1.5, ours, [&] { bare_transforms_run(bare); });

  set_wide_lanes(true);
  bare_transforms_free(&bare);
  peak_workspace_free(&peaks);
  scan_workspace_free(&scan);
  for (float* buffer : {mic, mask, ccmax, psi, T}) cudaFree(buffer);
}

}  // namespace

BENCHMARK(scan_72_angles)
    ->ArgsProduct({{512, 958, 1024, 1440, 2048}, {0, 1}, {0, 1}})
    ->ArgNames({"side", "band_passed", "wide"})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
