#include <cstring>
#include <functional>
#include <string>

#include "rclib/strings.h"
#include "tests/rclib/rclib_fixture.h"

class StringsTest : public RclibTest {};

// A helper writing into (out, size), its expected answer and output. A failure named "... fit" must also say why
// through rc_errno.
struct OutCase {
  const char* name;
  std::function<int(char*, size_t)> call;
  int rc;
  const char* out;
};

static void run_cases(const std::vector<OutCase>& cases, size_t size) {
  for (const OutCase& c : cases) {
    std::vector<char> out(size + 1, '#');  // one guard byte behind the buffer
    rc_errno = 0;
    EXPECT_EQ(c.call(out.data(), size), c.rc) << c.name;
    EXPECT_STREQ(out.data(), c.out) << c.name;
    EXPECT_EQ(out[size], '#') << c.name << ": wrote past the buffer";
    EXPECT_EQ(rc_errno, std::strstr(c.name, " fit") && c.rc == RC_FAIL ? kRcErrNoFit : 0) << c.name;
  }
}

TEST_F(StringsTest, TrimmingAndInPlaceEdits) {
  struct Case { const char* in; int blank; const char *l, *r, *both; };
  const Case cases[] = {
      {" \t\r\n", RC_OK, "", "", ""},
      {"  a b \t", RC_FAIL, "a b \t", "  a b", "a b"},
      {" \f ", RC_OK, "\f ", " \f", "\f"},  // white, but only blank, tab, CR and LF are trimmed
  };
  for (const Case& c : cases) {
    EXPECT_EQ(rc_str_is_blank(c.in), c.blank) << c.in;
    std::string l(c.in), r(c.in), both(c.in);
    EXPECT_STREQ(rc_str_ltrim(l.data()), c.l);
    EXPECT_EQ(rc_str_rtrim(r.data()), r.data() + std::strlen(c.r));  // the new end
    EXPECT_STREQ(r.c_str(), c.r);
    EXPECT_STREQ(rc_str_trim(both.data()), c.both);
  }
  char buf[6] = "ab";
  EXPECT_EQ(rc_str_pad(buf, 6, '.', sizeof buf), RC_FAIL);  // needs 7 bytes
  EXPECT_EQ(rc_errno, kRcErrNoFit);
  EXPECT_STREQ(buf, "ab");
  EXPECT_EQ(rc_str_pad(buf, 5, '.', sizeof buf), RC_OK);
  EXPECT_STREQ(buf, "ab...");
  char joined[] = "aabbc", quoted[] = "\"q\"";
  EXPECT_EQ(rc_str_remove_all(joined, "ab"), 2);  // the pieces left join into "ab" again
  EXPECT_STREQ(joined, "c");
  EXPECT_STREQ(rc_str_strip_char(quoted, '"'), "q");
}

TEST_F(StringsTest, WordsFieldsAndSpecs) {
  const char* line = "  set\tEditor.Tab  4 \n";
  run_cases({
      {"word 3", [&](char* o, size_t n) { return rc_str_word(line, 3, o, n); }, RC_OK, "4"},
      {"word 4", [&](char* o, size_t n) { return rc_str_word(line, 4, o, n); }, RC_FAIL, ""},
      {"field 2", [&](char* o, size_t n) { return rc_str_field(line, 2, o, n); }, RC_OK, "4"},
      {"field 3", [&](char* o, size_t n) { return rc_str_field(line, 3, o, n); }, RC_FAIL, ""},
      {"field 2", [&](char* o, size_t n) { return rc_str_field_spec(line, "2", o, n); }, RC_OK, "Editor.Tab"},
      {"field 2+", [&](char* o, size_t n) { return rc_str_field_spec(line, "2+", o, n); }, RC_OK, "Editor.Tab  4 \n"},
      {"field +", [&](char* o, size_t n) { return rc_str_field_spec(line, "+", o, n); }, RC_FAIL, ""},
      {"field 4+", [&](char* o, size_t n) { return rc_str_field_spec(line, "4+", o, n); }, RC_FAIL, ""},
  }, 64);
  EXPECT_EQ(rc_str_word_count(line), 3);
  const char* second = rc_str_word_ptr(line, 2);
  EXPECT_EQ(second, line + 6);
  EXPECT_EQ(rc_str_next_word(second), line + 18);
  EXPECT_EQ(rc_str_next_word(line + 18), nullptr);
}

TEST_F(StringsTest, PiecesOfAStringUpToTheBufferLimit) {
  // Eight bytes hold seven characters.
  run_cases({
      {"word does fit", [](char* o, size_t n) { return rc_str_word("x 1234567", 2, o, n); }, RC_OK, "1234567"},
      {"word does not fit", [](char* o, size_t n) { return rc_str_word("x 12345678", 2, o, n); }, RC_FAIL, ""},
      {"tail does fit", [](char* o, size_t n) { return rc_str_tail("abcdefghij", 7, o, n); }, RC_OK, "defghij"},
      {"tail does not fit", [](char* o, size_t n) { return rc_str_tail("abcdefghij", 8, o, n); }, RC_FAIL, ""},
      {"tail short", [](char* o, size_t n) { return rc_str_tail("abc", 10, o, n); }, RC_OK, "abc"},
      {"mid does not fit", [](char* o, size_t n) { return rc_str_mid("abcdefghij", 2, 9, o, n); }, RC_FAIL, ""},
      {"mid", [](char* o, size_t n) { return rc_str_mid("abcdef", 2, 3, o, n); }, RC_OK, "bcd"},
      {"mid to end", [](char* o, size_t n) { return rc_str_mid("abcdef", 5, 10, o, n); }, RC_OK, "ef"},
      {"mid from 0", [](char* o, size_t n) { return rc_str_mid("abc", 0, 1, o, n); }, RC_FAIL, ""},
      {"after does not fit", [](char* o, size_t n) { return rc_str_after("k=abcdefgh", "=", o, n); }, RC_FAIL, ""},
      {"after", [](char* o, size_t n) { return rc_str_after("key=a=b", "=", o, n); }, RC_OK, "a=b"},
      {"after absent", [](char* o, size_t n) { return rc_str_after("key", "=", o, n); }, RC_OK, ""},
      {"before", [](char* o, size_t n) { return rc_str_before("key=a=b", "=", o, n); }, RC_OK, "key"},
      {"before absent", [](char* o, size_t n) { return rc_str_before("key", "=", o, n); }, RC_OK, "key"},
      {"quoted does not fit", [](char* o, size_t n) { return rc_str_detab_quoted("a\tb", o, 8, n); }, RC_FAIL, ""},
  }, 8);
}

