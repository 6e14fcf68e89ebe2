// Sequence texts and body section numbers: the two small languages the
// core parses on behalf of the drivers.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "c-client/core/mail.h"
#include "c-client/core/plain_env.h"
#include "tests/c-client/core/env_lines.h"

namespace {

TEST(Sequences, MarksOrExplains) {
  mailcache = mm_cache;
  MailStream stream{};
  stream.silent = 1;
  mail_exists(&stream, 5);
  // The text, then the messages marked and the complaint at level 2.
  const std::pair<const char*, std::string> rows[] = {
      {"1", "1 "}, {"2:4", "2 3 4 "}, {"5:2", "2 3 4 5 "}, {"1,3:4", "1 3 4 "}, {"4:4,1", "1 4 "}, {"1,", "1 "}, {"", ""},
      {"0", "Sequence invalid"}, {"6", "Sequence invalid"}, {"x", "Sequence invalid"}, {"-1", "Sequence invalid"},
      {"2,9", "2 Sequence invalid"}, {"1,,2", "1 Sequence invalid"}, {"99999999999999999999999", "Sequence invalid"},
      {"1x", "Syntax error in sequence"}, {"1 ", "Syntax error in sequence"}, {"3,1;2", "3 Syntax error in sequence"},
      {"1:6", "Sequence range invalid"}, {"1:0", "Sequence range invalid"}, {"1:", "Sequence range invalid"},
      {"1:3x", "Sequence range invalid"}, {"1:3:4", "Sequence range invalid"},
      {"2,1:99999999999999999999", "2 Sequence range invalid"},
  };
  for (const auto& [text, outcome] : rows) {
    // Marks of an earlier call never survive into the next.
    ASSERT_EQ(mail_sequence(&stream, "1:5"), 1);
    mail_env_clear();
    long result = mail_sequence(&stream, text);
    std::string got;
    for (unsigned long i = 1; i <= 5; ++i) got += mail_elt(&stream, i)->sequence ? std::to_string(i) + " " : "";
    for (const std::string& complaint : EnvLines("log", true)) got += complaint;
    EXPECT_EQ(got, outcome + (result ? "" : " @2")) << '"' << text << '"';
    EXPECT_EQ(result, outcome.find("Seq") == std::string::npos && outcome.find("Syn") == std::string::npos);
  }
  mailcache(&stream, 0, CH_INIT);
  mail_env_clear();
}

BodyPartNode* Node(unsigned short type, unsigned long offset, std::vector<BodyPartNode*> parts = {}) {
  BodyPartNode* n = mail_newbody_part();
  n->body.type = type;
  n->body.subtype = cpystr(type == TYPEMESSAGE ? "RFC822" : "X");
  n->offset = offset;
  for (size_t i = parts.size(); i-- > 0;) {
    parts[i]->next = n->body.parts;
    n->body.parts = parts[i];
  }
  return n;
}

TEST(BodySection, WalksPartsAndMessages) {
  // 1 text at 100, 2 message at 300 (its body at 40) holding 1 text at 7
  // and 2 a multipart at 60 of two texts at 5 and 80, 3 a text at 900, 4 a
  // message of 500 bytes (its body at 30) whose one text part is 380.
  BodyPartNode *a1 = Node(TYPETEXT, 5), *a2 = Node(TYPETEXT, 80), *alt = Node(TYPEMULTIPART, 60, {a1, a2}),
               *inner1 = Node(TYPETEXT, 7), *text1 = Node(TYPETEXT, 100), *msg2 = Node(TYPEMESSAGE, 300),
               *app3 = Node(TYPEAPPLICATION, 900), *msg4 = Node(TYPEMESSAGE, 1200),
               *root = Node(TYPEMULTIPART, 0, {text1, msg2, app3, msg4});
  BodyPartNode* inner = Node(TYPEMULTIPART, 0, {inner1, alt});
  msg2->body.msg_offset = 40;
  msg2->body.msg_body = &inner->body;
  msg4->body.msg_offset = 30;
  msg4->body.size_bytes = 500;
  msg4->body.msg_body = mail_newbody();
  msg4->body.msg_body->size_bytes = 380;
  const std::tuple<const char*, BodyPartNode*, unsigned long> rows[] = {
      {"1", text1, 100}, {"2", msg2, 300}, {"3", app3, 900}, {"2.1", inner1, 40 + 7}, {"2.2", alt, 40 + 60},
      // The offset is the last part's own plus the messages entered on the way.
      {"2.2.1", a1, 40 + 5}, {"2.2.2", a2, 40 + 80}, {"4", msg4, 1200},
  };
  for (const auto& [section, part, offset] : rows) {
    unsigned long got = 12345;
    EXPECT_EQ(mail_body_section(&root->body, section, &got), &part->body) << section;
    EXPECT_EQ(got, offset) << section;
  }
  unsigned long got = 0;
  // Its "1" has no node: it starts past the enclosed header (500 - 380).
  EXPECT_EQ(mail_body_section(&root->body, "4.1", &got), msg4->body.msg_body);
  EXPECT_EQ(got, 30u + 1200u + 120u);
  // "1.1": a text part has no parts.
  for (const char* none : {"5", "0", "2.0", "2.3", "1.1", "2.1.1", "2.", ".1", "1..2", "x", "1x", "2.2.2.2.2.2.2.2", "4.2", "4.1.1",
                           "99999999999999999999"})
    EXPECT_EQ(mail_body_section(&root->body, none, nullptr), nullptr) << none;
  // A message whose whole body is a message: "1" is the body itself; other
  // numbers are parts of the message inside.
  unsigned long offset = 0;
  EXPECT_EQ(mail_body_section(&msg2->body, "1", &offset), &msg2->body);
  EXPECT_EQ(mail_body_section(&msg2->body, "2.2", &offset), &a2->body);
  EXPECT_EQ(offset, 40u + 80u);
  msg2->body.msg_body = nullptr;
  mail_free_body_part(&inner);
  mail_free_body_part(&root);

  // A single part is its own "1"; a message that isn't RFC822 has no
  // numbered parts.
  BodyPart* single = mail_newbody();
  EXPECT_EQ(mail_body_section(single, "", &offset), single);
  single->type = TYPEMESSAGE;
  single->subtype = cpystr("PARTIAL");
  EXPECT_EQ(mail_body_section(single, "2", &offset), nullptr);
  mail_free_body(&single);
  EXPECT_EQ(mail_body_section(nullptr, "1", &offset), nullptr);
}

}  // namespace
