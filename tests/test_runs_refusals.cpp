// Whole runs with options that can't work: each ends by a line that says why, before anything is written.
#include <string>

#include "test_support_runs.h"

namespace {

class RunRefuses : public SmallRun {
 protected:
  void SetUp() override {
    REQUIRE_DEVICE();
    simulate_small("--templates 2");
  }

  ProgramRun run(const std::string& options) const { return SmallRun::run("--speed 1 sim_001.mrc " + options); }
};

constexpr char kTemplates[] = " --T sim_templates.mrcs --apixT 16 ";

}  // namespace

TEST_F(RunRefuses, ValuesThatCannotWorkAndNamesThem) {
  const std::string T = kTemplates, fits(1023, 'x');
  std::string deep = "./";
  while (deep.size() < 1004) deep += "./";
  const std::pair<std::string, std::string> cases[] = {
      {"--apixM 1e30", "--boxsize is 0: "},
      {"--min_dist 22.6", "--min_dist 22.6 "},
      {"--min_dist 1e-30", "--min_dist 1e-30 "},
      {T + "--apixT 0.1", "sim_templates.mrcs come out smaller than 1 pixel"},
      {T + "--apixT 1e30", "larger than the working image of 150 x 150"},
      {"--diameter 20 --min_dist 200", "the automatic template would come out smaller than 1 pixel (0 x 0)"},
      {"--diameter 1000", "the automatic template would come out as 160 x 160 pixels, larger than"},
      {"--T gone.mrcs", "open file failed."}};
  for (const auto& c : cases) {
    const ProgramRun result = run(c.first);
    EXPECT_EQ(1, result.status) << c.first;
    EXPECT_TRUE(holds(result.output, "All parameters to be used:")) << "the report comes first";
    const size_t line = std::min(result.output.rfind("Error in function "), result.output.size());
    EXPECT_TRUE(holds(result.output.substr(line), c.second)) << c.first << ": " << result.output.substr(line);
    EXPECT_TRUE(ends_with(result.output, "! Exit now!\n")) << c.first;
    EXPECT_EQ("", outputs()) << c.first;
  }
  // Names that fit as they stand, but not with what is added.
  EXPECT_EQ(0, run("--excluded_suffix " + fits).status) << "not used";
  EXPECT_TRUE(holds(run("--exclusive_picking --excluded_suffix " + fits).output,
                    "the output name of sim_001.mrc with the suffix " + fits));
  const ProgramRun result = kestrix("--apixM 8 --diameter 260 --speed 1 " + deep + "sim_001.mrc");
  EXPECT_EQ(1, result.status);
  EXPECT_TRUE(holds(result.output, "has more than 1023 characters! Exit now!\n"));
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

TEST_F(RunRefuses, SizesThatLeaveNoWorkingImage) {
  const std::vector<float> pixels(15 * 14, 1.0F);
  mrcf_write_xyz_data(path("sim_001.mrc").c_str(), pixels.data(), 15, 14, 1);
  expect_fatal("--speed 4 sim_001.mrc",
               "sim_001.mrc of 15 x 14 pixels is too small to be shrunk by 8; give a lower --speed");
}

TEST_F(RunRefuses, NothingWithoutSayingWhyWhateverTheValue) {
  const std::string with_templates = kTemplates;
  const std::pair<std::string, std::vector<std::string>> options[] = {
      {"",
       {"apixM", "diameter", "boxsize", "min_dist", "cc_cutoff", "lsigma_cutoff", "lave_max", "lave_min", "lsigma_D",
        "lave_D", "lp", "hp", "pre_hp", "gid", "excluded_suffix", "global_excluded_box", "center1_ratio"}},
      {with_templates, {"T", "apixM", "apixT", "diameter", "ang_step", "speed", "T_norm_type", "center1_ratio"}}};
  for (const auto& group : options)
    for (const std::string& option : group.second)
      for (const std::string value : {"''", "0", "-1", "1e30", "nan", "inf", "1e-30"}) {
        const std::string line = std::string("--do_pre_filter 1 --exclusive_picking 1 --extract_raw --").append(option);
        const ProgramRun result = run(std::string(group.first).append(line).append(" ").append(value));
        const bool complete = holds(result.output, "All 1 files finished successfully:");
        EXPECT_EQ(complete ? 0 : 1, result.status) << option << " " << value << result.output << result.errors;
        EXPECT_NE(complete, holds(result.output, "! Exit now!\n")) << option << " " << value;
      }
}
