// The books on a real server (tests/peers/imsp-cyrus.sh) through the address
// model: the first login's default book, entries and lists, books made and
// renamed, rights, a server restarted under an open book, and a server that
// can't be reached.
#include <string>

#include "src/base/cenv.h"
#include "src/base/rights_dialog.h"
#include "src/books/address_model.h"
#include "src/books/book_window.h"
#include "xvt/xvt_test.h"
#include "src/options/options.h"
#include "tests/books/book_helpers.h"
#include "tests/model/model_fixture.h"
#include "tests/support/peer_script.h"

namespace {

void Point(const std::string& port) {
  Opt_AssignString("AddrBook.Hostname", "127.0.0.1", kOptSession, 0);
  Opt_AssignString("AddrBook.TCPPort", port.c_str(), kOptSession, 0);
}

class RemoteBooks : public ModelTest {
 protected:
  void SetUp() override {
    ModelTest::SetUp();
    if (!server_.Start()) GTEST_SKIP() << "no server";
    char name[] = "velmar";
    char* argv[] = {name, nullptr};
    ASSERT_EQ(CENV_Init(1, argv), 1);
    CENV_SetUserid("testuser");
    CENV_SetPassword("secret");
    Point(server_.env.at("PORT"));
    ASSERT_EQ(ABK_init(), 1);
  }
  void TearDown() override {
    ABK_shutdown();
    ModelTest::TearDown();
  }
  PeerServer server_{"imsp-cyrus.sh", "velmar-imspu-books"};
};

TEST_F(RemoteBooks, FirstLoginEntriesListsAndBooks) {
  ASSERT_NE(ABK_remoteSession(), nullptr);
  // The personal book is made by a dummy entry that goes again.
  EXPECT_EQ(Joined(AM_BookGetBooks()), "local,testuser,");
  EXPECT_EQ(Joined(AM_BookGetBooks()), "local,testuser,");
  const int id = ABK_openBook("testuser");
  ASSERT_NE(id, 0);
  EXPECT_EQ(Names(AM_EntryGetEntries(id)), "");
  EXPECT_TRUE(ABK_isRemoteBook(id));
  EXPECT_FALSE(ABK_isRemoteBook(ABK_openBook("local")));
  EXPECT_EQ(ABK_slot(id)->rights, "lrswipcda");

  ASSERT_EQ(Store(id, "Alice Example", {{"email", "a@x.org"}, {"alias", "ali"}, {"phone", "+1 555"}}), 1);
  ASSERT_EQ(Store(id, "Bob Example", {{"email", "\"Bob\" <bob@x.org>"}}), 1);
  EXPECT_EQ(Names(AM_EntryGetEntries(id)), "Alice Example Bob Example");
  // A store replaces the whole entry, as in a local book.
  ASSERT_EQ(Store(id, "Alice Example", {{"email", "alice@x.org"}}), 1);
  EXPECT_EQ(Attrs(id, "Alice Example"), "email=alice@x.org;");
  ASSERT_EQ(entry_set_value(AddressEntry{static_cast<int16_t>(id), 0, "Alice Example"}, "alias", "al"), 1);
  EXPECT_EQ(Attrs(id, "Alice Example"), "alias=al;email=alice@x.org;");

  ASSERT_EQ(ABK_NewList(id, "Team"), 1);
  const AddressEntry team{static_cast<int16_t>(id), 1, "Team"};
  ASSERT_EQ(ABK_addToList(team, AddressEntry{static_cast<int16_t>(id), 0, "Alice Example"}), 1);
  ASSERT_EQ(ABK_addToList(team, AddressEntry{static_cast<int16_t>(id), 0, "Bob Example"}), 1);
  EXPECT_EQ(Names(ABK_membersOfList(team)), "Alice Example Bob Example");
  EXPECT_EQ(Names(AM_EntryGetEntries(id)), "Alice Example Bob Example Team*");

  const struct { const char *criteria, *found; } searches[] = {
      {"\"email\" \"*bob*\"", "Bob Example"},
      {"\"Name\" \"a*\"", "Alice Example"},
      {"\"Member\" \"*Alice*\"", "Team*"},
  };
  for (const auto& s : searches) {
    AM_SearchStart();
    EXPECT_EQ(AM_Search(id, s.criteria), kSearchOk) << s.criteria;
    EXPECT_EQ(Names(AM_SearchGetList()), s.found) << s.criteria;
    AM_SearchCleanup();
  }
  ASSERT_EQ(AM_EntryRemove(AddressEntry{static_cast<int16_t>(id), 0, "Bob Example"}), 1);
  EXPECT_EQ(Names(AM_EntryGetEntries(id)), "Alice Example Team*");

  // A book of the user's own, renamed in its slot, then deleted.
  EXPECT_EQ(ABK_createNewABook(kBookRemote, "friends"), "testuser.friends");
  EXPECT_EQ(Joined(AM_BookGetBooks()), "local,testuser,testuser.friends,");
  const int friends = ABK_openBook("testuser.friends");
  ASSERT_EQ(Store(friends, "Carol", {{"email", "c@x.org"}}), 1);
  ASSERT_EQ(AM_BookSave(friends, "testuser.pals"), 1);
  EXPECT_EQ(AM_GetBookID("testuser.pals"), friends);
  EXPECT_EQ(Attrs(friends, "Carol"), "email=c@x.org;");
  EXPECT_EQ(ABK_SetBookACL(friends, "otheruser", 1), 1);
  EXPECT_EQ(ABK_SetBookACL(friends, "", 4), 0);
  ABK_closeBook(friends);
  EXPECT_EQ(abook_delete(ABK_remoteSession(), "testuser.pals"), 1);
  EXPECT_EQ(Joined(AM_BookGetBooks()), "local,testuser,");
}

TEST_F(RemoteBooks, PingReconnectsAfterARestartAndRebindsOpenBooks) {
  AM_BookGetBooks();
  const int id = ABK_openBook("testuser");
  ASSERT_EQ(Store(id, "Dave", {{"email", "d@x.org"}}), 1);
  EXPECT_EQ(ABK_ping(), 1);
  EXPECT_FALSE(Traced("ABK_ping: IMSP server ping failed."));

  // The same data on a new port: the ping fails, reconnects, and the open
  // book works on the new connection.
  server_.Stop();
  std::map<std::string, std::string> env;
  RunPeerScript("imsp-cyrus.sh", "start '" + server_.dir + "'", &env);
  ASSERT_TRUE(env.count("PORT"));
  server_.env["PORT"] = env["PORT"];
  Point(env["PORT"]);
  EXPECT_EQ(ABK_ping(), 1);
  EXPECT_TRUE(Traced("ABK_ping: IMSP server ping failed."));
  ASSERT_TRUE(ABK_slot(id)->open);
  EXPECT_EQ(ABK_slot(id)->rights, "lrswipcda");
  ASSERT_EQ(Store(id, "Erin", {{"email", "e@x.org"}}), 1);
  EXPECT_EQ(Attrs(id, "Erin"), "email=e@x.org;");

  server_.Stop();
  EXPECT_EQ(ABK_ping(), 0);
  EXPECT_TRUE(Traced("ABK_ping: failed to reconnect to server."));
}

class RemoteBooksDown : public ModelTest {};

TEST_F(RemoteBooksDown, UnreachableServerLeavesTheLocalBooks) {
  Point("1");  // nothing listens there
  ASSERT_EQ(ABK_init(), 1);
  EXPECT_EQ(ABK_remoteSession(), nullptr);
  EXPECT_EQ(ABK_ping(), 1);
  EXPECT_EQ(Joined(AM_BookGetBooks()), "local,");
  EXPECT_NE(Posts().find("Failed to initialize support stream 127.0.0.1..."), std::string::npos) << Posts();
  ABK_shutdown();
}

}  // namespace

