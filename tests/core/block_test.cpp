#include "core/block.h"

#include <gtest/gtest.h>

#include <limits>
#include <tuple>
#include <utility>

#include "chain/utxo_set.h"
#include "core/clock.h"
#include "crypto/hash.h"
#include "crypto/hex.h"
#include "support/ledger_samples.h"

namespace norvel {
namespace {

constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr int64_t kFullSupply = 314'159'265'300'000'000;
constexpr int64_t kFirstPeriodSupply = 157'079'632'650'000'000;

constexpr const char kNoData[] = "Not enough data";
constexpr const char kCutHash[] = "Not enough bytes to deserialize uint256";

constexpr const char kEmptyTx[] = "010100000000000000000000000000000000000000";

const FormatField kBlockFields[] = {
    {"04030201", kNoData},
    {"000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f", kCutHash},
    {"202122232425262728292a2b2c2d2e2f303132333435363738393a3b3c3d3e3f", kCutHash},
    {"4746454443424140", kNoData},
    {"ffff7f20", kNoData},
    {"53525150", kNoData},
    {"63626160", kNoData},
    {"01000000", kNoData},
    {"15000000", kNoData},
    {kEmptyTx, kNoData},
};

TEST(BlockFormat, ReadsAndWritesFieldByField) {
  const Bytes bytes = join_fields(kBlockFields);
  const Block block = Block::deserialize(bytes);
  EXPECT_EQ(block.header.version, 0x01020304u);
  EXPECT_EQ(block.header.prev_hash.bytes()[1], 0x01);
  EXPECT_EQ(block.header.merkle_root.bytes()[31], 0x3f);
  EXPECT_EQ(block.header.timestamp, 0x4041424344454647u);
  EXPECT_EQ(block.header.bits, 0x207fffffu);
  EXPECT_EQ(block.header.nonce, 0x50515253u);
  EXPECT_EQ(block.height, 0x60616263u);
  EXPECT_EQ(block.serialize(), bytes);
  EXPECT_EQ(block.size(), bytes.size());
  EXPECT_EQ(block.get_hash(), crypto::hash256(ByteView(bytes).first(84)));
  expect_cut_messages(kBlockFields, [](ByteView data) { Block::deserialize(data); });
}

TEST(BlockFormat, IgnoresBytesAfterATransactionAndAfterTheLast) {
  const std::string start = std::string(2 * 88, '0') + "01000000";
  const std::string more = start + "17000000" + kEmptyTx + "aabb" + "cc";
  EXPECT_EQ(crypto::bytes_to_hex(Block::deserialize(crypto::hex_to_bytes(more)).serialize()),
            start + "15000000" + kEmptyTx);
  const std::string less = start + "14000000" + kEmptyTx + "aabb";
  EXPECT_EQ(runtime_error_of([&] { Block::deserialize(crypto::hex_to_bytes(less)); }), "Not enough data for locktime");
}

TEST(BlockHash, IsCachedAndComparesWithTheTarget) {
  Block block = Block::deserialize(join_fields(kBlockFields));
  const uint256 hash = block.get_hash();
  block.header.nonce += 1;
  EXPECT_EQ(block.get_hash(), hash);
  block.update_merkle_root();
  EXPECT_NE(block.get_hash(), hash);
  for (block.header.nonce = 0; block.header.nonce < 200; ++block.header.nonce) {
    const std::string digits = block.header.get_hash().to_hex();
    EXPECT_EQ(block.header.check_proof_of_work(), digits < "7fffff" + std::string(58, '0')) << digits;
  }
}

// A transaction that spends `prevout` and pays `values` to nobody.
Transaction spend(const OutPoint& prevout, std::initializer_list<int64_t> values) {
  Transaction tx;
  tx.inputs.emplace_back().prevout = prevout;
  for (const int64_t value : values) {
    tx.outputs.emplace_back(value, Bytes());
  }
  return tx;
}

TEST(NewBlock, KeepsWithinTheSupplyLimit) {
  EXPECT_EQ(supply_limit(52'559), kFirstPeriodSupply);
  EXPECT_EQ(supply_limit(52'560), kFullSupply - kFirstPeriodSupply / 2);
  EXPECT_EQ(supply_limit(~0u), kFullSupply);
  // The room is the supply limit minus the current supply.
  const std::tuple<const char*, uint32_t, int64_t, int64_t, std::vector<int64_t>> rows[] = {
      {"height 0, one unit short", 0, 799'999'999, 0, {799'999'999}},
      {"fees count against the room", 1, 800'020'000, 20'000, {800'000'000, 10'000}},
      {"fees cut the reward", 1, 800'019'999, 20'000, {799'999'999, 10'000}},
      {"less than the fees", 1, 20'001, 30'000, {0, 10'000}},
      {"less than the fees, below the share", 1, 19'999, 30'000, {0}},
      {"supply beyond the limit", 1, -1, 30'000, {0}},
      {"largest fees", 1, 30'000, kMax, {0, 15'000}},
      {"smallest fees and supply", 1, kMax, kMin, {800'000'000}},
  };
  for (const auto& [label, height, room, fees, coinbase] : rows) {
    SCOPED_TRACE(label);
    UTXOSet utxos;
    const OutPoint paid{uint256(uint64_t{1}), 0};
    utxos.add_utxo(paid, TxOut(fees, {}));
    const uint64_t before = unix_time_seconds();
    const Block block = Block::create_new_block({spend(paid, {})}, uint256(uint64_t{77}), height, sample_key(3).address,
                                                0x1d00ffff, utxos, kFirstPeriodSupply - room);
    ASSERT_EQ(block.transactions.size(), 2u);
    std::vector<int64_t> values;
    for (const TxOut& output : block.transactions[0].outputs) {
      values.push_back(output.value);
    }
    EXPECT_EQ(values, coinbase);
    EXPECT_EQ(block.header.prev_hash, uint256(uint64_t{77}));
    EXPECT_EQ(block.header.bits, 0x1d00ffffu);
    EXPECT_EQ(block.height, height);
    EXPECT_GE(block.header.timestamp, before);
    EXPECT_EQ(block.header.merkle_root, block.calculate_merkle_root());
  }
}

TEST(Fees, AreInputsMinusOutputs) {
  const OutPoint old_coin{uint256(uint64_t{1}), 0};
  UTXOSet utxos;
  utxos.add_utxo(old_coin, TxOut(1'000, {}));
  const Transaction first = spend(old_coin, {600, 300});
  const OutPoint own{first.get_txid(), 0};
  Transaction distribution = spend({uint256(), 0xfffffffe}, {5'000});
  distribution.type = TransactionType::TREASURY_DISTRIBUTION;
  const OutPoint distributed{distribution.get_txid(), 0};
  const std::pair<std::vector<Transaction>, int64_t> rows[] = {
      {{first}, 100},
      {{first, spend(own, {550}), spend(own, {1})}, 149},  // spent twice: no check here
      {{spend(own, {550}), first}, -450},                  // an output of a later transaction
      {{distribution}, 0},
      {{distribution, spend(distributed, {4'000})}, 1'000},
  };
  for (const auto& [txs, want] : rows) {
    Block block;
    block.transactions = txs;
    EXPECT_EQ(block.calculate_total_fees(utxos), want);
  }
}

}  // namespace
}  // namespace norvel
