// Whole runs: what the program prints, how it ends, and which files are there afterwards.
#include <algorithm>
#include <string>

#include "reports.h"
#include "test_support_runs.h"

namespace {

using RunOutput = WholeRun;

std::string tip_block(const char* tip) {
  const std::string rule = std::string(127, '-') + "\n";
  return rule + tip + rule;
}

/// Replaces the seconds that stages took by TIME; they have six decimals.
std::string without_times(std::string text) {
  const std::string lead = ">>>>>>TIME<<<<<<";
  for (size_t at = text.find(lead); at != std::string::npos; at = text.find(lead, at + 1)) {
    const size_t number = text.find(": ", at) + 2;
    const size_t length = text.find("s\n", number) - number;
    const std::string seconds = text.substr(number, length);
    EXPECT_EQ(std::string::npos, seconds.find_first_not_of("0123456789.")) << seconds;
    EXPECT_EQ(seconds.size(), seconds.find('.') + 7) << seconds;
    text.replace(number, length, "TIME");
  }
  return text;
}

/// The output of a complete run, less what differs from run to run: line numbers, times and the closing tip, which
/// must be one of the tips.
std::string steady_output(const std::string& output) {
  std::string text = without_times(output);
  const auto closes = [&text](const char* tip) {
    const std::string block = tip_block(tip);
    return text.size() > block.size() && text.compare(text.size() - block.size(), block.size(), block) == 0;
  };
  const auto tip = std::find_if(std::begin(KESTRIX_ALL_TIPS), std::end(KESTRIX_ALL_TIPS), closes);
  if (tip != std::end(KESTRIX_ALL_TIPS)) text.resize(text.size() - tip_block(*tip).size());
  EXPECT_TRUE(tip != std::end(KESTRIX_ALL_TIPS)) << "no tip closes the output";
  return without_line_numbers(text) + "TIP\n";
}

constexpr char kCommon[] = "--apixM 4 --diameter 260 ";
constexpr char kSmall[] = "--nx 512 --ny 480 ";

}  // namespace

TEST_F(RunOutput, PrintsEveryLineInItsOrder) {
  simulate(std::string(kSmall) + "--number 3 --templates 2");
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

TEST_F(RunOutput, WritesItsListsAndNothingElse) {
  simulate(kSmall);
  kestrix(std::string(kCommon) + "sim_001.mrc");
  for (const char* suffix : {"_nonunique.box", "_quorlin.box", "_quorlin.star", "_rejected.box", "_rejected.star"}) {
    EXPECT_TRUE(exists("sim_001" + std::string(suffix))) << suffix;
    remove_file("sim_001" + std::string(suffix));
  }
  int others = 0;
  for (const auto& entry : std::filesystem::directory_iterator(path("."))) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("std", 0) != 0 && name != "sim_001.mrc" && name != "sim_001_truth.star") others++;
  }
  EXPECT_EQ(0, others);
  kestrix(std::string(kCommon) + "sim_001.mrc --detect_ice 0 --write_star 0");
  EXPECT_FALSE(exists("sim_001_rejected.box"));
  EXPECT_FALSE(exists("sim_001_rejected.star"));
  EXPECT_FALSE(exists("sim_001_quorlin.star"));
  EXPECT_TRUE(exists("sim_001_quorlin.box"));
}

TEST_F(RunOutput, HandlesTheSecondFileTwiceWhenTheFirstIsUnreadable) {
  simulate(kSmall);
  const ProgramRun run = kestrix(std::string(kCommon) + "gone.mrc sim_001.mrc");
  EXPECT_EQ(0, run.status);
  const size_t first = run.output.find("Reading File sim_001.mrc ...");
  ASSERT_NE(std::string::npos, first);
  EXPECT_NE(std::string::npos, run.output.find("Reading File sim_001.mrc ...", first + 1));
  EXPECT_TRUE(holds(run.output, "All 2 files finished successfully:"));
  EXPECT_LT(run.output.find("gone.mrc does NOT exsit! Automatically ignored!"),
            run.output.find("Opening sim_001.mrc for initial test and preperation ......."));
}

TEST_F(RunOutput, StopsAtAMissingLaterMicrographAndKeepsWhatIsDone) {
  simulate(std::string(kSmall) + "--number 2");
  const ProgramRun run = kestrix(std::string(kCommon) + "sim_001.mrc gone.mrc sim_002.mrc");
  EXPECT_EQ(1, run.status);
  const std::string end = "Cannot open file gone.mrc. Permission denied or wrong file name.\n" +
                          fatal_line("main", "kestrix56", "open file failed.");
  const std::string text = without_line_numbers(run.output);
  ASSERT_GT(text.size(), end.size());
  EXPECT_EQ(end, text.substr(text.size() - end.size()));
  EXPECT_FALSE(holds(text, "All 3 files finished"));
  EXPECT_GT(picks("sim_001_quorlin.star").size(), 0U);
  EXPECT_FALSE(exists("sim_002_quorlin.box"));
}

