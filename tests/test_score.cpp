#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "common/truth_file.h"
#include "score/matching.h"
#include "score/picks.h"
#include "test_support.h"

namespace {

/// A folder with a truth file of four clean particles and one on carbon, and its outline.
class ScoreRun : public FolderTest {
 protected:
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
    return run_program(path("."), KESTRIX_SCORE " --diameter 200 --apix 2 " + arguments);
  }
};

constexpr char kStarHead[] = "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnAnglePsi #3\n";

}  // namespace

TEST(Matching, IsOneToOneAndTakesTheClosestPairFirst) {
  const std::vector<TrueParticle> truth = {{0, 0, 0, 0, 0, 0}, {30, 0, 0, 0, 0, 0}, {100, 0, 0, 0, 0, 0}};
  const std::vector<Pick> picks = {{8, 0}, {3, 4}, {28, 0}, {100, 20}, {100, -20.01}};
  const std::vector<long> expected = {-1, 0, 1, 2, -1};
  EXPECT_EQ(expected, match_picks(truth, picks, 20)) << "(8, 0) is near the first particle, (3, 4) nearer";
  EXPECT_EQ(expected, match_picks(truth, picks, 21)) << "a particle has one pick";
}

TEST_F(ScoreRun, BoxAndStarListsOfTheSamePicksScoreTheSame) {
  write("picks.star", std::string(kStarHead) + "103 104 0\n300 98 5\n102 301 0\n110 100 0\n505 500 0\n800 700 0\n");
  write("picks.box",
        "53      54      100     100     0.300000\t0       0.000000\n250 48 100 100\n52 251 100 100 0.1\n"
        "\n60 50 100 100 0 0 0\n455 450 100 100\n750 650 100 100\n");
  const ProgramRun star = score("truth.star picks.star --areas areas.star --brief");
  EXPECT_EQ(0, star.status) << star.errors;
  // offsets (2.5, 3.75), (0, -2), (2, 1)
  EXPECT_EQ("4 6 3 0.5000 0.7500 0.6000 1.500 0.917 2.914 1 1 2 25.00\n", star.output);
  EXPECT_EQ(star.output, score("truth.star picks.box --areas areas.star --brief").output);
  write("far.box", "50 80 100 100\n");  // 30 pixels from the first particle: 0.6 radii of 50 pixels
  EXPECT_EQ('0', score("truth.star far.box --brief").output.at(4));
  EXPECT_EQ('1', score("truth.star far.box --brief --tolerance 0.62").output.at(4));
  const std::string text = score("truth.star picks.box --areas areas.star").output;
  for (const char* part : {"Precision       0.500\n", "Recall          0.750\n", "+1.50 +0.92 pixels",
                           "1 picks of such particles, 2 picks within the outlines\n"})
    EXPECT_NE(std::string::npos, text.find(part)) << text;
}

TEST_F(ScoreRun, ReadsFilesOfOtherProgramsAndEmptyOnes) {
  write("other.star",
        "# version 30001\n\ndata_optics\n\nloop_\n_rlnVoltage "
        "#1\n300.0\n\ndata_particles\nloop_\n_rlnClassNumber #1\n"
        "_rlnCoordinateY #2\n_rlnMicrographName #3\n_rlnCoordinateX #4\n1 100.0 a.mrc 300.0\n\n2 300 b.mrc "
        "100\n");
  EXPECT_EQ("4 2 2 1.0000", score("truth.star other.star --brief").output.substr(0, 12));
  write("empty.star", kStarHead);
  write("empty.box", "");
  const std::string none = "4 0 0 0.0000 0.0000 0.0000 nan nan nan 1 0 -1 25.00\n";
  EXPECT_EQ(none, score("truth.star empty.star --brief").output);
  EXPECT_EQ(none, score("truth.star empty.box --brief").output);
}

TEST_F(ScoreRun, RefusesFilesThatMakeNoSense) {
  write("words.box", "10 10 big 20\n");
  write("short.box", "10 10 20 20\n10 10\n");
  write("ragged.star", std::string(kStarHead) + "1 2 3\n1 2\n");
  write("no.star", "data_\nloop_\n_rlnClassNumber #1\n3\n");
  const char* const cases[][2] = {{"truth.star words.box", "words.box, line 1: 'big' is not a number"},
                                  {"truth.star short.box", "short.box, line 2"},
                                  {"truth.star ragged.star", "ragged.star, line 9: 2 words for 3 columns"},
                                  {"truth.star no.star", "no.star has no columns _rlnCoordinateX"},
                                  {"truth.star picks.txt", "neither a .box nor a .star"},
                                  {"truth.star", "needs two files"}};
  for (const auto& one : cases) {
    const ProgramRun result = score(one[0]);
    EXPECT_EQ(1, result.status) << one[0];
    EXPECT_NE(std::string::npos, result.errors.find(one[1])) << one[0] << ": " << result.errors;
  }
}
