// Messages by UMI: header values, priority, flags with their events, copy,
// move and append between folders, and whole messages in files.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "c-client/mh/mh_names.h"
#include "rclib/safe_file.h"
#include "src/options/options.h"
#include "src/base/filenames.h"
#include "src/base/model_events.h"
#include "tests/model/message_fixture.h"

namespace {

const char kPlain[] =
    "From: Ann Example <ann@example.org>\r\n"
    "To: bob@example.org\r\n"
    "Subject: hello there\r\n"
    "Date: Mon, 2 Nov 2026 10:00:00 +0000\r\n"
    "Message-ID: <m1@example.org>\r\n"
    "X-Foobar: wrong one\r\n"
    "X-Foo:    right value   \r\n"
    "X-Folded: first\r\n"
    "  second\r\n"
    "x-lower\t : case and blank\r\n"
    "\r\n"
    "body line\r\n";

std::string WithPriority(const char* value) {
  std::string m = "From: a@example.org\r\nSubject: p\r\n";
  if (value) m += std::string("Priority: ") + value + "\r\n";
  return m + "\r\nbody\r\n";
}

std::string Numbered(int i) {
  return "From: a" + std::to_string(i) + "@example.org\r\nSubject: message " + std::to_string(i) +
         "\r\nDate: Mon, 2 Nov 2026 10:00:00 +0000\r\n\r\nbody " + std::to_string(i) + "\r\n";
}

using Messages = MessageTest;

TEST_F(Messages, HeaderContentFromEnvelopeAndRawScan) {
  const int id = WriteFolder("inbox2", {kPlain});
  const UMI umi = MM_UMIFromMsgno(id, 1);
  const struct {
    const char* name;
    std::optional<std::string> want;
  } cases[] = {
      {"Subject", "hello there"},
      {"From", "Ann Example <ann@example.org>"},
      {"To", "bob@example.org"},
      {"Message-ID", "<m1@example.org>"},
      {"Cc", std::nullopt},
      {"X-Foo", "right value"},          // not X-Foobar; trailing blanks and CRLF gone
      {"x-foo", "right value"},          // names in any case
      {"X-Folded", "first  second"},     // the fold is joined, its blanks kept
      {"X-Lower", "case and blank"},     // blanks before the colon
      {"X-Fo", std::nullopt},            // a prefix of a name is no match
      {"X-Missing", std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(MM_MsgHeaderContent(umi, c.name), c.want) << c.name;
  EXPECT_EQ(MM_MsgHeader(umi, "X-Foo"), std::optional<std::string>("X-Foo: right value"));
  EXPECT_EQ(MM_MsgToAddress(umi, 4), nullptr);
  EXPECT_TRUE(Traced("MM_MsgAddress: non-address header name used to get address: 4\n"));
  ASSERT_NE(MM_MsgToAddress(umi, 1), nullptr);
  EXPECT_STREQ(MM_MsgToAddress(umi, 1)->mailbox, "ann");
}

TEST_F(Messages, PriorityIsHighOrLowOnlyForTheExactWords) {
  const struct {
    const char* value;
    int want;
  } cases[] = {{"HIGH", kPriorityHigh}, {"LOW", kPriorityLow},       {"high", kPriorityNormal},
               {"HIGH  ", kPriorityHigh}, {"URGENT", kPriorityNormal}, {nullptr, kPriorityNormal}};
  std::vector<std::string> messages;
  for (const auto& c : cases) messages.push_back(WithPriority(c.value));
  const int id = WriteFolder("prio", messages);
  for (size_t i = 0; i < std::size(cases); ++i)
    EXPECT_EQ(MM_MsgPriority(MM_UMIFromMsgno(id, i + 1)), cases[i].want) << (cases[i].value ? cases[i].value : "none");
}

TEST_F(Messages, AppendFlagListNamesDraftOnlyWhenTheServiceCanStoreIt) {
  const struct {
    int flags;
    bool draft;
    const char* want;
  } cases[] = {
      {0, true, ""},
      {kAppendSeen, false, "(\\Seen)"},
      {kAppendSeen | kAppendFlagged | kAppendAnswered | kAppendDeleted, false,
       "(\\Seen \\Flagged \\Answered \\Deleted)"},
      {kAppendDraft, false, ""},
      {kAppendDraft, true, "(\\Draft)"},
      {kAppendDeleted | kAppendDraft, false, "(\\Deleted)"},
      {kAppendDeleted | kAppendDraft, true, "(\\Deleted \\Draft)"},
  };
  for (const auto& c : cases) EXPECT_EQ(MM_MsgAppendFlags(c.flags, c.draft), c.want) << c.flags << c.draft;
}

TEST_F(Messages, SetAndClearEachFlagPostInOrderAndReachTheFolder) {
  int id = WriteFolder("flags", {Numbered(1), Numbered(2)});
  UMI umi = MM_UMIFromMsgno(id, 2);
  const struct {
    const char* flag;
    int set, cleared;
    int (*test)(UMI);
  } flags[] = {
      {"\\Seen", E_SEEN_FLAG_SET, E_SEEN_FLAG_CLEARED, MM_MsgIsRead},
      {"\\flagged", E_FLAGGED_FLAG_SET, E_FLAGGED_FLAG_CLEARED, MM_MsgIsFlagged},
      {"\\Answered", E_ANSWERED_FLAG_SET, E_ANSWERED_FLAG_CLEARED, MM_MsgIsAnswered},
      {"\\DRAFT", E_DRAFT_FLAG_SET, E_DRAFT_FLAG_CLEARED, MM_MsgIsDraft},
      {"\\Deleted", E_DELETED_FLAG_SET, E_DELETED_FLAG_CLEARED, MM_MsgIsDeleted},
  };
  TakeEvents();
  std::vector<int> want;
  for (const auto& f : flags) {
    EXPECT_EQ(MM_MsgSetFlag(umi, f.flag), 1) << f.flag;
    want.push_back(f.set);
  }
  const std::vector<SeenEvent> seen = TakeEvents();
  std::vector<int> types;
  for (const SeenEvent& e : seen) {
    types.push_back(e.type);
    EXPECT_EQ(e.umi, umi);
  }
  EXPECT_EQ(types, want);
  EXPECT_EQ(MM_NeedsExpunge(), 1);

  id = Reopen(id);
  umi = MM_UMIFromMsgno(id, 2);
  for (const auto& f : flags) EXPECT_EQ(f.test(umi), 1) << f.flag << " after reopening";
  EXPECT_EQ(MM_MsgIsRead(MM_UMIFromMsgno(id, 1)), 0);

  TakeEvents();
  want.clear();
  for (const auto& f : flags) {
    EXPECT_EQ(MM_MsgClearFlag(umi, f.flag), 1) << f.flag;
    want.push_back(f.cleared);
  }
  EXPECT_EQ(TakeEventTypes(), want);
  id = Reopen(id);
  umi = MM_UMIFromMsgno(id, 2);
  for (const auto& f : flags) EXPECT_EQ(f.test(umi), 0) << f.flag << " after clearing";
}

TEST_F(Messages, UmiOfAnExpungedMessageReadsNothing) {
  const int id = WriteFolder("gone", {kPlain, Numbered(2)});
  const UMI first = MM_UMIFromMsgno(id, 1);
  const UMI second = MM_UMIFromMsgno(id, 2);
  ASSERT_EQ(MM_MsgSetFlag(first, "\\Deleted"), 1);
  ASSERT_EQ(MM_FolExpunge(id), 1);
  EXPECT_EQ(MM_UMIMsgno(first), 0u);
  EXPECT_EQ(MM_MsgEnvelope(first), nullptr);
  EXPECT_EQ(MM_MsgHeaderContent(first, "Subject"), std::nullopt);
  EXPECT_EQ(MM_MsgHeaderContent(first, "X-Foo"), std::nullopt);
  EXPECT_EQ(MM_MsgRawHeaders(first), std::nullopt);
  EXPECT_EQ(MM_MsgToFile(first), "");
  EXPECT_EQ(MM_MsgSectionBody(first, "1"), nullptr);
  EXPECT_EQ(MM_MsgSize(first), 0u);
  TakeEvents();
  EXPECT_EQ(MM_MsgSetFlag(first, "\\Seen"), 0);
  EXPECT_TRUE(TakeEvents().empty());  // nothing stored, nothing told
  // The other message moved to number 1 and is whole.
  EXPECT_EQ(MM_UMIMsgno(second), 1u);
  EXPECT_EQ(MM_MsgHeaderContent(second, "Subject"), std::optional<std::string>("message 2"));
}

TEST_F(Messages, ToFileGivesTheMessageBytesAndTheCallerOwnsIt) {
  const int id = WriteFolder("whole", {kPlain, Numbered(2)});
  const UMI umi = MM_UMIFromMsgno(id, 1);
  const std::string file = MM_MsgToFile(umi);
  ASSERT_FALSE(file.empty());
  EXPECT_EQ(ReadFile(file), kPlain);
  EXPECT_EQ(ReadFile(mh_path("whole") + "/1"), ReadFile(file));
  struct stat st;
  ASSERT_EQ(::stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(MM_MsgSize(umi), sizeof kPlain - 1);
  // Asked again, the message comes whole again and the first file stays.
  const std::string again = MM_MsgToFile(umi);
  ASSERT_FALSE(again.empty());
  EXPECT_NE(again, file);
  EXPECT_EQ(ReadFile(again), kPlain);
  EXPECT_EQ(ReadFile(file), kPlain);
  // The header and body pieces were the function's own and are gone.
  EXPECT_EQ(TempFiles().size(), 2u);
  // Headers in memory still come after files were made.
  EXPECT_EQ(MM_MsgRawHeaders(umi), std::optional<std::string>(std::string(kPlain, std::strstr(kPlain, "\r\n\r\n") + 4)));
}

TEST_F(Messages, FailedToFileLeavesNoFileBehind) {
  const int id = WriteFolder("fail", {kPlain});
  const UMI umi = MM_UMIFromMsgno(id, 1);
  const size_t before = TempFiles().size();
  // The third exclusive create (the message file, after header and body)
  // fails as a full disk would.
  safe_fail_from_for_test(kSafeOpen, 3, ENOSPC);
  const std::string file = MM_MsgToFile(umi);
  safe_clear_faults_for_test();
  EXPECT_EQ(file, "");
  EXPECT_TRUE(Traced("MM_MsgToFile: failed to generate message file pathname.\n"));
  EXPECT_EQ(TempFiles().size(), before);
}

TEST_F(Messages, CopyAndMoveBetweenLocalFolders) {
  // A second local service over the same folders: moves between services
  // go by way of a copy.
  Opt_AssignString("MsgService.ms2.Type", "local", kOptPermanent, 0);
  Opt_AssignString("MsgService.ms2.Name", "Other", kOptPermanent, 0);
  const int other = MM_MSNew(2);
  ASSERT_NE(other, INVALID_SERVICE);
  int source = WriteFolder("source", {Numbered(1), Numbered(2), Numbered(3)});
  ASSERT_TRUE(mail_create(nullptr, "target"));
  const UMI one = MM_UMIFromMsgno(source, 1), two = MM_UMIFromMsgno(source, 2), three = MM_UMIFromMsgno(source, 3);
  ASSERT_EQ(MM_MsgSetFlag(one, "\\Flagged"), 1);
  ASSERT_EQ(MM_MsgSetFlag(one, "\\Answered"), 1);
  TakeEvents();

  EXPECT_EQ(MM_MsgCopy(one, local_, "target"), 1);
  EXPECT_TRUE(TakeEvents().empty());
  EXPECT_EQ(MM_MsgIsDeleted(one), 0);
  EXPECT_EQ(MM_MsgMove(two, local_, "target"), 1);  // within the service
  EXPECT_EQ(MM_MsgMove(three, other, "target"), 1);  // to another service
  const std::vector<SeenEvent> moved = TakeEvents();
  ASSERT_EQ(moved.size(), 2u);
  EXPECT_EQ(moved[0].type, E_DELETED_FLAG_SET);
  EXPECT_EQ(moved[0].umi, two);
  EXPECT_EQ(moved[1].type, E_DELETED_FLAG_SET);
  EXPECT_EQ(moved[1].umi, three);
  EXPECT_EQ(MM_NeedsExpunge(), 1);
  EXPECT_EQ(MM_MsgCopy(one, INVALID_SERVICE, "target"), 0);
  EXPECT_TRUE(Traced("MM_MsgCopy: bogus message service passed as parameter: 999\n"));

  source = Reopen(source);
  EXPECT_EQ(MM_MsgIsDeleted(MM_UMIFromMsgno(source, 1)), 0);
  EXPECT_EQ(MM_MsgIsDeleted(MM_UMIFromMsgno(source, 2)), 1);
  EXPECT_EQ(MM_MsgIsDeleted(MM_UMIFromMsgno(source, 3)), 1);
  const int target = MM_FolOpen(local_, "target");
  ASSERT_EQ(MM_FolGetNumMsgs(target), 3);
  const struct {
    const char* subject;
    int flagged, answered, deleted;
  } want[] = {{"message 1", 1, 1, 0}, {"message 2", 0, 0, 0}, {"message 3", 0, 0, 0}};
  for (int n = 1; n <= 3; ++n) {
    const UMI u = MM_UMIFromMsgno(target, n);
    EXPECT_EQ(MM_MsgHeaderContent(u, "Subject"), std::optional<std::string>(want[n - 1].subject)) << n;
    EXPECT_EQ(MM_MsgIsFlagged(u), want[n - 1].flagged) << n;
    EXPECT_EQ(MM_MsgIsAnswered(u), want[n - 1].answered) << n;
    EXPECT_EQ(MM_MsgIsDeleted(u), want[n - 1].deleted) << n;
    const std::string file = MM_MsgToFile(u);
    EXPECT_EQ(ReadFile(file), Numbered(n)) << n;
    std::remove(file.c_str());
  }
}

}  // namespace
