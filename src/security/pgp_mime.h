// OpenPGP/MIME: multipart/signed with a detached signature and
// multipart/encrypted, made from a prepared MIME part file and taken apart
// again, beside the inline armour of pgp.h. Files in, files out; results
// and errors as in pgp.h (1, or 0 with pgp_get_last_error).
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

constexpr int kPgpMimeNone = 0;
constexpr int kPgpMimeSigned = 1;
constexpr int kPgpMimeEncrypted = 2;

// Limits on what is read: a message, not an archive.
constexpr size_t kPgpMimeMaxEntity = 64u << 20;
constexpr size_t kPgpMimeMaxHeader = 256u << 10;
constexpr size_t kPgpMimeMaxParts = 100;
constexpr size_t kPgpMimeMaxBoundary = 200;

// The digest every detached signature is made with, as the part names it.
constexpr const char* kPgpMimeMicalg = "pgp-sha256";

// Whether new messages are protected with OpenPGP/MIME (Security.PGP.MIME,
// on when unset) rather than inline armour.
bool pgp_use_mime();

// The kind of a message or part file by its top Content-Type.
int pgp_mime_get_type(const char* file);

// part: a whole MIME part (its headers, a blank line, its body), 7-bit and
// without trailing blanks on its lines, as transports keep them. out gets
// the multipart/signed part (headers and body), lines ending in CR LF.
int pgp_mime_sign(const char* part, const char* out, const char* user_id, const std::string& pass_phrase);
// out gets the multipart/encrypted part; with sign, the content is also signed.
int pgp_mime_encrypt(const char* part, const char* out, const char* recipients, const char* user_id,
                     const std::string& pass_phrase, int sign);
// entity: a message or part whose top is multipart/encrypted; out gets the
// decrypted MIME part. A signature inside is checked (a bad one fails).
int pgp_mime_decrypt(const char* entity, const char* out, const std::string& pass_phrase);
// entity: a message or part whose top is multipart/signed; checks the
// signature over the signed part's exact bytes. out (may be null) gets the
// signed part.
int pgp_mime_verify(const char* entity, const char* out);

// Taking an entity apart (for the functions above, tests and fuzzing).
struct PgpMimeEntity {
  std::string type;  // "multipart/signed", lower case; "text/plain" when absent
  std::string boundary, protocol, micalg;
  std::string transfer_encoding;  // lower case
  size_t body_offset = 0;
  std::vector<std::string_view> parts;  // exact bytes between the delimiters
};
bool pgp_mime_split(std::string_view entity, PgpMimeEntity* out, std::string* error);
// A part's body with its transfer encoding undone.
bool pgp_mime_part_body(std::string_view part, std::string* body, std::string* error);
// Line ends made CR LF, as signatures are computed over.
std::string pgp_mime_canonical(std::string_view text);
