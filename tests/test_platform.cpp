#include "cuda_general.h"
#include "process2d_raw.h"
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

TEST(HostTransforms, RefuseWhatTheyCannotDo) {
  cufftHandle plan = -1;
  const auto planned = [&plan](int ny, int nx, cufftType type, int rank, int batch) {
    int n[2] = {ny, nx};
    return cufftPlanMany(&plan, rank, n, nullptr, 1, 0, nullptr, 1, 0, type, batch);
  };
  EXPECT_EQ(CUFFT_INVALID_SIZE, planned(0, 8, CUFFT_R2C, 2, 1));
  EXPECT_EQ(CUFFT_INVALID_SIZE, planned(8, 8, CUFFT_R2C, 2, 0));
  EXPECT_EQ(CUFFT_INVALID_VALUE, planned(8, 8, CUFFT_R2C, 1, 1));
  EXPECT_EQ(CUFFT_INVALID_TYPE, planned(8, 8, static_cast<cufftType>(0), 2, 1));
  ASSERT_EQ(CUFFT_SUCCESS, planned(8, 8, CUFFT_R2C, 2, 1));
  const auto image = unwritten(65);
  const auto spectrum = to_device(std::vector<float2>(40));
  EXPECT_EQ(CUFFT_UNALIGNED_DATA, cufftExecR2C(plan, image.get() + 1, spectrum.get()));
  EXPECT_EQ(CUFFT_INVALID_PLAN, cufftExecC2R(plan, spectrum.get(), image.get())) << "a plan of the other kind";
  EXPECT_EQ(CUFFT_SUCCESS, cufftDestroy(plan));
  EXPECT_EQ(CUFFT_INVALID_PLAN, cufftExecR2C(plan, image.get(), spectrum.get()));
}

#endif
