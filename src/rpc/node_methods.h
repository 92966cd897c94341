// The methods that a node offers, by name, in the order of their registration.
//
// Threads: free functions without state; the handlers are safe from any thread
// and keep the components alive.

#pragma once

#include <string>
#include <vector>

#include "rpc/method_handler.h"
#include "rpc/node_components.h"

namespace norvel::rpc {

struct NodeMethod {
  std::string name;
  MethodHandler handler;
  CallWeight weight = CallWeight::kLight;
};

// All methods. A handler whose component is missing refuses.
std::vector<NodeMethod> make_node_methods(const NodeComponents& components);

// Those that a miner without credentials may call: getblocktemplate, submitblock
// and getblockcount.
std::vector<NodeMethod> make_mining_methods(const NodeComponents& components);

}  // namespace norvel::rpc
