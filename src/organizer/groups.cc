// Message groups: named bins of a folder with a rule over header fields.
// Main takes what no rule claims, Deleted what is marked deleted; a message
// lives in the first group, in order, whose rule matches.
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <optional>
#include <sstream>

#include "src/base/errors.h"
#include "src/base/trace.h"
#include "src/options/options.h"
#include "src/organizer/node_draw.h"
#include "src/organizer/nodes.h"

namespace {

// The matcher gives up (no match) past this many steps, so that a pattern
// of many stars can't stall a folder load on a long header.
constexpr long kMatchBudget = 200000;

struct Matcher {
  const char* text;
  long steps = 0;

  static bool SameLetter(char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
  }

  // One character against the set at p ("[...]"); *end is past the set.
  // Sets compare case-sensitively. False for an unterminated set.
  static bool InSet(const char* p, char c, const char** end, bool* terminated) {
    const char* q = p + 1;
    bool negate = false;
    if (*q == '!' || *q == '^') {
      negate = true;
      ++q;
    }
    bool found = false;
    bool first = true;
    while (*q && (*q != ']' || first)) {
      first = false;
      if (q[1] == '-' && q[2] && q[2] != ']') {
        if (c >= q[0] && c <= q[2]) found = true;
        q += 3;
      } else {
        if (c == *q) found = true;
        ++q;
      }
    }
    *terminated = *q == ']';
    *end = *q ? q + 1 : q;
    return found != negate;
  }

  // The alternative that starts at p, from text position t; '|' ends it.
  bool Seq(const char* t, const char* p) {
    if (++steps > kMatchBudget) return false;
    for (;;) {
      switch (*p) {
        case '\0':
        case '|': return *t == '\0';
        case '&':
          // So far a match only if the text ended; then the rest must match the whole text too.
          if (*t) return false;
          t = text;
          ++p;
          continue;
        case '?':
          if (!*t) return false;
          ++t;
          ++p;
          continue;
        case '*': {
          while (*p == '*') ++p;
          if (*p == '\0' || *p == '|') return true;
          for (const char* k = t;; ++k) {
            if (Seq(k, p)) return true;
            if (!*k || steps > kMatchBudget) return false;
          }
        }
        case '[': {
          if (!*t) return false;
          const char* end;
          bool terminated;
          const bool in = InSet(p, *t, &end, &terminated);
          if (!terminated || !in) return false;
          ++t;
          p = end;
          continue;
        }
        case '\\':
          if (p[1]) ++p;
          [[fallthrough]];
        default:
          if (!*t || !SameLetter(*t, *p)) return false;
          ++t;
          ++p;
          continue;
      }
    }
  }

  // The next alternative after the one starting at p, or null.
  static const char* NextAlternative(const char* p) {
    while (*p) {
      if (*p == '\\' && p[1]) {
        p += 2;
      } else if (*p == '[') {
        const char* q = p + 1;
        if (*q == '!' || *q == '^') ++q;
        if (*q == ']') ++q;
        while (*q && *q != ']') ++q;
        p = *q ? q + 1 : q;
      } else if (*p == '|') {
        return p + 1;
      } else {
        ++p;
      }
    }
    return nullptr;
  }
};

// The header a field's first letter names.
const char* HeaderOf(char letter) {
  switch (letter) {
    case 'C': return "Cc";
    case 'F': return "From";
    case 'I': return "In-Reply-To";
    case 'R': return "Reply-To";
    case 'S': return "Subject";
    case 'T': return "To";
    default: return nullptr;
  }
}

std::string Lookup(const std::string& key) { return key.empty() ? "" : Opt_LookupText(key.c_str(), kOptSession); }

// The group's node under container by id, or null.
TreeNode* GroupById(TreeNode* container, int id) {
  for (TreeNode* k = TREE_GetFirstKid(container); k; k = TREE_GetNext(k))
    if (GroupNodeInfo* g = GRP_Info(k); g && g->id == id) return k;
  return nullptr;
}

void ApplyHideRule(TreeNode* group) {
  GroupNodeInfo* g = GRP_Info(group);
  if (!g) return;
  if (g->hide_if_empty && g->count == 0 && !GRP_ShowEmpty()) {
    TREE_HideNode(group, 1);
  } else {
    TREE_HideNode(group, 0);
    TREE_RedrawNode(group);
  }
}

}  // namespace

