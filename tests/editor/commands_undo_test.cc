// Undo and redo over random commands in a buffer that pages all the time,
// the clipboard's line ends, wrapping while typing, search and replace,
// and the event queue of a busy window.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "tests/editor/commands_fixture.h"
#include "xvt/common/win_records.h"
#include "xvt/xvt_test.h"

namespace {

// A window record over a tiny paging configuration, filled from a file.
struct PagingEd {
  SpillDir dir;
  EdFixture f;
  explicit PagingEd(int lines) {
    MakeTiny(f.buf, dir);
    std::string text;
    for (int i = 0; i < lines; ++i) text += "line " + std::to_string(i) + " wörd_x don't-stop 42\n";
    EXPECT_EQ(elib_file_read(WriteTemp(dir, "in.txt", text).c_str(), f.buf), RC_OK);
    f.buf->the_point->offset = 0;
    elib_mark_goto_bob(f.buf, f.buf->the_point);
  }
};

// Replaces bytes [from, to) of the text directly in the store.
void TempMarkAt(EdFixture& f, size_t from, size_t to, const char* with) {
  MARK *a = nullptr, *b = nullptr;
  mark_dup(f.buf, f.buf->the_point, &a);
  mark_dup(f.buf, f.buf->the_point, &b);
  PlaceMark(f.buf, a, from);
  PlaceMark(f.buf, b, to);
  elib_delete_range(f.buf, a, b);
  elib_insert(f.buf, a, with);
  mark_free(f.buf, &a);
  mark_free(f.buf, &b);
}

const char* kRandomCommands[] = {
    "char-kill-fwd",       "char-kill-rev",        "word-kill-fwd",       "word-kill-rev",
    "id-kill-fwd",         "nonwhite-kill-rev",    "line-kill-eol",       "line-kill-bol",
    "line-kill-white-sides", "line-newline",       "line-openline",       "point-goto-char-fwd",
    "point-goto-line-fwd", "point-goto-line-rev",  "point-goto-word-fwd", "point-goto-eob",
    "point-goto-bob",      "point-goto-eol",       "buffer-select-all",   "point-goto-nonwhite-rev",
};

TEST(EditorUndoTest, UndoAllGivesTheStartRedoAllTheEnd) {
  for (unsigned seed = 1; seed <= 12; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    PagingEd p(40);
    EdFixture& f = p.f;
    ecmd_set_wrap_margin(f.ed, 24);
    const std::string start = BufferText(f.buf);
    std::mt19937 rng(seed);
    for (int step = 0; step < 150; ++step) {
      unsigned r = rng() % 10;
      if (r < 3) {
        const int chars[] = {'a', ' ', 'z', 0xE9, 0x4E2D, '\t', '-'};
        f.Key(chars[rng() % 7]);
      } else if (r < 4) {
        f.Run(rng() % 2 ? "point-goto-char-fwd" : "point-goto-line-fwd", true);
      } else if (r < 5) {
        // Long pastes cut the tiny blocks as they go in.
        const std::string clip = rng() % 2 ? "p\r\nq\rr" : std::string(14, 'L') + "\n" + std::string(12, 'm');
        std::string many;
        for (int i = 0; i < 3; ++i) many += clip + "\r\n";
        xvt_cb_put_text(many.data(), many.size());
        ecmd_menu(f.ed, rng() % 2 ? kMenuCut : kMenuPaste);
      } else if (r < 6) {
        long n = 0;
        ecmd_replace_forward(f.ed, "ne", "NEne", &n);
      } else {
        f.Run(kRandomCommands[rng() % (sizeof kRandomCommands / sizeof *kRandomCommands)]);
      }
      // Paging goes on: only blocks that hold a mark may stay beyond the limit.
      ASSERT_LE(f.buf->blks_in_mem, f.buf->max_blks + 1 + static_cast<int>(f.buf->marks.size())) << step;
    }
    const std::string end = BufferText(f.buf);
    ASSERT_NE(end, start);
    EXPECT_GT(p.dir.files(), 0);  // some blocks are out on disk
    int undone = 0;
    while (f.Run("undo") == RC_OK && undone < 10000) ++undone;
    EXPECT_EQ(BufferText(f.buf), start);
    EXPECT_EQ(elib_buffer_integrity_check(f.buf), RC_OK);
    int redone = 0;
    while (f.Run("redo") == RC_OK && redone < 10000) ++redone;
    EXPECT_EQ(redone, undone);
    EXPECT_GT(undone, 30);
    EXPECT_EQ(BufferText(f.buf), end);
    EXPECT_EQ(elib_buffer_integrity_check(f.buf), RC_OK);
  }
}

TEST(EditorUndoTest, StepsAndThePoint) {
  EdFixture f("ab|");
  f.Type("cd");
  ASSERT_EQ(f.ed->cmd->undo.size(), 1u);
  EXPECT_EQ(f.ed->cmd->undo[0].ops.size(), 1u);  // the run is one record
  f.Key(K_ENTER);
  f.Type("ef");
  EXPECT_EQ(f.Render(), "abcd\nef|");
  for (const char* after : {"abcd\n|", "abcd|", "ab|"}) {
    EXPECT_EQ(f.Run("undo"), RC_OK);
    EXPECT_EQ(f.Render(), after);
  }
  EXPECT_EQ(f.Run("undo"), RC_FAIL);
  f.Run("redo");
  EXPECT_EQ(f.Render(), "abcd|");
  // A new change forgets what could be redone.
  f.Type("x");
  EXPECT_EQ(f.Run("redo"), RC_FAIL);
  // A region cut is one step, and so is a paste of several lines.
  EdFixture g("a[b\nc\nd]|e");
  ASSERT_EQ(ecmd_menu(g.ed, kMenuCut), RC_OK);
  EXPECT_EQ(g.Render(), "a|e");
  ASSERT_EQ(ecmd_menu(g.ed, kMenuPaste), RC_OK);
  EXPECT_EQ(g.Render(), "ab\nc\nd|e");
  g.Run("undo");
  EXPECT_EQ(g.Render(), "a|e");
  g.Run("undo");
  EXPECT_EQ(g.Render(), "ab\nc\nd|e");
}

TEST(EditorUndoTest, AChangeBehindTheLogsBackIsNeverUndoneBlindly) {
  EdFixture f("ab|");
  f.Type("cd");
  // The program edits the text without the log: "abcd" becomes "abXd".
  TempMarkAt(f, 2, 3, "X");
  ASSERT_EQ(BufferText(f.buf), "abXd");
  EXPECT_EQ(f.Run("undo"), RC_FAIL);
  EXPECT_EQ(BufferText(f.buf), "abXd");
  EXPECT_TRUE(f.ed->cmd->undo.empty());
  f.Type("e");
  ecmd_forget_undo(f.ed);
  EXPECT_EQ(f.Run("undo"), RC_FAIL);
}

struct CopyCase {
  const char* picture;
  const char* clipboard;
};

TEST(EditorClipboardTest, CopyWritesLinesAndPasteGivesTheTextBack) {
  const CopyCase cases[] = {
      {"a[bc]|d", "bc"},
      {"[ab\ncd|]", "ab\ncd"},
      {"x[ab\n|]cd", "ab\n\n"},
      {"x[a\n\nb\nc|]", "a\n\nb\nc"},
      {"[é\n中|]", "é\n中"},
  };
  for (const CopyCase& c : cases) {
    SCOPED_TRACE(c.picture);
    EdFixture f(c.picture);
    const std::string text = BufferText(f.buf);
    ASSERT_EQ(ecmd_menu(f.ed, kMenuCopy), RC_OK);
    EXPECT_EQ(xvt_cb_get_text(), c.clipboard);
    ASSERT_EQ(ecmd_menu(f.ed, kMenuCut), RC_OK);
    ASSERT_EQ(ecmd_menu(f.ed, kMenuPaste), RC_OK);
    EXPECT_EQ(BufferText(f.buf), text);
  }
}

TEST(EditorClipboardTest, PasteSplitsEveryKindOfLineEnd) {
  const struct {
    const char* clip;
    const char* after;
  } cases[] = {
      {"a\r\nb", "xa\nb|y"},   {"a\rb", "xa\nb|y"},          {"a\nb\r\n", "xa\nb|y"},
      {"a\r\r\nb", "xa\n\nb|y"}, {"a\r", "xa|y"},            {"\r\n\r\n", "x\n|y"},
      {"\n\rz", "x\n\nz|y"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.clip);
    EdFixture f("x|y");
    xvt_cb_put_text(c.clip, std::strlen(c.clip));
    EXPECT_EQ(ecmd_menu(f.ed, kMenuPaste), RC_OK);
    EXPECT_EQ(f.Render(), c.after);
  }
}

TEST(EditorClipboardTest, BadClipboardTextIsRefusedWithAReason) {
  EdFixture f("x|y");
  xvt_test_clear_posts();
  xvt_cb_put_text("a\0b", 3);
  EXPECT_EQ(ecmd_menu(f.ed, kMenuPaste), RC_FAIL);
  EXPECT_EQ(f.Render(), "x|y");
  ASSERT_EQ(xvt_test_posts().size(), 1u);
  EXPECT_NE(xvt_test_posts()[0].text.find("NUL"), std::string::npos);
  std::string huge(kPasteMaxBytes + 1, 'a');
  EXPECT_EQ(ecmd_paste_text(f.ed, huge), RC_FAIL);
  EXPECT_EQ(f.Render(), "x|y");
  f.buf->flags |= kBufReadOnly;
  xvt_cb_put_text("ok", 2);
  EXPECT_EQ(ecmd_menu(f.ed, kMenuPaste), RC_FAIL);
}

TEST(EditorWrapTest, TypingPastTheMarginBreaksAtTheLastBlank) {
  struct Case {
    const char* before;
    const char* typed;
    const char* after;
  };
  const Case table[] = {
      {"one two thre|", "e", "one two\nthree|"},
      {"one two|", " ", "one two |"},
      {"abcdefghij|", " ", "abcdefghij |"},  // a trailing blank is no break
      {"abcdefghij|", "k", "abcdefghijk|"},  // nor is a word without one
      {"  indented|", "x", "  indentedx|"},  // nor leading blanks
      {"aa bb|cc dd ee", "x", "aa bbx|cc\ndd ee"},
      {"a b c d e f g|", "h", "a b c d e\nf gh|"},
      // The margin counts cells: two for a wide character, none for a mark.
      {"中中中 中中|", "x", "中中中\n中中x|"},
      {"e\xCC\x81" "e\xCC\x81" "e\xCC\x81" "e\xCC\x81" "e\xCC\x81" " ab|", "c",
       "e\xCC\x81" "e\xCC\x81" "e\xCC\x81" "e\xCC\x81" "e\xCC\x81" " abc|"},
  };
  for (const Case& c : table) {
    SCOPED_TRACE(c.before);
    EdFixture f(c.before);
    ecmd_set_wrap_margin(f.ed, 10);
    f.Type(c.typed);
    EXPECT_EQ(f.Render(), c.after);
  }
}

TEST(EditorSearchTest, ForwardSearchAndReplace) {
  EdFixture f("a|b abc\nxabc");
  EXPECT_EQ(ecmd_search_forward(f.ed, "abc"), RC_OK);
  EXPECT_EQ(f.Render(), "ab |abc\nxabc");
  EXPECT_EQ(ecmd_search_forward(f.ed, "abc"), RC_OK);  // a match at the point is found again
  EXPECT_EQ(f.Render(), "ab |abc\nxabc");
  EXPECT_EQ(ecmd_search_forward(f.ed, "ABC"), RC_FAIL);
  EXPECT_EQ(ecmd_search_forward(f.ed, "xab"), RC_OK);
  EXPECT_EQ(f.Render(), "ab abc\n|xabc");
  long n = 0;
  EdFixture g("|a a\na");
  EXPECT_EQ(ecmd_replace_forward(g.ed, "a", "aa", &n), RC_OK);
  EXPECT_EQ(n, 3);
  EXPECT_EQ(g.Render(), "|aa aa\naa");
  g.Run("undo");
  EXPECT_EQ(BufferText(g.buf), "a a\na");
  EXPECT_EQ(ecmd_search_forward(g.ed, "a\na"), RC_FAIL);
}

// ---- event queue ---------------------------------------------------------------

std::vector<int> g_seen;
bool g_reenter = false;
bool g_destroy_on_close = false;

long Handler(E_DATA* ed, WINDOW win, EVENT* ev) {
  g_seen.push_back(ev->type == E_COMMAND ? ev->v.cmd.tag : static_cast<int>(ev->type));
  if (ev->type == E_COMMAND && ev->v.cmd.tag == kMenuClose && g_destroy_on_close) {
    edata_destroy(ed);
    return 1;
  }
  if (g_reenter) {
    g_reenter = false;
    EVENT again = xvtrec::MakeEvent(E_UPDATE);
    EXPECT_EQ(ehserial(ed, win, &again, Handler), 0);  // queued, not handled yet
    again.type = E_CREATE;
    ehserial(ed, win, &again, Handler);  // creation always goes through
    EXPECT_EQ(g_seen.back(), E_CREATE);
  }
  return 1;
}

TEST(EditorEventQueueTest, EventsWhileBusyWaitTheirTurn) {
  EdFixture f;
  g_seen.clear();
  g_reenter = true;
  EVENT ev = xvtrec::MakeEvent(E_VSCROLL);
  EXPECT_EQ(ehserial(f.ed, NULL_WIN, &ev, Handler), 1);
  EXPECT_EQ(g_seen, (std::vector<int>{E_VSCROLL, E_CREATE, E_UPDATE}));
  EXPECT_EQ(f.ed->flags & kEdataBusy, 0u);
  EXPECT_TRUE(f.ed->cmd->queue.empty());
}

TEST(EditorEventQueueTest, CloseStopsTheLoopWhenTheRecordIsGone) {
  E_DATA* ed = edata_create(NULL_WIN, ShippedKeybind().c_str());
  ASSERT_NE(ed, nullptr);
  g_seen.clear();
  g_destroy_on_close = true;
  ed->flags |= kEdataBusy;
  EVENT close = xvtrec::MakeEvent(E_COMMAND);
  close.v.cmd.tag = kMenuClose;
  EVENT later = xvtrec::MakeEvent(E_UPDATE);
  ehserial(ed, NULL_WIN, &close, Handler);
  ehserial(ed, NULL_WIN, &later, Handler);
  ed->flags &= ~kEdataBusy;
  EVENT first = xvtrec::MakeEvent(E_FOCUS);
  ehserial(ed, NULL_WIN, &first, Handler);  // works off the queue, closes
  g_destroy_on_close = false;
  EXPECT_EQ(g_seen, (std::vector<int>{E_FOCUS, kMenuClose}));
}

}  // namespace
