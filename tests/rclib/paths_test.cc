// Strings and path names; the line streams read from files; and the safe writer.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "rclib/iostream.h"
#include "rclib/paths.h"
#include "rclib/safe_file.h"
#include "rclib/strings.h"
#include "tests/rclib/rclib_fixture.h"

namespace fs = std::filesystem;

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

class PathsTest : public ScratchTest {};

TEST_F(PathsTest, SplitIntoParts) {
  struct Case { const char *path, *dir, *name, *ext; };
  const Case cases[] = {
      {"/home/u/letter.txt", "/home/u/", "letter", ".txt"},
      {"letter", "", "letter", ""},
      {"a.tar.gz", "", "a.tar", ".gz"},
      {"/home/u/.profile", "/home/u/", ".profile", ""},
      {"old\\dos\\FILE.DAT", "old\\dos\\", "FILE", ".DAT"},
      {"/", "/", "", ""},
      {"..", "", "..", ""},
      {"name.", "", "name", "."},
  };
  for (const Case& c : cases) {
    char drive[kRcNameBuf] = "?", dir[kRcPathBuf], name[kRcNameBuf], ext[kRcNameBuf];
    EXPECT_EQ(rc_path_split(c.path, drive, dir, name, ext), RC_OK) << c.path;
    EXPECT_STREQ(drive, "");
    EXPECT_STREQ(dir, c.dir) << c.path;
    EXPECT_STREQ(name, c.name) << c.path;
    EXPECT_STREQ(ext, c.ext) << c.path;
  }
  // A name of 31 characters fits its 32 bytes, 32 do not.
  std::string name31(31, 'n');
  char name[kRcNameBuf];
  EXPECT_EQ(rc_path_split(("/d/" + name31 + ".x").c_str(), nullptr, nullptr, name, nullptr), RC_OK);
  EXPECT_EQ(name, name31);
  EXPECT_EQ(rc_path_split(("/d/" + name31 + "n.x").c_str(), nullptr, nullptr, name, nullptr), RC_FAIL);
  EXPECT_EQ(rc_errno, kRcErrNoFit);
  EXPECT_STREQ(name, "");
  EXPECT_EQ(rc_path_split(std::string(300, 'p').c_str(), nullptr, nullptr, nullptr, nullptr), RC_FAIL);
}

TEST_F(PathsTest, NamesFieldsAndSubstitution) {
  struct Case { const char* name; std::function<int(char*)> call; int rc, err; const char* out; };
  const Case cases[] = {
      {"file name", [](char* o) { return rc_path_file_name("/a/b/c.txt", o); }, RC_OK, 0, "c.txt"},
      {"file name of dir", [](char* o) { return rc_path_file_name("/a/b/", o); }, RC_OK, 0, ""},
      {"component 1", [](char* o) { return rc_path_component("/h/.local/in.box.fol", 1, o); }, RC_OK, 0, "in"},
      {"empty component", [](char* o) { return rc_path_component("a..b", 2, o); }, RC_OK, 0, ""},
      {"no component 4", [](char* o) { return rc_path_component("in.box.fol", 4, o); }, RC_FAIL, kRcErrNotFound, ""},
      {"subst", [](char* o) { return rc_path_subst("inbox.fol", "=.idx", o); }, RC_OK, 0, "inbox.idx"},
      {"subst two", [](char* o) { return rc_path_subst("a.b.c", "x.=.=", o); }, RC_OK, 0, "x.b.c"},
      {"subst field holding =", [](char* o) { return rc_path_subst("a.b", "x=y.c", o); }, RC_OK, 0, "a.c"},
      {"subst keeps pattern dir", [](char* o) { return rc_path_subst("/h/.local/in.fol", "/tmp/=.bak", o); },
       RC_OK, 0, "/tmp/in.bak"},
      {"subst short model", [](char* o) { return rc_path_subst("inbox", "=.=", o); }, RC_FAIL, kRcErrNoSubst, ""},
      {"subst model with =", [](char* o) { return rc_path_subst("a=b.c", "=.x", o); }, RC_FAIL, kRcErrNoSubst, ""},
  };
  for (const Case& c : cases) {
    char out[kRcPathBuf] = "?";
    rc_errno = 0;
    EXPECT_EQ(c.call(out), c.rc) << c.name;
    EXPECT_EQ(rc_errno, c.err) << c.name;
    EXPECT_STREQ(out, c.out) << c.name;
  }
}

