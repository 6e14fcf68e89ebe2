// The outbox emptied through a real SMTP server (tests/peers/smtp-aiosmtpd.sh):
// in the foreground, and by the background sender started for real.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "c-client/auth/auth.h"
#include "c-client/net/tcp.h"
#include "src/base/filenames.h"
#include "src/options/options.h"
#include "src/send/channel.h"
#include "src/send/send.h"
#include "src/send/submit.h"
#include "tests/model/model_fixture.h"
#include "tests/send/message_records.h"
#include "tests/send/smtp_sink.h"

namespace {

class OutboxPeer : public SmtpModelTest {
 protected:
  void TearDown() override {
    SDDE_StopServer();
    SUBMIT_SetProgramForTest("");
    SDDE_SetWaitsForTest(0, 0);
    AUTH_ForgetLogin();
    SmtpModelTest::TearDown();
  }
  // Puts a message in the outbox the way the compose window does.
  void Queue(const char* subject, const char* to, int save, int priority = 1, int receipt = 0) {
    const std::string words = std::string("Text of ") + subject + "\n.dot line\n";
    Message* m = TextMessage(words, Addr(to, "example.net"), subject);
    SendOptions options;
    options.queued = 1;
    options.save_outgoing = static_cast<int16_t>(save);
    options.priority = priority;
    options.read_receipt = static_cast<int16_t>(receipt);
    ASSERT_EQ(send_message(m, &options), 1) << Posts();
    mail_free_message(&m);
  }
  std::string AllDelivered() {
    std::string all;
    for (const std::string& e : sink_.Delivered("eml")) all += e + "\n=====\n";
    return all;
  }

};

TEST_F(OutboxPeer, EachQueuedMessageLeavesOrStays) {
  struct Queued {
    const char* subject;
    const char* to;
    int save;
    bool deleted;
    int priority;  // 1 is normal
    int receipt;
  };
  struct Case {
    const char* name;
    std::vector<Queued> queued;
    int gone;
    std::vector<size_t> delivered;  // which of the queued, in order
    long left;                      // in the outbox afterwards
    long sent_copies;
  };
  const Case cases[] = {
      {"deleted counts as gone, unsent", {{"Withdrawn", "you", 0, true, 1, 0}}, 1, {}, 0, 0},
      {"asked-for copy made as it leaves, priority and receipt kept",
       {{"Keep a copy", "you", 1, false, 2, 1}}, 1, {0}, 0, 1},
      {"a refused recipient stays, the next goes",
       {{"To nobody", "reject", 1, false, 1, 0}, {"To you", "you", 0, false, 0, 0}}, 1, {1}, 1, 0},
  };
  const size_t npos = std::string::npos;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const size_t before = sink_.Delivered("eml").size();
    const long sent_before = Count("sent");
    for (const Queued& q : c.queued) Queue(q.subject, q.to, q.save, q.priority, q.receipt);
    ASSERT_EQ(Count("outbox"), static_cast<long>(c.queued.size()));
    const int id = OUTBOX_Open();
    ASSERT_NE(id, INVALID_FOLDER);
    for (size_t i = 0; i < c.queued.size(); ++i)
      if (c.queued[i].deleted) MM_MsgSetFlag(MM_UMIFromMsgno(id, i + 1), "\\Deleted");
    OUTBOX_Close(id);
    xvt_test_clear_posts();
    // Views hold their redraws while the messages leave and get them back
    // afterwards, also when one of them stays.
    struct Seen {
      int depth = 0, changes = 0, outside = 0;
    } seen;
    const int watch = MM_NotRegister(
        [](ModelEvent* e, void*) {
          return e->type <= E_MSG_EXPUNGED || e->type == E_BATCH_BEGIN || e->type == E_BATCH_END ? 1 : 0;
        },
        [](ModelEvent* e, void* data) {
          auto* s = static_cast<Seen*>(data);
          if (e->type == E_BATCH_BEGIN || e->type == E_BATCH_END) {
            s->depth += e->type == E_BATCH_BEGIN ? 1 : -1;
            return;
          }
          ++s->changes;
          if (s->depth <= 0) ++s->outside;
        },
        &seen, "outbox test");
    EXPECT_EQ(Mob_ProcessOutbox(), c.gone) << Posts();
    MM_NotUnregister(watch);
    EXPECT_GT(seen.changes, 0);
    EXPECT_EQ(seen.outside, 0);
    EXPECT_EQ(seen.depth, 0);
    const auto eml = sink_.Delivered("eml");
    ASSERT_EQ(eml.size() - before, c.delivered.size()) << AllDelivered();
    for (size_t i = 0; i < c.delivered.size(); ++i) {
      const std::string& got = eml[before + i];
      const Queued& q = c.queued[c.delivered[i]];
      EXPECT_NE(got.find(std::string("Subject: ") + q.subject + "\r\n"), npos) << got;
      EXPECT_NE(got.find(std::string("Text of ") + q.subject + "\r\n.dot line\r\n"), npos) << got;
      EXPECT_EQ(got.find("X-Save-Outgoing"), npos) << got;
      const char* priority = q.priority > 1 ? "Priority: HIGH\r\n" : "Priority: LOW\r\n";
      EXPECT_TRUE(q.priority == 1 || got.find(priority) != npos) << got;
      // A receipt is asked for once, or not at all.
      EXPECT_EQ(got.find("\r\nRead-Receipt-To: me@example.org\r\n") != npos, q.receipt == 1) << got;
      EXPECT_EQ(got.find("Read-Receipt-To", got.find("Read-Receipt-To") + 1), npos) << got;
      // The message leaves with a date and an id of its own leaving, once.
      const size_t at = got.find("\r\nMessage-ID: ");
      ASSERT_NE(at, npos) << got;
      EXPECT_EQ(got.find("\r\nMessage-ID: ", at + 1), npos) << got;
      EXPECT_EQ(got.find("MIME-Version: 1.0\r\nMIME-Version"), npos) << got;
    }
    EXPECT_EQ(Count("outbox"), c.left);
    EXPECT_EQ(Count("sent") - sent_before, c.sent_copies);
    // What stayed is whole and still waits, marked as before.
    if (c.left) {
      const int again = OUTBOX_Open();
      ASSERT_NE(again, INVALID_FOLDER);
      EXPECT_EQ(Subject(MM_UMIFromMsgno(again, 1)), "To nobody");
      EXPECT_FALSE(MM_MsgIsDeleted(MM_UMIFromMsgno(again, 1)));
      MM_MsgSetFlag(MM_UMIFromMsgno(again, 1), "\\Deleted");
      MM_FolExpunge(again);
      OUTBOX_Close(again);
    }
  }
}

