// Lists of boxes: EMAN's and STAR files, and what their heads say.
#include "boxfile.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <set>
#include <vector>

#include "starfile.h"
#include "test_support.h"

namespace {

using BoxFile = FolderTest;
using StarFile = FolderTest;

std::string shown(const PTCL_BOX& box) {
  char text[256];
  snprintf(text, sizeof text, "%d %d %d %d %g %d %g\n", box.x, box.y, box.w, box.h, box.score, box.class_number,
           box.psi);
  return text;
}

// The records that a file of this name and content gives, behind any report.
std::string read_boxes(const std::string& name, const std::string& content, int capacity = 100) {
  write_file(name, content);
  std::vector<PTCL_BOX> boxes(100, PTCL_BOX{9, 9, 9, 9, 9.0f, 9, 9.0f});
  int n = 0;
  std::string found = output_of([&] { n = read_all_ptcl_boxes(boxes.data(), capacity, name.c_str()); });
  for (int i = 0; i < n; i++) found += shown(boxes[i]);
  return found;
}

struct ReadHead {
  StarHead head;
  ParticleInfoIndex index;
  std::string data_line;
};

// What a STAR file's head says, and what is read from the place of a data line on.
ReadHead read_head(const std::string& name, const std::string& content, long line = 0) {
  write_file(name, content);
  ReadHead read{};
  FILE* file = fopen(name.c_str(), "r");
  fseek(file, 0, SEEK_END);
  star_read_head(file, &read.head);
  set_info_index_from_star_head(&read.head, &read.index);
  star_set_pointer(file, line);
  char text[1024] = "";
  if (fgets(text, sizeof text, file)) read.data_line = text;
  fclose(file);
  return read;
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
    write_file(path("a.box"), line);
    PTCL_BOX boxes[2];
    const ChildResult run = run_in_child([&] { read_all_ptcl_boxes(boxes, 2, path("a.box").c_str()); });
    EXPECT_EQ(1, run.status);
    EXPECT_TRUE(ends_with(run.out, fatal_line("read_all_ptcl_boxes", "boxfile", "unrecognized box format!")));
    EXPECT_EQ(0u, run.err.find("Kestrix: " + path("a.box") + ": line ")) << run.err;
  }
}

TEST_F(BoxFile, TheNameAloneDecidesTheKindOfFile) {
  const std::pair<const char*, int> names[] = {{"a.star", 1}, {"a.box", 2},  {"a.STAR", 0}, {".star", 1},
                                               {".box", 2},   {"box", 0},    {"star", 0},   {"", 0},
                                               {"x", 0},      {"a.box.t", 0}};
  for (const auto& name : names) EXPECT_EQ(name.second, get_boxf_suffixf(name.first)) << name.first;
  EXPECT_EQ(warning_line("read_all_ptcl_boxes", "boxfile",
                         "unrecognized box file format, only EMAN .box and Relion .star file are supported now."),
            read_boxes(path("a.txt"), "1 2 3 4\n"));
  PTCL_BOX box;
  const ChildResult run = run_in_child([&] { read_all_ptcl_boxes(&box, 1, "absent.box"); });
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("Cannot open file absent.box. Permission denied or wrong file name.\n" +
                fatal_line("read_all_ptcl_boxes", "boxfile", "open file failed."),
            run.out);
}

