// Runs of the program on a device that fails: which line ends the run, and that finished work stays whole. The host
// device fails as KESTRIX_TEST_FAULTS says (faulty_device.cpp), on the host's own road through a run and on a GPU's.
#include <gtest/gtest.h>
#include <regex.h>

#include <cmath>
#include <filesystem>
#include <map>
#include <random>
#include <vector>

#include "mrcfile.h"
#include "test_support.h"

namespace {

/// Whether a text as a whole fits an extended regular expression.
bool fits(const std::string& text, const std::string& pattern) {
  regex_t compiled;
  EXPECT_EQ(0, regcomp(&compiled, ("^(" + pattern + ")$").c_str(), REG_EXTENDED | REG_NOSUB)) << pattern;
  const bool found = regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0;
  regfree(&compiled);
  return found;
}

constexpr int kWidth = 256;
constexpr int kHeight = 224;
const char* const kFinals[] = {"_quorlin.box", "_quorlin.star"};

// Dark discs of 40 Å in noise, at 2 Å per pixel.
void write_micrograph(const std::string& name, unsigned seed) {
  std::mt19937 random(seed);
  std::normal_distribution<float> noise;
  std::vector<float> pixels(static_cast<size_t>(kWidth) * kHeight);
  for (int y = 0; y < kHeight; y++) {
    for (int x = 0; x < kWidth; x++) {
      const bool in_disc = std::hypot(x % 60 - 30, y % 56 - 28) < 10;
      pixels[static_cast<size_t>(y) * kWidth + x] = noise(random) - (in_disc ? 2.0f : 0.0f);
    }
  }
  mrcf_write_xyz_data(name.c_str(), pixels.data(), kWidth, kHeight, 1);
}

// Two bright discs of 5 Å per pixel, one of them cut.
void write_templates(const std::string& name) {
  constexpr int kBox = 16;
  std::vector<float> pixels(2 * kBox * kBox);
  for (int i = 0; i < 2 * kBox * kBox; i++) {
    const int x = i % kBox;
    const int y = i / kBox % kBox;
    const bool cut = i >= kBox * kBox && x > kBox / 2;
    pixels[i] = std::hypot(x - 7.5, y - 7.5) < 4 && !cut ? 1.0f : 0.0f;
  }
  mrcf_write_xyz_data(name.c_str(), pixels.data(), kBox, kBox, 2);
}

using Files = std::map<std::string, std::string>;

/// Two micrographs picked with every output and filter that there is, so that every use of the device is on the way.
class FaultyRuns : public FolderTest {
 protected:
  explicit FaultyRuns(const char* program = KESTRIX_FAULTY) : program_(program) {}

  void SetUp() override {
    for (unsigned m = 1; m <= 2; m++) write_micrograph(path("mic" + std::to_string(m) + ".mrc"), m);
    write_templates(path("templates.mrcs"));
    write_file(path("mic1_bad.box"), "10 10 20 20\n");
    write_file(path("mic2_bad.box"), "30 10 20 20\n");
    const ProgramRun clean = run("");
    ASSERT_EQ(0, clean.status) << clean.output << clean.errors;
    clean_files_ = outputs();
    for (const char* mic : {"mic1", "mic2"})
      for (const char* suffix : kFinals) ASSERT_NE("", clean_files_[std::string(mic) + suffix]);
  }

  ProgramRun run(const std::string& faults, const std::string& options = "") const {
    // Where a failure ends the run, nothing is cleaned up.
    const std::string leaks = faults.empty() ? "" : "ASAN_OPTIONS=detect_leaks=0 ";
    const std::string arguments =
        "' mic1.mrc mic2.mrc " + options +
        " --T templates.mrcs --apixM 2 --apixT 5 --diameter 40 --speed 1 --ang_step 90 --lave_min -9 --lave_max 9 "
        "--lsigma_cutoff 9 --do_pre_filter --write_pref_mic --write_bg_mic --write_bgfree_mic --write_lsigma_mic "
        "--write_mic_mask --write_ccmax_mic --extract_raw --exclusive_picking --excluded_suffix _bad.box "
        "--mask_excluded";
    return run_program(path(""),
                       leaks + "OMP_NUM_THREADS=1 KESTRIX_TEST_FAULTS=" + faults + " '" + program_ + arguments);
  }

  /// The files that a run left, by name.
  Files outputs() const {
    Files files;
    for (const auto& entry : std::filesystem::directory_iterator(path(""))) {
      const std::string name = entry.path().filename();
      if (name.compare(0, 3, "mic") == 0 && name.find('_') != std::string::npos &&
          name.find("_bad") == std::string::npos)
        files[name] = read_file(entry.path());
    }
    return files;
  }

