// Arbitrary bytes as an option file: the loader must neither crash nor run
// away, and the store must stay usable.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "src/base/cenv.h"
#include "src/base/filenames.h"
#include "src/options/options.h"
#include "xvt/xvt_test.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

std::string g_file;

void Setup() {
  const std::string root = ScratchDir("velmar-fuzz-opt");
  std::string home = root + "/home", app = root + "/app";
  mkdir(home.c_str(), 0700);
  mkdir(app.c_str(), 0700);
  const std::string site = "option -default -readonly Site.Lock yes\n";
  WriteFile(app + "/sysdflt.tcl", site.data(), site.size());
  setenv("VELMAR_HOME", home.c_str(), 1);
  setenv("VELMAR_APPDIR", app.c_str(), 1);
  char cwd[4096];
  if (!getcwd(cwd, sizeof cwd)) cwd[0] = '\0';
  InitDirectories();
  if (cwd[0] && chdir(cwd) != 0) std::perror("chdir");
  char* argv[] = {const_cast<char*>("velmar"), nullptr};
  CENV_Init(1, argv);
  Opt_Init();
  g_file = home + "/fuzz.tcl";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  [[maybe_unused]] static bool ready = (Setup(), true);
  static int runs = 0;
  // A fresh store now and then keeps memory flat over a long run.
  if (++runs % 200 == 0) Opt_Init();
  WriteFile(g_file, data, size);
  Opt_LoadFromTCL(g_file.c_str());
  xvt_test_clear_posts();
  // Whatever the file did, a readonly site option stays as it was.
  char buf[10];
  Check(Opt_LookupString("Site.Lock", buf, sizeof buf - 1, kOptSession) && std::string(buf) == "yes");
  return 0;
}
