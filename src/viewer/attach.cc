// Attachment names, helper applications and their launch, the private
// directory of files handed to helpers, and saving parts. Everything that
// comes from a message (names, types, bytes) is treated as hostile: it
// never chooses where a file goes, never gets to run, and never replaces a
// file without the user's word.
#include "src/viewer/attach.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>

#include "c-client/rfc822/enclosure.h"
#include "c-client/rfc822/mime_display.h"
#include "c-client/rfc822/rfc822.h"
#include "rclib/safe_file.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/options/options.h"
#include "src/viewer/text_render.h"

extern char** environ;

namespace {

constexpr size_t kMaxName = 200;
constexpr size_t kMaxExtension = 16;
constexpr int kMaxHelpers = 1000;
// Uuencoded text: at most this much is looked at.
constexpr size_t kMaxUuInput = 64u << 20;

struct TypeExtension {
  const char* type;
  const char* extension;
};
constexpr TypeExtension kTypeExtensions[] = {
    {"text/plain", "txt"},       {"text/html", "html"},          {"text/calendar", "ics"},
    {"text/csv", "csv"},         {"image/png", "png"},           {"image/jpeg", "jpg"},
    {"image/gif", "gif"},        {"image/webp", "webp"},         {"image/svg+xml", "svg"},
    {"application/pdf", "pdf"},  {"application/zip", "zip"},     {"application/json", "json"},
    {"audio/mpeg", "mp3"},       {"audio/ogg", "ogg"},           {"video/mp4", "mp4"},
    {"message/rfc822", "eml"},   {"application/msword", "doc"},  {"text/enriched", "txt"},
    {"application/vnd.openxmlformats-officedocument.wordprocessingml.document", "docx"},
    {"application/vnd.oasis.opendocument.text", "odt"},
};

// Extensions of programs, scripts and launchers: the desktop's opener
// would run them, so a file from mail with one is never handed to it.
constexpr const char* kExecutableExtensions[] = {
    "desktop", "sh",  "bash", "zsh", "csh", "ksh", "run", "bin", "appimage", "exe", "com", "bat", "cmd",
    "msi",     "jar", "py",   "pl",  "rb",  "php", "js",  "vbs", "ps1",      "lnk", "scr", "elf", "x86_64",
    "command", "deb", "rpm",  "so",  "out", "tcl", "awk",
};

std::string Lower(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

AttachSpawnFn& Spawner() {
  static AttachSpawnFn fn;
  return fn;
}

std::set<pid_t>& Children() {
  static std::set<pid_t> kids;
  return kids;
}

std::string& TempDirPath() {
  static std::string dir;
  return dir;
}

std::string OptionText(const char* fmt, int a, int b = 0) {
  char key[128];
  std::snprintf(key, sizeof key, fmt, a, b);
  return Opt_LookupText(key, kOptSession);
}

std::vector<int> HelperNumbers() {
  std::vector<int> out;
  const std::string list = Opt_LookupText("Viewers.IDLIST", kOptSession);
  Opt_ParseIntList(list.c_str());
  for (int n = Opt_NextInt(); n != -1 && out.size() < static_cast<size_t>(kMaxHelpers); n = Opt_NextInt())
    if (n > 0) out.push_back(n);
  return out;
}

// Blank-separated words of an option value, lower-cased.
std::vector<std::string> Words(const std::string& text) {
  std::vector<std::string> out;
  size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == ',' || text[i] == ';')) ++i;
    size_t end = i;
    while (end < text.size() && text[end] != ' ' && text[end] != '\t' && text[end] != ',' && text[end] != ';') ++end;
    if (end > i) {
      std::string w = Lower(text.substr(i, end - i));
      if (!w.empty() && w[0] == '.') w.erase(0, 1);
      if (!w.empty() && w.rfind("*.", 0) == 0) w.erase(0, 2);
      out.push_back(w);
    }
    i = end;
  }
  return out;
}

HelperEntry EntryOf(int n) {
  HelperEntry e;
  e.number = n;
  e.name = OptionText("Viewers.%d.Name", n);
  e.command = OptionText("Viewers.%d.WinCommand", n);
  return e;
}

