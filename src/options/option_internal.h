// What the option store's own files share.
#pragma once

#include <string>

// Clears the store's changed flag and, with clear_modified, every record's.
void OptClearChanged(bool clear_modified);

std::string OptEncodeNameString(const char* text, bool* ok);
std::string OptDecodeNameString(const char* text);
// Escapes for the local option file (see option_file.cc).
std::string OptEscapeValue(const std::string& value);
std::string OptEscapeNameWord(const std::string& encoded);

// The line of the local option file for one option.
std::string OptFileLine(const char* name, const char* value);
