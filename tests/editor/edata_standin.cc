// Until the command layer is linked in, the window record of these tests:
// a buffer and a few keys (typing, Enter, Backspace, arrows). The
// definitions are weak, so the real ones win as soon as they are linked.
#include <string_view>

#include "editor/edata.h"
#include "editor/elib/buffer.h"
#include "editor/elib/marks.h"
#include "editor/elib/u8.h"
#include "rclib/rc.h"

__attribute__((weak)) E_DATA* edata_create(WINDOW win, const char*) {
  auto* ed = new E_DATA;
  ed->win = win;
  if (elib_buffer_create(&ed->buf) != RC_OK) {
    delete ed;
    return nullptr;
  }
  return ed;
}

__attribute__((weak)) void edata_destroy(E_DATA*& ed) {
  if (!ed) return;
  elib_buffer_destroy(&ed->buf);
  delete ed;
  ed = nullptr;
}

__attribute__((weak)) int edata_key(E_DATA* ed, const EVENT* ev) {
  if (!ed || !ev || ev->type != E_CHAR) return 0;
  EditBuffer* b = ed->buf;
  MARK* p = b->the_point;
  int ch = ev->v.chr.ch;
  int rc = RC_FAIL;
  if (ev->v.chr.text || (ch >= 32 && ch < 127)) {
    char s[4];
    int n = u8_encode(static_cast<char32_t>(ch), s);
    rc = elib_insert(b, p, std::string_view(s, static_cast<size_t>(n)));
  } else if (ch == K_TAB) {
    rc = elib_insert(b, p, "\t");
  } else if (ch == K_ENTER) {
    rc = elib_split_line(b, p);
  } else if (ch == K_BS) {
    rc = elib_delete_char_rev(b, p);
  } else if (ch == K_LEFT || ch == K_RIGHT) {
    rc = elib_mark_step_char(b, p, ch == K_RIGHT ? kStepFwd : kStepBack);
  } else if (ch == K_END) {
    rc = elib_mark_goto_eob(b, p);
  } else if (ch == K_HOME) {
    rc = elib_mark_goto_bob(b, p);
  } else {
    return 0;
  }
  if (rc == RC_OK && ch != K_LEFT && ch != K_RIGHT && ch != K_END && ch != K_HOME) b->flags |= kBufModified;
  return 1;
}

__attribute__((weak)) int edata_command(E_DATA*, const char*) { return 0; }
