#include "mempool/mempool_selection.h"

#include <algorithm>
#include <cstddef>
#include <queue>
#include <tuple>

namespace norvel {

namespace {

// The pool's transactions by position in the order of their ids.
struct DependencyGraph {
  std::vector<const MempoolEntry*> entries;
  std::vector<uint32_t> parent_counts;               // a parent counts once for each output that is spent
  std::vector<std::pair<uint32_t, uint32_t>> edges;  // (parent, child), by parent
};

// Spenders and entries are both ordered by transaction id, so one walk over both
// finds the parents.
DependencyGraph make_graph(const std::map<uint256, MempoolEntry>& entries, const OutpointSpenders& spenders) {
  DependencyGraph graph;
  std::vector<const uint256*> ids;
  graph.entries.reserve(entries.size());
  ids.reserve(entries.size());
  for (const auto& [txid, entry] : entries) {
    ids.push_back(&txid);
    graph.entries.push_back(&entry);
  }
  graph.parent_counts.resize(ids.size());
  uint32_t parent = 0;
  for (const auto& [outpoint, spender] : spenders) {
    while (parent < ids.size() && *ids[parent] < outpoint.txid) {
      ++parent;
    }
    if (parent == ids.size()) {
      break;
    }
    if (*ids[parent] == outpoint.txid) {
      const auto found = std::lower_bound(ids.begin(), ids.end(), spender,
                                          [](const uint256* id, const uint256& sought) { return *id < sought; });
      const auto child = static_cast<uint32_t>(found - ids.begin());
      ++graph.parent_counts[child];
      graph.edges.emplace_back(parent, child);
    }
  }
  return graph;
}

}  // namespace

std::vector<const MempoolEntry*> select_for_block(const std::map<uint256, MempoolEntry>& entries,
                                                  const OutpointSpenders& spenders, uint64_t max_bytes) {
  DependencyGraph graph = make_graph(entries, spenders);
  const auto is_worse = [&graph](uint32_t a, uint32_t b) {
    const MempoolEntry& left = *graph.entries[a];
    const MempoolEntry& right = *graph.entries[b];
    return std::tuple(left.fee_rate, right.time, b) < std::tuple(right.fee_rate, left.time, a);
  };
  std::priority_queue<uint32_t, std::vector<uint32_t>, decltype(is_worse)> eligible(is_worse);
  for (uint32_t i = 0; i < graph.entries.size(); ++i) {
    if (graph.parent_counts[i] == 0) {
      eligible.push(i);
    }
  }
  std::vector<const MempoolEntry*> selected;
  uint64_t bytes_left = max_bytes;
  while (!eligible.empty()) {
    const uint32_t best = eligible.top();
    eligible.pop();
    const MempoolEntry* entry = graph.entries[best];
    if (entry->size > bytes_left) {
      continue;
    }
    bytes_left -= entry->size;
    selected.push_back(entry);
    for (auto edge = std::lower_bound(graph.edges.begin(), graph.edges.end(), std::pair(best, uint32_t{0}));
         edge != graph.edges.end() && edge->first == best; ++edge) {
      if (--graph.parent_counts[edge->second] == 0) {
        eligible.push(edge->second);
      }
    }
  }
  return selected;
}

}  // namespace norvel
