#include "chain/block_files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <tuple>

#include "chain/genesis.h"
#include "core/file_io.h"
#include "support/byte_strings.h"
#include "support/captured_stderr.h"
#include "support/chain_builder.h"

namespace {

// Syncs that are to fail, each after writing zeros over the file from an offset
// on, as a system may do that drops what it could not write.
int failing_syncs = 0;
size_t dropped_from = 0;

void drop_written(int fd) {
  const auto size = static_cast<off_t>(*norvel::file_size(fd));
  if (ftruncate(fd, static_cast<off_t>(dropped_from)) != 0 || ftruncate(fd, size) != 0) {
    std::abort();
  }
}

}  // namespace

// In the place of the C library's. Nothing cuts the power here, so the rest of
// the work would only take time.
extern "C" int fdatasync(int fd) {
  if (failing_syncs > 0) {
    --failing_syncs;
    drop_written(fd);
    errno = EIO;
    return -1;
  }
  return 0;
}

extern "C" int fsync(int) {
  return 0;
}

namespace norvel {
namespace {

constexpr char kName[] = "blk00000.dat";
constexpr size_t kHeightAt = 4 + BlockHeader::kSize;  // in a record

bool never(const std::string&, const uint256&) {
  return false;
}

Bytes record_of(const Block& block) {
  const Bytes bytes = block.serialize();
  Bytes record;
  append_le(record, static_cast<uint32_t>(bytes.size()));
  append(record, bytes);
  return record;
}

// A record of `len` bytes that no block decodes from.
Bytes junk(uint32_t len, uint8_t fill) {
  Bytes record;
  append_le(record, len);
  record.resize(4 + len, fill);
  return record;
}

// A lower limit of this process, while it lives.
class LoweredLimit {
 public:
  LoweredLimit(__rlimit_resource resource, rlim_t value) : resource_(resource) {
    std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(resource, &before_);
    const rlimit lowered{value, before_.rlim_max};
    setrlimit(resource, &lowered);
  }
  ~LoweredLimit() { setrlimit(resource_, &before_); }
  LoweredLimit(const LoweredLimit&) = delete;
  LoweredLimit& operator=(const LoweredLimit&) = delete;

 private:
  __rlimit_resource resource_;
  rlimit before_{};
};

class BlockFilesTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { blocks_ = make_branch(make_genesis_block(), 5); }

  // In place, as some file systems sync a file that is cut to nothing first.
  void write(const Bytes& bytes, const std::string& name = kName) const {
    const std::string path = directory_ / name;
    const FileDescriptor file = open_file(path, O_WRONLY | O_CREAT);
    ASSERT_TRUE(file.is_open() && write_all(file.get(), bytes));
    std::filesystem::resize_file(path, bytes.size());
  }

  Bytes read(const std::string& name = kName) const {
    return read_whole_file(directory_ / name, 1 << 30).value_or(Bytes());
  }

  // All five blocks as they are stored.
  static Bytes whole() {
    Bytes bytes;
    for (const Block& block : blocks_) {
      append(bytes, record_of(block));
    }
    return bytes;
  }

  static uint256 hash(size_t i) { return blocks_[i].get_hash(); }

  static std::map<uint256, uint32_t> index_of(std::initializer_list<size_t> wanted) {
    std::map<uint256, uint32_t> indexed;
    for (const size_t i : wanted) {
      indexed.emplace(hash(i), blocks_[i].height);
    }
    return indexed;
  }
  static std::map<uint256, uint32_t> whole_index() { return index_of({0, 1, 2, 3, 4}); }

  bool loads(size_t i) {
    const auto block = files_.load(kName, hash(i), blocks_[i].height);
    return block && block->serialize() == blocks_[i].serialize();
  }

