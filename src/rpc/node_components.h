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

class TemplateBuilder;

// Each may be null; methods that need it then refuse.
struct NodeComponents {
  std::shared_ptr<Blockchain> chain;
  std::shared_ptr<Mempool> pool;
  std::shared_ptr<network::NetworkManager> network;

  // Over chain and pool, for servers that share one; each makes its own without.
  std::shared_ptr<TemplateBuilder> templates = nullptr;
};

}  // namespace rpc
}  // namespace norvel
