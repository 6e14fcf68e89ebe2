// Mailbox names on the wire: modified UTF-7 (the form IMAP servers use for
// names outside ASCII) to and from UTF-8 for display and typing.
#pragma once

#include <string>

// UTF-8 to modified UTF-7. Bytes that aren't valid UTF-8 are taken as
// Latin-1, so that every name has a wire form.
std::string imap_utf8_to_mutf7(const std::string& utf8);
// Modified UTF-7 to UTF-8; false (with out untouched) when the name isn't
// valid modified UTF-7, in which case callers show it as it stands.
bool imap_mutf7_to_utf8(const std::string& mutf7, std::string* out);
