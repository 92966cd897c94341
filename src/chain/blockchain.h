// The chain of blocks: takes blocks from any source, keeps side chains and
// orphans, switches to the branch with the most work, and keeps blocks and state
// on disk so that it comes back to the same state after any stop.
//
// A facade: the files, the database, the snapshot, the rules and the state are
// parts of their own, and this class decides what happens in which order.
//
// Disk, in the data directory: blkNNNNN.dat (all blocks), chainstate/ (index,
// tip, treasury), snapshot.dat (the state at some block of the active chain),
// undo.dat (how to take the newest blocks back), .lock, and rebuild-needed when
// the state was lost. Blocks are on disk before the database names them, and the
// database names a tip before a snapshot of it exists.
//
// Errors: refusals are a false result with a reason; add_block() and
// attempt_reorg() never throw, other members at most std::bad_alloc. Faults of
// this machine (disk, memory, a stop) are reported in the same way and never held
// against a block.
//
// Threads: safe from any thread after initialize(). One mutex over everything
// but the UTXO set and the cache of verified inputs, which have their own. A
// member holds it for its whole run, disk included.

#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "chain/block_files.h"
#include "chain/block_index.h"
#include "chain/block_rules.h"
#include "chain/block_tree.h"
#include "chain/chain_state.h"
#include "chain/orphan_pool.h"
#include "chain/pool_events.h"
#include "chain/state_database.h"
#include "chain/undo_journal.h"
#include "chain/utxo_set.h"
#include "chain/verified_inputs.h"
#include "core/block.h"
#include "core/file_io.h"
#include "core/sync.h"

namespace norvel {

class PoolSink;

inline constexpr const char kSnapshotFile[] = "snapshot.dat";

// Its presence makes the next start rebuild the state from the block files.
inline constexpr const char kRebuildMarker[] = "rebuild-needed";

struct ChainOptions {
  uint32_t distribution_interval = TreasuryState().distribution_interval;
  size_t verified_input_count = VerifiedInputs::kEntryCount;
  bool rebuild = false;  // index and state from the block files alone

  // Side-chain blocks whose fork lies deeper than a reorganisation can reach are
  // stored up to these limits: they cost only their proof of work.
  uint64_t old_fork_blocks_max = 100'000;
  uint64_t old_fork_bytes_max = uint64_t{1} << 30;
};

// What became of an offered block.
enum class BlockFate {
  CONNECTED,   // on the active chain now
  SIDE_CHAIN,  // stored, its branch has not the most work
  KNOWN,
  ORPHAN,    // parent unknown; parked or not
  INVALID,   // breaks a rule; whoever sent it is to blame
  INCIDENT,  // clock, depth limit, disk, memory, stop: nobody's fault
};

// As of the end of add_block(): what waited for the block may have moved the chain.
struct BlockReport {
  BlockFate fate = BlockFate::INCIDENT;
  bool parked = false;  // of an ORPHAN: the chain keeps it until its parent comes
  // Blocks that waited for this one and are on the active chain now, lowest first.
  std::vector<uint256> from_orphans;
};

// What the status line of a node shows.
struct ChainStatus {
  uint256 best_hash;
  uint32_t best_height = 0;
  bool broken = false;                              // the state is lost; rebuild-needed was written
  bool rebuilding = false;                          // a rebuild, asked for by option or by that file, is not done
  bool storing_fails = false;                       // the last block could not be appended to its file
  std::optional<uint256> branch_refused_for_depth;  // tip of the last one seen, while it has more work
};

// What a template for the next block is built on, all of one moment.
struct TemplateBase {
  uint256 best_hash;
  uint32_t next_height = 0;
  uint32_t next_bits = 0;
  uint64_t prev_time = 0;                   // of the best block, seconds since the Unix epoch
  int64_t total_supply = 0;                 // base units
  uint64_t change_number = 0;               // see Blockchain::get_change_number()
  std::optional<Transaction> distribution;  // stands at index 1; may have no outputs
  bool distribution_required = false;       // exactly when there is one
  bool broken = false;                      // the state is lost: no template may be made
};

class Blockchain {
 public:
  // Postpones save_state() while any of them lives, on any thread; the last one
  // to end runs it once. Holds no lock and no handle.
  class WriteScope {
   public:
    explicit WriteScope(Blockchain& chain);
    ~WriteScope();
    WriteScope(const WriteScope&) = delete;
    WriteScope& operator=(const WriteScope&) = delete;

