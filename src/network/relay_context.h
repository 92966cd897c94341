// What the parts of the relay share: the connections, the clock, the log, and
// the chain and pool, either of which may be missing.
//
// Threads: constant once the relay is attached; what it points to is safe from
// any thread.

#pragma once

#include <memory>

#include "chain/blockchain.h"
#include "mempool/mempool.h"
#include "network/log_limiter.h"
#include "network/network_callbacks.h"
#include "network/network_clock.h"
#include "network/peer.h"
#include "network/peer_access.h"

namespace norvel::network {

using PeerPtr = std::shared_ptr<Peer>;

struct RelayContext {
  PeerAccess& peers;
  const NetworkClock& clock;
  LogLimiter& log;
  const NetworkCallbacks& callbacks;
  Blockchain* chain = nullptr;
  Mempool* pool = nullptr;
};

// Queues an INV of one item for every peer with a complete handshake.
void announce(const RelayContext& context, uint8_t type, const uint256& hash);

}  // namespace norvel::network
