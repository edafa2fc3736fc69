// Every device operation on the same input on both devices (device_cases/): a CUDA build compares its GPU with the host
// build's program, a host build checks that its own results never change.
#include <cmath>
#include <set>

#include "device_cases/device_record.h"
#include "test_numeric.h"
#include "test_support.h"

namespace {

class RecordedDevice : public FolderTest {
 protected:
  std::string recorded_by(const std::string& recorder, const std::string& environment = "") const {
    const ProgramRun run = run_program(path(""), environment + " '" + recorder + "' result.record");
    EXPECT_EQ(0, run.status) << run.output << run.errors;
    return path("result.record");
  }
};

#ifndef KESTRIX_CUDA

TEST_F(RecordedDevice, GivesTheSameBitsOnEveryRunAndNumberOfCores) {
  const std::string first = read_file(recorded_by(KESTRIX_DEVICE_RECORDER, "OMP_NUM_THREADS=1"));
  EXPECT_GT(first.size(), 1000000u);
  for (const std::string threads : {"1", "2", "3"})
    EXPECT_TRUE(first == read_file(recorded_by(KESTRIX_DEVICE_RECORDER, "OMP_NUM_THREADS=" + threads))) << threads;
}

#else

TEST_F(RecordedDevice, AgreesWithTheHostDevice) {
  REQUIRE_DEVICE();
  if (!std::filesystem::exists(KESTRIX_HOST_DEVICE_RECORDER))
    GTEST_SKIP() << KESTRIX_HOST_DEVICE_RECORDER
        " is missing: build the release preset, or set the CMake variable "
        "KESTRIX_HOST_BUILD to the folder of a host build";
  DeviceRecord host, gpu;
  ASSERT_TRUE(read_record(recorded_by(KESTRIX_HOST_DEVICE_RECORDER).c_str(), host));
  ASSERT_TRUE(read_record(recorded_by(KESTRIX_DEVICE_RECORDER).c_str(), gpu));
  ASSERT_EQ(host.size(), gpu.size());
  for (size_t i = 0; i < host.size(); i++) {
    ASSERT_EQ(host[i].name, gpu[i].name);
    const Comparison found = compare_results(host[i], gpu[i]);
    EXPECT_TRUE(found.agrees) << found.text;
    if (found.agrees && found.different > 0) printf("within bounds: %s\n", found.text.c_str());
  }
}

#endif

TEST(DeviceCases, CoverEveryDeviceOperation) {
  const std::string cases = read_file(KESTRIX_SOURCE_DIR "/tests/device_cases/main.cpp");
  const std::string letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";
  std::set<std::string> operations;  // words before a parenthesis with one of three beginnings
  for (const auto& entry : std::filesystem::directory_iterator(KESTRIX_SOURCE_DIR "/src/include")) {
    const std::string text = read_file(entry.path());
    for (size_t at = text.find('(', 1); at != std::string::npos; at = text.find('(', at + 1)) {
      const size_t begin = text.find_last_not_of(letters, at - 1) + 1;
      for (const std::string prefix : {"hcuda_", "gpu_", "quorlin_"})
        if (text.compare(begin, prefix.size(), prefix) == 0) operations.insert(text.substr(begin, at - begin));
    }
  }
  operations.erase("hcuda_2d_ice_detect");  // calls the map and cell operations one after another and writes files
  EXPECT_GT(operations.size(), 40u);
  for (const std::string& name : operations) EXPECT_TRUE(holds(cases, name + "(")) << name;
}

TEST_F(RecordedDevice, IsComparedByTheClosenessThatItsFileKeeps) {
  const struct {
    Closeness closeness;
    std::vector<float> a, b;
    bool agree;
  } cases[] = {{kSameBits, {1, 2, kNaN}, {1, 2, -kNaN}, true},
               {kSameBits, {0.0f}, {-0.0f}, false},
               {kSameBits, {1, 2, 3}, {1, 2}, false},
               {{1e-3, 0, 0}, {1000, 1}, {1000.9f, 1.0009f}, true},
               {{1e-3, 0, 0}, {1000, 1}, {1000, 1.002f}, false},
               {{0, 1e-3, 0}, {1000, 1}, {1000.7f, 1.7f}, true},  // a root mean square of 707.1
               {{0, 1e-3, 0}, {1000, 1}, {1000, 1.8f}, false},
               {{0, 1e-3, 0}, {0, 1}, {kNaN, 1}, false},
               {{0, 0, 0.5}, {1, 2}, {1, 7}, true},
               {{0, 0, 0.4}, {1, 2}, {1, 7}, false}};
  DeviceRecord written, read;
  for (const auto& c : cases) written.push_back({"values", c.closeness, c.a});
  const std::string file = path("some.record");
  ASSERT_TRUE(write_record(file.c_str(), written));
  ASSERT_TRUE(read_record(file.c_str(), read));
  ASSERT_EQ(written.size(), read.size());
  for (size_t i = 0; i < read.size(); i++)
    EXPECT_EQ(cases[i].agree, compare_results(read[i], {"values", kSameBits, cases[i].b}).agrees) << i;
  const std::string whole = read_file(file);
  write_file(file, whole.substr(0, whole.size() - 1));
  EXPECT_FALSE(read_record(file.c_str(), read));
}

}  // namespace
