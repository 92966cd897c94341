// What takes the newest blocks of the active chain back, one record a block, in
// memory and in undo.dat. Records are opaque bytes here.
//
// The file is a log of records in the order in which blocks were connected,
// branches that were left included; it is written anew when most of it is no
// longer needed.
//
//   length    4  little-endian, of the record's content
//   height    4  little-endian
//   hash     32  of the connected block
//   content   v
//   checksum 32  SHA-256 of all before it
//
// The file is a help, never needed: a record that is cut or damaged ends the
// reading of it, and the blocks before it are then taken back by replay.
//
// Invariant: the entries in memory are those of consecutive heights up to the
// tip, at most kDepth.
// Errors: what cannot be read or written is reported in one line on standard
// error. Threads: single-threaded; the chain's lock guards it.

#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "core/uint256.h"

namespace norvel {

class UndoJournal {
 public:
  // Deepest reorganisation of the system, in blocks.
  static constexpr size_t kDepth = 720;

  explicit UndoJournal(std::string path);

  // Longest content that is written. The undo record of an ordinary block is no
  // longer than the block; one that spends this much is kept in memory only, so
  // that no length in the file makes start-up reserve more.
  static constexpr uint32_t kContentBytesMax = 64 * 1024 * 1024;

  // Below this size the file is not shortened.
  static constexpr uint64_t kShortenedBytesMin = uint64_t{1} << 20;

  // While on, no entry leaves at the far end: a reorganisation that fails after
  // more than kDepth blocks still needs all of them. Turning it off trims.
  void keep_all(bool on);

  // Adds the record of the block just connected on the tip. An entry of this
  // height or above (of a block whose connection was broken off) is forgotten,
  // and all are when a height is missing between them and this one. On an
  // exception (memory) no entry is added.
  void push(uint32_t height, const uint256& hash, Bytes record);

  // The newest record when it is that of `tip_hash`; and removal of the newest,
  // nothing when there is none.
  std::optional<Bytes> tip_record(const uint256& tip_hash) const;
  void pop();

  size_t size() const;
  // Forgets the entries in memory; the file stays.
  void clear();

  // Reads the file up to its first damage; what it holds stays aside for adopt(),
  // unless the entries in memory are complete (kDepth, or down to height 0).
  // Takes memory for the whole file. The entries in memory stay.
  void load();

  // Puts loaded records under the entries in memory, for blocks with these
  // hashes, newest first, as far as they are known without a gap; the hashes
  // begin below the oldest entry in memory, `top_height` being the height of the
  // first. Nothing is adopted for another height. Forgets what stays aside.
  void adopt(uint32_t top_height, std::span<const uint256> hashes);

  // Writes the entries that the file lacks and syncs it. Writes it anew instead
  // (temporary file, sync, rename) when it was damaged or missing, after a
  // failure, and when less than half of more than kShortenedBytesMin is needed;
  // what stands aside is kept. False when that failed; the next call then writes
  // it anew. Calls load() when the file was never read.
  bool sync();

 private:
  // One record as it stands in the file, its checksum last.
  struct Record {
    uint32_t height = 0;
    uint256 hash;
    Bytes frame;
  };

  using Records = std::vector<const Record*>;

  void trim();
  bool is_complete() const;
  bool is_stored(const Record& record) const;
  void read_records(int fd, uint64_t size);
  bool append_to_file(const Records& records);
  bool rewrite();
  bool fail();

  const std::string path_;
  std::deque<Record> entries_;         // oldest first
  std::map<uint256, Record> aside_;    // from load(), by block
  std::map<uint256, uint256> stored_;  // checksums of the records in the file, by block
  uint64_t file_bytes_ = 0;            // of the intact file
  bool is_read_ = false;
  bool must_rewrite_ = false;
  bool keeps_all_ = false;
};

}  // namespace norvel
