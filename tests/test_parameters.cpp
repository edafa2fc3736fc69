// The command line: what its options set, what is refused, the help and the parameter report.
#include <algorithm>
#include <climits>
#include <cmath>
#include <ctime>
#include <functional>
#include <iterator>
#include <sstream>
#include <vector>

#include "compute/text_numbers.h"
#include "platform/device.h"
#include "run/parameters.h"
#include "run/reports.h"
#include "str_utils.h"
#include "test_support.h"

namespace {

using Words = std::vector<std::string>;

Words words_of(const std::string& text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), std::istream_iterator<std::string>()};
}

/// The words of a command line as main receives them; the first is the program's name, "kestrix".
struct Command_Line {
  explicit Command_Line(Words arguments) : words(std::move(arguments)) {
    words.insert(words.begin(), "kestrix");
    for (std::string& word : words) pointers.push_back(&word[0]);
    pointers.push_back(nullptr);
  }
  Command_Line(const Command_Line&) = delete;
  Command_Line& operator=(const Command_Line&) = delete;

  int argc() const { return static_cast<int>(words.size()); }
  char** argv() { return pointers.data(); }

  Words words;
  std::vector<char*> pointers;
};

/// A record filled from a command line that is accepted, and what was printed meanwhile.
struct Parsed {
  explicit Parsed(const Words& arguments) : line(arguments) {
    warnings = output_of([this] {
      kestrix_init_parameters(line.argc(), &para);
      kestrix_get_parameters(line.argc(), line.argv(), &para);
    });
  }
  explicit Parsed(const std::string& options) : Parsed(words_of(options + " mic.mrc")) {}
  ~Parsed() { kestrix_free_parameters(&para); }
  Parsed(const Parsed&) = delete;
  Parsed& operator=(const Parsed&) = delete;

  Command_Line line;
  Kestrix_Para para;
  std::string warnings;
};

/// How parsing a command line and judging its values ends; kDidNotExit where it is accepted.
ChildResult ending_of(const Words& arguments) {
  Command_Line line(arguments);
  return run_in_child([&line] {
    Kestrix_Para para;
    kestrix_init_parameters(line.argc(), &para);
    kestrix_get_parameters(line.argc(), line.argv(), &para);
    kestrix_check_parameters(&para);
    kestrix_free_parameters(&para);
  });
}

/// The line must end with status 1 and that fatal line, of a function of the unit parameters.
void expect_fatal(const Words& arguments, const std::string& function, const std::string& message,
                  bool after_help = false) {
  const ChildResult ending = ending_of(arguments);
  EXPECT_EQ(1, ending.status) << message;
  EXPECT_TRUE(ends_with(ending.out, fatal_line(function, "parameters", message))) << ending.out;
  EXPECT_EQ(after_help, holds(ending.out, "Usage:\n         kestrix [options] <micrographs>")) << message;
}

std::string golden(const std::string& name) { return read_file(KESTRIX_SOURCE_DIR "/tests/golden/" + name); }

std::string report_of(const Words& arguments) {
  Parsed parsed(arguments);
  return output_of([&] { kestrix_fput_parameters(parsed.line.argc(), parsed.line.argv(), &parsed.para, stdout); });
}

}  // namespace

TEST(Parameters, DerivedValuesComeFromTheLastOfTheOptionsInAnyOrder) {
  const Parsed none(""), one("--diameter 5 --diameter 210 --apixM 1.06 --speed 1"),
      other("--speed 1 --apixM 1.06 -DIAMETER 210");
  EXPECT_NEAR(48.507, none.para.radius_px, 0.0005);
  EXPECT_NEAR(59.701, none.para.min_dist_px, 0.0005);
  EXPECT_NEAR(27.985, none.para.lsigma_radius_px, 0.0005);
  EXPECT_NEAR(29.851, none.para.lave_radius_px, 0.0005);
  EXPECT_EQ(359.0f, none.para.psi_end);
  EXPECT_EQ(one.para.radius_px, other.para.radius_px);
  EXPECT_EQ((1.3f * 210.0f) / (2.0f * (1.06f + 1.06f)), one.para.radius_px);
  EXPECT_EQ(static_cast<float>(210.0 * 0.8) / (2.0f * 1.06f), one.para.min_dist_px);
  EXPECT_EQ(262, one.para.boxsize);  // in double precision: 210 * 1.33 / 1.06 = 263.49, halved, truncated, doubled
  const int shrinks[] = {1, 2, 4, 6, 8};
  for (int speed = 0; speed <= 4; speed++)
    EXPECT_EQ(shrinks[speed], Parsed("--speed " + std::to_string(speed)).para.shrink);
  for (const char* word : {"NONE", "null", "Null", "none"})
    EXPECT_EQ(1, Parsed(std::string("--T ") + word).para.auto_template) << word;
}

