// tools/compare_picks.sh, by which the picks of two devices are compared.
#include <gtest/gtest.h>

#include <filesystem>

#include "test_support.h"
#include "test_support_programs.h"

namespace {

class ComparePicks : public FolderTest {
 protected:
  void SetUp() override {
    std::filesystem::create_directory(path("a"));
    std::filesystem::create_directory(path("b"));
  }
  ProgramRun compare(const std::string& limits = "") const {
    return run_program(path(""), "'" KESTRIX_SOURCE_DIR "/tools/compare_picks.sh' a b " + limits);
  }
  ProgramRun compare_lists(const std::string& a, const std::string& b, const std::string& limits = "") const {
    write_file(path("a/m_quorlin.box"), a);
    write_file(path("b/m_quorlin.box"), b);
    return compare(limits);
  }
};

constexpr char kPick[] = "100     200     40      40      0.312345\t2       45.000000\n";
constexpr char kOther[] = "300     200     40      40      0.250000\t0       0.000000\n";

std::string last_line(const ProgramRun& run) {
  return run.output.substr(run.output.rfind('\n', run.output.size() - 2) + 1);
}

TEST_F(ComparePicks, TakesEqualPicksInAnyOrderAndScoresWithinTheBound) {
  const std::string close = "100     200     40      40      0.312350\t2       45.000000\n";
  const ProgramRun run = compare_lists(std::string(kPick) + kOther, kOther + close);
  EXPECT_EQ(0, run.status);
  EXPECT_EQ("All 1 lists: 2 picks the same, 0 ties, 0 different\n", last_line(run));
  EXPECT_EQ(1, compare_lists(std::string(kPick) + kOther, kOther + close, "0.000001").status);
}

TEST_F(ComparePicks, CountsAndShowsTies) {
  const std::string other_angle = "100     200     40      40      0.312345\t2       50.000000\n";
  const std::string neighbour = "303     200     40      40      0.250001\t1       10.000000\n";
  const ProgramRun run = compare_lists(std::string(kPick) + kOther, other_angle + neighbour);
  EXPECT_EQ(0, run.status);
  EXPECT_EQ("All 1 lists: 0 picks the same, 2 ties, 0 different\n", last_line(run));
  EXPECT_NE(std::string::npos, run.output.find("tie: 300 200 40 40 0.250000 0 0.000000 | 303 200 "));
}

TEST_F(ComparePicks, FindsWhatIsInOneListOnly) {
  for (const bool swapped : {false, true}) {
    const std::string both = std::string(kPick) + kOther;
    const ProgramRun run = swapped ? compare_lists(kPick, both) : compare_lists(both, kPick);
    EXPECT_EQ(1, run.status);
    EXPECT_EQ("All 1 lists: 1 picks the same, 0 ties, 1 different\n", last_line(run));
    const std::string cutoff = "0.0001 0.25005";
    EXPECT_EQ(0, (swapped ? compare_lists(kPick, both, cutoff) : compare_lists(both, kPick, cutoff)).status);
  }
  EXPECT_EQ("All 1 lists: 0 picks the same, 0 ties, 1 different\n", last_line(compare_lists("", kPick)));
  EXPECT_EQ("All 1 lists: 0 picks the same, 0 ties, 0 different\n", last_line(compare_lists("", "")));
  // Far off, or much better: no tie.
  EXPECT_EQ(1, compare_lists(kPick, "150     200     40      40      0.312345\t2       45.000000\n").status);
  EXPECT_EQ(1, compare_lists(kPick, "101     200     40      40      0.412345\t2       45.000000\n").status);
}

TEST_F(ComparePicks, RefusesToCompareNothing) {
  EXPECT_EQ(2, compare().status);
  EXPECT_EQ(2, run_program(path(""), "'" KESTRIX_SOURCE_DIR "/tools/compare_picks.sh' a").status);
  write_file(path("a/m_quorlin.box"), kPick);
  EXPECT_EQ(1, compare().status);
}

#ifdef KESTRIX_FAULTY_GPU_ROAD

// Not on a GPU, but by the transforms, launches and batches that a run uses there.
TEST_F(ComparePicks, FindsTheSamePicksOnAGpusRoadAsOnTheHosts) {
  const ProgramRun simulated =
      run_program(path("a"), "'" KESTRIX_SIMULATE "' --number 2 --nx 800 --ny 700 --apix 5 --ice 1 --snr 0.1");
  ASSERT_EQ(0, simulated.status) << simulated.errors;
  std::filesystem::copy(path("a"), path("b"));
  const std::string arguments =
      "' sim_001.mrc sim_002.mrc --T sim_templates.mrcs --apixM 5 --apixT 10 --diameter 260 --speed 1 --ang_step 20";
  ASSERT_EQ(0, run_program(path("a"), "'" KESTRIX_PROGRAM + arguments).status);
  ASSERT_EQ(0, run_program(path("b"), "'" KESTRIX_FAULTY_GPU_ROAD + arguments).status);
  const ProgramRun run = compare();
  EXPECT_EQ(0, run.status) << run.output;
  EXPECT_EQ(std::string::npos, run.output.find("All 2 lists: 0 picks")) << run.output;
  printf("%s", run.output.c_str());
}

#endif

}  // namespace
