// The address model: the program's view of its address books. Up to 100
// open books in slots (a book's id is its slot's index plus 1), entries
// named by book and name, persons and lists ("member" holds a list's
// entry names, one per line), and searches. Compose and the book windows
// work on this layer; it works on the abook_* dispatch.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "src/books/abook.h"

constexpr int kMaxBooks = 100;
constexpr int kSearchOk = 44;
constexpr int kSearchFailed = 88;
constexpr int kMaxSearchPairs = 25;
constexpr int kBookLocal = 123;   // ABK_createNewABook kinds, and Nice_imsp_io's store
constexpr int kBookRemote = 456;  // and delete
extern const char* const kNoMembers;  // the value of a list without members

struct AddressEntry {
  int16_t book = 0;  // the book's id, from 1
  int is_list = 0;   // the entry has a "member" attribute
  std::string name;
};
using EntryList = std::vector<AddressEntry>;  // sorted by name
using AttrList = std::vector<std::pair<std::string, std::string>>;

struct BOOK_SLOT {
  MBook* book = nullptr;
  int16_t open = 0;
  std::string rights;
  EntryList entries;  // for the window
  int search = 1;     // takes part in address lookups
};

struct AM_ACL {
  std::string identifier;
  unsigned flags = 0;  // 1 read, 2 write, 4 administer
  std::string rights;  // the letters as the server wrote them
};
// The flags word of a rights string: each flag needs all of its letters.
unsigned ABK_FlagsOfRights(const char* rights);

AddressEntry* allocateNewEntry(const char* name, int is_list, int book);
void ABK_freeEntry(AddressEntry*& entry);
bool ABK_entriesEqual(const AddressEntry& a, const AddressEntry& b);
inline bool ABK_isList(const AddressEntry& e) { return e.is_list != 0; }
inline bool ABK_isPerson(const AddressEntry& e) { return e.is_list == 0; }

int ABK_init();
void ABK_shutdown();
AB_SESSION* ABK_localSession();
// The server's books, while they are on and the program is online; else null.
AB_SESSION* ABK_remoteSession();
// Keeps the server connection alive: on a failed NOOP it reconnects and
// binds every open book anew. 0 when the server can't be reached again.
int ABK_ping();

// Book names of both sessions, after making the default books.
std::vector<std::string> AM_BookGetBooks();
// Opens a book by name in a free slot: its id, or 0.
int ABK_openBook(const char* name);
int AM_GetBookID(const char* name);
BOOK_SLOT* ABK_slot(int id);  // null for an id out of range
bool ABK_isRemoteBook(int id);
void ABK_closeBook(int id);
bool ABK_DoesUserHaveACLRight(int id, char right);
int AM_BookSave(int id, const char* new_name);
// kBookLocal: a local book; kBookRemote: a server book. The full name, or empty.
std::string ABK_createNewABook(int kind, const char* name);
int ABK_SetBookACL(int id, const char* identifier, unsigned flags);
int ABK_DeleteBookACL(int id, const char* identifier);
// The book's whole access list, read from its server, with the user's own
// rights read anew (a change may have taken the user's). 1 or 0.
int ABK_GetBookACL(int id, std::vector<AM_ACL>* out);

EntryList AM_EntryGetEntries(int id);
EntryList AM_EntryGetListEntries(int id);
// The lists of every open book, for the organizer.
EntryList AM_FetchLists();
const char* ABK_EntryGetName(const AddressEntry& entry);
AttrList entry_get_attributes(const AddressEntry& entry);
std::optional<std::string> entry_get_value(const AddressEntry& entry, const char* attribute);
int entry_set_value(const AddressEntry& entry, const char* attribute, const char* value);
int Nice_imsp_io(int op, MBook* book, const char* entry, const AbPair* pairs, int n);

// Search criteria: `"attribute" "value"` conditions separated by "|". The
// attribute "Name" sets the entry-name pattern (default "*"). kSearchOk or
// kSearchFailed; limits: 4096 bytes, 25 pairs.
int AM_ParseCriteria(const char* criteria, std::string* name_pattern, std::vector<AbPair>* pairs);
void AM_SearchStart();
int AM_Search(int id, const char* criteria);
EntryList AM_SearchGetList();
void AM_SearchCleanup();

int ABK_NewList(int id, const char* name);
EntryList ABK_membersOfList(const AddressEntry& list);
EntryList ABK_membersOfNameList(int id, const char* name);
int ABK_addToList(const AddressEntry& list, const AddressEntry& entry);
int AM_EntryRemoveFromList(const AddressEntry& entry, const AddressEntry& list);
int AM_EntryRenameInAllLists(int id, const AddressEntry& entry, const char* new_name);
int ABK_RenameEntryInList(int id, const char* list, const char* old_name, const char* new_name);
int AM_EntryRemove(const AddressEntry& entry);
int AM_EntryChangeType(AddressEntry& entry);
void AM_DestroyEntryList(EntryList& list);

// The addresses a typed address stands for in the books, searched as the
// AddrBook.Search* options say (by name, alias and email; "Exact Match",
// "Starts With", "Ends With" or "Contains") in every book whose
// AddrBook.SearchFlag.<book> is not off. Each hit is (personal name,
// email); a list gives its members. 1 found, 0 not.
using ResolvedAddresses = std::vector<std::pair<std::string, std::string>>;
int ABK_ResolveAddress(const std::string& mailbox, const std::string& host, ResolvedAddresses* hits);
// The (personal name, email) of a person, or of each member of a list
// (nested lists followed, cycles cut).
void ABK_EntryAddresses(const AddressEntry& entry, ResolvedAddresses* hits);
