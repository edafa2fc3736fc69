#include "matching/host_scan/axis_parts.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "platform/host_memory.h"

namespace {

// Of the Kaiser window whose integral blends the mirror images: what it adds to the band beyond its main lobe is some
// 1e-4 of it (Kaiser and Schafer 1980, IEEE Trans. ASSP 28, 105).
constexpr double kBlendShape = 9;
constexpr int kShortestBlend = 16;

// Looking through the samples, in passes of a transform.
constexpr double kExamineCost = 4;

// Measured in the same unit, for all angles together: a cell's candidates, which grow with the first few angles, for each
// pixel of the template the sums that decide between them, and for each value of its spectra what is done for the micrograph.
constexpr double kCellCost = 60000;
constexpr double kSumsCost = 7;
constexpr double kMicrographCost = 96;

// The pixels around one sample; of one sum, what goes with the template's pixels and what doesn't.
constexpr double kCandidateCost = 800;
constexpr double kSumPixelCost = 0.55;
constexpr double kSumCost = 500;

// Part of a spectrum of `side` values that a band takes up, widened by a blend over `length` pixels: the main lobe of a
// Kaiser window.
double blended_width(double band, int length) {
  return std::min(1.0, 2 * (band + std::sqrt(kBlendShape * kBlendShape + M_PI * M_PI) / (2 * M_PI * length)));
}

// The largest step from which the samples of a side still hold a spectrum of this width.
int step_of_side(int side, double width) {
  for (int step = kMostStep; step > 1; step--)
    if (side % step == 0 && lane_plan_handles(side / step) && width * step <= 1) return step;
  return 1;
}

AxisPart part_new(int first, int count, int before, int side) {
  AxisPart part{};
  part.first = first;
  part.count = count;
  part.before = before;
  part.plan = lane_plan_new(side);
  part.step = 1;
  part.samples = lane_plan_new(side);
  part.taps = host_new<MirrorTap>(static_cast<size_t>(side));
  part.width = 1;
  return part;
}

// The i-th pixel behind that which the first correlation begins at.
MirrorTap* tap_at(const AxisPart& part, int i) { return part.taps + (part.before + i) % part.plan.n; }

// Correlations first to first + count - 1 by the pixels that they need, wrapped around, and zeros.
AxisPart wrapped_part(int first, int count, int n, int t, int before, int side) {
  AxisPart part = part_new(first, count, before, side);
  const int needed = side == n ? n : count + t - 1;
  for (int i = 0; i < side; i++) {
    const int pixel = (first + i) % n;
    *tap_at(part, i) = {pixel, pixel, i < needed ? 1.0f : 0.0f, 0.0f};
  }
  return part;
}

// Correlations that don't wrap: behind the image's last pixel follow its mirror images, from the last pixel backwards
// blended into those that lead up to the first.
AxisPart blended_part(int n, int t, int side, int step, double width) {
  AxisPart part = part_new(0, n - t + 1, kReach * step, side);
  part.width = width;
  part.step = step;
  lane_plan_free(&part.samples);
  part.samples = lane_plan_new(side / step);
  for (int i = 0; i < n; i++) *tap_at(part, i) = {i, i, 1.0f, 0.0f};
  const int length = side - n;
  double total = 0;
  const auto window = [&](int i) {
    const double at = (2.0 * i + 1) / length - 1;
    return std::cyl_bessel_i(0.0, kBlendShape * std::sqrt(1 - at * at));
  };
  for (int i = 0; i < length; i++) total += window(i);
  double sum = 0;
  for (int i = 0; i < length; i++) {
    const double at_first = (sum + window(i) / 2) / total;
    sum += window(i);
    // A blend longer than the image goes on in the mirror image's own mirror image.
    const int from_last = i % (2 * n);
    const int from_first = (length - 1 - i) % (2 * n);
    *tap_at(part, n + i) = {from_last < n ? n - 1 - from_last : from_last - n,
                            from_first < n ? from_first : 2 * n - 1 - from_first, static_cast<float>(1 - at_first),
                            static_cast<float>(at_first)};
  }
  return part;
}

}  // namespace