  void remove_outputs() const {
    for (const auto& file : outputs()) std::filesystem::remove(path(file.first));
  }

  /// Checks what a run that ended with status 1 left: a finished micrograph's files as the clean run wrote them, and
  /// no final list that is not whole.
  void expect_whole_outputs(const ProgramRun& failed) const {
    const bool first_done = failed.output.find("File mic1.mrc finished.") != std::string::npos;
    const Files left = outputs();
    for (const auto& clean : clean_files_) {
      const auto file = left.find(clean.first);
      const bool is_final = clean.first.find("_quorlin.") != std::string::npos;
      if (first_done && clean.first.compare(0, 4, "mic1") == 0) {
        ASSERT_TRUE(file != left.end() && file->second == clean.second) << clean.first;
      } else if (is_final && file != left.end()) {
        EXPECT_EQ(clean.second, file->second) << clean.first;
      }
    }
    for (const auto& file : left) EXPECT_TRUE(clean_files_.count(file.first)) << file.first << " was left";
  }

  /// How a run with a fault must end.
  struct Ending {
    std::string errors;   // pattern for standard error, or else
    std::string output;   // pattern for the last line of standard output
    bool reaches_second;  // whether such calls are still made when the first micrograph is finished
  };

  /// Makes a run in which the n-th call of a kind fails and checks its end, unless it ended well. Returns its output.
  ProgramRun run_to_fault(const std::string& kind, long n, const Ending& ending) const {
    remove_outputs();
    ProgramRun run = this->run(kind + "=" + std::to_string(n));
    if (run.status == 0) return run;
    SCOPED_TRACE(kind + " " + std::to_string(n));
    EXPECT_EQ(1, run.status);
    const bool on_errors = fits(run.errors, ending.errors);
    const size_t line = run.output.empty() ? 0 : run.output.rfind('\n', run.output.size() - 2) + 1;
    const bool on_output = fits(run.output.substr(line), ending.output);
    EXPECT_TRUE(on_errors ? !on_output : on_output && run.errors.empty()) << run.output << run.errors;
    expect_whole_outputs(run);
    return run;
  }

  /// Lets the n-th and every later call of a kind fail, for every n that a run reaches. Returns how many calls it makes.
  long sweep(const std::string& kind, const Ending& ending) const {
    constexpr long kMost = 5000;
    bool second_reached = false;
    for (long n = 1; n < kMost && !HasFailure(); n++) {
      const ProgramRun run = run_to_fault(kind, n, ending);
      if (run.status == 0) {
        EXPECT_GT(n, 1);
        EXPECT_EQ(ending.reaches_second, second_reached);
        EXPECT_EQ(clean_files_, outputs());
        return n - 1;
      }
      second_reached = second_reached || run.output.find("File mic1.mrc finished.") != std::string::npos;
    }
    ADD_FAILURE() << "no run of less than " << kMost << " calls ended well";
    return 0;
  }

  /// The same, then lets each call fail alone, which is noticed only if its own result is examined.
  void sweep_both_ways(const std::string& kind, const Ending& ending) const {
    const long calls = sweep(kind, ending);
    for (long n = 1; n <= calls && !HasFailure(); n++)
      EXPECT_EQ(1, run_to_fault(kind, -n, ending).status) << kind << " " << n << " alone went unnoticed";
  }

