#include "src/base/cenv.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "rclib/safe_file.h"
#include "src/base/base64.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"

namespace {

// Init files are a few hundred bytes; anything beyond this is not ours.
constexpr size_t kIniFileLimit = 1u << 20;
constexpr int kIniTokens = 4;
constexpr long kMaxPort = 65535;

// A string that remembers whether it was ever given: the getters hand out
// null for "none", which callers treat differently from "".
class OptString {
 public:
  void Set(const char* text) {
    has_ = text != nullptr;
    value_ = text ? text : "";
  }
  const char* Get() const { return has_ ? value_.c_str() : nullptr; }
  bool Has() const { return has_; }
  bool Is(const char* text) const { return has_ && text && value_ == text; }

 private:
  bool has_ = false;
  std::string value_;
};

struct ConfigEnvironment {
  OptString remote_host;
  long remote_port = 0;  // 0: the protocol's default
  int current_config = -1;
  OptString config_file;
  OptString userid;
  OptString password;
  unsigned flags = 0;
  long connection_mode = kConnConnected;
  long new_connection_mode = kConnDisconnected;
};

struct ConfigRecord {
  OptString type;
  OptString file;
  OptString host;
  OptString name;
  OptString mode;
  OptString section;
  long port = 0;
  unsigned flags = 0;
};

ConfigEnvironment* g_env = nullptr;
// The used part of the table ends at the first null entry.
ConfigRecord* g_configs[kMaxConfigs] = {};

void FreeAll() {
  delete g_env;
  g_env = nullptr;
  for (ConfigRecord*& record : g_configs) {
    delete record;
    record = nullptr;
  }
}

void Entry(const char* function) { Trace(kTraceOptions, kTraceLow, "%s: function entry.\n", function); }

void SetFlag(unsigned bit, int flag) {
  if (!g_env) return;
  if (flag & 1)
    g_env->flags |= bit;
  else
    g_env->flags &= ~bit;
}

int GetFlag(unsigned bit) { return g_env && (g_env->flags & bit) ? 1 : 0; }

ConfigRecord* Record(int index) {
  if (index < 0 || index >= kMaxConfigs) return nullptr;
  return g_configs[index];
}

int FirstFreeSlot() {
  for (int i = 0; i < kMaxConfigs; ++i)
    if (!g_configs[i]) return i;
  return -1;
}

// A whole decimal number, optionally signed, with blanks around it; false
// for anything else (including overflow).
bool ParseDecimal(const char* text, long* value) {
  if (!text) return false;
  while (*text == ' ' || *text == '\t') ++text;
  if (*text != '-' && *text != '+' && (*text < '0' || *text > '9')) return false;
  errno = 0;
  char* end = nullptr;
  long result = std::strtol(text, &end, 10);
  if (errno == ERANGE || end == text || (end[-1] < '0' || end[-1] > '9')) return false;
  while (*end == ' ' || *end == '\t') ++end;
  if (*end != '\0') return false;
  *value = result;
  return true;
}

bool ParsePort(const char* text, long* port) {
  long value = 0;
  if (!ParseDecimal(text, &value) || value < 0 || value > kMaxPort) return false;
  *port = value;
  return true;
}

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

// ---------------------------------------------------------------------------
// Command line.

// The program's own option scanner. Unlike the C library's it keeps no
// global state and never permutes or modifies argv.
class OptionScanner {
 public:
  OptionScanner(int argc, char** argv, const char* letters) : argc_(argc), argv_(argv), letters_(letters) {}

