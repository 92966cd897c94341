#include "node/stop_request.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <stdexcept>

namespace norvel::node {

StopRequest::StopRequest() : event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!event_.is_open()) {
    throw std::runtime_error("no descriptor is left for the stop event");
  }
}

void StopRequest::request(int exit_status) {
  int none = kNone;
  if (status_.compare_exchange_strong(none, exit_status)) {
    eventfd_write(event_.get(), 1);
  }
}

int StopRequest::exit_status() const {
  const int status = status_;
  return status == kNone ? 0 : status;
}

bool StopRequest::wait(int64_t timeout_ms) const {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd waiting{event_.get(), POLLIN, 0};
    const int64_t step = std::clamp<int64_t>(left, 0, std::numeric_limits<int>::max());
    if (poll(&waiting, 1, static_cast<int>(step)) >= 0 || errno != EINTR) {
      return is_requested();
    }
  }
}

}  // namespace norvel::node
