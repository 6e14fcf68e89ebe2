// Signing, encryption, decryption and checks through the real wrapper and a
// real gpg, in a throw-away key ring with two users made for each test.
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "src/security/pgp_mime.h"
#include "tests/security/gpg_ring.h"

namespace {

namespace fs = std::filesystem;

class PgpPeer : public GpgRingTest {
 protected:
  void SetUp() override {
    GpgRingTest::SetUp();
    if (HasFatalFailure()) return;
    // gpg as the wrapper runs it, with its command line written down, found
    // first on the PATH as the program looks for gpg there.
    std::string gpg = Sh("command -v gpg");
    gpg.pop_back();
    spy_log_ = gnupghome_ + "/argv.log";
    const std::string spy = gnupghome_ + "/gpg";
    WriteFile(spy, "#!/bin/sh\nprintf '%s\\n' \"$*\" >> " + spy_log_ + "\nexec " + gpg + " \"$@\"\n");
    chmod(spy.c_str(), 0755);
    old_path_ = std::getenv("PATH") ? std::getenv("PATH") : "/usr/bin:/bin";
    setenv("PATH", (gnupghome_ + ":" + old_path_).c_str(), 1);
  }
  void TearDown() override {
    if (!old_path_.empty()) setenv("PATH", old_path_.c_str(), 1);
    GpgRingTest::TearDown();
  }
  // The private files and directories of every operation are gone once it
  // returns.
  void ExpectNothingLeft() {
    EXPECT_TRUE(fs::is_empty(runtime_)) << "left in " << runtime_ << ": "
                                        << fs::directory_iterator(runtime_)->path();
  }

