// The MH folder's index and structure records against fixed bytes, and the
// limits of the structure reader and writer. Damaged records are the
// corpus of fuzz_mh_structure, whose replay fails on any that reads back
// as something else.
#include "c-client/mh/mh_format.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "c-client/core/plain_env.h"
#include "tests/c-client/core/records_dump.h"

namespace {

using Bytes = std::string;

// Pairs of hex digits, blanks between them ignored.
Bytes H(const char* hex) {
  Bytes out;
  for (const char* p = hex; *p; ++p)
    if (*p != ' ') out += static_cast<char>(std::stoi(std::string(p, 2), nullptr, 16)), ++p;
  return out;
}

// The bytes of a string with its zero; its length is written by hand.
Bytes Z(const char* text) { return Bytes(text, std::strlen(text) + 1); }

// --- Index ---------------------------------------------------------------------

TEST(MhIndex, HeaderAndRecordBytes) {
  const Bytes header_bytes = H("06100000 03000000 02000000 11000000");
  const MhIndexHeader header{4102, 3, 2, 17};
  uint8_t out[kMhHeaderSize];
  mh_encode_header(header, out);
  EXPECT_EQ(Bytes(reinterpret_cast<char*>(out), sizeof out), header_bytes);
  MhIndexHeader back{};
  ASSERT_TRUE(mh_decode_header(reinterpret_cast<const uint8_t*>(header_bytes.data()), header_bytes.size(), &back));
  EXPECT_EQ(std::memcmp(&back, &header, sizeof back), 0);
  EXPECT_FALSE(mh_decode_header(reinterpret_cast<const uint8_t*>(header_bytes.data()), kMhHeaderSize - 1, &back));

  // The fields in order, little-endian, flags seen, flagged, answered and
  // draft, user flags 0 and 31; the reserved bytes are kept as found.
  const Bytes record_bytes =
      H("07000000 80009265 d2040000 c8010000 00100000 c8000000 96000000 00019265 55000000 01000080 "
        "0102030405060708090a0b0c");
  MhIndexRecord record{7, 1704067200, 1234, 456, 4096, 200, 150, 0x65920100,
                       kMhSeen | kMhFlagged | kMhAnswered | kMhDraft, 0x80000001u, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}};
  ASSERT_EQ(record_bytes.size(), kMhRecordSize);
  uint8_t rec[kMhRecordSize];
  mh_encode_record(record, rec);
  EXPECT_EQ(Bytes(reinterpret_cast<char*>(rec), sizeof rec), record_bytes);
  MhIndexRecord r{};
  mh_decode_record(reinterpret_cast<const uint8_t*>(record_bytes.data()), &r);
  EXPECT_EQ(std::memcmp(&r, &record, sizeof r), 0);
}

// --- Structure fixtures --------------------------------------------------------------

void SetPart(BodyPart* b, unsigned short type, unsigned short encoding, const char* subtype, unsigned long lines,
             unsigned long bytes) {
  b->type = type;
  b->encoding = encoding;
  b->subtype = cpystr(subtype);
  b->size_lines = lines;
  b->size_bytes = b->size_raw = bytes;
}

// multipart/MIXED (boundary) of text/PLAIN (two parameters) and a
// message/RFC822 that holds a text/PLAIN.
BodyPart* FixtureBody() {
  BodyPart* body = mail_newbody();
  SetPart(body, TYPEMULTIPART, ENC7BIT, "MIXED", 20, 600);
  body->parameter = Parameter("BOUNDARY", "b1");
  BodyPartNode* first = mail_newbody_part();
  first->offset = 100;
  SetPart(&first->body, TYPETEXT, ENCQUOTEDPRINTABLE, "PLAIN", 3, 50);
  first->body.parameter = Parameter("CHARSET", "US-ASCII", Parameter("FORMAT", "flowed"));
  BodyPartNode* second = mail_newbody_part();
  second->offset = 200;
  SetPart(&second->body, TYPEMESSAGE, ENC7BIT, "RFC822", 10, 300);
  second->body.id = cpystr("<p2@x>");
  second->body.description = cpystr("Forwarded");
  second->body.msg_env = mail_newenvelope();
  second->body.msg_env->subject = cpystr("Inner");
  second->body.msg_body = mail_newbody();
  SetPart(second->body.msg_body, TYPETEXT, ENC8BIT, "PLAIN", 2, 20);
  first->next = second;
  body->parts = first;
  return body;
}

