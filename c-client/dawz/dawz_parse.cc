// Reading a dawz mailbox file: the internal header lines, the format test,
// and the parse that turns records into the cache's elements.
//
// Every count and length read from the file has a limit: a line is read in
// one piece of at most kDawzLineMax bytes, a size has at most 18 digits,
// and a mailbox holds at most kDawzMaxMessages messages. A size that lies
// is not believed: a message ends at the next line that has the whole form
// of an internal header, or at the end of the file.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <vector>

#include "c-client/core/mail_core.h"
#include "c-client/dawz/dawz.h"
#include "c-client/mh/local_paths.h"
#include "c-client/rfc822/rfc822.h"

namespace {

constexpr size_t kFormatProbe = 64;
constexpr size_t kScanBlock = 4096;
constexpr size_t kMaxSizeDigits = 18;

bool IsOctal(char c) { return c >= '0' && c <= '7'; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }

bool Dashes(const char* b, size_t n) {
  return (n > 6 && b[2] == '-' && b[6] == '-') || (n > 5 && b[1] == '-' && b[5] == '-');
}

ssize_t ReadSome(int fd, void* data, size_t size, off_t at) {
  for (;;) {
    const ssize_t n = ::pread(fd, data, size, at);
    if (n >= 0 || errno != EINTR) return n;
  }
}

// The size of a message's header, through the empty line that ends it; the
// whole message when it has none. Only the message's own bytes are read.
unsigned long HeaderSize(int fd, unsigned long start, unsigned long size) {
  char block[kScanBlock];
  unsigned long done = 0;
  int state = 1;  // 1: at a line start, 2: at a line start after CR
  while (done < size) {
    const size_t want = static_cast<size_t>(std::min<unsigned long>(sizeof block, size - done));
    const ssize_t n = ReadSome(fd, block, want, static_cast<off_t>(start + done));
    if (n <= 0) break;
    for (ssize_t i = 0; i < n; ++i) {
      const char c = block[i];
      if (c == '\n' && state) return done + static_cast<unsigned long>(i) + 1;
      state = c == '\n' ? 1 : (c == '\r' && state == 1) ? 2 : 0;
    }
    done += static_cast<unsigned long>(n);
  }
  return size;
}

// The line's date for mail_parse_date: the line writes "-" between the time
// and the zone, copies made from mail_date a blank.
std::string DateForParse(std::string date) {
  const size_t colon = date.rfind(':');
  if (colon != std::string::npos && colon + 3 < date.size() && date[colon + 3] == '-') date[colon + 3] = ' ';
  return date;
}

constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

}  // namespace

DawzLineError dawz_parse_line(const char* bytes, size_t n, DawzLine* out) {
  n = std::min(n, kDawzLineMax);
  size_t crlf = 0;
  while (crlf + 1 < n && !(bytes[crlf] == '\r' && bytes[crlf + 1] == '\n')) ++crlf;
  if (crlf + 1 >= n) return DawzLineError::kNoLineEnd;
  const char* comma = static_cast<const char*>(std::memchr(bytes, ',', crlf));
  const char* semi = comma ? static_cast<const char*>(std::memchr(comma, ';', static_cast<size_t>(bytes + crlf - comma)))
                           : nullptr;
  if (!comma || !semi) return DawzLineError::kNoMarks;
  const char* p = comma + 1;
  unsigned long size = 0;
  if (p == semi || static_cast<size_t>(semi - p) > kMaxSizeDigits) return DawzLineError::kComponents;
  for (; p < semi; ++p) {
    if (!IsDigit(*p)) return DawzLineError::kComponents;
    size = size * 10 + static_cast<unsigned long>(*p - '0');
  }
  if (!size || bytes + crlf - (semi + 1) != 12) return DawzLineError::kComponents;
  unsigned long user = 0;
  unsigned system = 0;
  for (int i = 0; i < 12; ++i) {
    const char c = semi[1 + i];
    if (!IsOctal(c)) return DawzLineError::kComponents;
    if (i < 10)
      user = user * 8 + static_cast<unsigned long>(c - '0');
    else
      system = system * 8 + static_cast<unsigned>(c - '0');
  }
  out->length = crlf + 2;
  out->date.assign(bytes, comma);
  out->size = size;
  out->user_flags = user;
  out->system_flags = system;
  return DawzLineError::kNone;
}

bool dawz_format_ok(const char* b, size_t n) {
  if (n == 0) return true;
  n = std::min(n, kFormatProbe);
  if (!Dashes(b, n)) return false;
  for (size_t i = 20; i < n; ++i) {
    if (b[i] != ',') continue;
    for (size_t j = i + 2; j < n; ++j)
      if (b[j] == ';') return true;
    return false;
  }
  return false;
}

bool dawz_looks_like_line(const char* bytes, size_t n) {
  DawzLine line;
  return Dashes(bytes, std::min(n, kDawzLineMax)) && dawz_parse_line(bytes, n, &line) == DawzLineError::kNone;
}

bool dawz_is_mailbox(const std::string& path, int* error) {
  struct stat st;
  const int fd = local_open_read(path, &st);
  if (fd < 0) {
    if (error) *error = errno;
    return false;
  }
  char probe[kFormatProbe];
  const ssize_t n = ReadSome(fd, probe, sizeof probe, 0);
  const int read_error = errno;
  ::close(fd);
  if (n < 0) {
    if (error) *error = read_error;
    return false;
  }
  if (error) *error = 0;
  return dawz_format_ok(probe, static_cast<size_t>(n));
}

