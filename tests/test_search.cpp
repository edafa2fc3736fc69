// The host's search for the cells' peaks, against the peaks of the maps that batched transforms of the whole image give.
#include <algorithm>
#include <array>

#include "matching/host_scan/error_bounds.h"
#include "matching/host_scan/interpolation.h"
#include "matching/host_scan/scan.h"
#include "matching/host_scan/template_turns.h"
#include "quorlin56.h"
#include "test_numeric.h"
#include "test_support.h"
#include "transforms/wide_lanes.h"

namespace {

/// A micrograph and a template.
struct Scene {
  int nx, ny, T_nx, T_ny, cell;
  std::vector<float> mic, T;

  int grid_nx() const { return (nx + cell - 1) / cell; }
  int grid_ny() const { return (ny + cell - 1) / cell; }
  size_t cells() const { return static_cast<size_t>(grid_nx()) * grid_ny(); }
};

/// Angles of a scan, degrees.
struct Angles {
  float start, stop, step;
  int count() const { return count_scan_angles(start, stop, step); }
};

/// For each cell the pixel of its peak, the score and the angle.
struct Peaks {
  std::vector<unsigned> found;
  std::vector<float> cc, psi;
};

constexpr float kRadius = 4.5f;

/// A sum of random waves up to a frequency of `band` that are even about the image's edges, as those of a band-passed
/// image are. The image so jumps from each edge to the opposite one.
std::vector<float> band_passed_image(int nx, int ny, double band) {
  const double pi = std::acos(-1.0);
  std::vector<double> image(static_cast<size_t>(nx) * ny, 0.0);
  const int most_x = static_cast<int>(2 * band * nx), most_y = static_cast<int>(2 * band * ny);
  const std::vector<float> heights = random_values(static_cast<size_t>(most_x + 1) * (most_y + 1), 5, -1, 1);
  for (int v = 0; v <= most_y; v++) {
    std::vector<double> row(static_cast<size_t>(nx), 0.0);
    for (int u = 0; u <= most_x; u++) {
      if (std::hypot(u / (2.0 * nx), v / (2.0 * ny)) > band) continue;
      const double height = static_cast<double>(heights[static_cast<size_t>(v) * (most_x + 1) + u]);
      for (int x = 0; x < nx; x++) row[static_cast<size_t>(x)] += height * std::cos(pi * u * (x + 0.5) / nx);
    }
    for (int y = 0; y < ny; y++)
      for (int x = 0; x < nx; x++)
        image[static_cast<size_t>(y) * nx + x] += row[static_cast<size_t>(x)] * std::cos(pi * v * (y + 0.5) / ny);
  }
  return std::vector<float>(image.begin(), image.end());
}

/// With a rim of zeros around the template it doesn't matter on which side of its edge a rounded source position falls.
Scene random_scene(const std::array<int, 5>& sizes, double band, bool zero_rim = true) {
  const auto& [nx, ny, T_nx, T_ny, cell] = sizes;
  Scene scene{nx,
              ny,
              T_nx,
              T_ny,
              cell,
              band < 0.5 ? band_passed_image(nx, ny, band) : random_values(static_cast<size_t>(nx) * ny, 3),
              random_values(static_cast<size_t>(T_nx) * T_ny, 4, -0.5f, 1)};
  for (int y = 0; zero_rim && y < T_ny; y++)
    for (int x = 0; x < T_nx; x++)
      if (x == 0 || y == 0 || x == T_nx - 1 || y == T_ny - 1) scene.T[static_cast<size_t>(y) * T_nx + x] = 0;
  return scene;
}

Peaks peaks_in(const PeakWorkspace& peaks, size_t cells) {
  return {std::vector<unsigned>(peaks.found, peaks.found + cells), std::vector<float>(peaks.cc, peaks.cc + cells),
          std::vector<float>(peaks.psi, peaks.psi + cells)};
}

Peaks searched(ScanWorkspace* ws, const Scene& scene, const Angles& angles, float least) {
  PeakWorkspace peaks = peak_workspace_new(scene.grid_nx(), scene.grid_ny());
  const std::vector<float> mask(scene.mic.size(), 1.0f);
  const std::string dots = output_of([&] {
    quorlin_transform_micrograph(ws, scene.mic.data());
    EXPECT_EQ(0, scan_search_by_one_template(ws, &peaks, scene.mic.data(), mask.data(), scene.T.data(), kRadius,
                                             angles.start, angles.stop, angles.step, least));
  });
  EXPECT_EQ(std::string(static_cast<size_t>(angles.count()), '.') + "\n", dots) << "a dot for each angle";
  Peaks result = peaks_in(peaks, scene.cells());
  peak_workspace_free(&peaks);
  return result;
}

Peaks searched(const Scene& scene, const Angles& angles, float band, float least = -kInfinity) {
  ScanWorkspace ws =
      scan_workspace_new(scene.nx, scene.ny, scene.T_nx, scene.T_ny, angles.count(), band, scene.cell, kHostSearch);
  Peaks result = scan_searches(&ws) ? searched(&ws, scene, angles, least) : Peaks{};
  scan_workspace_free(&ws);
  return result;
}

Peaks peaks_of_maps(const Scene& scene, const Angles& angles) {
  ScanWorkspace ws =
      scan_workspace_new(scene.nx, scene.ny, scene.T_nx, scene.T_ny, angles.count(), kFullBand, 0, kDeviceTransforms);
  PeakWorkspace peaks = peak_workspace_new(scene.grid_nx(), scene.grid_ny());
  const std::vector<float> mask(scene.mic.size(), 1.0f);
  std::vector<float> ccmax(scene.mic.size()), psi(scene.mic.size()), kept_cc(scene.cells()), kept_psi(scene.cells());
  std::vector<unsigned> kept(scene.cells());
  output_of([&] {
    quorlin_transform_micrograph(&ws, scene.mic.data());
    quorlin_ccmax_psi_by_one_template(&ws, scene.mic.data(), mask.data(), ccmax.data(), psi.data(), 1, scene.T.data(),
                                      kRadius, angles.start, angles.stop, angles.step);
    gpu_find_filter_ccmax_psi_grids_exclusive(&peaks, ccmax.data(), psi.data(), kept.data(), kept_cc.data(),
                                              kept_psi.data(), 0, scene.nx, scene.ny, scene.cell, nullptr, 0);
  });
  Peaks result = peaks_in(peaks, scene.cells());
  peak_workspace_free(&peaks);
  scan_workspace_free(&ws);
  return result;
}

/// Scores are of the order of 1 and rounding some 1e-6 of them; where two pixels or angles are as near as that, either is
/// the peak.
void expect_peaks(const Peaks& got, const Peaks& want, float least) {
  size_t others = 0, compared = 0;
  ASSERT_EQ(want.cc.size(), got.cc.size()) << "not searched at all";
  for (size_t c = 0; c < want.cc.size(); c++) {
    if (want.cc[c] < least) {
      ASSERT_LT(got.cc[c], least) << "cell " << c;
      continue;
    }
    compared++;
    ASSERT_NEAR(want.cc[c], got.cc[c], 3e-6f) << "cell " << c;
    others += want.found[c] != got.found[c] || !(want.psi[c] == got.psi[c]);
  }
  EXPECT_LE(others, compared / 100 + 1) << "of " << compared;
}

/// Waves whose heights fall off around a column and a row.
void check_error_bounds(double width) {
  const int n = 300, t = 40, cell = 11;
  Scene scene = random_scene({n, n, t, t, cell}, 0.1);
  for (int y = 0; y < n; y++)
    for (int x = 0; x < n; x++)
      scene.mic[static_cast<size_t>(y) * n + x] *=
          static_cast<float>(std::exp(-std::pow((x - 110) / width, 2) - std::pow((y - 90) / 60.0, 2)));
  HostScan* scan = host_scan_new(n, n, t, t, 72, 0.11, cell, true);
  host_scan_transform_micrograph(scan, scene.mic.data());
  const CellGrid cells{cell, scene.grid_nx(), scene.grid_ny()};
  ErrorBounds bounds = error_bounds_new(scan, cells);
  find_error_bounds(&bounds, scan, cells, scene.mic.data());
  const auto error_at = [&](int x, int y) {
    double worst = 0;
    for (int dy = 0; dy < bounds.y.step; dy++) {
      for (int dx = 0; dx < bounds.x.step; dx++) {
        double error = -static_cast<double>(scene.mic[static_cast<size_t>(y) * n + x]);
        for (int j = -kReach; j <= kReach; j++)
          for (int i = -kReach; i <= kReach; i++)
            error += static_cast<double>(bounds.y.of_offset[dy][j + kReach]) *
                     static_cast<double>(bounds.x.of_offset[dx][i + kReach]) *
                     static_cast<double>(
                         scene.mic[static_cast<size_t>(y - dy - lowest_offset(bounds.y.step) + j * bounds.y.step) * n +
                                   x - dx - lowest_offset(bounds.x.step) + i * bounds.x.step]);
        worst = std::max(worst, error * error);
      }
    }
    return worst;
  };
  // A row of cells whose templates reach from where the waves are to where they aren't.
  const int cell_y = 6;
  double lost = 0;
  for (int r = 0; r < scan->n_regions; r++) lost = std::max(lost, scan->regions[r].lost);
  for (int cell_x = 5; cell_x < 20; cell_x++) {
    double largest = 0;
    for (int x : {0, cell - 1}) {
      for (int y : {0, cell - 1}) {
        double sum = 0;
        for (int j = 0; j < t; j++)
          for (int i = 0; i < t; i++) sum += error_at(cell_x * cell + x - t / 2 + i, cell_y * cell + y - t / 2 + j);
        largest = std::max(largest, std::sqrt(sum));
      }
    }
    const double bound = static_cast<double>(bounds.error_norms[static_cast<size_t>(cell_y * cells.nx + cell_x)]);
    EXPECT_GE(bound, largest + lost) << "cell " << cell_x;
    EXPECT_LE(bound, 2 * largest + 5 * lost) << "cell " << cell_x;
  }
  error_bounds_free(&bounds);
  host_scan_free(scan);
}

}  // namespace

