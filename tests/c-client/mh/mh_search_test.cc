// Searching an mh folder: every keyword, strings as atoms, quoted strings
// and literals, dates on the internal date, keywords combined, and the
// refusals.
#include <sys/time.h>

#include <cstdio>

#include "tests/c-client/mh/mh_test_util.h"

namespace mh_test {
namespace {

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
    EXPECT_TRUE(Said("log", std::string("Unknown search criterion: ") + word)) << criteria << "\n" << Logs();
  }
}

}  // namespace
}  // namespace mh_test