  // The next option letter with its value in *value (null for a flag), or
  // -1 at the end of the options.
  int Next(const char** value) {
    *value = nullptr;
    for (;;) {
      if (pos_ == 0) {
        if (index_ >= argc_ || !argv_[index_]) return -1;
        const char* word = argv_[index_];
        if (word[0] != '-' || word[1] == '\0') return -1;  // first operand or a lone "-"
        if (std::strcmp(word, "--") == 0) {
          ++index_;
          return -1;
        }
        pos_ = 1;
      }
      const char* word = argv_[index_];
      char letter = word[pos_++];
      const char* found = letter != ':' ? std::strchr(letters_, letter) : nullptr;
      bool takes_value = found && found[1] == ':';
      if (!takes_value) {
        if (word[pos_] == '\0') NextWord();
        if (found) return letter;
        Trace(kTraceOptions, kTraceLow, "CENV_ParseCommandLine: unknown option -%c skipped\n", letter);
        continue;
      }
      if (word[pos_] != '\0') {  // joined: "-fname"
        *value = word + pos_;
        NextWord();
        return letter;
      }
      NextWord();
      if (index_ < argc_ && argv_[index_]) {  // separated: "-f name"
        *value = argv_[index_];
        ++index_;
        return letter;
      }
      Trace(kTraceOptions, kTraceLow, "CENV_ParseCommandLine: option -%c without a value skipped\n", letter);
      return -1;
    }
  }

 private:
  void NextWord() {
    ++index_;
    pos_ = 0;
  }

  int argc_;
  char** argv_;
  const char* letters_;
  int index_ = 1;  // argv[0] is the program's name
  int pos_ = 0;    // letter within argv[index_]; 0 at the start of a word
};

// ---------------------------------------------------------------------------
// Init file.

bool IsSection(const char* token) { return std::strcmp(token, "[REMOTE]") == 0 || std::strcmp(token, "[LOCAL]") == 0; }

// The fields of a record while its lines are read.
struct PendingRecord {
  OptString name, mode, host, file, type;
  long port = 0;
  unsigned flags = 0;
};

class IniParser {
 public:
  void Line(char* line) {
    // Indentation is not part of a line: the first byte after it decides
    // the delimiters, so that an indented "name=" line keeps its blanks.
    while (IsBlank(*line)) ++line;
    bool name_or_file = *line == 'n' || *line == 'f';

    // Kept for [password], whose value may end in "=" padding.
    raw_ = line;
    const char* delimiters = name_or_file ? "=\r\n" : in_record_ ? "= \r\n" : " \r\n";
    char* tokens[kIniTokens] = {};
    int count = CENV_TokenizeString(line, kIniTokens, delimiters, tokens);
    if (count == 0) return;  // blank or comment: no record begins here
    if (name_or_file) count = TrimKeyValue(count, tokens);

    if (std::strcmp(tokens[0], "[userid]") == 0 || std::strcmp(tokens[0], "[password]") == 0) {
      // These are top-level lines, but one inside a record is still
      // honoured rather than lost.
      count = CENV_TokenizeString(raw_.data(), kIniTokens, " \r\n", tokens);
      Account(count, tokens);
      return;
    }
    if (IsSection(tokens[0])) {
      // A header inside an unfinished record starts afresh.
      section_.Set(tokens[0]);
      default_next_ = count >= 2 && std::strcmp(tokens[1], "default") == 0;
      pending_ = PendingRecord();
      in_record_ = true;
      return;
    }
    if (!in_record_) {
      // Any other top-level line begins a record; a "name" line names it.
      pending_ = PendingRecord();
      in_record_ = true;
      if (count == 2 && std::strcmp(tokens[0], "name") == 0) pending_.name.Set(tokens[1]);
      return;
    }
    if (count != 2) return;
    RecordLine(tokens[0], tokens[1]);
  }

  // A group cut off by the end of the text has no record.
  void Finish() {
    if (in_record_) Trace(kTraceOptions, kTraceLow, "CENV_LoadInitFile: unfinished configuration dropped\n");
    in_record_ = false;
    CENV_GetDefaultConfigIndex("all");
  }

 private:
  // "name = X" splits into "name " and " X": trim the blanks next to the
  // "=". A value that is only blanks is no value.
  static int TrimKeyValue(int count, char** tokens) {
    char* key = tokens[0];
    size_t len = std::strlen(key);
    while (len > 0 && IsBlank(key[len - 1])) key[--len] = '\0';
    if (count >= 2) {
      while (IsBlank(*tokens[1])) ++tokens[1];
      if (*tokens[1] == '\0') return 1;
    }
    return count;
  }

