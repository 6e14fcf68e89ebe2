#include <gtest/gtest.h>

#include <string>

#include "isam/isam_error.h"

TEST(IsamError, StackKeepsTheNewestFifteenNewestFirst) {
  isam_error_clear();
  for (int i = 1; i <= 20; ++i) EXPECT_EQ(isam_error("flen3", 100 + i, i, 1000 + i), -1);
  ASSERT_EQ(isam_error_count(), kIsamStackSize);
  EXPECT_EQ(isam_error_at(0).error, 20);
  EXPECT_EQ(isam_error_at(0).line, 1020);
  EXPECT_EQ(isam_error_at(14).error, 6);
  EXPECT_EQ(isam_last_error(), 20);
  isam_error_clear();
  EXPECT_EQ(isam_error_count(), 0);
  EXPECT_EQ(isam_last_error(), 0);
}

TEST(IsamError, CodeTablesHoldTheTextsOfEachRange) {
  struct {
    int code;
    const char* text;
  } cases[] = {
      // The ends of each range: a text table out of step shows there.
      {1, "disk lseek error"}, {23, "Internal inconsistency: call Norvik"},
      {126, "file does not exist"}, {143, "Float keys not enabled (uncomment FLOAT_KEYS)"},
      {234, "File exists already"}, {239, "uninitialized function pointer"},
      {344, "incorrect key definition parameter"}, {362, "Index/data file record count mismatch"},
  };
  for (const auto& c : cases) {
    ASSERT_NE(isam_error_text(c.code), nullptr) << c.code;
    EXPECT_STREQ(isam_error_text(c.code), c.text);
  }
  for (int gap : {0, 24, 125, 144, 233, 240, 343, 363}) {
    EXPECT_EQ(isam_error_text(gap), nullptr) << gap;
  }
  // Every number of the four ranges has a text.
  int ranges[][2] = {{1, 23}, {126, 143}, {234, 239}, {344, 362}};
  for (auto& r : ranges)
    for (int c = r[0]; c <= r[1]; ++c) EXPECT_NE(isam_error_text(c), nullptr) << c;
}

TEST(IsamError, ReportUsesTheNamesOrTheBareNumbers) {
  isam_error_clear();
  isam_error("btreev33", 209, 356, 77);
  isam_set_tables(true);
  std::string named = isam_error_report();
  std::string heading = "\nModule         Function         Line   Message\n" + std::string(62, '-') + "\n";
  EXPECT_EQ(named, heading + "btreev33       lioInsert()      77     key already in index\n");
  isam_set_tables(false);
  std::string bare = isam_error_report();
  isam_set_tables(true);
  EXPECT_EQ(bare, heading + "btreev33       Function: 209     77     Error: 356\n");
  EXPECT_EQ(isam_error_line(isam_error_at(0)), "Error  356 (line   77, btreev33): key already in index");
}
