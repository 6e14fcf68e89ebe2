// A private Dovecot and a model service on it (ms number 2, "Work"), over
// the model fixture or one built on it. The server stops after the base's
// TearDown, so that the streams close while it is still there.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "c-client/net/tcp.h"
#include "src/options/options.h"
#include "tests/c-client/imap/dovecot_peer.h"
#include "tests/model/model_fixture.h"

// Starts the server and makes service 2 ("Work") on it, with the Security
// option given (null: the service's default); INVALID_SERVICE when the
// server does not start.
inline int StartWorkService(imap_test::Dovecot* server, const char* security = nullptr) {
  if (!server->Start()) return INVALID_SERVICE;
  tcp_tls_set_ca_file(server->env["CAFILE"].c_str());
  std::vector<std::pair<const char*, std::string>> options = {
      {"Name", "Work"},
      {"Type", "imap"},
      {"Hostname", server->env["HOST"]},
      {"Port", server->env["PORT"]},
      {"Userid", server->env["USER"]},
      {"Password", server->env["PASSWORD"]},
  };
  if (security) options.emplace_back("Security", security);
  for (const auto& [key, value] : options)
    Opt_AssignString(("MsgService.ms2." + std::string(key)).c_str(), value.c_str(), kOptPermanent, 0);
  return MM_MSNew(2);
}

// The server started only when a test asks for the service.
template <typename Base>
class ImapServiceOnDemandTest : public Base {
 protected:
  void TearDown() override {
    Base::TearDown();
    tcp_tls_set_ca_file(nullptr);
    server_.Remove();
  }
  // Starts the server and makes service 2 on it, in the clear.
  int RemoteService() { return StartWorkService(&server_, "none"); }

  imap_test::Dovecot server_;
};

template <typename Base>
class ImapServiceTest : public ImapServiceOnDemandTest<Base> {
 protected:
  void SetUp() override {
    Base::SetUp();
    ms_ = StartWorkService(&this->server_);
    ASSERT_TRUE(this->server_.env.count("PORT")) << "no Dovecot (package dovecot-imapd)";
  }

  int ms_ = INVALID_SERVICE;
};
