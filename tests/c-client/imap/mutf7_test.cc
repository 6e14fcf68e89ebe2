// Mailbox names between UTF-8 and their wire form.
#include "c-client/imap/mutf7.h"

#include <gtest/gtest.h>

namespace {

TEST(MailboxNameCodec, RoundTripsAndRefusesBadWireForms) {
  struct Case {
    std::string utf8, wire;
  } both_ways[] = {
      {"INBOX", "INBOX"},
      {"A & B", "A &- B"},
      {"Caf\xc3\xa9", "Caf&AOk-"},
      {"\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e", "&ZeVnLIqe-"},  // RFC 3501's example
      {"~peter/mail/\xe5\x8f\xb0\xe5\x8c\x97/\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e", "~peter/mail/&U,BTFw-/&ZeVnLIqe-"},
      {"\xf0\x9f\x93\xa7 mail", "&2D3c5w- mail"},  // outside the BMP: a surrogate pair
  };
  for (const Case& c : both_ways) {
    EXPECT_EQ(imap_utf8_to_mutf7(c.utf8), c.wire) << c.utf8;
    std::string back;
    EXPECT_TRUE(imap_mutf7_to_utf8(c.wire, &back)) << c.wire;
    EXPECT_EQ(back, c.utf8);
  }
  // Latin-1 bytes that aren't UTF-8 still get a wire form.
  EXPECT_EQ(imap_utf8_to_mutf7("Caf\xe9"), "Caf&AOk-");
  for (const char* bad : {"&AOk", "&A-", "&AGE-", "&2D0-", "a\x80", "&!!-", "&3ec-"}) {
    std::string out = "kept";
    EXPECT_FALSE(imap_mutf7_to_utf8(bad, &out)) << bad;
    EXPECT_EQ(out, "kept");
  }
}

}  // namespace
