// Feeds arbitrary names to the remote-name parser and to mail_valid. A name
// that parses stays within the record's limits and comes back the same from
// its canonical spelling; a refused name leaves nothing behind.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "c-client/core/mail.h"
#include "c-client/core/plain_env.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

MailDriver g_remote{};

// Every field, and the name that should parse back to them.
std::string Record(const NetMailbox& n) {
  return std::string(n.host) + "|" + n.mailbox + "|" + n.service + "|" + std::to_string(n.port) +
         (n.anonymous ? "|anon" : "") + (n.bboard ? "|bboard" : "") + (n.ssl ? "|ssl" : "") + (n.tls ? "|tls" : "") +
         (n.notls ? "|notls" : "") + (n.novalidate_cert ? "|novalidate" : "");
}
std::string Canonical(const NetMailbox& n) {
  return std::string(n.bboard ? "*{" : "{") + n.host + (n.port ? ":" + std::to_string(n.port) : "") +
         "/service=" + n.service + (n.anonymous ? "/anonymous" : "") + (n.ssl ? "/ssl" : "") + (n.tls ? "/tls" : "") +
         (n.notls ? "/notls" : "") + (n.novalidate_cert ? "/novalidate-cert" : "") + "}" + n.mailbox;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  if (!g_remote.valid) {
    g_remote.name = "imap2";
    g_remote.valid = [](const char* name) { return mail_valid_net(name, &g_remote, nullptr, nullptr); };
    mail_unlink_all();
    mail_link(&g_remote);
  }
  // A name ends at its first zero byte.
  const std::string name = std::string(reinterpret_cast<const char*>(data), size).c_str();

  NetMailbox net, again;
  if (mail_valid_net_parse(name.c_str(), &net)) {
    Check(net.host[0] && std::strlen(net.host) <= 255 && net.mailbox[0] && std::strlen(net.mailbox) <= 1023);
    Check(net.service[0] && net.port >= 0 && net.port <= 65535);
    Check(!(net.ssl && (net.tls || net.notls)) && !(net.tls && net.notls));
    Check(mail_valid_net_parse(Canonical(net).c_str(), &again) && Record(net) == Record(again));
  } else {
    Check(net.host[0] == '\0' && net.mailbox[0] == '\0' && net.service[0] == '\0');
  }

  // mail_valid's complaint names the mailbox in full, whatever its length.
  mail_env_clear();
  MailDriver* d = mail_valid(nullptr, name.c_str(), "open mailbox");
  Check((d != nullptr) == mail_env_lines().empty());
  if (!d) Check(mail_env_lines().back().text.find(name) != std::string::npos);
  mail_env_clear();
  return 0;
}
