#include <gtest/gtest.h>

#include "str_utils.h"

TEST(Keyword, TakesOneOrTwoHyphensInAnyCaseAndTheWholeWord) {
  EXPECT_EQ(1, keywd_cmp("-apixM", "apixM"));
  EXPECT_EQ(1, keywd_cmp("--APIXM", "apixM"));
  EXPECT_EQ(0, keywd_cmp("apixM", "apixM"));
  EXPECT_EQ(0, keywd_cmp("---apixM", "apixM"));
  EXPECT_EQ(0, keywd_cmp("--apix", "apixM"));
  EXPECT_EQ(0, keywd_cmp("", "apixM"));
  EXPECT_EQ(1, is_keywd_help("--H"));
  EXPECT_EQ(1, is_keywd_help("-Help"));
  EXPECT_EQ(0, is_keywd_help("help"));
}
