// A composed message signed and encrypted on its way out, through the real
// wrapper and gpg in a throw-away key ring, then read back as a recipient
// would: the signature checks and the text decrypts.
#include <unistd.h>

#include <string>

#include "src/compose/compose.h"
#include "src/security/pgp_mime.h"
#include "src/send/send.h"
#include "tests/security/gpg_ring.h"
#include "tests/send/message_records.h"

namespace {

class ComposePgpPeer : public GpgRingTest {
 protected:
  static Message* NewMessage(bool attachment) {
    Message* m = TextMessage(kText, Addr("bob", "example.org"), "Meeting");
    if (attachment) AddAttachment(m, kTextInMemory, "agenda");
    return m;
  }
};

TEST_F(ComposePgpPeer, SignedAndEncryptedMessagesReadBack) {
  struct Case {
    const char* what;
    int encrypt, sign, mime;
    bool attachment;
    int result;
  } cases[] = {
      {"inline signed", 0, 1, 0, false, 1},
      {"inline encrypted", 1, 0, 0, false, 1},
      {"MIME signed, with an attachment", 0, 1, 1, true, 1},
      {"MIME signed and encrypted", 1, 1, 1, false, 1},
      {"inline cannot take an attachment", 0, 1, 0, true, 0},
  };
  Run({"-b"}, [&] {
    Opt_AssignString("General.MailAddress", "alice@example.org", kOptSession, 0);
    Opt_AssignString(kPgpEncryptToSelfOption, "FALSE", kOptSession, 0);
    for (const Case& c : cases) {
      if (c.sign && c.result)
        xvt_test_push_dialog(0, [](WINDOW d) {
          xvt_test_type(d, 3132, kAlicePass);
          xvt_test_click(d, 3133);
        });
      xvt_test_clear_posts();
      Message* m = NewMessage(c.attachment);
      ASSERT_EQ(COMP_ProcessPGP(m, kComposeNew, c.encrypt, c.sign, c.mime), c.result) << c.what << "\n" << Posts();
      if (!c.result) {
        EXPECT_NE(Posts().find("Unable to encrypt/sign multipart message."), std::string::npos) << Posts();
        mail_free_message(&m);
        continue;
      }
      const char* file = Path("sent.eml");
      const char* back = Path("back.txt");
      SendOptions options;
      ASSERT_EQ(dump_message(m, file, nullptr, &options), 1) << c.what;
      mail_free_message(&m);
      const std::string sent = ReadFile(file);
      EXPECT_EQ(sent.find("the meeting is at ten") == std::string::npos, c.encrypt != 0) << c.what << "\n" << sent;
      // Read back as the recipient does.
      const int ok = c.mime ? (c.encrypt ? pgp_mime_decrypt(file, back, kBobPass) : pgp_mime_verify(file, back))
                            : (c.encrypt ? pgp_decrypt(file, back, kBobPass, 1) : pgp_verify_signature(file, back, ""));
      EXPECT_EQ(ok, 1) << c.what << ": " << LastPgpError() << "\n" << sent;
      std::string text = ReadFile(back);
      std::erase(text, '\r');
      EXPECT_NE(text.find("the meeting is at ten."), std::string::npos) << c.what << "\n" << text;
      ::unlink(back);
    }
    Exit();
  });
}

}  // namespace
