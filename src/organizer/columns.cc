// The column manager: layouts and columns as plain geometry, border
// grabbing and resizing, moving columns, the header strip's window, and the
// message windows' layouts kept in the options.
#include "src/organizer/columns.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "src/base/trace.h"
#include "src/options/options.h"

namespace {

CM_LAYOUT* Layout(CM_INFO* info, int id) {
  if (!info) return nullptr;
  for (CM_LAYOUT& l : info->layouts)
    if (l.id == id) return &l;
  return nullptr;
}

CM_COLUMN* Column(CM_LAYOUT* l, int id) {
  if (!l || id == kCMNone) return nullptr;
  for (CM_COLUMN& c : l->columns)
    if (c.id == id) return &c;
  return nullptr;
}

// The columns in display order.
std::vector<CM_COLUMN*> Chain(CM_LAYOUT* l) {
  std::vector<CM_COLUMN*> out;
  for (CM_COLUMN* c = Column(l, l->first); c && out.size() <= l->columns.size(); c = Column(l, c->next))
    out.push_back(c);
  return out;
}

CM_COLUMN* NextVisible(CM_LAYOUT* l, CM_COLUMN* c) {
  for (CM_COLUMN* n = Column(l, c->next); n; n = Column(l, n->next))
    if (n->visible) return n;
  return nullptr;
}

CM_COLUMN* PrevVisible(CM_LAYOUT* l, CM_COLUMN* c) {
  for (CM_COLUMN* p = Column(l, c->prev); p; p = Column(l, p->prev))
    if (p->visible) return p;
  return nullptr;
}

void Unchain(CM_LAYOUT* l, CM_COLUMN* c) {
  if (CM_COLUMN* p = Column(l, c->prev))
    p->next = c->next;
  else
    l->first = c->next;
  if (CM_COLUMN* n = Column(l, c->next)) n->prev = c->prev;
  c->next = c->prev = kCMNone;
}

void ChainBefore(CM_LAYOUT* l, CM_COLUMN* c, CM_COLUMN* before) {
  if (!before) {
    std::vector<CM_COLUMN*> chain = Chain(l);
    CM_COLUMN* last = chain.empty() ? nullptr : chain.back();
    c->prev = last ? last->id : kCMNone;
    c->next = kCMNone;
    if (last)
      last->next = c->id;
    else
      l->first = c->id;
    return;
  }
  c->next = before->id;
  c->prev = before->prev;
  if (CM_COLUMN* p = Column(l, before->prev))
    p->next = c->id;
  else
    l->first = c->id;
  before->prev = c->id;
}

void Changed(CM_INFO* info, int layout) {
  if (info->suspend > 0) {
    info->pending = true;
    return;
  }
  CM_Update(info, layout);
}

// ---------------------------------------------------------------------------
// The strip's window

constexpr int kStripText = 12;  // baseline below the strip's top

// Where the mark of a drop before `before` stands: that column's start, or
// the end of the last visible column.
int DropEdge(CM_LAYOUT* l, int before) {
  if (CM_COLUMN* b = Column(l, before)) return b->offset;
  int end = 0;
  for (CM_COLUMN* c : Chain(l))
    if (c->visible) end = c->offset + c->size;
  return end;
}

long cm_eh(WINDOW win, EVENT* ev) {
  auto* info = reinterpret_cast<CM_INFO*>(xvt_vobj_get_data(win));
  if (!info) return 0;
  int origin = info->offset - info->user_offset;
  switch (ev->type) {
    case E_UPDATE: {
      RCT client{};
      xvt_vobj_get_client_rect(win, &client);
      CBRUSH back{PAT_SOLID, COLOR_LTGRAY};
      CPEN none{0, PAT_HOLLOW, COLOR_LTGRAY};
      xvt_dwin_set_brush(win, &back);
      xvt_dwin_set_pen(win, &none);
      xvt_dwin_draw_rect(win, &client);
      CM_LAYOUT* l = info->visible ? Layout(info, info->current) : nullptr;
      if (!l) break;
      xvt_dwin_set_fore_color(win, COLOR_BLACK);
      xvt_dwin_set_back_color(win, COLOR_LTGRAY);
      for (CM_COLUMN* c : Chain(l)) {
        if (!c->visible || c->size <= 0) continue;
        RCT box{origin + c->offset, 0, origin + c->offset + c->size, client.bottom};
        xvt_dwin_draw_3d_rect(win, &box, true);
        if (c->titled) xvt_dwin_draw_text(win, box.left + 4, kStripText, c->name.c_str(), -1);
      }
      // While a title is dragged, a bar marks where it would land.
      if (info->moving) {
        int before = CM_ColumnDropBefore(info, l->id, info->move_column, info->move_at - origin);
        if (before >= 0) {
          int x = origin + DropEdge(l, before);
          CBRUSH mark{PAT_SOLID, COLOR_BLACK};
          xvt_dwin_set_brush(win, &mark);
          RCT bar{x - 1, 0, x + 2, client.bottom};
          xvt_dwin_draw_rect(win, &bar);
        }
      }
      break;
    }
    case E_MOUSE_DOWN: {
      if (ev->v.mouse.button != 0) break;
      int column = kCMNone;
      int x = ev->v.mouse.where.h;
      int border = CM_ColumnCloseToBorder(info, x, &column);
      if (border != kCMBorderNone) {
        info->drag_column = column;
        info->drag_border = border;
      } else if ((column = CM_ColumnAtPoint(info, x)) != kCMNone) {
        info->move_column = column;
        info->move_press = info->move_at = x;
        info->moving = false;
      } else {
        break;
      }
      xvt_win_trap_pointer(win);
      break;
    }
    case E_MOUSE_MOVE:
      if (info->drag_column != kCMNone) xvt_win_set_cursor(win, CURSOR_CROSS);
      if (info->move_column != kCMNone) {
        info->move_at = ev->v.mouse.where.h;
        if (!info->moving && std::abs(info->move_at - info->move_press) > kCMMoveSlop) {
          info->moving = true;
          xvt_win_set_cursor(win, CURSOR_HAND);
        }
        if (info->moving) xvt_dwin_invalidate_rect(win, nullptr);
      }
      break;
    case E_MOUSE_UP: {
      if (info->move_column != kCMNone) {
        xvt_win_release_pointer();
        xvt_win_set_cursor(win, CURSOR_ARROW);
        int column = info->move_column;
        bool moved = info->moving;
        info->move_column = kCMNone;
        info->moving = false;
        // A click on a title without a drag changes nothing.
        int before = moved ? CM_ColumnDropBefore(info, info->current, column, ev->v.mouse.where.h - origin) : -1;
        if (before >= 0)
          CM_ColumnMoveSelected(info, info->current, column, before);
        else if (moved)
          CM_ForceUpdate(info);  // the mark goes
        break;
      }
      if (info->drag_column == kCMNone) break;
      xvt_win_release_pointer();
      xvt_win_set_cursor(win, CURSOR_ARROW);
      int column = info->drag_column, border = info->drag_border;
      info->drag_column = kCMNone;
      info->drag_border = kCMBorderNone;
      CM_ColumnResizeOnBorder(info, info->current, column, border, std::max(ev->v.mouse.where.h - origin, 0));
      break;
    }
    case E_DESTROY: xvt_vobj_set_data(win, 0); break;
    default: break;
  }
  return 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// The strip

CM_INFO* CM_Create(WINDOW parent, const RCT* rect, int window_kind) {
  Trace(kTraceOrganizer, kTraceAll, "CM_Create: function entry.");
  auto info = std::make_unique<CM_INFO>();
  info->kind = window_kind;
  if (parent) {
    RCT r = rect ? *rect : RCT{0, 0, 400, 18};
    info->window = xvt_win_create(W_PLAIN, &r, "columns", 0, parent, WSF_NONE, EM_ALL, cm_eh,
                                  reinterpret_cast<intptr_t>(info.get()));
    if (!info->window) return nullptr;
  }
  return info.release();
}

void CM_Destroy(CM_INFO*& info) {
  if (!info) return;
  CM_ManagerWindowDestroy(info);
  if (info->window) xvt_vobj_destroy(info->window);
  delete info;
  info = nullptr;
}

void CM_Resize(CM_INFO* info, const RCT* rect) {
  if (info && info->window && rect) xvt_vobj_move(info->window, rect);
}

void CM_SetVisible(CM_INFO* info, bool visible) {
  if (!info) return;
  info->visible = visible;
  if (info->window) xvt_vobj_set_visible(info->window, visible);
}

void CM_SetUserColumnOffset(CM_INFO* info, int offset) {
  if (!info || info->user_offset == offset) return;
  info->user_offset = offset;
  CM_ForceUpdate(info);
}

RCT* CM_GetDisplayRectangle(CM_INFO* info, RCT* rect) {
  if (!info || !rect || !info->window) return nullptr;
  return xvt_vobj_get_outer_rect(info->window, rect);
}

void CM_DisplayRemove(CM_INFO* info) {
  if (!info) return;
  info->current = kCMNone;
  CM_ForceUpdate(info);
}

// ---------------------------------------------------------------------------
// Layouts

int CM_LayoutAdd(CM_INFO* info, const char* name, CM_RESIZE_FN resize) {
  if (!info || !name || !CM_LayoutTagValid(info, name) || info->layouts.size() >= kCMMaxLayouts) return 0;
  int id = 1;
  for (const CM_LAYOUT& l : info->layouts) id = std::max(id, l.id + 1);
  CM_LAYOUT l;
  l.id = id;
  l.name = name;
  l.resize = resize;
  info->layouts.push_back(std::move(l));
  return id;
}

int CM_LayoutDelete(CM_INFO* info, int layout) {
  if (!Layout(info, layout)) return 0;
  info->layouts.erase(std::remove_if(info->layouts.begin(), info->layouts.end(),
                                     [layout](const CM_LAYOUT& l) { return l.id == layout; }),
                      info->layouts.end());
  if (info->current == layout) CM_DisplayRemove(info);
  return 1;
}

int CM_LayoutSelect(CM_INFO* info, int layout, int offset) {
  if (!info) return 0;
  if (!Layout(info, layout)) layout = kCMNone;  // a layout the window lacks blanks the strip
  if (info->current == layout && info->offset == offset) return layout != kCMNone;
  info->current = layout;
  info->offset = offset;
  CM_ForceUpdate(info);
  return layout != kCMNone;
}

const char* CM_LayoutGetNameTag(CM_INFO* info, int layout) {
  CM_LAYOUT* l = Layout(info, layout);
  return l ? l->name.c_str() : nullptr;
}

int CM_LayoutSetNameTag(CM_INFO* info, int layout, const char* name) {
  CM_LAYOUT* l = Layout(info, layout);
  if (!l || !name || !CM_LayoutTagValid(info, name)) return 0;
  l->name = name;
  return 1;
}

int CM_LayoutGetNumColumn(CM_INFO* info, int layout) {
  CM_LAYOUT* l = Layout(info, layout);
  return l ? static_cast<int>(l->columns.size()) : 0;
}

bool CM_LayoutTagValid(CM_INFO* info, const char* name) {
  if (!info || !name || !*name) return false;
  for (const CM_LAYOUT& l : info->layouts)
    if (l.name == name) return false;
  return true;
}

// ---------------------------------------------------------------------------
// Columns

int CM_ColumnGetNewId(CM_INFO* info, int layout) {
  CM_LAYOUT* l = Layout(info, layout);
  if (!l) return 0;
  int id = 1;
  for (const CM_COLUMN& c : l->columns) id = std::max(id, c.id + 1);
  return id;
}

bool CM_ColumnTagValid(CM_INFO* info, int layout, const char* name) {
  CM_LAYOUT* l = Layout(info, layout);
  if (!l || !name || !*name) return false;
  for (const CM_COLUMN& c : l->columns)
    if (c.name == name) return false;
  return true;
}

int CM_ColumnAdd(CM_INFO* info, int layout, const char* name, int size, int offset, bool visible) {
  CM_LAYOUT* l = Layout(info, layout);
  if (!l || !CM_ColumnTagValid(info, layout, name) || l->columns.size() >= kCMMaxColumns) return 0;
  CM_COLUMN c;
  c.id = CM_ColumnGetNewId(info, layout);
  c.name = name;
  c.size = std::max(size, 0);
  c.offset = std::max(offset, 0);
  c.visible = visible;
  l->columns.push_back(c);
  ChainBefore(l, &l->columns.back(), nullptr);
  return c.id;
}

int CM_ColumnDelete(CM_INFO* info, int layout, int column) {
  CM_LAYOUT* l = Layout(info, layout);
  CM_COLUMN* c = Column(l, column);
  if (!c) return 0;
  Unchain(l, c);
  l->columns.erase(std::remove_if(l->columns.begin(), l->columns.end(),
                                  [column](const CM_COLUMN& x) { return x.id == column; }),
                   l->columns.end());
  CM_ColumnCalcOffsets(info, layout);
  Changed(info, layout);
  return 1;
}

int CM_ColumnGetColumnByN(CM_INFO* info, int layout, int n) {
  CM_LAYOUT* l = Layout(info, layout);
  if (!l || n < 0) return kCMNone;
  std::vector<CM_COLUMN*> chain = Chain(l);
  return n < static_cast<int>(chain.size()) ? chain[static_cast<size_t>(n)]->id : kCMNone;
}

const char* CM_ColumnGetNameTag(CM_INFO* info, int layout, int column) {
  CM_COLUMN* c = Column(Layout(info, layout), column);
  return c ? c->name.c_str() : nullptr;
}

int CM_ColumnSetNameTag(CM_INFO* info, int layout, int column, const char* name) {
  CM_COLUMN* c = Column(Layout(info, layout), column);
  if (!c || !CM_ColumnTagValid(info, layout, name)) return 0;
  c->name = name;
  return 1;
}

int CM_ColumnGetSize(CM_INFO* info, int layout, int column) {
  CM_COLUMN* c = Column(Layout(info, layout), column);
  return c ? c->size : 0;
}

int CM_ColumnSetSize(CM_INFO* info, int layout, int column, int size) {
  CM_COLUMN* c = Column(Layout(info, layout), column);
  if (!c) return 0;
  c->size = std::max(size, 0);
  CM_ColumnShift(info, layout, column);
  Changed(info, layout);
  return 1;
}

bool CM_ColumnIsVisible(CM_INFO* info, int layout, int column) {
  CM_COLUMN* c = Column(Layout(info, layout), column);
  return c && c->visible;
}

int CM_ColumnSetVisible(CM_INFO* info, int layout, int column, bool visible) {
  CM_COLUMN* c = Column(Layout(info, layout), column);
  if (!c) return 0;
  c->visible = visible;
  CM_ColumnCalcOffsets(info, layout);
  Changed(info, layout);
  return 1;
}

int CM_ColumnGetDimension(CM_INFO* info, int layout, int column, int* offset, int* size) {
  CM_COLUMN* c = Column(Layout(info, layout), column);
  if (!c || !c->visible) return 1;
  if (offset) *offset = c->offset;
  if (size) *size = c->size;
  return 0;
}

void CM_ColumnCalcOffsets(CM_INFO* info, int layout) {
  CM_LAYOUT* l = Layout(info, layout);
  if (!l) return;
  std::vector<CM_COLUMN*> chain = Chain(l);
  size_t i = 0;
  while (i < chain.size() && !chain[i]->visible) ++i;
  if (i == chain.size()) {
    for (CM_COLUMN* c : chain) c->offset = 0;
    return;
  }
  int x = chain[i]->offset;
  // A hidden column before the first visible one doesn't lie beyond it.
  for (size_t k = 0; k < i; ++k)
    if (chain[k]->offset > x) chain[k]->offset = x;
  for (size_t k = i; k < chain.size(); ++k) {
    chain[k]->offset = x;
    if (chain[k]->visible) x += chain[k]->size;
  }
}

int CM_ColumnCloseToBorder(CM_INFO* info, int x, int* column) {
  CM_LAYOUT* l = Layout(info, info ? info->current : kCMNone);
  if (column) *column = kCMNone;
  if (!l || l->columns.empty()) return kCMBorderNone;
  int at = x - (info->offset - info->user_offset);
  for (CM_COLUMN* c : Chain(l)) {
    if (!c->visible || at < c->offset || at >= c->offset + c->size) continue;
    int border = at < c->offset + kCMBorderReach ? kCMBorderLeft
                 : at > c->offset + c->size - kCMBorderReach ? kCMBorderRight
                                                              : kCMBorderNone;
    if (border != kCMBorderNone && column) *column = c->id;
    return border;
  }
  return kCMBorderNone;
}

void CM_ColumnSetLeftInvisible(CM_INFO* info, int layout, int column, int p) {
  CM_LAYOUT* l = Layout(info, layout);
  // Columns dragged over from the right now begin beyond the border: they go.
  for (CM_COLUMN* c = Column(l, column); c; c = Column(l, c->prev)) {
    if (c->visible && c->offset >= p) c->visible = false;
    if (c->offset < p) break;
  }
}

void CM_ColumnForceUpdate(CM_INFO* info, int layout, int) { Changed(info, layout); }

void CM_ColumnShift(CM_INFO* info, int layout, int column) {
  CM_LAYOUT* l = Layout(info, layout);
  CM_COLUMN* c = Column(l, column);
  if (!c) return;
  int x = c->offset + (c->visible ? c->size : 0);
  for (CM_COLUMN* n = Column(l, c->next); n; n = Column(l, n->next)) {
    n->offset = x;
    if (n->visible) x += n->size;
  }
}

void CM_ColumnResizeOnBorder(CM_INFO* info, int layout, int column, int border, int p) {
  CM_LAYOUT* l = Layout(info, layout);
  CM_COLUMN* col = Column(l, column);
  if (!col) return;
  CM_SuspendUpdate(info);
  CM_COLUMN *left = nullptr, *right = nullptr;
  bool leftward = false;
  if (border == kCMBorderRight) {
    if (p <= col->offset + col->size) {
      if (!NextVisible(l, col)) CM_ColumnForceUpdate(info, layout, column);
      CM_ColumnSetLeftInvisible(info, layout, column, p);
      left = col->visible ? col : PrevVisible(l, col);
      leftward = true;
    } else {
      left = col;
      right = NextVisible(l, col);
    }
  } else {
    if (p <= col->offset) {
      right = col;
      if (Column(l, col->prev)) CM_ColumnSetLeftInvisible(info, layout, col->prev, p);
      left = PrevVisible(l, col);
      leftward = true;
    } else {
      left = PrevVisible(l, col);
      if (!left) CM_ColumnForceUpdate(info, layout, column);
      right = col->visible ? col : NextVisible(l, col);
    }
  }
  if (left) {
    left->size = std::max(p - left->offset, 0);
    if (leftward) p = left->offset + left->size;
  }
  if (right) right->offset = p;
  if (left || right) CM_ColumnShift(info, layout, (left ? left : right)->id);
  info->pending = true;
  for (CM_COLUMN& c : l->columns) MSG_CM_SaveColumn(info, layout, c.id);
  CM_ResumeUpdate(info);
}

int CM_ColumnMoveSelected(CM_INFO* info, int layout, int column, int before) {
  CM_LAYOUT* l = Layout(info, layout);
  CM_COLUMN* c = Column(l, column);
  if (!c || column == before) return 0;
  CM_COLUMN* b = Column(l, before);
  if (before != kCMNone && !b) return 0;
  // The first column stays where its own visible neighbour began.
  int start = 0;
  std::vector<CM_COLUMN*> chain = Chain(l);
  if (!chain.empty()) start = chain.front()->offset;
  Unchain(l, c);
  ChainBefore(l, c, b);
  Chain(l).front()->offset = start;
  CM_ColumnCalcOffsets(info, layout);
  for (CM_COLUMN& x : l->columns) MSG_CM_SaveColumn(info, layout, x.id);
  Changed(info, layout);
  return 1;
}

int CM_ColumnAtPoint(CM_INFO* info, int x) {
  CM_LAYOUT* l = Layout(info, info ? info->current : kCMNone);
  if (!l) return kCMNone;
  int at = x - (info->offset - info->user_offset);
  for (CM_COLUMN* c : Chain(l))
    if (c->visible && at >= c->offset && at < c->offset + c->size) return c->id;
  return kCMNone;
}

int CM_ColumnDropBefore(CM_INFO* info, int layout, int column, int p) {
  CM_LAYOUT* l = Layout(info, layout);
  CM_COLUMN* c = Column(l, column);
  if (!c) return -1;
  std::vector<CM_COLUMN*> shown;
  for (CM_COLUMN* x : Chain(l))
    if (x->visible) shown.push_back(x);
  if (shown.empty()) return -1;
  // Left of everything: before the first column; beyond the last visible
  // one: to the end. Over a column, the nearer of its two edges.
  int before = kCMNone;
  if (p < shown.front()->offset) {
    before = l->first;
  } else {
    for (CM_COLUMN* x : shown)
      if (p < x->offset + x->size) {
        before = p < x->offset + x->size / 2 ? x->id : x->next;
        break;
      }
  }
  // Before itself or before the column that follows it: it stays put.
  if (before == column || before == c->next) return -1;
  return before;
}

// ---------------------------------------------------------------------------
// Updates

void CM_SuspendUpdate(CM_INFO* info) {
  if (info) info->suspend++;
}

void CM_ResumeUpdate(CM_INFO* info) {
  if (!info || --info->suspend > 0) return;
  info->suspend = 0;
  if (info->pending) {
    info->pending = false;
    for (CM_LAYOUT& l : info->layouts) CM_Update(info, l.id);
  }
}

void CM_ForceUpdate(CM_INFO* info) {
  if (info && info->window) xvt_dwin_invalidate_rect(info->window, nullptr);
}

void CM_Update(CM_INFO* info, int layout) {
  CM_LAYOUT* l = Layout(info, layout);
  if (!l) return;
  if (l->resize) l->resize(info, layout);
  if (layout == info->current) CM_ForceUpdate(info);
}

// ---------------------------------------------------------------------------
// The message windows' layouts

namespace {

struct DefaultColumn {
  const char* name;
  int size;  // -1: the width of "READ_ONLY"
};
struct DefaultLayout {
  int index;
  const char* name;
  std::vector<DefaultColumn> columns;
};

const std::vector<DefaultLayout>& Defaults() {
  static const std::vector<DefaultLayout> table = {
      {kCMLayoutMsgService, "MsgService", {{"Icon", 32}, {"Name", 170}}},
      {kCMLayoutFolder, "Folder", {{"Icon", 22}, {"Name", 150}, {"Count", 150}, {"RO", -1}}},
      {kCMLayoutSearch, "Search", {{"Icon", 22}, {"Name", 150}, {"Count", 150}}},
      {kCMLayoutGroup, "Group", {{"Icon", 28}, {"Name", 170}, {"Count", 170}}},
      {kCMLayoutMessage, "Message",
       {{"Icon", 27}, {"From", 150}, {"Subject", 200}, {"Date", 120}, {"Size", 50}, {"Folder", 170}}},
      {kCMLayoutSearchMessage, "SearchMessage",
       {{"Icon", 27}, {"From", 150}, {"Subject", 200}, {"Date", 120}, {"Size", 50}, {"Folder", 170}}},
  };
  return table;
}

// The layouts of each window kind, in the order they are made.
std::vector<int> LayoutsOf(int kind) {
  switch (kind) {
    case kCMWindowTop: return {1, 3, 2, 4, 5, 6};
    case kCMWindowService: return {3, 2, 4, 5, 6};
    case kCMWindowFolder: return {2, 4, 5};
    case kCMWindowSearch: return {4, 6};
    default: return {};
  }
}

const char* KindWord(int kind) {
  switch (kind) {
    case kCMWindowTop: return "topms";
    case kCMWindowService: return "msgservice";
    case kCMWindowFolder: return "folder";
    case kCMWindowSearch: return "search";
    default: return nullptr;
  }
}

int ReadInt(const std::string& name, int* out) { return !name.empty() && Opt_LookupInt(name.c_str(), out, kOptSession); }

void ResizeCallback(CM_INFO* info, int layout) { MSG_CM_LayoutResize(info, layout); }

}  // namespace

std::string MSG_CM_OptionName(int window_kind, const char* layout, const char* column, const char* attr) {
  const char* word = KindWord(window_kind);
  if (!word || !layout || !column || !attr) return "";
  return std::string("desktop.colman.") + word + "." + layout + "." + column + "." + attr;
}

void MSG_CM_SaveColumn(CM_INFO* info, int layout, int column) {
  CM_LAYOUT* l = Layout(info, layout);
  CM_COLUMN* c = Column(l, column);
  if (!c || !Opt_Ready()) return;
  auto name = [&](const char* attr) { return MSG_CM_OptionName(info->kind, l->name.c_str(), c->name.c_str(), attr); };
  std::string v = name("visible");
  if (v.empty()) return;
  Opt_AssignBoolean(v.c_str(), c->visible, kOptSession, 0);
  Opt_AssignString(name("offset").c_str(), std::to_string(c->offset).c_str(), kOptSession, 0);
  Opt_AssignString(name("size").c_str(), std::to_string(c->size).c_str(), kOptSession, 0);
}

void MSG_CM_LayoutCreate(CM_INFO* info) {
  if (!info) return;
  int ro = info->window ? xvt_dwin_get_text_width(info->window, "READ_ONLY", -1) : 8 * 9;
  CM_SuspendUpdate(info);
  for (int index : LayoutsOf(info->kind)) {
    const DefaultLayout* d = nullptr;
    for (const DefaultLayout& x : Defaults())
      if (x.index == index) d = &x;
    if (!d) continue;
    int layout = CM_LayoutAdd(info, d->name, ResizeCallback);
    if (!layout) continue;
    int prev_offset = 0, prev_size = 0;
    bool first = true;
    for (const DefaultColumn& dc : d->columns) {
      std::string key = MSG_CM_OptionName(info->kind, d->name, dc.name, "");
      key.pop_back();  // the trailing "."
      int size = dc.size < 0 ? ro : dc.size;
      int stored = 0;
      if (ReadInt(key + ".size", &stored) && stored >= 0) size = stored;
      int offset = first ? 0 : prev_offset + prev_size;
      if (ReadInt(key + ".offset", &stored) && stored >= 0) offset = stored;  // a negative one counts as absent
      short vis = 1;
      if (Opt_Ready()) Opt_LookupBoolean((key + ".visible").c_str(), &vis, kOptSession);
      int id = CM_ColumnAdd(info, layout, dc.name, size, offset, vis != 0);
      if (id && first) Column(Layout(info, layout), id)->titled = false;  // the icon column
      if (id) MSG_CM_SaveColumn(info, layout, id);  // the defaults are written too
      prev_offset = offset;
      prev_size = vis ? size : 0;
      first = false;
    }
  }
  info->pending = false;
  CM_ResumeUpdate(info);
}

void MSG_CM_LayoutDestroy(CM_INFO* info) {
  if (info) info->layouts.clear();
}

void MSG_CM_LayoutResize(CM_INFO* info, int layout) {
  if (!info || !info->tree) return;
  // Every visible line of the layout's kind is drawn again with the new geometry.
  const char* name = CM_LayoutGetNameTag(info, layout);
  for (const DefaultLayout& d : Defaults())
    if (name && d.name == std::string(name)) {
      int type = d.index == kCMLayoutMsgService ? kNodeDataTypeMsgService
                 : d.index == kCMLayoutFolder   ? kNodeDataTypeFolder
                 : d.index == kCMLayoutSearch   ? kNodeDataTypeSearch
                 : d.index == kCMLayoutGroup    ? kNodeDataTypeGroup
                                                : kNodeDataTypeMessage;
      TREE_UpdateNode(info->tree, type);
    }
  RCT r{};
  xvt_vobj_get_outer_rect(info->tree, &r);
  EVENT ev{};
  ev.type = E_SIZE;
  ev.v.size.width = r.right - r.left;
  ev.v.size.height = r.bottom - r.top;
  xvt_win_dispatch_event(info->tree, &ev);
}

int MSG_CM_LayoutOf(const TreeNode* node) {
  switch (TREE_GetDataType(node)) {
    case kNodeDataTypeMsgService: return kCMLayoutMsgService;
    case kNodeDataTypeFolder: return kCMLayoutFolder;
    case kNodeDataTypeSearch: return kCMLayoutSearch;
    case kNodeDataTypeGroup: return kCMLayoutGroup;
    case kNodeDataTypeMessage:
      // A message lies under a folder or under a search.
      for (const TreeNode* p = TREE_GetParent(node); p; p = TREE_GetParent(p)) {
        int t = TREE_GetDataType(p);
        if (t == kNodeDataTypeSearch) return kCMLayoutSearchMessage;
        if (t == kNodeDataTypeFolder) return kCMLayoutMessage;
        if (const TreeNode* origin = TREE_GetOriginNode(p)) {
          int o = TREE_GetDataType(origin);
          if (o == kNodeDataTypeSearch) return kCMLayoutSearchMessage;
          if (o == kNodeDataTypeFolder) return kCMLayoutMessage;
        }
      }
      return kCMLayoutNone;
    default: return kCMLayoutNone;
  }
}

int MSG_CM_LayoutId(CM_INFO* info, int index) {
  if (!info) return kCMNone;
  for (const DefaultLayout& d : Defaults())
    if (d.index == index)
      for (const CM_LAYOUT& l : info->layouts)
        if (l.name == d.name) return l.id;
  return kCMNone;
}

void MSG_CM_LayoutSelect(CM_INFO* info, WINDOW tree) {
  if (!info) return;
  TreeNode* first = TREE_FirstSelection(tree);
  if (!first) {
    CM_DisplayRemove(info);
    return;
  }
  CM_LayoutSelect(info, MSG_CM_LayoutId(info, MSG_CM_LayoutOf(first)), TREE_GetLineStart(tree, first));
}
