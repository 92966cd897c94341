// The members of Blockchain that move blocks and state between memory and disk.

#include <algorithm>
#include <utility>

#include "chain/blockchain.h"
#include "core/console.h"

namespace norvel {

namespace {

constexpr size_t kBytesPerKilobyte = 1'024;

}  // namespace

bool Blockchain::save_block_to_disk(const Block& block) {
  const MutexLock lock(mutex_);
  return append_block(block) && files_.sync();
}

bool Blockchain::append_block(const Block& block) {
  storing_fails_ = !files_.append(block, [this](const std::string& file_name, const uint256& hash) REQUIRES(mutex_) {
    const BlockIndex* entry = tree_.find(hash);
    return entry != nullptr && entry->file_name == file_name;
  });
  return !storing_fails_;
}

std::optional<Block> Blockchain::load_block_from_disk(const uint256& hash) const {
  const MutexLock lock(mutex_);
  return load_block(hash);
}

std::optional<Block> Blockchain::load_block(const uint256& hash, bool* has_failed) const {
  const BlockIndex* entry = tree_.find(hash);
  if (entry == nullptr) {
    if (has_failed != nullptr) {
      *has_failed = false;
    }
    console::error_line("[Blockchain] Block hash not found in index: " + hash.to_hex());
    return std::nullopt;
  }
  return files_.load(entry->file_name, hash, entry->height, has_failed);
}

std::optional<Block> Blockchain::load_block_from_file(const std::string& path, size_t record_index) const {
  return BlockFiles::load_from_file(path, record_index);
}

bool Blockchain::save_state() {
  const MutexLock lock(mutex_);
  return save_state_locked();
}

bool Blockchain::flush_state() {
  const MutexLock lock(mutex_);
  return write_state();
}

bool Blockchain::save_state_locked() {
  save_noted_ = true;
  return open_scopes_ > 0 || write_state();
}

// After a change that stays, whatever becomes of its saving: that is tried again
// by the next call.
bool Blockchain::try_save_state() noexcept {
  try {
    return save_state_locked();
  } catch (const std::exception&) {
    return false;
  }
}

void Blockchain::warn_not_saved(const char* after) noexcept {
  try {
    console::error_line(std::string("[Blockchain] WARNING: Failed to save state after ") + after + "!");
  } catch (const std::exception&) {
    // No memory for the line either.
  }
}

// Blocks first, so that the database never names one that is not on disk.
bool Blockchain::write_state() {
  if (broken_ || state_.empty() || !files_.sync()) {
    return false;
  }
  if (!journal_.sync()) {
    console::error_line("[Blockchain] WARNING: undo.dat cannot be written, a deep reorganisation will be slow");
  }
  StateDatabase::Update update;
  update.tip = {state_.tip_hash(), state_.tip_height(), state_.total_supply()};
  update.treasury = &state_.treasury();
  for (const uint256& hash : unsaved_) {
    if (const BlockIndex* entry = tree_.find(hash)) {
      update.changed.push_back(entry);
    }
  }
  for (const uint256& hash : dropped_) {
    if (tree_.find(hash) == nullptr) {
      update.dropped.push_back(hash);
    }
  }
  if (!database_.write(update, tree_.all())) {
    return false;
  }
  unsaved_.clear();
  dropped_.clear();
  save_noted_ = false;
  return true;
}

bool Blockchain::save_treasury_state() {
  const MutexLock lock(mutex_);
  return !broken_ && database_.write_treasury(state_.treasury());
}

bool Blockchain::load_state() {
  const MutexLock lock(mutex_);
  StateDatabase::Content content;
  if (database_.read(content) != StateDatabase::ReadResult::READ) {
    return false;
  }
  for (const uint256& hash : tree_.active()) {
    unsaved_.insert(hash);
    content.index.insert_or_assign(hash, *tree_.find(hash));
  }
  BlockTree loaded;
  for (const uint256& hash : loaded.assign(content.index)) {
    dropped_.insert(hash);
  }
  loaded.set_active(tree_.active());
  loaded.mark_bad(verdicts_);
  tree_ = std::move(loaded);
  std::erase_if(dropped_, [this](const uint256& hash) REQUIRES(mutex_) { return tree_.find(hash) != nullptr; });
  std::erase_if(unsaved_, [this](const uint256& hash) REQUIRES(mutex_) { return tree_.find(hash) == nullptr; });
  count_old_forks();
  return true;
}

bool Blockchain::load_treasury_state() {
  const MutexLock lock(mutex_);
  StateDatabase::Content content;
  if (database_.read(content) != StateDatabase::ReadResult::READ || content.tip.best_hash != state_.tip_hash()) {
    return false;  // the record belongs to another tip
  }
  std::optional<TreasuryState> treasury = database_.read_treasury();
  if (!treasury) {
    return false;
  }
  treasury->distribution_interval = options_.distribution_interval;
  state_.treasury() = std::move(*treasury);
  return true;
}

void Blockchain::rebuild_derived_index_state() {
  const MutexLock lock(mutex_);
  if (!state_.empty() && tree_.find(state_.tip_hash()) != nullptr) {
    tree_.set_active(tree_.path_from_genesis(state_.tip_hash()));
  }
}

bool Blockchain::save_snapshot() {
  const MutexLock lock(mutex_);
  return write_snapshot();
}

bool Blockchain::write_snapshot() {
  // The database names the tip before a snapshot of it exists.
  if (!write_state()) {
    return false;
  }
  const Bytes bytes = state_.to_snapshot();
  const std::string path = directory_ + "/" + kSnapshotFile;
  if (!replace_file(path, bytes)) {
    console::error_line("[Blockchain] WARNING: Failed to write " + path);
    return false;
  }
  console::write_out("[Blockchain] Snapshot saved at height " + std::to_string(state_.tip_height()) + " (" +
                     std::to_string(bytes.size() / kBytesPerKilobyte) + " KB)\n");
  return true;
}

Bytes Blockchain::get_snapshot_bytes() const {
  const MutexLock lock(mutex_);
  return state_.to_snapshot();
}

}  // namespace norvel
