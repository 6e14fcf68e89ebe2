// The RFC 822 and MIME parser: addresses, the header walk, content headers,
// body structures over memory and file sources, header sizes, and the
// limits on hostile input.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "c-client/plain_env.h"
#include "tests/c-client/env_lines.h"
#include "c-client/rfc822.h"

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
  for (const MailAddress* a = list; a; a = a->next) {
    if (!out.empty()) out += " ; ";
    out += Field(a->personal) + "|" + Field(a->adl) + "|" + Field(a->mailbox) + "|" + Field(a->host);
  }
  return out;
}

// The list parsed from the text, appended to *list when given.
std::string ParseList(std::string text, const char* host = "dflt", MailAddress** into = nullptr) {
  MailAddress* list = nullptr;
  rfc822_parse_adrlist(into ? into : &list, text.data(), host);
  std::string out = Render(into ? *into : list);
  mail_free_address(&list);
  return out;
}

size_t Count(const MailAddress* a) { return a ? 1 + Count(a->next) : 0; }

TEST(Rfc822Address, Table) {
  struct Case {
    const char* text;
    const char* list;
    const char* warnings;
    const char* host = "dflt";
  } cases[] = {
      {"a@b c@d", "-|-|a|b", "Must use comma to separate addresses: c@d\n"},
      {"Group: a@b, c@d;", "-|-|Group|- ; -|-|a|b ; -|-|c|d ; -|-|-|-", ""},
      {"user", "-|-|user|dflt", ""},
      {"user@", "-|-|user|dflt", "Missing or invalid host name after @\n"},
      {"<@a,@b:mb@host>", "-|@a,@b|mb|host", ""},
      {"Joe Q. Public <joe@x.org>", "Joe Q. Public|-|joe|x.org", ""},
      {"\"Smith, John\" <js@x>, \"a \\\"q\\\" b\" <c@d>", "Smith, John|-|js|x ; a \"q\" b|-|c|d", ""},
      {"joe@x.org (Joe Bloggs)", "Joe Bloggs|-|joe|x.org", ""},
      {"Named <joe@x.org> (comment)", "Named|-|joe|x.org", ""},
      {"a@b,,, ,c@d", "-|-|a|b ; -|-|c|d", ""},
      {"\"a b\"@c", "-|-|a b|c", ""},
      {"a@[1.2.3.4]", "-|-|a|[1.2.3.4]", ""},
      {"root@[IPv6:2001:db8::1]", "-|-|root|[IPv6:2001:db8::1]", ""},
      {"a @ b . c", "-|-|a|b", "Junk at end of address: . c\n"},
      {"undisclosed-recipients:;", "-|-|undisclosed-recipients|- ; -|-|-|-", ""},
      {"Outer: Inner: a@b;;", "-|-|Outer|- ; -|-|Inner|- ; -|-|a|b ; -|-|-|- ; -|-|-|-", ""},
      {"Open: a@b", "-|-|Open|- ; -|-|a|b ; -|-|-|-", ""},
      {"G: a@b; junk", "-|-|G|- ; -|-|a|b ; -|-|-|- ; -|-|junk|dflt", "Junk at end of group: junk\n"},
      {"<a@b", "-|-|a|b", "Unterminated mailbox: a@b\n"},
      {"<a@", "-|-|a|@", "Missing or invalid host name after @\nUnterminated mailbox: a@<null>\n", "@"},
      {"a@b >junk", "-|-|a|b", "Junk at end of address: >junk\n"},
      {"@", "", "Bad mailbox: @\n"},
      {"a@b, <>", "-|-|a|b ; -|-||", ""},
      {"Name <>", "Name|-||", ""},
      {"(unclosed a@b", "", "Unterminated comment: (unclosed a@b\n"},
      {"a@b (x \"y) z", "-|-|a|b", "Unterminated quoted string within comment: (x \"y) z\n"},
      {"a@b (nested (comment) here) , c@d", "nested (comment) here|-|a|b ; -|-|c|d", ""},
      {"=?utf-8?q?J=C3=B6rg?= <j@x>", "=?utf-8?q?J=C3=B6rg?=|-|j|x", ""},
  };
  for (const Case& c : cases) {
    mail_env_clear();
    EXPECT_EQ(ParseList(c.text, c.host), c.list) << c.text;
    EXPECT_EQ(Warnings(), c.warnings) << c.text;
  }
}

