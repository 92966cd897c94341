#include "chain/chain_state.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <new>
#include <random>

#include "consensus/distribution.h"
#include "consensus/treasury_accounting.h"
#include "crypto/address.h"
#include "support/allocations.h"
#include "support/byte_strings.h"
#include "support/chain_builder.h"

namespace norvel {
namespace {

constexpr uint32_t kInterval = 5;
constexpr uint8_t kKeyCount = 4;

using OutputMap = std::map<OutPoint, TxOut>;

Block genesis() {
  return Block::create_genesis_block("chain state", sample_key(1).address, kGenesisTimestamp);
}

BlockUndo connect(ChainState& state, const Block& block) {
  return state.connect(block, block.get_hash());
}

void apply_to(OutputMap& outputs, const Transaction& tx) {
  for (const TxIn& input : tx.inputs) {
    outputs.erase(input.prevout);
  }
  for (size_t i = 0; i < tx.outputs.size(); ++i) {
    outputs.insert(output_of(tx, i));
  }
}

bool is_same_output(const OutputMap::value_type& a, const OutputMap::value_type& b) {
  return a.first == b.first && a.second.serialize() == b.second.serialize();
}

// Compares with what a walk over the whole chain finds, every transaction of it at hand.
void expect_indexes(const DerivedIndexes& indexes, const std::vector<Block>& blocks) {
  DerivedIndexes::HeightMap heights;
  DerivedIndexes::AddressMap addresses;
  DerivedIndexes::KeyMap keys;
  std::map<uint256, Transaction> known;
  for (const Block& block : blocks) {
    for (const Transaction& tx : block.transactions) {
      heights[tx.get_txid()] = block.height;
      std::vector<TxOut> touched = tx.outputs;
      for (const TxIn& input : tx.inputs) {
        if (tx.type == TransactionType::TRANSFER) {
          touched.push_back(known.at(input.prevout.txid).outputs.at(input.prevout.index));
          if (input.pubkey.size() == 33) {
            keys[crypto::pubkey_to_address(input.pubkey, 0)] = input.pubkey;
          }
        }
      }
      for (const TxOut& output : touched) {
        std::vector<uint256>& txids = addresses[output.get_pubkey_hash()];
        if (std::ranges::find(txids, tx.get_txid()) == txids.end()) {
          txids.push_back(tx.get_txid());
        }
      }
      known[tx.get_txid()] = tx;
    }
  }
  EXPECT_EQ(indexes.transaction_heights(), heights);
  EXPECT_EQ(indexes.address_transactions(), addresses);
  EXPECT_EQ(indexes.revealed_keys(), keys);
}

// Makes blocks on a state: payments with and without keys, also of outputs of the same block, several miners,
// distributions, coinbases and payments byte for byte as in an earlier block.
class RandomChain {
 public:
  explicit RandomChain(uint64_t seed) : random_(seed) {}

  std::vector<Block> blocks = {genesis()};
  size_t distribution_count = 0;
  size_t repeated_payment_count = 0;

  const Block& make_block(const ChainState& state) {
    outputs_ = state.utxos().get_all();
    ChildOptions options;
    options.miner = random_key();
    const TreasuryState& treasury = state.treasury();
    const uint32_t height = state.tip_height() + 1;
    if (treasury.distribution_pending && treasury::is_distribution_height(height, kInterval)) {
      options.txs.push_back(
          treasury::create_distribution_tx(treasury.distribution_pool, treasury.pending_miner_counts, height));
      ++distribution_count;
    }
    const bool repeats_coinbase = random_() % 4 == 0;
    const Transaction earlier_coinbase = blocks[random_() % blocks.size()].transactions[0];
    if (repeats_coinbase) {
      apply_to(outputs_, earlier_coinbase);
      repeat_payment(options.txs);
    }
    for (auto count = random_() % 4; count > 0; --count) {
      add_payment(options);
    }
    blocks.push_back(make_child(blocks.back(), options));
    if (repeats_coinbase) {
      blocks.back().transactions[0] = earlier_coinbase;
      seal(blocks.back());
    }
    return blocks.back();
  }

 private:
  uint8_t random_key() { return static_cast<uint8_t>(1 + random_() % kKeyCount); }

  // A payment of an earlier block whose inputs exist once more.
  void repeat_payment(std::vector<Transaction>& txs) {
    for (const Block& block : blocks) {
      for (const Transaction& tx : block.transactions) {
        const auto is_unspent = [this](const TxIn& input) { return outputs_.contains(input.prevout); };
        if (tx.type == TransactionType::TRANSFER && std::ranges::all_of(tx.inputs, is_unspent)) {
          apply_to(outputs_, tx);
          txs.push_back(tx);
          ++repeated_payment_count;
          return;
        }
      }
    }
  }

