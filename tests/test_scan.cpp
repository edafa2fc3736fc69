#include <algorithm>

#include "quorlin56.h"
#include "test_numeric.h"
#include "test_support.h"

namespace {

/// A micrograph, its mask and a template.
struct Scene {
  int nx, ny, T_nx, T_ny;
  std::vector<float> mic, mask, T;
  float radius = 4.5f;

  size_t pixels() const { return mic.size(); }
};

struct Maps {
  std::vector<float> ccmax, psi;
};

/// Angles of a scan, degrees.
struct Angles {
  float start, stop, step;
};

/// A scan of the one angle a.
Angles only(float a) { return {a, a + 1, 360}; }

constexpr float kUntouched = -77;

ScanWay way_under_test = kDeviceTransforms;  // set by the fixture

const std::vector<ScanWay> kWays =
    kOnGpu ? std::vector<ScanWay>{kDeviceTransforms} : std::vector<ScanWay>{kDeviceTransforms, kHostScan};

/// A random scene, a quarter of it masked. With a rim of zeros around the template it doesn't matter on which side of
/// the template's edge a rounded source position falls.
Scene random_scene(int nx, int ny, int T_nx, int T_ny, bool zero_rim) {
  const auto seed = static_cast<unsigned>(nx + 7 * T_nx + 13 * T_ny);
  const size_t n = static_cast<size_t>(nx) * ny;
  Scene scene{nx,
              ny,
              T_nx,
              T_ny,
              random_values(n, seed),
              std::vector<float>(n, 1.0f),
              random_values(static_cast<size_t>(T_nx) * T_ny, seed + 1, -0.5f, 1)};
  for (size_t i = 0; i < n / 4; i++) scene.mask[i] = 0;
  for (int y = 0; zero_rim && y < T_ny; y++)
    for (int x = 0; x < T_nx; x++)
      if (x == 0 || y == 0 || x == T_nx - 1 || y == T_ny - 1) scene.T[static_cast<size_t>(y) * T_nx + x] = 0;
  return scene;
}

void scan_with(ScanWorkspace* ws, const Scene& scene, const Angles& angles, int keep_psi, Maps* maps) {
  const auto mic = to_device(scene.mic), mask = to_device(scene.mask), T = to_device(scene.T);
  const auto ccmax = unwritten(scene.pixels()), psi = to_device(std::vector<float>(scene.pixels(), kUntouched));
  const std::string dots = output_of([&] {
    quorlin_transform_micrograph(ws, mic.get());
    EXPECT_EQ(0, quorlin_ccmax_psi_by_one_template(ws, mic.get(), mask.get(), ccmax.get(), psi.get(), keep_psi, T.get(),
                                                   scene.radius, angles.start, angles.stop, angles.step));
  });
  const auto count = static_cast<size_t>(count_scan_angles(angles.start, angles.stop, angles.step));
  EXPECT_EQ(std::string(count, '.') + "\n", dots) << "a dot for each angle";
  EXPECT_TRUE(same_bits(to_host(mic, scene.pixels()), scene.mic)) << "the scan changed the micrograph";
  EXPECT_TRUE(same_bits(to_host(T, scene.T.size()), scene.T)) << "the scan changed the template";
  *maps = {to_host(ccmax, scene.pixels()), to_host(psi, scene.pixels())};
}

ScanWorkspace workspace_for(const Scene& scene, const Angles& angles) {
  return scan_workspace_new(scene.nx, scene.ny, scene.T_nx, scene.T_ny,
                            count_scan_angles(angles.start, angles.stop, angles.step), kFullBand, 0, way_under_test);
}

Maps scanned(const Scene& scene, const Angles& angles, int keep_psi = 1) {
  ScanWorkspace ws = workspace_for(scene, angles);
  Maps maps;
  scan_with(&ws, scene, angles, keep_psi, &maps);
  scan_workspace_free(&ws);
  return maps;
}

double score_divisor(const Scene& scene) {
  double energy = 0, weight = 0, template_energy = 0;
  for (size_t i = 0; i < scene.pixels(); i++) {
    energy += static_cast<double>(scene.mask[i]) * scene.mic[i] * scene.mic[i];
    weight += scene.mask[i];
  }
  for (const float t : scene.T) template_energy += static_cast<double>(t) * t;
  return std::sqrt(template_energy * std::acos(-1.0) * scene.radius * scene.radius * energy / weight);
}

/// The score of every pixel for one angle: the sum of products with the turned template lying over the pixel, wrapped
/// around the edges of the micrograph.
std::vector<double> direct_scores(const Scene& scene, double angle) {
  const int off_x = scene.nx / 2 - (scene.nx - scene.T_nx) / 2, off_y = scene.ny / 2 - (scene.ny - scene.T_ny) / 2;
  const double divisor = score_divisor(scene);
  std::vector<double> scores(scene.pixels(), 0.0);
  for (int j = 0; j < scene.T_ny; j++) {
    for (int i = 0; i < scene.T_nx; i++) {
      const Place at = source_of_turn(i, j, scene.T_nx, scene.T_ny, angle);
      const double t = bilinear(scene.T, scene.T_nx, scene.T_ny, at.x, at.y) / divisor;
      for (int y = 0; y < scene.ny; y++) {
        const int row = (y + j - off_y + scene.ny) % scene.ny;
        for (int x = 0; x < scene.nx; x++)
          scores[static_cast<size_t>(y) * scene.nx + x] +=
              t * scene.mic[static_cast<size_t>(row) * scene.nx + (x + i - off_x + scene.nx) % scene.nx];
      }
    }
  }
  return scores;
}

/// Scores are of the order of 1. Float transforms are off by some 1e-7, float source positions of the rotation by some
/// 1e-5 of a pixel, a template's contrast.
constexpr double kScoreRounding = 1e-5;

/// Checks both maps against the scores of each angle: the largest score, and an angle that has it.
void expect_best_of(const Maps& maps, const std::vector<float>& angles,
                    const std::vector<std::vector<double>>& scores) {
  std::vector<double> best = scores[0];
  for (const auto& one : scores)
    for (size_t i = 0; i < best.size(); i++) best[i] = std::max(best[i], one[i]);
  EXPECT_TRUE(all_near(maps.ccmax, best, kScoreRounding));
  std::vector<double> at_psi;
  for (size_t i = 0; i < best.size(); i++) {
    const auto found = std::find(angles.begin(), angles.end(), maps.psi[i]);
    at_psi.push_back(found == angles.end() ? -1e30 : scores[static_cast<size_t>(found - angles.begin())][i]);
  }
  EXPECT_TRUE(all_near(at_psi, best, 2 * kScoreRounding)) << "the angle is not that of the largest score";
}

}  // namespace

