// printf into a std::string of any length.
#pragma once

#include <cstdarg>
#include <string>

std::string StringPrintfV(const char* format, va_list ap);
