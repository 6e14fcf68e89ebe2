// The fetch hook: memory mode's cap keeps the reader in step, file mode
// spools and decodes, and a fetch inside a fetch is refused.
#include <cstring>
#include <optional>
#include <string>

#include "c-client/core/mail.h"
#include "tests/model/message_fixture.h"

namespace {

struct Reader {
  std::string data;
  size_t pos = 0;
  int calls = 0;
};

long Read(void* handle, unsigned long size, char* buffer) {
  auto* r = static_cast<Reader*>(handle);
  ++r->calls;
  if (r->pos + size > r->data.size()) return 0;
  std::memcpy(buffer, r->data.data() + r->pos, size);
  r->pos += size;
  return 1;
}

std::string Pattern(size_t n) {
  std::string s;
  for (size_t i = 0; i < n; ++i) s.push_back(static_cast<char>('a' + (i * 7) % 26));
  return s;
}

using Mailgets = MessageTest;

TEST_F(Mailgets, MemoryModeCutsAt65000AndKeepsTheReaderInStep) {
  MM_MailgetsToMemory();
  const struct {
    size_t size;
    size_t kept;
  } cases[] = {{0, 0}, {100, 100}, {65000, 65000}, {65001, 65000}, {70000, 65000}, {200000, 65000}};
  for (const auto& c : cases) {
    Reader r{Pattern(c.size) + "NEXT"};
    MailText* text = MM_Mailgets(Read, &r, c.size);
    ASSERT_NE(text, nullptr) << c.size;
    EXPECT_EQ(text->kind, kTextInMemory);
    EXPECT_EQ(text->size, c.kept) << c.size;
    EXPECT_EQ(std::string(text->data, text->size), r.data.substr(0, c.kept)) << c.size;
    // What follows in the stream is read right.
    char next[4] = {};
    ASSERT_EQ(Read(&r, 4, next), 1) << c.size;
    EXPECT_EQ(std::string(next, 4), "NEXT") << c.size;
    mail_free_text(&text);
  }
  EXPECT_TRUE(Traced("MM_Mailgets: message data truncated from 70000 to 65000 characters\n"));
}

TEST_F(Mailgets, BigHeaderThroughTheModelIsCutAndTheBodyStillRight) {
  const std::string header = "From: a@example.org\r\nX-Big: " + std::string(70000, 'h') + "\r\n\r\n";
  const int id = WriteFolder("big", {header + "the body\r\n"});
  const UMI umi = MM_UMIFromMsgno(id, 1);
  const std::optional<std::string> raw = MM_MsgRawHeaders(umi);
  ASSERT_TRUE(raw);
  EXPECT_EQ(raw->size(), kMailgetsMemoryCap);
  EXPECT_EQ(*raw, header.substr(0, kMailgetsMemoryCap));
  EXPECT_EQ(ReadFile(MM_MsgRawBodyToFile(umi)), "the body\r\n");
  EXPECT_EQ(ReadFile(MM_MsgRawHeadersToFile(umi)), header);  // files are not cut
}

TEST_F(Mailgets, FileModeDecodesAndCountsTheDecodedBytes) {
  const struct {
    int encoding;
    std::string in, out;
  } cases[] = {{ENCBASE64, "aGVsbG8g\r\nd29ybGQ=", "hello world"},
               {ENCQUOTEDPRINTABLE, "a=3Db=\r\nc\r\n", "a=bc\r\n"},
               {ENC7BIT, "as =3D is\r\n", "as =3D is\r\n"}};
  for (const auto& c : cases) {
    ASSERT_EQ(MM_MailgetsToFile(), 1);
    MM_MailgetsSetEncoding(c.encoding);
    Reader r{c.in};
    MailText* text = MM_Mailgets(Read, &r, c.in.size());
    MM_MailgetsFileDone();
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(text->kind, kTextFile);
    EXPECT_EQ(text->size, c.out.size()) << c.encoding;
    const std::string name = text->data;
    EXPECT_EQ(ReadFile(name), c.out) << c.encoding;
    mail_free_text(&text);
    EXPECT_FALSE(Exists(name));  // the text owned its file
  }
  MM_MailgetsSetEncoding(0);
  // A file that no data came to goes at the end.
  ASSERT_EQ(MM_MailgetsToFile(), 1);
  const size_t files = TempFiles().size();
  MM_MailgetsFileDone();
  EXPECT_EQ(TempFiles().size(), files - 1);
  MM_MailgetsToMemory();
}

Reader* g_outer = nullptr;
MailText* g_inner_result = reinterpret_cast<MailText*>(1);

long ReadAndReenter(void* handle, unsigned long size, char* buffer) {
  Reader inner{"inner"};
  g_inner_result = MM_Mailgets(Read, &inner, 5);
  return Read(handle, size, buffer);
}

TEST_F(Mailgets, AFetchInsideAFetchIsRefused) {
  MM_MailgetsToMemory();
  Reader r{"outer"};
  g_outer = &r;
  MailText* text = MM_Mailgets(ReadAndReenter, &r, 5);
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(std::string(text->data, text->size), "outer");
  EXPECT_EQ(g_inner_result, nullptr);
  EXPECT_TRUE(Traced("MM_Mailgets: refused a fetch inside a fetch.\n"));
  mail_free_text(&text);
}

}  // namespace