   private:
    Blockchain& chain_;
  };

  explicit Blockchain(std::string data_directory, ChainOptions options = {});
  ~Blockchain();
  Blockchain(const Blockchain&) = delete;
  Blockchain& operator=(const Blockchain&) = delete;

  // To be called once. Opens the directory, creating it (mode 0700) and the genesis block when it
  // is new, and comes back to the state that was. False when another process
  // uses the directory, a block file is missing, the disk fails, or a stop was
  // requested; `error` then says which.
  bool initialize(std::string& error) EXCLUDES(mutex_);

  // Before other threads use the chain; the sink outlives it.
  void set_pool_sink(PoolSink* sink) { sink_ = sink; }

  // Ends long work between two blocks or inputs; everything is refused after it.
  // Safe from any thread, and from a signal handler.
  void request_stop() { stop_ = true; }

  // ---- Acceptance

  // Offers a block. On false, `error` holds the reason. Events for the pool are
  // applied when it returns; where memory ran out, by a later call.
  bool add_block(const Block& block, std::string& error) EXCLUDES(mutex_);
  bool add_block(const Block& block, std::string& error, BlockReport& report) EXCLUDES(mutex_);

  bool validate_block_context_free(const Block& block, std::string& error) const;
  bool validate_block_transactions(const Block& block, std::string& error) const EXCLUDES(mutex_);

  // `spent` holds the outputs that the inputs name.
  bool validate_transaction(const Transaction& tx, const std::map<OutPoint, TxOut>& spent, std::string& reason) const;

  // Makes `tip_hash` the tip, or leaves the chain as it was.
  bool attempt_reorg(const uint256& tip_hash, std::string& error) EXCLUDES(mutex_);

  // Offers the parked descendants of a block.
  void process_orphans(const uint256& parent_hash) EXCLUDES(mutex_);

  // The bits that a child of this block must carry: along the parent's own
  // branch; the easiest for an unknown parent. Computed once for each parent.
  uint32_t expected_bits_for_child_of(const uint256& parent_hash) const EXCLUDES(mutex_);

  // ---- Storage

  bool save_block_to_disk(const Block& block) EXCLUDES(mutex_);
  std::optional<Block> load_block_from_disk(const uint256& hash) const EXCLUDES(mutex_);
  std::optional<Block> load_block_from_file(const std::string& path, size_t record_index) const;

  // Writes what changed in index, tip and treasury; only notes it inside a write
  // scope. False when the disk refused; it is tried again by the next call.
  bool save_state() EXCLUDES(mutex_);
  // The same at once, scope or not.
  bool flush_state() EXCLUDES(mutex_);
  bool save_treasury_state() EXCLUDES(mutex_);

  // Replaces the index by the database's; what the active chain stands on stays.
  bool load_state() EXCLUDES(mutex_);
  bool load_treasury_state() EXCLUDES(mutex_);

  // Recomputes the hashes by height from index and tip.
  void rebuild_derived_index_state() EXCLUDES(mutex_);

  bool save_snapshot() EXCLUDES(mutex_);

  // ---- Treasury

  bool requires_distribution(uint32_t height) const EXCLUDES(mutex_);

  // The transaction that a block at `height` must carry, when it has outputs.
  // Where a distribution is required and none is returned, the block carries
  // treasury::create_distribution_tx() without outputs: see
  // required_distribution_tx().
  std::optional<Transaction> build_distribution_tx(uint32_t height) const EXCLUDES(mutex_);

