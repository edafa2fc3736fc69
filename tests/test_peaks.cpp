#include <algorithm>
#include <climits>

#include "quorlin56.h"
#include "test_numeric.h"

namespace {

/// The peaks of a map's cells.
struct Peaks {
  std::vector<unsigned> index;
  std::vector<float> cc, psi;
};

/// A correlation map and how its peaks are looked for.
struct Search {
  int nx, ny, cell;
  std::vector<float> ccmax;
  float cutoff = 0;
  std::vector<unsigned> excluded;

  int across() const { return (nx - 1) / cell + 1; }
  int down() const { return (ny - 1) / cell + 1; }
  size_t cells() const { return static_cast<size_t>(across()) * down(); }
  unsigned point(int x, int y) const { return static_cast<unsigned>(y * nx + x); }
};

Search flat_search(int nx, int ny, int cell) {
  return {nx, ny, cell, std::vector<float>(static_cast<size_t>(nx) * ny, 0.0f), 0, {}};
}

/// An angle for each pixel, to tell whence a cell's angle comes.
float angle_of(size_t pixel) { return static_cast<float>(pixel) * 0.25f; }

Peaks found(const Search& s) {
  std::vector<float> angles;
  for (size_t i = 0; i < s.ccmax.size(); i++) angles.push_back(angle_of(i));
  const auto ccmax = to_device(s.ccmax), psi = to_device(angles);
  const auto excluded = to_device(s.excluded);
  Peaks peaks{std::vector<unsigned>(s.cells(), 4711u), std::vector<float>(s.cells()), std::vector<float>(s.cells())};
  PeakWorkspace ws = peak_workspace_new(s.across(), s.down());
  gpu_find_filter_ccmax_psi_grids_exclusive(&ws, ccmax.get(), psi.get(), peaks.index.data(), peaks.cc.data(),
                                            peaks.psi.data(), s.cutoff, s.nx, s.ny, s.cell, excluded.get(),
                                            static_cast<unsigned>(s.excluded.size()));
  peak_workspace_free(&ws);
  return peaks;
}

/// Largest value of each cell, from its first pixel on; index 0 where that is the first pixel.
Peaks cell_maxima(const Search& s) {
  Peaks peaks;
  for (int y0 = 0; y0 < s.ny; y0 += s.cell) {
    for (int x0 = 0; x0 < s.nx; x0 += s.cell) {
      float best = s.ccmax[s.point(x0, y0)];
      unsigned at = 0;
      for (int y = y0; y < std::min(y0 + s.cell, s.ny); y++)
        for (int x = x0; x < std::min(x0 + s.cell, s.nx); x++)
          if (s.ccmax[s.point(x, y)] > best) {
            best = s.ccmax[s.point(x, y)];
            at = s.point(x, y);
          }
      peaks.index.push_back(at);
      peaks.cc.push_back(best);
      peaks.psi.push_back(at ? angle_of(at) : kNaN);
    }
  }
  return peaks;
}

bool near(const Search& s, unsigned a, unsigned b) {
  const long dx = static_cast<long>(a) % s.nx - static_cast<long>(b) % s.nx;
  const long dy = static_cast<long>(a) / s.nx - static_cast<long>(b) / s.nx;
  return dx * dx + dy * dy < 2L * s.cell * s.cell;
}

/// Which peaks remain when every decision is taken on all that were found.
Peaks filtered(const Search& s) {
  const Peaks all = cell_maxima(s);
  Peaks kept = all;
  for (int gy = 0; gy < s.down(); gy++) {
    for (int gx = 0; gx < s.across(); gx++) {
      const size_t i = static_cast<size_t>(gy) * s.across() + gx;
      bool beaten = all.cc[i] < s.cutoff;
      for (const unsigned e : s.excluded) beaten = beaten || near(s, all.index[i], e);
      for (int dy = -1; dy <= 1; dy++) {
        for (int dx = -1; dx <= 1; dx++) {
          if (gx + dx < 0 || gx + dx >= s.across() || gy + dy < 0 || gy + dy >= s.down()) continue;
          const size_t n = static_cast<size_t>(gy + dy) * s.across() + gx + dx;
          beaten = beaten || (near(s, all.index[i], all.index[n]) && all.cc[i] < all.cc[n]);
        }
      }
      if (beaten) kept.index[i] = 0;
    }
  }
  return kept;
}

/// Checks peaks and scores of every cell, and the angle wherever there is a peak.
void expect_same_peaks(const Peaks& got, const Peaks& want) {
  EXPECT_EQ(want.index, got.index);
  EXPECT_TRUE(same_bits(got.cc, want.cc));
  for (size_t i = 0; i < got.index.size(); i++) EXPECT_TRUE(got.index[i] == 0 || got.psi[i] == want.psi[i]) << i;
}

std::vector<unsigned> survivors(const Peaks& peaks) {
  std::vector<unsigned> left;
  for (const unsigned i : peaks.index)
    if (i != 0) left.push_back(i);
  return left;
}

}  // namespace

