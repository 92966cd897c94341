// The rules of a block as scenes: a valid block, one thing changed, the verdict.

#include <gtest/gtest.h>

#include <tuple>
#include <utility>

#include "chain/utxo_set.h"
#include "core/block.h"
#include "core/clock.h"
#include "core/transaction_parts.h"
#include "support/captured_stderr.h"
#include "support/chain_builder.h"
#include "support/ledger_samples.h"

namespace norvel {
namespace {

constexpr const char kNoUtxo[] = "UTXO not found for transaction input";
constexpr const char kBadSignature[] = "Invalid transaction signature in block";
constexpr const char kTooFarAhead[] = "Block timestamp too far in the future";
constexpr const char kBadCoinbase[] = "Invalid or missing coinbase transaction";
constexpr int64_t kFees = 10'000'000'000;

// A valid block: coinbase, then alice spends two old outputs and in turn the output of that, a distribution whose
// input names no output, and she spends that and the coinbase.
struct Scene {
  Scene() {
    utxos.add_utxo(old_coin(0).first, old_coin(0).second);
    utxos.add_utxo(old_coin(1).first, old_coin(1).second);
    block.height = 7;
    block.header.bits = kGenesisBits;
    block.header.timestamp = unix_time_seconds();
    Transaction distribution;
    distribution.type = TransactionType::TREASURY_DISTRIBUTION;
    distribution.inputs.emplace_back().prevout = {uint256(), 0xfffffffe};
    distribution.outputs.emplace_back(900, alice.pubkey_hash);
    txs.push_back(Transaction::create_coinbase_tx(alice.address, block_subsidy(7), 0, 7, "test"));
    txs.push_back(pay(alice, {old_coin(0), old_coin(1)}, {1'000}, 1));
    txs.push_back(pay(alice, {output_of(txs[1])}, {900}, 1));
    txs.push_back(distribution);
    txs.push_back(pay(alice, {output_of(txs[3]), output_of(txs[0])}, {800}, 1));
  }

  // One by its hash, one by its script.
  static std::pair<OutPoint, TxOut> old_coin(uint32_t index) {
    const Bytes hash = sample_key(1).pubkey_hash;
    return {{uint256(uint64_t{5}), index}, index == 0 ? TxOut(500, hash) : make_p2pkh_output(600, hash)};
  }

  void add_spend(const OutPoint& prevout) { txs.push_back(pay(alice, {{prevout, TxOut(1, alice.pubkey_hash)}}, {1})); }

  // "" when the block is valid.
  std::string verdict() const {
    const CapturedStderr quiet;
    std::string error;
    const bool valid = block.is_valid(error, utxos);
    EXPECT_EQ(valid, error.empty());
    return error;
  }

  void spoil_root() {
    block.header.merkle_root = ~block.header.merkle_root;
    mine(block);
  }

  // Pads the coinbase with a script until the block has `size` bytes.
  void pad_to(size_t size) {
    txs.resize(1);
    Bytes& script = txs[0].outputs[0].script_pubkey;
    script.resize(size - 100'000);
    script.resize(script.size() + size - block.serialize().size());
  }

  // Leaves a coinbase with two outputs.
  void reward(uint32_t height, int64_t first, int64_t second) {
    block.height = height;
    txs.resize(1);
    txs[0].outputs = {TxOut(first, alice.pubkey_hash), TxOut(second, alice.pubkey_hash)};
  }

  SampleKey alice = sample_key(1);
  UTXOSet utxos;
  Block block;
  std::vector<Transaction>& txs = block.transactions;
};

TEST(BlockValidity, OneChangeDecides) {
  const std::tuple<const char*, void (*)(Scene&), const char*> rows[] = {
      {"nothing changed", [](Scene&) {}, ""},
      {"an old output that another key owns",
       [](Scene& s) { s.utxos.add_utxo(Scene::old_coin(1).first, TxOut(600, sample_key(2).pubkey_hash)); },
       kBadSignature},
      {"a broken second signature", [](Scene& s) { s.txs[4].inputs[1].signature[9] ^= 1; }, kBadSignature},
      {"an in-block output spent twice", [](Scene& s) { s.add_spend(output_of(s.txs[1]).first); }, kNoUtxo},
      {"an in-block output spent before it is made", [](Scene& s) { std::swap(s.txs[1], s.txs[2]); }, kNoUtxo},
      {"a null input cannot be signed for", [](Scene& s) { s.add_spend(OutPoint::null()); }, kBadSignature},
      {"an unknown type is checked too", [](Scene& s) { s.txs[2].type = static_cast<TransactionType>(77); },
       kBadSignature},
      {"first is a transfer", [](Scene& s) { s.txs[0].type = TransactionType::TRANSFER; }, kBadCoinbase},
      {"a second coinbase", [](Scene& s) { s.txs.push_back(s.txs[0]); }, kBadCoinbase},
      {"index not null", [](Scene& s) { s.txs[0].inputs[0].prevout.index = 0; }, kBadCoinbase},
      {"subsidy and most fees", [](Scene& s) { s.reward(7, 800'000'000, kFees); }, ""},
      {"one unit more", [](Scene& s) { s.reward(7, 800'000'001, kFees); }, kBadCoinbase},
      {"a negative value balances another", [](Scene& s) { s.reward(7, 800'000'001 + kFees, -1); }, kBadCoinbase},
      {"a sum that wraps", [](Scene& s) { s.reward(7, int64_t{1} << 62, int64_t{1} << 62); }, kBadCoinbase},
      {"2^63 - 1 twice", [](Scene& s) { s.reward(7, INT64_MAX, INT64_MAX); }, kBadCoinbase},
      {"the least value", [](Scene& s) { s.reward(7, 800'000'000, INT64_MIN); }, kBadCoinbase},
      {"before the halving", [](Scene& s) { s.reward(1'259'999, 800'000'000, kFees); }, ""},
      {"halved, one unit more", [](Scene& s) { s.reward(1'260'000, 400'000'001, kFees); }, kBadCoinbase},
      {"64 halvings", [](Scene& s) { s.reward(64 * 1'260'000, 1, kFees); }, kBadCoinbase},
      {"two hours ahead", [](Scene& s) { s.block.header.timestamp = unix_time_seconds() + 7'200; }, ""},
      {"a little more", [](Scene& s) { s.block.header.timestamp = unix_time_seconds() + 7'210; }, kTooFarAhead},
      {"1,000,000 bytes", [](Scene& s) { s.pad_to(1'000'000); }, ""},
      {"1,000,001 bytes", [](Scene& s) { s.pad_to(1'000'001); }, "Block too large"},
  };
  for (const auto& [label, change, want] : rows) {
    SCOPED_TRACE(label);
    Scene scene;
    change(scene);
    seal(scene.block);
    EXPECT_EQ(scene.verdict(), want);
  }
}

// All faults at once, then one less from the front each time.
TEST(BlockValidity, TheFirstFaultInTheOrderOfRulesIsReported) {
  const std::pair<const char*, void (*)(Scene&)> faults[] = {
      {"Block has no transactions", [](Scene& s) { s.txs.clear(); }},
      {"Invalid proof of work", [](Scene& s) { s.block.header.bits = 0x1b00ffff; }},
      {"Invalid merkle root", [](Scene& s) { s.spoil_root(); }},
      {kBadCoinbase, [](Scene& s) { s.txs[0].outputs[0].value = -1; }},
      {kTooFarAhead, [](Scene& s) { s.block.header.timestamp = ~uint64_t{0}; }},
      {"Invalid block timestamp", [](Scene& s) { s.block.header.timestamp = 0; }},
      {kNoUtxo, [](Scene& s) { s.utxos.remove_utxo(Scene::old_coin(0).first); }},
      {kBadSignature, [](Scene& s) { s.txs[1].inputs[0].signature.clear(); }},
      {"Block too large", [](Scene& s) { s.txs[0].outputs.emplace_back().script_pubkey.resize(1'000'000); }},
      {"Invalid block version", [](Scene& s) { s.block.header.version = 0; }},
  };
  for (size_t first = 0; first < std::size(faults); ++first) {
    Scene scene;
    scene.txs.resize(2);
    for (size_t i = std::size(faults); i-- > 0;) {  // backwards, so that the earlier fault stands
      if (i >= first) {
        faults[i].second(scene);
      }
      if (i == 3) {
        seal(scene.block);  // the first three spoil a sealed block
      }
    }
    EXPECT_EQ(scene.verdict(), faults[first].first);
  }
}

}  // namespace
}  // namespace norvel
