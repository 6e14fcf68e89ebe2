// The option store: levels, conversions, exact errors, and the `option` command word for word.
#include <tcl.h>

#include <memory>
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

TEST_F(Store, LevelsFallBackDownwardAndBuffersMustFit) {
  for (int level : {kOptDefault, kOptPermanent, kOptSession}) EXPECT_EQ(Get("Never.Set", level), "(error 1)");
  ASSERT_TRUE(Opt_AssignString("A.b", "d", kOptDefault, 0));
  EXPECT_EQ(Get("A.b", kOptSession), "d");
  ASSERT_TRUE(Opt_AssignString("A.b", "p", kOptPermanent, 0));
  ASSERT_TRUE(Opt_AssignString("A.b", "s", kOptSession, 0));
  // A session value does not show at level 1.
  EXPECT_EQ(Get("A.b", kOptSession) + Get("A.b", kOptPermanent) + Get("A.b", kOptDefault), "spd");
  EXPECT_EQ(Get("A.b", 3), "(error 5)");
  EXPECT_FALSE(Opt_AssignString("A.b", "x", 7, 0));
  EXPECT_EQ(Opt_GetLastError(), kOptErrBadLevel);
  // Only a session value: nothing at the lower levels.
  ASSERT_TRUE(Opt_AssignString("Only.Session", "s", kOptSession, 0));
  EXPECT_EQ(Get("Only.Session", kOptPermanent), "(error 1)");
  size_t length = 99;
  EXPECT_EQ(Opt_LookupStringLength("Only.Session", kOptPermanent, &length), 0);
  EXPECT_EQ(length, 99u);
  // A buffer holds size + 1 bytes: a value exactly size long fits.
  char buf[6];
  EXPECT_EQ(Opt_LookupString("A.b", buf, 1, kOptSession), 1);
  EXPECT_EQ(Opt_LookupString("Only.Session", buf, 0, kOptSession), 0);
  EXPECT_EQ(Opt_GetLastError(), kOptErrTooLong);
  EXPECT_EQ(Opt_LookupString("A.b", nullptr, 4, kOptSession), 0);
  EXPECT_EQ(Opt_GetLastError(), kOptErrBadPointer);
  char* copy = Opt_LookupAlloc("A.b", kOptSession);
  EXPECT_STREQ(copy, "s");
  delete[] copy;
  EXPECT_EQ(Opt_LookupText("A.b", kOptPermanent) + Opt_LookupText("Never.Set", kOptSession), "p");
}

