#include "node/directory_check.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <vector>

#include "chain/block_file_scan.h"
#include "chain/block_files.h"
#include "chain/block_rules.h"
#include "chain/block_tree.h"
#include "chain/blockchain.h"
#include "chain/chain_state.h"
#include "chain/snapshot_codec.h"
#include "chain/state_database.h"
#include "consensus/retarget.h"
#include "consensus/treasury.h"
#include "core/console.h"
#include "core/file_io.h"
#include "node/data_directory.h"
#include "node/node_params.h"

namespace norvel::node {

namespace {

namespace fs = std::filesystem;

constexpr size_t kProblemLinesMax = 100;

// What was found wrong so far.
class Findings {
 public:
  void add(const std::string& problem) {
    if (++count_ <= kProblemLinesMax) {
      console::error_line("[Check] " + problem);
    }
  }
  size_t count() const { return count_; }

 private:
  size_t count_ = 0;
};

void tell(const std::string& text) {
  console::write_out("[Check] " + text + "\n");
}

// A copy of the database, removed with this object.
class DatabaseCopy {
 public:
  // Throws std::runtime_error.
  DatabaseCopy() {
    const char* root = std::getenv("TMPDIR");
    path_ = std::string(root == nullptr || *root == '\0' ? "/tmp" : root) + "/norvel-check-XXXXXX";
    if (mkdtemp(path_.data()) == nullptr) {
      throw std::runtime_error(path_ + ": " + std::strerror(errno));
    }
  }
  ~DatabaseCopy() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  DatabaseCopy(const DatabaseCopy&) = delete;
  DatabaseCopy& operator=(const DatabaseCopy&) = delete;

  // False when a stop was requested before the end; LevelDB's files are of a few
  // megabytes each. Throws std::runtime_error.
  bool fill_from(const std::string& data_directory, const StopRequest& stop) {
    const fs::path source = data_directory + kName;
    const fs::path target = path_ + kName;
    try {
      if (!fs::exists(source)) {
        return true;
      }
      fs::create_directory(target);
      for (const fs::directory_entry& entry : fs::directory_iterator(source)) {
        if (stop.is_requested()) {
          return false;
        }
        fs::copy(entry.path(), target / entry.path().filename(), fs::copy_options::recursive);
      }
    } catch (const fs::filesystem_error& failure) {
      throw std::runtime_error("copy of the database: " + failure.code().message());
    }
    return true;
  }

  const std::string& path() const { return path_; }

 private:
  static constexpr const char kName[] = "/chainstate";

  std::string path_;
};

class DirectoryCheck {
 public:
  DirectoryCheck(const std::string& directory, const NodeParams& params, const StopRequest& stop)
      : directory_(directory), stop_(stop), files_(directory), state_(params.distribution_interval) {}

  // Throws std::runtime_error when the check itself cannot go on.
  void run() {
    if (fs::exists(directory_ + "/" + kRebuildMarker)) {
      findings_.add("the state was lost or a rebuild was cut short; the next start rebuilds it from the block files");
    }
    read_database();
    check_files();
    check_index();
    read_snapshot();
    replay();
  }

  size_t problem_count() const { return findings_.count(); }

 private:
  void read_database();
  void check_files();
  void check_file(const std::string& name);
  void check_record(const Block& block, const std::string& name);
  void check_index();
  void read_snapshot();
  void replay();
  bool connect(const uint256& hash);
  void compare_state();
  void compare_snapshot();

  const std::string directory_;
  const StopRequest& stop_;
  Findings findings_;
  BlockFiles files_;
  BlockTree tree_;
  ChainState state_;

  StateDatabase::Content content_;
  std::optional<TreasuryState> treasury_;
  bool has_database_ = false;
  std::vector<uint256> path_;  // from the genesis block to the tip; empty when the index does not lead there
  std::optional<Bytes> snapshot_;
  std::optional<SnapshotHeader> snapshot_header_;  // of a snapshot that decodes

