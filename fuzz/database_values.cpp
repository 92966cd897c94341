#include "chain/state_codec.h"

#include <algorithm>

#include "fuzz_target.h"

namespace {

using namespace norvel;

// What a decoder accepts is encoded to the same bytes.
template <class Decode, class Encode>
void check_value(ByteView value, Decode decode, Encode encode) {
  if (const auto decoded = decode(value)) {
    require(std::ranges::equal(encode(*decoded), value));
  }
}

}  // namespace

// The first byte says which value the others are.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) {
    return 0;
  }
  const ByteView value(data + 1, size - 1);
  switch (data[0] % 3) {
    case 0:
      if (value.size() != 36) {  // the old form is written as the new one
        check_value(value, decode_chain_tip, encode_chain_tip);
      }
      break;
    case 1:
      check_value(value, decode_block_index, encode_block_index);
      break;
    default:
      check_value(value, decode_treasury, encode_treasury);
  }
  return 0;
}
