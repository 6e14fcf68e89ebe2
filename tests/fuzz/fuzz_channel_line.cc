// Feeds arbitrary client input, line by line, to the channel's line reader.
// Besides not crashing: what it accepts stays within the limits, and
// writing it out again gives a line that reads back the same.
#include <cstddef>
#include <cstdint>
#include <string>

#include "src/send/channel.h"
#include "tests/fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    ChannelLine parsed;
    std::string why;
    if (ChannelParseLine(line, &parsed, &why)) {
      Check(line.size() <= kChannelMaxLine);
      Check(!parsed.item.empty() && parsed.item.size() <= kChannelMaxItem);
      Check(parsed.value.size() <= kChannelMaxValue);
      const std::string again = ChannelFormat(parsed);
      Check(!again.empty() && again.back() == '\n');
      ChannelLine reread;
      Check(ChannelParseLine(again.substr(0, again.size() - 1), &reread, &why));
      Check(reread.kind == parsed.kind && reread.item == parsed.item && reread.value == parsed.value);
    } else {
      Check(!why.empty());
    }
    start = end + 1;
  }
  return 0;
}
