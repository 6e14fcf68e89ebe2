// The mh driver through the mail core: its table, opening, appending and
// the update queue, flags written through to the index, the status file,
// close, fetches, expunge, counts without opening, search, and a big folder
// read back from every path. Copy and move are in mh_cache_files_test.cc.
#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <functional>

#include "tests/c-client/mh/mh_test_util.h"

namespace mh_test {
namespace {

class MhDriver : public MhTest {};

TEST_F(MhDriver, AppendsWaitInTheQueueUntilTheNextPing) {
  const std::string dir = Create("Box");
  MailStream* s = OpenOk("Box");
  mail_env_clear();
  // The date is checked, then the file's own time is the internal date.
  ASSERT_EQ(Append("Box", MakeMessage(0, true), "(\\Seen \\Flagged)", "1-Jan-2000 10:00:00 +0000"), 1);
  ASSERT_EQ(Append("Box", MakeMessage(1, false)), 1) << Logs();
  ASSERT_EQ(Append("Box", MakeMessage(2, true), "\\Draft"), 1) << Logs();
  // Appending touches neither the index nor the open stream.
  EXPECT_EQ(s->nmsgs, 0u);
  EXPECT_EQ(Header(dir).nmsgs, 0u);
  EXPECT_EQ(Records(dir, "mh_updat.dat").size(), 3u);
  EXPECT_EQ(Messages(dir).size(), 3u);

  EXPECT_EQ(mail_ping(s), 1);
  EXPECT_EQ(s->nmsgs, 3u);
  EXPECT_EQ(s->recent, 3u);
  EXPECT_TRUE(EnvSaid("exists", "")) << Logs();
  EXPECT_EQ(Flags(s, 1), "S-F--");
  EXPECT_EQ(Flags(s, 2), "-----");
  EXPECT_EQ(Flags(s, 3), "----d");
  EXPECT_EQ(Header(dir).nmsgs, 3u);
  EXPECT_FALSE(fs::exists(dir + "/mh_updat.dat")) << "the queue is gone once applied";
  // Every queued message got its structure record on the way in.
  for (const MhIndexRecord& r : Records(dir)) EXPECT_NE(r.cache_offset, 0u) << r.number;
  for (unsigned long i = 1; i <= 3; ++i)
    EXPECT_EQ(mail_elt(s, i)->rfc822_size, MakeMessage(static_cast<int>(i - 1), i != 2).size());
  const std::time_t now = std::time(nullptr);
  EXPECT_EQ(mail_elt(s, 1)->year + 1969, std::gmtime(&now)->tm_year + 1900);
  mail_check(s);
  EXPECT_EQ(s->nmsgs, 3u);
}

TEST_F(MhDriver, AppendRefusalsLeaveNothingBehind) {
  const std::string dir = Create("Box");
  const std::tuple<const char*, const char*, std::string, const char*, std::string> cases[] = {
      // folder, date, message, callback, what it said
      {"Missing", nullptr, "Subject: x\n\nbody\n", "notify", "[TRYCREATE] Must create mailbox before append"},
      {"{host}Box", nullptr, "Subject: x\n\nbody\n", "log", "Invalid MH-format mailbox name: {host}Box"},
      {"Box", "the day after tomorrow", "Subject: x\n\nbody\n", "log", "Bad date in append"},
      {"Box", nullptr, "", "log", "Failed on write to message file " + dir + "/1 - no message header"},
  };
  for (const auto& [mailbox, date, text, callback, said] : cases) {
    mail_env_clear();
    StringSource source;
    string_init(&source, &mail_string, const_cast<char*>(text.data()), text.size());
    EXPECT_EQ(mhdriver.append(nullptr, mailbox, nullptr, date, &source), 0) << said;
    EXPECT_TRUE(EnvSaid(callback, said)) << Logs();
  }
  EXPECT_TRUE(Messages(dir).empty());
  EXPECT_FALSE(fs::exists(dir + "/mh_updat.dat"));
  // The core's question whether the default format takes anything at all.
  EXPECT_EQ(mhdriver.append(mhdriver.prototype, nullptr, nullptr, nullptr, nullptr), 0);
}

TEST_F(MhDriver, NewNumbersNeverOverwriteAnotherWritersFile) {
  const std::string dir = Create("Box");
  WriteFile(dir + "/7", "Subject: by another tool\n\nseven\n");
  ASSERT_EQ(Append("Box", "Subject: a\n\nA\n"), 1);
  EXPECT_EQ(ReadFile(dir + "/8"), "Subject: a\n\nA\n") << "the scan finds the highest number";
  // Another writer takes the next number behind our memory's back.
  WriteFile(dir + "/9", "Subject: theirs\n\nnine\n");
  ASSERT_EQ(Append("Box", "Subject: b\n\nB\n"), 1);
  EXPECT_EQ(ReadFile(dir + "/9"), "Subject: theirs\n\nnine\n");
  EXPECT_EQ(ReadFile(dir + "/10"), "Subject: b\n\nB\n");
  EXPECT_EQ(fs::status(dir + "/10").permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(MhDriver, AFileDroppedInByAnotherToolAppearsAtTheNextCheck) {
  const std::string dir = Create("Box");
  ASSERT_EQ(Append("Box", "Subject: ours\n\nx\n"), 1);
  MailStream* s = OpenOk("Box");
  ASSERT_EQ(s->nmsgs, 1u);
  // A copy by hand: no queued record. While it may still be being written
  // it waits; once settled, the next check takes it.
  WriteFile(dir + "/5", "Subject: dropped in\n\ny\n");
  mail_check(s);
  EXPECT_EQ(s->nmsgs, 1u);
  struct timeval old_times[2] = {{std::time(nullptr) - 60, 0}, {std::time(nullptr) - 60, 0}};
  ASSERT_EQ(::utimes((dir + "/5").c_str(), old_times), 0);
  mail_check(s);
  ASSERT_EQ(s->nmsgs, 2u);
  EXPECT_STREQ(mail_fetchstructure(s, 2, nullptr)->subject, "dropped in");
  // A file below the highest known number is a rebuild's to find.
  WriteFile(dir + "/0", "not a message number");
  mail_check(s);
  EXPECT_EQ(s->nmsgs, 2u);
}

// Flags set are written through to the index, and index flag bits this
// program doesn't know survive a change.
TEST_F(MhDriver, FlagListsAreParsedAndWrittenThrough) {
  const std::string dir = Create("Box");
  const std::tuple<const char*, std::string, std::string> cases[] = {
      // list, flags, what was logged (empty: nothing)
      {"\\Seen", "S----", ""}, {"(\\Deleted \\Flagged)", "-DF--", ""}, {"\\Answered \\Draft", "---Ad", ""},
      {"\\seen \\dRAFT", "S---d", ""}, {"\\Sxyz", "S----", ""},  // the first letter decides, the length must fit
      {"\\Recent \\Flagged", "--F--", "Unknown message flag encountered."},
      {"Seen \\Seen", "S----", "Unknown flag: SEEN"}, {"(\\Seen", "-----", "Bad flag list"},
  };
  for (size_t i = 0; i < std::size(cases); ++i) ASSERT_EQ(Append("Box", "Subject: f\n\nf\n"), 1);
  MailStream* s = OpenOk("Box");
  ASSERT_EQ(s->nmsgs, std::size(cases));
  const std::time_t before = std::time(nullptr);
  for (size_t i = 0; i < std::size(cases); ++i) {
    const auto& [list, flags, logged] = cases[i];
    mail_env_clear();
    mail_setflag(s, std::to_string(i + 1).c_str(), list);
    EXPECT_EQ(Flags(s, i + 1), flags) << list;
    EXPECT_TRUE(logged.empty() || EnvSaid("log", logged)) << list << "\n" << Logs();
    EXPECT_EQ(Records(dir)[i].changed >= before, flags != "-----") << list;
  }
  Close(s);
  std::string index = ReadFile(dir + "/mh_index.dat");
  WriteFile(dir + "/mh_index.dat", index.replace(kMhHeaderSize + 32, 4, Le32(0x100 | kMhSeen)));
  s = OpenOk("Box");
  for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(Flags(s, i + 1), std::get<1>(cases[i])) << "reopened";

  mail_setflag(s, "1:3", "\\Seen \\Deleted \\Flagged \\Answered \\Draft");
  mail_clearflag(s, "3,1", "(\\Seen \\Draft)");
  EXPECT_EQ(Flags(s, 1), "-DFA-");
  EXPECT_EQ(Flags(s, 2), "SDFAd");
  EXPECT_EQ(Flags(s, 3), "-DFA-");
  EXPECT_EQ(Records(dir)[0].flags, 0x100u | kMhDeleted | kMhFlagged | kMhAnswered);
}

TEST_F(MhDriver, CloseClearsRecentAndRemembersTheLastMessage) {
  const std::string dir = Create("Box");
  ASSERT_EQ(Append("Box", "Subject: 1\n\n1\n"), 1);
  ASSERT_EQ(Append("Box", "Subject: 2\n\n2\n"), 1);
  MailStream* s = OpenOk("Box");
  EXPECT_EQ(s->recent, 2u);
  Close(s);
  EXPECT_EQ(Header(dir).recent, 0u);
  EXPECT_EQ(Header(dir).last_seen, 2u);
  ASSERT_EQ(Append("Box", "Subject: 3\n\n3\n"), 1);
  s = OpenOk("Box");
  ASSERT_EQ(s->nmsgs, 3u);
  EXPECT_EQ(s->recent, 1u);
  EXPECT_TRUE(!mail_elt(s, 1)->recent && !mail_elt(s, 2)->recent && mail_elt(s, 3)->recent);
  // Opening again on the same stream closes the old open first.
  MailStream* again = mail_open(s, "Box", 0);
  ASSERT_EQ(again, s);
  EXPECT_EQ(s->nmsgs, 3u);
  EXPECT_EQ(s->recent, 0u);
}

// A header is not reading the message, a section or the text is, and the
// mark is written through.
TEST_F(MhDriver, OnlyReadingTheTextMarksSeen) {
  const std::string dir = Create("Box");
  ASSERT_EQ(Append("Box", MakeMessage(1, true)), 1);
  MailStream* s = OpenOk("Box");
  ASSERT_NE(mail_fetchstructure(s, 1, nullptr), nullptr);
  ASSERT_NE(mail_fetchheader(s, 1), nullptr);
  EXPECT_EQ(Flags(s, 1), "-----");
  unsigned long length = 0;
  ASSERT_NE(mail_fetchbody(s, 1, "1", &length), nullptr);
  EXPECT_EQ(Flags(s, 1), "S----");
  EXPECT_EQ(Records(dir)[0].flags, kMhSeen);
  mail_clearflag(s, "1", "\\Seen");
  ASSERT_NE(mail_fetchtext(s, 1), nullptr);
  EXPECT_EQ(Flags(s, 1), "S----");
}

// A rebuild takes the message files as they are: flags from a status file,
// empty files and names that don't read back as numbers left out. A file
// removed by hand fails its fetch, and is gone after the rebuild.
TEST_F(MhDriver, RebuildTakesStatusFilesAndSkipsEmptyOrMisnamedFiles) {
  const std::string dir = Create("Box");
  ASSERT_EQ(Append("Box", "Subject: one\n\n1\n"), 1);
  ASSERT_EQ(Append("Box", "Subject: gone\n\n4\n"), 1);
  MailStream* s = OpenOk("Box");
  fs::remove(dir + "/2");
  EXPECT_EQ(mail_fetchtext(s, 2), nullptr);
  EXPECT_TRUE(EnvSaid("log", "Failed to open MH message file: " + dir + "/2 - No such file or directory")) << Logs();
  Close(s);
  WriteFile(dir + "/2", "");
  WriteFile(dir + "/3", "Subject: three\n\n3\n");
  WriteFile(dir + "/3.st", Le32(kMhSeen | kMhFlagged) + Le32(3));
  WriteFile(dir + "/012", "not a message: its name doesn't read back\n");
  fs::remove(dir + "/mh_index.dat");
  s = OpenOk("Box");
  EXPECT_TRUE(EnvSaid("notify", "Rebuilding MH cache database - this may take awhile.")) << Logs();
  ASSERT_EQ(s->nmsgs, 2u);
  EXPECT_EQ(mail_elt(s, 2)->file_number, 3u);
  EXPECT_EQ(Header(dir).nmsgs, 2u);
  EXPECT_EQ(Flags(s, 1), "-----");
  EXPECT_EQ(Flags(s, 2), "S-F--");
  EXPECT_EQ(mail_elt(s, 2)->user_flags, 3u);
  EXPECT_TRUE(fs::exists(dir + "/2") && fs::exists(dir + "/012"));
  mail_setflag(s, "2", "\\Deleted");
  mail_expunge(s);
  EXPECT_EQ(s->nmsgs, 1u);
  EXPECT_FALSE(fs::exists(dir + "/3") || fs::exists(dir + "/3.st"));
}

TEST_F(MhDriver, ExpungeWithAndWithoutStructureRecords) {
  const std::string dir = Create("Box");
  for (int i = 0; i < 8; ++i) ASSERT_EQ(Append("Box", MakeMessage(i, i % 2 == 0)), 1);
  MailStream* s = OpenOk("Box");
  Close(s);
  // Messages 2, 3, 6 and 7 lose their structure records, as if never
  // fetched; 3 and 7 go, 2 and 6 stay.
  std::string index = ReadFile(dir + "/mh_index.dat");
  for (int n : {2, 3, 6, 7}) index.replace(kMhHeaderSize + (n - 1) * kMhRecordSize + 16, 12, std::string(12, '\0'));
  WriteFile(dir + "/mh_index.dat", index);
  s = OpenOk("Box");
  std::map<unsigned long, std::string> before;
  for (unsigned long i = 1; i <= 8; ++i) before[i] = DumpMessage(s, i);
  for (unsigned long i = 1; i <= 8; ++i) EXPECT_NE(Records(dir)[i - 1].cache_offset, 0u) << "fetching made " << i;
  Close(s);
  WriteFile(dir + "/mh_index.dat", index);  // back to records without structures

  s = OpenOk("Box");
  mail_setflag(s, "1,3,5,7", "\\Deleted");
  mail_setflag(s, "2", "\\Flagged");
  mail_env_clear();
  mail_expunge(s);
  EXPECT_EQ(EnvLines("expunged"), (std::vector<std::string>{"1", "2", "3", "4"})) << "numbers close up as each goes";
  EXPECT_TRUE(EnvSaid("dlog", "mh_expunge: expunged 4 messages.")) << Logs();
  ASSERT_EQ(s->nmsgs, 4u);
  std::string left;
  for (auto& [number, bytes] : Messages(dir)) left += std::to_string(number) + " ";
  EXPECT_EQ(left, "2 4 6 8 ");
  const std::vector<MhIndexRecord> records = Records(dir);
  ASSERT_EQ(records.size(), 4u);
  EXPECT_EQ(Header(dir).nmsgs, 4u);
  // Only the records there were are copied: 4 and 8 had one, 2 and 6 none.
  uint64_t copied = 4;  // the cache begins with a zero word
  for (const MhIndexRecord& r : records) {
    EXPECT_EQ(r.cache_offset != 0, r.number == 4 || r.number == 8) << r.number;
    if (r.cache_offset) copied += 4 + r.envelope_size + r.body_size;
  }
  EXPECT_EQ(fs::file_size(dir + "/mh_cache.dat"), copied);
  EXPECT_EQ(records[0].flags, kMhFlagged);
  for (unsigned long i = 1; i <= 4; ++i) EXPECT_EQ(DumpMessage(s, i), before[2 * i]) << "message " << 2 * i;
  Close(s);
  s = OpenOk("Box");
  for (unsigned long i = 1; i <= 4; ++i) EXPECT_EQ(DumpMessage(s, i), before[2 * i]) << "reopened, " << 2 * i;

  mail_env_clear();
  mail_expunge(s);
  EXPECT_TRUE(EnvSaid("dlog", "mh_expunge: no messages deleted, so no messages expunged")) << Logs();
  EXPECT_EQ(s->nmsgs, 4u);
}

// Counts of a folder without opening it: from the index and the queue of
// appends, each message once, nothing written, and no answer at all from
// an index the driver doesn't trust.
// "messages/recent/unseen" ("-" not asked), or "none" when the driver can't tell.
std::string Status(const char* name, long flags = SA_MESSAGES | SA_RECENT | SA_UNSEEN, MailStream* via = nullptr) {
  MailStatus st{};
  if (!mail_status(via, name, flags, &st)) return st.flags || st.messages ? "cleared?" : "none";
  auto show = [&](long bit, unsigned long n) { return flags & bit ? std::to_string(n) : std::string("-"); };
  return show(SA_MESSAGES, st.messages) + "/" + show(SA_RECENT, st.recent) + "/" + show(SA_UNSEEN, st.unseen) +
         (st.flags == (flags & (SA_MESSAGES | SA_RECENT | SA_UNSEEN)) ? "" : " flags?");
}

TEST_F(MhTest, StatusCountsFollowAppendsFlagsAndTheQueue) {
  const std::string dir = Create("Box"), index = dir + "/mh_index.dat", queue = dir + "/mh_updat.dat";
  auto open_close = [&](const char* flag) {
    MailStream* s = OpenOk("Box");
    if (flag) mail_setflag(s, "1", flag);
    Close(s);
  };
  struct Step {
    std::function<void()> act;
    const char* want;
  } steps[] = {
      {[] {}, "0/0/0"},
      {[&] {  // appends wait in the queue
         ASSERT_EQ(Append("Box", MakeMessage(0, true)), 1);
         ASSERT_EQ(Append("Box", MakeMessage(1, true), "(\\Seen)"), 1);
         ASSERT_EQ(Append("Box", MakeMessage(2, false)), 1);
       }, "3/3/2"},
      {[&] { open_close("\\Seen"); }, "3/0/1"},  // applied by an open, message 1 read
      // A queue record the index already holds counts once.
      {[&] { WriteFile(queue, ReadFile(index).substr(kMhHeaderSize, kMhRecordSize)); }, "3/0/1"},
      {[&] {  // a queue record twice, and one whose file is gone
         ASSERT_EQ(Append("Box", MakeMessage(3, true)), 1);
         std::string last = ReadFile(queue).substr(ReadFile(queue).size() - kMhRecordSize), gone = last;
         gone[0] = static_cast<char>(gone[0] + 10);
         WriteFile(queue, ReadFile(queue) + last + gone);
       }, "4/1/2"},
      {[&] { WriteFile(index, std::string(4, '\0') + ReadFile(index).substr(4)); }, "none"},  // marked untrusted
      {[&] { open_close(nullptr); }, "4/0/2"},  // the next open rebuilds
      {[&] { WriteFile(index, ReadFile(index).substr(0, ReadFile(index).size() - 1)); }, "none"},  // short
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(&step - steps);
    step.act();
    const std::string before = ReadFile(index) + "|" + (fs::exists(queue) ? ReadFile(queue) : "");
    mail_env_clear();
    EXPECT_EQ(Status("Box"), step.want);
    // Asking writes nothing and says nothing.
    EXPECT_EQ(ReadFile(index) + "|" + (fs::exists(queue) ? ReadFile(queue) : ""), before);
    EXPECT_EQ(Logs(), "");
  }
}

TEST_F(MhTest, StatusOfWhatCantBeToldIsZero) {
  Create("Box");
  ASSERT_EQ(Append("Box", MakeMessage(0, true)), 1);
  EXPECT_EQ(Status("Box", SA_UNSEEN), "-/-/1");
  EXPECT_EQ(Status("Box", SA_ALL), "1/1/1");  // no UIDs here
  for (long flags : {SA_UIDNEXT | SA_UIDVALIDITY, 0l}) EXPECT_EQ(Status("Box", flags), "none");
  for (const char* name : {"Missing", "Box\\.."}) EXPECT_EQ(Status(name), "none");
  // A stream of the folder may carry the question; the answer is the same.
  MailStream* s = OpenOk("Box");
  EXPECT_EQ(Status("Box", SA_MESSAGES, s), "1/-/-");
}

// Searching a folder: every keyword, strings as atoms, quoted strings and
// literals, dates on the internal date, keywords combined, and the refusals.

// mail_gets as the program has it: large texts go to a file, which a
// search does not look into.
MailText* SpoolingGets(readfn_t reader, void* handle, unsigned long size) {
  std::string data(size, '\0');
  if (size && !reader(handle, size, data.data())) return nullptr;
  MailText* text = mail_newtext();
  if (size <= 2000) return mail_text_set(text, kTextInMemory, data.data(), size), text;
  char path[] = "/tmp/mh_search_spool.XXXXXX";
  ::close(::mkstemp(path));
  WriteFile(path, data);
  mail_text_set(text, kTextFile, path, 0);
  text->size = size;
  return text;
}

class MhSearch : public MhTest {
 protected:
  void SetUp() override {
    MhTest::SetUp();
    saved_gets_ = mail_gets;
    mail_gets = SpoolingGets;
  }
  void TearDown() override {
    mail_gets = saved_gets_;
    MhTest::TearDown();
  }

  static void Write(const std::string& dir, int n, const std::string& text, long day_of_march) {
    const std::string path = dir + "/" + std::to_string(n);
    WriteFile(path, text);
    // 2024-03-<day> 12:00:00 UTC
    const time_t t = 1709294400 + (day_of_march - 1) * 86400;
    struct timeval times[2] = {{t, 0}, {t, 0}};
    ASSERT_EQ(::utimes(path.c_str(), times), 0);
  }

  static std::vector<unsigned long> Hits(MailStream* s, const char* criteria) {
    mail_search_reset(s);
    mail_env_clear();
    mail_search(s, criteria);
    std::vector<unsigned long> hits;
    for (const std::string& n : EnvLines("searched")) hits.push_back(std::stoul(n));
    EXPECT_EQ(s->searched, hits.size()) << criteria;
    return hits;
  }

  mailgets_t saved_gets_ = nullptr;
};

TEST_F(MhSearch, EveryKeywordPicksItsMessages) {
  const std::string dir = Create("Box");
  Write(dir, 1,
        "From: Alice <alice@example.org>\nTo: bob@example.org\nSubject: Quarterly report\n\nthe numbers are up\n", 10);
  Write(dir, 2, "From: carol@example.org\nCc: Dave <dave@example.org>\nSubject: Lunch\n\nPizza at noon\n", 11);
  Write(dir, 3,
        "From: alice@example.org\nBcc: eve@example.net\nSubject: Re: Quarterly report\n\nNUMBERS look fine\n", 12);
  fs::remove(dir + "/mh_cache.dat");
  MailStream* s = OpenOk("Box");
  ASSERT_EQ(s->nmsgs, 3u);
  mail_setflag(s, "1", "\\Seen \\Answered");
  mail_setflag(s, "2", "\\Flagged");
  mail_setflag(s, "3", "\\Deleted \\Draft");
  Close(s);
  // The fourth comes after the close: the only recent one. Its text is
  // large enough to be spooled to a file.
  Write(dir, 4, "From: zed@example.org\nSubject: Big\n\n" + std::string(3000, 'x') + " needle\n", 13);
  fs::remove(dir + "/mh_cache.dat");
  s = OpenOk("Box");
  ASSERT_EQ(s->nmsgs, 4u);
  ASSERT_EQ(Flags(s, 1), "S--A-");

  using V = std::vector<unsigned long>;
  const std::pair<const char*, V> cases[] = {
      {"ALL", {1, 2, 3, 4}}, {"SEEN", {1}}, {"UNSEEN", {2, 3, 4}}, {"ANSWERED", {1}}, {"UNANSWERED", {2, 3, 4}},
      {"FLAGGED", {2}}, {"UNFLAGGED", {1, 3, 4}}, {"DELETED", {3}}, {"UNDELETED", {1, 2, 4}}, {"DRAFT", {3}},
      {"RECENT", {4}}, {"OLD", {1, 2, 3}}, {"NEW", {4}}, {"from ALICE", {1, 3}}, {"TO bob", {1}}, {"CC dave", {2}},
      {"BCC eve", {3}}, {"FROM Alice <alice", {}},  // an atom ends at the blank: "<alice" is no keyword
      {"SUBJECT \"quarterly report\"", {1, 3}}, {"SUBJECT {9}\r\nQuarterly", {1, 3}}, {"SUBJECT {5}\nLunch", {2}},
      {"BODY numbers", {1, 3}}, {"BODY needle", {}},  // spooled to a file: not searched
      {"SUBJECT big", {4}}, {"TEXT lunch", {2}}, {"TEXT pizza", {2}}, {"BEFORE 11-Mar-2024", {1}},
      {"ON 11-Mar-2024", {2}}, {"SINCE 11-Mar-2024", {2, 3, 4}}, {"SINCE \"12-Mar-2024\" BEFORE 13-Mar-2024", {3}},
      {"KEYWORD work", {}}, {"UNKEYWORD work", {1, 2, 3, 4}}, {"UNDELETED SUBJECT report", {1}},
  };
  for (const auto& [criteria, hits] : cases) EXPECT_EQ(Hits(s, criteria), hits) << criteria << "\n" << Logs();
  EXPECT_EQ(Flags(s, 2), "--F--") << "searching a text doesn't mark it seen";
  EXPECT_EQ(Flags(s, 4), "-----");

  const std::pair<const char*, const char*> refusals[] = {
      {"SEEN FROB", "FROB"}, {"FROM", "FROM"}, {"ON yesterday", "ON"}, {"SUBJECT \"open", "SUBJECT"},
      {"SUBJECT {99}\r\nshort", "SUBJECT"}};
  for (const auto& [criteria, word] : refusals) {
    EXPECT_EQ(Hits(s, criteria), V{}) << criteria;
    EXPECT_TRUE(EnvSaid("log", std::string("Unknown search criterion: ") + word)) << criteria << "\n" << Logs();
  }
}

// Thirteen hundred messages of mixed shapes and line ends (more index
// records than one 64 KB piece holds) through a folder: appended, applied
// at the ping, fetched, read from the caches alone, and rebuilt. Every
// structure is a fresh parse of the file with its lists reversed, every
// header, text and section the file's bytes where the parse puts them, and
// each later read gives the same.

constexpr unsigned long kMessages = 1300;

class MhRoundTrip : public MhTest {};

TEST_F(MhRoundTrip, EveryMessageComesBackTheSameFromEveryPath) {
  const std::string dir = Create("Big");
  MailStream* s = OpenOk("Big");
  auto text_of = [](unsigned long i) { return MakeMessage(static_cast<int>(i - 1), (i - 1) / 6 % 2 == 0); };
  for (unsigned long i = 1; i <= kMessages; ++i)
    ASSERT_EQ(Append("Big", text_of(i), i % 3 == 1 ? "\\Flagged" : nullptr), 1) << Logs();
  EXPECT_EQ(s->nmsgs, 0u) << "appends wait for the ping";
  ASSERT_EQ(mail_ping(s), 1);
  ASSERT_EQ(s->nmsgs, kMessages);

  std::vector<std::string> structures(kMessages + 1), everything(kMessages + 1);
  std::vector<char> work(kRfc822WorkSize);
  for (unsigned long i = 1; i <= kMessages; ++i) {
    const std::string path = dir + "/" + std::to_string(i), text = text_of(i);
    ASSERT_EQ(ReadFile(path), text);
    // The message file parsed here and now, as the driver would.
    const int fd = ::open(path.c_str(), O_RDONLY);
    const long header_size = rfc822_header_size(fd);
    std::string header = text.substr(0, static_cast<size_t>(header_size));
    FileText file{};
    file.fd = fd;
    StringSource source;
    string_init(&source, &file_string, &file, text.size());
    string_setpos(&source, static_cast<unsigned long>(header_size));
    Envelope* env = nullptr;
    BodyPart* body = nullptr;
    rfc822_parse_msg(&env, &body, header.data(), header.size(), &source, local_host_name(), work.data());
    ::close(fd);
    structures[i] = DumpStructure(s, i);
    EXPECT_EQ(structures[i], DumpEnvelope(env, true) + "\n" + DumpBody(body, true)) << i;
    EXPECT_EQ(TextOf(mail_fetchheader(s, i)), header) << i;
    EXPECT_EQ(TextOf(mail_fetchtext(s, i)), text.substr(header.size())) << i;
    std::vector<std::string> sections;
    Sections(body, "", &sections);
    for (const std::string& section : sections) {
      unsigned long offset = 0, length = 0;
      const BodyPart* part = mail_body_section(body, section.c_str(), &offset);
      ASSERT_NE(part, nullptr) << i << " " << section;
      EXPECT_EQ(TextOf(mail_fetchbody(s, i, section.c_str(), &length)),
                text.substr(offset ? offset : header.size(), part->size_bytes))
          << i << " section " << section;
    }
    mail_free_envelope(&env);
    mail_free_body(&body);
    everything[i] = DumpMessage(s, i);
  }
  Close(s);

  // From the caches alone: with the message files away, every structure.
  for (unsigned long i = 1; i <= kMessages; ++i)
    fs::rename(dir + "/" + std::to_string(i), home_ + "/" + std::to_string(i));
  s = OpenOk("Big");
  ASSERT_EQ(s->nmsgs, kMessages);
  for (unsigned long i = 1; i <= kMessages; ++i) ASSERT_EQ(DumpStructure(s, i), structures[i]) << "cached, " << i;
  Close(s);
  for (unsigned long i = 1; i <= kMessages; ++i)
    fs::rename(home_ + "/" + std::to_string(i), dir + "/" + std::to_string(i));

  // A rebuild from the message files gives the same, and keeps the flags.
  fs::remove(dir + "/mh_cache.dat");
  mail_env_clear();
  s = OpenOk("Big");
  EXPECT_TRUE(EnvSaid("notify", "Rebuilding MH cache database - this may take awhile.")) << Logs();
  ASSERT_EQ(s->nmsgs, kMessages);
  for (unsigned long i = 1; i <= kMessages; ++i) {
    ASSERT_EQ(DumpMessage(s, i), everything[i]) << "rebuilt, " << i;
    EXPECT_EQ(Flags(s, i), i % 3 == 1 ? "S-F--" : "S----") << i;
  }
}

}  // namespace
}  // namespace mh_test
