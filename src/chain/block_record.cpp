#include "chain/block_record.h"

#include <stdexcept>
#include <utility>

#include "chain/block_rules.h"

namespace norvel {

Bytes make_record(const Block& block) {
  const Bytes bytes = block.serialize();
  Bytes record;
  record.reserve(kRecordPrefixBytes + bytes.size());
  append_le(record, static_cast<uint32_t>(bytes.size()));
  append(record, bytes);
  return record;
}

std::optional<Block> read_record(ByteView bytes) {
  try {
    Block block = Block::deserialize(bytes);
    return block.check_merkle_root() && !repeats_transaction(block) ? std::optional(std::move(block)) : std::nullopt;
  } catch (const std::runtime_error&) {
    return std::nullopt;
  }
}

}  // namespace norvel