bool wildMatch(const char* text, const char* pattern) {
  if (!text || !pattern) return false;
  Matcher m{text};
  for (const char* p = pattern; p; p = Matcher::NextAlternative(p)) {
    if (m.Seq(text, p)) return true;
    if (m.steps > kMatchBudget) {
      Trace(kTraceOrganizer, kTraceMedium, "wildMatch: gave up on pattern %.60s\n", pattern);
      return false;
    }
  }
  return false;
}

void groupInitRule(GroupRule* rule, const char* fields, const char* pattern) {
  *rule = GroupRule{};
  rule->pattern = std::string(pattern ? pattern : "").substr(0, kGroupPatternSize - 1);
  std::istringstream in(fields ? fields : "");
  std::string word;
  std::vector<std::string> names;
  while (in >> word) {
    if (strcasecmp(word.c_str(), "All") == 0) {
      for (const char* n : {"Subject", "From", "To", "Cc", "Reply-To", "In-Reply-To"}) names.push_back(n);
    } else if (strcasecmp(word.c_str(), "Recipient") == 0) {
      names.push_back("To");
      names.push_back("Cc");
    } else {
      names.push_back(word);
    }
  }
  for (const std::string& n : names) {
    if (rule->field_count == kGroupMaxFields) break;  // the rest are dropped
    std::snprintf(rule->fields[rule->field_count++], kGroupFieldSize, "%s", n.c_str());
  }
}

std::string groupGetOptionName(int parent_kind, int ms_number, const char* folder, int group_id,
                               const char* attribute) {
  char prefix[1200];
  if (parent_kind == 1)
    std::snprintf(prefix, sizeof prefix, "MessageGroups.%d.%s.", ms_number, folder ? folder : "");
  else if (parent_kind == 2)
    std::snprintf(prefix, sizeof prefix, "MsgSearch.IMAP.%d.MessageGroups.", ms_number);
  else
    return "";
  std::string key = prefix;
  if (std::strcmp(attribute, "IDList") == 0) return key + "IDList";
  if (group_id == kGroupMain) return key + "main." + attribute;
  if (group_id == kGroupDeleted) return key + "del." + attribute;
  return key + std::to_string(group_id) + "." + attribute;
}

bool GRP_ShowEmpty() {
  short on = 0;
  return Opt_LookupBoolean("View.HiddenMsgGroups", &on, kOptSession) && on;
}

bool GRP_ShowGroups() {
  short on = 0;
  return Opt_LookupBoolean("View.MsgGroups", &on, kOptSession) && on;
}

GroupNodeInfo* GRP_Info(const TreeNode* node) {
  return TREE_GetDataType(node) == kNodeDataTypeGroup ? static_cast<GroupNodeInfo*>(TREE_GetData(node)) : nullptr;
}

TreeNode* groupAdd(TreeNode* container, int ms_number, const char* folder, int id) {
  auto* g = new GroupNodeInfo;
  g->id = id;
  // A search's groups live under the search's own options.
  const TreeNode* owner = TREE_GetOriginNode(container) ? TREE_GetOriginNode(container) : container;
  const int kind = TREE_GetDataType(owner) == kNodeDataTypeSearch ? 2 : 1;
  auto key = [&](const char* attr) { return groupGetOptionName(kind, ms_number, folder, id, attr); };
  g->name = id == kGroupMain ? "Main" : id == kGroupDeleted ? "Deleted" : Lookup(key("Name"));
  g->sort = MSG_SortOrderFromName(Lookup(key("Sort")).c_str());
  short hide = 0;
  if (!Opt_LookupBoolean(key("HideIfEmpty").c_str(), &hide, kOptSession)) {
    Opt_AssignBoolean(key("HideIfEmpty").c_str(), 0, kOptSession, 0);
    hide = 0;
  }
  g->hide_if_empty = hide ? 1 : 0;
  if (id > 0) groupInitRule(&g->rule, Lookup(key("Fields")).c_str(), Lookup(key("Pattern")).c_str());
  TreeNode* node = TREE_NewNode(0, g, 21, groupDraw, groupHandleNodeEvent, nullptr);
  if (!node) {
    Trace(kTraceOrganizer, kTraceCritical, "groupAdd: failed to initialize new group node.\n");
    delete g;
    return nullptr;
  }
  TREE_AppendNode(container, node);
  if (g->hide_if_empty && !GRP_ShowEmpty()) TREE_HideNode(node, 1);
  return node;
}

