// Feeds arbitrary bytes to the editor as clipboard text. Besides not
// crashing: the splitter's pieces hold every byte but the line ends, a
// paste puts exactly the joined pieces at the point (or refuses text with
// a NUL and changes nothing), and undo gives the text back.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "editor/elib/ecmd.h"
#include "editor/elib/marks.h"
#include "rclib/rc.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

std::string Text(EditBuffer* buf) {
  std::string out;
  BLOCK* blk = elib_first_block(buf);
  LINE* lin = blk->lin_head->next;
  for (bool first = true; !(lin->flags & kLineEob); first = false) {
    if (!first) out.push_back('\n');
    out.append(lin->text->text, static_cast<size_t>(itext_length(lin->text)));
    LINE* before = lin;
    Check(line_step(buf, &blk, &lin, kStepFwd) == RC_OK && lin != before);
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  std::string joined;
  size_t kept = 0, ends = 0;
  auto pieces = ecmd_clip_split(input);
  for (size_t i = 0; i < pieces.size(); ++i) {
    Check(pieces[i].text.find_first_of("\r\n") == std::string_view::npos);
    kept += pieces[i].text.size();
    ends += pieces[i].line_end;
    joined.append(pieces[i].text);
    if (pieces[i].line_end && i + 1 < pieces.size()) joined.push_back('\n');
  }
  size_t breaks = 0;
  for (char c : input) breaks += c == '\r' || c == '\n';
  Check(kept + breaks == size && ends <= breaks);

  E_DATA ed;
  Check(elib_buffer_create(&ed.buf) == RC_OK);
  Check(ecmd_state_new(&ed.cmd) == RC_OK);
  Check(elib_insert(ed.buf, ed.buf->the_point, "ab\ncd") == RC_OK);
  ed.buf->the_point->offset = 1;
  int rc = ecmd_paste_text(&ed, input);
  std::string after = Text(ed.buf);
  if (input.find('\0') != std::string_view::npos) {
    Check(rc == RC_FAIL && after == "ab\ncd");
  } else {
    Check(rc == RC_OK && after == "ab\nc" + joined + "d");
    if (!joined.empty()) Check(ecmd_undo(&ed) == RC_OK);
    Check(Text(ed.buf) == "ab\ncd");
    Check(elib_buffer_integrity_check(ed.buf) == RC_OK);
  }
  ecmd_state_destroy(&ed.cmd);
  elib_buffer_destroy(&ed.buf);
  return 0;
}
