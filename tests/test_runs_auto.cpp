// Whole runs that need no tuning, on simulated micrographs and on bad ones.
#include <cmath>
#include <functional>

#include "test_support_runs.h"

namespace {

constexpr const char* kLists[] = {"_quorlin.box", "_quorlin.star", "_nonunique.box", "_rejected.box", "_rejected.star"};

/// Micrographs of 1000 x 900 pixels of 4 Å with particles of 200 Å, and nothing but their pixel size and diameter told.
class RunAuto : public WholeRun {
 protected:
  void simulate_auto(const std::string& options = "") const {
    simulate("--nx 1000 --ny 900 --diameter 200 --snr 0.15 --templates 0 " + options);
  }

  ProgramRun auto_pick(const std::string& options, const std::string& environment = "OMP_NUM_THREADS=1") const {
    ProgramRun run = kestrix("--apixM 4 --diameter 200 " + options + " sim_001.mrc", environment);
    EXPECT_EQ(0, run.status) << options << run.output << run.errors;
    return run;
  }

  Score auto_score() const {
    const std::vector<TrueParticle> truth = read_truth(path("sim_001_truth.star").c_str());
    const std::vector<Pick> found = picks("sim_001_quorlin.star");
    std::vector<Area> areas;
    const bool has_areas = exists("sim_001_areas.star");
    if (has_areas) areas = read_areas(path("sim_001_areas.star").c_str());
    return score_matching(truth, found, match_picks(truth, found, 200 / 4.0 / 4), has_areas ? &areas : nullptr);
  }

  std::string lists() const {
    std::string all;
    for (const char* list : kLists) all += content(std::string("sim_001") + list) + "|";
    return all;
  }

  /// Picks after `spoil` has changed the micrograph.
  std::vector<Pick> picks_of_spoilt(const std::function<void(Image&)>& spoil, const std::string& words = "") const {
    Image damaged = image(".mrc");
    spoil(damaged);
    mrcf_write_xyz_data(path("bad.mrc").c_str(), damaged.data.data(), damaged.head.nx, damaged.head.ny, 1);
    const ProgramRun run = kestrix("--apixM 4 --diameter 200 --auto 1 bad.mrc");
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_TRUE(holds(run.errors, words)) << run.errors;
    for (const char* list : {"bad_quorlin.box", "bad_nonunique.box"})
      EXPECT_FALSE(holds(content(list), "nan") || holds(content(list), "inf"));
    return picks("bad_quorlin.star");
  }
};

size_t common(const std::vector<Pick>& a, const std::vector<Pick>& b) {
  size_t n = 0;
  for (const Pick& p : a)
    for (const Pick& q : b) n += std::hypot(p.x - q.x, p.y - q.y) < 12;
  return n;
}

}  // namespace

TEST_F(RunAuto, FindsEveryShapeWithAPixelSizeAndARoughDiameter) {
  for (const char* shape : {"body", "ball", "shell", "barrel", "rod"}) {
    simulate_auto(std::string("--shape ") + shape);
    for (const char* diameter : {"--diameter 200", "--diameter 160", "--diameter 250"}) {
      auto_pick(std::string("--auto 1 ") + diameter);
      // A rod that is seen from its end is much smaller than from its side.
      EXPECT_GE(auto_score().f1, shape == std::string("rod") ? 0.8 : 0.93) << shape << diameter;
    }
    auto_pick("--auto 1");
    EXPECT_LT(std::hypot(auto_score().dx, auto_score().dy), 2) << "raw pixels";
  }
}

TEST_F(RunAuto, FindsNothingWhereThereIsNothingAndSaysSo) {
  for (const char* dirt : {"", "--ice 5 --carbon 0.15 "})
    for (const char* seed : {"--seed 1", "--seed 2", "--seed 3"}) {
      simulate_auto(std::string("--count 0 ") + dirt + seed);
      const ProgramRun run = auto_pick("--auto 1");
      EXPECT_TRUE(picks("sim_001_quorlin.star").empty()) << dirt << seed;
      EXPECT_TRUE(holds(run.errors, "Kestrix: sim_001.mrc: peaks don't stand out against chance; nothing is picked."));
    }
}

