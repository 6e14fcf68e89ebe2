// Messages by UMI: header values, priority, flags with their events,
// whole messages in files, copy and move.
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "rclib/safe_file.h"
#include "src/options/options.h"
#include "tests/model/model_fixture.h"

namespace {

const char kPlain[] =
    "From: Ann Example <ann@example.org>\r\nTo: bob@example.org\r\nSubject: hello there\r\n"
    "X-Foobar: wrong one\r\nX-Foo:    right value   \r\nX-Folded: first\r\n  second\r\n"
    "x-lower\t : case and blank\r\n\r\nbody line\r\n";

using Messages = ModelTest;

TEST_F(Messages, HeaderContentPriorityAndAppendFlags) {
  const struct { const char* value; int want; } priorities[] = {
      {"HIGH", kPriorityHigh}, {"LOW", kPriorityLow},         {"high", kPriorityNormal},
      {"HIGH  ", kPriorityHigh}, {"URGENT", kPriorityNormal}, {nullptr, kPriorityNormal}};
  std::vector<std::string> raws = {kPlain};
  for (const auto& p : priorities)
    raws.push_back(std::string("From: a@example.org\r\n") + (p.value ? "Priority: " + std::string(p.value) : "") +
                   "\r\n\r\nbody\r\n");
  MakeFolder("inbox2", raws);
  const int id = MM_FolOpen(local_, "inbox2");
  const UMI umi = MM_UMIFromMsgno(id, 1);
  const struct { const char* name; std::optional<std::string> want; } headers[] = {
      {"Subject", "hello there"}, {"From", "Ann Example <ann@example.org>"},
      {"Cc", std::nullopt},       {"X-Foo", "right value"},  // not X-Foobar; blanks and CRLF gone
      {"x-foo", "right value"},   {"X-Folded", "first  second"},  // the fold joined, its blanks kept
      {"X-Lower", "case and blank"}, {"X-Fo", std::nullopt},  // a prefix of a name is no match
  };
  for (const auto& h : headers) EXPECT_EQ(MM_MsgHeaderContent(umi, h.name), h.want) << h.name;
  EXPECT_EQ(MM_MsgHeader(umi, "X-Foo"), std::optional<std::string>("X-Foo: right value"));
  EXPECT_EQ(MM_MsgToAddress(umi, 4), nullptr) << "not an address header";
  EXPECT_STREQ(MM_MsgToAddress(umi, 1)->mailbox, "ann");
  for (size_t i = 0; i < std::size(priorities); ++i)
    EXPECT_EQ(MM_MsgPriority(MM_UMIFromMsgno(id, i + 2)), priorities[i].want) << i;
  // \Draft only where the service can store it.
  const struct { int flags; bool draft; const char* want; } flags[] = {
      {0, true, ""},
      {kAppendSeen | kAppendFlagged | kAppendAnswered | kAppendDeleted, 0, "(\\Seen \\Flagged \\Answered \\Deleted)"},
      {kAppendDraft, false, ""},
      {kAppendDeleted | kAppendDraft, true, "(\\Deleted \\Draft)"}};
  for (const auto& f : flags) EXPECT_EQ(MM_MsgAppendFlags(f.flags, f.draft), f.want) << f.flags << f.draft;
}

TEST_F(Messages, SetAndClearEachFlagPostInOrderAndReachTheFolder) {
  MakeFolder("flags", 2);
  int id = MM_FolOpen(local_, "flags");
  const struct { const char* flag; int set, cleared; int (*test)(UMI); } flags[] = {
      {"\\Seen", E_SEEN_FLAG_SET, E_SEEN_FLAG_CLEARED, MM_MsgIsRead},
      {"\\flagged", E_FLAGGED_FLAG_SET, E_FLAGGED_FLAG_CLEARED, MM_MsgIsFlagged},
      {"\\Answered", E_ANSWERED_FLAG_SET, E_ANSWERED_FLAG_CLEARED, MM_MsgIsAnswered},
      {"\\DRAFT", E_DRAFT_FLAG_SET, E_DRAFT_FLAG_CLEARED, MM_MsgIsDraft},
      {"\\Deleted", E_DELETED_FLAG_SET, E_DELETED_FLAG_CLEARED, MM_MsgIsDeleted}};
  for (int set : {1, 0}) {
    const UMI umi = MM_UMIFromMsgno(id, 2);
    seen_.clear();
    std::vector<int> want;
    for (const auto& f : flags) {
      EXPECT_EQ(set ? MM_MsgSetFlag(umi, f.flag) : MM_MsgClearFlag(umi, f.flag), 1) << f.flag;
      want.push_back(set ? f.set : f.cleared);
    }
    EXPECT_EQ(Types(), want);
    for (const Seen& e : seen_) EXPECT_EQ(e.umi, umi);
    EXPECT_EQ(MM_NeedsExpunge(), set);
    MM_FolClose(id, 1);
    id = MM_FolOpen(local_, "flags");
    for (const auto& f : flags) EXPECT_EQ(f.test(MM_UMIFromMsgno(id, 2)), set) << f.flag << " after reopening";
    EXPECT_EQ(MM_MsgIsRead(MM_UMIFromMsgno(id, 1)), 0);
  }
}

TEST_F(Messages, ToFileGivesTheMessageBytesAndTheCallerOwnsIt) {
  MakeFolder("whole", {kPlain, Numbered(2)});
  const UMI umi = MM_UMIFromMsgno(MM_FolOpen(local_, "whole"), 1);
  const std::string file = MM_MsgToFile(umi);
  EXPECT_EQ(ReadFile(file), kPlain);
  struct stat st;
  ASSERT_EQ(::stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(MM_MsgSize(umi), sizeof kPlain - 1);
  const std::string again = MM_MsgToFile(umi);
  EXPECT_NE(again, file);
  EXPECT_EQ(ReadFile(again), kPlain);
  EXPECT_EQ(ReadFile(file), kPlain) << "the first file stays";
  EXPECT_EQ(TempFiles(), 2u) << "the header and body pieces are gone";
  EXPECT_EQ(MM_MsgRawHeaders(umi), std::string(kPlain, std::strstr(kPlain, "\r\n\r\n") + 4));
  // The message file (the third exclusive create) fails as a full disk
  // would: nothing is left behind.
  safe_fail_from_for_test(kSafeOpen, 3, ENOSPC);
  EXPECT_EQ(MM_MsgToFile(MM_UMIFromMsgno(MM_UMIFolder(umi), 2)), "");
  safe_clear_faults_for_test();
  EXPECT_TRUE(Traced("MM_MsgToFile: failed to generate message file pathname.\n"));
  EXPECT_EQ(TempFiles(), 2u);
}

// Moves between services go by way of a copy; flags go with the copy.
TEST_F(Messages, CopyAndMoveBetweenFolders) {
  Opt_AssignString("MsgService.ms2.Type", "local", kOptPermanent, 0);
  const int other = MM_MSNew(2);
  MakeFolder("source", 3);
  MakeFolder("target", 0);
  int source = MM_FolOpen(local_, "source");
  const UMI one = MM_UMIFromMsgno(source, 1), two = MM_UMIFromMsgno(source, 2), three = MM_UMIFromMsgno(source, 3);
  ASSERT_EQ(MM_MsgSetFlag(one, "\\Flagged"), 1);
  seen_.clear();
  EXPECT_EQ(MM_MsgCopy(one, local_, "target"), 1);
  EXPECT_TRUE(seen_.empty());
  EXPECT_EQ(MM_MsgMove(two, local_, "target"), 1);
  EXPECT_EQ(MM_MsgMove(three, other, "target"), 1);
  ASSERT_EQ(Types(), (std::vector<int>{E_DELETED_FLAG_SET, E_DELETED_FLAG_SET}));
  EXPECT_EQ(seen_[0].umi, two);
  EXPECT_EQ(seen_[1].umi, three);
  EXPECT_EQ(MM_MsgCopy(one, INVALID_SERVICE, "target"), 0);
  MM_FolClose(source, 1);
  source = MM_FolOpen(local_, "source");
  for (unsigned long n = 1; n <= 3; ++n) EXPECT_EQ(MM_MsgIsDeleted(MM_UMIFromMsgno(source, n)), n > 1) << n;
  const int target = MM_FolOpen(local_, "target");
  ASSERT_EQ(MM_FolGetNumMsgs(target), 3);
  for (int n = 1; n <= 3; ++n) {
    const UMI u = MM_UMIFromMsgno(target, n);
    EXPECT_EQ(MM_MsgIsFlagged(u) * 2 + MM_MsgIsDeleted(u), n == 1 ? 2 : 0) << n;
    EXPECT_EQ(ReadFile(MM_MsgToFile(u)), Numbered(n)) << n;
  }
}

}  // namespace
