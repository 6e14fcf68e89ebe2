// Saved searches in the options, the folder table their scopes use, the
// expansion of a scope into folders, and the quick search's rule.
#include "src/search/saved_search.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <set>
#include <sstream>

#include "src/base/model_events.h"
#include "src/base/trace.h"
#include "src/options/options.h"
#include "src/organizer/nodes.h"
#include "src/search/search_rules.h"

namespace {

constexpr const char* kSearchList = "MsgSearch.IMAP.IDList";
constexpr const char* kFolderList = "FolderID.IDList";
// A scope or a list longer than this is a damaged file, not a user's choice.
constexpr size_t kMaxIds = 4096;

std::vector<int> ReadIds(const std::string& text) { return searchParseIdList(text); }

std::string IdText(const std::vector<int>& ids) {
  std::string out;
  for (int id : ids) out += (out.empty() ? "" : " ") + std::to_string(id);
  return out;
}

// Writes at the session level, and at the permanent level too when asked:
// readers look at the session level, which shows the permanent through.
bool Put(const std::string& key, const std::string& value, int level) {
  if (!Opt_AssignString(key.c_str(), value.c_str(), kOptSession, 0)) return false;
  return level != kOptPermanent || Opt_AssignString(key.c_str(), value.c_str(), kOptPermanent, 0);
}

int FreeId(const std::vector<int>& ids) {
  const std::set<int> taken(ids.begin(), ids.end());
  int id = 1;
  while (taken.count(id)) ++id;
  return id;
}

std::string FolderKey(int id, const char* attribute) {
  return "FolderID." + std::to_string(id) + "." + attribute;
}

bool IsInbox(const std::string& name) { return strcasecmp(name.c_str(), "inbox") == 0; }

// Adds (ms, name) to out unless it is there.
void AddOnce(int ms, const std::string& name, std::vector<SrchFolderRef>* out) {
  for (const SrchFolderRef& r : *out)
    if (r.ms == ms && r.name == name) return;
  out->push_back({ms, name});
}

}  // namespace

std::vector<int> searchParseIdList(const std::string& text) {
  std::vector<int> ids;
  std::istringstream words(text);
  for (std::string w; words >> w && ids.size() < kMaxIds;) {
    if (w.size() > 9 || w.find_first_not_of("0123456789") != std::string::npos) continue;
    const int id = std::atoi(w.c_str());
    if (id > 0 && std::find(ids.begin(), ids.end(), id) == ids.end()) ids.push_back(id);
  }
  return ids;
}

// --- The folder table ------------------------------------------------------------

int foloptAddFolder(int ms, const char* name) {
  const int number = MM_MSGetNumber(ms);
  if (number < 0 || !name || !*name) return 0;
  std::vector<int> ids = ReadIds(Opt_LookupText(kFolderList, kOptSession));
  for (int id : ids) {
    int n = 0;
    std::string found;
    if (foloptFindFolder(id, &n, &found) && n == number && found == name) return id;
  }
  const int id = FreeId(ids);
  ids.push_back(id);
  // The scopes that name the folder are kept for good, so the table is too.
  if (!Put(FolderKey(id, "MS"), std::to_string(number), kOptPermanent) ||
      !Put(FolderKey(id, "Name"), name, kOptPermanent) || !Put(kFolderList, IdText(ids), kOptPermanent))
    return 0;
  return id;
}

int foloptFindFolder(int id, int* ms_number, std::string* name) {
  int n = 0;
  if (id < 1 || !Opt_LookupInt(FolderKey(id, "MS").c_str(), &n, kOptSession)) return 0;
  std::string text = Opt_LookupText(FolderKey(id, "Name").c_str(), kOptSession);
  if (text.empty()) return 0;
  *ms_number = n;
  *name = std::move(text);
  return 1;
}

void foloptRenameFolder(int old_ms, const char* old_name, int new_ms, const char* new_name) {
  const int old_number = MM_MSGetNumber(old_ms), new_number = MM_MSGetNumber(new_ms);
  if (old_number < 0 || new_number < 0 || !old_name || !new_name || !*new_name) return;
  for (int id : ReadIds(Opt_LookupText(kFolderList, kOptSession))) {
    int n = 0;
    std::string found;
    if (!foloptFindFolder(id, &n, &found) || n != old_number || found != old_name) continue;
    Put(FolderKey(id, "MS"), std::to_string(new_number), kOptPermanent);
    Put(FolderKey(id, "Name"), new_name, kOptPermanent);
  }
}

