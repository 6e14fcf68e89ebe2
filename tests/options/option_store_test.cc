// The option store: levels, conversions, exact errors, and the `option`
// command word for word.
#include <tcl.h>

#include <string>
#include <vector>

#include "src/base/cenv.h"
#include "src/base/filenames.h"
#include "src/options/options.h"
#include "tests/support/frame_fixture.h"

namespace {

class Store : public FrameTest {
 protected:
  void SetUp() override {
    FrameTest::SetUp();
    ASSERT_EQ(InitDirectories(), 1);
    char* argv[] = {const_cast<char*>("velmar"), nullptr};
    ASSERT_EQ(CENV_Init(1, argv), 1);
    ASSERT_EQ(Opt_Init(), 1);
  }
  void TearDown() override {
    Opt_Shutdown();
    FrameTest::TearDown();
  }
  static std::string Get(const char* name, int level = kOptSession) {
    char buf[3000];
    return Opt_LookupString(name, buf, sizeof buf - 1, level) ? buf : "(error " + std::to_string(Opt_GetLastError()) + ")";
  }
};

TEST_F(Store, LevelsFallBackDownward) {
  for (int level : {kOptDefault, kOptPermanent, kOptSession}) EXPECT_EQ(Get("Never.Set", level), "(error 1)");
  ASSERT_TRUE(Opt_AssignString("A.b", "d", kOptDefault, 0));
  EXPECT_EQ(Get("A.b", kOptSession), "d");
  ASSERT_TRUE(Opt_AssignString("A.b", "p", kOptPermanent, 0));
  ASSERT_TRUE(Opt_AssignString("A.b", "s", kOptSession, 0));
  EXPECT_EQ(Get("A.b", kOptSession), "s");
  EXPECT_EQ(Get("A.b", kOptPermanent), "p");  // a session value does not show at level 1
  EXPECT_EQ(Get("A.b", kOptDefault), "d");
  EXPECT_EQ(Get("A.b", 3), "(error 5)");
  EXPECT_FALSE(Opt_AssignString("A.b", "x", 7, 0));
  EXPECT_EQ(Opt_GetLastError(), kOptErrBadLevel);
  // Only a session value: nothing at the lower levels.
  ASSERT_TRUE(Opt_AssignString("Only.Session", "s", kOptSession, 0));
  EXPECT_EQ(Get("Only.Session", kOptPermanent), "(error 1)");
  size_t length = 99;
  EXPECT_EQ(Opt_LookupStringLength("Only.Session", kOptPermanent, &length), 0);
  EXPECT_EQ(length, 99u);
}

TEST_F(Store, BufferSizeRule) {
  ASSERT_TRUE(Opt_AssignString("Len", "12345", kOptSession, 0));
  char buf[6];
  EXPECT_EQ(Opt_LookupString("Len", buf, 5, kOptSession), 1);  // exactly size long fits (size + 1 bytes)
  EXPECT_STREQ(buf, "12345");
  EXPECT_EQ(Opt_LookupString("Len", buf, 4, kOptSession), 0);
  EXPECT_EQ(Opt_GetLastError(), kOptErrTooLong);
  EXPECT_EQ(Opt_LookupString("Len", nullptr, 4, kOptSession), 0);
  EXPECT_EQ(Opt_GetLastError(), kOptErrBadPointer);
  char* copy = Opt_LookupAlloc("Len", kOptSession);
  EXPECT_STREQ(copy, "12345");
  delete[] copy;
}

TEST_F(Store, Conversions) {
  struct Case {
    const char* value;
    int boolean;  // -1: conversion error
    int integer;  // only checked when int_ok
    bool int_ok;
  } cases[] = {
      {"TRUE", 1, 0, false}, {"yes", 1, 0, false}, {"On", 1, 0, false},     {"1", 1, 1, true},
      {"FALSE", 0, 0, false}, {"no", 0, 0, false}, {"off", 0, 0, false},    {"0", 0, 0, true},
      {" 1", -1, 1, true},    {"", -1, 0, false},  {"truth", -1, 0, false}, {"12abc", -1, 12, true},
      {"-3", -1, -3, true},   {"0x10", -1, 0, true},
  };
  for (const Case& c : cases) {
    ASSERT_TRUE(Opt_AssignString("Conv", c.value, kOptSession, 0));
    short b = 77;
    int ok = Opt_LookupBoolean("Conv", &b, kOptSession);
    if (c.boolean < 0) {
      EXPECT_EQ(ok, 0) << c.value;
      EXPECT_EQ(Opt_GetLastError(), kOptErrConversion) << c.value;
      EXPECT_EQ(b, 77) << "a failed read leaves the caller's default: " << c.value;
    } else {
      EXPECT_EQ(ok, 1) << c.value;
      EXPECT_EQ(b, c.boolean) << c.value;
    }
    int i = 55;
    EXPECT_EQ(Opt_LookupInt("Conv", &i, kOptSession), c.int_ok ? 1 : 0) << c.value;
    EXPECT_EQ(i, c.int_ok ? c.integer : 55) << c.value;
  }
  // The two assignment names are crossed on purpose.
  Opt_AssignInt("Flag", 5, kOptSession, 0);
  EXPECT_EQ(Get("Flag"), "ON");
  Opt_AssignInt("Flag", 0, kOptSession, 0);
  EXPECT_EQ(Get("Flag"), "OFF");
  Opt_AssignBoolean("Number", -42, kOptSession, 0);
  EXPECT_EQ(Get("Number"), "-42");
}

TEST_F(Store, ReadonlyDeleteReviveRename) {
  ASSERT_TRUE(Opt_AssignString("Site.Lock", "site", kOptDefault, 1));
  EXPECT_EQ(Opt_GetReadonly("Site.Lock"), 1);
  for (int level : {kOptDefault, kOptPermanent, kOptSession}) {
    EXPECT_FALSE(Opt_AssignString("Site.Lock", "user", level, 0));
    EXPECT_EQ(Opt_GetLastError(), kOptErrReadonly);
  }
  Opt_Delete("Site.Lock");
  EXPECT_EQ(Get("Site.Lock"), "site");
  EXPECT_FALSE(Opt_Rename("Site.Lock", "Other"));
  // A deleted option reads as missing; an assignment revives it with the
  // values it had at the other levels.
  Opt_AssignString("R.x", "p", kOptPermanent, 0);
  Opt_AssignString("R.x", "d", kOptDefault, 0);
  ASSERT_TRUE(Opt_Delete("R.x"));
  EXPECT_EQ(Get("R.x"), "(error 1)");
  Opt_AssignString("R.x", "s", kOptSession, 0);
  EXPECT_EQ(Get("R.x", kOptPermanent), "p");
  EXPECT_EQ(Get("R.x", kOptDefault), "d");
  ASSERT_TRUE(Opt_Rename("R.x", "R.y"));
  EXPECT_EQ(Get("R.y"), "s");
  EXPECT_EQ(Get("R.y", kOptPermanent), "p");
  EXPECT_EQ(Get("R.x"), "(error 1)");
  EXPECT_FALSE(Opt_Rename("Nothing.here", "R.z"));
  EXPECT_EQ(Opt_GetLastError(), kOptErrNoSuchOption);
}

TEST_F(Store, PatternsFlushDeleteAndList) {
  for (const char* n : {"WinPosn.Viewer.Border", "Winposn.TaskWin.Border", "SaveMsg.1.ms", "Desktop.Save", "Keep.Me"})
    Opt_AssignString(n, "v", kOptSession, 0);
  Opt_AssignString("Keep.Me", "p", kOptPermanent, 0);
  Opt_FlushSession("winposn.*|savemsg.*", kOptSession);
  EXPECT_EQ(Get("WinPosn.Viewer.Border"), "(error 1)");
  EXPECT_EQ(Get("SaveMsg.1.ms"), "(error 1)");
  EXPECT_EQ(Get("Desktop.Save"), "v");
  Opt_FlushSession("Keep.*", kOptSession);
  EXPECT_EQ(Get("Keep.Me"), "p");
  SLIST list = nullptr;
  ASSERT_TRUE(Opt_ListMatching("*.*.Border|Desktop.Sav?|Keep.*", &list));
  std::string names;
  for (SLIST_ELT e = xvt_slist_get_first(list); e; e = xvt_slist_get_next(list, e))
    names += std::string(xvt_slist_get(list, e, nullptr)) + " ";
  xvt_slist_destroy(list);
  EXPECT_EQ(names, "Desktop.Save Keep.Me WinPosn.Viewer.Border Winposn.TaskWin.Border ");
  Opt_DeleteMatching("desktop.*");
  EXPECT_EQ(Get("Desktop.Save"), "(error 1)");
}

TEST(Patterns, Table) {
  struct Case {
    const char* pattern;
    const char* name;
    bool match;
  } cases[] = {
      {"abc", "ABC", true},           {"abc", "abcd", false},        {"a*", "a", true},
      {"*", "", true},                {"", "a", false},              {"a?c", "ac", false},
      {"a*b*c", "aXbYbZc", true},     {"a*b*c", "aXbYbZ", false},    {"[a-c]x", "Cx", true},
      {"[a-c]x", "dx", false},        {"[!a-c]x", "dx", true},       {"[^a-c]x", "bx", false},
      {"[]]x", "]x", true},           {"\\*x", "ax", false},         {"a|b", "b", true},
      {"a|b", "c", false},            {"a*&*z", "abz", true},        {"a*&*z", "aby", false},
      {"a*&*b&*c*", "abcb", true},    {"x\\|y", "x|y", true},        {"x\\&y", "x&y", true},
      {"[a|b]", "|", true},           {"[abc", "a", false},          {"*a*a*a*a*b", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaa", false},
      {"Msg?ervice.ms*.Name", "MsgService.ms12.Name", true},
  };
  for (const Case& c : cases)
    EXPECT_EQ(Opt_PatternMatch(c.pattern, c.name), c.match) << c.pattern << " vs " << c.name;
}

TEST(Names, EncodingTableAndRoundTrip) {
  struct Case {
    const char* plain;
    const char* encoded;
  } cases[] = {
      {"a b", "a#-b"},           {"#", "##"},        {"x*y", "x#&y"},        {"c:\\dir", "c:#/dir"},
      {"a_b", "a#_b"},           {"Entwürfe", "Entwürfe"},  {"tab\there", "tab#x09here"},
      {"SaveMsg.1.folder", "SaveMsg.1.folder"},
  };
  for (const Case& c : cases) {
    char* e = Opt_EncodeName(c.plain);
    ASSERT_NE(e, nullptr) << c.plain;
    EXPECT_STREQ(e, c.encoded) << c.plain;
    char* d = Opt_DecodeName(e);
    EXPECT_STREQ(d, c.plain);
    delete[] e;
    delete[] d;
  }
  // Old files: "#" before anything else drops it, "#" at the end stays.
  struct Old {
    const char* encoded;
    const char* plain;
  } old[] = {{"a#zb", "azb"}, {"end#", "end#"}, {"#x", "x"}, {"#xg1", "xg1"}, {"#x00", "x00"}};
  for (const Old& o : old) {
    char* d = Opt_DecodeName(o.encoded);
    EXPECT_STREQ(d, o.plain) << o.encoded;
    delete[] d;
  }
  EXPECT_EQ(Opt_EncodeName(nullptr), nullptr);
}

TEST(IntList, ReadsBlankAndTabSeparated) {
  Opt_ParseIntList(" 3\t14  -2 7x 9");
  std::vector<int> got;
  for (int v; (v = Opt_NextInt()) != -1;) got.push_back(v);
  EXPECT_EQ(got, (std::vector<int>{3, 14, -2, 7}));
  EXPECT_EQ(Opt_NextInt(), -1);
  Opt_ParseIntList("");
  EXPECT_EQ(Opt_NextInt(), -1);
}

class OptionCommand : public Store {
 protected:
  void SetUp() override {
    Store::SetUp();
    interp_ = Tcl_CreateInterp();
    Opt_RegisterCommand(interp_);
  }
  void TearDown() override {
    Tcl_DeleteInterp(interp_);
    Store::TearDown();
  }
  std::string Eval(const std::string& script, int* rc = nullptr) {
    int r = Tcl_Eval(interp_, script.c_str());
    if (rc) *rc = r;
    return Tcl_GetStringResult(interp_);
  }
  Tcl_Interp* interp_ = nullptr;
};

TEST_F(OptionCommand, ResultsWordForWord) {
  struct Case {
    const char* script;
    const char* result;
    int rc;
  } cases[] = {
      {"option", "option : wrong number of arguments", TCL_OK},
      {"option -session -readonly", "option : wrong number of arguments - missing option name", TCL_OK},
      {"option Cmd.a first", "", TCL_OK},
      {"option Cmd.a", "first", TCL_OK},
      {"option -session Cmd.a", "first", TCL_OK},
      {"option -default Cmd.a", "option: option Cmd.a does not exist", TCL_ERROR},
      {"option -default -session Cmd.a", "first", TCL_OK},  // the last level flag wins
      {"option -bogus Cmd.a", "first", TCL_OK},            // unknown flags are skipped
      {"option No.Such", "option: option No.Such does not exist", TCL_ERROR},
      {"option -default -readonly Site.x locked", "", TCL_OK},
      {"option Site.x mine", "option: attempt to set readonly option Site.x", TCL_OK},
      {"option Site.x", "locked", TCL_OK},
      {"option A#-b spaced", "", TCL_OK},
      {"option {A b}", "spaced", TCL_OK},
      {"option Too many words here", "option : wrong number of arguments", TCL_OK},
      {"option Big [string repeat x 2001]", "", TCL_OK},
      {"option Big", "option: value too large", TCL_ERROR},
  };
  for (const Case& c : cases) {
    int rc = -1;
    EXPECT_EQ(Eval(c.script, &rc), c.result) << c.script;
    EXPECT_EQ(rc, c.rc) << c.script;
  }
  // An error in one line does not stop a file's later lines.
  int rc = -1;
  Eval("option Site.x mine; option After.error ok", &rc);
  EXPECT_EQ(rc, TCL_OK);
  EXPECT_EQ(Get("After.error"), "ok");
}

}  // namespace
