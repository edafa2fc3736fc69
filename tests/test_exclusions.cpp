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

}  // namespace

using Exclusions = DeviceTest;

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
