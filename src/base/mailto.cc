// mailto: links, the --compose command line and the request text that
// travels to a running copy of the program.
#include "src/base/mailto.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace {

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool PercentDecode(const std::string& in, std::string* out, std::string* why) {
  out->clear();
  for (size_t i = 0; i < in.size(); ++i) {
    if (in[i] != '%') {
      *out += in[i];
      continue;
    }
    const int hi = i + 1 < in.size() ? HexValue(in[i + 1]) : -1;
    const int lo = i + 2 < in.size() ? HexValue(in[i + 2]) : -1;
    if (hi < 0 || lo < 0) {
      *why = "bad %-escape \"" + in.substr(i, 3) + "\"";
      return false;
    }
    *out += static_cast<char>(hi * 16 + lo);
    i += 2;
  }
  return true;
}

bool ValidUtf8(const std::string& s) {
  size_t i = 0;
  while (i < s.size()) {
    const auto c = static_cast<unsigned char>(s[i]);
    size_t n = 0;
    unsigned long cp = 0;
    if (c < 0x80) {
      ++i;
      continue;
    } else if ((c & 0xE0) == 0xC0) {
      n = 1, cp = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      n = 2, cp = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      n = 3, cp = c & 0x07;
    } else {
      return false;
    }
    if (i + n >= s.size()) return false;
    for (size_t k = 1; k <= n; ++k) {
      const auto cc = static_cast<unsigned char>(s[i + k]);
      if ((cc & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (cc & 0x3F);
    }
    // Overlong forms, surrogates and values past Unicode hide characters
    // from the checks below.
    if ((n == 1 && cp < 0x80) || (n == 2 && cp < 0x800) || (n == 3 && cp < 0x10000) || cp > 0x10FFFF ||
        (cp >= 0xD800 && cp <= 0xDFFF))
      return false;
    i += n + 1;
  }
  return true;
}

std::string Lower(std::string s) {
  for (char& c : s)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return s;
}

bool HasControl(const std::string& s) {
  for (unsigned char c : s)
    if (c < 0x20 || c == 0x7f) return true;
  return false;
}

std::string Trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t");
  if (b == std::string::npos) return "";
  return s.substr(b, s.find_last_not_of(" \t") - b + 1);
}

size_t AddressCount(const ComposeRequest& r) { return r.to.size() + r.cc.size() + r.bcc.size(); }

// Splits at commas outside quoted names ("Doe, Jane" <j@x>).
bool AddAddresses(const std::string& text, std::vector<std::string>* list, const ComposeRequest& r,
                  std::string* why) {
  std::vector<std::string> parts(1);
  bool quoted = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '"') quoted = !quoted;
    if (c == '\\' && quoted && i + 1 < text.size()) {
      parts.back() += c;
      parts.back() += text[++i];
      continue;
    }
    if (c == ',' && !quoted)
      parts.emplace_back();
    else
      parts.back() += c;
  }
  for (const std::string& p : parts) {
    const std::string a = Trim(p);
    if (a.empty()) continue;
    if (HasControl(a)) {
      *why = "control character in an address";
      return false;
    }
    if (a.size() > kMailtoMaxField) {
      *why = "an address is longer than " + std::to_string(kMailtoMaxField) + " bytes";
      return false;
    }
    if (AddressCount(r) + 1 > kMailtoMaxAddresses) {
      *why = "more than " + std::to_string(kMailtoMaxAddresses) + " addresses";
      return false;
    }
    list->push_back(a);
  }
  return true;
}

// The body keeps its line ends as "\n"; other fields are one line.
std::string NormalizeBody(const std::string& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\r') {
      out += '\n';
      if (i + 1 < s.size() && s[i + 1] == '\n') ++i;
    } else {
      out += s[i];
    }
  }
  return out;
}

enum class Source { kLink, kRequest };

