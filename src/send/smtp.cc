#include "src/send/smtp.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "c-client/auth/auth.h"
#include "c-client/auth/authenticators.h"
#include "src/base/base64.h"
#include "src/base/trace.h"
#include "src/options/options.h"

namespace {

constexpr unsigned long kPortSmtp = 25;
constexpr unsigned long kPortSubmission = 587;
constexpr unsigned long kPortSmtps = 465;

std::string OneLine(const std::string& bytes) {
  std::string text = Base64Encode(bytes, false);
  std::string out;
  for (char c : text)
    if (c != '\r' && c != '\n') out += c;
  return out;
}

bool Offered(const SmtpStream* stream, const std::string& mechanism) {
  for (const std::string& m : stream->ext.auth)
    if (m == mechanism) return true;
  return false;
}

// The credentials for AUTH: Send.User and Send.Password, else the login
// of this session, else the first service's.
bool Credentials(std::string* user, std::string* password) {
  *user = Opt_LookupText("Send.User", kOptSession);
  *password = Opt_LookupText("Send.Password", kOptSession);
  if (!user->empty()) return true;
  if (login_user() && *login_user()) {
    *user = login_user();
    *password = login_password() ? login_password() : "";
    return true;
  }
  for (int n = 0; n < 100; ++n) {
    const std::string base = "MsgService.ms" + std::to_string(n) + ".";
    *user = Opt_LookupText((base + "Userid").c_str(), kOptSession);
    if (user->empty()) continue;
    *password = Opt_LookupText((base + "Password").c_str(), kOptSession);
    return true;
  }
  return false;
}

// One mechanism's dialogue; the reply code that ends it.
int AuthWith(SmtpStream* stream, const std::string& mechanism, const std::string& user, const std::string& password) {
  if (mechanism == "PLAIN") {
    return smtp_send(stream, "AUTH PLAIN", OneLine(std::string(1, '\0') + user + '\0' + password).c_str());
  }
  if (mechanism == "LOGIN") {
    if (smtp_send(stream, "AUTH LOGIN", nullptr) != 334) return stream->code;
    if (smtp_send(stream, OneLine(user).c_str(), nullptr) != 334) return stream->code;
    return smtp_send(stream, OneLine(password).c_str(), nullptr);
  }
  if (mechanism == "CRAM-MD5") {
    if (smtp_send(stream, "AUTH CRAM-MD5", nullptr) != 334) return stream->code;
    const std::string challenge_text = stream->reply.size() > 4 ? stream->reply.substr(4) : "";
    std::string challenge;
    if (!Base64Decode(challenge_text.data(), challenge_text.size(), &challenge)) {
      smtp_send(stream, "*", nullptr);  // cancels the exchange
      return 535;
    }
    return smtp_send(stream, OneLine(user + " " + auth_hmac_md5_hex(password, challenge)).c_str(), nullptr);
  }
  return 504;
}

// AUTH when the server offers it and we have a login: the first mechanism
// of Send.AuthMechanisms (default CRAM-MD5, then PLAIN, then LOGIN) that
// the server offers. 1 when logged in or nothing to do.
bool Authenticate(SmtpStream* stream, std::string* why) {
  if (stream->ext.auth.empty()) return true;
  std::string user, password;
  if (!Credentials(&user, &password)) return true;
  std::string preference = Opt_LookupText("Send.AuthMechanisms", kOptSession);
  if (preference.empty()) preference = "CRAM-MD5 PLAIN LOGIN";
  size_t start = 0;
  while (start < preference.size()) {
    size_t end = preference.find_first_of(" ,", start);
    if (end == std::string::npos) end = preference.size();
    std::string mechanism = preference.substr(start, end - start);
    start = end + 1;
    for (char& c : mechanism) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (mechanism.empty() || !Offered(stream, mechanism)) continue;
    if (AuthWith(stream, mechanism, user, password) == 235) return true;
    *why = "the server refused the login of " + user + " (" + mechanism + "): " + stream->reply;
    return false;
  }
  return true;  // nothing we speak: the server may take the mail anyway
}

bool Hello(SmtpStream* stream, std::string* why) {
  const char* local = tcp_localhost(stream->tcp);
  const std::string name = local && *local ? local : "localhost";
  stream->ext = SmtpExtensions{};
  if (smtp_send(stream, "EHLO", name.c_str()) == 250) {
    smtp_parse_extensions(stream->last, &stream->ext);
    return true;
  }
  if (stream->code == kSmtpGone) {
    *why = stream->reply;
    return false;
  }
  stream->ext = SmtpExtensions{};
  if (smtp_send(stream, "HELO", name.c_str()) == 250) return true;
  if (!strcasecmp(name.c_str(), "localhost") && smtp_send(stream, "HELO", "localhost") == 250) return true;
  *why = "the server did not accept HELO: " + stream->reply;
  return false;
}

}  // namespace

