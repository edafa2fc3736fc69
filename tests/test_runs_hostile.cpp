// Whole runs that can't work, or on micrographs and templates that are damaged or no images at all: each ends by a line
// that says why, or goes on with a note.
#include <sys/stat.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "test_support_runs.h"

namespace {

const std::string kSettings = "--speed 0 --cc_cutoff 0.25 ";

/// Runs on small micrographs, with two templates.
class RunOnBad : public SmallRun {
 protected:
  void SetUp() override {
    REQUIRE_DEVICE();
    simulate_small("--templates 2 --boxT 21 --apixT 16 --number 2");
  }

  ProgramRun run(const std::string& options) const { return SmallRun::run(kSettings + options); }
  std::string expect_fatal(const std::string& options, const std::string& words) const {
    return SmallRun::expect_fatal(kSettings + options, words);
  }

  void write_image(const std::string& name, const std::vector<float>& pixels, int nx, int ny, int nz = 1) const {
    mrcf_write_xyz_data(path(name).c_str(), pixels.data(), nx, ny, nz);
  }

  /// The run goes on with that note, as the only one or the last, finds nothing and leaves complete lists.
  void expect_no_picks(const std::string& stem, const std::string& note, const std::string& options = "",
                       bool is_only = true) const {
    const ProgramRun result = run(stem + ".mrc " + options);
    EXPECT_EQ(0, result.status) << stem << ": " << result.output;
    EXPECT_TRUE(is_only ? result.errors == note : ends_with(result.errors, note)) << stem << options << result.errors;
    EXPECT_TRUE(exists(stem + "_quorlin.box"));
    EXPECT_EQ("", content(stem + "_quorlin.box") + content(stem + "_nonunique.box")) << stem << options;
    EXPECT_TRUE(ends_with(content(stem + "_quorlin.star"), "_rlnAutopickFigureOfMerit #5\n")) << "the head";
  }
};

constexpr char kTemplates[] = "--T sim_templates.mrcs --apixT 16 ";
constexpr char kNoVariation[] = ": the image has no variation; nothing can be picked.\n";

}  // namespace

// --- Files ---

TEST_F(RunOnBad, FilesThatAreNoMicrographsAreRefusedWithTheirSizes) {
  expect_fatal("gone.mrc ''", "no readable micrograph in the list");
  EXPECT_TRUE(holds(run("gone.mrc").output, "the micrograph gone.mrc does NOT exsit! Automatically ignored!"));
  write_file(path("text.mrc"), "This is not a micrograph but some lines of text.\n");
  expect_fatal("text.mrc", "which no micrograph has: is it an MRC file");
  const int sizes[][2] = {{0, 300}, {-300, -280}, {INT_MAX, 1}, {INT_MIN, INT_MIN}, {65536, 65536}, {65535, 65535}};
  for (const auto& size : sizes) {
    write_mrc(path("bad.mrc"), size[0], size[1], 1, 2, std::string(1000, 7));
    expect_fatal("bad.mrc", "the header of bad.mrc gives a size of " + std::to_string(size[0]) + " x " +
                                std::to_string(size[1]) + " pixels, which no micrograph has: is it an MRC file");
  }
  EXPECT_FALSE(exists("bad_nonunique.box"));
  EXPECT_TRUE(holds(run("sim_001.mrc bad.mrc").output, "has a different size or format from"));
  EXPECT_FALSE(content("sim_001_quorlin.star").empty()) << "of the good one before";
  write_image("sim_001.mrc", std::vector<float>(15 * 14, 1), 15, 14);
  expect_fatal("--speed 4 sim_001.mrc", "of 15 x 14 pixels is too small to be shrunk by 8; give a lower --speed");
}

TEST_F(RunOnBad, WhatIsNoRegularFileIsUnreadable) {
  std::filesystem::create_directory(path("folder.mrc"));
  ASSERT_EQ(0, mkfifo(path("pipe.mrc").c_str(), 0600));
  std::filesystem::create_symlink("/dev/zero", path("device.mrc"));
  for (const std::string kind : {"folder", "pipe", "device"}) {
    const std::string name = kind + ".mrc", note = "Kestrix: " + name + ": is a " + kind + " and is not";
    expect_fatal(name, "no readable micrograph in the list");
    for (const std::string& options : {"sim_001.mrc " + name, "sim_001.mrc --T " + name}) {
      expect_fatal(options, "Cannot open file " + name + ". Permission denied or wrong file name.\n");
      EXPECT_TRUE(holds(run(options).errors, note));
    }
    const ProgramRun behind = run(name + " sim_001.mrc");
    EXPECT_EQ(0, behind.status);
    EXPECT_TRUE(holds(behind.output, "the micrograph " + name + " are NOT readable! Automatically ignored!"));
    EXPECT_TRUE(holds(behind.errors, note));
  }
  for (const char* output : {"sim_001_rejected.box", "sim_001_nonunique.box", "sim_001_quorlin.box~"}) {
    remove_file(output);
    ASSERT_EQ(0, mkfifo(path(output).c_str(), 0600));
    expect_fatal("sim_001.mrc", "Cannot write to file sim_001_");
    remove_file(output);
  }
}

