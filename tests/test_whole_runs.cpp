// Whole runs: what the program prints, how it ends, and which files are there afterwards.
#include <algorithm>
#include <map>
#include <regex>
#include <sstream>
#include <string>

#include "run/reports.h"
#include "test_support_runs.h"

namespace {

using RunOutput = WholeRun;

/// Replaces the seconds that stages took by TIME; they have six decimals.
std::string without_times(const std::string& text) {
  return std::regex_replace(text, std::regex("(>>>>>>TIME<<<<<<[^\n]*: )[0-9]+\\.[0-9]{6}s\n"), "$1TIMEs\n");
}

/// The output of a complete run, less what differs from run to run: line numbers, times and the closing tip, which must
/// be one of the tips.
std::string steady_output(const std::string& output) {
  const std::string rule = std::string(127, '-') + "\n";
  std::string text = without_times(output);
  const auto closes = [&](const std::string& tip) { return ends_with(text, rule + tip + rule); };
  const auto* tip = std::find_if(std::begin(KESTRIX_ALL_TIPS), std::end(KESTRIX_ALL_TIPS), closes);
  EXPECT_TRUE(tip != std::end(KESTRIX_ALL_TIPS)) << "no tip closes the output";
  text.resize(text.rfind(rule, text.size() - rule.size() - 1));
  return without_line_numbers(text) + "TIP\n";
}

const std::string kCommon = "--apixM 4 --diameter 260 ", kSmall = "--nx 512 --ny 480 ";

}  // namespace

TEST_F(RunOutput, PrintsEveryLineInItsOrder) {
  simulate(kSmall + "--number 3 --templates 2");
  write_file(path("sim_003_quorlin.star"), "");
  write_file(path("sim_001_bad.box"), "100 100 20 20\n\n90 300 20 20\n");
  write_file(path("all.box"), "100 100 20 20\n");
  const ProgramRun run = kestrix(std::string("gone.mrc ") + kCommon +
                                 "--T sim_templates.mrcs --apixT 8 --ang_step 90 --do_unfinished --exclusive_picking "
                                 "--excluded_suffix _bad.box --global_excluded_box all.box sim_001.mrc sim_002.mrc "
                                 "sim_003.mrc");
  EXPECT_EQ(0, run.status);
  EXPECT_EQ("", run.errors);
  EXPECT_EQ(read_file(KESTRIX_SOURCE_DIR "/tests/golden/whole_run.txt"), steady_output(run.output));
  EXPECT_FALSE(exists("sim_003_quorlin.box")) << "a list of either form marks a micrograph as done";
}

TEST_F(RunOutput, WritesTheListsAndTheImagesAskedForAndNothingElse) {
  simulate("--nx 700 --ny 640 --templates 3 --ice 1");
  const std::string lists = "_nonunique.box _quorlin.box _quorlin.star _rejected.box _rejected.star ";
  const struct {
    std::string option, outputs, image{};  // the one among them
  } cases[] = {{"", lists},
               {"--detect_ice 0 --write_star 0 --write_bg_mic 1 --write_lsigma_mic 1", "_nonunique.box _quorlin.box "},
               {"--write_pref_mic", "_nonunique.box _pref.mrc " + lists.substr(15), "_pref.mrc"},
               {"--write_mic_mask", "_mask.mrc " + lists, "_mask.mrc"},
               {"--write_bgfree_mic", "_bgfree.mrc " + lists, "_bgfree.mrc"},
               {"--write_ccmax_mic", "_ccmax.mrc " + lists, "_ccmax.mrc"},
               {"--write_bg_mic", "_bg.mrc " + lists, "_bg.mrc"},
               {"--write_lsigma_mic", "_lsigma.mrc " + lists, "_lsigma.mrc"},
               {"--extract_raw", "_nonunique.box _particles.mrcs " + lists.substr(15)},
               {"--write_pf_mic --extract_pf", lists}};
  const auto files = [this] {
    const auto all = std::filesystem::directory_iterator(path("."));
    return std::distance(begin(all), end(all));
  };
  const auto files_before = files();
  for (const auto& c : cases) {
    pick("--speed 1 --T sim_templates.mrcs --apixT 8 --ang_step 60 " + c.option);
    EXPECT_EQ(c.outputs, outputs()) << c.option;
    EXPECT_EQ(files_before + std::count(c.outputs.begin(), c.outputs.end(), ' '), files()) << c.option;
    if (!c.image.empty()) {
      const MRC_HEAD head = image(c.image).head;
      EXPECT_TRUE(head.nx == 350 && head.ny == 350 && head.mode == 2) << c.image << " is the working square";
      EXPECT_EQ(c.image == "_ccmax.mrc" ? 3 : 1, head.nz) << c.image;
    }
    std::istringstream names(c.outputs);
    for (std::string name; names >> name;) remove_file("sim_001" + name);
  }
}

TEST_F(RunOutput, TakesTheSecondFileForTheFirstWhereThatIsUnreadableAndStopsAtALaterOne) {
  simulate(kSmall + "--number 2");
  const ProgramRun first = kestrix(kCommon + "gone.mrc sim_001.mrc");
  EXPECT_EQ(0, first.status);
  EXPECT_TRUE(holds(first.output, "the micrograph gone.mrc does NOT exsit! Automatically ignored!"));
  const std::string reading = "Reading File sim_001.mrc ...";
  EXPECT_NE(first.output.find(reading), first.output.rfind(reading)) << "in its own place and in the first's";
  EXPECT_TRUE(holds(first.output, "All 2 files finished successfully:"));

  const ProgramRun later = kestrix(kCommon + "sim_001.mrc gone.mrc sim_002.mrc");
  EXPECT_TRUE(ends_with(without_line_numbers(later.output),
                        "Cannot open file gone.mrc. Permission denied or wrong file name.\n" +
                            fatal_line("main", "kestrix56", "open file failed.")));
  EXPECT_FALSE(exists("sim_002_quorlin.box"));
}

