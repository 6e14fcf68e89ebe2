// The table of message services: records loaded from the options, the
// service types, the names the mail layer wants, the login a service
// primes, and canonical folder names.
#include <strings.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "c-client/auth/auth.h"
#include "src/base/errors.h"
#include "src/base/trace.h"
#include "src/model/model_internal.h"
#include "src/options/options.h"

namespace {

std::array<std::unique_ptr<MessageService>, kMaxServices> g_services;

struct ServiceType {
  int code;
  const char* word;
  const char* alias;
  const char* description;
  const char* stream_format;  // null: no stream
  int default_port;
};

constexpr ServiceType kTypes[] = {
    {kServiceImap, "imap", "mail", "Internet (IMAP) Folders", "{%s/service=imap2:%d}", 143},
    {kServiceBboard, "bboard", nullptr, "Internet (IMAP) News", "{%s/service=imap2:%d}*", 143},
    {kServiceNntp, "nntp", nullptr, "Internet (NNTP) News", "{%s/service=nntp:%d}", 119},
    {kServicePop, "pop", nullptr, "Internet (POP3) Folders", "{%s/service=pop3:%d}", 110},
    {kServiceLmap, "lmap", nullptr, "X.400 (LMAP) Folders", nullptr, 0},
    {kServiceP7, "p7", nullptr, "X.400 (P7) Folders", nullptr, 0},
    {kServiceLocal, "local", "mh", "Local (File) Folders", "", 0},
};

const ServiceType* TypeOf(int code) {
  for (const ServiceType& t : kTypes)
    if (t.code == code) return &t;
  return nullptr;
}

std::string Key(int number, const char* field) {
  char key[96];
  std::snprintf(key, sizeof key, "MsgService.ms%d.%s", number, field);
  return key;
}

std::string Read(int number, const char* field) { return Opt_LookupText(Key(number, field).c_str(), kOptSession); }

const char* Str(const std::string& s) { return s.c_str(); }

}  // namespace

MessageService* ServiceAt(int id) {
  if (id < 0 || id >= kMaxServices) return nullptr;
  return g_services[id].get();
}

void ReportNoStream(int code, const char* text) {
  Trace(kTraceModel, kTraceCritical, "%s\n", text);
  if (!AUTH_LoginCancelled()) ErrorShow(code, text);
}

// --- Types ---------------------------------------------------------------------

const char* MM_MSGetTypedescByType(int type) {
  const ServiceType* t = TypeOf(type);
  return t ? t->description : "";
}

int MM_MSGetTypeByTypename(const char* word) {
  if (!word) return 0;
  for (const ServiceType& t : kTypes)
    if (strcasecmp(word, t.word) == 0 || (t.alias && strcasecmp(word, t.alias) == 0)) return t.code;
  return 0;
}

const char* MM_MSGetTypenameByType(int type) {
  const ServiceType* t = TypeOf(type);
  return t ? t->word : "";
}

// --- The table -------------------------------------------------------------------

int MM_MSNew(int number) {
  Trace(kTraceModel, kTraceAll, "MM_MSNew: function entry.\n");
  if (number < 0) return INVALID_SERVICE;
  int free_slot = INVALID_SERVICE;
  for (int id = 0; id < kMaxServices; ++id) {
    if (g_services[id] && g_services[id]->number == number) return id;
    if (!g_services[id] && free_slot == INVALID_SERVICE) free_slot = id;
  }
  if (free_slot == INVALID_SERVICE) return INVALID_SERVICE;
  g_services[free_slot] = std::make_unique<MessageService>();
  g_services[free_slot]->number = number;
  MM_MSReload(free_slot);
  return free_slot;
}

int MM_MSReload(int id) {
  MessageService* ms = ServiceAt(id);
  if (!ms) return 0;
  const int n = ms->number;
  ms->name = Read(n, "Name");
  ms->host = Read(n, "Hostname");
  ms->userid = Read(n, "Userid");
  ms->password = Read(n, "Password");
  ms->prefix = Read(n, "FolderPrefix");
  ms->location = Read(n, "FolderLocation");
  ms->security = Read(n, "Security");
  // A service without a Port option takes its type's default, so that a
  // news service talks to 119 and not to the IMAP port.
  ms->port = 0;
  std::string port = Read(n, "Port");
  if (!port.empty()) std::sscanf(port.c_str(), "%d", &ms->port);
  if (ms->port < 0 || ms->port > 65535) ms->port = 0;
  ms->type = kServiceTypeNone;
  std::string type = Read(n, "Type");
  if (int code = MM_MSGetTypeByTypename(type.c_str())) ms->type = code;
  if (!ms->prefix.empty() && ms->location.empty()) {
    ms->location = ms->prefix;
    Opt_AssignString(Key(n, "FolderLocation").c_str(), ms->location.c_str(), kOptPermanent, 0);
  }
  return 1;
}

void DropListCache(MessageService* ms) {
  for (ListCacheEntry& e : ms->list_cache)
    if (!e.file.empty()) std::remove(e.file.c_str());
  ms->list_cache.clear();
  ms->cache_invalid = 0;
}

