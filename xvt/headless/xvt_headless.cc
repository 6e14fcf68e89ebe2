// The headless backend: windows are records, events are dispatched at once,
// drawing is recorded, questions take scripted answers and timers run on a
// virtual clock. See xvt_test.h.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "xvt/common/bmp.h"
#include "xvt/common/strfmt.h"
#include "xvt/xvt.h"
#include "xvt/xvt_test.h"

const char* xvt_res_icon_path(int rid);

namespace {

constexpr int kCharWidth = 8;
constexpr int kAscent = 12;
constexpr int kDescent = 4;

struct MenuState {
  std::string title;
  bool enabled = true;
  bool checked = false;
};

struct ScrollBar {
  int min = 0, max = 100, pos = 0, proportion = 0;
  bool visible = true, enabled = true;
};

}  // namespace

struct xvt_object {
  WIN_TYPE type = W_NONE;
  xvt_object* parent = nullptr;
  std::vector<xvt_object*> children;
  std::string title;
  RCT rect{};  // outer rectangle, relative to the parent (screen for top level)
  intptr_t data = 0;
  bool visible = true, enabled = true;
  EVENT_HANDLER eh = nullptr;
  int id = 0;
  unsigned long flags = 0;
  bool maximized = false, minimized = false;
  bool destroying = false;
  std::map<int, MenuState> menu;  // by tag, for windows with a menu bar
  // Controls.
  bool checked = false;
  std::vector<std::string> items;
  std::vector<bool> selected;
  ScrollBar sbar[2];
  // Drawing state and records.
  COLOR fore = COLOR_BLACK, back = COLOR_WHITE;
  std::string font = "system 16 0";
  std::vector<XvtDrawOp> display;
  std::vector<RCT> invalid;
  CURSOR cursor = CURSOR_ARROW;
};

struct xvt_image {
  xvtbmp::Image image;
};

namespace {

struct Answer {
  enum Kind { kAsk, kDialog, kText } kind = kAsk;
  ASK_RESPONSE response = RESP_DEFAULT;
  int rid = 0;
  std::function<void(WINDOW)> fn;
  bool has_text = false;
  std::string text;
};

struct Timer {
  WINDOW win;
  long period;
  long due;
};

struct State {
  bool running = false;
  bool destroyed = false;
  bool quit_allowed = false;
  xvt_object* task = nullptr;
  xvt_object* screen = nullptr;
  xvt_object* mdi = nullptr;
  EVENT_HANDLER task_eh = nullptr;
  std::vector<xvt_object*> objects;  // live objects in creation order
  std::set<xvt_object*> live;
  xvt_object* focus = nullptr;
  xvt_object* trapped = nullptr;
  CURSOR cursor = CURSOR_ARROW;
  std::deque<std::pair<WINDOW, EVENT>> queue;
  std::map<long, Timer> timers;
  long next_timer = 1;
  long now = 0;
  std::deque<Answer> answers;
  std::vector<XvtPost> posts;
  std::function<void()> run_hook;
  std::function<void(const XvtPost&)> unexpected;
  std::function<void(const std::string&)> fatal;
  XVT_ERRMSG_HANDLER errmsg = nullptr;
  XVT_NATIVE_HOOK native = nullptr;
  int screen_w = 1280, screen_h = 1024;
  std::string help;
  bool progress_open = false;
  xvt_object* progress = nullptr;
  bool progress_cancel = false;
  std::map<long, std::pair<int, std::pair<XVT_FD_CALLBACK, void*>>> watches;
  long next_watch = 1;
  int toolbar_height = 42;
};

State& S() {
  static State s;
  return s;
}

bool Live(WINDOW w) { return w && S().live.count(w) != 0; }


void Unexpected(const XvtPost& post) {
  if (S().unexpected) {
    S().unexpected(post);
    return;
  }
  std::fprintf(stderr, "xvt headless: unexpected %s: %s\n", post.kind.c_str(), post.text.c_str());
  std::abort();
}

void Record(const std::string& kind, const std::string& text, std::vector<std::string> buttons = {}, int rid = 0) {
  XvtPost p;
  p.kind = kind;
  p.text = text;
  p.buttons = std::move(buttons);
  p.rid = rid;
  S().posts.push_back(std::move(p));
}

long Send(xvt_object* w, EVENT* ev) {
  if (!Live(w) || !w->eh) return 0;
  return w->eh(w, ev);
}

EVENT Event(EVENT_TYPE type) {
  EVENT ev;
  std::memset(&ev, 0, sizeof ev);
  ev.type = type;
  return ev;
}

xvt_object* NewObject(WIN_TYPE type, xvt_object* parent, const RCT* rct, const char* title) {
  auto* o = new xvt_object;
  o->type = type;
  o->parent = parent;
  if (rct) o->rect = *rct;
  o->title = title ? title : "";
  if (parent) parent->children.push_back(o);
  S().objects.push_back(o);
  S().live.insert(o);
  return o;
}

void LoadMenu(xvt_object* w, const MENU_ITEM* items) {
  for (const MENU_ITEM* m = items; m && (m->tag || m->text || m->separator); ++m) {
    if (m->tag) w->menu[m->tag] = MenuState{m->text ? m->text : "", m->enabled, m->checked};
    if (m->children) LoadMenu(w, m->children);
  }
}

// The window whose menu bar serves w: w's own, else the task window's.
xvt_object* MenuOwner(WINDOW w) {
  if (Live(w) && !w->menu.empty()) return w;
  return S().task;
}

void DestroyTree(xvt_object* w) {
  if (!Live(w) || w->destroying) return;
  w->destroying = true;
  // Children go first, newest first, so that a window sees its controls
  // alive until its own E_DESTROY.
  std::vector<xvt_object*> kids = w->children;
  for (auto it = kids.rbegin(); it != kids.rend(); ++it) DestroyTree(*it);
  EVENT ev = Event(E_DESTROY);
  Send(w, &ev);
  auto& s = S();
  for (auto it = s.timers.begin(); it != s.timers.end();) {
    if (it->second.win == w)
      it = s.timers.erase(it);
    else
      ++it;
  }
  if (w->parent && Live(w->parent)) {
    auto& c = w->parent->children;
    c.erase(std::remove(c.begin(), c.end(), w), c.end());
  }
  if (s.focus == w) s.focus = nullptr;
  if (s.trapped == w) s.trapped = nullptr;
  if (s.progress == w) s.progress = nullptr;
  s.queue.erase(std::remove_if(s.queue.begin(), s.queue.end(), [w](auto& q) { return q.first == w; }), s.queue.end());
  s.live.erase(w);
  s.objects.erase(std::remove(s.objects.begin(), s.objects.end(), w), s.objects.end());
  delete w;
}

xvt_object* CreateDialog(const WIN_DEF* defs, EVENT_HANDLER eh, intptr_t app_data) {
  if (!defs || (defs->type != W_MODAL && defs->type != W_MODELESS && defs->type != W_DOC && defs->type != W_PLAIN))
    return nullptr;
  xvt_object* dlg = NewObject(defs->type, S().screen, &defs->rct, defs->title);
  dlg->eh = eh;
  dlg->data = app_data;
  dlg->flags = defs->flags;
  for (const WIN_DEF* d = defs + 1; d->type != W_NONE; ++d) {
    xvt_object* c = NewObject(d->type, dlg, &d->rct, d->title);
    c->id = d->id;
    c->flags = d->flags;
    c->enabled = !(d->flags & CTL_FLAG_DISABLED);
    c->visible = !(d->flags & CTL_FLAG_INVISIBLE);
  }
  EVENT ev = Event(E_CREATE);
  Send(dlg, &ev);
  return dlg;
}

void RunModal(xvt_object* dlg, int rid) {
  auto& s = S();
  if (!Live(dlg)) return;
  if (!s.answers.empty() && s.answers.front().kind == Answer::kDialog &&
      (s.answers.front().rid == 0 || s.answers.front().rid == rid)) {
    Answer a = std::move(s.answers.front());
    s.answers.pop_front();
    if (a.fn) a.fn(dlg);
    if (Live(dlg)) {
      XvtPost p{"dialog left open", dlg->title, {}, rid};
      Unexpected(p);
      DestroyTree(dlg);
    }
    return;
  }
  XvtPost p{"dialog", dlg->title, {}, rid};
  Unexpected(p);
  DestroyTree(dlg);
}

void DrawOp(WINDOW w, XvtDrawOp op) {
  if (!Live(w)) return;
  op.fore = w->fore;
  op.back = w->back;
  op.font = w->font;
  w->display.push_back(std::move(op));
}

void NotifyControl(xvt_object* ctl) {
  xvt_object* owner = ctl->parent;
  EVENT ev = Event(E_CONTROL);
  ev.v.ctl.id = ctl->id;
  ev.v.ctl.ci.type = ctl->type;
  ev.v.ctl.ci.win = ctl;
  Send(owner, &ev);
}

bool Reachable(WINDOW w) {
  auto& s = S();
  if (!s.trapped) return true;
  for (xvt_object* p = w; p; p = p->parent)
    if (p == s.trapped) return true;
  return false;
}

}  // namespace

