// Loading key maps: the shipped file, key names, blocks, the loader's
// refusals and the round trip through the written form.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "editor/ekeys/commands.h"
#include "editor/ekeys/key_names.h"
#include "tests/editor/keys_fixture.h"

namespace {

TEST(KeysShipped, LoadsCleanlyAndBindsOnlyKnownCommands) {
  KeyState k;
  std::string error;
  ASSERT_EQ(km_state_setup(k.s, ShippedKeybind().c_str(), &error), RC_OK) << error;
  EXPECT_EQ(k.s->log, "");
  std::vector<std::string> stack;
  for (CELL* c = dsl_first(k.s->stack); c; c = dsl_next(c)) stack.push_back(static_cast<KEYMAP*>(dsl_value(c))->name);
  EXPECT_EQ(stack, (std::vector<std::string>{"fundamental", "ctl-x-map", "esc-map"}));
  EXPECT_EQ(k.Map("fundamental")->def.bind_name, "self-insert");
  int bound = 0;
  bool undo = false, redo = false;
  for (CELL* c = dsl_first(k.s->maps); c; c = dsl_next(c)) {
    KEYMAP* m = static_cast<KEYMAP*>(dsl_value(c));
    EXPECT_EQ(km_bind_known(m->def.bind_name.c_str()), RC_OK) << m->name;
    KTUPLE_LIST tuples;
    km_kmap_unpack(m, &tuples);
    for (const KEYTUPLE& t : tuples) {
      EXPECT_EQ(km_bind_known(t.bind.c_str()), RC_OK) << m->name << " " << t.name << " " << t.bind;
      if (t.bind == "prefix") { EXPECT_NE(k.Map(t.prefix_map.c_str()), nullptr) << t.prefix_map; }
      bound += t.bind != "rescan";
      undo |= t.bind == "undo";
      redo |= t.bind == "redo";
    }
  }
  EXPECT_GT(bound, 60);
  EXPECT_TRUE(undo && redo);
  // The state's dump names the stack.
  std::string out;
  km_state_dump(k.s, &out);
  EXPECT_NE(out.find("  Keymap on stack level  0:      fundamental\n"), std::string::npos) << out;
  EXPECT_NE(out.find("  Keymap on stack level  2:      esc-map\n"), std::string::npos) << out;
  EXPECT_NE(out.find("  cur_idx=0, n_longest=0, n_cur=0\n"), std::string::npos) << out;
}

TEST(KeysShipped, SetupFailuresGiveTheUserMessage) {
  std::string dir = std::string(VELMAR_TEST_BINARY_DIR) + "/keys_setup_";
  struct Case {
    const char* path;
    const char* text;  // written to path first when not null
    const char* error;
  } cases[] = {
      {"", nullptr, "Unable to load keybind.def, please correct."},
      {"missing.def", nullptr, "Keybinding definition file not found."},
      {"empty.def", "", "Keybinding definition file not found."},
      {"nofund.def", "keymap esc-map rescan\nend_keymap\n", "No 'fundamental' keymap defined."},
  };
  for (const Case& c : cases) {
    std::string path = *c.path ? dir + c.path : "";
    if (c.text) std::ofstream(path) << c.text;
    KeyState k;
    std::string error;
    EXPECT_EQ(km_state_setup(k.s, path.c_str(), &error), RC_FAIL) << c.path;
    EXPECT_EQ(error, c.error) << c.path;
  }
}

TEST(KeysNames, EachFormOfAKeyName) {
  struct Case {
    const char* name;
    int rc;
    int key;
    const char* message;  // expected in the log, "" for none
  } cases[] = {
      {"A", RC_OK, 65, ""},          {"1", RC_OK, 49, ""},
      {"001", RC_OK, 1, ""},         {"0181", RC_OK, 1, ""},
      {"017", RC_OK, 15, ""},        {"99", RC_OK, 0, "Bad conversion of octal keyname.  99"},
      {"0777777", RC_OK, 0, "Bad conversion of octal"},
      {"^a", RC_OK, 1, ""},          {"ctl-a", RC_OK, 1, ""},
      {"^^", RC_OK, 30, ""},         {"ctl-x", RC_OK, 24, ""},
      {"0x41", RC_OK, 65, ""},       {"0xFFFF", RC_OK, 0xFFFF, ""},
      {"0xzz", RC_OK, 0, "Bad conversion of hex keyname.  0xzz"},
      {"0x10000", RC_OK, 0, "Bad conversion of hex"},
      {"backspace", RC_OK, 8, ""},   {"return", RC_OK, 13, ""},
      {"del", RC_OK, 127, ""},       {"up", RC_OK, 301, ""},
      {"right", RC_OK, 303, ""},     {"left", RC_OK, 304, ""},
      {"pgdn", RC_OK, 306, ""},      {"^home", RC_OK, 309, ""},
      {"ctl_end", RC_OK, 310, ""},   {"insert", RC_OK, 312, ""},
      {"ctl_right", RC_OK, 314, ""}, {"backtab", RC_OK, 315, ""},
      {"f1", RC_OK, 331, ""},        {"f15", RC_OK, 345, ""},
      {"f16", RC_FAIL, 0, "Unknown key name.  f16"},
      {"Up", RC_FAIL, 0, "Unknown key name.  Up"},
      {"ctl-ab", RC_FAIL, 0, "Unknown key name."},
  };
  for (const Case& c : cases) {
    KeyState k;
    KEYTUPLE t;
    t.name = c.name;
    t.key = 777;
    EXPECT_EQ(eui_cv_ksym_atoi(k.s, &t), c.rc) << c.name;
    if (c.rc == RC_OK) { EXPECT_EQ(t.key, c.key) << c.name; }
    if (*c.message) {
      EXPECT_NE(k.s->log.find(c.message), std::string::npos) << c.name << ": " << k.s->log;
    } else {
      EXPECT_EQ(k.s->log, "") << c.name;
    }
  }
  // Every symbol has a name that reads back as itself.
  KeyState k;
  for (int sym = 0; sym <= 0xFFFF; ++sym) {
    KEYTUPLE t;
    t.name = km_ksym_name(static_cast<KSYM>(sym));
    ASSERT_EQ(eui_cv_ksym_atoi(k.s, &t), RC_OK) << t.name;
    ASSERT_EQ(t.key, sym) << t.name;
  }
}

// Blocks as "first-last[:prefix]" with the binding of each key.
std::string Blocks(const KEYMAP* m) {
  std::string out;
  for (CELL* c = dsl_first(m->blocks); c; c = dsl_next(c)) {
    const KEYBLOCK* b = static_cast<const KEYBLOCK*>(dsl_value(c));
    out += "[" + std::to_string(b->first) + "-" + std::to_string(b->last);
    if (!b->prefix_map.empty()) out += ":" + b->prefix_map;
    for (const KBIND& e : b->binds) {
      EXPECT_EQ(e.type, kKbindName);
      out += " " + e.bind_name;
    }
    out += "]";
  }
  return out;
}

TEST(KeysBlocks, GapsAndPrefixesCutBlocks) {
  struct Case {
    const char* lines;
    const char* blocks;
  } cases[] = {
      {"A undo\nC redo\n", "[65-67 undo rescan redo]"},
      {"A undo\nD redo\n", "[65-65 undo][68-68 redo]"},
      {"D redo\nA undo\n", "[65-65 undo][68-68 redo]"},
      {"A prefix p1\nB prefix p2\n", "[65-65:p1 prefix][66-66:p2 prefix]"},
      {"A prefix p1\nB prefix p1\n", "[65-66:p1 prefix prefix]"},
      {"A undo\nB prefix p1\nC prefix p2\n", "[65-66:p1 undo prefix][67-67:p2 prefix]"},
      {"A undo\nC rescan\nE redo\nI redo\n", "[65-69 undo rescan rescan rescan redo][73-73 redo]"},
      {"0xffff undo\n0xfffe redo\n", "[65534-65535 redo undo]"},
      {"", ""},
  };
  for (const Case& c : cases) {
    KeyState k(std::string("keymap m self-insert\n") + c.lines + "end_keymap\n");
    ASSERT_EQ(k.rc, RC_OK) << c.lines << k.s->log;
    EXPECT_EQ(Blocks(k.Map("m")), c.blocks) << c.lines;
  }
}

TEST(KeysLoad, RefusalsAndWhatSurvivesThem) {
  std::string long_word(40, 'q');
  std::string long_line = "A undo " + std::string(600, '#');
  std::string many_maps;
  for (int i = 0; i <= kKmMapsMax; ++i)
    many_maps += "keymap m" + std::to_string(i) + " undo\nend_keymap\n";
  std::string many_keys = "keymap m undo\n";
  for (int i = 0; i <= kKmTuplesMax; ++i) many_keys += "0x" + std::to_string(1000 + i) + " redo\n";
  many_keys += "end_keymap\n";
  struct Case {
    std::string text;
    int rc;
    const char* message;  // "" for a clean load
    int maps;
    KSYM key;             // and its binding in map m
    const char* bind;
  } cases[] = {
      {"# only a comment\n\n   \nnot a map line\n", RC_OK, "", 0, 0, ""},
      {"keymap\n", RC_FAIL, "Missing keymap name in keymap file. (line 1)", 0, 0, ""},
      {"keymap m\nA undo\nend_keymap\n", RC_FAIL, "Missing default function in keymap file. (line 1)", 0, 0, ""},
      {"keymap m self-insert\n", RC_FAIL, "Missing end_keymap keyword in keymap file. (line 1)", 0, 0, ""},
      {"keymap m self-insert\n# c\nA undo", RC_OK, "", 1, 'A', "undo"},
      {"keymap m self-insert\nA undo\nkeymap n undo\n", RC_FAIL, "Missing end_keymap keyword", 0, 0, ""},
      {"keymap m self-insert\nA\nend_keymap\n", RC_FAIL, "Missing key binding target on line 2", 0, 0, ""},
      {"keymap m self-insert\nA prefix\nend_keymap\n", RC_FAIL, "Missing prefix map on line 2", 0, 0, ""},
      {"keymap m self-insert\nA prefix\nend_keymap\n", RC_FAIL, "Load keytuple list failed.", 0, 0, ""},
      {"keymap m self-insert\nbogus undo\nB redo\nend_keymap\n", RC_OK, "Unknown key name.  bogus", 1, 'B', "redo"},
      {"keymap m self-insert\nA undo\nA redo\nend_keymap\n", RC_OK, "Duplicate Key Binding.  (new='A',old='A')", 1,
       'A', "redo"},
      {"keymap m self-insert\n^a undo\nctl-a redo\nend_keymap\n", RC_OK, "Duplicate Key Binding.", 1, 1, "redo"},
      {"keymap m self-insert\nA frobnicate\nend_keymap\n", RC_OK, "Unknown command name.  frobnicate (line 2)", 1,
       'A', "self-insert"},
      {"keymap m frobnicate\nA undo\nend_keymap\n", RC_OK, "Unknown command name.", 1, 'B', "rescan"},
      {"keymap m prefix\nA undo\nend_keymap\n", RC_OK, "Unknown command name.", 1, 'B', "rescan"},
      {"keymap m self-insert\n" + long_word + " undo\nA redo\nend_keymap\n", RC_OK, "Word too long on line 2", 1, 'A',
       "redo"},
      {"keymap m self-insert\nA prefix " + std::string(130, 'p') + "\nend_keymap\n", RC_OK, "Word too long", 1, 'A',
       "self-insert"},
      {"keymap " + std::string(130, 'm') + " undo\nend_keymap\n", RC_FAIL, "Word too long in keymap file", 0, 0, ""},
      {"keymap m self-insert\n" + long_line + "\nB redo\nend_keymap\n", RC_OK, "Line too long in keymap file. (line 2)",
       1, 'A', "self-insert"},
      {"keymap m self-insert\r\nA undo extra words\r\nend_keymap\r\n", RC_OK, "", 1, 'A', "undo"},
      {"keymap m undo\nend_keymap\nkeymap m redo\nA redo\nend_keymap\n", RC_OK, "Duplicate keymap name.  m", 1, 'A',
       "undo"},
      {std::string("keymap \0m undo\nA\0redo\nend_keymap\n", 33), RC_OK, "", 1, 'A', "redo"},
      {many_maps, RC_FAIL, "Too many keymaps in keymap file.", 0, 0, ""},
      {many_keys, RC_FAIL, "Too many key bindings in one keymap.", 0, 0, ""},
      {std::string(kKmFileMax + 1, '#'), RC_FAIL, "Input file is too large.", 0, 0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 80));
    KeyState k(c.text);
    EXPECT_EQ(k.rc, c.rc);
    if (*c.message) {
      EXPECT_NE(k.s->log.find(c.message), std::string::npos) << "log: " << k.s->log.substr(0, 200);
    } else {
      EXPECT_EQ(k.s->log, "");
    }
    if (c.rc == RC_OK) {
      EXPECT_EQ(dsl_count(k.s->maps), c.maps);
      if (c.maps) { EXPECT_EQ(k.Bind("m", c.key), c.bind); }
    }
  }
}

