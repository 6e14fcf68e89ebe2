// Font slots and column places of the organizer's lines.
#include "src/organizer/node_draw.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "src/options/font_options.h"
#include "src/options/options.h"
#include "src/organizer/tree_internal.h"

namespace {

struct Slot {
  std::string family = "Helvetica";
  int size = 12;
  unsigned style = XVT_FS_NONE;
  COLOR color = COLOR_BLACK;
  XVT_FNTID font = nullptr;
};

Slot* Slots() {
  static Slot slots[kFontSlots];
  static bool set = false;
  if (!set) {
    set = true;
    slots[kSlotService].style = XVT_FS_BOLD;
    slots[kSlotFolder].color = COLOR_DKGRAY;
    slots[kSlotFolder].style = XVT_FS_ITALIC;
    slots[kSlotGroup].style = XVT_FS_BOLD;
    slots[kSlotHighPriority].color = COLOR_RED;
    slots[kSlotLowPriority].color = 0x008000;
  }
  return slots;
}

bool g_priority_info = false;
COLOR g_text_colors[3] = {COLOR_RED, COLOR_BLACK, 0x00FF00};

struct StripOf {
  WINDOW tree;
  CM_INFO* info;
};
std::vector<StripOf>& Strips() {
  static std::vector<StripOf> strips;
  return strips;
}

// The geometry of the layouts when no strip is attached: the defaults a
// new strip starts with.
const int kDefaultWidths[][6] = {
    {0, 0, 0, 0, 0, 0},            // none
    {32, 170, 0, 0, 0, 0},         // service
    {22, 150, 150, 72, 0, 0},      // folder
    {22, 150, 150, 0, 0, 0},       // search
    {28, 170, 170, 0, 0, 0},       // group
    {27, 150, 200, 120, 50, 170},   // message
    {27, 150, 200, 120, 50, 170},   // message of a search
};

}  // namespace

XVT_FNTID MSG_SlotFont(int slot) {
  if (slot < 0 || slot >= kFontSlots) slot = kSlotNormalPriority;
  Slot& s = Slots()[slot];
  // The preferences change the options and then post E_FONT_CHANGED; the
  // lines redraw in whatever order their handlers run, so each draw asks
  // for the font stored now rather than waiting to be told.
  if (Opt_Ready()) {
    const FontChoice chosen = Font_Lookup(slot);
    if (chosen.family != s.family || chosen.size != s.size || chosen.style != s.style) {
      if (s.font) xvt_font_destroy(s.font);
      s.font = nullptr;
      s.family = chosen.family;
      s.size = chosen.size;
      s.style = chosen.style;
    }
  }
  if (!s.font) s.font = xvt_font_create(s.family.c_str(), s.size, s.style);
  return s.font;
}

COLOR MSG_SlotColor(int slot) { return slot >= 0 && slot < kFontSlots ? Slots()[slot].color : COLOR_BLACK; }

void MSG_SetSlot(int slot, const char* family, int size, unsigned style, COLOR color) {
  if (slot < 0 || slot >= kFontSlots) return;
  Slot& s = Slots()[slot];
  if (s.font) xvt_font_destroy(s.font);
  s.font = nullptr;
  s.family = family ? family : "Helvetica";
  s.size = size;
  s.style = style;
  s.color = color;
}

void MSG_FreeSlots() {
  for (int i = 0; i < kFontSlots; ++i) {
    Slot& s = Slots()[i];
    if (s.font) xvt_font_destroy(s.font);
    s.font = nullptr;
  }
}

COLOR MSG_ColorFromWord(const char* word) {
  static const std::pair<const char*, COLOR> kWords[] = {
      {"RED", COLOR_RED},       {"GREEN", 0x00FF00},       {"BLUE", COLOR_BLUE},     {"CYAN", 0x00FFFF},
      {"MAGENTA", 0xFF00FF},    {"YELLOW", 0xFFFF00},      {"DKGRAY", COLOR_DKGRAY}, {"GRAY", COLOR_GRAY},
      {"LTGRAY", COLOR_LTGRAY}, {"WHITE", COLOR_WHITE},    {"BLACK", COLOR_BLACK},
  };
  if (!word) return 0;
  for (const auto& [name, color] : kWords)
    if (std::strcmp(word, name) == 0) return color;
  return 0;
}

void MSG_ReadDrawOptions() {
  if (!Opt_Ready()) return;
  short on = 0;
  if (!Opt_LookupBoolean("General.PriorityHeader.Info", &on, kOptSession)) {
    Opt_AssignBoolean("General.PriorityHeader.Info", 0, kOptSession, 0);
    on = 0;
  }
  g_priority_info = on != 0;
  const char* keys[3] = {"Color.MessageText.High", "Color.MessageText.Normal", "Color.MessageText.Low"};
  const COLOR defaults[3] = {COLOR_RED, COLOR_BLACK, 0x00FF00};
  for (int i = 0; i < 3; ++i) {
    const std::string word = Opt_LookupText(keys[i], kOptSession);
    g_text_colors[i] = word.empty() ? defaults[i] : MSG_ColorFromWord(word.c_str());
  }
}

