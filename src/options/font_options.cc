#include "src/options/font_options.h"

#include <strings.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "src/options/options.h"
#include "xvt/xvt.h"

namespace {

struct Kind {
  const char* name;
  const char* label;
  FontChoice font;
};

// The faces the windows drew with before anyone chose: text that lines up
// (headers, compose) in a fixed pitch, the organizer's lines in a sans face
// that sets each line kind apart by its style.
const Kind kKinds[kFontKindCount] = {
    {"Compose", "Compose text", {"mono", 14, XVT_FS_NONE}},
    {"ViewerHeader", "Message headers", {"fixed", 13, XVT_FS_NONE}},
    {"Viewer", "Message text", {"Helvetica", 13, XVT_FS_NONE}},
    {"Service", "Message services", {"Helvetica", 12, XVT_FS_BOLD}},
    {"SubscribedFolder", "Subscribed folders", {"Helvetica", 12, XVT_FS_NONE}},
    {"Folder", "Other folders", {"Helvetica", 12, XVT_FS_ITALIC}},
    {"Search", "Saved searches", {"Helvetica", 12, XVT_FS_NONE}},
    {"Group", "Message groups", {"Helvetica", 12, XVT_FS_BOLD}},
    {"LowPriority", "Low-priority mail", {"Helvetica", 12, XVT_FS_NONE}},
    {"NormalPriority", "Normal-priority mail", {"Helvetica", 12, XVT_FS_NONE}},
    {"HighPriority", "High-priority mail", {"Helvetica", 12, XVT_FS_NONE}},
};

const std::pair<const char*, unsigned> kStyleWords[] = {
    {"Bold", XVT_FS_BOLD}, {"Italic", XVT_FS_ITALIC}, {"Underline", XVT_FS_UNDERLINE}};

std::string Key(const char* part, int kind) { return std::string("Font.") + part + "." + Font_KindName(kind); }

}  // namespace

const char* Font_KindName(int kind) { return kind >= 0 && kind < kFontKindCount ? kKinds[kind].name : nullptr; }
const char* Font_KindLabel(int kind) { return kind >= 0 && kind < kFontKindCount ? kKinds[kind].label : nullptr; }
FontChoice Font_Default(int kind) { return kind >= 0 && kind < kFontKindCount ? kKinds[kind].font : FontChoice{}; }

bool Font_Parse(const char* face, const char* size, const char* style, FontChoice* inout) {
  bool good = true;
  if (face && *face) {
    const size_t n = std::strlen(face);
    // A family is a name on one line; control characters come from a spoiled file.
    bool plain = n <= kFontFamilyLimit;
    for (size_t i = 0; plain && i < n; ++i) plain = static_cast<unsigned char>(face[i]) >= 0x20;
    if (plain) inout->family = face;
    good = good && plain;
  }
  if (size && *size) {
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(size, &end, 10);
    const bool ok = !errno && *end == '\0' && v >= kFontSizeMin && v <= kFontSizeMax;
    if (ok) inout->size = static_cast<int>(v);
    good = good && ok;
  }
  if (style && *style) {
    unsigned bits = 0;
    bool ok = std::strlen(style) <= 100;
    std::istringstream words(ok ? style : "");
    std::string w;
    while (ok && words >> w) {
      if (strcasecmp(w.c_str(), "Normal") == 0) continue;
      bool known = false;
      for (const auto& [word, bit] : kStyleWords)
        if (strcasecmp(w.c_str(), word) == 0) bits |= bit, known = true;
      ok = known;
    }
    if (ok) inout->style = bits;
    good = good && ok;
  }
  return good;
}

FontChoice Font_Lookup(int kind) {
  FontChoice font = Font_Default(kind);
  if (!Font_KindName(kind) || !Opt_Ready()) return font;
  Font_Parse(Opt_LookupText(Key("Face", kind).c_str(), kOptSession).c_str(),
             Opt_LookupText(Key("Size", kind).c_str(), kOptSession).c_str(),
             Opt_LookupText(Key("Style", kind).c_str(), kOptSession).c_str(), &font);
  return font;
}

void Font_Assign(int kind, const FontChoice& font, int level) {
  if (!Font_KindName(kind)) return;
  Opt_AssignString(Key("Face", kind).c_str(), font.family.c_str(), level, 0);
  Opt_AssignString(Key("Size", kind).c_str(), std::to_string(font.size).c_str(), level, 0);
  std::string words;
  for (const auto& [word, bit] : kStyleWords)
    if (font.style & bit) words += (words.empty() ? "" : " ") + std::string(word);
  Opt_AssignString(Key("Style", kind).c_str(), words.empty() ? "Normal" : words.c_str(), level, 0);
}

std::string Font_Describe(const FontChoice& font) {
  std::string text = font.family + " " + std::to_string(font.size);
  for (const auto& [word, bit] : kStyleWords)
    if (font.style & bit) text += std::string(" ") + word;
  return text;
}
