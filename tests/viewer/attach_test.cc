// Attachment names from hostile mail, the helper table in the options, the
// command lines that run helpers (and one real run), and uudecoding.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "c-client/core/mail.h"
#include "src/options/options.h"
#include "src/viewer/attach.h"
#include "tests/model/model_fixture.h"

namespace {

BodyParameter* Params(const std::vector<std::pair<const char*, const char*>>& list) {
  BodyParameter* head = nullptr;
  BodyParameter** tail = &head;
  for (const auto& [a, v] : list) {
    *tail = mail_newbody_parameter();
    (*tail)->attribute = cpystr(a);
    (*tail)->value = cpystr(v);
    tail = &(*tail)->next;
  }
  return head;
}

TEST(AttachNames, HostileNamesAreMadeSafe) {
  const std::pair<std::string, std::string> cases[] = {
      {"report.pdf", "report.pdf"},
      {"../../.bashrc", "bashrc"},
      {"/etc/passwd", "passwd"},
      {"C:\\Windows\\evil.exe", "evil.exe"},
      {"--help", "help"},
      {"-rf .", "rf"},
      {"..", ""},
      {"name\r\nwith\x01" "controls\x7f.txt", "namewithcontrols.txt"},
      {"\xC2\x85" "c1.txt", "c1.txt"},
      {"a:b*c?.txt", "a_b_c_.txt"},
      {"  trailing. ", "trailing"},
      {std::string(300, 'x') + ".jpeg", std::string(195, 'x') + ".jpeg"},
      {"bad\xFF.txt", "bad\xC3\xBF.txt"},  // not UTF-8: read as Windows-1252
  };
  for (const auto& [raw, want] : cases) EXPECT_EQ(AttachSafeName(raw), want) << raw;
}

TEST(AttachNames, DispositionThenTypeNameThenType) {
  struct Case {
    std::vector<std::pair<const char*, const char*>> disposition, type;
    unsigned short major;
    const char* minor;
    const char* want;
  } cases[] = {
      {{{"FILENAME", "a.pdf"}}, {{"NAME", "b.pdf"}}, TYPEAPPLICATION, "PDF", "a.pdf"},
      {{}, {{"NAME", "b.pdf"}}, TYPEAPPLICATION, "PDF", "b.pdf"},
      {{{"FILENAME*0*", "iso-8859-1'de'Gr%FC"}, {"FILENAME*1", "nde.txt"}}, {}, TYPETEXT, "PLAIN",
       "Gr\xC3\xBCnde.txt"},
      {{{"FILENAME", "=?UTF-8?Q?caf=C3=A9.doc?="}}, {}, TYPEAPPLICATION, "MSWORD", "caf\xC3\xA9.doc"},
      {{{"FILENAME", "../.."}}, {{"NAME", ".hidden.png"}}, TYPEIMAGE, "PNG", "hidden.png"},
      {{}, {}, TYPEIMAGE, "PNG", "attachment.png"},
      {{}, {}, TYPEAPPLICATION, "X-UNHEARD-OF", "attachment"},
  };
  for (const Case& c : cases) {
    BodyPart* part = mail_newbody();
    part->type = c.major;
    part->subtype = cpystr(c.minor);
    part->parameter = Params(c.type);
    part->disposition_parameter = Params(c.disposition);
    EXPECT_EQ(AttachPartName(part), c.want);
    mail_free_body(&part);
  }
}

TEST(AttachHelpers, CommandLinesQuoteOnlyWhatHoldsABlank) {
  struct Case {
    std::string command, file;
    std::vector<std::string> argv;
    std::string line;
  } cases[] = {
      {"", "/t/a b.pdf", {"xdg-open", "/t/a b.pdf"}, "xdg-open \"/t/a b.pdf\""},
      {"evince", "/t/a.pdf", {"evince", "/t/a.pdf"}, "evince /t/a.pdf"},
      {"  gimp --new-instance ", "/t/x.png", {"gimp", "--new-instance", "/t/x.png"}, "gimp --new-instance /t/x.png"},
      {"viewer %s --fit", "/t/it's.png", {"/bin/sh", "-c", "viewer '/t/it'\\''s.png' --fit"},
       "/bin/sh -c \"viewer '/t/it'\\''s.png' --fit\""},
  };
  for (const Case& c : cases) {
    const auto argv = AttachHelperArgv(c.command, c.file);
    EXPECT_EQ(argv, c.argv) << c.command;
    EXPECT_EQ(AttachCommandLine(argv), c.line) << c.command;
  }
}

TEST(AttachUudecode, DecodesTheFirstBlockAndRefusesBrokenOnes) {
  struct Case {
    std::string text;
    bool ok;
    std::string bytes, name;
  } cases[] = {
      {"junk\nbegin 644 cat.txt\n#0V%T\n`\nend\n", true, "Cat", "cat.txt"},
      {"begin 755 ../../run.sh\r\n&9F]O8F%R\r\n`\r\nend\r\n", true, "foobar", "run.sh"},
      {"begin 644 x\n#0V%T\n", false, "", ""},    // no end
      {"begin 644 x\nM0V\nend\n", false, "", ""},  // a line shorter than its count says
      {"no block at all\n", false, "", ""},
  };
  for (const Case& c : cases) {
    std::string out, name;
    EXPECT_EQ(AttachUudecode(c.text, &out, &name), c.ok) << c.text;
    if (c.ok) {
      EXPECT_EQ(out, c.bytes);
      EXPECT_EQ(name, c.name);
    }
  }
}

// Made by an encoder written after the format's description: a name with a
// directory, a literal 0x90 twice, a run of 300 bytes, a resource fork.
const std::string kBinhex =
    "(This file must be converted with BinHex 4.0)\r\n"
    ":$5iZ,h*PF'pbG#jdH(3!9%9B9(4dH(3!N!3\"1`#3!`5L#%KPE'a[N!#3!L\"hEh*\r\n"
    "XC!T\"N2p\"N#d+5U&58e*$MlF:\r\n";
const std::string kBinhexData = "Hello\x90\x90 world\n" + std::string(300, 'A') + "\n";

TEST(AttachBinhexDecode, DecodesTheDataForkAndRefusesBrokenBlocks) {
  auto changed = [](std::string t, const std::string& from, const std::string& to) {
    return t.replace(t.find(from), from.size(), to);
  };
  struct Case {
    std::string text;
    bool ok;
    std::string why;  // the start of the reason
  } cases[] = {
      {"Some words before.\r\n" + kBinhex, true, ""},
      {changed(kBinhex, "XC!T", "XC!U"), false, "CRC error"},         // a changed byte in the data
      {changed(kBinhex, ":$5iZ", ":$5jZ"), false, "CRC error"},       // in the header
      {changed(kBinhex, "MlF:", "MlF"), false, "Unexpected end"},     // no closing colon
      {changed(kBinhex, "Eh*", "Eo*"), false, "bad char: 'o'"},      // 'o' is not in the alphabet
      {changed(kBinhex, "(This file", "(That file"), false, "No BinHex"},
      {"(This file\n:!!!!:\n", false, "The BinHex header"},           // a name of length 0
      {"(This file\n:\"3!!:\n", false, "Unexpected end"},           // a name of 5, then nothing
  };
  for (const Case& c : cases) {
    std::string out = "stale", name, why;
    EXPECT_EQ(AttachBinhexDecode(c.text, &out, &name, &why), c.ok) << c.text;
    if (c.ok) {
      EXPECT_EQ(out, kBinhexData);
      EXPECT_EQ(name, "report.txt");
    } else {
      EXPECT_EQ(why.rfind(c.why, 0), 0u) << why;
      EXPECT_EQ(out, "");
    }
  }
}

class AttachOptionsTest : public ModelTest {};

TEST_F(AttachOptionsTest, HelpersAreFoundByTypeThenByExtension) {
  const std::pair<const char*, const char*> options[] = {
      {"Viewers.IDLIST", "1 2 3 5"},
      {"Viewers.1.Name", "Images"},         {"Viewers.1.WinCommand", "eog"},
      {"Viewers.1.MimeList", "1 2"},        {"Viewers.1.MimeType.1.Name", "image/png"},
      {"Viewers.1.MimeType.2.Name", "image/*"},
      {"Viewers.2.Name", "Gimp"},           {"Viewers.2.WinCommand", "gimp"},
      {"Viewers.2.MimeList", "1"},          {"Viewers.2.MimeType.1.Name", "IMAGE/*"},
      {"Viewers.3.Name", "Reader"},         {"Viewers.3.WinCommand", "evince"},
      {"Viewers.3.MimeList", "1"},          {"Viewers.3.MimeType.1.Name", "application/pdf"},
      {"Viewers.3.MimeType.1.WinExtensions", "pdf .PS"},
      {"Viewers.5.Name", "Pdf too"},        {"Viewers.5.WinCommand", "okular"},
      {"Viewers.5.MimeList", "x 1"},        {"Viewers.5.MimeType.1.Name", "application/pdf"},
  };
  for (const auto& [k, v] : options) Opt_AssignString(k, v, kOptSession, 0);
  struct Case {
    const char* mime;
    const char* file;
    int want;
    size_t candidates;
  } cases[] = {
      {"image/png", "a.png", 1, 1},             // exact beats the partial matches
      {"image/gif", "a.gif", kHelperSeveral, 2},
      {"application/pdf", "a.pdf", kHelperSeveral, 2},
      {"application/octet-stream", "scan.ps", 3, 1},
      {"application/octet-stream", "scan.", kHelperNone, 0},  // a dot with nothing behind it
      {"application/octet-stream", "scan", kHelperNone, 0},
      {"audio/ogg", "a.ogg", kHelperNone, 0},
  };
  for (const Case& c : cases) {
    std::vector<HelperEntry> found;
    EXPECT_EQ(AttachFindHelper(c.mime, c.file, &found), c.want) << c.mime << " " << c.file;
    EXPECT_EQ(found.size(), c.candidates) << c.mime << " " << c.file;
  }
  // A new helper takes the next number and is found at once; octet-stream records no type.
  EXPECT_EQ(AttachAddHelper("Player", "mpv", "audio/ogg", "ogg"), 6);
  EXPECT_EQ(AttachFindHelper("audio/ogg", "x.ogg", nullptr), 6);
  EXPECT_EQ(Opt_LookupText("Viewers.IDLIST", kOptPermanent), "1 2 3 5 6");
  EXPECT_EQ(AttachAddHelper("Hex", "ghex", "application/octet-stream", ""), 7);
  EXPECT_EQ(Opt_LookupText("Viewers.7.MimeList", kOptSession), "");
}

TEST_F(AttachOptionsTest, ARealHelperRunsWithTheFileAndIsReaped) {
  const std::string script = home_ + "/helper with blank.sh";
  const std::string out = home_ + "/argv.txt";
  std::ofstream(script) << "#!/bin/sh\nfor a in \"$0\" \"$@\"; do printf '%s\\n' \"$a\"; done > '" + out + "'\n";
  ASSERT_EQ(::chmod(script.c_str(), 0700), 0);
  const std::string file = AttachWriteTempFile("it's a file.txt", "data");
  ASSERT_FALSE(file.empty());
  std::string error;
  const int pid = AttachSpawn(AttachHelperArgv(script, file), &error);
  ASSERT_GT(pid, 0) << error;
  // The child ends by itself; the sweep takes it.
  int reaped = 0;
  for (int i = 0; i < 200 && !reaped; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    reaped = AttachReapChildren();
  }
  EXPECT_EQ(reaped, 1);
  EXPECT_EQ(ReadFile(out), script + "\n" + file + "\n");
  EXPECT_LT(AttachSpawn({"/no/such/helper", file}, &error), 0);
  EXPECT_FALSE(error.empty());
  AttachRemoveTempDir();
  struct stat st;
  EXPECT_NE(::stat(file.c_str(), &st), 0);
}

TEST_F(AttachOptionsTest, ProgramsAndScriptsAreNeverHandedToTheOpener) {
  struct Case {
    const char* name;
    const char* content;
    bool executable;
  } cases[] = {
      {"notes.txt", "hello", false},  {"run.desktop", "[Desktop Entry]", true}, {"a.SH", "echo", true},
      {"photo.jpg", "#!/bin/sh\nrm", true}, {"doc.pdf", "\x7f" "ELF....", true}, {"setup.EXE", "MZ", true},
      {"noext", "plain", false},
  };
  for (const Case& c : cases) {
    const std::string path = home_ + "/" + c.name;
    std::ofstream(path) << c.content;
    EXPECT_EQ(AttachLooksExecutable(path), c.executable) << c.name;
  }
}

}  // namespace