void foloptDeleteFolder(int ms, const char* name) {
  const int number = MM_MSGetNumber(ms);
  if (number < 0 || !name) return;
  std::vector<int> ids = ReadIds(Opt_LookupText(kFolderList, kOptSession));
  for (int id : ids) {
    int n = 0;
    std::string found;
    if (!foloptFindFolder(id, &n, &found) || n != number || found != name) continue;
    searchRemoveFolderFromScope(ms, name);
    Opt_Delete(FolderKey(id, "MS").c_str());
    Opt_Delete(FolderKey(id, "Name").c_str());
    ids.erase(std::find(ids.begin(), ids.end(), id));
    Put(kFolderList, IdText(ids), kOptPermanent);
    return;
  }
}

// --- Searches --------------------------------------------------------------------

std::string searchGetOptionName(int id, const char* attribute) {
  if (std::string(attribute) == "IDList") return kSearchList;
  return "MsgSearch.IMAP." + std::to_string(id) + "." + attribute;
}

int searchGetOptionLevel(int id) {
  const std::vector<int> saved = ReadIds(Opt_LookupText(kSearchList, kOptPermanent));
  return std::find(saved.begin(), saved.end(), id) != saved.end() ? kOptPermanent : kOptSession;
}

std::vector<int> searchIdList() { return ReadIds(Opt_LookupText(kSearchList, kOptSession)); }

std::string searchGetName(int id) { return searchGetOption(id, "Name"); }

int searchFindByName(const char* name) {
  if (!name || !*name) return 0;
  for (int id : searchIdList())
    if (searchGetName(id) == name) return id;
  return 0;
}

std::string searchCreateName(const std::vector<std::string>& names) {
  for (int n = 1;; ++n) {
    const std::string candidate = "Search" + std::to_string(n);
    if (std::find(names.begin(), names.end(), candidate) == names.end()) return candidate;
  }
}

int searchSetOption(int id, const char* attribute, const std::string& value) {
  return Put(searchGetOptionName(id, attribute), value, searchGetOptionLevel(id)) ? 1 : 0;
}

std::string searchGetOption(int id, const char* attribute) {
  return Opt_LookupText(searchGetOptionName(id, attribute).c_str(), kOptSession);
}

bool searchGetFlag(int id, const char* attribute, bool fallback) {
  short on = 0;
  if (!Opt_LookupBoolean(searchGetOptionName(id, attribute).c_str(), &on, kOptSession)) return fallback;
  return on != 0;
}

int SRCH_AddSearch(int level, const char* name) {
  if (!name || !*name || std::string(name).size() > kSearchMaxName) return 0;
  if (level != kOptPermanent && level != kOptSession) return 0;
  if (const int old = searchFindByName(name)) {
    // An old search stays as it is; a session one asked to be kept is kept.
    if (level == kOptPermanent && searchGetOptionLevel(old) != kOptPermanent) {
      std::vector<int> saved = ReadIds(Opt_LookupText(kSearchList, kOptPermanent));
      saved.push_back(old);
      if (!Opt_AssignString(kSearchList, IdText(saved).c_str(), kOptPermanent, 0)) return 0;
      for (const char* a : {"Name", "Sort", "Scope", "SearchIDList", "Hierarchy", "SubscribedOnly", "ViewMsgGrps"})
        if (std::string v = searchGetOption(old, a); !v.empty())
          Opt_AssignString(searchGetOptionName(old, a).c_str(), v.c_str(), kOptPermanent, 0);
    }
    return old;
  }
  std::vector<int> ids = searchIdList();
  const int id = FreeId(ids);
  ids.push_back(id);
  if (!Opt_AssignString(kSearchList, IdText(ids).c_str(), kOptSession, 0)) return 0;
  if (level == kOptPermanent) {
    std::vector<int> saved = ReadIds(Opt_LookupText(kSearchList, kOptPermanent));
    saved.push_back(id);
    if (!Opt_AssignString(kSearchList, IdText(saved).c_str(), kOptPermanent, 0)) return 0;
  }
  if (!searchSetOption(id, "Name", name) || !searchSetOption(id, "Sort", MSG_SortName(kSortRecentArrival)) ||
      !searchSetOption(id, "SubscribedOnly", "1") || !searchSetOption(id, "Hierarchy", "0") ||
      !searchSetOption(id, "ViewMsgGrps", "0"))
    return 0;
  ModelEvent* ev = MM_NotEventNew(E_SEARCH_NEW);
  if (ev) {
    ev->search = static_cast<int16_t>(id);
    ev->name = name;
    MM_NotEventPost(ev);
    MM_NotEventFree(ev);
  }
  return id;
}

