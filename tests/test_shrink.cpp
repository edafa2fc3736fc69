#include <algorithm>

#include "conditioning/conditioning.h"
#include "process2d_raw.h"
#include "test_numeric.h"
#include "test_support.h"

namespace {

constexpr int kFactors[] = {1, 2, 3, 4, 5, 6, 8};

/// Largest error of a float sum of up to 64 values below 1, divided: 64 roundings of 6e-8.
constexpr double kSumRounding = 4e-6;

double block_mean(const std::vector<float>& image, int nx, int x, int y, int shrink) {
  double sum = 0;
  for (int j = 0; j < shrink; j++)
    for (int i = 0; i < shrink; i++) sum += image[static_cast<size_t>(y * shrink + j) * nx + x * shrink + i];
  return sum / (shrink * shrink);
}

/// The even square that a micrograph becomes, by definition.
std::vector<double> square_of(const std::vector<float>& image, int nx, int ny, int shrink) {
  const int width = nx / (2 * shrink) * 2, height = ny / (2 * shrink) * 2, side = std::max(width, height);
  std::vector<double> square;
  for (int y = 0; y < side; y++)
    for (int x = 0; x < side; x++)
      square.push_back(block_mean(image, nx, mirrored(x, width), mirrored(y, height), shrink));
  return square;
}

/// A random image with NaN in the columns and rows at the high ends that shrinking is to drop.
std::vector<float> image_with_spoilt_remainder(int nx, int ny, int unit) {
  std::vector<float> image = random_values(static_cast<size_t>(nx) * ny, static_cast<unsigned>(nx * ny + unit));
  for (int y = 0; y < ny; y++)
    for (int x = 0; x < nx; x++)
      if (x >= nx / unit * unit || y >= ny / unit * unit) image[static_cast<size_t>(y) * nx + x] = kNaN;
  return image;
}

std::vector<float> shrunk_square(const std::vector<float>& image, int nx, int ny, int shrink) {
  const auto side = static_cast<size_t>(get_max_extended_square_even_size(nx, ny, shrink));
  std::vector<float> out(side * side, kNaN);
  cpu_2d_meanshrink_extended_even_square(out.data(), image.data(), nx, ny, shrink);
  return out;
}

}  // namespace

using ShrinkFromFile = FolderTest;

TEST_F(ShrinkFromFile, GivesTheBitsOfTheWholeImageWithZerosForWhatTheFileLacks) {
  constexpr int kNx = 701, kNy = 483;  // several chunks at every factor
  const auto n = static_cast<size_t>(kNx) * kNy;
  for (const int mode : {1, 2}) {
    std::vector<float> image = random_values(n, 4, -3000, 3000);
    std::vector<int16_t> shorts(n);
    for (size_t i = 0; i < n; i++) shorts[i] = static_cast<int16_t>(image[i]);
    if (mode == 1) image.assign(shorts.begin(), shorts.end());
    const auto* samples =
        mode == 1 ? reinterpret_cast<const char*>(shorts.data()) : reinterpret_cast<const char*>(image.data());
    const size_t kept = n - 1234;  // the file ends within a row
    write_mrc(path("mic.mrc"), kNx, kNy, 1, mode, std::string(samples, kept * (mode == 1 ? 2 : 4) + 1));
    std::fill(image.begin() + static_cast<long>(kept), image.end(), 0.0f);
    for (const int shrink : kFactors) {
      const Cores cores(1 + shrink % 3);
      const auto side = static_cast<size_t>(get_max_extended_square_even_size(kNx, kNy, shrink));
      std::vector<float> out(side * side, kNaN);
      FILE* file = fopen(path("mic.mrc").c_str(), "r");
      MRC_HEAD head;
      mrc_read_head(file, &head);
      read_shrunk_micrograph(file, &head, shrink, kNoLimits, out.data());
      fclose(file);
      cpu_2d_extend_even(out.data(), kNx, kNy, shrink);
      EXPECT_TRUE(same_bits(out, shrunk_square(image, kNx, kNy, shrink))) << "mode " << mode << ", by " << shrink;
    }
  }
}

TEST(ShrinkToSquare, AveragesBlocksDropsTheHighEndsAndMirrorsTheShorterSide) {
  const int sizes[][2] = {{96, 96}, {97, 97}, {111, 83}, {83, 111}, {100, 64}, {64, 115}, {65, 49}, {3838, 3710}};
  for (const auto& size : sizes) {
    for (const int shrink : kFactors) {
      const std::vector<float> image = image_with_spoilt_remainder(size[0], size[1], 2 * shrink);
      EXPECT_TRUE(all_near(shrunk_square(image, size[0], size[1], shrink), square_of(image, size[0], size[1], shrink),
                           kSumRounding))
          << size[0] << " x " << size[1] << " by " << shrink;
    }
  }
}

TEST(ShrinkToSquare, RefusesSidesWhoseRatioReachesTwoAfterRounding) {
  const std::vector<float> image(20 * 20, 1.0f);
  const std::string refusal =
      fatal_line("cpu_2d_extend_to_square_mirror_inplace", "process2d_raw", "Make sure: Ny/2 < Nx < 2Ny");
  const std::pair<int, int> refused[] = {{16, 9}, {9, 16}, {20, 1}}, taken[] = {{15, 8}, {8, 15}};
  for (const auto& [nx, ny] : refused) {
    const ChildResult run = run_in_child([&, nx = nx, ny = ny] { shrunk_square(image, nx, ny, 1); });
    EXPECT_EQ(1, run.status) << nx;
    EXPECT_EQ(refusal, run.out) << nx;
  }
  for (const auto& [nx, ny] : taken) shrunk_square(image, nx, ny, 1);
}

TEST(Meanshrink, DropsTheRemainderOfEverySliceOfAStackAndRefusesFactorsBelowOne) {
  const int nx = 29, ny = 35, nz = 3;
  for (const int shrink : {1, 3, 8}) {
    std::vector<float> stack;
    std::vector<double> want;
    for (int z = 0; z < nz; z++) {
      std::vector<float> slice = image_with_spoilt_remainder(nx, ny, shrink);
      for (float& v : slice) v = (v + static_cast<float>(z)) / nz;
      stack.insert(stack.end(), slice.begin(), slice.end());
      for (int y = 0; y < ny / shrink; y++)
        for (int x = 0; x < nx / shrink; x++) want.push_back(block_mean(slice, nx, x, y, shrink));
    }
    std::vector<float> out(want.size(), kNaN);
    cpu_2ds_meanshrink(out.data(), stack.data(), nx, ny, nz, shrink);
    EXPECT_TRUE(all_near(out, want, kSumRounding)) << shrink;
  }
  float pixel = 7;
  EXPECT_EQ(
      "Error in function cpu_2d_meanshrink(), file process2d_raw on line N: Wrong value of shrink_factor. Must be "
      ">=1!\n",
      output_of([&] { cpu_2ds_meanshrink(&pixel, &pixel, 1, 1, 1, 0); }));
  EXPECT_EQ(7, pixel);
}
