// --check finds each kind of damage and leaves every byte as it was.

#include "node/directory_check.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>

#include "chain/chain_scene.h"
#include "chain/snapshot_codec.h"
#include "chain/state_database.h"
#include "support/captured_stderr.h"

namespace norvel::node {
namespace {

using Files = std::map<std::string, std::string>;

Files read_files(const std::string& directory) {
  Files files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
    if (entry.is_regular_file()) {
      std::ifstream file(entry.path(), std::ios::binary);
      files[entry.path().string()] = {std::istreambuf_iterator<char>(file), {}};
    }
  }
  return files;
}

class DirectoryCheck : public testing::Test {
 protected:
  DirectoryCheck() {
    std::filesystem::create_directory(root_ / "whole");
    Blockchain chain(root_ / "whole", small_options());
    std::string error;
    EXPECT_TRUE(chain.initialize(error)) << error;
    Block tip = make_genesis_block();
    for (int i = 0; i < 12; ++i) {
      tip = make_child(tip);
      EXPECT_TRUE(chain.add_block(tip, error)) << error;
      if (i == 7) {
        EXPECT_TRUE(chain.save_snapshot());
      }
    }
  }

  int check(const std::string& directory) {
    options_.data_dir = directory;
    return check_directory(options_, stop_);
  }

  // The exit status for a copy that `damage` was done to.
  int check_copy(const std::function<void(const std::string&)>& damage) {
    const std::string copy = root_ / "copy";
    std::filesystem::remove_all(copy);
    std::filesystem::copy(root_ / "whole", copy, std::filesystem::copy_options::recursive);
    damage(copy);
    const Files before = read_files(copy);
    const int status = check(copy);
    EXPECT_EQ(read_files(copy), before);
    return status;
  }

  const TemporaryDirectory root_;
  Options options_;
  StopRequest stop_;
};

void flip(const std::string& path, int64_t offset) {
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  file.seekg(offset, offset < 0 ? std::ios::end : std::ios::beg);
  const auto at = file.tellg();
  const char byte = static_cast<char>(file.get() ^ 1);
  file.seekp(at);
  file.put(byte);
}

// Replaces the snapshot by one with a valid checksum and another supply.
void forge_snapshot(const std::string& directory) {
  const auto file = read_whole_file(directory + "/snapshot.dat", 1'000'000);
  SnapshotData data;
  std::string reason;
  ASSERT_TRUE(decode_snapshot(*file, data, reason));
  ChainState state(TreasuryState().distribution_interval);
  ++data.header.total_supply;
  state.restore(std::move(data));
  ASSERT_TRUE(replace_file(directory + "/snapshot.dat", state.to_snapshot()));
}

void forge_treasury(const std::string& directory) {
  TreasuryState treasury;
  treasury.balance = 1;
  ASSERT_TRUE(StateDatabase(directory).write_treasury(treasury));
}

TEST_F(DirectoryCheck, FindsWhatIsWrongAndChangesNothing) {
  const auto blocks = [](const std::string& directory) { return directory + "/blk00000.dat"; };
  const struct {
    const char* label;
    std::function<void(const std::string&)> damage;
    const char* want;  // part of a line; empty: nothing is wrong
  } rows[] = {
      {"nothing", [](const std::string&) {}, ""},
      {"no snapshot", [](const std::string& d) { std::filesystem::remove(d + "/snapshot.dat"); }, ""},
      {"block byte", [&](const std::string& d) { flip(blocks(d), -30); }, "is not readable"},
      {"tail", [&](const std::string& d) { std::ofstream(blocks(d), std::ios::app) << "ab"; }, "no whole record"},
      {"file cut", [&](const std::string& d) { std::filesystem::resize_file(blocks(d), 400); }, "as the index says"},
      {"file gone", [&](const std::string& d) { std::filesystem::remove(blocks(d)); }, "as the index says"},
      {"snapshot byte", [](const std::string& d) { flip(d + "/snapshot.dat", 60); }, "checksum mismatch"},
      {"forged snapshot", &forge_snapshot, "differs from the state"},
      {"forged treasury", &forge_treasury, "treasury of the database"},
      {"no database", [](const std::string& d) { std::filesystem::remove_all(d + "/chainstate"); }, "no database"},
      {"no CURRENT", [](const std::string& d) { std::ofstream(d + "/chainstate/CURRENT") << "x\n"; }, "damaged"},
      {"marker", [](const std::string& d) { std::ofstream(d + "/rebuild-needed") << ""; }, "the state was lost"},
      {"no node was here", [](const std::string& d) { std::filesystem::remove(d + "/.lock"); },
       "copy/.lock: No such file"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const CapturedStderr lines;
    EXPECT_EQ(check_copy(row.damage), *row.want == '\0' ? 0 : 1) << lines.text();
    EXPECT_NE(lines.text().find(row.want), std::string::npos) << lines.text();
  }
}

TEST_F(DirectoryCheck, WaitsForNobody) {
  const CapturedStderr lines;
  ChainScene running;
  EXPECT_EQ(check(running.directory().path()), 1);
  EXPECT_NE(lines.text().find("another process uses"), std::string::npos);
  stop_.request(0);
  EXPECT_EQ(check(root_ / "whole"), 1);
}

TEST_F(DirectoryCheck, RefusesOtherRulesThanThoseOfTheDirectory) {
  const CapturedStderr lines;
  options_.retarget_interval = 7;
  EXPECT_EQ(check(root_ / "whole"), 1);
  EXPECT_NE(lines.text().find("was made with --retarget-interval 6, not 7"), std::string::npos);
  options_.retarget_interval = 6;
  EXPECT_EQ(check(root_ / "whole"), 0);
}

}  // namespace
}  // namespace norvel::node
