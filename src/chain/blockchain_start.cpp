// The members of Blockchain that bring it back from its directory: the index
// first, then the state of the branch that was active, then, if there is one, a
// heavier branch.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "chain/block_rules.h"
#include "chain/blockchain.h"
#include "chain/genesis.h"
#include "consensus/treasury.h"
#include "core/console.h"

namespace norvel {

namespace {

// The files of these heights below the highest are walked at each start.
constexpr uint32_t kWalkedHeights = 2'000;

constexpr mode_t kDirectoryMode = 0700;

bool refuse_start(std::string& error, std::string reason) {
  error = std::move(reason);
  return false;
}

}  // namespace

bool Blockchain::initialize(std::string& error) {
  bool started = false;
  try {
    const MutexLock lock(mutex_);
    treasury::ensure_initialized();
    started = open_directory(error) && load_index(error) && activate(error);
  } catch (const std::exception& failure) {
    error = failure.what();
  }
  drain_events();
  return started;
}

bool Blockchain::open_directory(std::string& error) {
  std::error_code failure;
  const auto parent = std::filesystem::absolute(directory_, failure).parent_path();
  std::filesystem::create_directories(parent, failure);
  if (mkdir(directory_.c_str(), kDirectoryMode) != 0 && errno != EEXIST) {
    return refuse_start(error, "Cannot create data directory " + directory_ + ": " + std::strerror(errno));
  }
  directory_lock_ = open_file(directory_ + "/.lock", O_RDWR | O_CREAT);
  if (!directory_lock_.is_open()) {
    return refuse_start(error, "Cannot use data directory " + directory_ + ": " + std::strerror(errno));
  }
  if (flock(directory_lock_.get(), LOCK_EX | LOCK_NB) != 0) {
    return refuse_start(error, "Data directory " + directory_ + " is in use by another process");
  }
  // One that is cut short must not end with the old snapshot: the mark stays until it is done.
  if (options_.rebuild && !mark_rebuild()) {
    return refuse_start(error, "Cannot write the file rebuild-needed in " + directory_);
  }
  rebuilding_ = options_.rebuild || std::filesystem::exists(rebuild_marker_, failure);
  return true;
}

bool Blockchain::load_index(std::string& error) {
  StateDatabase::Content content;
  auto result = rebuilding_ ? StateDatabase::ReadResult::UNREADABLE : database_.read(content);
  if (result == StateDatabase::ReadResult::FAILED) {
    return refuse_start(error, "The database in " + directory_ + " cannot be opened");
  }
  if (result == StateDatabase::ReadResult::UNREADABLE) {
    console::error_line("[Blockchain] Rebuilding the block index from the block files...");
    content = StateDatabase::Content();
    if (!database_.set_aside()) {
      return refuse_start(error, "The damaged database in " + directory_ + " cannot be moved aside");
    }
  } else if (result == StateDatabase::ReadResult::READ) {
    saved_tip_ = content.tip;
  }
  for (const uint256& hash : tree_.assign(content.index)) {
    dropped_.insert(hash);
  }
  if (!check_block_files(error) || !create_genesis(error)) {
    return false;
  }
  return repair_recent_files(error);
}

// A missing file may be on a disk that is not mounted, so nothing is dropped for it.
bool Blockchain::check_block_files(std::string& error) {
  std::set<std::string> names;
  // Without an index too: files are made in the order of heights.
  const std::vector<std::string> present = files_.list();
  for (size_t i = 0; i < present.size(); ++i) {
    names.insert(block_file_name(static_cast<uint32_t>(i) * kHeightsPerFile));
  }
  for (const auto& [hash, entry] : tree_.all()) {
    names.insert(entry.file_name);
  }
  for (const std::string& name : names) {
    if (!files_.exists(name)) {
      return refuse_start(error, "Block file " + directory_ + "/" + name + " is missing");
    }
  }
  return true;
}

bool Blockchain::create_genesis(std::string& error) {
  const Block genesis = make_genesis_block();
  const uint256 hash = genesis.get_hash();
  if (!tree_.all().empty() && tree_.find(hash) == nullptr) {
    return refuse_start(error, "Data directory " + directory_ + " belongs to another chain");
  }
  const std::string file_name = block_file_name(0);
  const bool stored = files_.exists(file_name) && files_.record_bytes(file_name, hash) != 0 &&
                      files_.load(file_name, hash, 0).has_value();
  if (!stored && files_.exists(file_name) && !repair_file(file_name, error)) {
    return false;
  }
  if (!stored && !append_block(genesis)) {
    return refuse_start(error, "Failed to save block to disk");
  }
  if (tree_.find(hash) == nullptr) {
    insert_entry(BlockTree::make_entry(genesis, nullptr));
  }
  return true;
}

bool Blockchain::repair_recent_files(std::string& error) {
  uint32_t top = 0;
  for (const auto& [hash, entry] : tree_.all()) {
    top = std::max(top, entry.height);
  }
  // Without an index every file is recent. The list ascends by number, without gaps.
  std::vector<std::string> recent = files_.list();
  const size_t old_count = (top > kWalkedHeights ? top - kWalkedHeights : 0) / kHeightsPerFile;
  recent.erase(recent.begin(), recent.begin() + static_cast<std::ptrdiff_t>(std::min(old_count, recent.size())));
  for (const std::string& name : recent) {
    if (!repair_file(name, error)) {
      return false;
    }
  }
  add_unindexed_blocks(recent);
  return true;
}

bool Blockchain::repair_file(const std::string& file_name, std::string& error) {
  if (stop_) {
    return refuse_start(error, "Node is stopping");
  }
  std::map<uint256, uint32_t> indexed;
  for (const auto& [hash, entry] : tree_.all()) {
    if (entry.file_name == file_name) {
      indexed.emplace(hash, entry.height);
    }
  }
  const auto lost = files_.repair(file_name, indexed);
  if (!lost) {
    return refuse_start(error, "Block file " + directory_ + "/" + file_name + " cannot be read");
  }
  for (const uint256& hash : *lost) {
    // The genesis block is known without its file.
    if (tree_.find(hash) != nullptr && tree_.find(hash)->height != 0) {
      console::error_line("[Blockchain] Block " + hash.to_hex() + " is lost and will be fetched again");
      drop_branch(hash);
    }
  }
  return true;
}

// Blocks that were written but that the index lacks, lowest first.
void Blockchain::add_unindexed_blocks(const std::vector<std::string>& file_names) {
  struct Found {
    uint32_t height;
    uint256 hash;
    std::string file_name;
  };
  std::vector<Found> found;
  for (const std::string& name : file_names) {
    std::set<uint256> unknown;
    files_.for_each_hash(name, [&](const uint256& hash) REQUIRES(mutex_) {
      if (tree_.find(hash) == nullptr) {
        unknown.insert(hash);
      }
    });
    if (!unknown.empty()) {
      // Every height that a record of the block gives; only one of them can be right.
      files_.for_each_block(name, [&](const Block& block) {
        if (unknown.contains(block.get_hash())) {
          found.push_back({block.height, block.get_hash(), name});
        }
        return !stop_;
      });
    }
  }
  std::stable_sort(found.begin(), found.end(), [](const Found& a, const Found& b) { return a.height < b.height; });
  size_t added = 0;
  for (const Found& record : found) {
    added += !stop_ && index_stored_block(record.hash, record.file_name, record.height) ? 1 : 0;
  }
  if (added > 0) {
    console::write_out("[Blockchain] " + std::to_string(added) + " block(s) of the block files added to the index\n");
  }
}

bool Blockchain::index_stored_block(const uint256& hash, const std::string& file_name, uint32_t height) {
  if (tree_.find(hash) != nullptr) {
    return false;
  }
  const std::optional<Block> block = files_.load(file_name, hash, height);
  const BlockIndex* parent = block ? tree_.find(block->header.prev_hash) : nullptr;
  std::string reason;
  if (parent == nullptr || block->height != uint64_t{parent->height} + 1 ||
      !validate_context_free(*block, ClockRule::SKIP, reason) ||
      block->header.bits != tree_.expected_child_bits(parent->hash, consensus::RetargetReport::SILENT)) {
    return false;
  }
  const BlockIndex entry = BlockTree::make_entry(*block, parent);
  if (entry.file_name != file_name) {
    return false;  // in a file where nobody would look for it
  }
  insert_entry(entry);
  return true;
}

// The branch that was active comes back if its blocks hold; where one does not,
// the part below it stays and the heaviest branch that is left is tried.
bool Blockchain::activate(std::string& error) {
  std::optional<uint256> wanted;
  if (saved_tip_ && tree_.find(saved_tip_->best_hash) != nullptr) {
    wanted = saved_tip_->best_hash;
  }
  const bool had_tip = wanted.has_value();
  const auto any = [](const BlockIndex&) { return true; };
  if (!wanted) {
    wanted = tree_.heaviest(read_snapshot_tip(), any)->hash;
  }
  bool whole = true;
  while (state_.empty() || *wanted != state_.tip_hash()) {
    const std::optional<Failure> failure = activate_branch(*wanted);
    if (!failure) {
      break;
    }
    const bool is_invalid = failure->fate == BlockFate::INVALID;
    if (failure->stands_as_before && !stop_ && is_state_whole()) {
      whole = false;
      console::error_line("[Blockchain] Chain stays at height " + std::to_string(state_.tip_height()) +
                          ", it cannot be taken back: " + failure->reason);
      break;
    }
    if (stop_ || state_.empty() || (!is_invalid && !failure->unreadable)) {
      return refuse_start(error, failure->reason);
    }
    whole = false;
    console::error_line("[Blockchain] Chain goes on from height " + std::to_string(state_.tip_height()) + ": " +
                        failure->reason);
    if (is_invalid) {
      tree_.mark_bad(failure->block, verdicts_.remember(failure->block, failure->reason));
    } else {
      drop_branch(failure->block);
    }
    wanted = tree_.heaviest(state_.tip_hash(), any)->hash;
  }
  adopt_undo_records();
  if (had_tip && whole) {
    try_saved_alternatives();
  }
  count_old_forks();
  return finish_start(error);
}

// The heaviest known branch, once, by the rules of any reorganisation.
void Blockchain::try_saved_alternatives() {
  const BlockIndex* heaviest = tree_.heaviest(state_.tip_hash(), [](const BlockIndex&) { return true; });
  if (heaviest == nullptr || !(tree_.find(state_.tip_hash())->chain_work < heaviest->chain_work)) {
    return;
  }
  const uint32_t depth = state_.tip_height() - tree_.fork_height(heaviest->hash);
  if (depth > UndoJournal::kDepth) {
    reorganise(heaviest->hash);  // says why not
  }
  try_heaviest_branch();
}

bool Blockchain::finish_start(std::string& error) {
  if (broken_) {
    return refuse_start(error, "Chain state could not be restored");
  }
  const bool changed = !unsaved_.empty() || !dropped_.empty() || !saved_tip_ ||
                       *saved_tip_ != ChainTip{state_.tip_hash(), state_.tip_height(), state_.total_supply()};
  if (changed && !write_state()) {
    return refuse_start(error, "The state cannot be written to " + directory_);
  }
  if (rebuilding_) {
    std::error_code failure;
    if (!write_snapshot() || (!std::filesystem::remove(rebuild_marker_, failure) && failure)) {
      return refuse_start(error, "The rebuilt state cannot be written to " + directory_);
    }
    rebuilding_ = false;
  }
  return true;
}

// Brings the state to `tip_hash`, whatever the depth of the fork. On failure it
// stands below the block that failed, or where it was.
std::optional<Blockchain::Failure> Blockchain::activate_branch(const uint256& tip_hash) {
  const std::vector<uint256> path = tree_.path_from_genesis(tip_hash);
  if (state_.empty()) {
    return replay_from_best_start(path);
  }
  const uint32_t fork_height = tree_.fork_height(tip_hash);
  if (auto failure = go_back_to(fork_height)) {
    return failure;
  }
  return replay_chain(path, size_t{fork_height} + 1);
}

// Brings the empty state to the end of `path`, all hashes from the genesis block
// on, starting from the snapshot when it fits.
std::optional<Blockchain::Failure> Blockchain::replay_from_best_start(const std::vector<uint256>& path) {
  const bool is_new = path.size() == 1 && !std::filesystem::exists(directory_ + "/" + kSnapshotFile);
  std::string reason;
  if (!rebuilding_ && !is_new) {
    if (restore_snapshot(path, reason)) {
      const uint32_t snapshot_height = state_.tip_height();
      std::optional<Failure> failure = replay_chain(path, size_t{snapshot_height} + 1);
      if (!failure) {
        console::write_out("[Blockchain] Snapshot loaded (height " + std::to_string(snapshot_height) + "), caught up " +
                           std::to_string(state_.tip_height() - snapshot_height) + " block(s) to height " +
                           std::to_string(state_.tip_height()) + "\n");
        return std::nullopt;
      }
      if (stop_) {
        return failure;
      }
      reason = failure->fate == BlockFate::INVALID ? "tip mismatch after catch-up" : "missing block in catch-up";
    }
    console::error_line("[Blockchain] Snapshot not usable (" + reason + ") — rebuilding chain state from disk...");
  }
  state_.clear();
  journal_.clear();
  tree_.set_active({});
  ++change_number_;
  return replay_chain(path, 0);
}

std::optional<uint256> Blockchain::read_snapshot_tip() const {
  SnapshotData data;
  std::string reason;
  return !rebuilding_ && read_snapshot(data, reason) ? std::optional(data.header.tip_hash) : std::nullopt;
}

bool Blockchain::read_snapshot(SnapshotData& data, std::string& reason) const {
  try {
    const auto file = read_whole_file(directory_ + "/" + kSnapshotFile, snapshot_bytes_max(files_.total_bytes()));
    return file ? decode_snapshot(*file, data, reason) : refuse_start(reason, "no snapshot file");
  } catch (const std::exception&) {
    return refuse_start(reason, "no snapshot file");  // too large to be read whole
  }
}

// Makes the snapshot the state when its tip lies on `path`; otherwise the state
// is left alone and `reason` says why.
bool Blockchain::restore_snapshot(const std::vector<uint256>& path, std::string& reason) {
  SnapshotData data;
  if (!read_snapshot(data, reason)) {
    return false;
  }
  const uint32_t height = data.header.tip_height;
  if (height >= path.size() || path[height] != data.header.tip_hash) {
    return refuse_start(reason, "snapshot tip not on active chain");
  }
  std::vector<uint256> active(path.begin(), path.begin() + height + 1);
  ++change_number_;
  state_.restore(std::move(data));
  journal_.clear();
  tree_.set_active(std::move(active));
  return true;
}

void Blockchain::adopt_undo_records() {
  journal_.load();
  const auto& active = tree_.active();
  const size_t known = std::min(journal_.size(), active.size());
  const size_t count = std::min(UndoJournal::kDepth - std::min(UndoJournal::kDepth, known), active.size() - known);
  if (count > 0) {
    const auto newest = active.rbegin() + static_cast<std::ptrdiff_t>(known);
    const std::vector<uint256> hashes(newest, newest + static_cast<std::ptrdiff_t>(count));
    journal_.adopt(static_cast<uint32_t>(active.size() - known - 1), hashes);
  }
}

void Blockchain::count_old_forks() {
  uint64_t count = 0;
  uint64_t bytes = 0;
  for (const auto& [hash, entry] : tree_.all()) {
    if (!state_.empty() && !tree_.is_active(hash) &&
        state_.tip_height() - tree_.fork_height(hash) > UndoJournal::kDepth) {
      ++count;
      bytes += files_.record_bytes(entry.file_name, hash);
    }
  }
  old_fork_count_ = count;
  old_fork_bytes_ = bytes;
}

// All or nothing: a part of the branch without its parents would be no tree.
void Blockchain::drop_branch(const uint256& hash) {
  const std::vector<uint256> branch = tree_.with_descendants(hash);
  dropped_.insert(branch.begin(), branch.end());
  for (auto member = branch.rbegin(); member != branch.rend(); ++member) {
    unsaved_.erase(*member);
    tree_.erase_leaf(*member);
  }
}

}  // namespace norvel
