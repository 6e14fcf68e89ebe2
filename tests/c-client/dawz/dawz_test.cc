// The dawz driver against files on disk: what a parse believes, the bytes
// a flag change or an append or an expunge leaves, and that a failure at
// any step loses nothing.
#include "c-client/dawz/dawz.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "c-client/mh/subscribe.h"
#include "tests/c-client/mh/mh_test_util.h"

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// A record as the format writes it.
std::string Record(const std::string& text, const char* flags = "000000000000", long size = -1,
                   const char* date = " 3-Jun-2024 10:00:00-+0200") {
  return std::string(date) + "," + std::to_string(size < 0 ? static_cast<long>(text.size()) : size) + ";" + flags +
         "\r\n" + text;
}

std::string Msg(int i) {
  return "From: a" + std::to_string(i) + "@example.org\r\nSubject: message " + std::to_string(i) +
         "\r\n\r\nbody of message " + std::to_string(i) + " needle" + std::to_string(i) + "\r\n";
}

class Dawz : public mh_test::MhTest {
 protected:
  void SetUp() override {
    MhTest::SetUp();
    mail_unlink_all();
    mail_link(&mhdriver);
    mail_link(&dawzdriver);
    dawz_set_crash_point_for_test(nullptr);
    fs::create_directories(home_ + "/folders");
  }
  void TearDown() override {
    dawz_set_crash_point_for_test(nullptr);
    MhTest::TearDown();
  }
  std::string PathOf(const char* file) { return home_ + "/folders/" + file; }
  void Put(const char* file, const std::string& bytes) { WriteFile(PathOf(file), bytes); }
  std::string Get(const char* file) { return ReadFile(PathOf(file)); }
  // What the stream believes of each message: size, header size, flags.
  static std::string Shape(MailStream* s) {
    std::string out;
    for (unsigned long i = 1; s && i <= s->nmsgs; ++i) {
      MessageElt* e = mail_elt(s, i);
      out += std::to_string(e->rfc822_size) + "/" + std::to_string(dawz_header_size(e)) + "/" + Flags(s, i) + " ";
    }
    return out;
  }
  static Lines LogsAt(long level) {
    Lines out;
    for (const MailEnvLine& l : mail_env_lines())
      if (l.callback == "log" && l.level == level) out.push_back(l.text);
    return out;
  }
};

// --- The format -------------------------------------------------------------

TEST_F(Dawz, FormatTestAndLines) {
  const std::tuple<std::string, bool> probes[] = {
      {"", true},
      {Record("x"), true},
      {"3-Jun-2024 10:00:00-+0200,1;000000000000\r\nx", true},  // dashes at 1 and 5
      {"From someone Mon Jun  3 10:00:00 2024\n", false},
      {" 3-Jun-2024 10:00:00 +0200 no comma here at all\r\n", false},
      {" 3-Jun-2024 10:00:00-+0200,;\r\n", false},  // ";" right after ","
      {std::string(70, ' ') + ",1;000000000000", false},
  };
  for (const auto& [bytes, ok] : probes) EXPECT_EQ(dawz_format_ok(bytes.data(), bytes.size()), ok) << bytes;

  const std::tuple<std::string, DawzLineError, unsigned long, unsigned> lines[] = {
      {Record("", "000000000017", 42), DawzLineError::kNone, 42, 017},
      {Record("", "000000000000", 7).substr(0, 40), DawzLineError::kNoLineEnd, 0, 0},
      {" 3-Jun-2024 10:00:00-+0200 42 000000000000\r\n", DawzLineError::kNoMarks, 0, 0},
      {Record("", "000000000000", 0), DawzLineError::kComponents, 0, 0},
      {Record("", "00000000000", 5), DawzLineError::kComponents, 0, 0},     // eleven digits
      {Record("", "000000000008", 5), DawzLineError::kComponents, 0, 0},    // not octal
      {" 3-Jun-2024 10:00:00-+0200,4x;000000000000\r\n", DawzLineError::kComponents, 0, 0},
      {" 3-Jun-2024 10:00:00-+0200,99999999999999999999;000000000000\r\n", DawzLineError::kComponents, 0, 0},
  };
  for (const auto& [bytes, error, size, flags] : lines) {
    DawzLine line;
    EXPECT_EQ(dawz_parse_line(bytes.data(), bytes.size(), &line), error) << bytes;
    if (error == DawzLineError::kNone) {
      EXPECT_EQ(std::make_tuple(line.size, line.system_flags), std::make_tuple(size, flags));
    }
  }
  const std::string made = dawz_make_line(" 3-Jun-2024 10:00:00-+0200", 9, 1ul << 29, 013);
  EXPECT_EQ(made, " 3-Jun-2024 10:00:00-+0200,9;400000000013\r\n");
  const std::string now = dawz_now() + ",1;000000000000";
  EXPECT_TRUE(dawz_format_ok(now.data(), now.size())) << now;
}

