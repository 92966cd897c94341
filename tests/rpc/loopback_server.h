// A TCP peer on 127.0.0.1 for tests of the RPC client: a thread that accepts one
// connection after the other, reads a whole HTTP request and lets the test
// answer. Every wait is bounded, so that a faulty client fails a test instead of
// hanging it.

#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace norvel::rpc {

inline constexpr int kPatienceMs = 10'000;

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {
    if (fd_ < 0) {
      throw std::runtime_error("no descriptor");
    }
  }
  ~Fd() { ::close(fd_); }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;

  int get() const { return fd_; }

 private:
  const int fd_;
};

inline sockaddr_in loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// A socket that listens on a port of the system's choice.
class Listener {
 public:
  explicit Listener(int backlog) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = loopback(0);
    socklen_t bytes = sizeof address;
    if (::bind(fd_.get(), reinterpret_cast<sockaddr*>(&address), bytes) != 0 || ::listen(fd_.get(), backlog) != 0 ||
        ::getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&address), &bytes) != 0) {
      throw std::runtime_error("cannot listen");
    }
    port_ = ntohs(address.sin_port);
  }

  int fd() const { return fd_.get(); }
  uint16_t port() const { return port_; }

 private:
  Fd fd_;
  uint16_t port_ = 0;
};

inline bool wait_readable(int fd, int timeout_ms) {
  pollfd waiting{fd, POLLIN, 0};
  return ::poll(&waiting, 1, timeout_ms) > 0;
}

inline bool send_text(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t sent = ::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
    if (sent <= 0) {
      return false;
    }
    text.remove_prefix(static_cast<size_t>(sent));
  }
  return true;
}

// Whether the peer closes (or sends on) within `timeout_ms`.
inline bool peer_closes(int fd, int timeout_ms = kPatienceMs) {
  return wait_readable(fd, timeout_ms);
}

class LoopbackServer {
 public:
  // Runs on the server's thread with the connection, which is closed afterwards.
  using Answer = std::function<void(int fd)>;

  explicit LoopbackServer(Answer answer) : answer_(std::move(answer)), thread_([this] { serve(); }) {}

  // Answers every request with the same text.
  explicit LoopbackServer(std::string reply)
      : LoopbackServer([text = std::move(reply)](int fd) { send_text(fd, text); }) {}

  ~LoopbackServer() { stop(); }

  uint16_t port() const { return listener_.port(); }

  // Stops the server; returns the requests it has read.
  const std::vector<std::string>& stop() {
    stopped_ = true;
    if (thread_.joinable()) {
      thread_.join();
    }
    return requests_;
  }

 private:
  void serve() {
    while (!stopped_) {
      if (wait_readable(listener_.fd(), 10)) {
        const Fd peer(::accept4(listener_.fd(), nullptr, nullptr, SOCK_CLOEXEC));
        requests_.push_back(read_request(peer.get()));
        answer_(peer.get());
      }
    }
  }

  static std::string read_request(int fd) {
    std::string request;
    std::array<char, 65'536> chunk;
    while (!is_whole(request) && wait_readable(fd, kPatienceMs)) {
      const ssize_t received = ::recv(fd, chunk.data(), chunk.size(), 0);
      if (received <= 0) {
        break;
      }
      request.append(chunk.data(), static_cast<size_t>(received));
    }
    return request;
  }

  static bool is_whole(const std::string& request) {
    constexpr std::string_view kLength = "Content-Length: ";
    const size_t length_at = request.find(kLength);
    const size_t blank_line = request.find("\r\n\r\n");
    return length_at < blank_line && blank_line != std::string::npos &&
           request.size() - blank_line - 4 >= std::stoul(request.substr(length_at + kLength.size(), 9));
  }

  const Listener listener_{16};
  const Answer answer_;
  std::vector<std::string> requests_;  // the thread's until it is joined
  std::atomic<bool> stopped_{false};   // set by the test, polled by the thread
  std::thread thread_;
};

}  // namespace norvel::rpc
