// The search dialogs driven as a user would: a rule built phrase by phrase
// and saved, chosen with another, run over a local folder, the lines read.
#include "src/search/search_dialog.h"

#include <gtest/gtest.h>

#include "src/options/options.h"
#include "src/search/search_rules.h"
#include "tests/organizer/nodes_fixture.h"
#include "xvt/xvt_test.h"

namespace {

std::string Text(WINDOW dlg, int id) { return Title(xvt_win_get_ctl(dlg, id)); }

std::vector<std::string> Items(WINDOW dlg, int id) {
  std::vector<std::string> out;
  const WINDOW list = xvt_win_get_ctl(dlg, id);
  char buffer[600];
  for (int i = 0, n = xvt_list_count_all(list); i < n; ++i) out.push_back(xvt_list_get_elt(list, i, buffer, sizeof buffer));
  return out;
}

int IndexOf(WINDOW dlg, int id, const std::string& item) {
  const std::vector<std::string> items = Items(dlg, id);
  for (size_t i = 0; i < items.size(); ++i)
    if (items[i] == item) return static_cast<int>(i);
  ADD_FAILURE() << item << " is not offered";
  return -1;
}

class SearchDialog : public nodestest::NodesTest {};

TEST_F(SearchDialog, ARuleBuiltInTheDialogFindsItsMessages) {
  MakeFolder("Box", 12);
  ASSERT_TRUE(SRCH_AddRuleByName(kOptSession, "IMAP", "Twelve", "SUBJECT \"message 12\"", "Message"));
  std::vector<std::string> results;
  std::string status, refused;
  // Dialogs come in the order they open: the search dialog, then the rule
  // dialog its New Rule button brings.
  xvt_test_push_dialog(kSearchDialogRid, [&](WINDOW d) {
    EXPECT_EQ(Text(d, kSearchFolders), "Folders: Box");
    xvt_test_click(d, kSearchRun);  // nothing chosen yet
    xvt_test_click(d, kSearchNewRule);
    // The new rule comes back chosen; the other one is added to it.
    EXPECT_EQ(Items(d, kSearchRules), (std::vector<std::string>{"Sevens", "Twelve"}));
    xvt_test_select(d, kSearchRules, 1);
    xvt_test_click(d, kSearchRun);
    results = Items(d, kSearchResults);
    status = Text(d, kSearchStatus);
    xvt_test_click(d, kSearchClose);
  });
  // The rule dialog: a phrase the attribute refuses, then two good ones,
  // one removed again.
  xvt_test_push_dialog(kRuleDialogRid, [&](WINDOW d) {
    EXPECT_EQ(Text(d, kRuleName), "Rule1");
    xvt_test_type(d, kRuleName, "Sevens");
    xvt_test_select(d, kRuleAttribute, IndexOf(d, kRuleAttribute, "Size"));
    xvt_test_type(d, kRuleValue, "many");
    xvt_test_click(d, kRuleAdd);
    refused = Posts();
    xvt_test_select(d, kRuleAttribute, IndexOf(d, kRuleAttribute, "Subject"));
    xvt_test_type(d, kRuleValue, "message 7");
    xvt_test_click(d, kRuleAdd);
    xvt_test_select(d, kRuleAttribute, IndexOf(d, kRuleAttribute, "Read"));
    xvt_test_click(d, kRuleAdd);
    xvt_test_select(d, kRulePhrases, 1);
    xvt_test_click(d, kRuleRemove);
    EXPECT_EQ(Items(d, kRulePhrases), std::vector<std::string>{"Subject contains message 7"});
    xvt_test_click(d, kRuleOk);
  });
  Run([&] { SRCH_SearchDialog({{local_, "Box"}}); });
  EXPECT_NE(refused.find("does not fit the attribute \"Size\""), std::string::npos) << refused;
  EXPECT_NE(Posts().find("You must select a search rule."), std::string::npos) << Posts();
  std::string rule;
  ASSERT_TRUE(SRCH_GetRuleByName("IMAP", "Sevens", &rule, nullptr));
  EXPECT_EQ(rule, "SUBJECT \"message 7\"");
  EXPECT_EQ(SRCH_GetRuleSavedStatus("IMAP", "Sevens"), 1);  // kept for the next start
  EXPECT_EQ(results, (std::vector<std::string>{"Box  |  a7@example.org  |  message 7",
                                               "Box  |  a12@example.org  |  message 12"}));
  EXPECT_EQ(status, "2 messages found.");
  // The dialog's folders are closed with it.
  EXPECT_EQ(MM_FolFindOpen(local_, "Box"), INVALID_FOLDER);
}

}  // namespace
