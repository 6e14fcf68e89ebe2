// The rule store: rules live in the options under "Search.<scope>.IDList"
// (blank-separated ids) and "Search.<scope>.<id>.Name|Rule|Target". A rule
// saved for good stands at the permanent level and in both id lists; one
// made for this session stands at the session level only.
#include <algorithm>
#include <cstdlib>
#include <set>
#include <sstream>

#include "src/options/options.h"
#include "src/search/saved_search.h"
#include "src/search/search_internal.h"
#include "src/search/search_rules.h"

namespace {

int g_last_error = 0;

int Fail(int code) {
  g_last_error = code;
  return 0;
}

bool ScopeOk(const char* scope) { return scope && *scope && std::string(scope).find('.') == std::string::npos; }

std::string ListKey(const char* scope) { return std::string("Search.") + scope + ".IDList"; }

// The ids of a list, in order; words that are not positive numbers are
// stepped over (a hand-edited file must not stop the store).
std::vector<int> ReadIds(const char* key, int level) {
  std::vector<int> ids;
  std::istringstream words(Opt_LookupText(key, level));
  for (std::string w; words >> w;) {
    if (w.size() > 9 || w.find_first_not_of("0123456789") != std::string::npos) continue;
    const int id = std::atoi(w.c_str());
    if (id > 0 && std::find(ids.begin(), ids.end(), id) == ids.end()) ids.push_back(id);
  }
  return ids;
}

std::string IdText(const std::vector<int>& ids) {
  std::string out;
  for (int id : ids) out += (out.empty() ? "" : " ") + std::to_string(id);
  return out;
}

bool WriteIds(const char* key, const std::vector<int>& ids, int level) {
  if (Opt_AssignString(key, IdText(ids).c_str(), level, 0)) return true;
  g_last_error = Opt_GetLastError();
  return false;
}

std::string Lookup(const char* scope, int id, const char* attribute, int level) {
  std::string key;
  if (!SRCH_GetOptionName(scope, id, attribute, &key)) return "";
  return Opt_LookupText(key.c_str(), level);
}

// The id of the rule with this name, 0 if none.
int IdByName(const char* scope, const char* name) {
  if (!ScopeOk(scope) || !name) return 0;
  for (int id : ReadIds(ListKey(scope).c_str(), kOptSession))
    if (Lookup(scope, id, "Name", kOptSession) == name) return id;
  return 0;
}

// Outside quoted strings, the phrase separator becomes the AND of keys.
std::string RunForm(const std::string& rule) {
  std::string out;
  for (const std::string& phrase : SRCH_SplitRule(rule)) out += (out.empty() ? "" : " ") + phrase;
  return out;
}

}  // namespace

void srch_set_error(int code) { g_last_error = code; }
int SRCH_GetLastError() { return g_last_error; }

int SRCH_GetOptionName(const char* scope, int id, const char* attribute, std::string* out) {
  if (!ScopeOk(scope) || !attribute) return Fail(kSrchErrNotFound);
  const std::string a = attribute;
  if (a == "IDList") {
    *out = ListKey(scope);
    return 1;
  }
  if (id < 1) return Fail(kSrchErrBadId);
  if (a != "Name" && a != "Rule" && a != "Target") return Fail(kSrchErrNotFound);
  *out = std::string("Search.") + scope + "." + std::to_string(id) + "." + a;
  return 1;
}

int SRCH_AddToIDList(int level, const char* key, int id, int* out_id) {
  if (!key || id < 0) return Fail(kSrchErrBadId);
  std::vector<int> ids = ReadIds(key, level);
  if (id > 0 && std::find(ids.begin(), ids.end(), id) != ids.end()) {
    if (out_id) *out_id = id;
    return 1;
  }
  if (id == 0) {
    // The smallest free id: one freed by a delete is used again.
    const std::set<int> taken(ids.begin(), ids.end());
    id = 1;
    while (taken.count(id)) ++id;
  }
  ids.push_back(id);
  if (!WriteIds(key, ids, level)) return 0;
  if (out_id) *out_id = id;
  return 1;
}

