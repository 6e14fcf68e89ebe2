// Folder operations on the tree over MH folders: rename, move and copy of
// whole subtrees with the name-conflict question, delete and close with
// their confirmations, and the options that follow a folder's name.
#include <gtest/gtest.h>

#include <algorithm>

#include "src/options/options.h"
#include "src/organizer/node_draw.h"
#include "tests/organizer/nodes_fixture.h"

namespace nodestest {
namespace {

// Local folders nest with a backslash; the tables write "/" for it.
std::string Local(std::string name) {
  std::replace(name.begin(), name.end(), '/', '\\');
  return name;
}
std::string Shown(std::string name) {
  std::replace(name.begin(), name.end(), '\\', '/');
  return name;
}

// "name:count" of each folder on disk; absent ones are left out.
std::string Disk() {
  std::string out;
  for (const char* name : {"a", "a/x", "a/x/y", "b", "c", "d", "d/b", "d/b/c", "d/x", "d/x/c", "d/x/y", "inbox"}) {
    const long n = CountOnDisk(Local(name));
    if (n >= 0) out += std::string(out.empty() ? "" : " ") + name + ":" + std::to_string(n);
  }
  return out;
}

// The folder lines under node, by full name, each followed by its own
// listed kids in brackets; hidden lines in parentheses.
std::string Shown(TreeNode* node) {
  std::string out;
  for (TreeNode* k = TREE_GetFirstKid(node); k; k = TREE_GetNext(k)) {
    FolderNodeInfo* f = FOL_Info(k);
    if (!f) break;
    const std::string kids = Shown(k);
    std::string name = Shown(f->name) + (kids.empty() ? "" : "[" + kids + "]");
    if (TREE_IsHidden(k)) name = "(" + name + ")";
    out += std::string(out.empty() ? "" : " ") + name;
  }
  return out;
}

class FolderOpsTest : public NodesTest {};

TEST_F(FolderOpsTest, RenameMoveCopyAndDeleteSubtrees) {
  MakeFolder("a", 2);
  MakeFolder(Local("a/x"), 1);
  MakeFolder(Local("a/x/y"), 1);
  MakeFolder("b", 1);
  MakeFolder("c", 3);
  MakeFolder("inbox", 1);
  const std::pair<const char*, const char*> options[] = {
      {"View.Unsubscribed", "1"},
      {"Folder.1.a.Sort", "Subject"},
      {"MessageGroups.1.a\\x.IDList", "3"},
      {"Folder.1.ab.Sort", "From"},  // a neighbour whose name only begins the same
      {"Folder.1.inbox.Sort", "From"},
  };
  for (const auto& [key, value] : options) Opt_AssignString(key, value, kOptSession, 0);
  // A second local service over the same store, for moves between services.
  Opt_AssignString("MsgService.ms2.Type", "local", kOptPermanent, 0);
  Opt_AssignString("MsgService.ms2.Name", "Other", kOptPermanent, 0);
  const int other = MM_MSNew(2);
  ASSERT_NE(other, INVALID_SERVICE);
  Run([&] {
    TreeNode* svc = serviceAdd(TREE_GetRoot(tree_), 1);
    ASSERT_NE(svc, nullptr);
    TREE_OpenSubtree(svc, 1, 0);
    auto node = [&](const char* name) { return folderFind(svc, Local(name).c_str()); };
    ASSERT_NE(node("a"), nullptr);
    TREE_OpenSubtree(node("a"), 1, 0);
    TREE_OpenSubtree(node("a/x"), 1, 0);
    ASSERT_EQ(Shown(svc), "INBOX a[a/x[a/x/y]] b c");

    auto copy_c = [&] { return folderCopyTree(node("c"), local_, Local("d/x").c_str(), '\\'); };
    auto move_c = [&](const char* to) {
      return [&, to] { return folderMoveTree(node("c"), other, Local(to).c_str(), '\\'); };
    };
    auto delete_d = [&] { return folderDelete(node("d")); };
    const char* exists = "The folder name \"d\\x\\c\" already exists i";
    const char* sure = "Are you sure you want to permanently del";
    const char* copied = "c:3 d:2 d/b:1 d/x:1 d/x/c:3 d/x/y:1 inbox:1";
    const char* moved = "d:2 d/b:1 d/b/c:3 d/x:1 d/x/c:3 d/x/y:1 inbox:1";
    struct Step {
      const char* what;
      std::vector<ASK_RESPONSE> answers;
      std::function<int()> op;
      int result;
      const char *disk, *tree, *asked;
    } steps[] = {
        {"rename a to d: the subtree follows, the line sorts again", {},
         [&] { return folderRename(node("a"), "d"); }, 1, "b:1 c:3 d:2 d/x:1 d/x/y:1 inbox:1",
         "INBOX b c d[d/x]", ""},
        {"move b into d", {}, [&] { return folderMoveTree(node("b"), local_, "d", '\\'); }, 1,
         "c:3 d:2 d/b:1 d/x:1 d/x/y:1 inbox:1", "INBOX c d[d/b d/x]", ""},
        {"copy c into d/x: no conflict", {}, copy_c, 1, copied, "INBOX c d[d/b d/x]", ""},
        {"copy again, append", {RESP_DEFAULT}, copy_c, 1,
         "c:3 d:2 d/b:1 d/x:1 d/x/c:6 d/x/y:1 inbox:1", "INBOX c d[d/b d/x]", exists},
        {"copy again, replace", {RESP_2}, copy_c, 1, copied, "INBOX c d[d/b d/x]", exists},
        {"copy again, cancel", {RESP_3}, copy_c, 0, copied, "INBOX c d[d/b d/x]", exists},
        {"replace on the inbox appends", {RESP_2},
         [&] { return folderResolveNameConflicts(local_, "inbox"); }, 1, copied,
         "INBOX c d[d/b d/x]", "The folder name \"inbox\" already exists i"},
        {"move to another service: a refused conflict keeps the source", {RESP_3}, move_c("d/x"),
         0, copied, "INBOX c d[d/b d/x]", exists},
        {"move to another service: copied, then the source goes", {}, move_c("d/b"), 1, moved,
         "INBOX d[d/b d/x]", ""},
        {"delete refused", {RESP_2}, delete_d, 0, moved, "INBOX d[d/b d/x]", sure},
        {"delete d and all below", {RESP_DEFAULT}, delete_d, 1, "inbox:1", "INBOX", sure},
    };
    for (const Step& step : steps) {
      xvt_test_clear_posts();
      for (ASK_RESPONSE a : step.answers) xvt_test_push_answer(a);
      EXPECT_EQ(step.op(), step.result) << step.what;
      EXPECT_EQ(Disk(), step.disk) << step.what;
      EXPECT_EQ(Shown(svc), step.tree) << step.what;
      EXPECT_EQ(Asked(40), step.asked) << step.what;
    }
    // The options went with the names, and with the deletion.
    const std::pair<const char*, const char*> after[] = {
        {"Folder.1.a.Sort", ""},           {"MessageGroups.1.a\\x.IDList", ""},
        {"Folder.1.d.Sort", ""},           {"MessageGroups.1.d\\x.IDList", ""},
        {"Folder.1.ab.Sort", "From"},      {"Folder.1.inbox.Sort", "From"},
    };
    for (const auto& [key, value] : after) EXPECT_EQ(Opt_LookupText(key, kOptSession), value) << key;
  });
}

TEST_F(FolderOpsTest, RenameCarriesOptionsAndCloseAsks) {
  MakeFolder("a", 1);
  MakeFolder(Local("a/x"), 1);
  Opt_AssignString("View.Unsubscribed", "1", kOptSession, 0);
  Opt_AssignString("Folder.1.a\\x.Sort", "Subject", kOptSession, 0);
  Opt_AssignString("MessageGroups.1.a.IDList", "2,1", kOptSession, 0);
  Run([&] {
    TreeNode* svc = serviceAdd(TREE_GetRoot(tree_), 1);
    TREE_OpenSubtree(svc, 1, 0);
    TreeNode* a = folderFind(svc, "a");
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(folderRename(a, "q"), 1);
    EXPECT_EQ(Opt_LookupText("Folder.1.q\\x.Sort", kOptSession), "Subject");
    EXPECT_EQ(Opt_LookupText("MessageGroups.1.q.IDList", kOptSession), "2,1");
    EXPECT_EQ(Opt_LookupText("MessageGroups.1.a.IDList", kOptSession), "");
    // Closing an open folder asks first; Cancel leaves it open.
    TreeNode* q = folderFind(svc, "q");
    ASSERT_NE(q, nullptr);
    TREE_OpenSubtree(q, 1, 0);
    ASSERT_NE(F(q)->folder_id, INVALID_FOLDER);
    xvt_test_push_answer(RESP_2);
    EXPECT_EQ(folderClose(q), 0);
    EXPECT_NE(F(q)->folder_id, INVALID_FOLDER);
    xvt_test_push_answer(RESP_DEFAULT);
    EXPECT_EQ(folderClose(q), 1);
    EXPECT_EQ(F(q)->folder_id, INVALID_FOLDER);
    EXPECT_NE(Asked(40).find("Are you sure you want to close the folde"), std::string::npos);
  });
}

// The view of unsubscribed folders: shown, they are listed where they were
// missing; hidden, they stay in the tree but off the screen, subscribed
// ones and what lies under them stay.
TEST_F(FolderOpsTest, UnsubscribedFoldersShowAndHide) {
  for (const char* name : {"a", "a/x", "a/y", "b", "a/y/z"}) MakeFolder(Local(name), 1);
  for (const char* name : {"a", "a/y"}) ASSERT_EQ(MM_FolSubscribe(local_, Local(name).c_str(), 1), 1);
  Run([&] {
    Opt_AssignString("View.Unsubscribed", "0", kOptSession, 0);
    TreeNode* svc = serviceAdd(TREE_GetRoot(tree_), 1);
    xvt_test_push_answer(RESP_DEFAULT);  // in case the service says it has no subscribed folders
    TREE_OpenSubtree(svc, 1, 0);
    TreeNode* a = folderFind(svc, "a");
    ASSERT_NE(a, nullptr);
    TREE_OpenSubtree(a, 1, 0);
    TREE_OpenSubtree(folderFind(svc, Local("a/y").c_str()), 1, 0);
    const struct {
      const char* view;
      int event;
      const char* want;
    } steps[] = {
        {"0", 0, "a[a/y]"},
        {"1", E_SHOW_UNSUBSCRIBED, "a[a/x a/y[a/y/z]] b"},
        {"0", E_HIDE_UNSUBSCRIBED, "a[(a/x) a/y[(a/y/z)]] (b)"},
        {"1", E_SHOW_UNSUBSCRIBED, "a[a/x a/y[a/y/z]] b"},
    };
    for (const auto& step : steps) {
      Opt_AssignString("View.Unsubscribed", step.view, kOptSession, 0);
      if (step.event) MM_NotPostSimple(step.event);
      EXPECT_EQ(Shown(svc), step.want) << step.view << " " << step.event;
    }
    // Hidden lines are off the screen: the widget counts only what shows.
    Opt_AssignString("View.Unsubscribed", "0", kOptSession, 0);
    MM_NotPostSimple(E_HIDE_UNSUBSCRIBED);
    EXPECT_EQ(TREE_EntriesVisible(tree_), 5);  // the service, a, a/y and the one message of each
  });
}

// Service and folder lines as drawn: the offline service in gray, a folder
// that can't hold messages marked read only, a lost folder crossed in red,
// the counts of an open folder; fields at their columns.
TEST_F(FolderOpsTest, ServiceAndFolderLinesDrawTheirState) {
  MakeFolder("box", 2);
  Opt_AssignString("View.Unsubscribed", "1", kOptSession, 0);
  Run([&] {
    TreeNode* svc = serviceAdd(TREE_GetRoot(tree_), 1);
    TREE_OpenSubtree(svc, 1, 0);
    TreeNode* box = folderFind(svc, "box");
    ASSERT_NE(box, nullptr);
    auto text = [&](const std::string& t) -> const XvtDrawOp* {
      static XvtDrawOp found;
      for (const XvtDrawOp& o : xvt_test_paint(tree_))
        if (o.op == "text" && o.text == t) return &(found = o);
      return nullptr;
    };
    auto red_lines = [&] {
      int n = 0;
      for (const XvtDrawOp& o : xvt_test_paint(tree_))
        if (o.op == "line" && o.fore == COLOR_RED) ++n;
      return n;
    };
    const struct {
      const char* what;
      std::function<void()> change;
      const char* service_text;
      COLOR service_color;
      const char* count_text;  // "" for none
      bool read_only;
      int red;
    } steps[] = {
        {"listed", [] {}, "Local", MSG_SlotColor(kSlotService), "", false, 0},
        {"opened", [&] { TREE_OpenSubtree(box, 1, 0); }, "Local", MSG_SlotColor(kSlotService),
         "(2 msgs, 2 unread)", false, 0},
        {"lost", [&] { F(box)->lost = true; TREE_RedrawNode(box); }, "Local", MSG_SlotColor(kSlotService),
         "(2 msgs, 2 unread)", false, 2},
        {"offline: a local service stays as it was; closed, not selectable",
         [&] {
           folderCloseTree(box);
           F(box)->lost = false;
           F(box)->selectable = false;
           ModelEvent* ev = MM_NotEventNew(E_MS_OFFLINE);
           ev->ms = static_cast<int16_t>(local_);
           MM_NotEventPost(ev);
           MM_NotEventFree(ev);
         },
         "Local", MSG_SlotColor(kSlotService), "", true, 0},
        {"a service that is offline is gray",
         [&] {
           SVC_Info(svc)->offline = 1;
           TREE_RedrawNode(svc);
         },
         "Local", COLOR_GRAY, "", true, 0},
    };
    for (const auto& step : steps) {
      step.change();
      const XvtDrawOp* name = text(step.service_text);
      ASSERT_NE(name, nullptr) << step.what;
      EXPECT_EQ(name->fore, step.service_color) << step.what;
      EXPECT_EQ(name->rct.left - TREE_GetLineStart(tree_, svc), 32 + 2) << step.what;  // the name column
      const XvtDrawOp* counts = *step.count_text ? text(step.count_text) : nullptr;
      EXPECT_EQ(counts != nullptr, *step.count_text != 0) << step.what;
      if (counts) {
        EXPECT_EQ(counts->rct.left - TREE_GetLineStart(tree_, box), 22 + 150 + 2) << step.what;
      }
      EXPECT_EQ(text("[Read Only]") != nullptr, step.read_only) << step.what;
      EXPECT_EQ(red_lines(), step.red) << step.what;
    }
  });
}

// Typing in the folder list selects the next line whose name begins with
// what was typed, case aside; a pause starts a new prefix.
TEST_F(FolderOpsTest, TypeAheadFindsFoldersByDisplayName) {
  for (const char* name : {"apple", "Banana", "berry"}) MakeFolder(name, 0);
  Opt_AssignString("View.Unsubscribed", "1", kOptSession, 0);
  Run([&] {
    TREE_SetTextCallback(tree_, MSG_LineText);
    TreeNode* svc = serviceAdd(TREE_GetRoot(tree_), 1);
    TREE_OpenSubtree(svc, 1, 0);
    auto type = [&](int ch) {
      xvt_test_key(tree_, ch);
      TreeNode* sel = TREE_FirstSelection(tree_);
      char text[64] = "";
      if (sel) MSG_LineText(sel, text, sizeof text);
      return std::string(text);
    };
    const struct {
      bool pause;  // the prefix starts again, as after a second's pause
      int ch;
      const char* want;
    } keys[] = {
        {true, 'b', "Banana"}, {true, 'B', "berry"}, {true, 'l', "Local"}, {true, 'b', "Banana"},
        {false, 'e', "berry"}, {true, 'z', "berry"},
    };
    for (const auto& k : keys) {
      if (k.pause) TREE_GetInfo(tree_)->typed_len = 0;
      EXPECT_EQ(type(k.ch), k.want) << static_cast<char>(k.ch);
    }
  });
}

}  // namespace
}  // namespace nodestest
