// The local drivers' subscription database: subscrib.dat in the user's
// directory, one name per line.
//
// A change never edits the file in place: the whole list goes to
// subscrib.new, which is synced and then installed, so a crash leaves the
// old list or the new one. The file is read whole, with a size limit, and
// lines may end in LF or CRLF; empty lines carry nothing and are dropped
// when the list is rewritten.
#include "c-client/mh/subscribe.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "c-client/core/env.h"
#include "c-client/mh/local_paths.h"

namespace {

// Far more than anybody subscribes to; a bigger file is not this list.
constexpr size_t kMaxDatabase = 4u << 20;

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  const int n = std::vsnprintf(nullptr, 0, format, args);
  va_end(args);
  std::string out(n > 0 ? static_cast<size_t>(n) : 0, '\0');
  if (n > 0) std::vsnprintf(out.data(), out.size() + 1, format, again);
  va_end(again);
  return out;
}

void Log(const std::string& text) { mm_log(text.c_str(), 2); }

std::string Base() { return local_home() + "/subscrib"; }

// The file's names, in order. A missing file is an empty list. False with
// errno set when the file can't be read or is beyond the limit; *opened
// tells whether the failure came after the file was open.
bool ReadNames(const std::string& path, std::vector<std::string>* names, bool* opened) {
  *opened = false;
  names->clear();
  const int fd = local_open_read(path);
  if (fd < 0) return errno == ENOENT;
  *opened = true;
  std::string text;
  char buffer[8192];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      const int error = errno;
      ::close(fd);
      errno = error;
      return false;
    }
    if (n == 0) break;
    if (text.size() + static_cast<size_t>(n) > kMaxDatabase) {
      ::close(fd);
      errno = EFBIG;
      return false;
    }
    text.append(buffer, static_cast<size_t>(n));
  }
  ::close(fd);
  size_t start = 0;
  while (start < text.size()) {
    size_t lf = text.find('\n', start);
    if (lf == std::string::npos) lf = text.size();
    size_t stop = lf;
    while (stop > start && text[stop - 1] == '\r') --stop;
    if (stop > start) names->emplace_back(text, start, stop - start);
    start = lf + 1;
  }
  return true;
}

// Writes the list to subscrib.new and installs it. open_failure is the
// caller's text for a .new that can't be made.
long Rewrite(const std::vector<std::string>& names, const char* open_failure) {
  const std::string base = Base();
  const std::string fresh = base + ".new";
  std::string text;
  for (const std::string& name : names) text += name + "\n";
  SafeFileError err;
  if (!local_write_new(fresh, text, &err)) {
    const char* format = err.step == kSafeOpen ? open_failure : "Failed on write to new subscription database file: %s - %s";
    Log(Format(format, fresh.c_str(), local_strerror(err.error)));
    return 0;
  }
  if (!file_install(base, &err)) {
    Log(Format("Failed to install updated subscription database: %s.new - %s", base.c_str(), local_strerror(err.error)));
    return 0;
  }
  return 1;
}

// A name is one line of the file: it can't be empty or hold a line end.
bool Storable(const char* name) { return *name && !std::strpbrk(name, "\r\n"); }

struct Walk {
  std::vector<std::string> names;
  size_t next = 0;
};

// A line of the file names the folder that the walk shows for it: the walk
// hands out C strings, so a stray NUL ends the name there. Adding and
// removing compare the same way, or a line the user sees listed could
// never be removed.
bool SameName(const std::string& line, const char* name) { return std::strcmp(line.c_str(), name) == 0; }

// The list that an add or a remove rewrites; a missing file is an empty
// list. False, with the reason logged, when the file can't be read.
bool ReadForChange(std::vector<std::string>* names) {
  bool opened;
  if (ReadNames(Base() + ".dat", names, &opened)) return true;
  Log(Format("Failed on read of subscription database: %s", local_strerror(errno)));
  return false;
}

}  // namespace

long subscribe_add(const char* name) {
  if (!name) {
    mm_log("Cannot subscribe to a NULL foldername.\n", 2);
    return 0;
  }
  if (!Storable(name)) {
    Log(Format("Can't subscribe to mailbox %s: invalid name", name));
    return 0;
  }
  std::vector<std::string> names;
  if (!ReadForChange(&names)) return 0;
  for (const std::string& n : names)
    if (SameName(n, name)) {
      Log(Format("Already subscribed to mailbox %s", name));
      return 0;
    }
  names.emplace_back(name);
  return Rewrite(names, "Can't open temporary subscription database file: %s - %s");
}

long subscribe_remove(const char* name) {
  if (!name) {
    mm_log("Cannot unsubscribe to a NULL foldername.\n", 2);
    return 0;
  }
  std::vector<std::string> names;
  if (!ReadForChange(&names)) return 0;
  std::vector<std::string> kept;
  kept.reserve(names.size());
  for (std::string& n : names)
    if (!SameName(n, name)) kept.push_back(std::move(n));
  if (kept.size() == names.size()) {
    Log(Format("Not subscribed to mailbox %s", name));
    return 0;
  }
  return Rewrite(kept, "Could not open new subscription database file: %s - %s");
}

// The whole list is read at the first call, so the walk holds no open
// file and sees one consistent version of it. A missing file is simply
// no subscriptions, not an error.
const char* subscribe_next(void** state) {
  if (!state) return nullptr;
  Walk* walk = static_cast<Walk*>(*state);
  if (!walk) {
    walk = new Walk;
    const std::string path = Base() + ".dat";
    bool opened;
    if (!ReadNames(path, &walk->names, &opened)) {
      const char* format =
          opened ? "Failed to read subscription database: %s - %s n" : "Failed to open subscription database: %s - %s\n";
      Log(Format(format, path.c_str(), local_strerror(errno)));
      delete walk;
      return nullptr;
    }
    *state = walk;
  }
  if (walk->next < walk->names.size()) return walk->names[walk->next++].c_str();
  delete walk;
  *state = nullptr;
  return nullptr;
}
