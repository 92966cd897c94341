#include "network/listener.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <memory>
#include <utility>

#include "core/console.h"
#include "network/address_text.h"

namespace norvel::network {

namespace {

constexpr int kBacklog = 32;
constexpr int kWaitMs = 50;
constexpr const char kAny[] = "0.0.0.0";

// Waits between attempts while the system has no descriptor or memory to give.
constexpr std::chrono::milliseconds kBackoffMin{100};
constexpr std::chrono::milliseconds kBackoffMax{2'000};

void print(const std::string& line) {
  console::write_out(line + "\n");
}

bool is_local_interface(const Ipv4& ip) {
  ifaddrs* first = nullptr;
  if (::getifaddrs(&first) != 0) {
    return false;
  }
  const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> owner(first, &::freeifaddrs);
  for (const ifaddrs* at = first; at != nullptr; at = at->ifa_next) {
    if (at->ifa_addr == nullptr || at->ifa_addr->sa_family != AF_INET) {
      continue;
    }
    sockaddr_in address{};
    std::memcpy(&address, at->ifa_addr, sizeof address);
    if (std::memcmp(&address.sin_addr, ip.data(), ip.size()) == 0) {
      return true;
    }
  }
  return false;
}

// After an error of accept() that says nothing about the next attempt.
bool is_passing(int error) {
  return would_block(error) || error == ECONNABORTED;
}

}  // namespace

bool binds_any(const std::string& bind_address) {
  return bind_address.empty() || bind_address == kAny;
}

bool Listener::open(const std::string& bind_address, uint16_t port) {
  FileDescriptor fd(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!fd.is_open()) {
    print("[Network] listen socket failed");
    return false;
  }
  const int on = 1;
  ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address_ = binds_any(bind_address) ? kAny : bind_address;
  if (::inet_pton(AF_INET, address_.c_str(), &address.sin_addr) != 1) {
    print("[Network] Invalid bind address '" + console::printable(bind_address) + "', using 0.0.0.0");
    address_ = kAny;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
  }
  if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    print("[Network] Bind failed on " + make_key(address_, port));
    return false;
  }
  if (::listen(fd.get(), kBacklog) != 0) {
    print("[Network] Listen failed");
    return false;
  }
  port_ = port;
  socket_ = std::move(fd);
  listening_ = true;
  print("[Network] Listening on " + make_key(address_, port));
  return true;
}

void Listener::run(StopSignal& stop, const Accept& accept) {
  std::chrono::milliseconds backoff = kBackoffMin;
  while (!stop.is_raised()) {
    pollfd waiting{socket_.get(), POLLIN, 0};
    if (::poll(&waiting, 1, kWaitMs) <= 0) {
      continue;
    }
    int error = ENOMEM;
    try {
      error = accept_one(accept);
    } catch (const std::exception&) {  // no memory: the connection is closed, the next may fare better
    }
    if (error == 0) {
      backoff = kBackoffMin;
    } else if (!is_passing(error)) {
      if (backoff == kBackoffMin && !stop.is_raised()) {
        log_.failure("accept", "Cannot accept connections", std::strerror(error));
      }
      stop.wait_for(backoff);
      backoff = std::min(2 * backoff, kBackoffMax);
    }
  }
}

// 0, or the error of the attempt.
int Listener::accept_one(const Accept& accept) {
  sockaddr_in address{};
  socklen_t address_bytes = sizeof address;
  FileDescriptor connection(
      ::accept4(socket_.get(), reinterpret_cast<sockaddr*>(&address), &address_bytes, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (!connection.is_open()) {
    return errno;
  }
  const int on = 1;
  ::setsockopt(connection.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  Ipv4 ip;
  std::memcpy(ip.data(), &address.sin_addr, ip.size());
  accept(std::move(connection), format_ipv4(ip), ntohs(address.sin_port));
  return 0;
}

void Listener::interrupt() {
  listening_ = false;
  ::shutdown(socket_.get(), SHUT_RDWR);
}

void Listener::close() {
  listening_ = false;
  socket_.close();
}

bool Listener::is_own(const std::string& ip, uint16_t port) const {
  const auto bytes = parse_ipv4(ip);
  if (!listening_ || port != port_ || !bytes) {
    return false;
  }
  const bool any = bytes->front() == 0;  // the system takes 0.0.0.0 for this machine
  if (address_ != kAny) {
    return ip == address_ || (any && address_.starts_with("127."));
  }
  return any || ip.starts_with("127.") || is_local_interface(*bytes);
}

}  // namespace norvel::network
