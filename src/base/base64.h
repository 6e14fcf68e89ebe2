// Base64 as mail bodies use it (the RFC 2045 alphabet).
#pragma once

#include <cstddef>
#include <string>

// Decodes len bytes of text into *out. CR, LF and other white space are
// ignored; "=" may only pad the last group. Any other byte outside the
// alphabet, padding in the middle or a dangling single character is an
// error: false, and *out is left empty.
bool Base64Decode(const char* text, size_t len, std::string* out);

// Encodes bytes in lines of 76 characters separated by CR LF. With
// crlf_at_end the last line ends with CR LF too (empty input gives "").
std::string Base64Encode(const std::string& bytes, bool crlf_at_end);
