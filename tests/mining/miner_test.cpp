#include "mining/miner.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>

#include "core/clock.h"
#include "core/sync.h"
#include "support/captured_stderr.h"

#ifdef NORVEL_SANITIZED
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

namespace norvel {

namespace {

constexpr uint32_t kAlways = 0x2100ffff;  // all but a hash in 65,536 meet it
constexpr uint32_t kDense = 0x200fffff;   // a hash in 16 meets it
constexpr uint32_t kSparse = 0x1f1fffff;  // one in 2,048
constexpr uint32_t kRare = 0x1e7fffff;    // one in 131,072
constexpr uint32_t kNever = 0x1b00ffff;   // one in 2^48

constexpr uint64_t kTemplateTime = 1'500'000'000;

// Bounded, so that a Miner that hangs or loses work fails the test.
bool wait_until(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::yield();
  }
  return true;
}

Block make_block(uint32_t number, uint32_t bits) {
  Block block;
  block.header.prev_hash = uint256(uint64_t{number});
  block.header.bits = bits;
  block.header.timestamp = kTemplateTime;
  return block;
}

// make_block(), of a node that answers.
Block template_if(bool answers, uint32_t number, uint32_t bits) {
  if (!answers) {
    throw std::runtime_error("no template");
  }
  return make_block(number, bits);
}

// The first nonce from `nonce` on, in steps of `stride`, that meets the target.
uint32_t next_hit(const Block& block, uint32_t nonce, uint32_t stride) {
  BlockHeader header = block.header;
  for (header.nonce = nonce; !header.check_proof_of_work(); header.nonce += stride) {
  }
  return header.nonce;
}

// One find: which template it was made on (its number) and the nonce.
using Find = std::pair<uint64_t, uint32_t>;

// A Miner whose templates and finds a test scripts and reads.
class ScriptedMiner {
 public:
  // `next_template(k)` makes the answer to request k; it may throw.
  ScriptedMiner(uint64_t threads, std::function<Block(uint32_t)> next_template,
                const mining::SearchKernel& kernel = mining::best_search_kernel())
      : miner(threads, kernel), next_template_(std::move(next_template)) {
    miner.mining_address = "anyone";
    miner.callbacks.get_block_template = [this] { return next_template_(request_count_++); };
    miner.callbacks.on_block_found = [this](const Block& block) {
      EXPECT_EQ(block.get_hash(), block.header.get_hash());
      EXPECT_TRUE(block.header.check_proof_of_work());
      const MutexLock lock(mutex_);
      finds_.emplace_back(block.header.prev_hash.low64(), block.header.nonce);
    };
  }

  std::vector<Find> finds() const {
    const MutexLock lock(mutex_);
    return finds_;
  }
  size_t find_count() const { return finds().size(); }
  uint32_t request_count() const { return request_count_; }

  Miner miner;

