#include "chain/snapshot_codec.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string_view>

#include "chain/state_codec.h"
#include "crypto/hash.h"

namespace norvel {

namespace {

constexpr std::string_view kMagic = "NSNAP001";
constexpr size_t kChecksumBytes = uint256::kSize;
constexpr size_t kTreasuryAmountBytes = 8 + 4 + 8 + 1;
constexpr size_t kSnapshotBytesMin =
    kMagic.size() + uint256::kSize + 4 + 8 + 4 + kTreasuryAmountBytes + size_t{5} * 4 + kChecksumBytes;
static_assert(kSnapshotBytesMin == 129);

// Value, empty script and flag; what a count may reserve follows from it.
constexpr size_t kOutputBytesMin = 8 + 1 + 1;
constexpr size_t kUtxoBytesMin = OutPoint::kSize + 4 + kOutputBytesMin;

// An output that pays a public-key hash, which nearly all do.
constexpr size_t kUtxoBytesUsual = OutPoint::kSize + 4 + 8 + 1 + 25 + 1;

void put_u32(Bytes& out, size_t at, size_t value) {
  const auto bytes = to_le(static_cast<uint32_t>(value));
  std::copy(bytes.begin(), bytes.end(), out.begin() + static_cast<std::ptrdiff_t>(at));
}

void append_text(Bytes& out, std::string_view text) {
  out.insert(out.end(), text.begin(), text.end());
}

void append_outputs(Bytes& out, const UTXOSet& utxos) {
  const size_t count_at = out.size();
  append_le(out, uint32_t{0});
  size_t count = 0;
  utxos.visit([&](const OutPoint& outpoint, const TxOut& output) {
    append(out, outpoint.txid.bytes());
    append_le(out, outpoint.index);
    const size_t length_at = out.size();
    append_le(out, uint32_t{0});
    output.serialize_into(out);
    put_u32(out, length_at, out.size() - length_at - 4);
    ++count;
  });
  put_u32(out, count_at, count);
}

void append_indexes(Bytes& out, const DerivedIndexes& indexes) {
  append_le(out, static_cast<uint32_t>(indexes.transaction_heights().size()));
  for (const auto& [txid, height] : indexes.transaction_heights()) {
    append(out, txid.bytes());
    append_le(out, height);
  }
  append_le(out, static_cast<uint32_t>(indexes.address_transactions().size()));
  for (const auto& [hash, txids] : indexes.address_transactions()) {
    append_le(out, static_cast<uint8_t>(hash.size()));
    append(out, hash);
    append_le(out, static_cast<uint32_t>(txids.size()));
    for (const uint256& txid : txids) {
      append(out, txid.bytes());
    }
  }
  append_le(out, static_cast<uint32_t>(indexes.revealed_keys().size()));
  for (const auto& [address, key] : indexes.revealed_keys()) {
    append_le(out, static_cast<uint16_t>(address.size()));
    append_text(out, address);
    append_le(out, static_cast<uint8_t>(key.size()));
    append(out, key);
  }
}

size_t index_bytes(const DerivedIndexes& indexes) {
  size_t bytes = size_t{3} * 4 + indexes.transaction_heights().size() * (uint256::kSize + 4);
  for (const auto& [hash, txids] : indexes.address_transactions()) {
    bytes += 1 + hash.size() + 4 + txids.size() * uint256::kSize;
  }
  for (const auto& [address, key] : indexes.revealed_keys()) {
    bytes += 2 + address.size() + 1 + key.size();
  }
  return bytes;
}

// What `read` returns; its failure becomes a failure with this reason.
template <class Read>
auto with_reason(const char* reason, Read read) {
  try {
    return read();
  } catch (const std::runtime_error&) {
    throw std::runtime_error(reason);
  }
}

void check(bool holds, const char* reason) {
  if (!holds) {
    throw std::runtime_error(reason);
  }
}

// Reads the sections front to back. Every failure is a std::runtime_error with
// the reason.
class SectionReader {
 public:
  explicit SectionReader(ByteView body) : body_(body) {}

  SnapshotHeader read_header() {
    SnapshotHeader header;
    header.tip_hash = read_hash("truncated header");
    header.tip_height = read<uint32_t>("truncated header");
    header.total_supply = static_cast<int64_t>(read<uint64_t>("truncated header"));
    check(header.total_supply >= 0, "truncated header");
    return header;
  }

  std::vector<std::pair<OutPoint, TxOut>> read_outputs() {
    const auto count = read<uint32_t>("utxo count");
    std::vector<std::pair<OutPoint, TxOut>> outputs;
    outputs.reserve(std::min<size_t>(count, left() / kUtxoBytesMin));
    for (uint32_t i = 0; i < count; ++i) {
      OutPoint outpoint;
      outpoint.txid = read_hash("utxo len");
      outpoint.index = read<uint32_t>("utxo len");
      check(outputs.empty() || outputs.back().first < outpoint, "utxo parse");
      const auto length = read<uint32_t>("utxo len");
      const ByteView record = take(body_, offset_, length, "utxo framing");
      size_t end = 0;
      outputs.emplace_back(outpoint, with_reason("utxo parse", [&] { return TxOut::deserialize(record, end); }));
      check(end == record.size() && outputs.back().second.value >= 0, "utxo parse");
    }
    return outputs;
  }

