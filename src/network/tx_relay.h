// Transactions from peers and from RPC: into the pool, on to the other peers, or
// into the orphan pool until their parents come.
//
// Errors: std::bad_alloc at most. Threads: safe from any thread, but for
// receive() and go_on(): message handler's thread only. Holds no lock while
// chain, pool, peers or the console are called.

#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "core/sync.h"
#include "core/transaction.h"
#include "mempool/admission.h"
#include "network/relay_context.h"
#include "network/timed_memory.h"
#include "network/tx_orphan_pool.h"

namespace norvel::network {

// For offering orphans, of each pass of the message handler; one transaction's
// scripts may exceed it.
inline constexpr int64_t kOrphanShareMs = 100;

class TxRelay {
 public:
  explicit TxRelay(const RelayContext& context);

  void receive(const PeerPtr& sender, const Bytes& payload);

  // Checks whatever is offered, also what was over the script budget a moment ago.
  AdmissionOutcome try_accept(const Transaction& tx, std::string& reason);

  void add_orphan(const Transaction& tx, const std::string& peer_key);

  // Removes the expired and offers those whose missing output has appeared, until
  // nothing more is accepted, for at most 200 ms; go_on() does the rest. What
  // receive() and go_on() do of this takes at most kOrphanShareMs from one
  // go_on() to the next.
  void process_orphans();

  // Leaves a pass to the next go_on(), on the message handler's thread.
  void offer_orphans_soon() { pass_due_ = true; }
  void go_on();

 private:
  AdmissionOutcome accept_once(const Transaction& tx, std::string& reason) EXCLUDES(mutex_);
  bool is_verified(const Transaction& tx) const;
  void remove_expired();
  void process_in_share();
  void offer_orphans(int64_t deadline_ms);
  bool offer_again(const TxOrphanPool::Waiting& waiting);
  bool has_output(const OutPoint& outpoint) const;
  std::optional<OutPoint> find_missing(const Transaction& tx) const;

  const RelayContext& context_;
  TxOrphanPool orphans_;
  // Set by any thread, taken by the message handler's; seen late, the pass waits a little longer.
  std::atomic<bool> pass_due_{false};

  int64_t share_left_ms_ = kOrphanShareMs;  // message handler's thread only

  Mutex mutex_;                                     // leaf
  TimedMemory<uint256> costly_ GUARDED_BY(mutex_);  // over the script budget
};

}  // namespace norvel::network
