// Reading of one block file: the walk from record to record by their lengths,
// and the search for block headers where the lengths are damaged.
//
// The file is foreign data: whatever it holds is read within its size, and a
// record that makes no sense is passed over.
//
// Errors: results are empty or false; a failing read is told apart from data
// that make no sense. Threads: single-threaded.

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "chain/block_record.h"
#include "core/block.h"
#include "core/bytes.h"
#include "core/file_io.h"
#include "core/uint256.h"

namespace norvel {

// Prints "[Blockchain] ERROR: ", `what`, ": ", the path and the reason in errno.
void report_file_error(std::string_view what, const std::string& path);

// A regular file and its size; descriptor and size as of opening.
struct OpenedFile {
  FileDescriptor descriptor;
  uint64_t bytes = 0;

  int fd() const { return descriptor.get(); }
};

// Opens an existing block file; `flags` as for open(2). Prints "[Blockchain]
// ERROR: Cannot open block file: " and the path when there is none to open.
std::optional<OpenedFile> open_block_file(const std::string& path, int flags);

// Where in [offset, file_bytes) the first byte stands that is not zero; file_bytes
// when none is. Holes of a sparse file cost nothing. Nothing when reading fails.
std::optional<uint64_t> find_data(int fd, uint64_t offset, uint64_t file_bytes);

// A window on a file, so that small pieces near each other cost one system call.
class FileWindow {
 public:
  // Of `fd`, which outlives the window, no byte from `file_bytes` on is read.
  FileWindow(int fd, uint64_t file_bytes) : fd_(fd), file_bytes_(file_bytes) {}

  uint64_t file_bytes() const { return file_bytes_; }

  // The `len` bytes at `offset`, valid until the next call; nothing when the file
  // has fewer, or when reading fails, which is remembered.
  std::optional<ByteView> read(uint64_t offset, size_t len);

  bool has_failed() const { return failed_; }

 private:
  int fd_;
  uint64_t file_bytes_;
  uint64_t offset_ = 0;  // of buffer_ in the file
  Bytes buffer_;
  bool failed_ = false;
};

enum class WalkEnd {
  FILE_END,     // behind the last record
  ZEROS,        // before zeros that reach to the end: room that a crash left without its records
  CUT,          // inside a length, or inside the record that a length announces
  TOO_LONG,     // a length above kRecordBytesMax
  READ_FAILED,  // errno says why
};

// Walks a file from record to record, as far as the lengths lead:
//
//   RecordWalk walk(fd, bytes);
//   while (walk.next()) { ... }
//   if (walk.end() == WalkEnd::READ_FAILED) { ... }
class RecordWalk {
 public:
  RecordWalk(int fd, uint64_t file_bytes) : fd_(fd), window_(fd, file_bytes) {}

  // Moves to the next record, the first one at the first call; false at the end.
  bool next();

  // Of the record: where its length stands, and the bytes behind the length.
  uint64_t offset() const { return offset_; }
  uint32_t block_bytes() const { return block_bytes_; }

  // Where the record ends; after the last one, where the walk ended.
  uint64_t next_offset() const { return next_offset_; }

  // Hash of the record's header; nothing for a record shorter than that.
  std::optional<uint256> header_hash();

  // The record's bytes behind the length, valid until the next call of anything.
  std::optional<ByteView> bytes() { return window_.read(offset_ + kRecordPrefixBytes, block_bytes_); }

  // The block, when the record is readable.
  std::optional<Block> block();

  // After next() has returned false. With TOO_LONG block_bytes() is the length that is.
  WalkEnd end() const { return end_; }

 private:
  bool stop(WalkEnd end);
  std::optional<bool> is_zero_to_the_end();

  int fd_;
  FileWindow window_;
  uint64_t offset_ = 0;
  uint64_t next_offset_ = 0;
  uint32_t block_bytes_ = 0;
  uint64_t data_offset_ = 0;  // below it no zeros reach to the end
  WalkEnd end_ = WalkEnd::FILE_END;
};

// Calls `visit` with offset and hash of whatever in [begin, end) of the file may
// be the header of a block, wherever it stands; a header may reach beyond `end`.
// `visit` returns the offset to go on from; UINT64_MAX ends the search. False
// when reading fails.
bool search_headers(int fd, uint64_t file_bytes, uint64_t begin, uint64_t end,
                    const std::function<uint64_t(uint64_t header_offset, const uint256& hash)>& visit);

}  // namespace norvel
