// Blocks that break a rule at each stage, through every entrance: on the tip, on
// a side chain that becomes the heaviest, as an orphan, from the block files at a
// start; and their transactions through the pool into a template. The rules
// themselves are tried in block_rules_test.cpp.

#include <functional>
#include <limits>

#include "chain/chain_scene.h"
#include "consensus/distribution.h"
#include "mempool/admission.h"
#include "mempool/mempool.h"
#include "rpc/template_builder.h"
#include "script/script.h"

namespace norvel {
namespace {

constexpr uint32_t kSceneInterval = 5;
constexpr int64_t kSharedFee = 20'000;
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr const char kOutOfRange[] = "Value out of range in output 0";
const std::string kInvalidFirst = "Invalid transaction in block [1]: ";

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

// A payment of the coin of block 2, changed and signed again.
Scene altered(const char* label, const std::string& reason, const std::function<void(Transaction&)>& change) {
  const auto make = [change](const Past& past, const Block& parent) {
    Transaction tx = past.spend(1, 0);
    change(tx);
    for (size_t i = 0; i < tx.inputs.size(); ++i) {
      tx.sign_input(i, sample_key(1).private_key, Script(past.coin(1).second.locking_script()));
    }
    tx.invalidate_cache();
    return with_transaction(parent, tx);
  };
  return {label, make, 3, kInvalidFirst + reason};
}

Scene null_outpoint(const char* label, TransactionType type) {
  return altered(label, "Null outpoint in input 0", [type](Transaction& tx) {
    tx.type = type;
    tx.inputs[0].prevout = OutPoint::null();
  });
}

// The pool at height 5 is half of the 50,000 of block 3; miner 1 found blocks 1 to 4.
Transaction distribution(int64_t pool = 25'000) {
  return treasury::create_distribution_tx(pool, {{sample_key(1).address, 4}}, kSceneInterval);
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
      altered("more out than in", "Outputs exceed inputs", [](Transaction& tx) { tx.outputs[0].value += 1; }),
      altered("minus one", kOutOfRange, [](Transaction& tx) { tx.outputs[0].value = -1; }),
      altered("all money and one", kOutOfRange, [](Transaction& tx) { tx.outputs[0].value = kMoneyMax + 1; }),
      altered("a sum that wraps", kOutOfRange, [](Transaction& tx) { tx.outputs.assign(2, TxOut(kMax, Bytes(20))); }),
      altered("all money twice", "Sum of outputs out of range",
              [](Transaction& tx) { tx.outputs.assign(2, TxOut(kMoneyMax, Bytes(20))); }),
      altered("no inputs", "Transaction has no inputs", [](Transaction& tx) { tx.inputs.clear(); }),
      altered("no outputs", "Transaction has no outputs", [](Transaction& tx) { tx.outputs.clear(); }),
      altered("one outpoint twice", "Output spent twice by one transaction",
              [](Transaction& tx) { tx.inputs.push_back(tx.inputs[0]); }),
      null_outpoint("a null outpoint", TransactionType::TRANSFER),
      null_outpoint("a null outpoint in a note", TransactionType::MESSAGE),
      null_outpoint("a null outpoint in a contract", TransactionType::HTLC_FUNDING),
      altered("a type without meaning", "Transaction type not allowed: 7",
              [](Transaction& tx) { tx.type = TransactionType{7}; }),
      altered("a lock time that has not come", "Transaction is not final",
              [](Transaction& tx) { tx.locktime = 4, tx.inputs[0].sequence = 0; }),
      {"an output made later",
       [](const Past& past, const Block& parent) {
         const Transaction tx = past.spend(1, 0);
         return make_child(parent, {.txs = {pay(sample_key(2), {output_of(tx)}, {1}), tx}});
       },
       3, "UTXO not found for transaction input"},
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
       [](const Past& past, const Block& parent) { return with_transaction(parent, past.spend(1, kSharedFee)); }, 3,
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
  RefusalScenes() : past_(GetParam().pays_fee), scene_(small_options(kSceneInterval)) {
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
  ChainScene other(small_options(kSceneInterval));
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

TEST_P(RefusalScenes, ThroughThePoolIntoATemplate) {
  Mempool pool(5'000'000);
  TransactionAdmission admission(scene_.chain(), pool);
  for (const Transaction& tx : bad_.transactions) {
    std::string reason;
    int64_t fee = 0;
    admission.accept(Transaction::deserialize(tx.serialize()), reason, fee);
  }
  if (GetParam().reason.starts_with(kInvalidFirst)) {
    EXPECT_EQ(pool.size(), 0u);
  }
  const auto offered = rpc::build_template(scene_.chain(), pool, bad_.header.timestamp);
  scene_.add(make_child(parent_, {.txs = offered.transactions, .fees = offered.total_fees}));
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
