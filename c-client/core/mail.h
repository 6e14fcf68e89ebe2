// The mail layer's records and its core: mailbox names, streams, the driver
// table, dispatch, sequences, the message cache.
//
// Records are plain structures; strings in them are owned, allocated with
// FS_GET/cpystr, and freed by the mail_free_* functions, which take the
// address of the pointer and null it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "c-client/core/env.h"

struct MailStream;
struct MailDriver;
struct StringSource;
struct BodyPart;

// --- Addresses, envelopes, bodies, texts ----------------------------------

struct MailAddress {
  char* personal;
  char* adl;  // route
  char* mailbox;
  char* host;
  char* error;
  MailAddress* next;
};

struct ExtraHeader {
  char* name;
  char* value;
  ExtraHeader* next;
};

struct Envelope {
  char* remail;
  MailAddress* return_path;
  char* date;
  MailAddress* from;
  MailAddress* sender;
  MailAddress* reply_to;
  char* subject;
  MailAddress* to;
  MailAddress* cc;
  MailAddress* bcc;
  char* in_reply_to;
  char* message_id;
  char* newsgroups;
  ExtraHeader* extra_headers;
};

// MailText kinds.
constexpr int kTextInMemory = 1;  // zero-terminated text
constexpr int kTextBinary = 2;    // bytes in memory
constexpr int kTextFile = 3;      // data is the name of a temporary file

struct MailText {
  int kind;
  int consumed;  // 1: the model moved the text elsewhere; fetch anew
  unsigned long size;
  char* data;
};

struct BodyParameter {
  char* attribute;
  char* value;
  BodyParameter* next;
};

struct BodyPartNode;

// Body types and encodings.
enum BodyType : unsigned short {
  TYPETEXT = 0,
  TYPEMULTIPART = 1,
  TYPEMESSAGE = 2,
  TYPEAPPLICATION = 3,
  TYPEAUDIO = 4,
  TYPEIMAGE = 5,
  TYPEVIDEO = 6,
  TYPEOTHER = 7,
};
enum BodyEncoding : unsigned short {
  ENC7BIT = 0,
  ENC8BIT = 1,
  ENCBINARY = 2,
  ENCBASE64 = 3,
  ENCQUOTEDPRINTABLE = 4,
  ENCOTHER = 5,
};

struct BodyPart {
  unsigned short type;
  unsigned short encoding;
  char* subtype;
  BodyParameter* parameter;
  char* id;
  char* description;
  // Content-Disposition: the type word upper-cased ("ATTACHMENT", "INLINE")
  // and its parameters as written (FILENAME, FILENAME*0*, ...; lookups join
  // the RFC 2231 forms). Null when the part has none.
  char* disposition;
  BodyParameter* disposition_parameter;
  // What the part holds, by kind: a simple part's cached text; a
  // multipart's first part; a message/rfc822's envelope, body and texts.
  MailText* contents;
  BodyPartNode* parts;
  Envelope* msg_env;
  BodyPart* msg_body;
  MailText* msg_text;
  MailText* msg_header_text;
  MailText* msg_body_text;
  unsigned long msg_offset;
  unsigned long size_lines;
  unsigned long size_bytes;
  unsigned long size_raw;
};

struct BodyPartNode {
  BodyPart body;
  unsigned long offset;  // position of the part in the text of its parent
  BodyPartNode* next;
};

// The outgoing record of the sending path.
struct Message {
  Envelope* envelope;
  BodyPart* body;
  void* extra[3];
};

// --- Message elements -----------------------------------------------------

// Sizes the cache dump counts for the two kinds of element.
constexpr unsigned long kShortEltSize = 36;
constexpr unsigned long kLongEltSize = 52;

