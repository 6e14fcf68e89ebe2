#include "c-client/imap/mutf7.h"

#include <cstdint>
#include <vector>

namespace {

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+,";

int Value(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == ',') return 63;
  return -1;
}

// Code points of a UTF-8 text; invalid bytes stand for themselves.
std::vector<uint32_t> Decode(const std::string& s) {
  std::vector<uint32_t> out;
  for (size_t i = 0; i < s.size();) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    int extra = c >= 0xf0 && c < 0xf5 ? 3 : c >= 0xe0 ? 2 : c >= 0xc2 && c < 0xe0 ? 1 : 0;
    if (c >= 0x80 && extra == 0) extra = -1;
    uint32_t cp = extra == 3 ? c & 7u : extra == 2 ? c & 15u : extra == 1 ? c & 31u : c;
    bool ok = extra >= 0 && i + static_cast<size_t>(extra) < s.size() + (extra ? 0 : 1);
    for (int k = 1; ok && k <= extra; ++k) {
      unsigned char d = static_cast<unsigned char>(s[i + k]);
      if ((d & 0xc0) != 0x80) ok = false;
      cp = (cp << 6) | (d & 0x3fu);
    }
    if (ok && extra > 0 && (cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff) || (extra == 2 && cp < 0x800) ||
                            (extra == 3 && cp < 0x10000)))
      ok = false;
    if (!ok) {
      out.push_back(c);
      ++i;
    } else {
      out.push_back(cp);
      i += static_cast<size_t>(extra) + 1;
    }
  }
  return out;
}

void PutUtf8(uint32_t cp, std::string* out) {
  if (cp < 0x80) {
    *out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    *out += static_cast<char>(0xc0 | (cp >> 6));
    *out += static_cast<char>(0x80 | (cp & 0x3f));
  } else if (cp < 0x10000) {
    *out += static_cast<char>(0xe0 | (cp >> 12));
    *out += static_cast<char>(0x80 | ((cp >> 6) & 0x3f));
    *out += static_cast<char>(0x80 | (cp & 0x3f));
  } else {
    *out += static_cast<char>(0xf0 | (cp >> 18));
    *out += static_cast<char>(0x80 | ((cp >> 12) & 0x3f));
    *out += static_cast<char>(0x80 | ((cp >> 6) & 0x3f));
    *out += static_cast<char>(0x80 | (cp & 0x3f));
  }
}

}  // namespace

std::string imap_utf8_to_mutf7(const std::string& utf8) {
  std::string out;
  std::vector<uint16_t> run;
  auto flush = [&] {
    if (run.empty()) return;
    out += '&';
    uint32_t bits = 0;
    int have = 0;
    for (uint16_t u : run) {
      bits = (bits << 16) | u;
      have += 16;
      while (have >= 6) {
        have -= 6;
        out += kAlphabet[(bits >> have) & 63];
      }
    }
    if (have) out += kAlphabet[(bits << (6 - have)) & 63];
    out += '-';
    run.clear();
  };
  for (uint32_t cp : Decode(utf8)) {
    if (cp >= 0x20 && cp < 0x7f) {
      flush();
      out += cp == '&' ? std::string("&-") : std::string(1, static_cast<char>(cp));
    } else if (cp >= 0x10000) {
      cp -= 0x10000;
      run.push_back(static_cast<uint16_t>(0xd800 + (cp >> 10)));
      run.push_back(static_cast<uint16_t>(0xdc00 + (cp & 0x3ff)));
    } else {
      run.push_back(static_cast<uint16_t>(cp));
    }
  }
  flush();
  return out;
}

bool imap_mutf7_to_utf8(const std::string& mutf7, std::string* out) {
  std::string result;
  for (size_t i = 0; i < mutf7.size(); ++i) {
    char c = mutf7[i];
    if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x7f) return false;
    if (c != '&') {
      result += c;
      continue;
    }
    size_t end = mutf7.find('-', i + 1);
    if (end == std::string::npos) return false;
    if (end == i + 1) {
      result += '&';
      i = end;
      continue;
    }
    uint32_t bits = 0;
    int have = 0;
    uint32_t high = 0;
    for (size_t k = i + 1; k < end; ++k) {
      int v = Value(mutf7[k]);
      if (v < 0) return false;
      bits = (bits << 6) | static_cast<uint32_t>(v);
      have += 6;
      if (have >= 16) {
        have -= 16;
        uint32_t u = (bits >> have) & 0xffff;
        if (u >= 0xd800 && u < 0xdc00) {
          if (high) return false;
          high = u;
        } else if (u >= 0xdc00 && u < 0xe000) {
          if (!high) return false;
          PutUtf8(0x10000 + ((high - 0xd800) << 10) + (u - 0xdc00), &result);
          high = 0;
        } else {
          if (high || (u >= 0x20 && u < 0x7f)) return false;  // ASCII must not be encoded
          PutUtf8(u, &result);
        }
      }
    }
    // Leftover bits must be zero padding shorter than a character.
    if (high || have >= 6 || (bits & ((1u << have) - 1))) return false;
    i = end;
  }
  *out = result;
  return true;
}