// --- Parsing ----------------------------------------------------------------

// What a parse believes of each file, or why it refuses the file and
// closes the stream.
TEST_F(Dawz, ParseCorrectsLyingSizesAndRefusesBrokenFiles) {
  const std::string shaped = "From: b\r\n\r\nbefore\r\n" + Record("after\r\n");
  const std::string rows[][3] = {
      // file, what the stream believes, the reason of a refusal
      {"", "", ""},
      {Record(Msg(1)) + Record(Msg(2), "000000000001"), "71/44/----- 71/44/S---- ", ""},
      // sizes that claim too little and too much are both corrected
      {Record(Msg(1), "000000000002", 5) + Record(Msg(2), "000000000014", 3),
       "71/44/-D--- 71/44/--FA- ", ""},
      {Record(Msg(1), "000000000000", 61) + Record(Msg(2), "000000000004", 71),
       "71/44/----- 71/44/--F-- ", ""},
      // a line of the form inside a body ends the message there
      {Record(shaped), "19/11/----- 7/7/----- ", ""},
      // a body without a blank line is all header
      {Record("no blank line\r\n"), "15/15/----- ", ""},
      // a broken line at a record's start (inside a message it is text)
      {" 3-Jun-2024 10:00:00-+0200,5;000000000000", "", "Unable to read internal header line"},
      {" 3-Jun-2024 10:00:00-+0200,5 0000\r\n;x", "", "Unable to parse internal header line"},
      {" 3-Jun-2024 10:00:00-+0200,0;000000000000\r\nx", "",
       "Unable to parse internal header line components"},
      {Record(Msg(1)) + Record("short", "000000000000", 500), "",
       "Last message runs past end of file"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row[0]);
    Put("box", row[0]);
    mail_env_clear();
    MailStream* s = Open("#dawz/box");
    if (!row[2].empty()) {
      EXPECT_EQ(s, nullptr);
      EXPECT_EQ(LogsAt(2), Lines{row[2]});
      continue;
    }
    ASSERT_NE(s, nullptr) << Logs();
    EXPECT_EQ(Shape(s), row[1]);
    EXPECT_EQ(Said("log", "Mailbox is empty"), row[1].empty());
    Close(s);
  }
  // A bad date is said and the message kept.
  Put("box", Record(Msg(1), "000000000000", -1, "31-Feb-2024 10:00:00-+0200"));
  mail_env_clear();
  MailStream* s = Open("#dawz/box");
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->nmsgs, 1u);
  EXPECT_EQ(LogsAt(1), Lines{"Bogus date"});
  // A file of another kind is no folder of ours.
  Put("other", "From me Mon Jun  3 10:00:00 2024\n");
  mail_env_clear();
  EXPECT_EQ(dawz_valid("#dawz/other"), nullptr);
  EXPECT_EQ(dawz_open(nullptr)->driver, &dawzdriver);
}

TEST_F(Dawz, ShrinkingAndGrowingBetweenChecks) {
  Put("box", Record(Msg(1)) + Record(Msg(2)));
  MailStream* s = Open("#dawz/box");
  ASSERT_NE(s, nullptr);
  Put("box", Get("box") + Record(Msg(3)));
  mail_env_clear();
  mail_check(s);
  EXPECT_EQ(s->nmsgs, 3u);
  EXPECT_EQ(s->recent, 1u);
  EXPECT_EQ(LogsAt(0), Lines{"Check completed"});
  Put("box", Record(Msg(1)));
  mail_env_clear();
  EXPECT_EQ(mail_ping(s), 0);
  EXPECT_EQ(LogsAt(2), Lines{"Mailbox shrank!"});
  EXPECT_EQ(mail_fetchheader(s, 1), nullptr);
  EXPECT_TRUE(Said("log", "Invalid message number encountered in local DAWZ mailbox stream"));
}

// --- Fetching and flags --------------------------------------------------------

