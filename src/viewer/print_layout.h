// Pages of a printed message: a header line (the folder and when it was
// printed), the message's From/To/Cc/Date/Subject block, its text wrapped to
// the page width, and a footer "Page n of m". Plain functions of their
// inputs, so that every page break can be checked without a printer.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct PrintMessage {
  std::string folder;  // shown at the top of every page
  // Header fields in print order (name, value); a value may hold several
  // lines (one address each). Empty values are left out.
  std::vector<std::pair<std::string, std::string>> fields;
  std::string text;  // UTF-8, LF or CRLF line ends
};

struct PrintPageSize {
  int lines;    // lines on a page, header and footer included
  int columns;  // columns of a fixed-pitch font on a line
};

using PrintPage = std::vector<std::string>;

// A page needs room for its header, footer and at least two lines of text;
// a narrower page could not show the "Page n of m" footer.
constexpr int kPrintMinLines = 6;
constexpr int kPrintMinColumns = 24;
// A message that would need more pages is refused as a whole rather than
// cut short: a printout that silently stops is worse than none.
constexpr size_t kPrintMaxPages = 5000;
constexpr int kPrintTabWidth = 8;

// Splits one line of text (no line end) into lines of at most `columns`
// columns (a wide East Asian character takes two, a combining mark none and
// stays with its base): at the last blank that fits, else in the middle of the word.
// Tabs become blanks to the next tab stop; other control characters are
// shown as '?'. The blank a line is broken at is the only thing dropped.
// `indent` blanks start every line after the first.
std::vector<std::string> PRINT_WrapLine(std::string_view line, int columns, int indent = 0);
// The columns a printed line takes, measured as PRINT_WrapLine measures.
size_t PRINT_Columns(std::string_view line);

// Lays out one message. False with a message in *error when the page is too
// small or the message too long; *pages is then left empty.
bool PRINT_LayoutMessage(const PrintMessage& message, const std::string& printed, PrintPageSize size,
                         std::vector<PrintPage>* pages, std::string* error);
