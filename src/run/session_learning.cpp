#include "run/session_learning.h"

#include <algorithm>

#include "math_utils.h"
#include "run/auto_picks.h"

namespace {

float ball_size(const Run* run, int i) { return kSizeShares[i] * run->autos.sizes.settings.diameter; }

float mean_size(const Run* run) { return kMeanSize * ball_size(run, run->learning->best); }

// Takes a trial's peaks and frees it.
void pool_trial(const Run* run, ScorePool* pool, SizeTrial trial, float size) {
  if (trial.usable) add_to_pool(pool, trial.peaks, trial.decoys, run->sizes.work_nx, size);
  size_trial_free(&trial);
}

void look_for_size(Run* run) {
  for (int i = 0; i < kSizes; i++)
    pool_trial(run, &run->learning->balls[i], try_ball(&run->autos.sizes, &run->pad, i), ball_size(run, i));
}

void look_for_mean(Run* run) {
  SessionLearning* learning = run->learning;
  SizeScan* scan = &run->autos.sizes;
  SizeTrial trial = try_ball(scan, &run->pad, learning->best);
  const int count = peaks_from(trial.peaks, learning->mean_from);
  if (count > 0 && band_to_host(scan, &run->pad, mean_size(run)))
    add_to_radial_sums(&learning->sums, scan->host, scan->nx, scan->ny, trial.peaks, count);
  size_trial_free(&trial);
}

void look_for_peaks(Run* run) {
  SessionLearning* learning = run->learning;
  const float size = ball_size(run, learning->best);
  pool_trial(run, &learning->of_mean,
             try_round_template(&run->autos.sizes, &run->pad, learning->mean, size, mean_size(run)), size);
}

// The ball whose peaks stand out most, and from which score its peaks are averaged.
void choose_ball(SessionLearning* learning) {
  double most = -1;
  for (int i = 0; i < kSizes; i++) {
    const double found = pool_sigmas(learning->balls[i]);
    if (found > most) learning->best = i;
    most = std::max(most, found);
  }
  const ScorePool& ball = learning->balls[learning->best];
  const ScoreCutoff cutoff = pool_cutoff(ball);
  learning->mean_from = cutoff.rule == kNoParticles ? score_valley(ball.peaks) : cutoff.cutoff;
  const int fewest = std::min(kFewestAveraged, ball.peaks.n);
  if (fewest > 0) learning->mean_from = std::min(learning->mean_from, ball.peaks.peaks[fewest - 1].score);
}

}  // namespace

void take_into_learning(Run* run) {
  AutoBuffers& autos = run->autos;
  if (run->para.dont_invertT) hcuda_invert_inplace(run->device.d_mic, work_pixels(run));
  begin_trials(&autos.sizes, &run->pad, run->device.d_mic, autos.d_open, is_all_open(run));
  const auto look = run->learning->look;
  if (look == kLookForSize) look_for_size(run);
  if (look == kLookForMean) look_for_mean(run);
  if (look == kLookForPeaks) look_for_peaks(run);
}

void end_look(Run* run) {
  SessionLearning* learning = run->learning;
  if (learning->look == kLookForSize) {
    choose_ball(learning);
    learning->sums = radial_sums_new(mean_size(run));
  } else if (learning->look == kLookForMean) {
    learning->mean = mean_of_sums(learning->sums, mean_size(run));
  }
  learning->look++;
}

LearnedPicks end_learning(Run* run) {
  SessionLearning* learning = run->learning;
  const ScorePool& ball = learning->balls[learning->best];
  const bool mean = pool_sigmas(learning->of_mean) > pool_sigmas(ball);
  const ScorePool& pool = mean ? learning->of_mean : ball;
  const float apix = static_cast<float>(run->para.shrink) * run->para.apixM;
  const float size = ball_size(run, learning->best);
  const ScoreCutoff cutoff = pool_cutoff(pool);
  LearnedPicks learned{};
  learned.diameter = run->para.diameter;
  learned.apix = run->para.apixM;
  learned.bright = run->para.dont_invertT != 0;
  learned.share = kSizeShares[learning->best];
  learned.mean = mean;
  learned.band_size = apix * (mean ? mean_size(run) : size);
  learned.found = mean ? learning->mean : ball_template(size);
  if (mean) learning->mean = RoundTemplate{};
  learned.found.step *= apix;
  learned.rule = cutoff.rule;
  learned.cutoff = cutoff.cutoff;
  learned.least = cutoff.least;
  learned.micrographs = pool.micrographs;
  learned.peaks = peaks_from(pool.left_peaks, cutoff.cutoff);
  // One more than counted, as the micrographs are few.
  learned.decoys = (peaks_from(pool.left_decoys, cutoff.cutoff) + 1.0) / std::max(1, pool.micrographs);
  return learned;
}

void session_learning_free(SessionLearning* learning) {
  for (ScorePool& pool : learning->balls) score_pool_free(&pool);
  score_pool_free(&learning->of_mean);
  if (learning->sums.sums) radial_sums_free(&learning->sums);
  round_template_free(&learning->mean);
  *learning = SessionLearning{};
}
