// The rebuild: mh_index.dat and mh_cache.dat made again from the message
// files, keeping what the user gave each message (flags, its date) from the
// old index, its backup or the queue.
//
// A message file that is there but can't be read now (too many open files,
// no permission, a read error) stops the rebuild: leaving it out would drop
// it from the index, and its flags with it at the next rebuild. Only a file
// that is gone, empty, or no file at all (a FIFO, a directory) is left out.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "c-client/core/mail_core.h"
#include "c-client/mh/local_paths.h"
#include "c-client/mh/mh_internal.h"

namespace {

void Log(const std::string& text, long level) { mm_log(text.c_str(), level); }

// The records of the old index, its backup and the queue that can describe
// the messages the folder holds now, read in bounded pieces: whatever a
// damaged file claims beyond those messages costs nothing. A number's
// record in mh_index.dat is the message's; one from the backup or the queue
// is believed only for a file of the size it gives, since a number freed by
// an expunge is given out again to the next message appended.
class OldRecords {
 public:
  OldRecords(const char* dir, const std::vector<uint32_t>& numbers)
      : numbers_(numbers), own_(numbers.size()) {
    for (const char* name : {"mh_index.dat", "mh_index.bak"}) {
      struct stat st;
      const int fd = local_open_read(mh_file(dir, name), &st);
      if (fd < 0) continue;
      MhIndexHeader h;
      if (mh_read_header(fd, &h)) {
        if (!have_header) header = h;
        have_header = true;
        Read(fd, kMhHeaderSize, static_cast<uint64_t>(st.st_size), std::strcmp(name, "mh_index.dat") == 0);
      }
      ::close(fd);
    }
    struct stat st;
    const int queue = local_open_read(mh_file(dir, "mh_updat.dat"), &st);
    if (queue >= 0) {
      if (st.st_size % kMhRecordSize == 0) Read(queue, 0, static_cast<uint64_t>(st.st_size), false);
      ::close(queue);
    }
    std::stable_sort(others_.begin(), others_.end(),
                     [](const Other& a, const Other& b) { return a.place < b.place; });
  }

  // The old record of numbers[place], for a file of file_size bytes.
  const MhIndexRecord* Find(size_t place, uint64_t file_size) const {
    if (own_[place].number) return &own_[place];
    auto it = std::lower_bound(others_.begin(), others_.end(), place,
                               [](const Other& o, size_t p) { return o.place < p; });
    for (; it != others_.end() && it->place == place; ++it)
      if (it->record.size == file_size) return &it->record;
    return nullptr;
  }

  bool have_header = false;
  MhIndexHeader header{};

 private:
  struct Other {
    size_t place;
    MhIndexRecord record;
  };

  void Read(int fd, uint64_t from, uint64_t size, bool own) {
    if (size <= from) return;
    MhRecordReader reader(fd, from, std::min<uint64_t>((size - from) / kMhRecordSize, kMhMaxRecords));
    MhIndexRecord r;
    while (reader.Next(&r)) {
      const auto it = std::lower_bound(numbers_.begin(), numbers_.end(), r.number);
      if (r.number == 0 || it == numbers_.end() || *it != r.number) continue;
      const size_t place = static_cast<size_t>(it - numbers_.begin());
      if (own) {
        if (!own_[place].number) own_[place] = r;
      } else if (others_.size() < 2 * numbers_.size() + 64) {
        // A backup and a queue hold a record or two a message; a file
        // repeating one number endlessly adds nothing.
        others_.push_back({place, r});
      }
    }
  }

  const std::vector<uint32_t>& numbers_;
  std::vector<MhIndexRecord> own_;  // by place in numbers_; number 0: none
  std::vector<Other> others_;
};

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
  numbers->resize(std::min<size_t>(numbers->size(), kMhMaxRecords));
  return true;
}