bool smtp_parse_host(const std::string& entry, SmtpHost* out, std::string* why) {
  *out = SmtpHost{};
  size_t slash = entry.find('/');
  std::string address = entry.substr(0, slash);
  while (slash != std::string::npos) {
    size_t next = entry.find('/', slash + 1);
    std::string sw = entry.substr(slash + 1, next == std::string::npos ? std::string::npos : next - slash - 1);
    for (char& c : sw) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (sw == "ssl") out->ssl = true;
    else if (sw == "tls") out->tls = true;
    else if (sw == "notls") out->notls = true;
    else if (sw == "submit") out->submit = true;
    else if (sw == "novalidate-cert") out->novalidate = true;
    else {
      *why = "unknown switch /" + sw + " in delivery host " + entry;
      return false;
    }
    slash = next;
  }
  // "[address]:port", or "name:port" with a single colon.
  size_t colon = std::string::npos;
  if (!address.empty() && address[0] == '[') {
    const size_t close = address.find(']');
    if (close != std::string::npos && close + 1 < address.size() && address[close + 1] == ':') colon = close + 1;
  } else if (address.find(':') == address.rfind(':')) {
    colon = address.find(':');
  }
  if (colon != std::string::npos) {
    const std::string port = address.substr(colon + 1);
    if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos ||
        std::atol(port.c_str()) < 1 || std::atol(port.c_str()) > 65535) {
      *why = "bad port in delivery host " + entry;
      return false;
    }
    out->port = std::strtoul(port.c_str(), nullptr, 10);
    address.resize(colon);
  }
  if (address.empty() || address.size() > 255) {
    *why = "no host name in delivery host " + entry;
    return false;
  }
  out->name = address;
  return true;
}

void smtp_fake(SmtpStream* stream, int code, const char* text) {
  stream->code = code;
  stream->reply = std::to_string(code) + " " + text;
}

int smtp_reply(SmtpStream* stream) {
  SmtpReply reply;
  while (!reply.complete) {
    if (!stream->tcp) {
      smtp_fake(stream, kSmtpGone, "SMTP connection went away!");
      return stream->code;
    }
    char* line = tcp_getline(stream->tcp);
    if (!line) {
      smtp_fake(stream, kSmtpGone, "SMTP connection went away!");
      return stream->code;
    }
    if (stream->debug) Trace(kTraceMail, kTraceLow, "smtp < %.500s\n", line);
    const bool ok = smtp_reply_add(&reply, line, std::strlen(line));
    FS_GIVE(&line);
    if (!ok) {
      // A server that answers nonsense can't be trusted with the rest.
      smtp_fake(stream, kSmtpGone, ("SMTP connection went away! (" + reply.error + ")").c_str());
      tcp_close(stream->tcp);
      stream->tcp = nullptr;
      return stream->code;
    }
  }
  stream->code = reply.code;
  stream->reply = std::to_string(reply.code) + " " + reply.text;
  stream->last = std::move(reply);
  return stream->code;
}

int smtp_send(SmtpStream* stream, const char* command, const char* arguments) {
  if (!stream->tcp) {
    smtp_fake(stream, kSmtpGone, "SMTP connection went away!");
    return stream->code;
  }
  std::string line = command;
  if (arguments && *arguments) line += std::string(" ") + arguments;
  if (stream->debug) Trace(kTraceMail, kTraceLow, "smtp > %.500s\n", line.c_str());
  line += "\r\n";
  if (!tcp_sout(stream->tcp, line.data(), line.size())) {
    smtp_fake(stream, kSmtpGone, "SMTP connection went away!");
    return stream->code;
  }
  return smtp_reply(stream);
}

