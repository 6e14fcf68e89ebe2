// The word splitter and the personal word list.
#include "src/spell/spell_words.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>

#include "rclib/safe_file.h"

namespace {

// One code point at s[i]; a byte that does not start a well-formed sequence
// comes back as U+FFFD of length 1 (and so separates words).
char32_t Decode(std::string_view s, size_t i, size_t* len) {
  const auto c = static_cast<unsigned char>(s[i]);
  *len = 1;
  if (c < 0x80) return c;
  int n = c >= 0xF0 && c <= 0xF4 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 && c < 0xE0 ? 2 : 0;
  if (n == 0 || (c >= 0xF5) || i + n > s.size()) return 0xFFFD;
  char32_t cp = c & (0x7F >> n);
  for (int k = 1; k < n; ++k) {
    const auto d = static_cast<unsigned char>(s[i + k]);
    if ((d & 0xC0) != 0x80) return 0xFFFD;
    cp = (cp << 6) | (d & 0x3F);
  }
  // Overlong forms, surrogates and values past the last plane are not text.
  if ((n == 3 && cp < 0x800) || (n == 4 && (cp < 0x10000 || cp > 0x10FFFF)) || (cp >= 0xD800 && cp <= 0xDFFF))
    return 0xFFFD;
  *len = static_cast<size_t>(n);
  return cp;
}

// Letters of any script: everything outside ASCII except the punctuation,
// symbol, emoji and private-use blocks that turn up in mail.
bool IsLetter(char32_t cp) {
  if (cp < 0x80) return (cp >= 'a' && cp <= 'z') || (cp >= 'A' && cp <= 'Z');
  if (cp <= 0xBF || cp == 0xD7 || cp == 0xF7) return false;
  if (cp >= 0x2000 && cp <= 0x2BFF) return false;
  if (cp >= 0x3000 && cp <= 0x303F) return false;
  if (cp >= 0xE000 && cp <= 0xF8FF) return false;
  if (cp >= 0xFE30 && cp <= 0xFE4F) return false;
  if (cp >= 0xFF00 && cp <= 0xFF0F) return false;
  if (cp >= 0xFFF0 && cp <= 0xFFFF) return false;
  if (cp >= 0x1F000 && cp <= 0x1FAFF) return false;
  return true;
}

bool IsLower(char32_t cp) {
  if (cp < 0x80) return cp >= 'a' && cp <= 'z';
  if (cp >= 0xDF && cp <= 0xFF) return cp != 0xF7;
  if (cp >= 0x100 && cp <= 0x17F) return cp & 1;
  if (cp >= 0x250 && cp <= 0x2AF) return true;
  if (cp >= 0x3AC && cp <= 0x3CE) return true;
  if (cp >= 0x430 && cp <= 0x45F) return true;
  if (cp >= 0x460 && cp <= 0x4FF) return cp & 1;
  return false;
}

bool IsUpper(char32_t cp) {
  if (cp < 0x80) return cp >= 'A' && cp <= 'Z';
  if (cp >= 0xC0 && cp <= 0xDE) return cp != 0xD7;
  if (cp >= 0x100 && cp <= 0x17F) return !(cp & 1);
  if (cp >= 0x391 && cp <= 0x3AB) return true;
  if (cp >= 0x400 && cp <= 0x42F) return true;
  if (cp >= 0x460 && cp <= 0x4FF) return !(cp & 1);
  return false;
}

bool IsApostrophe(char32_t cp) { return cp == '\'' || cp == 0x2019; }
bool IsDigitLike(char32_t cp) { return (cp >= '0' && cp <= '9') || cp == '_'; }
bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v'; }

bool StartsWithNoCase(std::string_view s, std::string_view prefix) {
  if (s.size() < prefix.size()) return false;
  for (size_t i = 0; i < prefix.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(s[i])) != prefix[i]) return false;
  return true;
}

// A run between blanks that is a link, an address or a path: no words in it.
bool IsAddressLike(std::string_view chunk) {
  if (chunk.find("://") != std::string_view::npos || chunk.find('@') != std::string_view::npos) return true;
  size_t i = 0;
  while (i < chunk.size() && chunk[i] && std::strchr("<([{\"'", chunk[i])) ++i;
  std::string_view rest = chunk.substr(i);
  return StartsWithNoCase(rest, "www.") || StartsWithNoCase(rest, "mailto:") || (!rest.empty() && rest[0] == '/');
}

// The words of one blank-free run, as (offset, length) within line.
template <typename Out>
void WordsOfChunk(std::string_view line, size_t from, size_t to, const SpellSplitOptions& options, Out out) {
  size_t i = from;
  while (i < to) {
    size_t len = 0;
    char32_t cp = Decode(line, i, &len);
    if (!IsLetter(cp) && !IsDigitLike(cp)) {
      i += len;
      continue;
    }
    const size_t start = i;
    bool digit = false, lower = false, upper = false;
    size_t end = i;
    while (i < to) {
      cp = Decode(line, i, &len);
      if (IsLetter(cp) || IsDigitLike(cp)) {
        digit |= IsDigitLike(cp);
        lower |= IsLower(cp);
        upper |= IsUpper(cp);
        i += len;
        end = i;
        continue;
      }
      // An apostrophe stays only before a letter: "don't", but not the
      // closing quote of 'quoted'.
      if (IsApostrophe(cp) && i + len < to) {
        size_t next_len = 0;
        if (IsLetter(Decode(line, i + len, &next_len))) {
          i += len;
          continue;
        }
      }
      break;
    }
    const size_t length = end - start;
    const bool caps = upper && !lower;
    if (!digit && length <= kSpellMaxWordBytes && !(options.skip_caps && caps)) out(start, length);
    if (i == start) i += len;
  }
}

