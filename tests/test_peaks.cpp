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
  const int cell = std::min(s.cell, 1000);  // places in a larger one would overflow
  for (int y0 = 0; y0 < s.ny; y0 += cell) {
    for (int x0 = 0; x0 < s.nx; x0 += cell) {
      float best = s.ccmax[s.point(x0, y0)];
      unsigned at = 0;
      for (int y = y0; y < std::min(y0 + cell, s.ny); y++)
        for (int x = x0; x < std::min(x0 + cell, s.nx); x++)
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

size_t survivors(const Peaks& peaks) {
  return peaks.index.size() - static_cast<size_t>(std::count(peaks.index.begin(), peaks.index.end(), 0u));
}

}  // namespace

using Peak = DeviceTest;

TEST_F(Peak, SearchEqualsAPlainOneOnMapsWithTiesNaNAndInfinities) {
  const int sizes[][3] = {{60, 60, 7},  {64, 40, 8}, {41, 53, 12},     {30, 30, 1},
                          {20, 20, 50}, {90, 70, 5}, {21, 20, INT_MAX}};
  unsigned seed = 1;
  size_t left = 0, removed = 0;
  for (const auto& size : sizes) {
    for (int kind = 0; kind < 8; kind++) {
      const size_t pixels = static_cast<size_t>(size[0]) * size[1];
      Search s{size[0], size[1], size[2], random_values(pixels, seed++, -1, 1), 0, {}};
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
      const Peaks got = found(s), want = filtered(s);
      EXPECT_EQ(want.index, got.index);
      EXPECT_TRUE(same_bits(got.cc, want.cc));
      for (size_t i = 0; i < got.index.size(); i++) EXPECT_TRUE(got.index[i] == 0 || got.psi[i] == want.psi[i]) << i;
      left += survivors(got);
      removed += survivors(cell_maxima(s)) - survivors(got);
    }
  }
  EXPECT_GT(left, 500u) << "too few peaks to tell";
  EXPECT_GT(removed, 500u);
}

TEST(CellSize, IsTheLeastDistanceOverTheRootOfTwoTruncated) {
  EXPECT_EQ(42, grid_cell_size(0.8f * 400, 4 * 1.34f));
  EXPECT_EQ(1, grid_cell_size(10, 7));
  EXPECT_EQ(0, grid_cell_size(10, 7.1f));
  EXPECT_EQ(INT_MAX, grid_cell_size(1e30f, 1));
  EXPECT_EQ(INT_MAX, grid_cell_size(1, 0));
  for (const float wrong : {kNaN, -5.0f, 0.0f}) EXPECT_EQ(0, grid_cell_size(wrong, 1)) << wrong;
}
