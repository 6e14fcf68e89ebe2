#include "editor/ekeys/key_names.h"

#include <cstdio>

#include "editor/ekeys/keymap.h"

const KM_KEY_NAME km_key_names[] = {
    {"backspace", kKsymBackspace}, {"tab", kKsymTab},         {"linefeed", kKsymLinefeed},
    {"enter", kKsymEnter},         {"return", kKsymEnter},    {"esc", kKsymEsc},
    {"del", kKsymDel},             {"delete", kKsymDel},      {"up", kKsymUp},
    {"down", kKsymDown},           {"right", kKsymRight},     {"left", kKsymLeft},
    {"pgup", kKsymPgUp},           {"pgdn", kKsymPgDn},       {"home", kKsymHome},
    {"end", kKsymEnd},             {"ctl_home", kKsymCtlHome}, {"^home", kKsymCtlHome},
    {"ctl_end", kKsymCtlEnd},      {"^end", kKsymCtlEnd},     {"ins", kKsymIns},
    {"insert", kKsymIns},          {"ctl_left", kKsymCtlLeft}, {"ctl_right", kKsymCtlRight},
    {"backtab", kKsymBacktab},     {"f1", 331},               {"f2", 332},
    {"f3", 333},                   {"f4", 334},               {"f5", 335},
    {"f6", 336},                   {"f7", 337},               {"f8", 338},
    {"f9", 339},                   {"f10", 340},              {"f11", 341},
    {"f12", 342},                  {"f13", 343},              {"f14", 344},
    {"f15", kKsymF15},
};
const int km_key_name_count = sizeof(km_key_names) / sizeof(km_key_names[0]);

int km_key_name_lookup(const std::string& name) {
  for (const KM_KEY_NAME& k : km_key_names)
    if (name == k.name) return k.sym;
  return -1;
}

std::string km_ksym_name(uint16_t sym) {
  for (const KM_KEY_NAME& k : km_key_names)
    if (k.sym == sym) return k.name;
  // '#' would start a comment.
  if (sym > ' ' && sym < 127 && sym != '#') return std::string(1, static_cast<char>(sym));
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%x", sym);
  return buf;
}

namespace {

bool AllDigits(const std::string& s) {
  for (char c : s)
    if (c < '0' || c > '9') return false;
  return !s.empty();
}

// Digits of `base` from `s`, stopping at the first that is not one. False
// when there is none or the value passes 16 bits.
bool ScanNumber(const char* s, int base, KSYM* out) {
  unsigned long v = 0;
  int n = 0;
  for (;; ++s, ++n) {
    int d;
    char c = *s;
    if (c >= '0' && c <= '9')
      d = c - '0';
    else if (base == 16 && c >= 'a' && c <= 'f')
      d = c - 'a' + 10;
    else if (base == 16 && c >= 'A' && c <= 'F')
      d = c - 'A' + 10;
    else
      break;
    if (d >= base) break;
    v = v * base + d;
    if (v > 0xFFFF) return false;
  }
  if (n == 0) return false;
  *out = static_cast<KSYM>(v);
  return true;
}

}  // namespace

int eui_cv_ksym_atoi(KMSTATE* state, KEYTUPLE* tuple) {
  const std::string& name = tuple->name;
  if (name.size() == 1) {
    tuple->key = static_cast<unsigned char>(name[0]);
    return RC_OK;
  }
  if (AllDigits(name)) {
    // An octal scan stops at the first 8 or 9; a name that starts with one
    // has no octal value at all.
    if (!ScanNumber(name.c_str(), 8, &tuple->key)) {
      km_diag(state, "Bad conversion of octal keyname.  %s\n", name.c_str());
      tuple->key = 0;
    }
    return RC_OK;
  }
  if (name.size() == 2 && name[0] == '^') {
    tuple->key = static_cast<unsigned char>(name[1]) & 31;
    return RC_OK;
  }
  if (name.compare(0, 2, "0x") == 0) {
    if (!ScanNumber(name.c_str() + 2, 16, &tuple->key)) {
      km_diag(state, "Bad conversion of hex keyname.  %s\n", name.c_str());
      tuple->key = 0;
    }
    return RC_OK;
  }
  int sym = km_key_name_lookup(name);
  if (sym >= 0) {
    tuple->key = static_cast<KSYM>(sym);
    return RC_OK;
  }
  if (name.size() == 5 && name.compare(0, 4, "ctl-") == 0) {
    tuple->key = static_cast<unsigned char>(name[4]) & 31;
    return RC_OK;
  }
  km_diag(state, "Unknown key name.  %s\n", name.c_str());
  return RC_FAIL;
}

int km_ksym_atoi(KMSTATE* state, KEYTUPLE* tuple) { return eui_cv_ksym_atoi(state, tuple); }
