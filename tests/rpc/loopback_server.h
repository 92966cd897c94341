// A TCP peer on 127.0.0.1: a thread that accepts one connection after the other, reads a whole HTTP request and lets
// the test answer. Every wait is bounded, so that a faulty client fails a test instead of hanging it.

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
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace norvel::rpc {

inline constexpr int kPatienceMs = 10'000;

// A socket that listens on a port of the system's choice.
class Listener {
 public:
  Listener() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t bytes = sizeof address;
    ::bind(fd_, reinterpret_cast<sockaddr*>(&address), bytes);
    ::listen(fd_, 16);
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &bytes);
    port_ = ntohs(address.sin_port);
  }
  ~Listener() { ::close(fd_); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  int fd() const { return fd_; }
  uint16_t port() const { return port_; }

 private:
  const int fd_;
  uint16_t port_ = 0;
};

// Whether there is something to accept or receive, or the peer closes, within `timeout_ms`.
inline bool wait_readable(int fd, int timeout_ms = kPatienceMs) {
  pollfd waiting{fd, POLLIN, 0};
  return ::poll(&waiting, 1, timeout_ms) > 0;
}

inline void send_text(int fd, std::string_view text) {
  ::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
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
        const int peer = ::accept4(listener_.fd(), nullptr, nullptr, SOCK_CLOEXEC);
        requests_.push_back(read_request(peer));
        answer_(peer);
        ::close(peer);
      }
    }
  }

  static std::string read_request(int fd) {
    constexpr std::string_view kLength = "Content-Length: ";
    std::string request;
    std::array<char, 65'536> chunk;
    for (size_t wanted = std::string::npos; request.size() < wanted && wait_readable(fd);) {
      const ssize_t received = ::recv(fd, chunk.data(), chunk.size(), 0);
      if (received <= 0) {
        break;
      }
      request.append(chunk.data(), static_cast<size_t>(received));
      const size_t blank_line = request.find("\r\n\r\n");
      if (blank_line != std::string::npos) {
        wanted = blank_line + 4 + std::stoul(request.substr(request.find(kLength) + kLength.size(), 9));
      }
    }
    return request;
  }

  const Listener listener_;
  const Answer answer_;
  std::vector<std::string> requests_;  // the thread's until it is joined
  std::atomic<bool> stopped_{false};   // set by the test, polled by the thread
  std::thread thread_;
};

}  // namespace norvel::rpc
