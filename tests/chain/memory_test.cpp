// Memory that runs out while a branch is switched. A program of its own, because
// it replaces the allocator.

#include <dlfcn.h>

#include <filesystem>

#include "chain/chain_scene.h"
#include "support/allocations.h"

// The database begins where the block files are synced; it is another's code.
extern "C" int fdatasync(int fd) {
  norvel::allocations.first_failing = norvel::Allocations::kNever;
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
  allocations.count = 0;
  allocations.first_failing = first;
  allocations.last_failing = first + count;
  const bool accepted = scene.chain().add_block(heavier[2], error);
  Outcome outcome;
  outcome.fired = allocations.count >= first + (allocations.first_failing == Allocations::kNever ? 1 : 0);
  allocations.first_failing = Allocations::kNever;

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

TEST(MemoryRunsOut, DuringASwitchOfBranchesAndNothingIsLost) {
  constexpr uint64_t kForLong = Allocations::kNever / 2;
  const struct {
    uint64_t step;   // between the allocations that are tried
    uint64_t count;  // of allocations that fail, less one
    bool has_journal;
    bool breaks;  // the next start rebuilds
  } rows[] = {{7, 0, true, false},   {11, 3, true, true},  {11, kForLong, true, true},
              {13, 0, false, false}, {13, 3, false, true}, {13, 40, false, true}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.count + 1 << " allocations, journal: " << row.has_journal);
    size_t broken_count = 0;
    size_t text_count = 0;
    uint64_t first = 1;
    for (bool fired = true; fired; first += row.step) {
      const Outcome outcome = switch_without_memory(first, row.count, row.has_journal);
      ASSERT_FALSE(testing::Test::HasFailure()) << "from allocation " << first;
      broken_count += outcome.broken ? 1 : 0;
      text_count += outcome.says_why ? 1 : 0;
      fired = outcome.fired;
    }
    EXPECT_GT(first, 100u);
    EXPECT_EQ(broken_count > 0, row.breaks);
    EXPECT_EQ(text_count > 0, row.breaks && row.count < 40) << "memory comes back in time for it";
  }
}

}  // namespace
}  // namespace norvel
