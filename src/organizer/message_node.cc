// Message nodes: the draw record computed once per message, the texts of
// the columns, the sort orders and their comparisons, and what a message
// line does when clicked or drawn.
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>

#include "c-client/rfc822/rfc822.h"
#include "src/base/critical.h"
#include "src/base/trace.h"
#include "src/options/options.h"
#include "src/organizer/nodes.h"

namespace {

const char* const kSortNames[kSortOrders] = {
    "Most Recent Arrival", "Least Recent Arrival", "Most Recent Date Sent", "Least Recent Date Sent",
    "From",                "Subject",              "Conversation",
};

const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// The text of an address as a line shows it.
std::string AddressText(const MailAddress* a) {
  if (!a) return "<Unknown>";
  if (a->personal && *a->personal) return a->personal;
  if (a->mailbox && *a->mailbox) {
    if (a->host && *a->host) return std::string(a->mailbox) + "@" + a->host;
    return a->mailbox;
  }
  return "<Unknown>";
}

int64_t DaysFromCivil(int64_t y, int64_t m, int64_t d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const int64_t yoe = y - era * 400;
  const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  return era * 146097 + yoe * 365 + yoe / 4 - yoe / 100 + doy - 719468;
}

const MessageNodeInfo* M(void* p) { return static_cast<const MessageNodeInfo*>(p); }

// Folders come before anything else; two records of other kinds tie.
bool KindOrder(void* a, void* b, int* out) {
  const int32_t ta = *static_cast<int32_t*>(a), tb = *static_cast<int32_t*>(b);
  if (ta == kNodeDataTypeMessage && tb == kNodeDataTypeMessage) return false;
  *out = ta == tb ? 0 : ta == kNodeDataTypeFolder ? -1 : tb == kNodeDataTypeFolder ? 1 : 0;
  return true;
}

// Equal keys: the later arrival first, as new mail lands.
int Later(const MessageNodeInfo* a, const MessageNodeInfo* b) { return a->umi > b->umi ? -1 : a->umi < b->umi ? 1 : 0; }

int CompareRecentArrival(void* a, void* b) {
  int k;
  if (KindOrder(a, b, &k)) return k;
  return Later(M(a), M(b));
}
int CompareLeastRecentArrival(void* a, void* b) {
  int k;
  if (KindOrder(a, b, &k)) return k;
  return -Later(M(a), M(b));
}
int CompareDates(void* a, void* b, bool recent_first) {
  int k;
  if (KindOrder(a, b, &k)) return k;
  const int64_t x = M(a)->rec.date_key, y = M(b)->rec.date_key;
  if (x != y) return (x > y) == recent_first ? -1 : 1;
  return Later(M(a), M(b));
}
int CompareRecentDate(void* a, void* b) { return CompareDates(a, b, true); }
int CompareLeastRecentDate(void* a, void* b) { return CompareDates(a, b, false); }
int CompareFrom(void* a, void* b) {
  int k;
  if (KindOrder(a, b, &k)) return k;
  const std::string &x = M(a)->rec.from_text, &y = M(b)->rec.from_text;
  if (x.empty() != y.empty()) return x.empty() ? 1 : -1;  // absent last
  if (int c = x.compare(y)) return c < 0 ? -1 : 1;
  return Later(M(a), M(b));
}
int CompareSubject(void* a, void* b) {
  int k;
  if (KindOrder(a, b, &k)) return k;
  const MessageDrawRec &x = M(a)->rec, &y = M(b)->rec;
  if (x.has_subject != y.has_subject) return x.has_subject ? -1 : 1;
  if (x.has_subject) {
    if (int c = strcasecmp(x.subject_text.c_str() + x.subject_skip, y.subject_text.c_str() + y.subject_skip))
      return c < 0 ? -1 : 1;
  }
  return Later(M(a), M(b));
}
// Conversations by their newest message, the newest first; inside one,
// in order of arrival.
int CompareConversation(void* a, void* b) {
  int k;
  if (KindOrder(a, b, &k)) return k;
  const int64_t x = M(a)->rec.thread_key, y = M(b)->rec.thread_key;
  if (x != y) return x > y ? -1 : 1;
  return -Later(M(a), M(b));
}

const TREE_COMPARE_FN kCompares[kSortOrders] = {
    CompareRecentArrival, CompareLeastRecentArrival, CompareRecentDate, CompareLeastRecentDate,
    CompareFrom,          CompareSubject,            CompareConversation,
};

// The message ids in a References or In-Reply-To text, in order.
std::vector<std::string> MessageIds(const std::string& text) {
  std::vector<std::string> out;
  size_t at = 0;
  while ((at = text.find('<', at)) != std::string::npos && out.size() < 100) {
    const size_t end = text.find('>', at);
    if (end == std::string::npos) break;
    out.push_back(text.substr(at, end - at + 1));
    at = end + 1;
  }
  return out;
}

std::string SubjectKey(const MessageDrawRec& rec) {
  std::string s = rec.subject_text.substr(rec.subject_skip);
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.pop_back();
  return s;
}

}  // namespace