TEST_F(OutboxPeer, TheExitQuestionSendsWhatWaits) {
  Queue("At exit", "you", 0);
  Opt_AssignInt("General.TCPConnectOk", 1, kOptSession, 0);
  struct Case {
    ASK_RESPONSE answer;
    int goes_on;
    size_t delivered;
  };
  const Case cases[] = {{RESP_3, 0, 0}, {RESP_2, 1, 0}, {RESP_DEFAULT, 1, 1}};
  for (const Case& c : cases) {
    xvt_test_clear_posts();
    xvt_test_push_answer(c.answer);
    EXPECT_EQ(SUBMIT_OfferSendAtExit(), c.goes_on);
    EXPECT_NE(Posts().find("There are unsent messages in your outbox. Do you want to send them now"),
              std::string::npos);
    EXPECT_EQ(sink_.Delivered("eml").size(), c.delivered);
  }
  // Nothing left: no question.
  xvt_test_clear_posts();
  EXPECT_EQ(SUBMIT_OfferSendAtExit(), 1);
  EXPECT_EQ(Posts(), "");
}

// velmar-submit started for real: it asks us for the login, sends the
// outbox to the server, and tells us; our open outbox then shows it empty.
TEST_F(OutboxPeer, BackgroundSenderFlushesAndTellsTheProgram) {
  Queue("First", "you", 0);
  Queue("Second", "you", 1);
  ASSERT_EQ(Opt_SaveToTCL(), 1);
  SUBMIT_SetProgramForTest(VELMAR_TEST_BINARY_DIR "/tools/velmar-submit");
  setenv("VELMAR_SUBMIT_TRACE", (home_ + "/submit-trace.txt").c_str(), 1);
  setenv("SSL_CERT_FILE", sink_.env["CAFILE"].c_str(), 1);
  ASSERT_EQ(SDDE_StartServer(), 1);
  const int id = OUTBOX_Open();
  ASSERT_NE(id, INVALID_FOLDER);
  ASSERT_EQ(MM_FolGetNumMsgs(id), 2);
  // The session's login, as a successful open leaves it.
  AUTH_InitLogin("testuser", "secret");
  seen_.clear();
  ASSERT_EQ(SUBMIT_FlushOutbox(), 1) << Posts();
  // The background sender goes on after its answer; we keep serving.
  for (int i = 0; i < 600 && MM_FolGetNumMsgs(id) != 0; ++i) SDDE_Pump(50);
  EXPECT_EQ(MM_FolGetNumMsgs(id), 0) << ReadFile(home_ + "/submit-trace.txt");
  EXPECT_FALSE(Types({E_MSG_EXPUNGED}).empty());
  EXPECT_EQ(Count("outbox"), 0);
  EXPECT_EQ(Count("sent"), 1);
  const auto json = sink_.Delivered("json");
  ASSERT_EQ(json.size(), 2u);
  // The login reached it over the channel; it never was on a command line.
  EXPECT_NE(json[0].find("testuser"), std::string::npos) << json[0];
  OUTBOX_Close(id);
  // Asked to go down (Send.Background unset), it ends and takes its socket.
  const std::string socket = ChannelPath(GetUserDir(), "SUBMIT");
  for (int i = 0; i < 100 && std::filesystem::exists(socket); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(std::filesystem::exists(socket));
  unsetenv("VELMAR_SUBMIT_TRACE");
  unsetenv("SSL_CERT_FILE");
}

}  // namespace
