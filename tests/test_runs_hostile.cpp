// Whole runs on micrographs and templates that are damaged or no images at all, and where nothing can be written.
#include <climits>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "test_support_runs.h"

namespace {

constexpr char kSettings[] = "--speed 0 --cc_cutoff 0.25 ";

class RunOnBad : public SmallRun {
 protected:
  ProgramRun run(const std::string& options) const { return SmallRun::run(kSettings + options); }

  void write_image(const std::string& name, const std::vector<float>& pixels, int nx, int ny, int nz = 1) const {
    ASSERT_EQ(pixels.size(), static_cast<size_t>(nx) * ny * nz);
    mrcf_write_xyz_data(path(name).c_str(), pixels.data(), nx, ny, nz);
  }

  void expect_fatal(const std::string& options, const std::string& words) const {
    SmallRun::expect_fatal(kSettings + options, words);
  }

  /// The run goes on with that note, finds nothing and leaves complete lists.
  void expect_no_picks(const std::string& name, const std::string& note, const std::string& options = "") const {
    const ProgramRun result = run(name + " " + options);
    EXPECT_EQ(0, result.status) << name << ": " << result.output;
    EXPECT_EQ(note, result.errors) << name;
    const std::string stem = name.substr(0, name.rfind('.'));
    EXPECT_TRUE(exists(stem + "_quorlin.box"));
    EXPECT_EQ("", content(stem + "_quorlin.box")) << name;
    EXPECT_EQ(0U, picks(stem + "_quorlin.star").size());
    EXPECT_FALSE(content(stem + "_quorlin.star").empty()) << "the head";
  }
};

}  // namespace

TEST_F(RunOnBad, FilesThatAreNoMicrographsAreRefusedWithTheirSizes) {
  expect_fatal("gone.mrc ''", "no readable micrograph in the list");
  EXPECT_TRUE(holds(run("gone.mrc").output, "the micrograph gone.mrc does NOT exsit! Automatically ignored!"));
  write_file(path("empty.mrc"), "");
  write_file(path("text.mrc"), "This is not a micrograph but some lines of text.\n");
  expect_fatal("empty.mrc", "the header of empty.mrc gives a size of 0 x 0 pixels");
  expect_fatal("text.mrc", "which no micrograph has: is it an MRC file");
  const int sizes[][2] = {{0, 300}, {-300, -280}, {INT_MAX, 1}, {INT_MIN, INT_MIN}, {65536, 65536}, {65535, 65535}};
  for (const auto& size : sizes) {
    write_mrc(path("bad.mrc"), size[0], size[1], 1, 2, std::string(1000, 7));
    expect_fatal("bad.mrc", "the header of bad.mrc gives a size of " + std::to_string(size[0]) + " x " +
                                std::to_string(size[1]) + " pixels, which no micrograph has: is it an MRC file");
  }
  EXPECT_FALSE(exists("bad_nonunique.box"));
  simulate_small();
  for (const std::string behind : {"bad.mrc", "empty.mrc"})
    EXPECT_TRUE(holds(run("sim_001.mrc " + behind).output, "has a different size or format from")) << behind;
  EXPECT_FALSE(content("sim_001_quorlin.star").empty()) << "of the good one before";
}