// Every key of every map decodes the same in both states.
void ExpectSameMaps(KeyState& a, KeyState& b) {
  ASSERT_EQ(dsl_count(a.s->maps), dsl_count(b.s->maps));
  for (CELL* c = dsl_first(a.s->maps); c; c = dsl_next(c)) {
    KEYMAP* ma = static_cast<KEYMAP*>(dsl_value(c));
    KEYMAP* mb = b.Map(ma->name.c_str());
    ASSERT_NE(mb, nullptr) << ma->name;
    std::string da, db;
    km_kmap_dump(ma, &da);
    km_kmap_dump(mb, &db);
    EXPECT_EQ(da, db);
    for (int key = 0; key <= 0xFFFF; ++key) {
      KBIND_RESULT ra, rb;
      ksym_decode_map(ma, static_cast<KSYM>(key), &ra);
      ksym_decode_map(mb, static_cast<KSYM>(key), &rb);
      ASSERT_EQ(std::string(km_result_name(ra)) + ra.prefix_map, std::string(km_result_name(rb)) + rb.prefix_map)
          << ma->name << " key " << key;
    }
  }
}

TEST(KeysRoundTrip, WrittenMapsReloadTheSameAndAreNoLongerThanTheirSource) {
  std::stringstream shipped;
  shipped << std::ifstream(ShippedKeybind()).rdbuf();
  const std::string cases[] = {
      shipped.str(),
      "keymap m undo\nA undo\nC rescan\nE rescan\nG rescan\nI redo\nend_keymap\n",
      "keymap m undo\nA rescan\nB rescan\nD prefix p\nF prefix q\nH rescan\nend_keymap\n",
      "keymap m rescan\n0xfffd redo\n0xffff prefix m\n0 undo\nend_keymap\n",
  };
  auto lines = [](const std::string& s) { return std::count(s.begin(), s.end(), '\n'); };
  for (const std::string& text : cases) {
    SCOPED_TRACE(text.substr(0, 40));
    KeyState a(text);
    ASSERT_EQ(a.rc, RC_OK) << a.s->log;
    std::string written, rewritten;
    ASSERT_EQ(km_state_write(a.s, &written), RC_OK);
    EXPECT_LE(lines(written), lines(text)) << written;
    KeyState b(written);
    ASSERT_EQ(b.rc, RC_OK) << b.s->log;
    EXPECT_EQ(b.s->log, "");
    ExpectSameMaps(a, b);
    km_state_write(b.s, &rewritten);
    EXPECT_EQ(written, rewritten);
  }
}

