#include <algorithm>

#include "conditioning/conditioning.h"
#include "process2d_raw.h"
#include "test_numeric.h"
#include "test_support.h"

namespace {

constexpr int kFactors[] = {1, 2, 3, 4, 5, 6, 8};

/// The even square that a micrograph becomes, by definition.
std::vector<double> square_of(const std::vector<float>& image, int nx, int ny, int shrink) {
  const int width = nx / (2 * shrink) * 2, height = ny / (2 * shrink) * 2, side = std::max(width, height);
  std::vector<double> square;
  for (int i = 0; i < side * side; i++) {
    const int x = mirrored(i % side, width) * shrink, y = mirrored(i / side, height) * shrink;
    double sum = 0;
    for (int k = 0; k < shrink * shrink; k++) sum += image[pixel_index(x + k % shrink, y + k / shrink, nx)];
    square.push_back(sum / (shrink * shrink));
  }
  return square;
}

std::vector<float> unwritten_square(int nx, int ny, int shrink) {
  const auto side = static_cast<size_t>(get_max_extended_square_even_size(nx, ny, shrink));
  return std::vector<float>(side * side, kNaN);
}

std::vector<float> shrunk_square(const std::vector<float>& image, int nx, int ny, int shrink) {
  std::vector<float> out = unwritten_square(nx, ny, shrink);
  cpu_2d_meanshrink_extended_even_square(out.data(), image.data(), nx, ny, shrink);
  return out;
}

}  // namespace

using ShrinkFromFile = FolderTest;

TEST_F(ShrinkFromFile, GivesTheBitsOfTheWholeImageWithZerosForWhatTheFileLacks) {
  constexpr int kNx = 701, kNy = 483;           // several chunks at every factor
  const size_t n = kNx * kNy, kept = n - 1234;  // the file ends within a row
  std::vector<float> image = random_values(n, 4, -3000, 3000);
  std::vector<int16_t> shorts(image.begin(), image.end());
  for (const int mode : {2, 1}) {
    if (mode == 1) image.assign(shorts.begin(), shorts.end());
    const void* samples = mode == 1 ? static_cast<void*>(shorts.data()) : static_cast<void*>(image.data());
    write_mrc(path("mic.mrc"), kNx, kNy, 1, mode,
              {static_cast<const char*>(samples), kept * (mode == 1 ? sizeof(int16_t) : sizeof(float)) + 1});
    std::fill(image.begin() + static_cast<long>(kept), image.end(), 0.0f);
    for (const int shrink : kFactors) {
      const Cores cores(1 + shrink % 3);
      std::vector<float> out = unwritten_square(kNx, kNy, shrink);
      const auto file = open_plain_mrc(fopen(path("mic.mrc").c_str(), "r"));
      read_shrunk_micrograph(*file, shrink, kNoLimits, out.data());
      cpu_2d_extend_even(out.data(), kNx, kNy, shrink);
      EXPECT_TRUE(same_bits(out, shrunk_square(image, kNx, kNy, shrink))) << "mode " << mode << ", by " << shrink;
    }
  }
}

TEST(ShrinkToSquare, AveragesBlocksDropsTheHighEndsAndMirrorsTheShorterSide) {
  const int sizes[][2] = {{96, 96}, {97, 97}, {111, 83}, {83, 111}, {100, 64}, {64, 115}, {65, 49}, {3838, 3710}};
  for (const auto& [nx, ny] : sizes) {
    const std::vector<float> whole = random_values(pixel_index(0, ny, nx), 5);
    for (const int shrink : kFactors) {
      // NaN where shrinking is to drop pixels. A float sum of up to 64 values below 1 is off by 64 roundings of 6e-8.
      std::vector<float> image = whole;
      for (int i = 0; i < nx * ny; i++)
        if (std::max(i % nx - nx / (2 * shrink) * 2 * shrink, i / nx - ny / (2 * shrink) * 2 * shrink) >= 0)
          image[i] = kNaN;
      EXPECT_TRUE(all_near(shrunk_square(image, nx, ny, shrink), square_of(image, nx, ny, shrink), 4e-6))
          << nx << " x " << ny << " by " << shrink;
    }
  }
}

TEST(ShrinkToSquare, RefusesSidesWhoseRatioReachesTwoAfterRounding) {
  const std::vector<float> image(20 * 20, 1.0f);
  const int sides[][2] = {{16, 9}, {9, 16}, {20, 1}};
  for (const auto& side : sides)
    expect_refused(run_in_child([&] { shrunk_square(image, side[0], side[1], 1); }),
                   fatal_line("cpu_2d_extend_to_square_mirror_inplace", "process2d_raw", "Make sure: Ny/2 < Nx < 2Ny"));
  shrunk_square(image, 15, 8, 1);
  shrunk_square(image, 8, 15, 1);
}

TEST(Meanshrink, RefusesFactorsBelowOne) {
  float pixel = 7;
  EXPECT_EQ(
      "Error in function cpu_2d_meanshrink(), file process2d_raw on line N: Wrong value of shrink_factor. Must be "
      ">=1!\n",
      output_of([&] { cpu_2ds_meanshrink(&pixel, &pixel, 1, 1, 1, 0); }));
  EXPECT_EQ(7, pixel);
}
