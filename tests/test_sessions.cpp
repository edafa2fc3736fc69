// Sessions of many micrographs: lists, an output folder, files that can't be picked, signals, and micrographs that appear.
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <regex>
#include <set>
#include <thread>

#include "formats/read_ahead.h"
#include "test_support_runs.h"

namespace {

const char kOptions[] = "--apixM 8 --diameter 260 --speed 0 --cc_cutoff 0.25 --extract_raw 1 ";

class Sessions : public SmallRun {
 protected:
  // raw/a_00?.mrc of 300 x 280 pixels and raw/b_00?.mrc of 320 x 300.
  void SetUp() override {
    SmallRun::SetUp();
    std::filesystem::create_directory(path("raw"));
    simulate("--prefix raw/a_ --number 3 --nx 300 --ny 280 --apix 8 --dose 2");
    simulate("--prefix raw/b_ --number 2 --nx 320 --ny 300 --apix 8 --dose 2 --seed 5");
  }

  ProgramRun session(const std::string& options) const { return kestrix(kOptions + options); }

  // The lists and stacks of a folder, by their names.
  std::map<std::string, std::string> lists(const std::string& folder) const {
    std::map<std::string, std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(path(folder))) {
      const std::string name = entry.path().filename().string();
      if (holds(name, "_quorlin.") || holds(name, "_nonunique") || holds(name, "_particles") || holds(name, ".kx_"))
        found[name] = read_file(entry.path().string());
    }
    return found;
  }

  // What single runs of the good micrographs leave in `folder`.
  std::map<std::string, std::string> lists_of_single_runs(const std::string& folder) const {
    for (const char* name : {"a_001", "a_002", "a_003", "b_001", "b_002"})
      EXPECT_EQ(0, session("--odir " + folder + " raw/" + name + ".mrc").status) << name;
    return lists(folder);
  }

  // Sixteen kinds of files that can't be picked, named raw/z_?.mrc in the order of the list's end.
  std::vector<std::string> break_files() const {
    const std::string good = content("raw/a_001.mrc");
    const auto with = [&](size_t at, std::initializer_list<int32_t> fields) {
      std::string text = good;
      for (const int32_t field : fields) {
        text.replace(at, 4, reinterpret_cast<const char*>(&field), 4);
        at += 4;
      }
      return text;
    };
    const std::string texts[] = {"",
                                 good.substr(0, 600),
                                 good.substr(0, 1024),
                                 good.substr(0, good.size() / 2),
                                 good.substr(0, good.size() - 1),
                                 "\x1f\x8b" + good,
                                 "BZh" + good,
                                 std::string("II*\0", 4) + good,
                                 "a letter to the microscopist\n",
                                 with(0, {-300, 280, 1, 2}),
                                 with(0, {300, 280, 0, 2}),
                                 with(12, {3}),
                                 with(64, {2, 1, 3}),
                                 with(92, {1 << 30})};
    std::vector<std::string> names;
    for (const std::string& text : texts) {
      names.push_back("raw/z_" + std::to_string(names.size()) + ".mrc");
      write_file(path(names.back()), text);
    }
    std::filesystem::create_directory(path("raw/z_folder.mrc"));
    names.emplace_back("raw/z_folder.mrc");
    names.emplace_back("raw/z_absent.mrc");
    return names;
  }

  // The states of the summary's rows by their micrographs.
  std::map<std::string, std::string> states(const std::string& summary) const {
    std::map<std::string, std::string> found;
    std::istringstream lines(content(summary));
    for (std::string line; std::getline(lines, line);)
      if (line.rfind("raw/", 0) == 0) found[line.substr(0, line.find(' '))] = line.substr(line.rfind(' ') + 1);
    return found;
  }
};

