// Layout of printed pages. Widths are counted in columns of the fixed-pitch
// font the pages are set in: most characters take one, the wide East Asian
// ones two, and combining marks ride on the character before them.
#include "src/viewer/print_layout.h"

#include <algorithm>

#include "rclib/char_width.h"

namespace {

bool IsContinuation(unsigned char c) { return (c & 0xC0) == 0x80; }

// The code point of one sequence as Cells cuts it; a malformed one reads as
// an unknown character of one column.
char32_t Decode(std::string_view seq) {
  const auto lead = static_cast<unsigned char>(seq[0]);
  const size_t want = lead < 0x80 ? 1 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 0;
  if (want != seq.size()) return 0xFFFD;
  char32_t cp = want == 1 ? lead : lead & (0x7F >> want);
  for (size_t k = 1; k < want; ++k) cp = (cp << 6) | (static_cast<unsigned char>(seq[k]) & 0x3F);
  return cp;
}

// One printable character: a whole UTF-8 sequence with the marks that ride
// on it, or '?' for a control.
struct Cell {
  std::string text;
  bool blank;
  int width;
};

std::vector<Cell> Cells(std::string_view line) {
  std::vector<Cell> cells;
  cells.reserve(line.size());
  size_t column = 0;
  for (size_t i = 0; i < line.size();) {
    const unsigned char c = static_cast<unsigned char>(line[i]);
    if (c == '\t') {
      do cells.push_back({" ", true, 1});
      while (++column % kPrintTabWidth != 0);
      ++i;
      continue;
    }
    if (c < 0x20 || c == 0x7f) {
      cells.push_back({"?", false, 1});
      ++column;
      ++i;
      continue;
    }
    size_t end = i + 1;
    if (c >= 0x80)
      while (end < line.size() && end - i < 4 && IsContinuation(static_cast<unsigned char>(line[end]))) ++end;
    const std::string_view seq = line.substr(i, end - i);
    const int width = rc_char_width(Decode(seq));
    i = end;
    if (width == 0 && !cells.empty()) {
      cells.back().text += seq;  // never parted from its base
      cells.back().blank = false;  // a blank with a mark is ink, not a place to break
      continue;
    }
    cells.push_back({std::string(seq), c == ' ', std::max(width, 1)});
    column += static_cast<size_t>(cells.back().width);
  }
  return cells;
}

std::string Join(const std::vector<Cell>& cells, size_t from, size_t to) {
  std::string out;
  for (size_t i = from; i < to; ++i) out += cells[i].text;
  return out;
}


// The line with the folder at the left and the time of printing at the
// right; the folder's name gives way when both do not fit.
std::string HeaderLine(const std::string& folder, const std::string& printed, size_t columns) {
  const std::vector<std::string> when = PRINT_WrapLine(printed, static_cast<int>(columns));
  const std::string right = when.empty() ? std::string() : when[0];
  const size_t room = columns - PRINT_Columns(right);
  const std::vector<std::string> name = PRINT_WrapLine(folder, static_cast<int>(room) - 1);
  const std::string left = name.empty() ? std::string() : name[0];
  return left + std::string(room - PRINT_Columns(left), ' ') + right;
}

std::string Centred(const std::string& text, size_t columns) {
  const size_t w = PRINT_Columns(text);
  return w >= columns ? text : std::string((columns - w) / 2, ' ') + text;
}

// Calls fn for each line of text, without its line end.
template <class Fn>
void ForEachLine(std::string_view text, Fn fn) {
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(start, end - start);
    if (end < text.size() && !line.empty() && line.back() == '\r') line.remove_suffix(1);  // CRLF
    if (end == text.size() && line.empty() && start > 0) break;  // the text's last line end
    fn(line);
    start = end + 1;
  }
}

}  // namespace

size_t PRINT_Columns(std::string_view s) {
  size_t n = 0;
  for (const Cell& c : Cells(s)) n += static_cast<size_t>(c.width);
  return n;
}

