// The fonts a user can choose, one per kind of text the windows show, and
// where each choice lives in the options: Font.Face.<kind>, Font.Size.<kind>
// and Font.Style.<kind>. A change is announced by E_FONT_CHANGED with the
// kind in `value`, so each window takes only what concerns it.
#pragma once

#include <string>

// The organizer's line kinds share their numbers with its font slots.
enum FontKind {
  kFontCompose = 0,
  kFontViewerHeader = 1,
  kFontViewerText = 2,
  kFontService = 3,
  kFontSubscribedFolder = 4,
  kFontFolder = 5,
  kFontSearch = 6,
  kFontGroup = 7,
  kFontLowPriority = 8,
  kFontNormalPriority = 9,
  kFontHighPriority = 10,
  kFontKindCount = 11
};

struct FontChoice {
  std::string family;
  int size = 12;       // pixels
  unsigned style = 0;  // XVT_FS_* bits
  bool operator==(const FontChoice&) const = default;
};

constexpr size_t kFontFamilyLimit = 64;
constexpr int kFontSizeMin = 6;
constexpr int kFontSizeMax = 72;

const char* Font_KindName(int kind);   // the word in the option keys; null out of range
const char* Font_KindLabel(int kind);  // what the preferences call it
FontChoice Font_Default(int kind);
// Reads three stored texts over the kind's default: a part that is missing
// or unusable (too long a family, a size out of range, an unknown style
// word) keeps the default's part. False when any part was refused.
bool Font_Parse(const char* face, const char* size, const char* style, FontChoice* inout);
FontChoice Font_Lookup(int kind);
void Font_Assign(int kind, const FontChoice& font, int level);
// "Helvetica 12 Bold Italic": for the preferences to show.
std::string Font_Describe(const FontChoice& font);
