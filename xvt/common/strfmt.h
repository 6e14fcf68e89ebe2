// String helpers both backends and the trace share.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>

// printf into a std::string of any length.
std::string StringPrintfV(const char* format, va_list ap);
// Copies UTF-8 text into buf of size bytes, terminated; a character that
// does not fit whole is left out rather than cut in half.
void CopyOut(const std::string& text, char* buf, size_t size);