  static void Account(int count, char** tokens) {
    if (count < 2) return;
    if (std::strcmp(tokens[0], "[userid]") == 0) {
      CENV_SetUserid(tokens[1]);
      return;
    }
    std::string decoded;
    if (Base64Decode(tokens[1], std::strlen(tokens[1]), &decoded)) {
      CENV_SetPassword(decoded.c_str());
    } else {
      Trace(kTraceOptions, kTraceLow, "CENV_LoadInitFile: [password] is not base64, ignored\n");
      CENV_SetPassword(nullptr);
    }
  }

  void RecordLine(const char* key, const char* value) {
    long number = 0;
    if (std::strcmp(key, "name") == 0) {
      pending_.name.Set(value);
    } else if (std::strcmp(key, "mode") == 0) {
      pending_.mode.Set(value);
    } else if (std::strcmp(key, "host") == 0) {
      pending_.host.Set(value);
    } else if (std::strcmp(key, "file") == 0) {
      pending_.file.Set(value);
    } else if (std::strcmp(key, "port") == 0) {
      if (ParsePort(value, &number))
        pending_.port = number;
      else
        Trace(kTraceOptions, kTraceLow, "CENV_LoadInitFile: bad port %s ignored\n", value);
    } else if (std::strcmp(key, "online_default") == 0 || std::strcmp(key, "offline_default") == 0) {
      unsigned bit = key[1] == 'n' ? kConfigOnlineDefault : kConfigOfflineDefault;
      if (ParseDecimal(value, &number) && (number & 1))
        pending_.flags |= bit;
      else
        pending_.flags &= ~bit;
    } else if (std::strcmp(key, "type") == 0) {
      pending_.type.Set(value);
      Close();
    }
  }

  // The type line ends the record: it takes the next free slot.
  void Close() {
    PendingRecord& p = pending_;
    bool is_default = default_next_;
    in_record_ = false;
    default_next_ = false;

    std::string name;
    if (p.name.Has()) {
      name = p.name.Get();
    } else if (p.host.Has()) {
      char buffer[64];
      std::snprintf(buffer, sizeof buffer, "_%ld_", p.port);
      name = std::string(p.host.Get()) + buffer + p.type.Get();
    } else if (p.file.Has()) {
      name = p.file.Get();
    } else {
      name = "no configuration name specified";
    }
    if (!p.mode.Has()) {
      if (p.type.Is("imsp"))
        p.mode.Set("online");
      else
        p.mode.Set(is_default ? "online" : "offline");
    }

    int index = FirstFreeSlot();
    if (index < 0) {
      Trace(kTraceOptions, kTraceLow, "CENV_LoadInitFile: more than 20 configurations, ignoring %s\n", name.c_str());
      return;
    }
    ConfigRecord* record = new (std::nothrow) ConfigRecord;
    if (!record) return;
    record->type = p.type;
    record->file = p.file;
    record->host = p.host;
    record->name.Set(name.c_str());
    record->mode = p.mode;
    record->section = section_;
    record->port = p.port;
    record->flags = p.flags & (kConfigOnlineDefault | kConfigOfflineDefault);
    g_configs[index] = record;

    if (is_default || (record->flags & kConfigOnlineDefault)) {
      CENV_SetCurrentConfigIndex(index);
      if (!record->type.Is("tcl")) {
        CENV_SetRemoteHost(record->host.Get());
        CENV_SetRemotePort(record->port);
        CENV_SetDefaultRemote(1);
      } else {
        CENV_SetConfigFile(record->file.Get());
        if (is_default) CENV_SetDefaultRemote(0);
      }
    }
  }

  std::string raw_;
  bool in_record_ = false;
  bool default_next_ = false;
  OptString section_;
  PendingRecord pending_;
};

// Hands text to fn one whole line at a time, however long: a line cut in
// pieces would lose its tail, or have the tail read as a line of its own.
// The text itself is limited (kIniFileLimit).
template <typename Fn>
void ForEachLine(const char* text, size_t length, Fn fn) {
  std::string line;
  for (size_t pos = 0; pos < length;) {
    const void* newline = std::memchr(text + pos, '\n', length - pos);
    const size_t end = newline ? static_cast<size_t>(static_cast<const char*>(newline) - text) + 1 : length;
    line.assign(text + pos, end - pos);
    fn(line.data());
    pos = end;
  }
}

// Reads at most limit bytes of an open file; more is traced and dropped.
std::string ReadCapped(FILE* file, const char* name) {
  std::string text;
  char buffer[8192];
  size_t n = 0;
  while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0) {
    if (text.size() + n > kIniFileLimit) {
      text.append(buffer, kIniFileLimit - text.size());
      Trace(kTraceOptions, kTraceLow, "CENV_LoadInitFile: %s is larger than %zu bytes, the rest is ignored\n", name,
            kIniFileLimit);
      break;
    }
    text.append(buffer, n);
  }
  if (std::ferror(file)) Trace(kTraceOptions, kTraceLow, "CENV_LoadInitFile: error reading %s\n", name);
  return text;
}

