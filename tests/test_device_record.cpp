// Every device operation on the same input on both devices (device_cases/): a CUDA build compares its GPU with the host
// build's program, a host build checks that its own results never change.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <set>

#include "device_cases/device_record.h"
#include "test_numeric.h"
#include "test_support.h"
#include "test_support_programs.h"

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
  for (const char* threads : {"1", "2", "3"}) {
    const std::string again =
        read_file(recorded_by(KESTRIX_DEVICE_RECORDER, std::string("OMP_NUM_THREADS=") + threads));
    EXPECT_TRUE(first == again) << threads << " threads";
  }
}

#else

TEST_F(RecordedDevice, AgreesWithTheHostDevice) {
  REQUIRE_DEVICE();
  if (!std::filesystem::exists(KESTRIX_HOST_DEVICE_RECORDER))
    GTEST_SKIP() << KESTRIX_HOST_DEVICE_RECORDER
        " is missing: build the release preset, or set the CMake variable "
        "KESTRIX_HOST_BUILD to the folder of a host build";
  DeviceRecord host;
  ASSERT_TRUE(read_record(recorded_by(KESTRIX_HOST_DEVICE_RECORDER).c_str(), host));
  DeviceRecord gpu;
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

// The names of the device operations that the headers declare: words before a parenthesis with one of three beginnings.
std::set<std::string> declared_operations() {
  std::set<std::string> names;
  const std::string letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";
  for (const auto& entry : std::filesystem::directory_iterator(KESTRIX_SOURCE_DIR "/src/include")) {
    const std::string text = read_file(entry.path());
    for (size_t at = text.find('('); at != std::string::npos; at = text.find('(', at + 1)) {
      const size_t begin = at == 0 ? 0 : text.find_last_not_of(letters, at - 1) + 1;
      const std::string name = text.substr(begin, at - begin);
      for (const char* prefix : {"hcuda_", "gpu_", "quorlin_"})
        if (name.compare(0, strlen(prefix), prefix) == 0) names.insert(name);
    }
  }
  return names;
}

TEST(DeviceCases, CoverEveryDeviceOperation) {
  std::string cases;
  for (const auto& entry : std::filesystem::directory_iterator(KESTRIX_SOURCE_DIR "/tests/device_cases"))
    if (entry.path().extension() == ".cpp") cases += read_file(entry.path());
  const std::set<std::string> names = declared_operations();
  EXPECT_GT(names.size(), 40u);
  for (const std::string& name : names) {
    // Calls the map and cell operations one after another and writes files.
    if (name == "hcuda_2d_ice_detect") continue;
    EXPECT_NE(std::string::npos, cases.find(name + "(")) << name;
  }
}

DeviceResult result_of(const std::vector<float>& values, const Closeness& closeness) {
  DeviceRecord record;
  record_values(record, "values", values.data(), static_cast<int>(values.size()), 1, closeness);
  return record[0];
}

bool agree(const std::vector<float>& a, const std::vector<float>& b, const Closeness& closeness) {
  return compare_results(result_of(a, closeness), result_of(b, closeness)).agrees;
}

TEST(DeviceComparison, TakesNoDifferenceWhereBitsCount) {
  EXPECT_TRUE(agree({1, 2, kNaN}, {1, 2, -kNaN}, kSameBits));
  EXPECT_FALSE(agree({1, 2, 3}, {1, 2, std::nextafter(3.0f, 4.0f)}, kSameBits));
  EXPECT_FALSE(agree({0.0f}, {-0.0f}, kSameBits));
  EXPECT_FALSE(agree({1, 2, 3}, {1, 2}, kSameBits));
}

TEST(DeviceComparison, BoundsADifferenceByTheValueOrByAllValues) {
  const Closeness of_value{1e-3, 0, 0};
  EXPECT_TRUE(agree({1000, 1}, {1000.9f, 1.0009f}, of_value));
  EXPECT_FALSE(agree({1000, 1}, {1000, 1.002f}, of_value));
  const Closeness of_rms{0, 1e-3, 0};  // of 707.1
  EXPECT_TRUE(agree({1000, 1}, {1000.7f, 1.7f}, of_rms));
  EXPECT_FALSE(agree({1000, 1}, {1000, 1.8f}, of_rms));
  EXPECT_TRUE(agree({kInfinity, -kInfinity}, {kInfinity, -kInfinity}, of_rms));
  EXPECT_FALSE(agree({kInfinity, 1}, {1000, 1}, of_rms));
  EXPECT_FALSE(agree({kNaN, 1}, {0, 1}, of_rms));
  EXPECT_FALSE(agree({0, 1}, {kNaN, 1}, of_rms));
}

TEST(DeviceComparison, LetsAShareOfChoicesFallElsewhere) {
  std::vector<float> a(1000, 5.0f);
  std::vector<float> b = a;
  b[17] = b[18] = 90.0f;
  EXPECT_TRUE(agree(a, b, kChoice));
  b[19] = 90.0f;
  EXPECT_FALSE(agree(a, b, kChoice));
}

TEST_F(RecordedDevice, IsReadAsItWasWrittenAndNeverInPart) {
  const float floats[] = {1.5f, -0.0f, 3e38f, 4, 5, 6};
  const unsigned numbers[] = {0, 4294967295u};
  DeviceRecord written;
  record_values(written, "floats", floats, 3, 2, kTransform);
  record_values(written, "numbers", numbers, 2, 1, kSameBits);
  const std::string file = path("some.record");
  ASSERT_TRUE(write_record(file.c_str(), written));
  DeviceRecord read;
  ASSERT_TRUE(read_record(file.c_str(), read));
  ASSERT_EQ(2u, read.size());
  EXPECT_EQ("floats", read[0].name);
  EXPECT_EQ(3, read[0].nx);
  EXPECT_EQ(kTransform.of_rms, read[0].closeness.of_rms);
  EXPECT_EQ(written[0].bits, read[0].bits);
  EXPECT_EQ(written[1].bits, read[1].bits);
  const std::string whole = read_file(file);
  for (size_t length = 0; length < whole.size(); length += 3) {
    write_file(file, whole.substr(0, length));
    EXPECT_FALSE(read_record(file.c_str(), read)) << length;
  }
  EXPECT_FALSE(read_record(path("missing.record").c_str(), read));
}

}  // namespace
