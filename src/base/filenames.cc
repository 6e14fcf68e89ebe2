#include "src/base/filenames.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "rclib/safe_file.h"
#include "src/base/errors.h"
#include "src/base/trace.h"
#include "xvt/xvt.h"

#ifndef VELMAR_SOURCE_DATA_DIR
#define VELMAR_SOURCE_DATA_DIR ""
#endif

namespace {

enum class Dir { kApplication, kUser, kTemp };

struct FileEntry {
  int kind;
  const char* name;
  Dir dir;
};

const FileEntry kFiles[] = {
    {kFileCfgTcl, "cfg.tcl", Dir::kApplication},
    {kFileOptArgs, "optargs.tcl", Dir::kApplication},
    {kFileProcessTcl, "process.tcl", Dir::kApplication},
    {kFileDefaultTcl, "default.tcl", Dir::kUser},
    {kFileSysDefault, "sysdflt.tcl", Dir::kApplication},
    {kFileSysDefault2, "sysdflt2.tcl", Dir::kApplication},
    {kFileInstallData, "install.dat", Dir::kApplication},
    {kFilePhoneMsgForm, "phonemsg.frm", Dir::kApplication},
    {kFileStartupTcl, "startup.tcl", Dir::kApplication},
    {kFileXvtTcl, "xvt.tcl", Dir::kApplication},
    {kFileOptLocn, "optlocn.dat", Dir::kUser},
    {kFileUserIni, "velmar.ini", Dir::kUser},
    {kFileSiteIni, "velmar.ini", Dir::kApplication},
    {kFileLocalBooks, "locabks/", Dir::kUser},
    {kFileFolders, "folders", Dir::kUser},
    {kFileSubscriptions, "subscrib.dat", Dir::kUser},
    {kFileDebug, "debug.txt", Dir::kUser},
    {kFileDictionary, "dict.dat", Dir::kApplication},
    {kFileUserDictionary, "dict.txt", Dir::kUser},
    {kFileKeybind, "keybind.def", Dir::kApplication},
    {kFileBanner, "banner.bmp", Dir::kApplication},
    {kFilePgpWrapper, "vel_wrap", Dir::kApplication},
    {kFileTroubleReport, "trblrpt.txt", Dir::kUser},
    {kFileTroubleForm, "trblrpt.txt", Dir::kApplication},
};

constexpr long kTempCounterMax = 9999999;
constexpr const char* kHelpFile = "help/index.html";

struct Dirs {
  std::string application, user, temp;
  long temp_counter = 0;
  std::string last_search;
  bool last_search_set = false;
};

Dirs& D() {
  static Dirs d;
  return d;
}

bool IsDirectory(const std::string& path) {
  struct stat st;
  return !path.empty() && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool IsRegularFile(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string StripTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// The shipped files live in <prefix>/share/velmar when installed, else in
// the source tree's data/ (a build tree run). A site may point elsewhere.
std::string FindApplicationDir() {
  const char* env = std::getenv("VELMAR_APPDIR");
  if (env && *env) return IsDirectory(env) ? StripTrailingSlashes(env) : std::string();
  char exe[PATH_MAX];
  ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (n > 0) {
    exe[n] = '\0';
    std::string installed = safe_dir_of(safe_dir_of(exe)) + "/share/velmar";
    if (IsRegularFile(installed + "/sysdflt.tcl")) return installed;
  }
  std::string source = VELMAR_SOURCE_DATA_DIR;
  return IsDirectory(source) ? source : std::string();
}


// mkdir -p, with mode 0700 for what it creates.
bool MakeDirs(const std::string& path) {
  if (IsDirectory(path)) return true;
  std::string partial;
  size_t pos = 0;
  while (pos <= path.size()) {
    size_t next = path.find('/', pos);
    if (next == std::string::npos) next = path.size();
    partial = path.substr(0, next);
    if (!partial.empty() && !IsDirectory(partial) && ::mkdir(partial.c_str(), 0700) != 0 && errno != EEXIST)
      return false;
    pos = next + 1;
  }
  return IsDirectory(path);
}

bool MatchesTempPattern(const char* name) {
  size_t n = std::strlen(name);
  return n >= 5 && name[0] == 't' && std::strcmp(name + n - 4, ".tmp") == 0;
}

}  // namespace

std::string FindUserDir() {
  const char* home = std::getenv("VELMAR_HOME");
  if (home && *home) return StripTrailingSlashes(home);
  const char* xdg = std::getenv("XDG_DATA_HOME");
  if (xdg && *xdg == '/') return StripTrailingSlashes(xdg) + "/velmar";
  const char* h = std::getenv("HOME");
  if (h && *h) return StripTrailingSlashes(h) + "/.local/share/velmar";
  return std::string();
}

int InitDirectories() {
  Dirs& d = D();
  d.application = FindApplicationDir();
  if (d.application.empty() || d.application.size() >= kMaxDirName) {
    ErrorShow(2072, "could not find the application directory (VELMAR_APPDIR, <prefix>/share/velmar or data/)");
    return 0;
  }
  std::string user = FindUserDir();
  if (user.empty() || user.size() >= kMaxDirName || !MakeDirs(user) || ::chdir(user.c_str()) != 0) {
    ErrorShow(2036, "errGet_currentDirectory in set_user_dir");
    return 0;
  }
  // The user directory holds the user's mail and options.
  ::chmod(user.c_str(), 0700);
  d.user = user;
  d.temp = user;
  return 1;
}

void ResetDirectories() { D() = Dirs(); }

std::string GetApplicationDir() { return D().application; }
std::string GetUserDir() { return D().user; }
std::string GetTempDir() { return D().temp; }

std::string JoinPath(const std::string& dir, const std::string& name) {
  if (dir.empty()) return name;
  std::string d = dir;
  if (d.size() > 1 && d.back() == '/') d.pop_back();
  if (d == "/") return "/" + name;
  return d + "/" + name;
}

std::string get_file_name(int kind) {
  if (kind == kFileTemp) {
    std::string name = NewTempName();
    return name.empty() ? name : JoinPath(D().temp, name);
  }
  for (const FileEntry& f : kFiles) {
    if (f.kind != kind) continue;
    const std::string& dir =
        f.dir == Dir::kApplication ? D().application : (f.dir == Dir::kUser ? D().user : D().temp);
    return JoinPath(dir, f.name);
  }
  return std::string();
}

std::string NewTempName() {
  Dirs& d = D();
  char name[32];
  for (long tries = 0; tries <= kTempCounterMax + 1; ++tries) {
    std::snprintf(name, sizeof name, "t%ld.tmp", d.temp_counter);
    d.temp_counter = d.temp_counter >= kTempCounterMax ? 0 : d.temp_counter + 1;
    struct stat st;
    if (::lstat(JoinPath(d.temp, name).c_str(), &st) != 0) return name;
  }
  return std::string();
}

void SetTempCounterForTest(long value) { D().temp_counter = value; }

void CleanTempFiles() {
  const std::string& dir = D().temp;
  if (dir.empty()) return;
  DIR* dp = ::opendir(dir.c_str());
  if (!dp) return;
  while (struct dirent* e = ::readdir(dp)) {
    if (!MatchesTempPattern(e->d_name)) continue;
    std::string path = JoinPath(dir, e->d_name);
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    ::chmod(path.c_str(), (st.st_mode & 07777) | S_IWUSR);
    ::unlink(path.c_str());
  }
  ::closedir(dp);
}

int CheckWorkingDir() {
  const std::string& dir = D().user;
  if (!IsDirectory(dir)) return 0;
  std::string name = NewTempName();
  if (name.empty()) return 0;
  std::string path = JoinPath(dir, name);
  ::unlink(path.c_str());
  int fd = safe_create_exclusive(path.c_str(), 0600);
  if (fd < 0) return 0;
  ::close(fd);
  ::unlink(path.c_str());
  return 1;
}

int EnsureDirectory(const char* path) {
  if (!path || !*path) return 0;
  std::string p = path;
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  struct stat st;
  if (::stat(p.c_str(), &st) == 0) return S_ISDIR(st.st_mode) ? 1 : 0;
  return ::mkdir(p.c_str(), 0700) == 0 ? 1 : 0;
}

int OpenHelpFile() {
  if (D().application.empty()) {
    ErrorShow(2075, "Error in getting directory of help file");
    return 0;
  }
  if (!xvt_help_open_helpfile(JoinPath(D().application, kHelpFile).c_str())) {
    ErrorShow(2075, "Error in opening help file");
    return 0;
  }
  return 1;
}

void CloseHelpFile() { xvt_help_close_helpfile(); }

std::string MakeBackupName(const std::string& file) {
  size_t slash = file.rfind('/');
  size_t dot = file.rfind('.');
  std::string stem = (dot != std::string::npos && (slash == std::string::npos || dot > slash)) ? file.substr(0, dot)
                                                                                                : file;
  return stem + ".bak";
}

void SetLastSearchDirectory(const char* dir) {
  if (!dir || !IsDirectory(dir)) {
    Trace(kTraceFrame, kTraceHigh, "in filename.c in SetLastSearchDirectory: error in xvt_fsys_set_dir, returning\n");
    return;
  }
  D().last_search = dir;
  D().last_search_set = true;
}

std::string GetLastSearchDirectory() {
  Dirs& d = D();
  if (!d.last_search_set) {
    char cwd[PATH_MAX];
    if (::getcwd(cwd, sizeof cwd)) d.last_search = cwd;
    d.last_search_set = true;
  }
  return d.last_search;
}

// ---------------------------------------------------------------------------
// File helpers

bool SlurpFile(const char* name, std::string* out, size_t limit) {
  if (!name || !out) return false;
  int fd = safe_open_read(name);
  if (fd < 0) return false;
  std::string data;
  char buf[65536];
  for (;;) {
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 || data.size() + static_cast<size_t>(n) > limit) {
      ::close(fd);
      return false;
    }
    if (n == 0) break;
    data.append(buf, static_cast<size_t>(n));
  }
  ::close(fd);
  *out = std::move(data);
  return true;
}

int AppendFile(FILE* stream, const char* name, int flag) {
  if (!stream || !name) return 0;
  FILE* in = safe_fopen_read(name);
  if (!in) return flag ? 1 : 0;
  char buf[65536];
  size_t n;
  int ok = 1;
  while ((n = std::fread(buf, 1, sizeof buf, in)) > 0)
    if (std::fwrite(buf, 1, n, stream) != n) {
      ok = 0;
      break;
    }
  if (std::ferror(in)) ok = 0;
  std::fclose(in);
  return ok;
}

int FileExists(const char* name) {
  struct stat st;
  return name && ::stat(name, &st) == 0 ? 1 : 0;
}

int CopyFile(const char* source, const char* target, int flag) {
  if (!source || !target) return 0;
  if (flag && FileExists(target)) return 0;
  std::string data;
  if (!SlurpFile(source, &data, SIZE_MAX)) return 0;
  struct stat st;
  unsigned mode = ::stat(source, &st) == 0 ? (st.st_mode & 0777) : 0600;
  return safe_replace_file(target, data, mode) ? 1 : 0;
}

int BackupFile(const char* name) {
  if (!name || !FileExists(name)) return 0;
  return CopyFile(name, MakeBackupName(name).c_str(), 0);
}

int CopyFileSectionToFile(const char* source, long offset, long length, const char* target) {
  if (!source || !target || offset < 0 || length < 0) return 0;
  FILE* in = safe_fopen_read(source);
  if (!in) return 0;
  if (std::fseek(in, offset, SEEK_SET) != 0) {
    std::fclose(in);
    return 0;
  }
  std::string data;
  data.resize(static_cast<size_t>(length));
  size_t got = std::fread(data.data(), 1, data.size(), in);
  std::fclose(in);
  if (got != data.size()) return 0;
  return safe_replace_file(target, data, 0600) ? 1 : 0;
}
