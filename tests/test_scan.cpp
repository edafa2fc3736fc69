#include <algorithm>

#include "test_support_scans.h"

namespace {

/// A scan of the one angle a.
Angles only(float a) { return {a, a + 1, 360}; }

const std::vector<ScanWay> kWays =
    kOnGpu ? std::vector<ScanWay>{kDeviceTransforms} : std::vector<ScanWay>{kDeviceTransforms, kHostScan};

ScanWay way_under_test = kDeviceTransforms;  // set by the fixture

struct Scan : testing::TestWithParam<ScanWay> {
  void SetUp() override {
    REQUIRE_DEVICE();
    way_under_test = GetParam();
  }
};

INSTANTIATE_TEST_SUITE_P(Ways, Scan, testing::ValuesIn(kWays), [](const testing::TestParamInfo<ScanWay>& way) {
  return way.param == kHostScan ? "HostLanes" : "DeviceTransforms";
});

ScanWorkspace workspace_for(const Scene& s, const Angles& angles) {
  return scan_workspace_new(s.nx, s.ny, s.T_nx, s.T_ny, angles.count(), kFullBand, 0, way_under_test);
}

Maps scanned(const Scene& scene, const Angles& angles, int keep_psi = 1) {
  ScanWorkspace ws = workspace_for(scene, angles);
  Maps maps = maps_of(&ws, scene, angles, keep_psi);
  scan_workspace_free(&ws);
  return maps;
}

/// The score of every pixel for one angle: the sum of products with the turned template lying over the pixel, wrapped
/// around the edges of the micrograph.
std::vector<double> direct_scores(const Scene& s, double angle) {
  double energy = 0, weight = 0, template_energy = 0;
  for (size_t i = 0; i < s.pixels(); i++) {
    energy += static_cast<double>(s.mask[i]) * s.mic[i] * s.mic[i];
    weight += s.mask[i];
  }
  for (const float t : s.T) template_energy += static_cast<double>(t) * t;
  const double divisor = std::sqrt(template_energy * std::acos(-1.0) * s.radius * s.radius * energy / weight);
  const int off_x = s.nx / 2 - (s.nx - s.T_nx) / 2, off_y = s.ny / 2 - (s.ny - s.T_ny) / 2;
  std::vector<double> scores(s.pixels(), 0.0);
  for (int j = 0; j < s.T_ny; j++) {
    for (int i = 0; i < s.T_nx; i++) {
      const Place at = source_of_turn(i, j, s.T_nx, s.T_ny, angle);
      const double t = bilinear(s.T, s.T_nx, s.T_ny, at.x, at.y) / divisor;
      for (int y = 0; y < s.ny; y++)
        for (int x = 0; x < s.nx; x++)
          scores[pixel_index(x, y, s.nx)] +=
              t * s.mic[pixel_index((x + i - off_x + s.nx) % s.nx, (y + j - off_y + s.ny) % s.ny, s.nx)];
    }
  }
  return scores;
}

/// Scores are of the order of 1. Float transforms are off by some 1e-7, float source positions of the rotation by some
/// 1e-5 of a pixel, a template's contrast.
constexpr double kScoreRounding = 1e-5;

/// Checks both maps of a scan of the first n multiples of 5 degrees against the scores of each angle: the largest score,
/// and an angle that has it.
void expect_best_of(const Maps& maps, const std::vector<std::vector<double>>& scores, size_t n) {
  std::vector<double> best(maps.ccmax.size(), -1e30), at_psi;
  for (size_t i = 0; i < best.size(); i++) {
    for (size_t k = 0; k < n; k++) best[i] = std::max(best[i], scores[k][i]);
    const auto k = static_cast<size_t>(maps.psi[i] / 5);
    at_psi.push_back(k < n && static_cast<float>(5 * k) == maps.psi[i] ? scores[k][i] : -1e30);
  }
  EXPECT_TRUE(all_near(maps.ccmax, best, kScoreRounding));
  EXPECT_TRUE(all_near(at_psi, best, 2 * kScoreRounding)) << "the angle is not that of the largest score";
}

}  // namespace

TEST_P(Scan, AgreesWithDirectCorrelationInDoublePrecisionAtEveryAngleInBatchesOfAnyNumber) {
  const int sizes[][4] = {{30, 24, 9, 8}, {24, 24, 8, 8}, {22, 34, 7, 11}, {26, 20, 10, 13}, {40, 32, 12, 9}};
  for (const auto& size : sizes) {
    SCOPED_TRACE(testing::Message() << size[0] << " x " << size[1] << " by " << size[2] << " x " << size[3]);
    const Scene scene = random_scene(size[0], size[1], size[2], size[3], true);
    std::vector<std::vector<double>> scores;
    for (int k = 0; k < 72; k++) {
      scores.push_back(direct_scores(scene, 5.0 * k));
      const Cores one(1);  // more would wait for each other longer than they work
      EXPECT_TRUE(all_near(scanned(scene, only(5.0f * k)).ccmax, scores.back(), kScoreRounding)) << 5 * k << " degrees";
    }
    for (const int n : {2, 3, 4, 5, 7, 8, 9, 16, 17, kMaxScanBatch, kMaxScanBatch + 1, 72}) {
      const Cores cores(1 + n % 3);
      SCOPED_TRACE(n);
      expect_best_of(scanned(scene, {0, 5.0f * n - 1, 5}), scores, static_cast<size_t>(n));
    }
  }
}

