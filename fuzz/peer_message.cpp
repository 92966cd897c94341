#include <algorithm>

#include "fuzz_target.h"
#include "network/message.h"
#include "network/payloads.h"

namespace {

using namespace norvel;
using namespace norvel::network;

// What is decoded is written as it was read, apart from what the reader leaves out.
void check_payloads(const Bytes& payload) {
  if (const auto version = decode_version(payload)) {
    const auto again = decode_version(encode_version(*version));
    require(again && again->start_height == version->start_height &&
            again->nonce.value_or(0) == version->nonce.value_or(0));
  }
  const auto items = decode_inventory(payload);
  require(items.size() == std::min(payload.size() / InvVector::kBytes, kInventoryItemsMax));
  require(decode_inventory(encode_inventory(items)) == items);
  if (const auto range = decode_get_blocks(payload)) {
    require(decode_get_blocks(encode_get_blocks(*range)) == range);
  }
  if (const auto addresses = decode_addresses(payload)) {
    require(decode_addresses(encode_addresses(*addresses)) == addresses);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const ByteView frame(data, size);
  if (const auto message = Message::deserialize(frame, kPayloadBytesMax)) {
    require(std::ranges::equal(message->serialize(), frame.first(kFrameHeaderBytes + message->payload.size())));
    check_payloads(message->payload);
  }
  check_payloads(Bytes(frame.begin(), frame.end()));
  return 0;
}
