// Whole runs: which particles are picked, whatever the micrograph's form and the number of threads.
#include <cmath>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "test_support_image.h"
#include "test_support_runs.h"

namespace {

class RunPicks : public WholeRun {
 protected:
  /// The content of every file that runs on sim_001.mrc have written.
  std::map<std::string, std::string> outputs() const {
    const std::set<std::string> inputs = {"sim_001.mrc", "sim_001_truth.star", "sim_001_areas.star"};
    std::map<std::string, std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(path("."))) {
      const std::string name = entry.path().filename().string();
      if (name.rfind("sim_001", 0) == 0 && inputs.count(name) == 0) files[name] = content(name);
    }
    return files;
  }

  void expect_score(const std::string& list, double recall, double precision) const {
    const Score s = score(list);
    EXPECT_GE(s.recall, recall) << s.matched << " of " << s.particles;
    EXPECT_GE(s.precision, precision) << s.matched << " of " << s.picks << " picks";
  }
};

constexpr char kEveryImage[] =
    "--do_pre_filter --write_ccmax_mic --write_pref_mic --write_bg_mic --write_bgfree_mic --write_lsigma_mic "
    "--write_mic_mask --extract_raw";

}  // namespace

TEST_F(RunPicks, TheParticlesWithTheAutomaticTemplate) {
  simulate();
  pick("--speed 1");
  expect_score("sim_001_quorlin.star", 0.95, 0.9);
  expect_score("sim_001_quorlin.box", 0.95, 0.9);
  EXPECT_LT(std::hypot(score("sim_001_quorlin.star").dx, score("sim_001_quorlin.star").dy), 2) << "raw pixels";
  pick("--cc_cutoff 0.15");
  expect_score("sim_001_quorlin.star", 0.9, 0.95);
}

TEST_F(RunPicks, TheParticlesWithTemplatesOfTheirOwnPixelSize) {
  simulate("--templates 8");
  pick("--T sim_templates.mrcs --apixT 8");
  expect_score("sim_001_quorlin.star", 0.95, 0.9);
  pick("--T sim_templates.mrcs --apixT 8 --speed 1 --cc_cutoff 0.35");
  expect_score("sim_001_quorlin.star", 0.95, 0.8);
  simulate("--templates 8 --apixT 5.5 --prefix fine_");
  pick("--T fine_templates.mrcs --apixT 5.5");
  expect_score("sim_001_quorlin.star", 0.95, 0.9);
  pick("--T fine_templates.mrcs --apixT 11");
  EXPECT_LT(score("sim_001_quorlin.star").recall, 0.8) << "templates of twice the size";
}

TEST_F(RunPicks, BrightParticlesWhenTheTemplateIsNotInverted) {
  simulate("--noise_free --gradient 0 --no_ctf");
  Image image = read_image(path("sim_001.mrc"));
  for (float& pixel : image.data) pixel = -pixel;
  mrcf_write_xyz_data(path("sim_001.mrc").c_str(), image.data.data(), image.head.nx, image.head.ny, 1);
  pick("--speed 1 --detect_ice 0");
  EXPECT_LT(score("sim_001_quorlin.star").recall, 0.1);
  pick("--speed 1 --detect_ice 0 --dont_invertT");
  EXPECT_GE(score("sim_001_quorlin.star").recall, 0.9);
}

TEST_F(RunPicks, TheSameInEverySampleType) {
  simulate();
  pick("--speed 1");
  const std::map<std::string, std::string> of_floats = outputs();
  ASSERT_EQ(5U, of_floats.size());
  for (const char* mode : {"0", "1", "6"}) {
    simulate(std::string("--mode ") + mode);
    pick("--speed 1");
    EXPECT_TRUE(of_floats == outputs()) << "mode " << mode << " holds the same whole counts";
  }
}

TEST_F(RunPicks, TheParticlesOfTallAndWideMicrographs) {
  for (const char* size : {"--nx 1200 --ny 702 ", "--nx 702 --ny 1200 ", "--nx 901 --ny 903 "}) {
    simulate(size);
    pick("--speed 1");
    expect_score("sim_001_quorlin.star", 0.9, 0.8);
    const Image image = read_image(path("sim_001.mrc"));
    for (const Pick& p : picks("sim_001_quorlin.box")) {
      EXPECT_GT(p.x, 43) << "half a box of 86 pixels";
      EXPECT_GT(p.y, 43);
      EXPECT_LT(p.x, image.head.nx - 43);
      EXPECT_LT(p.y, image.head.ny - 43);
    }
  }
}

TEST_F(RunPicks, OnlyTheFirstSectionOfAMovie) {
  simulate();
  pick("");
  const std::string of_one = content("sim_001_quorlin.box");
  simulate("--frames 3");
  pick("");
  EXPECT_EQ(of_one, content("sim_001_quorlin.box"));
}

TEST_F(RunPicks, BoxAndStarListsAreTheSamePicks) {
  simulate();
  pick("--speed 1");
  const std::vector<Pick> box = picks("sim_001_quorlin.box"), star = picks("sim_001_quorlin.star");
  ASSERT_EQ(box.size(), star.size());
  ASSERT_GT(box.size(), 40U);
  for (size_t i = 0; i < box.size(); i++) {
    EXPECT_NEAR(box[i].x, star[i].x, 1);
    EXPECT_NEAR(box[i].y, star[i].y, 1);
    for (size_t k = 0; k < i; k++)
      EXPECT_GT(std::hypot(star[i].x - star[k].x, star[i].y - star[k].y), 18 * 2) << "a cell of 18 pixels, shrunk by 2";
  }
}