// The old-style location file: one line, "location <value>".
void ParseOptLocn(char* line) {
  char* tokens[kIniTokens] = {};
  int count = CENV_TokenizeString(line, kIniTokens, " ,\r\n", tokens);
  if (count < 2 || std::strcmp(tokens[0], "location") != 0) {
    Trace(kTraceOptions, kTraceLow, "CENV_LoadInitFile: old-style location file not understood\n");
    return;
  }
  const char* value = tokens[1];
  if (std::strncmp(value, "imsp", 4) == 0) {
    if (value[4] != '\0') CENV_SetRemoteHost(value + 4);
    CENV_SetDefaultRemote(1);
  } else if (std::strcmp(value, "tcl") == 0) {
    CENV_SetDefaultRemote(0);
  }
}

}  // namespace

// ---------------------------------------------------------------------------

int CENV_Init(int argc, char** argv) {
  Entry(__func__);
  FreeAll();
  g_env = new (std::nothrow) ConfigEnvironment;
  if (!g_env) return 0;
  CENV_LoadInitFile();
  CENV_LoadOSEnvironment();
  CENV_ParseCommandLine(argc, argv);
  return 1;
}

void CENV_Shutdown() {
  Entry(__func__);
  xvt_dm_post_note("garbage collecting...");
  FreeAll();
}

void CENV_LoadInitFile() {
  Entry(__func__);
  for (int kind : {kFileUserIni, kFileSiteIni}) {
    std::string name = get_file_name(kind);
    if (name.empty()) continue;
    FILE* file = safe_fopen_read(name.c_str());
    if (!file) continue;
    Trace(kTraceOptions, kTraceLow, "CENV_LoadInitFile: reading %s\n", name.c_str());
    std::string text = ReadCapped(file, name.c_str());
    std::fclose(file);
    CENV_ParseInitText(text.data(), text.size());
    return;
  }
  std::string name = get_file_name(kFileOptLocn);
  if (name.empty()) return;
  FILE* file = safe_fopen_read(name.c_str());
  if (!file) return;
  std::string line = ReadCapped(file, name.c_str());
  std::fclose(file);
  line.erase(std::min(line.find('\n'), line.size()));  // only the first line counts
  ParseOptLocn(line.data());
  // The old-style file has been taken over; it must not override the
  // settings made from now on.
  if (std::remove(name.c_str()) != 0)
    Trace(kTraceOptions, kTraceLow, "CENV_LoadInitFile: can't delete %s\n", name.c_str());
}

void CENV_ParseInitText(const char* text, size_t length) {
  if (!text) length = 0;
  if (length > kIniFileLimit) {
    Trace(kTraceOptions, kTraceLow, "CENV_LoadInitFile: init text longer than %zu bytes, the rest is ignored\n",
          kIniFileLimit);
    length = kIniFileLimit;
  }
  IniParser* parser = new (std::nothrow) IniParser;
  if (!parser) return;
  ForEachLine(text, length, [parser](char* line) { parser->Line(line); });
  parser->Finish();
  delete parser;
}

void CENV_LoadOSEnvironment() {
  Entry(__func__);
  const char* host = std::getenv("MAILHOST");
  if (host && *host) {
    CENV_SetRemoteHost(host);
    CENV_SetDefaultRemote(1);
  }
}

