#include "math_utils.h"

#include <numeric>

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

/// d shifted and scaled to the given mean and deviation under the mask, in double precision. Leaves what they were.
std::vector<double> rescaled(const std::vector<float>& d, const std::vector<float>& mask, double to_deviation,
                             double to_mean, double* mean, double* squares) {
  double weight = 0;
  *mean = *squares = 0;
  for (size_t i = 0; i < d.size(); i++) weight += mask[i];
  for (size_t i = 0; i < d.size(); i++) *mean += static_cast<double>(mask[i]) * d[i] / weight;
  for (size_t i = 0; i < d.size(); i++) *squares += mask[i] * (d[i] - *mean) * (d[i] - *mean);
  std::vector<double> out = widened(d);
  for (double& v : out) v = (v - *mean) * to_deviation / std::sqrt(*squares / weight) + to_mean;
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
  const std::vector<float> values = random_values(n, 6, 3, 7);
  std::vector<float> mask(n);  // of three weights
  for (size_t i = 0; i < n; i++) mask[i] = static_cast<float>(i / 7 % 3) / 2;
  double mean = 0, squares = 0;
  const std::vector<double> want = rescaled(values, mask, 3, -2, &mean, &squares);
  const auto d = to_device(values), m = to_device(mask);
  EXPECT_NEAR(mean, hcuda_mean_withmask(d.get(), m.get(), n), 4e-6 * mean);
  EXPECT_NEAR(squares, hcuda_fast_submean_sumsqr_withmask(d.get(), m.get(), n), 1e-5 * squares);
  EXPECT_NEAR(std::sqrt(squares / std::accumulate(mask.begin(), mask.end(), 0.0)),
              hcuda_stdv_withmask(d.get(), m.get(), n), 1e-5 * mean);
  hcuda_norm_withmask_inplace(d.get(), m.get(), n, 3, -2);
  EXPECT_TRUE(all_near(to_host(d, n), want, 4e-5));
  const auto whole = to_device(values);
  hcuda_normz_inplace(whole.get(), n, 2, 5);
  EXPECT_TRUE(all_near(to_host(whole, n), rescaled(values, std::vector<float>(n, 1), 2, 5, &mean, &squares), 2e-5));
}

TEST(HostMask, OfSumZeroEndsTheRunAndOfATooSmallOneWarns) {
  const std::vector<float> balanced{1.0f, -1.0f, 0.0f};
  expect_refused(run_in_child([&] { hm_sum_check0(balanced.data(), 3); }),
                 fatal_line("hm_sum_check0", "math_utils", "Zero sum of mask!"));
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
