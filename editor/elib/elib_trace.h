// The editor's trace. Failures of the text store go to the support
// library's trace file under the editor's topic, and the last one is also
// kept in memory, so that a caller that gets RC_FAIL can tell the user why
// without the trace being switched on.
#pragma once

#include <string>

// Topic 2000, level 1: failures and integrity reports. Level 3: detail.
constexpr int kElibTraceFail = 20001;
constexpr int kElibTraceDetail = 20003;
// Topic 2010: integrity walks that change results (file reads, creation).
constexpr int kElibTraceStrict = 20101;

// Records the message as the last error and traces it under kElibTraceFail.
void elib_trace_fail(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Traces detail only.
void elib_trace_detail(const char* format, ...) __attribute__((format(printf, 1, 2)));
// The last failure recorded (without its trailing newline), "" if none.
const std::string& elib_last_error();
void elib_clear_error();