TEST_F(RunOnBad, WhatIsNoRegularFileIsUnreadable) {
  simulate_small();
  std::filesystem::create_directory(path("folder.mrc"));
  ASSERT_EQ(0, mkfifo(path("pipe.mrc").c_str(), 0600));
  std::filesystem::create_symlink("/dev/zero", path("device.mrc"));
  for (const std::string kind : {"folder", "pipe", "device"}) {
    const std::string name = kind + ".mrc";
    const std::string note = std::string("Kestrix: ").append(name).append(": is a ").append(kind).append(" and is not");
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
  simulate_small();
  for (const std::string name : {"100%s%n%d.mrc", "a name.mrc", "no_suffix", "x.MRC", ".mrc", "$HOME;`true`.mrc"}) {
    copy_file("sim_001.mrc", name);
    const ProgramRun result = run("'" + name + "' gone_%s%n.mrc");
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(holds(result.output, "Reading File " + name + " ...\n"));
    EXPECT_TRUE(holds(result.output, "Cannot open file gone_%s%n.mrc."));
    const bool has_suffix = name.size() >= 4 && name.compare(name.size() - 4, 4, ".mrc") == 0;
    EXPECT_TRUE(exists((has_suffix ? name.substr(0, name.size() - 4) : name) + "_quorlin.box")) << name;
  }
}

// --- Micrographs without an image ---

TEST_F(RunOnBad, SampleTypesThatCannotBeReadCountAsZero) {
  for (const auto& [mode, text] : {std::pair{4, "4 (Complex Float)"}, {-1, "-1 (Unknown)"}}) {
    write_mrc(path("odd.mrc"), 300, 280, 1, mode, std::string(300 * 280 * 8, 7));
    expect_no_picks("odd.mrc", "Kestrix: odd.mrc: samples of MRC mode " + std::string(text) +
                                   " can't be read; the image counts as 0 everywhere.\n");
  }
}

TEST_F(RunOnBad, MissingSamplesCountAsZero) {
  simulate_small();
  const std::string whole = content("sim_001.mrc");
  write_file(path("cut.mrc"), whole.substr(0, 1024 + 300 * 140 * 4 + 3));
  const ProgramRun result = run("cut.mrc");
  EXPECT_EQ(0, result.status);
  EXPECT_EQ("Kestrix: cut.mrc: the file ends early; 42000 of 84000 samples are missing and count as 0.\n",
            result.errors);
  for (const size_t bytes : {1024, 20}) {  // no sample; not even a whole head
    write_file(path("bare.mrc"), whole.substr(0, bytes));
    expect_no_picks("bare.mrc",
                    "Kestrix: bare.mrc: the file ends early; 84000 of 84000 samples are missing and count as 0.\n"
                    "Kestrix: bare.mrc: the image has no variation; nothing can be picked.\n");
  }
}

TEST_F(RunOnBad, FlatImageGivesNoPicks) {
  for (const float value : {0.0F, -1e30F, 0.1F}) {
    write_image("flat.mrc", std::vector<float>(300 * 280, value), 300, 280);
    for (const char* options : {"", "--do_bandpass 0 --detect_ice 0",
                                "--do_pre_filter --write_mic_mask --write_bgfree_mic --write_ccmax_mic --extract_raw"})
      expect_no_picks("flat.mrc", "Kestrix: flat.mrc: the image has no variation; nothing can be picked.\n", options);
  }
}

TEST_F(RunOnBad, ImageOfValuesThatAreNoNumbersOrTooLargeOrTooSmallGivesNoPicks) {
  const std::string nothing = "; nothing can be picked.\n",
                    not_finite = "Kestrix: nan.mrc: holds values that are not finite, or too large to be averaged",
                    not_normal =
                        "Kestrix: nan.mrc: can't be normalised, its values being too large or too small for "
                        "single precision, or all filtered away";
  simulate_small();
  for (const float value : {kNaN, kInfinity, -kInfinity, 3.4e38F, 1e-30F}) {
    for (const size_t last : {300UL * 280, 1UL}) {
      Image damaged = image(".mrc");
      for (size_t i = 0; i < last; i++) damaged.data[i] = i % 12 < 4 ? value : -value;
      write_image("nan.mrc", damaged.data, 300, 280);
      const bool usable = last == 1 && value < 1 && value > 0;
      for (const char* options : {"", "--detect_ice 0 --do_bandpass 0 --do_pre_filter", "--speed 2"}) {
        // Averaging blocks of the largest values overflows already.
        const bool finite = std::isfinite(value) && (value < 1 || last == 1 || std::string(options) != "--speed 2");
        const ProgramRun result = run("nan.mrc --write_mic_mask " + std::string(options));
        EXPECT_EQ(0, result.status) << value << options;
        const std::string said = usable ? "" : (finite ? not_normal : not_finite) + nothing;
        EXPECT_TRUE(usable ? !holds(result.errors, nothing) : ends_with(result.errors, said))
            << value << options << result.errors;
        EXPECT_TRUE(usable || content("nan_quorlin.box").empty()) << value << options;
        for (const char* list : {"nan_quorlin.box", "nan_nonunique.box"})
          EXPECT_FALSE(holds(content(list), "nan") || holds(content(list), "inf")) << value << options;
      }
    }
  }
}

TEST_F(RunOnBad, ExtendedHeaderIsToldOf) {
  simulate_small();
  std::string bytes = content("sim_001.mrc");
  const int extended = 512;
  memcpy(&bytes[92], &extended, sizeof extended);
  write_file(path("sim_001.mrc"), bytes);
  const ProgramRun result = run("sim_001.mrc");
  EXPECT_EQ(0, result.status);
  EXPECT_TRUE(holds(result.errors, "Kestrix: sim_001.mrc: has an extended header of 512 bytes"));
}

// --- Templates ---

TEST_F(RunOnBad, TemplatesThatMatchNothingAreRefusedAndOddOnesUsed) {
  simulate_small("--templates 2 --boxT 21 --apixT 16");
  std::vector<float> pixels = random_values(3 * 40 * 40, 1);
  pixels[2 * 1600 + 800] = kNaN;
  write_image("nan.mrcs", pixels, 40, 40, 3);
  std::fill_n(pixels.begin() + 1600, 3200, 5.0F);
  write_image("flat.mrcs", pixels, 40, 40, 3);
  write_image("huge.mrcs", std::vector<float>(4800, 3e38F), 40, 40, 3);
  const char* const cases[][2] = {{"nan.mrcs", "template 3 holds values that are not finite"},
                                  {"flat.mrcs", "template 2 is zero everywhere after normalisation"},
                                  {"huge.mrcs", "template 1 "}};
  for (const auto& one : cases) {
    expect_fatal("sim_001.mrc --T " + std::string(one[0]), one[1]);
    EXPECT_EQ("", outputs());
  }
  for (const char* options :
       {"--T_norm_type 0", "--T_norm_type 3", "--T_norm_type -1", "--apixT 16.5", "--apixT 1.7 --T_norm_type 2"}) {
    const ProgramRun result =
        run("sim_001.mrc --T sim_templates.mrcs --ang_step 30 --apixT 16 " + std::string(options));
    EXPECT_EQ(0, result.status) << options << ": " << result.output;
  }
}

// --- Nowhere to write ---

TEST_F(RunOnBad, OutputsThatCannotBeWrittenStopTheRunAndAreNamed) {
  simulate_small("--number 2");
  const char* const suffixes[] = {"_nonunique.box", "_quorlin.box", "_quorlin.star", "_rejected.box",
                                  "_rejected.star", "_pref.mrc",    "_mask.mrc",     "_bgfree.mrc",
                                  "_ccmax.mrc",     "_bg.mrc",      "_lsigma.mrc",   "_particles.mrcs"};
  for (const std::string suffix : suffixes) {
    const std::string name = "sim_002" + suffix;
    remove_file(name);
    std::filesystem::create_directory(path(name));
    expect_fatal(
        "sim_001.mrc sim_002.mrc --extract_raw --write_pref_mic --write_mic_mask --write_bgfree_mic "
        "--write_ccmax_mic --write_bg_mic --write_lsigma_mic",
        "Cannot write to file " + name + ". Permission denied or no space left!\n");
    EXPECT_GT(picks("sim_001_quorlin.star").size(), 0U) << "of the micrograph before";
    remove_file(name);
  }
}
