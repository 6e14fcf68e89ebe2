// Feeds arbitrary rights strings, as a server answers them for a book or a
// folder, to the readers of rights and to the dialog's list line. Input:
// the identifier up to the first newline, then the rights. A right is
// granted only when all of its letters are there, and the line keeps the
// server's letters whole.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "src/base/rights_dialog.h"
#include "src/books/address_model.h"
#include "src/model/mm.h"
#include "tests/fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view in(reinterpret_cast<const char*>(data), size);
  const size_t nl = in.find('\n');
  const std::string identifier(in.substr(0, nl));
  const std::string rights(nl == std::string_view::npos ? std::string_view() : in.substr(nl + 1));
  const unsigned flags = ABK_FlagsOfRights(rights.c_str());
  const std::string letters = rights.substr(0, rights.find('\0'));
  auto has = [&letters](const char* all) { return std::string(all).find_first_not_of(letters) == std::string::npos; };
  Check(flags <= 7 && ((flags & 1) != 0) == has("lr") && ((flags & 2) != 0) == has("wcd") && ((flags & 4) != 0) == has("a"));
  const int folder = MM_CCACLParse(letters.c_str());
  Check((folder & ~(kAclRead | kAclWrite | kAclAdmin | kAclPost)) == 0);
  RightsOwner owner;
  owner.boxes = {{"read", 1}, {"write", 2}, {"administer", 4}};
  const std::string line = RightsLine(owner, RightsRow{identifier, static_cast<int>(flags), rights});
  Check(line.compare(0, identifier.size(), identifier) == 0);
  Check(line.size() >= rights.size() + 2 && line.compare(line.size() - rights.size() - 1, rights.size(), rights) == 0);
  return 0;
}
