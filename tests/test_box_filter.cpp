#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <csignal>
#include <limits>
#include <map>
#include <random>
#include <vector>

#include "boxfile.h"
#include "test_support.h"

namespace {

struct Candidate {
  int x, y;  // centre
  float score;
  int template_index = 0;
  float psi = 0.0f;
};

struct Setting {
  int nx, ny;
  float min_dist, cutoff, shrink;
  int box_w, box_h;
};

// A grid of 10 x 10 cells of 21 pixels; picks nearer than the square root of 882 compete.
constexpr Setting kPlain = {210, 210, 30.0f, 0.1f, 1.0f, 2, 2};

constexpr char kStarHead[] =
    "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnAnglePsi #3\n_rlnClassNumber #4\n"
    "_rlnAutopickFigureOfMerit #5\n";

std::string candidate_lines(const std::vector<Candidate>& candidates) {
  std::string lines;
  for (const Candidate& c : candidates) {
    char line[256];
    snprintf(line, sizeof line, "%-8d%-8d%-8d%-8d%-8.6f\t%-8d\t%-8.3f\n", c.x - 3, c.y - 3, 7, 6, c.score,
             c.template_index, c.psi);
    lines += line;
  }
  return lines;
}

class BoxFilter : public FolderTest {
 protected:
  std::string filter(const Setting& s, const std::string& lines, int kind = 2, const std::string& excluded = "NULL") {
    write_file(path("m_nonunique.box"), lines);
    const std::string out = path(kind == 1 ? "m_quorlin.star" : "m_quorlin.box");
    box_filter(s.nx, s.ny, s.min_dist, s.cutoff, s.shrink, s.box_w, s.box_h, {0, 0}, path("m_nonunique.box").c_str(),
               excluded.c_str(), out.c_str(), kind);
    EXPECT_EQ("", read_file(out + "~"));
    return read_file(out);
  }

  // The centres that stay, as "x,y x,y ...".
  std::string kept(const std::vector<Candidate>& candidates, const Setting& s = kPlain,
                   const std::string& excluded = "NULL") {
    const std::string list = filter(s, candidate_lines(candidates), 1, excluded);
    EXPECT_EQ(kStarHead, list.substr(0, sizeof kStarHead - 1));
    std::istringstream lines(list.substr(sizeof kStarHead - 1));
    std::string centres;
    float psi, score;
    for (int x, y, number; lines >> x >> y >> psi >> number >> score;)
      centres += (centres.empty() ? "" : " ") + std::to_string(x) + "," + std::to_string(y);
    return centres;
  }
};

// The same selection told otherwise: cells in a map, removal as a flag, neighbours by clamped rows and
// columns.
struct Cell {
  Candidate best;
  bool alive;
};
using Cells = std::map<std::pair<int, int>, Cell>;

Cells best_per_cell(const Setting& s, const std::vector<Candidate>& candidates, int c, int gx, int gy) {
  Cells cells;
  for (const Candidate& candidate : candidates) {
    if (candidate.x < 0 || candidate.y < 0 || candidate.x / c >= gx || candidate.y / c >= gy) continue;
    const auto key = std::make_pair(candidate.y / c, candidate.x / c);
    const auto found = cells.find(key);
    if (candidate.score <= (found == cells.end() ? 0.0f : found->second.best.score)) continue;
    Candidate placed = candidate;
    placed.y += placed.x / s.nx;  // past the right edge the position wraps
    placed.x %= s.nx;
    cells[key] = {placed, true};
  }
  return cells;
}

void remove_losers(const Setting& s, Cells& cells, int c, int gx, int gy) {
  for (auto& [key, cell] : cells) {
    const auto [row, column] = key;
    bool beaten = row == 0 || column == 0 || row == gy - 1 || column == gx - 1;
    for (int r = row - 1; r <= row + 1; r++) {
      for (int q = column - 1; q <= column + 1; q++) {
        const auto other = cells.find({r, q});
        if (other == cells.end() || !other->second.alive || (r == row && q == column)) continue;
        const int dx = cell.best.x - other->second.best.x;
        const int dy = cell.best.y - other->second.best.y;
        beaten |= dx * dx + dy * dy < 2 * c * c && cell.best.score <= other->second.best.score;
      }
    }
    if (beaten || cell.best.score < s.cutoff) cell.alive = false;
  }
}

std::string reference_list(const Setting& s, const std::vector<Candidate>& candidates,
                           const std::vector<PTCL_BOX>& excluded, int kind) {
  const int c = static_cast<int>(1.41421354f * s.min_dist / 2.0f);
  const int gx = (s.nx + c - 1) / c;
  const int gy = (s.ny + c - 1) / c;
  Cells cells = best_per_cell(s, candidates, c, gx, gy);
  remove_losers(s, cells, c, gx, gy);
  std::string list = kind == 1 ? kStarHead : "";
  for (const auto& [key, cell] : cells) {
    const float x = static_cast<float>(cell.best.x) * s.shrink;
    const float y = static_cast<float>(cell.best.y) * s.shrink;
    const auto half_w = static_cast<float>(s.box_w >> 1);
    const auto half_h = static_cast<float>(s.box_h >> 1);
    bool stays = cell.alive && x > half_w && y > half_h && x < static_cast<float>(s.nx) * s.shrink - half_w &&
                 y < static_cast<float>(s.ny) * s.shrink - half_h;
    for (const PTCL_BOX& box : excluded) {
      const int dx = static_cast<int>(x) - (box.x + box.w / 2);
      const int dy = static_cast<int>(y) - (box.y + box.h / 2);
      stays &= static_cast<float>(dx * dx + dy * dy) >= static_cast<float>(2 * c * c) * s.shrink * s.shrink;
    }
    if (!stays) continue;
    char line[256];
    if (kind == 1) {
      snprintf(line, sizeof line, "%-8d%-8d%-8.6f\t%-8d%-8.6f\n", static_cast<int>(x), static_cast<int>(y),
               cell.best.psi, cell.best.template_index, cell.best.score);
    } else {
      snprintf(line, sizeof line, "%-8d%-8d%-8d%-8d%-8.6f\t%-8d%-8.6f\n", static_cast<int>(x - half_w),
               static_cast<int>(y - half_h), s.box_w, s.box_h, cell.best.score, cell.best.template_index,
               cell.best.psi);
    }
    list += line;
  }
  return list;
}

}  // namespace

