// Writing addresses, headers and part headers, encoding a body tree for
// sending, and writing whole messages that the parser reads back.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "c-client/mail.h"
#include "c-client/plain_env.h"
#include "c-client/rfc822.h"
#include "c-client/rfc822_write.h"
#include "c-client/strsrc.h"

namespace {

// One address in a compact form: "personal|adl|mailbox|host", with "-"
// for a null field; "G:name" opens a group and ";" closes it.
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
    for (const std::string& s : specs) {
      *tail = Addr(s);
      tail = &(*tail)->next;
    }
  }
  ~AddressList() { mail_free_address(&head); }
};

std::string Write(const std::vector<std::string>& specs) {
  AddressList list(specs);
  std::vector<char> buffer(4096, '\0');
  rfc822_write_address(buffer.data(), list.head);
  return buffer.data();
}

TEST(WriteAddress, FormsAndQuoting) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"-|-|a|b.org"}, "a@b.org"},
      {{"John Doe|-|jd|x.org"}, "John Doe <jd@x.org>"},
      {{"Doe, John|-|jd|x.org"}, "\"Doe, John\" <jd@x.org>"},
      {{"J. Doe|-|jd|x.org"}, "\"J. Doe\" <jd@x.org>"},
      {{"A \"B\" \\C|-|jd|x.org"}, "\"A \\\"B\\\" \\\\C\" <jd@x.org>"},
      {{"Line\r\nBreak|-|jd|x.org"}, "\"Line  Break\" <jd@x.org>"},
      {{"-|@r1,@r2|u|h"}, "<@r1,@r2:u@h>"},
      {{"P|@r1|u|h"}, "P <@r1:u@h>"},
      {{"-|-|u|@unknown"}, "u"},
      {{"Name|-|u|@"}, "Name <u>"},
      {{"Name|-||"}, "Name <>"},
      {{"-|-||"}, "<>"},
      {{"-|-|john.doe|h"}, "john.doe@h"},
      {{"-|-|john doe|h"}, "\"john doe\"@h"},
      {{"-|-|.lead|h"}, "\".lead\"@h"},
      // What a reader would lose unquoted: blanks at the ends, control
      // characters, a backslash in a host, an empty group name.
      {{" Lead|-|a|b"}, "\" Lead\" <a@b>"},
      {{"Jo\x1f|-|a|b"}, "\"Jo\x1f\" <a@b>"},
      {{"-|-|a|ho\\st"}, "a@ho\\\\st"},
      {{"G:", ";"}, "\"\": ;"},
      {{"-|-|a|b", "-|-|c|d"}, "a@b, c@d"},
      {{"G:Friends", "-|-|a|b", "-|-|c|d", ";"}, "Friends: a@b, c@d;"},
      {{"G:Friends", "-|-|a|b", ";", "-|-|e|f"}, "Friends: a@b;, e@f"},
      {{"G:Empty", ";"}, "Empty: ;"},
      {{"G:Odd: name", "-|-|a|b", ";"}, "\"Odd: name\": a@b;"},
      {{"G:Outer", "G:Inner", "-|-|a|b", ";", ";"}, "Outer: Inner: a@b;;"},
  };
  for (const auto& [specs, text] : cases) EXPECT_EQ(Write(specs), text) << specs[0];
}

