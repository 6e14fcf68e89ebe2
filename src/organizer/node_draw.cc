// Font slots and column places of the organizer's lines.
#include "src/organizer/node_draw.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

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
    {27, 150, 200, 90, 40, 170},   // message
    {27, 150, 200, 90, 40, 170},   // message of a search
};

int Margin(WINDOW win) {
  TreeInfo* info = TREE_GetInfo(win);
  return info ? info->margin : 0;
}

}  // namespace

XVT_FNTID MSG_SlotFont(int slot) {
  if (slot < 0 || slot >= kFontSlots) slot = kSlotNormalPriority;
  Slot& s = Slots()[slot];
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
  // Offsets count from the line's own start, before the margin.
  *x = rect->left - Margin(win) + offset;
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