TEST(Rfc822Address, AppendsToAListAndKeepsLimits) {
  mail_env_clear();
  MailAddress* list = nullptr;
  ParseList("a@b", "h", &list);
  EXPECT_EQ(ParseList("c@d", "h", &list), "-|-|a|b ; -|-|c|d");
  mail_free_address(&list);

  // An address list stops after 10,000 addresses, with a warning.
  std::string many;
  for (int i = 0; i < 10005; ++i) many += "u" + std::to_string(i) + "@h,";
  ParseList(many, "h", &list);
  EXPECT_EQ(Count(list), 10000u);
  EXPECT_NE(Warnings().find("Address list longer than 10000 addresses"), std::string::npos);
  mail_free_address(&list);

  // Nested groups are capped; what was read is kept and closed.
  std::string deep;
  for (int i = 0; i < 100; ++i) deep += "g" + std::to_string(i) + ": ";
  ParseList(deep, "h", &list);
  EXPECT_EQ(Count(list), 64u);  // 32 openings and their 32 closings
  EXPECT_NE(Warnings().find("Address groups nested too deeply"), std::string::npos);
  mail_free_address(&list);
}

TEST(Rfc822Header, NextHeaderFoldsAndEndsAtTheBlankLine) {
  char block[] = "Subject: one\r\n\ttwo\r\nX-Empty:\r\nTo: a\n  b\n\r\nBody: not a header\n";
  char* text = block;
  unsigned long remaining = sizeof block - 1;
  std::vector<std::string> lines;
  while (char* line = rfc822_next_header(&text, &remaining, true)) lines.push_back(line);
  EXPECT_EQ(lines, (std::vector<std::string>{"Subject: one\ttwo", "X-Empty:", "To: a  b"}));
  EXPECT_EQ(remaining, 0u);
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
  explicit Parsed(const std::string& message, const char* host = "local.host") : text(message) {
    unsigned long hs = HeaderEnd(text);
    StringSource s;
    string_init(&s, &mail_string, text.data(), text.size());
    string_setpos(&s, hs);
    std::vector<char> work(kRfc822WorkSize);
    rfc822_parse_msg(&env, &body, text.data(), hs, &s, host, work.data());
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
  mail_env_clear();
  Parsed p(
      "From: A <a@x>\n"
      ">From: b@x\n"
      "To: c@x\n"
      "cc: d@x,\n e@x\n"
      "TO: f@x\n"
      "Bcc: g\n"
      "Reply-To: h@x\n"
      "Sender: i@x\n"
      "Subject:\tfirst\n"
      "Subject: second\n"
      "Date: Sat, 1 Jan 2000 00:00:00 +0000\n"
      "Date: later\n"
      "In-Reply-To: <r@x>\n"
      "Newsgroups: comp.mail\n"
      "Message-ID: <m@x>\n"
      "Subject : spaced name\n"
      "no colon here\n"
      "\n");
  ASSERT_NE(p.env, nullptr);
  EXPECT_EQ(Render(p.env->from), "A|-|a|x ; -|-|b|x");
  EXPECT_EQ(Render(p.env->to), "-|-|c|x ; -|-|f|x");
  EXPECT_EQ(Render(p.env->cc), "-|-|d|x ; -|-|e|x");
  EXPECT_EQ(Render(p.env->bcc), "-|-|g|local.host");
  EXPECT_EQ(Render(p.env->reply_to), "-|-|h|x");
  EXPECT_EQ(Render(p.env->sender), "-|-|i|x");
  EXPECT_STREQ(p.env->subject, "first");
  EXPECT_STREQ(p.env->date, "Sat, 1 Jan 2000 00:00:00 +0000");
  EXPECT_STREQ(p.env->in_reply_to, "<r@x>");
  EXPECT_STREQ(p.env->newsgroups, "comp.mail");
  EXPECT_EQ(p.env->message_id, nullptr) << "a locally parsed envelope has no Message-ID";
  EXPECT_EQ(p.env->extra_headers, nullptr);
  EXPECT_EQ(p.env->return_path, nullptr);
  // Without Content headers the body is plain text.
  EXPECT_EQ(p.body->type, TYPETEXT);
  EXPECT_STREQ(p.body->subtype, "PLAIN");
  EXPECT_EQ(Params(p.body), " CHARSET=US-ASCII");
}

TEST(Rfc822Header, ContentHeaders) {
  struct Case {
    const char* header;
    const char* type;  // "TYPE/SUBTYPE params encoding"
    const char* warnings;
  } cases[] = {
      {"Content-Type: text/html\n\n", "TEXT/HTML CHARSET=US-ASCII 0", ""},
      {"Content-Type: text/html\nMIME-Version: 1.0\n\n", "TEXT/HTML CHARSET=US-ASCII 0", ""},
      {"MIME-Version: 1.0\nContent-Type: text/html\n\n", "TEXT/HTML CHARSET=US-ASCII 0", ""},
      {"Subject: x\nmime-version: 1.0 (produced by hand)\n\n", "TEXT/PLAIN CHARSET=US-ASCII 0", ""},
      {"MIME-Version: 2.0\nContent-Type: image/gif\n\n", "IMAGE/GIF 0", "Warning: message has unknown MIME version\n"},
      {"MIME-Version: RFC-XXXX\nContent-Type: Audio\n\n", "AUDIO/BASIC 0", ""},
      {"MIME-Version: 1.0\nContent-Type: model/x; a=1\nContent-Type: text/html\n\n", "X-UNKNOWN/X A=1 0", ""},
      {"MIME-Version: 1.0\nContent-Type: APPLICATION/PDF; Name=\"a b.pdf\"; x=\"q\\\"t\"\n\n",
       "APPLICATION/PDF NAME=a b.pdf X=q\"t 0", ""},
      {"MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=----=_Part_1_2.3\n\n",
       "MULTIPART/MIXED BOUNDARY=----=_Part_1_2.3 0", ""},
      {"MIME-Version: 1.0\nContent-Type: text/plain; charset=utf-8;\n\n", "TEXT/PLAIN CHARSET=utf-8 0", ""},
      {"MIME-Version: 1.0\nContent-Type: text/plain; format\n\n", "TEXT/PLAIN FORMAT=UNKNOWN CHARSET=US-ASCII 0",
       "Missing parameter value: FORMAT\n"},
      {"MIME-Version: 1.0\nContent-Type: text/plain; name=\n\n", "TEXT/PLAIN NAME=UNKNOWN CHARSET=US-ASCII 0", ""},
      {"MIME-Version: 1.0\nContent-Type: text/plain; =x\n\n", "TEXT/PLAIN CHARSET=US-ASCII 0", "Missing parameter\n"},
      {"MIME-Version: 1.0\nContent-Type: text/plain charset=x\n\n", "TEXT/PLAIN CHARSET=US-ASCII 0",
       "Junk at end of parameters: charset=x\n"},
      {"MIME-Version: 1.0\nContent-Transfer-Encoding: Quoted-Printable\n\n", "TEXT/PLAIN CHARSET=US-ASCII 4", ""},
      {"MIME-Version: 1.0\nContent-Transfer-Encoding: base64 (comment)\n\n", "TEXT/PLAIN CHARSET=US-ASCII 3", ""},
      {"MIME-Version: 1.0\nContent-Transfer-Encoding: x-uuencode\n\n", "TEXT/PLAIN CHARSET=US-ASCII 5", ""},
  };
  for (const Case& c : cases) {
    mail_env_clear();
    Parsed p(c.header);
    std::string got = std::string(body_types[p.body->type]) + "/" + p.body->subtype + Params(p.body) + " " +
                      std::to_string(p.body->encoding);
    EXPECT_EQ(got, c.type) << c.header;
    EXPECT_EQ(Warnings(), c.warnings) << c.header;
  }
  Parsed p("MIME-Version: 1.0\nContent-ID: <one>\nContent-ID: <two>\nContent-Description: first\n"
           "Content-Description: second\n\n");
  EXPECT_STREQ(p.body->id, "<one>");
  EXPECT_STREQ(p.body->description, "first");
}

TEST(Rfc822Header, OverlongLineIsCut) {
  mail_env_clear();
  std::string subject(70000, 'x');
  Parsed p("Subject: " + subject + "\n\n");
  ASSERT_NE(p.env->subject, nullptr);
  EXPECT_EQ(std::strlen(p.env->subject), 65536u - std::strlen("SUBJECT: "));
  EXPECT_NE(Warnings().find("Header line longer than 64 KB, cut"), std::string::npos);
}

// --- Body structures ---------------------------------------------------------

std::string Crlf(const std::string& lf) {
  std::string out;
  for (char c : lf) {
    if (c == '\n') out += '\r';
    out += c;
  }
  return out;
}

struct Section {
  std::string path, type, params, id, description;
  int encoding;
  unsigned long offset, bytes, raw, lines;
  std::string text;  // size_bytes bytes read at offset
  bool operator==(const Section&) const = default;
};

void Walk(const BodyPart* b, const std::string& path, unsigned long offset, const std::string& text,
          std::vector<Section>* out) {
  out->push_back({path, std::string(body_types[b->type]) + "/" + (b->subtype ? b->subtype : "-"), Params(b),
                  Field(b->id), Field(b->description), b->encoding, offset, b->size_bytes, b->size_raw, b->size_lines,
                  offset <= text.size() ? text.substr(offset, b->size_bytes) : "<offset out of range>"});
  int i = 1;
  for (const BodyPartNode* n = b->parts; n; n = n->next, ++i)
    Walk(&n->body, path.empty() ? std::to_string(i) : path + "." + std::to_string(i), n->offset, text, out);
  if (b->msg_body) {
    EXPECT_EQ(b->msg_offset, 0u);
    // An enclosed message's body is the end of the message part.
    Walk(b->msg_body, path + ".body", offset + b->size_bytes - b->msg_body->size_bytes, text, out);
  }
}

// Parses through a memory source, or a file source over the same bytes put
// after junk at some start offset in a file.
std::vector<Section> ParseStructure(const std::string& text, bool from_file) {
  const unsigned long hs = HeaderEnd(text);
  std::vector<char> header(text.begin(), text.begin() + hs);
  std::vector<char> work(kRfc822WorkSize);
  StringSource s;
  FileText ft{};
  int fd = -1;
  if (from_file) {
    std::string junk = "From someone Sat Jan  1 00:00:00 2000\n";
    fd = TempFileWith(junk + text);
    ft.fd = fd;
    ft.start = junk.size();
    string_init(&s, &file_string, &ft, text.size());
  } else {
    string_init(&s, &mail_string, const_cast<char*>(text.data()), text.size());
  }
  string_setpos(&s, hs);
  Envelope* env = nullptr;
  BodyPart* body = nullptr;
  rfc822_parse_msg(&env, &body, header.data(), hs, &s, "local.host", work.data());
  if (fd >= 0) close(fd);
  std::vector<Section> out;
  Walk(body, "", hs, text, &out);
  mail_free_body(&body);
  mail_free_envelope(&env);
  return out;
}

const char kNested[] =
    "From: A <a@example.org>\n"
    "To: b@example.org\n"
    "Subject: structure\n"
    "MIME-Version: 1.0\n"
    "Content-Type: multipart/mixed; boundary=\"outer\"\n"
    "\n"
    "This is a preamble.\n"
    "--outer\n"
    "Content-Type: text/plain; charset=utf-8\n"
    "Content-Transfer-Encoding: quoted-printable\n"
    "\n"
    "Hello =C3=A9\n"
    "second line\n"
    "--outer\n"
    "Content-Type: multipart/alternative;\n"
    "\tboundary=inner\n"
    "Content-Description: two\n\t forms\n"
    "\n"
    "--inner\n"
    "Content-Type: text/plain\n"
    "\n"
    "plain form\n"
    "--inner\n"
    "Content-Type: text/html; charset=\"us-ascii\"\n"
    "\n"
    "<p>html form</p>\n"
    "\n"
    "--inner--\n"
    "--outer\n"
    "Content-Type: message/rfc822\n"
    "Content-Description: forwarded\n"
    "\n"
    "From: c@example.org\n"
    "Subject: enclosed\n"
    "MIME-Version: 1.0\n"
    "Content-Type: multipart/mixed; boundary=\"enc\"\n"
    "\n"
    "--enc\n"
    "Content-Type: image/png; name=\"dot.png\"\n"
    "Content-Transfer-Encoding: base64\n"
    "Content-ID: <dot@example.org>\n"
    "\n"
    "iVBORw0KGgo=\n"
    "--enc--\n"
    "--outer  \n"
    "Content-Type: application/octet-stream; name=\"data.bin\"\n"
    "Content-Transfer-Encoding: base64\n"
    "\n"
    "AAECAw==\n"
    "AAECAw==\n"
    "--outer--\n"
    "epilogue\n";

struct Expect {
  const char* path;
  const char* type;
  const char* params;
  int encoding;
  const char* text;  // in LF form
};

const Expect kNestedParts[] = {
    {"", "MULTIPART/MIXED", " BOUNDARY=outer", 0, nullptr},
    {"1", "TEXT/PLAIN", " CHARSET=utf-8", 4, "Hello =C3=A9\nsecond line"},
    {"2", "MULTIPART/ALTERNATIVE", " BOUNDARY=inner", 0,
     "--inner\nContent-Type: text/plain\n\nplain form\n--inner\nContent-Type: text/html; "
     "charset=\"us-ascii\"\n\n<p>html form</p>\n\n--inner--"},
    {"2.1", "TEXT/PLAIN", " CHARSET=US-ASCII", 0, "plain form"},
    {"2.2", "TEXT/HTML", " CHARSET=us-ascii", 0, "<p>html form</p>\n"},
    {"3", "MESSAGE/RFC822", "", 0,
     "From: c@example.org\nSubject: enclosed\nMIME-Version: 1.0\nContent-Type: multipart/mixed; "
     "boundary=\"enc\"\n\n--enc\nContent-Type: image/png; name=\"dot.png\"\nContent-Transfer-Encoding: "
     "base64\nContent-ID: <dot@example.org>\n\niVBORw0KGgo=\n--enc--"},
    {"3.body", "MULTIPART/MIXED", " BOUNDARY=enc", 0,
     "--enc\nContent-Type: image/png; name=\"dot.png\"\nContent-Transfer-Encoding: base64\nContent-ID: "
     "<dot@example.org>\n\niVBORw0KGgo=\n--enc--"},
    {"3.body.1", "IMAGE/PNG", " NAME=dot.png", 3, "iVBORw0KGgo="},
    {"4", "APPLICATION/OCTET-STREAM", " NAME=data.bin", 3, "AAECAw==\nAAECAw=="},
};

size_t Lines(const std::string& s) { return static_cast<size_t>(std::count(s.begin(), s.end(), '\n')); }

TEST(Rfc822Body, NestedStructureInLfAndCrlfFromMemoryAndFile) {
  const std::string lf = kNested;
  const std::string crlf = Crlf(lf);
  for (const std::string* text : {&lf, &crlf}) {
    SCOPED_TRACE(text == &lf ? "LF" : "CRLF");
    mail_env_clear();
    std::vector<Section> got = ParseStructure(*text, false);
    EXPECT_EQ(Warnings(), "");
    ASSERT_EQ(got.size(), std::size(kNestedParts));
    for (size_t i = 0; i < got.size(); ++i) {
      const Expect& e = kNestedParts[i];
      const Section& g = got[i];
      SCOPED_TRACE(e.path);
      EXPECT_EQ(g.path, e.path);
      EXPECT_EQ(g.type + g.params, std::string(e.type) + e.params);
      EXPECT_EQ(g.encoding, e.encoding);
      EXPECT_EQ(g.bytes, g.raw);
      if (e.text) {
        const std::string want = text == &lf ? std::string(e.text) : Crlf(e.text);
        EXPECT_EQ(g.text, want);
        EXPECT_EQ(g.bytes, want.size());
        EXPECT_EQ(g.lines, Lines(want));
      }
    }
    EXPECT_EQ(got[0].bytes, text->size() - HeaderEnd(*text));
    EXPECT_EQ(got[0].lines, Lines(text->substr(HeaderEnd(*text))));
    EXPECT_EQ(got[2].description, "two\t forms") << "unfolding keeps the blanks of a fold";
    EXPECT_EQ(got[5].description, "forwarded");
    EXPECT_EQ(got[7].id, "<dot@example.org>");
    // The file source gives exactly what the memory source gives.
    EXPECT_TRUE(ParseStructure(*text, true) == got);
  }
  Parsed p(lf);
  EXPECT_STREQ(p.env->subject, "structure");
  const Envelope* enclosed = p.body->parts->next->next->body.msg_env;
  ASSERT_NE(enclosed, nullptr);
  EXPECT_STREQ(enclosed->subject, "enclosed");
  EXPECT_EQ(Render(enclosed->from), "-|-|c|example.org");
}

// One-level multiparts: each case lists the expected part texts.
TEST(Rfc822Body, DelimiterRules) {
  struct Case {
    const char* name;
    const char* message;
    std::vector<std::string> parts;  // "TYPE/SUBTYPE:text"
    const char* warnings;
  } cases[] = {
      {"no boundary takes -",
       "MIME-Version: 1.0\nContent-Type: multipart/mixed\n\n---\nContent-Type: text/plain\n\nx\n---\n\ny\n-----\n",
       {"TEXT/PLAIN:x", "TEXT/PLAIN:y"},
       ""},
      {"missing close runs to the end",
       "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=b\n\n--b\n\none\n--b\n\ntwo\nlast line\n",
       {"TEXT/PLAIN:one", "TEXT/PLAIN:two\nlast line\n"},
       ""},
      {"delimiter first, empty parts",
       "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=b\n\n--b\n--b\n\n--b--\n",
       {"TEXT/PLAIN:", "TEXT/PLAIN:"},
       ""},
      {"boundary prefixes and padding",
       "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=ab\n\n--ab \t\n\n--abc\n--ab--x\n--ab\n\nz\n--ab--",
       {"TEXT/PLAIN:--abc\n--ab--x", "TEXT/PLAIN:z"},
       ""},
      {"a part without headers starts at once",
       "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=b\n\n--b\njust text\nmore\n--b--\n",
       {"TEXT/PLAIN:just text\nmore"},
       ""},
      {"digest parts are messages",
       "MIME-Version: 1.0\nContent-Type: multipart/digest; boundary=d\n\n--d\n\nSubject: one\n\nbody\n--d\n"
       "Content-Type: text/plain\n\nplain\n--d--\n",
       {"MESSAGE/RFC822:Subject: one\n\nbody", "TEXT/PLAIN:plain"},
       ""},
      {"nested encoding of a multipart",
       "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=b\nContent-Transfer-Encoding: base64\n\n--b\n\nx\n--b--\n",
       {},
       "Nested encoding of multipart contents\n"},
      {"boundary in continuations",
       "MIME-Version: 1.0\nContent-Type: multipart/signed; boundary*0=\"ab\";\n boundary*1=c\n\n--abc\n\nx\n--abc--\n",
       {"TEXT/PLAIN:x"},
       ""},
      {"boundary in the extended form",
       "MIME-Version: 1.0\nContent-Type: multipart/signed; BOUNDARY*=us-ascii'en'a%3Db\n\n--a=b\n\ny\n--a=b--\n",
       {"TEXT/PLAIN:y"},
       ""},
      {"boundary decoding to a line break counts as absent",
       "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary*=''a%0A\n\n--a\n\nno\n---\n\ndash\n-----\n",
       {"TEXT/PLAIN:dash"},
       ""},
      {"boundary too long counts as absent",
       nullptr,
       {"TEXT/PLAIN:dash"},
       ""},
  };
  std::string longb(201, 'q');
  std::string long_message = "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=" + longb + "\n\n--" + longb +
                             "\n\nwrong\n---\n\ndash\n-----\n";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    mail_env_clear();
    Parsed p(c.message ? c.message : long_message);
    std::vector<std::string> got;
    for (const BodyPartNode* n = p.body->parts; n; n = n->next)
      got.push_back(std::string(body_types[n->body.type]) + "/" + n->body.subtype + ":" +
                    p.text.substr(n->offset, n->body.size_bytes));
    EXPECT_EQ(got, c.parts);
    EXPECT_EQ(Warnings(), c.warnings);
  }
  mail_env_clear();
  Parsed enc("MIME-Version: 1.0\nContent-Type: message/rfc822\nContent-Transfer-Encoding: base64\n\nU3ViamVjdDogeA==\n");
  EXPECT_EQ(enc.body->msg_body, nullptr);
  EXPECT_EQ(Warnings(), "Nested encoding of message contents\n");
}

