// The host's own transforms.
#include "transforms/any_length_fft.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "test_numeric.h"
#include "transforms/wide_lanes.h"

namespace {

/// Eight random arrays of n complex values; those between the first `low` and the last `high` are 0.
std::vector<LaneValue> random_lanes(int n, int low, int high = 0) {
  const std::vector<float> values = random_values(pixel_index(0, n, 2 * kLanes), static_cast<unsigned>(n));
  std::vector<LaneValue> lanes(static_cast<size_t>(n), LaneValue{});
  for (int i = 0; i < n * kLanes; i++) {
    if (i / kLanes >= low && i / kLanes < n - high) continue;
    lanes[i / kLanes].re[i % kLanes] = values[2 * i];
    lanes[i / kLanes].im[i % kLanes] = values[2 * i + 1];
  }
  return lanes;
}

/// Checks some lanes of out against the definition. Values are of about sqrt(n), float passes off by some 1e-7 of that.
void expect_transformed(const std::vector<LaneValue>& in, const LaneValue* out) {
  const int n = static_cast<int>(in.size());
  for (const int lane : {0, 3, kLanes - 1}) {
    std::vector<Complex> image;
    for (const LaneValue& v : in) image.emplace_back(v.re[lane], v.im[lane]);
    const std::vector<Complex> want = fourier_sums(image, n, 1, -1);
    for (int i = 0; i < n; i++)
      ASSERT_LE(std::abs(want[i] - Complex(out[i].re[lane], out[i].im[lane])), 3e-6 * std::sqrt(n)) << i << " of " << n;
  }
}

/// Runs a transform of the first `low` and the last `high` of n values and checks it; what is between mustn't matter, and
/// neither the width of the vectors that it goes by.
template <class Transform>
void check_transform(int n, int low, int high, Transform transform) {
  const std::vector<LaneValue> in = random_lanes(n, low, high);
  LanePlan plan = lane_plan_new(n);
  LaneValue* buffers = lane_values_new(4 * in.size());
  LaneValue* out = buffers + n;
  std::vector<LaneValue> wide(in.size());
  for (const bool is_wide : {true, false}) {
    set_wide_lanes(is_wide);
    std::copy(in.begin(), in.end(), buffers);
    std::fill(buffers + low, buffers + n - high, LaneValue{Lane{} + 7, Lane{} + 7});
    transform(&plan, buffers, out, out + n);
    if (is_wide) std::copy_n(out, n, wide.begin());
  }
  set_wide_lanes(true);
  expect_transformed(in, out);
  EXPECT_EQ(0, memcmp(wide.data(), out, in.size() * sizeof(LaneValue))) << n << " values, " << low << " and " << high;
  free(buffers);
  lane_plan_free(&plan);
}

}  // namespace

TEST(LaneFft, HandlesTheLengthsWithoutPrimesAboveFive) {
  for (const int n : {1, 2, 3, 5, 8, 15, 960, 1024, 4096, 46080}) EXPECT_TRUE(lane_plan_handles(n)) << n;
  for (const int n : {0, -8, 7, 14, 958, 1034, 65537}) EXPECT_FALSE(lane_plan_handles(n)) << n;
}

TEST(LaneFft, AgreesWithTheDefinitionByVectorsOfAnyWidth) {
  if (!wide_lanes_possible()) printf("No AVX-512: only the narrower vectors are tested.\n");
  std::vector<int> lengths = {960, 1024, 1080, 1440};  // and all up to 320
  for (int n = 1; n <= 320; n++)
    if (lane_plan_handles(n)) lengths.push_back(n);
  for (const int n : lengths) check_transform(n, n, 0, lane_fft);
}

TEST(LaneFft, OfFewValuesIsThatOfAnArrayFilledUpWithZerosInTheValuesThatAreWanted) {
  for (const int n : {8, 15, 64, 90, 100, 240, 288}) {
    for (const int few : {1, 2, n / 8, n / 5, n / 3 + 1, n / 2, n / 2 + 1, n - 1}) {
      for (const auto& [low, high] : {std::pair{n, 0}, {1, 0}, {n / 6, n / 6 - 1}, {n / 7, n / 4}}) {
        const auto first = static_cast<size_t>(low), last = static_cast<size_t>(high);
        check_transform(n, few, 0, [&](const LanePlan* plan, LaneValue* in, LaneValue* out, LaneValue* scratch) {
          lane_fft_of_few(plan, in, static_cast<size_t>(few), static_cast<size_t>(n), 0, out, scratch);
          const std::vector<LaneValue> all(out, out + n);
          std::fill_n(out, n, LaneValue{Lane{} + 9, Lane{} + 9});
          lane_fft_of_few(plan, in, static_cast<size_t>(few), first, last, out, scratch);
          std::copy(all.data() + first, all.data() + all.size() - last, out + first);  // what isn't wanted
        });
      }
    }
  }
}

TEST(LaneFft, OfOuterValuesIsThatOfAnArrayWithZerosBetween) {
  for (const int n : {1, 6, 8, 12, 16, 90, 96, 160, 225, 288})
    for (const auto& [low, high] : {std::pair{1, 0}, {n / 4, n / 4}, {n / 8 + 1, n / 8}, {n / 3, n / 2}, {n, 0}}) {
      if (low + high > n) continue;
      const auto first = static_cast<size_t>(low), last = static_cast<size_t>(high);
      check_transform(n, low, high, [&](const LanePlan* plan, LaneValue* in, LaneValue* out, LaneValue* scratch) {
        lane_fft_of_outer(plan, in, first, last, out, scratch);
      });
    }
}

// Lengths with large primes go by a convolution of two transforms of twice the length: a few times the rounding.
TEST(LaneFft, OfLengthsWithLargePrimesAgreesWithTheDefinition) {
  for (const int n : {7, 22, 98, 479, 958}) {
    const std::vector<LaneValue> in = random_lanes(n, n);
    AnyLengthPlan plan = any_length_plan_new(n);
    const auto room = static_cast<size_t>(plan.plan.n);
    LaneValue* buffers = lane_values_new(4 * room);
    std::copy(in.begin(), in.end(), buffers);
    any_length_fft(&plan, buffers, buffers + room, buffers + 2 * room);
    expect_transformed(in, buffers + room);
    free(buffers);
    any_length_plan_free(&plan);
  }
}
