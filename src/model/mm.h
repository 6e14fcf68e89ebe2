// The mail model: the one layer that windows and tree nodes use to reach
// mail. They hold service ids, folder ids and UMIs, call MM_*, and hear of
// changes through model events; they never call mail_* themselves.
//
// Ids index two fixed tables (20 services, 50 folders); 999 means none.
// Strings a function returns are the caller's unless it says otherwise.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "c-client/core/mail.h"
#include "rclib/dstree.h"
#include "xvt/xvt.h"

constexpr int kMaxServices = 20;
constexpr int kMaxFolders = 50;
constexpr int INVALID_FOLDER = 999;
constexpr int INVALID_SERVICE = 999;

// Service types.
constexpr int kServiceImap = 1;
constexpr int kServiceBboard = 2;
constexpr int kServiceNntp = 3;
constexpr int kServicePop = 4;
constexpr int kServiceLmap = 5;
constexpr int kServiceP7 = 6;
constexpr int kServiceLocal = 7;
constexpr int kServiceTypeNone = 7;  // an unconfigured slot reads as local

// --- UMIs ---------------------------------------------------------------------
//
// A UMI names one message for as long as its folder's record lives: the
// folder id, a shadow slot (0 for a real message, 1..511 for a message
// inside a message) and a serial that the folder hands out in increasing
// order. It is 64 bits wide so that a folder of any size and a session of
// any length never run out of serials; only these accessors know the
// layout. 0 is no message. Nothing stores a UMI on disk.
using UMI = uint64_t;
constexpr int kUmiFolderShift = 48;
constexpr int kUmiSlotShift = 32;
constexpr UMI kUmiSerialMask = 0xffffffffull;
constexpr UMI kUmiSlotMask = 0x1ffull << kUmiSlotShift;
constexpr int kShadowSlots = 512;  // slot 0 unused

constexpr UMI MM_UMIMake(int folder, int slot, uint32_t serial) {
  return (static_cast<UMI>(folder) << kUmiFolderShift) | (static_cast<UMI>(slot & 0x1ff) << kUmiSlotShift) | serial;
}
constexpr int MM_UMIFolder(UMI umi) { return static_cast<int>((umi >> kUmiFolderShift) & 0x7fff); }
constexpr UMI MM_UMIBase(UMI umi) { return umi & ~kUmiSlotMask; }
constexpr int MM_UMIShadowSlot(UMI umi) { return static_cast<int>((umi & kUmiSlotMask) >> kUmiSlotShift); }
constexpr uint32_t MM_UMISerial(UMI umi) { return static_cast<uint32_t>(umi & kUmiSerialMask); }
constexpr bool MM_MsgIsShadowMessage(UMI umi) { return (umi & kUmiSlotMask) != 0; }

// --- Start and stop -----------------------------------------------------------

int MM_Init();
void MM_Shutdown(int expunge);
// Whether any open folder has messages marked deleted by this session.
int MM_NeedsExpunge();
// A counter that mutes the mail layer's dialogs around expected failures
// (pings, closes, background checks); trace lines are never muted.
void MM_QuietOn();
void MM_QuietOff();
int MM_Quiet();

// --- Message services ---------------------------------------------------------

// A folder found by a listing.
constexpr int kFolderNoInferiors = 1;
constexpr int kFolderSelectable = 2;
constexpr int kFolderMarked = 4;
struct FolderListEntry {
  std::string name;
  char delimiter = 0;  // 0: unknown
  int flags = kFolderSelectable;
};
using FolderList = std::vector<FolderListEntry>;

// The slot of the service with this `ms` number, made (and loaded from the
// options) if needed; 999 for a negative number or a full table.
int MM_MSNew(int number);
int MM_MSReload(int id);
void MM_MSDestroy(int id);
void MM_MSClose(int id);
void MM_MSDelete(int id);
// The service's control stream, pinged, or opened on demand; null if none.
MailStream* MM_MSGetStream(int id);
// 1 and the server's capability bits, 0 without a stream.
int MM_MSCapabilities(int id, long* out);
// The folders that match pattern (all: every folder, else the subscribed
// ones). Listings are cached per service in temporary files. 1 or 0.
int MM_MSFindFol(int id, const char* pattern, int all, FolderList* out);

