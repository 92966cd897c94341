// What relay and synchronisation need of the connections.

#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "network/message.h"
#include "network/peer.h"

namespace norvel::network {

// Threads: safe from any thread; holds no lock when it returns.
class PeerAccess {
 public:
  virtual ~PeerAccess() = default;

  // Live peers with a complete handshake, in the order of their keys.
  virtual std::vector<std::shared_ptr<Peer>> handshaken_peers() const = 0;

  // "address:port", by which the peer stands in the table.
  virtual std::string key_of(const Peer& peer) const = 0;

  // Queues `message`; false when the peer is gone or its queue full.
  virtual bool send_message_to_peer(const std::shared_ptr<Peer>& peer, const Message& message) = 0;

  // May ban and disconnect the peer: look at is_closed afterwards.
  virtual void add_misbehavior(const Peer& peer, uint32_t points) = 0;
};

}  // namespace norvel::network
