#include "chain/orphan_pool.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace norvel {

bool OrphanPool::is_height_plausible(const Block& block) {
  if (block.transactions.empty() || block.transactions.front().inputs.empty()) {
    return false;
  }
  const Bytes& data = block.transactions.front().inputs.front().signature;
  size_t offset = 0;
  return data.size() >= sizeof block.height && read_le<uint32_t>(data, offset) == block.height;
}

bool OrphanPool::park(const Block& block, uint64_t now_s) {
  Entry entry{block.get_hash(), block.header.prev_hash, block.serialize(), now_s, is_height_plausible(block)};
  const auto is_twin = [&entry](const Entry& other) { return other.hash == entry.hash; };
  if (std::ranges::find(entries_, entry.bytes, &Entry::bytes) != entries_.end() || entry.bytes.size() > kBytesMax) {
    return false;
  }
  const auto has_twins_to_spare = [&] {
    return static_cast<size_t>(std::ranges::count_if(entries_, is_twin)) < kTwinsMax;
  };
  const auto has_room = [&] { return entries_.size() < kBlocksMax && entry.bytes.size() <= kBytesMax - total_bytes(); };
  // Blocks that look wrong make room for one that does not: twins for their twin,
  // any of them where the pool is full.
  while (!has_twins_to_spare() || !has_room()) {
    const auto doubtful = std::ranges::find_if(
        entries_, [&](const Entry& other) { return !other.is_plausible && (has_twins_to_spare() || is_twin(other)); });
    if (!entry.is_plausible || doubtful == entries_.end()) {
      return false;
    }
    entries_.erase(doubtful);
  }
  entries_.push_back(std::move(entry));
  return true;
}

std::optional<Block> OrphanPool::take_child(const uint256& parent_hash) {
  const auto child = std::ranges::find(entries_, parent_hash, &Entry::parent_hash);
  if (child == entries_.end()) {
    return std::nullopt;
  }
  const Bytes bytes = std::move(child->bytes);
  entries_.erase(child);
  return Block::deserialize(bytes);
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
