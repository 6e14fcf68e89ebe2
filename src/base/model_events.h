// Model events: one synchronous broadcast to registered notifiers, each a
// want/handle pair, called in the order of registration.
#pragma once

#include <cstdint>

enum ModelEventType {
  E_DELETED_FLAG_SET = 0,
  E_DELETED_FLAG_CLEARED = 1,
  E_SEEN_FLAG_SET = 2,
  E_SEEN_FLAG_CLEARED = 3,
  E_FLAGGED_FLAG_SET = 4,
  E_FLAGGED_FLAG_CLEARED = 5,
  E_ANSWERED_FLAG_SET = 6,
  E_ANSWERED_FLAG_CLEARED = 7,
  E_DRAFT_FLAG_SET = 8,
  E_DRAFT_FLAG_CLEARED = 9,
  E_MSG_EXPUNGED = 10,
  E_SHADOW_RELEASED = 11,
  E_ABANDON_SHIP = 12,
  E_SHIP_SUNK = 13,
  E_MS_NEW = 14,
  E_MS_REOPEN = 15,
  E_MS_CLOSED = 16,
  E_MS_DESTROYED = 18,
  E_MS_NAME_CHANGED = 19,
  E_MS_CHANGED = 20,
  E_MS_WIN_CLOSING = 21,
  E_NEWFOLDER = 22,
  E_FOLDER_CLOSED = 23,
  E_FOLDER_INVALID = 24,
  E_FOLDER_EXPUNGED = 25,
  E_FOLDER_DELETED = 26,
  E_FOLDER_RENAMED = 27,
  E_FOLDER_SUBSCRIBED = 29,
  E_FOLDER_UNSUBSCRIBED = 30,
  E_FOL_WIN_CLOSING = 31,
  E_FOLDER_STREAM_DIED = 32,
  E_SHOW_UNSUBSCRIBED = 33,
  E_HIDE_UNSUBSCRIBED = 34,
  E_SHOW_MSGGRPS = 35,
  E_HIDE_MSGGRPS = 36,
  E_SHOW_EMPTY_MSGGRPS = 37,
  E_HIDE_EMPTY_MSGGRPS = 38,
  E_GROUP_NEW = 39,
  E_GROUP_CHANGED = 40,
  E_GROUP_SHOWN = 41,
  E_GROUP_HIDDEN = 42,
  E_SAVE_DESKTOP = 43,
  E_VIEW_NEXT = 44,
  E_VIEW_PREVIOUS = 45,
  E_VIEW_POSITION_QUERY = 46,
  E_VIEW_POSITION = 47,
  E_NEW_MESSAGES = 48,
  E_PASTE_ADDRESSES = 49,
  E_BOOK_REGISTER = 50,
  E_ABK_ORGANIZER_CLOSED = 51,
  E_BOOK_CLOSED = 52,
  E_BOOK_DELETED = 54,
  E_BOOK_CREATED = 55,
  E_BOOK_WIN_CLOSING = 56,
  E_BOOK_CHANGED = 58,
  E_ENTRY_SAVED = 59,
  E_ENTRY_DELETED = 60,
  E_ENTRY_RENAMED = 61,
  E_OPTION_CHANGED = 62,
  E_REBUILD_CLOSED = 63,
  E_MAIL_TIMER = 66,
  E_CHECK_NOW = 67,
  E_FONT_CHANGED = 68,
  E_COMPOSE_OPENED = 69,
  E_COMPOSE_CLOSED = 70,
  E_MAIL_TIMER_CHANGED = 71,
  E_COLUMNS_VISIBLE = 72,
  E_LOW_MEMORY = 74,
  E_SEARCH_NEW = 75,
  E_SEARCH_CLOSED = 76,
  E_SEARCH_CLOSING = E_SEARCH_CLOSED,  // asks the search's node to put its contents away
  E_SEARCH_DELETED = 77,
  E_SEARCH_RENAMED = 78,
  E_SEARCH_WIN_CLOSING = 79,
  E_SEARCH_CHANGED = 80,
  E_BOOK_SEARCH_NEW = 81,
  E_BOOK_SEARCH_CLOSED = 82,
  E_BOOK_SEARCH_DELETED = 83,
  E_BOOK_SEARCH_CHANGED = 84,
  E_BOOK_WIN_SEARCH = 85,
  E_BOOK_SEARCH_RENAMED = 86,
  E_MS_ONLINE = 87,
  E_MS_OFFLINE = 88,
  E_EXIT_QUERY = 89,
  E_DROP_FILES = 90,
  E_DROP_MESSAGES = 91,
  // Around a run of many model changes (the outbox sent in the foreground):
  // views hold their redraws from the first and redraw once at the second.
  E_BATCH_BEGIN = 92,
  E_BATCH_END = 93,
};

// Pointers are borrowed: valid only during the post.
struct ModelEvent {
  int32_t type;
  int16_t from_ms, to_ms;
  const char* old_name;
  const char* new_name;
  uint64_t umi;  // a UMI of the mail model
  int16_t ms;
  int16_t folder;
  const char* name;
  void* entry;
  const char* option;
  // With E_OPTION_CHANGED: the option's value as callers read it (session
  // level), so that listeners below the option store need not ask it.
  const char* option_value;
  int32_t value;
  void* list;
  int32_t target;
  int32_t kind;
  int16_t search;
};

typedef int (*MM_WANT_FN)(ModelEvent* event, void* data);
typedef void (*MM_HANDLE_FN)(ModelEvent* event, void* data);

constexpr int kDeadNotifier = 65535;

void MM_NotInit();
void MM_NotShutdown();
// Returns the notifier's id, or -1.
int MM_NotRegister(MM_WANT_FN want, MM_HANDLE_FN handle, void* data, const char* name);
// Marks only; the record goes after the outermost post. Safe in a handler.
void MM_NotUnregister(int id);
void MM_NotEventPost(ModelEvent* event);
ModelEvent* MM_NotEventNew(int type);
void MM_NotEventFree(ModelEvent*& event);
// Posts an event of this type with only the ms field set (most posts).
void MM_NotPostSimple(int type, int ms = 0);
// Whether posts are delivered: the model has started and the list exists.
bool MM_NotActive();
void MM_NotSetActive(bool active);
int MM_NotCount();  // live notifiers, for tests
