#include <climits>
#include <vector>

#include "process2d_mrc.h"
#include "test_support.h"

namespace {

// Pixel (x, y) of frame f of a movie of samples 1, 2, 3 ...; 0 outside.
float movie_pixel(int nx, int ny, long x, long y, int f) {
  return x < 0 || x >= nx || y < 0 || y >= ny ? 0.0f : static_cast<float>((f * ny + y) * nx + x + 1);
}

class Extraction : public FolderTest {
 protected:
  // That movie, in 16-bit samples.
  void write_movie(const std::string& name, int nx, int ny, int nz, int claimed_nz) {
    std::string samples;
    for (int i = 1; i <= nx * ny * nz; i++) samples += {static_cast<char>(i & 255), static_cast<char>(i >> 8)};
    write_mrc(path(name), nx, ny, claimed_nz, 1, samples);
  }

  std::vector<float> extract(const std::string& movie, const std::string& boxes, int size, int invert) {
    write_file(path("m_quorlin.box"), boxes);
    mrcf_x2d_extract_ptcls_from_micrograph(path(movie).c_str(), path("m_quorlin.box").c_str(), size, invert);
    const Image stack = read_image(path("m_particles.mrcs"));
    head = stack.head;
    return stack.data;
  }

  MRC_HEAD head{};  // of the last stack
};

}  // namespace

TEST_F(Extraction, BoxesAreCutFromEveryFrameWithZerosOutsideTheImage) {
  constexpr int nx = 13, ny = 11, size = 4;
  const int corners[][2] = {{0, 0}, {5, 6}, {-2, 9}, {11, -3}, {-4, 2}, {13, 2}, {3, INT_MAX}, {INT_MIN, 3}};
  std::string boxes;
  for (const auto& corner : corners)
    boxes += std::to_string(corner[0]) + " " + std::to_string(corner[1]) + " 4 4 0.5 0 0\n";
  for (const int nz : {1, 3}) {
    for (const int invert : {0, 1}) {
      write_movie("m.mrc", nx, ny, nz, nz);
      std::vector<float> expected;
      for (const auto& corner : corners)
        for (int f = 0; f < nz; f++)
          for (int j = 0; j < size; j++)
            for (int i = 0; i < size; i++)
              expected.push_back((invert ? -1.0f : 1.0f) * movie_pixel(nx, ny, static_cast<long>(corner[0]) + i,
                                                                       static_cast<long>(corner[1]) + j, f));
      EXPECT_EQ(expected, extract("m.mrc", boxes, 0, invert));
      EXPECT_EQ(2, head.mode);
      EXPECT_EQ(8 * nz, head.nz);
      float* block = get_mrcf_data_ptcls(path("m.mrc").c_str(), path("m_quorlin.box").c_str(), 0, invert);
      EXPECT_EQ(expected, std::vector<float>(block, block + expected.size()));
      free(block);
    }
  }
}

TEST_F(Extraction, TheFirstBoxHoldsForAllUpToTheMostBoxes) {
  write_movie("m.mrcs", 13, 11, 1, 1);
  EXPECT_EQ(6u, extract("m.mrcs", "4 3 1 3\n2 2 100 100\n", 0, 0).size());
  std::string boxes;
  for (int i = 0; i < 10241; i++) boxes += "1 1 1 1\n";
  EXPECT_EQ(std::vector<float>(10240, 15.0f), extract("m.mrcs", boxes, 0, 0));
  EXPECT_EQ(0u, extract("m.mrcs", "", 64, 0).size());
  EXPECT_EQ(0, head.nx + head.ny + head.nz);
  EXPECT_EQ(0.0f, head.amax);
}

TEST_F(Extraction, AbsurdSizesAndFilesThatDisagreeEndTheRunWithoutAStack) {
  const struct {
    const char* boxes;
    int size, claimed_nz;
    std::string said;
  } cases[] = {
      {"1 1 2147483647 2147483647\n", 0, 1, ""},
      {"1 1 1 1\n", INT_MAX, 1, ""},
      {"1 1 -3 3\n", 0, 1, ""},
      {"1 1 3 3\n", -3, 1, ""},
      {"1 1 3 3\n", 0, 0, fatal_line("get_mrcf_data_ptcls", "process2d_mrc", "Micrograph or movie size error!")},
      {"1 1 3 3\n", 0, 2, fatal_line("mrc_read_all", "mrcfile", "File size error!")}};
  for (const auto& c : cases) {
    write_movie("m.mrc", 3, 3, c.claimed_nz == 0 ? 0 : 1, c.claimed_nz);
    const ChildResult run = run_in_child([&] { extract("m.mrc", c.boxes, c.size, 0); });
    EXPECT_EQ(1, run.status) << c.boxes;
    EXPECT_TRUE(holds(run.out, c.said)) << run.out;
    EXPECT_FALSE(std::filesystem::exists(path("m_particles.mrcs")));
  }
}
