// Directories, the file table, temporary names, the file helpers, and the
// readers' refusal of what is not a regular file; the connection
// environment read from the init files, MAILHOST and the command line.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "rclib/safe_file.h"
#include "src/base/base64.h"
#include "src/base/cenv.h"
#include "src/base/filenames.h"
#include "src/base/tcl_interp.h"
#include "src/base/trace.h"
#include "src/options/options.h"
#include "tests/support/frame_fixture.h"

namespace {

class Files : public FrameTest {
 protected:
  void SetUp() override {
    FrameTest::SetUp();
    ASSERT_EQ(InitDirectories(), 1);
  }
  static void Reinit() {
    ResetDirectories();
    ASSERT_EQ(InitDirectories(), 1);
  }
};

TEST_F(Files, DirectoriesAndTheFileTable) {
  // What the user writes lives in the user directory, what ships with the program in the application
  // directory, also under the same name.
  const struct { int kind; bool user; const char* name; } cases[] = {
      {3, true, "default.tcl"}, {4, false, "sysdflt.tcl"}, {11, true, "velmar.ini"}, {12, false, "velmar.ini"}};
  for (const auto& c : cases) EXPECT_EQ(get_file_name(c.kind), (c.user ? home_ : appdir_) + "/" + c.name) << c.kind;
  for (int unknown : {15, 100, -1}) EXPECT_EQ(get_file_name(unknown), "") << unknown;
  EXPECT_EQ(get_file_name(17).substr(home_.size()), "/t0.tmp");
  // The user directory is private and current.
  struct stat st;
  ASSERT_EQ(::stat(home_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  EXPECT_EQ(std::filesystem::current_path(), home_);
  // Joining never doubles the separator.
  EXPECT_EQ(JoinPath("/a/b/", "c") + JoinPath("/a/b", "c") + JoinPath("", "c") + JoinPath("/", "c"), "/a/b/c/a/b/cc/c");
  setenv("VELMAR_HOME", (home_ + "/").c_str(), 1);
  Reinit();
  EXPECT_EQ(get_file_name(kFileDebug), home_ + "/debug.txt");
  // Without VELMAR_HOME: $XDG_DATA_HOME/velmar, else ~/.local/share/velmar.
  const std::string root = home_ + "/roots", old_home = getenv("HOME") ? getenv("HOME") : "";
  unsetenv("VELMAR_HOME");
  setenv("XDG_DATA_HOME", (root + "/xdg").c_str(), 1);
  Reinit();
  EXPECT_EQ(GetUserDir(), root + "/xdg/velmar");
  unsetenv("XDG_DATA_HOME");
  setenv("HOME", (root + "/home/").c_str(), 1);
  Reinit();
  EXPECT_EQ(GetUserDir(), root + "/home/.local/share/velmar");
  setenv("HOME", old_home.c_str(), 1);
}

TEST_F(Files, TemporaryAndBackupNames) {
  SetTempCounterForTest(0);
  WriteFile(home_ + "/t0.tmp", "");
  WriteFile(home_ + "/t1.tmp", "");
  EXPECT_EQ(NewTempName(), "t2.tmp");
  EXPECT_EQ(NewTempName(), "t3.tmp");
  SetTempCounterForTest(9999999);
  WriteFile(home_ + "/t9999999.tmp", "");
  ::unlink((home_ + "/t1.tmp").c_str());
  EXPECT_EQ(NewTempName(), "t1.tmp");  // wrapped past two existing names
  // Only the last extension of the file itself is cut.
  const struct { const char *in, *out; } cases[] = {
      {"/a.b/file", "/a.b/file.bak"}, {"x.tcl", "x.bak"},    {"/u/default.tcl", "/u/default.bak"},
      {"a.b.c", "a.b.bak"},           {"noext", "noext.bak"}, {"/dir.d/.hidden", "/dir.d/.bak"}};
  for (const auto& c : cases) EXPECT_EQ(MakeBackupName(c.in), c.out) << c.in;
}

TEST_F(Files, EnsureDirectory) {
  EXPECT_EQ(EnsureDirectory((home_ + "/made///").c_str()), 1);
  EXPECT_TRUE(std::filesystem::is_directory(home_ + "/made"));
  EXPECT_EQ(EnsureDirectory((home_ + "/made").c_str()), 1);
  WriteFile(home_ + "/plain", "x");
  EXPECT_EQ(EnsureDirectory((home_ + "/plain").c_str()), 0);
  EXPECT_EQ(EnsureDirectory((home_ + "/missing/deeper").c_str()), 0);
  EXPECT_EQ(EnsureDirectory(""), 0);
}

// Copies and backups are written whole through the safe writer: a failure at any step leaves the target as it was,
// and no temporary behind.
TEST_F(Files, CopiesReplaceWholeFilesOrNothing) {
  const std::string src = home_ + "/src.tcl", dst = home_ + "/dst", none = home_ + "/none";
  WriteFile(src, "0123456789");
  ::chmod(src.c_str(), 0640);
  ASSERT_EQ(CopyFileSectionToFile(src.c_str(), 3, 4, dst.c_str()), 1);
  EXPECT_EQ(CopyFileSectionToFile(src.c_str(), 8, 4, dst.c_str()), 0);  // past the end
  EXPECT_EQ(CopyFile(src.c_str(), dst.c_str(), 1), 0);                  // keeps an existing target
  for (SafeStep step : {kSafeOpen, kSafeWrite, kSafeSync, kSafeRename}) {
    safe_fail_from_for_test(step, 1, EIO);
    EXPECT_EQ(CopyFile(src.c_str(), dst.c_str(), 0), 0) << safe_step_name(step);
    EXPECT_EQ(CopyFileSectionToFile(src.c_str(), 0, 2, dst.c_str()), 0) << safe_step_name(step);
    EXPECT_EQ(CheckWorkingDir(), step == kSafeOpen ? 0 : 1) << safe_step_name(step);
    safe_clear_faults_for_test();
  }
  EXPECT_EQ(ReadFile(dst), "3456");
  ASSERT_EQ(BackupFile(src.c_str()), 1);
  ASSERT_EQ(CopyFile(src.c_str(), dst.c_str(), 0), 1);
  EXPECT_EQ(ReadFile(dst), "0123456789");
  EXPECT_EQ(ReadFile(home_ + "/src.bak"), "0123456789");
  struct stat st;
  ASSERT_EQ(::stat(dst.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  std::set<std::string> names;
  for (auto& e : std::filesystem::directory_iterator(home_)) names.insert(e.path().filename());
  EXPECT_EQ(names, (std::set<std::string>{"dst", "src.bak", "src.tcl"}));

  std::string data;
  EXPECT_TRUE(SlurpFile(src.c_str(), &data));
  EXPECT_EQ(data, "0123456789");
  EXPECT_FALSE(SlurpFile(src.c_str(), &data, 5));
  EXPECT_FALSE(SlurpFile(none.c_str(), &data));
  FILE* out = std::fopen(dst.c_str(), "wb");
  ASSERT_TRUE(out);
  EXPECT_EQ(AppendFile(out, src.c_str(), 0) + AppendFile(out, none.c_str(), 1) + AppendFile(out, none.c_str(), 0), 2);
  std::fclose(out);
  EXPECT_EQ(ReadFile(dst), "0123456789");
}

// A FIFO, or anything that is not a regular file, where the program expects
// one of its files: every reader refuses it at once instead of waiting
// forever for a writer (or a reader) that never comes.
using HostileFiles = FrameTest;

TEST_F(HostileFiles, AFifoInPlaceOfAFileIsRefusedWithoutWaiting) {
  const std::string fifo = home_ + "/fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const struct {
    const char* what;
    std::function<bool()> refused;
  } rows[] = {
      {"option file", [&] { return Opt_LoadFromTCL(fifo.c_str()) == 0; }},
      {"whole-file read", [&] {
         std::string text;
         return !SlurpFile(fifo.c_str(), &text);
       }},
      {"copy source", [&] { return CopyFile(fifo.c_str(), (home_ + "/copy").c_str(), 0) == 0; }},
      {"script", [&] {
         TclCreate(NULL_WIN, nullptr, nullptr);
         std::string error;
         const bool refused = TclEvalFile(fifo.c_str(), &error) == 0 && error.find("not a regular file") != std::string::npos;
         TclDestroy();
         return refused;
       }},
      {"trace file", [&] {
         TraceStart(fifo.c_str());
         Trace(kTraceFrame, kTraceCritical, "not into the FIFO\n");
         return true;
       }},
      {"velmar.ini", [&] {
         const std::string ini = get_file_name(kFileUserIni);
         ::unlink(ini.c_str());
         if (::mkfifo(ini.c_str(), 0600) != 0) return false;
         CENV_LoadInitFile();
         return CENV_GetConfigName(0) == nullptr;
       }},
  };
  for (const auto& row : rows) {
    alarm(10);  // a blocked open ends the run here rather than at the suite's time-out
    EXPECT_TRUE(row.refused()) << row.what;
    alarm(0);
  }
  TraceEnd();
}

// The connection environment: the init files, MAILHOST and the command line.
std::string Or(const char* text) { return text ? text : "-"; }

// One configuration as "name|section|type|host|port|file|mode|flags".
std::string Dump(int i) {
  std::string flags = std::string(CENV_GetConfigOnlineDefault(i) ? "O" : "") + (CENV_GetConfigOfflineDefault(i) ? "F" : "");
  return Or(CENV_GetConfigName(i)) + "|" + Or(CENV_GetConfigSection(i)) + "|" + Or(CENV_GetConfigType(i)) + "|" +
         Or(CENV_GetConfigHost(i)) + "|" + std::to_string(CENV_GetConfigPort(i)) + "|" + Or(CENV_GetConfigFilename(i)) +
         "|" + Or(CENV_GetConfigMode(i)) + "|" + flags;
}

std::vector<std::string> DumpAll() {
  std::vector<std::string> out;
  for (int i = 0; i < kMaxConfigs && CENV_GetConfigName(i); ++i) out.push_back(Dump(i));
  return out;
}

// The environment as "userid|password|host:port|file|flags|mode", flags M(anditory) R(emote default)
// S(uppress reload) B(anner) P(rompting sessions) D(emand).
std::string Env() {
  std::string set;
  for (auto [get, letter] : {std::pair{&CENV_GetManditoryRemote, 'M'}, {CENV_GetDefaultRemote, 'R'},
                             {CENV_GetSuppressDesktopReload, 'S'}, {CENV_GetSuppressBannerDisplay, 'B'},
                             {CENV_GetSessionManagement, 'P'}, {CENV_GetOnDemand, 'D'}})
    if (get()) set += letter;
  return Or(CENV_GetUserid()) + "|" + Or(CENV_GetPassword()) + "|" + Or(CENV_GetRemoteHost()) + ":" +
         std::to_string(CENV_GetRemotePort()) + "|" + Or(CENV_GetConfigFile()) + "|" + set + "|" +
         std::to_string(CENV_GetConnectionMode());
}

// Empty user and application directories: CENV_Init finds no files unless the test writes them.
class CenvTest : public FrameTest {
 protected:
  void SetUp() override {
    FrameTest::SetUp();
    ASSERT_EQ(InitDirectories(), 1);
    Init({});
  }
  void TearDown() override {
    CENV_Shutdown();
    FrameTest::TearDown();
  }
  // CENV_Init with these words after the program's name; the words are neither changed nor kept.
  static int Init(const std::vector<std::string>& args) {
    std::vector<std::string> words{"velmar"};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<std::string> copy = words;
    std::vector<char*> argv;
    for (std::string& w : copy) argv.push_back(w.data());
    argv.push_back(nullptr);
    int rc = CENV_Init(static_cast<int>(copy.size()), argv.data());
    EXPECT_EQ(copy, words);
    for (const char* kept : {CENV_GetConfigFile(), CENV_GetRemoteHost(), CENV_GetUserid()})
      for (const std::string& w : copy) EXPECT_FALSE(kept >= w.data() && kept <= w.data() + w.size());
    return rc;
  }
  static void Parse(const std::string& text) { CENV_ParseInitText(text.data(), text.size()); }
  // Adds a record through the public setters; null leaves a field unset.
  static int Add(const char* name, const char* section, const char* mode, const char* type) {
    int i = CENV_NewConfig();
    CENV_SetConfigName(i, name);
    if (section) CENV_SetConfigSection(i, section);
    if (mode) CENV_SetConfigMode(i, mode);
    if (type) CENV_SetConfigType(i, type);
    return i;
  }
};

// Decoded, and encoded back unless the coded text is a loose form; or refused (plain null).
TEST(Base64, VectorsToleranceAndErrors) {
  const struct { const char *plain, *coded; bool loose = false; } cases[] = {
      {"", ""},           {"f", "Zg=="},       {"fo", "Zm8="},         {"foobar", "Zm9vYmFy"},
      {"foob", " Zm 9v\tYg = = \r\n", true},   {"foob", "Zm9vYg", true},
      {nullptr, "Zg="},   {nullptr, "Zg==="},  {nullptr, "Zg==Zg=="},  {nullptr, "Z"},
      {nullptr, "Zm9v!"}, {nullptr, "=Zm9v"},
  };
  for (const auto& c : cases) {
    std::string out = "junk";
    EXPECT_EQ(Base64Decode(c.coded, std::strlen(c.coded), &out), c.plain != nullptr) << c.coded;
    EXPECT_EQ(out, c.plain ? c.plain : "") << c.coded;
    if (c.plain && !c.loose) {
      EXPECT_EQ(Base64Encode(c.plain, false), c.coded) << c.plain;
    }
  }
  // Lines of 76 with CRLF, only when asked; every byte comes back.
  std::string bytes;
  for (int i = 0; i < 256; ++i) bytes.push_back(static_cast<char>(i));
  EXPECT_EQ(Base64Encode(std::string(57, 'a'), false).size(), 76u);
  std::string coded = Base64Encode(bytes, true), back;
  EXPECT_EQ(coded.substr(76, 2), "\r\n");
  EXPECT_EQ(coded.size(), 344u + 2 * 5);
  ASSERT_TRUE(Base64Decode(coded.data(), coded.size(), &back));
  EXPECT_EQ(back, bytes);
}

TEST_F(CenvTest, CommandLine) {
  const struct { std::vector<std::string> args; const char* env; } cases[] = {
      {{}, "-|-|-:0|-||1"},                           {{"-c", "Prompt"}, "-|-|-:0|-|P|2"},
      {{"-cp"}, "-|-|-:0|-|P|2"},                     {{"-cd", "-c", ""}, "-|-|-:0|-||1"},
      {{"-c", "d"}, "-|-|-:0|-||0"},                  {{"-rhost1", "-n143"}, "-|-|host1:143|-|R|1"},
      {{"-r", "host1", "-n", "70000"}, "-|-|host1:0|-|R|1"},
      {{"-m", "mh"}, "-|-|mh:0|-|M|1"},               {{"-m", ""}, "-|-|-:0|-|M|1"},
      {{"-f", "opts.tcl"}, "-|-|-:0|opts.tcl||1"},    {{"-r", "h", "-f", ""}, "-|-|h:0|-||1"},
      {{"-u", "joe", "-psecret"}, "joe|secret|-:0|-||1"}, {{"-u", "", "-p", ""}, "-|-|-:0|-||1"},
      {{"-bu", "joe"}, "joe|-|-:0|-|B|1"},            {{"-b", "--", "-s"}, "-|-|-:0|-|B|1"},
      {{"-b", "word", "-s"}, "-|-|-:0|-|B|1"},        {{"-x", "-b"}, "-|-|-:0|-|B|1"},
      {{"-b", "-u"}, "-|-|-:0|-|B|1"},                {{"-w", "x", "-h", "y", "-s"}, "-|-|-:0|-|S|1"},
      {{"-f", "-b"}, "-|-|-:0|-b||1"},                {{"-bfname"}, "-|-|-:0|name|B|1"},
  };
  for (const auto& c : cases) {
    std::string label;
    for (const std::string& a : c.args) label += "[" + a + "]";
    ASSERT_EQ(Init(c.args), 1) << label;
    EXPECT_EQ(Env(), c.env) << label;
  }
}

TEST_F(CenvTest, MailhostOverridesTheInitFileAndTheCommandLineOverridesIt) {
  WriteFile(get_file_name(kFileUserIni), "[REMOTE] default\nhost=inihost\nport=2000\ntype=imsp\n");
  const struct { const char* mailhost; std::vector<std::string> args; const char* env; } cases[] = {  // null: unset
      {nullptr, {}, "-|-|inihost:2000|-|R|1"},
      {"", {}, "-|-|inihost:2000|-|R|1"},
      {"envhost", {}, "-|-|envhost:2000|-|R|1"},
      {"envhost", {"-r", "cmdhost"}, "-|-|cmdhost:2000|-|R|1"},
      {"envhost", {"-f", "local.tcl"}, "-|-|envhost:2000|local.tcl||1"},
  };
  for (const auto& c : cases) {
    c.mailhost ? setenv("MAILHOST", c.mailhost, 1) : unsetenv("MAILHOST");
    ASSERT_EQ(Init(c.args), 1);
    EXPECT_EQ(Env(), c.env) << Or(c.mailhost);
  }
}

TEST_F(CenvTest, InitText) {
  const std::string name(5000, 'x'), early = std::string(994, 'y') + "type=tcl";
  const struct {
    const char* label;
    std::string text;
    std::vector<std::string> records;
    int current;
    std::string env = "-|-|-:0|-||1";
    std::vector<std::string> args = {};
  } cases[] = {
      {"named configurations",
       "[REMOTE] default\nname=My Office\nhost=imap.example.org\nport=143\ntype=imsp\n"
       "[LOCAL]\nname=Laptop\nfile=/home/u/opts.tcl\ntype=tcl\n",
       {"My Office|[REMOTE]|imsp|imap.example.org|143|-|online|O", "Laptop|[LOCAL]|tcl|-|0|/home/u/opts.tcl|offline|"},
       0, "-|-|imap.example.org:143|-|R|1"},
      {"generated names and spaced keys",
       "[REMOTE]\nhost = h1\nport = 143\ntype = imsp\n[LOCAL]\nfile=f.tcl\ntype=tcl\n[LOCAL]\ntype=tcl\n",
       {"h1_143_imsp|[REMOTE]|imsp|h1|143|-|online|O", "f.tcl|[LOCAL]|tcl|-|0|f.tcl|offline|",
        "no configuration name specified|[LOCAL]|tcl|-|0|-|offline|"},
       -1},
      {"comments anywhere",
       "# top\n[REMOTE] # why\n# inside\nhost=foo # bar\n  # indented\nmode=offline #m\ntype=imsp # t\n",
       {"foo_0_imsp|[REMOTE]|imsp|foo|0|-|offline|O"}, -1},
      {"name and file keep blanks, trim around =", "[LOCAL] default\nname = My  Box\nfile =  /a b/c.tcl\ntype=tcl\n",
       {"My  Box|[LOCAL]|tcl|-|0|/a b/c.tcl|online|O"}, 0, "-|-|-:0|/a b/c.tcl||1"},
      {"indented lines, CRLF", "[REMOTE]\r\n  name=Far Away\r\n\thost=x\r\n  type=imsp\r\n",
       {"Far Away|[REMOTE]|imsp|x|0|-|online|O"}, -1},
      {"several records in a group, top-level name",
       "[REMOTE]\nname=A\nhost=a\ntype=imsp\nname=B\nhost=b\noffline_default=1\ntype=imsp\n",
       {"A|[REMOTE]|imsp|a|0|-|online|", "B|[REMOTE]|imsp|b|0|-|online|F"}, -1},
      {"online default on a later record", "[LOCAL]\nname=A\ntype=tcl\n[LOCAL]\nname=B\nfile=b.tcl\nonline_default=3\ntype=tcl\n",
       {"A|[LOCAL]|tcl|-|0|-|offline|", "B|[LOCAL]|tcl|-|0|b.tcl|offline|O"}, 1, "-|-|-:0|b.tcl||1"},
      {"flag values", "[REMOTE]\nonline_default=2\noffline_default=x\nport=abc\nhost=h\ntype=imsp\n",
       {"h_0_imsp|[REMOTE]|imsp|h|0|-|online|O"}, -1},
      {"group without type line is dropped", "[REMOTE] default\nname=A\nhost=a\n", {}, -1},
      {"header restarts an unfinished record", "[REMOTE] default\nname=A\nhost=a\n[LOCAL]\nfile=f\ntype=tcl\n",
       {"f|[LOCAL]|tcl|-|0|f|offline|O"}, -1},
      {"truncated in the middle of a line", "[REMOTE]\nname=A\nhost=a\ntype=imsp\n[LOCAL]\nname=B\nty",
       {"A|[REMOTE]|imsp|a|0|-|online|O"}, -1},
      {"odd lines are skipped", "[REMOTE]\nname=A\nbogus=1\nhost\nhost=a b\nname=x=y\ntype=imsp\n",
       {"A|[REMOTE]|imsp|-|0|-|online|O"}, -1},
      {"login lines, late ones too", "[userid] joe\n[password] c2VjcmV0\n[REMOTE]\nname=A\ntype=imsp\n\n[userid] ann\n",
       {"A|[REMOTE]|imsp|-|0|-|online|O"}, -1, "ann|secret|-:0|-||1"},
      {"a bad password gives none", "[password] c2VjcmV0\n[password] not*base64\n", {}, -1},
      {"a default local record goes local", "[LOCAL] default\nname=L\nfile=l.tcl\ntype=tcl\n",
       {"L|[LOCAL]|tcl|-|0|l.tcl|online|O"}, 0, "-|-|elsewhere:0|l.tcl||1", {"-r", "elsewhere"}},
      // Long lines are read whole: cut after 999 bytes, "type=tcl" would close the record early; whole, the line is
      // a name with an "=" in it, which is skipped.
      {"a long name", "[REMOTE]\nname=" + name + "\nhost=h\ntype=imsp\n", {name + "|[REMOTE]|imsp|h|0|-|online|O"}, -1},
      {"a long line that would close early", "[LOCAL]\nname=" + early + "\nfile=/" + name + "\ntype=tcl\n",
       {"/" + name + "|[LOCAL]|tcl|-|0|/" + name + "|offline|O"}, -1},
      {"a long login", "[userid] " + name + "\n", {}, -1, name + "|-|-:0|-||1"},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(Init(c.args), 1);
    Parse(c.text);
    EXPECT_EQ(DumpAll(), c.records) << c.label;
    EXPECT_EQ(CENV_GetCurrentConfigIndex(), c.current) << c.label;
    EXPECT_EQ(Env(), c.env) << c.label;
  }
}

TEST_F(CenvTest, InitTextLimits) {
  std::string text;
  for (int i = 0; i < 21; ++i) text += "[REMOTE]\nname=c" + std::to_string(i) + "\nhost=h\ntype=imsp\n";
  Parse(text);
  ASSERT_EQ(DumpAll().size(), 20u);
  EXPECT_EQ(Or(CENV_GetConfigName(19)), "c19");
  EXPECT_EQ(CENV_FindConfigByName("c20"), -1);
  EXPECT_EQ(CENV_NewConfig(), -1);
}

TEST_F(CenvTest, InitFiles) {
  const std::string user = get_file_name(kFileUserIni), site = get_file_name(kFileSiteIni);
  ASSERT_NE(user, site);
  WriteFile(site, "[userid] site\n");
  ASSERT_EQ(Init({}), 1);
  EXPECT_STREQ(CENV_GetUserid(), "site");
  WriteFile(user, "[userid] user\n");
  ASSERT_EQ(Init({}), 1);
  EXPECT_STREQ(CENV_GetUserid(), "user");
  // Only the first megabyte counts.
  std::string big = "[REMOTE]\nname=first\ntype=imsp\n";
  while (big.size() < (3u << 19)) big += "# padding padding padding padding padding padding\n";
  WriteFile(user, big + "[REMOTE]\nname=second\ntype=imsp\n");
  ASSERT_EQ(Init({}), 1);
  EXPECT_EQ(DumpAll(), std::vector<std::string>{"first|[REMOTE]|imsp|-|0|-|online|O"});

  // The old-style location file: read only without a velmar.ini, and deleted once read.
  ::unlink(user.c_str());
  ::unlink(site.c_str());
  const std::string locn = get_file_name(kFileOptLocn), far(5000, 'h');
  const struct { std::string line; int preset_remote; std::string host; int default_remote; } cases[] = {
      {"location imspmail.example.org\nlocation tcl\n", 0, "mail.example.org", 1},
      {"location,imsp\r\n", 0, "-", 1},
      {"location tcl\n", 1, "-", 0},
      {"location\n", 1, "-", 1},
      {"place imsphost\n", 0, "-", 0},
      {"location imsp" + far + "\n", 0, far, 1},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(Init({}), 1);
    CENV_SetDefaultRemote(c.preset_remote);
    WriteFile(locn, c.line);
    CENV_LoadInitFile();
    EXPECT_EQ(Or(CENV_GetRemoteHost()), c.host) << c.line;
    EXPECT_EQ(CENV_GetDefaultRemote(), c.default_remote) << c.line;
    EXPECT_FALSE(FileExists(locn.c_str())) << c.line;
  }
  WriteFile(user, "[userid] joe\n");
  WriteFile(locn, "location imsphost\n");
  ASSERT_EQ(Init({}), 1);
  EXPECT_EQ(CENV_GetRemoteHost(), nullptr);
  EXPECT_TRUE(FileExists(locn.c_str()));
}

TEST_F(CenvTest, ConfigListAndDefault) {
  EXPECT_EQ(CENV_GetConfigList("all", nullptr, nullptr), nullptr);  // empty table
  EXPECT_EQ(CENV_GetDefaultConfigIndex("all"), -1);
  EXPECT_TRUE(xvt_test_posts().empty());
  Add("A", "[REMOTE]", "online", "imsp");
  Add("B", "[LOCAL]", "offline", "tcl");
  Add("C", "[REMOTE]", "offline", "tcl");
  Add("D", nullptr, nullptr, nullptr);
  const struct { const char *mode, *type, *section, *names; } cases[] = {
      {nullptr, nullptr, "[REMOTE]", "A@0 C@2 "}, {"online", nullptr, nullptr, "A@0 "},
      {"all", nullptr, nullptr, "A@0 B@1 C@2 "},  {nullptr, "tcl", nullptr, "B@1 C@2 "},
      {"offline", nullptr, "[REMOTE]", "B@1 C@2 "},  // mode decides after section
      {"online", "tcl", nullptr, "B@1 C@2 "},        // type decides last
      {nullptr, nullptr, "[NONE]", ""},
  };
  for (const auto& c : cases) {
    SLIST list = CENV_GetConfigList(c.mode, c.type, c.section);
    ASSERT_NE(list, nullptr);
    std::string names;
    for (SLIST_ELT e = xvt_slist_get_first(list); e; e = xvt_slist_get_next(list, e)) {
      long data = -1;
      std::string name = xvt_slist_get(list, e, &data);
      names += name + "@" + std::to_string(data) + " ";
    }
    EXPECT_EQ(names, c.names) << Or(c.mode) << " " << Or(c.type) << " " << Or(c.section);
    xvt_slist_destroy(list);
  }
  EXPECT_EQ(CENV_GetConfigList(nullptr, nullptr, nullptr), nullptr);
  EXPECT_EQ(Posts(), "error: Assertions failed on call to CENV_GetConfigList().\n");

  // The first record of the mode with a default flag; with none, the first record becomes the online default.
  EXPECT_EQ(CENV_GetDefaultConfigIndex("online"), 0);
  EXPECT_EQ(CENV_GetConfigOnlineDefault(0), 1);
  CENV_SetConfigOnlineDefault(0, 0);
  CENV_SetConfigOfflineDefault(1, 1);
  CENV_SetConfigOnlineDefault(2, 1);
  EXPECT_EQ(CENV_GetDefaultConfigIndex("offline"), 1);
  EXPECT_EQ(CENV_GetDefaultConfigIndex("all"), 1);
  CENV_SetConfigMode(2, "online");
  EXPECT_EQ(CENV_GetDefaultConfigIndex("online"), 2);
}

TEST_F(CenvTest, RecordAccessAndSwitching) {
  for (int bad : {-1, 0, kMaxConfigs}) {
    CENV_SetConfigHost(bad, "x");
    EXPECT_EQ(CENV_GetConfigHost(bad), nullptr);
  }
  EXPECT_EQ(CENV_GetRemoteHost(), nullptr);
  int imsp = Add("Net", "[REMOTE]", "online", "imsp");
  CENV_SetConfigHost(imsp, "imap.x");
  CENV_SetConfigPort(imsp, 1143);
  int tcl = Add("Here", "[LOCAL]", "offline", "tcl");
  CENV_SetConfigFilename(tcl, "here.tcl");
  EXPECT_EQ(CENV_FindConfigByName("Here"), tcl);
  EXPECT_EQ(CENV_FindConfigByName("here"), -1);
  EXPECT_EQ(CENV_FindConfigByName(nullptr), -1);
  CENV_SetNewConfig(tcl);
  EXPECT_EQ(Env(), "-|-|-:0|here.tcl||1");
  CENV_SetNewConfig(imsp);
  EXPECT_EQ(Env(), "-|-|imap.x:1143|here.tcl||1");
  CENV_SetCurrentConfigIndex(tcl);
  CENV_SetCurrentConfigIndex(kMaxConfigs);  // out of range: kept as it was
  EXPECT_EQ(CENV_GetCurrentConfigIndex(), tcl);
  // A restart in the same process starts from nothing; after a shutdown there is no record to set anything on.
  CENV_SetUserid("joe");
  ASSERT_EQ(Init({}), 1);
  EXPECT_EQ(CENV_GetConfigName(0), nullptr);
  EXPECT_EQ(CENV_GetCurrentConfigIndex(), -1);
  EXPECT_EQ(Env(), "-|-|-:0|-||1");
  CENV_Shutdown();
  CENV_SetUserid("late");
  EXPECT_EQ(CENV_GetUserid(), nullptr);
}

}  // namespace
