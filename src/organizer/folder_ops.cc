// Folder operations on the organizer's nodes: closing and deleting with the
// user's confirmation, renaming, copying and moving whole subtrees, and what
// a folder line does when the model says it was renamed or deleted.
#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>

#include "c-client/core/mail.h"
#include "src/base/critical.h"
#include "src/base/trace.h"
#include "src/options/options.h"
#include "src/organizer/nodes.h"
#include "src/search/saved_search.h"

namespace {

struct Suspended {
  WINDOW win;
  explicit Suspended(TreeNode* node) : win(TREE_GetWindow(node)) {
    if (win) TREE_SuspendUpdates(win);
  }
  ~Suspended() {
    if (win) TREE_ResumeUpdates(win);
  }
};

// The parent path of name: what lies before its last delimiter, or "".
std::string ParentPath(const std::string& name, char delimiter) {
  if (!delimiter) return "";
  const size_t at = name.rfind(delimiter);
  return at == std::string::npos ? "" : name.substr(0, at);
}

std::string LastComponent(const std::string& name, char delimiter) {
  const size_t at = delimiter ? name.rfind(delimiter) : std::string::npos;
  return at == std::string::npos ? name : name.substr(at + 1);
}

TreeNode* ServiceOf(TreeNode* node) {
  for (TreeNode* p = node; p; p = TREE_GetParent(p)) {
    if (SVC_Info(p)) return p;
    // A context window's root stands for its origin.
    if (!TREE_GetParent(p) && TREE_GetOriginNode(p)) p = TREE_GetOriginNode(p);
    if (SVC_Info(p)) return p;
  }
  return nullptr;
}

// The option names of a store that begin with prefix.
struct Collect {
  std::string prefix;
  std::vector<std::string> names;
};

void CollectNames(const OptionView& v, void* data) {
  auto* c = static_cast<Collect*>(data);
  if (v.flags & kOptDeleted) return;
  if (std::strncmp(v.name, c->prefix.c_str(), c->prefix.size()) == 0) c->names.push_back(v.name);
}

std::vector<std::string> OptionsUnder(const std::string& prefix) {
  Collect c{prefix, {}};
  if (Opt_Ready()) Opt_ForEach(CollectNames, &c);
  return c.names;
}

std::string FolderPrefix(const char* kind, int ms_number, const std::string& name) {
  return std::string(kind) + "." + std::to_string(ms_number) + "." + name + ".";
}

void PostCheckNow() { MM_NotPostSimple(E_CHECK_NOW); }

}  // namespace

void folderMoveOptions(int old_ms, const char* old_name, int new_ms, const char* new_name) {
  // The inbox keeps its options where they are: a rename of the inbox on
  // the server leaves an empty inbox behind, which is still the inbox.
  if (!old_name || !new_name || std::strcmp(old_name, "inbox") == 0) return;
  for (const char* kind : {"Folder", "MessageGroups"}) {
    const std::string from = FolderPrefix(kind, MM_MSGetNumber(old_ms), old_name);
    const std::string to = FolderPrefix(kind, MM_MSGetNumber(new_ms), new_name);
    if (from == to) continue;
    for (const std::string& key : OptionsUnder(from)) Opt_Rename(key.c_str(), (to + key.substr(from.size())).c_str());
  }
}

void folderDeleteOptions(int ms, const char* name) {
  if (!name) return;
  for (const char* kind : {"Folder", "MessageGroups"})
    for (const std::string& key : OptionsUnder(FolderPrefix(kind, MM_MSGetNumber(ms), name))) Opt_Delete(key.c_str());
}

int folderGetSubtreeList(int ms, const char* name, char delimiter, int all, int include_self,
                         std::vector<std::string>* out) {
  out->clear();
  if (!name) return 0;
  std::set<std::string> names;
  if (delimiter) {
    char pattern[1200];
    std::snprintf(pattern, sizeof pattern, "%s%c*", name, delimiter);
    FolderList list;
    if (!MM_MSFindFol(ms, pattern, all, &list)) return 0;
    for (const FolderListEntry& e : list) names.insert(e.name);
  }
  if (include_self) {
    FolderList self;
    if (!MM_MSFindFol(ms, name, all, &self)) return 0;
    for (const FolderListEntry& e : self)
      if (e.name == name) names.insert(e.name);
  }
  out->assign(names.begin(), names.end());
  return 1;
}

int folderResolveNameConflicts(int ms, const char* name) {
  if (!name || !MM_FolExists(ms, name)) return 1;
  switch (xvt_dm_post_ask("Append", "Replace", "Cancel",
                          "The folder name \"%s\" already exists in the target message service. Would you like to "
                          "replace it, or append the folder contents to it?",
                          name)) {
    case RESP_DEFAULT: return 1;
    case RESP_2: {
      // An inbox is never replaced: its new mail is appended instead.
      if (strcasecmp(name, "inbox") == 0) return 1;
      WIN_start_critical();
      const int ok = MM_FolDelete(ms, name);
      WIN_end_critical();
      return ok ? 1 : 0;
    }
    default: return 0;
  }
}

