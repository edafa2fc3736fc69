// Whole runs: places that the user excludes, and lists of them that are wrong.
#include <cmath>
#include <string>
#include <vector>

#include "test_support_runs.h"

namespace {

// With --speed 1: raw pixels per shrunk pixel, side of a cell in shrunk pixels (208 Å over the square root of 2), and
// the square of the least distance to an excluded centre.
constexpr int kShrink = 2;
constexpr int kCell = 18;
constexpr int kLimit2 = 2 * kCell * kCell * kShrink * kShrink;

double distance2(const Pick& a, const Pick& b) { return (a.x - b.x) * (a.x - b.x) + (a.y - b.y) * (a.y - b.y); }

bool is_near_any(const Pick& pick, const std::vector<Pick>& places) {
  for (const Pick& place : places)
    if (distance2(pick, place) < kLimit2) return true;
  return false;
}

/// Simulated micrographs and lists of places on them; the places are chosen from the picks of a run without any.
class RunExcludes : public WholeRun {
 protected:
  void SetUp() override {
    REQUIRE_DEVICE();
    simulate();
    pick("--speed 1 --detect_ice 0");
    all_ = picks("sim_001_quorlin.star");
    ASSERT_GT(all_.size(), 40U);
    for (size_t i = 1; i < all_.size(); i += 4) {
      own_.push_back(all_[i]);
      global_.push_back({all_[i + 1 < all_.size() ? i + 1 : 0].x + 20, all_[i + 1 < all_.size() ? i + 1 : 0].y - 12});
    }
  }

  void write_star(const std::string& name, const std::vector<Pick>& places) const {
    std::string text = "data_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n";
    for (const Pick& p : places) text += std::to_string(p.x) + " " + std::to_string(p.y) + "\n";
    write_file(path(name), text);
  }
  /// Boxes of 31 x 21 pixels around the places.
  void write_box(const std::string& name, const std::vector<Pick>& places) const {
    std::string text;
    for (const Pick& p : places)
      text +=
          std::to_string(static_cast<int>(p.x) - 15) + " " + std::to_string(static_cast<int>(p.y) - 10) + " 31 21\n";
    write_file(path(name), text);
  }

  std::vector<Pick> picked() const { return picks("sim_001_quorlin.star"); }

  void expect_none_near(const std::vector<Pick>& places) const {
    const std::vector<Pick> left = picked();
    EXPECT_GT(left.size(), all_.size() / 3);
    for (const Pick& p : left) EXPECT_FALSE(is_near_any(p, places)) << p.x << ", " << p.y;
    EXPECT_EQ(left.size(), picks("sim_001_quorlin.box").size());
  }

  /// The mask closes the cells of the places and no other.
  void expect_closed_cells(const std::vector<Pick>& places) const {
    const Image mask = read_image(path("sim_001_mask.mrc"));
    std::vector<int> closed(static_cast<size_t>(mask.head.nx) * mask.head.ny, 0);
    const auto cell_of = [&mask](long x, long y) { return y / kCell * mask.head.nx + x / kCell; };
    for (const Pick& p : places)
      closed[static_cast<size_t>(cell_of(static_cast<long>(p.x) / kShrink, static_cast<long>(p.y) / kShrink))] = 1;
    for (long y = 0; y < mask.head.ny; y++)
      for (long x = 0; x < mask.head.nx; x++)
        ASSERT_EQ(closed[static_cast<size_t>(cell_of(x, y))] ? 0.0F : 1.0F, mask.at(x, y)) << x << ", " << y;
  }

  std::vector<Pick> all_;     // without exclusions
  std::vector<Pick> own_;     // some of these
  std::vector<Pick> global_;  // beside some others
};

}  // namespace

