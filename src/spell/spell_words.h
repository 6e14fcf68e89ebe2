// The words of a message that a spelling checker should look at, and the
// user's own word list.
//
// A mail text holds much that is not prose: quoted lines of the message
// being answered, addresses, links, part numbers, shouted acronyms. The
// splitter leaves those out, so that the checker stops only where the
// writer can do something about it.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// One word: line number from 0 and byte offset in that line, byte length.
struct SpellWord {
  long line = 0;
  long offset = 0;
  long length = 0;
  bool operator==(const SpellWord&) const = default;
};

struct SpellSplitOptions {
  bool skip_quoted = true;  // lines beginning with '>'
  bool skip_caps = false;   // words without a lower-case letter
};

// Words longer than this are not words a dictionary holds (a pasted key,
// a run of base64); they are passed over.
constexpr size_t kSpellMaxWordBytes = 100;

// The words of text (UTF-8; a byte that is not part of a well-formed
// sequence separates words) in order. Letters are those of any script;
// an apostrophe (' or U+2019) between two letters stays in the word.
// Runs holding "://", starting "www." or holding '@' are passed over
// whole, and so are words with a digit in them.
std::vector<SpellWord> SpellSplit(std::string_view text, const SpellSplitOptions& options);

// The same for a one-line text, as views into it.
std::vector<std::string_view> SpellSplitLine(std::string_view line, const SpellSplitOptions& options);

// --- The personal word list ----------------------------------------------------
// One word a line, UTF-8, blank lines ignored. A file beyond these limits,
// or holding a line that cannot be a word, is refused whole: the program
// then works without it and never writes over it.
constexpr size_t kSpellListMaxBytes = 4u << 20;
constexpr size_t kSpellListMaxWords = 100000;
constexpr const char* kSpellListName = "spell_words.txt";

// Parses a list; false with a message naming the line on a damaged one.
bool SpellParseWords(std::string_view data, std::vector<std::string>* words, std::string* error);
// The file as the program writes it.
std::string SpellFormatWords(const std::vector<std::string>& words);
// Reads path; a missing file is an empty list. False with *error otherwise.
bool SpellLoadWords(const std::string& path, std::vector<std::string>* words, std::string* error);
// Replaces path in one step (mode 0600). False with *error; the old file stays.
bool SpellSaveWords(const std::string& path, const std::vector<std::string>& words, std::string* error);
// Whether w could be a list entry (the test the parser applies to each line).
bool SpellIsListWord(std::string_view w, std::string* why);
