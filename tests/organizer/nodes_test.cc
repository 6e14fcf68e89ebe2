// Folder, message and group nodes over MH folders: the texts and orders of
// message lines, a folder opened in every order, and the tree following
// new mail, expunges, flags and groups through the model's events.
#include <gtest/gtest.h>

#include <functional>
#include <unordered_map>

#include "src/base/critical.h"
#include "src/base/fs.h"
#include "src/options/options.h"
#include "src/organizer/columns.h"
#include "src/organizer/node_draw.h"
#include "src/search/search_rules.h"
#include "src/search/search_run.h"
#include "xvt/xvt_test.h"
#include "tests/organizer/nodes_fixture.h"

namespace nodestest {
namespace {

// --- Texts and comparisons ---------------------------------------------------

TEST(MessageTexts, SizeSubjectDateAndSortNames) {
  const std::pair<unsigned long, const char*> sizes[] = {
      {0, "0"}, {9999, "9999"}, {10000, "10 K"}, {1500000, "1500 K"}, {5000000, "5000 K"}};
  for (const auto& [size, text] : sizes) EXPECT_EQ(MSG_SizeText(size), text) << size;

  struct Subjects {
    const char *a, *b;
    int want;
  } subjects[] = {
      {"Re: re: Hello", "RE:Hello", 0}, {"RE:Hello", "hello", 0}, {"Re:Re: x", "x", 0},
      {"alpha", "beta", -1},            {nullptr, "a", 1},        {nullptr, nullptr, 0},
      {"Re x", "x", -1},  // no colon: not a prefix
      {"  \tre:  Beta", "beta", 0},
  };
  for (const Subjects& s : subjects)
    EXPECT_EQ(MSG_CompareSubjects(s.a, s.b), s.want) << (s.a ? s.a : "null") << " / " << (s.b ? s.b : "null");

  struct Dates {
    const char* date;
    const char* text;
  } dates[] = {
      {"Mon, 2 Nov 2026 10:05:00 +0000", "Nov  2 10:05 2026"},
      {"3 Jan 2025 03:00:00 +0500", "Jan  3  3:00 2025"},
      {"", ""},
  };
  for (const Dates& d : dates) EXPECT_EQ(MSG_DateText(d.date), d.text) << d.date;
  // In universal time: 03:00 +0500 is the day before at 22:00.
  EXPECT_LT(MSG_DateKey("3 Jan 2025 03:00:00 +0500"), MSG_DateKey("2 Jan 2025 23:00:00 +0000"));
  EXPECT_GT(MSG_DateKey("3 Jan 2025 03:00:00 +0500"), MSG_DateKey("2 Jan 2025 21:59:00 +0000"));
  EXPECT_EQ(MSG_DateKey(nullptr), kNoDate);
  EXPECT_GT(MSG_DateKey("garbage"), kNoDate);

  const std::pair<const char*, int> names[] = {
      {"subject", kSortSubject},          {"Most Recent Arrival", kSortRecentArrival},
      {"Size", kSortRecentArrival},       {"least recent date sent", kSortLeastRecentDate},
      {"conversation", kSortConversation}, {nullptr, kSortRecentArrival},
  };
  for (const auto& [name, order] : names) EXPECT_EQ(MSG_SortOrderFromName(name), order) << (name ? name : "null");
}

TEST(WildMatch, Table) {
  struct Case {
    const char *text, *pattern;
    bool want;
  } cases[] = {
      {"E-Mail", "*mail*|*post*", true},
      {"Postage", "*mail*|*post*", true},
      {"my mail", "mail", false},
      {"my mail", "*MAIL", true},
      {"abcb", "a*&*b", true},
      {"abc", "a*&*b", false},
      {"bab", "a*&*b", false},
      {"Hello", "h?llo", true},
      {"Hllo", "h?llo", false},
      {"cat", "[abc]at", true},
      {"Cat", "[abc]at", false},  // sets keep case
      {"dat", "[!abc]at", true},
      {"bat", "[^abc]at", false},
      {"m5", "m[0-9]", true},
      {"m", "m[0-9", false},  // unterminated set
      {"a*b", "a\\*b", true},
      {"axb", "a\\*b", false},
      {"xy", "x|xy", true},
      {"abc", "*?", true},
      {"", "*", true},
      {"", "?", false},
      {"ab", "*[b]", true},
      {"a\\", "*\\\\", true},
      {"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa", "*a*a*a*a*a*a*a*a*a*a*a*a*b", false},
  };
  for (const Case& c : cases) EXPECT_EQ(wildMatch(c.text, c.pattern), c.want) << c.text << " ~ " << c.pattern;
}

TEST(GroupRules, FieldsAliasesAndLimit) {
  GroupRule r;
  groupInitRule(&r, "recipient All", "*x*");
  ASSERT_EQ(r.field_count, 8);
  EXPECT_STREQ(r.fields[0], "To");
  EXPECT_STREQ(r.fields[1], "Cc");
  EXPECT_STREQ(r.fields[7], "In-Reply-To");
  groupInitRule(&r, "a b c d e f g h i j Eleventh", "p");
  EXPECT_EQ(r.field_count, 10);
  EXPECT_STREQ(r.fields[9], "j");
  EXPECT_EQ(groupGetOptionName(1, 3, "Box", kGroupMain, "Sort"), "MessageGroups.3.Box.main.Sort");
  EXPECT_EQ(groupGetOptionName(1, 3, "Box", kGroupDeleted, "Name"), "MessageGroups.3.Box.del.Name");
  EXPECT_EQ(groupGetOptionName(1, 3, "Box", 7, "Pattern"), "MessageGroups.3.Box.7.Pattern");
  EXPECT_EQ(groupGetOptionName(2, 4, nullptr, 0, "IDList"), "MsgSearch.IMAP.4.MessageGroups.IDList");
  EXPECT_EQ(groupGetOptionName(9, 4, nullptr, 0, "IDList"), "");
}

// The flat index against a map, through growth, wrap-around runs, erasures
// in the middle of runs, and UMIs of two folders that share their low bits.
TEST(UmiIndexTest, FollowsAMapThroughPutsAndErasures) {
  std::vector<MessageNodeInfo> infos(3000);
  std::vector<TreeNode*> nodes;
  std::unordered_map<UMI, TreeNode*> want;
  UmiIndex index;
  uint32_t rng = 12345;
  auto next = [&] { return rng = rng * 1103515245u + 12345u; };
  for (size_t i = 0; i < infos.size(); ++i) {
    // Half the UMIs repeat another's low 32 bits under a different folder.
    infos[i].umi = (i % 2 ? UMI{7} << 48 : UMI{3} << 48) | (1 + i / 2);
    nodes.push_back(TREE_NewNode(1, &infos[i], 21, nullptr, nullptr, nullptr));
  }
  for (int step = 0; step < 20000; ++step) {
    const size_t k = next() % infos.size();
    const UMI umi = infos[k].umi;
    switch (next() % 3) {
      case 0:
      case 1:
        index.Put(umi, nodes[k]);
        want[umi] = nodes[k];
        break;
      default:
        index.Erase(umi);
        want.erase(umi);
        break;
    }
    if (step % 97 == 0) {
      ASSERT_EQ(index.Size(), want.size()) << step;
      for (size_t j = 0; j < infos.size(); ++j) {
        auto it = want.find(infos[j].umi);
        ASSERT_EQ(index.Find(infos[j].umi), it == want.end() ? nullptr : it->second) << step << " " << j;
      }
    }
  }
  EXPECT_EQ(index.Lines().size(), want.size());
  EXPECT_EQ(index.Find(UMI{5} << 48 | 1), nullptr);  // same low bits, no such line
  index.Clear();
  EXPECT_EQ(index.Find(infos[0].umi), nullptr);
  for (TreeNode*& n : nodes) TREE_DestroyNode(n);
}

// --- A folder in the tree --------------------------------------------------------

// Four messages whose orders all differ. 3 answers 2 by In-Reply-To, 4
// answers 1 by References and has no subject of its own.
const std::vector<std::string> kFour = {
    Msg("From: Carol <c@x.org>\r\nSubject: Re: beta\r\nDate: Mon, 2 Nov 2026 10:00:00 +0000\r\n"
        "Message-ID: <m1@x>\r\n"),
    Msg("From: alice@x.org\r\nSubject: alpha\r\nDate: Sun, 1 Nov 2026 09:00:00 +0000\r\nMessage-ID: <m2@x>\r\n"),
    Msg("From: Bob <b@x.org>\r\nSubject: RE: Alpha\r\nDate: Tue, 3 Nov 2026 01:00:00 +0500\r\n"
        "In-Reply-To: <m2@x>\r\n"),
    Msg("From: Dave <d@x.org>\r\nReferences: <m0@x> <m1@x>\r\n"),
};

TEST_F(NodesTest, AFolderOpensIntoLinesInEachOrder) {
  MakeFolder("Box", kFour);
  const std::pair<const char*, const char*> orders[] = {
      {"Most Recent Arrival", "4 3 2 1"},    {"Least Recent Arrival", "1 2 3 4"},
      {"Most Recent Date Sent", "3 1 2 4"},  {"Least Recent Date Sent", "4 2 1 3"},
      {"From", "3 1 4 2"},                   {"Subject", "3 2 1 4"},
      {"Conversation", "1 4 2 3"},
  };
  Run([&] {
    for (const auto& [order, want] : orders) {
      Opt_AssignString("Folder.1.Box.Sort", order, kOptSession, 0);
      TreeNode* node = Open(local_, "Box");
      ASSERT_NE(node, nullptr) << order;
      EXPECT_EQ(Lines(node), want) << order;
      ExpectCounts(node, 4, 4);
      EXPECT_EQ(F(node)->total, 4);
      // The same order again from the lines' own keys.
      MSG_ResortKids(node, MSG_SortOrderFromName(order));
      EXPECT_EQ(Lines(node), want) << order << " (re-sorted)";
      folderCloseTree(node);
      EXPECT_EQ(F(node)->folder_id, INVALID_FOLDER) << order;
      EXPECT_EQ(Lines(node), "");
      TREE_RemoveNode(node);
    }
  });
}

TEST_F(NodesTest, DrawRecordTexts) {
  MakeFolder("Box", {kFour[1], kFour[3], Msg("Subject: none from\r\n"), Msg("Date: 31 Xyz 2026 25:70:00 +0000\r\n")});
  const int id = MM_FolOpen(local_, "Box");
  ASSERT_NE(id, INVALID_FOLDER);
  struct Line {
    int msgno;
    bool sent;
    const char *from, *subject, *date;
    bool has_subject;
  } lines[] = {
      {1, false, "alice@x.org", "alpha", "Nov  1  9:00 2026", true},
      {2, false, "Dave", "", "", false},
      {3, false, "<Unknown>", "none from", "", true},
      {2, true, "To: <Unknown>", "", "", false},
      {4, false, "<Unknown>", "", "xxx 31 -1:-1 -1", false},  // fields that don't pack keep their text
  };
  for (const Line& l : lines) {
    MessageNodeInfo* m = MSG_NewInfo(MM_UMIFromMsgno(id, l.msgno), l.sent);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(MSG_From(m), l.from) << l.msgno;
    EXPECT_EQ(MSG_Subject(m), l.subject) << l.msgno;
    EXPECT_EQ(MSG_DateTextOf(m), l.date) << l.msgno;
    EXPECT_EQ(static_cast<bool>(m->bits & kMsgHasSubject), l.has_subject) << l.msgno;
    EXPECT_EQ(m->flags & kMsgRead, 0);
    EXPECT_EQ(m->date_key == kNoDate, !*l.date) << l.msgno;
    MSG_FreeInfo(m);
  }
  MM_FolClose(id, 1);
}

TEST_F(NodesTest, NewMailExpungeAndFlagsFollowTheModel) {
  MakeFolder("Box", 5);
  Run([&] {
    TreeNode* node = Open(local_, "Box");
    ASSERT_NE(node, nullptr);
    const int id = F(node)->folder_id;
    ASSERT_EQ(Lines(node), "5 4 3 2 1");

    // Another writer appends; the next tick brings it with E_NEW_MESSAGES.
    Append("Box", Numbered(6));
    seen_.clear();
    EXPECT_EQ(Lines(node), "5 4 3 2 1");
    MSG_MailTimerTick();
    EXPECT_EQ(Types({E_NEW_MESSAGES}), std::vector<int>{E_NEW_MESSAGES});
    EXPECT_EQ(Lines(node), "6 5 4 3 2 1");
    ExpectCounts(node, 6, 6);
    EXPECT_EQ(F(node)->total, 6);

    // Flags set through the model by any window show on the lines, one
    // round trip for the selection.
    const UMI two = MM_UMIFromMsgno(id, 2), three = MM_UMIFromMsgno(id, 3);
    TREE_SelectNode(MSG_FindMessage(node, two), 1);
    TREE_SelectNode(MSG_FindMessage(node, three), 1);
    seen_.clear();
    EXPECT_EQ(MSG_SetFlagOnSelection(tree_, "\\Seen", true), 2);
    EXPECT_EQ(Types({E_SEEN_FLAG_SET}), (std::vector<int>{E_SEEN_FLAG_SET, E_SEEN_FLAG_SET}));
    ExpectCounts(node, 6, 4);
    EXPECT_TRUE(MSG_Info(MSG_FindMessage(node, two))->flags & kMsgRead);
    // The same event again changes nothing.
    EXPECT_TRUE(MM_MsgSetFlag(two, "\\Seen"));
    ExpectCounts(node, 6, 4);
    EXPECT_TRUE(MM_MsgSetFlag(three, "\\Flagged"));
    EXPECT_TRUE(MSG_Info(MSG_FindMessage(node, three))->flags & kMsgFlagged);

    // Expunged elsewhere: the line goes, the counters follow.
    EXPECT_TRUE(MM_MsgSetFlag(three, "\\Deleted"));
    EXPECT_TRUE(MSG_Info(MSG_FindMessage(node, three))->flags & kMsgDeleted);
    EXPECT_TRUE(MM_FolExpunge(id));
    EXPECT_EQ(MSG_FindMessage(node, three), nullptr);
    EXPECT_EQ(Lines(node), "5 4 3 2 1");  // numbers after the shift: old 4 is now 3
    ExpectCounts(node, 5, 4);
    EXPECT_EQ(F(node)->total, 5);
    // A later tick adds nothing twice.
    MSG_MailTimerTick();
    EXPECT_EQ(Lines(node), "5 4 3 2 1");
  });
}

// A selecting folder shows what its rules find, at the load and as new
// mail comes; a selection that cannot run shows nothing.
TEST_F(NodesTest, ASelectingFolderShowsWhatItsRulesFind) {
  MakeFolder("Sel", 12);
  int a = 0, b = 0;
  ASSERT_TRUE(SRCH_AddRuleByName(kOptSession, "IMAP", "ones", "SUBJECT \"message 1\"", "Message", &a));
  ASSERT_TRUE(SRCH_AddRuleByName(kOptSession, "IMAP", "fives", "SUBJECT \"message 5\"", "Message", &b));
  Opt_AssignString(SRCH_SelectionKey(MM_MSGetNumber(local_), "Sel", "IsSelecting").c_str(), "true", kOptSession, 0);
  Opt_AssignString(SRCH_SelectionKey(MM_MSGetNumber(local_), "Sel", "SearchIDList").c_str(),
                   (std::to_string(a) + " " + std::to_string(b)).c_str(), kOptSession, 0);
  Run([&] {
    TreeNode* node = Open(local_, "Sel");
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(Lines(node), "12 11 10 5 1");
    ExpectCounts(node, 5, 5);
    // New mail: only what a rule finds joins the lines ("message 15" is
    // message 14 of the folder).
    Append("Sel", Numbered(13));
    Append("Sel", Numbered(15));
    MSG_MailTimerTick();
    EXPECT_EQ(Lines(node), "14 13 12 11 10 5 1");
    EXPECT_EQ(F(node)->total, 14);
    Append("Sel", Numbered(2));
    MSG_MailTimerTick();
    EXPECT_EQ(Lines(node), "14 13 12 11 10 5 1");
    EXPECT_EQ(F(node)->total, 15);
  });
  // A rule of the selection is gone: the folder shows nothing.
  ASSERT_TRUE(SRCH_DeleteRuleByID("IMAP", b));
  Run([&] {
    TreeNode* node = Open(local_, "Sel");
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(Lines(node), "");
  });
}

TEST_F(NodesTest, GroupsPickMessagesAndFollowChanges) {
  MakeFolder("Box", {Msg("From: a@x\r\nSubject: urgent: fix\r\n"), Msg("From: b@x\r\nSubject: lunch\r\n"),
                     Msg("From: boss@x\r\nSubject: plans\r\n"), Msg("From: c@x\r\nSubject: URGENT too\r\n")});
  const std::pair<const char*, const char*> options[] = {
      {"View.MsgGroups", "1"},
      {"MessageGroups.1.Box.IDList", "2,1"},
      {"MessageGroups.1.Box.1.Name", "Urgent"},
      {"MessageGroups.1.Box.1.Fields", "Subject"},
      {"MessageGroups.1.Box.1.Pattern", "*urgent*"},
      {"MessageGroups.1.Box.2.Name", "Boss"},
      {"MessageGroups.1.Box.2.Fields", "From Subject"},
      {"MessageGroups.1.Box.2.Pattern", "boss@*|*fix"},
      {"MessageGroups.1.Box.2.Sort", "Least Recent Arrival"},
      {"MessageGroups.1.Box.2.HideIfEmpty", "1"},
  };
  for (const auto& [key, value] : options) Opt_AssignString(key, value, kOptSession, 0);
  Run([&] {
    TreeNode* node = Open(local_, "Box");
    ASSERT_NE(node, nullptr);
    const int id = F(node)->folder_id;
    // The first group in IDList order wins: 1 matches both, Boss is first.
    EXPECT_EQ(Lines(node), "[Boss: 1 3] [Urgent: 4] [Main: 2] [Deleted:]");
    ExpectCounts(node, 4, 4);
    TreeNode* boss = TREE_GetFirstKid(node);
    EXPECT_EQ(GRP_Info(boss)->count, 2);

    // Deleted goes to Deleted, undeleted back through the rules.
    const UMI one = MM_UMIFromMsgno(id, 1);
    EXPECT_TRUE(MM_MsgSetFlag(one, "\\Deleted"));
    EXPECT_EQ(Lines(node), "[Boss: 3] [Urgent: 4] [Main: 2] [Deleted: 1]");
    EXPECT_EQ(GRP_Info(boss)->count, 1);
    ExpectCounts(node, 4, 4);
    EXPECT_TRUE(MM_MsgClearFlag(one, "\\Deleted"));
    EXPECT_EQ(Lines(node), "[Boss: 1 3] [Urgent: 4] [Main: 2] [Deleted:]");

    // Read counts in the group and the folder; an emptied group hides.
    EXPECT_EQ(MM_MsgSetFlagMany({one, MM_UMIFromMsgno(id, 3)}, "\\Seen"), 2);
    EXPECT_EQ(GRP_Info(boss)->unread, 0);
    ExpectCounts(node, 4, 2);
    EXPECT_FALSE(TREE_IsHidden(boss));
    EXPECT_EQ(MM_MsgSetFlagMany({one, MM_UMIFromMsgno(id, 3)}, "\\Deleted"), 2);
    EXPECT_TRUE(TREE_IsHidden(boss));

    // New mail lands in its group.
    Append("Box", Msg("From: d@x\r\nSubject: urgent again\r\n"));
    MSG_MailTimerTick();
    EXPECT_EQ(Lines(node), "[(Boss:)] [Urgent: 5 4] [Main: 2] [Deleted: 3 1]");
    ExpectCounts(node, 5, 3);
  });
}

// Where a message line puts its texts, relative to the line's start, as the
// strip's columns are hidden, moved and sized; with priorities on, a high
// priority line is drawn in its slot's colour; the marks sit in column 0.
TEST_F(NodesTest, LinesDrawAtTheirColumns) {
  MakeFolder("Box", {Msg("From: Ann <a@x>\r\nSubject: hello\r\nDate: Mon, 2 Nov 2026 10:00:00 +0000\r\n"
                         "Priority: HIGH\r\n")});
  Opt_AssignString("General.PriorityHeader.Info", "1", kOptSession, 0);
  Run([&] {
    TreeNode* node = Open(local_, "Box");
    ASSERT_NE(node, nullptr);
    const UMI umi = MM_UMIFromMsgno(F(node)->folder_id, 1);
    EXPECT_TRUE(MM_MsgSetFlag(umi, "\\Flagged"));
    EXPECT_TRUE(MM_MsgSetFlag(umi, "\\Deleted"));
    TreeNode* line = MSG_FindMessage(node, umi);
    ASSERT_NE(line, nullptr);
    TREE_OpenSubtree(node, 1, 0);
    const std::string size = MSG_SizeTextOf(MSG_Info(line));
    CM_INFO* info = CM_Create(NULL_WIN, nullptr, kCMWindowTop);
    MSG_CM_LayoutCreate(info);
    MSG_SetColumnStrip(tree_, info);
    const int layout = MSG_CM_LayoutId(info, kCMLayoutMessage);
    struct Step {
      const char* what;
      std::function<void()> change;
      const char* want;  // x of From, Subject, Date, Size from the line's start; - for not drawn
    } steps[] = {
        {"defaults", [] {}, "29 179 379 499"},
        {"subject hidden", [&] { CM_ColumnSetVisible(info, layout, 3, false); }, "29 - 179 299"},
        {"size first", [&] { CM_ColumnMoveSelected(info, layout, 5, 2); }, "79 - 229 29"},
        {"from wider", [&] { CM_ColumnSetSize(info, layout, 2, 300); }, "79 - 379 29"},
    };
    for (const Step& step : steps) {
      step.change();
      const int at = TREE_GetLineStart(tree_, line);
      std::string got;
      const std::string texts[] = {"Ann", "hello", "Nov  2 10:00 2026", size};
      const XvtDrawOp* from = nullptr;
      const auto& ops = xvt_test_paint(tree_);
      for (const std::string& t : texts) {
        const XvtDrawOp* op = nullptr;
        for (const XvtDrawOp& o : ops)
          if (o.op == "text" && o.text == t) op = &o;
        if (t == "Ann") from = op;
        got += std::string(got.empty() ? "" : " ") + (op ? std::to_string(op->rct.left - at) : "-");
      }
      EXPECT_EQ(got, step.want) << step.what;
      ASSERT_NE(from, nullptr);
      EXPECT_EQ(from->fore, MSG_SlotColor(kSlotHighPriority)) << step.what;
      // The deleted cross and the flag mark, at the icon column's start.
      int cross = 0, mark = 0;
      for (const XvtDrawOp& o : ops) {
        if (o.op == "line" && o.fore == COLOR_RED && std::min(o.rct.left, o.rct.right) == at &&
            std::max(o.rct.left, o.rct.right) == at + 18)
          ++cross;
        if (o.op == "rect" && o.fore == COLOR_RED && o.rct.left == at + 22) ++mark;
      }
      EXPECT_EQ(cross, 2) << step.what;
      EXPECT_EQ(mark, 1) << step.what;
    }
    MSG_SetColumnStrip(tree_, nullptr);
    CM_Destroy(info);
  });
}

// Memory runs short in the middle of a load: the free store gives back its
// reserve and posts E_LOW_MEMORY, the folder stops its loop and shows what
// it read, with the note; the group road also says so in the progress window.
TEST_F(NodesTest, LowMemoryCutsTheLoadShort) {
  MakeFolder("Box", EighthIsLong());
  struct Road {
    const char* groups;
    const char* lines;
    bool progress_line;
  } roads[] = {
      {"0", "10 9 8", false},
      {"1", "[Main: 10 9 8] [Deleted:]", true},
  };
  Run([&] {
    for (const Road& road : roads) {
      Opt_AssignString("View.MsgGroups", road.groups, kOptSession, 0);
      TreeNode* node = nullptr;
      ShortOfMemoryAtTheEighth([&] { node = Open(local_, "Box"); });  // the third the load reads
      ASSERT_NE(node, nullptr) << road.groups;
      EXPECT_EQ(Lines(node), road.lines) << road.groups;
      EXPECT_TRUE(F(node)->low_memory);
      EXPECT_EQ(F(node)->shown, 3);
      bool note = false, progress = false;
      for (const XvtPost& p : xvt_test_posts()) {
        if (p.kind == "note" && p.text.find("Due to memory constraints only part of the messages \nfor folder \"Box\"") == 0)
          note = true;
        if (p.kind == "progress" && p.text.find("Aborting folder load due to low application memory") != std::string::npos)
          progress = true;
      }
      EXPECT_TRUE(note) << road.groups;
      EXPECT_EQ(progress, road.progress_line) << road.groups;
      folderCloseTree(node);
      TREE_RemoveNode(node);
    }
  });
}

TEST_F(NodesTest, FolderLinesSortInboxFirstAndRefuseDuplicates) {
  Run([&] {
    TreeNode* root = TREE_GetRoot(tree_);
    for (const char* name : {"b", "INBOX", "a", "a/inbox", "b", ".hidden", "c/"})
      folderAdd(root, local_, {name, '/'}, 1, INVALID_FOLDER);
    std::string names;
    for (TreeNode* k = TREE_GetFirstKid(root); k; k = TREE_GetNext(k)) names += F(k)->name + " ";
    EXPECT_EQ(names, "INBOX a a/inbox b ");
    EXPECT_EQ(folderFind(root, ""), root);
    FolderNodeInfo a{}, b{};
    a.name = "Inbox";
    b.name = "INBOX";
    EXPECT_EQ(folderCompare(&a, &b), 0);
    b.name = "Aardvark";
    EXPECT_LT(folderCompare(&a, &b), 0);
    EXPECT_EQ(folderDisplayName(local_, "a/b/c", '/'), "c");
  });
}

// --- Counts of closed folders ---------------------------------------------------
// Asked of the model at each mail timer tick, for the lines the user can
// see, and drawn as an open folder's counts are.

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
    TreeNode* node = folderAdd(TREE_GetRoot(tree_), local_, {"Box", '\\'}, 1, INVALID_FOLDER);
    ASSERT_NE(node, nullptr);
    TreeNode* inner = folderAdd(node, local_, {"Box\\Inner", '\\'}, 1, INVALID_FOLDER);  // under a closed line
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

// --- Editing a folder's groups ---------------------------------------------------
// Moving and deleting groups with their questions, deleting and restoring
// all messages of a group, a group's sort changed, empty groups shown and
// hidden.

TreeNode* Group(TreeNode* container, const char* name) {
  for (TreeNode* k = TREE_GetFirstKid(container); k; k = TREE_GetNext(k))
    if (GroupNodeInfo* g = GRP_Info(k); g && g->name == name) return k;
  return nullptr;
}

void PostGroupEvent(int type, int folder, int id) {
  ModelEvent* ev = MM_NotEventNew(type);
  ev->folder = static_cast<int16_t>(folder);
  ev->value = id;
  MM_NotEventPost(ev);
  MM_NotEventFree(ev);
}

TEST_F(NodesTest, GroupsAreMovedDeletedAndRestored) {
  MakeFolder("Box", {Msg("From: a@x\r\nSubject: urgent one\r\n"), Msg("From: boss@x\r\nSubject: plans\r\n"),
                     Msg("From: c@x\r\nSubject: lunch\r\n"), Msg("From: boss@x\r\nSubject: URGENT two\r\n")});
  const std::pair<const char*, const char*> options[] = {
      {"View.MsgGroups", "1"},
      {"MessageGroups.1.Box.IDList", "1,2,3"},
      {"MessageGroups.1.Box.1.Name", "Urgent"},
      {"MessageGroups.1.Box.1.Fields", "Subject"},
      {"MessageGroups.1.Box.1.Pattern", "*urgent*"},
      {"MessageGroups.1.Box.2.Name", "Boss"},
      {"MessageGroups.1.Box.2.Fields", "From"},
      {"MessageGroups.1.Box.2.Pattern", "boss@*"},
      {"MessageGroups.1.Box.3.Name", "Empty"},
      {"MessageGroups.1.Box.3.Fields", "Subject"},
      {"MessageGroups.1.Box.3.Pattern", "nothing matches this"},
      {"MessageGroups.1.Box.3.HideIfEmpty", "1"},
  };
  for (const auto& [key, value] : options) Opt_AssignString(key, value, kOptSession, 0);
  Run([&] {
    TreeNode* node = Open(local_, "Box");
    ASSERT_NE(node, nullptr);
    const int id = F(node)->folder_id;
    ASSERT_EQ(Lines(node), "[Urgent: 4 1] [Boss: 2] [(Empty:)] [Main: 3] [Deleted:]");
    struct Step {
      const char* what;
      std::vector<ASK_RESPONSE> answers;
      std::function<int()> op;
      int result;
      const char* idlist;
      const char* groups;
      const char* asked;
    } steps[] = {
        {"Boss before Urgent", {}, [&] { return groupMove(Group(node, "Boss"), Group(node, "Urgent"), true); }, 1,
         "2,1,3", "[Boss: 4 2] [Urgent: 1] [(Empty:)] [Main: 3] [Deleted:]", ""},
        {"Boss to the end", {}, [&] { return groupMove(Group(node, "Boss"), Group(node, "Main"), true); }, 1,
         "1,3,2", "[Urgent: 4 1] [(Empty:)] [Boss: 2] [Main: 3] [Deleted:]", ""},
        {"empty groups shown", {}, [&] { MM_NotPostSimple(E_SHOW_EMPTY_MSGGRPS); return 1; }, 1, "1,3,2",
         "[Urgent: 4 1] [Empty:] [Boss: 2] [Main: 3] [Deleted:]", ""},
        {"and hidden", {}, [&] { MM_NotPostSimple(E_HIDE_EMPTY_MSGGRPS); return 1; }, 1, "1,3,2",
         "[Urgent: 4 1] [(Empty:)] [Boss: 2] [Main: 3] [Deleted:]", ""},
        {"Empty no longer hides", {}, [&] { PostGroupEvent(E_GROUP_HIDDEN, id, 3); return 1; }, 1, "1,3,2",
         "[Urgent: 4 1] [Empty:] [Boss: 2] [Main: 3] [Deleted:]", ""},
        {"Urgent sorted oldest first",
         {},
         [&] {
           Opt_AssignString("MessageGroups.1.Box.1.Sort", "Least Recent Arrival", kOptSession, 0);
           PostGroupEvent(E_GROUP_CHANGED, id, 1);
           return 1;
         },
         1, "1,3,2", "[Urgent: 1 4] [Empty:] [Boss: 2] [Main: 3] [Deleted:]", ""},
        {"an empty group: deleting it asks, cancel", {RESP_2}, [&] { return groupDelete(Group(node, "Empty")); }, 0,
         "1,3,2", "[Urgent: 1 4] [Empty:] [Boss: 2] [Main: 3] [Deleted:]", "Delete Message Group \"Empty?\""},
        {"an empty group deleted", {RESP_DEFAULT}, [&] { return groupDelete(Group(node, "Empty")); }, 1, "1,2",
         "[Urgent: 1 4] [Boss: 2] [Main: 3] [Deleted:]", "Delete Message Group \"Empty?\""},
        {"Urgent's messages deleted", {RESP_DEFAULT}, [&] { return groupDelete(Group(node, "Urgent")); }, 1, "1,2",
         "[Urgent:] [Boss: 2] [Main: 3] [Deleted: 4 1]",
         "Delete all messages or delete Message Group \"Urgent?\""},
        {"and restored", {RESP_DEFAULT}, [&] { return groupRestore(Group(node, "Deleted")); }, 1, "1,2",
         "[Urgent: 1 4] [Boss: 2] [Main: 3] [Deleted:]", "Restore all messages in the \"Deleted\" group?"},
        {"the Urgent group deleted: its messages are picked again", {RESP_2},
         [&] { return groupDelete(Group(node, "Urgent")); }, 1, "2", "[Boss: 4 2] [Main: 3 1] [Deleted:]",
         "Delete all messages or delete Message Group \"Urgent?\""},
        {"Boss renamed", {}, [&] { return Opt_AssignString("MessageGroups.1.Box.2.Name", "Chief", kOptSession, 0); },
         1, "2", "[Chief: 4 2] [Main: 3 1] [Deleted:]", ""},
        {"Main's messages deleted, Main stays", {RESP_DEFAULT}, [&] { return groupDelete(Group(node, "Main")); }, 1,
         "2", "[Chief: 4 2] [Main:] [Deleted: 3 1]", "Delete all messages in the \"Main\" group?"},
    };
    for (const Step& step : steps) {
      xvt_test_clear_posts();
      for (ASK_RESPONSE a : step.answers) xvt_test_push_answer(a);
      EXPECT_EQ(step.op(), step.result) << step.what;
      EXPECT_EQ(Opt_LookupText("MessageGroups.1.Box.IDList", kOptSession), step.idlist) << step.what;
      EXPECT_EQ(Lines(node), step.groups) << step.what;
      EXPECT_EQ(Asked(), step.asked) << step.what;
      ExpectCounts(node, 4, 4);
    }
  });
}

}  // namespace
}  // namespace nodestest
