// The address book windows. Each change goes to the book at once through
// the address model; the windows keep no copy that could be lost.
#include "src/books/book_window.h"

#include <strings.h>

#include <algorithm>
#include <string>
#include <vector>

#include "src/base/critical.h"
#include "src/base/errors.h"
#include "src/base/rights_dialog.h"
#include "src/books/address_model.h"
#include "src/books/book_import.h"
#include "src/books/directory.h"
#include "src/options/options.h"
#include "xvt/xvt.h"

namespace {

const WIN_DEF kBookDef[] = {
    {W_MODAL, {0, 0, 600, 420}, "Address Books", 0, 0},
    {WC_TEXT, {12, 10, 200, 28}, "~Books:", 6390, 0},
    {WC_LBOX, {12, 30, 200, 360}, "", kBwBooks, 0},
    {WC_TEXT, {212, 10, 440, 28}, "~Entries (lists end in \"*\"):", 6391, 0},
    {WC_LBOX, {212, 30, 440, 360}, "", kBwEntries, 0},
    {WC_PUSHBUTTON, {452, 30, 588, 56}, "New ~Book...", kBwNewBook, 0},
    {WC_PUSHBUTTON, {452, 60, 588, 86}, "~Rename Book...", kBwRenameBook, 0},
    {WC_PUSHBUTTON, {452, 90, 588, 116}, "Delete Boo~k", kBwDeleteBook, 0},
    {WC_PUSHBUTTON, {452, 130, 588, 156}, "New ~Person...", kBwNewPerson, 0},
    {WC_PUSHBUTTON, {452, 160, 588, 186}, "New ~List...", kBwNewList, 0},
    {WC_PUSHBUTTON, {452, 190, 588, 216}, "~Open Entry...", kBwOpen, CTL_FLAG_DEFAULT},
    {WC_PUSHBUTTON, {452, 220, 588, 246}, "~Delete Entry", kBwDeleteEntry, 0},
    {WC_PUSHBUTTON, {452, 260, 588, 286}, "~Import...", kBwImport, 0},
    {WC_PUSHBUTTON, {452, 290, 588, 316}, "E~xport...", kBwExport, 0},
    {WC_PUSHBUTTON, {452, 320, 588, 346}, "~Search...", kBwSearch, 0},
    {WC_PUSHBUTTON, {452, 350, 588, 376}, "Access Ri~ghts...", kBwRights, 0},
    {WC_PUSHBUTTON, {488, 380, 588, 406}, "Close", kBwClose, 0},
    {W_NONE, {}, nullptr, 0, 0},
};

const WIN_DEF kPersonDef[] = {
    {W_MODAL, {0, 0, 480, 380}, "Person", 0, 0},
    {WC_TEXT, {12, 14, 90, 32}, "~Name:", 6392, 0},
    {WC_EDIT, {96, 10, 468, 34}, "", kPwName, 0},
    {WC_TEXT, {12, 46, 90, 64}, "~Alias:", 6393, 0},
    {WC_EDIT, {96, 42, 468, 66}, "", kPwAlias, 0},
    {WC_TEXT, {12, 78, 90, 96}, "~Email:", 6394, 0},
    {WC_EDIT, {96, 74, 468, 98}, "", kPwEmail, 0},
    {WC_TEXT, {12, 108, 468, 126}, "Other attributes (an empty value removes one):", 6395, 0},
    {WC_LBOX, {12, 130, 468, 270}, "", kPwOther, 0},
    {WC_EDIT, {12, 278, 150, 302}, "", kPwOtherKey, 0},
    {WC_EDIT, {156, 278, 380, 302}, "", kPwOtherValue, 0},
    {WC_PUSHBUTTON, {386, 276, 468, 302}, "S~et", kPwSetOther, 0},
    {WC_PUSHBUTTON, {278, 340, 368, 366}, "Save", kPwSave, CTL_FLAG_DEFAULT},
    {WC_PUSHBUTTON, {378, 340, 468, 366}, "Cancel", kPwCancel, 0},
    {W_NONE, {}, nullptr, 0, 0},
};

const WIN_DEF kListDef[] = {
    {W_MODAL, {0, 0, 420, 380}, "List", 0, 0},
    {WC_TEXT, {12, 14, 90, 32}, "~Name:", 6396, 0},
    {WC_EDIT, {96, 10, 408, 34}, "", kLwName, 0},
    {WC_TEXT, {12, 44, 408, 62}, "~Members:", 6397, 0},
    {WC_LBOX, {12, 66, 408, 270}, "", kLwMembers, 0},
    {WC_EDIT, {12, 278, 230, 302}, "", kLwMember, 0},
    {WC_PUSHBUTTON, {236, 276, 318, 302}, "~Add", kLwAdd, 0},
    {WC_PUSHBUTTON, {326, 276, 408, 302}, "~Remove", kLwRemove, 0},
    {WC_PUSHBUTTON, {218, 340, 308, 366}, "Save", kLwSave, CTL_FLAG_DEFAULT},
    {WC_PUSHBUTTON, {318, 340, 408, 366}, "Cancel", kLwCancel, 0},
    {W_NONE, {}, nullptr, 0, 0},
};

const WIN_DEF kSearchDef[] = {
    {W_MODAL, {0, 0, 460, 410}, "Search Address Books", 0, 0},
    {WC_EDIT, {12, 10, 220, 34}, "", kSwText, 0},
    {WC_LISTBUTTON, {228, 10, 360, 34}, "", kSwType, 0},
    {WC_PUSHBUTTON, {368, 8, 448, 34}, "~Search", kSwRun, CTL_FLAG_DEFAULT},
    {WC_TEXT, {12, 46, 80, 64}, "S~ource:", 6398, 0},
    {WC_LISTBUTTON, {84, 42, 260, 66}, "", kSwSource, 0},
    {WC_LBOX, {12, 76, 448, 360}, "", kSwResults, 0},
    {WC_PUSHBUTTON, {138, 372, 248, 398}, "~Copy to Book...", kSwCopy, 0},
    {WC_PUSHBUTTON, {258, 372, 348, 398}, "~Paste", kSwPaste, 0},
    {WC_PUSHBUTTON, {358, 372, 448, 398}, "Close", kSwClose, 0},
    {W_NONE, {}, nullptr, 0, 0},
};

constexpr size_t kMaxText = 10000;

std::string Text(WINDOW win, int id) { return xvt_ctl_get_text(win, id, kMaxText - 1); }

int Selected(WINDOW win, int id) { return xvt_list_get_sel_index(xvt_win_get_ctl(win, id)); }

void Fill(WINDOW win, int id, const std::vector<std::string>& items) {
  const WINDOW ctl = xvt_win_get_ctl(win, id);
  xvt_list_suspend(ctl);
  xvt_list_clear(ctl);
  for (const std::string& item : items) xvt_list_add(ctl, -1, item.c_str());
  xvt_list_resume(ctl);
}

// A name goes quoted when it holds characters that mean something in an
// address.
std::string PersonalPart(const std::string& name) {
  if (name.find_first_of("()<>@,;:\\\".[]") == std::string::npos) return name;
  std::string q = "\"";
  for (char c : name) {
    if (c == '"' || c == '\\') q += '\\';
    q += c;
  }
  return q + "\"";
}

bool Prompt(const char* prompt, std::string* out) {
  char buffer[200] = "";
  if (!xvt_dm_post_string_prompt(prompt, buffer, sizeof buffer)) return false;
  *out = buffer;
  return !out->empty();
}

// --- The person window -------------------------------------------------------

struct PersonAsk {
  int book = 0;
  std::string name;  // empty for a new person
  AttrList attrs;    // every attribute, Alias and Email included
  bool saved = false;
};

bool IsField(const std::string& a) {
  return strcasecmp(a.c_str(), "Alias") == 0 || strcasecmp(a.c_str(), "Email") == 0;
}

void FillOther(WINDOW win, const PersonAsk* ask) {
  std::vector<std::string> lines;
  for (const auto& [a, v] : ask->attrs)
    if (!IsField(a)) lines.push_back(a + ": " + v);
  Fill(win, kPwOther, lines);
}

void SetAttr(AttrList* attrs, const std::string& key, const std::string& value) {
  auto at = std::find_if(attrs->begin(), attrs->end(),
                         [&key](const auto& p) { return strcasecmp(p.first.c_str(), key.c_str()) == 0; });
  if (value.empty()) {
    if (at != attrs->end()) attrs->erase(at);
  } else if (at != attrs->end()) {
    at->second = value;
  } else {
    attrs->emplace_back(key, value);
  }
}

// Stores the person; a new name for an existing person renames it in the
// book's lists too. The new entry is written before the old one goes.
bool SavePerson(WINDOW win, PersonAsk* ask) {
  const std::string name = Text(win, kPwName);
  if (name.empty() || name.size() >= 200 || name.find('\n') != std::string::npos) {
    xvt_dm_post_error("A person needs a name of 1 to 199 characters.");
    return false;
  }
  if (name != ask->name && entry_get_value(AddressEntry{static_cast<int16_t>(ask->book), 0, name}, "Email")) {
    xvt_dm_post_error("The book already has an entry \"%s\".", name.c_str());
    return false;
  }
  SetAttr(&ask->attrs, "Email", Text(win, kPwEmail));
  SetAttr(&ask->attrs, "Alias", Text(win, kPwAlias));
  if (ask->attrs.empty()) ask->attrs.emplace_back("Email", "");
  std::vector<AbPair> pairs;
  for (const auto& [a, v] : ask->attrs) pairs.push_back({a, v});
  if (!Nice_imsp_io(kBookLocal, ABK_slot(ask->book)->book, name.c_str(), pairs.data(), static_cast<int>(pairs.size())))
    return false;  // told by the book
  if (!ask->name.empty() && ask->name != name) {
    const AddressEntry old{static_cast<int16_t>(ask->book), 0, ask->name};
    AM_EntryRenameInAllLists(ask->book, old, name.c_str());
    AM_EntryRemove(old);
  }
  ask->name = name;
  ask->saved = true;
  return true;
}

long person_eh(WINDOW win, EVENT* ev) {
  auto* ask = reinterpret_cast<PersonAsk*>(xvt_vobj_get_data(win));
  switch (ev->type) {
    case E_CREATE: {
      xvt_vobj_set_title(xvt_win_get_ctl(win, kPwName), ask->name.c_str());
      for (const auto& [a, v] : ask->attrs) {
        if (strcasecmp(a.c_str(), "Alias") == 0) xvt_vobj_set_title(xvt_win_get_ctl(win, kPwAlias), v.c_str());
        if (strcasecmp(a.c_str(), "Email") == 0) xvt_vobj_set_title(xvt_win_get_ctl(win, kPwEmail), v.c_str());
      }
      FillOther(win, ask);
      const bool may_write = ABK_DoesUserHaveACLRight(ask->book, 'w');
      xvt_vobj_set_enabled(xvt_win_get_ctl(win, kPwSave), may_write);
      break;
    }
    case E_CONTROL:
      switch (ev->v.ctl.id) {
        case kPwSetOther: {
          const std::string key = Text(win, kPwOtherKey);
          if (key.empty() || IsField(key) || strcasecmp(key.c_str(), "member") == 0) {
            xvt_dm_post_error("Type an attribute name other than Alias, Email or member.");
            break;
          }
          SetAttr(&ask->attrs, key, Text(win, kPwOtherValue));
          FillOther(win, ask);
          break;
        }
        case kPwSave:
          if (SavePerson(win, ask)) xvt_vobj_destroy(win);
          break;
        case kPwCancel: xvt_vobj_destroy(win); break;
        default: break;
      }
      break;
    case E_CLOSE: xvt_vobj_destroy(win); break;
    default: break;
  }
  return 0;
}

// --- The list window -----------------------------------------------------------

struct ListAsk {
  int book = 0;
  std::string name;
  std::vector<std::string> members;
  bool saved = false;
};

bool SaveList(WINDOW win, ListAsk* ask) {
  const std::string name = Text(win, kLwName);
  if (name.empty() || name.size() >= 200 || name.find('\n') != std::string::npos) {
    xvt_dm_post_error("A list needs a name of 1 to 199 characters.");
    return false;
  }
  std::string joined;
  for (const std::string& m : ask->members) joined += m + "\n";
  AddressEntry entry{static_cast<int16_t>(ask->book), 1, name};
  AttrList attrs = entry_get_attributes(AddressEntry{static_cast<int16_t>(ask->book), 1, ask->name.empty() ? name : ask->name});
  SetAttr(&attrs, "member", joined.empty() ? kNoMembers : joined);
  std::vector<AbPair> pairs;
  for (const auto& [a, v] : attrs) pairs.push_back({a, v});
  if (!Nice_imsp_io(kBookLocal, ABK_slot(ask->book)->book, name.c_str(), pairs.data(), static_cast<int>(pairs.size())))
    return false;
  if (!ask->name.empty() && ask->name != name) {
    const AddressEntry old{static_cast<int16_t>(ask->book), 1, ask->name};
    AM_EntryRenameInAllLists(ask->book, old, name.c_str());
    AM_EntryRemove(old);
  }
  ask->saved = true;
  return true;
}

long list_eh(WINDOW win, EVENT* ev) {
  auto* ask = reinterpret_cast<ListAsk*>(xvt_vobj_get_data(win));
  switch (ev->type) {
    case E_CREATE:
      xvt_vobj_set_title(xvt_win_get_ctl(win, kLwName), ask->name.c_str());
      Fill(win, kLwMembers, ask->members);
      xvt_vobj_set_enabled(xvt_win_get_ctl(win, kLwSave), ABK_DoesUserHaveACLRight(ask->book, 'w'));
      break;
    case E_CONTROL:
      switch (ev->v.ctl.id) {
        case kLwAdd: {
          const std::string m = Text(win, kLwMember);
          if (m.empty() || m.find('\n') != std::string::npos) break;
          ask->members.push_back(m);
          Fill(win, kLwMembers, ask->members);
          break;
        }
        case kLwRemove: {
          const int at = Selected(win, kLwMembers);
          if (at < 0 || at >= static_cast<int>(ask->members.size())) break;
          ask->members.erase(ask->members.begin() + at);
          Fill(win, kLwMembers, ask->members);
          break;
        }
        case kLwSave:
          if (SaveList(win, ask)) xvt_vobj_destroy(win);
          break;
        case kLwCancel: xvt_vobj_destroy(win); break;
        default: break;
      }
      break;
    case E_CLOSE: xvt_vobj_destroy(win); break;
    default: break;
  }
  return 0;
}

// --- The search window -----------------------------------------------------------

const char* const kSearchTypes[] = {"Exact Match", "Starts With", "Ends With", "Contains"};

// The compose field of the last quick search.
WINDOW g_quick_target = NULL_WIN;

struct SearchAsk {
  int book = 0;          // 0: every book
  WINDOW target = NULL_WIN;  // the compose field chosen entries go to
  bool owned = false;    // a modeless window frees its record
  EntryList found;
  std::vector<DirectoryHit> people;  // what the directory gave, when it is the source
};

bool FromDirectory(WINDOW win) { return Selected(win, kSwSource) == 1; }

std::string PersonText(const DirectoryHit& h) {
  return h.name.empty() ? h.email : PersonalPart(h.name) + " <" + h.email + ">";
}

bool TargetAlive(WINDOW target) { return target && xvt_vobj_is_valid(target); }

// Added behind what the field holds, after a comma.
void AppendToField(WINDOW target, const std::string& add) {
  std::vector<char> buffer(64 * 1024);
  std::string field;
  if (xvt_vobj_get_title(target, buffer.data(), buffer.size())) field = buffer.data();
  const size_t end = field.find_last_not_of(" ,");
  field = end == std::string::npos ? "" : field.substr(0, end + 1) + ", ";
  xvt_vobj_set_title(target, (field + add).c_str());
}

void RunSearch(WINDOW win, SearchAsk* ask) {
  const std::string text = Text(win, kSwText);
  const int type = std::max(0, Selected(win, kSwType));
  const bool leading = type >= 2, trailing = type == 1 || type == 3;
  const std::string pattern = std::string(leading ? "*" : "") + text + (trailing ? "*" : "");
  std::vector<std::string> lines;
  ask->found.clear();
  ask->people.clear();
  if (FromDirectory(win)) {
    const DirectoryAnswer answer = DIR_Search(text);
    ask->people = answer.hits;
    for (const DirectoryHit& h : ask->people) lines.push_back(PersonText(h));
    Fill(win, kSwResults, lines);
    if (answer.failed) xvt_dm_post_error("%s", answer.message.c_str());
    if (answer.partial) xvt_dm_post_note("%s", answer.message.c_str());
    return;
  }
  if (text.find_first_of("\"|") != std::string::npos) {
    xvt_dm_post_error("The text to search for cannot hold \" or |.");
  } else {
    AM_SearchStart();
    for (int id = 1; id <= kMaxBooks; ++id) {
      const BOOK_SLOT* slot = ABK_slot(id);
      if (!slot->open || (ask->book && id != ask->book)) continue;
      for (const char* a : {"Name", "Alias", "Email"})
        AM_Search(id, ("\"" + std::string(a) + "\" \"" + pattern + "\"").c_str());
    }
    ask->found = AM_SearchGetList();
    for (const AddressEntry& e : ask->found)
      lines.push_back(e.name + (e.is_list ? "*" : "") + "  (" + ABK_slot(e.book)->book->name + ")");
    AM_SearchCleanup();
  }
  Fill(win, kSwResults, lines);
}

// A person of the directory into a book, under the name the directory
// gives; an entry of that name already there is left as it is.
void CopyChosen(WINDOW win, SearchAsk* ask) {
  const int at = Selected(win, kSwResults);
  if (at < 0 || at >= static_cast<int>(ask->people.size())) {
    xvt_dm_post_error("Select a person found in the directory to copy.");
    return;
  }
  const DirectoryHit& h = ask->people[at];
  const std::vector<std::string> books = AM_BookGetBooks();
  char book[200] = "";
  if (!books.empty()) snprintf(book, sizeof book, "%s", books.front().c_str());
  if (!xvt_dm_post_string_prompt(("Copy \"" + PersonText(h) + "\" into the book:").c_str(), book, sizeof book))
    return;
  const int id = ABK_openBook(book);
  if (!id) {
    xvt_dm_post_error("There is no book \"%s\".", book);
    return;
  }
  const std::string name = (h.name.empty() ? h.email : h.name).substr(0, 199);
  if (entry_get_value(AddressEntry{static_cast<int16_t>(id), 0, name}, "Email")) {
    xvt_dm_post_error("The book \"%s\" already has an entry \"%s\".", book, name.c_str());
    return;
  }
  const AbPair email{"Email", h.email};
  if (Nice_imsp_io(kBookLocal, ABK_slot(id)->book, name.c_str(), &email, 1))
    xvt_dm_post_note("\"%s\" is now in the book \"%s\".", name.c_str(), book);
}

void PasteChosen(WINDOW win, SearchAsk* ask) {
  const int at = Selected(win, kSwResults);
  if (FromDirectory(win)) {
    if (at < 0 || at >= static_cast<int>(ask->people.size())) {
      xvt_dm_post_error("Select the person to paste.");
    } else if (!TargetAlive(ask->target)) {
      xvt_dm_post_error("The compose window this search was opened from is closed.");
    } else {
      AppendToField(ask->target, PersonText(ask->people[at]));
    }
    return;
  }
  if (at < 0 || at >= static_cast<int>(ask->found.size())) {
    xvt_dm_post_error("Select the person or list to paste.");
    return;
  }
  if (!TargetAlive(ask->target)) {
    xvt_dm_post_error("The compose window this search was opened from is closed.");
    return;
  }
  const std::string add = ABK_PasteText(ask->found[at]);
  if (add.empty()) {
    xvt_dm_post_error("\"%s\" has no address to paste.", ask->found[at].name.c_str());
    return;
  }
  AppendToField(ask->target, add);
}

long search_eh(WINDOW win, EVENT* ev) {
  auto* ask = reinterpret_cast<SearchAsk*>(xvt_vobj_get_data(win));
  switch (ev->type) {
    case E_CREATE: {
      Fill(win, kSwType, std::vector<std::string>(std::begin(kSearchTypes), std::end(kSearchTypes)));
      xvt_list_set_sel(xvt_win_get_ctl(win, kSwType), 1, true);
      Fill(win, kSwSource, {"Address Books", "Directory"});
      xvt_list_set_sel(xvt_win_get_ctl(win, kSwSource), 0, true);
      xvt_vobj_set_enabled(xvt_win_get_ctl(win, kSwSource), DIR_Enabled());
      xvt_vobj_set_enabled(xvt_win_get_ctl(win, kSwCopy), false);
      xvt_vobj_set_enabled(xvt_win_get_ctl(win, kSwPaste), TargetAlive(ask->target));
      // Opened beside a compose window, it takes the typing at once.
      xvt_scr_set_focus_vobj(xvt_win_get_ctl(win, kSwText));
      break;
    }
    case E_CONTROL:
      switch (ev->v.ctl.id) {
        case kSwRun: RunSearch(win, ask); break;
        case kSwResults:
          if (ev->v.ctl.ci.v.lbox.dbl_click && TargetAlive(ask->target)) PasteChosen(win, ask);
          break;
        case kSwPaste: PasteChosen(win, ask); break;
        case kSwCopy: CopyChosen(win, ask); break;
        case kSwSource: {
          // The directory has its own filter: the match type is the books'.
          const bool directory = FromDirectory(win);
          xvt_vobj_set_enabled(xvt_win_get_ctl(win, kSwType), !directory);
          xvt_vobj_set_enabled(xvt_win_get_ctl(win, kSwCopy), directory);
          ask->found.clear();
          ask->people.clear();
          Fill(win, kSwResults, {});
          break;
        }
        case kSwClose: xvt_vobj_destroy(win); break;
        default: break;
      }
      break;
    case E_CLOSE: xvt_vobj_destroy(win); break;
    case E_DESTROY:
      if (ask->owned) delete ask;
      break;
    default: break;
  }
  return 0;
}

// --- Access rights of a book -----------------------------------------------------

void BookRights(int id) {
  const BOOK_SLOT* slot = ABK_slot(id);
  if (!slot || !slot->open) return;
  RightsOwner owner;
  owner.title = "Access Rights of the book " + slot->book->name;
  owner.boxes = {{"read", 1}, {"write", 2}, {"administer", 4}};
  owner.load = [id](std::vector<RightsRow>* rows, bool* may_change, std::string* note) {
    if (!ABK_isRemoteBook(id)) {
      const std::string& mine = ABK_slot(id)->rights;
      rows->push_back({"(you)", static_cast<int>(ABK_FlagsOfRights(mine.c_str())), mine});
      *note = "A local book: you have every right in it, and there is no list to change.";
      return true;
    }
    std::vector<AM_ACL> list;
    // Only an administrator may read the whole list; others see their own.
    abook_getacl(ABK_slot(id)->book, nullptr);
    *may_change = ABK_DoesUserHaveACLRight(id, 'a');
    const std::string mine = ABK_slot(id)->rights;
    if (!*may_change) {
      *note = "You do not have the administer right in this book (yours: " + mine + "): the list is read-only.";
      rows->push_back({"(you)", static_cast<int>(ABK_FlagsOfRights(mine.c_str())), mine});
      return true;
    }
    if (!ABK_GetBookACL(id, &list)) return false;
    for (const AM_ACL& a : list) rows->push_back({a.identifier, static_cast<int>(a.flags), a.rights});
    return true;
  };
  owner.set = [id](const std::string& who, int flags) {
    return ABK_SetBookACL(id, who.c_str(), static_cast<unsigned>(flags)) != 0;
  };
  owner.remove = [id](const std::string& who) { return ABK_DeleteBookACL(id, who.c_str()) != 0; };
  RightsDialog(owner);
}

// --- The book window -----------------------------------------------------------

struct BookAsk {
  std::vector<std::string> books;
  EntryList entries;
  int book = 0;  // the chosen book's id
  long timer = 0;  // keeps the server connection alive while the window is open
};

// The server drops connections left idle: the window pings it at the mail
// check's interval (Timer.Interval, minutes).
long PingPeriodMs() {
  int minutes = 10;
  if (!Opt_LookupInt("Timer.Interval", &minutes, kOptSession) || minutes < 1) minutes = 10;
  return minutes * 60000L;
}

void FillEntries(WINDOW win, BookAsk* ask) {
  ask->entries = ask->book ? AM_EntryGetEntries(ask->book) : EntryList{};
  std::vector<std::string> lines;
  for (const AddressEntry& e : ask->entries) lines.push_back(e.name + (e.is_list ? "*" : ""));
  Fill(win, kBwEntries, lines);
}

void FillBooks(WINDOW win, BookAsk* ask, const std::string& chosen) {
  ask->books = AM_BookGetBooks();
  Fill(win, kBwBooks, ask->books);
  ask->book = 0;
  for (size_t i = 0; i < ask->books.size(); ++i)
    if (ask->books[i] == chosen || (chosen.empty() && i == 0)) {
      xvt_list_set_sel(xvt_win_get_ctl(win, kBwBooks), static_cast<int>(i), true);
      ask->book = ABK_openBook(ask->books[i].c_str());
    }
  FillEntries(win, ask);
}

std::string BookName(const BookAsk* ask) {
  const BOOK_SLOT* slot = ABK_slot(ask->book);
  return slot && slot->open ? slot->book->name : "";
}

bool MayWrite(const BookAsk* ask) {
  if (ask->book && ABK_DoesUserHaveACLRight(ask->book, 'w')) return true;
  xvt_dm_post_error("You may not change the book \"%s\".", BookName(ask).c_str());
  return false;
}

void OpenEntry(WINDOW win, BookAsk* ask, const AddressEntry& e) {
  if (e.is_list) {
    ListAsk list{ask->book, e.name, {}, false};
    for (const AddressEntry& m : ABK_membersOfList(e)) list.members.push_back(m.name);
    xvt_dlg_create_res(W_MODAL, kListRid, EM_ALL, list_eh, reinterpret_cast<intptr_t>(&list));
  } else {
    PersonAsk person{ask->book, e.name, entry_get_attributes(e), false};
    xvt_dlg_create_res(W_MODAL, kPersonRid, EM_ALL, person_eh, reinterpret_cast<intptr_t>(&person));
  }
  FillEntries(win, ask);
}

void BookCommand(WINDOW win, BookAsk* ask, int id) {
  const int at = Selected(win, kBwEntries);
  const AddressEntry* entry = at >= 0 && at < static_cast<int>(ask->entries.size()) ? &ask->entries[at] : nullptr;
  std::string name;
  switch (id) {
    case kBwBooks: {
      const int b = Selected(win, kBwBooks);
      ask->book = b >= 0 && b < static_cast<int>(ask->books.size()) ? ABK_openBook(ask->books[b].c_str()) : 0;
      FillEntries(win, ask);
      break;
    }
    case kBwEntries: break;
    case kBwNewBook:
      // A new book goes where the chosen one lives.
      if (Prompt("Name of the new book:", &name)) {
        const int kind = ask->book && ABK_isRemoteBook(ask->book) ? kBookRemote : kBookLocal;
        const std::string full = ABK_createNewABook(kind, name.c_str());
        if (!full.empty()) FillBooks(win, ask, full);
      }
      break;
    case kBwRenameBook:
      if (MayWrite(ask) && Prompt("New name of the book:", &name) && AM_BookSave(ask->book, name.c_str()))
        FillBooks(win, ask, name);
      break;
    case kBwDeleteBook: {
      const std::string book = BookName(ask);
      if (book.empty() || !ABK_DoesUserHaveACLRight(ask->book, 'd')) {
        xvt_dm_post_error("You may not delete the book \"%s\".", book.c_str());
        break;
      }
      if (xvt_dm_post_ask("Delete", "Cancel", nullptr, "Delete the book \"%s\" and every entry in it?",
                          book.c_str()) != RESP_DEFAULT)
        break;
      AB_SESSION* session = ABK_slot(ask->book)->book->session;
      ABK_closeBook(ask->book);
      abook_delete(session, book.c_str());
      FillBooks(win, ask, "");
      break;
    }
    case kBwNewPerson:
      if (MayWrite(ask)) {
        PersonAsk person{ask->book, "", {}, false};
        xvt_dlg_create_res(W_MODAL, kPersonRid, EM_ALL, person_eh, reinterpret_cast<intptr_t>(&person));
        FillEntries(win, ask);
      }
      break;
    case kBwNewList:
      if (MayWrite(ask)) {
        ListAsk list{ask->book, "", {}, false};
        xvt_dlg_create_res(W_MODAL, kListRid, EM_ALL, list_eh, reinterpret_cast<intptr_t>(&list));
        FillEntries(win, ask);
      }
      break;
    case kBwOpen:
      if (entry) OpenEntry(win, ask, *entry);
      break;
    case kBwDeleteEntry:
      if (entry && MayWrite(ask) &&
          xvt_dm_post_ask("Delete", "Cancel", nullptr, "Delete \"%s\"?", entry->name.c_str()) == RESP_DEFAULT) {
        AM_EntryRemove(*entry);
        FillEntries(win, ask);
      }
      break;
    case kBwImport: {
      char path[4096] = "";
      if (MayWrite(ask) && xvt_dm_post_file_open("Select Book import file", path, sizeof path)) {
        ABK_Import(ask->book, path);
        FillEntries(win, ask);
      }
      break;
    }
    case kBwExport: {
      char path[4096] = "";
      if (ask->book && xvt_dm_post_file_save("Export the book to", path, sizeof path)) ABK_Export(ask->book, path);
      break;
    }
    case kBwSearch: {
      // Chosen entries go to the field the user last searched for, if its
      // compose window is still open.
      SearchAsk search{0, ABK_QuickSearchTarget(), false, {}, {}};
      xvt_dlg_create_res(W_MODAL, kBookSearchRid, EM_ALL, search_eh, reinterpret_cast<intptr_t>(&search));
      FillEntries(win, ask);  // people copied in from the directory show at once
      break;
    }
    case kBwRights:
      if (ask->book) BookRights(ask->book);
      break;
    case kBwClose: xvt_vobj_destroy(win); break;
    default: break;
  }
}

long book_eh(WINDOW win, EVENT* ev) {
  auto* ask = reinterpret_cast<BookAsk*>(xvt_vobj_get_data(win));
  switch (ev->type) {
    case E_CREATE:
      FillBooks(win, ask, "");
      if (ABK_remoteSession()) ask->timer = xvt_timer_create(win, PingPeriodMs());
      break;
    case E_TIMER:
      if (WIN_in_critical()) break;  // a call to the server is running
      if (!ABK_ping()) {
        ErrorShow(4003, "IMSP server disconnect");
        xvt_vobj_destroy(win);
      }
      break;
    case E_DESTROY:
      if (ask->timer) xvt_timer_destroy(ask->timer);
      ask->timer = 0;
      break;
    case E_CONTROL: BookCommand(win, ask, ev->v.ctl.id); break;
    case E_CLOSE: xvt_vobj_destroy(win); break;
    default: break;
  }
  return 0;
}

}  // namespace