int SRCH_AddRuleByID(int level, const char* scope, int id, const char* name, const char* rule, const char* target) {
  if (!ScopeOk(scope) || !name || !*name || !rule) return Fail(kSrchErrNotFound);
  if (id < 1) return Fail(kSrchErrBadId);
  if (level != kOptPermanent && level != kOptSession) return Fail(kOptErrBadLevel);
  if (std::string(rule).size() > kSearchMaxRule) return Fail(kSrchErrNotFound);
  const std::string list = ListKey(scope);
  if (!SRCH_AddToIDList(kOptSession, list.c_str(), id, nullptr)) return 0;
  if (level == kOptPermanent && !SRCH_AddToIDList(kOptPermanent, list.c_str(), id, nullptr)) return 0;
  const std::pair<const char*, const char*> values[] = {{"Name", name}, {"Rule", rule}, {"Target", target}};
  for (const auto& [attribute, value] : values) {
    if (!value) continue;
    std::string key;
    SRCH_GetOptionName(scope, id, attribute, &key);
    if (!Opt_AssignString(key.c_str(), value, level, 0)) return Fail(Opt_GetLastError());
  }
  return 1;
}

int SRCH_AddRuleByName(int level, const char* scope, const char* name, const char* rule, const char* target,
                       int* out_id) {
  if (!ScopeOk(scope) || !name || !*name) return Fail(kSrchErrNotFound);
  int id = IdByName(scope, name);
  if (!id) {
    // The id comes from the session list, which holds every rule.
    const std::vector<int> ids = ReadIds(ListKey(scope).c_str(), kOptSession);
    const std::set<int> taken(ids.begin(), ids.end());
    id = 1;
    while (taken.count(id)) ++id;
  }
  if (!SRCH_AddRuleByID(level, scope, id, name, rule, target)) return 0;
  if (out_id) *out_id = id;
  return 1;
}

int SRCH_DeleteRuleByID(const char* scope, int id) {
  if (!ScopeOk(scope)) return Fail(kSrchErrNotFound);
  if (id < 1) return Fail(kSrchErrBadId);
  const std::string list = ListKey(scope);
  bool found = false;
  for (int level : {kOptPermanent, kOptSession}) {
    std::vector<int> ids = ReadIds(list.c_str(), level);
    auto it = std::find(ids.begin(), ids.end(), id);
    if (it == ids.end()) continue;
    found = true;
    ids.erase(it);
    if (!WriteIds(list.c_str(), ids, level)) return 0;
  }
  if (!found) return Fail(kSrchErrNotFound);
  // Ids are given out again: a saved search must not take up the next rule
  // that gets this one's number.
  if (std::string(scope) == "IMAP") searchRemoveRuleFromSearches(id);
  for (const char* attribute : {"Name", "Rule", "Target"}) {
    std::string key;
    SRCH_GetOptionName(scope, id, attribute, &key);
    Opt_Delete(key.c_str());
  }
  return 1;
}

int SRCH_DeleteRuleByName(const char* scope, const char* name) {
  const int id = IdByName(scope, name);
  if (!id) return Fail(kSrchErrNotFound);
  return SRCH_DeleteRuleByID(scope, id);
}

int SRCH_GetRuleByID(const char* scope, int id, std::string* out_name, std::string* out_rule,
                     std::string* out_target) {
  if (!ScopeOk(scope)) return Fail(kSrchErrNotFound);
  if (id < 1) return Fail(kSrchErrBadId);
  const std::string name = Lookup(scope, id, "Name", kOptSession);
  const std::string rule = Lookup(scope, id, "Rule", kOptSession);
  if (name.empty() || rule.empty()) return Fail(kSrchErrNotFound);
  if (out_name) *out_name = name;
  if (out_rule) *out_rule = std::string(scope) == "IMSP" ? rule : RunForm(rule);
  if (out_target) *out_target = Lookup(scope, id, "Target", kOptSession);
  return 1;
}

int SRCH_GetRuleByName(const char* scope, const char* name, std::string* out_rule, std::string* out_target,
                       int* out_id) {
  const int id = IdByName(scope, name);
  if (!id) return Fail(kSrchErrNotFound);
  if (out_id) *out_id = id;
  return SRCH_GetRuleByID(scope, id, nullptr, out_rule, out_target);
}

