// What the mh driver's files share: file access through one place (so that
// tests can make writes fail or stop the driver dead), index records, the
// corruption mark, and parsing a message file for the cache. Not for use
// outside the driver.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "c-client/mh/local_paths.h"
#include "c-client/mh/mh.h"
#include "c-client/mh/mh_format.h"
#include "rclib/safe_file.h"

// Bytes read or written at once by the sequential passes (open, rebuild,
// expunge).
constexpr size_t kMhIoChunk = 64 * 1024;
// Bytes of a header given to the parser: a longer header is cut for the
// structure, though the text fetches still return all of it.
constexpr unsigned long kMhParseHeaderMax = 65000;
// The cache's first four bytes are zero: an offset of 0 in the index means
// "not parsed yet", so no structure record may stand there.
constexpr uint32_t kMhCacheLead = 4;
// An index or queue beyond this many records is not believed.
constexpr uint64_t kMhMaxRecords = 50'000'000;

// --- File access --------------------------------------------------------------

// Writes go through rclib/safe_file (safe_write_all, safe_pwrite_all,
// safe_fsync...), whose test hooks make them fail.
// Exact reads: false on an error or a short read (errno then EIO).
bool mh_pread(int fd, void* data, size_t size, off_t at);
// Up to size bytes; the count read, or -1.
ssize_t mh_pread_some(int fd, void* data, size_t size, off_t at);
void mh_close_fd(int* fd);
// True when a test asked the driver to die at this step.
bool mh_crash_here(const char* step);
// strerror of the current errno, for the reports.
const char* mh_error();
// An open refused this way means the name holds no message (a directory, a
// FIFO, a loop of links), not that one can't be read now.
inline bool mh_not_a_message(int error) { return error == EISDIR || error == kLocalNotAFile || error == ELOOP; }

// A sequential writer with a 64 KB buffer, for the files that the rebuild
// and the expunge write whole.
struct MhWriter {
  int fd = -1;
  uint64_t written = 0;  // bytes handed to the writer so far
  std::vector<uint8_t> buffer;
  bool failed = false;
};
bool mh_writer_put(MhWriter* w, const void* data, size_t size);
bool mh_writer_flush(MhWriter* w);

// Reads a file of index records (the index after its header, the queue) in
// 64 KB pieces, whatever size the file claims. The holes of a sparse file
// hold nothing but zero records, which name no message: they are stepped
// over without being read.
class MhRecordReader {
 public:
  // count records from byte `from`.
  MhRecordReader(int fd, uint64_t from, uint64_t count) : fd_(fd), from_(from), count_(count) {}
  // The next record and its place among the records (0 for the first);
  // false at the end, or at a failed read (failed() then says so).
  bool Next(MhIndexRecord* record, uint64_t* place = nullptr);
  bool failed() const { return failed_; }
  // Appenders added records while they were being read.
  void Extend(uint64_t count) { count_ = count > count_ ? count : count_; }

 private:
  int fd_;
  uint64_t from_, count_;
  uint64_t next_ = 0;   // the first record not yet in the buffer
  uint64_t first_ = 0;  // the buffer's first record
  size_t have_ = 0, used_ = 0;
  std::vector<uint8_t> chunk_;
  bool failed_ = false;
};

// The new index and cache that a rebuild or an expunge writes whole: closed
// and removed unless the writer sets keep once they are installed.
struct MhNewFiles {
  std::string index_path, cache_path;
  MhWriter index, cache;
  bool keep = false;
  // Creates both in dir, reporting a failure with the caller's texts
  // (each with the path and the reason).
  bool Open(const char* dir, const char* index_failure, const char* cache_failure);
  MhNewFiles() = default;
  MhNewFiles(const MhNewFiles&) = delete;
  MhNewFiles& operator=(const MhNewFiles&) = delete;
  ~MhNewFiles();
};

// --- The folder's files --------------------------------------------------------

MhLocal* mh_local(MailStream* stream);
std::string mh_file(const char* dir, const char* name);
std::string mh_message_path(const char* dir, uint32_t number);
// A directory entry that is a message file: digits only, no leading zero,
// not 0, within 32 bits (so that the name reads back as the same number).
bool mh_message_number(const char* name, uint32_t* number);
constexpr off_t mh_record_offset(unsigned long msgno) {
  return static_cast<off_t>(kMhHeaderSize + (msgno - 1) * kMhRecordSize);
}

