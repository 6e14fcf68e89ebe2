// The search dialog and the rule dialog. Both are modal: the search
// dialog keeps the folders of its last search open until it goes, so that
// the lines it lists stay true while they are shown.
#include "src/search/search_dialog.h"

#include <cerrno>
#include <cstdlib>

#include "src/base/critical.h"
#include "src/options/options.h"
#include "src/search/search_rules.h"
#include "xvt/xvt.h"

namespace {

const WIN_DEF kSearchDef[] = {
    {W_MODAL, {0, 0, 560, 480}, "Search Messages", 0, 0},
    {WC_TEXT, {12, 10, 260, 28}, "~Rules:", 6210, 0},
    {WC_LBOX, {12, 30, 300, 180}, "", kSearchRules, CTL_FLAG_MULTISEL},
    {WC_PUSHBUTTON, {316, 30, 440, 56}, "~New Rule...", kSearchNewRule, 0},
    {WC_PUSHBUTTON, {316, 64, 440, 90}, "~Delete Rule", kSearchDeleteRule, 0},
    {WC_PUSHBUTTON, {316, 120, 440, 146}, "~Search", kSearchRun, CTL_FLAG_DEFAULT},
    {WC_TEXT, {12, 190, 548, 208}, "", kSearchFolders, 0},
    {WC_LBOX, {12, 214, 548, 410}, "", kSearchResults, 0},
    {WC_TEXT, {12, 416, 548, 434}, "", kSearchStatus, 0},
    {WC_PUSHBUTTON, {448, 442, 548, 468}, "Close", kSearchClose, 0},
    {W_NONE, {}, nullptr, 0, 0},
};

const WIN_DEF kRuleDef[] = {
    {W_MODAL, {0, 0, 520, 360}, "New Rule", 0, 0},
    {WC_TEXT, {12, 14, 90, 32}, "~Name:", 6231, 0},
    {WC_EDIT, {96, 10, 508, 34}, "", kRuleName, 0},
    {WC_LISTBUTTON, {12, 46, 172, 200}, "", kRuleAttribute, 0},
    {WC_LISTBUTTON, {180, 46, 330, 200}, "", kRuleCriterion, 0},
    {WC_EDIT, {338, 46, 508, 70}, "", kRuleValue, 0},
    {WC_EDIT, {338, 76, 508, 100}, "", kRuleValue2, 0},
    {WC_PUSHBUTTON, {338, 108, 420, 134}, "~Add", kRuleAdd, 0},
    {WC_PUSHBUTTON, {426, 108, 508, 134}, "~Remove", kRuleRemove, 0},
    {WC_LBOX, {12, 144, 508, 310}, "", kRulePhrases, 0},
    {WC_PUSHBUTTON, {318, 320, 408, 346}, "OK", kRuleOk, CTL_FLAG_DEFAULT},
    {WC_PUSHBUTTON, {418, 320, 508, 346}, "Cancel", kRuleCancel, 0},
    {W_NONE, {}, nullptr, 0, 0},
};

std::string Text(WINDOW win, int id) { return xvt_ctl_get_text(win, id, kSearchMaxValue); }

std::string Item(WINDOW ctl, int index) {
  char buffer[kSearchMaxValue + 1] = "";
  return xvt_list_get_elt(ctl, index, buffer, sizeof buffer) ? buffer : "";
}

void Fill(WINDOW ctl, const std::vector<std::string>& items) {
  xvt_list_suspend(ctl);
  xvt_list_clear(ctl);
  for (const std::string& item : items) xvt_list_add(ctl, -1, item.c_str());
  xvt_list_resume(ctl);
}

// --- The rule dialog ------------------------------------------------------------

struct RuleAsk {
  std::vector<std::string> keys;  // the phrases in key form, as they are stored
  std::string name;
  bool saved = false;
};

SRCH_Attribute ChosenAttribute(WINDOW win) {
  SRCH_Attribute a;
  const WINDOW list = xvt_win_get_ctl(win, kRuleAttribute);
  SRCH_FindAttribute(kSearchMessages, Item(list, xvt_list_get_sel_index(list)).c_str(), &a);
  return a;
}

void FillCriteria(WINDOW win) {
  const SRCH_Attribute a = ChosenAttribute(win);
  std::vector<std::string> names;
  for (const SRCH_Criterion& c : SRCH_GetCriterion(kSearchMessages, a.kind)) names.push_back(c.name);
  const WINDOW list = xvt_win_get_ctl(win, kRuleCriterion);
  Fill(list, names);
  if (!names.empty()) xvt_list_set_sel(list, 0, true);
  // The second field is for a header's text and the top of a size range.
  xvt_vobj_set_enabled(xvt_win_get_ctl(win, kRuleValue), a.kind != kSrchValNone);
  xvt_vobj_set_enabled(xvt_win_get_ctl(win, kRuleValue2), a.kind == kSrchValHeader || a.kind == kSrchValSize);
}

long Number(const std::string& text) {
  errno = 0;
  char* end = nullptr;
  const long n = std::strtol(text.c_str(), &end, 10);
  return text.empty() || *end || errno ? -1 : n;
}

void AddPhrase(WINDOW win, RuleAsk* ask) {
  const WINDOW criteria = xvt_win_get_ctl(win, kRuleCriterion);
  const std::string criterion = Item(criteria, xvt_list_get_sel_index(criteria));
  SRCH_Value v;
  v.text = Text(win, kRuleValue);
  v.text2 = Text(win, kRuleValue2);
  v.number = Number(v.text);
  v.number2 = Number(v.text2);
  std::string display, key;
  if (!SRCH_AddPhrase(kSearchMessages, ChosenAttribute(win).name.c_str(), criterion.c_str(), v, &display, &key)) {
    xvt_dm_post_error("The value does not fit the attribute \"%s\".", ChosenAttribute(win).name.c_str());
    return;
  }
  ask->keys.push_back(key);
  xvt_list_add(xvt_win_get_ctl(win, kRulePhrases), -1, display.c_str());
}

void SaveRule(WINDOW win, RuleAsk* ask) {
  std::string name = Text(win, kRuleName);
  while (!name.empty() && name.back() == ' ') name.pop_back();
  std::string existing;
  if (name.empty()) {
    xvt_dm_post_error("You must enter a name for the rule.");
  } else if (ask->keys.empty()) {
    xvt_dm_post_error("You must add at least one phrase to the rule.");
  } else if (SRCH_GetRuleByName("IMAP", name.c_str(), &existing, nullptr)) {
    xvt_dm_post_error("A rule named \"%s\" exists already.", name.c_str());
  } else if (!SRCH_AddRuleByName(kOptPermanent, "IMAP", name.c_str(), SRCH_JoinRule(ask->keys).c_str(),
                                 "Message")) {
    xvt_dm_post_error("The rule \"%s\" could not be saved.", name.c_str());
  } else {
    ask->name = name;
    ask->saved = true;
    xvt_vobj_destroy(win);
  }
}

long rule_eh(WINDOW win, EVENT* ev) {
  auto* ask = reinterpret_cast<RuleAsk*>(xvt_vobj_get_data(win));
  switch (ev->type) {
    case E_CREATE: {
      std::vector<std::pair<std::string, int>> rules;
      SRCH_CreateRuleList("IMAP", &rules);
      std::vector<std::string> names;
      for (const auto& rule : rules) names.push_back(rule.first);
      xvt_vobj_set_title(xvt_win_get_ctl(win, kRuleName), SRCH_NewRuleName(names).c_str());
      std::vector<std::string> attributes;
      for (const SRCH_Attribute& a : SRCH_GetAttributes(kSearchMessages)) attributes.push_back(a.name);
      const WINDOW list = xvt_win_get_ctl(win, kRuleAttribute);
      Fill(list, attributes);
      xvt_list_set_sel(list, 0, true);
      FillCriteria(win);
      // Named and with a field chosen already: what is left is the value.
      xvt_scr_set_focus_vobj(xvt_win_get_ctl(win, kRuleValue));
      break;
    }
    case E_CONTROL:
      switch (ev->v.ctl.id) {
        case kRuleAttribute: FillCriteria(win); break;
        case kRuleAdd: AddPhrase(win, ask); break;
        case kRuleRemove: {
          const WINDOW list = xvt_win_get_ctl(win, kRulePhrases);
          const int at = xvt_list_get_sel_index(list);
          if (at >= 0 && at < static_cast<int>(ask->keys.size())) {
            ask->keys.erase(ask->keys.begin() + at);
            xvt_list_rem(list, at);
          }
          break;
        }
        case kRuleOk: SaveRule(win, ask); break;
        case kRuleCancel: xvt_vobj_destroy(win); break;
        default: break;
      }
      break;
    case E_CLOSE: xvt_vobj_destroy(win); break;
    default: break;
  }
  return 0;
}

// --- The search dialog ----------------------------------------------------------

struct SearchAsk {
  std::vector<SrchFolderRef> folders;
  SrchRun run;
};

void FillRules(WINDOW win, const std::string& select) {
  std::vector<std::pair<std::string, int>> rules;
  SRCH_CreateRuleList("IMAP", &rules);
  std::vector<std::string> names;
  for (const auto& rule : rules) names.push_back(rule.first);
  const WINDOW list = xvt_win_get_ctl(win, kSearchRules);
  Fill(list, names);
  for (size_t i = 0; i < names.size(); ++i)
    if (names[i] == select) xvt_list_set_sel(list, static_cast<int>(i), true);
}

std::vector<std::string> SelectedRules(WINDOW win) {
  const WINDOW list = xvt_win_get_ctl(win, kSearchRules);
  std::vector<std::string> names;
  for (int i = 0, n = xvt_list_count_all(list); i < n; ++i)
    if (xvt_list_is_sel(list, i)) names.push_back(Item(list, i));
  return names;
}

void RunSearch(WINDOW win, SearchAsk* ask) {
  const std::vector<std::string> names = SelectedRules(win);
  if (names.empty()) {
    xvt_dm_post_error("You must select a search rule.");
    return;
  }
  SRCH_RunClose(&ask->run);
  ask->run = SrchRun{};
  // Searches reach the network: the busy mode keeps the timers out.
  WIN_start_critical();
  SRCH_RunRules(names, ask->folders, &ask->run);
  WIN_end_critical();
  std::vector<std::string> lines = SRCH_ResultLines(ask->run);
  // The list shows the three fields apart; a TAB would show as nothing.
  for (std::string& line : lines)
    for (size_t at; (at = line.find('\t')) != std::string::npos;) line.replace(at, 1, "  |  ");
  Fill(xvt_win_get_ctl(win, kSearchResults), lines);
  std::string status = ask->run.notice.empty()
                           ? std::to_string(ask->run.found.size()) +
                                 (ask->run.found.size() == 1 ? " message found." : " messages found.")
                           : ask->run.notice;
  if (!ask->run.problems.empty()) status += " " + ask->run.problems.front();
  if (ask->run.problems.size() > 1) status += " (and " + std::to_string(ask->run.problems.size() - 1) + " more)";
  xvt_vobj_set_title(xvt_win_get_ctl(win, kSearchStatus), status.c_str());
}

void DeleteRules(WINDOW win) {
  for (const std::string& name : SelectedRules(win)) {
    if (xvt_dm_post_ask("Delete", "Cancel", nullptr, "Delete rule \"%s\"?", name.c_str()) != RESP_DEFAULT) continue;
    if (!SRCH_DeleteRuleByName("IMAP", name.c_str()))
      xvt_dm_post_error("The rule \"%s\" could not be deleted.", name.c_str());
  }
  FillRules(win, "");
}

long search_eh(WINDOW win, EVENT* ev) {
  auto* ask = reinterpret_cast<SearchAsk*>(xvt_vobj_get_data(win));
  switch (ev->type) {
    case E_CREATE: {
      FillRules(win, "");
      std::string folders = "Folders:";
      for (const SrchFolderRef& ref : ask->folders) folders += " " + ref.name;
      if (ask->folders.empty()) folders += " (none chosen)";
      xvt_vobj_set_title(xvt_win_get_ctl(win, kSearchFolders), folders.c_str());
      break;
    }
    case E_CONTROL:
      switch (ev->v.ctl.id) {
        case kSearchNewRule: {
          std::string name;
          if (SRCH_NewRuleDialog(&name)) FillRules(win, name);
          break;
        }
        case kSearchDeleteRule: DeleteRules(win); break;
        case kSearchRun: RunSearch(win, ask); break;
        case kSearchClose: xvt_vobj_destroy(win); break;
        default: break;
      }
      break;
    case E_CLOSE: xvt_vobj_destroy(win); break;
    default: break;
  }
  return 0;
}

}  // namespace

int SRCH_NewRuleDialog(std::string* out_name) {
  xvt_res_register_dialog(kRuleDialogRid, kRuleDef);
  RuleAsk ask;
  xvt_dlg_create_res(W_MODAL, kRuleDialogRid, EM_ALL, rule_eh, reinterpret_cast<intptr_t>(&ask));
  if (!ask.saved) return 0;
  *out_name = ask.name;
  return 1;
}

void SRCH_SearchDialog(const std::vector<SrchFolderRef>& folders) {
  xvt_res_register_dialog(kSearchDialogRid, kSearchDef);
  SearchAsk ask;
  ask.folders = folders;
  xvt_dlg_create_res(W_MODAL, kSearchDialogRid, EM_ALL, search_eh, reinterpret_cast<intptr_t>(&ask));
  SRCH_RunClose(&ask.run);
}