// ---------------------------------------------------------------------------
// Application

void xvt_app_create(int, char**, unsigned long, EVENT_HANDLER task_eh, XVT_CONFIG* config) {
  auto& s = S();
  s.running = true;
  s.destroyed = false;
  s.quit_allowed = false;
  RCT screen{0, 0, s.screen_w, s.screen_h};
  s.screen = NewObject(W_SCREEN, nullptr, &screen, "");
  s.task = NewObject(W_TASK, nullptr, &screen, config && config->taskwin_title ? config->taskwin_title : "");
  s.task->eh = task_eh;
  s.task->visible = false;
  if (config) LoadMenu(s.task, xvt_res_get_menubar(config->menu_bar_rid));
  if (config) s.toolbar_height = config->toolbar_height;
  RCT client{0, s.toolbar_height, s.screen_w, s.screen_h};
  s.mdi = NewObject(W_PLAIN, s.task, &client, "MDI client");
  s.task_eh = task_eh;
  EVENT ev = Event(E_CREATE);
  Send(s.task, &ev);
  if (!s.destroyed && s.run_hook) {
    auto hook = s.run_hook;
    hook();
  }
  if (!s.destroyed) xvt_app_destroy();
  s.running = false;
}

void xvt_app_destroy(void) {
  auto& s = S();
  if (s.destroyed || !s.task) return;
  s.destroyed = true;
  // Every other window goes first (newest first), the task window last.
  std::vector<xvt_object*> all = s.objects;
  for (auto it = all.rbegin(); it != all.rend(); ++it) {
    xvt_object* w = *it;
    if (Live(w) && w != s.task && w != s.screen && !w->parent) DestroyTree(w);
  }
  for (auto it = all.rbegin(); it != all.rend(); ++it) {
    xvt_object* w = *it;
    if (Live(w) && w != s.task && w != s.screen && w->parent == s.screen) DestroyTree(w);
  }
  DestroyTree(s.task);
  DestroyTree(s.screen);
  s.task = s.screen = s.mdi = nullptr;
  s.timers.clear();
  s.queue.clear();
  s.trapped = nullptr;
  s.focus = nullptr;
}