// One named value into the request. A link may not name attachments.
bool AddField(const std::string& name, const std::string& value, Source source, ComposeRequest* r,
              std::string* why) {
  const bool text_field = !(source == Source::kRequest && name == "attach");
  if (text_field && !ValidUtf8(value)) {
    *why = "the " + name + " field is not UTF-8 text";
    return false;
  }
  if (name == "to") return AddAddresses(value, &r->to, *r, why);
  if (name == "cc") return AddAddresses(value, &r->cc, *r, why);
  if (name == "bcc") return AddAddresses(value, &r->bcc, *r, why);
  if (name == "body") {
    for (unsigned char c : value)
      if ((c < 0x20 && c != '\t' && c != '\n' && c != '\r') || c == 0x7f) {
        *why = "control character in the body";
        return false;
      }
    if (value.size() > kComposeMaxBody) {
      *why = "the body is longer than " + std::to_string(kComposeMaxBody) + " bytes";
      return false;
    }
    if (r->body.empty()) r->body = NormalizeBody(value);
    return true;
  }
  std::string* single = name == "subject" ? &r->subject
                        : name == "in-reply-to" ? &r->in_reply_to
                                                : nullptr;
  if (single) {
    if (HasControl(value)) {
      *why = "control character in the " + name + " field";
      return false;
    }
    if (value.size() > kMailtoMaxField) {
      *why = "the " + name + " field is longer than " + std::to_string(kMailtoMaxField) + " bytes";
      return false;
    }
    if (single->empty()) *single = value;
    return true;
  }
  if (source == Source::kRequest && name == "attach") {
    if (value.empty() || value[0] != '/' || value.size() > 4096 || value.find('\0') != std::string::npos) {
      *why = "an attachment is not an absolute path";
      return false;
    }
    if (r->attach.size() >= kComposeMaxAttachments) {
      *why = "more than " + std::to_string(kComposeMaxAttachments) + " attachments";
      return false;
    }
    r->attach.push_back(value);
    return true;
  }
  if (source == Source::kRequest) {
    *why = "unknown field " + name;
    return false;
  }
  if (r->ignored.size() < kMailtoMaxHeaders) r->ignored.push_back(name);
  return true;
}

bool ReadBodyFile(const std::string& path, std::string* body, std::string* why) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) {
    *why = "cannot read the body file " + path + ": " + std::strerror(errno);
    return false;
  }
  std::string text;
  char block[8192];
  size_t n;
  while ((n = std::fread(block, 1, sizeof block, f)) > 0) {
    text.append(block, n);
    if (text.size() > kComposeMaxBody) break;
  }
  const bool failed = std::ferror(f);
  std::fclose(f);
  if (failed) {
    *why = "cannot read the body file " + path;
    return false;
  }
  if (text.size() > kComposeMaxBody) {
    *why = "the body file " + path + " is larger than " + std::to_string(kComposeMaxBody) + " bytes";
    return false;
  }
  *body = text;
  return true;
}

std::string Absolute(const std::string& path, const std::string& cwd) {
  if (path.empty() || path[0] == '/') return path;
  return cwd + (cwd.empty() || cwd.back() == '/' ? "" : "/") + path;
}

std::string PercentEncode(const std::string& s) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : s) {
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || (c && std::strchr("-._~@/", c))) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

// "name=value&name=value", each part percent-decoded.
bool ReadPairs(const std::string& text, Source source, ComposeRequest* r, std::string* why) {
  size_t count = 0;
  size_t at = 0;
  while (at <= text.size()) {
    size_t amp = text.find('&', at);
    if (amp == std::string::npos) amp = text.size();
    const std::string pair = text.substr(at, amp - at);
    at = amp + 1;
    if (pair.empty()) continue;
    if (++count > (source == Source::kLink ? kMailtoMaxHeaders : kMailtoMaxAddresses + kComposeMaxAttachments + 3)) {
      *why = "too many header fields";
      return false;
    }
    const size_t eq = pair.find('=');
    if (eq == std::string::npos) {
      *why = "header field without \"=\": " + pair.substr(0, 40);
      return false;
    }
    std::string name, value;
    if (!PercentDecode(pair.substr(0, eq), &name, why) || !PercentDecode(pair.substr(eq + 1), &value, why))
      return false;
    if (!AddField(Lower(name), value, source, r, why)) return false;
  }
  return true;
}

}  // namespace

bool IsMailtoUrl(const std::string& arg) { return arg.size() >= 7 && Lower(arg.substr(0, 7)) == "mailto:"; }

bool MailtoParse(const std::string& url, ComposeRequest* out, std::string* why) {
  std::string reason;
  auto fail = [&](const std::string& text) {
    if (why) *why = "bad mailto: link: " + text;
    return false;
  };
  if (url.size() > kMailtoMaxLength) return fail("longer than " + std::to_string(kMailtoMaxLength) + " bytes");
  if (!IsMailtoUrl(url)) return fail("it does not start with mailto:");
  for (unsigned char c : url)
    if (c < 0x20 || c == 0x7f) return fail("control character in the link");
  const size_t q = url.find('?', 7);
  const std::string path = url.substr(7, q == std::string::npos ? std::string::npos : q - 7);
  std::string to;
  if (!PercentDecode(path, &to, &reason)) return fail(reason);
  if (!AddField("to", to, Source::kLink, out, &reason)) return fail(reason);
  if (q != std::string::npos && !ReadPairs(url.substr(q + 1), Source::kLink, out, &reason)) return fail(reason);
  return true;
}

