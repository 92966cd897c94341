// The other end of a connection of the peer protocol, byte by byte.

#pragma once

#include <array>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "network/loopback.h"
#include "network/message.h"
#include "network/payloads.h"

namespace norvel::network {

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

inline uint16_t free_port() {
  return port_of(bound_socket("127.0.0.1").get());
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
  // Connected to a node that dialled.
  explicit RawPeer(FileDescriptor fd) : fd_(std::move(fd)) {}

  // Connects from `ip` to a node on 127.0.0.1.
  RawPeer(const std::string& ip, uint16_t node_port) : fd_(bound_socket(ip)) {
    connect_to(fd_.get(), "127.0.0.1", node_port);
  }

  uint16_t port() const { return port_of(fd_.get()); }
  void hang_up() { fd_.close(); }

  // Whether all went out, unless nobody reads.
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
  bool send(MessageType type, Bytes payload = {}) { return send(Message{type, std::move(payload)}); }

  // The next message; nothing when the connection has ended or the patience has.
  std::optional<Message> next() {
    do {
      if (auto message = Message::deserialize(buffer_, kPayloadBytesMax)) {
        buffer_.erase(buffer_.begin(),
                      buffer_.begin() + static_cast<std::ptrdiff_t>(kFrameHeaderBytes + message->payload.size()));
        return message;
      }
    } while (receive());
    return std::nullopt;
  }

  // The payload of the next message of that type; those before it are dropped.
  std::optional<Bytes> await(MessageType type) {
    while (auto message = next()) {
      if (message->type == type) {
        return std::move(message->payload);
      }
    }
    return std::nullopt;
  }

  // Whether the node has ended the connection, what it sent before is dropped.
  bool is_closed() {
    while (receive()) {
    }
    return ended_;
  }

  // Introduces itself and waits until the node has taken it.
  void shake_hands(std::optional<uint16_t> announced_port = {}) {
    send(version_message(announced_port));
    send(MessageType::VERACK);
    await(MessageType::GETADDR);
  }

  // Whether the node answers.
  bool is_served() {
    send(MessageType::PING, {1, 2, 3});
    return await(MessageType::PONG) == Bytes{1, 2, 3};
  }

 private:
  bool receive() {
    if (!wait_readable(fd_.get())) {
      return false;
    }
    std::array<uint8_t, 65'536> chunk;
    const ssize_t received = ::recv(fd_.get(), chunk.data(), chunk.size(), 0);
    ended_ = received <= 0;
    append(buffer_, ByteView(chunk).first(ended_ ? 0 : static_cast<size_t>(received)));
    return !ended_;
  }

  FileDescriptor fd_;
  Bytes buffer_;
  bool ended_ = false;
};

}  // namespace norvel::network