TEST(Rfc822Body, DepthCapKeepsDeepPartsOpaque) {
  for (bool messages : {false, true}) {
    SCOPED_TRACE(messages ? "message/rfc822" : "multipart");
    std::string text = "MIME-Version: 1.0\n";
    std::string tail;
    for (int i = 0; i < 60; ++i) {
      if (messages) {
        text += "Content-Type: message/rfc822\n\nMIME-Version: 1.0\n";
      } else {
        std::string b = "b" + std::to_string(i);
        text += "Content-Type: multipart/mixed; boundary=" + b + "\n\n--" + b + "\n";
        tail = "\n--" + b + "--" + tail;
      }
    }
    text += "Content-Type: text/plain\n\ndeep" + tail + "\n";
    Parsed p(text);
    int depth = 0;
    const BodyPart* b = p.body;
    for (;;) {
      const BodyPart* next = messages ? b->msg_body : (b->parts ? &b->parts->body : nullptr);
      if (!next) break;
      b = next;
      ++depth;
    }
    EXPECT_EQ(depth, kRfc822MaxDepth);
    EXPECT_EQ(b->type, messages ? TYPEMESSAGE : TYPEMULTIPART) << "the deepest container stays what it says";
    EXPECT_NE(b->size_bytes, 0u);
  }
}

