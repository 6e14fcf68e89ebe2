// The address book window: the books and their entries, with person and
// list info windows, book and entry commands, import, export and a search.
// They are modal dialogs over the address model, except the quick search,
// which stays open beside a compose window.
#pragma once

#include <string>

#include "src/books/address_model.h"
#include "xvt/xvt.h"

constexpr int M_ADDRESS_BOOKS = 14120;  // the menu command that opens it
constexpr int kBookWindowRid = 6300;
constexpr int kPersonRid = 6320;
constexpr int kListRid = 6340;
constexpr int kBookSearchRid = 6360;

// Controls of the book window.
enum {
  kBwBooks = 6301, kBwEntries, kBwNewBook, kBwRenameBook, kBwDeleteBook, kBwNewPerson, kBwNewList,
  kBwOpen, kBwDeleteEntry, kBwImport, kBwExport, kBwSearch, kBwClose, kBwRights,
  // The person window.
  kPwName = 6321, kPwAlias, kPwEmail, kPwOther, kPwOtherKey, kPwOtherValue, kPwSetOther, kPwSave, kPwCancel,
  // The list window.
  kLwName = 6341, kLwMembers, kLwMember, kLwAdd, kLwRemove, kLwSave, kLwCancel,
  // The search window.
  kSwText = 6361, kSwType, kSwRun, kSwResults, kSwClose, kSwPaste, kSwSource, kSwCopy,
};

void ABK_BookWindow();

// Opens the search window beside a compose window: a chosen entry is pasted
// into target (a compose address field) as "Name <address>", a list as its
// members. book 0 searches every book. The window is the caller's to forget:
// it goes by itself. 1, or 0 when it could not be opened (told, 2019).
int ABK_QuickSearch(int book, WINDOW target);
// The field the last quick search was opened for, while it is still there.
WINDOW ABK_QuickSearchTarget();
// "Name <address>" forms of an entry, joined by ", " (a list: its members);
// people without an address are left out.
std::string ABK_PasteText(const AddressEntry& entry);
