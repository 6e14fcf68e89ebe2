// Editing a folder's message groups: moving and deleting groups with their
// questions, deleting and restoring all messages of a group, a group's sort
// changed, and empty groups shown and hidden.
#include <gtest/gtest.h>

#include "src/options/options.h"
#include "tests/organizer/nodes_fixture.h"

namespace nodestest {
namespace {

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
