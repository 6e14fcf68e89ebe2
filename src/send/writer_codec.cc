#include "src/send/writer_codec.h"

#include "c-client/core/mail.h"

namespace {

constexpr char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr size_t kBase64Line = 76;
constexpr size_t kQPLine = 75;  // plus the "=" of a soft break
constexpr char kHex[] = "0123456789ABCDEF";

}  // namespace

void Canonicalizer::Feed(const char* data, size_t size, std::string* out) {
  for (size_t i = 0; i < size; ++i, ++index) {
    const unsigned char c = static_cast<unsigned char>(data[i]);
    if (cr) {
      cr = false;
      out->append("\r\n");
      line = 0;
      if (c == '\n') continue;
    }
    if (c == '\r') {
      cr = true;
      continue;
    }
    if (c == '\n') {
      out->append("\r\n");
      line = 0;
      continue;
    }
    if (c >= 128) {
      high = true;
      if (encoding == ENC7BIT) encoding = ENCQUOTEDPRINTABLE;
      if (encoding == ENCQUOTEDPRINTABLE) {
        ++count;
        if (index % 100 == 0) {
          if (count > 4) {
            encoding = ENCBASE64;
          } else {
            count = 0;
          }
        }
      }
    }
    if (c == 0) zero = true;
    out->push_back(static_cast<char>(c));
    if (++line > kMaxLineOctets) long_line = true;
  }
}

void Canonicalizer::Finish(std::string* out) {
  if (cr) out->append("\r\n");
  cr = false;
  line = 0;
}

unsigned short Canonicalizer::Encoding() const {
  if (zero) return ENCBASE64;
  if (encoding == ENC7BIT && long_line) return ENCQUOTEDPRINTABLE;
  return encoding;
}

void Base64Encoder::Feed(const char* data, size_t size, std::string* out) {
  for (size_t i = 0; i < size; ++i) {
    rest[pending++] = static_cast<unsigned char>(data[i]);
    if (pending < 3) continue;
    out->push_back(kBase64[rest[0] >> 2]);
    out->push_back(kBase64[((rest[0] << 4) | (rest[1] >> 4)) & 0x3f]);
    out->push_back(kBase64[((rest[1] << 2) | (rest[2] >> 6)) & 0x3f]);
    out->push_back(kBase64[rest[2] & 0x3f]);
    pending = 0;
    if ((column += 4) >= kBase64Line) {
      out->append("\r\n");
      column = 0;
    }
  }
}

void Base64Encoder::Finish(std::string* out) {
  if (pending) {
    const unsigned b1 = pending > 1 ? rest[1] : 0;
    out->push_back(kBase64[rest[0] >> 2]);
    out->push_back(kBase64[((rest[0] << 4) | (b1 >> 4)) & 0x3f]);
    out->push_back(pending > 1 ? kBase64[(b1 << 2) & 0x3f] : '=');
    out->push_back('=');
    column += 4;
    pending = 0;
  }
  if (column) out->append("\r\n");
  column = 0;
}

void QPEncoder::Put(std::string* out, unsigned char c, bool quote) {
  const size_t width = quote ? 3 : 1;
  if (column + width > kQPLine) {
    out->append("=\r\n");
    column = 0;
  }
  if (quote) {
    out->push_back('=');
    out->push_back(kHex[c >> 4]);
    out->push_back(kHex[c & 15]);
  } else {
    out->push_back(static_cast<char>(c));
  }
  column += width;
}

void QPEncoder::Feed(const char* data, size_t size, std::string* out) {
  for (size_t i = 0; i < size; ++i) {
    const unsigned char c = static_cast<unsigned char>(data[i]);
    if (cr) {
      cr = false;
      if (c == '\n') {
        if (blank) Put(out, static_cast<unsigned char>(blank), true);
        blank = 0;
        out->append("\r\n");
        column = 0;
        continue;
      }
      if (blank) Put(out, static_cast<unsigned char>(blank), false);
      blank = 0;
      Put(out, '\r', true);  // a lone CR is data, not a line end
    }
    if (c == '\r') {
      cr = true;
      continue;
    }
    if (blank) Put(out, static_cast<unsigned char>(blank), false);
    blank = 0;
    if (c == ' ' || c == '\t') {
      blank = static_cast<char>(c);
      continue;
    }
    // A line's first dot is quoted too: some transfer agents drop a line
    // that is a lone dot, whatever the stuffing.
    const bool quote = c < 0x20 || c == '=' || c >= 0x7f || (c == '.' && column == 0);
    Put(out, c, quote);
  }
}

void QPEncoder::Finish(std::string* out) {
  if (cr) {
    if (blank) Put(out, static_cast<unsigned char>(blank), false);
    blank = 0;
    Put(out, '\r', true);
    cr = false;
  }
  if (blank) Put(out, static_cast<unsigned char>(blank), true);
  blank = 0;
  // The part ends inside a line: a soft break keeps the writer's own CRLF
  // after the part from becoming data.
  if (column) out->append("=\r\n");
  column = 0;
}
