// What writes records to a dawz file: append, copy, move and expunge.
//
// An append or a copy writes at the end of the file and, on any failure,
// cuts the file back to the size it had, so that no part of a record is
// left for the next parse to stumble on. An expunge writes the kept records
// to a new file beside the old one, syncs it, renames it over the old one
// and syncs the directory: a failure at any step leaves the old file whole.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "c-client/core/mail_core.h"
#include "c-client/dawz/dawz.h"
#include "c-client/mh/local_paths.h"
#include "c-client/rfc822/strsrc.h"
#include "rclib/safe_file.h"

namespace {

constexpr size_t kCopyChunk = 64 * 1024;

const char* g_crash_point = nullptr;

bool CrashHere(const char* step) { return g_crash_point && std::strcmp(g_crash_point, step) == 0; }

void Log(const std::string& text, long level) { mm_log(text.c_str(), level); }

// Writes the source whole from its start.
bool WriteSource(int fd, StringSource* s) {
  string_setpos(s, 0);
  std::vector<char> chunk(kCopyChunk);
  unsigned long done = 0;
  while (done < s->size) {
    const size_t n = static_cast<size_t>(std::min<unsigned long>(chunk.size(), s->size - done));
    for (size_t i = 0; i < n; ++i) chunk[i] = string_next(s);
    if (!safe_write_all(fd, chunk.data(), n)) return false;
    done += n;
  }
  return true;
}

// Copies size bytes of one file from at to the end of another.
bool CopyBytes(int from, unsigned long at, unsigned long size, int to) {
  std::vector<char> chunk(kCopyChunk);
  while (size) {
    const size_t want = static_cast<size_t>(std::min<unsigned long>(chunk.size(), size));
    const ssize_t n = ::pread(from, chunk.data(), want, static_cast<off_t>(at));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = EIO;
      return false;
    }
    if (!safe_write_all(to, chunk.data(), static_cast<size_t>(n))) return false;
    at += static_cast<unsigned long>(n);
    size -= static_cast<unsigned long>(n);
  }
  return true;
}

// Takes back what a failed append or copy wrote. The failure's errno is kept.
void CutBack(int fd, off_t size) {
  const int error = errno;
  if (::ftruncate(fd, size) == 0) safe_fsync(fd);
  errno = error;
}

// The flags of an element as a flag list, for an append to another format.
std::string FlagList(const MessageElt* e) {
  std::string out;
  auto add = [&](bool on, const char* name) {
    if (!on) return;
    if (!out.empty()) out += ' ';
    out += name;
  };
  add(e->seen, "\\Seen");
  add(e->deleted, "\\Deleted");
  add(e->flagged, "\\Flagged");
  add(e->answered, "\\Answered");
  return "(" + out + ")";
}

// A copy to a mailbox of another driver goes through its append.
long CopyElsewhere(MailStream* stream, const char* mailbox) {
  DawzLocal* local = dawz_local(stream);
  FileText file{};
  for (unsigned long i = 1; i <= stream->nmsgs; ++i) {
    MessageElt* elt = mail_elt(stream, i);
    if (!elt->sequence) continue;
    file.fd = local->fd;
    file.start = dawz_text_start(elt);
    StringSource source;
    string_init(&source, &file_string, &file, elt->rfc822_size);
    char date[kMailDateSize];
    if (!mail_append(nullptr, mailbox, FlagList(elt).c_str(), mail_date(date, elt), &source)) return 0;
  }
  return 1;
}

}  // namespace

void dawz_set_crash_point_for_test(const char* step) { g_crash_point = step; }

long dawz_append(MailStream*, const char* mailbox, const char*, const char*, StringSource* message) {
  // The core asks with nothing whether we would take anything: we would not.
  if (!mailbox) return 0;
  const std::string path = dawz_file(mailbox);
  if (path.empty() || !dawz_is_mailbox(path)) {
    Log(mail_format("Not a Dawz-format mailbox: %s", mailbox), 2);
    return 0;
  }
  if (!message) return 0;
  if (!message->size) {
    // A record's size is never zero.
    Log(mail_format("Message append failed: %s", "empty message"), 2);
    return 0;
  }
  SafeFileError err;
  struct stat st;
  const int fd = safe_open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0600, &err, &st);
  if (fd < 0) {
    Log(mail_format("Can't open append mailbox: %s", local_strerror(err.error)), 2);
    return 0;
  }
  const off_t old = st.st_size;
  const std::string line = dawz_make_line(dawz_now(), message->size, 0, 0);
  if (!safe_write_all(fd, line.data(), line.size(), &err)) {
    CutBack(fd, old);
    ::close(fd);
    Log(mail_format("Header write failed: %s", std::strerror(err.error)), 2);
    return 0;
  }
  if (!WriteSource(fd, message) || !safe_fsync(fd)) {
    CutBack(fd, old);
    const int error = errno;
    ::close(fd);
    Log(mail_format("Message append failed: %s", std::strerror(error)), 2);
    return 0;
  }
  ::close(fd);
  return 1;
}