TEST(WriteAddress, OneAddressIsTheBareAddress) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"John|-|jd|x.org", "jd@x.org"},
      {"-|@r|u|h", "@r:u@h"},
      {"-|-|u|@x", "u"},
      {"Name|-||", ""},
      {"G:Group", ""},
      {";", ""},
  };
  for (const auto& [input, text] : cases) {
    AddressList list({input});
    char buffer[64] = "";
    rfc822_write_one_address(buffer, list.head);
    EXPECT_STREQ(buffer, text.c_str()) << input;
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
  for (size_t size = 0; size <= full.size() + 8; ++size) {
    std::vector<char> buffer(size + 16, '#');
    if (size) buffer[0] = '\0';
    rfc822_write_address_limited(buffer.data(), size, list.head);
    for (size_t i = size; i < buffer.size(); ++i) ASSERT_EQ(buffer[i], '#') << "wrote past size " << size;
    if (!size) continue;
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

  // Where the mark fits before the address that doesn't.
  AddressList cut({"-|-|a|b", "-|-|" + std::string(50, 'l') + "|x"});
  for (const auto& [size, text] : std::vector<std::pair<size_t, std::string>>{
           {40, "a@b, " + mark}, {34, "a@b, " + mark}, {33, "a@b,"}, {4, ""}}) {
    std::vector<char> buffer(size, '\0');
    rfc822_write_address_limited(buffer.data(), size, cut.head);
    EXPECT_EQ(std::string(buffer.data()), text) << size;
  }
  std::vector<char> buffer(30, '\0');
  rfc822_write_address_limited(buffer.data(), buffer.size(), cut.head->next);
  EXPECT_EQ(std::string(buffer.data()), mark);
}

TEST(WriteAddress, AppendsAfterExistingText) {
  AddressList list({"-|-|a|b", "-|-|c|d"});
  char to[64] = "To: ";
  EXPECT_EQ(rfc822_write_address(to, list.head), to);
  EXPECT_STREQ(to, "To: a@b, c@d");
  char buffer[40] = "From: ";
  rfc822_write_address_limited(buffer, sizeof buffer, list.head);
  EXPECT_STREQ(buffer, "From: a@b, c@d");
  char full[10] = "123456789";  // no room at all
  rfc822_write_address_limited(full, sizeof full, list.head);
  EXPECT_STREQ(full, "123456789");
}

TEST(AddressLine, FoldsAt78ColumnsWithFourBlanks) {
  std::vector<std::string> specs;
  for (int i = 0; i < 12; ++i) specs.push_back("Person Number " + std::to_string(i) + "|-|person" + std::to_string(i) + "|example.org");
  AddressList list(specs);
  std::vector<char> buffer(4096, '\0');
  rfc822_address_line(buffer.data(), "To", list.head);
  const std::string line = buffer.data();
  ASSERT_EQ(line.rfind("To: ", 0), 0u);
  ASSERT_EQ(line.substr(line.size() - 2), "\r\n");
  size_t start = 0, lines = 0;
  for (size_t end; (end = line.find("\r\n", start)) != std::string::npos; start = end + 2, ++lines) {
    EXPECT_LE(end - start, 78u);
    if (lines) {
      EXPECT_EQ(line.compare(start, 4, "    "), 0);
      EXPECT_NE(line[start + 4], ' ');
    }
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
  EXPECT_EQ(std::string(small), "From: " + std::string(100, 'n') + " <u@h>\r\n");
  char none[8] = "";
  rfc822_address_line(none, "Cc", nullptr);
  EXPECT_STREQ(none, "");
}

// A part: type, subtype, encoding, parameters as "ATTR=value" pairs.
BodyPart* Part(unsigned short type, const char* subtype, unsigned short encoding,
               const std::vector<std::pair<std::string, std::string>>& params = {}) {
  BodyPart* b = mail_newbody();
  b->type = type;
  b->encoding = encoding;
  b->subtype = subtype ? cpystr(subtype) : nullptr;
  BodyParameter** tail = &b->parameter;
  for (const auto& [a, v] : params) {
    *tail = mail_newbody_parameter();
    (*tail)->attribute = cpystr(a.c_str());
    (*tail)->value = cpystr(v.c_str());
    tail = &(*tail)->next;
  }
  return b;
}

std::string BodyHeader(BodyPart* b) {
  char buffer[1024] = "";
  rfc822_write_body_header(buffer, b);
  mail_free_body(&b);
  return buffer;
}

TEST(BodyHeader, TypesParametersAndEncodings) {
  const std::string cte = "\r\nContent-Transfer-Encoding: ";
  EXPECT_EQ(BodyHeader(Part(TYPETEXT, nullptr, ENC7BIT)), "Content-Type: TEXT/PLAIN; CHARSET=US-ASCII\r\n");
  EXPECT_EQ(BodyHeader(Part(TYPETEXT, "HTML", ENCQUOTEDPRINTABLE, {{"CHARSET", "UTF-8"}})),
            "Content-Type: TEXT/HTML; CHARSET=UTF-8" + cte + "QUOTED-PRINTABLE\r\n");
  EXPECT_EQ(BodyHeader(Part(TYPEAPPLICATION, nullptr, ENCBASE64)), "Content-Type: APPLICATION/OCTET-STREAM" + cte + "BASE64\r\n");
  EXPECT_EQ(BodyHeader(Part(TYPEMULTIPART, nullptr, ENC7BIT, {{"BOUNDARY", "12-34-5=:67"}})),
            "Content-Type: MULTIPART/MIXED; BOUNDARY=\"12-34-5=:67\"\r\n");
  EXPECT_EQ(BodyHeader(Part(TYPEMESSAGE, nullptr, ENC8BIT)), "Content-Type: MESSAGE/RFC822" + cte + "8BIT\r\n");
  EXPECT_EQ(BodyHeader(Part(TYPEAUDIO, nullptr, ENCBINARY)), "Content-Type: AUDIO/BASIC" + cte + "BINARY\r\n");
  EXPECT_EQ(BodyHeader(Part(TYPEVIDEO, nullptr, ENCOTHER)), "Content-Type: VIDEO/UNKNOWN" + cte + "X-UNKNOWN\r\n");
  // Values are quoted on blanks, tspecials and ".", with quotes escaped.
  const std::vector<std::pair<std::string, std::string>> values = {
      {"plain", "plain"}, {"a b", "\"a b\""}, {"a.txt", "\"a.txt\""},
      {"a/b", "\"a/b\""},   {"", "\"\""},       {"say \"hi\"", "\"say \\\"hi\\\"\""},
  };
  for (const auto& [value, written] : values) {
    EXPECT_EQ(BodyHeader(Part(TYPEAPPLICATION, "X-THING", ENC7BIT, {{"NAME", value}})),
              "Content-Type: APPLICATION/X-THING; NAME=" + written + "\r\n")
        << value;
  }
  BodyPart* b = Part(TYPEIMAGE, "PNG", ENCBASE64, {{"NAME", "x"}, {"X-A", "1"}});
  b->id = cpystr("<part1@here>");
  b->description = cpystr("A picture");
  EXPECT_EQ(BodyHeader(b),
            "Content-Type: IMAGE/PNG; NAME=x; X-A=1\r\nContent-Transfer-Encoding: BASE64\r\n"
            "Content-ID: <part1@here>\r\nContent-Description: A picture\r\n");
}

Envelope* FullEnvelope() {
  Envelope* e = mail_newenvelope();
  e->newsgroups = cpystr("comp.mail");
  e->date = cpystr("Mon, 1 Jan 2001 10:00:00 +0000");
  e->from = Addr("Ann|-|ann|a.org");
  e->sender = Addr("-|-|sec|a.org");
  e->reply_to = Addr("-|-|list|a.org");
  e->subject = cpystr("Hello");
  e->to = Addr("-|-|bob|b.org");
  e->cc = Addr("-|-|cat|c.org");
  e->bcc = Addr("-|-|hidden|d.org");
  e->in_reply_to = cpystr("<1@a.org>");
  e->message_id = cpystr("<2@a.org>");
  e->extra_headers = mail_newextra();
  e->extra_headers->name = cpystr("X-Extra");
  e->extra_headers->value = cpystr("never written");
  return e;
}

TEST(Header, OrderMimeAndTheBlankLine) {
  Envelope* e = FullEnvelope();
  BodyPart* b = Part(TYPETEXT, "PLAIN", ENC7BIT);
  std::vector<char> buffer(4096, '\0');
  rfc822_header(buffer.data(), e, b);
  EXPECT_EQ(std::string(buffer.data()),
            "Newsgroups: comp.mail\r\n"
            "Date: Mon, 1 Jan 2001 10:00:00 +0000\r\n"
            "From: Ann <ann@a.org>\r\n"
            "Sender: sec@a.org\r\n"
            "Reply-To: list@a.org\r\n"
            "Subject: Hello\r\n"
            "To: bob@b.org\r\n"
            "cc: cat@c.org\r\n"
            "In-Reply-To: <1@a.org>\r\n"
            "Message-ID: <2@a.org>\r\n"
            "MIME-Version: 1.0\r\n"
            "Content-Type: TEXT/PLAIN; CHARSET=US-ASCII\r\n"
            "\r\n");

  // Resent: the original header first, without its blank line, then the
  // prefixed fields and no MIME headers.
  e->remail = cpystr("Received: by x\r\nSubject: Old\r\n\r\n");
  std::fill(buffer.begin(), buffer.end(), '\0');
  rfc822_header(buffer.data(), e, b);
  const std::string resent = buffer.data();
  EXPECT_EQ(resent.rfind("Received: by x\r\nSubject: Old\r\nReSent-Newsgroups: comp.mail\r\n", 0), 0u) << resent;
  EXPECT_NE(resent.find("\r\nReSent-cc: cat@c.org\r\nReSent-In-Reply-To: <1@a.org>\r\nReSent-Message-ID: <2@a.org>\r\n\r\n"),
            std::string::npos);
  EXPECT_EQ(resent.find("MIME-Version"), std::string::npos);
  EXPECT_EQ(resent.find("hidden"), std::string::npos) << "Bcc is never written";
  EXPECT_EQ(resent.find("X-Extra"), std::string::npos);
  mail_free_envelope(&e);
  mail_free_body(&b);
}

TEST(Header, ALineBreakInAValueStaysInsideTheHeader) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"one\r\nBcc: evil@x", "S: one\r\n Bcc: evil@x\r\n"},
      {"one\nBcc: evil@x", "S: one\r\n Bcc: evil@x\r\n"},
      {"folded\r\n\tline", "S: folded\r\n\tline\r\n"},
  };
  for (const auto& [text, line] : cases) {
    char buffer[128] = "";
    rfc822_output_header_line(buffer, "S", text.c_str());
    EXPECT_EQ(std::string(buffer), line);
  }
  char buffer[16] = "";
  rfc822_output_header_line(buffer, "S", nullptr);
  EXPECT_STREQ(buffer, "");
}

