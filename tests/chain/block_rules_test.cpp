// The rules of a block on its state as scenes: a valid block, one thing changed, the verdict.

#include "chain/block_rules.h"

#include <gtest/gtest.h>

#include <limits>

#include "chain/genesis.h"
#include "consensus/distribution.h"
#include "consensus/treasury.h"
#include "core/clock.h"
#include "support/captured_stderr.h"
#include "support/chain_builder.h"
#include "support/ledger_samples.h"

namespace norvel {
namespace {

constexpr const char kUnexpected[] =
    "Block contains unexpected TREASURY_DISTRIBUTION tx (no pending distribution)";
constexpr const char kMismatch[] = "Coinbase treasury output value mismatch (expected 10000, got ";
constexpr int64_t kReward = 800'000'000;
constexpr int64_t kPool = 30'000;

// Block 7: its coinbase, a payment of an old coin with a fee of 20,000, and one of its two outputs paid on.
// Distributions are due every ten blocks.
struct Scene {
  Scene() {
    treasury.distribution_interval = 10;
    treasury.distribution_pool = kPool;
    treasury.pending_miner_counts = {{sample_key(3).address, 1}};
    utxos.add_utxo(coin(0).first, coin(0).second);
    utxos.add_utxo(coin(1).first, coin(1).second);
    block.height = 7;
    block.header.timestamp = 1'700'000'000;
    txs.push_back(Transaction::create_coinbase_tx(sample_key(3).address, kReward, 20'000, 7, ""));
    txs.push_back(pay(sample_key(1), {coin(0)}, {70'000, 10'000}, 1));
    txs.push_back(pay(sample_key(1), {output_of(txs[1])}, {70'000}));
  }

  static std::pair<OutPoint, TxOut> coin(uint32_t index) {
    return {{uint256(uint64_t{5}), index}, TxOut(100'000, sample_key(1).pubkey_hash)};
  }

  void add_payment(const std::pair<OutPoint, TxOut>& input, int64_t value) {
    txs.push_back(pay(sample_key(1), {input}, {value}));
  }

  // Makes the fees 19,999.
  void lower_fees() { txs[1] = pay(sample_key(1), {coin(0)}, {80'001}, 1), txs.resize(2); }

  void lock(uint32_t locktime) {
    Transaction tx = txs[2];
    tx.locktime = locktime;
    tx.inputs[0].sequence = 0;
    tx.sign_input(0, sample_key(1).private_key, Script(txs[1].outputs[0].locking_script()));
    txs[2] = tx;
  }

  void distribute(uint32_t height, size_t at = 1, int64_t pool = kPool) {
    block.height = height;
    txs.insert(txs.begin() + static_cast<std::ptrdiff_t>(at),
               treasury::create_distribution_tx(pool, treasury.pending_miner_counts, height));
  }

  // "" when the block may be connected.
  std::string verdict() {
    for (Transaction& tx : txs) {
      tx.invalidate_cache();
    }
    std::string error;
    const bool valid = validate_block_transactions(block, utxos, treasury, verified, error);
    EXPECT_EQ(valid, error.empty());
    return error;
  }

  UTXOSet utxos;
  TreasuryState treasury;
  VerifiedInputs verified{1'024};
  Block block;
  std::vector<Transaction>& txs = block.transactions;
};

TEST(BlockRules, OneChangeDecides) {
  const struct SceneRow {
    const char* label;
    void (*change)(Scene&);
    std::string error;
  } rows[] = {
      {"nothing", [](Scene&) {}, ""},
      {"nothing at all", [](Scene& s) { s.txs.clear(); }, "Block has no transactions"},
      {"no coinbase", [](Scene& s) { s.txs.erase(s.txs.begin()); }, "First transaction is not coinbase"},
      {"a second one", [](Scene& s) { s.txs.push_back(s.txs[0]); }, "Non-first transaction is coinbase"},
      {"a late distribution", [](Scene& s) { s.distribute(10, 2); },
       "TREASURY_DISTRIBUTION tx may only appear at index 1"},
      {"more out than in", [](Scene& s) { s.add_payment(Scene::coin(1), 100'001); },
       "Invalid transaction in block [3]: Outputs exceed inputs"},
      {"a broken signature", [](Scene& s) { s.txs[2].inputs[0].signature[9] ^= 1; },
       "Invalid transaction in block [2]: Invalid signature for input 0"},
      {"an unknown type", [](Scene& s) { s.txs[2].type = static_cast<TransactionType>(9); },
       "Invalid transaction in block [2]: Transaction type not allowed: 9"},
      {"spent before it is made", [](Scene& s) { std::swap(s.txs[1], s.txs[2]); },
       "Invalid transaction in block [1]: Spent output not found for input 0"},
      {"locked to the height before", [](Scene& s) { s.lock(6); }, ""},
      {"locked to the height", [](Scene& s) { s.lock(7); }, "Invalid transaction in block [2]: Transaction is not final"},
      {"locked to the second before", [](Scene& s) { s.lock(1'699'999'999); }, ""},
      {"locked to the second", [](Scene& s) { s.lock(1'700'000'000); },
       "Invalid transaction in block [2]: Transaction is not final"},
      {"the coinbase paid on", [](Scene& s) { s.txs[0].outputs[0].pubkey_hash = sample_key(1).pubkey_hash,
                                              s.txs[0].outputs[0].script_pubkey.clear(),
                                              s.add_payment(output_of(s.txs[0]), kReward); }, ""},
      {"an old coin twice", [](Scene& s) { s.add_payment(Scene::coin(0), 99'000); }, "Double-spend within block"},
      {"a new one twice", [](Scene& s) { s.add_payment(output_of(s.txs[1]), 69'000); }, "Double-spend within block"},
      {"nobody paid", [](Scene& s) { s.txs[0].outputs.clear(); }, "Coinbase has no outputs"},
      {"a unit above the reward", [](Scene& s) { ++s.txs[0].outputs[0].value; },
       "Coinbase miner output exceeds block reward (800000001 > 800000000"},
      {"before the halving", [](Scene& s) { s.block.height = 1'259'999; }, ""},
      {"after it", [](Scene& s) { s.block.height = 1'260'001; },
       "Coinbase miner output exceeds block reward (800000000 > 400000000"},
      {"64 halvings", [](Scene& s) { s.block.height = 64 * 1'260'000 + 1; },
       "Coinbase miner output exceeds block reward (800000000 > 0"},
      {"the treasury as miner", [](Scene& s) { s.txs[0].outputs[0] = TxOut(1, treasury::get_pubkey_hash()); },
       "Coinbase output[0] must be the miner address, not the treasury"},
      {"fees of 19,999 unshared", [](Scene& s) { s.lower_fees(), s.txs[0].outputs.resize(1); }, ""},
      {"fees of 20,000 unshared", [](Scene& s) { s.txs[0].outputs.resize(1); }, "Coinbase missing treasury output"},
      {"shared with another", [](Scene& s) { s.txs[0].outputs[1] = s.txs[0].outputs[0]; },
       "Coinbase output[1] does not go to the treasury address"},
      {"one unit less", [](Scene& s) { s.txs[0].outputs[1].value = 9'999; }, ""},
      {"one more", [](Scene& s) { s.txs[0].outputs[1].value = 10'001; }, ""},
      {"two less", [](Scene& s) { s.txs[0].outputs[1].value = 9'998; }, std::string(kMismatch) + "9998"},
      {"two more", [](Scene& s) { s.txs[0].outputs[1].value = 10'002; }, std::string(kMismatch) + "10002"},
      {"a distribution in time", [](Scene& s) { s.treasury.distribution_pending = true, s.distribute(20); }, ""},
      {"none pending", [](Scene& s) { s.distribute(20); }, kUnexpected},
      {"none pending, none made", [](Scene& s) { s.block.height = 20; }, ""},
      {"none made", [](Scene& s) { s.treasury.distribution_pending = true, s.block.height = 20; },
       "Block at distribution height 20 must include a TREASURY_DISTRIBUTION transaction"},
      {"a wrong one", [](Scene& s) { s.treasury.distribution_pending = true, s.distribute(20, 1, kPool + 2); },
       "Invalid TREASURY_DISTRIBUTION tx: Distribution tx output amount mismatch (expected 30000, got 30002"},
      {"too early", [](Scene& s) { s.treasury.distribution_pending = true, s.distribute(19); },
       "TREASURY_DISTRIBUTION tx found at non-distribution height 19"},
      {"its output paid on", [](Scene& s) { s.treasury.distribution_pending = true,
                                            s.treasury.pending_miner_counts = {{sample_key(1).address, 1}},
                                            s.distribute(20), s.add_payment(output_of(s.txs[1]), kPool); }, ""},
  };
  for (const SceneRow& row : rows) {
    SCOPED_TRACE(row.label);
    Scene scene;
    row.change(scene);
    EXPECT_EQ(scene.verdict(), row.error);
  }
}

// All faults at once, then one less from the front each time.
TEST(BlockRules, TheFirstFaultInTheOrderOfRulesIsReported) {
  const struct {
    const char* error;
    void (*spoil)(Scene&);
  } faults[] = {
      {"Non-first transaction is coinbase", [](Scene& s) { s.txs.push_back(s.txs[0]); }},
      {"TREASURY_DISTRIBUTION tx may only appear at index 1", [](Scene& s) { s.distribute(20, s.txs.size()); }},
      {"Invalid transaction in block [3]: Transaction has no outputs",
       [](Scene& s) { s.add_payment(Scene::coin(0), 0), s.txs.back().outputs.clear(); }},
      {"Double-spend within block", [](Scene& s) { s.add_payment(Scene::coin(0), 1); }},
      {"Coinbase miner output exceeds block reward (800000001 > 800000000",
       [](Scene& s) { ++s.txs[0].outputs[0].value; }},
      {"Coinbase missing treasury output", [](Scene& s) { s.txs[0].outputs.resize(1); }},
      {"Block at distribution height 20 must include a TREASURY_DISTRIBUTION transaction",
       [](Scene& s) { s.treasury.distribution_pending = true, s.block.height = 20; }},
  };
  for (size_t first = 0; first < std::size(faults); ++first) {
    Scene scene;
    for (size_t i = std::size(faults); i-- > first;) {
      // The payment without outputs stands before the second spender.
      faults[i].spoil(scene);
      if (i == 2 && first <= 2 && scene.txs.size() > 4) {
        std::swap(scene.txs[3], scene.txs[4]);
      }
    }
    EXPECT_EQ(scene.verdict(), faults[first].error);
  }
}

TEST(BlockRules, ContextFreeRulesNeedNoState) {
  const Block genesis = make_genesis_block();
  Transaction first = pay(sample_key(1), {Scene::coin(0)}, {1});
  Transaction second = pay(sample_key(1), {Scene::coin(1)}, {1});
  const Block valid = make_child(genesis, {.txs = {first, second}});
  std::string error;
  EXPECT_TRUE(validate_context_free(valid, ClockRule::APPLY, error)) << error;

  Block doubled = valid;
  doubled.transactions.push_back(second);
  ASSERT_EQ(doubled.calculate_merkle_root(), valid.header.merkle_root);
  EXPECT_FALSE(validate_context_free(doubled, ClockRule::APPLY, error));
  EXPECT_EQ(error, "Block contains a transaction twice");

  Block unread = valid;
  unread.transactions[2].outputs[0].pubkey_hash.resize(19);
  seal(unread);
  EXPECT_FALSE(validate_context_free(unread, ClockRule::APPLY, error));
  EXPECT_EQ(error, "Transaction in block [2] does not fit its byte format");

  Block early = valid;
  early.header.timestamp = unix_time_seconds() + 8'000;
  mine(early);
  EXPECT_TRUE(validate_context_free(early, ClockRule::SKIP, error));
  EXPECT_FALSE(validate_context_free(early, ClockRule::APPLY, error));
  EXPECT_EQ(error, "Block timestamp too far in the future");

  early.header.version = 0;
  mine(early);
  EXPECT_FALSE(validate_context_free(early, ClockRule::SKIP, error));
  EXPECT_EQ(error, "Invalid block version");
}

TEST(BlockRules, FeesCountWhatIsPaidOnlyWherePositive) {
  Scene scene;
  EXPECT_EQ(block_fees(scene.block, scene.utxos), 20'000);
  scene.add_payment(output_of(scene.txs[1], 1), 9'000);
  EXPECT_EQ(block_fees(scene.block, scene.utxos), 21'000);
  scene.add_payment(Scene::coin(1), 200'000);
  EXPECT_EQ(block_fees(scene.block, scene.utxos), 21'000) << "more out than in";
  scene.add_payment(Scene::coin(2), 0);
  EXPECT_EQ(block_fees(scene.block, scene.utxos), 21'000) << "nothing known of its input";
  scene.distribute(20);
  EXPECT_EQ(block_fees(scene.block, scene.utxos), 21'000) << "a distribution pays none";
  for (const uint32_t index : {7, 8}) {
    const std::pair huge(OutPoint{uint256(), index}, TxOut(std::numeric_limits<int64_t>::max(), {}));
    scene.utxos.add_utxo(huge.first, huge.second);
    scene.add_payment(huge, 0);
  }
  EXPECT_EQ(block_fees(scene.block, scene.utxos), std::numeric_limits<int64_t>::max());
}

TEST(BlockRules, EachInputIsVerifiedAheadOfTheRules) {
  Scene scene;
  for (uint32_t i = 10; i < 40; ++i) {
    scene.utxos.add_utxo(Scene::coin(i).first, Scene::coin(i).second);
    scene.add_payment(Scene::coin(i), 100'000);
  }
  const auto inputs_are_known = [&] {
    const CapturedStderr quiet;
    std::string ignored;
    return scene.block.has_valid_inputs(ignored, scene.utxos, [&](const auto& tx, size_t input_index, const TxOut& spent) {
      return scene.verified.contains(tx, input_index, spent);
    });
  };
  std::atomic<bool> stop{true};
  EXPECT_EQ(verify_block_inputs(scene.block, scene.utxos, scene.verified, stop), InputCheck::STOPPED);
  EXPECT_FALSE(scene.verified.contains(scene.txs[1], 0, Scene::coin(0).second));
  stop = false;
  EXPECT_EQ(verify_block_inputs(scene.block, scene.utxos, scene.verified, stop), InputCheck::DONE);
  EXPECT_TRUE(inputs_are_known());

  Transaction& bad = scene.txs[3];
  bad.inputs[0].signature[9] ^= 1;
  bad.invalidate_cache();
  scene.txs.back().inputs[0].prevout.index = 99;
  EXPECT_EQ(verify_block_inputs(scene.block, scene.utxos, scene.verified, stop), InputCheck::DONE);
  EXPECT_FALSE(inputs_are_known());
  EXPECT_FALSE(scene.verified.contains(bad, 0, Scene::coin(10).second));
}

}  // namespace
}  // namespace norvel
