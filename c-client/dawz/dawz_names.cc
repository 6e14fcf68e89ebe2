// Names of dawz mailboxes: one file each under the folders directory, the
// name after "#dawz/" being the file's path there ("\" between levels).
// Creating, deleting, renaming, listing and subscribing.
#include <dirent.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "c-client/core/mail_core.h"
#include "c-client/dawz/dawz.h"
#include "c-client/mh/local_paths.h"
#include "c-client/mh/subscribe.h"
#include "rclib/safe_file.h"

namespace {

constexpr int kMaxListDepth = 16;
constexpr size_t kMaxListed = 100000;
constexpr char kPrefix[] = "#dawz/";
constexpr char kAttributes[] = "(\\Noinferiors)";

void Log(const std::string& text, long level) { mm_log(text.c_str(), level); }

bool HasPrefix(const char* name) { return name && ::strncasecmp(name, kPrefix, 6) == 0; }

// A name that maps to one file: "#dawz/" and a path of non-empty levels
// that never climbs out of the folders directory.
bool NameOk(const char* name) {
  if (!name) return false;
  if (::strcasecmp(name, "INBOX") == 0) return true;
  if (!HasPrefix(name)) return false;
  std::string rest(name + 6);
  if (rest.empty() || rest.find('/') != std::string::npos || rest.find('\0') != std::string::npos) return false;
  size_t start = 0;
  while (start <= rest.size()) {
    size_t end = rest.find('\\', start);
    if (end == std::string::npos) end = rest.size();
    const std::string level = rest.substr(start, end - start);
    if (level.empty() || level == "." || level == "..") return false;
    start = end + 1;
  }
  return true;
}

bool Exists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

// The pattern's part after the prefix; false if the pattern isn't ours.
bool OurPattern(const char* pattern, std::string* rest) {
  if (!HasPrefix(pattern)) return false;
  *rest = pattern + 6;
  return true;
}

void ListDir(const std::string& dir, const std::string& prefix, const std::string& pattern, int depth,
             size_t* listed) {
  DIR* d = ::opendir(dir.c_str());
  if (!d) return;
  std::vector<std::string> names;
  while (const struct dirent* e = ::readdir(d)) {
    const std::string n = e->d_name;
    if (n.empty() || n[0] == '.' || n == "mhname.dat") continue;
    names.push_back(n);
  }
  ::closedir(d);
  std::sort(names.begin(), names.end());
  for (const std::string& n : names) {
    if (*listed >= kMaxListed) return;
    const std::string path = dir + "/" + n;
    const std::string name = prefix + n;
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      // An mh folder's files (its empty cache among them) are not ours.
      if (depth < kMaxListDepth && !Exists(path + "/mh_index.dat")) ListDir(path, name + "\\", pattern, depth + 1, listed);
    } else if (S_ISREG(st.st_mode) && local_pattern_match(name.c_str(), pattern.c_str(), '\\') &&
               dawz_is_mailbox(path)) {
      ++*listed;
      mm_mailbox((kPrefix + name).c_str(), '\\', kAttributes);
    }
  }
}

}  // namespace

void dawz_find(MailStream*, const char* pattern) {
  std::string wanted;
  if (!OurPattern(pattern, &wanted)) return;
  void* state = nullptr;
  std::vector<std::string> matches;
  while (const char* subscribed = subscribe_next(&state))
    if (HasPrefix(subscribed) && local_pattern_match(subscribed + 6, wanted.c_str(), '\\')) matches.push_back(subscribed);
  for (const std::string& name : matches)
    if (dawz_is_mailbox(dawz_file(name.c_str()))) mm_mailbox(name.c_str(), '\\', kAttributes);
}

void dawz_find_all(MailStream*, const char* pattern) {
  std::string wanted;
  if (!OurPattern(pattern, &wanted)) return;
  size_t listed = 0;
  ListDir(mailbox_path(""), "", wanted, 0, &listed);
}

long dawz_subscribe(MailStream*, const char* mailbox) { return subscribe_add(mailbox); }
long dawz_unsubscribe(MailStream*, const char* mailbox) { return subscribe_remove(mailbox); }

long dawz_create(MailStream*, const char* mailbox) {
  const std::string path = NameOk(mailbox) ? dawz_file(mailbox) : std::string();
  if (path.empty()) {
    Log(mail_format("Can't create mailbox %s: invalid mailbox name", mailbox ? mailbox : ""), 2);
    return 0;
  }
  if (Exists(path)) {
    Log(mail_format("Can't create mailbox %s: mailbox already exists", mailbox), 2);
    return 0;
  }
  // The first mailbox of a new user makes the folders directory.
  ::mkdir(mailbox_path("").c_str(), 0700);
  SafeFileError err;
  const int fd = safe_create_exclusive(path.c_str(), 0600, &err);
  const bool ok = fd >= 0 && safe_fsync(fd, &err);
  if (fd >= 0) ::close(fd);
  if (!ok || !safe_sync_dir(safe_dir_of(path), &err)) {
    if (fd >= 0) ::unlink(path.c_str());
    Log(mail_format("Can't create mailbox: %s - %s", path.c_str(), local_strerror(err.error)), 2);
    return 0;
  }
  return 1;
}

long dawz_delete(MailStream*, const char* mailbox) {
  const std::string path = dawz_file(mailbox);
  int error = 0;
  if (path.empty() || !dawz_is_mailbox(path, &error)) {
    Log(mail_format("Can't %s mailbox %s: %s", "delete", mailbox ? mailbox : "",
                    error ? local_strerror(error) : "not a Dawz-format mailbox"),
        2);
    return 0;
  }
  if (::unlink(path.c_str()) != 0) {
    Log(mail_format("Can't %s mailbox %s: %s", "delete", mailbox, std::strerror(errno)), 2);
    return 0;
  }
  safe_sync_dir(safe_dir_of(path));
  return 1;
}

long dawz_rename(MailStream*, const char* old_name, const char* new_name) {
  const std::string from = dawz_file(old_name);
  int error = 0;
  if (from.empty() || !dawz_is_mailbox(from, &error)) {
    Log(mail_format("Can't %s mailbox %s: %s", "rename", old_name ? old_name : "",
                    error ? local_strerror(error) : "not a Dawz-format mailbox"),
        2);
    return 0;
  }
  const std::string to = NameOk(new_name) ? dawz_file(new_name) : std::string();
  if (to.empty()) {
    Log(mail_format("Can't %s mailbox %s: %s", "rename", new_name ? new_name : "", "invalid mailbox name"), 2);
    return 0;
  }
  // rename(2) would replace a file of the new name without a word.
  if (Exists(to)) {
    Log(mail_format("Can't %s mailbox %s: %s", "rename", new_name, std::strerror(EEXIST)), 2);
    return 0;
  }
  SafeFileError err;
  if (!safe_rename(from.c_str(), to.c_str(), &err)) {
    Log(mail_format("Can't %s mailbox %s: %s", "rename", old_name, std::strerror(err.error)), 2);
    return 0;
  }
  safe_sync_dir(safe_dir_of(to));
  if (safe_dir_of(to) != safe_dir_of(from)) safe_sync_dir(safe_dir_of(from));
  return 1;
}
