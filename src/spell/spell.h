// Spelling of what the user writes: a dictionary of the user's language,
// the user's own word list (spell_words.txt in the user directory) and the
// words ignored for the rest of the session.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "src/spell/spell_words.h"

constexpr const char* kSpellNotAvailable = "Spell checking is not available in this build.";
constexpr const char* kSpellDictionaryDir = "/usr/share/hunspell";
constexpr size_t kSpellMaxSuggestions = 12;

// False when the program was built without the spelling library.
bool Spell_Available();

// The dictionary to use: Spell.Language, else the language of LANG
// ("de_CH.UTF-8" gives "de_CH") when its files exist, else en_US.
std::string Spell_Language();

// Opens (or reuses) the checker of Spell_Language. False with *error when
// the library or the dictionary is missing. A damaged personal list is
// told in *warning and leaves the checker working without it.
bool Spell_Open(std::string* error, std::string* warning);
// Forgets the open checker, its ignored words and list (tests, a new language).
void Spell_Reset();

// True for a word the dictionary, the personal list or Ignore All knows.
bool Spell_Check(std::string_view word);
std::vector<std::string> Spell_Suggest(std::string_view word);
// Ignore All: known until the program ends.
void Spell_Ignore(std::string_view word);
// Add to Dictionary: into spell_words.txt, written in one step. False with
// *error (a damaged list is never written over).
bool Spell_AddWord(std::string_view word, std::string* error);
// The splitter's options from Spell.SkipQuoted and Spell.SkipCaps.
SpellSplitOptions Spell_SplitOptions();
std::string Spell_ListPath();
