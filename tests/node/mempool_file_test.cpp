#include "node/mempool_file.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "chain/chain_scene.h"
#include "mempool/mempool.h"
#include "support/captured_stderr.h"

namespace norvel::node {
namespace {

class MempoolFile : public testing::Test {
 protected:
  // Three chains of a parent, a child and a grandchild.
  MempoolFile() {
    for (int i = 0; i < 3; ++i) {
      auto coin = output_of(scene_.extend().transactions[0]);
      for (uint8_t from : {uint8_t{1}, uint8_t{2}, uint8_t{2}}) {
        const Transaction tx = pay(sample_key(from), {coin}, {coin.second.value - 1'000});
        EXPECT_TRUE(pool_.add_transaction(tx, 1'000, reason_));
        coin = output_of(tx);
      }
    }
  }

  size_t loaded_count() {
    Mempool pool(1'000'000);
    TransactionAdmission admission(scene_.chain(), pool);
    EXPECT_TRUE(load_mempool(admission, directory_.path(), stop_));
    return pool.size();
  }

  std::string read_file() {
    std::ifstream file(directory_ / "mempool.dat", std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  void write_file(const std::string& bytes) { std::ofstream(directory_ / "mempool.dat", std::ios::binary) << bytes; }

  const TemporaryDirectory directory_;
  ChainScene scene_;
  Mempool pool_{1'000'000};
  StopRequest stop_;
  std::string reason_;
};

// As at a stop, while a call that came before it still offers transactions.
TEST_F(MempoolFile, HoldsAllThatTheClosedPoolTook) {
  std::thread caller([&] {
    auto coin = output_of(scene_.extend().transactions[0]);
    uint8_t from = 1;
    for (bool is_taken = true; is_taken; from = 2) {
      const Transaction tx = pay(sample_key(from), {coin}, {coin.second.value - 1'000});
      is_taken = pool_.add_transaction(tx, 1'000, reason_);
      coin = output_of(tx);
    }
  });
  while (pool_.size() < 15) {
    std::this_thread::yield();
  }
  pool_.close();
  EXPECT_TRUE(save_mempool(pool_, directory_.path(), 60'000));
  caller.join();
  EXPECT_EQ(reason_, "Node is stopping");
  EXPECT_EQ(loaded_count(), pool_.size());
}

TEST_F(MempoolFile, BringsBackWhatIsStillValid) {
  EXPECT_EQ(loaded_count(), 0u);  // no file
  ASSERT_TRUE(save_mempool(pool_, directory_.path(), 60'000));
  EXPECT_EQ(loaded_count(), 9u);
  const auto confirmed = pool_.get_transactions_for_block(1'000'000).front();
  scene_.extend({.txs = {confirmed}, .fees = 1'000});
  EXPECT_EQ(loaded_count(), 8u);
  const CapturedStderr quiet;
  EXPECT_FALSE(save_mempool(pool_, directory_.path(), 0));  // no time at all
  EXPECT_EQ(loaded_count(), 8u);
  ASSERT_TRUE(save_mempool(Mempool(1), directory_.path(), 0));
  EXPECT_EQ(loaded_count(), 0u);
}

TEST_F(MempoolFile, IsReadUpToItsDamage) {
  ASSERT_TRUE(save_mempool(pool_, directory_.path(), 60'000));
  const std::string whole = read_file();
  std::string endless = whole.substr(0, 8) + std::string(4, '\xff') + whole.substr(12);
  const struct {
    const char* label;
    std::string bytes;
    size_t want;
  } rows[] = {
      {"empty", "", 0},
      {"magic cut", whole.substr(0, 7), 0},
      {"other magic", "x" + whole.substr(1), 0},
      {"nothing but magic", whole.substr(0, 8), 0},
      {"length cut", whole.substr(0, 11), 0},
      {"length of four gigabytes", endless, 0},
      {"length zero", whole + std::string(4, '\0'), 9},
      {"last record cut", whole.substr(0, whole.size() - 1), 8},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const CapturedStderr quiet;
    write_file(row.bytes);
    EXPECT_EQ(loaded_count(), row.want);
    EXPECT_EQ(quiet.text().empty(), row.bytes == whole.substr(0, 8));
  }
}

TEST_F(MempoolFile, LargeOneIsAnnouncedBeforeItsFirstRecord) {
  ASSERT_TRUE(save_mempool(pool_, directory_.path(), 60'000));
  const std::string whole = read_file();
  const CapturedStderr quiet;
  for (const size_t bytes : {999'999U, 1'000'000U}) {
    write_file(whole + std::string(bytes - whole.size(), '\0'));
    testing::internal::CaptureStdout();
    loaded_count();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              std::string(bytes == 1'000'000 ? "[Node] Loading the pool: 1 MB of transactions to validate\n" : "") +
                  "[Node] Pool loaded: 9 of 9 transaction(s) still valid\n");
  }
}

TEST_F(MempoolFile, IsLeftAloneByAStopAndAFailedSave) {
  ASSERT_TRUE(save_mempool(pool_, directory_.path(), 60'000));
  const CapturedStderr quiet;
  const std::string whole = read_file();
  std::filesystem::create_directory(directory_ / "mempool.dat.tmp");
  EXPECT_FALSE(save_mempool(Mempool(1), directory_.path(), 60'000));
  EXPECT_EQ(read_file(), whole);
  stop_.request(0);
  Mempool pool(1'000'000);
  TransactionAdmission admission(scene_.chain(), pool);
  EXPECT_FALSE(load_mempool(admission, directory_.path(), stop_));
  EXPECT_EQ(pool.size(), 0u);
}

}  // namespace
}  // namespace norvel::node
