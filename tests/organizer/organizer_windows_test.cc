// The organizer windows on the headless toolkit over MH folders: the top
// window's tree, the commands and their menu states for each kind of
// selection, windows of their own for a folder, the mail timer, and the
// saved desktop with its window geometry.
#include <gtest/gtest.h>
#include <strings.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "src/base/critical.h"
#include "src/options/font_options.h"
#include "src/options/options.h"
#include "src/organizer/desktop.h"
#include "src/organizer/msgwin.h"
#include "src/search/saved_search.h"
#include "src/search/search_dialog.h"
#include "src/search/search_rules.h"
#include "src/organizer/nodes.h"
#include "src/organizer/organizer.h"
#include "src/viewer/viewer_internal.h"
#include "tests/organizer/nodes_fixture.h"

namespace {

class OrganizerWindowsTest : public nodestest::TopWindowTest {
 protected:
  void SetUp() override {
    TopWindowTest::SetUp();
    Subscribed({{"mail", 3}, {"work", 2}, {"zoo", 1}});
  }

  static TreeNode* Service() { return TREE_GetFirstKid(TREE_GetRoot(Top()->tree)); }
  static TreeNode* Folder(const char* name) {
    TREE_OpenSubtree(Service(), 1, 0);
    TreeNode* holder = TREE_GetElsewhereRoot(Service()) ? TREE_GetElsewhereRoot(Service()) : Service();
    for (TreeNode* k = TREE_GetFirstKid(holder); k; k = TREE_GetNext(k))
      if (FOL_Info(k) && strcasecmp(FOL_Info(k)->name.c_str(), name) == 0) return k;
    ADD_FAILURE() << "no folder " << name;
    return nullptr;
  }
  // The folder open in the top tree, its message lines in order.
  static std::vector<TreeNode*> Messages(const char* name) {
    TreeNode* f = Folder(name);
    TREE_OpenSubtree(f, 1, 0);
    std::vector<TreeNode*> out;
    Collect(f, &out);
    return out;
  }
  // Message lines lie under the folder, or under its groups.
  static void Collect(TreeNode* node, std::vector<TreeNode*>* out) {
    for (TreeNode* k = TREE_GetFirstKid(node); k; k = TREE_GetNext(k)) {
      if (MSG_Info(k)) out->push_back(k);
      if (GRP_Info(k)) {
        TREE_OpenSubtree(k, 1, 0);
        Collect(k, out);
      }
    }
  }
  static void Key(WINDOW win, int ch, bool control = false) { xvt_test_key(win, ch, false, control); }
  static void Command(MsgWinInfo* info, int tag) {
    EVENT ev{};
    ev.type = E_COMMAND;
    ev.v.cmd.tag = tag;
    xvt_win_dispatch_event(info->window, &ev);
  }
  // The enabled ones among the commands, by number.
  static std::string Enabled(WINDOW win) {
    std::string out;
    for (int c : std::initializer_list<int>{M_MSG_CLOSE, M_MSG_DELETE, M_MSG_OPEN_WINDOW, M_MSG_CLEAN, M_MSG_SUBSCRIBE, M_MSG_NEXT,
                  M_MSG_REPLY, M_MSG_UNDELETE, M_MSG_COPY, M_MSG_MOVE, M_MSG_EXTRACT, M_MSG_NEW_SEARCH,
                  M_MSG_NEW_FOLDER, M_MSG_MARK_SEEN, M_MSG_SAVE, 32008})
      if (xvt_menu_get_item_enabled(win, c)) out += (out.empty() ? "" : " ") + std::to_string(c);
    return out;
  }
  // Picks the folder named `name` in the next folder prompt.
  static void AnswerPrompt(const std::string& name) {
    xvt_test_push_dialog(kFolderPromptDialog, [name](WINDOW dlg) {
      WINDOW list = xvt_win_get_ctl(dlg, kFolderPromptList);
      char buf[200];
      for (int i = 0; i < xvt_list_count_all(list); ++i)
        if (std::string(xvt_list_get_elt(list, i, buf, sizeof buf)) == "Local: " + name) xvt_test_select(dlg, kFolderPromptList, i);
      xvt_test_click(dlg, 1);
    });
  }
};

// New Search opens the search dialog on the folders selected.
TEST_F(OrganizerWindowsTest, NewSearchSearchesTheSelectedFolders) {
  std::string folders;
  xvt_test_push_dialog(kSearchDialogRid, [&](WINDOW d) {
    folders = Title(xvt_win_get_ctl(d, kSearchFolders));
    xvt_test_click(d, kSearchClose);
  });
  Run([&] {
    TREE_SelectOnlyNode(Folder("work"));
    TREE_SelectNode(Folder("mail"), 1);
    Command(Top(), M_MSG_NEW_SEARCH);
  });
  EXPECT_EQ(folders, "Folders: work mail");
}

TEST_F(OrganizerWindowsTest, MenuStatesFollowTheKindOfSelection) {
  struct Case {
    const char* what;
    std::function<void()> select;
    const char* enabled;
  };
  // Reply needs exactly one message and a search a folder; extract stays greyed; print needs a message.
  const std::vector<Case> cases = {
      {"nothing", [] { TREE_ClearSelections(Top()->tree); }, "14104"},
      {"service", [] { TREE_SelectOnlyNode(Service()); }, "14104 14105 14106 20007"},
      {"folder", [] { TREE_SelectOnlyNode(Folder("work")); }, "14104 14105 14106 14501 14504 14613 20003 20007"},
      {"message", [] { TREE_SelectOnlyNode(Messages("mail")[0]); },
       "14104 14105 14601 14603 14608 14612 14613 20007 20401 20501 32008"},
      {"two messages",
       [] {
         auto m = Messages("mail");
         TREE_SelectOnlyNode(m[0]);
         TREE_SelectNode(m[1], 1);
       },
       "14104 14105 14601 14608 14612 14613 20401 32008"},
      {"folder and message",
       [] {
         TREE_SelectOnlyNode(Messages("mail")[0]);
         TREE_SelectNode(Folder("work"), 1);
       },
       "14104 14105 14501 14601 14608 14612 14613 20003 20401 32008"},
  };
  Run([&] {
    for (const Case& c : cases) {
      c.select();
      EXPECT_EQ(Enabled(Top()->window), c.enabled) << c.what;
    }
  });
}

TEST_F(OrganizerWindowsTest, CommandsReachTheSelectedLines) {
  Run([&] {
    auto m = Messages("mail");
    ASSERT_EQ(m.size(), 3u);
    const UMI first = MSG_Info(m[0])->umi;
    const UMI second = MSG_Info(m[1])->umi;
    TREE_SelectOnlyNode(m[0]);
    // Mark Read flips by the state of the first selected message.
    Command(Top(), M_MSG_MARK_SEEN);
    EXPECT_TRUE(MM_MsgIsRead(first));
    Command(Top(), M_MSG_MARK_SEEN);
    EXPECT_FALSE(MM_MsgIsRead(first));
    // The Delete key marks the message and steps to the next line.
    Key(Top()->window, K_DEL);
    EXPECT_TRUE(MM_MsgIsDeleted(first));
    TreeNode* now = TREE_FirstSelection(Top()->tree);
    ASSERT_NE(MSG_Info(now), nullptr);
    EXPECT_EQ(MSG_Info(now)->umi, second);
    // Undelete on the first again; then the step goes backwards once the option says so.
    TREE_SelectOnlyNode(MSG_FindMessage(Folder("mail"), first));
    Command(Top(), M_MSG_UNDELETE);
    EXPECT_FALSE(MM_MsgIsDeleted(first));
    Command(Top(), M_MSG_ACTION_DELETE);
    EXPECT_EQ(Opt_LookupText("General.ActionDelete", kOptPermanent), "Previous");
    TREE_SelectOnlyNode(MSG_FindMessage(Folder("mail"), second));
    Key(Top()->window, K_DEL);
    EXPECT_TRUE(MM_MsgIsDeleted(second));
    now = TREE_FirstSelection(Top()->tree);
    ASSERT_NE(MSG_Info(now), nullptr);
    EXPECT_EQ(MSG_Info(now)->umi, first);
    // Copy to the folder picked in the prompt.
    AnswerPrompt("work");
    Command(Top(), M_MSG_COPY);
    EXPECT_EQ(CountOnDisk("work"), 3);
    // Subscribe on a folder unsubscribes it when it is subscribed.
    TREE_SelectOnlyNode(Folder("zoo"));
    Command(Top(), M_MSG_SUBSCRIBE);
    EXPECT_FALSE(MM_MSFolIsSubscribed(local_, "zoo"));
    // New Folder under the service.
    TREE_SelectOnlyNode(Service());
    xvt_test_push_text("fresh");
    Command(Top(), M_MSG_NEW_FOLDER);
    EXPECT_TRUE(MM_FolExists(local_, "fresh"));
    // A command greyed for the selection does nothing when it comes anyway.
    TREE_SelectOnlyNode(Service());
    xvt_test_clear_posts();
    Command(Top(), M_MSG_COPY);
    EXPECT_EQ(Posts(), "");
  });
}

TEST_F(OrganizerWindowsTest, MovingAFolderOntoItselfIsRefused) {
  Run([&] {
    TREE_SelectOnlyNode(Folder("work"));
    xvt_test_push_answer(RESP_DEFAULT);  // to another folder
    AnswerPrompt("work");
    Command(Top(), M_MSG_MOVE);
    EXPECT_NE(Posts().find("Using the same folder in the same message service is not allowed"), std::string::npos)
        << Posts();
    EXPECT_EQ(CountOnDisk("work"), 2);
  });
}

TEST_F(OrganizerWindowsTest, DeleteWhileADeleteDialogIsUpDoesNothing) {
  int asks = 0;
  Run([&] {
    TREE_SelectOnlyNode(Folder("work"));
    // The question of the first Delete comes unanswered; while it is up the
    // user presses Delete again.
    xvt_test_set_unexpected_handler([&](const XvtPost& p) {
      if (p.kind != "ask") return;
      if (++asks == 1) Key(Top()->window, K_DEL);
    });
    Key(Top()->window, K_DEL);
  });
  EXPECT_EQ(asks, 1);
  EXPECT_EQ(CountOnDisk("work"), 2);
}

TEST_F(OrganizerWindowsTest, TypeAheadMovesToTheNextFolderOfThatLetter) {
  struct Case {
    const char* from;
    int key;
    const char* to;
  };
  const std::vector<Case> cases = {
      {"mail", 'w', "work"}, {"work", 'z', "zoo"}, {"zoo", 'z', "zoo"},  // no other: stays
      {"zoo", 'w', "work"},   // a letter before the selected one starts over, inbox skipped
      {"work", 'q', "work"},
  };
  Run([&] {
    for (const Case& c : cases) {
      TREE_SelectOnlyNode(Folder(c.from));
      Key(Top()->window, c.key);
      EXPECT_EQ(TREE_FirstSelection(Top()->tree), Folder(c.to)) << c.from << " " << char(c.key);
    }
  });
}

TEST_F(OrganizerWindowsTest, MailTimerRetriesEverySecondInsideACriticalSection) {
  struct Case {
    const char* where;
    bool in_window;
  };
  for (const Case& c : std::vector<Case>{{"tree", false}, {"window", true}}) {
    Run([&] {
      TreeNode* work = Folder("work");
      TREE_OpenSubtree(work, 1, 0);
      if (c.in_window) {
        ASSERT_NE(MSG_OpenNodeWindow(work), NULL_WIN);
      }
      EXPECT_EQ(MSG_MailTimerPeriod(), kDefaultMailPeriodMs) << c.where;
      const size_t before = FOL_Info(work)->index.Size();
      Append("work", Numbered(9));
      // A tick inside a critical section checks nothing and comes back in a second.
      WIN_start_critical();
      xvt_test_advance_ms(kDefaultMailPeriodMs);
      EXPECT_EQ(MSG_MailTimerPeriod(), kMailRetryMs) << c.where;
      EXPECT_EQ(FOL_Info(work)->index.Size(), before) << c.where;
      WIN_end_critical();
      // The first free tick checks and restores the period.
      xvt_test_advance_ms(kMailRetryMs);
      EXPECT_EQ(MSG_MailTimerPeriod(), kDefaultMailPeriodMs) << c.where;
      EXPECT_EQ(FOL_Info(work)->index.Size(), before + 1) << c.where;
    });
  }
}

TEST_F(OrganizerWindowsTest, GeometryFromABiggerScreenIsBroughtOntoTheScreen) {
  struct Case {
    const char* saved;
    int screen_w, screen_h;
    RCT expect;
  };
  // The screen of the last run was 1920 x 1200.
  const std::vector<Case> cases = {
      {"100 100 600 500 Norm", 1024, 768, {100, 100, 600, 500}},  // fits: unchanged
      {"100 100 1800 1100 Norm", 1024, 768, {0, 0, 1024, 768}},   // shrunk, then kept whole on the screen
      {"1500 900 1900 1150 Norm", 1024, 768, {624, 518, 1024, 768}},
      {"-50 -20 400 300 Norm", 1920, 1200, {0, 0, 450, 320}},  // never off the top left
  };
  for (const Case& c : cases) {
    xvt_test_set_screen_size(c.screen_w, c.screen_h);
    Opt_AssignString("Windows.ScreenWin.Border", "0 0 1920 1200 0 78", kOptPermanent, 0);
    Opt_AssignString("WinPosn.TopMS.Border", c.saved, kOptPermanent, 0);
    Opt_Delete("General.MsgOrgWinResized");
    Run([&] {
      compareScreenSize();
      RCT r{};
      xvt_vobj_get_outer_rect(MSG_TopWindow(), &r);
      EXPECT_EQ(std::tie(r.left, r.top, r.right, r.bottom),
                std::tie(c.expect.left, c.expect.top, c.expect.right, c.expect.bottom))
          << c.saved;
    });
    xvt_test_reset();
    xvt_test_set_unexpected_handler([this](const XvtPost& p) { unexpected_.push_back(p.kind + ": " + p.text); });
  }
}

TEST_F(OrganizerWindowsTest, GeometryIsSavedWithTheFrameState) {
  Run([&] {
    const RCT r{20, 30, 520, 430};
    xvt_vobj_move(MSG_TopWindow(), &r);
    xvt_vobj_set_attr(MSG_TopWindow(), ATTR_WIN_MAXIMIZED, 1);
    closeMessageWindow(MSG_TopWindow());
  });
  EXPECT_EQ(Opt_LookupText("WinPosn.TopMS.Border", kOptSession), "20 30 520 430 Max");
  Run([&] {
    EXPECT_EQ(xvt_vobj_get_attr(MSG_TopWindow(), ATTR_WIN_MAXIMIZED), 1);
  });
}

// A folder window takes the folder's lines from the tree. Flags changed
// while it shows reach its lines and the folder's counts, whoever changes
// them: the model, or a viewer that marks what it shows read. Ctrl+W
// closes it with the folder, and the folder's line stays.
TEST_F(OrganizerWindowsTest, AFolderWindowTakesTheLinesFollowsTheirFlagsAndGivesThemBack) {
  Run([&] {
    TreeNode* work = Folder("work");
    TREE_SelectOnlyNode(work);
    Command(Top(), M_MSG_OPEN_WINDOW);
    WINDOW win = MSG_NodeWindow(work);
    ASSERT_NE(win, NULL_WIN);
    EXPECT_EQ(Title(win), "work - Local");
    EXPECT_TRUE(TREE_IsOpenElsewhere(work));
    EXPECT_EQ(TREE_GetFirstKid(work), nullptr);
    const int folder = FOL_Info(work)->folder_id;
    const UMI first = MM_UMIFromMsgno(folder, 1), second = MM_UMIFromMsgno(folder, 2);
    struct Step {
      const char* what;
      std::function<void()> change;
      const char* marks;  // each row's mark, in the window's order
      long unread;
    } steps[] = {
        {"as opened", [] {}, "unread unread", 2},
        {"read in a viewer", [&] { spawnViewer(first, work); }, "unread -", 1},
        {"deleted", [&] { MM_MsgSetFlag(second, "\\Deleted"); }, "deleted -", 1},
        {"marked unread again", [&] { MM_MsgClearFlag(first, "\\Seen"); }, "deleted unread", 2},
    };
    for (const Step& step : steps) {
      step.change();
      std::string rows, marks;
      MSG_DescribeTree(MSG_WinInfo(win)->tree, &rows);
      std::istringstream lines(rows);
      for (std::string line; std::getline(lines, line);) {
        const size_t open = line.rfind(" [");
        marks += (marks.empty() ? "" : " ") +
                 (open == std::string::npos ? std::string("-")
                                            : line.substr(open + 2, line.size() - open - 3));
      }
      EXPECT_EQ(marks, step.marks) << step.what << "\n" << rows;
      EXPECT_NE(rows.find("message 2"), std::string::npos) << rows;
      EXPECT_EQ(FOL_Info(work)->unread, step.unread) << step.what;
    }
    while (WINDOW v = viewerFindAny()) xvt_vobj_destroy(v);
    Key(win, 'w', true);
    EXPECT_FALSE(xvt_vobj_is_valid(win));
    EXPECT_FALSE(TREE_IsOpenElsewhere(work));
    EXPECT_EQ(FOL_Info(work)->folder_id, INVALID_FOLDER);
    EXPECT_EQ(MSG_ContextWindows().size(), 0u);
  });
}

TEST_F(OrganizerWindowsTest, DesktopReloadSkipsWhatHasGoneAndSavesWhatIsOpen) {
  const char* records[][4] = {
      {"1", "", "0", "EXPAND"},
      {"1", "gone", "0", "OPEN"},
      {"7", "", "0", "EXPAND"},  // a service that is not there either
      {"1", "work", "0", "OPEN"},
      {"1", "zoo", "0", "EXPAND"},
      {"999", "", "0", "DONE"},
  };
  int n = 1;
  for (auto& r : records) {
    const std::string k = "SaveMsg." + std::to_string(n++) + ".";
    const char* fields[] = {"ms", "folder", "group", "state"};
    for (int f = 0; f < 4; ++f) Opt_AssignString((k + fields[f]).c_str(), r[f], kOptPermanent, 0);
  }
  Run([&] {
    EXPECT_TRUE(TREE_IsOpen(Service()));
    ASSERT_EQ(MSG_ContextWindows().size(), 1u);
    EXPECT_EQ(MSG_NodeWindow(folderFind(Service(), "work")), MSG_ContextWindows()[0]);
    EXPECT_TRUE(TREE_IsOpen(folderFind(Service(), "zoo")));
    EXPECT_EQ(Posts().find("error"), std::string::npos) << Posts();
    saveMsgWinsContents(0);
  });
  EXPECT_NE(Opt_LookupText("WinPosn.Folder.Border", kOptSession), "");  // the folder window's place
  // What was open is written back in tree order, the gone lines left out.
  std::string saved;
  SavedNode r;
  for (int i = 1; readSavedNode(i, &r); ++i)
    saved += std::to_string(r.ms) + ":" + r.folder + ":" + std::to_string(r.state) + " ";
  EXPECT_EQ(saved, "1::2 1:work:3 1:zoo:2 999::4 ");
}

// A saved search's window comes back at its own place at the next start;
// one of a search deleted since, or a record spoiled in the file, does not.
TEST_F(OrganizerWindowsTest, SearchWindowsComeBackWhereTheyStood) {
  const int id = SRCH_AddSearch(kOptPermanent, "Firsts of mail");
  ASSERT_NE(id, 0);
  ASSERT_TRUE(SRCH_AddRuleByName(kOptSession, "IMAP", "Ones", "SUBJECT \"message 1\"", "Message"));
  ASSERT_TRUE(searchSaveSelectedRules(id, {"Ones"}));
  ASSERT_TRUE(searchSaveSelectedFoldersByID(id, {MM_FolCanonNameBuild(local_, "mail")}));
  const char* records[] = {"40 60 440 360 Norm Gone search", "50 70 450 370 Norm Firsts of mail",
                           "1 2 3 Norm Firsts of mail"};
  for (int n = 1; n <= 3; ++n)
    Opt_AssignString(("SaveMsg.Search." + std::to_string(n)).c_str(), records[n - 1], kOptPermanent, 0);
  Run([&] {
    ASSERT_EQ(MSG_ContextWindows().size(), 1u) << Posts();
    WINDOW w = MSG_ContextWindows()[0];
    EXPECT_EQ(MSG_WinInfo(w)->search, id);
    RCT r{};
    xvt_vobj_get_outer_rect(w, &r);
    EXPECT_EQ(std::make_tuple(r.left, r.top, r.right, r.bottom), std::make_tuple(50, 70, 450, 370));
    const RCT moved{80, 90, 500, 400};
    xvt_vobj_move(w, &moved);
    saveMsgWinsContents(0);
  });
  SavedSearchWindow w;
  ASSERT_TRUE(readSavedSearchWindow(1, &w));
  EXPECT_EQ(std::make_tuple(w.rect.left, w.rect.top, w.rect.right, w.rect.bottom, w.state, w.name),
            std::make_tuple(80, 90, 500, 400, std::string("Norm"), std::string("Firsts of mail")));
  EXPECT_FALSE(readSavedSearchWindow(2, &w));
}

TEST_F(OrganizerWindowsTest, ANewFontRedrawsTheTreeInIt) {
  struct Case {
    int kind;
    const char* drawn;  // a text drawn in the new face; null: no redraw
  };
  const Case cases[] = {{kFontService, "Local"}, {kFontNormalPriority, "message 1"}, {kFontViewerText, nullptr}};
  Run([&] {
    Messages("mail");
    WINDOW tree = Top()->tree;
    for (const Case& c : cases) {
      SCOPED_TRACE(Font_KindName(c.kind));
      xvt_test_paint(tree);
      xvt_test_clear_damage(tree);
      Font_Assign(c.kind, FontChoice{"Courier", 15, XVT_FS_ITALIC}, kOptPermanent);
      ModelEvent* ev = MM_NotEventNew(E_FONT_CHANGED);
      ev->value = c.kind;
      MM_NotEventPost(ev);
      MM_NotEventFree(ev);
      EXPECT_EQ(xvt_test_damage(tree).empty(), c.drawn == nullptr);
      std::string in_face;
      for (const XvtDrawOp& op : xvt_test_paint(tree))
        if (op.op == "text" && op.font == "Courier 15 2") in_face += op.text + ";";
      if (c.drawn) {
        EXPECT_NE(in_face.find(c.drawn), std::string::npos) << in_face;
      }
    }
  });
}

TEST_F(OrganizerWindowsTest, ServiceListsAreReadWithBlanksOrCommas) {
  const std::pair<const char*, int> lists[] = {{"", 0}, {"1", 1}, {"1,1", 1}, {"x 1", 1}, {"-1 0", 0}};
  for (const auto& entry : lists) {
    const char* list = entry.first;
    const int services = entry.second;
    Opt_AssignString("MsgService.IDList", list, kOptSession, 0);
    Run([&] {
      int n = 0;
      for (TreeNode* k = TREE_GetFirstKid(TREE_GetRoot(Top()->tree)); k; k = TREE_GetNext(k)) n += SVC_Info(k) != nullptr;
      EXPECT_EQ(n, services) << "\"" << list << "\"";
    });
  }
}

TEST_F(OrganizerWindowsTest, SavedStateWordsReadBack) {
  const std::pair<const char*, int> words[] = {{"COLLAPSE", 1}, {"EXPAND", 2}, {"OPEN", 3},
                                               {"DONE", 4},     {"open", 0},   {"", 0}};
  for (auto& [word, state] : words) EXPECT_EQ(SaveMsgStateFromWord(word), state) << word;
}

TEST_F(OrganizerWindowsTest, ForgettingTheDesktopTakesBothSpellingsOfTheGeometryKeys) {
  const std::pair<const char*, const char*> keys[] = {
      {"WinPosn.TopMS.Border", ""}, {"Winposn.Viewer.Border", ""}, {"SaveMsg.1.ms", ""},
      {"Desktop.x", ""},            {"General.Keep", "1"}};
  for (const auto& [key, after] : keys) Opt_AssignString(key, "1", kOptPermanent, 0);
  DesktopForget();
  for (const auto& [key, after] : keys) EXPECT_EQ(Opt_LookupText(key, kOptSession), after) << key;
}

// Folder > Sort By puts the lines in the chosen order where they are, in the
// tree or in the folder's window, checks the order in the menu and keeps it;
// Mark All Read reads the same folder's lines.
TEST_F(OrganizerWindowsTest, SortByReordersTheLinesWhereTheyAreAndKeepsTheOrder) {
  Run([&] {
    auto first = [](TreeNode* holder) {
      std::string out;
      for (TreeNode* k = TREE_GetFirstKid(holder); k && out.size() < 5; k = TREE_GetNext(k))
        if (MessageNodeInfo* m = MSG_Info(k)) out += std::to_string(MM_UMIMsgno(m->umi)) + " ";
      return out;
    };
    TreeNode* mail = Folder("mail");
    TREE_OpenSubtree(mail, 1, 0);
    TREE_SelectOnlyNode(mail);
    EXPECT_EQ(first(mail), "3 2 1 ");
    Command(Top(), M_MSG_SORT_FIRST + kSortLeastRecentArrival);
    EXPECT_EQ(first(mail), "1 2 3 ");
    EXPECT_TRUE(xvt_menu_get_item_checked(Top()->window, M_MSG_SORT_FIRST + kSortLeastRecentArrival));
    EXPECT_EQ(Opt_LookupText("Folder.1.mail.Sort", kOptPermanent), "Least Recent Arrival");
    ASSERT_GT(FOL_Info(mail)->unread, 0);
    Command(Top(), M_MSG_MARK_ALL_READ);  // the same folder in question
    EXPECT_EQ(FOL_Info(mail)->unread, 0);
    Command(Top(), M_MSG_OPEN_WINDOW);
    Command(MSG_WinInfo(MSG_NodeWindow(mail)), M_MSG_SORT_FIRST + kSortRecentArrival);
    EXPECT_EQ(first(TREE_GetElsewhereRoot(mail)), "3 2 1 ");
  });
}

}  // namespace
