#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <csignal>
#include <limits>
#include <sstream>
#include <vector>

#include "boxfile.h"
#include "particles/pick_records.h"
#include "test_support.h"

namespace {

struct Candidate {
  int x, y;  // centre
  float score;
};

struct Setting {
  int nx, ny;
  float min_dist, cutoff, shrink;
  int box_w, box_h;
};

// A grid of 10 x 10 cells of 21 pixels; picks closer than the root of 882 pixels are neighbours.
constexpr Setting kPlain = {210, 210, 30.0f, 0.1f, 1.0f, 2, 2};

// The candidates as boxes of 7 x 6 pixels, their class numbers counted from 0.
std::string candidate_lines(const std::vector<Candidate>& candidates) {
  std::string lines;
  for (const Candidate& c : candidates)
    lines += std::to_string(c.x - 3) + " " + std::to_string(c.y - 3) + " 7 6 " + std::to_string(c.score) + "\t" +
             std::to_string(&c - candidates.data()) + " 45.5\n";
  return lines;
}

struct BoxFilter : FolderTest {
  std::string filter(const Setting& s, const std::string& lines, int kind = 2, const std::string& excluded = "",
                     int2 origin = {0, 0}) {
    write_file(path("m_nonunique.box"), lines);
    write_file(path("excluded.box"), excluded);
    const std::string out = path(kind == 1 ? "m_quorlin.star" : "m_quorlin.box");
    box_filter(s.nx, s.ny, s.min_dist, s.cutoff, s.shrink, s.box_w, s.box_h, origin, path("m_nonunique.box").c_str(),
               excluded.empty() ? "NULL" : path("excluded.box").c_str(), out.c_str(), kind);
    EXPECT_FALSE(std::filesystem::exists(out + "~"));
    return read_file(out);
  }

  // Which of the candidates are in the list.
  std::string left(const Setting& s, const std::vector<Candidate>& candidates, const std::string& excluded = "") {
    std::istringstream words(filter(s, candidate_lines(candidates), 2, excluded));
    std::string found, index, other;
    while (words >> other >> other >> other >> other >> other >> index >> other) found += index;
    std::sort(found.begin(), found.end());
    return found;
  }
};

}  // namespace

TEST_F(BoxFilter, KeepsTheFirstOfTheBestInACellUnlessANeighbourBeatsIt) {
  EXPECT_EQ("1", left(kPlain, {{50, 50, 0.3f}, {55, 52, 0.5f}, {45, 45, 0.5f}}));
  EXPECT_EQ("1", left(kPlain, {{50, 50, 0.5f}, {70, 50, 0.5f}})) << "the first of a tie is removed";
  EXPECT_EQ("2", left(kPlain, {{50, 50, 0.3f}, {68, 50, 0.4f}, {86, 50, 0.5f}}));
  EXPECT_EQ("02", left(kPlain, {{50, 50, 0.5f}, {68, 50, 0.4f}, {86, 50, 0.3f}})) << "a removed one beats none";
  EXPECT_EQ("01", left(kPlain, {{45, 45, 0.3f}, {66, 66, 0.5f}})) << "just far enough";
  EXPECT_EQ("1", left(kPlain, {{45, 46, 0.3f}, {66, 66, 0.5f}}));
  for (const int from : {-1, 1})
    for (const auto& [dx, dy] : {std::pair{20, 0}, {0, 20}, {20, 20}, {20, -20}})
      EXPECT_EQ("1", left(kPlain, {{115, 115, 0.3f}, {115 + from * dx, 115 + from * dy, 0.5f}})) << dx << dy;
}

TEST_F(BoxFilter, LeavesOutWhatIsWeakOutsideOrInTheOutermostCells) {
  EXPECT_EQ("0", left(kPlain, {{50, 50, 0.1f}, {150, 50, 0.099f}}));
  EXPECT_EQ("2", left({210, 210, 30.0f, -1.0f, 1.0f, 2, 2}, {{50, 50, 0.0f}, {100, 50, -0.5f}, {150, 50, 0.01f}}));
  const std::vector<Candidate> rim = {{10, 50, 0.5f},   {50, 10, 0.5f},   {200, 50, 0.5f}, {50, 200, 0.5f},
                                      {22, 22, 0.5f},   {188, 188, 0.5f}, {-3, 50, 0.9f},  {50, -3, 0.9f},
                                      {300, 100, 0.9f}, {50, 300, 0.9f}};
  EXPECT_EQ("45", left(kPlain, rim));
  EXPECT_EQ("0", left({200, 210, 30.0f, 0.1f, 1.0f, 2, 2}, {{188, 50, 0.3f}, {205, 50, 0.9f}}))
      << "past the right edge positions wrap";
  const std::vector<Candidate> near_edges = {{25, 60, 0.5f}, {26, 120, 0.5f}, {184, 60, 0.5f},  {185, 120, 0.5f},
                                             {60, 30, 0.5f}, {100, 31, 0.5f}, {150, 179, 0.5f}, {105, 180, 0.5f}};
  EXPECT_EQ("1256", left({210, 210, 30.0f, 0.1f, 1.0f, 50, 60}, near_edges));
  EXPECT_EQ("12", left({210, 210, 30.0f, 0.1f, 2.0f, 2, 2},
                       {{50, 50, 0.5f}, {110, 50, 0.5f}, {100, 150, 0.5f}, {150, 100, 0.5f}},
                       "154 95 10 11\n242 342 0 0\n340 239 5 5\n"))
      << "excluded places lie in raw pixels";
}

