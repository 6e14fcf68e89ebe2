// Sending through a real SMTP server (tests/peers/smtp-aiosmtpd.sh) into a
// model with local MH folders: what arrives is what was meant, and every
// failure leaves the message somewhere the user is told of.
#include <memory>

#include "c-client/net/tcp.h"
#include "src/base/base64.h"
#include "src/options/options.h"
#include "src/send/send.h"
#include "tests/c-client/imap/dovecot_peer.h"
#include "tests/c-client/imap/fake_imap_server.h"
#include "tests/model/model_fixture.h"
#include "tests/send/message_records.h"
#include "tests/send/smtp_sink.h"

namespace {

class SendPeer : public SmtpModelTest {
 protected:
  void TearDown() override {
    tcp_set_timeouts_for_test(0, 0, 0);
    SmtpModelTest::TearDown();
  }
  // To, Cc and Bcc, a subject, a text and an attachment of every byte value.
  Message* NewMessage(const char* to = "you") {
    Message* m = TextMessage("Hello\n.leading dot\n", Addr(to, "example.net"), "Report");
    m->envelope->cc = Addr("copy", "example.net");
    m->envelope->bcc = Addr("blind", "example.com");
    AddAttachment(m, kTextBinary, bytes_);
    return m;
  }
  int Send(Message* m, int save = 1) {
    SendOptions options;
    options.save_outgoing = static_cast<int16_t>(save);
    const int r = send_message(m, &options);
    mail_free_message(&m);
    return r;
  }