struct MessageElt {
  unsigned long msgno;
  unsigned long reserved;
  unsigned long lastref;  // cacheref at the last touch
  // Internal date.
  unsigned int hours : 5;
  unsigned int minutes : 6;
  unsigned int seconds : 6;
  unsigned int zone_west : 1;
  unsigned int zone_hours : 4;
  unsigned int zone_minutes : 6;
  unsigned int seen : 1;
  unsigned int deleted : 1;
  unsigned int flagged : 1;
  unsigned int answered : 1;
  unsigned int draft : 1;
  unsigned int recent : 1;
  unsigned int searched : 1;
  unsigned int sequence : 1;     // set by mail_sequence
  unsigned int search_mark : 1;  // work bit of the local searches
  unsigned int lockcount : 8;    // references; 1 at creation; wraps
  unsigned int day : 5;
  unsigned int month : 4;  // 1 to 12
  unsigned int year : 7;   // years since 1969
  unsigned long user_flags;
  unsigned long rfc822_size;
  unsigned long file_number;  // local drivers: message file name, or position
  unsigned long header_size;  // local drivers
  bool is_long;
  // Long elements only.
  Envelope* envelope;
  BodyPart* body;
  MailText* header_text;
  MailText* body_text;
};

// --- Streams ---------------------------------------------------------------

constexpr int kMaxUserFlags = 30;

struct MailStream {
  MailDriver* driver;  // null after the driver has closed it
  void* local;         // the driver's private record
  char* mailbox;
  unsigned int lock : 1;
  unsigned int debug : 1;
  unsigned int silent : 1;
  unsigned int rdonly : 1;
  unsigned int anonymous : 1;
  unsigned int scache : 1;
  unsigned int control : 1;
  unsigned int search_failed : 1;  // the last mail_search was refused or could not run
  unsigned short use;       // live MailHandle records
  unsigned short sequence;  // generation: changes at each open and close
  unsigned long tag_counter;
  unsigned long nmsgs;
  unsigned long recent;
  unsigned long searched;
  unsigned long first_unseen;
  char* flagstring;
  char* user_flags[kMaxUserFlags];
  // The message cache.
  unsigned long cachesize;
  unsigned long cachecount;
  unsigned long cachehigh;
  unsigned long cachelow;
  unsigned long cacheref;
  MessageElt** cache;
  void* cache_index;  // the cache's own bookkeeping (elements that hold data)
  // The current message's data: owned on a short-cache stream, otherwise
  // mirrors of what the long element owns.
  unsigned long msgno;
  Envelope* env;
  BodyPart* body;
  MailText* header_text;
  MailText* body_text;
};

struct MailHandle {
  MailStream* stream;
  unsigned short sequence;
};

// mail_open options.
constexpr long OP_DEBUG = 1;
constexpr long OP_READONLY = 2;
constexpr long OP_ANONYMOUS = 4;
constexpr long OP_SHORTCACHE = 8;
constexpr long OP_SILENT = 16;
constexpr long OP_PROTOTYPE = 32;
constexpr long OP_CONTROL = 64;

// Capability bits.
constexpr long CAP_WORKS = 1;
constexpr long CAP_FOLDERS = 2;
constexpr long CAP_SUBSCRIBE = 4;
constexpr long CAP_ACL = 8;
constexpr long CAP_QUOTA = 16;
constexpr long CAP_FOLDERS_FULL = 32;
constexpr long CAP_RESERVED = 64;  // never set
constexpr long CAP_RENAME_NOT_ATOMIC = 128;

// What mail_status asks of a mailbox that need not be open, and which of
// the answers came back (MailStatus::flags).
constexpr long SA_MESSAGES = 1;
constexpr long SA_RECENT = 2;
constexpr long SA_UNSEEN = 4;
constexpr long SA_UIDNEXT = 8;
constexpr long SA_UIDVALIDITY = 16;
constexpr long SA_ALL = SA_MESSAGES | SA_RECENT | SA_UNSEEN | SA_UIDNEXT | SA_UIDVALIDITY;

struct MailStatus {
  long flags;  // the SA_* bits of the fields that hold an answer
  unsigned long messages;
  unsigned long recent;
  unsigned long unseen;
  unsigned long uidnext;
  unsigned long uidvalidity;
};

// --- Drivers ----------------------------------------------------------------