class Scan : public testing::TestWithParam<ScanWay> {
 protected:
  void SetUp() override {
    REQUIRE_DEVICE();
    way_under_test = GetParam();
  }
};

INSTANTIATE_TEST_SUITE_P(Ways, Scan, testing::ValuesIn(kWays), [](const testing::TestParamInfo<ScanWay>& way) {
  return way.param == kHostScan ? "HostLanes" : "DeviceTransforms";
});

using ScanUpdate = DeviceTest;

TEST_P(Scan, AgreesWithDirectCorrelationInDoublePrecisionAtEveryAngle) {
  const int sizes[][4] = {{30, 24, 9, 8}, {24, 24, 8, 8}, {22, 34, 7, 11}, {26, 20, 10, 13}, {40, 32, 12, 9}};
  for (const auto& size : sizes) {
    SCOPED_TRACE(testing::Message() << size[0] << " x " << size[1] << " by " << size[2] << " x " << size[3]);
    const Scene scene = random_scene(size[0], size[1], size[2], size[3], true);
    std::vector<float> angles;
    std::vector<std::vector<double>> scores;
    for (int k = 0; k < 72; k++) {
      const auto angle = static_cast<float>(5 * k);
      angles.push_back(angle);
      scores.push_back(direct_scores(scene, static_cast<double>(angle)));
      const Cores one(1);  // more would wait for each other longer than they work
      EXPECT_TRUE(all_near(scanned(scene, only(angle)).ccmax, scores.back(), kScoreRounding)) << angle << " degrees";
    }
    expect_best_of(scanned(scene, {0, 359, 5}), angles, scores);
  }
}

TEST_P(Scan, TakesTemplatesUpToTheSizeOfTheMicrographWithTheirRims) {
  for (const int side : {1, 2, 15, 19, 20}) {
    const Scene scene = random_scene(26, 20, side, side, false);
    const Maps maps = scanned(scene, {0, 359, 360});
    EXPECT_TRUE(all_near(maps.ccmax, direct_scores(scene, 0), kScoreRounding)) << side;
    EXPECT_TRUE(same_bits(maps.psi, std::vector<float>(scene.pixels(), 0.0f)));
  }
}

TEST_P(Scan, GivesTheSameInBatchesOfAnglesAsOneByOne) {
  const Scene scene = random_scene(24, 20, 7, 8, false);
  std::vector<float> angles;
  std::vector<std::vector<double>> scores;
  for (const size_t n : {1, 2, 3, 4, 5, 7, 8, 9, 16, 17, kMaxScanBatch, kMaxScanBatch + 1}) {
    while (angles.size() < n) {
      angles.push_back(static_cast<float>(angles.size()) * 5.5f);
      scores.push_back(widened(scanned(scene, only(angles.back())).ccmax));
    }
    for (const int cores : {1, 2, 3}) {
      const Cores limit(cores);
      SCOPED_TRACE(testing::Message() << n << " angles on " << cores << " cores");
      expect_best_of(scanned(scene, {0, angles.back() + 1, 5.5f}), angles, scores);
    }
  }
}

