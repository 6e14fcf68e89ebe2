// Turning a message's bytes into what the viewer's panes show: UTF-8 text
// from any charset, HTML as readable plain text, and header lines laid out
// in columns. Everything here is pure: no windows, no model.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// HTML bigger than this is rendered up to here, with a note at the end.
constexpr size_t kHtmlMaxInput = 4u << 20;

// The longest prefix of text of at most max bytes that ends on a character
// boundary of UTF-8.
size_t Utf8CutPoint(std::string_view text, size_t max);
std::string Utf8Cut(std::string_view text, size_t max);

// HTML (already UTF-8) as plain text: tags dropped, scripts, styles and
// the head left out, entities decoded, paragraphs and line breaks kept,
// list items marked, a link's address shown after its text. The output is
// valid UTF-8 without control characters other than LF and TAB.
std::string HtmlToText(std::string_view html);

// One header line: "Name:" and blanks up to column 12, then the content.
// A content longer than 1040 bytes is cut at 1000 (on a character boundary)
// and marked.
std::string HeaderLine(std::string_view name, std::string_view content);
// Twelve blanks: where an address after the first of a field starts.
constexpr int kHeaderColumn = 12;
