// Feeds arbitrary text to the reader of the auto-reply record. What it
// keeps must write out and read back the same, with nothing damaged, and
// never more entries than the limit.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "src/send/autoreply.h"
#include "tests/fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const int days = 1 + data[0] % 30;
  const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
  const long today = autoreply_day_number("2026-11-18");
  AutoReplyRecord record, again;
  autoreply_parse_record(text, today, days, &record);
  Check(record.day_of.size() <= kAutoReplyEntriesMax);
  autoreply_parse_record(autoreply_format_record(record), today, days, &again);
  Check(again.damaged == 0 && again.day_of == record.day_of);
  return 0;
}