TEST_P(Scan, LeavesNothingBehindForTheNextTemplateOrMicrograph) {
  const Scene first = random_scene(24, 20, 7, 8, false);
  Scene second = first;
  second.mic = random_values(first.pixels(), 99);
  second.T = random_values(first.T.size(), 98);
  const Angles many{0, 359, 20}, few{5, 300, 60};  // 18 and 5 angles
  ScanWorkspace ws = workspace_for(first, many);
  Maps again;
  scan_with(&ws, first, many, 1, &again);
  scan_with(&ws, second, few, 1, &again);
  const Maps fresh = scanned(second, few);
  EXPECT_TRUE(all_near(again.ccmax, fresh.ccmax, 1e-6));
  EXPECT_TRUE(all_near(again.psi, fresh.psi, 0));
  scan_with(&ws, first, many, 1, &again);
  EXPECT_TRUE(same_bits(again.ccmax, scanned(first, many).ccmax)) << "the same scan gave other bits";
  scan_workspace_free(&ws);
}

TEST_P(Scan, DoesNotDependOnTheNumberOfCores) {
  const Scene scene = random_scene(60, 50, 16, 16, false);
  const Angles angles{0, 359, 15};
  const Cores one(1);
  const Maps want = scanned(scene, angles);
  for (const int cores : {2, 3, 4}) {
    const Cores limit(cores);
    const Maps got = scanned(scene, angles);
    EXPECT_TRUE(same_bits(got.ccmax, want.ccmax)) << cores;
    EXPECT_TRUE(same_bits(got.psi, want.psi)) << cores;
  }
}

TEST_P(Scan, StaysAtTheFirstAngleWhereAllTieAndGivesNoScoresWithNaN) {
  Scene scene = random_scene(24, 20, 7, 8, false);
  std::fill(scene.mic.begin(), scene.mic.end(), 0.0f);
  EXPECT_TRUE(same_bits(scanned(scene, {10, 359, 20}).psi, std::vector<float>(scene.pixels(), 10.0f)));
  scene.mic[100] = kNaN;
  for (const float score : scanned(scene, {10, 359, 20}).ccmax) ASSERT_FALSE(score > -kInfinity) << score;
}

TEST_P(Scan, LeavesThePsiMapAloneUnlessItIsWanted) {
  const Scene scene = random_scene(24, 20, 7, 8, false);
  const Maps with = scanned(scene, {0, 359, 30}), without = scanned(scene, {0, 359, 30}, 0);
  EXPECT_TRUE(all_near(without.ccmax, with.ccmax, 0));
  EXPECT_TRUE(same_bits(without.psi, std::vector<float>(scene.pixels(), kUntouched)));
}

TEST(ScanAngleCount, StopsBeforeTheBoundAndAddsInFloat) {
  EXPECT_EQ(72, count_scan_angles(0, 359, 5));
  EXPECT_EQ(52, count_scan_angles(0, 359, 7));
  EXPECT_EQ(359, count_scan_angles(0, 359, 1));
  EXPECT_EQ(1, count_scan_angles(0, 359, 360));
  EXPECT_EQ(1, count_scan_angles(0, 359, 359));
  EXPECT_EQ(0, count_scan_angles(359, 359, 5));
  int in_float = 0;
  float angle = 0;
  while (angle < 359) {
    angle += 0.001f;
    in_float++;
  }
  EXPECT_EQ(in_float, count_scan_angles(0, 359, 0.001f));
  EXPECT_NE(359000, in_float);  // what start + i * step would give
}

TEST_F(ScanUpdate, KeepsTheFirstOfEqualsAndPassesOverNaN) {
  const int nx = 5, ny = 1;
  // One pixel a column, one angle a row. Columns: the middle is best; a tie; NaN everywhere; NaN first; -infinity.
  const std::vector<float> cc{1, 3, kNaN, kNaN,  -kInfinity,  //
                              2, 3, kNaN, -5.0f, -kInfinity,  //
                              1, 2, kNaN, kNaN,  -kInfinity};
  ScanAngles angles{};
  angles.psi[0] = 10;
  angles.psi[1] = 20;
  angles.psi[2] = 30;
  const auto d = to_device(cc), ccmax = to_device(std::vector<float>(5, -kInfinity));
  const auto psi = to_device(std::vector<float>(5, kUntouched));
  const std::vector<float> best{2, 3, -kInfinity, -5, -kInfinity};
  hcuda_update_ccmax_psi_2d(ccmax.get(), d.get(), psi.get(), angles, 3, nx, ny);
  EXPECT_TRUE(same_bits(to_host(ccmax, 5), best));
  EXPECT_TRUE(same_bits(to_host(psi, 5), {20, 10, kUntouched, 20, kUntouched}));
  const auto alone = to_device(std::vector<float>(5, -kInfinity));
  hcuda_update_ccmax_2d(alone.get(), d.get(), 3, nx, ny);
  EXPECT_TRUE(same_bits(to_host(alone, 5), best));
}
