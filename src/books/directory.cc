// The public directory over the system's LDAP client library. Every call
// opens its own connection and closes it: lookups are rare and a kept
// connection would only go stale behind a firewall.
#include "src/books/directory.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "c-client/auth/auth.h"
#include "c-client/core/env.h"
#include "src/base/trace.h"
#include "src/options/options.h"
#include "xvt/xvt.h"

#if VELMAR_HAVE_LDAP
#include <ldap.h>
#endif

namespace {

std::string g_password;  // the bind password of this session

void Wipe(std::string* s) {
  std::fill(s->begin(), s->end(), '\0');
  s->clear();
}

// An option's number, kept within low..high; unset or 0 (what the
// preferences write for "the default") gives the fallback.
int IntOption(const char* name, int fallback, int low, int high) {
  int v = fallback;
  if (!Opt_LookupInt(name, &v, kOptSession) || v == 0) return fallback;
  return v < low ? low : v > high ? high : v;
}

std::string Trimmed(const std::string& s) {
  const size_t a = s.find_first_not_of(" \t");
  if (a == std::string::npos) return "";
  return s.substr(a, s.find_last_not_of(" \t") - a + 1);
}

// A name for a person: control characters would break a header line.
std::string Clean(const char* v, size_t n) {
  if (n > kDirMaxValue) return "";
  std::string out(v, n);
  for (char& c : out)
    if (static_cast<unsigned char>(c) < 32 || c == 127) c = ' ';
  return Trimmed(out);
}

bool UsableMail(const char* v, size_t n) {
  if (n == 0 || n > kDirMaxValue || !memchr(v, '@', n)) return false;
  for (size_t i = 0; i < n; ++i) {
    const unsigned char c = static_cast<unsigned char>(v[i]);
    if (c <= 32 || c == 127 || c == '<' || c == '>' || c == ',' || c == '"') return false;
  }
  return true;
}

}  // namespace

std::string DIR_EscapeValue(std::string_view value) {
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(value.size());
  for (char c : value) {
    if (c == '*' || c == '(' || c == ')' || c == '\\' || c == '\0') {
      const unsigned char u = static_cast<unsigned char>(c);
      out += '\\';
      out += kHex[u >> 4];
      out += kHex[u & 15];
    } else {
      out += c;
    }
  }
  return out;
}

bool DIR_MakeFilter(std::string_view templ, std::string_view typed, std::string* filter, std::string* error) {
  const std::string escaped = DIR_EscapeValue(typed);
  filter->clear();
  for (size_t i = 0; i < templ.size(); ++i) {
    if (templ[i] == '%' && i + 1 < templ.size() && (templ[i + 1] == 's' || templ[i + 1] == '%')) {
      *filter += templ[i + 1] == 's' ? escaped : "%";
      ++i;
    } else {
      *filter += templ[i];
    }
    if (filter->size() > kDirMaxFilter) {
      *error = "The directory search filter is longer than " + std::to_string(kDirMaxFilter) +
               " characters; shorten Directory.Filter or the text searched for.";
      filter->clear();
      return false;
    }
  }
  return true;
}

bool DIR_Enabled() {
  short on = 0;
  return Opt_LookupBoolean("Directory.Enable", &on, kOptSession) && on;
}

void DIR_ForgetPassword() { Wipe(&g_password); }

#if VELMAR_HAVE_LDAP

