#include "cuda_general.h"
#include "math_utils.h"
#include "process2d_raw.h"
#include "test_numeric.h"
#include "test_support.h"

#ifndef KESTRIX_CUDA
#include "cuda_fft.h"
#endif

using DeviceMemory = DeviceTest;

TEST_F(DeviceMemory, IsClearedToTheByte) {
  for (const unsigned long bytes : {0UL, 1UL, 3UL, 1023UL, 1024UL, 1025UL, 70001UL}) {
    const std::vector<unsigned char> before(bytes + 5, 0xAB);
    const auto d = to_device(before);
    hcuda_empty(d.get(), bytes);
    std::vector<unsigned char> want = before;
    std::fill(want.begin(), want.begin() + static_cast<long>(bytes), 0);
    EXPECT_EQ(want, to_host(d, want.size())) << bytes;
  }
}

TEST_F(DeviceMemory, IsCopiedThereAndBack) {
  const std::vector<float> values = random_values(1001, 1);
  std::vector<float> back(1001);
  auto* d = device_new<float>(1001);
  EXPECT_EQ(0, memcpy_H2D(d, values.data(), 1001 * sizeof(float)));
  EXPECT_EQ(0, memcpy_D2H(back.data(), d, 1001 * sizeof(float)));
  cudaFree(d);
  EXPECT_TRUE(same_bits(back, values));
}

TEST(FftResults, HaveTheTextsOfTheirCodes) {
  const auto text = [](int code) { return cuFFT_GetErrorString(static_cast<cufftResult_t>(code)); };
  EXPECT_STREQ("CUFFT_SUCCESS, cuFFT operation was successful", text(0));
  EXPECT_STREQ("CUFFT_INVALID_VALUE, An invalid pointer or parameter has been specified", text(4));
  EXPECT_STREQ("CUFFT_INCOMPLETE_PARAMETER_LIST,  Missing parameters in call", text(10));
  EXPECT_STREQ("CUFFT_NOT_IMPLEMENTED, Function does not implement functionality for parameters given.", text(14));
  for (const int code : {-1, 15}) EXPECT_STREQ("Unkown error", text(code));
}

#ifndef KESTRIX_CUDA

namespace {

/// The host's pretence for the length of a scope.
struct Pretence {
  Pretence() { host_device_faults() = {}; }
  ~Pretence() { host_device_faults() = {}; }
  Pretence(const Pretence&) = delete;
  Pretence& operator=(const Pretence&) = delete;
};

/// How the choice of a device ends: its result, then the number that is left.
std::pair<int, int> chosen(int gid) {
  const int result = check_and_set_gid(gid);
  return {result, gid};
}

using Choice = std::pair<int, int>;

/// A run in which one thing fails from now on.
template <class Code>
ChildResult run_failing(long HostDeviceFaults::*what, Code code) {
  return run_in_child([&] {
    host_device_faults().*what = 1;
    code();
  });
}

}  // namespace

TEST(DeviceChoice, KeepsAUsableNumberElseTakesTheFirstOfTheHighestCapability) {
  const Pretence healthy;
  HostDeviceFaults& faults = host_device_faults();
  EXPECT_EQ(Choice(0, 0), chosen(0));
  EXPECT_EQ(Choice(0, 0), chosen(7)) << "one device of capability 1.0";
  faults.device_count = 5;
  const int capability[5][2] = {{6, 1}, {7, 0}, {8, 6}, {8, 9}, {8, 9}};
  memcpy(faults.capability, capability, sizeof capability);
  for (int gid = 0; gid < 5; gid++) EXPECT_EQ(Choice(0, gid), chosen(gid));
  EXPECT_EQ(Choice(0, 3), chosen(5));
  EXPECT_EQ(Choice(0, 3), chosen(-1));
  faults.capability[1][0] = 9;  // a higher major beats any minor
  EXPECT_EQ(Choice(0, 1), chosen(1000));
}

TEST(DeviceChoice, WithoutADeviceWarnsAndFails) {
  const Pretence healthy;
  host_device_faults().device_count = 0;
  EXPECT_EQ("Warning: no GPU device found!\n", output_of([] { EXPECT_EQ(Choice(-1, 0), chosen(0)); }));
}

TEST(DeviceFailure, EndsTheRunWithALineThatNamesUnitAndReason) {
  const auto line = [](const char* text, const char* unit) {
    return std::string("Error ") + text + " at line N in file " + unit + "\n";
  };
  // The first line, "at line 17" as "at line N"; a sanitizer may add lines of its own.
  const auto first_line = [](std::string text) {
    text.resize(text.find('\n') + 1);
    const size_t at = text.find("at line ") + 8;
    return text.replace(at, text.find(' ', at) - at, "N");
  };
  const auto d = to_device(random_values(64, 1)), out = unwritten(64);
  const auto spectrum = to_device(std::vector<float2>(40));

  const ChildResult launch = run_failing(&HostDeviceFaults::fail_launch_at, [&] { hcuda_2d_empty(d.get(), 8, 8); });
  EXPECT_EQ(1, launch.status);
  EXPECT_EQ(line("unspecified launch failure", "process2d_raw"), first_line(launch.err));
  EXPECT_EQ("", launch.out);

  const ChildResult sum = run_failing(&HostDeviceFaults::fail_memcpy_at, [&] { hcuda_fast_sum(d.get(), 64); });
  EXPECT_EQ(1, sum.status);
  EXPECT_EQ(line("invalid argument", "math_utils"), first_line(sum.err));

  const ChildResult fft =
      run_failing(&HostDeviceFaults::fail_fft_at, [&] { hcuda_2d_fft_r2c(d.get(), spectrum.get(), 8, 8); });
  EXPECT_EQ(1, fft.status);
  EXPECT_EQ(line("CUFFT_ALLOC_FAILED, cuFFT failed to allocate GPU or CPU memory", "cuda_fft"), first_line(fft.err));

  void* p = nullptr;
  const ChildResult memory = run_failing(&HostDeviceFaults::fail_malloc_at, [&] { safe_cudaMalloc(&p, 1024); });
  EXPECT_EQ(1, memory.status);
  EXPECT_EQ(fatal_line("safe_cudaMalloc", "cuda_general", "Device memory allocation failed"), memory.out);
}

TEST(DeviceFailure, OfAnImpossibleAllocationIsTheSame) {
  void* p = nullptr;
  const ChildResult memory = run_in_child([&] { safe_cudaMalloc(&p, ~0UL); });
  EXPECT_EQ(1, memory.status);
  EXPECT_EQ(fatal_line("safe_cudaMalloc", "cuda_general", "Device memory allocation failed"), memory.out);
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
  EXPECT_EQ(CUFFT_INVALID_PLAN, cufftDestroy(plan));
  EXPECT_EQ(CUFFT_INVALID_PLAN, cufftExecR2C(plan, image.get(), spectrum.get()));
}

#endif