// Getters: safe on 999 and on empty slots ("" for strings).
const char* MM_MSGetName(int id);
int MM_MSGetNumber(int id);  // -1
const char* MM_MSGetHost(int id);
int MM_MSGetPort(int id);  // -1
const char* MM_MSGetUserid(int id);
const char* MM_MSGetAuthUser(int id);
const char* MM_MSGetFolderPrefix(int id);
const char* MM_MSGetFolderLocation(int id);
int MM_MSGetType(int id);  // 7
int MM_MSFindByName(const char* name);
// Names of the services with one of these types, in slot order, with the
// id as each entry's data. The caller destroys the list.
SLIST MM_MSListByType(const int* types, int count);
const char* MM_MSGetTypedescByType(int type);
int MM_MSGetTypeByTypename(const char* word);  // 0 for an unknown word
const char* MM_MSGetTypenameByType(int type);

// Primes the login layer with the service's login before an open, and
// keeps the login that worked after it.
void MM_MSInitAuthInfo(int id);
void MM_MSSaveAuthInfo(int id);

// "{host/service=imap2:143}" and the like; 1 or 0 (no host, or a type
// without streams). Local services give the empty string and 1.
int MM_CCGenSvcName(int id, std::string* out);
int MM_CCGenFolName(int id, const char* folder, std::string* out);
MailStream* MM_CCOpenFolStream(int id, const char* folder, int flag);
MailStream* MM_CCOpenSvcStream(int id);
// The listing patterns for a pattern under the service's folder locations.
void MM_CCSplitPrefixes(const char* locations, const char* pattern, std::vector<std::string>* patterns);

// Canonical folder names ("service!folder") that other modules store.
int MM_FolCanonNameParse(const char* cname, int* id_out, std::string* name_out);
std::string MM_FolCanonNameBuild(int id, const char* folder);  // "" for none
int MM_FolFindByCanonName(const char* cname);
int MM_FolCheckByCanonName(const char* cname);

// --- Folders --------------------------------------------------------------------

int MM_FolOpen(int ms, const char* name);
int MM_FolFindOpen(int ms, const char* name);
int MM_FolReOpen(int id);
// Reads the folder anew after another program changed it: each known
// message is reported expunged, then the folder's messages as new ones.
int MM_FolReread(int id);
void MM_FolClose(int id, int force);
int MM_FolCreate(int ms, const char* name, int subscribe);
int MM_FolDelete(int ms, const char* name);
int MM_FolExists(int ms, const char* name);
int MM_FolRename(int ms, const char* old_name, const char* new_name, int skip_server);
int MM_FolMove(int from_ms, const char* name, int to_ms, const char* new_name);
int MM_FolCopy(int from_ms, const char* name, int to_ms, const char* new_name);
int MM_FolCopyContent(int from_ms, const char* name, int to_ms, const char* new_name, int move);
int MM_FolSubscribe(int ms, const char* name, int subscribe);
int MM_MSFolIsSubscribed(int ms, const char* name);

// The single gate to a folder's stream: null when the folder is not open
// or its stream died. The first call after a death posts
// E_FOLDER_STREAM_DIED, whose handlers may reopen or close the folder.
MailStream* MM_FolStream(int id);
int MM_FolStreamValid(int id);
long MM_FolGetNumMsgs(int id);
long MM_FolGetNumMsgsOnStream(int id);
long MM_FolGetNumReadMsgs(int id);
const char* MM_FolGetName(int id);  // "" for none; valid while open
// name without the service's folder prefix (a pointer into name).
const char* MM_FolGetFriendlyName(int ms, const char* name);
int MM_FolGetService(int id);
char MM_FolDelimiter(int ms, const char* name);
int MM_MSFolIsReadonly(int id);
int MM_FolExpunge(int id);
int MM_FolCheckNewMail(int id, int checkpoint);

void MM_FolSearchStart(int id);
int MM_FolSearch(int id, const char* criteria);
// The UMIs of the messages marked by the searches since the start.
int MM_FolSearchGetList(int id, std::vector<UMI>* out);
long MM_FolSearchGetNumSearched(int id);

