#include "transforms/any_length_fft.h"

#include <cmath>
#include <cstdlib>

#include "platform/host_memory.h"
#include "platform/loops.h"

namespace {

// The length of at least `least` values that lane_fft transforms soonest.
int convolution_length(int least) { return cheapest_length(least, least + least / 4 - 1, cost_of_length); }

float* chirp_new(int n) {
  auto* chirp = host_new<float>(2 * static_cast<size_t>(n));
  for (long k = 0; k < n; k++) {
    // Reduced to one turn in whole numbers, so that large squares lose no digits.
    const double angle = -M_PI * static_cast<double>(k * k % (2L * n)) / n;
    chirp[2 * k] = static_cast<float>(std::cos(angle));
    chirp[2 * k + 1] = static_cast<float>(std::sin(angle));
  }
  return chirp;
}

// The conjugate chirp at the distances -(n - 1) .. n - 1, wrapped into the convolution's length, transformed.
float* inverse_chirp_new(const LanePlan* plan, const float* chirp, int n) {
  const auto length = static_cast<size_t>(plan->n);
  LaneValue* in = lane_values_new(4 * length);
  LaneValue* out = in + length;
  for (size_t k = 0; k < static_cast<size_t>(n); k++) {
    LaneValue& value = in[k];
    value.re[0] = chirp[2 * k];
    value.im[0] = -chirp[2 * k + 1];
    if (k > 0) in[length - k] = value;
  }
  lane_fft(plan, in, out, out + length);
  auto* inverse = host_new<float>(2 * length);
  for (size_t k = 0; k < length; k++) {
    inverse[2 * k] = out[k].re[0] / static_cast<float>(length);
    inverse[2 * k + 1] = out[k].im[0] / static_cast<float>(length);
  }
  free(in);
  return inverse;
}

// out = in times the factors.
KERNEL_LOOP void turn_values(const LaneValue* in, LaneValue* out, const float* factors, size_t n) {
  for (size_t k = 0; k < n; k++) {
    const LaneValue v = in[k];
    const float c = factors[2 * k];
    const float s = factors[2 * k + 1];
    out[k].re = v.re * c - v.im * s;
    out[k].im = v.re * s + v.im * c;
  }
}

// The same with the result's parts exchanged.
KERNEL_LOOP void turn_and_exchange(LaneValue* values, const float* factors, size_t n) {
  for (size_t k = 0; k < n; k++) {
    const LaneValue v = values[k];
    const float c = factors[2 * k];
    const float s = factors[2 * k + 1];
    values[k].re = v.re * s + v.im * c;
    values[k].im = v.re * c - v.im * s;
  }
}

// The same with the given values' parts exchanged.
KERNEL_LOOP void exchange_and_turn(const LaneValue* in, LaneValue* out, const float* factors, size_t n) {
  for (size_t k = 0; k < n; k++) {
    const LaneValue v = in[k];
    const float c = factors[2 * k];
    const float s = factors[2 * k + 1];
    out[k].re = v.im * c - v.re * s;
    out[k].im = v.im * s + v.re * c;
  }
}

}  // namespace

AnyLengthPlan any_length_plan_new(int n) {
  if (lane_plan_handles(n)) return {n, lane_plan_new(n), nullptr, nullptr};
  AnyLengthPlan plan{n, lane_plan_new(convolution_length(2 * n - 1)), chirp_new(n), nullptr};
  plan.inverse = inverse_chirp_new(&plan.plan, plan.chirp, n);
  return plan;
}

void any_length_plan_free(AnyLengthPlan* plan) {
  lane_plan_free(&plan->plan);
  free(plan->chirp);
  free(plan->inverse);
  *plan = AnyLengthPlan{};
}

void any_length_fft(const AnyLengthPlan* plan, LaneValue* in, LaneValue* out, LaneValue* scratch) {
  if (!plan->chirp) return lane_fft(&plan->plan, in, out, scratch);
  const auto n = static_cast<size_t>(plan->n);
  turn_values(in, in, plan->chirp, n);
  lane_fft_of_few(&plan->plan, in, n, static_cast<size_t>(plan->plan.n), 0, out, scratch);
  turn_and_exchange(out, plan->inverse, static_cast<size_t>(plan->plan.n));
  lane_fft(&plan->plan, out, in, scratch);
  exchange_and_turn(in, out, plan->chirp, n);
}
