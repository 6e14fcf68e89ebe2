// Shared by the local book driver and its conversion of old books.
#pragma once

#include <cstdint>
#include <string>

#include "isam/isamv3/isam.h"

// ab_books: 700-byte records, the book's name at 0 (200) and its directory,
// relative to the books directory, at 200 (500).
constexpr int kBookRecord = 700;
constexpr int kBookNameLen = 200;
constexpr int kBookDirLen = 500;
// ab_attrs: entry name at 0 (200), attribute name at 200 (200), value at 400.
constexpr int kAttrHead = 410;
constexpr int kAttrBuff = 0xEBF0;
// Old books: 250-byte name records; fixed attribute records of 1250 bytes
// with the value at 250.
constexpr int kOldBookRecord = 250;
constexpr int kOldAttrRecord = 1250;
constexpr int kOldValueAt = 250;

extern const int16_t kBookKeys[];
extern const int16_t kAttrKeys[];

// An open ISAM file and its buffer, both released on every way out, so that
// a failure leaves nothing open.
struct IsamHandle {
  ISAM* h = nullptr;
  char* buf = nullptr;
  IsamHandle() = default;
  IsamHandle(const IsamHandle&) = delete;
  IsamHandle& operator=(const IsamHandle&) = delete;
  ~IsamHandle() { Close(); }
  // 0 on success; the failing step's number (1 open, 2 buffer) otherwise.
  int Open(const std::string& path, int mode, int buff_size);
  bool Close();
};

// The books directory, ending with "/".
const std::string& isam_abook_dir();
std::string BookNamesPath();
std::string AttrPath(const std::string& dir);
// The NUL-ended text of a fixed field (never past its width).
std::string Field(const char* buf, int at, int width);
// Copies text into a field of width bytes, NUL-filled.
void SetField(char* buf, int at, int width, const std::string& text);
// The error to the user, at level 2 unless said.
void BookError(const char* text, long level = 2);
// mkdir with 0700; false with errno kept.
bool MakeDir(const std::string& path);
// The time for directory names.
long BookClock();
