#include "editor/ekeys/key_event.h"

#include "editor/ekeys/key_names.h"
#include "rclib/rc.h"

namespace {

// The facade's codes of the keys that are not characters.
int SpecialSym(int ch) {
  switch (ch) {
    case K_UP: return kKsymUp;
    case K_DOWN: return kKsymDown;
    case K_LEFT: return kKsymLeft;
    case K_RIGHT: return kKsymRight;
    case K_PREV: return kKsymPgUp;
    case K_NEXT: return kKsymPgDn;
    case K_LHOME: return kKsymHome;
    case K_LEND: return kKsymEnd;
    case K_HOME: return kKsymCtlHome;
    case K_END: return kKsymCtlEnd;
    case K_INS: return kKsymIns;
    case K_WLEFT: return kKsymCtlLeft;
    case K_WRIGHT: return kKsymCtlRight;
    case K_BTAB: return kKsymBacktab;
    default: break;
  }
  // F16 and up have no names in the file but keep their numbers, so a map
  // can still bind them by number.
  if (ch >= K_F1 && ch <= K_F24) return kKsymF1 + (ch - K_F1);
  return -1;
}

int Utf8(uint32_t cp, char* out) {
  if (cp < 0x80) {
    out[0] = static_cast<char>(cp);
    return 1;
  }
  if (cp < 0x800) {
    out[0] = static_cast<char>(0xC0 | (cp >> 6));
    out[1] = static_cast<char>(0x80 | (cp & 0x3F));
    return 2;
  }
  if (cp < 0x10000) {
    out[0] = static_cast<char>(0xE0 | (cp >> 12));
    out[1] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out[2] = static_cast<char>(0x80 | (cp & 0x3F));
    return 3;
  }
  out[0] = static_cast<char>(0xF0 | (cp >> 18));
  out[1] = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
  out[2] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
  out[3] = static_cast<char>(0x80 | (cp & 0x3F));
  return 4;
}

}  // namespace

int km_key_from_event(const EVENT* ev, KM_KEY* key) {
  if (!ev || !key || ev->type != E_CHAR) return RC_FAIL;
  *key = KM_KEY();
  int ch = ev->v.chr.ch;
  key->shift = ev->v.chr.shift;
  key->control = ev->v.chr.control;
  int special = ev->v.chr.text ? -1 : SpecialSym(ch);
  if (special >= 0) {
    key->sym = static_cast<uint16_t>(special);
    return RC_OK;
  }
  if (ch <= 0 || ch > 0x10FFFF || (ch >= 0xD800 && ch <= 0xDFFF)) return RC_FAIL;
  if (key->control && ch >= ' ' && ch != K_DEL) {
    // Control with a letter or one of @ [ \ ] ^ _ gives its control code;
    // with anything else it names no key.
    if ((ch >= 'a' && ch <= 'z') || (ch >= '@' && ch <= '_')) {
      key->sym = static_cast<uint16_t>(ch & 31);
      return RC_OK;
    }
    return RC_FAIL;
  }
  // Control codes, Delete and the keys the facade shares with them
  // (Backspace, Enter, Escape) type nothing; Tab types itself.
  if (ch < ' ' || ch == K_DEL) {
    key->sym = static_cast<uint16_t>(ch);
    if (ch == K_TAB && !key->control) key->text[key->text_len++] = '\t';
    return RC_OK;
  }
  key->sym = ch < 256 ? static_cast<uint16_t>(ch) : kKsymText;
  key->text_len = Utf8(static_cast<uint32_t>(ch), key->text);
  return RC_OK;
}
