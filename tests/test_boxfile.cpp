#include "boxfile.h"

#include <gtest/gtest.h>

#include <climits>
#include <vector>

#include "test_support.h"

namespace {

using BoxFile = FolderTest;

constexpr char kStarHead[] =
    "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnAnglePsi #3\n_rlnClassNumber #4\n"
    "_rlnAutopickFigureOfMerit #5\n";

std::string shown(const PTCL_BOX& box) {
  char text[256];
  snprintf(text, sizeof text, "%d %d %d %d %g %d %g", box.x, box.y, box.w, box.h, box.score, box.class_number, box.psi);
  return text;
}

// The records that a file of this name and content gives, with any report put in front.
std::vector<std::string> read_boxes(const std::string& name, const std::string& content, int capacity = 100) {
  write_file(name, content);
  std::vector<PTCL_BOX> boxes(100, PTCL_BOX{9, 9, 9, 9, 9.0f, 9, 9.0f});
  std::vector<std::string> found;
  int n = 0;
  const std::string report = output_of([&] { n = read_all_ptcl_boxes(boxes.data(), capacity, name.c_str()); });
  if (!report.empty()) found.push_back(report);
  for (int i = 0; i < n; i++) found.push_back(shown(boxes[i]));
  return found;
}

using Records = std::vector<std::string>;

}  // namespace

TEST_F(BoxFile, BoxLinesOfFourToSevenColumnsBecomeRecords) {
  EXPECT_EQ((Records{"12 34 56 78 0 0 0", "-1 2 3 4 0.5 0 0", "1 2 3 4 0.25 7 0", "1 2 3 4 0.25 7 45.5",
                     "1 2 3 4 0.25 7 45.5", "0 0 0 0 0 0 0"}),
            read_boxes(path("a.box"),
                       "12 34 56 78\n\n   \n-1\t2\v3\f4 0.5\r\n1 2 3 4 0.25 7\n1 2 3 4 0.25 7 45.5\n"
                       "1 2 3 4 0.25 7 45.5 99 tail\n# a comment line"));
  EXPECT_EQ(Records{}, read_boxes(path("empty.box"), ""));
  EXPECT_EQ((Records{"1 1 1 1 0 0 0", "2 2 2 2 0 0 0"}),
            read_boxes(path("long.box"), "1 1 1 1\n2 2 2 2\n3 3 3 3\n", 2));
}

TEST_F(BoxFile, NumbersThatNoIntHoldsBecomeTheNearestAndNothingHostileBreaksTheReader) {
  EXPECT_EQ((Records{"2147483647 -2147483648 2147483647 0 inf 0 nan"}),
            read_boxes(path("a.box"), "99999999999 -99999999999999999999999 2147483648 x 1e999 y nan"));
  std::string binary;
  for (int i = 0; i < 5000; i++) binary += static_cast<char>(i * i * 31 + (i >> 3));
  read_boxes(path("b.star"), binary);
  read_boxes(path("c.star"), kStarHead + binary);
  write_file(path("d.box"), binary);
  std::vector<PTCL_BOX> boxes(100);
  const ChildResult run = run_in_child([&] { read_all_ptcl_boxes(boxes.data(), 100, path("d.box").c_str()); });
  EXPECT_TRUE(run.status == 1 || run.status == kDidNotExit);
  EXPECT_EQ((Records{"1 2 3 4 0 0 0"}), read_boxes(path("e.box"), "1 2 3 4" + std::string(1100, ' ')));
}

TEST_F(BoxFile, ALineOfOneToThreeColumnsEndsTheRun) {
  for (const char* line : {"12\n", "12 34\n", "1 1 1 1\n12 34 56"}) {
    write_file(path("a.box"), line);
    PTCL_BOX boxes[4];
    const ChildResult run = run_in_child([&] { read_all_ptcl_boxes(boxes, 4, path("a.box").c_str()); });
    EXPECT_EQ(1, run.status);
    EXPECT_EQ(fatal_line("read_all_ptcl_boxes", "boxfile", "unrecognized box format!"), run.out);
    EXPECT_EQ(0u, run.err.find("Kestrix: " + path("a.box") + ": line "));
  }
}

