// Feeds arbitrary bytes to the stored-form reader. Besides not crashing, a
// form it accepts stays within its limits, and the written form of what it
// read (when it can be written) reads back to the same form.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "src/script/forms.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kFormFileMax) return 0;
  FormLayout layout;
  std::string error;
  if (!FormParse(std::string_view(reinterpret_cast<const char*>(data), size), &layout, &error)) {
    if (error.empty()) std::abort();
    return 0;
  }
  if (layout.width < 1 || layout.height < 1 || layout.fields.size() > kFormFieldsMax) std::abort();
  for (const FormField& f : layout.fields)
    if (f.value.size() > kFormValueMax || f.left > kFormCoordMax || f.height > kFormCoordMax) std::abort();
  std::string text;
  if (!FormFormat(layout, &text, &error)) return 0;
  FormLayout back;
  std::string again;
  if (!FormParse(text, &back, &error) || !FormFormat(back, &again, &error) || again != text) std::abort();
  return 0;
}
