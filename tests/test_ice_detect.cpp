#include <climits>

#include "conditioning/conditioning.h"
#include "test_numeric.h"
#include "test_support.h"

namespace {

/// The pixels that the search leaves in each cell, with -1.5 and 1 as the limits of the average and 2 as that of sigma. The
/// values that it leaves must be those of these pixels.
std::vector<unsigned> searched(const std::vector<float>& lave, const std::vector<float>& lsigma, int Nx, int box) {
  const int Ny = static_cast<int>(lave.size()) / Nx;
  const size_t across = (Nx - 1) / box + 1, n = across * ((Ny - 1) / box + 1);
  const auto a = to_device(lave), s = to_device(lsigma), grid_lave = unwritten(n), grid_lsigma = unwritten(n);
  const auto grid = to_device(std::vector<unsigned>(n, 12345u));
  hcuda_find_sigma_grids(a.get(), s.get(), grid.get(), grid_lave.get(), grid_lsigma.get(), Nx, Ny, box, -1.5f, 1, 2);
  std::vector<unsigned> found = to_host(grid, n);
  for (size_t c = 0; c < n; c++) {
    const size_t pixel = found[c] > 0 ? found[c] : pixel_index(c % across * box, c / across * box, Nx);
    EXPECT_TRUE(same_bits({to_host(grid_lave, n)[c], to_host(grid_lsigma, n)[c]}, {lave[pixel], lsigma[pixel]}));
  }
  return found;
}

struct RejectedList : FolderTest {
  /// The list that is written for cells of 10 pixels of a 40 by 30 image shrunk by 4.
  std::string written(const std::vector<unsigned>& grid, int format, int2 origin = {0, 0}) const {
    std::vector<float> lave, lsigma;
    for (size_t i = 0; i < grid.size(); i++) {
      lave.push_back(-1.25f + i);
      lsigma.push_back(2.5f * i);
    }
    output_ice_coord(path("list").c_str(), grid.data(), lave.data(), lsigma.data(), 40, 30, origin, 10, 4, format);
    return read_file(path("list"));
  }
};

}  // namespace

using CellSearch = DeviceTest;

TEST_F(CellSearch, RecordsTheLastPixelBeyondALimitAndBeyondTheOneRecordedBefore) {
  const struct {
    std::vector<float> lave, lsigma;
    unsigned pixel;
  } cells[] = {{{0, 0, 0, 0}, {0, 0, 0, 0}, 0},                  // clean
               {{-2, 1, 0, 0}, {0, 2, 0, 0}, 0},                 // at two limits
               {{2, -1.5f, 0, 0}, {0, 0, 0, 0}, 0},              // at the third
               {{0, 0, 0, 0}, {0, 3, 4, 3.5f}, 2},               // the roughest
               {{0, -2, -3, -2.5f}, {0, 0, 0, 0}, 2},            // the darkest
               {{0, 2, 3, 2.5f}, {0, 0, 0, 0}, 2},               // the brightest
               {{0, 0, 0, 0}, {0, 3, 3, 0}, 1},                  // the first of equals
               {{-4, -3, 0, 0}, {5, 4, 0, 0}, 0},                // less than the first pixel, which isn't recorded
               {{0, 2, -2, 0}, {0, 0, 0, 3}, 3},                 // bright, then dark, then rough
               {{kNaN, -2, 0, 0}, {kNaN, 3, kNaN, 0}, 0},        // nothing is beyond NaN
               {{0, kNaN, 2, kNaN}, {0, kNaN, kNaN, kNaN}, 2}};  // and NaN is beyond nothing
  for (const auto& cell : cells) {
    for (const int box : {2, 1000, INT_MAX})
      EXPECT_EQ(std::vector<unsigned>{cell.pixel}, searched(cell.lave, cell.lsigma, 2, box))
          << "cell " << &cell - cells;
  }
  // Cells of 3 pixels, the last ones cut off.
  std::vector<float> lave(35, 0.0f), lsigma(35, 0.0f);
  for (const size_t pixel : {8, 10, 20, 32, 34}) lave[pixel] = 2;
  EXPECT_EQ(std::vector<unsigned>({8, 10, 20, 0, 32, 34}), searched(lave, lsigma, 7, 3));
  std::vector<float> wide(80, 0.0f);
  wide[77] = 2;
  EXPECT_EQ(std::vector<unsigned>{77}, searched(wide, std::vector<float>(80, 0.0f), 40, 1000));
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
  EXPECT_EQ(
      "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n27      29      \n139     29      \n27      101     "
      "\n",
      written(grid, 1, {3, 5}));
  EXPECT_EQ(0u, written(grid, 2, {3, 5}).find("7       9       40      40      \t"));
  EXPECT_EQ("", written(std::vector<unsigned>(12, 0), 2)) << "a clean grid";
}

using IceDetection = FolderTest;

TEST_F(IceDetection, MarksTheContaminatedCellsAndWritesListsAndMaps) {
  REQUIRE_DEVICE();
  const int N = 60, box = 12, cells = 5;
  std::vector<float> image = random_values(N * N, 1, -0.5f, 0.5f);
  for (int y = 26; y < 38; y++)  // a dark patch with a rough rim, in the middle
    for (int x = 27; x < 40; x++) image[pixel_index(x, y, N)] -= 6;
  const IceSettings settings{-1, 1, 1.3f, 3.6f, 4.7f, 2, 2, true, true, true};
  MirrorPad pad = mirror_pad_new(N, N);
  IceWorkspace ws = ice_workspace_new(&pad, cells, cells, settings);
  const auto d = to_device(image);
  const auto d_grid = to_device(std::vector<unsigned>(25, 777u));
  hcuda_2d_ice_detect(&pad, &ws, d.get(), N, N, {0, 0}, d_grid.get(), box, path("m.mrc").c_str());
  ice_workspace_free(&ws);
  mirror_pad_free(&pad);

  const std::vector<float> lave = read_image(path("m_bg.mrc")).data, lsigma = read_image(path("m_lsigma.mrc")).data;
  const std::vector<unsigned> marks = to_host(d_grid, 25);
  // The patch is 6 deep: float transforms are off by some 1e-6 in the means, 1e-5 in those of squares.
  EXPECT_TRUE(all_near(lave, windowed_mean(widened(image), N, N, 3.6f, 2), 1e-5));
  EXPECT_TRUE(all_near(lsigma, windowed_sigma(widened(image), N, N, 4.7f, 2), 2e-4));
  EXPECT_NE(0u, marks[12]) << "the patch";
  const size_t patch = marks[12];
  EXPECT_TRUE(holds(read_file(path("m_rejected.box")),
                    "\t" + std::to_string(lave[patch]) + "\t" + std::to_string(lsigma[patch]) + "\n"));
}
