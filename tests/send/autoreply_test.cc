// Which new messages get an automatic answer, and the record of who had one.
#include "src/send/autoreply.h"

#include "rclib/safe_file.h"
#include "src/options/options.h"
#include "src/search/search_rules.h"
#include "tests/model/model_fixture.h"

namespace {

class AutoReply : public ModelTest {
 protected:
  void SetUp() override {
    ModelTest::SetUp();
    autoreply_set_clock_for_test(1795000000);  // 2026-11-18
    Opt_AssignString("General.MailAddress", "me@example.org", kOptPermanent, 0);
  }
  void TearDown() override {
    autoreply_set_clock_for_test(0);
    ModelTest::TearDown();
  }
};

TEST_F(AutoReply, WhichMessagesGetAnAnswer) {
  const std::string ok = "Return-Path: <s@example.net>\r\nTo: Me <ME@example.org>\r\n";
  ASSERT_TRUE(safe_replace_file(autoreply_record_file(), "2026-11-15 old@example.net\n", 0600, nullptr));
  ASSERT_TRUE(SRCH_AddRuleByName(kOptPermanent, "IMAP", "urgent", "SUBJECT \"urgent\"", ""));
  const struct {
    std::string head;
    const char* rule;
    AutoReplyVerdict want;
    const char* to;
  } cases[] = {
      {"From: s@example.net\r\n" + ok, "", kAutoReplyAnswer, "s@example.net"},
      {"From: s@example.net\r\nReply-To: r@Example.NET\r\n" + ok, "", kAutoReplyAnswer, "r@example.net"},
      {"From: s@example.net\r\nAuto-Submitted: No\r\n" + ok, "", kAutoReplyAnswer, "s@example.net"},
      {"From: me@example.org\r\n" + ok, "", kAutoReplyOwn, ""},
      {"From: s@example.net\r\nReply-To: me@example.org\r\n" + ok, "", kAutoReplyOwn, ""},
      {"From: s@example.net\r\nReturn-Path: <s@example.net>\r\nTo: other@example.org\r\n", "", kAutoReplyNotToUser, ""},
      {"From: s@example.net\r\nAuto-Submitted: auto-replied\r\n" + ok, "", kAutoReplyAutoSubmitted, ""},
      {"From: s@example.net\r\nPrecedence: Bulk\r\n" + ok, "", kAutoReplyBulk, ""},
      {"From: s@example.net\r\nList-Id: <l.example.net>\r\n" + ok, "", kAutoReplyList, ""},
      {"From: s@example.net\r\nReturn-Path: <>\r\nTo: me@example.org\r\n", "", kAutoReplyNoReturnPath, ""},
      {"From: s@example.net\r\nTo: me@example.org\r\n", "", kAutoReplyNoReturnPath, ""},
      {"From: MAILER-DAEMON@example.net\r\n" + ok, "", kAutoReplyRobot, ""},
      {"From: s@example.net\r\nReply-To: do_not_reply@example.net\r\n" + ok, "", kAutoReplyRobot, ""},
      {"From: list-request@example.net\r\n" + ok, "", kAutoReplyRobot, ""},
      {"From: Old@example.net\r\n" + ok, "", kAutoReplyRecent, ""},
      {"From: s@example.net\r\nSubject: lunch\r\n" + ok, "urgent", kAutoReplyRule, ""},
      {"From: s@example.net\r\nSubject: urgent!\r\n" + ok, "urgent", kAutoReplyAnswer, "s@example.net"},
  };
  int n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.head);
    const std::string name = "in" + std::to_string(++n);
    MakeFolder(name, {c.head + "\r\nText\r\n"});
    const int folder = MM_FolOpen(local_, name.c_str());
    Opt_AssignString("AutoReply.Rule", c.rule, kOptPermanent, 0);
    std::string to;
    EXPECT_EQ(autoreply_check(folder, MM_UMIFromMsgno(folder, 1), &to), c.want);
    EXPECT_EQ(to, c.to);
  }
}

TEST_F(AutoReply, RecordReaderKeepsGoodLinesOnly) {
  const long today = autoreply_day_number("2026-11-18");
  const struct {
    std::string text;
    const char* kept;
    size_t damaged;
  } cases[] = {
      {"2026-11-17 a@x\n2026-11-18 B@X\r\n", "2026-11-17 a@x\n2026-11-18 b@x\n", 0},
      {"2026-11-11 old@x\n2026-11-12 new@x\n", "2026-11-12 new@x\n", 0},  // 7 days: answer again
      {"2026-02-30 a@x\n2026-11-19 future@x\n2026-11-17 noat\n2026-11-17  a@x\nx\n", "", 5},
      {"2026-11-17 a@x\n2026-11-17 " + std::string(400, 'b') + "@x\n2026-11-17 c@x", "2026-11-17 a@x\n2026-11-17 c@x\n", 1},
  };
  for (const auto& c : cases) {
    AutoReplyRecord record;
    autoreply_parse_record(c.text, today, 7, &record);
    EXPECT_EQ(autoreply_format_record(record), c.kept) << c.text;
    EXPECT_EQ(record.damaged, c.damaged) << c.text;
  }
  // A damaged file is rewritten with its good lines when it is next read.
  ASSERT_TRUE(safe_replace_file(autoreply_record_file(), "garbage\n2026-11-17 a@x\n", 0600, nullptr));
  std::string to;
  MakeFolder("in", {"From: a@x\r\nReturn-Path: <a@x>\r\nTo: me@example.org\r\n\r\nText\r\n"});
  const int folder = MM_FolOpen(local_, "in");
  EXPECT_EQ(autoreply_check(folder, MM_UMIFromMsgno(folder, 1), &to), kAutoReplyRecent);
  EXPECT_EQ(ReadFile(autoreply_record_file()), "2026-11-17 a@x\n");
  EXPECT_TRUE(Traced("1 damaged line(s)"));
}

TEST_F(AutoReply, DialogRefusesBadDaysAndDates) {
  const char* cases[][4] = {{"7", "2026-11-01", "2026-11-30", ""}, {"0", "", "", "whole number"},
                            {"7", "2026-13-01", "", "from date"}, {"7", "", "1.12.2026", "until date"},
                            {"7", "2026-11-30", "2026-11-01", "comes before"}};
  for (auto& c : cases) {
    const std::string error = autoreply_settings_error(c[0], c[1], c[2]);
    EXPECT_TRUE(*c[3] ? error.find(c[3]) != std::string::npos : error.empty()) << c[1] << c[2] << error;
  }
}

}  // namespace