template <typename Out>
void WordsOfLine(std::string_view line, const SpellSplitOptions& options, Out out) {
  if (options.skip_quoted && !line.empty() && line[0] == '>') return;
  size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && IsBlank(line[i])) ++i;
    const size_t start = i;
    while (i < line.size() && !IsBlank(line[i])) ++i;
    if (i > start && !IsAddressLike(line.substr(start, i - start))) WordsOfChunk(line, start, i, options, out);
  }
}

std::string Errno(const char* what, const std::string& path) {
  return std::string(what) + " " + path + ": " + std::strerror(errno);
}

}  // namespace

std::vector<SpellWord> SpellSplit(std::string_view text, const SpellSplitOptions& options) {
  std::vector<SpellWord> words;
  long line_no = 0;
  size_t pos = 0;
  while (pos <= text.size()) {
    size_t nl = text.find('\n', pos);
    if (nl == std::string_view::npos) nl = text.size();
    WordsOfLine(text.substr(pos, nl - pos), options, [&](size_t at, size_t length) {
      words.push_back({line_no, static_cast<long>(at), static_cast<long>(length)});
    });
    ++line_no;
    pos = nl + 1;
  }
  return words;
}

std::vector<std::string_view> SpellSplitLine(std::string_view line, const SpellSplitOptions& options) {
  std::vector<std::string_view> words;
  WordsOfLine(line, options, [&](size_t at, size_t length) { words.push_back(line.substr(at, length)); });
  return words;
}

bool SpellIsListWord(std::string_view w, std::string* why) {
  if (w.empty() || w.size() > kSpellMaxWordBytes) {
    *why = "a word is 1 to " + std::to_string(kSpellMaxWordBytes) + " bytes long";
    return false;
  }
  for (size_t i = 0; i < w.size();) {
    size_t len = 0;
    const char32_t cp = Decode(w, i, &len);
    if (cp == 0xFFFD && len == 1) {
      *why = "the text is not UTF-8";
      return false;
    }
    if (cp < 0x20 || cp == 0x7F || cp == ' ') {
      *why = "a word holds no blanks or control characters";
      return false;
    }
    i += len;
  }
  return true;
}

bool SpellParseWords(std::string_view data, std::vector<std::string>* words, std::string* error) {
  words->clear();
  if (data.size() > kSpellListMaxBytes) {
    *error = "the list is " + std::to_string(data.size()) + " bytes, more than the " +
             std::to_string(kSpellListMaxBytes) + " the program reads";
    return false;
  }
  size_t pos = 0;
  long line_no = 0;
  while (pos < data.size()) {
    size_t nl = data.find('\n', pos);
    if (nl == std::string_view::npos) nl = data.size();
    std::string_view line = data.substr(pos, nl - pos);
    pos = nl + 1;
    ++line_no;
    while (!line.empty() && IsBlank(line.back())) line.remove_suffix(1);
    while (!line.empty() && IsBlank(line.front())) line.remove_prefix(1);
    if (line.empty()) continue;
    std::string why;
    if (!SpellIsListWord(line, &why)) {
      *error = "line " + std::to_string(line_no) + ": " + why;
      words->clear();
      return false;
    }
    if (words->size() >= kSpellListMaxWords) {
      *error = "more than " + std::to_string(kSpellListMaxWords) + " words";
      words->clear();
      return false;
    }
    words->emplace_back(line);
  }
  return true;
}

std::string SpellFormatWords(const std::vector<std::string>& words) {
  std::string out;
  for (const std::string& w : words) out += w + "\n";
  return out;
}

bool SpellLoadWords(const std::string& path, std::vector<std::string>* words, std::string* error) {
  words->clear();
  struct stat st{};
  int fd = safe_open_read(path.c_str(), nullptr, &st);
  if (fd < 0) {
    if (errno == ENOENT) return true;
    *error = Errno("Cannot read", path);
    return false;
  }
  std::string data;
  bool ok = true;
  if (static_cast<size_t>(st.st_size) > kSpellListMaxBytes) {
    *error = "the list is " + std::to_string(st.st_size) + " bytes, more than the " +
             std::to_string(kSpellListMaxBytes) + " the program reads";
    ok = false;
  } else {
    char buf[65536];
    for (;;) {
      ssize_t n = ::read(fd, buf, sizeof buf);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        *error = Errno("Cannot read", path);
        ok = false;
        break;
      }
      if (n == 0) break;
      data.append(buf, static_cast<size_t>(n));
      if (data.size() > kSpellListMaxBytes) break;  // grew while we read
    }
    if (ok) ok = SpellParseWords(data, words, error);
  }
  ::close(fd);
  if (!ok && error->rfind("Cannot", 0) != 0) *error = path + ": " + *error;
  return ok;
}

bool SpellSaveWords(const std::string& path, const std::vector<std::string>& words, std::string* error) {
  SafeFileError err;
  if (safe_replace_file(path, SpellFormatWords(words), 0600, &err)) return true;
  *error = "Cannot write " + path + " (" + err.text() + ")";
  return false;
}
