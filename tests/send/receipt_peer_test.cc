// Read receipts through a real SMTP server (tests/peers/smtp-aiosmtpd.sh):
// the policy and the user decide what goes, and what arrives is a
// multipart/report whose two parts say what they must.
#include <cstring>
#include <string>
#include <vector>

#include "c-client/net/tcp.h"
#include "src/options/options.h"
#include "src/send/receipt.h"
#include "tests/model/model_fixture.h"
#include "tests/send/smtp_sink.h"

namespace {

std::string Raw(const std::string& headers, int n, const char* from = "sender@example.net") {
  return std::string("From: ") + from + "\r\nTo: me@example.org\r\nSubject: Plans " + std::to_string(n) + "\r\n" + headers +
         "\r\nThe text.\r\n";
}

class Receipt : public ModelTest {
 protected:
  void SetUp() override {
    ModelTest::SetUp();
    ASSERT_TRUE(sink_.Start());
    tcp_tls_set_ca_file(sink_.env["CAFILE"].c_str());
    Opt_AssignString("General.MailAddress", "me@example.org", kOptPermanent, 0);
    Opt_AssignString("General.DeliveryHost", ("127.0.0.1:" + sink_.env["PORT"]).c_str(), kOptPermanent, 0);
    receipt_forget_session_for_test();
  }
  void TearDown() override {
    tcp_tls_set_ca_file(nullptr);
    ModelTest::TearDown();
  }
  // The messages in a new folder, and their UMIs.
  std::vector<UMI> Open(const std::vector<std::string>& raws) {
    const std::string name = "in" + std::to_string(++folders_);
    MakeFolder(name, raws);
    const int id = MM_FolOpen(local_, name.c_str());
    std::vector<UMI> out;
    for (size_t i = 1; id != INVALID_FOLDER && i <= raws.size(); ++i) out.push_back(MM_UMIFromMsgno(id, i));
    EXPECT_EQ(out.size(), raws.size());
    return out;
  }
  SmtpSink sink_;
  int folders_ = 0;
};

// Who gets a receipt, whether the user is asked or told, and whether
// anything reaches the server.
TEST_F(Receipt, PolicyAndAddressDecide) {
  struct Case {
    const char* name;
    std::string headers;
    const char* policy;  // null: not set
    int answer;          // 0: none queued
    const char* post;    // kind of the one dialog, "" for none
    const char* rcpt;    // where it went, null for nowhere
    const char* from = "sender@example.net";
  } cases[] = {
      {"both headers", "Disposition-Notification-To: dnt@example.net\r\nRead-Receipt-To: rrt@example.net\r\n",
       "Always", 0, "note", "dnt@example.net"},
      {"older header", "Read-Receipt-To: rrt@example.net\r\n", "Prompt", RESP_DEFAULT, "ask", "rrt@example.net"},
      {"missing policy asks", "Disposition-Notification-To: <dnt@example.net>\r\n", nullptr, RESP_2, "ask", nullptr},
      {"never", "Disposition-Notification-To: dnt@example.net\r\n", "Never", 0, "", nullptr},
      {"no request", "", "Always", 0, "", nullptr},
      {"own message", "Disposition-Notification-To: dnt@example.net\r\n", "Always", 0, "", nullptr, "Me@Example.ORG"},
  };
  size_t delivered = 0;
  int n = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ++n;
    const UMI umi = Open({Raw(c.headers + "Message-ID: <m" + std::to_string(n) + "@example.net>\r\n", n, c.from)})[0];
    if (c.policy) Opt_AssignString("General.ReadReceiptPolicy", c.policy, kOptPermanent, 0);
    else Opt_Delete("General.ReadReceiptPolicy");
    if (c.answer) xvt_test_push_answer(static_cast<ASK_RESPONSE>(c.answer));
    xvt_test_clear_posts();
    EXPECT_EQ(send_read_receipt(umi), c.rcpt ? 1 : 0) << Posts();
    std::string kinds;
    for (const XvtPost& p : xvt_test_posts())
      if (p.kind == "ask" || p.kind == "note" || p.kind == "error") kinds += p.kind;
    EXPECT_EQ(kinds, c.post) << Posts();
    if (*c.post) {
      EXPECT_NE(Posts().find(c.rcpt ? c.rcpt : "dnt@example.net>"), std::string::npos) << Posts();
    }
    const auto json = sink_.Delivered("json");
    ASSERT_EQ(json.size(), delivered + (c.rcpt ? 1 : 0));
    if (c.rcpt) {
      EXPECT_NE(json.back().find(std::string("\"rcpt_tos\": [\"") + c.rcpt + "\"]"), std::string::npos) << json.back();
    }
    delivered = json.size();
  }
  EXPECT_TRUE(unexpected_.empty());
}

