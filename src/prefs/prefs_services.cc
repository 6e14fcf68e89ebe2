// The services page: the message services of MsgService.IDList, edited in a
// dialog of their own and stored only when the preferences end with OK.
#include <strings.h>

#include <algorithm>
#include <cstdio>

#include "src/base/model_events.h"
#include "src/base/trace.h"
#include "src/base/window_list.h"
#include "src/model/mm.h"
#include "src/options/options.h"
#include "src/prefs/prefs.h"
#include "src/prefs/prefs_internal.h"

const char* const kServiceKeys[kSvfCount] = {"Name",     "Type",   "Hostname",      "Port",
                                             "Security", "Userid", "FolderLocation"};

namespace {

const int kTypes[] = {kServiceImap, kServiceBboard, kServiceNntp, kServicePop, kServiceLocal};
constexpr int kTypeCount = sizeof kTypes / sizeof kTypes[0];
const char* const kSecurityWords[] = {"", "tls", "ssl", "none"};
const char* const kSecurityLabels[] = {"When offered (STARTTLS)", "Always STARTTLS", "TLS from the start", "Never"};
constexpr int kSecurityCount = 4;
constexpr int kServiceControls[kSvfCount] = {kSvcName, kSvcType, kSvcHost, kSvcPort, kSvcSecurity, kSvcUser,
                                             kSvcLocation};

WIN_DEF Label(int row, const char* title, int id) {
  const int top = 14 + row * 34;
  return {WC_TEXT, {12, top + 4, 144, top + 22}, title, id, 0};
}

WIN_DEF Row(int row, WIN_TYPE type, int id, int right = 420) {
  const int top = 14 + row * 34;
  return {type, {150, top, right, top + 24}, "", id, 0};
}

const WIN_DEF kServiceDef[] = {
    {W_MODAL, {0, 0, 432, 300}, "Message Service", 0, 0},
    Label(0, "Name:", 2751),
    Row(0, WC_EDIT, kSvcName),
    Label(1, "Kind:", 2752),
    Row(1, WC_LISTBUTTON, kSvcType),
    Label(2, "Server:", 2753),
    Row(2, WC_EDIT, kSvcHost),
    Label(3, "Port (0: default):", 2754),
    Row(3, WC_EDIT, kSvcPort, 150 + kPrefNumberWidth),
    Label(4, "Security:", 2755),
    Row(4, WC_LISTBUTTON, kSvcSecurity),
    Label(5, "Login name:", 2756),
    Row(5, WC_EDIT, kSvcUser),
    Label(6, "Folder location:", 2757),
    Row(6, WC_EDIT, kSvcLocation),
    {WC_PUSHBUTTON, {232, 256, 320, 286}, "OK", kSvcOk, CTL_FLAG_DEFAULT},
    {WC_PUSHBUTTON, {332, 256, 420, 286}, "Cancel", kSvcCancel, 0},
    {W_NONE, {}, nullptr, 0, 0},
};

// The service dialog's record: the service edited and the others, whose
// names it must not take.
struct Edit {
  PrefService* service;
  const std::vector<PrefService>* all;
  bool ok = false;
};

int TypeIndex(const std::string& word) {
  const int code = MM_MSGetTypeByTypename(word.c_str());
  for (int i = 0; i < kTypeCount; ++i)
    if (kTypes[i] == code) return i;
  return 0;
}

int SecurityIndex(const std::string& word) {
  for (int i = 0; i < kSecurityCount; ++i)
    if (strcasecmp(word.c_str(), kSecurityWords[i]) == 0) return i;
  return 0;
}

// The reason the dialog's values cannot be stored, or empty.
std::string Invalid(const Edit& e, const std::string (&v)[kSvfCount]) {
  if (v[kSvfName].empty()) return "The service needs a name.";
  // Folders are stored as "service!folder": a "!" in the name would split it.
  if (v[kSvfName].find('!') != std::string::npos) return "A service name cannot hold \"!\".";
  for (const PrefService& other : *e.all)
    if (&other != e.service && !other.deleted && strcasecmp(other.value[kSvfName].c_str(), v[kSvfName].c_str()) == 0)
      return "Another service is named \"" + v[kSvfName] + "\".";
  if (MM_MSGetTypeByTypename(v[kSvfType].c_str()) != kServiceLocal && v[kSvfHost].empty())
    return "The service needs a server.";
  int port = 0;
  if (!v[kSvfPort].empty() && !PrefParseNumber(v[kSvfPort], 0, 65535, &port))
    return "The port is a number from 0 to 65535.";
  return "";
}

// A local service has no server: its server fields are of no use.
void EnableServerFields(WINDOW dlg, const PrefService& s) {
  const int type = xvt_list_get_sel_index(xvt_win_get_ctl(dlg, kSvcType));
  const bool remote = type < 0 || kTypes[type] != kServiceLocal;
  for (int f : {kSvfHost, kSvfPort, kSvfSecurity}) {
    const bool locked = !s.added && Opt_GetReadonly(PrefServiceKey(s.number, f).c_str());
    xvt_vobj_set_enabled(xvt_win_get_ctl(dlg, kServiceControls[f]), remote && !locked);
  }
}

long service_eh(WINDOW dlg, EVENT* ev) {
  Edit* e = reinterpret_cast<Edit*>(xvt_vobj_get_data(dlg));
  PrefService& s = *e->service;
  switch (ev->type) {
    case E_CREATE: {
      DM_CentreOnScreen(dlg);
      WINDOW type = xvt_win_get_ctl(dlg, kSvcType);
      for (int code : kTypes) xvt_list_add(type, -1, MM_MSGetTypedescByType(code));
      xvt_list_set_sel(type, TypeIndex(s.value[kSvfType]), true);
      WINDOW security = xvt_win_get_ctl(dlg, kSvcSecurity);
      for (const char* label : kSecurityLabels) xvt_list_add(security, -1, label);
      xvt_list_set_sel(security, SecurityIndex(s.value[kSvfSecurity]), true);
      for (int f : {kSvfName, kSvfHost, kSvfPort, kSvfUser, kSvfLocation})
        xvt_vobj_set_title(xvt_win_get_ctl(dlg, kServiceControls[f]), s.value[f].c_str());
      for (int f = 0; f < kSvfCount; ++f)
        if (!s.added && Opt_GetReadonly(PrefServiceKey(s.number, f).c_str()))
          xvt_vobj_set_enabled(xvt_win_get_ctl(dlg, kServiceControls[f]), false);
      EnableServerFields(dlg, s);
      xvt_scr_set_focus_vobj(xvt_win_get_ctl(dlg, kSvcName));
      break;
    }
    case E_CONTROL:
      if (ev->v.ctl.id == kSvcType) {
        EnableServerFields(dlg, s);
      } else if (ev->v.ctl.id == kSvcOk) {
        std::string v[kSvfCount];
        for (int f : {kSvfName, kSvfHost, kSvfPort, kSvfUser, kSvfLocation})
          v[f] = xvt_ctl_get_text(dlg, kServiceControls[f], kPrefFieldLimit);
        const int type = xvt_list_get_sel_index(xvt_win_get_ctl(dlg, kSvcType));
        v[kSvfType] = MM_MSGetTypenameByType(kTypes[type < 0 ? 0 : type]);
        const int security = xvt_list_get_sel_index(xvt_win_get_ctl(dlg, kSvcSecurity));
        v[kSvfSecurity] = kSecurityWords[security < 0 ? 0 : security];
        const std::string why = Invalid(*e, v);
        if (!why.empty()) {
          xvt_dm_post_error("%s", why.c_str());
          return 0;
        }
        for (int f = 0; f < kSvfCount; ++f) s.value[f] = v[f];
        e->ok = true;
        xvt_vobj_destroy(dlg);
      } else if (ev->v.ctl.id == kSvcCancel) {
        xvt_vobj_destroy(dlg);
      }
      break;
    case E_CLOSE: xvt_vobj_destroy(dlg); break;
    default: break;
  }
  return 0;
}

bool EditService(PrefService* service, const std::vector<PrefService>& all) {
  Edit e{service, &all};
  xvt_res_register_dialog(kPrefsServiceRid, kServiceDef);
  if (!xvt_dlg_create_res(W_MODAL, kPrefsServiceRid, EM_ALL, service_eh, reinterpret_cast<intptr_t>(&e))) {
    xvt_dm_post_error("The service could not be shown.");
    return false;
  }
  return e.ok;
}

// The shown services, in list order, as indexes into the records.
std::vector<size_t> Listed(const std::vector<PrefService>& services) {
  std::vector<size_t> listed;
  for (size_t i = 0; i < services.size(); ++i)
    if (!services[i].deleted) listed.push_back(i);
  return listed;
}

// A number no service uses, listed or left in the options.
int FreeNumber(const std::vector<PrefService>& services) {
  int number = 1;
  for (const PrefService& s : services) number = std::max(number, s.number + 1);
  while (Opt_LookupText(PrefServiceKey(number, kSvfName).c_str(), kOptSession).size()) ++number;
  return number;
}

int SlotOf(int number) {
  for (int id = 0; id < kMaxServices; ++id)
    if (MM_MSGetNumber(id) == number) return id;
  return MM_MSNew(number);
}

std::string IdList(const std::vector<PrefService>& services) {
  std::string list;
  for (const PrefService& s : services) {
    if (s.deleted) continue;
    if (!list.empty()) list += ' ';
    list += std::to_string(s.number);
  }
  return list;
}

}  // namespace

