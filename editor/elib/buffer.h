// The editor's text store: a buffer is a circular chain of blocks between
// two sentinels, each block a circular chain of lines behind a sentinel
// line, each line one ITEXT. Blocks are the unit of paging: beyond
// max_blks, the least recently used ones are written to spill files in a
// private directory and read back when a line step reaches them.
//
// Functions answer RC_OK / RC_FAIL unless said otherwise; a failure leaves
// its reason in elib_last_error() and in the trace.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "editor/elib/itext.h"

struct BLOCK;
struct LINE;
struct MARK;
struct REGION;

// Buffer flags.
constexpr uint32_t kBufModified = 1;
constexpr uint32_t kBufRegion = 2;
constexpr uint32_t kBufHighlight = 0x40;
constexpr uint32_t kBufWidestUnknown = 8;
constexpr uint32_t kBufTotalsValid = 16;
constexpr uint32_t kBufBulkReformat = 32;
constexpr uint32_t kBufRepaintHighlight = 128;
constexpr uint32_t kBufReadOnly = 0x100;
constexpr uint32_t kBufSelActive = 0x200;
constexpr uint32_t kBufSelTemp = 0x400;
constexpr uint32_t kBufSelLocked = 0x800;

// Block flags.
constexpr uint32_t kBlkPinned = 1;
constexpr uint32_t BLK_MEMDISK_SAME = 2;  // named for the trace; never set
constexpr uint32_t BLK_IN_MEM = 4;
constexpr uint32_t kBlkTail = 8;
constexpr uint32_t kBlkHead = 16;

// Line flags.
constexpr uint32_t kLineEob = 2;
constexpr uint32_t kLineRemeasure = 4;

// Redisplay states.
constexpr int RDIS_NONE = 1;
constexpr int RDIS_OPTIMIZED = 2;
constexpr int RDIS_FROM_POINT = 3;
constexpr int RDIS_FULL = 4;

// line_step directions.
constexpr int kStepFwd = 5;
constexpr int kStepBack = 6;
constexpr uint32_t kWalkAll = 65535;

constexpr int kScreenLines = 100;
constexpr const char* kEobText = "<End of Message>";

struct LINE {
  int32_t id = 0;  // -1 for a block's sentinel
  uint32_t flags = 0;
  LINE* prev = nullptr;
  LINE* next = nullptr;
  std::vector<MARK*> marks;
  ITEXT* text = nullptr;
};

struct BLOCK {
  int32_t id = 0;
  uint32_t flags = 0;
  uint32_t ref = 0;
  uint32_t mod = 0;
  uint32_t tmp_lock = 0;
  std::string fname;  // spill file while on disk, else empty
  long n_lines = 0;
  LINE* lin_head = nullptr;
  BLOCK* prev = nullptr;
  BLOCK* next = nullptr;
};

struct MARK {
  BLOCK* blk = nullptr;
  LINE* lin = nullptr;
  long offset = 0;
  std::string name;
  uint32_t flags = 0;
};

constexpr uint32_t kRegionOrdered = 1;

struct REGION {
  uint32_t flags = 0;
  long word = 0;  // the caller's
  MARK* bor = nullptr;
  MARK* eor = nullptr;
  bool owns_marks = false;  // made by region_from_whole
};

struct EditBuffer {
  std::string dir, fname;
  uint32_t flags = 0;
  uint32_t wrap_flags = 1;
  int tab_width = 8;
  int margin_right = 150, margin_left = 50, margin_step = 5;
  BLOCK* blk_head = nullptr;
  int n_blks = 0;
  int blks_in_mem = 0;
  int max_blks = 50;
  int max_blks_step = 10;
  int max_lines = 500;
  int start_idx = 0;
  int blk_hint = 30;
  long n_lines = 0;
  MARK* the_point = nullptr;
  MARK* the_mark = nullptr;
  MARK* high_start = nullptr;
  MARK* high_end = nullptr;
  MARK* sel_anchor = nullptr;
  REGION* region = nullptr;
  std::vector<MARK*> marks;  // every mark made through the buffer
  LINE* line_ptrs[kScreenLines] = {};
  BLOCK* block_ptrs[kScreenLines] = {};
  int line_ptrs_size = kScreenLines;
  int rdis = RDIS_FULL;
  int start_state = 0;  // the redisplay's start-line cache; 0 = unknown
  LINE* max_width_line = nullptr;
  DISPI default_dispi;
  std::string spill_dir;  // where blocks page out to
  int max_resident = 0;   // most ordinary blocks seen in memory at once
};

// ---- buffer ---------------------------------------------------------------

