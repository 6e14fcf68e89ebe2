// uuencode and BinHex 4.0. BinHex decoding goes by the format's steps:
// find_binhex_header finds the block, q_init starts the reader, get6bits
// takes characters, getq expands runs, get2q / get4q / getqbuf read numbers
// and buffers, do_q_header reads the header, do_q_fork a fork, verify_crc
// checks each part. Encoding: fakehead, putchar_run (runs with marker 144,
// a literal 144 followed by 0), putchar_6 (three bytes into four
// characters), docrc.
#include "c-client/rfc822/enclosure.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace {

// --- uuencode -----------------------------------------------------------------

constexpr size_t kUuLineBytes = 45;

int UuValue(char c) { return (c - ' ') & 077; }
char UuChar(int v) { return v ? static_cast<char>(' ' + (v & 077)) : '`'; }

bool NextLine(std::string_view text, size_t* at, std::string_view* line) {
  if (*at >= text.size()) return false;
  size_t end = text.find('\n', *at);
  if (end == std::string_view::npos) end = text.size();
  *line = text.substr(*at, end - *at);
  *at = end + 1;
  if (!line->empty() && line->back() == '\r') line->remove_suffix(1);
  return true;
}

// --- BinHex -------------------------------------------------------------------

constexpr std::string_view kAlphabet = "!\"#$%&'()*+,-012345689@ABCDEFGHIJKLMNPQRSTUVXYZ[`abcdefhijklmpqr";
constexpr unsigned char kRunMark = 0x90;
constexpr size_t kMaxRun = 255;
constexpr size_t kLineChars = 64;
constexpr char kEarlyEnd[] = "Unexpected end of file in encoded binhex file!";
constexpr char kEarlyEndInBlock[] = "Unexpected end of file in the encoded binhex file!";
constexpr char kCrcError[] = "CRC error in encoded Binhex file!";

// The decoder's state: where it is in the text, the bits not yet used, the
// run being expanded, and the CRC of the part being read.
struct QReader {
  std::string_view text;
  size_t at = 0;
  uint32_t bits = 0;
  int have = 0;
  bool closed = false;  // the closing ':' was read
  unsigned char last = 0;
  bool any = false;     // a byte has come out (a run repeats it)
  size_t repeat = 0;    // copies of last still to give
  uint16_t crc = 0;
  std::string error;
};

// Starts the reader after the ':' that opens the block.
void q_init(QReader* q, std::string_view text, size_t at) {
  *q = QReader{};
  q->text = text;
  q->at = at;
}

// The next six bits; false at the closing ':' or the text's end (with the
// reason) or a character the alphabet lacks.
bool get6bits(QReader* q, int* value) {
  while (q->at < q->text.size()) {
    const char c = q->text[q->at++];
    if (c == '\r' || c == '\n' || c == ' ' || c == '\t') continue;
    if (c == ':') {
      q->closed = true;
      q->error = kEarlyEndInBlock;
      return false;
    }
    const size_t v = kAlphabet.find(c);
    if (v == std::string_view::npos) {
      char text[64];
      std::snprintf(text, sizeof text, "bad char: '%c' in get6bits of binhex.c", c);
      q->error = text;
      return false;
    }
    *value = static_cast<int>(v);
    return true;
  }
  q->error = kEarlyEnd;
  return false;
}

// The next packed byte, before runs are expanded.
bool GetPacked(QReader* q, unsigned char* byte) {
  while (q->have < 8) {
    int v;
    if (!get6bits(q, &v)) return false;
    q->bits = (q->bits << 6 | static_cast<uint32_t>(v)) & 0xFFFFFF;
    q->have += 6;
  }
  q->have -= 8;
  *byte = static_cast<unsigned char>((q->bits >> q->have) & 0xFF);
  return true;
}