  static inline std::vector<Block> blocks_;
  TemporaryDirectory directory_;
  BlockFiles files_{directory_.path()};
  CapturedStderr stderr_;
};

TEST_F(BlockFilesTest, FilesAreNamedByThousandsOfHeights) {
  const std::tuple<uint32_t, const char*> rows[] = {
      {0, "blk00000.dat"},          {999, "blk00000.dat"},          {1'000, "blk00001.dat"},
      {99'999'999, "blk99999.dat"}, {100'000'000, "blk100000.dat"}, {0xffffffff, "blk4294967.dat"}};
  for (const auto& [height, name] : rows) {
    EXPECT_EQ(block_file_name(height), name);
  }
  for (const char* name : {"blk100000.dat", "blk00001.dat", "blk99999.dat", "blk00001.dat.cut", "blk00001.dat.tmp",
                           "blk1.dat", "blk000001.dat", "blk0000x.dat", "snapshot.dat"}) {
    write({}, name);
  }
  EXPECT_EQ(files_.list(), (std::vector<std::string>{"blk00001.dat", "blk99999.dat", "blk100000.dat"}));
}

TEST_F(BlockFilesTest, AppendsRecordsOfLengthAndBlock) {
  Block twin = blocks_[0];
  twin.height = 7;  // not bound by the hash
  for (const Block& block : {twin, blocks_[0], blocks_[1]}) {
    ASSERT_TRUE(files_.append(block, never));
  }
  ASSERT_TRUE(files_.sync());
  EXPECT_EQ(read(), join({record_of(twin), record_of(blocks_[0]), record_of(blocks_[1])}));
  EXPECT_TRUE(loads(0) && loads(1));
  EXPECT_FALSE(files_.load(kName, hash(0), 8));
  EXPECT_EQ(files_.record_bytes(kName, hash(1)), blocks_[1].serialize().size());
  EXPECT_EQ(files_.record_bytes(kName, hash(2)), 0u);
  const std::string path = directory_ / kName;
  EXPECT_EQ(BlockFiles::load_from_file(path, 1)->height, 1u);
  EXPECT_FALSE(BlockFiles::load_from_file(path, 3));
  EXPECT_FALSE(BlockFiles::load_from_file(path + "x", 0));
}

TEST_F(BlockFilesTest, AReadThatFailsSaysNothingAboutTheRecord) {
  write(whole());
  bool has_failed = true;
  EXPECT_FALSE(files_.load(kName, hash(0), 8, &has_failed));
  EXPECT_FALSE(has_failed) << "no such record";
  EXPECT_FALSE(files_.load("blk00009.dat", hash(0), 9'000, &has_failed));
  EXPECT_TRUE(has_failed) << "no file";
  EXPECT_TRUE(files_.load(kName, hash(0), blocks_[0].height, &has_failed));
  EXPECT_FALSE(has_failed);

  const LoweredLimit no_descriptors(RLIMIT_NOFILE, 0);
  EXPECT_FALSE(files_.load(kName, hash(0), blocks_[0].height, &has_failed));
  EXPECT_TRUE(has_failed) << "no descriptor";
}

TEST_F(BlockFilesTest, ALookUpStopsWhereLengthsEnd) {
  const std::string size_error = "[Blockchain] ERROR: Invalid block size read from disk: 10000001\n";
  const std::tuple<const char*, Bytes, bool, std::string> rows[] = {
      {"largest record", junk(10'000'000, 0), true, ""},
      {"one byte more", junk(10'000'001, 0), false, size_error},
      {"record cut off", junk(9'000'000, 0), true, ""},
      {"records shorter than a header", join({junk(0, 0), junk(83, 1)}), true, ""},
      {"cut length", {}, false, ""},
  };
  for (const auto& [label, front, is_found, error] : rows) {
    SCOPED_TRACE(label);
    const CapturedStderr captured;
    write(front.empty() ? Bytes{1, 0, 0} : join({front, record_of(blocks_[0])}));
    EXPECT_EQ(loads(0), is_found);
    EXPECT_EQ(files_.record_bytes(kName, hash(0)) != 0, is_found);
    EXPECT_TRUE(error.empty() || captured.text() == error) << captured.text();
  }
}

TEST_F(BlockFilesTest, UnreadableRecordsArePassedOver) {
  Bytes doubled = record_of(blocks_[0]);
  doubled.back() ^= 1;  // the lock time: decodes, but not to the Merkle root
  const Bytes end = record_of(blocks_[1]);
  write(join({doubled, junk(200, 3), record_of(blocks_[0]), end}));
  EXPECT_TRUE(loads(0));
  std::vector<uint32_t> heights;
  EXPECT_TRUE(files_.for_each_block(kName, [&](const Block& block) {
    heights.push_back(block.height);
    return heights.size() < 2;
  }));
  EXPECT_EQ(heights, (std::vector<uint32_t>{1, 2}));
  size_t count = 0;
  EXPECT_TRUE(files_.for_each_hash(kName, [&](const uint256&) { ++count; }));
  EXPECT_EQ(count, 4u);
  write(join({doubled, end}));
  EXPECT_FALSE(loads(0));
}

// Against a plain reading of the bytes, while the file changes behind the cache.
TEST_F(BlockFilesTest, ALookUpIsThatOfASequentialScan) {
  std::mt19937_64 random(11);
  const auto scan = [](const Bytes& bytes, const uint256& wanted) -> std::optional<Bytes> {
    for (size_t at = 0; bytes.size() - at >= 4;) {
      const size_t len = read_le<uint32_t>(bytes, at);
      if (len > bytes.size() - at) {
        break;
      }
      const ByteView record = ByteView(bytes).subspan(at, len);
      for (const Block& block : blocks_) {
        if (block.get_hash() == wanted && std::ranges::equal(record, block.serialize())) {
          return block.serialize();
        }
      }
      at += len;
    }
    return std::nullopt;
  };
  size_t appended_to = 0;
  for (int round = 0; round < 300; ++round) {
    if (random() % 4 == 0 && round > 0) {
      const Block& block = blocks_[random() % 5];
      ASSERT_TRUE(files_.append(block, never));
      appended_to = read().size();
    } else {
      Bytes bytes;
      const bool is_mended = round % 8 == 0;  // may be shorter then
      const size_t least = is_mended ? 0 : appended_to;
      for (int i = 0; i < 4 || bytes.size() < least; ++i) {  // mostly of the same size: only the content tells
        Bytes record = record_of(blocks_[random() % 5]);
        record[kHeightAt] ^= uint8_t{random() % 4 == 0};
        append(bytes, random() % 4 == 0 ? junk(static_cast<uint32_t>(blocks_[0].size()), 5) : record);
      }
      write(bytes);
      ASSERT_TRUE(!is_mended || files_.repair(kName, {}));
      appended_to = is_mended ? bytes.size() : appended_to;
    }
    const size_t i = random() % 5;
    const auto block = files_.load(kName, hash(i), blocks_[i].height);
    ASSERT_EQ(block ? std::optional(block->serialize()) : std::nullopt, scan(read(), hash(i)));
  }
}

// What repair() promises for any file: nothing of it is thrown away, the blocks
// that it does not report as lost load, and a second repair finds nothing to do.
TEST_F(BlockFilesTest, OneWrongByteLosesAtMostItsOwnBlock) {
  const Bytes good = whole();
  std::vector<size_t> starts;
  for (size_t i = 0, at = 0; i < blocks_.size(); at += record_of(blocks_[i++]).size()) {
    starts.push_back(at);
  }
  size_t recovered = 0;
  for (size_t at = 0; at < good.size(); ++at) {
    for (const uint8_t flip : Bytes{0x01, 0x20, 0xff}) {
      SCOPED_TRACE(testing::Message() << "byte " << at << " flip " << int{flip});
      const size_t owner = static_cast<size_t>(std::upper_bound(starts.begin(), starts.end(), at) - starts.begin()) - 1;
      Bytes bad = good;
      bad[at] ^= flip;
      write(bad);
      std::filesystem::remove(directory_ / "blk00000.dat.cut");

      const auto lost = files_.repair(kName, whole_index());
      ASSERT_TRUE(lost);
      const size_t in_record = at - starts[owner];
      const bool is_height = in_record >= kHeightAt && in_record < kHeightAt + 4;
      ASSERT_TRUE(lost->empty() ? !is_height : in_record >= 4 && *lost == std::vector{hash(owner)});
      for (size_t i = 0; i < blocks_.size(); ++i) {
        ASSERT_EQ(loads(i), lost->empty() || i != owner);
      }
      const Bytes mended = read();
      const Bytes cut = read("blk00000.dat.cut");
      ASSERT_TRUE(std::equal(cut.rbegin(), cut.rend(), bad.rbegin()));
      ASSERT_TRUE(std::equal(bad.begin(), bad.end() - static_cast<ptrdiff_t>(cut.size()), mended.begin()));
      recovered += mended.size() > bad.size() - cut.size() ? 1 : 0;
      ASSERT_EQ(files_.repair(kName, whole_index()), lost);
      ASSERT_EQ(read(), mended);
    }
  }
  EXPECT_GE(recovered, 4u * 3u);  // at least where a length leads out of the file
}

TEST_F(BlockFilesTest, RepairCutsATornTailAndKeepsIt) {
  const Bytes front = record_of(blocks_[0]);
  const Bytes last = record_of(blocks_[1]);
  for (size_t len = 0; len <= last.size(); ++len) {
    SCOPED_TRACE(len);
    std::filesystem::remove(directory_ / "blk00000.dat.cut");
    const Bytes tail(last.begin(), last.begin() + static_cast<ptrdiff_t>(len));
    write(join({front, tail}));
    const auto lost = files_.repair(kName, index_of({0, 1}));
    ASSERT_TRUE(lost);
    const bool is_whole = len == last.size();
    EXPECT_EQ(*lost, is_whole ? std::vector<uint256>{} : std::vector{hash(1)});
    EXPECT_EQ(read(), is_whole ? join({front, last}) : front);
    EXPECT_EQ(read("blk00000.dat.cut"), is_whole ? Bytes{} : tail);
    ASSERT_TRUE(files_.append(blocks_[2], never));
    EXPECT_TRUE(loads(0) && loads(2));
  }
  EXPECT_NE(stderr_.text().find(directory_ / kName + ", cut off 9 bytes from offset " + std::to_string(front.size()) +
                                ", kept in " + (directory_ / kName) + ".cut\n"),
            std::string::npos);
}

TEST_F(BlockFilesTest, RepairLeavesWhatIsWellFramed) {
  const Bytes zeros(64);  // records without a block
  const Bytes bytes = join({record_of(blocks_[0]), junk(300, 9), zeros, record_of(blocks_[1])});
  write(bytes);
  EXPECT_EQ(files_.repair(kName, index_of({1})), std::vector<uint256>{});
  EXPECT_EQ(files_.repair(kName, {{hash(1), 7}}), std::vector{hash(1)});
  EXPECT_EQ(read(), bytes);
  EXPECT_EQ(stderr_.text(), "");
  EXPECT_FALSE(files_.repair("blk00001.dat", {}));
  EXPECT_FALSE(files_.repair("../" + std::string(kName), {}));
}

// A power cut leaves room without the records that it was for.
TEST_F(BlockFilesTest, ZerosAtTheEndAreCutOffAndNotKept) {
  const Bytes front = record_of(blocks_[0]);
  const Bytes torn(front.begin(), front.end() - 40);
  const struct {
    const char* label;
    Bytes kept;  // between the first record and the zeros
    uint64_t zeros;
  } rows[] = {{"a page", {}, 4'096}, {"two", {}, 2}, {"a terabyte without blocks", {}, 1ull << 40}, {"more", torn, 4}};
  for (const auto& row : rows) {
    for (const bool is_start : {true, false}) {
      SCOPED_TRACE(testing::Message() << row.label << (is_start ? " at a start" : " before an append"));
      const Bytes bytes = join({front, row.kept});
      std::filesystem::remove(directory_ / "blk00000.dat.cut");
      write(bytes);
      std::filesystem::resize_file(directory_ / kName, bytes.size() + row.zeros);
      BlockFiles files(directory_.path());
      ASSERT_TRUE(!is_start || files.repair(kName, index_of({0})) == std::vector<uint256>{});
      ASSERT_TRUE(files.append(blocks_[1], never));
      EXPECT_EQ(read(), join({front, record_of(blocks_[1])}));
      EXPECT_TRUE(files.load(kName, hash(0), 1) && files.load(kName, hash(1), 2));
      const Bytes cut = read("blk00000.dat.cut");
      EXPECT_EQ(Bytes(cut.begin(), cut.begin() + static_cast<ptrdiff_t>(row.kept.size())), row.kept);
    }
  }
}

TEST_F(BlockFilesTest, ABlockBehindDamageIsTakenWithItsHeightOnly) {
  const Bytes front = record_of(blocks_[0]);
  Bytes twin = record_of(blocks_[1]);
  twin[kHeightAt] ^= 1;
  twin[3] = 1;  // leads out of the file
  write(join({front, twin, record_of(blocks_[1])}));
  EXPECT_EQ(files_.repair(kName, index_of({0, 1})), std::vector<uint256>{});
  EXPECT_EQ(read(), join({front, record_of(blocks_[1])}));
}

TEST_F(BlockFilesTest, TheFirstAppendOfARunWalksTheFile) {
  const Bytes front = record_of(blocks_[0]);
  const Bytes torn(front.begin(), front.end() - 1);  // a second copy, cut
  Bytes wrong_length = record_of(blocks_[1]);
  wrong_length[3] = 1;
  const Bytes damaged = join({front, wrong_length, record_of(blocks_[2])});
  const auto is_second = [](const std::string& name, const uint256& asked) {
    return name == kName && asked == hash(2);
  };
  const auto is_first = [](const std::string&, const uint256& asked) { return asked == hash(0); };
  Bytes bad_body = record_of(blocks_[2]);
  bad_body.back() ^= 1;
  const std::tuple<const char*, Bytes, BlockFiles::IsIndexed, bool> rows[] = {
      {"nothing wrong", join({front, record_of(blocks_[1])}), is_first, true},
      {"torn copy of an indexed block", join({front, torn}), is_first, true},
      {"no block of the index behind the damage", damaged, is_first, true},
      {"a block of the index behind the damage", damaged, is_second, false},
      {"a block of the index unreadable before zeros", join({bad_body, front, Bytes(40)}), is_second, true},
  };
  for (const auto& [label, content, is_indexed, is_taken] : rows) {
    SCOPED_TRACE(label);
    write(content);
    write({1, 2}, "blk00000.dat.cut");  // of an earlier run
    BlockFiles files(directory_.path());
    ASSERT_EQ(files.append(blocks_[3], is_indexed), is_taken);
    if (!is_taken) {
      EXPECT_EQ(read(), content);
      EXPECT_EQ(files.repair(kName, index_of({0, 2})), std::vector<uint256>{});
      EXPECT_TRUE(files.append(blocks_[3], is_indexed));
    } else if (std::string_view(label).ends_with("zeros")) {
      EXPECT_EQ(read(), join({bad_body, front, record_of(blocks_[3])}));
    } else if (content != join({front, record_of(blocks_[1])})) {
      EXPECT_EQ(read(), join({front, record_of(blocks_[3])}));
      const Bytes tail(content.begin() + static_cast<ptrdiff_t>(front.size()), content.end());
      EXPECT_EQ(read("blk00000.dat.cut"), join({{1, 2}, tail}));
    }
    EXPECT_TRUE(files.load(kName, hash(3), 4));
  }
}

TEST_F(BlockFilesTest, AFailedAppendLeavesTheFile) {
  ASSERT_TRUE(files_.append(blocks_[0], never));
  const Bytes before = read();
  {
    const LoweredLimit full_disk(RLIMIT_FSIZE, before.size() + 10);
    EXPECT_FALSE(files_.append(blocks_[1], never));
  }
  EXPECT_EQ(read(), before);
  std::filesystem::create_directory(directory_ / "blk00005.dat");
  Block distant = blocks_[1];
  distant.height = 5'000;
  const CapturedStderr captured;
  EXPECT_FALSE(files_.append(distant, never));
  EXPECT_EQ(captured.text(),
            "[Blockchain] ERROR: Failed to open block file for writing: " + (directory_ / "blk00005.dat") + "\n");
  EXPECT_TRUE(files_.append(blocks_[1], never));
  EXPECT_TRUE(files_.sync());
  EXPECT_TRUE(loads(0) && loads(1));
}

TEST_F(BlockFilesTest, AFileThatBecameShorterIsNotMadeAnew) {
  const std::string path = directory_ / kName;
  for (const bool is_synced : {false, true}) {
    SCOPED_TRACE(is_synced);
    ASSERT_TRUE(files_.append(blocks_[0], never) && (!is_synced || files_.sync()));
    const Bytes before = read();
    std::filesystem::rename(path, directory_ / "aside");
    EXPECT_FALSE(files_.append(blocks_[1], never));
    EXPECT_FALSE(files_.exists(kName));
    write({});
    EXPECT_FALSE(files_.append(blocks_[1], never));
    EXPECT_EQ(read(), Bytes{});
    std::filesystem::rename(directory_ / "aside", path);
    EXPECT_TRUE(files_.append(blocks_[1], never));
    EXPECT_EQ(read(), join({before, record_of(blocks_[1])}));
  }
  EXPECT_NE(stderr_.text().find("[Blockchain] ERROR: Block file " + path + " is gone"), std::string::npos);
  EXPECT_NE(stderr_.text().find(path + " has become shorter; a restart mends it"), std::string::npos);
}

TEST_F(BlockFilesTest, ARepairThatFailsLeavesTheFile) {
  Bytes damaged = whole();
  damaged[3] = 1;
  write(damaged);
  {
    const LoweredLimit full_disk(RLIMIT_FSIZE, 100);
    EXPECT_FALSE(files_.repair(kName, whole_index()));
  }
  EXPECT_EQ(read(), damaged);
  EXPECT_FALSE(std::filesystem::exists(directory_ / "blk00000.dat.tmp"));
  EXPECT_EQ(files_.repair(kName, whole_index()), std::vector<uint256>{});
}

TEST_F(BlockFilesTest, WhatAFailedSyncDroppedIsWrittenAgain) {
  ASSERT_TRUE(files_.append(blocks_[0], never) && files_.sync());
  dropped_from = read().size();
  ASSERT_TRUE(files_.append(blocks_[1], never));
  failing_syncs = 2;
  EXPECT_FALSE(files_.sync());
  EXPECT_TRUE(loads(1));
  ASSERT_TRUE(files_.append(blocks_[2], never));
  std::filesystem::rename(directory_ / kName, directory_ / "aside");  // nor can it be written again now
  EXPECT_FALSE(files_.sync());
  EXPECT_FALSE(files_.sync());
  std::filesystem::rename(directory_ / "aside", directory_ / kName);
  EXPECT_TRUE(files_.sync());
  EXPECT_EQ(read(), join({record_of(blocks_[0]), record_of(blocks_[1]), record_of(blocks_[2])}));
}

TEST_F(BlockFilesTest, UnsyncedFilesAreBounded) {
  const auto open_count = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
  };
  const auto before = open_count();
  Block block = blocks_[0];
  for (uint32_t i = 0; i < 200; ++i) {
    block.height = i * kHeightsPerFile;
    ASSERT_TRUE(files_.append(block, never));
    EXPECT_LE(open_count(), before + 20);
  }
  EXPECT_TRUE(files_.sync());
  EXPECT_EQ(open_count(), before);
  EXPECT_TRUE(files_.load("blk00003.dat", hash(0), 3'000));
}

}  // namespace
}  // namespace norvel
