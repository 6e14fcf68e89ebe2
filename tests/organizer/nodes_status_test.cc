// Counts on folder lines that are not open: asked of the model at each
// mail timer tick, for the lines the user can see, and drawn as an open
// folder's counts are.
#include <gtest/gtest.h>

#include <functional>

#include "src/base/critical.h"
#include "tests/organizer/nodes_fixture.h"

namespace nodestest {
namespace {

// The counts text drawn on the tree's lines ("" when none is).
std::string CountsDrawn(WINDOW tree) {
  std::string out;
  for (const XvtDrawOp& op : xvt_test_paint(tree))
    if (op.op == "text" && op.text.find("unread)") != std::string::npos) out += (out.empty() ? "" : " | ") + op.text;
  return out;
}

// Marks message msgno of a folder read behind the tree's back.
void MarkRead(const std::string& folder, const char* msgno) {
  MailStream* s = mail_open(nullptr, folder.c_str(), OP_SILENT);
  ASSERT_NE(s, nullptr);
  mail_setflag(s, msgno, "\\Seen");
  mail_close(s);
}

TEST_F(NodesTest, AClosedFoldersCountChangesAtTheNextTick) {
  MakeFolder("Box", 3);
  MakeFolder("Box\\Inner", 2);
  Run([&] {
    FolderListEntry e;
    e.name = "Box";
    e.delimiter = '\\';
    TreeNode* node = folderAdd(TREE_GetRoot(tree_), local_, e, 1, INVALID_FOLDER);
    ASSERT_NE(node, nullptr);
    e.name = "Box\\Inner";
    TreeNode* inner = folderAdd(node, local_, e, 1, INVALID_FOLDER);  // under a closed line
    ASSERT_NE(inner, nullptr);
    struct Step {
      const char* what;
      std::function<void()> act;
      bool tick;
      const char* drawn;
      long inner_unseen;
    } steps[] = {
        {"nothing known before a tick", [] {}, false, "", -1},
        {"the first tick", [] {}, true, "(3 msgs, 3 unread)", -1},
        {"mail arrives: the line waits for the tick", [] { Append("Box", Numbered(4)); }, false, "(3 msgs, 3 unread)",
         -1},
        {"the next tick shows it", [] {}, true, "(4 msgs, 4 unread)", -1},
        {"read elsewhere", [] { MarkRead("Box", "1:2"); }, true, "(4 msgs, 2 unread)", -1},
        {"a tick inside a critical section asks nothing",
         [] {
           Append("Box", Numbered(5));
           WIN_start_critical();
         },
         true, "(4 msgs, 2 unread)", -1},
        {"the retry a second later does", [] { WIN_end_critical(); }, false, "(5 msgs, 3 unread)", -1},
        {"the inner line is asked about once its parent is open",
         [&] {
           ASSERT_EQ(folderHandleNodeEvent(tree_, node, kNodeEventDoubleClick), kNodeActionOk);
           TREE_OpenSubtree(node, 1, 0);
           ASSERT_TRUE(TREE_IsVisibleNode(inner));
         },
         true,
         "(5 msgs, 3 unread) | (2 msgs, 2 unread)", 2},
    };
    std::string drawn;
    for (const Step& step : steps) {
      SCOPED_TRACE(step.what);
      step.act();
      xvt_test_paint(tree_);
      xvt_test_clear_damage(tree_);
      if (step.tick) MSG_MailTimerTick();
      if (std::string(step.what).find("retry") != std::string::npos) xvt_test_advance_ms(kMailRetryMs);
      // A changed count redraws its line at once, not at the next paint.
      EXPECT_EQ(xvt_test_damage(tree_).empty(), drawn == step.drawn);
      drawn = CountsDrawn(tree_);
      EXPECT_EQ(drawn, step.drawn);
      EXPECT_EQ(F(inner)->status_unseen, step.inner_unseen);
    }

    // Open, the lines count; closed again, the index's count waits for the next tick.
    ASSERT_NE(F(node)->folder_id, INVALID_FOLDER);
    MarkRead("Box", "3");
    EXPECT_NE(CountsDrawn(tree_).find("(5 msgs, 3 unread)"), std::string::npos);
    folderCloseTree(node);
    EXPECT_EQ(F(node)->folder_id, INVALID_FOLDER);
    EXPECT_EQ(F(node)->status_unseen, -1);
    MSG_MailTimerTick();
    EXPECT_EQ(F(node)->status_messages, 5);
    EXPECT_EQ(F(node)->status_unseen, 2);
  });
}

}  // namespace
}  // namespace nodestest
