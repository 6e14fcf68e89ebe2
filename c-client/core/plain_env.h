// The mail layer's environment for programs that use it alone (tools,
// tests): free storage on the C library, callbacks that log to a list and
// to standard error.
#pragma once

#include <string>
#include <vector>

struct MailEnvLine {
  std::string callback;  // "log", "dlog", "notify", "exists", "expunged", "flags", "mailbox", ...
  std::string text;
  long level = 0;
  unsigned long number = 0;
};

// Everything the callbacks were told, in order.
std::vector<MailEnvLine>& mail_env_lines();
void mail_env_clear();
// Copy lines of level >= min_level (logs) to standard error; -1: none.
void mail_env_set_echo(long min_level);
// mm_fatal throws this (tests catch it); tools let it end the program.
struct MailFatal {
  std::string text;
};
// Credentials that mm_login hands out (empty user: the login is cancelled).
void mail_env_set_login(const char* user, const char* password);