 private:
  const std::function<Block(uint32_t)> next_template_;
  std::atomic<uint32_t> request_count_{0};
  mutable Mutex mutex_;
  std::vector<Find> finds_ GUARDED_BY(mutex_);
};

// What one worker finds while every third refresh fails, by the rules alone:
// number of the template, nonce, hashes counted before.
using CountedFind = std::array<uint64_t, 3>;

std::vector<CountedFind> model_finds(size_t count) {
  std::vector<CountedFind> finds;
  Block block = make_block(0, kDense);
  uint32_t nonce = 0;
  uint64_t hashes = 0;
  for (uint32_t request = 1; finds.size() < count; ++request) {
    const uint32_t hit = next_hit(block, nonce, 1);
    hashes += hit - nonce;
    finds.push_back({block.header.prev_hash.low64(), hit, hashes});
    ++hashes;
    if (request % 3 != 0) {
      block = make_block(request, kDense);
    }
    nonce = 1;  // the start nonce, then one step
  }
  return finds;
}

TEST(Miner, OneWorkerFollowsTheModelThroughFindsAndFailedRefreshesWithEachKernel) {
  constexpr size_t kFinds = 300;
  for (const mining::SearchKernel& kernel : mining::search_kernels()) {
    SCOPED_TRACE(kernel.name);
    if (!kernel.runs_here()) {
      continue;
    }
    ScriptedMiner scripted(
        1, [](uint32_t request) { return template_if(request == 0 || request % 3 != 0, request, kDense); }, kernel);
    std::vector<CountedFind> finds;  // the worker's until it has ended
    std::atomic<bool> is_enough{false};
    scripted.miner.callbacks.on_block_found = [&](const Block& block) {
      EXPECT_EQ(block.get_hash(), block.header.get_hash());
      finds.push_back({block.header.prev_hash.low64(), block.header.nonce, scripted.miner.stats.total_hashes});
      is_enough = finds.size() >= kFinds;
    };
    const CapturedStderr quiet;
    ASSERT_TRUE(scripted.miner.start());
    ASSERT_TRUE(wait_until([&] { return is_enough.load(); }));
    scripted.miner.stop();
    EXPECT_EQ(scripted.miner.stats.blocks_found, finds.size());
    finds.resize(kFinds);
    EXPECT_EQ(finds, model_finds(kFinds));
  }
}

// A kernel that finds nothing, at no cost, and notes each time that it is sent back.
std::vector<uint32_t> sent_back_to;  // written by the one worker of a test, read after its end
uint32_t last_first_nonce = 0;

uint32_t find_nothing(const mining::PreparedHeader&, uint32_t first_nonce, uint32_t) {
  if (first_nonce < last_first_nonce) {
    sent_back_to.push_back(first_nonce);
  }
  last_first_nonce = first_nonce;
  return 0;
}

TEST(Miner, WorkerZeroRenewsItsTemplateAfterEveryTenMillionHashesExactly) {
  constexpr mining::SearchKernel kIdle = {"idle", 7, [] { return true; }, &find_nothing};
  static_assert(Miner::kRefreshHashes % kIdle.lanes != 0);
  Miner* miner = nullptr;
  std::vector<uint64_t> hashes_when_asked;
  std::atomic<bool> is_enough{false};
  ScriptedMiner scripted(
      1,
      [&](uint32_t request) {
        hashes_when_asked.push_back(miner->stats.total_hashes);
        is_enough = request >= 3;
        return template_if(request != 2, request, kNever);
      },
      kIdle);
  miner = &scripted.miner;
  const CapturedStderr quiet;
  ASSERT_TRUE(scripted.miner.start());
  ASSERT_TRUE(wait_until([&] { return is_enough && scripted.miner.stats.total_hashes > 30'000'100; }));
  scripted.miner.stop();
  hashes_when_asked.resize(4);
  EXPECT_EQ(hashes_when_asked, (std::vector<uint64_t>{0, 10'000'000, 20'000'000, 30'000'000}));
  sent_back_to.resize(3);
  EXPECT_EQ(sent_back_to, (std::vector<uint32_t>{0, 0, 0}));
}

TEST(Miner, WorkersStartTenMillionApartAndStrideByTheirCount) {
  for (const uint32_t threads : {2u, 3u, 5u}) {
    SCOPED_TRACE(threads);
    // Each worker is asked for its first find only: the others must not move it.
    ScriptedMiner scripted(threads, [](uint32_t request) { return template_if(request == 0, 0, kSparse); });
    const CapturedStderr quiet;
    ASSERT_TRUE(scripted.miner.start());
    std::map<uint32_t, uint32_t> first;
    ASSERT_TRUE(wait_until([&] {
      for (const auto& [number, nonce] : scripted.finds()) {
        first.emplace(nonce / Miner::kNonceSpacing, nonce);
      }
      return first.size() == threads;
    }));
    scripted.miner.stop();
    for (uint32_t i = 0; i < threads; ++i) {
      EXPECT_EQ(first[i], next_hit(make_block(0, kSparse), i * Miner::kNonceSpacing, threads));
    }
  }
}

// Counts in how many of a few runs `moves_unaided` holds. A worker that would
// have to find a block itself to reach the new one never passes; one that
// happens to find in the instant before may fail a run.
void expect_mostly(const std::function<bool()>& moves_unaided) {
  int passed = 0;
  for (int run = 0; run < 9; ++run) {
    passed += moves_unaided() ? 1 : 0;
  }
  EXPECT_GE(passed, 5);
}

TEST(Miner, AFindMovesEveryWorkerToTheNewBlock) {
  expect_mostly([] {
    // Every hash meets the second block's target, so a worker that is moved to it finds there at once.
    ScriptedMiner scripted(
        2, [](uint32_t request) { return template_if(request <= 1, request, request == 0 ? kRare : kAlways); });
    const CapturedStderr quiet;
    EXPECT_TRUE(scripted.miner.start());
    std::set<uint32_t> finders;
    EXPECT_TRUE(wait_until([&] {
      for (const auto& [number, nonce] : scripted.finds()) {
        finders.insert(nonce / Miner::kNonceSpacing);
      }
      return finders.size() == 2;
    }));
    scripted.miner.stop();
    const auto finds = scripted.finds();
    return std::count_if(finds.begin(), finds.end(), [](const Find& find) { return find.first == 0; }) == 1;
  });
}

TEST(Miner, ARefreshAfterAFindThatBroughtNothingMovesEverybody) {
  expect_mostly([] {
    std::atomic<bool> fails{true};
    ScriptedMiner scripted(2, [&](uint32_t request) {
      return template_if(request == 0 || !fails, request, request == 0 ? kSparse : kNever);
    });
    // One worker is held in its second find; the other must follow a refresh that nobody found for.
    std::atomic<int> finds{0};
    std::atomic<bool> is_held{false};
    std::atomic<bool> is_over{false};
    scripted.miner.callbacks.on_block_found = [&](const Block&) {
      ++finds;
      if (scripted.request_count() > 1 && !is_held.exchange(true)) {
        EXPECT_TRUE(wait_until([&] { return is_over.load(); }));
      }
    };
    const CapturedStderr quiet;
    EXPECT_TRUE(scripted.miner.start());
    EXPECT_TRUE(wait_until([&] { return is_held.load(); }));
    fails = false;
    scripted.miner.update_template();
    const int finds_before = finds;
    const uint64_t before = scripted.miner.stats.total_hashes;
    EXPECT_TRUE(wait_until([&] { return scripted.miner.stats.total_hashes > before + 50'000; }));
    const bool moved_unaided = finds == finds_before;
    is_over = true;
    scripted.miner.stop();
    return moved_unaided;
  });
}

TEST(Miner, ARefreshThatNobodyFoundForMovesNobody) {
  ScriptedMiner scripted(1, [](uint32_t request) { return make_block(request, request == 0 ? kNever : kDense); });
  ASSERT_TRUE(scripted.miner.start());
  ASSERT_TRUE(wait_until([&] { return scripted.miner.stats.total_hashes > 0; }));
  scripted.miner.update_template();
  const uint64_t before = scripted.miner.stats.total_hashes;
  ASSERT_TRUE(wait_until([&] { return scripted.miner.stats.total_hashes > before + 20'000; }));
  scripted.miner.stop();
  EXPECT_EQ(scripted.request_count(), 2u);
  EXPECT_EQ(scripted.find_count(), 0u);
}

TEST(Miner, AFindMakesEveryWorkerWaitForTheRequest) {
  std::atomic<uint64_t> hashes_when_asked{0};
  std::atomic<bool> is_answered{false};
  Miner* miner = nullptr;
  ScriptedMiner scripted(2, [&](uint32_t request) {
    if (request == 1) {
      hashes_when_asked = miner->stats.total_hashes.load();
      wait_until([&] { return is_answered.load(); });
    }
    return make_block(request, kRare);
  });
  miner = &scripted.miner;
  ASSERT_TRUE(scripted.miner.start());
  ASSERT_TRUE(wait_until([&] { return hashes_when_asked > 0; }));
  // Both come to rest, the finder in its request and the other one at the mutex, well before that one could find too.
  uint64_t hashes = 0;
  EXPECT_TRUE(wait_until([&] {
    hashes = scripted.miner.stats.total_hashes;
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    return hashes == scripted.miner.stats.total_hashes;
  }));
  EXPECT_LT(hashes - hashes_when_asked, 2'000u);
  is_answered = true;
  EXPECT_TRUE(wait_until([&] { return scripted.miner.stats.total_hashes > hashes; }));
  scripted.miner.stop();
}

TEST(Miner, WorkerZeroAloneKeepsTheClockAndSurvivesOneSetBack) {
  const uint64_t begin = unix_time_seconds();
  ScriptedMiner scripted(2, [](uint32_t request) { return template_if(request == 0, 0, kSparse); });
  std::atomic<bool> renewed{false};
  scripted.miner.callbacks.on_block_found = [&](const Block& block) {
    if (block.header.nonce < Miner::kNonceSpacing) {
      renewed = renewed || (block.header.timestamp >= begin && block.header.timestamp <= begin + 60);
    } else {
      EXPECT_EQ(block.header.timestamp, kTemplateTime);
    }
  };
  std::atomic<bool> drawn{false};
  scripted.miner.callbacks.on_stats_update = [&](const MiningStats& stats) {
    EXPECT_EQ(stats.uptime_seconds, 0u);
    EXPECT_EQ(stats.hashrate, 7.0);
    EXPECT_GT(stats.total_hashes, 0u);
    drawn = true;
  };
  scripted.miner.stats.start_time += 1'000;
  scripted.miner.stats.hashrate = 7.0;
  const CapturedStderr quiet;
  ASSERT_TRUE(scripted.miner.start());
  EXPECT_TRUE(wait_until([&] { return renewed && drawn; }));
  scripted.miner.stop();
}

TEST(Miner, ABlockWithAZeroTargetIsLeftAtTheNextRefresh) {
  ScriptedMiner scripted(1, [](uint32_t request) { return make_block(request, request == 0 ? 0 : kSparse); });
  ASSERT_TRUE(scripted.miner.start());
  ASSERT_TRUE(wait_until([&] { return scripted.miner.stats.total_hashes > 100; }));
  EXPECT_EQ(scripted.find_count(), 0u);
  scripted.miner.update_template();
  // Well before the refresh that the worker makes by itself.
  EXPECT_TRUE(wait_until([&] { return scripted.find_count() > 0 || scripted.miner.stats.total_hashes > 1'000'000; }));
  EXPECT_GT(scripted.find_count(), 0u);
  scripted.miner.stop();
}

TEST(Miner, CallbacksThatThrowArePrintedAndMiningGoesOn) {
  ScriptedMiner scripted(1, [](uint32_t request) { return make_block(request, kDense); });
  std::atomic<int> calls{0};
  scripted.miner.callbacks.on_block_found = [&](const Block&) {
    ++calls;
    throw std::runtime_error("terminal gone");
  };
  CapturedStderr captured;
  ASSERT_TRUE(scripted.miner.start());
  EXPECT_TRUE(wait_until([&] { return calls >= 3; }));
  scripted.miner.stop();
  EXPECT_EQ(captured.text().substr(0, 43), "[Miner] Error in callback: terminal gone\n[M");
}

TEST(Miner, RefreshFailuresAreReportedAndNoneBeginsAfterAStop) {
  ScriptedMiner scripted(1, [](uint32_t request) -> Block {
    if (request == 1) {
      throw std::runtime_error("node away");
    }
    return make_block(request, kNever);
  });
  CapturedStderr captured;
  ASSERT_TRUE(scripted.miner.start());
  scripted.miner.update_template();
  EXPECT_EQ(captured.text(), "[Miner] Error updating template: node away\n");
  scripted.miner.stop();
  scripted.miner.update_template();
  EXPECT_EQ(scripted.request_count(), 2u);
}

TEST(Miner, StartRefusesWithItsReasonAndLeavesTheMinerIdle) {
  const auto never = [](uint32_t request) { return make_block(request, kNever); };
  const struct {
    const char* label;
    std::function<void(Miner&)> spoil;
    const char* message;
  } rows[] = {
      {"no address", [](Miner& m) { m.mining_address.clear(); }, "[Miner] Error: Miner address not set!\n"},
      {"no template callback", [](Miner& m) { m.callbacks.get_block_template = nullptr; },
       "[Miner] Error: No block template callback set!\n"},
      {"one thread too many", [](Miner& m) { m.set_threads(4'097); }, ""},
      {"a negative count", [](Miner& m) { m.set_threads(static_cast<uint64_t>(-1)); }, ""},
      {"no template",
       [](Miner& m) { m.callbacks.get_block_template = []() -> Block { throw std::runtime_error("none"); }; },
       "[Miner] Error getting block template: none\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    ScriptedMiner scripted(1, never);
    row.spoil(scripted.miner);
    CapturedStderr captured;
    EXPECT_FALSE(scripted.miner.start());
    EXPECT_EQ(captured.text(), row.message);
    EXPECT_FALSE(scripted.miner.running);
  }
}

TEST(Miner, ARunningMinerRefusesASecondStartAndOneThatHasStoppedStartsAgain) {
  ScriptedMiner scripted(2, [](uint32_t request) { return make_block(request, kNever); });
  testing::internal::CaptureStdout();
  ASSERT_TRUE(scripted.miner.start());
  CapturedStderr captured;
  EXPECT_FALSE(scripted.miner.start());
  scripted.miner.set_threads(1);
  EXPECT_EQ(captured.text(), "[Miner] Cannot change threads while mining\n");
  EXPECT_EQ(scripted.miner.thread_count(), 2u);
  EXPECT_EQ(scripted.request_count(), 1u);
  scripted.miner.stop();
  scripted.miner.stop();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "\n[Miner] Stopping miner...\n[Miner] Miner stopped\n");
  ASSERT_TRUE(scripted.miner.start());
  const uint64_t before = scripted.miner.stats.total_hashes;
  EXPECT_TRUE(wait_until([&] { return scripted.miner.stats.total_hashes > before; }));
}

TEST(Miner, ManyRunsLeaveNoThreadAndNoDescriptorBehind) {
  const auto count = [](const char* directory) {
    const std::filesystem::directory_iterator entries(directory);
    return std::distance(begin(entries), end(entries));
  };
  ScriptedMiner scripted(2, [](uint32_t request) { return make_block(request, kSparse); });
  testing::internal::CaptureStdout();
  const auto run = [&] {
    EXPECT_TRUE(scripted.miner.start());
    scripted.miner.stop();
  };
  run();  // a sanitizer keeps a thread of its own from the first one on
  const auto threads = count("/proc/self/task");
  const auto descriptors = count("/proc/self/fd");
  for (int i = 0; i < 30; ++i) {
    run();
  }
  testing::internal::GetCapturedStdout();
  EXPECT_TRUE(wait_until([&] { return count("/proc/self/task") == threads; }));
  EXPECT_LE(count("/proc/self/fd"), descriptors);
}

// Address space for a few hundred thread stacks, so that the next one fails.
TEST(Miner, StartFailsCleanlyWhenAThreadCannotBeCreated) {
  if (kSanitized) {
    GTEST_SKIP() << "sanitizers need the address space";
  }
  const pid_t child = fork();
  if (child == 0) {
    const rlimit limit = {1'000'000'000, 1'000'000'000};
    setrlimit(RLIMIT_AS, &limit);
    ScriptedMiner scripted(4'000, [](uint32_t request) { return make_block(request, kAlways); });
    const bool started = scripted.miner.start();
    _exit(started || scripted.miner.running || scripted.miner.stats.total_hashes != 0 ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(Miner, MineBlockFindsTheFirstNonceOrObeysTheFlag) {
  Miner miner(1);
  std::atomic<bool> stop{false};
  Block block = make_block(7, kSparse);
  block.header.nonce = 999;
  EXPECT_NE(block.get_hash(), uint256());
  ASSERT_TRUE(miner.mine_block(block, stop));
  EXPECT_EQ(block.header.nonce, next_hit(make_block(7, kSparse), 0, 1));
  EXPECT_EQ(block.get_hash(), block.header.get_hash());
  stop = true;
  EXPECT_FALSE(miner.mine_block(block, stop));
  EXPECT_EQ(block.header.nonce, 0u);
  EXPECT_EQ(miner.stats.total_hashes, 0u);
}

}  // namespace

}  // namespace norvel