  TreasuryState read_treasury() {
    TreasuryState state;
    with_reason("treasury", [&] { read_treasury_amounts(body_, offset_, state); });
    with_reason("miners", [&] {
      state.miner_block_counts = read_miner_counts(body_, offset_);
      state.pending_miner_counts = read_miner_counts(body_, offset_);
    });
    return state;
  }

  DerivedIndexes::HeightMap read_heights() {
    const auto count = read<uint32_t>("txidx count");
    check(left() / (uint256::kSize + 4) >= count, "txidx");
    DerivedIndexes::HeightMap heights;
    for (uint32_t i = 0; i < count; ++i) {
      const uint256 txid = read_hash("txidx");
      add_last(heights, txid, read<uint32_t>("txidx"), "txidx parse");
    }
    return heights;
  }

  DerivedIndexes::AddressMap read_addresses() {
    const auto count = read<uint32_t>("addridx count");
    DerivedIndexes::AddressMap addresses;
    for (uint32_t i = 0; i < count; ++i) {
      const ByteView hash = read_field<uint8_t>("addridx");
      const auto id_count = read<uint32_t>("addridx");
      check(left() / uint256::kSize >= id_count, "addridx txid");
      std::vector<uint256> txids;
      txids.reserve(id_count);
      while (txids.size() < id_count) {
        txids.push_back(read_hash("addridx txid"));
      }
      add_last(addresses, Bytes(hash.begin(), hash.end()), std::move(txids), "addridx");
    }
    return addresses;
  }

  // The last section: nothing may follow it.
  DerivedIndexes::KeyMap read_keys() {
    const auto count = read<uint32_t>("pubkey count");
    DerivedIndexes::KeyMap keys;
    for (uint32_t i = 0; i < count; ++i) {
      const ByteView address = read_field<uint16_t>("pubkeys");
      const ByteView key = read_field<uint8_t>("pubkeys");
      add_last(keys, std::string(address.begin(), address.end()), Bytes(key.begin(), key.end()), "pubkeys");
    }
    check(left() == 0, "pubkeys");
    return keys;
  }

 private:
  size_t left() const { return body_.size() - offset_; }

  template <class Integer>
  Integer read(const char* reason) {
    return read_le<Integer>(body_, offset_, reason);
  }

  uint256 read_hash(const char* reason) { return uint256(take(body_, offset_, uint256::kSize, reason)); }

  // A length of type Length, and as many bytes.
  template <class Length>
  ByteView read_field(const char* reason) {
    const auto length = read<Length>(reason);
    return take(body_, offset_, length, reason);
  }

  // Adds behind the last key; fails unless `key` is above it.
  template <class Map>
  static void add_last(Map& map, typename Map::key_type key, typename Map::mapped_type value, const char* reason) {
    check(map.empty() || map.rbegin()->first < key, reason);
    map.emplace_hint(map.end(), std::move(key), std::move(value));
  }

  const ByteView body_;
  size_t offset_ = 0;
};

}  // namespace

Bytes encode_snapshot(const SnapshotHeader& header, const UTXOSet& utxos, const TreasuryState& treasury,
                      const DerivedIndexes& indexes) {
  const Bytes treasury_bytes = encode_treasury(treasury);
  Bytes out;
  out.reserve(kSnapshotBytesMin + treasury_bytes.size() + utxos.size() * kUtxoBytesUsual + index_bytes(indexes));
  append_text(out, kMagic);
  append(out, header.tip_hash.bytes());
  append_le(out, header.tip_height);
  append_le(out, static_cast<uint64_t>(header.total_supply));
  append_outputs(out, utxos);
  append(out, treasury_bytes);
  append_indexes(out, indexes);
  append(out, crypto::sha256(out).bytes());
  return out;
}

bool decode_snapshot(ByteView file, SnapshotData& data, std::string& reason) {
  try {
    check(file.size() >= kSnapshotBytesMin, "snapshot too small");
    check(std::equal(kMagic.begin(), kMagic.end(), file.begin()), "bad magic");
    const ByteView body = file.first(file.size() - kChecksumBytes);
    check(crypto::sha256(body) == uint256(file.last(kChecksumBytes)), "checksum mismatch");
    SectionReader reader(body.subspan(kMagic.size()));
    data.header = reader.read_header();
    data.outputs = reader.read_outputs();
    data.treasury = reader.read_treasury();
    auto heights = reader.read_heights();
    auto addresses = reader.read_addresses();
    data.indexes.assign(std::move(heights), std::move(addresses), reader.read_keys());
    return true;
  } catch (const std::runtime_error& failure) {
    reason = failure.what();
    return false;
  }
}

}  // namespace norvel
