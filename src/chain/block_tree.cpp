#include "chain/block_tree.h"

#include <algorithm>
#include <cassert>
#include <set>
#include <utility>

#include "chain/block_files.h"
#include "consensus/difficulty.h"

namespace norvel {

namespace {

// Bounds of the two memories of derived values, in entries.
constexpr size_t kMemoizedMax = 200'000;

template <class Map>
void memoize(Map& map, const uint256& key, uint32_t value) {
  if (map.size() >= kMemoizedMax) {
    map.clear();
  }
  map[key] = value;
}

// Parents before children.
std::vector<const BlockIndex*> sorted_by_height(const BlockIndexMap& index) {
  std::vector<const BlockIndex*> entries;
  entries.reserve(index.size());
  for (const auto& [hash, entry] : index) {
    entries.push_back(&entry);
  }
  std::stable_sort(entries.begin(), entries.end(),
                   [](const BlockIndex* a, const BlockIndex* b) { return a->height < b->height; });
  return entries;
}

}  // namespace

const BlockIndex* BlockTree::find(const uint256& hash) const {
  const auto found = index_.find(hash);
  return found == index_.end() ? nullptr : &found->second;
}

BlockIndex BlockTree::make_entry(const Block& block, const BlockIndex* parent) {
  BlockIndex entry;
  entry.hash = block.get_hash();
  entry.prev_hash = block.header.prev_hash;
  entry.height = block.height;
  entry.timestamp = block.header.timestamp;
  entry.bits = block.header.bits;
  const uint256 work = difficulty::work_from_bits(entry.bits);
  entry.chain_work = parent == nullptr ? work : parent->chain_work + work;
  entry.file_name = block_file_name(entry.height);
  return entry;
}

void BlockTree::insert(const BlockIndex& entry) {
  assert(index_.empty() || index_.contains(entry.prev_hash));
  if (auto verdict = verdict_on(entry.prev_hash)) {
    bad_[entry.hash] = std::move(verdict);
  }
  index_[entry.hash] = entry;
}

std::vector<uint256> BlockTree::with_descendants(const uint256& hash) const {
  const BlockIndex* top = find(hash);
  if (top == nullptr) {
    return {};
  }
  std::vector<uint256> branch = {hash};
  std::set<uint256> members = {hash};
  for (const BlockIndex* entry : sorted_by_height(index_)) {
    if (entry->height > top->height && members.contains(entry->prev_hash)) {
      members.insert(entry->hash);
      branch.push_back(entry->hash);
    }
  }
  return branch;
}

void BlockTree::erase_leaf(const uint256& hash) noexcept {
  assert(!is_active(hash));
  index_.erase(hash);
  bad_.erase(hash);
  child_bits_.erase(hash);
  fork_heights_.erase(hash);
}

std::vector<uint256> BlockTree::assign(const BlockIndexMap& index) {
  *this = BlockTree();
  std::vector<uint256> unlinked;
  for (const BlockIndex* entry : sorted_by_height(index)) {
    const BlockIndex* parent = entry->height == 0 ? nullptr : find(entry->prev_hash);
    // A name that no block file has would be one that is always missing.
    if (entry->file_name != block_file_name(entry->height)) {
      unlinked.push_back(entry->hash);
      continue;
    }
    const bool linked = entry->height == 0 ? entry->prev_hash.is_zero() && index_.empty()
                                           : parent != nullptr && entry->height - 1 == parent->height;
    if (!linked) {
      unlinked.push_back(entry->hash);
      continue;
    }
    BlockIndex kept = *entry;
    const uint256 work = difficulty::work_from_bits(entry->bits);
    kept.chain_work = parent == nullptr ? work : parent->chain_work + work;
    index_.emplace(kept.hash, std::move(kept));
  }
  return unlinked;
}

bool BlockTree::is_active(const uint256& hash) const {
  const BlockIndex* entry = find(hash);
  return entry != nullptr && entry->height < active_.size() && active_[entry->height] == hash;
}

void BlockTree::push_active(const uint256& hash) {
  assert(index_.contains(hash) && index_.at(hash).height == active_.size());
  active_.push_back(hash);
  fork_heights_.clear();
}

void BlockTree::pop_active() {
  active_.pop_back();
  fork_heights_.clear();
}

void BlockTree::set_active(std::vector<uint256> hashes) {
  active_ = std::move(hashes);
  fork_heights_.clear();
}

uint32_t BlockTree::fork_height(const uint256& hash) const {
  const BlockIndex* entry = &index_.at(hash);
  while (!is_active(entry->hash)) {
    if (const auto known = fork_heights_.find(entry->hash); known != fork_heights_.end()) {
      memoize(fork_heights_, hash, uint32_t{known->second});
      return fork_heights_.at(hash);
    }
    entry = &index_.at(entry->prev_hash);
  }
  if (entry->hash != hash) {
    memoize(fork_heights_, hash, entry->height);
  }
  return entry->height;
}

std::optional<std::vector<uint256>> BlockTree::get_chain_path(const uint256& tip) const {
  std::vector<uint256> path;
  for (uint256 hash = tip; !is_active(hash);) {
    const BlockIndex* entry = find(hash);
    if (entry == nullptr) {
      return std::nullopt;
    }
    path.push_back(hash);
    hash = entry->prev_hash;
  }
  std::reverse(path.begin(), path.end());
  return path;
}

std::vector<uint256> BlockTree::path_from_genesis(const uint256& tip) const {
  const BlockIndex* entry = &index_.at(tip);
  std::vector<uint256> path(size_t{entry->height} + 1);
  for (;; entry = &index_.at(entry->prev_hash)) {
    path[entry->height] = entry->hash;
    if (entry->height == 0) {
      return path;
    }
  }
}

const BlockIndex* BlockTree::ancestor_at(const uint256& hash, uint32_t height) const {
  const BlockIndex* entry = find(hash);
  while (entry != nullptr && entry->height > height) {
    if (is_active(entry->hash)) {
      return find(active_[height]);
    }
    entry = find(entry->prev_hash);
  }
  return entry != nullptr && entry->height == height ? entry : nullptr;
}

uint32_t BlockTree::expected_child_bits(const uint256& parent, consensus::RetargetReport report) const {
  const BlockIndex* entry = find(parent);
  if (entry == nullptr) {
    return difficulty::kEasiestBits;
  }
  if (const auto known = child_bits_.find(parent); known != child_bits_.end()) {
    return known->second;
  }
  const auto header_at = [&](uint32_t height) -> std::optional<BlockHeader> {
    const BlockIndex* ancestor = ancestor_at(parent, height);
    if (ancestor == nullptr) {
      return std::nullopt;
    }
    BlockHeader header;
    header.prev_hash = ancestor->prev_hash;
    header.timestamp = ancestor->timestamp;
    header.bits = ancestor->bits;
    return header;
  };
  const uint32_t bits = consensus::calculate_next_difficulty_for_chain(header_at, entry->height, entry->bits, report);
  memoize(child_bits_, parent, bits);
  return bits;
}

const BlockIndex* BlockTree::heaviest(const std::optional<uint256>& preferred,
                                      const std::function<bool(const BlockIndex&)>& allowed) const {
  const auto is_preferred = [&](const BlockIndex& entry) {
    const BlockIndex* wanted = preferred ? find(*preferred) : nullptr;
    return wanted != nullptr &&
           (ancestor_at(entry.hash, wanted->height) == wanted || ancestor_at(wanted->hash, entry.height) == &entry);
  };
  const BlockIndex* best = nullptr;
  for (const auto& [hash, entry] : index_) {
    if ((best != nullptr && entry.chain_work < best->chain_work) || verdict_on(hash) || !allowed(entry)) {
      continue;
    }
    // In hash order, so that of equal ones the first stays unless the other is preferred.
    if (best == nullptr || best->chain_work < entry.chain_work || (is_preferred(entry) && !is_preferred(*best))) {
      best = &entry;
    }
  }
  return best;
}

void BlockTree::mark_bad(const uint256& hash, const std::shared_ptr<BlockVerdict>& verdict) {
  for (const uint256& member : with_descendants(hash)) {
    bad_[member] = verdict;
  }
}

void BlockTree::mark_bad(const VerdictLog& verdicts) {
  for (const BlockIndex* entry : sorted_by_height(index_)) {
    auto verdict = verdicts.find(entry->hash);
    if (!verdict) {
      verdict = verdict_on(entry->prev_hash);
    }
    if (verdict) {
      bad_[entry->hash] = std::move(verdict);
    }
  }
}

std::shared_ptr<BlockVerdict> BlockTree::verdict_on(const uint256& hash) const {
  const auto found = bad_.find(hash);
  return found == bad_.end() || found->second->forgotten ? nullptr : found->second;
}

}  // namespace norvel
