#include "core/transaction.h"

#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  norvel::check_fixed_point({data, size},
                            [](norvel::ByteView bytes) { return norvel::Transaction::deserialize(bytes); });
  return 0;
}
