// Whole runs: the images that the program writes on request, and the particles that it cuts.
#include <cmath>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "boxfile.h"
#include "test_support_image.h"
#include "test_support_runs.h"

namespace {

constexpr const char* kImageSuffixes[] = {"_pref.mrc",   "_mask.mrc", "_bgfree.mrc",    "_ccmax.mrc",
                                          "_lsigma.mrc", "_bg.mrc",   "_particles.mrcs"};

class RunImages : public WholeRun {
 protected:
  /// The images of sim_001.mrc that there are, by their suffixes, each followed by a blank.
  std::string images_there() const {
    std::string found;
    for (const char* suffix : kImageSuffixes)
      if (exists(std::string("sim_001") + suffix)) found += std::string(suffix) + " ";
    return found;
  }

  Image image(const std::string& suffix) const { return read_image(path("sim_001" + suffix)); }

  /// The numbers of a list's lines.
  std::vector<std::vector<double>> rows(const std::string& list) const {
    std::istringstream lines(content(list));
    std::vector<std::vector<double>> all;
    for (std::string line; std::getline(lines, line);) {
      std::istringstream words(line);
      all.emplace_back();
      for (double value; words >> value;) all.back().push_back(value);
    }
    return all;
  }

  std::vector<PTCL_BOX> boxes(const std::string& list) const {
    std::vector<PTCL_BOX> all(1000);
    all.resize(static_cast<size_t>(read_all_ptcl_boxes(all.data(), 1000, path(list).c_str())));
    return all;
  }

  /// The stack of sim_001.mrc holds exactly the raw pixels of its picks, all sections of one after another.
  void expect_stack_of_picks() const {
    const Image micrograph = image(".mrc"), stack = image("_particles.mrcs");
    const std::vector<PTCL_BOX> list = boxes("sim_001_quorlin.box");
    const long frames = micrograph.head.nz;
    ASSERT_GT(list.size(), 15U);
    ASSERT_EQ(static_cast<int>(list.size()) * frames, stack.head.nz);
    EXPECT_EQ(2, stack.head.mode);
    ASSERT_EQ(86, stack.head.nx) << "1.33 times the diameter, made even";
    ASSERT_EQ(86, stack.head.ny);
    long wrong = 0;
    for (long i = 0; i < stack.head.nz; i++) {
      const PTCL_BOX& box = list[static_cast<size_t>(i / frames)];
      for (long y = 0; y < 86; y++)
        for (long x = 0; x < 86; x++) wrong += micrograph.at(box.x + x, box.y + y, i % frames) != stack.at(x, y, i);
    }
    EXPECT_EQ(0, wrong);
  }
};

}  // namespace

TEST_F(RunImages, AreWrittenOneByOneOnRequest) {
  simulate("--templates 3 --ice 1 --nx 700 --ny 640");
  const char* const options[][2] = {{"--write_pref_mic", "_pref.mrc "},
                                    {"--write_mic_mask", "_mask.mrc "},
                                    {"--write_bgfree_mic", "_bgfree.mrc "},
                                    {"--write_ccmax_mic", "_ccmax.mrc "},
                                    {"--write_bg_mic", "_bg.mrc "},
                                    {"--write_lsigma_mic", "_lsigma.mrc "},
                                    {"--extract_raw", "_particles.mrcs "},
                                    {"--write_pf_mic", ""},
                                    {"--extract_pf", ""},
                                    {"--write_bg_mic 1 --write_lsigma_mic 1 --detect_ice 0", ""}};
  for (const auto& option : options) {
    pick("--speed 1 --T sim_templates.mrcs --apixT 8 --ang_step 60 " + std::string(option[0]));
    EXPECT_EQ(option[1], images_there()) << option[0];
    if (!option[1][0]) continue;
    const std::string suffix(option[1], strlen(option[1]) - 1);
    const Image written = image(suffix);
    EXPECT_EQ(2, written.head.mode);
    if (suffix != "_particles.mrcs") {
      EXPECT_EQ(350, written.head.nx) << suffix << " is the working square";
      EXPECT_EQ(350, written.head.ny) << suffix;
      EXPECT_EQ(suffix == "_ccmax.mrc" ? 3 : 1, written.head.nz) << suffix;
    }
    remove_file("sim_001" + suffix);
  }
}

