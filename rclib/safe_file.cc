#include "rclib/safe_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

struct Fault {
  long calls = 0;
  long fail_from = 0;  // 0: never
  int error = 0;
};
Fault g_faults[kSafeStepCount];

// Counts the call and says whether the test hook refuses it.
bool Refused(SafeStep step) {
  Fault& f = g_faults[step];
  ++f.calls;
  if (f.fail_from == 0 || f.calls < f.fail_from) return false;
  errno = f.error;
  return true;
}

bool Fail(SafeFileError* err, SafeStep step) {
  const int error = errno ? errno : EIO;
  if (err) {
    err->step = step;
    err->error = error;
  }
  errno = error;
  return false;
}

int FailFd(SafeFileError* err, SafeStep step) {
  Fail(err, step);
  return -1;
}

void CloseKeepingErrno(int fd) {
  const int error = errno;
  ::close(fd);
  errno = error;
}

}  // namespace

const char* safe_step_name(SafeStep step) {
  static const char* const kNames[] = {"open", "write", "sync", "rename"};
  return step >= 0 && step < kSafeStepCount ? kNames[step] : "?";
}

std::string SafeFileError::text() const { return std::string(safe_step_name(step)) + ": " + std::strerror(error); }

namespace {

// Opens without waiting and keeps the descriptor only for a regular file.
// The test hook fails opens of files the program writes; reads and logs are
// left alone, so that a log tells of the faults a test injects.
int OpenRegular(const char* path, int flags, unsigned mode, bool hooked, SafeFileError* err, struct stat* st) {
  if (hooked && Refused(kSafeOpen)) return FailFd(err, kSafeOpen);
  int fd;
  do fd = ::open(path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode);
  while (fd < 0 && errno == EINTR);
  // Opening a FIFO for writing without waiting fails with ENXIO while it has
  // no reader.
  if (fd < 0 && errno == ENXIO) errno = EINVAL;
  if (fd < 0) return FailFd(err, kSafeOpen);
  struct stat own;
  if (!st) st = &own;
  const bool stated = ::fstat(fd, st) == 0;
  if (!stated || !S_ISREG(st->st_mode)) {
    if (stated) errno = S_ISDIR(st->st_mode) ? EISDIR : EINVAL;
    CloseKeepingErrno(fd);
    return FailFd(err, kSafeOpen);
  }
  const int now = ::fcntl(fd, F_GETFL);
  if (now >= 0) ::fcntl(fd, F_SETFL, now & ~O_NONBLOCK);
  return fd;
}

FILE* OpenStream(int fd, const char* how, SafeFileError* err) {
  if (fd < 0) return nullptr;
  FILE* f = ::fdopen(fd, how);
  if (!f) {
    CloseKeepingErrno(fd);
    Fail(err, kSafeOpen);
  }
  return f;
}

}  // namespace

int safe_open(const char* path, int flags, unsigned mode, SafeFileError* err, struct stat* st) {
  return OpenRegular(path, flags, mode, (flags & O_ACCMODE) != O_RDONLY, err, st);
}

int safe_create_exclusive(const char* path, unsigned mode, SafeFileError* err) {
  return safe_open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, mode, err);
}

int safe_open_read(const char* path, SafeFileError* err, struct stat* st) {
  return OpenRegular(path, O_RDONLY, 0, false, err, st);
}

FILE* safe_fopen_read(const char* path, SafeFileError* err) {
  return OpenStream(safe_open_read(path, err), "rb", err);
}

FILE* safe_fopen_append(const char* path, unsigned mode, SafeFileError* err) {
  return OpenStream(OpenRegular(path, O_WRONLY | O_APPEND | O_CREAT, mode, false, err, nullptr), "ab", err);
}

namespace {

// Writes all of data at the file's offset, or with at >= 0 at that offset.
bool WriteAll(int fd, const char* p, size_t size, off_t at, SafeFileError* err) {
  if (Refused(kSafeWrite)) return Fail(err, kSafeWrite);
  while (size) {
    const ssize_t n = at < 0 ? ::write(fd, p, size) : ::pwrite(fd, p, size, at);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = ENOSPC;
      return Fail(err, kSafeWrite);
    }
    p += n;
    size -= static_cast<size_t>(n);
    if (at >= 0) at += n;
  }
  return true;
}

}  // namespace

