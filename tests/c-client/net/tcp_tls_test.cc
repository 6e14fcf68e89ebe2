// TLS against a real openssl s_server (tests/peers/tls-server.sh), which
// answers each line reversed: a line sent as CR + reversed text + CRLF
// comes back as text + CRLF. STARTTLS goes through a server thread that
// speaks the plain part itself and then relays the bytes to s_server.
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>
#include <string>

#include "tests/c-client/net/tcp_test_util.h"

namespace {

using namespace tcptest;

const char* const kScript = VELMAR_TEST_DATA_DIR "/../peers/tls-server.sh";

std::string Run(const std::string& command) {
  std::string out;
  if (FILE* p = ::popen((command + " 2>&1").c_str(), "r")) {
    char buffer[512];
    while (size_t n = std::fread(buffer, 1, sizeof buffer, p)) out.append(buffer, n);
    ::pclose(p);
  }
  return out;
}

// The servers of this test process, one per certificate kind, started on
// first use and stopped at the end.
class TlsPeers {
 public:
  static std::string dir() {
    static std::string d = [] {
      char name[] = "/tmp/velmar-tls-XXXXXX";
      return std::string(::mkdtemp(name) ? name : "");
    }();
    return d;
  }
  // The server's port, or 0 with a failure that says why.
  static unsigned Port(const std::string& kind) {
    auto& ports = Ports();
    if (ports.count(kind)) return ports[kind];
    if (Run("command -v openssl").empty()) {
      ADD_FAILURE() << "openssl not found: the TLS tests need the Debian package 'openssl'";
      return 0;
    }
    std::string out = Run("sh '" + std::string(kScript) + "' start '" + dir() + "' " + kind);
    std::map<std::string, std::string> values;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);)
      if (size_t eq = line.find('='); eq != std::string::npos) values[line.substr(0, eq)] = line.substr(eq + 1);
    unsigned port = values.count("PORT") ? static_cast<unsigned>(std::atoi(values["PORT"].c_str())) : 0;
    if (!port) {
      ADD_FAILURE() << "tls-server.sh could not start the " << kind << " server:\n" << out;
      return 0;
    }
    ca() = values["CA"];
    return ports[kind] = port;
  }
  static std::string& ca() {
    static std::string path;
    return path;
  }
  static void StopAll() {
    if (!Ports().empty()) Run("sh '" + std::string(kScript) + "' stop '" + dir() + "'");
    Ports().clear();
    if (!dir().empty()) Run("rm -rf '" + dir() + "'");
  }

 private:
  static std::map<std::string, unsigned>& Ports() {
    static std::map<std::string, unsigned> p;
    return p;
  }
};

class Tls : public TcpFixture {
 protected:
  static void TearDownTestSuite() { TlsPeers::StopAll(); }
  void SetUp() override {
    TcpFixture::SetUp();
    tcp_set_timeouts_for_test(5, 5, 5);
  }
  void TearDown() override {
    tcp_tls_set_ca_file(nullptr);
    TcpFixture::TearDown();
  }
  // Open to the server of that kind, by name, so the certificate is checked
  // against "localhost".
  TcpStream* Open(const std::string& kind) {
    unsigned port = TlsPeers::Port(kind);
    if (!port) return nullptr;
    return tcp_open("localhost", "imaps", port);
  }
  // A session with the trusted server, or null with a failure.
  TcpStream* OpenTrusted() {
    tcp_tls_set_ca_file(TlsPeers::ca().c_str());
    TcpStream* s = Open("good");
    if (s && tcp_starttls(s, "localhost", 0) == 1) return s;
    ADD_FAILURE() << "no TLS session with the trusted server\n" << AllTold();
    if (s) tcp_close(s);
    return nullptr;
  }
};

// Sends the line so that s_server's answer is the line itself.
bool Say(TcpStream* s, const std::string& text) {
  std::string reversed(text.rbegin(), text.rend());
  return tcp_soutr(s, ("\r" + reversed + "\r\n").c_str()) == 1;
}

