// Saved searches over local MH folders: the quick search's rule, what a
// scope expands to, a search line that lists what its rules find in two
// folders and follows new mail, its deletion, and its options on disk.
#include "src/search/saved_search.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>

#include "src/base/fs.h"
#include "src/options/options.h"
#include "src/search/search_node.h"
#include "src/search/search_rules.h"
#include "tests/organizer/nodes_fixture.h"
#include "xvt/xvt_test.h"

namespace {

// Local noon of a day, so that the day before is the calendar's.
long long Noon(int year, int month, int day) {
  std::tm tm{};
  tm.tm_year = year - 1900;
  tm.tm_mon = month - 1;
  tm.tm_mday = day;
  tm.tm_hour = 12;
  tm.tm_isdst = -1;
  return static_cast<long long>(std::mktime(&tm));
}

TEST(QuickSearch, RuleStrings) {
  constexpr int kAll = kQuickAllMessages, kAny = kQuickAnyTime;
  // Messages, arrival, the From, Subject, Body and Header-or-Body boxes, the text.
  const std::pair<QuickSearchInput, const char*> cases[] = {
      {{kAll, kAny, false, false, false, false, ""}, "ALL "},
      {{kAll, kAny, true, true, true, false, ""}, "ALL "},  // boxes without text
      {{kQuickRead, kAny, false, false, false, false, ""}, "SEEN "},
      {{kQuickUnread, kQuickDay, false, false, false, false, ""}, "UNSEEN SINCE 29-Feb-2024 "},  // leap year
      {{kAll, kQuickWeek, false, false, false, false, ""}, "SINCE 23-Feb-2024 "},
      {{kAll, kAny, true, false, true, true, "joe"}, "TEXT \"joe\" "},
      {{kAll, kAny, false, true, false, false, "x"}, "SUBJECT \"x\" "},
      {{kAll, kAny, false, true, true, false, "x"}, "OR SUBJECT \"x\" BODY \"x\" "},
      {{kQuickRead, kAny, true, true, true, false, "a\"b"},
       "SEEN OR TO \"a\\\"b\" OR FROM \"a\\\"b\" OR CC \"a\\\"b\" OR SUBJECT \"a\\\"b\" BODY \"a\\\"b\" "},
      {{kAll, kAny, true, false, false, false, "j"}, "OR TO \"j\" OR FROM \"j\" CC \"j\" "},
  };
  for (const auto& [in, expected] : cases) {
    std::string rule;
    ASSERT_EQ(SRCH_QuickSearchRule(in, Noon(2024, 3, 1), &rule), 1);
    EXPECT_EQ(rule, expected);
  }
  EXPECT_EQ(searchCreateName({"Search1", "Search3", "search2"}), "Search2");
}

class SavedSearch : public nodestest::NodesTest {
 protected:
  // A search of the given scope (folder names of the local service) and rule.
  int Make(const char* name, const std::vector<std::string>& folders, const char* rule) {
    std::vector<std::string> canonical;
    for (const std::string& f : folders) canonical.push_back(MM_FolCanonNameBuild(local_, f.c_str()));
    const int id = SRCH_AddSearch(kOptPermanent, name);
    EXPECT_NE(id, 0);
    EXPECT_TRUE(SRCH_AddRuleByName(kOptSession, "IMAP", (std::string(name) + "Rule").c_str(), rule, "Message"));
    EXPECT_TRUE(searchSaveSelectedFoldersByID(id, canonical));
    EXPECT_TRUE(searchSaveSelectedRules(id, {std::string(name) + "Rule"}));
    return id;
  }
  std::string Expanded(int id) {
    std::vector<SrchFolderRef> out;
    std::string text;
    searchExpandSelectedFoldersByID(id, searchGetSelectedFoldersByID(id), &out);
    for (const SrchFolderRef& r : out) text += (text.empty() ? "" : " ") + r.name;
    return text;
  }
  // "Folder:msgno" of each line under holder, sorted.
  static std::string Found(TreeNode* holder) {
    std::vector<std::string> lines;
    for (TreeNode* k = TREE_GetFirstKid(holder); k; k = TREE_GetNext(k))
      if (MessageNodeInfo* m = MSG_Info(k))
        lines.push_back(std::string(MM_FolGetName(MM_UMIFolder(m->umi))) + ":" + std::to_string(MM_UMIMsgno(m->umi)));
    std::sort(lines.begin(), lines.end());
    std::string out;
    for (const std::string& l : lines) out += (out.empty() ? "" : " ") + l;
    return out;
  }
};

TEST_F(SavedSearch, ScopeExpansionEdgeCases) {
  MakeFolder("inbox", 1);
  MakeFolder("Kept", 1);
  MakeFolder("Plain", 1);
  MakeFolder("Top", 1);
  MakeFolder("Top\\Sub", 1);
  ASSERT_EQ(MM_FolSubscribe(local_, "Kept", 1), 1);
  ASSERT_EQ(MM_FolSubscribe(local_, "Top", 1), 1);
  ASSERT_EQ(MM_FolSubscribe(local_, "Top\\Sub", 1), 1);
  MM_FolSubscribe(local_, "Plain", 0);
  MM_FolSubscribe(local_, "inbox", 0);
  const int id = Make("S", {"Plain", "inbox", "Kept", "Top"}, "ALL");
  // Subscribed only: the unsubscribed folder goes, the inbox never does.
  EXPECT_EQ(Expanded(id), "inbox Kept Top");
  searchSetOption(id, "SubscribedOnly", "0");
  EXPECT_EQ(Expanded(id), "Plain inbox Kept Top");
  // A folder stands for its subtree.
  searchSetOption(id, "Hierarchy", "1");
  EXPECT_EQ(Expanded(id), "Plain inbox Kept Top Top\\Sub");
  // Numbers that name no folder, and folders gone from disk, are passed over.
  searchSetOption(id, "Scope", "99 " + searchGetOption(id, "Scope") + " 0 x");
  ASSERT_EQ(MM_FolDelete(local_, "Kept"), 1);
  EXPECT_EQ(Expanded(id), "Plain inbox Top Top\\Sub");
  EXPECT_EQ(searchGetSelectedFoldersByID(id).size(), 4u);
}

TEST_F(SavedSearch, TwoFoldersShownAndFollowingNewMail) {
  MakeFolder("Work", 4);
  MakeFolder("Home", 3);
  for (const char* f : {"Work", "Home"}) ASSERT_EQ(MM_FolSubscribe(local_, f, 1), 1);
  Make("Ones", {"Work", "Home"}, "SUBJECT \"message 1\"");
  Run([&] {
    TreeNode* root = TREE_GetRoot(tree_);
    ASSERT_EQ(searchAppendNodes(root), 1);
    TreeNode* node = searchFindNode(root, searchFindByName("Ones"));
    ASSERT_NE(node, nullptr);
    xvt_test_clear_posts();
    ASSERT_EQ(searchHandleNodeEvent(tree_, node, kNodeEventDoubleClick), kNodeActionOk);
    EXPECT_EQ(Found(node), "Home:1 Work:1");
    EXPECT_EQ(searchLineText(node), "Ones (2 msgs)");
    // New mail that the rule finds comes in at the next tick; other mail does not.
    Append("Home", Numbered(10));
    Append("Work", Numbered(7));
    MSG_MailTimerTick();
    EXPECT_EQ(Found(node), "Home:1 Home:4 Work:1");
    // A flag set elsewhere shows on the line and in the count.
    SearchInfo* s = SRCH_NodeInfo(node);
    EXPECT_EQ(s->unread, 3);
    const UMI first = MSG_Info(TREE_GetFirstKid(node))->umi;
    ASSERT_TRUE(MM_MsgSetFlag(first, "\\Seen"));
    EXPECT_EQ(s->unread, 2);
    // Closing lets the folders go.
    searchClose(s->id);
    EXPECT_EQ(Found(node), "");
    EXPECT_TRUE(s->run.folders.empty());

    // Its folders all deleted, it opens empty and says so.
    for (const char* f : {"Work", "Home"}) ASSERT_EQ(MM_FolDelete(local_, f), 1);
    xvt_test_clear_posts();
    ASSERT_EQ(searchHandleNodeEvent(tree_, node, kNodeEventDoubleClick), kNodeActionOk);
    EXPECT_EQ(Found(node), "");
    EXPECT_NE(Posts().find("note: Search contains no messages."), std::string::npos) << Posts();
  });
}

// Memory runs short while the lines are made: the search shows what it
// made, says so, and marks itself as cut short.
TEST_F(SavedSearch, LowMemoryCutsTheLoadShort) {
  MakeFolder("Box", nodestest::EighthIsLong());
  ASSERT_EQ(MM_FolSubscribe(local_, "Box", 1), 1);
  Make("Short", {"Box"}, "ALL");
  Run([&] {
    searchAppendNodes(TREE_GetRoot(tree_));
    TreeNode* node = TREE_GetFirstKid(TREE_GetRoot(tree_));
    nodestest::ShortOfMemoryAtTheEighth([&] { searchHandleNodeEvent(tree_, node, kNodeEventDoubleClick); });
    SearchInfo* s = SRCH_NodeInfo(node);
    EXPECT_EQ(s->count, 8);  // the record that met the shortage is kept
    EXPECT_TRUE(s->flags & kSearchLowMemory);
    EXPECT_NE(Posts().find("progress: Opening Short: Aborting search load due to low application memory"), std::string::npos) << Posts();
    EXPECT_NE(Posts().find("note: Due to memory constraints only part of the messages \nfor search \"Short\" were loaded."),
              std::string::npos)
        << Posts();
  });
}

TEST_F(SavedSearch, DeleteAsksAndRemoves) {
  MakeFolder("Box", 3);
  ASSERT_EQ(MM_FolSubscribe(local_, "Box", 1), 1);
  struct Case {
    const char* rule;
    ASK_RESPONSE answer;
    const char* asked;
    bool search_stays;
    int deleted_messages;
  };
  const Case cases[] = {
      {"ALL", RESP_3, "Delete all messages or delete Search \"S\"?", true, 0},
      {"ALL", RESP_DEFAULT, "Delete all messages or delete Search \"S\"?", true, 3},
      {"ALL", RESP_2, "Delete all messages or delete Search \"S\"?", false, 0},
      {"SUBJECT \"none\"", RESP_2, "Delete Search \"S\"?", true, 0},  // Cancel
      {"SUBJECT \"none\"", RESP_DEFAULT, "Delete Search \"S\"?", false, 0},
  };
  for (const Case& c : cases) {
    Run([&] {
      const int id = Make("S", {"Box"}, c.rule);
      TreeNode* root = TREE_GetRoot(tree_);
      searchAppendNodes(root);
      TreeNode* node = searchFindNode(root, id);
      ASSERT_NE(node, nullptr);
      searchHandleNodeEvent(tree_, node, kNodeEventDoubleClick);
      xvt_test_clear_posts();
      xvt_test_push_answer(c.answer);
      searchDelete(node);
      EXPECT_EQ(nodestest::Asked(), c.asked) << c.rule;
      EXPECT_EQ(searchFindByName("S") != 0, c.search_stays) << c.rule;
      EXPECT_EQ(searchFindNode(root, id) != nullptr, c.search_stays) << c.rule;
      if (!c.search_stays) {
        EXPECT_EQ(Opt_LookupText(searchGetOptionName(id, "Name").c_str(), kOptSession), "");
        std::string rule;
        EXPECT_FALSE(SRCH_GetRuleByName("IMAP", "SRule", &rule, nullptr)) << "the search's own rule goes with it";
      }
      const int box = MM_FolOpen(local_, "Box");
      int deleted = 0;
      for (unsigned long n = 1; n <= 3; ++n) {
        deleted += MM_MsgIsDeleted(MM_UMIFromMsgno(box, n)) ? 1 : 0;
        MM_MsgClearFlag(MM_UMIFromMsgno(box, n), "\\Deleted");
      }
      EXPECT_EQ(deleted, c.deleted_messages) << c.rule;
      MM_FolClose(box, 0);
      searchDeleteOptions(searchFindByName("S"));
      TREE_RemoveKidNodes(root);
    });
  }
}

TEST_F(SavedSearch, OptionsWrittenAndFolderTableFollowsRenames) {
  MakeFolder("Box", 1);
  const int id = Make("Kept", {"Box"}, "ALL");
  const int session = SRCH_AddSearch(kOptSession, "Passing");
  ASSERT_NE(session, 0);
  EXPECT_EQ(SRCH_AddSearch(kOptSession, "Kept"), id) << "an old name finds its search";
  EXPECT_EQ(searchGetOptionLevel(id), kOptPermanent);
  EXPECT_EQ(searchGetOptionLevel(session), kOptSession);
  ASSERT_EQ(Opt_Save(), 1);
  const std::string file = ReadFile(home_ + "/default.tcl");
  const std::vector<std::string> lines = {"option MsgSearch.IMAP.IDList \"" + std::to_string(id) + "\"",
                                          "option MsgSearch.IMAP.1.Name \"Kept\"",
                                          "option MsgSearch.IMAP.1.Sort \"Most Recent Arrival\"",
                                          "option MsgSearch.IMAP.1.SubscribedOnly \"1\"",
                                          "option MsgSearch.IMAP.1.Scope \"1\"",
                                          "option FolderID.1.Name \"Box\""};
  for (const std::string& line : lines)
    EXPECT_NE(file.find(line + "\n"), std::string::npos) << line << "\n" << file;
  EXPECT_EQ(file.find("Passing"), std::string::npos) << "a session search is not written";
  // The folder table follows a rename, and a deleted folder leaves the scope.
  foloptRenameFolder(local_, "Box", local_, "Crate");
  EXPECT_EQ(searchGetSelectedFoldersByID(id), std::vector<std::string>{"Local!Crate"});
  foloptDeleteFolder(local_, "Crate");
  EXPECT_EQ(searchGetOption(id, "Scope"), "");
  // A rule deleted leaves the search, and its number given out again does not join it.
  ASSERT_TRUE(SRCH_DeleteRuleByName("IMAP", "KeptRule"));
  ASSERT_TRUE(SRCH_AddRuleByName(kOptSession, "IMAP", "Later", "ALL", "Message"));
  EXPECT_EQ(searchGetSelectedRules(id), std::vector<std::string>{});
  EXPECT_EQ(searchRename(id, "Passing"), 0);
  EXPECT_EQ(searchRename(id, "Other"), 1);
  EXPECT_EQ(searchGetName(id), "Other");
}

}  // namespace