void xvt_app_allow_quit(void) { S().quit_allowed = true; }

void xvt_app_process_pending_events(void) {
  auto& s = S();
  // Only what was queued before this call runs, so that a handler that posts
  // again cannot keep the caller here.
  size_t n = s.queue.size();
  for (size_t i = 0; i < n && !s.queue.empty(); ++i) {
    auto item = s.queue.front();
    s.queue.pop_front();
    Send(item.first, &item.second);
  }
}

WINDOW xvt_task_win(void) { return S().task; }
WINDOW xvt_screen_win(void) { return S().screen; }

intptr_t xvt_vobj_get_attr(WINDOW win, XVT_ATTR attr) {
  auto& s = S();
  switch (attr) {
    case ATTR_ERRMSG_HANDLER: return reinterpret_cast<intptr_t>(s.errmsg);
    case ATTR_NATIVE_HOOK: return reinterpret_cast<intptr_t>(s.native);
    case ATTR_MDI_CLIENT_WIN: return reinterpret_cast<intptr_t>(s.mdi);
    case ATTR_SCREEN_WIDTH: return s.screen_w;
    case ATTR_SCREEN_HEIGHT: return s.screen_h;
    case ATTR_WIN_MAXIMIZED: return Live(win) && win->maximized;
    case ATTR_WIN_MINIMIZED: return Live(win) && win->minimized;
    default: return 0;
  }
}

bool xvt_vobj_set_attr(WINDOW win, XVT_ATTR attr, intptr_t value) {
  auto& s = S();
  switch (attr) {
    case ATTR_ERRMSG_HANDLER: s.errmsg = reinterpret_cast<XVT_ERRMSG_HANDLER>(value); return true;
    case ATTR_NATIVE_HOOK: s.native = reinterpret_cast<XVT_NATIVE_HOOK>(value); return true;
    case ATTR_3D_CONTROLS:
    case ATTR_NATIVE_DIALOGS:
    case ATTR_RESOURCES_IN_CODE:
    case ATTR_APP_ICON: return true;
    case ATTR_WIN_MAXIMIZED:
      if (!Live(win)) return false;
      win->maximized = value != 0;
      if (value) {
        win->minimized = false;
        win->visible = true;
      }
      return true;
    case ATTR_WIN_MINIMIZED:
      if (!Live(win)) return false;
      win->minimized = value != 0;
      if (value) win->maximized = false;
      return true;
    default: return false;
  }
}

// ---------------------------------------------------------------------------
// Windows

WINDOW xvt_win_create(WIN_TYPE type, const RCT* rct, const char* title, int menu_rid, WINDOW parent,
                      unsigned long flags, EVENT_MASK, EVENT_HANDLER eh, intptr_t app_data) {
  auto& s = S();
  if (!s.task) return NULL_WIN;
  if (!parent) parent = s.screen;
  if (!Live(parent)) return NULL_WIN;
  xvt_object* w = NewObject(type, parent, rct, title);
  w->eh = eh;
  w->data = app_data;
  w->flags = flags;
  w->visible = !(flags & WSF_INVISIBLE);
  w->enabled = !(flags & WSF_DISABLED);
  w->maximized = (flags & WSF_MAXIMIZED) != 0;
  w->minimized = (flags & WSF_ICONIZED) != 0;
  if (menu_rid && !(flags & WSF_NO_MENUBAR)) LoadMenu(w, xvt_res_get_menubar(menu_rid));
  EVENT ev = Event(E_CREATE);
  Send(w, &ev);
  if (!Live(w)) return NULL_WIN;
  return w;
}

void xvt_vobj_destroy(WINDOW win) {
  if (!Live(win) || win == S().task || win == S().screen) return;
  DestroyTree(win);
}

bool xvt_vobj_is_valid(WINDOW win) { return Live(win); }
WIN_TYPE xvt_vobj_get_type(WINDOW win) { return Live(win) ? win->type : W_NONE; }
WINDOW xvt_vobj_get_parent(WINDOW win) { return Live(win) ? win->parent : NULL_WIN; }
intptr_t xvt_vobj_get_data(WINDOW win) { return Live(win) ? win->data : 0; }
void xvt_vobj_set_data(WINDOW win, intptr_t data) {
  if (Live(win)) win->data = data;
}

char* xvt_vobj_get_title(WINDOW win, char* buf, size_t size) {
  if (!Live(win) || !buf || size == 0) return nullptr;
  std::snprintf(buf, size, "%s", win->title.c_str());
  return buf;
}

void xvt_vobj_set_title(WINDOW win, const char* title) {
  if (Live(win)) win->title = title ? title : "";
}

RCT* xvt_vobj_get_outer_rect(WINDOW win, RCT* rct) {
  if (!Live(win) || !rct) return nullptr;
  *rct = win->rect;
  return rct;
}

RCT* xvt_vobj_get_client_rect(WINDOW win, RCT* rct) {
  if (!Live(win) || !rct) return nullptr;
  *rct = RCT{0, 0, win->rect.right - win->rect.left, win->rect.bottom - win->rect.top};
  return rct;
}

