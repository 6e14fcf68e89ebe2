// File access of the mh driver: exact reads, the sequential writer, index
// headers and records, and the test hook that stops the driver dead
// between two steps. Writes go through the safe writer, whose hooks make
// them fail.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "c-client/core/mail_core.h"
#include "c-client/mh/local_paths.h"
#include "c-client/mh/mh_internal.h"

namespace {

std::string g_crash_step;

}  // namespace

void mh_set_crash_point_for_test(const char* step) { g_crash_step = step ? step : ""; }
bool mh_crash_here(const char* step) { return !g_crash_step.empty() && g_crash_step == step; }

const char* mh_error() { return local_strerror(errno); }

ssize_t mh_pread_some(int fd, void* data, size_t size, off_t at) {
  char* p = static_cast<char*>(data);
  size_t got = 0;
  while (got < size) {
    ssize_t n = ::pread(fd, p + got, size - got, at + static_cast<off_t>(got));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(got);
}

bool mh_pread(int fd, void* data, size_t size, off_t at) {
  ssize_t n = mh_pread_some(fd, data, size, at);
  if (n < 0) return false;
  if (static_cast<size_t>(n) != size) {
    errno = EIO;
    return false;
  }
  return true;
}

void mh_close_fd(int* fd) {
  if (*fd >= 0) ::close(*fd);
  *fd = -1;
}

bool MhRecordReader::Next(MhIndexRecord* record, uint64_t* place) {
  constexpr size_t kPerChunk = kMhIoChunk / kMhRecordSize;
  while (used_ == have_) {
    if (failed_ || next_ >= count_) return false;
    const uint64_t at = from_ + next_ * kMhRecordSize;
    const off_t data = ::lseek(fd_, static_cast<off_t>(at), SEEK_DATA);
    if (data < 0 && errno == ENXIO) return false;  // nothing but a hole to the end
    if (data > static_cast<off_t>(at)) next_ = (static_cast<uint64_t>(data) - from_) / kMhRecordSize;
    if (next_ >= count_) return false;
    have_ = static_cast<size_t>(std::min<uint64_t>(count_ - next_, kPerChunk));
    chunk_.resize(have_ * kMhRecordSize);
    if (!mh_pread(fd_, chunk_.data(), chunk_.size(), static_cast<off_t>(from_ + next_ * kMhRecordSize))) {
      failed_ = true;
      have_ = 0;
      return false;
    }
    first_ = next_;
    next_ += have_;
    used_ = 0;
  }
  mh_decode_record(chunk_.data() + used_ * kMhRecordSize, record);
  if (place) *place = first_ + used_;
  ++used_;
  return true;
}

bool MhNewFiles::Open(const char* dir, const char* index_failure, const char* cache_failure) {
  index_path = mh_file(dir, "mh_index.new");
  cache_path = mh_file(dir, "mh_cache.new");
  index.fd = local_create_new(index_path);
  if (index.fd < 0) {
    mm_log(mail_format(index_failure, index_path.c_str(), mh_error()).c_str(), 2);
    return false;
  }
  cache.fd = local_create_new(cache_path);
  if (cache.fd < 0) {
    mm_log(mail_format(cache_failure, cache_path.c_str(), mh_error()).c_str(), 2);
    return false;
  }
  return true;
}

MhNewFiles::~MhNewFiles() {
  mh_close_fd(&index.fd);
  mh_close_fd(&cache.fd);
  if (!keep) {
    ::unlink(index_path.c_str());
    ::unlink(cache_path.c_str());
  }
}

bool mh_writer_flush(MhWriter* w) {
  if (w->failed) return false;
  if (!w->buffer.empty() && !safe_write_all(w->fd, w->buffer.data(), w->buffer.size())) {
    w->failed = true;
    return false;
  }
  w->buffer.clear();
  return true;
}

bool mh_writer_put(MhWriter* w, const void* data, size_t size) {
  if (w->failed) return false;
  w->written += size;
  if (w->buffer.capacity() < kMhIoChunk) w->buffer.reserve(kMhIoChunk);
  if (w->buffer.size() + size > kMhIoChunk) {
    if (!mh_writer_flush(w)) return false;
    if (size >= kMhIoChunk) {
      if (!safe_write_all(w->fd, data, size)) w->failed = true;
      return !w->failed;
    }
  }
  const uint8_t* p = static_cast<const uint8_t*>(data);
  w->buffer.insert(w->buffer.end(), p, p + size);
  return true;
}

// --- The folder's files -----------------------------------------------------

MhLocal* mh_local(MailStream* stream) { return stream ? static_cast<MhLocal*>(stream->local) : nullptr; }

std::string mh_file(const char* dir, const char* name) { return std::string(dir) + "/" + name; }

std::string mh_message_path(const char* dir, uint32_t number) {
  return std::string(dir) + "/" + std::to_string(number);
}

bool mh_read_header(int fd, MhIndexHeader* header) {
  uint8_t bytes[kMhHeaderSize];
  return fd >= 0 && mh_pread(fd, bytes, sizeof bytes, 0) && mh_decode_header(bytes, sizeof bytes, header);
}

bool mh_write_header(int fd, const MhIndexHeader& header) {
  uint8_t bytes[kMhHeaderSize];
  mh_encode_header(header, bytes);
  return fd >= 0 && safe_pwrite_all(fd, bytes, sizeof bytes, 0);
}

bool mh_read_record(int fd, unsigned long msgno, MhIndexRecord* record) {
  uint8_t bytes[kMhRecordSize];
  if (fd < 0 || msgno < 1 || !mh_pread(fd, bytes, sizeof bytes, mh_record_offset(msgno))) return false;
  mh_decode_record(bytes, record);
  return true;
}

bool mh_write_record(int fd, unsigned long msgno, const MhIndexRecord& record) {
  uint8_t bytes[kMhRecordSize];
  mh_encode_record(record, bytes);
  return fd >= 0 && msgno >= 1 && safe_pwrite_all(fd, bytes, sizeof bytes, mh_record_offset(msgno));
}

bool mh_header_fits(const MhIndexHeader& h, uint64_t file_size) {
  return h.version == kMhIndexVersion && h.nmsgs <= kMhMaxRecords &&
         uint64_t{h.nmsgs} * kMhRecordSize + kMhHeaderSize <= file_size;
}

bool mh_mark_untrusted(int index_fd) {
  static const uint8_t kZero[4] = {};
  return safe_pwrite_all(index_fd, kZero, sizeof kZero, 0) && safe_fsync(index_fd);
}

bool mh_record_sane(const MhIndexRecord& r, uint64_t cache_size) {
  if (r.number == 0 || r.header_size > r.size) return false;
  if (r.cache_offset == 0) return true;
  const uint64_t end = uint64_t{r.cache_offset} + 4 + r.envelope_size + r.body_size;
  return r.cache_offset >= kMhCacheLead && end <= cache_size && r.envelope_size + uint64_t{r.body_size} <= kMhMaxStructure;
}

bool mh_message_number(const char* name, uint32_t* number) {
  if (name[0] < '1' || name[0] > '9') return false;
  uint64_t n = 0;
  for (const char* p = name; *p; ++p) {
    if (*p < '0' || *p > '9') return false;
    n = n * 10 + static_cast<uint64_t>(*p - '0');
    if (n > UINT32_MAX) return false;
  }
  *number = static_cast<uint32_t>(n);
  return true;
}
