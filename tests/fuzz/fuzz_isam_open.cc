// Opens a planted set of ISAM files and walks them: books are user files,
// and a damaged or planted one must give errors, never a crash or a hang.
// Input: one byte (bit 0: a variable file, bit 1: open for writing), then
// the files (.dt and .nx, or .mp, .st and .nx), each but the last preceded
// by its length as 4 bytes, low byte first.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "isam/isam_error.h"
#include "isam/isamv3/isam.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

// Steps a walk may take; far more than a seed's records.
constexpr int kMaxSteps = 20000;

void Walk(ISAM* h, char* buf) {
  int steps = 0;
  for (int rc = bt3Start(h, buf); rc > 0 && steps < kMaxSteps; rc = bt3Next(h, buf)) {
    Check(rc <= bt3BuffSize(buf) || h->kind == kIsamVariable);
    ++steps;
  }
  Check(steps < kMaxSteps);
  steps = 0;
  for (int rc = bt3End(h, buf); rc > 0 && steps < kMaxSteps; rc = bt3Prev(h, buf)) ++steps;
  Check(steps < kMaxSteps);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static std::string dir = ScratchDir("fuzz_isam_open");
  if (size < 1) return 0;
  bool variable = data[0] & 1, writable = data[0] & 2;
  const char* fixed_ext[] = {".dt", ".nx"};
  const char* var_ext[] = {".mp", ".st", ".nx"};
  const char** ext = variable ? var_ext : fixed_ext;
  int parts = variable ? 3 : 2;
  std::string name = dir + "/book";
  bt3Unlink(name.c_str());
  size_t at = 1;
  for (int i = 0; i < parts; ++i) {
    size_t len = size - at;
    if (i + 1 < parts) {
      if (size - at < 4) return 0;
      uint32_t want;
      std::memcpy(&want, data + at, 4);
      at += 4;
      len = want < size - at ? want : size - at;
    }
    WriteFile(name + ext[i], data + at, len);
    at += len;
  }
  isam_error_clear();
  ISAM* h = bt3Open(name.c_str(), writable ? kModeReadWrite : kModeReadOnly);
  if (!h) return 0;
  char* buf = bt3GetBuff(h, 0);
  Check(buf != nullptr);
  for (int i = 0; i < static_cast<int>(h->keys.size()); ++i) {
    bt3Select(h, i);
    bt3Check(h, i);
    Walk(h, buf);
    std::memset(buf, 'm', static_cast<size_t>(bt3BuffSize(buf)) > 64 ? 64 : bt3BuffSize(buf));
    for (int how = 1; how <= 7; ++how) bt3Find(h, buf, how);
  }
  bt3Select(h, 0);
  if (writable && bt3Start(h, buf) > 0) {
    // Changes on a damaged file fail cleanly or leave a file that still walks.
    bt3Delete(h);
    if (variable)
      bt3VlAdd(h, buf, 16);
    else
      bt3Add(h, buf);
    Walk(h, buf);
  }
  bt3FreeBuff(buf);
  bt3Close(h);
  return 0;
}
