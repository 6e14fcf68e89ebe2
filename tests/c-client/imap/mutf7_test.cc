// Mailbox names between UTF-8 and their wire form.
#include "c-client/imap/mutf7.h"

#include <gtest/gtest.h>

TEST(MailboxNameCodec, RoundTripsAndRefusesBadWireForms) {
  const char* both_ways[][2] = {
      {"A & B", "A &- B"},
      {"Caf\xc3\xa9", "Caf&AOk-"},
      {"\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e", "&ZeVnLIqe-"},
      {"~peter/mail/\xe5\x8f\xb0\xe5\x8c\x97/\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e", "~peter/mail/&U,BTFw-/&ZeVnLIqe-"},
      {"\xf0\x9f\x93\xa7 mail", "&2D3c5w- mail"},  // outside the BMP: a surrogate pair
  };
  for (auto& [utf8, wire] : both_ways) {
    EXPECT_EQ(imap_utf8_to_mutf7(utf8), wire);
    std::string back;
    EXPECT_TRUE(imap_mutf7_to_utf8(wire, &back) && back == utf8) << wire;
  }
  EXPECT_EQ(imap_utf8_to_mutf7("Caf\xe9"), "Caf&AOk-");  // Latin-1 bytes still get a wire form
  for (const char* bad : {"&AOk", "&A-", "&AGE-", "&2D0-", "a\x80", "&!!-", "&3ec-"}) {
    std::string out = "kept";
    EXPECT_FALSE(imap_mutf7_to_utf8(bad, &out)) << bad;
    EXPECT_EQ(out, "kept");
  }
}
