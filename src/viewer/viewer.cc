// Viewer windows: a message with its header, text and attachment panes,
// the table of open viewers, which one shows a message, stepping through
// the folder and the menu.
#include "src/viewer/viewer.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "src/base/critical.h"
#include "src/base/model_events.h"
#include "src/base/trace.h"
#include "src/base/window_list.h"
#include "src/compose/compose.h"
#include "src/options/font_options.h"
#include "src/options/options.h"
#include "src/organizer/desktop.h"
#include "src/script/forms.h"
#include "src/send/receipt.h"
#include "src/viewer/attach.h"
#include "src/viewer/print.h"
#include "src/viewer/viewer_internal.h"

namespace {

struct Registered {
  UMI umi;
  WINDOW win;
};

struct Viewers {
  std::vector<Registered> table;
  // The viewer that asked for the step under way: the step shows the
  // neighbour there rather than in whichever viewer is first.
  WINDOW stepping = NULL_WIN;
  bool in_menu = false;  // blocks menu handling while a step comes back in
};

Viewers& V() {
  static Viewers v;
  return v;
}

const MENU_ITEM kFileMenu[] = {
    {M_VIEW_SAVE, "~Save Text As...\tCtrl+S", true, false, false, nullptr},
    {M_VIEW_SAVE_ATTACHMENT, "Save ~Attachment As...", true, false, false, nullptr},
    {M_VIEW_OPEN_ATTACHMENT, "~Open Attachment", true, false, false, nullptr},
    {M_VIEW_EXTRACT, "~Extract Enclosures", true, false, false, nullptr},
    {0, nullptr, false, false, true, nullptr},
    {M_VIEW_PRINT, "~Print...\tCtrl+P", false, false, false, nullptr},
    {0, nullptr, false, false, true, nullptr},
    {M_VIEW_CLOSE, "~Close\tCtrl+W", true, false, false, nullptr},
    {0, nullptr, false, false, false, nullptr},
};

const MENU_ITEM kMessageMenu[] = {
    {M_VIEW_NEXT, "~Next\tAlt+Down", true, false, false, nullptr},
    {M_VIEW_PREVIOUS, "~Previous\tAlt+Up", true, false, false, nullptr},
    {0, nullptr, false, false, true, nullptr},
    {M_VIEW_COMPOSE, "~New Message...\tCtrl+N", false, false, false, nullptr},
    {M_VIEW_REPLY, "~Reply...\tCtrl+R", false, false, false, nullptr},
    {M_VIEW_REPLY_ALL, "Reply to ~All...\tCtrl+Shift+R", false, false, false, nullptr},
    {M_VIEW_FORWARD, "~Forward...\tCtrl+L", false, false, false, nullptr},
    {M_VIEW_RESTART, "Restart Co~mpose", false, false, false, nullptr},
    {0, nullptr, false, false, true, nullptr},
    {M_VIEW_DELETE, "~Delete\tDel", true, false, false, nullptr},
    {M_VIEW_UNDELETE, "~Undelete", true, false, false, nullptr},
    {0, nullptr, false, false, true, nullptr},
    {M_VIEW_VIEWED, "Not ~Viewed", true, false, false, nullptr},
    {M_VIEW_SPECIAL, "~Special", true, false, false, nullptr},
    {M_VIEW_REPLIED, "~Replied", true, false, false, nullptr},
    {0, nullptr, false, false, true, nullptr},
    {M_VIEW_RAW_HEADER, "Raw ~Header\tCtrl+U", true, false, false, nullptr},
    {0, nullptr, false, false, true, nullptr},
    {M_VIEW_FIND, "~Find...\tCtrl+F", true, false, false, nullptr},
    {M_VIEW_FIND_AGAIN, "Find A~gain\tF3", true, false, false, nullptr},
    {0, nullptr, false, false, false, nullptr},
};

const MENU_ITEM kSecurityMenu[] = {
    {M_VIEW_PGP_DECRYPT, "PGP ~Decrypt", false, false, false, nullptr},
    {M_VIEW_PGP_VERIFY, "PGP ~Verify", false, false, false, nullptr},
    {M_VIEW_PGP_CAPTURE, "PGP ~Capture Key", false, false, false, nullptr},
    {0, nullptr, false, false, false, nullptr},
};

const MENU_ITEM kViewerBar[] = {
    {1, "~File", true, false, false, kFileMenu},
    {2, "~Message", true, false, false, kMessageMenu},
    {3, "~Security", true, false, false, kSecurityMenu},
    {0, nullptr, false, false, false, nullptr},
};

void RegisterResources() {
  static bool done = false;
  if (done) return;
  xvt_res_register_menubar(kViewerMenuBar, kViewerBar);
  done = true;
}

bool OptionIs(const char* name, const char* value) {
  const std::string v = Opt_LookupText(name, kOptSession);
  return strcasecmp(v.c_str(), value) == 0;
}

// "One", "Folder" or "Message"; absent means "One", written as the default.
std::string Instances() {
  std::string v = Opt_LookupText("Viewer.Instances", kOptSession);
  if (v.empty()) {
    Opt_AssignString("Viewer.Instances", "One", kOptPermanent, 0);
    v = "One";
  }
  return v;
}

// Separators as percents of the height: "%d %d %d". Without a usable
// value the panes take what their content needs: the header its lines, the
// attachments their rows, the text the rest.
bool SeparatorValues(int panes, int* first, int* second) {
  const std::string v = Opt_LookupText(panes == 3 ? "SepPosn.Viewer2" : "SepPosn.Viewer1", kOptSession);
  int a = 0, b = 0, c = 0;
  const int n = std::sscanf(v.c_str(), "%d %d %d", &a, &b, &c);
  if (n < 1 || a < 5 || a > 90) return false;
  if (panes == 3 && (n < 2 || b <= a + 5 || b > 95)) return false;
  *first = a;
  *second = panes == 3 ? b : 100;
  return true;
}

int Lines(const std::string& text) {
  int n = 0;
  for (char c : text) n += c == '\n';
  return n + (!text.empty() && text.back() != '\n');
}

constexpr int kGap = 6;  // between panes: where a separator is grabbed

void Layout(ViewerInfo* v) {
  RCT r;
  xvt_vobj_get_client_rect(v->window, &r);
  const int h = r.bottom - r.top, w = r.right - r.left;
  const int panes = v->content.panes;
  int first = 0, second = 100;
  int y1, y2;
  if (v->dragging) {
    y1 = h * v->drag_first / 100;
    y2 = panes == 3 ? h * v->drag_second / 100 : h;
  } else if (SeparatorValues(panes, &first, &second)) {
    y1 = h * first / 100;
    y2 = panes == 3 ? h * second / 100 : h;
  } else {
    constexpr int kLine = 18;
    // A line more than the text holds, and the frame: no scroll bar for a
    // header that fits.
    y1 = std::clamp((Lines(v->header_text) + 1) * kLine + 8, 3 * kLine, std::max(3 * kLine, h * 2 / 5));
    const int rows = static_cast<int>(v->content.rows.size());
    y2 = panes == 3 ? h - std::clamp((rows + 1) * kLine, 3 * kLine, std::max(3 * kLine, h * 3 / 10)) : h;
  }
  const int gap = kGap;
  v->sep_y1 = y1;
  v->sep_y2 = panes == 3 ? y2 : -1;
  RCT hr{0, 0, w, y1};
  xvt_vobj_move(v->header_pane, &hr);
  const bool text = v->content.has_text;
  int top = y1 + gap;
  if (v->form_pane && xvt_vobj_is_valid(v->form_pane)) {
    RCT fr{0, top, std::min(w, v->form_width), top + v->form_height};
    xvt_vobj_move(v->form_pane, &fr);
    top = fr.bottom + gap;
    y2 = std::max(y2, top + 3 * gap);
  }
  RCT body{0, top, w, y2};
  RCT rest{0, y2 + gap, w, h};
  if (panes == 3) {
    xvt_vobj_move(v->text_pane, &body);
    xvt_vobj_move(v->attachment_pane, &rest);
    xvt_vobj_set_visible(v->text_pane, true);
    xvt_vobj_set_visible(v->attachment_pane, true);
  } else {
    RCT all{0, top, w, h};
    xvt_vobj_move(text ? v->text_pane : v->attachment_pane, &all);
    xvt_vobj_set_visible(v->text_pane, text);
    xvt_vobj_set_visible(v->attachment_pane, !text);
  }
}

void FillPanes(ViewerInfo* v) {
  // Sized first: a text set into a pane that then grows may be left
  // scrolled away from its first line.
  Layout(v);
  xvt_vobj_set_title(v->header_pane, v->header_text.c_str());
  xvt_vobj_set_title(v->text_pane, v->content.text.c_str());
  v->find_from = 0;
  xvt_list_suspend(v->attachment_pane);
  xvt_list_clear(v->attachment_pane);
  for (const AttachRow& row : v->content.rows) xvt_list_add(v->attachment_pane, -1, row.label.c_str());
  xvt_list_resume(v->attachment_pane);
}

// Separators: a press in the gap below a pane grabs it, moves follow the
// pointer within the limits the saved values keep, and the release saves
// the positions for every viewer with that many panes.
bool StartDrag(ViewerInfo* v, int y) {
  int which = 0;
  if (y >= v->sep_y1 && y < v->sep_y1 + kGap) which = 1;
  if (v->sep_y2 >= 0 && y >= v->sep_y2 && y < v->sep_y2 + kGap) which = 2;
  if (!which) return false;
  RCT r;
  xvt_vobj_get_client_rect(v->window, &r);
  const int h = std::max(1, r.bottom - r.top);
  v->drag_first = v->sep_y1 * 100 / h;
  v->drag_second = v->sep_y2 >= 0 ? v->sep_y2 * 100 / h : 0;
  v->dragging = which;
  xvt_win_trap_pointer(v->window);
  return true;
}

void Drag(ViewerInfo* v, int y) {
  RCT r;
  xvt_vobj_get_client_rect(v->window, &r);
  const int h = std::max(1, r.bottom - r.top);
  const int at = y * 100 / h;
  if (v->dragging == 1)
    v->drag_first = std::clamp(at, 5, v->content.panes == 3 ? v->drag_second - 6 : 90);
  else
    v->drag_second = std::clamp(at, v->drag_first + 6, 95);
  Layout(v);
}

void EndDrag(ViewerInfo* v) {
  xvt_win_release_pointer();
  const bool three = v->content.panes == 3;
  char value[40];
  std::snprintf(value, sizeof value, "%d %d %d", v->drag_first, three ? v->drag_second : 0, 0);
  Opt_AssignString(three ? "SepPosn.Viewer2" : "SepPosn.Viewer1", value, kOptPermanent, 0);
  v->dragging = 0;
  Layout(v);
}

void Describe(WINDOW win, std::string* out) {
  ViewerInfo* v = ViewerInfoOf(win);
  if (!v) return;
  *out += "header:\n" + v->header_text;
  if (!v->header_text.empty() && v->header_text.back() != '\n') *out += '\n';
  *out += "text:\n" + v->content.text;
  if (!v->content.text.empty() && v->content.text.back() != '\n') *out += '\n';
  if (!v->content.rows.empty()) {
    *out += "attachments:\n";
    for (const AttachRow& row : v->content.rows) *out += "  " + row.label + "\n";
  }
}

void PostView(int type, UMI umi, TreeNode* container) {
  ModelEvent* ev = MM_NotEventNew(type);
  if (!ev) return;
  ev->umi = umi;
  ev->folder = static_cast<int16_t>(MM_UMIFolder(umi));
  ev->entry = container;
  MM_NotEventPost(ev);
  MM_NotEventFree(ev);
}

void QueryPosition(ViewerInfo* v) {
  v->msg_avail_state = kAvailNone;
  if (MM_MsgIsShadowMessage(v->umi)) return;
  PostView(E_VIEW_POSITION_QUERY, v->umi, v->folder_node);
}

// The panes keep a copy of the font they are given.
void ApplyFont(WINDOW pane, int kind) {
  const FontChoice f = Font_Lookup(kind);
  XVT_FNTID font = xvt_font_create(f.family.c_str(), f.size, f.style);
  if (!font) return;
  xvt_dwin_set_font(pane, font);
  xvt_font_destroy(font);
  xvt_dwin_invalidate_rect(pane, nullptr);
}

int ViewerWant(ModelEvent* ev, void* data) {
  auto* v = static_cast<ViewerInfo*>(data);
  switch (ev->type) {
    case E_FONT_CHANGED: return ev->value == kFontViewerHeader || ev->value == kFontViewerText;
    case E_ABANDON_SHIP:
    case E_SAVE_DESKTOP:
    case E_MAIL_TIMER: return 1;
    case E_FOLDER_CLOSED:
    case E_FOLDER_INVALID: return ev->folder == MM_UMIFolder(v->umi);
    case E_VIEW_POSITION: return ev->umi == v->umi;
    case E_SHADOW_RELEASED: return ev->umi == v->umi;
    default: break;
  }
  if (ev->type >= E_DELETED_FLAG_SET && ev->type <= E_MSG_EXPUNGED) return ev->umi == v->umi;
  return 0;
}

void CloseLater(ViewerInfo* v) {
  if (v->window && xvt_vobj_is_valid(v->window)) xvt_vobj_destroy(v->window);
}

void ViewerHandle(ModelEvent* ev, void* data) {
  auto* v = static_cast<ViewerInfo*>(data);
  switch (ev->type) {
    case E_FONT_CHANGED:
      ApplyFont(ev->value == kFontViewerHeader ? v->header_pane : v->text_pane, ev->value);
      return;
    case E_DELETED_FLAG_SET:
    case E_MSG_EXPUNGED:
    case E_FOLDER_CLOSED:
    case E_FOLDER_INVALID:
    case E_SHADOW_RELEASED: CloseLater(v); return;
    case E_ABANDON_SHIP:
      // Files handed to helpers go with the session.
      AttachReapChildren();
      AttachRemoveTempDir();
      CloseLater(v);
      return;
    case E_MAIL_TIMER: AttachReapChildren(); return;
    case E_SAVE_DESKTOP: saveWindowGeometry(kSlotViewer, v->window); return;
    case E_VIEW_POSITION:
      v->msg_avail_state = std::clamp(static_cast<int>(ev->value), kAvailNone, kAvailBoth);
      setMenus(v->window);
      return;
    default:
      if (xvt_scr_get_focus_vobj() == v->window || WinList_Head() == v->window) setMenus(v->window);
      return;
  }
}

}  // namespace

