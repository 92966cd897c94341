// The byte format of blocks, their hash, and the two factories.

#include "core/block.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>

#include "chain/utxo_set.h"
#include "core/clock.h"
#include "core/merkle.h"
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

// A transaction without inputs and outputs.
constexpr const char kEmptyTx[] = "010100000000000000000000000000000000000000";

// A block with two of those, field by field.
const FormatField kBlockFields[] = {
    {"04030201", kNoData},
    {"000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f", kCutHash},
    {"202122232425262728292a2b2c2d2e2f303132333435363738393a3b3c3d3e3f", kCutHash},
    {"4746454443424140", kNoData},
    {"ffff7f20", kNoData},
    {"53525150", kNoData},
    {"63626160", kNoData},
    {"02000000", kNoData},
    {"15000000", kNoData},
    {kEmptyTx, kNoData},
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
  EXPECT_EQ(block.transactions.size(), 2u);
  EXPECT_EQ(block.serialize(), bytes);
  EXPECT_EQ(block.size(), bytes.size());
  EXPECT_EQ(block.get_hash(), crypto::hash256(ByteView(bytes).first(84)));
}

TEST(BlockFormat, EachCutNamesTheFieldItEndsIn) {
  expect_cut_messages(kBlockFields, [](ByteView data) { Block::deserialize(data); });
}

TEST(BlockFormat, IgnoresBytesAfterATransactionAndAfterTheLast) {
  const std::string start(2 * 88, '0');
  const struct {
    const char* label;
    std::string hex;
    std::string want;  // the bytes again, or the error
  } rows[] = {
      {"after the last transaction", start + "00000000" + "aabb", start + "00000000"},
      {"within a transaction's length", start + "01000000" + "17000000" + kEmptyTx + "aabb",
       start + "01000000" + "15000000" + kEmptyTx},
      {"a transaction does not read past its length", start + "01000000" + "14000000" + kEmptyTx + "aabb",
       "Not enough data for locktime"},
      {"empty transaction", start + "01000000" + "00000000" + kEmptyTx, kNoData},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    std::string got;
    const auto error = runtime_error_of(
        [&] { got = crypto::bytes_to_hex(Block::deserialize(crypto::hex_to_bytes(row.hex)).serialize()); });
    EXPECT_EQ(error.value_or(got), row.want);
  }
}

TEST(BlockFormat, RandomBlocksSurvive) {
  std::mt19937_64 random(6);
  for (int i = 0; i < 200; ++i) {
    Block block;
    size_t offset = 0;
    block.header = BlockHeader::deserialize(random_bytes(random, BlockHeader::kSize), offset);
    ASSERT_EQ(offset, BlockHeader::kSize);
    for (auto count = random() % 5; count > 0; --count) {
      block.transactions.push_back(random_transaction(random));
    }
    const Bytes bytes = block.serialize();
    ASSERT_EQ(block.size(), bytes.size());
    const Block back = Block::deserialize(bytes);
    ASSERT_EQ(back.serialize(), bytes);
    ASSERT_EQ(back.calculate_merkle_root(), block.calculate_merkle_root());
  }
}

TEST(BlockHash, CoversTheHeaderAloneAndIsCached) {
  Block block = Block::deserialize(join_fields(kBlockFields));
  const uint256 hash = block.get_hash();
  block.height += 1;
  block.invalidate_cache();
  EXPECT_EQ(block.get_hash(), hash);
  block.header.nonce += 1;
  EXPECT_EQ(block.get_hash(), hash);
  block.invalidate_cache();
  const uint256 other = block.get_hash();
  EXPECT_NE(other, hash);
  block.update_merkle_root();
  EXPECT_NE(block.get_hash(), other);
}

