// Whole runs with options that can't work, one by one.
#include <string>
#include <vector>

#include "test_support_image.h"
#include "test_support_runs.h"

namespace {

/// A micrograph of 300 x 280 pixels of 8 Å; particles of 260 Å.
class RunRefuses : public WholeRun {
 protected:
  void SetUp() override {
    REQUIRE_DEVICE();
    simulate("--nx 300 --ny 280 --apix 8 --dose 2 --templates 2");
    for (const auto& entry : std::filesystem::directory_iterator(path("."))) files_before_ += entry.is_regular_file();
  }

  ProgramRun run(const std::string& options) const {
    return kestrix("--apixM 8 --diameter 260 --speed 1 sim_001.mrc " + options);
  }

  /// The run ends with that fatal error and has written nothing.
  void expect_refused(const std::string& options, const std::string& words) const {
    const ProgramRun result = run(options);
    EXPECT_EQ(1, result.status) << options;
    const std::string text = without_line_numbers(result.output);
    const size_t line = text.rfind("Error in function ");
    ASSERT_NE(std::string::npos, line) << options << ": " << text;
    EXPECT_TRUE(holds(text.substr(line), words)) << options << ": " << text.substr(line);
    EXPECT_EQ("! Exit now!\n", text.substr(text.size() - 12));
    EXPECT_TRUE(holds(text, "All parameters to be used:")) << "the report comes first";
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(path("."))) files += entry.is_regular_file();
    EXPECT_EQ(files_before_, files) << options;
  }

  /// The run completes or says why not.
  void expect_end_whatever_the_value(const std::string& others, const std::string& option) const {
    for (const std::string value : {"''", "0", "-1", "1e30", "nan", "inf", "1e-30"}) {
      const ProgramRun result =
          run(join(others, "--do_pre_filter 1 --exclusive_picking 1 --extract_raw --", option, " ", value));
      const bool complete = holds(result.output, "All 1 files finished successfully:");
      const bool refused = holds(result.output, "! Exit now!\n");
      EXPECT_EQ(complete ? 0 : 1, result.status) << option << " " << value << result.output << result.errors;
      EXPECT_NE(complete, refused) << option << " " << value;
    }
  }

 private:
  int files_before_ = 0;
};

constexpr char kTemplates[] = " --T sim_templates.mrcs --apixT 16 ";

}  // namespace

TEST_F(RunRefuses, ValuesThatCannotWorkAndNamesThem) {
  const char* const positive[] = {"apixM", "apixT", "diameter", "min_dist"};
  for (const std::string option : positive)
    for (const std::string value : {"0", "-1", "nan", "inf", "-inf", "text"})
      expect_refused(join("--", option, " ", value), join(": --", option, " is "));
  expect_refused("--boxsize 0", "--boxsize is 0: ");
  expect_refused("--boxsize -86", "--boxsize is -86: ");
  for (const std::string value : {"0", "-5", "0.0009", "nan", "inf", "-inf"})
    expect_refused(kTemplates + ("--ang_step " + value), "--ang_step is ");
  expect_refused("--min_dist 22.6", "--min_dist 22.6 ");
  expect_refused("--min_dist 1e-30", "--min_dist 1e-30 ");
  expect_refused("--apixM 1e30", "--boxsize is 0: ");
}

TEST_F(RunRefuses, ExcludedCoordinatesFromListsThatItOverwritesItself) {
  EXPECT_EQ(0, run("").status);
  for (const std::string suffix : {"_nonunique.box", "_rejected.box", "_rejected.star"}) {
    const std::string options = "--excluded_suffix " + suffix, before = content("sim_001" + suffix);
    const ProgramRun result = run("--exclusive_picking " + options);
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(holds(result.output, "--excluded_suffix is " + suffix + ": this run itself overwrites these lists"));
    EXPECT_EQ(before, content("sim_001" + suffix)) << "still whole";
    EXPECT_EQ(suffix == "_nonunique.box" ? 1 : 0, run("--detect_ice 0 --exclusive_picking " + options).status);
    EXPECT_EQ(0, run(options).status) << "not used";
  }
}

TEST_F(RunRefuses, TemplatesThatComeOutTooSmallOrTooLarge) {
  expect_refused(kTemplates + std::string("--apixT 0.1"), "sim_templates.mrcs come out smaller than 1 pixel");
  expect_refused(kTemplates + std::string("--apixT 1e-30"), "sim_templates.mrcs come out smaller than 1 pixel");
  expect_refused(kTemplates + std::string("--apixT 1600"), "larger than the working image of 150 x 150");
  expect_refused(kTemplates + std::string("--apixT 1e30"), "larger than the working image of 150 x 150");
  expect_refused("--diameter 20 --min_dist 200", "the automatic template would come out smaller than 1 pixel (0 x 0)");
  expect_refused("--diameter 1000", "the automatic template would come out as 160 x 160 pixels, larger than");
  expect_refused("--diameter 3e38 --boxsize 50", "larger than the working image of 150 x 150");
}

