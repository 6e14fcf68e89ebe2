// Counts of a folder that is not open, from its index and update queue
// alone: the index holds every message's flags, so no message file is read
// and nothing is written. An index the driver doesn't trust (being rebuilt,
// another version, a header that counts more than the file holds) can't be
// answered cheaply: the answer is then "can't tell", and the folder's next
// open rebuilds it.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <unordered_set>
#include <vector>

#include "c-client/mh/mh_internal.h"
#include "c-client/mh/mh_names.h"

namespace {

struct Counts {
  unsigned long messages = 0, recent = 0, unseen = 0;
};

// The index: false when it can't be believed.
bool CountIndex(const std::string& dir, Counts* counts, std::vector<uint32_t>* numbers) {
  struct stat st;
  const int fd = local_open_read(mh_file(dir.c_str(), "mh_index.dat"), &st);
  if (fd < 0) return false;
  MhIndexHeader h;
  bool ok = mh_read_header(fd, &h) && mh_header_fits(h, static_cast<uint64_t>(st.st_size));
  if (ok) {
    MhRecordReader reader(fd, mh_record_offset(1), h.nmsgs);
    MhIndexRecord r;
    while (reader.Next(&r)) {
      // A hole or a zeroed record names no message; the open would find
      // the index insane and rebuild it.
      if (r.number == 0) {
        ok = false;
        break;
      }
      ++counts->messages;
      if (!(r.flags & kMhSeen)) ++counts->unseen;
      numbers->push_back(r.number);
    }
    ok = ok && !reader.failed() && counts->messages == h.nmsgs;
    counts->recent = std::min<unsigned long>(h.recent, counts->messages);
  }
  ::close(fd);
  std::sort(numbers->begin(), numbers->end());
  return ok;
}

// Records queued by appenders and not yet applied: the next check of the
// folder adds them as recent messages, each once, and only those whose file
// is there. A queue that can't be read adds nothing (the open repairs it).
void CountQueue(const std::string& dir, const std::vector<uint32_t>& in_index, Counts* counts) {
  struct stat st;
  const int fd = local_open_read(mh_file(dir.c_str(), "mh_updat.dat"), &st);
  if (fd < 0) return;
  const uint64_t size = static_cast<uint64_t>(st.st_size);
  if (size % kMhRecordSize != 0 || size / kMhRecordSize > kMhMaxRecords) {
    ::close(fd);
    return;
  }
  std::unordered_set<uint32_t> seen;
  MhRecordReader reader(fd, 0, size / kMhRecordSize);
  MhIndexRecord r;
  while (reader.Next(&r)) {
    if (r.number == 0 || std::binary_search(in_index.begin(), in_index.end(), r.number) ||
        seen.count(r.number))
      continue;
    struct stat file;
    if (::stat(mh_message_path(dir.c_str(), r.number).c_str(), &file) != 0 || !S_ISREG(file.st_mode) ||
        file.st_size == 0)
      continue;
    seen.insert(r.number);
    ++counts->messages;
    ++counts->recent;
    if (!(r.flags & kMhSeen)) ++counts->unseen;
  }
  ::close(fd);
}

}  // namespace

long mh_status(MailStream*, const char* mailbox, long flags, MailStatus* out) {
  // Without UIDs only the counts can be told.
  const long known = flags & (SA_MESSAGES | SA_RECENT | SA_UNSEEN);
  if (!mailbox || !out || !known || !mh_valid_name(mailbox, false)) return 0;
  const std::string dir = mh_path(mailbox);
  Counts counts;
  std::vector<uint32_t> numbers;
  if (!CountIndex(dir, &counts, &numbers)) return 0;
  CountQueue(dir, numbers, &counts);
  out->flags = known;
  out->messages = counts.messages;
  out->recent = counts.recent;
  out->unseen = counts.unseen;
  return 1;
}
