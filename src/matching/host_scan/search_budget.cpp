#include "matching/host_scan/search_budget.h"

#include <algorithm>

namespace {

// What a search that is given up may cost, as part of all templates' maps.
constexpr double kInVain = 0.25;

// What taking candidates in a trial may cost, as part of the template's maps.
constexpr double kTrial = 0.025;

// More samples than these are not taken in a trial, or than so many for each cell: their pixels take memory.
constexpr size_t kTrialCandidates = 120000;
constexpr size_t kTrialCandidatesOfCell = 16;

// Turns of a pair with half turns.
constexpr double kAnglesOfPair = 4;

// How many candidates later turns leave, as part of those that a trial leaves: peaks rise from turn to turn.
constexpr double kLater = 0.15;

// Part of the maps' cost that what is left to do must stay below.
constexpr double kPays = 0.85;

}  // namespace

SearchBudget search_budget_new(const AxisParts& x, const AxisParts& y, const AxisParts& whole_x,
                               const AxisParts& whole_y, int n_angles, double T_pixels, size_t n_cells) {
  SearchBudget budget{};
  budget.is_limited = true;
  budget.maps = n_angles * score_maps_cost(whole_x, whole_y);
  budget.samples = n_angles * sampling_cost(x, y);
  budget.candidate = candidate_cost();
  budget.sum = sum_cost(T_pixels);
  const size_t most = std::max(kTrialCandidates, kTrialCandidatesOfCell * n_cells);
  budget.trial_candidates = std::min(static_cast<size_t>(kTrial * budget.maps / budget.candidate), most);
  return budget;
}

bool trial_is_cheap(const SearchBudget& budget, double of_micrograph, int n_angles, int n_templates) {
  const double trial = budget.samples * std::min(1.0, kAnglesOfPair / n_angles) + kTrial * budget.maps;
  return of_micrograph + trial <= kInVain * n_templates * budget.maps;
}

bool rest_pays(const SearchBudget& budget, double trial, size_t n_left) {
  const double later = (1 - trial) / trial * kLater;
  const auto left = static_cast<double>(n_left);
  const double rest = (1 - trial) * budget.samples + left * (1 + later) * budget.sum + left * later * budget.candidate;
  return rest <= kPays * budget.maps;
}
