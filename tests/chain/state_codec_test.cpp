#include "chain/state_codec.h"

#include <gtest/gtest.h>

#include "crypto/hex.h"

namespace norvel {
namespace {

const std::string kHashHex = "0102" + std::string(56, '0') + "aabb";

Bytes from_hex(const std::string& hex) {
  return crypto::hex_to_bytes(hex);
}

uint256 sample_hash() {
  return uint256(from_hex(kHashHex));
}

TEST(ChainTipValue, HasTheStatedLayoutAndReadsTheOldOne) {
  const ChainTip tip{sample_hash(), 0x01020304, 0x1122334455};
  const std::string old_hex = kHashHex + "04030201";
  EXPECT_EQ(crypto::bytes_to_hex(encode_chain_tip(tip)), old_hex + "5544332211000000");
  const struct {
    std::string hex;
    std::optional<int64_t> supply;
  } rows[] = {
      {old_hex + "5544332211000000", 0x1122334455},
      {old_hex, 0},
      {old_hex.substr(2), std::nullopt},
      {old_hex + "55443322110000", std::nullopt},
      {old_hex + "554433221100000000", std::nullopt},
      {old_hex + "ffffffffffffffff", std::nullopt},  // negative
  };
  for (const auto& row : rows) {
    const auto read = decode_chain_tip(from_hex(row.hex));
    EXPECT_EQ(read ? std::optional(read->total_supply) : std::nullopt, row.supply) << row.hex;
    EXPECT_TRUE(!read || (read->best_hash == tip.best_hash && read->best_height == tip.best_height)) << row.hex;
  }
}

TEST(BlockIndexValue, HasTheStatedLayout) {
  EXPECT_EQ(block_key(sample_hash()), "blk_bbaa" + std::string(56, '0') + "0201");
  const uint256 work = uint256("ffeeddccbbaa99887766554433221100");
  BlockIndex entry{sample_hash(), uint256(uint64_t{7}), 0x01020304, 0x1122334455, 0x1f7fffff, work, "blk00003.dat"};
  const std::string fixed_hex = kHashHex + "07" + std::string(62, '0') + "040302015544332211000000ffff7f1f";
  const std::string value_hex = fixed_hex + "0011223344556677" + "626c6b30303030332e646174";
  EXPECT_EQ(crypto::bytes_to_hex(encode_block_index(entry)), value_hex);
  entry.chain_work = uint256(work.low64());
  EXPECT_EQ(decode_block_index(from_hex(value_hex)), entry);
  entry.file_name.clear();
  EXPECT_EQ(decode_block_index(from_hex(fixed_hex + "0011223344556677")), entry);
  for (const std::string& hex : {fixed_hex + "00112233445566", value_hex + "2f78", value_hex + "00"}) {
    EXPECT_EQ(decode_block_index(from_hex(hex)), std::nullopt) << hex.substr(fixed_hex.size());
  }
}

TEST(TreasuryValue, HasTheStatedLayoutAndRefusesAnythingElse) {
  TreasuryState state;
  state.balance = 0x1122;
  state.last_distribution_height = 5;
  state.distribution_pool = 0x33;
  state.distribution_pending = true;
  state.miner_block_counts = {{"ab", 1}, {"b", 2}};
  state.pending_miner_counts = {{"", 3}};
  const Bytes whole = from_hex(
      "2211000000000000050000003300000000000000"
      "010200000002006162010000000100620200000001000000000003000000");
  EXPECT_EQ(encode_treasury(state), whole);
  EXPECT_EQ(decode_treasury(whole), state);
  for (size_t len = 0; len < whole.size(); ++len) {
    EXPECT_EQ(decode_treasury(ByteView(whole).first(len)), std::nullopt) << len;
  }
  Bytes longer = whole;
  longer.push_back(0);
  EXPECT_EQ(decode_treasury(longer), std::nullopt);
}

}  // namespace
}  // namespace norvel