TEST(Parameters, AValueMayLookLikeAnythingAndMicrographsKeepTheirOrder) {
  const Parsed parsed(
      {"b.mrc", "--lave_max", "--speed", "--excluded_suffix", "--T", "--boxsize", "mic.mrc", "a", "b.mrc", ""});
  EXPECT_EQ(0.0f, parsed.para.lave_max);
  EXPECT_STREQ("--T", parsed.para.excluded_suffix);
  EXPECT_EQ(0, parsed.para.boxsize);
  EXPECT_EQ(4, parsed.para.shrink);
  ASSERT_EQ(4, parsed.para.n_files);
  EXPECT_EQ("b.mrc a b.mrc ", std::string(parsed.para.files[0]) + " " + parsed.para.files[1] + " " +
                                  parsed.para.files[2] + " " + parsed.para.files[3]);
}

TEST(Parameters, AFlagLeavesALetterOrAnOptionAndConsumesAnyOtherBeginning) {
  const struct {
    const char* next;
    int flag, files;
  } cases[] = {{"mic.mrc", 1, 2},   {"./a.mrc", 0, 1}, {"/data/a.mrc", 0, 1}, {"../a.mrc", 0, 1}, {"0001.mrc", 1, 1},
               {"7up.mrc", 1, 1},   {"", 0, 1},        {"+0", 0, 1},          {" 1", 1, 1},       {"-detect_ice", 1, 1},
               {"Micrograph", 1, 2}};
  for (const auto& c : cases) {
    const Parsed parsed(Words{"--write_mic_mask", c.next, "b.mrc"});
    EXPECT_EQ(c.flag, parsed.para.write_mic_mask) << c.next;
    EXPECT_EQ(c.files, parsed.para.n_files) << c.next;
  }
  EXPECT_EQ(1, Parsed(Words{"mic.mrc", "--detect_ice", "0", "--detect_ice"}).para.detect_ice);
}

TEST(Parameters, WarningsComeInTheirOrderForWhatWasNotGiven) {
  EXPECT_EQ(golden("warnings.txt"), Parsed("").warnings);
  EXPECT_EQ("", Parsed("--apixT 1 --apixM 1 --T t.mrc --diameter 9").warnings);
}

TEST(Parameters, AnUnknownOptionEndsWithTheOptionListAndStatus0) {
  for (const char* word : {"--write_rejected_box", "-1", "-", "--apix", "---apixM", "--help", "--lcutoff_D"}) {
    const ChildResult ending = ending_of({"mic.mrc", "--detect_ice", word, "1"});
    EXPECT_EQ(0, ending.status);
    EXPECT_EQ(
        "\x1b[41m\x1b[1m\x1b[5mCRITICAL ERROR:\x1b[min function refuse_option(), file parameters on line N. "
        "Failed to recognize option: \x1b[41m\x1b[1m\x1b[5m" +
            std::string(word) + "!\x1b[m Exit now. Check your input please.\n\n" + golden("valid_options.txt"),
        ending.out);
  }
}

TEST(Parameters, WhatCannotBeTakenIsRefusedAtOnce) {
  for (const char* speed : {"5", "-1", "99999999999", "-99999999999"})
    expect_fatal({"--speed", speed, "--no_such_option"}, "kestrix_speed2shrink",
                 "speed level must belong to {0,1,2,3,4}");
  for (const Words& line : {Words{"--apixM", "1"}, Words{"--write_star", "0001.mrc"}})
    expect_fatal(line, "kestrix_help_exit", "No valid files to be processed.", true);
  for (const char* option : {"--apixM", "-speed", "--EXCLUDED_SUFFIX", "--gid"})
    expect_fatal({"mic.mrc", option}, "kestrix_help_exit",
                 "the option " + std::string(option) + " must be followed by a value", true);
}

TEST(Parameters, TextsAreTakenUpTo1023BytesAndNeverCut) {
  const std::string longest(1023, 'n'), over(1024, 'n'), shown(40, 'n');
  const Parsed parsed({"--T", longest, longest});
  EXPECT_EQ(longest, parsed.para.T);
  EXPECT_EQ(longest, parsed.para.files[0]);
  const std::string end = " is too long ('" + shown + "...'): it may have at most 1023 characters";
  for (const std::string option : {"T", "excluded_suffix", "global_excluded_box"})
    expect_fatal({"--" + option, over, "m"}, "store_value", std::string("the value of --").append(option).append(end));
  expect_fatal({over}, "take_argument",
               "the file name '" + shown + "...' is too long: it may have at most 1023 characters");
}

