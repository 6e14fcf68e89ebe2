// The RFC 822 and MIME parser: addresses, the header walk, content headers, body structures, header
// sizes, the limits on hostile input, and the date parsers; the writer, whose messages the parser
// reads back; and the content codecs and header text for display.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "c-client/core/env.h"
#include "c-client/core/mail.h"
#include "c-client/core/plain_env.h"
#include "tests/c-client/core/env_lines.h"
#include "c-client/rfc822/mime_display.h"
#include "c-client/rfc822/rfc822.h"
#include "c-client/rfc822/rfc822_write.h"
#include "c-client/rfc822/strsrc.h"
#include "tests/c-client/core/records_dump.h"

namespace {

// Level-3 warnings since the last call, one a line.
std::string Warnings() {
  std::string out = EnvLogs(3);
  mail_env_clear();
  return out;
}

std::string Field(const char* s) { return s ? s : "-"; }

// An unlinked temporary file holding these bytes, read from the start.
int TempFileWith(const std::string& bytes) {
  char path[] = "/tmp/rfc822_parse_test_XXXXXX";
  int fd = mkstemp(path);
  unlink(path);
  EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  lseek(fd, 0, SEEK_SET);
  return fd;
}

// A list as "personal|adl|mailbox|host" records; "-" for null.
std::string Render(const MailAddress* list) {
  std::string out;
  for (const MailAddress* a = list; a; a = a->next)
    out += (out.empty() ? "" : " ; ") + Field(a->personal) + "|" + Field(a->adl) + "|" + Field(a->mailbox) + "|" +
           Field(a->host);
  return out;
}

size_t Count(const MailAddress* a) { return a ? 1 + Count(a->next) : 0; }

TEST(Rfc822Address, Table) {
  struct Case { const char *text, *list, *warnings, *host = "dflt"; } cases[] = {
      {"a@b c@d", "-|-|a|b", "Must use comma to separate addresses: c@d\n"}, {"user", "-|-|user|dflt", ""},
      {"user@", "-|-|user|dflt", "Missing or invalid host name after @\n"}, {"a@b,,, ,c@d", "-|-|a|b ; -|-|c|d", ""},
      {"root@[IPv6:2001:db8::1]", "-|-|root|[IPv6:2001:db8::1]", ""},
      {"a @ b . c", "-|-|a|b", "Junk at end of address: . c\n"},
      {"Outer: Inner: a@b;;", "-|-|Outer|- ; -|-|Inner|- ; -|-|a|b ; -|-|-|- ; -|-|-|-", ""},
      {"Open: a@b", "-|-|Open|- ; -|-|a|b ; -|-|-|-", ""},
      {"G: a@b; junk", "-|-|G|- ; -|-|a|b ; -|-|-|- ; -|-|junk|dflt", "Junk at end of group: junk\n"},
      {"<a@b", "-|-|a|b", "Unterminated mailbox: a@b\n"},
      {"<a@", "-|-|a|@", "Missing or invalid host name after @\nUnterminated mailbox: a@<null>\n", "@"},
      {"a@b >junk", "-|-|a|b", "Junk at end of address: >junk\n"}, {"@", "", "Bad mailbox: @\n"},
      {"a@b, \"\"", "-|-|a|b", "Bad mailbox: \"\"\n"}, {"a@b, <@r:>", "-|-|a|b", "Bad mailbox: <@r:>\n"},
      {"a@b, <>", "-|-|a|b ; -|-||", ""}, {"Name <>", "Name|-||", ""},
      {"(unclosed a@b", "", "Unterminated comment: (unclosed a@b\n"},
      {"a@b (x \"y) z", "-|-|a|b", "Unterminated quoted string within comment: (x \"y) z\n"},
      {"=?utf-8?q?J=C3=B6rg?= <j@x>", "=?utf-8?q?J=C3=B6rg?=|-|j|x", ""},
  };
  for (const Case& c : cases) {
    mail_env_clear();
    MailAddress* list = nullptr;
    std::string text = c.text;
    rfc822_parse_adrlist(&list, text.data(), c.host);
    EXPECT_EQ(Render(list), c.list) << c.text;
    EXPECT_EQ(Warnings(), c.warnings) << c.text;
    mail_free_address(&list);
  }
}

TEST(Rfc822Address, AppendsToAListAndKeepsLimits) {
  MailAddress* list = nullptr;
  auto parse = [&](std::string text) { rfc822_parse_adrlist(&list, text.data(), "h"); };
  parse("a@b");
  parse("c@d");
  EXPECT_EQ(Render(list), "-|-|a|b ; -|-|c|d");
  mail_free_address(&list);
  mail_env_clear();
  // A list stops after 10,000 addresses; nested groups are capped, and what was read is kept and closed (32
  // openings, 32 closings).
  std::string many, deep;
  for (int i = 0; i < 10005; ++i) many += "u" + std::to_string(i) + "@h,";
  for (int i = 0; i < 100; ++i) deep += "g" + std::to_string(i) + ": ";
  for (auto [text, count, warning] : {std::tuple{many, 10000u, "Address list longer than 10000 addresses"},
                                      std::tuple{deep, 64u, "Address groups nested too deeply"}}) {
    parse(text);
    EXPECT_EQ(Count(list), count);
    EXPECT_NE(Warnings().find(warning), std::string::npos);
    mail_free_address(&list);
  }
}

unsigned long HeaderEnd(const std::string& text) {
  size_t lf = text.find("\n\n"), crlf = text.find("\r\n\r\n");
  if (crlf != std::string::npos && crlf < lf) return crlf + 4;
  return lf == std::string::npos ? text.size() : lf + 2;
}

// Parses a header block (and a body, when one follows a blank line).
struct Parsed {
  Envelope* env = nullptr;
  BodyPart* body = nullptr;
  std::string text;
  explicit Parsed(const std::string& message) : text(message) {
    unsigned long hs = HeaderEnd(text);
    StringSource s;
    string_init(&s, &mail_string, text.data(), text.size());
    string_setpos(&s, hs);
    std::vector<char> work(kRfc822WorkSize);
    rfc822_parse_msg(&env, &body, text.data(), hs, &s, "local.host", work.data());
  }
  ~Parsed() {
    mail_free_envelope(&env);
    mail_free_body(&body);
  }
};

std::string Params(const BodyPart* b) {
  std::string out;
  for (const BodyParameter* p = b->parameter; p; p = p->next) out += std::string(" ") + p->attribute + "=" + p->value;
  return out;
}

TEST(Rfc822Header, EnvelopeFields) {
  Parsed p("From: A <a@x>\n>From: b@x\nTo: c@x\ncc: d@x,\n e@x\nTO: f@x\nBcc: g\nReply-To: h@x\nSender: i@x\n"
           "Subject:\tfirst\nSubject: second\nDate: Sat, 1 Jan 2000 00:00:00 +0000\nDate: later\n"
           "In-Reply-To: <r@x>\nNewsgroups: comp.mail\nMessage-ID: <m@x>\nSubject : spaced name\nno colon here\n\n");
  ASSERT_NE(p.env, nullptr);
  const Envelope* e = p.env;
  EXPECT_EQ((std::vector<std::string>{Render(e->from), Render(e->to), Render(e->cc), Render(e->bcc),
                                      Render(e->reply_to), Render(e->sender)}),
            (std::vector<std::string>{"A|-|a|x ; -|-|b|x", "-|-|c|x ; -|-|f|x", "-|-|d|x ; -|-|e|x",
                                      "-|-|g|local.host", "-|-|h|x", "-|-|i|x"}));
  EXPECT_EQ((std::vector<std::string>{Field(e->subject), Field(e->date), Field(e->in_reply_to), Field(e->newsgroups),
                                      Field(e->message_id)}),
            (std::vector<std::string>{"first", "Sat, 1 Jan 2000 00:00:00 +0000", "<r@x>", "comp.mail", "-"}))
      << "the first wins; a locally parsed envelope has no Message-ID";
  EXPECT_EQ(e->extra_headers, nullptr);
  // Without Content headers the body is plain text.
  EXPECT_EQ(std::string(body_types[p.body->type]) + "/" + p.body->subtype + Params(p.body),
            "TEXT/PLAIN CHARSET=US-ASCII");
}

TEST(Rfc822Header, ContentHeaders) {
  struct Case { const char *header, *type, *warnings; } cases[] = {  // type: "TYPE/SUBTYPE params encoding"
      {"Content-Type: text/html\n\n", "TEXT/HTML CHARSET=US-ASCII 0", ""},
      {"MIME-Version: 2.0\nContent-Type: image/gif\n\n", "IMAGE/GIF 0", "Warning: message has unknown MIME version\n"},
      {"MIME-Version: RFC-XXXX\nContent-Type: Audio\n\n", "AUDIO/BASIC 0", ""},
      {"Content-Type: model/x; a=1\nContent-Type: text/html\n\n", "X-UNKNOWN/X A=1 0", ""},
      {"Content-Type: text/plain; charset*=utf-8''\n\n", "TEXT/PLAIN CHARSET*=utf-8'' 0", ""},
      {"Content-Type: text/plain; format\n\n", "TEXT/PLAIN FORMAT=UNKNOWN CHARSET=US-ASCII 0",
       "Missing parameter value: FORMAT\n"},
      {"Content-Type: text/plain; name=\n\n", "TEXT/PLAIN NAME=UNKNOWN CHARSET=US-ASCII 0", ""},
      {"Content-Type: text/plain; =x\n\n", "TEXT/PLAIN CHARSET=US-ASCII 0", "Missing parameter\n"},
      {"Content-Type: text/plain charset=x\n\n", "TEXT/PLAIN CHARSET=US-ASCII 0", "Junk at end of parameters: charset=x\n"},
      {"Content-Transfer-Encoding: x-uuencode (comment)\n\n", "TEXT/PLAIN CHARSET=US-ASCII 5", ""},
  };
  for (const Case& c : cases) {
    mail_env_clear();
    Parsed p(c.header);
    EXPECT_EQ(std::string(body_types[p.body->type]) + "/" + p.body->subtype + Params(p.body) + " " +
                  std::to_string(p.body->encoding),
              c.type)
        << c.header;
    EXPECT_EQ(Warnings(), c.warnings) << c.header;
  }
  Parsed p("Content-ID: <one>\nContent-ID: <two>\nContent-Description: first\nContent-Description: second\n\n");
  EXPECT_EQ(Field(p.body->id) + Field(p.body->description), "<one>first");
}

std::string Crlf(const std::string& lf) {
  std::string out;
  for (char c : lf) out += c == '\n' ? "\r\n" : std::string(1, c);
  return out;
}

// Each part as "path TYPE/SUBTYPE params encoding|its text at its offset"; every size must say what it holds. (That
// the raw size agrees, and a file source gives the same, the fuzz target checks.)
void Walk(const BodyPart* b, const std::string& path, unsigned long offset, const std::string& text,
          std::vector<std::string>* out) {
  const std::string part = offset <= text.size() ? text.substr(offset, b->size_bytes) : "<offset out of range>";
  EXPECT_EQ(b->size_lines, static_cast<unsigned long>(std::count(part.begin(), part.end(), '\n'))) << path;
  out->push_back(path + " " + body_types[b->type] + "/" + Field(b->subtype) + Params(b) + " " +
                 std::to_string(b->encoding) + "|" + part);
  int i = 1;
  for (const BodyPartNode* n = b->parts; n; n = n->next, ++i)
    Walk(&n->body, path.empty() ? std::to_string(i) : path + "." + std::to_string(i), n->offset, text, out);
  if (b->msg_body) {
    EXPECT_EQ(b->msg_offset, 0u);
    // An enclosed message's body is the end of the message part.
    Walk(b->msg_body, path + ".body", offset + b->size_bytes - b->msg_body->size_bytes, text, out);
  }
}

TEST(Rfc822Body, NestedStructureInLfAndCrlf) {
  const std::string enclosed =
      "--enc\nContent-Type: image/png; name=\"dot.png\"\nContent-Transfer-Encoding: base64\n\niVBORw0KGgo=\n--enc--";
  const std::string inner_head = "From: c@example.org\nSubject: enclosed\nContent-Type: multipart/mixed; boundary=enc\n\n";
  const std::string alternative = "--inner\nContent-Type: text/plain\n\nplain form\n--inner\nContent-Type: text/html; "
                                  "charset=\"us-ascii\"\n\n<p>html form</p>\n\n--inner--";
  const std::string lf = "Subject: structure\nContent-Type: multipart/mixed; boundary=\"outer\"\n\nA preamble.\n"
                         "--outer\nContent-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: quoted-printable"
                         "\n\nHello =C3=A9\nsecond line\n--outer\nContent-Type: multipart/alternative;\n\tboundary=inner"
                         "\nContent-Description: two\n\t forms\n\n" + alternative + "\n--outer\nContent-Type: "
                         "message/rfc822\n\n" + inner_head + enclosed + "\n--outer--\nepilogue\n";
  const std::vector<std::string> expect = {
      "1 TEXT/PLAIN CHARSET=utf-8 4|Hello =C3=A9\nsecond line",
      "2 MULTIPART/ALTERNATIVE BOUNDARY=inner 0|" + alternative,
      "2.1 TEXT/PLAIN CHARSET=US-ASCII 0|plain form",
      "2.2 TEXT/HTML CHARSET=us-ascii 0|<p>html form</p>\n",
      "3 MESSAGE/RFC822 0|" + inner_head + enclosed,
      "3.body MULTIPART/MIXED BOUNDARY=enc 0|" + enclosed,
      "3.body.1 IMAGE/PNG NAME=dot.png 3|iVBORw0KGgo=",
  };
  for (const std::string& text : {lf, Crlf(lf)}) {
    SCOPED_TRACE(text == lf ? "LF" : "CRLF");
    mail_env_clear();
    Parsed p(text);
    std::vector<std::string> got;
    Walk(p.body, "", HeaderEnd(text), text, &got);
    EXPECT_EQ(Warnings(), "");
    ASSERT_EQ(got.size(), expect.size() + 1);
    EXPECT_EQ(got[0], " MULTIPART/MIXED BOUNDARY=outer 0|" + text.substr(HeaderEnd(text)));
    for (size_t i = 0; i < expect.size(); ++i) EXPECT_EQ(got[i + 1], text == lf ? expect[i] : Crlf(expect[i]));
  }
  Parsed p(lf);
  const BodyPart* message = &p.body->parts->next->next->body;
  ASSERT_NE(message->msg_env, nullptr);
  EXPECT_EQ(Field(p.body->parts->next->body.description) + "|" + Field(message->msg_env->subject) + "|" +
                Render(message->msg_env->from),
            "two\t forms|enclosed|-|-|c|example.org")
      << "part headers unfold as the message's do";
}

// One-level multiparts: each case lists the expected part texts. (Prefixes of the boundary, blanks after it and a
// nested encoding are in the corpus of the differential test against a real server.)
TEST(Rfc822Body, DelimiterRules) {
  const std::string longb(201, 'q');
  const struct {
    const char* name;
    std::string message;  // after "MIME-Version: 1.0\nContent-Type: multipart/"
    std::vector<std::string> parts;  // "TYPE/SUBTYPE:text"
    const char* warnings;
  } cases[] = {
      {"no boundary takes -", "mixed\n\n---\nContent-Type: text/plain\n\nx\n---\n\ny\n-----\n",
       {"TEXT/PLAIN:x", "TEXT/PLAIN:y"}, ""},
      {"boundary in continuations", "signed; boundary*0=\"ab\";\n boundary*1=c\n\n--abc\n\nx\n--abc--\n",
       {"TEXT/PLAIN:x"}, ""},
      {"boundary in the extended form", "signed; BOUNDARY*=us-ascii'en'a%3Db\n\n--a=b\n\ny\n--a=b--\n",
       {"TEXT/PLAIN:y"}, ""},
      {"boundary decoding to a line break counts as absent",
       "mixed; boundary*=''a%0A\n\n--a\n\nno\n---\n\ndash\n-----\n", {"TEXT/PLAIN:dash"}, ""},
      {"boundary too long counts as absent", "mixed; boundary=" + longb + "\n\n--" + longb + "\n\nwrong\n---\n\ndash\n-----\n",
       {"TEXT/PLAIN:dash"}, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    mail_env_clear();
    Parsed p("MIME-Version: 1.0\nContent-Type: multipart/" + c.message);
    std::vector<std::string> got;
    for (const BodyPartNode* n = p.body->parts; n; n = n->next)
      got.push_back(std::string(body_types[n->body.type]) + "/" + n->body.subtype + ":" +
                    p.text.substr(n->offset, n->body.size_bytes));
    EXPECT_EQ(got, c.parts);
    EXPECT_EQ(Warnings(), c.warnings);
  }
  Parsed enc("MIME-Version: 1.0\nContent-Type: message/rfc822\nContent-Transfer-Encoding: base64\n\nU3ViamVjdDogeA==\n");
  EXPECT_EQ(enc.body->msg_body, nullptr);
  EXPECT_EQ(Warnings(), "Nested encoding of message contents\n");
}

TEST(Rfc822Body, DepthCapKeepsDeepPartsOpaque) {
  for (bool messages : {false, true}) {
    SCOPED_TRACE(messages ? "message/rfc822" : "multipart");
    std::string text = "MIME-Version: 1.0\n", tail;
    for (int i = 0; i < 60; ++i) {
      const std::string b = "b" + std::to_string(i);
      text += messages ? "Content-Type: message/rfc822\n\nMIME-Version: 1.0\n"
                       : "Content-Type: multipart/mixed; boundary=" + b + "\n\n--" + b + "\n";
      if (!messages) tail = "\n--" + b + "--" + tail;
    }
    Parsed p(text + "Content-Type: text/plain\n\ndeep" + tail + "\n");
    int depth = 0;
    const BodyPart* b = p.body;
    while (const BodyPart* next = messages ? b->msg_body : (b->parts ? &b->parts->body : nullptr)) {
      b = next;
      ++depth;
    }
    EXPECT_EQ(depth, kRfc822MaxDepth);
    EXPECT_EQ(b->type, messages ? TYPEMESSAGE : TYPEMULTIPART) << "the deepest container stays what it says";
    EXPECT_NE(b->size_bytes, 0u);
  }
}

TEST(Rfc822Body, HostileSizesStayLinear) {
  const auto t0 = std::chrono::steady_clock::now();
  // A megabyte of empty parts: the part count is capped, and the last part keeps the rest.
  std::string text = "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=b\n\n";
  while (text.size() < (1u << 20)) text += "--b\n";
  mail_env_clear();
  {
    Parsed p(text);
    unsigned long n = 0;
    const BodyPartNode* last = nullptr;
    for (const BodyPartNode* node = p.body->parts; node; node = node->next, ++n) last = node;
    EXPECT_EQ(n, 10000u);
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(last->offset + last->body.size_bytes, text.size());
  }
  EXPECT_NE(Warnings().find("Multipart has too many parts"), std::string::npos);

  // Many address headers of one kind append without walking the list; a line over 64 KB is cut.
  std::string header;
  while (header.size() < (1u << 20)) header += "To: a@b\n";
  {
    Parsed p(header + "Subject: " + std::string(70000, 'x') + "\n\n");
    EXPECT_EQ(Count(p.env->to), 10000u);
    EXPECT_EQ(std::strlen(p.env->subject), 65536u - std::strlen("SUBJECT: "));
    EXPECT_NE(Warnings().find("Header line longer than 64 KB, cut"), std::string::npos);
  }

  // A fault every few bytes gives a bounded number of warnings.
  std::string faults;
  while (faults.size() < 100000) faults += "Cc: a@b >x\n";
  { Parsed p(faults + "\n"); }
  EXPECT_EQ(EnvLines("log").size(), 101u);
  EXPECT_EQ(mail_env_lines().back().text, "Too many faults in this text: further parser warnings suppressed");
  mail_env_clear();
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(10));
}

TEST(StringSource, FileAndMemoryAgreeAcrossChunks) {
  std::string text;
  for (int i = 0; i < 30000; ++i) text += static_cast<char>('a' + (i * 7) % 26);
  FileText ft{};
  ft.fd = TempFileWith("xyz" + text);
  ft.start = 3;
  StringSource f, m;
  string_init(&f, &file_string, &ft, text.size());
  string_init(&m, &mail_string, text.data(), text.size());
  for (unsigned long pos : {0ul, 8191ul, 8192ul, 20000ul, 100ul, 29999ul}) {
    string_setpos(&f, pos);
    string_setpos(&m, pos);
    for (int k = 0; k < 9000; ++k) {
      ASSERT_EQ(string_next(&f), string_next(&m)) << pos << "+" << k;
      ASSERT_EQ(string_getpos(&f), string_getpos(&m));
    }
  }
  EXPECT_EQ(string_remaining(&f), 0u);
  // A file shorter than said: the text ends where the file does.
  mail_env_clear();
  string_init(&f, &file_string, &ft, text.size() + 100);
  string_setpos(&f, text.size() - 1);
  EXPECT_EQ(string_next(&f), text.back());
  EXPECT_EQ(string_next(&f), '\0');
  EXPECT_EQ(string_remaining(&f), 0u);
  ASSERT_FALSE(mail_env_lines().empty());
  EXPECT_NE(mail_env_lines().back().text.find("Message text unreadable"), std::string::npos);
  close(ft.fd);
}

TEST(Rfc822HeaderSize, ExactBytesOfTheHeader) {
  const std::pair<std::string, long> cases[] = {
      {"A: 1\r\nB: 2\r\n\r\nbody\r\n", 14}, {"A: 1\nB: 2\n\nbody\n", 11}, {"A: 1\n \t \nbody\n", 9},
      {"A: 1\nB: 2\n", 10}, {"", 0}, {"\nbody", 1}, {std::string(20000, 'x') + "\n\nbody", 20002}};
  for (const auto& [file, size] : cases) {
    int fd = TempFileWith(file);
    EXPECT_EQ(rfc822_header_size(fd), size) << file.substr(0, 20);
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 0) << "the position is left alone";
    close(fd);
  }
  mail_env_clear();
  int fd = open("/tmp", O_RDONLY | O_DIRECTORY);
  EXPECT_EQ(rfc822_header_size(fd), -1);
  close(fd);
  EXPECT_EQ(EnvLogs(2).rfind("Failed in read of MH message file:  ", 0), 0u);
}