TEST_F(Tls, ATrustedCertificateCarriesLinesBothWays) {
  ASSERT_NE(TlsPeers::Port("good"), 0u);  // first, so that the CA is known
  TcpStream* s = OpenTrusted();
  ASSERT_NE(s, nullptr);
  EXPECT_TRUE(tcp_tls_active(s));
  std::string peer = tcp_tls_peer(s);
  EXPECT_NE(peer.find("CN=localhost, issued by CN=Velmar Test CA"), std::string::npos) << peer;
  // A TLS 1.3 server sends its session tickets after the handshake: the
  // socket is readable before the first write, and that must not count as
  // the server having spoken.
  Pause(200);
  EXPECT_TRUE(Readable(s->socket, 0)) << "no session tickets: the case below is not exercised";
  for (const std::string& line : {std::string("a1 LOGIN"), std::string(3000, 'q') + "!", std::string("a2 LOGOUT")}) {
    ASSERT_TRUE(Say(s, line)) << AllTold();
    EXPECT_EQ(Take(tcp_getline(s)), line);
  }
  // A counted block and the line after it, from the same answer.
  ASSERT_TRUE(Say(s, "0123456789tail"));
  char block[11];
  ASSERT_EQ(tcp_getbuffer(s, 10, block), 1);
  EXPECT_STREQ(block, "0123456789");
  EXPECT_EQ(Take(tcp_getline(s)), "tail");
  tcp_close(s);
}

TEST_F(Tls, CertificatesThatDoNotProveTheNameAreRefused) {
  struct Case {
    const char* kind;
    bool trust_test_ca;
    unsigned long flags;
    const char* refusal;  // null: the connection works
  };
  const Case cases[] = {
      {"selfsigned", true, 0, "TLS connection to localhost failed: certificate verify failed (self-signed certificate)"},
      {"selfsigned", true, TCP_TLS_NOVALIDATE, nullptr},
      {"wronghost", true, 0, "TLS connection to localhost failed: certificate verify failed (hostname mismatch)"},
      {"wronghost", true, TCP_TLS_NOVALIDATE, nullptr},
      {"good", false, 0,
       "TLS connection to localhost failed: certificate verify failed (unable to get local issuer certificate)"},
      {"good", true, 0, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.kind) + (c.flags ? " novalidate" : "") + (c.trust_test_ca ? "" : " system store"));
    mail_env_clear();
    ASSERT_NE(TlsPeers::Port(c.kind), 0u);
    tcp_tls_set_ca_file(c.trust_test_ca ? TlsPeers::ca().c_str() : nullptr);
    TcpStream* s = Open(c.kind);
    ASSERT_NE(s, nullptr) << AllTold();
    long ok = tcp_starttls(s, "localhost", c.flags);
    if (c.refusal) {
      EXPECT_EQ(ok, 0);
      EXPECT_TRUE(Told("log", c.refusal, 2)) << AllTold();
      EXPECT_FALSE(tcp_tls_active(s));
      EXPECT_EQ(s->socket, -1);
      // Never on in the clear.
      EXPECT_EQ(tcp_soutr(s, "a1 LOGIN user secret\r\n"), 0);
    } else {
      ASSERT_EQ(ok, 1) << AllTold();
      if (c.flags & TCP_TLS_NOVALIDATE) {
        EXPECT_NE(std::string(tcp_tls_peer(s)).find("not verified"), std::string::npos);
      }
      ASSERT_TRUE(Say(s, "a1 NOOP"));
      EXPECT_EQ(Take(tcp_getline(s)), "a1 NOOP");
    }
    tcp_close(s);
  }
}

