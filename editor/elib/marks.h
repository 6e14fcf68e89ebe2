// Positions that survive editing (marks), spans between two marks
// (regions), search and replace, and the editing primitives every command
// is built on: insert at a mark, delete a range, split and join lines.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "editor/elib/buffer.h"

int mark_new(MARK** mark);
int elib_mk_destroy(MARK** mark);
// Enters a mark on a line (null blk or lin keeps the old one); the offset
// is limited to the line and moved back onto a character start.
int mark_put(MARK* mark, BLOCK* blk, LINE* lin, long offset);
int mark_lift(MARK* mark);
int mark_move(EditBuffer* buf, MARK* mark, BLOCK* blk, LINE* lin, long offset);
int mark_dup(EditBuffer* buf, const MARK* mark, MARK** out);
int mark_free(EditBuffer* buf, MARK** mark);
int mark_set(EditBuffer* buf, MARK* mark, const MARK* from);
// RC_OK if a stands behind b (equal places give RC_FAIL).
int mark_after(EditBuffer* buf, const MARK* a, const MARK* b);
int mark_same(const MARK* a, const MARK* b);
// Moves every mark of `lin` to (blk, to_lin, offset).
int marks_move_all(EditBuffer* buf, LINE* lin, BLOCK* blk, LINE* to_lin, long offset);

constexpr int kWholeAll = 4;
constexpr int kWholeToPoint = 8;
constexpr int kWholeFromPoint = 16;

int region_new(REGION** region);
int region_free(REGION** region);
int region_set(REGION* region, MARK* bor, MARK* eor);
int region_get(const REGION* region, MARK** bor, MARK** eor);
int region_order(EditBuffer* buf, REGION* region);
// Clears the highlight over the buffer's region and releases it.
int region_clear(EditBuffer* buf);
int region_from_whole(EditBuffer* buf, int what, REGION** region);
int region_free_whole(EditBuffer* buf, REGION** region);
int region_make_blocks(EditBuffer* buf, REGION* region);
// Deletes the region's text. A multi-line cut moves whole blocks out.
int region_cut(EditBuffer* buf, REGION* region);
int region_length(EditBuffer* buf, REGION* region, int eol_len, long* n);
int region_set_style(EditBuffer* buf, REGION* region, uint32_t style);
int region_set_dispi(EditBuffer* buf, REGION* region, const DISPI* dispi);

// Forward, case-sensitive search from the point to the region's end; the
// point goes to the start of the match.
int search_region(EditBuffer* buf, REGION* region, std::string_view text);
int replace_here(EditBuffer* buf, const MARK* where, std::string_view old_text, std::string_view new_text);
int replace_region(EditBuffer* buf, REGION* region, std::string_view old_text, std::string_view new_text);

// ---- editing primitives -----------------------------------------------------

// Inserts text at the mark (a line feed starts a new line); the mark ends
// behind the text, other marks at the same place stay ahead of it.
int elib_insert(EditBuffer* buf, MARK* at, std::string_view text);
// Deletes the text between two marks, in either order.
int elib_delete_range(EditBuffer* buf, MARK* a, MARK* b);
// One character forward / backward; at a line end (start) the lines join.
int elib_delete_char_fwd(EditBuffer* buf, MARK* at);
int elib_delete_char_rev(EditBuffer* buf, MARK* at);
// Splits the line at the mark / joins the mark's line with the next one.
int elib_split_line(EditBuffer* buf, MARK* at);
int elib_join_next(EditBuffer* buf, MARK* at);
// Moves a mark one character; fails at the ends of the text.
int elib_mark_step_char(EditBuffer* buf, MARK* mark, int direction);
// Puts a mark at the start of the text / at the end of the last line.
int elib_mark_goto_bob(EditBuffer* buf, MARK* mark);
int elib_mark_goto_eob(EditBuffer* buf, MARK* mark);