// The date parsers: the strict one of internal dates (with its zone table and sign quirk), the free one of Date
// headers, and the ordering of Date headers in time.

// The strict parser on a fresh element: "refused" or the date as "yyyy-mm-dd hh:mm:ss +hhmm".
std::string Strict(const char* text, bool west_before = false) {
  MessageElt elt{};
  elt.zone_west = west_before;
  if (!mail_parse_date(&elt, text)) return "refused";
  char out[64];
  std::snprintf(out, sizeof out, "%04u-%02u-%02u %02u:%02u:%02u %c%02u%02u", elt.year + 1969u, elt.month, elt.day,
                elt.hours, elt.minutes, elt.seconds, elt.zone_west ? '-' : '+', elt.zone_hours, elt.zone_minutes);
  return out;
}

// The machine's zone for the duration of a test.
struct ZoneGuard {
  const char* old = std::getenv("TZ");  // only whether there was one
  std::string saved = old ? old : "";
  explicit ZoneGuard(const char* tz) {
    setenv("TZ", tz, 1);
    tzset();
  }
  ~ZoneGuard() {
    old ? setenv("TZ", saved.c_str(), 1) : unsetenv("TZ");
    tzset();
  }
};

TEST(MailParseDate, Table) {
  ZoneGuard tz("<+0330>-3:30");  // a machine at +03:30
  const std::pair<const char*, const char*> cases[] = {
      {"1-Jan-70 00:00:00 +0000", "1970-01-01 00:00:00 +0000"}, {"1/2/97", "1997-01-02 00:00:00 +0000"},
      {"17-Jul-1996 02:44:25 -0700", "1996-07-17 02:44:25 -0700"},
      {" 5-Mar-2001 23:59:59 +0930", "2001-03-05 23:59:59 +0930"},
      {"Mon, 13 Dec 1997 10:00:00 +0100", "1997-12-13 10:00:00 +0100"}, {"13 dec 1997", "1997-12-13 00:00:00 +0000"},
      {"1-Jan-68 00:00:00 +0000", "2068-01-01 00:00:00 +0000"},
      {"1-Jan-69 00:00:00 +0000", "1969-01-01 00:00:00 +0000"},
      {"1-Jan-99 00:00:00 +0000", "1999-01-01 00:00:00 +0000"},
      {"1-Jan-1969 00:00:00 -0000", "1969-01-01 00:00:00 -0000"},
      {"29-Feb-2000 12:00:00 +0000", "2000-02-29 12:00:00 +0000"},
      // Refused.
      {"1-Jan-100 00:00:00 +0000", "refused"}, {"Sat, 1 Jan 2000 00:00:00 PST", "refused"},
      {"1/2/97 10:00:00", "refused"}, {"1-Jan-2000 10:00", "refused"}, {"1-Jan-2000 10:00:00 +05", "refused"},
      {"1-Jan-2000 10:00:00 +05000", "refused"}, {"1-Jan-2000 10:00:00-ESTX", "refused"},
      {"1-Jan-2000 24:00:00 +0000", "refused"}, {"32-Jan-2000", "refused"}, {"29-Feb-2001", "refused"},
      {"1-Foo-2000", "refused"}, {"1-Jan-1968", "refused"}, {"1-Jan-2097", "refused"}, {"13/1/2000", "refused"},
      {"Xyz, 1-Jan-2000", "refused"}, {"", "refused"}, {"1 Jan", "refused"},
  };
  for (const auto& [text, want] : cases) EXPECT_EQ(Strict(text), want) << text;
  // The local drivers' "-ZONE" form, on a fresh element and on one whose last date was west: east zones, Greenwich
  // and A to M leave the sign bit as it was; J, P and names not in the table take the machine's offset.
  const struct { const char *zone, *fresh, *west; } zones[] = {
      {"EST", "-0500", "-0500"}, {"pdt", "-0700", "-0700"}, {"BST", "-1100", "-1100"}, {"GMT", "+0000", "-0000"},
      {"UT", "+0000", "-0000"},  {"JST", "+0900", "-0900"}, {"MET", "+0100", "-0100"}, {"A", "+0100", "-0100"},
      {"I", "+0900", "-0900"},   {"K", "+1000", "-1000"},   {"M", "+1200", "-1200"},   {"N", "-0100", "-0100"},
      {"Y", "-1200", "-1200"},   {"Z", "+0000", "-0000"},   {"J", "+0330", "+0330"},   {"P", "+0330", "+0330"},
      {"XYZ", "+0330", "+0330"},
  };
  for (const auto& z : zones) {
    const std::string text = std::string("12-Dec-1997 10:00:00-") + z.zone;
    EXPECT_EQ(Strict(text.c_str()), std::string("1997-12-12 10:00:00 ") + z.fresh) << text;
    EXPECT_EQ(Strict(text.c_str(), true), std::string("1997-12-12 10:00:00 ") + z.west) << text << " (west before)";
  }
  EXPECT_EQ(Strict("12-Dec-1997 10:00:00 +0100", true), "1997-12-12 10:00:00 +0100");
}