namespace {

// The first group whose test is true; headers are read at most once.
TreeNode* Pick(TreeNode* container, UMI umi, bool deleted) {
  std::optional<std::string> cache[6];
  bool have[6] = {};
  for (TreeNode* k = TREE_GetFirstKid(container); k; k = TREE_GetNext(k)) {
    GroupNodeInfo* g = GRP_Info(k);
    if (!g) continue;
    if (deleted) {
      if (g->id == kGroupDeleted) return k;
      continue;
    }
    if (g->id == kGroupMain) return k;
    if (g->id <= 0) continue;
    const std::string* content = nullptr;
    for (int f = 0; f < g->rule.field_count; ++f) {
      static const char kLetters[] = "CFIRST";
      const char* at = std::strchr(kLetters, g->rule.fields[f][0]);
      // Any other first letter reuses the content last used here; the first such has none.
      if (at && g->rule.fields[f][0]) {
        const int slot = static_cast<int>(at - kLetters);
        if (!have[slot]) {
          cache[slot] = MM_MsgHeaderContent(umi, HeaderOf(*at));
          have[slot] = true;
        }
        content = cache[slot] ? &*cache[slot] : nullptr;
      }
      if (content && !content->empty() && wildMatch(content->c_str(), g->rule.pattern.c_str())) return k;
    }
  }
  Trace(kTraceOrganizer, kTraceCritical, "groupPick: no group for a message - SHOULD NOT HAPPEN\n");
  return nullptr;
}

}  // namespace

TreeNode* groupPick(TreeNode* container, UMI umi) { return Pick(container, umi, MM_MsgIsDeleted(umi) != 0); }

// Picks the groups of a load's records and pours each group's sorted list
// into its node: the tree sees only appends.
void GRP_LoadRecords(TreeNode* container, std::vector<MessageNodeInfo*>* records, long* shown, long* unread,
                     UmiIndex* index) {
  std::vector<TreeNode*> groups;
  for (TreeNode* k = TREE_GetFirstKid(container); k; k = TREE_GetNext(k))
    if (GroupNodeInfo* g = GRP_Info(k)) {
      g->load_list.clear();
      groups.push_back(k);
    }
  for (MessageNodeInfo* m : *records) {
    TreeNode* group = Pick(container, m->umi, (m->flags & kMsgDeleted) != 0);
    if (!group) {
      MSG_FreeInfo(m);
      continue;
    }
    GRP_Info(group)->load_list.push_back(m);
  }
  records->clear();
  for (TreeNode* group : groups) {
    GroupNodeInfo* g = GRP_Info(group);
    MSG_SortRecords(&g->load_list, g->sort);
    for (MessageNodeInfo* m : g->load_list) {
      TreeNode* node = messageCreateNode(m->umi, m);
      if (!node) continue;
      TREE_AppendNode(group, node);
      index->Put(m->umi, node);
      ++g->count;
      ++*shown;
      if (!(m->flags & kMsgRead)) {
        ++g->unread;
        ++*unread;
      }
    }
    g->load_list.clear();
    g->load_list.shrink_to_fit();
    if (g->count > 0) TREE_HideNode(group, 0);
    TREE_RedrawNode(group);
  }
}

