// The fetch hook: memory mode's cap keeps the reader in step, and a fetch
// inside a fetch is refused. (File mode is met in the sections' tests.)
#include <cstring>

#include "c-client/core/mail.h"
#include "tests/model/model_fixture.h"

namespace {

struct Reader { std::string data; size_t pos = 0; };

long Read(void* handle, unsigned long size, char* buffer) {
  auto* r = static_cast<Reader*>(handle);
  if (r->pos + size > r->data.size()) return 0;
  std::memcpy(buffer, r->data.data() + r->pos, size);
  r->pos += size;
  return 1;
}

using Mailgets = ModelTest;

TEST_F(Mailgets, MemoryModeCutsAt65000AndKeepsTheReaderInStep) {
  for (const auto& [size, kept] : {std::pair{0, 0}, {65000, 65000}, {65001, 65000}, {200000, 65000}}) {
    std::string data;
    for (int i = 0; i < size; ++i) data.push_back(static_cast<char>('a' + (i * 7) % 26));
    Reader r{data + "NEXT"};
    MailText* text = MM_Mailgets(Read, &r, size);
    ASSERT_NE(text, nullptr) << size;
    EXPECT_EQ(std::string(text->data, text->size), data.substr(0, kept)) << size;
    EXPECT_EQ(r.data.substr(r.pos), "NEXT") << size << ": what follows is read right";
    mail_free_text(&text);
  }
  // Through the model: the header in memory is cut, the files are whole.
  const std::string header = "From: a@example.org\r\nX-Big: " + std::string(70000, 'h') + "\r\n\r\n";
  MakeFolder("big", {header + "the body\r\n"});
  const UMI umi = MM_UMIFromMsgno(MM_FolOpen(local_, "big"), 1);
  EXPECT_EQ(MM_MsgRawHeaders(umi), header.substr(0, kMailgetsMemoryCap));
  EXPECT_EQ(ReadFile(MM_MsgRawBodyToFile(umi)), "the body\r\n");
  EXPECT_EQ(ReadFile(MM_MsgRawHeadersToFile(umi)), header);
}

TEST_F(Mailgets, AFetchInsideAFetchIsRefused) {
  static MailText* inner = reinterpret_cast<MailText*>(1);
  Reader r{"outer"};
  MailText* text = MM_Mailgets(
      [](void* handle, unsigned long size, char* buffer) {
        Reader nested{"inner"};
        inner = MM_Mailgets(Read, &nested, 5);
        return Read(handle, size, buffer);
      },
      &r, 5);
  EXPECT_EQ(std::string(text->data, text->size), "outer");
  EXPECT_EQ(inner, nullptr);
  mail_free_text(&text);
}

}  // namespace
