// Runs of the program on a device that fails: which line ends the run, and that finished work stays whole. The host
// device fails as KESTRIX_TEST_FAULTS says (faulty_device.cpp), on the host's own road through a run and on a GPU's.
#include <csignal>
#include <iterator>
#include <map>
#include <regex>
#include <sstream>

#include "run/picking.h"
#include "test_support.h"

namespace {

/// Whether a text as a whole fits an extended regular expression.
bool fits(const std::string& text, const std::string& pattern) {
  return std::regex_match(text, std::regex(pattern, std::regex::extended));
}

using Files = std::map<std::string, std::string>;

const std::string kArguments =
    "mic001.mrc mic002.mrc --T mictemplates.mrcs --apixM 8 --apixT 16 --diameter 260 --speed 1 --ang_step 90 "
    "--lave_min -9 --lave_max 9 --lsigma_cutoff 9 --do_pre_filter --write_pref_mic --write_bg_mic --write_bgfree_mic "
    "--write_lsigma_mic --write_mic_mask --write_ccmax_mic --extract_raw --exclusive_picking --excluded_suffix "
    "_bad.box "
    "--mask_excluded ";

/// Two micrographs picked with every output and filter that there is, so that every use of the device is on the way.
class FaultyRuns : public FolderTest {
 protected:
  /// road   what stands before the faults: nothing, or the switch to a GPU's road
  explicit FaultyRuns(const char* road = "") : road_(road) {}

  void SetUp() override {
    const ProgramRun simulated = run_program(path(""), KESTRIX_SIMULATE
                                             " --prefix mic --number 2 --nx 256 --ny 224 --apix 8 --dose 2 --snr 0.1"
                                             " --templates 2");
    ASSERT_EQ(0, simulated.status) << simulated.errors;
    write_file(path("mic001_bad.box"), "10 10 20 20\n");
    write_file(path("mic002_bad.box"), "30 10 20 20\n");
    const ProgramRun clean = run("");
    ASSERT_EQ(0, clean.status) << clean.output << clean.errors;
    clean_files_ = outputs();
    for (const char* list : {"mic001_quorlin.box", "mic002_quorlin.box"}) ASSERT_NE("", clean_files_[list]);
  }

  /// Runs with the faults, on none of the earlier outputs unless options say that they are wanted.
  ProgramRun run(const std::string& faults, const std::string& options = "") const {
    for (const auto& file : outputs())
      if (options != "--do_unfinished") std::filesystem::remove(path(file.first));
    // Where a failure ends the run, nothing is cleaned up.
    return run_program(path(""), "ASAN_OPTIONS=detect_leaks=" + std::string(faults.empty() ? "1" : "0") +
                                     " OMP_NUM_THREADS=1 KESTRIX_TEST_FAULTS=" + road_ + faults +
                                     " '" KESTRIX_FAULTY "' " + kArguments + options);
  }

  /// The files that a run left, by name.
  Files outputs() const {
    Files files;
    for (const auto& entry : std::filesystem::directory_iterator(path(""))) {
      const std::string name = entry.path().filename();
      if (holds(name, "_") && !holds(name, "_bad") && !holds(name, "_truth")) files[name] = read_file(entry.path());
    }
    return files;
  }

  /// What a run that was ended has left: a finished micrograph's files as the clean run wrote them, and no final list
  /// that is not whole.
  void expect_whole_outputs(bool first_done) const {
    const Files left = outputs();
    for (const auto& [name, bytes] : left) EXPECT_TRUE(clean_files_.count(name)) << name << " was left";
    for (const auto& [name, bytes] : clean_files_) {
      const bool done = first_done && name.compare(0, 6, "mic001") == 0;
      const bool whole = left.count(name) && left.at(name) == bytes;
      EXPECT_TRUE(whole || !(done || (holds(name, "_quorlin.") && left.count(name)))) << name;
    }
  }

  /// How a run with a fault must end.
  struct Ending {
    std::string errors;   // pattern for standard error, or else
    std::string output;   // pattern for the last line of standard output
    bool reaches_second;  // whether such calls are still made when the first micrograph is finished
  };

  /// Makes a run in which the n-th call of a kind fails. Where that ended it, it must have done so as `ending` says, with
  /// whole outputs.
  ProgramRun run_to_fault(const std::string& kind, long n, const Ending& ending) const {
    ProgramRun faulty = run(kind + "=" + std::to_string(n));
    if (faulty.status == 0) return faulty;
    SCOPED_TRACE(kind + " " + std::to_string(n));
    EXPECT_EQ(1, faulty.status);
    const size_t line = faulty.output.empty() ? 0 : faulty.output.rfind('\n', faulty.output.size() - 2) + 1;
    const bool on_output = fits(faulty.output.substr(line), ending.output);
    EXPECT_TRUE(on_output ? faulty.errors.empty() : fits(faulty.errors, ending.errors))
        << faulty.output << faulty.errors;
    expect_whole_outputs(holds(faulty.output, kFirstDone));
    return faulty;
  }

