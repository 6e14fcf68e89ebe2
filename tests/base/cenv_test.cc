#include "src/base/cenv.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "src/base/base64.h"
#include "src/base/filenames.h"
#include "xvt/xvt_test.h"

namespace {

namespace fs = std::filesystem;

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

std::vector<std::string> Names(SLIST list) {
  std::vector<std::string> out;
  for (SLIST_ELT e = xvt_slist_get_first(list); e; e = xvt_slist_get_next(list, e)) {
    long data = -1;
    std::string name = xvt_slist_get(list, e, &data);
    out.push_back(name + "@" + std::to_string(data));
  }
  return out;
}

void WriteFile(const std::string& name, const std::string& text) { std::ofstream(name, std::ios::binary) << text; }

// Every test gets empty user and application directories and no MAILHOST,
// so CENV_Init finds no files unless the test writes them.
class CenvTest : public ::testing::Test {
 protected:
  void SetUp() override {
    xvt_test_reset();
    old_cwd_ = fs::current_path();
    for (auto& [name, value] : saved_env_) {
      const char* v = std::getenv(name);
      value = v ? std::optional<std::string>(v) : std::nullopt;
    }
    char pattern[] = "/tmp/cenv_test_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root_ = pattern;
    fs::create_directories(root_ / "user");
    fs::create_directories(root_ / "app");
    setenv("VELMAR_HOME", (root_ / "user").c_str(), 1);
    setenv("VELMAR_APPDIR", (root_ / "app").c_str(), 1);
    unsetenv("MAILHOST");
    ResetDirectories();
    ASSERT_EQ(InitDirectories(), 1);
    Init({});
  }
  void TearDown() override {
    CENV_Shutdown();
    for (const auto& [name, value] : saved_env_) {
      if (value)
        setenv(name, value->c_str(), 1);
      else
        unsetenv(name);
    }
    ResetDirectories();
    fs::current_path(old_cwd_);
    fs::remove_all(root_);
  }
  static int Init(std::vector<std::string> args) {
    args.insert(args.begin(), "velmar");
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    return CENV_Init(static_cast<int>(args.size()), argv.data());
  }
  static void Parse(const std::string& text) { CENV_ParseInitText(text.data(), text.size()); }

