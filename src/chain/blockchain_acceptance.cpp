// The members of Blockchain that take a block in.

#include <chrono>
#include <cstdio>
#include <deque>
#include <list>

#include "chain/block_rules.h"
#include "chain/blockchain.h"
#include "consensus/difficulty.h"
#include "core/console.h"
#include "script/interpreter.h"

namespace norvel {

namespace {

// Every so many blocks of the active chain a snapshot is written.
constexpr uint32_t kSnapshotInterval = 500;

// Digits of a hash that a log line shows.
constexpr size_t kHashDigitsShown = 16;

std::string to_hex(uint32_t bits) {
  char text[9];
  std::snprintf(text, sizeof(text), "%x", bits);
  return text;
}

// What a step threw, as far as memory lasts for a text.
void set_error(std::string& error, const std::exception& failure) noexcept {
  try {
    error = "Block could not be processed: ";
    error += failure.what();
  } catch (const std::exception&) {
    error.clear();
  }
}

uint64_t steady_seconds() {
  const auto since_start = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(since_start).count());
}

}  // namespace

bool Blockchain::add_block(const Block& block, std::string& error) {
  BlockReport report;
  return add_block(block, error, report);
}

bool Blockchain::add_block(const Block& block, std::string& error, BlockReport& report) {
  report = BlockReport();
  bool accepted = false;
  try {
    const MutexLock lock(mutex_);
    accepted = accept(block, error, report);
  } catch (const std::exception& failure) {
    report.fate = BlockFate::INCIDENT;
    set_error(error, failure);
  }
  drain_events();
  return accepted;
}

bool Blockchain::accept(const Block& block, std::string& error, BlockReport& report) {
  const bool accepted = accept_one(block, error, report);
  const uint256 hash = block.get_hash();
  // A block stored on a side chain is a parent too when its branch failed to become the active one.
  if (report.fate == BlockFate::KNOWN || tree_.find(hash) == nullptr) {
    return accepted;
  }
  try {
    connect_waiting(hash, report);
  } catch (const std::exception&) {
    // Out of memory: those that waited are fetched again.
  }
  settle_report(hash, report);
  return accepted || report.fate == BlockFate::CONNECTED;
}

// The branch of the block may have become the active one with a block that waited.
void Blockchain::settle_report(const uint256& hash, BlockReport& report) {
  std::erase_if(report.from_orphans,
                [this](const uint256& waited) REQUIRES(mutex_) { return !tree_.is_active(waited); });
  if (tree_.is_active(hash)) {
    report.fate = BlockFate::CONNECTED;
  } else if (report.fate == BlockFate::CONNECTED) {
    report.fate = BlockFate::SIDE_CHAIN;
  }
}

bool Blockchain::accept_one(const Block& block, std::string& error, BlockReport& report) {
  BlockFate& fate = report.fate;
  fate = BlockFate::INCIDENT;
  if (broken_) {
    error = "Chain state is lost, restart the node to rebuild it from disk";
    return false;
  }
  if (stop_) {
    error = "Node is stopping";
    return false;
  }
  const uint256 hash = block.get_hash();
  if (tree_.find(hash) != nullptr) {
    fate = BlockFate::KNOWN;
    error = "Block already exists";
    return false;
  }
  if (block.height == 0) {
    // A wrong height field under a genuine header is not its maker's doing.
    fate = block.header.prev_hash.is_zero() ? BlockFate::INVALID : BlockFate::INCIDENT;
    error = "Competing genesis block rejected";
    return false;
  }
  const BlockIndex* parent = tree_.find(block.header.prev_hash);
  if (parent == nullptr) {
    error = "orphan: parent block not known yet (height " + std::to_string(block.height) + ")";
    report.parked = park_orphan(block);
    fate = BlockFate::ORPHAN;
    return false;
  }
  if (auto failure = check_child(block, *parent)) {
    fate = failure->fate;
    error = std::move(failure->reason);
    return false;
  }
  const BlockIndex entry = BlockTree::make_entry(block, parent);
  fate = entry.prev_hash == state_.tip_hash() ? extend_tip(block, entry, error) : store_side_chain(block, entry, error);
  return fate == BlockFate::CONNECTED || fate == BlockFate::SIDE_CHAIN;
}

bool Blockchain::park_orphan(const Block& block) {
  std::string ignored;
  const uint64_t now_s = steady_seconds();
  orphans_.remove_expired(now_s);
  // A refused parent never comes, so its children need not wait for it.
  return !verdicts_.find(block.header.prev_hash) && difficulty::verify_bits(block.header.bits) &&
         validate_context_free(block, ClockRule::APPLY, ignored) && orphans_.park(block, now_s);
}