TEST(Rfc822Body, HostileSizesStayLinear) {
  // A megabyte of empty parts: the part count is capped, the last part
  // keeps the rest, and it all takes little time.
  std::string text = "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=b\n\n";
  while (text.size() < (1u << 20)) text += "--b\n";
  mail_env_clear();
  auto t0 = std::chrono::steady_clock::now();
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

  // Many address headers of one kind append without walking the list.
  std::string header;
  while (header.size() < (1u << 20)) header += "To: a@b\n";
  {
    Parsed p(header + "\n");
    int n = 0;
    for (const MailAddress* a = p.env->to; a; a = a->next) ++n;
    EXPECT_EQ(n, 10000);
  }
  mail_env_clear();

  // A fault every few bytes gives a bounded number of warnings.
  std::string faults;
  while (faults.size() < 100000) faults += "Cc: a@b >x\n";
  { Parsed p(faults + "\n"); }
  size_t warnings = 0;
  for (const MailEnvLine& l : mail_env_lines()) warnings += l.level == 3;
  EXPECT_EQ(warnings, 101u);
  EXPECT_EQ(mail_env_lines().back().text, "Too many faults in this text: further parser warnings suppressed");
  mail_env_clear();
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(10));
}

// --- Sources and header sizes --------------------------------------------