TEST(MailParseDate, MachineOffsetIsBounded) {
  for (auto [zone, want] :
       {std::pair{"<+14>-14", "2000-01-01 00:00:00 +1200"}, {"<-0230>2:30", "2000-01-01 00:00:00 -0230"}}) {
    ZoneGuard tz(zone);
    EXPECT_EQ(Strict("1-Jan-2000 00:00:00-J"), want) << zone;
  }
}

TEST(MailParseDate, RefusalLeavesTheElementAlone) {
  MessageElt elt{};
  ASSERT_EQ(mail_parse_date(&elt, "2-Feb-2002 02:02:02 +0200"), 1);
  MessageElt before = elt;
  EXPECT_EQ(mail_parse_date(&elt, "3-Mar-2003 03:03:03 PST"), 0);
  EXPECT_EQ(std::memcmp(&before, &elt, sizeof elt), 0);
}

std::string Free(const char* text) {
  DateFields f;
  parse_date_fields(text, &f);
  char out[128];
  std::snprintf(out, sizeof out, "wd=%d %d/%d/%d %d:%d:%d zone=%d %s", f.weekday, f.year, f.month, f.day, f.hour,
                f.minute, f.second, f.zone_minutes, f.zone_name);
  return out;
}

TEST(ParseDateFields, Table) {
  const std::pair<const char*, const char*> cases[] = {
      {"Sat, 1 Jan 2000 00:00:00 PST", "wd=6 2000/1/1 0:0:0 zone=-480 PST"},
      {"Tue, 04 Feb 1997 17:53:24 -0500 (EST)", "wd=2 1997/2/4 17:53:24 zone=-300 -0500"},
      {"4 Feb 97 17:53 +0530", "wd=-1 1997/2/4 17:53:-1 zone=330 +0530"},
      {"Feb 4, 1997 5:06:07 edt", "wd=-1 1997/2/4 5:6:7 zone=-240 edt"},
      {"12-Dec-49 10:00:00 ist", "wd=-1 2049/12/12 10:0:0 zone=120 ist"},
      {"12-Dec-50 10:00:00 JST", "wd=-1 1950/12/12 10:0:0 zone=540 JST"},
      {"thursday, 1 jan 1998 10:00:00 Europe/Paris", "wd=4 1998/1/1 10:0:0 zone=0 ???"},
      {"Sat Jan  1 10:20:30 2000", "wd=6 2000/1/1 10:20:30 zone=0 ???"},
      {"1 Jan 2000 10:00:00 UT", "wd=-1 2000/1/1 10:0:0 zone=0 ???"},
      {"", "wd=-1 -1/-1/-1 -1:-1:-1 zone=0 ???"}, {"garbage", "wd=-1 -1/-1/-1 -1:-1:-1 zone=0 ???"},
      {"99999999999999999999 Jan 1", "wd=-1 2001/1/999999999 -1:-1:-1 zone=0 ???"},
  };
  for (const auto& [text, want] : cases) EXPECT_EQ(Free(text), want) << text;
  EXPECT_EQ(Free(nullptr), "wd=-1 -1/-1/-1 -1:-1:-1 zone=0 ???");
}

