#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <random>
#include <tuple>

#include "consensus/distribution.h"
#include "consensus/treasury_accounting.h"
#include "core/block.h"
#include "core/transaction_parts.h"
#include "crypto/address.h"
#include "support/captured_stderr.h"
#include "support/ledger_samples.h"

namespace norvel::treasury {
namespace {

using Shares = std::map<std::string, int64_t>;

constexpr int64_t kAmountMax = std::numeric_limits<int64_t>::max();
constexpr uint32_t kCountMax = std::numeric_limits<uint32_t>::max();

std::string address_of(uint32_t number) {
  Bytes hash(crypto::kPublicKeyHashBytes - sizeof(number), 7);
  append_le(hash, number);
  return crypto::hash160_to_address(hash, 0);
}

TEST(DistributionShares, FollowTheBlockCounts) {
  const std::tuple<const char*, int64_t, MinerBlockCounts, Shares> rows[] = {
      {"no remainder", 1'000'000, {{"A", 1}, {"B", 2}, {"C", 7}}, {{"A", 100'000}, {"B", 200'000}, {"C", 700'000}}},
      {"dust goes to the top miner", 100'000, {{"A", 1}, {"B", 99}}, {{"B", 100'000}}},
      {"the odd unit goes to the first of equals", 30'003, {{"A", 1}, {"B", 1}}, {{"A", 15'002}, {"B", 15'001}}},
      {"bytes decide who is first", 30'003, {{"a", 1}, {"B", 1}}, {{"a", 15'001}, {"B", 15'002}}},
      {"an amount of dust", 9'999, {{"A", 5}}, {}},
      {"shares of dust only", 19'999, {{"A", 1}, {"B", 1}}, {}},
      {"smallest shares", 20'000, {{"A", 1}, {"B", 1}}, {{"A", 10'000}, {"B", 10'000}}},
      {"nothing to share", 0, {{"A", 1}}, {}},
      {"nobody with blocks", 20'000, {{"A", 0}}, {}},
      {"largest numbers",
       kAmountMax,
       {{"A", kCountMax}, {"B", kCountMax}},
       {{"A", 4'611'686'018'427'387'904}, {"B", 4'611'686'018'427'387'903}}},
  };
  for (const auto& [label, amount, counts, want] : rows) {
    EXPECT_EQ(calculate_distribution(amount, counts), want) << label;
  }
}

TEST(DistributionShares, AgreeWithLongDivisionAndSumToTheAmount) {
  std::mt19937_64 random(42);
  for (uint32_t round = 0; round < 2'000; ++round) {
    const uint64_t amount = random() >> (1 + random() % 50);
    const unsigned count_shift = random() % 32;
    MinerBlockCounts counts;
    uint64_t total = 0;
    for (uint32_t number = 0; number <= round % 40; ++number) {
      total += counts[address_of(number)] = static_cast<uint32_t>(random() >> 32) >> count_shift;
    }
    Shares want;
    uint64_t rest = amount;
    std::pair<uint32_t, std::string> top;  // the first of those with the most blocks
    for (const auto& [address, count] : counts) {
      const uint64_t share = total == 0 ? 0 : (uint256(amount) * count / uint256(total)).low64();
      if (share >= 10'000) {
        want[address] = static_cast<int64_t>(share);
        rest -= share;
        top = count > top.first ? std::pair(count, address) : top;
      }
    }
    if (!want.empty()) {
      want[top.second] += static_cast<int64_t>(rest);
    }
    ASSERT_EQ(calculate_distribution(static_cast<int64_t>(amount), counts), want) << round;
  }
}

TEST(DistributionTx, PaysTheSharesInMapOrder) {
  const SampleKey ann = sample_key(1);
  const SampleKey bob = sample_key(2);
  const MinerBlockCounts counts = {{ann.address, 1}, {bob.address, 2}, {"1nobody", 1}};
  CapturedStderr log;
  const Transaction tx = create_distribution_tx(80'000, counts, 0x01020304);
  EXPECT_EQ(log.text(),
            "[Treasury] Skipping invalid miner address '1nobody': address_to_hash160: invalid address length\n");

  Transaction want;
  want.type = TransactionType::TREASURY_DISTRIBUTION;
  want.timestamp = tx.timestamp;
  want.inputs.push_back({{uint256(), 0xfffffffe}, {4, 3, 2, 1}, {}, 0xffffffff});
  want.outputs = {make_p2pkh_output(20'000, ann.pubkey_hash), make_p2pkh_output(40'000, bob.pubkey_hash)};
  if (bob.address < ann.address) {
    std::swap(want.outputs[0], want.outputs[1]);
  }
  EXPECT_EQ(tx.serialize(), want.serialize());

  std::string error;
  EXPECT_TRUE(validate_distribution_tx(Transaction::deserialize(tx.serialize()), 80'000, counts, 0x01020304, error))
      << error;
}

TEST(DistributionTx, KeepsTheLargestSharesWhenPayeesAreTooMany) {
  // Three of 20,003 payees have more blocks, the last one in map order among them; the three before that one must go.
  constexpr int64_t kUnits = 10'000;
  MinerBlockCounts counts;
  for (uint32_t number = 0; counts.size() < 20'003; ++number) {
    counts[address_of(number)] = 1;
  }
  int64_t blocks = 20'003;
  for (const size_t rich : {size_t{0}, size_t{10'000}, size_t{20'002}}) {
    std::next(counts.begin(), static_cast<std::ptrdiff_t>(rich))->second = 3;
    blocks += 2;
  }
  std::vector<std::string> want;
  for (const auto& [address, count] : counts) {
    want.push_back(address);
  }
  want.erase(want.end() - 4, want.end() - 1);

  const Transaction tx = create_distribution_tx(blocks * kUnits, counts, 10);
  std::vector<std::string> paid;
  for (const TxOut& output : tx.outputs) {
    paid.push_back(crypto::hash160_to_address(output.get_pubkey_hash(), 0));
  }
  EXPECT_EQ(paid, want);
  EXPECT_EQ(tx.outputs.back().value, 3 * kUnits);
  EXPECT_LT(tx.size(), 750'000u);
  std::string error;
  EXPECT_TRUE(validate_distribution_tx(tx, blocks * kUnits, counts, 10, error)) << error;
}

// A valid distribution of 1,000,000 base units at height 50; its outputs are 100,000, 200,000 and 700,000.
struct Offer {
  Offer() {
    counts = {{sample_key(1).address, 1}, {sample_key(2).address, 2}, {sample_key(3).address, 7}};
    tx = create_distribution_tx(amount, counts, height);
    std::sort(tx.outputs.begin(), tx.outputs.end(), [](const TxOut& a, const TxOut& b) { return a.value < b.value; });
  }

  std::string verdict() const {
    std::string error;
    const bool valid = validate_distribution_tx(tx, amount, counts, height, error);
    EXPECT_EQ(valid, error.empty());
    return error;
  }

  int64_t amount = 1'000'000;
  uint32_t height = 50;
  MinerBlockCounts counts;
  Transaction tx;
};

TEST(DistributionRules, TheFirstBrokenOneIsNamed) {
  // Each row breaks the rule before those that are broken already.
  const std::tuple<std::function<void(Offer&)>, const char*> rows[] = {
      {[](Offer&) {}, ""},
      {[](Offer& o) { o.tx.outputs.push_back(o.tx.outputs[0]); },
       "Distribution tx total outputs exceed treasury balance (1100000 > 1000000"},
      {[](Offer& o) { o.tx.outputs[2].value += 2; },
       "Distribution tx output amount mismatch (expected 700000, got 700002"},
      {[](Offer& o) { o.tx.outputs[1] = make_p2pkh_output(200'000, Bytes(20, 9)); },
       "Distribution tx contains unexpected output address"},
      {[](Offer& o) {
         o.tx.inputs[0].signature = Bytes({51, 0, 0, 0, 50});
       },
       "Distribution tx encodes wrong height (51 vs expected 50"},
      {[](Offer& o) {
         o.tx.inputs[0].signature = Bytes({50, 0, 0});
       },
       "Distribution tx signature too short"},
      {[](Offer& o) { o.tx.inputs[0].prevout.index = 0xffffffff; }, "Distribution tx input has invalid prevout"},
      {[](Offer& o) { o.tx.inputs.push_back(o.tx.inputs[0]); }, "Distribution tx must have exactly one input"},
      {[](Offer& o) { o.tx.type = TransactionType::COINBASE; }, "Distribution tx has wrong type"},
  };
  Offer offer;
  for (const auto& [change, want] : rows) {
    change(offer);
    EXPECT_EQ(offer.verdict(), want);
  }
}

TEST(DistributionRules, AtTheEdges) {
  const std::tuple<const char*, std::function<void(Offer&)>, const char*> rows[] = {
      {"one unit less", [](Offer& o) { o.tx.outputs[0].value -= 1; }, ""},
      {"two units less", [](Offer& o) { o.tx.outputs[0].value -= 2; },
       "Distribution tx output amount mismatch (expected 100000, got 99998"},
      {"one unit more, one less", [](Offer& o) { ++o.tx.outputs[0].value, --o.tx.outputs[1].value; }, ""},
      {"one unit more", [](Offer& o) { ++o.tx.outputs[0].value; },
       "Distribution tx total outputs exceed treasury balance (1000001 > 1000000"},
      {"far below nothing", [](Offer& o) { o.tx.outputs[0].value = std::numeric_limits<int64_t>::min(); },
       "Distribution tx output amount mismatch (expected 100000, got -9223372036854775808"},
      {"the top payee missing, another repeated",
       [](Offer& o) { o.tx.outputs.pop_back(), o.tx.outputs.resize(10, o.tx.outputs[0]), --o.tx.outputs[0].value; },
       "Distribution tx total outputs exceed treasury balance (1099999 > 1000000"},
      {"more after the height", [](Offer& o) { o.tx.inputs[0].signature.push_back(1); }, ""},
      {"an earlier transaction", [](Offer& o) { o.tx.inputs[0].prevout.txid = uint256("1"); },
       "Distribution tx input has invalid prevout"},
      {"a payee by another script", [](Offer& o) { o.tx.outputs[0] = TxOut(100'000, {}); },
       "Distribution tx contains unexpected output address"},
      {"a sum beyond 64 bits",
       [](Offer& o) {
         o.amount = kAmountMax;
         o.counts = {{sample_key(1).address, 1}};
         o.tx.outputs.assign(3, make_p2pkh_output(kAmountMax, sample_key(1).pubkey_hash));
       },
       "Distribution tx total outputs exceed treasury balance (27670116110564327421 > 9223372036854775807"},
      {"no outputs", [](Offer& o) { o.tx.outputs.clear(), o.amount = 10'000; },
       "Distribution tx has no outputs but treasury has distributable balance"},
      {"no outputs of dust", [](Offer& o) { o.tx.outputs.clear(), o.amount = 9'999; }, ""},
      {"no outputs for nobody", [](Offer& o) { o.tx.outputs.clear(), o.counts.clear(); }, ""},
      {"no outputs of less than nothing", [](Offer& o) { o.tx.outputs.clear(), o.amount = -5; },
       "Distribution tx total outputs exceed treasury balance (0 > -5"},
  };
  for (const auto& [label, change, want] : rows) {
    Offer offer;
    change(offer);
    EXPECT_EQ(offer.verdict(), want) << label;
  }
}

TEST(TreasuryPeriod, IsPendingOnlyWhereABlockCanCloseIt) {
  const std::tuple<const char*, int64_t, MinerBlockCounts, uint32_t, bool> rows[] = {
      {"no balance", 0, {{"A", 1}}, 9, false},
      {"dust, closed without outputs", 9'999, {{"A", 1}, {"B", 1}}, 9, true},
      {"shares of dust only", 10'000, {{"A", 1}, {"B", 1}}, 9, false},
      {"largest of those", 19'999, {{"A", 1}, {"B", 1}}, 9, false},
      {"shares to pay", 20'000, {{"A", 1}, {"B", 1}}, 9, true},
      {"no miner", 20'000, {}, 9, false},
      {"a block too early", 20'000, {{"A", 1}}, 8, false},
      {"no height follows", 20'000, {{"A", 1}}, kCountMax, false},
  };
  for (const auto& [label, balance, counts, height, want] : rows) {
    TreasuryState state;
    state.distribution_interval = 10;
    state.balance = balance;
    state.miner_block_counts = counts;
    freeze_period(state, height);
    EXPECT_EQ(state.distribution_pending, want) << label;
    if (want) {
      state.balance = 1;
      freeze_period(state, height);
      EXPECT_EQ(state.distribution_pool, balance) << label << ", once pending";
    }
  }
}

// A block whose coinbase pays `miner`, with the pending distribution behind it if there is one.
Block next_block(const TreasuryState& state, const SampleKey& miner, uint32_t height) {
  Block block;
  block.transactions.push_back(Transaction::create_coinbase_tx(miner.address, 1, 0, height, ""));
  if (state.distribution_pending && is_distribution_height(height, state.distribution_interval)) {
    block.transactions.push_back(create_distribution_tx(state.distribution_pool, state.pending_miner_counts, height));
  }
  return block;
}

TEST(TreasuryPeriod, RunsOnThroughDustAndEndsWithItsDistribution) {
  const SampleKey ann = sample_key(1);
  const SampleKey bob = sample_key(2);
  const std::string& a = ann.address;
  const std::string& b = bob.address;
  const struct {
    const SampleKey& miner;
    int64_t fees;
    TreasuryState want;  // fields in the order of the struct
  } rows[] = {
      {ann, 15'001, {7'500, {}, 0, 0, {}, false, 3}},  // the genesis block counts for nobody
      {ann, 15'001, {15'000, {{a, 1}}, 0, 0, {}, false, 3}},
      {bob, 0, {15'000, {{a, 1}, {b, 1}}, 0, 15'000, {{a, 1}, {b, 1}}, false, 3}},  // dust for both
      {ann, 0, {15'000, {{a, 2}, {b, 1}}, 0, 15'000, {{a, 1}, {b, 1}}, false, 3}},
      {ann, 0, {15'000, {{a, 3}, {b, 1}}, 0, 15'000, {{a, 1}, {b, 1}}, false, 3}},
      {ann, 2, {15'001, {{a, 4}, {b, 1}}, 0, 15'001, {{a, 4}, {b, 1}}, true, 3}},
      {bob, 4'000, {2'000, {{b, 1}}, 6, 0, {}, false, 3}},  // pays all, counts its own miner anew
      {bob, 0, {2'000, {{b, 2}}, 6, 0, {}, false, 3}},
      {bob, 0, {2'000, {{b, 3}}, 6, 2'000, {{b, 3}}, true, 3}},
      {ann, 0, {2'000, {{a, 1}}, 9, 0, {}, false, 3}},  // a distribution without outputs
  };
  TreasuryState state;
  state.distribution_interval = 3;
  uint32_t height = 0;
  for (const auto& row : rows) {
    const Block block = next_block(state, row.miner, height);
    close_period(state, block, height);
    collect_fees(state, row.fees);
    count_miner(state, block, height);
    freeze_period(state, height);
    EXPECT_EQ(state, row.want) << height;
    ++height;
  }
}

TEST(TreasuryPeriod, ClosesWithWhateverTheBlockCarries) {
  const SampleKey ann = sample_key(1);
  TreasuryState pending;
  pending.distribution_interval = 10;
  pending.balance = 50'000;
  pending.miner_block_counts = {{ann.address, 1}};
  freeze_period(pending, 9);
  const std::tuple<const char*, std::function<void(Block&)>, int64_t> rows[] = {
      {"nothing", [](Block& b) { b.transactions.pop_back(); }, 50'000},
      {"another type", [](Block& b) { b.transactions[1].type = TransactionType::TRANSFER; }, 50'000},
      {"a part", [](Block& b) { b.transactions[1].outputs[0].value = 49'999; }, 1},
      {"more than there is", [](Block& b) { b.transactions[1].outputs[0].value = 50'001; }, 0},
  };
  for (const auto& [label, change, want] : rows) {
    TreasuryState state = pending;
    Block block = next_block(state, ann, 10);
    change(block);
    close_period(state, block, 10);
    EXPECT_EQ(state, (TreasuryState{want, {}, 10, 0, {}, false, 10})) << label;
  }
}

}  // namespace
}  // namespace norvel::treasury
