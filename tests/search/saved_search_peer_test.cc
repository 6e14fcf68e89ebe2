// A saved search over a local MH folder and a private Dovecot's INBOX: the
// lines of both, and the server's new mail at the next tick.
#include <gtest/gtest.h>

#include <set>

#include "c-client/net/tcp.h"
#include "src/options/options.h"
#include "src/search/search_node.h"
#include "src/search/search_rules.h"
#include "tests/c-client/imap/dovecot_peer.h"
#include "tests/model/imap_service_fixture.h"
#include "tests/organizer/nodes_fixture.h"

namespace {

using SavedSearchPeer = ImapServiceOnDemandTest<nodestest::NodesTest>;

TEST_F(SavedSearchPeer, ALocalAndARemoteFolderInOneSearch) {
  const int remote = RemoteService();
  ASSERT_NE(remote, INVALID_SERVICE) << "no Dovecot (package dovecot-imapd)";
  server_.Seed(12, "INBOX");
  MakeFolder("Box", 3);
  ASSERT_EQ(MM_FolSubscribe(local_, "Box", 1), 1);
  const int id = SRCH_AddSearch(kOptPermanent, "Both");
  ASSERT_NE(id, 0);
  ASSERT_TRUE(SRCH_AddRuleByName(kOptSession, "IMAP", "Ones", "SUBJECT \"message 1\"", "Message"));
  ASSERT_TRUE(searchSaveSelectedRules(id, {"Ones"}));
  ASSERT_TRUE(searchSaveSelectedFoldersByID(
      id, {MM_FolCanonNameBuild(local_, "Box"), MM_FolCanonNameBuild(remote, "INBOX")}));
  Run([&] {
    searchAppendNodes(TREE_GetRoot(tree_));
    TreeNode* node = searchFindNode(TREE_GetRoot(tree_), id);
    ASSERT_EQ(searchHandleNodeEvent(tree_, node, kNodeEventDoubleClick), kNodeActionOk) << Posts();
    // "message 1" of the MH folder, and 1, 10, 11 and 12 of the server's.
    std::multiset<std::string> found;
    for (TreeNode* k = TREE_GetFirstKid(node); k; k = TREE_GetNext(k))
      found.insert(std::string(MM_MSGetName(MM_FolGetService(MM_UMIFolder(MSG_Info(k)->umi)))) + ":" +
                   std::string(MSG_Subject(MSG_Info(k))));
    EXPECT_EQ(found, (std::multiset<std::string>{"Local:message 1", "Work:Seeded message 1", "Work:Seeded message 10",
                                                   "Work:Seeded message 11", "Work:Seeded message 12"}))
        << Posts();
    // The server's new mail comes in at the next tick, found by the server's SEARCH.
    server_.Seed(1, "INBOX");
    MSG_MailTimerTick();
    EXPECT_EQ(SRCH_NodeInfo(node)->count, 6);
    searchClose(id);
  });
}

}  // namespace