TEST_F(PathsTest, RelativePaths) {
  struct Case { const char *path, *base; int rc; const char* out; };
  const Case cases[] = {
      {"/a/b/c.txt", "/a/d", RC_OK, "../b/c.txt"},
      {"/a/b", "/a/b/c/d", RC_OK, "../.."},
      {"/a/b", "/a//b/.", RC_OK, "."},
      {"/a/x/../b/f", "/a/b", RC_OK, "f"},
      {"/etc", "/", RC_OK, "etc"},
      {"../x", "..", RC_OK, "x"},
      {"x", "../y", RC_FAIL, ""},  // the base's own name is unknown
      {"/a", "a", RC_FAIL, ""},
  };
  for (const Case& c : cases) {
    char out[kRcPathBuf] = "?";
    EXPECT_EQ(rc_path_relpath(c.path, c.base, out), c.rc) << c.path << " from " << c.base;
    EXPECT_STREQ(out, c.out) << c.path << " from " << c.base;
  }
}

// Temporary places come from the environment; a temporary name skips a file already there.
TEST_F(PathsTest, TemporaryPlacesAndRegularFiles) {
  std::string twice = "a//";
  EXPECT_STREQ(rc_path_strip_sep(twice.data()), "a/");  // one separator only
  file("f");
  fs::create_directory("d");
  EXPECT_EQ(rc_path_is_file_strip("f/") * 100 + rc_path_is_file_strip("d/"), RC_OK * 100 + RC_FAIL);
  const char* saved = getenv("TMPDIR");
  const std::string kept = saved ? saved : "";
  setenv("TMPDIR", "/var/tmp/", 1);
  setenv("RAMDISK", "", 1);
  char out[kRcPathBuf], first[kRcPathBuf], next[kRcPathBuf], name[16];
  EXPECT_EQ(rc_path_temp_dir(out, 2), RC_OK);
  EXPECT_STREQ(out, "/var/tmp");
  EXPECT_EQ(rc_path_temp_dir(out, 1), RC_FAIL);
  setenv("RAMDISK", "/mnt/ram", 1);
  EXPECT_EQ(rc_path_temp_dir(out, 1), RC_OK);
  EXPECT_STREQ(out, "/mnt/ram/");
  unsetenv("RAMDISK");
  saved ? setenv("TMPDIR", kept.c_str(), 1) : unsetenv("TMPDIR");
  ASSERT_EQ(rc_path_temp_name(first), RC_OK);
  std::snprintf(name, sizeof name, "%05dtmp", std::atoi(first) + 1);
  file(name);
  ASSERT_EQ(rc_path_temp_name(next), RC_OK);
  EXPECT_EQ(std::atoi(next), std::atoi(first) + 2);
}

