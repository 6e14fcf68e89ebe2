// Feeds arbitrary keybind.def text to the key map loader. Besides not
// crashing: what loads must write out as text that loads again to the same
// text, and decoding any keys through the loaded maps must finish.
#include <cstddef>
#include <cstdint>
#include <string>

#include "editor/ekeys/keymap.h"
#include "tests/fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  km_diag_to_stdout = false;
  std::string text(reinterpret_cast<const char*>(data), size);
  KMSTATE* state = nullptr;
  Check(km_state_new(&state) == RC_OK);
  if (km_state_init_text(state, text) == RC_OK) {
    std::string written;
    Check(km_state_write(state, &written) == RC_OK);
    KMSTATE* again = nullptr;
    Check(km_state_new(&again) == RC_OK);
    Check(km_state_init_text(again, written) == RC_OK);
    std::string rewritten;
    km_state_write(again, &rewritten);
    Check(written == rewritten);
    km_state_destroy(&again);

    // Every map on the stack, in file order, then the bytes of the input as
    // keys; each decode answers and the sequence never passes ten symbols.
    for (CELL* c = dsl_first(state->maps); c; c = dsl_next(c))
      km_state_push(state, static_cast<KEYMAP*>(dsl_value(c)));
    for (size_t i = 0; i < size && i < 256; ++i) {
      KBIND_RESULT result;
      int rc = km_ksym_decode_seq(state, data[i], &result);
      Check(rc == RC_OK || rc == RC_FAIL);
      Check(state->n_keysyms <= kKmSyms + 1);
      if (rc == RC_OK) Check(result.status >= kKmBound && result.status <= kKmPrefix);
    }
  }
  km_state_destroy(&state);
  return 0;
}