TEST_F(RunOnBad, NamesAreNeverTakenForFormatsOrOptions) {
  for (const std::string stem : {"100%s%n%d", "a name", "no_suffix", "x.MRC", "", "$HOME;`true`"}) {
    const std::string name = stem + (stem == "no_suffix" || stem == "x.MRC" ? "" : ".mrc");
    copy_file("sim_001.mrc", name);
    const std::string before = expect_fatal("'" + name + "' gone_%s%n.mrc", "Cannot open file gone_%s%n.mrc.");
    EXPECT_TRUE(holds(before, "Reading File " + name + " ...\n"));
    EXPECT_TRUE(exists(stem + "_quorlin.box")) << name;
  }
  std::string deep = "./";  // fits as it stands, but not with what is added
  while (deep.size() < 1004) deep += "./";
  expect_fatal(deep + "sim_001.mrc", "has more than 1023 characters! Exit now!\n");
}

// --- Micrographs without an image ---

TEST_F(RunOnBad, SamplesThatCannotBeReadOrAreMissingCountAsZero) {
  for (const auto& [mode, text] : {std::pair{4, "4 (Complex Float)"}, {-1, "-1 (Unknown)"}}) {
    write_mrc(path("odd.mrc"), 300, 280, 1, mode, std::string(300 * 280 * 8, 7));
    expect_no_picks("odd", "Kestrix: odd.mrc: samples of MRC mode " + std::string(text) +
                               " can't be read; the image counts as 0 everywhere.\n");
  }
  std::string whole = content("sim_001.mrc");
  const std::string early = ".mrc: the file ends early; ", missing = " of 84000 samples are missing and count as 0.\n";
  write_file(path("cut.mrc"), whole.substr(0, 1024 + 300 * 140 * 4 + 3));
  EXPECT_EQ("Kestrix: cut" + early + "42000" + missing, run("cut.mrc").errors);
  for (const size_t bytes : {1024, 20}) {  // no sample; not even a whole head
    write_file(path("bare.mrc"), whole.substr(0, bytes));
    expect_no_picks("bare", "Kestrix: bare" + early + "84000" + missing + "Kestrix: bare.mrc" + kNoVariation);
  }
  const int extended = 512;
  memcpy(&whole[92], &extended, sizeof extended);
  write_file(path("extended.mrc"), whole);
  EXPECT_TRUE(holds(run("extended.mrc").errors, "Kestrix: extended.mrc: has an extended header of 512 bytes"));
}

TEST_F(RunOnBad, ImageOfEqualValuesOrNoNumbersOrTooLargeOrTooSmallOnesGivesNoPicks) {
  for (const float value : {0.0F, -1e30F, 0.1F}) {
    write_image("flat.mrc", std::vector<float>(300 * 280, value), 300, 280);
    for (const char* options : {"", "--do_bandpass 0 --detect_ice 0",
                                "--do_pre_filter --write_mic_mask --write_bgfree_mic --write_ccmax_mic --extract_raw"})
      expect_no_picks("flat", std::string("Kestrix: flat.mrc") + kNoVariation, options);
  }
  const std::string not_finite = "Kestrix: nan.mrc: holds values that are not finite, or too large to be averaged",
                    not_normal =
                        "Kestrix: nan.mrc: can't be normalised, its values being too large or too small for "
                        "single precision, or all filtered away";
  for (const float value : {kNaN, kInfinity, -kInfinity, 3.4e38F, 1e-30F}) {
    for (const size_t last : {300UL * 280, 1UL}) {
      Image damaged = image(".mrc");
      for (size_t i = 0; i < last; i++) damaged.data[i] = i % 12 < 4 ? value : -value;
      write_image("nan.mrc", damaged.data, 300, 280);
      for (const std::string options : {"", "--detect_ice 0 --do_bandpass 0 --do_pre_filter", "--speed 2"}) {
        // One tiny value harms nothing. Averaging blocks of the largest values overflows already.
        const bool finite = std::isfinite(value) && (value < 1 || last == 1 || options != "--speed 2");
        if (last == 1 && value == 1e-30F) {
          EXPECT_FALSE(holds(run("nan.mrc " + options).errors, "nothing can be picked"));
          continue;
        }
        expect_no_picks("nan", (finite ? not_normal : not_finite) + "; nothing can be picked.\n",
                        "--write_mic_mask " + options, false);
      }
    }
  }
}

