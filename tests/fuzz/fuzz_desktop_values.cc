// Feeds arbitrary option values to the readers of the saved desktop's
// search windows. A record read must describe a window: a real rectangle,
// a known state word and a name.
#include <cstddef>
#include <cstdint>
#include <string>

#include "src/organizer/desktop.h"
#include "tests/fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string value(reinterpret_cast<const char*>(data), size);
  SavedSearchWindow w;
  if (DesktopParseSearchWindow(value.c_str(), &w)) {
    Check(w.rect.right > w.rect.left && w.rect.bottom > w.rect.top);
    Check(w.state == "Norm" || w.state == "Max" || w.state == "Icon");
    Check(!w.name.empty() && w.name.size() <= 256);
  }
  return 0;
}
