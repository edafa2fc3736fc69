#include "cuda_general.h"
#include "test_numeric.h"
#include "test_support.h"

using DeviceMemory = DeviceTest;

TEST_F(DeviceMemory, IsClearedToTheByte) {
  for (const unsigned long bytes : {0UL, 1UL, 3UL, 1023UL, 1024UL, 1025UL, 70001UL}) {
    std::vector<unsigned char> want(bytes + 5, 0xAB);
    const auto d = to_device(want);
    hcuda_empty(d.get(), bytes);
    std::fill(want.begin(), want.begin() + static_cast<long>(bytes), 0);
    EXPECT_EQ(want, to_host(d, want.size())) << bytes;
  }
}

TEST(FftResults, HaveTheCheckedTexts) {
  std::string texts;
  for (int code = 0; code < 16; code++)
    texts += cuFFT_GetErrorString(static_cast<cufftResult_t>(code)) + std::string("\n");
  EXPECT_EQ(read_file(KESTRIX_SOURCE_DIR "/tests/golden/fft_results.txt"), texts);
  EXPECT_STREQ("Unkown error", cuFFT_GetErrorString(static_cast<cufftResult_t>(-1)));
}

#ifndef KESTRIX_CUDA

TEST(DeviceChoice, KeepsAUsableNumberElseTakesTheFirstOfTheHighestCapability) {
  const struct {
    int devices, capability[5][2], given, chosen;
  } cases[] = {{1, {{1, 0}}, 0, 0},
               {1, {{1, 0}}, 7, 0},
               {5, {{6, 1}, {7, 0}, {8, 6}, {8, 9}, {8, 9}}, 4, 4},
               {5, {{6, 1}, {7, 0}, {8, 6}, {8, 9}, {8, 9}}, 5, 3},
               {5, {{6, 1}, {9, 0}, {8, 6}, {8, 9}, {8, 9}}, -1, 1},  // a higher major beats any minor
               {3, {{-1, 0}, {7, 5}, {8, 0}}, 0, 2}};                 // one that can't be used
  for (const auto& c : cases) {
    host_device_faults() = {};
    host_device_faults().device_count = c.devices;
    memcpy(host_device_faults().capability, c.capability, static_cast<size_t>(c.devices) * sizeof c.capability[0]);
    int gid = c.given;
    EXPECT_EQ(0, check_and_set_gid(gid));
    EXPECT_EQ(c.chosen, gid) << c.given << " of " << c.devices;
  }
  host_device_faults() = {};
}

#endif
