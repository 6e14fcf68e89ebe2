// What hangs in the organizer tree: service nodes, folder nodes, message
// groups and message nodes. Each node's data record begins with its
// kNodeDataType; the records are owned by the node and freed on
// kNodeEventDestroy. Service and folder nodes listen to the model through a
// notifier of their own, so the tree follows every change whichever window
// made it.
//
// A folder loads its messages in one pass: every message's draw record and
// sort keys are computed once, the list is sorted once, and the tree only
// ever sees appends. Each open folder keeps an index from UMI to node, so
// that an event about one message costs a hash lookup, not a walk.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "src/base/model_events.h"
#include "src/model/mm.h"
#include "src/organizer/tree.h"

// --- Message nodes ---------------------------------------------------------------

// Flags of a message line.
constexpr uint16_t kMsgMultipart = 0x01;
constexpr uint16_t kMsgDraft = 0x02;
constexpr uint16_t kMsgRead = 0x04;
constexpr uint16_t kMsgAnswered = 0x08;
constexpr uint16_t kMsgFlagged = 0x10;
constexpr uint16_t kMsgDeleted = 0x20;
constexpr uint16_t kMsgRecent = 0x40;

// Everything a message line needs to draw and sort, made once when the
// node is made, so that scrolling and re-sorting never reach the mail layer.
// One allocation per line: this header and, behind it, the From text and the
// Subject (each ending in NUL), and the Date text only when its fields don't
// pack into date_when. The size and date texts are printed at draw time from
// the numbers, so a line keeps no string objects of its own.
constexpr uint8_t kMsgHasSubject = 0x01;
constexpr uint8_t kMsgHasDate = 0x02;      // a Date header with text
constexpr uint8_t kMsgDateInline = 0x04;   // the date text is stored, not packed

struct MessageNodeInfo {
  int32_t type = kNodeDataTypeMessage;
  uint16_t flags = 0;
  int8_t priority = kPriorityNormal;
  uint8_t subject_skip = 0;  // bytes of "Re:" prefixes and blanks before the subject proper
  UMI umi = 0;
  int64_t date_key = 0;    // the sent date in comparable form; kNoDate when absent
  int64_t thread_key = 0;  // conversation order: the conversation's place
  uint32_t size = 0;       // bytes, for the size column
  uint32_t date_when = 0;  // month, day, hour, minute, year of the date text, packed
  uint16_t from_len = 0;
  uint16_t subject_len = 0;
  uint8_t bits = 0;        // kMsgHas*, kMsgDateInline
  uint8_t date_len = 0;    // of a stored date text

  const char* texts() const { return reinterpret_cast<const char*>(this + 1); }
};

// The texts of a line; empty for none.
std::string_view MSG_From(const MessageNodeInfo* m);
std::string_view MSG_Subject(const MessageNodeInfo* m);
std::string MSG_DateTextOf(const MessageNodeInfo* m);
std::string MSG_SizeTextOf(const MessageNodeInfo* m);
// Makes the record of a message from the model (sent_folder: the line shows
// "To: " and the first recipient); null when memory runs out.
MessageNodeInfo* MSG_NewInfo(UMI umi, bool sent_folder = false);
void MSG_FreeInfo(MessageNodeInfo* m);

// The sort orders. The first six keep the names users have stored in their
// options; the seventh sorts by conversation.
enum MsgSortOrder : int {
  kSortRecentArrival = 0,
  kSortLeastRecentArrival,
  kSortRecentDate,
  kSortLeastRecentDate,
  kSortFrom,
  kSortSubject,
  kSortConversation,
  kSortOrders
};
const char* MSG_SortName(int order);
// Case aside; an unknown or absent name gives the first order.
int MSG_SortOrderFromName(const char* name);

constexpr int64_t kNoDate = INT64_MIN;

// Flags of the message as the model has them now.
uint16_t MSG_ReadFlags(UMI umi);
std::string MSG_SizeText(unsigned long size);
// The Date header in universal time, as the mail layer's
// compare_message_dates orders it: seconds; kNoDate when absent, and just
// above that when the header can't be placed in time.
int64_t MSG_DateKey(const char* date);
std::string MSG_DateText(const char* date);
// NULL after text; "Re:" prefixes and blanks skipped; case aside.
int MSG_CompareSubjects(const char* a, const char* b);
size_t MSG_SubjectSkip(const char* subject);
// The comparison of two message records for an order (folders first).
TREE_COMPARE_FN MSG_CompareFor(int order);

