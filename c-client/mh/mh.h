// The mh driver: the default local folder format. A folder is a directory
// of message files named by number, beside three cache files that let it
// open without reading a message: mh_index.dat (a 16-byte header and one
// 52-byte record per message), mh_cache.dat (each message's parsed
// envelope and body) and mh_updat.dat (records queued by appenders, applied
// at the next check). The byte formats are in mh_format.h; folder names,
// listing, creation, deletion and renaming in mh_names.h.
//
// No file locks are taken. Writers other than the stream that has a folder
// open only create message files and append to mh_updat.dat; only the open
// stream rewrites the index.
#pragma once

#include <cstddef>
#include <cstdint>

#include "c-client/core/mail.h"

// The driver's `local` record: only descriptors, the path and a scratch
// buffer, so a large folder costs the core's elements and nothing more.
constexpr size_t kMhBufferSize = 5120;  // the buffer holds one byte more

struct MhLocal {
  int index_file;  // mh_index.dat, read/write; -1 when closed
  int cache_file;  // mh_cache.dat, read/write; -1 when closed
  char* path;      // the folder's directory (owned)
  char* buffer;    // scratch of kMhBufferSize + 1 bytes (owned)
  size_t buffer_size;
  uint32_t last_seen;  // file number of the last message at the last close
  int64_t dir_mtime;   // the directory's time when last looked through for foreign files
};

// --- Driver slots -------------------------------------------------------------

MailDriver* mh_valid(const char* name);
void* mh_parameters(long op, void* value);
void mh_capabilities(MailStream* stream, long* word);
MailStream* mh_open(MailStream* stream);
void mh_close(MailStream* stream);
Envelope* mh_fetchstructure(MailStream* stream, unsigned long msgno, BodyPart** body);
MailText* mh_fetchheader(MailStream* stream, unsigned long msgno);
MailText* mh_fetchtext(MailStream* stream, unsigned long msgno);
MailText* mh_fetchbody(MailStream* stream, unsigned long msgno, const char* section, BodyPart* part,
                       unsigned long offset, unsigned long* length);
void mh_setflag(MailStream* stream, const char* sequence, const char* flags);
void mh_clearflag(MailStream* stream, const char* sequence, const char* flags);
void mh_search(MailStream* stream, const char* criteria);
long mh_ping(MailStream* stream);
void mh_check(MailStream* stream);
void mh_expunge(MailStream* stream);
long mh_copy(MailStream* stream, const char* sequence, const char* mailbox);
long mh_move(MailStream* stream, const char* sequence, const char* mailbox);
long mh_append(MailStream* stream, const char* mailbox, const char* flags, const char* date, StringSource* message);
// Messages, recent and unseen of a folder from its index and queue, without
// opening it; 0 when the index can't be trusted as it stands.
long mh_status(MailStream* stream, const char* mailbox, long flags, MailStatus* out);

// --- The cache --------------------------------------------------------------

// Brings the stream up to date with the index: applies mh_updat.dat, then
// reads the records the stream has not seen. 1 if the stream is usable.
long mh_sync(MailStream* stream);
// Rewrites mh_index.dat and mh_cache.dat from the message files, keeping
// the flags of the old index (or of mh_index.bak). 1 on success.
long mh_cache_rebuild(MailStream* stream);
// Index flag bits (kMhSeen...) of a flag list such as "(\\Seen \\Deleted)";
// unknown flags are reported and skipped, a bad list gives 0.
uint32_t mh_parse_flags(MailStream* stream, const char* list);

// --- For tests ---------------------------------------------------------------

// Failing writes, syncs, opens and renames: safe_fail_from_for_test of
// rclib/safe_file.h.
// Makes the driver stop dead at the named step, as if the process had been
// killed there: descriptors are dropped and nothing is cleaned up. Steps:
// "expunge-written", "expunge-marked", "expunge-unlinked",
// "expunge-cache-installed", "rebuild-written", "update-appended",
// "update-committed". Null: off.
void mh_set_crash_point_for_test(const char* step);
