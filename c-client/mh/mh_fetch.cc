// Fetching from an mh folder: the structure from the cache (or parsed from
// the message file and written to the cache on first sight), and the
// header, text and section bytes read from the message file.
//
// Positions come from the index and the structure, which the parser makes
// absolute in the message file; they are clamped to the file's size as it
// is now, so a file changed or cut behind our back gives what it holds,
// never bytes past its end.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "c-client/mh/local_paths.h"
#include "c-client/core/mail_core.h"
#include "c-client/mh/mh_internal.h"
#include "c-client/rfc822/rfc822.h"

namespace {

// What mail_gets reads through: a message file from a position.
struct MessageReader {
  int fd;
  off_t pos;
  int error;  // errno of a failed read; 0 for a short one
  bool failed;
};

long ReadMessage(void* handle, unsigned long size, char* buffer) {
  auto* r = static_cast<MessageReader*>(handle);
  if (r->failed) return 0;
  ssize_t n = mh_pread_some(r->fd, buffer, size, r->pos);
  if (n < 0 || static_cast<unsigned long>(n) != size) {
    r->failed = true;
    r->error = n < 0 ? errno : 0;
    return 0;
  }
  r->pos += n;
  return 1;
}

bool CheckMsgno(MailStream* stream, unsigned long msgno) {
  MhLocal* local = mh_local(stream);
  if (!local || msgno < 1 || msgno > stream->nmsgs) {
    mm_log("Invalid message number encountered in local MH mailbox stream", 2);
    return false;
  }
  return true;
}


// size bytes of a message file from pos, clamped to what the file holds.
MailText* ReadText(MailStream* stream, unsigned long msgno, unsigned long pos, unsigned long size,
                   unsigned long* got) {
  *got = 0;
  MhLocal* local = mh_local(stream);
  MessageElt* elt = mail_elt(stream, msgno);
  std::string path = mh_message_path(local->path, static_cast<uint32_t>(elt->file_number));
  struct stat st;
  const int fd = local_open_read(path, &st);
  if (fd < 0) {
    mm_log(mail_format("Failed to open MH message file: %s - %s", path.c_str(), mh_error()).c_str(), 2);
    return nullptr;
  }
  const unsigned long file_size = static_cast<unsigned long>(st.st_size);
  pos = std::min(pos, file_size);
  size = std::min(size, file_size - pos);
  MessageReader reader{fd, static_cast<off_t>(pos), 0, false};
  MailText* text = mail_gets(ReadMessage, &reader, size);
  if (reader.failed) {
    errno = reader.error ? reader.error : EIO;
    mm_log(mail_format("Failed in read of MH message file: %s - %s", path.c_str(), mh_error()).c_str(), 2);
  }
  ::close(fd);
  if (text) *got = size;
  return text;
}

// Marks a message seen when its text is read, and writes the flag through.
void MarkSeen(MailStream* stream, unsigned long msgno) {
  MessageElt* elt = mail_elt(stream, msgno);
  if (elt->seen) return;
  elt->seen = 1;
  mh_write_flags(stream, msgno);
}

// Reusable buffers for parsing: the rebuild parses every message of a
// folder, and these are the same sizes each time.
struct ParseBuffers {
  std::vector<char> header;
  std::vector<char> work = std::vector<char>(kRfc822WorkSize);
  FileText file{};
};

ParseBuffers& Buffers() {
  static ParseBuffers* b = new ParseBuffers;
  return *b;
}

}  // namespace

// --- Parsing and structure records ------------------------------------------

bool mh_parse_open_message(int fd, const std::string& path, unsigned long file_size, uint32_t header_size,
                           Envelope** env, BodyPart** body) {
  *env = nullptr;
  *body = nullptr;
  const unsigned long header_end = std::min<unsigned long>(header_size, file_size);
  const unsigned long n = std::min(header_end, kMhParseHeaderMax);
  ParseBuffers& b = Buffers();
  b.header.resize(n + 1);
  if (!mh_pread(fd, b.header.data(), n, 0)) {
    mm_log(mail_format("Failed in read of MH message file: %s - %s", path.c_str(), mh_error()).c_str(), 2);
    return false;
  }
  // The source starts at byte 0 of the file, so the parser's part offsets
  // are positions in the file.
  b.file.fd = fd;
  b.file.start = 0;
  StringSource bs;
  string_init(&bs, &file_string, &b.file, file_size);
  string_setpos(&bs, header_end);
  rfc822_parse_msg(env, body, b.header.data(), n, &bs, local_host_name(), b.work.data());
  return true;
}

