// The mh folder's cache files: opening them, bringing the stream up to date
// (ping and check, with the update queue), the corruption mark, and flags
// written through to the index. The rebuild is in mh_rebuild.cc.
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
//   deleted) is skipped. The queue goes only once what it brought is synced.
// - Every count a file gives is bounded by what the file can hold, and
//   records are read in 64 KB pieces: a damaged or hostile file costs time
//   and memory in proportion to the messages, never to its size.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <unordered_set>
#include <vector>

#include "c-client/mh/local_paths.h"
#include "c-client/core/mail_core.h"
#include "c-client/mh/mh_internal.h"
#include "c-client/rfc822/rfc822.h"

namespace {

constexpr uint32_t kKnownFlags = kMhSeen | kMhDeleted | kMhFlagged | kMhAnswered | kMhDraft;
constexpr size_t kRecordsPerChunk = kMhIoChunk / kMhRecordSize;

void Log(const std::string& text, long level) { mm_log(text.c_str(), level); }

// Whether a file stands at path. Something else there (a FIFO, a
// directory) is reported with the caller's text and taken as damage.
bool IsFile(const std::string& path, const char* failure) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return false;
  if (S_ISREG(st.st_mode)) return true;
  Log(mail_format(failure, path.c_str(), local_strerror(S_ISDIR(st.st_mode) ? EISDIR : kLocalNotAFile)), 2);
  return false;
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
// theirs makes the whole index be read. Four bytes a record.
class IndexNumbers {
 public:
  IndexNumbers(int index_fd, uint32_t nmsgs, uint64_t tail) : fd_(index_fd), nmsgs_(nmsgs) {
    Read(nmsgs > tail ? nmsgs - tail : 0);
    if (!numbers_.empty()) tail_max_ = numbers_.back();
  }
  bool Holds(uint32_t number) {
    if (number <= tail_max_ && !whole_) {
      whole_ = true;
      Read(0);
    }
    return std::binary_search(numbers_.begin(), numbers_.end(), number);
  }

 private:
  // The numbers of the records after the first `skip`.
  void Read(uint64_t skip) {
    numbers_.clear();
    MhRecordReader reader(fd_, mh_record_offset(skip + 1), nmsgs_ - skip);
    MhIndexRecord r;
    while (reader.Next(&r))
      if (r.number) numbers_.push_back(r.number);
    std::sort(numbers_.begin(), numbers_.end());
  }

