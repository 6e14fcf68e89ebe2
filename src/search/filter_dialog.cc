// Message > Filters...: the filters of one service, in the order they run.
// Changes are kept in the dialog until OK; "Run now" works with the list
// as it stands in the dialog, so that a filter can be tried before it is kept.
#include <algorithm>

#include "src/options/options.h"
#include "src/search/filters.h"
#include "src/search/search_dialog.h"
#include "src/search/search_rules.h"
#include "xvt/xvt.h"

namespace {

constexpr int kListRid = 6300;
enum {
  kList = 6301, kAdd, kEdit, kDelete, kUp, kDown, kRunNow, kOk, kCancel, kListLabel, kRunNote,
};

const WIN_DEF kListDef[] = {
    {W_MODAL, {0, 0, 600, 400}, "Filters", 0, 0},
    {WC_TEXT, {12, 10, 470, 28}, "", kListLabel, 0},
    {WC_LBOX, {12, 32, 470, 300}, "", kList, 0},
    {WC_PUSHBUTTON, {482, 32, 588, 58}, "~Add...", kAdd, 0},
    {WC_PUSHBUTTON, {482, 66, 588, 92}, "~Edit...", kEdit, 0},
    {WC_PUSHBUTTON, {482, 100, 588, 126}, "~Delete", kDelete, 0},
    {WC_PUSHBUTTON, {482, 146, 588, 172}, "~Up", kUp, 0},
    {WC_PUSHBUTTON, {482, 180, 588, 206}, "Do~wn", kDown, 0},
    {WC_PUSHBUTTON, {12, 312, 230, 338}, "~Run now on this folder", kRunNow, 0},
    {WC_TEXT, {240, 316, 588, 334}, "", kRunNote, 0},
    {WC_PUSHBUTTON, {392, 360, 482, 388}, "OK", kOk, CTL_FLAG_DEFAULT},
    {WC_PUSHBUTTON, {498, 360, 588, 388}, "Cancel", kCancel, 0},
    {W_NONE, {}, nullptr, 0, 0},
};

constexpr int kEditRid = 6320;
enum {
  kName = 6321, kRule, kAction, kFolder, kStop, kEnabled, kEditOk, kEditCancel, kNameLabel, kRuleLabel,
  kActionLabel, kFolderLabel,
};

const WIN_DEF kEditDef[] = {
    {W_MODAL, {0, 0, 460, 280}, "Filter", 0, 0},
    {WC_TEXT, {12, 14, 100, 32}, "~Name:", kNameLabel, 0},
    {WC_EDIT, {110, 10, 448, 34}, "", kName, 0},
    {WC_TEXT, {12, 50, 100, 68}, "~Rule:", kRuleLabel, 0},
    {WC_LISTBUTTON, {110, 46, 448, 70}, "", kRule, 0},
    {WC_TEXT, {12, 86, 100, 104}, "~Action:", kActionLabel, 0},
    {WC_LISTBUTTON, {110, 82, 448, 106}, "", kAction, 0},
    {WC_TEXT, {12, 122, 100, 140}, "~Folder:", kFolderLabel, 0},
    {WC_LISTBUTTON, {110, 118, 448, 142}, "", kFolder, 0},
    {WC_CHECKBOX, {110, 156, 448, 178}, "~Stop here: later filters leave these messages alone", kStop, 0},
    {WC_CHECKBOX, {110, 184, 448, 206}, "E~nabled", kEnabled, 0},
    {WC_PUSHBUTTON, {258, 238, 348, 266}, "OK", kEditOk, CTL_FLAG_DEFAULT},
    {WC_PUSHBUTTON, {358, 238, 448, 266}, "Cancel", kEditCancel, 0},
    {W_NONE, {}, nullptr, 0, 0},
};

const char* const kActionNames[kFilterActionCount] = {"Move to folder", "Copy to folder", "Mark read", "Flag",
                                                      "Delete"};
const char* const kNewRule = "New rule...";

std::string Item(WINDOW ctl, int index) {
  char buffer[kFilterFieldMax + 2] = "";
  return index >= 0 && xvt_list_get_elt(ctl, index, buffer, sizeof buffer) ? buffer : "";
}

int IndexOf(WINDOW ctl, const std::string& text) {
  for (int i = 0, n = xvt_list_count_all(ctl); i < n; ++i)
    if (Item(ctl, i) == text) return i;
  return -1;
}

void Fill(WINDOW ctl, const std::vector<std::string>& items, const std::string& select) {
  xvt_list_suspend(ctl);
  xvt_list_clear(ctl);
  for (const std::string& item : items) xvt_list_add(ctl, -1, item.c_str());
  xvt_list_resume(ctl);
  const int at = IndexOf(ctl, select);
  if (at >= 0) xvt_list_set_sel(ctl, at, true);
}

std::vector<std::string> RuleNames() {
  std::vector<std::pair<std::string, int>> rules;
  SRCH_CreateRuleList("IMAP", &rules);
  std::vector<std::string> names;
  for (const auto& rule : rules) names.push_back(rule.first);
  return names;
}

// --- One filter -------------------------------------------------------------------

struct EditAsk {
  int ms;
  MailFilter filter;
  std::vector<std::string> folders;
  bool saved = false;
};

void FillRules(WINDOW win, const std::string& select) {
  std::vector<std::string> names = RuleNames();
  names.push_back(kNewRule);
  Fill(xvt_win_get_ctl(win, kRule), names, select);
}

void ShowFolderChoice(WINDOW win) {
  const WINDOW action = xvt_win_get_ctl(win, kAction);
  const int a = xvt_list_get_sel_index(action);
  xvt_vobj_set_enabled(xvt_win_get_ctl(win, kFolder), a == kFilterMove || a == kFilterCopy);
}

void SaveFilter(WINDOW win, EditAsk* ask) {
  MailFilter f;
  f.name = xvt_ctl_get_text(win, kName, kFilterFieldMax + 1);
  while (!f.name.empty() && f.name.back() == ' ') f.name.pop_back();
  const WINDOW rule = xvt_win_get_ctl(win, kRule);
  f.rule = Item(rule, xvt_list_get_sel_index(rule));
  if (f.rule == kNewRule) f.rule.clear();
  f.action = xvt_list_get_sel_index(xvt_win_get_ctl(win, kAction));
  const WINDOW folder = xvt_win_get_ctl(win, kFolder);
  if (f.action == kFilterMove || f.action == kFilterCopy) f.folder = Item(folder, xvt_list_get_sel_index(folder));
  f.stop = xvt_ctl_is_checked(xvt_win_get_ctl(win, kStop));
  f.enabled = xvt_ctl_is_checked(xvt_win_get_ctl(win, kEnabled));
  if (const std::string problem = FLT_Problem(f); !problem.empty()) {
    xvt_dm_post_error("%s", problem.c_str());
    return;
  }
  ask->filter = f;
  ask->saved = true;
  xvt_vobj_destroy(win);
}

long edit_eh(WINDOW win, EVENT* ev) {
  auto* ask = reinterpret_cast<EditAsk*>(xvt_vobj_get_data(win));
  switch (ev->type) {
    case E_CREATE: {
      const MailFilter& f = ask->filter;
      xvt_vobj_set_title(xvt_win_get_ctl(win, kName), f.name.c_str());
      FillRules(win, f.rule);
      Fill(xvt_win_get_ctl(win, kAction), {std::begin(kActionNames), std::end(kActionNames)},
           kActionNames[std::clamp(f.action, 0, kFilterActionCount - 1)]);
      // A folder that is gone from the list still shows, so that the
      // filter is not changed behind the user's back.
      std::vector<std::string> folders = ask->folders;
      if (!f.folder.empty() && std::find(folders.begin(), folders.end(), f.folder) == folders.end())
        folders.insert(folders.begin(), f.folder);
      Fill(xvt_win_get_ctl(win, kFolder), folders, f.folder);
      xvt_ctl_set_checked(xvt_win_get_ctl(win, kStop), f.stop);
      xvt_ctl_set_checked(xvt_win_get_ctl(win, kEnabled), f.enabled);
      ShowFolderChoice(win);
      break;
    }
    case E_CONTROL:
      switch (ev->v.ctl.id) {
        case kAction: ShowFolderChoice(win); break;
        case kRule: {
          const WINDOW rule = xvt_win_get_ctl(win, kRule);
          if (Item(rule, xvt_list_get_sel_index(rule)) != kNewRule) break;
          std::string made;
          FillRules(win, SRCH_NewRuleDialog(&made) ? made : ask->filter.rule);
          break;
        }
        case kEditOk: SaveFilter(win, ask); break;
        case kEditCancel: xvt_vobj_destroy(win); break;
        default: break;
      }
      break;
    case E_CLOSE: xvt_vobj_destroy(win); break;
    default: break;
  }
  return 0;
}

bool EditFilter(int ms, MailFilter* filter) {
  xvt_res_register_dialog(kEditRid, kEditDef);
  EditAsk ask{ms, *filter, {}, false};
  FolderList list;
  if (MM_MSFindFol(ms, "*", 1, &list))
    for (const FolderListEntry& e : list)
      if (e.flags & kFolderSelectable) ask.folders.push_back(e.name);
  std::sort(ask.folders.begin(), ask.folders.end());
  xvt_dlg_create_res(W_MODAL, kEditRid, EM_ALL, edit_eh, reinterpret_cast<intptr_t>(&ask));
  if (ask.saved) *filter = ask.filter;
  return ask.saved;
}

// --- The list ------------------------------------------------------------------------

struct ListAsk {
  int ms;
  std::string folder;
  std::vector<MailFilter> filters;
};

std::string Line(const MailFilter& f) {
  return std::string(f.enabled ? "" : "(off) ") + f.name + ":  " + f.rule + "  \xe2\x86\x92  " + FLT_Describe(f) +
         (f.stop ? ", stop" : "");
}

void ShowList(WINDOW win, const ListAsk& ask, int select) {
  const WINDOW list = xvt_win_get_ctl(win, kList);
  std::vector<std::string> lines;
  for (const MailFilter& f : ask.filters) lines.push_back(Line(f));
  Fill(list, lines, "");
  if (select >= 0 && select < static_cast<int>(lines.size())) xvt_list_set_sel(list, select, true);
}

void RunNow(WINDOW win, ListAsk* ask) {
  const int folder = MM_FolOpen(ask->ms, ask->folder.c_str());
  if (folder == INVALID_FOLDER) {
    xvt_dm_post_error("The folder \"%s\" could not be opened.", ask->folder.c_str());
    return;
  }
  std::vector<UMI> messages;
  for (long n = 1, count = MM_FolGetNumMsgs(folder); n <= count; ++n)
    if (const UMI u = MM_UMIFromMsgno(folder, static_cast<unsigned long>(n))) messages.push_back(u);
  FilterReport report;
  FLT_Apply(folder, ask->filters, messages, &report);
  MM_FolClose(folder, 0);
  const std::string done = "On \"" + ask->folder + "\": " + std::to_string(report.acted) +
                           (report.acted == 1 ? " message filed or marked." : " messages filed or marked.");
  xvt_vobj_set_title(xvt_win_get_ctl(win, kRunNote), done.c_str());
  if (!report.problems.empty()) {
    std::string text = done;
    for (const std::string& p : report.problems) text += "\n" + p;
    xvt_dm_post_error("%s", text.c_str());
  }
}

long list_eh(WINDOW win, EVENT* ev) {
  auto* ask = reinterpret_cast<ListAsk*>(xvt_vobj_get_data(win));
  const WINDOW list = xvt_win_get_ctl(win, kList);
  const int at = list ? xvt_list_get_sel_index(list) : -1;
  const int count = static_cast<int>(ask->filters.size());
  switch (ev->type) {
    case E_CREATE: {
      const std::string label = "Filters of " + std::string(MM_MSGetName(ask->ms)) + ", run in this order on new mail in the INBOX:";
      xvt_vobj_set_title(xvt_win_get_ctl(win, kListLabel), label.c_str());
      ShowList(win, *ask, 0);
      const std::string run = ask->folder.empty() ? "Select a folder to run the filters on it." : "On \"" + ask->folder + "\"";
      xvt_vobj_set_title(xvt_win_get_ctl(win, kRunNote), run.c_str());
      xvt_vobj_set_enabled(xvt_win_get_ctl(win, kRunNow), !ask->folder.empty());
      break;
    }
    case E_CONTROL:
      switch (ev->v.ctl.id) {
        case kAdd: {
          if (count >= kFilterMax) {
            xvt_dm_post_error("A service can have at most %d filters.", kFilterMax);
            break;
          }
          MailFilter f;
          f.name = "Filter " + std::to_string(count + 1);
          if (EditFilter(ask->ms, &f)) {
            ask->filters.push_back(f);
            ShowList(win, *ask, count);
          }
          break;
        }
        case kEdit:
          if (at >= 0 && at < count && EditFilter(ask->ms, &ask->filters[at])) ShowList(win, *ask, at);
          break;
        case kDelete:
          if (at >= 0 && at < count) {
            ask->filters.erase(ask->filters.begin() + at);
            ShowList(win, *ask, std::min(at, count - 2));
          }
          break;
        case kUp:
        case kDown: {
          const int to = ev->v.ctl.id == kUp ? at - 1 : at + 1;
          if (at < 0 || at >= count || to < 0 || to >= count) break;
          std::swap(ask->filters[at], ask->filters[to]);
          ShowList(win, *ask, to);
          break;
        }
        case kRunNow: RunNow(win, ask); break;
        case kOk:
          if (FLT_Save(MM_MSGetNumber(ask->ms), ask->filters))
            xvt_vobj_destroy(win);
          else
            xvt_dm_post_error("The filters could not be saved.");
          break;
        case kCancel: xvt_vobj_destroy(win); break;
        default: break;
      }
      break;
    case E_CLOSE: xvt_vobj_destroy(win); break;
    default: break;
  }
  return 0;
}

}  // namespace

void FLT_FiltersDialog(int ms, const std::string& folder) {
  xvt_res_register_dialog(kListRid, kListDef);
  ListAsk ask{ms, folder, FLT_Load(MM_MSGetNumber(ms))};
  if (!xvt_dlg_create_res(W_MODAL, kListRid, EM_ALL, list_eh, reinterpret_cast<intptr_t>(&ask)))
    xvt_dm_post_error("Could not create the filters dialog.");
}
