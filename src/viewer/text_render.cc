// Plain text for the viewer's panes. HTML from mail is hostile input: the
// renderer walks it once, looks at most a bounded distance ahead for the
// end of a tag, an entity or a comment, and never builds a tree.
#include "src/viewer/text_render.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <initializer_list>

#include "c-client/rfc822/mime_display.h"

namespace {

constexpr size_t kMaxEntityName = 32;
constexpr size_t kMaxTagName = 32;
// A "<" with no ">" within this many bytes is text, not a tag.
constexpr size_t kMaxTagLength = 16384;
constexpr size_t kMaxHref = 2048;
constexpr const char* kReplacement = "\xEF\xBF\xBD";
constexpr size_t kHeaderLimit = 1040;
constexpr size_t kHeaderCut = 1000;

struct Entity {
  const char* name;
  unsigned long cp;
};

// The entities mail writers use; anything else stays as written.
constexpr Entity kEntities[] = {
    {"amp", '&'},       {"lt", '<'},        {"gt", '>'},        {"quot", '"'},      {"apos", '\''},
    {"nbsp", 0xA0},     {"copy", 0xA9},     {"reg", 0xAE},      {"trade", 0x2122},  {"hellip", 0x2026},
    {"mdash", 0x2014},  {"ndash", 0x2013},  {"lsquo", 0x2018},  {"rsquo", 0x2019},  {"ldquo", 0x201C},
    {"rdquo", 0x201D},  {"laquo", 0xAB},    {"raquo", 0xBB},    {"bull", 0x2022},   {"middot", 0xB7},
    {"euro", 0x20AC},   {"pound", 0xA3},    {"yen", 0xA5},      {"cent", 0xA2},     {"deg", 0xB0},
    {"times", 0xD7},    {"divide", 0xF7},   {"sect", 0xA7},     {"para", 0xB6},     {"shy", 0},
    {"zwnj", 0},        {"zwj", 0},         {"auml", 0xE4},     {"ouml", 0xF6},     {"uuml", 0xFC},
    {"Auml", 0xC4},     {"Ouml", 0xD6},     {"Uuml", 0xDC},     {"szlig", 0xDF},    {"eacute", 0xE9},
    {"egrave", 0xE8},   {"ecirc", 0xEA},    {"Eacute", 0xC9},   {"aacute", 0xE1},   {"agrave", 0xE0},
    {"acirc", 0xE2},    {"ccedil", 0xE7},   {"iacute", 0xED},   {"oacute", 0xF3},   {"uacute", 0xFA},
    {"ntilde", 0xF1},   {"aring", 0xE5},    {"oslash", 0xF8},   {"aelig", 0xE6},    {"iexcl", 0xA1},
    {"iquest", 0xBF},
};

void AppendCodePoint(std::string& out, unsigned long cp) {
  if (cp == 0 || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF) || (cp < 0x20 && cp != '\t' && cp != '\n') ||
      (cp >= 0x7F && cp < 0xA0)) {
    out += kReplacement;
    return;
  }
  if (cp == 0xA0) cp = ' ';  // a non-breaking blank reads as a blank in plain text
  utf8_append(out, cp);
}

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f'; }

// The text being built, with blanks collapsed as a browser would and at
// most one empty line in a row.
class Writer {
 public:
  std::string out;
  bool pre = false;

  void Text(std::string_view s) {
    for (char c : s) {
      if (!pre && IsBlank(c)) {
        pending_blank_ = true;
        continue;
      }
      if (pre && c == '\r') continue;
      if (pre && c == '\n') {
        Break(1);
        continue;
      }
      Char(c);
    }
  }
  void Char(char c) {
    if (pending_blank_ && !out.empty() && out.back() != '\n' && out.back() != ' ') out += ' ';
    pending_blank_ = false;
    out += c;
    newlines_ = 0;
  }
  void Raw(std::string_view s) {
    for (char c : s) Char(c);
  }
  // A <br>: each one ends a line, up to one empty line in a row.
  void LineBreak() {
    pending_blank_ = false;
    while (!out.empty() && out.back() == ' ') out.pop_back();
    if (out.empty() || newlines_ >= 2) return;
    out += '\n';
    ++newlines_;
  }
  // Ends the line; lines 2 also leaves an empty line (a paragraph).
  void Break(int lines) {
    pending_blank_ = false;
    while (!out.empty() && out.back() == ' ') out.pop_back();
    if (out.empty()) return;
    while (newlines_ < lines) {
      out += '\n';
      ++newlines_;
    }
  }

 private:
  bool pending_blank_ = false;
  int newlines_ = 0;
};

