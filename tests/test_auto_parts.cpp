// The parts of picking without tuning: robust statistics, peaks, cutoffs, bands, the map of ice.
#include <algorithm>
#include <cmath>

#include "compute/robust_statistics.h"
#include "conditioning/robust_ice.h"
#include "conditioning/size_band.h"
#include "particles/score_cutoff.h"
#include "quorlin56.h"
#include "templates/round_template.h"
#include "test_numeric.h"
#include "test_support.h"
#include "test_support_pad_ways.h"

namespace {

PeakList list_of(const std::vector<ScorePeak>& peaks) {
  auto* copy = static_cast<ScorePeak*>(malloc((peaks.size() + 1) * sizeof(ScorePeak)));
  std::copy(peaks.begin(), peaks.end(), copy);
  return {copy, static_cast<int>(peaks.size())};
}

/// Peaks of normally distributed scores, `apart` pixels from each other in a row of nx, from the highest down.
PeakList normal_scores(std::mt19937* random, int n, double mean, double deviation, int nx, int row) {
  std::normal_distribution<double> normal(mean, deviation);
  std::vector<ScorePeak> peaks;
  for (int i = 0; i < n; i++) peaks.push_back({static_cast<float>(normal(*random)), row * nx + 10 * i});
  std::sort(peaks.begin(), peaks.end(), [](const ScorePeak& a, const ScorePeak& b) { return a.score > b.score; });
  return list_of(peaks);
}

PeakList joined(PeakList a, PeakList b) {
  std::vector<ScorePeak> all(a.peaks, a.peaks + a.n);
  all.insert(all.end(), b.peaks, b.peaks + b.n);
  std::sort(all.begin(), all.end(), [](const ScorePeak& x, const ScorePeak& y) { return x.score > y.score; });
  peak_list_free(&a);
  peak_list_free(&b);
  return list_of(all);
}

}  // namespace

TEST(RobustStatistics, AreTheOrderStatisticsOfTheSampledRowsWhateverTheThreads) {
  const int nx = 1031, ny = 1030;
  std::vector<float> d = random_values(static_cast<size_t>(nx) * ny, 5, -3, 9), mask(d.size(), 1.0f);
  for (size_t i = 0; i < d.size(); i += 7) mask[i] = 0;
  for (size_t i = 3; i < d.size(); i += 11) d[i] = i % 2 ? kNaN : -1e30f;
  std::vector<float> kept, off;
  for (int y = 0; y < ny; y += kSampledRows)
    for (size_t i = static_cast<size_t>(y) * nx; i < static_cast<size_t>(y + 1) * nx; i++)
      if (mask[i] != 0 && d[i] == d[i]) kept.push_back(d[i]);
  std::sort(kept.begin(), kept.end());
  const float median = kept[(kept.size() - 1) / 2];
  for (const float v : kept) off.push_back(std::abs(v - median));
  std::sort(off.begin(), off.end());
  for (const int threads : {1, 3}) {
    omp_set_num_threads(threads);
    const RobustScale scale = robust_scale(d.data(), mask.data(), nx, ny);
    EXPECT_EQ(median, scale.median);
    EXPECT_EQ(1.4826f * off[(off.size() - 1) / 2], scale.deviation);
    EXPECT_EQ(kept.size(), scale.count);
    EXPECT_EQ(kept[static_cast<size_t>(0.95 * static_cast<double>(kept.size() - 1))],
              quantile(d.data(), mask.data(), nx, ny, 0.95));
  }
  omp_set_num_threads(omp_get_num_procs());
  EXPECT_EQ(0, robust_scale(d.data(), std::vector<float>(d.size()).data(), nx, ny).deviation);
}

