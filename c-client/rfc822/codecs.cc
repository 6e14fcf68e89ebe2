// Content transfer codecs in memory: base64 and quoted-printable, both ways.
//
// The decoders here and the streaming ones (decode_stream.cc) must give the
// same bytes for every input this side accepts, so the two follow one set of
// rules, spelled out at each function.
#include <cstring>

#include "c-client/core/charvalue.h"
#include "c-client/core/env.h"
#include "c-client/rfc822/rfc822_write.h"

namespace {

constexpr char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr unsigned long kBase64LineChars = 60;  // 15 quanta a line
constexpr unsigned long kQPLineChars = 75;      // plus the "=" of a soft break: 76
// A run of blanks longer than this is no encoder's padding (encoded lines
// are at most 76 characters): it is kept even before a line end. The
// streaming decoder can hold no more than this while it waits.
constexpr unsigned long kQPMaxDroppedBlanks = sizeof(DecodeState::pending);



bool IsBlank(unsigned char c) { return c == ' ' || c == '\t'; }

}  // namespace

unsigned char* rfc822_binary(const void* source, unsigned long size, unsigned long* length) {
  const unsigned char* s = static_cast<const unsigned char*>(source);
  const unsigned long chars = (size + 2) / 3 * 4;
  // Every line ends in CRLF, the last one too; even no data gets its CRLF,
  // so that a caller joining blocks always finds a line end.
  const unsigned long lines = chars ? (chars + kBase64LineChars - 1) / kBase64LineChars : 1;
  const unsigned long total = chars + 2 * lines;
  unsigned char* ret = static_cast<unsigned char*>(FS_GET(total + 1));
  unsigned char* d = ret;
  unsigned long column = 0;
  for (unsigned long i = 0; i < size; i += 3) {
    const unsigned long left = size - i;
    const unsigned int b0 = s[i];
    const unsigned int b1 = left > 1 ? s[i + 1] : 0;
    const unsigned int b2 = left > 2 ? s[i + 2] : 0;
    *d++ = kBase64Alphabet[b0 >> 2];
    *d++ = kBase64Alphabet[((b0 << 4) | (b1 >> 4)) & 0x3f];
    *d++ = left > 1 ? kBase64Alphabet[((b1 << 2) | (b2 >> 6)) & 0x3f] : '=';
    *d++ = left > 2 ? kBase64Alphabet[b2 & 0x3f] : '=';
    if ((column += 4) == kBase64LineChars) {
      *d++ = '\r';
      *d++ = '\n';
      column = 0;
    }
  }
  if (column || !size) {
    *d++ = '\r';
    *d++ = '\n';
  }
  *d = '\0';
  if (static_cast<unsigned long>(d - ret) != total) fatal("rfc822_binary logic flaw");
  if (length) *length = total;
  return ret;
}

// Rules shared with Base64DecodeChar: characters outside the alphabet are
// skipped; "=" in quantum position 0 or 1 is corrupt; "=" in position 2
// ends the quantum with one byte and wants a second "=" as the next
// character of the alphabet or "=" (or the end); "=" in position 3 ends it
// with two bytes; data may go on after a padded quantum. A partial quantum
// at the end gives what it holds (a lone sixth of a byte gives nothing).
unsigned char* rfc822_base64(const unsigned char* source, unsigned long size, unsigned long* length) {
  unsigned char* ret = static_cast<unsigned char*>(FS_GET(size + 1));
  unsigned char* d = ret;
  unsigned long quantum = 0;
  int position = 0;
  for (unsigned long i = 0; i < size; ++i) {
    const unsigned char c = source[i];
    const int v = base64_value(c);
    if (v >= 0) {
      quantum = (quantum << 6) | static_cast<unsigned long>(v);
      if (++position == 4) {
        *d++ = static_cast<unsigned char>(quantum >> 16);
        *d++ = static_cast<unsigned char>(quantum >> 8);
        *d++ = static_cast<unsigned char>(quantum);
        quantum = 0;
        position = 0;
      }
      continue;
    }
    if (c != '=') continue;
    if (position < 2) {
      FS_GIVE(&ret);
      return nullptr;
    }
    if (position == 2) {
      *d++ = static_cast<unsigned char>(quantum >> 4);
      unsigned long j = i + 1;
      while (j < size && source[j] != '=' && base64_value(source[j]) < 0) ++j;
      if (j < size && source[j] != '=') {
        FS_GIVE(&ret);
        return nullptr;
      }
      if (j < size) i = j;
    } else {
      *d++ = static_cast<unsigned char>(quantum >> 10);
      *d++ = static_cast<unsigned char>(quantum >> 2);
    }
    quantum = 0;
    position = 0;
  }
  if (position == 2) {
    *d++ = static_cast<unsigned char>(quantum >> 4);
  } else if (position == 3) {
    *d++ = static_cast<unsigned char>(quantum >> 10);
    *d++ = static_cast<unsigned char>(quantum >> 2);
  }
  *d = '\0';
  if (length) *length = static_cast<unsigned long>(d - ret);
  return ret;
}