namespace {

// The library's handle, unbound on every way out.
struct Connection {
  LDAP* ld = nullptr;
  ~Connection() {
    if (ld) ldap_unbind_ext_s(ld, nullptr, nullptr);
  }
};

std::string Reason(int rc, const std::string& server, int timeout) {
  switch (rc) {
    case LDAP_TIMEOUT: return "The directory server " + server + " did not answer within " + std::to_string(timeout) +
                              " seconds.";
    case LDAP_SERVER_DOWN:
    case LDAP_CONNECT_ERROR: return "The directory server " + server + " cannot be reached.";
    case LDAP_INVALID_CREDENTIALS: return "The directory server " + server + " refused the name or password.";
    case LDAP_FILTER_ERROR: return "The directory search filter (Directory.Filter) is not a valid filter.";
    case LDAP_NO_SUCH_OBJECT: return "The directory has no entry at the base DN (Directory.BaseDN).";
    default: return "The directory server " + server + " answered: " + ldap_err2string(rc) + ".";
  }
}

// TLS settings of this handle alone, made before anything connects: the
// authorities in ca_file (or the system's when empty), and a certificate
// that must be signed by one of them and name the host we asked for. The
// library reads them only into a new context, hence NEWCTX last.
bool SetTrust(LDAP* ld, const std::string& ca_file, bool check) {
  const int require = check ? LDAP_OPT_X_TLS_DEMAND : LDAP_OPT_X_TLS_NEVER;
  const int client = 0;
  if (!ca_file.empty() && ldap_set_option(ld, LDAP_OPT_X_TLS_CACERTFILE, ca_file.c_str()) != LDAP_OPT_SUCCESS)
    return false;
  return ldap_set_option(ld, LDAP_OPT_X_TLS_REQUIRE_CERT, &require) == LDAP_OPT_SUCCESS &&
         ldap_set_option(ld, LDAP_OPT_X_TLS_NEWCTX, &client) == LDAP_OPT_SUCCESS;
}

void Limit(LDAP* ld, timeval* limit) {
  const int version = LDAP_VERSION3;
  ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
  ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
  // Connect and every synchronous wait are bounded, so a silent server
  // costs the user at most the time-out, never a hang.
  ldap_set_option(ld, LDAP_OPT_NETWORK_TIMEOUT, limit);
  ldap_set_option(ld, LDAP_OPT_TIMEOUT, limit);
}

// The TLS handshake (after StartTLS, or first thing for ldaps).
int Handshake(LDAP* ld, bool starttls) {
  return starttls ? ldap_start_tls_s(ld, nullptr, nullptr) : ldap_connect(ld);
}

// After a handshake failed: whether the same handshake with the certificate
// left unchecked goes through, i.e. the server speaks TLS but we do not
// trust it. The library gives no reason of its own, and a user told
// "cannot be reached" would look at the network instead. Nothing but the
// handshake goes over this second connection.
bool OnlyTrustFailed(const std::string& uri, bool starttls, timeval* limit) {
  Connection probe;
  if (ldap_initialize(&probe.ld, uri.c_str()) != LDAP_SUCCESS || !probe.ld) return false;
  Limit(probe.ld, limit);
  return SetTrust(probe.ld, "", false) && Handshake(probe.ld, starttls) == LDAP_SUCCESS;
}

// The first value of attribute, cleaned, or "".
std::string FirstValue(LDAP* ld, LDAPMessage* entry, const char* attribute) {
  berval** values = ldap_get_values_len(ld, entry, attribute);
  std::string out;
  if (values && values[0]) out = Clean(values[0]->bv_val, values[0]->bv_len);
  ldap_value_free_len(values);
  return out;
}

void Collect(LDAP* ld, LDAPMessage* result, DirectoryAnswer* answer) {
  for (LDAPMessage* e = ldap_first_entry(ld, result); e; e = ldap_next_entry(ld, e)) {
    berval** mails = ldap_get_values_len(ld, e, "mail");
    if (!mails) continue;  // nobody to write to
    std::string name = FirstValue(ld, e, "displayName");
    if (name.empty()) name = FirstValue(ld, e, "cn");
    size_t taken = 0;
    for (berval** m = mails; *m && taken < kDirMaxMailsPerEntry; ++m)
      if (UsableMail((*m)->bv_val, (*m)->bv_len)) {
        answer->hits.push_back({name, std::string((*m)->bv_val, (*m)->bv_len)});
        ++taken;
      }
    ldap_value_free_len(mails);
  }
}

// The password for the bind DN: the session's, or asked now.
bool Password(const std::string& server, const std::string& bind_dn, std::string* out) {
  if (!g_password.empty()) {
    *out = g_password;
    return true;
  }
  char user[kMailLoginSize] = "";
  char password[kMailLoginSize] = "";
  AUTH_InitLogin(bind_dn.c_str(), "");
  AUTH_Login((server + " (directory)").c_str(), user, password, 1);
  g_password = password;
  memset(password, 0, sizeof password);
  AUTH_InitLogin("", "");  // the mail login record keeps nothing of ours
  *out = g_password;
  return !g_password.empty();
}

}  // namespace

