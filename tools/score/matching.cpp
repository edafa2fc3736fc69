#include "score/matching.h"

#include <algorithm>
#include <cmath>
#include <tuple>

namespace {

struct Pair {
  double square;  // of the distance
  long pick, particle;
};

bool closer(const Pair& a, const Pair& b) {
  return std::tie(a.square, a.pick, a.particle) < std::tie(b.square, b.pick, b.particle);
}

/// Numbers of the particles in the order of x.
std::vector<long> order_by_x(const std::vector<TrueParticle>& truth) {
  std::vector<long> order(truth.size());
  for (size_t i = 0; i < order.size(); i++) order[i] = static_cast<long>(i);
  std::sort(order.begin(), order.end(), [&](long a, long b) {
    const double xa = truth[static_cast<size_t>(a)].x, xb = truth[static_cast<size_t>(b)].x;
    return xa != xb ? xa < xb : a < b;
  });
  return order;
}

std::vector<Pair> pairs_within(const std::vector<TrueParticle>& truth, const std::vector<Pick>& picks,
                               double tolerance) {
  const std::vector<long> order = order_by_x(truth);
  std::vector<Pair> pairs;
  for (size_t i = 0; i < picks.size(); i++) {
    auto next = std::lower_bound(order.begin(), order.end(), picks[i].x - tolerance,
                                 [&](long a, double x) { return truth[static_cast<size_t>(a)].x < x; });
    for (; next != order.end(); ++next) {
      const TrueParticle& particle = truth[static_cast<size_t>(*next)];
      const double dx = picks[i].x - particle.x, dy = picks[i].y - particle.y;
      if (-dx > tolerance) break;
      const double square = dx * dx + dy * dy;
      if (square <= tolerance * tolerance) pairs.push_back({square, static_cast<long>(i), *next});
    }
  }
  return pairs;
}

}  // namespace

std::vector<long> match_picks(const std::vector<TrueParticle>& truth, const std::vector<Pick>& picks,
                              double tolerance) {
  std::vector<Pair> pairs = pairs_within(truth, picks, tolerance);
  std::sort(pairs.begin(), pairs.end(), closer);
  std::vector<long> matching(picks.size(), -1);
  std::vector<bool> taken(truth.size(), false);
  for (const Pair& pair : pairs) {
    const auto pick = static_cast<size_t>(pair.pick), particle = static_cast<size_t>(pair.particle);
    if (matching[pick] >= 0 || taken[particle]) continue;
    matching[pick] = pair.particle;
    taken[particle] = true;
  }
  return matching;
}

Score score_matching(const std::vector<TrueParticle>& truth, const std::vector<Pick>& picks,
                     const std::vector<long>& matching, const std::vector<Area>* areas) {
  Score score = {};
  for (const TrueParticle& particle : truth) (particle.contamination == kClean ? score.particles : score.flagged)++;
  score.picks = static_cast<long>(picks.size());
  score.in_areas = areas ? 0 : -1;
  double dx = 0, dy = 0, distance = 0;
  for (size_t i = 0; i < picks.size(); i++) {
    if (areas && contamination_at(*areas, picks[i].x, picks[i].y) != kClean) score.in_areas++;
    if (matching[i] < 0) continue;
    const TrueParticle& particle = truth[static_cast<size_t>(matching[i])];
    if (particle.contamination != kClean) {
      score.matched_flagged++;
      continue;
    }
    score.matched++;
    dx += picks[i].x - particle.x;
    dy += picks[i].y - particle.y;
    distance += std::hypot(picks[i].x - particle.x, picks[i].y - particle.y);
  }
  const auto matched = static_cast<double>(score.matched);
  if (score.picks > 0) score.precision = matched / static_cast<double>(score.picks);
  if (score.particles > 0) score.recall = matched / static_cast<double>(score.particles);
  if (score.matched > 0) score.f1 = 2 * score.precision * score.recall / (score.precision + score.recall);
  score.dx = score.matched > 0 ? dx / matched : NAN;
  score.dy = score.matched > 0 ? dy / matched : NAN;
  score.distance = score.matched > 0 ? distance / matched : NAN;
  return score;
}