long dawz_copy(MailStream* stream, const char* sequence, const char* mailbox) {
  DawzLocal* local = dawz_local(stream);
  if (!local || local->fd < 0 || !mailbox || !mail_sequence(stream, sequence)) return 0;
  if (!dawz_valid(mailbox)) return CopyElsewhere(stream, mailbox);
  const std::string path = dawz_file(mailbox);
  SafeFileError err;
  struct stat st;
  const int fd = dawz_is_mailbox(path) ? safe_open(path.c_str(), O_WRONLY | O_APPEND, 0600, &err, &st) : -1;
  if (fd < 0) {
    Log(mail_format("Unable to open copy mailbox: %s", local_strerror(err.error ? err.error : ENOENT)), 2);
    return 0;
  }
  const off_t old = st.st_size;
  bool ok = true;
  for (unsigned long i = 1; ok && i <= stream->nmsgs; ++i) {
    MessageElt* elt = mail_elt(stream, i);
    if (!elt->sequence) continue;
    char date[kMailDateSize];
    const std::string line = dawz_make_line(mail_date(date, elt), elt->rfc822_size, 0, 0);
    ok = safe_write_all(fd, line.data(), line.size()) && CopyBytes(local->fd, dawz_text_start(elt), elt->rfc822_size, fd);
  }
  if (ok) ok = safe_fsync(fd);
  if (!ok) {
    CutBack(fd, old);
    const int error = errno;
    ::close(fd);
    Log(mail_format("Unable to write message: %s", std::strerror(error)), 2);
    return 0;
  }
  ::close(fd);
  return 1;
}

long dawz_move(MailStream* stream, const char* sequence, const char* mailbox) {
  if (!dawz_copy(stream, sequence, mailbox)) return 0;
  dawz_setflag(stream, sequence, "\\Deleted");
  return 1;
}

void dawz_expunge(MailStream* stream) {
  DawzLocal* local = dawz_local(stream);
  if (!local || local->fd < 0) return;
  if (stream->rdonly) {
    mm_log("Expunge ignored on readonly mailbox", 1);
    return;
  }
  // Records other writers appended are read first, so that they are kept.
  if (!dawz_parse(stream)) return;
  unsigned long deleted = 0;
  for (unsigned long i = 1; i <= stream->nmsgs; ++i) deleted += mail_elt(stream, i)->deleted;
  if (!deleted) {
    mm_log("No messages deleted, so no update needed", 0);
    return;
  }
  const std::string fresh = local->path + ".expunge";
  SafeFileError err;
  const int fd = local_create_new(fresh, &err);
  auto fail = [&](int out_fd) {
    const int error = err.error ? err.error : errno;
    if (out_fd >= 0) ::close(out_fd);
    ::unlink(fresh.c_str());
    Log(mail_format("Unable to write new mailbox file: %s - %s", fresh.c_str(), std::strerror(error)), 2);
  };
  if (fd < 0) return fail(-1);
  // Where each kept record goes in the new file.
  std::vector<unsigned long> places(stream->nmsgs + 1, 0);
  unsigned long written = 0;
  for (unsigned long i = 1; i <= stream->nmsgs; ++i) {
    MessageElt* elt = mail_elt(stream, i);
    if (elt->deleted) continue;
    const unsigned long size = dawz_line_length(elt) + elt->rfc822_size;
    if (!CopyBytes(local->fd, elt->file_number, size, fd)) return fail(fd);
    places[i] = written;
    written += size;
  }
  // Bytes appended since the parse above still belong to the mailbox.
  struct stat st;
  if (::fstat(local->fd, &st) == 0 && static_cast<unsigned long>(st.st_size) > local->filesize) {
    const unsigned long extra = static_cast<unsigned long>(st.st_size) - local->filesize;
    if (!CopyBytes(local->fd, local->filesize, extra, fd)) return fail(fd);
  }
  if (!safe_fsync(fd, &err)) return fail(fd);
  if (CrashHere("written")) {
    ::close(fd);
    return;
  }
  if (!safe_rename(fresh.c_str(), local->path.c_str(), &err)) return fail(fd);
  if (CrashHere("renamed")) {
    ::close(fd);
    return;
  }
  if (!safe_sync_dir(safe_dir_of(local->path), &err))
    Log(mail_format("Unable to sync mailbox directory: %s", std::strerror(err.error)), 1);
  ::close(local->fd);
  ::close(fd);
  local->fd = local_open_update(local->path);
  if (local->fd < 0) {
    Log(mail_format("Can't open mailbox file: %s - %s", local->path.c_str(), local_strerror(errno)), 2);
    return;
  }
  local->filesize = written;
  unsigned long gone = 0;
  for (unsigned long i = 1; i <= stream->nmsgs + gone; ++i) {
    const unsigned long msgno = i - gone;
    MessageElt* elt = mail_elt(stream, msgno);
    if (elt->deleted) {
      mail_expunged(stream, msgno);
      ++gone;
    } else {
      elt->file_number = places[i];
    }
  }
  // The records that arrived during the expunge are read at their new place.
  dawz_parse(stream);
  Log(mail_format("Expunged %ld messages", static_cast<long>(gone)), 0);
}