bool ComposeParseArgs(const std::vector<std::string>& args, const std::string& cwd, ComposeRequest* out,
                      std::vector<std::string>* rest, bool* found, std::string* why) {
  *found = false;
  bool compose = false;
  // After the first fault the words are still sorted, so that the program
  // can start without ours and tell the user what was wrong.
  bool ok = true;
  std::string reason;
  auto fail = [&](const std::string& text) {
    if (ok) *why = text;
    ok = false;
  };
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& word = args[i];
    if (IsMailtoUrl(word)) {
      *found = true;
      if (ok && !MailtoParse(word, out, &reason)) fail(reason);
      continue;
    }
    if (word == "--compose") {
      *found = compose = true;
      continue;
    }
    static const char* const kOptions[] = {"--to", "--cc", "--bcc", "--subject", "--body-file", "--attach"};
    std::string option, value;
    for (const char* o : kOptions) {
      const size_t n = std::strlen(o);
      if (word == o) {
        option = o;
        if (i + 1 >= args.size()) {
          fail(option + " needs a value");
          break;
        }
        value = args[++i];
      } else if (word.compare(0, n + 1, std::string(o) + "=") == 0) {
        option = o;
        value = word.substr(n + 1);
      }
    }
    if (option.empty()) {
      rest->push_back(word);
      continue;
    }
    *found = true;
    if (!ok) continue;
    if (!compose) {
      fail(option + " is an option of --compose");
      continue;
    }
    if (option == "--body-file") {
      std::string text;
      if (!ReadBodyFile(Absolute(value, cwd), &text, &reason)) {
        fail(reason);
        continue;
      }
      out->body.clear();  // the file wins over a link's body
      if (!AddField("body", text, Source::kLink, out, &reason)) fail("the body file " + value + ": " + reason);
      continue;
    }
    if (option == "--attach") {
      if (out->attach.size() >= kComposeMaxAttachments) {
        fail("more than " + std::to_string(kComposeMaxAttachments) + " attachments");
        continue;
      }
      out->attach.push_back(Absolute(value, cwd));
      continue;
    }
    const std::string name = option.substr(2);
    if (name == "subject") out->subject.clear();  // the command line's word wins over a link's
    if (!AddField(name, value, Source::kLink, out, &reason)) fail(reason);
  }
  return ok;
}

bool ComposeCheckAttachments(const ComposeRequest& request, std::string* why) {
  for (const std::string& path : request.attach) {
    struct stat st{};
    if (path.empty() || path[0] != '/') {
      *why = "the attachment " + path + " is not an absolute path";
      return false;
    }
    if (::stat(path.c_str(), &st) != 0) {
      *why = "cannot attach " + path + ": " + std::strerror(errno);
      return false;
    }
    if (!S_ISREG(st.st_mode)) {
      *why = "cannot attach " + path + ": not a regular file";
      return false;
    }
    if (::access(path.c_str(), R_OK) != 0) {
      *why = "cannot attach " + path + ": " + std::strerror(errno);
      return false;
    }
  }
  return true;
}

std::string ComposeRequestEncode(const ComposeRequest& r) {
  std::string out;
  auto put = [&out](const char* name, const std::string& value) {
    if (!out.empty()) out += '&';
    out += name;
    out += '=';
    out += PercentEncode(value);
  };
  for (const std::string& a : r.to) put("to", a);
  for (const std::string& a : r.cc) put("cc", a);
  for (const std::string& a : r.bcc) put("bcc", a);
  if (!r.subject.empty()) put("subject", r.subject);
  if (!r.in_reply_to.empty()) put("in-reply-to", r.in_reply_to);
  if (!r.body.empty()) put("body", r.body);
  for (const std::string& a : r.attach) put("attach", a);
  return out;
}

bool ComposeRequestDecode(const std::string& text, ComposeRequest* out, std::string* why) {
  if (text.size() > kComposeMaxRequest) {
    *why = "request longer than " + std::to_string(kComposeMaxRequest) + " bytes";
    return false;
  }
  for (unsigned char c : text)
    if (c <= 0x20 || c >= 0x7f) {
      *why = "request holds a character that is not printable ASCII";
      return false;
    }
  return ReadPairs(text, Source::kRequest, out, why);
}

std::string ComposeJoinAddresses(const std::vector<std::string>& list) {
  std::string out;
  for (const std::string& a : list) out += (out.empty() ? "" : ", ") + a;
  return out;
}
