// Base64 in lines of any length, as senders write it, so that a word is cut
// where an encoded line breaks.
#pragma once

#include <string>

#include "src/base/base64.h"

inline std::string Base64(const std::string& in, size_t line) {
  std::string flat = Base64Encode(in, false), out;
  std::erase(flat, '\r');
  std::erase(flat, '\n');
  for (size_t i = 0; i < flat.size(); i += line) out += flat.substr(i, line) + "\r\n";
  return out;
}
