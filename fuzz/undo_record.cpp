#include "chain/block_undo.h"

#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  norvel::check_fixed_point({data, size}, &norvel::BlockUndo::deserialize);
  return 0;
}