void groupInsertMessage(TreeNode* container, TreeNode* group, TreeNode* message) {
  GroupNodeInfo* g = GRP_Info(group);
  MessageNodeInfo* m = MSG_Info(message);
  if (!g || !m) return;
  TREE_InsertSorted(group, message, MSG_CompareFor(g->sort), 1);
  TREE_HideNode(group, 0);
  ++g->count;
  if (!(m->flags & kMsgRead)) ++g->unread;
  if (FolderNodeInfo* f = FOL_Info(container)) {
    ++f->total;
    ++f->shown;
    if (!(m->flags & kMsgRead)) ++f->unread;
  }
  TREE_RedrawNode(group);
}

void groupRemoveMessage(TreeNode* message) {
  TreeNode* group = TREE_GetParent(message);
  GroupNodeInfo* g = GRP_Info(group);
  if (!g) return;
  MessageNodeInfo* m = MSG_Info(message);
  TREE_DetachNode(message);
  if (g->count > 0) --g->count;
  if (m && !(m->flags & kMsgRead) && g->unread > 0) --g->unread;
  ApplyHideRule(group);
}

void groupRecount(TreeNode* group) {
  GroupNodeInfo* g = GRP_Info(group);
  if (!g) return;
  g->count = g->unread = 0;
  for (TreeNode* k = TREE_GetFirstKid(group); k; k = TREE_GetNext(k))
    if (MessageNodeInfo* m = MSG_Info(k)) {
      ++g->count;
      if (!(m->flags & kMsgRead)) ++g->unread;
    }
  ApplyHideRule(group);
}

TreeNode* GRP_DeletedGroup(TreeNode* container) { return GroupById(container, kGroupDeleted); }

int groupHandleNodeEvent(WINDOW, TreeNode* node, int event) {
  switch (event) {
    case kNodeEventDestroy:
      delete GRP_Info(node);
      TREE_SetData(node, nullptr);
      break;
    case kNodeEventDoubleClick:
      TREE_SelectOnlyNode(node);
      TREE_OpenSubtree(node, !TREE_IsOpen(node), 0);
      break;
    default: break;
  }
  return kNodeActionOk;
}

void groupDraw(WINDOW win, TreeNode* node, RCT* rect) {
  GroupNodeInfo* g = GRP_Info(node);
  if (!g) return;
  const bool selected = TREE_IsSelected(node);
  // A raised gray box behind the whole line.
  CBRUSH gray{PAT_SOLID, 0xC0C0C0};
  xvt_dwin_set_brush(win, &gray);
  RCT box{rect->left, rect->top, std::max(MSG_ColumnsRight(win, node, rect), rect->left + 1), rect->bottom};
  xvt_dwin_draw_3d_rect(win, &box, true);
  int x = 0, w = 0;
  if (MSG_ColumnPlace(win, node, rect, 0, &x, &w)) {
    // The group icon: two stacked outlines, the Deleted group's crossed.
    CPEN pen{1, PAT_SOLID, selected ? COLOR_WHITE : COLOR_BLACK};
    xvt_dwin_set_pen(win, &pen);
    CBRUSH hollow{PAT_HOLLOW, COLOR_BLACK};
    xvt_dwin_set_brush(win, &hollow);
    RCT back{x + 4, rect->top + 2, x + 18, rect->top + 11}, front{x + 1, rect->top + 5, x + 15, rect->top + 14};
    xvt_dwin_draw_rect(win, &back);
    xvt_dwin_draw_rect(win, &front);
    if (g->id == kGroupDeleted) xvt_dwin_draw_line(win, PNT{front.left, front.bottom}, PNT{front.right, front.top});
  }
  xvt_dwin_set_font(win, MSG_SlotFont(kSlotGroup));
  xvt_dwin_set_fore_color(win, selected ? COLOR_WHITE : MSG_SlotColor(kSlotGroup));
  if (!g->name.empty()) MSG_DrawColumnText(win, node, rect, 1, g->name.c_str(), static_cast<int>(g->name.size()));
  xvt_dwin_set_fore_color(win, selected ? COLOR_WHITE : COLOR_BLACK);
  char counts[64];
  std::snprintf(counts, sizeof counts, "(%d msgs, %d unread)", g->count, g->unread);
  MSG_DrawColumnText(win, node, rect, 2, counts, -1);
  xvt_dwin_set_fore_color(win, COLOR_BLACK);
}