TEST(CompareMessageDates, Table) {
  const struct { const char *a, *b; int want; } cases[] = {
      {nullptr, nullptr, 0}, {nullptr, "Sat, 1 Jan 2000 00:00:00 +0000", -1},
      {"Sat, 1 Jan 2000 00:00:00 PST", "Sat, 1 Jan 2000 08:00:00 GMT", 0},
      {"Sat, 1 Jan 2000 00:00:00 -0800", "Sat, 1 Jan 2000 08:00:01 +0000", -1},
      {"Sat, 1 Jan 2000 00:30:00 +0100", "Fri, 31 Dec 1999 23:29:59 +0000", 1},
      {"1 Mar 2000 00:00:00 +0000", "29 Feb 2000 23:59:59 -0000", 1},
      {"Tue, 04 Feb 1997 17:53:24 -0500", "Tue, 04 Feb 1997 22:53:24 +0000", 0},
      {"1 Jan 2000", "2 Jan 2000", -1}, {"garbage", "1 Jan 1970", -1},
      {"1 Jan 1999 10:00:00 ist", "1 Jan 1999 08:00:00 gmt", 0},
  };
  for (const auto& c : cases)  // that the order is antisymmetric, the fuzz target checks
    EXPECT_EQ(compare_message_dates(c.a, c.b), c.want) << (c.a ? c.a : "null") << " / " << (c.b ? c.b : "null");
}

// Writing addresses, headers and part headers, encoding a body tree for sending, and writing whole messages that
// the parser reads back.
// One address in a compact form: "personal|adl|mailbox|host", with "-" for a null field; "G:name" opens a group and
// ";" closes it.
MailAddress* Addr(const std::string& text) {
  MailAddress* a = mail_newaddr();
  if (text == ";") return a;
  if (text.rfind("G:", 0) == 0) {
    a->mailbox = cpystr(text.substr(2).c_str());
    return a;
  }
  std::istringstream in(text);
  for (char** field : {&a->personal, &a->adl, &a->mailbox, &a->host}) {
    std::string v;
    std::getline(in, v, '|');
    *field = v == "-" ? nullptr : cpystr(v.c_str());
  }
  return a;
}

struct AddressList {
  MailAddress* head = nullptr;
  explicit AddressList(const std::vector<std::string>& specs) {
    MailAddress** tail = &head;
    for (const std::string& s : specs) tail = &(*tail = Addr(s))->next;
  }
  ~AddressList() { mail_free_address(&head); }
};

std::string Write(const std::vector<std::string>& specs) {
  AddressList list(specs);
  std::vector<char> buffer(4096, '\0');
  rfc822_write_address(buffer.data(), list.head);
  return buffer.data();
}

// The list as written, and its first address as rfc822_write_one_address writes it (the bare address, as MAIL FROM
// wants).
TEST(WriteAddress, FormsAndQuoting) {
  const struct { std::vector<std::string> specs; std::string text, one; } cases[] = {
      {{"-|-|a|b.org"}, "a@b.org", "a@b.org"}, {{"John Doe|-|jd|x.org"}, "John Doe <jd@x.org>", "jd@x.org"},
      {{"Doe, John|-|jd|x.org"}, "\"Doe, John\" <jd@x.org>", "jd@x.org"},
      {{"J. Doe|-|jd|x.org"}, "\"J. Doe\" <jd@x.org>", "jd@x.org"},
      {{"A \"B\" \\C|-|jd|x.org"}, "\"A \\\"B\\\" \\\\C\" <jd@x.org>", "jd@x.org"},
      {{"Line\r\nBreak|-|jd|x.org"}, "\"Line  Break\" <jd@x.org>", "jd@x.org"},
      {{"-|@r1,@r2|u|h"}, "<@r1,@r2:u@h>", "@r1,@r2:u@h"}, {{"P|@r1|u|h"}, "P <@r1:u@h>", "@r1:u@h"},
      {{"-|-|u|@unknown"}, "u", "u"}, {{"Name|-|u|@"}, "Name <u>", "u"}, {{"Name|-||"}, "Name <>", ""},
      {{"-|-||"}, "<>", ""}, {{"-|-|john.doe|h"}, "john.doe@h", "john.doe@h"},
      {{"-|-|john doe|h"}, "\"john doe\"@h", "\"john doe\"@h"}, {{"-|-|.lead|h"}, "\".lead\"@h", "\".lead\"@h"},
      // What a reader would lose unquoted: blanks at the ends, control characters, a backslash in a host, an empty
      // group name.
      {{" Lead|-|a|b"}, "\" Lead\" <a@b>", "a@b"}, {{"Jo\x1f|-|a|b"}, "\"Jo\x1f\" <a@b>", "a@b"},
      {{"-|-|a|ho\\st"}, "a@ho\\\\st", "a@ho\\\\st"}, {{"G:", ";"}, "\"\": ;", ""},
      {{"-|-|a|b", "-|-|c|d"}, "a@b, c@d", "a@b"},
      {{"G:Friends", "-|-|a|b", "-|-|c|d", ";"}, "Friends: a@b, c@d;", ""},
      {{"G:Friends", "-|-|a|b", ";", "-|-|e|f"}, "Friends: a@b;, e@f", ""},
      {{"G:Odd: name", "-|-|a|b", ";"}, "\"Odd: name\": a@b;", ""},
      {{"G:Outer", "G:Inner", "-|-|a|b", ";", ";"}, "Outer: Inner: a@b;;", ""}, {{";"}, ";", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Write(c.specs), c.text) << c.specs[0];
    AddressList list(c.specs);
    char one[64] = "";
    rfc822_write_one_address(one, list.head);
    EXPECT_EQ(std::string(one), c.one) << c.specs[0];
  }
}