void CENV_ParseCommandLine(int argc, char** argv) {
  Entry(__func__);
  if (!argv) return;
  OptionScanner scanner(argc, argv, "f:m:p:r:n:u:w:bsc:h:");
  const char* value = nullptr;
  int letter;
  while ((letter = scanner.Next(&value)) != -1) {
    bool given = value && *value;
    long number = 0;
    switch (letter) {
      case 'f':
        CENV_SetDefaultRemote(0);
        if (given) CENV_SetConfigFile(value);
        break;
      case 'm':
        CENV_SetManditoryRemote(1);
        if (given) CENV_SetRemoteHost(value);
        break;
      case 'r':
        CENV_SetDefaultRemote(1);
        if (given) CENV_SetRemoteHost(value);
        break;
      case 'n':
        if (!given) break;
        if (ParsePort(value, &number))
          CENV_SetRemotePort(number);
        else
          Trace(kTraceOptions, kTraceLow, "CENV_ParseCommandLine: bad port %s ignored\n", value);
        break;
      case 'u':
        if (given) CENV_SetUserid(value);
        break;
      case 'p':
        if (given) CENV_SetPassword(value);
        break;
      case 'b':
        CENV_SetSuppressBannerDisplay(1);
        break;
      case 's':
        // Suppressing the reload also suppresses the desktop save and the
        // start-up outbox question; their owners read this flag.
        CENV_SetSuppressDesktopReload(1);
        break;
      case 'c':
        if (value && (value[0] == 'p' || value[0] == 'P')) {
          CENV_SetSessionManagrment(1);
          CENV_SetConnectionMode(kConnPrompt);
        } else if (value && (value[0] == 'd' || value[0] == 'D')) {
          CENV_SetConnectionMode(kConnDisconnected);
        } else {
          CENV_SetConnectionMode(kConnConnected);
        }
        break;
      default:  // -w, -h: accepted for compatibility, no effect
        break;
    }
  }
}

int CENV_TokenizeString(char* line, int max, const char* delimiters, char** tokens) {
  if (!line || !tokens || max <= 0) return 0;
  if (!delimiters) delimiters = "";
  int count = 0;
  char* p = line;
  while (count < max) {
    p += std::strspn(p, delimiters);
    if (*p == '\0' || *p == '#') break;
    char* start = p;
    p += std::strcspn(p, delimiters);
    if (*p != '\0') *p++ = '\0';
    tokens[count++] = start;
  }
  return count;
}

// ---------------------------------------------------------------------------
// The environment's fields.

void CENV_SetRemoteHost(const char* host) {
  Entry(__func__);
  if (g_env) g_env->remote_host.Set(host);
}
const char* CENV_GetRemoteHost() {
  Entry(__func__);
  return g_env ? g_env->remote_host.Get() : nullptr;
}
void CENV_SetRemotePort(long port) {
  Entry(__func__);
  if (g_env) g_env->remote_port = port;
}
long CENV_GetRemotePort() {
  Entry(__func__);
  return g_env ? g_env->remote_port : 0;
}
void CENV_SetConfigFile(const char* file) {
  Entry(__func__);
  if (g_env) g_env->config_file.Set(file);
}
const char* CENV_GetConfigFile() {
  Entry(__func__);
  return g_env ? g_env->config_file.Get() : nullptr;
}
void CENV_SetUserid(const char* userid) {
  Entry(__func__);
  if (g_env) g_env->userid.Set(userid);
}
const char* CENV_GetUserid() {
  Entry(__func__);
  return g_env ? g_env->userid.Get() : nullptr;
}
void CENV_SetPassword(const char* password) {
  Entry(__func__);
  if (g_env) g_env->password.Set(password);
}
const char* CENV_GetPassword() {
  Entry(__func__);
  return g_env ? g_env->password.Get() : nullptr;
}
void CENV_SetManditoryRemote(int flag) {
  Entry(__func__);
  SetFlag(kCenvManditoryRemote, flag);
}
int CENV_GetManditoryRemote() {
  Entry(__func__);
  return GetFlag(kCenvManditoryRemote);
}
void CENV_SetDefaultRemote(int flag) {
  Entry(__func__);
  SetFlag(kCenvDefaultRemote, flag);
}
int CENV_GetDefaultRemote() {
  Entry(__func__);
  return GetFlag(kCenvDefaultRemote);
}
void CENV_SetSuppressDesktopReload(int flag) {
  Entry(__func__);
  SetFlag(kCenvSuppressDesktopReload, flag);
}
int CENV_GetSuppressDesktopReload() {
  Entry(__func__);
  return GetFlag(kCenvSuppressDesktopReload);
}
void CENV_SetSuppressBannerDisplay(int flag) {
  Entry(__func__);
  SetFlag(kCenvSuppressBanner, flag);
}
int CENV_GetSuppressBannerDisplay() {
  Entry(__func__);
  return GetFlag(kCenvSuppressBanner);
}
void CENV_SetConnectionMode(long mode) {
  Entry(__func__);
  if (g_env) g_env->connection_mode = mode;
}
long CENV_GetConnectionMode() {
  Entry(__func__);
  return g_env ? g_env->connection_mode : kConnConnected;
}
void CENV_SetNewConnectionMode(long mode) {
  Entry(__func__);
  if (g_env) g_env->new_connection_mode = mode;
}
long CENV_GetNewConnectionMode() {
  Entry(__func__);
  return g_env ? g_env->new_connection_mode : kConnDisconnected;
}
void CENV_SetSessionManagrment(int flag) {
  Entry(__func__);
  SetFlag(kCenvSessionManagement, flag);
}
int CENV_GetSessionManagement() {
  Entry(__func__);
  return GetFlag(kCenvSessionManagement);
}
void CENV_SetOnDemand(int flag) {
  Entry(__func__);
  SetFlag(kCenvOnDemand, flag);
}
int CENV_GetOnDemand() {
  Entry(__func__);
  return GetFlag(kCenvOnDemand);
}

