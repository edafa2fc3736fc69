// The host's search for the cells' peaks, against the peaks of the maps that batched transforms of the whole image give.
#include <algorithm>
#include <array>
#include <numeric>
#include <utility>

#include "matching/host_scan/error_bounds.h"
#include "matching/host_scan/interpolation.h"
#include "matching/host_scan/kept_turns.h"
#include "matching/host_scan/scan.h"
#include "matching/host_scan/template_turns.h"
#include "test_support_scans.h"
#include "transforms/wide_lanes.h"

namespace {

/// A scene and the grid of its peaks.
struct GridScene : Scene {
  int cell = 0;

  CellGrid grid() const { return {cell, (nx + cell - 1) / cell, (ny + cell - 1) / cell}; }
};

/// For each cell the pixel of its peak, the score and the angle.
struct Peaks {
  std::vector<unsigned> found;
  std::vector<float> cc, psi;
};

const Angles kAngles{0, 359, 15};

/// A sum of random waves up to a frequency of `band` that are even about the image's edges, as those of a band-passed
/// image are. The image so jumps from each edge to the opposite one.
std::vector<float> band_passed_image(int nx, int ny, double band) {
  const double pi = std::acos(-1.0);
  std::vector<double> image(pixel_index(0, ny, nx), 0.0);
  const int most_x = static_cast<int>(2 * band * nx), most_y = static_cast<int>(2 * band * ny);
  const std::vector<float> heights = random_values(pixel_index(0, most_y + 1, most_x + 1), 5, -1, 1);
  for (int v = 0; v <= most_y; v++) {
    std::vector<double> row(static_cast<size_t>(nx), 0.0);
    for (int u = 0; u <= most_x; u++)
      for (int x = 0; x < nx && std::hypot(u / (2.0 * nx), v / (2.0 * ny)) <= band; x++)
        row[x] += heights[pixel_index(u, v, most_x + 1)] * std::cos(pi * u * (x + 0.5) / nx);
    for (int y = 0; y < ny; y++)
      for (int x = 0; x < nx; x++) image[pixel_index(x, y, nx)] += row[x] * std::cos(pi * v * (y + 0.5) / ny);
  }
  return {image.begin(), image.end()};
}

/// sizes   nx, ny, T_nx, T_ny and the side of a cell
GridScene band_passed_scene(const std::array<int, 5>& sizes, double band, bool zero_rim = true) {
  const auto& [nx, ny, T_nx, T_ny, cell] = sizes;
  GridScene scene{random_scene(nx, ny, T_nx, T_ny, zero_rim), cell};
  if (band < 0.5) scene.mic = band_passed_image(nx, ny, band);
  return scene;
}

const std::array kSizes{200, 180, 16, 13, 9};

/// The scene with a template that a smooth image doesn't look like anywhere.
GridScene with_fine_detail(GridScene scene) {
  for (size_t i = 0; i < scene.T.size(); i++)
    scene.T[i] = (i % static_cast<size_t>(scene.T_nx) + i / static_cast<size_t>(scene.T_nx)) % 2 ? 1.0f : -1.0f;
  return scene;
}

/// What find() leaves in a workspace for the peaks of the scene.
template <class Code>
Peaks peaks_after(const GridScene& scene, Code find) {
  const CellGrid grid = scene.grid();
  PeakWorkspace peaks = peak_workspace_new(grid.nx, grid.ny);
  find(&peaks);
  const auto n = static_cast<ptrdiff_t>(cells_of(grid));
  Peaks result{{peaks.found, peaks.found + n}, {peaks.cc, peaks.cc + n}, {peaks.psi, peaks.psi + n}};
  peak_workspace_free(&peaks);
  return result;
}

Peaks searched(ScanWorkspace* ws, const GridScene& scene, const Angles& angles, float least = -kInfinity) {
  EXPECT_TRUE(scan_searches(ws));
  return peaks_after(scene, [&](PeakWorkspace* peaks) {
    expect_dots(angles, [&] {
      quorlin_transform_micrograph(ws, scene.mic.data());
      EXPECT_EQ(0, scan_search_by_one_template(ws, peaks, scene.mic.data(), scene.mask.data(), scene.T.data(),
                                               scene.radius, angles.start, angles.stop, angles.step, least));
    });
  });
}

ScanWorkspace workspace_for(const GridScene& s, const Angles& angles, float band, ScanWay way) {
  return scan_workspace_new(s.nx, s.ny, s.T_nx, s.T_ny, angles.count(), band, s.cell, way);
}

Peaks searched(const GridScene& scene, const Angles& angles, double band, float least = -kInfinity) {
  ScanWorkspace ws = workspace_for(scene, angles, static_cast<float>(band), kHostSearch);
  Peaks result = searched(&ws, scene, angles, least);
  scan_workspace_free(&ws);
  return result;
}

Peaks peaks_of_maps(const GridScene& scene, const Angles& angles, ScanWay way = kDeviceTransforms) {
  GridScene by_maps = scene;
  by_maps.cell = 0;
  ScanWorkspace ws = workspace_for(by_maps, angles, kFullBand, way);
  const Maps maps = maps_of(&ws, scene, angles);
  scan_workspace_free(&ws);
  return peaks_after(scene, [&](PeakWorkspace* peaks) {
    std::vector<unsigned> kept(cells_of(scene.grid()));
    std::vector<float> cc(kept.size()), psi(kept.size());
    gpu_find_filter_ccmax_psi_grids_exclusive(peaks, maps.ccmax.data(), maps.psi.data(), kept.data(), cc.data(),
                                              psi.data(), 0, scene.nx, scene.ny, scene.cell, nullptr, 0);
  });
}

/// Scores are of the order of 1 and rounding some 1e-6 of them; where two pixels or angles are as near as that, either is
/// the peak.
void expect_peaks(const Peaks& got, const Peaks& want, float least = -kInfinity) {
  size_t others = 0, compared = 0;
  ASSERT_EQ(want.cc.size(), got.cc.size());
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

/// The square of the largest error that interpolation makes at a pixel of an image of that width, whatever the pixel's
/// offset from a sample, by definition.
double worst_error(const float* at, ptrdiff_t width, const SampleWeights& x, const SampleWeights& y) {
  double worst = 0;
  for (int dy = 0; dy < y.step; dy++) {
    for (int dx = 0; dx < x.step; dx++) {
      const float* sample = at - (dy + lowest_offset(y.step)) * width - dx - lowest_offset(x.step);
      double error = -static_cast<double>(*at);
      for (int j = 0; j < kTaps; j++)
        for (int i = 0; i < kTaps; i++)
          error += static_cast<double>(y.of_offset[dy][j]) * x.of_offset[dx][i] *
                   sample[(j - kReach) * y.step * width + (i - kReach) * x.step];
      worst = std::max(worst, error * error);
    }
  }
  return worst;
}

}  // namespace

TEST(Search, FindsThePeaksOfTheMapsToTheEdges) {
  // Bands for which every second, third and fourth pixel is a sample.
  for (const double band : {0.17, 0.1, 0.05}) {
    for (const std::array<int, 5>& sizes :
         {kSizes, {190, 204, 21, 24, 14}, {240, 240, 3, 9, 6}, {200, 200, 15, 16, 500}}) {
      const GridScene scene = band_passed_scene(sizes, band);
      SCOPED_TRACE(testing::Message() << scene.nx << " x " << scene.ny << ", band " << band);
      for (const Angles& angles : {kAngles, Angles{3, 300, 10}})
        expect_peaks(searched(scene, angles, band), peaks_of_maps(scene, angles));
    }
  }
}

TEST(Search, LeavesOutCellsWhoseScoresAreTooLowAndNoOthers) {
  const GridScene scene = band_passed_scene(kSizes, 0.1);
  const Peaks want = peaks_of_maps(scene, kAngles);
  std::vector<float> scores = want.cc;
  std::sort(scores.begin(), scores.end());
  for (const float least : {scores[scores.size() / 10], scores[scores.size() / 2], scores.back() + 1})
    expect_peaks(searched(scene, kAngles, 0.1, least), want, least);
}

TEST(Search, IsRightForImagesThatAreNotWhatItWasPlannedForOneAfterAnother) {
  GridScene all = band_passed_scene(kSizes, 0.5), other = all;  // every frequency: it falls back on maps
  other.mic = random_values(all.pixels(), 77);
  const GridScene somewhat = band_passed_scene(kSizes, 0.12);  // more than the samples hold
  ScanWorkspace ws = workspace_for(all, kAngles, 0.1f, kHostSearch);
  for (const GridScene& scene : {all, other, somewhat, all})
    expect_peaks(searched(&ws, scene, kAngles), peaks_of_maps(scene, kAngles));
  scan_workspace_free(&ws);
  all.mic[100] = kNaN;
  for (const float score : searched(all, kAngles, 0.1).cc) ASSERT_FALSE(score > -kInfinity) << score;
}

TEST(Search, TakesTheFirstOfEqualPixels) {
  GridScene scene = band_passed_scene({200, 200, 16, 13, 9}, 0.1);
  for (size_t i = 0; i < scene.pixels(); i++)
    scene.mic[i] = static_cast<float>(std::cos(std::acos(-1.0) * (i % 40) / 20));
  const Peaks got = searched(scene, kAngles, 0.1);
  for (const unsigned pixel : got.found) EXPECT_EQ(0u, pixel / 200 % 9) << "not in its cell's first row";
  EXPECT_LT(std::count(got.found.begin(), got.found.end(), 0u), got.found.size() * 3 / 4);
}

TEST(Search, TakesMoreAnglesThanItHoldsTurnedTemplatesOf) {
  const GridScene scene = band_passed_scene({420, 400, 150, 150, 30}, 0.05);
  const Angles angles{0, 359, 0.9f};
  TurnedBoxes boxes = turned_boxes_new(150, 150, angles.count());
  EXPECT_LT(boxes.room, angles.count());
  turned_boxes_free(&boxes);
  expect_peaks(searched(scene, angles, 0.05), peaks_of_maps(scene, angles));
}

TEST(Search, GivesTheSameOnAnyNumberOfCoresByVectorsOfAnyWidthAndForTheNextMicrograph) {
  const GridScene scene = band_passed_scene(kSizes, 0.1, false);
  GridScene other = scene;
  other.mic = band_passed_image(200, 180, 0.08);
  Peaks want;
  for (const int cores : {1, 2, 3, 7}) {
    const Cores limit(cores);
    set_wide_lanes(cores % 2 == 1);
    ScanWorkspace ws = workspace_for(scene, kAngles, 0.1f, kHostSearch);
    searched(&ws, other, kAngles, 0.1f);
    const Peaks got = searched(&ws, scene, kAngles, 0.1f);
    scan_workspace_free(&ws);
    if (cores == 1) want = got;
    EXPECT_EQ(want.found, got.found) << cores;
    EXPECT_TRUE(same_bits(got.cc, want.cc) && same_bits(got.psi, want.psi)) << cores;
  }
  set_wide_lanes(true);
}

TEST(Search, GivesTheSameBitsByKeptSpectraOfTemplates) {
  const GridScene scene = band_passed_scene(kSizes, 0.08);
  GridScene narrow = scene, turned = scene;
  narrow.mic = band_passed_image(200, 180, 0.06);
  std::reverse(turned.T.begin(), turned.T.end());
  for (const int cores : {1, 2, 3}) {
    const Cores limit(cores);
    ScanWorkspace ws = workspace_for(scene, kAngles, 0.1f, kHostSearch);
    for (int i = 0; i < kSearchesUntilKept; i++) searched(&ws, narrow, kAngles);
    EXPECT_EQ(nullptr, ws.host_scan->kept_spectra);
    for (const GridScene* next : std::array{&std::as_const(narrow), &scene, &std::as_const(turned), &scene}) {
      const Peaks got = searched(&ws, *next, kAngles), want = searched(*next, kAngles, 0.1f);
      EXPECT_EQ(next != &turned, ws.host_scan->kept_spectra != nullptr);
      EXPECT_EQ(want.found, got.found) << cores;
      EXPECT_TRUE(same_bits(got.cc, want.cc) && same_bits(got.psi, want.psi)) << cores;
    }
    scan_workspace_free(&ws);
  }
}

TEST(Search, IsGivenUpForMapsWhereScoresLieTooCloseAndTakenUpForTheNextMicrograph) {
  // A template of nothing but fine detail in a smooth image: all scores are about as near as the errors.
  const std::array sizes{300, 280, 60, 60, 24};
  const Angles angles{0, 359, 3};
  GridScene other = band_passed_scene(sizes, 0.09);
  other.radius = 26;
  for (size_t i = 0; i < other.T.size(); i++) other.T[i] = other.mic[pixel_index(100 + i % 60, 100 + i / 60, 300)];
  const GridScene scene = with_fine_detail(other);
  const Peaks maps = peaks_of_maps(scene, angles, kHostScan), want = searched(other, angles, 0.1f, 0);
  for (const int cores : {1, 2, 3}) {
    const Cores limit(cores);
    ScanWorkspace ws = scan_workspace_new(300, 280, 60, 60, angles.count(), 0.1f, scene.cell, kHostScan, 2);
    for (int round = 0; round < 2; round++) {
      const Peaks given_up = searched(&ws, scene, angles, 0), taken_up = searched(&ws, other, angles, 0);
      EXPECT_EQ(maps.found, given_up.found) << cores;
      EXPECT_TRUE(same_bits(given_up.cc, maps.cc) && same_bits(given_up.psi, maps.psi)) << cores;
      EXPECT_EQ(want.found, taken_up.found) << cores;
      EXPECT_TRUE(same_bits(taken_up.cc, want.cc) && same_bits(taken_up.psi, want.psi)) << cores;
    }
    scan_workspace_free(&ws);
  }
}

TEST(Search, DecidesInTimeWhereItMustGoOnWithMoreCandidatesThanItKeeps) {
  GridScene scene = with_fine_detail(band_passed_scene({300, 280, 40, 40, 24}, 0.09));
  scene.radius = 26;
  const Cores limit(2);
  const Angles angles{0, 45, 1};
  expect_peaks(searched(scene, angles, 0.1, 0), peaks_of_maps(scene, angles, kHostScan), 0);
}

// --- What a search may conclude ---

TEST(SampleErrors, BoundWhatInterpolationIsOffAtEveryPixel) {
  const int nx = 50, ny = 43, halo = 4 * kReach + kMostStep, width = nx + 2 * halo;
  const std::vector<float> image = band_passed_image(width, ny + 2 * halo, 0.1);
  std::vector<double> energy(200, 0.0);
  for (int k = 0; k <= 20; k++) energy[k] = energy[k ? 200 - k : 0] = 1;
  const SampleWeights x = sample_weights(energy.data(), 200, 3), y = sample_weights(energy.data(), 200, 4);
  std::vector<double> sums(static_cast<size_t>(block_count(nx)) * block_count(ny)), want = sums, squares;
  sum_squared_errors({nx, ny, halo, image.data()}, x, y, sums.data());
  for (int i = 0; i < nx * ny; i++) {
    squares.push_back(worst_error(&image[pixel_index(i % nx + halo, i / nx + halo, width)], width, x, y));
    want[pixel_index(i % nx / kErrorBlock, i / nx / kErrorBlock, block_count(nx))] += squares.back();
  }
  const double contrast = *std::max_element(image.begin(), image.end());
  EXPECT_TRUE(all_near(sums, want, 1e-8 * contrast * contrast));
  for (const double sum : sums) EXPECT_LT(std::sqrt(sum) / kErrorBlock, 0.015 * contrast) << "they don't interpolate";

  // The windows of each cell's pixels, which go round at the edges.
  const CellWindows windows{9, 6, 5, -7, -5, 20, 13};
  std::vector<double> largest(30);
  find_largest_sums({nx, ny, sums.data()}, windows, largest.data());
  for (int cell = 0; cell < 30; cell++) {
    double most = 0, all_around = 0;
    for (int place = 0; place < 81; place++) {
      const int x0 = cell % 6 * 9 + place % 9 - 7 + nx, y0 = cell / 6 * 9 + place / 9 - 5 + ny;
      double sum = 0;
      for (int j = y0; j < y0 + 13; j++)
        for (int i = x0; i < x0 + 20; i++) sum += squares[pixel_index(i % nx, j % ny, nx)];
      most = std::max(most, sum);
      all_around += sum / 81;
    }
    EXPECT_GE(largest[cell], 0.999 * most) << "cell " << cell;
    EXPECT_LE(largest[cell], 6 * all_around) << "cell " << cell;
  }
}

TEST(ErrorBounds, AreThoseOfTheTemplatesThatBelongToEachCell) {
  const int n = 300, t = 40, cell = 11, cell_y = 6;
  for (const double width : {40, 22}) {
    // Waves whose heights fall off around a column and a row.
    GridScene scene = band_passed_scene({n, n, t, t, cell}, 0.1);
    for (int i = 0; i < n * n; i++)
      scene.mic[i] *=
          static_cast<float>(std::exp(-std::pow((i % n - 110) / width, 2) - std::pow((i / n - 90) / 60.0, 2)));
    HostScan* scan = host_scan_new(n, n, t, t, 72, 0.11, cell, true);
    host_scan_transform_micrograph(scan, scene.mic.data());
    ErrorBounds bounds = error_bounds_new(scan, scene.grid());
    find_error_bounds(&bounds, scan, scene.grid(), scene.mic.data());
    double lost = 0;
    for (int r = 0; r < scan->n_regions; r++) lost = std::max(lost, scan->regions[r].lost);
    // A row of cells whose templates reach from where the waves are to where they aren't.
    for (int cell_x = 5; cell_x < 20; cell_x++) {
      double largest = 0;
      for (const int corner : {0, cell - 1, (cell - 1) * n, (cell - 1) * (n + 1)}) {
        const float* first = &scene.mic[pixel_index(cell_x * cell - t / 2, cell_y * cell - t / 2, n)] + corner;
        double sum = 0;
        for (int i = 0; i < t * t; i++) sum += worst_error(first + i / t * n + i % t, n, bounds.x, bounds.y);
        largest = std::max(largest, std::sqrt(sum));
      }
      const double bound = bounds.error_norms[pixel_index(cell_x, cell_y, scene.grid().nx)];
      EXPECT_GE(bound, largest + lost) << "cell " << cell_x;
      EXPECT_LE(bound, 2 * largest + 5 * lost) << "cell " << cell_x;
    }
    error_bounds_free(&bounds);
    host_scan_free(scan);
  }
}

TEST(HalfTurns, AreTakenWhereThePixelsShowThem) {
  std::vector<float> angles;
  for (int a = 0; a < 24; a++) angles.push_back(15.0f * a);
  for (const bool zero_rim : {true, false}) {
    TurnedBoxes boxes = turned_boxes_new(8, 8, 24);
    turn_boxes(&boxes, random_scene(20, 20, 8, 8, zero_rim).T.data(), angles.data(), 24);
    TurnPair pairs[24];
    const int n = pair_turns(boxes, angles.data(), 1e-5f * std::sqrt(boxes.energy), pairs);
    turned_boxes_free(&boxes);
    const auto half_turns = std::count_if(pairs, pairs + n, [](const TurnPair& pair) { return pair.has_half_turns; });
    // Without a rim of zeros rounding decides which pixels of the box's edge stay at 0, 90, 180 and 270 degrees.
    EXPECT_EQ(zero_rim, n == 6 && half_turns == 6) << n << " pairs, " << half_turns << " with half turns";
  }
}

TEST(HalfTurns, ChangeNoScoreWhereAPixelOutshinesTheRest) {
  // Beside it the rest is no more than rounding; its rows at the box's edge are left out at some angles.
  Scene scene = random_scene(400, 384, 369, 369, false);
  const double energy = std::inner_product(scene.T.begin(), scene.T.end(), scene.T.begin(), 0.0);
  scene.T[pixel_index(120, 200, 369)] =
      1000 * static_cast<float>(std::sqrt(energy / static_cast<double>(scene.T.size())));
  scene.radius = 142;
  const Angles angles{0, 359, 45};
  std::vector<Maps> of_ways;
  for (const ScanWay way : {kHostScan, kDeviceTransforms}) {
    ScanWorkspace ws =
        scan_workspace_new(scene.nx, scene.ny, scene.T_nx, scene.T_ny, angles.count(), kFullBand, 0, way);
    of_ways.push_back(maps_of(&ws, scene, angles));
    scan_workspace_free(&ws);
  }
  EXPECT_TRUE(all_near(of_ways[0].ccmax, of_ways[1].ccmax, 3e-6));
}