TEST_F(RunExcludes, PicksNearTheMicrographsOwnListAndNoOthers) {
  std::vector<Pick> expected;
  for (const Pick& p : all_)
    if (!is_near_any(p, own_)) expected.push_back(p);
  ASSERT_LE(expected.size() + own_.size(), all_.size());
  const std::string suffixes[] = {"_bad.star", "_bad.box"};
  write_star("sim_001_bad.star", own_);
  write_box("sim_001_bad.box", own_);
  for (const std::string& suffix : suffixes) {
    const ProgramRun run =
        pick("--speed 1 --detect_ice 0 --write_mic_mask --exclusive_picking --excluded_suffix " + suffix);
    EXPECT_TRUE(holds(run.output, "particles in file sim_001" + suffix + " excluded from auto-picking \n"));
    expect_none_near(own_);
    EXPECT_EQ(expected.size(), picked().size());
    expect_closed_cells({});
  }
  pick("--speed 1 --detect_ice 0 --excluded_suffix _bad.star");
  EXPECT_EQ(all_.size(), picked().size()) << "a suffix alone excludes nothing";
}

TEST_F(RunExcludes, PicksNearThoseOfTheRunBeforeFromBothOfItsLists) {
  for (const std::string suffix : {"_quorlin.box", "_quorlin.star"}) {
    simulate();
    pick("--speed 1 --detect_ice 0");
    pick("--speed 1 --detect_ice 0 --cc_cutoff 0.05 --exclusive_picking --excluded_suffix " + suffix);
    const std::vector<Pick> others = picked();
    EXPECT_GT(others.size(), 5U) << suffix;
    EXPECT_EQ(others.size(), picks("sim_001_quorlin.box").size()) << suffix;
    for (const Pick& p : others) EXPECT_FALSE(is_near_any(p, all_)) << suffix << ": " << p.x << ", " << p.y;
  }
}

TEST_F(RunExcludes, MaskedPlacesFromTheStatisticsToo) {
  write_star("sim_001_bad.star", own_);
  write_box("sim_001_bad.box", own_);
  for (const char* suffix : {"_bad.star", "_bad.box"}) {
    pick("--speed 1 --detect_ice 0 --write_mic_mask --mask_excluded --exclusive_picking --excluded_suffix " +
         std::string(suffix));
    expect_none_near(own_);
    expect_closed_cells(own_);
  }
}

TEST_F(RunExcludes, GlobalPlacesFromEveryMicrograph) {
  std::filesystem::create_symlink("sim_001.mrc", path("copy.mrc"));
  write_box("all.box", global_);
  write_star("all.star", global_);
  for (const char* list : {"all.box", "all.star"}) {
    const ProgramRun run =
        pick("copy.mrc --speed 1 --detect_ice 0 --write_mic_mask --global_excluded_box " + std::string(list));
    const std::string line = "particles in file " + std::string(list) + " excluded from auto-picking \n";
    EXPECT_NE(run.output.find(line), run.output.rfind(line)) << "once for each micrograph";
    expect_none_near(global_);
    expect_closed_cells(global_);
    EXPECT_EQ(content("sim_001_quorlin.box"), content("copy_quorlin.box"));
  }
}

TEST_F(RunExcludes, OwnAndGlobalPlacesTogetherAndWithIce) {
  write_star("sim_001_bad.star", own_);
  write_box("all.box", global_);
  const std::string both =
      "--speed 1 --write_mic_mask --mask_excluded --exclusive_picking --excluded_suffix _bad.star "
      "--global_excluded_box all.box ";
  pick(both + "--detect_ice 0");
  expect_none_near(own_);
  expect_none_near(global_);
  std::vector<Pick> places = own_;
  places.insert(places.end(), global_.begin(), global_.end());
  expect_closed_cells(places);

  simulate("--ice 3 --carbon 0.2 --seed 1");
  pick(both);
  const std::vector<Pick> left = picked();
  EXPECT_GT(left.size(), 8U);
  for (const Pick& p : left) EXPECT_FALSE(is_near_any(p, places));
  EXPECT_EQ(0, score("sim_001_quorlin.star").in_areas);
  const Image mask = read_image(path("sim_001_mask.mrc"));
  for (const Pick& p : places)
    EXPECT_EQ(0, mask.at(static_cast<long>(p.x) / kShrink, static_cast<long>(p.y) / kShrink));
}