const char* MSG_SortName(int order) { return order >= 0 && order < kSortOrders ? kSortNames[order] : kSortNames[0]; }

int MSG_SortOrderFromName(const char* name) {
  if (!name) return kSortRecentArrival;
  for (int i = 0; i < kSortOrders; ++i)
    if (strcasecmp(name, kSortNames[i]) == 0) return i;
  return kSortRecentArrival;
}

TREE_COMPARE_FN MSG_CompareFor(int order) { return kCompares[order >= 0 && order < kSortOrders ? order : 0]; }

std::string MSG_SizeText(unsigned long size) {
  char buf[32];
  // The megabyte form stands behind the kilobyte test and is never reached:
  // a 5 MB message reads "5000 K", as users of this client know it.
  if (size > 9999)
    std::snprintf(buf, sizeof buf, "%lu K", size / 1000);
  else if (size > 999999)
    std::snprintf(buf, sizeof buf, "%lu M", size / 1000000);
  else
    std::snprintf(buf, sizeof buf, "%lu", size);
  return buf;
}

int64_t MSG_DateKey(const char* date) {
  if (!date || !*date) return kNoDate;
  DateFields f;
  parse_date_fields(date, &f);
  if (f.year < 0 || f.month < 1 || f.month > 12 || f.day < 0) return kNoDate + 1;
  return DaysFromCivil(f.year, f.month, f.day) * 86400 + int64_t{f.hour < 0 ? 0 : f.hour} * 3600 +
         int64_t{f.minute < 0 ? 0 : f.minute} * 60 + (f.second < 0 ? 0 : f.second) - int64_t{f.zone_minutes} * 60;
}

std::string MSG_DateText(const char* date) {
  if (!date || !*date) return "";
  DateFields f;
  parse_date_fields(date, &f);
  char buf[64];
  std::snprintf(buf, sizeof buf, "%s %2d %2d:%02d %d", f.month >= 1 && f.month <= 12 ? kMonths[f.month - 1] : "xxx",
                f.day, f.hour, f.minute, f.year);
  return buf;
}

size_t MSG_SubjectSkip(const char* s) {
  if (!s) return 0;
  size_t i = 0;
  for (;;) {
    while (s[i] == ' ' || s[i] == '\t') ++i;
    if ((s[i] == 'R' || s[i] == 'r') && (s[i + 1] == 'E' || s[i + 1] == 'e') && s[i + 2] == ':')
      i += 3;
    else
      return i;
  }
}

int MSG_CompareSubjects(const char* a, const char* b) {
  if (!a || !b) return a ? -1 : b ? 1 : 0;
  const int c = strcasecmp(a + MSG_SubjectSkip(a), b + MSG_SubjectSkip(b));
  return c < 0 ? -1 : c > 0 ? 1 : 0;
}

uint16_t MSG_ReadFlags(UMI umi) {
  uint16_t f = 0;
  if (MM_MsgIsMultipart(umi)) f |= kMsgMultipart;
  if (MM_MsgIsDraft(umi)) f |= kMsgDraft;
  if (MM_MsgIsRead(umi)) f |= kMsgRead;
  if (MM_MsgIsAnswered(umi)) f |= kMsgAnswered;
  if (MM_MsgIsFlagged(umi)) f |= kMsgFlagged;
  if (MM_MsgIsDeleted(umi)) f |= kMsgDeleted;
  if (MM_MsgIsRecent(umi)) f |= kMsgRecent;
  return f;
}