std::string ShellQuote(const std::string& s) {
  std::string out = "'";
  for (char c : s) {
    if (c == '\'')
      out += "'\\''";
    else
      out += c;
  }
  return out + "'";
}

int DefaultSpawn(const std::vector<std::string>& argv, std::string* error) {
  if (argv.empty()) {
    if (error) *error = "nothing to run";
    return -1;
  }
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  // A helper has no business with the program's terminal input.
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  // Its own process group: a helper outlives a Ctrl+C of the program's terminal.
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attr, 0);
  pid_t pid = -1;
  const int rc = argv[0].find('/') != std::string::npos
                     ? posix_spawn(&pid, args[0], &actions, &attr, args.data(), environ)
                     : posix_spawnp(&pid, args[0], &actions, &attr, args.data(), environ);
  posix_spawnattr_destroy(&attr);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    if (error) *error = std::strerror(rc);
    return -1;
  }
  Children().insert(pid);
  return pid;
}

void RemoveTree(const std::string& dir) {
  DIR* dp = ::opendir(dir.c_str());
  if (dp) {
    while (struct dirent* e = ::readdir(dp)) {
      if (!std::strcmp(e->d_name, ".") || !std::strcmp(e->d_name, "..")) continue;
      ::unlink(JoinPath(dir, e->d_name).c_str());
    }
    ::closedir(dp);
  }
  ::rmdir(dir.c_str());
}

void AtExitCleanup() {
  AttachRemoveTempDir();
  AttachReapChildren();
}

}  // namespace

// --- Names ----------------------------------------------------------------------

std::string AttachSafeName(std::string_view raw) {
  std::string name(raw);
  const size_t slash = name.find_last_of("/\\");
  if (slash != std::string::npos) name.erase(0, slash + 1);
  // Control characters (C0, DEL, C1) out; what is left is valid UTF-8.
  const std::string clean = mime_display_body(name, "utf-8");
  std::string safe;
  for (size_t i = 0; i < clean.size(); ++i) {
    const unsigned char c = clean[i];
    if (c < 0x20 || c == 0x7F) continue;
    if (c == 0xC2 && i + 1 < clean.size() && static_cast<unsigned char>(clean[i + 1]) < 0xA0) {
      ++i;
      continue;
    }
    // Characters that trouble shells and other systems' file names.
    if (c == ':' || c == '*' || c == '?' || c == '"' || c == '<' || c == '>' || c == '|')
      safe += '_';
    else
      safe += static_cast<char>(c);
  }
  const size_t first = safe.find_first_not_of(".- \t~");
  safe.erase(0, first == std::string::npos ? safe.size() : first);
  while (!safe.empty() && (safe.back() == ' ' || safe.back() == '.')) safe.pop_back();
  if (safe.size() > kMaxName) {
    std::string extension;
    const size_t dot = safe.rfind('.');
    if (dot != std::string::npos && safe.size() - dot <= kMaxExtension) extension = safe.substr(dot);
    safe = Utf8Cut(safe, kMaxName - extension.size()) + extension;
  }
  return safe;
}

std::string AttachNameFromType(std::string_view type, std::string_view subtype) {
  const std::string mime = Lower(std::string(type) + "/" + std::string(subtype));
  for (const auto& t : kTypeExtensions)
    if (mime == t.type) return std::string("attachment.") + t.extension;
  return "attachment";
}

std::string AttachPartName(const BodyPart* part) {
  if (!part) return "attachment";
  std::string name;
  if (part->disposition_parameter) name = AttachSafeName(mime_parameter(part->disposition_parameter, "FILENAME"));
  if (name.empty()) name = AttachSafeName(mime_parameter(part->parameter, "NAME"));
  if (name.empty()) {
    const char* type = part->type <= TYPEOTHER ? body_types[part->type] : "X-UNKNOWN";
    name = AttachNameFromType(type, part->subtype ? part->subtype : "");
  }
  return name;
}

std::string AttachExtension(std::string_view name) {
  const size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot + 1 >= name.size()) return {};
  return Lower(name.substr(dot + 1));
}