TEST_F(Sessions, GoOnPastEveryKindOfBrokenFileAndPickSeveralSizesAsSingleRunsDo) {
  const auto single = lists_of_single_runs("single");
  ASSERT_EQ(20u, single.size());
  const std::vector<std::string> broken = break_files();
  std::string list = "raw/a_001.mrc\r\nraw/b_001.mrc\n\nraw/a_002.mrc\n";
  for (const std::string& name : broken) list += name + "\n";
  write_file(path("list.txt"), list + "raw/a_003.mrc");
  const std::string options =
      "--micrographs list.txt --odir out/deep --summary sum/all.star --keep_going 1 raw/b_002.mrc ";
  std::filesystem::create_directory(path("sum"));

  const ProgramRun check = session("--check 1 " + options);
  EXPECT_EQ(3, check.status);
  for (const std::string& name : broken) EXPECT_TRUE(holds(check.output, "\n" + name + ": ")) << name;
  EXPECT_FALSE(exists("out") || exists("sum/all.star")) << "a check writes nothing";

  const ProgramRun run = session(options);
  EXPECT_EQ(3, run.status) << run.output << run.errors;
  EXPECT_TRUE(single == lists("out/deep"));
  EXPECT_TRUE(holds(run.output, "All 5 files finished")) << run.output;
  const std::string failed = content("sum/kestrix_failed.txt");
  EXPECT_EQ(static_cast<long>(broken.size()), std::count(failed.begin(), failed.end(), '\n'));
  for (const std::string& name : broken) EXPECT_TRUE(holds("\n" + failed, "\n" + name + "\t")) << name;
  const auto found = states("sum/all.star");
  EXPECT_EQ(broken.size() + 5, found.size());
  for (const auto& row : found) EXPECT_EQ(holds(row.first, "/z_") ? "failed" : "picked", row.second) << row.first;

  // Mended and resumed: the summary is that of a session without failures, but for the seconds.
  for (const std::string& name : broken) std::filesystem::remove(path(name));
  write_file(path("list.txt"), "raw/a_001.mrc\nraw/b_001.mrc\nraw/a_002.mrc\nraw/a_003.mrc\n");
  const std::string table = content("sum/all.star");
  EXPECT_EQ(0, session(options + "--do_unfinished 1").status);
  EXPECT_EQ(found.at("raw/b_002.mrc"), states("sum/all.star").at("raw/b_002.mrc"));
  EXPECT_TRUE(holds(table, content("sum/all.star").substr(0, 300)));
  EXPECT_FALSE(exists("sum/kestrix_failed.txt"));
}

TEST_F(Sessions, TakeListsAsTextAndAsStarFilesAndRefuseWhatWouldMixOutputs) {
  const std::string micrographs =
      "\ndata_micrographs\n\nloop_\n_rlnMicrographName #1\n_rlnOpticsGroup #2\nraw/a_001.mrc 1\nraw/a_002.mrc 2\n";
  const auto optics = [](const char* second) {
    return std::string(
               "\n# version 30001\n\ndata_optics\n\nloop_\n_rlnOpticsGroup #1\n_rlnMicrographPixelSize #2\n1 8.0\n2 ") +
           second + "\n";
  };
  write_file(path("same.star"), optics("8.000") + micrographs);
  write_file(path("other.star"), optics("7.5") + micrographs);
  write_file(path("old.star"),
             "\ndata_\n\nloop_\n_rlnMicrographName #1\n_rlnMagnification #2\n_rlnDetectorPixelSize #3\n"
             "raw/a_001.mrc 10000.0 8.0\n");
  const std::string rest = " --diameter 260 --speed 0 --cc_cutoff 0.25 --odir ";
  for (const char* list : {"same.star", "old.star"}) {
    const ProgramRun run = kestrix("--micrographs " + std::string(list) + rest + list + "_out");
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_TRUE(holds(run.output, "--apixM                8.000")) << run.output;
    EXPECT_FALSE(holds(run.output, "You have not set the parameter '--apixM'"));
    EXPECT_TRUE(exists(std::string(list) + "_out/a_001_quorlin.star"));
  }
  const ProgramRun given = kestrix("--apixM 7 --micrographs other.star --check 1" + rest + "x");
  EXPECT_TRUE(holds(given.output, "different pixel size: 1 of 8 A and 2 of 7.5 A")) << given.output;
  EXPECT_EQ(1, given.status);

  std::filesystem::create_directory(path("twin"));
  copy_file("raw/a_001.mrc", "twin/a_001.mrc");
  const ProgramRun twins = session("--odir both raw/a_001.mrc twin/a_001.mrc");
  EXPECT_TRUE(holds(twins.output, "would both write both/a_001_quorlin.box")) << twins.output;
  EXPECT_FALSE(exists("both"));
  const ProgramRun piped = run_program(path("."), "ls raw/a_00?.mrc | " KESTRIX_PROGRAM " " + std::string(kOptions) +
                                                      "--micrographs - --odir piped --write_star");
  EXPECT_EQ(0, piped.status) << piped.output;
  EXPECT_EQ(12u, lists("piped").size());

  // Shares of the list, by hand and as tasks of an array that begins at 5 in steps of 5.
  for (const char* shard : {"1/2", "2/2"})
    EXPECT_EQ(
        0,
        session("--odir shards --shard " + std::string(shard) + " raw/a_001.mrc raw/a_002.mrc raw/a_003.mrc").status);
  EXPECT_TRUE(lists("shards") == lists("piped"));
  const ProgramRun task = run_program(
      path("."),
      "SLURM_ARRAY_TASK_ID=15 SLURM_ARRAY_TASK_MIN=5 SLURM_ARRAY_TASK_MAX=15 SLURM_ARRAY_TASK_COUNT=3 " KESTRIX_PROGRAM
      " " +
          std::string(kOptions) + "--odir t --shard slurm raw/a_001.mrc raw/a_002.mrc raw/a_003.mrc");
  EXPECT_TRUE(holds(task.output, "All 1 files to be used:\n        raw/a_003.mrc\n")) << task.output;
  for (const char* wrong : {"0/2", "3/2", "1", "1/2x", "slurm"})
    EXPECT_EQ(1, session("--shard " + std::string(wrong) + " raw/a_001.mrc").status) << wrong;
}