  int fd_;
  uint32_t nmsgs_;
  uint32_t tail_max_ = 0;
  bool whole_ = false;
  std::vector<uint32_t> numbers_;
};

// Applies one queued record: the message's structure to the cache, its
// record to the index at position `at`. The sizes are taken from the file
// itself (the queue is written by other programs); the queued flags stay.
// 1 applied, 0 skipped (no such message), -1 failed.
int ApplyOne(MhLocal* local, const MhIndexRecord& queued, unsigned long at) {
  MhIndexRecord r;
  const int made = mh_new_record(local->path, queued.number, queued.flags, &r);
  if (made <= 0) return made;
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
  struct stat st;
  const int queue = local_open_read(queue_path, &st);
  if (queue < 0) {
    if (errno == ENOENT) return QueueResult::kApplied;
    const bool damaged = mh_not_a_message(errno);
    Log(mail_format("Failed to open MH cache update file - %s", mh_error()), 2);
    return damaged ? QueueResult::kDamaged : QueueResult::kFailed;
  }
  // A record written part-way shifts every one after it, and a queue longer
  // than any folder is no queue: the rebuild finds their messages as files.
  auto readable = [](uint64_t size) { return size % kMhRecordSize == 0 && size / kMhRecordSize <= kMhMaxRecords; };
  uint64_t size = static_cast<uint64_t>(st.st_size);
  if (!readable(size)) {
    ::close(queue);
    return QueueResult::kDamaged;
  }
  IndexNumbers in_index(local->index_file, h->nmsgs, size / kMhRecordSize);
  std::unordered_set<uint32_t> applied_numbers;  // each a message file
  uint32_t applied = 0;
  MhRecordReader reader(queue, 0, size / kMhRecordSize);
  MhIndexRecord queued;
  bool ok = true;
  while (ok) {
    if (!reader.Next(&queued)) {
      if (reader.failed()) {
        Log(mail_format("Failed to open MH cache update file - %s", mh_error()), 2);
        ok = false;
      }
      // Appenders may have added records meanwhile: read on to the end.
      const uint64_t now = FileSize(queue);
      if (!ok || now <= size || !readable(now)) break;
      size = now;
      reader.Extend(size / kMhRecordSize);
      continue;
    }
    if (queued.number == 0 || applied_numbers.count(queued.number) || in_index.Holds(queued.number)) continue;
    if (uint64_t{h->nmsgs} + applied + 1 > kMhMaxRecords) continue;
    const int result = ApplyOne(local, queued, h->nmsgs + applied + 1);
    if (result < 0) ok = false;
    if (result > 0) {
      ++applied;
      applied_numbers.insert(queued.number);
    }
  }
  ::close(queue);
  if (!ok || Crash(local, "update-appended")) return QueueResult::kFailed;
  if (applied) {
    MhIndexHeader after = *h;
    after.nmsgs += applied;
    after.recent += applied;
    if (!mh_write_header(local->index_file, after) || !safe_fsync(local->cache_file) ||
        !safe_fsync(local->index_file)) {
      Log(mail_format("Failed to append to MH cache index file - %s", mh_error()), 2);
      return QueueResult::kFailed;
    }
    *h = after;
  }
  if (Crash(local, "update-committed")) return QueueResult::kFailed;
  ::unlink(queue_path.c_str());
  return QueueResult::kApplied;
}

// Reads the records the stream has not seen and fills their elements. The
// element array grows as records prove sound, never by the header's count
// alone. A record that can't be right, or a hole where records should be,
// stops the read: *insane then says so, and the caller decides what to do.
bool ReadRecords(MailStream* stream, uint32_t nmsgs, unsigned long* filled, bool* insane) {
  MhLocal* local = mh_local(stream);
  const uint64_t cache_size = FileSize(local->cache_file);
  const unsigned long first = stream->nmsgs + 1;
  *filled = stream->nmsgs;
  MhRecordReader reader(local->index_file, mh_record_offset(first), nmsgs >= first ? nmsgs - first + 1 : 0);
  MhIndexRecord r;
  uint64_t place;
  while (reader.Next(&r, &place)) {
    const unsigned long msgno = first + static_cast<unsigned long>(place);
    if (msgno != *filled + 1 || !mh_record_sane(r, cache_size)) break;
    if (place % kRecordsPerChunk == 0)
      mailcache(stream, std::min<unsigned long>(nmsgs, msgno + kRecordsPerChunk - 1), CH_SIZE);
    mh_fill_element(stream, msgno, r, local->last_seen);
    *filled = msgno;
  }
  *insane = *filled != nmsgs;
  return !*insane;
}

// How old a message file must be before a check takes it from another
// program: younger ones may still be being written.
constexpr time_t kForeignFileSettle = 2;

// Those of the numbers (sorted) already waiting in the queue.
std::vector<uint32_t> QueuedAmong(const std::string& queue_path, const std::vector<uint32_t>& numbers) {
  std::vector<uint32_t> queued;
  struct stat st;
  const int fd = local_open_read(queue_path, &st);
  if (fd < 0) return queued;
  MhRecordReader reader(fd, 0, std::min<uint64_t>(static_cast<uint64_t>(st.st_size) / kMhRecordSize, kMhMaxRecords));
  MhIndexRecord r;
  while (reader.Next(&r))
    if (std::binary_search(numbers.begin(), numbers.end(), r.number)) queued.push_back(r.number);
  ::close(fd);
  std::sort(queued.begin(), queued.end());
  return queued;
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
  // Another version, or records the file can't hold: the header lies.
  if (!mh_read_header(local->index_file, &h) || !mh_header_fits(h, FileSize(local->index_file))) {
    if (opening) {
      *insane = true;
    } else {
      mh_corrupt(stream);
    }
    return 0;
  }
  mh_queue_foreign_files(local, h);
  struct stat st;
  if (::stat(QueuePath(local).c_str(), &st) == 0 && (st.st_size > 0 || !S_ISREG(st.st_mode))) {
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

}  // namespace

// --- Records and elements -------------------------------------------------

void mh_corrupt(MailStream* stream) {
  MhLocal* local = mh_local(stream);
  // A mark that can't be written leaves records that the next read finds
  // wrong again; the user hears of the damage either way.
  if (local && local->index_file >= 0) mh_mark_untrusted(local->index_file);
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
  if (local->index_file < 0) {
    // Closed by a failed expunge: the change can't be kept.
    Log("Failed to write flags to MH cache index file - the mailbox cache is closed", 2);
    return 0;
  }
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

int mh_new_record_open(int fd, const struct stat& st, const char* dir, uint32_t number, uint32_t flags,
                       MhIndexRecord* record) {
  if (static_cast<uint64_t>(st.st_size) > UINT32_MAX) {
    errno = EFBIG;
    Log(mail_format("Failed to stat MH message file - %s", mh_error()), 2);
    return 0;
  }
  // An empty message has no header: it is not counted, and its file stays.
  // A read error is reported by the reader.
  const long header_size = rfc822_header_size(fd);
  if (header_size <= 0) return header_size < 0 ? -1 : 0;
  *record = MhIndexRecord{};
  record->number = number;
  record->mtime = static_cast<uint32_t>(std::max<time_t>(st.st_mtime, 0));
  record->size = static_cast<uint32_t>(st.st_size);
  record->header_size = static_cast<uint32_t>(header_size);
  record->flags = flags;
  // Older versions and other tools kept a message's flags beside it.
  const std::string status = mh_message_path(dir, number) + ".st";
  const int sfd = local_open_read(status);
  if (sfd < 0) {
    const int error = errno;
    if (error == ENOENT) return 1;
    Log(mail_format("Failed to open MH message file: %s - %s", status.c_str(), local_strerror(error)), 2);
    return mh_not_a_message(error) ? 1 : -1;
  }
  uint8_t bytes[8];
  if (mh_pread(sfd, bytes, sizeof bytes, 0)) {
    record->flags = uint32_t{bytes[0]} | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 | uint32_t{bytes[3]} << 24;
    record->user_flags =
        uint32_t{bytes[4]} | uint32_t{bytes[5]} << 8 | uint32_t{bytes[6]} << 16 | uint32_t{bytes[7]} << 24;
  }
  ::close(sfd);
  return 1;
}

int mh_new_record(const char* dir, uint32_t number, uint32_t flags, MhIndexRecord* record) {
  const std::string path = mh_message_path(dir, number);
  struct stat st;
  const int fd = local_open_read(path, &st);
  if (fd < 0) {
    const int error = errno;
    if (error == ENOENT) return 0;  // removed before the check
    Log(mail_format("Failed to open MH message file: %s - %s", path.c_str(), local_strerror(error)), 2);
    return mh_not_a_message(error) ? 0 : -1;
  }
  const int made = mh_new_record_open(fd, st, dir, number, flags, record);
  ::close(fd);
  return made;
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
  if (!IsFile(index_path, "Failed to open mailbox cache index file: %s - %s") ||
      !IsFile(CachePath(local), "Failed to open mailbox cache file: %s - %s")) {
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
    const bool ok = mh_read_header(fd, &h) && mh_header_fits(h, FileSize(fd));
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
  if (numbers.empty()) {
    local->dir_mtime = dir_time;
    return;
  }
  std::sort(numbers.begin(), numbers.end());
  const std::vector<uint32_t> queued = QueuedAmong(QueuePath(local), numbers);
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
    uint8_t bytes[kMhRecordSize];
    const int made = mh_new_record(local->path, n, 0, &r);
    if (made < 0) settled = false;  // unreadable now: the next check tries again
    if (made <= 0) continue;
    mh_encode_record(r, bytes);
    mh_queue_records(local->path, std::string(reinterpret_cast<char*>(bytes), sizeof bytes));
  }
  // Looked through only once the directory holds nothing that is still
  // settling; queueing changes the directory's time again, which costs one
  // more look at the next check.
  if (settled) local->dir_mtime = dir_time;
}
