// The editor's commands on small texts: each case is a picture of the text
// before (| the point, [ ] the region), a command and the picture after.
#include <gtest/gtest.h>

#include <cstdio>
#include <vector>

#include "editor/ekeys/commands.h"
#include "tests/editor/commands_fixture.h"

namespace {

// Marks that draw nothing of their own, spelled out so the cases read.
#define ACUTE "\xCC\x81"
#define DOT_BELOW "\xCC\xA3"
#define VS1 "\xEF\xB8\x80"
#define VS16 "\xEF\xB8\x8F"
#define ZWJ "\xE2\x80\x8D"

struct CommandCase {
  const char* before;
  const char* command;
  bool shift;
  const char* after;
  int rc;
};

const CommandCase kCommands[] = {
    // Moving by character: é is two bytes, 中 three.
    {"a|éb", "point-goto-char-fwd", false, "aé|b", RC_OK},
    {"aé|b", "point-goto-char-rev", false, "a|éb", RC_OK},
    {"中|", "point-goto-char-rev", false, "|中", RC_OK},
    {"ab|\ncd", "point-goto-char-fwd", false, "ab\n|cd", RC_OK},
    {"ab\n|cd", "point-goto-char-rev", false, "ab|\ncd", RC_OK},
    {"ab\ncd|", "point-goto-char-fwd", false, "ab\ncd|", RC_FAIL},
    {"|ab", "point-goto-char-rev", false, "|ab", RC_FAIL},
    {"ab\nc|d", "point-goto-bob", false, "|ab\ncd", RC_OK},
    {"a|b\ncd", "point-goto-eob", false, "ab\ncd|", RC_OK},
    {"ab c|d", "point-goto-bol", false, "|ab cd", RC_OK},
    {"a|b cd", "point-goto-eol", false, "ab cd|", RC_OK},
    // Line moves keep the column in characters, limited by the line.
    {"ab|cd\néé\nx", "point-goto-line-fwd", false, "abcd\néé|\nx", RC_OK},
    {"abcd\nx\nab|cd", "point-goto-line-rev", false, "abcd\nx|\nabcd", RC_OK},
    {"ab|", "point-goto-line-fwd", false, "ab|", RC_FAIL},
    // A character is a base with its marks; columns count screen cells.
    {"a|e" ACUTE "b", "point-goto-char-fwd", false, "ae" ACUTE "|b", RC_OK},
    {"ae" ACUTE "|b", "point-goto-char-rev", false, "a|e" ACUTE "b", RC_OK},
    {"|e" ACUTE DOT_BELOW VS16 "x", "point-goto-char-fwd", false, "e" ACUTE DOT_BELOW VS16 "|x", RC_OK},
    {"|👍🏽x", "point-goto-char-fwd", false, "👍🏽|x", RC_OK},
    {"x👩" ZWJ "💻|", "point-goto-char-rev", false, "x|👩" ZWJ "💻", RC_OK},
    {ACUTE "|a", "point-goto-char-rev", false, "|" ACUTE "a", RC_OK},
    {"ab|" ACUTE "\ncd", "point-goto-char-fwd", false, "ab" ACUTE "|\ncd", RC_OK},
    {"中|ab\nabcd", "point-goto-line-fwd", false, "中ab\nab|cd", RC_OK},
    {"abc|d\n中中x", "point-goto-line-fwd", false, "abcd\n中|中x", RC_OK},
    {"ae" ACUTE "|x\nabcd", "point-goto-line-fwd", false, "ae" ACUTE "x\nab|cd", RC_OK},
    {"a\tb|\n123456789x", "point-goto-line-fwd", false, "a\tb\n123456789|x", RC_OK},
    // Words: letters, ' and -, and every non-ASCII character; digits not.
    {"|  don't-go x", "point-goto-word-fwd", false, "  don't-go| x", RC_OK},
    {"|ab12cd", "point-goto-word-fwd", false, "ab|12cd", RC_OK},
    {"x |naïve y", "point-goto-word-fwd", false, "x naïve| y", RC_OK},
    {"ab cd|", "point-goto-word-rev", false, "ab |cd", RC_OK},
    {"ab|  ..", "point-goto-word-fwd", false, "ab|  ..", RC_FAIL},
    {"|a_b c", "point-goto-id-fwd", false, "a_b| c", RC_OK},
    {"|a-b c", "point-goto-id-fwd", false, "a|-b c", RC_OK},
    {"a.b |c", "point-goto-nonwhite-rev", false, "|a.b c", RC_OK},
    {"|  a.b c", "point-goto-nonwhite-fwd", false, "  a.b| c", RC_OK},
    {"ab|\n  cd", "point-goto-nonwhite-fwd", false, "ab\n  cd|", RC_OK},
    {"|a", "point-at-bob?", false, "|a", RC_OK},
    {"a|", "point-at-bob?", false, "a|", RC_FAIL},
    {"a\nb|", "point-at-eob?", false, "a\nb|", RC_OK},
    {"a|\nb", "point-at-eob?", false, "a|\nb", RC_FAIL},
    // Deleting by character; line ends join.
    {"a|éb", "char-kill-fwd", false, "a|b", RC_OK},
    {"aé|b", "char-kill-rev", false, "a|b", RC_OK},
    {"a|e" ACUTE "b", "char-kill-fwd", false, "a|b", RC_OK},
    {"ae" ACUTE "|b", "char-kill-rev", false, "a|b", RC_OK},
    {"a👩" ZWJ "💻|b", "char-kill-rev", false, "a|b", RC_OK},
    {"a|中" VS1 "b", "char-kill-fwd", false, "a|b", RC_OK},
    {"ab|\ncd", "char-kill-fwd", false, "ab|cd", RC_OK},
    {"ab\n|cd", "char-kill-rev", false, "ab|cd", RC_OK},
    {"ab\ncd|", "char-kill-fwd", false, "ab\ncd|", RC_FAIL},
    {"|ab", "char-kill-rev", false, "|ab", RC_FAIL},
    {"a[bc]|d", "char-kill-fwd", false, "a|d", RC_OK},
    {"a|  bc.d", "word-kill-fwd", false, "a|.d", RC_OK},
    {"a.bc  |d", "word-kill-rev", false, "a.|d", RC_OK},
    {"|a_b-c", "id-kill-fwd", false, "|-c", RC_OK},
    {"x a_b|", "id-kill-rev", false, "x |", RC_OK},
    {"|  a.b c", "nonwhite-kill-fwd", false, "| c", RC_OK},
    {"x a.b  |", "nonwhite-kill-rev", false, "x |", RC_OK},
    {"ab|cd\nef", "line-kill-eol", false, "ab|\nef", RC_OK},
    {"ab|\nef", "line-kill-eol", false, "ab|ef", RC_OK},
    {"ab\nef|", "line-kill-eol", false, "ab\nef|", RC_FAIL},
    {"ab\nef|gh", "line-kill-bol", false, "ab\n|gh", RC_OK},
    {"ab\n|gh", "line-kill-bol", false, "ab|gh", RC_OK},
    {"a \t| \tb\nc", "line-kill-white-sides", false, "a|b\nc", RC_OK},
    {"a|b", "line-kill-white-sides", false, "a|b", RC_FAIL},
    {"ab|cd", "line-newline", false, "ab\n|cd", RC_OK},
    {"a[b]|cd", "line-newline", false, "a\n|cd", RC_OK},
    {"ab|cd", "line-openline", false, "ab|\ncd", RC_OK},
    {"a|b\ncd", "buffer-select-all", false, "[ab\ncd|]", RC_OK},
    // The case commands are registered and do nothing.
    {"a|bc", "word-case-upper", false, "a|bc", RC_FAIL},
    {"a[b]|c", "word-case-cap", false, "a[b|]c", RC_FAIL},
    // Shift extends the selection from where it started.
    {"a|bcd", "point-goto-char-fwd", true, "a[b|]cd", RC_OK},
    {"ab|cd", "point-goto-bol", true, "[|ab]cd", RC_OK},
    {"a[b]|cd", "point-goto-char-fwd", false, "abc|d", RC_OK},
    {"ab|cd", "point-goto-eob-no-x", true, "abcd|", RC_OK},
    // Scrolling is the window's; without one it does nothing.
    {"a|b", "scroll-page-fwd", false, "a|b", RC_FAIL},
};

TEST(EditorCommandsTest, TableOfCommands) {
  for (const CommandCase& c : kCommands) {
    SCOPED_TRACE(std::string(c.command) + " on \"" + c.before + "\"");
    EdFixture f(c.before);
    EXPECT_EQ(f.Run(c.command, c.shift), c.rc);
    EXPECT_EQ(f.Render(), c.after);
    EXPECT_EQ(elib_buffer_integrity_check(f.buf), RC_OK);
  }
}

struct KeyCase {
  const char* before;
  std::vector<int> keys;  // facade key codes; negative: with Shift
  const char* after;
};

const KeyCase kKeys[] = {
    {"|", {'h', 'i', 0xE9, 0x4E2D}, "hié中|"},
    {"ab|", {K_BS, K_BS}, "|"},
    {"ab|", {K_LEFT, 'x'}, "ax|b"},
    {"a|b", {-K_RIGHT, 'x'}, "ax|"},
    {"a|b\nc", {K_ENTER}, "a\n|b\nc"},
    {"abc|", {K_ESC, 'b', 'x'}, "x|abc"},
    {"abc|", {K_ESC, 'a'}, "[abc|]"},
    {"ab|", {'c', 'd', 'z' & 31}, "ab|"},
    {"ab|", {'c', K_ENTER, 'z' & 31}, "abc|"},
    {"ab|", {'c', 'z' & 31, 'y' & 31}, "abc|"},
    {"|ab", {K_ESC, 'x', 'u'}, "|ab"},
};

TEST(EditorCommandsTest, KeysThroughTheShippedMaps) {
  for (const KeyCase& c : kKeys) {
    SCOPED_TRACE(c.before);
    EdFixture f(c.before);
    for (int k : c.keys) {
      bool shift = k < 0;
      int ch = shift ? -k : k;
      bool control = ch < 32 && ch != K_BS && ch != K_ENTER && ch != K_ESC;
      if (control) ch = ch + 'a' - 1;
      f.Key(ch, shift, control);
    }
    EXPECT_EQ(f.Render(), c.after);
  }
}

TEST(EditorCommandsTest, EveryNamedCommandIsInTheTable) {
  EdFixture f;
  for (int i = 0; i < km_command_count; ++i) {
    const ECmdEntry* e = ecmd_lookup(f.ed->cmd, km_command_names[i].name);
    ASSERT_NE(e, nullptr) << km_command_names[i].name;
    EXPECT_EQ(e->type, km_command_names[i].type) << e->name;
  }
  EXPECT_EQ(ecmd_lookup(f.ed->cmd, "no-such-command"), nullptr);
}

TEST(EditorCommandsTest, ReadOnlyRefusesEveryEdit) {
  for (const char* name : {"char-kill-fwd", "char-kill-rev", "word-kill-fwd", "line-kill-eol", "line-newline",
                           "line-openline", "line-kill-white-sides"}) {
    EdFixture f("ab | cd\nef");
    f.buf->flags |= kBufReadOnly;
    EXPECT_EQ(f.Run(name), RC_FAIL) << name;
    EXPECT_EQ(f.Render(), "ab | cd\nef") << name;
  }
  EdFixture f("ab|");
  f.buf->flags |= kBufReadOnly;
  EXPECT_EQ(f.Key('x'), 1);
  EXPECT_EQ(f.Render(), "ab|");
  EXPECT_EQ(f.Run("point-goto-bol"), RC_OK);
}

TEST(EditorCommandsTest, ShiftSelectionHighlightsOnlyTheRegion) {
  EdFixture f("a|bcde");
  f.Run("point-goto-char-fwd", true);
  f.Run("point-goto-char-fwd", true);
  EXPECT_EQ(f.Render(), "a[bc|]de");
  EXPECT_EQ(f.Highlighted(), "bc");
  f.Run("point-goto-char-rev", true);
  EXPECT_EQ(f.Render(), "a[b|]cde");
  EXPECT_EQ(f.Highlighted(), "b");
  // Back past the anchor: the highlight follows to the other side.
  f.Run("point-goto-bol", true);
  EXPECT_EQ(f.Render(), "[|a]bcde");
  EXPECT_EQ(f.Highlighted(), "a");
  f.Run("point-goto-eol");
  EXPECT_EQ(f.Render(), "abcde|");
  EXPECT_EQ(f.Highlighted(), "");
  EXPECT_EQ(f.buf->sel_anchor, nullptr);
}

TEST(EditorCommandsTest, TypingReplacesTheSelectionOnce) {
  EdFixture f("a|bcd");
  f.Key(K_RIGHT, true);
  f.Key(K_RIGHT, true);
  f.Type("xy");
  EXPECT_EQ(f.Render(), "axy|d");
  EXPECT_EQ(f.Highlighted(), "");
  EXPECT_EQ(f.buf->flags & (kBufSelActive | kBufSelTemp | kBufSelLocked), 0u);
}

// The selection's state bits around a command: class x shift x state.
TEST(EditorCommandsTest, SelectionBitsTable) {
  const char* classes[] = {"point-goto-char-fwd", "point-goto-eob-no-x", "point-at-bob?",
                           "selection-extend-tmp", "selection-extend-lock-on", "selection-extend-lock-off"};
  // Start states: off, on (Shift), temporary, locked; each with an anchor but off.
  const uint32_t starts[] = {0, 0x200, 0x600, 0xA00};
  // Expected bits and anchor ("a" kept, "-" none) per class, per shift
  // (no, yes), per start state.
  const char* expect[6][2][4] = {
      {{"0-", "0-", "0-", "A00a"}, {"200a", "200a", "600a", "A00a"}},
      {{"0-", "0-", "0-", "A00a"}, {"0-", "0-", "0-", "A00a"}},
      {{"0-", "200a", "600a", "A00a"}, {"0-", "200a", "600a", "A00a"}},
      {{"0-", "0a", "0a", "A00a"}, {"600a", "200a", "600a", "A00a"}},
      {{"0-", "0-", "0-", "A00a"}, {"A00a", "200a", "600a", "A00a"}},
      {{"0-", "0-", "0-", "0-"}, {"0-", "0-", "0-", "0-"}},
  };
  for (int k = 0; k < 6; ++k)
    for (int shift = 0; shift < 2; ++shift)
      for (int s = 0; s < 4; ++s) {
        EdFixture f("ab|cd");
        f.buf->flags |= starts[s];
        if (starts[s]) mark_dup(f.buf, f.buf->the_point, &f.buf->sel_anchor);
        ecmd_selection_pre(f.buf, classes[k], shift);
        ecmd_selection_post(f.buf, classes[k]);
        char got[16];
        std::snprintf(got, sizeof got, "%X%c", f.buf->flags & 0xE00, f.buf->sel_anchor ? 'a' : '-');
        EXPECT_STREQ(got, expect[k][shift][s]) << classes[k] << " shift " << shift << " start " << std::hex << starts[s];
      }
}

TEST(EditorCommandsTest, MouseSelects) {
  struct Step {
    char what;  // d down, s shift-down, m drag, u up, 2 double click
    EPos at;
  };
  const struct {
    std::vector<Step> steps;
    const char* after;
    const char* lit;
  } cases[] = {
      {{{'d', {0, 1}}, {'m', {0, 5}}, {'u', {0, 6}}}, "a[bc de|]f\nghi", "bc de"},
      {{{'d', {0, 5}}, {'m', {1, 1}}, {'m', {0, 2}}, {'u', {0, 2}}}, "ab[|c d]ef\nghi", "c d"},
      {{{'d', {0, 5}}, {'u', {0, 5}}}, "abc d|ef\nghi", ""},
      {{{'2', {0, 5}}}, "abc [def|]\nghi", "def"},
      {{{'s', {1, 2}}, {'u', {1, 2}}}, "a[bc def\ngh|]i", "bc defgh"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.after);
    EdFixture f("a|bc def\nghi");
    for (const Step& st : c.steps) {
      if (st.what == 'd' || st.what == 's') ecmd_mouse_down(f.ed, st.at, st.what == 's');
      if (st.what == 'm') ecmd_mouse_drag(f.ed, st.at);
      if (st.what == 'u') ecmd_mouse_up(f.ed, st.at);
      if (st.what == '2') ecmd_mouse_double(f.ed, st.at);
    }
    EXPECT_EQ(f.Render(), c.after);
    EXPECT_EQ(f.Highlighted(), c.lit);
    EXPECT_EQ(f.buf->sel_anchor, nullptr);
  }
}

std::string g_window_command;
int g_released = 0;
int WindowCommand(E_DATA*, const char* name) {
  g_window_command = name;
  return RC_OK;
}
void ReleaseDisplay(E_DATA* ed) {
  ++g_released;
  ed->dis = nullptr;
}

TEST(EditorCommandsTest, RecordLifeAndTheWindowsShare) {
  edata_set_data_dir(VELMAR_SOURCE_DATA_DIR);
  E_DATA* ed = edata_create(NULL_WIN, nullptr);
  ASSERT_NE(ed, nullptr);
  ecmd_set_window_handler(ed, WindowCommand);
  EXPECT_EQ(edata_command(ed, "scroll-line-fwd"), 1);
  EXPECT_EQ(g_window_command, "scroll-line-fwd");
  ed->dis = reinterpret_cast<EDisplay*>(&g_released);
  edata_set_display_release(ed, ReleaseDisplay);
  edata_destroy(ed);
  EXPECT_EQ(ed, nullptr);
  EXPECT_EQ(g_released, 1);
  edata_set_data_dir("/no/such/dir");
  EXPECT_EQ(edata_create(NULL_WIN, nullptr), nullptr);
  EXPECT_NE(elib_last_error().find("/no/such/dir/keybind.def"), std::string::npos) << elib_last_error();
  edata_set_data_dir("");
}

}  // namespace
