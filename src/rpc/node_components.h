// What the methods of a node work on, shared with connection threads that may
// outlive the server.

#pragma once

#include <memory>

namespace norvel {

class Blockchain;
class Mempool;

namespace network {
class NetworkManager;
}

namespace rpc {

// Each may be null; methods that need it then refuse.
struct NodeComponents {
  std::shared_ptr<Blockchain> chain;
  std::shared_ptr<Mempool> pool;
  std::shared_ptr<network::NetworkManager> network;
};

}  // namespace rpc
}  // namespace norvel