TEST_F(Dawz, FetchGivesTheMessageBytes) {
  const std::string multi =
      "Subject: parts\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n"
      "Content-Type: text/plain\r\n\r\nfirst part\r\n--b\r\nContent-Type: text/plain\r\n\r\nsecond\r\n--b--\r\n";
  Put("box", Record(Msg(1)) + Record(multi));
  MailStream* s = Open("#dawz/box");
  ASSERT_NE(s, nullptr);
  Envelope* env = mail_fetchstructure(s, 1, nullptr);
  ASSERT_NE(env, nullptr);
  EXPECT_STREQ(env->subject, "message 1");
  EXPECT_EQ(mh_test::TextOf(mail_fetchheader(s, 1)), Msg(1).substr(0, 44));
  EXPECT_EQ(mh_test::TextOf(mail_fetchtext(s, 1)), Msg(1).substr(44));
  unsigned long length = 0;
  EXPECT_EQ(mh_test::TextOf(mail_fetchbody(s, 2, "2", &length)), "second");
  EXPECT_EQ(mh_test::TextOf(mail_fetchbody(s, 2, "1", &length)), "first part");
  // Reading the text marks it seen, in the file too.
  EXPECT_EQ(Flags(s, 1), "S----");
  EXPECT_NE(Get("box").find(",71;000000000001\r\n"), std::string::npos);
}

TEST_F(Dawz, SettingAFlagChangesTwelveBytesOnly) {
  Put("box", Record(Msg(1)) + Record(Msg(2)) + Record(Msg(3)));
  MailStream* s = Open("#dawz/box");
  ASSERT_NE(s, nullptr);
  const std::string before = Get("box");
  mail_setflag(s, "2", "(\\Seen \\Flagged \\Answered)");
  mail_setflag(s, "3", "\\Deleted");
  std::string want = before;
  const size_t second = Record(Msg(1)).size();
  const size_t third = second + Record(Msg(2)).size();
  // The digits end two bytes before the line's end (44 bytes here).
  want.replace(second + 30, 12, "000000000015");
  want.replace(third + 30, 12, "000000000002");
  EXPECT_EQ(Get("box"), want);
  mail_clearflag(s, "2:3", "(\\Seen \\Flagged \\Answered \\Deleted)");
  EXPECT_EQ(Get("box"), before);
  // Read-only streams change nothing on disk.
  MailStream* ro = streams_.emplace_back(mail_open(nullptr, "#dawz/box", OP_READONLY));
  ASSERT_NE(ro, nullptr);
  mail_setflag(ro, "1", "\\Seen");
  EXPECT_EQ(Get("box"), before);
}

// --- Writing ----------------------------------------------------------------

TEST_F(Dawz, AppendWritesARecordAndCutsBackOnFailure) {
  Put("box", Record(Msg(1)));
  const std::string before = Get("box");
  EXPECT_EQ(Append("#dawz/box", Msg(2), "\\Seen", "1-Jan-2000 00:00:00 +0000"), 1);
  const std::string after = Get("box");
  ASSERT_EQ(after.substr(0, before.size()), before);
  const std::string added = after.substr(before.size());
  DawzLine line;
  ASSERT_EQ(dawz_parse_line(added.data(), added.size(), &line), DawzLineError::kNone);
  EXPECT_EQ(std::make_tuple(line.size, line.system_flags, added.substr(line.length)), std::make_tuple(71ul, 0u, Msg(2)));

  // Write 1 is the line, write 2 the text; sync 1 the text's sync.
  const std::tuple<SafeStep, long, const char*> faults[] = {
      {kSafeWrite, 1, "Header write failed: No space left on device"},
      {kSafeWrite, 2, "Message append failed: No space left on device"},
      {kSafeSync, 1, "Message append failed: No space left on device"},
      {kSafeOpen, 1, "Can't open append mailbox: No space left on device"},
  };
  for (const auto& [step, nth, text] : faults) {
    safe_clear_faults_for_test();
    safe_fail_from_for_test(step, nth, ENOSPC);
    mail_env_clear();
    EXPECT_EQ(Append("#dawz/box", Msg(3)), 0);
    safe_clear_faults_for_test();
    EXPECT_EQ(Get("box"), after) << text;
    EXPECT_EQ(LogsAt(2), Lines{text});
  }
  mail_env_clear();
  EXPECT_EQ(Append("#dawz/missing", Msg(3)), 0);
  EXPECT_EQ(LogsAt(2), Lines{"Not a Dawz-format mailbox: #dawz/missing"});
}

