#include "chain/state_database.h"

#include <leveldb/db.h>
#include <leveldb/iterator.h>
#include <leveldb/options.h>
#include <leveldb/slice.h>
#include <leveldb/status.h>
#include <leveldb/write_batch.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "core/console.h"
#include "core/file_io.h"

namespace norvel {

namespace {

using ReadResult = StateDatabase::ReadResult;

constexpr char kCurrentFile[] = "/CURRENT";
constexpr char kOpenFailed[] = "[Blockchain] Failed to open LevelDB: ";

leveldb::Slice to_slice(const Bytes& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

ByteView to_view(const leveldb::Slice& slice) {
  return {reinterpret_cast<const uint8_t*>(slice.data()), slice.size()};
}

leveldb::ReadOptions checked_reads() {
  leveldb::ReadOptions options;
  options.verify_checksums = true;
  options.fill_cache = false;
  return options;
}

leveldb::Status open_database(const std::string& path, bool create, std::unique_ptr<leveldb::DB>& db) {
  leveldb::Options options;
  options.create_if_missing = create;
  options.paranoid_checks = true;
  leveldb::DB* opened = nullptr;
  leveldb::Status status = leveldb::DB::Open(options, path, &opened);
  db.reset(opened);
  return status;
}

// LevelDB names the reason of an I/O error by its text alone. These reasons lie
// outside the files; with any other one, a file that was emptied or cut among
// them, the database is as good as damaged.
bool lies_outside(const leveldb::Status& status) {
  const std::string text = status.ToString();
  if (!status.IsIOError()) {
    return false;
  }
  for (const int reason : {EMFILE, ENFILE, ENOMEM, EACCES, EPERM, ENOSPC, EDQUOT, EROFS, EAGAIN}) {
    if (text.find(std::strerror(reason)) != std::string::npos) {
      return true;
    }
  }
  return text.find("already held by process") != std::string::npos;
}

ReadResult damaged(const std::string& what) {
  console::error_line("[Blockchain] ERROR: Chain-state database is damaged: " + what);
  return ReadResult::UNREADABLE;
}

// A failed read of an open database.
ReadResult refused(const leveldb::Status& status) {
  if (!lies_outside(status)) {
    return damaged(status.ToString());
  }
  console::error_line("[Blockchain] ERROR: Failed to read LevelDB: " + status.ToString());
  return ReadResult::FAILED;
}

bool fail(const char* what, const std::string& reason) {
  console::error_line(what + reason);
  return false;
}

}  // namespace

StateDatabase::StateDatabase(const std::string& data_directory) : path_(data_directory + "/chainstate") {}

bool StateDatabase::open_for_writing(std::unique_ptr<leveldb::DB>& db) {
  std::error_code failure;
  const bool has_database = std::filesystem::exists(path_ + kCurrentFile, failure);
  // A new database would read the logs that a lost one left.
  const bool is_there = std::filesystem::exists(path_, failure);
  const bool is_clean =
      is_there && std::filesystem::is_directory(path_, failure) && std::filesystem::is_empty(path_, failure);
  if (!has_database && is_there && !is_clean && !failure && !set_aside()) {
    return false;
  }
  is_name_durable_ = is_name_durable_ && has_database;
  const leveldb::Status status = open_database(path_, true, db);
  return status.ok() || fail(kOpenFailed, status.ToString());
}

// Takes `db` so that the database is closed in any case.
bool StateDatabase::commit(std::unique_ptr<leveldb::DB> db, leveldb::WriteBatch& batch) {
  leveldb::WriteOptions options;
  options.sync = true;
  const leveldb::Status status = db->Write(options, &batch);
  db.reset();
  if (!status.ok()) {
    return fail("[Blockchain] ERROR: Failed to write LevelDB: ", status.ToString());
  }
  // LevelDB syncs its files, but not the name of CURRENT or of its directory.
  if (!sync_directory(path_) || (!is_name_durable_ && !sync_directory(directory_of(path_)))) {
    return fail("[Blockchain] ERROR: Failed to sync LevelDB: ", std::strerror(errno));
  }
  is_name_durable_ = true;
  return true;
}

bool StateDatabase::write(const Update& update, const BlockIndexMap& all) {
  std::unique_ptr<leveldb::DB> db;
  if (!open_for_writing(db)) {
    return false;
  }
  std::string ignored;
  const leveldb::Status known = db->Get(checked_reads(), kChainStateKey, &ignored);
  if (!known.ok() && !known.IsNotFound()) {
    refused(known);
    return false;
  }
  leveldb::WriteBatch batch;
  const auto put_entry = [&batch](const BlockIndex& entry) {
    batch.Put(block_key(entry.hash), to_slice(encode_block_index(entry)));
  };
  for (const uint256& hash : update.dropped) {
    batch.Delete(block_key(hash));
  }
  if (known.ok()) {
    for (const BlockIndex* entry : update.changed) {
      put_entry(*entry);
    }
  } else {
    for (const auto& [hash, entry] : all) {
      put_entry(entry);
    }
  }
  if (update.treasury != nullptr) {
    batch.Put(kTreasuryStateKey, to_slice(encode_treasury(*update.treasury)));
  }
  batch.Put(kChainStateKey, to_slice(encode_chain_tip(update.tip)));
  return commit(std::move(db), batch);
}

bool StateDatabase::write_treasury(const TreasuryState& treasury) {
  std::unique_ptr<leveldb::DB> db;
  if (!open_for_writing(db)) {
    return false;
  }
  leveldb::WriteBatch batch;
  batch.Put(kTreasuryStateKey, to_slice(encode_treasury(treasury)));
  return commit(std::move(db), batch);
}

ReadResult StateDatabase::open_for_reading(std::unique_ptr<leveldb::DB>& db) {
  // LevelDB makes a directory and a log of its own even where it opens nothing.
  std::error_code failure;
  if (!std::filesystem::exists(path_ + kCurrentFile, failure)) {
    if (!failure) {
      return ReadResult::MISSING;
    }
    fail(kOpenFailed, failure.message());
    return ReadResult::FAILED;
  }
  const leveldb::Status status = open_database(path_, false, db);
  if (!status.ok()) {
    fail(kOpenFailed, status.ToString());
    return lies_outside(status) ? ReadResult::FAILED : ReadResult::UNREADABLE;
  }
  return ReadResult::READ;
}

ReadResult StateDatabase::read_tip(leveldb::DB& db, ChainTip& tip) {
  std::string value;
  const leveldb::Status status = db.Get(checked_reads(), kChainStateKey, &value);
  if (!status.ok()) {
    return status.IsNotFound() ? ReadResult::MISSING : refused(status);
  }
  const auto decoded = decode_chain_tip(to_view(value));
  if (!decoded) {
    return damaged(std::string(kChainStateKey) + " does not decode");
  }
  tip = *decoded;
  return ReadResult::READ;
}

ReadResult StateDatabase::read_index(leveldb::DB& db, BlockIndexMap& index) {
  const std::unique_ptr<leveldb::Iterator> at(db.NewIterator(checked_reads()));
  for (at->Seek(kBlockKeyPrefix); at->Valid() && at->key().starts_with(kBlockKeyPrefix); at->Next()) {
    auto entry = decode_block_index(to_view(at->value()));
    if (entry && at->key() == block_key(entry->hash)) {
      const uint256 hash = entry->hash;
      index.emplace_hint(index.end(), hash, std::move(*entry));  // keys ascend as hashes do
    }
  }
  return at->status().ok() ? ReadResult::READ : refused(at->status());
}

ReadResult StateDatabase::read(Content& content) {
  content = Content();
  Content found;
  std::unique_ptr<leveldb::DB> db;
  ReadResult result = open_for_reading(db);
  if (result == ReadResult::READ) {
    result = read_tip(*db, found.tip);
  }
  if (result == ReadResult::READ) {
    result = read_index(*db, found.index);
  }
  if (result == ReadResult::READ) {
    content = std::move(found);
  }
  return result;
}

std::optional<TreasuryState> StateDatabase::read_treasury() {
  std::unique_ptr<leveldb::DB> db;
  if (open_for_reading(db) != ReadResult::READ) {
    return std::nullopt;
  }
  std::string value;
  const leveldb::Status status = db->Get(checked_reads(), kTreasuryStateKey, &value);
  if (!status.ok()) {
    if (!status.IsNotFound()) {
      refused(status);
    }
    return std::nullopt;
  }
  auto treasury = decode_treasury(to_view(value));
  if (!treasury) {
    damaged(std::string(kTreasuryStateKey) + " does not decode");
  }
  return treasury;
}

bool StateDatabase::set_aside() {
  const std::string target = path_ + ".damaged";
  std::error_code failure;
  if (!std::filesystem::exists(path_, failure)) {
    return !failure || fail("[Blockchain] ERROR: Failed to set the database aside: ", failure.message());
  }
  std::filesystem::remove_all(target, failure);
  std::filesystem::rename(path_, target, failure);
  if (failure) {
    return fail("[Blockchain] ERROR: Failed to set the database aside: ", failure.message());
  }
  is_name_durable_ = false;
  return sync_directory(directory_of(path_)) ||
         fail("[Blockchain] ERROR: Failed to set the database aside: ", std::strerror(errno));
}

}  // namespace norvel
