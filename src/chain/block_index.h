// What the chain remembers of every known block, active or on a side chain.

#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "core/uint256.h"

namespace norvel {

struct BlockIndex {
  uint256 hash;
  uint256 prev_hash;
  uint32_t height = 0;
  uint64_t timestamp = 0;  // seconds since the Unix epoch
  uint32_t bits = 0;       // compact target
  uint256 chain_work;      // expected hashes from the genesis block to this one
  std::string file_name;   // such as blk00003.dat

  bool operator==(const BlockIndex&) const = default;
};

using BlockIndexMap = std::map<uint256, BlockIndex>;

}  // namespace norvel