  std::set<uint256> found_;  // indexed blocks whose record is readable where it belongs
  size_t record_count_ = 0;
  size_t not_indexed_count_ = 0;
};

void DirectoryCheck::read_database() {
  DatabaseCopy copy;
  if (!copy.fill_from(directory_, stop_)) {
    return;
  }
  StateDatabase database(copy.path());
  switch (database.read(content_)) {
    case StateDatabase::ReadResult::READ:
      has_database_ = true;
      treasury_ = database.read_treasury();
      break;
    case StateDatabase::ReadResult::MISSING:
      findings_.add("there is no database");
      break;
    case StateDatabase::ReadResult::UNREADABLE:
      findings_.add("the database is damaged");
      break;
    case StateDatabase::ReadResult::FAILED:
      throw std::runtime_error("the copy of the database cannot be read");
  }
}

void DirectoryCheck::check_files() {
  const std::vector<std::string> names = files_.list();
  for (const std::string& name : names) {
    if (!stop_.is_requested()) {
      check_file(name);
    }
  }
  tell(std::to_string(names.size()) + " block file(s), " + std::to_string(record_count_) + " readable record(s), " +
       std::to_string(not_indexed_count_) + " not in the index");
}

void DirectoryCheck::check_file(const std::string& name) {
  const std::string path = directory_ + "/" + name;
  const auto file = open_block_file(path, O_RDONLY);
  if (!file) {
    throw std::runtime_error(path + ": " + std::strerror(errno));
  }
  RecordWalk walk(file->fd(), file->bytes);
  while (!stop_.is_requested() && walk.next()) {
    if (const auto block = walk.block()) {
      ++record_count_;
      check_record(*block, name);
    } else {
      findings_.add(path + ": the record at offset " + std::to_string(walk.offset()) + " is not readable");
    }
  }
  if (stop_.is_requested()) {
    return;
  }
  if (walk.end() == WalkEnd::READ_FAILED) {
    throw std::runtime_error(path + ": " + std::strerror(errno));
  }
  if (walk.end() != WalkEnd::FILE_END) {
    findings_.add(path + ": from offset " + std::to_string(walk.next_offset()) + " of " + std::to_string(file->bytes) +
                  " on there is no whole record");
  }
}

void DirectoryCheck::check_record(const Block& block, const std::string& name) {
  const auto entry = content_.index.find(block.get_hash());
  if (entry == content_.index.end()) {
    ++not_indexed_count_;
  } else if (entry->second.file_name == name && entry->second.height == block.height &&
             entry->second.prev_hash == block.header.prev_hash && entry->second.bits == block.header.bits &&
             entry->second.timestamp == block.header.timestamp) {
    found_.insert(entry->first);
  }
}

void DirectoryCheck::check_index() {
  if (!has_database_) {
    return;
  }
  for (const auto& [hash, entry] : content_.index) {
    if (!found_.contains(hash) && !stop_.is_requested()) {
      findings_.add("block " + hash.to_hex() + " of height " + std::to_string(entry.height) + " is not in " +
                    console::printable(entry.file_name) + " as the index says");
    }
  }
  for (const uint256& hash : tree_.assign(content_.index)) {
    findings_.add("index: block " + hash.to_hex() + " does not descend from a genesis block");
  }
  for (const auto& [hash, entry] : tree_.all()) {
    if (entry.height != 0 && !stop_.is_requested() &&
        entry.bits != tree_.expected_child_bits(entry.prev_hash, consensus::RetargetReport::SILENT)) {
      findings_.add("index: block " + hash.to_hex() + " does not carry the bits of the retarget rule");
    }
  }
  const BlockIndex* tip = tree_.find(content_.tip.best_hash);
  if (tip == nullptr || tip->height != content_.tip.best_height) {
    findings_.add("index: the tip " + content_.tip.best_hash.to_hex() + " is not in it at height " +
                  std::to_string(content_.tip.best_height));
    return;
  }
  path_ = tree_.path_from_genesis(tip->hash);
  tell("index: " + std::to_string(content_.index.size()) + " block(s), tip " + tip->hash.to_hex() + " at height " +
       std::to_string(tip->height));
}

void DirectoryCheck::read_snapshot() {
  const std::string path = directory_ + "/" + kSnapshotFile;
  snapshot_ = read_whole_file(path, snapshot_bytes_max(files_.total_bytes()));
  if (!snapshot_) {
    if (errno == ENOENT) {
      tell("no snapshot yet");
    } else {
      findings_.add(path + ": " + std::strerror(errno));
    }
    return;
  }
  SnapshotData data;
  std::string reason;
  if (!decode_snapshot(*snapshot_, data, reason)) {
    findings_.add("snapshot: " + reason);
    return;
  }
  const uint32_t height = data.header.tip_height;
  if (!path_.empty() && (height >= path_.size() || path_[height] != data.header.tip_hash)) {
    findings_.add("snapshot: its block " + data.header.tip_hash.to_hex() + " is not on the active chain");
    return;
  }
  snapshot_header_ = data.header;
}

void DirectoryCheck::replay() {
  for (const uint256& hash : path_) {
    if (stop_.is_requested() || !connect(hash)) {
      return;
    }
    if (snapshot_header_ && snapshot_header_->tip_hash == hash) {
      compare_snapshot();
    }
  }
  if (!path_.empty()) {
    compare_state();
  }
}

bool DirectoryCheck::connect(const uint256& hash) {
  const BlockIndex& entry = *tree_.find(hash);
  const auto block = files_.load(entry.file_name, hash, entry.height);
  const bool follows = block && (state_.empty() ? block->height == 0
                                                : block->header.prev_hash == state_.tip_hash() &&
                                                      block->height == state_.tip_height() + 1);
  std::string reason = "cannot be read or does not follow the block below it";
  if (!follows || (entry.height != 0 && !validate_context_free(*block, ClockRule::SKIP, reason))) {
    findings_.add("block " + hash.to_hex() + " at height " + std::to_string(entry.height) + ": " + reason);
    return false;
  }
  if (block->transactions.empty()) {
    findings_.add("the genesis block is empty");
    return false;
  }
  state_.connect(*block, hash);
  return true;
}

void DirectoryCheck::compare_snapshot() {
  if (state_.to_snapshot() == *snapshot_) {
    tell("snapshot: equals the state replayed to height " + std::to_string(state_.tip_height()));
  } else {
    findings_.add("snapshot: differs from the state replayed to height " + std::to_string(state_.tip_height()));
  }
}

void DirectoryCheck::compare_state() {
  const size_t before = findings_.count();
  if (state_.total_supply() != content_.tip.total_supply) {
    findings_.add("the supply of the database is not that of the blocks");
  }
  if (!treasury_) {
    findings_.add("the database has no readable treasury");
  } else {
    treasury_->distribution_interval = state_.treasury().distribution_interval;
    if (*treasury_ != state_.treasury()) {
      findings_.add("the treasury of the database is not that of the blocks");
    }
  }
  if (findings_.count() == before) {
    tell("state: the blocks lead to the supply and treasury of the database");
  }
}

}  // namespace

int check_directory(const Options& options, const StopRequest& stop) {
  const std::string& directory = options.data_dir;
  try {
    const FileDescriptor lock = lock_data_directory(directory, LockFile::MUST_EXIST);
    const NodeParams params = read_params_for_check(directory, options);
    consensus::set_difficulty_config(params.difficulty());
    treasury::ensure_initialized();
    DirectoryCheck check(directory, params, stop);
    check.run();
    if (stop.is_requested()) {
      console::error_line("[Check] Stopped before the end");
      return 1;
    }
    const size_t count = check.problem_count();
    if (count > 0) {
      console::error_line("[Check] " + std::to_string(count) + " problem(s) in " + directory +
                          "; a start mends most, a start with --rebuild what follows from the blocks");
      return 1;
    }
    tell("Nothing is wrong in " + directory);
    return 0;
  } catch (const std::exception& failure) {
    console::error_line(std::string("[Check] ") + failure.what());
    return 1;
  }
}

}  // namespace norvel::node