TEST_F(BoxFilter, AgreesWithAnotherTellingOfItsRulesOnRandomCandidates) {
  std::mt19937 random(11);
  const auto in = [&](int low, int high) { return low + static_cast<int>(random() % (high - low + 1)); };
  size_t lines = 0;
  for (int round = 0; round < 40; round++) {
    const auto real = [&](int low, int high) { return static_cast<float>(in(low * 8, high * 8)) / 8.0f; };
    const Setting s = {in(150, 400), in(150, 400), real(4, 30), 0.25f, real(1, 5), in(0, 90), in(0, 90)};
    std::vector<Candidate> candidates;
    for (int i = 0; i < 3000; i++) {
      const float score = static_cast<float>(in(-4, 64)) / 64.0f;  // few enough values for ties
      candidates.push_back({in(-20, 450), in(-20, 450), score, in(0, 5), static_cast<float>(in(0, 719)) / 2.0f});
    }
    std::vector<PTCL_BOX> excluded;
    std::string excluded_lines;
    for (int i = 0; i < round % 4 * 5; i++) {
      excluded.push_back({in(-50, 1500), in(-50, 1500), in(0, 99), in(0, 99), 0.0f, 0, 0.0f});
      const PTCL_BOX& b = excluded.back();
      excluded_lines += std::to_string(b.x) + " " + std::to_string(b.y) + " " + std::to_string(b.w) + " " +
                        std::to_string(b.h) + "\n";
    }
    write_file(path("excluded.box"), excluded_lines);
    for (const int kind : {2, 1}) {
      const std::string list = filter(s, candidate_lines(candidates), kind, path("excluded.box"));
      EXPECT_EQ(reference_list(s, candidates, excluded, kind), list) << round;
      lines += static_cast<size_t>(std::count(list.begin(), list.end(), '\n'));
    }
  }
  EXPECT_GT(lines, 2000u);
}

TEST_F(BoxFilter, ThePickThatStaysOfAChainDependsOnTheOrderOfTheCells) {
  const auto chain = [&](float a, float b, float c) { return kept({{50, 100, a}, {75, 100, b}, {100, 100, c}}); };
  EXPECT_EQ("100,100", chain(0.3f, 0.4f, 0.5f));
  EXPECT_EQ("50,100 100,100", chain(0.5f, 0.4f, 0.3f));
  EXPECT_EQ("50,100 100,100", chain(0.5f, 0.3f, 0.4f));
  EXPECT_EQ("75,100", chain(0.3f, 0.4f, 0.3f));
}