std::vector<std::string> searchGetSelectedFoldersByID(int id) {
  std::vector<std::string> out;
  for (int folder : ReadIds(searchGetOption(id, "Scope"))) {
    int number = 0;
    std::string name;
    if (!foloptFindFolder(folder, &number, &name)) continue;
    // A service that is gone takes its folders out of every scope quietly.
    const int ms = MM_MSNew(number);
    if (ms == INVALID_SERVICE) continue;
    const std::string canonical = MM_FolCanonNameBuild(ms, name.c_str());
    if (!canonical.empty()) out.push_back(canonical);
  }
  return out;
}

int searchSaveSelectedFoldersByID(int id, const std::vector<std::string>& canonical) {
  std::vector<int> ids;
  for (const std::string& c : canonical) {
    int ms = INVALID_SERVICE;
    std::string name;
    if (!MM_FolCanonNameParse(c.c_str(), &ms, &name) || ms == INVALID_SERVICE) return 0;
    const int folder = foloptAddFolder(ms, name.c_str());
    if (!folder) return 0;
    if (std::find(ids.begin(), ids.end(), folder) == ids.end()) ids.push_back(folder);
  }
  return searchSetOption(id, "Scope", IdText(ids));
}

int searchExpandSelectedFolders(const std::vector<std::string>& canonical, bool hierarchy, bool subscribed_only,
                                std::vector<SrchFolderRef>* expanded) {
  expanded->clear();
  for (const std::string& c : canonical) {
    int ms = INVALID_SERVICE;
    std::string name;
    if (!MM_FolCanonNameParse(c.c_str(), &ms, &name)) continue;
    // A service that can't be found ends the list: the rest is as unlikely
    // to be reachable, and a partial answer is said as such by the caller.
    if (ms == INVALID_SERVICE) return 0;
    const bool inbox = IsInbox(name);
    if (hierarchy) {
      std::vector<std::string> subtree;
      const char delimiter = MM_FolDelimiter(ms, name.c_str());
      if (folderGetSubtreeList(ms, name.c_str(), delimiter, subscribed_only ? 0 : 1, 1, &subtree) &&
          subtree.size() > 1) {
        if (inbox) AddOnce(ms, name, expanded);
        for (const std::string& n : subtree) AddOnce(ms, n, expanded);
        continue;
      }
    }
    if (!inbox && !MM_FolExists(ms, name.c_str())) continue;
    if (subscribed_only && !inbox && !MM_MSFolIsSubscribed(ms, name.c_str())) continue;
    AddOnce(ms, name, expanded);
  }
  return 1;
}

int searchExpandSelectedFoldersByID(int id, const std::vector<std::string>& canonical,
                                    std::vector<SrchFolderRef>* expanded) {
  return searchExpandSelectedFolders(canonical, searchGetFlag(id, "Hierarchy", false),
                                     searchGetFlag(id, "SubscribedOnly", true), expanded);
}

std::vector<std::string> searchGetSelectedRules(int id) {
  std::vector<std::string> names;
  for (int rule : ReadIds(searchGetOption(id, "SearchIDList"))) {
    std::string name, text;
    if (SRCH_GetRuleByID("IMAP", rule, &name, &text, nullptr)) names.push_back(name);
  }
  return names;
}

int searchSaveSelectedRules(int id, const std::vector<std::string>& names) {
  return SRCH_SaveSelectedRules("IMAP", names, searchGetOptionName(id, "SearchIDList").c_str(),
                                searchGetOptionLevel(id) == kOptPermanent ? 1 : 0);
}

void searchRemoveRuleFromSearches(int rule_id) {
  for (int id : searchIdList()) {
    std::vector<int> rules = ReadIds(searchGetOption(id, "SearchIDList"));
    auto it = std::find(rules.begin(), rules.end(), rule_id);
    if (it == rules.end()) continue;
    rules.erase(it);
    searchSetOption(id, "SearchIDList", IdText(rules));
  }
}

void searchRemoveFolderFromScope(int ms, const char* name) {
  const int number = MM_MSGetNumber(ms);
  for (int id : searchIdList()) {
    std::vector<int> scope = ReadIds(searchGetOption(id, "Scope"));
    const size_t before = scope.size();
    scope.erase(std::remove_if(scope.begin(), scope.end(),
                               [&](int folder) {
                                 int n = 0;
                                 std::string found;
                                 return foloptFindFolder(folder, &n, &found) && n == number && found == name;
                               }),
                scope.end());
    if (scope.size() != before) searchSetOption(id, "Scope", IdText(scope));
  }
}

