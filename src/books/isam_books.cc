// The local book driver: books on the user's disk, in ISAM files. ab_books
// in the books directory names every book and its directory; each book's
// directory holds ab_attrs, one record per attribute of each entry. A book
// keeps no file open: every call opens what it needs and closes it again,
// so no state outlives a failure.
#include "src/books/isam_books.h"

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "c-client/core/env.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/books/abook.h"
#include "src/options/options.h"
#include "xvt/xvt.h"

const int16_t kBookKeys[] = {0, kBookNameLen, kKeyString, -1};
const int16_t kAttrKeys[] = {0, kBookNameLen, kKeyString | kKeyDuplicates, -1};

namespace {

std::string g_dir;
long (*g_clock)() = nullptr;
// One fetch gives at most this many attributes: far more than any person or
// list has, and a bound on what a damaged file can make us hold.
constexpr size_t kMaxFetch = 10000;

const char* kOpenNames = "Failed to open addressbook name ISAM file.";
const char* kOpenAttrs = "Failed to open addressbook attribute ISAM file.";
const char* kNoBuffer = "Failed to allocate buffer space for an ISAM file operation.";

bool OpenOrTell(IsamHandle& f, const std::string& path, int mode, int size, const char* open_text) {
  const int rc = f.Open(path, mode, size);
  if (rc == 0) return true;
  BookError(rc == 1 ? open_text : kNoBuffer);
  return false;
}

// A directory name read from ab_books is used in paths: one plain name only,
// so a damaged or hostile file cannot point us at other files.
bool SafeDirName(const std::string& dir) {
  return !dir.empty() && dir != "." && dir != ".." && dir.find('/') == std::string::npos;
}

// The records of one entry, by number; false on a read error.
bool EntryRecords(IsamHandle& f, const std::string& entry, std::vector<int>* recs) {
  std::memset(f.buf, 0, kAttrHead);
  SetField(f.buf, 0, kBookNameLen, entry);
  int rc = bt3Find(f.h, f.buf, kFindExact);
  while (rc > 0 && Field(f.buf, 0, kBookNameLen) == entry) {
    recs->push_back(bt3GetCur(f.h));
    rc = bt3Next(f.h, f.buf);
  }
  return rc >= 0;
}

bool DeleteRecords(IsamHandle& f, const std::vector<int>& recs) {
  for (int n : recs)
    if (bt3SetCur(f.h, n) < 0 || bt3Delete(f.h) < 0) return false;
  return true;
}

struct Attr {
  std::string entry, attribute, value;
};

Attr ReadAttr(const char* buf, int len) {
  return {Field(buf, 0, kBookNameLen), Field(buf, kBookNameLen, kBookNameLen),
          len > 400 ? Field(buf, 400, len - 400) : std::string()};
}

bool FindBook(IsamHandle& f, const char* name, std::string* dir) {
  std::memset(f.buf, 0, kBookRecord);
  SetField(f.buf, 0, kBookNameLen, name);
  if (bt3Find(f.h, f.buf, kFindExact) <= 0) return false;
  *dir = Field(f.buf, kBookNameLen, kBookDirLen);
  return true;
}

std::string ClockName(const char* format) {
  time_t now = static_cast<time_t>(BookClock());
  struct tm tm {};
  localtime_r(&now, &tm);
  char out[64];
  std::strftime(out, sizeof out, format, &tm);
  return out;
}

long add_abook_name(const char* name, const std::string& dir) {
  const std::string path = BookNamesPath();
  if (bt3Exist(path.c_str()) != kIsamFixed && bt3Creat(path.c_str(), kBookRecord, kBookKeys) < 0) {
    BookError("Failed to create addressbook name ISAM file.");
    return 0;
  }
  IsamHandle f;
  if (!OpenOrTell(f, path, kModeReadWrite, kBookRecord, kOpenNames)) return 0;
  if (bt3GetLen(f.h) != kBookRecord) {  // old books: never mix record sizes
    BookError(kOpenNames);
    return 0;
  }
  std::string ignored;
  if (FindBook(f, name, &ignored)) {
    BookError("Failed to create new addressbook - attempt to create addressbook that already exists.");
    return 0;
  }
  std::memset(f.buf, 0, kBookRecord);
  SetField(f.buf, 0, kBookNameLen, name);
  SetField(f.buf, kBookNameLen, kBookDirLen, dir);
  if (bt3Add(f.h, f.buf) < 0 || !f.Close()) {
    BookError("Failed to add new name to addressbook name ISAM file.");
    return 0;
  }
  return 1;
}

long create_abook_attr_file(const std::string& dir) {
  const std::string path = AttrPath(dir);
  if (bt3Exist(path.c_str()) != kIsamVariable && bt3VlCreate(path.c_str(), kAttrKeys, 410, 60410, 25) < 0) {
    BookError("Failed to create addressbook attribute ISAM file.");
    return 0;
  }
  return 1;
}

bool NameFits(const char* name) { return name && *name && std::strlen(name) < static_cast<size_t>(kBookNameLen); }

long isam_abook_create(AB_SESSION*, const char* name) {
  if (!NameFits(name)) {
    BookError("Failed to create new addressbook - the name must be 1 to 199 bytes long.");
    return 0;
  }
  const std::string root = isam_abook_dir();
  struct stat st {};
  char text[1200];
  if (stat(root.c_str(), &st) != 0 && !MakeDir(root)) {
    std::snprintf(text, sizeof text, "Failed to create ISAM addressbook directory: %s - %s", root.c_str(), std::strerror(errno));
    BookError(text);
    return 0;
  }
  // Two books made within one second get the clock's name and a counter.
  const std::string stamp = ClockName("%y%m%d%H.%M%S");
  std::string dir = stamp;
  bool made = false;
  for (int i = 1; i < 10000 && !(made = MakeDir(root + dir)) && errno == EEXIST; ++i) dir = stamp + "-" + std::to_string(i);
  if (!made) {
    std::snprintf(text, sizeof text, "Failed to create ISAM addressbook directory: %s - %s", (root + dir).c_str(),
                  std::strerror(errno));
    BookError(text);
    return 0;
  }
  // The attribute file first: a name record never points at a book that is
  // not there.
  if (!create_abook_attr_file(root + dir) || !add_abook_name(name, dir)) {
    bt3Unlink(AttrPath(root + dir).c_str());
    rmdir((root + dir).c_str());
    return 0;
  }
  return 1;
}

long isam_abook_delete(AB_SESSION*, const char* name) {
  IsamHandle f;
  if (!OpenOrTell(f, BookNamesPath(), kModeReadWrite, kBookRecord, kOpenNames)) return 0;
  std::string dir;
  if (!FindBook(f, name, &dir) || bt3Delete(f.h) < 0 || !f.Close()) {
    BookError("Failed to delete name from addressbook name ISAM file.");
    return 0;
  }
  if (!SafeDirName(dir)) return 1;  // never remove files outside the books directory
  const std::string root = isam_abook_dir();
  bt3Unlink(AttrPath(root + dir).c_str());
  rmdir((root + dir).c_str());
  return 1;
}

// The new record is added before the old one is deleted, so a name that is
// taken, or a failing disk, leaves the book under its old name.
long isam_abook_rename(AB_SESSION*, const char* old_name, const char* new_name) {
  char text[400];
  IsamHandle f;
  if (!OpenOrTell(f, BookNamesPath(), kModeReadWrite, kBookRecord, kOpenNames)) return 0;
  std::string dir, ignored;
  if (!FindBook(f, old_name, &dir)) {
    std::snprintf(text, sizeof text, "Failed to rename addressbook: %s - addressbook does not exist.", old_name);
    BookError(text);
    return 0;
  }
  if (std::strcmp(old_name, new_name) == 0) return 1;
  if (!NameFits(new_name) || FindBook(f, new_name, &ignored)) {
    BookError("Failed to create new addressbook - attempt to create addressbook that already exists.");
    return 0;
  }
  std::memset(f.buf, 0, kBookRecord);
  SetField(f.buf, 0, kBookNameLen, new_name);
  SetField(f.buf, kBookNameLen, kBookDirLen, dir);
  if (bt3Add(f.h, f.buf) < 0) {
    BookError("Failed to add new name to addressbook name ISAM file.");
    return 0;
  }
  if (!FindBook(f, old_name, &ignored) || bt3Delete(f.h) < 0 || !f.Close()) {
    BookError("Failed to delete name from addressbook name ISAM file.");
    return 0;
  }
  return 1;
}

long isam_abook_find(AB_SESSION* session, const char* pattern) {
  const std::string path = BookNamesPath();
  if (!bt3Exist(path.c_str())) {
    Trace(kTraceMail, kTraceHigh, "isam_abook_find: returning T since no address books\n");
    return 1;
  }
  const bool all = std::strcmp(pattern, "*") == 0;
  std::vector<std::string> names;
  {
    IsamHandle f;
    if (!OpenOrTell(f, path, kModeReadOnly, kBookRecord, kOpenNames)) return 0;
    const int len = bt3GetLen(f.h);
    if (len == kOldBookRecord) {
      f.Close();
      if (session->asked_convert < 0) return 0;
      if (xvt_dm_post_ask("Convert", "Cancel", nullptr, "Old format addressbooks detected, must be converted to V4 format") !=
          RESP_DEFAULT) {
        session->asked_convert = -1;
        xvt_dm_post_note("Working with old addressbooks will produce unpredictable results, please convert ASAP");
        return 0;
      }
      if (!convert_v3021_to_v4(session)) {
        session->asked_convert = -1;  // asked once; the old books stay as they are
        BookError("Error: conversion failed");
        return 0;
      }
      session->asked_convert = 1;
      if (!OpenOrTell(f, path, kModeReadOnly, kBookRecord, kOpenNames)) return 0;
    } else if (len != kBookRecord) {
      BookError(kOpenNames);
      return 0;
    }
    int rc = bt3Start(f.h, f.buf);
    if (rc < 0) {
      BookError("Failed to position to start of addressbook name ISAM file.");
      return 0;
    }
    for (; rc > 0; rc = bt3Next(f.h, f.buf)) {
      std::string name = Field(f.buf, 0, kBookNameLen);
      if (all || string_match(name.c_str(), pattern)) names.push_back(std::move(name));
    }
  }
  for (const std::string& n : names) mm_abook_name(session, n.c_str());
  return 1;
}

MBook* isam_abook_open(AB_SESSION*, const char* name) {
  IsamHandle f;
  if (!bt3Exist(BookNamesPath().c_str())) return nullptr;
  if (!OpenOrTell(f, BookNamesPath(), kModeReadOnly, kBookRecord, kOpenNames)) return nullptr;
  std::string dir;
  if (!FindBook(f, name, &dir)) return nullptr;
  struct stat st {};
  if (!SafeDirName(dir) || stat((isam_abook_dir() + dir).c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    char text[400];
    std::snprintf(text, sizeof text, "Cannot open ISAM addressbook: %s - corrupt (missing) addressbook directory.", name);
    BookError(text);
    return nullptr;
  }
  auto* book = new MBook;
  book->name = name;
  book->dir = dir;
  return book;
}

void isam_abook_close(MBook* book) { delete book; }

bool OpenAttrs(IsamHandle& f, MBook* book, int mode) {
  return OpenOrTell(f, AttrPath(isam_abook_dir() + book->dir), mode, kAttrBuff, kOpenAttrs);
}

long isam_abook_getlist(MBook* book) {
  std::vector<std::string> names;
  {
    IsamHandle f;
    if (!OpenAttrs(f, book, kModeReadOnly)) return 0;
    int rc = bt3Start(f.h, f.buf);
    for (; rc > 0; rc = bt3Next(f.h, f.buf)) {
      std::string name = Field(f.buf, 0, kBookNameLen);
      if (!name.empty() && (names.empty() || names.back() != name)) names.push_back(std::move(name));
    }
    if (rc < 0) {
      BookError("Failed to read addressbook attribute ISAM file.");
      return 0;
    }
  }
  for (const std::string& n : names) mm_address(book, n.c_str(), nullptr, 0);
  return 1;
}

long isam_abook_search(MBook* book, const char* name_pattern, const AbPair* pairs, int n) {
  const bool any_name = std::strcmp(name_pattern, "*") == 0;
  if (n <= 0 && any_name) return isam_abook_getlist(book);
  std::vector<std::string> found;
  {
    IsamHandle f;
    if (!OpenAttrs(f, book, kModeReadOnly)) return 0;
    std::string last;
    std::vector<bool> open;
    int count = 0;
    int rc = bt3Start(f.h, f.buf);
    while (rc > 0) {
      const Attr a = ReadAttr(f.buf, rc);
      if (a.entry != last) {
        last = a.entry;
        open.assign(static_cast<size_t>(n), true);
        count = n;
        if (a.entry.empty() || (!any_name && !string_match(a.entry.c_str(), name_pattern))) {
          rc = bt3Find(f.h, f.buf, kFindAbove);
          continue;
        }
      }
      for (int i = 0; i < n && count > 0; ++i)
        if (open[static_cast<size_t>(i)] && strcasecmp(pairs[i].attribute.c_str(), a.attribute.c_str()) == 0 &&
            string_match(a.value.c_str(), pairs[i].value.c_str())) {
          open[static_cast<size_t>(i)] = false;
          --count;
        }
      if (count == 0) {
        found.push_back(a.entry);
        last.clear();
        rc = bt3Find(f.h, f.buf, kFindAbove);
      } else {
        rc = bt3Next(f.h, f.buf);
      }
    }
    if (rc < 0) {
      BookError("Failed to read addressbook attribute ISAM file.");
      return 0;
    }
  }
  for (const std::string& e : found) mm_address(book, e.c_str(), nullptr, 0);
  return 1;
}

long isam_abook_fetch(MBook* book, const char* entry) {
  std::vector<AbPair> pairs;
  {
    IsamHandle f;
    if (!OpenAttrs(f, book, kModeReadOnly)) return 0;
    std::memset(f.buf, 0, kAttrHead);
    SetField(f.buf, 0, kBookNameLen, entry);
    int rc = bt3Find(f.h, f.buf, kFindExact);
    if (rc <= 0) {
      BookError("Failed to locate addressbook attributes for entry in ISAM file.", 1);
      return 0;
    }
    for (; rc > 0 && pairs.size() < kMaxFetch; rc = bt3Next(f.h, f.buf)) {
      Attr a = ReadAttr(f.buf, rc);
      if (a.entry != entry) break;
      pairs.push_back({std::move(a.attribute), std::move(a.value)});
    }
  }
  mm_address(book, entry, pairs.data(), static_cast<int>(pairs.size()));
  return 1;
}

long isam_abook_deleteent(MBook* book, const char* entry) {
  IsamHandle f;
  if (!OpenAttrs(f, book, kModeReadWrite)) return 0;
  std::vector<int> recs;
  if (!EntryRecords(f, entry, &recs) || !DeleteRecords(f, recs) || !f.Close()) {
    BookError("Failed to delete attribute from addressbook attribute ISAM file.");
    return 0;
  }
  return 1;
}

// The new attributes are written before the old ones are deleted: a store
// that fails part-way takes its own records back and leaves the entry as it
// was.
long isam_abook_store(MBook* book, const char* entry, const AbPair* pairs, int n) {
  const char* write_failed = "Failed to write attribute record to addressbook attribute ISAM file.";
  if (!NameFits(entry)) {
    BookError(write_failed);
    return 0;
  }
  IsamHandle f;
  if (!OpenAttrs(f, book, kModeReadWrite)) return 0;
  std::vector<int> old, added;
  if (!EntryRecords(f, entry, &old)) {
    BookError(write_failed);
    return 0;
  }
  for (int i = 0; i < n; ++i) {
    const std::string& v = pairs[i].value;
    int rc = -1;
    if (pairs[i].attribute.size() < static_cast<size_t>(kBookNameLen) && v.size() < static_cast<size_t>(kAttrBuff - kAttrHead)) {
      std::memset(f.buf, 0, kAttrHead + v.size() + 1);
      SetField(f.buf, 0, kBookNameLen, entry);
      SetField(f.buf, kBookNameLen, kBookNameLen, pairs[i].attribute);
      std::memcpy(f.buf + 400, v.data(), v.size());
      rc = bt3VlAdd(f.h, f.buf, kAttrHead + static_cast<int>(v.size()));
    }
    if (rc < 0) {
      DeleteRecords(f, added);
      f.Close();
      BookError(write_failed);
      return 0;
    }
    added.push_back(rc);
  }
  if (!DeleteRecords(f, old) || !f.Close()) {
    BookError("Failed to delete attribute from addressbook attribute ISAM file.");
    return 0;
  }
  return 1;
}

long TraceOnly(MBook*, const char* entry) {
  Trace(kTraceMail, kTraceHigh, "isam book: nothing to do for %s\n", entry ? entry : "(null)");
  return 1;
}

long isam_abook_setacl(MBook*, const char* identifier, const char* rights) {
  Trace(kTraceMail, kTraceHigh, "isam_abook_setacl: %s %s: local books have all rights\n", identifier ? identifier : "",
        rights ? rights : "");
  return 1;
}

// Local books belong to the user alone: all rights, whoever asks.
long isam_abook_getacl(MBook* book, const char*) {
  mm_abook_acl(book, nullptr, "lrswipcda");
  return 1;
}

AB_DRIVER g_isam = {"ISAMDRIVER",         nullptr,           nullptr,          isam_abook_create, isam_abook_delete,
                    isam_abook_rename,    isam_abook_find,   isam_abook_open,  isam_abook_close,  isam_abook_getlist,
                    isam_abook_search,    isam_abook_fetch,  TraceOnly,        TraceOnly,         isam_abook_store,
                    isam_abook_deleteent, TraceOnly,         isam_abook_getacl, isam_abook_setacl, TraceOnly,
                    nullptr};

}  // namespace

AB_DRIVER* isam_driver() { return &g_isam; }

int IsamHandle::Open(const std::string& path, int mode, int buff_size) {
  Close();
  h = bt3Open(path.c_str(), mode);
  if (!h) return 1;
  buf = bt3GetBuff(h, buff_size);
  if (!buf) {
    bt3Close(h);
    return 2;
  }
  return 0;
}

bool IsamHandle::Close() {
  if (buf) bt3FreeBuff(buf);
  if (!h) return true;
  return bt3Close(h) >= 0;
}

const std::string& isam_abook_dir() {
  if (g_dir.empty()) {
    g_dir = get_file_name(kFileLocalBooks);
    if (g_dir.empty() || g_dir.back() != '/') g_dir += '/';
  }
  return g_dir;
}

void isam_abook_forget_dir() { g_dir.clear(); }
void isam_abook_set_clock_for_test(long (*now)()) { g_clock = now; }
long BookClock() { return g_clock ? g_clock() : static_cast<long>(time(nullptr)); }

std::string BookNamesPath() { return isam_abook_dir() + "ab_books"; }
std::string AttrPath(const std::string& dir) { return dir + "/ab_attrs"; }

std::string Field(const char* buf, int at, int width) {
  return std::string(buf + at, strnlen(buf + at, static_cast<size_t>(width)));
}

void SetField(char* buf, int at, int width, const std::string& text) {
  std::memset(buf + at, 0, static_cast<size_t>(width));
  std::memcpy(buf + at, text.data(), std::min(text.size(), static_cast<size_t>(width - 1)));
}

void BookError(const char* text, long level) { mm_log(text, level); }

bool MakeDir(const std::string& path) {
  std::string p = path;
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  return mkdir(p.c_str(), 0700) == 0;
}
