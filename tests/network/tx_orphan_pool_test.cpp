#include "network/tx_orphan_pool.h"

#include <gtest/gtest.h>

#include "support/chain_builder.h"

namespace norvel::network {
namespace {

// A payment of a coin that nobody knows; `number` tells them apart.
Transaction orphan(uint32_t number, size_t script_bytes = 0) {
  Transaction tx;
  tx.inputs.emplace_back().prevout = {uint256(uint64_t{number} + 1), 0};
  tx.outputs.emplace_back(1'000, sample_key(2).pubkey_hash);
  for (size_t left = script_bytes; left > 0; left -= std::min<size_t>(left, 60'000)) {
    tx.inputs.emplace_back().prevout = {uint256(uint64_t{number} + 1), static_cast<uint32_t>(tx.inputs.size())};
    tx.inputs.back().signature.resize(std::min<size_t>(left, 60'000));
  }
  return tx;
}

bool add(TxOrphanPool& pool, const Transaction& tx, int64_t now_s) {
  return pool.add(tx, tx.inputs[0].prevout, "10.0.0.1:8333", now_s);
}

TEST(TxOrphanPool, TheOldestMakesRoom) {
  TxOrphanPool pool;
  for (uint32_t i = 0; i < TxOrphanPool::kEntriesMax; ++i) {
    ASSERT_TRUE(add(pool, orphan(i), 1'000 - i));
  }
  EXPECT_FALSE(add(pool, orphan(7), 1'000));
  EXPECT_TRUE(add(pool, orphan(1'000), 1'000));
  EXPECT_EQ(pool.size(), TxOrphanPool::kEntriesMax);
  EXPECT_FALSE(pool.get(orphan(TxOrphanPool::kEntriesMax - 1).get_txid()));
  EXPECT_TRUE(pool.get(orphan(0).get_txid()));
}

TEST(TxOrphanPool, HoldsFiveMebibytesOfEntriesUpToAMillionBytes) {
  TxOrphanPool pool;
  EXPECT_FALSE(add(pool, orphan(0, TxOrphanPool::kEntryBytesMax), 1));
  for (uint32_t i = 1; i <= 6; ++i) {
    ASSERT_TRUE(add(pool, orphan(i, 990'000), i));
  }
  EXPECT_EQ(pool.size(), 5u);
  EXPECT_FALSE(pool.get(orphan(1, 990'000).get_txid()));
  EXPECT_EQ(pool.get(orphan(6, 990'000).get_txid())->serialize(), orphan(6, 990'000).serialize());
  EXPECT_TRUE(pool.remove(orphan(2, 990'000).get_txid()));
  EXPECT_TRUE(add(pool, orphan(7, 990'000), 7));
  EXPECT_EQ(pool.size(), 5u);
}

TEST(TxOrphanPool, OwnRulesNeedNoInputs) {
  const struct {
    const char* label;
    bool keeps;
    void (*change)(Transaction&);
  } rows[] = {
      {"as it should be", true, [](Transaction&) {}},
      {"all the money", true, [](Transaction& tx) { tx.outputs[0].value = kMoneyMax; }},
      {"more than that", false, [](Transaction& tx) { tx.outputs[0].value = kMoneyMax + 1; }},
      {"negative output", false, [](Transaction& tx) { tx.outputs[0].value = -1; }},
      {"no output", false, [](Transaction& tx) { tx.outputs.clear(); }},
      {"no input", false, [](Transaction& tx) { tx.inputs.clear(); }},
      {"an input twice", false, [](Transaction& tx) { tx.inputs.push_back(tx.inputs[0]); }},
      {"a coinbase", false, [](Transaction& tx) { tx.type = TransactionType::COINBASE; }},
      {"two inputs", true, [](Transaction& tx) { tx.inputs.emplace_back().prevout.index = 1; }},
  };
  for (const auto& row : rows) {
    Transaction tx = orphan(1);
    row.change(tx);
    EXPECT_EQ(keeps_rules_without_inputs(tx), row.keeps) << row.label;
  }
}

}  // namespace
}  // namespace norvel::network
