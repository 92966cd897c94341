#include "chain/state_codec.h"

#include <gtest/gtest.h>

#include "crypto/hex.h"

namespace norvel {
namespace {

const std::string kHashHex = "0102" + std::string(58, '0') + "aabb";

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
    const char* label;
    std::string hex;
    std::optional<int64_t> supply;
  } rows[] = {
      {"whole", old_hex + "5544332211000000", 0x1122334455},
      {"without supply", old_hex, 0},
      {"one byte short of the old form", old_hex.substr(2), std::nullopt},
      {"one byte of supply", old_hex + "55", std::nullopt},
      {"seven bytes of supply", old_hex + "55443322110000", std::nullopt},
      {"a byte left over", old_hex + "554433221100000000", std::nullopt},
      {"negative supply", old_hex + "ffffffffffffffff", std::nullopt},
      {"nothing", "", std::nullopt},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const auto read = decode_chain_tip(from_hex(row.hex));
    ASSERT_EQ(read.has_value(), row.supply.has_value());
    EXPECT_TRUE(!read || *read == (ChainTip{tip.best_hash, tip.best_height, *row.supply}));
  }
}

TEST(BlockIndexValue, HasTheStatedLayout) {
  EXPECT_EQ(block_key(sample_hash()), "blk_bbaa" + std::string(58, '0') + "0201");
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
  const std::string amounts = "2211000000000000" "05000000" "3300000000000000";
  const std::string miners = "02000000" "02006162" "01000000" "010062" "02000000";
  const std::string pending = "01000000" "0000" "03000000";
  const Bytes whole = from_hex(amounts + "01" + miners + pending);
  EXPECT_EQ(encode_treasury(state), whole);
  EXPECT_EQ(decode_treasury(whole), state);
  for (size_t len = 0; len < whole.size(); ++len) {
    EXPECT_EQ(decode_treasury(ByteView(whole).first(len)), std::nullopt) << len;
  }
  const struct {
    const char* label;
    std::string hex;
  } rows[] = {
      {"a byte left over", amounts + "01" + miners + pending + "00"},
      {"negative balance", "ffffffffffffffff" "05000000" "3300000000000000" "01" + miners + pending},
      {"negative pool", "2211000000000000" "05000000" "0000000000000080" "01" + miners + pending},
      {"flag of 2", amounts + "02" + miners + pending},
      {"addresses descend", amounts + "01" "02000000" "010062" "02000000" "02006162" "01000000" + pending},
      {"an address twice", amounts + "01" "02000000" "010062" "02000000" "010062" "01000000" + pending},
      {"a count that no value can hold", amounts + "01" "ffffffff" "010062" "02000000"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(decode_treasury(from_hex(row.hex)), std::nullopt) << row.label;
  }
}

}  // namespace
}  // namespace norvel