void xvt_vobj_move(WINDOW win, const RCT* rct) {
  if (!Live(win) || !rct) return;
  bool resized = (rct->right - rct->left) != (win->rect.right - win->rect.left) ||
                 (rct->bottom - rct->top) != (win->rect.bottom - win->rect.top);
  win->rect = *rct;
  if (resized) {
    EVENT ev = Event(E_SIZE);
    ev.v.size.width = rct->right - rct->left;
    ev.v.size.height = rct->bottom - rct->top;
    Send(win, &ev);
  }
}

void xvt_vobj_set_visible(WINDOW win, bool visible) {
  if (Live(win)) win->visible = visible;
}
bool xvt_vobj_is_visible(WINDOW win) { return Live(win) && win->visible; }
void xvt_vobj_set_enabled(WINDOW win, bool enabled) {
  if (Live(win)) win->enabled = enabled;
}
bool xvt_vobj_is_enabled(WINDOW win) { return Live(win) && win->enabled; }

void xvt_vobj_raise(WINDOW win) {
  if (!Live(win) || !win->parent) return;
  auto& c = win->parent->children;
  c.erase(std::remove(c.begin(), c.end(), win), c.end());
  c.push_back(win);
}

long xvt_win_dispatch_event(WINDOW win, EVENT* ev) { return Send(win, ev); }

void xvt_win_post_event(WINDOW win, const EVENT* ev) {
  if (Live(win) && ev) S().queue.push_back({win, *ev});
}

void xvt_win_trap_pointer(WINDOW win) {
  if (Live(win)) S().trapped = win;
}
void xvt_win_release_pointer(void) { S().trapped = nullptr; }

void xvt_win_set_cursor(WINDOW win, CURSOR cursor) {
  if (Live(win)) win->cursor = cursor;
  S().cursor = cursor;
}

void xvt_scr_set_busy_cursor(void) { S().cursor = CURSOR_WAIT; }
WINDOW xvt_scr_get_focus_vobj(void) { return S().focus; }

void xvt_scr_set_focus_vobj(WINDOW win) {
  auto& s = S();
  if (!Live(win) || s.focus == win) return;
  xvt_object* old = s.focus;
  s.focus = win;
  if (Live(old)) {
    EVENT ev = Event(E_FOCUS);
    ev.v.active = false;
    Send(old, &ev);
  }
  EVENT ev = Event(E_FOCUS);
  ev.v.active = true;
  Send(win, &ev);
}

void xvt_scr_beep(void) { Record("beep", ""); }

// ---------------------------------------------------------------------------
// Drawing

void xvt_dwin_set_pen(WINDOW win, const CPEN* pen) {
  if (Live(win) && pen) win->fore = pen->color;
}
void xvt_dwin_set_brush(WINDOW win, const CBRUSH* brush) {
  if (Live(win) && brush) win->back = brush->color;
}
void xvt_dwin_set_fore_color(WINDOW win, COLOR color) {
  if (Live(win)) win->fore = color;
}
void xvt_dwin_set_back_color(WINDOW win, COLOR color) {
  if (Live(win)) win->back = color;
}
void xvt_dwin_set_font(WINDOW win, XVT_FNTID font) {
  if (!Live(win) || !font) return;
  win->font = std::string(xvt_font_get_family(font)) + " " + std::to_string(xvt_font_get_size(font)) + " " +
              std::to_string(xvt_font_get_style(font));
}
void xvt_dwin_set_clip(WINDOW, const RCT*) {}

void xvt_dwin_clear(WINDOW win, COLOR color) {
  if (!Live(win)) return;
  XvtDrawOp op;
  op.op = "clear";
  xvt_vobj_get_client_rect(win, &op.rct);
  DrawOp(win, op);
  win->display.back().back = color;
}

void xvt_dwin_draw_line(WINDOW win, PNT from, PNT to) {
  XvtDrawOp op;
  op.op = "line";
  op.rct = RCT{from.h, from.v, to.h, to.v};
  DrawOp(win, op);
}

void xvt_dwin_draw_rect(WINDOW win, const RCT* rct) {
  if (!rct) return;
  XvtDrawOp op;
  op.op = "rect";
  op.rct = *rct;
  DrawOp(win, op);
}

void xvt_dwin_draw_3d_rect(WINDOW win, const RCT* rct, bool raised) {
  if (!rct) return;
  XvtDrawOp op;
  op.op = "3d";
  op.rct = *rct;
  op.text = raised ? "raised" : "sunken";
  DrawOp(win, op);
}

void xvt_dwin_draw_text(WINDOW win, int x, int y, const char* text, int len) {
  if (!text) return;
  std::string t = len < 0 ? std::string(text) : std::string(text, static_cast<size_t>(len));
  XvtDrawOp op;
  op.op = "text";
  op.text = t;
  op.rct = RCT{x, y - kAscent, x + kCharWidth * static_cast<int>(t.size()), y + kDescent};
  DrawOp(win, op);
}

void xvt_dwin_get_font_metrics(WINDOW, int* leading, int* ascent, int* descent) {
  if (leading) *leading = 0;
  if (ascent) *ascent = kAscent;
  if (descent) *descent = kDescent;
}

int xvt_dwin_get_text_width(WINDOW, const char* text, int len) {
  if (!text) return 0;
  return kCharWidth * (len < 0 ? static_cast<int>(std::strlen(text)) : len);
}

void xvt_dwin_draw_icon(WINDOW win, int x, int y, int icon_rid) {
  XvtDrawOp op;
  op.op = "icon";
  op.icon = icon_rid;
  op.rct = RCT{x, y, x + 32, y + 32};
  DrawOp(win, op);
}