  std::string program_;
  Files clean_files_;
};

class FaultyGpuRoadRuns : public FaultyRuns {
 protected:
  FaultyGpuRoadRuns() : FaultyRuns(KESTRIX_FAULTY_GPU_ROAD) {}
};

const std::string kNothing = "(no such line)";
const std::string kPlace = " at line [0-9]+ in file [a-z0-9_]+\n";

std::string fatal_pattern(const std::string& function, const std::string& unit, const std::string& text) {
  return "Error in function " + function + "\\(\\), file " + unit + " on line [0-9]+: " + text + "! Exit now!\n";
}

const std::string kNoMemory = "Error out of memory" + kPlace;
const std::string kNoDeviceMemory = fatal_pattern("safe_cudaMalloc", "cuda_general", "Device memory allocation failed");
const std::string kNoHostMemory = fatal_pattern("[a-z_]+", "[a-z0-9_]+", "Host memory allocation failed.*");
const std::string kCopyFailed = "Error invalid argument" + kPlace;
const std::string kLaunchFailed = "Error unspecified launch failure" + kPlace;
const std::string kTransformFailed = "Error CUFFT_(ALLOC|EXEC)_FAILED, [A-Za-z ]+" + kPlace;

TEST_F(FaultyRuns, EndWhenDeviceMemoryRunsOut) { sweep_both_ways("malloc", {kNoMemory, kNoDeviceMemory, false}); }
TEST_F(FaultyRuns, EndWhenMemoryForTransfersRunsOut) {
  sweep_both_ways("malloc_host", {kNoMemory, kNoHostMemory, false});
}
TEST_F(FaultyRuns, EndAtACopyThatFails) { sweep_both_ways("memcpy", {kCopyFailed, kNothing, true}); }
TEST_F(FaultyRuns, EndAtALaunchThatFails) { sweep_both_ways("launch", {kLaunchFailed, kNothing, true}); }

TEST_F(FaultyGpuRoadRuns, EndWhenDeviceMemoryRunsOut) {
  sweep_both_ways("malloc", {kNoMemory, kNoDeviceMemory, false});
}
TEST_F(FaultyGpuRoadRuns, EndAtALaunchThatFails) { sweep_both_ways("launch", {kLaunchFailed, kNothing, true}); }
TEST_F(FaultyGpuRoadRuns, EndAtATransformThatFails) { sweep("fft", {kTransformFailed, kNothing, true}); }

TEST_F(FaultyRuns, ResumeAfterADeviceWasLost) {
  remove_outputs();
  // The first launch whose failure leaves the first micrograph finished.
  ProgramRun lost{};
  for (long n = 1; n < 5000 && lost.output.find("File mic1.mrc finished.") == std::string::npos; n++)
    lost = run("launch=" + std::to_string(n));
  ASSERT_EQ(1, lost.status);
  ASSERT_NE(clean_files_, outputs());
  const ProgramRun resumed = run("", "--do_unfinished");
  EXPECT_EQ(0, resumed.status);
  EXPECT_NE(std::string::npos,
            resumed.output.find("Micrograph mic1.mrc has already been processed. Automatically skipped.\n"));
  EXPECT_EQ(clean_files_, outputs());
}

TEST_F(FaultyRuns, WriteNothingWithoutADevice) {
  remove_outputs();
  const ProgramRun none = run("devices=0");
  EXPECT_EQ(1, none.status);
  EXPECT_EQ("", none.errors);
  EXPECT_EQ(0u, none.output.find("Warning: no GPU device found!\n"));
  EXPECT_NE(std::string::npos, none.output.find(": Failed to find any usable GPU device!! Exit now!\n"));
  EXPECT_TRUE(outputs().empty());
}

// The number that the parameter report prints.
std::string reported_device(const ProgramRun& run) {
  const std::string label = "       --gid                  ";
  const size_t at = run.output.rfind(label);
  if (at == std::string::npos) return "none";
  return run.output.substr(at + label.size(), run.output.find('\n', at) - at - label.size());
}

TEST_F(FaultyRuns, ReplaceAnUnknownDeviceByTheFirstOfTheHighestCapability) {
  const std::string four = "devices=4,capability=7.5:8.6:8.0:8.6";
  EXPECT_EQ("2", reported_device(run(four, "--gid 2")));
  EXPECT_EQ("1", reported_device(run(four, "--gid 7")));
  EXPECT_EQ("1", reported_device(run(four, "--gid -1")));
  EXPECT_EQ("0", reported_device(run("devices=1", "--gid 7")));
  EXPECT_EQ("2", reported_device(run("devices=3,capability=-1:7.5:8.0", "--gid 0")));
  const ProgramRun unusable = run("devices=2,capability=-1:-1");
  EXPECT_EQ(1, unusable.status);
  EXPECT_EQ(std::string::npos, unusable.output.find("no GPU device found"));
  EXPECT_NE(std::string::npos, unusable.output.find("Failed to find any usable GPU device!"));
}

class GpuProbe : public FolderTest {};

TEST_F(GpuProbe, ListsTheDevicesThatTheProgramSees) {
  const auto probe = [&](const std::string& faults) {
    return run_program(path(""), "KESTRIX_TEST_FAULTS=" + faults + " " KESTRIX_FAULTY_PROBE);
  };
  const std::string line = ": host \\([0-9]+ cores\\), compute capability ";
  const std::string memory = ", [0-9]+\\.[0-9] GiB\n";
  EXPECT_TRUE(fits(probe("").output, "0" + line + "1\\.0" + memory));
  const ProgramRun some = probe("devices=3,capability=7.5:-1:8.6");
  EXPECT_EQ(0, some.status);
  EXPECT_TRUE(fits(some.output, "0" + line + "7\\.5" + memory + "2" + line + "8\\.6" + memory));
  EXPECT_EQ("gpu_probe: device 1 can't be used: invalid device ordinal\n", some.errors);
  const ProgramRun none = probe("devices=0");
  EXPECT_EQ(1, none.status);
  EXPECT_EQ("", none.output);
  EXPECT_EQ("gpu_probe: no device that kestrix can run on: no CUDA-capable device is detected\n", none.errors);
}

}  // namespace
