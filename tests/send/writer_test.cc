// The message file as written: encodings, headers and their order, and the
// pieces of the SMTP dialogue that work on text (replies, Bcc, stuffing).
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "src/base/base64.h"
#include "src/send/send.h"
#include "src/send/smtp.h"
#include "src/send/writer_codec.h"
#include "tests/send/message_records.h"

namespace {

Message* HelloMessage(const std::string& text) {
  Message* m = TextMessage(text, Addr("you", "example.net"), "Hello");
  m->envelope->from = Addr("me", "example.org");
  return m;
}

std::string Write(Message* m) {
  std::string out;
  EXPECT_EQ(write_message(&out, m, nullptr, nullptr), 1);
  return out;
}

TEST(Writer, TextEncodingIsChosenByContent) {
  const std::string accent = "caf\xc3\xa9";
  std::string mostly;
  for (int i = 0; i < 400; ++i) mostly += "\xc3\xa9";
  struct Case {
    std::string text, encoding_line, charset;
  } cases[] = {
      {"plain words\n", "", "CHARSET=US-ASCII"},
      {accent + " au lait\n", "Content-Transfer-Encoding: QUOTED-PRINTABLE", "CHARSET=UTF-8"},
      {mostly, "Content-Transfer-Encoding: BASE64", "CHARSET=UTF-8"},
      {std::string(1200, 'x') + "\n", "Content-Transfer-Encoding: QUOTED-PRINTABLE", "CHARSET=US-ASCII"},
  };
  for (const Case& c : cases) {
    Message* m = HelloMessage(c.text);
    const std::string file = Write(m);
    EXPECT_NE(file.find(c.charset), std::string::npos) << file.substr(0, 400);
    if (c.encoding_line.empty()) {
      EXPECT_EQ(file.find("Content-Transfer-Encoding"), std::string::npos);
    } else {
      EXPECT_NE(file.find(c.encoding_line), std::string::npos) << file.substr(0, 400);
    }
    // Every line of the file ends in CRLF and fits on the wire.
    size_t start = 0;
    for (size_t at = file.find('\n'); at != std::string::npos; start = at + 1, at = file.find('\n', start)) {
      ASSERT_GT(at, 0u);
      EXPECT_EQ(file[at - 1], '\r');
      EXPECT_LE(at - start - 1, 998u);
    }
    mail_free_message(&m);
  }
}

TEST(Writer, HeadersComeInOrderWithBccKeptAndNonAsciiEncoded) {
  Message* m = HelloMessage("x\n");
  m->envelope->bcc = Addr("hidden", "example.com");
  m->envelope->cc = Addr("cc", "example.com", "J\xc3\xbcrgen");
  FS_GIVE(&m->envelope->subject);
  m->envelope->subject = cpystr("Gr\xc3\xbc\xc3\x9f" "e");
  m->envelope->date = cpystr("Mon, 2 Nov 2026 10:00:00 +0000 (UTC)");
  m->envelope->message_id = cpystr("<id@x>");
  SendOptions options;
  options.priority = 2;
  options.read_receipt = 1;
  const int auth = 0;
  std::string file;
  ASSERT_EQ(write_message(&file, m, &auth, &options), 1);
  file = "\r\n" + file;
  const char* order[] = {"From: ", "To: ", "Cc: =?UTF-8?B?SsO8cmdlbg==?= <cc@example.com>", "Bcc: ",
                         "Subject: =?UTF-8?B?R3LDvMOfZQ==?=", "Message-ID: <id@x>", "Date: ",
                         "Read-Receipt-To: ", "Disposition-Notification-To: ", "Priority: HIGH",
                         "X-Mailer: Velmar for Linux", "X-Authentication: none", "MIME-Version: 1.0",
                         "Content-Type: TEXT/PLAIN"};
  size_t at = 0;
  for (const char* h : order) {
    const size_t found = file.find(std::string("\r\n") + h, at == 0 ? 0 : at - 2);
    ASSERT_NE(found, std::string::npos) << h << "\n" << file;
    at = found + 2;
  }
  mail_free_message(&m);
}

TEST(Writer, AttachmentFromFileDecodesToItsBytes) {
  char name[] = "/tmp/velmar-att-XXXXXX";
  const int fd = mkstemp(name);
  std::string bytes;
  for (int i = 0; i < 3001 * 3; ++i) bytes += static_cast<char>(i * 7 % 256);
  ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  close(fd);
  Message* m = HelloMessage("see attached\n");
  AddAttachment(m, kTextFile, name);
  const std::string file = Write(m);
  const size_t head = file.find("BASE64\r\n\r\n");
  ASSERT_NE(head, std::string::npos) << file.substr(0, 800);
  const size_t end = file.find("\r\n--", head);
  std::string decoded;
  ASSERT_TRUE(Base64Decode(file.data() + head + 10, end - head - 10, &decoded));
  EXPECT_EQ(decoded, bytes);
  unlink(name);
  mail_free_message(&m);
}

TEST(Writer, CanonicalLineEndsSurviveBlockBoundaries) {
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"a\r", "\nb"}, "a\r\nb"},
      {{"a\n", "\rb\r"}, "a\r\n\r\nb\r\n"},
      {{"a\r\r", "\n"}, "a\r\n\r\n"},
  };
  for (const auto& [blocks, want] : cases) {
    Canonicalizer state;
    std::string out;
    for (const std::string& b : blocks) state.Feed(b.data(), b.size(), &out);
    state.Finish(&out);
    EXPECT_EQ(out, want);
  }
}

