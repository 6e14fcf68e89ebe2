// Saved searches from the organizer's menus: the quick search over the
// selected folders opens a "Search : name" window of kind 31 with what it
// found; the properties dialog refuses what can't make a search.
#include <gtest/gtest.h>

#include <functional>

#include "src/options/options.h"
#include "src/organizer/msgwin.h"
#include "src/organizer/nodes.h"
#include "src/organizer/organizer.h"
#include "src/search/search_node.h"
#include "src/search/search_rules.h"
#include "tests/organizer/nodes_fixture.h"

namespace {

class SearchWindows : public nodestest::TopWindowTest {
 protected:
  void SetUp() override {
    TopWindowTest::SetUp();
    Subscribed({{"mail", 12}, {"work", 2}});
  }
  static void SelectFolders(const std::vector<std::string>& names) {
    TREE_ClearSelections(Top()->tree);
    TreeNode* service = TREE_GetFirstKid(TREE_GetRoot(Top()->tree));
    TREE_OpenSubtree(service, 1, 0);
    for (TreeNode* k = TREE_GetFirstKid(service); k; k = TREE_GetNext(k))
      if (FolderNodeInfo* f = FOL_Info(k))
        for (const std::string& n : names)
          if (f->name == n) TREE_SelectNode(k, 1);
  }
  static std::string Describe(WINDOW tree) {
    std::string out;
    MSG_DescribeTree(tree, &out);
    return out;
  }
};

TEST_F(SearchWindows, QuickSearchOpensAWindowOfWhatItFound) {
  std::string refused;
  Run([&] {
    // No folder: the dialog says so and stays.
    TREE_ClearSelections(Top()->tree);
    xvt_test_push_dialog(kQuickRid, [&](WINDOW d) {
      xvt_test_click(d, kQuickOk);
      refused = Posts();
      xvt_test_click(d, kQuickCancel);
    });
    xvt_test_clear_posts();
    xvt_test_user_command(Top()->window, M_MSG_QUICK_SEARCH);
    EXPECT_EQ(searchIdList().size(), 0u);

    SelectFolders({"mail", "work"});
    MM_MsgSetFlag(MM_UMIFromMsgno(MM_FolOpen(local_, "mail"), 1), "\\Seen");
    xvt_test_push_dialog(kQuickRid, [&](WINDOW d) {
      EXPECT_EQ(xvt_scr_get_focus_vobj(), xvt_win_get_ctl(d, kQuickText));  // ready for the words
      xvt_test_click(d, kQuickReadBtn + 1);  // Unread
      xvt_test_click(d, kQuickSubject);
      xvt_test_click(d, kQuickHeaderBody);  // off: the subject box counts
      xvt_test_type(d, kQuickText, "message 1");
      xvt_test_click(d, kQuickOk);
    });
    xvt_test_clear_posts();
    xvt_test_user_command(Top()->window, M_MSG_QUICK_SEARCH);
    const int id = searchFindByName("Search1");
    ASSERT_NE(id, 0) << Posts();
    std::string rule;
    ASSERT_TRUE(SRCH_GetRuleByName("IMAP", searchGetSelectedRules(id).at(0).c_str(), &rule, nullptr));
    EXPECT_EQ(rule, "UNSEEN SUBJECT \"message 1\" ");
    EXPECT_EQ(searchGetOptionLevel(id), kOptSession);
    WINDOW win = xvt_test_find_window("Search : Search1");
    MsgWinInfo* info = MSG_WinInfo(win);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->type, kMsgWinSearch);
    // Unread mail whose subject holds "message 1": 10, 11, 12 of mail (1 is read) and 1 of work.
    int lines = 0;
    for (TreeNode* k = TREE_GetFirstKid(TREE_GetRoot(info->tree)); k; k = TREE_GetNext(k)) lines += MSG_Info(k) != nullptr;
    EXPECT_EQ(lines, 4) << Describe(info->tree);
    EXPECT_NE(Describe(Top()->tree).find("Search1 (4 msgs)"), std::string::npos) << Describe(Top()->tree);
    // Closing the window gives the lines back and lets the folders go.
    closeMessageWindow(win);
    EXPECT_EQ(xvt_test_find_window("Search : Search1"), NULL_WIN);
    EXPECT_EQ(Describe(Top()->tree).find("(4 msgs)"), std::string::npos) << Describe(Top()->tree);
  });
  EXPECT_NE(refused.find("No folder is selected.\nYou can click on the \"Advanced...\" button to select a folder."),
            std::string::npos)
      << refused;
}

TEST_F(SearchWindows, PropertiesRefuseWhatCannotMakeASearch) {
  ASSERT_TRUE(SRCH_AddRuleByName(kOptPermanent, "IMAP", "Any", "ALL", "Message"));
  ASSERT_NE(SRCH_AddSearch(kOptPermanent, "Taken"), 0);
  struct Case {
    std::vector<std::string> folders;
    const char* name;
    bool rule;
    const char* said;  // "" when the search is made
  };
  const Case cases[] = {
      {{"work"}, "", true, "You must enter a name for the search"},
      {{}, "New", true, "You must select a folder to be searched"},
      {{"work"}, "New", false, "You must select a search rule."},
      {{"work"}, "Taken", true, "Failed to rename search: name already exists"},
      {{"work"}, "New", true, ""},
  };
  Run([&] {
    for (const Case& c : cases) {
      SelectFolders(c.folders);
      std::string said;
      xvt_test_push_dialog(kPropsRid, [&](WINDOW d) {
        xvt_vobj_set_title(xvt_win_get_ctl(d, kPropsName), c.name);
        if (c.rule) xvt_test_select(d, kPropsRules, 0);
        xvt_test_clear_posts();
        xvt_test_click(d, kPropsOk);
        said = Posts();
        if (xvt_vobj_is_valid(d)) xvt_test_click(d, kPropsCancel);
      });
      // With no folder selected the menu item is greyed: the dialog is asked directly.
      c.folders.empty() ? (void)INFO_SearchNew({}) : (void)xvt_test_user_command(Top()->window, M_MSG_SAVED_SEARCH);
      EXPECT_NE(said.find(c.said), std::string::npos) << c.name << ": " << said;
      EXPECT_EQ(searchFindByName("New") != 0, *c.said == 0) << c.name;
    }
    // The new search is a line of the top tree, saved for good, and opened in a window.
    const int id = searchFindByName("New");
    EXPECT_EQ(searchGetOptionLevel(id), kOptPermanent);
    EXPECT_EQ(searchGetSelectedFoldersByID(id), std::vector<std::string>{"Local!work"});
    EXPECT_NE(xvt_test_find_window("Search : New"), NULL_WIN);
  });
}

}  // namespace
