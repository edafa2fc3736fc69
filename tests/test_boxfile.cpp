// Lists of boxes: EMAN's and STAR files, and what their heads say.
#include "boxfile.h"

#include <gtest/gtest.h>

#include <climits>
#include <set>
#include <vector>

#include "starfile.h"
#include "test_support.h"

namespace {

using BoxFile = FolderTest;

std::string shown(const PTCL_BOX& box) {
  char text[256];
  snprintf(text, sizeof text, "%d %d %d %d %g %d %g\n", box.x, box.y, box.w, box.h, box.score, box.class_number,
           box.psi);
  return text;
}

// The records that a file of this name and content gives.
std::string read_boxes(const std::string& name, const std::string& content, int capacity = 100) {
  write_file(name, content);
  std::vector<PTCL_BOX> boxes(100, PTCL_BOX{9, 9, 9, 9, 9.0f, 9, 9.0f});
  std::string found;
  const int n = read_all_ptcl_boxes(boxes.data(), capacity, name.c_str());
  for (int i = 0; i < n; i++) found += shown(boxes[i]);
  return found;
}

}  // namespace

TEST_F(BoxFile, BoxLinesOfFourToSevenColumnsBecomeRecords) {
  EXPECT_EQ(
      "12 34 56 78 0 0 0\n-1 2 3 4 0.5 0 0\n1 2 3 4 0.25 7 0\n1 2 3 4 0.25 7 45.5\n1 2 3 4 0.25 7 45.5\n"
      "0 0 0 0 0 0 0\n",
      read_boxes(path("a.box"),
                 "12 34 56 78\n\n   \n-1\t2\v3\f4 0.5\r\n1 2 3 4 0.25 7\n1 2 3 4 0.25 7 45.5\n"
                 "1 2 3 4 0.25 7 45.5 99 tail\n# a comment line"));
  EXPECT_EQ("1 1 1 1 0 0 0\n2 2 2 2 0 0 0\n", read_boxes(path("long.box"), "1 1 1 1\n2 2 2 2\n3 3 3 3\n", 2));
  EXPECT_EQ("2147483647 -2147483648 2147483647 0 inf 0 nan\n",
            read_boxes(path("a.box"), "99999999999 -99999999999999999999999 2147483648 x 1e999 y nan"));
  for (const char* line : {"12\n", "12 34\n", "1 1 1 1\n12 34 56"}) {
    const ProgramRun run = run_in_child([&] { read_boxes(path("a.box"), line); });
    expect_refused(run, fatal_line("read_all_ptcl_boxes", "boxfile", "unrecognized box format!"));
    EXPECT_EQ(0u, run.errors.find("Kestrix: " + path("a.box") + ": line ")) << run.errors;
  }
}

TEST_F(BoxFile, TheNameAloneDecidesTheKindOfFile) {
  const std::pair<const char*, int> names[] = {{"a.star", 1}, {"a.box", 2},  {"a.STAR", 0}, {".star", 1},
                                               {".box", 2},   {"box", 0},    {"star", 0},   {"", 0},
                                               {"x", 0},      {"a.box.t", 0}};
  for (const auto& name : names) EXPECT_EQ(name.second, get_boxf_suffixf(name.first)) << name.first;
  EXPECT_EQ(warning_line("read_all_ptcl_boxes", "boxfile",
                         "unrecognized box file format, only EMAN .box and Relion .star file are supported now."),
            output_of([&] { EXPECT_EQ("", read_boxes(path("a.txt"), "1 2 3 4\n")); }));
  PTCL_BOX box;
  expect_refused(run_in_child([&] { read_all_ptcl_boxes(&box, 1, "absent.box"); }),
                 "Cannot open file absent.box. Permission denied or wrong file name.\n" +
                     fatal_line("read_all_ptcl_boxes", "boxfile", "open file failed."));
}

TEST_F(BoxFile, StarLinesGiveTheColumnsThatTheHeadNames) {
  auto cases = golden_cases("star_lists.txt");
  const std::string head = "_rlnCoordinateX #1\n_rlnCoordinateY #2\n1 2\n";
  cases.emplace_back(std::string(510, '\n') + head, "1 2 0 0 0 0 0\n");  // 512 lines end the head too
  cases.emplace_back(std::string(511, '\n') + head, "");
  cases.emplace_back("", "");
  for (const auto& [content, boxes] : cases) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(boxes, read_boxes(path("a.star"), content)) << content;
    EXPECT_EQ(boxes.empty(), holds(testing::internal::GetCapturedStderr(), ": no coordinates read")) << content;
  }
}

TEST(Boxes, AreResizedAboutTheirCentresAndClearedUpToTenMillion) {
  const int cases[][4] = {{100, 64, 128, 68}, {100, 0, 128, 36}, {100, 129, 128, 100},
                          {100, 64, 63, 100}, {100, 62, 65, 99}, {INT_MIN, -5, INT_MAX, INT_MIN}};
  for (const auto& c : cases) {
    PTCL_BOX box{c[0], c[0], c[1], c[1], 0.5f, 1, 2.0f};
    resize_ptcl_boxes(&box, 1, c[2]);
    EXPECT_EQ(shown({c[3], c[3], c[2], c[2], 0.5f, 1, 2.0f}), shown(box));
  }
  std::vector<PTCL_BOX> boxes(10000001, PTCL_BOX{1, 1, 1, 1, 1.0f, 1, 1.0f});
  EXPECT_EQ(warning_line("empty_all_ptcl_boxes", "boxfile", "Too many particle numbers!"),
            output_of([&] { empty_all_ptcl_boxes(boxes.data(), 10000001); }));
  EXPECT_EQ("0 0 0 0 0 0 0\n1 1 1 1 1 1 1\n", shown(boxes[9999999]) + shown(boxes[10000000]));
}

TEST(StarKeywords, AreCompleteAndEveryOneThatIsUsedSetsAFieldOfItsOwn) {
  std::set<std::string> keywords, fields;
  int n = 0;
  for (; STAR_HEAD_KEYWORDS[n][0]; n++) {
    keywords.insert(STAR_HEAD_KEYWORDS[n]);
    EXPECT_EQ(1, is_star_head_keyword(STAR_HEAD_KEYWORDS[n]));
    ParticleInfoIndex probe;
    particle_info_index_init(&probe);
    set_info_index_from_keyword_number(STAR_HEAD_KEYWORDS[n], 1, &probe);
    fields.emplace(reinterpret_cast<const char*>(&probe), sizeof probe);
  }
  EXPECT_EQ(228, n);
  EXPECT_EQ(30u, fields.size());     // and none
  EXPECT_EQ(227u, keywords.size());  // _rlnDataDimensionality stands twice
  for (const char* other : {"_rlncomment", "_rlnCommen", ""}) EXPECT_EQ(0, is_star_head_keyword(other)) << other;
}