int set_form(WINDOW window) {
  ViewerInfo* v = ViewerInfoOf(window);
  if (!v) return 0;
  if (v->form_pane && xvt_vobj_is_valid(v->form_pane)) xvt_vobj_destroy(v->form_pane);
  v->form_pane = NULL_WIN;
  const AttachRow* form = nullptr;
  for (const AttachRow& row : v->content.rows)
    if (!form && row.mime == "text/form") form = &row;
  if (!form) return 0;
  std::string bytes;
  if (!AttachPartBytes(v->umi, form->section, &bytes)) {
    Trace(kTraceAttach, kTraceCritical, "set_form: failed to read message section for form.\n");
    xvt_dm_post_error("Failed to read the message form's content");
    return 0;
  }
  v->form_pane = form_read_text(window, bytes, CTL_FLAG_READONLY, &v->form_width, &v->form_height);
  return v->form_pane ? 1 : 0;
}

namespace {

void DisplayMessage(ViewerInfo* v) {
  v->building = true;
  v->header_style = OptionIs("Viewer.HeaderStyle", "raw") ? kHeaderRaw : kHeaderShort;
  // Fetching the text may mark the message read on its own, without a
  // word to the windows: whether it was unread is asked first.
  const bool unread = !MM_MsgIsShadowMessage(v->umi) && !MM_MsgIsRead(v->umi);
  v->header_text = ViewerHeaderText(v->umi, v->header_style);
  v->content = ViewerBuildContent(v->umi);
  // Reading a message is what marks it read, and every window hears of it.
  if (unread) MM_MsgSetFlag(v->umi, "\\Seen");
  set_form(v->window);
  FillPanes(v);
  v->building = false;
  // The header is on screen: a message that asks for a receipt may get one
  // (its own test leaves out messages inside messages and the user's own).
  send_read_receipt(v->umi);
}

// The viewer lives in the program's window: it is moved, and shrunk if it
// must, so that none of it lies outside that window's area.
void FitInto(WINDOW parent, RCT* r) {
  RCT area{};
  if (!parent || !xvt_vobj_get_client_rect(parent, &area) || area.right <= area.left) return;
  const int w = std::min(r->right - r->left, area.right - area.left);
  const int h = std::min(r->bottom - r->top, area.bottom - area.top);
  r->left = std::clamp(r->left, area.left, area.right - w);
  r->top = std::clamp(r->top, area.top, area.bottom - h);
  r->right = r->left + w;
  r->bottom = r->top + h;
}

WINDOW createViewerWin(UMI umi, TreeNode* container) {
  RegisterResources();
  auto* v = new ViewerInfo;
  v->umi = umi;
  v->folder_node = container;
  v->folder_id = MM_UMIFolder(umi);
  // Where the last viewer stood, brought onto a smaller screen once per run.
  RCT r{60, 40, 60 + 720, 40 + 560};
  char state[20] = "Norm";
  getWindowGeometry(kSlotViewer, &r, state, sizeof state);
  short resized = 0;
  if (screenWasDownsized() && !(Opt_LookupBoolean("General.ViewerWinResized", &resized, kOptSession) && resized)) {
    Opt_AssignInt("General.ViewerWinResized", 1, kOptSession, 0);
    RCT screen{};
    xvt_vobj_get_client_rect(SCREEN_WIN, &screen);
    scaleWindowForScreen(&screen, &r, &r);
  }
  fitWindowToScreen(&r);
  FitInto(TASK_WIN, &r);
  const std::string title = ViewerTitle(umi, container);
  WINDOW win = xvt_win_create(W_DOC, &r, title.c_str(), kViewerMenuBar, TASK_WIN,
                              WSF_SIZE | WSF_CLOSE | WSF_MAXIMIZABLE | windowAttrForState(state), EM_ALL, viewer_eh,
                              reinterpret_cast<intptr_t>(v));
  if (!win) {
    Trace(kTraceAttach, kTraceCritical, "createViewerWin: the window could not be made\n");
    delete v;
    return NULL_WIN;
  }
  v->window = win;
  xvt_vobj_set_data(win, reinterpret_cast<intptr_t>(v));
  RCT zero{0, 0, 10, 10};
  v->header_pane = xvt_ctl_create(WC_TEXTEDIT, &zero, "", win, CTL_FLAG_READONLY, kHeaderPaneId);
  v->text_pane = xvt_ctl_create(WC_TEXTEDIT, &zero, "", win, CTL_FLAG_READONLY, kTextPaneId);
  // The header's names are padded to one width: its values line up only in
  // a fixed-pitch face, which is what that kind holds until a user chooses.
  ApplyFont(v->header_pane, kFontViewerHeader);
  ApplyFont(v->text_pane, kFontViewerText);
  v->attachment_pane = xvt_ctl_create(WC_LBOX, &zero, "", win, CTL_FLAG_DEFAULT & 0, kAttachPaneId);
  xvt_win_set_describe(win, Describe);
  v->notifier = MM_NotRegister(ViewerWant, ViewerHandle, v, "viewer.c : viewer");
  DisplayMessage(v);
  viewerRegister(umi, win);
  QueryPosition(v);
  setMenus(win);
  return win;
}

void viewer_display_new_msg(WINDOW win, UMI umi, TreeNode* container) {
  ViewerInfo* v = ViewerInfoOf(win);
  if (!v) return;
  viewerUnregister(v->umi);
  v->umi = umi;
  v->folder_node = container;
  v->folder_id = MM_UMIFolder(umi);
  xvt_vobj_set_title(win, ViewerTitle(umi, container).c_str());
  DisplayMessage(v);
  viewerRegister(umi, win);
  QueryPosition(v);
  setMenus(win);
  xvt_vobj_raise(win);
}

void Raise(WINDOW win) {
  xvt_vobj_raise(win);
  ViewerInfo* v = ViewerInfoOf(win);
  xvt_scr_set_focus_vobj(v && v->text_pane ? v->text_pane : win);
}

// The step after Delete or Undelete: the neighbour in the direction the
// user chose, shown before the flag changes, so that the viewer moves on
// instead of closing.
void DeleteWithStepping(ViewerInfo* v, bool undelete) {
  Viewers& s = V();
  const UMI old = v->umi;
  const bool previous = OptionIs("Viewer.ActionDelete", "Previous");
  const int state = v->msg_avail_state;
  WINDOW win = v->window;
  WIN_start_critical();
  s.stepping = win;
  if (!previous && (state == kAvailNext || state == kAvailBoth))
    PostView(E_VIEW_NEXT, old, v->folder_node);
  else if (previous && (state == kAvailPrevious || state == kAvailBoth))
    PostView(E_VIEW_PREVIOUS, old, v->folder_node);
  s.stepping = NULL_WIN;
  WIN_end_critical();
  if (undelete)
    MM_MsgClearFlag(old, "\\Deleted");
  else
    MM_MsgSetFlag(old, "\\Deleted");
  if (WINDOW still = viewerFind(old)) setMenus(still);
}

void Step(ViewerInfo* v, int type) {
  Viewers& s = V();
  WIN_start_critical();
  s.stepping = v->window;
  PostView(type, v->umi, v->folder_node);
  s.stepping = NULL_WIN;
  WIN_end_critical();
}

void ToggleFlag(ViewerInfo* v, const char* flag, bool on) {
  if (on)
    MM_MsgClearFlag(v->umi, flag);
  else
    MM_MsgSetFlag(v->umi, flag);
}

void SaveText(ViewerInfo* v) {
  char path[4096] = "message.txt";
  if (!xvt_dm_post_file_save("Save message text as:", path, sizeof path)) return;
  AttachSaveBytes(path, v->content.text);
}

int SelectedRow(ViewerInfo* v) {
  const int i = xvt_list_get_sel_index(v->attachment_pane);
  if (i >= 0 && static_cast<size_t>(i) < v->content.rows.size()) return i;
  // With one part listed, it is the one meant.
  int only = -1, count = 0;
  for (size_t k = 0; k < v->content.rows.size(); ++k)
    if (!v->content.rows[k].container) {
      only = static_cast<int>(k);
      ++count;
    }
  return count == 1 ? only : -1;
}

}  // namespace

