#include "chain/derived_indexes.h"

#include <algorithm>
#include <set>
#include <utility>

#include "crypto/address.h"

namespace norvel {

namespace {

bool reveals_key(const TxIn& input) {
  return !input.pubkey.empty() && !std::ranges::equal(input.pubkey, TxIn::kHtlcMarker);
}

// The public-key hashes that `tx` pays or spends from, each once.
std::vector<Bytes> touched_hashes(const Transaction& tx, std::span<const Bytes> spent_hashes) {
  std::vector<Bytes> hashes(spent_hashes.begin(), spent_hashes.end());
  for (const TxOut& output : tx.outputs) {
    hashes.push_back(output.get_pubkey_hash());
  }
  std::erase_if(hashes, [](const Bytes& hash) { return hash.size() != crypto::kPublicKeyHashBytes; });
  std::sort(hashes.begin(), hashes.end());
  hashes.erase(std::unique(hashes.begin(), hashes.end()), hashes.end());
  return hashes;
}

}  // namespace

IndexPlan DerivedIndexes::plan(const Block& block, std::span<const Bytes> spent_hashes) const {
  IndexPlan plan;
  plan.undo.heights.reserve(block.transactions.size());
  std::set<Bytes> seen_keys;  // saves the address of a key that the block uses often
  for (const Transaction& tx : block.transactions) {
    const uint256 txid = tx.get_txid();
    const auto earlier = heights_.find(txid);
    const bool is_repeated = earlier != heights_.end();
    plan.undo.heights.emplace_back(txid, is_repeated ? std::optional(earlier->second) : std::nullopt);
    if (!is_repeated) {
      for (Bytes& hash : touched_hashes(tx, spent_hashes.first(tx.inputs.size()))) {
        plan.undo.listed.emplace_back(std::move(hash), txid);
      }
    }
    spent_hashes = spent_hashes.subspan(tx.inputs.size());
    if (!tx.is_ordinary()) {
      continue;
    }
    for (const TxIn& input : tx.inputs) {
      if (!reveals_key(input) || !seen_keys.insert(input.pubkey).second) {
        continue;
      }
      std::string address = crypto::pubkey_to_address(input.pubkey, 0);
      if (!keys_.contains(address)) {
        plan.undo.revealed.push_back(std::move(address));
        plan.keys.emplace_back(input.pubkey);
      }
    }
  }
  return plan;
}

void DerivedIndexes::add_block(const IndexUndo& undo, const std::vector<ByteView>& keys, uint32_t height) {
  for (const auto& [txid, previous] : undo.heights) {
    heights_.insert_or_assign(txid, height);
  }
  for (const auto& [hash, txid] : undo.listed) {
    addresses_[hash].push_back(txid);
  }
  for (size_t i = 0; i < keys.size(); ++i) {
    keys_.try_emplace(undo.revealed[i], keys[i].begin(), keys[i].end());
  }
}

void DerivedIndexes::remove_block(const IndexUndo& undo) noexcept {
  for (const std::string& address : undo.revealed) {
    keys_.erase(address);
  }
  for (auto listed = undo.listed.rbegin(); listed != undo.listed.rend(); ++listed) {
    const auto& [hash, txid] = *listed;
    const auto entry = addresses_.find(hash);
    if (entry == addresses_.end()) {
      continue;
    }
    std::vector<uint256>& list = entry->second;
    if (!list.empty() && list.back() == txid) {
      list.pop_back();
    }
    if (list.empty()) {
      addresses_.erase(entry);
    }
  }
  for (auto height = undo.heights.rbegin(); height != undo.heights.rend(); ++height) {
    const auto& [txid, previous] = *height;
    if (!previous) {
      heights_.erase(txid);
    } else if (const auto entry = heights_.find(txid); entry != heights_.end()) {
      entry->second = *previous;
    }
  }
}

void DerivedIndexes::clear() {
  heights_.clear();
  addresses_.clear();
  keys_.clear();
}

void DerivedIndexes::assign(HeightMap heights, AddressMap addresses, KeyMap keys) {
  heights_ = std::move(heights);
  addresses_ = std::move(addresses);
  keys_ = std::move(keys);
}

}  // namespace norvel