// The icon of a line: the draft icon over all; read, recent or unread,
// each with or without an attachment.
enum MsgIcon : int {
  kIconDraft = 0,
  kIconRead,
  kIconReadAttach,
  kIconRecent,
  kIconRecentAttach,
  kIconUnread,
  kIconUnreadAttach
};
int MSG_IconOf(uint16_t flags);

// Takes info (made by MSG_NewInfo) or makes it; frees it when the node can't be made.
TreeNode* messageCreateNode(UMI umi, MessageNodeInfo* info = nullptr);
int messageHandleNodeEvent(WINDOW win, TreeNode* node, int event);
void messageDraw(WINDOW win, TreeNode* node, RCT* rect);
int messageWidth(WINDOW win, TreeNode* node, RCT* rect);
MessageNodeInfo* MSG_Info(const TreeNode* node);  // null unless a message node
TreeNode* messageContainer(TreeNode* node);

// Conversations of a folder: message ids and subjects to the conversation's
// key, kept so that new mail finds its conversation without a re-sort.
struct ConversationIndex {
  std::unordered_map<std::string, int64_t> by_id;
  std::unordered_map<std::string, int64_t> by_subject;
};
// Computes rec.thread_key for umi from its headers and the index, and adds
// the message to the index. A message that starts a conversation gets its
// own UMI as the key.
void MSG_ConversationAdd(ConversationIndex* conv, MessageNodeInfo* info);
// Sorts records for an order in one pass; conversation keys are computed
// here (and conv filled) when that order asks for them.
void MSG_SortRecords(std::vector<MessageNodeInfo*>* records, int order, ConversationIndex* conv = nullptr);
// Re-sorts every message line under parent (a folder's flat list or a group).
void MSG_ResortKids(TreeNode* parent, int order);

// --- Message groups --------------------------------------------------------------

constexpr int kGroupMain = -1;
constexpr int kGroupDeleted = -2;
constexpr int kGroupMaxFields = 10;
constexpr int kGroupFieldSize = 20;
constexpr int kGroupPatternSize = 200;

struct GroupRule {
  int field_count = 0;
  char fields[kGroupMaxFields][kGroupFieldSize] = {};
  std::string pattern;
};

struct GroupNodeInfo {
  int32_t type = kNodeDataTypeGroup;
  int32_t id = 0;
  int32_t count = 0;
  int32_t unread = 0;
  int16_t hide_if_empty = 0;
  int sort = kSortRecentArrival;
  std::string name;
  GroupRule rule;
  std::vector<MessageNodeInfo*> load_list;  // only during a load
};

// Whole-text match with alternatives (|), conjunction (&), ? * [set] and \x.
bool wildMatch(const char* text, const char* pattern);
// Fields ("All", "Recipient" or header names; ten at most) into a rule.
void groupInitRule(GroupRule* rule, const char* fields, const char* pattern);
// "MessageGroups.<ms>.<folder>.<tail>" and the like; "" for an unknown kind.
std::string groupGetOptionName(int parent_kind, int ms_number, const char* folder, int group_id,
                               const char* attribute);
TreeNode* groupAdd(TreeNode* container, int ms_number, const char* folder, int id);
TreeNode* groupPick(TreeNode* container, UMI umi);
GroupNodeInfo* GRP_Info(const TreeNode* node);  // null unless a group node
void groupRemoveMessage(TreeNode* message);
void groupInsertMessage(TreeNode* container, TreeNode* group, TreeNode* message);
void groupRecount(TreeNode* group);
int groupHandleNodeEvent(WINDOW win, TreeNode* node, int event);
void groupDraw(WINDOW win, TreeNode* node, RCT* rect);
// Whether empty groups are on view (View.HiddenMsgGroups) and groups at all.
bool GRP_ShowEmpty();
bool GRP_ShowGroups();
// The load of a folder's records into its groups (which exist): each record
// goes to its group's list, each list is sorted once and appended; the
// records become the nodes' data, index learns them, counters count them.
class UmiIndex;
void GRP_LoadRecords(TreeNode* container, std::vector<MessageNodeInfo*>* records, long* shown, long* unread,
                     UmiIndex* index);
TreeNode* GRP_DeletedGroup(TreeNode* container);