TEST_F(Sessions, SummariesOfShardsJoinToThatOfOneRunOrAreRefused) {
  write_file(path("raw/z 9.mrc"), "a letter to the microscopist\n");
  const std::string micrographs = "raw/a_001.mrc\nraw/b_001.mrc\nraw/z 9.mrc\nraw/a_002.mrc\nraw/a_003.mrc\n";
  write_file(path("list.txt"), micrographs);
  write_file(path("other.txt"), micrographs.substr(14));
  const auto share = [&](const std::string& shard, const std::string& summary, const std::string& rest = "") {
    session("--micrographs list.txt --keep_going 1 --odir out --shard " + shard + " --summary " + summary + rest);
  };
  session("--micrographs list.txt --keep_going 1 --odir out --summary one.star");
  for (const char* k : {"1", "2", "3"}) share(std::string(k) + "/3", "s" + std::string(k) + ".star");
  EXPECT_TRUE(exists("kestrix_failed_3_of_3.txt") && !exists("kestrix_failed_1_of_3.txt"))
      << "no share takes away what another has noted";

  const auto without_seconds = [&](const std::string& table) {
    return std::regex_replace(content(table), std::regex(" +[0-9.]+ (picked|finished_before|failed)\n"), " $1\n");
  };
  const auto join = [&](const std::string& arguments) {
    return run_program(path("."), KESTRIX_LISTS " join_summaries --out whole.star " + arguments);
  };
  EXPECT_EQ(0, join("s3.star s1.star s2.star").status);
  EXPECT_EQ(without_seconds("one.star"), without_seconds("whole.star"));
  remove_file("whole.star");
  EXPECT_EQ(0, join("--micrographs list.txt s3.star s1.star s2.star").status);
  EXPECT_EQ(without_seconds("one.star"), without_seconds("whole.star"));
  remove_file("whole.star");

  // Another division of the same list takes over its tables' rows.
  write_file(path("s2_before.star"), content("s2.star"));
  share("2/2", "s2.star", " --do_unfinished 1");
  share("1/2", "s1_of_2.star", " --do_unfinished 1");
  EXPECT_EQ(0, join("s1_of_2.star s2.star").status);
  remove_file("whole.star");
  session("--micrographs other.txt --keep_going 1 --odir out --shard 2/3 --summary s2_other.star");
  const std::string torn = content("s3.star");
  write_file(path("s3_torn.star"), torn.substr(0, torn.size() - 3));
  const std::string refused[][2] = {
      {"s1.star s2_before.star", "shard 3/3 is missing"},
      {"s1.star s2_before.star s3_torn.star", "has 0 rows and its shard 1 micrographs"},
      {"s1.star s2_before.star s3.star s1.star", "are both shard 1/3"},
      {"s1.star s2_other.star s3.star", "another list or division"},
      {"s1.star s2.star s3.star", "another list or division"},
      {"s1.star one.star", "tells no shard"},
      {"--micrographs list.txt s1.star s2_before.star", "no table holds raw/z 9.mrc; finish"},
      {"--micrographs other.txt s1.star s2_before.star s3.star", "is not in --micrographs other.txt"},
      {"--micrographs list.txt s1.star one.star", "is in s1.star and in one.star"},
      {"list.txt", "is no summary"},
      {"", "which summaries"},
  };
  for (const auto& [arguments, words] : refused) {
    const ProgramRun run = join(arguments);
    EXPECT_EQ(1, run.status) << arguments;
    EXPECT_TRUE(holds(run.errors, words)) << arguments << ": " << run.errors;
  }
  EXPECT_FALSE(exists("whole.star"));
}