// ---------------------------------------------------------------------------
// The table of configurations.

SLIST CENV_GetConfigList(const char* mode, const char* type, const char* section) {
  Entry(__func__);
  if (!mode && !type && !section) {
    xvt_dm_post_error("Assertions failed on call to CENV_GetConfigList().");
    return nullptr;
  }
  if (!g_configs[0]) return nullptr;
  SLIST list = xvt_slist_create();
  if (!list) return nullptr;
  for (int i = 0; i < kMaxConfigs && g_configs[i]; ++i) {
    ConfigRecord* record = g_configs[i];
    record->flags &= ~kConfigListed;
    // Each filter that applies overrides the ones before it.
    bool listed = false;
    if (section && record->section.Has()) listed = record->section.Is(section);
    if (mode && record->mode.Has()) listed = record->mode.Is(mode) || std::strcmp(mode, "all") == 0;
    if (type && record->type.Has()) listed = record->type.Is(type);
    if (!listed) continue;
    record->flags |= kConfigListed;
    xvt_slist_add_at_elt(list, nullptr, record->name.Has() ? record->name.Get() : "", i);
  }
  return list;
}

int CENV_GetDefaultConfigIndex(const char* mode) {
  Entry(__func__);
  bool any_mode = !mode || std::strcmp(mode, "all") == 0;
  for (int i = 0; i < kMaxConfigs && g_configs[i]; ++i) {
    ConfigRecord* record = g_configs[i];
    if (!any_mode && !record->mode.Is(mode)) continue;
    if (record->flags & (kConfigOnlineDefault | kConfigOfflineDefault)) return i;
  }
  // Nobody is the default: the first configuration becomes it, so that there
  // always is one to start with.
  if (!g_configs[0]) return -1;
  g_configs[0]->flags |= kConfigOnlineDefault;
  return 0;
}

const char* CENV_GetConfigName(int index) {
  Entry(__func__);
  ConfigRecord* record = Record(index);
  return record ? record->name.Get() : nullptr;
}

int CENV_FindConfigByName(const char* name) {
  Entry(__func__);
  if (!name) return -1;
  for (int i = 0; i < kMaxConfigs && g_configs[i]; ++i)
    if (g_configs[i]->name.Is(name)) return i;
  return -1;
}

int CENV_NewConfig() {
  Entry(__func__);
  int index = FirstFreeSlot();
  if (index < 0) return -1;
  g_configs[index] = new (std::nothrow) ConfigRecord;
  if (!g_configs[index]) return -1;
  CENV_SetConfigOnlineDefault(index, 0);
  CENV_SetConfigOfflineDefault(index, 0);
  return index;
}