// What must hold before anything about the block is remembered or written.
std::optional<Blockchain::Failure> Blockchain::check_child(const Block& block, const BlockIndex& parent) {
  if (block.height != uint64_t{parent.height} + 1) {
    return Failure{"Invalid block height (parent at " + std::to_string(parent.height) + ", block claims " +
                       std::to_string(block.height),
                   BlockFate::INCIDENT};
  }
  std::string reason;
  if (!validate_context_free(block, ClockRule::APPLY, reason)) {
    std::string ignored;
    const bool only_early = validate_context_free(block, ClockRule::SKIP, ignored);
    return Failure{reason, only_early ? BlockFate::INCIDENT : BlockFate::INVALID};
  }
  // Bits outside the allowed range cost their maker nothing, so they do not fill the log either.
  const auto report =
      difficulty::verify_bits(block.header.bits) ? consensus::RetargetReport::PRINT : consensus::RetargetReport::SILENT;
  if (!has_bits(block, parent, report, reason)) {
    return Failure{reason, BlockFate::INVALID};
  }
  if (const auto verdict = verdicts_.find(block.get_hash())) {
    return Failure{verdict->reason, BlockFate::INVALID};
  }
  if (const auto verdict = tree_.verdict_on(parent.hash)) {
    verdicts_.inherit(block.get_hash(), verdict);
    return Failure{verdict->reason, BlockFate::INVALID};
  }
  return std::nullopt;
}

bool Blockchain::has_bits(const Block& block, const BlockIndex& parent, consensus::RetargetReport report,
                          std::string& error) {
  const uint32_t expected = tree_.expected_child_bits(parent.hash, report);
  if (block.header.bits == expected) {
    return true;
  }
  error = "Incorrect difficulty bits (expected 0x" + to_hex(expected) + ", got 0x" + to_hex(block.header.bits);
  return false;
}

// Everything about the block that depends on the state, which stands at its parent.
std::optional<Blockchain::Failure> Blockchain::check_connectable(const Block& block) {
  const UTXOSet& utxos = state_.utxos();
  const uint64_t memory_faults = ScriptInterpreter::memory_fault_count();
  std::string reason;
  if (!check_spends(block, reason)) {
    return Failure{reason, BlockFate::INVALID};
  }
  if (verify_block_inputs(block, utxos, verified_, stop_) == InputCheck::STOPPED) {
    return Failure{"Node is stopping", BlockFate::INCIDENT};
  }
  const InputVerifier verify = [this](const Transaction& tx, size_t input_index, const TxOut& spent) {
    return verified_.verify(tx, input_index, spent);
  };
  if (!block.has_valid_inputs(reason, utxos, verify) ||
      !norvel::validate_block_transactions(block, utxos, state_.treasury(), verified_, reason)) {
    const bool is_verdict = ScriptInterpreter::memory_fault_count() == memory_faults;
    return Failure{reason, is_verdict ? BlockFate::INVALID : BlockFate::INCIDENT};
  }
  return std::nullopt;
}

BlockFate Blockchain::extend_tip(const Block& block, const BlockIndex& entry, std::string& error) {
  if (auto failure = check_connectable(block)) {
    error = std::move(failure->reason);
    if (failure->fate == BlockFate::INVALID) {
      verdicts_.remember(entry.hash, error);
    }
    return failure->fate;
  }
  if (!append_block(block)) {
    error = "Failed to save block to disk";
    return BlockFate::INCIDENT;
  }
  std::list<PoolEvent> events;
  if (sink_ != nullptr) {
    events.push_back({PoolEvent::Kind::BLOCK_CONNECTED, entry.hash, std::make_shared<const Block>(block)});
    events.emplace_back();
  }
  insert_entry(entry);
  try {
    connect_block_state(block, entry.hash);
  } catch (...) {
    tree_.erase_leaf(entry.hash);
    unsaved_.erase(entry.hash);
    throw;
  }
  // The block is part of the chain from here on, whatever else fails.
  events_.push(std::move(events));
  save_after_block(entry.height);
  return BlockFate::CONNECTED;
}

void Blockchain::save_after_block(uint32_t height) {
  if (!try_save_state()) {
    warn_not_saved("adding block");
  }
  if (height % kSnapshotInterval == 0) {
    try {
      write_snapshot();
    } catch (const std::exception&) {
      warn_not_saved("adding block");
    }
  }
}