// The next byte of the stream, runs expanded, taken into the CRC.
bool getq(QReader* q, unsigned char* byte) {
  if (q->repeat) {
    --q->repeat;
    *byte = q->last;
  } else {
    unsigned char c;
    if (!GetPacked(q, &c)) return false;
    if (c == kRunMark) {
      unsigned char count;
      if (!GetPacked(q, &count)) return false;
      if (count == 0) {
        c = kRunMark;
      } else if (!q->any || count < 2) {
        // A run must repeat a byte that came before it.
        q->error = kEarlyEndInBlock;
        return false;
      } else {
        q->repeat = count - 2u;
        c = q->last;
      }
    }
    q->last = c;
    q->any = true;
    *byte = c;
  }
  q->crc = docrc(q->crc, *byte);
  return true;
}

bool get2q(QReader* q, uint16_t* value) {
  unsigned char a, b;
  if (!getq(q, &a) || !getq(q, &b)) return false;
  *value = static_cast<uint16_t>(a << 8 | b);
  return true;
}

bool get4q(QReader* q, uint32_t* value) {
  uint16_t hi, lo;
  if (!get2q(q, &hi) || !get2q(q, &lo)) return false;
  *value = static_cast<uint32_t>(hi) << 16 | lo;
  return true;
}

bool getqbuf(QReader* q, std::string* out, size_t n) {
  out->clear();
  out->reserve(std::min(n, size_t{1} << 20));
  for (size_t i = 0; i < n; ++i) {
    unsigned char c;
    if (!getq(q, &c)) return false;
    out->push_back(static_cast<char>(c));
  }
  return true;
}

// Reads the two CRC bytes of a part, which are outside its CRC, and
// compares.
bool verify_crc(QReader* q) {
  const uint16_t computed = q->crc;
  uint16_t stored;
  if (!get2q(q, &stored)) return false;
  q->crc = 0;
  if (stored != computed) {
    q->error = kCrcError;
    return false;
  }
  return true;
}

bool do_q_header(QReader* q, BinhexFile* out, uint32_t* data_len, uint32_t* rsrc_len) {
  q->crc = 0;
  unsigned char n, version;
  if (!getq(q, &n)) return false;
  if (n < 1 || n > 63) {
    q->error = "The BinHex header names no file.";
    return false;
  }
  uint16_t flags;
  if (!getqbuf(q, &out->name, n) || !getq(q, &version) || !getqbuf(q, &out->type, 4) ||
      !getqbuf(q, &out->creator, 4) || !get2q(q, &flags) || !get4q(q, data_len) || !get4q(q, rsrc_len))
    return false;
  out->flags = flags;
  if (!verify_crc(q)) return false;
  if (uint64_t{*data_len} + *rsrc_len > kEnclosureMaxOutput) {
    q->error = "The BinHex data is too large.";
    return false;
  }
  return true;
}

bool do_q_fork(QReader* q, std::string* out, uint32_t length) {
  q->crc = 0;
  return getqbuf(q, out, length) && verify_crc(q);
}

// Where the block's first character is: after the ':' that follows a line
// beginning "(This file". npos when there is none; *old when the block is
// of the older form.
size_t find_binhex_header(std::string_view text, bool* old) {
  *old = false;
  size_t at = 0;
  std::string_view line;
  while (NextLine(text, &at, &line)) {
    if (line.substr(0, 10) != "(This file") continue;
    const size_t version = line.find("BinHex ");
    if (version != std::string_view::npos && line.substr(version + 7, 3) != "4.0") *old = true;
    while (at < text.size() && (text[at] == '\r' || text[at] == '\n' || text[at] == ' ' || text[at] == '\t')) ++at;
    if (at < text.size() && text[at] == '#') *old = true;
    while (at < text.size() && text[at] != ':') ++at;
    return at < text.size() ? at + 1 : text.size();
  }
  return std::string_view::npos;
}

// The encoder's state: packed bytes waiting for a character, and the
// characters of the current line.
struct QWriter {
  std::string out;
  uint32_t bits = 0;
  int have = 0;
  size_t column = 0;
};