// "&name;" or "&#123;" at s[at]: appends the character and returns the
// bytes used, or 0 when it is not an entity.
size_t Entity(std::string_view s, size_t at, Writer& w) {
  size_t i = at + 1;
  if (i < s.size() && s[i] == '#') {
    ++i;
    const bool hex = i < s.size() && (s[i] == 'x' || s[i] == 'X');
    if (hex) ++i;
    unsigned long cp = 0;
    size_t digits = 0;
    for (; i < s.size() && digits < 8; ++i, ++digits) {
      const char c = s[i];
      int v;
      if (c >= '0' && c <= '9')
        v = c - '0';
      else if (hex && c >= 'a' && c <= 'f')
        v = c - 'a' + 10;
      else if (hex && c >= 'A' && c <= 'F')
        v = c - 'A' + 10;
      else
        break;
      cp = cp * (hex ? 16 : 10) + static_cast<unsigned long>(v);
    }
    if (!digits) return 0;
    if (i < s.size() && s[i] == ';') ++i;
    std::string ch;
    // Numbers in the C1 range mean Windows-1252 in practice; the common ones.
    if (cp == 0x92) cp = 0x2019;
    if (cp == 0x93) cp = 0x201C;
    if (cp == 0x94) cp = 0x201D;
    if (cp == 0x96) cp = 0x2013;
    if (cp == 0x97) cp = 0x2014;
    AppendCodePoint(ch, cp);
    w.Raw(ch);
    return i - at;
  }
  size_t end = i;
  while (end < s.size() && end - i <= kMaxEntityName &&
         ((s[end] >= 'a' && s[end] <= 'z') || (s[end] >= 'A' && s[end] <= 'Z') || (s[end] >= '0' && s[end] <= '9')))
    ++end;
  if (end == i || end - i > kMaxEntityName) return 0;
  const std::string_view name = s.substr(i, end - i);
  for (const auto& e : kEntities) {
    if (name != e.name) continue;
    if (end < s.size() && s[end] == ';') ++end;
    if (e.cp == 0) return end - at;  // soft hyphens and joiners show nothing
    if (e.cp == 0xA0) {
      w.Char(' ');
    } else {
      std::string ch;
      AppendCodePoint(ch, e.cp);
      w.Raw(ch);
    }
    return end - at;
  }
  return 0;
}

std::string Lower(std::string_view s) {
  std::string out(s);
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return out;
}

// An attribute's value inside a tag's text ("a href=x"), empty if absent.
std::string Attribute(std::string_view tag, const char* name) {
  const std::string lower = Lower(tag);
  const size_t n = std::strlen(name);
  for (size_t at = lower.find(name); at != std::string::npos; at = lower.find(name, at + 1)) {
    if (at == 0 || !IsBlank(lower[at - 1])) continue;
    size_t i = at + n;
    while (i < tag.size() && IsBlank(tag[i])) ++i;
    if (i >= tag.size() || tag[i] != '=') continue;
    ++i;
    while (i < tag.size() && IsBlank(tag[i])) ++i;
    if (i >= tag.size()) return {};
    size_t end;
    if (tag[i] == '"' || tag[i] == '\'') {
      const char q = tag[i++];
      end = tag.find(q, i);
      if (end == std::string::npos) end = tag.size();
    } else {
      end = i;
      while (end < tag.size() && !IsBlank(tag[end]) && tag[end] != '>') ++end;
    }
    return std::string(tag.substr(i, std::min(end - i, kMaxHref)));
  }
  return {};
}

bool OneOf(const std::string& name, std::initializer_list<const char*> names) {
  for (const char* n : names)
    if (name == n) return true;
  return false;
}

// Elements whose content is not text to read.
bool Hidden(const std::string& name) { return OneOf(name, {"script", "style", "head", "title", "template"}); }

// Text safe to show in a link's trailer: printable, no controls.
std::string CleanHref(const std::string& href) {
  std::string out;
  for (char c : href)
    if (static_cast<unsigned char>(c) >= 0x20 && c != 0x7F) out += c;
  return out;
}

}  // namespace

size_t Utf8CutPoint(std::string_view text, size_t max) {
  if (text.size() <= max) return text.size();
  size_t keep = max;
  while (keep && (static_cast<unsigned char>(text[keep]) & 0xC0) == 0x80) --keep;
  return keep;
}

std::string Utf8Cut(std::string_view text, size_t max) { return std::string(text.substr(0, Utf8CutPoint(text, max))); }