bool mh_read_header(int fd, MhIndexHeader* header);
bool mh_write_header(int fd, const MhIndexHeader& header);
bool mh_read_record(int fd, unsigned long msgno, MhIndexRecord* record);
bool mh_write_record(int fd, unsigned long msgno, const MhIndexRecord& record);

// Whether a header is this program's, with a count the file can hold.
bool mh_header_fits(const MhIndexHeader& header, uint64_t file_size);
// Zeroes the index's version and syncs it: from here on the next open
// rebuilds. False with errno.
bool mh_mark_untrusted(int index_fd);
// The index can't be trusted: marks it, so that the next open rebuilds,
// and tells the user.
void mh_corrupt(MailStream* stream);
// An element from its index record: flags, date, sizes, file number.
void mh_fill_element(MailStream* stream, unsigned long msgno, const MhIndexRecord& record, uint32_t last_seen);
// Index flag bits and the element's, both ways.
uint32_t mh_element_flags(const MessageElt* elt);
// Writes an element's flags to its index record (one 52-byte write), with
// the time of the change. 0, said to the user, if the record could not be
// read or written.
long mh_write_flags(MailStream* stream, unsigned long msgno);

// Opens mh_index.dat and mh_cache.dat, rebuilding when they are missing or
// unusable; 1 on success. Closing drops both descriptors.
long mh_open_cache(MailStream* stream);
void mh_close_cache(MhLocal* local);
// The first ping of an open: an index that doesn't fit its cache, or a
// queue that can't be read, is rebuilt at once. 1 if the stream is usable.
long mh_open_sync(MailStream* stream);

// --- Message files --------------------------------------------------------------

// A new index record from the message file: stat, header size, flags, and
// the status file <number>.st if there is one. 1 made; 0 the file is no
// message (gone, empty, too large, not a file); -1 it could not be read now
// (reported), which must stop whoever would leave it out.
int mh_new_record(const char* dir, uint32_t number, uint32_t flags, MhIndexRecord* record);
// The same from the open file and its stat.
int mh_new_record_open(int fd, const struct stat& st, const char* dir, uint32_t number, uint32_t flags,
                       MhIndexRecord* record);
// Queues records for the folder's next check: one O_APPEND write to
// mh_updat.dat, fsync'ed. A queue that is not a file refuses (errno
// kLocalNotAFile); records written whole but not synced are taken back,
// unless another writer has appended since.
bool mh_queue_records(const std::string& dir, const std::string& records);
// Message files put into the folder by other programs without a queued
// record (a copy by hand, another mail tool) get one, so that they appear
// at the next check. Files written in the last seconds may still be being
// written and wait for a later check.
void mh_queue_foreign_files(MhLocal* local, const MhIndexHeader& header);
// Parses a message file for the cache, from its path or its descriptor
// (path then only names it in reports).
bool mh_parse_message(const char* dir, uint32_t number, uint32_t header_size, Envelope** env, BodyPart** body);
bool mh_parse_open_message(int fd, const std::string& path, unsigned long file_size, uint32_t header_size,
                           Envelope** env, BodyPart** body);
// A structure record: number, envelope, body. The two sizes exclude the
// number, as the index counts them. Empty when the structure is too big or
// too deep to cache.
std::string mh_structure_record(uint32_t number, const Envelope* env, const BodyPart* body, uint32_t* envelope_size,
                                uint32_t* body_size);
// Decodes a whole structure record (number, envelope, body).
bool mh_decode_structure(const std::string& record, uint32_t envelope_size, Envelope** env, BodyPart** body);
// Reads the structure record of an index record; false (nothing built) if
// it is not there or does not decode.
bool mh_read_structure(int cache_fd, const MhIndexRecord& record, Envelope** env, BodyPart** body);
// Appends a structure record at the end of the cache (after the lead when
// the cache is empty) and notes its place in record. errno on failure.
bool mh_append_structure(int cache_fd, const std::string& bytes, uint32_t envelope_size, uint32_t body_size,
                         MhIndexRecord* record);
// A message's text, read without marking it seen and without keeping it
// (the caller frees it): what a search looks through.
MailText* mh_read_text(MailStream* stream, unsigned long msgno);
// Whether a record can describe a message of a cache of cache_size bytes.
bool mh_record_sane(const MhIndexRecord& record, uint64_t cache_size);
