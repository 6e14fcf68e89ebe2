// Printed pages: every page full height with its header and "Page n of m",
// no line wider than the page, and every word of the message on exactly one
// page, in order.
#include <gtest/gtest.h>

#include <sstream>

#include "src/viewer/print_layout.h"

namespace {

size_t Width(const std::string& s) {
  size_t n = 0;
  for (unsigned char c : s) n += (c & 0xC0) != 0x80;
  return n;
}

// The text without its blanks and line ends: what wrapping must keep.
std::string Ink(const std::string& text) {
  std::istringstream in(text);
  std::string out;
  for (std::string w; in >> w;) out += w;
  return out;
}

TEST(PrintLayout, PagesHoldEveryWordOnceWithinTheirBounds) {
  auto numbered = [](int n) {
    std::string out;
    for (int i = 1; i <= n; ++i) out += "line " + std::to_string(i) + "\r\n";
    return out;
  };
  struct Case {
    int lines, columns;
    std::string text;
    size_t pages;
  } cases[] = {
      // 4 header lines and a blank, then the text, 6 lines a page.
      {10, 40, numbered(19), 4},
      {10, 40, numbered(20), 5},
      {10, 40, "", 1},
      {66, 30, "short words wrap at blanks and at tabs\tinside one very long line of text, " + std::string(70, 'x'), 1},
      {12, 24, "gr\xC3\xBC\xC3\x9F" "e " + std::string(30, 'a') + "\n\n\x01" "ctl", 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 20));
    PrintMessage m{"INBOX", {{"From", "Ann <ann@example.org>"}, {"To", "bob@example.org\ncid@example.org"},
                             {"Cc", ""}, {"Subject", "Minutes"}}, c.text};
    std::vector<PrintPage> pages;
    std::string error;
    ASSERT_TRUE(PRINT_LayoutMessage(m, "Printed 24 Nov 2026", {c.lines, c.columns}, &pages, &error)) << error;
    ASSERT_EQ(pages.size(), c.pages);
    std::string body;
    for (size_t p = 0; p < pages.size(); ++p) {
      ASSERT_EQ(pages[p].size(), static_cast<size_t>(c.lines));
      EXPECT_EQ(pages[p][0].rfind("INBO", 0), 0u) << pages[p][0];
      EXPECT_EQ(Ink(pages[p][0]), Ink(pages[0][0]));
      EXPECT_EQ(Width(pages[p][0]), static_cast<size_t>(c.columns));
      const std::string footer = "Page " + std::to_string(p + 1) + " of " + std::to_string(pages.size());
      EXPECT_EQ(Ink(pages[p].back()), Ink(footer));
      for (size_t i = 2; i + 2 < pages[p].size(); ++i) {
        EXPECT_LE(Width(pages[p][i]), static_cast<size_t>(c.columns)) << pages[p][i];
        body += pages[p][i] + "\n";
      }
    }
    std::string expected = "From: Ann <ann@example.org> To: bob@example.org cid@example.org Subject: Minutes ";
    for (char ch : c.text) expected += ch == '\t' ? ' ' : (ch == '\x01' ? '?' : ch);
    EXPECT_EQ(Ink(body), Ink(expected));
  }
}

TEST(PrintLayout, WrapsAtTheLastBlankThatFits) {
  struct Case {
    std::string line;
    int columns, indent;
    std::vector<std::string> want;
  } cases[] = {
      {"aaa bbb ccccccccccc", 8, 0, {"aaa bbb", "cccccccc", "ccc"}},
      {"To: one two three", 10, 4, {"To: one", "    two", "    three"}},
      {"a\tb", 20, 0, {"a       b"}},
      {"", 20, 0, {""}},
      // Wide characters take two columns; one that would straddle the edge starts the next line.
      {"\u65E5\u672C\u8A9E\u306E\u30C6\u30AD\u30B9\u30C8", 7, 0,
       {"\u65E5\u672C\u8A9E", "\u306E\u30C6\u30AD", "\u30B9\u30C8"}},
      {"ab\uD55C\uAE00 \uFF21\uFF22", 5, 0, {"ab\uD55C", "\uAE00", "\uFF21\uFF22"}},
      // A combining accent takes no column and stays with its letter.
      {"cafe\u0301 au lait", 7, 0, {"cafe\u0301 au", "lait"}},
      {"e\u0301e\u0301e\u0301e\u0301", 3, 0, {"e\u0301e\u0301e\u0301", "e\u0301"}},
      {"a\tb\u4E00\tc", 20, 0, {"a       b\u4E00     c"}},
  };
  for (const Case& c : cases) EXPECT_EQ(PRINT_WrapLine(c.line, c.columns, c.indent), c.want) << c.line;
}

TEST(PrintLayout, RefusesWhatItCannotPrintWhole) {
  std::vector<PrintPage> pages;
  std::string error;
  EXPECT_FALSE(PRINT_LayoutMessage({"INBOX", {}, "text"}, "now", {5, 80}, &pages, &error));
  EXPECT_NE(error.find("too small"), std::string::npos);
  const std::string huge(kPrintMaxPages * 2 * 80, '\n');
  EXPECT_FALSE(PRINT_LayoutMessage({"INBOX", {}, huge}, "now", {6, 80}, &pages, &error));
  EXPECT_NE(error.find("too long"), std::string::npos);
  EXPECT_TRUE(pages.empty());
}

}  // namespace