int folderCopyTree(TreeNode* node, int target_ms, const char* target_name, char target_delimiter) {
  FolderNodeInfo* f = FOL_Info(node);
  if (!f) return 0;
  const int ms = f->ms;
  const std::string name = f->name;
  const char delimiter = f->delimiter;
  std::vector<std::string> list;
  if (!folderGetSubtreeList(ms, name.c_str(), delimiter, 1, 1, &list)) return 0;
  // The part of each source name that the target's prefix replaces: the
  // parent path with its delimiter, or the service's root prefix.
  size_t cut = 0;
  if (delimiter) {
    const std::string parent = ParentPath(name, delimiter);
    cut = parent.size() + (parent.empty() ? 0 : 1);
  } else {
    const char* root = MM_MSGetFolderPrefix(ms);
    cut = root ? std::strlen(root) : 0;
  }
  std::string prefix = target_name && *target_name ? target_name : "";
  if (prefix.empty()) {
    const char* root = MM_MSGetFolderPrefix(target_ms);
    prefix = root ? root : "";
  }
  if (!prefix.empty() && target_delimiter && prefix.back() != target_delimiter) prefix += target_delimiter;
  int ok = 1;
  {
    Suspended s(node);
    xvt_progress_open("Copying Folders", "Copying folder ...", true);
    for (const std::string& from : list) {
      if (xvt_progress_cancelled()) {
        ok = 0;
        break;
      }
      std::string tail = from.size() >= cut ? from.substr(cut) : from;
      // Only the part that came from the source changes its delimiter; the
      // target's own prefix is already in the target's terms.
      if (delimiter && target_delimiter && delimiter != target_delimiter)
        std::replace(tail.begin(), tail.end(), delimiter, target_delimiter);
      const std::string to = prefix + tail;
      xvt_progress_set_text(("Copying folder " + from + " ...").c_str());
      if (!folderResolveNameConflicts(target_ms, to.c_str()) || !MM_FolCopy(ms, from.c_str(), target_ms, to.c_str())) {
        ok = 0;
        break;
      }
    }
    xvt_progress_close();
  }
  PostCheckNow();
  return ok;
}

int folderRenameTree(int ms, const char* old_name, char delimiter, const char* new_name) {
  if (!old_name || !new_name) return 0;
  const std::string from = old_name, to = new_name;
  long caps = 0;
  MM_MSCapabilities(ms, &caps);
  // A server whose rename takes the subfolders along gets one rename; the
  // subfolders then only change their names here (and their options). One
  // that renames single folders gets a rename per folder, parents first.
  const bool single = (caps & CAP_RENAME_NOT_ATOMIC) != 0;
  std::vector<std::string> list;
  if (!folderGetSubtreeList(ms, from.c_str(), delimiter, 1, single ? 1 : 0, &list)) return 0;
  // The options follow each name here, whether or not a line shows it.
  if (!single) {
    if (!MM_FolRename(ms, from.c_str(), to.c_str(), 0)) return 0;
    folderMoveOptions(ms, from.c_str(), ms, to.c_str());
  }
  for (const std::string& name : list) {
    const std::string renamed = to + name.substr(std::min(from.size(), name.size()));
    if (!MM_FolRename(ms, name.c_str(), renamed.c_str(), single ? 0 : 1)) return 0;
    folderMoveOptions(ms, name.c_str(), ms, renamed.c_str());
  }
  return 1;
}

int folderRename(TreeNode* node, const char* new_name) {
  FolderNodeInfo* f = FOL_Info(node);
  if (!f || !new_name) return 0;
  const int ms = f->ms;
  const std::string old = f->name;
  const char delimiter = f->delimiter;
  Suspended s(node);
  return folderRenameTree(ms, old.c_str(), delimiter, new_name);
}

int folderDeleteTree(TreeNode* node) {
  FolderNodeInfo* f = FOL_Info(node);
  if (!f) return 0;
  const int ms = f->ms;
  const std::string name = f->name;
  const char delimiter = f->delimiter;
  folderCloseTree(node);
  std::vector<std::string> list;
  if (!folderGetSubtreeList(ms, name.c_str(), delimiter, 1, 1, &list)) return 0;
  // Deepest first, so that no folder is asked to go while it has subfolders.
  std::sort(list.begin(), list.end(), [](const std::string& a, const std::string& b) { return a > b; });
  Suspended s(node);  // the node may go with the first event; s keeps its window
  // Options go with each folder here: closing the top folder has taken the
  // lines below it, so no line hears of the others.
  for (const std::string& name_i : list) {
    if (!MM_FolDelete(ms, name_i.c_str())) return 0;
    folderDeleteOptions(ms, name_i.c_str());
  }
  return 1;
}

int folderDelete(TreeNode* node) {
  FolderNodeInfo* f = FOL_Info(node);
  if (!f) return 0;
  if (xvt_dm_post_ask("Delete", "Cancel", nullptr,
                      "Are you sure you want to permanently delete the folder \"%s\",subfolders and messages inside?",
                      f->name.c_str()) != RESP_DEFAULT)
    return 0;
  WIN_start_critical();
  const int ok = folderDeleteTree(node);
  WIN_end_critical();
  return ok;
}