std::string PrefServiceKey(int number, int field) {
  char key[96];
  std::snprintf(key, sizeof key, "MsgService.ms%d.%s", number, kServiceKeys[field]);
  return key;
}

std::vector<PrefService> PrefServicesLoad() {
  std::vector<PrefService> services;
  for (int number : PREF_ParseIdList(Opt_LookupText("MsgService.IDList", kOptSession))) {
    PrefService s;
    s.number = number;
    for (int f = 0; f < kSvfCount; ++f)
      s.value[f] = Opt_LookupText(PrefServiceKey(number, f).c_str(), kOptSession).substr(0, kPrefFieldLimit);
    // The kind as the dialog names it ("mail" is "imap"), so that showing
    // a service is no change of it.
    s.value[kSvfType] = MM_MSGetTypenameByType(kTypes[TypeIndex(s.value[kSvfType])]);
    for (int f = 0; f < kSvfCount; ++f) s.loaded[f] = s.value[f];
    services.push_back(s);
  }
  return services;
}

void PrefServicesFill(WINDOW dlg, const std::vector<PrefService>& services) {
  WINDOW list = xvt_win_get_ctl(dlg, kPrefServiceList);
  const int selected = xvt_list_get_sel_index(list);
  xvt_list_clear(list);
  for (size_t i : Listed(services)) {
    const PrefService& s = services[i];
    const int type = MM_MSGetTypeByTypename(s.value[kSvfType].c_str());
    std::string line = s.value[kSvfName] + "  (" + MM_MSGetTypedescByType(type);
    if (!s.value[kSvfHost].empty()) line += ", " + s.value[kSvfHost];
    xvt_list_add(list, -1, (line + ")").c_str());
  }
  const int count = xvt_list_count_all(list);
  if (count > 0) xvt_list_set_sel(list, std::min(std::max(selected, 0), count - 1), true);
  const bool any = count > 0;
  xvt_vobj_set_enabled(xvt_win_get_ctl(dlg, kPrefServiceEdit), any);
  if (!Opt_GetReadonly("MsgService.IDList")) xvt_vobj_set_enabled(xvt_win_get_ctl(dlg, kPrefServiceDelete), any);
}

