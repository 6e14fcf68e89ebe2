// What the core's files share beyond mail.h: the default local format, the
// cache's work counter, and a formatter for log texts of any length.
#pragma once

#include <string>

#include "c-client/core/mail.h"

// The driver whose prototype creates and appends to a mailbox that no
// driver claims by name: the system's default local format (mhdriver
// unless the program or a test sets another).
MailDriver* mail_default_driver();
void mail_set_default_driver(MailDriver* driver);

// Elements the cache has looked at while flushing and keeping its index
// since the program started. A flush must cost in proportion to what holds
// data, never to the mailbox size; tests and benchmarks read this.
unsigned long long mm_cache_work();

// printf into a string: log texts carry mailbox names of any length.
std::string mail_format(const char* format, ...) __attribute__((format(printf, 1, 2)));
