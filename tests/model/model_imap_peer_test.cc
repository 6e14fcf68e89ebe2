// The model over a real Dovecot: a service from the options, its listing,
// a folder opened twice, flags, a server-side copy, a move and expunge,
// and a server that goes away under an open folder.
#include <unistd.h>

#include <string>

#include "tests/model/imap_service_fixture.h"

namespace {

using ModelImap = ImapServiceTest<ModelTest>;

TEST_F(ModelImap, FoldersMessagesFlagsCopiesAndADyingServer) {
  server_.Seed(5, "INBOX");
  FolderList list;
  ASSERT_TRUE(MM_FolCreate(ms_, "Archive", 1));
  ASSERT_TRUE(MM_MSFindFol(ms_, "*", 1, &list));
  std::string names;
  for (const FolderListEntry& e : list) names += e.name + " ";
  EXPECT_EQ(names, "INBOX Archive ");
  EXPECT_TRUE(MM_MSFolIsSubscribed(ms_, "Archive"));

  // The same account over TLS from the first byte, and refusing STARTTLS.
  for (const auto& [security, port] : {std::pair{"ssl", "SSLPORT"}, {"none", "PORT"}}) {
    for (const auto& [key, value] : {std::pair<const char*, std::string>{"Security", security},
                                     {"Port", server_.env[port]}})
      Opt_AssignString((std::string("MsgService.ms2.") + key).c_str(), value.c_str(), kOptPermanent, 0);
    MM_MSReload(ms_);
    const int plain = MM_FolOpen(ms_, "INBOX");
    ASSERT_NE(plain, INVALID_FOLDER) << security << Posts();
    EXPECT_NE(std::string(MM_FolStream(plain)->mailbox).find(std::string("/") + (*security == 'n' ? "notls" : "ssl")),
              std::string::npos) << MM_FolStream(plain)->mailbox;
    MM_FolClose(plain, 1);
  }
  const int id = MM_FolOpen(ms_, "INBOX");
  ASSERT_NE(id, INVALID_FOLDER) << Posts();
  EXPECT_EQ(MM_FolOpen(ms_, "INBOX"), id);
  ASSERT_EQ(MM_FolGetNumMsgs(id), 5);
  for (unsigned long n = 1; n <= 5; ++n)
    EXPECT_EQ(Subject(MM_UMIFromMsgno(id, n)), "Seeded message " + std::to_string(n));

  // Flags travel to the server and come back as events in order.
  const UMI first = MM_UMIFromMsgno(id, 1);
  seen_.clear();
  for (const char* flag : {"\\Seen", "\\Flagged", "\\Answered"}) {
    EXPECT_TRUE(MM_MsgSetFlag(first, flag));
    EXPECT_TRUE(MM_MsgClearFlag(first, flag));
  }
  EXPECT_EQ(Types(), (std::vector<int>{E_SEEN_FLAG_SET, E_SEEN_FLAG_CLEARED, E_FLAGGED_FLAG_SET,
                                       E_FLAGGED_FLAG_CLEARED, E_ANSWERED_FLAG_SET, E_ANSWERED_FLAG_CLEARED}));
  // A search on the server counts what the flags say.
  EXPECT_TRUE(MM_MsgSetFlag(first, "\\Seen"));
  long read = 0;
  for (unsigned long n = 1; n <= 5; ++n) read += MM_MsgIsRead(MM_UMIFromMsgno(id, n));
  EXPECT_EQ(MM_FolGetNumReadMsgs(id), read);

  // A copy inside the service stays on the server; a move leaves the
  // source deleted, and the expunge takes it out under our UMIs.
  const UMI third = MM_UMIFromMsgno(id, 3), fourth = MM_UMIFromMsgno(id, 4);
  EXPECT_TRUE(MM_MsgCopy(MM_UMIFromMsgno(id, 2), ms_, "Archive"));
  EXPECT_TRUE(MM_MsgMove(third, ms_, "Archive"));
  EXPECT_TRUE(MM_MsgIsDeleted(third));
  EXPECT_TRUE(MM_NeedsExpunge());
  seen_.clear();
  EXPECT_TRUE(MM_FolExpunge(id));
  EXPECT_EQ(Types({E_MSG_EXPUNGED}), (std::vector<int>{E_MSG_EXPUNGED}));
  EXPECT_EQ(seen_[0].umi, third);
  EXPECT_EQ(MM_UMIMsgno(fourth), 3u);
  const int archive = MM_FolOpen(ms_, "Archive");
  EXPECT_EQ(MM_FolGetNumMsgs(archive), 2);
  EXPECT_EQ(Subject(MM_UMIFromMsgno(archive, 2)), "Seeded message 3");

  // The server goes away: checks fail quietly, the windows hear of it once,
  // and every handle they hold reads nothing from then on.
  server_.Stop();
  int alive = 1;
  for (int i = 0; i < 50 && alive; ++i) {
    alive = MM_FolCheckNewMail(id, 0);
    if (alive) usleep(100000);
  }
  EXPECT_EQ(alive, 0);
  seen_.clear();
  EXPECT_EQ(MM_FolStream(id), nullptr);
  EXPECT_EQ(MM_FolStream(id), nullptr);
  EXPECT_EQ(Types(), (std::vector<int>{E_FOLDER_STREAM_DIED}));
  EXPECT_EQ(MM_MsgIsRead(first), 0);
  EXPECT_EQ(Subject(fourth), "(none)");
  EXPECT_FALSE(MM_MsgSetFlag(fourth, "\\Seen"));
  EXPECT_EQ(MM_FolGetNumMsgsOnStream(id), 0);
  MM_FolClose(id, 1);
  EXPECT_FALSE(MM_FolStreamValid(id));
}

TEST_F(ModelImap, StatusOfAClosedFolderOnlyOverTheServicesConnection) {
  server_.Seed(3, "INBOX");  // messages 1 and 3 unread
  struct Case {
    const char* what;
    bool connect_first;
    const char* folder;
    int result;
    long messages, unseen;
  } cases[] = {
      // A timer must not open a connection (or ask for a password) on its own.
      {"no connection yet", false, "INBOX", 0, 0, 0},
      {"over the service's control stream", true, "INBOX", 1, 3, 2},
      {"a folder that isn't there", true, "Nowhere", 0, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    if (c.connect_first) {
      ASSERT_NE(MM_MSGetStream(ms_), nullptr) << Posts();
    }
    xvt_test_clear_posts();
    long messages = -1, unseen = -1;
    EXPECT_EQ(MM_FolGetStatus(ms_, c.folder, &messages, &unseen), c.result);
    EXPECT_EQ(messages, c.messages);
    EXPECT_EQ(unseen, c.unseen);
    EXPECT_EQ(Posts(), "");  // quiet, whatever happened
  }
  // Local folders answer from their index.
  MakeFolder("Box", 2);
  long messages = 0, unseen = 0;
  EXPECT_EQ(MM_FolGetStatus(local_, "Box", &messages, &unseen), 1);
  EXPECT_EQ(messages, 2);
  EXPECT_EQ(unseen, 2);
  EXPECT_EQ(MM_FolGetStatus(local_, "Missing", &messages, &unseen), 0);
  EXPECT_EQ(MM_FolGetStatus(INVALID_SERVICE, "Box", &messages, &unseen), 0);
}

}  // namespace