// One message into the new files. 1 written, 0 no message (left out), -1
// the rebuild must stop (reported).
int AddMessage(const char* dir, const OldRecords& old, size_t place, uint32_t number, MhNewFiles* out) {
  const std::string path = mh_message_path(dir, number);
  struct stat st;
  const int fd = local_open_read(path, &st);
  if (fd < 0) {
    if (errno == ENOENT) return 0;  // gone since the listing
    const bool no_message = mh_not_a_message(errno);
    Log(mail_format("Failed to open MH message file: %s - %s", path.c_str(), mh_error()), 2);
    return no_message ? 0 : -1;
  }
  MhIndexRecord r;
  int made = mh_new_record_open(fd, st, dir, number, 0, &r);
  if (made > 0) {
    if (const MhIndexRecord* match = old.Find(place, r.size)) {
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
    if (mh_parse_open_message(fd, path, static_cast<unsigned long>(st.st_size), r.header_size, &env, &body)) {
      uint32_t envelope_size = 0, body_size = 0;
      const std::string record = mh_structure_record(number, env, body, &envelope_size, &body_size);
      mail_free_envelope(&env);
      mail_free_body(&body);
      if (!record.empty() && out->cache.written + record.size() <= UINT32_MAX) {
        r.cache_offset = static_cast<uint32_t>(out->cache.written);
        r.envelope_size = envelope_size;
        r.body_size = body_size;
        if (!mh_writer_put(&out->cache, record.data(), record.size())) {
          Log(mail_format("Failed to write message structure record during MH cache rebuild - %s", mh_error()), 2);
          made = -1;
        }
      }
    }
    uint8_t bytes[kMhRecordSize];
    mh_encode_record(r, bytes);
    if (made > 0 && !mh_writer_put(&out->index, bytes, kMhRecordSize)) {
      Log(mail_format("Failed to write new index record during MH cache rebuild - %s", mh_error()), 2);
      made = -1;
    }
  }
  ::close(fd);
  return made;
}

}  // namespace

long mh_cache_rebuild(MailStream* stream) {
  MhLocal* local = mh_local(stream);
  if (!local) return 0;
  mm_notify(stream, "Rebuilding MH cache database - this may take awhile.", 1);
  std::vector<uint32_t> numbers;
  if (!ListMessages(local->path, &numbers)) return 0;
  const OldRecords old(local->path, numbers);
  MhNewFiles out;
  if (!out.Open(local->path, "Failed to open new index file during MH cache rebuild: %s - %s",
                "Failed to open new cache file during MH cache rebuild: %s - %s"))
    return 0;
  MhIndexHeader header{kMhIndexVersion, static_cast<uint32_t>(numbers.size()), 0, 0};
  if (old.have_header) {
    header.recent = old.header.recent;
    header.last_seen = old.header.last_seen;
  }
  uint8_t bytes[kMhHeaderSize];
  mh_encode_header(header, bytes);
  static const uint8_t kLead[kMhCacheLead] = {};
  if (!mh_writer_put(&out.index, bytes, kMhHeaderSize) || !mh_writer_put(&out.cache, kLead, sizeof kLead)) {
    Log(mail_format("Failed to write new index header during MH cache rebuild - %s", mh_error()), 2);
    return 0;
  }
  uint32_t count = 0;
  for (size_t place = 0; place < numbers.size(); ++place) {
    const int added = AddMessage(local->path, old, place, numbers[place], &out);
    if (added < 0) return 0;
    count += static_cast<uint32_t>(added);
  }
  if (!mh_writer_flush(&out.cache) || !mh_writer_flush(&out.index)) {
    Log(mail_format("Failed to write message structure record during MH cache rebuild - %s", mh_error()), 2);
    return 0;
  }
  // Messages left out on the way (empty, vanished) are not counted.
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
  // From here until the new index is in, the old one must not be believed:
  // it is marked, and synced, as an expunge marks it. Something that is no
  // file there is believed by nobody anyway.
  const std::string index_path = mh_file(local->path, "mh_index.dat");
  const int old_index = local_open_update(index_path);
  bool marked = old_index < 0 ? errno == ENOENT || mh_not_a_message(errno) : mh_mark_untrusted(old_index);
  if (old_index >= 0) {
    const int error = errno;
    ::close(old_index);
    errno = error;
  }
  if (!marked) {
    Log(mail_format("Failed to mark MH cache index file %s for rebuild - %s", index_path.c_str(), mh_error()), 2);
    return 0;
  }
  if (!file_install(mh_file(local->path, "mh_cache")) || !file_install(mh_file(local->path, "mh_index"))) {
    Log(mail_format("Failed to install rebuilt MH cache in %s - %s", local->path, mh_error()), 2);
    return 0;
  }
  out.keep = true;
  // Every queued message is a file the scan found.
  ::unlink(mh_file(local->path, "mh_updat.dat").c_str());
  return 1;
}
