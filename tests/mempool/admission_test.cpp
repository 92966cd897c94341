// What the pool takes from outside, and what it still holds after the chain has
// moved.

#include "mempool/admission.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <tuple>

#include "chain/chain_scene.h"
#include "core/clock.h"
#include "mempool/mempool.h"
#include "mempool/pool_updater.h"
#include "script/script.h"
#include "support/byte_strings.h"

namespace norvel {
namespace {

using Coin = std::pair<OutPoint, TxOut>;
using enum AdmissionOutcome;

// Moves all but `fee` of a coin to sample_key(2).
Transaction spend(const Coin& coin, int64_t fee = 1'000, uint8_t from = 1) {
  return pay(sample_key(from), {coin}, {coin.second.value - fee});
}

Transaction child_of(const Transaction& parent, int64_t fee = 1'000) {
  return spend(output_of(parent), fee, 2);
}

class Admission : public testing::Test {
 protected:
  Admission() {
    scene_.chain().set_pool_sink(&updater_);
    const Blockchain::WriteScope quick(scene_.chain());
    for (int i = 0; i < 28; ++i) {
      coins_.push_back(output_of(scene_.extend().transactions[0]));
    }
  }

  AdmissionOutcome offer(const Transaction& tx) {
    reason_.clear();
    return admission_.accept(tx, reason_, fee_);
  }

  // Without any check.
  void put(const std::vector<Transaction>& txs) {
    for (const Transaction& tx : txs) {
      ASSERT_TRUE(pool_.add_transaction(tx, 1, reason_));
    }
  }

  bool holds(const Transaction& tx) const { return pool_.get_transaction(tx.get_txid()).has_value(); }