  std::string spy_log_, old_path_;
};

TEST_F(PgpPeer, InlineMessagesRoundTrip) {
  struct Case {
    const char* what;
    std::function<int(const char*, const char*)> make;
    int type;
    std::function<int(const char*, const char*)> read;
  } cases[] = {
      {"signed", [](const char* in, const char* out) { return pgp_sign(in, out, "alice@example.org", kAlicePass); },
       kPgpTypeSigned, [](const char* in, const char* out) { return pgp_verify_signature(in, out, ""); }},
      {"encrypted",
       [](const char* in, const char* out) { return pgp_encrypt(in, out, "bob@example.org", "", "", 0); },
       kPgpTypeEncrypted, [](const char* in, const char* out) { return pgp_decrypt(in, out, kBobPass, 1); }},
      {"signed and encrypted",
       [](const char* in, const char* out) {
         return pgp_encrypt(in, out, "bob@example.org", "alice@example.org", kAlicePass, 1);
       },
       kPgpTypeEncrypted, [](const char* in, const char* out) { return pgp_verify_signature(in, out, kBobPass); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_EQ(c.make(Path("msg.txt"), Path("msg.asc")), 1) << LastPgpError();
    EXPECT_EQ(pgp_get_message_type(Path("msg.asc")), c.type);
    ASSERT_EQ(c.read(Path("msg.asc"), Path("plain.txt")), 1) << LastPgpError();
    // A clear signature does not cover blanks at line ends: the text comes
    // back without them.
    std::string expected = kText;
    if (c.type == kPgpTypeSigned) expected.replace(expected.find("-- \n"), 4, "--\n");
    EXPECT_EQ(ReadFile(Path("plain.txt")), expected);
    if (std::string(c.what).find("signed") == 0) {
      EXPECT_NE(pgp_get_last_capture().find("Good signature from \"Alice <alice@example.org>\""), std::string::npos)
          << pgp_get_last_capture();
    }
    ExpectNothingLeft();
  }
}

TEST_F(PgpPeer, OpenPgpMimePartsRoundTrip) {
  const std::string part =
      "Content-Type: text/plain; charset=us-ascii\r\nContent-Transfer-Encoding: 7bit\r\n\r\n"
      "Hello Bob,\r\nthe meeting is at ten.\r\n";
  WriteFile(Path("part.txt"), part);
  const char* in = Path("part.txt");
  const char* out = Path("out.eml");
  struct Case {
    const char* what;
    std::function<int()> make;
    int type;
  } cases[] = {
      {"signed", [&] { return pgp_mime_sign(in, out, "alice@example.org", kAlicePass); }, kPgpMimeSigned},
      {"encrypted", [&] { return pgp_mime_encrypt(in, out, "bob@example.org", "", "", 0); }, kPgpMimeEncrypted},
      {"signed and encrypted",
       [&] { return pgp_mime_encrypt(in, out, "bob@example.org", "alice@example.org", kAlicePass, 1); },
       kPgpMimeEncrypted},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_EQ(c.make(), 1) << LastPgpError();
    // As a message on the wire: headers of its own, then the protected part.
    WriteFile(Path("msg.eml"), "From: alice@example.org\r\nSubject: t\r\nMIME-Version: 1.0\r\n" + ReadFile(out));
    ASSERT_EQ(pgp_mime_get_type(Path("msg.eml")), c.type);
    if (c.type == kPgpMimeSigned) {
      ASSERT_EQ(pgp_mime_verify(Path("msg.eml"), Path("back.txt")), 1) << LastPgpError();
      EXPECT_EQ(ReadFile(Path("back.txt")), part);
      // Stored with LF line ends, as a local folder keeps it, it still checks.
      std::string lf;
      for (char ch : ReadFile(Path("msg.eml")))
        if (ch != '\r') lf.push_back(ch);
      WriteFile(Path("msg-lf.eml"), lf);
      EXPECT_EQ(pgp_mime_verify(Path("msg-lf.eml"), nullptr), 1) << LastPgpError();
    } else {
      ASSERT_EQ(pgp_mime_decrypt(Path("msg.eml"), Path("back.txt"), kBobPass), 1) << LastPgpError();
      EXPECT_EQ(ReadFile(Path("back.txt")), part);
    }
    ExpectNothingLeft();
  }
}

TEST_F(PgpPeer, FailuresGiveTheirCodesAndMessages) {
  const char* msg = Path("msg.txt");
  const char* enc = Path("enc.asc");
  ASSERT_EQ(pgp_encrypt(msg, enc, "bob@example.org", "", "", 0), 1);
  ASSERT_EQ(pgp_sign(msg, Path("good.asc"), "alice@example.org", kAlicePass), 1);
  ASSERT_EQ(pgp_mime_sign(msg, Path("bad.eml"), "a", "x"), 0) << "a text without a MIME header is not a part";
  WriteFile(Path("part.txt"), "Content-Type: text/plain\r\n\r\nPay 10 dollars.\r\n");
  ASSERT_EQ(pgp_mime_sign(Path("part.txt"), Path("signed.eml"), "alice@example.org", kAlicePass), 1);
  std::string tampered = ReadFile(Path("signed.eml"));
  tampered.replace(tampered.find("Pay 10"), 6, "Pay 99");
  WriteFile(Path("tampered.eml"), tampered);
  const char* out = Path("out.txt");
  struct Case {
    const char* what;
    std::function<int()> run;
    int code;
    const char* message;
  } cases[] = {
      {"wrong pass phrase on sign", [&] { return pgp_sign(msg, out, "alice@example.org", "wrong"); }, 54,
       "Incorrect pass phrase."},
      {"wrong pass phrase on decrypt", [&] { return pgp_decrypt(enc, out, "wrong", 1); }, 54,
       "Incorrect pass phrase."},
      {"no key for the recipient", [&] { return pgp_encrypt(msg, out, "carol@example.org", "", "", 0); }, 57,
       "Could not find the recipient's public key."},
      {"no secret key for the signer", [&] { return pgp_sign(msg, out, "carol@example.org", "x"); }, 55,
       "No secret key found for user."},
      {"no pass phrase to decrypt", [&] { return pgp_decrypt(enc, out, "", 1); }, 54, "Incorrect pass phrase."},
      {"nothing signed", [&] { return pgp_verify_signature(msg, out, ""); }, 50, "No signature found."},
      {"tampered signed part", [&] { return pgp_mime_verify(Path("tampered.eml"), nullptr); }, 51,
       "Bad signature found."},
      {"no keys in the file", [&] { return pgp_capture_key(msg, "", ""); }, 12, "No public keys found in message."},
      {"without Bob's secret key his mail cannot be read",
       [&] {
         Sh("gpg --batch --yes --delete-secret-keys " + bob_ + " 2>/dev/null");
         return pgp_decrypt(enc, out, kBobPass, 1);
       },
       58, "You do not have the secret key to decrypt this message."},
      {"nor can a signature of a key that is unknown be checked",
       [&] {
         Sh("gpg --batch --yes --delete-secret-and-public-keys " + alice_ + " 2>/dev/null");
         return pgp_verify_signature(Path("good.asc"), out, "");
       },
       52, "Could not find the correct public key."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(c.run(), 0);
    EXPECT_EQ(pgp_get_last_error(), c.code);
    xvt_test_clear_posts();
    pgp_report_error(pgp_get_last_error());
    ASSERT_FALSE(xvt_test_posts().empty());
    EXPECT_EQ(xvt_test_posts().back().text, c.message);
    ExpectNothingLeft();
  }
}

TEST_F(PgpPeer, PassPhraseNeverLeavesTheProgramButThroughAPipe) {
  ASSERT_EQ(pgp_encrypt(Path("msg.txt"), Path("e.asc"), "bob@example.org", "alice@example.org", kAlicePass, 1), 1);
  ASSERT_EQ(pgp_decrypt(Path("e.asc"), Path("p.txt"), kBobPass, 1), 1);
  // A Bcc recipient's key is not named in the message, and can still read it.
  ASSERT_EQ(pgp_encrypt(Path("msg.txt"), Path("h.asc"), "!bob@example.org", "", "", 0), 1);
  EXPECT_NE(Sh("gpg --list-packets " + std::string(Path("h.asc")) + " 2>/dev/null").find("keyid 0000000000000000"),
            std::string::npos);
  ASSERT_EQ(pgp_decrypt(Path("h.asc"), Path("p.txt"), kBobPass, 1), 1) << LastPgpError();
  EXPECT_EQ(ReadFile(Path("p.txt")), kText);
  for (const std::string& arg : pgp_last_wrapper_args()) EXPECT_EQ(arg.find(kBobPass), std::string::npos) << arg;
  std::string gpg_argv = ReadFile(spy_log_);
  EXPECT_NE(gpg_argv.find("--passphrase-fd"), std::string::npos) << gpg_argv;
  std::vector<std::string> files = {spy_log_};
  for (const std::string& dir : {home_, runtime_, work_})
    for (const fs::directory_entry& e : fs::recursive_directory_iterator(dir))
      if (e.is_regular_file()) files.push_back(e.path());
  for (const std::string& f : files) {
    std::string text = ReadFile(f);
    EXPECT_EQ(text.find(kAlicePass), std::string::npos) << f;
    EXPECT_EQ(text.find(kBobPass), std::string::npos) << f;
  }
  ExpectNothingLeft();
}

TEST_F(PgpPeer, ProofOfThePassPhraseIsNotAnsweredFromTheAgentsMemory) {
  WriteFile(gnupghome_ + "/gpg-agent.conf", "default-cache-ttl 600\nmax-cache-ttl 600\nallow-loopback-pinentry\n");
  Sh("gpgconf --reload gpg-agent");
  ASSERT_EQ(pgp_sign(Path("msg.txt"), Path("s.asc"), "alice@example.org", kAlicePass), 1);
  // The agent now remembers: a plain signature takes any phrase.
  ASSERT_EQ(pgp_sign(Path("msg.txt"), Path("s.asc"), "alice@example.org", "wrong"), 1);
  int ok = -1;
  ASSERT_EQ(pgp_auth_user("alice@example.org", "wrong", &ok), 1);
  EXPECT_EQ(ok, 0);
  EXPECT_EQ(pgp_get_last_error(), kPgpErrBadPassphrase);
  ASSERT_EQ(pgp_auth_user("alice@example.org", kAlicePass, &ok), 1);
  EXPECT_EQ(ok, 1);
  ExpectNothingLeft();
}

// Inside the started program, where the options live.
TEST_F(PgpPeer, LoginAsksUntilThePassPhraseIsRight) {
  Run({"-b"}, [&] {
    Opt_AssignString("General.MailAddress", "alice@example.org", kOptSession, 0);
    struct Case {
      std::vector<const char*> typed;  // null: Cancel
      int result, error;
    } cases[] = {
        {{"wrong", kAlicePass}, 1, 0},
        {{"one", "two", "three"}, 0, kPgpErrTooManyLogins},
        {{nullptr}, 0, kPgpErrAborted},
    };
    for (const Case& c : cases) {
      for (const char* t : c.typed) {
        xvt_test_push_dialog(0, [t](WINDOW d) {
          if (t) xvt_test_type(d, 3132, t);
          xvt_test_click(d, t ? 3133 : 3134);
        });
      }
      std::string user, phrase;
      EXPECT_EQ(pgp_login(&user, &phrase), c.result);
      EXPECT_EQ(user, "alice@example.org");
      if (c.result) {
        EXPECT_EQ(phrase, kAlicePass);
      } else {
        EXPECT_EQ(pgp_get_last_error(), c.error);
      }
    }
    EXPECT_EQ(Option(kPgpUserIdOption, kOptPermanent), "alice@example.org");
    // A missing user id is said before anything is asked.
    Opt_Delete(kPgpUserIdOption);
    Opt_Delete("General.MailAddress");
    std::string user, phrase;
    EXPECT_EQ(pgp_login(&user, &phrase), 0);
    EXPECT_EQ(pgp_get_last_error(), kPgpErrNoUserId);
    Exit();
  });
}

TEST_F(PgpPeer, CapturedKeyCanBeEncryptedToOnceCertified) {
  const char* bob = Path("bob.asc");
  Sh("gpg --armor --export bob@example.org > " + std::string(bob));
  Sh("gpg --batch --yes --delete-secret-and-public-keys " + bob_ + " 2>/dev/null");
  ASSERT_EQ(pgp_get_message_type(bob), kPgpTypeKey);
  // Taken without certification, the key is there but not trusted.
  ASSERT_EQ(pgp_capture_key(bob, "", ""), 1) << LastPgpError();
  EXPECT_EQ(pgp_encrypt(Path("msg.txt"), Path("e.asc"), "bob@example.org", "", "", 0), 0);
  EXPECT_EQ(pgp_get_last_error(), 57);
  // Certifying needs the user's own pass phrase.
  EXPECT_EQ(pgp_capture_key(bob, "alice@example.org", "wrong"), 0);
  EXPECT_EQ(pgp_get_last_error(), 54);
  ASSERT_EQ(pgp_capture_key(bob, "alice@example.org", kAlicePass), 1) << LastPgpError();
  EXPECT_EQ(pgp_encrypt(Path("msg.txt"), Path("e.asc"), "bob@example.org", "", "", 0), 1) << LastPgpError();
  // The user's own key can be handed out.
  ASSERT_EQ(pgp_publish_key("alice@example.org", Path("alice.asc")), 1);
  EXPECT_EQ(pgp_get_message_type(Path("alice.asc")), kPgpTypeKey);
  EXPECT_EQ(pgp_publish_key("nobody@example.org", Path("n.asc")), 0);
  EXPECT_EQ(pgp_get_last_error(), 55);
  ExpectNothingLeft();
}

}  // namespace
