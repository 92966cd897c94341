// Memory that runs out while a branch is switched. A program of its own, because
// it replaces the allocator.

#include <dlfcn.h>

#include <cstdlib>
#include <filesystem>
#include <limits>
#include <new>

#include "chain/chain_scene.h"

static constexpr uint64_t kNever = std::numeric_limits<uint64_t>::max();

// Allocations numbered first to last fail, on the thread that said so: the
// database has another one.
static thread_local uint64_t allocation_number = 0;
static thread_local uint64_t first_failing = kNever;
static thread_local uint64_t last_failing = kNever;

void* operator new(size_t size) {
  const uint64_t number = ++allocation_number;
  void* memory = number >= first_failing && number <= last_failing ? nullptr : std::malloc(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

// Of those who can do with less; from malloc too, as the operators below free it.
void* operator new(size_t size, const std::nothrow_t& /*unused*/) noexcept {
  return std::malloc(size);
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept {
  std::free(memory);
}

// The database begins where the block files are synced; it is another's code.
extern "C" int fdatasync(int fd) {
  first_failing = kNever;
  static const auto real = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fdatasync"));
  return real(fd);
}

namespace norvel {
namespace {

struct Outcome {
  bool fired = false;  // some allocation failed
  bool broken = false;
  bool says_why = false;  // memory came back in time for the text
};

// A switch of branches in which the allocations from `first` on fail, `count` of
// them; the chain stays on one of the two branches or says that it is lost, and
// afterwards gets where it should. Without the journal the state at the fork is
// reached by a replay.
Outcome switch_without_memory(uint64_t first, uint64_t count, bool has_journal = true) {
  ChainScene scene;
  const Block fork = scene.extend();
  const std::vector<Block> active = make_branch(fork, 2, {.message = "active"});
  const std::vector<Block> heavier = make_branch(fork, 3, {.message = "heavier"});
  scene.add_all(active);
  scene.add_all({heavier.begin(), heavier.begin() + 2});
  if (!has_journal) {
    EXPECT_TRUE(scene.chain().save_snapshot());
    scene.close();
    std::filesystem::remove(scene.directory() / "undo.dat");
    scene.reopen();
  }
  const Bytes before = scene.chain().get_snapshot_bytes();

  std::string error;
  error.reserve(1'000);
  allocation_number = 0;
  first_failing = first;
  last_failing = first + count;
  const bool accepted = scene.chain().add_block(heavier[2], error);
  Outcome outcome;
  outcome.fired = first_failing != kNever ? allocation_number >= first : allocation_number > first;
  first_failing = kNever;

  outcome.broken = scene.chain().get_status().broken;
  if (outcome.broken) {
    EXPECT_FALSE(accepted);
    outcome.says_why = error.find(" AND failed to restore previous chain: ") != std::string::npos;
    EXPECT_TRUE(std::filesystem::exists(scene.directory() / kRebuildMarker));
    EXPECT_FALSE(scene.chain().add_block(make_child(fork, {.message = "any"}), error));
    EXPECT_FALSE(scene.chain().save_snapshot());
    scene.reopen();
    EXPECT_FALSE(std::filesystem::exists(scene.directory() / kRebuildMarker));
  } else if (!accepted) {
    EXPECT_EQ(scene.chain().get_snapshot_bytes(), before) << error;
  }
  scene.chain().add_block(heavier[2], error);
  if (scene.chain().get_best_hash() != heavier[2].get_hash()) {
    scene.add(make_child(heavier[2]));  // the switch is tried with the next block
  }
  EXPECT_EQ(scene.block_at(4).get_hash(), heavier[2].get_hash());
  EXPECT_EQ(scene.chain().get_snapshot_bytes(), scene.replayed_snapshot());
  return outcome;
}

TEST(MemoryRunsOut, OnceDuringASwitchOfBranchesAndNothingIsLost) {
  uint64_t first = 1;
  for (; switch_without_memory(first, 0).fired; first += 7) {
    ASSERT_FALSE(testing::Test::HasFailure()) << "allocation " << first;
  }
  EXPECT_GT(first, 100u);
}

TEST(MemoryRunsOut, DuringASwitchWithoutTheJournal) {
  for (const uint64_t count : {uint64_t{0}, uint64_t{3}, uint64_t{40}}) {
    bool fired = true;
    for (uint64_t first = 1; fired; first += 13) {
      const Outcome outcome = switch_without_memory(first, count, false);
      ASSERT_FALSE(testing::Test::HasFailure()) << count << " from allocation " << first;
      EXPECT_FALSE(outcome.broken && count == 0) << "allocation " << first;
      fired = outcome.fired;
    }
  }
}

TEST(MemoryRunsOut, ForLongAndTheNextStartRebuilds) {
  for (const uint64_t count : {uint64_t{3}, kNever / 2}) {
    size_t broken_count = 0;
    size_t text_count = 0;
    bool fired = true;
    for (uint64_t first = 1; fired; first += 11) {
      const Outcome outcome = switch_without_memory(first, count);
      ASSERT_FALSE(testing::Test::HasFailure()) << "from allocation " << first;
      broken_count += outcome.broken ? 1 : 0;
      text_count += outcome.says_why ? 1 : 0;
      fired = outcome.fired;
    }
    EXPECT_GT(broken_count, 0u) << count;
    EXPECT_EQ(text_count > 0, count < kNever / 2) << count;
  }
}

}  // namespace
}  // namespace norvel