// The rule group ids of the container's IDList, in order.
std::vector<int> groupIdList(TreeNode* container);
// The IDList without id; with notify the container rebuilds.
int groupRemoveId(TreeNode* container, int id, bool notify);
// Puts group's id in front of before's in the IDList, or at the end when
// before is Main or Deleted.
int groupMove(TreeNode* group, TreeNode* before, bool notify);
// Asks, then deletes the messages of Main, or a rule group (its messages
// through a rebuild) or its messages. 1 when something was done.
int groupDelete(TreeNode* group);
// The Deleted group: asks, then undeletes every message in it.
int groupRestore(TreeNode* group);
// kind 1: E_REBUILD_CLOSED for the folder; kind 2: E_SEARCH_CHANGED.
void groupNotifyChanged(int kind, TreeNode* container);
// The group's Sort option read again and its lines sorted by it.
void groupResort(TreeNode* group);
// E_SHOW_EMPTY_MSGGRPS, E_HIDE_EMPTY_MSGGRPS and E_GROUP_* (value: the id) on a container.
void GRP_HandleViewEvent(TreeNode* container, const ModelEvent* ev);

// --- Folder nodes ----------------------------------------------------------------

// The lines of an open folder by UMI: a flat table with open addressing,
// twelve bytes a slot (the UMI's low 32 bits and the line), at most four
// fifths full. A match of the low bits is confirmed on the line's own
// record, so UMIs that differ only above bit 32 can share a table.
class UmiIndex {
 public:
  TreeNode* Find(UMI umi) const;
  // Adds or replaces the line of umi.
  void Put(UMI umi, TreeNode* line);
  void Erase(UMI umi);
  void Clear();
  void Reserve(size_t n);
  size_t Size() const { return size_; }
  size_t SlotBytes() const { return lines_.size() * (sizeof(uint32_t) + sizeof(TreeNode*)); }
  // Every line, in no particular order.
  std::vector<TreeNode*> Lines() const;

 private:
  size_t Home(uint32_t tag) const { return (tag * 0x9E3779B1u) & mask_; }
  void Grow(size_t capacity);
  std::vector<uint32_t> tags_;
  std::vector<TreeNode*> lines_;  // null: a free slot
  size_t size_ = 0;
  size_t mask_ = 0;
};


struct FolderNodeInfo {
  int32_t type = kNodeDataTypeFolder;
  int ms = INVALID_SERVICE;
  int folder_id = INVALID_FOLDER;
  std::string name;
  char delimiter = 0;
  bool subscribed = false, fetched_subscribed = false, fetched_unsubscribed = false;
  bool groups_loaded = false, messages_loaded = false, rights_known = false, lost = false;
  bool low_memory = false, load_cancelled = false, selectable = true, marked = false;
  bool no_inferiors = false, closing = false;
  long total = 0;
  long shown = 0;
  long unread = 0;
  // A closed folder's counts as the server (or local index) tells them at
  // each tick; -1 while unknown.
  long status_messages = -1, status_unseen = -1;
  int rights = 7;
  int notifier = -1;
  int sort = kSortRecentArrival;
  TreeNode* node = nullptr;
  // The message lines of the open folder, by UMI.
  UmiIndex index;
  ConversationIndex conv;
};

struct ServiceNodeInfo {
  int32_t type = kNodeDataTypeMsgService;
  int ms_id = -1;
  int ms = INVALID_SERVICE;
  std::string name;
  char delimiter = 0;
  bool fetched_subscribed = false, fetched_unsubscribed = false;
  int offline = 0;
  int notifier = -1;
  TreeNode* node = nullptr;
};

FolderNodeInfo* FOL_Info(const TreeNode* node);   // null unless a folder node
ServiceNodeInfo* SVC_Info(const TreeNode* node);  // null unless a service node

