// The dialogs of saved searches: the properties of a new or an old search,
// and the quick search, which makes a rule and a search from a few choices
// and shows what it finds at once.
#include <algorithm>

#include "src/options/options.h"
#include "src/organizer/msgwin.h"
#include "src/search/search_node.h"
#include "src/search/search_rules.h"
#include "xvt/xvt.h"

namespace {


const WIN_DEF kPropsDef[] = {
    {W_MODAL, {0, 0, 480, 400}, "Search Properties", 0, 0},
    {WC_TEXT, {12, 14, 90, 32}, "~Name:", 6250, 0},
    {WC_EDIT, {96, 10, 468, 34}, "", kPropsName, 0},
    {WC_TEXT, {12, 46, 90, 64}, "~Sort:", 6251, 0},
    {WC_LISTBUTTON, {96, 42, 300, 200}, "", kPropsSort, 0},
    {WC_CHECKBOX, {12, 76, 240, 96}, "Show message ~groups", kPropsGroups, 0},
    {WC_CHECKBOX, {12, 100, 240, 120}, "Include sub~folders", kPropsHierarchy, 0},
    {WC_CHECKBOX, {250, 100, 468, 120}, "S~ubscribed folders only", kPropsSubscribed, 0},
    {WC_TEXT, {12, 130, 468, 148}, "", kPropsFolders, 0},
    {WC_TEXT, {12, 156, 200, 174}, "~Rules:", 6252, 0},
    {WC_LBOX, {12, 176, 468, 340}, "", kPropsRules, CTL_FLAG_MULTISEL},
    {WC_PUSHBUTTON, {278, 356, 368, 382}, "OK", kPropsOk, CTL_FLAG_DEFAULT},
    {WC_PUSHBUTTON, {378, 356, 468, 382}, "Cancel", kPropsCancel, 0},
    {W_NONE, {}, nullptr, 0, 0},
};


const WIN_DEF kQuickDef[] = {
    {W_MODAL, {0, 0, 440, 262}, "Quick Search", 0, 0},
    {WC_GROUPBOX, {12, 8, 212, 112}, "Messages", 6280, 0},
    {WC_RADIOBUTTON, {24, 28, 200, 48}, "~Read", kQuickReadBtn, 0},
    {WC_RADIOBUTTON, {24, 54, 200, 74}, "~Unread", kQuickReadBtn + 1, 0},
    {WC_RADIOBUTTON, {24, 80, 200, 100}, "~All", kQuickReadBtn + 2, 0},
    {WC_GROUPBOX, {224, 8, 428, 112}, "Arrival Time", 6281, 0},
    {WC_RADIOBUTTON, {236, 28, 420, 48}, "Within one ~day", kQuickDayBtn, 0},
    {WC_RADIOBUTTON, {236, 54, 420, 74}, "Within one ~week", kQuickDayBtn + 1, 0},
    {WC_RADIOBUTTON, {236, 80, 420, 100}, "A~ll", kQuickDayBtn + 2, 0},
    {WC_GROUPBOX, {12, 120, 428, 210}, "Keyword", 6282, 0},
    {WC_CHECKBOX, {24, 140, 120, 160}, "~From", kQuickFrom, 0},
    {WC_CHECKBOX, {124, 140, 220, 160}, "~Subject", kQuickSubject, 0},
    {WC_CHECKBOX, {224, 140, 300, 160}, "~Body", kQuickBody, 0},
    {WC_CHECKBOX, {304, 140, 420, 160}, "~Header or Body", kQuickHeaderBody, 0},
    {WC_EDIT, {24, 172, 416, 196}, "", kQuickText, 0},
    {WC_PUSHBUTTON, {12, 222, 132, 248}, "A~dvanced...", kQuickAdvanced, 0},
    {WC_PUSHBUTTON, {238, 222, 328, 248}, "OK", kQuickOk, CTL_FLAG_DEFAULT},
    {WC_PUSHBUTTON, {338, 222, 428, 248}, "Cancel", kQuickCancel, 0},
    {W_NONE, {}, nullptr, 0, 0},
};

std::string Text(WINDOW win, int id) { return xvt_ctl_get_text(win, id, kSearchMaxValue); }

bool Checked(WINDOW win, int id) { return xvt_ctl_is_checked(xvt_win_get_ctl(win, id)); }
void Check(WINDOW win, int id, bool on) { xvt_ctl_set_checked(xvt_win_get_ctl(win, id), on); }

void Radio(WINDOW win, int first, int chosen) {
  WINDOW group[3];
  for (int i = 0; i < 3; ++i) group[i] = xvt_win_get_ctl(win, first + i);
  xvt_ctl_check_radio_button(group[chosen - first], group, 3);
}

int RadioValue(WINDOW win, int first) {
  for (int i = 0; i < 3; ++i)
    if (Checked(win, first + i)) return i;
  return 2;
}

std::vector<std::string> AllSearchNames() {
  std::vector<std::string> names;
  for (int id : searchIdList()) names.push_back(searchGetName(id));
  return names;
}

// Shows the search's lines: in a window of their own when the organizer
// opens lines in windows, else under the line.
void ShowSearch(int id) {
  WINDOW tree = MSG_TopTree();
  TreeNode* node = tree ? searchFindNode(TREE_GetRoot(tree), id) : nullptr;
  if (!node) return;
  searchHandleNodeEvent(tree, node, kNodeEventDoubleClick);
}

// --- Properties -------------------------------------------------------------------

struct PropsAsk {
  int id = 0;  // 0: a new search
  std::vector<std::string> folders;
  bool done = false;
};

long props_eh(WINDOW win, EVENT* ev) {
  auto* ask = reinterpret_cast<PropsAsk*>(xvt_vobj_get_data(win));
  switch (ev->type) {
    case E_CREATE: {
      const int id = ask->id;
      xvt_vobj_set_title(xvt_win_get_ctl(win, kPropsName),
                         id ? searchGetName(id).c_str() : searchCreateName(AllSearchNames()).c_str());
      const WINDOW sort = xvt_win_get_ctl(win, kPropsSort);
      const int order = id ? MSG_SortOrderFromName(searchGetOption(id, "Sort").c_str()) : kSortRecentArrival;
      for (int i = 0; i < kSortOrders; ++i) xvt_list_add(sort, -1, MSG_SortName(i));
      xvt_list_set_sel(sort, order, true);
      Check(win, kPropsGroups, id && searchGetFlag(id, "ViewMsgGrps", false));
      Check(win, kPropsHierarchy, id && searchGetFlag(id, "Hierarchy", false));
      Check(win, kPropsSubscribed, !id || searchGetFlag(id, "SubscribedOnly", true));
      std::string folders = "Folders:";
      for (const std::string& f : ask->folders) folders += " " + f;
      xvt_vobj_set_title(xvt_win_get_ctl(win, kPropsFolders), folders.c_str());
      std::vector<std::pair<std::string, int>> rules;
      SRCH_CreateRuleList("IMAP", &rules);
      const std::vector<std::string> chosen = id ? searchGetSelectedRules(id) : std::vector<std::string>{};
      const WINDOW list = xvt_win_get_ctl(win, kPropsRules);
      for (size_t i = 0; i < rules.size(); ++i) {
        xvt_list_add(list, -1, rules[i].first.c_str());
        if (std::find(chosen.begin(), chosen.end(), rules[i].first) != chosen.end())
          xvt_list_set_sel(list, static_cast<int>(i), true);
      }
      break;
    }
    case E_CONTROL: {
      if (ev->v.ctl.id == kPropsCancel) {
        xvt_vobj_destroy(win);
        break;
      }
      if (ev->v.ctl.id != kPropsOk) break;
      const std::string name = Text(win, kPropsName);
      std::vector<std::string> rules;
      const WINDOW list = xvt_win_get_ctl(win, kPropsRules);
      char buffer[kSearchMaxValue + 1];
      for (int i = 0, n = xvt_list_count_all(list); i < n; ++i)
        if (xvt_list_is_sel(list, i) && xvt_list_get_elt(list, i, buffer, sizeof buffer)) rules.push_back(buffer);
      if (name.empty() || name.size() > kSearchMaxName) {
        xvt_dm_post_error("You must enter a name for the search");
        break;
      }
      if (ask->folders.empty()) {
        xvt_dm_post_error("You must select a folder to be searched");
        break;
      }
      if (rules.empty()) {
        xvt_dm_post_error("You must select a search rule.");
        break;
      }
      const int other = searchFindByName(name.c_str());
      if (other && other != ask->id) {
        xvt_dm_post_error("Failed to rename search: name already exists");
        break;
      }
      int id = ask->id;
      if (!id) {
        id = SRCH_AddSearch(kOptPermanent, name.c_str());
      } else if (!searchRename(id, name.c_str())) {
        xvt_dm_post_error("Failed to rename search: name already exists");
        break;
      }
      const WINDOW sort = xvt_win_get_ctl(win, kPropsSort);
      if (!id || !searchSetOption(id, "Sort", MSG_SortName(std::max(0, xvt_list_get_sel_index(sort)))) ||
          !searchSetOption(id, "ViewMsgGrps", Checked(win, kPropsGroups) ? "1" : "0") ||
          !searchSetOption(id, "Hierarchy", Checked(win, kPropsHierarchy) ? "1" : "0") ||
          !searchSetOption(id, "SubscribedOnly", Checked(win, kPropsSubscribed) ? "1" : "0") ||
          !searchSaveSelectedFoldersByID(id, ask->folders) || !searchSaveSelectedRules(id, rules)) {
        xvt_dm_post_error("Insufficient data in search properties");
        break;
      }
      ask->id = id;
      ask->done = true;
      xvt_vobj_destroy(win);
      break;
    }
    case E_CLOSE: xvt_vobj_destroy(win); break;
    default: break;
  }
  return 0;
}

int RunProps(PropsAsk* ask) {
  xvt_res_register_dialog(kPropsRid, kPropsDef);
  xvt_dlg_create_res(W_MODAL, kPropsRid, EM_ALL, props_eh, reinterpret_cast<intptr_t>(ask));
  return ask->done ? 1 : 0;
}

// --- Quick search -----------------------------------------------------------------

struct QuickAsk {
  std::vector<std::string> folders;
  int id = 0;
  bool advanced = false;
};

// Makes the rule and the search; 0 (after saying why) when it can't.
int MakeQuickSearch(WINDOW win, QuickAsk* ask) {
  QuickSearchInput in;
  in.messages = RadioValue(win, kQuickReadBtn);
  in.arrival = RadioValue(win, kQuickDayBtn);
  in.from = Checked(win, kQuickFrom);
  in.subject = Checked(win, kQuickSubject);
  in.body = Checked(win, kQuickBody);
  in.header_or_body = Checked(win, kQuickHeaderBody);
  in.text = Text(win, kQuickText);
  std::string rule;
  if (!SRCH_QuickSearchRule(in, 0, &rule)) {
    xvt_dm_post_error("Date Calculation problem!");
    return 0;
  }
  std::vector<std::pair<std::string, int>> rules;
  SRCH_CreateRuleList("IMAP", &rules);
  std::vector<std::string> names;
  for (const auto& r : rules) names.push_back(r.first);
  const std::string rule_name = SRCH_NewRuleName(names);
  if (rule_name.empty()) {
    xvt_dm_post_error("Search Failed: Couldn't create rule name!");
    return 0;
  }
  // The rule and the search are for this session: a quick search is asked
  // again rather than kept.
  if (!SRCH_AddRuleByName(kOptSession, "IMAP", rule_name.c_str(), rule.c_str(), "Message")) {
    xvt_dm_post_error("Search Failed: Couldn't add rule by name!");
    return 0;
  }
  const std::string name = searchCreateName(AllSearchNames());
  if (name.empty()) {
    xvt_dm_post_error("Search Failed: Couldn't create Search name!");
    return 0;
  }
  const int id = SRCH_AddSearch(kOptSession, name.c_str());
  if (!id) {
    xvt_dm_post_error("Search Failed: Couldn't add search to database!");
    return 0;
  }
  if (!searchSaveSelectedRules(id, {rule_name})) {
    xvt_dm_post_error("Search Failed: Couldn't save rule!");
    return 0;
  }
  if (!searchSaveSelectedFoldersByID(id, ask->folders)) xvt_dm_post_error("Search will fail: Couldn't save rule!");
  const std::vector<std::string> kept = searchGetSelectedRules(id);
  if (std::find(kept.begin(), kept.end(), rule_name) == kept.end())
    xvt_dm_post_error("Search will fail: Couldn't convert rule name!");
  ask->id = id;
  return 1;
}

long quick_eh(WINDOW win, EVENT* ev) {
  auto* ask = reinterpret_cast<QuickAsk*>(xvt_vobj_get_data(win));
  switch (ev->type) {
    case E_CREATE:
      Radio(win, kQuickReadBtn, kQuickReadBtn + 2);
      Radio(win, kQuickDayBtn, kQuickDayBtn + 2);
      Check(win, kQuickHeaderBody, true);
      xvt_scr_set_focus_vobj(xvt_win_get_ctl(win, kQuickText));  // the words are what one came to type
      break;
    case E_CONTROL: {
      const int id = ev->v.ctl.id;
      if (id >= kQuickReadBtn && id < kQuickReadBtn + 3) Radio(win, kQuickReadBtn, id);
      if (id >= kQuickDayBtn && id < kQuickDayBtn + 3) Radio(win, kQuickDayBtn, id);
      if (id == kQuickCancel) xvt_vobj_destroy(win);
      if (id == kQuickAdvanced) {
        ask->advanced = true;
        xvt_vobj_destroy(win);
      }
      if (id == kQuickOk) {
        if (ask->folders.empty()) {
          xvt_dm_post_error("No folder is selected.\nYou can click on the \"Advanced...\" button to select a folder.");
          break;
        }
        if (MakeQuickSearch(win, ask)) xvt_vobj_destroy(win);
      }
      break;
    }
    case E_CLOSE: xvt_vobj_destroy(win); break;
    default: break;
  }
  return 0;
}

}  // namespace