  ChainScene scene_;
  Mempool pool_{5'000'000};
  TransactionAdmission admission_{scene_.chain(), pool_};
  PoolUpdater updater_{scene_.chain(), pool_};
  std::vector<Coin> coins_;  // 8 coins each, of sample_key(1)
  std::string reason_;
  int64_t fee_ = 0;
};

// Those that transaction_entrances_test.cpp sends are left out.
TEST_F(Admission, BlamesForRulesOfBlocksOnly) {
  const Transaction parent = spend(coins_[26]);
  const auto sign = [](Transaction& tx) {
    tx.sign_input(0, sample_key(1).private_key, Script::create_p2pkh_output(sample_key(1).pubkey_hash));
  };
  const auto locked = [&](uint32_t locktime, int64_t fee = 1'000) {
    Transaction tx = spend(coins_[0], fee);
    tx.locktime = locktime;
    tx.inputs[0].sequence = 0;
    sign(tx);
    return tx;
  };
  const auto sized = [&](size_t bytes) {
    Transaction tx = spend(coins_[0]);
    tx.outputs.emplace_back().script_pubkey.resize(70'000);
    while (tx.size() != bytes) {  // signatures differ in length
      tx.outputs[1].script_pubkey.resize(tx.outputs[1].script_pubkey.size() + bytes - tx.size());
      ++tx.timestamp;
      sign(tx);
    }
    return tx;
  };
  const auto paying = [&](int64_t fee) {
    return pay(sample_key(1), {coins_.begin(), coins_.begin() + 26}, {208 * kCoin - fee});
  };
  const uint32_t height = scene_.chain().get_best_height();
  const auto forge = [](Transaction tx) {
    tx.inputs[0].signature.back() ^= 1;
    tx.invalidate_cache();
    return tx;
  };
  const Transaction forged = forge(spend(coins_[0]));
  const auto repeating = [&](const OutPoint& last) {
    Transaction tx = spend(coins_[0]);
    tx.inputs.resize(3, tx.inputs[0]);
    tx.inputs[2].prevout = last;
    tx.invalidate_cache();
    return tx;
  };
  const Transaction beyond = spend({{parent.get_txid(), 1}, parent.outputs[0]});
  const struct {
    const char* label;
    Transaction tx;
    AdmissionOutcome want;
    std::string reason;
    int64_t fee = 1'000;
  } rows[] = {
      {"payment", spend(coins_[0], 7), ACCEPTED, "", 7},
      {"in the pool", parent, KNOWN, "Transaction already in mempool"},
      {"output that the parent lacks", beyond, MISSING_PARENT, "missing parent " + parent.get_txid().to_hex()},
      {"forged signature", forged, INVALID, "Invalid signature for input 0"},
      {"forged and not final", forge(locked(height + 1)), INVALID, "Invalid signature for input 0"},
      {"repeated inputs", repeating(coins_[1].first), INVALID, "Output spent twice by one transaction"},
      {"and an unknown one", repeating({{}, 7}), MISSING_PARENT, "missing parent " + uint256().to_hex()},
      {"final in the next block", locked(height), ACCEPTED, ""},
      {"final one block later", locked(height + 1), NOT_TAKEN, "not final for the next block"},
      {"final in 2106", locked(0xffffffff), NOT_TAKEN, "not final for the next block"},
      {"not final and overspent", locked(height + 1, -1), INVALID, "Outputs exceed inputs"},
      {"largest for a template", sized(999'000), ACCEPTED, ""},
      {"too large for a template", sized(999'001), NOT_TAKEN, "too large for a block with its coinbase"},
      {"too large for a block", sized(1'000'001), INVALID, "Transaction too large"},
      {"highest fee", paying(200 * kCoin), ACCEPTED, "", 200 * kCoin},
      {"higher fee", paying(200 * kCoin + 1), NOT_TAKEN, "fee above what a block may pay out"},
      {"conflict in the pool", spend(coins_[26], 9), NOT_TAKEN, "Input already spent in mempool"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    pool_.clear();
    ASSERT_EQ(offer(parent), ACCEPTED);
    EXPECT_EQ(offer(row.tx), row.want);
    EXPECT_EQ(reason_, row.reason);
    EXPECT_EQ(pool_.size(), row.want == ACCEPTED ? 2u : 1u);
    EXPECT_EQ(fee_, row.fee);
  }
  EXPECT_TRUE(scene_.chain().get_verified_inputs().contains(rows[0].tx, 0, coins_[0].second));
  EXPECT_FALSE(scene_.chain().get_verified_inputs().contains(forged, 0, coins_[0].second));
}

TEST_F(Admission, BudgetsTheScriptsOfAllInputsTogether) {
  Transaction funding = pay(sample_key(1), {coins_[0]}, {2 * kCoin, 2 * kCoin, 2 * kCoin});
  for (const size_t index : {size_t{0}, size_t{1}, size_t{2}}) {
    TxOut output(2 * kCoin, {});
    output.script_pubkey = {0x51};
    for (size_t i = 0; i < 1'000 + index / 2; ++i) {
      append(output.script_pubkey, Bytes{0x76, 0x76, 0xac, 0x75});  // DUP DUP CHECKSIG DROP
    }
    funding.outputs[index] = output;
  }
  funding.sign_input(0, sample_key(1).private_key, Script(coins_[0].second.locking_script()));
  ASSERT_EQ(offer(funding), ACCEPTED);
  for (const uint32_t second : {2u, 2u, 1u}) {  // the first is offered twice
    Transaction tx = spend(output_of(funding, 0));
    tx.inputs.resize(2, tx.inputs[0]);
    tx.inputs[1].prevout.index = second;
    for (TxIn& input : tx.inputs) {
      input.signature.clear();
      input.pubkey.assign(TxIn::kHtlcMarker.begin(), TxIn::kHtlcMarker.end());
    }
    tx.invalidate_cache();
    EXPECT_EQ(offer(tx), second == 1 ? ACCEPTED : NOT_TAKEN);
    EXPECT_EQ(reason_, second == 1 ? "" : "scripts cost more than relay allows");
  }
}

#ifdef NORVEL_SANITIZED
constexpr double kBombSecondsMax = 40;
#else
constexpr double kBombSecondsMax = 2;
#endif

// `start`, then `repeat` as often as there is room for it.
Bytes filled_script(Bytes start, const Bytes& repeat) {
  while (start.size() + repeat.size() <= 990'000) {
    append(start, repeat);
  }
  return start;
}

TEST_F(Admission, RefusesScriptBombsInTime) {
  // A signature that is well formed and wrong, and a key that is right.
  const Bytes check = join({hex("09 3006020101020101 01 21"), sample_key(1).pubkey, hex("ac 75")});
  const Bytes half_megabyte = join({hex("4e 20a10700"), Bytes(500'000, 0xab)});
  const struct {
    const char* label;
    Bytes locking;  // of each spent output
    size_t outputs;
    size_t bytes;  // of the transaction, about
    AdmissionOutcome want;
  } rows[] = {
      {"signature checks", filled_script({}, check), 1, 0, NOT_TAKEN},
      {"large element, hashed again and again", filled_script(half_megabyte, hex("76 a8 75 76 a9 75")), 1, 0, ACCEPTED},
      {"digests of digests", filled_script(hex("02 aabb"), hex("a9")), 4, 0, NOT_TAKEN},
      {"operations that no budget counts", filled_script(hex("51"), hex("02 aabb")), 4, 0, NOT_TAKEN},
      {"checks and digests together", filled_script(hex("02 aabb"), join({Bytes(700, 0xa9), check})), 2, 0, NOT_TAKEN},
      {"many inputs sign a large transaction", join({check, hex("51")}), 300, 900'000, NOT_TAKEN},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    pool_.clear();
    Transaction funding = spend(coins_[0]);
    funding.outputs.assign(row.outputs, TxOut(1, {}));
    for (TxOut& output : funding.outputs) {
      output.script_pubkey = row.locking;
    }
    funding.invalidate_cache();
    put({funding});
    Transaction tx;
    for (uint32_t i = 0; i < row.outputs; ++i) {
      tx.inputs.push_back({{funding.get_txid(), i}, {}, bytes_of("HTLC"), 0});
    }
    tx.outputs.emplace_back().script_pubkey.resize(row.bytes);
    const auto start = thread_processor_time();  // as the machine may be busy
    EXPECT_EQ(offer(tx), row.want);
    EXPECT_LT(std::chrono::duration<double>(thread_processor_time() - start).count(), kBombSecondsMax);
    EXPECT_EQ(reason_, row.want == ACCEPTED ? "" : "scripts cost more than relay allows");
  }
}

TEST_F(Admission, EvictsWithDescendants) {
  const Transaction cheap = spend(coins_[0], 1);
  const Transaction child = child_of(cheap, 5'000);
  const Transaction kept = spend(coins_[1], 5'000);
  Mempool pool(cheap.size() + child.size() + kept.size());
  TransactionAdmission admission(scene_.chain(), pool);
  for (const Transaction& tx : {cheap, child, kept}) {
    ASSERT_EQ(admission.accept(tx, reason_, fee_), ACCEPTED);
  }
  EXPECT_EQ(admission.accept(spend(coins_[2], 0), reason_, fee_), ACCEPTED);
  EXPECT_TRUE(pool.get_transaction(kept.get_txid()));
  EXPECT_EQ(pool.size(), 2u);

  Mempool small(cheap.size() + child.size() - 1);  // the child pushes its own parent out
  TransactionAdmission tight(scene_.chain(), small);
  ASSERT_EQ(tight.accept(cheap, reason_, fee_), ACCEPTED);
  EXPECT_EQ(tight.accept(child, reason_, fee_), NOT_TAKEN);
  EXPECT_EQ(small.size(), 0u);
}

TEST_F(Admission, FollowsTheChain) {
  const Transaction returning = spend(coins_[0]);
  const Transaction lost = spend(coins_[1]);
  const Transaction lost_child = child_of(lost);
  const Transaction rival = spend(coins_[1], 2'000);
  const Transaction on_returning = child_of(returning);
  const Block fork = scene_.tip();
  for (const Transaction& tx : {returning, on_returning, rival}) {
    ASSERT_EQ(offer(tx), ACCEPTED);
  }
  const Transaction rival_child = child_of(rival);
  ASSERT_EQ(offer(rival_child), ACCEPTED);
  const Block left = scene_.extend({.txs = {returning, lost, lost_child}});
  const Transaction on_coinbase = spend(output_of(left.transactions[0]));
  const Transaction on_lost = child_of(lost_child);
  ASSERT_EQ(offer(on_coinbase), ACCEPTED);
  ASSERT_EQ(offer(on_lost), ACCEPTED);
  EXPECT_FALSE(holds(returning) || holds(rival) || holds(rival_child));
  EXPECT_TRUE(holds(on_returning));

  const Block right = make_child(fork, {.txs = {rival}, .message = "another coinbase"});
  scene_.add_all({right, make_child(right)});
  EXPECT_TRUE(holds(returning) && holds(on_returning));
  EXPECT_EQ(pool_.size(), 2u) << "only what still stands";
}

TEST_F(Admission, DropsWhatIsNotFinalAnyMore) {
  const uint32_t next = scene_.chain().get_best_height() + 1;
  const auto now = static_cast<uint32_t>(unix_time_seconds());
  const std::tuple<const char*, uint32_t, uint32_t, bool> rows[] = {
      {"height below the next", next - 1, 0, true},   {"next height", next, 0, false},
      {"next height, switched off", next, ~0u, true}, {"time past", now - 1, 0, true},
      {"time to come", now + 1'000, 0, false},
  };
  for (const auto& [label, locktime, sequence, stays] : rows) {
    SCOPED_TRACE(label);
    pool_.clear();
    Transaction tx = spend(coins_[0]);
    tx.locktime = locktime;
    tx.inputs[0].sequence = sequence;
    tx.invalidate_cache();
    put({tx, child_of(tx)});
    updater_.tip_changed();
    EXPECT_EQ(pool_.size(), stays ? 2u : 0u);
  }
}

TEST_F(Admission, TakesTransactionsBackUnlessAnotherCameFirst) {
  std::vector<Transaction> parents;
  std::vector<Coin> made;
  for (size_t i = 0; i < 20; ++i) {
    parents.push_back(spend(coins_[i], i == 0 ? 0 : 500));
    made.push_back(output_of(parents.back()));
  }
  const Transaction child = pay(sample_key(2), made, {kCoin});
  Block left;
  left.transactions = {pay(sample_key(1), coins_, {kCoin})};
  updater_.block_disconnected(left);
  updater_.tip_changed();
  EXPECT_EQ(pool_.size(), 1u) << "a fee above what is relayed";
  left.transactions = parents;
  for (const bool conflict : {false, true}) {
    pool_.clear();
    const Transaction rival = spend(coins_[7], 9);
    put(conflict ? std::vector{child, rival} : std::vector{child});
    updater_.block_disconnected(left);
    updater_.tip_changed();
    EXPECT_EQ(pool_.size(), parents.size() + (conflict ? 0u : 1u));
    EXPECT_EQ(holds(child), !conflict);
    EXPECT_EQ(holds(parents[7]), !conflict);
    EXPECT_EQ(holds(rival), conflict);
  }
}

TEST_F(Admission, LooksAtEverythingAfterALostBlock) {
  const Transaction parent = spend(coins_[0]);
  const Transaction child = child_of(parent);
  const Transaction grandchild = child_of(child);
  const Transaction rival = spend(coins_[1], 9);
  const Transaction child_rival = spend(output_of(parent), 9, 2);
  const Transaction nowhere = child_of(spend(coins_[3], 9));
  const Transaction apart = spend(coins_[2]);
  scene_.chain().set_pool_sink(nullptr);
  scene_.extend({.txs = {parent, child, spend(coins_[1])}});
  const std::tuple<const char*, std::vector<Transaction>, std::vector<Transaction>> rows[] = {
      {"confirmed ones, not what stands on them", {parent, child, grandchild, apart}, {grandchild, apart}},
      {"rivals with descendants", {rival, child_of(rival), apart}, {apart}},
      {"a rival of a pool child", {parent, child_rival, child_of(child_rival), apart}, {apart}},
      {"child of nothing", {nowhere, apart}, {apart}},
  };
  for (const auto& [label, before, after] : rows) {
    SCOPED_TRACE(label);
    pool_.clear();
    put(before);
    updater_.tip_changed();
    EXPECT_EQ(pool_.size(), before.size()) << "not without a reason";
    updater_.block_lost();
    updater_.tip_changed();
    EXPECT_EQ(pool_.size(), after.size());
    EXPECT_TRUE(std::ranges::all_of(after, [this](const Transaction& tx) { return holds(tx); }));
  }
}

// Every block spends a coin that threads race to spend too, with a child each.
TEST_F(Admission, HoldsOnlyWhatStandsWhenBlocksComeMeanwhile) {
  std::vector<Block> blocks{scene_.tip()};
  std::vector<std::thread> threads;
  for (size_t i = 0; i < 20; ++i) {
    blocks.push_back(make_child(blocks.back(), {.txs = {spend(coins_[i], i % 2 == 0 ? 0 : 500)}}));
  }
  for (const int64_t fee : {0, 700}) {
    threads.emplace_back([&, fee] {
      TransactionAdmission admission(scene_.chain(), pool_);
      std::string reason;
      int64_t paid = 0;
      for (size_t i = 0; i < 24; ++i) {
        const Transaction tx = spend(coins_[i], fee);
        admission.accept(tx, reason, paid);
        admission.accept(child_of(tx), reason, paid);
      }
    });
  }
  scene_.add_all({blocks.begin() + 1, blocks.end()});
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (size_t i = 0; i < 24; ++i) {
    EXPECT_EQ(pool_.is_spent(coins_[i].first), i >= 20);
  }
  for (const Transaction& tx : pool_.get_transactions_for_block(5'000'000)) {
    EXPECT_TRUE(scene_.chain().get_utxo_set().has_utxo(tx.inputs[0].prevout) || pool_.get_output(tx.inputs[0].prevout));
  }
  EXPECT_EQ(pool_.get_transactions_for_block(5'000'000).size(), pool_.size());
}

}  // namespace
}  // namespace norvel
