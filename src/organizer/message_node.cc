// Message nodes: the draw record computed once per message, the texts of
// the columns, the sort orders and their comparisons, and what a message
// line does when clicked or drawn.
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <new>

#include "c-client/rfc822/mime_display.h"
#include "c-client/rfc822/rfc822.h"
#include "src/base/critical.h"
#include "src/base/fs.h"
#include "src/base/trace.h"
#include "src/options/options.h"
#include "src/organizer/node_draw.h"
#include "src/organizer/nodes.h"
#include "src/viewer/viewer.h"

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
  const int64_t x = M(a)->date_key, y = M(b)->date_key;
  if (x != y) return (x > y) == recent_first ? -1 : 1;
  return Later(M(a), M(b));
}
int CompareRecentDate(void* a, void* b) { return CompareDates(a, b, true); }
int CompareLeastRecentDate(void* a, void* b) { return CompareDates(a, b, false); }
int CompareFrom(void* a, void* b) {
  int k;
  if (KindOrder(a, b, &k)) return k;
  const std::string_view x = MSG_From(M(a)), y = MSG_From(M(b));
  if (x.empty() != y.empty()) return x.empty() ? 1 : -1;  // absent last
  if (int c = x.compare(y)) return c < 0 ? -1 : 1;
  return Later(M(a), M(b));
}
int CompareSubject(void* a, void* b) {
  int k;
  if (KindOrder(a, b, &k)) return k;
  const MessageNodeInfo *x = M(a), *y = M(b);
  const bool hx = x->bits & kMsgHasSubject, hy = y->bits & kMsgHasSubject;
  if (hx != hy) return hx ? -1 : 1;
  if (hx) {
    if (int c = strcasecmp(MSG_Subject(x).data() + x->subject_skip, MSG_Subject(y).data() + y->subject_skip))
      return c < 0 ? -1 : 1;
  }
  return Later(M(a), M(b));
}
// Conversations by their newest message, the newest first; inside one,
// in order of arrival.
int CompareConversation(void* a, void* b) {
  int k;
  if (KindOrder(a, b, &k)) return k;
  const int64_t x = M(a)->thread_key, y = M(b)->thread_key;
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

std::string SubjectKey(const MessageNodeInfo* m) {
  std::string s(MSG_Subject(m).substr(m->subject_skip));
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

namespace {

int64_t DateKeyOf(const DateFields& f) {
  if (f.year < 0 || f.month < 1 || f.month > 12 || f.day < 0) return kNoDate + 1;
  return DaysFromCivil(f.year, f.month, f.day) * 86400 + int64_t{f.hour < 0 ? 0 : f.hour} * 3600 +
         int64_t{f.minute < 0 ? 0 : f.minute} * 60 + (f.second < 0 ? 0 : f.second) - int64_t{f.zone_minutes} * 60;
}

}  // namespace

int64_t MSG_DateKey(const char* date) {
  if (!date || !*date) return kNoDate;
  DateFields f;
  parse_date_fields(date, &f);
  return DateKeyOf(f);
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

namespace {

// The date text's fields packed in 32 bits: year (12 bits), month (4; 0
// for one out of range, which prints as "xxx"), day (5), hour (5), minute
// (6). False when a field doesn't fit; the text is then stored whole.
bool PackDate(const DateFields& f, uint32_t* out) {
  const int month = f.month >= 1 && f.month <= 12 ? f.month : 0;
  if (f.year < 0 || f.year > 4095 || f.day < 0 || f.day > 31 || f.hour < 0 || f.hour > 31 || f.minute < 0 ||
      f.minute > 63)
    return false;
  *out = static_cast<uint32_t>(f.year) << 20 | static_cast<uint32_t>(month) << 16 |
         static_cast<uint32_t>(f.day) << 11 | static_cast<uint32_t>(f.hour) << 6 | static_cast<uint32_t>(f.minute);
  return true;
}

}  // namespace

std::string_view MSG_From(const MessageNodeInfo* m) { return {m->texts(), m->from_len}; }

std::string_view MSG_Subject(const MessageNodeInfo* m) {
  return {m->texts() + m->from_len + 1, m->subject_len};
}

std::string MSG_DateTextOf(const MessageNodeInfo* m) {
  if (!(m->bits & kMsgHasDate)) return "";
  if (m->bits & kMsgDateInline) return std::string(m->texts() + m->from_len + 1 + m->subject_len + 1, m->date_len);
  const uint32_t w = m->date_when;
  const int year = static_cast<int>(w >> 20 & 0xfff), month = static_cast<int>(w >> 16 & 0xf);
  const int day = static_cast<int>(w >> 11 & 0x1f), hour = static_cast<int>(w >> 6 & 0x1f);
  const int minute = static_cast<int>(w & 0x3f);
  char buf[64];
  std::snprintf(buf, sizeof buf, "%s %2d %2d:%02d %d", month ? kMonths[month - 1] : "xxx", day, hour, minute, year);
  return buf;
}

std::string MSG_SizeTextOf(const MessageNodeInfo* m) { return MSG_SizeText(m->size); }

namespace {

// Encoded words and 8-bit header bytes as UTF-8; plain ASCII (most lines)
// is taken as it is.
std::string ForDisplay(const std::string& raw) {
  for (unsigned char c : raw)
    if (c >= 0x80 || c == '=') return mime_display_text(raw.c_str());
  return raw;
}

}  // namespace

MessageNodeInfo* MSG_NewInfo(UMI umi, bool sent_folder) {
  Envelope* env = MM_MsgEnvelope(umi);
  // Nothing may point into the envelope once the record is being allocated:
  // running short there makes the model drop its envelopes. The texts are
  // copied into buffers kept between calls (no allocation per message).
  static std::string from, subject_text;
  from.clear();
  subject_text.clear();
  bool has_subject = false;
  std::string date_text;
  uint32_t when = 0;
  bool packed = false;
  int64_t date_key = kNoDate;
  if (env) {
    const MailAddress* who = sent_folder ? env->to : env->from;
    from.assign(sent_folder ? "To: " : "");
    from += ForDisplay(AddressText(who));
    if (env->subject) {
      has_subject = true;
      subject_text.assign(ForDisplay(env->subject));
    }
    if (env->date && *env->date) {
      DateFields f;
      parse_date_fields(env->date, &f);
      packed = PackDate(f, &when);
      if (!packed) date_text = MSG_DateText(env->date);
      date_key = DateKeyOf(f);  // the one parse serves the text and the key
    }
    env = nullptr;
  } else {
    from = "<Unknown>";
  }
  const size_t from_len = std::min<size_t>(from.size(), 0xffff);
  const char* subject = has_subject ? subject_text.c_str() : nullptr;
  const size_t subject_len = subject ? std::min<size_t>(std::strlen(subject), 0xffff) : 0;
  const size_t date_len = std::min<size_t>(date_text.size(), 0xff);
  const size_t bytes = sizeof(MessageNodeInfo) + from_len + 1 + subject_len + 1 + (date_len ? date_len + 1 : 0);
  // Through the free store, so that running short of memory here gives back
  // the reserve and tells every folder, and the load stops with what it read.
  void* block = fs_alloc(bytes);
  if (!block) return nullptr;
  auto* m = new (block) MessageNodeInfo;
  m->umi = umi;
  m->from_len = static_cast<uint16_t>(from_len);
  m->subject_len = static_cast<uint16_t>(subject_len);
  char* t = reinterpret_cast<char*>(m + 1);
  std::memcpy(t, from.data(), from_len);
  t[from_len] = '\0';
  t += from_len + 1;
  if (subject_len) std::memcpy(t, subject, subject_len);
  t[subject_len] = '\0';
  t += subject_len + 1;
  if (subject) {
    m->bits |= kMsgHasSubject;
    m->subject_skip = static_cast<uint8_t>(std::min<size_t>(MSG_SubjectSkip(subject), std::min<size_t>(subject_len, 255)));
  }
  if (packed) {
    m->bits |= kMsgHasDate;
    m->date_when = when;
  } else if (date_len) {
    m->bits |= kMsgHasDate | kMsgDateInline;
    m->date_len = static_cast<uint8_t>(date_len);
    std::memcpy(t, date_text.data(), date_len);
    t[date_len] = '\0';
  }
  m->date_key = date_key;
  const unsigned long size = MM_MsgSize(umi);
  m->size = static_cast<uint32_t>(std::min<unsigned long>(size, 0xffffffffu));
  m->flags = MSG_ReadFlags(umi);
  if (MSG_PriorityInfo()) m->priority = static_cast<int8_t>(MM_MsgPriority(umi));
  return m;
}

void MSG_FreeInfo(MessageNodeInfo* m) {
  if (!m) return;
  m->~MessageNodeInfo();
  fs_free(m);
}

void MSG_ConversationAdd(ConversationIndex* conv, MessageNodeInfo* info) {
  const UMI umi = info->umi;
  int64_t key = 0;
  // References is no envelope field, and on a server a header the envelope
  // lacks costs a round trip per message: there the envelope's Message-ID
  // and In-Reply-To (and the subject) link a conversation. A local folder
  // reads the headers from the file.
  const bool local = MM_MSGetType(MM_FolGetService(MM_UMIFolder(umi))) == kServiceLocal;
  std::string own;
  std::vector<std::string> parents;
  if (local) {
    // One read and one pass of the header block answer all three.
    const auto fields =
        MM_HeaderFieldContents(MM_MsgRawHeaders(umi).value_or(""), {"Message-ID", "References", "In-Reply-To"});
    own = fields[0].value_or("");
    parents = MessageIds(fields[1].value_or(""));
    for (const std::string& id : MessageIds(fields[2].value_or(""))) parents.push_back(id);
  } else if (const Envelope* env = MM_MsgEnvelope(umi)) {
    own = env->message_id ? env->message_id : "";
    parents = MessageIds(env->in_reply_to ? env->in_reply_to : "");
  }
  // The nearest known parent names the conversation; without one, a
  // conversation of the same subject.
  for (auto it = parents.rbegin(); it != parents.rend() && !key; ++it) {
    auto found = conv->by_id.find(*it);
    if (found != conv->by_id.end()) key = found->second;
  }
  const std::string subject = (info->bits & kMsgHasSubject) ? SubjectKey(info) : "";
  if (!key && !subject.empty()) {
    auto found = conv->by_subject.find(subject);
    if (found != conv->by_subject.end()) key = found->second;
  }
  if (!key) key = static_cast<int64_t>(umi & 0x7fffffffffffffffull);
  info->thread_key = key;
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
      newest[m->thread_key] = static_cast<int64_t>(m->umi & 0x7fffffffffffffffull);
    }
    for (MessageNodeInfo* m : by_arrival) m->thread_key = newest[m->thread_key];
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
  if (!info) info = MSG_NewInfo(umi);
  if (!info) return nullptr;
  TreeNode* node = TREE_NewNode(1, info, 21, messageDraw, messageHandleNodeEvent, messageWidth);
  if (!node) {
    Trace(kTraceOrganizer, kTraceCritical, "messageInsertFromSortedList: failed to created new message node.\n");
    MSG_FreeInfo(info);
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
      MSG_FreeInfo(info);
      TREE_SetData(node, nullptr);
      return kNodeActionOk;
    case kNodeEventDoubleClick:
      if (info) {
        Trace(kTraceOrganizer, kTraceLow, "messageHandleNodeEvent: open message %llu\n",
              static_cast<unsigned long long>(info->umi));
        spawnViewer(info->umi, messageContainer(node));
      }
      return kNodeActionOk;
    default: return kNodeActionOk;
  }
}

int MSG_IconOf(uint16_t flags) {
  const bool multi = flags & kMsgMultipart;
  if (flags & kMsgDraft) return kIconDraft;
  if (flags & kMsgRead) return multi ? kIconReadAttach : kIconRead;
  if (flags & kMsgRecent) return multi ? kIconRecentAttach : kIconRecent;
  return multi ? kIconUnreadAttach : kIconUnread;
}

namespace {

// The message icons, drawn: an envelope, filled while unread, blue while
// recent, crossed by a pen for a draft; a clip at its corner for an
// attachment.
void DrawIcon(WINDOW win, int x, int y, int icon, COLOR fore) {
  const bool unread = icon == kIconUnread || icon == kIconUnreadAttach || icon == kIconRecent ||
                      icon == kIconRecentAttach;
  const bool recent = icon == kIconRecent || icon == kIconRecentAttach;
  const bool attach = icon == kIconReadAttach || icon == kIconRecentAttach || icon == kIconUnreadAttach;
  const COLOR ink = recent && fore != COLOR_WHITE ? COLOR_BLUE : fore;
  MSG_DrawLineIcon(win, kLineIconMessage, x, y, ink, unread, fore == COLOR_WHITE ? kTreeHighlight : COLOR_WHITE);
  CPEN pen{1, PAT_SOLID, ink};
  xvt_dwin_set_pen(win, &pen);
  if (icon == kIconDraft) xvt_dwin_draw_line(win, PNT{x + 2, y + 14}, PNT{x + 16, y + 2});
  if (attach) {
    CBRUSH clip{PAT_SOLID, fore};
    xvt_dwin_set_brush(win, &clip);
    RCT corner{x + 13, y + 1, x + 17, y + 6};
    xvt_dwin_draw_rect(win, &corner);
  }
}

}  // namespace

int messageWidth(WINDOW win, TreeNode* node, RCT* rect) {
  // The selection box ends with the last column shown.
  return std::max(0, MSG_ColumnsRight(win, node, rect) - rect->left + 2);
}

void messageDraw(WINDOW win, TreeNode* node, RCT* rect) {
  const MessageNodeInfo* info = MSG_Info(node);
  if (!info) return;
  const int folder = MM_UMIFolder(info->umi);
  // A message whose folder lost its stream takes no more clicks.
  if (!MM_FolStreamValid(folder)) TREE_SetNodeEnabled(node, 0);
  const bool selected = TREE_IsSelected(node);
  const int slot = info->priority == kPriorityHigh  ? kSlotHighPriority
                   : info->priority == kPriorityLow ? kSlotLowPriority
                                                    : kSlotNormalPriority;
  xvt_dwin_set_font(win, MSG_SlotFont(slot));
  const COLOR fore = selected ? COLOR_WHITE : COLOR_BLACK;
  int x = 0, w = 0;
  if (MSG_ColumnPlace(win, node, rect, 0, &x, &w)) {
    DrawIcon(win, x, rect->top, MSG_IconOf(info->flags), fore);
    if (info->flags & kMsgDeleted) {
      // A red cross over the icon's 18-pixel box.
      CPEN red{1, PAT_SOLID, COLOR_RED};
      xvt_dwin_set_pen(win, &red);
      xvt_dwin_draw_line(win, PNT{x, rect->top}, PNT{x + 18, rect->top + 16});
      xvt_dwin_draw_line(win, PNT{x + 18, rect->top}, PNT{x, rect->top + 16});
    }
    // Answered and flagged: a small mark 22 pixels into the column.
    if (info->flags & (kMsgAnswered | kMsgFlagged)) {
      CPEN mark{1, PAT_SOLID, (info->flags & kMsgFlagged) ? COLOR_RED : fore};
      xvt_dwin_set_pen(win, &mark);
      CBRUSH fill{PAT_SOLID, (info->flags & kMsgFlagged) ? COLOR_RED : fore};
      xvt_dwin_set_brush(win, &fill);
      RCT dot{x + 22, rect->top + 5, x + 26, rect->top + 11};
      xvt_dwin_draw_rect(win, &dot);
    }
  }
  // With priorities shown the texts take the slot's colour.
  xvt_dwin_set_fore_color(win, selected ? COLOR_WHITE : MSG_PriorityInfo() ? MSG_SlotColor(slot) : COLOR_BLACK);
  const std::string_view from = MSG_From(info), subject = MSG_Subject(info);
  MSG_DrawColumnText(win, node, rect, 1, from.data(), static_cast<int>(from.size()));
  MSG_DrawColumnText(win, node, rect, 2, subject.data(), static_cast<int>(subject.size()));
  const std::string date = MSG_DateTextOf(info), size = MSG_SizeTextOf(info);
  MSG_DrawColumnText(win, node, rect, 3, date.data(), static_cast<int>(date.size()));
  MSG_DrawColumnText(win, node, rect, 4, size.data(), static_cast<int>(size.size()));
  if (MSG_ColumnPlace(win, node, rect, 5, &x, &w)) {
    const char* name = MM_FolGetName(folder);
    const char* friendly = name && *name ? MM_FolGetFriendlyName(MM_FolGetService(folder), name) : nullptr;
    if (friendly) MSG_DrawColumnText(win, node, rect, 5, friendly, -1);
  }
  xvt_dwin_set_fore_color(win, COLOR_BLACK);
}
