// Text items: tab columns, runs, growth, and that no character step cuts a
// UTF-8 sequence.
#include <gtest/gtest.h>

#include <random>

#include "editor/elib/graph.h"
#include "editor/elib/itext.h"
#include "editor/elib/u8.h"
#include "rclib/rc.h"

namespace {

ITEXT* Item(const std::string& s) {
  ITEXT* item = nullptr;
  itext_new(&item, s.data(), s.size());
  return item;
}

std::string Text(const ITEXT* item) { return std::string(item->text, itext_length(item)); }

// Where steps forward and steps back stop, each from its own end of s.
template <class Step>
std::pair<std::vector<size_t>, std::vector<size_t>> Stops(const std::string& s, Step next,
                                                           Step prev) {
  std::vector<size_t> fwd{0}, back{s.size()};
  for (size_t i = 0; i < s.size();) fwd.push_back(i = next(s.data(), s.size(), i));
  for (size_t i = s.size(); i > 0;) back.insert(back.begin(), i = prev(s.data(), s.size(), i));
  return {fwd, back};
}

std::vector<long> Runs(const ITEXT* item) {
  std::vector<long> out;
  for (const CHUNK& c : item->chunks) out.push_back(c.length_ac);
  return out;
}

struct TabCase {
  const char* text;
  long offset;
  long column;
  const char* expanded;
};

TEST(Itext, TabColumnsCountFromTheLineStart) {
  const TabCase cases[] = {
      {"\tx", 1, 8, "        x"},
      {"ab\tc", 3, 8, "ab      c"},
      {"abcdefgh\tc", 9, 16, "abcdefgh        c"},
      {"é\tx", 3, 8, "é       x"},  // two bytes, one column
      {"\t\t", 2, 16, "                "},
      {"plain", 5, 5, "plain"},
      {"中\tx", 4, 8, "中      x"},                      // two cells
      {"e\xCC\x81\tx", 4, 8, "e\xCC\x81       x"},   // the mark takes none
  };
  for (const TabCase& c : cases) {
    SCOPED_TRACE(c.text);
    ITEXT* item = Item(c.text);
    // Runs split inside the line must not restart the tab stops.
    chunklist_partition(item, 1);
    long column = -1, offset = -1;
    ASSERT_EQ(unexp_to_exp(item->text, c.offset, 8, &column), RC_OK);
    EXPECT_EQ(column, c.column);
    ASSERT_EQ(exp_to_unexp(item->text, c.column, 8, &offset), RC_OK);
    EXPECT_EQ(offset, c.offset);
    ASSERT_EQ(itext_expand(item, 8), RC_OK);
    EXPECT_STREQ(item->text_exp, c.expanded);
    long sum = 0;
    for (const CHUNK& k : item->chunks) sum += k.length_exp;
    EXPECT_EQ(sum, static_cast<long>(strlen(c.expanded)));
    itext_free(item);
  }
}

struct EditCase {
  const char* name;
  const char* start;
  int op;  // 0 partition, 1 delete, 2 delete before, 3 insert "Z", 4 style bold [1,3)
  long offset;
  int rc;
  const char* text;
  std::vector<long> runs;
};

TEST(Itext, EditsKeepRunsAndCharacters) {
  const EditCase cases[] = {
      {"partition inside", "abcd", 0, 2, RC_OK, "abcd", {2, 2}},
      {"partition at the end", "abcd", 0, 4, RC_OK, "abcd", {4}},
      {"partition inside é", "aéb", 0, 2, RC_FAIL, "aéb", {4}},
      {"partition negative", "ab", 0, -1, RC_FAIL, "ab", {2}},
      {"delete whole €", "a€b", 1, 1, RC_OK, "ab", {2}},
      {"delete inside €", "a€b", 1, 2, RC_FAIL, "a€b", {5}},
      {"delete before 𝄞", "𝄞x", 2, 4, RC_OK, "x", {1}},
      {"delete past the end", "ab", 1, 2, RC_FAIL, "ab", {2}},
      {"insert inside é", "é", 3, 1, RC_FAIL, "é", {2}},
      {"insert at the end", "ab", 3, 2, RC_OK, "abZ", {3}},
      {"style a span", "abcd", 4, 0, RC_OK, "abcd", {1, 2, 1}},
  };
  for (const EditCase& c : cases) {
    SCOPED_TRACE(c.name);
    ITEXT* item = Item(c.start);
    int rc = RC_FAIL;
    switch (c.op) {
      case 0: rc = chunklist_partition(item, c.offset); break;
      case 1: rc = itext_delete(item, c.offset); break;
      case 2: rc = itext_delete_before(item, c.offset); break;
      case 3: rc = itext_insert_char(item, 'Z', c.offset); break;
      case 4: rc = itext_style_part(item, 1, 3, kStyleBold); break;
    }
    EXPECT_EQ(rc, c.rc);
    EXPECT_EQ(Text(item), c.text);
    EXPECT_EQ(Runs(item), c.runs);
    EXPECT_EQ(itext_check(item), RC_OK);
    itext_free(item);
  }
}

TEST(Itext, DeletingARunEmptyLeavesTheNeighboursApart) {
  ITEXT* item = Item("abc");
  chunklist_partition(item, 1);
  chunklist_partition(item, 2);
  item->chunks[0].dispi.style = kStyleBold;
  ASSERT_EQ(itext_delete(item, 1), RC_OK);
  EXPECT_EQ(Runs(item), (std::vector<long>{1, 1}));
  EXPECT_EQ(item->chunks[0].dispi.style, kStyleBold);
  EXPECT_EQ(item->chunks[1].dispi.style, kStyleNormal);
  itext_free(item);
}

TEST(Itext, SixteenInsertsWithoutReallocating) {
  ITEXT* item = Item("x");
  ASSERT_EQ(itext_insert_char(item, 'a', 0), RC_OK);
  const char* after_growth = item->text;
  EXPECT_EQ(item->text_size, item->text_len + 16);
  for (int i = 0; i < 16; ++i) ASSERT_EQ(itext_insert_char(item, 'b', 1), RC_OK);
  EXPECT_EQ(item->text, after_growth);
  EXPECT_EQ(itext_check(item), RC_OK);
  itext_free(item);
}

// A shown line (expanded, and without tabs its own bytes) that grows
// past its spare room: the expanded copy must not outlive the old buffer.
TEST(Itext, GrowingAShownLineDropsItsExpandedCopy) {
  ITEXT* item = Item("plain");
  ASSERT_EQ(itext_expand(item, 8), RC_OK);
  ASSERT_EQ(item->text_exp, item->text);
  const std::string more(100, 'm');
  ASSERT_EQ(itext_insert_string(item, more.data(), more.size(), 5), RC_OK);
  EXPECT_EQ(item->text_exp, nullptr);
  ASSERT_EQ(itext_expand(item, 8), RC_OK);
  EXPECT_EQ(std::string(item->text_exp), "plain" + more);
  EXPECT_EQ(itext_check(item), RC_OK);
  itext_free(item);
}

TEST(Itext, SplitAndJoin) {
  ITEXT* item = Item("head tail");
  item->chunks[0].dispi.style = kStyleItalic;
  ITEXT* second = nullptr;
  ITEXT* tail = nullptr;
  ASSERT_EQ(itext_split(item, 0, &second), RC_OK);
  EXPECT_EQ(Text(item), "");
  ASSERT_EQ(item->chunks.size(), 1u);
  EXPECT_EQ(item->chunks[0].length_ac, 0);
  EXPECT_EQ(item->chunks[0].dispi.style, kStyleItalic) << "empty half keeps the attributes";
  EXPECT_EQ(itext_split(second, 10, &tail), RC_FAIL) << "split past the end";
  ASSERT_EQ(itext_split(second, 5, &tail), RC_OK);
  EXPECT_EQ(Text(second), "head ");
  EXPECT_EQ(Text(tail), "tail");
  ASSERT_EQ(itext_join(item, second), RC_OK);
  EXPECT_EQ(second, nullptr);
  ASSERT_EQ(itext_join(item, tail), RC_OK);
  EXPECT_EQ(Text(item), "head tail");
  EXPECT_EQ(Runs(item), (std::vector<long>{5, 4}));
  EXPECT_EQ(itext_check(item), RC_OK);
  itext_free(item);
}

TEST(Itext, StyleBitsAndToolkitBits) {
  DISPI d;
  dispi_set_style(&d, kStyleBold);
  dispi_set_style(&d, kStyleToggleHighlight);
  EXPECT_EQ(d.style, kStyleBold | kStyleHighlight);
  dispi_set_style(&d, kStyleClearHighlight);
  EXPECT_EQ(d.style, kStyleBold);
  const uint32_t pairs[][2] = {{0x100, 4}, {1, 8},    {128, 16},  {2, 32},
                               {16, 64},   {32, 128}, {64, 256}, {0x200, 0x200}};
  for (auto& p : pairs) {
    EXPECT_EQ(dispi_style_from_toolkit(p[0]), p[1]);
    EXPECT_EQ(dispi_style_to_toolkit(p[1]), p[0]);
  }
}

// Forward steps, backward steps and the boundary test agree on any bytes.
TEST(Utf8, StepsAgreeOnArbitraryBytes) {
  std::mt19937 rng(5);
  const unsigned char alphabet[] = {'a', 0x80, 0xBF, 0xC2, 0xC3, 0xE2, 0xED, 0xF0, 0xF4, 0xF8, 0xFF};
  for (int round = 0; round < 2000; ++round) {
    std::string s;
    for (int n = rng() % 12; n > 0; --n) s.push_back(static_cast<char>(alphabet[rng() % sizeof alphabet]));
    auto [fwd, back] = Stops(s, u8_next, u8_prev);
    ASSERT_EQ(fwd, back);
    for (size_t i = 0; i <= s.size(); ++i)
      ASSERT_EQ(u8_is_boundary(s.data(), s.size(), i), std::find(fwd.begin(), fwd.end(), i) != fwd.end());
  }
}

struct ClusterCase {
  const char* name;
  std::string text;
  std::vector<size_t> starts;  // where each character starts, then the end
  long cells;
};

TEST(Graph, CharactersAndTheirCells) {
  const std::vector<ClusterCase> cases = {
      {"plain", "ab", {0, 1, 2}, 2},
      {"marks ride on their base", "e\xCC\x81\xCC\xA3x", {0, 5, 6}, 2},
      {"ends of the mark blocks", "a\xCD\xAF" "b\xE1\xAB\xBF" "c\xEF\xB8\xAF", {0, 3, 7, 11}, 3},
      {"not marks: U+0370, U+20CF", "\xCD\xB0\xE2\x83\x8F", {0, 2, 5}, 2},
      {"variation selectors", "\xE2\x9D\xA4\xEF\xB8\x8Fx\xF3\xA0\x84\x80", {0, 6, 11}, 2},
      {"joiner takes the next one", "\xF0\x9F\x91\xA9\xE2\x80\x8D\xF0\x9F\x92\xBBx", {0, 11, 12}, 3},
      {"skin tone", "\xF0\x9F\x91\x8D\xF0\x9F\x8F\xBF", {0, 8}, 2},
      {"a mark with no base stands alone", "\xCC\x81" "a", {0, 2, 3}, 2},
      {"wide edges: U+115F, U+1160", "\xE1\x85\x9F\xE1\x85\xA0", {0, 3, 6}, 3},
      {"wide edges: U+FF60, U+FF61", "\xEF\xBD\xA0\xEF\xBD\xA1", {0, 3, 6}, 3},
      {"wide edges: U+D7A3, U+D7A4", "\xED\x9E\xA3\xED\x9E\xA4", {0, 3, 6}, 3},
      {"wide: U+20000", "\xF0\xA0\x80\x80", {0, 4}, 2},
      {"bytes that are not UTF-8", "\xFF\xCC", {0, 1, 2}, 2},
  };
  for (const ClusterCase& c : cases) {
    SCOPED_TRACE(c.name);
    auto [fwd, back] = Stops(c.text, graph_next, graph_prev);
    EXPECT_EQ(fwd, c.starts);
    EXPECT_EQ(back, c.starts);
    long cells = -1;
    ASSERT_EQ(unexp_to_exp(c.text.c_str(), static_cast<long>(c.text.size()), 8, &cells), RC_OK);
    EXPECT_EQ(cells, c.cells);
  }
}

// Both directions find the same characters in any mix of marks, joiners,
// wide characters and stray bytes.
TEST(Graph, StepsAgreeOnArbitraryText) {
  std::mt19937 rng(7);
  const char* alphabet[] = {"a", "\xCC\x81", "\xE2\x80\x8D", "\xE4\xB8\xAD", "\xF0\x9F\x8F\xBB", "\xFF", "\x80", "\n"};
  for (int round = 0; round < 2000; ++round) {
    std::string s;
    for (int n = rng() % 10; n > 0; --n) s += alphabet[rng() % 8];
    auto [fwd, back] = Stops(s, graph_next, graph_prev);
    ASSERT_EQ(fwd, back) << s;
    for (size_t i : fwd) ASSERT_TRUE(u8_is_boundary(s.data(), s.size(), i)) << s;
  }
}

}  // namespace