void drawRecInit(UMI umi, MessageDrawRec* rec, bool sent_folder) {
  *rec = MessageDrawRec{};
  Envelope* env = MM_MsgEnvelope(umi);
  if (env) {
    const MailAddress* who = sent_folder ? env->to : env->from;
    rec->from_text = std::string(sent_folder ? "To: " : "") + AddressText(who);
    if (env->subject) {
      rec->has_subject = true;
      rec->subject_text = env->subject;
      rec->subject_skip = static_cast<uint8_t>(std::min<size_t>(MSG_SubjectSkip(env->subject), 255));
    }
    rec->date_text = MSG_DateText(env->date);
    rec->date_key = MSG_DateKey(env->date);
  } else {
    rec->from_text = "<Unknown>";
    rec->date_key = kNoDate;
  }
  rec->size_text = MSG_SizeText(MM_MsgSize(umi));
  rec->flags = MSG_ReadFlags(umi);
  short priority_info = 0;
  if (Opt_LookupBoolean("General.PriorityHeader.Info", &priority_info, kOptSession) && priority_info)
    rec->priority = static_cast<int8_t>(MM_MsgPriority(umi));
}

void MSG_ConversationAdd(ConversationIndex* conv, MessageNodeInfo* info) {
  const UMI umi = info->umi;
  int64_t key = 0;
  const std::string own = MM_MsgHeaderContent(umi, "Message-ID").value_or("");
  std::vector<std::string> parents = MessageIds(MM_MsgHeaderContent(umi, "References").value_or(""));
  for (const std::string& id : MessageIds(MM_MsgHeaderContent(umi, "In-Reply-To").value_or("")))
    parents.push_back(id);
  // The nearest known parent names the conversation; without one, a
  // conversation of the same subject.
  for (auto it = parents.rbegin(); it != parents.rend() && !key; ++it) {
    auto found = conv->by_id.find(*it);
    if (found != conv->by_id.end()) key = found->second;
  }
  const std::string subject = info->rec.has_subject ? SubjectKey(info->rec) : "";
  if (!key && !subject.empty()) {
    auto found = conv->by_subject.find(subject);
    if (found != conv->by_subject.end()) key = found->second;
  }
  if (!key) key = static_cast<int64_t>(umi & 0x7fffffffffffffffull);
  info->rec.thread_key = key;
  if (!own.empty()) conv->by_id.emplace(own, key);
  // Replies that name a parent we never saw still join one another.
  for (const std::string& id : parents) conv->by_id.emplace(id, key);
  if (!subject.empty()) conv->by_subject.emplace(subject, key);
}

void MSG_SortRecords(std::vector<MessageNodeInfo*>* records, int order, ConversationIndex* conv) {
  if (order == kSortConversation) {
    // Keys from the oldest arrival on, so that each conversation is named
    // by its first message; then every member takes the conversation's
    // newest arrival as its place.
    std::vector<MessageNodeInfo*> by_arrival(*records);
    std::sort(by_arrival.begin(), by_arrival.end(),
              [](const MessageNodeInfo* a, const MessageNodeInfo* b) { return a->umi < b->umi; });
    ConversationIndex local;
    ConversationIndex* c = conv ? conv : &local;
    std::unordered_map<int64_t, int64_t> newest;
    for (MessageNodeInfo* m : by_arrival) {
      MSG_ConversationAdd(c, m);
      newest[m->rec.thread_key] = static_cast<int64_t>(m->umi & 0x7fffffffffffffffull);
    }
    for (MessageNodeInfo* m : by_arrival) m->rec.thread_key = newest[m->rec.thread_key];
    // The index hands new mail the place its conversation has now.
    for (auto* map : {&c->by_id, &c->by_subject})
      for (auto& [text, key] : *map) {
        auto it = newest.find(key);
        if (it != newest.end()) key = it->second;
      }
  }
  TREE_COMPARE_FN compare = MSG_CompareFor(order);
  std::sort(records->begin(), records->end(),
            [compare](MessageNodeInfo* a, MessageNodeInfo* b) { return compare(a, b) < 0; });
}

void MSG_ResortKids(TreeNode* parent, int order) {
  if (!parent) return;
  if (order == kSortConversation) {
    std::vector<MessageNodeInfo*> records;
    for (TreeNode* k = TREE_GetFirstKid(parent); k; k = TREE_GetNext(k))
      if (MessageNodeInfo* m = MSG_Info(k)) records.push_back(m);
    ConversationIndex* conv = nullptr;
    for (TreeNode* p = parent; p && !conv; p = TREE_GetParent(p))
      if (FolderNodeInfo* f = FOL_Info(p)) conv = &f->conv;
    if (conv) *conv = ConversationIndex{};
    MSG_SortRecords(&records, order, conv);  // computes the keys
  }
  TREE_ResortTree(parent, MSG_CompareFor(order));
}

