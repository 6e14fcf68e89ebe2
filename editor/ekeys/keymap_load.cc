// The keybind.def reader: the state's life, the lines and words of the
// file, one map at a time, and the set-up an editor window runs.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <iterator>

#include "editor/ekeys/commands.h"
#include "editor/ekeys/keymap.h"

bool km_diag_to_stdout = true;

namespace {

// The log keeps the first diagnostics of a state; a hostile file must not
// make it grow without end.
constexpr size_t kLogMax = 64 * 1024;

std::vector<std::string> Words(const std::string& line) {
  std::vector<std::string> words;
  size_t i = 0;
  // A NUL separates words too: names are C strings further on, and a word
  // cut at a NUL would not be the word the file shows.
  auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f' || c == '\0'; };
  while (i < line.size()) {
    while (i < line.size() && blank(line[i])) ++i;
    size_t start = i;
    while (i < line.size() && !blank(line[i])) ++i;
    if (i > start) words.push_back(line.substr(start, i - start));
  }
  return words;
}

bool Skipped(const std::vector<std::string>& words) { return words.empty() || words[0][0] == '#'; }

}  // namespace

void km_diag(KMSTATE* state, const char* format, ...) {
  char buf[1024];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(buf, sizeof buf, format, ap);
  va_end(ap);
  if (state && state->log.size() < kLogMax) state->log += buf;
  if (km_diag_to_stdout) std::fputs(buf, stdout);
}

const char* km_result_name(const KBIND_RESULT& result) {
  return result.binding ? result.binding->bind_name.c_str() : "";
}

int km_state_new(KMSTATE** state) {
  if (!state) return RC_FAIL;
  KMSTATE* s = new KMSTATE;
  if (dsl_create(&s->maps) != RC_OK || dsl_create(&s->stack) != RC_OK) {
    km_state_destroy(&s);
    return RC_FAIL;
  }
  *state = s;
  return RC_OK;
}

int km_state_destroy(KMSTATE** state) {
  if (!state) return RC_FAIL;
  if (!*state) return RC_OK;
  dsl_destroy(&(*state)->stack, 0);
  km_kmap_list_destroy(&(*state)->maps);
  delete *state;
  *state = nullptr;
  return RC_OK;
}

int km_state_push(KMSTATE* state, KEYMAP* map) {
  if (!state || !map || !state->stack) return RC_FAIL;
  return dsl_prepend(state->stack, map) ? RC_OK : RC_FAIL;
}

int km_reader_line(KM_READER* reader, std::string* line, bool* too_long) {
  *too_long = false;
  line->clear();
  const std::string& text = *reader->text;
  if (reader->pos >= text.size()) return RC_FAIL;
  size_t end = text.find('\n', reader->pos);
  if (end == std::string::npos) end = text.size();
  size_t len = end - reader->pos;
  if (len > 0 && text[end - 1] == '\r') --len;  // a file written elsewhere
  if (len > kKmLineMax) {
    *too_long = true;
    len = kKmLineMax;
  }
  line->assign(text, reader->pos, len);
  reader->pos = end + 1;
  ++reader->line_no;
  return RC_OK;
}

