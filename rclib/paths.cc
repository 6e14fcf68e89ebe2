#include "rclib/paths.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <sys/stat.h>
#include <sys/types.h>

#include "rclib/rc.h"

namespace {

bool is_sep(char c) { return c == '/' || c == '\\'; }

int no_fit(char* out) {
  if (out) out[0] = '\0';
  rc_errno = kRcErrNoFit;
  return RC_FAIL;
}

int fail(char* out) {
  if (out) out[0] = '\0';
  return RC_FAIL;
}

// Final component of a path (after the last separator).
std::string_view final_component(std::string_view path) {
  size_t last = path.find_last_of("/\\");
  return last == std::string_view::npos ? path : path.substr(last + 1);
}

std::vector<std::string_view> dot_fields(std::string_view text) {
  std::vector<std::string_view> fields;
  for (;;) {
    size_t dot = text.find('.');
    fields.push_back(text.substr(0, dot));
    if (dot == std::string_view::npos) return fields;
    text.remove_prefix(dot + 1);
  }
}

int put_path(char* out, std::string_view text) {
  if (!out) return RC_FAIL;
  if (text.size() + 1 > kRcPathBuf) return no_fit(out);
  std::memcpy(out, text.data(), text.size());
  out[text.size()] = '\0';
  return RC_OK;
}

bool too_long(const char* path) { return std::strlen(path) + 1 > kRcPathBuf; }

}  // namespace

char* rc_path_strip_sep(char* path) {
  if (!path) return nullptr;
  size_t length = std::strlen(path);
  if (length > 1 && is_sep(path[length - 1])) path[length - 1] = '\0';
  return path;
}

int rc_path_is_file(const char* path) {
  struct stat info;
  if (!path || !*path || stat(path, &info) != 0) return RC_FAIL;
  return S_ISREG(info.st_mode) ? RC_OK : RC_FAIL;
}

int rc_path_is_file_strip(const char* path) {
  if (!path) return RC_FAIL;
  std::string copy(path);
  if (copy.size() > 1 && is_sep(copy.back())) copy.pop_back();
  return rc_path_is_file(copy.c_str());
}

int rc_path_split(const char* path, char* drive, char* dir, char* name, char* ext) {
  for (char* part : {drive, dir, name, ext})
    if (part) part[0] = '\0';
  if (!path) return RC_FAIL;
  if (too_long(path)) return no_fit(nullptr);
  std::string_view whole(path);
  std::string_view base = final_component(whole);
  std::string_view directory = whole.substr(0, whole.size() - base.size());
  size_t dot = base.rfind('.');
  if (dot == 0 || dot == std::string_view::npos || base == "..") dot = base.size();
  std::string_view stem = base.substr(0, dot);
  std::string_view extension = base.substr(dot);
  if (stem.size() + 1 > kRcNameBuf || extension.size() + 1 > kRcNameBuf) return no_fit(nullptr);
  if (dir) put_path(dir, directory);
  if (name) rc_str_copy(name, kRcNameBuf, stem.data(), stem.size());
  if (ext) rc_str_copy(ext, kRcNameBuf, extension.data(), extension.size());
  return RC_OK;
}

int rc_path_file_name(const char* path, char* out) {
  if (!path) return fail(out);
  return put_path(out, final_component(path));
}

int rc_path_component(const char* path, int n, char* out) {
  if (!path || n < 1) return fail(out);
  std::vector<std::string_view> fields = dot_fields(final_component(path));
  if (static_cast<size_t>(n) > fields.size()) {
    rc_errno = kRcErrNotFound;
    return fail(out);
  }
  return put_path(out, fields[n - 1]);
}

int rc_path_subst(const char* model, const char* pattern, char* out) {
  if (!model || !pattern) return fail(out);
  std::string_view pattern_view(pattern);
  std::string_view pattern_name = final_component(pattern_view);
  std::vector<std::string_view> model_fields = dot_fields(final_component(model));
  std::vector<std::string_view> fields = dot_fields(pattern_name);
  std::string result(pattern_view.substr(0, pattern_view.size() - pattern_name.size()));
  for (size_t i = 0; i < fields.size(); ++i) {
    if (i) result += '.';
    bool substitute = fields[i].find('=') != std::string_view::npos && i < model_fields.size();
    result += substitute ? model_fields[i] : fields[i];
  }
  if (result.find('=') != std::string::npos) {
    rc_errno = kRcErrNoSubst;
    return fail(out);
  }
  return put_path(out, result);
}