TEST_F(RunPicks, EveryOutputIsTheSameByteForByteOnEveryRunAndNumberOfThreads) {
  simulate("--templates 2 --ice 2");
  const std::string options = "--speed 1 --T sim_templates.mrcs --apixT 8 " + std::string(kEveryImage);
  pick(options);
  const std::map<std::string, std::string> first = outputs();
  EXPECT_EQ(12U, first.size());
  for (const char* threads : {"1", "2", "3"}) {
    pick(options, "OMP_NUM_THREADS=" + std::string(threads));
    for (const auto& file : outputs())
      EXPECT_TRUE(first.at(file.first) == file.second) << file.first << ", " << threads;
  }
}

TEST_F(RunPicks, AMicrographDoesNotDependOnTheOnesBeforeIt) {
  simulate("--number 2 --ice 3");
  std::filesystem::create_symlink("sim_001.mrc", path("third.mrc"));
  pick("sim_002.mrc third.mrc --speed 1");
  ASSERT_FALSE(content("sim_001_quorlin.star").empty());
  for (const char* suffix : {"_quorlin.star", "_nonunique.box", "_rejected.box"})
    EXPECT_EQ(content(std::string("sim_001") + suffix), content(std::string("third") + suffix));
}

// --- Ice and carbon ---

TEST_F(RunPicks, NothingOnIceAndCarbonUnlessDetectionIsOff) {
  simulate("--ice 3 --carbon 0.2 --seed 1");
  pick("--speed 1");
  EXPECT_EQ(0, score("sim_001_quorlin.star").in_areas);
  EXPECT_GE(score("sim_001_quorlin.star").precision, 0.8);
  pick("--speed 1 --detect_ice 0");
  EXPECT_GE(score("sim_001_quorlin.star").in_areas, 8);
}

TEST_F(RunPicks, TheMaskCoversIceAndCarbonAndLeavesTheRest) {
  simulate("--ice 3 --carbon 0.2 --seed 1");
  pick("--speed 1 --write_mic_mask");
  const Image mask = read_image(path("sim_001_mask.mrc"));
  const std::vector<Area> areas = read_areas(path("sim_001_areas.star").c_str());
  long covered = 0, area = 0, closed = 0, clean = 0;
  for (long y = 0; y < 450; y++)
    for (long x = 0; x < 512; x++) {
      const bool open = mask.at(x, y) != 0;
      if (contamination_at(areas, static_cast<double>(2 * x), static_cast<double>(2 * y)) != kClean) {
        area++;
        covered += !open;
      } else {
        clean++;
        closed += !open;
      }
    }
  EXPECT_GT(static_cast<double>(covered) / static_cast<double>(area), 0.8);
  EXPECT_LT(static_cast<double>(closed) / static_cast<double>(clean), 0.2);
}

// --- A client of the lists, where it is installed ---

TEST_F(RunPicks, RelionExtractsEveryPickAtItsParticle) {
  if (system("command -v relion_preprocess >/dev/null 2>&1") != 0) GTEST_SKIP() << "relion is not installed";
  simulate();
  pick("--speed 1");
  write_file(path("micrographs.star"),
             "\ndata_optics\n\nloop_\n_rlnOpticsGroupName #1\n_rlnOpticsGroup #2\n_rlnMicrographPixelSize #3\n"
             "_rlnVoltage #4\n_rlnSphericalAberration #5\n_rlnAmplitudeContrast #6\nopticsGroup1 1 4.0 300 2.7 0.1\n\n"
             "data_micrographs\n\nloop_\n_rlnMicrographName #1\n_rlnOpticsGroup #2\nsim_001.mrc 1\n");
  const ProgramRun run =
      run_program(path("."),
                  "timeout 100 relion_preprocess --i micrographs.star --coord_dir ./ --coord_suffix _quorlin.star "
                  "--part_star particles.star --part_dir Particles/ --extract --extract_size 64");
  ASSERT_EQ(0, run.status) << run.output << run.errors;
  const std::vector<Pick> ours = picks("sim_001_quorlin.star");
  EXPECT_TRUE(holds(run.output, "STAR file with " + std::to_string(ours.size()) + " particles")) << run.output;

  // The lines that follow the head of its second table begin with x and y.
  const std::string table = content("particles.star");
  std::istringstream lines(table.substr(table.find("#8", table.find("data_particles")) + 2));
  std::string list = "data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n", line;
  while (std::getline(lines, line)) {
    std::istringstream words(line);
    std::string x, y;
    if (words >> x >> y) list += join(x, " ", y, "\n");
  }
  write_file(path("extracted.star"), list);
  const std::vector<Pick> theirs = picks("extracted.star");
  ASSERT_EQ(ours.size(), theirs.size());
  for (size_t i = 0; i < ours.size(); i++) EXPECT_TRUE(ours[i].x == theirs[i].x && ours[i].y == theirs[i].y);
  expect_score("extracted.star", 0.95, 0.9);

  const Image micrograph = read_image(path("sim_001.mrc")), stack = read_image(path("Particles/sim_001.mrcs"));
  ASSERT_EQ(static_cast<int>(ours.size()), stack.head.nz);
  for (long p = 0; p < stack.head.nz; p++)
    for (long y = 0; y < 64; y++)
      for (long x = 0; x < 64; x++) {
        const long mic_x = static_cast<long>(ours[static_cast<size_t>(p)].x) - 32 + x;
        const long mic_y = static_cast<long>(ours[static_cast<size_t>(p)].y) - 32 + y;
        ASSERT_EQ(micrograph.at(mic_x, mic_y), stack.at(x, y, p)) << "particle " << p << " at " << x << ", " << y;
      }
}
