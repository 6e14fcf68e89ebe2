// The MH folder's cache files. Their index and structure records against
// fixed bytes, and the limits of the structure reader and writer (damaged
// records are the corpus of fuzz_mh_structure, whose replay fails on any
// that reads back as something else). And a folder whose cache files are
// damaged or hostile, or whose change was cut short by a failing disk or by
// the program dying, opens with every message once and its flags, without
// hanging and without memory in proportion to the damage. Damage is made by
// hand; failures through the safe writer's fault injection, deaths through
// the driver's crash points.
#include "c-client/mh/mh_format.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <set>
#include <string>

#include "c-client/core/plain_env.h"
#include "c-client/mh/subscribe.h"
#include "tests/c-client/core/records_dump.h"
#include "tests/c-client/mh/mh_test_util.h"

namespace mh_test {
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

// The writer refuses what the reader would refuse: strings, depth, values.
TEST(MhStructure, LimitsOfTheWriterAndTheReader) {
  // Multiparts nested as deep as allowed below the outermost part; one more is in the fuzz corpus.
  const Bytes head = H("58020000 0100 0000 00000000 00000000 00000000 00000000 00000000 00000000 5a020000");
  Bytes deepest;
  for (int i = 0; i < kMhMaxDepth; ++i) deepest += head + H("5d020000 00000000");
  deepest += head + H("5e020000 bb020000");
  for (int i = 0; i < kMhMaxDepth; ++i) deepest += H("5e020000 bb020000");
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

constexpr int kCount = 12;
constexpr char kRebuilding[] = "Rebuilding MH cache database - this may take awhile.";
constexpr char kCorrupt[] = "MH mailbox - intermediate cache is corrupt!";

void Patch(const std::string& dir, const char* file, size_t at, const std::string& bytes) {
  std::string data = ReadFile(dir + "/" + file);
  WriteFile(dir + "/" + file, data.replace(at, bytes.size(), bytes));
}

long PeakKb() {
  struct rusage u;
  ::getrusage(RUSAGE_SELF, &u);
  return u.ru_maxrss;
}

// Something that is not a file where one belongs: reading it would wait
// for a writer forever.
void Fifo(const std::string& path) {
  fs::remove(path);
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
}

// A file of size bytes beginning with head, the rest a hole.
void Sparse(const std::string& path, const std::string& head, off_t size) {
  WriteFile(path, head);
  ASSERT_EQ(::truncate(path.c_str(), size), 0);
}

// An index whose header counts n records, all of them a hole.
void Holes(const std::string& dir, uint32_t n) {
  Sparse(dir + "/mh_index.dat", Le32(kMhIndexVersion) + Le32(n), kMhHeaderSize + off_t{n} * kMhRecordSize);
}

bool ErrorSaid() {
  for (const MailEnvLine& l : mail_env_lines())
    if ((l.callback == "log" || l.callback == "notify") && l.level == 2) return true;
  return false;
}

class MhRecovery : public MhTest {
 protected:
  // A hang is a failure, not a stuck suite.
  void SetUp() override {
    MhTest::SetUp();
    ::alarm(60);
  }
  void TearDown() override {
    ::alarm(0);
    MhTest::TearDown();
  }
  // Box: twelve messages with flags, structures cached, and a backup index
  // from an expunge. Target: empty.
  void MakeFolder() {
    dir_ = Create("Box");
    target_ = Create("Target");
    for (int i = 0; i <= kCount; ++i) ASSERT_EQ(Append("Box", MakeMessage(i, i % 2 == 0)), 1);
    MailStream* s = OpenOk("Box");
    mail_setflag(s, "1,4,7", "\\Seen");
    mail_setflag(s, "2,4", "\\Flagged \\Answered");
    mail_setflag(s, "3", "\\Draft");
    mail_setflag(s, "13", "\\Deleted");
    mail_expunge(s);
    ASSERT_EQ(s->nmsgs, static_cast<unsigned long>(kCount));
    ASSERT_TRUE(fs::exists(dir_ + "/mh_index.bak"));
    flags_ = FlagMap(s);
    for (unsigned long i = 1; i <= s->nmsgs; ++i) structures_[mail_elt(s, i)->file_number] = DumpStructure(s, i);
    Close(s);
    files_ = Messages(dir_);
    mail_env_clear();
    fs::copy(home_ + "/folders", Pristine(), fs::copy_options::recursive);
  }

  // Puts back both folders as MakeFolder left them.
  void Restore() {
    CloseAll();
    fs::remove_all(home_ + "/folders");
    fs::copy(Pristine(), home_ + "/folders", fs::copy_options::recursive);
    mh_forget_paths();
  }
  std::string Pristine() const { return home_ + "/pristine"; }
  void CloseAll() {
    for (MailStream*& s : streams_) s = mail_close(s);
  }

  // Every message is there once, with its structure and file, and the
  // flags it had (none when kept is false); a message in `may` may also
  // have gained the flag letter `gained`.
  void ExpectWhole(MailStream* s, const std::string& what, bool kept = true, char gained = 0,
                   const std::set<unsigned long>& may = {}) {
    ASSERT_NE(s, nullptr) << what << "\n" << Logs();
    ASSERT_EQ(s->nmsgs, static_cast<unsigned long>(kCount)) << what;
    std::map<unsigned long, std::string> structures;
    for (unsigned long i = 1; i <= s->nmsgs; ++i) structures[mail_elt(s, i)->file_number] = DumpStructure(s, i);
    EXPECT_EQ(structures, structures_) << what;
    for (auto& [number, flags] : FlagMap(s)) {
      std::string want = kept ? flags_[number] : "-----", other = want;
      if (may.count(number)) other[std::string("SDFAd").find(gained)] = gained;
      EXPECT_TRUE(flags == want || flags == other) << what << ": " << number << " " << flags;
    }
    EXPECT_EQ(Messages(dir_), files_) << what << ": message files are never touched";
    EXPECT_FALSE(fs::exists(dir_ + "/mh_index.new") || fs::exists(dir_ + "/mh_cache.new")) << what;
  }

  std::string dir_, target_;
  std::map<unsigned long, std::string> flags_;
  std::map<unsigned long, std::string> structures_;
  std::map<uint32_t, std::string> files_;
  MailStream* s_ = nullptr;
};

TEST_F(MhRecovery, DamagedCacheFilesAreRebuiltWithEveryMessageAndFlag) {
  auto cut = [](const char* file, size_t keep_less) {
    return [=](const std::string& d) {
      const std::string data = ReadFile(d + "/" + file);
      WriteFile(d + "/" + file, data.substr(0, keep_less ? data.size() - keep_less : 10));
    };
  };
  auto fifo = [](const char* file) { return [=](const std::string& d) { Fifo(d + "/" + file); }; };
  auto patch = [](size_t at, uint32_t value) { return [=](const std::string& d) { Patch(d, "mh_index.dat", at, Le32(value)); }; };
  enum { kLost = 0, kKept = 1, kRebuilt = 2, kNoted = 4 };
  const struct {
    const char* what;
    std::function<void(const std::string&)> damage;
    int result;  // flags kept, rebuilt, corruption noted (the index looked whole but lied)
  } cases[] = {
      {"short header", cut("mh_index.dat", 0), kKept | kRebuilt},
      {"older version", patch(0, 4101), kKept | kRebuilt},
      {"header counts records the file lacks", patch(4, 1000000), kKept | kRebuilt},
      {"index missing", [](const std::string& d) { fs::remove(d + "/mh_index.dat"); }, kKept | kRebuilt},
      {"index and backup missing",
       [](const std::string& d) { fs::remove(d + "/mh_index.dat"), fs::remove(d + "/mh_index.bak"); }, kLost | kRebuilt},
      {"cache missing", [](const std::string& d) { fs::remove(d + "/mh_cache.dat"); }, kKept | kRebuilt},
      {"cache cut short", cut("mh_cache.dat", 200), kKept | kRebuilt | kNoted},
      {"record of message number 0", patch(kMhHeaderSize + 6 * kMhRecordSize, 0), kKept | kRebuilt | kNoted},
      {"queue with half a record", [](const std::string& d) { WriteFile(d + "/mh_updat.dat", std::string(30, '\x01')); },
       kKept | kRebuilt | kNoted},
      {"FIFO for the index", fifo("mh_index.dat"), kKept | kRebuilt},
      {"FIFO for the cache", fifo("mh_cache.dat"), kKept | kRebuilt},
      {"FIFO for the queue", fifo("mh_updat.dat"), kKept | kRebuilt | kNoted},
      {"FIFO for a status file", [](const std::string& d) { Fifo(d + "/2.st"), fs::remove(d + "/mh_cache.dat"); },
       kKept | kRebuilt},
      // A count no folder reaches is refused at once; a smaller one must
      // not size the message array before its records are read.
      {"header counting 4 billion records over a hole", [](const std::string& d) { Holes(d, UINT32_MAX); },
       kKept | kRebuilt},
      {"header counting 40 million records over a hole", [](const std::string& d) { Holes(d, 40'000'000); },
       kKept | kRebuilt | kNoted},
      {"untrusted index of 52 MB, every record message 3's",
       [](const std::string& d) {
         const std::string three = ReadFile(d + "/mh_index.dat").substr(kMhHeaderSize + 2 * kMhRecordSize, kMhRecordSize);
         std::ofstream out(d + "/mh_index.dat", std::ios::binary | std::ios::trunc);
         out << Le32(0) << Le32(1000000) << Le32(0) << Le32(0);
         for (int i = 0; i < 1000000; ++i) out << three;
       },
       kKept | kRebuilt},
      {"queue of 2.6 GB, a hole",
       [](const std::string& d) { Sparse(d + "/mh_updat.dat", "", off_t{50'000'000} * kMhRecordSize); }, kKept},
  };
  MakeFolder();
  for (const auto& c : cases) {
    Restore();
    c.damage(dir_);
    mail_env_clear();
    const long peak = PeakKb();
    MailStream* s = Open("Box");
    ExpectWhole(s, c.what, c.result & kKept);
    EXPECT_LT(PeakKb() - peak, 32 * 1024) << c.what << ": memory in proportion to the damage";
    EXPECT_EQ(EnvSaid("notify", kRebuilding), (c.result & kRebuilt) != 0) << c.what << "\n" << Logs();
    EXPECT_EQ(EnvSaid("notify", kCorrupt), (c.result & kNoted) != 0) << c.what << "\n" << Logs();
    EXPECT_FALSE(fs::exists(dir_ + "/mh_updat.dat")) << c.what;
    Close(s);
    // And it opens from the rebuilt files without rebuilding again.
    mail_env_clear();
    ExpectWhole(Open("Box"), std::string(c.what) + ", reopened", c.result & kKept);
    EXPECT_FALSE(EnvSaid("notify", kRebuilding)) << c.what << "\n" << Logs();
  }
}

// A FIFO where a message, the subscriptions or a name file belong is
// refused at once, with the reason.
TEST_F(MhRecovery, AFifoWhereAFileBelongsIsRefusedWithoutWaiting) {
  MakeFolder();
  Fifo(dir_ + "/2");
  MailStream* s = OpenOk("Box");
  const std::string refused = "Failed to open MH message file: " + dir_ + "/2 - Not a regular file";
  EXPECT_EQ(mail_fetchtext(s, 2), nullptr);
  EXPECT_EQ(mail_copy(s, "1:3", "Target"), 0);
  EXPECT_TRUE(EnvSaid("log", refused)) << Logs();
  Close(s);
  fs::remove(dir_ + "/mh_cache.dat");
  mail_env_clear();
  s = OpenOk("Box");
  EXPECT_EQ(s->nmsgs, kCount - 1u) << "no message there, and the rebuild goes on";
  EXPECT_TRUE(EnvSaid("log", refused)) << Logs();
  Fifo(dir_ + "/mh_updat.dat");
  EXPECT_EQ(Append("Box", "Subject: x\n\nx\n"), 0);
  EXPECT_TRUE(EnvSaid("log", "Failed to open MH cache index update file - Not a regular file")) << Logs();
  Fifo(home_ + "/subscrib.dat");
  void* state = nullptr;
  EXPECT_EQ(subscribe_next(&state), nullptr);
  EXPECT_TRUE(EnvSaid("log", "Failed to open subscription database: " + home_ + "/subscrib.dat - Not a regular file\n"));
  Fifo(home_ + "/folders/mhname.dat");
  mh_forget_paths();
  EXPECT_FALSE(mh_valid_name("Box", false));
  EXPECT_TRUE(EnvSaid("log", "Failed to open MH folder name database: " + home_ + "/folders/mhname.dat")) << Logs();
  EXPECT_EQ(Messages(target_).size(), 0u);
}

TEST_F(MhRecovery, ACorruptStructureRecordFailsItsFetchAndTheNextOpenRebuilds) {
  MakeFolder();
  const MhIndexRecord r = Records(dir_)[2];
  Patch(dir_, "mh_cache.dat", r.cache_offset + 4, Le32(12345));  // a bad tag where the envelope begins
  MailStream* s = OpenOk("Box");
  EXPECT_FALSE(EnvSaid("notify", kRebuilding));
  EXPECT_EQ(mail_fetchstructure(s, 3, nullptr), nullptr);
  EXPECT_TRUE(EnvSaid("notify", kCorrupt)) << Logs();
  EXPECT_EQ(Header(dir_).version, 0u) << "marked for the next open";
  EXPECT_NE(mail_fetchstructure(s, 4, nullptr), nullptr) << "the other records still read";
  Close(s);
  mail_env_clear();
  ExpectWhole(Open("Box"), "after the rebuild");
  EXPECT_TRUE(EnvSaid("notify", kRebuilding));
}

// Each operation runs with each kind of step (open, write, sync, rename)
// failing from its first call on, then from its second, and so on until it
// goes through untouched, and dying at each of its crash points. A fault
// that fired always reaches the user; the operation then either happened
// whole or not at all, and both folders open with every message once.
TEST_F(MhRecovery, AFailingDiskAtAnyStepOfAnyChangeLosesNothing) {
  const std::set<unsigned long> moved = {2, 3, 4, 5}, all = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  auto open_box = [&] { s_ = Open("Box"); };
  // What reached Target: all four messages, or nothing at all.
  auto target_all_or_nothing = [&](const std::string& what, bool ok) {
    MailStream* t = Open("Target");
    ASSERT_NE(t, nullptr) << what;
    ASSERT_EQ(t->nmsgs, ok ? moved.size() : 0u) << what << "\n" << Logs();
    unsigned long i = 1;
    for (unsigned long n : moved) {
      if (!ok) break;
      EXPECT_EQ(DumpStructure(t, i), structures_[n]) << what;
      EXPECT_EQ(Flags(t, i++), flags_[n]) << what;
    }
    EXPECT_EQ(Messages(target_).size(), t->nmsgs) << what << ": no partial copies";
  };
  struct Op {
    const char* name;
    std::function<void()> prepare;  // runs before the fault is set
    std::function<bool()> run;
    std::function<void(const std::string&, bool, bool)> check;  // with what run said, and whether a fault fired
    std::vector<const char*> deaths = {};
  } ops[] = {
      {"copy", open_box, [&] { return mail_copy(s_, "2:5", "Target") == 1; },
       [&](const std::string& what, bool ok, bool) {
         target_all_or_nothing(what, ok);
         ExpectWhole(Open("Box"), what);
       }},
      // A move whose copy is whole but whose marks can't all be written has
      // happened, and says so; one that failed marks nothing.
      {"move", open_box, [&] { return mail_move(s_, "2:5", "Target") == 1; },
       [&](const std::string& what, bool ok, bool fired) {
         target_all_or_nothing(what, ok);
         MailStream* s = Open("Box");
         ExpectWhole(s, what, true, ok ? 'D' : 0, ok ? moved : std::set<unsigned long>{});
         for (unsigned long n : moved) EXPECT_TRUE(fired || mail_elt(s, n)->deleted) << what << " " << n;
       }},
      {"flag write", open_box, [&] { return mail_setflag(s_, "1:12", "\\Answered"), true; },
       [&](const std::string& what, bool, bool) { ExpectWhole(Open("Box"), what, true, 'A', all); }},
      {"rebuild", [&] { fs::remove(dir_ + "/mh_cache.dat"); }, [&] { return Open("Box") != nullptr; },
       [&](const std::string& what, bool ok, bool) {
         EXPECT_TRUE(ok || Header(dir_).version == kMhIndexVersion || Header(dir_).version == 0) << what;
         ExpectWhole(Open("Box"), what);
       },
       {"rebuild-written"}},
      {"expunge", [&] { (s_ = Open("Box")), mail_setflag(s_, "6", "\\Deleted"); },
       [&] { return mail_expunge(s_), s_->nmsgs == kCount - 1; },
       [&](const std::string& what, bool ok, bool) {
         MailStream* s = Open("Box");
         ASSERT_NE(s, nullptr) << what;
         std::map<unsigned long, std::string> want = flags_;
         if (ok || !fs::exists(dir_ + "/6")) {
           want.erase(6);
         } else {
           want[6] = "-D---";
         }
         EXPECT_EQ(FlagMap(s), want) << what;
         for (unsigned long i = 1; i <= s->nmsgs; ++i)
           EXPECT_EQ(DumpStructure(s, i), structures_[mail_elt(s, i)->file_number]) << what;
       },
       {"expunge-written", "expunge-marked", "expunge-unlinked", "expunge-cache-installed"}},
      {"queue applied at a check",
       [&] {
         s_ = Open("Box");
         for (int i = 0; i < 5; ++i) ASSERT_EQ(Append("Box", MakeMessage(20 + i, i % 2), "\\Flagged"), 1);
       },
       [&] { return mail_check(s_), s_->nmsgs == kCount + 5; },
       [&](const std::string& what, bool, bool) {
         // A queue applied part-way is applied again, over the same records.
         MailStream* s = Open("Box");
         ASSERT_NE(s, nullptr) << what;
         ASSERT_EQ(s->nmsgs, kCount + 5u) << what;
         for (auto& [n, flags] : FlagMap(s)) EXPECT_EQ(flags, n > kCount ? "--F--" : flags_[n]) << what << " " << n;
       },
       {"update-appended", "update-committed"}},
      {"append", nullptr, [&] { return Append("Box", MakeMessage(40, false), "\\Seen") == 1; },
       [&](const std::string& what, bool ok, bool) {
         MailStream* s = Open("Box");
         ASSERT_NE(s, nullptr) << what;
         EXPECT_EQ(s->nmsgs, kCount + (ok ? 1u : 0u)) << what;
         EXPECT_EQ(Messages(dir_).size(), s->nmsgs) << what << ": a message not queued is not left behind";
       }},
  };
  MakeFolder();
  for (const Op& op : ops)
    for (SafeStep step : {kSafeOpen, kSafeWrite, kSafeSync, kSafeRename})
      for (long nth = 1;; ++nth) {
        const std::string what = std::string(op.name) + ", " + safe_step_name(step) + " failing from call " +
                                 std::to_string(nth);
        ASSERT_LT(nth, 60) << what << ": never went through";
        Restore();
        if (op.prepare) op.prepare();
        mail_env_clear();
        safe_fail_from_for_test(step, nth, EIO);
        const bool ok = op.run();
        const bool fired = safe_calls_for_test(step) >= nth;
        safe_clear_faults_for_test();
        EXPECT_TRUE(!fired || ErrorSaid()) << what << ": the fault was swallowed\n" << Logs();
        EXPECT_TRUE(fired || step != kSafeSync || nth != 1) << what << ": the change never reached the disk";
        CloseAll();
        mail_env_clear();
        op.check(what, ok, fired);
        if (!fired) break;
      }
  for (const Op& op : ops)
    for (const char* death : op.deaths) {
      Restore();
      if (op.prepare) op.prepare();
      mh_set_crash_point_for_test(death);
      const bool ok = op.run();
      mh_set_crash_point_for_test(nullptr);
      CloseAll();
      mail_env_clear();
      op.check(std::string(op.name) + ", dead at " + death, ok, true);
    }
}

// A message file that is there but can't be opened now stops the rebuild:
// leaving it out would drop its flags at the next rebuild.
TEST_F(MhRecovery, AMessageFileThatCantBeOpenedStopsTheRebuild) {
  MakeFolder();
  fs::remove(dir_ + "/mh_cache.dat");
  const std::string index = ReadFile(dir_ + "/mh_index.dat");
  rlimit old;
  ::getrlimit(RLIMIT_NOFILE, &old);
  const int lowest = ::open("/dev/null", O_RDONLY);
  ::close(lowest);
  rlimit now = old;
  now.rlim_cur = static_cast<rlim_t>(lowest + 2);  // the two new files, and no message
  ::setrlimit(RLIMIT_NOFILE, &now);
  MailStream* s = Open("Box");
  ::setrlimit(RLIMIT_NOFILE, &old);
  EXPECT_EQ(s, nullptr);
  EXPECT_TRUE(EnvSaid("log", "Failed to open MH message file: " + dir_ + "/1 - Too many open files")) << Logs();
  EXPECT_EQ(ReadFile(dir_ + "/mh_index.dat"), index) << "nothing installed";
  ExpectWhole(Open("Box"), "once the files can be opened");
}

// A flag change on a stream whose index a failed expunge has closed is
// refused aloud, never dropped.
TEST_F(MhRecovery, AFlagChangeThatCantBeWrittenSaysSo) {
  MakeFolder();
  MailStream* s = OpenOk("Box");
  mail_setflag(s, "6", "\\Deleted");
  safe_fail_from_for_test(kSafeRename, 1, EIO);
  mail_expunge(s);
  safe_clear_faults_for_test();
  mail_env_clear();
  mail_setflag(s, "1", "\\Flagged");
  EXPECT_TRUE(ErrorSaid()) << Logs();
}

TEST_F(MhRecovery, QueueRecordsForMessagesTheIndexHoldsAreSkipped) {
  MakeFolder();
  // A record for message 3 (stale) and two for a new message 20: only 20
  // comes in, once, with its queued flags.
  WriteFile(dir_ + "/20", "Subject: twenty\n\n20\n");
  const MhIndexRecord r{20, 0, 0, 0, 0, 0, 0, 0, kMhFlagged, 0, {}};
  uint8_t bytes[kMhRecordSize];
  mh_encode_record(r, bytes);
  const std::string twenty(reinterpret_cast<const char*>(bytes), sizeof bytes);
  const std::string three = ReadFile(dir_ + "/mh_index.dat").substr(kMhHeaderSize + 2 * kMhRecordSize, kMhRecordSize);
  WriteFile(dir_ + "/mh_updat.dat", three + twenty + twenty);
  MailStream* s = OpenOk("Box");
  std::map<unsigned long, std::string> want = flags_;
  want[20] = "--F--";
  EXPECT_EQ(FlagMap(s), want);
  EXPECT_EQ(mail_elt(s, kCount + 1)->rfc822_size, 20u) << "sizes come from the file, not the queue";
}

}  // namespace
}  // namespace mh_test