  // What a template for `height` puts at index 1, outputs or not.
  std::optional<Transaction> required_distribution_tx(uint32_t height) const EXCLUDES(mutex_);

  int64_t get_treasury_balance() const EXCLUDES(mutex_);

  // To be read only while no other thread adds blocks.
  const TreasuryState& get_treasury_state() const NO_THREAD_SAFETY_ANALYSIS { return state_.treasury(); }

  // ---- Queries

  uint256 get_best_hash() const EXCLUDES(mutex_);
  uint32_t get_best_height() const EXCLUDES(mutex_);
  int64_t get_total_supply() const EXCLUDES(mutex_);
  ChainStatus get_status() const EXCLUDES(mutex_);

  // All that a template needs, of one state of the chain: the result, and in
  // `outputs` (replaced) every output of the UTXO set that an input of a candidate
  // names. What a candidate spends of another candidate is not among them.
  // O(inputs * log set).
  TemplateBase read_template_base(const std::vector<Transaction>& candidates, std::map<OutPoint, TxOut>& outputs) const
      EXCLUDES(mutex_);

  bool has_block(const uint256& hash) const EXCLUDES(mutex_);
  std::optional<BlockIndex> get_block_index(const uint256& hash) const EXCLUDES(mutex_);
  std::optional<uint256> get_block_hash(uint32_t height) const EXCLUDES(mutex_);

  // Height of the last block of the active chain that `hash` descends from, or is.
  std::optional<uint32_t> get_fork_height(const uint256& hash) const EXCLUDES(mutex_);

  std::optional<uint32_t> get_transaction_height(const uint256& txid) const EXCLUDES(mutex_);
  std::optional<Transaction> get_transaction(const uint256& txid) const EXCLUDES(mutex_);
  std::vector<uint256> get_address_transactions(const Bytes& pubkey_hash) const EXCLUDES(mutex_);

  // How many these are, and the last `count_max` of them, newest first.
  size_t count_address_transactions(const Bytes& pubkey_hash) const EXCLUDES(mutex_);
  std::vector<uint256> get_newest_address_transactions(const Bytes& pubkey_hash, size_t count_max) const
      EXCLUDES(mutex_);

  std::optional<Bytes> get_revealed_key(const std::string& address) const EXCLUDES(mutex_);

  // Grows with every block connected or taken back, and with every attempt at it:
  // the unspent outputs may have been others for a moment.
  uint64_t get_change_number() const EXCLUDES(mutex_);

  // Has a lock of its own; between two blocks only it is consistent.
  const UTXOSet& get_utxo_set() const NO_THREAD_SAFETY_ANALYSIS { return state_.utxos(); }

  // The cache that validate_transaction() uses.
  VerifiedInputs& get_verified_inputs() const { return verified_; }

  // The snapshot bytes of the present state.
  Bytes get_snapshot_bytes() const EXCLUDES(mutex_);

 private:
  static constexpr const char kReorgFailed[] = "Reorg to side chain failed: ";

  // What a step of acceptance or reorganisation ended with.
  struct Failure {
    std::string reason;
    BlockFate fate = BlockFate::INCIDENT;  // INVALID or INCIDENT
    uint256 block = {};                    // the stored block that failed, where one did
    bool unreadable = false;               // that block is not on disk as the index says
    bool stands_as_before = false;         // the chain could not be taken back and is where it was
  };

