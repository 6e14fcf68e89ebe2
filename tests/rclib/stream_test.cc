#include <filesystem>
#include <string>

#include <unistd.h>

#include "rclib/iostream.h"
#include "tests/rclib/rclib_fixture.h"

namespace fs = std::filesystem;

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
