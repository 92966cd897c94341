// The RPC method getnodestatus: what an operator asks of a node, in one reply.
//
// Threads: the handler is safe from any thread.

#pragma once

#include <chrono>
#include <memory>

#include "node/warnings.h"
#include "rpc/method_handler.h"
#include "rpc/node_components.h"

namespace norvel::node {

inline constexpr const char kNodeStatusMethod[] = "getnodestatus";

// An object with "height", "tip" (hash), "tip_time" (seconds since the Unix
// epoch), "best_known_height" (of the peers), "synchronising" (a peer is ahead),
// "peers_in", "peers_out", "mempool_size" (transactions), "mempool_bytes",
// "treasury_balance" (base units), "difficulty", "warnings" (array of texts),
// "uptime" (seconds). All components must be there.
rpc::MethodHandler make_node_status_handler(rpc::NodeComponents components, std::shared_ptr<const Warnings> warnings,
                                            std::chrono::steady_clock::time_point start);

}  // namespace norvel::node
