// Whole runs: which particles are picked, whatever the micrograph's form and the number of threads, and what the images
// hold that are written on request.
#include <cmath>
#include <iterator>
#include <map>
#include <sstream>
#include <string>

#include "test_support_runs.h"

namespace {

struct RunPicks : WholeRun {
  /// The content of every file of sim_001.mrc that runs have written, by its suffix.
  std::map<std::string, std::string> contents() const {
    std::map<std::string, std::string> files;
    std::istringstream names(outputs());
    for (std::string name; names >> name;) files[name] = content("sim_001" + name);
    return files;
  }

  void expect_score(double recall, double precision) const {
    for (const char* list : {"sim_001_quorlin.star", "sim_001_quorlin.box"}) {
      const Score s = score(list);
      EXPECT_GE(s.recall, recall) << s.matched << " of " << s.particles;
      EXPECT_GE(s.precision, precision) << s.matched << " of " << s.picks << " picks";
    }
  }

  /// The stack holds exactly the raw pixels of the picks, all sections of one after another.
  void expect_stack_of_picks() const {
    const Image micrograph = image(".mrc"), stack = image("_particles.mrcs");
    const auto boxes = rows("sim_001_quorlin.box");
    const long frames = micrograph.head.nz, side = 86;  // 1.33 times the diameter, made even
    ASSERT_GT(boxes.size(), 15U);
    ASSERT_EQ(boxes.size() * frames * side * side, stack.data.size());
    for (long i = 0; i < stack.head.nz; i++)
      for (long y = 0; y < side; y++)
        for (long x = 0; x < side; x++)
          ASSERT_EQ(micrograph.at(boxes[i / frames][0] + x, boxes[i / frames][1] + y, i % frames), stack.at(x, y, i));
  }
};

}  // namespace

TEST_F(RunPicks, TheParticlesWithTheAutomaticTemplate) {
  simulate();
  const ProgramRun run = pick("--speed 1");
  EXPECT_TRUE(holds(run.output, "Template 001\n.\n")) << "a disc is scanned at one angle";
  expect_score(0.95, 0.9);
  EXPECT_LT(std::hypot(score().dx, score().dy), 2) << "raw pixels";
  pick("--cc_cutoff 0.15");
  expect_score(0.9, 0.95);
  Image bright = image(".mrc");
  for (float& pixel : bright.data) pixel = -pixel;
  mrcf_write_xyz_data(path("sim_001.mrc").c_str(), bright.data.data(), bright.head.nx, bright.head.ny, 1);
  pick("--speed 1 --detect_ice 0");
  EXPECT_LT(score().recall, 0.1);
  pick("--speed 1 --detect_ice 0 --dont_invertT");
  expect_score(0.9, 0.8);
}

TEST_F(RunPicks, TheParticlesWithTemplatesOfTheirOwnPixelSize) {
  simulate("--templates 8 --nx 900 --ny 1024");
  pick("--T sim_templates.mrcs --apixT 8");
  expect_score(0.95, 0.9);
  const std::vector<Pick> found = picks("sim_001_quorlin.star");
  for (const Pick& p : found)
    for (const Pick& q : found)
      EXPECT_TRUE(&p == &q || std::hypot(p.x - q.x, p.y - q.y) > 50)
          << "the diagonal of a cell of 9 pixels, shrunk by 4";
  simulate("--templates 8 --apixT 5.5 --prefix fine_");
  pick("--T fine_templates.mrcs --apixT 5.5");
  expect_score(0.95, 0.9);
  pick("--T fine_templates.mrcs --apixT 11");
  EXPECT_LT(score().recall, 0.8) << "templates of twice the size";
}

TEST_F(RunPicks, TheSameInEverySampleTypeAndTheFirstSectionOfAMovie) {
  std::map<std::string, std::string> of_floats;
  for (const std::string mode : {"2", "0", "1", "6"}) {
    simulate("--mode " + mode);
    pick("--speed 1 --extract_raw");
    if (mode == "2") of_floats = contents();
    EXPECT_TRUE(of_floats == contents()) << "mode " << mode << " holds the same whole counts";
  }
  expect_stack_of_picks();
  simulate("--frames 3 --mode 1");
  pick("--speed 1 --extract_raw");
  EXPECT_EQ(of_floats.at("_quorlin.box"), content("sim_001_quorlin.box"));
  expect_stack_of_picks();
}

TEST_F(RunPicks, EveryOutputIsTheSameByteForByteOnEveryRunAndNumberOfThreadsAndBehindAnotherMicrograph) {
  simulate("--templates 2 --ice 2 --number 2");
  std::filesystem::create_symlink("sim_001.mrc", path("third.mrc"));
  const std::string options =
      "--speed 1 --T sim_templates.mrcs --apixT 8 --do_pre_filter --write_ccmax_mic --write_pref_mic --write_bg_mic "
      "--write_bgfree_mic --write_lsigma_mic --write_mic_mask --extract_raw sim_002.mrc third.mrc";
  pick(options);
  const std::map<std::string, std::string> first = contents();
  EXPECT_EQ(12U, first.size());
  for (const std::string threads : {"1", "2", "3"}) {
    pick(options, "OMP_NUM_THREADS=" + threads);
    for (const auto& [suffix, bytes] : contents())
      EXPECT_TRUE(first.at(suffix) == bytes && bytes == content("third" + suffix)) << suffix << ", " << threads;
  }
}

