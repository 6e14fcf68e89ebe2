// The wrapper's logic without processes: its arguments, the export file,
// the command words as gpg options, and gpg's status output as codes.
#include "tools/pgpwrap_core.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "src/security/pgp.h"

namespace {

std::string Join(const std::vector<std::string>& v) {
  std::string s;
  for (const std::string& w : v) s += (s.empty() ? "" : " ") + w;
  return s;
}

TEST(WrapperArgs, AcceptsTheClientsListAndRefusesOthers) {
  struct Case {
    std::vector<std::string> argv;
    bool ok;
    std::string flags;  // p l a i v and the capture file
  } cases[] = {
      {{"w", "5", "/x/export", "/x/error"}, true, ""},
      {{"w", "6", "/x/export", "/x/error", "-auth", "-included", "-capture", "/x/c"}, true, "ai/x/c"},
      {{"w", "3", "e", "r", "-pause", "-logging", "-verify", "-capture", "c"}, true, "plvc"},
      {{"w", "3", "e", "r", "-capture"}, false, ""},
      {{"w", "3", "e", "r", "-bogus"}, false, ""},
      {{"w", "0", "e", "r"}, false, ""},
      {{"w", "102", "e", "r"}, false, ""},
      {{"w", "3x", "e", "r"}, false, ""},
      {{"w", "1", "e", "r", "-included"}, false, ""},  // no room for a command
      {{"w", "3", "", "r"}, false, ""},
      {{"w", "3", "e"}, false, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(Join(c.argv));
    WrapperArgs a;
    std::string error;
    ASSERT_EQ(ParseWrapperArgs(c.argv, &a, &error), c.ok) << error;
    if (!c.ok) {
      EXPECT_FALSE(error.empty());
      continue;
    }
    std::string flags = std::string(a.pause ? "p" : "") + (a.logging ? "l" : "") + (a.auth ? "a" : "") +
                         (a.included ? "i" : "") + (a.verify ? "v" : "") + a.capture_file;
    EXPECT_EQ(flags, c.flags);
    EXPECT_EQ(a.count, std::stoi(c.argv[1]));
    EXPECT_EQ(a.export_file, c.argv[2]);
  }
}

TEST(ExportFile, ClientTextReadsBackAndBadFilesAreRefused) {
  // The exact bytes the client writes: program, words, base64 phrase.
  std::string phrase = "p\xc3\xa4ss phrase with \"quotes\" and more than fifty-seven bytes so base64 wraps";
  int count = 0;
  std::string text = pgp_export_text("/usr/bin/gpg", {"+for", "in file", "-sta"}, &phrase, &count);
  EXPECT_EQ(count, 4);
  EXPECT_EQ(text.substr(0, 31), "/usr/bin/gpg\n+for\nin file\n-sta\n");
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 5) << "the base64 line must not be wrapped";
  EXPECT_EQ(text.find(phrase), std::string::npos);
  ExportContents ex;
  std::string error;
  ASSERT_TRUE(ParseExportFile(text, count, true, &ex, &error)) << error;
  EXPECT_EQ(ex.pgp_path, "/usr/bin/gpg");
  EXPECT_EQ(Join(ex.words), "+for in file -sta");
  EXPECT_EQ(ex.pass_phrase, phrase);

  struct Bad {
    const char* what;
    std::string text;
    int count;
    bool included;
  } bad[] = {
      {"count too high", "gpg\n-d\n", 2, false},
      {"count too low", "gpg\n-d\n+bat\n", 1, false},
      {"no program", "\n-d\n", 1, false},
      {"phrase not base64", "gpg\n-d\n*notbase64*\n", 2, true},
      {"phrase with a line end", "gpg\n-d\n" + std::string("YQpi") + "\n", 2, true},  // "a\nb"
      {"too many words", "gpg\n" + [] { std::string s; for (int i = 0; i < 101; ++i) s += "w\n"; return s; }(), 101,
       false},
      {"long line", "gpg\n" + std::string(kExportMaxLine + 1, 'x') + "\n", 1, false},
      {"huge file", std::string(kExportMaxBytes + 1, '\n'), 1, false},
  };
  for (const Bad& b : bad) {
    SCOPED_TRACE(b.what);
    error.clear();
    EXPECT_FALSE(ParseExportFile(b.text, b.count, b.included, &ex, &error));
    EXPECT_FALSE(error.empty());
    EXPECT_TRUE(ex.pass_phrase.empty());
  }
  // Lines written in text mode elsewhere end in CR LF.
  ASSERT_TRUE(ParseExportFile("gpg\r\n-d\r\nYWI=\r\n", 2, true, &ex, &error)) << error;
  EXPECT_EQ(ex.pgp_path, "gpg");
  EXPECT_EQ(ex.pass_phrase, "ab");
}

TEST(TranslateCommand, ClassicCommandsBecomeGpgOptions) {
  struct Case {
    const char* command;
    const char* args;  // null: refused
    PgpOp op;
  } cases[] = {
      {"+for \"/t/in\" -o \"/t/out\" -sta -u \"Ann <a@b>\" +bat",
       "--local-user Ann <a@b> --output /t/out --textmode --clearsign -- /t/in", PgpOp::kSign},
      {"+for \"/t/in\" -o \"/t/out\" -eat a@b c@d +bat",
       "--armor --textmode --recipient a@b --recipient c@d --output /t/out --encrypt -- /t/in", PgpOp::kEncrypt},
      {"+for \"/t/in\" -o \"/t/out\" -esat a@b -u \"me\" +bat",
       "--armor --textmode --local-user me --sign --recipient a@b --output /t/out --encrypt -- /t/in",
       PgpOp::kEncrypt},
      {"+for \"/t/in\" -o \"/t/out\" -ea a@b !c@d +bat",
       "--armor --recipient a@b --hidden-recipient c@d --output /t/out --encrypt -- /t/in", PgpOp::kEncrypt},
      {"+for \"/t/in\" -o \"/t/out\" -sab -u me +bat",
       "--local-user me --output /t/out --digest-algo SHA256 --armor --detach-sign -- /t/in", PgpOp::kDetachSign},
      {"+for \"/t/in\" -o \"/t/out\" -d +bat", "--output /t/out --decrypt -- /t/in", PgpOp::kDecrypt},
      {"+for \"/t/in\" -o \"/t/out\" +bat", "--output /t/out --decrypt -- /t/in", PgpOp::kDecrypt},
      {"+for \"/t/s.asc\" \"/t/data\" +bat", "--verify -- /t/s.asc /t/data", PgpOp::kVerifyDetached},
      {"-ka +for \"/t/key.asc\" pubring.pgp", "--import -- /t/key.asc", PgpOp::kImport},
      {"-ka +for \"/t/key.asc\" pubring.pgp -u me", "--import -- /t/key.asc", PgpOp::kImport},
      {"\"me\" \"/t/out\" \"/h/pubring.pgp\" -kxa", "--armor --output /t/out --export -- me", PgpOp::kExport},
      {"-kg +for \"me\"", "--full-generate-key", PgpOp::kGenerate},
      // A recipient that looks like an option is refused, not passed on.
      {"+for \"/t/in\" -o \"/t/out\" -eat -rm +bat", nullptr, PgpOp::kEncrypt},
      {"+for \"/t/in\" -o \"/t/out\" -sta +bat", nullptr, PgpOp::kSign},         // no user
      {"+for \"/t/in\" -o \"/t/out\" -eat +bat", nullptr, PgpOp::kEncrypt},       // no recipient
      {"+for \"/t/in\" -o \"/t/out\" -esat a@b +bat", nullptr, PgpOp::kEncrypt},  // no signer
      {"-o \"/t/out\" -d +bat", nullptr, PgpOp::kDecrypt},
      {"+for \"/t/in\" -sta -d -u me -o x", nullptr, PgpOp::kSign},
      {"+for \"/t/in\" -o \"/t/out\" -zz +bat", nullptr, PgpOp::kSign},
      {"+for", nullptr, PgpOp::kDecrypt},
      {"\"me\" -kxa", nullptr, PgpOp::kExport},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command);
    std::vector<std::string> words;
    ASSERT_TRUE(pgp_separate_arguments(c.command, &words));
    GpgPlan plan;
    std::string error;
    bool ok = TranslateCommand(words, &plan, &error);
    ASSERT_EQ(ok, c.args != nullptr) << error;
    if (!ok) {
      EXPECT_FALSE(error.empty());
      continue;
    }
    EXPECT_EQ(Join(plan.args), c.args);
    EXPECT_EQ(plan.op, c.op);
  }
}

