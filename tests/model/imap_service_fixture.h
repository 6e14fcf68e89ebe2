// A private Dovecot and a model service on it (ms number 2, "Work"), over
// the model fixture or one built on it. The server stops after the base's
// TearDown, so that the streams close while it is still there.
#pragma once

#include <string>

#include "c-client/net/tcp.h"
#include "src/options/options.h"
#include "tests/c-client/imap/dovecot_peer.h"
#include "tests/model/model_fixture.h"

template <typename Base>
class ImapServiceTest : public Base {
 protected:
  void SetUp() override {
    Base::SetUp();
    ASSERT_TRUE(server_.Start()) << "no Dovecot (package dovecot-imapd)";
    tcp_tls_set_ca_file(server_.env["CAFILE"].c_str());
    const std::pair<const char*, std::string> options[] = {
        {"Name", "Work"},
        {"Type", "imap"},
        {"Hostname", server_.env["HOST"]},
        {"Port", server_.env["PORT"]},
        {"Userid", server_.env["USER"]},
        {"Password", server_.env["PASSWORD"]},
    };
    for (const auto& [key, value] : options)
      Opt_AssignString(("MsgService.ms2." + std::string(key)).c_str(), value.c_str(), kOptPermanent, 0);
    ms_ = MM_MSNew(2);
  }
  void TearDown() override {
    Base::TearDown();
    tcp_tls_set_ca_file(nullptr);
    server_.Remove();
  }

  imap_test::Dovecot server_;
  int ms_ = INVALID_SERVICE;
};
