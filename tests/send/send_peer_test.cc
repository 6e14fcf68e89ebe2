// Sending through a real SMTP server (tests/peers/smtp-aiosmtpd.sh) into a
// model with local MH folders: what arrives is what was meant, and every
// failure leaves the message somewhere the user is told of.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <sstream>
#include <thread>

#include "c-client/net/tcp.h"
#include "src/base/base64.h"
#include "src/options/options.h"
#include "src/send/send.h"
#include "tests/c-client/imap/dovecot_peer.h"
#include "tests/send/smtp_sink.h"
#include "tests/model/model_fixture.h"

namespace {

MailAddress* Addr(const char* mailbox, const char* host) {
  MailAddress* a = mail_newaddr();
  a->mailbox = cpystr(mailbox);
  a->host = cpystr(host);
  return a;
}

class SendPeer : public ModelTest {
 protected:
  void SetUp() override {
    ModelTest::SetUp();
    ASSERT_TRUE(sink_.Start());
    tcp_tls_set_ca_file(sink_.env["CAFILE"].c_str());
    Opt_AssignString("General.MailAddress", "me@example.org", kOptPermanent, 0);
    Opt_AssignString("General.DeliveryHost", ("127.0.0.1:" + sink_.env["PORT"]).c_str(), kOptPermanent, 0);
    Opt_AssignString("Compose.SentmailFolder", "Local!sent", kOptPermanent, 0);
    Opt_AssignString("Compose.DraftFolder", "Local!drafts", kOptPermanent, 0);
    Opt_AssignString("General.OutboxFolder", "Local!outbox", kOptPermanent, 0);
    for (const char* f : {"sent", "drafts", "outbox"}) ASSERT_TRUE(MM_FolCreate(local_, f, 1)) << f;
  }
  void TearDown() override {
    tcp_tls_set_ca_file(nullptr);
    tcp_set_timeouts_for_test(0, 0, 0);
    ModelTest::TearDown();
  }
  long Count(const char* folder) {
    std::string full;
    return MM_CCGenFolName(local_, folder, &full) ? CountOnDisk(full) : -1;
  }
  // To, Cc and Bcc, a subject, a text and an attachment of every byte value.
  Message* NewMessage(const char* to = "you") {
    Message* m = mail_newmessage();
    m->envelope = mail_newenvelope();
    m->envelope->to = Addr(to, "example.net");
    m->envelope->cc = Addr("copy", "example.net");
    m->envelope->bcc = Addr("blind", "example.com");
    m->envelope->subject = cpystr("Report");
    m->body = mail_newbody();
    m->body->type = TYPEMULTIPART;
    m->body->subtype = cpystr("MIXED");
    m->body->parts = mail_newbody_part();
    BodyPart* text = &m->body->parts->body;
    text->type = TYPETEXT;
    text->subtype = cpystr("PLAIN");
    text->contents = mail_newtext();
    const std::string words = "Hello\n.leading dot\n";
    mail_text_set(text->contents, kTextInMemory, words.data(), words.size());
    BodyPartNode* att = mail_newbody_part();
    m->body->parts->next = att;
    att->body.type = TYPEAPPLICATION;
    att->body.subtype = cpystr("OCTET-STREAM");
    att->body.contents = mail_newtext();
    mail_text_set(att->body.contents, kTextBinary, bytes_.data(), bytes_.size());
    return m;
  }
  int Send(Message* m, int save = 1) {
    SendOptions options;
    options.save_outgoing = static_cast<int16_t>(save);
    const int r = send_message(m, &options);
    mail_free_message(&m);
    return r;
  }