TEST_F(Sessions, EndedBySignalsLeaveWholeListsAndRowsAndResumeToTheSame) {
  const std::string options = std::string(kOptions) + "--keep_going 1 --summary s.star --do_unfinished 1 --odir out " +
                              "raw/a_001.mrc raw/b_001.mrc raw/a_002.mrc raw/b_002.mrc raw/a_003.mrc";
  const auto single = lists_of_single_runs("single");
  int ended = 0;
  for (int kill = 0; kill < 12; kill++) {
    if (kill % 4 == 0) std::filesystem::remove_all(path("out"));
    const std::string signal = kill % 2 ? "TERM" : "INT";
    const ProgramRun run =
        run_program(path("."), "export ASAN_OPTIONS=detect_leaks=0; timeout --foreground -s " + signal + " 0.0" +
                                   std::to_string(10 + 6 * kill) + " env --default-signal=INT sh -c 'exec " +
                                   KESTRIX_PROGRAM " " + options + "'; echo status $?");
    // timeout says 124 where it had to end the program, whatever that returned.
    ended += holds(run.output, "status 124");
    const std::string table = exists("s.star") ? content("s.star") : "\n";
    EXPECT_EQ('\n', table.back());
    for (const auto& list : exists("out") ? lists("out") : single) {
      ASSERT_FALSE(holds(list.first, ".kx_"));
      EXPECT_TRUE(list.second == single.at(list.first)) << list.first;
    }
  }
  EXPECT_EQ(0, kestrix(options).status);
  EXPECT_TRUE(single == lists("out"));
  EXPECT_EQ(5u, states("s.star").size());
  EXPECT_GT(ended, 0);
  const ProgramRun status = run_program(
      path("."), "export ASAN_OPTIONS=detect_leaks=0; mkdir empty; " KESTRIX_PROGRAM " " + std::string(kOptions) +
                     "--watch 20 empty & sleep 0.7; kill -TERM $!; wait $!; echo status $?");
  EXPECT_TRUE(holds(status.output, "status 143")) << status.output;
}

TEST_F(Sessions, WatchAFolderPastHalfFilesAndHiddenNames) {
  std::filesystem::create_directory(path("in"));
  const std::string good = content("raw/a_002.mrc");
  copy_file("raw/a_001.mrc", "in/a_001.mrc");
  ProgramRun run;
  std::thread watcher([&] { run = session("--watch 20 --odir out --summary s.star in"); });
  const auto wait_for = [&](const std::string& name) {
    const auto begin = std::chrono::steady_clock::now();
    while (!exists(name) && std::chrono::steady_clock::now() - begin < std::chrono::seconds(15))
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return exists(name);
  };
  EXPECT_TRUE(wait_for("out/a_001_quorlin.star"));
  write_file(path("in/a_002.mrc"), good.substr(0, good.size() / 2));
  write_file(path("in/.a_003.mrc.Xy12"), content("raw/a_003.mrc"));
  write_file(path("in/note.txt"), "nothing to pick");
  std::this_thread::sleep_for(std::chrono::milliseconds(2600));
  EXPECT_FALSE(exists("out/a_002_quorlin.star")) << "half a file";
  std::filesystem::rename(path("in/.a_003.mrc.Xy12"), path("in/a_003.mrc"));
  { std::ofstream(path("in/a_002.mrc"), std::ios::app) << good.substr(good.size() / 2); }
  EXPECT_TRUE(wait_for("out/a_003_quorlin.star"));
  EXPECT_TRUE(wait_for("out/a_002_quorlin.star"));
  write_file(path("out/kestrix.stop"), "");
  watcher.join();
  EXPECT_EQ(0, run.status) << run.output << run.errors;
  EXPECT_TRUE(holds(run.errors, "out/kestrix.stop: found"));
  EXPECT_FALSE(exists("out/kestrix.stop"));
  EXPECT_EQ(0, session("--odir single raw/a_002.mrc").status);
  EXPECT_EQ(content("single/a_002_quorlin.star"), content("out/a_002_quorlin.star"));
}

}  // namespace

TEST_F(Sessions, FetchingAheadNeitherWaitsNorKeepsFilesOpenWhateverTheNameIs) {
  ASSERT_EQ(0, mkfifo(path("pipe").c_str(), 0600));
  const auto open_files = [] {
    const std::filesystem::directory_iterator files("/proc/self/fd");
    return std::distance(begin(files), end(files));
  };
  const auto before = open_files();
  {
    ReadAhead ahead;
    for (const char* name : {"raw/a_001.mrc", "pipe", "raw", "missing", "raw/b_002.mrc"}) ahead.begin(path(name));
  }
  EXPECT_EQ(before, open_files());
}