void AddPart(BodyPart* multipart, BodyPart* part) {
  BodyPartNode** tail = &multipart->parts;
  while (*tail) tail = &(*tail)->next;
  *tail = mail_newbody_part();
  (*tail)->body = *part;
  FS_GIVE(&part);  // its fields now belong to the node
}

void SetText(MailText** text, const std::string& data, int kind = kTextBinary) {
  *text = mail_newtext();
  mail_text_set(*text, kind, data.data(), data.size());
}

const char* Param(const BodyPart* b, const char* name) {
  for (const BodyParameter* p = b->parameter; p; p = p->next) {
    if (!strcasecmp(p->attribute, name)) return p->value;
  }
  return nullptr;
}

TEST(EncodeBody, EncodingsAndBoundaries) {
  BodyPart* top = Part(TYPEMULTIPART, "MIXED", ENCBASE64);
  AddPart(top, Part(TYPETEXT, "PLAIN", ENC8BIT));
  AddPart(top, Part(TYPEAPPLICATION, "PDF", ENCBINARY));
  BodyPart* seven = Part(TYPETEXT, "PLAIN", ENC7BIT);
  SetText(&seven->contents, "says 7bit but isn't: \xe9");
  AddPart(top, seven);
  BodyPart* clean = Part(TYPETEXT, "PLAIN", ENC7BIT);
  SetText(&clean->contents, "really 7bit\r\n");
  AddPart(top, clean);
  BodyPart* message = Part(TYPEMESSAGE, "RFC822", ENC8BIT);
  SetText(&message->msg_text, "Subject: x\r\n\r\n\xe9\r\n");
  message->msg_body = Part(TYPETEXT, "PLAIN", ENC8BIT);
  AddPart(top, message);
  BodyPart* inner = Part(TYPEMULTIPART, "ALTERNATIVE", ENC7BIT);
  AddPart(inner, Part(TYPETEXT, "PLAIN", ENCBINARY));
  AddPart(top, inner);

  rfc822_encode_body(nullptr, top);
  BodyPartNode* n = top->parts;
  EXPECT_EQ(top->encoding, ENC7BIT) << "a multipart is never encoded as a whole";
  EXPECT_EQ(n->body.encoding, ENCQUOTEDPRINTABLE);
  EXPECT_EQ(n->next->body.encoding, ENCBASE64);
  EXPECT_EQ(n->next->next->body.encoding, ENCQUOTEDPRINTABLE);
  EXPECT_EQ(n->next->next->next->body.encoding, ENC7BIT);
  BodyPart* m = &n->next->next->next->next->body;
  EXPECT_EQ(m->encoding, ENC8BIT);
  EXPECT_EQ(m->msg_body->encoding, ENC8BIT) << "the structure of a message sent from its text is left alone";
  BodyPart* alt = &n->next->next->next->next->next->body;
  EXPECT_EQ(alt->parts->body.encoding, ENCBASE64);

  const std::regex form("[0-9]+-[0-9]+-[0-9]+=:[0-9]+");
  ASSERT_TRUE(Param(top, "BOUNDARY"));
  ASSERT_TRUE(Param(alt, "BOUNDARY"));
  EXPECT_TRUE(std::regex_match(Param(top, "BOUNDARY"), form)) << Param(top, "BOUNDARY");
  EXPECT_STRNE(Param(top, "BOUNDARY"), Param(alt, "BOUNDARY"));
  EXPECT_EQ(std::string(Param(top, "BOUNDARY")).rfind(std::to_string(getpid()) + "-", 0), 0u);
  // A boundary that is there stays, in whatever form it was written.
  const std::string kept = Param(top, "BOUNDARY");
  rfc822_encode_body(nullptr, top);
  EXPECT_EQ(kept, Param(top, "BOUNDARY"));
  mail_free_body(&top);
  BodyPart* split = Part(TYPEMULTIPART, "SIGNED", ENC7BIT, {{"BOUNDARY*0", "ab"}, {"BOUNDARY*1", "c"}});
  rfc822_encode_body(nullptr, split);
  EXPECT_EQ(Param(split, "BOUNDARY"), nullptr);
  mail_free_body(&split);
}

