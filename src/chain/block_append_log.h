// Appends to block files, and remembers what is not on disk yet.
//
// A file stays open from its first append until it is synced, so that no failed
// write-back goes unseen; and the bytes stay in memory as long, since after a
// failed sync the system may have dropped them: they are then written again
// before the next sync. Both are bounded: an append that would exceed a bound
// syncs first.
//
// Errors: prints one line and returns false. Threads: single-threaded.

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "core/file_io.h"

namespace norvel {

class BlockAppendLog {
 public:
  static constexpr size_t kOpenFilesMax = 16;
  static constexpr size_t kUnsyncedBytesMax = 32 << 20;

  // Opens the file at `path` for append(), creating it, and returns its size.
  // What is unsynced goes to disk first when `record_bytes` more would be too much.
  std::optional<uint64_t> open(const std::string& path, size_t record_bytes);

  enum class Result {
    DONE,
    FAILED,  // the file is as it was
    TORN,    // a part of the record stands at the end of the file
  };

  // Appends at the end, `file_bytes`, of the file that open() opened last.
  Result append(const std::string& path, uint64_t file_bytes, Bytes record);

  // Everything appended, and the names of all files opened, are on disk when this
  // returns true. The rest is tried again by the next call.
  bool sync();

 private:
  struct Piece {
    uint64_t offset = 0;
    Bytes bytes;
  };
  struct Unsynced {
    FileDescriptor file;
    std::vector<Piece> pieces;
    bool is_dropped = false;  // a sync failed, and the pieces were not written again since
  };

  static bool sync_file(const std::string& path, Unsynced& unsynced);
  static bool write_again(const std::string& path, const Unsynced& unsynced);

  std::map<std::string, Unsynced> files_;  // by path
  std::string unsynced_directory_;         // that of the files; empty when synced
  size_t unsynced_bytes_ = 0;
};

}  // namespace norvel
