#include "c-client/core/plain_env.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "c-client/core/env.h"

namespace {

struct Env {
  std::vector<MailEnvLine> lines;
  long echo = -1;
  std::string user, password;
};

Env& E() {
  static Env e;
  return e;
}

void Add(const char* callback, const char* text, long level = 0, unsigned long number = 0) {
  E().lines.push_back(MailEnvLine{callback, text ? text : "", level, number});
  if (E().echo >= 0 && level >= E().echo && text) std::fprintf(stderr, "%s: %s\n", callback, text);
}

}  // namespace

std::vector<MailEnvLine>& mail_env_lines() { return E().lines; }
void mail_env_clear() { E().lines.clear(); }
void mail_env_set_echo(long min_level) { E().echo = min_level; }
void mail_env_set_login(const char* user, const char* password) {
  E().user = user ? user : "";
  E().password = password ? password : "";
}

void* fs_get(size_t size, const char*, int) {
  void* p = std::calloc(1, size ? size : 1);
  if (!p) fatal("out of memory");
  return p;
}

int fs_resize(void** location, size_t size, const char*, int) {
  void* p = std::realloc(*location, size ? size : 1);
  if (!p) return 0;
  *location = p;
  return 1;
}

void fs_give(void** location, const char*, int) {
  if (!location) return;
  std::free(*location);
  *location = nullptr;
}

void mm_dlog(const char* text) { Add("dlog", text, -1); }
void mm_log(const char* text, long level) { Add("log", text, level); }
void mm_notify(MailStream*, const char* text, long level) { Add("notify", text, level); }
void mm_flags(MailStream*, unsigned long msgno) { Add("flags", "", 0, msgno); }
void mm_exists(MailStream*, unsigned long count) { Add("exists", "", 0, count); }
void mm_expunged(MailStream*, unsigned long msgno) { Add("expunged", "", 0, msgno); }
void mm_searched(MailStream*, unsigned long msgno) { Add("searched", "", 0, msgno); }
void mm_mailbox(const char* name, char delimiter, const char* attributes) {
  std::string t = std::string(name ? name : "") + " " + delimiter + " " + (attributes ? attributes : "");
  Add("mailbox", t.c_str());
}
void mm_mailbox_progress(const char* name, char delimiter, const char* attributes) {
  mm_mailbox(name, delimiter, attributes);
}
void mm_acl(MailStream*, const char* mailbox, const char* identifier, const char* rights) {
  std::string t = std::string(mailbox ? mailbox : "") + " " + (identifier ? identifier : "") + " " + (rights ? rights : "");
  Add("acl", t.c_str());
}
void mm_quota(MailStream*, const char* resource, unsigned long used, unsigned long limit) {
  std::string t = std::string(resource ? resource : "") + " " + std::to_string(used) + " " + std::to_string(limit);
  Add("quota", t.c_str());
}
void mm_login(const char* host, char* user, char* password, long trial) {
  Add("login", host, trial);
  std::snprintf(user, kMailLoginSize, "%s", E().user.c_str());
  std::snprintf(password, kMailLoginSize, "%s", E().password.c_str());
}
void mm_critical(MailStream*) {}
void mm_nocritical(MailStream*) {}

void mm_fatal(const char* text) {
  Add("fatal", text, 9);
  throw MailFatal{text ? text : ""};
}
