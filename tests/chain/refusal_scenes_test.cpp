// Blocks that break a rule at each stage, through every entrance: on the tip, on
// a side chain that becomes the heaviest, as an orphan, from the block files at a
// start. The rules themselves are tried in block_rules_test.cpp.

#include <functional>

#include "chain/chain_scene.h"
#include "consensus/distribution.h"
#include "script/script.h"

namespace norvel {
namespace {

constexpr uint32_t kInterval = 5;
constexpr int64_t kFee = 20'000;

// Blocks 1 to 3, of which block 3 has paid a fee, so that block 4 freezes a pool
// for the distribution at height 5. Coins of blocks 1 and 2 belong to key 1.
// Without the fee nothing is due there.
struct Past {
  explicit Past(bool pays_fee) {
    const int64_t fee = pays_fee ? 50'000 : 0;
    blocks = make_branch(make_genesis_block(), 2);
    blocks.push_back(make_child(blocks[1], {.txs = {spend(0, fee)}, .fees = fee}));
  }

  std::pair<OutPoint, TxOut> coin(size_t index) const { return output_of(blocks[index].transactions[0]); }

  Transaction spend(size_t index, int64_t fee) const {
    return pay(sample_key(1), {coin(index)}, {coin(index).second.value - fee});
  }

  std::vector<Block> blocks;
};

struct Scene {
  const char* label;
  // The bad block on the given parent, which stands at height 3 or, for rules of distributions, 4.
  std::function<Block(const Past&, const Block& parent)> make;
  uint32_t parent_height;
  std::string reason;
  bool pays_fee = true;

