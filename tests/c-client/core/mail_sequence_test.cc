// Sequence texts and body section numbers: the two small languages the
// core parses on behalf of the drivers.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "c-client/core/mail.h"
#include "c-client/core/plain_env.h"
#include "tests/c-client/core/env_lines.h"

namespace {

class Sequences : public ::testing::Test {
 protected:
  void SetUp() override {
    mailcache = mm_cache;
    stream_ = static_cast<MailStream*>(FS_GET(sizeof(MailStream)));
    stream_->silent = 1;
    mailcache(stream_, 0, CH_INIT);
    mail_exists(stream_, 5);
    mail_env_clear();
  }
  void TearDown() override {
    mailcache(stream_, 0, CH_INIT);
    FS_GIVE(&stream_);
    mail_env_clear();
  }

  std::set<unsigned long> Marked() {
    std::set<unsigned long> out;
    for (unsigned long i = 1; i <= stream_->nmsgs; ++i)
      if (auto* e = static_cast<MessageElt*>(mailcache(stream_, i, CH_ELT)); e && e->sequence) out.insert(i);
    return out;
  }

  MailStream* stream_ = nullptr;
};

TEST_F(Sequences, MarksOrExplains) {
  struct Row {
    const char* text;
    long result;
    std::set<unsigned long> marked;
    const char* error;
  } rows[] = {
      {"1", 1, {1}, nullptr},
      {"2:4", 1, {2, 3, 4}, nullptr},
      {"5:2", 1, {2, 3, 4, 5}, nullptr},
      {"1,3:4", 1, {1, 3, 4}, nullptr},
      {"4:4,1", 1, {1, 4}, nullptr},
      {"1,", 1, {1}, nullptr},
      {"", 1, {}, nullptr},
      {"0", 0, {}, "Sequence invalid"},
      {"6", 0, {}, "Sequence invalid"},
      {"x", 0, {}, "Sequence invalid"},
      {"-1", 0, {}, "Sequence invalid"},
      {"2,9", 0, {2}, "Sequence invalid"},
      {"1,,2", 0, {1}, "Sequence invalid"},
      {"99999999999999999999999", 0, {}, "Sequence invalid"},
      {"1x", 0, {}, "Syntax error in sequence"},
      {"1 ", 0, {}, "Syntax error in sequence"},
      {"3,1;2", 0, {3}, "Syntax error in sequence"},
      {"1:6", 0, {}, "Sequence range invalid"},
      {"1:0", 0, {}, "Sequence range invalid"},
      {"1:", 0, {}, "Sequence range invalid"},
      {"1:3x", 0, {}, "Sequence range invalid"},
      {"1:3:4", 0, {}, "Sequence range invalid"},
      {"2,1:99999999999999999999", 0, {2}, "Sequence range invalid"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string("\"") + r.text + "\"");
    // Marks of an earlier call never survive into the next.
    ASSERT_EQ(mail_sequence(stream_, "1:5"), 1);
    mail_env_clear();
    EXPECT_EQ(mail_sequence(stream_, r.text), r.result);
    EXPECT_EQ(Marked(), r.marked);
    EXPECT_EQ(EnvLines("log", true),
              r.error ? std::vector<std::string>{std::string(r.error) + " @2"} : std::vector<std::string>{});
  }
}

// A message with this structure:
//   1 text/plain                        offset 100
//   2 message/rfc822  (msg_offset 40)   offset 300
//       1 text/plain                    offset 7
//       2 multipart/alternative         offset 60
//           1 text/plain                offset 5
//           2 text/html                 offset 80
//   3 application/octet-stream          offset 900
struct Tree {
  BodyPart *root, *text1, *msg2, *inner1, *alt, *alt1, *alt2, *app3;
};

BodyPartNode* Node(unsigned short type, const char* subtype, unsigned long offset) {
  BodyPartNode* n = mail_newbody_part();
  n->body.type = type;
  n->body.subtype = cpystr(subtype);
  n->offset = offset;
  return n;
}

// Makes a multipart of the given parts, in order.
BodyPart* Multipart(BodyPart* b, std::vector<BodyPartNode*> parts) {
  b->type = TYPEMULTIPART;
  for (size_t i = parts.size(); i-- > 0;) {
    parts[i]->next = b->parts;
    b->parts = parts[i];
  }
  return b;
}

Tree BuildTree() {
  BodyPartNode *p1 = Node(TYPETEXT, "PLAIN", 100), *p2 = Node(TYPEMESSAGE, "RFC822", 300),
               *p3 = Node(TYPEAPPLICATION, "OCTET-STREAM", 900), *i1 = Node(TYPETEXT, "PLAIN", 7),
               *i2 = Node(TYPEMULTIPART, "ALTERNATIVE", 60), *a1 = Node(TYPETEXT, "PLAIN", 5),
               *a2 = Node(TYPETEXT, "HTML", 80);
  p2->body.msg_offset = 40;
  p2->body.msg_body = Multipart(mail_newbody(), {i1, i2});
  Multipart(&i2->body, {a1, a2});
  return {Multipart(mail_newbody(), {p1, p2, p3}), &p1->body, &p2->body, &i1->body, &i2->body, &a1->body, &a2->body,
          &p3->body};
}

TEST(BodySection, WalksPartsAndMessages) {
  Tree t = BuildTree();
  struct Row {
    const char* section;
    BodyPart* part;
    unsigned long offset;
  } rows[] = {
      {"1", t.text1, 100},
      {"2", t.msg2, 300},
      {"3", t.app3, 900},
      {"2.1", t.inner1, 40 + 7},
      {"2.2", t.alt, 40 + 60},
      // The offset is the last part's own plus the messages entered on the way.
      {"2.2.1", t.alt1, 40 + 5},
      {"2.2.2", t.alt2, 40 + 80},
  };
  for (const Row& r : rows) {
    unsigned long offset = 12345;
    EXPECT_EQ(mail_body_section(t.root, r.section, &offset), r.part) << r.section;
    EXPECT_EQ(offset, r.offset) << r.section;
  }
  // "1.1": a text part has no parts.
  for (const char* none : {"4", "0", "2.0", "2.3", "1.1", "2.1.1", "2.", ".1", "1..2", "x", "1x", "2.2.2.2.2.2.2.2",
                           "99999999999999999999"}) {
    unsigned long offset;
    EXPECT_EQ(mail_body_section(t.root, none, &offset), nullptr) << none;
  }
  mail_free_body(&t.root);
}

TEST(BodySection, SinglePartAndMessageBodies) {
  BodyPart* text = mail_newbody();
  unsigned long offset = 9;
  EXPECT_EQ(mail_body_section(text, "1", &offset), text);
  EXPECT_EQ(offset, 0u);
  EXPECT_EQ(mail_body_section(text, "", &offset), text);
  EXPECT_EQ(mail_body_section(text, "2", &offset), nullptr);
  EXPECT_EQ(mail_body_section(text, "1.1", &offset), nullptr);
  mail_free_body(&text);

  // A message whose whole body is a message: "1" is the body itself; other
  // numbers are parts of the message inside.
  Tree t = BuildTree();
  BodyPart* outer = mail_newbody();
  outer->type = TYPEMESSAGE;
  outer->subtype = cpystr("RFC822");
  outer->msg_offset = 1000;
  outer->msg_body = t.root;
  EXPECT_EQ(mail_body_section(outer, "1", &offset), outer);
  EXPECT_EQ(mail_body_section(outer, "2", &offset), t.msg2);
  EXPECT_EQ(offset, 1000u + 300u);
  EXPECT_EQ(mail_body_section(outer, "2.2.1", &offset), t.alt1);
  EXPECT_EQ(offset, 1000u + 40u + 5u);
  mail_free_body(&outer);

  // A message that isn't RFC822 has no numbered parts.
  BodyPart* partial = mail_newbody();
  partial->type = TYPEMESSAGE;
  partial->subtype = cpystr("PARTIAL");
  EXPECT_EQ(mail_body_section(partial, "2", &offset), nullptr);
  mail_free_body(&partial);
  EXPECT_EQ(mail_body_section(nullptr, "1", &offset), nullptr);
}

}  // namespace