TEST_F(BoxFilter, LimitsOfDistanceScoreAndTiesAreAsTheyShouldBe) {
  EXPECT_EQ("50,90 71,111", kept({{50, 90, 0.5f}, {71, 111, 0.4f}}));  // squared distance 882
  EXPECT_EQ("50,90", kept({{50, 90, 0.5f}, {75, 106, 0.4f}}));         // 881
  EXPECT_EQ("75,106", kept({{50, 90, 0.5f}, {75, 106, 0.5f}}));        // of equals the later cell stays
  EXPECT_EQ("45,100 85,100", kept({{45, 100, 0.5f}, {62, 100, 0.4f}, {85, 100, 0.3f}}));
  EXPECT_EQ("50,90", kept({{50, 90, 0.1f}, {120, 90, 0.099999f}}));            // score at the cutoff, and below
  EXPECT_EQ("51,91", kept({{50, 90, 0.4f}, {51, 91, 0.5f}, {52, 92, 0.5f}}));  // one cell: best, then first
  EXPECT_EQ("", kept({{50, 90, 0.0f}, {120, 90, -1.0f}}, {210, 210, 30.0f, -2.0f, 1.0f, 2, 2}));
}

TEST_F(BoxFilter, TheOutermostCellsAndBoxesAcrossTheEdgeGiveNoPicks) {
  EXPECT_EQ("", kept({{15, 100, 0.5f}, {100, 20, 0.5f}, {189, 100, 0.5f}, {100, 209, 0.5f}}));
  EXPECT_EQ("", kept({{30, 30, 0.5f}, {10, 30, 0.6f}}, {42, 200, 30.0f, 0.1f, 1.0f, 2, 2}));  // two columns
  const Setting wide = {210, 210, 30.0f, 0.1f, 2.0f, 101, 120};
  EXPECT_EQ("200,62 52,200", kept({{25, 100, 0.5f}, {26, 100, 0.6f}, {100, 30, 0.5f}, {100, 31, 0.6f}}, wide));
  EXPECT_EQ("", kept({{25, 100, 0.5f}, {185, 100, 0.5f}, {100, 30, 0.5f}, {100, 180, 0.5f}}, wide));
  EXPECT_EQ("", filter(kPlain, ""));
  EXPECT_EQ(kStarHead, filter(kPlain, "", 1));
}

TEST_F(BoxFilter, BothListsHoldTheSamePicksInRawPixels) {
  const Setting s = {210, 210, 30.0f, 0.1f, 2.5f, 64, 32};
  const std::string lines = "47 97 7 6 0.312500 2 45.000\n";  // centre 50, 100
  EXPECT_EQ("93      234     64      32      0.312500\t2       45.000000\n", filter(s, lines, 2));
  EXPECT_EQ(std::string(kStarHead) + "125     250     45.000000\t2       0.312500\n", filter(s, lines, 1));
}

TEST_F(BoxFilter, ExcludedBoxesRemoveWhatLiesNearTheirCentres) {
  const Setting s = {210, 210, 30.0f, 0.1f, 2.0f, 2, 2};
  const std::vector<Candidate> candidates = {{50, 100, 0.5f}, {100, 100, 0.5f}};
  write_file(path("e.box"), "0 100 200 200\n");  // centre 100, 200: that of the first pick
  EXPECT_EQ("200,200", kept(candidates, s, path("e.box")));
  write_file(path("e.star"), "data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n242.9 242.9\n");
  EXPECT_EQ("100,200 200,200", kept(candidates, s, path("e.star")));  // at the least distance: 42 down, 42 across
  write_file(path("e.star"), "data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n242 241\n");
  EXPECT_EQ("100,200", kept(candidates, s, path("e.star")));
  write_file(path("e.box"), "-99999999999 99999999999 -99999999999 99999999999\n");
  EXPECT_EQ("100,200 200,200", kept(candidates, s, path("e.box")));
  std::string warnings = output_of([&] { EXPECT_EQ("100,200 200,200", kept(candidates, s, path("absent.box"))); });
  EXPECT_NE(std::string::npos, warnings.find("does NOT exist! Automatically ignored!"));
}