// --- Options and templates ---

TEST_F(RunOnBad, ValuesThatCannotWorkAreRefusedBeforeAnythingIsWritten) {
  std::vector<float> pixels = random_values(3 * 40 * 40, 1);
  pixels[2 * 1600 + 800] = kNaN;
  write_image("nan.mrcs", pixels, 40, 40, 3);
  std::fill_n(pixels.begin() + 1600, 3200, 5.0F);
  write_image("flat.mrcs", pixels, 40, 40, 3);
  write_image("huge.mrcs", std::vector<float>(4800, 3e38F), 40, 40, 3);
  const std::string T = kTemplates, longest(1023, 'x');
  for (const auto& [options, words] : golden_cases("refused_by_kestrix.txt")) {
    EXPECT_TRUE(holds(expect_fatal("sim_001.mrc " + options, words), "All parameters to be used:")) << options;
    EXPECT_EQ("", outputs()) << options;
  }
  // A name that fits as it stands, but not with what is added.
  expect_fatal("sim_001.mrc --exclusive_picking --excluded_suffix " + longest,
               "the output name of sim_001.mrc with the suffix " + longest);
  for (const std::string& options : {"--excluded_suffix " + longest, T + "--T_norm_type 0", T + "--T_norm_type 3",
                                     T + "--T_norm_type -1", T + "--apixT 16.5", T + "--apixT 1.7 --T_norm_type 2"})
    EXPECT_EQ(0, run("sim_001.mrc --ang_step 30 " + options).status) << options;
}

TEST_F(RunOnBad, ExcludedCoordinatesFromListsThatItOverwritesItselfAreRefused) {
  EXPECT_EQ(0, run("sim_001.mrc").status);
  for (const std::string suffix : {"_nonunique.box", "_rejected.box", "_rejected.star"}) {
    const std::string options = "sim_001.mrc --excluded_suffix " + suffix, before = content("sim_001" + suffix);
    expect_fatal("--exclusive_picking " + options,
                 "--excluded_suffix is " + suffix + ": this run itself overwrites these lists");
    EXPECT_EQ(before, content("sim_001" + suffix)) << "still whole";
    EXPECT_EQ(suffix == "_nonunique.box" ? 1 : 0, run("--detect_ice 0 --exclusive_picking " + options).status);
    EXPECT_EQ(0, run(options).status) << "not used";
  }
}

TEST_F(RunOnBad, NothingIsRefusedWithoutSayingWhyWhateverTheValue) {
  const std::pair<std::string, std::vector<std::string>> options[] = {
      {"",
       {"apixM", "diameter", "boxsize", "min_dist", "cc_cutoff", "lsigma_cutoff", "lave_max", "lave_min", "lsigma_D",
        "lave_D", "lp", "hp", "pre_hp", "gid", "excluded_suffix", "global_excluded_box", "center1_ratio"}},
      {kTemplates, {"T", "apixM", "apixT", "diameter", "ang_step", "speed", "T_norm_type", "center1_ratio"}}};
  for (const auto& [templates, names] : options)
    for (const std::string& option : names)
      for (const std::string value : {"''", "0", "-1", "1e30", "nan", "inf", "1e-30"}) {
        const ProgramRun result = run("--speed 1 sim_001.mrc --do_pre_filter 1 --exclusive_picking 1 --extract_raw " +
                                      templates + "--" + option + " " + value);
        const bool complete = holds(result.output, "All 1 files finished successfully:");
        EXPECT_EQ(complete ? 0 : 1, result.status) << option << " " << value << result.output << result.errors;
        EXPECT_NE(complete, holds(result.output, "! Exit now!\n")) << option << " " << value;
      }
}

// --- Nowhere to write ---

TEST_F(RunOnBad, OutputsThatCannotBeWrittenStopTheRunAndAreNamed) {
  const std::string options =
      "--extract_raw --write_pref_mic --write_mic_mask --write_bgfree_mic --write_ccmax_mic --write_bg_mic "
      "--write_lsigma_mic";
  for (const std::string suffix :
       {"_nonunique.box", "_quorlin.box", "_quorlin.star", "_rejected.box", "_rejected.star", "_pref.mrc", "_mask.mrc",
        "_bgfree.mrc", "_ccmax.mrc", "_bg.mrc", "_lsigma.mrc", "_particles.mrcs"}) {
    const std::string name = "sim_002" + suffix;
    remove_file(name);
    std::filesystem::create_directory(path(name));
    expect_fatal("sim_001.mrc sim_002.mrc " + options,
                 "Cannot write to file " + name + ". Permission denied or no space left!\n");
    EXPECT_GT(picks("sim_001_quorlin.star").size(), 0U) << "of the micrograph before";
    remove_file(name);
  }
}