void xvt_dwin_invalidate_rect(WINDOW win, const RCT* rct) {
  if (!Live(win)) return;
  RCT r;
  if (rct)
    r = *rct;
  else
    xvt_vobj_get_client_rect(win, &r);
  win->invalid.push_back(r);
}

void xvt_dwin_scroll_rect(WINDOW win, const RCT* rct, int dh, int dv) {
  if (!Live(win)) return;
  XvtDrawOp op;
  op.op = "scroll";
  if (rct) op.rct = *rct;
  op.text = std::to_string(dh) + " " + std::to_string(dv);
  DrawOp(win, op);
}

void xvt_dwin_update(WINDOW win) {
  if (!Live(win) || win->invalid.empty()) return;
  xvt_test_paint(win);
}

XVT_IMAGE xvt_image_read_bmp(const char* path) {
  Record("image", path ? path : "");
  auto img = std::make_unique<xvt_image>();
  std::string error;
  if (!xvtbmp::DecodeFile(path, &img->image, &error)) return nullptr;
  return img.release();
}

void xvt_image_get_dimensions(XVT_IMAGE image, int* width, int* height) {
  if (width) *width = image ? image->image.width : 0;
  if (height) *height = image ? image->image.height : 0;
}

void xvt_image_destroy(XVT_IMAGE image) { delete image; }

void xvt_dwin_draw_image(WINDOW win, XVT_IMAGE image, const RCT* dest, const RCT*) {
  if (!image || !dest) return;
  XvtDrawOp op;
  op.op = "image";
  op.rct = *dest;
  op.text = std::to_string(image->image.width) + "x" + std::to_string(image->image.height);
  DrawOp(win, op);
}

// ---------------------------------------------------------------------------
// Scroll bars

static ScrollBar* Bar(WINDOW win, SCROLL_TYPE type) {
  if (!Live(win)) return nullptr;
  if (win->type == WC_HSCROLL) return &win->sbar[0];
  if (win->type == WC_VSCROLL) return &win->sbar[1];
  return &win->sbar[type == VSCROLL ? 1 : 0];
}

void xvt_sbar_set_range(WINDOW win, SCROLL_TYPE type, int min, int max) {
  if (auto* b = Bar(win, type)) {
    b->min = min;
    b->max = max < min ? min : max;
    b->pos = std::clamp(b->pos, b->min, b->max);
  }
}
void xvt_sbar_get_range(WINDOW win, SCROLL_TYPE type, int* min, int* max) {
  auto* b = Bar(win, type);
  if (min) *min = b ? b->min : 0;
  if (max) *max = b ? b->max : 0;
}
void xvt_sbar_set_pos(WINDOW win, SCROLL_TYPE type, int pos) {
  if (auto* b = Bar(win, type)) b->pos = std::clamp(pos, b->min, b->max);
}
int xvt_sbar_get_pos(WINDOW win, SCROLL_TYPE type) {
  auto* b = Bar(win, type);
  return b ? b->pos : 0;
}
void xvt_sbar_set_proportion(WINDOW win, SCROLL_TYPE type, int proportion) {
  if (auto* b = Bar(win, type)) b->proportion = proportion;
}
void xvt_sbar_set_visible(WINDOW win, SCROLL_TYPE type, bool visible) {
  if (auto* b = Bar(win, type)) b->visible = visible;
}
void xvt_sbar_set_enabled(WINDOW win, SCROLL_TYPE type, bool enabled) {
  if (auto* b = Bar(win, type)) b->enabled = enabled;
}

// ---------------------------------------------------------------------------
// Controls

WINDOW xvt_ctl_create(WIN_TYPE type, const RCT* rct, const char* title, WINDOW parent, unsigned long flags, int id) {
  if (!Live(parent) || type < WC_PUSHBUTTON) return NULL_WIN;
  xvt_object* c = NewObject(type, parent, rct, title);
  c->id = id;
  c->flags = flags;
  c->enabled = !(flags & CTL_FLAG_DISABLED);
  c->visible = !(flags & CTL_FLAG_INVISIBLE);
  return c;
}

WINDOW xvt_win_get_ctl(WINDOW win, int id) {
  if (!Live(win)) return NULL_WIN;
  for (xvt_object* c : win->children)
    if (c->type >= WC_PUSHBUTTON && c->id == id) return c;
  return NULL_WIN;
}

int xvt_ctl_get_id(WINDOW ctl) { return Live(ctl) ? ctl->id : 0; }
void xvt_ctl_set_checked(WINDOW ctl, bool checked) {
  if (Live(ctl)) ctl->checked = checked;
}
bool xvt_ctl_is_checked(WINDOW ctl) { return Live(ctl) && ctl->checked; }

void xvt_ctl_check_radio_button(WINDOW ctl, WINDOW* group, int count) {
  for (int i = 0; group && i < count; ++i)
    if (Live(group[i])) group[i]->checked = false;
  if (Live(ctl)) ctl->checked = true;
}

bool xvt_list_add(WINDOW ctl, int index, const char* text) {
  if (!Live(ctl)) return false;
  size_t pos = (index < 0 || static_cast<size_t>(index) > ctl->items.size()) ? ctl->items.size()
                                                                             : static_cast<size_t>(index);
  ctl->items.insert(ctl->items.begin() + static_cast<long>(pos), text ? text : "");
  ctl->selected.insert(ctl->selected.begin() + static_cast<long>(pos), false);
  return true;
}

bool xvt_list_rem(WINDOW ctl, int index) {
  if (!Live(ctl) || index < 0 || static_cast<size_t>(index) >= ctl->items.size()) return false;
  ctl->items.erase(ctl->items.begin() + index);
  ctl->selected.erase(ctl->selected.begin() + index);
  return true;
}