// Access rights.
constexpr int kAclRead = 1;
constexpr int kAclWrite = 2;
constexpr int kAclAdmin = 4;
constexpr int kAclPost = 8;
struct ACLEntry {
  std::string identifier;
  int rights = 0;
  std::string text;  // the rights letters as the server wrote them
};
using ACLList = std::vector<ACLEntry>;
int MM_CCACLParse(const char* text);
const char* MM_CCACLBuild(int rights);  // a static buffer
int MM_FolGetACLList(int ms, const char* name, ACLList* out);
int MM_FolAddACL(int ms, const char* name, const char* identifier, int rights);
int MM_FolDeleteACL(int ms, const char* name, const char* identifier);
int MM_FolGetMyRights(int ms, const char* name, ACLList* out);
void MM_FolFreeACL(ACLList* list);
int MM_FolGetQuota(int ms, const char* root, long* storage_used, long* storage_limit, long* messages_used,
                   long* messages_limit);
int MM_FolSetQuota(int ms, const char* root, long storage_limit, long messages_limit);
// Messages and unread messages of a folder without opening it, where the
// server can tell cheaply (IMAP STATUS over the service's existing control
// stream) or the local index holds them. 1 with the counts; 0 (counts 0)
// when they can't be had, without a word to the user.
int MM_FolGetStatus(int ms, const char* name, long* messages, long* unseen);

// --- Messages -------------------------------------------------------------------

UMI MM_UMIFromMsgno(int folder, unsigned long msgno);  // 0 if none
unsigned long MM_UMIMsgno(UMI umi);                   // 0 if gone
MessageElt* MM_UMIGetElt(UMI umi);                    // with its structure fetched

int MM_MsgIsRead(UMI umi);
int MM_MsgIsDeleted(UMI umi);
int MM_MsgIsFlagged(UMI umi);
int MM_MsgIsAnswered(UMI umi);
int MM_MsgIsDraft(UMI umi);
int MM_MsgIsRecent(UMI umi);
int MM_MsgIsSearched(UMI umi);
int MM_MsgIsMultipart(UMI umi);
unsigned long MM_MsgSize(UMI umi);

constexpr int kPriorityHigh = 0;
constexpr int kPriorityNormal = 1;
constexpr int kPriorityLow = 2;
int MM_MsgPriority(UMI umi);
Envelope* MM_MsgEnvelope(UMI umi);  // the mail layer's; not the caller's
// Address kinds: 1 from, 2 sender, 3 reply-to, 5 to, 6 cc, 7 bcc.
MailAddress* MM_MsgToAddress(UMI umi, int kind);

// A header's value; nothing when the message has no such header.
std::optional<std::string> MM_MsgHeaderContent(UMI umi, const char* name);
std::optional<std::string> MM_MsgHeader(UMI umi, const char* name);
std::optional<std::string> MM_MsgRawHeaders(UMI umi);
// The contents of the header lines with these names (each the first so
// called) in a header block got from MM_MsgRawHeaders, read in one pass.
std::vector<std::optional<std::string>> MM_HeaderFieldContents(const std::string& header,
                                                               std::initializer_list<const char*> names);
// Files: the caller owns the named file; "" on failure.
std::string MM_MsgRawHeadersToFile(UMI umi);
std::string MM_MsgRawBodyToFile(UMI umi);
std::string MM_MsgToFile(UMI umi);
// The text of the first part when it is text.
std::optional<std::string> MM_MsgIPMContent(UMI umi);
std::string MM_MsgIPMContentToFile(UMI umi);

BodyPart* MM_MsgSectionBody(UMI umi, const char* section);
std::string MM_MsgSectionContentToFile(UMI umi, const char* section);  // decoded
int MM_MsgSectionMajorType(UMI umi, const char* section);              // -1 if none
std::string MM_MsgSectionMinorType(UMI umi, const char* section);
unsigned long MM_MsgSectionSize(UMI umi, const char* section);
std::string MM_MsgSectionDesc(UMI umi, const char* section);
std::vector<std::string> MM_MsgSectionSubsectionList(UMI umi, const char* section);
std::string MM_UMISectionName(UMI umi, const char* section);

