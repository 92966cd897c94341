// What the network manager tells its owner.

#pragma once

#include <functional>
#include <string>

#include "core/block.h"
#include "core/transaction.h"

namespace norvel::network {

// Each may be empty; called without locks, from the network's threads.
struct NetworkCallbacks {
  std::function<void(const Block&)> block_received;
  std::function<void(const Transaction&)> transaction_received;
  std::function<void(const std::string& peer_key)> peer_connected;  // handshake complete
  std::function<void(const std::string& peer_key)> peer_disconnected;
};

}  // namespace norvel::network
