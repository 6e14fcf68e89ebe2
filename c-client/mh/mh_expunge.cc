// Expunge: the messages marked deleted leave the folder, and the index and
// the cache are rewritten without them.
//
// The order keeps the folder whole whatever happens:
// 1. the new index and cache are written to .new files and fsync'ed; a
//    failure here (a full disk) changes nothing, and the stream goes on;
// 2. the old index gets version 0: from here a stop leaves a folder that
//    the next open rebuilds from the message files, with the old flags;
// 3. the deleted messages' files go, and the stream hears of each;
// 4. the new cache is installed, then the new index (the commit).
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "c-client/mh/local_paths.h"
#include "c-client/core/mail_core.h"
#include "c-client/mh/mh_internal.h"

namespace {

void Log(const std::string& text, long level) { mm_log(text.c_str(), level); }

// Reads structure records from the old cache through a 64 KB window: they
// mostly lie in order, so copying a folder's cache costs few reads.
struct CacheWindow {
  int fd;
  uint64_t start = 0;
  std::vector<uint8_t> bytes;

  const uint8_t* Get(uint64_t at, size_t size) {
    if (at >= start && at + size <= start + bytes.size()) return bytes.data() + (at - start);
    bytes.resize(std::max(size, kMhIoChunk));
    ssize_t n = mh_pread_some(fd, bytes.data(), bytes.size(), static_cast<off_t>(at));
    if (n < 0) n = 0;
    bytes.resize(static_cast<size_t>(n));
    start = at;
    return bytes.size() >= size ? bytes.data() : nullptr;
  }
};

enum class Outcome { kDone, kFailed, kCorrupt };

// Step 1: the new files, holding every record that stays. *doomed gets the
// positions of the messages that go.
Outcome WriteNewFiles(MailStream* stream, MhNewFiles* out, std::vector<unsigned long>* doomed) {
  MhLocal* local = mh_local(stream);
  MhIndexHeader h;
  if (!mh_read_header(local->index_file, &h) || h.version != kMhIndexVersion || h.nmsgs < stream->nmsgs)
    return Outcome::kCorrupt;
  if (!out->Open(local->path, "Failed to open new mailbox cache index file: %s - %s",
                 "Failed to open mailbox cache index file: %s - %s"))
    return Outcome::kFailed;
  uint8_t bytes[kMhRecordSize];
  mh_encode_header(h, bytes);
  static const uint8_t kLead[kMhCacheLead] = {};
  if (!mh_writer_put(&out->index, bytes, kMhHeaderSize) || !mh_writer_put(&out->cache, kLead, sizeof kLead)) {
    Log(mail_format("Failed to write MH cache index header - %s", mh_error()), 2);
    return Outcome::kFailed;
  }

  CacheWindow old_cache{local->cache_file, 0, {}};
  uint32_t kept = 0, kept_recent = 0;
  MhRecordReader reader(local->index_file, kMhHeaderSize, h.nmsgs);
  MhIndexRecord r;
  uint64_t place;
  for (unsigned long i = 1; i <= h.nmsgs; ++i) {
    if (!reader.Next(&r, &place) || place + 1 != i) return Outcome::kCorrupt;
    // Records beyond the stream's count (none, normally) stay.
    if (i <= stream->nmsgs) {
      MessageElt* elt = mail_elt(stream, i);
      if (r.number != elt->file_number) return Outcome::kCorrupt;
      if (elt->deleted) {
        doomed->push_back(i);
        continue;
      }
      if (elt->recent) ++kept_recent;
    }
    if (r.cache_offset) {
      const size_t size = 4 + size_t{r.envelope_size} + r.body_size;
      const uint8_t* record = size <= kMhMaxStructure ? old_cache.Get(r.cache_offset, size) : nullptr;
      const uint32_t number =
          record ? uint32_t{record[0]} | uint32_t{record[1]} << 8 | uint32_t{record[2]} << 16 | uint32_t{record[3]} << 24
                 : 0;
      if (!record || number != r.number) return Outcome::kCorrupt;
      if (out->cache.written + size > UINT32_MAX) {
        r.cache_offset = 0;  // parsed again when next fetched
      } else {
        r.cache_offset = static_cast<uint32_t>(out->cache.written);
        if (!mh_writer_put(&out->cache, record, size)) return Outcome::kFailed;
      }
    }
    mh_encode_record(r, bytes);
    if (!mh_writer_put(&out->index, bytes, kMhRecordSize)) return Outcome::kFailed;
    ++kept;
  }
  h.nmsgs = kept;
  h.recent = std::min<uint32_t>(kept_recent, static_cast<uint32_t>(stream->recent));
  if (!mh_writer_flush(&out->cache) || !mh_writer_flush(&out->index) || !mh_write_header(out->index.fd, h) ||
      !safe_fsync(out->index.fd) || !safe_fsync(out->cache.fd))
    return Outcome::kFailed;
  mh_close_fd(&out->index.fd);
  mh_close_fd(&out->cache.fd);
  return Outcome::kDone;
}

// After the new index is in: the stream reads it, and the queue on top.
void Reopen(MailStream* stream) {
  if (!mh_open_cache(stream)) return;
  mh_sync(stream);
}

}  // namespace

