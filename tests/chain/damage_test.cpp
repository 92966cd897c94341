// Files that were damaged, cut, doubled or taken away between two starts: the
// chain comes back by itself, on a known block, with the state of a replay.

#include <algorithm>
#include <filesystem>

#include "chain/chain_scene.h"
#include "core/file_io.h"
#include "support/byte_strings.h"

namespace norvel {
namespace {

namespace fs = std::filesystem;

// A chain of a dozen blocks with payments and a side branch, at rest; each test
// damages a copy of its directory.
class Damage : public testing::Test {
 protected:
  Damage() {
    const std::vector<Block> start = make_branch(make_genesis_block(), 4);
    scene_.add_all(start);
    for (size_t i = 0; i < 3; ++i) {
      const auto coin = output_of(start[i].transactions[0]);
      scene_.extend({.txs = {pay(sample_key(1), {coin}, {coin.second.value / 2, coin.second.value / 2})}});
      if (i == 1) {
        EXPECT_TRUE(scene_.chain().save_snapshot());
      }
    }
    side_ = make_branch(start[2], 2, {.message = "side"});
    scene_.add_all(side_);
    state_ = scene_.chain().get_snapshot_bytes();
    tip_ = scene_.tip();
    scene_.close();
  }

  // Starts on a copy of the directory that `damage` was done to, offers the tip
  // again, and expects the state that was.
  template <class Spoil>
  void expect_recovery(const Spoil& damage) {
    const TemporaryDirectory copy;
    fs::copy(scene_.directory().path(), copy.path(),
             fs::copy_options::recursive | fs::copy_options::overwrite_existing);
    damage(copy.path());
    Blockchain chain(copy.path(), small_options());
    std::string error;
    ASSERT_TRUE(chain.initialize(error)) << error;
    if (chain.get_best_hash() != tip_.get_hash()) {
      EXPECT_EQ(chain.get_best_hash(), tip_.header.prev_hash) << "only the last block may be lost";
      EXPECT_TRUE(chain.add_block(tip_, error)) << error;
    }
    EXPECT_EQ(chain.get_snapshot_bytes(), state_);
    for (const Block& block : side_) {
      EXPECT_TRUE(chain.load_block_from_disk(block.get_hash())) << "side block " << block.height;
    }
  }

  void expect_recovery_from(const std::string& name, const Bytes& content) {
    expect_recovery([&](const std::string& directory) { ASSERT_TRUE(replace_file(directory + "/" + name, content)); });
  }

  Bytes content_of(const std::string& name) { return read_whole_file(scene_.directory() / name, 1 << 30).value(); }

  ChainScene scene_;
  Bytes state_;
  Block tip_;
  std::vector<Block> side_;
};

TEST_F(Damage, OfTheSnapshotOrTheJournalCostsAReplay) {
  for (const std::string name : {kSnapshotFile, "undo.dat"}) {
    const Bytes whole = content_of(name);
    ASSERT_GT(whole.size(), 500u);
    // The decoders are tried with every byte; here a few of each section.
    for (size_t at = 0; at < whole.size(); at += 131) {
      SCOPED_TRACE(name + " at byte " + std::to_string(at));
      Bytes flipped = whole;
      flipped[at] ^= 0x20;
      expect_recovery_from(name, flipped);
      expect_recovery_from(name, cut(whole, at));
    }
    expect_recovery_from(name, join({whole, whole}));
    expect_recovery([&](const std::string& directory) { fs::remove(directory + "/" + name); });
  }
}

TEST_F(Damage, ByATerabyteOfZerosCostsAReplayAtMost) {
  for (const std::string& name : {std::string(kSnapshotFile), std::string("undo.dat"), block_file_name(0)}) {
    SCOPED_TRACE(name);
    expect_recovery([&](const std::string& directory) { fs::resize_file(directory + "/" + name, 1ull << 40); });
  }
}

TEST_F(Damage, OfTheLastRecordLosesThatBlockOnly) {
  const std::string name = block_file_name(0);
  const Bytes whole = content_of(name);
  const Bytes tip_bytes = tip_.serialize();
  const auto found = std::search(whole.begin(), whole.end(), tip_bytes.begin(), tip_bytes.end());
  const size_t start = static_cast<size_t>(found - whole.begin()) - 4;
  ASSERT_LT(start, whole.size() - tip_bytes.size() - 4);
  side_.clear();  // was written behind the tip and is cut with it
  for (size_t size = start; size < start + 4 + tip_bytes.size(); size += 3) {
    SCOPED_TRACE("cut at " + std::to_string(size));
    expect_recovery_from(name, cut(whole, size));
  }
}

TEST_F(Damage, OfAnyDatabaseFileCostsARebuildOfTheIndex) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(scene_.directory() / "chainstate")) {
    names.push_back("chainstate/" + entry.path().filename().string());
  }
  ASSERT_GT(names.size(), 3u);
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    const Bytes whole = content_of(name);
    expect_recovery([&](const std::string& directory) { fs::remove(directory + "/" + name); });
    for (const Bytes& content : {Bytes(), Bytes(whole.size() + 10, 'x'), cut(whole, whole.size() / 2)}) {
      expect_recovery_from(name, content);
    }
  }
  expect_recovery([](const std::string& directory) { fs::remove_all(directory + "/chainstate"); });
  expect_recovery([](const std::string& directory) {
    fs::remove_all(directory + "/chainstate");
    fs::remove(directory + "/" + kSnapshotFile);
    fs::remove(directory + "/undo.dat");
  });
}

}  // namespace
}  // namespace norvel
