// Feeds arbitrary option values to the readers of the preferences: the
// delivery host with its switches and the list of service numbers. Besides
// not crashing: a host split and joined again splits the same way, and the
// list holds no more than its limit of distinct positive numbers.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "src/prefs/prefs.h"
#include "tests/fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const DeliveryHost parts = PREF_SplitDeliveryHost(text);
  Check(parts.host.size() <= 1000 && parts.others.size() <= 1000);
  if (!parts.host.empty()) {
    const DeliveryHost again = PREF_SplitDeliveryHost(PREF_JoinDeliveryHost(parts));
    Check(again.host == parts.host && again.security == parts.security && again.others == parts.others);
  }
  std::vector<int> ids = PREF_ParseIdList(text);
  Check(ids.size() <= 100);
  for (int id : ids) Check(id > 0 && id <= 100000);
  std::sort(ids.begin(), ids.end());
  Check(std::adjacent_find(ids.begin(), ids.end()) == ids.end());
  return 0;
}