using Peak = DeviceTest;

TEST_F(Peak, SearchEqualsAPlainOneOnMapsWithTiesNaNAndInfinities) {
  const int sizes[][3] = {{60, 60, 7}, {64, 40, 8}, {41, 53, 12}, {30, 30, 1}, {20, 20, 50}, {90, 70, 5}};
  unsigned seed = 1;
  size_t left = 0, removed = 0;
  for (const auto& size : sizes) {
    for (int kind = 0; kind < 8; kind++) {
      Search s = flat_search(size[0], size[1], size[2]);
      s.ccmax = random_values(s.ccmax.size(), seed++, -1, 1);
      const std::vector<float> choice = random_values(s.ccmax.size(), seed++, 0, 1);
      for (size_t i = 0; i < s.ccmax.size(); i++) {
        if (kind % 2) s.ccmax[i] = std::round(s.ccmax[i] * 8) / 8;  // ties
        if (kind & 2 && choice[i] < 0.2f) s.ccmax[i] = kNaN;
        if (kind & 2 && choice[i] > 0.8f) s.ccmax[i] = -kInfinity;
      }
      s.cutoff = kind & 1 ? 0.875f : 0.3f;  // a value that peaks have, and one that none has
      const auto n_excluded = static_cast<size_t>(kind & 4 ? s.cells() : 0);
      for (const float v : random_values(n_excluded, seed++, 0, 1))
        s.excluded.push_back(v < 0.9f ? 0u : static_cast<unsigned>(v * 3571) % static_cast<unsigned>(s.ccmax.size()));
      SCOPED_TRACE(testing::Message() << s.nx << " x " << s.ny << ", cells of " << s.cell << ", kind " << kind);
      const Peaks got = found(s);
      expect_same_peaks(got, filtered(s));
      left += survivors(got).size();
      removed += survivors(cell_maxima(s)).size() - survivors(got).size();
    }
  }
  EXPECT_GT(left, 500u) << "too few peaks to tell";
  EXPECT_GT(removed, 500u);
}

TEST_F(Peak, NeedsAPixelAboveItsCellsFirst) {
  Search s = flat_search(30, 30, 10);
  EXPECT_TRUE(survivors(found(s)).empty()) << "a flat map";
  s.ccmax[s.point(10, 10)] = 1;
  EXPECT_TRUE(survivors(found(s)).empty()) << "the cell's first pixel";
  EXPECT_EQ(1.0f, found(s).cc[4]);
  s.ccmax[s.point(11, 10)] = 2;
  EXPECT_EQ(std::vector<unsigned>{s.point(11, 10)}, survivors(found(s)));
  s.ccmax[s.point(10, 11)] = 2;
  EXPECT_EQ(std::vector<unsigned>{s.point(11, 10)}, survivors(found(s))) << "the first of equals";
}

TEST_F(Peak, WithAScoreEqualToTheCutoffStays) {
  Search s = flat_search(30, 30, 10);
  s.ccmax[s.point(15, 15)] = 0.15f;
  s.cutoff = 0.15f;
  EXPECT_EQ(1u, survivors(found(s)).size());
  s.cutoff = std::nextafter(0.15f, 1.0f);
  EXPECT_TRUE(survivors(found(s)).empty());
}

