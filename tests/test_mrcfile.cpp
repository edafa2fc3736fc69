#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "cuda_general.h"
#include "mrcfile.h"
#include "test_numeric.h"
#include "test_support.h"

namespace {

constexpr char kUnit[] = "mrcfile";
constexpr int kHuge = INT_MAX;

MRC_HEAD head_of(int nx, int ny, int nz, int mode) {
  MRC_HEAD head{};
  mrc_init_head(&head);
  mrc_set_head_xyz_mode(&head, nx, ny, nz, mode);
  return head;
}

std::string bytes_of(const void* data, size_t bytes) { return {static_cast<const char*>(data), bytes}; }

struct MrcFile : FolderTest {
  /// Files of random samples of that type are read as floats in planes of every axis; those that are missing are zero and
  /// counted.
  template <class T>
  void expect_read(int mode) {
    SCOPED_TRACE(mode);
    constexpr int nx = 307, ny = 211, nz = 3;
    std::mt19937 random(17);
    std::vector<T> samples;
    for (int i = 0; i < nx * ny * nz; i++) samples.push_back(static_cast<T>(static_cast<int32_t>(random())));
    const MRC_HEAD head = head_of(nx, ny, nz, mode);
    const std::string bytes = bytes_of(samples.data(), samples.size() * sizeof(T));
    write_mrc(path("a.mrc"), nx, ny, nz, mode, bytes);
    EXPECT_EQ(std::vector<float>(samples.begin(), samples.end()), read_image(path("a.mrc")).data);
    const auto expect_plane = [&](char axis, int slice, int width, int height) {
      FILE* file = fopen(path("a.mrc").c_str(), "r");
      std::vector<float> plane(pixel_index(0, height, width), -1.0f), want;
      mrc_read_slice(file, &head, slice, axis, plane.data());
      fclose(file);
      for (int i = 0; i < width * height; i++) {
        const long x = axis == 'X' ? slice : i % width, y = axis == 'Z' ? i / width : axis == 'X' ? i % width : slice;
        const size_t at = pixel_index(x, (axis == 'Z' ? slice : i / width) * long{ny} + y, nx);
        want.push_back(at < samples.size() ? static_cast<float>(samples[at]) : 0);
      }
      EXPECT_EQ(want, plane) << axis << slice;
    };
    expect_plane('y', 100, nx, nz);
    expect_plane('X', 306, ny, nz);
    samples.resize(nx * ny + 55);  // and a bit
    write_file(path("a.mrc"),
               read_file(path("a.mrc")).substr(0, sizeof head + samples.size() * sizeof(T) + sizeof(T) / 2));
    FILE* file = fopen(path("a.mrc").c_str(), "r");
    for (const int slice : {0, 1, 2, 3, kHuge, -1, INT_MIN}) {
      const size_t missing = slice == 0 ? 0 : slice == 1 ? nx * ny - 55 : nx * ny;
      EXPECT_EQ(missing, mrc_missing_samples(file, &head, slice)) << slice;
      expect_plane('Z', slice, nx, ny);
    }
    fclose(file);
  }
};

}  // namespace

TEST(MrcHead, NewHeadHasEveryInitialValueAtItsOffset) {
  std::string expected(1024, '\0');
  const auto put = [&](size_t offset, auto value) { memcpy(&expected[offset], &value, sizeof value); };
  for (const size_t offset : {0, 4, 8, 28, 32, 36, 64}) put(offset, int32_t{1});
  put(12, int32_t{2});
  for (const size_t offset : {40, 44, 48}) put(offset, 1.0f);
  for (const size_t offset : {52, 56, 60}) put(offset, 90.0f);
  put(68, int32_t{2});
  put(72, int32_t{3});
  put(80, 255.0f);
  put(84, 128.0f);
  put(88, int16_t{1});
  put(96, int16_t{1000});
  put(108, int32_t{20141});
  expected.replace(208, 6, "MAP DA");
  MRC_HEAD* head = mrc_new_head();
  EXPECT_EQ(expected, bytes_of(head, sizeof *head));
  memset(head, 'x', sizeof *head);
  mrc_init_head(head);
  expected.replace(112, 84, 84, 'x').replace(216, 4, 4, 'x');  // what it leaves as it is
  EXPECT_EQ(expected, bytes_of(head, sizeof *head));
  free(head);
}

TEST(MrcHead, NamesModes) {
  std::string names;
  for (const int mode : {-1, 0, 1, 2, 3, 4, 5, 6, 16, 20, 21, 22}) {
    const MRC_HEAD head = head_of(1, 1, 1, mode);
    names += mrc_get_head_mode(&head) + std::string(", ");
  }
  EXPECT_EQ(
      "Unknown, Byte, Short, Float, Complex Short, Complex Float, Unknown, Unsigned Short, RGB, "
      "Complex Float (Real, Imag), Complex Float (Amp, Rad), Complex Float (Amp, Deg), ",
      names);
}

