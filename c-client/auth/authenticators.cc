// The AUTHENTICATE mechanisms: CRAM-MD5, and the Kerberos V4 slot.
//
// No Kerberos V4 library exists on Linux, so that mechanism always finds
// no ticket cache and is skipped before anything is sent: the table keeps
// its order and a server that offers it costs no round trip.
#include "c-client/auth/authenticators.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <strings.h>

#include <cstdio>
#include <cstring>

#include "c-client/core/env.h"
#include "c-client/rfc822/rfc822_write.h"

namespace {

// --- CRAM-MD5 -----------------------------------------------------------------

struct CramState {
  long trial = 0;
  long step = 0;
  std::string host;
  std::string user;
  unsigned char key[16] = {};
  unsigned char iv[16] = {};
};

void Wipe(std::string& s) {
  if (!s.empty()) OPENSSL_cleanse(s.data(), s.size());
  s.clear();
}

long CramStart(const char* host, const char* user, long, long, const unsigned char* key, const unsigned char* iv,
               void** state) {
  auto* s = new CramState;
  s->host = host ? host : "";
  s->user = user ? user : "";
  if (key) std::memcpy(s->key, key, sizeof s->key);
  if (iv) std::memcpy(s->iv, iv, sizeof s->iv);
  *state = s;
  return 0;
}

long CramStep(void* state, const std::string& in, std::string* out) {
  auto* s = static_cast<CramState*>(state);
  out->clear();
  if (s->step++ != 0) return kAuthCancel;
  // The challenge is the bracketed part; anything around it is ignored.
  const size_t open = in.find('<');
  const size_t close = open == std::string::npos ? open : in.find('>', open);
  if (close == std::string::npos) return kAuthCancel;
  const std::string challenge = in.substr(open, close - open + 1);
  ++s->trial;
  char user[kMailLoginSize] = "";
  char password[kMailLoginSize] = "";
  std::snprintf(user, sizeof user, "%s", s->user.c_str());
  mm_login(s->host.c_str(), user, password, s->trial);
  std::string secret = password;
  OPENSSL_cleanse(password, sizeof password);
  if (secret.empty()) return kAuthCancel;
  s->user = user;
  *out = s->user + " " + auth_hmac_md5_hex(secret, challenge);
  Wipe(secret);
  return kAuthDone;
}

long CramRetry(void*) { return 0; }
long NoInfo(void*) { return 0; }

void CramEnd(void** state) {
  auto* s = static_cast<CramState*>(*state);
  if (!s) return;
  Wipe(s->host);
  Wipe(s->user);
  OPENSSL_cleanse(s->key, sizeof s->key);
  OPENSSL_cleanse(s->iv, sizeof s->iv);
  s->trial = s->step = 0;
  delete s;
  *state = nullptr;
}

const Authenticator kCram = {"CRAM-MD5", CramStart, CramStep, CramRetry, NoInfo, CramEnd};

// --- KERBEROS_V4 ----------------------------------------------------------------

long KerberosStart(const char*, const char*, long, long, const unsigned char*, const unsigned char*, void** state) {
  *state = nullptr;
  mm_dlog("No Kerberos V4 ticket cache.");
  return 1;
}
long KerberosStep(void*, const std::string&, std::string* out) {
  out->clear();
  return kAuthCancel;
}
void KerberosEnd(void** state) { *state = nullptr; }

const Authenticator kKerberos = {"KERBEROS_V4", KerberosStart, KerberosStep, CramRetry, NoInfo, KerberosEnd};

}  // namespace

const Authenticator* const kAuthenticators[] = {&kKerberos, &kCram, nullptr};

const Authenticator* auth_lookup(const char* name) {
  if (!name) return nullptr;
  for (const Authenticator* const* a = kAuthenticators; *a; ++a)
    if (strcasecmp((*a)->name, name) == 0) return *a;
  return nullptr;
}

std::string auth_hmac_md5_hex(const std::string& key, const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (!HMAC(EVP_md5(), key.data(), static_cast<int>(key.size()), reinterpret_cast<const unsigned char*>(text.data()),
            text.size(), digest, &length))
    return "";
  std::string hex;
  char two[3];
  for (unsigned i = 0; i < length; ++i) {
    std::snprintf(two, sizeof two, "%02x", digest[i]);
    hex += two;
  }
  OPENSSL_cleanse(digest, sizeof digest);
  return hex;
}

std::string auth_base64_line(const std::string& raw) {
  unsigned long n = 0;
  unsigned char* b = rfc822_binary(raw.data(), raw.size(), &n);
  std::string out;
  for (unsigned long i = 0; b && i < n; ++i)
    if (b[i] != '\r' && b[i] != '\n') out += static_cast<char>(b[i]);
  if (b) {
    OPENSSL_cleanse(b, n);
    FS_GIVE(&b);
  }
  return out;
}

bool auth_unbase64(const std::string& text, std::string* raw) {
  raw->clear();
  if (text.empty()) return true;
  unsigned long n = 0;
  unsigned char* b = rfc822_base64(reinterpret_cast<const unsigned char*>(text.data()), text.size(), &n);
  if (!b) return false;
  raw->assign(reinterpret_cast<char*>(b), n);
  FS_GIVE(&b);
  return true;
}
