#include "rclib/rc.h"

#include <cstdio>

int rc_errno = 0;
unsigned long rc_debug_bits = 0;

void rc_debug_entry(const char* function_name) {
  if (rc_debug_bits & kRcDbgEntry) std::printf("Entered %s\n", function_name ? function_name : "?");
}
