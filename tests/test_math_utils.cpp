#include "math_utils.h"

#include "test_numeric.h"
#include "test_support.h"

namespace {

/// Values over many powers of two, so that every order of addition gives bits of its own.
std::vector<float> uneven_values(size_t n, unsigned seed) {
  std::vector<float> values = random_values(n, seed);
  for (size_t i = 0; i < n; i++) values[i] = std::ldexp(values[i], static_cast<int>((i * 7919) % 17) - 8);
  return values;
}

/// The sum of `count` slots from `first` on as a tree: the two halves, each summed so. Slots past the end are 0.
float tree_sum(const std::vector<float>& values, size_t first, size_t count) {
  if (count == 1) return first < values.size() ? values[first] : 0.0f;
  return tree_sum(values, first, count / 2) + tree_sum(values, first + count / 2, count / 2);
}

/// Tree sums of blocks of 1024, then of the block sums, until one is left.
float pairing_sum(std::vector<float> values) {
  do {
    std::vector<float> sums;
    for (size_t first = 0; first < values.size(); first += 1024) sums.push_back(tree_sum(values, first, 1024));
    values = sums;
  } while (values.size() > 1);
  return values[0];
}

/// Weighted mean and standard deviation in double precision.
struct Statistics {
  double weight = 0, mean = 0, deviation = 0;
};

Statistics statistics(const std::vector<float>& d, const std::vector<float>& mask) {
  Statistics s;
  for (size_t i = 0; i < d.size(); i++) {
    s.weight += mask[i];
    s.mean += static_cast<double>(mask[i]) * d[i];
  }
  s.mean /= s.weight;
  for (size_t i = 0; i < d.size(); i++) s.deviation += mask[i] * (d[i] - s.mean) * (d[i] - s.mean) / s.weight;
  s.deviation = std::sqrt(s.deviation);
  return s;
}

std::vector<float> mask_of_three_weights(size_t n) {
  std::vector<float> mask(n);
  for (size_t i = 0; i < n; i++) mask[i] = static_cast<float>(i / 7 % 3) / 2;
  return mask;
}

/// d shifted and scaled from the given mean and deviation to the new ones.
std::vector<double> rescaled(const std::vector<float>& d, const Statistics& from, double sigma, double mean) {
  std::vector<double> out = widened(d);
  for (double& v : out) v = (v - from.mean) * sigma / from.deviation + mean;
  return out;
}

}  // namespace

using BlockSum = DeviceTest;
using Normalisation = DeviceTest;

TEST_F(BlockSum, EqualsThePairingTreeBitForBitOnAnyNumberOfCores) {
  for (const size_t n : {1, 2, 3, 1023, 1024, 1025, 958 * 958, 1 << 20, (1 << 20) + 1}) {
    SCOPED_TRACE(n);
    const std::vector<float> values = uneven_values(n, static_cast<unsigned>(n));
    const float want = pairing_sum(values);
    const auto d = to_device(values);
    for (const int cores : {1, 2, 3}) {
      const Cores limit(cores);
      EXPECT_TRUE(same_bits({hcuda_fast_sum(d.get(), n)}, {want})) << cores << " cores";
    }
    EXPECT_TRUE(same_bits(to_host(d, n), values)) << "the sum changed its values";
    EXPECT_TRUE(same_bits({hcuda_fast_sum_inplace(d.get(), n)}, {want}));
    const size_t blocks = (n + 1023) / 1024;
    const std::vector<float> after = to_host(d, n);
    EXPECT_TRUE(same_bits({after.begin() + blocks, after.end()}, {values.begin() + blocks, values.end()}))
        << "the sum in place wrote past its block sums";
    if (n == 1025) hcuda_release_sum_scratch();
  }
}

// A float sum of n terms in the pairing tree is off by at most 20 roundings of 6e-8 of the sum of the magnitudes; the
// tolerances below are that with a margin of a few.

TEST_F(Normalisation, MovesEveryPixelByTheStatisticsUnderTheMask) {
  const size_t n = 61 * 67;
  const std::vector<float> values = random_values(n, 6, 3, 7), mask = mask_of_three_weights(n);
  const Statistics want = statistics(values, mask);
  const auto d = to_device(values), m = to_device(mask);
  EXPECT_NEAR(want.mean, hcuda_mean_withmask(d.get(), m.get(), n), 4e-6 * want.mean);
  EXPECT_NEAR(want.deviation, hcuda_stdv_withmask(d.get(), m.get(), n), 1e-5 * want.deviation);
  const double about_mean = want.deviation * want.deviation * want.weight;
  EXPECT_NEAR(about_mean, hcuda_fast_submean_sumsqr_withmask(d.get(), m.get(), n), 1e-5 * about_mean);
  hcuda_norm_withmask_inplace(d.get(), m.get(), n, 3, -2);
  EXPECT_TRUE(all_near(to_host(d, n), rescaled(values, want, 3, -2), 4e-5));
  const auto whole = to_device(values);
  hcuda_normz_inplace(whole.get(), n, 2, 5);
  EXPECT_TRUE(all_near(to_host(whole, n), rescaled(values, statistics(values, std::vector<float>(n, 1)), 2, 5), 2e-5));
}

TEST(HostMask, OfSumZeroEndsTheRunAndOfATooSmallOneWarns) {
  const std::vector<float> balanced{1.0f, -1.0f, 0.0f};
  const ChildResult result = run_in_child([&] { hm_sum_check0(balanced.data(), 3); });
  EXPECT_EQ(1, result.status);
  EXPECT_EQ(fatal_line("hm_sum_check0", "math_utils", "Zero sum of mask!"), result.out);
  const auto said = [](float v) { return output_of([&] { EXPECT_EQ(v, hm_sum_check0(&v, 1)); }); };
  for (const float small : {1e-7f, -5.0f})
    EXPECT_EQ(warning_line("hm_sum_check0", "math_utils", "Too small sum of mask!"), said(small));
  EXPECT_EQ("", said(1.1e-6f));
}

TEST(HostExtremes, ComeInOnePassAndLeaveOutNaN) {
  float max = 0, min = 0, mean = 0;
  const std::vector<float> values{2.0f, kNaN, -7.0f, 9.0f, 3.0f};
  max_min_mean_value(values.data(), 5, max, min, mean);
  EXPECT_EQ(9.0f, max);
  EXPECT_EQ(-7.0f, min);
  EXPECT_TRUE(std::isnan(mean));
}