TEST(WriteAddress, LimitedNeverPassesItsSizeAndCutsAtWholeAddresses) {
  const std::vector<std::string> specs = {"-|-|alpha|one.org", "-|-|beta|two.org", "G:G", "-|-|gamma|three.org", ";"};
  AddressList list(specs);
  const std::string full = Write(specs);
  const std::set<std::string> whole = {"", "alpha@one.org,", "alpha@one.org, beta@two.org,",
                                       "alpha@one.org, beta@two.org, G:", "alpha@one.org, beta@two.org, G: gamma@three.org",
                                       full};
  const std::string mark = "(address list truncated ...)";
  for (size_t size = 1; size <= full.size() + 8; ++size) {
    std::vector<char> buffer(size + 16, '#');
    buffer[0] = '\0';
    rfc822_write_address_limited(buffer.data(), size, list.head);
    for (size_t i = size; i < buffer.size(); ++i) ASSERT_EQ(buffer[i], '#') << "wrote past size " << size;
    const std::string got(buffer.data());
    ASSERT_LT(got.size(), size);
    std::string kept = got;
    if (kept.size() >= mark.size() && kept.substr(kept.size() - mark.size()) == mark) {
      kept.resize(kept.size() - mark.size());
      if (!kept.empty()) {
        ASSERT_EQ(kept.back(), ' ') << got;
        kept.pop_back();
      }
    } else {
      EXPECT_TRUE(kept == full || size - got.size() <= mark.size() + 1) << "the mark is added when it fits: " << got;
    }
    EXPECT_TRUE(whole.count(kept)) << got;
  }
  // Text already in the buffer stays; an address too long for the room leaves only the mark, or nothing when the
  // mark doesn't fit either.
  AddressList cut({"-|-|" + std::string(50, 'l') + "|x"});
  for (const auto& [start, size, text] : std::vector<std::tuple<std::string, size_t, std::string>>{
           {"From: ", 40, "From: a@b, c@d"}, {"", 30, mark}, {"", 20, ""}, {"123456789", 10, "123456789"}}) {
    std::vector<char> buffer(size, '\0');
    std::strcpy(buffer.data(), start.c_str());
    AddressList two({"-|-|a|b", "-|-|c|d"});
    rfc822_write_address_limited(buffer.data(), size, start.empty() ? cut.head : two.head);
    EXPECT_EQ(std::string(buffer.data()), text) << size;
  }
}

TEST(AddressLine, FoldsAt78ColumnsWithFourBlanks) {
  std::vector<std::string> specs;
  for (int i = 0; i < 12; ++i) specs.push_back("Person Number " + std::to_string(i) + "|-|p" + std::to_string(i) + "|example.org");
  AddressList list(specs);
  std::vector<char> buffer(4096, '\0');
  rfc822_address_line(buffer.data(), "To", list.head);
  const std::string line = buffer.data();
  ASSERT_EQ(line.rfind("To: ", 0), 0u);
  ASSERT_EQ(line.substr(line.size() - 2), "\r\n");
  size_t start = 0, lines = 0;
  for (size_t end; (end = line.find("\r\n", start)) != std::string::npos; start = end + 2, ++lines) {
    EXPECT_LE(end - start, 78u);
    EXPECT_TRUE(!lines || (line.compare(start, 4, "    ") == 0 && line[start + 4] != ' '));
    EXPECT_NE(line[end - 1], ' ') << "no blank before a fold";
  }
  EXPECT_GT(lines, 3u);
  std::string unfolded = line.substr(4, line.size() - 6);
  for (size_t at; (at = unfolded.find("\r\n    ")) != std::string::npos;) unfolded.replace(at, 6, " ");
  EXPECT_EQ(unfolded, Write(specs));
  // A single address longer than a line stays whole; a null list writes nothing.
  AddressList longone({std::string(100, 'n') + "|-|u|h"});
  char small[256] = "";
  rfc822_address_line(small, "From", longone.head);
  rfc822_address_line(small, "Cc", nullptr);
  EXPECT_EQ(std::string(small), "From: " + std::string(100, 'n') + " <u@h>\r\n");
}

// A part: type, subtype, encoding, parameters as "ATTR=value" pairs.
BodyPart* Part(unsigned short type, const char* subtype, unsigned short encoding,
               const std::vector<std::pair<std::string, std::string>>& params = {}) {
  BodyPart* b = mail_newbody();
  b->type = type;
  b->encoding = encoding;
  b->subtype = subtype ? cpystr(subtype) : nullptr;
  for (auto p = params.rbegin(); p != params.rend(); ++p)
    b->parameter = Parameter(p->first.c_str(), p->second.c_str(), b->parameter);
  return b;
}

TEST(Header, OrderMimeAndTheBlankLine) {
  Envelope* e = mail_newenvelope();
  for (auto [field, value] : {std::pair{&e->newsgroups, "comp.mail"}, {&e->date, "Mon, 1 Jan 2001 10:00:00 +0000"},
                              {&e->subject, "Hello"}, {&e->in_reply_to, "<1@a.org>"}, {&e->message_id, "<2@a.org>"}})
    *field = cpystr(value);
  for (auto [list, fields] : {std::pair{&e->from, "Ann|-|ann|a.org"}, {&e->sender, "-|-|sec|a.org"},
                            {&e->reply_to, "-|-|list|a.org"}, {&e->to, "-|-|bob|b.org"}, {&e->cc, "-|-|cat|c.org"},
                            {&e->bcc, "-|-|hidden|d.org"}})
    *list = Addr(fields);
  e->extra_headers = mail_newextra();
  e->extra_headers->name = cpystr("X-Extra");
  e->extra_headers->value = cpystr("never written");
  BodyPart* b = Part(TYPETEXT, "PLAIN", ENC7BIT);
  std::vector<char> buffer(4096, '\0');
  rfc822_header(buffer.data(), e, b);
  EXPECT_EQ(std::string(buffer.data()),
            "Newsgroups: comp.mail\r\nDate: Mon, 1 Jan 2001 10:00:00 +0000\r\nFrom: Ann <ann@a.org>\r\n"
            "Sender: sec@a.org\r\nReply-To: list@a.org\r\nSubject: Hello\r\nTo: bob@b.org\r\ncc: cat@c.org\r\n"
            "In-Reply-To: <1@a.org>\r\nMessage-ID: <2@a.org>\r\nMIME-Version: 1.0\r\n"
            "Content-Type: TEXT/PLAIN; CHARSET=US-ASCII\r\n\r\n");
  // Resent: the original header first, without its blank line, then the prefixed fields and no MIME headers; never
  // Bcc or extra headers.
  e->remail = cpystr("Received: by x\r\nSubject: Old\r\n\r\n");
  std::fill(buffer.begin(), buffer.end(), '\0');
  rfc822_header(buffer.data(), e, b);
  const std::string resent = buffer.data();
  EXPECT_EQ(resent.rfind("Received: by x\r\nSubject: Old\r\nReSent-Newsgroups: comp.mail\r\n", 0), 0u) << resent;
  EXPECT_NE(resent.find("\r\nReSent-cc: cat@c.org\r\nReSent-In-Reply-To: <1@a.org>\r\nReSent-Message-ID: <2@a.org>\r\n\r\n"),
            std::string::npos);
  for (const char* absent : {"MIME-Version", "hidden", "X-Extra"}) EXPECT_EQ(resent.find(absent), std::string::npos);
  mail_free_envelope(&e);
  mail_free_body(&b);
  // A line break in a value stays inside its header: a value can't add one.
  const std::pair<const char*, std::string> lines[] = {{"one\r\nBcc: evil@x", "S: one\r\n Bcc: evil@x\r\n"},
                                                       {"one\nBcc: evil@x", "S: one\r\n Bcc: evil@x\r\n"},
                                                       {"folded\r\n\tline", "S: folded\r\n\tline\r\n"},
                                                       {nullptr, ""}};
  for (const auto& [text, line] : lines) {
    std::fill(buffer.begin(), buffer.end(), '\0');
    rfc822_output_header_line(buffer.data(), "S", text);
    EXPECT_EQ(std::string(buffer.data()), line);
  }
}

void AddPart(BodyPart* multipart, BodyPart* part) {
  BodyPartNode** tail = &multipart->parts;
  while (*tail) tail = &(*tail)->next;
  *tail = mail_newbody_part();
  (*tail)->body = *part;
  FS_GIVE(&part);  // its fields now belong to the node
}

BodyPart* WithText(BodyPart* part, const std::string& data, int kind = kTextBinary, bool message = false) {
  MailText** text = message ? &part->msg_text : &part->contents;
  *text = mail_newtext();
  mail_text_set(*text, kind, data.data(), data.size());
  return part;
}

const char* Param(const BodyPart* b, const char* name) {
  for (const BodyParameter* p = b->parameter; p; p = p->next)
    if (!strcasecmp(p->attribute, name)) return p->value;
  return nullptr;
}

