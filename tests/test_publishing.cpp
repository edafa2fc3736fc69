// Outputs appear whole or not at all, and a micrograph counts as done only when all of it is there: through failing
// calls, kills between any two renames, full disks, and two runs at once.
#include <map>

#include "test_support_runs.h"

namespace {

using Files = std::map<std::string, std::string>;

/// Two small micrographs and every output there is. File calls fail as a test says.
class Publishing : public SmallRun {
 protected:
  void SetUp() override {
    SmallRun::SetUp();
    simulate_small("--number 2");
    clean_ = (picked(""), outputs());
    ASSERT_EQ(2u * 12u, clean_.size());
  }

  static std::string command(const std::string& options = "") {
    return "OMP_NUM_THREADS=1 " KESTRIX_FAULTY
           " --apixM 8 --diameter 260 sim_001.mrc sim_002.mrc --extract_raw --write_pref_mic --write_mic_mask"
           " --write_bgfree_mic --write_ccmax_mic --write_bg_mic --write_lsigma_mic " +
           options;
  }

  ProgramRun picked(const std::string& environment, const std::string& options = "") const {
    return run_program(path("."), "export ASAN_OPTIONS=detect_leaks=0; " + environment + " " + command(options));
  }

  /// All outputs by name, hidden files and marks included.
  Files outputs() const {
    Files files;
    for (const auto& entry : std::filesystem::directory_iterator(path("."))) {
      const std::string name = entry.path().filename();
      const bool is_input = name == "sim_001.mrc" || name == "sim_002.mrc" || holds(name, "_truth");
      const bool is_output = name[0] == '.' || name.compare(0, 4, "sim_") == 0;
      if (is_output && !is_input) files[name] = read_file(entry.path());
    }
    return files;
  }

  void remove_outputs() const {
    for (const auto& [name, text] : outputs()) remove_file(name);
  }

  /// The run was ended, what is there is whole, and resuming makes it complete.
  void expect_whole_and_resumable(const std::string& what) const {
    for (const auto& [name, text] : outputs())
      EXPECT_TRUE(name[0] == '.' || name.back() == '~' || clean_.at(name) == text) << what << ": " << name;
    EXPECT_EQ(0, picked("", "--do_unfinished").status) << what;
    Files resumed = outputs();
    for (auto file = resumed.begin(); file != resumed.end();)
      file = file->first[0] == '.' ? resumed.erase(file) : ++file;
    EXPECT_EQ(clean_, resumed) << what;
  }

  Files clean_;
};

TEST_F(Publishing, AKillBeforeAnyRenameLosesNothing) {
  for (int n = 1;; n++) {
    remove_outputs();
    const std::string fault = "KESTRIX_TEST_FILE_FAULT='rename " + std::to_string(n) + " kill'";
    if (picked(fault).status == 0) {
      EXPECT_EQ(2 * 12 + 1, n) << "each output is renamed once";
      return;
    }
    expect_whole_and_resumable(fault);
  }
}

TEST_F(Publishing, ACallThatFailsEndsTheRunAndNamesTheOutput) {
  for (const std::string call : {"rename", "fsync", "fclose"}) {
    int failures = 0;
    for (int n = 1; n < 60; n += call == "fclose" ? 1 : 3) {
      remove_outputs();
      const std::string fault = "KESTRIX_TEST_FILE_FAULT='" + call + " " + std::to_string(n) + " fail'";
      const ProgramRun run = picked(fault);
      if (run.status == 0) continue;  // of a file that was only read
      failures++;
      EXPECT_EQ(1, run.status) << fault;
      const size_t line = run.output.rfind("Error in function ");
      EXPECT_TRUE(line != std::string::npos && holds(run.output.substr(line), "sim_00")) << fault << run.output;
      for (const auto& [name, text] : outputs()) EXPECT_NE('.', name[0]) << fault << " leaves " << name;
      expect_whole_and_resumable(fault);
    }
    EXPECT_GE(failures, call == "fsync" ? 2 : 8) << call;
  }
}

TEST_F(Publishing, AFullDiskEndsTheRunAndLeavesNoUnfinishedFile) {
  int refused = 0;
  for (const int blocks : {0, 1, 2, 4, 8, 16, 64}) {
    remove_outputs();
    // Standard output goes through a pipe, which the limit doesn't hold for.
    const ProgramRun run =
        run_program(path("."), "bash -c \"export ASAN_OPTIONS=detect_leaks=0; (trap '' XFSZ; ulimit -f " +
                                   std::to_string(blocks) + "; " + command() + ") | cat; exit \\${PIPESTATUS[0]}\"");
    if (run.status == 0) continue;
    refused++;
    EXPECT_EQ(1, run.status);
    EXPECT_TRUE(holds(run.output, "writing sim_00")) << run.output;
    for (const auto& [name, text] : outputs()) EXPECT_NE('.', name[0]) << blocks << " leaves " << name;
    expect_whole_and_resumable("blocks of 1 KiB: " + std::to_string(blocks));
  }
  EXPECT_GE(refused, 4);
}

TEST_F(Publishing, RunsAtOnceInOneFolderDontDisturbEachOther) {
  for (int round = 0; round < 3; round++) {
    remove_outputs();
    const ProgramRun both = run_program(path("."), "{ " + command() + ">/dev/null & " + command() +
                                                       ">/dev/null; first=$?; wait $!; exit $((first + $?)); }");
    EXPECT_EQ(0, both.status) << both.errors;
    EXPECT_EQ(clean_, outputs());
  }
}

// --- The list ---

TEST_F(SmallRun, OwnImagesInTheListAreLeftOutAndSharedOutputsRefused) {
  simulate_small();
  const auto run = [&](const std::string& list) { return SmallRun::run("--speed 0 --cc_cutoff 0.25 " + list); };
  ASSERT_EQ(0, run("sim_001.mrc --write_bgfree_mic --write_mic_mask").status);
  const std::string picked = content("sim_001_quorlin.box");
  for (const std::string resume : {"", "--do_unfinished "}) {
    const ProgramRun again = run(resume + "sim_001_bgfree.mrc ./sim_001.mrc sim_001_mask.mrc");
    EXPECT_EQ(0, again.status) << again.output;
    EXPECT_EQ(
        "Kestrix: sim_001_bgfree.mrc and 1 more: written by kestrix beside listed micrographs, so left out of the "
        "list.\n",
        again.errors);
    EXPECT_TRUE(holds(again.output, "All 1 files to be used:"));
  }
  copy_file("sim_001_mask.mrc", "other_mask.mrc");  // of no micrograph in the list: an image like any other
  EXPECT_TRUE(holds(run("sim_001.mrc other_mask.mrc").output, "All 2 files to be used:"));

  const ProgramRun twice = run("sim_001.mrc ./sim_001.mrc");
  EXPECT_EQ(0, twice.status);
  EXPECT_EQ("Kestrix: ./sim_001.mrc: in the list more than once; picked anew each time.\n", twice.errors);
  EXPECT_EQ(picked, content("sim_001_quorlin.box"));
  copy_file("sim_001.mrc", "sim_001.mrcs");
  expect_fatal("sim_001.mrc sim_001.mrcs", "sim_001.mrc and sim_001.mrcs would both write sim_001_quorlin.box");
}

}  // namespace
