// The rules of a block on its state as scenes: a valid block, one thing changed, the verdict.

#include "chain/block_rules.h"

#include <gtest/gtest.h>

#include <limits>
#include <tuple>

#include "chain/genesis.h"
#include "chain/verified_inputs.h"
#include "consensus/distribution.h"
#include "consensus/treasury.h"
#include "core/clock.h"
#include "script/script.h"
#include "support/captured_stderr.h"
#include "support/chain_builder.h"
#include "support/ledger_samples.h"

namespace norvel {
namespace {

constexpr const char kMisplaced[] = "TREASURY_DISTRIBUTION tx may only appear at index 1";
constexpr const char kUnexpected[] = "Block contains unexpected TREASURY_DISTRIBUTION tx (no pending distribution)";
constexpr const char kNotFinal[] = "Invalid transaction in block [2]: Transaction is not final";
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr const char kExceeds[] = "Coinbase miner output exceeds block reward ";
constexpr const char kMismatch[] = "Coinbase treasury output value mismatch (expected 10000, got ";

// Block 7: its coinbase, a payment of an old coin with a fee of 20,000, and one of its two outputs paid on.
// A distribution is due at the next multiple of ten.
struct Scene {
  Scene() {
    treasury.distribution_interval = 10;
    treasury.distribution_pool = 30'000;
    treasury.pending_miner_counts = {{sample_key(1).address, 1}};
    treasury.distribution_pending = true;
    utxos.add_utxo(coin(0).first, coin(0).second);
    utxos.add_utxo(coin(1).first, coin(1).second);
    block.height = 7;
    block.header.timestamp = 1'700'000'000;
    txs.push_back(Transaction::create_coinbase_tx(sample_key(1).address, 800'000'000, 20'000, 7, ""));
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

  void set_pending(bool is_pending) { treasury.distribution_pending = is_pending; }

  void pay_on(size_t index) { add_payment(output_of(txs[index]), txs[index].outputs[0].value); }

  void distribute(uint32_t height, std::ptrdiff_t at = 1) {
    block.height = height;
    txs.insert(txs.begin() + at, treasury::create_distribution_tx(30'000, treasury.pending_miner_counts, height));
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
  const std::tuple<const char*, void (*)(Scene&), std::string> rows[] = {
      {"nothing", [](Scene&) {}, ""},
      {"nothing at all", [](Scene& s) { s.txs.clear(); }, "Block has no transactions"},
      {"no coinbase", [](Scene& s) { s.txs.erase(s.txs.begin()); }, "First transaction is not coinbase"},
      {"a second one", [](Scene& s) { s.txs.push_back(s.txs[0]); }, "Non-first transaction is coinbase"},
      {"a late distribution", [](Scene& s) { s.distribute(20, 2); }, kMisplaced},
      {"an invalid payment", [](Scene& s) { s.add_payment(Scene::coin(1), 100'001); },
       "Invalid transaction in block [3]: Outputs exceed inputs"},
      {"a broken signature", [](Scene& s) { s.txs[2].inputs[0].signature[9] ^= 1; },
       "Invalid transaction in block [2]: Invalid signature for input 0"},
      {"spent before it is made", [](Scene& s) { std::swap(s.txs[1], s.txs[2]); },
       "Invalid transaction in block [1]: Spent output not found for input 0"},
      {"locked to the height before", [](Scene& s) { s.lock(6); }, ""},
      {"locked to the height", [](Scene& s) { s.lock(7); }, kNotFinal},
      {"locked to the second", [](Scene& s) { s.lock(1'700'000'000); }, kNotFinal},
      {"the coinbase paid on", [](Scene& s) { s.pay_on(0); }, ""},
      {"an old coin twice", [](Scene& s) { s.add_payment(Scene::coin(0), 99'000); }, "Double-spend within block"},
      {"a new one twice", [](Scene& s) { s.add_payment(output_of(s.txs[1]), 69'000); }, "Double-spend within block"},
      {"nobody paid", [](Scene& s) { s.txs[0].outputs.clear(); }, "Coinbase has no outputs"},
      {"a unit above", [](Scene& s) { ++s.txs[0].outputs[0].value; }, std::string(kExceeds) + "(800000001 > 800000000"},
      {"before the halving", [](Scene& s) { s.block.height = 1'259'999; }, ""},
      {"after it", [](Scene& s) { s.block.height = 1'260'001; }, std::string(kExceeds) + "(800000000 > 400000000"},
      {"after 64", [](Scene& s) { s.block.height = 80'640'001; }, std::string(kExceeds) + "(800000000 > 0"},
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
      {"the most for the treasury", [](Scene& s) { s.txs[0].outputs[1].value = kMax; },
       kMismatch + std::to_string(kMax)},
      {"the least", [](Scene& s) { s.txs[0].outputs[1].value = -kMax - 1; }, kMismatch + std::to_string(-kMax - 1)},
      {"a distribution in time", [](Scene& s) { s.distribute(20), s.pay_on(1); }, ""},
      {"one that is not pending", [](Scene& s) { s.distribute(20), s.set_pending(false); }, kUnexpected},
      {"none", [](Scene& s) { s.block.height = 20, s.set_pending(false); }, ""},
      {"none while one is pending", [](Scene& s) { s.block.height = 20; },
       "Block at distribution height 20 must include a TREASURY_DISTRIBUTION transaction"},
      {"one unit of tolerance used up", [](Scene& s) { s.distribute(20), s.txs[1].outputs[0].value += 2; },
       "Invalid TREASURY_DISTRIBUTION tx: Distribution tx output amount mismatch (expected 30000, got 30002"},
      {"one too early", [](Scene& s) { s.distribute(19); },
       "TREASURY_DISTRIBUTION tx found at non-distribution height 19"},
      {"late, and a bad payment", [](Scene& s) { s.distribute(20, 2), s.add_payment(Scene::coin(1), -1); }, kMisplaced},
      {"a bad payment and a bad coinbase", [](Scene& s) { s.lock(7), s.txs[0].outputs.clear(); }, kNotFinal},
      {"a bad coinbase and none", [](Scene& s) { s.block.height = 20, s.txs[0].outputs.clear(); },
       "Coinbase has no outputs"},
  };
  for (const auto& [label, change, want] : rows) {
    SCOPED_TRACE(label);
    Scene scene;
    change(scene);
    EXPECT_EQ(scene.verdict(), want);
  }
}

TEST(BlockRules, ContextFreeRulesNeedNoState) {
  const Transaction payment = pay(sample_key(1), {Scene::coin(0)}, {1});
  const Block valid = make_child(make_genesis_block(), {.txs = {pay(sample_key(1), {Scene::coin(1)}, {1}), payment}});
  const auto verdict = [](const Block& block, ClockRule clock) {
    std::string error;
    const bool passes = validate_context_free(block, clock, error);
    EXPECT_EQ(passes, error.empty());
    return error;
  };
  EXPECT_EQ(verdict(valid, ClockRule::APPLY), "");

  Block doubled = valid;
  doubled.transactions.push_back(payment);
  EXPECT_EQ(verdict(doubled, ClockRule::APPLY), "Block contains a transaction twice") << "under the same Merkle root";

  Block unread = valid;
  unread.transactions[2].outputs[0].pubkey_hash.resize(19);
  seal(unread);
  EXPECT_EQ(verdict(unread, ClockRule::APPLY), "Transaction in block [2] does not fit its byte format");

  Block early = valid;
  early.header.timestamp = unix_time_seconds() + 8'000;
  mine(early);
  EXPECT_EQ(verdict(early, ClockRule::SKIP), "");
  EXPECT_EQ(verdict(early, ClockRule::APPLY), "Block timestamp too far in the future");
  early.header.version = 0;
  mine(early);
  EXPECT_EQ(verdict(early, ClockRule::SKIP), "Invalid block version");
}

TEST(BlockRules, FeesCountWhatIsPaidOnlyWherePositive) {
  Scene scene;
  scene.add_payment(output_of(scene.txs[1], 1), 9'000);
  scene.distribute(20);
  EXPECT_EQ(block_fees(scene.block, scene.utxos), 21'000);
  scene.add_payment(Scene::coin(1), 200'000);
  EXPECT_EQ(block_fees(scene.block, scene.utxos), 21'000) << "more out than in";
  scene.add_payment(Scene::coin(2), 0);
  EXPECT_EQ(block_fees(scene.block, scene.utxos), 21'000) << "nothing known of its input";
  for (const uint32_t index : {7u, 8u}) {
    scene.utxos.add_utxo({uint256(), index}, TxOut(kMax, {}));
    scene.add_payment({{uint256(), index}, TxOut()}, 0);
  }
  EXPECT_EQ(block_fees(scene.block, scene.utxos), kMax);
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
    return scene.block.has_valid_inputs(ignored, scene.utxos, [&](const auto& tx, size_t i, const TxOut& spent) {
      return scene.verified.contains(tx, i, spent);
    });
  };
  std::atomic<bool> stop{true};
  EXPECT_EQ(verify_block_inputs(scene.block, scene.utxos, scene.verified, stop), InputCheck::STOPPED);
  EXPECT_FALSE(scene.verified.contains(scene.txs[1], 0, Scene::coin(0).second));
  stop = false;
  EXPECT_EQ(verify_block_inputs(scene.block, scene.utxos, scene.verified, stop), InputCheck::DONE);
  EXPECT_TRUE(inputs_are_known());

  scene.txs[3].inputs[0].signature[9] ^= 1;
  scene.txs[3].invalidate_cache();
  scene.txs.back().inputs[0].prevout.index = 99;
  EXPECT_EQ(verify_block_inputs(scene.block, scene.utxos, scene.verified, stop), InputCheck::DONE);
  EXPECT_FALSE(inputs_are_known());
}

TEST(VerifiedInputs, AVerdictHoldsForWhatItDependsOn) {
  const TxOut coin(5, sample_key(1).pubkey_hash);
  Transaction tx = pay(sample_key(1), {{{uint256(), 0}, coin}, {{uint256(), 1}, coin}}, {9});
  VerifiedInputs verified(64);
  EXPECT_FALSE(verified.contains(tx, 0, coin));
  EXPECT_TRUE(verified.verify(tx, 0, coin));
  EXPECT_TRUE(verified.contains(tx, 0, coin));
  EXPECT_FALSE(verified.contains(tx, 1, coin)) << "another input";
  EXPECT_FALSE(verified.contains(tx, 0, TxOut(5, sample_key(2).pubkey_hash))) << "another script";
  tx.inputs[0].signature[9] ^= 1;
  tx.invalidate_cache();
  EXPECT_FALSE(verified.verify(tx, 0, coin)) << "another signature";
  EXPECT_FALSE(verified.contains(tx, 0, coin)) << "bad verdicts are not remembered";
  verified.remember(tx, 0, coin);
  EXPECT_TRUE(verified.verify(tx, 0, coin)) << "what is remembered is not checked";
}

TEST(VerifiedInputs, AFullTableKeepsTheNewest) {
  VerifiedInputs verified(64);
  size_t kept = 0;
  for (size_t i = 0; i < 1'000; ++i) {
    verified.remember(Transaction(), i, TxOut());
    ASSERT_TRUE(verified.contains(Transaction(), i, TxOut())) << i;
  }
  for (size_t i = 0; i < 1'000; ++i) {
    kept += verified.contains(Transaction(), i, TxOut()) ? 1 : 0;
  }
  EXPECT_EQ(kept, 64u);
}

}  // namespace
}  // namespace norvel
