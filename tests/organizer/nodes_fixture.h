// The model over MH folders (tests/model/model_fixture.h) with an organizer
// tree on the headless toolkit, and what the tests read back from the tree:
// the lines of a folder in order, named by message number.
#pragma once

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "src/base/fs.h"
#include "src/organizer/msgwin.h"
#include "src/organizer/nodes.h"
#include "src/organizer/organizer.h"
#include "tests/model/model_fixture.h"

namespace nodestest {

// The task window stands in for the organizer's top window: it owns the mail timer.
inline long TaskEh(WINDOW, EVENT* ev) {
  if (ev->type == E_TIMER) MSG_MailTimerTick();
  return 0;
}

// A message of the given header lines and a one-line body.
inline std::string Msg(const std::string& headers) { return headers + "\r\nbody\r\n"; }

// "3 1 2" of the message lines under node; groups show as "[Name: ...]",
// and a hidden line in parentheses: "[(Empty:)]".
inline std::string Lines(TreeNode* node) {
  std::string out;
  for (TreeNode* k = TREE_GetFirstKid(node); k; k = TREE_GetNext(k)) {
    std::string part;
    if (MessageNodeInfo* m = MSG_Info(k)) {
      part = std::to_string(MM_UMIMsgno(m->umi));
    } else if (GroupNodeInfo* g = GRP_Info(k)) {
      part = g->name + ":" + (Lines(k).empty() ? "" : " " + Lines(k));
    } else {
      continue;
    }
    if (TREE_IsHidden(k)) part = "(" + part + ")";
    if (GRP_Info(k)) part = "[" + part + "]";
    out += (out.empty() ? "" : " ") + part;
  }
  return out;
}

// Ten messages for a folder, the eighth with a long subject, and a load run
// with the free store refusing just that message's line record (its header,
// "a@x" and the subject): memory runs short in the middle of the load.
inline std::vector<std::string> EighthIsLong() {
  std::vector<std::string> raws;
  for (int i = 1; i <= 10; ++i) raws.push_back(Msg("From: a@x\r\nSubject: " + std::string(i == 8 ? 137 : 1, i == 8 ? 'x' : 's') + "\r\n"));
  return raws;
}
inline void ShortOfMemoryAtTheEighth(const std::function<void()>& load) {
  static size_t fail_size = 0;
  static const FsAllocator failing = {
      [](size_t size, bool zero) -> void* {
        if (size == fail_size) {
          fail_size = 0;
          return nullptr;
        }
        return zero ? std::calloc(1, size ? size : 1) : std::malloc(size ? size : 1);
      },
      [](void* p, size_t size) { return std::realloc(p, size ? size : 1); }, std::free};
  fs_set_allocator(&failing);
  fs_init();
  xvt_test_clear_posts();
  fail_size = sizeof(MessageNodeInfo) + 4 + 137 + 1;
  load();
  fs_shutdown();
  fs_set_allocator(nullptr);
}

// The questions asked since the posts were cleared, each cut to width.
inline std::string Asked(size_t width = std::string::npos) {
  std::string out;
  for (const XvtPost& p : xvt_test_posts())
    if (p.kind == "ask") out += std::string(out.empty() ? "" : " | ") + p.text.substr(0, width);
  return out;
}

class NodesTest : public ModelTest {
 protected:
  // Runs body with the toolkit up and a tree in the task window.
  void Run(std::function<void()> body) {
    XVT_CONFIG config{0, 0, "t", "T", "task", 42};
    xvt_test_set_run_hook([&] {
      RCT r{0, 0, 600, 320};
      tree_ = TREE_CreateTreeWidget(TASK_WIN, &r, 40, 0, 2, 0, 16, 0, nullptr, nullptr, nullptr, nullptr);
      MSG_SetMailTimerOwner(TASK_WIN);
      set_mail_timer(1);
      body();
      MSG_SetMailTimerOwner(NULL_WIN);
      MSG_DestroyMailTimer();
    });
    xvt_app_create(0, nullptr, 0, TaskEh, &config);
  }

  // A folder line for name under the tree's root, opened like a double click.
  TreeNode* Open(int ms, const std::string& name) {
    TreeNode* node = folderAdd(TREE_GetRoot(tree_), ms, {name, '/'}, 1, INVALID_FOLDER);
    if (!node) return nullptr;
    if (folderHandleNodeEvent(tree_, node, kNodeEventDoubleClick) != kNodeActionOk) return nullptr;
    return node;
  }

  static FolderNodeInfo* F(TreeNode* n) { return FOL_Info(n); }
  // The counters against the lines: what the folder line says must be what it holds.
  static void ExpectCounts(TreeNode* n, long shown, long unread) {
    EXPECT_EQ(F(n)->shown, shown);
    EXPECT_EQ(F(n)->unread, unread);
    EXPECT_EQ(static_cast<long>(F(n)->index.Size()), shown);
  }

  WINDOW tree_ = NULL_WIN;
};

// The model with the program's top window open over subscribed folders.
class TopWindowTest : public ModelTest {
 protected:
  // Folders of that many numbered messages, each subscribed.
  void Subscribed(const std::vector<std::pair<std::string, int>>& folders) {
    for (const auto& [name, count] : folders) {
      MakeFolder(name, count);
      MM_FolSubscribe(local_, name.c_str(), 1);
    }
  }
  // Runs body with the program's top window open.
  static void Run(const std::function<void()>& body) {
    XVT_CONFIG config{0, 0, "t", "T", "task", 42};
    xvt_test_set_run_hook([&] {
      openMessageServicesWindow();
      ASSERT_NE(MSG_TopWindow(), NULL_WIN);
      body();
    });
    xvt_app_create(0, nullptr, 0, [](WINDOW, EVENT*) -> long { return 0; }, &config);
  }
  static MsgWinInfo* Top() { return MSG_WinInfo(MSG_TopWindow()); }
};

}  // namespace nodestest