void MM_MSClose(int id) {
  MessageService* ms = ServiceAt(id);
  if (!ms) return;
  Trace(kTraceModel, kTraceAll, "MM_MSClose: function entry.\n");
  MM_NotPostSimple(E_MS_CLOSED, id);
  ms = ServiceAt(id);  // a handler may have destroyed it
  if (!ms) return;
  if (ms->stream) {
    QuietSection quiet;
    ms->stream = mail_close(ms->stream);
  }
  std::fill(ms->auth_password.begin(), ms->auth_password.end(), '\0');
  ms->auth_password.clear();
  ms->auth_user.clear();
  DropListCache(ms);
}

void MM_MSDestroy(int id) {
  MessageService* ms = ServiceAt(id);
  if (!ms) return;
  if (ms->stream) {
    QuietSection quiet;
    ms->stream = mail_close(ms->stream);
  }
  DropListCache(ms);
  std::fill(ms->password.begin(), ms->password.end(), '\0');
  std::fill(ms->auth_password.begin(), ms->auth_password.end(), '\0');
  g_services[id].reset();
  MM_NotPostSimple(E_MS_DESTROYED, id);
}

void MM_MSDelete(int id) {
  MessageService* ms = ServiceAt(id);
  if (!ms) return;
  const int number = ms->number;
  std::string list = Opt_LookupText("MsgService.IDList", kOptSession);
  std::string kept;
  for (const char* p = list.c_str(); *p;) {
    while (*p == ' ' || *p == '\t') ++p;
    const char* start = p;
    while (*p && *p != ' ' && *p != '\t') ++p;
    if (p == start) break;
    std::string word(start, p);
    if (std::atoi(word.c_str()) == number && word.find_first_not_of("0123456789") == std::string::npos) continue;
    if (!kept.empty()) kept += ' ';
    kept += word;
  }
  Opt_AssignString("MsgService.IDList", kept.c_str(), kOptPermanent, 0);
  char pattern[64];
  std::snprintf(pattern, sizeof pattern, "MsgService.ms%d.*", number);
  Opt_DeleteMatching(pattern);
  MM_MSDestroy(id);
}

// --- Getters ---------------------------------------------------------------------

const char* MM_MSGetName(int id) { return ServiceAt(id) ? Str(ServiceAt(id)->name) : ""; }
int MM_MSGetNumber(int id) { return ServiceAt(id) ? ServiceAt(id)->number : -1; }
const char* MM_MSGetHost(int id) { return ServiceAt(id) ? Str(ServiceAt(id)->host) : ""; }
int MM_MSGetPort(int id) { return ServiceAt(id) ? ServiceAt(id)->port : -1; }
const char* MM_MSGetUserid(int id) { return ServiceAt(id) ? Str(ServiceAt(id)->userid) : ""; }
const char* MM_MSGetAuthUser(int id) { return ServiceAt(id) ? Str(ServiceAt(id)->auth_user) : ""; }
const char* MM_MSGetFolderPrefix(int id) { return ServiceAt(id) ? Str(ServiceAt(id)->prefix) : ""; }
const char* MM_MSGetFolderLocation(int id) { return ServiceAt(id) ? Str(ServiceAt(id)->location) : ""; }
int MM_MSGetType(int id) { return ServiceAt(id) ? ServiceAt(id)->type : kServiceTypeNone; }

int MM_MSFindByName(const char* name) {
  if (!name) return INVALID_SERVICE;
  for (int id = 0; id < kMaxServices; ++id)
    if (g_services[id] && g_services[id]->name == name) return id;
  return INVALID_SERVICE;
}

SLIST MM_MSListByType(const int* types, int count) {
  SLIST list = xvt_slist_create();
  for (int id = 0; id < kMaxServices; ++id) {
    const MessageService* ms = g_services[id].get();
    if (!ms) continue;
    for (int i = 0; i < count; ++i) {
      if (types[i] == ms->type) {
        xvt_slist_add_at_elt(list, nullptr, ms->name.c_str(), id);
        break;
      }
    }
  }
  return list;
}

// --- Logins ----------------------------------------------------------------------

void MM_MSInitAuthInfo(int id) {
  MessageService* ms = ServiceAt(id);
  if (!ms) {
    AUTH_InitLogin("", "");
    return;
  }
  const std::string& user = !ms->auth_user.empty() ? ms->auth_user : ms->userid;
  const std::string& password = !ms->auth_password.empty() ? ms->auth_password : ms->password;
  AUTH_InitLogin(user.c_str(), password.c_str());
}

void MM_MSSaveAuthInfo(int id) {
  MessageService* ms = ServiceAt(id);
  if (!ms) return;
  ms->auth_user = AUTH_LoginUser();
  ms->auth_password = AUTH_LoginPassword();
}

// --- Names and streams -------------------------------------------------------------

