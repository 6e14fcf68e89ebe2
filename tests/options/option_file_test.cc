// The options: the store's levels, conversions, exact errors and the `option` command word for word;
// saving and loading, the local file, the init file, the version translation, and bad files; and the
// session manager dialog.
#include <sys/stat.h>
#include <unistd.h>
#include <tcl.h>

#include <cerrno>
#include <cstring>

#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "rclib/safe_file.h"
#include "src/base/cenv.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/app/workspace.h"
#include "src/options/options.h"
#include "src/options/session.h"
#include "tests/support/frame_fixture.h"

namespace {

using Snapshot = std::map<std::string, std::string>;

void Collect(const OptionView& v, void* data) {
  if ((v.flags & (kOptDeleted | kOptReadonly)) || !v.value[kOptPermanent]) return;
  (*static_cast<Snapshot*>(data))[v.name] = v.value[kOptPermanent];
}

Snapshot Permanent() {
  Snapshot s;
  Opt_ForEach(Collect, &s);
  return s;
}

class OptionFiles : public OptionsFrameTest {
 protected:
  // Throws the store away and loads it again, as a restart does.
  static void Restart() {
    Opt_Shutdown();
    ASSERT_EQ(Opt_Init(), 1);
  }
};

class Store : public OptionFiles {
 protected:
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

TEST_F(OptionFiles, SavedValuesComeBackExactly) {
  // Awkward names and values first, then random ones.
  const std::pair<const char*, const char*> awkward[] = {
      {"Quote.value", "say \"hi\""},   {"Dollar.value", "$HOME and ${x}"}, {"Brackets", "[exec rm -rf /]"},
      {"Name with blanks", "v"},       {"Brace{name}", "{unbalanced"},     {"Hash#and*star_", "x"},
      {"Folder.Entwürfe", "Grüße ✓"},  {"Newlines", "line1\nline2\r\n"},  {"Trailing.backslash\\", "\\"},
      {"\"quoted\"", "}"},
  };
  std::mt19937 rng(20261121);
  const std::string alphabet =
      "abcXYZ019 .#*\\_;{}[]$\"'\t\n\r|&?-~`!@%^()=+<>,/:\x01\x1f\x7f\xc3\xa9\xe2\x82\xac\xff\xfe";
  auto random_text = [&](size_t max_len, bool allow_empty) {
    std::uniform_int_distribution<size_t> len(allow_empty ? 0 : 1, max_len), pick(0, alphabet.size() - 1);
    std::string s;
    for (size_t n = len(rng); s.size() < n;) s += alphabet[pick(rng)];
    return s;
  };
  for (int round = 0; round < 20; ++round) {
    Restart();
    for (const auto& [name, value] : awkward) ASSERT_TRUE(Opt_AssignString(name, value, kOptPermanent, 0)) << name;
    for (int i = 0; i < 60; ++i) {
      std::string name = "R" + std::to_string(round) + "." + random_text(24, false);
      std::uniform_int_distribution<int> level(kOptDefault, kOptSession);
      Opt_AssignString(name.c_str(), random_text(60, true).c_str(), level(rng), 0);
      if (i % 7 == 0) Opt_Delete(name.c_str());
    }
    Snapshot before = Permanent();
    ASSERT_EQ(Opt_Save(), 1);
    Restart();
    EXPECT_NE(ReadFile(home_ + "/default.tcl").find("option Name#-with#-blanks \"v\"\n"), std::string::npos);
    // Whatever the site defaults and the translation add, the user's options come back exactly, and nothing else of
    // the user's appears.
    Snapshot after = Permanent();
    for (auto& [name, value] : before) EXPECT_EQ(after[name], value) << "round " << round << " name " << name;
    for (auto& [name, value] : after) EXPECT_TRUE(name[0] != 'R' || before.count(name)) << round << " extra " << name;
    ::unlink((home_ + "/default.tcl").c_str());
  }
}

// A file with an error stops there: what came before stays loaded, the user is told, and the whole file is kept
// before a save could shorten it. A readonly site option refuses the user's value.
TEST_F(OptionFiles, ReadonlySiteOptionsAndFilesWithErrors) {
  WriteFile(appdir_ + "/sysdflt.tcl",
            ReadFile(appdir_ + "/sysdflt.tcl") + "option -default -readonly Site.Smtp mail.example.org\n");
  const std::string file = home_ + "/default.tcl";
  WriteFile(file, "option Site.Smtp evil.example.com\noption Good.two 2\nthis is not a command\noption Lost 3\n");
  xvt_test_clear_posts();
  Restart();
  EXPECT_EQ(Option("Site.Smtp") + Option("Good.two") + Option("Lost"), "mail.example.org2(none)");
  EXPECT_NE(Posts().find("error: The options file " + file + " has an error at line 3:\ninvalid command name \"this\""),
            std::string::npos)
      << Posts();
  EXPECT_EQ(ReadFile(file + ".bad"), ReadFile(file));
  ASSERT_EQ(Opt_Save(), 1);
  EXPECT_NE(ReadFile(file + ".bad").find("option Lost 3"), std::string::npos);
}

// Option files are data: they cannot run programs or touch files, and their bytes come back as they were, whatever
// encoding an older version used.
TEST_F(OptionFiles, OptionFilesAreData) {
  const std::string victim = home_ + "/victim", evil = home_ + "/evil.tcl", ok = home_ + "/ok.tcl";
  WriteFile(victim, "precious");
  for (std::string command : {"exec rm -f", "file delete", "open", "proc p {} {} ;#", "while 1 {} ;#", "source"}) {
    WriteFile(evil, "option Before 1\n" + command + " " + victim + "\n");
    xvt_test_clear_posts();
    EXPECT_EQ(Opt_LoadFromTCL(evil.c_str()), 0) << command;
    EXPECT_NE(Posts().find("invalid command name \"" + command.substr(0, command.find(' ')) + "\""), std::string::npos)
        << Posts();
  }
  EXPECT_EQ(ReadFile(victim), "precious");
  WriteFile(ok, "if {[platform] eq \"unix\"} { option Plat unix } else { option Plat other }\n"
                "option Dir [work_dir]\noption Count [expr {6 * 7}]\n"
                "option Old.name \"Ren\xe9 M\xfcller\"\noption Old#-folder \"x\"\n");
  EXPECT_EQ(Opt_LoadFromTCL(ok.c_str()), 1);
  EXPECT_EQ(Option("Plat") + "|" + Option("Dir") + "|" + Option("Count"), "unix|" + home_ + "|42");
  EXPECT_EQ(Option("Old.name") + Option("Old folder"), "Ren\xe9 M\xfcllerx");
}

TEST_F(OptionFiles, VersionTranslation) {
  const struct { const char *stored_interval, *version, *expected; } cases[] = {  // null: none
      {"600", nullptr, "10"}, {"0", nullptr, "10"}, {"5", nullptr, "5"}, {"45", nullptr, "10"},
      {nullptr, nullptr, "10"}, {"600", "40", "600"}};
  for (const auto& c : cases) {
    WriteFile(appdir_ + "/sysdflt.tcl", "option -default General.ExitClean Prompt\n");
    std::string user;
    if (c.stored_interval) user += std::string("option Timer.Interval ") + c.stored_interval + "\n";
    if (c.version) user += std::string("option Options.Version ") + c.version + "\n";
    WriteFile(home_ + "/default.tcl", user);
    Restart();
    EXPECT_EQ(Option("Timer.Interval", kOptPermanent), c.expected) << user;
    EXPECT_EQ(Option("Options.Version", kOptPermanent), c.version ? c.version : "40");
  }
}

TEST_F(OptionFiles, SaveLocationWritesAnInitFileTheParserReadsBack) {
  // Plain layout: where the options are, remote or local as the default.
  Opt_AssignString("Options.RemoteHost", "imsp.example.org", kOptSession, 0);
  Opt_AssignString("Options.RemotePort", "406", kOptSession, 0);
  Opt_AssignString("Options.LocalFile", "/home/ann/my options.tcl", kOptSession, 0);
  Opt_AssignString("Options.Location", "Remote", kOptSession, 0);
  ASSERT_EQ(Opt_SaveLocation(), 1);
  EXPECT_EQ(ReadFile(home_ + "/velmar.ini"),
            "[REMOTE] default\nhost=imsp.example.org\nport=406\ntype=imsp\n"
            "[LOCAL]\nfile=/home/ann/my options.tcl\ntype=tcl\n");
  Opt_Shutdown();
  Start();
  EXPECT_STREQ(CENV_GetRemoteHost(), "imsp.example.org");
  EXPECT_EQ(CENV_GetRemotePort(), 406);
  EXPECT_EQ(CENV_GetDefaultRemote(), 1);
  EXPECT_STREQ(CENV_GetConfigFilename(1), "/home/ann/my options.tcl");

  // Session layout: the named configurations in table order, each line whole however long; the login lines are not
  // part of it. Read back, it gives the same file again.
  const std::string layout =
      "[LOCAL]\nname=Home Office\nfile=/tmp/h.tcl\nonline_default=1\noffline_default=1\ntype=tcl\n"
      "[REMOTE]\nname=Work\nhost=w.example.org\nport=4060\nonline_default=0\noffline_default=0\ntype=imsp\n"
      "[LOCAL]\nname=" + std::string(5000, 'n') + "\nfile=/tmp/" + std::string(5000, 'f') +
      "\nonline_default=0\noffline_default=0\ntype=tcl\n";
  WriteFile(home_ + "/velmar.ini", "[userid] ann\n[password] c2VjcmV0\n" + layout);
  for (int round = 0; round < 2; ++round) {
    Opt_Shutdown();
    xvt_test_push_dialog(150, [](WINDOW dlg) { xvt_test_click(dlg, 158); });
    Start({"-c", "prompt"});
    Opt_AssignInt("Options.SaveAuthInfo", 1, kOptSession, 0);
    ASSERT_EQ(Opt_SaveLocation(), 1);
    EXPECT_EQ(ReadFile(home_ + "/velmar.ini"), layout) << "round " << round;
  }
}

TEST_F(OptionFiles, ServerOptionsAreSortedByPrefix) {
  const struct { const char *name, *key; int level; } cases[] = {
      {"common.from", "common.from", kOptDefault},          {"imsp.user.quota", "imsp.user.quota", kOptDefault},
      {"velmar.Compose.Signature", "Compose.Signature", kOptPermanent}, {"vmrmail.Old.Key", "Old.Key", kOptPermanent},
      {"velmar.Folder#-Name", "Folder Name", kOptPermanent}, {"elsewhere.thing", "elsewhere.thing", kOptDefault},
  };
  for (const auto& c : cases) {
    mm_option(nullptr, c.name, "v", 1);
    EXPECT_EQ(Option(c.key, c.level), "v") << c.name;
  }
  mm_option(nullptr, "velmar.Locked", "l", 0);
  EXPECT_EQ(Opt_GetReadonly("Locked"), 1);
  mm_option(nullptr, nullptr, "x", 1);
  mm_option(nullptr, "velmar.NoValue", nullptr, 1);
  EXPECT_EQ(Option("NoValue"), "(none)");
}

// Whatever step of the rewrite fails, the file saved before stays as it was (and so does its backup), the user sees
// message 2003, the trace names the step and the system's reason, and the store keeps its changes for the next
// save. Only live permanent values are written, to a private file.
TEST_F(OptionFiles, AFailedSaveKeepsTheFileAndTheChanges) {
  TraceSetSubsystem(kTraceOptions);
  TraceStart((home_ + "/debug.txt").c_str());
  const std::string file = home_ + "/default.tcl", ini = home_ + "/velmar.ini";
  Opt_AssignString("Options.LocalFile", file.c_str(), kOptSession, 0);
  Opt_AssignInt("Options.SaveLocation", 1, kOptSession, 0);
  for (const char* level : {"Sess", "Dflt", "Gone", "Locked"})
    Opt_AssignString(level, "x", level[0] == 'S' ? kOptSession : level[0] == 'D' ? kOptDefault : kOptPermanent, 0);
  Opt_Delete("Gone");
  Opt_SetReadonly("Locked", 1);
  const struct { SafeStep step; int error; } rows[] = {{kSafeOpen, EACCES}, {kSafeWrite, ENOSPC}, {kSafeSync, EIO},
                                                        {kSafeRename, EXDEV}};
  for (const auto& r : rows) {
    const std::string reason = std::string(safe_step_name(r.step)) + ": " + std::strerror(r.error);
    Opt_AssignString("Perm", "saved", kOptPermanent, 0);
    ASSERT_EQ(Opt_Save(), 1) << reason;
    const std::string before = ReadFile(file), ini_before = ReadFile(ini), backup = ReadFile(home_ + "/default.bak");
    Opt_AssignString("Perm", "new", kOptPermanent, 0);
    Opt_MarkChanged();
    xvt_test_clear_posts();
    safe_fail_from_for_test(r.step, 1, r.error);
    EXPECT_EQ(Opt_Save(), 0) << reason;
    safe_clear_faults_for_test();
    EXPECT_EQ(ReadFile(file) + ReadFile(ini) + ReadFile(home_ + "/default.bak"), before + ini_before + backup) << reason;
    EXPECT_TRUE(Opt_Changed()) << reason;
    EXPECT_EQ(Posts(), "error: Failed to open a file: " + file + ": " + std::strerror(r.error) + "\n");
    EXPECT_NE(TraceText().find("Opt_SaveToTCL: cannot save " + file + " - " + reason + "\n"), std::string::npos)
        << TraceText();
    EXPECT_NE(TraceText().find("Opt_SaveLocation: failed to open system init file: " + ini + " - " + reason),
              std::string::npos);
    ASSERT_EQ(Opt_Save(), 1) << reason;  // the next save writes what this one could not
    EXPECT_FALSE(Opt_Changed());
    EXPECT_EQ(ReadFile(home_ + "/default.bak"), before);
  }
  TraceEnd();
  const std::string text = ReadFile(file);
  EXPECT_NE(text.find("option Perm \"new\""), std::string::npos);
  for (const char* absent : {"Sess", "Dflt", "Gone", "Locked"}) EXPECT_EQ(text.find(absent), std::string::npos) << absent;
  struct stat st;
  ASSERT_EQ(::stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  // Without a location nothing is written at all.
  ::unlink(file.c_str());
  Opt_Delete("Options.Location");
  EXPECT_EQ(Opt_Save(), 0);
  EXPECT_FALSE(FileExists(file.c_str()));
}

// The options come from the -f file and go back to it, however long its name, and the init file brings the next
// start back to the same file.
TEST_F(OptionFiles, ALongFileNameIsLoadedSavedAndRemembered) {
  std::string dir = home_;
  while (dir.size() < 2500) {  // longer than any line or path buffer
    dir += "/" + std::string(200, 'd');
    ASSERT_EQ(::mkdir(dir.c_str(), 0700), 0);
  }
  const std::string file = dir + "/my options.tcl";
  WriteFile(file, "option Long.before 1\n");
  Opt_Shutdown();
  Start({"-f", file});
  EXPECT_EQ(Option("Long.before"), "1");
  Opt_AssignString("Long.after", "2", kOptPermanent, 0);
  Opt_AssignInt("Options.SaveLocation", 1, kOptSession, 0);
  ASSERT_EQ(Opt_Save(), 1);
  EXPECT_NE(ReadFile(file).find("option Long.after \"2\""), std::string::npos);
  EXPECT_FALSE(FileExists((home_ + "/default.tcl").c_str()));
  Opt_Shutdown();
  Start();
  EXPECT_EQ(Option("Long.after"), "2");
}

// The session manager dialog, driven by control ids as a user would.
constexpr int kSessionRid = 150;
constexpr int kDetailsRid = 170;

class Session : public UserFrameTest {
 protected:
  void SetUp() override {
    UserFrameTest::SetUp();
    WriteFile(home_ + "/velmar.ini", "[LOCAL] default\nname=Home Office\nfile=" + home_ +
                                         "/home.tcl\ntype=tcl\n[LOCAL]\nname=Laptop\nfile=" + home_ +
                                         "/laptop.tcl\ntype=tcl\n[REMOTE]\nname=Work\nhost=imsp.example.org\n"
                                         "port=406\ntype=imsp\n");
  }
  static std::string ListRows(WINDOW dlg) {
    WINDOW list = xvt_win_get_ctl(dlg, 156);
    std::string rows;
    char buf[200];
    for (int i = 0; i < xvt_list_count_all(list); ++i)
      rows += std::string(xvt_list_is_sel(list, i) ? "*" : "") + xvt_list_get_elt(list, i, buf, sizeof buf) + ";";
    return rows;
  }
};

// Cancel leaves the prompt mode: offline, unless there is nothing to choose from, when only Cancel can be used.
TEST_F(Session, CancelStartsOfflineUnlessTheTableIsEmpty) {
  for (bool empty : {false, true}) {
    if (empty) ::unlink((home_ + "/velmar.ini").c_str());
    std::string enabled;
    xvt_test_push_dialog(kSessionRid, [&](WINDOW dlg) {
      for (int id : {152, 153, 156, 157, 158, 159})
        enabled += std::to_string(id) + (xvt_vobj_is_enabled(xvt_win_get_ctl(dlg, id)) ? "+ " : "- ");
      xvt_test_click(dlg, 158);
    });
    int offline = -1;
    long mode = -1;
    Run({"-b", "-c", "Prompt"}, [&] {
      offline = IsOffline();
      mode = CENV_GetConnectionMode();
      Exit();
    });
    EXPECT_EQ(enabled, empty ? "152- 153- 156- 157- 158+ 159- " : "152+ 153+ 156+ 157+ 158+ 159+ ");
    EXPECT_EQ(offline, empty ? 0 : 1);
    EXPECT_EQ(mode, empty ? kConnConnected : kConnDisconnected);
    xvt_test_reset();
  }
}

TEST_F(Session, OfflineListsOnlyLocalConfigurations) {
  std::string rows;
  bool details_enabled = false;
  xvt_test_push_dialog(kSessionRid, [&](WINDOW dlg) {
    xvt_test_click(dlg, 153);
    rows = ListRows(dlg);
    details_enabled = xvt_vobj_is_enabled(xvt_win_get_ctl(dlg, 159));
    xvt_test_click(dlg, 157);
  });
  Run({"-b", "-c", "p"}, [&] {
    EXPECT_EQ(IsOffline(), 1);
    // Offline, the options come from the local file whatever was chosen.
    EXPECT_EQ(Option("Options.Location"), "Local");
    Exit();
  });
  EXPECT_EQ(rows, "*Home Office;Laptop;");
  EXPECT_TRUE(details_enabled);
}

TEST_F(Session, DetailsShowTheRecordReadOnly) {
  std::string shown;
  xvt_test_push_dialog(kSessionRid, [&](WINDOW dlg) {
    xvt_test_select(dlg, 156, 2);
    xvt_test_push_dialog(kDetailsRid, [&](WINDOW details) {
      for (int id : {171, 178, 180, 182}) shown += Title(xvt_win_get_ctl(details, id)) + "|";
      shown += xvt_ctl_is_checked(xvt_win_get_ctl(details, 172)) ? "remote|" : "local|";
      for (int id : {171, 172, 173, 175, 176, 178, 180, 182})
        if (xvt_vobj_is_enabled(xvt_win_get_ctl(details, id))) shown += "enabled " + std::to_string(id);
      xvt_test_click(details, 186);
    });
    xvt_test_click(dlg, 159);
    xvt_test_click(dlg, 158);
  });
  Run({"-b", "-c", "p"}, [&] { Exit(); });
  EXPECT_EQ(shown, "Work||imsp.example.org|406|remote|");
}

// Laptop chosen online at the start; Home Office loaded from the menu later.
TEST_F(Session, ChoosingALocalConfigurationAndLoadingAnotherFromTheMenu) {
  WriteFile(home_ + "/home.tcl", "option General.Fullname Home\noption General.MailAddress h@example.org\n");
  std::string rows_at_start, titles;
  xvt_test_push_dialog(kSessionRid, [&](WINDOW dlg) {
    titles = Title(dlg);
    rows_at_start = ListRows(dlg);
    EXPECT_TRUE(xvt_ctl_is_checked(xvt_win_get_ctl(dlg, 152)));
    xvt_test_select(dlg, 156, 1);
    xvt_test_click(dlg, 157);
  });
  Run({"-b", "-cp"}, [&] {
    EXPECT_EQ(IsOffline(), 0);
    EXPECT_STREQ(CENV_GetConfigFile(), (home_ + "/laptop.tcl").c_str());
    EXPECT_EQ(CENV_GetDefaultRemote(), 0);
    EXPECT_EQ(Option("Options.LocalFile"), home_ + "/laptop.tcl");
    // The new online default is written back to the init file on save.
    EXPECT_EQ(CENV_GetConfigOnlineDefault(1) * 10 + CENV_GetConfigOnlineDefault(0), 10);
    EXPECT_EQ(Option("Options.SaveLocation"), "ON");
    xvt_test_push_dialog(kSessionRid, [&](WINDOW dlg) {
      titles += "|" + Title(dlg);
      xvt_test_select(dlg, 156, 0);
      xvt_test_click(dlg, 157);
    });
    xvt_test_user_command(TASK_WIN, M_OPTIONS_LOAD);
    EXPECT_EQ(Option("General.Fullname"), "Home");
    Exit();
  });
  EXPECT_EQ(titles, "Session Manager|Load Options");
  EXPECT_EQ(rows_at_start, "*Home Office;Laptop;Work;");
}

}  // namespace
