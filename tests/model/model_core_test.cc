// The model's backbone in the running program: the service table and its
// names, open folders with use counts and UMI tables, the stream gate, and
// the mail layer's callbacks turned into model events.
#include <string>
#include <vector>

#include "c-client/core/mail.h"
#include "c-client/mh/mh_names.h"
#include "c-client/rfc822/strsrc.h"
#include "src/base/model_events.h"
#include "src/model/mm.h"
#include "tests/support/frame_fixture.h"

namespace {

struct Seen {
  int type;
  UMI umi;
  int folder;
  int value;
  unsigned long msgno_during;  // MM_UMIMsgno(umi) while the event is posted
};

std::vector<Seen>* g_seen = nullptr;

// Folder directories are named by the second they were made in; a clock
// that moves on at each question makes many folders without waiting.
long g_now = 2000000000;
long TestClock() { return ++g_now; }

int WantModel(ModelEvent* ev, void*) {
  return ev->type <= E_SHADOW_RELEASED || ev->type == E_NEW_MESSAGES || ev->type == E_FOLDER_CLOSED ||
         ev->type == E_FOLDER_STREAM_DIED || ev->type == E_FOLDER_EXPUNGED || ev->type == E_MS_CLOSED;
}
void Record(ModelEvent* ev, void*) {
  if (g_seen) g_seen->push_back({ev->type, ev->umi, ev->folder, ev->value, ev->umi ? MM_UMIMsgno(ev->umi) : 0});
}

class Model : public UserFrameTest {
 protected:
  void SetUp() override {
    UserFrameTest::SetUp();
    mh_set_clock_for_test(TestClock);
    g_seen = &seen_;
  }
  void TearDown() override {
    g_seen = nullptr;
    mh_set_clock_for_test(nullptr);
    UserFrameTest::TearDown();
  }

  // Runs body inside the started program with a local service in slot
  // `local_` and a recorder registered after the model's own notifier.
  void InProgram(const std::function<void()>& body) {
    Run({}, [&] {
      Opt_AssignString("MsgService.IDList", "1", kOptPermanent, 0);
      Opt_AssignString("MsgService.ms1.Name", "Local", kOptPermanent, 0);
      Opt_AssignString("MsgService.ms1.Type", "local", kOptPermanent, 0);
      local_ = MM_MSNew(1);
      const int recorder = MM_NotRegister(WantModel, Record, nullptr, "test recorder");
      body();
      MM_NotUnregister(recorder);
      Exit();
    });
    ExpectNoUnexpectedDialogs();
  }

  static void Append(const char* folder, int count, int first = 1) {
    for (int i = first; i < first + count; ++i) {
      std::string text = "From: a" + std::to_string(i) + "@example.org\r\nSubject: message " + std::to_string(i) +
                         "\r\nDate: Mon, 2 Nov 2026 10:00:00 +0000\r\n\r\nbody " + std::to_string(i) + "\r\n";
      StringSource source;
      string_init(&source, &mail_string, text.data(), text.size());
      ASSERT_TRUE(mail_append(nullptr, folder, nullptr, nullptr, &source)) << folder << " " << i;
    }
  }
  static void MakeFolder(const char* folder, int count) {
    ASSERT_TRUE(mail_create(nullptr, folder)) << folder;
    Append(folder, count);
  }
  static std::string Subject(UMI umi) {
    Envelope* env = nullptr;
    MailStream* stream = MM_FolStream(MM_UMIFolder(umi));
    unsigned long n = MM_UMIMsgno(umi);
    if (stream && n) env = mail_fetchstructure(stream, n, nullptr);
    return env && env->subject ? env->subject : "(none)";
  }
  std::vector<int> Types() const {
    std::vector<int> t;
    for (const Seen& s : seen_) t.push_back(s.type);
    return t;
  }