TEST_F(RunImages, PrefilteredImageIsTheShrunkMicrographWithoutAFilter) {
  simulate("--nx 700 --ny 640");
  pick("--speed 1 --write_pref_mic");
  const Image raw = image(".mrc"), plain = image("_pref.mrc");
  for (long y = 0; y < 320; y++)
    for (long x = 0; x < 350; x++) {
      const double mean = (static_cast<double>(raw.at(2 * x, 2 * y)) + raw.at(2 * x + 1, 2 * y) +
                           raw.at(2 * x, 2 * y + 1) + raw.at(2 * x + 1, 2 * y + 1)) /
                          4;
      ASSERT_NEAR(mean, plain.at(x, y), 1e-4 * std::abs(mean)) << x << ", " << y;
    }
  pick("--speed 1 --write_pref_mic --do_pre_filter --pre_hp 200");
  const Image filtered = image("_pref.mrc");
  EXPECT_LT(std::abs(filtered.head.amean), 0.01 * (filtered.head.amax - filtered.head.amin)) << "no constant passes";
}

TEST_F(RunImages, CorrelationMapsHoldTheScoresOfTheCandidates) {
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

TEST_F(RunImages, LocalMapsHoldTheStatisticsOfTheRejectedPlaces) {
  simulate("--ice 3 --carbon 0.2 --seed 1");
  pick("--speed 1 --write_bg_mic --write_lsigma_mic");
  const Image average = image("_bg.mrc"), sigma = image("_lsigma.mrc");
  const auto rejected = rows("sim_001_rejected.box");
  ASSERT_GT(rejected.size(), 20U);
  for (const auto& r : rejected) {
    ASSERT_EQ(6U, r.size());
    EXPECT_EQ(36, r[2]) << "a cell of 18 pixels, shrunk by 2";
    const long x = static_cast<long>(r[0]) / 2 + 9, y = static_cast<long>(r[1]) / 2 + 9;
    EXPECT_NEAR(r[4], average.at(x, y), 6e-7);
    EXPECT_NEAR(r[5], sigma.at(x, y), 6e-7);
    EXPECT_TRUE(r[5] > 1.3 || r[4] < -1 || r[4] > 1);
  }
  EXPECT_EQ(rejected.size(), picks("sim_001_rejected.star").size());
}

TEST_F(RunImages, BackgroundFreeImageHasMean0AndDeviation1UnderTheMask) {
  simulate("--ice 3 --carbon 0.2 --seed 1");
  pick("--speed 1 --write_mic_mask --write_bgfree_mic");
  const Image mask = image("_mask.mrc"), flat = image("_bgfree.mrc");
  double n = 0, sum = 0, squares = 0;
  for (size_t i = 0; i < mask.data.size(); i++) {
    ASSERT_TRUE(mask.data[i] == 0 || mask.data[i] == 1);
    n += mask.data[i];
    sum += static_cast<double>(mask.data[i]) * flat.data[i];
    squares += static_cast<double>(mask.data[i]) * flat.data[i] * flat.data[i];
  }
  EXPECT_GT(n, 0.3 * static_cast<double>(mask.data.size()));
  EXPECT_LT(n, 0.9 * static_cast<double>(mask.data.size()));
  EXPECT_NEAR(0, sum / n, 1e-4);
  EXPECT_NEAR(1, std::sqrt(squares / n - sum / n * (sum / n)), 1e-4);
}

TEST_F(RunImages, ParticlesAreTheRawPixelsOfEverySampleType) {
  for (const char* mode : {"0", "1", "2", "6"}) {
    simulate("--mode " + std::string(mode));
    pick("--speed 1 --extract_raw");
    expect_stack_of_picks();
  }
}

TEST_F(RunImages, ParticlesOfAMovieAreCutFromEverySection) {
  simulate("--frames 3 --mode 1");
  pick("--speed 1 --extract_raw");
  expect_stack_of_picks();
}

TEST_F(RunImages, ParticlesHaveTheBoxAskedFor) {
  simulate();
  pick("--speed 1 --extract_raw --boxsize 61");
  const Image stack = image("_particles.mrcs");
  EXPECT_EQ(61, stack.head.nx);
  EXPECT_EQ(61, stack.head.ny);
  const PTCL_BOX first = boxes("sim_001_quorlin.box")[0];
  EXPECT_EQ(image(".mrc").at(first.x + 60, first.y + 60), stack.at(60, 60));
}

TEST_F(RunImages, NoParticlesMakeAnEmptyStack) {
  simulate("--nx 512 --ny 480");
  pick("--extract_raw --cc_cutoff 2");
  EXPECT_EQ("", content("sim_001_quorlin.box"));
  EXPECT_EQ(1024U, content("sim_001_particles.mrcs").size());
  EXPECT_EQ(0, get_mrcf_dim_size(path("sim_001_particles.mrcs").c_str(), "z"));
}

TEST_F(RunImages, AFileOfTheWrongLengthIsPickedButNotCut) {
  simulate();
  std::ofstream(path("sim_001.mrc"), std::ios::app) << "x";
  EXPECT_EQ("", pick("--speed 1").errors);
  const std::string list = content("sim_001_quorlin.box");
  const ProgramRun run = kestrix("--apixM 4 --diameter 260 --cc_cutoff 0.25 --speed 1 --extract_raw sim_001.mrc");
  EXPECT_EQ(1, run.status);
  const std::string end = "File size 3687425  4 xyz 3686400" +
                          warning_line("mrc_check_fsize", "mrcfile", "File size error!") +
                          fatal_line("mrc_read_all", "mrcfile", "File size error!");
  EXPECT_TRUE(holds(without_line_numbers(run.output), end));
  EXPECT_EQ(list, content("sim_001_quorlin.box"));
  EXPECT_FALSE(exists("sim_001_particles.mrcs"));
}

TEST_F(RunImages, AreReadByThePythonReaderAsTheyAreByOurs) {
  const std::string python = system("python3 -c 'import mrcfile' 2>/dev/null") == 0 ? "python3" : "/usr/bin/python3";
  if (system((python + " -c 'import mrcfile' 2>/dev/null").c_str()) != 0) GTEST_SKIP() << "mrcfile is not installed";
  simulate("--templates 2 --ice 2");
  pick(
      "--speed 1 --T sim_templates.mrcs --apixT 8 --ang_step 30 --write_pref_mic --write_mic_mask --write_bgfree_mic "
      "--write_ccmax_mic --write_bg_mic --write_lsigma_mic --extract_raw");
  write_file(path("read.py"),
             "import sys, mrcfile\n"
             "for name in sys.argv[1:]:\n"
             "  with mrcfile.open(name, permissive=True) as f: f.data.astype('<f4').tofile(name + '.raw')\n");
  std::string command = python + " read.py";
  for (const char* suffix : kImageSuffixes) command += " sim_001" + std::string(suffix);
  const ProgramRun run = run_program(path("."), command);
  ASSERT_EQ(0, run.status) << run.errors;
  for (const char* suffix : kImageSuffixes) {
    const Image ours = image(suffix);
    const std::string theirs = content("sim_001" + std::string(suffix) + ".raw");
    ASSERT_EQ(ours.data.size() * sizeof(float), theirs.size()) << suffix;
    EXPECT_EQ(0, memcmp(ours.data.data(), theirs.data(), theirs.size())) << suffix;
  }
}
