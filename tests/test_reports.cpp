#include "reports.h"

#include <gtest/gtest.h>

#include <ctime>
#include <iterator>
#include <sstream>

#include "test_support_parameters.h"

namespace {

// The text of a file under tests/golden.
std::string golden(const std::string& name) {
  const std::string path = std::string(KESTRIX_SOURCE_DIR) + "/tests/golden/" + name;
  FILE* file = fopen(path.c_str(), "r");
  return file ? text_of(file) : "cannot open " + path;
}

// The words between the blanks of text.
std::vector<std::string> words_of(const std::string& text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), std::istream_iterator<std::string>()};
}

std::string report_of(const std::vector<std::string>& arguments) {
  Parsed parsed(arguments);
  FILE* out = tmpfile();
  kestrix_fput_parameters(parsed.line.argc(), parsed.line.argv(), &parsed.para, out);
  return text_of(out);
}

std::string tip_block(int index) {
  return stdout_of([index] { kestrix_put_tip(index); });
}

}  // namespace

TEST(Help, ShortAndFullHelpAreTheCheckedTexts) {
  EXPECT_EQ(golden("help.txt"), stdout_of([] { kestrix_help("kestrix"); }));
  EXPECT_EQ(golden("help_full.txt"), stdout_of([] { kestrix_help_full("kestrix"); }));
}

TEST(Help, TheOptionListIsTheCheckedText) {
  EXPECT_EQ(golden("valid_options.txt"), stdout_of(kestrix_print_valid_options));
  const Ending ending = ending_of_parsing({"--lcutoff_D", "3", "mic.mrc"});
  const size_t list = ending.output.find("\n\n") + 2;
  EXPECT_EQ(golden("valid_options.txt"), ending.output.substr(list));
}

TEST(Tips, EveryBlockIsTheCheckedText) {
  std::string blocks;
  for (int i = 0; i < kKestrixTips; i++) blocks += tip_block(i);
  EXPECT_EQ(golden("tip_blocks.txt"), blocks);
}

TEST(Tips, TheRandomTipIsThatOfTheSecond) {
  const time_t before = time(nullptr);
  const std::string printed = stdout_of(kestrix_put_one_random_tip);
  bool found = false;
  for (time_t second = before; second <= time(nullptr); second++) {
    srand(static_cast<unsigned>(second));
    found = found || printed == tip_block(rand() % kKestrixTips);
  }
  EXPECT_TRUE(found) << printed;
}

TEST(Report, OfFewOptionsIsTheCheckedText) {
  EXPECT_EQ(golden("report_few_options.txt"), report_of({"--apixM", "1.58", "mic1.mrc", "--diameter", "300",
                                                         "--write_star", "0", "-WRITE_STAR", "mic2.mrc"}));
}

TEST(Report, OfEveryOptionIsTheCheckedText) {
  const char* const line =
      "--T stack.mrcs --apixM 1.0625 --diameter 210.5 --apixT 2.125 --ang_step 7.5 --speed 1 "
      "--boxsize 201 --min_dist 150.25 --update_T --cc_cutoff 0.0025 --lsigma_cutoff 1.25 "
      "--lsigma_D 180.5 --lave_min -0.8 --lave_max 1.75 --lave_D 160.25 --dont_invertT --lp "
      "30.125 --hp 800.125 --do_pre_filter 1 --pre_lp 10.5 --pre_hp 900.5 --detect_ice 0 "
      "--T_norm_type 2 --center1_ratio 0.125 --do_bandpass 0 --do_ctf --do_local_ctf --kV 200 "
      "--cs 2.25 --ac 0.07 --write_ccmax_mic --write_pf_mic --write_pref_mic --write_bg_mic "
      "--write_bgfree_mic --write_lsigma_mic --write_mic_mask --exclusive_picking "
      "--excluded_suffix _rubbish.star --mask_excluded --global_excluded_box bad.box "
      "--write_star 0 --do_unfinished --extract_raw --extract_pf --gid 7 Micrographs/a.mrc "
      "b.mrcs";
  EXPECT_EQ(golden("report_every_option.txt"), report_of(words_of(line)));
}

TEST(Report, ShowsNothingForAnOptionWordThatWasAValue) {
  // The suffix "--gid" is no option, and nothing follows it; --hp took "--ac" as its value, which the walk
  // sees as an option that takes the name behind it.
  const std::string report = report_of({"--hp", "--ac", "mic.mrc", "--excluded_suffix", "--gid"});
  EXPECT_NE(std::string::npos, report.find("User input parameters:\n"
                                           "       --hp                 0.000\n"
                                           "       --ac                 0.00\n"
                                           "       --excluded_suffix    --gid\n"
                                           "\nAll parameters to be used:\n"));
}

TEST(Report, PrintsValuesOfAnySize) {
  const std::string report = report_of({"--apixM", "1e300", "--min_dist", "nan", "--boxsize", "99999999999", ""});
  EXPECT_NE(std::string::npos, report.find("--apixM                inf\n"));
  EXPECT_NE(std::string::npos, report.find("--min_dist           nan\n"));
  EXPECT_NE(std::string::npos, report.find("--boxsize            2147483647\n"));
  EXPECT_NE(std::string::npos, report.find("All 1 files to be used:\n        \n"));
}
