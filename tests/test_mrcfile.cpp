#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <random>
#include <set>
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
  expected.replace(208, 6, "MAP DA");
  MRC_HEAD* head = mrc_new_head();
  EXPECT_EQ(expected, bytes_of(head, sizeof *head));
  free(head);
}

TEST(MrcHead, NamesModesAndKnowsTheReadableOnes) {
  const std::pair<int, const char*> modes[] = {{0, "Byte"},
                                               {1, "Short"},
                                               {2, "Float"},
                                               {3, "Complex Short"},
                                               {4, "Complex Float"},
                                               {5, "Unknown"},
                                               {6, "Unsigned Short"},
                                               {16, "RGB"},
                                               {20, "Complex Float (Real, Imag)"},
                                               {21, "Complex Float (Amp, Rad)"},
                                               {22, "Complex Float (Amp, Deg)"},
                                               {-1, "Unknown"}};
  const std::set<int> readable = {0, 1, 2, 6};
  for (const auto& mode : modes) {
    const MRC_HEAD head = head_of(1, 1, 1, mode.first);
    EXPECT_STREQ(mode.second, mrc_get_head_mode(&head));
    EXPECT_EQ(readable.count(mode.first) == 1, mrc_mode_readable(mode.first)) << mode.first;
  }
}

TEST_F(MrcFile, EveryReadableModeAndAxisGivesTheSamplesAsFloats) {
  constexpr int nx = 307;
  constexpr int ny = 211;
  constexpr int nz = 3;
  for (const int mode : {0, 1, 2, 6}) {
    SCOPED_TRACE(mode);
    const MRC_HEAD head = head_of(nx, ny, nz, mode);
    const std::string samples = random_samples(mode, size_t{nx} * ny * nz);
    write_mrc(path("a.mrc"), head, samples);
    const auto sample = [&](int x, int y, int z) {
      return decoded(samples, mode, (static_cast<size_t>(z) * ny + y) * nx + x);
    };
    const OpenFile open(path("a.mrc"));
    std::vector<float> z_plane(nx * ny);
    std::vector<float> y_plane(nx * nz);
    std::vector<float> x_plane(ny * nz);
    mrc_read_slice(open.file, &head, 2, 'Z', z_plane.data());
    mrc_read_slice(open.file, &head, 100, 'y', y_plane.data());
    mrc_read_slice(open.file, &head, 306, 'X', x_plane.data());
    float* all = get_mrcf_data_all(path("a.mrc").c_str());
    int wrong = 0;
    for (int j = 0; j < ny; j++) {
      for (int i = 0; i < nx; i++) wrong += z_plane[j * nx + i] != sample(i, j, 2);
      for (int i = 0; i < nx; i++) wrong += all[(1 * ny + j) * nx + i] != sample(i, j, 1);
      for (int k = 0; k < nz; k++) wrong += x_plane[k * ny + j] != sample(306, j, k);
    }
    for (int k = 0; k < nz; k++)
      for (int i = 0; i < nx; i++) wrong += y_plane[k * nx + i] != sample(i, 100, k);
    EXPECT_EQ(0, wrong);
    EXPECT_EQ(0u, mrc_missing_samples(open.file, &head, 2));
    free(all);
  }
}

TEST_F(MrcFile, SamplesThatTheFileLacksAreZeroAndCounted) {
  for (const int mode : {0, 1, 2, 6}) {
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

TEST_F(MrcFile, AnUnreadableModeOrAxisLeavesTheBufferAsItWas) {
  const MRC_HEAD complex_head = head_of(3, 2, 1, 4), float_head = head_of(3, 2, 1, 2);
  write_mrc(path("complex.mrc"), complex_head, std::string(48, 'x'));
  const std::vector<float> untouched(6, 7.0f);
  std::vector<float> plane = untouched;
  const OpenFile open(path("complex.mrc"));
  mrc_read_slice(open.file, &complex_head, 0, 'z', plane.data());
  mrc_read_slice(open.file, &float_head, 0, 'q', plane.data());
  EXPECT_EQ(untouched, plane);
  EXPECT_EQ(warning_line("mrc_read_all", kUnit, "File type unknown!"), output_of([&] {
              float* all = get_mrcf_data_all(path("complex.mrc").c_str());
              EXPECT_EQ(std::vector<float>(6, 0.0f), std::vector<float>(all, all + 6));
              free(all);
            }));
}

TEST_F(MrcFile, AHeadWithoutStampGetsOneInMemoryAndAShortOneReadsAsZeros) {
  MRC_HEAD head = head_of(5, 6, 7, 1);
  memset(head.cmap, 'x', 8);
  write_mrc(path("old.mrc"), head, "");
  MRC_HEAD* old = get_mrcf_head(path("old.mrc").c_str());
  mrc_set_head_stmp(&head);
  EXPECT_EQ(bytes_of(&head, sizeof head), bytes_of(old, sizeof head));
  free(old);
  write_file(path("short.mrc"), bytes_of(&head, 12));
  MRC_HEAD expected{};
  mrc_set_head_xyz_mode(&expected, 5, 6, 7, 0);
  mrc_set_head_stmp(&expected);
  MRC_HEAD* cut = get_mrcf_head(path("short.mrc").c_str());
  EXPECT_EQ(bytes_of(&expected, sizeof expected), bytes_of(cut, sizeof expected));
  free(cut);
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
  const std::string file = bytes_of(&expected, sizeof expected) + bytes_of(data.data(), 96);
  EXPECT_EQ(file, read_file(path("host.mrc")));
  EXPECT_EQ(file, read_file(path("device.mrc")));

  mrcf_write_xyz_data(path("empty.mrcs").c_str(), nullptr, 0, 0, 0);
  const std::string empty = read_file(path("empty.mrcs"));
  EXPECT_EQ(1024u, empty.size());
  EXPECT_EQ(0.0f, at<float>(empty, 80));
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