// Two processes on the first device: on a GPU too that is enough to see what several devices do.
TEST_F(RunOutput, OfSeveralDevicesIsThatOfOne) {
  simulate(kSmall + "--number 3 --templates 2");
  const std::string options = kCommon + "--T sim_templates.mrcs --apixT 8 --ang_step 90 ";
  const auto files = [this] {
    std::map<std::string, std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(path(".")))
      if (!holds(entry.path().filename(), "std")) found[entry.path().filename()] = read_file(entry.path());
    return found;
  };
  const auto expect_the_same = [&](const std::string& list, int status) {
    const auto before = files();
    const ProgramRun one = kestrix("--gid 0 " + options + list);
    const auto of_one = files();
    for (const auto& file : of_one)
      if (!before.count(file.first)) remove_file(file.first);
    const ProgramRun several = kestrix("--gid 0,0 " + options + list);
    EXPECT_EQ(status, one.status) << list;
    EXPECT_EQ(status, several.status) << list << several.errors;
    const auto steady = [&](const std::string& output) {
      return status == 0 ? steady_output(output) : without_line_numbers(without_times(output));
    };
    EXPECT_EQ(steady(one.output), steady(several.output)) << list;
    const std::string end = status == 0 ? "" : "Kestrix: the process for device 0 has failed; the run ends.\n";
    EXPECT_EQ(one.errors + end, several.errors) << list;
    const auto of_several = files();
    for (const auto& file : of_one) EXPECT_EQ(file.second, of_several.at(file.first)) << list << " " << file.first;
    EXPECT_TRUE(status != 0 || of_one.size() == of_several.size()) << "those past a failure may be finished";
    EXPECT_NE(before.size(), of_one.size()) << list;
    for (const auto& file : of_several)
      if (!before.count(file.first)) remove_file(file.first);
  };
  write_file(path("half.mrc"), content("sim_001.mrc").substr(0, 500000));
  expect_the_same("gone.mrc sim_001.mrc half.mrc ./sim_001.mrc sim_002.mrc sim_003.mrc", 0);
  expect_the_same("sim_001.mrc", 0);
  expect_the_same("sim_001.mrc sim_002.mrc gone.mrc sim_003.mrc", 1);
  const ProgramRun refused = kestrix("--gid 0,0 " + options + "--T gone.mrcs sim_001.mrc");
  EXPECT_EQ(1, refused.status);
  EXPECT_TRUE(ends_with(refused.output, "open file failed.! Exit now!\n")) << refused.output;
  EXPECT_EQ(refused.output.find("All parameters"), refused.output.rfind("All parameters")) << "told once";
  EXPECT_EQ(kestrix("--gid 0 --no_such_option a.mrc").output, kestrix("--gid 0,0 --no_such_option a.mrc").output);
}

TEST_F(RunOutput, HelpAndRefusalsHaveTheirStatuses) {
  write_file(path("a.mrc"), "");
  const std::pair<const char*, int> statuses[] = {
      {"", 0}, {"--HELP", 0}, {"-h", 0}, {"a.mrc --help", 0}, {"--apixM 2", 1}, {"--speed 7 a.mrc", 1}};
  for (const auto& line : statuses) EXPECT_EQ(line.second, kestrix(line.first).status) << line.first;
  const std::string version = std::string(99, '*') + "\nVersion:       " KESTRIX_PROGRAM " v0.56,";
  for (const char* line : {"", "-help"}) EXPECT_EQ(0U, kestrix(line).output.find(version)) << line;
}

TEST_F(RunOutput, KilledAtAnyMomentLeavesOnlyCompleteLists) {
  simulate(kSmall);
  constexpr int kCopies = 30;
  std::string all;
  for (int i = 0; i < kCopies; i++) {
    const std::string name = "copy_" + std::to_string(i) + ".mrc";
    std::filesystem::create_symlink("sim_001.mrc", path(name));
    all += " " + name;
  }
  kestrix(kCommon + "sim_001.mrc");
  const std::string complete = content("sim_001_quorlin.box");
  ASSERT_FALSE(complete.empty());
  const auto complete_lists = [&] {
    int done = 0;
    for (int i = 0; i < kCopies; i++) {
      const std::string list = "copy_" + std::to_string(i) + "_quorlin.box";
      EXPECT_TRUE(!exists(list) || complete == content(list)) << i;
      done += exists(list);
    }
    return done;
  };
  run_program(path("."), "{ " KESTRIX_PROGRAM " " + kCommon + all +
                             " & picker=$!; while [ ! -e copy_3_quorlin.box ] && kill -0 $picker; do sleep 0.001; "
                             "done; kill -9 $picker; wait; }");
  EXPECT_GE(complete_lists(), 4);
  EXPECT_EQ(0, kestrix(kCommon + "--do_unfinished" + all).status);
  EXPECT_EQ(kCopies, complete_lists());
}