void xvt_list_clear(WINDOW ctl) {
  if (!Live(ctl)) return;
  ctl->items.clear();
  ctl->selected.clear();
}

int xvt_list_count_all(WINDOW ctl) { return Live(ctl) ? static_cast<int>(ctl->items.size()) : 0; }

char* xvt_list_get_elt(WINDOW ctl, int index, char* buf, size_t size) {
  if (!Live(ctl) || !buf || size == 0 || index < 0 || static_cast<size_t>(index) >= ctl->items.size()) return nullptr;
  std::snprintf(buf, size, "%s", ctl->items[static_cast<size_t>(index)].c_str());
  return buf;
}

int xvt_list_get_sel_index(WINDOW ctl) {
  if (!Live(ctl)) return -1;
  for (size_t i = 0; i < ctl->selected.size(); ++i)
    if (ctl->selected[i]) return static_cast<int>(i);
  return -1;
}

void xvt_list_set_sel(WINDOW ctl, int index, bool selected) {
  if (!Live(ctl) || index < 0 || static_cast<size_t>(index) >= ctl->items.size()) return;
  if (selected && !(ctl->flags & CTL_FLAG_MULTISEL)) std::fill(ctl->selected.begin(), ctl->selected.end(), false);
  ctl->selected[static_cast<size_t>(index)] = selected;
  if (selected && (ctl->type == WC_LISTBUTTON || ctl->type == WC_LISTEDIT)) ctl->title = ctl->items[static_cast<size_t>(index)];
}

bool xvt_list_is_sel(WINDOW ctl, int index) {
  return Live(ctl) && index >= 0 && static_cast<size_t>(index) < ctl->selected.size() &&
         ctl->selected[static_cast<size_t>(index)];
}

void xvt_list_suspend(WINDOW) {}
void xvt_list_resume(WINDOW) {}

// ---------------------------------------------------------------------------
// Dialogs

WINDOW xvt_dlg_create_def(const WIN_DEF* defs, EVENT_MASK, EVENT_HANDLER eh, intptr_t app_data) {
  if (!S().task || !defs) return NULL_WIN;
  bool modal = defs->type == W_MODAL;
  std::string title = defs->title ? defs->title : "";
  Record("dialog", title, {}, 0);
  xvt_object* dlg = CreateDialog(defs, eh, app_data);
  if (!dlg) return NULL_WIN;
  if (modal) {
    WINDOW shown = dlg;
    RunModal(dlg, 0);
    return shown;
  }
  return dlg;
}

WINDOW xvt_dlg_create_res(WIN_TYPE type, int rid, EVENT_MASK, EVENT_HANDLER eh, intptr_t app_data) {
  const WIN_DEF* defs = xvt_res_get_dialog(rid);
  if (!S().task || !defs) return NULL_WIN;
  std::vector<WIN_DEF> copy;
  for (const WIN_DEF* d = defs; d->type != W_NONE; ++d) copy.push_back(*d);
  copy.push_back(WIN_DEF{W_NONE, {}, nullptr, 0, 0});
  copy[0].type = type;
  Record("dialog", copy[0].title ? copy[0].title : "", {}, rid);
  xvt_object* dlg = CreateDialog(copy.data(), eh, app_data);
  if (!dlg) return NULL_WIN;
  if (type == W_MODAL) {
    WINDOW shown = dlg;
    RunModal(dlg, rid);
    return shown;
  }
  return dlg;
}

ASK_RESPONSE xvt_dm_post_ask(const char* b1, const char* b2, const char* b3, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string text = StringPrintfV(fmt, ap);
  va_end(ap);
  std::vector<std::string> buttons;
  for (const char* b : {b1, b2, b3})
    if (b) buttons.push_back(b);
  Record("ask", text, buttons);
  auto& s = S();
  if (!s.answers.empty() && s.answers.front().kind == Answer::kAsk) {
    ASK_RESPONSE r = s.answers.front().response;
    s.answers.pop_front();
    return r;
  }
  Unexpected(s.posts.back());
  return b3 ? RESP_3 : (b2 ? RESP_2 : RESP_DEFAULT);
}

#define POST_INFO(kind)                        \
  va_list ap;                                  \
  va_start(ap, fmt);                           \
  std::string text = StringPrintfV(fmt, ap);          \
  va_end(ap);                                  \
  Record(kind, text);

void xvt_dm_post_error(const char* fmt, ...) { POST_INFO("error") }
void xvt_dm_post_note(const char* fmt, ...) { POST_INFO("note") }
void xvt_dm_post_message(const char* fmt, ...) { POST_INFO("message") }

void xvt_dm_post_fatal_exit(const char* fmt, ...) {
  POST_INFO("fatal")
  if (S().fatal) S().fatal(text);
  std::fprintf(stderr, "%s\n", text.c_str());
  std::exit(1);
}

static bool TakeText(const char* kind, const char* prompt, char* buf, size_t size) {
  Record(kind, prompt ? prompt : "");
  auto& s = S();
  if (s.answers.empty() || s.answers.front().kind != Answer::kText) {
    Unexpected(s.posts.back());
    return false;
  }
  Answer a = std::move(s.answers.front());
  s.answers.pop_front();
  if (!a.has_text) return false;
  if (buf && size) std::snprintf(buf, size, "%s", a.text.c_str());
  return true;
}

