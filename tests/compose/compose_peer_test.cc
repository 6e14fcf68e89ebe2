// Compose windows sending through a real SMTP server
// (tests/peers/smtp-aiosmtpd.sh) into a model with local MH folders: the
// bytes that arrive are what the window held, and the sent-mail folder
// keeps the same message.
#include <filesystem>

#include "editor/edisxvt/edit_window.h"
#include "src/compose/compose.h"
#include "src/options/options.h"
#include "tests/organizer/nodes_fixture.h"
#include "tests/send/smtp_sink.h"

namespace {

// The message text as the user left it (the editor control holds it; the
// program's own setting would also mark it as saved).
void SetBody(WINDOW win, const char* text) { txedit_set_text(ComposeInfoOf(win)->text_pane, text); }

const char kOriginal[] =
    "From: Ann Example <ann@example.org>\r\nTo: me@example.org\r\nSubject: Plans\r\n"
    "Date: Mon, 2 Nov 2026 10:00:00 +0000\r\nMessage-ID: <plans.2@example.org>\r\n\r\nShall we?\r\n";

class ComposePeer : public nodestest::NodesTest {
 protected:
  void SetUp() override {
    NodesTest::SetUp();
    ASSERT_TRUE(sink_.Start());
    Opt_AssignString("General.MailAddress", "me@example.org", kOptPermanent, 0);
    Opt_AssignString("General.Fullname", "Me Myself", kOptPermanent, 0);
    Opt_AssignString("General.DeliveryHost", ("127.0.0.1:" + sink_.env["PORT"] + "/notls").c_str(), kOptPermanent, 0);
    Opt_AssignString("Compose.SentmailFolder", "Local!sent", kOptPermanent, 0);
    Opt_AssignString("Compose.SaveOutgoing", "TRUE", kOptPermanent, 0);
    Opt_AssignString("Reply.Text", "Always", kOptPermanent, 0);
    ASSERT_TRUE(MM_FolCreate(local_, "sent", 1));
    MakeFolder("inbox", std::vector<std::string>{kOriginal});
  }
  SmtpSink sink_;
};

TEST_F(ComposePeer, ReplyAndForwardArriveAsComposed) {
  struct Case {
    bool forward;
    std::vector<std::string> expected;
  } cases[] = {
      {false,
       {"From: Me Myself <me@example.org>\r\n", "To: Ann Example <ann@example.org>\r\n", "Subject: Re: Plans\r\n",
        "In-Reply-To: <plans.2@example.org>\r\n", "References: <plans.2@example.org>\r\n",
        "Yes, Thursday.\r\nOn Mon, 2 Nov 2026 10:00:00 +0000 Ann Example <ann@example.org> wrote:\r\n> Shall we?\r\n"}},
      {true,
       {"To: dave@example.net\r\n", "Subject: fwd: Plans\r\n", "Content-Type: MESSAGE/RFC822",
        "Message-ID: <plans.2@example.org>\r\n\r\nShall we?\r\n", "Yes, Thursday.\r\n"}},
  };
  Run([&] {
    const int folder = MM_FolOpen(local_, "inbox");
    const UMI umi = MM_UMIFromMsgno(folder, 1);
    ASSERT_TRUE(umi);
    size_t n = 0;
    for (const Case& c : cases) {
      WINDOW win = c.forward ? compose_forward(umi, 1) : compose_reply(umi, 0);
      ASSERT_TRUE(win);
      ComposeInfo* info = ComposeInfoOf(win);
      if (c.forward) {
        xvt_test_type(win, kComposeToId, "dave@example.net");
        SetBody(win, "Yes, Thursday.\n");
      } else {
        // Typed above the quotation the reply starts with.
        SetBody(win, ("Yes, Thursday." + txedit_get_text(info->text_pane)).c_str());
      }
      ASSERT_EQ(send_mail(win), 1) << Posts();
      EXPECT_FALSE(ComposeInfoOf(win)) << "the window closes after a send";
      const auto eml = sink_.Delivered("eml");
      ASSERT_EQ(eml.size(), ++n);
      for (const std::string& e : c.expected) EXPECT_NE(eml.back().find(e), std::string::npos) << e << "\n" << eml.back();
      const auto json = sink_.Delivered("json");
      EXPECT_NE(json.back().find(c.forward ? "dave@example.net" : "ann@example.org"), std::string::npos) << json.back();
      EXPECT_EQ(Count("sent"), static_cast<long>(n));
      // The sent-mail copy is the same message.
      const int sent = MM_FolOpen(local_, "sent");
      MM_FolCheckNewMail(sent, 0);
      const UMI copy = MM_UMIFromMsgno(sent, static_cast<unsigned long>(MM_FolGetNumMsgs(sent)));
      EXPECT_EQ(MM_MsgHeaderContent(copy, "Subject").value_or(""), c.forward ? "fwd: Plans" : "Re: Plans");
    }
    EXPECT_TRUE(MM_MsgIsAnswered(umi));
    const auto autosaved = ComposeAutosaveDir();
    EXPECT_TRUE(!std::filesystem::exists(autosaved) || std::filesystem::is_empty(autosaved));
  });
}

}  // namespace