// --- The registry ---------------------------------------------------------------

void viewerRegister(UMI umi, WINDOW win) {
  viewerUnregister(umi);
  V().table.push_back({umi, win});
}

void viewerUnregister(UMI umi) {
  auto& t = V().table;
  t.erase(std::remove_if(t.begin(), t.end(), [umi](const Registered& r) { return r.umi == umi; }), t.end());
}

WINDOW viewerFind(UMI umi) {
  for (const Registered& r : V().table)
    if (r.umi == umi) return r.win;
  return NULL_WIN;
}

WINDOW viewerFindAny() { return V().table.empty() ? NULL_WIN : V().table.front().win; }

WINDOW viewerByIndex(int i) {
  auto& t = V().table;
  return i >= 0 && static_cast<size_t>(i) < t.size() ? t[static_cast<size_t>(i)].win : NULL_WIN;
}

bool viewerExists(UMI umi) { return viewerFind(umi) != NULL_WIN; }
int viewerCount() { return static_cast<int>(V().table.size()); }

ViewerInfo* ViewerInfoOf(WINDOW win) {
  if (!win || !xvt_vobj_is_valid(win)) return nullptr;
  auto* v = reinterpret_cast<ViewerInfo*>(xvt_vobj_get_data(win));
  return v && v->kind == kViewerKind ? v : nullptr;
}

