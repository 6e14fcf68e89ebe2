// What a reply or a forward starts with: subject prefixes, the addresses
// taken from the original, the quoted or forwarded text and the threading
// headers.
#include <strings.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "c-client/rfc822/mime_display.h"
#include "c-client/rfc822/rfc822.h"
#include "c-client/rfc822/rfc822_write.h"
#include "src/compose/compose.h"
#include "src/compose/compose_internal.h"
#include "src/options/options.h"
#include "src/send/send.h"

namespace {

bool ContainsNoCase(const std::string& text, const std::string& word) {
  if (word.empty()) return true;
  auto it = std::search(text.begin(), text.end(), word.begin(), word.end(),
                        [](char a, char b) { return std::tolower(static_cast<unsigned char>(a)) ==
                                                    std::tolower(static_cast<unsigned char>(b)); });
  return it != text.end();
}

std::string OptionOr(const char* name, const char* fallback) {
  std::string v = Opt_LookupText(name, kOptSession);
  return v.empty() ? fallback : v;
}

}  // namespace

std::string ComposeTrim(const std::string& s) {
  size_t a = s.find_first_not_of(" \t\r\n");
  if (a == std::string::npos) return "";
  size_t b = s.find_last_not_of(" \t\r\n");
  return s.substr(a, b - a + 1);
}

MailAddress* ComposeParseAddresses(const std::string& text, bool qualify) {
  if (ComposeTrim(text).empty()) return nullptr;
  std::string copy = text;
  MailAddress* list = nullptr;
  const std::string domain = qualify ? get_mail_domain() : "";
  rfc822_parse_adrlist(&list, copy.data(), domain.empty() ? nullptr : domain.c_str());
  return list;
}

std::string ComposeAddressText(MailAddress* list) {
  if (!list) return "";
  size_t size = 256;
  for (MailAddress* a = list; a; a = a->next)
    for (const char* s : {a->personal, a->adl, a->mailbox, a->host}) size += s ? 2 * std::strlen(s) + 8 : 8;
  std::unique_ptr<char[]> buffer(new char[size]());
  rfc822_write_address_limited(buffer.get(), size, list);
  return buffer.get();
}

std::string ComposeReplySubject(const std::string& subject) {
  const std::string s = ComposeTrim(subject).empty() ? "-- No Subject --" : subject;
  const std::string prefix = OptionOr("Reply.Subject.Prefix", "Re");
  // A substring in any case counts, so that "RE:" or "Re[2]:" gain nothing.
  if (ContainsNoCase(s, prefix)) return s;
  return prefix + ": " + s;
}

std::string ComposeForwardSubject(const std::string& subject) {
  const std::string s = ComposeTrim(subject).empty() ? "-- No Subject --" : subject;
  const std::string prefix = OptionOr("Forward.Subject.Prefix", "fwd");
  if (ContainsNoCase(s, prefix)) return s;
  if (strcasecmp(OptionOr("Forward.Subject.Location", "Prefix").c_str(), "Prefix") == 0) return prefix + ": " + s;
  return s + " <" + prefix + ">";
}

std::string remove_own_address(const std::string& list) {
  MailAddress* parsed = ComposeParseAddresses(list);
  if (!parsed) return "";
  MailAddress* own = ComposeParseAddresses(Opt_LookupText("General.MailAddress", kOptSession));
  auto same = [own](const MailAddress* a) {
    for (const MailAddress* o = own; o; o = o->next)
      if (a->mailbox && o->mailbox && a->host && o->host && !strcasecmp(a->mailbox, o->mailbox) &&
          !strcasecmp(a->host, o->host))
        return true;
    return false;
  };
  MailAddress* kept = nullptr;
  MailAddress** tail = &kept;
  while (parsed) {
    MailAddress* next = parsed->next;
    parsed->next = nullptr;
    if (same(parsed)) {
      mail_free_address(&parsed);
    } else {
      *tail = parsed;
      tail = &parsed->next;
    }
    parsed = next;
  }
  mail_free_address(&own);
  std::string out = ComposeAddressText(kept);
  mail_free_address(&kept);
  return out;
}