const Bytes kFixtureBody =
    H("58020000 0100 0000") +                          // 600, multipart, 7bit
    H("06000000") + Z("MIXED") + H("00000000 00000000") +  // subtype, no id, no description
    H("14000000 58020000 58020000") +                  // lines 20, bytes 600, raw 600
    H("59020000 09000000") + Z("BOUNDARY") + H("03000000") + Z("b1") +  // 601
    H("5a020000") +                                    // 602
    H("5d020000 64000000") +                           // 605, offset 100
    H("58020000 0000 0400") +                          //   600, text, quoted-printable
    H("06000000") + Z("PLAIN") + H("00000000 00000000") +  //
    H("03000000 32000000 32000000") +                  //   3, 50, 50
    H("59020000 08000000") + Z("CHARSET") + H("09000000") + Z("US-ASCII") +
    H("59020000 07000000") + Z("FORMAT") + H("07000000") + Z("flowed") +
    H("5a020000 bb020000") +                           //   602 699
    H("5d020000 c8000000") +                           // 605, offset 200
    H("58020000 0200 0000") +                          //   600, message, 7bit
    H("07000000") + Z("RFC822") + H("07000000") + Z("<p2@x>") + H("0a000000") + Z("Forwarded") +
    H("0a000000 2c010000 2c010000") +                  //   10, 300, 300
    H("5a020000") +                                    //   602
    H("f4010000 f7010000 06000000") + Z("Inner") + H("57020000") +  // envelope
    H("58020000 0000 0100") +                          //   600, text, 8bit
    H("06000000") + Z("PLAIN") + H("00000000 00000000") +
    H("02000000 14000000 14000000") +                  //   2, 20, 20
    H("5a020000 bb020000") +                           //   602 699
    H("bb020000") +                                    //   699
    H("5e020000 bb020000");                            // 606 699

const uint8_t* U(const Bytes& b) { return reinterpret_cast<const uint8_t*>(b.data()); }

// Every envelope field set once, in the order the writer puts them.
Envelope* EveryField() {
  Envelope* env = mail_newenvelope();
  env->remail = cpystr("not stored");
  env->return_path = Address(nullptr, "r", nullptr);
  env->date = cpystr("d");
  env->from = Address(nullptr, "f", nullptr);
  env->sender = Address(nullptr, "s", nullptr);
  env->reply_to = Address(nullptr, "y", nullptr);
  env->subject = cpystr("j");
  env->to = Address("Bob", "t", "example.org", Address(nullptr, "u", nullptr));
  env->cc = Address(nullptr, "c", nullptr);
  env->bcc = Address(nullptr, "b", nullptr);
  env->bcc->error = cpystr("not stored either");
  env->in_reply_to = cpystr("i");
  env->message_id = cpystr("m");
  env->newsgroups = cpystr("n");
  env->extra_headers = mail_newextra();
  env->extra_headers->name = cpystr("X-A");
  env->extra_headers->value = cpystr("1");
  env->extra_headers->next = mail_newextra();
  env->extra_headers->next->name = cpystr("X-B");
  return env;
}

Bytes Addr(const char* tag, const char* mailbox) { return H(tag) + H("00000000 00000000 02000000") + Z(mailbox) + H("00000000"); }
Bytes Str(const char* tag, const char* s) { return H(tag) + H("02000000") + Z(s); }

