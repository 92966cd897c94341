#include "rpc/server_connection.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <limits>

#include "core/console.h"
#include "core/file_io.h"

namespace norvel::rpc {

namespace {

using Clock = std::chrono::steady_clock;

int int_size(size_t size) {
  return static_cast<int>(std::min<size_t>(size, std::numeric_limits<int>::max()));
}

}  // namespace

bool ServerConnection::handshake(SSL_CTX* tls, TimePoint deadline) {
  tls_ = make_tls_session(tls, socket_);
  if (tls_ == nullptr) {
    console::error_line("[RPC] TLS: SSL_new failed");
    return false;
  }
  return drive([this] { return SSL_do_handshake(tls_.get()); }, deadline) > 0;
}

std::optional<size_t> ServerConnection::read(std::span<char> into, TimePoint deadline) {
  if (tls_ == nullptr) {
    return receive(into, deadline);
  }
  const int received = drive([&] { return SSL_read(tls_.get(), into.data(), int_size(into.size())); }, deadline);
  if (received > 0) {
    return static_cast<size_t>(received);
  }
  const bool ended = !tls_failed_ && (SSL_get_shutdown(tls_.get()) & SSL_RECEIVED_SHUTDOWN) != 0;
  return ended ? std::optional<size_t>(0) : std::nullopt;
}

bool ServerConnection::write(std::string_view text, TimePoint deadline) {
  while (!text.empty()) {
    ssize_t sent = 0;
    if (tls_ != nullptr) {
      sent = drive([&] { return SSL_write(tls_.get(), text.data(), int_size(text.size())); }, deadline);
    } else if (wait(POLLOUT, deadline)) {
      sent = ::send(socket_, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent < 0 && would_block(errno)) {
        continue;
      }
    }
    if (sent <= 0) {
      return false;
    }
    text.remove_prefix(static_cast<size_t>(sent));
  }
  return true;
}

void ServerConnection::finish(size_t bytes_max, TimePoint deadline) {
  if (tls_ != nullptr && !tls_failed_) {
    ERR_clear_error();
    SSL_shutdown(tls_.get());  // without waiting for the peer's own notice
  }
  ::shutdown(socket_, SHUT_WR);
  std::array<char, 8'192> dropped;
  for (size_t bytes = 0; bytes < bytes_max;) {
    const auto received = receive(dropped, deadline);
    if (received.value_or(0) == 0) {
      return;
    }
    bytes += *received;
  }
}

template <typename Operation>
int ServerConnection::drive(Operation operation, TimePoint deadline) {
  while (!tls_failed_ && Clock::now() < deadline) {
    ERR_clear_error();  // an older error would be taken for this operation's
    const int result = operation();
    if (result > 0) {
      return result;
    }
    const int reason = SSL_get_error(tls_.get(), result);
    if (reason == SSL_ERROR_ZERO_RETURN) {
      return 0;
    }
    const bool may_wait = reason == SSL_ERROR_WANT_READ || reason == SSL_ERROR_WANT_WRITE;
    tls_failed_ = !may_wait || !wait(reason == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, deadline);
  }
  return 0;
}

// A peer that keeps the socket ready must not outlive the deadline either.
bool ServerConnection::wait(short events, TimePoint deadline) const {
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) {
      return false;
    }
    pollfd waiting{socket_, events, 0};
    const int ready = ::poll(&waiting, 1, static_cast<int>(std::min<int64_t>(left, std::numeric_limits<int>::max())));
    if (ready > 0) {
      return true;
    }
    if (ready < 0 && errno != EINTR) {
      return false;
    }
  }
}

std::optional<size_t> ServerConnection::receive(std::span<char> into, TimePoint deadline) const {
  while (wait(POLLIN, deadline)) {
    const ssize_t received = ::recv(socket_, into.data(), into.size(), MSG_DONTWAIT);
    if (received >= 0) {
      return static_cast<size_t>(received);
    }
    if (!would_block(errno)) {
      return std::nullopt;
    }
  }
  return std::nullopt;
}

}  // namespace norvel::rpc
