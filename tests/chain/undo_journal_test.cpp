#include "chain/undo_journal.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>

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

  // Pushes branch 0 from height 0 up to below `end`.
  static void push_heights(UndoJournal& journal, uint32_t end, size_t bytes = 5) {
    for (uint32_t height = 0; height < end; ++height) {
      journal.push(height, entry(height).hash, entry(height, 0, bytes).content);
    }
  }

  // The contents that the file yields for a chain of these entries from height
  // 0 up, newest first; all of the journal that it is adopted into.
  std::vector<Bytes> loaded(const std::vector<Entry>& chain) const {
    UndoJournal journal(path_);
    journal.load();
    std::vector<uint256> hashes;
    for (auto at = chain.rbegin(); at != chain.rend(); ++at) {
      hashes.push_back(at->hash);
    }
    journal.adopt(static_cast<uint32_t>(chain.size()) - 1, hashes);
    std::vector<Bytes> contents;
    for (const uint256& hash : hashes) {
      const auto record = journal.tip_record(hash);
      if (!record) {
        break;
      }
      contents.push_back(*record);
      journal.pop();
    }
    EXPECT_EQ(journal.size(), 0u);
    return contents;
  }

  // How many records are found for branch 0 below `end`, where each must be right.
  size_t found_below(uint32_t end) const {
    std::vector<Entry> chain;
    for (uint32_t height = 0; height < end; ++height) {
      chain.push_back(entry(height));
    }
    const std::vector<Bytes> contents = loaded(chain);
    for (size_t i = 0; i < contents.size(); ++i) {
      EXPECT_EQ(contents[i], chain[end - 1 - i].content);
    }
    return contents.size();
  }

  void write_file(ByteView bytes) const {
    std::ofstream(path_, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  }

  Bytes read_file() const {
    std::ifstream file(path_, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
  }

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
      for (auto depth = std::min<size_t>(random() % 30, std::min(journal->size(), chain.size())); depth > 0; --depth) {
        ASSERT_EQ(journal->tip_record(chain.back().hash), chain.back().content);
        journal->pop();
        chain.pop_back();
      }
    } else if (choice < 98) {
      ASSERT_TRUE(journal->sync());
    } else {
      ASSERT_TRUE(journal->sync());
      const std::vector<Bytes> contents = loaded(chain);
      ASSERT_EQ(contents.size(), std::min(chain.size(), UndoJournal::kDepth));
      for (size_t i = 0; i < contents.size(); ++i) {
        ASSERT_EQ(contents[i], chain[chain.size() - 1 - i].content);
      }
      // Start anew: the newest few are replayed, the others adopted.
      journal = std::make_unique<UndoJournal>(path_);
      const size_t replayed = std::min<size_t>(random() % 3, chain.size());
      std::vector<uint256> below;
      for (size_t i = 0; i < chain.size() - replayed; ++i) {
        below.insert(below.begin(), chain[i].hash);
      }
      for (size_t i = chain.size() - replayed; i < chain.size(); ++i) {
        journal->push(static_cast<uint32_t>(i), chain[i].hash, chain[i].content);
      }
      journal->load();
      journal->adopt(static_cast<uint32_t>(below.size()) - 1, below);
      ASSERT_EQ(journal->size(), std::min(chain.size(), UndoJournal::kDepth));
    }
  }
  EXPECT_GT(chain.size(), 2 * UndoJournal::kDepth);
  ASSERT_TRUE(journal->sync());
  EXPECT_LT(read_file().size(), 4 * UndoJournal::kDepth * 2'100);  // what was left is not kept for ever
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
      write_file(damaged);
      EXPECT_EQ(found_below(intact), intact);
      EXPECT_EQ(found_below(intact + 1), 0u);  // no record of the damaged block
    }
    UndoJournal mending(path_);
    mending.load();
    push_heights(mending, 4);
    ASSERT_TRUE(mending.sync());
    EXPECT_EQ(read_file(), whole);
  }
}

TEST_F(UndoJournalFile, WritesARecordOnceAndOneThatChangedAgain) {
  UndoJournal journal(path_);
  push_heights(journal, 3);
  ASSERT_TRUE(journal.sync());
  const Bytes whole = read_file();
  UndoJournal replayed(path_);
  replayed.load();
  push_heights(replayed, 3);
  ASSERT_TRUE(replayed.sync());
  EXPECT_EQ(read_file(), whole);
  replayed.push(2, entry(2).hash, {9});
  EXPECT_EQ(replayed.size(), 3u);
  ASSERT_TRUE(replayed.sync());
  EXPECT_EQ(loaded({entry(0), entry(1), entry(2)}).front(), Bytes{9});
}

TEST_F(UndoJournalFile, KeepsWhatMayStillBeAdopted) {
  UndoJournal journal(path_);
  push_heights(journal, 300, 5'000);  // above the size from which it is shortened
  ASSERT_TRUE(journal.sync());
  UndoJournal replayed(path_);  // from a snapshot at height 299
  replayed.push(300, entry(300).hash, entry(300).content);
  ASSERT_TRUE(replayed.sync());
  replayed.load();
  const uint256 below[] = {entry(299).hash, entry(298).hash, entry(5).hash, entry(297).hash};
  replayed.adopt(298, below);
  EXPECT_EQ(replayed.size(), 1u);  // another height
  replayed.load();
  replayed.adopt(299, below);
  EXPECT_EQ(replayed.size(), 3u);  // up to the gap
}

TEST_F(UndoJournalFile, ForgetsEntriesThatHaveNoPlaceBelowTheNewOne) {
  UndoJournal journal(path_);
  push_heights(journal, 5);
  journal.push(3, entry(3, 1).hash, {});
  EXPECT_EQ(journal.size(), 4u);
  EXPECT_EQ(journal.tip_record(entry(4).hash), std::nullopt);
  EXPECT_EQ(journal.tip_record(entry(3, 1).hash), Bytes());
  journal.push(5, entry(5).hash, {1});
  EXPECT_EQ(journal.size(), 1u);
}

TEST_F(UndoJournalFile, ReportsAFailureAndWritesAllTheNextTime) {
  std::filesystem::create_directory(path_ + ".tmp");
  UndoJournal journal(path_);
  push_heights(journal, 3);
  EXPECT_FALSE(journal.sync());
  EXPECT_NE(captured_.text().find("Failed to write undo journal " + path_), std::string::npos);
  std::filesystem::remove(path_ + ".tmp");
  EXPECT_TRUE(journal.sync());
  EXPECT_EQ(found_below(3), 3u);
  std::filesystem::remove(path_);  // by someone else
  journal.push(3, entry(3).hash, entry(3).content);
  EXPECT_TRUE(journal.sync());
  EXPECT_EQ(found_below(4), 4u);
}

}  // namespace
}  // namespace norvel
