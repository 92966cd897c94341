#include "chain/snapshot_codec.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>

#include "crypto/hash.h"
#include "support/ledger_samples.h"

namespace norvel {
namespace {

std::string zeros(size_t count) {
  return std::string(2 * count, '0');
}

const std::string kSmallId = "02" + zeros(31);
const std::string kLargeId = "01" + zeros(30) + "01";  // its last byte counts most

enum Field {
  START,
  OUTPUT,
  SECOND_OUTPOINT,
  SECOND_OUTPUT,
  TREASURY,
  MINERS,
  PENDING_MINERS,
  HEIGHT_COUNT,
  HEIGHTS,
  ADDRESS_COUNT,
  ADDRESS,
  ADDRESS_IDS,
  SECOND_ADDRESS,
  KEY_COUNT,
  KEYS,
  FIELD_COUNT
};

// Every section but the checksum, and the reason for a file that ends inside the field.
std::vector<FormatField> sample_fields() {
  std::vector<FormatField> fields(FIELD_COUNT);
  fields[START] = {"4e534e4150303031" + kLargeId + "07000000" + "0500000000000000" +  // header
                       "02000000" + kSmallId + "00000000" + "23000000" + "11",
                   "snapshot too small"};
  fields[OUTPUT] = {"000000000000001976a914" + std::string(40, '7') + "88ac00", "utxo framing"};
  fields[SECOND_OUTPOINT] = {kSmallId + "01000000" + "0a000000", "utxo len"};
  fields[SECOND_OUTPUT] = {"22000000000000000000", "utxo framing"};
  fields[TREASURY] = {"33000000000000000600000044000000000000" "0001", "treasury"};
  fields[MINERS] = {"0200000001006105000000" "01006206000000", "miners"};
  fields[PENDING_MINERS] = {"0100000001006309000000", "miners"};
  fields[HEIGHT_COUNT] = {"02000000", "txidx count"};
  fields[HEIGHTS] = {kSmallId + "03000000" + kLargeId + "04000000", "txidx"};
  fields[ADDRESS_COUNT] = {"02000000", "addridx count"};
  fields[ADDRESS] = {"14" + std::string(40, '7') + "02000000", "addridx"};
  fields[ADDRESS_IDS] = {kLargeId + kSmallId, "addridx txid"};
  fields[SECOND_ADDRESS] = {"14" + std::string(40, '8') + "00000000", "addridx"};
  fields[KEY_COUNT] = {"02000000", "pubkey count"};
  fields[KEYS] = {"01006102cafe" "01006200", "pubkeys"};
  return fields;
}

Bytes with_checksum(ByteView body) {
  Bytes file(body.begin(), body.end());
  append(file, crypto::sha256(body).bytes());
  return file;
}

std::string reason_for(ByteView file) {
  SnapshotData data;
  std::string reason;
  return decode_snapshot(file, data, reason) ? "" : reason;
}

Bytes encode_again(SnapshotData data) {
  UTXOSet utxos;
  utxos.add_utxo(OutPoint::null(), TxOut());  // replaced
  utxos.assign(std::move(data.outputs));
  return encode_snapshot(data.header, utxos, data.treasury, data.indexes);
}

TEST(Snapshot, HasTheStatedLayout) {
  const Bytes file = with_checksum(join_fields(sample_fields()));
  SnapshotData data;
  std::string reason;
  ASSERT_TRUE(decode_snapshot(file, data, reason)) << reason;
  const uint256 small(uint64_t{2});
  const uint256 large = uint256(uint64_t{1}) + (uint256(uint64_t{1}) << 248);
  EXPECT_EQ(data.header.tip_hash, large);
  EXPECT_EQ(data.header.tip_height, 7u);
  EXPECT_EQ(data.header.total_supply, 5);
  ASSERT_EQ(data.outputs.size(), 2u);
  EXPECT_EQ(data.outputs[0].second.pubkey_hash, Bytes(20, 0x77));
  EXPECT_EQ(data.outputs[1].first, (OutPoint{small, 1}));
  EXPECT_EQ(data.outputs[1].second.value, 0x22);
  TreasuryState treasury;
  treasury.balance = 0x33;
  treasury.last_distribution_height = 6;
  treasury.distribution_pool = 0x44;
  treasury.distribution_pending = true;
  treasury.miner_block_counts = {{"a", 5}, {"b", 6}};
  treasury.pending_miner_counts = {{"c", 9}};
  EXPECT_EQ(data.treasury, treasury);
  DerivedIndexes indexes;
  indexes.assign({{small, 3}, {large, 4}}, {{Bytes(20, 0x77), {large, small}}, {Bytes(20, 0x88), {}}},
                 {{"a", {0xca, 0xfe}}, {"b", {}}});
  EXPECT_EQ(data.indexes, indexes);
  EXPECT_EQ(encode_again(data), file);
  EXPECT_EQ(encode_snapshot({}, UTXOSet(), {}, {}).size(), 129u);
}

TEST(Snapshot, RefusesEveryCutAndEveryFlip) {
  const std::vector<FormatField> fields = sample_fields();
  expect_cut_messages(fields, [](ByteView prefix) {
    const std::string reason = reason_for(with_checksum(prefix));
    if (!reason.empty()) {
      throw std::runtime_error(reason);
    }
  });
  Bytes file = with_checksum(join_fields(fields));
  for (size_t len = 0; len < file.size(); ++len) {
    EXPECT_EQ(reason_for(ByteView(file).first(len)), len < 129 ? "snapshot too small" : "checksum mismatch") << len;
  }
  for (size_t at = 0; at < file.size(); ++at) {
    file[at] ^= 0x40;
    EXPECT_EQ(reason_for(file), at < 8 ? "bad magic" : "checksum mismatch") << at;
    file[at] ^= 0x40;
  }
  append(file, Bytes(file));
  EXPECT_EQ(reason_for(file), "checksum mismatch");
}

TEST(Snapshot, RefusesWhatNoStateCanHold) {
  const std::vector<FormatField> fields = sample_fields();
  const std::string start = fields[START].hex;
  const std::string zero_ids = "00000000";
  const struct {
    const char* label;
    Field field;
    std::string hex;
    const char* reason;
  } rows[] = {
      {"negative supply", START, std::string(start).replace(2 * 51, 2, "ff"), "truncated header"},
      {"more outputs than bytes", START, std::string(start).replace(2 * 52, 8, "ffffffff"), "utxo framing"},
      {"negative output", OUTPUT, "00000000000080" + fields[OUTPUT].hex.substr(14), "utxo parse"},
      {"an outpoint twice", SECOND_OUTPOINT, kSmallId + "00000000" + "0a000000", "utxo parse"},
      {"output shorter than its record", SECOND_OUTPOINT, kSmallId + "01000000" + "0b000000", "utxo parse"},
      {"output longer than its record", SECOND_OUTPOINT, kSmallId + "01000000" + "09000000", "utxo parse"},
      {"output longer than the file", SECOND_OUTPOINT, kSmallId + "01000000" + "ffffffff", "utxo framing"},
      {"note that is none", SECOND_OUTPUT, "22000000000000000001", "utxo parse"},
      {"negative balance", TREASURY, "33000000000000800600000044000000000000" "0001", "treasury"},
      {"flag of 2", TREASURY, "33000000000000000600000044000000000000" "0002", "treasury"},
      {"a miner twice", MINERS, "0200000001006205000000" "01006206000000", "miners"},
      {"pending miners descend", PENDING_MINERS, "0200000001006205000000" "01006106000000", "miners"},
      {"more heights than bytes", HEIGHT_COUNT, "ffffffff", "txidx"},
      {"transactions descend", HEIGHTS, kLargeId + "04000000" + kSmallId + "03000000", "txidx parse"},
      {"an address twice", SECOND_ADDRESS, fields[ADDRESS].hex.substr(0, 42) + zero_ids, "addridx"},
      {"more ids than bytes", SECOND_ADDRESS, "14" + std::string(40, '8') + "ffffffff", "addridx txid"},
      {"keys descend", KEYS, "01006202cafe" "01006100", "pubkeys"},
      {"a byte left over", KEYS, fields[KEYS].hex + "00", "pubkeys"},
  };
  for (const auto& row : rows) {
    std::vector<FormatField> changed = fields;
    changed[row.field].hex = row.hex;
    EXPECT_EQ(reason_for(with_checksum(join_fields(changed))), row.reason) << row.label;
  }
}

TEST(Snapshot, RestoresRandomStates) {
  std::mt19937_64 random(84);
  for (size_t round = 0; round < 20; ++round) {
    UTXOSet utxos;
    DerivedIndexes::HeightMap heights;
    DerivedIndexes::AddressMap addresses;
    DerivedIndexes::KeyMap keys;
    for (size_t i = 0; i < round * 5; ++i) {
      TxOut output = random_output(random);
      output.value &= std::numeric_limits<int64_t>::max();
      utxos.add_utxo({random_uint256(random), static_cast<uint32_t>(random())}, output);
      heights[random_uint256(random)] = static_cast<uint32_t>(random());
      addresses[random_bytes(random, 20)].assign(random() % 4, random_uint256(random));
      keys[sample_key(static_cast<uint8_t>(i + 1)).address] = random_bytes(random, random() % 256);
    }
    DerivedIndexes indexes;
    indexes.assign(heights, addresses, keys);
    const Bytes file = encode_snapshot({random_uint256(random), 1, 2}, utxos, {}, indexes);
    SnapshotData data;
    std::string reason;
    ASSERT_TRUE(decode_snapshot(file, data, reason)) << reason;
    EXPECT_EQ(data.indexes, indexes);
    EXPECT_EQ(encode_again(std::move(data)), file);
  }
}

}  // namespace
}  // namespace norvel