TEST(Writer, QuotedPrintableKeepsTrailingBlanksAndSplitsLongLines) {
  const std::pair<std::string, std::string> cases[] = {
      {"a \r\nb", "a=20\r\nb=\r\n"},
      {".x\r\n", "=2Ex\r\n"},
      {"caf\xc3\xa9\r\n", "caf=C3=A9\r\n"},
      {std::string(80, 'y'), std::string(75, 'y') + "=\r\n" + std::string(5, 'y') + "=\r\n"},
  };
  for (const auto& [in, want] : cases) {
    QPEncoder qp;
    std::string out;
    for (char ch : in) qp.Feed(&ch, 1, &out);  // byte by byte: state carries
    qp.Finish(&out);
    EXPECT_EQ(out, want);
  }
}

TEST(Smtp, BccFieldsGoWithTheirContinuationLines) {
  const std::pair<std::string, std::string> cases[] = {
      {"From: a\r\nBcc: x@y,\r\n    z@w\r\nTo: b\r\n\r\n", "From: a\r\nTo: b\r\n\r\n"},
      {"bcc : x\r\nResent-Bcc: y\r\n\tmore\r\nSubject: s\r\n\r\n", "Subject: s\r\n\r\n"},
      {"BccX: kept\r\nTo: b\r\n\r\n", "BccX: kept\r\nTo: b\r\n\r\n"},
  };
  for (const auto& [in, want] : cases) {
    std::string header = in;
    smtp_strip_bcc(&header);
    EXPECT_EQ(header, want);
  }
}

TEST(Smtp, RepliesAreReadWithLimits) {
  struct Case {
    std::vector<std::string> lines;
    bool ok;
    int code;
  } cases[] = {
      {{"250-sink", "250-8BITMIME", "250 SIZE 1000"}, true, 250},
      {{"220 ready"}, true, 220},
      {{"250-a", "251 b"}, false, 250},
      {{"25x ok"}, false, 0},
      {{"250" + std::string(5000, 'x')}, false, 0},
      {{"250ok"}, false, 0},
  };
  for (const Case& c : cases) {
    SmtpReply reply;
    bool ok = true;
    for (const std::string& l : c.lines) ok = smtp_reply_add(&reply, l.data(), l.size()) && ok;
    EXPECT_EQ(ok && reply.complete, c.ok) << c.lines[0].substr(0, 20);
    if (c.ok) {
      EXPECT_EQ(reply.code, c.code);
    }
  }
  SmtpReply ehlo;
  for (const char* l : {"250-sink", "250-SIZE 1000", "250-STARTTLS", "250 AUTH plain CRAM-MD5"})
    smtp_reply_add(&ehlo, l, std::strlen(l));
  SmtpExtensions ext;
  smtp_parse_extensions(ehlo, &ext);
  EXPECT_TRUE(ext.starttls && ext.size);
  EXPECT_EQ(ext.max_size, 1000u);
  EXPECT_EQ(ext.auth, (std::vector<std::string>{"PLAIN", "CRAM-MD5"}));
}

TEST(Smtp, DotsAreDoubledAtLineStartsAcrossWrites) {
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  SmtpStream stream;
  stream.tcp = tcp_attach_fd(fds[0], "test");
  for (const char* piece : {".a\r\n", "b\r", "\n.", "c\n..d\r\n"}) ASSERT_EQ(smtp_soutr(&stream, piece, std::strlen(piece)), 1);
  char got[256];
  const ssize_t n = read(fds[1], got, sizeof got);
  EXPECT_EQ(std::string(got, n > 0 ? n : 0), "..a\r\nb\r\n..c\r\n...d\r\n");
  tcp_close(stream.tcp);
  close(fds[1]);
}

TEST(Smtp, HostEntriesAreRead) {
  struct Case {
    std::string entry;
    bool ok;
    std::string name;
    unsigned long port;
    bool ssl, tls;
  } cases[] = {
      {"mail.example.org", true, "mail.example.org", 0, false, false},
      {"mail:587/tls", true, "mail", 587, false, true},
      {"[::1]:2525/ssl", true, "[::1]", 2525, true, false},
      {"mail:99999", false, "", 0, false, false},
      {"mail/bogus", false, "", 0, false, false},
  };
  for (const Case& c : cases) {
    SmtpHost host;
    std::string why;
    ASSERT_EQ(smtp_parse_host(c.entry, &host, &why), c.ok) << c.entry << " " << why;
    if (!c.ok) continue;
    EXPECT_EQ(host.name, c.name);
    EXPECT_EQ(host.port, c.port);
    EXPECT_EQ(host.ssl, c.ssl);
    EXPECT_EQ(host.tls, c.tls);
  }
}

}  // namespace