TEST_F(StringsTest, ReplaceHonoursTheLimit) {
  struct Case { const char *s, *old_text, *new_text; size_t limit; int rc; const char* out; };
  const Case cases[] = {
      {"a-b-c", "-", "+++", 7, RC_OK, "a+++b-c"},  // exactly the limit
      {"a-b-c", "-", "+++", 6, RC_FAIL, ""},       // one over
      {"a-b-c", "x", "+++", 5, RC_OK, "a-b-c"},    // absent: a copy...
      {"a-b-c", "x", "+++", 4, RC_FAIL, ""},       // ...that must fit too
      {"a-b-c", "-b", "", 5, RC_OK, "a-c"},
  };
  for (const Case& c : cases) {
    std::vector<char> out(c.limit + 2, '#');
    rc_errno = 0;
    EXPECT_EQ(rc_str_replace(c.s, c.old_text, c.new_text, out.data(), c.limit), c.rc) << c.limit;
    EXPECT_STREQ(out.data(), c.out);
    EXPECT_EQ(out[c.limit + 1], '#');
    EXPECT_EQ(rc_errno, c.rc == RC_OK ? 0 : kRcErrNoFit);
  }
  char same[16] = "one two";
  EXPECT_EQ(rc_str_replace(same, "one", "three", same, 15), RC_OK);  // in place
  EXPECT_STREQ(same, "three two");
}

TEST_F(StringsTest, TabExpansion) {
  struct Case { const char* in; int tab; size_t size; int rc; const char* out; };
  const Case cases[] = {
      {"a\tb", 4, 64, RC_OK, "a   b"},
      {"ab\n\tx", 4, 64, RC_OK, "ab\n    x"},  // columns restart after a newline
      {"a\tb", 4, 6, RC_OK, "a   b"},         // exactly the buffer
      {"a\tb", 4, 5, RC_FAIL, "a\tb"},        // one over: left as it was
  };
  for (const Case& c : cases) {
    char buf[64];
    std::strcpy(buf, c.in);
    EXPECT_EQ(rc_str_detab(c.tab, buf, c.size), c.rc) << c.in;
    EXPECT_STREQ(buf, c.out);
  }
  // The work buffer holds 511 characters, whatever the caller's size.
  std::string fits = std::string(507, 'x') + '\t';  // to column 511, a multiple of 7
  std::vector<char> big(2048);
  std::strcpy(big.data(), fits.c_str());
  EXPECT_EQ(rc_str_detab(7, big.data(), big.size()), RC_OK);
  EXPECT_EQ(std::strlen(big.data()), 511u);
  std::strcpy(big.data(), (fits + "y").c_str());
  EXPECT_EQ(rc_str_detab(7, big.data(), big.size()), RC_FAIL);
  EXPECT_EQ(rc_errno, kRcErrNoFit);

  run_cases({
      {"quoted", [](char* o, size_t n) { return rc_str_detab_quoted("a\t\"x\ty\"\tb", o, 4, n); }, RC_OK,
       "a   \"x\ty\"   b"},
      {"escaped quote", [](char* o, size_t n) { return rc_str_detab_quoted("\"a\\\"\tb\"\tc", o, 4, n); },
       RC_OK, "\"a\\\"\tb\" c"},
  }, 64);
}

TEST_F(StringsTest, MatchingDelimiters) {
  struct Case { const char* s; int n; int end; };  // end: offset behind the closing run, -1 none
  const Case cases[] = {
      {"'abc' rest", 1, 5}, {"''", 1, 2},
      {"'a\\'b' x", 1, 6},     // an escaped delimiter does not close
      {"''x'' y", 2, 5},
      {"'a''b''c' d", 1, 9},   // a doubled run opens a nested pair
      {"'a''b' c", 1, -1},     // the nested pair never closes
      {"'a''' b", 1, -1},      // a run of three is text
      {"'abc", 1, -1},         {"x'", 2, -1},
  };
  for (const Case& c : cases) {
    const char* end = rc_str_match_delim(c.s, c.n);
    EXPECT_EQ(end ? end - c.s : -1, c.end) << c.s;
  }
  run_cases({
      {"strip", [](char* o, size_t n) { return rc_str_strip_delim("\"hello \\\" there\" tail", o, n); }, RC_OK,
       "hello \\\" there"},
      {"strip open", [](char* o, size_t n) { return rc_str_strip_delim("\"abc", o, n); }, RC_FAIL, ""},
  }, 64);
}
