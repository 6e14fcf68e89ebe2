#include "editor/elib/elib_trace.h"

#include <cstdarg>
#include <cstdio>

#include "rclib/rcdebug.h"

namespace {
std::string& LastError() {
  static std::string text;
  return text;
}

std::string Format(const char* format, va_list ap) {
  char small[512];
  va_list copy;
  va_copy(copy, ap);
  int n = std::vsnprintf(small, sizeof small, format, copy);
  va_end(copy);
  if (n < 0) return std::string();
  if (static_cast<size_t>(n) < sizeof small) return std::string(small, n);
  std::string out(static_cast<size_t>(n) + 1, '\0');
  std::vsnprintf(out.data(), out.size(), format, ap);
  out.resize(n);
  return out;
}
}  // namespace

void elib_trace_fail(const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  std::string text = Format(format, ap);
  va_end(ap);
  rc_debug_trace(kElibTraceFail, "%s", text.c_str());
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  LastError() = text;
}

void elib_trace_detail(const char* format, ...) {
  if (!rc_debug_test(kElibTraceDetail)) return;
  va_list ap;
  va_start(ap, format);
  std::string text = Format(format, ap);
  va_end(ap);
  rc_debug_trace(kElibTraceDetail, "%s", text.c_str());
}

const std::string& elib_last_error() { return LastError(); }
void elib_clear_error() { LastError().clear(); }