TEST(ScorePeaks, AreTheOpenLocalMaximaTakenFromTheHighestDown) {
  const int nx = 90, ny = 70;
  std::vector<float> map = random_values(static_cast<size_t>(nx) * ny, 8, -1, 1), open(map.size(), 1.0f);
  for (float& v : map) v = std::round(v * 20) / 20;  // ties and plateaus
  map[20 * nx + 30] = kNaN;
  for (size_t i = 0; i < 30; i++) open[40 * nx + i] = 0;
  for (const float sign : {1.0f, -1.0f}) {
    PeakList found = find_peaks(map.data(), sign, 2.0f, {nx, 6, 5, nx - 6, ny - 5, open.data(), 6.5f});
    ASSERT_GT(found.n, 30);
    std::vector<ScorePeak> all;
    for (int y = 5; y < ny - 5; y++)
      for (int x = 6; x < nx - 6; x++) {
        const int i = y * nx + x;
        bool top = open[static_cast<size_t>(i)] != 0;
        for (int dy = -1; dy <= 1; dy++)
          for (int dx = -1; dx <= 1; dx++) {
            const float v = sign * map[static_cast<size_t>(i)],
                        other = sign * map[static_cast<size_t>(i) + dy * nx + dx];
            const bool before = dy < 0 || (dy == 0 && dx < 0);
            if (dy != 0 || dx != 0) top = top && (before ? v > other : v >= other);
          }
        if (top) all.push_back({2 * sign * map[static_cast<size_t>(i)], i});
      }
    std::stable_sort(all.begin(), all.end(), [](const ScorePeak& a, const ScorePeak& b) { return a.score > b.score; });
    std::vector<ScorePeak> kept;
    for (const ScorePeak& p : all)
      if (std::none_of(kept.begin(), kept.end(), [&](const ScorePeak& q) {
            return std::hypot(p.pixel % nx - q.pixel % nx, p.pixel / nx - q.pixel / nx) < 6.5;
          }))
        kept.push_back(p);
    ASSERT_EQ(static_cast<int>(kept.size()), found.n);
    for (int i = 0; i < found.n; i++)
      EXPECT_TRUE(kept[static_cast<size_t>(i)].pixel == found.peaks[i].pixel &&
                  kept[static_cast<size_t>(i)].score == found.peaks[i].score);
    peak_list_free(&found);
  }
}

TEST(ScoreCutoff, DividesParticlesFromNoiseAndFindsNoneInNoise) {
  const int nx = 100000;
  int taken_for_particles = 0;
  for (unsigned seed = 1; seed <= 20; seed++) {
    std::mt19937 random(seed);
    PeakList noise = normal_scores(&random, 500, 3, 0.4, nx, 0), decoys = normal_scores(&random, 500, 3, 0.4, nx, 5000);
    const ScoreCutoff none = find_cutoff(noise, decoys, nx, 20);
    EXPECT_EQ(none.rule == kNoParticles, none.cutoff == kInfinity) << seed;
    taken_for_particles += none.rule != kNoParticles;
    // The valley between 3 and 8.
    PeakList clear = joined(noise, normal_scores(&random, 120, 8, 0.8, nx, 900));
    const ScoreCutoff valley = find_cutoff(clear, decoys, nx, 20);
    EXPECT_EQ(kValley, valley.rule);
    EXPECT_TRUE(valley.cutoff > 4 && valley.cutoff < 7) << valley.cutoff;
    EXPECT_LE(valley.least, valley.cutoff);
    // A peak that a higher decoy stands beside is not counted: with as many decoys as particles there is nothing.
    PeakList mirrored = joined(list_of({clear.peaks, clear.peaks + clear.n}), list_of({}));
    for (int i = 0; i < mirrored.n; i++) mirrored.peaks[i].score += 0.01f;
    EXPECT_EQ(kNoParticles, find_cutoff(clear, mirrored, nx, 20).rule);
    for (PeakList* list : {&clear, &decoys, &mirrored}) peak_list_free(list);
  }
  EXPECT_LE(taken_for_particles, 1) << "one or two of a hundred are to be expected";
  for (int n : {0, 1, 2, 5}) {
    std::mt19937 random(3);
    PeakList few = normal_scores(&random, n, 9, 0, nx, 0), none = list_of({});
    EXPECT_FALSE(std::isnan(find_cutoff(few, none, nx, 20).cutoff)) << n;
    EXPECT_FALSE(std::isnan(score_valley(few))) << n;
    peak_list_free(&few);
    peak_list_free(&none);
  }
}