std::vector<std::string> PRINT_WrapLine(std::string_view line, int columns, int indent) {
  std::vector<std::string> out;
  if (columns <= 0) return out;
  indent = std::clamp(indent, 0, columns / 2);
  const std::vector<Cell> cells = Cells(line);
  size_t pos = 0;
  do {
    const size_t room = static_cast<size_t>(out.empty() ? columns : columns - indent);
    const std::string lead(out.empty() ? 0 : indent, ' ');
    // The cells [pos, end) fit; a character wider than the whole line goes alone.
    size_t end = pos, used = 0;
    while (end < cells.size() && used + static_cast<size_t>(cells[end].width) <= room) used += cells[end++].width;
    if (end == cells.size()) {
      out.push_back(lead + Join(cells, pos, cells.size()));
      break;
    }
    if (end == pos) {
      out.push_back(lead + cells[pos++].text);
      continue;
    }
    // The last blank that fits, or the one just past the width.
    size_t cut = end;
    while (cut > pos && !cells[cut].blank) --cut;
    if (cut == pos) {
      out.push_back(lead + Join(cells, pos, end));
      pos = end;
    } else {
      out.push_back(lead + Join(cells, pos, cut));
      pos = cut + 1;
    }
  } while (pos < cells.size());
  return out;
}

bool PRINT_LayoutMessage(const PrintMessage& message, const std::string& printed, PrintPageSize size,
                         std::vector<PrintPage>* pages, std::string* error) {
  pages->clear();
  if (size.lines < kPrintMinLines || size.columns < kPrintMinColumns) {
    *error = "The page is too small to print on (" + std::to_string(size.lines) + " lines of " +
             std::to_string(size.columns) + " characters).";
    return false;
  }
  const size_t per_page = static_cast<size_t>(size.lines - 4);  // header, blank ... blank, footer
  const size_t limit = per_page * kPrintMaxPages;
  std::vector<std::string> body;
  bool too_long = false;
  auto add = [&](std::vector<std::string> lines) {
    for (std::string& l : lines) {
      if (body.size() >= limit) {
        too_long = true;
        return;
      }
      body.push_back(std::move(l));
    }
  };
  size_t name_width = 0;
  for (const auto& field : message.fields) name_width = std::max(name_width, PRINT_Columns(field.first) + 2);
  name_width = std::min(name_width, static_cast<size_t>(size.columns / 2));
  for (const auto& [name, value] : message.fields) {
    if (value.empty()) continue;
    std::string label = name + ":";
    label += std::string(name_width > PRINT_Columns(label) ? name_width - PRINT_Columns(label) : 1, ' ');
    bool first = true;
    ForEachLine(value, [&](std::string_view line) {
      add(PRINT_WrapLine((first ? label : std::string(name_width, ' ')) + std::string(line), size.columns,
                         static_cast<int>(name_width)));
      first = false;
    });
  }
  if (!body.empty()) body.emplace_back();
  ForEachLine(message.text, [&](std::string_view line) {
    if (!too_long) add(PRINT_WrapLine(line, size.columns));
  });
  if (too_long) {
    *error = "The message is too long to print: it would take more than " + std::to_string(kPrintMaxPages) +
             " pages.";
    return false;
  }
  const size_t count = std::max<size_t>(1, (body.size() + per_page - 1) / per_page);
  const std::string head = HeaderLine(message.folder, printed, static_cast<size_t>(size.columns));
  for (size_t p = 0; p < count; ++p) {
    PrintPage page{head, ""};
    const size_t from = p * per_page;
    const size_t to = std::min(body.size(), from + per_page);
    for (size_t i = from; i < to; ++i) page.push_back(body[i]);
    page.resize(static_cast<size_t>(size.lines - 2));
    page.emplace_back();
    page.push_back(Centred("Page " + std::to_string(p + 1) + " of " + std::to_string(count),
                           static_cast<size_t>(size.columns)));
    pages->push_back(std::move(page));
  }
  return true;
}