bool xvt_dm_post_string_prompt(const char* prompt, char* buf, size_t size) {
  return TakeText("prompt", prompt, buf, size);
}
bool xvt_dm_post_file_open(const char* prompt, char* path, size_t size) {
  return TakeText("file_open", prompt, path, size);
}
bool xvt_dm_post_file_save(const char* prompt, char* path, size_t size) {
  return TakeText("file_save", prompt, path, size);
}

bool xvt_dm_post_font_sel(WINDOW, XVT_FNTID* font) {
  char chosen[200] = "";
  if (!TakeText("font", "", chosen, sizeof chosen) || !font) return false;
  char family[100] = "";
  int size = 12;
  unsigned style = 0;
  if (std::sscanf(chosen, "%99s %d %u", family, &size, &style) < 1) return false;
  xvt_font_destroy(*font);
  *font = xvt_font_create(family, size, style);
  return true;
}

void xvt_progress_open(const char* title, const char* text, bool) {
  auto& s = S();
  if (!s.task) return;
  if (!Live(s.progress)) {
    RCT r{400, 400, 800, 520};
    s.progress = NewObject(W_MODELESS, s.screen, &r, title);
  }
  s.progress->title = title ? title : "";
  s.progress->items = {text ? text : ""};
  s.progress_cancel = false;
  Record("progress", std::string(title ? title : "") + ": " + (text ? text : ""));
}

void xvt_progress_set_text(const char* text) {
  auto& s = S();
  if (!Live(s.progress)) return;
  s.progress->items = {text ? text : ""};
  Record("progress", s.progress->title + ": " + (text ? text : ""));
}
void xvt_progress_set_range(long total) {
  if (Live(S().progress)) xvt_sbar_set_range(S().progress, HSCROLL, 0, static_cast<int>(total));
}
void xvt_progress_set_pos(long pos) {
  if (Live(S().progress)) xvt_sbar_set_pos(S().progress, HSCROLL, static_cast<int>(pos));
}
bool xvt_progress_cancelled(void) { return S().progress_cancel; }
void xvt_progress_close(void) {
  if (Live(S().progress)) DestroyTree(S().progress);
  S().progress = nullptr;
}
WINDOW xvt_progress_win(void) { return Live(S().progress) ? S().progress : NULL_WIN; }

// ---------------------------------------------------------------------------
// Menus

void xvt_menu_set_item_enabled(WINDOW win, int tag, bool enabled) {
  xvt_object* o = MenuOwner(win);
  if (Live(o) && o->menu.count(tag)) o->menu[tag].enabled = enabled;
}
void xvt_menu_set_item_checked(WINDOW win, int tag, bool checked) {
  xvt_object* o = MenuOwner(win);
  if (Live(o) && o->menu.count(tag)) o->menu[tag].checked = checked;
}
void xvt_menu_set_item_title(WINDOW win, int tag, const char* title) {
  xvt_object* o = MenuOwner(win);
  if (Live(o) && o->menu.count(tag)) o->menu[tag].title = title ? title : "";
}
bool xvt_menu_get_item_enabled(WINDOW win, int tag) {
  xvt_object* o = MenuOwner(win);
  return Live(o) && o->menu.count(tag) && o->menu[tag].enabled;
}
bool xvt_menu_get_item_checked(WINDOW win, int tag) {
  xvt_object* o = MenuOwner(win);
  return Live(o) && o->menu.count(tag) && o->menu[tag].checked;
}
bool xvt_menu_get_item_title(WINDOW win, int tag, char* buf, size_t size) {
  xvt_object* o = MenuOwner(win);
  if (!Live(o) || !o->menu.count(tag) || !buf || !size) return false;
  std::snprintf(buf, size, "%s", o->menu[tag].title.c_str());
  return true;
}
void xvt_menu_update(WINDOW) {}
void xvt_menu_popup(const MENU_ITEM*, WINDOW, PNT) { Record("popup", ""); }

// ---------------------------------------------------------------------------
// Timers

long xvt_timer_create(WINDOW win, long period_ms) {
  auto& s = S();
  if (!Live(win) || period_ms <= 0) return XVT_TIMER_ERROR;
  long id = s.next_timer++;
  s.timers[id] = Timer{win, period_ms, s.now + period_ms};
  return id;
}

void xvt_timer_destroy(long id) { S().timers.erase(id); }

// ---------------------------------------------------------------------------
// Descriptor watchers: headless tests drive them by polling explicitly.

long xvt_fd_watch(int fd, XVT_FD_CALLBACK cb, void* data) {
  auto& s = S();
  long id = s.next_watch++;
  s.watches[id] = {fd, {cb, data}};
  return id;
}
void xvt_fd_unwatch(long id) { S().watches.erase(id); }

// ---------------------------------------------------------------------------
// Help

bool xvt_help_open_helpfile(const char* path) {
  if (!path) return false;
  FILE* f = std::fopen(path, "r");
  if (!f) return false;
  std::fclose(f);
  S().help = path;
  return true;
}
void xvt_help_close_helpfile(void) { S().help.clear(); }
bool xvt_help_display(const char* topic) {
  Record("help", topic ? topic : "");
  return !S().help.empty();
}

// ---------------------------------------------------------------------------
// Test hooks

void xvt_test_reset(void) {
  auto& s = S();
  for (xvt_object* o : s.objects) delete o;
  s = State();
}

void xvt_test_set_run_hook(std::function<void()> hook) { S().run_hook = std::move(hook); }
void xvt_test_set_screen_size(int width, int height) {
  S().screen_w = width;
  S().screen_h = height;
}

void xvt_test_push_answer(ASK_RESPONSE response) {
  Answer a;
  a.kind = Answer::kAsk;
  a.response = response;
  S().answers.push_back(std::move(a));
}

