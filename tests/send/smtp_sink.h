// A private SMTP server for the peer tests (tests/peers/smtp-aiosmtpd.sh):
// started in a temporary directory, stopped by its recorded pid, and each
// message it took read back as it arrived (NNNNNN.eml, envelope in
// NNNNNN.json).
#pragma once

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "c-client/net/tcp.h"
#include "src/options/options.h"
#include "tests/model/model_fixture.h"
#include "tests/support/peer_script.h"

struct SmtpSink : PeerServer {
  SmtpSink() : PeerServer("smtp-aiosmtpd.sh", "velmar-smtp") {}
  std::vector<std::string> Delivered(const char* ext) const {
    std::vector<std::string> out;
    for (int n = 1; std::filesystem::exists(dir + "/mail/" + Name(n, ext)); ++n) out.push_back(ReadFile(dir + "/mail/" + Name(n, ext)));
    return out;
  }
  static std::string Name(int n, const char* ext) {
    char text[32];
    std::snprintf(text, sizeof text, "%06d.%s", n, ext);
    return text;
  }
};

// A model with local folders that sends through a sink of its own: the user's
// address, the delivery host (STARTTLS, the sink's certificate trusted), and
// the sent-mail, draft and outbox folders.
class SmtpModelTest : public ModelTest {
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
    ModelTest::TearDown();
  }
  SmtpSink sink_;
};
