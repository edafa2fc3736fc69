#include "run/learned_picks.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "platform/host_memory.h"
#include "run/auto_picks.h"

namespace {

// A micrograph has particles where chance alone reaches its number of peaks more rarely.
constexpr double kRareChance = 0.01;

// With so many peaks it needs no others: its own scores then say more about it than the session's.
constexpr int kEnoughAlone = 40;

// The probability of `count` or more where `expected` are expected (Poisson).
double chance_of(int count, double expected) {
  double rest = 1;
  double term = std::exp(-expected);
  for (int k = 0; k < count && rest > 0; k++) {
    rest -= term;
    term *= expected / (k + 1);
  }
  return std::max(rest, 0.0);
}

RoundTemplate in_pixels(const RoundTemplate& found, float apix) {
  const auto n = static_cast<size_t>(found.n);
  RoundTemplate t{host_new<float>(n), found.n, found.step / apix};
  std::copy_n(found.values, n, t.values);
  return t;
}

// Peaks that reach the session's cutoff and no higher decoy stands beside.
int count_peaks(const Run* run, const PeakList& peaks, const PeakList& decoys, float apart) {
  PeakList left = without_beaten(peaks, decoys, run->sizes.work_nx, apart);
  const int count = peaks_from(left, run->learned.cutoff);
  peak_list_free(&left);
  return count;
}

}  // namespace

void learned_picks_free(LearnedPicks* learned) {
  round_template_free(&learned->found);
  *learned = LearnedPicks{};
}

bool shares_learned(const Run* run) { return run->learned.rule != kNoParticles; }

SizeScanResult match_learned(Run* run) {
  const LearnedPicks& learned = run->learned;
  AutoBuffers& autos = run->autos;
  const float apix = static_cast<float>(run->para.shrink) * run->para.apixM;
  const float size = learned.share * autos.sizes.settings.diameter;
  SizeScanResult result{};
  result.share = learned.share;
  result.learned = learned.mean;
  result.band_size = learned.band_size / apix;
  RoundTemplate t = in_pixels(learned.found, apix);
  begin_trials(&autos.sizes, &run->pad, run->device.d_mic, autos.d_open, is_all_open(run));
  const SizeTrial trial = try_round_template(&autos.sizes, &run->pad, t, size, result.band_size);
  if (!trial.usable) {
    round_template_free(&t);
    return result;
  }
  result.usable = true;
  result.found = t;
  result.excess = trial.excess;
  result.score_unit = trial.score_unit;
  result.peaks = trial.peaks;
  result.decoys = trial.decoys;
  return result;
}

bool has_enough_alone(const Run* run, const SizeScanResult& matched) {
  const float size = matched.share * run->autos.sizes.settings.diameter;
  return count_peaks(run, matched.peaks, matched.decoys, size) >= kEnoughAlone;
}

ScoreCutoff session_cutoff(const Run* run, const PeakList& peaks, const PeakList& decoys, float apart) {
  const LearnedPicks& learned = run->learned;
  const int count = count_peaks(run, peaks, decoys, apart);
  if (count > 0 && chance_of(count, learned.decoys) < kRareChance)
    return {kSessionCutoff, learned.cutoff, learned.least};
  return {kNoParticles, std::numeric_limits<float>::infinity(), learned.least};
}