// What the output's round trip below can't see: a message part sent from its own text keeps its structure, a
// boundary already there stays in whatever form it was written, and an encoded message part is fatal.
TEST(EncodeBody, KeepsWhatIsThereAndRefusesAnEncodedMessage) {
  BodyPart* top = Part(TYPEMULTIPART, "MIXED", ENCBASE64);
  BodyPart* message = WithText(Part(TYPEMESSAGE, "RFC822", ENC8BIT), "Subject: x\r\n\r\n\xe9\r\n", kTextBinary, true);
  message->msg_body = Part(TYPETEXT, "PLAIN", ENC8BIT);
  AddPart(top, message);
  AddPart(top, Part(TYPEMULTIPART, "SIGNED", ENC7BIT, {{"BOUNDARY*0", "ab"}, {"BOUNDARY*1", "c"}}));
  rfc822_encode_body(nullptr, top);
  EXPECT_EQ(top->encoding, ENC7BIT) << "a multipart is never encoded as a whole";
  EXPECT_EQ(top->parts->body.msg_body->encoding, ENC8BIT);
  EXPECT_EQ(Param(&top->parts->next->body, "BOUNDARY"), nullptr);
  const std::string kept = Param(top, "BOUNDARY");
  rfc822_encode_body(nullptr, top);
  EXPECT_EQ(kept, Param(top, "BOUNDARY"));
  mail_free_body(&top);

  top = Part(TYPEMULTIPART, "MIXED", ENC7BIT);
  AddPart(top, Part(TYPEMESSAGE, "RFC822", ENCBASE64));
  mail_env_clear();
  EXPECT_THROW(rfc822_encode_body(nullptr, top), MailFatal);
  EXPECT_EQ(mail_env_lines().back().text, "Invalid rfc822_encode_body message encoding");
  mail_free_body(&top);
}

struct Out {
  std::string text;
  int calls = 0;
  int fail_at = -1;  // the call that fails
};

long Collect(void* stream, const char* text) {
  Out* o = static_cast<Out*>(stream);
  if (o->calls++ == o->fail_at) return 0;
  o->text += text;
  return 1;
}

std::string AllBytes() {
  std::string s;
  for (int i = 0; i < 512; ++i) s += static_cast<char>(i);
  return s;
}

using Codec = unsigned char* (*)(const unsigned char*, unsigned long, unsigned long*);

// The codec's result as a string; "<null>" when it refuses the input.
std::string Apply(Codec codec, const std::string& in) {
  unsigned long length = 0;
  unsigned char* out = codec(reinterpret_cast<const unsigned char*>(in.data()), in.size(), &length);
  if (!out) return "<null>";
  std::string s(reinterpret_cast<char*>(out), length);
  EXPECT_EQ(out[length], '\0') << "results are zero-terminated";
  FS_GIVE(&out);
  return s;
}

// A message of every kind of part: 8-bit text, binary, a file, a nested multipart and a nested message built from
// its structure.
void BuildMessage(Envelope** env, BodyPart** body, const std::string& file) {
  *env = mail_newenvelope();
  (*env)->from = Addr("Ann|-|ann|a.org");
  (*env)->subject = cpystr("Round trip");
  BodyPart* top = *body = Part(TYPEMULTIPART, "MIXED", ENC7BIT, {{"X-NOTE", "no boundary yet"}});
  AddPart(top, WithText(Part(TYPETEXT, "PLAIN", ENC8BIT, {{"CHARSET", "ISO-8859-1"}}),
                        "caf\xe9 = costly \r\nsecond line  \r\n", kTextInMemory));
  BodyPart* bin = WithText(
      Part(TYPEAPPLICATION, "OCTET-STREAM", ENCBINARY, {{"NAME", "all.bin"}, {"X-Q", "say \"hi\""}, {"X-E", ""}}),
      AllBytes());
  bin->id = cpystr("<p1@here>");
  bin->description = cpystr("All bytes");
  AddPart(top, bin);
  AddPart(top, WithText(Part(TYPEAPPLICATION, "OCTET-STREAM", ENCBASE64), file, kTextFile));
  AddPart(top, WithText(Part(TYPETEXT, "PLAIN", ENC7BIT), "says 7bit but isn't: \xe9", kTextInMemory));
  BodyPart* alt = Part(TYPEMULTIPART, "ALTERNATIVE", ENC7BIT, {{"BOUNDARY*0", "al"}, {"BOUNDARY*1", "t"}});
  AddPart(alt, WithText(Part(TYPETEXT, "PLAIN", ENC7BIT), "no line end at the end", kTextInMemory));
  AddPart(top, alt);
  BodyPart* message = Part(TYPEMESSAGE, "RFC822", ENC7BIT);
  message->msg_env = mail_newenvelope();
  message->msg_env->subject = cpystr("Inner");
  message->msg_body = WithText(Part(TYPETEXT, "PLAIN", ENC8BIT), "inner \xe9\r\n", kTextInMemory);
  AddPart(top, message);
}

TEST(Output, AWholeMessageParsesBackToWhatWasWritten) {
  char file[] = "/tmp/velmar-write-test-XXXXXX";
  const int fd = mkstemp(file);
  const std::string file_data = AllBytes() + "tail";
  ASSERT_EQ(write(fd, file_data.data(), file_data.size()), static_cast<ssize_t>(file_data.size()));
  close(fd);
  Envelope* env;
  BodyPart* body;
  BuildMessage(&env, &body, file);
  std::vector<char> buffer(8192, 'x');
  Out out;
  ASSERT_EQ(rfc822_output(buffer.data(), env, body, Collect, &out), 1);
  const std::string& msg = out.text;
  size_t start = 0;
  for (size_t end; (end = msg.find("\r\n", start)) != std::string::npos; start = end + 2) {
    ASSERT_LE(end - start, 998u);
    ASSERT_EQ(msg.substr(start, end - start).find_first_of("\r\n"), std::string::npos) << "bare line end";
  }
  for (unsigned char c : msg) ASSERT_LT(c, 0x80) << "everything goes 7-bit";
  // Part headers: values quoted on blanks, tspecials and "." with quotes escaped; no encoding line for 7BIT; a text
  // part always says its charset.
  for (const char* header :
       {"\r\nContent-Type: APPLICATION/OCTET-STREAM; NAME=\"all.bin\"; X-Q=\"say \\\"hi\\\"\"; X-E=\"\"\r\n"
        "Content-Transfer-Encoding: BASE64\r\nContent-ID: <p1@here>\r\nContent-Description: All bytes\r\n\r\n",
        "\r\nContent-Type: TEXT/PLAIN; CHARSET=US-ASCII\r\n\r\nno line end", "\r\nContent-Type: MESSAGE/RFC822\r\n\r\n"})
    EXPECT_NE(msg.find(header), std::string::npos) << header;

  const Parsed parsed(msg);
  const Envelope* penv = parsed.env;
  const BodyPart* pbody = parsed.body;
  const std::string& text = parsed.text;  // part offsets count from its start
  ASSERT_TRUE(penv && pbody && pbody->type == TYPEMULTIPART);
  EXPECT_STREQ(penv->subject, "Round trip");
  EXPECT_STREQ(Param(pbody, "BOUNDARY"), Param(body, "BOUNDARY"));
  std::vector<const BodyPartNode*> parts;
  for (const BodyPartNode* n = pbody->parts; n; n = n->next) parts.push_back(n);
  ASSERT_EQ(parts.size(), 6u);
  auto content = [&](const BodyPartNode* n) {
    const std::string raw = text.substr(n->offset, n->body.size_raw);
    const int e = n->body.encoding;
    return e == ENCBASE64 ? Apply(rfc822_base64, raw) : e == ENCQUOTEDPRINTABLE ? Apply(rfc822_qprint, raw) : raw;
  };
  // 8BIT, BINARY and a 7BIT part that isn't become quoted-printable and base64; a boundary is made, once, of pid,
  // time and counter.
  EXPECT_EQ((std::vector<int>{parts[0]->body.encoding, parts[1]->body.encoding, parts[3]->body.encoding,
                              parts[4]->body.parts->body.encoding}),
            (std::vector<int>{ENCQUOTEDPRINTABLE, ENCBASE64, ENCQUOTEDPRINTABLE, ENC7BIT}));
  EXPECT_EQ(content(parts[3]), "says 7bit but isn't: \xe9");
  EXPECT_TRUE(std::regex_match(Param(body, "BOUNDARY"), std::regex(std::to_string(getpid()) + "-[0-9]+-[0-9]+=:[0-9]+")));
  EXPECT_EQ(content(parts[0]), "caf\xe9 = costly \r\nsecond line  \r\n");
  EXPECT_STREQ(Param(&parts[0]->body, "CHARSET"), "ISO-8859-1");
  EXPECT_EQ(content(parts[1]), AllBytes());
  EXPECT_EQ(std::string(Param(&parts[1]->body, "NAME")) + Param(&parts[1]->body, "X-Q"), "all.binsay \"hi\"");
  EXPECT_EQ(content(parts[2]), file_data);
  // The continued boundary is written joined on the delimiter lines.
  const BodyPartNode* alt = parts[4]->body.parts;
  ASSERT_TRUE(alt);
  EXPECT_EQ(text.substr(alt->offset, alt->body.size_raw), "no line end at the end");
  ASSERT_TRUE(parts[5]->body.msg_env && parts[5]->body.msg_body);
  EXPECT_STREQ(parts[5]->body.msg_env->subject, "Inner");
  EXPECT_EQ(parts[5]->body.msg_body->encoding, ENCQUOTEDPRINTABLE);

  // A file that cannot be read fails the output with an error; with the part emptied, failing each write in turn
  // stops the output there.
  mail_env_clear();
  unlink(file);
  Out missing;
  EXPECT_EQ(rfc822_output(buffer.data(), env, body, Collect, &missing), 0);
  bool logged = false;
  for (const MailEnvLine& l : mail_env_lines()) logged |= l.callback == "log" && l.level == 2;
  EXPECT_TRUE(logged);
  mail_free_text(&body->parts->next->next->body.contents);
  Out full;
  ASSERT_EQ(rfc822_output(buffer.data(), env, body, Collect, &full), 1);
  ASSERT_GT(full.calls, 10);
  for (int k = 0; k < full.calls; ++k) {
    Out o;
    o.fail_at = k;
    EXPECT_EQ(rfc822_output(buffer.data(), env, body, Collect, &o), 0) << k;
    EXPECT_EQ(o.calls, k + 1) << "nothing is written after a failure";
  }
  mail_free_envelope(&env);
  mail_free_body(&body);
}

