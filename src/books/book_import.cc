// Import and export of address books as text; the format is described in
// book_import.h.
#include "src/books/book_import.h"

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "rclib/safe_file.h"
#include "src/base/trace.h"
#include "xvt/xvt.h"

namespace {

constexpr size_t kMaxKey = 199;  // attribute names are under 200 bytes
constexpr const char* kDelimiters = "\t() ";

bool IsBad(int c) {
  if (c == '\t' || c == '\n' || c == '\r') return false;
  const bool printable = c >= 0x20 && c < 0x7f;
  const bool space = c == ' ' || c == '\v' || c == '\f';
  return !printable && !space;
}

bool Blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string Trim(const std::string& s) {
  size_t a = 0, b = s.size();
  while (a < b && Blank(s[a])) ++a;
  while (b > a && Blank(s[b - 1])) --b;
  return s.substr(a, b - a);
}

// Whether the text before a bracket makes it a member list's bracket rather
// than the bracket around an entry: "Member(" or "members (" do, a tab
// before the bracket never does.
bool MemberBracket(const std::string& before) {
  if (!before.empty() && before.back() == '\t') return false;
  std::string t = before;
  while (!t.empty() && t.back() == ' ') t.pop_back();
  for (const char* word : {"members", "member"}) {
    const size_t n = std::strlen(word);
    if (t.size() >= n && strcasecmp(t.c_str() + t.size() - n, word) == 0 &&
        (t.size() == n || !isalpha(static_cast<unsigned char>(t[t.size() - n - 1]))))
      return true;
  }
  return false;
}

// The canonical spelling of the keys with a meaning of their own.
std::string CanonicalKey(const std::string& key) {
  const std::pair<const char*, const char*> known[] = {{"name", "Name"},   {"entryname", "Name"},
                                                       {"alias", "Alias"}, {"email", "Email"},
                                                       {"member", "Member"}, {"members", "Member"}};
  for (const auto& [spelling, key_name] : known)
    if (strcasecmp(key.c_str(), spelling) == 0) return key_name;
  return key;
}

}  // namespace

int ScanEntry(FILE* stream, long* size, long* bad) {
  *size = 0;
  *bad = 0;
  const long start = ftell(stream);
  if (start < 0) return kImportFail;
  long n = 0;
  int depth = 0, c = 0;
  bool content = false, entry_bracket = false, ended = false;
  std::string last;  // the previous 8 characters
  while ((c = getc(stream)) != EOF) {
    ++n;
    if (IsBad(c)) ++*bad;
    if (!content && Blank(static_cast<char>(c))) continue;
    content = true;
    if (c == '(') {
      if (depth == 0) entry_bracket = !MemberBracket(last);
      ++depth;
    } else if (c == ')' && depth > 0) {
      if (--depth == 0 && entry_bracket) {
        ended = true;
        break;
      }
    } else if (c == '\n' && depth == 0) {
      ended = true;
      break;
    }
    last.push_back(static_cast<char>(c));
    if (last.size() > 8) last.erase(0, 1);
  }
  // The last line of a file needs no line end; an open bracket does.
  if (!ended && content && depth > 0) {
    Trace(kTraceBooks, kTraceMedium, "Reached end of file before end of entry, returning ABK_FAIL\n");
    fseek(stream, start, SEEK_SET);
    return kImportFail;
  }
  while (ended && (c = getc(stream)) != EOF && Blank(static_cast<char>(c))) ++n;
  *size = content ? n : 0;
  if (fseek(stream, start, SEEK_SET) != 0) return kImportFail;
  return kImportOk;
}

int ReadEntry(FILE* stream, long size, std::string* out) {
  out->clear();
  for (long i = 0; i < size; ++i) {
    const int c = getc(stream);
    if (c == EOF) return kImportFail;
    if (!IsBad(c)) out->push_back(static_cast<char>(c));
  }
  return kImportOk;
}

int ParseToken(const std::string& entry, size_t* pos, std::string* key, std::string* value) {
  size_t end = entry.find('\n', *pos);
  if (end == std::string::npos) end = entry.size();
  const std::string line = entry.substr(*pos, end - *pos);
  const size_t at = *pos;
  *pos = end < entry.size() ? end + 1 : end;
  const size_t k = line.find_first_of(kDelimiters);
  if (k == std::string::npos) {
    Trace(kTraceBooks, kTraceMedium, "No delimiter for position %d, return ABK_FAIL\n", static_cast<int>(at));
    return kImportFail;
  }
  if (k == 0 || k > kMaxKey) return kImportFail;
  *key = CanonicalKey(line.substr(0, k));
  size_t v = k;
  bool bracket = false;
  while (v < line.size() && (line[v] == ' ' || line[v] == '\t' || (line[v] == '(' && !bracket))) bracket |= line[v++] == '(';
  std::string rest = line.substr(v);
  while (!rest.empty() && (rest.back() == '\r')) rest.pop_back();
  if (bracket) {
    while (!rest.empty() && Blank(rest.back())) rest.pop_back();
    if (!rest.empty() && rest.back() == ')') rest.pop_back();
  }
  *value = (*key == "Email" || *key == "Member") ? Trim(rest) : rest;
  return kImportOk;
}

