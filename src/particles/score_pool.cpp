#include "particles/score_pool.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "platform/host_memory.h"

namespace {

// Share of decoys that a cutoff may let through, the deviations by which peaks must exceed them, and the share of the
// largest such number that makes the valley the better place: where the scores divide the counts hardly change.
constexpr double kMostDecoys = 0.25;
constexpr double kFewestSigmas = 5.0;
constexpr double kNearlyAsMuch = 0.985;

constexpr float kInfinity = std::numeric_limits<float>::infinity();

void merge_into(PeakList* all, const PeakList& list) {
  PeakList merged{host_new<ScorePeak>(static_cast<size_t>(all->n) + static_cast<size_t>(list.n)), all->n + list.n};
  std::merge(all->peaks, all->peaks + all->n, list.peaks, list.peaks + list.n, merged.peaks,
             [](const ScorePeak& a, const ScorePeak& b) { return a.score > b.score; });
  peak_list_free(all);
  *all = merged;
}

void merge_unbeaten(PeakList* all, const PeakList& list, const PeakList& others, int nx, float distance) {
  PeakList left = without_beaten(list, others, nx, distance);
  merge_into(all, left);
  peak_list_free(&left);
}

double sigmas(int peaks, int decoys) { return (peaks - decoys) / std::sqrt(static_cast<double>(peaks + decoys)); }

double sigmas_at(const ScorePool& pool, float score) {
  const int peaks = peaks_from(pool.left_peaks, score);
  return peaks > 0 ? sigmas(peaks, peaks_from(pool.left_decoys, score)) : 0;
}

// What the counts say, walking down the scores.
struct PoolCounts {
  double most;   // the largest number of deviations
  float at;      // its score
  float clean;   // the least score at which decoys are few enough
  float excess;  // the score of the largest excess of peaks over decoys
};

PoolCounts count_pool(const ScorePool& pool) {
  PoolCounts found{0, kInfinity, kInfinity, kInfinity};
  const PeakList& peaks = pool.left_peaks;
  int d = 0;
  int excess = 0;
  for (int i = 0; i < peaks.n; i++) {
    const float score = peaks.peaks[i].score;
    while (d < pool.left_decoys.n && pool.left_decoys.peaks[d].score >= score) d++;
    if (i + 1 < peaks.n && peaks.peaks[i + 1].score == score) continue;
    if (sigmas(i + 1, d) > found.most) {
      found.most = sigmas(i + 1, d);
      found.at = score;
    }
    if (d + 1 <= kMostDecoys * (i + 1)) found.clean = score;
    if (i + 1 - d > excess) {
      excess = i + 1 - d;
      found.excess = score;
    }
  }
  return found;
}

}  // namespace

void add_to_pool(ScorePool* pool, const PeakList& peaks, const PeakList& decoys, int nx, float distance) {
  merge_into(&pool->peaks, peaks);
  merge_unbeaten(&pool->left_peaks, peaks, decoys, nx, distance);
  merge_unbeaten(&pool->left_decoys, decoys, peaks, nx, distance);
  pool->micrographs++;
}

void score_pool_free(ScorePool* pool) {
  for (PeakList* list : {&pool->peaks, &pool->left_peaks, &pool->left_decoys}) peak_list_free(list);
  *pool = ScorePool{};
}

double pool_sigmas(const ScorePool& pool) { return count_pool(pool).most; }

ScoreCutoff pool_cutoff(const ScorePool& pool) {
  const PoolCounts counts = count_pool(pool);
  const float cutoff = std::max(counts.at, counts.clean);
  if (!(cutoff < kInfinity) || sigmas_at(pool, cutoff) < kFewestSigmas) return {kNoParticles, kInfinity, counts.excess};
  const float valley = score_valley(pool.peaks);
  if (valley > cutoff && sigmas_at(pool, valley) >= kNearlyAsMuch * sigmas_at(pool, cutoff))
    return {kValley, valley, std::min(valley, counts.excess)};
  return {kMostSigmas, cutoff, std::min(cutoff, counts.excess)};
}
