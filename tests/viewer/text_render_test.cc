// Text for the viewer's panes: charsets to UTF-8, HTML to plain text, and
// header lines cut on character boundaries.
#include <gtest/gtest.h>

#include <string>

#include "c-client/rfc822/mime_display.h"
#include "src/viewer/text_render.h"

namespace {

TEST(ViewText, BodiesInAnyCharsetBecomeUtf8WithTheirLines) {
  struct Case {
    std::string bytes;
    const char* charset;
    std::string want;
  } cases[] = {
      {"Gr\xFC\xDF" "e\r\nZeile 2\r\n", "ISO-8859-1", "Gr\xC3\xBC\xC3\x9F" "e\nZeile 2\n"},
      {"caf\xC3\xA9\n", "utf-8", "caf\xC3\xA9\n"},
      {"\x93quoted\x94 \x80", "windows-1252", "\xE2\x80\x9Cquoted\xE2\x80\x9D \xE2\x82\xAC"},
      {"\xA4", "iso-8859-15", "\xE2\x82\xAC"},                              // through iconv
      {"\xF0\xD2\xC9\xD7\xC5\xD4", "KOI8-R", "\xD0\x9F\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82"},
      {"no label \xE9", "", "no label \xC3\xA9"},                           // not UTF-8: taken as Windows-1252
      {"tab\there\x01\x07 bell", "us-ascii", "tab\there bell"},              // controls dropped, TAB kept
      {"lone\rCR", "utf-8", "lone\nCR"},
      {"bad \xFF\xFE end", "utf-8", "bad \xC3\xBF\xC3\xBE end"},          // invalid UTF-8: the fallback
      {"x", "x-no-such/charset", "x"},
  };
  for (const Case& c : cases) EXPECT_EQ(mime_display_body(c.bytes, c.charset), c.want) << c.charset;
}

TEST(ViewText, HtmlBecomesReadableText) {
  const std::pair<const char*, const char*> cases[] = {
      {"<p>Hello <b>world</b></p>", "Hello world\n"},
      {"<html><head><title>T</title><style>p{color:red}</style></head><body>Hi</body></html>", "Hi\n"},
      {"a<br>b<br/><br>c", "a\nb\n\nc\n"},
      {"<p>one</p><p>two</p>", "one\n\ntwo\n"},
      {"Fish &amp; chips &lt;3 &euro;5 &#233;&#xE9; &nbsp;x", "Fish & chips <3 \xE2\x82\xAC" "5 \xC3\xA9\xC3\xA9  x\n"},
      {"&bogus; &amp &#0; &#x110000;", "&bogus; & \xEF\xBF\xBD \xEF\xBF\xBD\n"},
      {"<ul><li>one<li>two</ul>", "* one\n* two\n"},
      {"<script>alert('x<p>')</script>safe", "safe\n"},
      {"<!-- hidden <p> -->shown", "shown\n"},
      {"<a href=\"https://example.org/x\">site</a>", "site <https://example.org/x>\n"},
      {"<a href='https://example.org'>https://example.org</a>", "https://example.org\n"},
      {"<a href=\"mailto:bob@example.org\">Bob</a>", "Bob <bob@example.org>\n"},
      {"<pre>  keep\n   this</pre>", "  keep\n   this\n"},
      {"   lots\n\n   of    blanks   ", "lots of blanks\n"},
      {"1 < 2 and 3 > 2", "1 < 2 and 3 > 2\n"},
      {"<img src=x alt=\"logo\">text", "[logo]text\n"},
      {"<table><tr><td>a</td><td>b</td></tr><tr><td>c</td></tr></table>", "a  b\nc\n"},
      {"unterminated <b", "unterminated <b\n"},
      {"", ""},
  };
  for (const auto& [html, want] : cases) EXPECT_EQ(HtmlToText(html), want) << html;
}

TEST(ViewText, HugeHtmlIsCutWithANote) {
  std::string html(kHtmlMaxInput + 10, 'x');
  const std::string text = HtmlToText(html);
  EXPECT_LT(text.size(), kHtmlMaxInput + 200);
  EXPECT_NE(text.find("The rest of this HTML text is not shown"), std::string::npos);
}

TEST(ViewText, CutsFallOnCharacterBoundaries) {
  const std::string e = "\xC3\xA9";      // 2 bytes
  const std::string euro = "\xE2\x82\xAC";  // 3 bytes
  struct Case {
    std::string text;
    size_t max;
    size_t want;
  } cases[] = {
      {"abc", 10, 3}, {"abc", 2, 2}, {e + e, 3, 2}, {e + e, 4, 4}, {euro, 2, 0}, {"a" + euro, 3, 1}, {"", 0, 0},
  };
  for (const Case& c : cases) EXPECT_EQ(Utf8CutPoint(c.text, c.max), c.want) << c.text << " " << c.max;
}

TEST(ViewText, HeaderLinesLineUpAndLongContentIsCut) {
  EXPECT_EQ(HeaderLine("To", "bob"), "To:         bob");
  EXPECT_EQ(HeaderLine("Message-ID", "<x>"), "Message-ID: <x>");
  EXPECT_EQ(HeaderLine("In-Reply-To", "<x>"), "In-Reply-To: <x>");
  const std::string exact(1040, 's');
  EXPECT_EQ(HeaderLine("Subject", exact), "Subject:    " + exact);
  // 2000 bytes of two-byte characters, with the cut point inside one.
  std::string subject = "a";
  while (subject.size() < 2000) subject += "\xC3\xA9";
  const std::string line = HeaderLine("Subject", subject);
  const std::string tail = " (content truncated) ...";
  ASSERT_GT(line.size(), tail.size());
  EXPECT_EQ(line.substr(line.size() - tail.size()), tail);
  const std::string content = line.substr(12, line.size() - 12 - tail.size());
  EXPECT_EQ(content.size(), 999u);  // 1000 would split the character at 999..1000
  EXPECT_EQ(mime_display_body(content, "utf-8"), content);
}

}  // namespace
