// The RFC 822 and MIME parser: addresses, the header walk, content headers, body structures, header sizes, the
// limits on hostile input, and the date parsers.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "c-client/core/plain_env.h"
#include "tests/c-client/core/env_lines.h"
#include "c-client/rfc822/rfc822.h"

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

std::vector<std::string> ParseStructure(const std::string& text) {
  Parsed p(text);
  std::vector<std::string> out;
  Walk(p.body, "", HeaderEnd(text), text, &out);
  return out;
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
    std::vector<std::string> got = ParseStructure(text);
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

}  // namespace