// --- Opening ----------------------------------------------------------------------

void spawnViewer(UMI umi, TreeNode* container) {
  Trace(kTraceAttach, kTraceLow, "spawnViewer: function entry.\n");
  if (!umi) return;
  const bool embedded = MM_MsgIsShadowMessage(umi);
  if (WINDOW win = viewerFind(umi)) {
    ViewerInfo* v = ViewerInfoOf(win);
    if (embedded || (v && v->folder_node == container)) {
      Raise(win);
      return;
    }
  }
  WINDOW reuse = NULL_WIN;
  if (!embedded) {
    const std::string mode = Instances();
    if (strcasecmp(mode.c_str(), "Folder") == 0) {
      for (int i = 0; WINDOW w = viewerByIndex(i); ++i) {
        ViewerInfo* v = ViewerInfoOf(w);
        if (v && v->folder_node == container && !MM_MsgIsShadowMessage(v->umi)) {
          reuse = w;
          break;
        }
      }
    } else if (strcasecmp(mode.c_str(), "Message") != 0) {
      for (int i = 0; WINDOW w = viewerByIndex(i); ++i) {
        ViewerInfo* v = ViewerInfoOf(w);
        if (v && !MM_MsgIsShadowMessage(v->umi)) {
          reuse = w;
          break;
        }
      }
    }
  }
  if (reuse) {
    viewer_display_new_msg(reuse, umi, container);
    Raise(reuse);
    return;
  }
  if (WINDOW win = createViewerWin(umi, container)) Raise(win);
}

