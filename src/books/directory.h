// The public directory: the organisation's LDAP server as an address source
// beside the books. A search turns typed text into (name, address) pairs;
// compose asks it for a name no book knows, and the book search window
// offers it as a source.
//
// Options: Directory.Enable (0/1), Directory.Host, Directory.Port (389),
// Directory.TLS (none, starttls, ldaps), Directory.BaseDN, Directory.BindDN,
// Directory.Filter (%s stands for the escaped text), Directory.MaxResults
// (50), Directory.TimeoutSeconds (10), Directory.CACertFile (empty: the
// system's authorities). The bind password is asked through
// the login dialog and kept for the session only.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "src/books/address_model.h"

constexpr const char* kDirDefaultFilter = "(|(cn=%s*)(mail=%s*)(sn=%s*)(givenName=%s*))";
constexpr size_t kDirMaxTyped = 256;       // typed text longer than this is not searched
constexpr size_t kDirMaxFilter = 4096;     // the filter after substitution
constexpr size_t kDirMaxValue = 1024;      // a longer name or address is dropped
constexpr size_t kDirMaxMailsPerEntry = 20;

struct DirectoryHit {
  std::string name;   // displayName, else cn; may be empty
  std::string email;  // one value of mail
};

struct DirectoryAnswer {
  std::vector<DirectoryHit> hits;
  bool failed = false;   // nothing could be asked or the server refused
  bool partial = false;  // a size or time limit cut the answer short
  std::string message;   // for the user when failed or partial
};

// The value escaped for a search filter: * ( ) \ and NUL as \2a \28 \29 \5c
// \00; everything else, UTF-8 included, goes as it is.
std::string DIR_EscapeValue(std::string_view value);
// The filter template with every %s replaced by the escaped text ("%%" is
// a percent sign). False, with *error, for a template that is too long.
bool DIR_MakeFilter(std::string_view templ, std::string_view typed, std::string* filter, std::string* error);

bool DIR_Enabled();
// One search with the options' limits; never longer than the time-out
// (connect, bind and search each bounded).
DirectoryAnswer DIR_Search(const std::string& typed);
// The bind password of the session is forgotten (wrong or on request).
void DIR_ForgetPassword();

// Compose's last resort for a bare name: one hit is taken, several are
// offered in a pick list, a failure or partial answer is told. 1 with the
// chosen (name, address) in *hits, 0 when the name stays as typed.
int DIR_ResolveName(const std::string& name, ResolvedAddresses* hits);

constexpr int kDirPickRid = 6380;
enum { kDpList = 6381, kDpOk, kDpCancel, kDpNote };