void PrefServicesCommand(WINDOW dlg, int id, std::vector<PrefService>* services) {
  const std::vector<size_t> listed = Listed(*services);
  const int row = xvt_list_get_sel_index(xvt_win_get_ctl(dlg, kPrefServiceList));
  PrefService* current = row >= 0 && static_cast<size_t>(row) < listed.size() ? &(*services)[listed[row]] : nullptr;
  if (id == kPrefServiceAdd) {
    if (listed.size() >= static_cast<size_t>(kMaxServices)) {
      xvt_dm_post_error("Velmar keeps at most %d message services.", kMaxServices);
      return;
    }
    PrefService fresh;
    fresh.number = FreeNumber(*services);
    fresh.added = true;
    fresh.value[kSvfType] = "imap";
    if (!EditService(&fresh, *services)) return;
    services->push_back(fresh);
    PrefServicesFill(dlg, *services);
    xvt_list_set_sel(xvt_win_get_ctl(dlg, kPrefServiceList), static_cast<int>(Listed(*services).size()) - 1, true);
  } else if (id == kPrefServiceEdit && current) {
    if (EditService(current, *services)) PrefServicesFill(dlg, *services);
  } else if (id == kPrefServiceDelete && current) {
    if (xvt_dm_post_ask("Delete", "Cancel", nullptr, "Delete the message service \"%s\"?",
                        current->value[kSvfName].c_str()) != RESP_DEFAULT)
      return;
    current->deleted = true;
    PrefServicesFill(dlg, *services);
  }
}