  friend void PrintTo(const Scene& scene, std::ostream* out) { *out << scene.label; }
};

Block sealed(Block block) {
  seal(block);
  return block;
}

Block with_transaction(const Block& parent, const Transaction& tx, int64_t fees = 0) {
  return make_child(parent, {.txs = {tx}, .fees = fees});
}

// The pool at height 5 is half of the 50,000 of block 3; miner 1 found blocks 1 to 4.
Transaction distribution(int64_t pool = 25'000) {
  return treasury::create_distribution_tx(pool, {{sample_key(1).address, 4}}, kInterval);
}

std::vector<Scene> scenes() {
  return {
      {"a coin that does not exist",
       [](const Past& past, const Block& parent) {
         const auto coin = past.coin(1);
         return with_transaction(parent, pay(sample_key(1), {{{uint256(uint64_t{7}), 0}, coin.second}}, {1}));
       },
       3, "UTXO not found for transaction input"},
      {"the coin of another",
       [](const Past& past, const Block& parent) {
         return with_transaction(parent, pay(sample_key(2), {past.coin(1)}, {1}));
       },
       3, "Invalid transaction signature in block"},
      {"more out than in",
       [](const Past& past, const Block& parent) { return with_transaction(parent, past.spend(1, -1)); }, 3,
       "Invalid transaction in block [1]: Outputs exceed inputs"},
      {"a lock time that has not come",
       [](const Past& past, const Block& parent) {
         Transaction tx = past.spend(1, 0);
         tx.locktime = 4;
         tx.inputs[0].sequence = 0;
         tx.sign_input(0, sample_key(1).private_key, Script(past.coin(1).second.locking_script()));
         return with_transaction(parent, tx);
       },
       3, "Invalid transaction in block [1]: Transaction is not final"},
      {"a coin spent twice",
       [](const Past& past, const Block& parent) {
         return make_child(parent, {.txs = {past.spend(1, 1), past.spend(1, 2)}});
       },
       3, "Double-spend within block"},
      {"too high a reward",
       [](const Past&, const Block& parent) {
         Block block = make_child(parent);
         block.transactions[0].outputs[0].value += 1;
         return sealed(block);
       },
       3, "Coinbase miner output exceeds block reward (800000001 > 800000000"},
      {"fees not shared",
       [](const Past& past, const Block& parent) { return with_transaction(parent, past.spend(1, kFee)); }, 3,
       "Coinbase missing treasury output"},
      {"a distribution too early",
       [](const Past&, const Block& parent) { return with_transaction(parent, distribution()); }, 3,
       "TREASURY_DISTRIBUTION tx found at non-distribution height 4"},
      {"a distribution that is not due",
       [](const Past&, const Block& parent) { return with_transaction(parent, distribution()); }, 4,
       "Block contains unexpected TREASURY_DISTRIBUTION tx (no pending distribution)", false},
      {"no distribution", [](const Past&, const Block& parent) { return make_child(parent); }, 4,
       "Block at distribution height 5 must include a TREASURY_DISTRIBUTION transaction"},
      {"too much distributed",
       [](const Past&, const Block& parent) { return with_transaction(parent, distribution(25'002)); }, 4,
       "Invalid TREASURY_DISTRIBUTION tx: Distribution tx output amount mismatch (expected 25000, got 25002"},
  };
}

class RefusalScenes : public testing::TestWithParam<Scene> {
 protected:
  RefusalScenes() : past_(GetParam().pays_fee), scene_(small_options(kInterval)) {
    scene_.add_all(past_.blocks);
    if (GetParam().parent_height == 4) {
      scene_.extend();
    }
    parent_ = scene_.tip();
    bad_ = GetParam().make(past_, parent_);
  }

  Past past_;
  ChainScene scene_;
  Block parent_;
  Block bad_;
};

TEST_P(RefusalScenes, OnTheTip) {
  EXPECT_EQ(scene_.refusal(bad_), GetParam().reason);
  EXPECT_EQ(scene_.refusal(bad_), GetParam().reason) << "remembered";
  EXPECT_EQ(scene_.refusal(make_child(bad_)).substr(0, 7), "orphan:");
}

TEST_P(RefusalScenes, OnASideChainThatBecomesTheHeaviest) {
  if (GetParam().parent_height == 4 && GetParam().pays_fee) {
    scene_.add(make_child(parent_, {.txs = {distribution()}, .message = "active"}));
  } else {
    scene_.extend({.message = "active"});
  }
  scene_.add(bad_);
  const std::string whole = "Reorg to side chain failed: candidate branch failed validation: " + GetParam().reason;
  EXPECT_EQ(scene_.refusal(make_child(bad_)), whole);
  EXPECT_EQ(scene_.refusal(make_child(bad_, {.message = "another"})), whole);
  scene_.reopen();
  EXPECT_EQ(scene_.refusal(make_child(bad_, {.message = "another"})), whole) << "after a restart";
}

TEST_P(RefusalScenes, AsAnOrphan) {
  ChainScene other(small_options(kInterval));
  EXPECT_EQ(other.refusal(bad_).substr(0, 7), "orphan:");
  for (uint32_t height = 1; height <= parent_.height; ++height) {
    other.add(scene_.block_at(height));
  }
  EXPECT_EQ(other.chain().get_best_hash(), parent_.get_hash());
  EXPECT_EQ(other.chain().get_snapshot_bytes(), scene_.chain().get_snapshot_bytes());
}

TEST_P(RefusalScenes, FromTheBlockFiles) {
  const Bytes before = scene_.chain().get_snapshot_bytes();
  ASSERT_TRUE(scene_.chain().save_block_to_disk(bad_));
  ASSERT_TRUE(scene_.chain().save_block_to_disk(make_child(bad_)));
  scene_.reopen();
  EXPECT_EQ(scene_.chain().get_snapshot_bytes(), before);
}

INSTANTIATE_TEST_SUITE_P(EachRule, RefusalScenes, testing::ValuesIn(scenes()), [](const auto& row) {
  std::string name = row.param.label;
  for (char& letter : name) {
    letter = letter == ' ' ? '_' : letter;
  }
  return name;
});

}  // namespace
}  // namespace norvel