  // ---- Acceptance (blockchain_acceptance.cpp)
  bool accept(const Block& block, std::string& error, BlockReport& report) REQUIRES(mutex_);
  bool accept_one(const Block& block, std::string& error, BlockReport& report) REQUIRES(mutex_);
  bool park_orphan(const Block& block) REQUIRES(mutex_);
  void settle_report(const uint256& hash, BlockReport& report) REQUIRES(mutex_);
  void save_after_block(uint32_t height) REQUIRES(mutex_);
  bool has_bits(const Block& block, const BlockIndex& parent, consensus::RetargetReport report, std::string& error)
      REQUIRES(mutex_);
  BlockFate extend_tip(const Block& block, const BlockIndex& entry, std::string& error) REQUIRES(mutex_);
  BlockFate store_side_chain(const Block& block, const BlockIndex& entry, std::string& error) REQUIRES(mutex_);
  BlockFate switch_branch(const BlockIndex& entry, std::string& error) REQUIRES(mutex_);
  void connect_waiting(const uint256& parent_hash, BlockReport& report) REQUIRES(mutex_);
  std::optional<Failure> check_child(const Block& block, const BlockIndex& parent) REQUIRES(mutex_);
  std::optional<Failure> check_connectable(const Block& block) REQUIRES(mutex_);
  void connect_block_state(const Block& block, const uint256& hash) REQUIRES(mutex_);
  void insert_entry(const BlockIndex& entry) REQUIRES(mutex_);

  // ---- Reorganisation (blockchain_reorganisation.cpp)
  std::optional<Failure> reorganise(uint256 tip_hash) REQUIRES(mutex_);
  std::optional<Failure> go_back_to(uint32_t height) REQUIRES(mutex_);
  std::optional<BlockUndo> read_tip_undo() REQUIRES(mutex_);
  bool is_state_whole() const REQUIRES(mutex_);
  std::optional<Failure> replay_down_to(uint32_t height) REQUIRES(mutex_);
  void disconnect_tip(const BlockUndo& undo) REQUIRES(mutex_);
  std::optional<Failure> replay_chain(const std::vector<uint256>& hashes, size_t first) REQUIRES(mutex_);
  std::optional<Failure> replay_block(const uint256& hash) REQUIRES(mutex_);
  std::optional<Failure> restore_chain(uint32_t fork_height, const std::vector<uint256>& hashes) REQUIRES(mutex_);
  std::optional<Failure> check_readable(const std::vector<uint256>& hashes) REQUIRES(mutex_);
  std::optional<Failure> switch_to(const std::vector<uint256>& path, uint32_t fork_height) REQUIRES(mutex_);
  std::optional<Failure> switch_back(const std::vector<uint256>& left, uint32_t fork_height) REQUIRES(mutex_);
  void save_after_switch() REQUIRES(mutex_);
  static void print_switch(const BlockIndex& tip) noexcept;
  void note_failure(const Failure& failure, const std::string& refusal) REQUIRES(mutex_);
  void try_heaviest_branch() REQUIRES(mutex_);
  void refuse_for_depth(const uint256& tip_hash, const std::string& reason) REQUIRES(mutex_);
  void declare_broken() REQUIRES(mutex_);
  bool mark_rebuild() const;

  // ---- Storage (blockchain_storage.cpp)
  bool write_state() REQUIRES(mutex_);
  bool write_snapshot() REQUIRES(mutex_);
  bool save_state_locked() REQUIRES(mutex_);
  bool try_save_state() noexcept REQUIRES(mutex_);
  static void warn_not_saved(const char* after) noexcept;
  bool append_block(const Block& block) REQUIRES(mutex_);
  std::optional<Block> load_block(const uint256& hash, bool* has_failed = nullptr) const REQUIRES(mutex_);

