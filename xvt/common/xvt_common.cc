// Parts of the facade that do not depend on the backend: resource tables,
// string lists, font records and string helpers.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <new>
#include <string>
#include <vector>

#include "xvt/common/strfmt.h"
#include "xvt/xvt.h"

namespace {

struct Resources {
  std::map<int, const WIN_DEF*> dialogs;
  std::map<int, const MENU_ITEM*> menubars;
  std::map<int, std::string> icons;
};

Resources& Res() {
  static Resources r;
  return r;
}

}  // namespace

void xvt_res_register_dialog(int rid, const WIN_DEF* defs) { Res().dialogs[rid] = defs; }
void xvt_res_register_menubar(int rid, const MENU_ITEM* items) { Res().menubars[rid] = items; }
void xvt_res_register_icon(int rid, const char* path) { Res().icons[rid] = path ? path : ""; }

const WIN_DEF* xvt_res_get_dialog(int rid) {
  auto it = Res().dialogs.find(rid);
  return it == Res().dialogs.end() ? nullptr : it->second;
}

const MENU_ITEM* xvt_res_get_menubar(int rid) {
  auto it = Res().menubars.find(rid);
  return it == Res().menubars.end() ? nullptr : it->second;
}

// Backends use this to find the image of an icon id; null when unregistered.
const char* xvt_res_icon_path(int rid) {
  auto it = Res().icons.find(rid);
  return it == Res().icons.end() ? nullptr : it->second.c_str();
}

// ---------------------------------------------------------------------------
// String lists. Elements are kept in a vector; an element handle is the
// element's position plus one, so handles stay small and need no allocation.

struct xvt_slist {
  std::vector<std::pair<std::string, long>> items;
};

SLIST xvt_slist_create(void) { return new (std::nothrow) xvt_slist; }
void xvt_slist_destroy(SLIST list) { delete list; }

static size_t EltIndex(SLIST_ELT elt) { return reinterpret_cast<uintptr_t>(elt) - 1; }
static SLIST_ELT MakeElt(size_t index) { return reinterpret_cast<SLIST_ELT>(static_cast<uintptr_t>(index + 1)); }

bool xvt_slist_add_at_elt(SLIST list, SLIST_ELT elt, const char* text, long data) {
  if (!list) return false;
  size_t pos = elt ? EltIndex(elt) + 1 : list->items.size();
  if (pos > list->items.size()) pos = list->items.size();
  list->items.insert(list->items.begin() + static_cast<long>(pos), {text ? text : "", data});
  return true;
}

int xvt_slist_count(SLIST list) { return list ? static_cast<int>(list->items.size()) : 0; }

SLIST_ELT xvt_slist_get_first(SLIST list) { return (list && !list->items.empty()) ? MakeElt(0) : nullptr; }

SLIST_ELT xvt_slist_get_next(SLIST list, SLIST_ELT elt) {
  if (!list || !elt) return nullptr;
  size_t next = EltIndex(elt) + 1;
  return next < list->items.size() ? MakeElt(next) : nullptr;
}

const char* xvt_slist_get(SLIST list, SLIST_ELT elt, long* data) {
  if (!list || !elt || EltIndex(elt) >= list->items.size()) return nullptr;
  auto& item = list->items[EltIndex(elt)];
  if (data) *data = item.second;
  return item.first.c_str();
}

long xvt_slist_get_data(SLIST list, SLIST_ELT elt) {
  long data = 0;
  return xvt_slist_get(list, elt, &data) ? data : 0;
}

// ---------------------------------------------------------------------------
// Fonts are plain descriptions; each backend turns them into its own fonts.

struct xvt_font {
  std::string family;
  int size;
  unsigned style;
};

XVT_FNTID xvt_font_create(const char* family, int size, unsigned style) {
  return new (std::nothrow) xvt_font{family ? family : "", size > 0 ? size : 12, style};
}
void xvt_font_destroy(XVT_FNTID font) { delete font; }
const char* xvt_font_get_family(XVT_FNTID font) { return font ? font->family.c_str() : ""; }
int xvt_font_get_size(XVT_FNTID font) { return font ? font->size : 12; }
unsigned xvt_font_get_style(XVT_FNTID font) { return font ? font->style : 0; }

// ---------------------------------------------------------------------------

std::string StringPrintfV(const char* format, va_list ap) {
  if (!format) return std::string();
  char small[1024];
  va_list copy;
  va_copy(copy, ap);
  int n = std::vsnprintf(small, sizeof small, format, copy);
  va_end(copy);
  if (n < 0) return std::string();
  if (static_cast<size_t>(n) < sizeof small) return std::string(small, static_cast<size_t>(n));
  std::string big(static_cast<size_t>(n) + 1, '\0');
  std::vsnprintf(big.data(), big.size(), format, ap);
  big.resize(static_cast<size_t>(n));
  return big;
}

void CopyOut(const std::string& text, char* buf, size_t size) {
  if (!buf || size == 0) return;
  size_t n = std::min(text.size(), size - 1);
  while (n > 0 && n < text.size() && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80) --n;
  std::memcpy(buf, text.data(), n);
  buf[n] = '\0';
}

std::string xvt_ctl_get_text(WINDOW win, int id, size_t limit) {
  std::string text(limit + 1, '\0');
  xvt_vobj_get_title(xvt_win_get_ctl(win, id), text.data(), text.size());
  text.resize(std::strlen(text.c_str()));
  return text;
}
