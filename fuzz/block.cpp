#include "core/block.h"

#include "chain/utxo_set.h"
#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace norvel;
  const auto decode = [](ByteView bytes) { return Block::deserialize(bytes); };
  check_fixed_point({data, size}, decode);
  try {
    const Block block = decode({data, size});
    require(block.size() == block.serialize().size());
    block.has_valid_coinbase();
    block.calculate_merkle_root();
    block.calculate_total_fees(UTXOSet());
  } catch (const std::exception&) {
    // Refused by the decoder.
  }
  return 0;
}