SmtpStream* smtp_open(char** hostlist, unsigned long port, bool debug, std::string* why) {
  if (!hostlist || !hostlist[0]) {
    *why = "Missing MTP service host";
    return nullptr;
  }
  why->clear();
  for (char** entry = hostlist; *entry; ++entry) {
    SmtpHost host;
    std::string reason;
    if (!smtp_parse_host(*entry, &host, &reason)) {
      *why += (why->empty() ? "" : "; ") + reason;
      continue;
    }
    unsigned long p = host.port ? host.port
                                : port ? port : host.ssl ? kPortSmtps : host.submit ? kPortSubmission : kPortSmtp;
    TcpStream* tcp = tcp_open(host.name.c_str(), "smtp", p);
    if (!tcp) {
      *why += (why->empty() ? "" : "; ") + host.name + ":" + std::to_string(p) + " did not answer";
      continue;
    }
    auto* stream = new SmtpStream;
    stream->tcp = tcp;
    stream->debug = debug;
    stream->host = *entry;
    const unsigned long tls_flags = host.novalidate ? TCP_TLS_NOVALIDATE : 0;
    bool ok = true;
    if (host.ssl && !tcp_starttls(tcp, host.name.c_str(), tls_flags)) {
      stream->tcp = nullptr;  // the layer has aborted it
      reason = "TLS with " + host.name + " failed";
      ok = false;
    }
    if (ok && smtp_reply(stream) != 220) {
      reason = host.name + " greeted with: " + stream->reply;
      ok = false;
    }
    if (ok) ok = Hello(stream, &reason);
    if (ok && !host.ssl && !host.notls && (stream->ext.starttls || host.tls)) {
      if (!stream->ext.starttls) {
        reason = host.name + " does not offer STARTTLS, which /tls requires";
        ok = false;
      } else if (smtp_send(stream, "STARTTLS", nullptr) != 220) {
        reason = host.name + " refused STARTTLS: " + stream->reply;
        ok = false;
      } else if (!tcp_starttls(tcp, host.name.c_str(), tls_flags)) {
        stream->tcp = nullptr;
        reason = "TLS with " + host.name + " failed";
        ok = false;
      } else {
        stream->ext = SmtpExtensions{};
        ok = Hello(stream, &reason);  // the extensions may differ under TLS
      }
    }
    if (ok) ok = Authenticate(stream, &reason);
    if (ok) return stream;
    *why += (why->empty() ? "" : "; ") + reason;
    smtp_close(&stream);
  }
  return nullptr;
}

void smtp_close(SmtpStream** stream) {
  if (!stream || !*stream) return;
  if ((*stream)->tcp) {
    smtp_send(*stream, "QUIT", nullptr);
    if ((*stream)->tcp) tcp_close((*stream)->tcp);
  }
  delete *stream;
  *stream = nullptr;
}

void smtp_abort(SmtpStream** stream) {
  if (!stream || !*stream) return;
  if ((*stream)->tcp) tcp_close((*stream)->tcp);
  delete *stream;
  *stream = nullptr;
}

int smtp_rcpt(SmtpStream* stream, MailAddress* list, bool* failed) {
  int all = 1;
  for (MailAddress* a = list; a; a = a->next) {
    if (!a->mailbox || !a->host || !*a->host || a->host[0] == '@') continue;  // groups, local names
    std::string address = std::string(a->mailbox) + "@" + a->host;
    // A name or a control character could pass a second command.
    for (char& c : address)
      if (static_cast<unsigned char>(c) < 0x20) c = ' ';
    const int code = smtp_send(stream, "RCPT", ("TO:<" + address + ">").c_str());
    if (code != 250 && code != 251) {
      FS_GIVE(&a->error);
      a->error = cpystr(stream->reply.c_str());
      all = 0;
      if (failed) *failed = true;
      if (code == kSmtpGone) break;
    }
  }
  return all;
}

int smtp_soutr(SmtpStream* stream, const char* data, size_t size) {
  if (!stream->tcp) return 0;
  std::string out;
  out.reserve(size + size / 64 + 8);
  for (size_t i = 0; i < size; ++i) {
    const char c = data[i];
    if (c == '\n' && !stream->cr) out += '\r';
    if (stream->line_start && c == '.') out += '.';
    out += c;
    stream->cr = c == '\r';
    stream->line_start = c == '\n';
  }
  return tcp_sout(stream->tcp, out.data(), out.size()) ? 1 : 0;
}

void smtp_strip_bcc(std::string* header) {
  std::string out;
  out.reserve(header->size());
  size_t at = 0;
  bool dropping = false;
  while (at < header->size()) {
    size_t end = header->find('\n', at);
    end = end == std::string::npos ? header->size() : end + 1;
    const std::string_view line(header->data() + at, end - at);
    const bool continuation = !line.empty() && (line[0] == ' ' || line[0] == '\t');
    if (!continuation) {
      const size_t colon = line.find(':');
      std::string name(line.substr(0, colon == std::string_view::npos ? 0 : colon));
      while (!name.empty() && (name.back() == ' ' || name.back() == '\t')) name.pop_back();
      dropping = !strcasecmp(name.c_str(), "Bcc") || !strcasecmp(name.c_str(), "Resent-Bcc");
    }
    if (!dropping) out.append(line);
    at = end;
  }
  *header = std::move(out);
}
