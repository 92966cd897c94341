#include "chain/block_append_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <utility>

#include "chain/block_file_scan.h"
#include "core/console.h"

namespace norvel {

std::optional<uint64_t> BlockAppendLog::open(const std::string& path, size_t record_bytes) {
  const bool is_full =
      unsynced_bytes_ + record_bytes > kUnsyncedBytesMax || (files_.size() >= kOpenFilesMax && !files_.contains(path));
  if (is_full && !sync()) {
    return std::nullopt;
  }
  Unsynced& unsynced = files_[path];
  if (!unsynced.file.is_open()) {
    unsynced.file = open_file(path, O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK);
  }
  const auto bytes = unsynced.file.is_open() ? file_size(unsynced.file.get()) : std::nullopt;
  if (!bytes) {
    console::error_line("[Blockchain] ERROR: Failed to open block file for writing: " + path);
    files_.erase(path);
    return std::nullopt;
  }
  unsynced_directory_ = directory_of(path);
  return bytes;
}

BlockAppendLog::Result BlockAppendLog::append(const std::string& path, uint64_t file_bytes, Bytes record) {
  Unsynced& unsynced = files_.at(path);
  const size_t record_bytes = record.size();
  unsynced.pieces.push_back({file_bytes, std::move(record)});  // first, as it may throw
  if (write_all(unsynced.file.get(), unsynced.pieces.back().bytes)) {
    unsynced_bytes_ += record_bytes;
    return Result::DONE;
  }
  unsynced.pieces.pop_back();
  report_file_error("Failed to write block file", path);
  if (::ftruncate(unsynced.file.get(), static_cast<off_t>(file_bytes)) != 0) {
    report_file_error("Failed to cut off a torn record of block file", path);
    return Result::TORN;
  }
  return Result::FAILED;
}

bool BlockAppendLog::sync() {
  bool is_synced = true;
  for (auto entry = files_.begin(); entry != files_.end();) {
    auto& [path, unsynced] = *entry;
    if (sync_file(path, unsynced)) {
      for (const Piece& piece : unsynced.pieces) {
        unsynced_bytes_ -= piece.bytes.size();
      }
      entry = files_.erase(entry);
    } else {
      is_synced = false;
      ++entry;
    }
  }
  if (!unsynced_directory_.empty()) {
    if (sync_directory(unsynced_directory_)) {
      unsynced_directory_.clear();
    } else {
      report_file_error("Failed to sync directory", unsynced_directory_);
      is_synced = false;
    }
  }
  return is_synced;
}

bool BlockAppendLog::sync_file(const std::string& path, Unsynced& unsynced) {
  if (unsynced.is_dropped && !write_again(path, unsynced)) {
    report_file_error("Failed to write block file again", path);
    return false;
  }
  unsynced.is_dropped = false;
  if (sync_data(unsynced.file.get())) {
    return true;
  }
  report_file_error("Failed to sync block file", path);
  // At once, so that readers do not meet what the system dropped.
  unsynced.is_dropped = !write_again(path, unsynced);
  return false;
}

bool BlockAppendLog::write_again(const std::string& path, const Unsynced& unsynced) {
  const FileDescriptor file = open_file(path, O_WRONLY);  // that of the appends writes at the end only
  if (!file.is_open()) {
    return false;
  }
  for (const Piece& piece : unsynced.pieces) {
    if (::lseek(file.get(), static_cast<off_t>(piece.offset), SEEK_SET) < 0 || !write_all(file.get(), piece.bytes)) {
      return false;
    }
  }
  return true;
}

}  // namespace norvel
