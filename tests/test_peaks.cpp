#include <algorithm>
#include <climits>

#include "quorlin56.h"
#include "test_numeric.h"

namespace {

struct Dot {
  int x, y;
  float cc;
};

/// The peaks of the cells of a map of -1 with some other pixels, each by its index, or 0 where there is none.
std::vector<unsigned> peaks_of(const std::vector<Dot>& dots, float cutoff = 0,
                               const std::vector<unsigned>& excluded = {}, int cell = 5, int nx = 20, int ny = 20) {
  std::vector<float> map(pixel_index(0, ny, nx), -1.0f), angles;
  for (const Dot& dot : dots) map[pixel_index(dot.x, dot.y, nx)] = dot.cc;
  for (size_t i = 0; i < map.size(); i++) angles.push_back(0.25f * i);
  const auto ccmax = to_device(map), psi = to_device(angles);
  const auto places = to_device(excluded);
  const int across = (nx - 1) / cell + 1, down = (ny - 1) / cell + 1;
  const size_t cells = static_cast<size_t>(across) * down;
  std::vector<unsigned> index(cells, 4711u);
  std::vector<float> cc(cells), angle(cells);
  PeakWorkspace ws = peak_workspace_new(across, down);
  gpu_find_filter_ccmax_psi_grids_exclusive(&ws, ccmax.get(), psi.get(), index.data(), cc.data(), angle.data(), cutoff,
                                            nx, ny, cell, places.get(), static_cast<unsigned>(excluded.size()));
  peak_workspace_free(&ws);
  for (size_t c = 0; c < cells; c++)
    EXPECT_TRUE(index[c] == 0 || (cc[c] == map[index[c]] && angle[c] == angles[index[c]])) << "cell " << c;
  return index;
}

/// Which of the dots are peaks.
std::string left(const std::vector<Dot>& dots, float cutoff = 0, const std::vector<unsigned>& excluded = {}) {
  const std::vector<unsigned> peaks = peaks_of(dots, cutoff, excluded);
  std::string found;
  for (const Dot& dot : dots)
    if (std::count(peaks.begin(), peaks.end(), static_cast<unsigned>(dot.y * 20 + dot.x)) == 1)
      found += std::to_string(&dot - dots.data());
  EXPECT_EQ(peaks.size() - found.size(), std::count(peaks.begin(), peaks.end(), 0u));
  return found;
}

}  // namespace

using Peak = DeviceTest;

TEST_F(Peak, IsTheFirstOfTheLargestValuesOfItsCell) {
  EXPECT_EQ("1", left({{6, 6, 0.3f}, {8, 6, 0.5f}, {7, 7, 0.5f}, {9, 8, kNaN}}));
  EXPECT_EQ("", left({{5, 5, kNaN}, {6, 6, 0.5f}})) << "nothing is above a first pixel of NaN";
  EXPECT_EQ("", left({{5, 5, 0.5f}, {6, 6, 0.4f}})) << "a first pixel is none";
  EXPECT_EQ("1", left({{5, 5, -kInfinity}, {6, 6, 0.5f}, {7, 7, -kInfinity}}));
  // Cells that the edges cut; one that holds all.
  EXPECT_EQ(std::vector<unsigned>({0, 0, 23, 72, 0, 83}),
            peaks_of({{11, 1, 0.5f}, {0, 6, 0.5f}, {11, 6, 0.5f}}, 0, {}, 5, 12, 7));
  EXPECT_EQ(std::vector<unsigned>({77}), peaks_of({{37, 1, 0.5f}}, 0, {}, 1000, 40, 2));
  EXPECT_EQ(std::vector<unsigned>({315}), peaks_of({{6, 6, 0.5f}, {15, 15, 0.7f}}, 0, {}, INT_MAX));
  EXPECT_EQ(std::vector<unsigned>({0}), peaks_of({{6, 6, 0.5f}, {15, 15, 0.7f}}, 0, {1}, INT_MAX));
}

TEST_F(Peak, IsRemovedByACloseHigherOneOrAnExcludedPlaceOrTheCutoff) {
  for (const int from : {-1, 1})
    for (const auto& [dx, dy] : {std::pair{4, 0}, {0, 4}, {4, 4}, {4, -4}})
      EXPECT_EQ("1", left({{7, 7, 0.3f}, {7 + from * dx, 7 + from * dy, 0.5f}})) << dx << ", " << dy;
  EXPECT_EQ("01", left({{7, 7, 0.5f}, {11, 7, 0.5f}})) << "a tie";
  EXPECT_EQ("0", left({{7, 7, 0.5f}, {11, 7, 0.4f}, {15, 7, 0.3f}})) << "even by one that is removed itself";
  EXPECT_EQ("01", left({{6, 6, 0.3f}, {11, 11, 0.5f}})) << "just far enough, at the root of 50 pixels";
  EXPECT_EQ("1", left({{7, 6, 0.3f}, {11, 11, 0.5f}}));
  EXPECT_EQ("1", left({{7, 7, 0.874f}, {7, 17, 0.875f}}, 0.875f));
  EXPECT_EQ("12", left({{4, 4, 0.5f}, {7, 2, 0.5f}, {17, 16, 0.5f}, {12, 17, 0.5f}}, 0, {0, 12 * 20 + 9}));
}

TEST(CellSize, IsTheLeastDistanceOverTheRootOfTwoTruncated) {
  EXPECT_EQ(42, grid_cell_size(0.8f * 400, 4 * 1.34f));
  EXPECT_EQ(1, grid_cell_size(10, 7));
  EXPECT_EQ(0, grid_cell_size(10, 7.1f));
  EXPECT_EQ(INT_MAX, grid_cell_size(1e30f, 1));
  EXPECT_EQ(INT_MAX, grid_cell_size(1, 0));
  for (const float wrong : {kNaN, -5.0f, 0.0f}) EXPECT_EQ(0, grid_cell_size(wrong, 1)) << wrong;
}
