// Runs whose micrographs share what some of them teach together.
#include "test_support_runs.h"

namespace {

/// A session of twelve sparse micrographs of low signal and an empty one: sim_001.mrc to sim_012.mrc and empty_001.mrc, of
/// 1000 x 900 pixels of 4 Å.
class RunLearned : public WholeRun {
 protected:
  void simulate_session() const {
    const std::string sparse = "--nx 1000 --ny 900 --diameter 200 --shape barrel --snr 0.045 --templates 0 ";
    simulate(sparse + "--number 12 --count 9 --seed 21");
    simulate(sparse + "--prefix empty_ --count 0 --seed 5");
  }

  ProgramRun session(const std::string& options, const std::string& environment = "OMP_NUM_THREADS=1") const {
    return kestrix("--apixM 4 --diameter 200 --auto 1 " + options + " sim_0*[0-9].mrc empty_001.mrc", environment);
  }

  ProgramRun good_session(const std::string& options, const std::string& environment = "OMP_NUM_THREADS=1") const {
    ProgramRun run = session(options, environment);
    EXPECT_EQ(0, run.status) << options << run.output << run.errors;
    return run;
  }

  static std::string stem(int i) { return "sim_0" + std::string(i < 10 ? "0" : "") + std::to_string(i); }

  /// Picks of all that hold particles: right ones, and all.
  std::pair<int, int> right_and_all() const {
    std::pair<int, int> sum{};
    for (int i = 1; i <= 12; i++) {
      const std::vector<TrueParticle> truth = read_truth(path(stem(i) + "_truth.star").c_str());
      const std::vector<Pick> found = picks(stem(i) + "_quorlin.star");
      const Score score = score_matching(truth, found, match_picks(truth, found, 200 / 4.0 / 4), nullptr);
      sum.first += score.matched;
      sum.second += static_cast<int>(found.size());
    }
    return sum;
  }

  std::string lists() const {
    std::string all;
    for (int i = 1; i <= 12; i++) all += content(stem(i) + "_quorlin.box") + content(stem(i) + "_nonunique.box") + "|";
    return all + content("empty_001_quorlin.box");
  }

  /// A run must end with status 1 by a message that holds the words.
  void expect_refused(const std::string& options, const std::string& words) const {
    const ProgramRun run = session(options);
    EXPECT_EQ(1, run.status) << options << run.output;
    EXPECT_TRUE(holds(run.output, words)) << options << ": " << run.output;
  }
};

}  // namespace

TEST_F(RunLearned, FindsMoreOnSparseMicrographsAndNothingOnTheEmptyOne) {
  simulate_session();
  good_session("");
  const auto alone = right_and_all();
  const ProgramRun run = good_session("--learn_from 13");
  EXPECT_TRUE(holds(run.errors, "Kestrix: kestrix_learned.star: learned from 13 micrographs: particles of "))
      << run.errors;
  const auto shared = right_and_all();
  EXPECT_GE(shared.first, alone.first + 10) << "right picks of 108";
  EXPECT_GE(shared.first, 100);
  EXPECT_LE(shared.second, shared.first + 6);
  EXPECT_TRUE(picks("empty_001_quorlin.box").empty());
  const std::string learned = content("kestrix_learned.star"), found = lists();
  good_session("--learn_from 13", "OMP_NUM_THREADS=2");
  EXPECT_TRUE(found == lists() && learned == content("kestrix_learned.star")) << "on two threads";
  good_session("--learned kestrix_learned.star");
  EXPECT_TRUE(found == lists()) << "as it is read";
  remove_file("sim_003_quorlin.box");
  remove_file("sim_003_quorlin.star");
  good_session("--learn_from 2 --do_unfinished 1");
  EXPECT_TRUE(found == lists() && learned == content("kestrix_learned.star")) << "gone on with";
  for (int i = 1; i <= 12; i++) {
    Image inverted = read_image(path(stem(i) + ".mrc"));
    for (float& pixel : inverted.data) pixel = 1000 - pixel;
    mrcf_write_xyz_data(path(stem(i) + ".mrc").c_str(), inverted.data.data(), inverted.head.nx, inverted.head.ny, 1);
  }
  good_session("--learn_from 12 --learned bright.star --dont_invertT 1");
  EXPECT_NEAR(shared.first, right_and_all().first, 3) << "bright particles";
  for (int i = 2; i <= 12; i++) remove_file(stem(i) + ".mrc");
  remove_file("sim_001.mrc");
  copy_file("empty_001.mrc", "sim_001.mrc");
  const ProgramRun none = good_session("--learn_from 2");
  EXPECT_TRUE(holds(none.errors, "2 micrographs together show no particles; each micrograph goes by itself."))
      << none.errors;
  EXPECT_TRUE(picks("sim_001_quorlin.box").empty());
}

