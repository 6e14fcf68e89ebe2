// Characters as a person sees them: a base code point with the marks and
// joiners that ride on it (a cluster), and how many cells it takes on a
// fixed-pitch screen. Which code points join and how wide each is comes
// from the support library's table (rclib/char_width.h), which the printed
// page uses too.
//
// Every cluster walk starts from code point steps (u8.h), so a cluster
// boundary is always a code point boundary and bytes that are not UTF-8
// still count one byte per character.
#pragma once

#include <cstddef>

// The code point starting at `i` (i < len); a byte that does not start a
// well-formed sequence reads as itself.
char32_t u8_decode(const char* s, size_t len, size_t i);

// True for a code point that belongs to the character before it.
bool graph_is_extender(char32_t cp);
// Cells of one code point: 0 for an extender, 2 for a wide one, else 1.
int graph_cp_width(char32_t cp);

// The offset after the cluster starting at `i` (i < len), and the start of
// the cluster that ends at `i` (0 < i <= len).
size_t graph_next(const char* s, size_t len, size_t i);
size_t graph_prev(const char* s, size_t len, size_t i);

// Cells of the cluster [i, j): the width of its base; a cluster without a
// base (a mark at the start of a line) takes one cell, so it stays visible
// and the caret can stand on both sides of it.
int graph_width(const char* s, size_t len, size_t i, size_t j);
