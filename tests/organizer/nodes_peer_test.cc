// A folder node over a private Dovecot: mail delivered and flags changed by
// another client show at the next tick, and a connection the server drops
// marks the folder lost; opening it again starts it afresh.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "c-client/rfc822/strsrc.h"
#include "tests/model/imap_service_fixture.h"
#include "tests/organizer/nodes_fixture.h"

namespace nodestest {
namespace {

// Ends the server's IMAP sessions (children of the master we started),
// by their ids: the connections drop while the server stays up.
int KillSessions(const std::string& master) {
  int killed = 0;
  for (const auto& e : std::filesystem::directory_iterator("/proc")) {
    const std::string pid = e.path().filename();
    if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream stat(e.path() / "stat");
    std::string line;
    std::getline(stat, line);
    const size_t close = line.rfind(')');
    const size_t open = line.find('(');
    if (close == std::string::npos || open == std::string::npos) continue;
    const std::string comm = line.substr(open + 1, close - open - 1);
    char state;
    long ppid = 0;
    if (std::sscanf(line.c_str() + close + 1, " %c %ld", &state, &ppid) != 2) continue;
    if (comm == "imap" && std::to_string(ppid) == master && ::kill(std::stoi(pid), SIGKILL) == 0) ++killed;
  }
  return killed;
}

class NodesImap : public ImapServiceTest<NodesTest> {
 protected:
  // Another client of the same mailbox, logged in as the same user.
  MailStream* OtherClient(std::string* full) {
    if (!MM_CCGenFolName(ms_, "INBOX", full)) return nullptr;
    MM_MSInitAuthInfo(ms_);
    return mail_open(nullptr, full->c_str(), 0);
  }
};

TEST_F(NodesImap, AnotherClientsMailAndFlagsShowAndALostConnectionReopens) {
  server_.Seed(3, "INBOX");
  Run([&] {
    TreeNode* node = Open(ms_, "INBOX");
    ASSERT_NE(node, nullptr) << Posts();
    EXPECT_EQ(Lines(node), "3 2 1");
    ExpectCounts(node, 3, 2);  // the seeded message 2 is read

    std::string full;
    MailStream* other = OtherClient(&full);
    ASSERT_NE(other, nullptr) << Posts();
    std::string raw = "From: x@example.org\r\nSubject: delivered\r\n\r\nhello\r\n";
    StringSource source;
    string_init(&source, &mail_string, raw.data(), raw.size());
    ASSERT_TRUE(mail_append(other, full.c_str(), nullptr, nullptr, &source));
    mail_setflag(other, "1", "\\Flagged");
    mail_setflag(other, "3", "\\Seen");
    mail_close(other);

    seen_.clear();
    MSG_MailTimerTick();
    EXPECT_EQ(Types({E_NEW_MESSAGES}), std::vector<int>{E_NEW_MESSAGES});
    EXPECT_EQ(Lines(node), "4 3 2 1");
    const int id = F(node)->folder_id;
    EXPECT_EQ(MSG_Subject(MSG_Info(MSG_FindMessage(node, MM_UMIFromMsgno(id, 4)))), "delivered");
    EXPECT_TRUE(MSG_Info(MSG_FindMessage(node, MM_UMIFromMsgno(id, 1)))->flags & kMsgFlagged);
    EXPECT_TRUE(MSG_Info(MSG_FindMessage(node, MM_UMIFromMsgno(id, 3)))->flags & kMsgRead);
    ExpectCounts(node, 4, 2);

    // The server drops our connection: the next tick marks the folder lost.
    ASSERT_GT(KillSessions(server_.env["PID"]), 0);
    seen_.clear();
    for (int i = 0; i < 50 && !F(node)->lost; ++i) {
      MSG_MailTimerTick();
      if (!F(node)->lost) usleep(100000);
    }
    EXPECT_TRUE(F(node)->lost);
    EXPECT_FALSE(TREE_IsOpen(node));
    EXPECT_EQ(Types({E_FOLDER_INVALID}).size(), 1u);

    // Opening it refuses once with the reason and closes it; the next open is clean.
    xvt_test_clear_posts();
    EXPECT_EQ(folderHandleNodeEvent(tree_, node, kNodeEventDoubleClick), kNodeActionRefused);
    EXPECT_NE(Posts().find("lost its connection"), std::string::npos) << Posts();
    EXPECT_EQ(F(node)->folder_id, INVALID_FOLDER);
    EXPECT_FALSE(F(node)->lost);
    EXPECT_EQ(Lines(node), "");
    EXPECT_EQ(folderHandleNodeEvent(tree_, node, kNodeEventDoubleClick), kNodeActionOk) << Posts();
    EXPECT_EQ(Lines(node), "4 3 2 1");
    ExpectCounts(node, 4, 2);
    EXPECT_TRUE(MM_FolStreamValid(F(node)->folder_id));
  });
}

}  // namespace
}  // namespace nodestest