void PutChar(QWriter* w, char c) {
  if (w->column == kLineChars) {
    w->out.push_back('\n');
    w->column = 0;
  }
  w->out.push_back(c);
  ++w->column;
}

// Packs bytes three at a time into four characters.
void putchar_6(QWriter* w, unsigned char byte) {
  w->bits = (w->bits << 8 | byte) & 0xFFFFFF;
  w->have += 8;
  while (w->have >= 6) {
    w->have -= 6;
    PutChar(w, kAlphabet[(w->bits >> w->have) & 077]);
  }
}

void PutLiteral(QWriter* w, unsigned char byte) {
  putchar_6(w, byte);
  if (byte == kRunMark) putchar_6(w, 0);
}

// The whole stream with runs of three or more compressed, at most 255 a run.
void putchar_run(QWriter* w, std::string_view bytes) {
  for (size_t i = 0; i < bytes.size();) {
    const unsigned char c = static_cast<unsigned char>(bytes[i]);
    size_t run = 1;
    while (i + run < bytes.size() && run < kMaxRun && static_cast<unsigned char>(bytes[i + run]) == c) ++run;
    PutLiteral(w, c);
    if (run >= 3) {
      putchar_6(w, kRunMark);
      putchar_6(w, static_cast<unsigned char>(run));
    } else {
      for (size_t k = 1; k < run; ++k) PutLiteral(w, c);
    }
    i += run;
  }
  if (w->have) {
    putchar_6(w, 0);  // the last character's bits
    w->have = 0;
  }
}

void Put2(std::string* s, uint16_t v) {
  s->push_back(static_cast<char>(v >> 8));
  s->push_back(static_cast<char>(v & 0xFF));
}

void Put4(std::string* s, uint32_t v) {
  Put2(s, static_cast<uint16_t>(v >> 16));
  Put2(s, static_cast<uint16_t>(v & 0xFFFF));
}

std::string Fixed4(const std::string& s) { return (s + "????").substr(0, 4); }

}  // namespace

UuStatus uu_decode(std::string_view text, UuDecoded* out) {
  *out = UuDecoded{};
  size_t at = 0;
  std::string_view line;
  bool found = false;
  while (NextLine(text, &at, &line)) {
    if (line.substr(0, 6) != "begin ") continue;
    found = true;
    std::string_view rest = line.substr(6);
    size_t k = 0;
    while (k < rest.size() && rest[k] >= '0' && rest[k] <= '7' && k < 6) out->mode = out->mode * 8 + (rest[k++] - '0');
    if (k < rest.size() && rest[k] == ' ') out->name.assign(rest.substr(k + 1));
    break;
  }
  if (!found) return UuStatus::kNoBegin;
  while (NextLine(text, &at, &line)) {
    if (line == "end") return UuStatus::kOk;
    if (line.empty()) continue;
    const int count = UuValue(line[0]);
    if (count == 0) continue;
    // Every byte needs its 4/3 characters; padding at the end may be cut.
    if (line.size() < 1 + static_cast<size_t>(count * 4 + 2) / 3) return UuStatus::kBadLine;
    if (out->data.size() + static_cast<size_t>(count) > kEnclosureMaxOutput) return UuStatus::kTooLarge;
    int produced = 0;
    for (size_t k = 1; produced < count; k += 4) {
      auto v = [&](size_t j) { return j < line.size() ? UuValue(line[j]) : 0; };
      const int a = v(k), b = v(k + 1), c = v(k + 2), d = v(k + 3);
      const unsigned char bytes[3] = {static_cast<unsigned char>((a << 2) | (b >> 4)),
                                      static_cast<unsigned char>(((b & 0xF) << 4) | (c >> 2)),
                                      static_cast<unsigned char>(((c & 0x3) << 6) | d)};
      for (int m = 0; m < 3 && produced < count; ++m, ++produced) out->data.push_back(static_cast<char>(bytes[m]));
    }
  }
  return UuStatus::kNoEnd;
}