TEST_F(BoxFilter, WritesRawPixelsInEitherFormTruncated) {
  const Setting s = {210, 210, 30.0f, 0.1f, 2.5f, 7, 6};
  const std::string one = candidate_lines({{51, 53, 0.3125f}});
  EXPECT_EQ("127     134     7       6       0.312500\t0       45.500000\n", filter(s, one, 2, "", {3, 5}));
  const std::string head =
      "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnAnglePsi #3\n_rlnClassNumber #4\n"
      "_rlnAutopickFigureOfMerit #5\n";
  EXPECT_EQ(head + "130     137     45.500000\t0       0.312500\n", filter(s, one, 1, "", {3, 5}));
}

TEST_F(BoxFilter, BrokenLinesAreSkippedAndAbsurdSettingsSurvived) {
  const std::string good = "47 97 6 6 0.3 2 45\n";
  const std::string expected = filter(kPlain, good);
  EXPECT_EQ(1, std::count(expected.begin(), expected.end(), '\n'));
  EXPECT_EQ(expected, filter(kPlain, "\n \t\n47 97 6 6 0.9 2\n47 97 6 6 0.9 2 \n" + good + "x\na b c d 0.9 f g\n"));
  const std::string absurd = "2147483647 2147483647 2147483647 2147483647 nan 99999999999 1e300\n";
  for (const Setting& s : {Setting{210, 210, 1e30f, -1e30f, 1e30f, INT_MAX, INT_MIN},
                           Setting{1, 210, 1.5f, std::nanf(""), std::numeric_limits<float>::infinity(), -1, 0},
                           Setting{0, -5, 3.0f, 0.1f, 4.0f, 2, 2}, Setting{INT_MAX, INT_MAX, 1e6f, 0.0f, 1e9f, 2, 2}})
    for (const int kind : {1, 2}) filter(s, absurd + good, kind);
}

TEST_F(BoxFilter, AListThatCannotBeWrittenEndsTheRunAndLeavesTheEarlierOneAlone) {
  std::vector<Candidate> candidates;
  for (int i = 0; i < 64; i++) candidates.push_back({31 + i % 8 * 21, 31 + i / 8 * 21, 0.2f + 0.001f * i});
  write_file(path("m_nonunique.box"), candidate_lines(candidates));
  const auto run_to = [&](const std::string& out) {
    return run_in_child([&] {
      signal(SIGXFSZ, SIG_IGN);
      const rlimit limit = {1000, 1000};
      setrlimit(RLIMIT_FSIZE, &limit);
      box_filter(210, 210, 15.0f, 0.1f, 1.0f, 2, 2, {0, 0}, path("m_nonunique.box").c_str(), "NULL", out.c_str(), 2);
    });
  };
  write_file(path("m_quorlin.box"), "earlier\n");
  const std::string full = path("m_quorlin.box"), absent = path("absent/out.box");
  expect_refused(run_to(full), "writing " + full + " failed, is there space left");
  EXPECT_EQ("earlier\n", read_file(full));
  expect_refused(run_to(absent), "Cannot write to file " + absent + ". Permission denied or no space left!\n" +
                                     fatal_line("box_filter", "boxfile", "open file failed."));
  EXPECT_EQ(1, run_to(std::string(1023, 'x')).status);
}

// --- The candidates that it reads ---

using PickRecords = FolderTest;

TEST_F(PickRecords, AreWrittenByCellLessThoseWhoseBoxLeavesTheImage) {
  // 300 x 250 pixels, half box 16: x from 17 to 283, y from 17 to 233
  const unsigned index[] = {
      200 * 300 + 100, 0, 17 * 300 + 17, 17 * 300 + 16, 16 * 300 + 17, 233 * 300 + 283, 233 * 300 + 284,
      234 * 300 + 283};
  const float cc[] = {0.3125f, 9.0f, 0.5f, 0.5f, 0.5f, 12.25f, 0.5f, 0.5f};
  const float psi[] = {45.0f, 9.0f, 0.0f, 1.0f, 2.0f, 355.0f, 4.0f, 5.0f};
  FILE* file = fopen(path("a.box").c_str(), "w+");
  output_quorlin_coord_one_temp(file, index, cc, psi, 0, 1, 300, 250, 32);
  output_quorlin_coord_one_temp(file, index, cc, psi, 11, 8, 300, 250, 33);
  output_quorlin_coord_one_temp(file, index, cc, psi, 1, 8, 300, 250, INT_MAX);
  fclose(file);
  EXPECT_EQ(
      "84      184     32      32      0.312500\t0       \t45.000  \n"
      "84      184     33      33      0.312500\t11      \t45.000  \n"
      "1       1       33      33      0.500000\t11      \t0.000   \n"
      "267     217     33      33      12.250000\t11      \t355.000 \n",
      read_file(path("a.box")));
}