AxisParts axis_parts_whole(int n, int t) {
  const int side = lane_plan_handles(n) ? n : cheapest_length(n + t - 1, 2 * (n + t), cost_of_length);
  AxisParts axis{};
  axis.n_parts = 1;
  axis.parts[0] = wrapped_part(0, n, n, t, 0, side);
  return axis;
}

AxisParts axis_parts_split(int n, int t, double band) {
  const auto width = [&](int side) { return blended_width(band, side - n); };
  const auto step = [&](int side) { return step_of_side(side, width(side)); };
  // Of each angle's work the transforms along the rows go with the samples both ways, those along the columns with the
  // width and the samples, and the templates' own with the width and the side.
  // The samples before the first correlation and behind the last come from the blend, too.
  const int least = n + std::max(kShortestBlend, (2 * kReach + 2) * kMostStep - t);
  const int side = cheapest_length(least, 2 * n, [&](int candidate) {
    const int samples = candidate / step(candidate);
    return samples * (samples * (lane_plan_cost(samples) * 2 + kExamineCost)) +
           0.5 * width(candidate) * candidate * cost_of_length(candidate);
  });
  AxisParts axis{};
  axis.n_parts = 2;
  axis.parts[0] = blended_part(n, t, side, step(side), width(side));
  axis.parts[1] =
      wrapped_part(n - t + 1, t - 1, n, t, kReach, cheapest_length(2 * t - 2 + 2 * kReach, 4 * t, cost_of_length));
  return axis;
}

void axis_parts_free(AxisParts* axis) {
  for (AxisPart& part : axis->parts) {
    lane_plan_free(&part.plan);
    lane_plan_free(&part.samples);
    free(part.taps);
  }
  *axis = AxisParts{};
}

double score_maps_cost(const AxisParts& x, const AxisParts& y) {
  // Rows once; columns once back and, shared by two turns, once forth.
  return y.parts[0].count * cost_of_length(x.parts[0].plan.n) +
         1.5 * x.parts[0].plan.n * cost_of_length(y.parts[0].plan.n);
}

double sampling_cost(const AxisParts& x, const AxisParts& y) {
  double cost = 0;
  for (const AxisPart& down : y.parts) {
    for (const AxisPart& across : x.parts) {
      const int rows = down.count / down.step;
      const double columns = across.width * across.plan.n;
      cost += rows * across.samples.n * (lane_plan_cost(across.samples.n) + kExamineCost) +
              columns * (cost_of_length(down.samples.n) + 0.5 * cost_of_length(down.plan.n));
    }
  }
  return cost;
}

double search_micrograph_cost(const AxisParts& x, const AxisParts& y) {
  return kMicrographCost * (x.parts[0].plan.n + x.parts[1].plan.n) * (y.parts[0].plan.n + y.parts[1].plan.n);
}

double candidate_cost() { return kCandidateCost; }

double sum_cost(double T_pixels) { return kSumCost + kSumPixelCost * T_pixels; }

double peak_search_cost(const AxisParts& x, const AxisParts& y, int n_angles, int cell, double T_pixels,
                        int n_templates) {
  const double pixels = static_cast<double>(x.parts[0].plan.n) * y.parts[0].plan.n;
  const double cells = pixels / (static_cast<double>(cell) * cell);
  // Where the spectrum leaves room in the samples, errors are small and candidates few.
  const double fullness = std::max(x.parts[0].width * x.parts[0].step, y.parts[0].width * y.parts[0].step);
  const double candidates = 0.2 + 0.8 * std::pow(fullness, 4);
  return sampling_cost(x, y) + cells * candidates * (kCellCost + kSumsCost * T_pixels) / (n_angles + 8) +
         search_micrograph_cost(x, y) / n_templates / n_angles;
}
