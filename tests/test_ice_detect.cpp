#include <climits>

#include "conditioning.h"
#include "test_numeric.h"
#include "test_support.h"

namespace {

struct Limits {
  float lave_min, lave_max, lsigma_cutoff;
};

/// What the search leaves in each cell.
struct Cells {
  std::vector<unsigned> grid;
  std::vector<float> lave, lsigma;
};

/// The search as a plain loop. A running value starts at the cell's first pixel and follows every recorded one.
Cells searched(const std::vector<float>& lave, const std::vector<float>& lsigma, int Nx, int Ny, int box,
               const Limits& limits) {
  Cells cells;
  for (int y0 = 0; y0 < Ny; y0 += box) {
    for (int x0 = 0; x0 < Nx; x0 += box) {
      unsigned point = 0;
      float A = lave[static_cast<size_t>(y0) * Nx + x0], B = lsigma[static_cast<size_t>(y0) * Nx + x0];
      for (int y = y0; y < Ny && y < y0 + box; y++) {
        for (int x = x0; x < Nx && x < x0 + box; x++) {
          const size_t i = static_cast<size_t>(y) * Nx + x;
          const bool rough = lsigma[i] > limits.lsigma_cutoff && lsigma[i] > B;
          const bool dark = lave[i] < limits.lave_min && lave[i] < A;
          const bool bright = lave[i] > limits.lave_max && lave[i] > A;
          if (!rough && !dark && !bright) continue;
          A = lave[i];
          B = lsigma[i];
          point = static_cast<unsigned>(i);
        }
      }
      cells.grid.push_back(point);
      cells.lave.push_back(A);
      cells.lsigma.push_back(B);
    }
  }
  return cells;
}

Cells searched_on_device(const std::vector<float>& lave, const std::vector<float>& lsigma, int Nx, int Ny, int box,
                         const Limits& limits) {
  const size_t n = static_cast<size_t>((Nx - 1) / box + 1) * ((Ny - 1) / box + 1);
  const auto a = to_device(lave), s = to_device(lsigma), grid_lave = unwritten(n), grid_lsigma = unwritten(n);
  const auto grid = to_device(std::vector<unsigned>(n, 12345u));
  hcuda_find_sigma_grids(a.get(), s.get(), grid.get(), grid_lave.get(), grid_lsigma.get(), Nx, Ny, box, limits.lave_min,
                         limits.lave_max, limits.lsigma_cutoff);
  return {to_host(grid, n), to_host(grid_lave, n), to_host(grid_lsigma, n)};
}

/// Maps of few different values, so that many equal each other or a limit, with NaN among them.
std::vector<float> coarse_map(size_t n, unsigned seed, float nan_share) {
  std::vector<float> map = random_values(n, seed, -4, 4), choice = random_values(n, seed + 1, 0, 1);
  for (size_t i = 0; i < n; i++) map[i] = choice[i] < nan_share ? kNaN : std::round(map[i] * 2) / 2;
  return map;
}

class RejectedList : public FolderTest {
 protected:
  /// The list that is written for cells of 10 pixels of a 40 by 30 image shrunk by 4.
  std::string written(const std::vector<unsigned>& grid, int format, int2 origin = {0, 0}) const {
    std::vector<float> lave, lsigma;
    for (size_t i = 0; i < grid.size(); i++) {
      lave.push_back(-1.25f + static_cast<float>(i));
      lsigma.push_back(2.5f * static_cast<float>(i));
    }
    output_ice_coord(path("list").c_str(), grid.data(), lave.data(), lsigma.data(), 40, 30, origin, 10, 4, format);
    return read_file(path("list"));
  }
};

const std::string kStarHead = "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n";

struct IceDetection : FolderTest {
  void SetUp() override { REQUIRE_DEVICE(); }
};

}  // namespace

using CellSearch = DeviceTest;

