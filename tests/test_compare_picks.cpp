// tools/compare_picks.sh, by which the picks of two devices are compared.
#include "test_support.h"

namespace {

struct ComparePicks : FolderTest {
  void SetUp() override {
    for (const char* folder : {"a", "b"}) std::filesystem::create_directory(path(folder));
  }
  ProgramRun compare(const std::string& arguments = "a b") const {
    return run_program(path(""), "'" KESTRIX_SOURCE_DIR "/tools/compare_picks.sh' " + arguments);
  }
};

const std::string kPick = "100     200     40      40      0.312345\t2       45.000000\n";
const std::string kOther = "300     200     40      40      0.250000\t0       0.000000\n";

TEST_F(ComparePicks, CountsThoseThatAreTheSameTieOrAreInOneListOnly) {
  const std::string close = "100     200     40      40      0.312350\t2       45.000000\n";
  const std::string other_angle = "100     200     40      40      0.312345\t2       50.000000\n";
  const std::string neighbour = "303     200     40      40      0.250001\t1       10.000000\n";
  const std::string far = "150     200     40      40      0.312345\t2       45.000000\n";
  const std::string better = "101     200     40      40      0.412345\t2       45.000000\n";
  const struct {
    std::string a, b, limits;
    int status;
    std::string counts;
  } cases[] = {{kPick + kOther, kOther + close, "", 0, "2 picks the same, 0 ties, 0 different"},
               {kPick + kOther, kOther + close, "0.000001", 1, ""},
               {kPick + kOther, other_angle + neighbour, "", 0, "0 picks the same, 2 ties, 0 different"},
               {kPick + kOther, kPick, "", 1, "1 picks the same, 0 ties, 1 different"},
               {kPick, kPick + kOther, "", 1, "1 picks the same, 0 ties, 1 different"},
               {kPick, kPick + kOther, "0.0001 0.25005", 0, ""},  // too near the cutoff to tell
               {"", kPick, "", 1, "0 picks the same, 0 ties, 1 different"},
               {"", "", "", 0, "0 picks the same, 0 ties, 0 different"},
               {kPick, far, "", 1, ""},
               {kPick, better, "", 1, ""}};
  EXPECT_EQ(2, compare().status) << "nothing to compare";
  EXPECT_EQ(2, compare("a").status);
  write_file(path("a/m_quorlin.box"), kPick);
  EXPECT_EQ(1, compare().status);
  for (const auto& c : cases) {
    write_file(path("a/m_quorlin.box"), c.a);
    write_file(path("b/m_quorlin.box"), c.b);
    const ProgramRun run = compare("a b " + c.limits);
    EXPECT_EQ(c.status, run.status) << run.output;
    EXPECT_TRUE(c.counts.empty() || ends_with(run.output, "All 1 lists: " + c.counts + "\n")) << run.output;
  }
}

#ifdef KESTRIX_FAULTY

// Not on a GPU, but by the transforms, launches and batches that a run uses there.
TEST_F(ComparePicks, FindsTheSamePicksOnAGpusRoadAsOnTheHosts) {
  const ProgramRun simulated =
      run_program(path("a"), "'" KESTRIX_SIMULATE "' --number 2 --nx 800 --ny 700 --apix 5 --ice 1 --snr 0.1");
  ASSERT_EQ(0, simulated.status) << simulated.errors;
  std::filesystem::copy(path("a"), path("b"));
  const std::string arguments =
      "' sim_001.mrc sim_002.mrc --T sim_templates.mrcs --apixM 5 --apixT 10 --diameter 260 --speed 1 --ang_step 20";
  ASSERT_EQ(0, run_program(path("a"), "'" KESTRIX_PROGRAM + arguments).status);
  ASSERT_EQ(0, run_program(path("b"), "KESTRIX_TEST_FAULTS=gpu_road '" KESTRIX_FAULTY + arguments).status);
  const ProgramRun run = compare();
  EXPECT_EQ(0, run.status) << run.output;
  EXPECT_FALSE(holds(run.output, "All 2 lists: 0 picks")) << run.output;
}

#endif

}  // namespace
