// An editor window's record for command tests, filled from a picture of
// the text: `|` is the point, `[` and `]` the region. Render draws the
// same picture back from the buffer.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "editor/ekeys/keymap.h"
#include "editor/elib/ecmd.h"
#include "tests/editor/etext_util.h"
#include "tests/editor/keys_fixture.h"
#include "xvt/common/win_records.h"

struct EdFixture {
  E_DATA* ed = nullptr;
  EditBuffer* buf = nullptr;

  explicit EdFixture(const std::string& picture = "|") {
    km_diag_to_stdout = false;
    ed = edata_create(NULL_WIN, ShippedKeybind().c_str());
    EXPECT_NE(ed, nullptr) << elib_last_error();
    if (!ed) return;
    buf = ed->buf;
    Load(picture);
  }
  ~EdFixture() { edata_destroy(ed); }
  EdFixture(const EdFixture&) = delete;
  EdFixture& operator=(const EdFixture&) = delete;

  void Load(const std::string& picture) {
    std::string text;
    long point = 0, bor = -1, eor = -1;
    for (char c : picture) {
      if (c == '|') point = static_cast<long>(text.size());
      else if (c == '[') bor = static_cast<long>(text.size());
      else if (c == ']') eor = static_cast<long>(text.size());
      else text.push_back(c);
    }
    if (!text.empty()) {
      ASSERT_EQ(elib_insert(buf, buf->the_point, text), RC_OK);
    }
    ASSERT_EQ(PlaceMark(buf, buf->the_point, static_cast<size_t>(point)), RC_OK);
    if (bor >= 0 && eor >= 0) {
      PlaceMark(buf, buf->high_start, static_cast<size_t>(bor));
      PlaceMark(buf, buf->high_end, static_cast<size_t>(eor));
      region_new(&buf->region);
      region_set(buf->region, buf->high_start, buf->high_end);
      region_set_style(buf, buf->region, kStyleToggleHighlight);
      buf->flags |= kBufRegion | kBufHighlight;
    }
    buf->flags &= ~kBufModified;
  }

  std::string Render() {
    std::string text = BufferText(buf);
    long point = MarkPos(buf, buf->the_point);
    long bor = -1, eor = -1;
    if (buf->region) {
      region_order(buf, buf->region);
      bor = MarkPos(buf, buf->region->bor);
      eor = MarkPos(buf, buf->region->eor);
    }
    std::string out;
    for (long i = 0; i <= static_cast<long>(text.size()); ++i) {
      if (i == bor) out.push_back('[');
      if (i == point) out.push_back('|');
      if (i == eor) out.push_back(']');
      if (i < static_cast<long>(text.size())) out.push_back(text[static_cast<size_t>(i)]);
    }
    return out;
  }

  // The characters that carry the highlight, in text order.
  std::string Highlighted() {
    std::string out;
    BLOCK* blk = elib_first_block(buf);
    LINE* lin = blk->lin_head->next;
    while (!(lin->flags & kLineEob)) {
      long at = 0;
      for (const CHUNK& c : lin->text->chunks) {
        if (c.dispi.style & kStyleHighlight) out.append(lin->text->text + at, static_cast<size_t>(c.length_ac));
        at += c.length_ac;
      }
      LINE* before = lin;
      if (line_step(buf, &blk, &lin, kStepFwd) != RC_OK || lin == before) break;
    }
    return out;
  }

  // A key as the facade reports it.
  int Key(int ch, bool shift = false, bool control = false) {
    EVENT ev = xvtrec::MakeEvent(E_CHAR);
    ev.v.chr.ch = ch;
    ev.v.chr.shift = shift;
    ev.v.chr.control = control;
    return edata_key(ed, &ev);
  }
  int Type(const std::string& text) {
    int n = 0;
    for (unsigned char c : text) n += Key(c);
    return n;
  }
  int Run(const char* name, bool shift = false) { return ecmd_run(ed, name, nullptr, shift); }
};