TEST(RobustIce, ClosesWideAreasAndLeavesSmallSpots) {
  const int nx = 200, ny = 160;
  const size_t n = static_cast<size_t>(nx) * ny;
  std::vector<float> average = random_values(n, 2, -0.05f, 0.05f), deviation = random_values(n, 3, 0.95f, 1.05f),
                     open(n);
  std::vector<unsigned char> bad(n), near(n);
  const auto disc = [&](std::vector<float>& map, int cx, int cy, double radius, float value) {
    for (int y = 0; y < ny; y++)
      for (int x = 0; x < nx; x++)
        if (std::hypot(x - cx, y - cy) <= radius) map[static_cast<size_t>(y) * nx + x] = value;
  };
  disc(deviation, 40, 40, 20, 3);      // wider than 0.6 of 20 pixels: ice
  disc(deviation, 120, 40, 9, 3);      // one strong particle
  disc(average, 150, 120, 14, -0.7f);  // the rim of
  disc(average, 150, 120, 6, -2);      // a dark lump
  disc(average, 60, 120, 14, -0.7f);   // as deep as the rim, with nothing in it
  const RobustIceLimits limits =
      find_robust_ice({nx, ny, nx, ny, 20, 8}, average.data(), deviation.data(), bad.data(), open.data());
  const auto is_bad = [&](int x, int y) { return bad[static_cast<size_t>(y) * nx + x] != 0; };
  EXPECT_TRUE(is_bad(40, 40) && is_bad(55, 40) && is_bad(150, 120) && is_bad(162, 120));
  EXPECT_FALSE(is_bad(120, 40) || is_bad(60, 120) || is_bad(100, 100));
  size_t is_open = 0;
  for (int y = 0; y < ny; y++)
    for (int x = 0; x < nx; x++) {
      bool close = false;
      for (int v = std::max(0, y - 8); v <= std::min(ny - 1, y + 8); v++)
        for (int u = std::max(0, x - 8); u <= std::min(nx - 1, x + 8); u++)
          close = close || (is_bad(u, v) && (u - x) * (u - x) + (v - y) * (v - y) <= 64);
      ASSERT_EQ(close ? 0 : 1, open[static_cast<size_t>(y) * nx + x]) << x << " " << y;
      is_open += !close;
    }
  EXPECT_NEAR(static_cast<double>(is_open) / static_cast<double>(n), limits.open, 1e-6);
}

struct SizeBands : PadWayTest {};
INSTANTIATE_TEST_SUITE_P(Ways, SizeBands, testing::ValuesIn(kPadWays), pad_way_name);

TEST_P(SizeBands, GaussiansAndRoundTemplatesAreTheConvolutionsOfTheMirroredImage) {
  const int nx = 30, ny = 22;
  const size_t n = static_cast<size_t>(nx) * ny;
  const std::vector<float> image = random_values(n, 4, -1, 2);
  const auto mirrored = [&](int x, int y) {
    const auto fold = [](int i, int side) {
      i = ((i % (2 * side)) + 2 * side) % (2 * side);
      return i < side ? i : 2 * side - 1 - i;
    };
    return static_cast<double>(image[static_cast<size_t>(fold(y, ny)) * nx + fold(x, nx)]);
  };
  MirrorPad pad = mirror_pad_new(nx, ny, GetParam());
  const auto in = to_device(image), out = unwritten(n);

  // exp(-(s f)^2 / 2) is a convolution with a Gaussian of deviation s / 2 pi.
  const double deviation = 14 / (2 * M_PI);
  MirrorTransform transform = mirror_transform_new(&pad);
  mirror_transform_take(&pad, in.get(), &transform);
  hcuda_2d_gaussian_mpad(&pad, &transform, 14, out.get());
  std::vector<double> blurred(n), scores(n);
  RoundTemplate ball = ball_template(8);
  for (int y = 0; y < ny; y++)
    for (int x = 0; x < nx; x++)
      for (int dy = -14; dy <= 14; dy++)
        for (int dx = -14; dx <= 14; dx++) {
          const size_t i = static_cast<size_t>(y) * nx + x;
          blurred[i] += mirrored(x + dx, y + dy) * std::exp(-(dx * dx + dy * dy) / (2 * deviation * deviation)) /
                        (2 * M_PI * deviation * deviation);
          // The template's centre lies half a pixel before the pixel.
          const double at = std::hypot(dx + 0.5, dy + 0.5) / static_cast<double>(ball.step);
          const int k = static_cast<int>(at);
          if (k + 1 >= ball.n) continue;
          const double low = ball.values[k], high = ball.values[k + 1];
          scores[i] += mirrored(x + dx, y + dy) * (low + (at - k) * (high - low));
        }
  EXPECT_TRUE(all_near(to_host(out, n), blurred, 2e-5)) << "the discrete Gaussian's tails";
  DiscWindow window = radial_window_new(&pad, ball.values, ball.n, ball.step);
  correlate_with_window(&pad, &window, in.get(), out.get());
  EXPECT_TRUE(all_near(to_host(out, n), scores, 2e-4)) << "sums of some 300 values of about 1";
  EXPECT_LT(ball.values[0], -1) << "dark";
  disc_window_free(&window);
  round_template_free(&ball);
  mirror_transform_free(&transform);
  mirror_pad_free(&pad);
}