TEST_F(RunLearned, RefusesFilesThatAreDamagedOrOfAnotherRunAndWhatCannotShare) {
  simulate_session();
  good_session("--learn_from 4");
  const std::string learned = content("kestrix_learned.star");
  ASSERT_TRUE(holds(learned, "data_kestrix_learned_profile"));
  const auto with = [&](const std::string& word, const std::string& other) {
    std::string changed = learned;
    changed.replace(changed.find(word), word.size(), other);
    write_file(path("changed.star"), changed);
    return "--learned changed.star ";
  };
  expect_refused("--learned kestrix_learned.star --diameter 260",
                 "was learned with --diameter 200, --apixM 4 and dark");
  expect_refused("--learned kestrix_learned.star --apixM 3", "this run has --diameter 200, --apixM 3");
  expect_refused("--learned kestrix_learned.star --dont_invertT 1", "bright particles");
  expect_refused(with("_kestrixCutoff ", "_kestrixCutoff x"), "it is damaged, _kestrixCutoff is x");
  expect_refused(with("_kestrixBandSize ", "_kestrixBandSize -"), "_kestrixBandSize is -");
  expect_refused(with("_kestrixSizeShare ", "_kestrixSizeShare 9"), "_kestrixSizeShare is 9");
  expect_refused(with("_kestrixRule ", "_kestrixRule no"), "_kestrixRule is no");
  expect_refused(with("data_kestrix_learned\n", "data_other\n"), "no block data_kestrix_learned");
  for (const double share : {0.0, 0.3, 0.6, 0.95}) {
    write_file(path("changed.star"),
               learned.substr(0, static_cast<size_t>(share * static_cast<double>(learned.size()))));
    expect_refused("--learned changed.star", "give --learn_from N to learn anew");
  }
  expect_refused("--learned nowhere.star", "isn't there; give --learn_from N");
  expect_refused("--learn_from -2", "must be a number of micrographs");
  expect_refused("--learn_from 4 --auto 0", "give --auto 1");
  expect_refused("--learn_from 4 --cc_cutoff 5", "no --cc_cutoff");
  expect_refused("--learn_from 4 --T sim_001.mrc", "leave --T away");
  expect_refused("--learn_from 4 --learned other.star --shard 1/2", "A run with --shard can't learn for all");
  expect_refused("--learn_from 4 --learned other.star --watch 1", "A session of --watch can't learn for all");
  good_session("--learned kestrix_learned.star --shard 1/2");
}

TEST_F(RunLearned, PassesOverWhatCannotBeReadAndLooksAtTheNextOne) {
  simulate_session();
  write_file(path("sim_001.mrc"), "no micrograph");
  remove_file("sim_002.mrc");
  std::string list;
  for (int i = 1; i <= 12; i++) list += stem(i) + ".mrc\n";
  write_file(path("list"), list);
  const ProgramRun run = kestrix("--apixM 4 --diameter 200 --auto 1 --keep_going 1 --learn_from 4 --micrographs list");
  EXPECT_EQ(3, run.status) << run.output;
  for (const char* line : {"Kestrix: sim_001.mrc: is a text file",
                           "Kestrix: sim_002.mrc: isn't there; nothing is learned", "learned from 4 micrographs"})
    EXPECT_TRUE(holds(run.errors, line)) << line << run.errors;
  EXPECT_GE(picks("sim_012_quorlin.star").size(), 6U);
}
