// The two StringSource drivers: a block in memory, and a file read in
// chunks so that a large message is never held whole.
#include "c-client/rfc822/strsrc.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "c-client/core/env.h"

namespace {

// --- Memory: the chunk is the whole block ---------------------------------

void mem_init(StringSource* s, void* data, unsigned long size) {
  s->data = data;
  s->data1 = 0;
  s->size = size;
  s->chunk = static_cast<char*>(data);
  s->chunksize = size;
  s->offset = 0;
  s->curpos = s->chunk;
  s->cursize = size;
}

void mem_setpos(StringSource* s, unsigned long pos) {
  if (pos > s->size) pos = s->size;
  s->curpos = s->chunk + pos;
  s->cursize = s->chunksize - pos;
}

char mem_next(StringSource* s) {
  unsigned long pos = string_getpos(s);
  if (pos >= s->size || pos >= s->chunksize) return '\0';
  mem_setpos(s, pos);
  --s->cursize;
  return *s->curpos++;
}

// --- File: chunks of the FileText's buffer, read with pread ---------------
//
// chunksize is the number of bytes that the buffer holds (0 before the
// first read), so a setpos inside the loaded chunk costs no read.

void file_init(StringSource* s, void* data, unsigned long size) {
  FileText* f = static_cast<FileText*>(data);
  s->data = f;
  s->data1 = f->start;
  s->size = size;
  s->chunk = f->buffer;
  s->chunksize = 0;
  s->offset = 0;
  s->curpos = s->chunk;
  s->cursize = 0;
}

void file_setpos(StringSource* s, unsigned long pos) {
  if (pos > s->size) pos = s->size;
  if (pos >= s->offset && pos < s->offset + s->chunksize) {
    s->curpos = s->chunk + (pos - s->offset);
    s->cursize = s->chunksize - (pos - s->offset);
    return;
  }
  // Outside the loaded chunk: the next read fills from pos.
  s->offset = pos;
  s->chunksize = 0;
  s->curpos = s->chunk;
  s->cursize = 0;
}

char file_next(StringSource* s) {
  FileText* f = static_cast<FileText*>(s->data);
  unsigned long pos = string_getpos(s);
  if (pos >= s->size) return '\0';
  unsigned long want = s->size - pos;
  if (want > sizeof f->buffer) want = sizeof f->buffer;
  unsigned long got = 0;
  while (got < want) {
    ssize_t n = ::pread(f->fd, f->buffer + got, want - got, static_cast<off_t>(f->start + pos + got));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      // A file that can't be read, or is shorter than it was said to be:
      // the text ends here, so that parsers see an end and stop, rather
      // than bytes that are not there.
      char text[256];
      std::snprintf(text, sizeof text, "Message text unreadable at byte %lu: %s", pos + got,
                    n < 0 ? std::strerror(errno) : "unexpected end of file");
      mm_log(text, 1);
      s->size = pos + got;
      break;
    }
    got += static_cast<unsigned long>(n);
  }
  s->offset = pos;
  s->chunksize = got;
  s->curpos = s->chunk;
  s->cursize = got;
  if (!got) return '\0';
  --s->cursize;
  return *s->curpos++;
}

}  // namespace

const StringDriver mail_string = {mem_init, mem_next, mem_setpos};
const StringDriver file_string = {file_init, file_next, file_setpos};