TEST_F(RunRefuses, SizesThatLeaveNoWorkingImage) {
  const std::vector<float> pixels(15 * 14, 1.0F);
  mrcf_write_xyz_data(path("sim_001.mrc").c_str(), pixels.data(), 15, 14, 1);
  expect_refused("--speed 4", "sim_001.mrc of 15 x 14 pixels is too small to be shrunk by 8; give a lower --speed");
}

TEST_F(RunRefuses, AnOptionWithoutItsValueByTheHelp) {
  for (const std::string option : {"T", "apixM", "speed", "excluded_suffix", "gid"}) {
    const ProgramRun result = run("--" + option);
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(holds(result.output, "Usage:"));
    EXPECT_TRUE(holds(result.output, "the option --" + option + " must be followed by a value! Exit now!\n"));
  }
}

TEST_F(RunRefuses, TextsOf1024Bytes) {
  const std::string fits(1023, 'x'), is_too_long(1024, 'x');
  for (const std::string option : {"T", "excluded_suffix", "global_excluded_box"}) {
    const ProgramRun result = run(join("--", option, " ", is_too_long));
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(holds(result.output, join("the value of --", option, " is too long")));
  }
  EXPECT_EQ(1, run(is_too_long).status);
  EXPECT_TRUE(holds(run(is_too_long).output, "is too long: it may have at most 1023 characters! Exit now!\n"));
  // What fits as it stands, but not with what is added.
  EXPECT_TRUE(holds(run("--exclusive_picking --excluded_suffix " + fits).output,
                    "the output name of sim_001.mrc with the suffix " + fits));
  EXPECT_EQ(0, run("--excluded_suffix " + fits).status) << "not used";
  EXPECT_EQ(1, run("--T " + fits).status);
  std::string deep = ".";
  while (deep.size() < 1010) deep += "/.";
  EXPECT_EQ(0, run("--detect_ice 0 " + deep.substr(0, 901) + "/sim_001.mrc").status);
  const ProgramRun result = kestrix("--apixM 8 --diameter 260 --speed 1 " + deep.substr(0, 1002) + "/sim_001.mrc");
  EXPECT_EQ(1, result.status);
  EXPECT_TRUE(holds(result.output, "with the suffix _nonunique.box has more than 1023 characters! Exit now!\n"));
}

TEST_F(RunRefuses, NothingWithoutSayingWhyWhateverTheValue) {
  for (const std::string option : {"apixM",
                                   "diameter",
                                   "boxsize",
                                   "min_dist",
                                   "cc_cutoff",
                                   "lsigma_cutoff",
                                   "lave_max",
                                   "lave_min",
                                   "lsigma_D",
                                   "lave_D",
                                   "lp",
                                   "hp",
                                   "pre_lp",
                                   "pre_hp",
                                   "kv",
                                   "cs",
                                   "ac",
                                   "gid",
                                   "excluded_suffix",
                                   "global_excluded_box"})
    expect_end_whatever_the_value("", option);
}

TEST_F(RunRefuses, NothingWithoutSayingWhyWhateverTheValueAboutTemplates) {
  for (const std::string option :
       {"T", "apixM", "apixT", "diameter", "ang_step", "speed", "boxsize", "T_norm_type", "center1_ratio"})
    expect_end_whatever_the_value(kTemplates, option);
  for (const std::string option : {"T", "ang_step", "speed", "T_norm_type", "center1_ratio"})
    expect_end_whatever_the_value("", option);
}

TEST_F(RunRefuses, NoFlagBeforeAnything) {
  const char* const flags[] = {"update_T",       "do_pre_filter",  "dont_invertT",    "detect_ice",
                               "do_bandpass",    "do_ctf",         "do_local_ctf",    "write_pf_mic",
                               "write_bg_mic",   "write_star",     "do_unfinished",   "exclusive_picking",
                               "mask_excluded",  "extract_raw",    "extract_pf",      "write_ccmax_mic",
                               "write_pref_mic", "write_mic_mask", "write_bgfree_mic"};
  for (const std::string flag : flags)
    for (const std::string value : {"''", "nan", "99999999999999999999", "0.5"}) {
      const ProgramRun result = run(join("--", flag, " ", value));
      EXPECT_TRUE(result.status == (value == "nan" ? 1 : 0)) << flag << " " << value << ": " << result.output;
      EXPECT_EQ(value == "nan", holds(result.output, "Cannot open file nan."));
    }
}
