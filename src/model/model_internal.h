// The model's own records and the helpers its files share. Nothing outside
// src/model includes this.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "src/base/critical.h"
#include "src/base/model_events.h"
#include "src/model/mm.h"

// --- Services -------------------------------------------------------------------

// One cached listing: the pattern, whether it was of all folders or the
// subscribed ones, and the temporary file that holds it.
struct ListCacheEntry {
  std::string pattern;
  std::string file;
  int all = 0;
};

struct MessageService {
  std::string name;
  int type = kServiceTypeNone;
  int number = -1;   // the ms number of the option keys
  int listed = 0;    // a folder list was fetched since the last close
  MailStream* stream = nullptr;  // the control stream
  std::string host;
  int port = 0;  // 0: the type's default
  std::string prefix;
  std::string location;
  std::string security;  // "ssl", "tls", "none", or "" (STARTTLS when offered)
  std::string auth_user;
  std::string auth_password;
  std::string userid;
  std::string password;
  std::vector<ListCacheEntry> list_cache;
  int cache_invalid = 0;
};

// The service in slot id, or null for 999, out of range or an empty slot.
MessageService* ServiceAt(int id);
// Drops a service's cached listings and deletes their files.
void DropListCache(MessageService* ms);
// Whether a stream-less failure should be reported (the user did not
// cancel the login), and the report: the numbered message and the trace.
void ReportNoStream(int code, const char* text);

// --- Folders --------------------------------------------------------------------

struct ShadowMessage {
  UMI umi = 0;
  std::string section;
};

constexpr int kUseCountMax = 63;

struct FolderInfo {
  int service = INVALID_SERVICE;
  std::string name;
  MailStream* stream = nullptr;
  // Serials by message number (entry 0 unused): sorted, since serials are
  // handed out in increasing order and expunges only remove.
  std::vector<uint32_t> serials;
  uint32_t next_serial = 0;
  std::array<std::unique_ptr<ShadowMessage>, kShadowSlots> shadows;
  int sweep = 1;
  bool needs_expunge = false;
  bool dead = false;
  bool death_reported = false;
  int use_count = 0;

  unsigned long count() const { return serials.empty() ? 0 : serials.size() - 1; }
};

// The folder in slot id, or null for 999, out of range or a free slot.
FolderInfo* FolderAt(int id);
// The folder whose stream this is, or 999.
int FolderForStream(MailStream* stream);
// Frees a folder record's stream and slot (the last close).
void FolderRelease(int id);
// Tells the listeners that message msgno of folder id is gone, then drops it
// from the table. The folder, which a listener may have closed, or null.
FolderInfo* ReportExpunged(int id, unsigned long msgno);

// --- What the callbacks fill while a model call runs -----------------------------

// The list that mm_mailbox fills during a listing; null otherwise.
extern FolderList* g_listing;
// The list that mm_acl fills during an ACL call; null otherwise.
extern ACLList* g_acl_list;
struct QuotaValues {
  long storage_used = 0, storage_limit = 0, messages_used = 0, messages_limit = 0;
};
// Filled by mm_quota during a quota call; null otherwise.
extern QuotaValues* g_quota;

// --- Guards ---------------------------------------------------------------------

// Busy mode around anything that can reach the network from a window event.
struct CriticalSection {
  CriticalSection() { WIN_start_critical(); }
  ~CriticalSection() { WIN_end_critical(); }
  CriticalSection(const CriticalSection&) = delete;
  CriticalSection& operator=(const CriticalSection&) = delete;
};

struct QuietSection {
  QuietSection() { MM_QuietOn(); }
  ~QuietSection() { MM_QuietOff(); }
  QuietSection(const QuietSection&) = delete;
  QuietSection& operator=(const QuietSection&) = delete;
};

// Sets a pointer for the life of a call and clears it after.
template <typename T>
struct Collecting {
  T*& slot;
  Collecting(T*& s, T* value) : slot(s) { slot = value; }
  ~Collecting() { slot = nullptr; }
  Collecting(const Collecting&) = delete;
  Collecting& operator=(const Collecting&) = delete;
};

// --- Messages -------------------------------------------------------------------

// The stream and message number of a UMI (through the stream gate); false
// when the message or its stream is gone.
bool UmiLocate(UMI umi, MailStream** stream, unsigned long* msgno);
// Frees all shadow records of a folder (the folder is closing).
void ShadowReleaseAll(FolderInfo* folder);
