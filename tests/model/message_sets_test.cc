// Many messages at once: the sequence sets, one flag change per folder for
// a whole selection with an event per message, and copies of a selection.
#include "tests/model/model_fixture.h"

namespace {

TEST(SequenceSet, RunsSortedWithoutRepeats) {
  const std::pair<std::vector<unsigned long>, const char*> cases[] = {
      {{}, ""},
      {{7}, "7"},
      {{1, 2, 3}, "1:3"},
      {{5, 1, 2, 3, 9, 10, 3}, "1:3,5,9:10"},
      {{0, 4, 0}, "4"},
      {{100000, 99999, 1}, "1,99999:100000"},
  };
  for (const auto& [numbers, want] : cases) EXPECT_EQ(MM_SequenceSet(numbers), want);
}

TEST_F(ModelTest, FlagsOnManyMessagesGoAsOneSetPerFolder) {
  MakeFolder("A", 6);
  MakeFolder("B", 2);
  const int a = MM_FolOpen(local_, "A"), b = MM_FolOpen(local_, "B");
  ASSERT_NE(a, INVALID_FOLDER);
  ASSERT_NE(b, INVALID_FOLDER);
  std::vector<UMI> umis;
  for (unsigned long n : {5ul, 1ul, 2ul, 3ul}) umis.push_back(MM_UMIFromMsgno(a, n));
  umis.push_back(MM_UMIFromMsgno(b, 2));
  umis.push_back(0);  // no message: skipped
  seen_.clear();
  EXPECT_EQ(MM_MsgSetFlagMany(umis, "\\Seen"), 5);
  EXPECT_TRUE(Traced("set \\Seen on 1:3,5\n"));
  EXPECT_TRUE(Traced("set \\Seen on 2\n"));
  EXPECT_EQ(Types({E_SEEN_FLAG_SET}).size(), 5u);
  const int read[] = {1, 1, 1, 0, 1, 0};
  for (unsigned long n = 1; n <= 6; ++n) EXPECT_EQ(MM_MsgIsRead(MM_UMIFromMsgno(a, n)), read[n - 1]) << n;
  EXPECT_EQ(MM_MsgIsRead(MM_UMIFromMsgno(b, 1)), 0);
  EXPECT_EQ(MM_MsgIsRead(MM_UMIFromMsgno(b, 2)), 1);

  seen_.clear();
  EXPECT_EQ(MM_MsgClearFlagMany({MM_UMIFromMsgno(a, 2)}, "\\Seen"), 1);
  EXPECT_EQ(Types({E_SEEN_FLAG_CLEARED}).size(), 1u);
  EXPECT_EQ(MM_MsgIsRead(MM_UMIFromMsgno(a, 2)), 0);
  EXPECT_EQ(MM_MsgSetFlagMany({MM_UMIFromMsgno(a, 4)}, "\\Deleted"), 1);
  EXPECT_TRUE(MM_NeedsExpunge());

  // The flags reach the disk: a fresh reader sees them.
  MM_FolClose(a, 1);
  MailStream* s = mail_open(nullptr, "A", OP_READONLY);
  ASSERT_NE(s, nullptr);
  EXPECT_TRUE(mail_elt(s, 1)->seen);
  EXPECT_FALSE(mail_elt(s, 2)->seen);
  EXPECT_TRUE(mail_elt(s, 4)->deleted);
  mail_close(s);

  // Copies of a selection arrive whole, in order.
  const int b2 = MM_FolOpen(local_, "B");
  EXPECT_EQ(MM_MsgCopyMany({MM_UMIFromMsgno(b2, 2), MM_UMIFromMsgno(b2, 1)}, local_, "A"), 2);
  EXPECT_EQ(CountOnDisk("A"), 8);
  const int a2 = MM_FolOpen(local_, "A");
  EXPECT_EQ(Subject(MM_UMIFromMsgno(a2, 7)), "message 1");
  EXPECT_EQ(Subject(MM_UMIFromMsgno(a2, 8)), "message 2");
}

}  // namespace
