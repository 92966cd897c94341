// Whatever the pool holds, the block made from a template is accepted.

#include "rpc/template_builder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "chain/chain_scene.h"
#include "consensus/treasury.h"
#include "core/clock.h"
#include "rpc/method_scene.h"
#include "rpc/template_selection.h"

namespace norvel::rpc {
namespace {

using Coin = std::pair<OutPoint, TxOut>;
using Transactions = std::vector<Transaction>;

// A coin of sample_key(1) that no block made.
Coin imagined_coin(uint32_t index, int64_t value = 8 * kCoin) {
  return {{uint256(uint64_t{77}), index}, TxOut(value, sample_key(1).pubkey_hash)};
}

// Moves all but `fee` to sample_key(1), who signs everything here.
Transaction spend(const std::vector<Coin>& coins, int64_t fee = 1'000) {
  int64_t value = -fee;
  for (const Coin& coin : coins) {
    value += coin.second.value;
  }
  return pay(sample_key(1), coins, {value}, 1);
}

Transaction locked(Transaction tx, uint32_t locktime) {
  tx.locktime = locktime;
  tx.inputs[0].sequence = 0;
  return signed_again(tx);
}

Transaction filled(Transaction tx, size_t bytes) {
  tx.outputs.emplace_back().script_pubkey = Bytes(bytes, 0x51);
  return signed_again(tx);
}

TEST(TemplateSelection, TakesWhatABlockMayHold) {
  std::vector<Coin> coins;
  OutputsByOutpoint outputs;
  for (uint32_t i = 0; i < 26; ++i) {
    coins.push_back(imagined_coin(i));
    outputs.insert(coins.back());
  }
  const Transaction parent = spend({coins[0]});
  const Transaction child = spend({output_of(parent)});
  Transaction repeating = parent;
  repeating.inputs.push_back(repeating.inputs[0]);
  repeating.invalidate_cache();
  Transaction distribution = parent;
  distribution.type = TransactionType::TREASURY_DISTRIBUTION;
  distribution.invalidate_cache();
  const auto fees_of = [&](int64_t fee) { return spend(coins, fee); };
  static constexpr TemplateLimits kPlain{.height = 50, .locked_time = 1'700'000'000};
  const auto with_bytes = [&](size_t bytes) {
    TemplateLimits limits = kPlain;
    limits.bytes = bytes;
    return limits;
  };
  const struct {
    const char* label;
    Transactions candidates;
    std::vector<size_t> taken;
    int64_t fees;
    TemplateLimits limits = kPlain;
  } rows[] = {
      {"nothing", {}, {}, 0},
      {"parent and child", {parent, child}, {0, 1}, 2'000},
      {"child before its parent", {child, parent}, {1}, 1'000},
      {"output that the parent lacks", {parent, spend({{{parent.get_txid(), 1}, parent.outputs[0]}})}, {0}, 1'000},
      {"second spender, and its child", {parent, spend({coins[0]}, 9), spend({coins[1]}, 9)}, {0, 2}, 1'009},
      {"spender of what was left out", {spend({coins[1], imagined_coin(99)}), spend({coins[1]})}, {1}, 1'000},
      {"one outpoint twice", {repeating}, {}, 0},
      {"distribution", {distribution}, {}, 0},
      {"no fee", {spend({coins[0]}, 0)}, {0}, 0},
      {"overspent", {spend({coins[0]}, -1)}, {}, 0},
      {"all fees", {fees_of(kTemplateFeesMax)}, {0}, 200 * kCoin},
      {"one unit over all fees", {fees_of(kTemplateFeesMax + 1)}, {}, 0},
      {"height lock past", {locked(parent, 49)}, {0}, 1'000},
      {"height lock", {locked(parent, 50), spend({coins[1]})}, {1}, 1'000},
      {"time lock past", {locked(parent, 1'699'999'999)}, {0}, 1'000},
      {"time lock", {locked(parent, 1'700'000'000)}, {}, 0},
      {"exact room", {parent, child}, {0, 1}, 2'000, with_bytes(8 + parent.size() + child.size())},
      {"a byte short", {parent, child}, {0}, 1'000, with_bytes(7 + parent.size() + child.size())},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const TemplateSelection selection = select_for_template(row.candidates, outputs, row.limits);
    EXPECT_EQ(selection.total_fees, row.fees);
    ASSERT_EQ(selection.transactions.size(), row.taken.size());
    for (size_t i = 0; i < row.taken.size(); ++i) {
      EXPECT_EQ(selection.transactions[i].get_txid(), row.candidates[row.taken[i]].get_txid());
    }
  }
}

// The block that a miner makes of the template, mined.
Block complete(const BlockTemplate& offered, uint64_t timestamp, size_t text_bytes = 20) {
  Block block;
  block.header.version = offered.version;
  block.header.prev_hash = offered.previous_block_hash;
  block.header.timestamp = timestamp;
  block.header.bits = offered.bits;
  block.height = offered.height;
  block.transactions = offered.transactions;
  block.transactions.insert(
      block.transactions.begin(),
      Transaction::create_coinbase_tx(sample_key(1).address, offered.miner_reward, offered.total_fees, offered.height,
                                      std::string(text_bytes, 'x')));
  seal(block);
  return block;
}

class Templates : public testing::Test {
 protected:
  BlockTemplate build() { return build_template(scene_.chain(), pool_, now()); }
  uint64_t now() { return scene_.tip().header.timestamp + 10; }

  bool put(const Transaction& tx) {
    std::string error;
    return pool_.add_transaction(tx, static_cast<int64_t>(random_() % 1'000'000), error);
  }

  void mine_coins(int count) {
    const Blockchain::WriteScope quick(scene_.chain());
    for (int i = 0; i < count; ++i) {
      coins_.push_back(output_of(complete_and_add(build()).transactions[0]));
    }
  }

  Block complete_and_add(const BlockTemplate& offered) {
    const Block block = complete(offered, now(), 700);
    EXPECT_LE(block.size(), kBlockBytesMax);
    scene_.add(block);
    pool_.remove_block_transactions(block);
    return block;
  }

  // Anything from a plain payment to what no block can hold.
  Transaction random_spend() {
    Coin coin = coins_[coins_.size() - 1 - random_() % std::min<size_t>(coins_.size(), 60)];  // many unspent
    coin.first.index += random_() % 16 == 0 ? 7 : 0;
    const int64_t fee = random_() % 8 == 0 ? coin.second.value : static_cast<int64_t>(random_() % 40'000);
    Transaction tx = spend({coin}, std::min(fee, coin.second.value));
    switch (random_() % 12) {
      case 0:
        return locked(tx, scene_.chain().get_best_height() + static_cast<uint32_t>(random_() % 3));
      case 1:
        return locked(tx, static_cast<uint32_t>(now() - 7'202 + random_() % 4));
      case 2:
        return filled(tx, random_() % 400'000);
      default:
        return tx;
    }
  }

  ChainScene scene_{small_options(7)};
  Mempool pool_{20'000'000};
  std::mt19937_64 random_{20'240'611};
  std::vector<Coin> coins_;  // spent ones among them
};

TEST_F(Templates, MakeValidBlocksOfAnyPool) {
  mine_coins(45);  // of which 26 cover the fees that a template may hold
  size_t taken = 0;
  size_t left_out = 0;
  size_t distributions = 0;
  for (int round = 0; round < 15; ++round) {
    for (int i = 0; i < 40; ++i) {
      const Transaction tx = random_spend();
      if (put(tx)) {
        coins_.push_back(output_of(tx));
      }
    }
    const BlockTemplate offered = build();
    const bool is_required = scene_.chain().requires_distribution(offered.height);
    distributions += is_required ? 1 : 0;
    const size_t first = is_required ? 1 : 0;
    for (size_t i = 0; i < offered.transactions.size(); ++i) {
      EXPECT_EQ(offered.transactions[i].type == TransactionType::TREASURY_DISTRIBUTION, i < first);
    }
    const Block block = complete_and_add(offered);
    coins_.push_back(output_of(block.transactions[0]));
    taken += offered.transactions.size() - first;
    left_out += pool_.size();
    if (round % 5 == 4) {
      pool_.clear();
    }
  }
  EXPECT_GT(taken, 100u);
  EXPECT_GT(left_out, 100u);
  EXPECT_GE(distributions, 2u);
}

TEST_F(Templates, KeepFeesWithinWhatACoinbasePays) {
  mine_coins(28);
  for (const Coin& coin : coins_) {
    put(spend({coin}, 8 * kCoin));
  }
  const BlockTemplate offered = build();
  EXPECT_EQ(offered.total_fees, 200 * kCoin);
  EXPECT_EQ(offered.treasury_value, 100 * kCoin);
  EXPECT_EQ(offered.coinbase_value, 108 * kCoin);
  complete_and_add(offered);
}

TEST_F(Templates, OfferTimeLocksToTheSlowestClock) {
  mine_coins(2);
  const auto limit = static_cast<uint32_t>(now() - kMinerClockLagMaxS);
  put(locked(spend({coins_[0]}), limit - 1));
  put(locked(spend({coins_[1]}), limit));
  const BlockTemplate offered = build();
  EXPECT_EQ(offered.transactions.size(), 1u);
  scene_.add(complete(offered, limit));
}

TEST_F(Templates, KeepTheirRoomForWhatMayEnter) {
  mine_coins(5);
  const auto early = static_cast<uint32_t>(now());
  std::string error;
  for (size_t i = 0; i < 4; ++i) {
    ASSERT_TRUE(pool_.add_transaction(locked(filled(spend({coins_[i]}, kCoin), 300'000), early), kCoin, error));
  }
  ASSERT_TRUE(pool_.add_transaction(spend({coins_[4]}), 1'000, error));
  EXPECT_EQ(build().transactions.size(), 1u);
}

// The pool that the fee leaves is dust, owed in form only.
TEST_F(Templates, CarryADistributionWithoutPayees) {
  mine_coins(2);
  put(spend({coins_[0]}, 100));
  mine_coins(4);
  const BlockTemplate offered = build();
  ASSERT_EQ(offered.transactions.size(), 1u);
  EXPECT_TRUE(offered.transactions[0].outputs.empty());
  complete_and_add(offered);
}

TEST_F(Templates, AreKeptForASecondUnlessTheTipMoves) {
  mine_coins(3);
  int64_t steady_ms = 5'000;
  uint64_t unix_s = now();
  TemplateBuilder builder(scene_.chain(), pool_, {[&] { return unix_s; }, [&] { return steady_ms; }});
  const auto count = [&] { return builder.get_template("a").get("tx_data").array.size(); };
  EXPECT_EQ(count(), 0u);
  put(spend({coins_[0]}));
  steady_ms += 999;
  unix_s += 40;
  EXPECT_EQ(count(), 0u);
  EXPECT_EQ(builder.get_template("b").get("curtime").number, static_cast<double>(unix_s));
  EXPECT_EQ(builder.get_template("b").get("miningaddress").string, "b");
  steady_ms += 1;
  EXPECT_EQ(count(), 1u);
  put(spend({coins_[1]}));
  EXPECT_EQ(count(), 1u);
  scene_.extend();
  EXPECT_EQ(count(), 2u);
  EXPECT_EQ(builder.get_template("a").get("previousblockhash").string, scene_.chain().get_best_hash().to_hex());
}

// Whose making takes 3 s: by the clock, which is read at its begin and its end.
TEST_F(Templates, AreKeptForAsLongAsMakingThemTook) {
  mine_coins(2);
  int64_t steady_ms = 0;
  int64_t per_look_ms = 3'000;
  TemplateBuilder builder(scene_.chain(), pool_, {[&] { return now(); }, [&] { return steady_ms += per_look_ms; }});
  const auto count = [&] { return builder.get_template("a").get("tx_data").array.size(); };
  EXPECT_EQ(count(), 0u);  // until 6,000
  put(spend({coins_[0]}));
  per_look_ms = 0;
  steady_ms = 8'999;
  EXPECT_EQ(count(), 0u);
  steady_ms = 9'000;
  EXPECT_EQ(count(), 1u);
}

// Every key, by an independent reading of chain and pool.
TEST_F(Templates, AreDescribedByTheirKeys) {
  mine_coins(6);  // with a fee in the first period, the seventh block distributes
  put(spend({coins_[0]}, 90'000));
  complete_and_add(build());
  while (build().height < 14) {
    complete_and_add(build());
  }
  put(spend({coins_[1]}, 20'001));
  TemplateBuilder builder(scene_.chain(), pool_);
  const JsonValue offered = builder.get_template(sample_key(3).address);
  const Block tip = scene_.tip();
  const JsonValue& entries = offered.get("transactions");
  ASSERT_EQ(entries.array.size(), 2u);
  ASSERT_EQ(offered.get("tx_data").array.size(), 2u);
  for (size_t i = 0; i < 2; ++i) {
    const Transaction tx = Transaction::deserialize(crypto::hex_to_bytes(offered.get("tx_data")[i].string));
    EXPECT_EQ(entries[i].get("data").string, offered.get("tx_data")[i].string);
    EXPECT_EQ(entries[i].get("txid").string, tx.get_txid().to_hex());
    EXPECT_EQ(entries[i].get("type").string, i == 0 ? "treasury_distribution" : "");
    EXPECT_EQ(entries[i].object.size(), i == 0 ? 3u : 2u);
  }
  EXPECT_NEAR(offered.get("curtime").number, static_cast<double>(unix_time_seconds()), 60);
  JsonValue rest = offered;
  for (const char* key : {"transactions", "tx_data", "curtime"}) {
    rest.object.erase(key);
  }
  EXPECT_EQ(rest.to_string(),
            fill(R"({"bits":%,"coinbasevalue":800010000,"height":14,"miner_reward":800000000,"miningaddress":"%",)"
                 R"("prevblocktime":%,"previousblockhash":"%","total_fees":20001,"treasury_address":"%",)"
                 R"("treasury_value":10000,"version":1})",
                 scene_.chain().expected_bits_for_child_of(tip.get_hash()), sample_key(3).address, tip.header.timestamp,
                 tip.get_hash().to_hex(), treasury::get_address()));
}

}  // namespace
}  // namespace norvel::rpc
