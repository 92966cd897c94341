// Blocks whose parent is not known yet, by the parent's hash.
//
// Limits: kBlocksMax blocks and kBytesMax bytes; one entry for the same bytes
// and kTwinsMax for the same header hash, so that a twin with another height
// field neither keeps the true block out nor fills the pool; blocks whose height
// field disagrees with their coinbase make room for those that agree, whatever
// their hash; entries leave after kAgeMaxSeconds. Blocks are held serialized:
// decoded ones can take many times as much memory, which would make the limit in
// bytes an idle word.
//
// Threads: single-threaded; the chain's lock guards it.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "core/block.h"
#include "core/bytes.h"
#include "core/uint256.h"

namespace norvel {

class OrphanPool {
 public:
  static constexpr size_t kBlocksMax = 64;
  static constexpr size_t kBytesMax = 32 << 20;
  static constexpr size_t kTwinsMax = 4;
  static constexpr uint64_t kAgeMaxSeconds = 600;

  // A coinbase says its block's height, under the block's hash, unlike the height
  // field. No rule demands it, but every block made in earnest keeps to it.
  static bool is_height_plausible(const Block& block);

  // Parks a copy; false when a limit keeps it out. Every transaction of the block
  // fits its byte format. `now_s` is any steady clock in seconds.
  bool park(const Block& block, uint64_t now_s);

  // Removes and returns the child of `parent_hash` that came first. One at a time,
  // since decoded blocks take much more room than the pool's limit counts.
  std::optional<Block> take_child(const uint256& parent_hash);

  void remove_expired(uint64_t now_s);

  size_t size() const { return entries_.size(); }
  size_t total_bytes() const;  // of the serialized blocks

 private:
  struct Entry {
    uint256 hash;
    uint256 parent_hash;
    Bytes bytes;
    uint64_t parked_s = 0;
    bool is_plausible = false;  // the height field agrees with the coinbase
  };

  std::vector<Entry> entries_;  // in order of arrival; few enough to walk
};

}  // namespace norvel
