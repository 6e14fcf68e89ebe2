// Helpers for the text store tests: a private spill directory, the whole
// text of a buffer, and a mark placed by offset into that text.
#pragma once

#include <dirent.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "editor/elib/buffer.h"
#include "editor/elib/elib_trace.h"
#include "editor/elib/marks.h"
#include "rclib/rc.h"
#include "tests/support/scratch_dir.h"

struct SpillDir : TempDir {
  SpillDir() : TempDir("etext") {}
  int files() const {
    int n = 0;
    for (auto& e : std::filesystem::directory_iterator(path)) n += e.is_regular_file();
    return n;
  }
};

// Makes buf page all the time: 5 lines a block, 3 blocks in memory.
inline void MakeTiny(EditBuffer* buf, const SpillDir& dir) {
  elib_set_spill_dir(buf, dir.path.c_str());
  buf->max_blks_step = 1;
  buf->blk_hint = 0;  // keeps the limit where it is set
  elib_set_max_blks(buf, 3);
  elib_set_max_lines(buf, 5);
}

inline EditBuffer* TinyBuffer(const SpillDir& dir) {
  EditBuffer* buf = nullptr;
  elib_buffer_create(&buf);
  MakeTiny(buf, dir);
  return buf;
}

// The text, a line feed between lines, without the end line.
inline std::string BufferText(EditBuffer* buf) {
  std::string out;
  BLOCK* blk = elib_first_block(buf);
  LINE* lin = blk->lin_head->next;
  bool first = true;
  while (!(lin->flags & kLineEob)) {
    if (!first) out.push_back('\n');
    first = false;
    out.append(lin->text->text, static_cast<size_t>(itext_length(lin->text)));
    LINE* before = lin;
    if (line_step(buf, &blk, &lin, kStepFwd) != RC_OK || lin == before) return out + "<STUCK>";
  }
  return out;
}

// Moves mark to byte `pos` of BufferText.
inline int PlaceMark(EditBuffer* buf, MARK* mark, size_t pos) {
  BLOCK* blk = elib_first_block(buf);
  LINE* lin = blk->lin_head->next;
  size_t at = 0;
  while (!(lin->flags & kLineEob)) {
    size_t len = static_cast<size_t>(itext_length(lin->text));
    if (pos <= at + len) return mark_move(buf, mark, blk, lin, static_cast<long>(pos - at));
    at += len + 1;
    LINE* before = lin;
    if (line_step(buf, &blk, &lin, kStepFwd) != RC_OK || lin == before) return RC_FAIL;
  }
  return RC_FAIL;
}

// Byte position of a mark in BufferText.
inline long MarkPos(EditBuffer* buf, const MARK* mark) {
  BLOCK* blk = elib_first_block(buf);
  LINE* lin = blk->lin_head->next;
  long at = 0;
  while (lin != mark->lin) {
    if (lin->flags & kLineEob) return -1;
    at += itext_length(lin->text) + 1;
    LINE* before = lin;
    if (line_step(buf, &blk, &lin, kStepFwd) != RC_OK || lin == before) return -1;
  }
  return at + mark->offset;
}

inline std::string WriteTemp(const SpillDir& dir, const std::string& name, const std::string& data) {
  std::string path = dir.path + "/" + name;
  std::ofstream(path, std::ios::binary) << data;
  return path;
}
