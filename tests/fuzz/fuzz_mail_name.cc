// Feeds arbitrary names to the remote-name parser and to mail_valid. A name
// that parses must come back the same from its canonical spelling, and
// stay within the record's limits; a refused name leaves nothing behind.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "c-client/core/mail.h"
#include "c-client/core/plain_env.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

MailDriver* RemoteValid(const char* name);
MailDriver g_remote = [] {
  MailDriver d{};
  d.name = "imap2";
  d.valid = RemoteValid;
  return d;
}();
MailDriver* RemoteValid(const char* name) {
  char host[256], mailbox[1024];
  MailDriver* d = mail_valid_net(name, &g_remote, host, mailbox);
  if (d) Check(std::strlen(host) < sizeof host && std::strlen(mailbox) < sizeof mailbox);
  return d;
}

std::string Canonical(const NetMailbox& n) {
  std::string s = n.bboard ? "*{" : "{";
  s += n.host;
  if (n.port) s += ":" + std::to_string(n.port);
  s += std::string("/service=") + n.service;
  if (n.anonymous) s += "/anonymous";
  if (n.ssl) s += "/ssl";
  if (n.tls) s += "/tls";
  if (n.notls) s += "/notls";
  if (n.novalidate_cert) s += "/novalidate-cert";
  return s + "}" + n.mailbox;
}

bool Same(const NetMailbox& a, const NetMailbox& b) {
  return std::strcmp(a.host, b.host) == 0 && std::strcmp(a.mailbox, b.mailbox) == 0 &&
         std::strcmp(a.service, b.service) == 0 && a.port == b.port && a.anonymous == b.anonymous &&
         a.bboard == b.bboard && a.ssl == b.ssl && a.tls == b.tls && a.notls == b.notls &&
         a.novalidate_cert == b.novalidate_cert;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  static bool linked = false;
  if (!linked) {
    linked = true;
    mail_unlink_all();
    mail_link(&g_remote);
  }
  std::string name(reinterpret_cast<const char*>(data), size);
  name = name.c_str();  // a name ends at its first zero byte

  NetMailbox net;
  if (mail_valid_net_parse(name.c_str(), &net)) {
    Check(net.host[0] != '\0' && std::strlen(net.host) <= 255);
    Check(net.mailbox[0] != '\0' && std::strlen(net.mailbox) <= 1023);
    Check(net.service[0] != '\0');
    Check(net.port >= 0 && net.port <= 65535);
    Check(!(net.ssl && (net.tls || net.notls)) && !(net.tls && net.notls));
    NetMailbox again;
    std::string canonical = Canonical(net);
    // The canonical form may be longer than the original only by the
    // switches spelled out; it must parse to the same record.
    Check(mail_valid_net_parse(canonical.c_str(), &again));
    Check(Same(net, again));
  } else {
    Check(net.host[0] == '\0' && net.mailbox[0] == '\0' && net.service[0] == '\0');
  }

  // mail_valid's complaint names the mailbox in full, whatever its length.
  mail_env_clear();
  MailDriver* d = mail_valid(nullptr, name.c_str(), "open mailbox");
  Check((d != nullptr) == (mail_env_lines().empty()));
  if (!d) Check(mail_env_lines().back().text.find(name) != std::string::npos);
  mail_env_clear();
  return 0;
}
