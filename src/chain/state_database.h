// The LevelDB database DATADIR/chainstate: the tip, the index of blocks, the
// treasury. Every call opens the database and closes it again; no handle is kept.
//
// A database file that does not read back as it was written makes the database
// unreadable as a whole: LevelDB could only drop what was in it, and with it
// entries of old blocks.
//
// Errors: a failing call prints one line on standard error and returns false.
// Threads: single-threaded; the chain's lock guards it. Two handles on one
// directory exclude each other by LevelDB's own lock.

#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "chain/block_index.h"
#include "chain/state_codec.h"
#include "consensus/treasury_state.h"

namespace leveldb {
class DB;
class WriteBatch;
}  // namespace leveldb

namespace norvel {

class StateDatabase {
 public:
  explicit StateDatabase(const std::string& data_directory);

  // One write. Entries in `changed` point into the caller's index.
  struct Update {
    ChainTip tip;
    const TreasuryState* treasury = nullptr;
    std::vector<const BlockIndex*> changed;  // new or changed since the last write
    std::vector<uint256> dropped;            // to be removed
  };

  // Writes `update` in one synced batch, creating the database when it is
  // missing; a database without "chain_state" (a new one) gets every entry of
  // `all` instead of update.changed. Files without a database that LevelDB would
  // take for its own are set aside first. Prints "[Blockchain] Failed to open
  // LevelDB: " and the status when it does not open.
  bool write(const Update& update, const BlockIndexMap& all);

  // The treasury alone, likewise.
  bool write_treasury(const TreasuryState& treasury);

  struct Content {
    ChainTip tip;
    BlockIndexMap index;  // entries whose value does not decode are left out
  };

  enum class ReadResult {
    READ,
    MISSING,     // no database, or one without "chain_state"; nothing is printed
    UNREADABLE,  // damaged: corruption, an error of reading, or a value that does not decode
    FAILED,      // the system refused: LevelDB's lock is held, no descriptors, memory, permission or room
  };

  // Never creates a database. `content` is empty but for READ.
  ReadResult read(Content& content);

  // Nothing where read() does not find a database or the record is missing or,
  // with a line, damaged.
  std::optional<TreasuryState> read_treasury();

  // Moves a damaged database aside, to chainstate.damaged (replacing an older
  // one), so that the next write makes a new one. True when there is none.
  bool set_aside();

 private:
  bool open_for_writing(std::unique_ptr<leveldb::DB>& db);
  ReadResult open_for_reading(std::unique_ptr<leveldb::DB>& db);
  bool commit(std::unique_ptr<leveldb::DB> db, leveldb::WriteBatch& batch);
  ReadResult read_tip(leveldb::DB& db, ChainTip& tip);
  ReadResult read_index(leveldb::DB& db, BlockIndexMap& index);

  const std::string path_;
  bool is_name_durable_ = false;  // the name of the database in the data directory
};

}  // namespace norvel
