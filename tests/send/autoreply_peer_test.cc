// Auto-replies to mail arriving in a Dovecot INBOX, sent through a private
// SMTP server: what arrives there, once per sender, across a restart, and
// nothing recorded for an answer that could not be sent.
#include "rclib/safe_file.h"
#include "src/organizer/organizer.h"
#include "src/send/autoreply.h"
#include "tests/model/imap_service_fixture.h"
#include "tests/send/smtp_sink.h"

namespace {

class AutoReplyPeer : public ImapServiceTest<SmtpModelTest> {
 protected:
  void SetUp() override {
    ImapServiceTest<SmtpModelTest>::SetUp();
    // Both servers' certificates are trusted.
    const std::string both = home_ + "/ca.pem";
    ASSERT_TRUE(safe_replace_file(both, ReadFile(sink_.env["CAFILE"]) + ReadFile(server_.env["CAFILE"]), 0600));
    tcp_tls_set_ca_file(both.c_str());
    autoreply_init();
    Opt_AssignString("AutoReply.Enable", "1", kOptPermanent, 0);
    Opt_AssignString("AutoReply.Text", "Away until Monday.", kOptPermanent, 0);
    inbox_ = MM_FolOpen(ms_, "INBOX");
    ASSERT_GE(inbox_, 0) << Posts();
  }
  void TearDown() override {
    autoreply_shutdown();
    ImapServiceTest<SmtpModelTest>::TearDown();
  }
  // Another client delivers, on a connection of its own; the next tick of
  // the mail timer sees it.
  void Arrive(const std::string& from, const std::string& more = "") {
    std::string full;
    ASSERT_TRUE(MM_CCGenFolName(ms_, "INBOX", &full));
    MM_MSInitAuthInfo(ms_);
    Append(full, "From: " + from + "\r\nReturn-Path: <" + from + ">\r\nTo: me@example.org\r\n" +
                     more + "Subject: Plans\r\n\r\nSee you?\r\n");
  }
  void Tick() {
    ASSERT_TRUE(MM_FolCheckNewMail(inbox_, 0));
    MSG_MailTimerTick();
  }
  int inbox_ = -1;
};

TEST_F(AutoReplyPeer, AnsweredOncePerSenderAlsoAfterARestart) {
  Arrive("ann@example.net", "Message-ID: <1@example.net>\r\nReferences: <0@example.net>\r\n");
  Arrive("ann@example.net");
  Arrive("list@example.net", "List-Id: <l.example.net>\r\n");
  Tick();
  ASSERT_EQ(sink_.Delivered("eml").size(), 1u) << Posts();
  const std::string m = sink_.Delivered("eml")[0];
  for (const char* text : {"To: ann@example.net\r\n", "Subject: Auto: Plans\r\n", "In-Reply-To: <1@example.net>\r\n",
                           "References: <0@example.net> <1@example.net>\r\n", "Auto-Submitted: auto-replied\r\n",
                           "\r\n\r\nAway until Monday.\r\n"})
    EXPECT_NE(m.find(text), std::string::npos) << text << "\n" << m;
  EXPECT_NE(sink_.Delivered("json")[0].find("[\"ann@example.net\"]"), std::string::npos);
  EXPECT_NE(ReadFile(autoreply_record_file()).find(" ann@example.net\n"), std::string::npos);

  // A new session knows Ann only from the file.
  autoreply_shutdown();
  autoreply_init();
  Arrive("ann@example.net");
  Arrive("bob@example.net");
  Tick();
  ASSERT_EQ(sink_.Delivered("json").size(), 2u) << Posts();
  EXPECT_NE(sink_.Delivered("json")[1].find("[\"bob@example.net\"]"), std::string::npos);
}

TEST_F(AutoReplyPeer, AFailedSendRecordsNothingAndIsTriedAgain) {
  Opt_AssignString("General.DeliveryHost", "127.0.0.1:1", kOptPermanent, 0);
  Arrive("carl@example.net");
  Tick();
  EXPECT_TRUE(sink_.Delivered("eml").empty());
  EXPECT_EQ(ReadFile(autoreply_record_file()), "");
  Opt_AssignString("General.DeliveryHost", ("127.0.0.1:" + sink_.env["PORT"]).c_str(), kOptPermanent, 0);
  Tick();
  ASSERT_EQ(sink_.Delivered("json").size(), 1u) << Posts();
  EXPECT_NE(sink_.Delivered("json")[0].find("\"mail_from\": \"<>\""), std::string::npos) << sink_.Delivered("json")[0];
  EXPECT_NE(ReadFile(autoreply_record_file()).find(" carl@example.net\n"), std::string::npos);
}

}  // namespace
