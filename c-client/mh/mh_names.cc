// MH folders as directories.
//
// A folder's directory has a generated short name ("%y%H%M%S.%j" of the
// time it was made), and the directory that holds it keeps the folder's
// own name in mhname.dat, one "long#short" line per folder. Names use "\"
// between the levels of the folder tree; paths use "/". Names are compared
// as written: on Linux "Inbox" and "INBOX" are two folders.
//
// mhname.dat is only ever appended to (one write of a whole line) or
// rewritten through mhname.new and file_install, so a crash leaves the
// old list or the new one. The file is hostile input like any other: a
// line longer than kNameLineLimit carries no name.
#include "c-client/mh/mh_names.h"

#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "c-client/core/env.h"
#include "c-client/mh/local_paths.h"
#include "c-client/core/mail_core.h"
#include "c-client/mh/mh_format.h"
#include "c-client/mh/subscribe.h"

namespace {

constexpr char kNameFile[] = "mhname.dat";
constexpr size_t kNameLineLimit = 1024;
// A long name, "#", a short name of 12 bytes and the line feed must fit in
// one line of mhname.dat, or the folder could never be found again.
constexpr size_t kMaxLongName = 1000;
constexpr char kForbidden[] = "\\/:#";
constexpr char kInvalidCharacter[] = "Invalid character (one of '\\/:#') in folder name: %s.";
// A tree deeper than this is a loop of links or a hostile one.
constexpr int kMaxListDepth = 64;
// How long a new short name may wait for a free second before giving up:
// only a clock that stands still, or a parent full of names made in the
// next seconds, gets that far.
constexpr int kMaxShortNameTries = 200;
constexpr auto kShortNameStep = std::chrono::milliseconds(25);

void Log(const std::string& text, long level) { mm_log(text.c_str(), level); }

bool IsDir(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool Exists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

std::string Join(const std::string& dir, std::string_view name) {
  std::string out = dir;
  if (out.empty() || out.back() != '/') out += '/';
  out += name;
  return out;
}

std::string DirName(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string BaseName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool AllDigits(std::string_view s) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Message files and their status files: "123" and "123.st".
bool IsMessageFile(std::string_view name) {
  if (AllDigits(name)) return true;
  return name.size() > 3 && name.substr(name.size() - 3) == ".st" && AllDigits(name.substr(0, name.size() - 3));
}

bool HasMhPrefix(const char* name) { return name && ::strncasecmp(name, "#mh/", 4) == 0; }

// Subscriptions and patterns may carry the driver's prefix; the folder
// names themselves never do.
std::string WithoutMhPrefix(const char* name) {
  if (!name) return "";
  return HasMhPrefix(name) ? std::string(name + 4) : std::string(name);
}

std::string FoldersRoot() { return mailbox_path(""); }

// --- mhname.dat -----------------------------------------------------------

struct NameLine {
  std::string long_name;
  std::string short_name;
};

// Reads one line with the CR and LF at its end cut. A line of more than
// kNameLineLimit characters is read to its end and comes back with
// *too_long set. False at the end of the file.
bool ReadLine(FILE* file, std::string* line, bool* too_long) {
  line->clear();
  *too_long = false;
  int c;
  bool any = false;
  while ((c = std::getc(file)) != EOF) {
    any = true;
    if (c == '\n') break;
    if (line->size() < kNameLineLimit + 1) line->push_back(static_cast<char>(c));
  }
  if (!any) return false;
  while (!line->empty() && line->back() == '\r') line->pop_back();
  if (line->size() > kNameLineLimit) {
    *too_long = true;
    line->clear();
  }
  return true;
}

// The next name of the file; lines without "#", and over-long ones, are
// no names. False at the end.
bool NextName(FILE* file, NameLine* entry) {
  std::string line;
  bool too_long;
  while (ReadLine(file, &line, &too_long)) {
    if (too_long) continue;
    const size_t hash = line.find('#');
    if (hash == std::string::npos) continue;
    entry->long_name.assign(line, 0, hash);
    entry->short_name.assign(line, hash + 1);
    // Names leave here as C strings, so a stray NUL ends a name where the
    // listing shows it ends, and a listed folder can be opened by that name.
    entry->long_name.resize(std::strlen(entry->long_name.c_str()));
    entry->short_name.resize(std::strlen(entry->short_name.c_str()));
    // A CR that a NUL left at the end is cut as at a line's end, so that the
    // line reads the same once the file is written again without the NUL.
    while (!entry->short_name.empty() && entry->short_name.back() == '\r') entry->short_name.pop_back();
    // A short name is one directory inside the parent. An empty one, "."
    // or "..", or one with a "/" would lead a folder to the parent or
    // outside it, where deleting the folder would delete what isn't its own.
    const std::string& dir = entry->short_name;
    if (dir.empty() || dir == "." || dir == ".." || dir.find('/') != std::string::npos) continue;
    return true;
  }
  return false;
}

enum class OpenResult { kOpened, kMissing, kFailed };

// Opens parent's mhname.dat for reading. A missing file is no names at
// all: a folder without inner folders has none. Anything else that can't
// be read as a file is reported (level 1: the lookup goes on without it).
OpenResult OpenNames(const std::string& parent, FILE** out, struct stat* st) {
  *out = nullptr;
  const std::string path = Join(parent, kNameFile);
  const int fd = local_open_read(path, st);
  if (fd < 0 && (errno == ENOENT || errno == ENOTDIR)) return OpenResult::kMissing;
  if (fd >= 0) {
    if ((*out = ::fdopen(fd, "r"))) return OpenResult::kOpened;
    ::close(fd);
  }
  Log(mail_format("Failed to open MH folder name database: %s", path.c_str()), 1);
  return OpenResult::kFailed;
}

// The one-entry memory of the last name looked up or made. It is trusted
// only while mhname.dat is the same file with the same size and time, so
// an append or a rewrite, by this process or another, makes it forget.
struct NameMemory {
  bool valid = false;
  std::string parent, long_name, short_name;
  dev_t dev = 0;
  ino_t ino = 0;
  off_t size = 0;
  struct timespec mtime = {};
};

NameMemory& Memory() {
  static NameMemory memory;
  return memory;
}

bool SameFile(const NameMemory& m, const struct stat& st) {
  return m.dev == st.st_dev && m.ino == st.st_ino && m.size == st.st_size && m.mtime.tv_sec == st.st_mtim.tv_sec &&
         m.mtime.tv_nsec == st.st_mtim.tv_nsec;
}

void Remember(const std::string& parent, const std::string& long_name, const std::string& short_name,
              const struct stat& st) {
  NameMemory& m = Memory();
  m.valid = true;
  m.parent = parent;
  m.long_name = long_name;
  m.short_name = short_name;
  m.dev = st.st_dev;
  m.ino = st.st_ino;
  m.size = st.st_size;
  m.mtime = st.st_mtim;
}

void RememberFromDisk(const std::string& parent, const std::string& long_name, const std::string& short_name) {
  struct stat st;
  if (::stat(Join(parent, kNameFile).c_str(), &st) == 0)
    Remember(parent, long_name, short_name, st);
  else
    Memory().valid = false;
}

bool MemoryHolds(const std::string& parent) {
  const NameMemory& m = Memory();
  if (!m.valid || m.parent != parent) return false;
  struct stat st;
  return ::stat(Join(parent, kNameFile).c_str(), &st) == 0 && SameFile(m, st);
}

enum class Key { kLong, kShort };

// Finds the line whose long (or short) name is key; *other takes the
// other half. 1 if found.
int Lookup(const std::string& parent, const std::string& key, Key by, std::string* other) {
  if (MemoryHolds(parent)) {
    const NameMemory& m = Memory();
    if (by == Key::kLong && m.long_name == key) {
      *other = m.short_name;
      return 1;
    }
    if (by == Key::kShort && m.short_name == key) {
      *other = m.long_name;
      return 1;
    }
  }
  FILE* file;
  struct stat st;
  if (OpenNames(parent, &file, &st) != OpenResult::kOpened) return 0;
  NameLine entry;
  int found = 0;
  while (NextName(file, &entry)) {
    if ((by == Key::kLong ? entry.long_name : entry.short_name) == key) {
      found = 1;
      break;
    }
  }
  std::fclose(file);
  if (!found) return 0;
  *other = by == Key::kLong ? entry.short_name : entry.long_name;
  Remember(parent, entry.long_name, entry.short_name, st);
  return 1;
}

// Whether any line of parent's mhname.dat names the directory short_name.
bool ShortNameTaken(const std::string& parent, const std::string& short_name) {
  std::string ignored;
  return Lookup(parent, short_name, Key::kShort, &ignored) == 1;
}

// Appends "long#short" to parent's mhname.dat in one write, which the safe
// writer takes back if it fails part-way, so that the next line starts on
// a line of its own.
bool AppendName(const std::string& parent, const std::string& long_name, const std::string& short_name) {
  const std::string path = Join(parent, kNameFile);
  std::string line;
  struct stat st;
  const int fd = local_open_read(path, &st);
  if (fd >= 0) {
    // A file edited by hand may lack its last line feed.
    char last = '\n';
    if (st.st_size > 0 && ::pread(fd, &last, 1, st.st_size - 1) == 1 && last != '\n') line += '\n';
    ::close(fd);
  }
  SafeFileError err{kSafeOpen, errno};
  line += long_name + "#" + short_name + "\n";
  if ((fd < 0 && errno != ENOENT) || !safe_append_record(path, line.data(), line.size(), 0600, &err)) {
    Log(mail_format("Failed to open MH folder name database: %s - %s", path.c_str(), local_strerror(err.error)), 2);
    return false;
  }
  RememberFromDisk(parent, long_name, short_name);
  return true;
}

// --- Short names ------------------------------------------------------------

long (*g_clock)() = nullptr;
std::string g_last_short;  // the short name made last, in any parent

std::string FormatShortName(long seconds) {
  const time_t t = static_cast<time_t>(seconds);
  struct tm local;
  char buffer[15] = {};
  if (!::localtime_r(&t, &local) || std::strftime(buffer, sizeof buffer, "%y%H%M%S.%j", &local) == 0) return "";
  return buffer;
}

// A short name for a new folder in parent: never the one made last (two
// folders made in one second wait for the next), and never one that is
// there already, as a directory or in the name file.
bool NewShortName(const std::string& parent, std::string* out) {
  std::string candidate;
  for (int tries = 0; tries < kMaxShortNameTries; ++tries) {
    candidate = FormatShortName(g_clock ? g_clock() : static_cast<long>(std::time(nullptr)));
    if (!candidate.empty() && candidate != g_last_short && !Exists(Join(parent, candidate)) &&
        !ShortNameTaken(parent, candidate)) {
      g_last_short = candidate;
      *out = candidate;
      return true;
    }
    // The injected clock of the tests moves on by itself.
    if (!g_clock) std::this_thread::sleep_for(kShortNameStep);
  }
  Log(mail_format("Can't create mailbox directory: %s - %s", Join(parent, candidate).c_str(), std::strerror(EEXIST)),
      2);
  return false;
}

// --- Paths ------------------------------------------------------------------

struct PathMemory {
  bool valid = false;
  std::string name, path;
};

PathMemory& LastPath() {
  static PathMemory memory;
  return memory;
}

// Names of folders are split at "\" in the tree, and at "/" in a path: a
// name that starts with "/" is a directory anywhere, else it is below the
// folders directory ("~" and leading slashes dropped, as the path does).
struct NameParts {
  bool absolute = false;
  std::string base;                 // absolute names: the directory the tree starts in
  std::vector<std::string> levels;  // the folder tree's levels below it
};

NameParts SplitName(const char* name) {
  NameParts parts;
  std::string n = name ? name : "";
  if (!n.empty() && n[0] == '#') n = n.size() > 4 ? n.substr(4) : "";
  std::string rel;
  if (!n.empty() && n[0] == '/') {
    parts.absolute = true;
    const std::string head = n.substr(0, n.find('\\'));
    const size_t slash = head.rfind('/');
    parts.base = slash == 0 ? "/" : head.substr(0, slash);
    rel = n.substr(slash + 1);
  } else {
    size_t i = !n.empty() && n[0] == '~' ? 1 : 0;
    while (i < n.size() && (n[i] == '/' || n[i] == '\\')) ++i;
    rel = n.substr(i);
  }
  while (!rel.empty() && rel.back() == '\\') rel.pop_back();
  if (rel.empty()) return parts;
  size_t start = 0;
  for (;;) {
    const size_t bs = rel.find('\\', start);
    parts.levels.push_back(rel.substr(start, bs == std::string::npos ? std::string::npos : bs - start));
    if (bs == std::string::npos) break;
    start = bs + 1;
  }
  return parts;
}

// The syntax of a local folder name: no other driver's prefix, no remote
// name, some folder at all (the folders directory itself is none), and no
// level "." or "..", which would lead out of the tree.
bool SyntaxOk(const char* name) {
  if (!name || name[0] == '{') return false;
  if (name[0] == '#' && !HasMhPrefix(name)) return false;
  const char* rest = name[0] == '#' ? name + 4 : name;
  std::string_view s(rest);
  size_t start = 0;
  while (start <= s.size()) {
    const size_t end = s.find_first_of("/\\", start);
    const std::string_view part = s.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
    if (part == "." || part == "..") return false;
    if (end == std::string_view::npos) break;
    start = end + 1;
  }
  const NameParts parts = SplitName(name);
  return !parts.levels.empty();
}

// Where a folder to be made (or renamed to) goes. Every level of its name
// must be one that mhname.dat can hold: not empty, not too long, none of
// "\/:#". The directory an absolute name starts in is a path, and is not
// checked. refused: the caller's text for a name that is no folder name.
struct Place {
  std::string parent_dir;
  std::string leaf;
};

bool PlaceOf(const char* name, const char* refused, Place* place) {
  const NameParts parts = SplitName(name);
  bool ok = !parts.levels.empty();
  for (const std::string& level : parts.levels) {
    if (!ok) break;
    if (level.empty() || level == "." || level == ".." || level.size() > kMaxLongName) {
      ok = false;
    } else if (std::strpbrk(level.c_str(), kForbidden)) {
      Log(mail_format(kInvalidCharacter, level.c_str()), 2);
      return false;
    }
  }
  if (!ok) {
    Log(mail_format(refused, name), 2);
    return false;
  }
  place->leaf = parts.levels.back();
  if (parts.levels.size() == 1) {
    place->parent_dir = parts.absolute ? parts.base : FoldersRoot();
    return true;
  }
  std::string parent_name;
  if (parts.absolute) parent_name = parts.base == "/" ? "/" : parts.base + "/";
  for (size_t i = 0; i + 1 < parts.levels.size(); ++i) {
    if (i) parent_name += '\\';
    parent_name += parts.levels[i];
  }
  place->parent_dir = mh_path(parent_name.c_str());
  return true;
}

bool SameDir(const std::string& a, const std::string& b) {
  struct stat sa, sb;
  if (::stat(a.c_str(), &sa) != 0 || ::stat(b.c_str(), &sb) != 0) return a == b;
  return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

// --- Listing ----------------------------------------------------------------

struct DirId {
  dev_t dev;
  ino_t ino;
};

void ListDir(const std::string& dir, const std::string& prefix, const char* pattern, std::vector<DirId>* above) {
  DIR* d = ::opendir(dir.c_str());
  if (!d) {
    Log(mail_format("Failed to open mailbox directory %s - %s", dir.c_str(), std::strerror(errno)), 2);
    return;
  }
  std::vector<std::string> names;
  while (const struct dirent* e = ::readdir(d)) {
    const std::string_view n(e->d_name);
    if (n == "." || n == ".." || IsMessageFile(n)) continue;
    names.emplace_back(n);
  }
  ::closedir(d);
  // The order of a directory is the file system's; a listing is the same
  // each time, in the order the folders were made.
  std::sort(names.begin(), names.end());

  struct Child {
    std::string name;
    DirId id;
  };
  std::vector<Child> children;
  std::unordered_set<std::string> wanted;
  for (const std::string& n : names) {
    struct stat st;
    if (::stat(Join(dir, n).c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) continue;
    children.push_back({n, {st.st_dev, st.st_ino}});
    wanted.insert(n);
  }
  if (children.empty()) return;

  // One pass over mhname.dat for the whole directory, keeping only the
  // lines of directories that are here; the first line of a name counts.
  std::unordered_map<std::string, std::string> long_names;
  FILE* file;
  struct stat st;
  if (OpenNames(dir, &file, &st) == OpenResult::kOpened) {
    NameLine entry;
    while (NextName(file, &entry))
      if (wanted.count(entry.short_name)) long_names.emplace(entry.short_name, entry.long_name);
    std::fclose(file);
  }

  const size_t plen = std::strlen(pattern);
  const bool descend = !(plen && pattern[plen - 1] == '%');
  for (const Child& child : children) {
    const auto it = long_names.find(child.name);
    const std::string folder = prefix + (it == long_names.end() ? child.name : it->second);
    if (!local_pattern_match(folder.c_str(), pattern, '\\')) continue;
    const bool seen = std::any_of(above->begin(), above->end(),
                                  [&](const DirId& a) { return a.dev == child.id.dev && a.ino == child.id.ino; });
    if (descend && !seen && static_cast<int>(above->size()) < kMaxListDepth) {
      above->push_back(child.id);
      ListDir(Join(dir, child.name), folder + "\\", pattern, above);
      above->pop_back();
    }
    mm_mailbox(folder.c_str(), '\\', "()");
  }
}

// --- Creating folders -----------------------------------------------------

bool CreateCacheFiles(const std::string& dir) {
  uint8_t header[kMhHeaderSize];
  mh_encode_header(MhIndexHeader{kMhIndexVersion, 0, 0, 0}, header);
  SafeFileError err;
  if (!safe_replace_file(Join(dir, "mh_index.dat"), std::string_view(reinterpret_cast<char*>(header), sizeof header),
                         0600, &err)) {
    Log(mail_format(err.step == kSafeOpen ? "Failed to open new index file during MH cache initialization - %s"
                                          : "Failed to write new index header during MH cache initialization - %s",
                    std::strerror(err.error)),
        2);
    return false;
  }
  if (!safe_replace_file(Join(dir, "mh_cache.dat"), "", 0600, &err)) {
    Log(mail_format("Failed to open new cache file during MH cache initialization - %s", std::strerror(err.error)), 2);
    return false;
  }
  return true;
}

}  // namespace

// --- Paths and names ----------------------------------------------------------

void mh_forget_paths() {
  LastPath().valid = false;
  Memory().valid = false;
}

// Each component of the absolute path is taken as it is if it is a
// directory there, and otherwise as a folder name of mhname.dat in the
// path so far; one found in neither stays as it is. Only a directory keeps
// a component as it is: a message file "1" must not hide a folder "1".
std::string mh_path(const char* name) {
  const std::string given = name ? name : "";
  PathMemory& last = LastPath();
  // A remembered answer holds while its directory does; creating, deleting
  // and renaming a folder forget it.
  if (last.valid && last.name == given && IsDir(last.path)) return last.path;
  std::string rest = given;
  if (!rest.empty() && rest[0] == '#') rest = rest.size() > 4 ? rest.substr(4) : "";
  const std::string absolute = mailbox_path(rest.c_str());
  std::string path;
  size_t start = 0;
  while (start < absolute.size()) {
    size_t end = absolute.find('/', start);
    if (end == std::string::npos) end = absolute.size();
    const std::string component = absolute.substr(start, end - start);
    start = end + 1;
    if (component.empty()) continue;
    const std::string parent = path.empty() ? "/" : path;
    std::string candidate = Join(parent, component);
    std::string short_name;
    if (!IsDir(candidate) && !std::strpbrk(component.c_str(), kForbidden) &&
        Lookup(parent, component, Key::kLong, &short_name))
      candidate = Join(parent, short_name);
    path = std::move(candidate);
  }
  if (path.empty()) path = "/";
  last.valid = true;
  last.name = given;
  last.path = path;
  return path;
}

bool mh_valid_name(const char* name, bool syntax_only) {
  if (!SyntaxOk(name)) {
    errno = EINVAL;
    return false;
  }
  if (syntax_only) return true;
  if (IsDir(mh_path(name))) return true;
  errno = ENOENT;
  return false;
}

int mh_name_to_dir(const char* long_name, std::string* out, const std::string& parent) {
  if (out) *out = long_name ? long_name : "";
  if (!long_name || !*long_name) return 0;
  if (std::strpbrk(long_name, kForbidden)) {
    Log(mail_format(kInvalidCharacter, long_name), 2);
    return 0;
  }
  std::string short_name;
  if (!Lookup(parent, long_name, Key::kLong, &short_name)) return 0;
  if (out) *out = short_name;
  return 1;
}

// Directory names are not checked for the characters a folder name can't
// hold: a listing meets directories made by hand, and such a name is
// simply not in the file.
int mh_dir_to_name(const char* short_name, std::string* out, const std::string& parent) {
  if (out) *out = short_name ? short_name : "";
  if (!short_name || !*short_name) return 0;
  std::string long_name;
  if (!Lookup(parent, short_name, Key::kShort, &long_name)) return 0;
  if (out) *out = long_name;
  return 1;
}

bool mh_name_create(const std::string& parent, const char* long_name, std::string* short_name) {
  if (!long_name || !*long_name || std::strlen(long_name) > kMaxLongName) return false;
  std::string found;
  if (mh_name_to_dir(long_name, &found, parent)) {
    if (short_name) *short_name = found;
    return true;
  }
  if (std::strpbrk(long_name, kForbidden)) return false;  // reported by the lookup
  std::string made;
  if (!NewShortName(parent, &made) || !AppendName(parent, long_name, made)) return false;
  if (short_name) *short_name = made;
  return true;
}

bool mh_name_delete(const std::string& parent, const char* long_name) {
  if (!long_name) return false;
  FILE* in;
  struct stat st;
  switch (OpenNames(parent, &in, &st)) {
    case OpenResult::kMissing:
      Memory().valid = false;
      return true;  // no names here, so not this one either
    case OpenResult::kFailed:
      return false;
    case OpenResult::kOpened:
      break;
  }
  // Lines without a name, and over-long ones, are not written again:
  // nothing could ever find a folder through them.
  std::string text;
  NameLine entry;
  bool found = false;
  while (NextName(in, &entry)) {
    if (entry.long_name == long_name) {
      found = true;
      continue;
    }
    text += entry.long_name + "#" + entry.short_name + "\n";
  }
  const bool read_ok = !std::ferror(in);
  std::fclose(in);
  Memory().valid = false;
  if (read_ok && !found) return true;  // nothing to change
  const std::string fresh = Join(parent, "mhname.new");
  SafeFileError err{kSafeOpen, EIO};
  if (!read_ok || !local_write_new(fresh, text, &err) || !file_install(Join(parent, "mhname"), &err)) {
    Log(mail_format("Failed to open MH folder name database: %s - %s", fresh.c_str(), local_strerror(err.error)), 2);
    ::unlink(fresh.c_str());
    return false;
  }
  return true;
}

void mh_set_clock_for_test(long (*now)()) {
  g_clock = now;
  g_last_short.clear();
}

// --- Listing ----------------------------------------------------------------

void mh_list_dir(const std::string& dir, const std::string& name_prefix, const char* pattern) {
  std::vector<DirId> above;
  struct stat st;
  if (::stat(dir.c_str(), &st) == 0) above.push_back({st.st_dev, st.st_ino});
  ListDir(dir, name_prefix, pattern ? pattern : "", &above);
}

// --- Driver slots -------------------------------------------------------------

void mh_find(MailStream*, const char* pattern) {
  if (!pattern || pattern[0] == '{' || (pattern[0] == '#' && !HasMhPrefix(pattern))) return;
  const std::string wanted = WithoutMhPrefix(pattern);
  // The walk is read whole at its first step, so checking each folder on
  // the way (which reads other files) can't disturb it.
  void* state = nullptr;
  std::vector<std::string> matches;
  while (const char* subscribed = subscribe_next(&state)) {
    const std::string name = WithoutMhPrefix(subscribed);
    if (local_pattern_match(name.c_str(), wanted.c_str(), '\\')) matches.push_back(name);
  }
  for (const std::string& name : matches)
    if (mh_valid_name(name.c_str(), false)) mm_mailbox(name.c_str(), '\\', "()");
}

// The listing starts in the deepest folder that the pattern names before
// its first wildcard; everything above it is the names' prefix.
void mh_find_all(MailStream*, const char* pattern) {
  if (!pattern || pattern[0] == '{' || (pattern[0] == '#' && !HasMhPrefix(pattern))) return;
  const std::string wanted = WithoutMhPrefix(pattern);
  const size_t wild = wanted.find_first_of("*%");
  const std::string fixed = wanted.substr(0, wild);
  const bool absolute = !fixed.empty() && fixed[0] == '/';
  size_t cut = fixed.rfind('\\');
  if (absolute && cut == std::string::npos) cut = fixed.rfind('/');
  std::string dir;
  std::string prefix;
  if (cut == std::string::npos) {
    dir = FoldersRoot();
  } else {
    prefix = fixed.substr(0, cut + 1);
    std::string parent_name = fixed.substr(0, cut);
    if (absolute && parent_name.empty()) parent_name = "/";
    dir = parent_name.empty() ? FoldersRoot() : mh_path(parent_name.c_str());
  }
  // No folders directory yet, or a pattern below a folder that isn't
  // there: nothing matches, and that is no error.
  if (!IsDir(dir)) return;
  mh_list_dir(dir, prefix, wanted.c_str());
}

long mh_subscribe(MailStream*, const char* mailbox) {
  if (!mailbox) return subscribe_add(nullptr);
  return subscribe_add(WithoutMhPrefix(mailbox).c_str());
}

long mh_unsubscribe(MailStream*, const char* mailbox) {
  if (!mailbox) return subscribe_remove(nullptr);
  return subscribe_remove(WithoutMhPrefix(mailbox).c_str());
}

long mh_create(MailStream*, const char* mailbox) {
  static const char kInvalid[] = "Can't create mailbox %s: invalid mailbox name";
  if (!mh_valid_name(mailbox, true)) {
    Log(mail_format(kInvalid, mailbox ? mailbox : ""), 2);
    return 0;
  }
  Place place;
  if (!PlaceOf(mailbox, kInvalid, &place)) return 0;
  if (mh_valid_name(mailbox, false)) {
    Log(mail_format("Can't create mailbox %s: mailbox already exists", mailbox), 2);
    return 0;
  }
  // The first folder of a new user makes the folders directory.
  const std::string root = FoldersRoot();
  if (place.parent_dir == root) ::mkdir(root.c_str(), 0700);
  std::string short_name;
  const bool had_name = mh_name_to_dir(place.leaf.c_str(), &short_name, place.parent_dir) == 1;
  if (!had_name && !mh_name_create(place.parent_dir, place.leaf.c_str(), &short_name)) return 0;
  mh_forget_paths();
  const std::string dir = Join(place.parent_dir, short_name);
  if (::mkdir(dir.c_str(), 0700) != 0) {
    const int error = errno;
    // A name that leads nowhere is not left behind.
    if (!had_name) mh_name_delete(place.parent_dir, place.leaf.c_str());
    Log(mail_format("Can't create mailbox directory: %s - %s", dir.c_str(), std::strerror(error)), 2);
    return 0;
  }
  // Without its cache files the folder still exists: its first open
  // rebuilds them.
  return CreateCacheFiles(dir) ? 1 : 0;
}

// Which files go is decided by a rule the folder format has always had:
// messages ("123"), status files ("123.st") and names beginning ","; any
// other name has its first character made "M" (unless it is "m") and its
// second "H" (unless it is "h"), and the file of that changed name is
// deleted. So mh_cache.dat and the other mh_ files go, and a foreign file
// such as notes.txt stays (it would delete MHtes.txt), which makes the
// removal of the directory fail and tell why. Inner folders keep their
// names: mhname.dat stays while the folder holds directories.
long mh_delete(MailStream*, const char* mailbox) {
  if (!mh_valid_name(mailbox, false)) {
    Log(mail_format("Could not delete mailbox %s: no such mailbox", mailbox ? mailbox : ""), 2);
    return 0;
  }
  const std::string path = mh_path(mailbox);
  DIR* d = ::opendir(path.c_str());
  if (!d) {
    Log(mail_format("Could not open mailbox directory %s to delete contents - %s", path.c_str(), std::strerror(errno)),
        2);
    return 0;
  }
  std::vector<std::string> names;
  bool has_inner = false;
  while (const struct dirent* e = ::readdir(d)) {
    const std::string n = e->d_name;
    if (n == "." || n == "..") continue;
    struct stat st;
    if (::lstat(Join(path, n).c_str(), &st) == 0 && S_ISDIR(st.st_mode)) has_inner = true;
    names.push_back(n);
  }
  ::closedir(d);
  for (std::string n : names) {
    if (!IsMessageFile(n) && n[0] != ',') {
      if (n[0] != 'm') n[0] = 'M';
      if (n.size() > 1 && n[1] != 'h') n[1] = 'H';
      if (has_inner && n == kNameFile) continue;
    }
    ::unlink(Join(path, n).c_str());
  }
  mh_forget_paths();
  if (::rmdir(path.c_str()) != 0) {
    // The folder keeps its name, so what is left of it can still be found.
    Log(mail_format("Could not delete mailbox directory %s - %s", path.c_str(), std::strerror(errno)), 2);
    return 0;
  }
  // Every name of the directory goes: a failed rename may have left two.
  const std::string parent = DirName(path);
  std::string long_name;
  for (int n = 0; n < 100 && mh_dir_to_name(BaseName(path).c_str(), &long_name, parent); ++n) {
    if (!mh_name_delete(parent, long_name.c_str())) {
      Log(mail_format("Could not delete old mailbox name %s from name database.", mailbox), 1);
      break;
    }
  }
  return 1;
}

// A rename within one parent changes only the name file; to another
// parent the directory moves too, keeping its short name unless the new
// parent has a directory of that name already.
long mh_rename(MailStream*, const char* old_name, const char* new_name) {
  static const char kInvalid[] = "Can't rename to mailbox %s: invalid mailbox name";
  if (!mh_valid_name(old_name, false)) {
    Log(mail_format("Could not rename mailbox %s: no such mailbox", old_name ? old_name : ""), 2);
    return 0;
  }
  if (!mh_valid_name(new_name, true)) {
    Log(mail_format(kInvalid, new_name ? new_name : ""), 2);
    return 0;
  }
  if (mh_valid_name(new_name, false)) {
    Log(mail_format("Can't rename to mailbox %s: destination already exists", new_name), 2);
    return 0;
  }
  Place place;
  if (!PlaceOf(new_name, kInvalid, &place)) return 0;
  const std::string old_path = mh_path(old_name);
  const std::string old_parent = DirName(old_path);
  const std::string old_short = BaseName(old_path);
  std::string old_long;
  const bool old_named = mh_dir_to_name(old_short.c_str(), &old_long, old_parent) == 1;
  const bool moves = !SameDir(old_parent, place.parent_dir);
  std::string new_short = old_short;
  if (moves && Exists(Join(place.parent_dir, new_short)) && !NewShortName(place.parent_dir, &new_short)) return 0;
  mh_forget_paths();
  // A line left for the new name by a folder that is gone would be found
  // before the one added here.
  std::string stale;
  if (mh_name_to_dir(place.leaf.c_str(), &stale, place.parent_dir) &&
      !mh_name_delete(place.parent_dir, place.leaf.c_str())) {
    Log(mail_format("Could not add new mailbox name %s to name database.", new_name), 2);
    return 0;
  }
  if (!AppendName(place.parent_dir, place.leaf, new_short)) {
    // A line written whole whose sync failed stays: it would make a second
    // name of the folder.
    mh_name_delete(place.parent_dir, place.leaf.c_str());
    Log(mail_format("Could not add new mailbox name %s to name database.", new_name), 2);
    return 0;
  }
  if (moves) {
    const std::string new_path = Join(place.parent_dir, new_short);
    if (!safe_rename(old_path.c_str(), new_path.c_str())) {
      const int error = errno;
      mh_name_delete(place.parent_dir, place.leaf.c_str());
      Log(mail_format("Could not rename mailbox directory name %s - %s", old_path.c_str(), std::strerror(error)), 2);
      return 0;
    }
  }
  mh_forget_paths();
  if (old_named && !mh_name_delete(old_parent, old_long.c_str())) {
    Log(mail_format("Could not delete old mailbox name %s from name database.", old_name), 2);
    return 0;
  }
  return 1;
}