TEST(EncodeBody, AnEncodedMessagePartIsFatal) {
  BodyPart* top = Part(TYPEMULTIPART, "MIXED", ENC7BIT);
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
  for (int i = 0; i < 256; ++i) s += static_cast<char>(i);
  return s + s;
}

// A message of every kind of part: 8-bit text, binary, a file, a nested
// multipart and a nested message built from its structure.
void BuildMessage(Envelope** env, BodyPart** body, const std::string& file) {
  *env = mail_newenvelope();
  (*env)->from = Addr("Ann|-|ann|a.org");
  (*env)->to = Addr("-|-|bob|b.org");
  (*env)->subject = cpystr("Round trip");
  BodyPart* top = Part(TYPEMULTIPART, "MIXED", ENC7BIT);
  BodyPart* text = Part(TYPETEXT, "PLAIN", ENC8BIT, {{"CHARSET", "ISO-8859-1"}});
  SetText(&text->contents, "caf\xe9 = costly \r\nsecond line  \r\n", kTextInMemory);
  AddPart(top, text);
  BodyPart* bin = Part(TYPEAPPLICATION, "OCTET-STREAM", ENCBINARY, {{"NAME", "all.bin"}});
  SetText(&bin->contents, AllBytes());
  AddPart(top, bin);
  BodyPart* spooled = Part(TYPEAPPLICATION, "OCTET-STREAM", ENCBASE64);
  SetText(&spooled->contents, file, kTextFile);
  AddPart(top, spooled);
  BodyPart* alt = Part(TYPEMULTIPART, "ALTERNATIVE", ENC7BIT);
  BodyPart* plain = Part(TYPETEXT, "PLAIN", ENC7BIT);
  SetText(&plain->contents, "no line end at the end", kTextInMemory);
  AddPart(alt, plain);
  AddPart(top, alt);
  BodyPart* message = Part(TYPEMESSAGE, "RFC822", ENC7BIT);
  message->msg_env = mail_newenvelope();
  message->msg_env->subject = cpystr("Inner");
  message->msg_body = Part(TYPETEXT, "PLAIN", ENC8BIT);
  SetText(&message->msg_body->contents, "inner \xe9\r\n", kTextInMemory);
  AddPart(top, message);
  *body = top;
}

