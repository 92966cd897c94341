// Mending of one damaged block file. Nothing but zeros is thrown away: what is
// cut off goes to FILE.cut first, behind what an earlier cut put there.
//
// Errors: prints one line and returns an empty result; the file is then as it
// was. At any instant of a crash the old file or the mended one is there whole,
// and what was cut is in FILE.cut. Threads: single-threaded.

#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "chain/block_file_scan.h"
#include "core/uint256.h"

namespace norvel {

struct ByteRange {
  uint64_t begin = 0;
  uint64_t end = 0;
};

// What a walk that reads every block found.
struct FileCheck {
  // Where the next record can be appended: the end of the file, or when the walk
  // stopped before it or at zeros, the end of the last readable record.
  uint64_t intact_bytes = 0;
  std::map<uint256, std::set<uint32_t>> readable;  // heights of the records of each block
  std::vector<ByteRange> gaps;                     // what no readable block covers, ascending
};

// O(file). Nothing, and a line, when reading fails.
std::optional<FileCheck> check_block_file(const OpenedFile& file, const std::string& path);

// Copies the file from `offset` on, but for zeros at its end, to FILE.cut, reports it and cuts it off. The
// file and both names are on disk when this returns true.
bool cut_block_file(const OpenedFile& file, const std::string& path, uint64_t offset);

struct RepairedFile {
  uint64_t bytes = 0;
  std::vector<uint256> lost;  // of the indexed blocks, those that are nowhere in the file with their height
};

// Looks for every block of `indexed` (hash and height), in the records and between
// them, writes those anew that stand between, and cuts off what follows the last
// readable record where the lengths lead no further. A record whose height only
// is wrong stays where it is. What stays is synced, its name too.
std::optional<RepairedFile> repair_block_file(const std::string& path, const std::map<uint256, uint32_t>& indexed);

}  // namespace norvel