TEST_F(BoxFile, StarLinesGiveTheColumnsThatTheHeadNames) {
  EXPECT_EQ("1234 5 0 0 0.75 3 45\n7 8 0 0 0.5 0 -90\n1 2 0 0 4 6 5\n",
            read_boxes(
                path("a.star"),
                "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnAnglePsi #3\n_rlnClassNumber #4\n"
                "_rlnAutopickFigureOfMerit #5\n1234.7 5.9 45.9 3 0.75\n\n7 8 -90.9 0 0.5\n1 2 3 4\n1 2 5 6 4 extra\n"));
  EXPECT_EQ("20 10 0 0 0 0 0\n",
            read_boxes(path("a.star"), "data_\nloop_\n_rlnCoordinateY #1\n_rlnCoordinateX #2\n10 20\n"));
  EXPECT_EQ("5 6 0 0 0 0 0\n",  // optional columns that the head numbers out of the line
            read_boxes(path("a.star"),
                       "data_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnClassNumber #512\n"
                       "_rlnAnglePsi #-3\n5 6 7 8\n"));
  for (const char* content :
       {"", "1 2 3 4\n", "data_\nloop_\n_rlnCoordinateX #1\n1\n", "# version 30001\ndata_\n_rlnCoordinateX #1\n",
        "data_\n_rlnCoordinateX #3\n_rlnCoordinateY #1\n1 2\n", "data_\n_rlnCoordinateX #0\n_rlnCoordinateY #-1\n1 2\n",
        "data_\n_rlnCoordinateX #x\n_rlnCoordinateY #99999999999\n1 2\n"}) {
    testing::internal::CaptureStderr();
    EXPECT_EQ("", read_boxes(path("a.star"), content));
    EXPECT_TRUE(holds(testing::internal::GetCapturedStderr(), ": no coordinates read")) << content;
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

// --- Heads of STAR files ---

TEST_F(StarFile, ColumnNumbersComeFromTheHeadLinesInAnyOrder) {
  const ReadHead read = read_head(path("a.star"),
                                  "\ndata_particles\n\n \t\nloop_\n_rlnCoordinateY #1 \n_rlnCoordinateX #2 # note\n"
                                  "_rlnMicrographId #3\n_rlnDataDimensionality #4\n_rlnAutopickFigureOfMerit\t#5\n"
                                  "_rlnCoordinateX #6\n 1 2 3 4 5 6\nsecond\n");
  EXPECT_EQ(6, read.head.n);
  EXPECT_STREQ("_rlnMicrographId", read.head.keywords[2]);
  EXPECT_EQ(6, read.index.CoordinateX);  // the later of two
  EXPECT_EQ(1, read.index.CoordinateY);
  EXPECT_EQ(5, read.index.AutopickFigureOfMerit);
  EXPECT_EQ(0, read.index.AnglePsi);
  EXPECT_EQ(" 1 2 3 4 5 6\n", read.data_line);
}

TEST_F(StarFile, TheFirstLineThatIsNoHeadLineEndsTheHead) {
  for (const char* line : {"_rlnNoSuchThing #3\n", "_rlnCoordinateZ\n", "_rlnCoordinateZ 3\n", "# version 30001\n",
                           "_rlncoordinatez #3\n", "dat\n"}) {
    const ReadHead read =
        read_head(path("a.star"), std::string("data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n") + line +
                                      "_rlnAnglePsi #4\n1 2 3 4\n");
    EXPECT_EQ(2, read.head.n) << line;
    EXPECT_EQ(line, read.data_line);
  }
  std::string content;  // as do 512 lines
  for (int i = 0; i < 500; i++) content += "_rlnAnglePsi #" + std::to_string(i) + "\n";
  const ReadHead read =
      read_head(path("a.star"), content + std::string(11, '\n') + "_rlnCoordinateX #1\n_rlnCoordinateY #2\n1 2\n");
  EXPECT_EQ(501, read.head.n);
  EXPECT_EQ(499, read.index.AnglePsi);
  EXPECT_EQ(1, read.index.CoordinateX);
  EXPECT_EQ(0, read.index.CoordinateY);
}

TEST_F(StarFile, IsPlacedAtAnyDataLine) {
  const std::string content = "data_\nloop_\n_rlnCoordinateX #1\none\n\ntwo\n_rlnCoordinateY #2\nthree";
  const char* const lines[] = {"one\n", "two\n", "three", "three"};  // in the end the last one
  for (long line = 0; line < 4; line++) EXPECT_EQ(lines[line], read_head(path("a.star"), content, line).data_line);
}

TEST(StarKeywords, AreCompleteAndEveryOneThatIsUsedSetsAFieldOfItsOwn) {
  std::set<std::string> keywords;
  int n = 0, used = 0;
  ParticleInfoIndex none;
  particle_info_index_init(&none);
  for (; STAR_HEAD_KEYWORDS[n][0]; n++) {
    keywords.insert(STAR_HEAD_KEYWORDS[n]);
    EXPECT_EQ(1, is_star_head_keyword(STAR_HEAD_KEYWORDS[n]));
    ParticleInfoIndex probe = none;
    set_info_index_from_keyword_number(STAR_HEAD_KEYWORDS[n], 1, &probe);
    used += memcmp(&probe, &none, sizeof probe) != 0;
  }
  EXPECT_EQ(228, n);
  EXPECT_EQ(29, used);
  EXPECT_EQ(227u, keywords.size());  // _rlnDataDimensionality stands twice
  for (const char* other : {"_rlncomment", "_rlnCommen", ""}) EXPECT_EQ(0, is_star_head_keyword(other)) << other;
}