void mh_expunge(MailStream* stream) {
  MhLocal* local = mh_local(stream);
  if (!local || local->index_file < 0 || local->cache_file < 0) return;
  if (stream->rdonly) {
    Log("Expunge ignored on read-only mailbox", 1);
    return;
  }
  bool any = false;
  for (unsigned long i = 1; i <= stream->nmsgs && !any; ++i) {
    auto* elt = static_cast<MessageElt*>(mailcache(stream, i, CH_ELT));
    any = elt && elt->deleted;
  }
  if (!any) {
    // Nothing to rewrite; new mail still comes in.
    mh_sync(stream);
    mm_dlog("mh_expunge: no messages deleted, so no messages expunged");
    return;
  }

  MhNewFiles out;
  std::vector<unsigned long> doomed;
  Outcome outcome = WriteNewFiles(stream, &out, &doomed);
  if (outcome == Outcome::kCorrupt) mh_corrupt(stream);
  if (outcome != Outcome::kDone) {
    // Nothing has changed: the old files are whole, and the stream goes on
    // with them.
    Log("Failed to expunge intermediate MH cache.", 2);
    return;
  }
  // A test's stop: dead where it stands, files as they are.
  auto stopped = [&](const char* step) {
    if (!mh_crash_here(step)) return false;
    out.keep = true;
    mh_close_cache(local);
    return true;
  };
  if (stopped("expunge-written")) return;
  if (!mh_mark_untrusted(local->index_file)) {
    // The old index may or may not carry the mark; either way it describes
    // the files, which are all still there.
    static const uint8_t kVersion[4] = {kMhIndexVersion & 0xff, kMhIndexVersion >> 8, 0, 0};
    safe_pwrite_all(local->index_file, kVersion, sizeof kVersion, 0);
    Log("Failed to expunge intermediate MH cache.", 2);
    return;
  }
  mh_close_cache(local);
  if (stopped("expunge-marked")) return;

  unsigned long gone = 0;
  for (unsigned long position : doomed) {
    const unsigned long msgno = position - gone;
    MessageElt* elt = mail_elt(stream, msgno);
    const std::string path = mh_message_path(local->path, static_cast<uint32_t>(elt->file_number));
    ::unlink(path.c_str());
    ::unlink((path + ".st").c_str());
    mail_expunged(stream, msgno);
    ++gone;
  }
  if (stopped("expunge-unlinked")) return;
  const bool cache_in = file_install(mh_file(local->path, "mh_cache")) != 0;
  if (cache_in && stopped("expunge-cache-installed")) return;
  if (!cache_in || !file_install(mh_file(local->path, "mh_index"))) {
    // The old index carries the mark: the next open rebuilds.
    Log("Failed to expunge intermediate MH cache.", 2);
    return;
  }
  out.keep = true;
  Reopen(stream);
  mail_exists(stream, stream->nmsgs);
  mail_recent(stream, stream->recent);
  mm_dlog(mail_format("mh_expunge: expunged %lu messages.", gone).c_str());
}