TEST_F(Peak, YieldsToABetterNeighbourCloserThanACellsDiagonal) {
  const auto pair = [](int dx, int dy, float first, float second) {
    Search s = flat_search(60, 60, 10);
    s.cutoff = 0.01f;
    s.ccmax[s.point(25, 25)] = first;
    s.ccmax[s.point(25 + dx, 25 + dy)] = second;
    return survivors(found(s)).size();
  };
  EXPECT_EQ(2u, pair(10, 10, 0.5f, 0.9f)) << "at a squared distance of exactly 200";
  EXPECT_EQ(2u, pair(14, 2, 0.5f, 0.9f)) << "exactly 200, in the next cell";
  EXPECT_EQ(1u, pair(14, 1, 0.5f, 0.9f));
  EXPECT_EQ(1u, pair(-9, 10, 0.9f, 0.5f));
  EXPECT_EQ(2u, pair(9, 9, 0.5f, 0.5f)) << "equal scores";
  EXPECT_EQ(1u, pair(1, 1, 0.5f, 0.9f)) << "one peak a cell";
}

TEST_F(Peak, ThatIsBeatenStillBeatsOthers) {
  Search s = flat_search(60, 30, 10);
  s.cutoff = 0.01f;
  s.ccmax[s.point(15, 15)] = 0.9f;  // A beats B, B beats C, and A is far from C
  s.ccmax[s.point(25, 15)] = 0.8f;
  s.ccmax[s.point(35, 15)] = 0.7f;
  EXPECT_EQ(std::vector<unsigned>{s.point(15, 15)}, survivors(found(s)));
  s.excluded = {s.point(2, 15)};  // takes A away, which still beats B
  EXPECT_TRUE(survivors(found(s)).empty());
}

TEST_F(Peak, NearAnExcludedPointGoesWhicheverCellThePointMarks) {
  Search s = flat_search(60, 60, 10);
  s.cutoff = 0.01f;
  for (const auto& place : {std::pair<int, int>{13, 3}, {35, 5}, {45, 45}})
    s.ccmax[s.point(place.first, place.second)] = 1;
  EXPECT_EQ(3u, survivors(found(s)).size()) << "with nothing excluded";
  s.excluded.assign(36, 0);
  EXPECT_EQ((std::vector<unsigned>{s.point(35, 5), s.point(45, 45)}), survivors(found(s)))
      << "zeros stand for the first pixel, 178 from (13,3)";
  s.excluded = {s.point(35, 18), s.point(55, 55)};  // 169, and exactly 200
  EXPECT_EQ((std::vector<unsigned>{s.point(13, 3), s.point(45, 45)}), survivors(found(s)));
}

TEST_F(Peak, OfAnImageInOneCellHasNoNeighbours) {
  for (const int cell : {20, 1000, INT_MAX}) {
    Search s = flat_search(20, 20, cell);
    s.ccmax[s.point(7, 3)] = 0.4f;
    s.ccmax[s.point(12, 3)] = 0.5f;
    const Peaks got = found(s);
    EXPECT_EQ(std::vector<unsigned>{s.point(12, 3)}, got.index);
    EXPECT_EQ(angle_of(s.point(12, 3)), got.psi[0]);
  }
}

TEST(CellSize, IsTheLeastDistanceOverTheRootOfTwoTruncated) {
  EXPECT_EQ(42, grid_cell_size(0.8f * 400, 4 * 1.34f));
  EXPECT_EQ(1, grid_cell_size(10, 7));
  EXPECT_EQ(0, grid_cell_size(10, 7.1f));
  EXPECT_EQ(INT_MAX, grid_cell_size(1e30f, 1));
  EXPECT_EQ(INT_MAX, grid_cell_size(1, 0));
  for (const float wrong : {kNaN, -5.0f, 0.0f}) EXPECT_EQ(0, grid_cell_size(wrong, 1)) << wrong;
}