void spawnNextViewer(UMI umi, TreeNode* container) {
  if (!viewerCount()) return spawnViewer(umi, container);
  if (WINDOW win = viewerFind(umi)) return Raise(win);
  WINDOW target = V().stepping && ViewerInfoOf(V().stepping) ? V().stepping : viewerFindAny();
  viewer_display_new_msg(target, umi, container);
}

// --- The window ----------------------------------------------------------------------

void setMenus(WINDOW win) {
  ViewerInfo* v = ViewerInfoOf(win);
  if (!v) return;
  const bool shadow = MM_MsgIsShadowMessage(v->umi);
  const int s = v->msg_avail_state;
  xvt_menu_set_item_enabled(win, M_VIEW_NEXT, s == kAvailNext || s == kAvailBoth);
  xvt_menu_set_item_enabled(win, M_VIEW_PREVIOUS, s == kAvailPrevious || s == kAvailBoth);
  const bool deleted = !shadow && MM_MsgIsDeleted(v->umi);
  xvt_menu_set_item_enabled(win, M_VIEW_DELETE, !shadow && !deleted);
  xvt_menu_set_item_enabled(win, M_VIEW_UNDELETE, deleted);
  xvt_menu_set_item_enabled(win, M_VIEW_VIEWED, !shadow);
  xvt_menu_set_item_enabled(win, M_VIEW_SPECIAL, !shadow);
  xvt_menu_set_item_enabled(win, M_VIEW_REPLIED, !shadow);
  xvt_menu_set_item_title(win, M_VIEW_VIEWED, !shadow && MM_MsgIsRead(v->umi) ? "Not ~Viewed" : "~Viewed");
  xvt_menu_set_item_title(win, M_VIEW_SPECIAL, !shadow && MM_MsgIsFlagged(v->umi) ? "Not ~Special" : "~Special");
  xvt_menu_set_item_title(win, M_VIEW_REPLIED, !shadow && MM_MsgIsAnswered(v->umi) ? "Not ~Replied" : "~Replied");
  xvt_menu_set_item_title(win, M_VIEW_RAW_HEADER, v->header_style == kHeaderRaw ? "Short ~Header\tCtrl+U" : "Raw ~Header\tCtrl+U");
  bool any_part = false;
  for (const AttachRow& row : v->content.rows) any_part |= !row.container;
  xvt_menu_set_item_enabled(win, M_VIEW_SAVE_ATTACHMENT, any_part);
  xvt_menu_set_item_enabled(win, M_VIEW_OPEN_ATTACHMENT, any_part);
  xvt_menu_set_item_enabled(win, M_VIEW_SAVE, v->content.has_text);
  xvt_menu_set_item_enabled(win, M_VIEW_EXTRACT, v->content.has_text && !v->content.extracted);
  for (int tag : {M_VIEW_COMPOSE, M_VIEW_REPLY, M_VIEW_REPLY_ALL, M_VIEW_FORWARD, M_VIEW_RESTART})
    xvt_menu_set_item_enabled(win, tag, true);
  xvt_menu_set_item_enabled(win, M_VIEW_PRINT, true);
  // The security commands arrive with their windows.
  for (int tag : {M_VIEW_PGP_DECRYPT, M_VIEW_PGP_VERIFY, M_VIEW_PGP_CAPTURE})
    xvt_menu_set_item_enabled(win, tag, false);
}

