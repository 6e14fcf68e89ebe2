// TLS against a real openssl s_server (tests/peers/tls-server.sh), which
// answers each line reversed: a line sent as CR + reversed text + CRLF
// comes back as text + CRLF. A clean STARTTLS upgrade after plain lines is
// in the IMAP peer tests, against Dovecot.
#include <map>
#include <string>

#include "tests/c-client/net/tcp_test_util.h"
#include "tests/support/peer_script.h"

namespace {

using namespace tcptest;

// The servers of this test process, one per certificate kind, started on
// first use and stopped at the end.
struct TlsPeers {
  static inline std::string dir, ca;
  static inline std::map<std::string, unsigned> ports;

  // The server's port, or 0 with a failure that says why.
  static unsigned Port(const std::string& kind) {
    if (ports.count(kind)) return ports[kind];
    if (dir.empty()) {
      char name[] = "/tmp/velmar-tls-XXXXXX";
      dir = ::mkdtemp(name) ? name : "/tmp";
    }
    std::map<std::string, std::string> values;
    const std::string out = RunPeerScript("tls-server.sh", "start '" + dir + "' " + kind, &values);
    if (!values.count("PORT") || !values.count("CA")) {
      ADD_FAILURE() << "tls-server.sh could not start the " << kind << " server:\n" << out;
      return 0;
    }
    ca = values["CA"];
    return ports[kind] = static_cast<unsigned>(std::stoul(values["PORT"]));
  }
  static void StopAll() {
    if (dir.empty()) return;
    RunPeerScript("tls-server.sh", "stop '" + dir + "'; rm -rf '" + dir + "'");
    ports.clear();
    dir.clear();
  }
};

class Tls : public TcpFixture {
 protected:
  static void TearDownTestSuite() { TlsPeers::StopAll(); }
  void SetUp() override { TcpFixture::SetUp(), tcp_set_timeouts_for_test(5, 5, 5); }
  void TearDown() override { tcp_tls_set_ca_file(nullptr), TcpFixture::TearDown(); }
  // Open to the server of that kind, by name, so the certificate is checked
  // against "localhost".
  static TcpStream* Open(const std::string& kind) {
    unsigned port = TlsPeers::Port(kind);
    return port ? tcp_open("localhost", "imaps", port) : nullptr;
  }
};

// Sends the line so that s_server's answer is the line itself.
bool Say(TcpStream* s, const std::string& text) {
  return tcp_soutr(s, ("\r" + std::string(text.rbegin(), text.rend()) + "\r\n").c_str()) == 1;
}

TEST_F(Tls, OnlyCertificatesThatProveTheNameAreTrusted) {
  const std::string failed = "TLS connection to localhost failed: certificate verify failed ";
  // kind, trust the test CA, flags, refusal (empty: the connection works),
  // what the peer's summary says
  const std::tuple<const char*, bool, unsigned long, std::string, const char*> cases[] = {
      {"good", true, 0, "", "CN=localhost, issued by CN=Velmar Test CA"},
      {"selfsigned", true, 0, failed + "(self-signed certificate)", ""},
      {"selfsigned", true, TCP_TLS_NOVALIDATE, "", "not verified"},
      {"wronghost", true, 0, failed + "(hostname mismatch)", ""},
      {"good", false, 0, failed + "(unable to get local issuer certificate)", ""},
  };
  for (const auto& [kind, trust_test_ca, flags, refusal, peer] : cases) {
    SCOPED_TRACE(std::string(kind) + (flags ? " novalidate" : "") + (trust_test_ca ? "" : " system store"));
    mail_env_clear();
    TcpStream* s = Open(kind);
    ASSERT_NE(s, nullptr) << EnvAll();
    tcp_tls_set_ca_file(trust_test_ca ? TlsPeers::ca.c_str() : nullptr);
    long ok = tcp_starttls(s, "localhost", flags);
    EXPECT_EQ(tcp_tls_active(s), refusal.empty());
    if (!refusal.empty()) {
      EXPECT_EQ(ok, 0);
      EXPECT_TRUE(EnvSaid("log", refusal, 2)) << EnvAll();
      EXPECT_EQ(s->socket, -1);
      EXPECT_EQ(tcp_soutr(s, "a1 LOGIN user secret\r\n"), 0);  // never on in the clear
      tcp_close(s);
      continue;
    }
    ASSERT_EQ(ok, 1) << EnvAll();
    EXPECT_NE(std::string(tcp_tls_peer(s)).find(peer), std::string::npos) << tcp_tls_peer(s);
    if (flags) {  // s_server ends the session on this line
      ASSERT_EQ(tcp_soutr(s, "CLOSE\r\n"), 1);
      ExpectEndsAtOnce(s, "the server ended the TLS session");
      tcp_close(s);
      continue;
    }
    // A TLS 1.3 server sends its session tickets after the handshake: the
    // socket is readable before the first write, and that must not count as
    // the server having spoken.
    Pause(200);
    EXPECT_TRUE(Readable(s->socket, 0)) << "no session tickets: the case below is not exercised";
    for (const std::string& line : {std::string("a1 LOGIN"), std::string(3000, 'q') + "!"}) {
      ASSERT_TRUE(Say(s, line)) << EnvAll();
      EXPECT_EQ(Take(tcp_getline(s)), line);
    }
    // A counted block and the line after it, from the same answer.
    ASSERT_TRUE(Say(s, "0123456789tail"));
    char block[11];
    ASSERT_EQ(tcp_getbuffer(s, 10, block), 1);
    EXPECT_STREQ(block, "0123456789");
    EXPECT_EQ(Take(tcp_getline(s)), "tail");
    // Application data waiting before a write does mean the server has spoken.
    ASSERT_TRUE(Say(s, "* BYE"));
    Pause(300);
    EXPECT_EQ(tcp_soutr(s, "a1 NOOP\r\n"), 0);
    EXPECT_TRUE(EnvSaid("dlog", "tcp_sout: this socket stream is 'closed' - abnormally or via server idle timeout. "
                             "send() aborted.\n")) << EnvAll();
    tcp_close(s);
  }
}

}  // namespace