  /// Lets the n-th and every later call of a kind fail, for every n that a run reaches; then, if alone is set, each call
  /// alone, which is noticed only if its own result is examined.
  void sweep(const std::string& kind, const Ending& ending, bool alone = true) const {
    bool second_reached = false, ended_well = false;
    long calls = 0;
    for (; !ended_well && calls < 5000 && !HasFailure(); calls++) {
      const ProgramRun faulty = run_to_fault(kind, calls + 1, ending);
      ended_well = faulty.status == 0;
      second_reached = second_reached || (!ended_well && holds(faulty.output, kFirstDone));
    }
    EXPECT_GT(calls, 1);
    EXPECT_EQ(ending.reaches_second, second_reached);
    EXPECT_EQ(clean_files_, outputs());
    for (long n = 1; alone && n < calls && !HasFailure(); n++) {
      const ProgramRun run = run_to_fault(kind, -n, ending);
      const bool made_do = run.status == 0 && holds(run.errors, kFewerAngles) && outputs() == clean_files_;
      EXPECT_TRUE(run.status == 1 || made_do) << kind << " " << n << " alone went unnoticed";
    }
  }

  static constexpr char kFewerAngles[] = "Kestrix: the device is short of memory; angles scanned at a time: ";
  static constexpr char kFirstDone[] = "File mic001.mrc finished.";
  std::string road_;
  Files clean_files_;
};

struct FaultyGpuRoadRuns : FaultyRuns {
  FaultyGpuRoadRuns() : FaultyRuns("gpu_road,") {}
};

const std::string kNothing = "(no such line)";
const std::string kPlace = " at line [0-9]+ in file [a-z0-9_]+\n";

/// The line of a fatal error in a function; any function if the name is "".
std::string fatal_pattern(const std::string& function, const std::string& text) {
  return "Error in function " + (function.empty() ? "[a-z_]+" : function) +
         "\\(\\), file [a-z0-9_]+ on line [0-9]+: " + text + "! Exit now!\n";
}

const std::string kNoMemory = "Error out of memory" + kPlace;
const std::string kNoDeviceMemory = fatal_pattern("safe_cudaMalloc", "Device memory allocation failed");
// On a GPU's road the whole need is asked for first, and the scan makes do with less room.
const std::string kNoRoom = fatal_pattern("check_device_memory", "the run needs [0-9]+ MiB of device.*");
const std::string kNoRoomToScan = fatal_pattern("", "the device has not enough memory.*");
const std::string kNoHostMemory = fatal_pattern("", "Host memory allocation failed.*");
const std::string kCopyFailed = "Error invalid argument" + kPlace;
const std::string kLaunchFailed = "Error unspecified launch failure" + kPlace;
const std::string kTransformFailed = "Error CUFFT_(ALLOC|EXEC)_FAILED, [A-Za-z ]+" + kPlace;

TEST_F(FaultyRuns, EndWhenDeviceMemoryRunsOut) { sweep("malloc", {kNoMemory, kNoDeviceMemory, false}); }
TEST_F(FaultyRuns, EndWhenMemoryForTransfersRunsOut) { sweep("malloc_host", {kNoMemory, kNoHostMemory, false}); }
TEST_F(FaultyRuns, EndAtACopyThatFails) { sweep("memcpy", {kCopyFailed, kNothing, true}); }
TEST_F(FaultyRuns, EndAtALaunchThatFails) { sweep("launch", {kLaunchFailed, kNothing, true}); }

TEST_F(FaultyGpuRoadRuns, EndWhenDeviceMemoryRunsOut) {
  sweep("malloc", {kNoMemory, kNoDeviceMemory + "|" + kNoRoom + "|" + kNoRoomToScan, false});
}
TEST_F(FaultyGpuRoadRuns, EndAtALaunchThatFails) { sweep("launch", {kLaunchFailed, kNothing, true}); }
TEST_F(FaultyGpuRoadRuns, EndAtATransformThatFails) { sweep("fft", {kTransformFailed, kNoRoomToScan, true}, false); }

TEST_F(FaultyGpuRoadRuns, ScanFewerAnglesAtATimeInLittleMemoryAndEndWhereNotOneFits) {
  const auto run_in = [this](size_t bytes) { return run("memory=" + std::to_string(bytes)); };
  const ProgramRun none = run_in(1 << 20);
  EXPECT_EQ(1, none.status);
  const size_t told = none.output.find("the run needs ");
  ASSERT_NE(std::string::npos, told) << none.output;
  const size_t needed = strtoul(none.output.c_str() + told + strlen("the run needs "), nullptr, 10) << 20;
  EXPECT_TRUE(holds(none.output, "images of 128 x 128 pixels")) << none.output;
  EXPECT_TRUE(holds(none.output, "device 0 of 1 MiB has not as much free; give a higher --speed")) << none.output;
  EXPECT_TRUE(outputs().empty());
  const size_t left_free = 32 << 20, angle = (2 * 128 + 130) * 128 * sizeof(float);
  const std::pair<size_t, std::string> cases[] = {{needed, "1 instead of 4.\n"},
                                                  {needed + left_free + angle, "2 instead of 4.\n"},
                                                  {needed + left_free + 4 * angle, ""}};
  for (const auto& c : cases) {
    const ProgramRun run = run_in(c.first);
    EXPECT_EQ(0, run.status) << c.first << run.output << run.errors;
    EXPECT_EQ(c.second.empty() ? "" : kFewerAngles + c.second, run.errors) << c.first;
    EXPECT_EQ(clean_files_, outputs()) << c.first;
  }
  EXPECT_EQ(1, run_in(needed - (1 << 20)).status);
}

// A run in this process on a GPU's road; tells on standard error the bytes that it is said to take, those that it does,
// and those that it leaves behind.
void run_and_tell_memory(const std::string& line) {
  host_device_faults().device_transforms = true;
  std::istringstream words(line);
  std::vector<std::string> arguments{std::istream_iterator<std::string>(words), {}};
  std::vector<char*> argv;
  argv.reserve(arguments.size());
  for (std::string& word : arguments) argv.push_back(&word[0]);
  Run run{};
  read_command_line(static_cast<int>(argv.size()), argv.data(), &run);
  prepare_run(&run);
  pick_micrograph(&run, run.para.files[0]);
  fprintf(stderr, "%zu %zu", device_bytes(&run, run.scan.batch), host_device_bytes_in_use());
  free_run(&run);
  fprintf(stderr, " %zu", host_device_bytes_in_use());
}

TEST_F(FaultyGpuRoadRuns, TakeTheMemoryThatTheyAreSaidToTake) {
  for (const std::string options : {"", "--detect_ice 0", "--detect_ice 0 --do_bandpass 0", "--T NULL --speed 0",
                                    "--write_ccmax_mic --detect_ice 0 --do_bandpass 0 --do_pre_filter"}) {
    const std::string line = "kestrix " + path("mic001.mrc") + " --T " + path("mictemplates.mrcs") +
                             " --apixM 8 --apixT 16 --diameter 260 --speed 1 --ang_step 90 " + options;
    const ProgramRun result = run_in_child([&] { run_and_tell_memory(line); });
    size_t said = 0, taken = 0, left = 1;
    ASSERT_EQ(3, sscanf(result.errors.c_str(), "%zu %zu %zu", &said, &taken, &left)) << result.output << result.errors;
    EXPECT_EQ(said, taken) << options;
    EXPECT_EQ(0u, left) << options;
  }
}

TEST_F(FaultyRuns, TakeAnyDeviceNumberAndEndWhereTheDeviceIsRefused) {
  for (const char* gid : {"-1", "1", "7"}) {
    const ProgramRun other = run("devices=1", std::string("--gid ") + gid);
    EXPECT_EQ(0, other.status) << gid << other.errors;
    EXPECT_EQ(clean_files_, outputs()) << gid;
  }
  const ProgramRun refused = run("set_device=1");
  EXPECT_EQ(1, refused.status);
  EXPECT_TRUE(fits(refused.errors, "Error CUDA-capable device\\(s\\) is/are busy or unavailable" + kPlace))
      << refused.errors;
  EXPECT_TRUE(outputs().empty());
}

TEST_F(FaultyRuns, TakeTheDevicesThatAreNamedOrAllThatCanBeUsed) {
  for (const char* gid : {"all", "0,2", "2,0,2"}) {
    const ProgramRun several = run("devices=3,capability=7.0:-1:8.6", std::string("--gid ") + gid);
    EXPECT_EQ(0, several.status) << gid << several.output << several.errors;
    EXPECT_EQ(clean_files_, outputs()) << gid;
  }
  const std::pair<const char*, const char*> refusals[] = {
      {"0,1", "--gid is 0,1, and there is no device 1 that can be used; gpu_probe lists those that can! Exit now!\n"},
      {"0,", "--gid is 0,: it must be a number, a list of numbers such as 0,1,2, or all! Exit now!\n"},
      {"0,-2", "--gid is 0,-2: it must be a number, a list of numbers such as 0,1,2, or all! Exit now!\n"}};
  for (const auto& refusal : refusals) {
    const ProgramRun refused = run("devices=3,capability=7.0:-1:8.6", std::string("--gid ") + refusal.first);
    EXPECT_EQ(1, refused.status);
    EXPECT_TRUE(ends_with(refused.output, refusal.second)) << refused.output;
  }
  const ProgramRun none = run("devices=0", "--gid all");
  EXPECT_EQ(1, none.status);
  EXPECT_TRUE(ends_with(none.output, ": Failed to find any usable GPU device!! Exit now!\n"));
  EXPECT_TRUE(outputs().empty());
}

TEST_F(FaultyRuns, EndWhereAProcessOnOneOfSeveralDevicesDoes) {
  const std::string note = "Kestrix: the process for device [01] ";
  bool ended_well = false, ended_late = false;
  for (long n = 1; n < 5000 && !ended_well && !HasFailure(); n = n * 3 / 2 + 1) {
    SCOPED_TRACE(n);
    const ProgramRun killed = run("devices=2,killed=" + std::to_string(n), "--gid 0,1");
    ended_well = killed.status == 0;
    if (ended_well) break;
    EXPECT_EQ(128 + SIGKILL, killed.status);
    EXPECT_TRUE(fits(killed.errors, note + "was ended by signal 9 \\(Killed\\); the run ends.\n")) << killed.errors;
    for (const auto& file : outputs())
      if (file.first[0] == '.') std::filesystem::remove(path(file.first));  // nobody was left to do it
    expect_whole_outputs(holds(killed.output, kFirstDone));
    const ProgramRun failed = run("devices=2,launch=" + std::to_string(n), "--gid 0,1");
    EXPECT_EQ(1, failed.status);
    EXPECT_TRUE(fits(failed.errors, kLaunchFailed + note + "has failed; the run ends.\n")) << failed.errors;
    expect_whole_outputs(holds(failed.output, kFirstDone));
    ended_late = ended_late || holds(failed.output, "Reading File mic001.mrc");
  }
  EXPECT_TRUE(ended_well && ended_late);
  EXPECT_EQ(clean_files_, outputs());
}

TEST_F(FaultyRuns, ResumeAfterADeviceWasLost) {
  // The first launch whose failure leaves the first micrograph finished.
  ProgramRun lost{};
  for (long n = 1; n < 5000 && !holds(lost.output, kFirstDone); n++) lost = run("launch=" + std::to_string(n));
  ASSERT_EQ(1, lost.status);
  ASSERT_NE(clean_files_, outputs());
  const ProgramRun resumed = run("", "--do_unfinished");
  EXPECT_EQ(0, resumed.status);
  EXPECT_TRUE(holds(resumed.output, "Micrograph mic001.mrc has already been processed. Automatically skipped.\n"));
  EXPECT_EQ(clean_files_, outputs());
}

TEST_F(FaultyRuns, WriteNothingWithoutADeviceThatCanBeUsed) {
  for (const char* faults : {"devices=0", "devices=2,capability=-1:-1"}) {
    const ProgramRun none = run(faults);
    EXPECT_EQ(1, none.status);
    EXPECT_EQ("", none.errors);
    EXPECT_EQ(faults == std::string("devices=0"), none.output.find("Warning: no GPU device found!\n") == 0);
    EXPECT_TRUE(holds(none.output, ": Failed to find any usable GPU device!! Exit now!\n"));
    EXPECT_TRUE(outputs().empty());
  }
}

class GpuProbe : public FolderTest {};

TEST_F(GpuProbe, ListsTheDevicesThatTheProgramSees) {
  const auto probe = [&](const std::string& faults) {
    return run_program(path(""), "KESTRIX_TEST_FAULTS=" + faults + " " KESTRIX_FAULTY_PROBE);
  };
  const std::string line = ": host \\([0-9]+ cores\\), compute capability ", memory = ", [0-9]+\\.[0-9] GiB\n";
  const ProgramRun some = probe("devices=3,capability=7.5:-1:8.6"), none = probe("devices=0");
  EXPECT_EQ(0, some.status);
  EXPECT_TRUE(fits(some.output, "0" + line + "7\\.5" + memory + "2" + line + "8\\.6" + memory));
  EXPECT_EQ("gpu_probe: device 1 can't be used: invalid device ordinal\n", some.errors);
  EXPECT_EQ(1, none.status);
  EXPECT_EQ("gpu_probe: no device that kestrix can run on: no CUDA-capable device is detected\n", none.errors);
}

}  // namespace
