// The column manager window: a layout's columns as a plain list of the tree
// widget, one line per column with a check mark that tells whether the
// column shows. A click on a line (or Enter or Space) shows or hides the
// column; Move Up and Move Down change its place. The strip, the tree below
// it and the options follow every change at once.
#include <algorithm>
#include <string>

#include "src/base/trace.h"
#include "src/organizer/columns.h"

namespace {

constexpr int kLineHeight = 18;
constexpr int kBox = 10;  // the check box's side
constexpr int kButtonWidth = 90, kButtonHeight = 24, kGap = 8;
constexpr int kListWidth = 200;
constexpr COLOR kBoxColor = COLOR_DKGRAY;

struct CM_MANAGER_REC {
  CM_INFO* info = nullptr;
  int layout = kCMNone;
  WINDOW tree = NULL_WIN;
};

// The data record of a line: its first word is the node's data type, which
// for a column is none of the mail kinds.
struct ManagerLine {
  int32_t type = kNodeDataTypeNone;
  CM_MANAGER_REC* rec = nullptr;
  int column = kCMNone;
};

ManagerLine* LineOf(const TreeNode* node) { return static_cast<ManagerLine*>(TREE_GetData(node)); }

void DrawLine(WINDOW win, TreeNode* node, RCT* rect) {
  ManagerLine* line = LineOf(node);
  if (!line) return;
  CM_INFO* info = line->rec->info;
  int layout = line->rec->layout;
  int top = rect->top + (kLineHeight - kBox) / 2;
  RCT box{rect->left + 2, top, rect->left + 2 + kBox, top + kBox};
  CPEN pen{1, PAT_SOLID, kBoxColor};
  CBRUSH fill{PAT_SOLID, COLOR_WHITE};
  xvt_dwin_set_pen(win, &pen);
  xvt_dwin_set_brush(win, &fill);
  xvt_dwin_draw_rect(win, &box);
  if (CM_ColumnIsVisible(info, layout, line->column)) {
    // The check mark: a short stroke down and a long one up.
    CPEN mark{2, PAT_SOLID, COLOR_BLACK};
    xvt_dwin_set_pen(win, &mark);
    xvt_dwin_draw_line(win, PNT{box.left + 2, box.top + 5}, PNT{box.left + 4, box.top + 8});
    xvt_dwin_draw_line(win, PNT{box.left + 4, box.top + 8}, PNT{box.left + 8, box.top + 2});
  }
  const char* name = CM_ColumnGetNameTag(info, layout, line->column);
  xvt_dwin_draw_text(win, box.right + 6, rect->top + 13, name ? name : "", -1);
}

int LineWidth(WINDOW win, TreeNode* node, RCT*) {
  ManagerLine* line = LineOf(node);
  const char* name = line ? CM_ColumnGetNameTag(line->rec->info, line->rec->layout, line->column) : nullptr;
  return 2 + kBox + 6 + xvt_dwin_get_text_width(win, name ? name : "", -1) + 4;
}

// Shows or hides the line's column; the offsets of the others change with it.
void Toggle(TreeNode* node) {
  ManagerLine* line = LineOf(node);
  if (!line) return;
  CM_INFO* info = line->rec->info;
  int layout = line->rec->layout;
  CM_ColumnSetVisible(info, layout, line->column, !CM_ColumnIsVisible(info, layout, line->column));
  for (int n = 0; n < CM_LayoutGetNumColumn(info, layout); ++n)
    MSG_CM_SaveColumn(info, layout, CM_ColumnGetColumnByN(info, layout, n));
  TREE_RedrawNode(node);
}

int LineAction(WINDOW, TreeNode* node, int event) {
  switch (event) {
    case kNodeEventClick:
    case kNodeEventDoubleClick:  // each press of a double click toggles, as on a check box
      Toggle(node);
      break;
    case kNodeEventDestroy:
      delete LineOf(node);
      TREE_SetData(node, nullptr);
      break;
    default: break;
  }
  return kNodeActionOk;
}

// The lines, one per column in the strip's order; `select` is selected.
void Fill(CM_MANAGER_REC* rec, int select) {
  TreeNode* root = TREE_GetRoot(rec->tree);
  TREE_SuspendUpdates(rec->tree);
  TREE_RemoveKidNodes(root);
  for (int n = 0; n < CM_LayoutGetNumColumn(rec->info, rec->layout); ++n) {
    auto* line = new ManagerLine;
    line->rec = rec;
    line->column = CM_ColumnGetColumnByN(rec->info, rec->layout, n);
    TreeNode* node = TREE_NewNode(1, line, 0, DrawLine, LineAction, LineWidth);
    if (!node) {
      delete line;
      continue;
    }
    TREE_AppendNode(root, node);
    if (line->column == select) TREE_SelectOnlyNode(node, 1);
  }
  TREE_ResumeUpdates(rec->tree);
}

int SelectedColumn(CM_MANAGER_REC* rec) {
  TreeNode* node = TREE_FirstSelection(rec->tree);
  ManagerLine* line = node ? LineOf(node) : nullptr;
  return line ? line->column : kCMNone;
}

// Moves the selected column one place up or down.
void Move(CM_MANAGER_REC* rec, bool up) {
  int column = SelectedColumn(rec);
  if (column == kCMNone) return;
  int count = CM_LayoutGetNumColumn(rec->info, rec->layout), at = -1;
  for (int n = 0; n < count; ++n)
    if (CM_ColumnGetColumnByN(rec->info, rec->layout, n) == column) at = n;
  if (at < 0 || (up && at == 0) || (!up && at == count - 1)) return;
  // Up: before the previous one. Down: before the one after the next, or to the end.
  int before = up ? CM_ColumnGetColumnByN(rec->info, rec->layout, at - 1)
                  : (at + 2 < count ? CM_ColumnGetColumnByN(rec->info, rec->layout, at + 2) : kCMNone);
  if (CM_ColumnMoveSelected(rec->info, rec->layout, column, before)) Fill(rec, column);
}

void PlaceControls(WINDOW win, CM_MANAGER_REC* rec) {
  RCT client{};
  xvt_vobj_get_client_rect(win, &client);
  int buttons_x = client.right - kGap - kButtonWidth;
  RCT list{kGap, kGap, std::max(buttons_x - kGap, kGap + 1), std::max(client.bottom - kGap, kGap + 1)};
  if (rec->tree) TREE_ResizeTree(rec->tree, &list);
  for (int id : {kCMManagerUp, kCMManagerDown, kCMManagerClose}) {
    WINDOW b = xvt_win_get_ctl(win, id);
    int top = kGap + (id - 1) * (kButtonHeight + kGap);
    RCT r{buttons_x, top, buttons_x + kButtonWidth, top + kButtonHeight};
    if (b) xvt_vobj_move(b, &r);
  }
}

long manager_eh(WINDOW win, EVENT* ev) {
  auto* rec = reinterpret_cast<CM_MANAGER_REC*>(xvt_vobj_get_data(win));
  if (!rec) return 0;
  switch (ev->type) {
    case E_CONTROL:
    case E_COMMAND: {
      int id = ev->type == E_CONTROL ? ev->v.ctl.id : ev->v.cmd.tag;
      if (id == kCMManagerUp || id == kCMManagerDown) Move(rec, id == kCMManagerUp);
      if (id == kCMManagerClose) xvt_vobj_destroy(win);
      break;
    }
    case E_CHAR:
      // Keys the list passes on: Space shows or hides the selected column.
      if (ev->v.chr.ch == ' ') {
        if (TreeNode* node = TREE_FirstSelection(rec->tree)) Toggle(node);
      } else if (ev->v.chr.ch == K_ESC) {
        xvt_vobj_destroy(win);
      }
      break;
    case E_SIZE: PlaceControls(win, rec); break;
    case E_CLOSE: xvt_vobj_destroy(win); break;
    case E_DESTROY:
      if (rec->info && rec->info->manager == win) rec->info->manager = NULL_WIN;
      xvt_vobj_set_data(win, 0);
      delete rec;
      break;
    default: break;
  }
  return 0;
}

}  // namespace

