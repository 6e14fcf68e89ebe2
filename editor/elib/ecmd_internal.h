// Helpers the command files share: editing that the undo log records,
// character classes, and the text between two marks.
#pragma once

#include <string>
#include <string_view>

#include "editor/elib/ecmd.h"
#include "editor/elib/marks.h"

namespace ecmd {

// Edits through the log. Both refuse a read-only buffer.
int Insert(E_DATA* ed, MARK* at, std::string_view text);
// `known`, when given, is the text between a and b, already read.
int Delete(E_DATA* ed, MARK* a, MARK* b, const std::string* known = nullptr);
// The same without a record (undo and redo use them). A long text goes
// in a bulk block's lines at a time, in blocks that can page out.
int BulkInsert(EditBuffer* buf, MARK* at, std::string_view text);
int DeleteRaw(EditBuffer* buf, MARK* a, MARK* b);

// Opens and closes the undo step of a command; nested calls join the
// outer one. `typing` marks a step that later typed characters may join;
// `join` lets this one join the step before (a run of typing).
void BeginStep(E_DATA* ed);
void EndStep(E_DATA* ed, bool typing = false, bool join = false);

// The text from a to b (a ahead of b), a line feed at each line end.
int TextBetween(EditBuffer* buf, const MARK* a, const MARK* b, std::string* out);

// Character classes. Bytes from 0x80 up (letters of other scripts) count
// as word and identifier characters.
bool IsWhite(int c);
bool IsWord(int c);
bool IsIdent(int c);
// The first byte of the character at / before the mark; a line end reads
// as '\n'; -1 at the ends of the text.
int CharAt(EditBuffer* buf, const MARK* m);
int CharBefore(EditBuffer* buf, const MARK* m);

// A scratch mark at the place of `from`, freed with the object.
struct TempMark {
  EditBuffer* buf;
  MARK* m = nullptr;
  TempMark(EditBuffer* b, const MARK* from) : buf(b) { mark_dup(buf, from, &m); }
  ~TempMark() { mark_free(buf, &m); }
  TempMark(const TempMark&) = delete;
  TempMark& operator=(const TempMark&) = delete;
  explicit operator bool() const { return m != nullptr; }
};

bool ReadOnly(const EditBuffer* buf);
// Cuts the current region, if any (true when there was one); `known` is
// its text when already read, *rc the cut's answer.
bool CutRegion(E_DATA* ed, const std::string* known = nullptr, int* rc = nullptr);
// Keeps the point off the end-of-text line.
void NormalizePoint(EditBuffer* buf);

}  // namespace ecmd
