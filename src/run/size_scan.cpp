#include "run/size_scan.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "compute/robust_statistics.h"
#include "cuda_general.h"
#include "particles/score_cutoff.h"
#include "platform/host_memory.h"

namespace {

constexpr char unit[] = "size_scan";

// Share of a size that two particles keep between them.
constexpr float kApart = 0.8f;

size_t pixels_of(const SizeScan* scan) { return static_cast<size_t>(scan->nx) * static_cast<size_t>(scan->ny); }

// Correlates d_band with a window and takes the peaks and decoys of the map, apart as particles of `size` are.
SizeTrial try_window(SizeScan* scan, MirrorPad* pad, const DiscWindow* window, float size) {
  correlate_with_window(pad, window, scan->d_band, scan->d_scores);
  CHECK_DEVICE(cudaMemcpy(scan->host, scan->d_scores, pixels_of(scan) * sizeof(float), cudaMemcpyDeviceToHost));
  const RobustScale scale = robust_scale(scan->host, scan->host_open, scan->nx, scan->ny);
  SizeTrial trial{};
  trial.usable = true;
  if (!(scale.deviation > 0) || !std::isfinite(scale.deviation)) return trial;
  trial.score_unit = 1.0f / scale.deviation;
  const PeakArea area = peak_area(scan->settings, scan->nx, scan->host_open, peak_distance(scan->settings, size));
  trial.peaks = find_peaks(scan->host, 1.0f, trial.score_unit, area);
  trial.decoys = find_peaks(scan->host, -1.0f, trial.score_unit, area);
  trial.excess = static_cast<double>(size / scan->settings.diameter) * excess_of_peaks(trial.peaks, trial.decoys);
  return trial;
}

SizeTrial try_in_band(SizeScan* scan, MirrorPad* pad, const RoundTemplate& t, float size) {
  DiscWindow window = radial_window_new(pad, t.values, t.n, t.step);
  const SizeTrial trial = try_window(scan, pad, &window, size);
  disc_window_free(&window);
  return trial;
}

// Tries the mean of the best peaks against the ball that found them, and takes it into the result if it is better.
void try_mean(SizeScan* scan, MirrorPad* pad, SizeScanResult* result) {
  const float size = result->share * scan->settings.diameter;
  const float band_size = kMeanSize * size;
  const int count = std::max(peaks_from(result->peaks, score_valley(result->peaks)), kFewestAveraged);
  if (result->peaks.n == 0 || !band_to_host(scan, pad, band_size)) return;
  RoundTemplate mean = mean_template(scan->host, scan->nx, scan->ny, result->peaks, count, band_size);
  SizeTrial trial = try_in_band(scan, pad, mean, size);
  if (trial.excess > result->excess) {
    std::swap(result->peaks, trial.peaks);
    std::swap(result->decoys, trial.decoys);
    std::swap(result->found, mean);
    result->excess = trial.excess;
    result->score_unit = trial.score_unit;
    result->band_size = band_size;
    result->learned = true;
  }
  round_template_free(&mean);
  size_trial_free(&trial);
}

}  // namespace

bool band_to_host(SizeScan* scan, MirrorPad* pad, float band_size) {
  if (!size_band_make(&scan->band, pad, band_size, scan->d_band)) return false;
  CHECK_DEVICE(cudaMemcpy(scan->host, scan->d_band, pixels_of(scan) * sizeof(float), cudaMemcpyDeviceToHost));
  return true;
}

void begin_trials(SizeScan* scan, MirrorPad* pad, const float* image, const float* open, bool all_open) {
  CHECK_DEVICE(cudaMemcpy(scan->host_open, open, pixels_of(scan) * sizeof(float), cudaMemcpyDeviceToHost));
  size_band_take(&scan->band, pad, image, open, all_open);
}

SizeTrial try_ball(SizeScan* scan, MirrorPad* pad, int i) {
  const float size = kSizeShares[i] * scan->settings.diameter;
  if (!size_band_make(&scan->band, pad, size, scan->d_band)) return {};
  return try_window(scan, pad, &scan->balls[i], size);
}

SizeTrial try_round_template(SizeScan* scan, MirrorPad* pad, const RoundTemplate& t, float size, float band_size) {
  if (!size_band_make(&scan->band, pad, band_size, scan->d_band)) return {};
  return try_in_band(scan, pad, t, size);
}

void size_trial_free(SizeTrial* trial) {
  peak_list_free(&trial->peaks);
  peak_list_free(&trial->decoys);
}

PeakArea peak_area(const SizeScanSettings& settings, int nx, const float* open, float least_distance) {
  const int border = std::max(1, static_cast<int>(std::ceil(settings.diameter / 2)));
  return {nx, border, border, settings.true_nx - border, settings.true_ny - border, open, least_distance};
}

float peak_distance(const SizeScanSettings& settings, float size) {
  return settings.least_distance > 0 ? settings.least_distance : kApart * size;
}

SizeScan size_scan_new(MirrorPad* pad, const SizeScanSettings& settings) {
  SizeScan scan{};
  scan.nx = pad->nx;
  scan.ny = pad->ny;
  scan.settings = settings;
  scan.band = size_band_new(pad);
  for (int i = 0; i < kSizes; i++) {
    RoundTemplate ball = ball_template(kSizeShares[i] * settings.diameter);
    scan.balls[i] = radial_window_new(pad, ball.values, ball.n, ball.step);
    round_template_free(&ball);
  }
  scan.d_band = device_new<float>(pixels_of(&scan));
  scan.d_scores = device_new<float>(pixels_of(&scan));
  scan.host = host_new<float>(pixels_of(&scan));
  scan.host_open = host_new<float>(pixels_of(&scan));
  return scan;
}

void size_scan_free(SizeScan* scan) {
  size_band_free(&scan->band);
  for (DiscWindow& ball : scan->balls) disc_window_free(&ball);
  cudaFree(scan->d_band);
  cudaFree(scan->d_scores);
  free(scan->host);
  free(scan->host_open);
  *scan = SizeScan{};
}

SizeScanResult scan_sizes(SizeScan* scan, MirrorPad* pad, const float* image, const float* open, bool all_open) {
  begin_trials(scan, pad, image, open, all_open);
  SizeScanResult result{};
  result.share = 1;
  int best = -1;
  for (int i = 0; i < kSizes; i++) {
    if (scan->settings.only_ball && kSizeShares[i] != 1.0f) continue;
    SizeTrial trial = try_ball(scan, pad, i);
    if (!trial.usable) continue;
    result.usable = true;
    if (best < 0 || trial.excess > result.excess) {
      std::swap(result.peaks, trial.peaks);
      std::swap(result.decoys, trial.decoys);
      result.excess = trial.excess;
      result.score_unit = trial.score_unit;
      best = i;
    }
    size_trial_free(&trial);
  }
  if (best < 0) return result;
  result.share = kSizeShares[best];
  result.band_size = result.share * scan->settings.diameter;
  result.found = ball_template(result.band_size);
  if (!scan->settings.only_ball) try_mean(scan, pad, &result);
  return result;
}

void size_scan_result_free(SizeScanResult* result) {
  round_template_free(&result->found);
  peak_list_free(&result->peaks);
  peak_list_free(&result->decoys);
  *result = SizeScanResult{};
}