void CENV_SetCurrentConfigIndex(int index) {
  Entry(__func__);
  if (!g_env) return;
  if (index < -1 || index >= kMaxConfigs) {
    Trace(kTraceOptions, kTraceLow, "CENV_SetCurrentConfigIndex: index %d out of range\n", index);
    return;
  }
  g_env->current_config = index;
}

int CENV_GetCurrentConfigIndex() {
  Entry(__func__);
  return g_env ? g_env->current_config : -1;
}

void CENV_SetNewConfig(int index) {
  Entry(__func__);
  ConfigRecord* record = Record(index);
  if (!record) return;
  if (record->type.Is("tcl")) {
    CENV_SetConfigFile(record->file.Get());
  } else {
    CENV_SetRemoteHost(record->host.Get());
    CENV_SetRemotePort(record->port);
  }
}

void CENV_SetConfigName(int index, const char* name) {
  Entry(__func__);
  if (ConfigRecord* record = Record(index)) record->name.Set(name);
}
void CENV_SetConfigSection(int index, const char* section) {
  Entry(__func__);
  if (ConfigRecord* record = Record(index)) record->section.Set(section);
}
void CENV_SetConfigHost(int index, const char* host) {
  Entry(__func__);
  if (ConfigRecord* record = Record(index)) record->host.Set(host);
}
void CENV_SetConfigPort(int index, long port) {
  Entry(__func__);
  if (ConfigRecord* record = Record(index)) record->port = port;
}
void CENV_SetConfigType(int index, const char* type) {
  Entry(__func__);
  if (ConfigRecord* record = Record(index)) record->type.Set(type);
}
void CENV_SetConfigFilename(int index, const char* file) {
  Entry(__func__);
  if (ConfigRecord* record = Record(index)) record->file.Set(file);
}
void CENV_SetConfigMode(int index, const char* mode) {
  Entry(__func__);
  if (ConfigRecord* record = Record(index)) record->mode.Set(mode);
}
void CENV_SetConfigOnlineDefault(int index, int flag) {
  Entry(__func__);
  if (ConfigRecord* record = Record(index)) {
    if (flag & 1)
      record->flags |= kConfigOnlineDefault;
    else
      record->flags &= ~kConfigOnlineDefault;
  }
}
void CENV_SetConfigOfflineDefault(int index, int flag) {
  Entry(__func__);
  if (ConfigRecord* record = Record(index)) {
    if (flag & 1)
      record->flags |= kConfigOfflineDefault;
    else
      record->flags &= ~kConfigOfflineDefault;
  }
}
const char* CENV_GetConfigSection(int index) {
  Entry(__func__);
  ConfigRecord* record = Record(index);
  return record ? record->section.Get() : nullptr;
}
const char* CENV_GetConfigFilename(int index) {
  Entry(__func__);
  ConfigRecord* record = Record(index);
  return record ? record->file.Get() : nullptr;
}
const char* CENV_GetConfigHost(int index) {
  Entry(__func__);
  ConfigRecord* record = Record(index);
  return record ? record->host.Get() : nullptr;
}
long CENV_GetConfigPort(int index) {
  Entry(__func__);
  ConfigRecord* record = Record(index);
  return record ? record->port : 0;
}
const char* CENV_GetConfigType(int index) {
  Entry(__func__);
  ConfigRecord* record = Record(index);
  return record ? record->type.Get() : nullptr;
}
const char* CENV_GetConfigMode(int index) {
  Entry(__func__);
  ConfigRecord* record = Record(index);
  return record ? record->mode.Get() : nullptr;
}
int CENV_GetConfigOnlineDefault(int index) {
  Entry(__func__);
  ConfigRecord* record = Record(index);
  return record && (record->flags & kConfigOnlineDefault) ? 1 : 0;
}
int CENV_GetConfigOfflineDefault(int index) {
  Entry(__func__);
  ConfigRecord* record = Record(index);
  return record && (record->flags & kConfigOfflineDefault) ? 1 : 0;
}