// The content codecs: published vectors, the forms the encoders write, what the decoders make of bad input, and the
// streaming decoders' blocks and reports. Round trips of arbitrary bytes, line lengths and the agreement of the
// streaming decoders with the in-memory ones are the fuzz target's checks, replayed over its corpus. Header
// text and parameters for display follow.
std::string Binary(const std::string& in) {
  unsigned long length = 0;
  unsigned char* out = rfc822_binary(in.data(), in.size(), &length);
  std::string s(reinterpret_cast<char*>(out), length);
  FS_GIVE(&out);
  return s;
}

struct Sink { std::string data; std::vector<unsigned long> blocks; bool fail = false; };

long Gather(void* sink, const char* data, unsigned long size) {
  Sink* s = static_cast<Sink*>(sink);
  s->data.append(data, size);
  s->blocks.push_back(size);
  return s->fail ? 0 : 1;
}

// Streams the text through a decoder (base64 or quoted-printable); the state is left in *st for a look at the error
// count.
Sink Stream(bool base64, const std::string& in, DecodeState* st_out = nullptr, bool failing_sink = false) {
  static DecodeState st;
  Sink sink;
  sink.fail = failing_sink;
  (base64 ? Base64DecodeInit : QPDecodeInit)(&st, Gather, &sink);
  for (char c : in) (base64 ? Base64DecodeChar : QPDecodeChar)(&st, c);
  (base64 ? Base64DecodeEnd : QPDecodeEnd)(&st);
  if (st_out) *st_out = st;
  return sink;
}

// The published vectors both ways; then what the decoder makes of other input: foreign characters skipped,
// misplaced padding refused.
TEST(Base64, VectorsAndDecoderTable) {
  const std::vector<std::pair<std::string, std::string>> vectors = {
      {"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},         {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
      {std::string("\0\xff\xfe", 3), "AP/+"},
  };
  for (const auto& [plain, encoded] : vectors) {
    EXPECT_EQ(Binary(plain), encoded + "\r\n") << plain;
    EXPECT_EQ(Apply(rfc822_base64, encoded), plain) << encoded;
  }
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"Zm9v\r\nYmFy", "foobar"}, {"Zm 9v-Ym*Fy", "foobar"},
      {"Zg==Zm8=", "ffo"},                 // data may go on after padding
      {"Zg=\r\n=", "f"}, {"Zg=", "f"},      // the second "=" on the next line, or missing at the end
      {"Zm9vYg", "foob"}, {"Zm9vYmE", "fooba"}, {"Zm9vY", "foo"},  // unpadded; a sixth of a byte gives nothing
      {"=Zm9v", "<null>"}, {"Z=m9v", "<null>"}, {"Zg=A", "<null>"},  // "=" in position 0 or 1, or followed by data
      {"Zm8==", "<null>"},                 // a third "=" starts a quantum with "="
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(Apply(rfc822_base64, in), out) << in;
}

TEST(QuotedPrintable, EncoderTable) {
  const std::string x74(74, 'x');
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"plain text", "plain text"}, {"a=b", "a=3Db"}, {"caf\xe9", "caf=E9"}, {"tab\there", "tab=09here"},
      {"del\x7f", "del=7F"}, {"one\r\ntwo\r\n", "one\r\ntwo\r\n"},
      {"end \r\nnext", "end=20\r\nnext"}, {"last ", "last=20"},  // a blank before a line end or at the end
      {"bare\nlf", "bare=0Alf"}, {"a \rb", "a=20=0Db"},            // only a CRLF is a line end
      {std::string(80, 'x'), std::string(75, 'x') + "=\r\n" + std::string(5, 'x')},
      {x74 + "=", x74 + "=\r\n=3D"},  // a quoted byte never splits
      {std::string(75, 'x') + "\r\ny", std::string(75, 'x') + "\r\ny"},
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(Apply(rfc822_8bit, in), out) << in;
}

TEST(QuotedPrintable, DecoderTable) {
  const std::string blanks201(201, ' ');
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"Now's the time =\r\nfor all folk to come=\r\n to the aid of their country.",
       "Now's the time for all folk to come to the aid of their country."},
      {"a=3Db=3db", "a=b=b"}, {"trailing  \t\r\nnext", "trailing\r\nnext"}, {"trailing  \nnext", "trailing\nnext"},
      {"blank at end  ", "blank at end"}, {"inner  blanks", "inner  blanks"}, {"soft=\nbreak", "softbreak"},
      {"soft=\rbreak", "softbreak"}, {"=E9t=E9", "\xe9t\xe9"}, {"a" + std::string(200, ' ') + "\r\nb", "a\r\nb"},
      {"a" + blanks201 + "\r\nb", "a" + blanks201 + "\r\nb"},  // no encoder pads that much
      {"bad=G1", "<null>"}, {"bad=4", "<null>"}, {"bad=", "<null>"}, {"bad= \r\n", "<null>"},
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(Apply(rfc822_qprint, in), out) << in;
}

TEST(DecodeStream, BlocksFaultsAndNothingLost) {
  const std::string plain(100000, 'q');
  const Sink sink = Stream(true, Binary(plain));
  EXPECT_EQ(sink.data, plain);
  ASSERT_GT(sink.blocks.size(), 12u);
  EXPECT_EQ(sink.blocks[0], kDecodeBufferSize);

  const struct { bool base64; std::string in, out, message; bool failing_sink = false; } cases[] = {
      {true, "Zg=A", "f", "Base64 encoded message data is corrupt.  Invalid character after '=' in encoded data."},
      {true, "=Zm9v", "foo", "Base64 encoded message data is corrupt.  Bad quantum position for '=' in encoded data."},
      {false, "a=G1b", "a=G1b", "Invalid quote sequence in quoted printable text"},
      {false, "a=", "a=", "Invalid quote sequence in quoted printable text"},
      {false, "=4x", "=4x", "Invalid hex sequence in quoted printable text"},
      {false, "a=4", "a=4", "Invalid hex sequence in quoted printable text"},
      {false, "a=\rb", "ab", "Incomplete NL sequence in quoted printable text"},
      {false, "a=\r", "a", "Incomplete NL sequence in quoted printable text"},
      {false, "abc", "abc", "", true},  // a sink that fails is counted
  };
  for (const auto& c : cases) {
    mail_env_clear();
    DecodeState st;
    EXPECT_EQ(Stream(c.base64, c.in, &st, c.failing_sink).data, c.out) << c.in;
    EXPECT_EQ(EnvLogs(1), c.message.empty() ? "" : c.message + "\n") << c.in;
    EXPECT_EQ(st.errors, 1) << c.in;
  }
  // Bogus base64 characters are traced, and the reports are capped.
  mail_env_clear();
  EXPECT_EQ(Stream(true, "Zm9v!Zg==").data, "foof");
  EXPECT_EQ(EnvLines("dlog"), std::vector<std::string>{"Base64DecodeChar: bogus character in encoded data stream: !\n"});
  mail_env_clear();
  DecodeState st;
  EXPECT_EQ(Stream(true, std::string(1000, '!') + "Zm9v", &st).data, "foo");
  EXPECT_EQ(st.errors, 1000);
  EXPECT_LE(EnvLines("dlog").size(), 20u) << "a corrupt part must not flood the log";
}