TEST_F(RunAuto, KeepsAwayFromIceAndCarbonAndFindsAFewStrongParticles) {
  simulate_auto("--ice 5 --carbon 0.15");
  auto_pick("--auto 1");
  EXPECT_GE(auto_score().f1, 0.85);
  EXPECT_EQ(0, auto_score().in_areas);
  EXPECT_GT(picks("sim_001_rejected.box").size(), 20U);
  simulate_auto("--count 12 --snr 0.5");
  std::filesystem::remove(path("sim_001_areas.star"));
  auto_pick("--auto 1");
  EXPECT_GE(auto_score().f1, 0.95);
}

TEST_F(RunAuto, IsTheSameByteForByteOnAnyNumberOfThreadsAndAfterAnyMicrograph) {
  simulate_auto("--ice 3 --number 2 --templates 3");
  for (const char* options : {"--auto 1 --write_learned --write_ccmax_mic --write_mic_mask ",
                              "--auto 1 --T sim_templates.mrcs --apixT 8 --write_ccmax_mic "}) {
    auto_pick(options);
    const Image maps = image("_ccmax.mrc");
    for (const auto& c : rows("sim_001_nonunique.box"))
      EXPECT_NEAR(c[4],
                  maps.at(static_cast<long>(c[0] + std::trunc(c[2] / 2)),
                          static_cast<long>(c[1] + std::trunc(c[3] / 2)), static_cast<long>(c[5])),
                  1e-4);
    const std::string first = lists() + content("sim_001_ccmax.mrc") + content("sim_001_learned.mrcs");
    auto_pick(std::string(options) + "sim_002.mrc", "OMP_NUM_THREADS=3");
    EXPECT_TRUE(first == lists() + content("sim_001_ccmax.mrc") + content("sim_001_learned.mrcs")) << options;
  }
}

TEST_F(RunAuto, ListsCanBeSelectedAgainAndTheLearnedTemplateIsATemplate) {
  simulate_auto();
  auto_pick("--auto 1 --write_learned");
  const auto found = picks("sim_001_quorlin.box").size();
  EXPECT_GT(picks("sim_001_nonunique.box").size(), found) << "candidates below the cutoff";
  ASSERT_GE(auto_score().f1, 0.95);
  // 12.5 pixels of 4 Å at --speed 0; the working pixel of 200 Å / 24 is 8 Å.
  auto_pick("--T sim_001_learned.mrcs --apixT 8 --speed 1 --auto_cutoff 1");
  EXPECT_GE(auto_score().f1, 0.9);
  const ProgramRun run = auto_pick("--auto 1 --cc_cutoff 1000");
  EXPECT_TRUE(holds(run.errors, "--cc_cutoff is given"));
  EXPECT_TRUE(picks("sim_001_quorlin.box").empty());
}

TEST_F(RunAuto, FindsBrightParticlesWhereTemplatesAreNotInverted) {
  simulate_auto();
  auto_pick("--auto 1");
  const std::string dark = content("sim_001_quorlin.box");
  Image inverted = image(".mrc");
  for (float& pixel : inverted.data) pixel = 1000 - pixel;
  mrcf_write_xyz_data(path("sim_001.mrc").c_str(), inverted.data.data(), inverted.head.nx, inverted.head.ny, 1);
  auto_pick("--auto 1 --dont_invertT 1 --write_learned");
  EXPECT_EQ(content("sim_001_quorlin.box").size(), dark.size());
  EXPECT_GE(auto_score().f1, 0.95);
  auto_pick("--auto 1 --dont_invertT 1 --T sim_001_learned.mrcs --apixT 8");
  EXPECT_GE(auto_score().f1, 0.9);
}

