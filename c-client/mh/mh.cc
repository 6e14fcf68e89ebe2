// The mh driver's table and its stream life: valid, open, close, flags,
// append, copy and move. The cache files are in mh_cache.cc, fetching in
// mh_fetch.cc, expunge and search in their own files; names, listing and
// folder creation in mh_names.cc.
#include "c-client/mh/mh.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "c-client/core/local_slots.h"
#include "c-client/core/mail_core.h"
#include "c-client/mh/mh_internal.h"
#include "c-client/mh/mh_names.h"
#include "c-client/rfc822/rfc822.h"

namespace {

void Log(const std::string& text, long level) { mm_log(text.c_str(), level); }

// --- Slots that do nothing for a local folder ------------------------------

using namespace local_slots;

constexpr MailStream Prototype(MailDriver* driver) {
  MailStream stream{};
  stream.driver = driver;
  return stream;
}

MailStream mh_prototype = Prototype(&mhdriver);

// --- The stream's local record ------------------------------------------------

MhLocal* NewLocal(const std::string& path) {
  auto* local = new MhLocal{};
  local->index_file = -1;
  local->cache_file = -1;
  local->path = cpystr(path.c_str());
  local->buffer_size = kMhBufferSize;
  local->buffer = static_cast<char*>(FS_GET(kMhBufferSize + 1));
  return local;
}

// Leaves the index saying that nothing is recent any more and which
// message was the last one seen, then lets go of the files.
void CloseLocal(MailStream* stream) {
  MhLocal* local = mh_local(stream);
  if (!local) return;
  if (stream->nmsgs && local->index_file >= 0 && !stream->rdonly) {
    MhIndexHeader h;
    if (mh_read_header(local->index_file, &h)) {
      h.recent = 0;
      h.last_seen = static_cast<uint32_t>(mail_elt(stream, stream->nmsgs)->file_number);
      mh_write_header(local->index_file, h);
    }
  }
  mh_close_cache(local);
  FS_GIVE(&local->path);
  FS_GIVE(&local->buffer);
  delete local;
  stream->local = nullptr;
}


// --- Flags ----------------------------------------------------------------

struct FlagName {
  const char* name;  // after the backslash, upper case
  size_t decide;     // letters that pick it
  uint32_t bit;
};

constexpr FlagName kFlags[] = {
    {"ANSWERED", 1, kMhAnswered}, {"DELETED", 2, kMhDeleted}, {"DRAFT", 2, kMhDraft},
    {"FLAGGED", 1, kMhFlagged},   {"SEEN", 1, kMhSeen},
};

void SetBits(MessageElt* e, uint32_t bits, bool on) {
  if (bits & kMhSeen) e->seen = on;
  if (bits & kMhDeleted) e->deleted = on;
  if (bits & kMhFlagged) e->flagged = on;
  if (bits & kMhAnswered) e->answered = on;
  if (bits & kMhDraft) e->draft = on;
}

// Changes the flags of the sequence's messages and writes each changed
// record through, syncing the index once at the end. False, said to the
// user, when a change could not be written: memory then holds what the
// user asked for, the index what it could take.
bool ChangeFlags(MailStream* stream, const char* sequence, const char* flags, bool on) {
  MhLocal* local = mh_local(stream);
  if (!local) return false;
  const uint32_t bits = mh_parse_flags(stream, flags);
  if (!mail_sequence(stream, sequence)) return false;
  bool ok = true, wrote = false;
  for (unsigned long i = 1; i <= stream->nmsgs; ++i) {
    auto* elt = static_cast<MessageElt*>(mailcache(stream, i, CH_ELT));
    if (!elt || !elt->sequence) continue;
    const uint32_t before = mh_element_flags(elt);
    SetBits(elt, bits, on);
    // A record is written only when its flags change, so that its time of
    // change stays true; after a failed write the rest are not tried, and
    // the user hears of it once.
    if (mh_element_flags(elt) != before && ok) {
      ok = mh_write_flags(stream, i) != 0;
      wrote = true;
    }
  }
  if (ok && wrote && !stream->rdonly && !safe_fsync(local->index_file)) {
    Log(mail_format("Failed to write flags to MH cache index file - %s", mh_error()), 2);
    ok = false;
  }
  return ok;
}

// --- Append ---------------------------------------------------------------

// The last number given out, and where: appending a run of messages to one
// folder costs one directory scan.
struct NumberMemory {
  std::string dir;
  uint32_t last = 0;
};

NumberMemory& Numbers() {
  static NumberMemory* m = new NumberMemory;
  return *m;
}

bool HighestNumber(const std::string& dir, uint32_t* highest) {
  NumberMemory& m = Numbers();
  if (m.dir == dir) {
    *highest = m.last;
    return true;
  }
  DIR* d = ::opendir(dir.c_str());
  if (!d) return false;
  uint32_t best = 0;
  while (struct dirent* e = ::readdir(d)) {
    uint32_t n;
    if (mh_message_number(e->d_name, &n) && n > best) best = n;
  }
  ::closedir(d);
  *highest = best;
  return true;
}

// Writes the source from its start in its own chunks. False if a write
// failed or the source gave fewer bytes than it promised.
bool WriteSource(int fd, StringSource* s) {
  const unsigned long size = s->size;
  string_setpos(s, 0);
  unsigned long done = 0;
  while (done < size) {
    if (!s->cursize) {
      // Refilling hands back the chunk's first byte; it stays in the chunk,
      // so step back over it and write the chunk whole.
      const unsigned long before = string_getpos(s);
      s->dtb->next(s);
      if (string_getpos(s) == before) break;  // the source has no more
      --s->curpos;
      ++s->cursize;
    }
    const unsigned long n = std::min(s->cursize, size - done);
    if (!safe_write_all(fd, s->curpos, n)) return false;
    s->curpos += n;
    s->cursize -= n;
    done += n;
  }
  if (done != size) {
    errno = EIO;
    return false;
  }
  return true;
}

// Creates the message file under a number nobody has: another writer (the
// background sender appending to the outbox) may take one at the same time.
int CreateMessage(const std::string& dir, uint32_t* number, std::string* path) {
  for (int tries = 0; tries < 1000; ++tries) {
    if (*number == UINT32_MAX) {
      errno = EFBIG;
      return -1;
    }
    ++*number;
    *path = mh_message_path(dir.c_str(), *number);
    // Read access too: the header's size is read back from the file.
    int fd = safe_open(path->c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  errno = EEXIST;
  return -1;
}

// The target of an append or a copy must be a folder; the reason it is not
// goes to the user.
bool AppendTarget(MailStream* stream, const char* mailbox) {
  if (mh_valid_name(mailbox, false)) return true;
  if (errno == ENOENT) {
    mm_notify(stream, "[TRYCREATE] Must create mailbox before append", 0);
  } else if (errno == EINVAL) {
    Log(mail_format("Invalid MH-format mailbox name: %s", mailbox), 2);
  } else {
    Log(mail_format("Not an MH-format mailbox: %s", mailbox), 2);
  }
  return false;
}

// The message files of one append or one copy: written and synced one by
// one, then queued together in one write. Until then they are nobody's,
// and a failure anywhere removes them all, so that no part of a copy is
// left behind for a retry to duplicate.
class NewMessages {
 public:
  explicit NewMessages(const char* mailbox) : mailbox_(mailbox), dir_(mh_path(mailbox)) {}
  NewMessages(const NewMessages&) = delete;
  NewMessages& operator=(const NewMessages&) = delete;
  ~NewMessages() {
    if (queued_ || paths_.empty()) return;
    for (const std::string& path : paths_) ::unlink(path.c_str());
    safe_sync_dir(dir_);
  }

  // Writes one message with the given flags; false, reported, on failure.
  bool Write(StringSource* message, uint32_t bits) {
    uint32_t number = 0;
    if (!HighestNumber(dir_, &number)) {
      Log(mail_format("Not an MH-format mailbox: %s", mailbox_), 2);
      return false;
    }
    std::string path;
    const int fd = CreateMessage(dir_, &number, &path);
    if (fd < 0) {
      Log(mail_format("Failed to open mailbox file %s to append message - %s", path.c_str(), mh_error()), 2);
      return false;
    }
    Numbers() = NumberMemory{dir_, number};
    paths_.push_back(path);
    // A message that isn't wholly on disk is not kept.
    if (!WriteSource(fd, message) || !safe_fsync(fd)) {
      Log(mail_format("Failed on write to message file %s - %s", path.c_str(), mh_error()), 2);
      ::close(fd);
      return false;
    }
    struct stat st;
    MhIndexRecord r;
    const int made = ::fstat(fd, &st) == 0 && ::lseek(fd, 0, SEEK_SET) == 0
                         ? mh_new_record_open(fd, st, dir_.c_str(), number, bits, &r)
                         : -1;
    ::close(fd);
    if (made == 0) {
      // Nothing that reads as a message, or a file too large.
      Log(mail_format("Failed on write to message file %s - %s", path.c_str(), "no message header"), 2);
    }
    if (made <= 0) return false;
    uint8_t bytes[kMhRecordSize];
    mh_encode_record(r, bytes);
    records_.append(reinterpret_cast<char*>(bytes), sizeof bytes);
    return true;
  }

  // The new names on disk, then their records in the queue.
  bool Queue() {
    if (paths_.empty()) return true;
    if (!safe_sync_dir(dir_)) {
      Log(mail_format("Failed on write to message file %s - %s", paths_.back().c_str(), mh_error()), 2);
      return false;
    }
    if (!mh_queue_records(dir_, records_)) {
      Log(mail_format("Failed to open MH cache index update file - %s", mh_error()), 2);
      return false;
    }
    queued_ = true;
    return true;
  }

 private:
  const char* mailbox_;
  std::string dir_;
  std::vector<std::string> paths_;
  std::string records_;
  bool queued_ = false;
};

}  // namespace

bool mh_queue_records(const std::string& dir, const std::string& records) {
  return safe_append_record(mh_file(dir.c_str(), "mh_updat.dat"), records.data(), records.size(), 0600);
}

// --- Slots --------------------------------------------------------------------

MailDriver* mh_valid(const char* name) { return mh_valid_name(name, false) ? &mhdriver : nullptr; }

void* mh_parameters(long, void*) { return nullptr; }

void mh_capabilities(MailStream*, long* word) {
  if (word) *word = CAP_WORKS | CAP_FOLDERS | CAP_SUBSCRIBE | CAP_FOLDERS_FULL;
}

MailStream* mh_open(MailStream* stream) {
  if (!stream) return &mh_prototype;
  if (stream->local) {
    CloseLocal(stream);
    mail_reset_cached(stream);
  }
  stream->local = NewLocal(mh_path(stream->mailbox));
  ++stream->sequence;
  if (stream->control) return stream;
  if (mh_open_cache(stream)) {
    stream->nmsgs = 0;
    stream->recent = 0;
    if (mh_open_sync(stream)) return stream;
  }
  // The stream goes without touching the index again.
  MhLocal* local = mh_local(stream);
  mh_close_cache(local);
  CloseLocal(stream);
  return nullptr;
}

void mh_close(MailStream* stream) {
  if (!stream) return;
  CloseLocal(stream);
  stream->driver = nullptr;
}

uint32_t mh_parse_flags(MailStream*, const char* list) {
  if (!list) return 0;
  std::string text(list);
  const bool open = !text.empty() && text.front() == '(';
  const bool close = !text.empty() && text.back() == ')';
  if (open != close || (open && text.size() < 2)) {
    Log("Bad flag list", 2);
    return 0;
  }
  if (open) text = text.substr(1, text.size() - 2);
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  uint32_t bits = 0;
  size_t i = 0;
  while (i < text.size()) {
    if (text[i] == ' ' || text[i] == '\t') {
      ++i;
      continue;
    }
    size_t end = text.find_first_of(" \t", i);
    if (end == std::string::npos) end = text.size();
    const std::string word = text.substr(i, end - i);
    i = end;
    if (word[0] != '\\') {
      Log(mail_format("Unknown flag: %.80s", word.c_str()), 2);
      continue;
    }
    // Only the first letters decide; the word must then be as long as the
    // flag's name.
    const std::string name = word.substr(1);
    bool known = false;
    for (const FlagName& f : kFlags) {
      if (name.compare(0, f.decide, f.name, f.decide) == 0 && name.size() == std::strlen(f.name)) {
        bits |= f.bit;
        known = true;
        break;
      }
    }
    if (!known) Log("Unknown message flag encountered.", 1);
  }
  return bits;
}

void mh_setflag(MailStream* stream, const char* sequence, const char* flags) {
  ChangeFlags(stream, sequence, flags, true);
}

void mh_clearflag(MailStream* stream, const char* sequence, const char* flags) {
  ChangeFlags(stream, sequence, flags, false);
}

long mh_append(MailStream* stream, const char* mailbox, const char* flags, const char* date, StringSource* message) {
  // The core asks with nothing at all whether we would take anything.
  if (!mailbox || !AppendTarget(stream, mailbox) || !message) return 0;
  // The date is checked, then the file's own time becomes the internal date.
  if (date) {
    MessageElt elt{};
    if (!mail_parse_date(&elt, date)) {
      Log("Bad date in append", 2);
      return 0;
    }
  }
  NewMessages added(mailbox);
  return added.Write(message, flags ? mh_parse_flags(stream, flags) : 0) && added.Queue() ? 1 : 0;
}

long mh_copy(MailStream* stream, const char* sequence, const char* mailbox) {
  MhLocal* local = mh_local(stream);
  if (!local || !mail_sequence(stream, sequence) || !AppendTarget(stream, mailbox)) return 0;
  NewMessages copies(mailbox);
  FileText file{};
  for (unsigned long i = 1; i <= stream->nmsgs; ++i) {
    auto* elt = static_cast<MessageElt*>(mailcache(stream, i, CH_ELT));
    if (!elt || !elt->sequence) continue;
    const std::string path = mh_message_path(local->path, static_cast<uint32_t>(elt->file_number));
    struct stat st;
    const int fd = local_open_read(path, &st);
    if (fd < 0) {
      Log(mail_format("Failed to open MH message file: %s - %s", path.c_str(), mh_error()), 2);
      return 0;
    }
    file.fd = fd;
    file.start = 0;
    StringSource source;
    string_init(&source, &file_string, &file, static_cast<unsigned long>(st.st_size));
    const bool written = copies.Write(&source, mh_element_flags(elt));
    ::close(fd);
    if (!written) return 0;
  }
  return copies.Queue() ? 1 : 0;
}

// A move whose copies are whole has happened: marks that can't then be
// written are said to the user, and the messages stay marked in memory, so
// that an expunge in this session removes them. A move whose copy failed
// marks nothing.
long mh_move(MailStream* stream, const char* sequence, const char* mailbox) {
  if (!mh_copy(stream, sequence, mailbox)) return 0;
  ChangeFlags(stream, sequence, "\\Deleted", true);
  return 1;
}

// --- The table ----------------------------------------------------------------

MailDriver mhdriver = {
    .name = "mh",
    .next = nullptr,
    .valid = mh_valid,
    .parameters = mh_parameters,
    .capabilities = mh_capabilities,
    .find = mh_find,
    .find_bboards = NoPattern,
    .find_all = mh_find_all,
    .find_all_bboards = NoPattern,
    .subscribe = mh_subscribe,
    .unsubscribe = mh_unsubscribe,
    .subscribe_bboard = NoBoard,
    .unsubscribe_bboard = NoBoard,
    .create = mh_create,
    .remove = mh_delete,
    .rename = mh_rename,
    .open = mh_open,
    .close = mh_close,
    .fetchfast = NoSequence,
    .fetchflags = NoSequence,
    .fetchstructure = mh_fetchstructure,
    .fetchheader = mh_fetchheader,
    .fetchtext = mh_fetchtext,
    .fetchbody = mh_fetchbody,
    .setflag = mh_setflag,
    .clearflag = mh_clearflag,
    .search = mh_search,
    .ping = mh_ping,
    .check = mh_check,
    .expunge = mh_expunge,
    .copy = mh_copy,
    .move = mh_move,
    .append = mh_append,
    .getacl = AclOk,
    .setacl = SetAclOk,
    .deleteacl = DeleteAclOk,
    .myrights = AclOk,
    .setquota = SetQuotaOk,
    .getquota = NoQuota,
    .gc = NoGc,
    .status = mh_status,
    .prototype = &mh_prototype,
};