bool mh_parse_message(const char* dir, uint32_t number, uint32_t header_size, Envelope** env, BodyPart** body) {
  *env = nullptr;
  *body = nullptr;
  std::string path = mh_message_path(dir, number);
  struct stat st;
  const int fd = local_open_read(path, &st);
  if (fd < 0) {
    mm_log(mail_format("Failed to open MH message file: %s - %s", path.c_str(), mh_error()).c_str(), 2);
    return false;
  }
  const bool ok = mh_parse_open_message(fd, path, static_cast<unsigned long>(st.st_size), header_size, env, body);
  ::close(fd);
  return ok;
}

std::string mh_structure_record(uint32_t number, const Envelope* env, const BodyPart* body, uint32_t* envelope_size,
                                uint32_t* body_size) {
  std::string e = mh_encode_envelope(env);
  std::string b = mh_encode_body(body);
  // The writer refuses what the reader would (too big, too deep): such a
  // message is parsed at each fetch rather than cached as corruption.
  if (e.empty() || b.empty()) return std::string();
  *envelope_size = static_cast<uint32_t>(e.size());
  *body_size = static_cast<uint32_t>(b.size());
  std::string out;
  out.reserve(4 + e.size() + b.size());
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>((number >> (8 * i)) & 0xff));
  out += e;
  out += b;
  return out;
}

bool mh_decode_structure(const std::string& record, uint32_t envelope_size, Envelope** env, BodyPart** body) {
  *env = nullptr;
  *body = nullptr;
  if (record.size() < 4 + uint64_t{envelope_size}) return false;
  const uint8_t* p = reinterpret_cast<const uint8_t*>(record.data()) + 4;
  const uint8_t* envelope_end = p + envelope_size;
  const uint8_t* end = reinterpret_cast<const uint8_t*>(record.data()) + record.size();
  if (!mh_decode_envelope(&p, envelope_end, env)) return false;
  if (p != envelope_end || !mh_decode_body(&p, end, body) || p != end) {
    mail_free_envelope(env);
    mail_free_body(body);
    return false;
  }
  return true;
}

bool mh_read_structure(int cache_fd, const MhIndexRecord& r, Envelope** env, BodyPart** body) {
  *env = nullptr;
  *body = nullptr;
  const uint64_t size = 4 + uint64_t{r.envelope_size} + r.body_size;
  if (cache_fd < 0 || r.cache_offset == 0 || size > kMhMaxStructure) return false;
  std::string bytes(size, '\0');
  if (!mh_pread(cache_fd, bytes.data(), bytes.size(), r.cache_offset)) return false;
  const auto* b = reinterpret_cast<const uint8_t*>(bytes.data());
  const uint32_t number = uint32_t{b[0]} | uint32_t{b[1]} << 8 | uint32_t{b[2]} << 16 | uint32_t{b[3]} << 24;
  return number == r.number && mh_decode_structure(bytes, r.envelope_size, env, body);
}

bool mh_append_structure(int cache_fd, const std::string& bytes, uint32_t envelope_size, uint32_t body_size,
                         MhIndexRecord* record) {
  struct stat st;
  if (::fstat(cache_fd, &st) != 0) return false;
  uint64_t end = static_cast<uint64_t>(st.st_size);
  if (end < kMhCacheLead) {
    static const uint8_t kZero[kMhCacheLead] = {};
    if (!safe_pwrite_all(cache_fd, kZero + end, kMhCacheLead - end, static_cast<off_t>(end))) return false;
    end = kMhCacheLead;
  }
  // Offsets are 32 bits: a cache that would pass 4 GB takes no more.
  if (end + bytes.size() > UINT32_MAX) {
    errno = EFBIG;
    return false;
  }
  if (!safe_pwrite_all(cache_fd, bytes.data(), bytes.size(), static_cast<off_t>(end))) return false;
  record->cache_offset = static_cast<uint32_t>(end);
  record->envelope_size = envelope_size;
  record->body_size = body_size;
  return true;
}

// --- Fetch slots --------------------------------------------------------------

