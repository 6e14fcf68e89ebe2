// Selecting with the mouse. The window maps the pointer to a text place
// (line and offset); these functions do the rest: a press places the point
// and drops the anchor, a drag extends the highlight, a release keeps the
// region, a double click takes the run of non-white characters under it.
#include "editor/elib/ecmd_internal.h"
#include "rclib/rc.h"

namespace {

constexpr uint32_t kSelBits = kBufSelActive | kBufSelTemp | kBufSelLocked;

void Finish(E_DATA* ed) {
  EditBuffer* buf = ed->buf;
  if (buf->flags & kBufRepaintHighlight) {
    buf->flags &= ~kBufRepaintHighlight;
    buf->rdis = RDIS_FULL;
  }
  if (buf->rdis > ed->rdis) ed->rdis = buf->rdis;
  if (ed->rdis < RDIS_OPTIMIZED) ed->rdis = RDIS_OPTIMIZED;
  if (ed->cmd) ed->cmd->last_command.clear();
}

int PointTo(E_DATA* ed, const EPos& pos) {
  int rc = ecmd_mark_to(ed->buf, ed->buf->the_point, pos);
  ecmd::NormalizePoint(ed->buf);
  return rc;
}

}  // namespace

int ecmd_mouse_down(E_DATA* ed, const EPos& pos, bool shift) {
  if (!ed || !ed->buf) return RC_FAIL;
  EditBuffer* buf = ed->buf;
  if (!shift || !buf->sel_anchor) {
    if (!shift && buf->region) region_clear(buf);
    if (!shift) buf->flags &= ~kBufHighlight;
    if (buf->sel_anchor) mark_free(buf, &buf->sel_anchor);
    // With Shift the selection runs from where the point stood.
    if (shift || PointTo(ed, pos) == RC_OK) mark_dup(buf, buf->the_point, &buf->sel_anchor);
  }
  buf->flags = (buf->flags & ~kSelBits) | kBufSelActive;
  int rc = PointTo(ed, pos);
  ecmd_selection_post(buf, "mouse");
  Finish(ed);
  return rc;
}

int ecmd_mouse_drag(E_DATA* ed, const EPos& pos) {
  if (!ed || !ed->buf || !(ed->buf->flags & kBufSelActive) || !ed->buf->sel_anchor) return RC_FAIL;
  int rc = PointTo(ed, pos);
  ecmd_selection_post(ed->buf, "mouse");
  Finish(ed);
  return rc;
}

int ecmd_mouse_up(E_DATA* ed, const EPos& pos) {
  if (!ed || !ed->buf) return RC_FAIL;
  EditBuffer* buf = ed->buf;
  int rc = ecmd_mouse_drag(ed, pos);
  buf->flags &= ~kSelBits;
  if (buf->sel_anchor) mark_free(buf, &buf->sel_anchor);
  // A click without a drag leaves no region behind.
  if (buf->region && mark_same(buf->region->bor, buf->region->eor) == RC_OK) {
    region_clear(buf);
    buf->flags &= ~kBufHighlight;
  }
  Finish(ed);
  return rc;
}

int ecmd_mouse_double(E_DATA* ed, const EPos& pos) {
  if (!ed || !ed->buf || !ed->buf->high_start || !ed->buf->high_end) return RC_FAIL;
  EditBuffer* buf = ed->buf;
  if (buf->region) region_clear(buf);
  buf->flags &= ~(kSelBits | kBufHighlight);
  if (buf->sel_anchor) mark_free(buf, &buf->sel_anchor);
  if (PointTo(ed, pos) != RC_OK) return RC_FAIL;
  MARK* p = buf->the_point;
  const char* s = p->lin->text->text;
  long len = itext_length(p->lin->text);
  long a = p->offset, b = p->offset;
  while (a > 0 && !ecmd::IsWhite(static_cast<unsigned char>(s[a - 1]))) --a;
  while (b < len && !ecmd::IsWhite(static_cast<unsigned char>(s[b]))) ++b;
  if (a == b) {
    Finish(ed);
    return RC_FAIL;
  }
  mark_move(buf, buf->high_start, p->blk, p->lin, a);
  mark_move(buf, buf->high_end, p->blk, p->lin, b);
  region_new(&buf->region);
  region_set(buf->region, buf->high_start, buf->high_end);
  region_set_style(buf, buf->region, kStyleClearHighlight);
  region_set_style(buf, buf->region, kStyleToggleHighlight);
  buf->flags |= kBufRegion | kBufHighlight;
  buf->rdis = RDIS_FULL;
  mark_move(buf, p, p->blk, p->lin, b);
  Finish(ed);
  return RC_OK;
}
