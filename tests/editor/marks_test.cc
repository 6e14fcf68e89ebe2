// Marks following the text, the paging rule, regions, search and replace.
#include <gtest/gtest.h>

#include "tests/editor/etext_util.h"

namespace {

struct Fixture {
  SpillDir spill, input;
  EditBuffer* buf = nullptr;
  explicit Fixture(const std::string& text, bool tiny = false) {
    if (tiny) buf = TinyBuffer(spill);
    else elib_buffer_create(&buf);
    elib_set_spill_dir(buf, spill.path.c_str());
    if (!text.empty()) elib_file_read(WriteTemp(input, "t.txt", text).c_str(), buf);
  }
  ~Fixture() { elib_buffer_destroy(&buf); }
  MARK* At(long pos) {
    MARK* m = nullptr;
    mark_dup(buf, buf->the_point, &m);
    PlaceMark(buf, m, static_cast<size_t>(pos));
    return m;
  }
};

TEST(Buffer, EmptyShape) {
  Fixture f("");
  EditBuffer* buf = f.buf;
  BLOCK* head = buf->blk_head;
  EXPECT_EQ(head->id, -1);
  EXPECT_EQ(head->flags, kBlkHead | BLK_IN_MEM | kBlkPinned);
  EXPECT_EQ(head->next->id, 1);
  EXPECT_EQ(head->next->flags, BLK_IN_MEM | kBlkPinned);
  EXPECT_EQ(head->prev->id, -2);
  EXPECT_STREQ(head->prev->lin_head->next->text->text, kEobText);
  EXPECT_EQ(buf->n_blks, 2);
  EXPECT_EQ(buf->blks_in_mem, 1);
  EXPECT_EQ(buf->n_lines, 2);
  EXPECT_EQ(elib_buffer_integrity_check(buf), RC_OK);
  // Stepping past either end stays and still counts a reference.
  BLOCK* blk = head->prev;
  LINE* lin = blk->lin_head->next;
  uint32_t ref = blk->ref;
  EXPECT_EQ(line_step(buf, &blk, &lin, kStepFwd), RC_OK);
  EXPECT_TRUE(lin->flags & kLineEob);
  EXPECT_EQ(blk->ref, ref + 1);
  EXPECT_EQ(elib_delete_char_fwd(buf, buf->the_point), RC_FAIL);
  EXPECT_EQ(elib_delete_char_rev(buf, buf->the_point), RC_FAIL);
}

struct ShiftCase {
  const char* name;
  long mark;
  int op;  // 0 insert "ZZ" at p, 1 delete [p, q), 2 split at p, 3 join at line start p
  long p, q;
  const char* text;
  long expect;
};

TEST(Marks, FollowTheText) {
  const ShiftCase cases[] = {
      {"insert ahead moves it", 5, 0, 1, 0, "aZZbc\ndef", 7},
      {"insert at it keeps it", 5, 0, 5, 0, "abc\ndZZef", 5},
      {"insert behind keeps it", 5, 0, 6, 0, "abc\ndeZZf", 5},
      {"insert on another line", 1, 0, 5, 0, "abc\ndZZef", 1},
      {"delete around it", 5, 1, 4, 6, "abc\nf", 4},
      {"delete across lines", 6, 1, 2, 5, "abef", 3},
      {"split ahead", 5, 2, 4, 0, "abc\n\ndef", 6},
      {"split behind", 1, 2, 2, 0, "ab\nc\ndef", 1},
      {"split moves what is behind", 2, 2, 1, 0, "a\nbc\ndef", 3},
      {"join brings it along", 5, 3, 4, 0, "abcdef", 4},
  };
  for (const ShiftCase& c : cases) {
    SCOPED_TRACE(c.name);
    Fixture f("abc\ndef\n");
    MARK* m = f.At(c.mark);
    MARK* p = f.At(c.p);
    switch (c.op) {
      case 0: ASSERT_EQ(elib_insert(f.buf, p, "ZZ"), RC_OK); break;
      case 1: {
        MARK* q = f.At(c.q);
        ASSERT_EQ(elib_delete_range(f.buf, p, q), RC_OK);
        break;
      }
      case 2: ASSERT_EQ(elib_split_line(f.buf, p), RC_OK); break;
      case 3: ASSERT_EQ(elib_delete_char_rev(f.buf, p), RC_OK); break;
    }
    EXPECT_EQ(BufferText(f.buf), c.text);
    EXPECT_EQ(MarkPos(f.buf, m), c.expect);
    EXPECT_EQ(elib_buffer_integrity_check(f.buf), RC_OK);
  }
}

TEST(Marks, OrderAcrossBlocks) {
  std::string text;
  for (int i = 0; i < 30; ++i) text += "l" + std::to_string(i) + "\n";
  Fixture f(text, true);
  const long pairs[][3] = {{0, 1, RC_FAIL}, {1, 0, RC_OK}, {3, 3, RC_FAIL}, {100, 4, RC_OK}, {4, 100, RC_FAIL}};
  for (auto& p : pairs) {
    MARK* a = f.At(p[0]);
    MARK* b = f.At(p[1]);
    EXPECT_EQ(mark_after(f.buf, a, b), p[2]) << p[0] << " after " << p[1];
    EXPECT_EQ(mark_same(a, b), p[0] == p[1] ? RC_OK : RC_FAIL);
  }
}

TEST(Paging, MarkedBlocksStayAndTheVictimRotates) {
  std::string text;
  for (int i = 0; i < 60; ++i) text += "line " + std::to_string(i) + "\n";
  Fixture f(text, true);
  EditBuffer* buf = f.buf;
  ASSERT_EQ(elib_buffer_integrity_check(buf), RC_OK);
  // A mark pins its block however long it stays unused.
  MARK* m = f.At(200);
  BLOCK* held = m->blk;
  for (int i = 0; i < 3; ++i) ASSERT_EQ(elib_buffer_integrity_check(buf), RC_OK);
  EXPECT_TRUE(held->flags & BLK_IN_MEM);
  // Idle blocks: two selections in a row take different victims.
  buf->max_blks = 50;
  ASSERT_EQ(elib_buffer_integrity_check(buf), RC_OK);
  for (BLOCK* b = elib_first_block(buf); b != buf->blk_head; b = b->next) b->ref = b->mod = 0;
  BLOCK *v1 = nullptr, *v2 = nullptr;
  ASSERT_EQ(elib_block_nur_select(buf, &v1), RC_OK);
  ASSERT_EQ(elib_block_nur_select(buf, &v2), RC_OK);
  EXPECT_NE(v1, v2);
  EXPECT_NE(v1, held);
  // With every block locked there is no victim and nothing is flushed.
  for (BLOCK* b = elib_first_block(buf); b != buf->blk_head; b = b->next) b->tmp_lock++;
  BLOCK* v = nullptr;
  EXPECT_EQ(elib_block_nur_select(buf, &v), RC_FAIL);
  buf->blks_in_mem = buf->max_blks;
  EXPECT_EQ(maybe_flush(buf, nullptr), 0);
  for (BLOCK* b = elib_first_block(buf); b != buf->blk_head; b = b->next) b->tmp_lock--;
}

TEST(Paging, JoiningAwayABlocksLastLineRemovesTheBlock) {
  Fixture f("a\nb\nc\nd\ne\nf\ng\n", true);  // two blocks: a-e, f-g
  int blocks = f.buf->n_blks;
  MARK* m = f.At(10);                       // start of "f"
  MARK* n = f.At(13);                       // end of "g"
  ASSERT_EQ(elib_delete_range(f.buf, m, n), RC_OK);
  ASSERT_EQ(elib_delete_char_rev(f.buf, m), RC_OK);
  EXPECT_EQ(BufferText(f.buf), "a\nb\nc\nd\ne");
  EXPECT_LT(f.buf->n_blks, blocks + 2);
  EXPECT_EQ(elib_buffer_integrity_check(f.buf), RC_OK);
}

struct SearchCase {
  const char* name;
  long bor, eor, point;
  const char* needle;
  int rc;
  long at;
};

TEST(Search, ForwardInsideTheRegion) {
  // "one two\nthree two\nfour"
  const SearchCase cases[] = {
      {"on the point's line", 0, 22, 0, "two", RC_OK, 4},
      {"skips what is behind the point", 0, 22, 5, "two", RC_OK, 14},
      {"not past the region's end", 0, 12, 5, "two", RC_FAIL, 5},
      {"starting at the end offset counts", 0, 14, 5, "two", RC_OK, 14},
      {"never across a line end", 0, 22, 0, "two\nthree", RC_FAIL, 0},
      {"case matters", 0, 22, 0, "Two", RC_FAIL, 0},
      {"from the region start when the point is ahead", 8, 22, 0, "t", RC_OK, 8},
      {"multibyte", 0, 22, 0, "four", RC_OK, 18},
  };
  for (const SearchCase& c : cases) {
    SCOPED_TRACE(c.name);
    Fixture f("one two\nthree two\nfour\n", true);
    PlaceMark(f.buf, f.buf->the_point, c.point);
    REGION* r = nullptr;
    region_new(&r);
    region_set(r, f.At(c.bor), f.At(c.eor));
    EXPECT_EQ(search_region(f.buf, r, c.needle), c.rc);
    EXPECT_EQ(MarkPos(f.buf, f.buf->the_point), c.at);
    region_free(&r);
  }
}

struct ReplaceCase {
  const char* name;
  const char* old_text;
  const char* new_text;
  int rc;
  const char* text;
};

TEST(Search, ReplaceRegion) {
  const ReplaceCase cases[] = {
      {"grows without looping", "a", "aa", RC_OK, "xaax aa\naa b"},
      {"shrinks", "a", "", RC_OK, "xx \n b"},
      {"multibyte", "a", "€", RC_OK, "x€x €\n€ b"},
      {"nothing found", "q", "r", RC_FAIL, "xax a\na b"},
  };
  for (const ReplaceCase& c : cases) {
    SCOPED_TRACE(c.name);
    Fixture f("xax a\na b\n");
    REGION* r = nullptr;
    ASSERT_EQ(region_from_whole(f.buf, kWholeAll, &r), RC_OK);
    EXPECT_EQ(replace_region(f.buf, r, c.old_text, c.new_text), c.rc);
    EXPECT_EQ(BufferText(f.buf), c.text);
    EXPECT_EQ(elib_buffer_integrity_check(f.buf), RC_OK);
    region_free_whole(f.buf, &r);
  }
}

TEST(Regions, CutAndMeasure) {
  Fixture f("first line\nsecond\nthird line\n", true);
  REGION* r = nullptr;
  region_new(&r);
  MARK* inside = f.At(13);
  MARK* behind = f.At(25);
  region_set(r, f.At(21), f.At(6));  // out of order on purpose
  long n = 0;
  ASSERT_EQ(region_length(f.buf, r, 2, &n), RC_OK);
  EXPECT_EQ(n, 17);  // "line" + CR LF + "second" + CR LF + "thi"
  ASSERT_EQ(region_cut(f.buf, r), RC_OK);
  EXPECT_EQ(BufferText(f.buf), "first rd line");
  EXPECT_EQ(MarkPos(f.buf, inside), 6) << "marks inside go ahead of the cut";
  EXPECT_EQ(MarkPos(f.buf, behind), 10);
  EXPECT_EQ(elib_buffer_integrity_check(f.buf), RC_OK);
  // An empty region cuts nothing; a read-only buffer refuses.
  region_set(r, f.At(3), f.At(3));
  EXPECT_EQ(region_cut(f.buf, r), RC_FAIL);
  region_set(r, f.At(0), f.At(3));
  f.buf->flags |= kBufReadOnly;
  EXPECT_EQ(region_cut(f.buf, r), RC_FAIL);
  EXPECT_EQ(elib_insert(f.buf, f.buf->the_point, "x"), RC_FAIL);
  EXPECT_EQ(BufferText(f.buf), "first rd line");
  region_free(&r);
}

TEST(Regions, CutEverythingLeavesOneEmptyLine) {
  std::string text;
  for (int i = 0; i < 200; ++i) text += "some text " + std::to_string(i) + "\n";
  Fixture f(text, true);
  REGION* r = nullptr;
  ASSERT_EQ(region_from_whole(f.buf, kWholeAll, &r), RC_OK);
  ASSERT_EQ(region_cut(f.buf, r), RC_OK);
  EXPECT_EQ(BufferText(f.buf), "");
  EXPECT_EQ(f.buf->n_lines, 2);
  EXPECT_EQ(elib_buffer_integrity_check(f.buf), RC_OK);
  EXPECT_EQ(f.spill.files(), 0) << "spill files of cut blocks remain";
  region_free_whole(f.buf, &r);
}

TEST(Regions, StyleAndHighlight) {
  Fixture f("abc\ndef\n");
  REGION* r = nullptr;
  region_new(&r);
  region_set(r, f.At(1), f.At(6));
  ASSERT_EQ(region_set_style(f.buf, r, kStyleToggleHighlight), RC_OK);
  LINE* l1 = elib_first_block(f.buf)->lin_head->next;
  ASSERT_EQ(l1->text->chunks.size(), 2u);
  EXPECT_FALSE(l1->text->chunks[0].dispi.style & kStyleHighlight);
  EXPECT_TRUE(l1->text->chunks[1].dispi.style & kStyleHighlight);
  LINE* l2 = l1->next;
  ASSERT_EQ(l2->text->chunks.size(), 2u);
  EXPECT_TRUE(l2->text->chunks[0].dispi.style & kStyleHighlight);
  EXPECT_EQ(l2->text->chunks[0].length_ac, 2);
  region_free(&r);
}

}  // namespace
