// Feeds arbitrary bytes to the lookup in the file of answered read
// receipts: the first line is the Message-ID sought, the rest the file.
// Besides not crashing, the answer is that of a plain whole-line search
// over the part of the file the limit lets it read.
#include <cstddef>
#include <cstdint>
#include <string>

#include "src/send/receipt.h"
#include "tests/fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const size_t end = text.find('\n');
  const std::string id = text.substr(0, end);
  const std::string log = end == std::string::npos ? "" : text.substr(end + 1);
  const bool found = receipt_log_contains(log, id);
  const std::string tail = log.size() > kReceiptLogMax ? log.substr(log.size() - kReceiptLogMax) : log;
  const bool expected = !id.empty() && id.size() <= kReceiptIdMax &&
                        ("\n" + tail + "\n").find("\n" + id + "\n") != std::string::npos;
  Check(found == expected);
  return 0;
}