unsigned long dawz_message_end(int fd, unsigned long start, unsigned long file_size) {
  // Blocks overlap by one line's worth, so that a line that starts in one
  // block is looked at whole.
  // The line at start is never looked at: a message's first line is text,
  // whatever its form.
  std::vector<char> block(kScanBlock + kDawzLineMax);
  for (unsigned long at = start; at < file_size; at += kScanBlock) {
    const size_t want = static_cast<size_t>(std::min<unsigned long>(block.size(), file_size - at));
    const ssize_t n = ReadSome(fd, block.data(), want, static_cast<off_t>(at));
    if (n <= 0) return file_size;
    const size_t got = static_cast<size_t>(n);
    const size_t scan = std::min(got, kScanBlock);
    for (size_t i = 0; i < scan; ++i) {
      if (block[i] != '\n') continue;
      const size_t next = i + 1;
      if (at + next >= file_size) return file_size;
      if (dawz_looks_like_line(block.data() + next, got - next)) return at + next;
    }
  }
  return file_size;
}

void dawz_set_element_flags(MessageElt* e, unsigned long user_flags, unsigned system_flags) {
  e->seen = (system_flags & 1) != 0;
  e->deleted = (system_flags & 2) != 0;
  e->flagged = (system_flags & 4) != 0;
  e->answered = (system_flags & 8) != 0;
  // User flag i is bit 29 - i of the line's ten digits.
  e->user_flags = 0;
  for (int i = 0; i < kMaxUserFlags; ++i)
    if (user_flags & (1ul << (29 - i))) e->user_flags |= 1ul << i;
}

unsigned dawz_system_flags(const MessageElt* e) {
  return (e->seen ? 1u : 0u) | (e->deleted ? 2u : 0u) | (e->flagged ? 4u : 0u) | (e->answered ? 8u : 0u);
}

std::string dawz_make_line(const std::string& date, unsigned long size, unsigned long user_flags,
                           unsigned system_flags) {
  char tail[64];
  std::snprintf(tail, sizeof tail, ",%lu;%010lo%02o\r\n", size, user_flags & 07777777777ul, system_flags & 077u);
  return date + tail;
}

std::string dawz_now() {
  const time_t now = std::time(nullptr);
  struct tm tm;
  localtime_r(&now, &tm);
  const long off = tm.tm_gmtoff / 60;
  const long a = off < 0 ? -off : off;
  char out[64];
  std::snprintf(out, sizeof out, "%2d-%s-%d %02d:%02d:%02d-%c%02ld%02ld", tm.tm_mday, kMonths[tm.tm_mon],
                tm.tm_year + 1900, tm.tm_hour, tm.tm_min, tm.tm_sec, off < 0 ? '-' : '+', a / 60, a % 60);
  return out;
}

bool dawz_parse(MailStream* stream) {
  DawzLocal* local = dawz_local(stream);
  if (!local || local->fd < 0) return false;
  auto fail = [&](const char* text) {
    mm_log(text, 2);
    dawz_abort(stream);
    return false;
  };
  struct stat st;
  if (::fstat(local->fd, &st) != 0) return fail("Unable to read internal header line");
  const unsigned long size = static_cast<unsigned long>(st.st_size);
  if (size < local->filesize) return fail("Mailbox shrank!");
  unsigned long pos = local->filesize;
  unsigned long nmsgs = stream->nmsgs;
  unsigned long recent = stream->recent;
  char buffer[kDawzLineMax];
  while (pos < size) {
    if (nmsgs >= kDawzMaxMessages) return fail("Unable to parse internal header line");
    const size_t want = static_cast<size_t>(std::min<unsigned long>(sizeof buffer, size - pos));
    const ssize_t n = ReadSome(local->fd, buffer, want, static_cast<off_t>(pos));
    if (n <= 0) return fail("Unable to read internal header line");
    DawzLine line;
    switch (dawz_parse_line(buffer, static_cast<size_t>(n), &line)) {
      case DawzLineError::kNone:
        break;
      case DawzLineError::kNoLineEnd:
        return fail("Unable to read internal header line");
      case DawzLineError::kNoMarks:
        return fail("Unable to parse internal header line");
      case DawzLineError::kComponents:
        return fail("Unable to parse internal header line components");
    }
    const unsigned long text = pos + line.length;
    const unsigned long end = dawz_message_end(local->fd, text, size);
    // The last message claims more than the file holds: a writer is still
    // at work, or the file was cut.
    if (end == size && line.size > size - text) return fail("Last message runs past end of file");
    mailcache(stream, ++nmsgs, CH_SIZE);
    MessageElt* elt = mail_elt(stream, nmsgs);
    elt->file_number = pos;
    elt->rfc822_size = end - text;
    if (!mail_parse_date(elt, DateForParse(line.date).c_str())) mm_log("Bogus date", 1);
    dawz_set_element_flags(elt, line.user_flags, line.system_flags);
    const unsigned long header = HeaderSize(local->fd, text, end - text);
    elt->header_size = (static_cast<unsigned long>(line.length) << kDawzLineShift) | (header & kDawzHeaderMask);
    if (local->parsed_once) {
      elt->recent = 1;
      ++recent;
    }
    pos = end;
  }
  local->filesize = size;
  local->parsed_once = true;
  mail_exists(stream, nmsgs);
  mail_recent(stream, recent);
  return true;
}