WINDOW CM_ManagerWindowCreate(CM_INFO* info, int layout) {
  Trace(kTraceOrganizer, kTraceAll, "CM_ManagerWindowCreate: function entry.");
  if (!info) return NULL_WIN;
  if (layout == kCMNone) layout = info->current;
  const char* name = CM_LayoutGetNameTag(info, layout);
  if (!name) return NULL_WIN;
  if (info->manager) {
    // One manager per strip: it shows the layout asked for now.
    auto* rec = reinterpret_cast<CM_MANAGER_REC*>(xvt_vobj_get_data(info->manager));
    if (rec && rec->layout != layout) {
      rec->layout = layout;
      xvt_vobj_set_title(info->manager, (std::string("Columns: ") + name).c_str());
      Fill(rec, kCMNone);
    }
    xvt_vobj_raise(info->manager);
    return info->manager;
  }
  auto* rec = new CM_MANAGER_REC;
  rec->info = info;
  rec->layout = layout;
  int lines = std::max(CM_LayoutGetNumColumn(info, layout), 3);
  int height = std::max(lines * kLineHeight + 2 * kGap + 4, 3 * (kButtonHeight + kGap) + kGap);
  RCT r{40, 40, 40 + kGap + kListWidth + kGap + kButtonWidth + kGap, 40 + height};
  std::string title = std::string("Columns: ") + name;
  WINDOW win = xvt_win_create(W_DOC, &r, title.c_str(), 0, TASK_WIN, WSF_SIZE | WSF_CLOSE, EM_ALL, manager_eh,
                              reinterpret_cast<intptr_t>(rec));
  if (!win) {
    delete rec;
    return NULL_WIN;
  }
  const std::pair<int, const char*> buttons[] = {
      {kCMManagerUp, "Move ~Up"}, {kCMManagerDown, "Move ~Down"}, {kCMManagerClose, "Close"}};
  for (auto [id, text] : buttons) {
    RCT b{0, 0, kButtonWidth, kButtonHeight};
    xvt_ctl_create(WC_PUSHBUTTON, &b, text, win, 0, id);
  }
  RCT list{kGap, kGap, kGap + kListWidth, height - kGap};
  rec->tree = TREE_CreateTreeWidget(win, &list, 20, 0, 0, 0, kLineHeight, 0, nullptr, nullptr, nullptr, nullptr);
  if (!rec->tree) {
    xvt_vobj_destroy(win);
    return NULL_WIN;
  }
  info->manager = win;
  PlaceControls(win, rec);
  Fill(rec, kCMNone);
  return win;
}

void CM_ManagerWindowDestroy(CM_INFO* info) {
  if (info && info->manager) xvt_vobj_destroy(info->manager);
}