TEST_F(RunAuto, ItsPartsWorkAloneWithTheScanAsItIs) {
  simulate_auto("--ice 4 --templates 6 --snr 0.1");
  auto_pick("--speed 1");
  const double plain = auto_score().f1;
  auto_pick("--speed 1 --auto_cutoff 1");
  EXPECT_GT(auto_score().f1, plain);
  auto_pick("--speed 1 --robust_ice 1 --auto_cutoff 1 --learn_template 1");
  EXPECT_GE(auto_score().f1, 0.85);
  EXPECT_EQ(0, auto_score().in_areas);
  for (const char* options : {"--speed 1 --robust_ice 1 --auto_cutoff 1 ", "--auto 1 "}) {
    auto_pick(std::string(options) + "--T sim_templates.mrcs --apixT 8");
    EXPECT_GE(auto_score().f1, 0.88) << options;
  }
}

TEST_F(RunAuto, ExcludedPlacesStayExcluded) {
  simulate_auto();
  auto_pick("--auto 1");
  const std::vector<Pick> before = picks("sim_001_quorlin.star");
  ASSERT_GT(before.size(), 20U);
  const int x = static_cast<int>(before[7].x), y = static_cast<int>(before[7].y);
  write_file(path("sim_001_bad.box"), std::to_string(x - 33) + " " + std::to_string(y - 33) + " 66 66\n");
  for (const char* options : {"", "--mask_excluded", "--exclusive_picking 0 --global_excluded_box sim_001_bad.box"}) {
    auto_pick("--auto 1 --exclusive_picking --excluded_suffix _bad.box " + std::string(options));
    EXPECT_NEAR(before.size() - 1.0, picks("sim_001_quorlin.star").size(), 1) << options;
    for (const Pick& p : picks("sim_001_quorlin.star")) EXPECT_GT(std::hypot(p.x - x, p.y - y), 20) << options;
  }
}

TEST_F(RunAuto, BadMicrographsGiveNothingAndALineOrThePicksOfTheGoodPart) {
  simulate_auto();
  auto_pick("--auto 1");
  const std::vector<Pick> clean = picks("sim_001_quorlin.star");
  ASSERT_GT(clean.size(), 40U);
  const auto same = [&](const std::vector<Pick>& found) {
    return std::min(clean.size(), found.size()) + 1 >= std::max(clean.size(), found.size()) &&
           common(clean, found) + 1 >= clean.size();
  };
  EXPECT_TRUE(picks_of_spoilt([](Image& i) { std::fill(i.data.begin(), i.data.end(), 7.0f); }, "no variation").empty());
  EXPECT_TRUE(picks_of_spoilt([](Image& i) { std::fill(i.data.begin(), i.data.end(), kNaN); }, "not finite").empty());
  EXPECT_TRUE(same(picks_of_spoilt([](Image& i) { i.data[400 * 1000 + 500] = 1e7f; }))) << "a hot pixel";
  EXPECT_TRUE(same(picks_of_spoilt([](Image& i) { i.data[400 * 1000 + 500] = kNaN; }, "not finite"))) << "a dead one";
  EXPECT_TRUE(same(picks_of_spoilt([](Image& i) {
    for (size_t k = 0; k < i.data.size(); k++) i.data[k] += 60.0f * static_cast<float>(k % 1000) / 1000;
  }))) << "a gradient of 5 deviations";
  const auto half = picks_of_spoilt([](Image& i) { std::fill(i.data.begin(), i.data.begin() + 450 * 1000, 0.0f); });
  EXPECT_LE(half.size(), clean.size() / 2 + 3);
  for (const Pick& p : half) EXPECT_GT(p.y, 430) << "a black half";
  const auto saturated = picks_of_spoilt([](Image& i) {
    for (float& v : i.data) v = std::min(v, 170.0f);
  });
  EXPECT_GE(common(clean, saturated) + 3, saturated.size());
}

TEST_F(RunAuto, MicrographsTooSmallForTheParticleGiveNothing) {
  simulate("--nx 150 --ny 140 --diameter 200 --count 1 --margin 100 --templates 0");
  for (const char* diameter : {"200", "599", "3000", "1e6"}) {
    const ProgramRun run = kestrix(std::string("--apixM 4 --auto 1 --diameter ") + diameter + " sim_001.mrc");
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_LE(picks("sim_001_quorlin.star").size(), 1U) << diameter;
  }
}
