// The address book window: the books and their entries, with person and
// list info windows, book and entry commands, import, export and a search.
// All of them are modal dialogs over the address model.
#pragma once

constexpr int M_ADDRESS_BOOKS = 14120;  // the menu command that opens it
constexpr int kBookWindowRid = 6300;
constexpr int kPersonRid = 6320;
constexpr int kListRid = 6340;
constexpr int kBookSearchRid = 6360;

// Controls of the book window.
enum {
  kBwBooks = 6301, kBwEntries, kBwNewBook, kBwRenameBook, kBwDeleteBook, kBwNewPerson, kBwNewList,
  kBwOpen, kBwDeleteEntry, kBwImport, kBwExport, kBwSearch, kBwClose,
  // The person window.
  kPwName = 6321, kPwAlias, kPwEmail, kPwOther, kPwOtherKey, kPwOtherValue, kPwSetOther, kPwSave, kPwCancel,
  // The list window.
  kLwName = 6341, kLwMembers, kLwMember, kLwAdd, kLwRemove, kLwSave, kLwCancel,
  // The search window.
  kSwText = 6361, kSwType, kSwRun, kSwResults, kSwClose,
};

void ABK_BookWindow();