int km_ktuple_list_load(KMSTATE* state, KM_READER* stream, KTUPLE_LIST* tuples) {
  int lines_read = 0;
  std::string line;
  bool too_long;
  while (km_reader_line(stream, &line, &too_long) == RC_OK) {
    int n = stream->line_no;
    if (too_long) {
      km_diag(state, "Line too long in keymap file. (line %d)\n", n);
      ++lines_read;
      continue;
    }
    std::vector<std::string> words = Words(line);
    if (Skipped(words)) continue;
    if (words[0] == "end_keymap") return RC_OK;
    if (words[0] == "keymap") {
      km_diag(state, "Missing end_keymap keyword in keymap file. (line %d)\n", n);
      return RC_FAIL;
    }
    ++lines_read;
    if (words.size() < 2) {
      km_diag(state, "Missing key binding target on line %d of input file.\n", n);
      return RC_FAIL;
    }
    KEYTUPLE t;
    t.name = words[0];
    t.bind = words[1];
    if (t.bind == "prefix") {
      if (words.size() < 3) {
        km_diag(state, "Missing prefix map on line %d of input file.\n", n);
        return RC_FAIL;
      }
      t.prefix_map = words[2];
    }
    if (t.name.size() >= kKmNameSize || t.bind.size() >= kKmBindSize ||
        t.prefix_map.size() >= kKmPrefixMapSize) {
      km_diag(state, "Word too long on line %d of input file.\n", n);
      continue;
    }
    if (eui_cv_ksym_atoi(state, &t) != RC_OK) continue;
    if (km_bind_known(t.bind.c_str()) != RC_OK) {
      km_diag(state, "Unknown command name.  %s (line %d)\n", t.bind.c_str(), n);
      continue;
    }
    bool fresh = std::none_of(tuples->begin(), tuples->end(), [&](const KEYTUPLE& o) { return o.key == t.key; });
    if (fresh && static_cast<int>(tuples->size()) >= kKmTuplesMax) {
      km_diag(state, "Too many key bindings in one keymap. (line %d)\n", n);
      return RC_FAIL;
    }
    km_ktuple_list_insert(state, tuples, t);
  }
  if (lines_read > 0) return RC_OK;
  km_diag(state, "Missing end_keymap keyword in keymap file. (line %d)\n", stream->line_no);
  return RC_FAIL;
}

int km_ktuple_list_insert(KMSTATE* state, KTUPLE_LIST* tuples, const KEYTUPLE& tuple) {
  if (!tuples) return RC_FAIL;
  auto it = tuples->begin();
  while (it != tuples->end() && it->key < tuple.key) ++it;
  if (it != tuples->end() && it->key == tuple.key) {
    km_diag(state, "Duplicate Key Binding.  (new='%s',old='%s')\n", tuple.name.c_str(), it->name.c_str());
    *it = tuple;
  } else {
    tuples->insert(it, tuple);
  }
  return RC_OK;
}

int km_ktuple_list_sublist(const KTUPLE_LIST& tuples, size_t from, size_t to, KTUPLE_LIST* out) {
  if (!out || from > to || to >= tuples.size()) return RC_FAIL;
  out->assign(tuples.begin() + static_cast<long>(from), tuples.begin() + static_cast<long>(to) + 1);
  return RC_OK;
}

int km_ktuple_list_dump(const KTUPLE_LIST& tuples, std::string* out) {
  if (!out) return RC_FAIL;
  char buf[400];
  for (const KEYTUPLE& t : tuples) {
    std::snprintf(buf, sizeof buf, "  key=%5u name=%-10s bind=%s%s%s\n", t.key, t.name.c_str(), t.bind.c_str(),
                  t.prefix_map.empty() ? "" : " -> ", t.prefix_map.c_str());
    *out += buf;
  }
  return RC_OK;
}