std::string uu_encode(std::string_view data, unsigned mode, std::string_view name) {
  char head[32];
  std::snprintf(head, sizeof head, "begin %o ", mode & 07777);
  std::string out = head + std::string(name) + "\n";
  for (size_t at = 0; at < data.size(); at += kUuLineBytes) {
    const size_t n = std::min(kUuLineBytes, data.size() - at);
    out.push_back(UuChar(static_cast<int>(n)));
    for (size_t k = 0; k < n; k += 3) {
      auto b = [&](size_t j) { return j < n ? static_cast<unsigned char>(data[at + j]) : 0u; };
      const unsigned x = b(k), y = b(k + 1), z = b(k + 2);
      out.push_back(UuChar(static_cast<int>(x >> 2)));
      out.push_back(UuChar(static_cast<int>(((x & 3) << 4) | (y >> 4))));
      out.push_back(UuChar(static_cast<int>(((y & 0xF) << 2) | (z >> 6))));
      out.push_back(UuChar(static_cast<int>(z & 077)));
    }
    out.push_back('\n');
  }
  return out + "`\nend\n";
}

uint16_t docrc(uint16_t crc, unsigned char byte) {
  crc ^= static_cast<uint16_t>(byte << 8);
  for (int i = 0; i < 8; ++i) crc = static_cast<uint16_t>(crc & 0x8000 ? (crc << 1) ^ 0x1021 : crc << 1);
  return crc;
}

uint16_t make_buffer_crc(std::string_view bytes, uint16_t crc) {
  for (unsigned char c : bytes) crc = docrc(crc, c);
  return crc;
}

bool make_file_crc(int fd, uint16_t* crc) {
  *crc = 0;
  char buffer[8192];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) return true;
    *crc = make_buffer_crc(std::string_view(buffer, static_cast<size_t>(n)), *crc);
  }
}

bool binhex_decode(std::string_view text, BinhexFile* out, std::string* error) {
  *out = BinhexFile{};
  auto fail = [&](const std::string& why) {
    *out = BinhexFile{};
    if (error) *error = why;
    return false;
  };
  bool old = false;
  const size_t at = find_binhex_header(text, &old);
  if (at == std::string_view::npos) return fail("No BinHex block was found.");
  if (old) return fail("Old unsupported binhex format, decoding terminated!");
  if (at >= text.size()) return fail(kEarlyEnd);
  QReader q;
  q_init(&q, text, at);
  uint32_t data_len = 0, rsrc_len = 0;
  if (!do_q_header(&q, out, &data_len, &rsrc_len) || !do_q_fork(&q, &out->data, data_len) ||
      !do_q_fork(&q, &out->rsrc, rsrc_len))
    return fail(q.error);
  // The block is whole only with its closing ':'.
  if (!q.closed && text.find(':', q.at) == std::string_view::npos) return fail(kEarlyEnd);
  return true;
}

BinhexFile fakehead(std::string_view name, std::string data) {
  BinhexFile f;
  f.name.assign(name.substr(0, 63));
  if (f.name.empty()) f.name = "untitled";
  f.data = std::move(data);
  return f;
}

std::string binhex_encode(const BinhexFile& file) {
  std::string bytes;
  const std::string name = file.name.substr(0, 63);
  bytes.push_back(static_cast<char>(name.size()));
  bytes += name;
  bytes.push_back('\0');  // version
  bytes += Fixed4(file.type) + Fixed4(file.creator);
  Put2(&bytes, file.flags);
  Put4(&bytes, static_cast<uint32_t>(file.data.size()));
  Put4(&bytes, static_cast<uint32_t>(file.rsrc.size()));
  Put2(&bytes, make_buffer_crc(bytes));
  bytes += file.data;
  Put2(&bytes, make_buffer_crc(file.data));
  bytes += file.rsrc;
  Put2(&bytes, make_buffer_crc(file.rsrc));
  QWriter w;
  w.out = "(This file must be converted with BinHex 4.0)\n:";
  w.column = 1;
  putchar_run(&w, bytes);
  return w.out + ":\n";
}