struct MailDriver {
  const char* name;                                                     // 0
  MailDriver* next;                                                     // 1
  MailDriver* (*valid)(const char* name);                               // 2
  void* (*parameters)(long op, void* value);                            // 3
  void (*capabilities)(MailStream* stream, long* word);                 // 4
  void (*find)(MailStream* stream, const char* pattern);                // 5
  void (*find_bboards)(MailStream* stream, const char* pattern);        // 6
  void (*find_all)(MailStream* stream, const char* pattern);            // 7
  void (*find_all_bboards)(MailStream* stream, const char* pattern);    // 8
  long (*subscribe)(MailStream* stream, const char* mailbox);           // 9
  long (*unsubscribe)(MailStream* stream, const char* mailbox);         // 10
  long (*subscribe_bboard)(MailStream* stream, const char* name);       // 11
  long (*unsubscribe_bboard)(MailStream* stream, const char* name);     // 12
  long (*create)(MailStream* stream, const char* mailbox);              // 13
  long (*remove)(MailStream* stream, const char* mailbox);              // 14 (delete)
  long (*rename)(MailStream* stream, const char* old_name, const char* new_name);  // 15
  MailStream* (*open)(MailStream* stream);                              // 16: null gives the prototype
  void (*close)(MailStream* stream);                                    // 17
  void (*fetchfast)(MailStream* stream, const char* sequence);          // 18
  void (*fetchflags)(MailStream* stream, const char* sequence);         // 19
  Envelope* (*fetchstructure)(MailStream* stream, unsigned long msgno, BodyPart** body);  // 20
  MailText* (*fetchheader)(MailStream* stream, unsigned long msgno);    // 21
  MailText* (*fetchtext)(MailStream* stream, unsigned long msgno);      // 22
  MailText* (*fetchbody)(MailStream* stream, unsigned long msgno, const char* section, BodyPart* part,
                         unsigned long offset, unsigned long* length);  // 23
  void (*setflag)(MailStream* stream, const char* sequence, const char* flags);    // 24
  void (*clearflag)(MailStream* stream, const char* sequence, const char* flags);  // 25
  void (*search)(MailStream* stream, const char* criteria);             // 26
  long (*ping)(MailStream* stream);                                     // 27
  void (*check)(MailStream* stream);                                    // 28
  void (*expunge)(MailStream* stream);                                  // 29
  long (*copy)(MailStream* stream, const char* sequence, const char* mailbox);  // 30
  long (*move)(MailStream* stream, const char* sequence, const char* mailbox);  // 31
  long (*append)(MailStream* stream, const char* mailbox, const char* flags, const char* date,
                 StringSource* message);                                // 32
  long (*getacl)(MailStream* stream, const char* mailbox);              // 33
  long (*setacl)(MailStream* stream, const char* mailbox, const char* identifier, const char* rights);  // 34
  long (*deleteacl)(MailStream* stream, const char* mailbox, const char* identifier);  // 35
  long (*myrights)(MailStream* stream, const char* mailbox);            // 36
  long (*setquota)(MailStream* stream, const char* root, long storage, long messages);  // 37
  long (*getquota)(MailStream* stream, const char* root);               // 38
  void (*gc)(MailStream* stream, long flags);                           // 39
  // Counts of a mailbox without opening it, where the driver can tell
  // cheaply; 0 when it can't (an old server, a damaged index).
  long (*status)(MailStream* stream, const char* mailbox, long flags, MailStatus* out);  // 40
  MailStream* prototype;  // the driver's prototype stream: only `driver` is set
};

// The three drivers, linked by the model in this order.
extern MailDriver imap2driver;
extern MailDriver mhdriver;
extern MailDriver dawzdriver;

// --- The message cache ------------------------------------------------------

enum CacheOp : long {
  CH_INIT = 10,
  CH_SIZE = 11,
  CH_FLUSH = 12,
  CH_DUMP = 13,
  CH_MAKELELT = 20,
  CH_LELT = 21,
  CH_MAKEELT = 30,
  CH_ELT = 31,
  CH_FREE = 40,
  CH_GC = 41,
  CH_EXPUNGE = 45,
};
constexpr unsigned long kCacheHigh = 400;
constexpr unsigned long kCacheLow = 200;
constexpr unsigned long kCacheBig = 5001;  // from this size a flush drops everything

