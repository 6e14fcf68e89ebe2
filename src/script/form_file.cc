// The stored form's file: reading its lines into a form, and writing a
// form back in the layout the reader takes.
#include <strings.h>

#include <cstdio>
#include <string>

#include "src/script/forms.h"

namespace {

constexpr const char* kInvalidForm = "Invalid form";
constexpr const char* kInvalidFormLine = "Invalid form specification";

// ---------------------------------------------------------------------------
// Reading

bool IsBlank(char c) { return c == ' ' || c == '\t'; }
bool IsDelim(char c) { return IsBlank(c) || c == ','; }

bool AllBlank(std::string_view s) {
  for (char c : s)
    if (!IsBlank(c) && c != '\r') return false;
  return true;
}

std::string_view TrimRight(std::string_view s) {
  while (!s.empty() && (IsBlank(s.back()) || s.back() == '\r')) s.remove_suffix(1);
  return s;
}

// The lines of the file, without their line ends. A line longer than the
// reader takes makes the whole file unreadable rather than being split into
// lines the writer never wrote.
class Lines {
 public:
  explicit Lines(std::string_view data) : data_(data) {}
  bool Next(std::string_view* line) {
    if (pos_ >= data_.size()) return false;
    size_t end = data_.find('\n', pos_);
    if (end == std::string_view::npos) end = data_.size();
    *line = data_.substr(pos_, end - pos_);
    if (!line->empty() && line->back() == '\r') line->remove_suffix(1);
    pos_ = end + 1;
    if (line->size() > kFormLineMax) too_long_ = true;
    return !too_long_;
  }
  bool too_long() const { return too_long_; }

 private:
  std::string_view data_;
  size_t pos_ = 0;
  bool too_long_ = false;
};

// The next word of line from *pos: delimiters before it are skipped, and a
// word longer than a form word is cut (its rest is passed over).
std::string Word(std::string_view line, size_t* pos) {
  while (*pos < line.size() && IsDelim(line[*pos])) ++*pos;
  const size_t start = *pos;
  while (*pos < line.size() && !IsDelim(line[*pos])) ++*pos;
  return std::string(line.substr(start, std::min(*pos - start, kFormWordMax)));
}

bool Number(std::string_view line, size_t* pos, int min, int* out) {
  const std::string w = Word(line, pos);
  if (w.empty() || w.size() > 5) return false;
  int v = 0;
  for (char c : w) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
  }
  if (v < min || v > kFormCoordMax) return false;
  *out = v;
  return true;
}

// "begin" and "form" as the first two blank-separated words of the line,
// each cut at its first comma, in any case.
bool BeginsForm(std::string_view line) {
  std::string words[2];
  size_t pos = 0;
  for (std::string& w : words) {
    while (pos < line.size() && IsBlank(line[pos])) ++pos;
    const size_t start = pos;
    while (pos < line.size() && !IsBlank(line[pos])) ++pos;
    w = std::string(line.substr(start, pos - start));
    w = w.substr(0, w.find(','));
  }
  return !strcasecmp(words[0].c_str(), "begin") && !strcasecmp(words[1].c_str(), "form");
}

// The text behind the numbers, from line[pos]. A backslash ends the part of
// a line that counts and goes on with the next line after a line feed; a
// value that starts with one starts at the next line that isn't blank.
std::string Value(Lines* lines, std::string_view line, size_t pos) {
  while (pos < line.size() && IsDelim(line[pos])) ++pos;
  std::string_view rest = line.substr(pos);
  if (!rest.empty() && rest[0] == '\\') {
    rest = {};
    std::string_view next;
    while (lines->Next(&next))
      if (!AllBlank(next)) {
        rest = next;
        break;
      }
  }
  std::string value;
  // Past the limit the value's lines are still read, so that none of them
  // is taken for a line of the form.
  for (;;) {
    const size_t bs = rest.find('\\');
    if (value.size() <= kFormValueMax) value.append(TrimRight(rest.substr(0, bs)));
    if (bs == std::string_view::npos) break;
    if (value.size() <= kFormValueMax) value += '\n';
    if (!lines->Next(&rest)) break;
  }
  if (value.size() > kFormValueMax) value.resize(kFormValueMax);
  return value;
}

struct Keyword {
  const char* word;
  int type;  // a field type, or one of these
};
constexpr int kKeyBegin = -1, kKeyHide = -2, kKeyEnd = -3;
const Keyword kKeywords[] = {{"begin", kKeyBegin}, {"text", kFormText}, {"edit", kFormEdit},
                             {"txedit", kFormTxEdit}, {"hide", kKeyHide}, {"end", kKeyEnd}};

bool Fail(std::string* error, const char* text) {
  if (error) *error = text;
  return false;
}

// ---------------------------------------------------------------------------
// Writing

const char* TypeWord(int type) {
  switch (type) {
    case kFormText: return "TEXT";
    case kFormEdit: return "EDIT";
    case kFormTxEdit: return "TXEDIT";
    default: return nullptr;
  }
}