TEST_P(SizeBands, ClosedAreasLeakNothingIntoABand) {
  const int nx = 64, ny = 48;
  const size_t n = static_cast<size_t>(nx) * ny;
  std::vector<float> image = random_values(n, 6, -1, 1), open(n, 1.0f);
  std::vector<std::vector<float>> bands;
  MirrorPad pad = mirror_pad_new(nx, ny, GetParam());
  SizeBand band = size_band_new(&pad);
  for (const float dirt : {0.0f, 500.0f}) {
    for (int y = 0; y < 20; y++)
      for (int x = 0; x < 25; x++) {
        image[static_cast<size_t>(y) * nx + x] = dirt;
        open[static_cast<size_t>(y) * nx + x] = 0;
      }
    const auto in = to_device(image), d_open = to_device(open), out = unwritten(n);
    size_band_take(&band, &pad, in.get(), d_open.get(), false);
    EXPECT_TRUE(size_band_make(&band, &pad, 12, out.get()));
    bands.push_back(to_host(out, n));
    const auto flat = to_device(open);
    size_band_take(&band, &pad, flat.get(), d_open.get(), false);
    EXPECT_FALSE(size_band_make(&band, &pad, 12, out.get())) << "no variation where it is open";
  }
  EXPECT_TRUE(all_near(bands[0], widened(bands[1]), 1e-4));
  double sum = 0, squares = 0, count = 0;
  for (size_t i = 0; i < n; i++) {
    const double v = bands[0][i];
    sum += open[i] * v;
    squares += open[i] * v * v;
    count += open[i];
  }
  EXPECT_NEAR(0, sum / count, 1e-4);
  EXPECT_NEAR(1, squares / count, 1e-3);
  size_band_free(&band);
  mirror_pad_free(&pad);
}

TEST(LowestScores, AreThoseOfTheNegatedTemplateAndLeaveTheBestAsTheyAre) {
  REQUIRE_DEVICE();
  for (const ScanWay way :
       kOnGpu ? std::vector<ScanWay>{kDeviceTransforms} : std::vector<ScanWay>{kDeviceTransforms, kHostScan})
    for (const float stop : {359.0f, 1.0f}) {
      const int nx = 40, ny = 36, side = 11;
      const size_t n = static_cast<size_t>(nx) * ny;
      const auto mic = to_device(random_values(n, 3)), mask = to_device(std::vector<float>(n, 1.0f));
      std::vector<float> T = random_values(side * side, 9);
      const int n_angles = count_scan_angles(0, stop, 24);
      std::vector<std::vector<float>> best;
      std::vector<float> lowest;
      for (const bool negated : {false, true}) {
        if (negated)
          for (float& v : T) v = -v;
        const auto d_T = to_device(T), ccmax = unwritten(n), psi = unwritten(n), ccmin = unwritten(n);
        ScanWorkspace ws = scan_workspace_new(nx, ny, side, side, n_angles, kFullBand, 0, way);
        for (const bool wants : {false, true}) {
          ws.ccmin = wants ? ccmin.get() : nullptr;
          output_of([&] {
            quorlin_transform_micrograph(&ws, mic.get());
            quorlin_ccmax_psi_by_one_template(&ws, mic.get(), mask.get(), ccmax.get(), psi.get(), 1, d_T.get(), 5, 0,
                                              stop, 24);
          });
          best.push_back(to_host(ccmax, n));
        }
        if (!negated) lowest = to_host(ccmin, n);
        scan_workspace_free(&ws);
      }
      EXPECT_TRUE(same_bits(best[0], best[1]));
      std::vector<double> expected;
      for (const float v : best[2]) expected.push_back(-static_cast<double>(v));
      EXPECT_TRUE(all_near(lowest, expected, 1e-6)) << static_cast<int>(way) << " " << stop;
    }
}