TEST(Search, FindsThePeaksOfTheMapsToTheEdges) {
  // Bands for which every second, third and fourth pixel is a sample.
  for (const double band : {0.17, 0.1, 0.05}) {
    for (const std::array<int, 5>& sizes :
         {std::array{200, 180, 16, 13, 9}, {190, 204, 21, 24, 14}, {240, 240, 3, 9, 6}, {200, 200, 15, 16, 500}}) {
      const Scene scene = random_scene(sizes, band);
      SCOPED_TRACE(testing::Message() << scene.nx << " x " << scene.ny << ", template " << scene.T_nx << " x "
                                      << scene.T_ny << ", cells of " << scene.cell << ", band " << band);
      for (const Angles& angles : {Angles{0, 359, 15}, Angles{3, 300, 10}})
        expect_peaks(searched(scene, angles, static_cast<float>(band)), peaks_of_maps(scene, angles), -kInfinity);
    }
  }
}

TEST(Search, LeavesOutCellsWhoseScoresAreTooLowAndNoOthers) {
  const Scene scene = random_scene({200, 180, 16, 13, 9}, 0.1);
  const Peaks want = peaks_of_maps(scene, {0, 359, 15});
  std::vector<float> scores = want.cc;
  std::sort(scores.begin(), scores.end());
  for (const float least : {scores[scores.size() / 10], scores[scores.size() / 2], scores.back() + 1}) {
    const Peaks got = searched(scene, {0, 359, 15}, 0.1f, least);
    expect_peaks(got, want, least);
  }
}

