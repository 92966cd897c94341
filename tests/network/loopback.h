// Sockets of the loopback network. Every wait is bounded, so that a faulty
// program fails a test instead of hanging it.

#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>

#include "core/file_io.h"

namespace norvel::network {

inline constexpr int kPatienceMs = 10'000;

inline sockaddr_in loopback_address(const std::string& ip, uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  ::inet_pton(AF_INET, ip.c_str(), &address.sin_addr);
  return address;
}

// A socket with this name, on a port of the system's choice.
inline FileDescriptor bound_socket(const std::string& ip) {
  FileDescriptor fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in address = loopback_address(ip, 0);
  ::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  return fd;
}

inline bool connect_to(int fd, const std::string& ip, uint16_t port) {
  const sockaddr_in address = loopback_address(ip, port);
  return ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

inline uint16_t port_of(int fd) {
  sockaddr_in address{};
  socklen_t bytes = sizeof address;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &bytes);
  return ntohs(address.sin_port);
}

// Whether there is something to accept or receive, or the peer closes, within `timeout_ms`.
inline bool wait_readable(int fd, int timeout_ms = kPatienceMs) {
  pollfd waiting{fd, POLLIN, 0};
  return ::poll(&waiting, 1, timeout_ms) > 0;
}

class Listener {
 public:
  explicit Listener(const std::string& ip = "127.0.0.1", int backlog = 16) : fd_(bound_socket(ip)) {
    ::listen(fd_.get(), backlog);
  }

  int fd() const { return fd_.get(); }
  uint16_t port() const { return port_of(fd()); }

  // The next connection; none when nobody has come in time.
  FileDescriptor accept(int timeout_ms = kPatienceMs) const {
    return FileDescriptor(wait_readable(fd(), timeout_ms) ? ::accept4(fd(), nullptr, nullptr, SOCK_CLOEXEC) : -1);
  }

 private:
  const FileDescriptor fd_;
};

}  // namespace norvel::network
