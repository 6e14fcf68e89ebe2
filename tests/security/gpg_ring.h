// A throw-away gpg key ring for the tests that run the real wrapper: Alice
// and Bob, each with a signing and an encryption key, and for each test its
// own copy of the ring, its own agent directory and a work directory.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "src/security/pgp.h"
#include "tests/support/frame_fixture.h"

inline const char* const kAlicePass = "alice-pass-7Q";
inline const char* const kBobPass = "bob-pass-9Z";
inline const char kText[] = "Hello Bob,\nthe meeting is at ten.\n-- \nAlice\n";

// The text of the last operation's error, for failure messages.
inline std::string LastPgpError() { return pgp_error_text(pgp_get_last_error()); }

inline std::string Sh(const std::string& command) {
  std::string out;
  if (FILE* p = popen(command.c_str(), "r")) {
    char buf[4096];
    while (size_t n = std::fread(buf, 1, sizeof buf, p)) out.append(buf, n);
    pclose(p);
  }
  return out;
}

class GpgRingTest : public UserFrameTest {
 protected:
  // Keys take seconds to make: they are made once, in a template that each
  // test copies into its own key ring.
  static void SetUpTestSuite() {
    if (Sh("command -v gpg").empty()) return;
    char dir[] = "/tmp/vk-XXXXXX";
    if (!mkdtemp(dir)) return;
    template_ = dir;
    const std::string env = "GNUPGHOME=" + template_ + " ";
    Sh("printf 'allow-loopback-pinentry\\n' > " + template_ + "/gpg-agent.conf");
    alice_ = MakeKey(env, "Alice <alice@example.org>", kAlicePass);
    bob_ = MakeKey(env, "Bob <bob@example.org>", kBobPass);
    Sh(env + "gpgconf --kill gpg-agent >/dev/null 2>&1");
  }
  static void TearDownTestSuite() {
    if (!template_.empty()) Sh("rm -rf " + template_);
  }
  void SetUp() override {
    UserFrameTest::SetUp();
    ASSERT_FALSE(Sh("command -v gpg").empty()) << "gpg not found: install the gnupg package";
    ASSERT_EQ(alice_.size(), 40u) << "the test keys could not be made";
    ASSERT_EQ(bob_.size(), 40u);
    // Short names: the agent's socket path must fit its limit, and commands
    // with file names must stay under the command length limit.
    char home[] = "/tmp/vg-XXXXXX";
    char run[] = "/tmp/vr-XXXXXX";
    char work[] = "/tmp/vw-XXXXXX";
    ASSERT_TRUE(mkdtemp(home) && mkdtemp(run) && mkdtemp(work));
    gnupghome_ = home;
    runtime_ = run;
    work_ = work;
    Sh("cp -r " + template_ + "/. " + gnupghome_ + "/");
    setenv("GNUPGHOME", home, 1);
    setenv("XDG_RUNTIME_DIR", run, 1);
    WriteFile(gnupghome_ + "/gpg-agent.conf",
              "default-cache-ttl 0\nmax-cache-ttl 0\nallow-loopback-pinentry\n");
    pgp_set_wrapper_path(VELMAR_TEST_BINARY_DIR "/tools/velmar-pgpwrap");
    WriteFile(Path("msg.txt"), kText);
  }
  void TearDown() override {
    std::system("gpgconf --kill gpg-agent >/dev/null 2>&1");
    std::system(("rm -rf " + gnupghome_ + " " + runtime_ + " " + work_).c_str());
    unsetenv("GNUPGHOME");
    unsetenv("XDG_RUNTIME_DIR");
    pgp_set_wrapper_path("");
    UserFrameTest::TearDown();
  }
  // The fingerprint of the new primary key, "" when gpg failed.
  static std::string MakeKey(const std::string& env, const std::string& uid, const char* pass) {
    const std::string g = env + "gpg --batch --pinentry-mode loopback --passphrase-fd 0 ";
    const std::string phrase = "printf '%s\\n' '" + std::string(pass) + "' | ";
    Sh(phrase + g + "--quick-gen-key '" + uid + "' ed25519 sign 0 >/dev/null 2>&1");
    const std::string listing = Sh(env + "gpg --with-colons --list-keys '" + uid + "' 2>/dev/null");
    const size_t at = listing.find("\nfpr:");
    if (at == std::string::npos) return "";
    const std::string fpr = listing.substr(at + 13, 40);
    Sh(phrase + g + "--quick-add-key " + fpr + " cv25519 encr 0 >/dev/null 2>&1");
    return fpr;
  }
  // The file name in the work directory, kept for the test as the calls take it.
  const char* Path(const char* name) {
    return paths_.try_emplace(name, work_ + "/" + name).first->second.c_str();
  }

  static inline std::string template_, alice_, bob_;
  std::string gnupghome_, runtime_, work_;
  std::map<std::string, std::string> paths_;
};
