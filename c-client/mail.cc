#include "c-client/mail.h"

namespace {
long g_no_auth = 0;
long g_no_login = 0;
}  // namespace

void* mail_parameters(void*, long op, void* value) {
  switch (op) {
    case 112: g_no_auth = *static_cast<long*>(value); return value;
    case 113: *static_cast<long*>(value) = g_no_auth; return value;
    case 114: g_no_login = *static_cast<long*>(value); return value;
    case 115: *static_cast<long*>(value) = g_no_login; return value;
    default: return nullptr;
  }
}