// A status transcript: each line with gpg's prefix and a line end.
std::string Status(std::initializer_list<const char*> lines) {
  std::string text;
  for (const char* line : lines) text += std::string("[GNUPG:] ") + line + "\n";
  return text;
}

// Status transcripts as gpg 2.2 writes them, and the code each must give.
TEST(StatusCodes, TranscriptsGiveTheirCodes) {
  struct Case {
    const char* what;
    PgpOp op;
    bool verify;
    int exit;
    std::string status;
    int code;
    bool phrase = true;
  } cases[] = {
      {"good clear signature", PgpOp::kSign, false, 0,
       Status({"KEY_CONSIDERED 7BB8 2", "BEGIN_SIGNING H8", "SIG_CREATED C 22 8 01 1795 7BB8"}), 0},
      {"wrong pass phrase on sign", PgpOp::kSign, false, 2, Status({"BEGIN_SIGNING H8", "FAILURE sign 67108875"}),
       kCodeBadPassphrase},
      {"unknown signer", PgpOp::kSign, false, 2, Status({"INV_SGNR 9 nobody@x", "FAILURE sign 17"}),
       kCodeNoSecretKey},
      {"no pass phrase given", PgpOp::kDetachSign, false, 2, Status({"MISSING_PASSPHRASE"}), kCodeBadPassphrase},
      {"sign ended without a signature", PgpOp::kSign, false, 0, Status({"BEGIN_SIGNING H8"}), kCodeSignFailed},
      {"encrypted", PgpOp::kEncrypt, false, 0, Status({"BEGIN_ENCRYPTION 2 9", "END_ENCRYPTION"}), 0},
      {"unknown recipient", PgpOp::kEncrypt, false, 2, Status({"INV_RECP 0 carol@x", "FAILURE encrypt 167772380"}),
       kCodeNoRecipientKey},
      {"recipient not trusted", PgpOp::kEncrypt, false, 2, Status({"INV_RECP 10 carol@x"}), kCodeNoRecipientKey},
      {"encrypt killed", PgpOp::kEncrypt, false, 130, Status({"BEGIN_ENCRYPTION 2 9"}), kCodeEncryptFailed},
      {"decrypt without a pass phrase", PgpOp::kDecrypt, false, 2,
       Status({"ENC_TO 21 1 0", "NEED_PASSPHRASE 21 BA 1 0", "BEGIN_DECRYPTION", "DECRYPTION_FAILED"}),
       kCodeBadPassphrase, false},
      {"decrypted", PgpOp::kDecrypt, false, 0,
       Status({"ENC_TO 56 18 0", "BEGIN_DECRYPTION", "DECRYPTION_OKAY", "GOODMDC", "END_DECRYPTION"}), 0},
      {"wrong pass phrase on decrypt", PgpOp::kDecrypt, false, 2,
       Status({"ENC_TO 56 18 0", "ERROR pkdecrypt_failed 67108875", "BEGIN_DECRYPTION", "DECRYPTION_FAILED",
               "END_DECRYPTION"}),
       kCodeBadPassphrase},
      {"not for us", PgpOp::kDecrypt, false, 2,
       Status({"ENC_TO 56 18 0", "NO_SECKEY 56", "BEGIN_DECRYPTION", "DECRYPTION_FAILED"}), kCodeNotForUs},
      {"damaged", PgpOp::kDecrypt, false, 2, Status({"BEGIN_DECRYPTION", "DECRYPTION_FAILED"}), kCodeDecryptFailed},
      {"not PGP at all", PgpOp::kDecrypt, false, 2,
       Status({"NODATA 1", "NODATA 2", "FAILURE decrypt 4294967295"}), kCodeCorrupt},
      {"good signature", PgpOp::kDecrypt, true, 0,
       Status({"PLAINTEXT 74 0", "NEWSIG a@x", "GOODSIG 6BAC Alice <a@x>", "VALIDSIG 7B"}), 0},
      {"bad signature", PgpOp::kDecrypt, true, 1,
       Status({"NEWSIG a@x", "BADSIG 6BAC Alice <a@x>", "FAILURE gpg-exit 33554433"}), kCodeBadSignature},
      {"signer unknown", PgpOp::kDecrypt, true, 2,
       Status({"NEWSIG", "ERRSIG 6BAC 22 8 01 1795 9", "NO_PUBKEY 6BAC"}), kCodeNoPublicKey},
      {"verify without a signature", PgpOp::kDecrypt, true, 0, Status({"DECRYPTION_OKAY"}), kCodeNoSignature},
      {"decrypt needs no signature", PgpOp::kDecrypt, false, 0, Status({"DECRYPTION_OKAY"}), 0},
      {"detached good", PgpOp::kVerifyDetached, true, 0, Status({"NEWSIG", "GOODSIG 6B A"}), 0},
      {"detached bad", PgpOp::kVerifyDetached, true, 1, Status({"NEWSIG", "BADSIG 6B A"}), kCodeBadSignature},
      {"detached nothing", PgpOp::kVerifyDetached, true, 2, Status({"NODATA 3"}), kCodeNoSignature},
      {"expired key still signed", PgpOp::kVerifyDetached, true, 0, Status({"NEWSIG", "EXPKEYSIG 6B A"}), 0},
      {"imported", PgpOp::kImport, false, 0,
       Status({"IMPORT_OK 1 0F358086678E05F504936F458A3C04896A418565", "IMPORT_RES 1 0 1 0 0 0 0 0 0 0 0 0 0 0 0"}),
       0},
      {"import found nothing", PgpOp::kImport, false, 2, Status({"NODATA 1", "IMPORT_RES 0 0 0 0 0 0"}),
       kCodeNoKeysFound},
      {"import without a summary", PgpOp::kImport, false, 0, "", kCodeNoKeysFound},
      {"exported", PgpOp::kExport, false, 0, Status({"EXPORTED 0F35"}), 0},
      {"export of nobody", PgpOp::kExport, false, 0, "", kCodeNoSecretKey},
      {"key made", PgpOp::kGenerate, false, 0, Status({"KEY_CREATED B 0F35"}), 0},
      {"key not made", PgpOp::kGenerate, false, 2, Status({"ERROR genkey 99"}), kCodeCancelled},
      {"lines without the prefix are ignored", PgpOp::kSign, false, 0, "SIG_CREATED C 22\nGNUPG: SIG_CREATED\n",
       kCodeSignFailed},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    GpgPlan plan;
    plan.op = c.op;
    plan.passphrase_given = c.phrase;
    StatusParser whole;
    const std::string& text = c.status;
    whole.Feed(text.data(), text.size());
    whole.Finish();
    EXPECT_EQ(CodeFor(plan, whole.status(), c.exit, c.verify), c.code);
    // Fed a byte at a time, as a pipe may deliver it, the verdict is the same.
    StatusParser bytes;
    for (char ch : text) bytes.Feed(&ch, 1);
    bytes.Finish();
    EXPECT_EQ(CodeFor(plan, bytes.status(), c.exit, c.verify), c.code);
    EXPECT_EQ(bytes.status().lines, whole.status().lines);
  }
}

