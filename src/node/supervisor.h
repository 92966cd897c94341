// The main thread of a node: waits for signals while the work is done on a
// thread of its own, and sees to it that a stop does not take for ever.
//
// SIGINT and SIGTERM ask for a stop; SIGHUP has the log file opened anew. All
// three are blocked in every thread and read from a descriptor, so that no
// handler interrupts anything. A SIGINT or SIGTERM that was sent to another thread
// alone is found within a second.
//
// Threads: main thread only.

#pragma once

#include <cstdint>
#include <functional>

#include "node/stop_request.h"

namespace norvel::node {

// From the request to the end of the process, whatever the work is doing.
inline constexpr int64_t kStopDeadlineMs = 9'000;

// Before any other thread exists. Ignores SIGPIPE too.
void block_signals();

struct Supervised {
  std::function<int()> work;        // returns the exit status; its exceptions end the node with status 1
  std::function<void()> on_stop;    // once, when a stop was requested; must not wait
  std::function<void()> on_hangup;  // at each SIGHUP
  int signalled_status = 0;         // the exit status that SIGINT and SIGTERM ask for
};

// Runs the work to its end and returns its status; what the other two throw is
// passed over. When it has not ended
// `deadline_ms` after the request, ends the process with the request's.
int supervise(const Supervised& supervised, StopRequest& stop, int64_t deadline_ms = kStopDeadlineMs);

}  // namespace norvel::node