std::string HtmlToText(std::string_view input) {
  const bool too_big = input.size() > kHtmlMaxInput;
  const std::string_view html = input.substr(0, Utf8CutPoint(input, kHtmlMaxInput));
  Writer w;
  std::string hidden;  // the element whose content is being skipped
  std::string href;    // the open link's address
  size_t link_start = 0;
  int list_depth = 0;
  size_t next_gt = 0;
  for (size_t i = 0; i < html.size();) {
    const char c = html[i];
    if (c == '<') {
      if (html.compare(i, 4, "<!--") == 0) {
        const size_t end = html.find("-->", i + 4);
        i = end == std::string_view::npos ? html.size() : end + 3;
        continue;
      }
      // The next ">" is looked for once per ">", not once per "<": a text
      // of many "<" and no ">" stays linear.
      if (next_gt != std::string_view::npos && next_gt <= i) next_gt = html.find('>', i + 1);
      const size_t limit = std::min(html.size(), i + kMaxTagLength);
      const size_t end = next_gt == std::string_view::npos ? html.size() : next_gt;
      const bool tag_like = end < limit && i + 1 < html.size() &&
                            (std::isalpha(static_cast<unsigned char>(html[i + 1])) || html[i + 1] == '/' ||
                             html[i + 1] == '!' || html[i + 1] == '?');
      if (!tag_like) {
        if (hidden.empty()) w.Char('<');
        ++i;
        continue;
      }
      const std::string_view tag = html.substr(i + 1, end - i - 1);
      i = end + 1;
      const bool closing = !tag.empty() && tag[0] == '/';
      size_t n = closing ? 1 : 0;
      size_t name_end = n;
      while (name_end < tag.size() && name_end - n < kMaxTagName && std::isalnum(static_cast<unsigned char>(tag[name_end])))
        ++name_end;
      const std::string name = Lower(tag.substr(n, name_end - n));
      if (!hidden.empty()) {
        if (closing && name == hidden) hidden.clear();
        continue;
      }
      if (!closing && Hidden(name) && (tag.empty() || tag.back() != '/')) {
        hidden = name;
        continue;
      }
      if (name == "br") {
        w.LineBreak();
        continue;
      }
      if (OneOf(name, {"p", "h1", "h2", "h3", "h4", "h5", "h6", "blockquote", "table", "ul", "ol", "dl", "pre"})) {
        w.Break(2);
        if (name == "pre") w.pre = !closing;
        if (name == "ul" || name == "ol") list_depth += closing ? (list_depth > 0 ? -1 : 0) : (list_depth < 8 ? 1 : 0);
        continue;
      }
      if (name == "li" && !closing) {
        w.Break(1);
        w.Raw(std::string(static_cast<size_t>(2 * (list_depth > 0 ? list_depth - 1 : 0)), ' '));
        w.Raw("* ");
        continue;
      }
      if (OneOf(name, {"div", "tr", "li", "dt", "dd", "section", "article", "header", "footer", "address", "center",
                       "form", "fieldset"})) {
        w.Break(1);
        continue;
      }
      if (name == "hr") {
        if (closing) continue;  // a rule has no end tag; a stray one draws nothing
        w.Break(1);
        w.Raw("----------------------------------------");
        w.Break(1);
        continue;
      }
      if (OneOf(name, {"td", "th"}) && !closing) {
        if (!w.out.empty() && w.out.back() != '\n') w.Raw("  ");
        continue;
      }
      if (name == "img" && !closing) {
        const std::string alt = Attribute(tag, "alt");
        if (!alt.empty()) w.Text("[" + alt + "]");
        continue;
      }
      if (name == "a") {
        if (!closing) {
          href = CleanHref(Attribute(tag, "href"));
          link_start = w.out.size();
        } else if (!href.empty()) {
          // The address after the text, unless the text already says it.
          const std::string text = w.out.substr(std::min(link_start, w.out.size()));
          const bool web = strncasecmp(href.c_str(), "http", 4) == 0 || strncasecmp(href.c_str(), "mailto:", 7) == 0;
          std::string shown = href;
          if (strncasecmp(shown.c_str(), "mailto:", 7) == 0) shown.erase(0, 7);
          if (web && text.find(shown) == std::string::npos) w.Text(" <" + shown + ">");
          href.clear();
        }
        continue;
      }
      continue;  // any other tag shows nothing
    }
    if (!hidden.empty()) {
      ++i;
      continue;
    }
    if (c == '&') {
      const size_t used = Entity(html, i, w);
      if (used) {
        i += used;
        continue;
      }
      w.Char('&');
      ++i;
      continue;
    }
    // Text: valid UTF-8 passes, anything else becomes U+FFFD; control
    // characters other than blanks are dropped.
    const auto* p = reinterpret_cast<const unsigned char*>(html.data());
    const size_t len = utf8_length(p + i, html.size() - i);
    if (!len) {
      w.Raw(kReplacement);
      ++i;
      continue;
    }
    if (len == 1) {
      if (IsBlank(c)) {
        w.Text(std::string_view(&html[i], 1));
      } else if (static_cast<unsigned char>(c) >= 0x20 && c != 0x7F) {
        w.Char(c);
      }
      ++i;
      continue;
    }
    w.Raw(html.substr(i, len));
    i += len;
  }
  std::string out = std::move(w.out);
  while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
  if (too_big) out += "\n\n[The rest of this HTML text is not shown; open the original to read it.]";
  if (!out.empty()) out += '\n';
  return out;
}

std::string HeaderLine(std::string_view name, std::string_view content) {
  std::string line(name);
  line += ": ";
  while (line.size() < static_cast<size_t>(kHeaderColumn)) line += ' ';
  if (content.size() > kHeaderLimit) {
    line += Utf8Cut(content, kHeaderCut);
    line += " (content truncated) ...";
  } else {
    line += content;
  }
  return line;
}