TEST_F(Dawz, CopyAndMove) {
  Put("box", Record(Msg(1), "000000000001") + Record(Msg(2)) + Record(Msg(3)));
  Put("dest", "");
  MailStream* s = Open("#dawz/box");
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(mail_copy(s, "1", "#dawz/dest"), 1);
  EXPECT_EQ(mail_move(s, "2:3", "#dawz/dest"), 1);
  EXPECT_EQ(Get("dest"), Record(Msg(1), "000000000000", -1, " 3-Jun-2024 10:00:00 +0200") +
                             Record(Msg(2), "000000000000", -1, " 3-Jun-2024 10:00:00 +0200") +
                             Record(Msg(3), "000000000000", -1, " 3-Jun-2024 10:00:00 +0200"));
  EXPECT_EQ(Shape(s), "71/44/S---- 71/44/-D--- 71/44/-D--- ");
  // A failing write leaves the target as it was, and a move marks nothing.
  const std::string dest = Get("dest");
  safe_fail_from_for_test(kSafeWrite, 2, EIO);
  mail_env_clear();
  EXPECT_EQ(mail_move(s, "1", "#dawz/dest"), 0);
  safe_clear_faults_for_test();
  EXPECT_EQ(Get("dest"), dest);
  EXPECT_EQ(LogsAt(2), Lines{"Unable to write message: Input/output error"});
  EXPECT_EQ(Flags(s, 1), "S----");
  // To an mh folder: through its append, flags kept.
  Create("Work");
  EXPECT_EQ(mail_copy(s, "1", "Work"), 1) << Logs();
  MailStream* work = Open("Work");
  ASSERT_NE(work, nullptr);
  ASSERT_EQ(work->nmsgs, 1u);
  EXPECT_EQ(Flags(work, 1), "S----");
}

TEST_F(Dawz, ExpungeKeepsTheRightBytesAndSurvivesFailures) {
  const std::string kept = Record(Msg(1)) + Record(Msg(3), "000000000004");
  const std::string original = Record(Msg(1)) + Record(Msg(2), "000000000002") + Record(Msg(3), "000000000004");
  // Each step of the rewrite fails in turn: the old file stays whole and
  // the stream keeps every message.
  const std::tuple<SafeStep, long, const char*> faults[] = {
      {kSafeOpen, 1, nullptr}, {kSafeWrite, 1, nullptr}, {kSafeSync, 1, nullptr}, {kSafeRename, 1, nullptr},
      {kSafeOpen, 0, "written"}, {kSafeOpen, 0, "renamed"},
  };
  for (const auto& [step, nth, crash] : faults) {
    Put("box", original);
    MailStream* s = Open("#dawz/box");
    ASSERT_NE(s, nullptr);
    safe_clear_faults_for_test();
    if (nth) safe_fail_from_for_test(step, nth, EIO);
    dawz_set_crash_point_for_test(crash);
    mail_expunge(s);
    safe_clear_faults_for_test();
    dawz_set_crash_point_for_test(nullptr);
    EXPECT_EQ(Get("box"), crash && std::string(crash) == "renamed" ? kept : original) << step << " " << (crash ? crash : "");
    EXPECT_FALSE(fs::exists(PathOf("box.expunge")) && !crash);
    EXPECT_EQ(s->nmsgs, 3u);
    Close(s);
  }
  Put("box", original);
  MailStream* s = Open("#dawz/box");
  ASSERT_NE(s, nullptr);
  mail_env_clear();
  mail_expunge(s);
  EXPECT_EQ(Get("box"), kept);
  EXPECT_EQ(EnvLines("expunged"), Lines{"2"});
  EXPECT_EQ(LogsAt(0), Lines{"Expunged 1 messages"});
  EXPECT_EQ(fs::status(PathOf("box")).permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);
  // The stream reads the new file at the new places, and writes flags there.
  EXPECT_EQ(mh_test::TextOf(mail_fetchtext(s, 2)), Msg(3).substr(44));
  EXPECT_EQ(Get("box"), Record(Msg(1)) + Record(Msg(3), "000000000005"));
  mail_env_clear();
  mail_expunge(s);
  EXPECT_EQ(LogsAt(0), Lines{"No messages deleted, so no update needed"});
  MailStream* ro = streams_.emplace_back(mail_open(nullptr, "#dawz/box", OP_READONLY));
  mail_setflag(s, "1", "\\Deleted");
  mail_env_clear();
  mail_expunge(ro);
  EXPECT_EQ(LogsAt(1), Lines{"Expunge ignored on readonly mailbox"});
}

// --- Names ------------------------------------------------------------------