int ParseEntry(const std::string& text, ImportedEntry* out) {
  *out = ImportedEntry{};
  std::string body = Trim(text);
  if (!body.empty() && body.front() == '(') {
    const size_t close = body.rfind(')');
    body = body.substr(1, close == std::string::npos ? std::string::npos : close - 1);
  }
  std::vector<std::string> members;
  size_t member_at = 0;  // where the members go among the attributes
  size_t pos = 0;
  while (pos < body.size()) {
    Trace(kTraceBooks, kTraceAll, "Entered loop, position = %d, \n\ttoken = '%s'\n\tentry_buffer = '%s'\n",
          static_cast<int>(pos), body.substr(pos, body.find('\n', pos) - pos).c_str(), body.c_str());
    const size_t line_end = body.find('\n', pos);
    if (Trim(body.substr(pos, line_end == std::string::npos ? std::string::npos : line_end - pos)).empty()) {
      pos = line_end == std::string::npos ? body.size() : line_end + 1;
      continue;
    }
    while (pos < body.size() && (body[pos] == ' ' || body[pos] == '\t')) ++pos;
    std::string key, value;
    if (!ParseToken(body, &pos, &key, &value)) {
      Trace(kTraceBooks, kTraceMedium, "ParseToken() returned ABK_FAIL, skipping attribute\n");
      continue;
    }
    if (key == "Name") {
      out->name = Trim(value);
      Trace(kTraceBooks, kTraceMedium, "Importing: %s\n", out->name.c_str());
    } else if (key == "Member") {
      if (!out->is_list) member_at = out->attributes.size();
      out->is_list = true;
      size_t at = 0;
      while (at <= value.size()) {
        size_t comma = value.find(',', at);
        if (comma == std::string::npos) comma = value.size();
        const std::string m = Trim(value.substr(at, comma - at));
        at = comma + 1;
        if (!m.empty()) members.push_back(m);
      }
    } else {
      out->attributes.emplace_back(key, value);
    }
  }
  if (out->name.empty() || out->name.size() >= 200) return kImportFail;
  for (const std::string& m : members) {
    if (std::find(out->members.begin(), out->members.end(), m) != out->members.end()) {
      xvt_dm_post_error("Duplicate \"%s\" entry found in \"%s\" list", m.c_str(), out->name.c_str());
      continue;
    }
    out->members.push_back(m);
  }
  if (out->is_list) {
    std::string joined;
    for (const std::string& m : out->members) joined += m + "\n";
    out->attributes.insert(out->attributes.begin() + static_cast<long>(member_at),
                           {"member", joined.empty() ? kNoMembers : joined});
  }
  // A book holds no entry without attributes: a name alone becomes a
  // person whose address is still to be filled in.
  if (out->attributes.empty()) out->attributes.emplace_back("Email", "");
  return kImportOk;
}

namespace {

// Stores an imported entry; the attributes the book already has for the
// name and the file does not mention are kept.
int StoreImported(int id, const ImportedEntry& e) {
  AttrList attrs = e.attributes;
  for (const auto& [a, v] : entry_get_attributes(AddressEntry{static_cast<int16_t>(id), 0, e.name})) {
    const bool replaced = std::any_of(attrs.begin(), attrs.end(),
                                      [&a = a](const auto& p) { return strcasecmp(p.first.c_str(), a.c_str()) == 0; });
    if (!replaced) attrs.emplace_back(a, v);
  }
  std::vector<AbPair> pairs;
  for (const auto& [a, v] : attrs) pairs.push_back({a, v});
  BOOK_SLOT* slot = ABK_slot(id);
  if (!slot || !slot->open) return 0;
  return Nice_imsp_io(kBookLocal, slot->book, e.name.c_str(), pairs.data(), static_cast<int>(pairs.size()));
}

}  // namespace

void UpdateListEntries(int id, const std::vector<std::string>& lists) {
  for (const std::string& l : lists) Trace(kTraceBooks, kTraceMedium, "Updating %s list ...\n", l.c_str());
  if (BOOK_SLOT* slot = ABK_slot(id); slot && slot->open && !lists.empty()) slot->entries = AM_EntryGetEntries(id);
}

