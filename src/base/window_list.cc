#include <algorithm>
#include <vector>

#include "src/base/window_list.h"

namespace {

std::vector<WINDOW>& Windows() {
  static std::vector<WINDOW> list;
  return list;
}
std::vector<WINDOW>& DndWindows() {
  static std::vector<WINDOW> list;
  return list;
}
std::vector<DM_LISTENER>* g_listeners = nullptr;

void AddHead(std::vector<WINDOW>& list, WINDOW win) {
  if (!win) return;
  list.erase(std::remove(list.begin(), list.end(), win), list.end());
  list.insert(list.begin(), win);
}

void Remove(std::vector<WINDOW>& list, WINDOW win) { list.erase(std::remove(list.begin(), list.end(), win), list.end()); }

}  // namespace

void WinList_AddHead(WINDOW win) { AddHead(Windows(), win); }
void WinList_Remove(WINDOW win) { Remove(Windows(), win); }
WINDOW WinList_Head() { return Windows().empty() ? NULL_WIN : Windows().front(); }
void WinList_Clear() { Windows().clear(); }

void DndList_AddHead(WINDOW win) { AddHead(DndWindows(), win); }
void DndList_Remove(WINDOW win) { Remove(DndWindows(), win); }
WINDOW DndList_Head() { return DndWindows().empty() ? NULL_WIN : DndWindows().front(); }
void DndList_Clear() { DndWindows().clear(); }

void DM_InitListeners() {
  delete g_listeners;
  g_listeners = new std::vector<DM_LISTENER>;
}
void DM_RegisterListener(DM_LISTENER listener) {
  if (g_listeners && listener) g_listeners->push_back(listener);
}
void DM_FreeListeners() {
  delete g_listeners;
  g_listeners = nullptr;
}
int DM_ListenerCount() { return g_listeners ? static_cast<int>(g_listeners->size()) : 0; }

void DM_CentreOnScreen(WINDOW win) {
  RCT screen{}, r{};
  xvt_vobj_get_client_rect(SCREEN_WIN, &screen);
  xvt_vobj_get_outer_rect(win, &r);
  const int w = r.right - r.left, h = r.bottom - r.top;
  const int left = screen.left + (screen.right - screen.left - w) / 2;
  const int top = screen.top + (screen.bottom - screen.top - h) / 2;
  const RCT centred{left, top, left + w, top + h};
  xvt_vobj_move(win, &centred);
}