// --- Ice and carbon ---

TEST_F(RunPicks, NothingOnIceAndCarbonUnlessDetectionIsOff) {
  simulate("--ice 3 --carbon 0.2 --seed 1");
  pick("--speed 1 --write_mic_mask --write_bgfree_mic");
  EXPECT_EQ(0, score().in_areas);
  EXPECT_GE(score().precision, 0.8);

  const Image mask = image("_mask.mrc"), flat = image("_bgfree.mrc");
  const std::vector<Area> areas = read_areas(path("sim_001_areas.star").c_str());
  double covered = 0, area = 0, closed = 0, clean = 0, n = 0, sum = 0, squares = 0;
  for (long y = 0; y < mask.head.ny; y++)
    for (long x = 0; x < mask.head.nx; x++) {
      const double open = mask.at(x, y), value = flat.at(x, y);
      ASSERT_TRUE(open == 0 || open == 1);
      n += open;
      sum += open * value;
      squares += open * value * value;
      if (y >= 450) continue;  // below it the image is mirrored
      const bool dirty = contamination_at(areas, static_cast<double>(2 * x), static_cast<double>(2 * y)) != kClean;
      (dirty ? area : clean)++;
      (dirty ? covered : closed) += 1 - open;
    }
  EXPECT_GT(covered / area, 0.8);
  EXPECT_LT(closed / clean, 0.2);
  EXPECT_NEAR(0, sum / n, 1e-4) << "the mean under the mask";
  EXPECT_NEAR(1, squares / n, 2e-4) << "its variance";

  const auto rejected = rows("sim_001_rejected.box");
  ASSERT_GT(rejected.size(), 20U);
  for (const auto& r : rejected)
    EXPECT_TRUE(r[2] == 36 && (r[5] > 1.3 || r[4] < -1 || r[4] > 1)) << "cells of 18 pixels";
  EXPECT_EQ(rejected.size(), picks("sim_001_rejected.star").size());
  pick("--speed 1 --detect_ice 0");
  EXPECT_GE(score().in_areas, 8);
}

// --- Images ---

TEST_F(RunPicks, PrefilteredImageIsTheShrunkMicrographAndFilteredOnRequest) {
  simulate("--nx 700 --ny 640");
  pick("--speed 1 --write_pref_mic");
  const Image raw = image(".mrc"), plain = image("_pref.mrc");
  for (long i = 0; i < 320; i++) {
    const double sum = static_cast<double>(raw.at(2 * i, 2 * i)) + raw.at(2 * i + 1, 2 * i) + raw.at(2 * i, 2 * i + 1) +
                       raw.at(2 * i + 1, 2 * i + 1);
    ASSERT_NEAR(sum / 4, plain.at(i, i), 1e-4 * std::abs(sum / 4)) << i;
  }
  pick("--speed 1 --write_pref_mic --do_pre_filter --pre_hp 200 --pre_lp 60");
  const Image filtered = image("_pref.mrc");
  EXPECT_LT(std::abs(filtered.head.amean), 0.01 * (filtered.head.amax - filtered.head.amin)) << "no constant passes";
  double difference = 0, square = 0;
  for (size_t i = 1; i < filtered.data.size(); i++) {
    square += std::pow(filtered.data[i], 2);
    difference += std::pow(filtered.data[i] - filtered.data[i - 1], 2);
  }
  EXPECT_GT(difference / square, 1)
      << "noise stays white: what passes ends at Nyquist's period, whatever --pre_lp says";
}

TEST_F(RunPicks, CorrelationMapsHoldTheScoresOfTheCandidates) {
  simulate("--templates 3 --nx 700 --ny 640");
  pick("--T sim_templates.mrcs --apixT 8 --write_ccmax_mic");
  const Image maps = image("_ccmax.mrc");
  const auto candidates = rows("sim_001_nonunique.box");
  ASSERT_GT(candidates.size(), 20U);
  for (const auto& c : candidates) {
    ASSERT_EQ(7U, c.size());
    const double x = c[0] + std::trunc(c[2] / 2), y = c[1] + std::trunc(c[3] / 2);
    EXPECT_NEAR(c[4], maps.at(static_cast<long>(x), static_cast<long>(y), static_cast<long>(c[5])), 6e-7);
    EXPECT_GE(c[4], 0.25);
  }
  EXPECT_LE(maps.head.amax, 1.0F) << "a correlation";
}