Envelope* mh_fetchstructure(MailStream* stream, unsigned long msgno, BodyPart** body_out) {
  if (body_out) *body_out = nullptr;
  if (!CheckMsgno(stream, msgno)) return nullptr;
  MhLocal* local = mh_local(stream);
  ++stream->cachecount;
  if (local->index_file < 0 || local->cache_file < 0) return nullptr;  // closed by a failed expunge
  MhIndexRecord r;
  MessageElt* elt = mail_elt(stream, msgno);
  // A record that isn't the message's own means the index moved under us.
  if (!mh_read_record(local->index_file, msgno, &r) || r.number != elt->file_number) {
    mh_corrupt(stream);
    return nullptr;
  }
  Envelope* env = nullptr;
  BodyPart* body = nullptr;
  if (r.cache_offset) {
    if (!mh_read_structure(local->cache_file, r, &env, &body)) {
      mh_corrupt(stream);
      return nullptr;
    }
  } else {
    if (!mh_parse_message(local->path, r.number, r.header_size, &env, &body)) return nullptr;
    uint32_t envelope_size = 0, body_size = 0;
    std::string bytes = mh_structure_record(r.number, env, body, &envelope_size, &body_size);
    if (bytes.empty()) {
      // Not cacheable: parsed again at each fetch.
    } else if (!mh_append_structure(local->cache_file, bytes, envelope_size, body_size, &r)) {
      // The structure still serves this fetch; the next one parses again.
      mm_log(mail_format("Failed to write envelope to MH structure cache file - %s", mh_error()).c_str(), 1);
    } else if (!mh_write_record(local->index_file, msgno, r)) {
      mm_log(mail_format("Failed to update MH cache index record - %s", mh_error()).c_str(), 1);
    }
    // The record's reader turns lists round; the first fetch answers as
    // every later one will, from the record's bytes.
    Envelope* cached_env = nullptr;
    BodyPart* cached_body = nullptr;
    if (!bytes.empty() && mh_decode_structure(bytes, envelope_size, &cached_env, &cached_body)) {
      mail_free_envelope(&env);
      mail_free_body(&body);
      env = cached_env;
      body = cached_body;
    }
  }
  if (body_out) {
    *body_out = body;
  } else {
    mail_free_body(&body);
  }
  // The core stores both in the long element (or on a short-cache stream);
  // the stream's current message mirrors them.
  stream->msgno = msgno;
  stream->env = env;
  stream->body = body;
  return env;
}

MailText* mh_fetchheader(MailStream* stream, unsigned long msgno) {
  if (!CheckMsgno(stream, msgno)) return nullptr;
  ++stream->cachecount;
  MessageElt* elt = mail_elt(stream, msgno);
  unsigned long got = 0;
  MailText* text = ReadText(stream, msgno, 0, elt->header_size, &got);
  if (!text) return nullptr;
  mail_keep_header(stream, msgno, text);
  return text;
}

MailText* mh_fetchtext(MailStream* stream, unsigned long msgno) {
  if (!CheckMsgno(stream, msgno)) return nullptr;
  ++stream->cachecount;
  MarkSeen(stream, msgno);
  return mh_read_text(stream, msgno);
}

MailText* mh_fetchbody(MailStream* stream, unsigned long msgno, const char*, BodyPart* part, unsigned long offset,
                       unsigned long* length) {
  if (length) *length = 0;
  if (!CheckMsgno(stream, msgno) || !part) return nullptr;
  ++stream->cachecount;
  MarkSeen(stream, msgno);
  MessageElt* elt = mail_elt(stream, msgno);
  const unsigned long start = offset ? offset : elt->header_size;
  unsigned long got = 0;
  MailText* text = ReadText(stream, msgno, start, part->size_bytes, &got);
  if (!text) return nullptr;
  mail_keep_part_text(part, text);
  if (length) *length = got;
  return text;
}

MailText* mh_read_text(MailStream* stream, unsigned long msgno) {
  if (!CheckMsgno(stream, msgno)) return nullptr;
  MessageElt* elt = mail_elt(stream, msgno);
  const unsigned long start = elt->header_size;
  const unsigned long size = elt->rfc822_size > start ? elt->rfc822_size - start : 0;
  unsigned long got = 0;
  return ReadText(stream, msgno, start, size, &got);
}