int MM_CCGenSvcName(int id, std::string* out) {
  out->clear();
  MessageService* ms = ServiceAt(id);
  if (!ms) return 0;
  const ServiceType* t = TypeOf(ms->type);
  if (!t || !t->stream_format) return 0;
  if (ms->type == kServiceLocal) return 1;
  if (ms->host.empty()) return 0;
  // The transport's security rides on the host as a switch: "ssl" is TLS
  // from the first byte (on 993 unless a port is set), "tls" requires
  // STARTTLS, "none" never starts it; without the option STARTTLS is used
  // whenever the server offers it.
  struct Security {
    const char* word;
    const char* switch_text;
  };
  static const Security kSecurity[] = {{"ssl", "/ssl"}, {"tls", "/tls"}, {"none", "/notls"}};
  std::string host = ms->host;
  bool ssl = false;
  for (const Security& sec : kSecurity) {
    if (strcasecmp(ms->security.c_str(), sec.word) == 0) {
      host += sec.switch_text;
      ssl = sec.switch_text[1] == 's';
    }
  }
  const int port = ms->port > 0 ? ms->port : ssl && t->default_port == 143 ? 993 : t->default_port;
  char buffer[1100];
  std::snprintf(buffer, sizeof buffer, t->stream_format, host.c_str(), port);
  *out = buffer;
  return 1;
}

int MM_CCGenFolName(int id, const char* folder, std::string* out) {
  out->clear();
  const char* f = folder ? folder : "";
  while (*f == '*' || *f == ' ') ++f;
  std::string service;
  if (!MM_CCGenSvcName(id, &service)) return 0;
  if (!service.empty() && std::strncmp(f, service.c_str(), service.size()) == 0) {
    *out = f;
  } else {
    *out = service + f;
  }
  return 1;
}

MailStream* MM_CCOpenSvcStream(int id) {
  if (!ServiceAt(id)) return nullptr;
  std::string name;
  if (!MM_CCGenSvcName(id, &name)) return nullptr;
  MM_MSInitAuthInfo(id);
  long options = OP_CONTROL;
  if (TraceWanted(kTraceMail, kTraceAll)) options |= OP_DEBUG;
  MailStream* stream;
  {
    CriticalSection busy;
    stream = mail_open(nullptr, name.c_str(), options);
  }
  if (stream) MM_MSSaveAuthInfo(id);
  return stream;
}

// The message cache's marks for a remote folder.
constexpr unsigned long kRemoteCacheHigh = 4000;
constexpr unsigned long kRemoteCacheLow = 2000;

MailStream* MM_CCOpenFolStream(int id, const char* folder, int flag) {
  std::string name;
  if (!MM_CCGenFolName(id, folder, &name)) return nullptr;
  MM_MSInitAuthInfo(id);
  mail_parameters(nullptr, 110, reinterpret_cast<void*>(1));
  long options = 0;
  if (TraceWanted(kTraceMail, kTraceAll)) options |= OP_DEBUG;
  if (flag == 1) options |= OP_SILENT;
  Trace(kTraceModel, kTraceLow, "MM_CCOpenFolStream: opening folder %s\n", name.c_str());
  MailStream* stream;
  {
    CriticalSection busy;
    stream = mail_open(nullptr, name.c_str(), options);
  }
  mail_parameters(stream, 102, reinterpret_cast<void*>(10));
  if (stream && stream->driver == &imap2driver && stream->cachehigh) {
    // A folder list walks every message: on a server each flush of the
    // message cache costs a round trip for the envelopes that follow, so a
    // remote folder keeps more of them (about 1 KB each, a few MB at most).
    stream->cachehigh = kRemoteCacheHigh;
    stream->cachelow = kRemoteCacheLow;
  }
  if (stream) MM_MSSaveAuthInfo(id);
  return stream;
}

// --- Canonical names ---------------------------------------------------------------

std::string MM_FolCanonNameBuild(int id, const char* folder) {
  MessageService* ms = ServiceAt(id);
  if (!ms || ms->name.empty()) return "";
  return ms->name + "!" + (folder ? folder : "");
}

int MM_FolCanonNameParse(const char* cname, int* id_out, std::string* name_out) {
  *id_out = INVALID_SERVICE;
  name_out->clear();
  if (!cname || !*cname) return 0;
  const char* bang = std::strchr(cname, '!');
  const char* rest;
  if (!bang) {
    // The old form without a service: the first character was a marker
    // and is dropped.
    *id_out = 0;
    rest = cname + 1;
  } else {
    std::string left(cname, bang);
    *id_out = MM_MSFindByName(left.c_str());
    if (*id_out == INVALID_SERVICE && std::isdigit(static_cast<unsigned char>(left[0])))
      *id_out = MM_MSNew(std::atoi(left.c_str()));
    rest = bang + 1;
  }
  while (*rest == ' ' || *rest == '\t') ++rest;
  *name_out = rest;
  return *id_out != INVALID_SERVICE;
}

int MM_FolFindByCanonName(const char* cname) {
  int id;
  std::string name;
  MM_FolCanonNameParse(cname, &id, &name);
  if (id == INVALID_SERVICE) return INVALID_FOLDER;
  return MM_FolFindOpen(id, name.c_str());
}

int MM_FolCheckByCanonName(const char* cname) {
  const int id = MM_FolFindByCanonName(cname);
  if (id == INVALID_FOLDER) return 0;
  return MM_FolCheckNewMail(id, 1);
}
