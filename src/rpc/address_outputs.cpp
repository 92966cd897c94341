#include "rpc/address_outputs.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <queue>
#include <thread>
#include <tuple>

namespace norvel::rpc {

namespace {

// Outputs looked at under one hold of the set's lock, a fraction of a millisecond.
constexpr size_t kPieceOutputs = 4'096;

// Between two pieces: whoever takes a lock again at once keeps the others out.
constexpr std::chrono::microseconds kPiecePause{50};

// How often a walk is repeated for a chain that changes meanwhile.
constexpr int kWalksMax = 4;

// Collects one walk.
class Collector {
 public:
  Collector(const Bytes& pubkey_hash, size_t listed_max) : pubkey_hash_(pubkey_hash), listed_max_(listed_max) {}

  void look_at(const OutPoint& outpoint, const TxOut& output) {
    if (output.get_pubkey_hash() != pubkey_hash_) {
      return;
    }
    balance_ += static_cast<uint64_t>(output.value);
    ++count_;
    if (listed_max_ > 0) {
      largest_.push({output.value, outpoint});
      if (largest_.size() > listed_max_) {
        largest_.pop();
      }
    }
  }

  AddressOutputs result() {
    AddressOutputs found{static_cast<int64_t>(balance_), count_, {}};
    found.largest.reserve(largest_.size());
    for (; !largest_.empty(); largest_.pop()) {
      found.largest.push_back(largest_.top());
    }
    std::ranges::sort(found.largest, {}, &ListedOutput::outpoint);
    return found;
  }

 private:
  struct IsLarger {
    bool operator()(const ListedOutput& a, const ListedOutput& b) const {
      return std::tie(a.value, b.outpoint) > std::tie(b.value, a.outpoint);
    }
  };

  const Bytes& pubkey_hash_;
  const size_t listed_max_;
  uint64_t balance_ = 0;
  uint64_t count_ = 0;
  std::priority_queue<ListedOutput, std::vector<ListedOutput>, IsLarger> largest_;  // the smallest of them on top
};

AddressOutputs walk(const UTXOSet& utxos, const Bytes& pubkey_hash, size_t listed_max) {
  Collector collector(pubkey_hash, listed_max);
  const auto look_at = [&](const OutPoint& outpoint, const TxOut& output) { collector.look_at(outpoint, output); };
  std::optional<OutPoint> last = utxos.visit_after(std::nullopt, kPieceOutputs, look_at);
  while (last) {
    std::this_thread::sleep_for(kPiecePause);
    last = utxos.visit_after(last, kPieceOutputs, look_at);
  }
  return collector.result();
}

}  // namespace

AddressOutputs AddressOutputReader::read(const Blockchain& chain, const Bytes& pubkey_hash, size_t listed_max) {
  const MutexLock lock(mutex_);
  for (int walks_left = kWalksMax;; --walks_left) {
    const uint64_t change_number = chain.get_change_number();
    AddressOutputs found = walk(chain.get_utxo_set(), pubkey_hash, listed_max);
    if (walks_left == 1 || chain.get_change_number() == change_number) {
      return found;
    }
  }
}

}  // namespace norvel::rpc
