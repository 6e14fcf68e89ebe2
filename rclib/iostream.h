// Line-oriented text streams that know their file's full name and count
// the newlines that pass through them.
#pragma once

#include <cstdio>

struct STREAM_INFO {
  char name[256];  // full path of the file
  FILE* fp;
  long lines;  // newlines read or written
};

// Open for writing (truncating), appending or reading, and store the full
// path in a new STREAM_INFO. A path that does not fit `name` is refused
// before the file is touched (rc_errno 3). Files created here get mode 0600:
// the library writes option and mail files.
int rc_stream_open_write(const char* path, STREAM_INFO** stream);
int rc_stream_open_append(const char* path, STREAM_INFO** stream);
int rc_stream_open_read(const char* path, STREAM_INFO** stream);
// Closes the file and releases the record; nulls *stream. A failing close
// (data not written) answers RC_FAIL with rc_errno -1, the record is
// released all the same. RC_OK when *stream already is null.
int rc_stream_close(STREAM_INFO** stream);

// Reads up to and including a newline, or size - 1 characters, whichever
// comes first; the rest of a longer line comes with the next call. Always
// terminates buf. Returns the number of characters read: 0 at the end of the
// file, or on a stream error (rc_errno -1) or a size below 2 (rc_errno 3).
int rc_stream_read_line(STREAM_INFO* stream, int size, char* buf);
// Reads lines until one that is not blank and whose first word does not
// begin with `prefix` (the comment introducer; null or empty: only blank
// lines are skipped) and returns its length, or 0 at the end. Skipped lines
// longer than the buffer are skipped whole.
int rc_stream_read_until(STREAM_INFO* stream, const char* prefix, int size, char* buf);
// Writes s, counting its newlines. RC_FAIL with rc_errno -1 on a write error.
int rc_stream_write(STREAM_INFO* stream, const char* s);
// Reads lines until one equals `line`: with exact == RC_OK only the newline
// is dropped before comparing, otherwise each line is trimmed of blanks on
// both sides. Lines longer than 255 characters never match. RC_OK when
// found, the stream standing behind that line; RC_FAIL at the end.
int rc_stream_find_line(STREAM_INFO* stream, const char* line, int exact);
