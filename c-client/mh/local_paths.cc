// Where local folders live, mailbox names as paths, this machine's name,
// the listing pattern match, and installing a rewritten file.
#include "c-client/mh/local_paths.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

std::string& Home() {
  static std::string home;
  return home;
}

// Path names of the user's directory may end in "/"; joins add their own.
std::string WithoutTrailingSlashes(std::string s) {
  while (s.size() > 1 && s.back() == '/') s.pop_back();
  return s;
}

// The name "INBOX" is the same in any case; everything else is compared
// as it is written.
bool IsInbox(const char* s) {
  static const char kInbox[] = "INBOX";
  for (int i = 0; i < 5; ++i) {
    char c = s[i];
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    if (c != kInbox[i]) return false;
  }
  return s[5] == '\0';
}

}  // namespace

void local_set_home(const char* dir) { Home() = WithoutTrailingSlashes(dir ? dir : ""); }

// Until the program says otherwise the user's directory is the one it
// runs in: the frame changes to it at start.
const std::string& local_home() {
  std::string& home = Home();
  if (home.empty()) {
    char buffer[PATH_MAX];
    home = ::getcwd(buffer, sizeof buffer) ? buffer : ".";
  }
  return home;
}

// "\" is the folder delimiter, never a path separator: a name that
// begins with it names a top-level folder, as it does in the folder tree,
// so only "/" makes a name absolute.
std::string mailbox_path(const char* name) {
  if (!name) name = "";
  std::string path;
  if (name[0] == '/') {
    path = name;
  } else {
    if (name[0] == '~') ++name;
    while (*name == '/' || *name == '\\') ++name;
    path = local_home();
    if (path != "/") path += '/';
    path += "folders";
    if (*name) path += '/';
    path += name;
  }
  for (char& c : path)
    if (c == '\\') c = '/';
  return WithoutTrailingSlashes(std::move(path));
}

// The resolver is not asked for a canonical name: with a slow or absent
// name server it can stall the program for minutes, and the name only
// qualifies local addresses.
const char* local_host_name() {
  static const std::string name = [] {
    char buffer[256] = {};
    if (::gethostname(buffer, sizeof buffer - 1) != 0 || !buffer[0]) return std::string("localhost");
    return std::string(buffer);
  }();
  return name.c_str();
}

// A simulation of all the ways the pattern can have matched so far, one
// flag per pattern position: time is name length times pattern length
// whatever the pattern, where backtracking over "*" and "%" can take
// exponential time on a hostile pattern.
bool local_pattern_match(const char* name, const char* pattern, char delimiter) {
  if (!name || !pattern) return false;
  if (IsInbox(name)) name = "INBOX";
  if (IsInbox(pattern)) pattern = "INBOX";
  const size_t m = std::strlen(pattern);
  std::vector<char> at(m + 1, 0), next(m + 1, 0);
  // A wildcard may match nothing: being before it is being after it.
  auto close = [&](std::vector<char>& s) {
    for (size_t i = 0; i < m; ++i)
      if (s[i] && (pattern[i] == '*' || pattern[i] == '%')) s[i + 1] = 1;
  };
  at[0] = 1;
  close(at);
  for (const char* n = name; *n; ++n) {
    std::fill(next.begin(), next.end(), 0);
    bool any = false;
    for (size_t i = 0; i < m; ++i) {
      if (!at[i]) continue;
      const char p = pattern[i];
      if (p == '*' || (p == '%' && *n != delimiter)) {
        next[i] = 1;
        any = true;
      } else if (p != '%' && p == *n) {
        next[i + 1] = 1;
        any = true;
      }
    }
    if (!any) return false;
    close(next);
    at.swap(next);
  }
  return at[m] != 0;
}

// base.dat never goes missing here: base.bak becomes a second name of the
// old file, and the rename of base.new replaces base.dat in one step.
// Where the file system has no links, base.dat is renamed to base.bak
// first; if the new file can't then take its place, the old one goes back.
// Something that is not a file where base.dat belongs (a FIFO) is no
// backup worth keeping: the new file simply takes its place.
int file_install(const std::string& base, SafeFileError* err) {
  const std::string dat = base + ".dat", bak = base + ".bak", fresh = base + ".new";
  ::unlink(bak.c_str());
  bool moved = false;
  struct stat st;
  if (::lstat(dat.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::link(dat.c_str(), bak.c_str()) != 0)
    moved = safe_rename(dat.c_str(), bak.c_str(), err);
  if (!safe_rename(fresh.c_str(), dat.c_str(), err)) {
    const int error = errno;
    if (moved) safe_rename(bak.c_str(), dat.c_str());
    errno = error;
    return 0;
  }
  return safe_sync_dir(safe_dir_of(dat), err) ? 1 : 0;
}

int local_create_new(const std::string& path, SafeFileError* err) {
  ::unlink(path.c_str());
  return safe_create_exclusive(path.c_str(), 0600, err);
}

bool local_write_new(const std::string& path, std::string_view data, SafeFileError* err) {
  const int fd = local_create_new(path, err);
  if (fd < 0) return false;
  bool ok = safe_write_all(fd, data.data(), data.size(), err) && safe_fsync(fd, err);
  if (::close(fd) != 0 && ok) {
    // NFS reports late write errors here.
    if (err) *err = SafeFileError{kSafeWrite, errno};
    ok = false;
  }
  if (ok) return true;
  const int error = errno;
  ::unlink(path.c_str());
  errno = error;
  return false;
}

int local_open_read(const std::string& path, struct stat* st) { return safe_open_read(path.c_str(), nullptr, st); }

int local_open_update(const std::string& path, SafeFileError* err) { return safe_open(path.c_str(), O_RDWR, 0, err); }

const char* local_strerror(int error) {
  return error == kLocalNotAFile ? "Not a regular file" : std::strerror(error);
}
