// Random edit sequences against a plain string, in a buffer that pages all
// the time. After every step the structure must check and the text must
// be the string's.
#include <gtest/gtest.h>

#include <random>

#include "editor/elib/u8.h"
#include "tests/editor/etext_util.h"

namespace {

const char* const kOps[] = {"insert", "delete", "split", "join", "cut", "file"};
const char* const kPieces[] = {"a", "xyz", "\t", "é", "€uro", "𝄞", "line\nbreak", "\n", "\n\n", "ünï\ncode"};

struct Model {
  std::string text;
  std::mt19937 rng;
  explicit Model(unsigned seed) : rng(seed) {}

  size_t Pick(size_t limit) { return std::uniform_int_distribution<size_t>(0, limit)(rng); }
  // A random character boundary of the text.
  size_t Boundary() {
    size_t pos = Pick(text.size());
    while (pos > 0 && !u8_is_boundary(text.data(), text.size(), pos)) --pos;
    return pos;
  }
  std::string RandomText() {
    std::string out;
    for (size_t n = Pick(4); n > 0; --n) out += kPieces[Pick(std::size(kPieces) - 1)];
    if (Pick(30) == 0) out += std::string(2044 + Pick(10), 'L');
    return out.empty() ? "q" : out;
  }
};

std::string StartText() {
  std::string t;
  for (int i = 0; i < 40; ++i) t += "line " + std::to_string(i) + (i % 3 ? " \tmit Ümlaut" : "") + "\n";
  t += std::string(3000, 'W') + "\n";          // beyond one record of the file reader
  t += std::string(120 * 1024, 'H') + "é\n";   // a very long line with a wide character at its end
  t += "last";
  return t;
}

class BufferModel : public ::testing::TestWithParam<unsigned> {};

TEST_P(BufferModel, RandomEditsKeepTheText) {
  SpillDir spill, input;
  EditBuffer* buf = TinyBuffer(spill);
  Model m(GetParam());
  m.text = StartText();
  ASSERT_EQ(elib_file_read(WriteTemp(input, "start.txt", m.text).c_str(), buf), RC_OK);
  ASSERT_EQ(BufferText(buf), m.text);
  MARK* other = nullptr;
  ASSERT_EQ(mark_dup(buf, buf->the_point, &other), RC_OK);
  // A mark left alone must follow the text through every edit and page-out.
  MARK* watch = nullptr;
  ASSERT_EQ(mark_dup(buf, buf->the_point, &watch), RC_OK);
  size_t w = m.Boundary();
  ASSERT_EQ(PlaceMark(buf, watch, w), RC_OK);
  auto inserted = [&w](size_t at, size_t n) {
    if (w > at) w += n;
  };
  auto deleted = [&w](size_t lo, size_t hi) {
    if (w > hi) w -= hi - lo;
    else if (w > lo) w = lo;
  };
  int spilled = 0;
  for (int step = 0; step < 250; ++step) {
    MARK* point = buf->the_point;
    size_t a = m.Boundary();
    ASSERT_EQ(PlaceMark(buf, point, a), RC_OK);
    const size_t op = m.Pick(5);
    const char* what = kOps[op];
    switch (op) {
      case 0: {
        std::string t = m.RandomText();
        ASSERT_EQ(elib_insert(buf, point, t), RC_OK);
        m.text.insert(a, t);
        inserted(a, t.size());
        break;
      }
      case 1: {
        size_t b = m.Boundary();
        ASSERT_EQ(PlaceMark(buf, other, b), RC_OK);
        ASSERT_EQ(elib_delete_range(buf, point, other), RC_OK);
        m.text.erase(std::min(a, b), a > b ? a - b : b - a);
        deleted(std::min(a, b), std::max(a, b));
        break;
      }
      case 2:
        ASSERT_EQ(elib_split_line(buf, point), RC_OK);
        m.text.insert(a, "\n");
        inserted(a, 1);
        break;
      case 3: {
        // Join: delete the line end before a line start, or fail at the top.
        size_t nl = m.text.rfind('\n', a ? a - 1 : 0);
        if (nl == std::string::npos || a == 0) {
          ASSERT_EQ(PlaceMark(buf, point, 0), RC_OK);
          EXPECT_EQ(elib_delete_char_rev(buf, point), RC_FAIL);
        } else {
          ASSERT_EQ(PlaceMark(buf, point, nl + 1), RC_OK);
          ASSERT_EQ(elib_delete_char_rev(buf, point), RC_OK);
          m.text.erase(nl, 1);
          deleted(nl, nl + 1);
        }
        break;
      }
      case 4: {
        size_t b = m.Boundary();
        if (a == b) break;
        REGION* region = nullptr;
        region_new(&region);
        MARK* bor = nullptr;
        ASSERT_EQ(mark_dup(buf, point, &bor), RC_OK);
        ASSERT_EQ(PlaceMark(buf, other, b), RC_OK);
        region_set(region, bor, other);
        ASSERT_EQ(region_cut(buf, region), RC_OK);
        region_free(&region);
        mark_free(buf, &bor);
        m.text.erase(std::min(a, b), a > b ? a - b : b - a);
        deleted(std::min(a, b), std::max(a, b));
        break;
      }
      case 5: {
        std::string t = m.RandomText() + "\nfrom a file\n";
        ASSERT_EQ(elib_file_read(WriteTemp(input, "piece.txt", t).c_str(), buf), RC_OK);
        std::string body = t.substr(0, t.size() - 1);
        std::string added = a == m.text.size() ? body : body + "\n";
        m.text.insert(a, added);
        inserted(a, added.size());
        break;
      }
    }
    ASSERT_EQ(elib_buffer_integrity_check(buf), RC_OK) << "step " << step << " " << what << ": " << elib_last_error();
    ASSERT_EQ(BufferText(buf), m.text) << "step " << step << " " << what;
    ASSERT_EQ(MarkPos(buf, watch), static_cast<long>(w)) << "step " << step << " " << what;
    ASSERT_LE(buf->blks_in_mem, buf->max_blks + 1);
    spilled = std::max(spilled, spill.files());
  }
  EXPECT_GT(spilled, 0) << "the test must page blocks out";
  mark_free(buf, &other);
  mark_free(buf, &watch);
  elib_buffer_destroy(&buf);
  EXPECT_EQ(spill.files(), 0) << "spill files outlive their buffer";
}

INSTANTIATE_TEST_SUITE_P(Seeds, BufferModel, ::testing::Values(1u, 2u, 3u, 7u, 42u));

}  // namespace