// Messages inside messages.
int MM_MsgShadowUmiMinorType(UMI umi);
int MM_MsgShadowSubMessage(UMI umi, const char* section, UMI* umi_out);
void MM_MsgReleaseShadowMessage(UMI umi);

int MM_MsgSetFlag(UMI umi, const char* flag);
int MM_MsgClearFlag(UMI umi, const char* flag);
int MM_MsgCopy(UMI umi, int ms, const char* folder);
int MM_MsgMove(UMI umi, int ms, const char* folder);
constexpr int kAppendDeleted = 1;
constexpr int kAppendSeen = 2;
constexpr int kAppendAnswered = 4;
constexpr int kAppendFlagged = 8;
constexpr int kAppendDraft = 16;
int MM_MsgAppend(int ms, const char* folder, const char* file, int flags, const char* date);
// The flag list of an append: "(\Seen \Flagged)" and so on; \Draft only
// when the service can store it.
std::string MM_MsgAppendFlags(int flags, bool draft_capable);

// The fetch hook: message text goes to memory (at most 65000 bytes) or to
// a temporary file, decoded on the way when an encoding is set.
constexpr unsigned long kMailgetsMemoryCap = 65000;
MailText* MM_Mailgets(readfn_t reader, void* handle, unsigned long size);
int MM_MailgetsToFile();
void MM_MailgetsToMemory();
void MM_MailgetsFileDone();
void MM_MailgetsSetEncoding(int encoding);
long mm_mailgets(readfn_t reader, void* handle, unsigned long size);

// --- The MIME tree ----------------------------------------------------------------

// Internal types of the parts that the attachment windows treat apart.
enum AttachKind : int {
  kAttachOther = 0,
  kAttachMixed,
  kAttachAlternative,
  kAttachDigest,
  kAttachParallel,
  kAttachFormData,
  kAttachRelated,
  kAttachReport,
  kAttachVoiceMessage,
  kAttachRfc822,
  kAttachExternalBody,
  kAttachNews,
  kAttachAppleFile,
  kAttachBinhex,
  kAttachUuencode,
};

struct AttachInfo {
  char kind_word[8];  // "ATTINFO": what generic code looks at first
  UMI umi = 0;
  std::string section;
  std::string description;
  std::string major;
  std::string minor;
  int kind = kAttachOther;
  int encoding = 0;
  unsigned long size = 0;
  std::string file_name;
  bool not_viewable = false;
  std::vector<std::string> temp_files;  // deleted with the node
};

AttachInfo* CreateUMIAttachInfo(UMI umi, const char* section, int flag);
AttachInfo* CreateDummyAttachInfo();
int CreateMtree(MTREE_NODE* parent, UMI umi, const char* section, int flag);
// The tree of the whole message under root (whose data is made by
// CreateDummyAttachInfo).
int CreateAttachmentMtree(MTREE_NODE* root, UMI umi);
void DeleteMtree(MTREE_NODE*& node);
// Copies a section, decoded, to target; size_out gets its size. mode 1
// shows the progress window.
int copy_section_to_file(UMI umi, const char* section, const char* target, unsigned long* size_out, int mode);

// --- Many messages at once ------------------------------------------------------
//
// A selection's flag change or copy goes to each folder as one sequence
// set, not one round trip per message; listeners still hear of each message.

// "1:3,5,9:10" of the message numbers, sorted and without repeats (0 dropped).
std::string MM_SequenceSet(std::vector<unsigned long> msgnos);
// The number of messages changed (gone ones and shadows are skipped).
int MM_MsgSetFlagMany(const std::vector<UMI>& umis, const char* flag);
int MM_MsgClearFlagMany(const std::vector<UMI>& umis, const char* flag);
// The number copied, or 0 at the first failure.
int MM_MsgCopyMany(const std::vector<UMI>& umis, int ms, const char* folder);
// mm_flags: the server told the flags of a message by itself (another
// client changed them). The folder's window takes the reports after a check
// and reads those messages' flags again: the UMIs, sorted, and their count,
// or -1 when too many came and every message should be read again.
void MM_MsgFlagsReported(MailStream* stream, unsigned long msgno);
int MM_FolTakeFlagReports(int id, std::vector<UMI>* out);
