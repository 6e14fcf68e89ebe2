// The public directory against a real server (tests/peers/ldap-slapd.sh):
// what a search gives, the size limit, a wrong password, TLS, and a compose
// field filled from the directory when no book knows the name.
#include <gtest/gtest.h>

#include "c-client/auth/auth.h"
#include "src/books/directory.h"
#include "src/compose/compose.h"
#include "src/options/options.h"
#include "tests/organizer/nodes_fixture.h"
#include "tests/support/peer_script.h"

namespace {

std::string g_typed_password;
int g_asked = 0;
long Dialog(const char*, char*, char* password, long) {
  snprintf(password, kMailLoginSize, "%s", g_typed_password.c_str());
  return ++g_asked, kLoginOk;
}

std::string Shown(const DirectoryAnswer& a) {
  std::string out;
  for (const DirectoryHit& h : a.hits) out += h.name + " <" + h.email + ">;";
  return out;
}

class DirectoryPeer : public nodestest::NodesTest {
 protected:
  void SetUp() override {
    NodesTest::SetUp();
    if (!server_.Start()) GTEST_SKIP() << "no server";
    const std::pair<const char*, std::string> options[] = {
        {"Directory.Enable", "1"}, {"Directory.Host", "127.0.0.1"}, {"Directory.Port", server_.env.at("PORT")},
        {"Directory.BaseDN", server_.env.at("BASEDN")}, {"Directory.BindDN", server_.env.at("BINDDN")}};
    for (const auto& [name, value] : options) Opt_AssignString(name, value.c_str(), kOptSession, 0);
    g_typed_password = server_.env.at("PASSWORD");
    g_asked = 0;
    DIR_ForgetPassword();
    AUTH_SetDialog(Dialog);
  }
  void TearDown() override {
    AUTH_SetDialog(nullptr);
    NodesTest::TearDown();
  }
  PeerServer server_{"ldap-slapd.sh", "velmar-ldap"};
};

// A wrong password first: refused, forgotten and asked again at the next search.
TEST_F(DirectoryPeer, SearchesGiveEveryAddressTellALimitAndRefuseAWrongPassword) {
  const std::string refused =
      "The directory server 127.0.0.1:" + server_.env.at("PORT") + " refused the name or password.";
  const std::string password = g_typed_password;
  const struct {
    const char* typed;
    const char* max;
    std::string hits;  // or the refusal
    bool partial;
  } cases[] = {
      {"ann", "50", refused, false},
      {"ann", "50", "Ann Example <ann@example.org>;", false},
      {"Twomail", "50", "Bob Twomail <bob@example.org>;Bob Twomail <bob@home.example.net>;", false},
      {"Nora", "50", "", false},  // no mail: nothing to write to
      {"Müller", "50", "Jürgen Müller (Sales) <jm@example.org>;", false},
      {"ann)(cn=*", "50", "", false},  // typed text never becomes filter syntax
      {"smith", "3", "Sam Smith 1 <smith1@example.org>;Sam Smith 2 <smith2@example.org>;Sam Smith 3 <smith3@example.org>;",
       true},
  };
  g_typed_password = "wrong";
  for (const auto& c : cases) {
    Opt_AssignString("Directory.MaxResults", c.max, kOptSession, 0);
    const DirectoryAnswer a = DIR_Search(c.typed);
    g_typed_password = password;
    EXPECT_EQ(a.failed, c.hits == refused) << c.typed << ": " << a.message;
    EXPECT_EQ(a.failed ? a.message : Shown(a), c.hits) << c.typed;
    EXPECT_EQ(a.partial, c.partial) << c.typed;
    EXPECT_EQ(a.message.find("more than 3 entries") != std::string::npos, c.partial) << a.message;
  }
  EXPECT_EQ(g_asked, 2);  // asked again after the refusal, then once for the session
}

// Over TLS only with a certificate we trust, and never on in plain text.
TEST_F(DirectoryPeer, TlsFindsThePersonOnlyWhenTheCertificateIsTrusted) {
  PeerServer no_tls{"ldap-slapd.sh", "velmar-ldap"}, elsewhere{"ldap-slapd.sh", "velmar-ldap"};
  no_tls.vars = "LDAP_TLS=off", elsewhere.vars = "PEER_CERT_HOST=elsewhere.invalid";  // trusted, but not for us
  ASSERT_TRUE(no_tls.Start() && elsewhere.Start());
  const std::string port = server_.env.at("PORT"), ssl = server_.env.at("SSLPORT"), ca = server_.env.at("CAFILE");
  const std::string other = elsewhere.env.at("PORT");
  const std::string ann = "Ann Example <ann@example.org>;", untrusted = "server 127.0.0.1:";
  const struct {
    const char* tls;
    std::string port, ca, expected;  // the person found, or part of the message
  } cases[] = {
      {"starttls", port, ca, ann},
      {"ldaps", ssl, ca, ann},
      {"starttls", port, "", "certificate of the directory " + untrusted + port + " was not trusted"},
      {"ldaps", ssl, "", "certificate of the directory " + untrusted + ssl + " was not trusted"},
      {"starttls", no_tls.env.at("PORT"), ca, untrusted + no_tls.env.at("PORT") + " does not offer TLS"},
      {"starttls", other, elsewhere.env.at("CAFILE"), "certificate of the directory " + untrusted + other + " was not"},
  };
  for (const auto& c : cases) {
    for (const auto& [name, value] : {std::pair<const char*, std::string>{"Directory.TLS", c.tls},
                                      {"Directory.Port", c.port}, {"Directory.CACertFile", c.ca}})
      Opt_AssignString(name, value.c_str(), kOptSession, 0);
    const DirectoryAnswer a = DIR_Search("ann");
    EXPECT_EQ(a.failed, c.expected != ann) << c.tls << " " << c.port << ": " << a.message;
    EXPECT_NE((a.failed ? a.message : Shown(a)).find(c.expected), std::string::npos) << a.message << Shown(a);
  }
}

TEST_F(DirectoryPeer, ComposeTakesANameNoBookKnowsFromTheDirectory) {
  Run([&] {
    WINDOW win = compose_new();
    xvt_test_type(win, kComposeToId, "ann, Twomail, zzznobody");
    // Two addresses for Twomail: the user picks the second.
    xvt_test_push_dialog(kDirPickRid, [](WINDOW dlg) {
      xvt_test_select(dlg, kDpList, 1);
      xvt_test_click(dlg, kDpOk);
    });
    ExpandAllAddresses(win);
    EXPECT_EQ(ComposeGetFields(ComposeInfoOf(win)).to,
              "Ann Example <ann@example.org>, Bob Twomail <bob@home.example.net>, zzznobody");
    xvt_vobj_destroy(win);
  });
}

}  // namespace