TEST_F(RunExcludes, NoPlaceOutsideTheImageButSaysSo) {
  const std::string list =
      "-25 10 20 20\n200 200 20 20\n100000 3 20 20\n10 2147483647 20 20\n-2147483648 5 20 20\n1023 899 0 0\n1024 899 0 "
      "0\n";
  write_file(path("all.box"), list);
  write_file(path("sim_001_bad.box"), list);
  const std::string note = ": 5 of 7 excluded coordinates lie outside the image; skipped.\n";
  EXPECT_EQ("Kestrix: all.box" + note, pick("--speed 1 --global_excluded_box all.box").errors);
  EXPECT_EQ("Kestrix: sim_001_bad.box" + note,
            pick("--speed 1 --exclusive_picking --mask_excluded --excluded_suffix _bad.box").errors);
  EXPECT_GT(picked().size(), 30U);
}

TEST_F(RunExcludes, NothingByListsThatAreMissingOrEmptyOrOfAnotherKind) {
  const std::string reference = content("sim_001_quorlin.star");
  write_file(path("sim_001_empty.box"), "\n \n\n");
  write_file(path("sim_001_words.txt"), "1 2 3 4\n");
  write_file(path("sim_001_headless.star"), "100 100\n");
  std::filesystem::create_directory(path("sim_001_folder.box"));
  const char* const cases[][2] = {{"_empty.box", ""},
                                  {"_gone.box", "the file sim_001_gone.box does NOT exist! Automatically ignored!"},
                                  {"_words.txt", "only EMAN .box and Relion .star file are supported now."},
                                  {"_headless.star", ""},
                                  {"_folder.box", ""}};
  for (const auto& one : cases) {
    const ProgramRun run =
        pick("--speed 1 --detect_ice 0 --exclusive_picking --mask_excluded --excluded_suffix " + std::string(one[0]));
    EXPECT_TRUE(holds(run.output, one[1])) << one[0];
    EXPECT_EQ(reference, content("sim_001_quorlin.star")) << one[0];
    pick("--speed 1 --detect_ice 0 --global_excluded_box sim_001" + std::string(one[0]));
    EXPECT_EQ(reference, content("sim_001_quorlin.star")) << one[0];
  }
  write_file(path("sim_001_short.box"), "1 2 3 4\n12 34\n");
  for (const char* options :
       {"--exclusive_picking --excluded_suffix _short.box", "--global_excluded_box sim_001_short.box"}) {
    const ProgramRun run = kestrix("--apixM 4 --diameter 260 sim_001.mrc " + std::string(options));
    EXPECT_EQ(1, run.status);
    EXPECT_TRUE(holds(without_line_numbers(run.output),
                      fatal_line("read_all_ptcl_boxes", "boxfile", "unrecognized box format!")));
    EXPECT_TRUE(holds(run.errors, "sim_001_short.box: line 2 has 2 columns"));
  }
}

TEST_F(RunExcludes, EverythingWhenEveryCellIsListed) {
  std::vector<Pick> everywhere;
  for (int y = 9; y < 1024; y += kCell * kShrink)
    for (int x = 9; x < 1024; x += kCell * kShrink) everywhere.push_back({x * 1.0, y * 1.0});
  write_box("all.box", everywhere);
  const ProgramRun run = pick("--speed 1 --write_mic_mask --write_bgfree_mic --global_excluded_box all.box");
  EXPECT_EQ("Kestrix: sim_001.mrc: every cell is excluded; nothing can be picked.\n", run.errors);
  EXPECT_TRUE(picked().empty());
  expect_closed_cells(everywhere);
}
