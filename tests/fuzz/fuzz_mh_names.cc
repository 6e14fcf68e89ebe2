// Arbitrary bytes as a folder's mhname.dat: every line that maps a short
// directory name to a folder name maps back, and a folder made and removed
// on top of whatever the file held leaves every other mapping as it was.
#include <stdlib.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "c-client/mh/mh_names.h"
#include "c-client/core/plain_env.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

std::string g_root;

// A clock that moves a second at each reading, so that making a name never
// waits and the names made are the same in every run.
long StepClock() {
  static long now = 1767225600;
  return now++;
}

// The short names the file appears to hold, as a reader of its lines
// would see them: after the first '#', up to a NUL, CR or LF.
std::vector<std::string> ShortNames(const uint8_t* data, size_t size) {
  std::vector<std::string> names;
  size_t start = 0;
  while (start < size && names.size() < 64) {
    size_t end = start;
    while (end < size && data[end] != '\n') ++end;
    const std::string line(reinterpret_cast<const char*>(data) + start, end - start);
    const size_t hash = line.find('#');
    if (hash != std::string::npos) {
      std::string name = line.substr(hash + 1);
      name.resize(std::strlen(name.c_str()));
      while (!name.empty() && name.back() == '\r') name.pop_back();
      if (!name.empty()) names.push_back(name);
    }
    start = end + 1;
  }
  return names;
}

// (short, long) for every short name that looks up.
std::vector<std::pair<std::string, std::string>> Mapped(const std::vector<std::string>& shorts) {
  std::vector<std::pair<std::string, std::string>> found;
  for (const std::string& s : shorts) {
    mh_forget_paths();
    std::string long_name;
    if (mh_dir_to_name(s.c_str(), &long_name, g_root) == 1) found.emplace_back(s, long_name);
  }
  return found;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  [[maybe_unused]] static bool ready = [] {
    g_root = ScratchDir("velmar-fuzz-names");
    mh_set_clock_for_test(StepClock);
    return true;
  }();
  if (size > 64 * 1024) return 0;
  const std::string file = g_root + "/mhname.dat";
  WriteFile(file, data, size);
  mail_env_clear();

  const std::vector<std::string> shorts = ShortNames(data, size);
  const auto before = Mapped(shorts);
  for (const auto& [short_name, long_name] : before) {
    // The name a listing shows opens the folder: some line maps it. (An
    // empty name, or one with a character no folder name may hold, is
    // refused with a message before any lookup.)
    if (long_name.empty() || long_name.find_first_of("\\/:") != std::string::npos) continue;
    mh_forget_paths();
    std::string dir;
    Check(mh_name_to_dir(long_name.c_str(), &dir, g_root) == 1);
    Check(!dir.empty());
  }

  // A new folder gets a short name no line has, and goes again without
  // taking anything else with it.
  const char* fresh = "Fuzz Folder";
  mh_forget_paths();
  std::string ignored;
  if (mh_name_to_dir(fresh, &ignored, g_root) == 0) {
    std::string made;
    if (mh_name_create(g_root, fresh, &made)) {
      for (const auto& mapped : before) Check(mapped.first != made);
      mh_forget_paths();
      std::string back;
      Check(mh_dir_to_name(made.c_str(), &back, g_root) == 1 && back == fresh);
      if (mh_name_delete(g_root, fresh)) {
        mh_forget_paths();
        Check(mh_name_to_dir(fresh, &back, g_root) == 0);
        for (const auto& [short_name, long_name] : before) {
          if (long_name == fresh) continue;
          mh_forget_paths();
          std::string again;
          Check(mh_dir_to_name(short_name.c_str(), &again, g_root) == 1 && again == long_name);
        }
      }
    }
  }
  mail_env_clear();
  return 0;
}
