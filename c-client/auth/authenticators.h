// The AUTHENTICATE mechanisms, tried in table order: KERBEROS_V4, then
// CRAM-MD5. Each is a table of operations over a state of its own.
#pragma once

#include <string>

// Results of client_step.
constexpr long kAuthContinue = 0;
constexpr long kAuthCancel = 1;
constexpr long kAuthDone = 3;

struct Authenticator {
  const char* name;
  // 0 on success with *state set; non-zero skips the mechanism (no round trip).
  long (*client_start)(const char* host, const char* user, long flags, long max_size, const unsigned char* key,
                       const unsigned char* iv, void** state);
  // The server's decoded challenge in, the answer (raw bytes) out.
  long (*client_step)(void* state, const std::string& in, std::string* out);
  // Non-zero: run the mechanism again after a failure.
  long (*client_retry)(void* state);
  // What the mechanism has negotiated (protection bits); 0 for none.
  long (*client_info)(void* state);
  // Frees the state and clears its secrets; nulls the pointer.
  void (*client_end)(void** state);
};

// The table, null-ended, in the order the mechanisms are tried.
extern const Authenticator* const kAuthenticators[];
// The mechanism of that name (any case), or null.
const Authenticator* auth_lookup(const char* name);

// HMAC-MD5 of text keyed with key, as 32 lower-case hex digits.
std::string auth_hmac_md5_hex(const std::string& key, const std::string& text);

// One step of an AUTHENTICATE exchange on the wire: the answer as base64 on
// one line (the buffer that held it wiped), and a challenge decoded from it;
// false when the challenge is not base64.
std::string auth_base64_line(const std::string& raw);
bool auth_unbase64(const std::string& text, std::string* raw);