  SmtpSink sink_;
  std::string bytes_ = [] {
    std::string b;
    for (int i = 0; i < 70000; ++i) b += static_cast<char>(i * 13 % 256);
    return b;
  }();
};

TEST_F(SendPeer, DeliveredBytesAreWhatWasMeantWithoutBcc) {
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
  EXPECT_EQ(Count("sent"), 1);  // the sent-mail copy, Bcc and all
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
// to DATA, then `end` decides: "cut" closes mid-data, "stall" says nothing.
struct FakeServer {
  int listener = -1, port = 0;
  std::thread thread;
  explicit FakeServer(std::string end) {
    listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t len = sizeof a;
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&a), &len);
    port = ntohs(a.sin_port);
    ::listen(listener, 1);
    thread = std::thread([this, end] {
      const int fd = ::accept(listener, nullptr, nullptr);
      if (fd < 0) return;
      auto say = [fd](const char* s) { return ::write(fd, s, std::strlen(s)); };
      say("220 fake\r\n");
      std::string in;
      char buffer[4096];
      bool data = false;
      while (true) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n <= 0) break;
        in.append(buffer, n);
        size_t eol;
        while (!data && (eol = in.find("\r\n")) != std::string::npos) {
          const std::string line = in.substr(0, eol);
          in.erase(0, eol + 2);
          if (line.rfind("DATA", 0) == 0) {
            if (end == "refuse") {
              say("554 no data for you\r\n");
            } else {
              say("354 go\r\n");
              data = true;
            }
          } else if (line.rfind("QUIT", 0) == 0) {
            say("221 bye\r\n");
          } else {
            say("250 ok\r\n");
          }
        }
        if (data && in.size() > 1000) {
          if (end == "cut") break;
          std::this_thread::sleep_for(std::chrono::seconds(4));  // stall
          break;
        }
      }
      ::close(fd);
    });
  }
  ~FakeServer() {
    ::shutdown(listener, SHUT_RDWR);
    thread.join();
    ::close(listener);
  }
};

TEST_F(SendPeer, FailuresOfferDraftsAndLoseNothing) {
  tcp_set_timeouts_for_test(2, 2, 2);
  struct Case {
    std::string name;
    const char* to;
    const char* from;
    std::string fake;  // "" for the real server
    const char* said;
    ASK_RESPONSE answer;
    long drafts;
  } cases[] = {
      {"refused connection", "you", nullptr, "closed", "Failed to open SMTP stream", RESP_DEFAULT, 1},
      {"rejected recipient", "reject", nullptr, "", "Invalid address in To field - reject@example.net", RESP_DEFAULT, 2},
      {"data rejected after the dot", "you", "refuse-data", "", "did not take the message: 554", RESP_DEFAULT, 3},
      {"DATA refused", "you", nullptr, "refuse", "failed to initiate SMTP DATA phase. 554", RESP_DEFAULT, 4},
      {"cut mid-data", "you", nullptr, "cut", "SMTP send data failed", RESP_DEFAULT, 5},
      {"stall", "you", nullptr, "stall", "SMTP send data failed", RESP_2, 5},
  };
  for (const Case& c : cases) {
    xvt_test_clear_posts();
    std::unique_ptr<FakeServer> fake;
    if (c.fake == "closed") {
      Opt_AssignString("General.DeliveryHost", "127.0.0.1:1", kOptPermanent, 0);
    } else if (!c.fake.empty()) {
      fake = std::make_unique<FakeServer>(c.fake);
      Opt_AssignString("General.DeliveryHost", ("127.0.0.1:" + std::to_string(fake->port)).c_str(), kOptPermanent, 0);
    } else {
      Opt_AssignString("General.DeliveryHost", ("127.0.0.1:" + sink_.env["PORT"]).c_str(), kOptPermanent, 0);
    }
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

TEST_F(SendPeer, UndeliverableWithoutDraftsStaysInTheOutbox) {
  Opt_AssignString("General.DeliveryHost", "127.0.0.1:1", kOptPermanent, 0);
  Opt_AssignString("Compose.DraftFolder", "Nowhere!drafts", kOptPermanent, 0);
  xvt_test_push_answer(RESP_DEFAULT);
  EXPECT_EQ(Send(NewMessage()), 1);
  EXPECT_EQ(Count("outbox"), 1);
  EXPECT_NE(Posts().find("kept in your outbox folder Local!outbox"), std::string::npos) << Posts();
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

// The sent-mail copy on an IMAP server: appended to the account's folder
// with the headers the user sent, Bcc included, while the wire had none.
TEST_F(SendPeer, SentMailCopyGoesToAnImapFolder) {
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
  ASSERT_EQ(sink_.Delivered("eml").size(), 1u);
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

}  // namespace
