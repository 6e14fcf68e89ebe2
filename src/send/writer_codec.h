// The streaming pieces of the message writer: line-end canonicalisation
// that also decides a text's transfer encoding, and base64 and
// quoted-printable encoders that keep their state across blocks, so that a
// file of any size is encoded block by block with the same result as in
// one piece.
#pragma once

#include <cstddef>
#include <string>

// Bytes of a part read and converted at a time.
constexpr size_t kSendBlockSize = 3000;
// Longest line on the wire, without its CRLF.
constexpr size_t kMaxLineOctets = 998;

// Every LF, CR and CRLF becomes CRLF; a CR at the end of one block and the
// LF at the start of the next stay one line end.
//
// The encoding: 7BIT until the first byte above 127, which makes it
// QUOTED-PRINTABLE. From then on each such byte counts; when one stands at
// an input index divisible by 100, a count above 4 makes it BASE64 (for
// good), and a count of 4 or less starts the count again. The index counts
// every input byte from 0, line ends included. A 7BIT text with a line
// longer than 998 octets goes QUOTED-PRINTABLE; a zero byte makes BASE64.
struct Canonicalizer {
  bool cr = false;
  unsigned long index = 0;
  int count = 0;
  unsigned short encoding = 0;  // ENC7BIT, ENCQUOTEDPRINTABLE or ENCBASE64
  size_t line = 0;
  bool long_line = false;
  bool zero = false;
  bool high = false;  // some byte above 127

  void Feed(const char* data, size_t size, std::string* out);
  void Finish(std::string* out);
  // The encoding the text needs, after Finish.
  unsigned short Encoding() const;
};

// Base64 in lines of 76 characters, each ending in CRLF.
struct Base64Encoder {
  unsigned char rest[3] = {0, 0, 0};
  int pending = 0;
  size_t column = 0;
  void Feed(const char* data, size_t size, std::string* out);
  void Finish(std::string* out);
};

// Quoted-printable over CRLF text: CRLF stays a line end, lines get soft
// breaks before 76 characters, and a blank before a line end or at the end
// is encoded so that no reader drops it.
struct QPEncoder {
  size_t column = 0;
  bool cr = false;
  char blank = 0;  // a blank waiting to see what follows
  void Feed(const char* data, size_t size, std::string* out);
  void Finish(std::string* out);

 private:
  void Put(std::string* out, unsigned char c, bool quote);
};