TEST_F(CellSearch, EqualsAPlainLoopOnMapsWithTiesLimitsAndNaN) {
  const int Nx = 47, Ny = 38;
  const size_t n = static_cast<size_t>(Nx) * Ny;
  const Limits limits{-1.5f, 1.0f, 2.0f};  // values that the maps hold
  unsigned seed = 1;
  for (const int box : {1, 2, 5, 7, 16, 46, 47, 1000, INT_MAX}) {
    for (const float nan_share : {0.0f, 0.1f, 0.6f}) {
      SCOPED_TRACE(testing::Message() << "cells of " << box << ", NaN " << nan_share);
      const std::vector<float> lave = coarse_map(n, seed++, nan_share), lsigma = coarse_map(n, seed++, nan_share);
      // A plain loop's own index would overflow with the largest cell.
      const Cells want = searched(lave, lsigma, Nx, Ny, std::min(box, 1000), limits);
      const Cells got = searched_on_device(lave, lsigma, Nx, Ny, box, limits);
      EXPECT_EQ(want.grid, got.grid);
      EXPECT_TRUE(same_bits(got.lave, want.lave));
      EXPECT_TRUE(same_bits(got.lsigma, want.lsigma));
    }
  }
}

TEST_F(RejectedList, HoldsWhatIsFartherThanHalfACellFromTheEdges) {
  // Points of the 40 by 30 image: none, (5,6) too far left, (6,6), (34,6), (35,6) too far right, (6,24), (6,25) too
  // low.
  const std::vector<unsigned> grid{0,           6 * 40 + 5, 6 * 40 + 6, 6 * 40 + 34, 6 * 40 + 35, 24 * 40 + 6,
                                   25 * 40 + 6, 0,          0,          0,           0,           0};
  EXPECT_EQ(
      "4       4       40      40      \t0.750000\t5.000000\n"
      "116     4       40      40      \t1.750000\t7.500000\n"
      "4       76      40      40      \t3.750000\t12.500000\n",
      written(grid, 2));
  EXPECT_EQ(kStarHead + "24      24      \n136     24      \n24      96      \n", written(grid, 1));
  EXPECT_EQ(kStarHead + "27      29      \n139     29      \n27      101     \n", written(grid, 1, {3, 5}));
  EXPECT_EQ(0u, written(grid, 2, {3, 5}).find("7       9       40      40      \t"));
  EXPECT_EQ("", written(std::vector<unsigned>(12, 0), 2)) << "a clean grid";
}

TEST_F(IceDetection, MarksTheContaminatedCellsAndWritesListsAndMaps) {
  const int N = 60, box = 12, cells = 5;
  std::vector<float> image = random_values(static_cast<size_t>(N) * N, 1, -0.5f, 0.5f);
  for (int y = 26; y < 38; y++)  // a dark patch with a rough rim, in the middle
    for (int x = 27; x < 40; x++) image[static_cast<size_t>(y) * N + x] -= 6;
  Kestrix_Para para{};
  para.shrink = 2;
  para.lsigma_radius_px = 4.7f;
  para.lave_radius_px = 3.6f;
  para.local_edge_width = 2.0f;
  para.lave_min = -1;
  para.lave_max = 1;
  para.lsigma_cutoff = 1.3f;
  para.write_rejected_box = para.write_bg_mic = para.write_lsigma_mic = 1;
  MirrorPad pad = mirror_pad_new(N, N);
  IceWorkspace ws = ice_workspace_new(&pad, cells, cells, &para);
  const auto d = to_device(image);
  const auto d_grid = to_device(std::vector<unsigned>(25, 777u));
  hcuda_2d_ice_detect(&pad, &ws, d.get(), N, N, {0, 0}, d_grid.get(), box, path("m.mrc").c_str(), &para);
  ice_workspace_free(&ws);
  mirror_pad_free(&pad);

  const std::vector<float> lave = read_image(path("m_bg.mrc")).data, lsigma = read_image(path("m_lsigma.mrc")).data;
  const Cells want = searched(lave, lsigma, N, N, box, {-1, 1, 1.3f});
  EXPECT_EQ(want.grid, to_host(d_grid, 25));
  // The patch is 6 deep: float transforms are off by some 1e-6 in the means, 1e-5 in those of squares.
  EXPECT_TRUE(all_near(lave, windowed_mean(widened(image), N, N, static_cast<double>(3.6f), 2), 1e-5));
  EXPECT_TRUE(all_near(lsigma, windowed_sigma(image, N, N, static_cast<double>(4.7f), 2), 2e-4));
  EXPECT_NE(0u, want.grid[12]) << "the patch";
  output_ice_coord(path("again").c_str(), want.grid.data(), want.lave.data(), want.lsigma.data(), N, N, {0, 0}, box, 2,
                   2);
  EXPECT_EQ(read_file(path("again")), read_file(path("m_rejected.box")));
}