void xvt_test_push_dialog(int rid, std::function<void(WINDOW)> fn) {
  Answer a;
  a.kind = Answer::kDialog;
  a.rid = rid;
  a.fn = std::move(fn);
  S().answers.push_back(std::move(a));
}

void xvt_test_push_text(const char* text) {
  Answer a;
  a.kind = Answer::kText;
  a.has_text = text != nullptr;
  if (text) a.text = text;
  S().answers.push_back(std::move(a));
}

const std::vector<XvtPost>& xvt_test_posts(void) { return S().posts; }
void xvt_test_clear_posts(void) { S().posts.clear(); }
void xvt_test_set_unexpected_handler(std::function<void(const XvtPost&)> handler) {
  S().unexpected = std::move(handler);
}
void xvt_test_set_fatal_handler(std::function<void(const std::string&)> handler) { S().fatal = std::move(handler); }

void xvt_test_advance_ms(long ms) {
  auto& s = S();
  long target = s.now + ms;
  for (;;) {
    long best_id = 0, best_due = 0;
    for (auto& [id, t] : s.timers)
      if (t.due <= target && (best_id == 0 || t.due < best_due)) {
        best_id = id;
        best_due = t.due;
      }
    if (best_id == 0) break;
    s.now = best_due;
    Timer& t = s.timers[best_id];
    t.due += t.period;
    WINDOW w = t.win;
    EVENT ev = Event(E_TIMER);
    ev.v.timer.id = best_id;
    Send(w, &ev);
    xvt_app_process_pending_events();
  }
  s.now = target;
}

long xvt_test_now_ms(void) { return S().now; }

std::vector<XvtTimer> xvt_test_timers(void) {
  std::vector<XvtTimer> out;
  for (auto& [id, t] : S().timers) out.push_back(XvtTimer{id, t.win, t.period, t.due});
  return out;
}

bool xvt_test_user_event(WINDOW win, EVENT* ev) {
  auto& s = S();
  if (!Live(win) || !ev) return false;
  if (s.native && ev->type == E_MOUSE_DOWN && ev->v.mouse.button == 0) s.native(XVT_NATIVE_LBUTTON_DOWN, 0);
  if (s.native && ev->type == E_MOUSE_UP && ev->v.mouse.button == 0) s.native(XVT_NATIVE_LBUTTON_UP, 0);
  if (s.native && (ev->type == E_HSCROLL || ev->type == E_VSCROLL))
    s.native(ev->v.scroll.what == SC_THUMB ? XVT_NATIVE_SCROLL_END : XVT_NATIVE_SCROLL, ev->v.scroll.what);
  if (!Reachable(win)) return false;
  Send(win, ev);
  return true;
}

bool xvt_test_user_command(WINDOW win, int tag) {
  if (!Live(win)) return false;
  xvt_object* owner = MenuOwner(win);
  if (Live(owner) && owner->menu.count(tag) && !owner->menu[tag].enabled) return false;
  EVENT ev = Event(E_COMMAND);
  ev.v.cmd.tag = tag;
  return xvt_test_user_event(win, &ev);
}

bool xvt_test_click(WINDOW win, int ctl_id) {
  xvt_object* c = xvt_win_get_ctl(win, ctl_id);
  if (!c || !c->enabled || !Reachable(c)) return false;
  if (c->type == WC_CHECKBOX) c->checked = !c->checked;
  if (c->type == WC_RADIOBUTTON) c->checked = true;
  NotifyControl(c);
  return true;
}

bool xvt_test_select(WINDOW win, int ctl_id, int index) {
  xvt_object* c = xvt_win_get_ctl(win, ctl_id);
  if (!c || !c->enabled || !Reachable(c)) return false;
  xvt_list_set_sel(c, index, true);
  NotifyControl(c);
  return true;
}

bool xvt_test_type(WINDOW win, int ctl_id, const char* text) {
  xvt_object* c = xvt_win_get_ctl(win, ctl_id);
  if (!c || !c->enabled || !Reachable(c)) return false;
  c->title = text ? text : "";
  NotifyControl(c);
  return true;
}

void xvt_test_native(XVT_NATIVE_EVENT what, int code) {
  if (S().native) S().native(what, code);
}

std::vector<WINDOW> xvt_test_windows(void) { return S().objects; }

WINDOW xvt_test_find_window(const char* title) {
  for (xvt_object* o : S().objects)
    if (o->type < WC_PUSHBUTTON && title && o->title == title) return o;
  return NULL_WIN;
}

WINDOW xvt_test_trapped_window(void) { return S().trapped; }
CURSOR xvt_test_cursor(void) { return S().cursor; }
bool xvt_test_app_running(void) { return S().task != nullptr && !S().destroyed; }

const std::vector<XvtDrawOp>& xvt_test_paint(WINDOW win) {
  static const std::vector<XvtDrawOp> empty;
  if (!Live(win)) return empty;
  win->display.clear();
  win->invalid.clear();
  EVENT ev = Event(E_UPDATE);
  xvt_vobj_get_client_rect(win, &ev.v.update.rct);
  Send(win, &ev);
  return Live(win) ? win->display : empty;
}

const std::vector<XvtDrawOp>& xvt_test_display_list(WINDOW win) {
  static const std::vector<XvtDrawOp> empty;
  return Live(win) ? win->display : empty;
}

std::vector<RCT> xvt_test_invalidated(WINDOW win) { return Live(win) ? win->invalid : std::vector<RCT>{}; }
std::string xvt_test_help_shown(void) { return S().help; }