// Applies a block whose entry is in the tree. On an exception nothing has changed.
void Blockchain::connect_block_state(const Block& block, const uint256& hash) {
  ++change_number_;
  const BlockUndo undo = state_.connect(block, hash);
  bool is_active = false;
  try {
    tree_.push_active(hash);
    is_active = true;
    journal_.push(block.height, hash, undo.serialize());
  } catch (...) {
    if (is_active) {
      tree_.pop_active();
    }
    state_.disconnect(undo);
    throw;
  }
}

// All or nothing: an entry that is not to be saved would keep its block out.
void Blockchain::insert_entry(const BlockIndex& entry) {
  unsaved_.insert(entry.hash);
  try {
    tree_.insert(entry);
  } catch (...) {
    unsaved_.erase(entry.hash);
    throw;
  }
  dropped_.erase(entry.hash);
}

BlockFate Blockchain::store_side_chain(const Block& block, const BlockIndex& entry, std::string& error) {
  const uint32_t fork_depth = state_.tip_height() - tree_.fork_height(entry.prev_hash);
  const bool is_old_fork = fork_depth > UndoJournal::kDepth;
  const uint64_t block_bytes = block.size();
  if (is_old_fork && (old_fork_count_ >= options_.old_fork_blocks_max ||
                      old_fork_bytes_ + block_bytes > options_.old_fork_bytes_max)) {
    error = "Side-chain block not stored: room for old forks is used up (fork " + std::to_string(fork_depth) +
            " blocks below the tip)";
    return BlockFate::INCIDENT;
  }
  const std::string line = "[Blockchain] Side-chain block accepted at height " + std::to_string(entry.height) +
                           " (hash " + entry.hash.to_hex().substr(0, kHashDigitsShown) + "...)\n";
  if (!append_block(block)) {
    error = "Failed to save block to disk";
    return BlockFate::INCIDENT;
  }
  insert_entry(entry);
  if (is_old_fork) {
    ++old_fork_count_;
    old_fork_bytes_ += block_bytes;
  }
  console::write_out(line);
  if (tree_.find(state_.tip_hash())->chain_work < entry.chain_work) {
    return switch_branch(entry, error);
  }
  try_save_state();
  return BlockFate::SIDE_CHAIN;
}

// Makes the branch of a stored block, which has more work than the active chain, the active one.
BlockFate Blockchain::switch_branch(const BlockIndex& entry, std::string& error) {
  const std::optional<Failure> failure = reorganise(entry.hash);
  if (!failure) {
    print_switch(entry);
    try_save_state();
    return BlockFate::CONNECTED;
  }
  error = kReorgFailed + failure->reason;
  if (failure->fate == BlockFate::INVALID || failure->unreadable) {
    try_heaviest_branch();
  }
  try_save_state();
  return failure->fate;
}

// In a loop, not by recursion: a chain of parked blocks may be as long as the pool.
// Reports all that are stored now, lowest first.
void Blockchain::connect_waiting(const uint256& parent_hash, BlockReport& report) {
  std::deque<uint256> parents = {parent_hash};
  for (; !parents.empty(); parents.pop_front()) {
    while (const std::optional<Block> child = orphans_.take_child(parents.front())) {
      std::string ignored;
      BlockReport of_child;
      try {
        accept_one(*child, ignored, of_child);
      } catch (const std::exception&) {
        // Out of memory: the block is fetched again.
      }
      if (of_child.fate != BlockFate::KNOWN && tree_.find(child->get_hash()) != nullptr) {
        report.from_orphans.push_back(child->get_hash());
        parents.push_back(child->get_hash());
      }
    }
  }
}

void Blockchain::process_orphans(const uint256& parent_hash) {
  try {
    const MutexLock lock(mutex_);
    BlockReport ignored;
    connect_waiting(parent_hash, ignored);
  } catch (const std::exception&) {
    // Out of memory: those that waited are fetched again.
  }
  drain_events();
}

bool Blockchain::validate_block_context_free(const Block& block, std::string& error) const {
  return validate_context_free(block, ClockRule::APPLY, error);
}

bool Blockchain::validate_block_transactions(const Block& block, std::string& error) const {
  const MutexLock lock(mutex_);
  return norvel::validate_block_transactions(block, state_.utxos(), state_.treasury(), verified_, error);
}

uint32_t Blockchain::expected_bits_for_child_of(const uint256& parent_hash) const {
  const MutexLock lock(mutex_);
  return tree_.expected_child_bits(parent_hash);
}

}  // namespace norvel
