// The checker over the system's spelling library. Built without it, every
// call answers that spelling is not available and nothing else changes.
#include "src/spell/spell.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <memory>
#include <set>

#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/options/options.h"

#ifdef VELMAR_HAVE_HUNSPELL
#include <hunspell/hunspell.hxx>
#endif

namespace {

struct Checker {
  std::string language;
#ifdef VELMAR_HAVE_HUNSPELL
  std::unique_ptr<Hunspell> dict;
#endif
  std::set<std::string, std::less<>> ignored;
  std::set<std::string, std::less<>> personal;
  std::vector<std::string> personal_order;  // as in the file, for writing back
  bool list_damaged = false;
};

std::unique_ptr<Checker>& Current() {
  static std::unique_ptr<Checker> c;
  return c;
}

bool Exists(const std::string& path) { return ::access(path.c_str(), R_OK) == 0; }

std::string DictionaryDir() {
  std::string dir = Opt_LookupText("Spell.DictionaryDir", kOptSession);
  return dir.empty() ? kSpellDictionaryDir : dir;
}

bool HasDictionary(const std::string& language) {
  const std::string base = JoinPath(DictionaryDir(), language);
  return !language.empty() && Exists(base + ".aff") && Exists(base + ".dic");
}

// A name fit to join to the dictionary folder: letters, digits, '_' and '-'.
bool SaneLanguage(const std::string& s) {
  if (s.empty() || s.size() > 32) return false;
  return std::all_of(s.begin(), s.end(), [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-'; });
}

bool Enabled(const char* name, int fallback) {
  int v = fallback;
  Opt_LookupInt(name, &v, kOptSession);
  return v != 0;
}

}  // namespace

bool Spell_Available() {
#ifdef VELMAR_HAVE_HUNSPELL
  return true;
#else
  return false;
#endif
}

std::string Spell_Language() {
  std::string lang = Opt_LookupText("Spell.Language", kOptSession);
  if (!lang.empty()) return lang;
  const char* env = std::getenv("LANG");
  if (env && *env) {
    std::string l(env);
    l = l.substr(0, l.find_first_of(".@"));
    if (SaneLanguage(l) && HasDictionary(l)) return l;
  }
  return "en_US";
}

std::string Spell_ListPath() { return JoinPath(GetUserDir(), kSpellListName); }

SpellSplitOptions Spell_SplitOptions() {
  SpellSplitOptions o;
  o.skip_quoted = Enabled("Spell.SkipQuoted", 1);
  o.skip_caps = Enabled("Spell.SkipCaps", 1);
  return o;
}

void Spell_Reset() { Current().reset(); }

bool Spell_Open(std::string* error, std::string* warning) {
  if (!Spell_Available()) {
    *error = kSpellNotAvailable;
    return false;
  }
  const std::string language = Spell_Language();
  if (Current() && Current()->language == language) return true;
  if (!SaneLanguage(language) || !HasDictionary(language)) {
    *error = "There is no spelling dictionary for \"" + language + "\" in " + DictionaryDir() +
             ". Install one (for English, the hunspell-en-us package) or choose another language.";
    return false;
  }
  auto c = std::make_unique<Checker>();
  c->language = language;
#ifdef VELMAR_HAVE_HUNSPELL
  const std::string base = JoinPath(DictionaryDir(), language);
  c->dict = std::make_unique<Hunspell>((base + ".aff").c_str(), (base + ".dic").c_str());
  if (c->dict->get_dict_encoding() != "UTF-8") {
    // Our text is UTF-8 throughout; an 8-bit dictionary would misread
    // every accented letter.
    *error = "The spelling dictionary \"" + language + "\" is not in UTF-8 and cannot be used.";
    return false;
  }
#endif
  std::string list_error;
  if (!SpellLoadWords(Spell_ListPath(), &c->personal_order, &list_error)) {
    c->list_damaged = true;
    *warning = "Your word list was not read and will not be changed: " + list_error;
    Trace(kTraceSpell, kTraceHigh, "spell: %s", warning->c_str());
  }
  c->personal.insert(c->personal_order.begin(), c->personal_order.end());
  Trace(kTraceSpell, kTraceMedium, "spell: opened %s, %zu words of the user's", language.c_str(), c->personal.size());
  Current() = std::move(c);
  return true;
}

bool Spell_Check(std::string_view word) {
  Checker* c = Current().get();
  if (!c) return true;
  if (c->ignored.count(word) || c->personal.count(word)) return true;
#ifdef VELMAR_HAVE_HUNSPELL
  std::string w(word);
  // A typographic apostrophe is the same letter to the reader.
  for (size_t p; (p = w.find("\xE2\x80\x99")) != std::string::npos;) w.replace(p, 3, "'");
  return c->dict->spell(w);
#else
  return true;
#endif
}

std::vector<std::string> Spell_Suggest(std::string_view word) {
  std::vector<std::string> out;
#ifdef VELMAR_HAVE_HUNSPELL
  if (Checker* c = Current().get()) out = c->dict->suggest(std::string(word));
#else
  (void)word;
#endif
  if (out.size() > kSpellMaxSuggestions) out.resize(kSpellMaxSuggestions);
  return out;
}

void Spell_Ignore(std::string_view word) {
  if (Current()) Current()->ignored.emplace(word);
}

bool Spell_AddWord(std::string_view word, std::string* error) {
  Checker* c = Current().get();
  if (!c) {
    *error = kSpellNotAvailable;
    return false;
  }
  std::string why;
  if (!SpellIsListWord(word, &why)) {
    *error = "\"" + std::string(word) + "\" cannot go into the word list: " + why + ".";
    return false;
  }
  if (c->list_damaged) {
    *error = "Your word list " + Spell_ListPath() + " could not be read, so it is left as it is. Repair or remove it to add words.";
    return false;
  }
  if (c->personal.count(word)) return true;
  if (c->personal_order.size() >= kSpellListMaxWords) {
    *error = "Your word list is full (" + std::to_string(kSpellListMaxWords) + " words).";
    return false;
  }
  // Re-read first: another window (or program) may have added words since.
  std::vector<std::string> words;
  if (!SpellLoadWords(Spell_ListPath(), &words, error)) {
    c->list_damaged = true;
    *error = "Your word list was not changed: " + *error;
    return false;
  }
  words.emplace_back(word);
  if (!SpellSaveWords(Spell_ListPath(), words, error)) return false;
  c->personal_order = std::move(words);
  c->personal.insert(c->personal_order.begin(), c->personal_order.end());
  return true;
}
