// Header text for display: RFC 2047 encoded words, raw 8-bit bytes and
// RFC 2231 parameters turned into UTF-8. Whatever comes in, what goes out
// is valid UTF-8 without control characters, and the work per header is
// bounded: header text is hostile input.
#include "c-client/rfc822/mime_display.h"

#include <iconv.h>
#include <strings.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

#include "c-client/core/charvalue.h"
#include "c-client/rfc822/rfc822.h"

namespace {

// Encoded words decoded per header; the rest stay as they are.
constexpr int kMaxEncodedWords = 256;
constexpr size_t kMaxCharsetName = 64;
// File names: bytes kept (a file system takes 255), and the longest
// extension kept when a name is cut.
constexpr size_t kMaxFileName = 200;
constexpr size_t kMaxExtension = 16;
constexpr const char* kFallbackFileName = "attachment";
constexpr const char* kReplacement = "\xEF\xBF\xBD";  // U+FFFD

// Windows-1252 0x80..0x9F; 0 for the five codes it leaves unassigned.
constexpr unsigned short kCp1252High[32] = {
    0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0,      0x017D, 0,      0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178};


bool IsUtf8(std::string_view s) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(s.data());
  for (size_t i = 0; i < s.size();) {
    const size_t len = utf8_length(p + i, s.size() - i);
    if (!len) return false;
    i += len;
  }
  return true;
}

void AppendCp1252(std::string& out, std::string_view s) {
  for (unsigned char c : s) {
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0xA0) {
      if (kCp1252High[c - 0x80]) {
        utf8_append(out, kCp1252High[c - 0x80]);
      } else {
        out += kReplacement;
      }
    } else {
      utf8_append(out, c);
    }
  }
}

// Bytes of no known charset: UTF-8 if they are, else the charset that
// mailers without a label have used most.
void AppendUnlabelled(std::string& out, std::string_view s) {
  if (IsUtf8(s)) {
    out.append(s);
  } else {
    AppendCp1252(out, s);
  }
}

std::string Lower(std::string_view s) {
  std::string out(s);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

// A name that iconv may be asked about: no "/" (glibc reads options after
// it), no blanks or controls, not too long.
bool PlausibleCharset(std::string_view name) {
  if (name.empty() || name.size() > kMaxCharsetName) return false;
  for (unsigned char c : name) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '-' || c == '_' || c == '.' || c == ':' || c == '+' || c == '(' || c == ')';
    if (!ok) return false;
  }
  return true;
}

// Converts through iconv; false when the charset is unknown. The output is
// bounded: no charset takes more than four UTF-8 bytes for one input byte.
bool AppendIconv(std::string& out, const std::string& charset, std::string_view s) {
  iconv_t cd = iconv_open("UTF-8", charset.c_str());
  if (cd == reinterpret_cast<iconv_t>(-1)) return false;
  std::string buffer(4 * s.size() + 16, '\0');
  char* in = const_cast<char*>(s.data());
  size_t in_left = s.size();
  char* o = buffer.data();
  size_t o_left = buffer.size();
  bool flush = false;
  for (;;) {
    const size_t r = flush ? iconv(cd, nullptr, nullptr, &o, &o_left) : iconv(cd, &in, &in_left, &o, &o_left);
    if (r != static_cast<size_t>(-1)) {
      if (flush) break;
      flush = true;  // shift states write their last bytes now
      continue;
    }
    if (errno == EILSEQ && in_left && o_left >= 3) {
      std::memcpy(o, kReplacement, 3);
      o += 3;
      o_left -= 3;
      ++in;
      --in_left;
      continue;
    }
    // A sequence cut at the end, or the bound reached.
    if (o_left >= 3) {
      std::memcpy(o, kReplacement, 3);
      o += 3;
    }
    break;
  }
  iconv_close(cd);
  out.append(buffer.data(), static_cast<size_t>(o - buffer.data()));
  return true;
}

void AppendCharset(std::string& out, std::string_view charset_in, std::string_view s) {
  // RFC 2231 lets a language follow the charset in an encoded word.
  std::string_view charset = charset_in.substr(0, charset_in.find('*'));
  const std::string name = Lower(charset);
  if (name.empty() || name == "us-ascii" || name == "ascii" || name == "utf-8" || name == "utf8" ||
      name == "unknown-8bit" || name == "x-unknown") {
    AppendUnlabelled(out, s);
    return;
  }
  // Text labelled Latin-1 is nearly always Windows-1252 in fact; the two
  // agree on every printable Latin-1 character.
  if (name == "iso-8859-1" || name == "iso8859-1" || name == "latin1" || name == "windows-1252" ||
      name == "cp1252") {
    AppendCp1252(out, s);
    return;
  }
  if (!PlausibleCharset(name) || !AppendIconv(out, name, s)) AppendUnlabelled(out, s);
}

