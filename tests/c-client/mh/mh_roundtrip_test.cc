// Thirteen hundred messages of mixed shapes and line ends (more index
// records than one 64 KB piece holds) through a folder: appended, applied
// at the ping, fetched, read from the caches alone, and rebuilt. Every
// structure is a fresh parse of the file with its lists reversed, every
// header, text and section the file's bytes where the parse puts them, and
// each later read gives the same.
#include <fcntl.h>
#include <unistd.h>

#include "tests/c-client/mh/mh_test_util.h"

namespace mh_test {
namespace {

constexpr unsigned long kMessages = 1300;

class MhRoundTrip : public MhTest {};

TEST_F(MhRoundTrip, EveryMessageComesBackTheSameFromEveryPath) {
  const std::string dir = Create("Big");
  MailStream* s = OpenOk("Big");
  auto text_of = [](unsigned long i) { return MakeMessage(static_cast<int>(i - 1), (i - 1) / 6 % 2 == 0); };
  for (unsigned long i = 1; i <= kMessages; ++i)
    ASSERT_EQ(Append("Big", text_of(i), i % 3 == 1 ? "\\Flagged" : nullptr), 1) << Logs();
  EXPECT_EQ(s->nmsgs, 0u) << "appends wait for the ping";
  ASSERT_EQ(mail_ping(s), 1);
  ASSERT_EQ(s->nmsgs, kMessages);

  std::vector<std::string> structures(kMessages + 1), everything(kMessages + 1);
  std::vector<char> work(kRfc822WorkSize);
  for (unsigned long i = 1; i <= kMessages; ++i) {
    const std::string path = dir + "/" + std::to_string(i), text = text_of(i);
    ASSERT_EQ(ReadFile(path), text);
    // The message file parsed here and now, as the driver would.
    const int fd = ::open(path.c_str(), O_RDONLY);
    const long header_size = rfc822_header_size(fd);
    std::string header = text.substr(0, static_cast<size_t>(header_size));
    FileText file{};
    file.fd = fd;
    StringSource source;
    string_init(&source, &file_string, &file, text.size());
    string_setpos(&source, static_cast<unsigned long>(header_size));
    Envelope* env = nullptr;
    BodyPart* body = nullptr;
    rfc822_parse_msg(&env, &body, header.data(), header.size(), &source, local_host_name(), work.data());
    ::close(fd);
    structures[i] = DumpStructure(s, i);
    EXPECT_EQ(structures[i], DumpEnvelope(env, true) + "\n" + DumpBody(body, true)) << i;
    EXPECT_EQ(TextOf(mail_fetchheader(s, i)), header) << i;
    EXPECT_EQ(TextOf(mail_fetchtext(s, i)), text.substr(header.size())) << i;
    std::vector<std::string> sections;
    Sections(body, "", &sections);
    for (const std::string& section : sections) {
      unsigned long offset = 0, length = 0;
      const BodyPart* part = mail_body_section(body, section.c_str(), &offset);
      ASSERT_NE(part, nullptr) << i << " " << section;
      EXPECT_EQ(TextOf(mail_fetchbody(s, i, section.c_str(), &length)),
                text.substr(offset ? offset : header.size(), part->size_bytes))
          << i << " section " << section;
    }
    mail_free_envelope(&env);
    mail_free_body(&body);
    everything[i] = DumpMessage(s, i);
  }
  Close(s);

  // From the caches alone: with the message files away, every structure.
  for (unsigned long i = 1; i <= kMessages; ++i)
    fs::rename(dir + "/" + std::to_string(i), home_ + "/" + std::to_string(i));
  s = OpenOk("Big");
  ASSERT_EQ(s->nmsgs, kMessages);
  for (unsigned long i = 1; i <= kMessages; ++i) ASSERT_EQ(DumpStructure(s, i), structures[i]) << "cached, " << i;
  Close(s);
  for (unsigned long i = 1; i <= kMessages; ++i)
    fs::rename(home_ + "/" + std::to_string(i), dir + "/" + std::to_string(i));

  // A rebuild from the message files gives the same, and keeps the flags.
  fs::remove(dir + "/mh_cache.dat");
  mail_env_clear();
  s = OpenOk("Big");
  EXPECT_TRUE(Said("notify", "Rebuilding MH cache database - this may take awhile.")) << Logs();
  ASSERT_EQ(s->nmsgs, kMessages);
  for (unsigned long i = 1; i <= kMessages; ++i) {
    ASSERT_EQ(DumpMessage(s, i), everything[i]) << "rebuilt, " << i;
    EXPECT_EQ(Flags(s, i), i % 3 == 1 ? "S-F--" : "S----") << i;
  }
}

}  // namespace
}  // namespace mh_test