std::string ComposeWrap(const std::string& text, int width) {
  if (width < 10) width = 10;
  std::string out;
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find('\n', start);
    const bool last = end == std::string::npos;
    std::string line = text.substr(start, last ? std::string::npos : end - start);
    while (static_cast<int>(line.size()) > width) {
      size_t cut = line.rfind(' ', static_cast<size_t>(width));
      if (cut == std::string::npos || cut == 0) cut = line.find(' ', static_cast<size_t>(width));
      if (cut == std::string::npos) break;  // one long word stays whole
      out += line.substr(0, cut) + "\n";
      line = line.substr(line.find_first_not_of(' ', cut) == std::string::npos ? line.size()
                                                                                : line.find_first_not_of(' ', cut));
    }
    out += line;
    if (last) break;
    out += '\n';
    start = end + 1;
  }
  return out;
}

std::string ComposeQuoteText(const std::string& text, const std::string& prefix, int wrap) {
  std::string body = text;
  while (!body.empty() && (body.back() == '\n' || body.back() == '\r')) body.pop_back();
  body.erase(std::remove(body.begin(), body.end(), '\r'), body.end());
  if (wrap > 0) body = ComposeWrap(body, wrap);
  std::string out;
  size_t start = 0;
  for (;;) {
    const size_t end = body.find('\n', start);
    out += prefix + body.substr(start, end == std::string::npos ? std::string::npos : end - start) + "\n";
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return out;
}

std::string ComposeReferences(const std::string& references, const std::string& message_id) {
  // Ids only, each once; the oldest and the newest are the ones readers
  // thread by, so a long chain loses its middle.
  std::vector<std::string> ids;
  auto take = [&ids](const std::string& text) {
    size_t at = 0;
    while ((at = text.find('<', at)) != std::string::npos) {
      const size_t end = text.find('>', at);
      if (end == std::string::npos || end - at > 250) break;
      std::string id = text.substr(at, end - at + 1);
      if (id.find_first_of(" \t\r\n") == std::string::npos &&
          std::find(ids.begin(), ids.end(), id) == ids.end())
        ids.push_back(id);
      at = end + 1;
    }
  };
  take(references);
  take(message_id);
  constexpr size_t kMaxIds = 20;
  if (ids.size() > kMaxIds) ids.erase(ids.begin() + 1, ids.end() - (kMaxIds - 1));
  std::string out;
  for (const std::string& id : ids) out += (out.empty() ? "" : " ") + id;
  return out;
}

std::string ComposeForwardBlock(UMI umi, const std::string& text) {
  std::string out = "--- Begin Forwarded Message ---\n";
  struct Field {
    const char* name;
    bool address;
  } fields[] = {{"Date", false}, {"From", true},   {"Subject", false},   {"Sender", true},
                {"To", true},    {"Cc", true},     {"Reply-To", true},   {"Message-ID", false}};
  for (const Field& f : fields) {
    auto value = MM_MsgHeaderContent(umi, f.name);
    if (!value) continue;
    std::string v = ComposeTrim(mime_display_text(value->c_str()));
    if (f.address) {
      MailAddress* list = ComposeParseAddresses(ComposeTrim(*value));
      bool bad = !list;
      for (MailAddress* a = list; a; a = a->next) bad |= a->error != nullptr;
      mail_free_address(&list);
      if (bad && !v.empty()) v = "- Invalid Address -";
    }
    if (!strcmp(f.name, "Subject") && v.empty()) v = "- No Subject -";
    out += std::string(f.name) + ": " + v + "\n";
  }
  out += "\n";
  std::string body = text;
  body.erase(std::remove(body.begin(), body.end(), '\r'), body.end());
  int width = 0;
  if (Opt_LookupText("Forward.WrapOriginalText", kOptSession) == "TRUE" && Opt_LookupInt("Compose.LineWrap", &width, kOptSession) &&
      width > 0)
    body = ComposeWrap(body, width);
  out += body;
  if (!body.empty() && body.back() != '\n') out += "\n";
  out += "--- End Forwarded Message ---\n";
  return out;
}
