#include <climits>

#include "conditioning.h"
#include "math_utils.h"
#include "test_numeric.h"
#include "test_support.h"

namespace {

// The working image of these tests: 50 by 40 pixels, shrunk by 4, in cells of 12: 5 by 4 of them, the last ones partial.
constexpr int kNx = 50, kNy = 40, kBox = 12, kShrink = 4;
constexpr size_t kCells = 20;

unsigned point(int x, int y) { return static_cast<unsigned>(y * kNx + x); }

PTCL_BOX box_at(int x, int y, int w = 0, int h = 0) { return {x, y, w, h, 0, 0, 0}; }

struct Added {
  std::vector<unsigned> grid;
  std::string out, note;
};

/// Runs what adds to a grid that holds `before` everywhere.
template <class Code>
Added added_to(unsigned before, Code code) {
  const auto d_grid = to_device(std::vector<unsigned>(kCells, before));
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  code(d_grid.get());
  const std::string note = testing::internal::GetCapturedStderr();
  return {to_host(d_grid, kCells), without_line_numbers(testing::internal::GetCapturedStdout()), note};
}

Added added(const std::vector<PTCL_BOX>& boxes, unsigned before = 0) {
  return added_to(before, [&](unsigned* d_grid) {
    add_excluded_coords_to_ice(d_grid, kNx, kNy, kBox, boxes.data(), static_cast<int>(boxes.size()), kShrink);
    note_excluded_outside(boxes.data(), static_cast<int>(boxes.size()), kNx, kNy, kShrink, "m.box");
  });
}

Added added_from_file(const std::string& name) {
  return added_to(5u, [&](unsigned* d_grid) {
    std::vector<PTCL_BOX> room(kCells);
    add_excluded_boxf_to_ice(d_grid, kNx, kNy, kBox, name.c_str(), kShrink, room.data());
  });
}

struct ExclusionFile : FolderTest {
  void SetUp() override { REQUIRE_DEVICE(); }
};

}  // namespace

using ExcludedCoordinates = DeviceTest;
using CellMask = DeviceTest;

TEST_F(ExcludedCoordinates, MarkTheCellOfTheCentreByTruncatingDivisions) {
  // Centres in raw pixels: (59, 43) -> (14, 10); 7 + 5/2 = 9 -> 2; the last pixel (199, 159) -> (49, 39).
  const Added got = added({box_at(59, 43), box_at(7, -1, 5, 3), box_at(199, 159)});
  std::vector<unsigned> want(kCells, 0u);
  want[1] = point(14, 10);
  want[0] = point(2, 0);
  want[19] = point(49, 39);
  EXPECT_EQ(want, got.grid);
  EXPECT_EQ("", got.note);
}

TEST_F(ExcludedCoordinates, ReplaceWhatTheirCellHeldAndTheLastOneStays) {
  const Added got = added({box_at(52, 8), box_at(90, 40), box_at(56, 12)}, 99u);
  std::vector<unsigned> want(kCells, 99u);
  want[1] = point(14, 3);
  EXPECT_EQ(want, got.grid);
}

TEST_F(ExcludedCoordinates, AtTheVeryFirstPixelLeaveTheirCellClean) {
  EXPECT_EQ(0u, added({box_at(3, 3)}, 99u).grid[0]);
  EXPECT_EQ(0u, added({box_at(60, 60), box_at(-2, 0, 4, 0)}).grid[0]);
}

TEST_F(ExcludedCoordinates, OutsideTheImageAreSkippedAndCounted) {
  const Added got = added({box_at(200, 0), box_at(0, 160), box_at(-1, 5), box_at(5, -1), box_at(INT_MAX, 0, INT_MAX, 0),
                           box_at(INT_MIN, INT_MIN, INT_MIN, INT_MIN), box_at(100, 80)});
  std::vector<unsigned> want(kCells, 0u);
  want[7] = point(25, 20);
  EXPECT_EQ(want, got.grid);
  EXPECT_EQ(
      "Kestrix: m.box: 6 of 7 excluded coordinates lie outside the image; is the list in raw pixels of this "
      "micrograph?\n",
      got.note);
  EXPECT_EQ("", got.out);
}

TEST_F(ExclusionFile, OfEitherKindIsReadAndCounted) {
  write_file(path("g.box"), "40\t30\t40\t26\n100 80 0 0\n");
  Added got = added_from_file(path("g.box"));
  EXPECT_EQ("       2 particles in file " + path("g.box") + " excluded from auto-picking \n", got.out);
  EXPECT_EQ(point(15, 10), got.grid[1]);
  EXPECT_EQ(point(25, 20), got.grid[7]);
  EXPECT_EQ(5u, got.grid[0]);
  write_file(path("g.star"), "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n 60.7  43.9\n");
  got = added_from_file(path("g.star"));
  EXPECT_EQ("       1 particles in file " + path("g.star") + " excluded from auto-picking \n", got.out);
  EXPECT_EQ(point(15, 10), got.grid[1]);
}

