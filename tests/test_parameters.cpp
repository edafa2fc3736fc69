// The command line: what its options set, what is refused, the help and the parameter report.
#include <climits>
#include <cmath>
#include <ctime>
#include <iterator>
#include <memory>
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

/// A record filled from the words behind the program's name, "kestrix".
struct Parsed {
  explicit Parsed(Words arguments) : words(std::move(arguments)) {
    words.insert(words.begin(), "kestrix");
    for (std::string& word : words) argv.push_back(&word[0]);
    argv.push_back(nullptr);
    kestrix_init_parameters(argc(), &para);
    kestrix_get_parameters(argc(), argv.data(), &para);
  }
  explicit Parsed(const std::string& options) : Parsed(words_of(options + " mic.mrc")) {}
  ~Parsed() { kestrix_free_parameters(&para); }
  Parsed(const Parsed&) = delete;
  Parsed& operator=(const Parsed&) = delete;

  int argc() const { return static_cast<int>(words.size()); }

  Words words;
  std::vector<char*> argv;
  Kestrix_Para para;
};

/// How parsing a command line and judging its values ends; kDidNotExit where it is accepted.
ProgramRun ending_of(const Words& arguments) {
  return run_in_child([&] {
    Parsed parsed(arguments);
    kestrix_check_parameters(&parsed.para);
  });
}

std::string golden(const std::string& name) { return read_file(KESTRIX_SOURCE_DIR "/tests/golden/" + name); }

std::string report_of(const Words& arguments) {
  std::unique_ptr<Parsed> parsed;
  output_of([&] { parsed = std::make_unique<Parsed>(arguments); });
  return output_of([&] { kestrix_fput_parameters(parsed->argc(), parsed->argv.data(), &parsed->para, stdout); });
}

}  // namespace

TEST(Parameters, DerivedValuesComeFromTheLastOfTheOptionsInAnyOrder) {
  const Parsed none(""), one("--diameter 5 --diameter 210 --apixM 1.06 --speed 1"),
      other("--speed 1 --apixM 1.06 -DIAMETER 210");
  EXPECT_NEAR(48.507, none.para.radius_px, 0.0005);
  EXPECT_NEAR(59.701, none.para.min_dist_px, 0.0005);
  EXPECT_NEAR(27.985, none.para.lsigma_radius_px, 0.0005);
  EXPECT_NEAR(29.851, none.para.lave_radius_px, 0.0005);
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
  const Words files(parsed.para.files, parsed.para.files + parsed.para.n_files);
  EXPECT_EQ(Words({"b.mrc", "a", "b.mrc", ""}), files);
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
  EXPECT_EQ(golden("warnings.txt"), output_of([] { Parsed parsed(""); }));
  EXPECT_EQ("", output_of([] { Parsed parsed("--apixT 1 --apixM 1 --T t.mrc --diameter 9"); }));
}

TEST(Parameters, AnUnknownOptionEndsWithTheOptionListAndStatus0) {
  for (const char* word : {"--write_rejected_box", "-1", "-", "--apix", "---apixM", "--help", "--lcutoff_D"}) {
    const ProgramRun ending = ending_of({"mic.mrc", "--detect_ice", word, "1"});
    EXPECT_EQ(0, ending.status);
    EXPECT_EQ(0u, ending.output.find("\x1b[41m\x1b[1m\x1b[5mCRITICAL ERROR:\x1b[min function ")) << ending.output;
    EXPECT_TRUE(
        ends_with(ending.output, "(), file parameters on line N. Failed to recognize option: \x1b[41m\x1b[1m\x1b[5m" +
                                     std::string(word) + "!\x1b[m Exit now. Check your input please.\n\n" +
                                     golden("valid_options.txt")));
  }
}

TEST(Parameters, WhatCannotBeTakenIsRefusedWithWhatIsAllowed) {
  for (const auto& [line, words] : golden_cases("refused_lines.txt")) {
    const ProgramRun ending = ending_of(words_of(line));
    expect_refused(ending, words + "! Exit now!\n");
    EXPECT_EQ(holds(words, "help_exit"), holds(ending.output, "Usage:\n         kestrix [options] <micrographs>"))
        << line;
  }
  for (const char* line : {"--T t.mrcs --ang_step 0.001 m", "--ang_step -5 m", "--boxsize 1 --min_dist 1e-30 m"})
    EXPECT_EQ(kDidNotExit, ending_of(words_of(line)).status) << line;
}

TEST(Parameters, TextsAreTakenUpTo1023BytesAndNeverCut) {
  const std::string longest(1023, 'n'), over(1024, 'n'), shown(40, 'n');
  const Parsed parsed({"--T", longest, longest});
  EXPECT_EQ(longest, parsed.para.T);
  EXPECT_EQ(longest, parsed.para.files[0]);
  for (const std::string option : {"T", "excluded_suffix", "global_excluded_box"})
    expect_refused(ending_of({"--" + option, over, "m"}),
                   fatal_line("", "parameters",
                              "the value of --" + option + " is too long ('" + shown +
                                  "...'): it may have at most 1023 characters"));
  expect_refused(ending_of({over}),
                 fatal_line("", "parameters",
                            "the file name '" + shown + "...' is too long: it may have at most 1023 characters"));
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

// --- Help and report ---

TEST(Help, IsTheCheckedText) {
  EXPECT_EQ(golden("help.txt"), output_of([] { kestrix_help("kestrix"); }));
  EXPECT_EQ(golden("help_full.txt"), output_of([] { kestrix_help_full("kestrix"); }));
}

TEST(Tips, EveryBlockIsTheCheckedTextAndTheRandomOneIsThatOfTheSecond) {
  EXPECT_EQ(golden("tip_blocks.txt"), output_of([] {
              for (int i = 0; i < kKestrixTips; i++) kestrix_put_tip(i);
            }));
  std::string printed, want = "another second";
  for (time_t second = 0; second != time(nullptr);) {  // again where the second ended meanwhile
    second = time(nullptr);
    printed = output_of(kestrix_put_one_random_tip);
    srand(static_cast<unsigned>(second));
    want = output_of([] { kestrix_put_tip(rand() % kKestrixTips); });
  }
  EXPECT_EQ(want, printed);
}

TEST(Report, IsTheCheckedText) {
  EXPECT_EQ(golden("report_few_options.txt"),
            report_of(words_of("--apixM 1.58 mic1.mrc --diameter 300 --write_star 0 -WRITE_STAR mic2.mrc")));
  EXPECT_EQ(golden("report_every_option.txt"), report_of(words_of(golden("every_option.txt"))));
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
