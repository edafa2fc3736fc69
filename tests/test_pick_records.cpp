#include "pick_records.h"

#include <gtest/gtest.h>

#include "test_support.h"

using PickRecords = FolderTest;

TEST_F(PickRecords, PicksAreWrittenByCellAndThoseAtTheBorderDropped) {
  // 300 x 250 pixels, half box 16: x from 17 to 283, y from 17 to 233
  const unsigned index[] = {
      200 * 300 + 100, 0, 17 * 300 + 17, 17 * 300 + 16, 16 * 300 + 17, 233 * 300 + 283, 233 * 300 + 284,
      234 * 300 + 283};
  const float cc[] = {0.3125f, 9.0f, 0.5f, 0.5f, 0.5f, 12.25f, 0.5f, 0.5f};
  const float psi[] = {45.0f, 9.0f, 0.0f, 1.0f, 2.0f, 355.0f, 4.0f, 5.0f};
  FILE* file = fopen(path("a.box").c_str(), "w+");
  output_quorlin_coord_one_temp(file, index, cc, psi, 0, 1, 300, 250, 32);
  output_quorlin_coord_one_temp(file, index, cc, psi, 11, 8, 300, 250, 33);
  fclose(file);
  EXPECT_EQ(
      "84      184     32      32      0.312500\t0       \t45.000  \n"
      "84      184     33      33      0.312500\t11      \t45.000  \n"
      "1       1       33      33      0.500000\t11      \t0.000   \n"
      "267     217     33      33      12.250000\t11      \t355.000 \n",
      read_file(path("a.box")));
}

TEST_F(PickRecords, ABoxOfSizeZeroNeedsNoMarginAndAHugeOneLeavesNoPick) {
  const unsigned index[] = {301, 5, 300};
  const float values[] = {1.0f, 1.0f, 1.0f};
  FILE* file = fopen(path("a.box").c_str(), "w+");
  output_quorlin_coord_one_temp(file, index, values, values, 0, 3, 300, 250, 0);
  output_quorlin_coord_one_temp(file, index, values, values, 0, 3, 300, 250, 2147483647);
  fclose(file);
  EXPECT_EQ("1       1       0       0       1.000000\t0       \t1.000   \n", read_file(path("a.box")));
}

TEST(CandidateName, ReplacesTheMicrographSuffixAlone) {
  char name[1024];
  const struct {
    const char* micrograph;
    const char* expected;
  } cases[] = {{"a/b/mic01.mrc", "a/b/mic01_nonunique.box"},
               {"m.mrcs", "m_nonunique.box"},
               {"mic.tif", "mic.tif_nonunique.box"},
               {".mrc", "_nonunique.box"}};
  for (const auto& c : cases) {
    set_name_shrinked_box(name, c.micrograph, 4);
    EXPECT_STREQ(c.expected, name);
  }
}