int elib_buffer_create(EditBuffer** buf);
int elib_buffer_destroy(EditBuffer** buf);
// Where new spill files of all later buffers go ($TMPDIR or /tmp until set),
// and of one buffer. The directory must exist; files in it are mode 0600.
void elib_set_default_spill_dir(const char* dir);
int elib_set_spill_dir(EditBuffer* buf, const char* dir);
// Tuning: the memory limit in blocks (not below max_blks_step) and the
// lines per block for bulk appending (not below 5).
int elib_set_max_blks(EditBuffer* buf, int max_blks);
int elib_set_max_lines(EditBuffer* buf, int max_lines);
// The first ordinary block, and the block holding the end-of-buffer line.
BLOCK* elib_first_block(const EditBuffer* buf);
BLOCK* elib_tail_block(const EditBuffer* buf);

// ---- blocks ---------------------------------------------------------------

int elib_block_new(BLOCK** blk);
int elib_block_chain_after(BLOCK* blk, BLOCK* add);
BLOCK* elib_block_maybe_add_one(EditBuffer* buf, BLOCK* blk);
int maybe_flush(EditBuffer* buf, BLOCK* protect_blk);
int Block_flush(EditBuffer* buf, BLOCK* blk);
int reload(EditBuffer* buf, BLOCK* blk);
int elib_block_nur_select(EditBuffer* buf, BLOCK** blk);
int elib_block_unchain(EditBuffer* buf, BLOCK* blk);
int elib_block_destroy(BLOCK** blk);
int elib_block_split(EditBuffer* buf, MARK* mark);
// Takes the blocks first..last out of the buffer into a chain of their own
// (first->prev and last->next null); marks must have left them.
int blk_unchain(EditBuffer* buf, BLOCK* first, BLOCK* last, BLOCK** chain);
// Destroys a chain made by blk_unchain, spill files included.
void elib_chain_destroy(BLOCK** chain);

// ---- lines ----------------------------------------------------------------

// RC_OK when it moved or stayed by rule; RC_FAIL when a block on the way
// could not be read back (the position is then unchanged).
int line_step(EditBuffer* buf, BLOCK** blk, LINE** lin, int direction);
int line_walk(EditBuffer* buf, BLOCK** blk, LINE** lin, uint32_t mask, long count, int direction);
int elib_line_is_bob(const EditBuffer* buf, const LINE* lin);
int line_is_eob(const EditBuffer* buf, const LINE* lin);
long line_last_offset(const LINE* lin);
long point_last_offset(const MARK* mark);
// Cuts the mark's line at its offset; the mark goes to the start of the tail.
int line_newline(EditBuffer* buf, MARK* mark);
// Joins the point's line to the one before it.
int lmergepv(EditBuffer* buf);
// Joins lin (in blk) to the line before it; its marks follow the text.
int elib_line_join_prev(EditBuffer* buf, BLOCK* blk, LINE* lin);
int buffer_forget_screen(EditBuffer* buf, BLOCK* blk, LINE* lin);
// Styles [start, end) of a line and marks it for measuring again.
int line_style_part(LINE* lin, long start, long end, uint32_t style);
int line_new(LINE** lin, const char* s, size_t n, const DISPI* dispi);
void line_free(LINE*& lin);

// ---- spill files ----------------------------------------------------------

// Limits of the spill reader; anything beyond is a damaged file.
constexpr long kSpillMaxLines = 1L << 24;
constexpr long kSpillMaxText = 1L << 30;
constexpr int kSpillMaxChunks = 1 << 20;

// Appends one line in the spill format.
int line_write(std::string* out, const LINE* lin);
// Reads one line record from [*pos, end) and links it behind after_lin.
// 1 read, 0 bad data, -1 end of data, 44 no memory.
int elib_line_read(const char** pos, const char* end, LINE* after_lin, LINE** made = nullptr);
// The whole spill file of a block, and its reader: the lines are added to
// blk's (empty) line chain. RC_FAIL with the reason on any damage; the
// block's chain is then left empty.
int elib_block_write_spill(const BLOCK* blk, std::string* out);
int elib_block_read_spill(BLOCK* blk, std::string_view data);

// ---- files ----------------------------------------------------------------

constexpr int kAbigbuf = 2047;
char* elib_fgets(char* buf, int size, FILE* stream);
// Inserts a file at the point; the first line joins the text at the point.
int elib_file_read(const char* path, EditBuffer* buf);
// Writes the text, a line feed after each line.
int elib_file_write(const char* path, EditBuffer* buf);

// ---- integrity --------------------------------------------------------------

int elib_block_integrity_check(const BLOCK* blk);
// Walks the whole text (which reads spilled blocks back).
int elib_buffer_integrity_check(EditBuffer* buf);
