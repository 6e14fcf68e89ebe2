// The options on a real option server (tests/peers/imsp-cyrus.sh): saved,
// read back into a fresh store, deleted, locked on the server, refused; and
// a start whose server can't be reached.
#include <fstream>
#include <map>
#include <string>

#include "c-client/auth/auth.h"
#include "c-client/imsp/imsp.h"
#include "src/base/cenv.h"
#include "src/base/filenames.h"
#include "src/options/options.h"
#include "tests/support/frame_fixture.h"
#include "tests/support/peer_script.h"

namespace {

using ServerOptions = std::map<std::string, std::string>;  // name -> "value [flag]"

class RemoteOptions : public FrameTest {
 protected:
  static void SetUpTestSuite() {
    server_ = new PeerServer("imsp-cyrus.sh", "velmar-imspu");
    server_->Start();
  }
  static void TearDownTestSuite() { delete server_; }

  void SetUp() override {
    FrameTest::SetUp();
    if (!server_->env.count("PORT")) GTEST_SKIP() << "no server";
    ASSERT_EQ(InitDirectories(), 1);
  }
  void TearDown() override {
    Opt_Shutdown();
    FrameTest::TearDown();
  }
  // A start whose init file names the server, with the user's login.
  void Start(const std::string& port) {
    WriteFile(home_ + "/velmar.ini", "[userid]   testuser\n[password] c2VjcmV0\n[REMOTE] default\nhost=127.0.0.1\nport=" +
                                         port + "\ntype=imsp\n");
    char name[] = "velmar";
    char* argv[] = {name, nullptr};
    ASSERT_EQ(CENV_Init(1, argv), 1);
    ASSERT_EQ(Opt_Init(), 1);
  }
  static std::string Port() { return server_->env.at("PORT"); }
  // The user's options as the server lists them, read by a session of its own.
  static ServerOptions OnServer() {
    ServerOptions seen;
    ImspCallbacks cb{.owner = &seen};
    cb.option = [](void* o, const char* name, const char* value, int writable) {
      (*static_cast<ServerOptions*>(o))[name] = std::string(value) + (writable ? "" : " [ro]");
    };
    ImspSession* s = imsp_session_new(cb);
    AUTH_InitLogin("testuser", "secret");
    if (imsp_open(s, "127.0.0.1", std::stol(Port()))) imsp_option_get(s, "velmar.*");
    imsp_session_free(&s);
    return seen;
  }
  // The user's option file on the server, with name locked to value.
  static void LockOnServer(const std::string& name, const std::string& value) {
    const std::string path = server_->dir + "/data/user/testuser/options";
    std::ifstream in(path);
    std::string kept;
    for (std::string line; std::getline(in, line);)
      if (line.compare(0, name.size() + 1, name + " ") != 0) kept += line + "\n";
    std::ofstream(path) << kept << name << " R " << value << "\n";
  }
  static bool Modified(const char* name) {
    std::pair<std::string, bool> want{name, false};
    Opt_ForEach(
        [](const OptionView& v, void* d) {
          auto* w = static_cast<std::pair<std::string, bool>*>(d);
          if (w->first == v.name) w->second = v.flags & kOptModified;
        },
        &want);
    return want.second;
  }

  static PeerServer* server_;
};
PeerServer* RemoteOptions::server_ = nullptr;

TEST_F(RemoteOptions, SavedLoadedDeletedLockedAndRefused) {
  Start(Port());
  ASSERT_EQ(Option("Options.Location"), "Remote");
  const struct { const char *name, *value, *key; } cases[] = {
      {"Sig.Quote", "say \"hi\"", "velmar.Sig.Quote"},
      {"Sig.Money", "$HOME costs $5", "velmar.Sig.Money"},
      {"Sig.Brackets", "[expr 1+1] ]", "velmar.Sig.Brackets"},
      {"Sig.Slash", "c:\\dir\\", "velmar.Sig.Slash"},
      {"Folder.My Mail", "blank name", "velmar.Folder.My#-Mail"},
      {"Gone.Soon", "deleted", "velmar.Gone.Soon"},
  };
  for (const auto& c : cases) ASSERT_TRUE(Opt_AssignString(c.name, c.value, kOptPermanent, 0)) << c.name;
  ASSERT_EQ(Opt_Save(), 1) << Posts();
  ServerOptions seen = OnServer();
  for (const auto& c : cases) EXPECT_EQ(seen[c.key], c.value) << c.key;
  EXPECT_EQ(seen.count("velmar.Options.RemoteHost"), 0u) << "session values stay home";

  // Deleted: sent as unset. The fresh store reads everything else back.
  ASSERT_TRUE(Opt_Delete("Gone.Soon"));
  ASSERT_EQ(Opt_Save(), 1);
  EXPECT_EQ(OnServer().count("velmar.Gone.Soon"), 0u);
  Opt_Shutdown();
  ASSERT_EQ(Opt_Init(), 1);
  for (const auto& c : cases)
    EXPECT_EQ(Option(c.name, kOptPermanent), std::string(c.name) == "Gone.Soon" ? "(none)" : c.value) << c.name;
  // The server's own options keep their whole name, at the default level.
  EXPECT_NE(Option("imsp.user.quota.usage", kOptDefault), "(none)");
  EXPECT_EQ(Opt_GetReadonly("imsp.user.quota.usage"), 1);

  // Locked on the server: arrives readonly and is never written back.
  LockOnServer("velmar.Site.Lock", "site");
  Opt_Shutdown();
  ASSERT_EQ(Opt_Init(), 1);
  EXPECT_EQ(Opt_GetReadonly("Site.Lock"), 1);
  EXPECT_EQ(Option("Site.Lock", kOptPermanent), "site");
  Opt_MarkChanged();
  ASSERT_EQ(Opt_Save(), 1) << Posts();
  seen = OnServer();
  EXPECT_EQ(seen["velmar.Site.Lock"], "site [ro]");
  EXPECT_EQ(seen.count("velmar.imsp.user.quota.usage"), 0u);

  // Locked after the load: the refused SET stops the save; what was not
  // stored keeps its modified flag for the next save.
  LockOnServer("velmar.Sig.Quote", "locked");
  LockOnServer("velmar.Sig.Money", "locked");
  for (const auto& c : cases) Opt_AssignString(c.name, "changed", kOptPermanent, 0);
  xvt_test_clear_posts();
  EXPECT_EQ(Opt_Save(), 0);
  // Two options are locked, and the first refusal ends the save.
  const std::string posts = Posts();
  const size_t first = posts.find("Failed to store option: velmar.Sig.");
  ASSERT_NE(first, std::string::npos) << posts;
  EXPECT_EQ(posts.find("Failed to store option", first + 1), std::string::npos) << posts;
  EXPECT_NE(posts.find(" = changed.  IMSP stream closed"), std::string::npos) << posts;
  EXPECT_TRUE(Modified("Sig.Quote") && Modified("Sig.Money"));
  seen = OnServer();
  for (const auto& c : cases)
    EXPECT_EQ(Modified(c.name), seen[c.key] != "changed") << c.name << " on the server: " << seen[c.key];
}

TEST_F(RemoteOptions, UnreachableServerFallsBackToTheLocalFile) {
  WriteFile(home_ + "/default.tcl", "option Sig.Local \"from disk\"\n");
  Start("1");  // nothing listens there
  EXPECT_EQ(Option("Options.Location"), "Local");
  EXPECT_EQ(Option("Sig.Local"), "from disk");
  EXPECT_NE(Posts().find("Failed to open IMSP connection"), std::string::npos) << Posts();
}

}  // namespace