namespace {

// Components with "." dropped and ".." applied; leading ".." of a relative
// path stay, ".." at the root of an absolute one is dropped.
std::vector<std::string_view> normalized(std::string_view path, bool* absolute) {
  *absolute = !path.empty() && is_sep(path.front());
  std::vector<std::string_view> parts;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find_first_of("/\\", start);
    if (end == std::string_view::npos) end = path.size();
    std::string_view part = path.substr(start, end - start);
    start = end + 1;
    if (part.empty() || part == ".") continue;
    if (part == "..") {
      if (!parts.empty() && parts.back() != "..") parts.pop_back();
      else if (!*absolute) parts.push_back(part);
      continue;
    }
    parts.push_back(part);
  }
  return parts;
}

}  // namespace

int rc_path_relpath(const char* path, const char* base, char* out) {
  if (!path || !base || too_long(path) || too_long(base)) return fail(out);
  bool path_absolute;
  bool base_absolute;
  std::vector<std::string_view> target = normalized(path, &path_absolute);
  std::vector<std::string_view> from = normalized(base, &base_absolute);
  if (path_absolute != base_absolute) return fail(out);
  size_t common = 0;
  while (common < target.size() && common < from.size() && target[common] == from[common]) ++common;
  std::string result;
  for (size_t i = common; i < from.size(); ++i) {
    // The names behind a ".." of the base are unknown: no way back down.
    if (from[i] == "..") return fail(out);
    result += result.empty() ? ".." : "/..";
  }
  for (size_t i = common; i < target.size(); ++i) {
    if (!result.empty()) result += '/';
    result += target[i];
  }
  return put_path(out, result.empty() ? std::string_view(".") : std::string_view(result));
}

int rc_path_temp_dir(char* out, int kind) {
  if (!out) return RC_FAIL;
  if (kind == 2) {
    const char* tmpdir = std::getenv("TMPDIR");
    if (!tmpdir || !*tmpdir || too_long(tmpdir)) return put_path(out, "/tmp");
    std::string dir(tmpdir);
    if (dir.size() > 1 && is_sep(dir.back())) dir.pop_back();
    return put_path(out, dir);
  }
  const char* ramdisk = std::getenv("RAMDISK");
  if (!ramdisk || !*ramdisk) return fail(out);
  std::string dir(ramdisk);
  if (!is_sep(dir.back())) dir += '/';
  return put_path(out, dir);
}

int rc_path_temp_name(char* out) {
  static int counter = 0;
  if (!out) return RC_FAIL;
  constexpr int kLargest = 99999;
  for (int tries = 0; tries < kLargest; ++tries) {
    counter = counter >= kLargest ? 1 : counter + 1;
    char name[16];
    std::snprintf(name, sizeof name, "%05dtmp", counter);
    if (rc_path_is_file(name) != RC_OK) return put_path(out, name);
  }
  return fail(out);
}

int rc_path_make_dirs(const char* parentdir, const char* subdir) {
  rc_debug_entry("rc_path_make_dirs");
  if (!subdir || !*subdir) return RC_FAIL;
  if (!parentdir) parentdir = "";
  const bool trace = rc_debug_bits & kRcDbgEntry;
  std::string_view sub(subdir);
  while (sub.size() > 1 && is_sep(sub.back())) sub.remove_suffix(1);
  std::vector<std::string_view> levels;
  int separators = 0;
  for (size_t start = 0; start <= sub.size();) {
    size_t end = sub.find_first_of("/\\", start);
    if (end == std::string_view::npos) end = sub.size();
    else if (end > 0) ++separators;
    if (end > start) levels.push_back(sub.substr(start, end - start));
    start = end + 1;
  }
  if (trace) {
    std::printf("parentdir = %s\n", parentdir);
    std::printf("subdir    = %s\n", subdir);
    std::printf("levels     = %d\n", separators);
    std::printf("num_levels = %d\n", static_cast<int>(levels.size()));
  }
  std::string current(parentdir);
  if (current.empty() && is_sep(sub.front())) current.push_back('/');
  if (std::strlen(parentdir) + 1 + sub.size() + 1 > kRcPathBuf) {
    rc_errno = kRcErrNoFit;
    return RC_FAIL;
  }
  for (std::string_view level : levels) {
    if (!current.empty() && !is_sep(current.back())) current += '/';
    current += level;
    if (mkdir(current.c_str(), 0700) == 0) {
      if (trace) std::printf("Created directory:  %s\n", current.c_str());
      continue;
    }
    struct stat info;
    if (errno != EEXIST || stat(current.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) return RC_FAIL;
  }
  return RC_OK;
}
