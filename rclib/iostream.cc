#include "rclib/iostream.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include "rclib/rc.h"
#include "rclib/rc_hmem.h"
#include "rclib/strings.h"

namespace {

FILE* open_file(const char* path, const char* mode) {
  if (mode[0] == 'r') return std::fopen(path, "r");
  int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (mode[0] == 'a' ? O_APPEND : O_TRUNC);
  int fd = ::open(path, flags, 0600);
  if (fd < 0) return nullptr;
  FILE* fp = ::fdopen(fd, mode);
  if (!fp) ::close(fd);
  return fp;
}

int open_stream(const char* path, const char* mode, STREAM_INFO** stream) {
  rc_debug_entry("rc_stream_open");
  if (!stream) return RC_FAIL;
  *stream = nullptr;
  if (!path || !*path) return RC_FAIL;
  if (std::strlen(path) + 1 > sizeof(STREAM_INFO::name)) {
    rc_errno = kRcErrNoFit;
    return RC_FAIL;
  }
  STREAM_INFO* info = RC_NEW(STREAM_INFO, STREAM_INFO);
  if (!info) return RC_FAIL;
  info->fp = open_file(path, mode);
  if (!info->fp) {
    RC_GIVE(STREAM_INFO, info);
    return RC_FAIL;
  }
  // The full name when it fits; otherwise the name as given, which did.
  char* full = ::realpath(path, nullptr);
  const char* name = full && std::strlen(full) + 1 <= sizeof info->name ? full : path;
  std::strcpy(info->name, name);
  std::free(full);
  *stream = info;
  return RC_OK;
}

}  // namespace

int rc_stream_open_write(const char* path, STREAM_INFO** stream) { return open_stream(path, "w", stream); }
int rc_stream_open_append(const char* path, STREAM_INFO** stream) { return open_stream(path, "a", stream); }
int rc_stream_open_read(const char* path, STREAM_INFO** stream) { return open_stream(path, "r", stream); }

int rc_stream_close(STREAM_INFO** stream) {
  rc_debug_entry("rc_stream_close");
  if (!stream) return RC_FAIL;
  if (!*stream) return RC_OK;
  int result = RC_OK;
  if ((*stream)->fp && std::fclose((*stream)->fp) != 0) {
    rc_errno = kRcErrStream;
    result = RC_FAIL;
  }
  RC_GIVE(STREAM_INFO, *stream);
  return result;
}

int rc_stream_read_line(STREAM_INFO* stream, int size, char* buf) {
  if (buf && size > 0) buf[0] = '\0';
  if (!stream || !stream->fp || !buf) return 0;
  if (size < 2) {
    rc_errno = kRcErrNoFit;
    return 0;
  }
  int count = 0;
  while (count < size - 1) {
    int c = std::getc(stream->fp);
    if (c == EOF) break;
    buf[count++] = static_cast<char>(c);
    if (c == '\n') {
      ++stream->lines;
      break;
    }
  }
  buf[count] = '\0';
  if (std::ferror(stream->fp)) {
    rc_errno = kRcErrStream;
    buf[0] = '\0';
    return 0;
  }
  return count;
}

namespace {

// Discards the rest of a line that did not fit the buffer.
void skip_rest(STREAM_INFO* stream, const char* piece, int length) {
  if (length == 0 || piece[length - 1] == '\n') return;
  for (int c = std::getc(stream->fp); c != EOF; c = std::getc(stream->fp))
    if (c == '\n') {
      ++stream->lines;
      return;
    }
}

bool at_end(FILE* fp) {
  int c = std::getc(fp);
  if (c == EOF) return true;
  std::ungetc(c, fp);
  return false;
}

}  // namespace

int rc_stream_read_until(STREAM_INFO* stream, const char* prefix, int size, char* buf) {
  const size_t prefix_length = prefix ? std::strlen(prefix) : 0;
  for (;;) {
    int length = rc_stream_read_line(stream, size, buf);
    if (length == 0) return 0;
    const char* first = rc_str_word_ptr(buf, 1);
    bool skip = !first || (prefix_length && std::strncmp(first, prefix, prefix_length) == 0);
    if (!skip) return length;
    skip_rest(stream, buf, length);
  }
}

int rc_stream_write(STREAM_INFO* stream, const char* s) {
  if (!stream || !stream->fp || !s) return RC_FAIL;
  for (; *s; ++s) {
    if (std::putc(*s, stream->fp) == EOF) {
      rc_errno = kRcErrStream;
      return RC_FAIL;
    }
    if (*s == '\n') ++stream->lines;
  }
  return RC_OK;
}

int rc_stream_find_line(STREAM_INFO* stream, const char* line, int exact) {
  if (!stream || !line) return RC_FAIL;
  char buf[kRcLongBuf];
  bool at_line_start = true;
  for (;;) {
    int length = rc_stream_read_line(stream, sizeof buf, buf);
    if (length == 0) return RC_FAIL;
    bool whole = buf[length - 1] == '\n' || at_end(stream->fp);
    bool candidate = at_line_start && whole;
    at_line_start = buf[length - 1] == '\n';
    if (!candidate) continue;
    if (buf[length - 1] == '\n') buf[length - 1] = '\0';
    if (exact != RC_OK) rc_str_trim(buf);
    if (std::strcmp(buf, line) == 0) return RC_OK;
  }
}
