// Decoding key sequences through the map stack, and the facade's key
// events as symbols.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "editor/ekeys/key_event.h"
#include "editor/ekeys/key_names.h"
#include "tests/editor/keys_fixture.h"
#include "xvt/common/win_records.h"

namespace {

// What one key gave: "rc/status/name".
std::string Feed(KMSTATE* s, KSYM key) {
  KBIND_RESULT r;
  int rc = km_ksym_decode_seq(s, key, &r);
  return std::string(rc == RC_OK ? "ok" : "FAIL") + "/" + std::to_string(r.status) + "/" + km_result_name(r);
}

std::string FeedAll(KMSTATE* s, const std::vector<KSYM>& keys) {
  std::string out;
  for (KSYM k : keys) out += (out.empty() ? "" : " ") + Feed(s, k);
  return out;
}

// Maps for each branch of the decoder. Stack: top, mid, low (top first).
const char* kMaps = R"(
keymap top self-insert
a undo
b rescan
p prefix ptop
q prefix ptop
s prefix pdeep
end_keymap
keymap ptop rescan
x redo
end_keymap
keymap pdeep rescan
x prefix pdeep2
end_keymap
keymap pdeep2 rescan
y undo
end_keymap
keymap mid rescan
b redo
p prefix pmid
s prefix pmid
end_keymap
keymap pmid rescan
y line-newline
x point-goto-bob
end_keymap
keymap low rescan
q redo
end_keymap
keymap bare rescan
end_keymap
keymap lone undo
end_keymap
keymap dangling undo
p prefix gone
end_keymap
keymap twice undo
p prefix ptwice
end_keymap
keymap ptwice rescan
end_keymap
)";