TEST_P(Scan, TakesTemplatesUpToTheSizeOfTheMicrographWithTheirRims) {
  for (const int side : {1, 2, 15, 19, 20}) {
    const Scene scene = random_scene(26, 20, side, side, false);
    const Maps maps = scanned(scene, only(0));
    EXPECT_TRUE(all_near(maps.ccmax, direct_scores(scene, 0), kScoreRounding)) << side;
    EXPECT_TRUE(same_bits(maps.psi, std::vector<float>(scene.pixels(), 0.0f)));
  }
}

TEST_P(Scan, LeavesNothingBehindForTheNextTemplateOrMicrograph) {
  const Scene first = random_scene(24, 20, 7, 8, false);
  Scene second = first;
  second.mic = random_values(first.pixels(), 99);
  second.T = random_values(first.T.size(), 98);
  const Angles many{0, 359, 20}, few{5, 300, 60};  // 18 and 5 angles
  ScanWorkspace ws = workspace_for(first, many);
  const Maps before = maps_of(&ws, first, many), between = maps_of(&ws, second, few), fresh = scanned(second, few);
  EXPECT_TRUE(all_near(between.ccmax, fresh.ccmax, 1e-6));
  EXPECT_TRUE(same_bits(between.psi, fresh.psi));
  EXPECT_TRUE(same_bits(before.ccmax, maps_of(&ws, first, many).ccmax)) << "the same scan gave other bits";
  scan_workspace_free(&ws);
}

TEST_P(Scan, StaysAtTheFirstAngleOfATieGivesNoScoresWithNaNAndLeavesThePsiMapAloneUnlessItIsWanted) {
  Scene scene = random_scene(24, 20, 7, 8, false);
  const Maps with = scanned(scene, {0, 359, 30}), without = scanned(scene, {0, 359, 30}, 0);
  EXPECT_TRUE(all_near(without.ccmax, with.ccmax, 0));
  EXPECT_TRUE(same_bits(without.psi, std::vector<float>(scene.pixels(), kUntouched)));
  std::fill(scene.mic.begin(), scene.mic.end(), 0.0f);
  EXPECT_TRUE(same_bits(scanned(scene, {10, 359, 20}).psi, std::vector<float>(scene.pixels(), 10.0f)));
  scene.mic[100] = kNaN;
  for (const float score : scanned(scene, {10, 359, 20}).ccmax) ASSERT_FALSE(score > -kInfinity) << score;
}

TEST(ScanAngleCount, StopsBeforeTheBoundAndAddsInFloat) {
  EXPECT_EQ(72, count_scan_angles(0, 359, 5));
  EXPECT_EQ(1, count_scan_angles(0, 359, 359));
  EXPECT_EQ(0, count_scan_angles(359, 359, 5));
  int in_float = 0;
  float angle = 0;
  for (; angle < 359; in_float++) angle += 0.001f;
  EXPECT_EQ(in_float, count_scan_angles(0, 359, 0.001f));
  EXPECT_NE(359000, in_float);  // what start + i * step would give
}

using ScanUpdate = DeviceTest;

TEST_F(ScanUpdate, KeepsTheFirstOfEqualsAndPassesOverNaN) {
  // One pixel a column, one angle a row. Columns: the middle is best; a tie; NaN everywhere; NaN first; -infinity.
  const auto cc = to_device(std::vector<float>{1, 3, kNaN, kNaN, -kInfinity,   //
                                               2, 3, kNaN, -5.0f, -kInfinity,  //
                                               1, 2, kNaN, kNaN, -kInfinity});
  const ScanAngles angles{{10, 20, 30}};
  const auto ccmax = to_device(std::vector<float>(5, -kInfinity)), psi = to_device(std::vector<float>(5, kUntouched));
  hcuda_update_ccmax_psi_2d(ccmax.get(), cc.get(), psi.get(), angles, 3, 5, 1);
  EXPECT_TRUE(same_bits(to_host(ccmax, 5), {2, 3, -kInfinity, -5, -kInfinity}));
  EXPECT_TRUE(same_bits(to_host(psi, 5), {20, 10, kUntouched, 20, kUntouched}));
}