namespace {

void RegisterDialogs() {
  xvt_res_register_dialog(kBookWindowRid, kBookDef);
  xvt_res_register_dialog(kPersonRid, kPersonDef);
  xvt_res_register_dialog(kListRid, kListDef);
  xvt_res_register_dialog(kBookSearchRid, kSearchDef);
}


}  // namespace

std::string ABK_PasteText(const AddressEntry& entry) {
  ResolvedAddresses hits;
  ABK_EntryAddresses(entry, &hits);
  std::string text;
  for (const auto& [personal, email] : hits) {
    if (email.empty()) continue;
    // An address the user typed whole ("Bob" <bob@x.org>) goes as it is.
    const std::string one = email.find('<') != std::string::npos || personal.empty()
                                ? email
                                : PersonalPart(personal) + " <" + email + ">";
    text += (text.empty() ? "" : ", ") + one;
  }
  return text;
}

WINDOW ABK_QuickSearchTarget() { return TargetAlive(g_quick_target) ? g_quick_target : NULL_WIN; }

int ABK_QuickSearch(int book, WINDOW target) {
  RegisterDialogs();
  if (!ABK_localSession() && !ABK_init()) {
    ErrorShow(2019, "abksrch.c : ABK_QuickSearch");
    return 0;
  }
  // Every book takes part: open those not open yet.
  if (!book)
    for (const std::string& name : AM_BookGetBooks()) ABK_openBook(name.c_str());
  g_quick_target = target;
  auto* ask = new SearchAsk{book, target, true, {}, {}};
  if (!xvt_dlg_create_res(W_MODELESS, kBookSearchRid, EM_ALL, search_eh, reinterpret_cast<intptr_t>(ask))) {
    delete ask;
    ErrorShow(2019, "abksrch.c : ABK_QuickSearch");
    return 0;
  }
  return 1;
}

void ABK_BookWindow() {
  RegisterDialogs();
  if (!ABK_localSession() && !ABK_init()) {
    xvt_dm_post_error("The address books cannot be opened.");
    return;
  }
  BookAsk ask;
  xvt_dlg_create_res(W_MODAL, kBookWindowRid, EM_ALL, book_eh, reinterpret_cast<intptr_t>(&ask));
}
