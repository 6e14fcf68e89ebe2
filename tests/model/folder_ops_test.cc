// Folders as whole things on MH folders: create, rename, subscribe,
// delete, copy and move with their events, and the progress of a copy.
#include "src/options/options.h"
#include "tests/model/model_fixture.h"

namespace {

class FolderOps : public ModelTest {
 protected:
  bool Subscribed(int ms, const char* name) const { return MM_MSFolIsSubscribed(ms, name) == 1; }
  // A second local service (ms number 2) over the same folders.
  int SecondService() {
    Opt_AssignString("MsgService.ms2.Type", "local", kOptSession, 0);
    return MM_MSNew(2);
  }
};

TEST_F(FolderOps, CreateRenameSubscribeDeleteInOrder) {
  ASSERT_EQ(MM_FolCreate(local_, "Work", 1), 1);
  EXPECT_EQ(CountOnDisk("Work"), 0);
  EXPECT_TRUE(Subscribed(local_, "Work"));
  EXPECT_EQ(seen_.at(0).name, "Work");
  EXPECT_EQ(MM_FolCreate(local_, "Work", 0), 0) << "it exists already";
  EXPECT_EQ(MM_FolDelimiter(local_, "Work"), '\\');
  ASSERT_EQ(MM_FolRename(local_, "Work", "Play", 0), 1);
  EXPECT_EQ(CountOnDisk("Work"), -1);
  EXPECT_EQ(CountOnDisk("Play"), 0);
  EXPECT_TRUE(Subscribed(local_, "Play")) << "the subscription follows the name";
  EXPECT_FALSE(Subscribed(local_, "Work"));
  EXPECT_EQ(seen_.back().old_name + ">" + seen_.back().new_name, "Work>Play");
  EXPECT_EQ(MM_FolSubscribe(local_, "Play", 0), 1);
  EXPECT_FALSE(Subscribed(local_, "Play")) << "a cached listing of subscriptions must not answer";
  EXPECT_EQ(MM_FolSubscribe(local_, "Play", 1), 1);
  EXPECT_EQ(MM_FolSubscribe(local_, "", 1), 0);
  ASSERT_NE(MM_FolOpen(local_, "Play"), INVALID_FOLDER);
  ASSERT_EQ(MM_FolDelete(local_, "Play"), 1);
  EXPECT_EQ(CountOnDisk("Play"), -1);
  EXPECT_EQ(MM_FolFindOpen(local_, "Play"), INVALID_FOLDER) << "an open folder is closed first";
  EXPECT_EQ(Types(), std::vector<int>({E_NEWFOLDER, E_FOLDER_RENAMED, E_FOLDER_UNSUBSCRIBED, E_FOLDER_SUBSCRIBED,
                                       E_FOLDER_UNSUBSCRIBED, E_FOLDER_CLOSED, E_FOLDER_DELETED}));
  EXPECT_EQ(seen_[5].value, 1) << "the close is forced";
  EXPECT_EQ(MM_FolDelete(local_, "Play"), 0) << "nothing left to delete";
}

TEST_F(FolderOps, FailuresLoseNothing) {
  MakeFolder("A", 1);
  MakeFolder("B", 0);
  ASSERT_EQ(MM_FolSubscribe(local_, "A", 1), 1);
  seen_.clear();
  EXPECT_EQ(MM_FolRename(local_, "A", "B", 0), 0) << "the target exists";
  EXPECT_TRUE(Subscribed(local_, "A"));
  EXPECT_EQ(MM_FolCopy(local_, "A", local_, "A"), 0);
  EXPECT_EQ(MM_FolCopy(local_, "A", local_, nullptr), 0);
  EXPECT_EQ(MM_FolMove(local_, "A", local_, "A"), 1);  // onto itself: nothing to do
  EXPECT_EQ(MM_FolCopyContent(local_, "Nowhere", local_, "A", 1), 0);
  EXPECT_EQ(MM_FolMove(local_, "Nowhere", SecondService(), "A"), 0);
  EXPECT_EQ(CountOnDisk("A"), 1);
  EXPECT_TRUE(seen_.empty());
  // skip_server renames only the model's view and the subscription.
  EXPECT_EQ(MM_FolRename(local_, "A", "C", 1), 1);
  EXPECT_EQ(CountOnDisk("A"), 1);
}

TEST_F(FolderOps, CopyAndMoveContents) {
  MakeFolder("Src", 4);
  MakeFolder("Full", 2);
  const int open_target = MM_FolOpen(local_, "Full");
  ASSERT_EQ(MM_FolCopy(local_, "Src", local_, "Full"), 1);
  EXPECT_EQ(CountOnDisk("Src"), 4);
  EXPECT_EQ(MM_FolGetNumMsgs(open_target), 6) << "the open target learns of the new messages";
  EXPECT_EQ(MM_FolFindOpen(local_, "Src"), INVALID_FOLDER) << "the copy's own open is closed";
  seen_.clear();
  ASSERT_EQ(MM_FolMove(local_, "Src", local_, "Moved"), 1);  // a rename within a service
  EXPECT_EQ(Types(), std::vector<int>{E_FOLDER_RENAMED});
  // Onto an existing folder: contents move, then the source goes.
  ASSERT_EQ(MM_FolMove(local_, "Moved", local_, "Full"), 1);
  EXPECT_EQ(CountOnDisk("Full"), 10);
  EXPECT_EQ(CountOnDisk("Moved"), -1);
  EXPECT_EQ(Types({E_FOLDER_CLOSED, E_FOLDER_RENAMED, E_FOLDER_DELETED}),
            std::vector<int>({E_FOLDER_RENAMED, E_FOLDER_CLOSED, E_FOLDER_RENAMED, E_FOLDER_DELETED}));
  EXPECT_EQ(Types({E_DELETED_FLAG_SET}).size(), 4u) << "one move per message";
}

// Between services a move copies, then deletes the source; the user's
// inbox (in any case) and a kept old inbox are never deleted.
TEST_F(FolderOps, MoveBetweenServicesKeepsInboxes) {
  const int second = SecondService();
  const struct { const char* name; bool keeps; } rows[] = {
      {"inbox.old", true}, {"INBOX", true}, {"Inbox", true}, {"inboxes", true}, {"Mail", false}};
  for (const auto& r : rows) {
    MakeFolder(r.name, 2);
    ASSERT_EQ(MM_FolSubscribe(local_, r.name, 1), 1);
    const std::string target = std::string("moved-") + r.name;
    seen_.clear();
    ASSERT_EQ(MM_FolMove(local_, r.name, second, target.c_str()), 1) << r.name;
    EXPECT_EQ(CountOnDisk(target), 2) << r.name;
    EXPECT_EQ(CountOnDisk(r.name) >= 0, r.keeps) << r.name;
    if (r.keeps) continue;
    EXPECT_TRUE(Subscribed(second, target.c_str())) << "the subscription moves with the folder";
    const std::vector<int> order = {E_NEWFOLDER, E_FOLDER_SUBSCRIBED, E_FOLDER_RENAMED, E_FOLDER_UNSUBSCRIBED,
                                    E_FOLDER_DELETED};
    EXPECT_EQ(Types(order), order);
    std::string renamed;
    for (const Seen& e : seen_)
      if (e.type == E_FOLDER_RENAMED) renamed += e.old_name + ">" + e.new_name + " to " + std::to_string(e.to_ms);
    EXPECT_EQ(renamed, "Mail>moved-Mail to " + std::to_string(second));
  }
}

// A counted bar only for more than 10 messages.
TEST_F(FolderOps, CopyProgressBar) {
  for (int messages : {10, 11}) {
    const std::string name = "P" + std::to_string(messages);
    MakeFolder(name, messages);
    int bar = -1, pos = -1;
    xvt_test_set_run_hook([&] {  // with the task window up, so that the progress window exists
      // The source's close comes while the progress window is still up.
      on_event_ = [&](const ModelEvent& ev) {
        if (ev.type != E_FOLDER_CLOSED || !xvt_progress_win()) return;
        int lo = 0;
        xvt_sbar_get_range(xvt_progress_win(), HSCROLL, &lo, &bar);
        pos = xvt_sbar_get_pos(xvt_progress_win(), HSCROLL);
      };
      xvt_test_clear_posts();
      ASSERT_EQ(MM_FolCopy(local_, name.c_str(), local_, (name + "c").c_str()), 1);
      EXPECT_EQ(xvt_progress_win(), NULL_WIN) << "closed at the end";
      on_event_ = nullptr;
    });
    xvt_app_create(0, nullptr, 0, [](WINDOW, EVENT*) -> long { return 0; }, nullptr);
    xvt_test_set_run_hook(nullptr);
    EXPECT_EQ(bar == 12, messages == 11) << messages;
    EXPECT_EQ(pos, messages == 11 ? 10 : 0) << "moved every fifth message, and only on a counted bar";
    EXPECT_NE(Posts().find("progress: Velmar: Transferring folder contents ..."), std::string::npos);
  }
}

}  // namespace