  std::pair<const char*, std::optional<std::string>> saved_env_[3] = {
      {"VELMAR_HOME", {}}, {"VELMAR_APPDIR", {}}, {"MAILHOST", {}}};
  fs::path old_cwd_;
  fs::path root_;
};

// --- base64 -----------------------------------------------------------------

// Decoded, and encoded back unless the coded text is a loose form; or
// refused.
TEST(Base64, VectorsToleranceAndErrors) {
  const struct {
    const char* plain;  // null: refused
    const char* coded;
    bool loose = false;
  } cases[] = {
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

// --- tokenizer --------------------------------------------------------------

TEST(CenvTokenize, StrtokRules) {
  const struct {
    const char* line;
    int max;
    const char* delimiters;
    std::vector<std::string> tokens;
  } cases[] = {
      {"a b  c", 4, " ", {"a", "b", "c"}},
      {"  lead trail  ", 4, " ", {"lead", "trail"}},
      {"a b c d e", 4, " ", {"a", "b", "c", "d"}},
      {"host=foo # bar", 4, "= ", {"host", "foo"}},
      {"a#b c", 4, " ", {"a#b", "c"}},
      {"#all comment", 4, " ", {}},
      {"   \r\n", 4, " \r\n", {}},
      {"name=My Office\r\n", 4, "=\r\n", {"name", "My Office"}},
      {"x y", 0, " ", {}},
  };
  for (const auto& c : cases) {
    std::string buffer = c.line;
    char* tokens[8] = {};
    int n = CENV_TokenizeString(buffer.data(), c.max, c.delimiters, tokens);
    ASSERT_EQ(n, static_cast<int>(c.tokens.size())) << c.line;
    for (int i = 0; i < n; ++i) EXPECT_EQ(tokens[i], c.tokens[i]) << c.line;
  }
}

// --- command line -----------------------------------------------------------

struct CommandCase {
  std::vector<std::string> args;
  const char* host;
  long port;
  const char* file;
  const char* userid;
  const char* password;
  unsigned flags;  // kCenv* bits
  long mode;
};

TEST_F(CenvTest, CommandLine) {
  constexpr unsigned M = kCenvManditoryRemote, R = kCenvDefaultRemote, S = kCenvSuppressDesktopReload,
                     B = kCenvSuppressBanner, P = kCenvSessionManagement;
  const CommandCase cases[] = {
      {{}, nullptr, 0, nullptr, nullptr, nullptr, 0, 1},
      {{"-c", "Prompt"}, nullptr, 0, nullptr, nullptr, nullptr, P, 2},
      {{"-cp"}, nullptr, 0, nullptr, nullptr, nullptr, P, 2},
      {{"-cd", "-c", ""}, nullptr, 0, nullptr, nullptr, nullptr, 0, 1},
      {{"-c", "d"}, nullptr, 0, nullptr, nullptr, nullptr, 0, 0},
      {{"-rhost1", "-n143"}, "host1", 143, nullptr, nullptr, nullptr, R, 1},
      {{"-r", "host1", "-n", "70000"}, "host1", 0, nullptr, nullptr, nullptr, R, 1},
      {{"-m", "mh"}, "mh", 0, nullptr, nullptr, nullptr, M, 1},
      {{"-m", ""}, nullptr, 0, nullptr, nullptr, nullptr, M, 1},
      {{"-f", "opts.tcl"}, nullptr, 0, "opts.tcl", nullptr, nullptr, 0, 1},
      {{"-r", "h", "-f", ""}, "h", 0, nullptr, nullptr, nullptr, 0, 1},
      {{"-u", "joe", "-psecret"}, nullptr, 0, nullptr, "joe", "secret", 0, 1},
      {{"-u", "", "-p", ""}, nullptr, 0, nullptr, nullptr, nullptr, 0, 1},
      {{"-bu", "joe"}, nullptr, 0, nullptr, "joe", nullptr, B, 1},
      {{"-b", "--", "-s"}, nullptr, 0, nullptr, nullptr, nullptr, B, 1},
      {{"-b", "word", "-s"}, nullptr, 0, nullptr, nullptr, nullptr, B, 1},
      {{"-x", "-b"}, nullptr, 0, nullptr, nullptr, nullptr, B, 1},
      {{"-b", "-u"}, nullptr, 0, nullptr, nullptr, nullptr, B, 1},
      {{"-w", "x", "-h", "y", "-s"}, nullptr, 0, nullptr, nullptr, nullptr, S, 1},
      {{"-f", "-b"}, nullptr, 0, "-b", nullptr, nullptr, 0, 1},
  };
  for (const CommandCase& c : cases) {
    std::string label;
    for (const std::string& a : c.args) label += "[" + a + "]";
    ASSERT_EQ(Init(c.args), 1) << label;
    EXPECT_EQ(Or(CENV_GetRemoteHost()), Or(c.host)) << label;
    EXPECT_EQ(CENV_GetRemotePort(), c.port) << label;
    EXPECT_EQ(Or(CENV_GetConfigFile()), Or(c.file)) << label;
    EXPECT_EQ(Or(CENV_GetUserid()), Or(c.userid)) << label;
    EXPECT_EQ(Or(CENV_GetPassword()), Or(c.password)) << label;
    unsigned flags = (CENV_GetManditoryRemote() ? M : 0) | (CENV_GetDefaultRemote() ? R : 0) |
                     (CENV_GetSuppressDesktopReload() ? S : 0) | (CENV_GetSuppressBannerDisplay() ? B : 0) |
                     (CENV_GetSessionManagement() ? P : 0) | (CENV_GetOnDemand() ? kCenvOnDemand : 0);
    EXPECT_EQ(flags, c.flags) << label;
    EXPECT_EQ(CENV_GetConnectionMode(), c.mode) << label;
  }
}

TEST_F(CenvTest, CommandLineLeavesArgvAlone) {
  char a0[] = "velmar", a1[] = "-bfname", a2[] = "-c", a3[] = "p";
  char* argv[] = {a0, a1, a2, a3, nullptr};
  ASSERT_EQ(CENV_Init(4, argv), 1);
  EXPECT_STREQ(argv[1], "-bfname");
  EXPECT_STREQ(CENV_GetConfigFile(), "name");
  EXPECT_NE(CENV_GetConfigFile(), a1 + 3);  // a copy, not argv's storage
}

// --- precedence -------------------------------------------------------------

TEST_F(CenvTest, MailhostPrecedence) {
  const std::string ini = "[REMOTE] default\nhost=inihost\nport=2000\ntype=imsp\n";
  const struct {
    const char* mailhost;
    std::vector<std::string> args;
    const char* host;
    const char* file;
    int default_remote;
  } cases[] = {
      {nullptr, {}, "inihost", nullptr, 1},
      {"", {}, "inihost", nullptr, 1},
      {"envhost", {}, "envhost", nullptr, 1},
      {"envhost", {"-r", "cmdhost"}, "cmdhost", nullptr, 1},
      {"envhost", {"-f", "local.tcl"}, "envhost", "local.tcl", 0},
  };
  WriteFile(get_file_name(kFileUserIni), ini);
  for (const auto& c : cases) {
    if (c.mailhost)
      setenv("MAILHOST", c.mailhost, 1);
    else
      unsetenv("MAILHOST");
    ASSERT_EQ(Init(c.args), 1);
    EXPECT_EQ(Or(CENV_GetRemoteHost()), Or(c.host)) << Or(c.mailhost);
    EXPECT_EQ(Or(CENV_GetConfigFile()), Or(c.file)) << Or(c.mailhost);
    EXPECT_EQ(CENV_GetDefaultRemote(), c.default_remote) << Or(c.mailhost);
    EXPECT_EQ(CENV_GetRemotePort(), 2000);
  }
}

// --- init file text -----------------------------------------------------------

struct IniCase {
  const char* label;
  std::string text;
  std::vector<std::string> records;
  int current;
  const char* userid = nullptr;
};

TEST_F(CenvTest, InitText) {
  const IniCase cases[] = {
      {"named configurations",
       "[REMOTE] default\nname=My Office\nhost=imap.example.org\nport=143\ntype=imsp\n"
       "[LOCAL]\nname=Laptop\nfile=/home/u/opts.tcl\ntype=tcl\n",
       {"My Office|[REMOTE]|imsp|imap.example.org|143|-|online|O", "Laptop|[LOCAL]|tcl|-|0|/home/u/opts.tcl|offline|"},
       0},
      {"generated names and spaced keys",
       "[REMOTE]\nhost = h1\nport = 143\ntype = imsp\n[LOCAL]\nfile=f.tcl\ntype=tcl\n[LOCAL]\ntype=tcl\n",
       {"h1_143_imsp|[REMOTE]|imsp|h1|143|-|online|O", "f.tcl|[LOCAL]|tcl|-|0|f.tcl|offline|",
        "no configuration name specified|[LOCAL]|tcl|-|0|-|offline|"},
       -1},
      {"comments anywhere",
       "# top\n[REMOTE] # why\n# inside\nhost=foo # bar\n  # indented\nmode=offline #m\ntype=imsp # t\n",
       {"foo_0_imsp|[REMOTE]|imsp|foo|0|-|offline|O"},
       -1},
      {"name and file keep blanks, trim around =",
       "[LOCAL] default\nname = My  Box\nfile =  /a b/c.tcl\ntype=tcl\n",
       {"My  Box|[LOCAL]|tcl|-|0|/a b/c.tcl|online|O"},
       0},
      {"indented lines", "[REMOTE]\n  name=Far Away\n\thost=x\n  type=imsp\n", {"Far Away|[REMOTE]|imsp|x|0|-|online|O"}, -1},
      {"CRLF line ends", "[REMOTE]\r\nname=A\r\nhost=a\r\ntype=imsp\r\n", {"A|[REMOTE]|imsp|a|0|-|online|O"}, -1},
      {"several records in a group, top-level name",
       "[REMOTE]\nname=A\nhost=a\ntype=imsp\nname=B\nhost=b\noffline_default=1\ntype=imsp\n",
       {"A|[REMOTE]|imsp|a|0|-|online|", "B|[REMOTE]|imsp|b|0|-|online|F"},
       -1},
      {"online default on a later record",
       "[LOCAL]\nname=A\ntype=tcl\n[LOCAL]\nname=B\nfile=b.tcl\nonline_default=3\ntype=tcl\n",
       {"A|[LOCAL]|tcl|-|0|-|offline|", "B|[LOCAL]|tcl|-|0|b.tcl|offline|O"},
       1},
      {"flag values", "[REMOTE]\nonline_default=2\noffline_default=x\nport=abc\nhost=h\ntype=imsp\n",
       {"h_0_imsp|[REMOTE]|imsp|h|0|-|online|O"}, -1},
      {"group without type line is dropped", "[REMOTE] default\nname=A\nhost=a\n", {}, -1},
      {"header restarts an unfinished record", "[REMOTE] default\nname=A\nhost=a\n[LOCAL]\nfile=f\ntype=tcl\n",
       {"f|[LOCAL]|tcl|-|0|f|offline|O"}, -1},
      {"truncated in the middle of a line", "[REMOTE]\nname=A\nhost=a\ntype=imsp\n[LOCAL]\nname=B\nty",
       {"A|[REMOTE]|imsp|a|0|-|online|O"}, -1},
      {"odd lines are skipped",
       "[REMOTE]\nname=A\nbogus=1\nhost\nhost=a b\nname=x=y\ntype=imsp\n",
       {"A|[REMOTE]|imsp|-|0|-|online|O"}, -1},
      {"blank lines between groups and a late userid",
       "[REMOTE]\nname=A\ntype=imsp\n\n[userid] joe\n", {"A|[REMOTE]|imsp|-|0|-|online|O"}, -1, "joe"},
  };
  for (const IniCase& c : cases) {
    ASSERT_EQ(Init({}), 1);
    Parse(c.text);
    EXPECT_EQ(DumpAll(), c.records) << c.label;
    EXPECT_EQ(CENV_GetCurrentConfigIndex(), c.current) << c.label;
    EXPECT_EQ(Or(CENV_GetUserid()), Or(c.userid)) << c.label;
  }
}

TEST_F(CenvTest, InitTextSetsEnvironment) {
  Parse("[userid] joe\n[password] c2VjcmV0\n[LOCAL]\nname=A\ntype=tcl\n"
        "[REMOTE] default\nname=B\nhost=imap.b\nport=993\ntype=imsp\n");
  EXPECT_STREQ(CENV_GetUserid(), "joe");
  EXPECT_STREQ(CENV_GetPassword(), "secret");
  EXPECT_STREQ(CENV_GetRemoteHost(), "imap.b");
  EXPECT_EQ(CENV_GetRemotePort(), 993);
  EXPECT_EQ(CENV_GetDefaultRemote(), 1);
  EXPECT_EQ(CENV_GetCurrentConfigIndex(), 1);

  ASSERT_EQ(Init({}), 1);
  Parse("[password] c2VjcmV0\n[password] not*base64\n");
  EXPECT_EQ(CENV_GetPassword(), nullptr);

  ASSERT_EQ(Init({"-r", "elsewhere"}), 1);  // a default tcl record goes local
  Parse("[LOCAL] default\nname=L\nfile=l.tcl\ntype=tcl\n");
  EXPECT_STREQ(CENV_GetConfigFile(), "l.tcl");
  EXPECT_EQ(CENV_GetDefaultRemote(), 0);
  EXPECT_STREQ(CENV_GetRemoteHost(), "elsewhere");
}

TEST_F(CenvTest, InitTextLimits) {
  std::string text;
  for (int i = 0; i < 21; ++i) text += "[REMOTE]\nname=c" + std::to_string(i) + "\nhost=h\ntype=imsp\n";
  Parse(text);
  std::vector<std::string> records = DumpAll();
  ASSERT_EQ(records.size(), 20u);
  EXPECT_EQ(CENV_GetConfigName(19), std::string("c19"));
  EXPECT_EQ(CENV_FindConfigByName("c20"), -1);
  EXPECT_EQ(CENV_NewConfig(), -1);

  // Long lines are read whole: a value never loses its tail, and the tail
  // never becomes a line of its own that closes a record early.
  const std::string name(5000, 'x'), early = std::string(994, 'y') + "type=tcl";
  const struct {
    std::string text;
    std::vector<std::string> records;
  } long_lines[] = {
      {"[REMOTE]\nname=" + name + "\nhost=h\ntype=imsp\n", {name + "|[REMOTE]|imsp|h|0|-|online|O"}},
      // Cut after 999 bytes, "type=tcl" would close the record early; whole,
      // the line is a name with an "=" in it, which is skipped.
      {"[LOCAL]\nname=" + early + "\nfile=/" + name + "\ntype=tcl\n", {"/" + name + "|[LOCAL]|tcl|-|0|/" + name + "|offline|O"}},
      {"[userid] " + name + "\n[REMOTE]\nname=A\ntype=imsp\n", {"A|[REMOTE]|imsp|-|0|-|online|O"}},
  };
  for (const auto& c : long_lines) {
    ASSERT_EQ(Init({}), 1);
    Parse(c.text);
    EXPECT_EQ(DumpAll(), c.records);
  }
  EXPECT_EQ(Or(CENV_GetUserid()), name);

  // Binary garbage, NULs included, neither crashes nor makes records of
  // nothing; a good group after it still counts.
  ASSERT_EQ(Init({}), 1);
  std::string garbage;
  for (int i = 0; i < 3000; ++i) garbage.push_back(static_cast<char>((i * 131) & 0xff));
  Parse(garbage + "\n[REMOTE]\nname=ok\ntype=imsp\n");
  EXPECT_EQ(CENV_GetConfigName(CENV_FindConfigByName("ok")), std::string("ok"));
}

// --- files ------------------------------------------------------------------

TEST_F(CenvTest, InitFileSearchOrder) {
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
  EXPECT_EQ(DumpAll().size(), 1u);
  EXPECT_EQ(CENV_FindConfigByName("second"), -1);
}

TEST_F(CenvTest, OldStyleLocationFile) {
  const std::string locn = get_file_name(kFileOptLocn), far(5000, 'h');
  const struct {
    std::string line;
    int preset_remote;
    const char* host;
    int default_remote;
  } cases[] = {
      {"location imspmail.example.org\nlocation tcl\n", 0, "mail.example.org", 1},
      {"location,imsp\r\n", 0, nullptr, 1},
      {"location tcl\n", 1, nullptr, 0},
      {"location\n", 1, nullptr, 1},
      {"place imsphost\n", 0, nullptr, 0},
      {"location imsp" + far + "\n", 0, far.c_str(), 1},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(Init({}), 1);
    CENV_SetDefaultRemote(c.preset_remote);
    WriteFile(locn, c.line);
    CENV_LoadInitFile();
    EXPECT_EQ(Or(CENV_GetRemoteHost()), Or(c.host)) << c.line;
    EXPECT_EQ(CENV_GetDefaultRemote(), c.default_remote) << c.line;
    EXPECT_FALSE(fs::exists(locn)) << c.line;
  }
  // With a velmar.ini the old file is neither read nor deleted.
  WriteFile(get_file_name(kFileUserIni), "[userid] joe\n");
  WriteFile(locn, "location imsphost\n");
  ASSERT_EQ(Init({}), 1);
  EXPECT_EQ(CENV_GetRemoteHost(), nullptr);
  EXPECT_TRUE(fs::exists(locn));
}

// --- the table ----------------------------------------------------------------

// Adds a record through the public setters; null leaves a field unset.
int Add(const char* name, const char* section, const char* mode, const char* type) {
  int i = CENV_NewConfig();
  CENV_SetConfigName(i, name);
  if (section) CENV_SetConfigSection(i, section);
  if (mode) CENV_SetConfigMode(i, mode);
  if (type) CENV_SetConfigType(i, type);
  return i;
}

TEST_F(CenvTest, GetConfigListFilters) {
  EXPECT_EQ(CENV_GetConfigList("all", nullptr, nullptr), nullptr);  // empty table
  EXPECT_TRUE(xvt_test_posts().empty());
  Add("A", "[REMOTE]", "online", "imsp");
  Add("B", "[LOCAL]", "offline", "tcl");
  Add("C", "[REMOTE]", "offline", "tcl");
  Add("D", nullptr, nullptr, nullptr);
  const struct {
    const char *mode, *type, *section;
    std::vector<std::string> names;
  } cases[] = {
      {nullptr, nullptr, "[REMOTE]", {"A@0", "C@2"}},
      {"online", nullptr, nullptr, {"A@0"}},
      {"all", nullptr, nullptr, {"A@0", "B@1", "C@2"}},
      {nullptr, "tcl", nullptr, {"B@1", "C@2"}},
      {"offline", nullptr, "[REMOTE]", {"B@1", "C@2"}},  // mode decides after section
      {"online", "tcl", nullptr, {"B@1", "C@2"}},        // type decides last
      {nullptr, nullptr, "[NONE]", {}},
  };
  for (const auto& c : cases) {
    SLIST list = CENV_GetConfigList(c.mode, c.type, c.section);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(Names(list), c.names) << Or(c.mode) << " " << Or(c.type) << " " << Or(c.section);
    xvt_slist_destroy(list);
  }
  EXPECT_EQ(CENV_GetConfigList(nullptr, nullptr, nullptr), nullptr);
  ASSERT_EQ(xvt_test_posts().size(), 1u);
  EXPECT_EQ(xvt_test_posts()[0].kind, "error");
  EXPECT_EQ(xvt_test_posts()[0].text, "Assertions failed on call to CENV_GetConfigList().");
}

TEST_F(CenvTest, GetDefaultConfigIndex) {
  EXPECT_EQ(CENV_GetDefaultConfigIndex("all"), -1);
  Add("A", nullptr, "online", "imsp");
  Add("B", nullptr, "offline", "tcl");
  Add("C", nullptr, "online", "imsp");
  CENV_SetConfigOfflineDefault(1, 1);
  CENV_SetConfigOnlineDefault(2, 1);
  EXPECT_EQ(CENV_GetDefaultConfigIndex("online"), 2);
  EXPECT_EQ(CENV_GetDefaultConfigIndex("offline"), 1);
  EXPECT_EQ(CENV_GetDefaultConfigIndex("all"), 1);
  EXPECT_EQ(CENV_GetDefaultConfigIndex("other"), 0);  // nobody: the first becomes the default
  EXPECT_EQ(CENV_GetConfigOnlineDefault(0), 1);
  EXPECT_EQ(CENV_GetDefaultConfigIndex("online"), 0);
}

TEST_F(CenvTest, RecordAccessAndSwitching) {
  for (int bad : {-1, 0, kMaxConfigs}) {
    CENV_SetConfigHost(bad, "x");
    CENV_SetConfigOnlineDefault(bad, 1);
    EXPECT_EQ(CENV_GetConfigHost(bad), nullptr);
    EXPECT_EQ(CENV_GetConfigPort(bad), 0);
    EXPECT_EQ(CENV_GetConfigOnlineDefault(bad), 0);
    CENV_SetNewConfig(bad);
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
  EXPECT_STREQ(CENV_GetConfigFile(), "here.tcl");
  EXPECT_EQ(CENV_GetRemoteHost(), nullptr);
  CENV_SetNewConfig(imsp);
  EXPECT_STREQ(CENV_GetRemoteHost(), "imap.x");
  EXPECT_EQ(CENV_GetRemotePort(), 1143);

  CENV_SetCurrentConfigIndex(tcl);
  CENV_SetCurrentConfigIndex(kMaxConfigs);  // out of range: kept as it was
  EXPECT_EQ(CENV_GetCurrentConfigIndex(), tcl);

  // A restart in the same process starts from nothing; after a shutdown
  // there is no record to set anything on.
  CENV_SetUserid("joe");
  ASSERT_EQ(Init({}), 1);
  EXPECT_EQ(CENV_GetConfigName(0), nullptr);
  EXPECT_EQ(CENV_GetUserid(), nullptr);
  EXPECT_EQ(CENV_GetCurrentConfigIndex(), -1);
  CENV_Shutdown();
  CENV_SetUserid("late");
  EXPECT_EQ(CENV_GetUserid(), nullptr);
}

}  // namespace
