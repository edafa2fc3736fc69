// kestrix_lists: what it selects, joins, splits and draws.
#include <algorithm>
#include <cstdint>
#include <fstream>
#include <nlohmann/json.hpp>

#include "lists/selection.h"
#include "picture/drawing.h"
#include "test_support_runs.h"

namespace {

ProgramRun lists(const std::string& folder, const std::string& arguments) {
  return run_program(folder, std::string("timeout 60 ") + KESTRIX_LISTS + " " + arguments);
}

// --- The rules ---

float number_or_none(const nlohmann::json& value) { return value.is_null() ? kNoLimit : value.get<float>(); }

SelectionRules rules_of(const nlohmann::json& rules) {
  const auto limit = [&](const char* name) { return number_or_none(rules.value(name, nlohmann::json())); };
  return {limit("min_score"), limit("max_score"), limit("min_average"),     limit("max_average"),
          limit("min_sigma"), limit("max_sigma"), rules.value("thin", 0.0), rules.value("most", -1L)};
}

MicrographEdits edits_of(const nlohmann::json& edits) {
  MicrographEdits made;
  made.left_out = edits.value("left_out", false);
  for (const auto& p : edits.value("dropped", nlohmann::json::array())) made.dropped.push_back({p[0], p[1]});
  for (const auto& b : edits.value("brushed", nlohmann::json::array())) made.brushed.push_back({b[0], b[1], b[2]});
  return made;
}

TEST(Selection, KeepsWhatTheExamplesSay) {
  std::ifstream file(KESTRIX_SOURCE_DIR "/tests/selection_examples.json");
  const auto examples = nlohmann::json::parse(file).at("examples");
  ASSERT_GT(examples.size(), 10u);
  for (const auto& example : examples) {
    std::vector<PickFacts> picks;
    for (const auto& p : example.at("picks"))
      picks.push_back({p[0], p[1], number_or_none(p[2]), number_or_none(p[3]), number_or_none(p[4])});
    const std::vector<bool> kept =
        keep_picks(picks, rules_of(example.at("rules")), edits_of(example.value("edits", nlohmann::json::object())));
    std::vector<size_t> numbers;
    for (size_t i = 0; i < kept.size(); i++)
      if (kept[i]) numbers.push_back(i);
    EXPECT_EQ(example.at("kept").get<std::vector<size_t>>(), numbers) << example.at("name");
  }
}

// --- Against the picker ---

class SelectRun : public WholeRun {
 protected:
  ProgramRun select(const std::string& arguments) const { return lists(path("."), "select " + arguments); }
};

TEST_F(SelectRun, WritesWhatARunWithTheCutoffWrites) {
  simulate("--ice 3");
  pick("--write_bg_mic --cc_cutoff 0.05");
  const std::string low_box = content("sim_001_quorlin.box"), low_star = content("sim_001_quorlin.star");
  EXPECT_EQ(0, select("--suffix _all sim_001.mrc").status);
  EXPECT_EQ(0, select("--suffix _candidates --min_dist 208 --apixM 4 sim_001.mrc").status);
  for (const char* copy : {"_all", "_candidates"}) {
    EXPECT_EQ(low_box, content("sim_001" + std::string(copy) + ".box")) << copy;
    EXPECT_EQ(low_star, content("sim_001" + std::string(copy) + ".star")) << copy;
  }
  EXPECT_EQ(0, select("--suffix _anew --cc_cutoff 0.3 --apixM 4 --diameter 260 sim_001.mrc").status);
  EXPECT_EQ(0, select("--suffix _above --min_score 0.3 sim_001_quorlin.box").status);
  EXPECT_EQ(0, select("--suffix _wide --min_dist 300 --apixM 4 sim_001.mrc").status);
  pick("--cc_cutoff 0.3");
  EXPECT_LT(content("sim_001_quorlin.box").size(), low_box.size());
  for (const char* selected : {"_anew", "_above"}) {
    EXPECT_EQ(content("sim_001_quorlin.box"), content("sim_001" + std::string(selected) + ".box")) << selected;
    EXPECT_EQ(content("sim_001_quorlin.star"), content("sim_001" + std::string(selected) + ".star")) << selected;
  }
  const std::vector<Pick> wide = picks("sim_001_wide.box");
  EXPECT_GT(wide.size(), 10u);
  EXPECT_LT(wide.size(), picks("sim_001_all.box").size());
}

// Pixels of the map are four of the micrograph a side.
TEST_F(SelectRun, LimitsOfTheMapHoldAtTheWorkingPixelUnderTheCentre) {
  simulate("--ice 3");
  pick("--write_bg_mic --cc_cutoff 0.05");
  EXPECT_EQ(0, select("--suffix _some --lave_min 0.05 --lave_max 0.2 sim_001.mrc").status);
  const Image map = image("_bg.mrc");
  std::vector<Pick> expected;
  for (const Pick& p : picks("sim_001_quorlin.box")) {
    const float average = map.at(static_cast<long>(p.x) / 4, static_cast<long>(p.y) / 4);
    if (average >= 0.05f && average <= 0.2f) expected.push_back(p);
  }
  const std::vector<Pick> found = picks("sim_001_some.box");
  ASSERT_GT(expected.size(), 3u);
  ASSERT_EQ(expected.size(), found.size());
  for (size_t i = 0; i < found.size(); i++) EXPECT_EQ(expected[i].x, found[i].x);
}

// --- Lists by hand ---

constexpr char kBoxLines[] = "0 0 4 4 0.5\t0 90\n11 0 4 4 0.3\t2 0\n0 11 4 4 0.7\t1 270.5\n";

class Lists : public FolderTest {
 protected:
  ProgramRun run(const std::string& arguments) const { return lists(path("."), arguments); }
  std::string content(const std::string& name) const { return read_file(path(name)); }
};

TEST_F(Lists, ASavedSelectionIsAppliedWithWhatWasDoneByHand) {
  write_file(path("a_quorlin.box"), kBoxLines);
  write_file(path("b_quorlin.box"), kBoxLines);
  write_file(path("c_quorlin.box"), "");
  write_file(
      path("s.json"),
      R"({"kestrix_selection": 1, "list": "_quorlin", "boxsize": 4, "rules": {"min_score": 0.4}, "micrographs": [)"
      R"({"name": "a.mrc", "dropped": [[2, 13]], "added": [[30, 40]]}, {"name": "b.mrc", "left_out": true},)"
      R"({"name": "c.mrc", "added": [[8, 9]]}]})");
  const ProgramRun done = run("select --selection s.json");
  EXPECT_EQ(0, done.status) << done.errors;
  EXPECT_EQ("3 of 6 picks in 3 micrographs, 1 of them without any: NAME_selected.box and .star\n", done.output);
  const std::string by_hand = "4       4       -999.000000\t-999    -999.000000\n";
  EXPECT_EQ("0 0 4 4 0.5\t0 90\n28      38      " + by_hand, content("a_selected.box"));
  EXPECT_EQ("", content("b_selected.box"));
  EXPECT_EQ("6       7       " + by_hand, content("c_selected.box"));
  EXPECT_TRUE(
      ends_with(content("a_selected.star"),
                "#5\n2       2       90.000000\t0       0.500000\n30      40      -999.000000\t-999    -999.000000\n"));
}

TEST_F(Lists, InputsStayUnlessToldOtherwise) {
  write_file(path("a_quorlin.box"), kBoxLines);
  for (const char* suffix : {"_quorlin", "_rejected"})
    EXPECT_EQ(1, run("select --suffix " + std::string(suffix) + " a.mrc").status);
  EXPECT_EQ(kBoxLines, content("a_quorlin.box"));
  EXPECT_EQ(0, run("select --suffix _quorlin --overwrite --most 1 a.mrc").status);
  EXPECT_EQ("0 11 4 4 0.7\t1 270.5\n", content("a_quorlin.box"));
}

TEST_F(Lists, BrokenLinesAreNamedAndEndTheWorkOnlyWhereStrict) {
  write_file(path("a_quorlin.box"), "0 0 4 4 0.5\nthree words here\n\n1 2 4 four 0.6\n9 9 4 4 0.7\n");
  write_file(path("b_quorlin.star"),
             "data_\n# note\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n1 2\n3\n4 5 6\nx 7\n");
  for (const char* command : {"select", "join --for csv", "info"}) {
    const ProgramRun done = run(std::string(command) + " a.mrc b.mrc gone.mrc");
    EXPECT_EQ(3, done.status) << command;
    for (const char* words : {"Kestrix: a_quorlin.box: line 2 left out", "a_quorlin.box: line 4 left out",
                              "b_quorlin.star: line 7 left out", "b_quorlin.star: line 9 left out", "gone_quorlin.box"})
      EXPECT_TRUE(holds(done.errors, words)) << command << ": " << words << " in " << done.errors;
    EXPECT_EQ(5, std::count(done.errors.begin(), done.errors.end(), '\n')) << done.errors;
  }
  EXPECT_TRUE(holds(content("picks.csv"), "a.mrc,2,2,0.5"));
  EXPECT_EQ(1, run("join --for csv --out strict.csv --strict a.mrc").status);
  for (const auto& left : std::filesystem::directory_iterator(path(".")))
    EXPECT_FALSE(holds(left.path().filename().string(), "strict.csv")) << left.path();
}

TEST_F(Lists, JoinWritesWhatEachProgramReads) {
  std::filesystem::create_directories(path("M"));
  write_file(path("M/a_quorlin.box"), kBoxLines);
  write_file(path("M/a_quorlin.star"), "data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n");
  write_file(path("M/b_try.star"), "data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n10.75 20.25\n");
  EXPECT_EQ(0, run("join --for relion M/a.mrc").status);
  EXPECT_TRUE(ends_with(content("autopick.star"), "_rlnMicrographCoordinates #2\nM/a.mrc M/a_quorlin.star\n"));
  EXPECT_EQ(0, run("join --for cryosparc --apixM 1.5 --out c.star --strip_prefix M/ M/a.mrc").status);
  const std::string particles = content("c.star");
  EXPECT_TRUE(holds(particles, "opticsGroup1 1 1.500000 1.500000 300.000000 2.700000 0.100000\n"));
  EXPECT_TRUE(holds(particles, "\na.mrc     2.000000     2.000000     0.500000 1 1   270.000000\n")) << particles;
  EXPECT_TRUE(holds(particles, "\na.mrc     2.000000    13.000000     0.700000 1 2    89.500000\n"));
  EXPECT_EQ(0, run("join --for relion_particles --apixM 1.5 --list _try --out r.star M/b.mrc").status);
  EXPECT_TRUE(holds(content("r.star"), "\nM/b.mrc    11.000000    20.000000  -999.000000 1"));
  EXPECT_EQ(0, run("join --for topaz M/a.mrc").status);
  EXPECT_TRUE(holds(content("topaz.txt"), "image_name\tx_coord\ty_coord\tscore\na\t2\t2\t0.500000\n"));
  EXPECT_EQ(0, run("join --for cistem --apixM 1.5 --ny 100 --flip_y --out C M/a.mrc").status);
  EXPECT_EQ("3.00 145.50\n19.50 145.50\n3.00 129.00\n", content("C/a.txt"));
  EXPECT_EQ(0, run("join --for eman2 --ny 100 --flip_y --out E M/a.mrc").status);
  EXPECT_EQ("0\t96\t4\t4\n11\t96\t4\t4\n0\t85\t4\t4\n", content("E/a.box"));
  EXPECT_EQ(1, run("join --for eman2 --out E M/a.mrc ./M/a.mrc").status);  // both would be a.box
  EXPECT_EQ(0, run("join --for relion3 --micrographs CtfFind/micrographs.star").status);
  EXPECT_EQ("CtfFind/micrographs.star\n", content("coords_suffix_quorlin.star"));
}

TEST_F(Lists, SplitReadsAnyParticleTable) {
  write_file(
      path("p.star"),
      "\n# version 30001\n\ndata_optics\n\nloop_\n_rlnOpticsGroupName #1\n_rlnOpticsGroup #2\nog1 1\n\n"
      "# version 30001\n\ndata_particles\n\nloop_\n_rlnMicrographName #1\n_rlnCoordinateY #2\n_rlnCoordinateX #3\n"
      "M/a.mrc 20.5 10.25\n'M/b.mrcs' 40 30\n\n# aside\nM/a.mrc 60 50\nM/a.mrc 60\n\ndata_more\n\n_rlnX 5\n");
  const ProgramRun done = run("split p.star _bad.star --dir .");
  EXPECT_EQ(3, done.status);
  EXPECT_TRUE(holds(done.errors, "p.star: line 24 left out: 2 words for 3 columns")) << done.errors;
  const std::string head = "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n";
  EXPECT_EQ(head + "      10.250       20.500\n      50.000       60.000\n", content("a_bad.star"));
  EXPECT_EQ(head + "      30.000       40.000\n", content("b_bad.star"));
}

TEST_F(Lists, InfoCountsAndShowsTheHistogram) {
  write_file(path("a_quorlin.box"), kBoxLines);
  const std::string text = run("info --bin 0.25 a.mrc").output;
  EXPECT_TRUE(holds(text, "Picks           3\nScores          0.300000 to 0.700000, mean 0.500000\n")) << text;
  EXPECT_TRUE(holds(
      text, "   0.250         1  " + std::string(30, '#') + "\n   0.500         2  " + std::string(60, '#') + "\n"))
      << text;
}

// --- Pictures and files of images ---

TEST_F(Lists, DrawMarksEachCentre) {
  std::string samples(256, '\0');
  for (size_t i = 0; i < 256; i++) samples[i] = static_cast<char>(i);
  write_mrc(path("m.mrc"), 16, 16, 1, 0, samples);
  write_file(path("p.box"), kBoxLines);
  EXPECT_EQ(0, run("draw m.mrc out.png p.box=red:box").status);
  const std::string png = content("out.png");
  EXPECT_EQ("\x89PNG", png.substr(0, 4));
  EXPECT_EQ(16, png[19]);  // width and height of the header chunk
  EXPECT_EQ(16, png[23]);
  EXPECT_EQ(1, run("draw m.mrc out.png p.box=mauve").status);
  Picture picture = picture_of(40, 40, std::vector<uint8_t>(1600, 7));
  draw_circle(&picture, 20, 20, 10, {255, 0, 0});
  draw_box(&picture, 1, 1, 35, {0, 0, 255});  // most of it beside the picture
  const auto red = [&](int x, int y) { return picture.rgb[static_cast<size_t>(40 * y + x) * 3] == 255; };
  EXPECT_TRUE(red(30, 20) && red(20, 9) && red(9, 20) && red(27, 27));
  EXPECT_FALSE(red(20, 20) || red(32, 20) || red(27, 20));
  EXPECT_EQ(255, picture.rgb[3 * (40 * 5 + 36) + 2]);
}

TEST_F(Lists, StripHoldsTheFileAgainstItsHeader) {
  const std::string samples(16, 'x');
  write_mrc(path("plain.mrc"), 2, 2, 1, 2, samples);
  std::string head = content("plain.mrc").substr(0, 1024);
  head[92] = 80;
  write_file(path("e.mrc"), head + std::string(80, '\7') + samples);
  write_file(path("short.mrc"), head + samples);
  write_file(path("text.mrc"), std::string(3000, 'A'));
  EXPECT_EQ(0, run("strip e.mrc s.mrc").status);
  EXPECT_EQ(content("plain.mrc"), content("s.mrc"));
  for (const char* refused : {"short.mrc x.mrc", "text.mrc x.mrc", "e.mrc e.mrc", "gone.mrc x.mrc"})
    EXPECT_EQ(1, run("strip " + std::string(refused)).status) << refused;
  EXPECT_FALSE(std::filesystem::exists(path("x.mrc")));
}

}  // namespace