TEST_F(ExclusionFile, WithMoreRecordsThanCellsIsReadAsFarAsTheyGo) {
  std::string lines;
  for (int i = 0; i < 25; i++) lines += std::to_string(4 * i) + " 8 0 0\n";
  write_file(path("g.box"), lines);
  const Added got = added_from_file(path("g.box"));
  EXPECT_EQ("      20 particles in file " + path("g.box") + " excluded from auto-picking \n", got.out);
  EXPECT_EQ(point(11, 2), got.grid[0]);
  EXPECT_EQ(point(19, 2), got.grid[1]);
  EXPECT_EQ(5u, got.grid[2]);
}

TEST_F(ExclusionFile, ThatIsMissingIsAWarningAndANullNameIsNothing) {
  const Added missing = added_from_file(path("g.box"));
  EXPECT_EQ(std::vector<unsigned>(kCells, 5u), missing.grid);
  EXPECT_NE(std::string::npos, missing.out.find("the file " + path("g.box") + " does NOT exist!"));
  for (const char* null : {"NULL", "none", ""}) {
    const Added nothing = added_from_file(null);
    EXPECT_EQ(std::vector<unsigned>(kCells, 5u), nothing.grid);
    EXPECT_EQ("", nothing.out + nothing.note);
  }
}

TEST_F(CellMask, CoversWholeCellsAndEveryPixel) {
  const int sizes[][3] = {{50, 40, 12}, {48, 48, 12}, {31, 29, 1}, {31, 29, 100}, {31, 29, INT_MAX}};
  for (const auto& size : sizes) {
    const int Nx = size[0], Ny = size[1], box = size[2], across = (Nx - 1) / box + 1, down = (Ny - 1) / box + 1;
    std::vector<unsigned> grid;
    for (const float v : random_values(static_cast<size_t>(across) * down, static_cast<unsigned>(box), 0, 1))
      grid.push_back(v < 0.4f ? 0u : 3u);  // where in the image the point lies doesn't matter
    const auto d_grid = to_device(grid);
    for (const int value : {0, 1}) {
      std::vector<float> want;
      for (int y = 0; y < Ny; y++)
        for (int x = 0; x < Nx; x++) {
          const bool marked = grid[static_cast<size_t>(y / box) * across + x / box] != 0;
          want.push_back(marked == (value == 1) ? 1.0f : 0.0f);
        }
      const auto mask = unwritten(want.size());
      hcuda_2d_generate_mask_by_coords(mask.get(), Nx, Ny, box, d_grid.get(), value);
      EXPECT_TRUE(same_bits(to_host(mask, want.size()), want)) << Nx << " x " << Ny << ", cells of " << box;
    }
  }
}

TEST_F(CellMask, TakesExcludedCellsOutOfTheStatisticsOnly) {
  const size_t n = static_cast<size_t>(kNx) * kNy;
  std::vector<float> image = random_values(n, 1);
  for (int y = 12; y < 24; y++)
    for (int x = 24; x < 36; x++) image[static_cast<size_t>(y) * kNx + x] -= 40;  // the cell of index 7
  std::vector<unsigned> grid(kCells, 0u);
  grid[7] = point(25, 20);
  const auto d = to_device(image), mask = unwritten(n);
  const auto d_grid = to_device(grid);
  hcuda_normz_inplace(d.get(), n, 1, 0);
  hcuda_2d_generate_mask_by_coords(mask.get(), kNx, kNy, kBox, d_grid.get(), 0);
  hcuda_norm_withmask_inplace(d.get(), mask.get(), n, 1, 0);
  const std::vector<float> got = to_host(d, n), weights = to_host(mask, n);
  double weight = 0, sum = 0, squares = 0;
  for (size_t i = 0; i < n; i++) {
    weight += weights[i];
    sum += static_cast<double>(weights[i]) * got[i];
    squares += static_cast<double>(weights[i]) * got[i] * got[i];
  }
  EXPECT_EQ(static_cast<double>(n) - 144, weight);
  EXPECT_NEAR(0, sum / weight, 1e-5);
  EXPECT_NEAR(1, squares / weight, 1e-5);
  EXPECT_LT(got[point(30, 18)], -30) << "the excluded pixels keep their contrast";
  // With nothing excluded a normalised image stays as it is, but for rounding.
  const auto clean = to_device(std::vector<unsigned>(kCells, 0u));
  const auto normal = to_device(random_values(n, 2));
  hcuda_normz_inplace(normal.get(), n, 1, 0);
  const std::vector<float> before = to_host(normal, n);
  hcuda_2d_generate_mask_by_coords(mask.get(), kNx, kNy, kBox, clean.get(), 0);
  hcuda_norm_withmask_inplace(normal.get(), mask.get(), n, 1, 0);
  EXPECT_TRUE(all_near(to_host(normal, n), before, 3e-6));
}