TEST(Search, IsRightForImagesThatAreNotWhatItWasPlannedFor) {
  Scene scene = random_scene({200, 180, 16, 13, 9}, 0.5);  // every frequency
  expect_peaks(searched(scene, {0, 359, 15}, 0.1f), peaks_of_maps(scene, {0, 359, 15}), -kInfinity);
  const Scene narrow = random_scene({200, 180, 16, 13, 9}, 0.12);  // somewhat more than the samples hold
  expect_peaks(searched(narrow, {0, 359, 15}, 0.1f), peaks_of_maps(narrow, {0, 359, 15}), -kInfinity);
  scene.mic[100] = kNaN;
  for (const float score : searched(scene, {0, 359, 15}, 0.1f).cc) ASSERT_FALSE(score > -kInfinity) << score;
}

TEST(Search, FallsBackOnMapsOfTheMicrographAtHand) {
  const Scene first = random_scene({200, 180, 16, 13, 9}, 0.5);
  Scene second = first;
  second.mic = random_values(first.mic.size(), 77);
  const Angles angles{0, 359, 15};
  ScanWorkspace ws = scan_workspace_new(200, 180, 16, 13, angles.count(), 0.1f, 9, kHostSearch);
  for (const Scene& scene : {first, second, first})
    expect_peaks(searched(&ws, scene, angles, -kInfinity), peaks_of_maps(scene, angles), -kInfinity);
  scan_workspace_free(&ws);
}

