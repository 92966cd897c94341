#include "chain/orphan_pool.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace norvel {

bool OrphanPool::park(const Block& block, uint64_t now_s) {
  if (entries_.size() >= kBlocksMax) {
    return false;
  }
  const uint256 hash = block.get_hash();
  const auto is_twin = [&hash](const Entry& entry) { return entry.hash == hash; };
  if (static_cast<size_t>(std::ranges::count_if(entries_, is_twin)) >= kTwinsMax) {
    return false;
  }
  Bytes bytes = block.serialize();
  if (bytes.size() > kBytesMax - total_bytes() || std::ranges::find(entries_, bytes, &Entry::bytes) != entries_.end()) {
    return false;
  }
  entries_.push_back({hash, block.header.prev_hash, std::move(bytes), now_s});
  return true;
}

std::vector<Block> OrphanPool::take_children(const uint256& parent_hash) {
  std::vector<Block> children;
  for (const Entry& entry : entries_) {
    if (entry.parent_hash == parent_hash) {
      children.push_back(Block::deserialize(entry.bytes));
    }
  }
  std::erase_if(entries_, [&parent_hash](const Entry& entry) { return entry.parent_hash == parent_hash; });
  return children;
}

void OrphanPool::remove_expired(uint64_t now_s) {
  std::erase_if(entries_, [now_s](const Entry& entry) {
    return now_s >= entry.parked_s && now_s - entry.parked_s >= kAgeMaxSeconds;
  });
}

size_t OrphanPool::total_bytes() const {
  return std::accumulate(entries_.begin(), entries_.end(), size_t{0},
                         [](size_t sum, const Entry& entry) { return sum + entry.bytes.size(); });
}

}  // namespace norvel