// Encodes so that decoding gives back every byte: control characters (TAB,
// and a CR or LF that is not part of a CRLF), "=", DEL, the top half, and a
// blank that a decoder would take for line-end padding (before CR, or last
// in the data). A CRLF stays a line end; a line longer than 75 characters
// gets a soft break.
unsigned char* rfc822_8bit(const unsigned char* source, unsigned long size, unsigned long* length) {
  static const char kHex[] = "0123456789ABCDEF";
  // Each byte gives at most 3 characters; a soft break (3 more) comes only
  // after at least 73 characters of a line.
  const unsigned long bound = 3 * size + 3 * (3 * size / 73 + 1) + 1;
  unsigned char* ret = static_cast<unsigned char*>(FS_GET(bound));
  unsigned char* d = ret;
  unsigned long column = 0;
  for (unsigned long i = 0; i < size; ++i) {
    const unsigned char c = source[i];
    if (c == '\r' && i + 1 < size && source[i + 1] == '\n') {
      *d++ = '\r';
      *d++ = '\n';
      ++i;
      column = 0;
      continue;
    }
    const bool quote = c < 0x20 || c == '=' || c >= 0x7f ||
                       (c == ' ' && (i + 1 == size || source[i + 1] == '\r'));
    const unsigned long width = quote ? 3 : 1;
    if (column + width > kQPLineChars) {
      *d++ = '=';
      *d++ = '\r';
      *d++ = '\n';
      column = 0;
    }
    if (quote) {
      *d++ = '=';
      *d++ = kHex[c >> 4];
      *d++ = kHex[c & 0x0f];
    } else {
      *d++ = c;
    }
    column += width;
  }
  *d = '\0';
  if (static_cast<unsigned long>(d - ret) >= bound) fatal("rfc822_8bit logic flaw");
  if (length) *length = static_cast<unsigned long>(d - ret);
  return ret;
}

// Rules shared with QPDecodeChar: "=" with two hex digits (either case) is
// a byte; "=" with CRLF, a lone LF or a lone CR is a soft break; any other
// "=" is an error. Blanks before a line end or the end of the data are
// dropped (runs of up to kQPMaxDroppedBlanks). Everything else is copied.
unsigned char* rfc822_qprint(const unsigned char* source, unsigned long size, unsigned long* length) {
  unsigned char* ret = static_cast<unsigned char*>(FS_GET(size + 1));
  unsigned char* d = ret;
  unsigned long i = 0;
  while (i < size) {
    const unsigned char c = source[i];
    if (c == '=') {
      if (i + 1 < size && (source[i + 1] == '\r' || source[i + 1] == '\n')) {
        i += (source[i + 1] == '\r' && i + 2 < size && source[i + 2] == '\n') ? 3 : 2;
        continue;
      }
      const int hi = i + 1 < size ? hex_value(source[i + 1]) : -1;
      const int lo = i + 2 < size ? hex_value(source[i + 2]) : -1;
      if (hi < 0 || lo < 0) {
        FS_GIVE(&ret);
        return nullptr;
      }
      *d++ = static_cast<unsigned char>((hi << 4) | lo);
      i += 3;
      continue;
    }
    if (IsBlank(c)) {
      unsigned long j = i;
      while (j < size && IsBlank(source[j])) ++j;
      const bool at_line_end = j == size || source[j] == '\r' || source[j] == '\n';
      if (!at_line_end || j - i > kQPMaxDroppedBlanks) {
        std::memcpy(d, source + i, j - i);
        d += j - i;
      }
      i = j;
      continue;
    }
    *d++ = c;
    ++i;
  }
  *d = '\0';
  if (length) *length = static_cast<unsigned long>(d - ret);
  return ret;
}
