// Whole runs: places that the user excludes, and lists of them that are wrong.
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <set>
#include <string>
#include <vector>

#include "test_support_runs.h"

namespace {

// With --speed 1: raw pixels per shrunk pixel, side of a cell in shrunk pixels (208 Å over the square root of 2), and
// the square of the least distance to an excluded centre.
constexpr int kShrink = 2;
constexpr int kCell = 18;
constexpr int kLimit2 = 2 * kCell * kCell * kShrink * kShrink;

const std::string kOptions = "--speed 1 --detect_ice 0 --write_mic_mask ";

bool is_near_any(const Pick& pick, const std::vector<Pick>& places) {
  return std::any_of(places.begin(), places.end(),
                     [&](const Pick& p) { return std::pow(pick.x - p.x, 2) + std::pow(pick.y - p.y, 2) < kLimit2; });
}

/// Simulated micrographs and lists of places on them; the places are chosen from the picks of a run without any.
class RunExcludes : public WholeRun {
 protected:
  void SetUp() override {
    REQUIRE_DEVICE();
    simulate();
    pick(kOptions);
    all_ = picked();
    ASSERT_GT(all_.size(), 40U);
    for (size_t i = 1; i + 1 < all_.size(); i += 4) {
      own_.push_back(all_[i]);
      global_.push_back({all_[i + 1].x + 20, all_[i + 1].y - 12});
    }
    write_lists("sim_001_bad", own_);
    write_lists("all", global_);
  }

  /// Writes a STAR file of the places, and boxes of 31 x 21 pixels around them.
  void write_lists(const std::string& name, const std::vector<Pick>& places) const {
    std::string star = "data_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n", box;
    for (const Pick& p : places) {
      star += std::to_string(p.x) + " " + std::to_string(p.y) + "\n";
      box += std::to_string(static_cast<int>(p.x) - 15) + " " + std::to_string(static_cast<int>(p.y) - 10) + " 31 21\n";
    }
    write_file(path(name + ".star"), star);
    write_file(path(name + ".box"), box);
  }

  std::vector<Pick> picked() const { return picks("sim_001_quorlin.star"); }

  /// None of the picks that are left is near a place; returns how many those are.
  size_t left_beside(const std::vector<Pick>& places) const {
    for (const Pick& p : picked()) EXPECT_FALSE(is_near_any(p, places)) << p.x << ", " << p.y;
    EXPECT_EQ(picked().size(), picks("sim_001_quorlin.box").size());
    return picked().size();
  }

  /// The mask closes the cells of the places and no other.
  void expect_closed_cells(const std::vector<Pick>& places) const {
    const Image mask = image("_mask.mrc");
    std::set<std::pair<long, long>> closed;
    for (const Pick& p : places)
      closed.emplace(static_cast<long>(p.x) / kShrink / kCell, static_cast<long>(p.y) / kShrink / kCell);
    for (long y = 0; y < mask.head.ny; y++)
      for (long x = 0; x < mask.head.nx; x++)
        ASSERT_EQ(closed.count({x / kCell, y / kCell}) ? 0.0F : 1.0F, mask.at(x, y)) << x << ", " << y;
  }

  std::vector<Pick> all_;     // without exclusions
  std::vector<Pick> own_;     // some of these
  std::vector<Pick> global_;  // beside some others
};

}  // namespace

TEST_F(RunExcludes, PicksNearTheMicrographsOwnListAndNoOthers) {
  size_t expected = 0;
  for (const Pick& p : all_) expected += !is_near_any(p, own_);
  for (const std::string suffix : {"_bad.star", "_bad.box"}) {
    const std::string options = kOptions + "--exclusive_picking --excluded_suffix " + suffix;
    EXPECT_TRUE(holds(pick(options).output, "particles in file sim_001" + suffix + " excluded from auto-picking \n"));
    EXPECT_EQ(expected, left_beside(own_));
    expect_closed_cells({});
    pick(options + " --mask_excluded");  // out of the statistics too
    EXPECT_GT(left_beside(own_), all_.size() / 3);
    expect_closed_cells(own_);
  }
  std::filesystem::create_symlink("sim_001.mrc", path("next.mrc"));
  pick(kOptions + "next.mrc --mask_excluded --exclusive_picking --excluded_suffix _bad.star");
  EXPECT_EQ(all_.size(), picks("next_quorlin.star").size()) << "a micrograph without a list, behind one with";
  pick(kOptions + "--excluded_suffix _bad.star");
  EXPECT_EQ(all_.size(), picked().size()) << "a suffix alone excludes nothing";
  for (const std::string suffix : {"_quorlin.box", "_quorlin.star"}) {
    pick(kOptions);
    pick(kOptions + "--cc_cutoff 0.05 --exclusive_picking --excluded_suffix " + suffix);
    EXPECT_GT(left_beside(all_), 5U) << "of the run before, " << suffix;
  }
}

