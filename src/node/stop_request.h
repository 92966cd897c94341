// The wish that the node stops, with the exit status that it then leaves with.
// Made once: by a signal, or by the node itself when it cannot go on.
//
// Threads: safe from any thread.

#pragma once

#include <atomic>
#include <cstdint>

#include "core/file_io.h"

namespace norvel::node {

class StopRequest {
 public:
  // Throws std::runtime_error when the system gives no descriptor.
  StopRequest();

  // The first request decides the status; later ones do nothing.
  void request(int exit_status);

  bool is_requested() const { return status_ != kNone; }

  // 0 before a request.
  int exit_status() const;

  // Whether the request came within `timeout_ms`.
  bool wait(int64_t timeout_ms) const;

  // Readable from the request on.
  int fd() const { return event_.get(); }

 private:
  static constexpr int kNone = -1;

  const FileDescriptor event_;

  // Written once by request(); a reader that is late looks again at its next step.
  std::atomic<int> status_{kNone};
};

}  // namespace norvel::node