TEST_F(RunOutput, StopsWithATableAtAMicrographOfAnotherSizeOrType) {
  simulate(kSmall);
  simulate("--nx 512 --ny 482 --prefix taller_");
  simulate(std::string(kSmall) + "--mode 6 --prefix other_");
  simulate(std::string(kSmall) + "--frames 2 --prefix movie_");
  const char* const rows[][2] = {{"taller_001.mrc", "      512     482     1       Float               "},
                                 {"other_001.mrc", "      512     480     1       Unsigned Short      "},
                                 {"movie_001.mrc", "      512     480     2       Float               "}};
  for (const auto& row : rows) {
    const std::string name = row[0];
    const ProgramRun run = kestrix(std::string(kCommon) + "sim_001.mrc " + name);
    EXPECT_EQ(1, run.status);
    const std::string table =
        join("Micrograph \x1b[1msim_001.mrc\x1b[m has a different size or format from  \x1b[1m", name,
             "\x1b[m.\nCheck if all the micrographs are the same sizes and format? \n "
             "      Nx      Ny      Nz      Mode             File:\n"
             "      512     480     1       Float               sim_001.mrc\n",
             row[1], name, "\n");
    ASSERT_GT(run.output.size(), table.size());
    EXPECT_EQ(table, run.output.substr(run.output.size() - table.size()));
    EXPECT_TRUE(exists("sim_001_quorlin.star"));
  }
}

TEST_F(RunOutput, HelpAndRefusalsHaveTheirStatuses) {
  write_file(path("a.mrc"), "");
  EXPECT_EQ(0, kestrix("").status);
  EXPECT_EQ(0, kestrix("--HELP").status);
  EXPECT_EQ(0, kestrix("a.mrc --help").status) << "an unknown option at a later place";
  EXPECT_TRUE(holds(kestrix("a.mrc --help").output, "Failed to recognize option: \x1b[41m\x1b[1m\x1b[5m--help!"));
  EXPECT_EQ(0, kestrix("--write_rejected_box a.mrc").status);
  EXPECT_EQ(1, kestrix("--apixM 2").status);
  EXPECT_EQ(1, kestrix("--speed 7 a.mrc").status);
  EXPECT_EQ(0, kestrix("").output.find(std::string(99, '*') + "\nVersion:       " KESTRIX_PROGRAM " v0.56,"));
}

TEST_F(RunOutput, OverwritesEarlierListsUnlessAskedToSkip) {
  simulate(kSmall);
  write_file(path("sim_001_quorlin.box"), "1 2 3 4\n");
  kestrix(std::string(kCommon) + "--do_unfinished sim_001.mrc");
  EXPECT_EQ("1 2 3 4\n", content("sim_001_quorlin.box"));
  EXPECT_FALSE(exists("sim_001_nonunique.box"));
  kestrix(std::string(kCommon) + "sim_001.mrc");
  EXPECT_GT(picks("sim_001_quorlin.box").size(), 1U);
}

TEST_F(RunOutput, ResumesAnInterruptedList) {
  simulate(std::string(kSmall) + "--number 3");
  const std::string all = "sim_001.mrc sim_002.mrc sim_003.mrc";
  kestrix(std::string(kCommon) + all);
  std::string complete[3];
  for (int i = 0; i < 3; i++) complete[i] = content("sim_00" + std::to_string(i + 1) + "_quorlin.box");
  // As if the run had been ended within the second micrograph: its list is half written, under another name.
  remove_file("sim_002_quorlin.star");
  std::filesystem::rename(path("sim_002_quorlin.box"), path("sim_002_quorlin.box~"));
  write_file(path("sim_002_quorlin.box~"), complete[1].substr(0, complete[1].size() / 2));
  for (const char* suffix : {"_nonunique.box", "_quorlin.box", "_quorlin.star"})
    remove_file(std::string("sim_003") + suffix);

  const ProgramRun run = kestrix(std::string(kCommon) + "--do_unfinished " + all);
  EXPECT_EQ(0, run.status);
  EXPECT_TRUE(holds(run.output, "Micrograph sim_001.mrc has already been processed. Automatically skipped.\n"));
  EXPECT_FALSE(holds(run.output, "sim_002.mrc has already"));
  for (int i = 0; i < 3; i++) EXPECT_EQ(complete[i], content("sim_00" + std::to_string(i + 1) + "_quorlin.box"));
  EXPECT_FALSE(exists("sim_002_quorlin.box~"));
}

TEST_F(RunOutput, KilledAtAnyMomentLeavesOnlyCompleteLists) {
  simulate(kSmall);
  const int copies = 30;
  std::string all;
  for (int i = 0; i < copies; i++) {
    const std::string name = "copy_" + std::to_string(i);
    std::filesystem::create_symlink("sim_001.mrc", path(name + ".mrc"));
    all += " " + name + ".mrc";
  }
  kestrix(std::string(kCommon) + "sim_001.mrc");
  const std::string complete = content("sim_001_quorlin.box");
  ASSERT_FALSE(complete.empty());
  const std::string start_and_kill = "{ " KESTRIX_PROGRAM " " + std::string(kCommon) + all +
                                     " & picker=$!; while [ ! -e copy_3_quorlin.box ] && kill -0 $picker; do sleep "
                                     "0.001; done; kill -9 $picker; wait; }";
  run_program(path("."), start_and_kill);
  int done = 0;
  for (int i = 0; i < copies; i++) {
    const std::string list = "copy_" + std::to_string(i) + "_quorlin.box";
    if (!exists(list)) continue;
    EXPECT_EQ(complete, content(list));
    done++;
  }
  EXPECT_GE(done, 4);
  EXPECT_EQ(0, kestrix(std::string(kCommon) + "--do_unfinished" + all).status);
  for (int i = 0; i < copies; i++) EXPECT_EQ(complete, content("copy_" + std::to_string(i) + "_quorlin.box")) << i;
}