// --- Changing the set of groups ------------------------------------------------

namespace {

// The folder whose groups these are, and its option names.
FolderNodeInfo* ContainerInfo(TreeNode* container) {
  if (FolderNodeInfo* f = FOL_Info(container)) return f;
  return FOL_Info(TREE_GetOriginNode(container));
}

std::string IdListKey(TreeNode* container) {
  FolderNodeInfo* f = ContainerInfo(container);
  return f ? groupGetOptionName(1, MM_MSGetNumber(f->ms), f->name.c_str(), 0, "IDList") : "";
}

void WriteIdList(TreeNode* container, const std::vector<int>& ids) {
  const std::string key = IdListKey(container);
  if (key.empty()) return;
  std::string text;
  for (int id : ids) text += (text.empty() ? "" : ",") + std::to_string(id);
  Opt_AssignString(key.c_str(), text.c_str(), kOptSession, 0);
}

// A question of the message table with the group's name in it.
ASK_RESPONSE Ask(int code, const char* b1, const char* b2, const char* b3, const std::string& name) {
  char text[600];
  const char* format = ErrorText(code);
  std::snprintf(text, sizeof text, format ? format : "%s", name.c_str());
  return xvt_dm_post_ask(b1, b2, b3, "%s", text);
}

// Every message of the group gets flag set (or cleared), one request per folder.
void FlagAll(TreeNode* group, const char* flag, bool set) {
  std::vector<UMI> umis;
  for (TreeNode* k = TREE_GetFirstKid(group); k; k = TREE_GetNext(k))
    if (MessageNodeInfo* m = MSG_Info(k)) umis.push_back(m->umi);
  if (umis.empty()) return;
  WINDOW win = TREE_GetWindow(group);
  if (win) TREE_SuspendUpdates(win);
  if (set)
    MM_MsgSetFlagMany(umis, flag);
  else
    MM_MsgClearFlagMany(umis, flag);
  if (win) TREE_ResumeUpdates(win);
}

}  // namespace

std::vector<int> groupIdList(TreeNode* container) {
  std::vector<int> ids;
  const std::string key = IdListKey(container);
  const std::string text = key.empty() ? "" : Opt_LookupText(key.c_str(), kOptSession);
  for (const char* p = text.c_str(); *p;) {
    char* end;
    const long id = std::strtol(p, &end, 10);
    if (end == p) {
      ++p;
      continue;
    }
    if (id > 0) ids.push_back(static_cast<int>(id));
    p = end;
  }
  return ids;
}

void groupNotifyChanged(int kind, TreeNode* container) {
  if (kind == 1) {
    FolderNodeInfo* f = ContainerInfo(container);
    if (!f) return;
    ModelEvent* ev = MM_NotEventNew(E_REBUILD_CLOSED);
    ev->folder = static_cast<int16_t>(f->folder_id);
    ev->ms = static_cast<int16_t>(f->ms);
    MM_NotEventPost(ev);
    MM_NotEventFree(ev);
  } else if (kind == 2) {
    MM_NotPostSimple(E_SEARCH_CHANGED);
  }
}

int groupRemoveId(TreeNode* container, int id, bool notify) {
  std::vector<int> ids = groupIdList(container);
  const auto at = std::find(ids.begin(), ids.end(), id);
  if (at == ids.end()) return 0;
  ids.erase(at);
  WriteIdList(container, ids);
  if (notify) groupNotifyChanged(1, container);
  return 1;
}

int groupMove(TreeNode* group, TreeNode* before, bool notify) {
  GroupNodeInfo* g = GRP_Info(group);
  GroupNodeInfo* b = GRP_Info(before);
  TreeNode* container = TREE_GetParent(group);
  if (!g || g->id <= 0 || group == before) return 0;
  std::vector<int> ids = groupIdList(container);
  const auto at = std::find(ids.begin(), ids.end(), g->id);
  if (at == ids.end()) return 0;
  ids.erase(at);
  // Before the target's id; Main and Deleted stand last, so before them is the end.
  auto to = b && b->id > 0 ? std::find(ids.begin(), ids.end(), b->id) : ids.end();
  ids.insert(to, g->id);
  WriteIdList(container, ids);
  if (notify) groupNotifyChanged(1, container);
  return 1;
}

