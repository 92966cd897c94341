// Where the records of the block files stand, remembered for the files used
// last.
//
// Threads: single-threaded.

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "chain/block_file_scan.h"
#include "core/uint256.h"

namespace norvel {

struct RecordPosition {
  uint256 hash;              // of the header
  uint64_t offset = 0;       // of the length
  uint32_t block_bytes = 0;  // behind the length
};

struct FilePositions {
  std::vector<RecordPosition> records;  // those that hold a header, in file order
  uint64_t file_bytes = 0;
  WalkEnd end = WalkEnd::FILE_END;
  uint32_t last_length = 0;  // where the end is TOO_LONG, the length that is
};

// Reads lengths and headers only. Nothing, and a line, when reading fails.
std::optional<FilePositions> read_positions(const OpenedFile& file, const std::string& path);

class PositionCache {
 public:
  static constexpr size_t kFilesMax = 64;

  // The positions of a file that had `file_bytes`; nullptr when they are not
  // known. Valid until the next call of store() or forget().
  const FilePositions* find(const std::string& path, uint64_t file_bytes);

  const FilePositions* store(const std::string& path, FilePositions positions);

  // The file, of `file_bytes` before, has grown by this record.
  void note_appended(const std::string& path, uint64_t file_bytes, const RecordPosition& record);

  void forget(const std::string& path) { files_.erase(path); }

 private:
  struct Entry {
    FilePositions positions;
    uint64_t last_use = 0;
  };

  std::map<std::string, Entry> files_;
  uint64_t use_count_ = 0;
};

}  // namespace norvel
