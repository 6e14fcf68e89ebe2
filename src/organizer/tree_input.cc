// The tree widget's input: the window's event handler, the mouse sequence
// (press, release, double click, move, drag threshold) and its decisions,
// and the keyboard, type-ahead included.
#include <chrono>
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "src/base/model_events.h"
#include "src/base/trace.h"
#include "src/organizer/tree.h"
#include "src/organizer/tree_internal.h"

using namespace tree;

namespace {

constexpr int kDragBox = 10;  // the pointer must leave this box before a drag starts
constexpr int kKeyPadMinus = 373;
constexpr int kKeyPadPlus = 374;

int64_t NowMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

TreeNode* NodeAtPoint(TreeInfo* info, PNT where, int* index) {
  TreeCache& c = info->cache;
  int line = getline(info, where);
  *index = line < 0 || c.topline < 0 ? -1 : c.topline + line;
  if (*index < 0 || *index >= c.entries) return nullptr;
  return c.nodes[static_cast<size_t>(*index)];
}

int Along(const TreeInfo* info, PNT p) { return info->horizontal ? p.v : p.h; }

void handleMouseClick(TreeInfo* info, TreeNode* node, EVENT* ev, bool dbl) {
  if (Has(node, kNodeDisabled)) return;
  int edge = node->abs_offset + info->margin - info->cache.h_offset;
  if (Along(info, ev->v.mouse.where) >= edge) {
    TREE_SelectOnlyNode(node);
    if (node->action && info->actions_enabled) RunAction(info, node, dbl ? kNodeEventDoubleClick : kNodeEventClick);
    return;
  }
  // Left of the text: the triangle or the box.
  if (!info->actions_enabled) return;
  info->actions_enabled = false;
  TREE_SuspendUpdates(info->window);
  if (info->style == 1) {
    if (node->action) {
      node->action(info->window, node, kNodeEventExpanding);
      ReportSelection(info);
      MarkDirty(node);
    }
  } else if (!Has(node, kNodeLeaf)) {
    bool was_selected = Has(node, kNodeSelected);
    bool closing = Has(node, kNodeOpen);
    if (closing) TREE_RemoveNodeSelections(node);
    if (!was_selected) {
      if (info->sel_count == 0) TREE_SelectOnlyNode(node);
    } else {
      TREE_SelectNode(node, 1);
    }
    info->actions_enabled = true;  // opening asks the node's action
    TREE_OpenSubtree(node, !closing, 0);
  }
  info->actions_enabled = true;
  TREE_ResumeUpdates(info->window);
}

void handleMouseDown(TreeInfo* info, EVENT* ev, bool dbl) {
  info->mouse = TreeMouse{};
  int index = -1;
  TreeNode* node = NodeAtPoint(info, ev->v.mouse.where, &index);
  if (index < 0 || index >= info->cache.entries) {
    TREE_ClearSelections(info->window);
    processUpdates(info);
    return;
  }
  if (!node) {
    Trace(kTraceTree, kTraceLow, "handleMouseDown : node at index = %d is NULL\n", index);
    return;
  }
  if (ev->v.mouse.button == 1) {
    if (!Has(node, kNodeSelected)) TREE_SelectOnlyNode(node);
    if (node->action && info->actions_enabled) {
      RunAction(info, node, kNodeEventPopup);
      ReportSelection(info);
    }
    return;
  }
  if (Has(node, kNodeDisabled)) return;
  info->mouse.index = index;
  info->mouse.shift = ev->v.mouse.shift;
  info->mouse.ctrl = ev->v.mouse.control;
  info->mouse.was_selected = Has(node, kNodeSelected);
  if (dbl) {
    handleMouseClick(info, node, ev, true);
    return;
  }
  // A press on a selected line decides at release, so that dragging a
  // multiple selection keeps it.
  if (info->mouse.was_selected) return;
  if (info->mouse.ctrl)
    handleCtrlClick(info, node);
  else if (info->mouse.shift)
    handleShiftClick(info, node);
  else
    handleMouseClick(info, node, ev, false);
}

void handleMouseUp(TreeInfo* info, EVENT* ev) {
  TreeCache& c = info->cache;
  int index = info->mouse.index;
  if (index < 0 || !info->mouse.was_selected || index >= c.entries) return;
  TreeNode* node = c.nodes[static_cast<size_t>(index)];
  if (!node) return;
  if (info->mouse.ctrl)
    handleCtrlClick(info, node);
  else if (info->mouse.shift)
    handleShiftClick(info, node);
  else
    handleMouseClick(info, node, ev, false);
}

void handleDragAndDrop(TreeInfo* info, EVENT* ev) {
  static bool scrolling = false;  // auto-scroll must not nest
  PNT p = ev->v.mouse.where;
  switch (ev->type) {
    case E_MOUSE_DOWN: {
      int index = -1;
      TreeNode* node = NodeAtPoint(info, p, &index);
      if (!node || Along(info, p) < node->abs_offset + info->margin - info->cache.h_offset) return;
      info->dragging = info->drag_started = true;
      info->drag_ctrl = ev->v.mouse.control;
      info->drag = TreeDrag{p, false};
      xvt_win_trap_pointer(info->window);
      break;
    }
    case E_MOUSE_MOVE: {
      if (!info->dragging) return;
      if (!info->drag.has_object) {
        if (std::abs(p.h - info->drag.start.h) <= kDragBox / 2 && std::abs(p.v - info->drag.start.v) <= kDragBox / 2)
          return;
        if (!info->drag_callback || !info->drag_callback(info->window, info, p)) {
          info->dragging = false;
          return;
        }
        info->drag.has_object = true;
      }
      if (scrolling) return;
      scrolling = true;
      int along = Along(info, p);
      if (along < 0) scrollUp(info, 1);
      if (along > info->cache.visible_lines * info->line_height) scrollDown(info, 1);
      scrolling = false;
      break;
    }
    case E_MOUSE_UP:
      xvt_win_release_pointer();
      info->dragging = info->drag_ctrl = false;
      info->drag.has_object = false;
      break;
    default: break;
  }
}

// Type-ahead: the next line whose text begins with what was typed.
bool TypeAhead(TreeInfo* info, int ch) {
  if (!info->text_callback || ch < 0x20 || ch > 0x7E) return false;
  int64_t now = NowMs();
  if (now - info->typed_at_ms > info->type_ahead_timeout_ms) info->typed_len = 0;
  info->typed_at_ms = now;
  if (info->typed_len + 1 >= static_cast<int>(sizeof info->typed)) return true;
  info->typed[info->typed_len++] = static_cast<char>(ch);
  info->typed[info->typed_len] = '\0';
  TreeNode* first = TREE_FirstKid(info->root);
  TreeNode* cur = info->cache.current_selection;
  if (cur && !TREE_IsVisibleNode(cur)) cur = nullptr;
  // A longer prefix may still match the current line; a first letter moves on.
  TreeNode* start = cur ? (info->typed_len > 1 ? cur : TREE_NextNode(cur)) : first;
  if (!start) start = first;
  char text[256];
  for (int pass = 0; pass < 2; ++pass) {
    TreeNode* stop = pass == 0 ? nullptr : start;
    for (TreeNode* n = pass == 0 ? start : first; n && n != stop; n = TREE_NextNode(n)) {
      if (!info->text_callback(n, text, sizeof text)) continue;
      if (strncasecmp(text, info->typed, static_cast<size_t>(info->typed_len)) == 0) {
        TREE_SelectOnlyNode(n);
        TREE_ShowNodeOnDisplay(n);
        return true;
      }
    }
  }
  return true;
}

}  // namespace

