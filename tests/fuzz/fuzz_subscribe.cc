// Arbitrary bytes as the subscription database: the walk ends, every name
// it gives is a line of the file, and adding and removing a name works on
// whatever the file held before.
#include <stdlib.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "c-client/mh/local_paths.h"
#include "c-client/core/plain_env.h"
#include "c-client/mh/subscribe.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

std::string g_file;

void Setup() {
  const std::string home = ScratchDir("velmar-fuzz-sub");
  local_set_home(home.c_str());
  g_file = home + "/subscrib.dat";
}

bool Subscribed(const char* name) {
  void* state = nullptr;
  bool found = false;
  for (int guard = 0; guard < 200000; ++guard) {
    const char* n = subscribe_next(&state);
    if (!n) return found;
    found |= std::strcmp(n, name) == 0;
  }
  Check(false);  // the walk must end
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  [[maybe_unused]] static bool ready = (Setup(), true);
  WriteFile(g_file, data, size);
  mail_env_clear();
  Subscribed("");
  const char* name = "Fuzz\\Folder";
  const bool before = Subscribed(name);
  if (!before && subscribe_add(name)) Check(Subscribed(name));
  if (Subscribed(name) && subscribe_remove(name)) Check(!Subscribed(name));
  mail_env_clear();
  return 0;
}
