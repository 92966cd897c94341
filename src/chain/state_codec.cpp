#include "chain/state_codec.h"

#include <stdexcept>
#include <string_view>
#include <utility>

namespace norvel {

namespace {

constexpr size_t kOldTipBytes = uint256::kSize + 4;
constexpr size_t kTipBytes = kOldTipBytes + 8;
static_assert(kOldTipBytes == 36 && kTipBytes == 44);

constexpr size_t kIndexBytesMin = 2 * uint256::kSize + 4 + 8 + 4 + 8;
static_assert(kIndexBytesMin == 88);

constexpr char kBadValue[] = "Value out of range";

// What `read` makes of `value`, of which it must leave nothing over.
template <class Read>
auto decode_whole(ByteView value, Read read) -> std::optional<decltype(read(value, std::declval<size_t&>()))> {
  try {
    size_t offset = 0;
    auto result = read(value, offset);
    if (offset == value.size()) {
      return result;
    }
  } catch (const std::runtime_error&) {
    // Not such a value.
  }
  return std::nullopt;
}

int64_t read_amount(ByteView data, size_t& offset) {
  const auto amount = static_cast<int64_t>(read_le<uint64_t>(data, offset));
  if (amount < 0) {
    throw std::runtime_error(kBadValue);
  }
  return amount;
}

std::string read_text(ByteView data, size_t& offset, size_t len) {
  const ByteView text = take(data, offset, len);
  return std::string(text.begin(), text.end());
}

}  // namespace

Bytes encode_chain_tip(const ChainTip& tip) {
  Bytes out;
  out.reserve(kTipBytes);
  append(out, tip.best_hash.bytes());
  append_le(out, tip.best_height);
  append_le(out, static_cast<uint64_t>(tip.total_supply));
  return out;
}

std::optional<ChainTip> decode_chain_tip(ByteView value) {
  return decode_whole(value, [](ByteView data, size_t& offset) {
    ChainTip tip;
    tip.best_hash = uint256::deserialize(data, offset);
    tip.best_height = read_le<uint32_t>(data, offset);
    if (data.size() != kOldTipBytes) {
      tip.total_supply = read_amount(data, offset);
    }
    return tip;
  });
}

std::string block_key(const uint256& hash) {
  return kBlockKeyPrefix + hash.to_hex();
}

Bytes encode_block_index(const BlockIndex& entry) {
  Bytes out;
  out.reserve(kIndexBytesMin + entry.file_name.size());
  append(out, entry.hash.bytes());
  append(out, entry.prev_hash.bytes());
  append_le(out, entry.height);
  append_le(out, entry.timestamp);
  append_le(out, entry.bits);
  append_le(out, entry.chain_work.low64());
  out.insert(out.end(), entry.file_name.begin(), entry.file_name.end());
  return out;
}

std::optional<BlockIndex> decode_block_index(ByteView value) {
  return decode_whole(value, [](ByteView data, size_t& offset) {
    BlockIndex entry;
    entry.hash = uint256::deserialize(data, offset);
    entry.prev_hash = uint256::deserialize(data, offset);
    entry.height = read_le<uint32_t>(data, offset);
    entry.timestamp = read_le<uint64_t>(data, offset);
    entry.bits = read_le<uint32_t>(data, offset);
    entry.chain_work = uint256(read_le<uint64_t>(data, offset));
    entry.file_name = read_text(data, offset, data.size() - offset);
    if (entry.file_name.find_first_of(std::string_view("/\0", 2)) != std::string::npos) {
      throw std::runtime_error(kBadValue);
    }
    return entry;
  });
}

void append_miner_counts(Bytes& out, const MinerBlockCounts& counts) {
  append_le(out, static_cast<uint32_t>(counts.size()));
  for (const auto& [address, blocks] : counts) {
    append_le(out, static_cast<uint16_t>(address.size()));
    out.insert(out.end(), address.begin(), address.end());
    append_le(out, blocks);
  }
}

MinerBlockCounts read_miner_counts(ByteView data, size_t& offset) {
  size_t at = offset;
  MinerBlockCounts counts;
  for (auto left = read_le<uint32_t>(data, at); left > 0; --left) {
    const auto len = read_le<uint16_t>(data, at);
    std::string address = read_text(data, at, len);
    if (!counts.empty() && address <= counts.rbegin()->first) {
      throw std::runtime_error(kBadValue);
    }
    const auto blocks = read_le<uint32_t>(data, at);
    counts.emplace_hint(counts.end(), std::move(address), blocks);
  }
  offset = at;
  return counts;
}

void read_treasury_amounts(ByteView data, size_t& offset, TreasuryState& state) {
  size_t at = offset;
  state.balance = read_amount(data, at);
  state.last_distribution_height = read_le<uint32_t>(data, at);
  state.distribution_pool = read_amount(data, at);
  const auto pending = read_le<uint8_t>(data, at);
  if (pending > 1) {
    throw std::runtime_error(kBadValue);
  }
  state.distribution_pending = pending == 1;
  offset = at;
}

Bytes encode_treasury(const TreasuryState& state) {
  Bytes out;
  append_le(out, static_cast<uint64_t>(state.balance));
  append_le(out, state.last_distribution_height);
  append_le(out, static_cast<uint64_t>(state.distribution_pool));
  out.push_back(state.distribution_pending ? 1 : 0);
  append_miner_counts(out, state.miner_block_counts);
  append_miner_counts(out, state.pending_miner_counts);
  return out;
}

std::optional<TreasuryState> decode_treasury(ByteView value) {
  return decode_whole(value, [](ByteView data, size_t& offset) {
    TreasuryState state;
    read_treasury_amounts(data, offset, state);
    state.miner_block_counts = read_miner_counts(data, offset);
    state.pending_miner_counts = read_miner_counts(data, offset);
    return state;
  });
}

}  // namespace norvel