// --- Helper applications -----------------------------------------------------

std::vector<HelperEntry> AttachHelpers() {
  std::vector<HelperEntry> out;
  for (int n : HelperNumbers()) out.push_back(EntryOf(n));
  return out;
}

int AttachFindHelper(const std::string& mime_in, const std::string& file_name, std::vector<HelperEntry>* found) {
  const std::string mime = Lower(mime_in);
  std::vector<HelperEntry> exact, partial;
  const bool octet = mime == "application/octet-stream";
  const std::string extension = AttachExtension(file_name);
  const std::string major = mime.substr(0, mime.find('/'));
  for (int n : HelperNumbers()) {
    const std::vector<std::string> types = Words(OptionText("Viewers.%d.MimeList", n));
    bool hit_exact = false, hit_partial = false;
    for (const std::string& t : types) {
      char* end = nullptr;
      const long m = std::strtol(t.c_str(), &end, 10);
      if (end == t.c_str() || *end || m <= 0 || m > kMaxHelpers) continue;
      const std::string type = Lower(OptionText("Viewers.%d.MimeType.%d.Name", n, static_cast<int>(m)));
      if (octet) {
        if (extension.empty()) continue;
        for (const std::string& e : Words(OptionText("Viewers.%d.MimeType.%d.WinExtensions", n, static_cast<int>(m))))
          if (e == extension) hit_exact = true;
        continue;
      }
      if (type == mime) hit_exact = true;
      if (type == major + "/*") hit_partial = true;
    }
    if (hit_exact)
      exact.push_back(EntryOf(n));
    else if (hit_partial && exact.empty())
      partial.push_back(EntryOf(n));
  }
  std::vector<HelperEntry>& hits = exact.empty() ? partial : exact;
  if (found) *found = hits;
  if (hits.empty()) return kHelperNone;
  return hits.size() == 1 ? hits[0].number : kHelperSeveral;
}

int AttachAddHelper(const std::string& name, const std::string& command, const std::string& mime,
                    const std::string& extension) {
  std::vector<int> numbers = HelperNumbers();
  int next = 1;
  for (int n : numbers) next = std::max(next, n + 1);
  char key[128];
  auto put = [&](const char* fmt, const std::string& value) {
    std::snprintf(key, sizeof key, fmt, next);
    Opt_AssignString(key, value.c_str(), kOptPermanent, 0);
  };
  put("Viewers.%d.Name", name);
  put("Viewers.%d.WinCommand", command);
  const std::string lower = Lower(mime);
  if (!lower.empty() && lower != "application/octet-stream") {
    put("Viewers.%d.MimeList", "1");
    put("Viewers.%d.MimeType.1.Name", lower);
    put("Viewers.%d.MimeType.1.WinExtensions", extension);
  } else if (!extension.empty()) {
    // Known by its extension alone.
    put("Viewers.%d.MimeList", "1");
    put("Viewers.%d.MimeType.1.Name", "application/octet-stream");
    put("Viewers.%d.MimeType.1.WinExtensions", extension);
  }
  std::string list = Opt_LookupText("Viewers.IDLIST", kOptSession);
  if (!list.empty()) list += ' ';
  list += std::to_string(next);
  Opt_AssignString("Viewers.IDLIST", list.c_str(), kOptPermanent, 0);
  // A list set for this session would hide the new entry until the next one.
  if (Opt_LookupText("Viewers.IDLIST", kOptSession) != list) Opt_AssignString("Viewers.IDLIST", list.c_str(), kOptSession, 0);
  return next;
}