TEST(Parameters, HostileNumbersSaturate) {
  EXPECT_EQ(2147483646, Parsed("--diameter 1e38").para.boxsize);
  EXPECT_EQ(INT_MIN, Parsed("--diameter -1e38").para.boxsize);
  EXPECT_EQ(0, Parsed("--apixM nan").para.boxsize);
  EXPECT_TRUE(std::isinf(Parsed("--lp 1e300").para.lp));
  const std::pair<const char*, int> numbers[] = {
      {" \t-12abc", -12}, {"+3.9", 3}, {"x7", 0}, {"99999999999", INT_MAX}, {"-2147483649", INT_MIN}, {"", 0}};
  for (const auto& number : numbers) EXPECT_EQ(number.second, text_to_int(number.first)) << number.first;
  EXPECT_EQ(INT_MAX, saturating_int(2147483647.5));
  EXPECT_EQ(INT_MIN, saturating_int(-INFINITY));
  EXPECT_EQ(-3, saturating_int(-3.99));
}

TEST(Parameters, ThatNoRunCanHaveAreNamedWithWhatIsAllowed) {
  const char* const positive[][2] = {{"apixM", "the pixel size of the micrographs in angstrom"},
                                     {"apixT", "the pixel size of the templates in angstrom"},
                                     {"diameter", "the particle diameter in angstrom"},
                                     {"min_dist", "the least distance between particles in angstrom"}};
  for (const auto& [option, meaning] : positive)
    for (const std::string value : {"0", "-1.5", "nan", "inf"})
      expect_fatal({std::string("--") + option, value, "m"}, "require_positive",
                   std::string("--") + option + " is " + value + ": " + meaning + " must be a number above 0");
  const std::string function = "kestrix_check_parameters";
  for (const Words& line : {Words{"--boxsize", "0", "m"}, Words{"--diameter", "1", "m"}})
    expect_fatal(line, function,
                 "--boxsize is 0: the box must be at least 1 pixel (when not given it is 1.33 times --diameter over "
                 "--apixM, made even)");
  for (const std::string value : {"-5", "0.0009", "nan", "inf"})
    expect_fatal({"--T", "t.mrcs", "--ang_step", value, "m"}, function,
                 "--ang_step is " + value + ": the angular step must be a number of at least 0.001 degrees");
  for (const char* line : {"--T t.mrcs --ang_step 0.001 m", "--ang_step -5 m", "--boxsize 1 --min_dist 1e-30 m"})
    EXPECT_EQ(kDidNotExit, ending_of(words_of(line)).status) << line;
}

// --- Help and report ---

TEST(Help, IsTheCheckedText) {
  EXPECT_EQ(golden("help.txt"), output_of([] { kestrix_help("kestrix"); }));
  EXPECT_EQ(golden("help_full.txt"), output_of([] { kestrix_help_full("kestrix"); }));
}

TEST(Tips, EveryBlockIsTheCheckedTextAndTheRandomOneIsThatOfTheSecond) {
  std::string blocks;
  const auto block = [](int tip) { return output_of([tip] { kestrix_put_tip(tip); }); };
  for (int i = 0; i < kKestrixTips; i++) blocks += block(i);
  EXPECT_EQ(golden("tip_blocks.txt"), blocks);
  const time_t before = time(nullptr);
  const std::string printed = output_of(kestrix_put_one_random_tip);
  bool found = false;
  for (time_t second = before; second <= time(nullptr); second++) {
    srand(static_cast<unsigned>(second));
    found = found || printed == block(rand() % kKestrixTips);
  }
  EXPECT_TRUE(found) << printed;
}

TEST(Report, IsTheCheckedText) {
  EXPECT_EQ(golden("report_few_options.txt"),
            report_of(words_of("--apixM 1.58 mic1.mrc --diameter 300 --write_star 0 -WRITE_STAR mic2.mrc")));
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

TEST(Report, ShowsNothingForAnOptionWordThatWasAValueAndValuesOfAnySize) {
  // The suffix "--gid" is no option, and nothing follows it; --hp took "--ac" as its value, which the walk
  // sees as an option that takes the name behind it.
  EXPECT_TRUE(holds(report_of({"--hp", "--ac", "mic.mrc", "--excluded_suffix", "--gid"}),
                    "User input parameters:\n"
                    "       --hp                 0.000\n"
                    "       --ac                 0.00\n"
                    "       --excluded_suffix    --gid\n"
                    "\nAll parameters to be used:\n"));
  const std::string report = report_of({"--apixM", "1e300", "--min_dist", "nan", "--boxsize", "99999999999", ""});
  for (const char* line : {"--apixM                inf\n", "--min_dist           nan\n",
                           "--boxsize            2147483647\n", "All 1 files to be used:\n        \n"})
    EXPECT_TRUE(holds(report, line)) << line;
}
