// Mailbox names: which driver takes a name, and the parser of remote names
// "[*]{host[:port][/switch...]}mailbox".
//
// Names come from option files, the server's own LIST replies and the
// user, so the parser refuses, with no partial result, anything it cannot
// represent: over-long hosts and mailboxes are errors, never truncated.
#include <cctype>
#include <cstring>
#include <string>
#include <string_view>

#include "c-client/core/mail.h"
#include "c-client/core/mail_core.h"

namespace {

constexpr size_t kMaxHost = sizeof(NetMailbox::host) - 1;
constexpr size_t kMaxMailbox = sizeof(NetMailbox::mailbox) - 1;
constexpr size_t kMaxService = sizeof(NetMailbox::service) - 1;
constexpr long kMaxPort = 65535;

bool IsServiceWord(std::string_view w) {
  return w == "imap" || w == "imap2" || w == "imap4" || w == "pop3" || w == "nntp";
}

bool SetService(NetMailbox* out, std::string_view value) {
  if (out->service[0] || value.empty() || value.size() > kMaxService) return false;
  value.copy(out->service, value.size());
  out->service[value.size()] = '\0';
  return true;
}

// An IPv6 literal between brackets: hex digits, colons and dots (for an
// embedded IPv4 tail), with at least one colon.
bool IsIpv6Literal(std::string_view inner) {
  if (inner.empty() || inner.find(':') == std::string_view::npos) return false;
  for (char c : inner)
    if (!std::isxdigit(static_cast<unsigned char>(c)) && c != ':' && c != '.') return false;
  return true;
}

// Decimal digits up to the next delimiter, 1 to 65535.
bool ParsePort(std::string_view digits, long* port) {
  if (digits.empty() || digits.size() > 5) return false;
  long value = 0;
  for (char c : digits) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + (c - '0');
  }
  if (value < 1 || value > kMaxPort) return false;
  *port = value;
  return true;
}

// One "/word" or "/key=value" switch.
bool ParseSwitch(NetMailbox* out, std::string_view word, bool has_value, std::string_view value) {
  if (word.empty()) return false;
  if (has_value) return word == "service" && SetService(out, value);
  if (word == "anonymous") {
    out->anonymous = true;
  } else if (IsServiceWord(word)) {
    return SetService(out, word);
  } else if (word == "ssl") {
    out->ssl = true;
  } else if (word == "tls") {
    out->tls = true;
  } else if (word == "notls") {
    out->notls = true;
  } else if (word == "novalidate-cert") {
    out->novalidate_cert = true;
  } else {
    return false;
  }
  return true;
}

// The delimiters after the host: ":port", "/switch", "/key=value". The
// text is already lower case.
bool ParseSwitches(NetMailbox* out, std::string_view rest) {
  bool have_port = false;
  size_t i = 0;
  while (i < rest.size()) {
    char delimiter = rest[i++];
    if (delimiter == ':') {
      size_t end = rest.find_first_of("/:", i);
      if (end == std::string_view::npos) end = rest.size();
      if (have_port || !ParsePort(rest.substr(i, end - i), &out->port)) return false;
      have_port = true;
      i = end;
    } else if (delimiter == '/') {
      size_t end = rest.find_first_of("/:=", i);
      if (end == std::string_view::npos) end = rest.size();
      std::string_view word = rest.substr(i, end - i);
      bool has_value = end < rest.size() && rest[end] == '=';
      std::string_view value;
      i = end;
      if (has_value) {
        size_t vend = rest.find_first_of("/:", end + 1);
        if (vend == std::string_view::npos) vend = rest.size();
        value = rest.substr(end + 1, vend - end - 1);
        i = vend;
      }
      if (!ParseSwitch(out, word, has_value, value)) return false;
    } else {
      return false;
    }
  }
  // Implicit TLS and STARTTLS exclude each other, and STARTTLS can't be
  // both required and refused.
  if (out->ssl && (out->tls || out->notls)) return false;
  if (out->tls && out->notls) return false;
  return true;
}

bool ParseNet(const char* name, NetMailbox* out) {
  *out = NetMailbox{};
  if (!name) return false;
  if (*name == '*') {
    out->bboard = true;
    ++name;
  }
  if (*name != '{') return false;
  const char* close = std::strchr(name + 1, '}');
  if (!close || close == name + 1) return false;
  std::string braced(name + 1, close);
  std::string_view mailbox(close + 1);

  // The host ends at the first "/" or ":", except inside an IPv6 literal.
  size_t split;
  if (braced[0] == '[') {
    size_t end = braced.find(']');
    if (end == std::string::npos || !IsIpv6Literal(std::string_view(braced).substr(1, end - 1))) return false;
    split = end + 1;
    if (split < braced.size() && braced[split] != '/' && braced[split] != ':') return false;
  } else {
    split = braced.find_first_of("/:");
    if (split == std::string::npos) split = braced.size();
  }
  if (split == 0 || split > kMaxHost || mailbox.size() > kMaxMailbox) return false;
  braced.copy(out->host, split);
  out->host[split] = '\0';

  for (size_t i = split; i < braced.size(); ++i)
    braced[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(braced[i])));
  if (!ParseSwitches(out, std::string_view(braced).substr(split))) {
    *out = NetMailbox{};
    return false;
  }

  if (mailbox.empty()) mailbox = out->bboard ? "general" : "INBOX";
  mailbox.copy(out->mailbox, mailbox.size());
  out->mailbox[mailbox.size()] = '\0';
  if (!out->service[0]) std::strcpy(out->service, "imap");
  return true;
}

const char* Complaint(const char* mailbox) {
  if (mailbox[0] == '{' || (mailbox[0] == '*' && mailbox[1] == '{')) return "invalid remote specification";
  if (mailbox[0] == '*') return "no such bboard";
  return "no such mailbox";
}

}  // namespace

bool mail_valid_net_parse(const char* name, NetMailbox* out) {
  NetMailbox scratch;
  if (!out) out = &scratch;
  if (ParseNet(name, out)) return true;
  *out = NetMailbox{};
  return false;
}

// Of the service words only "imap" reaches a driver whose name starts with
// "imap"; any other must be the driver's exact name.
MailDriver* mail_valid_net(const char* name, MailDriver* driver, char* host, char* mailbox) {
  NetMailbox net;
  if (!driver || !driver->name || !mail_valid_net_parse(name, &net)) return nullptr;
  bool imap = std::strcmp(net.service, "imap") == 0 && std::strncmp(driver->name, "imap", 4) == 0;
  if (!imap && std::strcmp(net.service, driver->name) != 0) return nullptr;
  if (host) std::strcpy(host, net.host);
  if (mailbox) std::strcpy(mailbox, net.mailbox);
  return driver;
}

MailDriver* mail_valid(MailStream* stream, const char* mailbox, const char* purpose) {
  const char* name = mailbox ? mailbox : "";
  MailDriver* factory = nullptr;
  for (MailDriver* d = mail_drivers(); d && !factory; d = d->next)
    if (d->valid) factory = d->valid(name);
  // A stream can only serve names of its own format; the pseudo-driver
  // "dummy" stands for "whatever the stream is".
  if (factory && stream && stream->driver != factory) {
    factory = (factory->name && std::strcmp(factory->name, "dummy") == 0) ? stream->driver : nullptr;
  }
  if (!factory && purpose) mm_log(mail_format("Can't %s %s: %s", purpose, name, Complaint(name)).c_str(), 2);
  return factory;
}