  int local_ = INVALID_SERVICE;
  std::vector<Seen> seen_;
};

TEST(ModelUmi, LayoutKeepsFieldsApartAndOrdersBySerial) {
  const UMI u = MM_UMIMake(49, 511, 0xfffffffe);
  EXPECT_EQ(MM_UMIFolder(u), 49);
  EXPECT_EQ(MM_UMIShadowSlot(u), 511);
  EXPECT_EQ(MM_UMISerial(u), 0xfffffffeu);
  EXPECT_TRUE(MM_MsgIsShadowMessage(u));
  EXPECT_EQ(MM_UMIBase(u), MM_UMIMake(49, 0, 0xfffffffe));
  EXPECT_FALSE(MM_MsgIsShadowMessage(MM_UMIBase(u)));
  // Serials beyond 16 bits stay serials: a big folder never spills into
  // the shadow slot.
  EXPECT_FALSE(MM_MsgIsShadowMessage(MM_UMIMake(3, 0, 100000)));
  EXPECT_LT(MM_UMIMake(3, 0, 65535), MM_UMIMake(3, 0, 65536));
}

TEST_F(Model, ServiceTypesStreamNamesAndCanonicalNames) {
  InProgram([&] {
    struct Type {
      const char* word;
      int code;
      const char* description;
    } types[] = {{"IMAP", 1, "Internet (IMAP) Folders"}, {"mail", 1, "Internet (IMAP) Folders"},
                 {"bboard", 2, "Internet (IMAP) News"},   {"nntp", 3, "Internet (NNTP) News"},
                 {"Pop", 4, "Internet (POP3) Folders"},   {"lmap", 5, "X.400 (LMAP) Folders"},
                 {"p7", 6, "X.400 (P7) Folders"},         {"mh", 7, "Local (File) Folders"},
                 {"smtp", 0, ""}};
    for (const Type& t : types) {
      EXPECT_EQ(MM_MSGetTypeByTypename(t.word), t.code) << t.word;
      EXPECT_STREQ(MM_MSGetTypedescByType(t.code), t.description) << t.word;
    }
    EXPECT_STREQ(MM_MSGetTypenameByType(7), "local");

    // Stream names by type and port; a missing Port takes the type's own.
    struct Name {
      const char* type;
      const char* host;
      const char* port;
      int ok;
      const char* name;
    } names[] = {
        {"imap", "mail.example.org", nullptr, 1, "{mail.example.org/service=imap2:143}"},
        {"imap", "mail.example.org", "1143", 1, "{mail.example.org/service=imap2:1143}"},
        {"bboard", "news.example.org", nullptr, 1, "{news.example.org/service=imap2:143}*"},
        {"nntp", "news.example.org", nullptr, 1, "{news.example.org/service=nntp:119}"},
        {"pop", "pop.example.org", "0", 1, "{pop.example.org/service=pop3:110}"},
        {"imap", "", nullptr, 0, ""},
        {"p7", "x400.example.org", nullptr, 0, ""},
        {"local", "", nullptr, 1, ""},
    };
    int number = 10;
    for (const Name& n : names) {
      const std::string key = "MsgService.ms" + std::to_string(number) + ".";
      Opt_AssignString((key + "Type").c_str(), n.type, kOptPermanent, 0);
      Opt_AssignString((key + "Hostname").c_str(), n.host, kOptPermanent, 0);
      if (n.port) Opt_AssignString((key + "Port").c_str(), n.port, kOptPermanent, 0);
      const int id = MM_MSNew(number++);
      ASSERT_NE(id, INVALID_SERVICE);
      std::string name;
      EXPECT_EQ(MM_CCGenSvcName(id, &name), n.ok) << n.type << " " << n.host;
      EXPECT_EQ(name, n.name) << n.type;
      MM_MSDestroy(id);
    }

    // Folder names: leading "*" and blanks go; a full name stays as it is.
    Opt_AssignString("MsgService.ms2.Type", "imap", kOptPermanent, 0);
    Opt_AssignString("MsgService.ms2.Hostname", "h", kOptPermanent, 0);
    Opt_AssignString("MsgService.ms2.Name", "Home", kOptPermanent, 0);
    const int home = MM_MSNew(2);
    EXPECT_EQ(MM_MSNew(2), home);  // the same number gives the same slot
    std::string full;
    EXPECT_TRUE(MM_CCGenFolName(home, "* INBOX", &full));
    EXPECT_EQ(full, "{h/service=imap2:143}INBOX");
    EXPECT_TRUE(MM_CCGenFolName(home, "{h/service=imap2:143}Sent", &full));
    EXPECT_EQ(full, "{h/service=imap2:143}Sent");

    // Canonical names both ways.
    EXPECT_EQ(MM_FolCanonNameBuild(home, "INBOX"), "Home!INBOX");
    EXPECT_EQ(MM_FolCanonNameBuild(INVALID_SERVICE, "INBOX"), "");
    struct Canon {
      const char* cname;
      int number;  // the service's ms number, -1 for none
      const char* name;
    } canon[] = {
        {"Home!INBOX", 2, "INBOX"},
        {"Home!  Lists\\velmar", 2, "Lists\\velmar"},
        {"5!Drafts", 5, "Drafts"},  // an ms number from older options makes the service
        {"xINBOX", -2, "INBOX"},    // the old form: slot 0, first character dropped
        {"Nowhere!INBOX", -1, "INBOX"},
    };
    for (const Canon& c : canon) {
      int id = -7;
      std::string name;
      MM_FolCanonNameParse(c.cname, &id, &name);
      EXPECT_EQ(name, c.name) << c.cname;
      const int want = c.number == -1 ? INVALID_SERVICE : c.number == -2 ? 0 : MM_MSNew(c.number);
      EXPECT_EQ(id, want) << c.cname;
    }

    // Getters are safe on none and on an empty slot.
    for (int id : {INVALID_SERVICE, kMaxServices - 1, -1}) {
      EXPECT_STREQ(MM_MSGetName(id), "");
      EXPECT_EQ(MM_MSGetPort(id), -1);
      EXPECT_EQ(MM_MSGetNumber(id), -1);
      EXPECT_EQ(MM_MSGetType(id), 7);
    }
  });
}

TEST_F(Model, OpenTwiceCountsUsesAndTheTableHoldsFifty) {
  InProgram([&] {
    MakeFolder("work", 3);
    const int id = MM_FolOpen(local_, "work");
    ASSERT_NE(id, INVALID_FOLDER);
    EXPECT_EQ(MM_FolOpen(local_, "work"), id);
    EXPECT_EQ(MM_FolGetNumMsgs(id), 3);
    EXPECT_EQ(MM_FolGetNumMsgsOnStream(id), 3);
    const UMI first = MM_UMIFromMsgno(id, 1);
    EXPECT_EQ(MM_UMIFolder(first), id);
    EXPECT_EQ(MM_UMIMsgno(first), 1u);
    EXPECT_EQ(MM_UMIMsgno(MM_UMIFromMsgno(id, 3)), 3u);
    EXPECT_EQ(MM_UMIFromMsgno(id, 4), 0u);
    EXPECT_EQ(Subject(MM_UMIFromMsgno(id, 2)), "message 2");

    // The first close is counted: it is heard, and the folder stays.
    MM_FolClose(id, 0);
    EXPECT_EQ(Types(), (std::vector<int>{E_FOLDER_CLOSED}));
    EXPECT_EQ(seen_[0].value, 0);
    EXPECT_TRUE(MM_FolStreamValid(id));
    MM_FolClose(id, 0);
    EXPECT_FALSE(MM_FolStreamValid(id));
    EXPECT_EQ(MM_UMIMsgno(first), 0u);
    EXPECT_EQ(MM_MsgIsRead(first), 0);

    // Fifty folders fill the table; ids beyond it are ignored.
    std::vector<int> ids;
    for (int i = 0; i < kMaxFolders; ++i) {
      std::string name = "f" + std::to_string(i);
      MakeFolder(name.c_str(), 0);
      ids.push_back(MM_FolOpen(local_, name.c_str()));
      ASSERT_NE(ids.back(), INVALID_FOLDER) << i;
    }
    MakeFolder("one-too-many", 0);
    EXPECT_EQ(MM_FolOpen(local_, "one-too-many"), INVALID_FOLDER);
    seen_.clear();
    MM_FolClose(60, 1);
    MM_FolClose(kMaxFolders, 1);
    MM_FolClose(INVALID_FOLDER, 1);
    EXPECT_TRUE(seen_.empty());
    // A forced close ends every use at once.
    MM_FolOpen(local_, "f7");
    MM_FolClose(ids[7], 1);
    EXPECT_FALSE(MM_FolStreamValid(ids[7]));
    EXPECT_EQ(seen_.back().value, 1);
    // The rest stay open until shutdown closes them.
  });
}

TEST_F(Model, NewMailAndExpungeKeepUmisOnTheirMessages) {
  InProgram([&] {
    MakeFolder("inbox2", 3);
    const int id = MM_FolOpen(local_, "inbox2");
    std::vector<UMI> before;
    for (unsigned long n = 1; n <= 3; ++n) before.push_back(MM_UMIFromMsgno(id, n));

    // Nothing new: nothing heard.
    EXPECT_TRUE(MM_FolCheckNewMail(id, 0));
    mm_exists(MM_FolStream(id), 3);
    mm_exists(MM_FolStream(id), 2);
    EXPECT_TRUE(seen_.empty());

    Append("inbox2", 2, 4);
    xvt_test_clear_posts();
    EXPECT_TRUE(MM_FolCheckNewMail(id, 1));
    ASSERT_EQ(Types(), (std::vector<int>{E_NEW_MESSAGES}));
    EXPECT_EQ(seen_[0].value, 3);
    EXPECT_EQ(seen_[0].folder, id);
    EXPECT_EQ(Posts(), "attention: \nbeep: \n");
    EXPECT_EQ(MM_FolGetNumMsgs(id), 5);
    EXPECT_EQ(MM_UMISerial(MM_UMIFromMsgno(id, 4)), MM_UMISerial(before[2]) + 1);
    EXPECT_EQ(Subject(MM_UMIFromMsgno(id, 5)), "message 5");

    // Expunge message 2: listeners still find it; afterwards it is gone and
    // the later messages keep their UMIs under new numbers.
    MailStream* stream = MM_FolStream(id);
    mail_setflag(stream, "2", "\\Deleted");
    seen_.clear();
    EXPECT_TRUE(MM_FolExpunge(id));
    ASSERT_EQ(Types(), (std::vector<int>{E_MSG_EXPUNGED, E_FOLDER_EXPUNGED}));
    EXPECT_EQ(seen_[0].umi, before[1]);
    EXPECT_EQ(seen_[0].msgno_during, 2u);
    EXPECT_EQ(MM_UMIMsgno(before[1]), 0u);
    EXPECT_EQ(MM_UMIGetElt(before[1]), nullptr);
    EXPECT_EQ(MM_UMIMsgno(before[2]), 2u);
    EXPECT_EQ(Subject(before[2]), "message 3");
    EXPECT_EQ(MM_FolGetNumMsgs(id), 4);

    // The driver's count decides: a second report for a number past the
    // end changes nothing, one inside shifts again.
    seen_.clear();
    mm_expunged(stream, 9);
    EXPECT_TRUE(seen_.empty());
    EXPECT_EQ(MM_FolGetNumMsgs(id), 4);
  });
}

TEST_F(Model, ADeadStreamIsReportedOnceAndHandlersMayReopenOrClose) {
  InProgram([&] {
    MakeFolder("remote", 2);
    for (int reopen : {1, 0}) {
      const int id = MM_FolOpen(local_, "remote");
      const UMI umi = MM_UMIFromMsgno(id, 2);
      struct Handler {
        static int Want(ModelEvent* ev, void*) { return ev->type == E_FOLDER_STREAM_DIED; }
        static void Handle(ModelEvent* ev, void* data) {
          if (*static_cast<int*>(data)) {
            MM_FolReOpen(ev->folder);
          } else {
            MM_FolClose(ev->folder, 1);
          }
        }
      };
      const int handler = MM_NotRegister(Handler::Want, Handler::Handle, &reopen, "window");
      seen_.clear();
      xvt_test_push_answer(RESP_DEFAULT);  // not asked: the error is a post
      mm_notify(MM_FolStream(id), "[ALERT] Server shutting down", 4);
      EXPECT_NE(Posts().find("error: [ALERT] Server shutting down"), std::string::npos);
      MailStream* after = MM_FolStream(id);
      EXPECT_EQ(MM_FolStream(id), after);  // reported once
      int died = 0;
      for (const Seen& s : seen_) died += s.type == E_FOLDER_STREAM_DIED;
      EXPECT_EQ(died, 1);
      if (reopen) {
        ASSERT_NE(after, nullptr);
        EXPECT_EQ(Subject(umi), "message 2");  // the table survived the reopen
        MM_FolClose(id, 1);
      } else {
        EXPECT_EQ(after, nullptr);
        EXPECT_EQ(MM_UMIGetElt(umi), nullptr);
        EXPECT_EQ(MM_MsgIsRead(umi), 0);
        EXPECT_EQ(MM_FolGetNumMsgs(id), 0);
      }
      MM_NotUnregister(handler);
      xvt_test_clear_posts();
    }
  });
}

TEST_F(Model, QuietMutesDialogsButNotTheTrace) {
  TraceEverything();
  InProgram([&] {
    xvt_test_clear_posts();
    MM_QuietOn();
    MM_QuietOn();
    mm_log("expected failure", 2);
    MM_QuietOff();
    mm_notify(nullptr, "still quiet", 1);
    MM_QuietOff();
    MM_QuietOff();  // never below zero
    EXPECT_EQ(MM_Quiet(), 0);
    EXPECT_EQ(Posts(), "");
    mm_log("a real error", 2);
    mm_log("a warning", 1);
    mm_notify(nullptr, "a note", 1);
    EXPECT_EQ(Posts(), "error: a real error\nnote: a note\n");
  });
  EXPECT_NE(TraceText().find("mm_log: expected failure"), std::string::npos);
  EXPECT_NE(TraceText().find("mm_notify: still quiet"), std::string::npos);
}

TEST_F(Model, LowMemoryDropsCachedTextsAndEveryMessageStaysReachable) {
  InProgram([&] {
    MakeFolder("big", 20);
    const int id = MM_FolOpen(local_, "big");
    MailStream* stream = MM_FolStream(id);
    for (unsigned long n = 1; n <= 20; ++n) {
      mail_fetchstructure(stream, n, nullptr);
      mail_fetchheader(stream, n);
    }
    EXPECT_NE(mail_elt(stream, 5)->envelope, nullptr);
    MM_NotPostSimple(E_LOW_MEMORY);
    EXPECT_EQ(mail_elt(stream, 5)->envelope, nullptr);
    EXPECT_EQ(mail_elt(stream, 5)->header_text, nullptr);
    for (unsigned long n = 1; n <= 20; ++n)
      EXPECT_EQ(Subject(MM_UMIFromMsgno(id, n)), "message " + std::to_string(n));
  });
}

TEST_F(Model, ShutdownExpungesWhenAskedAndClosesEverything) {
  int id = INVALID_FOLDER;
  InProgram([&] {
    Opt_AssignString("General.ExitClean", "Always", kOptSession, 0);
    MakeFolder("trash", 3);
    id = MM_FolOpen(local_, "trash");
    MM_FolOpen(local_, "trash");
    mail_setflag(MM_FolStream(id), "1:2", "\\Deleted");
  });
  EXPECT_FALSE(MM_FolStreamValid(id));
  EXPECT_STREQ(MM_MSGetName(local_), "");
  MailStream* check = mail_open(nullptr, "trash", 0);
  ASSERT_NE(check, nullptr);
  EXPECT_EQ(check->nmsgs, 1u);
  mail_close(check);
}

}  // namespace
