#include <climits>

#include "conditioning.h"
#include "test_numeric.h"
#include "test_support.h"

namespace {

// The working image of these tests: 50 by 40 pixels, shrunk by 4, in cells of 12: 5 by 4 of them, the last ones partial.
constexpr int kNx = 50, kNy = 40, kBox = 12, kShrink = 4;
constexpr size_t kCells = 20;
constexpr unsigned kBefore = 99;  // what the cells hold before

unsigned point(int x, int y) { return static_cast<unsigned>(y * kNx + x); }

/// Runs what adds to a grid; returns the cells that it changed.
template <class Code>
std::vector<std::pair<size_t, unsigned>> cells_changed_by(Code code) {
  const auto d_grid = to_device(std::vector<unsigned>(kCells, kBefore));
  code(d_grid.get());
  std::vector<std::pair<size_t, unsigned>> changed;
  const std::vector<unsigned> grid = to_host(d_grid, kCells);
  for (size_t i = 0; i < kCells; i++)
    if (grid[i] != kBefore) changed.emplace_back(i, grid[i]);
  return changed;
}

using Cells = std::vector<std::pair<size_t, unsigned>>;

struct Exclusions : FolderTest {
  void SetUp() override { REQUIRE_DEVICE(); }
};

}  // namespace

using CellMask = DeviceTest;

TEST_F(Exclusions, MarkTheCellOfTheCentreByTruncatingDivisions) {
  const struct {
    std::vector<PTCL_BOX> boxes;
    Cells cells;
    int outside;
  } cases[] = {
      // Centres in raw pixels: (59, 43) -> (14, 10); 7 + 5/2 = 9 -> 2, -1 + 3/2 = 0; the last pixel (199, 159).
      {{{59, 43, 0, 0, 0, 0, 0}, {7, -1, 5, 3, 0, 0, 0}, {199, 159, 0, 0, 0, 0, 0}},
       {{0, point(2, 0)}, {1, point(14, 10)}, {19, point(49, 39)}},
       0},
      {{{52, 8, 0, 0, 0, 0, 0}, {90, 40, 0, 0, 0, 0, 0}, {56, 12, 0, 0, 0, 0, 0}}, {{1, point(14, 3)}}, 0},  // the last
      {{{3, 3, 0, 0, 0, 0, 0}}, {{0, 0u}}, 0},  // the very first pixel leaves its cell clean
      {{{200, 0, 0, 0, 0, 0, 0},
        {0, 160, 0, 0, 0, 0, 0},
        {-1, 5, 0, 0, 0, 0, 0},
        {5, -1, 0, 0, 0, 0, 0},
        {INT_MAX, 0, INT_MAX, 0, 0, 0, 0},
        {INT_MIN, INT_MIN, INT_MIN, INT_MIN, 0, 0, 0},
        {100, 80, 0, 0, 0, 0, 0}},
       {{7, point(25, 20)}},
       6}};
  for (const auto& c : cases) {
    const auto n = static_cast<int>(c.boxes.size());
    testing::internal::CaptureStderr();
    EXPECT_EQ(c.cells, cells_changed_by([&](unsigned* d_grid) {
                add_excluded_coords_to_ice(d_grid, kNx, kNy, kBox, c.boxes.data(), n, kShrink, "m.box");
              }));
    const std::string note = "Kestrix: m.box: 6 of 7 excluded coordinates lie outside the image; skipped.\n";
    EXPECT_EQ(c.outside > 0 ? note : "", testing::internal::GetCapturedStderr());
  }
}

TEST_F(Exclusions, OfAFileAreReadAndCountedAsFarAsThereAreCells) {
  std::string long_list;
  for (int i = 0; i < 25; i++) long_list += std::to_string(4 * i) + " 8 0 0\n";
  const struct {
    const char *name, *count;
    std::string list;
    Cells cells;
  } cases[] = {
      {"g.box", "       2", "40\t30\t40\t26\n100 80 0 0\n", {{1, point(15, 10)}, {7, point(25, 20)}}},
      {"g.star", "       1", "data_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n 60.7  43.9\n", {{1, point(15, 10)}}},
      {"g.box", "      20", long_list, {{0, point(11, 2)}, {1, point(19, 2)}}}};
  for (const auto& c : cases) {
    write_file(path(c.name), c.list);
    std::vector<PTCL_BOX> room(kCells);
    Cells changed;
    EXPECT_EQ(c.count + (" particles in file " + path(c.name)) + " excluded from auto-picking \n", output_of([&] {
                changed = cells_changed_by([&](unsigned* d_grid) {
                  add_excluded_boxf_to_ice(d_grid, kNx, kNy, kBox, path(c.name).c_str(), kShrink, room.data());
                });
              }));
    EXPECT_EQ(c.cells, changed) << c.list;
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
