// What the folder list and folder operation files share: the progress
// window of a long model call, and the text form of a cached listing.
// Nothing outside src/model (and its tests) includes this.
#pragma once

#include <string>
#include <string_view>

#include "src/model/mm.h"

// Shows a text in the progress window for the life of a call: opens the
// window if none is open (and closes it again at the end), otherwise only
// changes the text of the window that is already up.
class ProgressScope {
 public:
  explicit ProgressScope(const char* text);
  ~ProgressScope();
  ProgressScope(const ProgressScope&) = delete;
  ProgressScope& operator=(const ProgressScope&) = delete;

  void Text(const char* text);
  void Range(long total);  // a counted bar of total steps
  void Pos(long pos);
  bool Stopped() const;  // the user pressed stop

 private:
  bool opened_ = false;
};

// A cached listing file holds one line per folder. Limits keep a damaged
// file from growing without bound in memory.
constexpr size_t kListCacheMaxBytes = 16u << 20;
constexpr size_t kListCacheMaxEntries = 200000;

// The cache text of a listing; false when a name can't be written as a
// line (a TAB or a line end in it), and then nothing is cached.
bool ListCacheFormat(const FolderList& list, std::string* out);
// Reads a cache text back; false (and an empty list) for a damaged text.
bool ListCacheParse(std::string_view text, FolderList* out);
