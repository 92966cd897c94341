// A TCP peer on 127.0.0.1: a thread that accepts one connection after the other, reads a whole HTTP request and lets
// the test answer.

#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "network/loopback.h"

namespace norvel::rpc {

using network::kPatienceMs;
using network::Listener;
using network::loopback_address;
using network::wait_readable;

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
      if (const FileDescriptor peer = listener_.accept(10); peer.is_open()) {
        requests_.push_back(read_request(peer.get()));
        answer_(peer.get());
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
