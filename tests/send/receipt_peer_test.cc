// Read receipts through a real SMTP server (tests/peers/smtp-aiosmtpd.sh):
// the policy and the user decide what goes, each message is answered once,
// and what arrives is a multipart/report whose parts say what they must.
#include <cstring>

#include "c-client/net/tcp.h"
#include "src/options/options.h"
#include "src/send/receipt.h"
#include "tests/model/model_fixture.h"
#include "tests/send/smtp_sink.h"

namespace {

class Receipt : public SmtpModelTest {
 protected:
  UMI Open(const std::string& headers, const char* from = "s@example.net") {
    const std::string name = "in" + std::to_string(++folders_);
    MakeFolder(name, {std::string("From: ") + from + "\r\n" + headers + "\r\nText\r\n"});
    return MM_UMIFromMsgno(MM_FolOpen(local_, name.c_str()), 1);
  }
  int folders_ = 0;
};

// Who gets a receipt, whether the user is asked or told; a second showing
// neither asks nor sends, a refusal included.
TEST_F(Receipt, PolicyAddressAndOnce) {
  const std::string dnt = "Disposition-Notification-To: dnt@example.net\r\n", id = "Message-ID: <m@x>\r\n";
  struct Case {
    std::string headers;
    const char *policy, *post, *rcpt, *from;  // policy null: not set
    ASK_RESPONSE answer;                      // RESP_3: none queued
  } cases[] = {
      {dnt + "Read-Receipt-To: rrt@example.net\r\n" + id, "Always", "note", "dnt@example.net", "s@x", RESP_3},
      {"Read-Receipt-To: rrt@example.net\r\n", "Prompt", "ask", "rrt@example.net", "s@x", RESP_DEFAULT},
      {dnt + "Message-ID: <n@x>\r\n", nullptr, "ask", nullptr, "s@x", RESP_2},
      {dnt, "Never", "", nullptr, "s@x", RESP_3},
      {"", "Always", "", nullptr, "s@x", RESP_3},
      {dnt, "Always", "", nullptr, "Me@Example.ORG", RESP_3},
      {dnt + "Message-ID: <d@x>\r\n", "Always", "", nullptr, "draft", RESP_3},
  };
  size_t delivered = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.headers + (c.policy ? c.policy : "-"));
    const UMI umi = Open(c.headers, c.from);
    EXPECT_TRUE(std::strcmp(c.from, "draft") || MM_MsgSetFlag(umi, "\\Draft"));
    c.policy ? Opt_AssignString("General.ReadReceiptPolicy", c.policy, kOptPermanent, 0)
             : Opt_Delete("General.ReadReceiptPolicy");
    if (c.answer != RESP_3) xvt_test_push_answer(c.answer);
    xvt_test_clear_posts();
    EXPECT_EQ(send_read_receipt(umi) + send_read_receipt(umi), c.rcpt ? 1 : 0) << Posts();
    std::string kinds;
    for (const XvtPost& p : xvt_test_posts()) kinds += p.kind == "progress" ? "" : p.kind;
    EXPECT_EQ(kinds, c.post) << Posts();
    const auto json = sink_.Delivered("json");
    ASSERT_EQ(json.size(), delivered + (c.rcpt ? 1 : 0));
    EXPECT_TRUE(!c.rcpt || json.back().find(std::string("[\"") + c.rcpt + "\"]") != std::string::npos);
    delivered = json.size();
  }
  EXPECT_EQ(ReadFile(receipt_log_file()), "<m@x>\n<n@x>\n");  // sent, and refused
}

// The bytes on the wire, and the name and fields from what the options and
// the message have.
TEST_F(Receipt, WhatArrivesAndFallbacks) {
  Opt_AssignString("General.ReadReceiptPolicy", "Always", kOptPermanent, 0);
  Opt_AssignString("General.Fullname", "Jo", kOptPermanent, 0);
  Opt_AssignString("General.ReadReceiptAdditionalText", " (away)", kOptPermanent, 0);
  ASSERT_EQ(send_read_receipt(Open("Subject: Plans\r\nDisposition-Notification-To: d@x.net\r\nMessage-ID: <1@x>\r\n")), 1);
  const std::string m = sink_.Delivered("eml").at(0);
  for (const char* text :
       {"To: d@x.net\r\nSubject: Read receipt\r\n", "MULTIPART/REPORT; report-type=disposition-notification; BOUNDARY=",
        "TEXT/PLAIN; CHARSET=US-ASCII\r\n\r\nYour message concerning \"Plans\" has been displayed by Jo (away).\r\n"
        "This is no guarantee that the message has been read or understood.\r\n\r\n--Part",
        "MESSAGE/DISPOSITION-NOTIFICATION\r\n\r\nReporting-UA: Velmar for Linux Version 4.1.4 Build (41)\r\n"
        "Final-Recipient: rfc822;me@example.org\r\nOriginal-Message-ID: <1@x>\r\nDisposition: displayed \r\n\r\n--Part"})
    EXPECT_NE(m.find(text), std::string::npos) << text << "\n" << m;
  EXPECT_EQ(m.find("Receipt-To"), m.find("Disposition-Notification-To"));  // both absent
  // With no full name: common.from, General.MailAddress, and what the texts then say.
  const char* fallbacks[][4] = {{"c@x", "a@x", "\"<No Subject>\" has been displayed by c@x (away).", "rfc822;a@x"},
                                {"", "a@x", "by a@x (away).", "rfc822;a@x"},
                                {"c@x", "", "by c@x (away).", "rfc822;c@x"},
                                {"", "", "by <Unknown User> (away).", "x-local;information lost"}};
  Opt_AssignString("General.Fullname", "", kOptPermanent, 0);
  for (auto& f : fallbacks) {
    Opt_AssignString("common.from", f[0], kOptPermanent, 0);
    Opt_AssignString("General.MailAddress", f[1], kOptPermanent, 0);
    const UMI umi = Open("");
    unsigned long size = 0;
    char* texts[] = {create_receipt_text(umi, &size), CreateMachineProcessableText(umi, &size)};
    EXPECT_NE(std::string(texts[0]).find(f[2]), std::string::npos) << texts[0];
    EXPECT_NE(std::string(texts[1]).find(std::string("Final-Recipient: ") + f[3] + "\nDisposition"), std::string::npos);
    for (char* t : texts) FS_GIVE(&t);
  }
}

}  // namespace
