#include "chain/state_database.h"

#include <gtest/gtest.h>
#include <leveldb/db.h>

#include <filesystem>
#include <memory>
#include <tuple>

#include "chain/state_codec.h"
#include "core/file_io.h"
#include "support/byte_strings.h"
#include "support/captured_stderr.h"
#include "support/chain_builder.h"

namespace norvel {
namespace {

using ReadResult = StateDatabase::ReadResult;

BlockIndex sample_entry(uint64_t number) {
  return {uint256(number << 32), uint256(number - 1), static_cast<uint32_t>(number), 5, 6,
          uint256(number),       "blk00000.dat"};
}

class StateDatabaseFiles : public testing::Test {
 protected:
  StateDatabaseFiles() {
    for (uint64_t number = 1; number <= 20; ++number) {
      index_[sample_entry(number).hash] = sample_entry(number);
    }
    treasury_.balance = 12;
    treasury_.miner_block_counts = {{"a", 1}};
  }

  StateDatabase::Update update() const { return {{sample_entry(20).hash, 20, 1'000}, &treasury_, {}, {}}; }

  std::unique_ptr<leveldb::DB> open_raw() const {
    leveldb::DB* db = nullptr;
    EXPECT_TRUE(leveldb::DB::Open(leveldb::Options(), path_, &db).ok());
    return std::unique_ptr<leveldb::DB>(db);
  }

  void put_raw(const std::string& key, const Bytes& value) const {
    open_raw()->Put({}, key, leveldb::Slice(reinterpret_cast<const char*>(value.data()), value.size()));
  }

  CapturedStderr captured_;
  TemporaryDirectory directory_;
  std::string path_ = directory_ / "chainstate";
  StateDatabase database_{directory_.path()};
  BlockIndexMap index_;
  TreasuryState treasury_;
  StateDatabase::Content content_;
};

TEST_F(StateDatabaseFiles, IsMadeByTheFirstWriteAndThenTakesChanges) {
  EXPECT_EQ(database_.read(content_), ReadResult::MISSING);
  EXPECT_TRUE(database_.set_aside());
  EXPECT_FALSE(std::filesystem::exists(path_));
  ASSERT_TRUE(database_.write_treasury(treasury_));
  EXPECT_EQ(database_.read(content_), ReadResult::MISSING);  // no tip yet
  ASSERT_TRUE(database_.write(update(), index_));
  ASSERT_EQ(database_.read(content_), ReadResult::READ);
  EXPECT_EQ(content_.index, index_);

  BlockIndexMap expected = index_;
  const BlockIndex added = sample_entry(21);
  index_[added.hash] = expected[added.hash] = added;
  index_[sample_entry(5).hash].bits = 77;  // not among the changed
  expected.erase(sample_entry(3).hash);
  treasury_.balance = 13;
  const StateDatabase::Update next{
      {added.hash, 21, 1'100}, &treasury_, {&added}, {sample_entry(3).hash, uint256(uint64_t{999})}};
  ASSERT_TRUE(database_.write(next, index_));
  ASSERT_EQ(database_.read(content_), ReadResult::READ);
  EXPECT_EQ(content_.index, expected);
  EXPECT_EQ(content_.tip, next.tip);
  EXPECT_EQ(database_.read_treasury(), treasury_);
  EXPECT_EQ(captured_.text(), "");
}

TEST_F(StateDatabaseFiles, LeavesOutEntriesThatAreNone) {
  ASSERT_TRUE(database_.write(update(), index_));
  const BlockIndex other = sample_entry(30);
  Bytes cut = encode_block_index(other);
  cut.resize(87);
  put_raw(block_key(other.hash), cut);
  put_raw(block_key(uint256(uint64_t{31})), encode_block_index(other));
  put_raw("blk_", encode_block_index(other));
  put_raw("blm", {1});
  put_raw(kTreasuryStateKey, {1});
  ASSERT_EQ(database_.read(content_), ReadResult::READ);
  EXPECT_EQ(content_.index, index_);
  EXPECT_EQ(database_.read_treasury(), std::nullopt);
  EXPECT_NE(captured_.text().find("treasury_state does not decode"), std::string::npos);
  put_raw(kChainStateKey, Bytes(36, 1));
  ASSERT_EQ(database_.read(content_), ReadResult::READ);
  EXPECT_EQ(content_.tip.total_supply, 0);
  put_raw(kChainStateKey, Bytes(35));
  EXPECT_EQ(database_.read(content_), ReadResult::UNREADABLE);
  EXPECT_TRUE(content_.index.empty());
}

TEST_F(StateDatabaseFiles, TellsARefusalOfTheSystemFromDamage) {
  ASSERT_TRUE(database_.write(update(), index_));
  const auto holder = open_raw();
  EXPECT_EQ(database_.read(content_), ReadResult::FAILED);
  EXPECT_FALSE(database_.write(update(), index_));
  EXPECT_NE(captured_.text().find("[Blockchain] Failed to open LevelDB: IO error: "), std::string::npos);
}

// What damage to whole files does is seen in damage_test.cpp; here one bit, in a table among the entries of the index.
TEST_F(StateDatabaseFiles, IsReadWholeOrMadeAnew) {
  for (uint64_t number = 21; number <= 200; ++number) {
    index_[sample_entry(number).hash] = sample_entry(number);
  }
  const BlockIndexMap new_index = {{sample_entry(400).hash, sample_entry(400)}};
  for (const std::string part : {"MANIFEST", ".ldb"}) {
    SCOPED_TRACE(part);
    std::filesystem::remove_all(path_);
    ASSERT_TRUE(database_.write(update(), index_) && database_.write_treasury(treasury_));  // the second makes a table
    for (const auto& file : std::filesystem::directory_iterator(path_)) {
      if (file.path().filename().string().find(part) != std::string::npos) {
        Bytes bytes = read_whole_file(file.path(), 1 << 20).value();
        bytes.at(20) ^= 1;
        ASSERT_TRUE(replace_file(file.path(), bytes));
      }
    }
    EXPECT_EQ(database_.read(content_), ReadResult::UNREADABLE);
    EXPECT_TRUE(content_.index.empty());
    ASSERT_TRUE(database_.set_aside());
    ASSERT_TRUE(database_.write({{sample_entry(400).hash, 400, 7}, &treasury_, {}, {}}, new_index));
    ASSERT_EQ(database_.read(content_), ReadResult::READ);
    EXPECT_EQ(content_.index, new_index) << "nothing of the old";
  }
}

const std::string kHashHex = "0102" + std::string(56, '0') + "aabb";

uint256 sample_hash() {
  return uint256(hex(kHashHex));
}

TEST(ChainTipValue, HasTheStatedLayoutAndReadsTheOldOne) {
  const ChainTip tip{sample_hash(), 0x01020304, 0x1122334455};
  const std::string old_hex = kHashHex + "04030201";
  EXPECT_EQ(crypto::bytes_to_hex(encode_chain_tip(tip)), old_hex + "5544332211000000");
  const std::tuple<std::string, std::optional<int64_t>> rows[] = {
      {old_hex + "5544332211000000", 0x1122334455},
      {old_hex, 0},
      {old_hex.substr(2), std::nullopt},
      {old_hex + "55443322110000", std::nullopt},
      {old_hex + "554433221100000000", std::nullopt},
      {old_hex + "ffffffffffffffff", std::nullopt},  // negative
  };
  for (const auto& [text, supply] : rows) {
    const auto read = decode_chain_tip(hex(text));
    EXPECT_EQ(read ? std::optional(read->total_supply) : std::nullopt, supply) << text;
    EXPECT_TRUE(!read || (read->best_hash == tip.best_hash && read->best_height == tip.best_height)) << text;
  }
}

TEST(BlockIndexValue, HasTheStatedLayout) {
  EXPECT_EQ(block_key(sample_hash()), "blk_bbaa" + std::string(56, '0') + "0201");
  const uint256 work = uint256("ffeeddccbbaa99887766554433221100");
  BlockIndex entry{sample_hash(), uint256(uint64_t{7}), 0x01020304, 0x1122334455, 0x1f7fffff, work, "blk00003.dat"};
  const std::string fixed_hex = kHashHex + "07" + std::string(62, '0') + "040302015544332211000000ffff7f1f";
  const std::string value_hex = fixed_hex + "0011223344556677" + "626c6b30303030332e646174";
  EXPECT_EQ(crypto::bytes_to_hex(encode_block_index(entry)), value_hex);
  entry.chain_work = uint256(work.low64());
  EXPECT_EQ(decode_block_index(hex(value_hex)), entry);
  entry.file_name.clear();
  EXPECT_EQ(decode_block_index(hex(fixed_hex + "0011223344556677")), entry);
  for (const std::string& text : {fixed_hex + "00112233445566", value_hex + "2f78", value_hex + "00"}) {
    EXPECT_EQ(decode_block_index(hex(text)), std::nullopt) << text.substr(fixed_hex.size());
  }
}

TEST(TreasuryValue, HasTheStatedLayoutAndRefusesAnythingElse) {
  TreasuryState state;
  state.balance = 0x1122;
  state.last_distribution_height = 5;
  state.distribution_pool = 0x33;
  state.distribution_pending = true;
  state.miner_block_counts = {{"ab", 1}, {"b", 2}};
  state.pending_miner_counts = {{"", 3}};
  const Bytes whole =
      hex("2211000000000000050000003300000000000000"
          "010200000002006162010000000100620200000001000000000003000000");
  EXPECT_EQ(encode_treasury(state), whole);
  EXPECT_EQ(decode_treasury(whole), state);
  for (size_t len = 0; len < whole.size(); ++len) {
    EXPECT_EQ(decode_treasury(ByteView(whole).first(len)), std::nullopt) << len;
  }
  EXPECT_EQ(decode_treasury(join({whole, {0}})), std::nullopt);
}

}  // namespace
}  // namespace norvel
