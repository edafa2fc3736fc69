// What a search may cost before it is given up for maps. Where scores lie closer together than the bounds of interpolation
// every pixel and angle is a candidate, and the sums over pixels cost many times what maps would. So a template's first
// pair of turns is a trial: how many candidates it leaves tells what the others will cost. Everything is counted in work,
// never in time, and the trial's candidates depend on nothing but the micrograph and the template: so do the decisions.
#pragma once

#include <cstddef>

#include "matching/host_scan/axis_parts.h"

/// Work, in the unit of axis_parts.h.
struct SearchBudget {
  bool is_limited;          // false: the search is wanted whatever it costs
  double maps;              // a template by maps
  double samples;           // a template's transforms and samples by search
  double candidate;         // taking the pixels around one sample
  double sum;               // one sum over a template's pixels
  size_t trial_candidates;  // samples that may be taken in the trial
};

/// The budget of searches over the axes x and y, in n_cells cells, for what maps over the whole axes would do.
SearchBudget search_budget_new(const AxisParts& x, const AxisParts& y, const AxisParts& whole_x,
                               const AxisParts& whole_y, int n_angles, double T_pixels, size_t n_cells);

/// Whether a search can be tried: what is done for the micrograph and in a trial is so little of what n_templates cost by
/// maps that it doesn't matter if it was in vain.
bool trial_is_cheap(const SearchBudget& budget, double of_micrograph, int n_angles, int n_templates);

/// Whether the rest of a template's search costs less than its maps, after a trial of the part `trial` of its turns that has
/// left n_left pixels and angles for sums.
bool rest_pays(const SearchBudget& budget, double trial, size_t n_left);
