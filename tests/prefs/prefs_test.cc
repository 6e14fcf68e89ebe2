// The preferences driven as a user would: each case opens the dialog, shows
// a page, changes controls and ends with OK or Cancel. What OK must do is
// seen in the option file actually written: its lines after the dialog,
// against the lines the same options gave before it.
#include "src/prefs/prefs.h"

#include <set>
#include <sstream>

#include "src/base/commands.h"
#include "src/base/model_events.h"
#include "src/model/mm.h"
#include "src/options/font_options.h"
#include "src/organizer/organizer.h"
#include "tests/support/frame_fixture.h"

namespace {

struct Case {
  const char* name;
  std::string options;                          // added to the user's option file
  std::function<void(WINDOW dlg)> drive;        // on the shown page; ends with OK or Cancel
  std::set<std::string> written;                // lines new in the saved file
  std::vector<int> events;                      // model events posted about services and timers
};

void Page(WINDOW dlg, int page) { EXPECT_TRUE(xvt_test_select(dlg, kPrefPages, page)); }
std::string Text(WINDOW dlg, int id) { return xvt_ctl_get_text(dlg, id, 100); }

std::vector<int>* g_events;
int Want(ModelEvent* ev, void*) {
  return ev->type == E_MS_NEW || ev->type == E_MS_CHANGED || ev->type == E_MS_NAME_CHANGED ||
         ev->type == E_MS_DESTROYED || ev->type == E_MAIL_TIMER_CHANGED || ev->type == E_FONT_CHANGED;
}
void Handle(ModelEvent* ev, void*) {
  g_events->push_back(ev->type);
  if (ev->type == E_FONT_CHANGED) g_events->push_back(ev->value);
  // The model knows a new or renamed service by the time it is told.
  if (ev->type == E_MS_NEW || ev->type == E_MS_NAME_CHANGED) g_events->push_back(MM_MSGetNumber(ev->ms));
}

const std::string kTwoServices =
    "option MsgService.IDList {1 3}\noption MsgService.ms1.Name Home\noption MsgService.ms1.Type local\n"
    "option MsgService.ms3.Name Work\noption MsgService.ms3.Type imap\noption MsgService.ms3.Hostname imap.w\n";

const Case kCases[] = {
    {"identity: name and signature", "", [](WINDOW d) {
       EXPECT_EQ(Text(d, kPrefFullname), "Ann Example");
       xvt_test_type(d, kPrefFullname, "Ann B");
       xvt_test_type(d, kPrefSignature, "Best,\r\nAnn\n\n");
       xvt_test_click(d, kPrefOk);
     }, {"option General.Fullname \"Ann B\"", "option Compose.Signature.1 \"Best,\"",
         "option Compose.Signature.2 \"Ann\"", "option Compose.Signature.Lines \"2\""}, {}},
    {"sending: security rides on the host, other switches kept", "option General.DeliveryHost smtp.x/submit\n",
     [](WINDOW d) {
       Page(d, kPrefPageSending);
       EXPECT_EQ(Text(d, kPrefSmtpHost), "smtp.x");
       xvt_test_select(d, kPrefSmtpSecurity, 2);
       xvt_test_click(d, kPrefUseOutbox);
       xvt_test_click(d, kPrefOk);
     }, {"option General.DeliveryHost \"smtp.x/ssl/submit\"", "option Compose.QueueOutgoing \"TRUE\""}, {}},
    {"reading: timer posts its event", "", [](WINDOW d) {
       Page(d, kPrefPageReading);
       EXPECT_EQ(Text(d, kPrefMailTimer), "7");
       xvt_test_type(d, kPrefMailTimer, "3");
       xvt_test_select(d, kPrefReceiptPolicy, 2);
       Page(d, kPrefPageComposing);
       EXPECT_EQ(Text(d, kPrefForwardAttach), "Never (inline)");  // as it goes when unset
       xvt_test_click(d, kPrefReplyWrap);
       xvt_test_select(d, kPrefReplyText, 2);
       xvt_test_select(d, kPrefForwardAttach, 1);
       xvt_test_click(d, kPrefOk);
     }, {"option Timer.Interval \"3\"", "option Reply.WrapOriginalText \"TRUE\"", "option Reply.Text \"Never\"",
         "option General.ReadReceiptPolicy \"Never\"", "option Forward.Attachment \"Always\""}, {E_MAIL_TIMER_CHANGED}},
    {"books: on by default, turned off", "", [](WINDOW d) {
       Page(d, kPrefPageBooks);
       xvt_test_click(d, kPrefBookRemote);
       xvt_test_type(d, kPrefBookPort, "406");
       xvt_test_click(d, kPrefOk);
     }, {"option AddrBook.EnableRemote \"OFF\"", "option AddrBook.TCPPort \"406\""}, {}},
    {"a bad number keeps the dialog, Cancel writes nothing", "", [](WINDOW d) {
       xvt_test_type(d, kPrefMailTimer, "0");
       xvt_test_type(d, kPrefLineWrap, "72");
       xvt_test_click(d, kPrefOk);
       EXPECT_TRUE(xvt_vobj_is_valid(d));
       xvt_test_click(d, kPrefCancel);
     }, {}, {}},
    {"a locked option is shown, not changed; OK asks first", "option -readonly General.ReplyTo r@x\n",
     [](WINDOW d) {
       EXPECT_EQ(Text(d, kPrefReplyTo), "r@x");
       EXPECT_FALSE(xvt_test_type(d, kPrefReplyTo, "other@x"));
       xvt_test_type(d, kPrefAddress, "a@x");
       xvt_test_push_answer(RESP_DEFAULT);
       xvt_test_click(d, kPrefOk);
     }, {"option General.MailAddress \"a@x\""}, {}},
    {"services: add one", kTwoServices, [](WINDOW d) {
       Page(d, kPrefPageServices);
       xvt_test_push_dialog(kPrefsServiceRid, [](WINDOW s) {
         xvt_test_type(s, kSvcName, "Home");  // taken: the dialog stays
         xvt_test_click(s, kSvcOk);
         xvt_test_type(s, kSvcName, "Uni");
         xvt_test_select(s, kSvcType, 4);  // local: no server to type
         EXPECT_FALSE(xvt_test_type(s, kSvcHost, "imap.u"));
         xvt_test_select(s, kSvcType, 0);
         xvt_test_type(s, kSvcHost, "imap.u");
         xvt_test_select(s, kSvcSecurity, 2);
         xvt_test_click(s, kSvcOk);
       });
       xvt_test_click(d, kPrefServiceAdd);
       xvt_test_click(d, kPrefOk);
     }, {"option MsgService.IDList \"1 3 4\"", "option MsgService.ms4.Name \"Uni\"",
         "option MsgService.ms4.Type \"imap\"", "option MsgService.ms4.Hostname \"imap.u\"",
         "option MsgService.ms4.Security \"ssl\""}, {E_MS_NEW, 4}},
    {"services: rename one, delete another", kTwoServices, [](WINDOW d) {
       Page(d, kPrefPageServices);
       xvt_test_push_dialog(kPrefsServiceRid, [](WINDOW s) {
         EXPECT_EQ(Text(s, kSvcHost), "imap.w");
         xvt_test_type(s, kSvcName, "Office");
         xvt_test_click(s, kSvcOk);
       });
       xvt_test_select(d, kPrefServiceList, 1);
       xvt_test_click(d, kPrefServiceEdit);
       xvt_test_select(d, kPrefServiceList, 0);
       xvt_test_push_answer(RESP_DEFAULT);
       xvt_test_click(d, kPrefServiceDelete);
       xvt_test_click(d, kPrefOk);
     }, {"option MsgService.IDList \"3\"", "option MsgService.ms3.Name \"Office\""},
     {E_MS_DESTROYED, E_MS_NAME_CHANGED, 3, E_MS_CHANGED}},
    {"fonts: two chosen, each told to its windows", "", [](WINDOW d) {
       Page(d, kPrefPageFonts);
       EXPECT_EQ(Text(d, kPrefFontText + kFontService), "Helvetica 12 Bold");
       xvt_test_push_text("Courier 15 1");
       xvt_test_click(d, kPrefFontChoose + kFontService);
       EXPECT_EQ(Text(d, kPrefFontText + kFontService), "Courier 15 Bold");
       xvt_test_push_text("Times 14 2");
       xvt_test_click(d, kPrefFontChoose + kFontViewerText);
       xvt_test_click(d, kPrefOk);
     }, {"option Font.Face.Service \"Courier\"", "option Font.Size.Service \"15\"",
         "option Font.Style.Service \"Bold\"", "option Font.Face.Viewer \"Times\"",
         "option Font.Size.Viewer \"14\"", "option Font.Style.Viewer \"Italic\""},
     {E_FONT_CHANGED, kFontViewerText, E_FONT_CHANGED, kFontService}},
    {"fonts: a cancelled chooser changes nothing, a tiny size is brought up",
     "option Font.Size.Folder 99\n", [](WINDOW d) {
       Page(d, kPrefPageFonts);
       EXPECT_EQ(Text(d, kPrefFontText + kFontFolder), "Helvetica 12 Italic");  // 99 is no size
       xvt_test_push_text(nullptr);
       xvt_test_click(d, kPrefFontChoose + kFontCompose);
       xvt_test_push_text("Tiny 2 0");
       xvt_test_click(d, kPrefFontChoose + kFontFolder);
       xvt_test_click(d, kPrefOk);
     }, {"option Font.Face.Folder \"Tiny\"", "option Font.Size.Folder \"6\"",
         "option Font.Style.Folder \"Normal\""}, {E_FONT_CHANGED, kFontFolder}},
};

std::set<std::string> Lines(const std::string& text) {
  std::set<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    if (line.rfind("option ", 0) == 0) lines.insert(line);
  return lines;
}

class Prefs : public UserFrameTest {};

TEST_F(Prefs, OkWritesWhatChangedAndCancelNothing) {
  const std::string user = ReadFile(home_ + "/default.tcl");
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    WriteFile(home_ + "/default.tcl", user + c.options);
    std::set<std::string> before, after;
    std::vector<int> events;
    g_events = &events;
    Run({"-b"}, [&] {
      ASSERT_TRUE(Opt_Save());
      before = Lines(ReadFile(home_ + "/default.tcl"));
      const int notifier = MM_NotRegister(Want, Handle, nullptr, "prefs test");
      xvt_test_push_dialog(kPrefsRid, c.drive);
      // As an organizer window passes it on to the task window.
      MSG_DoCommonCommand(nullptr, M_OPTIONS_PREFERENCES);
      MM_NotUnregister(notifier);
      after = Lines(ReadFile(home_ + "/default.tcl"));
      EXPECT_EQ(Option("General.ReplyTo", kOptPermanent), c.options.find("-readonly") == std::string::npos ? "(none)" : "r@x");
      Exit();
    });
    std::set<std::string> added;
    for (const std::string& line : after)
      if (!before.count(line)) added.insert(line);
    EXPECT_EQ(added, c.written);
    // Nothing else went: only the old values of what changed, and deleted services.
    size_t gone = 0;
    for (const std::string& line : before) gone += !after.count(line);
    EXPECT_LE(gone, c.written.size() + 3);
    EXPECT_EQ(events, c.events);
  }
}

// Options > Load without named configurations: the location page, and OK
// moves the options to the new file and names it in the init file.
TEST_F(Prefs, LoadMovesOptionsToAnotherFile) {
  Run({"-b"}, [&] {
    xvt_test_push_dialog(kPrefsRid, [&](WINDOW d) {
      EXPECT_TRUE(xvt_test_type(d, kPrefLocFile, (home_ + "/other.tcl").c_str()));
      xvt_test_click(d, kPrefLocRemote);
      xvt_test_click(d, kPrefOk);  // a remote place needs a host
      EXPECT_TRUE(xvt_vobj_is_valid(d));
      xvt_test_click(d, kPrefLocLocal);
      xvt_test_click(d, kPrefOk);
    });
    xvt_test_user_command(TASK_WIN, M_OPTIONS_LOAD);
    EXPECT_TRUE(Lines(ReadFile(home_ + "/other.tcl")).count("option General.Fullname \"Ann Example\""));
    EXPECT_NE(ReadFile(home_ + "/velmar.ini").find("file=" + home_ + "/other.tcl"), std::string::npos);
    Exit();
  });
}

}  // namespace