// --- The node ------------------------------------------------------------------

MessageNodeInfo* MSG_Info(const TreeNode* node) {
  return TREE_GetDataType(node) == kNodeDataTypeMessage ? static_cast<MessageNodeInfo*>(TREE_GetData(node)) : nullptr;
}

TreeNode* messageCreateNode(UMI umi, MessageNodeInfo* info) {
  if (!info) {
    info = new MessageNodeInfo;
    info->umi = umi;
    drawRecInit(umi, &info->rec);
  }
  TreeNode* node = TREE_NewNode(1, info, 21, messageDraw, messageHandleNodeEvent, messageWidth);
  if (!node) {
    Trace(kTraceOrganizer, kTraceCritical, "messageInsertFromSortedList: failed to created new message node.\n");
    delete info;
  }
  return node;
}

TreeNode* messageContainer(TreeNode* node) {
  for (TreeNode* p = TREE_GetParent(node); p; p = TREE_GetParent(p)) {
    const int t = TREE_GetDataType(p);
    if (t == kNodeDataTypeFolder || t == kNodeDataTypeSearch) return p;
    // A context window's root stands for its origin.
    if (!TREE_GetParent(p) && TREE_GetOriginNode(p)) return p;
  }
  return nullptr;
}

int messageHandleNodeEvent(WINDOW, TreeNode* node, int event) {
  MessageNodeInfo* info = MSG_Info(node);
  switch (event) {
    case kNodeEventDestroy:
      delete info;
      TREE_SetData(node, nullptr);
      return kNodeActionOk;
    case kNodeEventDoubleClick:
      // The viewer and the composer open from here once they exist; the
      // message is read in one critical section either way.
      if (info) {
        WIN_start_critical();
        Trace(kTraceOrganizer, kTraceLow, "messageHandleNodeEvent: open message %llu\n",
              static_cast<unsigned long long>(info->umi));
        WIN_end_critical();
      }
      return kNodeActionOk;
    default: return kNodeActionOk;
  }
}

int messageWidth(WINDOW, TreeNode*, RCT*) { return 600; }

void messageDraw(WINDOW win, TreeNode* node, RCT* rect) {
  const MessageNodeInfo* info = MSG_Info(node);
  if (!info) return;
  const MessageDrawRec& r = info->rec;
  // A message whose folder lost its stream takes no more clicks.
  if (!MM_FolStreamValid(MM_UMIFolder(info->umi))) TREE_SetNodeEnabled(node, 0);
  const int x = rect->left, y = rect->top;
  const COLOR fore = TREE_IsSelected(node) ? COLOR_WHITE : COLOR_BLACK;
  xvt_dwin_set_fore_color(win, fore);
  // Column 0: the icon, a box whose look tells draft, read, recent.
  RCT box{x + 1, y + 1, x + 17, y + 15};
  CPEN pen{1, PAT_SOLID, fore};
  xvt_dwin_set_pen(win, &pen);
  CBRUSH brush{(r.flags & (kMsgRead | kMsgDraft)) ? PAT_HOLLOW : PAT_SOLID, fore};
  xvt_dwin_set_brush(win, &brush);
  xvt_dwin_draw_rect(win, &box);
  if (r.flags & kMsgDeleted) {
    CPEN red{1, PAT_SOLID, COLOR_RED};
    xvt_dwin_set_pen(win, &red);
    xvt_dwin_draw_line(win, PNT{x, y}, PNT{x + 18, y + 16});
    xvt_dwin_draw_line(win, PNT{x + 18, y}, PNT{x, y + 16});
  }
  if (r.flags & (kMsgAnswered | kMsgFlagged))
    xvt_dwin_draw_text(win, x + 22, y + 12, (r.flags & kMsgFlagged) ? "!" : "<", 1);
  const int base = y + 12;
  const int places[] = {32, 200, 420, 540};
  const std::string* texts[] = {&r.from_text, &r.subject_text, &r.date_text, &r.size_text};
  for (int i = 0; i < 4; ++i)
    if (!texts[i]->empty()) xvt_dwin_draw_text(win, x + places[i], base, texts[i]->c_str(), -1);
  xvt_dwin_set_fore_color(win, COLOR_BLACK);
}
