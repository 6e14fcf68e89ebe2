// The model's backbone: open folders with use counts and UMIs, new mail and
// expunge in the UMI table, a dying stream, quiet mode, low memory, and
// shutdown through File > Exit.
#include <set>

#include "c-client/core/mail.h"
#include "src/options/options.h"
#include "tests/model/model_fixture.h"
#include "tests/support/frame_fixture.h"

namespace {

using Core = ModelTest;

TEST_F(Core, OpenTwiceCountsUsesAndTheTableHoldsFifty) {
  MakeFolder("work", 3);
  const int id = MM_FolOpen(local_, "work");
  ASSERT_NE(id, INVALID_FOLDER);
  EXPECT_EQ(MM_FolOpen(local_, "work"), id);
  EXPECT_EQ(MM_FolGetNumMsgs(id), 3);
  EXPECT_EQ(MM_UMIFromMsgno(id, 4), 0u);
  const UMI first = MM_UMIFromMsgno(id, 1);
  EXPECT_EQ(MM_UMIMsgno(first), 1u);
  EXPECT_FALSE(MM_MsgIsShadowMessage(MM_UMIMake(3, 0, 100000))) << "a big serial spills into the shadow slot";
  MM_FolClose(id, 0);  // the first close only counts down
  EXPECT_EQ(Types(), std::vector<int>{E_FOLDER_CLOSED});
  EXPECT_TRUE(MM_FolStreamValid(id));
  MM_FolClose(id, 0);
  EXPECT_FALSE(MM_FolStreamValid(id));
  EXPECT_EQ(MM_UMIMsgno(first), 0u);
  EXPECT_EQ(MM_MsgIsRead(first), 0);
  std::vector<int> ids;
  for (int i = 0; i <= kMaxFolders; ++i) {
    const std::string name = "f" + std::to_string(i);
    MakeFolder(name, 0);
    ids.push_back(MM_FolOpen(local_, name.c_str()));
  }
  EXPECT_EQ(std::set<int>(ids.begin(), ids.end() - 1).size(), size_t{kMaxFolders});
  EXPECT_EQ(ids.back(), INVALID_FOLDER);
  seen_.clear();
  for (int bad : {60, kMaxFolders, INVALID_FOLDER}) MM_FolClose(bad, 1);
  EXPECT_TRUE(seen_.empty());
  MM_FolOpen(local_, "f7");
  MM_FolClose(ids[7], 1);  // a forced close ends every use at once
  EXPECT_FALSE(MM_FolStreamValid(ids[7]));
  EXPECT_EQ(seen_.back().value, 1);
}

TEST_F(Core, NewMailAndExpungeKeepUmisOnTheirMessages) {
  MakeFolder("inbox2", 3);
  const int id = MM_FolOpen(local_, "inbox2");
  std::vector<UMI> before;
  for (unsigned long n = 1; n <= 3; ++n) before.push_back(MM_UMIFromMsgno(id, n));
  EXPECT_TRUE(MM_FolCheckNewMail(id, 0));
  mm_exists(MM_FolStream(id), 2);
  EXPECT_TRUE(seen_.empty()) << "nothing new, nothing heard";
  Append("inbox2", Numbered(4));
  Append("inbox2", Numbered(5));
  EXPECT_TRUE(MM_FolCheckNewMail(id, 1));
  ASSERT_EQ(Types(), std::vector<int>{E_NEW_MESSAGES});
  EXPECT_EQ(Posts(), "attention: \nbeep: \n");
  EXPECT_EQ(MM_FolGetNumMsgs(id), 5);
  EXPECT_EQ(MM_UMISerial(MM_UMIFromMsgno(id, 4)), MM_UMISerial(before[2]) + 1);
  EXPECT_EQ(Subject(MM_UMIFromMsgno(id, 5)), "message 5");
  // Listeners still find message 2 while they hear of its expunge; then
  // it is gone and the later ones keep their UMIs under new numbers.
  mail_setflag(MM_FolStream(id), "2", "\\Deleted");
  seen_.clear();
  EXPECT_TRUE(MM_FolExpunge(id));
  ASSERT_EQ(Types(), (std::vector<int>{E_MSG_EXPUNGED, E_FOLDER_EXPUNGED}));
  EXPECT_EQ(seen_[0].umi, before[1]);
  EXPECT_EQ(seen_[0].msgno, 2u);
  // Whatever is asked of the gone message comes back empty, and changes nothing.
  seen_.clear();
  const UMI gone = before[1];
  EXPECT_EQ(MM_UMIMsgno(gone) + MM_MsgSize(gone), 0u);
  EXPECT_EQ(MM_UMIGetElt(gone), nullptr);
  EXPECT_EQ(MM_MsgEnvelope(gone), nullptr);
  EXPECT_EQ(MM_MsgHeaderContent(gone, "X-Foo"), std::nullopt);
  EXPECT_EQ(MM_MsgRawHeaders(gone), std::nullopt);
  EXPECT_EQ(MM_MsgToFile(gone) + MM_MsgRawBodyToFile(gone), "");
  EXPECT_EQ(MM_MsgSectionBody(gone, "1"), nullptr);
  EXPECT_EQ(MM_MsgSetFlag(gone, "\\Seen"), 0);
  EXPECT_EQ(MM_UMIMsgno(before[2]), 2u);
  EXPECT_EQ(Subject(before[2]), "message 3");
  mm_expunged(MM_FolStream(id), 9);  // past the end: nothing
  EXPECT_TRUE(seen_.empty());
  EXPECT_EQ(MM_FolGetNumMsgs(id), 4);
}

// Whether a window reopens the folder or closes it when told, the dead
// stream is reported once and its UMIs stay safe to use.
TEST_F(Core, ADeadStreamIsReportedOnceAndHandlersMayReopenOrClose) {
  MakeFolder("remote", 2);
  for (int reopen : {1, 0}) {
    const int id = MM_FolOpen(local_, "remote");
    const UMI umi = MM_UMIFromMsgno(id, 2);
    const int window = MM_NotRegister(
        [](ModelEvent* ev, void*) { return int{ev->type == E_FOLDER_STREAM_DIED}; },
        [](ModelEvent* ev, void* data) {
          if (*static_cast<int*>(data)) MM_FolReOpen(ev->folder);
          else MM_FolClose(ev->folder, 1);
        },
        &reopen, "window");
    seen_.clear();
    xvt_test_clear_posts();
    mm_notify(MM_FolStream(id), "[ALERT] Server shutting down", 4);
    EXPECT_EQ(Posts(), "error: [ALERT] Server shutting down\n");
    MailStream* after = MM_FolStream(id);
    EXPECT_EQ(MM_FolStream(id), after);
    EXPECT_EQ(Types({E_FOLDER_STREAM_DIED}).size(), 1u);
    EXPECT_EQ(Subject(umi), reopen ? "message 2" : "(none)");
    EXPECT_EQ(MM_FolGetNumMsgs(id), reopen ? 2 : 0);
    EXPECT_EQ(MM_UMIGetElt(umi) != nullptr, reopen == 1);
    MM_FolClose(id, 1);
    MM_NotUnregister(window);
  }
}

TEST_F(Core, QuietMutesDialogsButNotTheTrace) {
  MM_QuietOn();
  MM_QuietOn();
  mm_log("expected failure", 2);
  MM_QuietOff();
  mm_notify(nullptr, "still quiet", 1);
  MM_QuietOff();
  MM_QuietOff();  // never below zero
  mm_log("a real error", 2);
  mm_log("a warning", 1);
  mm_notify(nullptr, "a note", 1);
  EXPECT_EQ(Posts(), "error: a real error\nnote: a note\n");
  EXPECT_TRUE(Traced("mm_log: expected failure") && Traced("mm_notify: still quiet"));
}

TEST_F(Core, LowMemoryDropsCachedTextsAndEveryMessageStaysReachable) {
  MakeFolder("big", 20);
  const int id = MM_FolOpen(local_, "big");
  MailStream* stream = MM_FolStream(id);
  for (unsigned long n = 1; n <= 20; ++n) mail_fetchheader(stream, n);
  EXPECT_EQ(Subject(MM_UMIFromMsgno(id, 5)), "message 5");
  ASSERT_NE(mail_elt(stream, 5)->envelope, nullptr);
  MM_NotPostSimple(E_LOW_MEMORY);
  EXPECT_EQ(mail_elt(stream, 5)->envelope, nullptr);
  EXPECT_EQ(mail_elt(stream, 5)->header_text, nullptr);
  for (unsigned long n = 1; n <= 20; ++n) EXPECT_EQ(Subject(MM_UMIFromMsgno(id, n)), "message " + std::to_string(n));
}

// Leaving the program with "expunge on exit" expunges every open folder
// and closes it, however often it was opened.
TEST_F(UserFrameTest, ExitExpungesAndClosesEverything) {
  int id = INVALID_FOLDER, local = INVALID_SERVICE;
  Run({}, [&] {
    Opt_AssignString("MsgService.IDList", "1", kOptPermanent, 0);
    Opt_AssignString("MsgService.ms1.Type", "local", kOptPermanent, 0);
    Opt_AssignString("General.ExitClean", "Always", kOptSession, 0);
    local = MM_MSNew(1);
    MakeFolder("trash", 3);
    id = MM_FolOpen(local, "trash");
    MM_FolOpen(local, "trash");
    mail_setflag(MM_FolStream(id), "1:2", "\\Deleted");
    Exit();
  });
  EXPECT_FALSE(MM_FolStreamValid(id));
  EXPECT_STREQ(MM_MSGetName(local), "");
  EXPECT_EQ(CountOnDisk("trash"), 1);
}

}  // namespace
