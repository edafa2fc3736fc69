#include "starfile.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>

#include "test_support.h"

namespace {

using StarFile = FolderTest;

struct ReadHead {
  StarHead head;
  ParticleInfoIndex index;
  std::string first_data_line;
};

ReadHead read_head(const std::string& name, const std::string& content, long line = 0) {
  write_file(name, content);
  ReadHead read{};
  FILE* file = fopen(name.c_str(), "r");
  fseek(file, 0, SEEK_END);
  star_read_head(file, &read.head);
  set_info_index_from_star_head(&read.head, &read.index);
  star_set_pointer(file, line);
  char text[1024] = "";
  if (fgets(text, sizeof text, file)) read.first_data_line = text;
  fclose(file);
  return read;
}

}  // namespace

TEST_F(StarFile, ColumnNumbersComeFromTheHeadLinesInAnyOrder) {
  const ReadHead read = read_head(path("a.star"),
                                  "\ndata_particles\n\n \t\nloop_\n_rlnCoordinateY #1 \n_rlnCoordinateX #2 # note\n"
                                  "_rlnMicrographId #3\n_rlnDataDimensionality #4\n_rlnAutopickFigureOfMerit\t#5\n"
                                  "_rlnCoordinateX #6\n 1 2 3 4 5 6\nsecond\n");
  EXPECT_EQ(6, read.head.n);
  EXPECT_STREQ("_rlnMicrographId", read.head.keywords[2]);
  EXPECT_EQ(3, read.head.numbers[2]);
  EXPECT_EQ(6, read.index.CoordinateX);  // the later of two
  EXPECT_EQ(1, read.index.CoordinateY);
  EXPECT_EQ(5, read.index.AutopickFigureOfMerit);
  EXPECT_EQ(0, read.index.AnglePsi);
  EXPECT_EQ(" 1 2 3 4 5 6\n", read.first_data_line);
}

TEST_F(StarFile, TheFirstLineThatIsNoHeadLineEndsTheHead) {
  for (const char* line : {"_rlnNoSuchThing #3\n", "_rlnCoordinateZ\n", "_rlnCoordinateZ 3\n", "# version 30001\n",
                           "_rlncoordinatez #3\n", "dat\n"}) {
    const ReadHead read =
        read_head(path("a.star"), std::string("data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n") + line +
                                      "_rlnAnglePsi #4\n1 2 3 4\n");
    EXPECT_EQ(2, read.head.n) << line;
    EXPECT_EQ(0, read.index.AnglePsi) << line;
    EXPECT_EQ(line, read.first_data_line);
  }
}

TEST_F(StarFile, PlacesTheFileAtAnyDataLine) {
  const std::string content = "data_\nloop_\n_rlnCoordinateX #1\none\n\ntwo\n_rlnCoordinateY #2\nthree";
  EXPECT_EQ("one\n", read_head(path("a.star"), content).first_data_line);
  EXPECT_EQ("two\n", read_head(path("a.star"), content, 1).first_data_line);
  EXPECT_EQ("three", read_head(path("a.star"), content, 2).first_data_line);
  EXPECT_EQ("three", read_head(path("a.star"), content, 9).first_data_line);  // the last line read
  EXPECT_EQ("", read_head(path("a.star"), "data_\nloop_\n").first_data_line);
  EXPECT_EQ("", read_head(path("a.star"), "").first_data_line);
}

TEST_F(StarFile, AHeadEndsAfter512Lines) {
  std::string content;
  for (int i = 0; i < 500; i++) content += "_rlnAnglePsi #" + std::to_string(i) + "\n";
  for (int i = 0; i < 11; i++) content += "\n";
  content += "_rlnCoordinateX #1\n_rlnCoordinateY #2\n1 2\n";
  const ReadHead read = read_head(path("a.star"), content);
  EXPECT_EQ(501, read.head.n);
  EXPECT_EQ(499, read.index.AnglePsi);
  EXPECT_EQ(1, read.index.CoordinateX);
  EXPECT_EQ(0, read.index.CoordinateY);
}

TEST(StarKeywords, AreCompleteAndComparedExactly) {
  std::set<std::string> keywords;
  int n = 0;
  for (; STAR_HEAD_KEYWORDS[n][0]; n++) keywords.insert(STAR_HEAD_KEYWORDS[n]);
  EXPECT_EQ(228, n);
  EXPECT_EQ(227u, keywords.size());  // _rlnDataDimensionality stands twice
  EXPECT_EQ(1, is_star_head_keyword("_rlnComment"));
  EXPECT_EQ(1, is_star_head_keyword("_rlnSpectralIndex"));
  EXPECT_EQ(1, is_star_head_keyword("_rlnDataDimensionality"));
  EXPECT_EQ(0, is_star_head_keyword("_rlncomment"));
  EXPECT_EQ(0, is_star_head_keyword("_rlnCommen"));
  EXPECT_EQ(0, is_star_head_keyword(""));
}

TEST(StarKeywords, EveryKnownOneSetsAFieldOfItsOwn) {
  ParticleInfoIndex index;
  particle_info_index_init(&index);
  int number = 0;
  for (int i = 0; STAR_HEAD_KEYWORDS[i][0]; i++) {
    ParticleInfoIndex probe;
    particle_info_index_init(&probe);
    set_info_index_from_keyword_number(STAR_HEAD_KEYWORDS[i], 1, &probe);
    if (memcmp(&probe, &index, sizeof probe) != 0) number++;
    particle_info_index_init(&index);
  }
  EXPECT_EQ(29u, sizeof index / sizeof(int));
  EXPECT_EQ(29, number);
  set_info_index_from_keyword_number("_rlnBfactor", 7, &index);
  set_info_index_from_keyword_number("_rlnAutopickFigureOfMerit", 9, &index);
  set_info_index_from_keyword_number("_rlnCoordinateX", 4, &index);
  EXPECT_EQ(7, reinterpret_cast<const int*>(&index)[0]);
  EXPECT_EQ(4, reinterpret_cast<const int*>(&index)[3]);
  EXPECT_EQ(9, reinterpret_cast<const int*>(&index)[28]);
}
