// The block files blkNNNNN.dat of a data directory: append-only records (drawn in
// chain/block_record.h), no more than a thousand heights a file.
//
// Results of a look-up are those of reading the file from its start: the first
// readable record of the block asked for. Positions of records are remembered for
// the files used last, so that a look-up reads one record only.
//
// Durability: append() leaves the bytes to the system; sync() puts them, and the
// names of new files, on disk. After a failed sync, which may drop what it did not
// write, they are written again from memory. A failed append is cut back to the
// length before it; where even that fails, the file is walked again before its
// next append.
//
// Threads: single-threaded; the chain's lock guards the one that counts.

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "chain/block_record.h"
#include "core/block.h"
#include "core/bytes.h"
#include "core/uint256.h"

namespace norvel {

inline constexpr uint32_t kHeightsPerFile = 1'000;

// "blk00003.dat" for heights 3,000 to 3,999.
std::string block_file_name(uint32_t height);

class BlockFiles {
 public:
  // Whether the index names this block as one that stands in this file.
  using IsIndexed = std::function<bool(const std::string& file_name, const uint256& hash)>;

  explicit BlockFiles(std::string data_directory);
  ~BlockFiles();

  // Appends one record to the file of block.height. On failure prints (for a
  // file that does not open "[Blockchain] ERROR: Failed to open block file for
  // writing: " and the path) and returns false, with the file as it was. A file
  // that repair() has not seen is walked first; where indexed blocks stand in or
  // behind damage the append is refused, a tail without one is cut off. A file
  // that is shorter than this run left it, or gone, refuses the append too: it is
  // not made anew, as its disk may have been unmounted.
  bool append(const Block& block, const IsIndexed& is_indexed);

  // Everything appended so far is on disk when this returns true. What failed to
  // sync is tried again by the next call.
  bool sync();

  // The block of the first record with this hash and height in `file_name`. A
  // record that does not decode, whose body does not match its Merkle root or
  // whose height is another one (no hash binds it) counts as unreadable and the
  // next one is tried. Prints what stopped it. `*has_failed`, where given, becomes
  // true when the file could not be opened or read, which says nothing about the
  // record, and else false.
  std::optional<Block> load(const std::string& file_name, const uint256& hash, uint32_t height,
                            bool* has_failed = nullptr);

  // The record at `record_index` of the file at `path`, by lengths alone.
  static std::optional<Block> load_from_file(const std::string& path, size_t record_index);

  // Serialized size of this block as its first record states it, without reading
  // the body; 0 when it is not there.
  uint64_t record_bytes(const std::string& file_name, const uint256& hash);

  // Names of the block files in the directory, ascending.
  std::vector<std::string> list() const;
  bool exists(const std::string& file_name) const;

  // Size of all of them together, up to the first that is missing.
  uint64_t total_bytes() const;

  // Walks one file at start-up. Blocks of `indexed` (hashes and heights that the
  // index names for it) that the walk does not reach, or reaches with another
  // height only, are searched for in the damage; where some are found, the file is
  // written anew: what stood before the damage, then what was found. Where the lengths lead no further, what follows
  // the last readable record is copied to FILE.cut, reported with file and offset, and cut off. The file is on disk
  // then. Returns the hashes of `indexed` that remain lost, those that load() would not find; nothing when the file
  // cannot be read or mended. O(file).
  std::optional<std::vector<uint256>> repair(const std::string& file_name, const std::map<uint256, uint32_t>& indexed);

  // Calls `visit` for each readable record of the file in order, whatever its
  // height; `visit` returns false to end. False when the file cannot be opened or read. Only what repair()
  // or sync() saw is sure to be on disk.
  bool for_each_block(const std::string& file_name, const std::function<bool(const Block&)>& visit);

  // Calls `visit` with the hash of each record's header in file order. False as
  // above.
  bool for_each_hash(const std::string& file_name, const std::function<void(const uint256&)>& visit);

 private:
  struct State;

  std::unique_ptr<State> state_;
};

}  // namespace norvel
