// The node: makes its components, starts them in order, watches them, and stops
// them. One thread lives in run(); peers and RPC clients are served by threads of
// the components.
//
// RPC connections may outlive the server, so all that a handler touches is
// shared-owned; when one is still there at the end, run() ends the process. The
// components end inside run() too, where the deadline of a stop still counts.
//
// Threads: run() on one thread; request_stop() from any.

#pragma once

#include <memory>

#include "core/sync.h"
#include "node/node_params.h"
#include "node/options.h"
#include "node/stop_request.h"

namespace norvel::node {

inline constexpr int kExitStopped = 0;
inline constexpr int kExitFailed = 1;   // no start, or nothing to go on with: the lines above say why
inline constexpr int kExitRebuild = 2;  // a rebuild was under way and is not done

class Node {
 public:
  // Opens nothing. The difficulty rule is set by the caller. `stop` outlives the node.
  Node(const Options& options, const NodeParams& params, StopRequest& stop);
  ~Node();

  // From start to end, once; returns the exit status. Ends the process with it when
  // threads of the components do not end in time.
  int run() EXCLUDES(mutex_);

  // Ends long work; run() then finds the request that was made.
  void request_stop() EXCLUDES(mutex_);

 private:
  struct State;

  Mutex mutex_;                                      // leaf
  std::unique_ptr<State> state_ GUARDED_BY(mutex_);  // null once run() has ended
};

}  // namespace norvel::node