// The last word on what leaves this file: valid UTF-8, line folds undone,
// other line breaks, TABs and control characters as blanks.
std::string Clean(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  const unsigned char* p = reinterpret_cast<const unsigned char*>(s.data());
  for (size_t i = 0; i < s.size();) {
    const unsigned char c = p[i];
    if (c == '\r' || c == '\n') {
      size_t j = i + 1;
      if (c == '\r' && j < s.size() && p[j] == '\n') ++j;
      if (!(j < s.size() && (p[j] == ' ' || p[j] == '\t'))) out += ' ';
      i = j;
      continue;
    }
    if (c < 0x20 || c == 0x7F) {
      out += ' ';
      ++i;
      continue;
    }
    const size_t len = utf8_length(p + i, s.size() - i);
    if (!len) {
      out += kReplacement;
      ++i;
      continue;
    }
    out.append(s.substr(i, len));
    i += len;
  }
  return out;
}



bool DecodeB(std::string_view text, std::string& out) {
  unsigned long quantum = 0;
  int position = 0;
  size_t pads = 0;
  for (unsigned char c : text) {
    if (c == '=') {
      ++pads;
      continue;
    }
    const int v = base64_value(c);
    if (v < 0 || pads) return false;  // nothing but padding after padding
    quantum = (quantum << 6) | static_cast<unsigned long>(v);
    if (++position == 4) {
      out += static_cast<char>(quantum >> 16);
      out += static_cast<char>(quantum >> 8);
      out += static_cast<char>(quantum);
      quantum = 0;
      position = 0;
    }
  }
  if (position == 1) return false;
  if (position == 2) out += static_cast<char>(quantum >> 4);
  if (position == 3) {
    out += static_cast<char>(quantum >> 10);
    out += static_cast<char>(quantum >> 2);
  }
  return true;
}

bool DecodeQ(std::string_view text, std::string& out) {
  for (size_t i = 0; i < text.size(); ++i) {
    const unsigned char c = text[i];
    if (c == '_') {
      out += ' ';
    } else if (c == '=') {
      if (i + 2 >= text.size()) return false;
      const int hi = hex_value(text[i + 1]), lo = hex_value(text[i + 2]);
      if (hi < 0 || lo < 0) return false;
      out += static_cast<char>((hi << 4) | lo);
      i += 2;
    } else {
      out += static_cast<char>(c);
    }
  }
  return true;
}

struct EncodedWord {
  std::string_view charset;
  std::string bytes;
  size_t end;  // just past "?="
};

// "=?charset?B|Q?text?=" at s[at]; false if malformed (then it is text).
bool ParseEncodedWord(std::string_view s, size_t at, EncodedWord* word) {
  if (s.compare(at, 2, "=?")) return false;
  const size_t cs = at + 2;
  const size_t q1 = s.find('?', cs);
  if (q1 == std::string_view::npos || q1 == cs || q1 - cs > kMaxCharsetName || q1 + 3 > s.size()) return false;
  const char encoding = s[q1 + 1];
  if (s[q1 + 2] != '?') return false;
  const size_t text = q1 + 3;
  const size_t q2 = s.find('?', text);
  if (q2 == std::string_view::npos || q2 + 1 >= s.size() || s[q2 + 1] != '=') return false;
  const std::string_view body = s.substr(text, q2 - text);
  for (unsigned char c : s.substr(cs, q2 - cs)) {
    if (c <= ' ' || c >= 0x7F) return false;  // words hold no blanks or 8-bit bytes
  }
  word->charset = s.substr(cs, q1 - cs);
  word->bytes.clear();
  word->end = q2 + 2;
  if (encoding == 'B' || encoding == 'b') return DecodeB(body, word->bytes);
  if (encoding == 'Q' || encoding == 'q') return DecodeQ(body, word->bytes);
  return false;
}

bool IsLinearBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

bool AllBlank(std::string_view s) {
  for (char c : s) {
    if (!IsLinearBlank(c)) return false;
  }
  return true;
}

// Decodes encoded words into out (not yet cleaned).
void DecodeHeader(std::string_view s, std::string& out) {
  // Neighbouring words of one charset are converted together: encoders
  // split multi-byte characters across words.
  std::string run_charset, run_bytes;
  bool in_run = false;
  auto end_run = [&] {
    if (in_run) AppendCharset(out, run_charset, run_bytes);
    in_run = false;
    run_bytes.clear();
  };
  size_t text_start = 0;  // text since the last word
  int words = 0;
  EncodedWord word;
  for (size_t i = 0; i < s.size();) {
    if (s[i] != '=' || words >= kMaxEncodedWords || !ParseEncodedWord(s, i, &word)) {
      ++i;
      continue;
    }
    ++words;
    const std::string_view between = s.substr(text_start, i - text_start);
    if (!(in_run && AllBlank(between))) {
      end_run();
      AppendUnlabelled(out, between);
    }
    if (in_run && strcasecmp(run_charset.c_str(), std::string(word.charset).c_str())) end_run();
    if (!in_run) run_charset.assign(word.charset);
    in_run = true;
    run_bytes += word.bytes;
    i = text_start = word.end;
  }
  end_run();
  AppendUnlabelled(out, s.substr(text_start));
}

}  // namespace

