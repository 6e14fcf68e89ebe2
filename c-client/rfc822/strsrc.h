// StringSource: a small reader over message text in memory or in a file,
// so that parsers take bytes one at a time without holding a file whole.
#pragma once

#include <cstddef>

struct StringSource;

struct StringDriver {
  // data and size as given to string_init; the driver keeps what it needs.
  void (*init)(StringSource* s, void* data, unsigned long size);
  // Refills the chunk at the current position; returns the next byte.
  char (*next)(StringSource* s);
  void (*setpos)(StringSource* s, unsigned long pos);
};

struct StringSource {
  void* data;               // the driver's: memory block, or its file record
  unsigned long data1;      // the driver's
  unsigned long size;       // total size of the text
  char* chunk;              // current chunk
  unsigned long chunksize;  // its size
  unsigned long offset;     // position of the chunk in the text
  char* curpos;             // next byte in the chunk
  unsigned long cursize;    // bytes left in the chunk
  const StringDriver* dtb;
};

// Memory: data points at size bytes, which must outlive the source.
extern const StringDriver mail_string;
// File: data points at a FileText (below); the file is read in chunks and
// never held whole. Positions are offsets from the record's start.
extern const StringDriver file_string;

struct FileText {
  int fd;               // open for reading; not closed by the source
  unsigned long start;  // file offset of the text's first byte
  char buffer[8192];
};

inline void string_init(StringSource* s, const StringDriver* d, void* data, unsigned long size) {
  s->dtb = d;
  d->init(s, data, size);
}
inline unsigned long string_getpos(const StringSource* s) { return s->offset + (s->curpos - s->chunk); }
inline unsigned long string_remaining(const StringSource* s) { return s->size - string_getpos(s); }
inline void string_setpos(StringSource* s, unsigned long pos) { s->dtb->setpos(s, pos); }
// The next byte; at the end of the text it returns 0 and stays at the end.
inline char string_next(StringSource* s) {
  if (string_getpos(s) >= s->size) return '\0';
  if (s->cursize) {
    --s->cursize;
    return *s->curpos++;
  }
  return s->dtb->next(s);
}
