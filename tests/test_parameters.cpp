#include <gtest/gtest.h>

#include <climits>
#include <cmath>

#include "platform/device.h"
#include "str_utils.h"
#include "test_support_parameters.h"
#include "text_numbers.h"

namespace {

const std::vector<std::string> warning_lines = {
    "Waring: You have not set the parameter '--diameter',  the default value 400Å will be used.\n",
    "Waring: You have not set the parameter '--T',  the automatically generated Gaussian template will be "
    "used. This is fine for 'spherical particles' like virus or ribosome. Do use templates for non-spherical "
    "particles.\n",
    "Waring: You have not set the parameter '--apixM', the pixel size of micrograph is assumed to be 1.34Å "
    "by default.\n",
    "Waring: You have not set the parameter '--apixT', the pixel size of templates is assumed to be the same "
    "as micrographs by default.\n"};

bool ends_with(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// The text with the number behind its first "on line " replaced by N.
std::string without_line_number(const std::string& text) {
  const size_t digits = text.find("on line ") + 8;
  return text.substr(0, digits) + "N" + text.substr(text.find_first_not_of("0123456789", digits));
}

// The fatal line of a unit, with the source line left open, as the last thing printed.
bool ends_with_fatal(const Ending& ending, const std::string& function, const std::string& message) {
  const size_t at = ending.output.rfind("Error in function ");
  return at != std::string::npos &&
         without_line_number(ending.output.substr(at)) ==
             "Error in function " + function + "(), file parameters on line N: " + message + "! Exit now!\n";
}

bool is_short_help_then(const Ending& ending, const std::string& message) {
  return ending.output.find("Usage:\n         kestrix [options] <micrographs>") != std::string::npos &&
         ends_with_fatal(ending, "kestrix_help_exit", message);
}

}  // namespace

TEST(Parameters, DerivedValuesOfTheDefaultsAreThoseOfTheWorkedExample) {
  const Parsed parsed({"mic.mrc"});
  const Kestrix_Para& para = parsed.para;
  EXPECT_EQ(320.0f, para.min_dist);
  EXPECT_EQ(396, para.boxsize);
  EXPECT_EQ(300.0f, para.lsigma_D);
  EXPECT_EQ(320.0f, para.lave_D);
  EXPECT_NEAR(48.507, para.radius_px, 0.0005);
  EXPECT_NEAR(59.701, para.min_dist_px, 0.0005);
  EXPECT_NEAR(27.985, para.lsigma_radius_px, 0.0005);
  EXPECT_NEAR(29.851, para.lave_radius_px, 0.0005);
  EXPECT_EQ(para.apixM, para.apixT);
  EXPECT_EQ(4, para.shrink);
  EXPECT_EQ(0.15f, para.cc_cutoff);
  EXPECT_EQ(1, para.auto_template);
  EXPECT_STREQ("NULL", para.T);
}

TEST(Parameters, DerivedValuesDoNotDependOnTheOrderOfTheOptions) {
  const Parsed one({"--diameter", "210", "--apixM", "1.06", "--speed", "1", "a.mrc"});
  const Parsed other({"a.mrc", "--speed", "1", "--apixM", "1.06", "--diameter", "210"});
  EXPECT_EQ(one.para.radius_px, other.para.radius_px);
  EXPECT_EQ(one.para.boxsize, other.para.boxsize);
  // In double precision from the fields: 210 * 1.33 / 1.06 = 263.49, halved, truncated, doubled.
  EXPECT_EQ(262, one.para.boxsize);
  EXPECT_EQ((1.3f * 210.0f) / (2.0f * (1.06f + 1.06f)), one.para.radius_px);
  EXPECT_EQ(static_cast<float>(210.0 * 0.8) / (2.0f * 1.06f), one.para.min_dist_px);
}

TEST(Parameters, GivenValuesAreUsedUnchanged) {
  const Parsed parsed({"--min_dist", "12.5", "--boxsize", "127", "--lsigma_D", "90", "--lave_D", "80", "--apixT", "2.5",
                       "--apixM", "3", "mic.mrc"});
  EXPECT_EQ(12.5f, parsed.para.min_dist);
  EXPECT_EQ(127, parsed.para.boxsize);
  EXPECT_EQ(90.0f, parsed.para.lsigma_D);
  EXPECT_EQ(80.0f, parsed.para.lave_D);
  EXPECT_EQ(2.5f, parsed.para.apixT);
  EXPECT_EQ(3.0f, parsed.para.apixM);
}

TEST(Parameters, SpeedSetsTheShrinkFactor) {
  const int shrinks[] = {1, 2, 4, 6, 8};
  for (int speed = 0; speed <= 4; speed++) {
    const Parsed parsed({"--speed", std::to_string(speed), "mic.mrc"});
    EXPECT_EQ(shrinks[speed], parsed.para.shrink);
    EXPECT_FLOAT_EQ(320.0f / (shrinks[speed] * 1.34f), parsed.para.min_dist_px);
  }
}

TEST(Parameters, AnOptionIsKnownByOneOrTwoHyphensInAnyCase) {
  const Parsed parsed({"-APIXM", "2", "--t", "stack.mrcs", "-KV", "200", "--Write_Star", "0", "mic.mrc"});
  EXPECT_EQ(2.0f, parsed.para.apixM);
  EXPECT_STREQ("stack.mrcs", parsed.para.T);
  EXPECT_EQ(0, parsed.para.auto_template);
  EXPECT_EQ(200.0f, parsed.para.kV);
  EXPECT_EQ(0, parsed.para.write_star);
}

TEST(Parameters, AcceptsTheOptionsThatTheOptionListLacks) {
  const Parsed parsed({"--center1_ratio", "0.2", "--T_norm_type", "3", "--update_T", "--pre_lp", "9",
                       "--write_pref_mic", "--do_unfinished", "--do_bandpass", "0", "mic.mrc"});
  EXPECT_EQ(0.2f, parsed.para.center1_ratio);
  EXPECT_EQ(3, parsed.para.T_norm_type);
  EXPECT_EQ(1, parsed.para.update_T);
  EXPECT_EQ(9.0f, parsed.para.pre_lp);
  EXPECT_EQ(1, parsed.para.write_pref_mic);
  EXPECT_EQ(1, parsed.para.do_unfinished);
  EXPECT_EQ(0, parsed.para.do_bandpass);
}

TEST(Parameters, TheLastOfTwoWins) {
  const Parsed parsed({"--lave_min", "-0.8", "--detect_ice", "0", "mic.mrc", "--lave_min", "-2", "--detect_ice"});
  EXPECT_EQ(-2.0f, parsed.para.lave_min);
  EXPECT_EQ(1, parsed.para.detect_ice);
}

TEST(Parameters, AValueMayLookLikeAnything) {
  const Parsed parsed({"--lave_max", "--speed", "--excluded_suffix", "--T", "--boxsize", "mic.mrc", "a.mrc"});
  EXPECT_EQ(0.0f, parsed.para.lave_max);
  EXPECT_STREQ("--T", parsed.para.excluded_suffix);
  EXPECT_EQ(0, parsed.para.boxsize);
  EXPECT_EQ(4, parsed.para.shrink);
  ASSERT_EQ(1, parsed.para.n_files);
  EXPECT_STREQ("a.mrc", parsed.para.files[0]);
}

TEST(Parameters, MicrographsKeepTheirOrderAndDuplicates) {
  const Parsed parsed({"b.mrc", "--gid", "0", "a", "b.mrc", ""});
  ASSERT_EQ(4, parsed.para.n_files);
  EXPECT_STREQ("b.mrc", parsed.para.files[0]);
  EXPECT_STREQ("a", parsed.para.files[1]);
  EXPECT_EQ(parsed.line.pointers[5], parsed.para.files[2]);
  EXPECT_STREQ("", parsed.para.files[3]);
}

TEST(Parameters, AFlagLeavesALetterAndConsumesAnyOtherBeginning) {
  const Parsed letter({"--write_mic_mask", "mic.mrc"});
  EXPECT_EQ(1, letter.para.write_mic_mask);
  EXPECT_EQ(1, letter.para.n_files);

  // A path, a leading digit and an empty text are values, of which the number counts.
  const char* const consumed[] = {"./a.mrc", "/data/a.mrc", "../a.mrc", "0001.mrc", "7up.mrc", "", "+0", " 1"};
  const int flags[] = {0, 0, 0, 1, 1, 0, 0, 1};
  for (int i = 0; i < 8; i++) {
    const Parsed parsed({"--write_mic_mask", consumed[i], "b.mrc"});
    EXPECT_EQ(flags[i], parsed.para.write_mic_mask) << consumed[i];
    EXPECT_EQ(1, parsed.para.n_files) << consumed[i];
  }
  const Parsed last({"mic.mrc", "--detect_ice", "0", "--write_star"});
  EXPECT_EQ(0, last.para.detect_ice);
  EXPECT_EQ(1, last.para.write_star);
}

TEST(Parameters, WarningsComeInTheirOrderForWhatWasNotGiven) {
  std::string all;
  for (const std::string& line : warning_lines) all += line;
  EXPECT_EQ(all, Parsed({"mic.mrc"}).warnings);
  EXPECT_EQ("", Parsed({"--apixT", "1", "--apixM", "1", "--T", "t.mrc", "--diameter", "9", "mic.mrc"}).warnings);
  EXPECT_EQ(warning_lines[0] + warning_lines[3], Parsed({"--apixM", "1", "--T", "t.mrc", "mic.mrc"}).warnings);
}

TEST(Parameters, ANullTemplateIsAutomaticWithoutAWarning) {
  for (const char* word : {"NONE", "null", "Null", "none"}) {
    const Parsed parsed({"--T", word, "mic.mrc"});
    EXPECT_EQ(1, parsed.para.auto_template);
    EXPECT_EQ(std::string::npos, parsed.warnings.find("'--T'"));
  }
}

TEST(Parameters, AnUnknownOptionEndsWithTheOptionListAndStatus0) {
  const std::vector<std::vector<std::string>> lines = {
      {"--write_rejected_box", "mic.mrc"}, {"mic.mrc", "--detect_ice", "-1"}, {"mic.mrc", "-"},
      {"mic.mrc", "--apix", "1"},          {"mic.mrc", "---apixM", "1"},      {"mic.mrc", "--help"}};
  const char* const refused[] = {"--write_rejected_box", "-1", "-", "--apix", "---apixM", "--help"};
  for (size_t i = 0; i < lines.size(); i++) {
    const Ending ending = ending_of_parsing(lines[i]);
    EXPECT_FALSE(ending.returned);
    EXPECT_EQ(0, ending.status);
    const std::string output = without_line_number(ending.output);
    const std::string head =
        "\x1b[41m\x1b[1m\x1b[5mCRITICAL ERROR:\x1b[min function refuse_option(), file parameters on line N. "
        "Failed to recognize option: \x1b[41m\x1b[1m\x1b[5m" +
        std::string(refused[i]) + "!\x1b[m Exit now. Check your input please.\n\n" + std::string(130, '-') +
        "\nAll valid options:\n--apixM\t ";
    EXPECT_EQ(head, output.substr(0, head.size()));
    EXPECT_TRUE(ends_with(output, "--gid\t \n" + std::string(128, '-') + "\n"));
  }
}

TEST(Parameters, ASpeedLevelThatDoesNotExistIsRefusedAtOnce) {
  for (const char* speed : {"5", "-1", "99999999999", "-99999999999"}) {
    const Ending ending = ending_of_parsing({"--speed", speed, "--no_such_option"});
    EXPECT_EQ(1, ending.status);
    EXPECT_EQ(0u, ending.output.find("Error in function"));
    EXPECT_TRUE(ends_with_fatal(ending, "kestrix_speed2shrink", "speed level must belong to {0,1,2,3,4}"));
  }
}

TEST(Parameters, NoMicrographIsRefusedWithTheShortHelp) {
  for (const std::vector<std::string>& line :
       {std::vector<std::string>{"--apixM", "1"}, {"--write_star", "0001.mrc"}}) {
    const Ending ending = ending_of_parsing(line);
    EXPECT_EQ(1, ending.status);
    EXPECT_TRUE(is_short_help_then(ending, "No valid files to be processed."));
  }
}

TEST(Parameters, AnOptionWithoutItsValueIsRefusedByName) {
  for (const char* option : {"--apixM", "-speed", "--EXCLUDED_SUFFIX"}) {
    const Ending ending = ending_of_parsing({"mic.mrc", option});
    EXPECT_EQ(1, ending.status);
    EXPECT_TRUE(is_short_help_then(ending, "the option " + std::string(option) + " must be followed by a value"));
  }
}

TEST(Parameters, TextsAreTakenUpTo1023BytesAndNeverCut) {
  const std::string longest(1023, 'n');
  const std::string over(1024, 'n');
  const Parsed parsed({"--T", longest, longest});
  EXPECT_EQ(longest, parsed.para.T);
  EXPECT_EQ(longest, parsed.para.files[0]);

  const std::vector<std::vector<std::string>> too_long = {
      {"--T", over, "m"}, {"--excluded_suffix", over, "m"}, {"--global_excluded_box", over, "m"}, {over}};
  const char* const named[] = {"value of --T ", "value of --excluded_suffix ", "value of --global_excluded_box ",
                               "file name "};
  for (size_t i = 0; i < too_long.size(); i++) {
    const Ending ending = ending_of_parsing(too_long[i]);
    EXPECT_EQ(1, ending.status);
    EXPECT_NE(std::string::npos, ending.output.find(named[i])) << ending.output;
    EXPECT_TRUE(ends_with(ending.output, "at most 1023 characters! Exit now!\n"));
  }
}

TEST(Parameters, AnImpossibleDeviceNumberIsReplacedByTheBestDevice) {
  EXPECT_EQ(0, Parsed({"--gid", "7", "mic.mrc"}).para.gid);
  EXPECT_EQ(0, Parsed({"--gid", "-99999999999", "mic.mrc"}).para.gid);
}

#ifndef KESTRIX_CUDA
TEST(Parameters, NoDeviceIsRefusedAfterTheWarning) {
  host_device_faults().device_count = 0;
  const Ending ending = ending_of_parsing({"mic.mrc"});
  host_device_faults() = HostDeviceFaults{};
  EXPECT_EQ(1, ending.status);
  EXPECT_EQ(0u, ending.output.find("Warning: no GPU device found!\n"));
  EXPECT_TRUE(is_short_help_then(ending, "Failed to find any usable GPU device!"));
}
#endif

TEST(Parameters, HostileNumbersSaturate) {
  EXPECT_EQ(2147483646, Parsed({"--diameter", "1e38", "mic.mrc"}).para.boxsize);
  EXPECT_EQ(INT_MIN, Parsed({"--diameter", "-1e38", "mic.mrc"}).para.boxsize);
  EXPECT_EQ(2147483646, Parsed({"--apixM", "0", "mic.mrc"}).para.boxsize);
  EXPECT_EQ(0, Parsed({"--apixM", "nan", "mic.mrc"}).para.boxsize);
  EXPECT_EQ(0, Parsed({"--apixM", "inf", "--diameter", "inf", "mic.mrc"}).para.boxsize);
  EXPECT_EQ(INT_MAX, Parsed({"--boxsize", "99999999999", "mic.mrc"}).para.boxsize);
  EXPECT_TRUE(std::isinf(Parsed({"--lp", "1e300", "mic.mrc"}).para.lp));
  EXPECT_EQ(0.0f, Parsed({"--hp", "", "mic.mrc"}).para.hp);
  EXPECT_EQ(0, Parsed({"--T_norm_type", "one", "mic.mrc"}).para.T_norm_type);
}

TEST(TextNumbers, ReadAsAtoiDoesAndSaturate) {
  EXPECT_EQ(-12, text_to_int(" \t-12abc"));
  EXPECT_EQ(3, text_to_int("+3.9"));
  EXPECT_EQ(0, text_to_int("x7"));
  EXPECT_EQ(INT_MAX, text_to_int("99999999999999999999999"));
  EXPECT_EQ(INT_MIN, text_to_int("-2147483649"));
  EXPECT_EQ(INT_MAX, saturating_int(2147483647.5));
  EXPECT_EQ(INT_MIN, saturating_int(-INFINITY));
  EXPECT_EQ(-3, saturating_int(-3.99));
}

TEST(ParameterCheck, NamesTheOptionItsValueAndWhatIsAllowed) {
  const std::vector<std::vector<std::string>> lines = {{"--apixM", "0"},
                                                       {"--apixM", "nan"},
                                                       {"--apixM", "inf"},
                                                       {"--apixT", "-1.5"},
                                                       {"--diameter", "-400"},
                                                       {"--diameter", "1e300"},
                                                       {"--min_dist", "0"},
                                                       {"--min_dist", "-inf"},
                                                       {"--boxsize", "0"},
                                                       {"--diameter", "1"},
                                                       {"--T", "t.mrcs", "--ang_step", "0"},
                                                       {"--T", "t.mrcs", "--ang_step", "nan"}};
  const char* const said[] = {
      "--apixM is 0: the pixel size of the micrographs in angstrom must be a number above 0",
      "--apixM is nan: the pixel size of the micrographs in angstrom must be a number above 0",
      "--apixM is inf: the pixel size of the micrographs in angstrom must be a number above 0",
      "--apixT is -1.5: the pixel size of the templates in angstrom must be a number above 0",
      "--diameter is -400: the particle diameter in angstrom must be a number above 0",
      "--diameter is inf: the particle diameter in angstrom must be a number above 0",
      "--min_dist is 0: the least distance between particles in angstrom must be a number above 0",
      "--min_dist is -inf: the least distance between particles in angstrom must be a number above 0",
      "--boxsize is 0: the box must be at least 1 pixel",
      "--boxsize is 0: the box must be at least 1 pixel",
      "--ang_step is 0: the angular step must be a number of at least 0.001 degrees",
      "--ang_step is nan: the angular step must be a number of at least 0.001 degrees"};
  for (size_t i = 0; i < lines.size(); i++) {
    std::vector<std::string> line = lines[i];
    line.emplace_back("mic.mrc");
    EXPECT_TRUE(ending_of_parsing(line).returned) << said[i];
    const Ending ending = ending_of_parsing(line, true);
    EXPECT_EQ(1, ending.status) << said[i];
    EXPECT_NE(std::string::npos, ending.output.find(": " + std::string(said[i]))) << ending.output;
    EXPECT_TRUE(ends_with(ending.output, "! Exit now!\n"));
  }
}

TEST(ParameterCheck, AcceptsTheLimitsAndAnyStepOfTheAutomaticTemplate) {
  EXPECT_TRUE(ending_of_parsing({"--T", "t.mrcs", "--ang_step", "0.001", "mic.mrc"}, true).returned);
  EXPECT_TRUE(ending_of_parsing({"--ang_step", "-5", "mic.mrc"}, true).returned);
  EXPECT_TRUE(ending_of_parsing({"--boxsize", "1", "--min_dist", "1e-30", "mic.mrc"}, true).returned);
}