int folderClose(TreeNode* node) {
  FolderNodeInfo* f = FOL_Info(node);
  if (!f) return 0;
  if (xvt_dm_post_ask("Close", "Cancel", nullptr,
                      "Are you sure you want to close the folder \"%s\" and all the messages inside?",
                      f->name.c_str()) != RESP_DEFAULT)
    return 0;
  folderCloseTree(node);
  return 1;
}

int folderMoveTree(TreeNode* node, int target_ms, const char* target_name, char target_delimiter) {
  FolderNodeInfo* f = FOL_Info(node);
  if (!f) return 0;
  int ok = 0;
  if (target_ms != f->ms) {
    // The source goes only when every folder arrived whole.
    ok = folderCopyTree(node, target_ms, target_name, target_delimiter);
    if (ok && FOL_Info(node)) {
      WIN_start_critical();
      ok = folderDeleteTree(node);
      WIN_end_critical();
    }
  } else {
    folderCloseTree(node);
    f = FOL_Info(node);
    if (!f) return 0;
    std::string parent = target_name && *target_name ? target_name : "";
    if (parent.empty()) {
      const char* root = MM_MSGetFolderPrefix(target_ms);
      parent = root ? root : "";
    }
    const std::string last = LastComponent(f->name, f->delimiter);
    std::string to = parent;
    if (!to.empty() && target_delimiter && to.back() != target_delimiter) to += target_delimiter;
    to += last;
    xvt_progress_open("Moving Folders", "Moving folder ...", false);
    ok = to == f->name ? 1 : folderRename(node, to.c_str());
    xvt_progress_close();
  }
  PostCheckNow();
  return ok;
}

int serviceClose(TreeNode* node) {
  ServiceNodeInfo* s = SVC_Info(node);
  if (!s) return 0;
  if (xvt_dm_post_ask("Close", "Cancel", nullptr,
                      "Are you sure you want to close the message service \"%s\" and all the folders inside?",
                      s->name.c_str()) != RESP_DEFAULT)
    return 0;
  MM_MSClose(s->ms);
  return 1;
}

int serviceDelete(TreeNode* node) {
  ServiceNodeInfo* s = SVC_Info(node);
  if (!s) return 0;
  if (xvt_dm_post_ask("Delete", "Cancel", nullptr, "Are you sure you want to delete the Message Service \"%s?\"",
                      s->name.c_str()) != RESP_DEFAULT)
    return 0;
  const int ms = s->ms;
  if (ms != INVALID_SERVICE) MM_MSClose(ms);
  MM_MSDelete(ms);
  return 1;
}

void doFolderDeleted(TreeNode* node) {
  FolderNodeInfo* f = FOL_Info(node);
  if (!f) return;
  folderDeleteOptions(f->ms, f->name.c_str());
  foloptDeleteFolder(f->ms, f->name.c_str());
  TREE_RemoveNode(node);
}

void doFolderRenamed(TreeNode* node, const ModelEvent* ev) {
  FolderNodeInfo* f = FOL_Info(node);
  if (!f || !ev->old_name || !ev->new_name) return;
  const std::string old_name = ev->old_name, new_name = ev->new_name;
  const int from_ms = ev->from_ms, to_ms = ev->to_ms;
  folderMoveOptions(from_ms, old_name.c_str(), to_ms, new_name.c_str());
  foloptRenameFolder(from_ms, old_name.c_str(), to_ms, new_name.c_str());
  const char delimiter = f->delimiter;
  if (from_ms != to_ms) {
    // Gone from this service; the other one lists it on its own.
    folderCloseTree(node);
    TREE_RemoveNode(node);
    return;
  }
  if (ParentPath(old_name, delimiter) == ParentPath(new_name, delimiter)) {
    // Same parent: only the name changes, and the line keeps its place in order.
    TreeNode* parent = TREE_GetParent(node);
    f->name = new_name;
    if (parent) {
      const bool selected = TREE_IsSelected(node);
      Suspended s(node);
      TREE_DetachNode(node);
      TREE_InsertSorted(parent, node, folderCompare, 1);
      if (selected) TREE_SelectNode(node, 1, 1);
      TREE_RedrawNode(node);
    }
    return;
  }
  // A new parent: the line moves there, closed, and the old one goes.
  TreeNode* service = ServiceOf(node);
  TreeNode* parent = service ? folderFind(service, ParentPath(new_name, delimiter).c_str()) : nullptr;
  FolderListEntry e;
  e.name = new_name;
  e.delimiter = delimiter;
  e.flags = (f->selectable ? kFolderSelectable : 0) | (f->marked ? kFolderMarked : 0) |
            (f->no_inferiors ? kFolderNoInferiors : 0);
  const bool subscribed = f->subscribed;
  const int ms = f->ms;
  folderCloseTree(node);
  TREE_RemoveNode(node);
  if (parent && parent != node) {
    FolderNodeInfo* pf = FOL_Info(parent);
    // Only under a parent whose subfolders are listed; elsewhere the next listing finds it.
    if (!pf || pf->fetched_subscribed) folderAdd(parent, ms, e, subscribed ? 1 : 0, INVALID_FOLDER);
  }
}
