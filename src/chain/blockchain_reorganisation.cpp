// The members of Blockchain that take blocks back and switch branches.

#include <fcntl.h>

#include <chrono>
#include <list>

#include "chain/block_rules.h"
#include "chain/blockchain.h"
#include "core/console.h"

namespace norvel {

namespace {

constexpr uint64_t kDepthLineIntervalSeconds = 60;

constexpr std::chrono::seconds kProgressInterval{10};

constexpr int kRestoreAttempts = 3;

std::list<PoolEvent> make_events(const std::vector<uint256>& connected, const std::vector<uint256>& left) {
  std::list<PoolEvent> events;
  for (const uint256& hash : connected) {
    events.push_back({PoolEvent::Kind::BLOCK_CONNECTED, hash, nullptr});
  }
  for (const uint256& hash : left) {
    events.push_back({PoolEvent::Kind::BLOCK_DISCONNECTED, hash, nullptr});
  }
  events.emplace_back();
  return events;
}

}  // namespace

bool Blockchain::attempt_reorg(const uint256& tip_hash, std::string& error) {
  bool done = false;
  try {
    const MutexLock lock(mutex_);
    if (broken_) {
      error = "Chain state is lost, restart the node to rebuild it from disk";
    } else if (const auto failure = reorganise(tip_hash)) {
      error = failure->reason;
    } else {
      done = true;
    }
    try_save_state();
  } catch (const std::exception& failure) {
    error = failure.what();
  }
  drain_events();
  return done;
}

std::optional<Blockchain::Failure> Blockchain::reorganise(uint256 tip_hash) {
  const auto path = tree_.get_chain_path(tip_hash);
  if (!path) {
    return Failure{"candidate tip has a broken ancestry"};
  }
  if (path->empty()) {
    return Failure{"candidate tip is on the active chain"};
  }
  const uint32_t fork_height = tree_.find(path->front())->height - 1;
  const uint32_t depth = state_.tip_height() - fork_height;
  if (depth > UndoJournal::kDepth) {
    const std::string reason =
        "reorg depth " + std::to_string(depth) + " exceeds maximum of " + std::to_string(UndoJournal::kDepth);
    refuse_for_depth(tip_hash, reason);
    return Failure{reason};
  }
  console::write_out("[Blockchain] REORG: fork at height " + std::to_string(fork_height) + ", disconnecting " +
                     std::to_string(depth) + " block(s), connecting " + std::to_string(path->size()) + " block(s)\n");

  const std::vector<uint256> left(tree_.active().begin() + fork_height + 1, tree_.active().end());
  if (auto failure = check_readable(left)) {
    return failure;
  }
  std::list<PoolEvent> events = sink_ == nullptr ? std::list<PoolEvent>() : make_events(*path, left);
  journal_.keep_all(true);
  const std::optional<Failure> failure = switch_to(*path, fork_height);
  const std::optional<Failure> second = failure ? switch_back(left, fork_height) : std::nullopt;
  journal_.keep_all(false);
  if (!failure) {
    events_.push(std::move(events));
    save_after_switch();
    return std::nullopt;
  }
  if (!second) {
    const std::string refusal = "candidate branch failed validation: " + failure->reason;
    note_failure(*failure, refusal);
    return Failure{refusal, failure->fate, failure->block, failure->unreadable};
  }
  declare_broken();
  const std::string reason = "candidate branch invalid (" + failure->reason +
                             ") AND failed to restore previous chain: " + second->reason +
                             " — restart the node to rebuild state from disk";
  console::error_line("[Blockchain] CRITICAL: " + reason);
  return Failure{reason};
}

// The chain can only be brought back if the blocks that leave it can be read.
std::optional<Blockchain::Failure> Blockchain::check_readable(const std::vector<uint256>& hashes) {
  for (const uint256& hash : hashes) {
    if (stop_) {
      return Failure{"Node is stopping"};
    }
    if (!load_block(hash)) {
      return Failure{"block " + hash.to_hex() + " of the active chain cannot be read"};
    }
  }
  return std::nullopt;
}

// On failure the state stands at some block of either branch.
std::optional<Blockchain::Failure> Blockchain::switch_to(const std::vector<uint256>& path, uint32_t fork_height) {
  try {
    auto failure = go_back_to(fork_height);
    if (!failure) {
      failure = replay_chain(path, 0);
    }
    if (failure) {
      console::error_line("[Blockchain] Reorg candidate invalid: " + failure->reason);
    }
    return failure;
  } catch (const std::exception& exception) {
    return Failure{exception.what()};
  }
}

// Tried again where memory ran out: whatever was done stays done.
std::optional<Blockchain::Failure> Blockchain::switch_back(const std::vector<uint256>& left, uint32_t fork_height) {
  std::optional<Failure> failure;
  for (int attempt = 0; attempt < kRestoreAttempts; ++attempt) {
    try {
      failure = restore_chain(fork_height, left);
      if (!failure) {
        return std::nullopt;
      }
    } catch (const std::exception& exception) {
      failure = Failure{exception.what()};
    }
  }
  return failure;
}

// Remembers a bad block, and forgets one that is not on disk, so that it is
// fetched again.
void Blockchain::note_failure(const Failure& failure, const std::string& refusal) {
  if (failure.fate == BlockFate::INVALID) {
    // Later children are refused with the whole text that the branch got.
    tree_.mark_bad(failure.block, verdicts_.remember(failure.block, kReorgFailed + refusal));
  } else if (failure.unreadable) {
    drop_branch(failure.block);
    count_old_forks();
  }
}

void Blockchain::save_after_switch() {
  try {
    write_snapshot();
  } catch (const std::exception&) {
    warn_not_saved("a reorganisation");
  }
}

void Blockchain::print_switch(const BlockIndex& tip) noexcept {
  try {
    console::write_out("[Blockchain] REORG complete. New best chain: height " + std::to_string(tip.height) + " tip " +
                       tip.hash.to_hex() + "\n");
  } catch (const std::exception&) {
    // No memory for the line; the switch is done all the same.
  }
}

// Takes the tip back to `height`, a height of the active chain.
std::optional<Blockchain::Failure> Blockchain::go_back_to(uint32_t height) {
  bool has_adopted = false;
  while (state_.tip_height() > height) {
    if (const auto undo = read_tip_undo()) {
      disconnect_tip(*undo);
    } else if (has_adopted) {
      return replay_down_to(height);
    } else {
      adopt_undo_records();  // the file may hold older ones than memory
      has_adopted = true;
    }
  }
  return std::nullopt;
}

// What takes the tip back, where the journal in memory has it; else the journal is empty.
std::optional<BlockUndo> Blockchain::read_tip_undo() {
  if (const auto record = journal_.tip_record(state_.tip_hash())) {
    try {
      return BlockUndo::deserialize(*record);
    } catch (const std::runtime_error&) {
      // Replay does without it.
    }
  }
  journal_.clear();
  return std::nullopt;
}

// False when a replay was broken off between the state and the hashes by height.
bool Blockchain::is_state_whole() const {
  return !state_.empty() && tree_.active().size() == size_t{state_.tip_height()} + 1 &&
         tree_.active().back() == state_.tip_hash();
}

void Blockchain::disconnect_tip(const BlockUndo& undo) {
  state_.disconnect(undo);
  journal_.pop();
  tree_.pop_active();
  ++change_number_;
}

// As go_back_to(), without undo records: from the snapshot or the genesis block
// up. On failure the state is as it was, and the failure says so, or lost where
// that fails too.
std::optional<Blockchain::Failure> Blockchain::replay_down_to(uint32_t height) {
  const Bytes backup = state_.to_snapshot();
  std::vector<uint256> active = tree_.active();
  const std::vector<uint256> path(active.begin(), active.begin() + height + 1);
  std::optional<Failure> failure;
  try {
    failure = replay_from_best_start(path);
    if (!failure) {
      adopt_undo_records();
      return std::nullopt;
    }
  } catch (const std::exception& exception) {
    failure = Failure{exception.what()};
  }
  SnapshotData data;
  std::string reason;
  if (!decode_snapshot(backup, data, reason)) {
    return Failure{"state could not be restored: " + reason};
  }
  state_.restore(std::move(data));
  tree_.set_active(std::move(active));
  journal_.clear();
  ++change_number_;
  adopt_undo_records();
  Failure kept{std::move(failure->reason)};
  kept.stands_as_before = true;
  return kept;
}

// Connects the blocks of `hashes` from index `first` on, with every check but
// that of the clock. On failure those before the failing one stay connected.
std::optional<Blockchain::Failure> Blockchain::replay_chain(const std::vector<uint256>& hashes, size_t first) {
  auto next_line = std::chrono::steady_clock::now() + kProgressInterval;
  for (size_t i = first; i < hashes.size(); ++i) {
    if (auto failure = replay_block(hashes[i])) {
      return failure;
    }
    if (const auto now = std::chrono::steady_clock::now(); now >= next_line) {
      next_line = now + kProgressInterval;
      console::write_out("[Blockchain] Replaying blocks: height " + std::to_string(state_.tip_height()) + ", " +
                         std::to_string(i + 1 - first) + " of " + std::to_string(hashes.size() - first) + " (" +
                         std::to_string((i + 1 - first) * 100 / (hashes.size() - first)) + "%)\n");
    }
  }
  return std::nullopt;
}

std::optional<Blockchain::Failure> Blockchain::replay_block(const uint256& hash) {
  if (stop_) {
    return Failure{"Node is stopping"};
  }
  const BlockIndex& entry = *tree_.find(hash);
  bool has_failed = false;
  const std::optional<Block> block = load_block(hash, &has_failed);
  std::string reason;
  const bool is_as_indexed =
      block && block->height == entry.height && block->header.prev_hash == entry.prev_hash &&
      block->header.timestamp == entry.timestamp && block->header.bits == entry.bits &&
      (entry.height == 0 || has_bits(*block, *tree_.find(entry.prev_hash), consensus::RetargetReport::SILENT, reason));
  if (!is_as_indexed) {
    return Failure{"block " + hash.to_hex() + " at height " + std::to_string(entry.height) + " cannot be read",
                   BlockFate::INCIDENT, hash, !has_failed};
  }
  std::optional<Failure> failure;
  if (!validate_context_free(*block, ClockRule::SKIP, reason)) {
    failure = Failure{reason, BlockFate::INVALID};
  } else {
    failure = check_connectable(*block);
  }
  if (failure) {
    failure->block = hash;
    return failure;
  }
  connect_block_state(*block, hash);
  return std::nullopt;
}

// Brings back the chain that a failed reorganisation left: `hashes` above
// `fork_height`. They were valid before, so nothing is checked again.
std::optional<Blockchain::Failure> Blockchain::restore_chain(uint32_t fork_height, const std::vector<uint256>& hashes) {
  if (!is_state_whole() || state_.tip_height() < fork_height) {
    return Failure{"state was lost"};
  }
  uint32_t height = fork_height;
  while (height < state_.tip_height() && height - fork_height < hashes.size() &&
         tree_.active()[height + 1] == hashes[height - fork_height]) {
    ++height;
  }
  if (auto failure = go_back_to(height)) {
    return failure;
  }
  for (size_t i = height - fork_height; i < hashes.size(); ++i) {
    const std::optional<Block> block = load_block(hashes[i]);
    if (!block) {
      return Failure{"block " + hashes[i].to_hex() + " cannot be read"};
    }
    connect_block_state(*block, hashes[i]);
  }
  return std::nullopt;
}

// Offers the branches with more work than the active chain, best first, until
// one holds or none is left.
void Blockchain::try_heaviest_branch() {
  std::set<uint256> tried;
  while (!broken_) {
    const uint256 best_work = tree_.find(state_.tip_hash())->chain_work;
    const BlockIndex* found = tree_.heaviest(std::nullopt, [&](const BlockIndex& entry) REQUIRES(mutex_) {
      return best_work < entry.chain_work && !tried.contains(entry.hash) &&
             state_.tip_height() - tree_.fork_height(entry.hash) <= UndoJournal::kDepth;
    });
    if (found == nullptr) {
      return;
    }
    const BlockIndex candidate = *found;  // its entry may be dropped
    tried.insert(candidate.hash);
    const std::optional<Failure> failure = reorganise(candidate.hash);
    if (!failure) {
      print_switch(candidate);
      return;
    }
    if (failure->fate != BlockFate::INVALID && !failure->unreadable) {
      return;
    }
  }
}

void Blockchain::refuse_for_depth(const uint256& tip_hash, const std::string& reason) {
  refused_for_depth_ = tip_hash;
  const auto since_start = std::chrono::steady_clock::now().time_since_epoch();
  const auto now_s = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(since_start).count());
  if (!depth_line_time_s_ || now_s - *depth_line_time_s_ >= kDepthLineIntervalSeconds) {
    depth_line_time_s_ = now_s;
    console::error_line("[Blockchain] Heavier branch refused: " + reason + " (tip " + tip_hash.to_hex() + ")");
  }
}

// The state is lost: nothing is made from it any more, and the next start
// rebuilds it from the block files. Needs no memory.
void Blockchain::declare_broken() {
  broken_ = true;
  if (!mark_rebuild()) {
    console::error_line("[Blockchain] ERROR: Cannot write the file rebuild-needed");
  }
}

bool Blockchain::mark_rebuild() const {
  return open_file(rebuild_marker_, O_WRONLY | O_CREAT).is_open() && sync_directory(directory_);
}

}  // namespace norvel
