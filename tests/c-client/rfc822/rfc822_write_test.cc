// Writing addresses, headers and part headers, encoding a body tree for sending, and writing whole messages that
// the parser reads back.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "c-client/core/mail.h"
#include "c-client/core/plain_env.h"
#include "c-client/rfc822/rfc822.h"
#include "c-client/rfc822/rfc822_write.h"
#include "c-client/rfc822/strsrc.h"
#include "tests/c-client/core/records_dump.h"

namespace {

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

std::string Decode(const BodyPart& part, const std::string& raw) {
  unsigned long n = 0;
  const unsigned char* s = reinterpret_cast<const unsigned char*>(raw.data());
  unsigned char* d = part.encoding == ENCBASE64             ? rfc822_base64(s, raw.size(), &n)
                     : part.encoding == ENCQUOTEDPRINTABLE ? rfc822_qprint(s, raw.size(), &n)
                                                           : nullptr;
  if (!d) return raw;
  std::string out(reinterpret_cast<char*>(d), n);
  FS_GIVE(&d);
  return out;
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

  std::string header = msg.substr(0, msg.find("\r\n\r\n") + 4), text = msg.substr(header.size());
  StringSource bs;
  string_init(&bs, &mail_string, text.data(), text.size());
  std::vector<char> work(kRfc822WorkSize);
  Envelope* penv = nullptr;
  BodyPart* pbody = nullptr;
  rfc822_parse_msg(&penv, &pbody, header.data(), header.size(), &bs, "local", work.data());
  ASSERT_TRUE(penv && pbody && pbody->type == TYPEMULTIPART);
  EXPECT_STREQ(penv->subject, "Round trip");
  EXPECT_STREQ(Param(pbody, "BOUNDARY"), Param(body, "BOUNDARY"));
  std::vector<const BodyPartNode*> parts;
  for (const BodyPartNode* n = pbody->parts; n; n = n->next) parts.push_back(n);
  ASSERT_EQ(parts.size(), 6u);
  auto content = [&](const BodyPartNode* n) { return Decode(n->body, text.substr(n->offset, n->body.size_raw)); };
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
  mail_free_envelope(&penv);
  mail_free_body(&pbody);

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

}  // namespace