  std::string bytes_ = [] {
    std::string b;
    for (int i = 0; i < 70000; ++i) b += static_cast<char>(i * 13 % 256);
    return b;
  }();
};

// What arrives is what was meant, without Bcc; the sent-mail copy, in the
// account's folder on an IMAP server, keeps the headers the user sent, Bcc
// included.
TEST_F(SendPeer, DeliveredWithoutBccAndCopiedWithIt) {
  imap_test::Dovecot server;
  ASSERT_TRUE(server.Start()) << "no Dovecot (package dovecot-imapd)";
  const std::pair<const char*, std::string> options[] = {
      {"Name", "Work"}, {"Type", "imap"}, {"Hostname", server.env["HOST"]}, {"Port", server.env["PORT"]},
      {"Userid", server.env["USER"]}, {"Password", server.env["PASSWORD"]}, {"Security", "none"}};
  for (const auto& [key, value] : options)
    Opt_AssignString(("MsgService.ms2." + std::string(key)).c_str(), value.c_str(), kOptPermanent, 0);
  const int remote = MM_MSNew(2);
  ASSERT_NE(remote, INVALID_SERVICE);
  ASSERT_TRUE(MM_FolCreate(remote, "Sent", 1));
  Opt_AssignString("Compose.SentmailFolder", "Work!Sent", kOptPermanent, 0);
  ASSERT_EQ(Send(NewMessage()), 1) << Posts();
  const auto eml = sink_.Delivered("eml");
  const auto json = sink_.Delivered("json");
  ASSERT_EQ(eml.size(), 1u);
  EXPECT_NE(json[0].find(R"("rcpt_tos": ["you@example.net", "copy@example.net", "blind@example.com"])"), std::string::npos) << json[0];
  EXPECT_NE(json[0].find("BODY=8BITMIME"), std::string::npos) << json[0];
  const std::string& m = eml[0];
  EXPECT_EQ(m.find("blind"), std::string::npos);
  EXPECT_EQ(m.find("Bcc"), std::string::npos);
  for (const char* h : {"From: me@example.org\r\n", "To: you@example.net\r\n", "Cc: copy@example.net\r\n",
                        "Subject: Report\r\n", "Message-ID: <VELMAR.", "\r\n.leading dot\r\n"})
    EXPECT_NE(m.find(h), std::string::npos) << h;
  const size_t head = m.find("BASE64\r\n\r\n");
  ASSERT_NE(head, std::string::npos);
  std::string decoded;
  ASSERT_TRUE(Base64Decode(m.data() + head + 10, m.find("\r\n--", head) - head - 10, &decoded));
  EXPECT_EQ(decoded, bytes_);
  EXPECT_EQ(Count("sent"), 0);
  const int id = MM_FolOpen(remote, "Sent");
  ASSERT_NE(id, INVALID_FOLDER);
  ASSERT_EQ(MM_FolGetNumMsgs(id), 1);
  const UMI umi = MM_UMIFromMsgno(id, 1);
  EXPECT_EQ(MM_MsgHeaderContent(umi, "Subject").value_or(""), "Report");
  EXPECT_EQ(MM_MsgHeaderContent(umi, "Bcc").value_or(""), "blind@example.com");
  MM_FolClose(id, 0);
  server.Remove();
}

TEST_F(SendPeer, StartTlsAndEachLoginMechanism) {
  Opt_AssignString("Send.User", "testuser", kOptSession, 0);
  Opt_AssignString("Send.Password", "secret", kOptSession, 0);
  const std::string ssl = "127.0.0.1:" + sink_.env["SSLPORT"] + "/ssl";
  struct Case {
    const char* mechanism;
    std::string host;
  } cases[] = {{"PLAIN", ""}, {"LOGIN", ""}, {"CRAM-MD5", ""}, {"PLAIN", ssl}};
  int n = 0;
  for (const Case& c : cases) {
    Opt_AssignString("Send.AuthMechanisms", c.mechanism, kOptSession, 0);
    if (!c.host.empty()) Opt_AssignString("General.DeliveryHost", c.host.c_str(), kOptPermanent, 0);
    ASSERT_EQ(Send(NewMessage(), 0), 1) << c.mechanism << "\n" << Posts();
    const auto json = sink_.Delivered("json");
    ASSERT_EQ(json.size(), static_cast<size_t>(++n));
    EXPECT_NE(json.back().find(R"("auth": "testuser")"), std::string::npos) << c.mechanism << json.back();
    EXPECT_NE(json.back().find(R"("tls": true)"), std::string::npos) << c.mechanism << json.back();
  }
  // This server answers a bad login with silence: a short wait finds it.
  tcp_set_timeouts_for_test(3, 3, 3);
  Opt_AssignString("Send.Password", "wrong", kOptSession, 0);
  xvt_test_push_answer(RESP_2);  // no draft
  EXPECT_EQ(Send(NewMessage(), 0), 0);
  EXPECT_NE(Posts().find("refused the login of testuser"), std::string::npos) << Posts();
}

// A server of our own for what no real one does: it answers the dialogue up
// to DATA with `data`, then reads `lines` lines of the message and hangs up,
// or, with more lines than the message has, reads it all and says nothing.
imap_test::Script SmtpUpToData(const char* data, size_t lines) {
  imap_test::Script s{"S: 220 fake"};
  for (const char* command : {"EHLO", "RSET", "MAIL", "RCPT", "RCPT", "RCPT"})
    s.insert(s.end(), {std::string("C: ") + command, "S: 250 ok"});
  s.insert(s.end(), {"C: DATA", std::string("S: ") + data});
  s.resize(s.size() + lines, "C: ");
  s.push_back("CLOSE");
  return s;
}

TEST_F(SendPeer, FailuresOfferDraftsAndLoseNothing) {
  tcp_set_timeouts_for_test(2, 2, 2);
  struct Case {
    std::string name;
    const char* to;
    const char* from;
    std::string host;  // "" for the sink
    imap_test::Script fake;  // the dialogue of a server of our own, when there is one
    const char* said;
    ASK_RESPONSE answer;
    long drafts;
  } cases[] = {
      {"refused connection", "you", nullptr, "127.0.0.1:1", {}, "Failed to open SMTP stream", RESP_DEFAULT, 1},
      {"rejected recipient", "reject", nullptr, "", {}, "Invalid address in To field - reject@example.net",
       RESP_DEFAULT, 2},
      {"data rejected after the dot", "you", "refuse-data", "", {}, "did not take the message: 554",
       RESP_DEFAULT, 3},
      {"DATA refused", "you", nullptr, "", SmtpUpToData("554 no data for you", 0),
       "failed to initiate SMTP DATA phase. 554", RESP_DEFAULT, 4},
      {"cut mid-data", "you", nullptr, "", SmtpUpToData("354 go", 20), "SMTP send data failed", RESP_DEFAULT, 5},
      {"stall", "you", nullptr, "", SmtpUpToData("354 go", 100000), "SMTP send data failed", RESP_2, 5},
  };
  for (const Case& c : cases) {
    xvt_test_clear_posts();
    std::unique_ptr<imap_test::FakeImapServer> fake;
    std::string host = c.host.empty() ? "127.0.0.1:" + sink_.env["PORT"] : c.host;
    if (!c.fake.empty()) {
      fake = std::make_unique<imap_test::FakeImapServer>(c.fake);
      host = fake->name.substr(1, fake->name.find('/') - 1);  // of "{127.0.0.1:PORT/notls}"
    }
    Opt_AssignString("General.DeliveryHost", host.c_str(), kOptPermanent, 0);
    Opt_AssignString("General.MailAddress", (std::string(c.from ? c.from : "me") + "@example.org").c_str(),
                     kOptPermanent, 0);
    xvt_test_push_answer(c.answer);
    const int r = Send(NewMessage(c.to));
    EXPECT_EQ(r, c.answer == RESP_DEFAULT ? 1 : 0) << c.name;
    EXPECT_NE(Posts().find(c.said), std::string::npos) << c.name << "\n" << Posts();
    EXPECT_NE(Posts().find("Would you like to save the message to your drafts folder?"), std::string::npos) << c.name;
    EXPECT_EQ(Count("drafts"), c.drafts) << c.name;
    EXPECT_EQ(Count("sent"), 0) << c.name;
  }
  EXPECT_TRUE(sink_.Delivered("eml").empty());
}

// A draft folder of no service, or one the user declines to make, keeps
// nothing: the message must go on to the outbox rather than count as kept.
TEST_F(SendPeer, UndeliverableWithoutDraftsStaysInTheOutbox) {
  Opt_AssignString("General.DeliveryHost", "127.0.0.1:1", kOptPermanent, 0);
  for (const char* drafts : {"Nowhere!drafts", "Local!unmade"}) {
    Opt_AssignString("Compose.DraftFolder", drafts, kOptPermanent, 0);
    xvt_test_push_answer(RESP_DEFAULT);                  // to drafts, yes
    if (drafts[0] == 'L') xvt_test_push_answer(RESP_2);  // but no new folder
    EXPECT_EQ(Send(NewMessage()), 1);
  }
  EXPECT_EQ(Count("outbox"), 2);
  EXPECT_NE(Posts().find("kept in your outbox folder Local!outbox"), std::string::npos) << Posts();
  EXPECT_NE(Posts().find("saved to your draft folder. This folder does not exist"), std::string::npos) << Posts();
}

TEST_F(SendPeer, QueuedMessageGoesToTheOutboxOnly) {
  SendOptions options;
  options.queued = 1;
  options.save_outgoing = 1;
  Message* m = NewMessage();
  EXPECT_EQ(send_message(m, &options), 1);
  mail_free_message(&m);
  EXPECT_EQ(Count("outbox"), 1);
  EXPECT_EQ(Count("sent"), 0);
  EXPECT_TRUE(sink_.Delivered("eml").empty());
}

}  // namespace
