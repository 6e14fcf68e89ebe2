// The enclosure coders: uuencode and BinHex 4.0, byte for byte, with no
// files and no questions. The files and the questions ("Save enclosure
// to:") are the sending side's (src/send/enclosure.h); the viewer decodes
// the blocks it finds in a message's text with the same calls.
//
// Every decoder has limits: at most kEnclosureMaxOutput bytes come out,
// whatever the text claims, and a failure says why in the words the user
// sees.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

constexpr size_t kEnclosureMaxOutput = 64u << 20;

// --- uuencode -----------------------------------------------------------------

enum class UuStatus { kOk, kNoBegin, kNoEnd, kBadLine, kTooLarge };
struct UuDecoded {
  std::string data;
  std::string name;   // as the "begin" line has it, not made safe
  unsigned mode = 0;  // the octal mode of the "begin" line
};
// Decodes the first "begin %o %s" block of text through its "end" line.
UuStatus uu_decode(std::string_view text, UuDecoded* out);
// "begin %o %s\n", lines of at most 45 bytes, a "`" line, "end\n".
std::string uu_encode(std::string_view data, unsigned mode, std::string_view name);

// --- BinHex 4.0 ---------------------------------------------------------------

struct BinhexFile {
  std::string name;  // 1 to 63 bytes, not made safe
  std::string type = "????", creator = "????";
  uint16_t flags = 0;
  std::string data, rsrc;  // the two forks
};

// The CRC of BinHex 4.0: CRC-16 with polynomial 0x1021 from 0. docrc takes
// one byte into a running CRC; make_buffer_crc a whole buffer.
uint16_t docrc(uint16_t crc, unsigned char byte);
uint16_t make_buffer_crc(std::string_view bytes, uint16_t crc = 0);
// The CRC of what is left of an open file, read in pieces; false on a read error.
bool make_file_crc(int fd, uint16_t* crc);

// Decodes the first block after a line that begins "(This file". False
// with the reason in *error ("CRC error in encoded Binhex file!", "bad char:
// 'x' in get6bits of binhex.c", the unexpected ends...).
bool binhex_decode(std::string_view text, BinhexFile* out, std::string* error);

// A header for a file that has no Macintosh data: type and creator "????",
// no flags, an empty resource fork. The name is cut to 63 bytes.
BinhexFile fakehead(std::string_view name, std::string data);
// "(This file must be converted with BinHex 4.0)\n:", the stream in lines of
// 64 characters, ":\n".
std::string binhex_encode(const BinhexFile& file);