bool PrefServicesChanged(const std::vector<PrefService>& services) {
  for (const PrefService& s : services) {
    if (s.added != s.deleted) return true;  // added and then deleted is no change
    if (s.added) continue;
    for (int f = 0; f < kSvfCount; ++f)
      if (s.value[f] != s.loaded[f]) return true;
  }
  return false;
}

void PrefServicesApply(std::vector<PrefService>* services) {
  // Gone services first, so that a new one may take a freed name.
  for (const PrefService& s : *services)
    if (s.deleted && !s.added) {
      Trace(kTraceOptions, kTraceLow, "PREF: deleting service ms%d\n", s.number);
      const int id = SlotOf(s.number);
      if (id != INVALID_SERVICE) MM_MSDelete(id);
    }
  const bool listed_changed =
      std::any_of(services->begin(), services->end(), [](const PrefService& s) { return s.added != s.deleted; });
  std::erase_if(*services, [](const PrefService& s) { return s.deleted; });
  if (listed_changed) Opt_AssignString("MsgService.IDList", IdList(*services).c_str(), kOptPermanent, 0);
  for (PrefService& s : *services) {
    bool changed = false;
    for (int f = 0; f < kSvfCount; ++f) {
      if (s.value[f] == s.loaded[f] && !(s.added && !s.value[f].empty())) continue;
      Opt_AssignString(PrefServiceKey(s.number, f).c_str(), s.value[f].c_str(), kOptPermanent, 0);
      changed = true;
    }
    const bool renamed = !s.added && s.value[kSvfName] != s.loaded[kSvfName];
    for (int f = 0; f < kSvfCount; ++f) s.loaded[f] = s.value[f];
    if (s.added) {
      s.added = false;
      const int id = MM_MSNew(s.number);
      Trace(kTraceOptions, kTraceLow, "PREF: new service ms%d in slot %d\n", s.number, id);
      if (id != INVALID_SERVICE) MM_NotPostSimple(E_MS_NEW, id);
      continue;
    }
    if (!changed) continue;
    const int id = SlotOf(s.number);
    if (id == INVALID_SERVICE) continue;
    if (renamed) {
      ModelEvent* ev = MM_NotEventNew(E_MS_NAME_CHANGED);
      ev->ms = static_cast<int16_t>(id);
      ev->new_name = s.value[kSvfName].c_str();
      MM_NotEventPost(ev);
      MM_NotEventFree(ev);
    }
    MM_NotPostSimple(E_MS_CHANGED, id);
  }
}