std::vector<std::string> AttachHelperArgv(const std::string& command_in, const std::string& file) {
  std::string command = command_in;
  while (!command.empty() && (command.back() == ' ' || command.back() == '\t')) command.pop_back();
  const size_t lead = command.find_first_not_of(" \t");
  command.erase(0, lead == std::string::npos ? command.size() : lead);
  if (command.empty()) return {"xdg-open", file};
  if (command.find("%s") != std::string::npos) {
    std::string line;
    for (size_t i = 0; i < command.size(); ++i) {
      if (command.compare(i, 2, "%s") == 0) {
        line += ShellQuote(file);
        ++i;
      } else {
        line += command[i];
      }
    }
    return {"/bin/sh", "-c", line};
  }
  // A path that exists as it is may hold blanks; else the command's words.
  struct stat st;
  if (::stat(command.c_str(), &st) == 0 && S_ISREG(st.st_mode)) return {command, file};
  std::vector<std::string> argv;
  size_t i = 0;
  while (i < command.size()) {
    while (i < command.size() && command[i] == ' ') ++i;
    size_t end = command.find(' ', i);
    if (end == std::string::npos) end = command.size();
    if (end > i) argv.push_back(command.substr(i, end - i));
    i = end;
  }
  argv.push_back(file);
  return argv;
}

std::string AttachCommandLine(const std::vector<std::string>& argv) {
  std::string line;
  for (const std::string& a : argv) {
    if (!line.empty()) line += ' ';
    if (a.find(' ') != std::string::npos)
      line += '"' + a + '"';
    else
      line += a;
  }
  return line;
}

