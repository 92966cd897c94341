#include "chain/block_undo.h"

#include <algorithm>
#include <cassert>
#include <limits>
#include <stdexcept>

#include "chain/state_codec.h"
#include "crypto/address.h"

namespace norvel {

namespace {

constexpr size_t kCountSize = 4;
constexpr size_t kTransactionSizeMin = uint256::kSize + 2 + 1 + kCountSize;
constexpr size_t kRestoredSizeMin = OutPoint::kSize + 4;
constexpr size_t kRevealedSizeMin = 1;

// Outputs are counted with 16 bits in a transaction, and an address of a 20-byte
// hash has at most 35 characters.
constexpr size_t kOutputsMax = std::numeric_limits<uint16_t>::max();
constexpr size_t kAddressCharactersMax = std::numeric_limits<uint8_t>::max();

void append_count(Bytes& out, size_t count) {
  assert(count <= std::numeric_limits<uint32_t>::max());
  append_le(out, static_cast<uint32_t>(count));
}

void append_address(Bytes& out, const std::string& address) {
  assert(address.size() <= kAddressCharactersMax);
  append_le(out, static_cast<uint8_t>(address.size()));
  out.insert(out.end(), address.begin(), address.end());
}

void append_flag(Bytes& out, bool flag) {
  append_le(out, static_cast<uint8_t>(flag ? 1 : 0));
}

void append_optional_counts(Bytes& out, const std::optional<MinerBlockCounts>& counts) {
  append_flag(out, counts.has_value());
  if (counts) {
    append_miner_counts(out, *counts);
  }
}

void append_transactions(Bytes& out, const BlockUndo& undo) {
  assert(undo.made.size() == undo.indexes.heights.size());
  append_count(out, undo.made.size());
  auto listed = undo.indexes.listed.begin();
  for (size_t i = 0; i < undo.made.size(); ++i) {
    const auto& [txid, output_count] = undo.made[i];
    const std::optional<uint32_t>& previous_height = undo.indexes.heights[i].second;
    assert(output_count <= kOutputsMax);
    append(out, txid.bytes());
    append_le(out, static_cast<uint16_t>(output_count));
    append_flag(out, previous_height.has_value());
    if (previous_height) {
      append_le(out, *previous_height);
    }
    const auto end =
        std::find_if(listed, undo.indexes.listed.end(), [&id = txid](const auto& entry) { return entry.second != id; });
    append_count(out, static_cast<size_t>(end - listed));
    for (; listed != end; ++listed) {
      append(out, listed->first);
    }
  }
  assert(listed == undo.indexes.listed.end());
}

void append_treasury(Bytes& out, const TreasuryUndo& treasury) {
  append_le(out, static_cast<uint64_t>(treasury.balance));
  append_le(out, treasury.last_distribution_height);
  append_le(out, static_cast<uint64_t>(treasury.distribution_pool));
  append_flag(out, treasury.distribution_pending);
  append_address(out, treasury.counted_miner);
  append_optional_counts(out, treasury.miner_block_counts);
  append_optional_counts(out, treasury.pending_miner_counts);
}

// Reads the record front to back.
class UndoReader {
 public:
  explicit UndoReader(ByteView data) : data_(data) {}

  template <std::unsigned_integral T>
  T read() {
    return read_le<T>(data_, at_);
  }

  uint256 read_hash() { return uint256::deserialize(data_, at_); }
  int64_t read_units() { return static_cast<int64_t>(read<uint64_t>()); }

  bool read_flag() {
    const auto flag = read<uint8_t>();
    if (flag > 1) {
      throw std::runtime_error("Undo flag is neither 0 nor 1");
    }
    return flag == 1;
  }

  // A count of elements that take up at least `element_size_min` bytes each.
  size_t read_count(size_t element_size_min) {
    const auto count = read<uint32_t>();
    if (count > (data_.size() - at_) / element_size_min) {
      throw std::runtime_error(kNotEnoughData);
    }
    return count;
  }

  Bytes read_pubkey_hash() {
    const ByteView hash = take(data_, at_, crypto::kPublicKeyHashBytes);
    return Bytes(hash.begin(), hash.end());
  }

  std::string read_address() {
    const ByteView text = take(data_, at_, read<uint8_t>());
    return std::string(text.begin(), text.end());
  }

  std::pair<OutPoint, TxOut> read_restored() {
    const OutPoint outpoint = OutPoint::deserialize(data_, at_);
    const ByteView record = take(data_, at_, read<uint32_t>());
    size_t end = 0;
    TxOut output = TxOut::deserialize(record, end);
    if (end != record.size()) {
      throw std::runtime_error("Undo output longer than its content");
    }
    return {outpoint, std::move(output)};
  }

  std::optional<MinerBlockCounts> read_optional_counts() {
    return read_flag() ? std::optional(read_miner_counts(data_, at_)) : std::nullopt;
  }

  void expect_end() const {
    if (at_ != data_.size()) {
      throw std::runtime_error("Undo record longer than its content");
    }
  }

 private:
  ByteView data_;
  size_t at_ = 0;
};

void read_transactions(UndoReader& reader, BlockUndo& undo) {
  const size_t count = reader.read_count(kTransactionSizeMin);
  undo.made.reserve(count);
  undo.indexes.heights.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    const uint256 txid = reader.read_hash();
    undo.made.emplace_back(txid, reader.read<uint16_t>());
    const bool is_repeated = reader.read_flag();
    undo.indexes.heights.emplace_back(txid, is_repeated ? std::optional(reader.read<uint32_t>()) : std::nullopt);
    for (size_t left = reader.read_count(crypto::kPublicKeyHashBytes); left > 0; --left) {
      undo.indexes.listed.emplace_back(reader.read_pubkey_hash(), txid);
    }
  }
}

void read_treasury(UndoReader& reader, TreasuryUndo& treasury) {
  treasury.balance = reader.read_units();
  treasury.last_distribution_height = reader.read<uint32_t>();
  treasury.distribution_pool = reader.read_units();
  treasury.distribution_pending = reader.read_flag();
  treasury.counted_miner = reader.read_address();
  treasury.miner_block_counts = reader.read_optional_counts();
  treasury.pending_miner_counts = reader.read_optional_counts();
}

}  // namespace

Bytes BlockUndo::serialize() const {
  Bytes out;
  append(out, prev_hash.bytes());
  append_le(out, static_cast<uint64_t>(supply));
  append_transactions(out, *this);
  append_count(out, restored.size());
  for (const auto& [outpoint, output] : restored) {
    append(out, outpoint.serialize());
    const Bytes record = output.serialize();
    append_count(out, record.size());
    append(out, record);
  }
  append_treasury(out, treasury);
  append_count(out, indexes.revealed.size());
  for (const std::string& address : indexes.revealed) {
    append_address(out, address);
  }
  return out;
}

BlockUndo BlockUndo::deserialize(ByteView data) {
  UndoReader reader(data);
  BlockUndo undo;
  undo.prev_hash = reader.read_hash();
  undo.supply = reader.read_units();
  read_transactions(reader, undo);
  const size_t restored_count = reader.read_count(kRestoredSizeMin);
  undo.restored.reserve(restored_count);
  for (size_t left = restored_count; left > 0; --left) {
    undo.restored.push_back(reader.read_restored());
  }
  read_treasury(reader, undo.treasury);
  for (size_t left = reader.read_count(kRevealedSizeMin); left > 0; --left) {
    undo.indexes.revealed.push_back(reader.read_address());
  }
  reader.expect_end();
  return undo;
}

}  // namespace norvel