const Bytes kEveryField =
    H("f4010000") + Addr("f9010000", "r") + Str("fa010000", "d") + Addr("f5010000", "f") + Addr("fb010000", "s") +
    Addr("f8010000", "y") + Str("f7010000", "j") +                                               //
    H("f6010000 04000000") + Z("Bob") + H("00000000 02000000") + Z("t") + H("0c000000") + Z("example.org") +  //
    Addr("f6010000", "u") + Addr("fc010000", "c") + Addr("fd010000", "b") + Str("fe010000", "i") +
    Str("ff010000", "m") + Str("00020000", "n") +                    //
    H("03020000 04000000") + Z("X-A") + H("02000000") + Z("1") +    // 515
    H("03020000 04000000") + Z("X-B") + H("00000000") + H("57020000");

// The bytes are fixed; what is read back is the structure with every list
// turned round (parts keep their order), so that read and written twice it
// gives the same bytes again.
TEST(MhStructure, WriterAndReaderAgainstFixedBytes) {
  Envelope* env = EveryField();
  BodyPart* body = FixtureBody();
  EXPECT_EQ(mh_encode_envelope(env), kEveryField);
  EXPECT_EQ(mh_encode_body(body), kFixtureBody);
  mail_free_envelope(&env);
  mail_free_body(&body);

  const Bytes record = kEveryField + kFixtureBody;
  const uint8_t* p = U(record);
  ASSERT_TRUE(mh_decode_envelope(&p, U(record) + record.size(), &env));
  EXPECT_EQ(p, U(record) + kEveryField.size()) << "each reader stops at its own end";
  ASSERT_TRUE(mh_decode_body(&p, U(record) + record.size(), &body));
  EXPECT_EQ(p, U(record) + record.size());
  EXPECT_EQ(env->remail, nullptr);
  EXPECT_EQ(env->bcc->error, nullptr);
  ASSERT_TRUE(env->to && env->to->next && body->parts && body->parts->next);
  EXPECT_STREQ(env->to->mailbox, "u");
  EXPECT_EQ(body->parts->offset, 100u);
  for (int round = 0; round < 2; ++round) {
    const Bytes again = mh_encode_envelope(env) + mh_encode_body(body);
    EXPECT_EQ(again == record, round == 1) << "lists turned round once more each time";
    mail_free_envelope(&env);
    mail_free_body(&body);
    p = U(again);
    ASSERT_TRUE(mh_decode_envelope(&p, U(again) + again.size(), &env) && mh_decode_body(&p, U(again) + again.size(), &body));
  }
  mail_free_envelope(&env);
  mail_free_body(&body);
}

// Null structures and message parts the parser left opaque.
TEST(MhStructure, EmptyAndOpaqueParts) {
  EXPECT_EQ(mh_encode_envelope(nullptr), H("f4010000 57020000"));
  const Bytes empty_body = H("58020000 0000 0000 00000000 00000000 00000000 00000000 00000000 00000000 5a020000 bb020000");
  EXPECT_EQ(mh_encode_body(nullptr), empty_body);

  BodyPart* opaque = mail_newbody();
  SetPart(opaque, TYPEMESSAGE, ENCBASE64, "RFC822", 4, 80);
  const Bytes opaque_bytes = H("58020000 0200 0300 07000000") + Z("RFC822") +
                             H("00000000 00000000 04000000 50000000 50000000 5a020000 bb020000");
  EXPECT_EQ(mh_encode_body(opaque), opaque_bytes);
  const uint8_t* p = U(opaque_bytes);
  BodyPart* back = nullptr;
  ASSERT_TRUE(mh_decode_body(&p, U(opaque_bytes) + opaque_bytes.size(), &back));
  EXPECT_TRUE(!back->msg_env && !back->msg_body && back->encoding == ENCBASE64);
  mail_free_body(&back);

  // With only the envelope, the body is written as an empty one.
  opaque->msg_env = mail_newenvelope();
  const Bytes half = mh_encode_body(opaque);
  p = U(half);
  ASSERT_TRUE(mh_decode_body(&p, U(half) + half.size(), &back));
  ASSERT_TRUE(back->msg_env && back->msg_body);
  EXPECT_EQ(back->msg_body->subtype, nullptr);
  mail_free_body(&back);
  mail_free_body(&opaque);
}