// Header text and parameters for display: encoded words, raw 8-bit text, split and charset-tagged parameters, and
// safe file names. (That every result is valid UTF-8 without controls, and a file name at most 200 bytes, the fuzz
// target checks.)
TEST(DisplayText, EncodedWordsRawBytesAndControls) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      // The standard's own examples.
      {"=?ISO-8859-1?Q?Andr=E9?= Pirard", "Andr\u00e9 Pirard"},
      {"=?US-ASCII?Q?Keith_Moore?= <moore@cs.utk.edu>", "Keith Moore <moore@cs.utk.edu>"},
      {"=?ISO-8859-1?B?SWYgeW91IGNhbiByZWFkIHRoaXMgeW8=?=\r\n    =?ISO-8859-2?B?dSB1bmRlcnN0YW5kIHRoZSBleGFtcGxlLg==?=",
       "If you can read this you understand the example."},
      {"(=?ISO-8859-1?Q?a?=)", "(a)"}, {"(=?ISO-8859-1?Q?a?= b)", "(a b)"},
      {"(=?ISO-8859-1?Q?a?=  \t =?ISO-8859-1?Q?b?=)", "(ab)"}, {"(=?ISO-8859-1?Q?a?=\r\n    =?ISO-8859-1?Q?b?=)", "(ab)"},
      {"(=?ISO-8859-1?Q?a_b?=)", "(a b)"}, {"(=?ISO-8859-1?Q?a?= =?ISO-8859-2?Q?_b?=)", "(a b)"},
      {"=?US-ASCII*EN?Q?Keith_Moore?=", "Keith Moore"},
      // Lower case, and a multi-byte character split across two words.
      {"=?utf-8?b?w6k=?= =?utf-8?q?t=C3=A9?=", "\u00e9t\u00e9"}, {"=?UTF-8?Q?=C3?= =?UTF-8?Q?=A9?=", "\u00e9"},
      // Charsets through iconv.
      {"=?KOI8-R?B?8NLJ18XU?=", "\u041f\u0440\u0438\u0432\u0435\u0442"},
      {"=?ISO-2022-JP?B?GyRCRnxLXDhsGyhC?=", "\u65e5\u672c\u8a9e"},
      {"=?ISO-8859-15?Q?Gr=FC=DFe_=A4?=", "Gr\u00fc\u00dfe \u20ac"},
      // Unknown charsets and mislabelled Latin-1: UTF-8 when the bytes are, else Windows-1252.
      {"=?x-nothing?Q?caf=E9?=", "caf\u00e9"}, {"=?x-nothing?Q?caf=C3=A9?=", "caf\u00e9"},
      {"=?bad/name?Q?caf=E9?=", "caf\u00e9"}, {"=?UTF-8?Q?=E9t=E9?=", "\u00e9t\u00e9"},
      // Malformed words stay as they are.
      {"=?UTF-8?X?abc?=", "=?UTF-8?X?abc?="}, {"=?UTF-8?Q?abc", "=?UTF-8?Q?abc"},
      {"=?UTF-8?B?a#c?=", "=?UTF-8?B?a#c?="}, {"=?UTF-8?Q?a=Zb?=", "=?UTF-8?Q?a=Zb?="},
      {"=?UTF-8?Q?a b?=", "=?UTF-8?Q?a b?="}, {"=??Q?a?=", "=??Q?a?="}, {"a = b ?= c", "a = b ?= c"},
      // Whitespace between a word and text is kept.
      {"Re: =?UTF-8?Q?x?= y", "Re: x y"},
      // Raw 8-bit text.
      {"caf\xC3\xA9", "caf\u00e9"}, {"caf\xE9", "caf\u00e9"},
      {"\x80 \x93quoted\x94", "\u20ac \u201cquoted\u201d"}, {"\x81", "\ufffd"}, {"\xF0\x9F\x98\x80", "\U0001F600"},
      {"=?SHIFT_JIS?B?gSCC?=", "\ufffd \ufffd"},  // a bad pair, and a character cut off
      // Folds undone, controls and decoded line breaks made blanks.
      {"a\r\n b", "a b"}, {"a\r\nb", "a b"}, {"=?UTF-8?Q?a=0D=0Ab?=", "a b"}, {"=?UTF-8?Q?a=00b?=", "a b"},
      {"tab\there\x1b[31m", "tab here [31m"}, {"", ""},
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(mime_display_text(in.c_str()), out) << in;
  EXPECT_EQ(mime_display_text(nullptr), "");
}

TEST(DisplayText, WorkPerHeaderIsBounded) {
  std::string many;
  for (int i = 0; i < 1000; ++i) many += "=?UTF-8?Q?x?= ";
  const std::string out = mime_display_text(many.c_str());
  EXPECT_EQ(out.substr(0, 256), std::string(256, 'x'));
  EXPECT_NE(out.find("=?UTF-8?Q?x?="), std::string::npos) << "words beyond the limit stay as text";

  // A long header of near-words costs time in proportion to its size, and stays as it was.
  std::string near(200000, '?');
  for (size_t i = 0; i < near.size(); i += 3) near[i] = '=';
  EXPECT_EQ(mime_display_text(near.c_str()), near);
}

struct ParamList {
  BodyParameter* head = nullptr;
  explicit ParamList(const std::vector<std::pair<std::string, std::string>>& list) {
    for (auto p = list.rbegin(); p != list.rend(); ++p)
      head = Parameter(p->first.c_str(), p->second.c_str(), head);
  }
  ~ParamList() { mail_free_body_parameter(&head); }
};

TEST(Parameter, ExtendedContinuedAndPlainValues) {
  using List = std::vector<std::pair<std::string, std::string>>;
  const std::vector<std::pair<List, std::string>> cases = {
      {{{"NAME*", "utf-8''%E2%82%AC%20rates.pdf"}}, "\u20ac rates.pdf"}, {{{"NAME*", "''plain%2Etxt"}}, "plain.txt"},
      {{{"NAME*", "iso-8859-1'en'caf%E9"}}, "caf\u00e9"}, {{{"NAME*", "no quotes at all"}}, "no quotes at all"},
      {{{"NAME*", "utf-8''100%"}}, "100%"}, {{{"NAME*", "utf-8''%zz"}}, "%zz"}, {{{"name", "lower case"}}, "lower case"},
      {{{"NAME*1", "bar"}, {"NAME*0", "foo"}, {"NAME*2", ".txt"}}, "foobar.txt"},
      {{{"NAME*0", "foo"}, {"NAME*2", "baz"}}, "foo"},  // a gap ends the value
      {{{"NAME*1", "bar"}}, ""},                        // no first segment
      {{{"NAME*0*", "utf-8''%C3"}, {"NAME*1*", "%A9t%C3%A9"}, {"NAME*2", "%.txt"}}, "\u00e9t\u00e9%.txt"},
      {{{"NAME*0", "a"}, {"NAME*01", "x"}, {"NAME*1", "b"}}, "ab"},
      {{{"NAME*0", "a"}, {"NAME*0", "x"}, {"NAME*1", "b"}}, "ab"},  // the first of a number wins
      {{{"NAME", "fallback"}, {"NAME*", "utf-8''preferred"}}, "preferred"},
      {{{"NAME", "plain"}, {"NAME*0", "split"}}, "split"},
      {{{"NAME", "=?UTF-8?Q?r=C3=A9sum=C3=A9.doc?="}}, "r\u00e9sum\u00e9.doc"},
      {{{"NAMEX", "other"}, {"FILENAME", "other"}, {"NAME*X", "other"}}, ""},
      {{{"NAME*", "utf-8''a%0D%0ABcc: x"}}, "a Bcc: x"},
      {{}, ""},
  };
  for (const auto& [list, value] : cases) {
    ParamList p(list);
    EXPECT_EQ(mime_parameter(p.head, "NAME"), value) << (list.empty() ? "" : list[0].second);
  }
  ParamList many({{"NAME*0", std::string(60000, 'a')}, {"NAME*1", std::string(60000, 'b')}});
  EXPECT_LE(mime_parameter(many.head, "NAME").size(), 65536u);
}

std::string FileNameOf(const std::string& name) {
  BodyPart* b = mail_newbody();
  b->parameter = Parameter("NAME", name.c_str());
  std::string out = mime_file_name(b);
  mail_free_body(&b);
  return out;
}

TEST(FileName, MadeSafe) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"report.pdf", "report.pdf"}, {"../../etc/passwd", "passwd"}, {"C:\\Users\\me\\report.doc", "report.doc"},
      {".bashrc", "bashrc"}, {"...", "attachment"}, {"dir/", "attachment"}, {"  spaced  ", "spaced"},
      {"", "attachment"},
      {"=?UTF-8?Q?=C3=A9t=C3=A9.txt?=", "\u00e9t\u00e9.txt"}, {"a\xC2\x85" "b", "a_b"},  // a C1 control character
  };
  for (const auto& [name, safe] : cases) EXPECT_EQ(FileNameOf(name), safe) << name;
  BodyPart* b = mail_newbody();
  EXPECT_EQ(mime_file_name(b), "attachment");
  mail_free_body(&b);
  EXPECT_EQ(mime_file_name(nullptr), "attachment");

  std::string accented;
  for (int i = 0; i < 150; ++i) accented += "\u00e9";
  const std::string cut = FileNameOf(accented + ".pdf");
  EXPECT_GE(cut.size(), 190u);
  EXPECT_EQ(cut.substr(cut.size() - 4), ".pdf") << "the extension survives the cut";
}

}  // namespace