// The rights dialog over the book window: a local book is shown with every
// right and read-only; on the server each flags word is sent as its rights
// and read back from the server.
TEST_F(RemoteBooks, RightsDialogSendsFlagsAndShowsWhatTheServerHolds) {
  const struct { int flags; const char* rights; } cases[] = {{1, "lr"}, {3, "lrwcd"}, {7, "lrwcda"}};
  std::vector<std::string> seen;  // per dialog: its note, Add enabled, and the line of otheruser
  xvt_test_push_dialog(kBookWindowRid, [&](WINDOW win) {
    for (int i = -1; i < 3; ++i) {
      xvt_test_select(win, kBwBooks, i < 0 ? 0 : 1);  // "local", then "testuser"
      xvt_test_push_dialog(kRightsDialogRid, [&, i](WINDOW d) {
        if (i >= 0) {
          xvt_test_type(d, kRdIdentifier, "otheruser");
          for (int b = 0; b < 3; ++b) xvt_ctl_set_checked(xvt_win_get_ctl(d, kRdRight0 + b), cases[i].flags & (1 << b));
          xvt_test_click(d, kRdAdd);
        }
        std::string line = xvt_ctl_get_text(d, kRdNote, 200) + "|" + (xvt_vobj_is_enabled(xvt_win_get_ctl(d, kRdAdd)) ? "on" : "off");
        const WINDOW list = xvt_win_get_ctl(d, kRdList);
        char buf[300];
        for (int n = 0; n < xvt_list_count_all(list); ++n)
          if (std::string row = xvt_list_get_elt(list, n, buf, sizeof buf); i < 0 || row.rfind("otheruser", 0) == 0) line += "|" + row;
        seen.push_back(line);
        xvt_test_click(d, kRdClose);
      });
      xvt_test_click(win, kBwRights);
    }
    xvt_test_click(win, kBwClose);
  });
  XVT_CONFIG config{0, 0, "t", "T", "task", 42};
  xvt_test_set_run_hook([] { ABK_BookWindow(); });
  xvt_app_create(0, nullptr, 0, [](WINDOW, EVENT*) -> long { return 0; }, &config);
  ASSERT_EQ(seen.size(), 4u) << Posts();
  EXPECT_EQ(seen[0], "A local book: you have every right in it, and there is no list to change.|off|"
                     "(you): read, write, administer  [lrswipcda]");
  std::vector<AM_ACL> acl;
  ASSERT_EQ(ABK_GetBookACL(ABK_openBook("testuser"), &acl), 1);
  const char* names[] = {"read", "read, write", "read, write, administer"};
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(seen[i + 1], std::string("|on|otheruser: ") + names[i] + "  [" + cases[i].rights + "]");
  std::string held;
  for (const AM_ACL& a : acl) held += a.identifier + " " + a.rights + " " + std::to_string(a.flags) + ";";
  EXPECT_EQ(held, "testuser lrswipcda 7;otheruser lrwcda 7;");
}