TEST_F(RunExcludes, GlobalPlacesFromEveryMicrographAndTogetherWithItsOwn) {
  std::filesystem::create_symlink("sim_001.mrc", path("copy.mrc"));
  for (const std::string list : {"all.box", "all.star"}) {
    const ProgramRun run = pick(kOptions + "copy.mrc --global_excluded_box " + list);
    const std::string line = "particles in file " + list + " excluded from auto-picking \n";
    EXPECT_NE(run.output.find(line), run.output.rfind(line)) << "once for each micrograph";
    EXPECT_GT(left_beside(global_), all_.size() / 3);
    expect_closed_cells(global_);
    EXPECT_EQ(content("sim_001_quorlin.box"), content("copy_quorlin.box"));
  }
  pick(std::string(kOptions) +
       "--mask_excluded --exclusive_picking --excluded_suffix _bad.star --global_excluded_box all.box");
  std::vector<Pick> places = own_;
  places.insert(places.end(), global_.begin(), global_.end());
  EXPECT_GT(left_beside(places), 8U);
  expect_closed_cells(places);

  std::vector<Pick> everywhere;
  for (int i = 0; i < 29 * 29; i++)
    everywhere.push_back({9.0 + i % 29 * kCell * kShrink, 9.0 + i / 29 * kCell * kShrink});
  write_lists("all", everywhere);
  EXPECT_EQ("Kestrix: sim_001.mrc: every cell is excluded; nothing can be picked.\n",
            pick(kOptions + "--write_bgfree_mic --global_excluded_box all.box").errors);
  EXPECT_TRUE(picked().empty());
  expect_closed_cells(everywhere);
}

TEST_F(RunExcludes, NoPlaceOutsideTheImageButSaysSo) {
  for (const std::string name : {"all.box", "sim_001_bad.box"})
    write_file(path(name),
               "-25 10 20 20\n10 -25 20 20\n200 200 20 20\n100000 3 20 20\n10 2147483647 20 20\n"
               "-2147483648 5 20 20\n1023 899 0 0\n1024 899 0 0\n");
  const std::string outside =
      " excluded coordinates lie outside the image; is the list in raw pixels of this micrograph?\n";
  EXPECT_EQ("Kestrix: all.box: 6 of 8" + outside, pick("--speed 1 --global_excluded_box all.box").errors);
  for (const std::string options : {"", "--mask_excluded "})
    EXPECT_EQ("Kestrix: sim_001_bad.box: 6 of 8" + outside,
              pick("--speed 1 --exclusive_picking " + options + "--excluded_suffix _bad.box").errors);
  EXPECT_GT(picked().size(), 30U);
}

TEST_F(RunExcludes, NothingByListsThatAreMissingOrEmptyOrOfAnotherKind) {
  const std::string reference = content("sim_001_quorlin.star");
  write_file(path("sim_001_empty.box"), "\n \n\n");
  write_file(path("sim_001_words.txt"), "1 2 3 4\n");
  write_file(path("sim_001_headless.star"), "100 100\n");
  std::filesystem::create_directory(path("sim_001_folder.box"));
  ASSERT_EQ(0, mkfifo(path("sim_001_pipe.box").c_str(), 0600));
  std::filesystem::create_symlink("/dev/zero", path("sim_001_endless.star"));
  const char* const cases[][2] = {{"_empty.box", ""},
                                  {"_gone.box", "the file sim_001_gone.box does NOT exist! Automatically ignored!"},
                                  {"_words.txt", "only EMAN .box and Relion .star file are supported now."},
                                  {"_headless.star", ""},
                                  {"_folder.box", "Kestrix: sim_001_folder.box: is a folder and is not read"},
                                  {"_pipe.box", "Kestrix: sim_001_pipe.box: is a pipe and is not read"},
                                  {"_endless.star", "Kestrix: sim_001_endless.star: is a device and is not read"}};
  for (const auto& one : cases)
    for (const std::string options :
         {"--exclusive_picking --mask_excluded --excluded_suffix ", "--global_excluded_box sim_001"}) {
      const ProgramRun run = pick(kOptions + options + one[0]);
      EXPECT_TRUE(holds(run.output + run.errors, one[1])) << options << one[0];
      EXPECT_EQ(reference, content("sim_001_quorlin.star")) << options << one[0];
    }
  for (const std::string null : {"NULL", "none", "''"})
    EXPECT_FALSE(holds(pick("--speed 1 --global_excluded_box " + null).output, "does NOT exist")) << null;
}