namespace tree {

void handleMouseEvent(TreeInfo* info, EVENT* ev) {
  if (ev->v.mouse.button == 2) return;
  info->last_point = ev->v.mouse.where;
  switch (ev->type) {
    case E_MOUSE_DOWN:
      info->typed_len = 0;
      if (info->dragging) {
        xvt_win_release_pointer();
        return;
      }
      info->mouse_down = true;
      info->double_click_seen = false;
      handleMouseDown(info, ev, false);
      if (info->drag_enabled && ev->v.mouse.button != 1) handleDragAndDrop(info, ev);
      break;
    case E_MOUSE_UP:
      if (info->double_click_seen) {
        info->double_click_seen = info->mouse_down = false;
        return;
      }
      if (info->mouse_down) {
        info->mouse_down = false;
        if (!info->drag.has_object) {
          if (info->dragging) {
            xvt_win_release_pointer();
            info->dragging = info->drag_ctrl = false;
          }
          handleMouseUp(info, ev);
        } else {
          handleDragAndDrop(info, ev);
        }
      } else {
        handleDragAndDrop(info, ev);
      }
      break;
    case E_MOUSE_MOVE:
      info->double_click_seen = false;
      if (info->drag_enabled && info->mouse_down) handleDragAndDrop(info, ev);
      break;
    case E_MOUSE_DBL:
      if (info->dragging) {
        xvt_win_release_pointer();
        return;
      }
      info->double_click_seen = true;
      info->mouse_down = true;
      handleMouseDown(info, ev, true);
      break;
    default: break;
  }
}

void handleKeyboardEvent(TreeInfo* info, EVENT* ev) {
  static bool busy = false;  // a node action may run the event loop
  if (busy) return;
  busy = true;
  WINDOW win = info->window;
  TreeCache& c = info->cache;
  c.new_top = c.top_node;
  int ch = ev->v.chr.ch;
  int shift = ev->v.chr.shift ? 1 : 0;
  bool has = c.current_selection != nullptr;
  bool typed = false;
  // A typed letter beyond Latin-1 may share its number with a key code; it
  // goes to the type-ahead, never to the keys.
  switch (ev->v.chr.text && ch > 255 ? -1 : ch) {
    case K_DOWN: has ? TREE_SelectNextNode(win, shift) : TREE_SetInitSelection(win); break;
    case K_UP: has ? TREE_SelectPrevNode(win, shift) : TREE_SetInitSelection(win); break;
    case K_RIGHT: has ? TREE_GoRight(win, shift) : TREE_SetInitSelection(win); break;
    case K_LEFT: has ? TREE_GoLeft(win, shift) : TREE_SetInitSelection(win); break;
    case K_PREV: pageUp(info, 1, shift); break;
    case K_NEXT: pageDown(info, 1, shift); break;
    case K_LHOME: TREE_DisplayTop(win, shift); break;
    case K_LEND: TREE_DisplayBottom(win, shift); break;
    case K_HOME: treeTop(info, shift); break;
    case K_END: treeBottom(info, shift); break;
    case K_ENTER:
      if (TreeNode* n = c.current_selection) {
        if (info->actions_enabled) RunAction(info, n, kNodeEventDoubleClick);
        ReportSelection(info);
      }
      break;
    case '+':
    case kKeyPadPlus:
      if (info->sel_last) TREE_OpenSubtree(info->sel_last, 1, 0);
      break;
    case '-':
    case kKeyPadMinus:
      // Shift-Tab shares the keypad minus's code here; only a bare one closes.
      if (ch == kKeyPadMinus && shift) {
        xvt_win_dispatch_event(xvt_vobj_get_parent(win), ev);
        break;
      }
      if (info->sel_last) TREE_OpenSubtree(info->sel_last, 0, 0);
      break;
    default:
      if (ev->v.chr.control && (ch == 'a' || ch == 'A')) {
        TREE_SelectAll(win);
      } else if (!ev->v.chr.control && TypeAhead(info, ch)) {
        typed = true;
      } else {
        WINDOW parent = xvt_vobj_get_parent(win);
        if (parent) xvt_win_dispatch_event(parent, ev);
      }
      break;
  }
  if (!typed) info->typed_len = 0;
  busy = false;
}

long tree_eh(WINDOW win, EVENT* ev) {
  TreeInfo* info = ev->type == E_CREATE ? reinterpret_cast<TreeInfo*>(xvt_vobj_get_data(win)) : TREE_GetInfo(win);
  if (!info) return 0;
  switch (ev->type) {
    case E_CREATE: info->window = win; break;
    case E_DESTROY: {
      info->suspended = true;
      freeTree(win, info->root);
      if (info->notifier >= 0) MM_NotUnregister(info->notifier);
      xvt_vobj_set_data(win, 0);
      info->kind = 0;
      delete info;
      break;
    }
    case E_UPDATE: handleUpdateEvent(info, ev->v.update.rct); break;
    case E_SIZE:
      if (!info->suspended) handleResizeEvent(info);
      break;
    case E_MOUSE_DOWN:
    case E_MOUSE_UP:
    case E_MOUSE_MOVE:
    case E_MOUSE_DBL: handleMouseEvent(info, ev); break;
    case E_CHAR: handleKeyboardEvent(info, ev); break;
    case E_VSCROLL:
    case E_HSCROLL: handleScrollEvent(info, ev); break;
    default: break;
  }
  return 0;
}

}  // namespace tree