std::string AttachFindExecutable(const std::string& name) {
  if (name.empty()) return {};
  if (name.find('/') != std::string::npos) return ::access(name.c_str(), X_OK) == 0 ? name : std::string();
  const char* path = std::getenv("PATH");
  std::string dirs = path ? path : "/usr/bin:/bin";
  size_t i = 0;
  while (i <= dirs.size()) {
    size_t end = dirs.find(':', i);
    if (end == std::string::npos) end = dirs.size();
    const std::string dir = end > i ? dirs.substr(i, end - i) : ".";
    const std::string full = JoinPath(dir, name);
    struct stat st;
    if (::stat(full.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(full.c_str(), X_OK) == 0) return full;
    i = end + 1;
  }
  return {};
}

bool AttachLooksExecutable(const std::string& path) {
  const std::string extension = AttachExtension(path.substr(path.find_last_of('/') + 1));
  for (const char* e : kExecutableExtensions)
    if (extension == e) return true;
  // By content too: a name can lie.
  const int fd = safe_open_read(path.c_str());
  if (fd < 0) return false;
  char head[4] = {};
  const ssize_t n = ::read(fd, head, sizeof head);
  ::close(fd);
  if (n >= 2 && head[0] == '#' && head[1] == '!') return true;
  if (n >= 4 && std::memcmp(head, "\x7f" "ELF", 4) == 0) return true;
  if (n >= 2 && head[0] == 'M' && head[1] == 'Z') return true;
  return false;
}

void AttachSetSpawnerForTest(AttachSpawnFn fn) { Spawner() = std::move(fn); }

int AttachSpawn(const std::vector<std::string>& argv, std::string* error) {
  Trace(kTraceAttach, kTraceLow, "AttachSpawn: %s\n", AttachCommandLine(argv).c_str());
  AttachReapChildren();
  if (Spawner()) return Spawner()(argv, error);
  return DefaultSpawn(argv, error);
}

int AttachReapChildren() {
  int reaped = 0;
  for (auto it = Children().begin(); it != Children().end();) {
    int status = 0;
    const pid_t r = ::waitpid(*it, &status, WNOHANG);
    if (r == *it || (r < 0 && errno == ECHILD)) {
      it = Children().erase(it);
      ++reaped;
    } else {
      ++it;
    }
  }
  return reaped;
}

std::string AttachTempDir() {
  std::string& dir = TempDirPath();
  struct stat st;
  if (!dir.empty() && ::lstat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return dir;
  std::string base = GetTempDir();
  if (base.empty()) base = "/tmp";
  std::string pattern = JoinPath(base, "helpers.XXXXXX");
  if (!::mkdtemp(pattern.data())) {
    Trace(kTraceAttach, kTraceCritical, "AttachTempDir: mkdtemp in %s: %s\n", base.c_str(), std::strerror(errno));
    dir.clear();
    return {};
  }
  ::chmod(pattern.c_str(), 0700);
  static bool registered = false;
  if (!registered) {
    std::atexit(AtExitCleanup);
    registered = true;
  }
  dir = pattern;
  return dir;
}

void AttachRemoveTempDir() {
  std::string& dir = TempDirPath();
  if (dir.empty()) return;
  RemoveTree(dir);
  dir.clear();
}

std::string AttachWriteTempFile(const std::string& name_in, std::string_view data) {
  const std::string dir = AttachTempDir();
  if (dir.empty()) return {};
  std::string name = AttachSafeName(name_in);
  if (name.empty()) name = "attachment";
  // A second part of the same name gets "-2", "-3" before the extension.
  const size_t dot = name.rfind('.');
  const std::string stem = dot == std::string::npos ? name : name.substr(0, dot);
  const std::string ext = dot == std::string::npos ? "" : name.substr(dot);
  for (int n = 1; n < 1000; ++n) {
    const std::string path = JoinPath(dir, n == 1 ? name : stem + "-" + std::to_string(n) + ext);
    SafeFileError err;
    const int fd = safe_create_exclusive(path.c_str(), 0600, &err);
    if (fd < 0) {
      if (err.error == EEXIST) continue;
      Trace(kTraceAttach, kTraceCritical, "AttachWriteTempFile: %s: %s\n", path.c_str(), err.text().c_str());
      return {};
    }
    const bool ok = safe_write_all(fd, data.data(), data.size(), &err);
    ::close(fd);
    if (!ok) {
      ::unlink(path.c_str());
      return {};
    }
    return path;
  }
  return {};
}

// --- Saving -------------------------------------------------------------------

bool AttachUudecode(std::string_view text, std::string* out, std::string* name) {
  UuDecoded decoded;
  const bool ok = uu_decode(text.substr(0, std::min(text.size(), kMaxUuInput)), &decoded) == UuStatus::kOk;
  *out = ok ? std::move(decoded.data) : std::string();
  // The mode is ignored, never applied.
  if (name) *name = ok && !decoded.name.empty() ? AttachSafeName(decoded.name) : std::string();
  return ok;
}

bool AttachBinhexDecode(std::string_view text, std::string* out, std::string* name, std::string* error) {
  BinhexFile file;
  std::string why;
  if (!binhex_decode(text.substr(0, std::min(text.size(), kMaxUuInput)), &file, &why)) {
    out->clear();
    if (error) *error = why;
    return false;
  }
  if (name) *name = AttachSafeName(file.name);
  *out = std::move(file.data);
  return true;
}

int AttachSaveBytes(const std::string& path, std::string_view data) {
  if (path.empty()) return 0;
  struct stat st;
  if (::lstat(path.c_str(), &st) == 0) {
    if (!S_ISREG(st.st_mode)) {
      xvt_dm_post_error("\"%s\" is not a plain file; the attachment was not saved.", path.c_str());
      return 0;
    }
    if (xvt_dm_post_ask("Replace", "Cancel", nullptr, "The file \"%s\" already exists.\nDo you want to replace it?",
                        path.c_str()) != RESP_DEFAULT)
      return -1;
    SafeFileError err;
    if (!safe_replace_file(path, data, 0644, &err)) {
      xvt_dm_post_error("Could not save the attachment as \"%s\" (%s).", path.c_str(), err.text().c_str());
      return 0;
    }
    return 1;
  }
  SafeFileError err;
  const int fd = safe_create_exclusive(path.c_str(), 0644, &err);
  bool ok = fd >= 0 && safe_write_all(fd, data.data(), data.size(), &err) && safe_fsync(fd, &err);
  if (fd >= 0) ::close(fd);
  if (ok) ok = safe_sync_dir(safe_dir_of(path), &err);
  if (!ok) {
    if (fd >= 0) ::unlink(path.c_str());
    xvt_dm_post_error("Could not save the attachment as \"%s\" (%s).", path.c_str(), err.text().c_str());
    return 0;
  }
  return 1;
}

bool AttachPartBytes(UMI umi, const std::string& section, std::string* out) {
  const std::string file = MM_MsgSectionContentToFile(umi, section.c_str());
  if (file.empty()) return false;
  const bool ok = SlurpFile(file.c_str(), out);
  std::remove(file.c_str());
  return ok;
}
