// Answers what peers ask for: GETDATA, GETBLOCKS and MEMPOOL, from lists of what
// is pending, piece by piece.
//
// Limits for each peer: kPendingItemsMax items of GETDATA; one GETBLOCKS, the
// newest; one MEMPOOL at a time, once in kMempoolIntervalMs. Peers share the
// list of the pool, which is made once in 15 s; an answer ends, whole or not,
// when its list is 60 s old.
//
// Errors: std::bad_alloc at most. Threads: message handler's thread only.

#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include "network/message.h"
#include "network/payloads.h"
#include "network/relay_context.h"

namespace norvel::network {

inline constexpr size_t kPendingItemsMax = 50'000;
inline constexpr int64_t kMempoolIntervalMs = 60'000;
inline constexpr size_t kQueuedBytesMax = 1 << 20;  // no work for a peer that has more waiting to be written
inline constexpr size_t kPassBytesMax = 1 << 20;    // for one peer in one pass

// What one pass may still send to one peer.
class PassBudget {
 public:
  PassBudget(const RelayContext& context, const PeerPtr& peer, int64_t deadline_ms)
      : context_(context), peer_(peer), deadline_ms_(deadline_ms) {}

  bool allows_more() const;

  // False when the connection did not take it.
  bool send(MessageType type, Bytes payload);

  const PeerPtr& peer() const { return peer_; }

 private:
  const RelayContext& context_;
  const PeerPtr& peer_;
  const int64_t deadline_ms_;
  size_t sent_bytes_ = 0;
};

// The pool's ids, best fee rate first.
struct MempoolList {
  std::vector<uint256> txids;
  int64_t made_ms = 0;
};

// What a peer has asked for and not got yet.
struct PendingAnswers {
  std::deque<InvVector> items;
  std::optional<GetBlocksPayload> blocks;

  std::shared_ptr<const MempoolList> mempool;  // null: no MEMPOOL is being answered
  size_t announced = 0;                        // of its ids
  std::optional<int64_t> mempool_asked_ms;
};

class InventoryServer {
 public:
  explicit InventoryServer(const RelayContext& context) : context_(context) {}

  void ask_for_items(PendingAnswers& pending, const Bytes& payload) const;
  void ask_for_blocks(PendingAnswers& pending, const Bytes& payload) const;
  void ask_for_mempool(PendingAnswers& pending);

  // Answers until nothing is pending or the budget is used up.
  void answer(PendingAnswers& pending, PassBudget& budget) const;

  // Lets go of a list that is not handed out any more.
  void drop_old_list();

 private:
  bool answer_item(const InvVector& item, PassBudget& budget) const;
  bool answer_blocks(const GetBlocksPayload& range, PassBudget& budget) const;
  bool answer_mempool(PendingAnswers& pending, PassBudget& budget) const;
  void end_mempool(PendingAnswers& pending, const PeerPtr& peer) const;

  const RelayContext& context_;
  std::shared_ptr<const MempoolList> list_;  // the last one made
};

}  // namespace norvel::network
