// An editor window's record: an empty buffer with its highlight marks, the
// key maps of keybind.def and the command table, tied together and torn
// down in one place.
#include <string>

#include "editor/ekeys/keymap.h"
#include "editor/elib/ecmd_internal.h"
#include "editor/elib/elib_trace.h"
#include "rclib/rc.h"

namespace {

#ifndef VELMAR_SOURCE_DATA_DIR
#define VELMAR_SOURCE_DATA_DIR ""
#endif

// The shipped files of a build tree until the program says where its own are.
std::string& DataDir() {
  static std::string dir = VELMAR_SOURCE_DATA_DIR;
  return dir;
}

MARK* NamedMark(EditBuffer* buf, const char* name) {
  MARK* m = nullptr;
  if (mark_dup(buf, buf->the_point, &m) == RC_OK) m->name = name;
  return m;
}

}  // namespace

void edata_set_data_dir(const char* dir) { DataDir() = dir ? dir : ""; }
const std::string& edata_data_dir() { return DataDir(); }

void edata_set_display_release(E_DATA* ed, void (*release)(E_DATA* ed)) {
  if (ed && ed->cmd) ed->cmd->display_release = release;
}

E_DATA* edata_create(WINDOW win, const char* keybind_path) {
  elib_trace_detail("edata_create: function entry.\n");
  auto* ed = new E_DATA;
  ed->win = win;
  std::string path = keybind_path && *keybind_path ? keybind_path
                     : DataDir().empty()           ? std::string()
                                                   : DataDir() + "/keybind.def";
  std::string why;
  if (elib_buffer_create(&ed->buf) != RC_OK) {
    elib_trace_fail("edata_create: no buffer could be made.\n");
  } else if (km_state_new(&ed->km) != RC_OK || km_state_setup(ed->km, path.c_str(), &why) != RC_OK) {
    elib_trace_fail("%s (%s)\n", why.empty() ? "The key maps could not be set up." : why.c_str(),
                    path.empty() ? "no keybind.def given" : path.c_str());
  } else if (ecmd_state_new(&ed->cmd) != RC_OK) {
    elib_trace_fail("edata_create: no command table could be made.\n");
  } else {
    ed->buf->high_start = NamedMark(ed->buf, "high_start");
    ed->buf->high_end = NamedMark(ed->buf, "high_end");
    ecmd_register_live(ed, true);
    ed->rdis = RDIS_FULL;
    return ed;
  }
  edata_destroy(ed);
  return nullptr;
}

void edata_destroy(E_DATA*& ed) {
  elib_trace_detail("edata_destroy: function entry.\n");
  if (!ed) return;
  ecmd_register_live(ed, false);
  if (ed->dis) {
    if (ed->cmd && ed->cmd->display_release) ed->cmd->display_release(ed);
    else elib_trace_fail("edata_destroy: the display record was not released.\n");
  }
  ecmd_state_destroy(&ed->cmd);
  km_state_destroy(&ed->km);
  elib_buffer_destroy(&ed->buf);
  delete ed;
  ed = nullptr;
}

int edata_key(E_DATA* ed, const EVENT* ev) {
  if (!ed || !ed->km || !ev) return 0;
  KM_KEY key;
  if (km_key_from_event(ev, &key) != RC_OK) return 0;
  KBIND_RESULT result;
  if (km_ksym_decode_seq(ed->km, key.sym, &result) != RC_OK) return 0;
  if (result.status == kKmPrefix) return 1;  // waits for the next key
  if (result.status != kKmBound) return 0;
  ecmd_run(ed, km_result_name(result), &key, key.shift);
  return 1;
}

int edata_command(E_DATA* ed, const char* name) {
  return ecmd_run(ed, name, nullptr, false) == RC_OK ? 1 : 0;
}
