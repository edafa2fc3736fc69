#include <climits>
#include <vector>

#include "process2d_mrc.h"
#include "test_support.h"

namespace {

struct Extraction : FolderTest {
  std::string movie = "m.mrc";

  // A movie of 13 by 11 pixels in 16-bit samples 1, 2, 3 ...
  void write_movie(int nz, int claimed_nz) {
    std::string samples;
    for (int i = 1; i <= 13 * 11 * nz; i++) samples += {static_cast<char>(i & 255), static_cast<char>(i >> 8)};
    write_mrc(path(movie), 13, 11, claimed_nz, 1, samples);
  }

  Image extract(const std::string& boxes, int size, int invert) {
    write_file(path("m_quorlin.box"), boxes);
    mrcf_x2d_extract_ptcls_from_micrograph(path(movie).c_str(), path("m_quorlin.box").c_str(), size, invert);
    return read_image(path("m_particles.mrcs"));
  }
};

}  // namespace

TEST_F(Extraction, BoxesAreCutFromEveryFrameWithZerosOutsideTheImage) {
  const int corners[][2] = {{0, 0}, {5, 6}, {-2, 9}, {11, -3}, {-4, 2}, {13, 2}, {3, INT_MAX}, {INT_MIN, 3}};
  std::string boxes;
  for (const auto& c : corners) boxes += std::to_string(c[0]) + " " + std::to_string(c[1]) + " 4 4 0.5 0 0\n";
  for (const int nz : {1, 3}) {
    for (const int invert : {0, 1}) {
      write_movie(nz, nz);
      std::vector<float> expected;
      for (const auto& c : corners)
        for (int f = 0; f < nz; f++)
          for (long y = c[1]; y < c[1] + 4L; y++)
            for (long x = c[0]; x < c[0] + 4L; x++)
              expected.push_back(x < 0 || x >= 13 || y < 0 || y >= 11
                                     ? 0.0f
                                     : static_cast<float>((invert ? -1 : 1) * ((f * 11 + y) * 13 + x + 1)));
      const Image stack = extract(boxes, 0, invert);
      EXPECT_TRUE(stack.head.mode == 2 && stack.head.nz == 8 * nz);
      EXPECT_EQ(expected, stack.data);
      float* block = get_mrcf_data_ptcls(path("m.mrc").c_str(), path("m_quorlin.box").c_str(), 0, invert);
      EXPECT_EQ(expected, std::vector<float>(block, block + expected.size()));
      free(block);
    }
  }
}

TEST_F(Extraction, TheFirstBoxHoldsForAllUpToTheMostBoxes) {
  movie = "m.mrcs";
  write_movie(1, 1);
  EXPECT_EQ(6u, extract("4 3 1 3\n2 2 100 100\n", 0, 0).data.size());
  std::string boxes;
  for (int i = 0; i < 10241; i++) boxes += "1 1 1 1\n";
  EXPECT_EQ(std::vector<float>(10240, 15.0f), extract(boxes, 0, 0).data);
  const MRC_HEAD none = extract("", 64, 0).head;
  EXPECT_TRUE(none.nx == 0 && none.ny == 0 && none.nz == 0 && none.amax == 0);
}

TEST_F(Extraction, AbsurdSizesAndFilesThatDisagreeEndTheRunWithoutAStack) {
  const struct {
    const char* boxes;
    int size, claimed_nz;
    std::string said = "! Exit now!\n";
  } cases[] = {
      {"1 1 2147483647 2147483647\n", 0, 1},
      {"1 1 1 1\n", INT_MAX, 1},
      {"1 1 -3 3\n", 0, 1},
      {"1 1 3 3\n", -3, 1},
      {"1 1 3 3\n", 0, 0, fatal_line("get_mrcf_data_ptcls", "process2d_mrc", "Micrograph or movie size error!")},
      {"1 1 3 3\n", 0, 2, fatal_line("mrc_read_all", "mrcfile", "File size error!")}};
  for (const auto& c : cases) {
    write_movie(c.claimed_nz > 0, c.claimed_nz);
    expect_refused(run_in_child([&] { extract(c.boxes, c.size, 0); }), c.said);
    EXPECT_FALSE(std::filesystem::exists(path("m_particles.mrcs")));
  }
}
