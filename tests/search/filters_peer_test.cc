// Filters over new mail in a private Dovecot's INBOX and in a local MH
// INBOX: what each folder holds afterwards, read back from the store.
#include <gtest/gtest.h>

#include "c-client/net/tcp.h"
#include "src/options/options.h"
#include "src/organizer/organizer.h"
#include "src/search/filters.h"
#include "src/search/search_rules.h"
#include "tests/c-client/imap/dovecot_peer.h"
#include "tests/model/imap_service_fixture.h"
#include "tests/model/model_fixture.h"

namespace {

class FiltersPeer : public ModelTest {
 protected:
  void TearDown() override {
    FLT_Shutdown();
    ModelTest::TearDown();
    tcp_tls_set_ca_file(nullptr);
    server_.Remove();
  }
  // Starts the server and makes service 2 on it, in the clear.
  int RemoteService() { return StartWorkService(&server_, "none"); }
  // Subjects and flags ("S" seen, "F" flagged, "D" deleted) of a folder as
  // a fresh stream reads them: "list 1:D,boss 2:,".
  std::string Held(int ms, const char* name) {
    const int id = MM_FolOpen(ms, name);
    if (id == INVALID_FOLDER) return "(none)";
    std::string out;
    for (long n = 1; n <= MM_FolGetNumMsgs(id); ++n) {
      const UMI u = MM_UMIFromMsgno(id, n);
      out += Subject(u) + ":" + (MM_MsgIsRead(u) ? "S" : "") + (MM_MsgIsFlagged(u) ? "F" : "") +
             (MM_MsgIsDeleted(u) ? "D" : "") + ",";
    }
    MM_FolClose(id, 1);
    return out;
  }
  // Appends to the INBOX behind the model's back, then a mail timer tick.
  void Arrive(int ms, int inbox, const std::vector<std::string>& subjects) {
    std::string full;
    ASSERT_TRUE(MM_CCGenFolName(ms, "INBOX", &full));
    MM_MSInitAuthInfo(ms);
    for (const std::string& s : subjects)
      Append(full, "From: " + s.substr(0, s.find(' ')) + "@example.org\r\nSubject: " + s +
                       "\r\n\r\nbody\r\n");
    MM_FolCheckNewMail(inbox, 0);
    FLT_RunPending();
  }
  void Scenario(int ms) {
    const int number = MM_MSGetNumber(ms);
    for (const char* f : {"Lists", "Archive"}) ASSERT_TRUE(MM_FolCreate(ms, f, 1)) << f;
    if (MM_MSGetType(ms) == kServiceLocal) MakeFolder("INBOX", 0);
    for (const auto& [name, key] : {std::pair{"List", "SUBJECT \"list\""}, {"Boss", "FROM \"boss\""},
                                    {"Junk", "SUBJECT \"junk\""}, {"Any", "SUBJECT \" \""}})
      ASSERT_TRUE(SRCH_AddRuleByName(kOptSession, "IMAP", name, key, "Message"));
    const std::vector<MailFilter> filters = {
        {"lists", "List", kFilterMove, "Lists", false, true},
        {"boss", "Boss", kFilterCopy, "Archive", true, true},
        {"boss flag", "Boss", kFilterFlag, "", false, true},   // after a stop: never
        {"off", "Any", kFilterDelete, "", false, false},        // disabled
        {"read", "Any", kFilterMarkRead, "", false, true},
        {"junk", "Junk", kFilterMove, "NoSuchFolder", false, true},
        {"flag junk", "Junk", kFilterFlag, "", false, true},    // runs after the failure
    };
    ASSERT_EQ(FLT_Save(number, filters), 1);
    FLT_Init();
    const int inbox = MM_FolOpen(ms, "INBOX");
    ASSERT_NE(inbox, INVALID_FOLDER) << Posts();
    Arrive(ms, inbox, {"list a", "boss b", "junk c", "plain d"});
    EXPECT_NE(Posts().find("Filter \"junk\": the messages stay where they are"), std::string::npos) << Posts();
    const char* const inbox_after = "list a:D,boss b:,junk c:SF,plain d:S,";
    EXPECT_EQ(Held(ms, "Lists"), "list a:,");
    EXPECT_EQ(Held(ms, "Archive"), "boss b:,");
    // A second tick brings one more; only that one is filtered, and the
    // boss's message is not copied again.
    xvt_test_clear_posts();
    unexpected_.clear();
    Arrive(ms, inbox, {"list e"});
    EXPECT_EQ(Posts().find("error"), std::string::npos) << Posts();
    EXPECT_EQ(Held(ms, "Lists"), "list a:,list e:,");
    EXPECT_EQ(Held(ms, "Archive"), "boss b:,");
    MM_FolClose(inbox, 1);
    EXPECT_EQ(Held(ms, "INBOX"), std::string(inbox_after) + "list e:D,");
    EXPECT_EQ(Held(ms, "NoSuchFolder"), "(none)");
    unexpected_.clear();
  }
  imap_test::Dovecot server_;
};

TEST_F(FiltersPeer, FileNewMailOnTheServer) {
  const int remote = RemoteService();
  ASSERT_NE(remote, INVALID_SERVICE) << "no Dovecot (package dovecot-imapd)";
  Scenario(remote);
}

TEST_F(FiltersPeer, FileNewMailInALocalInbox) { Scenario(local_); }

}  // namespace