std::string Decode(const BodyPart& part, const std::string& raw) {
  unsigned long n = 0;
  unsigned char* d = nullptr;
  const unsigned char* s = reinterpret_cast<const unsigned char*>(raw.data());
  if (part.encoding == ENCBASE64) d = rfc822_base64(s, raw.size(), &n);
  if (part.encoding == ENCQUOTEDPRINTABLE) d = rfc822_qprint(s, raw.size(), &n);
  if (!d) return raw;
  std::string out(reinterpret_cast<char*>(d), n);
  FS_GIVE(&d);
  return out;
}

TEST(Output, AWholeMessageParsesBackToWhatWasWritten) {
  char file[] = "/tmp/velmar-write-test-XXXXXX";
  const int fd = mkstemp(file);
  ASSERT_GE(fd, 0);
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
  for (unsigned char c : msg) ASSERT_LT(c, 0x80) << "everything goes 7-bit";
  size_t start = 0;
  for (size_t end; (end = msg.find("\r\n", start)) != std::string::npos; start = end + 2) {
    ASSERT_LE(end - start, 998u);
    ASSERT_EQ(msg.substr(start, end - start).find_first_of("\r\n"), std::string::npos) << "bare line end";
  }

  const size_t split = msg.find("\r\n\r\n");
  ASSERT_NE(split, std::string::npos);
  std::string header = msg.substr(0, split + 4);
  std::string text = msg.substr(split + 4);
  StringSource bs;
  string_init(&bs, &mail_string, text.data(), text.size());
  std::vector<char> work(kRfc822WorkSize);
  Envelope* penv = nullptr;
  BodyPart* pbody = nullptr;
  rfc822_parse_msg(&penv, &pbody, header.data(), header.size(), &bs, "local", work.data());
  ASSERT_TRUE(penv && pbody);
  EXPECT_STREQ(penv->subject, "Round trip");
  ASSERT_EQ(pbody->type, TYPEMULTIPART);
  EXPECT_STREQ(Param(pbody, "BOUNDARY"), Param(body, "BOUNDARY"));

  std::vector<const BodyPartNode*> parts;
  for (const BodyPartNode* n = pbody->parts; n; n = n->next) parts.push_back(n);
  ASSERT_EQ(parts.size(), 5u);
  auto content = [&](const BodyPartNode* n) { return Decode(n->body, text.substr(n->offset, n->body.size_raw)); };
  EXPECT_EQ(parts[0]->body.encoding, ENCQUOTEDPRINTABLE);
  EXPECT_EQ(content(parts[0]), "caf\xe9 = costly \r\nsecond line  \r\n");
  EXPECT_STREQ(Param(&parts[0]->body, "CHARSET"), "ISO-8859-1");
  EXPECT_EQ(parts[1]->body.encoding, ENCBASE64);
  EXPECT_EQ(content(parts[1]), AllBytes());
  EXPECT_STREQ(Param(&parts[1]->body, "NAME"), "all.bin");
  EXPECT_EQ(content(parts[2]), file_data);
  ASSERT_EQ(parts[3]->body.type, TYPEMULTIPART);
  const BodyPartNode* alt = parts[3]->body.parts;
  ASSERT_TRUE(alt);
  EXPECT_EQ(text.substr(alt->offset, alt->body.size_raw), "no line end at the end");
  ASSERT_EQ(parts[4]->body.type, TYPEMESSAGE);
  ASSERT_TRUE(parts[4]->body.msg_env && parts[4]->body.msg_body);
  EXPECT_STREQ(parts[4]->body.msg_env->subject, "Inner");
  EXPECT_EQ(parts[4]->body.msg_body->encoding, ENCQUOTEDPRINTABLE);

  mail_free_envelope(&penv);
  mail_free_body(&pbody);
  mail_free_envelope(&env);
  mail_free_body(&body);
  unlink(file);
}

TEST(Output, AFailedWriteStopsAtOnceAndReturnsZero) {
  Envelope* env;
  BodyPart* body;
  BuildMessage(&env, &body, "/nonexistent/velmar-part");
  // The missing file fails the output with an error, whatever came before.
  mail_env_clear();
  std::vector<char> buffer(8192);
  Out all;
  EXPECT_EQ(rfc822_output(buffer.data(), env, body, Collect, &all), 0);
  bool logged = false;
  for (const MailEnvLine& l : mail_env_lines()) logged |= l.callback == "log" && l.level == 2;
  EXPECT_TRUE(logged);
  // Point the part at an empty text instead and fail each write in turn.
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

}  // namespace
