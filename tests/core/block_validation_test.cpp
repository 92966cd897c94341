// The rules of a block as scenes: a valid block, one thing changed, the verdict.

#include <gtest/gtest.h>

#include <algorithm>

#include "chain/utxo_set.h"
#include "core/block.h"
#include "core/clock.h"
#include "core/transaction_parts.h"
#include "script/script.h"
#include "support/captured_stderr.h"
#include "support/ledger_samples.h"

namespace norvel {
namespace {

constexpr const char kNoUtxo[] = "UTXO not found for transaction input";
constexpr const char kBadSignature[] = "Invalid transaction signature in block";
constexpr const char kTooFarAhead[] = "Block timestamp too far in the future";
constexpr const char kBadCoinbase[] = "Invalid or missing coinbase transaction";

// Spends outputs of `key` into one output to the same key.
Transaction spend(const SampleKey& key, const std::vector<OutPoint>& prevouts, int64_t value) {
  Transaction tx;
  for (const OutPoint& prevout : prevouts) {
    tx.inputs.emplace_back().prevout = prevout;
  }
  tx.outputs.push_back(make_p2pkh_output(value, key.pubkey_hash));
  for (size_t i = 0; i < prevouts.size(); ++i) {
    tx.sign_input(i, key.private_key, Script::create_p2pkh_output(key.pubkey_hash));
  }
  return tx;
}

OutPoint output_of(const Transaction& tx, uint32_t index = 0) {
  return {tx.get_txid(), index};
}

// A valid block at height 7:
//   0  coinbase
//   1  alice spends her two old outputs
//   2  alice spends the output of 1
//   3  treasury distribution to alice, from an input that names no output
//   4  alice spends the output of 3 and of the coinbase
struct Scene {
  Scene() {
    utxos.add_utxo(old_coin(0), TxOut(500, alice.pubkey_hash));
    utxos.add_utxo(old_coin(1), make_p2pkh_output(600, alice.pubkey_hash));
    utxos.add_utxo(old_coin(2), TxOut(700, alice.pubkey_hash));
    block.height = 7;
    block.header.bits = kGenesisBits;
    block.header.timestamp = unix_time_seconds();
    Transaction distribution;
    distribution.type = TransactionType::TREASURY_DISTRIBUTION;
    distribution.inputs.emplace_back().prevout = {uint256(), 0xfffffffe};
    distribution.outputs.emplace_back(900, alice.pubkey_hash);
    txs.push_back(Transaction::create_coinbase_tx(alice.address, block_subsidy(7), 0, 7, "test"));
    txs.push_back(spend(alice, {old_coin(0), old_coin(1)}, 1'000));
    txs.push_back(spend(alice, {output_of(txs[1])}, 900));
    txs.push_back(distribution);
    txs.push_back(spend(alice, {output_of(txs[3]), output_of(txs[0])}, 800));
  }

  static OutPoint old_coin(uint32_t index) { return {uint256(uint64_t{5}), index}; }

  void add_spend(const OutPoint& prevout) { txs.push_back(spend(alice, {prevout}, 1)); }

  // Searches the nonce; a handful of hashes at these bits.
  void mine() {
    block.invalidate_cache();
    while (!block.header.check_proof_of_work()) {
      ++block.header.nonce;
    }
  }

  // The verdict on the block as it stands: "" when it is valid.
  std::string verdict() const {
    const CapturedStderr quiet;
    std::string error;
    const bool valid = block.is_valid(error, utxos);
    EXPECT_EQ(valid, error.empty());
    return error;
  }

  void seal() {
    for (Transaction& tx : txs) {
      tx.invalidate_cache();
    }
    block.update_merkle_root();
    mine();
  }

  // Keeps two transactions and pads the coinbase with a script until the block has `size` bytes.
  void pad_to(size_t size) {
    txs.resize(2);
    Bytes& script = txs[0].outputs.emplace_back().script_pubkey;
    script.resize(size - 100'000);
    script.resize(script.size() + size - block.serialize().size());
    EXPECT_EQ(block.serialize().size(), size);
  }

  SampleKey alice = sample_key(1);
  UTXOSet utxos;
  Block block;
  std::vector<Transaction>& txs = block.transactions;
};

TEST(BlockValidity, OneChangeDecides) {
  const struct SceneRow {
    const char* label;
    void (*change)(Scene&);
    const char* error;
  } rows[] = {
      {"nothing changed", [](Scene&) {}, ""},
      {"coinbase alone", [](Scene& s) { s.txs.resize(1); }, ""},
      {"a missing old output", [](Scene& s) { s.utxos.remove_utxo(Scene::old_coin(1)); }, kNoUtxo},
      {"an old output that another key owns",
       [](Scene& s) { s.utxos.add_utxo(Scene::old_coin(1), TxOut(600, sample_key(2).pubkey_hash)); }, kBadSignature},
      {"a broken signature", [](Scene& s) { s.txs[4].inputs[1].signature[9] ^= 1; }, kBadSignature},
      {"an in-block output spent twice", [](Scene& s) { s.add_spend(output_of(s.txs[1])); }, kNoUtxo},
      {"an in-block output spent before it is made", [](Scene& s) { std::swap(s.txs[1], s.txs[2]); }, kNoUtxo},
      {"an in-block output that does not exist", [](Scene& s) { s.add_spend(output_of(s.txs[1], 1)); }, kNoUtxo},
      {"the in-block output goes before one of the set",
       [](Scene& s) { s.utxos.add_utxo(output_of(s.txs[1]), TxOut(1, sample_key(2).pubkey_hash)); }, ""},
      {"one that is also in the set can be spent twice",
       [](Scene& s) {
         s.utxos.add_utxo(output_of(s.txs[1]), TxOut(1, s.alice.pubkey_hash));
         s.add_spend(output_of(s.txs[1]));
       },
       ""},
      {"a null input cannot be signed for", [](Scene& s) { s.add_spend(OutPoint::null()); }, kBadSignature},
      {"null but for the index",
       [](Scene& s) {
         s.add_spend({uint256(), 0xfffffffe});
       },
       kNoUtxo},
      {"a transaction without inputs", [](Scene& s) { s.txs.emplace_back(); }, ""},
      {"an unknown type is checked too",
       [](Scene& s) {
         s.add_spend(Scene::old_coin(2));
         s.txs.back().type = static_cast<TransactionType>(77);
       },
       kBadSignature},
      {"first is a transfer", [](Scene& s) { s.txs[0].type = TransactionType::TRANSFER; }, kBadCoinbase},
      {"a second coinbase", [](Scene& s) { s.txs.push_back(s.txs[0]); }, kBadCoinbase},
      {"no input", [](Scene& s) { s.txs[0].inputs.clear(); }, kBadCoinbase},
      {"two inputs", [](Scene& s) { s.txs[0].inputs.push_back(s.txs[0].inputs[0]); }, kBadCoinbase},
      {"index not null", [](Scene& s) { s.txs[0].inputs[0].prevout.index = 0; }, kBadCoinbase},
      {"id not null", [](Scene& s) { s.txs[0].inputs[0].prevout.txid = uint256(uint64_t{1}); }, kBadCoinbase},
      {"no output", [](Scene& s) { s.txs[0].outputs.clear(); }, kBadCoinbase},
      {"timestamp 1", [](Scene& s) { s.block.header.timestamp = 1; }, ""},
      {"timestamp 0", [](Scene& s) { s.block.header.timestamp = 0; }, "Invalid block timestamp"},
      {"two hours ahead", [](Scene& s) { s.block.header.timestamp = unix_time_seconds() + 7'200; }, ""},
      {"the largest timestamp", [](Scene& s) { s.block.header.timestamp = ~uint64_t{0}; }, kTooFarAhead},
      {"1,000,000 bytes", [](Scene& s) { s.pad_to(1'000'000); }, ""},
      {"1,000,001 bytes", [](Scene& s) { s.pad_to(1'000'001); }, "Block too large"},
      {"version 0", [](Scene& s) { s.block.header.version = 0; }, "Invalid block version"},
      {"the largest version", [](Scene& s) { s.block.header.version = ~0u; }, ""},
  };
  for (const SceneRow& row : rows) {
    SCOPED_TRACE(row.label);
    Scene scene;
    row.change(scene);
    scene.seal();
    const auto before = scene.utxos.get_all();
    EXPECT_EQ(scene.verdict(), row.error);
    const auto after = scene.utxos.get_all();
    EXPECT_TRUE(std::equal(before.begin(), before.end(), after.begin(), after.end(), [](const auto& x, const auto& y) {
      return x.first == y.first && x.second.serialize() == y.second.serialize();
    }));
  }
}

TEST(BlockValidity, CoinbaseValues) {
  constexpr int64_t kFees = 10'000'000'000;
  constexpr int64_t kHuge = int64_t{1} << 62;
  const struct {
    const char* label;
    uint32_t height;
    std::vector<int64_t> values;
    bool valid;
  } rows[] = {
      {"zero", 7, {0}, true},
      {"subsidy and most fees", 7, {800'000'000, kFees}, true},
      {"one unit more", 7, {800'000'001, kFees}, false},
      {"one unit more in one output", 7, {800'000'001 + kFees}, false},
      {"a negative value", 7, {-1}, false},
      {"a negative value that balances another", 7, {800'000'001 + kFees, -1}, false},
      {"a sum that wraps to zero", 7, {kHuge, kHuge, kHuge, kHuge}, false},
      {"a sum that wraps to a negative one", 7, {kHuge, kHuge}, false},
      {"last block before the halving", 1'259'999, {800'000'000 + kFees}, true},
      {"halved", 1'260'000, {400'000'000 + kFees}, true},
      {"halved, one unit more", 1'260'000, {400'000'001 + kFees}, false},
      {"63 halvings", 63 * 1'260'000, {kFees}, true},
      {"63 halvings, one unit more", 63 * 1'260'000, {kFees + 1}, false},
      {"64 halvings", 64 * 1'260'000, {kFees}, true},
      {"64 halvings, one unit more", 64 * 1'260'000, {kFees, 1}, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    Scene scene;
    scene.txs.resize(1);
    scene.block.height = row.height;
    scene.txs[0].outputs.clear();
    for (const int64_t value : row.values) {
      scene.txs[0].outputs.emplace_back(value, scene.alice.pubkey_hash);
    }
    scene.seal();
    EXPECT_EQ(scene.block.has_valid_coinbase(), row.valid);
    EXPECT_EQ(scene.verdict(), row.valid ? "" : kBadCoinbase);
  }
  EXPECT_FALSE(Block().has_valid_coinbase());
}

TEST(BlockValidity, OneSecondBeyondTwoHoursIsTooFar) {
  Scene scene;
  uint64_t now = 0;
  std::string verdict;
  do {  // again when the clock moved on meanwhile
    now = unix_time_seconds();
    scene.block.header.timestamp = now + 7'201;
    scene.seal();
    verdict = scene.verdict();
  } while (unix_time_seconds() != now);
  EXPECT_EQ(verdict, kTooFarAhead);
}

// All faults at once, then one less from the front each time.
TEST(BlockValidity, TheFirstFaultInTheOrderOfRulesIsReported) {
  const struct {
    const char* error;
    void (*spoil)(Scene&);
    bool after_sealing;
  } faults[] = {
      {"Block has no transactions", [](Scene& s) { s.txs.clear(); }, true},
      {"Invalid proof of work", [](Scene& s) { s.block.header.bits = 0x1b00ffff; }, true},
      {"Invalid merkle root",
       [](Scene& s) {
         s.block.header.merkle_root = ~s.block.header.merkle_root;
         s.mine();
       },
       true},
      {kBadCoinbase, [](Scene& s) { s.txs[0].outputs[0].value = -1; }, false},
      {kTooFarAhead, [](Scene& s) { s.block.header.timestamp = ~uint64_t{0}; }, false},
      {"Invalid block timestamp", [](Scene& s) { s.block.header.timestamp = 0; }, false},
      {kNoUtxo, [](Scene& s) { s.utxos.remove_utxo(Scene::old_coin(0)); }, false},
      {kBadSignature, [](Scene& s) { s.txs[1].inputs[0].signature.clear(); }, false},
      {"Block too large", [](Scene& s) { s.txs[0].outputs.emplace_back().script_pubkey.resize(1'000'000); }, false},
      {"Invalid block version", [](Scene& s) { s.block.header.version = 0; }, false},
  };
  for (size_t first = 0; first < std::size(faults); ++first) {
    Scene scene;
    scene.txs.resize(2);
    for (const bool after_sealing : {false, true}) {
      for (size_t i = std::size(faults); i-- > first;) {  // backwards, so that the earlier fault stands
        if (faults[i].after_sealing == after_sealing) {
          faults[i].spoil(scene);
        }
      }
      if (!after_sealing) {
        scene.seal();
      }
    }
    EXPECT_EQ(scene.verdict(), faults[first].error);
  }
}

}  // namespace
}  // namespace norvel
