// Messages by UMI: header values, priority, flags with their events,
// whole messages in files, copy and move, one at a time or many at once,
// and the fetch hook under them.
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "c-client/core/mail.h"
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
  EXPECT_EQ(MM_MsgMove(two, local_, "target"), 1);
  EXPECT_EQ(MM_MsgMove(three, other, "target"), 1);
  // Only the moves delete; reading a message to copy it leaves it new.
  std::vector<UMI> deleted;
  for (const Seen& e : seen_)
    if (e.type == E_DELETED_FLAG_SET) deleted.push_back(e.umi);
  EXPECT_EQ(deleted, (std::vector<UMI>{two, three}));
  EXPECT_FALSE(MM_MsgIsRead(one));
  EXPECT_FALSE(MM_MsgIsRead(three));
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

// --- Many messages at once ------------------------------------------------------
// The sequence sets, one flag change per folder for a whole selection
// with an event per message, and copies of a selection.

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

// --- The fetch hook ---------------------------------------------------------------
// Memory mode's cap keeps the reader in step, and a fetch inside a fetch
// is refused. (File mode is met in the sections' tests.)

struct Reader { std::string data; size_t pos = 0; };

long Read(void* handle, unsigned long size, char* buffer) {
  auto* r = static_cast<Reader*>(handle);
  if (r->pos + size > r->data.size()) return 0;
  std::memcpy(buffer, r->data.data() + r->pos, size);
  r->pos += size;
  return 1;
}

using Mailgets = ModelTest;

TEST_F(Mailgets, MemoryModeCutsAt65000AndKeepsTheReaderInStep) {
  for (const auto& [size, kept] : {std::pair{0, 0}, {65000, 65000}, {65001, 65000}, {200000, 65000}}) {
    std::string data;
    for (int i = 0; i < size; ++i) data.push_back(static_cast<char>('a' + (i * 7) % 26));
    Reader r{data + "NEXT"};
    MailText* text = MM_Mailgets(Read, &r, size);
    ASSERT_NE(text, nullptr) << size;
    EXPECT_EQ(std::string(text->data, text->size), data.substr(0, kept)) << size;
    EXPECT_EQ(r.data.substr(r.pos), "NEXT") << size << ": what follows is read right";
    mail_free_text(&text);
  }
  // Through the model: the header in memory is cut, the files are whole.
  const std::string header = "From: a@example.org\r\nX-Big: " + std::string(70000, 'h') + "\r\n\r\n";
  MakeFolder("big", {header + "the body\r\n"});
  const UMI umi = MM_UMIFromMsgno(MM_FolOpen(local_, "big"), 1);
  EXPECT_EQ(MM_MsgRawHeaders(umi), header.substr(0, kMailgetsMemoryCap));
  EXPECT_EQ(ReadFile(MM_MsgRawBodyToFile(umi)), "the body\r\n");
  EXPECT_EQ(ReadFile(MM_MsgRawHeadersToFile(umi)), header);
}

TEST_F(Mailgets, AFetchInsideAFetchIsRefused) {
  static MailText* inner = reinterpret_cast<MailText*>(1);
  Reader r{"outer"};
  MailText* text = MM_Mailgets(
      [](void* handle, unsigned long size, char* buffer) {
        Reader nested{"inner"};
        inner = MM_Mailgets(Read, &nested, 5);
        return Read(handle, size, buffer);
      },
      &r, 5);
  EXPECT_EQ(std::string(text->data, text->size), "outer");
  EXPECT_EQ(inner, nullptr);
  mail_free_text(&text);
}

}  // namespace