void utf8_append(std::string& out, unsigned long cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

size_t utf8_length(const unsigned char* s, size_t n) {
  if (!n) return 0;
  const unsigned char c = s[0];
  if (c < 0x80) return 1;
  size_t len;
  unsigned char lo = 0x80, hi = 0xBF;
  if (c >= 0xC2 && c <= 0xDF) {
    len = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    len = 3;
    if (c == 0xE0) lo = 0xA0;
    if (c == 0xED) hi = 0x9F;
  } else if (c >= 0xF0 && c <= 0xF4) {
    len = 4;
    if (c == 0xF0) lo = 0x90;
    if (c == 0xF4) hi = 0x8F;
  } else {
    return 0;
  }
  if (n < len || s[1] < lo || s[1] > hi) return 0;
  for (size_t i = 2; i < len; ++i) {
    if (s[i] < 0x80 || s[i] > 0xBF) return 0;
  }
  return len;
}

std::string mime_display_text(const char* raw) {
  if (!raw) return {};
  std::string out;
  DecodeHeader(raw, out);
  return Clean(out);
}

std::string mime_display_body(std::string_view bytes, const char* charset) {
  std::string converted;
  converted.reserve(bytes.size());
  AppendCharset(converted, charset ? charset : "", bytes);
  // Lines stay lines: CR LF and a lone CR become LF; TAB is kept; other
  // control characters would only confuse the display and go.
  std::string out;
  out.reserve(converted.size());
  const unsigned char* p = reinterpret_cast<const unsigned char*>(converted.data());
  for (size_t i = 0; i < converted.size();) {
    const unsigned char c = p[i];
    if (c == '\r') {
      out += '\n';
      i += (i + 1 < converted.size() && p[i + 1] == '\n') ? 2 : 1;
      continue;
    }
    if (c == '\n' || c == '\t') {
      out += static_cast<char>(c);
      ++i;
      continue;
    }
    if (c < 0x20 || c == 0x7F) {
      ++i;
      continue;
    }
    const size_t len = utf8_length(p + i, converted.size() - i);
    if (!len) {
      out += kReplacement;
      ++i;
      continue;
    }
    out.append(converted, i, len);
    i += len;
  }
  return out;
}

std::string mime_parameter(const BodyParameter* list, const char* attribute) {
  const Rfc822Parameter p = rfc822_parameter(list, attribute);
  if (!p.found) return {};
  // Plain values are header text; senders put encoded words there too.
  if (!p.extended) return mime_display_text(p.value.c_str());
  std::string out;
  AppendCharset(out, p.charset, p.value);
  return Clean(out);
}

std::string mime_file_name(const BodyPart* part) {
  std::string name = part ? mime_parameter(part->parameter, "NAME") : std::string();
  // Only the last component of a path: a sender's directories mean nothing
  // here, and "../" must not lead out of the save directory.
  const size_t slash = name.find_last_of("/\\");
  if (slash != std::string::npos) name.erase(0, slash + 1);
  std::string safe;
  const unsigned char* p = reinterpret_cast<const unsigned char*>(name.data());
  for (size_t i = 0; i < name.size();) {
    const size_t len = utf8_length(p + i, name.size() - i);  // always > 0: the text is clean
    const bool c1 = len == 2 && p[i] == 0xC2 && p[i + 1] < 0xA0;
    if (!len || p[i] < 0x20 || p[i] == 0x7F || c1) {
      safe += '_';
      i += len ? len : 1;
      continue;
    }
    safe.append(name, i, len);
    i += len;
  }
  // No hidden files, no "." or "..", no blanks at the ends.
  const size_t first = safe.find_first_not_of(". ");
  safe.erase(0, first == std::string::npos ? safe.size() : first);
  while (!safe.empty() && safe.back() == ' ') safe.pop_back();
  if (safe.size() > kMaxFileName) {
    std::string extension;
    const size_t dot = safe.rfind('.');
    if (dot != std::string::npos && safe.size() - dot <= kMaxExtension) extension = safe.substr(dot);
    size_t keep = kMaxFileName - extension.size();
    // Cut at a character boundary.
    while (keep && (static_cast<unsigned char>(safe[keep]) & 0xC0) == 0x80) --keep;
    safe = safe.substr(0, keep) + extension;
  }
  if (safe.empty()) safe = kFallbackFileName;
  return safe;
}
