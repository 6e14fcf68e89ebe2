// The mh folder's cache files: opening them, bringing the stream up to date
// (ping and check, with the update queue), the corruption mark, flags
// written through to the index, and the rebuild from the message files.
//
// What keeps a folder whole when the program dies or the disk fills:
// - Rewrites (rebuild, expunge) go to .new files, fsync'ed, then installed.
//   Before the two installs the old index gets version 0, and the new index
//   goes in last: stopped anywhere in between, the folder's next open finds
//   an index it does not trust and rebuilds from the message files, with
//   the flags of the old index or of mh_index.bak.
// - The update queue is applied at the index's end as the header counts it,
//   and the header is written last: a queue applied part-way is simply
//   applied again, over the same records. A queue record for a message the
//   index already holds (stopped after the header, before the queue was
//   deleted) is skipped.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <unordered_set>

#include "c-client/mh/local_paths.h"
#include "c-client/core/mail_core.h"
#include "c-client/mh/mh_internal.h"
#include "c-client/rfc822/rfc822.h"

namespace {

constexpr uint32_t kKnownFlags = kMhSeen | kMhDeleted | kMhFlagged | kMhAnswered | kMhDraft;
constexpr size_t kRecordsPerChunk = kMhIoChunk / kMhRecordSize;
// An index record file beyond this many records is not believed.
constexpr uint64_t kMaxRecords = 50'000'000;

void Log(const std::string& text, long level) { mm_log(text.c_str(), level); }

bool Exists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

uint64_t FileSize(int fd) {
  struct stat st;
  return fd >= 0 && ::fstat(fd, &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

// Days since 1970-01-01 to a civil date (proleptic Gregorian), so that
// filling a large folder's dates takes no library lock per message.
void CivilFromDays(int64_t z, int* year, unsigned* month, unsigned* day) {
  z += 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  *day = doy - (153 * mp + 2) / 5 + 1;
  *month = mp < 10 ? mp + 3 : mp - 9;
  *year = static_cast<int>(yoe + era * 400 + (*month <= 2 ? 1 : 0));
}

std::string IndexPath(const MhLocal* local) { return mh_file(local->path, "mh_index.dat"); }
std::string CachePath(const MhLocal* local) { return mh_file(local->path, "mh_cache.dat"); }
std::string QueuePath(const MhLocal* local) { return mh_file(local->path, "mh_updat.dat"); }

// A test asked the driver to die here: descriptors go, nothing is tidied.
bool Crash(MhLocal* local, const char* step) {
  if (!mh_crash_here(step)) return false;
  mh_close_cache(local);
  return true;
}

// --- The update queue --------------------------------------------------------

// Which numbers the index holds, for telling a queue record already
// applied (by a check stopped before it could delete the queue) from a new
// one. Appends take numbers above every message there, so the index's last
// records settle almost every question; only a number no higher than
// theirs makes the whole index be read.
class IndexNumbers {
 public:
  IndexNumbers(int index_fd, uint32_t nmsgs, uint64_t tail) : fd_(index_fd), nmsgs_(nmsgs) {
    Read(nmsgs > tail ? nmsgs - tail + 1 : 1);
    for (uint32_t n : numbers_) tail_max_ = std::max(tail_max_, n);
  }
  // True the first time a number is offered that the index doesn't hold.
  bool Add(uint32_t number) {
    if (number <= tail_max_ && !whole_) {
      whole_ = true;
      Read(1);
    }
    return numbers_.insert(number).second;
  }

 private:
  void Read(uint64_t first) {
    std::vector<uint8_t> chunk(kRecordsPerChunk * kMhRecordSize);
    for (uint64_t i = first; i <= nmsgs_;) {
      const uint64_t n = std::min<uint64_t>(nmsgs_ - i + 1, kRecordsPerChunk);
      if (!mh_pread(fd_, chunk.data(), n * kMhRecordSize, mh_record_offset(i))) break;
      for (uint64_t k = 0; k < n; ++k) {
        MhIndexRecord r;
        mh_decode_record(chunk.data() + k * kMhRecordSize, &r);
        numbers_.insert(r.number);
      }
      i += n;
    }
  }

  int fd_;
  uint32_t nmsgs_;
  uint32_t tail_max_ = 0;
  bool whole_ = false;
  std::unordered_set<uint32_t> numbers_;
};

// Applies one queued record: the message's structure to the cache, its
// record to the index at position `at`. The sizes are taken from the file
// itself (the queue is written by other programs); the queued flags stay.
// 1 applied, 0 skipped (no such message), -1 failed.
int ApplyOne(MhLocal* local, const MhIndexRecord& queued, unsigned long at) {
  MhIndexRecord r;
  if (!mh_new_record(local->path, queued.number, queued.flags, &r)) return 0;
  r.flags = queued.flags;
  r.user_flags = queued.user_flags;
  r.changed = queued.changed;
  std::memcpy(r.reserved, queued.reserved, sizeof r.reserved);
  Envelope* env = nullptr;
  BodyPart* body = nullptr;
  if (mh_parse_message(local->path, r.number, r.header_size, &env, &body)) {
    uint32_t envelope_size = 0, body_size = 0;
    std::string bytes = mh_structure_record(r.number, env, body, &envelope_size, &body_size);
    mail_free_envelope(&env);
    mail_free_body(&body);
    if (!bytes.empty() && !mh_append_structure(local->cache_file, bytes, envelope_size, body_size, &r)) {
      Log(mail_format("Failed to write message structure record during MH cache update - %s", mh_error()), 2);
      return -1;
    }
  }
  if (!mh_write_record(local->index_file, at, r)) {
    Log(mail_format("Failed to append to MH cache index file - %s", mh_error()), 2);
    return -1;
  }
  return 1;
}

enum class QueueResult { kApplied, kFailed, kDamaged };

// Applies mh_updat.dat to the index whose header is h, reading on while
// appenders add to it, and deletes it. On failure the queue stays for the
// next check, which applies it again from its first record.
QueueResult ApplyQueue(MailStream* stream, MhIndexHeader* h) {
  MhLocal* local = mh_local(stream);
  const std::string queue_path = QueuePath(local);
  int queue = ::open(queue_path.c_str(), O_RDONLY | O_CLOEXEC);
  if (queue < 0) {
    if (errno == ENOENT) return QueueResult::kApplied;
    Log(mail_format("Failed to open MH cache update file - %s", mh_error()), 2);
    return QueueResult::kFailed;
  }
  uint64_t size = FileSize(queue);
  if (size % kMhRecordSize != 0) {
    // A record written part-way shifts every one after it: the queue can't
    // be read. The rebuild finds its messages as files.
    ::close(queue);
    return QueueResult::kDamaged;
  }
  IndexNumbers seen(local->index_file, h->nmsgs, size / kMhRecordSize);
  uint32_t applied = 0;
  uint64_t done = 0;
  std::vector<uint8_t> chunk(kRecordsPerChunk * kMhRecordSize);
  bool ok = true;
  while (ok && done < size) {
    const size_t want = static_cast<size_t>(std::min<uint64_t>(size - done, chunk.size()));
    if (!mh_pread(queue, chunk.data(), want, static_cast<off_t>(done))) {
      Log(mail_format("Failed to open MH cache update file - %s", mh_error()), 2);
      ok = false;
      break;
    }
    for (size_t k = 0; ok && k + kMhRecordSize <= want; k += kMhRecordSize) {
      MhIndexRecord queued;
      mh_decode_record(chunk.data() + k, &queued);
      if (queued.number == 0 || !seen.Add(queued.number)) continue;
      if (uint64_t{h->nmsgs} + applied + 1 > kMaxRecords) continue;
      int result = ApplyOne(local, queued, h->nmsgs + applied + 1);
      if (result < 0) ok = false;
      if (result > 0) ++applied;
    }
    done += want;
    // Appenders may have added records meanwhile: read on to the end.
    if (done == size) {
      uint64_t now = FileSize(queue);
      if (now > size && now % kMhRecordSize == 0) size = now;
    }
  }
  ::close(queue);
  if (!ok || Crash(local, "update-appended")) return QueueResult::kFailed;
  h->nmsgs += applied;
  h->recent += applied;
  if (applied && !mh_write_header(local->index_file, *h)) {
    Log(mail_format("Failed to append to MH cache index file - %s", mh_error()), 2);
    h->nmsgs -= applied;
    h->recent -= applied;
    return QueueResult::kFailed;
  }
  if (Crash(local, "update-committed")) return QueueResult::kFailed;
  ::unlink(queue_path.c_str());
  return QueueResult::kApplied;
}

// Reads the records the stream has not seen, in large sequential reads,
// and fills their elements. A record that can't be right stops the read:
// *insane then says so, and the caller decides what to do.
bool ReadRecords(MailStream* stream, uint32_t nmsgs, unsigned long* filled, bool* insane) {
  MhLocal* local = mh_local(stream);
  const uint64_t cache_size = FileSize(local->cache_file);
  std::vector<uint8_t> chunk(kRecordsPerChunk * kMhRecordSize);
  unsigned long i = stream->nmsgs + 1;
  *filled = stream->nmsgs;
  // The element array grows once, not once a message.
  if (nmsgs > stream->nmsgs) mailcache(stream, nmsgs, CH_SIZE);
  while (i <= nmsgs) {
    const size_t n = std::min<size_t>(nmsgs - i + 1, kRecordsPerChunk);
    if (!mh_pread(local->index_file, chunk.data(), n * kMhRecordSize, mh_record_offset(i))) {
      *insane = true;
      return false;
    }
    for (size_t k = 0; k < n; ++k, ++i) {
      MhIndexRecord r;
      mh_decode_record(chunk.data() + k * kMhRecordSize, &r);
      if (!mh_record_sane(r, cache_size)) {
        *insane = true;
        return false;
      }
      mh_fill_element(stream, i, r, local->last_seen);
      *filled = i;
    }
  }
  return true;
}

// How old a message file must be before a check takes it from another
// program: younger ones may still be being written.
constexpr time_t kForeignFileSettle = 2;

// Numbers already waiting in the queue.
std::vector<uint32_t> QueuedNumbers(const std::string& queue_path) {
  std::vector<uint32_t> numbers;
  int fd = ::open(queue_path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return numbers;
  const uint64_t size = FileSize(fd);
  std::vector<uint8_t> bytes(static_cast<size_t>(std::min<uint64_t>(size, kMaxRecords * kMhRecordSize)));
  if (!bytes.empty() && mh_pread(fd, bytes.data(), bytes.size(), 0))
    for (size_t k = 0; k + kMhRecordSize <= bytes.size(); k += kMhRecordSize) {
      MhIndexRecord r;
      mh_decode_record(bytes.data() + k, &r);
      numbers.push_back(r.number);
    }
  ::close(fd);
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

// The ping proper. opening: an index that lies about the cache is reported
// through *insane without touching the stream's count, so that the open can
// rebuild and start again.
long Sync(MailStream* stream, bool opening, bool* insane) {
  *insane = false;
  if (stream->control) return 1;
  MhLocal* local = mh_local(stream);
  if (!local || local->index_file < 0 || local->cache_file < 0) return 0;
  MhIndexHeader h;
  if (!mh_read_header(local->index_file, &h) || h.version != kMhIndexVersion) {
    if (opening) {
      *insane = true;
    } else {
      mh_corrupt(stream);
    }
    return 0;
  }
  // Records the file can't hold: the header lies.
  if (uint64_t{h.nmsgs} * kMhRecordSize + kMhHeaderSize > FileSize(local->index_file)) {
    if (opening) {
      *insane = true;
    } else {
      mh_corrupt(stream);
    }
    return 0;
  }
  mh_queue_foreign_files(local, h);
  struct stat st;
  if (::stat(QueuePath(local).c_str(), &st) == 0 && st.st_size > 0) {
    // A queue that can't be applied now is tried again at the next check;
    // what the index holds is still good.
    QueueResult q = ApplyQueue(stream, &h);
    if (local->index_file < 0) return 0;  // stopped dead by a test
    if (q == QueueResult::kDamaged) {
      if (opening) {
        *insane = true;
        return 0;
      }
      mh_corrupt(stream);
    }
  }
  unsigned long filled = 0;
  if (!ReadRecords(stream, h.nmsgs, &filled, insane)) {
    if (opening) return 0;
    // The records that read well are the stream's; the index is marked, so
    // that the next open rebuilds.
    *insane = false;
    mh_corrupt(stream);
    mail_exists(stream, filled);
    mail_recent(stream, std::min<unsigned long>(h.recent, filled));
    return 0;
  }
  mail_exists(stream, h.nmsgs);
  mail_recent(stream, h.recent);
  return 1;
}

// --- Rebuild ---------------------------------------------------------------

// Records of the old index, its backup and the queue, by number: where the
// flags of a message survive a rebuild. The index's own record of a number
// is the message's; a backup's or the queue's is believed only for a file
// of the size it gives, since a number freed by an expunge is given out
// again to the next message appended.
struct OldRecord {
  MhIndexRecord record;
  bool from_index;
};

struct OldRecords {
  bool have_header = false;
  MhIndexHeader header{};
  std::vector<OldRecord> records;  // by number; for one number, index first

  const MhIndexRecord* Find(uint32_t number, uint64_t file_size) const {
    auto it = std::lower_bound(records.begin(), records.end(), number,
                               [](const OldRecord& a, uint32_t n) { return a.record.number < n; });
    for (; it != records.end() && it->record.number == number; ++it)
      if (it->from_index || it->record.size == file_size) return &it->record;
    return nullptr;
  }
};

void ReadRecordFile(int fd, uint64_t from, bool from_index, std::vector<OldRecord>* out) {
  const uint64_t size = FileSize(fd);
  if (size <= from) return;
  const uint64_t count = std::min<uint64_t>((size - from) / kMhRecordSize, kMaxRecords);
  std::vector<uint8_t> chunk(kRecordsPerChunk * kMhRecordSize);
  for (uint64_t i = 0; i < count;) {
    const uint64_t n = std::min<uint64_t>(count - i, kRecordsPerChunk);
    if (!mh_pread(fd, chunk.data(), n * kMhRecordSize, static_cast<off_t>(from + i * kMhRecordSize))) return;
    for (uint64_t k = 0; k < n; ++k) {
      OldRecord r{{}, from_index};
      mh_decode_record(chunk.data() + k * kMhRecordSize, &r.record);
      if (r.record.number) out->push_back(r);
    }
    i += n;
  }
}

OldRecords ReadOldRecords(const MhLocal* local) {
  OldRecords old;
  for (const char* name : {"mh_index.dat", "mh_index.bak"}) {
    int fd = ::open(mh_file(local->path, name).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    MhIndexHeader header;
    if (mh_read_header(fd, &header)) {
      if (!old.have_header) old.header = header;
      old.have_header = true;
      ReadRecordFile(fd, kMhHeaderSize, std::strcmp(name, "mh_index.dat") == 0, &old.records);
    }
    ::close(fd);
  }
  int queue = ::open(QueuePath(local).c_str(), O_RDONLY | O_CLOEXEC);
  if (queue >= 0) {
    if (FileSize(queue) % kMhRecordSize == 0) ReadRecordFile(queue, 0, false, &old.records);
    ::close(queue);
  }
  std::stable_sort(old.records.begin(), old.records.end(),
                   [](const OldRecord& a, const OldRecord& b) { return a.record.number < b.record.number; });
  return old;
}

bool ListMessages(const char* dir, std::vector<uint32_t>* numbers) {
  DIR* d = ::opendir(dir);
  if (!d) {
    Log(mail_format("Failed to open folder directory %s - %s", dir, mh_error()), 2);
    return false;
  }
  numbers->reserve(100);
  while (struct dirent* e = ::readdir(d)) {
    uint32_t n;
    if (mh_message_number(e->d_name, &n)) numbers->push_back(n);
  }
  ::closedir(d);
  std::sort(numbers->begin(), numbers->end());
  return true;
}

}  // namespace

// --- Records and elements -------------------------------------------------

void mh_corrupt(MailStream* stream) {
  MhLocal* local = mh_local(stream);
  if (local && local->index_file >= 0) {
    static const uint8_t kZero[4] = {};
    safe_pwrite_all(local->index_file, kZero, sizeof kZero, 0);
  }
  mm_notify(stream, "MH mailbox - intermediate cache is corrupt!", 2);
}

void mh_fill_element(MailStream* stream, unsigned long msgno, const MhIndexRecord& r, uint32_t last_seen) {
  MessageElt* e = mail_elt(stream, msgno);
  e->seen = (r.flags & kMhSeen) != 0;
  e->deleted = (r.flags & kMhDeleted) != 0;
  e->flagged = (r.flags & kMhFlagged) != 0;
  e->answered = (r.flags & kMhAnswered) != 0;
  e->draft = (r.flags & kMhDraft) != 0;
  e->user_flags = r.user_flags;
  e->recent = r.number > last_seen;
  // The internal date is the file's time, in universal time.
  int year;
  unsigned month, day;
  CivilFromDays(r.mtime / 86400, &year, &month, &day);
  const unsigned seconds = r.mtime % 86400;
  e->year = static_cast<unsigned>(std::clamp(year - 1969, 0, 127));
  e->month = month;
  e->day = day;
  e->hours = seconds / 3600;
  e->minutes = seconds / 60 % 60;
  e->seconds = seconds % 60;
  e->zone_west = 0;
  e->zone_hours = 0;
  e->zone_minutes = 0;
  e->rfc822_size = r.size;
  e->file_number = r.number;
  e->header_size = r.header_size;
}

uint32_t mh_element_flags(const MessageElt* e) {
  return (e->seen ? kMhSeen : 0) | (e->deleted ? kMhDeleted : 0) | (e->flagged ? kMhFlagged : 0) |
         (e->answered ? kMhAnswered : 0) | (e->draft ? kMhDraft : 0);
}

long mh_write_flags(MailStream* stream, unsigned long msgno) {
  MhLocal* local = mh_local(stream);
  // A read-only stream changes flags in memory only.
  if (!local || stream->rdonly) return 1;
  if (local->index_file < 0) return 0;  // closed by a failed expunge
  MessageElt* elt = mail_elt(stream, msgno);
  MhIndexRecord r;
  // Written only over the message's own record, never another's.
  if (!mh_read_record(local->index_file, msgno, &r) || r.number != elt->file_number) {
    mh_corrupt(stream);
    return 0;
  }
  // Bits this program doesn't know belong to whoever set them.
  r.flags = (r.flags & ~kKnownFlags) | mh_element_flags(elt);
  r.user_flags = static_cast<uint32_t>(elt->user_flags);
  r.changed = static_cast<uint32_t>(std::time(nullptr));
  if (!mh_write_record(local->index_file, msgno, r)) {
    Log(mail_format("Failed to write flags to MH cache index file - %s", mh_error()), 2);
    return 0;
  }
  return 1;
}

bool mh_new_record_open(int fd, const struct stat& st, const char* dir, uint32_t number, uint32_t flags,
                        MhIndexRecord* record) {
  if (static_cast<uint64_t>(st.st_size) > UINT32_MAX) {
    errno = EFBIG;
    Log(mail_format("Failed to stat MH message file - %s", mh_error()), 2);
    return false;
  }
  long header_size = rfc822_header_size(fd);
  // An empty message (or one that can't be read) has no header: it is not
  // counted, and its file stays.
  if (header_size <= 0) return false;
  *record = MhIndexRecord{};
  record->number = number;
  record->mtime = static_cast<uint32_t>(std::max<time_t>(st.st_mtime, 0));
  record->size = static_cast<uint32_t>(st.st_size);
  record->header_size = static_cast<uint32_t>(header_size);
  record->flags = flags;
  // Older versions and other tools kept a message's flags beside it.
  std::string status = mh_message_path(dir, number) + ".st";
  int sfd = ::open(status.c_str(), O_RDONLY | O_CLOEXEC);
  if (sfd >= 0) {
    uint8_t bytes[8];
    if (mh_pread(sfd, bytes, sizeof bytes, 0)) {
      record->flags = uint32_t{bytes[0]} | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 |
                      uint32_t{bytes[3]} << 24;
      record->user_flags = uint32_t{bytes[4]} | uint32_t{bytes[5]} << 8 | uint32_t{bytes[6]} << 16 |
                           uint32_t{bytes[7]} << 24;
    }
    ::close(sfd);
  }
  return true;
}

bool mh_new_record(const char* dir, uint32_t number, uint32_t flags, MhIndexRecord* record) {
  std::string path = mh_message_path(dir, number);
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) {
    Log(mail_format("Failed to stat MH message file - %s", mh_error()), 2);
    return false;
  }
  if (!S_ISREG(st.st_mode)) return false;
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    Log(mail_format("Failed to open MH message file - %s", mh_error()), 2);
    return false;
  }
  bool ok = mh_new_record_open(fd, st, dir, number, flags, record);
  ::close(fd);
  return ok;
}

// --- Opening the cache -------------------------------------------------------

void mh_close_cache(MhLocal* local) {
  if (!local) return;
  mh_close_fd(&local->index_file);
  mh_close_fd(&local->cache_file);
}

long mh_open_cache(MailStream* stream) {
  MhLocal* local = mh_local(stream);
  const std::string index_path = IndexPath(local);
  bool rebuilt = false;
  if (!Exists(index_path) || !Exists(CachePath(local))) {
    if (!mh_cache_rebuild(stream)) return 0;
    rebuilt = true;
  }
  MhIndexHeader h{};
  for (;;) {
    int fd = local_open_update(index_path);
    if (fd < 0) {
      Log(mail_format("Failed to open mailbox cache index file: %s%c%s.dat - %s", local->path, '/', "mh_index",
                      mh_error()),
          2);
      return 0;
    }
    // A header short or of another version, or records the file can't
    // hold: the index is rebuilt, once.
    const bool ok = mh_read_header(fd, &h) && h.version == kMhIndexVersion &&
                    uint64_t{h.nmsgs} * kMhRecordSize + kMhHeaderSize <= FileSize(fd);
    if (ok) {
      local->index_file = fd;
      break;
    }
    ::close(fd);
    if (rebuilt) {
      Log(mail_format("Corrupt mailbox cache index file: %s%c%s.dat - failed to rebuild", local->path, '/',
                      "mh_index"),
          2);
      return 0;
    }
    if (!mh_cache_rebuild(stream)) return 0;
    rebuilt = true;
  }
  local->last_seen = h.last_seen;
  local->cache_file = local_open_update(CachePath(local));
  if (local->cache_file < 0) {
    Log(mail_format("Failed to open mailbox cache file: %s%cmh_cache.dat - %s", local->path, '/', mh_error()), 2);
    mh_close_cache(local);
    return 0;
  }
  return 1;
}

// --- Ping and check ---------------------------------------------------------

long mh_sync(MailStream* stream) {
  bool insane = false;
  return Sync(stream, false, &insane);
}

long mh_ping(MailStream* stream) { return mh_sync(stream); }

void mh_check(MailStream* stream) { mh_sync(stream); }

// The first ping of an open: an index whose records don't fit the cache is
// rebuilt at once, rather than failing fetch after fetch.
long mh_open_sync(MailStream* stream) {
  bool insane = false;
  if (Sync(stream, true, &insane)) return 1;
  if (!insane) return 0;
  MhLocal* local = mh_local(stream);
  mailcache(stream, 0, CH_INIT);
  mh_corrupt(stream);
  mh_close_cache(local);
  if (!mh_cache_rebuild(stream) || !mh_open_cache(stream)) return 0;
  if (Sync(stream, true, &insane)) return 1;
  if (insane) {
    Log(mail_format("Corrupt mailbox cache index file: %s%c%s.dat - failed to rebuild", local->path, '/',
                    "mh_index"),
        2);
  }
  return 0;
}

// --- Rebuild ------------------------------------------------------------------

long mh_cache_rebuild(MailStream* stream) {
  MhLocal* local = mh_local(stream);
  if (!local) return 0;
  mm_notify(stream, "Rebuilding MH cache database - this may take awhile.", 1);
  MhNewFiles out;
  out.index_path = mh_file(local->path, "mh_index.new");
  out.cache_path = mh_file(local->path, "mh_cache.new");
  out.index.fd = local_create_new(out.index_path);
  if (out.index.fd < 0) {
    Log(mail_format("Failed to open new index file during MH cache rebuild: %s - %s", out.index_path.c_str(),
                    mh_error()),
        2);
    return 0;
  }
  out.cache.fd = local_create_new(out.cache_path);
  if (out.cache.fd < 0) {
    Log(mail_format("Failed to open new cache file during MH cache rebuild: %s - %s", out.cache_path.c_str(),
                    mh_error()),
        2);
    return 0;
  }
  std::vector<uint32_t> numbers;
  if (!ListMessages(local->path, &numbers)) return 0;
  numbers.resize(std::min<size_t>(numbers.size(), kMaxRecords));
  const OldRecords old = ReadOldRecords(local);

  MhIndexHeader header{kMhIndexVersion, static_cast<uint32_t>(numbers.size()), 0, 0};
  if (old.have_header) {
    header.recent = old.header.recent;
    header.last_seen = old.header.last_seen;
  }
  uint8_t bytes[kMhRecordSize];
  mh_encode_header(header, bytes);
  if (!mh_writer_put(&out.index, bytes, kMhHeaderSize)) {
    Log(mail_format("Failed to write new index header during MH cache rebuild - %s", mh_error()), 2);
    return 0;
  }
  static const uint8_t kLead[kMhCacheLead] = {};
  mh_writer_put(&out.cache, kLead, sizeof kLead);

  uint32_t count = 0;
  for (uint32_t number : numbers) {
    const std::string path = mh_message_path(local->path, number);
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      Log(mail_format("Failed to open MH message file - %s", mh_error()), 2);
      continue;
    }
    struct stat st;
    MhIndexRecord r;
    bool usable = false;
    if (::fstat(fd, &st) != 0) {
      Log(mail_format("Failed to stat MH message file - %s", mh_error()), 2);
    } else if (S_ISREG(st.st_mode)) {
      usable = mh_new_record_open(fd, st, local->path, number, 0, &r);
    }
    if (!usable) {
      ::close(fd);
      continue;
    }
    if (const MhIndexRecord* match = old.Find(number, r.size)) {
      // The sizes are the file's as it is now; what the user gave the
      // message (flags, its date) comes from the old record.
      r.mtime = match->mtime;
      r.changed = match->changed;
      r.flags = match->flags;
      r.user_flags = match->user_flags;
      std::memcpy(r.reserved, match->reserved, sizeof r.reserved);
    }
    Envelope* env = nullptr;
    BodyPart* body = nullptr;
    if (mh_parse_open_message(fd, path, st.st_size, r.header_size, &env, &body)) {
      uint32_t envelope_size = 0, body_size = 0;
      std::string record = mh_structure_record(number, env, body, &envelope_size, &body_size);
      if (!record.empty() && out.cache.written + record.size() <= UINT32_MAX) {
        r.cache_offset = static_cast<uint32_t>(out.cache.written);
        r.envelope_size = envelope_size;
        r.body_size = body_size;
        if (!mh_writer_put(&out.cache, record.data(), record.size())) {
          Log(mail_format("Failed to write message structure record during MH cache rebuild - %s", mh_error()), 2);
          mail_free_envelope(&env);
          mail_free_body(&body);
          ::close(fd);
          return 0;
        }
      }
      mail_free_envelope(&env);
      mail_free_body(&body);
    }
    ::close(fd);
    mh_encode_record(r, bytes);
    if (!mh_writer_put(&out.index, bytes, kMhRecordSize)) {
      Log(mail_format("Failed to write new index record during MH cache rebuild - %s", mh_error()), 2);
      return 0;
    }
    ++count;
  }
  if (!mh_writer_flush(&out.cache)) {
    Log(mail_format("Failed to write message structure record during MH cache rebuild - %s", mh_error()), 2);
    return 0;
  }
  if (!mh_writer_flush(&out.index)) {
    Log(mail_format("Failed to write new index record during MH cache rebuild - %s", mh_error()), 2);
    return 0;
  }
  // Messages dropped on the way (empty, vanished) are not counted.
  header.nmsgs = count;
  if (!mh_write_header(out.index.fd, header) || !safe_fsync(out.index.fd) || !safe_fsync(out.cache.fd)) {
    Log(mail_format("Failed to write new index header during MH cache rebuild - %s", mh_error()), 2);
    return 0;
  }
  mh_close_fd(&out.index.fd);
  mh_close_fd(&out.cache.fd);
  if (mh_crash_here("rebuild-written")) {
    out.keep = true;
    return 0;
  }
  // From here until the new index is in, the old one must not be believed.
  int old_index = local_open_update(IndexPath(local));
  if (old_index >= 0) {
    static const uint8_t kZero[4] = {};
    safe_pwrite_all(old_index, kZero, sizeof kZero, 0);
    ::close(old_index);
  }
  if (!file_install(mh_file(local->path, "mh_cache")) || !file_install(mh_file(local->path, "mh_index"))) {
    Log(mail_format("Failed to install rebuilt MH cache in %s - %s", local->path, mh_error()), 2);
    return 0;
  }
  out.keep = true;
  // Every queued message is a file the scan found.
  ::unlink(QueuePath(local).c_str());
  return 1;
}

void mh_queue_foreign_files(MhLocal* local, const MhIndexHeader& h) {
  struct stat ds;
  if (!local || !local->path || ::stat(local->path, &ds) != 0) return;
  const int64_t dir_time = int64_t{ds.st_mtim.tv_sec} * 1000000000 + ds.st_mtim.tv_nsec;
  if (dir_time == local->dir_mtime) return;
  // Appends take numbers above every message there: only files above the
  // index's last number can be new, and their own appenders queue most.
  uint32_t highest = 0;
  MhIndexRecord last;
  if (h.nmsgs && mh_read_record(local->index_file, h.nmsgs, &last)) highest = last.number;
  std::vector<uint32_t> numbers;
  DIR* d = ::opendir(local->path);
  if (!d) return;
  while (struct dirent* e = ::readdir(d)) {
    uint32_t n;
    if (mh_message_number(e->d_name, &n) && n > highest) numbers.push_back(n);
  }
  ::closedir(d);
  std::sort(numbers.begin(), numbers.end());
  const std::vector<uint32_t> queued = QueuedNumbers(QueuePath(local));
  const time_t now = ::time(nullptr);
  bool settled = true;
  for (uint32_t n : numbers) {
    if (std::binary_search(queued.begin(), queued.end(), n)) continue;
    struct stat st;
    const std::string path = mh_message_path(local->path, n);
    if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    if (now - st.st_mtime < kForeignFileSettle) {
      settled = false;
      continue;
    }
    MhIndexRecord r;
    if (mh_new_record(local->path, n, 0, &r)) mh_queue_record(local->path, r);
  }
  // Looked through only once the directory holds nothing that is still
  // settling; queueing changes the directory's time again, which costs one
  // more look at the next check.
  if (settled) local->dir_mtime = dir_time;
}
