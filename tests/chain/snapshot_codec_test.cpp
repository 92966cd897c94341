#include "chain/snapshot_codec.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <tuple>

#include "crypto/hash.h"
#include "crypto/hex.h"
#include "support/ledger_samples.h"

namespace norvel {
namespace {

std::string zeros(size_t count) {
  return std::string(2 * count, '0');
}

const std::string kSmallId = "02" + zeros(31);
const std::string kLargeId = "01" + zeros(30) + "01";  // its last byte counts most

// Every section but the checksum, and the reason for a file that ends inside the field.
const FormatField kFields[] = {
    {"4e534e4150303031" + kLargeId + "070000000500000000000000" +  // header
         "02000000" + kSmallId + "000000002300000011",
     "snapshot too small"},
    {"000000000000001976a914" + std::string(40, '7') + "88ac00", "utxo framing"},
    {kSmallId + "010000000a000000", "utxo len"},
    {"22000000000000000000", "utxo framing"},
    {"330000000000000006000000440000000000000001", "treasury"},
    {"020000000100610500000001006206000000", "miners"},
    {"0100000001006309000000", "miners"},
    {"02000000", "txidx count"},
    {kSmallId + "03000000" + kLargeId + "04000000", "txidx"},
    {"02000000", "addridx count"},
    {"14" + std::string(40, '7') + "02000000", "addridx"},
    {kLargeId + kSmallId, "addridx txid"},
    {"14" + std::string(40, '8') + "00000000", "addridx"},
    {"02000000", "pubkey count"},
    {"01006102cafe01006200", "pubkeys"},
};

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
  const Bytes file = with_checksum(join_fields(kFields));
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
  expect_cut_messages(kFields, [](ByteView prefix) {
    const std::string reason = reason_for(with_checksum(prefix));
    if (!reason.empty()) {
      throw std::runtime_error(reason);
    }
  });
  Bytes file = with_checksum(join_fields(kFields));
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
  const std::string hex = crypto::bytes_to_hex(join_fields(kFields));
  // The first text is replaced by the second where it stands first.
  const std::tuple<const char*, std::string, std::string, const char*> rows[] = {
      {"negative supply", "0500000000000000", "0500000000000080", "truncated header"},
      {"more outputs than bytes", "02000000" + kSmallId, "ffffffff" + kSmallId, "utxo framing"},
      {"negative output", "001976a9", "801976a9", "utxo parse"},
      {"an outpoint twice", kSmallId + "01000000", kSmallId + "00000000", "utxo parse"},
      {"output shorter than its record", "0a000000", "0b000000", "utxo parse"},
      {"output longer than its record", "0a000000", "09000000", "utxo parse"},
      {"output longer than the file", "0a000000", "ffffffff", "utxo framing"},
      {"note that is none", "22000000000000000000", "22000000000000000001", "utxo parse"},
      {"negative balance", "3300000000000000", "3300000000000080", "treasury"},
      {"negative pool", "4400000000000000", "4400000000000080", "treasury"},
      {"flag of 2", "440000000000000001", "440000000000000002", "treasury"},
      {"a miner twice", "01006105000000", "01006205000000", "miners"},
      {"pending miners descend", "0100000001006309000000", "020000000100630900000001006109000000", "miners"},
      {"more heights than bytes", "02000000" + kSmallId + "03", "ffffffff" + kSmallId + "03", "txidx"},
      {"a transaction twice", kLargeId + "04000000", kSmallId + "04000000", "txidx parse"},
      {"an address twice", "14" + std::string(40, '8'), "14" + std::string(40, '7'), "addridx"},
      {"more ids than bytes", "8800000000", "88ffffffff", "addridx txid"},
      {"a key twice", "01006200", "01006100", "pubkeys"},
      {"a byte left over", "01006200", "0100620000", "pubkeys"},
  };
  for (const auto& [label, from, to, reason] : rows) {
    const size_t at = hex.find(from);
    ASSERT_EQ(at % 2, 0u) << label;
    const std::string changed = std::string(hex).replace(at, from.size(), to);
    EXPECT_EQ(reason_for(with_checksum(crypto::hex_to_bytes(changed))), reason) << label;
  }
}

}  // namespace
}  // namespace norvel
