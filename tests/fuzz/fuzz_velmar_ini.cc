// Feeds arbitrary bytes to the velmar.ini parser. Each run starts from a
// fresh configuration environment that found no files, so runs don't
// depend on each other and nothing is carried over.
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "src/base/cenv.h"
#include "src/base/filenames.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

// Points the program's directories at an empty scratch directory, so that
// CENV_Init neither reads a real velmar.ini nor deletes a real optlocn.dat.
void SetUpOnce() {
  static bool done = false;
  if (done) return;
  done = true;
  const std::string dir = ScratchDir("fuzz_velmar_ini");
  std::string user = dir + "/user", app = dir + "/app";
  mkdir(user.c_str(), 0700);
  mkdir(app.c_str(), 0700);
  setenv("VELMAR_HOME", user.c_str(), 1);
  setenv("VELMAR_APPDIR", app.c_str(), 1);
  unsetenv("MAILHOST");
  // InitDirectories makes the user directory the current one; the fuzzer
  // needs its own, where its corpus paths are relative to.
  std::error_code error;
  std::filesystem::path cwd = std::filesystem::current_path(error);
  ResetDirectories();
  InitDirectories();
  if (!error) std::filesystem::current_path(cwd, error);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SetUpOnce();
  static char program[] = "velmar";
  char* argv[] = {program, nullptr};
  if (!CENV_Init(1, argv)) return 0;
  CENV_ParseInitText(reinterpret_cast<const char*>(data), size);

  // Walk what was built: every record and the lists over it.
  int current = CENV_GetCurrentConfigIndex();
  if (current < -1 || current >= kMaxConfigs) std::abort();
  for (int i = 0; i < kMaxConfigs && CENV_GetConfigName(i); ++i) {
    if (CENV_FindConfigByName(CENV_GetConfigName(i)) > i) std::abort();
    CENV_GetConfigHost(i);
    CENV_GetConfigFilename(i);
  }
  if (SLIST list = CENV_GetConfigList("all", nullptr, nullptr)) xvt_slist_destroy(list);
  if (SLIST list = CENV_GetConfigList(nullptr, "imsp", "[REMOTE]")) xvt_slist_destroy(list);
  if (CENV_GetConfigName(0) && CENV_GetDefaultConfigIndex("all") < 0) std::abort();
  return 0;
}