TEST(Search, TakesTheFirstOfEqualPixels) {
  Scene scene = random_scene({200, 200, 16, 13, 9}, 0.1);
  for (size_t i = 0; i < scene.mic.size(); i++)
    scene.mic[i] = static_cast<float>(std::cos(std::acos(-1.0) * (i % 40) / 20));
  const Peaks got = searched(scene, {0, 359, 15}, 0.1f);
  size_t peaks = 0;
  for (const unsigned pixel : got.found) {
    peaks += pixel > 0;
    EXPECT_EQ(0u, pixel / 200 % 9) << "not in its cell's first row";
  }
  EXPECT_GT(peaks, got.found.size() / 4);
}

TEST(Search, TakesMoreAnglesThanItHoldsTurnedTemplatesOf) {
  Scene scene = random_scene({420, 400, 150, 150, 30}, 0.05);
  const Angles angles{0, 359, 0.9f};
  TurnedBoxes boxes = turned_boxes_new(150, 150, angles.count());
  EXPECT_LT(boxes.room, angles.count());
  turned_boxes_free(&boxes);
  expect_peaks(searched(scene, angles, 0.05f), peaks_of_maps(scene, angles), -kInfinity);
}

TEST(Search, GivesTheSameOnAnyNumberOfCoresByVectorsOfAnyWidthAndForTheNextMicrograph) {
  const Scene scene = random_scene({200, 180, 16, 13, 9}, 0.1, false);
  Scene other = scene;
  other.mic = band_passed_image(200, 180, 0.08);
  const Angles angles{0, 359, 15};
  Peaks want;
  for (const int cores : {1, 2, 3, 7}) {
    const Cores limit(cores);
    set_wide_lanes(cores % 2 == 1);
    ScanWorkspace ws = scan_workspace_new(200, 180, 16, 13, angles.count(), 0.1f, 9, kHostSearch);
    searched(&ws, other, angles, 0.1f);
    const Peaks got = searched(&ws, scene, angles, 0.1f);
    scan_workspace_free(&ws);
    if (cores == 1) want = got;
    EXPECT_EQ(want.found, got.found) << cores;
    EXPECT_TRUE(same_bits(got.cc, want.cc)) << cores;
    EXPECT_TRUE(same_bits(got.psi, want.psi)) << cores;
  }
  set_wide_lanes(true);
}