// Orders folder records: folders before anything else, the inbox first.
int folderCompare(void* a, void* b);
// Adds a listed folder; null when the name is refused or already there.
TreeNode* folderAdd(TreeNode* parent, int ms, const FolderListEntry& item, int subscribed, int folder_id);
int folderOpen(WINDOW win, TreeNode* node);
int folderAddContents(TreeNode* node);
int folderAddSubFolders(TreeNode* node);
int folderAddMessageContent(TreeNode* node);
int folderCheckNewMail(TreeNode* node, int quiet);
// Asks the model for the counts of a folder that is not open and is shown
// in the tree; 1 when they came (the line redraws if they changed).
int folderRefreshStatus(TreeNode* node);
void folderCloseTree(TreeNode* node);
void doFolderClosed(TreeNode* node);
void doFolderInvalid(TreeNode* node);
void doRebuildFolder(TreeNode* node);
int folderIsReadOnly(TreeNode* node);
TreeNode* MSG_FindMessage(TreeNode* container, UMI umi);
void folderRemoveMessage(TreeNode* container, TreeNode* message);
// Adds one message (new mail) where the folder's view puts it.
TreeNode* folderAddMessage(TreeNode* container, UMI umi);
// The display name: the last component of the friendly name.
std::string folderDisplayName(int ms, const char* name, char delimiter);
int folderHandleNodeEvent(WINDOW win, TreeNode* node, int event);
void folderDraw(WINDOW win, TreeNode* node, RCT* rect);
TreeNode* folderFind(TreeNode* service_node, const char* full_name);
// The sort order of the folder from Folder.<ms>.<name>.Sort.
int folderSortOrder(int ms, const char* name);
// Stores a new sort order for the folder and puts its lines in it, where
// they are (the tree or the folder's window); a closed folder takes it when
// it opens. Lines in rule groups keep their groups' own orders.
void folderSetSortOrder(TreeNode* node, int order);
// Takes the folder's counters again from its lines (after a batch of changes).
void folderRecount(TreeNode* node);

// Folder operations (folder_ops.cc). Each returns 1 when it did all it was
// asked, 0 when the user refused or a step failed (what was done stays).
// The names of the folders under name (and name itself with include_self),
// sorted; with no delimiter a folder has no subtree.
int folderGetSubtreeList(int ms, const char* name, char delimiter, int all, int include_self,
                         std::vector<std::string>* out);
// 1 when name is free in ms, or the user chose to append to it or to
// replace it (and it was deleted); an inbox is never replaced.
int folderResolveNameConflicts(int ms, const char* name);
int folderCopyTree(TreeNode* node, int target_ms, const char* target_name, char target_delimiter);
int folderMoveTree(TreeNode* node, int target_ms, const char* target_name, char target_delimiter);
int folderRenameTree(int ms, const char* old_name, char delimiter, const char* new_name);
int folderRename(TreeNode* node, const char* new_name);
int folderDeleteTree(TreeNode* node);
int folderDelete(TreeNode* node);  // asks first
int folderClose(TreeNode* node);   // asks first
int serviceClose(TreeNode* node);  // asks first
int serviceDelete(TreeNode* node);  // asks first
void doFolderDeleted(TreeNode* node);
void doFolderRenamed(TreeNode* node, const ModelEvent* ev);
// Folder.<ms>.<name>.* and MessageGroups.<ms>.<name>.* under the new name
// (not for "inbox"); and their deletion.
void folderMoveOptions(int old_ms, const char* old_name, int new_ms, const char* new_name);
void folderDeleteOptions(int ms, const char* name);

// --- Windows of their own ---------------------------------------------------------

// What a double click on a service or folder line does besides filling it:
// the organizer sets a function that shows the line in a window of its own
// (or raises the one that does). Without one the content stays in the tree.
typedef WINDOW (*MSG_NODE_WINDOW_FN)(TreeNode* node);
void MSG_SetNodeWindowOpener(MSG_NODE_WINDOW_FN fn);
MSG_NODE_WINDOW_FN MSG_NodeWindowOpener();

// --- Service nodes ---------------------------------------------------------------

TreeNode* serviceAdd(TreeNode* parent, int number);
int serviceAddFolders(TreeNode* node, int ms);
int serviceHandleNodeEvent(WINDOW win, TreeNode* node, int event);
void serviceDraw(WINDOW win, TreeNode* node, RCT* rect);
// Shows or hides the unsubscribed folders under a service or folder line
// (E_SHOW_UNSUBSCRIBED, E_HIDE_UNSUBSCRIBED), listing what is missing.
void MSG_ShowUnsubscribed(TreeNode* node, bool show);
// The text a line starts with for the tree's type-ahead
// (TREE_SetTextCallback): a service's name, a folder's display name, a
// group's name, a message's From.
bool MSG_LineText(TreeNode* node, char* buf, size_t size);
// Adds a node for every service of MsgService.IDList under root.
int serviceAddAll(TreeNode* root);

// --- Selections ------------------------------------------------------------------

// The UMIs of the selected message lines of the widget, in tree order.
std::vector<UMI> MSG_SelectedUmis(WINDOW tree);
// A flag set or cleared on the whole selection, one model call per folder.
int MSG_SetFlagOnSelection(WINDOW tree, const char* flag, bool set);
int MSG_CopySelection(WINDOW tree, int ms, const char* folder);
