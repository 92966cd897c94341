#include "miner/template_block.h"

#include <gtest/gtest.h>

#include <limits>

namespace norvel::miner {

namespace {

constexpr const char kAddress[] = "1A1zP1eP5QGefi2DMPTfTL5SLmv7DivfNa";

TEST(TemplateBlock, TimestampIsTheLaterOfClockAndParentPlusOne) {
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
  const struct {
    const char* label;
    int64_t previous;
    int64_t current;
    uint64_t want;
  } rows[] = {
      {"clock ahead", 100, 200, 200},
      {"clock equal to the parent", 200, 200, 201},
      {"parent ahead", 300, 200, 301},
      {"both absent", 0, 0, 1},
      {"parent at the limit", kMax, 200, static_cast<uint64_t>(kMax)},
      {"both negative", -50, -60, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    rpc::BlockTemplate offered;
    offered.previous_block_time = row.previous;
    offered.current_time = row.current;
    EXPECT_EQ(make_block(offered, kAddress).header.timestamp, row.want);
  }
}

TEST(TemplateBlock, PaysTheGivenAddressAndKeepsTheOrderOfTransactions) {
  rpc::BlockTemplate offered;
  offered.version = 3;
  offered.previous_block_hash = uint256(uint64_t{5});
  offered.height = 0x01020304;
  offered.bits = 0x1e0fffff;
  offered.mining_address = "1BvBMSEYstWetqTFn5Au4m4GFg7xJaNVN2";
  offered.miner_reward = 700;
  offered.total_fees = 20'001;
  offered.coinbase_value = 999;
  offered.transactions.resize(2);
  offered.transactions[0].locktime = 1;
  offered.transactions[1].locktime = 2;

  const Block block = make_block(offered, kAddress);
  EXPECT_EQ(block.header.version, 3u);
  EXPECT_EQ(block.header.prev_hash, offered.previous_block_hash);
  EXPECT_EQ(block.header.nonce, 0u);
  EXPECT_TRUE(block.check_merkle_root());
  ASSERT_EQ(block.transactions.size(), 3u);
  EXPECT_EQ(block.transactions[1].locktime, 1u);
  EXPECT_EQ(block.transactions[2].locktime, 2u);
  const Transaction& coinbase = block.transactions[0];
  const std::string signature(coinbase.inputs[0].signature.begin(), coinbase.inputs[0].signature.end());
  EXPECT_EQ(signature, "\x04\x03\x02\x01Norvel Miner v10.1.0");
  ASSERT_EQ(coinbase.outputs.size(), 2u);
  EXPECT_EQ(coinbase.outputs[0].value, 700);
  EXPECT_EQ(coinbase.outputs[1].value, 10'000);
}

}  // namespace

}  // namespace norvel::miner