// A value as the reader gives it back: no blanks or commas in front (they
// part the numbers from it), no blanks at the end of a line, no blank
// lines in front.
std::string Readable(const std::string& value) {
  std::string out;
  size_t start = 0;
  while (start <= value.size()) {
    size_t end = value.find('\n', start);
    if (end == std::string::npos) end = value.size();
    std::string_view line = TrimRight(std::string_view(value).substr(start, end - start));
    if (!out.empty()) out += '\n';
    out.append(line);
    start = end + 1;
  }
  size_t lead = 0;
  while (lead < out.size() && (IsDelim(out[lead]) || out[lead] == '\n')) ++lead;
  out.erase(0, lead);
  return out;
}

bool Writable(const std::string& value, std::string* error) {
  if (value.find('\\') != std::string::npos) {
    *error = "A form field holds a backslash (\\), which a form file can't carry.";
    return false;
  }
  if (value.size() > kFormValueMax) {
    *error = "A form field holds more than " + std::to_string(kFormValueMax) + " characters.";
    return false;
  }
  size_t start = 0;
  while (start <= value.size()) {
    size_t end = value.find('\n', start);
    if (end == std::string::npos) end = value.size();
    // Room for the field's numbers in front and the continuation behind.
    if (end - start > kFormLineMax - 80) {
      *error = "A line of a form field is longer than " + std::to_string(kFormLineMax - 80) + " characters.";
      return false;
    }
    start = end + 1;
  }
  return true;
}

}  // namespace

bool FormParse(std::string_view data, FormLayout* out, std::string* error) {
  FormLayout layout;
  Lines lines(data);
  std::string_view line;
  bool begun = false;
  // Lines before the form's first (a "#VMRFORM" mark) are passed over; the
  // first line with a "b" in it must open the form.
  while (lines.Next(&line)) {
    if (line.find_first_of("bB") == std::string_view::npos) continue;
    if (!BeginsForm(line)) return Fail(error, kInvalidForm);
    begun = true;
    break;
  }
  if (!begun) return Fail(error, lines.too_long() ? kInvalidFormLine : kInvalidForm);
  bool first = true, ended = false;
  while (first || lines.Next(&line)) {
    first = false;
    if (AllBlank(line)) continue;
    size_t pos = 0;
    const std::string word = Word(line, &pos);
    const Keyword* key = nullptr;
    for (const Keyword& k : kKeywords)
      if (!strcasecmp(k.word, word.c_str())) key = &k;
    if (!key) return Fail(error, kInvalidFormLine);
    if (key->type == kKeyHide) continue;
    if (key->type == kKeyEnd) {
      ended = true;
      break;
    }
    if (key->type == kKeyBegin) {
      // Only the first line opens a form.
      if (layout.width) return Fail(error, kInvalidFormLine);
      if (strcasecmp(Word(line, &pos).c_str(), "form") || !Number(line, &pos, 1, &layout.width) ||
          !Number(line, &pos, 1, &layout.height))
        return Fail(error, kInvalidFormLine);
      layout.title = Value(&lines, line, pos);
      continue;
    }
    FormField f;
    f.type = key->type;
    if (!Number(line, &pos, 0, &f.left) || !Number(line, &pos, 0, &f.top) || !Number(line, &pos, 0, &f.width) ||
        !Number(line, &pos, 0, &f.height) || layout.fields.size() >= kFormFieldsMax)
      return Fail(error, kInvalidFormLine);
    f.value = Value(&lines, line, pos);
    layout.fields.push_back(std::move(f));
  }
  // A file cut short (a lost end, a line too long) is not a form.
  if (!ended || lines.too_long()) return Fail(error, kInvalidFormLine);
  if (out) *out = std::move(layout);
  return true;
}

bool FormFormat(const FormLayout& form, std::string* out, std::string* error) {
  std::string text;
  char buf[128];
  if (form.title.find_first_of("\\\n") != std::string::npos) {
    *error = "The form's title can't be written to a form file.";
    return false;
  }
  std::snprintf(buf, sizeof buf, "    Begin Form,  %d,  %d  ", form.width, form.height);
  text += buf;
  const std::string title = Readable(form.title);
  text += title.empty() ? "  \n" : "  " + title + "\n";
  for (const FormField& f : form.fields) {
    const char* word = TypeWord(f.type);
    if (!word) continue;
    const std::string value = Readable(f.value);
    if (!Writable(value, error)) return false;
    std::snprintf(buf, sizeof buf, "        %s,  %d,  %d, %d, %d", word, f.left, f.top, f.width, f.height);
    text += buf;
    text += "  ";
    for (char c : value) text += c == '\n' ? std::string("   \\\n") : std::string(1, c);
    text += "  \n";
  }
  text += "   End\n";
  *out = std::move(text);
  return true;
}