int INFO_SearchNew(const std::vector<std::string>& canonical) {
  PropsAsk ask;
  ask.folders = canonical;
  if (!RunProps(&ask)) return 0;
  ShowSearch(ask.id);
  return 1;
}

int searchInfo(int id) {
  if (!id || searchGetName(id).empty()) {
    xvt_dm_post_error("Insufficient data in search properties");
    return 0;
  }
  PropsAsk ask;
  ask.id = id;
  ask.folders = searchGetSelectedFoldersByID(id);
  if (!RunProps(&ask)) return 0;
  ModelEvent* ev = MM_NotEventNew(E_SEARCH_CHANGED);
  if (ev) {
    ev->search = static_cast<int16_t>(id);
    MM_NotEventPost(ev);
    MM_NotEventFree(ev);
  }
  return 1;
}

int SRCH_QuickSearchDialog(const std::vector<std::string>& canonical) {
  xvt_res_register_dialog(kQuickRid, kQuickDef);
  QuickAsk ask;
  ask.folders = canonical;
  xvt_dlg_create_res(W_MODAL, kQuickRid, EM_ALL, quick_eh, reinterpret_cast<intptr_t>(&ask));
  if (ask.advanced) return INFO_SearchNew(canonical);
  if (!ask.id) return 0;
  ShowSearch(ask.id);
  return 1;
}
