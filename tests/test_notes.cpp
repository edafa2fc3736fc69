// What runs say on standard error of settings and files that are likely to be mistakes, and what they leave as it is.
#include "test_support_runs.h"

namespace {

class Notes : public SmallRun {
 protected:
  void SetUp() override {
    SmallRun::SetUp();
    simulate_small("--templates 2");
  }

  ProgramRun run(const std::string& options) const { return SmallRun::run("--speed 0 " + options); }

  /// The file, in place of its bytes from `at` on other ones.
  void write_changed(const std::string& name, size_t at, const std::string& bytes) const {
    std::string text = content("sim_001.mrc");
    text.replace(at, bytes.size(), bytes);
    write_file(path(name), text);
  }

  static std::string repeated(float value, size_t n) {
    const std::vector<float> values(n, value);
    return {reinterpret_cast<const char*>(values.data()), n * sizeof(float)};
  }
};

TEST_F(Notes, TellWhatWasReadAndWhatIsLikelyToBeAMistake) {
  const struct {
    const char *options, *line;
  } cases[] = {
      {"--cc_cutoff 0,3", "--cc_cutoff '0,3' is read as 0;"},
      {"--ang_step abc --T sim_templates.mrcs --apixT 16 --ang_step 30", "--ang_step 'abc' is read as 0;"},
      {"--lave_max nan", "--lave_max 'nan' is read as nan;"},
      {"--boxsize 1e2", "--boxsize '1e2' is read as 1;"},
      {"--boxsize 99999999999", "is read as 2147483647;"},
      {"--write_star 2_x.mrc", "--write_star has taken '2_x.mrc' for its value, read as 1;"},
      {"--min_dist 17", "--min_dist 17 makes cells of one pixel"},
      {"--lp 500 --hp 100", "--lp 500, the fine limit of the band-pass, is not below --hp 100"},
      {"--lp 10", "--lp 10 is finer than the 16 angstrom"},
      {"--lp 0", "--lp 0 and --hp 1000 are limits in angstrom"},
      {"--boxsize 300", "--boxsize 300 is as large as the micrographs of 300 x 280 pixels"},
      {"--cc_cutoff 0.99", "sim_001.mrc: no picks: no score reaches --cc_cutoff 0.99"},
      {"--cc_cutoff 0.25 --boxsize 276", "by half a box of 276 pixels, from the edges."},
  };
  for (const auto& c : cases) {
    const ProgramRun noted = run(std::string("sim_001.mrc ") + c.options);
    EXPECT_TRUE(holds(noted.errors, "Kestrix: ") && holds(noted.errors, c.line)) << c.options << ": " << noted.errors;
  }
  const ProgramRun quiet = run("sim_001.mrc --cc_cutoff 0.25 --write_star 1 --boxsize 64");
  EXPECT_EQ("", quiet.errors) << "nothing to say";
  for (const auto& [word, meant] : {std::pair{"--daimeter", "--diameter"},
                                    {"-cc_cutof", "--cc_cutoff"},
                                    {"--APIX", "--apixM"},
                                    {"--keepgoing", "--keep_going"}})
    EXPECT_TRUE(
        holds(run(std::string("sim_001.mrc ") + word + " 1").errors, std::string("did you mean ") + meant + "?"))
        << word;
  EXPECT_EQ("", run("sim_001.mrc --colour 1").errors) << "nothing is like it";
  const ProgramRun absent = run("sim_001.mrc --T absent.mrcs");
  EXPECT_TRUE(holds(absent.errors, "Kestrix: absent.mrcs: given by --T, can't be read")) << absent.errors;
}

TEST_F(Notes, TellTheKindOfABrokenMicrographBeforeTheTableOfSizes) {
  const auto head = [](int nx, int ny, int nz, int mode) {
    const int32_t fields[] = {nx, ny, nz, mode};
    return std::string(reinterpret_cast<const char*>(fields), sizeof fields);
  };
  write_file(path("empty.mrc"), "");
  write_file(path("gzip.mrc"), "\x1f\x8b\x08 and so on");
  write_file(path("text.mrc"), std::string(300, 'x') + "\n");
  write_changed("big_endian.mrc", 0, head(0x2c010000, 0x18010000, 0x01000000, 0x02000000));
  write_changed("half.mrc", 0, head(300, 280, 1, 12));
  write_changed("longer.mrc", 0, head(300, 290, 1, 2));
  for (const auto& [name, words] : {std::pair{"empty.mrc", "is empty;"},
                                    {"gzip.mrc", "is gzip'd;"},
                                    {"text.mrc", "is a text file;"},
                                    {"big_endian.mrc", "is big-endian;"},
                                    {"half.mrc", "has 16-bit floats"},
                                    {"longer.mrc", "ends after 280 of 290 rows;"}}) {
    const ProgramRun result = run(std::string("sim_001.mrc ") + name);
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(holds(result.output, "has a different size or format from")) << name;
    EXPECT_TRUE(holds(result.errors, std::string("Kestrix: ") + name + ": " + words)) << result.errors;
  }
  write_changed("huge.mrc", 0, head(23000, 23000, 1, 2));
  std::filesystem::resize_file(path("huge.mrc"), 2048);
  expect_fatal("huge.mrc", "promises 23000 x 23000 pixels, of which the file holds 256");
}

TEST_F(Notes, TemplatesBeyondReasonAreRefusedAndEmptyOnesLeftOutOnRequest) {
  const size_t image = (content("sim_templates.mrcs").size() - 1024) / 2;
  const std::string stack = content("sim_templates.mrcs");
  const std::string options = "sim_001.mrc --ang_step 30 --apixT 16 --cc_cutoff 0.25 --T ";
  ASSERT_EQ(0, run(options + "sim_templates.mrcs").status);
  const std::string all = content("sim_001_nonunique.box");
  for (const float scale : {1e-25f, 1e15f}) {
    std::vector<float> values(image / 2);
    memcpy(values.data(), stack.data() + 1024, 2 * image);
    for (float& value : values) value *= scale;
    write_file(path("scaled.mrcs"),
               stack.substr(0, 1024) + std::string(reinterpret_cast<const char*>(values.data()), 2 * image));
    expect_fatal(options + "scaled.mrcs",
                 scale < 1 ? "too small for single precision" : "too large for single precision");
  }
  write_file(path("gap.mrcs"), stack.substr(0, 1024 + image) + std::string(image, '\0'));
  expect_fatal(options + "gap.mrcs", "template 2 is zero everywhere after normalisation");
  const ProgramRun skipped = run(options + "gap.mrcs --skip_empty_templates");
  EXPECT_EQ(0, skipped.status);
  EXPECT_EQ("Kestrix: gap.mrcs: template 2 is zero everywhere and left out.\n", skipped.errors);
  const std::string first = content("sim_001_nonunique.box");
  EXPECT_EQ(all.substr(0, first.size()), first) << "the first template's candidates, as before";
  write_file(path("void.mrcs"), stack.substr(0, 1024) + std::string(2 * image, '\0'));
  expect_fatal(options + "void.mrcs --skip_empty_templates", "every template of void.mrcs is zero everywhere");
}

TEST_F(Notes, OutliersAreToldAndLimitedOnRequest) {
  const std::string options = " --cc_cutoff 0.25 ";
  ASSERT_EQ(0, run("sim_001.mrc" + options).status);
  const size_t clean = picks("sim_001_quorlin.star").size();
  write_changed("hot.mrc", 1024 + (140 * 300 + 150) * 4, repeated(1e6f, 1));
  const ProgramRun hot = run("hot.mrc" + options);
  EXPECT_TRUE(holds(hot.errors, "Kestrix: hot.mrc: holds pixels of up to ")) << hot.errors;
  const ProgramRun clipped = run("hot.mrc --clip_outliers 6" + options);
  EXPECT_EQ("", clipped.errors);
  EXPECT_EQ(clean, picks("hot_quorlin.star").size());
  write_changed("blank.mrc", 1024, repeated(0, 300 * 70));
  EXPECT_TRUE(holds(run("blank.mrc" + options).errors, "Kestrix: blank.mrc: 2")) << "of a quarter";
}

}  // namespace