int groupDelete(TreeNode* group) {
  GroupNodeInfo* g = GRP_Info(group);
  TreeNode* container = TREE_GetParent(group);
  if (!g || !container) return 0;
  if (g->id == kGroupDeleted) return 0;  // the Deleted group is restored, not deleted
  const std::string name = g->name;
  if (g->id == kGroupMain) {
    if (Ask(3022, "Delete", "Cancel", nullptr, name) != RESP_DEFAULT) return 0;
    FlagAll(group, "\\Deleted", true);
    return 1;
  }
  bool remove = false;
  if (g->count > 0 || folderIsReadOnly(container)) {
    switch (Ask(3027, "Messages", "Group", "Cancel", name)) {
      case RESP_DEFAULT: FlagAll(group, "\\Deleted", true); return 1;
      case RESP_2: remove = true; break;
      default: return 0;
    }
  } else {
    remove = Ask(3026, "Delete", "Cancel", nullptr, name) == RESP_DEFAULT;
  }
  if (!remove) return 0;
  // The lines leave the index with the group; the rebuild picks them again.
  if (FolderNodeInfo* f = ContainerInfo(container))
    for (TreeNode* k = TREE_GetFirstKid(group); k; k = TREE_GetNext(k))
      if (MessageNodeInfo* m = MSG_Info(k)) f->index.Erase(m->umi);
  const int id = g->id;
  TREE_RemoveNode(group);
  groupRemoveId(container, id, true);
  return 1;
}

int groupRestore(TreeNode* group) {
  GroupNodeInfo* g = GRP_Info(group);
  if (!g || g->id != kGroupDeleted) return 0;
  if (Ask(3024, "Restore", "Cancel", nullptr, g->name) != RESP_DEFAULT) return 0;
  FlagAll(group, "\\Deleted", false);
  return 1;
}

void groupResort(TreeNode* group) {
  GroupNodeInfo* g = GRP_Info(group);
  FolderNodeInfo* f = ContainerInfo(TREE_GetParent(group));
  if (!g || !f) return;
  g->sort = MSG_SortOrderFromName(
      Lookup(groupGetOptionName(1, MM_MSGetNumber(f->ms), f->name.c_str(), g->id, "Sort")).c_str());
  char title[300];
  std::snprintf(title, sizeof title, "Sorting %s", g->name.c_str());
  xvt_progress_open(title, "Sorting message group...", false);
  WINDOW win = TREE_GetWindow(group);
  if (win) TREE_SuspendUpdates(win);
  MSG_ResortKids(group, g->sort);
  if (win) TREE_ResumeUpdates(win);
  xvt_progress_close();
}

void GRP_HandleViewEvent(TreeNode* container, const ModelEvent* ev) {
  WINDOW win = TREE_GetWindow(container);
  if (win) TREE_SuspendUpdates(win);
  for (TreeNode* k = TREE_GetFirstKid(container); k; k = TREE_GetNext(k)) {
    GroupNodeInfo* g = GRP_Info(k);
    if (!g) continue;
    switch (ev->type) {
      case E_SHOW_EMPTY_MSGGRPS:
        if (TREE_IsHidden(k)) TREE_HideNode(k, 0);
        break;
      case E_HIDE_EMPTY_MSGGRPS:
        if (g->hide_if_empty && g->count == 0) TREE_HideNode(k, 1);
        break;
      default:
        if (g->id != ev->value) break;
        if (ev->type == E_GROUP_SHOWN) {
          g->hide_if_empty = 1;
          ApplyHideRule(k);
        } else if (ev->type == E_GROUP_HIDDEN) {
          g->hide_if_empty = 0;
          TREE_HideNode(k, 0);
        } else if (ev->type == E_GROUP_CHANGED) {
          groupResort(k);
        } else {
          TREE_RedrawNode(k);
        }
        break;
    }
  }
  if (win) TREE_ResumeUpdates(win);
}