TEST(KeysRoundTrip, RebindChangesOneKeyOnly) {
  KeyState k;
  ASSERT_EQ(km_state_init_file(k.s, ShippedKeybind().c_str()), RC_OK);
  KeyState before;
  km_state_init_file(before.s, ShippedKeybind().c_str());
  struct Case {
    const char* map;
    KSYM key;
    const char* bind;
    const char* prefix;
    int rc;
  } cases[] = {
      {"fundamental", 'q', "undo", "", RC_OK},               // a new block
      {"fundamental", kKsymUp, "point-goto-bob", "", RC_OK}, // inside a block
      {"fundamental", 'r', "prefix", "ctl-x-map", RC_OK},
      {"fundamental", 's', "frobnicate", "", RC_FAIL},
      {"fundamental", 's', "prefix", "", RC_FAIL},
      {"no-such-map", 's', "undo", "", RC_FAIL},
  };
  for (const Case& c : cases) {
    KEYTUPLE t;
    t.key = c.key;
    t.name = km_ksym_name(c.key);
    t.bind = c.bind;
    t.prefix_map = c.prefix;
    EXPECT_EQ(km_ksym_rebind(k.s, c.map, t), c.rc) << c.bind;
    if (c.rc == RC_OK) { EXPECT_EQ(k.Bind(c.map, c.key), c.bind); }
  }
  for (int key = 0; key < 400; ++key) {
    if (key == 'q' || key == kKsymUp || key == 'r') continue;
    ASSERT_EQ(k.Bind("fundamental", static_cast<KSYM>(key)), before.Bind("fundamental", static_cast<KSYM>(key)))
        << key;
  }
}

}  // namespace
