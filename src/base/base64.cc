#include "src/base/base64.h"

#include "c-client/core/charvalue.h"

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr size_t kLineLength = 76;

// The value of an alphabet character, or -1.

bool IsSpace(unsigned char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f'; }

}  // namespace

bool Base64Decode(const char* text, size_t len, std::string* out) {
  if (!out) return false;
  out->clear();
  if (!text) return len == 0;
  std::string result;
  result.reserve(len / 4 * 3 + 3);
  unsigned long group = 0;  // the sextets of the current group
  int count = 0;            // sextets in group
  int padding = 0;          // "=" seen so far
  for (size_t i = 0; i < len; ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (IsSpace(c)) continue;
    if (c == '=') {
      // Padding completes a group of two or three characters, nothing else.
      if (count < 2 || count + padding >= 4) return false;
      ++padding;
      continue;
    }
    int value = base64_value(c);
    if (value < 0 || padding > 0) return false;
    group = (group << 6) | static_cast<unsigned long>(value);
    if (++count == 4) {
      result.push_back(static_cast<char>((group >> 16) & 0xff));
      result.push_back(static_cast<char>((group >> 8) & 0xff));
      result.push_back(static_cast<char>(group & 0xff));
      group = 0;
      count = 0;
    }
  }
  // A short last group: padding, if any, must fill it exactly; a group of
  // one character carries less than a byte.
  if (count == 1) return false;
  if (padding > 0 && count + padding != 4) return false;
  if (count == 2) {
    result.push_back(static_cast<char>((group >> 4) & 0xff));
  } else if (count == 3) {
    result.push_back(static_cast<char>((group >> 10) & 0xff));
    result.push_back(static_cast<char>((group >> 2) & 0xff));
  }
  *out = std::move(result);
  return true;
}

std::string Base64Encode(const std::string& bytes, bool crlf_at_end) {
  std::string out;
  size_t chars = (bytes.size() + 2) / 3 * 4;
  out.reserve(chars + chars / kLineLength * 2 + 2);
  size_t column = 0;
  auto put = [&](char c) {
    if (column == kLineLength) {
      out += "\r\n";
      column = 0;
    }
    out.push_back(c);
    ++column;
  };
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    unsigned long group = (static_cast<unsigned char>(bytes[i]) << 16) |
                          (static_cast<unsigned char>(bytes[i + 1]) << 8) | static_cast<unsigned char>(bytes[i + 2]);
    put(kAlphabet[(group >> 18) & 63]);
    put(kAlphabet[(group >> 12) & 63]);
    put(kAlphabet[(group >> 6) & 63]);
    put(kAlphabet[group & 63]);
  }
  size_t rest = bytes.size() - i;
  if (rest > 0) {
    unsigned long group = static_cast<unsigned long>(static_cast<unsigned char>(bytes[i])) << 16;
    if (rest == 2) group |= static_cast<unsigned long>(static_cast<unsigned char>(bytes[i + 1])) << 8;
    put(kAlphabet[(group >> 18) & 63]);
    put(kAlphabet[(group >> 12) & 63]);
    put(rest == 2 ? kAlphabet[(group >> 6) & 63] : '=');
    put('=');
  }
  if (crlf_at_end && !out.empty()) out += "\r\n";
  return out;
}
