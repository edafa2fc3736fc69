#include "lists/selection.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace {

double squared_distance(double dx, double dy) { return dx * dx + dy * dy; }

bool passes(float value, float least, float most) {
  return (std::isnan(least) || value >= least) && (std::isnan(most) || value <= most);
}

bool passes_limits(const PickFacts& pick, const SelectionRules& rules) {
  return passes(pick.score, rules.min_score, rules.max_score) &&
         passes(pick.average, rules.min_average, rules.max_average) &&
         passes(pick.sigma, rules.min_sigma, rules.max_sigma);
}

bool is_dropped(const PickFacts& pick, const MicrographEdits& edits) {
  const auto here = [&](const Point& point) {
    return static_cast<float>(point.x) == pick.x && static_cast<float>(point.y) == pick.y;
  };
  const auto covered = [&](const Brush& brush) {
    return squared_distance(pick.x - brush.x, pick.y - brush.y) <= brush.radius * brush.radius;
  };
  return std::any_of(edits.dropped.begin(), edits.dropped.end(), here) ||
         std::any_of(edits.brushed.begin(), edits.brushed.end(), covered);
}

// Numbers of the picks left, best score first.
std::vector<size_t> best_first(const std::vector<PickFacts>& picks, const std::vector<bool>& left) {
  std::vector<size_t> order;
  for (size_t i = 0; i < picks.size(); i++)
    if (left[i]) order.push_back(i);
  const auto rank = [&](size_t i) { return std::isnan(picks[i].score) ? -HUGE_VALF : picks[i].score; };
  std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return rank(a) > rank(b); });
  return order;
}

std::vector<size_t> thinned(const std::vector<PickFacts>& picks, const std::vector<size_t>& order, double thin) {
  std::vector<size_t> kept;
  for (const size_t i : order) {
    const auto near = [&](size_t j) {
      return squared_distance(static_cast<double>(picks[i].x) - picks[j].x,
                              static_cast<double>(picks[i].y) - picks[j].y) < thin * thin;
    };
    if (std::none_of(kept.begin(), kept.end(), near)) kept.push_back(i);
  }
  return kept;
}

}  // namespace

std::vector<bool> keep_picks(const std::vector<PickFacts>& picks, const SelectionRules& rules,
                             const MicrographEdits& edits) {
  std::vector<bool> kept(picks.size(), false);
  if (edits.left_out) return kept;
  for (size_t i = 0; i < picks.size(); i++) kept[i] = passes_limits(picks[i], rules) && !is_dropped(picks[i], edits);
  if (rules.thin <= 0 && rules.most < 0) return kept;
  std::vector<size_t> order = best_first(picks, kept);
  if (rules.thin > 0) order = thinned(picks, order, rules.thin);
  if (rules.most >= 0) order.resize(std::min(order.size(), static_cast<size_t>(rules.most)));
  std::fill(kept.begin(), kept.end(), false);
  for (const size_t i : order) kept[i] = true;
  return kept;
}
