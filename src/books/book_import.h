// Reading a text file of entries into a book, and writing a book so that
// the import reads it back.
//
// An entry is a series of key and value pairs. A key ends at the first tab,
// bracket or blank; its value is the rest of the line, without a bracket
// around it. An entry ends at the line end outside brackets, or at the
// bracket that closes the one it opened with, so an entry of many lines is
// written in brackets:
//
//   (Name	Ann Lee
//   Email	ann@x.org
//   Member	(bob, carl)
//   )
//
// "Name" or "entryname" names the entry; "Member" or "members" holds the
// list's members, split at commas. Blank lines may separate entries.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "src/books/address_model.h"

constexpr int kImportOk = 1;
constexpr int kImportFail = 0;
constexpr long kImportMaxEntry = 60000;

// Sizes the entry at the stream's position (its bytes and the blank lines
// behind it) and counts its bad characters; the position is kept.
int ScanEntry(FILE* stream, long* size, long* bad);
// Reads size bytes, leaving out the bad characters.
int ReadEntry(FILE* stream, long size, std::string* out);
// The next key and value from position *pos of an entry's text.
int ParseToken(const std::string& entry, size_t* pos, std::string* key, std::string* value);

struct ImportedEntry {
  std::string name;
  AttrList attributes;                // every pair but the name and members
  std::vector<std::string> members;  // in file order, each once
  bool is_list = false;
};
int ParseEntry(const std::string& entry, ImportedEntry* out);

// Reads the file into the book with this id (0: no book chosen).
int ABK_Import(int id, const char* path);
// Brings the book's lists up to date after an import.
void UpdateListEntries(int id, const std::vector<std::string>& lists);
// Writes every entry of the book; 1 written, 0 not (told).
int ABK_Export(int id, const char* path);
