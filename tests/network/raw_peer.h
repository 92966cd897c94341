// The other end of a connection, byte by byte, on loopback. Every wait is bounded,
// so that a faulty node fails a test instead of hanging it.

#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "core/file_io.h"
#include "network/message.h"
#include "network/payloads.h"

namespace norvel::network {

inline constexpr int kPatienceMs = 5'000;

inline bool eventually(const std::function<bool()>& holds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatienceMs);
  while (!holds()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

inline sockaddr_in loopback(const std::string& ip, uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  ::inet_pton(AF_INET, ip.c_str(), &address.sin_addr);
  return address;
}

inline int bind_to(int fd, const std::string& ip, uint16_t port) {
  const sockaddr_in address = loopback(ip, port);
  return ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

inline FileDescriptor new_socket() {
  return FileDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

inline uint16_t port_of(int fd) {
  sockaddr_in address{};
  socklen_t bytes = sizeof address;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &bytes);
  return ntohs(address.sin_port);
}

inline uint16_t free_port() {
  const FileDescriptor fd = new_socket();
  bind_to(fd.get(), "127.0.0.1", 0);
  return port_of(fd.get());
}

inline Message version_message(std::optional<uint16_t> port, uint64_t nonce = 5, uint64_t timestamp_s = 0,
                               uint32_t start_height = 0) {
  return {MessageType::VERSION, encode_version({.version = 70'015,
                                                .services = 1,
                                                .timestamp_s = timestamp_s,
                                                .start_height = start_height,
                                                .port = port,
                                                .user_agent = "raw",
                                                .nonce = nonce})};
}

class RawPeer {
 public:
  explicit RawPeer(FileDescriptor fd) : fd_(std::move(fd)) {}

  // Connects from `ip` to a node on 127.0.0.1.
  RawPeer(const std::string& ip, uint16_t node_port) : fd_(new_socket()) {
    bind_to(fd_.get(), ip, 0);
    const sockaddr_in address = loopback("127.0.0.1", node_port);
    ::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  }

  uint16_t port() const { return port_of(fd_.get()); }

  // Whether all went out within the patience, unless nobody reads.
  bool send(const Bytes& data) {
    size_t sent = 0;
    while (sent < data.size()) {
      pollfd waiting{fd_.get(), POLLOUT, 0};
      if (::poll(&waiting, 1, 500) <= 0) {
        return false;
      }
      const ssize_t some = ::send(fd_.get(), data.data() + sent, data.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (some < 0) {
        return false;
      }
      sent += static_cast<size_t>(some);
    }
    return true;
  }
  bool send(const Message& message) { return send(message.serialize()); }

  // The next message of that type; those before it are dropped.
  std::optional<Message> await(MessageType type) {
    while (auto message = next()) {
      if (message->type == type) {
        return message;
      }
    }
    return std::nullopt;
  }

  // The next message; nothing when the connection has ended or the patience has.
  std::optional<Message> next() {
    while (true) {
      if (auto message = Message::deserialize(buffer_, kPayloadBytesMax)) {
        buffer_.erase(buffer_.begin(),
                      buffer_.begin() + static_cast<std::ptrdiff_t>(kFrameHeaderBytes + message->payload.size()));
        return message;
      }
      if (!receive()) {
        return std::nullopt;
      }
    }
  }

  // Whether the node has ended the connection, what it sent before is dropped.
  bool is_closed() {
    while (receive()) {
    }
    return ended_;
  }

  // Introduces itself and waits until the node has taken it.
  void shake_hands(std::optional<uint16_t> announced_port) {
    send(version_message(announced_port));
    send(Message{MessageType::VERACK, {}});
    await(MessageType::GETADDR);
  }

  // Whether the node answers.
  bool is_served() {
    send(Message{MessageType::PING, {1, 2, 3}});
    const auto pong = await(MessageType::PONG);
    return pong && pong->payload == Bytes{1, 2, 3};
  }

 private:
  bool receive() {
    pollfd waiting{fd_.get(), POLLIN, 0};
    if (::poll(&waiting, 1, kPatienceMs) <= 0) {
      return false;
    }
    std::array<uint8_t, 65'536> chunk;
    const ssize_t received = ::recv(fd_.get(), chunk.data(), chunk.size(), 0);
    if (received <= 0) {
      ended_ = true;
      return false;
    }
    append(buffer_, ByteView(chunk).first(static_cast<size_t>(received)));
    return true;
  }

  FileDescriptor fd_;
  Bytes buffer_;
  bool ended_ = false;
};

// Waits for nodes that dial.
class RawListener {
 public:
  explicit RawListener(const std::string& ip = "127.0.0.1", int backlog = 8) : fd_(new_socket()) {
    bind_to(fd_.get(), ip, 0);
    ::listen(fd_.get(), backlog);
  }

  uint16_t port() const { return port_of(fd_.get()); }

  std::optional<RawPeer> accept(int timeout_ms = kPatienceMs) {
    pollfd waiting{fd_.get(), POLLIN, 0};
    if (::poll(&waiting, 1, timeout_ms) <= 0) {
      return std::nullopt;
    }
    return RawPeer(FileDescriptor(::accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC)));
  }

 private:
  FileDescriptor fd_;
};

}  // namespace norvel::network