void doMenu(WINDOW win, int command) {
  ViewerInfo* v = ViewerInfoOf(win);
  if (!v) return;
  Viewers& s = V();
  if (s.in_menu) return;
  s.in_menu = true;
  switch (command) {
    case M_VIEW_NEXT:
      if (v->msg_avail_state == kAvailNext || v->msg_avail_state == kAvailBoth) Step(v, E_VIEW_NEXT);
      break;
    case M_VIEW_PREVIOUS:
      if (v->msg_avail_state == kAvailPrevious || v->msg_avail_state == kAvailBoth) Step(v, E_VIEW_PREVIOUS);
      break;
    case M_VIEW_DELETE:
      if (!MM_MsgIsShadowMessage(v->umi)) DeleteWithStepping(v, false);
      break;
    case M_VIEW_UNDELETE:
      if (!MM_MsgIsShadowMessage(v->umi)) DeleteWithStepping(v, true);
      break;
    case M_VIEW_VIEWED: ToggleFlag(v, "\\Seen", MM_MsgIsRead(v->umi)); break;
    case M_VIEW_SPECIAL: ToggleFlag(v, "\\Flagged", MM_MsgIsFlagged(v->umi)); break;
    case M_VIEW_REPLIED: ToggleFlag(v, "\\Answered", MM_MsgIsAnswered(v->umi)); break;
    case M_VIEW_RAW_HEADER:
      v->header_style = v->header_style == kHeaderRaw ? kHeaderShort : kHeaderRaw;
      Opt_AssignString("Viewer.HeaderStyle", v->header_style == kHeaderRaw ? "Raw" : "Short", kOptPermanent, 0);
      v->header_text = ViewerHeaderText(v->umi, v->header_style);
      xvt_vobj_set_title(v->header_pane, v->header_text.c_str());
      break;
    case M_VIEW_FIND:
    case M_VIEW_FIND_AGAIN: ViewerFind(v, command == M_VIEW_FIND_AGAIN); break;
    case M_VIEW_SAVE: SaveText(v); break;
    case M_VIEW_PRINT: VIEW_PrintMessages({v->umi}); break;
    case M_VIEW_COMPOSE: compose_new(); break;
    case M_VIEW_REPLY: compose_reply(v->umi, -1); break;
    case M_VIEW_REPLY_ALL: compose_reply(v->umi, 1); break;
    case M_VIEW_FORWARD: compose_forward(v->umi, -1); break;
    case M_VIEW_RESTART: compose_restart(v->umi); break;
    case M_VIEW_EXTRACT:
      if (ViewerExtractEnclosures(v) > 0)
        FillPanes(v);
      else
        xvt_dm_post_note("The text holds no uuencoded or BinHex enclosures.");
      break;
    case M_VIEW_SAVE_ATTACHMENT:
    case M_VIEW_OPEN_ATTACHMENT: {
      const int row = SelectedRow(v);
      if (row < 0) {
        xvt_dm_post_note("Select an attachment first.");
        break;
      }
      if (command == M_VIEW_SAVE_ATTACHMENT)
        ViewerSaveRow(v, static_cast<size_t>(row));
      else
        ViewerOpenRow(v, static_cast<size_t>(row));
      break;
    }
    case M_VIEW_CLOSE:
      saveWindowGeometry(kSlotViewer, win);
      xvt_vobj_destroy(win);
      break;
    default:
      // The program's own commands (Exit, Options) belong to the task window.
      if (TASK_WIN && win != TASK_WIN) {
        EVENT ev{};
        ev.type = E_COMMAND;
        ev.v.cmd.tag = command;
        s.in_menu = false;
        xvt_win_dispatch_event(TASK_WIN, &ev);
        return;
      }
      break;
  }
  s.in_menu = false;
  if (ViewerInfoOf(win)) setMenus(win);
}

