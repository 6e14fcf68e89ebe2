// A thousand messages of mixed shapes and line ends through a folder:
// appended, applied at the ping, fetched, read again from the caches alone,
// and again after a rebuild from the message files. Every envelope, body
// structure, header, text and section must come out the same each time,
// and the same as a fresh parse of the file.
#include <fcntl.h>
#include <unistd.h>

#include "tests/c-client/mh/mh_test_util.h"

namespace mh_test {
namespace {

constexpr int kMessages = 1000;

class MhRoundTrip : public MhTest {};

// The message file parsed here and now, as the driver would.
struct FreshParse {
  std::string file;
  unsigned long header_size = 0;
  Envelope* env = nullptr;
  BodyPart* body = nullptr;
  ~FreshParse() {
    mail_free_envelope(&env);
    mail_free_body(&body);
  }
};

void Parse(const std::string& path, FreshParse* out) {
  out->file = ReadFile(path);
  int fd = ::open(path.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  long header_size = rfc822_header_size(fd);
  ASSERT_GT(header_size, 0);
  out->header_size = static_cast<unsigned long>(header_size);
  std::vector<char> header(out->file.begin(), out->file.begin() + header_size);
  std::vector<char> work(kRfc822WorkSize);
  FileText ft{};
  ft.fd = fd;
  StringSource bs;
  string_init(&bs, &file_string, &ft, out->file.size());
  string_setpos(&bs, out->header_size);
  rfc822_parse_msg(&out->env, &out->body, header.data(), header.size(), &bs, local_host_name(), work.data());
  ::close(fd);
}

TEST_F(MhRoundTrip, AThousandMessagesComeBackTheSameFromEveryPath) {
  const std::string dir = Create("Big");
  MailStream* s = Open("Big");
  ASSERT_NE(s, nullptr);
  std::vector<GenMessage> messages;
  for (int i = 0; i < kMessages; ++i) {
    messages.push_back(MakeMessage(i, (i / 6) % 2 == 0));
    ASSERT_EQ(Append("Big", messages.back().text, i % 3 == 0 ? "\\Flagged" : nullptr), 1) << Logs();
  }
  EXPECT_EQ(s->nmsgs, 0u) << "appends wait for the ping";
  ASSERT_EQ(mail_ping(s), 1);
  ASSERT_EQ(s->nmsgs, static_cast<unsigned long>(kMessages));

  std::vector<std::string> structures(kMessages + 1), everything(kMessages + 1);
  for (unsigned long i = 1; i <= kMessages; ++i) {
    const GenMessage& m = messages[i - 1];
    ASSERT_EQ(mail_elt(s, i)->file_number, i);
    structures[i] = DumpStructure(s, i);
    everything[i] = DumpMessage(s, i);

    FreshParse fresh;
    Parse(dir + "/" + std::to_string(i), &fresh);
    ASSERT_EQ(fresh.file, m.text);
    // Lists come back from the cache turned round; nothing else differs.
    EXPECT_EQ(structures[i], DumpEnvelope(fresh.env, true) + "\n" + DumpBody(fresh.body, true)) << "message " << i;
    EXPECT_EQ(TextOf(mail_fetchheader(s, i)), m.text.substr(0, fresh.header_size)) << i;
    EXPECT_EQ(TextOf(mail_fetchtext(s, i)), m.text.substr(fresh.header_size)) << i;
    if (!m.first_section.empty()) {
      unsigned long length = 0;
      EXPECT_EQ(TextOf(mail_fetchbody(s, i, m.first_section.c_str(), &length)), m.first_text) << i;
    }
    // Every section is the file's bytes where a fresh parse puts it.
    std::vector<std::string> sections;
    Sections(fresh.body, "", &sections);
    ASSERT_FALSE(sections.empty());
    for (const std::string& section : sections) {
      unsigned long offset = 0;
      BodyPart* part = mail_body_section(fresh.body, section.c_str(), &offset);
      ASSERT_NE(part, nullptr) << i << " " << section;
      const std::string want = m.text.substr(offset ? offset : fresh.header_size, part->size_bytes);
      unsigned long length = 0;
      EXPECT_EQ(TextOf(mail_fetchbody(s, i, section.c_str(), &length)), want) << i << " section " << section;
      EXPECT_EQ(length, want.size());
    }
  }
  Close(s);

  // From the caches alone: with the message files moved away, the folder
  // still opens and every structure is there.
  const std::string away = home_ + "/away";
  fs::create_directory(away);
  for (int i = 1; i <= kMessages; ++i) fs::rename(dir + "/" + std::to_string(i), away + "/" + std::to_string(i));
  s = Open("Big");
  ASSERT_NE(s, nullptr) << Logs();
  ASSERT_EQ(s->nmsgs, static_cast<unsigned long>(kMessages));
  for (unsigned long i = 1; i <= kMessages; ++i) ASSERT_EQ(DumpStructure(s, i), structures[i]) << "cached, " << i;
  for (int i = 1; i <= kMessages; ++i) fs::rename(away + "/" + std::to_string(i), dir + "/" + std::to_string(i));
  for (unsigned long i = 1; i <= kMessages; ++i) {
    ASSERT_EQ(DumpMessage(s, i), everything[i]) << "reopened, " << i;
    EXPECT_EQ(Flags(s, i), i % 3 == 1 ? "S-F--" : "S----") << i;
  }
  Close(s);

  // A rebuild from the message files gives the same, and keeps the flags.
  fs::remove(dir + "/mh_cache.dat");
  mail_env_clear();
  s = Open("Big");
  ASSERT_NE(s, nullptr) << Logs();
  EXPECT_TRUE(Said("notify", "Rebuilding MH cache database - this may take awhile.")) << Logs();
  ASSERT_EQ(s->nmsgs, static_cast<unsigned long>(kMessages));
  for (unsigned long i = 1; i <= kMessages; ++i) {
    ASSERT_EQ(DumpMessage(s, i), everything[i]) << "rebuilt, " << i;
    EXPECT_EQ(Flags(s, i), i % 3 == 1 ? "S-F--" : "S----") << i;
  }
  Close(s);

  // Without an index (and its backup) the flags are gone, the messages not.
  fs::remove(dir + "/mh_index.dat");
  fs::remove(dir + "/mh_index.bak");
  s = Open("Big");
  ASSERT_NE(s, nullptr) << Logs();
  ASSERT_EQ(s->nmsgs, static_cast<unsigned long>(kMessages));
  for (unsigned long i = 1; i <= kMessages; i += 97) {
    EXPECT_EQ(Flags(s, i), "-----");
    EXPECT_EQ(DumpMessage(s, i), everything[i]) << "from the files alone, " << i;
  }
}

}  // namespace
}  // namespace mh_test