// The bytes on the wire: one multipart/report with a sentence for people
// and the disposition fields for programs, and nothing that asks for a
// receipt of the receipt.
TEST_F(Receipt, WhatArrives) {
  Opt_AssignString("General.ReadReceiptPolicy", "Always", kOptPermanent, 0);
  Opt_AssignString("General.Fullname", "Jo Reader", kOptPermanent, 0);
  Opt_AssignString("General.ReadReceiptAdditionalText", " (on holiday)", kOptPermanent, 0);
  const UMI umi = Open({Raw("Disposition-Notification-To: dnt@example.net\r\nMessage-ID: <m1@example.net>\r\n", 1)})[0];
  ASSERT_EQ(send_read_receipt(umi), 1) << Posts();
  const auto eml = sink_.Delivered("eml");
  ASSERT_EQ(eml.size(), 1u);
  const std::string& m = eml[0];
  for (const char* text :
       {"Subject: Read receipt\r\n", "To: dnt@example.net\r\n", "Content-Type: MULTIPART/REPORT",
        "report-type=disposition-notification", "Content-Type: TEXT/PLAIN",
        "Your message concerning \"Plans 1\" has been displayed by Jo Reader (on holiday).\r\n"
        "This is no guarantee that the message has been read or understood.\r\n",
        "Content-Type: MESSAGE/DISPOSITION-NOTIFICATION",
        "\r\n\r\nReporting-UA: Velmar for Linux Version 4.1.4 Build (41)\r\n"
        "Final-Recipient: rfc822;me@example.org\r\n"
        "Original-Message-ID: <m1@example.net>\r\n"
        "Disposition: displayed \r\n"})
    EXPECT_NE(m.find(text), std::string::npos) << text << "\n" << m;
  EXPECT_LT(m.find("TEXT/PLAIN"), m.find("MESSAGE/DISPOSITION-NOTIFICATION"));
  for (const char* absent : {"Disposition-Notification-To", "Read-Receipt-To", "X-Save-Outgoing"})
    EXPECT_EQ(m.find(absent), std::string::npos) << absent;
}

// The name the sentence gives and the fields the report holds, from what
// the user's options and the message have.
TEST_F(Receipt, NameAndFieldFallbacks) {
  struct Case {
    const char *fullname, *common_from, *address, *subject_header, *id_header;
    const char *says, *recipient, *id_line;
  } cases[] = {
      {"Jo", "c@example.org", "a@example.org", "Subject: Hi\r\n", "Message-ID: <x@y>\r\n", "\"Hi\" has been displayed by Jo.",
       "rfc822;a@example.org", "Original-Message-ID: <x@y>\n"},
      {"", "c@example.org", "a@example.org", "", "", "\"<No Subject>\" has been displayed by c@example.org.",
       "rfc822;a@example.org", nullptr},
      {"", "", "a@example.org", "Subject: Hi\r\n", "", "displayed by a@example.org.", "rfc822;a@example.org", nullptr},
      {"", "", "", "Subject: Hi\r\n", "", "displayed by <Unknown User>.", "x-local;information lost", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.says);
    Opt_AssignString("General.Fullname", c.fullname, kOptPermanent, 0);
    Opt_AssignString("common.from", c.common_from, kOptPermanent, 0);
    Opt_AssignString("General.MailAddress", c.address, kOptPermanent, 0);
    const UMI umi = Open({std::string("From: s@example.net\r\n") + c.subject_header + c.id_header + "\r\nText\r\n"})[0];
    unsigned long size = 0;
    char* human = create_receipt_text(umi, &size);
    ASSERT_NE(human, nullptr);
    EXPECT_EQ(size, std::strlen(human));
    EXPECT_NE(std::string(human).find(c.says), std::string::npos) << human;
    char* machine = CreateMachineProcessableText(umi, &size);
    ASSERT_NE(machine, nullptr);
    const std::string fields = machine;
    EXPECT_NE(fields.find(std::string("Final-Recipient: ") + c.recipient + "\n"), std::string::npos) << fields;
    EXPECT_EQ(fields.find("Original-Message-ID"), c.id_line ? fields.find(c.id_line) : std::string::npos) << fields;
    EXPECT_EQ(fields.substr(fields.size() - 24), "Disposition: displayed \n");
    fs_give(reinterpret_cast<void**>(&human), __FILE__, __LINE__);
    fs_give(reinterpret_cast<void**>(&machine), __FILE__, __LINE__);
  }
}

// A message is answered once: opened again (with or without a Message-ID,
// in this session; with one, in a later session too) it neither asks nor
// sends. A refusal counts as the answer.
TEST_F(Receipt, AnsweredOnce) {
  Opt_AssignString("General.ReadReceiptPolicy", "Prompt", kOptPermanent, 0);
  const std::vector<UMI> umis =
      Open({Raw("Disposition-Notification-To: d@example.net\r\nMessage-ID: <once@example.net>\r\n", 1),
            Raw("Disposition-Notification-To: d@example.net\r\n", 2),
            Raw("Disposition-Notification-To: d@example.net\r\nMessage-ID: <no@example.net>\r\n", 3)});
  xvt_test_push_answer(RESP_DEFAULT);
  xvt_test_push_answer(RESP_DEFAULT);
  xvt_test_push_answer(RESP_2);
  for (int round = 0; round < 2; ++round)
    for (UMI umi : umis) send_read_receipt(umi);
  EXPECT_TRUE(unexpected_.empty()) << unexpected_.size();
  EXPECT_EQ(sink_.Delivered("eml").size(), 2u);
  receipt_forget_session_for_test();  // as after a restart
  EXPECT_EQ(send_read_receipt(umis[0]), 0);
  EXPECT_EQ(send_read_receipt(umis[2]), 0);
  EXPECT_TRUE(unexpected_.empty());
  const std::string log = ReadFile(receipt_log_file());
  EXPECT_EQ(log, "<once@example.net>\n<no@example.net>\n");
}

}  // namespace
