#include "rpc/http_exchange.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <ctime>
#include <optional>
#include <stdexcept>
#include <string_view>

#include "core/file_io.h"
#include "rpc/http_text.h"

namespace norvel::rpc {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Longest wait between two questions whether to cut.
constexpr milliseconds kWaitSlice{50};

// Once the time of the whole exchange is seen to be up, bytes that are there
// already are taken for this long; a peer that never pauses must not go on for
// ever.
constexpr milliseconds kLastLooks{1'000};

constexpr const char kNoSocket[] = "Failed to create socket";
constexpr const char kNoConnection[] = "Failed to connect to RPC server at ";
constexpr const char kNoSend[] = "Failed to send request";

// Outcome of a wait and of the steps built on it.
enum class Step {
  kDone,
  kFailed,  // an error, or the step's own time is up
  kEnded,   // cut, or the time of the whole exchange is up
};

class Socket {
 public:
  Socket() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    if (fd_ < 0) {
      throw std::runtime_error(kNoSocket);
    }
  }
  ~Socket() { ::close(fd_); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  int fd() const { return fd_; }

 private:
  const int fd_;
};

// Waits under the caller's control. Single-threaded.
class Waiter {
 public:
  Waiter(const ExchangeControl& control, const ExchangeTimeouts& timeouts)
      : control_(control), step_(timeouts.step_ms), whole_deadline_(Clock::now() + milliseconds(timeouts.whole_ms)) {}

  // Handles the signals that are pending, then asks the caller. A wait for a
  // descriptor that is ready handles none, so a peer that never pauses would
  // otherwise keep them out.
  bool is_cut() const {
    if (control_.wait_mask != nullptr) {
      const timespec at_once{};
      ::ppoll(nullptr, 0, &at_once, control_.wait_mask);
    }
    return control_.cut && control_.cut();
  }

  // Waits at most one step's time until `fd` is ready for `events`.
  Step wait(int fd, short events) {
    const Clock::time_point step_deadline = Clock::now() + step_;
    while (!is_cut()) {
      const Clock::time_point now = Clock::now();
      if (now >= whole_deadline_) {
        last_looks_end_ = last_looks_end_.value_or(now + kLastLooks);
        if (now >= *last_looks_end_) {
          return Step::kEnded;
        }
      }
      // Looks once more after a time is up: what came while the process was suspended is not lost.
      const Clock::duration left = std::min(whole_deadline_, step_deadline) - now;
      const timespec slice = to_timespec(std::clamp<Clock::duration>(left, Clock::duration::zero(), kWaitSlice));
      pollfd waiting{fd, events, 0};
      const int ready = ::ppoll(&waiting, 1, &slice, control_.wait_mask);
      if (ready > 0) {
        return Step::kDone;
      }
      if (now >= whole_deadline_) {
        return Step::kEnded;
      }
      if ((ready < 0 && errno != EINTR) || now >= step_deadline) {
        return Step::kFailed;
      }
    }
    return Step::kEnded;
  }

 private:
  static timespec to_timespec(Clock::duration duration) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
    const std::chrono::nanoseconds rest = duration - seconds;
    return {static_cast<time_t>(seconds.count()), static_cast<long>(rest.count())};
  }

  const ExchangeControl& control_;
  const milliseconds step_;
  const Clock::time_point whole_deadline_;
  std::optional<Clock::time_point> last_looks_end_;  // set when the time of the whole was first seen to be up
};

Step connect_to(const Socket& socket, const std::string& host, uint16_t port, Waiter& waiter) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (::inet_aton(host.c_str(), &address.sin_addr) == 0) {
    return Step::kFailed;
  }
  if (::connect(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    return Step::kDone;
  }
  if (errno != EINPROGRESS && errno != EINTR) {
    return Step::kFailed;
  }
  const Step waited = waiter.wait(socket.fd(), POLLOUT);
  if (waited != Step::kDone) {
    return waited;
  }
  int error = 0;
  socklen_t error_bytes = sizeof error;
  const int asked = ::getsockopt(socket.fd(), SOL_SOCKET, SO_ERROR, &error, &error_bytes);
  return asked == 0 && error == 0 ? Step::kDone : Step::kFailed;
}

Step send_all(const Socket& socket, std::string_view unsent, Waiter& waiter) {
  while (!unsent.empty()) {
    const Step waited = waiter.wait(socket.fd(), POLLOUT);
    if (waited != Step::kDone) {
      return waited;
    }
    const ssize_t sent = ::send(socket.fd(), unsent.data(), unsent.size(), MSG_NOSIGNAL);
    if (sent >= 0) {
      unsent.remove_prefix(static_cast<size_t>(sent));
    } else if (!would_block(errno)) {
      return Step::kFailed;
    }
  }
  return Step::kDone;
}

HttpExchange receive_reply(const Socket& socket, Waiter& waiter) {
  HttpExchange exchange;
  std::array<char, kChunkBytesMax> chunk;
  for (;;) {
    const Step waited = waiter.wait(socket.fd(), POLLIN);
    if (waited != Step::kDone) {
      exchange.was_cut = waited == Step::kEnded;
      return exchange;
    }
    const ssize_t received = ::recv(socket.fd(), chunk.data(), chunk.size(), 0);
    if (received < 0 && would_block(errno)) {
      continue;
    }
    if (received <= 0 || exchange.reply.append({chunk.data(), static_cast<size_t>(received)})) {
      return exchange;
    }
  }
}

}  // namespace

std::string build_http_request(const std::string& host, uint16_t port, const std::string& body) {
  std::string request = "POST / HTTP/1.1\r\nHost: " + host + ":" + std::to_string(port) +
                        "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
                        "\r\nConnection: close\r\n\r\n";
  request += body;
  return request;
}

HttpExchange send_http_request(const std::string& host, uint16_t port, const std::string& request,
                               const ExchangeControl& control, const ExchangeTimeouts& timeouts) {
  HttpExchange cut{HttpReply(), true};
  Waiter waiter(control, timeouts);
  if (waiter.is_cut()) {
    return cut;
  }
  const Socket socket;
  const Step connected = connect_to(socket, host, port, waiter);
  if (connected == Step::kFailed) {
    throw std::runtime_error(kNoConnection + host + ":" + std::to_string(port));
  }
  const Step sent = connected == Step::kDone ? send_all(socket, request, waiter) : Step::kEnded;
  if (sent == Step::kFailed) {
    throw std::runtime_error(kNoSend);
  }
  return sent == Step::kDone ? receive_reply(socket, waiter) : cut;
}

}  // namespace norvel::rpc