bool MSG_PriorityInfo() { return g_priority_info; }
COLOR MSG_MessageTextColor(int priority) { return g_text_colors[std::clamp(priority, 0, 2)]; }

void MSG_SetColumnStrip(WINDOW tree, CM_INFO* info) {
  auto& strips = Strips();
  strips.erase(std::remove_if(strips.begin(), strips.end(), [tree](const StripOf& s) { return s.tree == tree; }),
               strips.end());
  if (info) strips.push_back({tree, info});
}

CM_INFO* MSG_ColumnStrip(WINDOW tree) {
  for (const StripOf& s : Strips())
    if (s.tree == tree) return s.info;
  return nullptr;
}

bool MSG_ColumnPlace(WINDOW win, const TreeNode* node, const RCT* rect, int n, int* x, int* width) {
  const int index = MSG_CM_LayoutOf(node);
  if (index <= kCMLayoutNone || index > kCMLayoutSearchMessage || n < 0 || n >= 6) return false;
  int offset = 0, size = 0;
  if (CM_INFO* info = MSG_ColumnStrip(win)) {
    // Columns are made in order, so column n of a layout has id n + 1.
    if (CM_ColumnGetDimension(info, MSG_CM_LayoutId(info, index), n + 1, &offset, &size) != 0) return false;
  } else {
    size = kDefaultWidths[index][n];
    if (size == 0) return false;
    for (int k = 0; k < n; ++k) offset += kDefaultWidths[index][k];
  }
  // Offsets count from the line's own start, after the connectors' room,
  // so that an icon never lies under a line's open/close box.
  *x = rect->left + offset;
  *width = size;
  return true;
}

int MSG_ColumnsRight(WINDOW win, const TreeNode* node, const RCT* rect) {
  int right = rect->left;
  for (int n = 0; n < 6; ++n) {
    int x = 0, w = 0;
    if (MSG_ColumnPlace(win, node, rect, n, &x, &w)) right = std::max(right, x + w);
  }
  return right;
}

void MSG_DrawLineIcon(WINDOW win, MsgLineIcon icon, int x, int top, COLOR ink, bool filled, COLOR detail) {
  CPEN pen{1, PAT_SOLID, ink};
  xvt_dwin_set_pen(win, &pen);
  CBRUSH brush{filled ? PAT_SOLID : PAT_HOLLOW, ink};
  xvt_dwin_set_brush(win, &brush);
  const COLOR inner = filled ? detail : ink;
  CPEN detail_pen{1, PAT_SOLID, inner};
  auto line = [&](int x1, int y1, int x2, int y2) {
    xvt_dwin_set_pen(win, &detail_pen);
    xvt_dwin_draw_line(win, PNT{x1, y1}, PNT{x2, y2});
  };
  switch (icon) {
    case kLineIconService: {
      RCT box{x + 3, top + 1, x + 15, top + 15};
      xvt_dwin_draw_rect(win, &box);
      line(x + 3, top + 8, x + 15, top + 8);
      line(x + 7, top + 4, x + 11, top + 4);
      line(x + 7, top + 11, x + 11, top + 11);
      break;
    }
    case kLineIconFolder: {
      RCT tab{x + 1, top + 2, x + 8, top + 5};
      xvt_dwin_draw_rect(win, &tab);
      RCT body{x + 1, top + 4, x + 17, top + 14};
      xvt_dwin_set_pen(win, &pen);
      xvt_dwin_draw_rect(win, &body);
      break;
    }
    case kLineIconMessage: {
      RCT box{x + 1, top + 3, x + 17, top + 14};
      xvt_dwin_draw_rect(win, &box);
      // The flap: from the upper corners to the middle.
      line(x + 1, top + 3, x + 9, top + 9);
      line(x + 9, top + 9, x + 16, top + 3);
      break;
    }
  }
}

bool MSG_DrawColumnText(WINDOW win, const TreeNode* node, const RCT* rect, int n, const char* text, int len,
                        int* left, int* right) {
  int x = 0, w = 0;
  if (!MSG_ColumnPlace(win, node, rect, n, &x, &w)) return false;
  if (!text || len == 0) return true;
  if (len < 0) len = static_cast<int>(std::strlen(text));
  // A text wider than its column is cut, so it never runs under the next one.
  RCT clip{x, rect->top, x + w - 2, rect->bottom};
  xvt_dwin_set_clip(win, &clip);
  xvt_dwin_draw_text(win, x + 2, rect->top + 12, text, len);
  xvt_dwin_set_clip(win, nullptr);
  const int drawn = std::min(xvt_dwin_get_text_width(win, text, len), w - 2);
  if (left) *left = std::min(*left, x);
  if (right) *right = std::max(*right, x + 2 + drawn);
  return true;
}