int ABK_Import(int id, const char* path) {
  BOOK_SLOT* slot = ABK_slot(id);
  if (!slot || !slot->open) {
    Trace(kTraceBooks, kTraceCritical, "current_node is null, return ABK_FAIL\n");
    return kImportFail;
  }
  const int fd = path ? safe_open(path, O_RDONLY, 0) : -1;
  FILE* stream = fd >= 0 ? fdopen(fd, "rb") : nullptr;
  if (!stream) {
    if (fd >= 0) close(fd);
    xvt_dm_post_error("Error opening import file '%s', exiting", path ? path : "");
    return kImportFail;
  }
  Trace(kTraceBooks, kTraceMedium, "Importing:\n");
  std::vector<std::string> lists;
  int rc = kImportOk;
  for (int number = 1;; ++number) {
    long size = 0, bad = 0;
    if (!ScanEntry(stream, &size, &bad)) {
      // No end can be found: nothing behind it can be read either.
      xvt_dm_post_error("Error reading size of entry #%d, skipping ...", number);
      break;
    }
    if (size == 0) break;  // only blanks were left
    if (size > kImportMaxEntry) {
      xvt_dm_post_error("Entry #%d too big to import, skipping ...", number);
      fseek(stream, size, SEEK_CUR);
      continue;
    }
    if (bad > 0 && xvt_dm_post_ask("Yes", "No", nullptr,
                                   "Warning - entry #%d in file '%s' has %ld bad characters out of a total %ld, "
                                   "cancel import?",
                                   number, path, bad, size) == RESP_DEFAULT) {
      rc = kImportFail;
      break;
    }
    std::string text;
    if (!ReadEntry(stream, size, &text)) {
      xvt_dm_post_error("Error reading entry #%d, skipping ...", number);
      break;
    }
    ImportedEntry entry;
    if (!ParseEntry(text, &entry)) {
      xvt_dm_post_error("Error parsing entry #%d, skipping ...", number);
      continue;
    }
    if (!StoreImported(id, entry)) {
      if (xvt_dm_post_ask("Exit", "Continue", nullptr, "Error inserting last record, do you wish to continue?") ==
          RESP_DEFAULT) {
        rc = kImportFail;
        break;
      }
      continue;
    }
    if (entry.is_list) lists.push_back(entry.name);
  }
  fclose(stream);
  UpdateListEntries(id, lists);
  return rc;
}

namespace {

// Text the import gives back as it was: no line ends, no brackets, no
// blank at the start.
bool Plain(const std::string& s) {
  if (!s.empty() && (s[0] == ' ' || s[0] == '\t')) return false;
  return std::none_of(s.begin(), s.end(), [](char c) { return c == '(' || c == ')' || c == '\n' || c == '\r'; });
}

}  // namespace

int ABK_Export(int id, const char* path) {
  BOOK_SLOT* slot = ABK_slot(id);
  if (!slot || !slot->open || !path) return 0;
  std::string out;
  int skipped = 0;
  for (const AddressEntry& e : AM_EntryGetEntries(id)) {
    std::string text = "(Name\t" + e.name + "\n";
    bool ok = Plain(e.name) && Trim(e.name) == e.name;
    for (const auto& [a, v] : entry_get_attributes(e)) {
      const std::string key = CanonicalKey(a);
      if (key == "Member") {
        std::string members;
        if (v.compare(0, std::strlen(kNoMembers), kNoMembers) != 0) {
          size_t at = 0;
          while (at < v.size()) {
            size_t nl = v.find('\n', at);
            if (nl == std::string::npos) nl = v.size();
            const std::string m = v.substr(at, nl - at);
            at = nl + 1;
            if (m.empty()) continue;
            ok = ok && Plain(m) && Trim(m) == m && m.find(',') == std::string::npos;
            members += (members.empty() ? "" : ", ") + m;
          }
        }
        text += "Member\t(" + members + ")\n";
        continue;
      }
      ok = ok && key != "Name" && Plain(v) && a.find_first_of(kDelimiters) == std::string::npos &&
           a.find_first_of("\n\r") == std::string::npos && !a.empty() &&
           (key != "Email" || Trim(v) == v);
      text += key + "\t" + v + "\n";
    }
    if (!ok) {
      ++skipped;
      xvt_dm_post_error("The entry \"%s\" holds a line end, a bracket or a leading blank and was not exported.",
                        e.name.c_str());
      continue;
    }
    out += text + ")\n\n";
  }
  SafeFileError err;
  if (!safe_replace_file(path, out, 0600, &err)) {
    xvt_dm_post_error("The book could not be exported to '%s': %s.", path, err.text().c_str());
    return 0;
  }
  Trace(kTraceBooks, kTraceMedium, "ABK_Export: %s written, %d entries left out\n", path, skipped);
  return skipped ? 0 : 1;
}
