#include "particles/score_cutoff.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "particles/point_grid.h"
#include "platform/host_memory.h"

namespace {

// Points at which the density of scores is taken.
constexpr int kDensityPoints = 300;

// Share of decoys that a cutoff may let through, and the deviations by which peaks must exceed them: at a cutoff in the
// valley, which the scores' shape supports, and at one that the counts alone have chosen.
constexpr double kMostDecoys = 0.25;
constexpr double kValleySigma = 2.5;
constexpr double kBalanceSigma = 5.0;

constexpr float kInfinity = std::numeric_limits<float>::infinity();

double deviation_of(const PeakList& list) {
  double sum = 0;
  double squares = 0;
  for (int i = 0; i < list.n; i++) sum += static_cast<double>(list.peaks[i].score);
  const double mean = sum / list.n;
  for (int i = 0; i < list.n; i++) squares += std::pow(static_cast<double>(list.peaks[i].score) - mean, 2);
  return std::sqrt(squares / list.n);
}

// Density of the scores at kDensityPoints places from `from` on, `step` apart.
void score_density(const PeakList& peaks, double from, double step, double width, double* density) {
  std::fill_n(density, kDensityPoints, 0.0);
  for (int i = 0; i < peaks.n; i++) {
    const auto score = static_cast<double>(peaks.peaks[i].score);
    const int first = std::max(0, static_cast<int>((score - 6 * width - from) / step));
    const int last = std::min(kDensityPoints - 1, static_cast<int>((score + 6 * width - from) / step) + 1);
    for (int k = first; k <= last; k++) density[k] += std::exp(-0.5 * std::pow((from + k * step - score) / width, 2));
  }
}

// The least point between the two highest modes, -1 where there are not two.
int valley_between_modes(const double* density) {
  int highest = -1;
  int second = -1;
  for (int k = 0; k < kDensityPoints; k++) {
    const bool mode =
        (k == 0 || density[k] > density[k - 1]) && (k == kDensityPoints - 1 || density[k] >= density[k + 1]);
    if (!mode) continue;
    if (highest < 0 || density[k] > density[highest]) {
      second = highest;
      highest = k;
    } else if (second < 0 || density[k] > density[second]) {
      second = k;
    }
  }
  if (second < 0) return -1;
  const auto range = std::minmax(highest, second);
  return static_cast<int>(std::min_element(density + range.first, density + range.second) - density);
}

// Otsu's threshold: divides the scores so that the variance between the two groups is largest. Lies between the groups.
float otsu_threshold(const PeakList& peaks) {
  double all = 0;
  for (int i = 0; i < peaks.n; i++) all += static_cast<double>(peaks.peaks[i].score);
  double upper = 0;
  double best = -1;
  float threshold = 0;
  for (int i = 0; i + 1 < peaks.n; i++) {
    upper += static_cast<double>(peaks.peaks[i].score);
    const double above = upper / (i + 1);
    const double below = (all - upper) / (peaks.n - i - 1);
    const double between = static_cast<double>(i + 1) * (peaks.n - i - 1) * (above - below) * (above - below);
    if (between > best) {
      best = between;
      threshold = (peaks.peaks[i].score + peaks.peaks[i + 1].score) / 2;
    }
  }
  return threshold;
}

// Walks down the scores of the peaks: how many peaks and decoys have at least the score of peak i.
struct Counts {
  int peaks, decoys;
};

Counts counts_at(const PeakList& peaks, const PeakList& decoys, float score) {
  return {peaks_from(peaks, score), peaks_from(decoys, score)};
}

double sigmas(Counts c) {
  return c.peaks + c.decoys > 0 ? (c.peaks - c.decoys) / std::sqrt(static_cast<double>(c.peaks + c.decoys)) : 0;
}

// The scores that the counts suggest.
struct CountedScores {
  float clean;     // the least at which decoys are few enough; infinite where they never are
  float balanced;  // of the best expected balance of precision and recall
  float least;     // of the largest excess of peaks over decoys
};

CountedScores counted_scores(const PeakList& peaks, const PeakList& decoys) {
  CountedScores found{kInfinity, kInfinity, kInfinity};
  int excess = 0;
  int d = 0;
  for (int i = 0; i < peaks.n; i++) {
    while (d < decoys.n && decoys.peaks[d].score >= peaks.peaks[i].score) d++;
    if (i + 1 < peaks.n && peaks.peaks[i + 1].score == peaks.peaks[i].score) continue;
    if (d + 1 <= kMostDecoys * (i + 1)) found.clean = peaks.peaks[i].score;
    if (i + 1 - d > excess) {
      excess = i + 1 - d;
      found.least = peaks.peaks[i].score;
    }
  }
  double best = 0;
  d = 0;
  for (int i = 0; i < peaks.n; i++) {
    while (d < decoys.n && decoys.peaks[d].score >= peaks.peaks[i].score) d++;
    const double balance = 2.0 * (i + 1 - d) / (i + 1 + excess);
    if (balance > best) {
      best = balance;
      found.balanced = peaks.peaks[i].score;
    }
  }
  return found;
}

ScoreCutoff cutoff_of_counts(const PeakList& peaks, const PeakList& decoys, float valley) {
  const CountedScores counted = counted_scores(peaks, decoys);
  const float by_valley = std::max(valley, counted.clean);
  if (by_valley < kInfinity && sigmas(counts_at(peaks, decoys, by_valley)) >= kValleySigma)
    return {kValley, by_valley, std::min(by_valley, counted.least)};
  const float by_balance = std::max(counted.balanced, counted.clean);
  if (by_balance < kInfinity && sigmas(counts_at(peaks, decoys, by_balance)) >= kBalanceSigma)
    return {kBestBalance, by_balance, std::min(by_balance, counted.least)};
  return {kNoParticles, kInfinity, counted.least};
}

}  // namespace