TEST_F(PathsTest, MakeDirsLevelByLevel) {
  EXPECT_EQ(rc_path_make_dirs("", "mail/2024/inbox/"), RC_OK);
  EXPECT_EQ(rc_path_make_dirs("mail", "2024\\sent"), RC_OK);  // the first level exists
  EXPECT_TRUE(fs::is_directory("mail/2024/sent"));
  struct stat info;
  ASSERT_EQ(stat("mail/2024/inbox", &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);

  file("mail/file");
  EXPECT_EQ(rc_path_make_dirs("mail", "file/sub"), RC_FAIL);
  EXPECT_EQ(rc_path_make_dirs("missing", "sub"), RC_FAIL);
  EXPECT_EQ(rc_path_make_dirs((dir_ / "mail").c_str(), "2024/inbox"), RC_OK);  // all there already
  EXPECT_EQ(rc_path_make_dirs("", std::string(300, 'd').c_str()), RC_FAIL);
  EXPECT_EQ(rc_errno, kRcErrNoFit);
}

class StreamTest : public ScratchTest {
 protected:
  STREAM_INFO* reader(const std::string& text) {
    STREAM_INFO* s = nullptr;
    EXPECT_EQ(rc_stream_open_read(file("in.txt", text).c_str(), &s), RC_OK);
    return s;
  }
};

TEST_F(StreamTest, OpenAndCloseFailures) {
  STREAM_INFO* s = reinterpret_cast<STREAM_INFO*>(this);
  EXPECT_EQ(rc_stream_open_read((dir_ / "missing").c_str(), &s), RC_FAIL);
  EXPECT_EQ(s, nullptr);
  // Too long for the record: refused before the file is created.
  std::string long_path = (dir_ / std::string(250, 'n')).string();
  EXPECT_EQ(rc_stream_open_write(long_path.c_str(), &s), RC_FAIL);
  EXPECT_EQ(rc_errno, kRcErrNoFit);
  EXPECT_FALSE(fs::exists(long_path));
  EXPECT_EQ(rc_stream_close(nullptr), RC_FAIL);
  EXPECT_EQ(rc_stream_close(&s), RC_OK);
  // A close that cannot write the buffered data is reported.
  if (access("/dev/full", W_OK) == 0) {
    ASSERT_EQ(rc_stream_open_write("/dev/full", &s), RC_OK);
    rc_stream_write(s, "lost\n");
    rc_errno = 0;
    EXPECT_EQ(rc_stream_close(&s), RC_FAIL);
    EXPECT_EQ(rc_errno, kRcErrStream);
    EXPECT_EQ(s, nullptr);
  }
}

TEST_F(StreamTest, LongLinesComeInPieces) {
  STREAM_INFO* s = reader("abcdefghijklmnopq\nxy\nlast");
  struct Piece { int n; const char* text; long lines; };
  const Piece pieces[] = {{7, "abcdefg", 0}, {7, "hijklmn", 0}, {4, "opq\n", 1}, {3, "xy\n", 2},
                          {4, "last", 2},    {0, "", 2}};
  for (const Piece& p : pieces) {
    char buf[9] = "########";
    EXPECT_EQ(rc_stream_read_line(s, 8, buf), p.n);
    EXPECT_STREQ(buf, p.text);
    EXPECT_EQ(buf[8], '\0');  // the array's own terminator is untouched
    EXPECT_EQ(s->lines, p.lines);
  }
  char tiny[1];
  rc_errno = 0;
  EXPECT_EQ(rc_stream_read_line(s, 1, tiny), 0);
  EXPECT_EQ(rc_errno, kRcErrNoFit);
  rc_stream_close(&s);

  // Reading a directory is a stream error, not an end of file.
  ASSERT_EQ(rc_stream_open_read(dir_.c_str(), &s), RC_OK);
  char buf[16] = "x";
  rc_errno = 0;
  EXPECT_EQ(rc_stream_read_line(s, sizeof buf, buf), 0);
  EXPECT_EQ(rc_errno, kRcErrStream);
  EXPECT_STREQ(buf, "");
  rc_stream_close(&s);
}

TEST_F(StreamTest, ReadUntilSkipsBlankAndCommentLines) {
  std::string long_comment = "#" + std::string(40, 'c') + "\n";
  STREAM_INFO* s = reader("\n# comment\n   #indented\n" + long_comment + "\t\nkey value\n  #x\n  more\n#end\n");
  char buf[16];
  EXPECT_EQ(rc_stream_read_until(s, "#", sizeof buf, buf), 10);
  EXPECT_STREQ(buf, "key value\n");
  EXPECT_EQ(s->lines, 6);
  EXPECT_EQ(rc_stream_read_until(s, "#", sizeof buf, buf), 7);
  EXPECT_STREQ(buf, "  more\n");
  EXPECT_EQ(rc_stream_read_until(s, "#", sizeof buf, buf), 0);
  EXPECT_EQ(s->lines, 9);
  rc_stream_close(&s);

  s = reader("\n  \n#not a comment here\n");
  EXPECT_EQ(rc_stream_read_until(s, nullptr, sizeof buf, buf), 15);
  rc_stream_close(&s);
}

TEST_F(StreamTest, FindLineExactOrTrimmed) {
  const std::string text = std::string(255, 'x') + "[Section]\n" + "  [Section]  \n" + "[Section]\n" + "tail";
  struct Case { const char* line; int exact, rc; long lines; };
  const Case cases[] = {
      {"[Section]", RC_FAIL, RC_OK, 2},  // the tail of the long first line does not count
      {"[Section]", RC_OK, RC_OK, 3},
      {"tail", RC_OK, RC_OK, 3},         // a last line without a newline
      {"[Other]", RC_FAIL, RC_FAIL, 3},
  };
  for (const Case& c : cases) {
    STREAM_INFO* s = reader(text);
    EXPECT_EQ(rc_stream_find_line(s, c.line, c.exact), c.rc) << c.line;
    EXPECT_EQ(s->lines, c.lines) << c.line;
    rc_stream_close(&s);
  }
  STREAM_INFO* s = reader("a\nb\nb\n");
  EXPECT_EQ(rc_stream_find_line(s, "b", RC_OK), RC_OK);
  EXPECT_EQ(rc_stream_find_line(s, "b", RC_OK), RC_OK);  // goes on behind the last find
  EXPECT_EQ(rc_stream_find_line(s, "b", RC_OK), RC_FAIL);
  rc_stream_close(&s);
}

// The safe writer leaves the old file or the new one, never half of one and never a stray temporary, whatever step
// fails.
namespace {

class SafeFile : public ScratchTest {
 protected:
  void SetUp() override {
    ScratchTest::SetUp();
    path_ = dir_ / "file.dat";
  }
  void TearDown() override {
    safe_clear_faults_for_test();
    ScratchTest::TearDown();
  }
  std::string path_;
};

// Every step of a replace, failed in turn: the old text stays, nothing else is left in the directory, and the error
// names the step.
TEST_F(SafeFile, AFailureAtAnyStepKeepsTheOldFile) {
  const std::string old_text(70000, 'x');
  ASSERT_TRUE(safe_replace_file(path_, old_text, 0640));
  struct stat st;
  ASSERT_EQ(::stat(path_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  const struct { SafeStep step; long nth; int error; } rows[] = {
      {kSafeOpen, 1, EMFILE}, {kSafeWrite, 1, ENOSPC}, {kSafeSync, 1, EIO},
      {kSafeRename, 1, EXDEV}, {kSafeSync, 2, EIO},  // the directory sync, after the rename
  };
  for (const auto& r : rows) {
    ASSERT_TRUE(safe_replace_file(path_, old_text, 0600));
    safe_fail_from_for_test(r.step, r.nth, r.error);
    SafeFileError err;
    EXPECT_FALSE(safe_replace_file(path_, "new text", 0600, &err)) << safe_step_name(r.step);
    safe_clear_faults_for_test();
    EXPECT_EQ(err.text(), std::string(safe_step_name(r.step)) + ": " + std::strerror(r.error));
    // A failed directory sync comes after the rename: the new text is in place but the caller was told it may not
    // last a crash.
    EXPECT_EQ(ReadFile(path_), r.step == kSafeSync && r.nth == 2 ? "new text" : old_text) << safe_step_name(r.step);
    EXPECT_EQ(names(), std::set<std::string>{"file.dat"}) << safe_step_name(r.step);
  }
}

TEST_F(SafeFile, ExclusiveCreateRefusesAnythingAlreadyThere) {
  const std::string fifo = dir_ / "fifo", link = dir_ / "link";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  ASSERT_EQ(::symlink((dir_ / "elsewhere").c_str(), link.c_str()), 0);
  for (const std::string& p : {fifo, link}) {
    SafeFileError err;
    EXPECT_EQ(safe_create_exclusive(p.c_str(), 0600, &err), -1) << p;  // and does not block on the FIFO
    EXPECT_EQ(err.error, EEXIST) << p;
  }
  EXPECT_FALSE(names().count("elsewhere"));
  const int fd = safe_create_exclusive(path_.c_str(), 0600);
  ASSERT_GE(fd, 0);
  ::close(fd);
}

TEST_F(SafeFile, ReadingRefusesWhatIsNotARegularFileWithoutBlocking) {
  const std::string fifo = dir_ / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  for (const auto& [p, error] : {std::pair{fifo, EINVAL}, std::pair{dir_.string(), EISDIR}}) {
    SafeFileError err;
    EXPECT_EQ(safe_open_read(p.c_str(), &err), -1) << p;
    EXPECT_EQ(err.error, error) << p;
    EXPECT_EQ(safe_fopen_read(p.c_str()), nullptr) << p;
  }
  // Nor for writing: a FIFO without a reader would hold the open forever.
  SafeFileError err;
  EXPECT_FALSE(safe_append_record(fifo, "x", 1, 0600, &err));
  EXPECT_EQ(err.error, EINVAL);
  ASSERT_TRUE(safe_replace_file(path_, "text", 0600));
  FILE* f = safe_fopen_read(path_.c_str());
  ASSERT_NE(f, nullptr);
  char buf[8] = {};
  EXPECT_EQ(std::fread(buf, 1, sizeof buf, f), 4u);
  std::fclose(f);
}

TEST_F(SafeFile, AppendAddsWholeRecordsOrNothing) {
  ASSERT_TRUE(safe_append_record(path_, "one\n", 4, 0600));
  for (SafeStep step : {kSafeOpen, kSafeWrite, kSafeSync}) {
    safe_fail_from_for_test(step, 1, ENOSPC);
    SafeFileError err;
    EXPECT_FALSE(safe_append_record(path_, "two\n", 4, 0600, &err));
    EXPECT_EQ(err.step, step);
    safe_clear_faults_for_test();
    // A record that may not last a crash is taken back like one half written.
    EXPECT_EQ(ReadFile(path_), "one\n") << safe_step_name(step);
  }
  ASSERT_TRUE(safe_append_record(path_, "two\n", 4, 0600));
  // A write cut short by a file size limit is taken back whole.
  struct rlimit old_limit, limit;
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old_limit), 0);
  limit = old_limit;
  limit.rlim_cur = 10;
  void (*old_handler)(int) = ::signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  SafeFileError err;
  const bool appended = safe_append_record(path_, "three\n", 6, 0600, &err);
  ::setrlimit(RLIMIT_FSIZE, &old_limit);
  ::signal(SIGXFSZ, old_handler);
  EXPECT_FALSE(appended);
  EXPECT_EQ(err.error, EFBIG);
  EXPECT_EQ(ReadFile(path_), "one\ntwo\n");
}

}  // namespace