TEST(BlockHash, ProofOfWorkComparesWithTheTarget) {
  BlockHeader header;
  int met = 0;
  for (header.nonce = 0; header.nonce < 200; ++header.nonce) {
    header.bits = 0x207fffff;
    const std::string hash = header.get_hash().to_hex();
    EXPECT_EQ(header.check_proof_of_work(), hash < "7fffff" + std::string(58, '0')) << hash;
    met += header.check_proof_of_work() ? 1 : 0;
    header.bits = 0;
    EXPECT_FALSE(header.check_proof_of_work());
  }
  EXPECT_GT(met, 50);
  EXPECT_LT(met, 150);
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
  const struct {
    const char* label;
    uint32_t height;
    int64_t room;  // supply limit minus current supply
    int64_t limit;
    int64_t fees;
    std::vector<int64_t> coinbase;  // output values
  } rows[] = {
      {"height 0, just enough room", 0, 800'000'000, kFirstPeriodSupply, 0, {800'000'000}},
      {"height 0, one unit short", 0, 799'999'999, kFirstPeriodSupply, 0, {799'999'999}},
      {"height 1", 1, 799'999'999, kFirstPeriodSupply, 0, {799'999'999}},
      {"end of the first period", 52'559, 799'999'999, kFirstPeriodSupply, 0, {799'999'999}},
      {"second period", 52'560, 799'999'999, kFullSupply - kFirstPeriodSupply / 2, 0, {799'999'999}},
      {"third period", 105'120, 799'999'999, kFullSupply - kFirstPeriodSupply / 4, 0, {799'999'999}},
      {"end of the last period", 3'363'839, 199'999'999, kFullSupply, 0, {199'999'999}},
      {"after the last period", 3'363'840, 199'999'999, kFullSupply, 0, {199'999'999}},
      {"after the last period, just enough room", 3'363'840, 200'000'000, kFullSupply, 0, {200'000'000}},
      {"fees count against the room", 1, 800'020'000, kFirstPeriodSupply, 20'000, {800'000'000, 10'000}},
      {"fees cut the reward", 1, 800'019'999, kFirstPeriodSupply, 20'000, {799'999'999, 10'000}},
      {"one unit more than the fees", 1, 20'001, kFirstPeriodSupply, 20'000, {1, 10'000}},
      {"the fees exactly", 1, 20'000, kFirstPeriodSupply, 20'000, {0, 10'000}},
      {"less than the fees", 1, 20'001, kFirstPeriodSupply, 30'000, {0, 10'000}},
      {"less than the fees, below the share", 1, 19'999, kFirstPeriodSupply, 30'000, {0}},
      {"no room", 1, 0, kFirstPeriodSupply, 30'000, {0}},
      {"supply beyond the limit", 1, -1, kFirstPeriodSupply, 30'000, {0}},
      {"negative fees make room", 1, 10, kFirstPeriodSupply, -5, {15}},
      {"negative fees beyond the limit", 1, -10, kFirstPeriodSupply, -20, {20}},
      {"far beyond the limit", 1, kFirstPeriodSupply - kMax, kFirstPeriodSupply, 40'000, {0}},
      {"largest fees", 1, 30'000, kFirstPeriodSupply, kMax, {0, 15'000}},
      {"smallest fees and supply", 1, kMax, kFirstPeriodSupply, kMin, {800'000'000}},
  };
  const SampleKey miner = sample_key(3);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    UTXOSet utxos;
    const OutPoint paid{uint256(uint64_t{1}), 0};
    utxos.add_utxo(paid, TxOut(row.fees, {}));
    const uint256 prev_hash(uint64_t{77});
    const uint64_t before = unix_time_seconds();
    const Block block = Block::create_new_block({spend(paid, {})}, prev_hash, row.height, miner.address, 0x1d00ffff,
                                                utxos, row.limit - row.room);
    ASSERT_EQ(block.transactions.size(), 2u);
    const Transaction& coinbase = block.transactions[0];
    std::vector<int64_t> values;
    for (const TxOut& output : coinbase.outputs) {
      values.push_back(output.value);
    }
    EXPECT_EQ(values, row.coinbase);
    EXPECT_EQ(coinbase.outputs[0].pubkey_hash, miner.pubkey_hash);
    EXPECT_EQ(std::string(coinbase.inputs[0].signature.begin() + 4, coinbase.inputs[0].signature.end()),
              "Mined by Norvel Network");
    EXPECT_EQ(block.header.version, 1u);
    EXPECT_EQ(block.header.prev_hash, prev_hash);
    EXPECT_EQ(block.header.bits, 0x1d00ffffu);
    EXPECT_EQ(block.header.nonce, 0u);
    EXPECT_EQ(block.height, row.height);
    EXPECT_GE(block.header.timestamp, before);
    EXPECT_LE(block.header.timestamp, unix_time_seconds());
    EXPECT_EQ(block.header.merkle_root,
              merkle::compute_merkle_root({coinbase.get_txid(), block.transactions[1].get_txid()}));
  }
}

TEST(Fees, AreInputsMinusOutputs) {
  const OutPoint old_coin{uint256(uint64_t{1}), 0};
  const OutPoint unknown{uint256(uint64_t{9}), 0};
  UTXOSet utxos;
  utxos.add_utxo(old_coin, TxOut(1'000, {}));
  const Transaction first = spend(old_coin, {600, 300});
  const OutPoint own{first.get_txid(), 0};
  Transaction distribution = spend({uint256(), 0xfffffffe}, {5'000});
  distribution.type = TransactionType::TREASURY_DISTRIBUTION;
  const OutPoint distributed{distribution.get_txid(), 0};

  const struct {
    const char* label;
    std::vector<Transaction> txs;
    int64_t want;
  } rows[] = {
      {"nothing", {}, 0},
      {"an old output", {first}, 100},
      {"an output of the list", {first, spend(own, {550})}, 150},
      {"an output of the list, twice", {first, spend(own, {550}), spend(own, {1})}, 149},
      {"an output of a later transaction", {spend(own, {550}), first}, -450},
      {"an unknown output counts nothing", {spend(unknown, {7})}, -7},
      {"a distribution counts nothing", {distribution}, 0},
      {"but its outputs can be spent", {distribution, spend(distributed, {4'000})}, 1'000},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    Block block = Block::create_genesis_block("", sample_key(3).address, 0);
    block.transactions.insert(block.transactions.end(), row.txs.begin(), row.txs.end());
    EXPECT_EQ(block.calculate_total_fees(utxos), row.want);
    // The factory sees the same fees: with no room beyond them the reward is what they leave.
    const Block made = Block::create_new_block(row.txs, uint256(), 1, sample_key(3).address, kGenesisBits, utxos,
                                               kFirstPeriodSupply - 1'000);
    EXPECT_EQ(made.transactions[0].outputs[0].value, 1'000 - row.want);
    EXPECT_EQ(utxos.size(), 1u);
  }
}

TEST(GenesisBlock, IsReproducible) {
  const std::string address = sample_key(3).address;
  const Block block = Block::create_genesis_block("hello", address, 1'704'067'200);
  EXPECT_EQ(block.header.version, 1u);
  EXPECT_TRUE(block.header.prev_hash.is_zero());
  EXPECT_EQ(block.header.timestamp, 1'704'067'200u);
  EXPECT_EQ(block.header.bits, 0x207fffffu);
  EXPECT_EQ(block.header.nonce, 0u);
  EXPECT_EQ(block.height, 0u);
  ASSERT_EQ(block.transactions.size(), 1u);
  EXPECT_EQ(block.header.merkle_root, block.transactions[0].get_txid());
  EXPECT_EQ(block.transactions[0].total_output_value(), 800'000'000);
  EXPECT_EQ(block.transactions[0].timestamp, 1'704'067'200u);
  EXPECT_EQ(block.serialize(), Block::create_genesis_block("hello", address, 1'704'067'200).serialize());
}

}  // namespace
}  // namespace norvel
