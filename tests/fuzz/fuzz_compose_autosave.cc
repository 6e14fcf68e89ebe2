// Feeds arbitrary bytes to the reading of a compose window's autosave
// file. Besides not crashing: what reads back, written again, reads back the
// same.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "src/compose/compose.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  ComposeFields f;
  int kind = 0;
  std::vector<ComposeAttachment> atts;
  std::string text, error, form;
  ComposeScriptForm script;
  if (!ComposeAutosaveParse(input, &f, &kind, &atts, &text, &error, &form, &script)) {
    if (error.empty()) std::abort();
    return 0;
  }
  const std::string again = ComposeAutosaveText(f, kind, atts, text, form, script);
  ComposeFields g;
  int kind2 = 0;
  std::vector<ComposeAttachment> atts2;
  std::string text2, form2;
  ComposeScriptForm script2;
  if (!ComposeAutosaveParse(again, &g, &kind2, &atts2, &text2, &error, &form2, &script2)) std::abort();
  if (script2.name != script.name || script2.values != script.values) std::abort();
  if (form2 != form || g.to != f.to || g.subject != f.subject || kind2 != kind || text2 != text || atts2.size() != atts.size()) std::abort();
  return 0;
}
