#include "chain/undo_journal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <random>

#include "core/file_io.h"
#include "support/captured_stderr.h"
#include "support/chain_builder.h"

namespace norvel {
namespace {

class UndoJournalFile : public testing::Test {
 protected:
  struct Entry {
    uint256 hash;
    Bytes content;
  };

  // The block at `height` of branch `branch`, with what its record holds.
  static Entry entry(uint32_t height, uint64_t branch = 0, size_t bytes = 5) {
    return {(uint256(branch) << 64) + uint256(uint64_t{height} + 1), Bytes(bytes + height % 7, uint8_t(branch))};
  }

  static std::vector<uint256> newest_first(const std::vector<Entry>& chain, size_t skipped) {
    std::vector<uint256> hashes;
    for (auto at = chain.rbegin() + static_cast<std::ptrdiff_t>(skipped); at != chain.rend(); ++at) {
      hashes.push_back(at->hash);
    }
    return hashes;
  }

  // Pushes branch 0 from height 0 up to below `end`.
  static void push_heights(UndoJournal& journal, uint32_t end, size_t bytes = 5) {
    for (uint32_t height = 0; height < end; ++height) {
      journal.push(height, entry(height).hash, entry(height, 0, bytes).content);
    }
  }

  // How many records the file holds for the newest blocks of this chain, which
  // begins at height 0; each must be right.
  size_t loaded(const std::vector<Entry>& chain) const {
    UndoJournal journal(path_);
    journal.load();
    journal.adopt(static_cast<uint32_t>(chain.size()) - 1, newest_first(chain, 0));
    const size_t count = journal.size();
    for (size_t i = 0; i < count; ++i) {
      EXPECT_EQ(journal.tip_record(chain[chain.size() - 1 - i].hash), chain[chain.size() - 1 - i].content);
      journal.pop();
    }
    return count;
  }

  // Branch 0 below height `end`.
  static std::vector<Entry> heights_below(uint32_t end) {
    std::vector<Entry> chain;
    while (chain.size() < end) {
      chain.push_back(entry(static_cast<uint32_t>(chain.size())));
    }
    return chain;
  }

  Bytes read_file() const { return read_whole_file(path_, 1 << 30).value_or(Bytes()); }

