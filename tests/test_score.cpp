#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "common/truth_file.h"
#include "test_support.h"

namespace {

/// A folder with a truth file of four clean particles and one on carbon, and its outline.
struct ScoreRun : FolderTest {
  void SetUp() override {
    write_truth(path("truth.star").c_str(), {{100.5, 100.25, 0, 0, 0, kClean},
                                             {300, 100, 10, 20, 30, kClean},
                                             {100, 300, 0, 0, 0, kClean},
                                             {300, 300, 0, 0, 0, kClean},
                                             {500, 500, 0, 0, 0, kOnCarbon}});
    write_areas(path("areas.star").c_str(), {{kOnCarbon, {450, 900, 900, 450}, {450, 450, 900, 900}}});
  }

  void write(const std::string& name, const std::string& text) const { write_file(path(name), text); }
  ProgramRun score(const std::string& arguments) const {
    return run_program(path("."), KESTRIX_SCORE " --diameter 200 --apix 2 truth.star " + arguments);
  }
};

const std::string kStarHead = "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnAnglePsi #3\n";

}  // namespace

TEST_F(ScoreRun, BoxAndStarListsOfTheSamePicksScoreTheSame) {
  write("picks.star", kStarHead + "103 104 0\n300 98 5\n102 301 0\n110 100 0\n505 500 0\n800 700 0\n");
  write("picks.box",
        "53      54      100     100     0.300000\t0       0.000000\n250 48 100 100\n52 251 100 100 0.1\n"
        "\n60 50 100 100 0 0 0\n455 450 100 100\n750 650 100 100\n");
  const ProgramRun star = score("picks.star --areas areas.star --brief");
  EXPECT_EQ(0, star.status) << star.errors;
  // offsets (2.5, 3.75), (0, -2), (2, 1)
  EXPECT_EQ("4 6 3 0.5000 0.7500 0.6000 1.500 0.917 2.914 1 1 2 25.00\n", star.output);
  EXPECT_EQ(star.output, score("picks.box --areas areas.star --brief").output);
  write("far.box", "50 80 100 100\n");  // 30 pixels from the first particle: 0.6 radii of 50 pixels
  EXPECT_EQ('0', score("far.box --brief").output.at(4));
  EXPECT_EQ('1', score("far.box --brief --tolerance 0.62").output.at(4));
  const std::string text = score("picks.box --areas areas.star").output;
  for (const char* part : {"Precision       0.500\n", "Recall          0.750\n", "+1.50 +0.92 pixels",
                           "1 picks of such particles, 2 picks within the outlines\n"})
    EXPECT_TRUE(holds(text, part)) << text;
}

TEST_F(ScoreRun, ReadsFilesOfOtherProgramsAndEmptyOnes) {
  write("other.star",
        "# version 30001\n\ndata_optics\n\nloop_\n_rlnVoltage "
        "#1\n300.0\n\ndata_particles\nloop_\n_rlnClassNumber #1\n"
        "_rlnCoordinateY #2\n_rlnMicrographName #3\n_rlnCoordinateX #4\n1 100.0 a.mrc 300.0\n\n2 300 b.mrc "
        "100\n");
  EXPECT_EQ("4 2 2 1.0000", score("other.star --brief").output.substr(0, 12));
  write("empty.star", kStarHead);
  write("empty.box", "");
  const std::string none = "4 0 0 0.0000 0.0000 0.0000 nan nan nan 1 0 -1 25.00\n";
  EXPECT_EQ(none, score("empty.star --brief").output);
  EXPECT_EQ(none, score("empty.box --brief").output);
}

TEST_F(ScoreRun, RefusesFilesThatMakeNoSense) {
  write("words.box", "10 10 big 20\n");
  write("short.box", "10 10 20 20\n10 10\n");
  write("ragged.star", kStarHead + "1 2 3\n1 2\n");
  write("no.star", "data_\nloop_\n_rlnClassNumber #1\n3\n");
  for (const auto& [lists, words] : golden_cases("refused_by_score.txt")) expect_refused(score(lists), words);
}