  void add_payment(ChildOptions& options) {
    const SampleKey from = sample_key(random_key());
    SpendableOutputs inputs;
    int64_t value = 0;
    const size_t input_count_max = 1 + random_() % 2;
    for (const auto& [outpoint, output] : outputs_) {
      if (inputs.size() < input_count_max && output.get_pubkey_hash() == from.pubkey_hash && random_() % 2 == 0) {
        inputs.emplace_back(outpoint, output);
        value += output.value;
      }
    }
    if (inputs.empty()) {
      return;
    }
    const auto fee = std::min(value, static_cast<int64_t>(random_() % 100'000));
    options.fees += fee;
    Transaction tx = pay(from, inputs, {(value - fee) / 3, value - fee - (value - fee) / 3}, random_key());
    if (random_() % 3 == 0) {
      tx.inputs[0].pubkey = random_() % 2 == 0 ? Bytes() : Bytes(TxIn::kHtlcMarker.begin(), TxIn::kHtlcMarker.end());
      tx.invalidate_cache();
    }
    apply_to(outputs_, tx);
    options.txs.push_back(tx);
  }

  std::mt19937_64 random_;
  OutputMap outputs_;
};

TEST(ChainState, TakesARandomChainBackToTheByte) {
  RandomChain chain(4);
  ChainState state(kInterval);
  std::vector<std::pair<Bytes, Bytes>> steps = {{state.to_snapshot(), connect(state, chain.blocks[0]).serialize()}};
  while (chain.blocks.size() < 120) {
    OutputMap outputs = state.utxos().get_all();
    const int64_t supply = state.total_supply();
    const Block& block = chain.make_block(state);
    SCOPED_TRACE(block.height);
    steps.push_back({state.to_snapshot(), connect(state, block).serialize()});
    for (const Transaction& tx : block.transactions) {
      apply_to(outputs, tx);
    }
    EXPECT_TRUE(std::ranges::equal(state.utxos().get_all(), outputs, is_same_output));
    EXPECT_EQ(state.total_supply() - supply, block.transactions[0].total_output_value());
    expect_indexes(state.indexes(), chain.blocks);
  }
  EXPECT_TRUE(chain.distribution_count > 5 && chain.repeated_payment_count > 0);

  const Bytes tip = state.to_snapshot();
  SnapshotData data;
  std::string reason;
  ASSERT_TRUE(decode_snapshot(tip, data, reason)) << reason;
  state.clear();
  EXPECT_EQ(state.to_snapshot(), steps[0].first);
  state.restore(std::move(data));
  for (; !steps.empty(); steps.pop_back()) {
    const BlockUndo undo = BlockUndo::deserialize(steps.back().second);
    ASSERT_EQ(undo.serialize(), steps.back().second);
    state.disconnect(undo);
    ASSERT_EQ(state.to_snapshot(), steps.back().first) << "block " << steps.size() - 1;
  }
  EXPECT_TRUE(state.empty());
  for (const Block& block : chain.blocks) {
    connect(state, block);
  }
  EXPECT_EQ(state.to_snapshot(), tip);
}

TEST(ChainState, StaysAsItWasWhenMemoryRunsOut) {
  RandomChain chain(6);
  ChainState state(kInterval);
  connect(state, chain.blocks[0]);
  while (chain.blocks.size() < 21) {
    const Block& block = chain.make_block(state);
    block.get_hash();
    const Bytes before = state.to_snapshot();
    for (uint64_t n = 0; state.tip_height() < block.height; ++n) {
      allocations.first_failing = allocations.last_failing = allocations.count + n + 1;
      try {
        connect(state, block);
      } catch (const std::bad_alloc&) {
      }
      allocations.first_failing = Allocations::kNever;
      ASSERT_TRUE(state.tip_height() == block.height || state.to_snapshot() == before) << "allocation " << n;
    }
  }
  expect_indexes(state.indexes(), chain.blocks);
}

TEST(BlockUndo, IsReadWholeOrNotAtAll) {
  BlockUndo padded;
  padded.restored.emplace_back(OutPoint(), TxOut(1, {}));
  Bytes padded_record = padded.serialize();
  ++padded_record[84];  // the length of the output, whose 10 bytes begin at 88
  padded_record.insert(padded_record.begin() + 98, 0);
  EXPECT_TRUE(runtime_error_of([&] { BlockUndo::deserialize(padded_record); }));

  RandomChain chain(7);
  ChainState state(kInterval);
  connect(state, chain.blocks[0]);
  while (chain.blocks.size() < 10) {
    const Bytes record = connect(state, chain.make_block(state)).serialize();
    const auto read = [](const Bytes& bytes) { return runtime_error_of([&] { BlockUndo::deserialize(bytes); }); };
    for (size_t len = 0; len < record.size(); ++len) {
      EXPECT_TRUE(read(cut(record, len))) << "cut at " << len;
    }
    EXPECT_TRUE(read(join({record, {0}})));
    for (size_t at = 0; at < record.size(); ++at) {
      Bytes altered = record;
      altered[at] ^= 0xff;
      if (!read(altered)) {
        EXPECT_EQ(BlockUndo::deserialize(altered).serialize(), altered) << "byte " << at;
      }
    }
  }
}

}  // namespace
}  // namespace norvel