typedef void* (*mailcache_t)(MailStream* stream, unsigned long msgno, long op);
void* mm_cache(MailStream* stream, unsigned long msgno, long op);
// The cache entry in use (mm_cache unless replaced).
extern mailcache_t mailcache;

// --- Getting message text ---------------------------------------------------

// Reads size bytes of a message's text from the driver's reader into a
// MailText (memory or a temporary file).
typedef long (*readfn_t)(void* reader, unsigned long size, char* buffer);
typedef MailText* (*mailgets_t)(readfn_t reader, void* handle, unsigned long size);
extern mailgets_t mail_gets;  // the model installs its own

// --- The core's interface ---------------------------------------------------

void mail_link(MailDriver* driver);
MailDriver* mail_drivers();  // the first linked driver
void mail_unlink_all();      // for tests
void* mail_parameters(MailStream* stream, long op, void* value);
void mail_capabilities(MailStream* stream, long* word);

void mail_find(MailStream* stream, const char* pattern);
void mail_find_bboards(MailStream* stream, const char* pattern);
void mail_find_all(MailStream* stream, const char* pattern);
void mail_find_all_bboards(MailStream* stream, const char* pattern);

MailDriver* mail_valid(MailStream* stream, const char* mailbox, const char* purpose);
// Parsed remote name "[*]{host[:port][/switch...]}mailbox".
struct NetMailbox {
  char host[256];
  char mailbox[1024];
  char service[32];
  long port;  // 0: the service's default
  bool anonymous;
  bool bboard;
  // Transport security switches.
  bool ssl;              // /ssl: TLS from the first byte
  bool tls;              // /tls: STARTTLS required
  bool notls;            // /notls: no STARTTLS even if offered
  bool novalidate_cert;  // /novalidate-cert: don't check the certificate
};
// Parses a remote name; false if it isn't one or is invalid.
bool mail_valid_net_parse(const char* name, NetMailbox* out);
// Parses and accepts the name for driver; host and mailbox (buffers of 256
// and 1024) are filled when given.
MailDriver* mail_valid_net(const char* name, MailDriver* driver, char* host, char* mailbox);

long mail_subscribe(MailStream* stream, const char* mailbox);
long mail_unsubscribe(MailStream* stream, const char* mailbox);
long mail_subscribe_bboard(MailStream* stream, const char* name);
long mail_unsubscribe_bboard(MailStream* stream, const char* name);
long mail_create(MailStream* stream, const char* mailbox);
long mail_delete(MailStream* stream, const char* mailbox);
long mail_rename(MailStream* stream, const char* old_name, const char* new_name);

MailStream* mail_open(MailStream* stream, const char* mailbox, long options);
MailStream* mail_close(MailStream* stream);  // returns null
MailHandle* mail_makehandle(MailStream* stream);
void mail_free_handle(MailHandle** handle);
MailStream* mail_stream(MailHandle* handle);

MessageElt* mail_elt(MailStream* stream, unsigned long msgno);
MessageElt* mail_lelt(MailStream* stream, unsigned long msgno);

void mail_fetchfast(MailStream* stream, const char* sequence);
void mail_fetchflags(MailStream* stream, const char* sequence);
Envelope* mail_fetchstructure(MailStream* stream, unsigned long msgno, BodyPart** body);
MailText* mail_fetchheader(MailStream* stream, unsigned long msgno);
MailText* mail_fetchtext(MailStream* stream, unsigned long msgno);
MailText* mail_fetchbody(MailStream* stream, unsigned long msgno, const char* section, unsigned long* length);
// The part named by section, and its offset in the message text.
BodyPart* mail_body_section(BodyPart* body, const char* section, unsigned long* offset);