TEST_F(MrcFile, EveryReadableModeAndAxisGivesTheSamplesAsFloatsAndZerosForMissingOnes) {
  for (int mode = -1; mode < 30; mode++)
    EXPECT_EQ(mode == 0 || mode == 1 || mode == 2 || mode == 6, mrc_mode_readable(mode)) << mode;
  expect_read<uint8_t>(0);
  expect_read<int16_t>(1);
  expect_read<float>(2);
  expect_read<uint16_t>(6);
}

TEST_F(MrcFile, SamplesOfAnUnreadableModeAreZeroAndAHeadWithoutStampGetsOneInMemory) {
  write_mrc(path("complex.mrc"), 3, 2, 1, 4, std::string(48, 'x'));
  EXPECT_EQ(warning_line("mrc_read_all", kUnit, "File type unknown!"),
            output_of([&] { EXPECT_EQ(std::vector<float>(6, 0.0f), read_image(path("complex.mrc")).data); }));
  MRC_HEAD head = head_of(5, 6, 7, 1);
  memset(head.cmap, 'x', 8);
  write_file(path("old.mrc"), bytes_of(&head, sizeof head));
  MRC_HEAD* old = get_mrcf_head(path("old.mrc").c_str());
  mrc_set_head_stmp(&head);
  EXPECT_EQ(bytes_of(&head, sizeof head), bytes_of(old, sizeof head));
  free(old);
}

TEST_F(MrcFile, AFileOfAnotherSizeThanItsHeadSaysIsRefusedWholeBeforeAllocation) {
  const std::string size_error = warning_line("mrc_check_fsize", kUnit, "File size error!");
  const std::string refusal = fatal_line("mrc_read_all", kUnit, "File size error!");
  const struct {
    int nx, ny, nz, mode;
    std::string report;
  } lies[] = {{2, 2, 1, 2, "File size 1041  4 xyz 16" + size_error},
              {1 << 30, 1 << 30, 1, 1, "File size 1041  2 xyz 2305843009213693952" + size_error},
              {kHuge, kHuge, kHuge, 2, "File size 1041  4 xyz 9223372036854775807" + size_error},
              {-17, -1, 1, 0, "File size 1041  1 xyz 17" + size_error},
              {INT_MIN, kHuge, kHuge, 4, "File size 1041  8 xyz -9223372036854775808" + size_error},
              {2, 2, 1, 16, warning_line("mrc_check_fsize", kUnit, "File type unknown!")}};
  for (const auto& lie : lies) {
    write_mrc(path("a.mrc"), lie.nx, lie.ny, lie.nz, lie.mode, std::string(17, '\0'));
    expect_refused(run_in_child([&] { get_mrcf_data_all(path("a.mrc").c_str()); }), lie.report + refusal);
  }
}

TEST_F(MrcFile, HostAndDeviceWritersMakeTheSameFloatFile) {
  std::vector<float> data(24);
  for (int i = 0; i < 24; i++) data[i] = static_cast<float>((i * 7) % 24) - 3.5f;
  mrcf_write_xyz_data(path("host.mrc").c_str(), data.data(), 4, 3, 2);
  auto* ddata = device_new<float>(24);
  memcpy_H2D(ddata, data.data(), 96);
  write_file(path("device.mrc"), std::string(5000, 'x'));
  mrcf_write_xyz_ddata(path("device.mrc").c_str(), ddata, 4, 3, 2);
  cudaFree(ddata);

  MRC_HEAD expected = head_of(4, 3, 2, 2);
  expected.amin = -3.5f;
  expected.amax = 19.5f;
  expected.amean = 8.0f;
  expected.rms = static_cast<float>(std::sqrt(575.0 / 12));
  const std::string file = bytes_of(&expected, sizeof expected) + bytes_of(data.data(), 96);
  EXPECT_EQ(file, read_file(path("host.mrc")));
  EXPECT_EQ(file, read_file(path("device.mrc")));
}

TEST(MrcHead, MicrographsOfDifferentSizeOrModeEndTheRunWithBothShown) {
  const MRC_HEAD first = head_of(4096, 4096, 1, 2);
  EXPECT_EQ(0, check_mrc_head_sizes_two("a.mrc", "b.mrc", &first, &first));
  const std::pair<MRC_HEAD, const char*> others[] = {
      {head_of(4095, 4096, 1, 2), "4095    4096    1       Float         "},
      {head_of(4096, 1, 1, 2), "4096    1       1       Float         "},
      {head_of(4096, 4096, 2, 2), "4096    4096    2       Float         "},
      {head_of(4096, 4096, 1, 6), "4096    4096    1       Unsigned Short"}};
  for (const auto& other : others)
    expect_refused(run_in_child([&] { check_mrc_head_sizes_two("a.mrc", "b.mrc", &first, &other.first); }),
                   "Micrograph \x1b[1ma.mrc\x1b[m has a different size or format from  \x1b[1mb.mrc\x1b[m.\n"
                   "Check if all the micrographs are the same sizes and format? \n "
                   "      Nx      Ny      Nz      Mode             File:\n"
                   "      4096    4096    1       Float               a.mrc\n      " +
                       std::string(other.second) + "      b.mrc\n");
}
