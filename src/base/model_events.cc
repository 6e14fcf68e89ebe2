#include "src/base/model_events.h"

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "src/base/trace.h"

namespace {

struct Notifier {
  int id;
  MM_WANT_FN want;
  MM_HANDLE_FN handle;
  void* data;
  std::string name;
};

struct NotifierList {
  std::vector<Notifier> list;
  int next_id = 1;
  int nesting = 0;
};

// Created on first registration, so that the tracing notifier can register
// before the model starts; posts are delivered only once the model runs.
std::unique_ptr<NotifierList> g_list;
bool g_active = false;

void Purge() {
  auto& l = g_list->list;
  for (auto it = l.begin(); it != l.end();) {
    if (it->id == kDeadNotifier) {
      Trace(kTraceModel, kTraceAll, "MM_purgeNotifiers: removing notifier: id = %d, info = %lu\n", it->id,
            static_cast<unsigned long>(reinterpret_cast<uintptr_t>(it->data)));
      it = l.erase(it);
    } else {
      ++it;
    }
  }
}

}  // namespace

void MM_NotInit() {
  if (!g_list) g_list = std::make_unique<NotifierList>();
}

void MM_NotShutdown() {
  g_active = false;
  g_list.reset();
}

int MM_NotRegister(MM_WANT_FN want, MM_HANDLE_FN handle, void* data, const char* name) {
  MM_NotInit();
  if (!want || !handle || g_list->next_id >= kDeadNotifier) {
    Trace(kTraceModel, kTraceCritical, "MM_NotRegister: failed register notifier %d (%s).\n", g_list->next_id,
          name ? name : "");
    return -1;
  }
  int id = g_list->next_id++;
  g_list->list.push_back(Notifier{id, want, handle, data, name ? name : ""});
  return id;
}

void MM_NotUnregister(int id) {
  if (!g_list) return;
  for (Notifier& n : g_list->list)
    if (n.id == id) n.id = kDeadNotifier;
  if (g_list->nesting == 0) Purge();
}

void MM_NotEventPost(ModelEvent* event) {
  if (!g_active || !g_list || !event) return;
  NotifierList* list = g_list.get();
  ++list->nesting;
  // Handlers may register notifiers (the vector may grow) or unregister them
  // (only marked), so walk by index and re-read each entry.
  for (size_t i = 0; i < list->list.size(); ++i) {
    const Notifier& n = list->list[i];
    if (n.id >= kDeadNotifier) continue;
    MM_HANDLE_FN handle = n.handle;
    void* data = n.data;
    if (n.want(event, data)) handle(event, data);
    if (g_list.get() != list) return;  // the model was shut down by a handler
  }
  if (--list->nesting == 0) Purge();
}

ModelEvent* MM_NotEventNew(int type) {
  auto* ev = new ModelEvent;
  std::memset(ev, 0, sizeof *ev);
  ev->type = type;
  return ev;
}

void MM_NotEventFree(ModelEvent*& event) {
  delete event;
  event = nullptr;
}

void MM_NotPostSimple(int type, int ms) {
  ModelEvent* ev = MM_NotEventNew(type);
  ev->ms = static_cast<int16_t>(ms);
  MM_NotEventPost(ev);
  MM_NotEventFree(ev);
}

bool MM_NotActive() { return g_active && g_list; }
void MM_NotSetActive(bool active) { g_active = active; }

int MM_NotCount() {
  if (!g_list) return 0;
  int n = 0;
  for (const Notifier& x : g_list->list)
    if (x.id != kDeadNotifier) ++n;
  return n;
}
