// Conversion of books of the old format: 250-byte name records and fixed
// attribute files whose values sit at byte 250. A new name file, new_book,
// is built beside the old one with a new directory and a variable attribute
// file for each book; only when all of it is written does new_book take
// ab_books' place. The old books' files are removed after that, so a
// failure or a crash at any point leaves the old books readable.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "rclib/safe_file.h"
#include "src/base/trace.h"
#include "src/books/abook.h"
#include "src/books/isam_books.h"
#include "xvt/xvt.h"

namespace {

struct Conversion {
  std::string root = isam_abook_dir();
  std::vector<std::string> made_dirs;  // taken back on failure
  std::vector<std::string> old_dirs;   // removed on success

  bool Fail(const char* text) {
    BookError(text);
    for (const std::string& d : made_dirs) {
      bt3Unlink(AttrPath(root + d).c_str());
      rmdir((root + d).c_str());
    }
    bt3Unlink((root + "new_book").c_str());
    return false;
  }

  // One old book's attributes into the new directory's ab_attrs.
  bool CopyBook(const std::string& name, const std::string& old_dir, const std::string& new_dir) {
    if (!MakeDir(root + new_dir)) return Fail("Failed to create book directory during addressbook conversion");
    made_dirs.push_back(new_dir);
    const std::string to = AttrPath(root + new_dir);
    if (bt3VlCreate(to.c_str(), kAttrKeys, 410, 60410, 25) < 0)
      return Fail("Failed to create new attribute filesystem during addressbook conversion");
    char text[300];
    std::snprintf(text, sizeof text, "Converting '%s' ...", name.c_str());
    xvt_progress_set_text(text);
    const std::string from = AttrPath(root + old_dir);
    if (!bt3Exist(from.c_str())) return true;  // a book that never had an entry
    IsamHandle in, out;
    if (in.Open(from, kModeReadOnly, kOldAttrRecord) != 0)
      return Fail("Error reading from old attribute filesystem during addressbook conversion");
    if (out.Open(to, kModeReadWrite, kAttrBuff) != 0)
      return Fail("Failed to open new attribute filesystem during addressbook conversion");
    int rc = bt3Start(in.h, in.buf);
    if (rc < 0) return Fail("Error reading first attribute record during addressbook conversion");
    for (; rc > 0; rc = bt3Next(in.h, in.buf)) {
      const std::string value = Field(in.buf, kOldValueAt, kOldAttrRecord - kOldValueAt);
      std::memset(out.buf, 0, kAttrHead + value.size() + 1);
      std::memcpy(out.buf, in.buf, 2 * kBookNameLen);
      out.buf[kBookNameLen - 1] = out.buf[2 * kBookNameLen - 1] = 0;
      std::memcpy(out.buf + 400, value.data(), value.size());
      if (bt3VlAdd(out.h, out.buf, kAttrHead + static_cast<int>(value.size())) < 0)
        return Fail("Failed to add new attribute during addressbook conversion");
    }
    if (rc < 0) return Fail("Error fetching next attribute record during addressbook conversion");
    if (bt3Sync(out.h) < 0 || !out.Close())
      return Fail("Error closing new attribute filesystem during addressbook conversion");
    if (!in.Close()) return Fail("Error closing old attribute filesystem during addressbook conversion");
    return true;
  }

  bool Run() {
    const std::string stamp = [] {
      time_t now = static_cast<time_t>(BookClock());
      struct tm tm {};
      localtime_r(&now, &tm);
      char out[32];
      std::strftime(out, sizeof out, "%y%m%d%H", &tm);
      return std::string(out);
    }();
    const std::string names = BookNamesPath(), fresh = root + "new_book";
    IsamHandle old_names, new_names;
    if (old_names.Open(names, kModeReadWrite, kBookRecord) != 0)
      return BookError("Failed to open old name file during addressbook conversion"), false;
    if (bt3Exist(fresh.c_str())) {
      BookError("Previous addressbook conversion failed, must manually remove locabk/new_book.* files");
      return false;
    }
    if (bt3Creat(fresh.c_str(), kBookRecord, kBookKeys) < 0)
      return Fail("Failed to create new name filesystem during addressbook conversion");
    if (new_names.Open(fresh, kModeReadWrite, kBookRecord) != 0)
      return Fail("Failed to open new name filesystem during addressbook conversion");
    int rc = bt3Start(old_names.h, old_names.buf);
    for (int count = 0; rc > 0; rc = bt3Next(old_names.h, old_names.buf), ++count) {
      const std::string name = Field(old_names.buf, 0, kBookNameLen);
      const std::string old_dir = Field(old_names.buf, kBookNameLen, kOldBookRecord - kBookNameLen);
      char dir[64];
      std::snprintf(dir, sizeof dir, "%s%2.2d", stamp.c_str(), count);
      if (old_dir.empty() || old_dir.find('/') != std::string::npos || old_dir == "." || old_dir == ".." || count > 99)
        return Fail("Failed to read from old name filesystem during addressbook conversion");
      std::memset(new_names.buf, 0, kBookRecord);
      SetField(new_names.buf, 0, kBookNameLen, name);
      SetField(new_names.buf, kBookNameLen, kBookDirLen, dir);
      if (bt3Add(new_names.h, new_names.buf) < 0 || bt3Sync(new_names.h) < 0)
        return Fail("Failed to add new book name filesystem during addressbook conversion");
      if (!CopyBook(name, old_dir, dir)) return false;
      old_dirs.push_back(old_dir);
    }
    if (rc < 0) return Fail("Failed to read from old name filesystem during addressbook conversion");
    xvt_progress_set_text("Removing old books ...");
    if (!old_names.Close()) return Fail("Error closing old book name filesystem during addressbook conversion");
    if (!new_names.Close()) return Fail("Error closing new book name filesystem during addressbook conversion");
    // A crash between the two renames leaves the new index beside the old
    // data; the open finds their counts out of step and reads only, and the
    // old books' files are all still there.
    if (!safe_rename((fresh + ".nx").c_str(), (names + ".nx").c_str()) ||
        !safe_rename((fresh + ".dt").c_str(), (names + ".dt").c_str()) || !safe_sync_dir(safe_dir_of(names)))
      return BookError("Error closing new book name filesystem during addressbook conversion"), false;
    for (const std::string& d : old_dirs) {
      bt3Unlink(AttrPath(root + d).c_str());
      rmdir((root + d).c_str());
    }
    return true;
  }
};

}  // namespace

long convert_v3021_to_v4(AB_SESSION*) {
  Trace(kTraceMail, kTraceHigh, "convert_v3021_to_v4: converting the books in %s\n", isam_abook_dir().c_str());
  xvt_progress_open("Addressbook Conversion", "Converting to V4 format ...", false);
  Conversion c;
  const bool ok = c.Run();
  xvt_progress_close();
  return ok ? 1 : 0;
}
