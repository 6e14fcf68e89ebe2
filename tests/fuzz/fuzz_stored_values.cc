// Feeds arbitrary text to the readers of small values the program keeps in
// its files. Input: a byte choosing the reader, then its text. Besides not
// crashing, whatever is read stays usable:
//  0: a saved search window: a real rectangle, a known state word, a name;
//  1: a font, face, size and style one a line: within what windows draw;
//  2: the delivery host, split and joined again, splits the same way, and a
//     list of service numbers holds at most its limit of distinct ones;
//  3: the auto-reply record (next byte: days kept) writes out and reads
//     back the same, with nothing damaged and no more entries than the limit.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "src/options/font_options.h"
#include "src/organizer/desktop.h"
#include "src/prefs/prefs.h"
#include "src/send/autoreply.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

void SearchWindow(const std::string& value) {
  SavedSearchWindow w;
  if (DesktopParseSearchWindow(value.c_str(), &w)) {
    Check(w.rect.right > w.rect.left && w.rect.bottom > w.rect.top);
    Check(w.state == "Norm" || w.state == "Max" || w.state == "Icon");
    Check(!w.name.empty() && w.name.size() <= 256);
  }
}

void Font(const std::string& text) {
  std::istringstream in(text);
  std::string face, font_size, style;
  std::getline(in, face);
  std::getline(in, font_size);
  std::getline(in, style);
  for (int kind = 0; kind < kFontKindCount; kind += 5) {
    FontChoice font = Font_Default(kind);
    Font_Parse(face.c_str(), font_size.c_str(), style.c_str(), &font);
    Check(!font.family.empty() && font.family.size() <= kFontFamilyLimit);
    Check(font.size >= kFontSizeMin && font.size <= kFontSizeMax);
    Check(font.style <= 7);
  }
}

void Preferences(const std::string& text) {
  const DeliveryHost parts = PREF_SplitDeliveryHost(text);
  Check(parts.host.size() <= 1000 && parts.others.size() <= 1000);
  if (!parts.host.empty()) {
    const DeliveryHost again = PREF_SplitDeliveryHost(PREF_JoinDeliveryHost(parts));
    Check(again.host == parts.host && again.security == parts.security);
    Check(again.others == parts.others);
  }
  std::vector<int> ids = PREF_ParseIdList(text);
  Check(ids.size() <= 100);
  for (int id : ids) Check(id > 0 && id <= 100000);
  std::sort(ids.begin(), ids.end());
  Check(std::adjacent_find(ids.begin(), ids.end()) == ids.end());
}

void AutoReplyRecordText(const std::string& input) {
  if (input.empty()) return;
  const int days = 1 + static_cast<unsigned char>(input[0]) % 30;
  const std::string_view text = std::string_view(input).substr(1);
  const long today = autoreply_day_number("2026-11-18");
  AutoReplyRecord record, again;
  autoreply_parse_record(text, today, days, &record);
  Check(record.day_of.size() <= kAutoReplyEntriesMax);
  autoreply_parse_record(autoreply_format_record(record), today, days, &again);
  Check(again.damaged == 0 && again.day_of == record.day_of);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  void (*const readers[])(const std::string&) = {SearchWindow, Font, Preferences,
                                                 AutoReplyRecordText};
  readers[data[0] % std::size(readers)](text);
  return 0;
}