void mail_setflag(MailStream* stream, const char* sequence, const char* flags);
void mail_clearflag(MailStream* stream, const char* sequence, const char* flags);
void mail_search(MailStream* stream, const char* criteria);
void mail_search_reset(MailStream* stream);
void mail_searched(MailStream* stream, unsigned long msgno);
long mail_ping(MailStream* stream);
void mail_check(MailStream* stream);
void mail_expunge(MailStream* stream);
long mail_copy(MailStream* stream, const char* sequence, const char* mailbox);
long mail_move(MailStream* stream, const char* sequence, const char* mailbox);
long mail_append(MailStream* stream, const char* mailbox, const char* flags, const char* date, StringSource* message);
long mail_append_simple(MailStream* stream, const char* mailbox, StringSource* message);
long mail_getacl(MailStream* stream, const char* mailbox);
long mail_setacl(MailStream* stream, const char* mailbox, const char* identifier, const char* rights);
long mail_deleteacl(MailStream* stream, const char* mailbox, const char* identifier);
long mail_myrights(MailStream* stream, const char* mailbox);
long mail_setquota(MailStream* stream, const char* root, long storage, long messages);
long mail_getquota(MailStream* stream, const char* root);
// Counts of a mailbox (SA_* flags) without opening it; stream, if given,
// may carry the question (a control stream of the same server). out is
// cleared first; 1 when the driver answered, 0 otherwise (nothing said to
// the user: callers ask this from timers).
long mail_status(MailStream* stream, const char* mailbox, long flags, MailStatus* out);

// Called by drivers.
void mail_exists(MailStream* stream, unsigned long count);
void mail_recent(MailStream* stream, unsigned long count);
void mail_expunged(MailStream* stream, unsigned long msgno);
void mail_lock(MailStream* stream);
void mail_unlock(MailStream* stream);
void mail_debug(MailStream* stream);
void mail_nodebug(MailStream* stream);
// Marks the elements of a sequence text; 0 with an error logged if bad.
long mail_sequence(MailStream* stream, const char* sequence);

// Garbage collection flags of mail_gc.
constexpr long GC_ELT = 1;
constexpr long GC_ENV = 2;
constexpr long GC_TEXTS = 4;
void mail_gc(MailStream* stream, long flags);

// Internal dates: "dd-Mon-yyyy hh:mm:ss +zzzz" and the ctime form. The
// buffer must hold kMailDateSize bytes.
constexpr size_t kMailDateSize = 64;
char* mail_date(char* buffer, MessageElt* elt);
char* mail_cdate(char* buffer, MessageElt* elt);

// Constructors (zeroed records) and destructors (take the pointer's address).
Envelope* mail_newenvelope();
MailAddress* mail_newaddr();
ExtraHeader* mail_newextra();
MailText* mail_newtext();
BodyPart* mail_newbody();
BodyPart* mail_initbody(BodyPart* body);
BodyParameter* mail_newbody_parameter();
BodyPartNode* mail_newbody_part();
Message* mail_newmessage();
void mail_free_envelope(Envelope** env);
void mail_free_address(MailAddress** address);
void mail_free_extra(ExtraHeader** extra);
void mail_free_text(MailText** text);
void mail_free_body(BodyPart** body);
void mail_free_body_data(BodyPart* body);  // what a part holds, not the part
void mail_free_body_parameter(BodyParameter** parameter);
void mail_free_body_part(BodyPartNode** part);
void mail_free_message(Message** message);
void mail_free_elt(MessageElt** elt);
// Sets a text's kind and a copy of its data (size + 1 bytes for text, size
// for binary, the name for a file).
void mail_text_set(MailText* text, int kind, const char* data, unsigned long size);
// For the drivers that read messages from local files. Forgets the current
// message and empties the cache, as before the folder is read anew.
void mail_reset_cached(MailStream* stream);
// Keeps a header just read as the message's (the stream's own when it holds
// one message at a time), freeing the one it replaces.
void mail_keep_header(MailStream* stream, unsigned long msgno, MailText* text);
// Keeps a part's text just read in the part (the message text of a
// message/rfc822 part), freeing the one it replaces.
void mail_keep_part_text(BodyPart* part, MailText* text);
Envelope* mail_duplicate_envelope(const Envelope* env);
BodyParameter* mail_duplicate_body_parameters(const BodyParameter* parameter);
int mail_compare_address(const MailAddress* a, const MailAddress* b);