TEST(StringSource, FileAndMemoryAgreeAcrossChunks) {
  std::string text;
  for (int i = 0; i < 30000; ++i) text += static_cast<char>('a' + (i * 7) % 26);
  int fd = TempFileWith("xyz" + text);
  FileText ft{};
  ft.fd = fd;
  ft.start = 3;
  StringSource f, m;
  string_init(&f, &file_string, &ft, text.size());
  string_init(&m, &mail_string, text.data(), text.size());
  for (unsigned long pos : {0ul, 8191ul, 8192ul, 8193ul, 20000ul, 100ul, 29999ul}) {
    string_setpos(&f, pos);
    string_setpos(&m, pos);
    for (int k = 0; k < 9000; ++k) {
      char a = string_next(&f), b = string_next(&m);
      ASSERT_EQ(a, b) << pos << "+" << k;
      ASSERT_EQ(string_getpos(&f), string_getpos(&m));
    }
  }
  EXPECT_EQ(string_next(&f), '\0');
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
  close(fd);
}

TEST(Rfc822HeaderSize, ExactBytesOfTheHeader) {
  struct Case {
    std::string file;
    long size;
  } cases[] = {
      {"A: 1\r\nB: 2\r\n\r\nbody\r\n", 14},
      {"A: 1\nB: 2\n\nbody\n", 11},
      {"A: 1\n \t \nbody\n", 9},
      {"A: 1\nB: 2\n", 10},
      {"", 0},
      {"\nbody", 1},
      {std::string(20000, 'x') + "\n\nbody", 20002},
  };
  for (const Case& c : cases) {
    int fd = TempFileWith(c.file);
    EXPECT_EQ(rfc822_header_size(fd), c.size) << c.file.substr(0, 20);
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 0) << "the position is left alone";
    close(fd);
  }
  mail_env_clear();
  int fd = open("/tmp", O_RDONLY | O_DIRECTORY);
  EXPECT_EQ(rfc822_header_size(fd), -1);
  close(fd);
  ASSERT_FALSE(mail_env_lines().empty());
  EXPECT_EQ(mail_env_lines().back().text.rfind("Failed in read of MH message file:  ", 0), 0u);
}

}  // namespace