TEST(KeysDecode, OneCasePerBranch) {
  // A broken state fails the key, says why when `message` is given, and is
  // ready for a new sequence.
  struct Case {
    const char* what;
    std::vector<const char*> stack;  // top last
    std::vector<KSYM> keys;
    const char* results;
    const char* message = nullptr;  // in the log; null: nothing logged
    const char* first_map = "";     // forced before the keys, "" to leave it
  } cases[] = {
      {"bound", {"low", "mid", "top"}, {'a'}, "ok/1/undo"},
      {"default of the top map", {"low", "mid", "top"}, {'z'}, "ok/1/self-insert"},
      {"rescan to a lower map", {"low", "mid", "top"}, {'b'}, "ok/1/redo"},
      {"unbound: nothing below a rescan", {"bare"}, {'z'}, "ok/2/rescan"},
      {"prefix pending, then bound", {"low", "mid", "top"}, {'p', 'x'}, "ok/3/prefix ok/1/redo"},
      {"a new sequence after a bound one", {"low", "mid", "top"}, {'p', 'x', 'a'}, "ok/3/prefix ok/1/redo ok/1/undo"},
      {"replay against the map below the one that gave the prefix",
       {"low", "mid", "top"},
       {'p', 'y'},
       "ok/3/prefix ok/1/line-newline"},
      {"replay finds nothing below", {"top"}, {'p', 'y'}, "ok/3/prefix ok/2/rescan"},
      {"shorter match after a longer failure, in the stack", {"low", "mid", "top"}, {'q', 'z'}, "ok/3/prefix ok/2/redo"},
      {"three-key chain", {"low", "mid", "top"}, {'s', 'x', 'y'}, "ok/3/prefix ok/3/prefix ok/1/undo"},
      {"shorter match after a longer failure, in a prefix map",
       {"low", "mid", "top"},
       {'s', 'x', 'z'},
       "ok/3/prefix ok/3/prefix ok/2/rescan"},
      {"empty stack", {}, {'x'}, "FAIL/0/", ""},
      {"first map not on the stack", {"lone"}, {'x', 'x'}, "FAIL/0/ ok/1/undo", "", "gone"},
      {"prefix to a missing map", {"dangling"}, {'p', 'x', 'x'}, "ok/3/prefix FAIL/0/ ok/1/undo",
       ""},
      {"the same map twice on the stack", {"twice", "twice"}, {'p', 'y', 'x'},
       "ok/3/prefix FAIL/0/ ok/1/undo", "Key decoding did not settle."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    KeyState k(kMaps);
    ASSERT_EQ(k.rc, RC_OK) << k.s->log;
    for (const char* m : c.stack) k.Push({m});
    if (*c.first_map) {
      k.s->done = RC_FAIL;
      k.s->first_map = c.first_map;
    }
    EXPECT_EQ(FeedAll(k.s, c.keys), c.results);
    if (c.message) {
      EXPECT_NE(k.s->log.find(c.message), std::string::npos) << k.s->log;
    } else {
      EXPECT_EQ(k.s->log, "");
    }
  }
}

TEST(KeysDecode, EleventhSymbolIsRefused) {
  // Eleven maps, each binding 'a' as a prefix to the next.
  std::string text;
  for (int i = 0; i <= 11; ++i)
    text += "keymap m" + std::to_string(i) + " undo\na prefix m" + std::to_string(i + 1) + "\nend_keymap\n";
  KeyState k(text);
  ASSERT_EQ(k.rc, RC_OK);
  k.Push({"m0"});
  for (int i = 0; i < kKmSyms; ++i) ASSERT_EQ(Feed(k.s, 'a'), "ok/3/prefix") << i;
  EXPECT_EQ(Feed(k.s, 'a'), "FAIL/0/");
  EXPECT_NE(k.s->log.find("Buffer overflow:  key= a (141), n_keysyms=11"), std::string::npos) << k.s->log;
  // The next key starts a new sequence.
  EXPECT_EQ(Feed(k.s, 'z'), "ok/1/undo");
}

TEST(KeysDecode, ShippedSequences) {
  KeyState k;
  ASSERT_EQ(km_state_setup(k.s, ShippedKeybind().c_str(), nullptr), RC_OK);
  struct Case {
    std::vector<KSYM> keys;
    const char* last;
  } cases[] = {
      {{'a'}, "ok/1/self-insert"},
      {{233}, "ok/1/self-insert"},
      {{kKsymText}, "ok/1/self-insert"},
      {{26}, "ok/1/undo"},
      {{25}, "ok/1/redo"},
      {{kKsymUp}, "ok/1/point-goto-line-rev"},
      {{kKsymLeft}, "ok/1/point-goto-char-rev"},
      {{kKsymCtlEnd}, "ok/1/point-goto-eob"},
      {{kKsymEsc, 'f'}, "ok/1/point-goto-word-fwd"},
      {{kKsymEsc, kKsymDown}, "ok/1/scroll-line-fwd"},
      {{kKsymEsc, 'x', 'u'}, "ok/1/undo"},
      {{kKsymEsc, 'x', 'h'}, "ok/1/buffer-select-all"},
      {{kKsymEsc, 'q'}, "ok/2/rescan"},
      {{kKsymEsc, 'x', 'q'}, "ok/2/rescan"},
  };
  for (const Case& c : cases) {
    std::string all = FeedAll(k.s, c.keys);
    EXPECT_EQ(all.substr(all.rfind(' ') + 1), c.last) << all;
  }
  EXPECT_EQ(k.s->log, "");
}

TEST(KeysEvent, FacadeKeysToSymbols) {
  struct Case {
    int ch;
    bool shift, control;
    int rc;
    int sym;
    const char* text;
  } cases[] = {
      {K_UP, false, false, RC_OK, kKsymUp, ""},
      {K_LEFT, false, false, RC_OK, kKsymLeft, ""},
      {K_RIGHT, true, false, RC_OK, kKsymRight, ""},
      {K_PREV, false, false, RC_OK, kKsymPgUp, ""},
      {K_LHOME, false, false, RC_OK, kKsymHome, ""},
      {K_LEND, false, false, RC_OK, kKsymEnd, ""},
      {K_HOME, false, true, RC_OK, kKsymCtlHome, ""},
      {K_END, false, true, RC_OK, kKsymCtlEnd, ""},
      {K_INS, false, false, RC_OK, kKsymIns, ""},
      {K_WLEFT, false, true, RC_OK, kKsymCtlLeft, ""},
      {K_WRIGHT, false, true, RC_OK, kKsymCtlRight, ""},
      {K_BTAB, true, false, RC_OK, kKsymBacktab, ""},
      {K_F1, false, false, RC_OK, 331, ""},
      {K_F1 + 14, false, false, RC_OK, 345, ""},
      {K_ESC, false, false, RC_OK, 27, ""},
      {K_BS, false, false, RC_OK, 8, ""},
      {K_DEL, false, false, RC_OK, 127, ""},
      {K_ENTER, false, false, RC_OK, 13, ""},
      {K_TAB, false, false, RC_OK, 9, "\t"},
      {'a', false, false, RC_OK, 'a', "a"},
      {'A', true, false, RC_OK, 'A', "A"},
      {'a', false, true, RC_OK, 1, ""},
      {'Z', true, true, RC_OK, 26, ""},
      {'[', false, true, RC_OK, 27, ""},
      {'1', false, true, RC_FAIL, 0, ""},
      {0xE9, false, false, RC_OK, 0xE9, "\xC3\xA9"},
      {0x142, false, false, RC_OK, kKsymText, "\xC5\x82"},
      {0x4E2D, false, false, RC_OK, kKsymText, "\xE4\xB8\xAD"},
      {0x1F600, false, false, RC_OK, kKsymText, "\xF0\x9F\x98\x80"},
      {0xD800, false, false, RC_FAIL, 0, ""},
      {0x110000, false, false, RC_FAIL, 0, ""},
      {0, false, false, RC_FAIL, 0, ""},
  };
  for (const Case& c : cases) {
    EVENT ev = xvtrec::MakeEvent(E_CHAR);
    ev.v.chr.ch = c.ch;
    ev.v.chr.shift = c.shift;
    ev.v.chr.control = c.control;
    KM_KEY key;
    EXPECT_EQ(km_key_from_event(&ev, &key), c.rc) << c.ch;
    if (c.rc != RC_OK) continue;
    EXPECT_EQ(key.sym, c.sym) << c.ch;
    EXPECT_EQ(std::string(key.text, key.text_len), c.text) << c.ch;
    EXPECT_EQ(key.shift, c.shift) << c.ch;
    EXPECT_EQ(key.control, c.control) << c.ch;
  }
  // A typed letter whose number is also a key code's (U+012D is K_UP's
  // number) types itself when the toolkit says it was typed.
  EVENT typed = xvtrec::MakeEvent(E_CHAR);
  typed.v.chr.ch = K_UP;
  typed.v.chr.text = true;
  KM_KEY letter;
  EXPECT_EQ(km_key_from_event(&typed, &letter), RC_OK);
  EXPECT_EQ(letter.sym, kKsymText);
  EXPECT_EQ(std::string(letter.text, letter.text_len), "\xC4\xAD");
  EVENT other = xvtrec::MakeEvent(E_COMMAND);
  KM_KEY key;
  EXPECT_EQ(km_key_from_event(&other, &key), RC_FAIL);
}

}  // namespace