bool safe_write_all(int fd, const void* data, size_t size, SafeFileError* err) {
  return WriteAll(fd, static_cast<const char*>(data), size, -1, err);
}

bool safe_pwrite_all(int fd, const void* data, size_t size, off_t at, SafeFileError* err) {
  if (at < 0) {
    errno = EINVAL;
    return Fail(err, kSafeWrite);
  }
  return WriteAll(fd, static_cast<const char*>(data), size, at, err);
}

bool safe_fsync(int fd, SafeFileError* err) {
  if (Refused(kSafeSync)) return Fail(err, kSafeSync);
  while (::fsync(fd) != 0)
    if (errno != EINTR) return Fail(err, kSafeSync);
  return true;
}

bool safe_rename(const char* from, const char* to, SafeFileError* err) {
  if (Refused(kSafeRename)) return Fail(err, kSafeRename);
  if (::rename(from, to) != 0) return Fail(err, kSafeRename);
  return true;
}

std::string safe_dir_of(const std::string& path) {
  const std::string::size_type slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool safe_sync_dir(const std::string& dir, SafeFileError* err) {
  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return Fail(err, kSafeSync);
  const bool ok = safe_fsync(fd, err);
  CloseKeepingErrno(fd);
  return ok;
}

bool safe_replace_file(const std::string& path, std::string_view data, unsigned mode, SafeFileError* err) {
  const std::string dir = safe_dir_of(path);
  // The temporary name starts with a dot so that folder walks skip it, and
  // is made unique by mkstemp in the target's own directory: a rename
  // across file systems would not be atomic.
  std::string temp = (dir == "/" ? std::string("/") : dir + "/") + ".velmar-new-XXXXXX";
  if (Refused(kSafeOpen)) return Fail(err, kSafeOpen);
  const int fd = ::mkostemp(temp.data(), O_CLOEXEC);
  if (fd < 0) return Fail(err, kSafeOpen);
  SafeFileError local;
  SafeFileError* e = err ? err : &local;
  bool ok = safe_write_all(fd, data.data(), data.size(), e);
  if (ok && ::fchmod(fd, mode) != 0) ok = Fail(e, kSafeOpen);
  ok = ok && safe_fsync(fd, e);
  if (::close(fd) != 0 && ok) ok = Fail(e, kSafeWrite);  // NFS reports late write errors here
  ok = ok && safe_rename(temp.c_str(), path.c_str(), e);
  if (!ok) {
    const int error = errno;
    ::unlink(temp.c_str());
    errno = error;
    return false;
  }
  return safe_sync_dir(dir, e);
}

bool safe_append_record(const std::string& path, const void* data, size_t size, unsigned mode,
                        SafeFileError* err) {
  const int fd = safe_open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT, mode, err);
  if (fd < 0) return false;
  struct stat st;
  const off_t before = ::fstat(fd, &st) == 0 ? st.st_size : -1;
  const bool written = safe_write_all(fd, data, size, err);
  bool ok = written && safe_fsync(fd, err) && (before != 0 || safe_sync_dir(safe_dir_of(path), err));
  if (!ok) {
    const int error = errno;
    // Half a record would shift every later one, and a whole one that may
    // not last a crash would name what the caller now thinks failed: take
    // back what this call added, unless someone else has written since.
    const off_t whole = before + static_cast<off_t>(size);
    if (before >= 0 && ::fstat(fd, &st) == 0 && st.st_size > before &&
        (written ? st.st_size == whole : st.st_size < whole)) {
      const int ignored = ::ftruncate(fd, before);
      (void)ignored;
    }
    errno = error;
  }
  CloseKeepingErrno(fd);
  return ok;
}

void safe_fail_from_for_test(SafeStep step, long nth, int error) {
  Fault& f = g_faults[step];
  f.calls = 0;
  f.fail_from = nth;
  f.error = error;
}

void safe_clear_faults_for_test() {
  for (Fault& f : g_faults) f = Fault{};
}

long safe_calls_for_test(SafeStep step) { return g_faults[step].calls; }