  // ---- Start-up (blockchain_start.cpp)
  bool open_directory(std::string& error) REQUIRES(mutex_);
  bool load_index(std::string& error) REQUIRES(mutex_);
  bool check_block_files(std::string& error) REQUIRES(mutex_);
  bool repair_recent_files(std::string& error) REQUIRES(mutex_);
  void add_unindexed_blocks(const std::vector<std::string>& file_names) REQUIRES(mutex_);
  bool repair_file(const std::string& file_name, std::string& error) REQUIRES(mutex_);
  bool index_stored_block(const uint256& hash, const std::string& file_name, uint32_t height) REQUIRES(mutex_);
  bool create_genesis(std::string& error) REQUIRES(mutex_);
  bool activate(std::string& error) REQUIRES(mutex_);
  std::optional<Failure> activate_branch(const uint256& tip_hash) REQUIRES(mutex_);
  std::optional<Failure> replay_from_best_start(const std::vector<uint256>& path) REQUIRES(mutex_);
  std::optional<uint256> read_snapshot_tip() const REQUIRES(mutex_);
  bool read_snapshot(SnapshotData& data, std::string& reason) const REQUIRES(mutex_);
  bool restore_snapshot(const std::vector<uint256>& path, std::string& reason) REQUIRES(mutex_);
  void try_saved_alternatives() REQUIRES(mutex_);
  bool finish_start(std::string& error) REQUIRES(mutex_);
  void adopt_undo_records() REQUIRES(mutex_);
  void count_old_forks() REQUIRES(mutex_);
  void drop_branch(const uint256& hash) REQUIRES(mutex_);

  std::optional<Transaction> make_distribution(uint32_t height) const REQUIRES(mutex_);

  void drain_events() EXCLUDES(mutex_, drain_mutex_);
  void tell(PoolEvent& event) REQUIRES(drain_mutex_) EXCLUDES(mutex_);

  const std::string directory_;
  const std::string rebuild_marker_;  // path
  const ChainOptions options_;
  PoolSink* sink_ = nullptr;  // set before other threads use the chain

  // Written by request_stop(), read between steps of long work; late by one step at most.
  std::atomic<bool> stop_{false};

  // Open write scopes. Written by their owners, read by save_state(), which at
  // worst writes once too often.
  std::atomic<int> open_scopes_{0};

  // What a save_state() inside a write scope left to do. Written with mutex_ held,
  // read without it by the last scope to end, which thus waits for nobody when
  // there is nothing to write. A note is made before the scopes are counted, so
  // that either that scope sees it or its maker sees none open and writes itself.
  std::atomic<bool> save_noted_{false};

  mutable VerifiedInputs verified_;
  PoolEvents events_;

  Mutex drain_mutex_;  // taken before mutex_; held while the sink is told of events

  mutable Mutex mutex_;
  FileDescriptor directory_lock_ GUARDED_BY(mutex_);
  mutable BlockFiles files_ GUARDED_BY(mutex_);
  StateDatabase database_ GUARDED_BY(mutex_);
  UndoJournal journal_ GUARDED_BY(mutex_);
  BlockTree tree_ GUARDED_BY(mutex_);
  ChainState state_ GUARDED_BY(mutex_);
  OrphanPool orphans_ GUARDED_BY(mutex_);
  VerdictLog verdicts_ GUARDED_BY(mutex_);

  // Entries that the database lacks, and those that it has too many. Where memory
  // ran out they name some too many: what the tree says counts.
  std::set<uint256> unsaved_ GUARDED_BY(mutex_);
  std::set<uint256> dropped_ GUARDED_BY(mutex_);
  bool broken_ GUARDED_BY(mutex_) = false;
  bool rebuilding_ GUARDED_BY(mutex_) = false;
  bool storing_fails_ GUARDED_BY(mutex_) = false;
  std::optional<ChainTip> saved_tip_ GUARDED_BY(mutex_);  // what the database named at the start
  uint64_t change_number_ GUARDED_BY(mutex_) = 0;
  uint64_t old_fork_count_ GUARDED_BY(mutex_) = 0;
  uint64_t old_fork_bytes_ GUARDED_BY(mutex_) = 0;
  std::optional<uint256> refused_for_depth_ GUARDED_BY(mutex_);
  std::optional<uint64_t> depth_line_time_s_ GUARDED_BY(mutex_);  // steady clock, of the last line printed
};

}  // namespace norvel
