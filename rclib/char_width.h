// How many columns a code point takes in a fixed-pitch font: none for the
// marks and joiners that ride on the character before them, two for the
// wide East Asian and emoji blocks, one otherwise. A compact range table,
// not a character database: a script it does not know counts one column a
// code point, which is what it counted before.
#pragma once

// True for a code point that belongs to the character before it (a
// combining mark, a joiner, a variation selector, a skin tone modifier).
bool rc_char_is_extender(char32_t cp);

// 0 for an extender or another zero-width character, 2 for a wide one,
// else 1.
int rc_char_width(char32_t cp);