// --- Damage ------------------------------------------------------------------------

// Whether b reads whole; a failed read builds nothing and leaves the
// position where it was.
template <typename T>
bool Decodes(const Bytes& b, bool (*decode)(const uint8_t**, const uint8_t*, T**), void (*release)(T**)) {
  const uint8_t* p = U(b);
  T* out = reinterpret_cast<T*>(&out);  // must come back null on failure
  const bool ok = decode(&p, U(b) + b.size(), &out);
  if (!ok) {
    EXPECT_TRUE(out == nullptr && p == U(b));
    out = nullptr;
  }
  release(&out);
  return ok;
}
bool DecodeEnvelope(const Bytes& b) { return Decodes(b, mh_decode_envelope, mail_free_envelope); }
bool DecodeBody(const Bytes& b) { return Decodes(b, mh_decode_body, mail_free_body); }

TEST(MhStructure, EveryCutIsAShortRead) {
  for (size_t cut = 0; cut < kEveryField.size(); ++cut) EXPECT_FALSE(DecodeEnvelope(kEveryField.substr(0, cut))) << cut;
  for (size_t cut = 0; cut < kFixtureBody.size(); ++cut) EXPECT_FALSE(DecodeBody(kFixtureBody.substr(0, cut))) << cut;
  EXPECT_TRUE(DecodeEnvelope(kEveryField));
  EXPECT_TRUE(DecodeBody(kFixtureBody));
}

// Multiparts nested `depth` deep below the outermost part.
Bytes Nested(int depth) {
  const Bytes head = H("58020000 0100 0000 00000000 00000000 00000000 00000000 00000000 00000000 5a020000");
  Bytes out;
  for (int i = 0; i < depth; ++i) out += head + H("5d020000 00000000");
  out += head + H("5e020000 bb020000");
  for (int i = 0; i < depth; ++i) out += H("5e020000 bb020000");
  return out;
}

// The writer refuses what the reader would refuse: strings, depth, values.
TEST(MhStructure, LimitsOfTheWriterAndTheReader) {
  const Bytes deepest = Nested(kMhMaxDepth);  // one more is in the fuzz corpus
  ASSERT_TRUE(DecodeBody(deepest));
  const uint8_t* p = U(deepest);
  BodyPart* body = nullptr;
  ASSERT_TRUE(mh_decode_body(&p, U(deepest) + deepest.size(), &body));
  EXPECT_EQ(mh_encode_body(body), deepest);
  BodyPart* inner = body;
  while (inner->parts) inner = &inner->parts->body;
  inner->parts = mail_newbody_part();
  EXPECT_EQ(mh_encode_body(body), "");
  mail_free_body(&body);

  Envelope* env = mail_newenvelope();
  env->subject = static_cast<char*>(FS_GET(kMhMaxString));
  std::memset(env->subject, 'a', kMhMaxString - 1);  // the zero makes the limit
  EXPECT_EQ(mh_encode_envelope(env).size(), 16u + kMhMaxString);
  mail_free_envelope(&env);
  env = mail_newenvelope();
  env->from = Address(nullptr, nullptr, nullptr);
  env->from->host = static_cast<char*>(FS_GET(kMhMaxString + 1));
  std::memset(env->from->host, 'h', kMhMaxString);
  EXPECT_EQ(mh_encode_envelope(env), "");
  mail_free_envelope(&env);

  // type, encoding, size
  for (auto [type, encoding, size] : {std::tuple{8, 0, 1ul}, {0, 6, 1ul}, {0, 0, 0x100000000ul}}) {
    body = mail_newbody();
    body->type = static_cast<unsigned short>(type);
    body->encoding = static_cast<unsigned short>(encoding);
    body->size_bytes = size;
    EXPECT_EQ(mh_encode_body(body), "") << type << " " << encoding << " " << size;
    mail_free_body(&body);
  }
}

}  // namespace
