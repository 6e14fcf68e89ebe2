// The client's side without gpg: command words, the wrapper's argument
// list, codes and texts, message sniffing, recipients, wiping, and
// OpenPGP/MIME parts taken apart.
#include "src/security/pgp.h"

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "c-client/core/mail.h"
#include "c-client/rfc822/rfc822.h"
#include "src/security/pgp_mime.h"
#include "tests/support/frame_fixture.h"

namespace {

std::string Join(const std::vector<std::string>& v) {
  std::string s;
  for (const std::string& w : v) s += (s.empty() ? "" : "|") + w;
  return s;
}

class PgpClient : public UserFrameTest {};

TEST_F(PgpClient, CommandsSplitIntoWords) {
  struct Case {
    std::string command;
    int ok;
    const char* words;
  } cases[] = {
      {"+for \"/tmp/a b\" -o \"/tmp/c\" -sta -u \"Ann <a@b>\" +bat", 1, "+for|/tmp/a b|-o|/tmp/c|-sta|-u|Ann <a@b>|+bat"},
      {"  -eat   a@b\tc@d  ", 1, "-eat|a@b|c@d"},
      {"x\"y z\"w \"\"", 1, "xy zw|"},
      {"", 1, ""},
      {"+for \"unclosed", 0, ""},
      {[] { std::string s; for (int i = 0; i < 100; ++i) s += "w "; return s; }(), 1, nullptr},
      {[] { std::string s; for (int i = 0; i < 101; ++i) s += "w "; return s; }(), 0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command);
    std::vector<std::string> words;
    ASSERT_EQ(pgp_separate_arguments(c.command.c_str(), &words), c.ok);
    if (c.ok && c.words) {
      EXPECT_EQ(Join(words), c.words);
    } else if (c.ok) {
      EXPECT_EQ(words.size(), 100u);
    }
  }
}

TEST_F(PgpClient, WrapperArgumentsFollowTheFlags) {
  struct Case {
    bool pause, auth, verify, included, logging;
    const char* args;
  } cases[] = {
      {false, false, false, false, false, "w|3|/d/export|/d/error"},
      {false, false, false, true, false, "w|3|/d/export|/d/error|-included"},
      {true, true, false, true, true, "w|3|/d/export|/d/error|-pause|-logging|-auth|-included|-capture|/d/capture"},
      {false, false, true, false, false, "w|3|/d/export|/d/error|-capture|/d/capture|-verify"},
  };
  for (const Case& c : cases) {
    PgpRun run;
    run.export_file = "/d/export";
    run.error_file = "/d/error";
    run.capture_file = "/d/capture";
    run.count = 3;
    run.pause = c.pause, run.auth = c.auth, run.verify = c.verify, run.included = c.included;
    run.logging = c.logging;
    EXPECT_EQ(Join(pgp_form_wrapper_arg_list("w", run)), c.args);
  }
}

TEST_F(PgpClient, StatusesMapToCodesWithTexts) {
  struct Case {
    int status, code;
    const char* text;
  } cases[] = {
      {1, 67, "PGP has found a corrupted file."},
      {2, 40, "PGP wrapper file argument not found."},
      {3, 53, "PGP has found a corrupted file."},
      {6, 73, "User aborted PGP operation."},
      {7, 63, nullptr},
      {10, 10, "Public/private key generation failed."},
      {12, 12, "No public keys found in message."},
      {20, 20, "Digital signature creation failed."},
      {21, 42, "The message could not be encrypted."},
      {23, 42, nullptr},
      {31, 31, "The message is corrupt."},
      {32, 71, "The message could not be decrypted."},
      {33, 71, nullptr},
      {50, 50, "No signature found."},
      {51, 51, "Bad signature found."},
      {52, 52, "Could not find the correct public key."},
      {53, 53, nullptr},
      {54, 54, "Incorrect pass phrase."},
      {57, 57, "Could not find the recipient's public key."},
      {58, 58, "You do not have the secret key to decrypt this message."},
      {60, 60, nullptr},
      {61, 66, "PGP operation failed."},
      {4, 66, nullptr},
      {127, 66, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.status);
    EXPECT_EQ(pgp_process_error(c.status), c.code);
    if (c.text) {
      EXPECT_EQ(pgp_error_text(c.code), c.text);
    }
  }
  EXPECT_EQ(pgp_error_text(999), "Unknown error in pgp_report_error.");
  pgp_set_wrapper_path("/nowhere/velmar-pgpwrap");
  EXPECT_EQ(pgp_error_text(75),
            "The PGP wrapper binary \"/nowhere/velmar-pgpwrap\" could not be located.  PGP operation failed.");
  xvt_test_clear_posts();
  pgp_report_error(54);
  ASSERT_EQ(xvt_test_posts().size(), 1u);
  EXPECT_EQ(xvt_test_posts()[0].kind, "error");
  EXPECT_EQ(xvt_test_posts()[0].text, "Incorrect pass phrase.");
}

TEST_F(PgpClient, MessageTypeIsTheFirstArmourLine) {
  const std::pair<std::string, int> cases[] = {
      {"Hi\n-----BEGIN PGP MESSAGE-----\nxx\n", kPgpTypeEncrypted},
      {"-----BEGIN PGP SIGNED MESSAGE-----\r\nHash: SHA256\r\n", kPgpTypeSigned},
      {"-----BEGIN PGP PUBLIC KEY BLOCK-----  \n", kPgpTypeKey},
      {"-----BEGIN PGP SIGNED MESSAGE-----\n- -----BEGIN PGP MESSAGE-----\n", kPgpTypeSigned},
      {"> -----BEGIN PGP MESSAGE-----\nplain\n", kPgpTypeNone},
      {"", kPgpTypeNone},
      // The armour line must start a line, even after a very long one.
      {std::string(300, 'x') + "-----BEGIN PGP MESSAGE-----\n", kPgpTypeNone},
  };
  const std::string path = home_ + "/m.txt";
  for (const auto& [text, type] : cases) {
    SCOPED_TRACE(text);
    WriteFile(path, text);
    EXPECT_EQ(pgp_get_message_type(path.c_str()), type);
  }
  EXPECT_EQ(pgp_get_message_type((home_ + "/missing").c_str()), kPgpTypeError);
  EXPECT_EQ(pgp_get_last_error(), kPgpErrFileType);
}

TEST_F(PgpClient, TooLongCommandsNeverReachTheWrapper) {
  pgp_set_wrapper_path("/bin/true");
  // "+for "/t/i" -o "/t/o" -eat " is 27 characters, " +bat" 5: the
  // recipients make the rest, 127 in all passes the length check.
  const std::pair<size_t, bool> cases[] = {{127 - 32, false}, {128 - 32, true}, {400, true}};
  for (const auto& [recipients, too_long] : cases) {
    SCOPED_TRACE(recipients);
    pgp_set_last_error(0);
    pgp_encrypt("/t/i", "/t/o", std::string(recipients, 'r').c_str(), "me", "", 0);
    EXPECT_EQ(pgp_get_last_error() == kPgpErrCommandTooLong, too_long);
  }
}

// Inside the started program, where the options live.
TEST_F(PgpClient, RecipientsComeFromToCcBccOnceWithSelf) {
  Run({"-b"}, [&] {
    Opt_AssignString(kPgpUserIdOption, "me@example.org", kOptSession, 0);
    struct Case {
      const char *to, *cc, *bcc;
      bool self;
      const char* list;
    } cases[] = {
        {"a@x.org, B <b@y.org>", "c@z.org", "d@w.org", true, "a@x.org b@y.org c@z.org !d@w.org me@example.org"},
        {"a@x.org", "", "a@x.org, e@v.org", false, "a@x.org !e@v.org"},
        {"a@x.org", "A@X.ORG", "", true, "a@x.org me@example.org"},
        {"a@x.org, me@EXAMPLE.org", "", "", true, "a@x.org me@EXAMPLE.org"},
        {"a@x.org", "", "", false, "a@x.org"},
        {"\"odd name\"@x.org", "", "", false, "\"odd name@x.org\""},
        {"", "", "", true, ""},
    };
    for (const Case& c : cases) {
      SCOPED_TRACE(c.to);
      Opt_AssignString(kPgpEncryptToSelfOption, c.self ? "ON" : "OFF", kOptSession, 0);
      Envelope* env = mail_newenvelope();
      std::string to = c.to, cc = c.cc, bcc = c.bcc;
      rfc822_parse_adrlist(&env->to, to.data(), "local");
      rfc822_parse_adrlist(&env->cc, cc.data(), "local");
      rfc822_parse_adrlist(&env->bcc, bcc.data(), "local");
      EXPECT_EQ(form_pgp_recip_list(env), c.list);
      mail_free_envelope(&env);
    }
    Exit();
  });
}

TEST_F(PgpClient, WipingOverwritesAndRemoves) {
  std::string path = home_ + "/secret";
  WriteFile(path, "pass phrase text");
  // A second name for the same data shows what the wipe left in it.
  std::string link = home_ + "/secret.link";
  ASSERT_EQ(::link(path.c_str(), link.c_str()), 0);
  EXPECT_EQ(pgp_clear_remove_file(path.c_str()), 1);
  EXPECT_NE(access(path.c_str(), F_OK), 0);
  EXPECT_EQ(ReadFile(link), std::string(16, '\0'));
  EXPECT_EQ(pgp_clear_remove_file(path.c_str()), 1) << "a missing file is no failure";
  std::string dir = home_ + "/adir";
  ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
  EXPECT_EQ(pgp_clear_remove_file(dir.c_str()), 0);
  EXPECT_EQ(pgp_get_last_error(), kPgpErrWipe);
}

TEST(PgpMimeSplit, PartsAreTheExactBytesBetweenDelimiters) {
  struct Case {
    const char* what;
    std::string text;
    const char* type;
    std::vector<std::string> parts;  // empty with ok false: refused
    bool ok;
  } cases[] = {
      {"signed, CR LF", "Content-Type: multipart/signed; micalg=pgp-sha256;\r\n protocol=\"application/pgp-signature\"; "
                        "boundary=\"b1\"\r\n\r\npreamble\r\n--b1\r\nContent-Type: text/plain\r\n\r\nhi  \r\n\r\n--b1\r\n"
                        "sig\r\n--b1--\r\nepilogue\r\n",
       "multipart/signed", {"Content-Type: text/plain\r\n\r\nhi  \r\n", "sig"}, true},
      {"LF, padded delimiter", "Subject: x\nContent-type: MULTIPART/Encrypted; boundary=zz\n\n--zz \nA\n--zz\t\nB\n--zz--",
       "multipart/encrypted", {"A", "B"}, true},
      {"a look-alike is content", "Content-Type: multipart/mixed; boundary=q\n\n--q\n--qq\n--q-\n--q--\n", "multipart/mixed",
       {"--qq\n--q-"}, true},
      {"empty part", "Content-Type: multipart/mixed; boundary=q\n\n--q\n--q--\n", "multipart/mixed", {""}, true},
      {"not multipart", "Content-Type: text/plain\n\nbody\n", "text/plain", {}, true},
      {"no content type", "Subject: s\n\nbody\n", "text/plain", {}, true},
      {"no closing", "Content-Type: multipart/mixed; boundary=q\n\n--q\nA\n", "", {}, false},
      {"no boundary", "Content-Type: multipart/mixed\n\n--q\nA\n--q--\n", "", {}, false},
      {"no header end", "Content-Type: multipart/mixed; boundary=q\n--q--", "", {}, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    PgpMimeEntity e;
    std::string error;
    ASSERT_EQ(pgp_mime_split(c.text, &e, &error), c.ok) << error;
    if (!c.ok) {
      EXPECT_FALSE(error.empty());
      continue;
    }
    EXPECT_EQ(e.type, c.type);
    ASSERT_EQ(e.parts.size(), c.parts.size());
    for (size_t i = 0; i < c.parts.size(); ++i) EXPECT_EQ(e.parts[i], c.parts[i]);
  }
  std::string many = "Content-Type: multipart/mixed; boundary=q\n\n";
  for (size_t i = 0; i <= kPgpMimeMaxParts; ++i) many += "--q\nx\n";
  many += "--q--\n";
  PgpMimeEntity e;
  std::string error;
  EXPECT_FALSE(pgp_mime_split(many, &e, &error));
}

TEST(PgpMimeSplit, PartBodiesAreDecoded) {
  const std::pair<std::string, std::string> cases[] = {
      {"Content-Type: application/octet-stream\r\n\r\n-----BEGIN PGP MESSAGE-----\r\n", "-----BEGIN PGP MESSAGE-----\r\n"},
      {"Content-Transfer-Encoding: base64\n\nLS0tLS1CRUdJTg==\n", "-----BEGIN"},
      {"Content-Transfer-Encoding: Quoted-Printable\n\na=3Db=\nc\n", "a=bc\n"},
      {"\r\nno header\r\n", "no header\r\n"},
  };
  for (const auto& [part, want] : cases) {
    std::string body, error;
    ASSERT_TRUE(pgp_mime_part_body(part, &body, &error)) << error;
    EXPECT_EQ(body, want);
  }
  EXPECT_EQ(pgp_mime_canonical("a\nb\r\nc\n\n"), "a\r\nb\r\nc\r\n\r\n");
}

}  // namespace