  CapturedStderr captured_;
  TemporaryDirectory directory_;
  std::string path_ = directory_ / "undo.dat";
};

TEST_F(UndoJournalFile, AgreesWithAPlainListThroughRestartsAndBranches) {
  std::mt19937_64 random(720);
  std::vector<Entry> chain;
  auto journal = std::make_unique<UndoJournal>(path_);
  uint64_t branch = 0;
  for (int step = 0; step < 4'000; ++step) {
    const auto choice = random() % 100;
    if (choice < 80 || chain.empty()) {
      const auto height = static_cast<uint32_t>(chain.size());
      // Sometimes a block that was left comes back.
      chain.push_back(entry(height, random() % 4 == 0 ? branch : ++branch, 2'000));
      journal->push(height, chain.back().hash, chain.back().content);
    } else if (choice < 90) {
      for (auto depth = std::min<size_t>(random() % 8, std::min(journal->size(), chain.size())); depth > 0; --depth) {
        ASSERT_EQ(journal->tip_record(chain.back().hash), chain.back().content);
        journal->pop();
        chain.pop_back();
      }
    } else if (choice < 98) {
      ASSERT_TRUE(journal->sync());
    } else {
      ASSERT_TRUE(journal->sync());
      const size_t count = std::min(chain.size(), UndoJournal::kDepth);
      ASSERT_EQ(loaded(chain), count);
      // Start anew: the newest few are replayed, the others adopted.
      journal = std::make_unique<UndoJournal>(path_);
      const size_t replayed = std::min<size_t>(random() % 3, chain.size());
      for (size_t i = chain.size() - replayed; i < chain.size(); ++i) {
        journal->push(static_cast<uint32_t>(i), chain[i].hash, chain[i].content);
      }
      journal->load();
      journal->adopt(static_cast<uint32_t>(chain.size() - replayed) - 1, newest_first(chain, replayed));
      ASSERT_EQ(journal->size(), count);
    }
  }
  EXPECT_GT(chain.size(), 2 * UndoJournal::kDepth);
  ASSERT_TRUE(journal->sync());
  EXPECT_LT(read_file().size(), 5 * UndoJournal::kDepth / 2 * 2'100);  // what was left is not kept for ever
}

TEST_F(UndoJournalFile, YieldsTheRecordsBeforeACutOrFlipAndIsMendedByTheNextSync) {
  UndoJournal journal(path_);
  std::vector<size_t> ends = {0};
  for (uint32_t height = 0; height < 4; ++height) {
    journal.push(height, entry(height).hash, entry(height).content);
    ASSERT_TRUE(journal.sync());
    ends.push_back(read_file().size());
  }
  ASSERT_EQ(ends[1], 72 + entry(0).content.size());
  const Bytes whole = read_file();
  for (size_t at = 0; at < whole.size(); ++at) {
    SCOPED_TRACE(at);
    const auto intact = static_cast<uint32_t>(std::upper_bound(ends.begin(), ends.end(), at) - ends.begin()) - 1;
    for (const bool flips : {false, true}) {
      Bytes damaged(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(flips ? whole.size() : at));
      if (flips) {
        damaged[at] ^= 0x80;
      }
      ASSERT_TRUE(replace_file(path_, damaged));
      EXPECT_EQ(loaded(heights_below(intact)), intact);
      EXPECT_EQ(loaded(heights_below(intact + 1)), 0u);  // no record of the damaged block
    }
    UndoJournal mending(path_);
    mending.load();
    push_heights(mending, 4);
    ASSERT_TRUE(mending.sync());
    EXPECT_EQ(read_file(), whole);
  }
}

TEST_F(UndoJournalFile, WritesAgainOnlyWhatChangedAndForgetsWhatHasNoPlace) {
  UndoJournal journal(path_);
  push_heights(journal, 5);
  ASSERT_TRUE(journal.sync());
  const Bytes whole = read_file();
  push_heights(journal, 5);
  ASSERT_TRUE(journal.sync());
  EXPECT_EQ(read_file(), whole);
  journal.push(3, entry(3).hash, {9});
  EXPECT_EQ(journal.size(), 4u);
  EXPECT_EQ(journal.tip_record(entry(4).hash), std::nullopt);
  ASSERT_TRUE(journal.sync());
  EXPECT_EQ(loaded({entry(0), entry(1), entry(2), {entry(3).hash, {9}}}), 4u);
  journal.push(5, entry(5).hash, {1});
  EXPECT_EQ(journal.size(), 1u);
}

TEST_F(UndoJournalFile, KeepsWhatMayStillBeAdopted) {
  UndoJournal journal(path_);
  push_heights(journal, 300, 5'000);  // above the size from which it is shortened
  ASSERT_TRUE(journal.sync());
  UndoJournal replayed(path_);  // from a snapshot at height 299
  replayed.push(300, entry(300).hash, entry(300).content);
  ASSERT_TRUE(replayed.sync());
  const uint256 below[] = {entry(299).hash, entry(298).hash, entry(5).hash, entry(297).hash};
  for (const auto& [height, size] : {std::pair(298u, 1u), {299u, 3u}}) {
    replayed.load();
    replayed.adopt(height, below);
    EXPECT_EQ(replayed.size(), size);  // nothing at another height, else up to the gap
  }
}

TEST_F(UndoJournalFile, ReportsAFailureAndWritesAllTheNextTime) {
  std::filesystem::create_directory(path_ + ".tmp");
  UndoJournal journal(path_);
  push_heights(journal, 3);
  EXPECT_FALSE(journal.sync());
  EXPECT_NE(captured_.text().find("Failed to write undo journal " + path_), std::string::npos);
  std::filesystem::remove(path_ + ".tmp");
  EXPECT_TRUE(journal.sync());
  EXPECT_EQ(loaded(heights_below(3)), 3u);
  std::filesystem::remove(path_);  // by someone else
  journal.push(3, entry(3).hash, entry(3).content);
  EXPECT_TRUE(journal.sync());
  EXPECT_EQ(loaded(heights_below(4)), 4u);
}

}  // namespace
}  // namespace norvel