TEST_F(Dawz, CreateDeleteRenameAndList) {
  const std::tuple<long (*)(), long, const char*> steps[] = {
      {[] { return mail_create(nullptr, "#dawz/one"); }, 1, nullptr},
      {[] { return mail_create(nullptr, "#dawz/one"); }, 0, "Can't create mailbox #dawz/one: mailbox already exists"},
      {[] { return mail_create(nullptr, "#dawz/a\\..\\b"); }, 0, "Can't create mailbox #dawz/a\\..\\b: invalid mailbox name"},
      {[] { return mail_create(nullptr, "#dawz/two"); }, 1, nullptr},
      {[] { return mail_rename(nullptr, "#dawz/one", "#dawz/two"); }, 0, "Can't rename mailbox #dawz/two: File exists"},
      {[] { return mail_rename(nullptr, "#dawz/one", "#dawz/three"); }, 1, nullptr},
      {[] { return mail_delete(nullptr, "#dawz/two"); }, 1, nullptr},
      {[] { return mail_delete(nullptr, "#dawz/two"); }, 0, "Can't delete mailbox #dawz/two: No such file or directory"},
  };
  for (const auto& [step, result, text] : steps) {
    mail_env_clear();
    EXPECT_EQ(step(), result) << Logs();
    EXPECT_EQ(LogsAt(2), text ? Lines{text} : Lines{});
  }
  EXPECT_FALSE(fs::exists(PathOf("one")));
  EXPECT_EQ(Get("three"), "");
  fs::create_directories(PathOf("sub"));
  Put("sub/inner", Record(Msg(1)));
  Put("mhname.dat", "x\n");
  Put("notmail", "plain text\n");
  Create("Work");  // an mh folder beside them
  mail_env_clear();
  mail_find_all(nullptr, "#dawz/*");
  EXPECT_EQ(EnvLines("mailbox"), (Lines{"#dawz/sub\\inner \\ (\\Noinferiors)", "#dawz/three \\ (\\Noinferiors)"}));
  mail_env_clear();
  mail_find_all(nullptr, "#dawz/%");
  EXPECT_EQ(EnvLines("mailbox"), (Lines{"#dawz/three \\ (\\Noinferiors)"}));
  // Subscriptions share the one database; only live mailboxes are listed.
  EXPECT_EQ(mail_subscribe(nullptr, "#dawz/three"), 1);
  EXPECT_EQ(mail_subscribe(nullptr, "#dawz/sub\\inner"), 1);
  EXPECT_EQ(subscribe_add("#dawz/gone"), 1);
  EXPECT_EQ(ReadFile(home_ + "/subscrib.dat"), "#dawz/three\n#dawz/sub\\inner\n#dawz/gone\n");
  mail_env_clear();
  dawz_find(nullptr, "#dawz/*");
  EXPECT_EQ(EnvLines("mailbox"), (Lines{"#dawz/three \\ (\\Noinferiors)", "#dawz/sub\\inner \\ (\\Noinferiors)"}));
  EXPECT_EQ(mail_unsubscribe(nullptr, "#dawz/three"), 1);
  long word = 0;
  dawzdriver.capabilities(nullptr, &word);
  EXPECT_EQ(word, 7);
  EXPECT_EQ(dawz_file("#dawz/a\\b\\\\"), home_ + "/folders/a/b");
  EXPECT_EQ(dawz_file("inbox"), home_ + "/folders/INBOX");
}

TEST_F(Dawz, Search) {
  Put("box", Record(Msg(1), "000000000001") + Record(Msg(2)) + Record(Msg(3), "000000000004"));
  MailStream* s = Open("#dawz/box");
  ASSERT_NE(s, nullptr);
  const std::pair<const char*, Lines> rows[] = {
      {"ALL", {"1", "2", "3"}},     {"SEEN", {"1"}},          {"UNSEEN FLAGGED", {"3"}},
      {"BODY needle2", {"2"}},      {"SUBJECT \"message 3\"", {"3"}}, {"FROM a1@", {"1"}},
      {"TEXT message", {"1", "2", "3"}}, {"ON 3-Jun-2024", {"1", "2", "3"}}, {"DRAFT", {}}, {"BOGUS", {}},
  };
  for (const auto& [criteria, hits] : rows) {
    mail_search_reset(s);
    mail_env_clear();
    mail_search(s, criteria);
    EXPECT_EQ(EnvLines("searched"), hits) << criteria;
  }
  EXPECT_TRUE(Said("log", "Unknown search criterion: BOGUS"));
  // Searching does not mark a message seen.
  EXPECT_EQ(Flags(s, 2), "-----");
}

}  // namespace
