// The spill file: what the writer produces, that every kind of line comes
// back whole, and that a damaged file fails with a reason instead of
// crashing or losing text quietly. Also the file reader's line ends.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <tuple>

#include "rclib/rcdebug.h"
#include "tests/editor/etext_util.h"

namespace {

// A block with the given lines; each line's runs split at every `run` bytes.
BLOCK* MakeBlock(int id, const std::vector<std::string>& lines, long run = 0) {
  BLOCK* blk = nullptr;
  elib_block_new(&blk);
  blk->id = id;
  blk->flags = BLK_IN_MEM;
  LINE* last = blk->lin_head;
  int n = 0;
  for (const std::string& s : lines) {
    LINE* lin = nullptr;
    line_new(&lin, s.data(), s.size(), nullptr);
    lin->id = ++n;
    lin->flags = n % 2 ? kLineRemeasure : 0;
    if (run > 0)
      for (long at = run; at < static_cast<long>(s.size()); at += run) chunklist_partition(lin->text, at);
    lin->prev = last;
    lin->next = blk->lin_head;
    last->next = lin;
    blk->lin_head->prev = lin;
    last = lin;
    blk->n_lines++;
  }
  return blk;
}

TEST(Spill, WriterOutputIsByteExact) {
  BLOCK* blk = MakeBlock(7, {"a\tb", ""});
  blk->lin_head->next->text->chunks[0].dispi.style = kStyleBold | kStyleHighlight;
  std::string out;
  ASSERT_EQ(elib_block_write_spill(blk, &out), RC_OK);
  EXPECT_EQ(out,
            "7 2\n"
            "1 4\n4 4 1\n3 0 0 0 0 0 0\n0 0 1032 33619712 117440256\na\tb\n"
            "2 0\n1 1 1\n0 0 0 0 0 0 0\n0 0 4 33619712 117440256\n\n");
  elib_block_destroy(&blk);
}

struct RoundTrip {
  const char* name;
  std::vector<std::string> lines;
  long run;
};

TEST(Spill, RoundTripKeepsEveryLine) {
  std::string all_bytes;
  for (int c = 1; c < 256; ++c) all_bytes.push_back(static_cast<char>(c));
  const RoundTrip cases[] = {
      {"empty line", {""}, 0},
      {"tabs", {"\tx\t\ty", "\t"}, 0},
      {"many runs", {std::string(300, 'r')}, 1},
      {"every byte, line feed and CR inside", {all_bytes}, 7},
      {"at the record limit", {std::string(2044, 'a'), std::string(2045, 'b'), std::string(2046, 'c')}, 0},
      {"very long", {std::string(200 * 1024, 'z') + "€"}, 4096},
      {"multibyte", {"ü€𝄞", "日本語"}, 3},
  };
  for (const RoundTrip& c : cases) {
    SCOPED_TRACE(c.name);
    BLOCK* blk = MakeBlock(12, c.lines, c.run);
    // All style bits and odd colours on the first run.
    CHUNK& first = blk->lin_head->next->text->chunks[0];
    first.dispi = DISPI{kDispiSetByProgram, 0777, 0x7FC, 0, -5, 0x7FFFFFFF};
    first.metric_a = -3;
    first.h_px = 16;
    // A line that has grown while typing is written with its larger size.
    ITEXT* grown = blk->lin_head->next->text;
    ASSERT_EQ(itext_insert_char(grown, 'g', 0), RC_OK);
    ASSERT_EQ(itext_delete(grown, 0), RC_OK);
    ASSERT_GT(grown->text_size, grown->text_len);
    std::string data;
    ASSERT_EQ(elib_block_write_spill(blk, &data), RC_OK);
    BLOCK* back = nullptr;
    elib_block_new(&back);
    back->id = 12;
    ASSERT_EQ(elib_block_read_spill(back, data), RC_OK) << elib_last_error();
    back->flags = BLK_IN_MEM;
    EXPECT_EQ(elib_block_integrity_check(back), RC_OK);
    ASSERT_EQ(back->n_lines, blk->n_lines);
    for (LINE *a = blk->lin_head->next, *b = back->lin_head->next; a != blk->lin_head; a = a->next, b = b->next) {
      EXPECT_EQ(std::string(b->text->text, itext_length(b->text)), std::string(a->text->text, itext_length(a->text)));
      EXPECT_EQ(b->id, a->id);
      EXPECT_EQ(b->flags, a->flags);
      ASSERT_EQ(b->text->chunks.size(), a->text->chunks.size());
      auto fields = [](const CHUNK& c) {
        return std::tuple(c.length_ac, c.metric_a, c.h_px, c.dispi.flags, c.dispi.mask,
                          c.dispi.style, c.dispi.fg, c.dispi.bg);
      };
      for (size_t i = 0; i < a->text->chunks.size(); ++i)
        EXPECT_EQ(fields(b->text->chunks[i]), fields(a->text->chunks[i])) << "run " << i;
      // Typing after a reload must find room in the allocation: the size
      // read back is what was allocated, not what was written.
      EXPECT_EQ(b->text->text_size, b->text->text_len);
      ASSERT_EQ(itext_insert_string(b->text, "typed", 5, 0), RC_OK);
      EXPECT_EQ(itext_check(b->text), RC_OK);
    }
    elib_block_destroy(&blk);
    elib_block_destroy(&back);
  }
}

struct Damage {
  const char* name;
  std::string data;
  const char* says = "";
};

TEST(Spill, DamagedFilesFailWithAReason) {
  const std::string line = "1 4\n4 4 1\n3 0 0 0 0 0 0\n0 0 4 1 2\nabc\n";
  const Damage cases[] = {
      {"empty", ""},
      {"id mismatch", "8 1\n" + line, "Mismatched block ids"},
      {"header without count", "7\n" + line},
      {"header with extra field", "7 1 1\n" + line},
      {"count above the lines", "7 2\n" + line},
      {"huge count", "7 99999999\n" + line},
      {"negative count", "7 -1\n" + line},
      {"line record missing flags", "7 1\n1\n4 4 1\n3 0 0 0 0 0 0\n0 0 4 1 2\nabc\n"},
      {"line record extra field", "7 1\n1 4 5\n4 4 1\n3 0 0 0 0 0 0\n0 0 4 1 2\nabc\n"},
      {"end-of-text flag", "7 1\n1 2\n4 4 1\n3 0 0 0 0 0 0\n0 0 4 1 2\nabc\n"},
      {"octal digit 8", "7 1\n1 8\n4 4 1\n3 0 0 0 0 0 0\n0 0 4 1 2\nabc\n"},
      {"huge chunk count", "7 1\n1 4\n4 4 2000000000\n3 0 0 0 0 0 0\n0 0 4 1 2\nabc\n"},
      {"more chunks than bytes", "7 1\n1 4\n4 4 9\n3 0 0 0 0 0 0\n0 0 4 1 2\nabc\n"},
      {"negative text length", "7 1\n1 4\n4 -4 1\n3 0 0 0 0 0 0\n0 0 4 1 2\nabc\n"},
      {"size below length", "7 1\n1 4\n2 4 1\n3 0 0 0 0 0 0\n0 0 4 1 2\nabc\n"},
      {"negative chunk length", "7 1\n1 4\n4 4 1\n-3 0 0 0 0 0 0\n0 0 4 1 2\nabc\n"},
      {"chunk lengths do not add up", "7 1\n1 4\n4 4 1\n2 0 0 0 0 0 0\n0 0 4 1 2\nabc\n", "Integ on read item"},
      {"chunk with six fields", "7 1\n1 4\n4 4 1\n3 0 0 0 0 0\n0 0 4 1 2\nabc\n"},
      {"dispi with four fields", "7 1\n1 4\n4 4 1\n3 0 0 0 0 0 0\n0 0 4 1\nabc\n", "dispi_read"},
      {"dispi too long", "7 1\n1 4\n4 4 1\n3 0 0 0 0 0 0\n0 0 4 1 " + std::string(200, '2') + "\nabc\n"},
      {"text longer than said", "7 1\n1 4\n4 4 1\n3 0 0 0 0 0 0\n0 0 4 1 2\nabcd\n"},
      {"text length beyond the file", "7 1\n1 4\n999999 999999 1\n3 0 0 0 0 0 0\n0 0 4 1 2\nabc\n"},
      {"truncated in the text", "7 1\n1 4\n4 4 1\n3 0 0 0 0 0 0\n0 0 4 1 2\nab"},
      {"truncated in a record", "7 1\n1 4\n4 4 1\n3 0 0"},
      {"NUL in the text", std::string("7 1\n1 4\n4 4 1\n3 0 0 0 0 0 0\n0 0 4 1 2\na\0c\n", 39)},
      {"data behind the last line", "7 1\n" + line + "junk\n"},
      {"cut UTF-8 at a run boundary", "7 1\n1 4\n3 3 2\n1 0 0 0 0 0 0\n0 0 4 1 2\n1 0 0 0 0 0 0\n0 0 4 1 2\n\xC3\xA9\n"},
  };
  {
    // The undamaged file reads, so each case below fails for its own fault.
    BLOCK* blk = nullptr;
    elib_block_new(&blk);
    blk->id = 7;
    EXPECT_EQ(elib_block_read_spill(blk, "7 1\n" + line), RC_OK) << elib_last_error();
    elib_block_destroy(&blk);
  }
  SpillDir dir;
  rc_debug_set_file((dir.path + "/trickle.out").c_str());
  rc_debug_add(kElibTraceFail);
  for (const Damage& c : cases) {
    SCOPED_TRACE(c.name);
    BLOCK* blk = nullptr;
    elib_block_new(&blk);
    blk->id = 7;
    elib_clear_error();
    ::unlink((dir.path + "/trickle.out").c_str());
    EXPECT_EQ(elib_block_read_spill(blk, c.data), RC_FAIL);
    EXPECT_FALSE(elib_last_error().empty());
    EXPECT_NE(ReadFile(dir.path + "/trickle.out").find(c.says), std::string::npos) << ReadFile(dir.path + "/trickle.out");
    EXPECT_FALSE(ReadFile(dir.path + "/trickle.out").empty()) << "no trace line";
    EXPECT_EQ(blk->lin_head->next, blk->lin_head) << "half a block left behind";
    elib_block_destroy(&blk);
  }
  rc_debug_remove(kElibTraceFail);
  rc_debug_set_file("trickle.out");
}

// Fills a buffer past its memory limit and returns a spilled block.
BLOCK* SpilledBlock(EditBuffer* buf) {
  for (BLOCK* b = elib_first_block(buf); !(b->flags & kBlkTail); b = b->next)
    if (!(b->flags & BLK_IN_MEM)) return b;
  return nullptr;
}

std::string Lines(int n) {
  std::string t;
  for (int i = 0; i < n; ++i) t += "text line " + std::to_string(i) + "\n";
  return t;
}

TEST(Spill, UnreadableBlockIsAnErrorAndKeepsItsFile) {
  SpillDir spill, input;
  EditBuffer* buf = TinyBuffer(spill);
  std::string text = Lines(60);
  ASSERT_EQ(elib_file_read(WriteTemp(input, "in.txt", text).c_str(), buf), RC_OK);
  BLOCK* blk = SpilledBlock(buf);
  ASSERT_NE(blk, nullptr);
  struct stat st;
  ASSERT_EQ(::stat(blk->fname.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(blk->fname.rfind(spill.path, 0), 0u) << "spill file outside the given directory";
  std::string saved = ReadFile(blk->fname);
  std::string path = blk->fname;

  // Damaged: the walk stops with a reason and the file is still there.
  { std::ofstream(path, std::ios::binary | std::ios::trunc) << "garbage\n"; }
  elib_clear_error();
  EXPECT_EQ(elib_buffer_integrity_check(buf), RC_FAIL);
  EXPECT_NE(elib_last_error().find("could not be read back"), std::string::npos) << elib_last_error();
  EXPECT_EQ(::stat(path.c_str(), &st), 0);
  std::string out = input.path + "/out.txt";
  EXPECT_EQ(elib_file_write(out.c_str(), buf), RC_FAIL);
  EXPECT_NE(::access(out.c_str(), F_OK), 0) << "a partial file was written";

  // Repaired: nothing was lost.
  { std::ofstream(path, std::ios::binary | std::ios::trunc) << saved; }
  EXPECT_EQ(elib_buffer_integrity_check(buf), RC_OK) << elib_last_error();
  EXPECT_EQ(BufferText(buf) + "\n", text);

  // Deleted: an error too.
  blk = SpilledBlock(buf);
  ASSERT_NE(blk, nullptr);
  ::unlink(blk->fname.c_str());
  EXPECT_EQ(elib_buffer_integrity_check(buf), RC_FAIL);
  EXPECT_FALSE(elib_last_error().empty());
  elib_buffer_destroy(&buf);
  EXPECT_EQ(spill.files(), 0);
}

struct FgetsCase {
  const char* name;
  std::string input;
  int size;
  std::vector<std::string> reads;
};

TEST(FileRead, FgetsLineEnds) {
  const FgetsCase cases[] = {
      {"CR LF", "a\r\nb", kAbigbuf, {"a\n", "b"}},
      {"lone CR", "a\rb", kAbigbuf, {"a\n", "b"}},
      {"CR at the end", "a\r", kAbigbuf, {"a\n"}},
      {"CR CR LF", "a\r\r\nb", kAbigbuf, {"a\n", "\n", "b"}},
      {"no final LF", "abc", kAbigbuf, {"abc"}},
      {"empty", "", kAbigbuf, {}},
      {"3000 bytes", std::string(3000, 'x') + "\n", kAbigbuf, {std::string(2046, 'x'), std::string(954, 'x') + "\n"}},
      {"small buffer", "abcd\n", 3, {"ab", "cd", "\n"}},
  };
  for (const FgetsCase& c : cases) {
    SCOPED_TRACE(c.name);
    FILE* f = ::fmemopen(const_cast<char*>(c.input.data()), c.input.size(), "r");
    if (c.input.empty()) f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    std::vector<std::string> got;
    char line[kAbigbuf];
    while (elib_fgets(line, c.size, f)) got.emplace_back(line);
    EXPECT_EQ(got, c.reads);
    std::fclose(f);
  }
}

struct ReadCase {
  const char* name;
  std::string file;
  int rc;
  std::string text;  // after reading into an empty buffer
  int blocks;        // ordinary blocks
};

TEST(FileRead, IntoAnEmptyBuffer) {
  const ReadCase cases[] = {
      {"500 lines make one block", Lines(500), RC_OK, Lines(500).substr(0, Lines(500).size() - 1), 1},
      {"the 501st opens a second", Lines(501), RC_OK, Lines(501).substr(0, Lines(501).size() - 1), 2},
      {"no final line feed", "a\nb", RC_OK, "a\nb", 1},
      {"CR LF and lone CR", "a\r\nb\rc\n", RC_OK, "a\nb\nc", 1},
      {"long line stays whole", std::string(3000, 'x') + "\ny\n", RC_OK, std::string(3000, 'x') + "\ny", 1},
      {"empty file", "", RC_FAIL, "", 1},
      {"NUL byte", std::string("a\0b\n", 4), RC_FAIL, "", 1},
  };
  SpillDir spill, input;
  for (const ReadCase& c : cases) {
    SCOPED_TRACE(c.name);
    EditBuffer* buf = nullptr;
    elib_buffer_create(&buf);
    elib_set_spill_dir(buf, spill.path.c_str());
    EXPECT_EQ(elib_file_read(WriteTemp(input, "in.txt", c.file).c_str(), buf), c.rc);
    EXPECT_EQ(BufferText(buf), c.text);
    EXPECT_EQ(buf->n_blks - 1, c.blocks);
    EXPECT_EQ(elib_buffer_integrity_check(buf), RC_OK);
    // What was read is written back unchanged (line ends made LF).
    if (c.rc == RC_OK) {
      std::string out = input.path + "/out.txt";
      ASSERT_EQ(elib_file_write(out.c_str(), buf), RC_OK);
      EXPECT_EQ(ReadFile(out), c.text + "\n");
      EXPECT_FALSE(buf->flags & kBufModified);
    }
    elib_buffer_destroy(&buf);
  }
  EditBuffer* buf = nullptr;
  elib_buffer_create(&buf);
  EXPECT_EQ(elib_file_read((input.path + "/missing").c_str(), buf), RC_FAIL);
  EXPECT_EQ(elib_file_read("", buf), RC_OK);
  elib_buffer_destroy(&buf);
}

}  // namespace
