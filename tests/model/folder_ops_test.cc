// Folders as whole things on local MH folders: create, delete, rename,
// move and copy with their events, subscriptions, and the progress of a
// copy.
#include "src/model/model_internal.h"
#include "src/options/options.h"
#include "tests/model/model_fixture.h"

namespace {

class FolderOpsTest : public ModelTest {
 protected:
  bool Subscribed(const std::string& name) const { return MM_MSFolIsSubscribed(local_, name.c_str()) == 1; }
  // A second local service (ms number 2) over the same folders.
  int SecondService() {
    Opt_AssignString("MsgService.ms2.Type", "local", kOptSession, 0);
    Opt_AssignString("MsgService.ms2.Name", "Second", kOptSession, 0);
    return MM_MSNew(2);
  }
};

TEST_F(FolderOpsTest, CreateRenameSubscribeDeleteInOrder) {
  EventRecorder rec;
  ASSERT_EQ(MM_FolCreate(local_, "Work", 1), 1);
  EXPECT_EQ(CountOnDisk("Work"), 0);
  EXPECT_TRUE(Subscribed("Work")) << "created with subscribe";
  ASSERT_EQ(rec.events().size(), 1u);
  EXPECT_EQ(rec.events()[0].type, E_NEWFOLDER);
  EXPECT_EQ(rec.events()[0].name, "Work");
  EXPECT_EQ(MM_FolCreate(local_, "Work", 0), 0) << "it exists already";
  EXPECT_EQ(MM_FolDelimiter(local_, "Work"), '\\');

  ASSERT_EQ(MM_FolRename(local_, "Work", "Play", 0), 1);
  EXPECT_EQ(CountOnDisk("Work"), -1);
  EXPECT_EQ(CountOnDisk("Play"), 0);
  EXPECT_TRUE(Subscribed("Play")) << "the subscription follows the name";
  EXPECT_FALSE(Subscribed("Work"));
  const RecordedEvent& renamed = rec.events().back();
  EXPECT_EQ(renamed.type, E_FOLDER_RENAMED);
  EXPECT_EQ(renamed.old_name, "Work");
  EXPECT_EQ(renamed.new_name, "Play");
  EXPECT_EQ(renamed.from_ms, local_);
  EXPECT_EQ(renamed.to_ms, local_);

  EXPECT_EQ(MM_FolSubscribe(local_, "Play", 0), 1);
  EXPECT_FALSE(Subscribed("Play")) << "a cached listing of subscriptions must not answer";
  EXPECT_EQ(MM_FolSubscribe(local_, "Play", 1), 1);
  EXPECT_TRUE(Subscribed("Play"));
  EXPECT_EQ(MM_FolSubscribe(local_, "", 1), 0);

  const int id = MM_FolOpen(local_, "Play");
  ASSERT_NE(id, INVALID_FOLDER);
  ASSERT_EQ(MM_FolDelete(local_, "Play"), 1);
  EXPECT_EQ(CountOnDisk("Play"), -1);
  EXPECT_EQ(MM_FolFindOpen(local_, "Play"), INVALID_FOLDER) << "an open folder is closed first";
  EXPECT_EQ(MM_FolExists(local_, "Play"), 0);
  EXPECT_EQ(rec.Types(), std::vector<int>({E_NEWFOLDER, E_FOLDER_RENAMED, E_FOLDER_UNSUBSCRIBED, E_FOLDER_SUBSCRIBED,
                                           E_FOLDER_UNSUBSCRIBED, E_FOLDER_CLOSED, E_FOLDER_DELETED}));
  EXPECT_EQ(rec.events()[5].value, 1) << "the close is forced";
  EXPECT_EQ(rec.events().back().name, "Play");
  EXPECT_EQ(MM_FolDelete(local_, "Play"), 0) << "nothing left to delete";
}

TEST_F(FolderOpsTest, RenameFailureKeepsSubscription) {
  MakeFolder("A", 1);
  MakeFolder("B", 0);
  ASSERT_EQ(MM_FolSubscribe(local_, "A", 1), 1);
  EventRecorder rec;
  EXPECT_EQ(MM_FolRename(local_, "A", "B", 0), 0) << "the target exists";
  EXPECT_TRUE(Subscribed("A"));
  EXPECT_TRUE(rec.events().empty());
  // skip_server renames only the model's view and the subscription.
  EXPECT_EQ(MM_FolRename(local_, "A", "C", 1), 1);
  EXPECT_EQ(CountOnDisk("A"), 1);
  EXPECT_EQ(rec.Types(), std::vector<int>({E_FOLDER_RENAMED}));
}

TEST_F(FolderOpsTest, OntoItself) {
  MakeFolder("Same", 3);
  EventRecorder rec;
  EXPECT_EQ(MM_FolMove(local_, "Same", local_, "Same"), 1);
  EXPECT_EQ(MM_FolMove(local_, "Same", local_, nullptr), 1);
  EXPECT_EQ(MM_FolCopy(local_, "Same", local_, "Same"), 0);
  EXPECT_EQ(MM_FolCopy(local_, "Same", local_, nullptr), 0);
  EXPECT_EQ(CountOnDisk("Same"), 3);
  EXPECT_TRUE(rec.events().empty());
}

TEST_F(FolderOpsTest, CopyAndMoveContents) {
  MakeFolder("Src", 4);
  MakeFolder("Full", 2);
  ASSERT_EQ(MM_FolCopy(local_, "Src", local_, "Copy"), 1);
  EXPECT_EQ(CountOnDisk("Copy"), 4);
  EXPECT_EQ(CountOnDisk("Src"), 4);
  ASSERT_EQ(MM_FolCopy(local_, "Src", local_, "Full"), 1) << "into an existing folder";
  EXPECT_EQ(CountOnDisk("Full"), 6);
  EXPECT_EQ(MM_FolFindOpen(local_, "Src"), INVALID_FOLDER) << "the copy's own open is closed";

  // Within a service a move to a new name is a rename.
  EventRecorder rec;
  ASSERT_EQ(MM_FolMove(local_, "Copy", local_, "Moved"), 1);
  EXPECT_EQ(CountOnDisk("Moved"), 4);
  EXPECT_EQ(CountOnDisk("Copy"), -1);
  EXPECT_EQ(rec.Types(), std::vector<int>({E_FOLDER_RENAMED}));

  // Onto an existing folder: contents move, then the source goes.
  rec.Clear();
  ASSERT_EQ(MM_FolMove(local_, "Moved", local_, "Full"), 1);
  EXPECT_EQ(CountOnDisk("Full"), 10);
  EXPECT_EQ(CountOnDisk("Moved"), -1);
  EXPECT_EQ(rec.Types({E_FOLDER_CLOSED, E_FOLDER_RENAMED, E_FOLDER_DELETED}),
            std::vector<int>({E_FOLDER_CLOSED, E_FOLDER_RENAMED, E_FOLDER_DELETED}));
  EXPECT_EQ(rec.Types({E_DELETED_FLAG_SET}).size(), 4u) << "one move per message";
}

TEST_F(FolderOpsTest, MoveBetweenServices) {
  const int second = SecondService();
  ASSERT_NE(second, INVALID_SERVICE);
  MakeFolder("From", 3);
  ASSERT_EQ(MM_FolSubscribe(local_, "From", 1), 1);
  EventRecorder rec;
  ASSERT_EQ(MM_FolMove(local_, "From", second, "To"), 1);
  EXPECT_EQ(CountOnDisk("To"), 3);
  EXPECT_EQ(CountOnDisk("From"), -1);
  EXPECT_TRUE(MM_MSFolIsSubscribed(second, "To")) << "the subscription moves with the folder";
  EXPECT_EQ(rec.Types({E_NEWFOLDER, E_FOLDER_SUBSCRIBED, E_FOLDER_RENAMED, E_FOLDER_UNSUBSCRIBED, E_FOLDER_DELETED}),
            std::vector<int>(
                {E_NEWFOLDER, E_FOLDER_SUBSCRIBED, E_FOLDER_RENAMED, E_FOLDER_UNSUBSCRIBED, E_FOLDER_DELETED}));
  for (const RecordedEvent& e : rec.events()) {
    if (e.type != E_FOLDER_RENAMED) continue;
    EXPECT_EQ(e.from_ms, local_);
    EXPECT_EQ(e.to_ms, second);
    EXPECT_EQ(e.old_name, "From");
    EXPECT_EQ(e.new_name, "To");
  }
}

// The user's inbox is never deleted by a move, in any case, nor is a kept
// old inbox.
TEST_F(FolderOpsTest, MoveKeepsInboxes) {
  const int second = SecondService();
  struct Row {
    const char* name;
    bool keeps;
  } rows[] = {{"inbox.old", true}, {"INBOX", true}, {"Inbox", true}, {"inboxes", true}, {"Mail", false}};
  for (const Row& r : rows) {
    MakeFolder(r.name, 2);
    const std::string target = std::string("moved-") + r.name;
    ASSERT_EQ(MM_FolMove(local_, r.name, second, target.c_str()), 1) << r.name;
    EXPECT_EQ(CountOnDisk(target), 2) << r.name;
    EXPECT_EQ(CountOnDisk(r.name) >= 0, r.keeps) << r.name;
    if (r.keeps) mail_delete(nullptr, r.name);
  }
}

// A counted bar only for more than 10 messages.
TEST_F(FolderOpsTest, CopyProgressBar) {
  struct Row {
    int messages;
    int bar;  // the bar's range while the copy runs; 0 for none set
  } rows[] = {{10, 0}, {11, 12}};
  // What a progress window's bar reads when nobody set its range.
  int untouched = -1;
  WithTaskWindow([&] {
    xvt_progress_open("t", "t", false);
    int lo = 0;
    xvt_sbar_get_range(xvt_progress_win(), HSCROLL, &lo, &untouched);
    xvt_progress_close();
  });
  ASSERT_NE(untouched, 12);
  for (const Row& r : rows) {
    const std::string name = "P" + std::to_string(r.messages);
    MakeFolder(name, r.messages);
    int bar = -1;
    int pos = -1;
    WithTaskWindow([&] {
      EventRecorder rec;
      // The source's close comes while the progress window is still up.
      rec.OnEvent([&](const ModelEvent& ev) {
        if (ev.type != E_FOLDER_CLOSED || !xvt_progress_win()) return;
        int lo = 0;
        xvt_sbar_get_range(xvt_progress_win(), HSCROLL, &lo, &bar);
        pos = xvt_sbar_get_pos(xvt_progress_win(), HSCROLL);
      });
      xvt_test_clear_posts();
      ASSERT_EQ(MM_FolCopy(local_, name.c_str(), local_, (name + "c").c_str()), 1);
      EXPECT_EQ(xvt_progress_win(), NULL_WIN) << "closed at the end";
    });
    EXPECT_EQ(bar, r.bar ? r.bar : untouched) << r.messages;
    EXPECT_EQ(pos, r.bar ? 10 : 0) << "moved every fifth message, and only on a counted bar";
    EXPECT_NE(Posts().find("progress: Velmar: Transferring folder contents ..."), std::string::npos) << Posts();
    EXPECT_EQ(CountOnDisk(name + "c"), r.messages);
  }
}

TEST_F(FolderOpsTest, CopyIntoOpenTargetChecksIt) {
  MakeFolder("S", 2);
  MakeFolder("T", 1);
  const int target = MM_FolOpen(local_, "T");
  ASSERT_NE(target, INVALID_FOLDER);
  EventRecorder rec;
  ASSERT_EQ(MM_FolCopy(local_, "S", local_, "T"), 1);
  EXPECT_EQ(MM_FolGetNumMsgs(target), 3) << "the open target learns of the new messages";
  EXPECT_EQ(rec.Types({E_NEW_MESSAGES}), std::vector<int>({E_NEW_MESSAGES}));
}

TEST_F(FolderOpsTest, MissingSourceFailsAndLosesNothing) {
  MakeFolder("Keep", 1);
  EXPECT_EQ(MM_FolCopyContent(local_, "Nowhere", local_, "Keep", 1), 0);
  EXPECT_EQ(MM_FolMove(local_, "Nowhere", SecondService(), "Keep"), 0);
  EXPECT_EQ(CountOnDisk("Keep"), 1);
  xvt_test_clear_posts();
}

}  // namespace