int searchDeleteOptions(int id) {
  std::vector<int> ids = searchIdList();
  auto it = std::find(ids.begin(), ids.end(), id);
  if (it == ids.end()) return 0;
  // Rules made for this search alone (never saved for good) go with it.
  for (int rule : ReadIds(searchGetOption(id, "SearchIDList")))
    if (!SRCH_GetRuleSavedStatusByID("IMAP", rule)) SRCH_DeleteRuleByID("IMAP", rule);
  ids.erase(it);
  Opt_AssignString(kSearchList, IdText(ids).c_str(), kOptSession, 0);
  std::vector<int> saved = ReadIds(Opt_LookupText(kSearchList, kOptPermanent));
  if (auto s = std::find(saved.begin(), saved.end(), id); s != saved.end()) {
    saved.erase(s);
    Opt_AssignString(kSearchList, IdText(saved).c_str(), kOptPermanent, 0);
  }
  Opt_DeleteMatching(("MsgSearch.IMAP." + std::to_string(id) + ".*").c_str());
  ModelEvent* ev = MM_NotEventNew(E_SEARCH_DELETED);
  if (ev) {
    ev->search = static_cast<int16_t>(id);
    MM_NotEventPost(ev);
    MM_NotEventFree(ev);
  }
  return 1;
}

int searchRename(int id, const char* new_name) {
  if (!new_name || !*new_name || std::string(new_name).size() > kSearchMaxName) return 0;
  const int other = searchFindByName(new_name);
  if (other && other != id) return 0;
  const std::string old = searchGetName(id);
  if (old == new_name) return 1;
  if (!searchSetOption(id, "Name", new_name)) return 0;
  ModelEvent* ev = MM_NotEventNew(E_SEARCH_RENAMED);
  if (ev) {
    ev->search = static_cast<int16_t>(id);
    ev->old_name = old.c_str();
    ev->new_name = new_name;
    MM_NotEventPost(ev);
    MM_NotEventFree(ev);
  }
  return 1;
}

int searchRun(int id, SrchRun* run) {
  std::vector<SrchFolderRef> folders;
  const int complete = searchExpandSelectedFoldersByID(id, searchGetSelectedFoldersByID(id), &folders);
  const int ran = SRCH_RunRules(searchGetSelectedRules(id), folders, run);
  Trace(kTraceOrganizer, kTraceLow, "searchRun : search %d, %zu folders, %zu found\n", id, folders.size(),
        run->found.size());
  return complete && ran ? 1 : 0;
}

// --- Quick search ----------------------------------------------------------------

int SRCH_QuickSearchRule(const QuickSearchInput& in, long long today, std::string* rule) {
  static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  std::string out;
  char buf[kSearchMaxValue + 64];
  if (in.messages == kQuickRead || in.messages == kQuickUnread) {
    std::snprintf(buf, sizeof buf, "%s%c", in.messages == kQuickRead ? "SEEN" : "UNSEEN", ' ');
    out += buf;
  }
  if (in.arrival == kQuickDay || in.arrival == kQuickWeek) {
    // The calendar, not 24-hour steps: the day before stays the day
    // before across a change of summer time.
    std::time_t now = today ? static_cast<std::time_t>(today) : std::time(nullptr);
    std::tm tm{};
    if (!localtime_r(&now, &tm)) return 0;
    tm.tm_mday -= in.arrival == kQuickDay ? 1 : 7;
    tm.tm_hour = 12;
    tm.tm_isdst = -1;
    if (std::mktime(&tm) == static_cast<std::time_t>(-1) || tm.tm_mon < 0 || tm.tm_mon > 11) return 0;
    char date[40];
    std::snprintf(date, sizeof date, "%d-%s-%d", tm.tm_mday, kMonths[tm.tm_mon], tm.tm_year + 1900);
    std::snprintf(buf, sizeof buf, "%s %s%c", "SINCE", date, ' ');
    out += buf;
  }
  if (!in.text.empty()) {
    const std::string text = in.text.substr(0, kSearchMaxValue);
    const std::string q = SRCH_Quote(text);  // the value with its quotes
    const std::string inner = q.size() >= 2 ? q.substr(1, q.size() - 2) : text;
    if (in.header_or_body) {
      std::snprintf(buf, sizeof buf, "TEXT \"%s\" ", inner.c_str());
      out += buf;
    } else {
      // The address box looks in all three address headers.
      std::vector<const char*> keys;
      if (in.from) keys.insert(keys.end(), {"TO", "FROM", "CC"});
      if (in.subject) keys.push_back("SUBJECT");
      if (in.body) keys.push_back("BODY");
      for (size_t i = 0; i < keys.size(); ++i) {
        std::snprintf(buf, sizeof buf, "%s%s \"%s\" ", i + 1 < keys.size() ? "OR " : "", keys[i], inner.c_str());
        out += buf;
      }
    }
  }
  if (out.empty()) out = "ALL ";
  *rule = out;
  return 1;
}
