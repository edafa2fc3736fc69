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
#include "pick_records.h"
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

// A grid of 10 x 10 cells of 21 pixels.
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
    EXPECT_FALSE(std::filesystem::exists(out + "~"));
    return read_file(out);
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
  for (int i = 1; i < 9; i++)
    for (int j = 1; j < 9; j++) candidates.push_back({i * 21 + 10, j * 21 + 10, 0.2f + 0.01f * static_cast<float>(i)});
  write_file(path("m_nonunique.box"), candidate_lines(candidates));
  write_file(path("m_quorlin.box"), "earlier\n");
  const auto run = [&](const std::string& in, const std::string& out) {
    return run_in_child([&] {
      signal(SIGXFSZ, SIG_IGN);
      const rlimit limit = {1000, 1000};
      setrlimit(RLIMIT_FSIZE, &limit);
      box_filter(210, 210, 15.0f, 0.1f, 1.0f, 2, 2, {0, 0}, in.c_str(), "NULL", out.c_str(), 2);
    });
  };
  const ChildResult full = run(path("m_nonunique.box"), path("m_quorlin.box"));
  EXPECT_EQ(1, full.status);
  EXPECT_TRUE(holds(full.out, "writing " + path("m_quorlin.box") + " failed, no space left?")) << full.out;
  EXPECT_EQ("earlier\n", read_file(path("m_quorlin.box")));
  const std::string failed = fatal_line("box_filter", "boxfile", "open file failed.");
  EXPECT_EQ("Cannot open file absent.box. Permission denied or wrong file name.\n" + failed,
            run("absent.box", path("out.box")).out);
  std::filesystem::create_directory(path("folder.box"));
  for (const std::string& out : {path("absent/out.box"), path("folder.box"), path(std::string(300, 'x'))}) {
    const ChildResult refused = run(path("m_nonunique.box"), out);
    EXPECT_EQ(1, refused.status);
    EXPECT_EQ("Cannot write to file " + out + ". Permission denied or no space left!\n" + failed, refused.out);
  }
  EXPECT_EQ(1, run(path("m_nonunique.box"), std::string(1023, 'x')).status);
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
