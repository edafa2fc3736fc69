#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "cuda_general.h"
#include "mrcfile.h"
#include "test_support.h"

namespace {

using MrcFile = FolderTest;

constexpr char kUnit[] = "mrcfile";
constexpr int kHuge = INT_MAX;

MRC_HEAD head_of(int nx, int ny, int nz, int mode) {
  MRC_HEAD head{};
  mrc_init_head(&head);
  mrc_set_head_xyz_mode(&head, nx, ny, nz, mode);
  return head;
}

std::string bytes_of(const void* data, size_t bytes) { return {static_cast<const char*>(data), bytes}; }

void write_mrc(const std::string& name, const MRC_HEAD& head, const std::string& samples) {
  write_file(name, bytes_of(&head, sizeof head) + samples);
}

template <class T>
T at(const std::string& file, size_t offset) {
  T value;
  memcpy(&value, file.data() + offset, sizeof value);
  return value;
}

// Sample i of a data block, by the definition of each mode.
float decoded(const std::string& samples, int mode, size_t i) {
  if (mode == 2) return at<float>(samples, 4 * i);
  const auto* bytes = reinterpret_cast<const unsigned char*>(samples.data());
  if (mode == 0) return bytes[i];
  const int value = bytes[2 * i] + 256 * bytes[2 * i + 1];
  return static_cast<float>(mode == 1 && value > 32767 ? value - 65536 : value);
}

// Samples of every bit pattern for the integer modes, plain numbers for floats.
std::string random_samples(int mode, size_t count) {
  std::mt19937 random(17);
  std::string samples;
  for (size_t i = 0; i < count; i++) {
    const auto bits = static_cast<uint32_t>(random());
    const float number = static_cast<float>(bits % 100000) * 0.25f - 9000.0f;
    samples += mode == 2 ? bytes_of(&number, 4) : bytes_of(&bits, mode == 0 ? 1 : 2);
  }
  return samples;
}

struct OpenFile {
  FILE* file;
  explicit OpenFile(const std::string& name, const char* mode = "r") : file(fopen(name.c_str(), mode)) {}
  ~OpenFile() { fclose(file); }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
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

TEST_F(MrcFile, EveryReadableModeAndAxisGivesTheSamplesAsFloats) {
  constexpr int nx = 307, ny = 211, nz = 3;
  const struct {
    char axis;
    int slice, width, height;
  } planes[] = {{'Z', 2, nx, ny}, {'y', 100, nx, nz}, {'X', 306, ny, nz}};
  for (int mode = -1; mode < 30; mode++) {
    const bool readable = mode == 0 || mode == 1 || mode == 2 || mode == 6;
    EXPECT_EQ(readable, mrc_mode_readable(mode)) << mode;
    if (!readable) continue;
    SCOPED_TRACE(mode);
    const MRC_HEAD head = head_of(nx, ny, nz, mode);
    const std::string samples = random_samples(mode, size_t{nx} * ny * nz);
    write_mrc(path("a.mrc"), head, samples);
    const OpenFile open(path("a.mrc"));
    for (const auto& p : planes) {
      std::vector<float> plane(static_cast<size_t>(p.width) * p.height), want;
      mrc_read_slice(open.file, &head, p.slice, p.axis, plane.data());
      for (int j = 0; j < p.height; j++) {
        for (int i = 0; i < p.width; i++) {
          const int x = p.axis == 'X' ? p.slice : i, y = p.axis == 'Z' ? j : p.axis == 'X' ? i : p.slice;
          want.push_back(decoded(samples, mode, (static_cast<size_t>(p.axis == 'Z' ? p.slice : j) * ny + y) * nx + x));
        }
      }
      EXPECT_EQ(want, plane) << p.axis;
    }
    const std::vector<float> all = read_image(path("a.mrc")).data;
    for (size_t i = 0; i < all.size(); i++) ASSERT_EQ(decoded(samples, mode, i), all[i]) << i;
  }
}

TEST_F(MrcFile, SamplesThatTheFileLacksAreZeroAndCounted) {
  for (const int mode : {0, 1, 2}) {
    SCOPED_TRACE(mode);
    const MRC_HEAD head = head_of(10, 7, 3, mode);
    const std::string samples = random_samples(mode, 210);
    const size_t bytes = samples.size() / 210;
    write_mrc(path("a.mrc"), head, samples.substr(0, 125 * bytes));
    const OpenFile open(path("a.mrc"));
    std::vector<float> plane(70, -1.0f);
    mrc_read_slice(open.file, &head, 1, 'z', plane.data());
    for (size_t i = 0; i < 70; i++) EXPECT_EQ(i < 55 ? decoded(samples, mode, 70 + i) : 0.0f, plane[i]) << i;
    EXPECT_EQ(0u, mrc_missing_samples(open.file, &head, 0));
    EXPECT_EQ(15u, mrc_missing_samples(open.file, &head, 1));
    for (const int slice : {2, 3, kHuge, -1, INT_MIN}) {
      EXPECT_EQ(70u, mrc_missing_samples(open.file, &head, slice)) << slice;
      std::fill(plane.begin(), plane.end(), -1.0f);
      mrc_read_slice(open.file, &head, slice, 'z', plane.data());
      EXPECT_EQ(std::vector<float>(70, 0.0f), plane) << slice;
    }
  }
}

TEST_F(MrcFile, SamplesOfAnUnreadableModeAreZero) {
  write_mrc(path("complex.mrc"), head_of(3, 2, 1, 4), std::string(48, 'x'));
  EXPECT_EQ(warning_line("mrc_read_all", kUnit, "File type unknown!"), output_of([&] {
              float* all = get_mrcf_data_all(path("complex.mrc").c_str());
              EXPECT_EQ(std::vector<float>(6, 0.0f), std::vector<float>(all, all + 6));
              free(all);
            }));
}

TEST_F(MrcFile, AHeadWithoutStampGetsOneInMemory) {
  MRC_HEAD head = head_of(5, 6, 7, 1);
  memset(head.cmap, 'x', 8);
  write_mrc(path("old.mrc"), head, "");
  MRC_HEAD* old = get_mrcf_head(path("old.mrc").c_str());
  mrc_set_head_stmp(&head);
  EXPECT_EQ(bytes_of(&head, sizeof head), bytes_of(old, sizeof head));
  free(old);
}

TEST_F(MrcFile, AFileOfAnotherSizeThanItsHeadSaysIsRefusedWholeBeforeAllocation) {
  const std::string size_error = warning_line("mrc_check_fsize", kUnit, "File size error!");
  const std::string refusal = fatal_line("mrc_read_all", kUnit, "File size error!");
  const struct {
    MRC_HEAD head;
    std::string report;
  } lies[] = {{head_of(2, 2, 1, 2), "File size 1041  4 xyz 16" + size_error},
              {head_of(1 << 30, 1 << 30, 1, 1), "File size 1041  2 xyz 2305843009213693952" + size_error},
              {head_of(kHuge, kHuge, kHuge, 2), "File size 1041  4 xyz 9223372036854775807" + size_error},
              {head_of(-17, -1, 1, 0), "File size 1041  1 xyz 17" + size_error},
              {head_of(INT_MIN, kHuge, kHuge, 4), "File size 1041  8 xyz -9223372036854775808" + size_error},
              {head_of(2, 2, 1, 16), warning_line("mrc_check_fsize", kUnit, "File type unknown!")}};
  for (const auto& lie : lies) {
    write_mrc(path("a.mrc"), lie.head, std::string(17, '\0'));
    const ChildResult run = run_in_child([&] { get_mrcf_data_all(path("a.mrc").c_str()); });
    EXPECT_EQ(1, run.status);
    EXPECT_EQ(lie.report + refusal, run.out);
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
  for (const auto& other : others) {
    const ChildResult run = run_in_child([&] { check_mrc_head_sizes_two("a.mrc", "b.mrc", &first, &other.first); });
    EXPECT_EQ(1, run.status);
    EXPECT_EQ(
        "Micrograph \x1b[1ma.mrc\x1b[m has a different size or format from  \x1b[1mb.mrc\x1b[m.\n"
        "Check if all the micrographs are the same sizes and format? \n "
        "      Nx      Ny      Nz      Mode             File:\n"
        "      4096    4096    1       Float               a.mrc\n      " +
            std::string(other.second) + "      b.mrc\n",
        run.out);
  }
}