TEST(SampleErrors, BoundWhatInterpolationIsOffAtEveryPixel) {
  const int nx = 50, ny = 43, halo = 4 * kReach + kMostStep;
  const int width = nx + 2 * halo, height = ny + 2 * halo;
  const std::vector<float> image = band_passed_image(width, height, 0.1);
  std::vector<double> energy(200, 0.0);
  for (int k = 0; k <= 20; k++) energy[static_cast<size_t>(k)] = energy[static_cast<size_t>(k ? 200 - k : 0)] = 1;
  const SampleWeights x = sample_weights(energy.data(), 200, 3), y = sample_weights(energy.data(), 200, 4);
  std::vector<double> sums(static_cast<size_t>(block_count(nx)) * block_count(ny));
  sum_squared_errors({nx, ny, halo, image.data()}, x, y, sums.data());
  std::vector<double> want(sums.size(), 0.0), squares;
  double contrast = 0;
  for (int row = 0; row < ny; row++) {
    for (int column = 0; column < nx; column++) {
      double worst = 0;
      for (int dy = -1; dy <= 2; dy++) {
        for (int dx = -1; dx <= 1; dx++) {
          double error = -static_cast<double>(image[static_cast<size_t>(row + halo) * width + column + halo]);
          for (int j = -kReach; j <= kReach; j++)
            for (int i = -kReach; i <= kReach; i++)
              error += static_cast<double>(y.of_offset[dy + 1][j + kReach]) *
                       static_cast<double>(x.of_offset[dx + 1][i + kReach]) *
                       static_cast<double>(
                           image[static_cast<size_t>(row + halo - dy + 4 * j) * width + column + halo - dx + 3 * i]);
          worst = std::max(worst, error * error);
        }
      }
      squares.push_back(worst);
      want[static_cast<size_t>(row / kErrorBlock) * block_count(nx) + column / kErrorBlock] += worst;
      contrast = std::max(contrast, std::abs(static_cast<double>(image[static_cast<size_t>(row) * width + column])));
    }
  }
  for (size_t i = 0; i < want.size(); i++) {
    EXPECT_NEAR(want[i], sums[i], 1e-3 * want[i] + 1e-10 * contrast * contrast) << "block " << i;
    EXPECT_LT(std::sqrt(sums[i]) / kErrorBlock, 0.015 * contrast) << "the weights don't interpolate";
  }

  // The windows of each cell's pixels, which go round at the edges.
  const CellWindows windows{9, 6, 5, -7, -5, 20, 13};
  std::vector<double> largest(30);
  find_largest_sums({nx, ny, sums.data()}, windows, largest.data());
  for (int cell = 0; cell < 30; cell++) {
    double most = 0, all_around = 0;
    for (int v = 0; v < 9; v++) {
      for (int u = 0; u < 9; u++) {
        double sum = 0;
        for (int j = 0; j < 13; j++)
          for (int i = 0; i < 20; i++)
            sum += squares[static_cast<size_t>((cell / 6 * 9 + v + j - 5 + ny) % ny) * nx +
                           (cell % 6 * 9 + u + i - 7 + nx) % nx];
        most = std::max(most, sum);
        all_around += sum / 81;
      }
    }
    EXPECT_GE(largest[static_cast<size_t>(cell)], 0.999 * most) << "cell " << cell;
    EXPECT_LE(largest[static_cast<size_t>(cell)], 6 * all_around) << "cell " << cell;
  }
}

TEST(ErrorBounds, AreThoseOfTheTemplatesThatBelongToEachCell) {
  check_error_bounds(40);
  check_error_bounds(22);
}

TEST(HalfTurns, AreTakenWhereThePixelsShowThemAndEveryAngleIsTakenOnce) {
  std::vector<float> angles;
  for (int a = 0; a < 359; a += 15) angles.push_back(static_cast<float>(a));
  for (const bool zero_rim : {true, false}) {
    const Scene scene = random_scene({20, 20, 8, 8, 5}, 0.5, zero_rim);
    TurnedBoxes boxes = turned_boxes_new(8, 8, 24);
    turn_boxes(&boxes, scene.T.data(), angles.data(), 24);
    TurnPair pairs[24];
    const int n = pair_turns(boxes, angles.data(), pairs);
    turned_boxes_free(&boxes);
    std::vector<int> taken;
    int half_turns = 0;
    for (const TurnPair* pair = pairs; pair < pairs + n; pair++) {
      taken.push_back(pair->first.angle);
      if (pair->has_second) taken.push_back(pair->second.angle);
      if (!pair->has_half_turns) continue;
      half_turns++;
      taken.push_back(pair->first.half_turn);
      EXPECT_EQ(pair->first.angle + 12, pair->first.half_turn);
      if (pair->has_second) taken.push_back(pair->second.half_turn);
    }
    std::sort(taken.begin(), taken.end());
    for (int a = 0; a < 24; a++) EXPECT_EQ(a, taken[static_cast<size_t>(a)]);
    EXPECT_EQ(24u, taken.size());
    // Without a rim of zeros rounding decides which pixels of the box's edge stay at 0, 90, 180 and 270 degrees.
    EXPECT_EQ(zero_rim, n == 6 && half_turns == 6) << n << " pairs, " << half_turns << " with half turns";
  }
}