TEST_F(Store, Conversions) {
  // What Opt_LookupBoolean and Opt_LookupInt read, "-" for a conversion error that leaves the default.
  const struct { const char *value, *read; } cases[] = {
      {"TRUE", "1 -"}, {"yes", "1 -"}, {"On", "1 -"},     {"1", "1 1"},    {"FALSE", "0 -"},  {"no", "0 -"},
      {"off", "0 -"},  {"0", "0 0"},   {" 1", "- 1"},     {"", "- -"},     {"truth", "- -"},  {"12abc", "- 12"},
      {"-3", "- -3"},  {"0x10", "- 0"},
  };
  for (const auto& c : cases) {
    ASSERT_TRUE(Opt_AssignString("Conv", c.value, kOptSession, 0));
    short b = 77;
    int i = 55;
    std::string read = Opt_LookupBoolean("Conv", &b, kOptSession) ? std::to_string(b)
                       : Opt_GetLastError() == kOptErrConversion && b == 77 ? "-" : "?";
    read += Opt_LookupInt("Conv", &i, kOptSession) ? " " + std::to_string(i) : i == 55 ? " -" : " ?";
    EXPECT_EQ(read, c.read) << c.value;
  }
  // The two assignment names are crossed on purpose.
  Opt_AssignInt("Flag", 5, kOptSession, 0);
  Opt_AssignInt("Off", 0, kOptSession, 0);
  Opt_AssignBoolean("Number", -42, kOptSession, 0);
  EXPECT_EQ(Get("Flag") + Get("Off") + Get("Number"), "ONOFF-42");
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
  // A deleted option reads as missing; an assignment revives it with the values it had at the other levels.
  Opt_AssignString("R.x", "p", kOptPermanent, 0);
  Opt_AssignString("R.x", "d", kOptDefault, 0);
  ASSERT_TRUE(Opt_Delete("R.x"));
  EXPECT_EQ(Get("R.x"), "(error 1)");
  Opt_AssignString("R.x", "s", kOptSession, 0);
  EXPECT_EQ(Get("R.x", kOptPermanent) + Get("R.x", kOptDefault), "pd");
  ASSERT_TRUE(Opt_Rename("R.x", "R.y"));
  EXPECT_EQ(Get("R.y") + Get("R.y", kOptPermanent) + Get("R.x"), "sp(error 1)");
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
  const struct { const char *pattern, *name; bool match; } cases[] = {
      {"abc", "ABC", true},        {"abc", "abcd", false},    {"a*", "a", true},          {"*", "", true},
      {"", "a", false},            {"a?c", "ac", false},      {"a*b*c", "aXbYbZc", true}, {"a*b*c", "aXbYbZ", false},
      {"[a-c]x", "Cx", true},      {"[a-c]x", "dx", false},   {"[!a-c]x", "dx", true},    {"[^a-c]x", "bx", false},
      {"[]]x", "]x", true},        {"\\*x", "ax", false},     {"a|b", "b", true},         {"a|b", "c", false},
      {"a*&*z", "abz", true},      {"a*&*z", "aby", false},   {"a*&*b&*c*", "abcb", true}, {"x\\|y", "x|y", true},
      {"x\\&y", "x&y", true},      {"[a|b]", "|", true},      {"[abc", "a", false},
      {"*a*a*a*a*b", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaa", false}, {"Msg?ervice.ms*.Name", "MsgService.ms12.Name", true},
  };
  for (const auto& c : cases) EXPECT_EQ(Opt_PatternMatch(c.pattern, c.name), c.match) << c.pattern << " vs " << c.name;
}

TEST(Names, EncodingTableAndRoundTrip) {
  // old: only decoded ("#" before anything else drops it, "#" at the end stays).
  const struct { const char *plain, *encoded; bool old = false; } cases[] = {
      {"a b", "a#-b"},     {"#", "##"},           {"x*y", "x#&y"},         {"c:\\dir", "c:#/dir"},
      {"a_b", "a#_b"},     {"Entwürfe", "Entwürfe"}, {"tab\there", "tab#x09here"}, {"SaveMsg.1.folder", "SaveMsg.1.folder"},
      {"azb", "a#zb", true}, {"end#", "end#", true}, {"x", "#x", true},     {"xg1", "#xg1", true},
      {"x00", "#x00", true},
  };
  for (const auto& c : cases) {
    std::unique_ptr<char[]> e(Opt_EncodeName(c.plain)), d(Opt_DecodeName(c.encoded));
    ASSERT_NE(e, nullptr) << c.plain;
    EXPECT_STREQ(c.old ? c.encoded : e.get(), c.encoded) << c.plain;
    EXPECT_STREQ(d.get(), c.plain) << c.encoded;
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

TEST_F(Store, OptionCommandWordForWord) {
  Tcl_Interp* interp = Tcl_CreateInterp();
  Opt_RegisterCommand(interp);
  const struct { const char *script, *result; } cases[] = {
      {"option", "ok: option : wrong number of arguments"},
      {"option -session -readonly", "ok: option : wrong number of arguments - missing option name"},
      {"option Cmd.a first", "ok: "},
      {"option Cmd.a", "ok: first"},
      {"option -session Cmd.a", "ok: first"},
      {"option -default Cmd.a", "error: option: option Cmd.a does not exist"},
      {"option -default -session Cmd.a", "ok: first"},  // the last level flag wins
      {"option -bogus Cmd.a", "ok: first"},             // unknown flags are skipped
      {"option No.Such", "error: option: option No.Such does not exist"},
      {"option -default -readonly Site.x locked", "ok: "},
      {"option Site.x mine", "ok: option: attempt to set readonly option Site.x"},
      {"option Site.x", "ok: locked"},
      {"option A#-b spaced", "ok: "},
      {"option {A b}", "ok: spaced"},
      {"option Too many words here", "ok: option : wrong number of arguments"},
      {"option Big [string repeat x 2001]", "ok: "},
      {"option Big", "error: option: value too large"},
      // An error in one line does not stop a file's later lines.
      {"option Site.x mine; option After.error ok; option After.error", "ok: ok"},
  };
  for (const auto& c : cases) {
    int rc = Tcl_Eval(interp, c.script);
    EXPECT_EQ(std::string(rc == TCL_OK ? "ok: " : "error: ") + Tcl_GetStringResult(interp), c.result) << c.script;
  }
  Tcl_DeleteInterp(interp);
}

}  // namespace