int SRCH_GetRawRuleByName(const char* scope, const char* name, std::string* out_rule) {
  const int id = IdByName(scope, name);
  if (!id) return Fail(kSrchErrNotFound);
  *out_rule = Lookup(scope, id, "Rule", kOptSession);
  return out_rule->empty() ? Fail(kSrchErrNotFound) : 1;
}

int SRCH_CreateRuleList(const char* scope, std::vector<std::pair<std::string, int>>* out) {
  out->clear();
  if (!ScopeOk(scope)) return Fail(kSrchErrNotFound);
  for (int id : ReadIds(ListKey(scope).c_str(), kOptSession)) {
    const std::string name = Lookup(scope, id, "Name", kOptSession);
    if (!name.empty()) out->emplace_back(name, id);
  }
  std::stable_sort(out->begin(), out->end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  out->erase(std::unique(out->begin(), out->end(), [](const auto& a, const auto& b) { return a.first == b.first; }),
             out->end());
  return 1;
}

int SRCH_SaveSelectedRules(const char* scope, const std::vector<std::string>& names, const char* key,
                           int permanent) {
  if (!key) return Fail(kSrchErrNotFound);
  std::vector<int> ids;
  for (const std::string& name : names) {
    const int id = IdByName(scope, name.c_str());
    if (!id) return Fail(kSrchErrNotFound);
    ids.push_back(id);
  }
  const std::string text = IdText(ids);
  // A selection that doesn't fit is refused whole rather than cut, which
  // would drop rules the user picked without a word.
  if (text.size() > kSearchMaxSelection) return Fail(kSrchErrNotFound);
  if (!Opt_AssignString(key, text.c_str(), kOptSession, 0)) return Fail(Opt_GetLastError());
  if (permanent == 1 && !Opt_AssignString(key, text.c_str(), kOptPermanent, 0)) return Fail(Opt_GetLastError());
  return 1;
}

int SRCH_GetRuleSavedStatusByID(const char* scope, int id) {
  if (!ScopeOk(scope)) return Fail(kSrchErrNotFound);
  if (id < 1) return Fail(kSrchErrBadId);
  const std::vector<int> ids = ReadIds(ListKey(scope).c_str(), kOptPermanent);
  return std::find(ids.begin(), ids.end(), id) != ids.end() ? 1 : 0;
}

int SRCH_GetRuleSavedStatus(const char* scope, const char* name) {
  const int id = IdByName(scope, name);
  if (!id) return Fail(kSrchErrNotFound);
  return SRCH_GetRuleSavedStatusByID(scope, id);
}

int SRCH_SetRulesPermanent(const char* scope, const std::vector<std::string>& names, const char* owner_name) {
  if (!owner_name) return Fail(kSrchErrNotFound);
  for (const std::string& name : names) {
    const int id = IdByName(scope, name.c_str());
    if (!id) return Fail(kSrchErrNotFound);
    if (SRCH_GetRuleSavedStatusByID(scope, id)) continue;
    const std::string new_name = std::string(owner_name) + "_" + name;
    if (IdByName(scope, new_name.c_str())) return Fail(kSrchErrNotFound);
    std::string rule, target;
    rule = Lookup(scope, id, "Rule", kOptSession);
    target = Lookup(scope, id, "Target", kOptSession);
    if (!SRCH_AddRuleByID(kOptSession, scope, id, new_name.c_str(), rule.c_str(), target.c_str())) return 0;
    if (!SRCH_AddRuleByID(kOptPermanent, scope, id, new_name.c_str(), rule.c_str(), target.c_str())) return 0;
  }
  return 1;
}

std::string SRCH_NewRuleName(const std::vector<std::string>& names) {
  const std::set<std::string> taken(names.begin(), names.end());
  for (long n = 1;; ++n) {
    std::string candidate = "Rule" + std::to_string(n);
    if (!taken.count(candidate)) return candidate;
  }
}

// Nothing is cached here: every call reads the options, so a change made
// by a dialog is seen at once.
void SRCH_RuleStoreListener(int, void*) {}
