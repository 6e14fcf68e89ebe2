// Feeds arbitrary bytes to the editor's spill file reader as the file of
// block 7. Besides not crashing: a file that is accepted must give a sound
// block, and writing that block out and reading it again must give the
// same bytes.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "editor/elib/buffer.h"
#include "rclib/rc.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

BLOCK* Block() {
  BLOCK* blk = nullptr;
  elib_block_new(&blk);
  blk->id = 7;
  return blk;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  BLOCK* blk = Block();
  if (elib_block_read_spill(blk, input) == RC_OK) {
    blk->flags |= BLK_IN_MEM;
    Check(elib_block_integrity_check(blk) == RC_OK);
    std::string once, twice;
    Check(elib_block_write_spill(blk, &once) == RC_OK);
    BLOCK* again = Block();
    Check(elib_block_read_spill(again, once) == RC_OK);
    Check(elib_block_write_spill(again, &twice) == RC_OK);
    Check(once == twice);
    elib_block_destroy(&again);
  } else {
    Check(blk->lin_head->next == blk->lin_head);
  }
  elib_block_destroy(&blk);
  return 0;
}