PeakList without_beaten(const PeakList& list, const PeakList& others, int nx, float distance) {
  PeakList left{host_new<ScorePeak>(static_cast<size_t>(list.n)), 0};
  int rows = 1;
  for (const PeakList* one : {&list, &others})
    for (int i = 0; i < one->n; i++) rows = std::max(rows, one->peaks[i].pixel / nx + 1);
  PointGrid higher = point_grid_new(nx, rows, distance, others.n);
  int next = 0;
  for (int i = 0; i < list.n; i++) {
    for (; next < others.n && others.peaks[next].score > list.peaks[i].score; next++)
      point_grid_add(&higher, others.peaks[next].pixel % nx, others.peaks[next].pixel / nx);
    if (!is_point_near(higher, list.peaks[i].pixel % nx, list.peaks[i].pixel / nx))
      left.peaks[left.n++] = list.peaks[i];
  }
  point_grid_free(&higher);
  return left;
}

float score_valley(const PeakList& peaks) {
  if (peaks.n < 2) return 0;
  const double width = 0.7 * 1.06 * deviation_of(peaks) * std::pow(peaks.n, -0.2);
  if (!(width > 0)) return peaks.peaks[0].score;
  const double from = static_cast<double>(peaks.peaks[peaks.n - 1].score) - 3 * width;
  const double step = (static_cast<double>(peaks.peaks[0].score) + 3 * width - from) / (kDensityPoints - 1);
  double density[kDensityPoints];
  score_density(peaks, from, step, width, density);
  const int valley = valley_between_modes(density);
  return valley < 0 ? otsu_threshold(peaks) : static_cast<float>(from + valley * step);
}

ScoreCutoff find_cutoff(const PeakList& peaks, const PeakList& decoys, int nx, float distance) {
  PeakList counted_peaks = without_beaten(peaks, decoys, nx, distance);
  PeakList counted_decoys = without_beaten(decoys, peaks, nx, distance);
  const ScoreCutoff found = cutoff_of_counts(counted_peaks, counted_decoys, score_valley(peaks));
  peak_list_free(&counted_peaks);
  peak_list_free(&counted_decoys);
  return found;
}

double excess_of_peaks(const PeakList& peaks, const PeakList& decoys) {
  double sum = 0;
  double best = 0;
  for (int i = 0; i < std::min(peaks.n, decoys.n); i++) {
    sum += static_cast<double>(peaks.peaks[i].score) - static_cast<double>(decoys.peaks[i].score);
    best = std::max(best, sum);
  }
  return best;
}

const char* cutoff_rule_name(CutoffRule rule) {
  switch (rule) {
    case kValley:
      return "valley of the scores";
    case kBestBalance:
      return "best balance against decoys";
    case kGivenCutoff:
      return "--cc_cutoff";
    case kMostSigmas:
      return "peaks stand out most against decoys";
    case kSessionCutoff:
      return "learned from the session";
    default:
      return "no particles";
  }
}
