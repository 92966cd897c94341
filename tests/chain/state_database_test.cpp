#include "chain/state_database.h"

#include <gtest/gtest.h>
#include <leveldb/db.h>

#include <filesystem>
#include <memory>

#include "core/file_io.h"
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

// Whatever happened to one file, what is read is what was written or nothing,
// and a database made anew holds nothing of the old one.
TEST_F(StateDatabaseFiles, IsNeverReadInPartAfterDamage) {
  const auto keep = directory_ / "keep";
  const StateDatabase::Update old = update();
  ASSERT_TRUE(database_.write(old, index_));
  std::filesystem::rename(path_, keep);
  const BlockIndexMap new_index = {{sample_entry(40).hash, sample_entry(40)}};
  const StateDatabase::Update next{{sample_entry(40).hash, 40, 7}, &treasury_, {}, {}};
  size_t unreadable_count = 0;
  for (const auto& file : std::filesystem::directory_iterator(keep)) {
    const Bytes whole = read_whole_file(file.path(), 1 << 30).value_or(Bytes());
    const auto middle = whole.begin() + static_cast<std::ptrdiff_t>(whole.size() / 2);
    for (const auto& damaged :
         {std::optional<Bytes>(), {Bytes()}, {Bytes(whole.size(), 'x')}, {Bytes(whole.begin(), middle)}}) {
      SCOPED_TRACE(file.path().filename().string() + (damaged ? " overwritten" : " deleted"));
      std::filesystem::remove_all(path_);
      std::filesystem::copy(keep, path_);
      const auto victim = std::filesystem::path(path_) / file.path().filename();
      std::filesystem::remove(victim);
      ASSERT_TRUE(!damaged || replace_file(victim, *damaged));
      const ReadResult result = database_.read(content_);
      EXPECT_NE(result, ReadResult::FAILED);
      EXPECT_TRUE(result == ReadResult::READ ? content_.tip == old.tip && content_.index == index_
                                             : content_.index.empty());
      if (result == ReadResult::UNREADABLE) {
        ++unreadable_count;
        ASSERT_TRUE(database_.set_aside());
      }
      if (result != ReadResult::READ) {
        ASSERT_TRUE(database_.write(next, new_index));
        ASSERT_EQ(database_.read(content_), ReadResult::READ);
        EXPECT_EQ(content_.index, new_index);
      }
    }
  }
  EXPECT_GT(unreadable_count, 4u);
}

}  // namespace
}  // namespace norvel
