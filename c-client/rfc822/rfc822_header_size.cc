// The size of a message file's header, for the local drivers' indexes.
//
// The count is the exact number of bytes from the descriptor's position up
// to and including the line that ends the header: an empty line, or one of
// nothing but blanks and TABs (a CR before the line feed counts as part of
// the line). On a CRLF file this is what counting every line feed as two
// bytes gives; on a bare-LF file it is still the true size, so that reading
// header_size bytes and then the body from header_size both land right.
// Without such a line the whole file is header. The descriptor's position
// is left where it was.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "c-client/rfc822/rfc822.h"

long rfc822_header_size(int fd) {
  char buffer[8192];
  off_t base = ::lseek(fd, 0, SEEK_CUR);
  const bool positional = base >= 0;
  long total = 0;
  bool line_blank = true;  // the current line has held only blanks, TABs and CRs
  for (;;) {
    ssize_t n = positional ? ::pread(fd, buffer, sizeof buffer, base + total) : ::read(fd, buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      char text[256];
      std::snprintf(text, sizeof text, "Failed in read of MH message file:  %s", std::strerror(errno));
      mm_log(text, 2);
      return -1;
    }
    if (n == 0) return total;
    for (ssize_t i = 0; i < n; ++i) {
      char c = buffer[i];
      if (c == '\n') {
        if (line_blank) return total + i + 1;
        line_blank = true;
      } else if (c != ' ' && c != '\t' && c != '\r') {
        line_blank = false;
      }
    }
    total += n;
  }
}