long viewer_eh(WINDOW win, EVENT* ev) {
  ViewerInfo* v = ViewerInfoOf(win);
  switch (ev->type) {
    case E_CREATE: WinList_AddHead(win); break;
    case E_FOCUS:
      if (ev->v.active && xvt_vobj_is_valid(win)) {
        WinList_AddHead(win);
        setMenus(win);
      }
      break;
    case E_SIZE:
      if (v && v->header_pane) Layout(v);
      break;
    case E_CLOSE:
      saveWindowGeometry(kSlotViewer, win);
      xvt_vobj_destroy(win);
      break;
    case E_COMMAND: doMenu(win, ev->v.cmd.tag); break;
    case E_MOUSE_DOWN:
      if (v && ev->v.mouse.button == 0) StartDrag(v, ev->v.mouse.where.v);
      break;
    case E_MOUSE_MOVE:
      if (v && v->dragging) Drag(v, ev->v.mouse.where.v);
      break;
    case E_MOUSE_UP:
      if (v && v->dragging) EndDrag(v);
      break;
    case E_CHAR:
      if (ev->v.chr.ch == K_DEL) doMenu(win, M_VIEW_DELETE);
      // Space reads on: a page, and from the end of the text the next message.
      if (v && ev->v.chr.ch == ' ' && !ev->v.chr.control && !xvt_ctl_page_text(v->text_pane, !ev->v.chr.shift) &&
          !ev->v.chr.shift)
        doMenu(win, M_VIEW_NEXT);
      if (ev->v.chr.control && (ev->v.chr.ch == 'w' || ev->v.chr.ch == 'W')) doMenu(win, M_VIEW_CLOSE);
      break;
    case E_CONTROL:
      if (v && ev->v.ctl.id == kAttachPaneId && ev->v.ctl.ci.v.lbox.dbl_click) {
        const int row = xvt_list_get_sel_index(v->attachment_pane);
        if (row >= 0) ViewerOpenRow(v, static_cast<size_t>(row));
      }
      break;
    case E_DESTROY:
      WinList_Remove(win);
      if (v) {
        viewerUnregister(v->umi);
        if (v->notifier >= 0) MM_NotUnregister(v->notifier);
        if (MM_MsgIsShadowMessage(v->umi) && !viewerExists(v->umi)) MM_MsgReleaseShadowMessage(v->umi);
        xvt_vobj_set_data(win, 0);
        v->kind = 0;
        delete v;
      }
      break;
    default: break;
  }
  return 0;
}
