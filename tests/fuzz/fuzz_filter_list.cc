// Arbitrary option values as a service's filter list (a hand-edited option
// file): whatever is read must be usable, within the limit, and must be
// saved and read back the same.
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>

#include <cstdint>
#include <string>
#include <string_view>

#include "src/base/filenames.h"
#include "src/options/options.h"
#include "src/search/filters.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

void Setup() {
  setenv("VELMAR_HOME", ScratchDir("velmar-fuzz-filters").c_str(), 1);
  // Making the directories moves into them; the corpus names are relative.
  char cwd[4096];
  if (!getcwd(cwd, sizeof cwd)) cwd[0] = '\0';
  InitDirectories();
  if (cwd[0] && chdir(cwd) != 0) std::perror("chdir");
  Opt_Init();
}

}  // namespace

// Input: lines "name=value"; each name is put under "Filters.7.".
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  [[maybe_unused]] static bool ready = (Setup(), true);
  Opt_Init();  // a fresh store each run
  std::string_view text(reinterpret_cast<const char*>(data), size);
  while (!text.empty()) {
    const size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    const size_t eq = line.find('=');
    if (eq == std::string_view::npos) continue;
    const std::string name = "Filters.7." + std::string(line.substr(0, eq));
    Opt_AssignString(name.c_str(), std::string(line.substr(eq + 1)).c_str(), kOptSession, 0);
  }
  const std::vector<MailFilter> read = FLT_Load(7);
  Check(read.size() <= static_cast<size_t>(kFilterMax));
  for (const MailFilter& f : read) Check(FLT_Problem(f).empty());
  Check(FLT_Save(8, read) == 1);
  const std::vector<MailFilter> again = FLT_Load(8);
  Check(again.size() == read.size());
  for (size_t i = 0; i < read.size(); ++i)
    Check(again[i].name == read[i].name && again[i].rule == read[i].rule && again[i].action == read[i].action &&
          again[i].folder == read[i].folder && again[i].stop == read[i].stop && again[i].enabled == read[i].enabled);
  return 0;
}