DirectoryAnswer DIR_Search(const std::string& typed) {
  DirectoryAnswer answer;
  const auto fail = [&answer](std::string message) {
    answer.failed = true;
    answer.message = std::move(message);
    Trace(kTraceBooks, kTraceLow, "directory: %s\n", answer.message.c_str());
    return answer;
  };
  if (!DIR_Enabled()) return fail("The directory is not switched on (Directory.Enable).");
  const std::string host = Trimmed(Opt_LookupText("Directory.Host", kOptSession));
  if (host.empty() || host.find_first_of(" /?#@\\") != std::string::npos)
    return fail("The directory server's name (Directory.Host) is missing or not a host name.");
  std::string tls = Trimmed(Opt_LookupText("Directory.TLS", kOptSession));
  if (tls.empty()) tls = "none";
  if (tls != "none" && tls != "starttls" && tls != "ldaps")
    return fail("Directory.TLS must be none, starttls or ldaps, not \"" + tls + "\".");
  const int port = IntOption("Directory.Port", tls == "ldaps" ? 636 : 389, 1, 65535);
  const int max = IntOption("Directory.MaxResults", 50, 1, 10000);
  const int timeout = IntOption("Directory.TimeoutSeconds", 10, 1, 300);
  std::string templ = Opt_LookupText("Directory.Filter", kOptSession);
  if (Trimmed(templ).empty()) templ = kDirDefaultFilter;
  const std::string text = Trimmed(typed);
  if (text.empty() || text.size() > kDirMaxTyped)
    return fail("The text to look up in the directory must be 1 to " + std::to_string(kDirMaxTyped) +
                " characters long.");
  std::string filter, error;
  if (!DIR_MakeFilter(templ, text, &filter, &error)) return fail(error);

  const std::string ca_file = Trimmed(Opt_LookupText("Directory.CACertFile", kOptSession));
  if (tls != "none" && !ca_file.empty() && access(ca_file.c_str(), R_OK) != 0)
    return fail("The certificate authority file " + ca_file + " (Directory.CACertFile) cannot be read: " +
                strerror(errno) + ".");

  const std::string server = host + ":" + std::to_string(port);
  const std::string uri = (tls == "ldaps" ? "ldaps://" : "ldap://") + server;
  Connection c;
  if (ldap_initialize(&c.ld, uri.c_str()) != LDAP_SUCCESS || !c.ld)
    return fail("The directory server's address " + uri + " is not usable.");
  timeval limit{timeout, 0};
  Limit(c.ld, &limit);
  if (tls != "none") {
    if (!SetTrust(c.ld, ca_file, true))
      return fail("TLS could not be set up for the directory" +
                  (ca_file.empty() ? std::string()
                                   : " with the certificate authority file " + ca_file + " (Directory.CACertFile)") +
                  "; it was not searched.");
    // Any failure here ends the search: it never goes on in plain text.
    const bool starttls = tls == "starttls";
    const auto start = std::chrono::steady_clock::now();
    int rc = Handshake(c.ld, starttls);
    // A handshake the server never answers comes back as a lost connection
    // once the time-out has passed; say what the user waited for.
    if (rc == LDAP_SERVER_DOWN && std::chrono::steady_clock::now() - start >= std::chrono::seconds(timeout))
      rc = LDAP_TIMEOUT;
    if (rc > 0 && starttls)
      return fail("The directory server " + server + " does not offer TLS (it answered the StartTLS request: " +
                  ldap_err2string(rc) + "); it was not searched (Directory.TLS is starttls).");
    if ((rc == LDAP_CONNECT_ERROR || rc == LDAP_SERVER_DOWN) && OnlyTrustFailed(uri, starttls, &limit))
      return fail("The certificate of the directory server " + server +
                  " was not trusted: it is not signed by a known authority, or it is not made out to " + host +
                  ". It was not searched. If the directory has its own authority, name its certificate in "
                  "Directory.CACertFile.");
    if (rc != LDAP_SUCCESS) return fail(Reason(rc, server, timeout));
  }
  const std::string bind_dn = Trimmed(Opt_LookupText("Directory.BindDN", kOptSession));
  if (!bind_dn.empty()) {
    std::string password;
    if (!Password(server, bind_dn, &password)) return fail("No password was given for the directory; it was not searched.");
    berval cred{static_cast<ber_len_t>(password.size()), password.data()};
    const int rc = ldap_sasl_bind_s(c.ld, bind_dn.c_str(), LDAP_SASL_SIMPLE, &cred, nullptr, nullptr, nullptr);
    Wipe(&password);
    if (rc == LDAP_INVALID_CREDENTIALS) DIR_ForgetPassword();  // asked again next time
    if (rc != LDAP_SUCCESS) return fail(Reason(rc, server, timeout));
  }

  char cn[] = "cn", display[] = "displayName", mail[] = "mail";
  char* attributes[] = {cn, display, mail, nullptr};
  const std::string base = Trimmed(Opt_LookupText("Directory.BaseDN", kOptSession));
  LDAPMessage* result = nullptr;
  const int rc = ldap_search_ext_s(c.ld, base.c_str(), LDAP_SCOPE_SUBTREE, filter.c_str(), attributes, 0, nullptr,
                                   nullptr, &limit, max, &result);
  const bool cut = rc == LDAP_SIZELIMIT_EXCEEDED || rc == LDAP_TIMELIMIT_EXCEEDED || rc == LDAP_ADMINLIMIT_EXCEEDED;
  if (rc == LDAP_SUCCESS || cut) Collect(c.ld, result, &answer);
  if (result) ldap_msgfree(result);
  if (rc != LDAP_SUCCESS && !cut) return fail(Reason(rc, server, timeout));
  if (cut) {
    answer.partial = true;
    answer.message = rc == LDAP_SIZELIMIT_EXCEEDED
                         ? "The directory has more than " + std::to_string(max) + " entries for \"" + text +
                               "\"; only the first ones are shown. Type more of the name."
                         : "The directory stopped searching for \"" + text + "\" at its limit; only what it found so far is shown.";
  }
  Trace(kTraceBooks, kTraceMedium, "directory: '%s' gave %zu addresses%s\n", filter.c_str(), answer.hits.size(),
        cut ? " (cut short)" : "");
  return answer;
}