TEST(StatusParser, LimitsHoldAndKeysAreKept) {
  StatusParser p;
  std::string text = "[GNUPG:] IMPORT_OK 17 AAAA\n"  // a secret key: not to be certified
                     "[GNUPG:] IMPORT_OK 0 0F358086678E05F504936F458A3C04896A418565\n"
                     "[GNUPG:] IMPORT_OK 1 not-hex\n" +
                     std::string("[GNUPG:] BADSIG ") + std::string(kStatusMaxLine * 3, 'x') + "\n" +
                     "[GNUPG:] GOODSIG after the long line\n";
  p.Feed(text.data(), text.size());
  p.Finish();
  EXPECT_EQ(p.status().import_fprs, std::vector<std::string>{"0F358086678E05F504936F458A3C04896A418565"});
  EXPECT_EQ(p.status().bad_signatures, 1);  // the long line counts once
  EXPECT_EQ(p.status().good_signatures, 1);
  EXPECT_TRUE(p.status().truncated);

  StatusParser flood;
  std::string line = "[GNUPG:] NEWSIG\n";
  for (size_t fed = 0; fed < kStatusMaxBytes + 4096; fed += line.size()) flood.Feed(line.data(), line.size());
  flood.Finish();
  EXPECT_TRUE(flood.status().truncated);
  EXPECT_LE(static_cast<size_t>(flood.status().new_signatures), kStatusMaxBytes / line.size());
}

TEST(Keygrips, ReadFromTheColonListing) {
  std::string listing =
      "sec:u:255:22:6BAC9A02363D10E8:1795482431:::u:::scESC:::+:::ed25519:::0:\n"
      "fpr:::::::::7BB82042AD4BEA0E3C593BFD6BAC9A02363D10E8:\n"
      "grp:::::::::91C7B1FE2E3BD52BB5B1F2F2C0A3B2A6A3C2E1D0:\n"
      "ssb:u:255:18:566A38072F48E5D0:1795482431::::::e:::+:::cv25519::\n"
      "grp:::::::::short:\n"
      "grp:::::::::0123456789ABCDEF0123456789ABCDEF01234567:\n";
  EXPECT_EQ(KeygripsFromColons(listing), (std::vector<std::string>{"91C7B1FE2E3BD52BB5B1F2F2C0A3B2A6A3C2E1D0",
                                                                    "0123456789ABCDEF0123456789ABCDEF01234567"}));
}

}  // namespace
