// The content of one editor line: its bytes (UTF-8, NUL-terminated, no NUL
// inside) and, over them, the runs of text that share display attributes.
// Offsets are byte offsets into the stored (unexpanded) text and must fall
// on character boundaries; every function refuses one that does not.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Display attributes of a run of text.
struct DISPI {
  uint32_t flags = 0;  // kDispiSetByProgram: not to be reset by the window
  uint32_t mask = 0;
  uint32_t style = 4;  // kStyle* bits
  uint32_t spare = 0;
  long fg = 0x200FF00;
  long bg = 0x6FFFF00;
};

constexpr uint32_t kDispiSetByProgram = 1;

constexpr uint32_t kStyleNormal = 4;
constexpr uint32_t kStyleBold = 8;
constexpr uint32_t kStyleItalic = 16;
constexpr uint32_t kStyleUnderline = 32;
constexpr uint32_t kStyleOutline = 64;
constexpr uint32_t kStyleShadow = 128;
constexpr uint32_t kStyleStrike = 256;
constexpr uint32_t kStyleHidden = 0x200;
constexpr uint32_t kStyleHighlight = 0x400;
// Pseudo-values for dispi_set_style: highlight on/off without touching the
// rest of the style.
constexpr uint32_t kStyleToggleHighlight = 1024;
constexpr uint32_t kStyleClearHighlight = 2048;

constexpr uint32_t CHUNK_METRICS_VALID = 4;
constexpr uint32_t CHUNK_LENGTH_VALID = 8;

struct CHUNK {
  uint32_t flags = 0;
  int metric_a = 0, metric_b = 0, metric_c = 0;
  long length_ac = 0;   // bytes of stored text
  long length_exp = 0;  // bytes of expanded text (valid with ITEXT flag 2)
  DISPI dispi;
  int metric_d = 0;
  int h_px = 0, w_px = 0;
};

constexpr uint32_t kItextExpValid = 2;

struct ITEXT {
  uint32_t flags = 0;
  std::vector<CHUNK> chunks;
  char* text = nullptr;      // owned
  char* text_exp = nullptr;  // == text when the line has no tab, else owned
  long text_size = 0;        // bytes allocated for text
  long text_len = 0;         // strlen(text) + 1
};

inline long itext_length(const ITEXT* item) { return item && item->text_len > 0 ? item->text_len - 1 : 0; }

// A new item holding a copy of n bytes, one run with `dispi` (or the
// default attributes). RC_FAIL if the bytes hold a NUL.
int itext_new(ITEXT** item, const char* s, size_t n, const DISPI* dispi = nullptr);
void itext_free(ITEXT*& item);
// RC_OK when the item's counts agree with its text and its runs.
int itext_check(const ITEXT* item);

// A run boundary at offset; nothing to do at 0, at a boundary or past the
// end. RC_FAIL for a negative offset or one inside a character.
int chunklist_partition(ITEXT* item, long offset);
// Applies `style` (dispi_set_style semantics) to the runs in [start, end).
int itext_style_part(ITEXT* item, long start, long end, uint32_t style);
void dispi_set_style(DISPI* dispi, uint32_t style);
// Between the toolkit's font style bits and the style word.
uint32_t dispi_style_from_toolkit(uint32_t toolkit_bits);
uint32_t dispi_style_to_toolkit(uint32_t style);

// The tab-expanded form for display; tab stops count from the line start.
int itext_expand(ITEXT* item, int tab_width);
void itext_unexpand(ITEXT* item);
// Column of a stored offset (cells per character: none for a mark riding
// on its base, two for a wide one, tabs to the next stop), and the stored
// offset of the character covering a column.
int unexp_to_exp(const char* text, long offset, int tab_width, long* column);
int exp_to_unexp(const char* text, long column, int tab_width, long* offset);

// Inserting and deleting. Inserts go into the run ending at the offset (the
// text takes the attributes of what is left of it), the first run at 0.
int itext_insert_char(ITEXT* item, char32_t ch, long offset);
int itext_insert_string(ITEXT* item, const char* s, size_t n, long offset);
// The character at offset / before offset.
int itext_delete(ITEXT* item, long offset);
int itext_delete_before(ITEXT* item, long offset);
// The bytes [from, to).
int itext_delete_range(ITEXT* item, long from, long to);
// Cuts at offset; the tail goes to a new item in *second.
int itext_split(ITEXT* item, long offset, ITEXT** second);
// Appends second to first and releases second.
int itext_join(ITEXT* first, ITEXT*& second);
// The stored line as it goes to a saved file: a plain copy.
int itext_output(const ITEXT* item, std::string* out);
