// The same rules over the same 2,000 generated messages in a local folder
// (searched here) and in a private Dovecot (searched by the server) find
// the same messages.
#include <gtest/gtest.h>
#include <iconv.h>

#include <ctime>

#include "c-client/net/tcp.h"
#include "c-client/rfc822/strsrc.h"
#include "src/options/options.h"
#include "src/search/search_rules.h"
#include "src/search/search_run.h"
#include "tests/c-client/imap/dovecot_peer.h"
#include "tests/model/imap_service_fixture.h"
#include "tests/model/model_fixture.h"
#include "tests/search/base64_lines.h"

namespace {

const char* const kNames[] = {"Ann Lee", "Bob", "Zoë Ünal", "Carol \"CJ\" Jones", "Dmitri Ивanov"};
const char* const kWords[] = {"budget", "Été", "ÉTÉ", "plan", "50% * off", "C:\\dir\\", "Привет", "report",
                              "a|b", "straße", "say \"hi\""};
const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr"};

struct Generated {
  std::string raw, flags;
};

// Quoted-printable with a soft line break every `every` characters, so
// that words are cut across encoded lines.
std::string QuotedPrintable(const std::string& in, size_t every) {
  std::string out;
  size_t column = 0;
  for (size_t i = 0; i < in.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(in[i]);
    if (c == '\r' && i + 1 < in.size() && in[i + 1] == '\n') {
      out += "\r\n";
      ++i;
      column = 0;
      continue;
    }
    if (column >= every) {
      out += "=\r\n";
      column = 0;
    }
    if (c >= 0x80 || c == '=') {
      static const char* kHex = "0123456789ABCDEF";
      out += '=';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    } else {
      out += static_cast<char>(c);
    }
    ++column;
  }
  return out;
}

// The text in a one-byte charset; characters it lacks become '?'.
std::string Recode(const std::string& utf8, const char* charset) {
  iconv_t cd = iconv_open(charset, "UTF-8");
  std::string out(utf8.size(), '\0');
  char* in = const_cast<char*>(utf8.data());
  char* to = out.data();
  size_t in_left = utf8.size(), out_left = out.size();
  while (in_left && iconv(cd, &in, &in_left, &to, &out_left) == static_cast<size_t>(-1)) {
    *to++ = '?';
    --out_left;
    size_t skip = 1;  // the character's continuation bytes go with it
    while (skip < in_left && (in[skip] & 0xC0) == 0x80) ++skip;
    in += skip;
    in_left -= skip;
  }
  iconv_close(cd);
  out.resize(out.size() - out_left);
  return out;
}

Generated Make(int i) {
  unsigned x = static_cast<unsigned>(i) * 2654435761u;
  auto pick = [&x](size_t n) {
    x = x * 1103515245u + 12345u;
    return (x >> 16) % n;
  };
  const std::string day = std::to_string(1 + pick(28)) + " " + kMonths[pick(4)] + " 2024";
  Generated g;
  g.raw = "From: " + std::string(kNames[pick(5)]) + " <u" + std::to_string(pick(50)) + "@example.org>\r\n" +
          "To: team" + std::to_string(pick(3)) + "@example.org\r\n" + "Subject: " + kWords[pick(11)] + " " +
          std::to_string(i) + "\r\n" + "Date: Mon, " + day + " 12:00:00 +0000\r\n" +
          (pick(3) == 0 ? "Comments: " + std::string(kWords[pick(11)]) + "\r\n" : "") + "MIME-Version: 1.0\r\n";
  std::string text;
  for (size_t l = 0, n = 1 + pick(30); l < n; ++l) text += std::string(kWords[pick(11)]) + " line\r\n";
  // The body as senders write it: 8-bit, base64 or quoted-printable, in
  // UTF-8 or a one-byte charset, alone or with an attachment that holds
  // words of its own.
  const char* const charsets[] = {"utf-8", "iso-8859-1", "koi8-r"};
  const char* charset = charsets[pick(3)];
  const std::string bytes = std::string(charset) == "utf-8" ? text : Recode(text, charset);
  std::string part = "Content-Type: text/plain; charset=" + std::string(charset) + "\r\n";
  switch (pick(4)) {
    case 0:
      part += "Content-Transfer-Encoding: 8bit\r\n\r\n" + bytes;
      break;
    case 1:
      part += "Content-Transfer-Encoding: base64\r\n\r\n" + Base64(bytes, 4 + 4 * pick(19));
      break;
    default:
      part += "Content-Transfer-Encoding: quoted-printable\r\n\r\n" + QuotedPrintable(bytes, 3 + pick(70));
      break;
  }
  if (pick(3) == 0) {
    const std::string attached = std::string(kWords[pick(11)]) + " attachword " + kWords[pick(11)];
    g.raw += "Content-Type: multipart/mixed; boundary=\"=b\"\r\n\r\nA multi-part message: preamble\r\n--=b\r\n" +
             part + "\r\n--=b\r\nContent-Type: application/octet-stream\r\n" +
             (pick(2) ? "Content-Transfer-Encoding: base64\r\n\r\n" + Base64(attached, 76)
                      : "\r\n" + attached + "\r\n") +
             "--=b--\r\nepilogue\r\n";
  } else {
    g.raw += part;
  }
  const char* const flags[] = {"", "\\Seen", "\\Flagged", "\\Seen \\Answered", "\\Deleted", "\\Draft", "\\Answered"};
  g.flags = flags[pick(7)];
  return g;
}

using SearchPeer = ImapServiceOnDemandTest<ModelTest>;

TEST_F(SearchPeer, SameRulesSameMessagesLocallyAndOnTheServer) {
  const int remote = RemoteService();
  ASSERT_NE(remote, INVALID_SERVICE) << "no Dovecot (package dovecot-imapd)";

  // One remote stream for all the appends; the local folder by the driver.
  const int inbox = MM_FolOpen(remote, "INBOX");
  ASSERT_NE(inbox, INVALID_FOLDER) << Posts();
  MailStream* up = MM_FolStream(inbox);
  ASSERT_TRUE(mail_create(nullptr, "Gen"));
  const int kCount = 2000;
  for (int i = 1; i <= kCount; ++i) {
    Generated g = Make(i);
    for (MailStream* s : {static_cast<MailStream*>(nullptr), up}) {
      StringSource source;
      string_init(&source, &mail_string, g.raw.data(), g.raw.size());
      ASSERT_TRUE(mail_append(s, s ? up->mailbox : "Gen", g.flags.empty() ? nullptr : ("(" + g.flags + ")").c_str(),
                              nullptr, &source)) << i;
    }
  }
  MM_FolClose(inbox, 1);

  char today[16];
  const time_t now = time(nullptr);
  strftime(today, sizeof today, "%d/%m/%Y", localtime(&now));
  // Each rule as a user builds it, through the phrase builder.
  struct Phrase {
    const char *attribute, *criterion;
    SRCH_Value value;
  };
  auto T = [](const char* t, const char* t2 = "") { return SRCH_Value{kSrchValText, 0, 0, t, t2}; };
  const std::vector<std::vector<Phrase>> rules = {
      {{"Subject", "contains", T("été")}},
      {{"Subject", "contains", T("STRAßE")}},
      {{"Subject", "contains", T("SAY \"HI\"")}},
      {{"Subject", "contains", T("привет")}},
      {{"From", "contains", T("zoë ünal")}},
      {{"From", "contains", T("cj")}},
      {{"Body", "contains", T("C:\\dir\\")}},
      {{"Body", "contains", T("budget")}},
      {{"Body", "contains", T("ПРИВЕТ")}},
      {{"Body", "contains", T("straße line")}},
      {{"Body", "contains", T("été line")}},
      {{"Header or Body", "contains", T("report line")}},
      {{"Body", "contains", T("attachword")}},
      {{"Body", "contains", T("preamble")}},
      {{"Body", "contains", T("epilogue")}},
      {{"Body", "contains", T("50% * off")}, {"Read", nullptr, {}}},
      {{"Header or Body", "contains", T("a|b")}},
      {{"Comments", "contains", T("plan")}},
      {{"Header", "doesn't contain in ", T("To", "team1")}, {"Marked Special", nullptr, {}}},
      {{"Date Sent", "before", T("10/02/2024")}},
      {{"Date Sent", "on", T("15/03/2024")}},
      // Both stores take the arrival time as the received date.
      {{"Date Received", "on", T(today)}},
      {{"Date Received", "before", T(today)}},
      {{"Size", "is in range", SRCH_Value{kSrchValSize, 400, 800, "", ""}}},
      {{"Size", "is not larger than", SRCH_Value{kSrchValSize, 300, 0, "", ""}}},
      {{"Not Deleted", nullptr, {}}, {"Draft", nullptr, {}}},
      {{"Unread", nullptr, {}}, {"Replied To", nullptr, {}}},
      {{"Keyword", "has", SRCH_Value{kSrchValKeyword, 0, 0, "flag1", ""}}},
      {{"Keyword", "doesn't have", SRCH_Value{kSrchValKeyword, 0, 0, "flag1", ""}}, {"To", "contains", T("TEAM2")}},
  };
  for (size_t r = 0; r < rules.size(); ++r) {
    std::vector<std::string> keys;
    for (const Phrase& p : rules[r]) {
      std::string display, key;
      ASSERT_TRUE(SRCH_AddPhrase(kSearchMessages, p.attribute, p.criterion, p.value, &display, &key)) << p.attribute;
      keys.push_back(key);
    }
    ASSERT_TRUE(SRCH_AddRuleByName(kOptSession, "IMAP", ("R" + std::to_string(r)).c_str(),
                                   SRCH_JoinRule(keys).c_str(), "Message"));
  }

  size_t total = 0;
  for (size_t r = 0; r < rules.size(); ++r) {
    const std::string name = "R" + std::to_string(r);
    std::string program;
    SRCH_GetRuleByName("IMAP", name.c_str(), &program, nullptr);
    auto numbers = [&](int ms, const char* folder) {
      SrchRun run;
      EXPECT_EQ(SRCH_RunRules({name}, {{ms, folder}}, &run), 1) << name << " " << folder;
      std::vector<unsigned long> out;
      for (UMI u : run.found) out.push_back(MM_UMIMsgno(u));
      SRCH_RunClose(&run);
      return out;
    };
    const std::vector<unsigned long> local = numbers(local_, "Gen");
    const std::vector<unsigned long> server = numbers(remote, "INBOX");
    EXPECT_EQ(local, server) << program;
    // A rule that finds nothing or everything proves little.
    const bool degenerate = program.find("flag1") != std::string::npos || program.find("ON ") == 0 ||
                            program.find("BEFORE ") == 0 || program.find("attachword") != std::string::npos ||
                            program.find("preamble") != std::string::npos ||
                            program.find("epilogue") != std::string::npos;
    if (!degenerate) {
      EXPECT_GT(local.size(), 0u) << program;
      EXPECT_LT(local.size(), static_cast<size_t>(kCount)) << program;
    }
    total += local.size();
  }
  EXPECT_GT(total, 1000u);
}

// A search the server refuses is reported, not taken as "nothing found".
TEST_F(SearchPeer, RefusedSearchesAreReported) {
  const int remote = RemoteService();
  ASSERT_NE(remote, INVALID_SERVICE) << "no Dovecot (package dovecot-imapd)";
  const int inbox = MM_FolOpen(remote, "INBOX");
  ASSERT_NE(inbox, INVALID_FOLDER) << Posts();
  const std::pair<const char*, int> cases[] = {
      {"CHARSET UTF-8 SUBJECT \"été\"", 1},
      {"CHARSET X-NO-SUCH-SET SUBJECT \"x\"", 0},  // NO [BADCHARSET]
      {"FROB 1", 0},                                // BAD
      {"ALL", 1},
  };
  for (const auto& [program, ok] : cases) EXPECT_EQ(MM_FolSearch(inbox, program), ok) << program;
  MM_FolClose(inbox, 0);

  ASSERT_TRUE(SRCH_AddRuleByName(kOptSession, "IMAP", "Bad", "FROB 1", "Message"));
  ASSERT_TRUE(SRCH_AddRuleByName(kOptSession, "IMAP", "Good", "SUBJECT \"été\"", "Message"));
  SrchRun run;
  EXPECT_EQ(SRCH_RunRules({"Good", "Bad"}, {{remote, "INBOX"}}, &run), 0);
  EXPECT_EQ(run.problems, (std::vector<std::string>{"Rule \"Bad\" in \"INBOX\" could not run"}));
  SRCH_RunClose(&run);
}

}  // namespace