TEST_F(BoxFilter, BrokenAndAbsurdCandidateLinesAreSkipped) {
  const std::string good = "47 97 6 6 0.3 2 45\n";
  const std::string expected = filter(kPlain, good);
  EXPECT_EQ(1, std::count(expected.begin(), expected.end(), '\n'));
  EXPECT_EQ(expected, filter(kPlain, "\n \t\n47 97 6 6 0.9 2\n47 97 6 6 0.9 2 \n" + good + "x\n"));
  EXPECT_EQ(expected, filter(kPlain, "a b c d 0.9 f g\n" + good));  // a cell at the edge
  const char* numbers[] = {"-2147483648", "2147483647", "99999999999999999999", "-1", "0", "nan", "1e300", "105"};
  std::mt19937 random(3);
  std::string absurd;
  for (int i = 0; i < 4000; i++) {
    for (int column = 0; column < 7; column++) absurd += std::string(numbers[random() % 8]) + " ";
    absurd += "\n";
  }
  for (const Setting& s : {kPlain, Setting{210, 210, 1e30f, -1e30f, 1e30f, INT_MAX, INT_MIN},
                           Setting{1, 210, 1.5f, std::nanf(""), std::numeric_limits<float>::infinity(), -1, 0},
                           Setting{0, -5, 3.0f, 0.1f, 4.0f, 2, 2}, Setting{INT_MAX, INT_MAX, 1e6f, 0.0f, 1e9f, 2, 2}})
    for (const int kind : {1, 2}) filter(s, absurd + good, kind);
}

TEST_F(BoxFilter, TheCellSizeIsTheTruncatedHalfDiagonalAndOneAtLeast) {
  EXPECT_EQ(42, box_filter_cell_size(60.0f));
  EXPECT_EQ(21, box_filter_cell_size(30.0f));
  EXPECT_EQ(1, box_filter_cell_size(1.4143f));
  EXPECT_EQ(0, box_filter_cell_size(1.4142f));
  EXPECT_EQ(0, box_filter_cell_size(std::nanf("")));
  EXPECT_EQ(INT_MAX, box_filter_cell_size(1e30f));
  EXPECT_EQ(INT_MIN, box_filter_cell_size(-1e30f));
  const ChildResult run = run_in_child([&] { filter({210, 210, 1.0f, 0.1f, 1.0f, 2, 2}, ""); });
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("", read_file(path("m_quorlin.box")));
}

TEST_F(BoxFilter, FilesThatCannotBeOpenedEndTheRun) {
  const auto run = [&](const std::string& candidates, const std::string& out) {
    return run_in_child([&] {
      box_filter(9, 9, 9.0f, 0.1f, 1.0f, 2, 2, {0, 0}, candidates.c_str(), "NULL", out.c_str(), 2);
    });
  };
  write_file(path("c.box"), "");
  std::filesystem::create_directory(path("folder.box"));
  ChildResult result = run(path("absent.box"), path("out.box"));
  EXPECT_EQ(1, result.status);
  EXPECT_EQ("Cannot open file " + path("absent.box") + ". Permission denied or wrong file name.\n" +
                fatal_line("box_filter", "boxfile", "open file failed."),
            result.out);
  for (const std::string& out : {path("absent/out.box"), path("folder.box"), path(std::string(300, 'x'))}) {
    result = run(path("c.box"), out);
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("Cannot write to file " + out + ". Permission denied or no space left!\n" +
                  fatal_line("box_filter", "boxfile", "open file failed."),
              result.out);
  }
  EXPECT_EQ(1, run(path("c.box"), std::string(1023, 'x')).status);
}

TEST_F(BoxFilter, AListThatCannotBeWrittenInFullLeavesTheEarlierOneAlone) {
  std::vector<Candidate> candidates;
  for (int i = 1; i < 9; i++)
    for (int j = 1; j < 9; j++) candidates.push_back({i * 21 + 10, j * 21 + 10, 0.2f + 0.01f * static_cast<float>(i)});
  write_file(path("m_quorlin.box"), "earlier\n");
  const ChildResult run = run_in_child([&] {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {1000, 1000};
    write_file(path("m_nonunique.box"), candidate_lines(candidates));
    setrlimit(RLIMIT_FSIZE, &limit);
    box_filter(210, 210, 15.0f, 0.1f, 1.0f, 2, 2, {0, 0}, path("m_nonunique.box").c_str(), "NULL",
               path("m_quorlin.box").c_str(), 2);
  });
  EXPECT_EQ(1, run.status);
  EXPECT_NE(std::string::npos, run.out.find("writing " + path("m_quorlin.box") + " failed, no space left?"));
  EXPECT_EQ("earlier\n", read_file(path("m_quorlin.box")));
}