TEST_F(BoxFile, TheNameAloneDecidesTheKindOfFile) {
  const struct {
    const char* name;
    int kind;
  } names[] = {{"a.star", 1}, {"a.box", 2}, {"a.STAR", 0}, {".star", 1}, {".box", 2},
               {"box", 0},    {"star", 0},  {"", 0},       {"x", 0},     {"a.box.txt", 0}};
  for (const auto& expected : names) EXPECT_EQ(expected.kind, get_boxf_suffixf(expected.name)) << expected.name;
  EXPECT_EQ((Records{warning_line("read_all_ptcl_boxes", "boxfile",
                                  "unrecognized box file format, only EMAN .box and Relion .star file are "
                                  "supported now.")}),
            read_boxes(path("a.txt"), "1 2 3 4\n"));
  PTCL_BOX box;
  const ChildResult run = run_in_child([&] { read_all_ptcl_boxes(&box, 1, path("absent.box").c_str()); });
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("Cannot open file " + path("absent.box") + ". Permission denied or wrong file name.\n" +
                fatal_line("read_all_ptcl_boxes", "boxfile", "open file failed."),
            run.out);
}

TEST_F(BoxFile, StarLinesGiveTheColumnsThatTheHeadNames) {
  EXPECT_EQ((Records{"1234 5 0 0 0.75 3 45", "7 8 0 0 0.5 0 -90", "1 2 0 0 4 6 5"}),
            read_boxes(path("a.star"), std::string(kStarHead) +
                                           "1234.7 5.9 45.9 3 0.75\n\n7 8 -90.9 0 0.5\n1 2 3 4\n1 2 5 6 4 extra\n"));
  EXPECT_EQ((Records{"20 10 0 0 0 0 0"}),
            read_boxes(path("swapped.star"), "data_\nloop_\n_rlnCoordinateY #1\n_rlnCoordinateX #2\n10 20\n"));
  EXPECT_EQ((Records{"5 6 0 0 0 0 0"}),  // optional columns that the head numbers out of the line
            read_boxes(path("far.star"),
                       "data_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnClassNumber #512\n"
                       "_rlnAnglePsi #-3\n5 6 7 8\n"));
}

TEST_F(BoxFile, AStarFileWithoutCoordinateColumnsHoldsNoParticles) {
  for (const char* content :
       {"", "1 2 3 4\n", "data_\nloop_\n_rlnCoordinateX #1\n1\n", "# version 30001\ndata_\n_rlnCoordinateX #1\n",
        "data_\n_rlnCoordinateX #3\n_rlnCoordinateY #1\n1 2\n", "data_\n_rlnCoordinateX #0\n_rlnCoordinateY #-1\n1 2\n",
        "data_\n_rlnCoordinateX #x\n_rlnCoordinateY #99999999999\n1 2\n"}) {
    write_file(path("a.star"), content);
    std::vector<PTCL_BOX> boxes(4);
    const ChildResult run = run_in_child([&] {
      const int n = read_all_ptcl_boxes(boxes.data(), 4, path("a.star").c_str());
      if (n != 0) _exit(n);
    });
    EXPECT_EQ(kDidNotExit, run.status) << content;
    EXPECT_EQ("", run.out);
    EXPECT_EQ(0u, run.err.find("Kestrix: " + path("a.star") + ": no coordinates read")) << run.err;
  }
}

TEST(Boxes, ResizingKeepsTheCentre) {
  const struct {
    int x, w, size, expected;
  } cases[] = {{100, 64, 128, 68}, {100, 0, 128, 36}, {100, 129, 128, 100}, {INT_MIN, -5, INT_MAX, INT_MIN}};
  for (const auto& c : cases) {
    PTCL_BOX box{c.x, c.x, c.w, c.w, 0.5f, 1, 2.0f};
    resize_ptcl_boxes(&box, 1, c.size);
    const PTCL_BOX expected{c.expected, c.expected, c.size, c.size, 0.5f, 1, 2.0f};
    EXPECT_EQ(shown(expected), shown(box));
  }
}

TEST(Boxes, ClearingStopsAtTenMillionAfterAWarning) {
  std::vector<PTCL_BOX> boxes(10000001, PTCL_BOX{1, 1, 1, 1, 1.0f, 1, 1.0f});
  EXPECT_EQ("", output_of([&] { empty_all_ptcl_boxes(boxes.data(), 2); }));
  EXPECT_EQ("0 0 0 0 0 0 0", shown(boxes[1]));
  EXPECT_EQ("1 1 1 1 1 1 1", shown(boxes[2]));
  EXPECT_EQ(warning_line("empty_all_ptcl_boxes", "boxfile", "Too many particle numbers!"),
            output_of([&] { empty_all_ptcl_boxes(boxes.data(), 10000001); }));
  EXPECT_EQ("0 0 0 0 0 0 0", shown(boxes[9999999]));
  EXPECT_EQ("1 1 1 1 1 1 1", shown(boxes[10000000]));
}
