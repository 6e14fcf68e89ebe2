// Spelling over a compose window on the headless toolkit: which words of a
// mail text are looked at, the user's word list on disk, and the dialog
// correcting the text through the editor (so Undo takes it back) and
// stopping a send.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "editor/edisxvt/edit_window.h"
#include "editor/elib/ecmd.h"
#include "rclib/rc.h"
#include "src/compose/compose.h"
#include "src/compose/compose_text.h"
#include "src/options/options.h"
#include "src/spell/spell.h"
#include "src/spell/spell_dialog.h"
#include "tests/organizer/nodes_fixture.h"

namespace {

std::string Words(const char* text, bool quoted, bool caps) {
  std::string out;
  std::string_view t(text);
  std::vector<std::string_view> lines;
  for (size_t p = 0;; ) {
    size_t nl = t.find('\n', p);
    lines.push_back(t.substr(p, nl == std::string_view::npos ? std::string_view::npos : nl - p));
    if (nl == std::string_view::npos) break;
    p = nl + 1;
  }
  for (const SpellWord& w : SpellSplit(text, SpellSplitOptions{quoted, caps}))
    out += (out.empty() ? "" : " ") + std::to_string(w.line) + "." + std::to_string(w.offset) + ":" +
           std::string(lines[w.line].substr(w.offset, w.length));
  return out;
}

TEST(SpellSplit, WordsOfAMailText) {
  struct Case {
    const char* text;
    bool quoted, caps;
    const char* words;
  } cases[] = {
      {"Hello wrold, again.", true, true, "0.0:Hello 0.6:wrold 0.13:again"},
      {"> teh quote\nmine", true, true, "1.0:mine"},
      {"> teh quote\nmine", false, true, "0.2:teh 0.6:quote 1.0:mine"},
      {"see https://exmaple.com/pth and www.fo.bar or (www.x.y) ok", true, true, "0.0:see 0.28:and 0.43:or 0.56:ok"},
      {"mail <joe@exmaple.org> or mailto:x now", true, true, "0.0:mail 0.23:or 0.35:now"},
      {"don't 'quoted' rock\xE2\x80\x99n\xE2\x80\x99roll it's'", true, true,
       "0.0:don't 0.7:quoted 0.15:rock\xE2\x80\x99n\xE2\x80\x99roll 0.31:it's"},
      {"don''t '' ok", true, true, "0.0:don 0.5:t 0.10:ok"},
      {"x na\xC3\xAFve caf\xC3\xA9 Gr\xC3\xB6\xC3\x9F" "e", true, true,
       "0.0:x 0.2:na\xC3\xAFve 0.9:caf\xC3\xA9 0.15:Gr\xC3\xB6\xC3\x9F" "e"},
      {"abc123 R2D2 2nd snake_case fine", true, true, "0.27:fine"},
      {"NASA said OK \xC3\x89T\xC3\x89 Hello", true, true, "0.5:said 0.19:Hello"},
      {"NASA said", true, false, "0.0:NASA 0.5:said"},
      {"well-known /usr/share bad\xFF\xFE" "byte", true, true, "0.0:well 0.5:known 0.22:bad 0.27:byte"},
      {"\xE2\x80\x94" "dash\xE2\x80\x9Cquote\xE2\x80\x9D", true, true, "0.3:dash 0.10:quote"},
      {"\xE3\x81\x93\xE3\x82\x93 a\n\nb", true, true, "0.0:\xE3\x81\x93\xE3\x82\x93 0.7:a 2.0:b"},
  };
  for (const Case& c : cases) EXPECT_EQ(Words(c.text, c.quoted, c.caps), c.words) << c.text;
}

class SpellTest : public nodestest::NodesTest {
 protected:
  void SetUp() override {
    NodesTest::SetUp();
    Opt_AssignString("General.MailAddress", "me@example.org", kOptPermanent, 0);
    Opt_AssignString("General.OutboxFolder", "Local!outbox", kOptPermanent, 0);
    Opt_AssignString("Spell.Language", "en_US", kOptPermanent, 0);
    ASSERT_TRUE(MM_FolCreate(local_, "outbox", 1));
    Spell_Reset();
  }
  void TearDown() override {
    for (WINDOW w : ComposeWindows()) xvt_vobj_destroy(w);
    Spell_Reset();
    NodesTest::TearDown();
  }
  static WINDOW Window(const char* subject, const char* body) {
    WINDOW win = compose_new();
    xvt_test_type(win, kComposeToId, "ann@example.org");
    xvt_test_type(win, kComposeSubjectId, subject);
    txedit_set_text(ComposeInfoOf(win)->text_pane, body);
    return win;
  }
  static std::string Text(WINDOW win) { return ComposeTextGet(ComposeInfoOf(win)->text_pane); }
  static std::string Subject(WINDOW win) { return xvt_ctl_get_text(win, kComposeSubjectId, 1000); }
  static std::string Shown(WINDOW dlg) { return xvt_ctl_get_text(dlg, kSpellWordId, 1000); }
};

TEST_F(SpellTest, PersonalListRoundTripAndDamagedListsLeftAlone) {
  if (!Spell_Available()) GTEST_SKIP() << kSpellNotAvailable;
  const std::string path = home_ + "/" + kSpellListName;
  std::vector<std::string> words;
  std::string error;
  ASSERT_TRUE(SpellSaveWords(path, {"Velmar", "na\xC3\xAFve"}, &error)) << error;
  EXPECT_EQ(ReadFile(path), "Velmar\nna\xC3\xAFve\n");
  struct stat st{};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  ASSERT_TRUE(SpellLoadWords(path, &words, &error)) << error;
  EXPECT_EQ(words, (std::vector<std::string>{"Velmar", "na\xC3\xAFve"}));

  std::string many;
  for (size_t i = 0; i <= kSpellListMaxWords; ++i) many += "w\n";
  struct Case {
    std::string data;
    const char* says;
  } cases[] = {
      {"ok\n" + std::string(200, 'a') + "\n", "line 2: a word is 1 to 100 bytes"},
      {std::string("ok\nnul\0byte\n", 12), "line 2: a word holds no blanks"},
      {"two words\n", "line 1: a word holds no blanks"},
      {"bad\xC3(\n", "line 1: the text is not UTF-8"},
      {many, "more than 100000 words"},
      {std::string(kSpellListMaxBytes + 1, 'a'), "bytes, more than the 4194304"},
  };
  for (Case& c : cases) {
    { std::ofstream(path, std::ios::binary) << c.data; }
    EXPECT_FALSE(SpellLoadWords(path, &words, &error)) << c.says;
    EXPECT_NE(error.find(c.says), std::string::npos) << error;
    // The checker works on without the list and never writes over it.
    Spell_Reset();
    std::string open_error, warning;
    ASSERT_TRUE(Spell_Open(&open_error, &warning)) << open_error;
    EXPECT_NE(warning.find(c.says), std::string::npos) << warning;
    EXPECT_FALSE(Spell_AddWord("Zorblat", &error));
    EXPECT_NE(error.find("left as it is"), std::string::npos) << error;
    EXPECT_EQ(ReadFile(path), c.data) << c.says;
  }
}

TEST_F(SpellTest, DialogCorrectsSubjectAndTextAndUndoRestores) {
  Run([&] {
    const char* body = "I recieve the pakage today.\n> teh quote\nA pakage and Zorblat.\n";
    WINDOW win = Window("Meeting abuot plans", body);
    if (!Spell_Available()) {
      xvt_test_user_command(win, M_COMPOSE_SPELL);
      EXPECT_NE(Posts().find(kSpellNotAvailable), std::string::npos) << Posts();
      return;
    }
    std::vector<std::string> shown;
    xvt_test_push_dialog(kSpellDialogRid, [&](WINDOW dlg) {
      shown.push_back(Shown(dlg));
      int from = -1, to = -1;
      EXPECT_TRUE(xvt_test_text_sel(xvt_win_get_ctl(win, kComposeSubjectId), &from, &to) && from == 8 && to == 13);
      xvt_test_type(dlg, kSpellChangeId, "about");
      xvt_test_click(dlg, kSpellReplaceId);
      shown.push_back(Shown(dlg));
      // The word stands selected in the editor while it is shown.
      E_DATA* ed = edit_data(ComposeInfoOf(win)->text_pane);
      std::string sel;
      ASSERT_TRUE(ed->buf->region);
      ecmd_region_text(ed->buf, ed->buf->region, &sel);
      EXPECT_EQ(sel, "recieve");
      const int n = xvt_list_count_all(xvt_win_get_ctl(dlg, kSpellListId));
      int pick = -1;
      char buf[200];
      for (int i = 0; i < n; ++i)
        if (std::string(xvt_list_get_elt(xvt_win_get_ctl(dlg, kSpellListId), i, buf, sizeof buf)) == "receive") pick = i;
      ASSERT_GE(pick, 0);
      xvt_test_select(dlg, kSpellListId, pick);
      xvt_test_click(dlg, kSpellReplaceId);
      shown.push_back(Shown(dlg));
      xvt_test_type(dlg, kSpellChangeId, "package");
      xvt_test_click(dlg, kSpellReplaceAllId);
      shown.push_back(Shown(dlg));
      xvt_test_click(dlg, kSpellAddId);
    });
    xvt_test_clear_posts();
    xvt_test_user_command(win, M_COMPOSE_SPELL);
    EXPECT_EQ(shown, (std::vector<std::string>{"abuot  (subject)", "recieve  (line 1)", "pakage  (line 1)",
                                                "Zorblat  (line 3)"}));
    EXPECT_EQ(Subject(win), "Meeting about plans");
    EXPECT_EQ(Text(win), "I receive the package today.\n> teh quote\nA package and Zorblat.\n");
    EXPECT_EQ(ReadFile(home_ + "/" + kSpellListName), "Zorblat\n");
    EXPECT_NE(Posts().find("The spelling check is complete."), std::string::npos) << Posts();

    // Each replacement is one step of the editor's undo.
    E_DATA* ed = edit_data(ComposeInfoOf(win)->text_pane);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(ecmd_run(ed, "undo", nullptr, false), RC_OK);
    EXPECT_EQ(Text(win), body);

    // Learnt and corrected, the text is now clean.
    txedit_set_text(ComposeInfoOf(win)->text_pane, "A package and Zorblat.");
    xvt_test_clear_posts();
    xvt_test_user_command(win, M_COMPOSE_SPELL);
    EXPECT_NE(Posts().find("No spelling errors found."), std::string::npos) << Posts();
  });
}

TEST_F(SpellTest, CheckBeforeSendCancelStopsTheSend) {
  Run([&] {
    Opt_AssignString("Compose.SpellCheckBeforeSend", "1", kOptPermanent, 0);
    if (!Spell_Available()) return;
    WINDOW win = Window("Plans", "Seee you.\n");
    ComposeInfoOf(win)->options.queue_outgoing = 1;
    xvt_test_push_dialog(kSpellDialogRid, [&](WINDOW dlg) { xvt_test_click(dlg, kSpellCancelId); });
    EXPECT_EQ(send_mail(win), 0);
    ASSERT_TRUE(ComposeInfoOf(win));
    EXPECT_EQ(Text(win), "Seee you.\n");
    EXPECT_EQ(Count("outbox"), 0);
    // Ignored, the message goes.
    xvt_test_push_dialog(kSpellDialogRid, [&](WINDOW dlg) { xvt_test_click(dlg, kSpellIgnoreId); });
    EXPECT_EQ(send_mail(win), 1) << Posts();
    EXPECT_EQ(Count("outbox"), 1);
  });
}

}  // namespace
