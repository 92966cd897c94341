#include "core/block_header.h"

#include <algorithm>

#include "consensus/difficulty.h"
#include "crypto/hash.h"

namespace norvel {

static_assert(BlockHeader::kSize == 4 + 2 * uint256::kSize + 8 + 4 + 4);

std::array<uint8_t, BlockHeader::kSize> BlockHeader::to_array() const {
  std::array<uint8_t, kSize> out;
  auto at = out.begin();
  const auto put = [&at](const auto& field) { at = std::copy(field.begin(), field.end(), at); };
  put(to_le(version));
  put(prev_hash.bytes());
  put(merkle_root.bytes());
  put(to_le(timestamp));
  put(to_le(bits));
  put(to_le(nonce));
  return out;
}

Bytes BlockHeader::serialize() const {
  const auto bytes = to_array();
  return Bytes(bytes.begin(), bytes.end());
}

BlockHeader BlockHeader::deserialize(ByteView data, size_t& offset) {
  size_t at = offset;
  BlockHeader header;
  header.version = read_le<uint32_t>(data, at);
  header.prev_hash = uint256::deserialize(data, at);
  header.merkle_root = uint256::deserialize(data, at);
  header.timestamp = read_le<uint64_t>(data, at);
  header.bits = read_le<uint32_t>(data, at);
  header.nonce = read_le<uint32_t>(data, at);
  offset = at;
  return header;
}

uint256 BlockHeader::get_hash() const {
  return crypto::hash256(to_array());
}

bool BlockHeader::check_proof_of_work() const {
  return get_hash() <= difficulty::bits_to_target(bits);
}

}  // namespace norvel