#else

DirectoryAnswer DIR_Search(const std::string&) {
  DirectoryAnswer answer;
  answer.failed = true;
  answer.message = "This build of the program has no directory support.";
  return answer;
}

#endif

// --- The pick list ---------------------------------------------------------------

namespace {

const WIN_DEF kPickDef[] = {
    {W_MODAL, {0, 0, 460, 346}, "Choose from the Directory", 0, 0},
    // Room for a size-limit note of three lines above the question.
    {WC_TEXT, {12, 8, 448, 72}, "", kDpNote, 0},
    {WC_LBOX, {12, 76, 448, 296}, "", kDpList, 0},
    {WC_PUSHBUTTON, {258, 308, 348, 334}, "OK", kDpOk, CTL_FLAG_DEFAULT},
    {WC_PUSHBUTTON, {358, 308, 448, 334}, "Cancel", kDpCancel, 0},
    {W_NONE, {}, nullptr, 0, 0},
};

struct Pick {
  std::string note;
  const std::vector<DirectoryHit>* hits;
  int chosen = -1;
};

std::string Line(const DirectoryHit& h) { return h.name.empty() ? h.email : h.name + " <" + h.email + ">"; }

long pick_eh(WINDOW win, EVENT* ev) {
  auto* pick = reinterpret_cast<Pick*>(xvt_vobj_get_data(win));
  switch (ev->type) {
    case E_CREATE: {
      xvt_vobj_set_title(xvt_win_get_ctl(win, kDpNote), pick->note.c_str());
      const WINDOW list = xvt_win_get_ctl(win, kDpList);
      for (const DirectoryHit& h : *pick->hits) xvt_list_add(list, -1, Line(h).c_str());
      xvt_list_set_sel(list, 0, true);
      xvt_scr_set_focus_vobj(list);
      break;
    }
    case E_CONTROL: {
      const int id = ev->v.ctl.id;
      const bool chosen = id == kDpOk || (id == kDpList && ev->v.ctl.ci.v.lbox.dbl_click);
      if (chosen) pick->chosen = xvt_list_get_sel_index(xvt_win_get_ctl(win, kDpList));
      if (chosen || id == kDpCancel) xvt_vobj_destroy(win);
      break;
    }
    case E_CLOSE: xvt_vobj_destroy(win); break;
    default: break;
  }
  return 0;
}

}  // namespace

int DIR_ResolveName(const std::string& name, ResolvedAddresses* hits) {
  const DirectoryAnswer answer = DIR_Search(name);
  if (answer.failed) {
    mm_log(answer.message.c_str(), 1);
    xvt_dm_post_error("\"%s\" was not looked up in the directory: %s", name.c_str(), answer.message.c_str());
    return 0;
  }
  if (answer.hits.empty()) {
    if (answer.partial) xvt_dm_post_note("%s", answer.message.c_str());
    return 0;
  }
  int chosen = 0;
  if (answer.hits.size() > 1 || answer.partial) {
    xvt_res_register_dialog(kDirPickRid, kPickDef);
    Pick pick{(answer.partial ? answer.message + "\n" : "") + "People in the directory for \"" + name + "\":",
              &answer.hits};
    if (!xvt_dlg_create_res(W_MODAL, kDirPickRid, EM_ALL, pick_eh, reinterpret_cast<intptr_t>(&pick))) {
      xvt_dm_post_error("The list of directory matches cannot be shown.");
      return 0;
    }
    chosen = pick.chosen;
    if (chosen < 0 || chosen >= static_cast<int>(answer.hits.size())) return 0;  // cancelled: left as typed
  }
  hits->emplace_back(answer.hits[chosen].name, answer.hits[chosen].email);
  return 1;
}