TEST_F(Tls, StarttlsUpgradesAfterPlainLines) {
  unsigned tls_port = TlsPeers::Port("good");
  ASSERT_NE(tls_port, 0u);
  tcp_tls_set_ca_file(TlsPeers::ca().c_str());
  for (bool inject : {false, true}) {
    SCOPED_TRACE(inject ? "a reply slipped in before the handshake" : "a clean upgrade");
    mail_env_clear();
    LoopbackServer front;
    front.Serve([&](int fd) {
      SendAll(fd, "* OK plain greeting\r\n");
      if (ReadLine(fd) != "a1 STARTTLS") return;
      // An attacker in the path adds a reply in the clear, hoping it is
      // read as if it came through TLS.
      SendAll(fd, inject ? "a1 OK Begin TLS\r\na2 OK LOGIN done\r\n" : "a1 OK Begin TLS\r\n");
      int back = ::socket(AF_INET, SOCK_STREAM, 0);
      sockaddr_in a{};
      a.sin_family = AF_INET;
      a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      a.sin_port = htons(static_cast<unsigned short>(tls_port));
      if (::connect(back, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        ::close(back);
        return;
      }
      // From here on the bytes are s_server's.
      char buffer[16384];
      for (auto end = Clock::now() + std::chrono::seconds(15); Clock::now() < end && !front.done();) {
        pollfd p[2] = {{fd, POLLIN, 0}, {back, POLLIN, 0}};
        if (::poll(p, 2, 50) <= 0) continue;
        int from = (p[0].revents & (POLLIN | POLLHUP)) ? fd : back;
        int to = from == fd ? back : fd;
        ssize_t n = ::recv(from, buffer, sizeof buffer, 0);
        if (n <= 0 || !SendAll(to, std::string(buffer, static_cast<size_t>(n)))) break;
      }
      ::close(back);
    });
    TcpStream* s = tcp_open("localhost", "imap", front.port());
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(Take(tcp_getline(s)), "* OK plain greeting");
    ASSERT_EQ(tcp_soutr(s, "a1 STARTTLS\r\n"), 1);
    EXPECT_EQ(Take(tcp_getline(s)), "a1 OK Begin TLS");
    if (inject) Pause(100);  // the injected line is in the same read
    long ok = tcp_starttls(s, "localhost", 0);
    if (inject) {
      EXPECT_EQ(ok, 0);
      EXPECT_TRUE(Told("log", "TLS connection to localhost failed: the server sent data before the TLS handshake", 2))
          << AllTold();
      EXPECT_EQ(s->socket, -1);
    } else {
      ASSERT_EQ(ok, 1) << AllTold();
      ASSERT_TRUE(Say(s, "a2 CAPABILITY"));
      EXPECT_EQ(Take(tcp_getline(s)), "a2 CAPABILITY");
    }
    front.done() = true;
    tcp_close(s);
  }
}

TEST_F(Tls, TheServerEndingTheSessionEndsTheStream) {
  ASSERT_NE(TlsPeers::Port("good"), 0u);
  TcpStream* s = OpenTrusted();
  ASSERT_NE(s, nullptr);
  // s_server ends the session on this line.
  ASSERT_EQ(tcp_soutr(s, "CLOSE\r\n"), 1);
  Watchdog watchdog(8, "the read after the server ended the session");
  auto start = Clock::now();
  double cpu = ThreadCpuSeconds();
  EXPECT_EQ(tcp_getline(s), nullptr);
  EXPECT_LT(SecondsSince(start), 3.0);
  EXPECT_LT(ThreadCpuSeconds() - cpu, 0.5);
  EXPECT_EQ(s->socket, -1);
  tcp_close(s);
}

TEST_F(Tls, DataBeforeAWriteStillMeansTheServerHasSpoken) {
  ASSERT_NE(TlsPeers::Port("good"), 0u);
  TcpStream* s = OpenTrusted();
  ASSERT_NE(s, nullptr);
  ASSERT_TRUE(Say(s, "* BYE"));
  Pause(300);  // the answer is in, unread
  EXPECT_EQ(tcp_soutr(s, "a1 NOOP\r\n"), 0);
  EXPECT_TRUE(Told("dlog",
                   "tcp_sout: this socket stream is 'closed' - abnormally or via server idle timeout. send() aborted.\n"))
      << AllTold();
  EXPECT_EQ(s->socket, -1);
  tcp_close(s);
}

}  // namespace
