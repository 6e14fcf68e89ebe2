// Compose windows on the headless toolkit over local MH folders: what a
// reply or forward starts with, the message record Send builds, drafts
// saved and restarted, the exit question, aliases, and the autosave file
// that outlives a crash.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "editor/edisxvt/edit_window.h"
#include "src/compose/compose.h"
#include "src/compose/compose_text.h"
#include "src/options/options.h"
#include "src/send/send.h"
#include "src/viewer/viewer_internal.h"
#include "tests/organizer/nodes_fixture.h"

namespace {

// The message text as the user left it (the editor control holds it; the
// program's own setting would also mark it as saved).
void SetBody(WINDOW win, const char* text) { txedit_set_text(ComposeInfoOf(win)->text_pane, text); }

namespace fs = std::filesystem;

const char kOriginal[] =
    "From: Ann Example <ann@example.org>\r\nTo: me@example.org, Team: bob@example.net;\r\nCc: Carol <carol@example.com>\r\n"
    "Subject: Plans\r\nDate: Mon, 2 Nov 2026 10:00:00 +0000\r\nMessage-ID: <plans.2@example.org>\r\n"
    "References: <start.1@example.org>\r\n\r\nFirst line\r\nSecond line\r\n";

class ComposeTest : public nodestest::NodesTest {
 protected:
  void SetUp() override {
    NodesTest::SetUp();
    Opt_AssignString("General.MailAddress", "me@example.org", kOptPermanent, 0);
    Opt_AssignString("General.Fullname", "Me Myself", kOptPermanent, 0);
    Opt_AssignString("Compose.DraftFolder", "Local!drafts", kOptPermanent, 0);
    Opt_AssignString("General.OutboxFolder", "Local!outbox", kOptPermanent, 0);
    ASSERT_TRUE(MM_FolCreate(local_, "drafts", 1));
    ASSERT_TRUE(MM_FolCreate(local_, "outbox", 1));
  }
  void TearDown() override {
    for (WINDOW w : ComposeWindows()) xvt_vobj_destroy(w);
    ComposeSetAliasLookup(nullptr);
    NodesTest::TearDown();
  }
  UMI Original(const std::string& raw = kOriginal) {
    const std::string name = "in" + std::to_string(++folders_);
    MakeFolder(name, std::vector<std::string>{raw});
    const int id = MM_FolOpen(local_, name.c_str());
    return MM_UMIFromMsgno(id, 1);
  }
  static std::string Text(WINDOW win) { return ComposeTextGet(ComposeInfoOf(win)->text_pane); }
  static bool Has(const std::string& s, const std::string& part) { return s.find(part) != std::string::npos; }
  int folders_ = 0;
};

TEST_F(ComposeTest, SubjectPrefixes) {
  struct Case {
    bool reply;
    const char* subject;
    const char* location;  // Forward.Subject.Location
    const char* expected;
  } cases[] = {
      {true, "x", nullptr, "Re: x"},
      {true, "RE: x", nullptr, "RE: x"},        // any case, anywhere
      {true, "Prepare", nullptr, "Prepare"},    // even inside a word
      {true, "", nullptr, "Re: -- No Subject --"},
      {false, "x", nullptr, "fwd: x"},
      {false, "x", "Suffix", "x <fwd>"},
      {false, "FWD: x", "Suffix", "FWD: x"},
  };
  for (const Case& c : cases) {
    Opt_AssignString("Forward.Subject.Location", c.location ? c.location : "", kOptSession, 0);
    const std::string got = c.reply ? ComposeReplySubject(c.subject) : ComposeForwardSubject(c.subject);
    EXPECT_EQ(got, c.expected) << c.subject;
  }
}

TEST_F(ComposeTest, ReplyAddressesThreadingAndQuotedText) {
  Run([&] {
    struct Case {
      const char* reply_all_option;
      int answer;  // to question 3011, 0 when none may be asked
      int all;     // the command's own choice
      const char* cc;
    } cases[] = {
        {"Never", 0, -1, ""},
        {"Always", 0, -1, "Carol <carol@example.com>, bob@example.net"},
        {nullptr, RESP_DEFAULT, -1, "Carol <carol@example.com>, bob@example.net"},
        {nullptr, RESP_2, -1, ""},
        {"Never", 0, 1, "Carol <carol@example.com>, bob@example.net"},
    };
    Opt_AssignString("Reply.Text", "Always", kOptSession, 0);
    for (const Case& c : cases) {
      Opt_AssignString("Reply.All", c.reply_all_option ? c.reply_all_option : "", kOptSession, 0);
      if (c.answer) xvt_test_push_answer(static_cast<ASK_RESPONSE>(c.answer));
      const UMI umi = Original();
      WINDOW win = compose_reply(umi, c.all);
      ASSERT_TRUE(win);
      EXPECT_TRUE(MM_MsgIsRead(umi));
      const ComposeFields f = ComposeGetFields(ComposeInfoOf(win));
      EXPECT_EQ(f.to, "Ann Example <ann@example.org>");
      EXPECT_EQ(f.cc, c.cc) << (c.reply_all_option ? c.reply_all_option : "ask");
      EXPECT_EQ(f.subject, "Re: Plans");
      const std::string m = Built(win);
      EXPECT_TRUE(Has(m, "In-Reply-To: <plans.2@example.org>\r\n")) << m;
      EXPECT_TRUE(Has(m, "References: <start.1@example.org> <plans.2@example.org>\r\n")) << m;
      EXPECT_TRUE(Has(m, "On Mon, 2 Nov 2026 10:00:00 +0000 Ann Example <ann@example.org> wrote:\r\n"
                         "> First line\r\n> Second line\r\n")) << m;
      xvt_vobj_destroy(win);
    }
    // Reply to all where every address is the user's own asks nothing (an
    // unanswered question fails the test).
    const UMI umi = Original(
        "From: Me <ME@example.org>\r\nTo: me@example.org\r\nCc: me@Example.ORG\r\nSubject: note\r\n\r\nhi\r\n");
    Opt_AssignString("Reply.All", "", kOptSession, 0);
    Opt_AssignString("Reply.Text", "Never", kOptSession, 0);
    WINDOW win = compose_reply(umi, -1);
    ASSERT_TRUE(win);
    EXPECT_EQ(ComposeGetFields(ComposeInfoOf(win)).cc, "");
    EXPECT_EQ(Text(win), "\n");
  });
}

TEST_F(ComposeTest, ViewerCommandsOpenComposeWindows) {
  Run([&] {
    Opt_AssignString("Reply.Text", "Never", kOptSession, 0);
    Opt_AssignString("Forward.Attachment", "Always", kOptSession, 0);
    struct Case {
      int command;
      const char* title;
      const char* cc;
      bool to_first;  // the caret in To, else in the text
    } cases[] = {{M_VIEW_REPLY_ALL, "Reply", "Carol <carol@example.com>, bob@example.net", false},
                 {M_VIEW_FORWARD, "Forward", "", true},
                 {M_VIEW_RESTART, "Restart Compose", "Carol <carol@example.com>", false},
                 {M_VIEW_COMPOSE, "Compose", "", true}};
    const UMI umi = Original();
    spawnViewer(umi, nullptr);
    WINDOW viewer = viewerFind(umi);
    ASSERT_TRUE(viewer);
    for (const Case& c : cases) {
      doMenu(viewer, c.command);
      ASSERT_FALSE(ComposeWindows().empty()) << c.title;
      WINDOW win = ComposeWindows().back();
      EXPECT_EQ(Title(win), c.title);
      EXPECT_EQ(ComposeGetFields(ComposeInfoOf(win)).cc, c.cc) << c.title;
      const ComposeInfo* info = ComposeInfoOf(win);
      EXPECT_EQ(xvt_scr_get_focus_vobj(), c.to_first ? info->address_panel[0] : info->text_pane) << c.title;
      xvt_vobj_destroy(win);
    }
    xvt_vobj_destroy(viewer);
  });
}

TEST_F(ComposeTest, QuotingPrefixAndWrap) {
  struct Case {
    const char* prefix;
    int width;  // 150 when the original is not wrapped
    const char* text;
    const char* expected;
  } cases[] = {
      {"> ", 150, "a\nb\n", "> a\n> b\n"},
      {"| ", 150, "a\r\n\r\nb", "| a\n| \n| b\n"},
      {"> ", 12, "one two three four five", "> one two\n> three four\n> five\n"},
      {"> ", 150, "one two three four five", "> one two three four five\n"},
  };
  for (const Case& c : cases) EXPECT_EQ(ComposeQuoteText(c.text, c.prefix, c.width), c.expected) << c.text;
}

TEST_F(ComposeTest, ForwardInlineAndAsAttachment) {
  Run([&] {
    for (int as_attachment : {0, 1}) {
      const UMI umi = Original();
      WINDOW win = compose_forward(umi, as_attachment);
      ASSERT_TRUE(win);
      ComposeInfo* info = ComposeInfoOf(win);
      EXPECT_EQ(ComposeGetFields(info).subject, "fwd: Plans");
      ASSERT_TRUE(xvt_test_type(win, kComposeToId, "dave@example.net"));
      const std::string m = Built(win);
      if (as_attachment) {
        EXPECT_EQ(info->options.kind, kComposeNew);
        ASSERT_EQ(info->attachment_list.size(), 1u);
        EXPECT_TRUE(Has(m, "Content-Type: MESSAGE/RFC822")) << m;
        EXPECT_TRUE(Has(m, "Message-ID: <plans.2@example.org>\r\nReferences: <start.1@example.org>\r\n\r\nFirst line\r\n"))
            << m;
        EXPECT_FALSE(Has(m, "Begin Forwarded"));
      } else {
        EXPECT_TRUE(Has(m, "--- Begin Forwarded Message ---\r\nDate: Mon, 2 Nov 2026 10:00:00 +0000\r\n"
                           "From: Ann Example <ann@example.org>\r\nSubject: Plans\r\n"))
            << m;
        EXPECT_TRUE(Has(m, "First line\r\nSecond line\r\n--- End Forwarded Message ---\r\n")) << m;
        EXPECT_FALSE(Has(m, "In-Reply-To"));
      }
      xvt_vobj_destroy(win);
    }
  });
}

TEST_F(ComposeTest, EmptyOrUnreadableToStopsSendAndKeepsTheText) {
  Run([&] {
    for (const char* to : {"", "  ,  ", "<<<"}) {
      WINDOW win = compose_new();
      ASSERT_TRUE(win);
      xvt_test_type(win, kComposeToId, to);
      SetBody(win, "precious words");
      xvt_test_clear_posts();
      EXPECT_EQ(send_mail(win), 0) << to;
      ASSERT_TRUE(ComposeInfoOf(win)) << to;
      EXPECT_EQ(Text(win), "precious words");
      EXPECT_NE(Posts().find("The <To:> field is invalid"), std::string::npos) << to << "\n" << Posts();
      xvt_test_push_answer(RESP_2);  // let it go
      EXPECT_EQ(compose_close(win), 1);
    }
  });
}

// A text that speaks of an attachment when none is attached is asked about
// before it goes; quoted lines, longer words and a blank word list are not.
TEST_F(ComposeTest, AMentionedAttachmentThatIsMissingIsAskedAbout) {
  const struct {
    const char* words;  // Compose.AttachmentWords; null: the site default
    const char* body;
    bool asked;
  } cases[] = {{nullptr, "Here is the report, ATTACHED.\n", true},
               {nullptr, "> see attached\nthanks\n", false},
               {nullptr, "the reattached handle\n", false},
               {"", "see attached\n", false}};
  Run([&] {
    int queued = 0;
    for (const auto& c : cases) {
      if (c.words) Opt_AssignString("Compose.AttachmentWords", c.words, kOptSession, 0);
      WINDOW win = compose_new();
      ASSERT_TRUE(win);
      xvt_test_type(win, kComposeToId, "dave@example.net");
      SetBody(win, c.body);
      ComposeInfoOf(win)->options.queue_outgoing = 1;
      xvt_test_clear_posts();
      if (c.asked) xvt_test_push_answer(RESP_2);  // Cancel: the window stays as it is
      EXPECT_EQ(send_mail(win), c.asked ? 0 : 1) << c.body << Posts();
      EXPECT_EQ(Posts().find("nothing is attached") != std::string::npos, c.asked) << c.body;
      queued += c.asked ? 0 : 1;
      if (c.asked) {
        EXPECT_EQ(Text(win), c.body);
      }
    }
    EXPECT_EQ(Count("outbox"), queued);
  });
}

TEST_F(ComposeTest, DraftSaveAndRestartRoundTrip) {
  Run([&] {
    const std::string file = home_ + "/report.pdf";
    std::string bytes;
    for (int i = 0; i < 3000; ++i) bytes += static_cast<char>(i * 7 % 256);
    std::ofstream(file, std::ios::binary) << bytes;
    WINDOW win = compose_new();
    ASSERT_TRUE(win);
    xvt_test_type(win, kComposeToId, "Dave <dave@example.net>");
    xvt_test_type(win, kComposeCcId, "erin@example.net");
    xvt_test_type(win, kComposeBccId, "hidden@example.com");
    xvt_test_type(win, kComposeSubjectId, "Quarterly");
    SetBody(win, "Dear Dave,\nsee the report.\n");
    ASSERT_EQ(compose_attach_file(win, file.c_str()), 1);
    ASSERT_EQ(compose_save_draft(win), 1) << Posts();
    EXPECT_TRUE(ComposeInfoOf(win)) << "Save to Drafts keeps the window";
    EXPECT_FALSE(ComposeIsModified(ComposeInfoOf(win)));
    xvt_vobj_destroy(win);
    EXPECT_EQ(Count("drafts"), 1);
    const UMI draft = MM_UMIFromMsgno(MM_FolOpen(local_, "drafts"), 1);
    ASSERT_TRUE(draft);
    EXPECT_TRUE(MM_MsgIsDraft(draft));

    WINDOW again = compose_restart(draft);
    ASSERT_TRUE(again);
    ComposeInfo* info = ComposeInfoOf(again);
    const ComposeFields f = ComposeGetFields(info);
    EXPECT_EQ(f.to, "Dave <dave@example.net>");
    EXPECT_EQ(f.cc, "erin@example.net");
    EXPECT_EQ(f.bcc, "hidden@example.com");
    EXPECT_EQ(f.subject, "Quarterly");
    EXPECT_EQ(Text(again), "Dear Dave,\nsee the report.\n");
    ASSERT_EQ(info->attachment_list.size(), 1u);
    EXPECT_EQ(info->attachment_list[0].name, "report.pdf");
    EXPECT_EQ(ReadFile(info->attachment_list[0].path), bytes);

    // Queued, the restarted draft replaces the one in the folder.
    info->options.queue_outgoing = 1;
    ASSERT_EQ(send_mail(again), 1) << Posts();
    EXPECT_TRUE(MM_MsgIsDeleted(draft));
    EXPECT_EQ(Count("outbox"), 1);
    EXPECT_EQ(ReadFile(file), bytes) << "the user's own file is never touched";
  });
}

TEST_F(ComposeTest, ExitQuestionCanVetoShutdown) {
  Run([&] {
    struct Case {
      const char* text;  // null: an untouched window, which asks nothing and lets the program go
      ASK_RESPONSE answer;
      bool window_stays;  // and the exit is called off
      long drafts;
    } cases[] = {{"unsent thoughts", RESP_3, true, 0},
                 {"unsent thoughts", RESP_2, false, 0},
                 {"unsent thoughts", RESP_DEFAULT, false, 1},
                 {nullptr, RESP_DEFAULT, false, 0}};
    long drafts_before = 0;
    for (const Case& c : cases) {
      SCOPED_TRACE(std::string(c.text ? "answer " : "untouched ") + std::to_string(c.answer));
      WINDOW win = compose_new();
      ASSERT_TRUE(win);
      if (c.text) {
        xvt_test_type(win, kComposeToId, "dave@example.net");
        SetBody(win, c.text);
        xvt_test_push_answer(c.answer);
      }
      const std::string autosave_dir = ComposeAutosaveDir();
      Opt_AssignInt("General.ExitVelmar", 1, kOptSession, 0);
      MM_NotPostSimple(E_EXIT_QUERY);
      short go_on = -1;
      Opt_LookupBoolean("General.ExitVelmar", &go_on, kOptSession);
      EXPECT_EQ(go_on, c.window_stays ? 0 : 1);
      EXPECT_EQ(ComposeInfoOf(win) != nullptr, c.window_stays);
      const long drafts = Count("drafts");
      EXPECT_EQ(drafts - drafts_before, c.drafts);
      drafts_before = drafts;
      if (c.window_stays) {
        // The text waits on disk while the window does.
        ASSERT_FALSE(ComposeInfoOf(win)->autosave_file.empty());
        EXPECT_NE(ReadFile(ComposeInfoOf(win)->autosave_file).find(c.text), std::string::npos);
        xvt_test_push_answer(RESP_2);
        ASSERT_EQ(compose_close(win), 1);
      }
      EXPECT_TRUE(!fs::exists(autosave_dir) || fs::is_empty(autosave_dir));
    }
  });
}

int BookLookup(const std::string& name, int fields, std::vector<AliasEntry>* hits) {
  if (name == "team" && (fields & kAliasAlias)) {
    *hits = {{"", "ann@example.org"}, {"Bob", "bob@example.net"}};
    return 1;
  }
  return 0;
}

TEST_F(ComposeTest, AliasExpansion) {
  Run([&] {
    Opt_AssignString("Compose.Alias.ann", "Ann Example <ann@example.org>", kOptSession, 0);
    Opt_AssignString("Compose.Alias.odd", "Smith, John <john@example.org>", kOptSession, 0);
    Opt_AssignString("Compose.Alias.blank", "Blank Person", kOptSession, 0);
    Opt_AssignString("Compose.Alias.pair", "a@x.org; Bee <b@y.org>", kOptSession, 0);
    struct Case {
      const char* in;
      int ok;
      const char* out;
    } cases[] = {
        {"ann", 1, "Ann Example <ann@example.org>"},
        {"ann@example.com", 1, "ann@example.com"},           // qualified: left alone
        {"nobody, ann", 1, "nobody, Ann Example <ann@example.org>"},
        {"odd", 1, "\"Smith, John\" <john@example.org>"},    // the name quoted for its comma
        {"blank", 0, "blank"},
        {"pair, ann", 1, "a@x.org, Bee <b@y.org>, Ann Example <ann@example.org>"},
    };
    for (const Case& c : cases) {
      std::string out;
      EXPECT_EQ(ComposeExpandField(c.in, kAliasName | kAliasAlias | kAliasEmail, &out), c.ok) << c.in;
      EXPECT_EQ(out, c.out) << c.in;
    }
    EXPECT_NE(Posts().find("but email field is blank"), std::string::npos);
    // The books, once there, answer instead of the options.
    ComposeSetAliasLookup(BookLookup);
    WINDOW win = compose_new();
    xvt_test_type(win, kComposeToId, "team");
    xvt_test_type(win, kComposeBccId, "ann");
    EXPECT_EQ(ExpandAllAddresses(win), 1);
    EXPECT_EQ(ComposeGetFields(ComposeInfoOf(win)).to, "ann@example.org, Bob <bob@example.net>");
    EXPECT_EQ(ComposeGetFields(ComposeInfoOf(win)).bcc, "ann");  // the books know no "ann"
    // With every book field switched off nothing is searched.
    for (const char* o : {"AddrBook.SearchName", "AddrBook.SearchAlias", "AddrBook.SearchEmail"})
      Opt_AssignString(o, "FALSE", kOptSession, 0);
    xvt_test_type(win, kComposeToId, "team");
    EXPECT_EQ(ExpandAllAddresses(win), 0);
    EXPECT_EQ(ComposeGetFields(ComposeInfoOf(win)).to, "team");
    EXPECT_NE(Posts().find("no book fields selected"), std::string::npos);
  });
}

TEST_F(ComposeTest, AutosaveFileParsing) {
  ComposeFields f;
  f.to = "a@b.c";
  f.subject = "multi\nline";
  f.references = "<x@y>";
  std::vector<ComposeAttachment> atts{{"/tmp/a b", "doc.pdf", "application/pdf", true}};
  const std::string good = ComposeAutosaveText(f, kComposeReply, atts, "body\n\nwith: colon\n", "begin form\nend\n",
                                               {"phonemsg.frm", "set phonemsg(for) \"Ann\"\n"});
  struct Case {
    std::string data;
    bool ok;
    const char* error;
  } cases[] = {
      {good, true, ""},
      {"Velmar-Autosave: 2\n\nx", false, "not an autosave file"},
      {"Velmar-Autosave: 1\nTo: a", false, "ends inside its header"},
      {"Velmar-Autosave: 1\nKind: 9\n\n", false, "kind is not known"},
      {"Velmar-Autosave: 1\nnonsense\n\n", false, "no name"},
      {"Velmar-Autosave: 1\nAttachment: a\tb\n\n", false, "incomplete"},
      {"Velmar-Autosave: 1\nTo: " + std::string(70000, 'x') + "\n\n", false, "too long"},
      {"Velmar-Autosave: 1\nForm: 30\n\nbegin form\n", false, "form is longer than the file"},
      {"Velmar-Autosave: 1\nForm: 3\nScript-Form: 3 p.frm\n\nabcde", false, "form is longer than the file"},
      {"Velmar-Autosave: 1\nScript-Form: 3\n\nabc", false, "values are longer"},
      {"Velmar-Autosave: 1\nScript-Form: -1 p.frm\n\nabc", false, "values are longer"},
  };
  for (const Case& c : cases) {
    ComposeFields g;
    int kind = -1;
    std::vector<ComposeAttachment> a;
    std::string text, error, form;
    ComposeScriptForm script;
    EXPECT_EQ(ComposeAutosaveParse(c.data, &g, &kind, &a, &text, &error, &form, &script), c.ok)
        << c.data.substr(0, 40);
    EXPECT_NE(error.find(c.error), std::string::npos) << error;
    if (!c.ok) continue;
    EXPECT_EQ(g.to, "a@b.c");
    EXPECT_EQ(g.subject, "multi line");
    EXPECT_EQ(g.references, "<x@y>");
    EXPECT_EQ(kind, kComposeReply);
    EXPECT_EQ(text, "body\n\nwith: colon\n");
    EXPECT_EQ(form + script.name + "|" + script.values, "begin form\nend\nphonemsg.frm|set phonemsg(for) \"Ann\"\n");
    ASSERT_EQ(a.size(), 1u);
    EXPECT_EQ(a[0].path, "/tmp/a b");
    EXPECT_EQ(a[0].name, "doc.pdf");
    EXPECT_TRUE(a[0].temporary);
  }
}

TEST_F(ComposeTest, AutosaveEveryMinuteAndRestoreAfterACrash) {
  Run([&] {
    WINDOW win = compose_new();
    ASSERT_TRUE(win);
    xvt_test_type(win, kComposeToId, "dave@example.net");
    xvt_test_type(win, kComposeSubjectId, "Lost?");
    SetBody(win, "Words that must survive.\n");
    ComposeInfo* info = ComposeInfoOf(win);
    EXPECT_TRUE(info->autosave_file.empty());
    xvt_test_advance_ms(kAutosavePeriodMs + 10);
    ASSERT_FALSE(info->autosave_file.empty());
    const std::string saved = ReadFile(info->autosave_file);
    EXPECT_NE(saved.find("Words that must survive."), std::string::npos);
    // The program "crashes": its file stays behind under a process that is gone.
    const pid_t child = fork();
    if (child == 0) _exit(0);
    waitpid(child, nullptr, 0);
    const std::string dir = ComposeAutosaveDir();
    const std::string orphan = dir + "/compose-" + std::to_string(child) + "-1.txt";
    fs::copy_file(info->autosave_file, orphan);
    std::ofstream(dir + "/compose-" + std::to_string(child) + "-2.txt") << "garbage";
    xvt_test_push_answer(RESP_2);
    ASSERT_EQ(compose_close(win), 1);

    struct Case {
      ASK_RESPONSE answer;
      bool restored, file_kept;
    } cases[] = {{RESP_2, false, true}, {RESP_DEFAULT, true, false}};
    for (const Case& c : cases) {
      xvt_test_clear_posts();
      xvt_test_push_answer(c.answer);
      EXPECT_EQ(COMP_OfferRestore(), c.restored ? 1 : 0);
      EXPECT_EQ(fs::exists(orphan), c.file_kept);
      EXPECT_NE(Posts().find("could not be read"), std::string::npos) << "the bad file is named, not lost";
      EXPECT_TRUE(fs::exists(dir + "/compose-" + std::to_string(child) + "-2.txt"));
    }
    ASSERT_EQ(ComposeWindows().size(), 1u);
    WINDOW back = ComposeWindows()[0];
    EXPECT_EQ(ComposeGetFields(ComposeInfoOf(back)).subject, "Lost?");
    EXPECT_EQ(Text(back), "Words that must survive.\n");
    EXPECT_TRUE(ComposeIsModified(ComposeInfoOf(back)));
    // The restored window keeps its own copy at once.
    EXPECT_TRUE(fs::exists(ComposeInfoOf(back)->autosave_file));
  });
}

}  // namespace