int km_kmap_load_one(KMSTATE* state, const std::string& line, KM_READER* stream) {
  std::vector<std::string> words = Words(line);
  int n = stream->line_no;
  if (words.size() < 2) {
    km_diag(state, "Missing keymap name in keymap file. (line %d)\n", n);
    return RC_FAIL;
  }
  if (words.size() < 3) {
    km_diag(state, "Missing default function in keymap file. (line %d)\n", n);
    return RC_FAIL;
  }
  if (words[1].size() >= kKmPrefixMapSize || words[2].size() >= kKmBindSize) {
    km_diag(state, "Word too long in keymap file. (line %d)\n", n);
    return RC_FAIL;
  }
  if (dsl_count(state->maps) >= kKmMapsMax) {
    km_diag(state, "Too many keymaps in keymap file. (line %d)\n", n);
    return RC_FAIL;
  }
  std::string def = words[2];
  // A default that names nothing would make every other key of the map do
  // nothing; passing such keys on to the maps below is the safer reading.
  if (def == "prefix" || km_bind_known(def.c_str()) != RC_OK) {
    km_diag(state, "Unknown command name.  %s (line %d)\n", def.c_str(), n);
    def = "rescan";
  }
  KTUPLE_LIST tuples;
  if (km_ktuple_list_load(state, stream, &tuples) != RC_OK) {
    km_diag(state, "Load keytuple list failed.\n");
    return RC_FAIL;
  }
  KEYMAP* existing = nullptr;
  if (km_kmap_cv_name_ptr(state, words[1].c_str(), &existing) == RC_OK) {
    // The first definition stays, as a lookup by name could only ever
    // find that one.
    km_diag(state, "Duplicate keymap name.  %s (line %d)\n", words[1].c_str(), n);
    return RC_OK;
  }
  LIST_HDR* blocks = nullptr;
  if (km_kblock_list_build(state, tuples, &blocks) != RC_OK) return RC_FAIL;
  KEYMAP* map = nullptr;
  if (km_kmap_create(&map, &blocks, words[1].c_str(), def.c_str()) != RC_OK || !map) {
    km_kblock_list_destroy(&blocks);
    return RC_FAIL;
  }
  if (!dsl_append(state->maps, map)) {
    km_kmap_destroy(&map);
    return RC_FAIL;
  }
  return RC_OK;
}

int km_state_init_text(KMSTATE* state, const std::string& text) {
  if (!state || !state->maps) return RC_FAIL;
  if (text.size() > kKmFileMax) {
    km_diag(state, "Input file is too large.  %zu bytes\n", text.size());
    return RC_FAIL;
  }
  KM_READER reader;
  reader.text = &text;
  std::string line;
  bool too_long;
  while (km_reader_line(&reader, &line, &too_long) == RC_OK) {
    if (too_long) {
      km_diag(state, "Line too long in keymap file. (line %d)\n", reader.line_no);
      continue;
    }
    std::vector<std::string> words = Words(line);
    if (Skipped(words) || words[0] != "keymap") continue;
    if (km_kmap_load_one(state, line, &reader) != RC_OK) return RC_FAIL;
  }
  return RC_OK;
}

int km_state_init_file(KMSTATE* state, const char* path) {
  if (!state || !path) return RC_FAIL;
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    km_diag(state, "Unable to open input file.  %s\n", path);
    return RC_FAIL;
  }
  std::string text;
  char buf[8192];
  while (in.read(buf, sizeof buf) || in.gcount() > 0) {
    text.append(buf, static_cast<size_t>(in.gcount()));
    if (text.size() > kKmFileMax) {
      km_diag(state, "Input file is too large.  %s\n", path);
      return RC_FAIL;
    }
  }
  if (text.empty()) {
    km_diag(state, "Input file is empty.  %s\n", path);
    return RC_FAIL;
  }
  return km_state_init_text(state, text);
}

int km_state_setup(KMSTATE* state, const char* path, std::string* user_error) {
  std::string ignored;
  if (!user_error) user_error = &ignored;
  if (!state) return RC_FAIL;
  if (!path || !*path) {
    *user_error = "Unable to load keybind.def, please correct.";
    return RC_FAIL;
  }
  if (km_state_init_file(state, path) != RC_OK) {
    *user_error = "Keybinding definition file not found.";
    return RC_FAIL;
  }
  for (const char* name : {"esc-map", "ctl-x-map"}) {
    KEYMAP* map = nullptr;
    if (km_kmap_cv_name_ptr(state, name, &map) == RC_OK) km_state_push(state, map);
  }
  KEYMAP* fundamental = nullptr;
  if (km_kmap_cv_name_ptr(state, "fundamental", &fundamental) != RC_OK) {
    *user_error = "No 'fundamental' keymap defined.";
    return RC_FAIL;
  }
  return km_state_push(state, fundamental);
}
